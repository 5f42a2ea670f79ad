#include "pdfsealmark/check/signer_info_check.h"

#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>

#include <cstring>

#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

namespace {

using Bytes = std::vector<unsigned char>;

// RFC 8419: with Ed448, id-shake256 stands for SHAKE256 with 512 bits of
// output; id-shake128 likewise has 256 bits with Ed25519.
std::size_t xofLengthOf(int nid) {
  if (nid == NID_shake256) return 64;
  if (nid == NID_shake128) return 32;
  return 0;
}

// BSI TR-03111 "plain" ECDSA: the signature is r || s, each as wide as the
// order, instead of the DER SEQUENCE { r INTEGER, s INTEGER }.
//   ecdsa-plain-signatures OBJECT IDENTIFIER ::= { 0 4 0 127 0 7 1 1 4 1 }
bool isPlainEcdsa(const ASN1_OBJECT* algorithm) {
  static const unsigned char kPrefix[] = {0x04, 0x00, 0x7f, 0x00, 0x07, 0x01, 0x01, 0x04, 0x01};
  const unsigned char* der = OBJ_get0_data(algorithm);
  const std::size_t length = OBJ_length(algorithm);
  return der && length == sizeof kPrefix + 1 && std::memcmp(der, kPrefix, sizeof kPrefix) == 0;
}

Bytes plainToDer(const unsigned char* sig, std::size_t length) {
  if (length == 0 || length % 2 != 0) return {};
  ossl::UniquePtr<BIGNUM> r(BN_bin2bn(sig, static_cast<int>(length / 2), nullptr));
  ossl::UniquePtr<BIGNUM> s(BN_bin2bn(sig + length / 2, static_cast<int>(length / 2), nullptr));
  ECDSA_SIG* pair = ECDSA_SIG_new();
  if (!pair || !r || !s || !ECDSA_SIG_set0(pair, r.get(), s.get())) {
    ECDSA_SIG_free(pair);
    return {};
  }
  r.release();  // set0 took them
  s.release();
  unsigned char* der = nullptr;
  const int n = i2d_ECDSA_SIG(pair, &der);
  ECDSA_SIG_free(pair);
  Bytes out;
  if (n > 0) out.assign(der, der + n);
  OPENSSL_free(der);
  return out;
}

const EVP_MD* mdOf(const X509_ALGOR* algorithm) {
  return algorithm ? EVP_get_digestbyobj(algorithm->algorithm) : nullptr;
}

// RSASSA-PSS-params ::= SEQUENCE { hashAlgorithm [0] DEFAULT sha1, maskGenAlgorithm [1] DEFAULT mgf1SHA1,
//                                  saltLength [2] INTEGER DEFAULT 20, trailerField [3] DEFAULT 1 }
bool setPssParameters(EVP_PKEY_CTX* ctx, const X509_ALGOR* signatureAlgorithm, const EVP_MD*& md) {
  const ASN1_TYPE* parameter = signatureAlgorithm->parameter;
  if (!parameter || parameter->type != V_ASN1_SEQUENCE) return false;
  RSA_PSS_PARAMS* params =
      static_cast<RSA_PSS_PARAMS*>(ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), parameter));
  if (!params) return false;
  const EVP_MD* hash = params->hashAlgorithm ? mdOf(params->hashAlgorithm) : EVP_sha1();
  const EVP_MD* mgfHash = EVP_sha1();
  bool ok = hash != nullptr;
  if (ok && params->maskGenAlgorithm) {
    ok = OBJ_obj2nid(params->maskGenAlgorithm->algorithm) == NID_mgf1;
    X509_ALGOR* inner = ok ? static_cast<X509_ALGOR*>(ASN1_TYPE_unpack_sequence(
                                 ASN1_ITEM_rptr(X509_ALGOR), params->maskGenAlgorithm->parameter))
                           : nullptr;
    mgfHash = inner ? mdOf(inner) : nullptr;
    X509_ALGOR_free(inner);
    ok = ok && mgfHash != nullptr;
  }
  long salt = 20;
  if (ok && params->saltLength) salt = ASN1_INTEGER_get(params->saltLength);
  if (ok && params->trailerField) ok = ASN1_INTEGER_get(params->trailerField) == 1;
  RSA_PSS_PARAMS_free(params);
  if (!ok || salt < 0 || salt > 1024) return false;
  md = hash;
  return EVP_PKEY_CTX_set_rsa_padding(ctx, RSA_PKCS1_PSS_PADDING) > 0 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md(ctx, mgfHash) > 0 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(ctx, static_cast<int>(salt)) > 0;
}

}  // namespace

ContentDigest::ContentDigest(const X509_ALGOR* digestAlgorithm) {
  if (digestAlgorithm && digestAlgorithm->algorithm) algorithm_ = OBJ_dup(digestAlgorithm->algorithm);
  const EVP_MD* md = mdOf(digestAlgorithm);
  if (!md) return;
  xofLength_ = xofLengthOf(EVP_MD_get_type(md));
  ctx_ = EVP_MD_CTX_new();
  if (ctx_ && EVP_DigestInit_ex(ctx_, md, nullptr) != 1) {
    EVP_MD_CTX_free(ctx_);
    ctx_ = nullptr;
  }
}

