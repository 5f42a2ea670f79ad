// One signature field (parse, verify, contents, certificates, signing time,
// signed revision, permissions) and the revision index, on files signed by
// PDFSigner and edited as tests/support/mutate.h says.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <sstream>

#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFSealmarkVersion.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"
#include "pdfsealmark/verify/shared_certificates.h"
#include "pdfsealmark/verify/signer_info.h"
#include "support/mutate.h"

namespace {

using namespace sealtest;
using PDF_Sealmark::PDFSealmarkVerify;
using PDF_Sealmark::PDFSealmarkVersion;
using D = PDF_Sealmark::PDFSigner::Digest;
using S = PDF_Sealmark::PDFSigner::SubFilter;
constexpr int kRfc3161 = PDF_Sealmark::kRfc3161TimeStamp, kService = PDF_Sealmark::kServiceTimeStamp,
              kPfu = PDF_Sealmark::kPfuFilterTimeStamp;

const Bytes kNotPkcs7{0x30, 0x03, 0x02, 0x01, 0x05};  // a SEQUENCE, but no ContentInfo

Bytes signedPdf(SignOptions o = options(), const std::string& who = "signer") {
  return sign(input("two-pages.pdf"), o, who);
}
Bytes edited(const std::function<void(PKCS7*)>& edit, const char* who = "signer") {
  return editPkcs7(signedPdf(options(), who), edit);
}
std::string pem(const std::string& who) { return pki(who + ".pem"); }
// The certificate set made of these PKI certificates, in this order.
Bytes withCerts(const std::string& whom, const char* who = "signer") {
  std::vector<std::string> files;
  std::istringstream names(whom);
  for (std::string name; names >> name;) files.push_back(pem(name));
  return edited([&](PKCS7* p7) { setCertificates(p7, files); }, who);
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
void dropSignerInfo(PKCS7* p7) { PKCS7_SIGNER_INFO_free(sk_PKCS7_SIGNER_INFO_pop(p7->d.sign->signer_info)); }
// The /Contents of a file signed a second later: same layout, other bytes.
Bytes swapped(S subFilter) {
  SignOptions o = options(), later = options();
  o.subFilter = later.subFilter = subFilter;
  later.signingTime = "20240315120001Z";
  return withContents(signedPdf(o), contentsOf(signedPdf(later)));
}
// An adbe.pkcs7.sha1 object made by OpenSSL: SHA-256 signs the first `size`
// bytes of the SHA-384 digest of the signed bytes.
Bytes embedded(int size) {
  const Bytes pdf = signedPdf();
  long a = 0, b = 0, c = 0, d = 0;
  std::sscanf(entry(pdf, "/ByteRange").c_str(), "/ByteRange [ %ld %ld %ld %ld", &a, &b, &c, &d);
  Bytes data(pdf.begin() + a, pdf.begin() + a + b), content(EVP_MAX_MD_SIZE);
  data.insert(data.end(), pdf.begin() + c, pdf.begin() + c + d);
  EVP_Digest(data.data(), data.size(), content.data(), nullptr, EVP_sha384(), nullptr);
  const auto id = load(pki("signer.p12"), "test");
  PDF_Sealmark::ossl::UniquePtr<BIO> in(BIO_new_mem_buf(content.data(), size));
  PDF_Sealmark::ossl::UniquePtr<PKCS7> p7(PKCS7_sign(reinterpret_cast<X509*>(id.getX509()),
                                                     reinterpret_cast<EVP_PKEY*>(id.getPKey()), nullptr,
                                                     in.get(), PKCS7_BINARY | PKCS7_NOSMIMECAP));
  return withContents(pdf, der(p7.get()));
}
Bytes onPage2(bool keepP, bool keepAnnots) {
  SignOptions o = options();
  o.page = 2;
  Bytes pdf = signedPdf(o);
  if (!keepP) pdf = overwrite(pdf, entry(pdf, "/P"), "");
  return keepAnnots ? pdf : overwrite(pdf, entry(pdf, "/Annots"), "");
}
Bytes fields(SignOptions o = options("Group.B")) { return sign(input("fields.pdf"), o); }
// Time-stamp tokens as unsigned attributes, one per signer info (two make
// a second signer info): R a PKCS#7 object, O five bytes that are none, L
// 40 such bytes (a DER SET puts the longer signer info last).  Then the
// /Filter, if any, written over the signer's /Filter and /SubFilter.
Bytes token(char t) {
  if (t == 'R')
    return {0x30, 0x0b, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x01};  // data
  Bytes large{0x30, 0x26, 0x04, 0x24};
  large.resize(40);
  return t == 'L' ? large : kNotPkcs7;
}
Bytes stamped(const std::string& tokens, const std::string& filter = "") {
  Bytes pdf = edited([&](PKCS7* p7) {
    if (tokens.size() > 1) addSigner(p7, "second");
    for (std::size_t i = 0; i < tokens.size(); ++i) {
      ASN1_STRING* value = ASN1_STRING_new();
      ASN1_STRING_set(value, token(tokens[i]).data(), static_cast<int>(token(tokens[i]).size()));
      PKCS7_add_attribute(signerInfo(p7, static_cast<int>(i)), NID_id_smime_aa_timeStampToken,
                          V_ASN1_SEQUENCE, value);
    }
  });
  return filter.empty()
             ? pdf
             : overwrite(pdf, entry(pdf, "/Filter") + entry(pdf, "/SubFilter"), "/Filter" + filter);
}
template <class T>
std::string nameOf(const ::testing::TestParamInfo<T>& info) {
  return info.param.name;
}

class GoodSignature : public ::testing::TestWithParam<std::tuple<D, S, const char*, const char*>> {};

TEST_P(GoodSignature, ParsesAndVerifies) {
  const auto& [digest, subFilter, file, who] = GetParam();
  SignOptions o = options();
  o.digest = digest;
  o.subFilter = subFilter;
  o.page = 2;
  auto opened = openPdf(sign(input(file), o, who));
  PDFSealmarkVerify v;
  ASSERT_EQ(opened.fields.size(), 1u) << opened.error;
  EXPECT_TRUE(v.parse(opened.fields[0]) && v.getHasSigned() && v.verify() && v.getPageNum() == 2);
}

INSTANTIATE_TEST_SUITE_P(All, GoodSignature,
                         ::testing::Combine(::testing::Values(D::kSha1, D::kSha256, D::kSha384, D::kSha512),
                                            ::testing::Values(S::kPkcs7Detached, S::kCadesDetached,
                                                              S::kPkcs7Sha1),
                                            ::testing::Values("two-pages.pdf", "two-pages-xref-stream.pdf"),
                                            ::testing::Values("signer", "ec-signer")));

// What parse, verify, getContents and getSignedVerPdf find on one field of
// an odd file.
struct Outcome {
  const char* name;
  std::function<Bytes()> pdf;
  bool intact, isSigned = true, parsed = true;
  int page = 1;
  const char* field = "Signature1";
  int timeStamp = PDF_Sealmark::kNoTimeStamp;  // the kind of token found
};

class Verdict : public ::testing::TestWithParam<Outcome> {};

TEST_P(Verdict, ParseAndVerify) {
  const Outcome& o = GetParam();
  const Bytes pdf = o.pdf();
  auto opened = openPdf(pdf);
  ASSERT_TRUE(opened.field(o.field)) << opened.error;
  PDFSealmarkVerify v;
  std::ostringstream contents, revision;
  EXPECT_EQ(v.parse(opened.field(o.field)), o.parsed);
  EXPECT_EQ(v.getHasSigned(), o.isSigned);
  EXPECT_EQ(v.verify(), o.intact);
  EXPECT_EQ(v.getPageNum(), o.page);
  // A field that failed late keeps its signature dictionary; one without a
  // PKCS#7 object has none.
  EXPECT_EQ(v.getSigDict() != nullptr, o.isSigned || !o.parsed);
  EXPECT_EQ(v.getImpl()->tsKind, o.timeStamp);
  EXPECT_EQ(v.getImpl()->tsPkcs7 != nullptr, o.timeStamp == kRfc3161);
  // The whole /Contents slot, decoded; the file up to the signature's end.
  EXPECT_EQ(v.getContents(contents) && v.getSignedVerPdf(revision), o.isSigned);
  if (o.isSigned && std::string(o.name) != "FirstOfTwo") {
    EXPECT_EQ(bytes(contents.str()), contentsOf(pdf));
    EXPECT_EQ(bytes(revision.str()), pdf);
  }
}

const Outcome kFiles[] = {
    {"FlippedByte", [] { return flip(signedPdf(), 10); }, false},
    {"SwappedContents", [] { return swapped(S::kPkcs7Detached); }, false},
    {"SwappedEmbedded", [] { return swapped(S::kPkcs7Sha1); }, false},
    // The content's length alone picks the digest of an embedded
    // signature, whatever the signer info says; 24 bytes match none.
    {"EmbeddedSha384UnderSha256", [] { return embedded(48); }, true},
    {"Embedded24Bytes", [] { return embedded(24); }, false},
    // Any embedded certificate whose key verifies will do.
    {"SignerAmongOthers", [] { return withCerts("ca unrelated signer"); }, true},
    {"SignerCertificateMissing", [] { return withCerts("ca"); }, false},
    {"NoCertificates", [] { return withCerts(""); }, false},
    {"AnotherKey", [] { return withCerts("signer", "second"); }, false},
    // Every signer info must verify; with none, nothing fails.
    {"TwoSigners", [] { return twoSigners(-1); }, true},
    {"TwoSignersNewOneBad", [] { return twoSigners(1); }, false},
    {"TwoSignersOldOneBad", [] { return twoSigners(0); }, false},
    {"NoSignerInfos", [] { return edited(dropSignerInfo); }, true},
    // A later signature leaves the earlier one intact.
    {"FirstOfTwo", [] { return sign(signedPdf(), options("Second")); }, true},
    {"SecondOfTwo", [] { return sign(signedPdf(), options("Second")); }, true, true, true, 1, "Second"},
    // The page from the widget's /P, else from the page's /Annots, else
    // none (the edits are signed bytes).
    {"PageFromWidget", [] { return onPage2(true, false); }, false, true, true, 2},
    {"PageFromAnnots", [] { return onPage2(false, true); }, false, true, true, 2},
    {"NoPage", [] { return onPage2(false, false); }, false, false, false, 0},
    {"WidgetKidOfNestedField", [] { return fields(); }, true, true, true, 2, "Group.B"},
    {"UnsignedField", [] { return fields(); }, false, false, true, 1, "A"},
    {"ContentsNotPkcs7", [] { return withContents(signedPdf(), kNotPkcs7); }, false, false},
    // The last signer info with a time-stamp token decides its kind; a
    // /Filter that begins "/PFUP.TimeStamp" decides, whatever the token.
    {"Pkcs7Token", [] { return stamped("R"); }, true, true, true, 1, "Signature1", kRfc3161},
    {"OtherToken", [] { return stamped("O"); }, true, true, true, 1, "Signature1", kService},
    {"LastIsPkcs7", [] { return stamped("OR"); }, true, true, true, 1, "Signature1", kRfc3161},
    {"LastIsOther", [] { return stamped("RL"); }, true, true, true, 1, "Signature1", kService},
    {"PfuFilter", [] { return stamped("", "/PFUP.TimeStamp"); }, false, true, true, 1, "Signature1", kPfu},
    {"PfuX", [] { return stamped("O", "/PFUP.TimeStampX"); }, false, true, true, 1, "Signature1", kPfu},
    {"PfuShort", [] { return stamped("R", "/PFUP.TimeStam"); }, false, true, true, 1, "Signature1",
     kRfc3161}};

INSTANTIATE_TEST_SUITE_P(Files, Verdict, ::testing::ValuesIn(kFiles), nameOf<Outcome>);

TEST(ByteRange, ReadFromTheFileAndJudged) {
  auto check = [](const char* value, bool valid) {
    // A later signature's range, edited: it must not blind the check of the
    // earlier one.
    auto opened = openPdf(withRange(sign(signedPdf(), options("Edited", 100)), value));
    PDFSealmarkVerify v, earlier;
    std::ostringstream out;
    ASSERT_TRUE(v.parse(opened.field("Edited")) && v.getHasSigned()) << value;
    EXPECT_EQ(PDF_Sealmark::ByteRange::of(*v.getSigDict()).isValid(), valid) << value;
    EXPECT_FALSE(v.verify() || (!valid && v.getSignedVerPdf(out))) << value;  // none is what was signed
    EXPECT_TRUE(earlier.parse(opened.field("Signature1")) && earlier.verify()) << value;
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

TEST(SignedRevision, RangePastTheEndIsPaddedWithZeros) {
  const Bytes pdf = withRange(signedPdf(options("", 100)), "[0 10 20 200000]");
  auto opened = openPdf(pdf);
  PDFSealmarkVerify v;
  std::ostringstream out, again;
  ASSERT_TRUE(v.parse(opened.field("Signature1")) && v.getSignedVerPdf(out));
  ASSERT_EQ(out.str().size(), 200020u);
  EXPECT_EQ(out.str().substr(0, pdf.size()), text(pdf));
  EXPECT_EQ(out.str().find_first_not_of('\0', pdf.size()), std::string::npos);
  // The stream is usable afterwards.
  EXPECT_FALSE(v.verify());
  EXPECT_TRUE(v.getSignedVerPdf(again) && again.str() == out.str());
}

TEST(Revisions, EndWhereEachSigningLeftTheFileWithCrLf) {
  // The input's own "%%EOF\n" ends no revision.
  const Bytes once = signedPdf(), twice = sign(once, options("Second"));
  std::unique_ptr<PDFSealmarkVersion> copy;
  {
    auto opened = openPdf(twice);
    PDFSealmarkVersion versions(opened.doc.get());
    EXPECT_EQ(versions.getEnds(),
              (std::vector<int>{static_cast<int>(once.size()), static_cast<int>(twice.size())}));
    EXPECT_EQ(versions.getMaxNum(), 1);
    std::ostringstream none;
    EXPECT_FALSE(versions.getPdf(-1, none) || versions.getPdf(2, none) || !none.str().empty());
    copy = std::make_unique<PDFSealmarkVersion>(versions);
  }
  // The copy lives on without the document.
  for (int n : {0, 1}) {
    std::ostringstream out;
    EXPECT_TRUE(copy->getPdf(n, out) && bytes(out.str()) == (n ? twice : once)) << n;
  }
  // A file that ends without CR LF: its last update is no revision.
  auto cut = openPdf(Bytes(twice.begin(), twice.end() - 2));
  ASSERT_TRUE(cut.doc) << cut.error;
  EXPECT_EQ(PDFSealmarkVersion(cut.doc.get()).getEnds(), std::vector<int>{static_cast<int>(once.size())});
  // Markers inside streams or strings count too: the scan sees bytes only.
  // A line feed alone, or a marker cut off by the end of the file, isn't one.
  for (const auto& [text, ends] : {std::pair<std::string, std::vector<int>>{"%%EOF\r", {}},
                                   {"%%EOF\n\r", {}},
                                   {"%%%EOF\r\nab%%EOF\r\n%%EOF\r", {8, 17}},
                                   {std::string("stream\n%%EOF\r\nendstream\0%%EOF\r\n", 31), {14, 31}},
                                   {std::string(100000, '%') + "%%EOF\r\n", {100007}}}) {
    EXPECT_EQ(PDF_Sealmark::findRevisionEnds(text.data(), text.size()), ends) << text.substr(0, 40);
  }
}

TEST(Encrypted, SignatureReadFromStoredBytesThenDecrypted) {
  for (const auto& [file, user] :
       {std::pair<const char*, const char*>{"two-pages-aes128.pdf", ""}, {"two-pages-aes256.pdf", "user"}}) {
    SignOptions o = options();
    o.documentPassword = user;
    o.reason = "Approved";
    const Bytes pdf = sign(input(file), o);
    for (const char* password : {user, "owner"}) {
      auto opened = openPdf(pdf, password);
      PDFSealmarkVerify v;
      ASSERT_TRUE(opened.doc && v.parse(opened.field("Signature1"))) << opened.error;
      EXPECT_TRUE(v.verify()) << file << " " << password;
      // After parse the signature dictionary holds decrypted strings.
      PDF_Vellum::PDFObject* reason = v.getSigDict()->getContents("/Reason");
      EXPECT_EQ(reason ? std::string(reason->getString(), reason->getLenth()) : "", "Approved") << file;
    }
    std::string why;
    EXPECT_FALSE(PDF_Vellum::PDFDocument::openMemory(pdf, "nope", &why));
    EXPECT_EQ(why, "wrong password");
    EXPECT_TRUE(!*user ||
                (!PDF_Vellum::PDFDocument::openMemory(pdf, "", &why) && why == "password required"));
  }
}

TEST(SignerInfo, CertificatesInOrderAndTheLastSigningTime) {
  // Two signer infos; the certificate set holds the CA, a version 1
  // certificate, and the two signers, in that order.
  oracle("openssl req -new -key " + pki("signer.key") + " -subj /CN=V1 | openssl x509 -req -CA " + pem("ca") +
         " -CAkey " + pki("ca.key") + " -set_serial 77 -out " + pem("v1"));
  auto opened = openPdf(edited([](PKCS7* p7) {
    addSigner(p7, "second");
    setCertificates(p7, {pem("ca"), pem("v1"), pem("signer"), pem("second")});
  }));
  PDFSealmarkVerify v;
  std::vector<PDF_Sealmark::PDFCert> certs;
  std::vector<std::string> got, want;
  ASSERT_TRUE(v.parse(opened.field("Signature1")) && v.getCerts(certs) && v.getCerts(certs));  // appends
  for (const auto& c : certs) got.push_back(hashOf(c));
  for (const char* who : {"ca", "signer", "second", "ca", "signer", "second", "v1", "v1"}) {
    want.push_back(sha1Fingerprint(pem(who)));
  }
  want.resize(16);
  std::copy(want.begin(), want.begin() + 8, want.begin() + 8);
  EXPECT_EQ(got, want);                               // version 3 first, once per signer info
  EXPECT_NE(certs[0].getX509(), certs[3].getX509());  // copies of their own, without key
  EXPECT_EQ(certs[0].getPKey(), 0u);

  EXPECT_EQ(v.getSignedDate(), kSigningTime);
  auto setTime = [&](int i, int type, const std::string& text) {
    ASN1_STRING* value = ASN1_STRING_type_new(type);
    ASN1_STRING_set(value, text.data(), static_cast<int>(text.size()));
    PKCS7_add_signed_attribute(signerInfo(v.getImpl()->pkcs7, i), NID_pkcs9_signingTime, type, value);
  };
  setTime(0, V_ASN1_UTCTIME, "240315120000Z");
  setTime(1, V_ASN1_PRINTABLESTRING, "20300101000000Z");  // not a time
  EXPECT_EQ(v.getSignedDate(), "20240315120000Z");
  setTime(1, V_ASN1_GENERALIZEDTIME, "20300101000000Z");
  EXPECT_EQ(v.getSignedDate(), "20300101000000Z");
  setTime(0, V_ASN1_PRINTABLESTRING, "x");
  setTime(1, V_ASN1_OCTET_STRING, "x");
  EXPECT_EQ(v.getSignedDate(), "");
}

// Certification signatures by the signer ("P1" to "P3": /P 1 to 3), and
// /Reference entries written over a reason slot (objects 5 to 7 are those
// of tests/data/README.md).
struct PermissionCase {
  const char *name, *reference;
  bool found;
  int permission;
  bool fieldMdp;
};

class Permission : public ::testing::TestWithParam<PermissionCase> {};

TEST_P(Permission, ReadFromReference) {
  const PermissionCase& c = GetParam();
  SignOptions o = options("Group.B", 100);
  o.certify = c.reference[0] == 'P' ? c.reference[1] - '0' : 0;
  Bytes pdf = fields(o);
  if (!o.certify) pdf = overwrite(pdf, entry(pdf, "/Reason"), c.reference);
  auto opened = openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Group.B"))) << opened.error;
  auto permission = static_cast<PDF_Folio::PL_VerifyDocPerm>(77);
  bool fieldMdp = true;
  EXPECT_EQ(v.getPermission(permission, fieldMdp), c.found);
  // Without a /Reference array both are left alone.
  EXPECT_EQ(std::make_pair(static_cast<int>(permission), fieldMdp),
            c.found ? std::make_pair(c.permission, c.fieldMdp) : std::make_pair(77, true));
}

const PermissionCase kReferences[] = {
    {"Certify1", "P1", true, 1, false},
    {"Certify2", "P2", true, 2, false},
    {"Certify3", "P3", true, 3, false},
    {"None", "", false, 0, false},
    {"NotAnArray", "/Reference << /P 1 >>", false, 0, false},
    {"Empty", "/Reference []", true, 0, false},
    {"LastPWins", "/Reference [<</TransformParams<</P 1>>>> <</TransformParams<</P 3>>>>]", true, 3, false},
    {"FieldMdpWithoutP", "/Reference [<</TransformMethod/FieldMDP/TransformParams<</Action/All>>>>]", true, 0,
     true},
    {"PBeatsItsMethod", "/Reference [<</TransformMethod/FieldMDP/TransformParams<</P 3>>>>]", true, 3, false},
    {"FieldMdpStays", "/Reference [<</TransformMethod/FieldMDP>> <</TransformParams<</P 2>>>>]", true, 2,
     true},
    {"PNotANumber", "/Reference [<</TransformMethod/FieldMDP/TransformParams<</P/Two>>>>]", true, 0, true},
    {"ArrayByReference", "/Reference 6 0 R", true, 1, false},
    {"ParamsByReference", "/Reference [<</TransformMethod/DocMDP/TransformParams 5 0 R>>]", true, 3, false},
    {"ElementsByReferenceAreSkipped", "/Reference [7 0 R]", true, 0, false}};

INSTANTIATE_TEST_SUITE_P(References, Permission, ::testing::ValuesIn(kReferences), nameOf<PermissionCase>);

TEST(Facade, CopiesShareOneStateAndNothingIsKnownBeforeParse) {
  PDFSealmarkVerify a, b;
  std::vector<PDF_Sealmark::PDFCert> certs;
  EXPECT_FALSE(a.parse(nullptr) || a.verify() || a.getCerts(certs) ||
               PDF_Sealmark::collectCerts(nullptr, certs));
  auto opened = openPdf(signedPdf());
  b = a;
  ASSERT_TRUE(a.parse(opened.field("Signature1")) && b.getHasSigned());
  PDFSealmarkVerify c(a);
  b.clear();
  EXPECT_FALSE(a.getHasSigned() || c.getHasSigned() || a.getSigDict());
}

}  // namespace

// Signed data decoded with its certificates taken from the shared cache must
// be what d2i_PKCS7 makes of the same bytes, or the shortcut must decline.
namespace shared {

using PDF_Sealmark::decodeSharingCertificates;
using P7 = PDF_Sealmark::ossl::UniquePtr<PKCS7>;

P7 plain(const Bytes& der) {
  const unsigned char* p = der.data();
  return P7(d2i_PKCS7(nullptr, &p, static_cast<long>(der.size())));
}
X509* certAt(PKCS7* p7, int i) { return sk_X509_value(p7->d.sign->cert, i); }

// Whether the shortcut took these bytes; a failure when what it made
// differs from OpenSSL's own decoding.
bool agrees(const Bytes& der, const std::string& what) {
  P7 fast(decodeSharingCertificates(der.data(), der.size()));
  if (!fast) return false;
  P7 reference = plain(der);
  EXPECT_TRUE(reference) << what << ": decoded by the shortcut only";
  if (reference) {
    EXPECT_EQ(sealtest::der(fast.get()), sealtest::der(reference.get())) << what;
  }
  return true;
}

}  // namespace shared

TEST(SharedCertificates, DecodeAsOpenSSLDoesOrDecline) {
  const Bytes padded = contentsOf(signedPdf());
  const std::size_t length = 4 + (std::size_t(padded[2]) << 8 | padded[3]);  // 30 82 LL LL
  ASSERT_EQ(padded[1], 0x82);
  const Bytes der(padded.begin(), padded.begin() + length);
  shared::P7 p7 = shared::plain(der);
  ASSERT_TRUE(p7);
  // The first certificate's bytes, and an offset inside its signature value.
  unsigned char* certDer = nullptr;
  const int certLength = i2d_X509(shared::certAt(p7.get(), 0), &certDer);
  const std::size_t cert = std::search(der.begin(), der.end(), certDer, certDer + certLength) - der.begin();
  OPENSSL_free(certDer);
  ASSERT_LT(cert, der.size());

  Bytes indefinite{0x30, 0x80};
  indefinite.insert(indefinite.end(), der.begin() + 4, der.end());
  indefinite.insert(indefinite.end(), {0, 0});
  // Two more bytes (a NULL) at the end of the ContentInfo, inside its [0] or not.
  auto longer = [&](std::initializer_list<std::size_t> lengthsAt) {
    Bytes b = der;
    for (std::size_t at : lengthsAt) b[at + 1] = static_cast<unsigned char>(b[at + 1] + 2);  // no carry here
    b.insert(b.end(), {0x05, 0x00});
    return b;
  };
  ASSERT_LT(der[3], 0xfe);
  ASSERT_LT(der[18], 0xfe);
  Bytes data = der;
  data[14] = 0x01;  // id-data in place of id-signedData
  const Bytes noCerts = editPkcs7(signedPdf(), [](PKCS7* q) {
    sk_X509_pop_free(q->d.sign->cert, X509_free);
    q->d.sign->cert = nullptr;
  });
  const Bytes emptySet = editPkcs7(signedPdf(), [](PKCS7* q) {
    sk_X509_pop_free(q->d.sign->cert, X509_free);
    q->d.sign->cert = sk_X509_new_null();
  });
  const struct {
    const char* what;
    Bytes der;
    bool taken;
  } cases[] = {
      {"as signed, with the slot's zero padding", padded, true},
      {"as signed", der, true},
      {"a certificate's signature value changed", flip(der, cert + certLength - 3), true},
      {"BER, indefinite length", indefinite, false},
      {"more inside the explicit tag", longer({2, 17}), false},
      {"more inside the ContentInfo", longer({2}), false},
      {"not signed data", data, false},
      {"no certificates", contentsOf(noCerts), false},
      {"an empty certificate set", contentsOf(emptySet), false},
      {"a certificate's length changed", flip(der, cert + 3), false},
      {"cut inside the signer infos", Bytes(der.begin(), der.end() - 40), false},
  };
  for (const auto& c : cases) EXPECT_EQ(shared::agrees(c.der, c.what), c.taken) << c.what;

  // Real signatures from other producers: the shortcut must agree wherever
  // it applies, and apply to most of them.
  // Their time-stamp tokens too.
  int taken = 0, total = 0;
  for (const std::string& name : listPdfs(SEALMARK_CORPUS_DIR)) {
    OpenedPdf pdf = openPdfFile(std::string(SEALMARK_CORPUS_DIR) + "/" + name);
    for (PDF_Folio::CSigField* field : pdf.fields) {
      PDFSealmarkVerify v;
      v.parse(field);
      std::ostringstream contents, token;
      for (const std::ostringstream* out : {&(v.getContents(contents), contents), &(v.getTimeStampToken(token), token)}) {
        const std::string object = out->str();
        if (object.empty() || !shared::plain(Bytes(object.begin(), object.end()))) continue;
        ++total;
        taken += shared::agrees(Bytes(object.begin(), object.end()), name + "#" + field->getName());
      }
    }
  }
  EXPECT_GT(total, 80);
  EXPECT_GT(taken, total * 3 / 4);
}

TEST(SharedCertificates, OneObjectPerCertificateUntilForgotten) {
  const Bytes der = contentsOf(signedPdf());
  shared::P7 first(PDF_Sealmark::decodeSharingCertificates(der.data(), der.size()));
  shared::P7 second(PDF_Sealmark::decodeSharingCertificates(der.data(), der.size()));
  ASSERT_TRUE(first && second);
  ASSERT_EQ(sk_X509_num(first->d.sign->cert), 2);
  EXPECT_EQ(shared::certAt(first.get(), 0), shared::certAt(second.get(), 0));
  EXPECT_EQ(shared::certAt(first.get(), 1), shared::certAt(second.get(), 1));
  EXPECT_NE(shared::certAt(first.get(), 0), shared::certAt(first.get(), 1));

  // Forgetting drops only the cache's references.
  PDF_Sealmark::forgetSharedCertificates();
  second.reset();
  shared::P7 third(PDF_Sealmark::decodeSharingCertificates(der.data(), der.size()));
  ASSERT_TRUE(third);
  EXPECT_NE(shared::certAt(first.get(), 0), shared::certAt(third.get(), 0));
  EXPECT_EQ(X509_cmp(shared::certAt(first.get(), 0), shared::certAt(third.get(), 0)), 0);
  EXPECT_EQ(X509_verify(shared::certAt(first.get(), 1), X509_get0_pubkey(shared::certAt(third.get(), 0))), 1);
}
