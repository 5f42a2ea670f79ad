// Revision index, the signed revision of a signature and its permissions.
#include <gtest/gtest.h>

#include <sstream>

#include "pdf_builder.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFSealmarkVersion.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFSealmarkVerify;
using PDF_Sealmark::PDFSealmarkVersion;
using sealtest::Bytes;
using sealtest::PdfBuilder;

std::vector<int> endsOf(const std::string& text) {
  return PDF_Sealmark::findRevisionEnds(text.data(), text.size());
}

TEST(RevisionScan, OnlyCrLfMarkersCount) {
  // Markers inside streams or strings count too: the scan sees bytes only.
  // A line feed alone, or a marker cut off by the end of the file, isn't one.
  for (const auto& [text, ends] : {std::pair<std::string, std::vector<int>>{"", {}}, {"%PDF-1.7\n%%EOF\n", {}},
                                   {"%%EOF\r", {}}, {"%%EOF", {}}, {"%%EOF\n\r", {}}, {"%%EOF\r\n", {7}},
                                   {"%%%EOF\r\nab%%EOF\r\n%%EOF\r", {8, 17}},
                                   {std::string("stream\n%%EOF\r\nendstream\0%%EOF\r\n", 31), {14, 31}},
                                   {std::string(100000, '%') + "%%EOF\r\n", {100007}}}) {
    EXPECT_EQ(endsOf(text), ends) << text.substr(0, 40);
  }
}

class RevisionIndex : public ::testing::Test {
 protected:
  void SetUp() override {
    sealtest::SignatureOptions second;
    second.name = "Signature2";
    pdf_ = builder_.sign().sign(second).update().build();
  }
  PdfBuilder builder_;
  Bytes pdf_;
};

TEST_F(RevisionIndex, MatchesTheRevisionsTheBuilderWrote) {
  auto opened = sealtest::openPdf(pdf_);
  ASSERT_TRUE(opened.doc);
  PDFSealmarkVersion versions(opened.doc.get());
  const auto& written = builder_.revisionEnds();
  ASSERT_EQ(written.size(), 3u);
  EXPECT_EQ(versions.getEnds(), std::vector<int>(written.begin(), written.end()));
  EXPECT_EQ(versions.getMaxNum(), 2);
  EXPECT_EQ(static_cast<std::size_t>(versions.getEnds().back()), pdf_.size());

  for (int n = 0; n <= versions.getMaxNum(); ++n) {
    std::ostringstream out;
    ASSERT_TRUE(versions.getPdf(n, out));
    EXPECT_EQ(out.str(), std::string(pdf_.begin(), pdf_.begin() + static_cast<long>(written[n])));
  }
  std::ostringstream none;
  EXPECT_FALSE(versions.getPdf(-1, none));
  EXPECT_FALSE(versions.getPdf(3, none));
  EXPECT_TRUE(none.str().empty());
}

TEST_F(RevisionIndex, CopiesLiveOnWithoutTheDocument) {
  std::unique_ptr<PDFSealmarkVersion> copy;
  {
    auto opened = sealtest::openPdf(pdf_);
    PDFSealmarkVersion versions(opened.doc.get());
    copy = std::make_unique<PDFSealmarkVersion>(versions);
    PDFSealmarkVersion assigned = versions;
    assigned = *copy;
  }
  std::ostringstream out;
  ASSERT_TRUE(copy->getPdf(0, out));
  EXPECT_EQ(out.str().size(), builder_.revisionEnds()[0]);
}

TEST(RevisionIndexEdges, TrailingBytesAndNoMarkers) {
  // A file that ends without "\r\n": its last revision is not one.
  const Bytes lf = PdfBuilder().sign().update().finalEol(sealtest::Eol::Lf).build();
  auto opened = sealtest::openPdf(lf);
  ASSERT_TRUE(opened.doc) << opened.error;
  PDFSealmarkVersion versions(opened.doc.get());
  EXPECT_EQ(versions.getMaxNum(), 0);
  std::ostringstream out;
  ASSERT_TRUE(versions.getPdf(versions.getMaxNum(), out));
  EXPECT_LT(out.str().size(), lf.size());
}

// --- the signed revision ----------------------------------------------------

TEST_F(RevisionIndex, SignedRevisionIsTheFileAsItStoodWhenSigned) {
  const Bytes& pdf = pdf_;
  const PdfBuilder& builder = builder_;
  auto opened = sealtest::openPdf(pdf);
  sealtest::TempDir dir;
  for (const auto& facts : builder.signatures()) {
    PDFSealmarkVerify v;
    ASSERT_TRUE(v.parse(opened.field(facts.fieldName)));
    std::ostringstream out;
    ASSERT_TRUE(v.getSignedVerPdf(out));
    const auto end = builder.revisionEnds()[facts.revision];
    EXPECT_EQ(out.str(), std::string(pdf.begin(), pdf.begin() + static_cast<long>(end))) << facts.fieldName;
    // What comes out is a PDF of its own, and its signature is still intact.
    const std::string text = out.str();
    const std::string path = dir.write(facts.fieldName + ".pdf", Bytes(text.begin(), text.end()));
    EXPECT_EQ(sealtest::run("qpdf --check " + sealtest::shellQuote(path) + " >/dev/null").exitCode, 0);
    auto alone = sealtest::openPdfFile(path);
    PDFSealmarkVerify again;
    ASSERT_TRUE(again.parse(alone.field(facts.fieldName)));
    EXPECT_TRUE(again.verify());
  }
}

