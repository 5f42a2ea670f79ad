#include "pdfsealmark/cert/PDFCertWinImpl.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

PDFCertWinImpl::~PDFCertWinImpl() {
  platform::CertFreeCertificateContext(context);
  context = nullptr;
}

icu::UnicodeString PDFCertWinImpl::getClassName() const {
  return icu::UnicodeString("PDFCertWinImpl", -1, icu::UnicodeString::kInvariant);
}

bool PDFCertWinImpl::syncWinCert(PDFCertImpl* impl) {
  if (impl == nullptr || impl->getX509() == nullptr) return false;
  ossl::UniquePtr<BIO> mem(BIO_new(BIO_s_mem()));
  if (!mem || i2d_X509_bio(mem.get(), impl->getX509()) != 1) return false;
  BUF_MEM* der = nullptr;
  BIO_get_mem_ptr(mem.get(), &der);
  if (der == nullptr) return false;
  platform::CertFreeCertificateContext(context);
  context = platform::CertCreateCertificateContext(platform::X509_ASN_ENCODING,
                                                   reinterpret_cast<const unsigned char*>(der->data),
                                                   static_cast<std::uint32_t>(der->length));
  return context != nullptr;
}

void PDFCertWinImpl::showDialog(void* parent) const {
  if (context == nullptr) return;
  const platform::CryptUIDlgViewContextFn view = platform::lookupCryptUIDlgViewContext();
  if (view == nullptr) return;
  view(platform::CERT_STORE_CERTIFICATE_CONTEXT, context, parent, nullptr, 0, nullptr);
}

}  // namespace PDF_Sealmark
