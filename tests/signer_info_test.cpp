// The certificates and signing time of a signature, on PDFs written by the
// test builder.
#include "pdfsealmark/verify/signer_info.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <cstdio>
#include <ctime>
#include <string>
#include <vector>

#include "pdf_builder.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFCert;
using PDF_Sealmark::PDFSealmarkVerify;
using sealtest::hashOf;
namespace ossl = PDF_Sealmark::ossl;

std::string sha1Hex(const X509* x) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  X509_digest(x, EVP_sha1(), md, &n);
  std::string hex;
  char two[3];
  for (unsigned int i = 0; i < n; ++i) {
    std::snprintf(two, sizeof two, "%02X", md[i]);
    hex += two;
  }
  return hex;
}

// A version 1 certificate issued by the builder's CA.
ossl::UniquePtr<X509> makeV1(const sealtest::Identity& ca) {
  ossl::UniquePtr<X509> x(X509_new());
  X509_set_version(x.get(), X509_VERSION_1);
  ASN1_INTEGER_set(X509_get_serialNumber(x.get()), 77);
  X509_gmtime_adj(X509_getm_notBefore(x.get()), 0);
  X509_gmtime_adj(X509_getm_notAfter(x.get()), 86400);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(x.get()), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Version One"), -1, -1, 0);
  X509_set_issuer_name(x.get(), X509_get_subject_name(ca.cert.get()));
  X509_set_pubkey(x.get(), ca.key.get());
  X509_sign(x.get(), ca.key.get(), EVP_sha256());
  return x;
}

class SignerInfo : public ::testing::Test {
 protected:
  // Two signer infos; the certificate set holds CA, a version 1
  // certificate, and the signer, in that order.
  void build() {
    const sealtest::Pki& pki = sealtest::defaultPki();
    v1_ = makeV1(pki.ca);
    sealtest::SignatureOptions options;
    options.secondSigner = sealtest::Signer{};
    options.secondSigner->identity = &pki.secondSigner;
    options.certificates = std::vector<const X509*>{pki.ca.cert.get(), v1_.get(), pki.signer.cert.get(),
                                                    pki.secondSigner.cert.get()};
    before_ = std::time(nullptr);
    sealtest::PdfBuilder builder;
    builder.sign(options);
    pdf_ = sealtest::openPdf(builder.build());
    after_ = std::time(nullptr);
    ASSERT_EQ(pdf_.fields.size(), 1u) << pdf_.error;
    ASSERT_TRUE(verifier_.parse(pdf_.fields[0]));
    expected_ = {sha1Hex(pki.ca.cert.get()), sha1Hex(pki.signer.cert.get()),
                 sha1Hex(pki.secondSigner.cert.get())};
    v1Hash_ = sha1Hex(v1_.get());
  }

  PKCS7_SIGNER_INFO* signer(int i) {
    return sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(verifier_.getImpl()->pkcs7), i);
  }

  void setSigningTime(int i, int type, const std::string& text) {
    ASN1_STRING* value = ASN1_STRING_type_new(type);
    ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
    ASSERT_EQ(PKCS7_add_signed_attribute(signer(i), NID_pkcs9_signingTime, type, value), 1);
  }

  ossl::UniquePtr<X509> v1_;
  sealtest::OpenedPdf pdf_;
  PDFSealmarkVerify verifier_;
  std::time_t before_ = 0, after_ = 0;
  std::vector<std::string> expected_;
  std::string v1Hash_;
};

TEST_F(SignerInfo, Version3CertificatesFirstOncePerSignerInfo) {
  build();
  std::vector<PDFCert> certs;
  ASSERT_TRUE(verifier_.getCerts(certs));
  std::vector<std::string> hashes;
  for (const PDFCert& c : certs) hashes.push_back(hashOf(c));
  std::vector<std::string> want = expected_;
  want.insert(want.end(), expected_.begin(), expected_.end());
  want.push_back(v1Hash_);
  want.push_back(v1Hash_);
  EXPECT_EQ(hashes, want);

  // Each is a copy of its own: no key, no check result, no platform context.
  EXPECT_EQ(certs.back().getVersion(), 0);
  EXPECT_NE(certs[0].getX509(), certs[3].getX509());
  EXPECT_EQ(certs[0].getPKey(), 0u);
  EXPECT_EQ(certs[0].getValid(), 0);
  EXPECT_FALSE(certs[0].isWindowsCert());

  // Called again, the list is appended, not replaced.
  ASSERT_TRUE(verifier_.getCerts(certs));
  EXPECT_EQ(certs.size(), 2 * want.size());
  EXPECT_EQ(hashOf(certs[want.size()]), want[0]);
}

TEST_F(SignerInfo, NoObjectNoCertificates) {
  std::vector<PDFCert> certs;
  PDFSealmarkVerify unparsed;
  EXPECT_FALSE(unparsed.getCerts(certs));
  EXPECT_FALSE(PDF_Sealmark::collectCerts(nullptr, certs));
  // Signed data without signer infos.
  ossl::UniquePtr<PKCS7> empty(PKCS7_new());
  PKCS7_set_type(empty.get(), NID_pkcs7_data);
  EXPECT_FALSE(PDF_Sealmark::collectCerts(empty.get(), certs));
  EXPECT_TRUE(certs.empty());
  EXPECT_EQ(unparsed.getSignedDate(), "");
}

TEST_F(SignerInfo, SigningTimeIsTheSignersClock) {
  build();
  const std::string date = verifier_.getSignedDate();
  // OpenSSL writes the time of signing as UTCTime; it comes back with a
  // four-digit year, between the moments taken around the build.
  char low[32], high[32];
  std::strftime(low, sizeof low, "%Y%m%d%H%M%SZ", std::gmtime(&before_));
  std::strftime(high, sizeof high, "%Y%m%d%H%M%SZ", std::gmtime(&after_));
  ASSERT_EQ(date.size(), 15u) << date;
  EXPECT_GE(date, std::string(low));
  EXPECT_LE(date, std::string(high));
}

TEST_F(SignerInfo, LastSignerInfoWithATimeDecides) {
  build();
  setSigningTime(0, V_ASN1_UTCTIME, "240315120000Z");
  setSigningTime(1, V_ASN1_PRINTABLESTRING, "20300101000000Z");  // not a time
  EXPECT_EQ(verifier_.getSignedDate(), "20240315120000Z");
  setSigningTime(1, V_ASN1_GENERALIZEDTIME, "20300101000000Z");
  EXPECT_EQ(verifier_.getSignedDate(), "20300101000000Z");
  setSigningTime(0, V_ASN1_PRINTABLESTRING, "x");
  setSigningTime(1, V_ASN1_OCTET_STRING, "x");
  EXPECT_EQ(verifier_.getSignedDate(), "");
  verifier_.clear();
  EXPECT_EQ(verifier_.getSignedDate(), "");
}

}  // namespace
