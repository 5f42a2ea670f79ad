// Internal: the PFU service client behind PDFPfuTimeStamp.
//
// It holds the settings and gets each token through createPfuToken: the
// service's library ("libtslib.so") digests the data with SHA-512, logs in,
// asks for the token and logs out.
#ifndef PDFSEALMARK_TIMESTAMP_PDFPFUTIMESTAMPIMPL_H
#define PDFSEALMARK_TIMESTAMP_PDFPFUTIMESTAMPIMPL_H

#include <string>
#include <vector>

namespace PDF_Sealmark {

class PDFPfuTimeStampImpl {
 public:
  PDFPfuTimeStampImpl(const std::string& user, const std::string& password);
  virtual ~PDFPfuTimeStampImpl();
  PDFPfuTimeStampImpl(const PDFPfuTimeStampImpl&) = delete;
  PDFPfuTimeStampImpl& operator=(const PDFPfuTimeStampImpl&) = delete;

  // Empties token; with data, user and password, a token from the service.
  // True when token isn't empty.  digest and nonce aren't read.
  bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                     const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const;
  // Nothing.
  void OnImplementts() const {}

  const std::string& getUser() const { return user; }
  const std::string& getPassword() const { return password; }

 private:
  std::string user;
  std::string password;
};

}  // namespace PDF_Sealmark

#endif
