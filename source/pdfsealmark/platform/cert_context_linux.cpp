// Linux: certificate contexts are plain counted objects; there is no
// certificate dialog.
#include <new>

#include "pdfsealmark/platform/cert_context.h"

namespace PDF_Sealmark {
namespace platform {

PCCERT_CONTEXT CertCreateCertificateContext(std::uint32_t encodingType, const unsigned char* encoded,
                                            std::uint32_t length) {
  if (encodingType != X509_ASN_ENCODING || encoded == nullptr || length == 0) return nullptr;
  auto* context = new (std::nothrow) CertContext;
  if (context == nullptr) return nullptr;
  context->encodingType = encodingType;
  context->encoded.assign(encoded, encoded + length);
  return context;
}

PCCERT_CONTEXT CertDuplicateCertificateContext(PCCERT_CONTEXT context) {
  if (context != nullptr) ++const_cast<CertContext*>(context)->references;
  return context;
}

bool CertFreeCertificateContext(PCCERT_CONTEXT context) {
  if (context == nullptr) return true;
  auto* owned = const_cast<CertContext*>(context);
  if (--owned->references == 0) delete owned;
  return true;
}

CryptUIDlgViewContextFn lookupCryptUIDlgViewContext() { return nullptr; }

}  // namespace platform
}  // namespace PDF_Sealmark
