#include "pdfsealmark/sign/cms_builder.h"

#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/ess.h>
#include <openssl/rand.h>

#include <climits>

#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"

namespace PDF_Sealmark {
namespace sign {

namespace {

void setWhy(std::string* why, const std::string& text) {
  if (why) *why = text;
}

std::string opensslReason(const std::string& what) {
  const unsigned long code = ERR_peek_last_error();
  ERR_clear_error();
  if (!code) return what;
  char text[256];
  ERR_error_string_n(code, text, sizeof text);
  return what + ": " + text;
}

bool digestOf(const EVP_MD* md, const unsigned char* data, std::size_t size, Bytes& out) {
  unsigned char buf[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (!EVP_Digest(data, size, buf, &len, md, nullptr)) return false;
  out.assign(buf, buf + len);
  return true;
}

// The signed attributes as DER, a SET OF in DER order: what the signature
// value covers (RFC 5652, 5.4).
bool signedAttributesDer(CMS_SignerInfo* si, Bytes& der) {
  STACK_OF(X509_ATTRIBUTE)* attrs = sk_X509_ATTRIBUTE_new_null();
  if (!attrs) return false;
  bool ok = true;
  // The stack borrows the attributes; only the stack itself is freed.
  for (int i = 0; ok && i < CMS_signed_get_attr_count(si); ++i) {
    ok = sk_X509_ATTRIBUTE_push(attrs, CMS_signed_get_attr(si, i)) > 0;
  }
  unsigned char* out = nullptr;
  const int len =
      ok ? ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(attrs), &out, ASN1_ITEM_rptr(PKCS7_ATTR_SIGN)) : 0;
  sk_X509_ATTRIBUTE_free(attrs);
  if (len <= 0) return false;
  der.assign(out, out + len);
  OPENSSL_free(out);
  return true;
}

// CAdES: OpenSSL adds a signing-time attribute whenever it signs a signer
// info, but PAdES puts the time in /M only (ETSI EN 319 142-1, 5.2.1).  So
// the attribute is taken out again and the signer info signed here.
bool dropSigningTimeAndResign(CMS_SignerInfo* si, const CmsSigner& signer) {
  const int at = CMS_signed_get_attr_by_NID(si, NID_pkcs9_signingTime, -1);
  if (at >= 0) X509_ATTRIBUTE_free(CMS_signed_delete_attr(si, at));
  Bytes attrs;
  if (!signedAttributesDer(si, attrs)) return false;
  ossl::UniquePtr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
  std::size_t len = 0;
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, signer.digest, nullptr, signer.key) != 1 ||
      EVP_DigestSign(ctx.get(), nullptr, &len, attrs.data(), attrs.size()) != 1) {
    return false;
  }
  Bytes signature(len);
  if (EVP_DigestSign(ctx.get(), signature.data(), &len, attrs.data(), attrs.size()) != 1) return false;
  return ASN1_STRING_set(CMS_SignerInfo_get0_signature(si), signature.data(), static_cast<int>(len)) == 1;
}

bool addSigningCertificateV2(CMS_SignerInfo* si, const CmsSigner& signer) {
  ossl::UniquePtr<ESS_SIGNING_CERT_V2> sc(
      OSSL_ESS_signing_cert_v2_new_init(signer.digest, signer.certificate, nullptr, 1));
  if (!sc) return false;
  unsigned char* der = nullptr;
  const int len = i2d_ESS_SIGNING_CERT_V2(sc.get(), &der);
  if (len <= 0) return false;
  const int ok =
      CMS_signed_add1_attr_by_NID(si, NID_id_smime_aa_signingCertificateV2, V_ASN1_SEQUENCE, der, len);
  OPENSSL_free(der);
  return ok == 1;
}

}  // namespace

