// Internal: the platform's certificate contexts and the certificate dialog.
//
// The library calls these under the names of the CryptoAPI operations they
// stand for, so that the certificate code reads the same on every platform.
// On Linux a context is a counted object holding the certificate's encoded
// bytes and the name of the system store it was found in; the stores of
// cert_store.h hand out the same objects.
#ifndef PDFSEALMARK_PLATFORM_CERT_CONTEXT_H
#define PDFSEALMARK_PLATFORM_CERT_CONTEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace PDF_Sealmark {
namespace platform {

// Encoding type of a certificate given as DER.
constexpr std::uint32_t X509_ASN_ENCODING = 1;
// Context type for the view dialog: a certificate.
constexpr std::uint32_t CERT_STORE_CERTIFICATE_CONTEXT = 1;

struct CertContext {
  std::uint32_t encodingType = 0;
  std::vector<unsigned char> encoded;  // the certificate as its encoding gives it
  std::string store;                   // "MY", "ADDRESSBOOK", "ROOT"; empty when made from bytes
  int references = 1;                  // CertDuplicate/CertFree count it
};
using PCCERT_CONTEXT = const CertContext*;

// A new context with one reference over a copy of the bytes, or null when
// the encoding type isn't X509_ASN_ENCODING or there are no bytes.
PCCERT_CONTEXT CertCreateCertificateContext(std::uint32_t encodingType, const unsigned char* encoded,
                                            std::uint32_t length);
// One more reference to the same context.
PCCERT_CONTEXT CertDuplicateCertificateContext(PCCERT_CONTEXT context);
// Gives up one reference; the last one frees the context.  Null is allowed.
bool CertFreeCertificateContext(PCCERT_CONTEXT context);

// The certificate dialog, looked up at run time.  Null where the platform
// has none, as on Linux: then nothing is shown.
using CryptUIDlgViewContextFn = int (*)(std::uint32_t contextType, const void* context, void* parent,
                                        const wchar_t* title, std::uint32_t flags, void* reserved);
CryptUIDlgViewContextFn lookupCryptUIDlgViewContext();

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
