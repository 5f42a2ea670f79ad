// The PDF object layer over qpdf, the form-field walk and the common objects,
// on files signed by PDFSigner.
#include <gtest/gtest.h>

#include <fstream>

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

TEST(OpenDocument, FileAndMemoryGiveTheSameStream) {
  const Bytes pdf = sealtest::sign(sealtest::input("two-pages.pdf"));
  sealtest::TempDir dir;
  const std::string path = dir.write("a.pdf", pdf);
  std::vector<std::unique_ptr<PDFDocument>> docs;
  docs.push_back(PDFDocument::open(path, ""));
  docs.push_back(PDFDocument::openMemory(pdf, ""));
  for (auto& doc : docs) {
    ASSERT_TRUE(doc);
    EXPECT_EQ(doc->getFileSize(), pdf.size());
    std::istream* in = doc->getIstream();
    in->seekg(static_cast<std::streamoff>(pdf.size() - 7));
    char tail[8] = {};
    in->read(tail, 7);
    EXPECT_EQ(std::string(tail, 7), "%%EOF\r\n");
    // A read past the end fails the stream; the next user gets it cleared.
    in->read(tail, 1);
    EXPECT_FALSE(in->good());
    EXPECT_TRUE(doc->getIstream()->good());
  }
}

TEST(FormFields, DocumentOrderInheritedTypeAndQualifiedNames) {
  auto opened =
      sealtest::openPdf(sealtest::sign(sealtest::input("fields.pdf"), sealtest::options("Group.B")));
  ASSERT_TRUE(opened.doc) << opened.error;
  std::vector<std::string> names;
  for (auto* f : opened.fields) {
    names.push_back(f->getName());
    EXPECT_EQ(f->getFieldType(), "/Sig");
  }
  EXPECT_EQ(names, (std::vector<std::string>{"A", "Group.B", "Group.C"}));
}

TEST(Objects, ParseIndirectObjHonoursItsFlagOnlyWhenEncrypted) {
  sealtest::SignOptions o = sealtest::options();
  o.reason = "Approved";
  auto opened = sealtest::openPdf(sealtest::sign(sealtest::input("two-pages-aes128.pdf"), o));
  ASSERT_TRUE(opened.doc) << opened.error;
  PDFDocument& doc = *opened.doc;
  ASSERT_TRUE(doc.isEncrypted());
  PDFSmartPtr<PDFDictionary> field = opened.fields.at(0)->getacroform()->getAcroformDic();
  PDFSmartPtr<PDFIndirect> ref(field->getValueOf(PDFName("/V")));
  ASSERT_TRUE(ref);
  PDFSmartPtr<PDFDictionary> stored(doc.parseIndirectObj(ref.get(), false));
  PDFSmartPtr<PDFDictionary> decrypted(doc.parseIndirectObj(ref.get(), true));
  ASSERT_TRUE(stored && decrypted);
  auto string = [](PDFDictionary* d, const char* key) {
    PDFObject* o = d->getValueOf(PDFName(key));
    return o ? std::string(o->getString(), o->getLenth()) : "(none)";
  };
  // /Contents of a signature dictionary is never encrypted: both readings
  // agree on it, and only the decrypted one on other strings.
  EXPECT_EQ(string(stored.get(), "/Contents"), string(decrypted.get(), "/Contents"));
  EXPECT_EQ(string(decrypted.get(), "/Reason"), "Approved");
  EXPECT_NE(string(stored.get(), "/Reason"), "Approved");
  // The page tree: a field's page reference is one of the document's pages.
  EXPECT_EQ(doc.getPageNum(), 2);
  EXPECT_EQ(doc.getPage(0), nullptr);
  EXPECT_EQ(doc.getPage(3), nullptr);
  ASSERT_NE(doc.getPage(2), nullptr);
  EXPECT_TRUE(doc.getPage(2)->getPageIndObj()->isA(kPDFIndirect));
  EXPECT_EQ(doc.parseIndirectObj(nullptr, true), nullptr);
  PDFIndirect missing(99999, 0);
  EXPECT_TRUE(doc.parseIndirectObj(&missing, true)->isA(kPDFNull));
}

TEST(Objects, SmartPointerKeepsOnlyItsOwnType) {
  PDFSmartPtr<PDFArray> array(new PDFArray);
  array->append(new PDFName("/X"));
  array->append(new PDFIndirect(4, 0));
  PDFSmartPtr<PDFName> name(array->getAt(0));
  PDFSmartPtr<PDFDictionary> notDict(array->getAt(0));
  EXPECT_TRUE(name);
  EXPECT_FALSE(notDict);
  EXPECT_STREQ(name->getString(), "/X");
  EXPECT_EQ(array->getAt(2), nullptr);

  PDFSmartPtr<PDFDictionary> stream(new PDFStream);
  EXPECT_TRUE(stream) << "a stream is seen through its dictionary";
}

TEST(CommonObjects, CountedPointerReleasesOnce) {
  struct Probe : TesseraCommon::TSRCObject {
    explicit Probe(int* deaths) : deaths_(deaths) {}
    ~Probe() override { ++*deaths_; }
    std::uint32_t getClassId() const override { return 7; }
    icu::UnicodeString getClassName() const override { return "Probe"; }
    int* deaths_;
  };
  int deaths = 0;
  {
    TesseraCommon::TSSmartPtr<Probe> a(new Probe(&deaths), true);
    TesseraCommon::TSSmartPtr<Probe> b;
    b = a;
    b = a;
    TesseraCommon::TSSmartPtr<Probe> c(b);
    EXPECT_EQ(a->addRef(), 4);
    a->release();
    EXPECT_TRUE(a->isA(7));
    EXPECT_FALSE(a->isA(8));
  }
  EXPECT_EQ(deaths, 1);
}

TEST(CommonObjects, MemStreamWritesThenReads) {
  TesseraCommon::TSMemStream s(nullptr, 8192, false);
  s << "token:" << 42 << ' ';
  s.write("\0\x01", 2);
  std::string word;
  s >> word;
  EXPECT_EQ(word, "token:42");
  EXPECT_EQ(s.data().size(), 11u);
  s.clear();
  s.seekg(0);
  char first = 0;
  s.get(first);
  EXPECT_EQ(first, 't');

  std::istringstream source("abcdef");
  TesseraCommon::TSMemStream copy(&source, 4, true);
  std::string got;
  copy >> got;
  EXPECT_EQ(got, "abcd");
}

}  // namespace
