// Parsing and checking one signature field, over PDFs written by the test
// builder (tests/support), which signs with OpenSSL independently of the
// library.
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "pdf_builder.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFSealmarkVerify;
using PDF_Sealmark::PDFSealmarkVerifyImpl;
using sealtest::Bytes;
using sealtest::Digest;
using sealtest::Layout;
using sealtest::PdfBuilder;
using sealtest::SignatureOptions;

struct Checked {
  bool parsed = false;
  bool isSigned = false;
  bool intact = false;
  int page = 0;
};

// Opens the file and runs parse and verify on the named field.
Checked check(const Bytes& pdf, const std::string& field = "Signature1", const std::string& password = "") {
  auto opened = sealtest::openPdf(pdf, password);
  EXPECT_TRUE(opened.doc) << opened.error;
  if (!opened.doc) return {};
  auto* f = opened.field(field);
  EXPECT_NE(f, nullptr) << "no field " << field;
  if (!f) return {};
  PDFSealmarkVerify v;
  Checked c;
  c.parsed = v.parse(f);
  c.isSigned = v.getHasSigned();
  c.intact = v.verify();
  c.page = v.getPageNum();
  return c;
}

Bytes signedPdf(const SignatureOptions& o) { return PdfBuilder().sign(o).build(); }

SignatureOptions with(const std::function<void(SignatureOptions&)>& f) {
  SignatureOptions o;
  f(o);
  return o;
}

SignatureOptions withDigest(Digest d, Layout layout = Layout::Detached) {
  SignatureOptions o;
  o.digest = d;
  o.layout = layout;
  return o;
}

// --- good signatures --------------------------------------------------------

class GoodSignature : public ::testing::TestWithParam<std::tuple<Digest, Layout, bool>> {};

TEST_P(GoodSignature, ParsesAndVerifies) {
  SignatureOptions o = withDigest(std::get<0>(GetParam()), std::get<1>(GetParam()));
  o.signedAttributes = std::get<2>(GetParam());
  const Checked c = check(signedPdf(o));
  EXPECT_TRUE(c.parsed);
  EXPECT_TRUE(c.isSigned);
  EXPECT_TRUE(c.intact);
  EXPECT_EQ(c.page, 1);
}

INSTANTIATE_TEST_SUITE_P(AllDigests, GoodSignature,
                         ::testing::Combine(::testing::Values(Digest::Sha1, Digest::Sha256, Digest::Sha384,
                                                              Digest::Sha512),
                                            ::testing::Values(Layout::Detached, Layout::EmbeddedSha1),
                                            ::testing::Bool()));

// Each row builds a document and says what parse and verify must find on
// one of its fields.
struct Outcome {
  const char* name;
  std::function<Bytes()> pdf;
  bool isSigned;
  bool intact;
  int page = 1;
  const char* field = "Signature1";
};

class Verdict : public ::testing::TestWithParam<Outcome> {};

TEST_P(Verdict, ParseAndVerify) {
  const Outcome& o = GetParam();
  const Checked c = check(o.pdf(), o.field);
  EXPECT_TRUE(c.parsed);
  EXPECT_EQ(c.isSigned, o.isSigned);
  EXPECT_EQ(c.intact, o.intact);
  EXPECT_EQ(c.page, o.page);
}

SignatureOptions embedded(Digest signerDigest, std::function<void(SignatureOptions&)> more = {}) {
  SignatureOptions o = withDigest(signerDigest, Layout::EmbeddedSha1);
  if (more) more(o);
  return o;
}

SignatureOptions certs(std::vector<const X509*> list) {
  SignatureOptions o;
  o.certificates = std::move(list);
  return o;
}

const sealtest::Pki& pki() { return sealtest::defaultPki(); }

SignatureOptions secondSigner(bool overOtherBytes) {
  SignatureOptions o;
  o.secondSigner = sealtest::Signer{&pki().secondSigner, nullptr, std::nullopt};
  o.secondSignerOverOtherBytes = overOtherBytes;
  return o;
}

