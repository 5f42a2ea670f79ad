// Revision index, the signed revision of a signature and its permissions.
#include <gtest/gtest.h>

#include <sstream>

#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFSealmarkVersion.h"
#include "support/mutate.h"

namespace {

using namespace sealtest;
using PDF_Sealmark::PDFSealmarkVerify;
using PDF_Sealmark::PDFSealmarkVersion;

TEST(RevisionScan, OnlyCrLfMarkersCount) {
  // Markers inside streams or strings count too: the scan sees bytes only.
  // A line feed alone, or a marker cut off by the end of the file, isn't one.
  for (const auto& [text, ends] : {std::pair<std::string, std::vector<int>>{"", {}},
                                   {"%PDF-1.7\n%%EOF\n", {}},
                                   {"%%EOF\r", {}},
                                   {"%%EOF", {}},
                                   {"%%EOF\n\r", {}},
                                   {"%%EOF\r\n", {7}},
                                   {"%%%EOF\r\nab%%EOF\r\n%%EOF\r", {8, 17}},
                                   {std::string("stream\n%%EOF\r\nendstream\0%%EOF\r\n", 31), {14, 31}},
                                   {std::string(100000, '%') + "%%EOF\r\n", {100007}}}) {
    EXPECT_EQ(PDF_Sealmark::findRevisionEnds(text.data(), text.size()), ends) << text.substr(0, 40);
  }
}

// Signed once, then again: each signing ends the file with a revision of its
// own.  The input's own "%%EOF\n" ends none.
const Bytes& once() {
  static const Bytes pdf = sign(input("two-pages.pdf"));
  return pdf;
}
const Bytes& twice() {
  static const Bytes pdf = sign(once(), options("Second"));
  return pdf;
}

TEST(Revisions, EndWhereEachSigningLeftTheFile) {
  std::unique_ptr<PDFSealmarkVersion> copy;
  {
    auto opened = openPdf(twice());
    PDFSealmarkVersion versions(opened.doc.get());
    EXPECT_EQ(versions.getEnds(),
              (std::vector<int>{static_cast<int>(once().size()), static_cast<int>(twice().size())}));
    EXPECT_EQ(versions.getMaxNum(), 1);
    std::ostringstream none;
    EXPECT_FALSE(versions.getPdf(-1, none) || versions.getPdf(2, none));
    EXPECT_TRUE(none.str().empty());
    copy = std::make_unique<PDFSealmarkVersion>(versions);
  }
  // The copy lives on without the document.
  for (int n : {0, 1}) {
    std::ostringstream out;
    ASSERT_TRUE(copy->getPdf(n, out));
    EXPECT_EQ(bytes(out.str()), n ? twice() : once());
  }
  // A file that ends without CR LF: its last update is no revision.
  auto cut = openPdf(Bytes(twice().begin(), twice().end() - 2));
  ASSERT_TRUE(cut.doc) << cut.error;
  EXPECT_EQ(PDFSealmarkVersion(cut.doc.get()).getEnds(), std::vector<int>{static_cast<int>(once().size())});
}

TEST(SignedRevision, IsTheFileAsItStoodWhenSigned) {
  auto opened = openPdf(twice());
  TempDir dir;
  for (const auto& [field, revision] :
       {std::pair<const char*, const Bytes*>{"Signature1", &once()}, {"Second", &twice()}}) {
    PDFSealmarkVerify v;
    ASSERT_TRUE(v.parse(opened.field(field)));
    std::ostringstream out;
    ASSERT_TRUE(v.getSignedVerPdf(out));
    EXPECT_EQ(bytes(out.str()), *revision) << field;
    // What comes out is a PDF of its own, and its signature is still intact.
    const std::string path = dir.write(std::string(field) + ".pdf", bytes(out.str()));
    EXPECT_EQ(run("qpdf --check " + shellQuote(path) + " >/dev/null").exitCode, 0);
    auto alone = openPdf(readFile(path));
    PDFSealmarkVerify again;
    ASSERT_TRUE(again.parse(alone.field(field)));
    EXPECT_TRUE(again.verify());
  }
}

TEST(SignedRevision, RangePastTheEndIsPaddedWithZeros) {
  const Bytes pdf = withRange(sign(input("two-pages.pdf"), options("", 100)), "[0 10 20 200000]");
  auto opened = openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  std::ostringstream out;
  ASSERT_TRUE(v.getSignedVerPdf(out));
  const std::string got = out.str();
  ASSERT_EQ(got.size(), 200020u);
  EXPECT_EQ(got.substr(0, pdf.size()), text(pdf));
  EXPECT_EQ(got.find_first_not_of('\0', pdf.size()), std::string::npos);
  // The stream is usable afterwards.
  EXPECT_FALSE(v.verify());
  std::ostringstream again;
  EXPECT_TRUE(v.getSignedVerPdf(again));
  EXPECT_EQ(again.str(), got);
}

TEST(SignedRevision, RefusedForUnsignedAndInvalidRanges) {
  auto unsignedField = openPdf(sign(input("fields.pdf"), options("Group.B")));
  auto overlap = openPdf(withRange(sign(input("two-pages.pdf"), options("", 100)), "[0 100 99 50]"));
  for (auto* field : {unsignedField.field("A"), overlap.field("Signature1")}) {
    PDFSealmarkVerify v;
    ASSERT_TRUE(v.parse(field));
    std::ostringstream out;
    EXPECT_FALSE(v.getSignedVerPdf(out)) << field->getName();
    EXPECT_TRUE(out.str().empty());
  }
}

// --- permissions ------------------------------------------------------------

struct PermissionCase {
  const char* what;
  int certify;          // the signer's own DocMDP, 1 to 3
  std::string entries;  // or this written over the /Reason of fields.pdf's signature
  bool found;
  int permission;
  bool fieldMdp;
};

class Permission : public ::testing::TestWithParam<PermissionCase> {};

TEST_P(Permission, ReadFromReference) {
  const PermissionCase& c = GetParam();
  SignOptions o = options("Group.B", 100);
  o.certify = c.certify;
  Bytes pdf = sign(input("fields.pdf"), o);
  if (!c.certify) pdf = overwrite(pdf, entry(pdf, "/Reason"), c.entries);
  auto opened = openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Group.B"))) << opened.error;
  auto permission = static_cast<PDF_Folio::PL_VerifyDocPerm>(77);
  bool fieldMdp = true;
  EXPECT_EQ(v.getPermission(permission, fieldMdp), c.found);
  // Without a /Reference array both are left alone.
  EXPECT_EQ(permission, c.found ? c.permission : 77);
  EXPECT_EQ(fieldMdp, c.found ? c.fieldMdp : true);
}

INSTANTIATE_TEST_SUITE_P(
    References, Permission,
    ::testing::Values(
        PermissionCase{"Certify1", 1, "", true, 1, false}, PermissionCase{"Certify2", 2, "", true, 2, false},
        PermissionCase{"Certify3", 3, "", true, 3, false}, PermissionCase{"None", 0, "", false, 0, false},
        PermissionCase{"NotAnArray", 0, "/Reference << /P 1 >>", false, 0, false},
        PermissionCase{"Empty", 0, "/Reference []", true, 0, false},
        PermissionCase{"LastPWins", 0,
                       "/Reference [<</TransformParams<</P 1>>>> <</TransformParams<</P 3>>>>]", true, 3,
                       false},
        PermissionCase{"FieldMdpWithoutP", 0,
                       "/Reference [<</TransformMethod/FieldMDP/TransformParams<</Action/All>>>>]", true, 0,
                       true},
        PermissionCase{"PBeatsTheMethodOfItsEntry", 0,
                       "/Reference [<</TransformMethod/FieldMDP/TransformParams<</P 3>>>>]", true, 3, false},
        PermissionCase{"FieldMdpStaysOnceSet", 0,
                       "/Reference [<</TransformMethod/FieldMDP>> <</TransformParams<</P 2>>>>]", true, 2,
                       true},
        PermissionCase{"PThatIsNoNumberIsAbsent", 0,
                       "/Reference [<</TransformMethod/FieldMDP/TransformParams<</P/Two>>>>]", true, 0, true},
        // Objects 5 to 7 of fields.pdf (see tests/data/README.md).
        PermissionCase{"ArrayByReference", 0, "/Reference 6 0 R", true, 1, false},
        PermissionCase{"ParamsByReference", 0,
                       "/Reference [<</TransformMethod/DocMDP/TransformParams 5 0 R>>]", true, 3, false},
        PermissionCase{"ElementsByReferenceAreSkipped", 0, "/Reference [7 0 R]", true, 0, false}),
    [](const ::testing::TestParamInfo<PermissionCase>& info) { return std::string(info.param.what); });

}  // namespace
