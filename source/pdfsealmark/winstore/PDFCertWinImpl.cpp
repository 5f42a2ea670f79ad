#include "pdfsealmark/winstore/PDFCertWinImpl.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/rsa.h>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/platform/crypt_key.h"
#include "pdfsealmark/winstore/PDFCertWinStoreImpl.h"
#include "pdfsealmark/winstore/capi_rsa.h"

namespace PDF_Sealmark {

PDFCertWinImpl::~PDFCertWinImpl() {
  platform::CertFreeCertificateContext(context);
  context = nullptr;
}

icu::UnicodeString PDFCertWinImpl::getClassName() const {
  return icu::UnicodeString("PDFCertWinImpl", -1, icu::UnicodeString::kInvariant);
}

bool PDFCertWinImpl::setWinCert(PDFCertImpl* impl, platform::PCCERT_CONTEXT newContext, bool withKey) {
  if (newContext == nullptr || impl == nullptr) return false;
  if (withKey) {
    // Only a probe: is there a key?  The key object acquires its own.
    platform::HCRYPTPROV provider = nullptr;
    std::uint32_t keySpec = 0;
    bool callerFree = false;
    withKey =
        platform::CryptAcquireCertificatePrivateKey(newContext, 0, nullptr, &provider, &keySpec, &callerFree);
    if (provider != nullptr && callerFree) platform::CryptReleaseContext(provider, 0);
  }
  platform::CertFreeCertificateContext(context);
  context = platform::CertDuplicateCertificateContext(newContext);

  ossl::UniquePtr<BIO> mem(
      BIO_new_mem_buf(newContext->encoded.data(), static_cast<int>(newContext->encoded.size())));
  if (!mem) return false;
  X509* cert = d2i_X509_bio(mem.get(), nullptr);
  if (cert == nullptr) return false;
  impl->setX509(cert);
  // A key held for an earlier certificate doesn't belong to this one.
  impl->setPKey(nullptr);
  if (!withKey) return true;

  // The certificate's own key object is shared with the X509 and, under
  // OpenSSL 3, held by a provider that never calls an RSA method.  The
  // bridge hangs its method on a copy of the public key in a legacy key
  // object of its own, which OpenSSL then treats as a foreign key and
  // routes every operation through the method.
  ossl::UniquePtr<EVP_PKEY> publicKey(X509_get_pubkey(cert));
  RSA* shared = publicKey ? EVP_PKEY_get1_RSA(publicKey.get()) : nullptr;
  if (shared == nullptr) return false;
  RSA* rsa = RSAPublicKey_dup(shared);
  RSA_free(shared);
  if (rsa == nullptr || capiRsaMethod() == nullptr) {
    RSA_free(rsa);
    return false;
  }
  if (RSA_set_ex_data(rsa, kSlotContext, const_cast<platform::CertContext*>(newContext)) != 1) {
    RSA_free(rsa);
    return false;
  }
  // capiRsaInit runs here and reads slot 0: the order is binding.
  RSA_set_method(rsa, capiRsaMethod());
  // RSA_set_method doesn't copy the method's flags into the key object.
  RSA_set_flags(rsa, RSA_meth_get_flags(capiRsaMethod()));
  ossl::UniquePtr<EVP_PKEY> key(EVP_PKEY_new());
  if (!key || EVP_PKEY_assign_RSA(key.get(), rsa) != 1) {
    RSA_free(rsa);
    return false;
  }
  impl->setPKey(key.release());
  return true;
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
  loadDialogFunctions();
  if (g_viewContextDialog == nullptr) return;
  g_viewContextDialog(platform::CERT_STORE_CERTIFICATE_CONTEXT, context, parent, nullptr, 0, nullptr);
}

}  // namespace PDF_Sealmark
