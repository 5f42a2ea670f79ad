// Contract: any bytes may be opened as a PDF document; every signature field
// found is parsed, verified and asked for its contents, its signed revision
// and its permissions.  The worst outcome is
// a refusal or a false answer: no crash, no leak, no hang.  The bytes are
// opened twice, from memory and as a file (which qpdf reads through our own
// paged source), and both readings find the same signature fields.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkVerify.h"

namespace {
struct NullBuf : std::streambuf {
  int_type overflow(int_type c) override { return c; }
};

// Every signature field's byte range, after the same questions of each.
std::vector<long> examine(PDF_Vellum::PDFDocument& doc) {
  std::vector<long> ranges;
  NullBuf nullBuf;
  std::ostream sink(&nullBuf);
  PDF_Folio::CForm form(&doc);
  for (PDF_Folio::CSigField* field : form.getSigFields()) {
    PDF_Sealmark::PDFSealmarkVerify v;
    v.parse(field);
    v.verify();
    v.getContents(sink);
    PDF_Folio::PL_VerifyDocPerm permission;
    bool fieldMdp = false;
    v.getPermission(permission, fieldMdp);
    // A hostile range may name gigabytes of zeros to write; that is slow,
    // not unsafe, so keep the runs short.
    long o1 = 0, l1 = 0, o2 = 0, l2 = 0;
    if (v.getSigDict()) v.getSigDict()->getByteRange(o1, l1, o2, l2);
    if (o2 + l2 - o1 < (64L << 20)) v.getSignedVerPdf(sink);
    ranges.insert(ranges.end(), {o1, l1, o2, l2});
  }
  return ranges;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto doc = PDF_Vellum::PDFDocument::openMemory(std::vector<unsigned char>(data, data + size), "");
  const int fd = ::memfd_create("fuzz.pdf", MFD_CLOEXEC);
  if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size)) std::abort();
  auto file = PDF_Vellum::PDFDocument::open("/proc/self/fd/" + std::to_string(fd), "");
  if (!doc != !file) std::abort();
  if (doc && examine(*doc) != examine(*file)) std::abort();
  file.reset();
  ::close(fd);
  return 0;
}
