// Contract: any bytes may be opened as a PDF document; every signature field
// found is parsed, verified and asked for its contents, its signed revision
// and its permissions.  The worst outcome is
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
    PDF_Folio::PL_VerifyDocPerm permission;
    bool fieldMdp = false;
    v.getPermission(permission, fieldMdp);
    // A hostile range may name gigabytes of zeros to write; that is slow,
    // not unsafe, so keep the runs short.
    long o1 = 0, l1 = 0, o2 = 0, l2 = 0;
    if (v.getSigDict()) v.getSigDict()->getByteRange(o1, l1, o2, l2);
    if (o2 + l2 - o1 < (64L << 20)) v.getSignedVerPdf(sink);
  }
  return 0;
}
