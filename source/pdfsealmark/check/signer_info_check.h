// Internal: checking one PKCS#7 signer info with the EVP interface.
//
// OpenSSL's PKCS7_signatureVerify knows PKCS#1 v1.5 RSA, DSA and ECDSA only.
// These functions check any signer info OpenSSL 3 has the algorithm for,
// with the algorithm parameters the signer info carries: RSASSA-PSS, ECDSA
// (DER or plain r||s), Ed25519 and Ed448 (SHAKE256 digests included).
#ifndef PDFSEALMARK_CHECK_SIGNER_INFO_CHECK_H
#define PDFSEALMARK_CHECK_SIGNER_INFO_CHECK_H

#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <cstddef>
#include <vector>

namespace PDF_Sealmark {

// A digest of the content in the signer info's own digest algorithm.
class ContentDigest {
 public:
  // Null md when OpenSSL doesn't know the algorithm.
  explicit ContentDigest(const X509_ALGOR* digestAlgorithm);
  ~ContentDigest();
  ContentDigest(const ContentDigest&) = delete;
  ContentDigest& operator=(const ContentDigest&) = delete;

  bool ok() const { return ctx_ != nullptr; }
  void update(const unsigned char* data, std::size_t size);
  // The digest; empty when it failed.  Call once.
  std::vector<unsigned char> finish();
  // Whether this digest is in that algorithm (a signer info's).  Known or
  // not: a signer info in an algorithm OpenSSL lacks finds its digest here,
  // an empty one.
  bool isFor(const X509_ALGOR* digestAlgorithm) const;

 private:
  EVP_MD_CTX* ctx_ = nullptr;
  ASN1_OBJECT* algorithm_ = nullptr;  // a copy: the X509_ALGOR may go first
  std::size_t xofLength_ = 0;  // SHAKE: the output length RFC 8419 fixes
};

// The digest of data, in the algorithm named; empty when unknown.
std::vector<unsigned char> digestWith(const X509_ALGOR* digestAlgorithm, const unsigned char* data,
                                      std::size_t size);

// True when the signer info was made by cert's key over content whose digest
// (in the signer info's digest algorithm) is contentDigest: with signed
// attributes, their messageDigest must equal it and the signature covers
// their DER; without them, the signature covers the digest itself.
bool verifySignerInfo(PKCS7_SIGNER_INFO* si, X509* cert, const std::vector<unsigned char>& contentDigest);

// True when the signer info names this certificate by issuer and serial.
bool signerInfoNames(PKCS7_SIGNER_INFO* si, X509* cert);

}  // namespace PDF_Sealmark

#endif
