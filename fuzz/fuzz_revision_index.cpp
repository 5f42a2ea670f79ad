// Contract: any bytes may be scanned for revisions.  Invariants checked: the
// ends rise strictly, each lies within the input and closes "%%EOF\r\n"; when
// the bytes open as a document, the index over it agrees with the scan and
// writes exactly each revision's length.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <vector>

#include "pdfsealmark/PDFSealmarkVersion.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  const std::vector<int> ends = PDF_Sealmark::findRevisionEnds(bytes, size);
  int previous = 0;
  for (int end : ends) {
    if (end <= previous || static_cast<std::size_t>(end) > size || std::memcmp(bytes + end - 7, "%%EOF\r\n", 7) != 0) {
      std::abort();
    }
    previous = end;
  }
  auto doc = PDF_Vellum::PDFDocument::openMemory(std::vector<unsigned char>(data, data + size), "");
  if (!doc) return 0;
  PDF_Sealmark::PDFSealmarkVersion versions(doc.get());
  if (versions.getEnds() != ends) std::abort();
  for (int n = -1; n <= versions.getMaxNum() + 1; ++n) {
    std::ostringstream out;
    const bool written = versions.getPdf(n, out);
    const bool exists = n >= 0 && n <= versions.getMaxNum();
    if (written != exists || (exists && out.str().size() != static_cast<std::size_t>(ends[n]))) std::abort();
  }
  return 0;
}
