// Parsing and checking one signature field, its certificates and signing
// time, on files signed by PDFSigner and edited as tests/support/mutate.h says.
#include <gtest/gtest.h>

#include <sstream>

#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"
#include "pdfsealmark/verify/signer_info.h"
#include "support/mutate.h"

namespace {

using namespace sealtest;
using PDF_Sealmark::PDFSealmarkVerify;
using D = PDF_Sealmark::PDFSigner::Digest;
using S = PDF_Sealmark::PDFSigner::SubFilter;

const Bytes kNotPkcs7{0x30, 0x03, 0x02, 0x01, 0x05};  // a SEQUENCE, but no ContentInfo

Bytes signedPdf(SignOptions o = options(), const std::string& who = "signer") {
  return sign(input("two-pages.pdf"), o, who);
}
Bytes edited(const std::function<void(PKCS7*)>& edit, const char* who = "signer") {
  return editPkcs7(signedPdf(options(), who), edit);
}
std::string pem(const std::string& who) { return pki(who + ".pem"); }
// The certificate set made of these PKI certificates, in this order.
Bytes withCerts(std::vector<std::string> whom, const char* who = "signer") {
  for (std::string& w : whom) w = pem(w);
  return edited([&](PKCS7* p7) { setCertificates(p7, whom); }, who);
}
template <class T>
std::string nameOf(const ::testing::TestParamInfo<T>& info) {
  return info.param.name;
}
Bytes noSignerInfos() {
  return edited([](PKCS7* p7) {
    while (auto* si = sk_PKCS7_SIGNER_INFO_pop(p7->d.sign->signer_info)) PKCS7_SIGNER_INFO_free(si);
  });
}
PKCS7_SIGNER_INFO* signerInfo(PKCS7* p7, int i) {
  return sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), i);
}
// Two signer infos over the same bytes; the one numbered `bad` spoiled.
Bytes twoSigners(int bad) {
  return edited([&](PKCS7* p7) {
    PKCS7_SIGNER_INFO* second = addSigner(p7, "second");
    if (bad >= 0) (bad ? second : signerInfo(p7, 0))->enc_digest->data[0] ^= 1;
  });
}
// The /Contents of a file signed a second later: same layout, other bytes.
Bytes swapped(S subFilter) {
  SignOptions o = options(), later = options();
  o.subFilter = later.subFilter = subFilter;
  later.signingTime = "20240315120001Z";
  return withContents(signedPdf(o), contentsOf(signedPdf(later)));
}
// An adbe.pkcs7.sha1 object made by OpenSSL, SHA-1 signing the first
// `size` bytes of the SHA-256 digest of the signed bytes.
Bytes embedded(std::size_t size) {
  const Bytes pdf = signedPdf(), data = signedBytes(pdf);
  Bytes content(EVP_MAX_MD_SIZE);
  EVP_Digest(data.data(), data.size(), content.data(), nullptr, EVP_sha256(), nullptr);
  content.resize(size);
  auto cert = pkiCert("signer");
  auto key = pkiKey("signer");
  ossl::UniquePtr<BIO> in(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  ossl::UniquePtr<PKCS7> p7(PKCS7_sign(nullptr, nullptr, nullptr, nullptr, PKCS7_BINARY | PKCS7_PARTIAL));
  EXPECT_TRUE(PKCS7_sign_add_signer(p7.get(), cert.get(), key.get(), EVP_sha1(), PKCS7_BINARY) &&
              PKCS7_final(p7.get(), in.get(), PKCS7_BINARY));
  return withContents(pdf, der(p7.get()));
}
Bytes onPage2(bool keepP, bool keepAnnots) {
  SignOptions o = options();
  o.page = 2;
  Bytes pdf = signedPdf(o);
  if (!keepP) pdf = overwrite(pdf, entry(pdf, "/P"), "");
  return keepAnnots ? pdf : overwrite(pdf, entry(pdf, "/Annots"), "");
}
Bytes fields() { return sign(input("fields.pdf"), options("Group.B")); }

using Combination = std::tuple<D, S, const char*, const char*>;
class GoodSignature : public ::testing::TestWithParam<Combination> {};

TEST_P(GoodSignature, ParsesAndVerifies) {
  const auto& [digest, subFilter, file, who] = GetParam();
  SignOptions o = options();
  o.digest = digest;
  o.subFilter = subFilter;
  o.page = 2;
  auto opened = openPdf(sign(input(file), o, who));
  ASSERT_EQ(opened.fields.size(), 1u) << opened.error;
  PDFSealmarkVerify v;
  EXPECT_TRUE(v.parse(opened.fields[0]) && v.getHasSigned() && v.verify());
  EXPECT_EQ(v.getPageNum(), 2);
}

INSTANTIATE_TEST_SUITE_P(All, GoodSignature,
                         ::testing::Combine(::testing::Values(D::kSha1, D::kSha256, D::kSha384, D::kSha512),
                                            ::testing::Values(S::kPkcs7Detached, S::kCadesDetached,
                                                              S::kPkcs7Sha1),
                                            ::testing::Values("two-pages.pdf", "two-pages-xref-stream.pdf"),
                                            ::testing::Values("signer", "ec-signer")));

// What parse and verify find on one field of an odd file.
struct Outcome {
  const char* name;
  std::function<Bytes()> pdf;
  bool intact, isSigned = true, parsed = true;
  int page = 1;
  const char* field = "Signature1";
};

class Verdict : public ::testing::TestWithParam<Outcome> {};

TEST_P(Verdict, ParseAndVerify) {
  const Outcome& o = GetParam();
  auto opened = openPdf(o.pdf());
  ASSERT_TRUE(opened.field(o.field)) << opened.error;
  PDFSealmarkVerify v;
  EXPECT_EQ(v.parse(opened.field(o.field)), o.parsed);
  EXPECT_EQ(v.getHasSigned(), o.isSigned);
  EXPECT_EQ(v.verify(), o.intact);
  EXPECT_EQ(v.getPageNum(), o.page);
  // A field that failed late keeps its signature dictionary; one without a
  // PKCS#7 object has none.
  EXPECT_EQ(v.getSigDict() != nullptr, o.isSigned || !o.parsed);
}

const Outcome kFiles[] = {
    {"FlippedByte", [] { return flip(signedPdf(), 10); }, false},
    {"SwappedContents", [] { return swapped(S::kPkcs7Detached); }, false},
    {"SwappedEmbedded", [] { return swapped(S::kPkcs7Sha1); }, false},
    // The content's length alone picks the digest of an embedded
    // signature, whatever the signer info says; 24 bytes match none.
    {"EmbeddedSha256UnderSha1", [] { return embedded(32); }, true},
    {"Embedded24Bytes", [] { return embedded(24); }, false},
    // Any embedded certificate whose key verifies will do.
    {"SignerAmongOthers",
     [] {
       return withCerts({"ca", "unrelated", "signer"});
     },
     true},
    {"SignerCertificateMissing", [] { return withCerts({"ca"}); }, false},
    {"NoCertificates", [] { return withCerts({}); }, false},
    {"AnotherKey", [] { return withCerts({"signer"}, "second"); }, false},
    // Every signer info must verify; with none, nothing fails.
    {"TwoSigners", [] { return twoSigners(-1); }, true},
    {"TwoSignersNewOneBad", [] { return twoSigners(1); }, false},
    {"TwoSignersOldOneBad", [] { return twoSigners(0); }, false},
    {"NoSignerInfos", noSignerInfos, true},
    // A later signature leaves the earlier one intact.
    {"FirstOfTwo", [] { return sign(signedPdf(), options("Second")); }, true},
    {"SecondOfTwo", [] { return sign(signedPdf(), options("Second")); }, true, true, true, 1, "Second"},
    // The page from the widget's /P, else from the page's /Annots, else
    // none (the edits are signed bytes).
    {"PageFromWidget", [] { return onPage2(true, false); }, false, true, true, 2},
    {"PageFromAnnots", [] { return onPage2(false, true); }, false, true, true, 2},
    {"NoPage", [] { return onPage2(false, false); }, false, false, false, 0},
    {"WidgetKidOfNestedField", fields, true, true, true, 2, "Group.B"},
    {"UnsignedField", fields, false, false, true, 1, "A"},
    {"ContentsNotPkcs7", [] { return withContents(signedPdf(), kNotPkcs7); }, false, false}};

INSTANTIATE_TEST_SUITE_P(Files, Verdict, ::testing::ValuesIn(kFiles), nameOf<Outcome>);

TEST(ByteRange, ReadFromTheFileAndJudged) {
  auto check = [](const char* value, bool valid) {
    auto opened = openPdf(withRange(signedPdf(options("", 100)), value));
    PDFSealmarkVerify v;
    ASSERT_TRUE(v.parse(opened.field("Signature1")) && v.getHasSigned()) << value;
    EXPECT_EQ(PDF_Sealmark::ByteRange::of(*v.getSigDict()).isValid(), valid) << value;
    EXPECT_FALSE(v.verify()) << value;  // none of them is what was signed
  };
  // Touching ranges, an empty first range at a non-zero offset, a range
  // past the end of the file: valid, but they fail verify.
  for (const char* value : {"[0 100 100 50]", "[7 0 100 50]", "[0 10 20 2000000000]"}) check(value, true);
  // Overlap, an empty second range, negatives, a second offset of 0; none,
  // too few or many numbers, not an array, not integers, more than a long.
  for (const char* value :
       {"[0 100 99 50]", "[0 100 200 0]", "[-1 100 200 5]", "[0 -1 200 5]", "[0 0 0 5]", "", "[0 10 20]",
        "[0 10 20 30 40]", "(0 10 20 30)", "[0 10 20 30.5]", "[0 10 20 /Thirty]", "[0 10 99999999999 30]"}) {
    check(value, false);
  }
}

TEST(Verify, RangePastTheEndDoesNotBlindLaterChecks) {
  auto opened = openPdf(withRange(sign(signedPdf(), options("Broken", 100)), "[0 10 20 2000000000]"));
  PDFSealmarkVerify broken, fine;
  ASSERT_TRUE(broken.parse(opened.field("Broken")) && fine.parse(opened.field("Signature1")));
  EXPECT_FALSE(broken.verify());
  EXPECT_TRUE(fine.verify());
}

TEST(Parse, GetContentsGivesTheWholeSlotDecoded) {
  const Bytes pdf = signedPdf();
  auto opened = openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  std::ostringstream out;
  ASSERT_TRUE(v.getContents(out));
  Bytes expected = contentsOf(pdf);
  expected.resize(8192);
  EXPECT_EQ(bytes(out.str()), expected);
  auto unsignedField = openPdf(fields());
  ASSERT_TRUE(v.parse(unsignedField.field("A")));
  EXPECT_FALSE(v.getContents(out));
}

// Time-stamp tokens: per signer info, R a PKCS#7 object, O five bytes that
// are none, L 40 such bytes (a DER SET puts the longer signer info last);
// the /Filter written over the signer's; the kind and token kept.
struct TokenCase {
  const char *name, *tokens, *filter;
  int kind;
  char kept;
};

Bytes token(char t) {
  if (t == 'R')
    return {0x30, 0x0b, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};  // data
  Bytes large{0x30, 0x26, 0x04, 0x24};
  large.resize(40);
  return t == 'L' ? large : t == 'O' ? kNotPkcs7 : Bytes{};
}

class TimeStampToken : public ::testing::TestWithParam<TokenCase> {};

TEST_P(TimeStampToken, KindFollowsTheLastSignerInfoThatCarriesOne) {
  const TokenCase& c = GetParam();
  Bytes pdf = edited([&](PKCS7* p7) {
    if (c.tokens[0] && c.tokens[1]) addSigner(p7, "second");
    for (int i = 0; c.tokens[i]; ++i) {
      ASN1_STRING* value = ASN1_STRING_new();
      ASN1_STRING_set(value, token(c.tokens[i]).data(), static_cast<int>(token(c.tokens[i]).size()));
      PKCS7_add_attribute(signerInfo(p7, i), NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE, value);
    }
  });
  // The signer writes /Filter and /SubFilter side by side; the latter goes.
  if (*c.filter)
    pdf = overwrite(pdf, entry(pdf, "/Filter") + entry(pdf, "/SubFilter"), std::string("/Filter") + c.filter);
  auto opened = openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  EXPECT_EQ(v.getImpl()->tsKind, c.kind);
  EXPECT_EQ(v.getImpl()->tsToken, token(c.kept));
  EXPECT_EQ(v.getImpl()->tsPkcs7 != nullptr, c.kept == 'R');
}

INSTANTIATE_TEST_SUITE_P(
    Tokens, TimeStampToken,
    ::testing::Values(
        TokenCase{"None", "", "", PDF_Sealmark::kNoTimeStamp, 0},
        TokenCase{"Pkcs7", "R", "", PDF_Sealmark::kRfc3161TimeStamp, 'R'},
        TokenCase{"OtherBytes", "O", "", PDF_Sealmark::kServiceTimeStamp, 'O'},
        TokenCase{"LastIsPkcs7", "OR", "", PDF_Sealmark::kRfc3161TimeStamp, 'R'},
        TokenCase{"LastIsPkcs7Swapped", "RO", "", PDF_Sealmark::kRfc3161TimeStamp, 'R'},
        TokenCase{"LastIsOther", "RL", "", PDF_Sealmark::kServiceTimeStamp, 'L'},
        // A /Filter that begins "/PFUP.TimeStamp" decides, whatever the token.
        TokenCase{"PfuFilter", "R", "/PFUP.TimeStamp", PDF_Sealmark::kPfuFilterTimeStamp, 'R'},
        TokenCase{"LongerPfuFilter", "O", "/PFUP.TimeStampX", PDF_Sealmark::kPfuFilterTimeStamp, 'O'},
        TokenCase{"ShorterPfuFilter", "R", "/PFUP.TimeStam", PDF_Sealmark::kRfc3161TimeStamp, 'R'}),
    nameOf<TokenCase>);

class Encrypted : public ::testing::TestWithParam<std::pair<const char*, const char*>> {};

TEST_P(Encrypted, SignatureReadFromStoredBytesThenDecrypted) {
  const auto& [file, user] = GetParam();
  SignOptions o = options();
  o.documentPassword = user;
  o.reason = "Approved";
  const Bytes pdf = sign(input(file), o);
  for (const char* password : {user, "owner"}) {
    auto opened = openPdf(pdf, password);
    PDFSealmarkVerify v;
    ASSERT_TRUE(opened.doc && v.parse(opened.field("Signature1"))) << opened.error;
    EXPECT_TRUE(v.verify()) << password;
    // After parse the signature dictionary holds decrypted strings.
    PDF_Vellum::PDFObject* reason = v.getSigDict()->getContents("/Reason");
    ASSERT_NE(reason, nullptr);
    EXPECT_EQ(std::string(reason->getString(), reason->getLenth()), "Approved");
  }
  std::string why;
  EXPECT_EQ(PDF_Vellum::PDFDocument::openMemory(pdf, "nope", &why), nullptr);
  EXPECT_EQ(why, "wrong password");
  if (*user) {
    EXPECT_EQ(PDF_Vellum::PDFDocument::openMemory(pdf, "", &why), nullptr);
    EXPECT_EQ(why, "password required");
  }
}

INSTANTIATE_TEST_SUITE_P(Handlers, Encrypted,
                         ::testing::Values(std::make_pair("two-pages-aes128.pdf", ""),
                                           std::make_pair("two-pages-aes256.pdf", "user")));

// Two signer infos; the certificate set holds the CA, a version 1
// certificate, and the two signers, in that order.
class SignerInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    oracle("openssl req -new -key " + pki("signer.key") + " -subj /CN=V1 | openssl x509 -req -CA " +
           pem("ca") + " -CAkey " + pki("ca.key") + " -set_serial 77 -out " + pki("v1.pem"));
    pdf_ = openPdf(edited([](PKCS7* p7) {
      addSigner(p7, "second");
      setCertificates(p7, {pem("ca"), pki("v1.pem"), pem("signer"), pem("second")});
    }));
    ASSERT_TRUE(v_.parse(pdf_.field("Signature1")));
  }
  void setSigningTime(int i, int type, const std::string& text) {
    ASN1_STRING* value = ASN1_STRING_type_new(type);
    ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
    ASSERT_EQ(
        PKCS7_add_signed_attribute(signerInfo(v_.getImpl()->pkcs7, i), NID_pkcs9_signingTime, type, value),
        1);
  }
  OpenedPdf pdf_;
  PDFSealmarkVerify v_;
};