// A SignedData with no signer info at all: nothing could fail.
Bytes noSignerInfos() {
  PKCS7* p7 = PKCS7_new();
  PKCS7_set_type(p7, NID_pkcs7_signed);
  PKCS7_content_new(p7, NID_pkcs7_data);
  PKCS7_set_detached(p7, 1);
  unsigned char* der = nullptr;
  const int len = i2d_PKCS7(p7, &der);
  PKCS7_free(p7);
  SignatureOptions o;
  o.rawContents = Bytes(der, der + len);
  OPENSSL_free(der);
  return signedPdf(o);
}


INSTANTIATE_TEST_SUITE_P(
    Documents, Verdict,
    ::testing::Values(
        // The content's length alone picks the digest of an embedded
        // signature, whatever the signer info says; 24 bytes match none.
        Outcome{"EmbeddedSha256UnderSha1", [] { return signedPdf(embedded(Digest::Sha1, [](auto& o) { o.embeddedDigest = Digest::Sha256; })); }, true, true},
        Outcome{"EmbeddedSha1UnderSha256", [] { return signedPdf(embedded(Digest::Sha256)); }, true, true},
        Outcome{"Embedded24Bytes", [] { return signedPdf(embedded(Digest::Sha1, [](auto& o) { o.embeddedContent = Bytes(24, 0x5a); })); }, true, false},
        Outcome{"EmbeddedWrongDigest", [] { return signedPdf(embedded(Digest::Sha1, [](auto& o) { o.embeddedContent = Bytes(20, 0x5a); })); }, true, false},
        // Any embedded certificate whose key verifies will do.
        Outcome{"SignerAmongOthers", [] { return signedPdf(certs({pki().ca.cert.get(), pki().unrelated.cert.get(), pki().signer.cert.get()})); }, true, true},
        Outcome{"SignerCertificateMissing", [] { return signedPdf(certs({pki().ca.cert.get()})); }, true, false},
        Outcome{"NoCertificates", [] { return signedPdf(certs({})); }, true, false},
        // Two signer infos must both verify.
        Outcome{"TwoSigners", [] { return signedPdf(secondSigner(false)); }, true, true},
        Outcome{"SecondSignerOverOtherBytes", [] { return signedPdf(secondSigner(true)); }, true, false},
        Outcome{"WrongKey", [] { return signedPdf(with([](auto& o) { o.signer.signingKey = pki().unrelated.key.get(); })); }, true, false},
        Outcome{"Tampered", [] { return PdfBuilder().sign().tamperPageContent().build(); }, true, false},
        Outcome{"TamperedEmbedded", [] { return PdfBuilder().sign(embedded(Digest::Sha1)).tamperPageContent().build(); }, true, false},
        Outcome{"NoSignerInfos", noSignerInfos, true, true},
        // Later updates don't touch earlier signatures.
        Outcome{"FirstOfTwoBeforeUpdate", [] { return PdfBuilder().sign().sign(with([](auto& o) { o.name = "Signature2"; })).update().build(); }, true, true},
        Outcome{"SecondOfTwoBeforeUpdate", [] { return PdfBuilder().sign().sign(with([](auto& o) { o.name = "Signature2"; })).update().build(); }, true, true, 1, "Signature2"},
        // The page from the widget's /P, else from the page's /Annots, and
        // through a separate widget kid.
        Outcome{"PageFromWidget", [] { return PdfBuilder().pages(3).sign(with([](auto& o) { o.page = 1; })).build(); }, true, true, 2},
        Outcome{"PageFromAnnots", [] { return PdfBuilder().pages(3).sign(with([](auto& o) { o.page = 1; o.pageRef = false; })).build(); }, true, true, 2},
        Outcome{"PageOfWidgetKid", [] { return PdfBuilder().pages(3).sign(with([](auto& o) { o.page = 2; o.separateWidget = true; })).build(); }, true, true, 3},
        Outcome{"NestedNameDirectValue", [] { return signedPdf(with([](auto& o) { o.name = "Parent.Child"; o.directValue = true; })); }, true, true, 1, "Parent.Child"}),
    [](const ::testing::TestParamInfo<Outcome>& info) { return std::string(info.param.name); });

