// The certificates a signature carries and the signing time in its signed
// attributes.
#include "pdfsealmark/verify/signer_info.h"

#include <openssl/objects.h>

#include <string>

#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"

namespace PDF_Sealmark {

// SignedData ::= SEQUENCE { ..., certificates [0] IMPLICIT CertificateSet OPTIONAL, ... }
STACK_OF(X509) * signedDataCertificates(PKCS7* p7) {
  if (PKCS7_type_is_signed(p7)) return p7->d.sign ? p7->d.sign->cert : nullptr;
  if (PKCS7_type_is_signedAndEnveloped(p7)) {
    return p7->d.signed_and_enveloped ? p7->d.signed_and_enveloped->cert : nullptr;
  }
  return nullptr;
}

bool collectCerts(PKCS7* p7, std::vector<PDFCert>& certs) {
  if (p7 == nullptr) return false;
  STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(p7);
  if (signers == nullptr) return false;
  STACK_OF(X509)* set = signedDataCertificates(p7);
  // Callers take the first certificates as the signer's: version 3 ones, with
  // their extensions, go ahead of version 1 ones (a root or an old CA).
  std::vector<PDFCert> older;
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(signers); ++i) {
    if (sk_PKCS7_SIGNER_INFO_value(signers, i) == nullptr) continue;
    for (int j = 0; j < sk_X509_num(set); ++j) {
      const X509* cert = sk_X509_value(set, j);
      if (cert == nullptr) continue;
      // Version ::= INTEGER { v1(0), v2(1), v3(2) }
      const long version = X509_get_version(cert);
      (version > 1 ? certs : older).push_back(makePDFCert(cert));
    }
  }
  certs.insert(certs.end(), older.begin(), older.end());
  return true;
}

bool PDFSealmarkVerifyImpl::getCerts(std::vector<PDFCert>& certs) const { return collectCerts(pkcs7, certs); }

std::string PDFSealmarkVerifyImpl::getSignedDate() const {
  if (!hasParsed || sigDict == nullptr || pkcs7 == nullptr) return {};
  STACK_OF(PKCS7_SIGNER_INFO)* signers = PKCS7_get_signer_info(pkcs7);
  if (signers == nullptr) return {};
  // signingTime ATTRIBUTE ::= { WITH SYNTAX SigningTime ID id-signingTime }
  // SigningTime ::= Time   -- UTCTime or GeneralizedTime
  ossl::UniquePtr<ASN1_OBJECT> signingTime(OBJ_txt2obj("1.2.840.113549.1.9.5", 1));
  const int nid = OBJ_obj2nid(signingTime.get());
  std::string date;
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(signers); ++i) {
    PKCS7_SIGNER_INFO* signer = sk_PKCS7_SIGNER_INFO_value(signers, i);
    if (signer == nullptr) break;
    const ASN1_TYPE* attribute = PKCS7_get_signed_attribute(signer, nid);
    if (attribute == nullptr || attribute->value.ptr == nullptr) continue;
    if (attribute->type == V_ASN1_UTCTIME || attribute->type == V_ASN1_GENERALIZEDTIME) {
      // The last signer info that has one decides.
      date = timeToText(attribute->value.utctime);
    }
  }
  return date;
}

bool PDFSealmarkVerify::getCerts(std::vector<PDFCert>& certs) const {
  return impl_ ? impl_->getCerts(certs) : false;
}

std::string PDFSealmarkVerify::getSignedDate() const {
  return impl_ ? impl_->getSignedDate() : std::string();
}

}  // namespace PDF_Sealmark
