// The PDF object layer over qpdf and the common objects, on files signed by
// PDFSigner.  The form-field walk is seen through the README example test.
#include <gtest/gtest.h>

#include "pdfsealmark/outside/PDFFolio.h"
#include "pdfsealmark/outside/PDFVellum.h"
#include "pdfsealmark/outside/TesseraCommon.h"
#include "support/mutate.h"

namespace {

using namespace PDF_Vellum;
using sealtest::Bytes;

TEST(OpenDocument, ClearReasonsForWhatCannotBeOpened) {
  sealtest::TempDir dir;
  std::string why;
  for (const auto& [path, reason] :
       {std::pair<std::string, std::string>{dir.file("missing.pdf"), "No such file or directory"},
        {dir.path(), "not a regular file"},
        {dir.write("text.pdf", sealtest::bytes("hello")), "not a PDF file"}}) {
    EXPECT_EQ(PDFDocument::open(path, "", &why), nullptr);
    EXPECT_EQ(why, reason);
  }
  EXPECT_EQ(PDFDocument::openMemory(Bytes{}, "", &why), nullptr);
  EXPECT_EQ(why, "not a PDF file");
  // A header and nothing qpdf can rebuild a document from.
  EXPECT_EQ(
      PDFDocument::openMemory(sealtest::bytes("%PDF-1.7\n1 0 obj\n<< /Type /Nothing >>\nendobj\n"), "", &why),
      nullptr);
  EXPECT_EQ(why.rfind("damaged file", 0), 0u) << why;
}

TEST(Objects, ParseIndirectObjHonoursItsFlagOnlyWhenEncrypted) {
  sealtest::SignOptions o = sealtest::options();
  o.reason = "Approved";
  auto opened = sealtest::openPdf(sealtest::sign(sealtest::input("two-pages-aes128.pdf"), o));
  ASSERT_TRUE(opened.doc && opened.doc->isEncrypted()) << opened.error;
  PDFDocument& doc = *opened.doc;
  PDFSmartPtr<PDFIndirect> ref(
      opened.fields.at(0)->getacroform()->getAcroformDic()->getValueOf(PDFName("/V")));
  ASSERT_TRUE(ref);
  PDFSmartPtr<PDFDictionary> stored(doc.parseIndirectObj(ref.get(), false));
  PDFSmartPtr<PDFDictionary> decrypted(doc.parseIndirectObj(ref.get(), true));
  auto string = [](PDFDictionary* d, const char* key) {
    PDFObject* o = d ? d->getValueOf(PDFName(key)) : nullptr;
    return o ? std::string(o->getString(), o->getLenth()) : "(none)";
  };
  // /Contents of a signature dictionary is never encrypted: both readings
  // agree on it, and only the decrypted one on other strings.
  EXPECT_EQ(string(stored.get(), "/Contents"), string(decrypted.get(), "/Contents"));
  EXPECT_EQ(string(decrypted.get(), "/Reason"), "Approved");
  EXPECT_NE(string(stored.get(), "/Reason"), "Approved");
  // The page tree: pages 1 and 2, each by reference.
  EXPECT_EQ(doc.getPageNum(), 2);
  EXPECT_FALSE(doc.getPage(0) || doc.getPage(3));
  ASSERT_NE(doc.getPage(2), nullptr);
  EXPECT_TRUE(doc.getPage(2)->getPageIndObj()->isA(kPDFIndirect));
  EXPECT_EQ(doc.parseIndirectObj(nullptr, true), nullptr);
  PDFIndirect missing(99999, 0);
  EXPECT_TRUE(doc.parseIndirectObj(&missing, true)->isA(kPDFNull));
}

TEST(CommonObjects, MemStreamWritesThenReads) {
  TesseraCommon::TSMemStream s(nullptr, 8192, false);
  s << "token:" << 42 << ' ';
  s.write("\0\x01", 2);
  std::string word;
  s >> word;
  EXPECT_EQ(word, "token:42");
  EXPECT_EQ(s.data().size(), 11u);
  std::istringstream source("abcdef");
  TesseraCommon::TSMemStream copy(&source, 4, true);
  copy >> word;
  EXPECT_EQ(word, "abcd");
}

}  // namespace
