// Internal: the platform's view of a PDFCert's certificate, a certificate
// context, for the certificate dialog and the store operations; and the
// step that turns a certificate of a system store into a PDFCert whose key
// stays in the system.  Nothing in PDFCertImpl reads the context.
#ifndef PDFSEALMARK_WINSTORE_PDFCERTWINIMPL_H
#define PDFSEALMARK_WINSTORE_PDFCERTWINIMPL_H

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

  // Takes a certificate of the system into this object (one more reference
  // to context; the caller keeps its own) and into impl.  With withKey, and
  // when the platform has a private key for it, impl also gets an EVP_PKEY
  // whose private operations go to the platform (capi_rsa.h).  True also
  // when there turns out to be no key; false for a null context, a
  // certificate that can't be decoded, or a key that isn't RSA (then the
  // certificate and context stand, without key).
  bool setWinCert(PDFCertImpl* impl, platform::PCCERT_CONTEXT context, bool withKey);
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
