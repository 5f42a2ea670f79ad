// Internal: the platform's view of a PDFCert's certificate, a certificate
// context, for the certificate dialog and the store operations.  Nothing in
// PDFCertImpl reads it.
#ifndef PDFSEALMARK_CERT_PDFCERTWINIMPL_H
#define PDFSEALMARK_CERT_PDFCERTWINIMPL_H

#include <cstdint>

#include "pdfsealmark/outside/TesseraCommon.h"
#include "pdfsealmark/platform/cert_context.h"

namespace PDF_Sealmark {

class PDFCertImpl;

class PDFCertWinImpl : public TesseraCommon::TSRCObject {
 public:
  static constexpr std::uint32_t kClassId = 0xD0886C75u;

  PDFCertWinImpl() = default;

  std::uint32_t getClassId() const override { return kClassId; }
  icu::UnicodeString getClassName() const override;

  bool hasContext() const { return context != nullptr; }
  platform::PCCERT_CONTEXT getContext() const { return context; }

  // Makes context from the certificate that impl holds (replacing the one
  // held).  False when impl holds none or it can't be encoded; then the
  // context held stays.
  bool syncWinCert(PDFCertImpl* impl);
  // Shows the platform's certificate dialog for context; nothing without a
  // context or where the platform has no dialog.
  void showDialog(void* parent) const;

  // One reference to the platform's context, or null.
  platform::PCCERT_CONTEXT context = nullptr;

 protected:
  ~PDFCertWinImpl() override;
};

}  // namespace PDF_Sealmark

#endif
