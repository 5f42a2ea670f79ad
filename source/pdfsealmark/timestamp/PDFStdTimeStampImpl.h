// Internal: the RFC 3161 client behind PDFStdTimeStamp.
//
// It lays out the TimeStampReq from a fixed template (SHA-1 or SHA-512
// imprint, an 8-byte nonce, certReq TRUE), posts it over the HTTP transport
// and cuts the token out of the TimeStampResp with a small reader of its
// own.  The token isn't checked here.
#ifndef PDFSEALMARK_TIMESTAMP_PDFSTDTIMESTAMPIMPL_H
#define PDFSEALMARK_TIMESTAMP_PDFSTDTIMESTAMPIMPL_H

#include <cstddef>
#include <string>
#include <vector>

namespace PDF_Sealmark {

class PDFStdTimeStampImpl {
 public:
  // The largest token accepted.
  static constexpr std::size_t kMaxToken = 20480;

  PDFStdTimeStampImpl(const std::string& url, const std::string& user, const std::string& password, int hashType);
  virtual ~PDFStdTimeStampImpl();
  PDFStdTimeStampImpl(const PDFStdTimeStampImpl&) = delete;
  PDFStdTimeStampImpl& operator=(const PDFStdTimeStampImpl&) = delete;

  bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                     const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const;
  void OnImplementts() const;

  // The digest length LeImplementts takes, and the one OnImplementts sends.
  static std::size_t demandedDigestLength(int hashType);
  static std::size_t probeDigestLength(int hashType);

  // Base64 of "user:password" on one line, as an Authorization header takes
  // it.
  static std::string basicCredentials(const std::string& user, const std::string& password);

  // The TimeStampReq for a digest of 20 (SHA-1) or 64 (SHA-512) bytes and
  // the first 8 bytes of nonce; empty for any other digest length or a
  // shorter nonce.
  static std::vector<unsigned char> buildRequest(const std::vector<unsigned char>& digest,
                                                 const std::vector<unsigned char>& nonce);
  // One exchange with the server; credentials is null or the Base64 text.
  // The token, or empty on any failure.
  static std::vector<unsigned char> requestToken(std::vector<unsigned char> digest, std::vector<unsigned char> nonce,
                                                 const char* url, const char* credentials);
  // Copies the token of a TimeStampResp into out.  The token's length, or 0
  // or less: -1 not a TimeStampResp, -2 the status isn't granted (0) or
  // grantedWithMods (1), -3 the token exceeds capacity, -9 the data end too
  // early; 0 when no byte follows the status.
  static long extractToken(const unsigned char* response, std::size_t length, unsigned char* out,
                           std::size_t capacity);

  const std::string& getUrl() const { return url; }
  const std::string& getUser() const { return user; }
  const std::string& getPassword() const { return password; }
  int getHashType() const { return hashType; }

 private:
  std::string url;
  std::string user;
  std::string password;
  int hashType;
};

}  // namespace PDF_Sealmark

#endif
