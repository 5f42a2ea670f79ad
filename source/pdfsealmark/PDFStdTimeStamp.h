// PDFStdTimeStamp: a time-stamp token from an RFC 3161 server over HTTP.
//
// The caller digests the data (SHA-1 or SHA-512) and makes the nonce; the
// client sends a TimeStampReq with them (certReq set), optionally with Basic
// authorization, and hands back the TimeStampToken of the answer as DER.
// It doesn't check the token: read it back with PDFSealmarkVerify, or with
// OpenSSL's TS functions.
//
//   PDF_Sealmark::PDFStdTimeStamp tsa("https://tsa.example/tsr", "user", "secret",
//                                     PDF_Sealmark::PDFStdTimeStamp::kSha512);
//   std::vector<unsigned char> token;
//   // digest: the 64-byte SHA-512 of the data; nonce: at least 8 bytes, of
//   // which the first 8 are sent as they stand.
//   if (tsa.LeImplementts(token, data, digest, nonce)) { /* token holds DER */ }
//
// The exchange goes over WinInet (libcurl here: http, https, proxies from
// the environment) and, should that fail, over a plain socket (http only).
// Copies share one implementation object, which the last of them deletes.
#ifndef PDFSEALMARK_PDFSTDTIMESTAMP_H
#define PDFSEALMARK_PDFSTDTIMESTAMP_H

#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/TimeStamp.h"

namespace PDF_Sealmark {

class PDFStdTimeStampImpl;

class PDFSEALMARK_API PDFStdTimeStamp : public PDF_Vellum::TimeStamp {
 public:
  // Hash types: the digest length LeImplementts takes.  Any other value
  // takes 20-byte digests, as kSha1.
  enum HashType { kSha1 = 1, kSha512 = 2 };

  // url: of the server; user and password: for Basic authorization, sent
  // only when both are non-empty.  An empty url makes every request fail.
  PDFStdTimeStamp(const std::string& url, const std::string& user, const std::string& password, int hashType);
  PDFStdTimeStamp(const PDFStdTimeStamp& other);
  ~PDFStdTimeStamp() override;
  PDFStdTimeStamp& operator=(const PDFStdTimeStamp& other);

  // A probe: asks the server for a token over an all-zero digest, without
  // authorization, and writes it to "response.tsr" in the current
  // directory (deleting an older one first).
  void OnImplementts() const override;
  // data isn't read.  False, with token empty, when the URL is empty, the
  // nonce has fewer than 8 bytes, the digest hasn't the length of the hash
  // type, or the server gave no token.
  bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                     const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const override;

  // Lends the implementation object; null only if it couldn't be made.
  PDFStdTimeStampImpl* getStdTimeStampImpl() const { return impl_; }

 private:
  PDFStdTimeStampImpl* impl_;
  long* shareCount_;  // facades that share impl_; null with impl_
};

}  // namespace PDF_Sealmark

#endif
