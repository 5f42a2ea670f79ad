// Internal: the Amano service client behind PDFAmanoTimeStamp.
//
// It holds the settings and gets each token through createAmanoToken: the
// service's library ("libasdtst.so") digests the data with SHA-512, opens
// the account file and asks the service.
#ifndef PDFSEALMARK_TIMESTAMP_PDFAMANOTIMESTAMPIMPL_H
#define PDFSEALMARK_TIMESTAMP_PDFAMANOTIMESTAMPIMPL_H

#include <string>
#include <vector>

namespace PDF_Sealmark {

class PDFAmanoTimeStampImpl {
 public:
  PDFAmanoTimeStampImpl(const std::string& serviceAddress, const std::string& accountFile,
                        const std::string& password);
  virtual ~PDFAmanoTimeStampImpl();
  PDFAmanoTimeStampImpl(const PDFAmanoTimeStampImpl&) = delete;
  PDFAmanoTimeStampImpl& operator=(const PDFAmanoTimeStampImpl&) = delete;

  // Empties token; with data and all three settings, a token from the
  // service.  True when token isn't empty.  digest and nonce aren't read.
  bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                     const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const;
  // Nothing.
  void OnImplementts() const {}

  const std::string& getServiceAddress() const { return serviceAddress; }
  const std::string& getAccountFile() const { return accountFile; }
  const std::string& getPassword() const { return password; }

 private:
  std::string serviceAddress;
  std::string accountFile;
  std::string password;
};

}  // namespace PDF_Sealmark

#endif
