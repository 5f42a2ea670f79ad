// Internal: the process-wide registration of OpenSSL's algorithms.
#ifndef PDFSEALMARK_OPENSSL_INIT_H
#define PDFSEALMARK_OPENSSL_INIT_H

namespace PDF_Sealmark {

// Registers all ciphers and digests the first time it runs and never undoes
// it.  A plain flag, no lock: the first call must happen before threads share
// the library.  The certificate and store constructors call it.
void initOpenSSLOnce();

}  // namespace PDF_Sealmark

#endif
