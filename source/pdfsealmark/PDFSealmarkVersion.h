// The revisions of a document, found by their end-of-file markers.
//
// Every incremental update of a PDF ends with its own "%%EOF".  The index
// copies the document's bytes once, finds each "%%EOF\r\n" and can then write
// out the file as it stood at the end of any revision.  It reads no PDF
// object and keeps nothing of the document: once built it lives by itself.
//
//   PDF_Sealmark::PDFSealmarkVersion versions(doc.get());
//   for (int n = 0; n <= versions.getMaxNum(); ++n) {
//     std::ofstream out("rev" + std::to_string(n) + ".pdf", std::ios::binary);
//     versions.getPdf(n, out);
//   }
//
// Only the seven bytes "%%EOF\r\n" end a revision; "%%EOF" followed by a line
// feed alone, a carriage return alone or the end of the file does not.
#ifndef PDFSEALMARK_PDFSEALMARKVERSION_H
#define PDFSEALMARK_PDFSEALMARKVERSION_H

#include <ostream>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/PDFVellum.h"

namespace PDF_Sealmark {

class PDFSEALMARK_API PDFSealmarkVersion {
 public:
  // Reads the whole document through its stream (moving its read position)
  // and scans it.  The document must be open.
  explicit PDFSealmarkVersion(PDF_Vellum::PDFDocument* doc);
  PDFSealmarkVersion(const PDFSealmarkVersion& other);
  PDFSealmarkVersion& operator=(const PDFSealmarkVersion& other);
  ~PDFSealmarkVersion();

  // For each revision, oldest first, the offset just behind its marker: the
  // length of the file as it stood then.
  std::vector<int> getEnds() const;
  // Number of the latest revision; -1 when there is none.
  int getMaxNum() const;
  // Writes revision n (the file up to and including its marker).  False for
  // a revision that doesn't exist.
  bool getPdf(int n, std::ostream& out);

 private:
  std::vector<char> fileBytes;
  std::vector<int> revisionEnds;
};

// Offsets just behind each "%%EOF\r\n" of data, in order.  Exposed for the
// tests and the benchmark.
PDFSEALMARK_API std::vector<int> findRevisionEnds(const char* data, std::size_t size);

}  // namespace PDF_Sealmark

#endif
