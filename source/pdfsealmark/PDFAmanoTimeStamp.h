// PDFAmanoTimeStamp: a time-stamp token from the Amano time-stamp service.
//
// The client hands the whole data to the service's own library, which
// hashes it with SHA-512 and answers with a token of at most 12000 bytes.
//
//   PDF_Sealmark::PDFAmanoTimeStamp amano("tss.example:8080", "account.dat", "secret");
//   std::vector<unsigned char> token;
//   if (amano.LeImplementts(token, data, {}, {})) { ... }
//
// The library, libasdtst.so, is loaded by name on first use, so the platform's
// library search decides which file serves (LD_LIBRARY_PATH, the cache, the
// default directories); without it LeImplementts answers false.  The
// account file is looked for under its name, then beside
// libPDFSealmark27.so, then beside the executable.
// Copies share one implementation object, which the last of them deletes.
#ifndef PDFSEALMARK_PDFAMANOTIMESTAMP_H
#define PDFSEALMARK_PDFAMANOTIMESTAMP_H

#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/TimeStamp.h"

namespace PDF_Sealmark {

class PDFAmanoTimeStampImpl;

class PDFSEALMARK_API PDFAmanoTimeStamp : public PDF_Vellum::TimeStamp {
 public:
  // serviceAddress: as the service's library takes it; accountFile: name of
  // the account file; password: of that file.
  PDFAmanoTimeStamp(const std::string& serviceAddress, const std::string& accountFile, const std::string& password);
  PDFAmanoTimeStamp(const PDFAmanoTimeStamp& other);
  ~PDFAmanoTimeStamp() override;
  PDFAmanoTimeStamp& operator=(const PDFAmanoTimeStamp& other);

  // Does nothing.
  void OnImplementts() const override;
  // digest and nonce aren't read.
  bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                     const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const override;

  // Lends the implementation object; null only if it couldn't be made.
  PDFAmanoTimeStampImpl* getAmanoTimeStampImpl() const { return impl_; }

 private:
  PDFAmanoTimeStampImpl* impl_;
  long* shareCount_;  // facades that share impl_; null with impl_
};

}  // namespace PDF_Sealmark

#endif