TEST_F(SignerInfo, Version3CertificatesFirstOncePerSignerInfo) {
  std::vector<PDF_Sealmark::PDFCert> certs;
  ASSERT_TRUE(v_.getCerts(certs));
  std::vector<std::string> got, want;
  for (const auto& c : certs) got.push_back(hashOf(c));
  for (const char* who : {"ca", "signer", "second", "ca", "signer", "second", "v1", "v1"}) {
    want.push_back(sha1Fingerprint(pem(who)));
  }
  EXPECT_EQ(got, want);
  // Each is a copy of its own, without key; a second call appends.
  EXPECT_NE(certs[0].getX509(), certs[3].getX509());
  EXPECT_EQ(certs[0].getPKey(), 0u);
  ASSERT_TRUE(v_.getCerts(certs));
  EXPECT_EQ(certs.size(), 2 * want.size());
}

TEST_F(SignerInfo, LastSignerInfoWithATimeDecides) {
  EXPECT_EQ(v_.getSignedDate(), kSigningTime);
  setSigningTime(0, V_ASN1_UTCTIME, "240315120000Z");
  setSigningTime(1, V_ASN1_PRINTABLESTRING, "20300101000000Z");  // not a time
  EXPECT_EQ(v_.getSignedDate(), "20240315120000Z");
  setSigningTime(1, V_ASN1_GENERALIZEDTIME, "20300101000000Z");
  EXPECT_EQ(v_.getSignedDate(), "20300101000000Z");
  setSigningTime(0, V_ASN1_PRINTABLESTRING, "x");
  setSigningTime(1, V_ASN1_OCTET_STRING, "x");
  EXPECT_EQ(v_.getSignedDate(), "");
}

TEST(Facade, CopiesShareOneStateAndNothingIsKnownBeforeParse) {
  PDFSealmarkVerify a, b;
  std::vector<PDF_Sealmark::PDFCert> certs;
  std::ostringstream out;
  EXPECT_FALSE(a.parse(nullptr) || a.getHasSigned() || a.verify() || a.getContents(out) || a.getCerts(certs));
  EXPECT_FALSE(PDF_Sealmark::collectCerts(nullptr, certs) || a.getPageNum() || !a.getSignedDate().empty());
  auto opened = openPdf(signedPdf());
  b = a;
  ASSERT_TRUE(a.parse(opened.field("Signature1")));
  EXPECT_TRUE(b.getHasSigned());
  PDFSealmarkVerify c(a);
  b.clear();
  EXPECT_FALSE(a.getHasSigned() || c.getHasSigned() || a.getSigDict());
}

}  // namespace
