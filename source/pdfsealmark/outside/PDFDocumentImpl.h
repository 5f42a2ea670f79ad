// Internal: the qpdf side of PDFDocument, shared by the form-field code.
#ifndef PDFSEALMARK_OUTSIDE_PDFDOCUMENTIMPL_H
#define PDFSEALMARK_OUTSIDE_PDFDOCUMENTIMPL_H

#include <map>
#include <memory>
#include <optional>
#include <tuple>
#include <vector>

#include <qpdf/Buffer.hh>
#include <qpdf/InputSource.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFObjectHandle.hh>
#include <qpdf/QPDFXRefEntry.hh>

#include "pdfsealmark/outside/PDFVellum.h"

namespace PDF_Vellum {

struct PDFDocument::Impl {
  Impl();
  ~Impl();

  // Converts a qpdf object into ours.  Nested indirect references stay
  // PDFIndirect; direct containers are converted recursively.
  PDFSmartPtr<PDFObject> convert(QPDFObjectHandle h, bool top = false);
  // Reads object (num, gen) with its strings as they stand in the file,
  // bypassing decryption.  A null object when that can't be done.
  QPDFObjectHandle readAsStored(int num, int gen);
  // The object (num, gen), converted once and cached; never null.
  PDFObject* object(int num, int gen, bool decrypt);
  void loadPages();

  std::unique_ptr<QPDF> qpdf = std::make_unique<QPDF>();
  std::vector<unsigned char> rebuilt;  // what qpdf reads when the xref chain is broken
  std::vector<unsigned char> memory;  // the bytes, when opened from memory
  std::unique_ptr<std::istream> stream;
  std::unique_ptr<std::streambuf> memoryBuf;
  std::string path;  // the file, when opened from a path
  std::shared_ptr<InputSource> rawInput;  // for reading objects as stored
  std::unique_ptr<Buffer> rawBuffer;
  std::map<QPDFObjGen, QPDFXRefEntry> xref;
  bool xrefLoaded = false;
  std::uint64_t fileSize = 0;
  bool encrypted = false;

  std::map<std::tuple<int, int, bool>, PDFSmartPtr<PDFObject>> objects;
  bool pagesLoaded = false;
  std::vector<std::unique_ptr<PDFPage>> pages;
  std::map<std::pair<int, int>, int> annotPage;
  PDFSmartPtr<PDFDictionary> root;
  bool rootLoaded = false;
};

}  // namespace PDF_Vellum

#endif
