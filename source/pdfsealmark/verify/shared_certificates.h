// Internal: decoding PKCS#7 signed data with each certificate decoded once.
//
// Under OpenSSL 3.0, decoding a certificate builds a provider decoder chain
// for its public key.  That takes about 100 µs, most of it under locks of
// the library context, so two threads decoding certificates at once go
// slower together than one does alone.  A run over many PDFs meets the same
// few certificates again and again (one signer, one CA), so the signed data
// is decoded here with its certificate set cut out, and each certificate is
// taken from a small process-wide cache keyed by its DER bytes.  X509
// objects are reference counted and not changed after decoding, so one
// object serves every signature that carries those bytes.
#ifndef PDFSEALMARK_VERIFY_SHARED_CERTIFICATES_H
#define PDFSEALMARK_VERIFY_SHARED_CERTIFICATES_H

#include <cstddef>

#include <openssl/pkcs7.h>

namespace PDF_Sealmark {

// The PKCS7 that d2i_PKCS7 gives for these bytes, or null when the bytes
// are not a DER ContentInfo of signed data with definite lengths and at
// least one certificate: the caller then decodes them as it would have.
// Bytes after the ContentInfo are ignored, as d2i_PKCS7 ignores them.
PKCS7* decodeSharingCertificates(const unsigned char* der, std::size_t length);

// Drops the cached certificates (objects still in use keep their own
// references).  For tests.
void forgetSharedCertificates();

}  // namespace PDF_Sealmark

#endif
