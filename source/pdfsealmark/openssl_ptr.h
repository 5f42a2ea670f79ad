// Internal: one owning alias per OpenSSL type.
//
// Every OpenSSL object a function makes is held by one of these from the
// line it is made, so it is freed on every path.  Read OpenSSL's names to
// know who frees: get0/set1/add1 borrow, get1/new/set0/add0 transfer.
#ifndef PDFSEALMARK_OPENSSL_PTR_H
#define PDFSEALMARK_OPENSSL_PTR_H

#include <memory>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/cms.h>
#include <openssl/ess.h>
#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>
#include <openssl/ts.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

namespace PDF_Sealmark {
namespace ossl {

template <class T>
struct Deleter;

#define PDFSEALMARK_DEFINE_DELETER(type, fn) \
  template <>                                \
  struct Deleter<type> {                     \
    void operator()(type* p) const { fn(p); } \
  };

PDFSEALMARK_DEFINE_DELETER(ASN1_OBJECT, ASN1_OBJECT_free)
// ASN1_TIME and ASN1_OCTET_STRING are both ASN1_STRING.
PDFSEALMARK_DEFINE_DELETER(ASN1_STRING, ASN1_STRING_free)
PDFSEALMARK_DEFINE_DELETER(CMS_ContentInfo, CMS_ContentInfo_free)
PDFSEALMARK_DEFINE_DELETER(ESS_SIGNING_CERT_V2, ESS_SIGNING_CERT_V2_free)
PDFSEALMARK_DEFINE_DELETER(EVP_CIPHER_CTX, EVP_CIPHER_CTX_free)
PDFSEALMARK_DEFINE_DELETER(BIGNUM, BN_free)
PDFSEALMARK_DEFINE_DELETER(BIO, BIO_free_all)
PDFSEALMARK_DEFINE_DELETER(EVP_MD_CTX, EVP_MD_CTX_free)
PDFSEALMARK_DEFINE_DELETER(EVP_PKEY, EVP_PKEY_free)
PDFSEALMARK_DEFINE_DELETER(EVP_PKEY_CTX, EVP_PKEY_CTX_free)
PDFSEALMARK_DEFINE_DELETER(X509_ALGOR, X509_ALGOR_free)
PDFSEALMARK_DEFINE_DELETER(X509, X509_free)
PDFSEALMARK_DEFINE_DELETER(X509_EXTENSION, X509_EXTENSION_free)
PDFSEALMARK_DEFINE_DELETER(X509_NAME, X509_NAME_free)
PDFSEALMARK_DEFINE_DELETER(X509_REQ, X509_REQ_free)
PDFSEALMARK_DEFINE_DELETER(X509_CRL, X509_CRL_free)
PDFSEALMARK_DEFINE_DELETER(X509_STORE, X509_STORE_free)
PDFSEALMARK_DEFINE_DELETER(PKCS7, PKCS7_free)
PDFSEALMARK_DEFINE_DELETER(PKCS12, PKCS12_free)
PDFSEALMARK_DEFINE_DELETER(OCSP_REQUEST, OCSP_REQUEST_free)
PDFSEALMARK_DEFINE_DELETER(OCSP_RESPONSE, OCSP_RESPONSE_free)
PDFSEALMARK_DEFINE_DELETER(OCSP_BASICRESP, OCSP_BASICRESP_free)
PDFSEALMARK_DEFINE_DELETER(TS_TST_INFO, TS_TST_INFO_free)
PDFSEALMARK_DEFINE_DELETER(AUTHORITY_INFO_ACCESS, AUTHORITY_INFO_ACCESS_free)
PDFSEALMARK_DEFINE_DELETER(CRL_DIST_POINTS, CRL_DIST_POINTS_free)

#undef PDFSEALMARK_DEFINE_DELETER

template <>
struct Deleter<STACK_OF(X509)> {
  void operator()(STACK_OF(X509) * p) const { sk_X509_pop_free(p, X509_free); }
};

template <>
struct Deleter<STACK_OF(X509_EXTENSION)> {
  void operator()(STACK_OF(X509_EXTENSION) * p) const { sk_X509_EXTENSION_pop_free(p, X509_EXTENSION_free); }
};

template <class T>
using UniquePtr = std::unique_ptr<T, Deleter<T>>;

}  // namespace ossl
}  // namespace PDF_Sealmark

#endif