TEST(SignedRevision, RangePastTheEndIsPaddedWithZeros) {
  sealtest::SignatureOptions o;
  o.byteRangeText = "[0 10 20 200000]";
  const Bytes pdf = PdfBuilder().sign(o).build();
  auto opened = sealtest::openPdf(pdf);
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  std::ostringstream out;
  ASSERT_TRUE(v.getSignedVerPdf(out));
  const std::string got = out.str();
  ASSERT_EQ(got.size(), 200020u);
  EXPECT_EQ(got.substr(0, pdf.size()), std::string(pdf.begin(), pdf.end()));
  EXPECT_EQ(got.find_first_not_of('\0', pdf.size()), std::string::npos);
  // The stream is usable afterwards.
  EXPECT_FALSE(v.verify());
  std::ostringstream again;
  EXPECT_TRUE(v.getSignedVerPdf(again));
  EXPECT_EQ(again.str(), got);
}

TEST(SignedRevision, RefusedForUnsignedAndInvalidRanges) {
  sealtest::FieldOptions empty;
  empty.name = "Empty";
  sealtest::SignatureOptions overlap;
  overlap.byteRangeText = "[0 100 99 50]";
  auto opened = sealtest::openPdf(PdfBuilder().sign(overlap).unsignedField(empty).build());
  for (const char* name : {"Empty", "Signature1"}) {
    PDFSealmarkVerify v;
    ASSERT_TRUE(v.parse(opened.field(name)));
    std::ostringstream out;
    EXPECT_FALSE(v.getSignedVerPdf(out)) << name;
    EXPECT_TRUE(out.str().empty());
  }
}

// --- permissions ------------------------------------------------------------

struct PermissionCase {
  const char* what;
  std::string entries;
  std::vector<std::string> objects;
  bool found;
  int permission;
  bool fieldMdp;
};

class Permission : public ::testing::TestWithParam<PermissionCase> {};

TEST_P(Permission, ReadFromReference) {
  const PermissionCase& c = GetParam();
  sealtest::SignatureOptions o;
  o.extraEntries = c.entries;
  o.extraObjects = c.objects;
  auto opened = sealtest::openPdf(PdfBuilder().sign(o).build());
  ASSERT_TRUE(opened.doc) << opened.error;
  PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.field("Signature1")));
  auto permission = static_cast<PDF_Folio::PL_VerifyDocPerm>(77);
  bool fieldMdp = true;
  EXPECT_EQ(v.getPermission(permission, fieldMdp), c.found);
  if (c.found) {
    EXPECT_EQ(permission, c.permission);
    EXPECT_EQ(fieldMdp, c.fieldMdp);
  } else {
    EXPECT_EQ(permission, 77) << "left alone";
    EXPECT_TRUE(fieldMdp) << "left alone";
  }
}

const char kDocMdp[] = "<< /Type /SigRef /TransformMethod /DocMDP /TransformParams << /P %d /V /1.2 >> >>";

std::string docMdp(int p) {
  char buf[200];
  std::snprintf(buf, sizeof buf, kDocMdp, p);
  return buf;
}

INSTANTIATE_TEST_SUITE_P(
    References, Permission,
    ::testing::Values(
        PermissionCase{"none", "", {}, false, 0, false},
        PermissionCase{"not an array", "/Reference << /P 1 >>", {}, false, 0, false},
        PermissionCase{"empty", "/Reference []", {}, true, 0, false},
        PermissionCase{"docmdp 1", "/Reference [" + docMdp(1) + "]", {}, true, 1, false},
        PermissionCase{"docmdp 2", "/Reference [" + docMdp(2) + "]", {}, true, 2, false},
        PermissionCase{"last P wins", "/Reference [" + docMdp(1) + " " + docMdp(3) + "]", {}, true, 3, false},
        PermissionCase{"fieldmdp without P",
                       "/Reference [<< /TransformMethod /FieldMDP /TransformParams << /Action /All >> >>]", {}, true,
                       0, true},
        PermissionCase{"P beats the method of its own entry",
                       "/Reference [<< /TransformMethod /FieldMDP /TransformParams << /P 3 >> >>]", {}, true, 3, false},
        PermissionCase{"fieldmdp stays once set",
                       "/Reference [<< /TransformMethod /FieldMDP >> " + docMdp(2) + "]", {}, true, 2, true},
        PermissionCase{"array by reference", "/Reference {0}", {"[" + docMdp(1) + "]"}, true, 1, false},
        PermissionCase{"params by reference",
                       "/Reference [<< /TransformMethod /DocMDP /TransformParams {0} >>]", {"<< /P 3 >>"}, true, 3,
                       false},
        PermissionCase{"elements by reference are skipped", "/Reference [{0}]", {docMdp(2)}, true, 0, false},
        PermissionCase{"P that is no number is absent",
                       "/Reference [<< /TransformMethod /FieldMDP /TransformParams << /P /Two >> >>]", {}, true, 0,
                       true}),
    [](const ::testing::TestParamInfo<PermissionCase>& info) {
      std::string name = info.param.what;
      for (char& ch : name) ch = std::isalnum(static_cast<unsigned char>(ch)) ? ch : '_';
      return name;
    });

}  // namespace