// --- byte ranges ------------------------------------------------------------

TEST(ByteRange, Validity) {
  using PDF_Sealmark::ByteRange;
  // Touching ranges, and an empty first range at a non-zero offset, are fine;
  // overlap, an empty second range, negatives and a second offset of 0 not.
  for (const auto& [r, valid] : {std::pair<ByteRange, bool>{{0, 100, 100, 50}, true}, {{7, 0, 100, 50}, true},
                                 {{0, 100, 99, 50}, false}, {{0, 100, 200, 0}, false}, {{-1, 100, 200, 5}, false},
                                 {{0, -1, 200, 5}, false}, {{0, 0, 0, 5}, false}}) {
    EXPECT_EQ(r.isValid(), valid) << r.offset1 << " " << r.length1 << " " << r.offset2 << " " << r.length2;
  }
}

class MalformedByteRange : public ::testing::TestWithParam<std::string> {};

TEST_P(MalformedByteRange, ReadsAsInvalidAndFailsVerify) {
  SignatureOptions o;
  if (GetParam().empty()) {
    o.omitByteRange = true;
  } else {
    o.byteRangeText = GetParam();
  }
  auto opened = sealtest::openPdf(signedPdf(o));
  ASSERT_TRUE(opened.doc) << opened.error;
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  long a = 1, b = 1, c = 1, d = 1;
  v.getSigDict()->getByteRange(a, b, c, d);
  EXPECT_FALSE((PDF_Sealmark::ByteRange{a, b, c, d}.isValid()));
  EXPECT_FALSE(v.verify());
}

INSTANTIATE_TEST_SUITE_P(Entries, MalformedByteRange,
                         ::testing::Values("", "[0 10 20]", "[0 10 20 30 40]", "(0 10 20 30)", "[0 10 20 30.5]",
                                           "[0 10 20 /Thirty]", "[0 10 99999999999 30]", "[0 100 99 50]"));

TEST(Verify, RangePastTheEndOfTheFileFailsWithoutBlindingLaterChecks) {
  SignatureOptions bad;
  bad.name = "Broken";
  bad.byteRangeText = "[0 10 20 2000000000]";
  SignatureOptions good;
  good.name = "Good";
  const Bytes pdf = PdfBuilder().sign(good).sign(bad).build();
  auto opened = sealtest::openPdf(pdf);
  ASSERT_TRUE(opened.doc);
  PDFSealmarkVerify broken, fine;
  ASSERT_TRUE(broken.parse(opened.field("Broken")));
  ASSERT_TRUE(fine.parse(opened.field("Good")));
  EXPECT_FALSE(broken.verify());
  EXPECT_TRUE(fine.verify());
}

// --- parse: what the field holds --------------------------------------------

TEST(Parse, UnsignedField) {
  sealtest::FieldOptions f;
  f.name = "Empty";
  auto opened = sealtest::openPdf(PdfBuilder().unsignedField(f).build());
  ASSERT_TRUE(opened.doc);
  PDFSealmarkVerify v;
  EXPECT_TRUE(v.parse(opened.field("Empty")));
  EXPECT_FALSE(v.getHasSigned());
  EXPECT_GT(v.getPageNum(), 0);
  EXPECT_EQ(v.getSigDict(), nullptr);
  EXPECT_FALSE(v.verify());
  std::ostringstream out;
  EXPECT_FALSE(v.getContents(out));
}

TEST(Parse, ContentsThatAreNotPkcs7LeaveTheFieldUnsigned) {
  SignatureOptions o;
  o.rawContents = Bytes{0x30, 0x03, 0x02, 0x01, 0x05};
  auto opened = sealtest::openPdf(signedPdf(o));
  ASSERT_TRUE(opened.doc);
  PDFSealmarkVerify v;
  EXPECT_TRUE(v.parse(opened.field("Signature1")));
  EXPECT_FALSE(v.getHasSigned());
  EXPECT_EQ(v.getSigDict(), nullptr);
  EXPECT_FALSE(v.verify());
  EXPECT_EQ(v.getImpl()->tsKind, PDF_Sealmark::kNoTimeStamp);
}