ContentDigest::~ContentDigest() {
  EVP_MD_CTX_free(ctx_);
  ASN1_OBJECT_free(algorithm_);
}

bool ContentDigest::isFor(const X509_ALGOR* digestAlgorithm) const {
  return algorithm_ && digestAlgorithm && digestAlgorithm->algorithm &&
         OBJ_cmp(algorithm_, digestAlgorithm->algorithm) == 0;
}

void ContentDigest::update(const unsigned char* data, std::size_t size) {
  if (ctx_ && size > 0) EVP_DigestUpdate(ctx_, data, size);
}

Bytes ContentDigest::finish() {
  if (!ctx_) return {};
  Bytes out;
  if (xofLength_ > 0) {
    out.resize(xofLength_);
    if (EVP_DigestFinalXOF(ctx_, out.data(), out.size()) != 1) out.clear();
  } else {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(ctx_, digest, &length) == 1) out.assign(digest, digest + length);
  }
  return out;
}

Bytes digestWith(const X509_ALGOR* digestAlgorithm, const unsigned char* data, std::size_t size) {
  ContentDigest digest(digestAlgorithm);
  digest.update(data, size);
  return digest.finish();
}

bool signerInfoNames(PKCS7_SIGNER_INFO* si, X509* cert) {
  const PKCS7_ISSUER_AND_SERIAL* id = si ? si->issuer_and_serial : nullptr;
  if (!id || !id->issuer || !id->serial || !cert) return false;
  return X509_NAME_cmp(id->issuer, X509_get_issuer_name(cert)) == 0 &&
         ASN1_INTEGER_cmp(id->serial, X509_get0_serialNumber(cert)) == 0;
}

bool verifySignerInfo(PKCS7_SIGNER_INFO* si, X509* cert, const Bytes& contentDigest) {
  if (!si || !cert || !si->enc_digest || !si->digest_enc_alg || contentDigest.empty()) return false;
  EVP_PKEY* key = X509_get0_pubkey(cert);
  if (!key) return false;
  const EVP_MD* md = mdOf(si->digest_alg);
  if (!md) return false;

  // What the signature covers: the DER of the signed attributes, as a SET OF
  // in the order they came (PKCS7_ATTR_VERIFY keeps it), or the digest.
  Bytes signedAttributes;
  if (sk_X509_ATTRIBUTE_num(si->auth_attr) > 0) {
    const ASN1_OCTET_STRING* messageDigest = PKCS7_digest_from_attributes(si->auth_attr);
    if (!messageDigest ||
        static_cast<std::size_t>(ASN1_STRING_length(messageDigest)) != contentDigest.size() ||
        std::memcmp(ASN1_STRING_get0_data(messageDigest), contentDigest.data(), contentDigest.size()) != 0) {
      return false;
    }
    unsigned char* der = nullptr;
    const int n =
        ASN1_item_i2d(reinterpret_cast<ASN1_VALUE*>(si->auth_attr), &der, ASN1_ITEM_rptr(PKCS7_ATTR_VERIFY));
    if (n <= 0) return false;
    signedAttributes.assign(der, der + n);
    OPENSSL_free(der);
  }

  const unsigned char* sig = ASN1_STRING_get0_data(si->enc_digest);
  std::size_t sigLength = static_cast<std::size_t>(ASN1_STRING_length(si->enc_digest));
  const int keyType = EVP_PKEY_get_base_id(key);
  if (keyType == EVP_PKEY_ED25519 || keyType == EVP_PKEY_ED448) {
    // Pure EdDSA signs the message itself, so only signed attributes can be
    // checked from a digest of the content.
    if (signedAttributes.empty()) return false;
    ossl::UniquePtr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
    return ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key) == 1 &&
           EVP_DigestVerify(ctx.get(), sig, sigLength, signedAttributes.data(), signedAttributes.size()) == 1;
  }

  ossl::UniquePtr<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new(key, nullptr));
  if (!ctx || EVP_PKEY_verify_init(ctx.get()) != 1) return false;
  const ASN1_OBJECT* signatureAlgorithm = si->digest_enc_alg->algorithm;
  Bytes der;
  if (OBJ_obj2nid(signatureAlgorithm) == NID_rsassaPss) {
    const EVP_MD* pssHash = nullptr;
    if (!setPssParameters(ctx.get(), si->digest_enc_alg, pssHash)) return false;
    // The signature's hash is the one its parameters name.
    md = pssHash;
  } else if (isPlainEcdsa(signatureAlgorithm)) {
    der = plainToDer(sig, sigLength);
    if (der.empty()) return false;
    sig = der.data();
    sigLength = der.size();
  }
  if (EVP_PKEY_CTX_set_signature_md(ctx.get(), md) <= 0) return false;
  Bytes hash = signedAttributes.empty()
                   ? contentDigest
                   : digestWith(si->digest_alg, signedAttributes.data(), signedAttributes.size());
  if (md != mdOf(si->digest_alg) && !signedAttributes.empty()) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(signedAttributes.data(), signedAttributes.size(), digest, &length, md, nullptr) != 1)
      return false;
    hash.assign(digest, digest + length);
  }
  if (hash.empty()) return false;
  return EVP_PKEY_verify(ctx.get(), sig, sigLength, hash.data(), hash.size()) == 1;
}

}  // namespace PDF_Sealmark
