// PDFPfuTimeStamp: a time-stamp token from the PFU time-stamp service.
//
// The client hands the whole data to the service's own library, which
// hashes it with SHA-512 and answers with a token of at most 5000 bytes.
//
//   PDF_Sealmark::PDFPfuTimeStamp pfu("account", "secret");
//   std::vector<unsigned char> token;
//   if (pfu.LeImplementts(token, data, {}, {})) { ... }
//
// The library, libtslib.so, is loaded by name on first use, so the platform's
// library search decides which file serves (LD_LIBRARY_PATH, the cache, the
// default directories); without it LeImplementts answers false.  Each
// token is a login, a request and a logout; a token from a session whose
// logout fails is not delivered.
// Copies share one implementation object, which the last of them deletes.
#ifndef PDFSEALMARK_PDFPFUTIMESTAMP_H
#define PDFSEALMARK_PDFPFUTIMESTAMP_H

#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/TimeStamp.h"

namespace PDF_Sealmark {

class PDFPfuTimeStampImpl;

class PDFSEALMARK_API PDFPfuTimeStamp : public PDF_Vellum::TimeStamp {
 public:
  // user and password: of the account at the service.
  PDFPfuTimeStamp(const std::string& user, const std::string& password);
  PDFPfuTimeStamp(const PDFPfuTimeStamp& other);
  ~PDFPfuTimeStamp() override;
  PDFPfuTimeStamp& operator=(const PDFPfuTimeStamp& other);

  // Does nothing.
  void OnImplementts() const override;
  // digest and nonce aren't read.
  bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                     const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const override;

  // Lends the implementation object; null only if it couldn't be made.
  PDFPfuTimeStampImpl* getPfuTimeStampImpl() const { return impl_; }

 private:
  PDFPfuTimeStampImpl* impl_;
  long* shareCount_;  // facades that share impl_; null with impl_
};

}  // namespace PDF_Sealmark

#endif