TEST(Parse, SignatureWithoutAnyPageFailsButKeepsItsData) {
  SignatureOptions o;
  o.pageRef = false;
  o.inAnnots = false;
  auto opened = sealtest::openPdf(signedPdf(o));
  ASSERT_TRUE(opened.doc);
  PDFSealmarkVerify v;
  EXPECT_FALSE(v.parse(opened.field("Signature1")));
  EXPECT_FALSE(v.getHasSigned());
  EXPECT_NE(v.getSigDict(), nullptr);
  EXPECT_FALSE(v.verify());
}

TEST(Parse, GetContentsGivesTheWholeHexStringDecoded) {
  SignatureOptions o;
  o.contentsCapacity = 9000;
  PdfBuilder builder;
  const Bytes pdf = builder.sign(o).build();
  auto opened = sealtest::openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  std::ostringstream out;
  ASSERT_TRUE(v.getContents(out));
  const std::string contents = out.str();
  const Bytes& cms = builder.signatures().at(0).cms;
  ASSERT_EQ(contents.size(), 9000u);
  EXPECT_EQ(Bytes(contents.begin(), contents.begin() + static_cast<long>(cms.size())), cms);
  EXPECT_TRUE(std::all_of(contents.begin() + static_cast<long>(cms.size()), contents.end(),
                          [](char ch) { return ch == 0; }));
}

// --- time-stamp tokens ------------------------------------------------------

TEST(TimeStampToken, KindFollowsTheLastSignerInfoThatCarriesOne) {
  const auto& pki = sealtest::defaultPki();
  const Bytes realToken = sealtest::pkcs7SignedData(Bytes{1, 2, 3}, pki.ca);
  const Bytes otherToken = sealtest::nonPkcs7Sequence();

  auto kindOf = [](const Bytes& pdf, Bytes* token = nullptr, bool* tsPkcs7 = nullptr) {
    auto opened = sealtest::openPdf(pdf);
    PDFSealmarkVerify v;
    EXPECT_TRUE(v.parse(opened.field("Signature1")));
    if (token) *token = v.getImpl()->tsToken;
    if (tsPkcs7) *tsPkcs7 = v.getImpl()->tsPkcs7 != nullptr;
    return v.getImpl()->tsKind;
  };

  SignatureOptions o;
  EXPECT_EQ(kindOf(signedPdf(o)), PDF_Sealmark::kNoTimeStamp);

  o.signer.timestampToken = realToken;
  Bytes token;
  bool hasPkcs7 = false;
  EXPECT_EQ(kindOf(signedPdf(o), &token, &hasPkcs7), PDF_Sealmark::kRfc3161TimeStamp);
  EXPECT_EQ(token, realToken);
  EXPECT_TRUE(hasPkcs7);

  o.signer.timestampToken = otherToken;
  EXPECT_EQ(kindOf(signedPdf(o)), PDF_Sealmark::kServiceTimeStamp);

  // One signer info with a PKCS#7 token, one with another kind: the signer
  // info that stands last in the encoded SET decides.
  o.signer.timestampToken = realToken;
  o.secondSigner = sealtest::Signer{&pki.secondSigner, nullptr, otherToken};
  PdfBuilder builder;
  const Bytes pdf = builder.sign(o).build();
  const Bytes& cms = builder.signatures().at(0).cms;
  const unsigned char* p = cms.data();
  PKCS7* p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(cms.size()));
  ASSERT_NE(p7, nullptr);
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(p7);
  ASSERT_EQ(sk_PKCS7_SIGNER_INFO_num(infos), 2);
  const ASN1_INTEGER* lastSerial = sk_PKCS7_SIGNER_INFO_value(infos, 1)->issuer_and_serial->serial;
  const bool secondIsLast = ASN1_INTEGER_cmp(lastSerial, X509_get0_serialNumber(pki.secondSigner.cert.get())) == 0;
  PKCS7_free(p7);
  EXPECT_EQ(kindOf(pdf, &token, &hasPkcs7),
            secondIsLast ? PDF_Sealmark::kServiceTimeStamp : PDF_Sealmark::kRfc3161TimeStamp);
  EXPECT_EQ(token, secondIsLast ? otherToken : realToken);
  EXPECT_EQ(hasPkcs7, !secondIsLast);

  // "/PFUP.TimeStamp" as the filter fixes the kind, whatever the token.
  SignatureOptions pfu;
  pfu.filter = "PFUP.TimeStamp";
  pfu.signer.timestampToken = realToken;
  EXPECT_EQ(kindOf(signedPdf(pfu)), PDF_Sealmark::kPfuFilterTimeStamp);
  pfu.filter = "PFUP.TimeStampX";  // a longer name that begins so matches too
  EXPECT_EQ(kindOf(signedPdf(pfu)), PDF_Sealmark::kPfuFilterTimeStamp);
  pfu.filter = "PFUP.TimeStam";
  EXPECT_EQ(kindOf(signedPdf(pfu)), PDF_Sealmark::kRfc3161TimeStamp);
}

