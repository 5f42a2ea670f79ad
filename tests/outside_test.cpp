// The PDF object layer over qpdf and the common objects, on files signed by
// PDFSigner.  The form-field walk is seen through the README example test.
#include <gtest/gtest.h>

#include <random>

#include <qpdf/Buffer.hh>
#include <qpdf/BufferInputSource.hh>

#include "pdfsealmark/outside/PDFFolio.h"
#include "pdfsealmark/outside/PDFVellum.h"
#include "pdfsealmark/outside/TesseraCommon.h"
#include "pdfsealmark/outside/paged_file_source.h"
#include "support/mutate.h"
#include "support/test_util.h"

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

// The paged file source must read as qpdf's memory source reads the same
// bytes, also across its page edges, through runs of line ends that
// straddle them, past the end and after a refused seek.
TEST(PagedFileSource, ReadsAsQpdfReadsTheSameBytesInMemory) {
  std::mt19937 random(7);
  Bytes content(3 * 32768 + 1000);
  for (auto& b : content) {
    const unsigned r = random() % 16;
    b = r == 0 ? '\r' : r == 1 ? '\n' : static_cast<unsigned char>('a' + r);
  }
  // A long run of line ends over the first page edge, and the file ending
  // in one.
  for (std::size_t i = 32760; i < 32780; ++i) content[i] = (i % 2) ? '\r' : '\n';
  content.back() = '\n';
  sealtest::TempDir dir;
  PagedFileSource paged(dir.write("f.pdf", content));
  Buffer buffer(content.data(), content.size());
  BufferInputSource memory("memory", &buffer);

  const qpdf_offset_t size = static_cast<qpdf_offset_t>(content.size());
  for (int step = 0; step < 20000; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    switch (random() % 6) {
      case 0: {  // a seek, anywhere near the pages' edges or the end
        const qpdf_offset_t to = static_cast<qpdf_offset_t>(random() % (size + 64)) - 8;
        const int whence = std::array<int, 3>{SEEK_SET, SEEK_CUR, SEEK_END}[random() % 3];
        const qpdf_offset_t by = whence == SEEK_SET ? to : whence == SEEK_CUR ? to - memory.tell() : to - size;
        bool pagedThrew = false, memoryThrew = false;
        try { paged.seek(by, whence); } catch (const std::exception&) { pagedThrew = true; }
        try { memory.seek(by, whence); } catch (const std::exception&) { memoryThrew = true; }
        ASSERT_EQ(pagedThrew, memoryThrew);
        // qpdf's source keeps the refused offset; ours keeps the old one.
        if (memoryThrew) memory.seek(paged.tell(), SEEK_SET);
        break;
      }
      case 1:
      case 2: {
        const std::size_t want = random() % 3 == 0 ? random() % 70000 : random() % 300;
        std::string a(want, '\0'), b(want, '\0');
        const std::size_t got = paged.read(a.data(), want);
        ASSERT_EQ(got, memory.read(b.data(), want));
        ASSERT_EQ(a.substr(0, got), b.substr(0, got));
        ASSERT_EQ(paged.getLastOffset(), memory.getLastOffset());
        break;
      }
      case 3:
        ASSERT_EQ(paged.findAndSkipNextEOL(), memory.findAndSkipNextEOL());
        break;
      case 4:
        paged.unreadCh('x');
        memory.unreadCh('x');
        break;
      case 5: {  // qpdf's own buffered reading over each
        char a = 0, b = 0;
        paged.fastTell();
        memory.fastTell();
        ASSERT_EQ(paged.fastRead(a), memory.fastRead(b));
        ASSERT_EQ(a, b);
        break;
      }
    }
    ASSERT_EQ(paged.tell(), memory.tell());
  }
  EXPECT_THROW(PagedFileSource(dir.file("missing.pdf")), std::runtime_error);
}

}  // namespace