bool requestToken(const PDF_Vellum::TimeStamp& tsa, const unsigned char* data, std::size_t size, Bytes& token,
                  std::string* why) {
  token.clear();
  const auto* rfc3161 = dynamic_cast<const PDFStdTimeStamp*>(&tsa);
  const PDFStdTimeStampImpl* impl = rfc3161 ? rfc3161->getStdTimeStampImpl() : nullptr;
  const EVP_MD* md = impl && impl->getHashType() == PDFStdTimeStamp::kSha1 ? EVP_sha1() : EVP_sha512();
  Bytes digest;
  Bytes nonce(16);
  if (!digestOf(md, data, size, digest) || RAND_bytes(nonce.data(), static_cast<int>(nonce.size())) != 1) {
    setWhy(why, opensslReason("can't make the time-stamp request"));
    return false;
  }
  // The client sends the first 8 bytes as the content of a DER INTEGER as
  // they stand: keep it positive and minimally encoded.
  nonce[0] = static_cast<unsigned char>((nonce[0] & 0x7f) | 0x01);
  // An RFC 3161 client sends the digest; the closed services' clients hash
  // the data themselves.
  if (!tsa.LeImplementts(token, rfc3161 ? Bytes() : Bytes(data, data + size), digest, nonce) || token.empty()) {
    token.clear();
    setWhy(why, "the time-stamp authority gave no token");
    return false;
  }
  return true;
}

bool buildCms(const CmsSigner& signer, const unsigned char* data, std::size_t size, Bytes& der,
              std::string* why) {
  der.clear();
  ERR_clear_error();
  Bytes content;
  if (signer.kind == CmsKind::kSha1) {
    if (!digestOf(EVP_sha1(), data, size, content)) {
      setWhy(why, opensslReason("SHA-1 failed"));
      return false;
    }
    data = content.data();
    size = content.size();
  }
  if (size > static_cast<std::size_t>(INT_MAX)) {
    setWhy(why, "document too large");
    return false;
  }
  const unsigned int flags =
      CMS_PARTIAL | CMS_BINARY | CMS_NOSMIMECAP | (signer.kind == CmsKind::kSha1 ? 0u : CMS_DETACHED);
  ossl::UniquePtr<CMS_ContentInfo> cms(CMS_sign(nullptr, nullptr, nullptr, nullptr, flags));
  CMS_SignerInfo* si =
      cms ? CMS_add1_signer(cms.get(), signer.certificate, signer.key, signer.digest, flags) : nullptr;
  if (!si) {
    setWhy(why, opensslReason("can't sign with this certificate and key"));
    return false;
  }
  for (X509* extra : signer.chain) {
    // The signer's certificate is there already; so may be any other.
    if (X509_cmp(extra, signer.certificate) != 0 && !CMS_add1_cert(cms.get(), extra)) ERR_clear_error();
  }
  bool ok = true;
  if (signer.kind == CmsKind::kCades) {
    ok = addSigningCertificateV2(si, signer);
  } else {
    ossl::UniquePtr<ASN1_TIME> when(ASN1_TIME_adj(nullptr, signer.signingTime, 0, 0));
    ok = when && CMS_signed_add1_attr_by_NID(si, NID_pkcs9_signingTime, when->type, when.get(), -1) == 1;
  }
  ossl::UniquePtr<BIO> in(ok ? BIO_new_mem_buf(data, static_cast<int>(size)) : nullptr);
  ok = in && CMS_final(cms.get(), in.get(), nullptr, flags & ~CMS_PARTIAL) == 1;
  if (ok && signer.kind == CmsKind::kCades) ok = dropSigningTimeAndResign(si, signer);
  if (!ok) {
    setWhy(why, opensslReason("signing failed"));
    return false;
  }

  if (signer.timeStamp) {
    // The token covers the signature value (RFC 3161, appendix A).
    const ASN1_OCTET_STRING* value = CMS_SignerInfo_get0_signature(si);
    Bytes token;
    if (!requestToken(*signer.timeStamp, ASN1_STRING_get0_data(value),
                      static_cast<std::size_t>(ASN1_STRING_length(value)), token, why)) {
      return false;
    }
    if (CMS_unsigned_add1_attr_by_NID(si, NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE, token.data(),
                                      static_cast<int>(token.size())) != 1) {
      setWhy(why, opensslReason("can't add the time-stamp token"));
      return false;
    }
  }

  unsigned char* out = nullptr;
  const int len = i2d_CMS_ContentInfo(cms.get(), &out);
  if (len <= 0) {
    setWhy(why, opensslReason("can't encode the signature"));
    return false;
  }
  der.assign(out, out + len);
  OPENSSL_free(out);
  return true;
}

}  // namespace sign
}  // namespace PDF_Sealmark