// --- encrypted documents ----------------------------------------------------

class Encrypted : public ::testing::TestWithParam<sealtest::Encryption> {};

TEST_P(Encrypted, SignatureReadFromStoredBytesThenDecrypted) {
  const Bytes emptyUser = PdfBuilder().encrypt("", "owner", GetParam()).sign().build();
  EXPECT_TRUE(check(emptyUser).intact);
  EXPECT_TRUE(check(emptyUser, "Signature1", "owner").intact);

  const Bytes withUser = PdfBuilder().encrypt("user", "owner", GetParam()).sign().build();
  EXPECT_TRUE(check(withUser, "Signature1", "user").intact);

  std::string why;
  EXPECT_EQ(PDF_Vellum::PDFDocument::openMemory(withUser, "", &why), nullptr);
  EXPECT_EQ(why, "password required");
  EXPECT_EQ(PDF_Vellum::PDFDocument::openMemory(withUser, "nope", &why), nullptr);
  EXPECT_EQ(why, "wrong password");

  // After parse the signature dictionary holds decrypted strings.
  auto opened = sealtest::openPdf(withUser, "user");
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  PDF_Vellum::PDFObject* filter = v.getSigDict()->getContents("/Filter");
  ASSERT_NE(filter, nullptr);
  EXPECT_STREQ(filter->getString(), "/Adobe.PPKLite");
}

INSTANTIATE_TEST_SUITE_P(Handlers, Encrypted,
                         ::testing::Values(sealtest::Encryption::Aes128R4, sealtest::Encryption::Aes256R6));

// --- the facade -------------------------------------------------------------

TEST(Facade, CopiesShareOneImplementation) {
  auto opened = sealtest::openPdf(PdfBuilder().sign().build());
  PDFSealmarkVerify a;
  PDFSealmarkVerify b;
  b = a;
  EXPECT_EQ(a.getImpl(), b.getImpl());
  ASSERT_TRUE(a.parse(opened.field("Signature1")));
  EXPECT_TRUE(b.getHasSigned());
  PDFSealmarkVerify c(a);
  b.clear();
  EXPECT_FALSE(a.getHasSigned());
  EXPECT_FALSE(c.getHasSigned());
  EXPECT_EQ(a.getSigDict(), nullptr);
  b = b;  // self-assignment keeps the object
  EXPECT_NE(b.getImpl(), nullptr);
}

TEST(Facade, QuestionsBeforeParse) {
  PDFSealmarkVerify v;
  EXPECT_FALSE(v.parse(nullptr));
  EXPECT_FALSE(v.getHasSigned());
  EXPECT_FALSE(v.verify());
  EXPECT_EQ(v.getPageNum(), 0);
  EXPECT_EQ(v.getDoc(), nullptr);
  std::ostringstream out;
  EXPECT_FALSE(v.getContents(out));
}

}  // namespace
