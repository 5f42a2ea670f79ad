#include "pdfsealmark/PDFSealmarkVersion.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <istream>

namespace PDF_Sealmark {

namespace {

constexpr char kMarker[] = "%%EOF\r\n";
constexpr std::size_t kMarkerLen = sizeof kMarker - 1;

}  // namespace

std::vector<int> findRevisionEnds(const char* data, std::size_t size) {
  std::vector<int> ends;
  if (size < kMarkerLen) return ends;
  const char* p = data;
  const char* const lastStart = data + size - kMarkerLen;  // a marker lies whole in the file
  // memchr finds the next '%' with vector instructions; only there is the
  // whole marker compared.
  while (p <= lastStart) {
    p = static_cast<const char*>(std::memchr(p, '%', static_cast<std::size_t>(lastStart - p) + 1));
    if (!p) break;
    if (std::memcmp(p, kMarker, kMarkerLen) == 0) {
      const std::size_t end = static_cast<std::size_t>(p - data) + kMarkerLen;
      // Offsets are ints: a revision ending past 2 GiB can't be told.
      if (end > static_cast<std::size_t>(INT_MAX)) break;
      ends.push_back(static_cast<int>(end));
    }
    ++p;
  }
  return ends;
}

PDFSealmarkVersion::PDFSealmarkVersion(PDF_Vellum::PDFDocument* doc) {
  std::istream* in = doc->getIstream();
  in->seekg(0, std::ios::end);
  const std::streamoff size = in->tellg();
  if (size < 0) throw std::ios_base::failure("cannot tell the size of the document");
  const auto n = static_cast<std::size_t>(size);
  fileBytes.resize(n);
  in->seekg(0, std::ios::beg);
  in->read(fileBytes.data(), size);
  revisionEnds = findRevisionEnds(fileBytes.data(), fileBytes.size());
}

PDFSealmarkVersion::PDFSealmarkVersion(const PDFSealmarkVersion& other) = default;
PDFSealmarkVersion& PDFSealmarkVersion::operator=(const PDFSealmarkVersion& other) = default;
PDFSealmarkVersion::~PDFSealmarkVersion() = default;

std::vector<int> PDFSealmarkVersion::getEnds() const { return revisionEnds; }

int PDFSealmarkVersion::getMaxNum() const { return static_cast<int>(revisionEnds.size()) - 1; }

bool PDFSealmarkVersion::getPdf(int n, std::ostream& out) {
  if (static_cast<unsigned int>(n) >= revisionEnds.size()) return false;
  if (revisionEnds.empty() || fileBytes.empty()) return false;
  out.write(fileBytes.data(), revisionEnds[static_cast<std::size_t>(n)]);
  return true;
}

}  // namespace PDF_Sealmark
