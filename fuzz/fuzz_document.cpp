// Contract: any bytes may be opened as a PDF document; every signature field
// found is parsed, verified and asked for its contents.  The worst outcome is
// a refusal or a false answer: no crash, no leak, no hang.
#include <cstdint>
#include <ostream>
#include <streambuf>
#include <vector>

#include "pdfsealmark/PDFSealmarkVerify.h"

namespace {
struct NullBuf : std::streambuf {
  int_type overflow(int_type c) override { return c; }
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto doc = PDF_Vellum::PDFDocument::openMemory(std::vector<unsigned char>(data, data + size), "");
  if (!doc) return 0;
  NullBuf nullBuf;
  std::ostream sink(&nullBuf);
  PDF_Folio::CForm form(doc.get());
  for (PDF_Folio::CSigField* field : form.getSigFields()) {
    PDF_Sealmark::PDFSealmarkVerify v;
    v.parse(field);
    v.verify();
    v.getContents(sink);
  }
  return 0;
}
