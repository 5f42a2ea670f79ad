// Contract: any bytes, as the time-stamp token of a signature or as the
// token of a document time stamp, give an answer and nothing worse.  The
// template (fuzz/data/timestamped.pdf) holds a signature with a time stamp
// and a document time stamp; each input replaces both tokens.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFDocumentCheck.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"

namespace {

struct Template {
  std::vector<unsigned char> pdf;
  std::unique_ptr<PDF_Vellum::PDFDocument> doc;
  std::unique_ptr<PDF_Folio::CForm> form;
  PDF_Sealmark::PDFSealmarkVerify signature;  // the first field, parsed once
  std::size_t slot = 0, slotLength = 0;       // the document time stamp's hex /Contents
};

Template& theTemplate() {
  static Template* t = [] {
    auto* made = new Template;
    std::ifstream in(SEALMARK_FUZZ_DATA "/timestamped.pdf", std::ios::binary);
    made->pdf.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    made->doc = PDF_Vellum::PDFDocument::openMemory(made->pdf, "");
    made->form.reset(new PDF_Folio::CForm(made->doc.get()));
    const std::string text(made->pdf.begin(), made->pdf.end());
    const std::size_t at = text.rfind("/Contents<");
    if (!made->doc || made->form->getSigFields().size() != 2 || at == std::string::npos) {
      std::fprintf(stderr, "bad template\n");
      std::abort();
    }
    made->signature.parse(made->form->getSigFields()[0]);
    made->slot = at + 10;
    made->slotLength = text.find('>', made->slot) - made->slot;
    return made;
  }();
  return *t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Template& t = theTemplate();
  // The signature's token, as parse would have kept it.
  PDF_Sealmark::PDFSealmarkVerifyImpl& v = *t.signature.getImpl();
  v.tsToken.assign(data, data + size);
  PKCS7_free(v.tsPkcs7);
  const unsigned char* p = data;
  v.tsPkcs7 = size ? d2i_PKCS7(nullptr, &p, static_cast<long>(size)) : nullptr;
  v.tsKind = v.tsPkcs7 ? PDF_Sealmark::kRfc3161TimeStamp : PDF_Sealmark::kServiceTimeStamp;
  const int status = t.signature.verifyTimeStamp();
  if (status < 0 || status > 3) std::abort();
  std::ostringstream token;
  t.signature.getTimeStampToken(token);
  t.signature.getTimeStampDate();
  t.signature.getTimeStampType();
  std::vector<PDF_Sealmark::PDFCert> certs;
  t.signature.getTimeStampCerts(certs);

  // The document time stamp's token, in its /Contents slot.
  std::vector<unsigned char> pdf = t.pdf;
  static const char kHex[] = "0123456789ABCDEF";
  for (std::size_t i = 0; i < t.slotLength; ++i) {
    const std::size_t byte = i / 2;
    const unsigned value = byte < size ? data[byte] : 0;
    pdf[t.slot + i] = static_cast<unsigned char>(kHex[(i % 2 ? value : value >> 4) & 15]);
  }
  PDF_Sealmark::PDFDocumentCheck::Result result;
  if (PDF_Sealmark::PDFDocumentCheck::checkMemory(std::move(pdf), "", result, nullptr, 1) &&
      (result.signatures.size() != 2 || result.signatures[1].intact < 0)) {
    std::abort();  // the field is there, signed, whatever its token
  }
  return 0;
}
