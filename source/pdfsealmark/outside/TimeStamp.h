// PDF_Vellum::TimeStamp: what a time-stamp client looks like to the PDF
// object library.
//
// The toolkit holds any client through this base and calls its two
// operations: LeImplementts for a token over the caller's data, digest and
// nonce, OnImplementts for a client-specific side operation.  The classes
// that implement them are PDF_Sealmark::PDFStdTimeStamp (RFC 3161 over
// HTTP), PDFAmanoTimeStamp and PDFPfuTimeStamp.
//
//   PDF_Sealmark::PDFStdTimeStamp tsa("http://tsa.example/", "", "", PDF_Sealmark::PDFStdTimeStamp::kSha512);
//   const PDF_Vellum::TimeStamp& client = tsa;
//   std::vector<unsigned char> token;
//   if (client.LeImplementts(token, signatureValue, sha512OfSignatureValue, nonce)) { ... }
//
// The base keeps what its constructor was given: whether a closed service
// stands behind the client (bool) or which digest the caller hands in (int).
#ifndef PDFSEALMARK_OUTSIDE_TIMESTAMP_H
#define PDFSEALMARK_OUTSIDE_TIMESTAMP_H

#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Vellum {

class PDFSEALMARK_API TimeStamp {
 public:
  // A client of a service that hashes the data itself.
  explicit TimeStamp(bool service);
  // A client that takes the caller's digest, of the given hash type.
  explicit TimeStamp(int hashType);
  TimeStamp(const TimeStamp& other);
  TimeStamp& operator=(const TimeStamp& other);

  virtual void OnImplementts() const = 0;
  // token: out, emptied first.  data: the bytes to stamp, whole.  digest and
  // nonce: made by the caller, for the clients that take them.  True when a
  // token was obtained.
  virtual bool LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                             const std::vector<unsigned char>& digest,
                             const std::vector<unsigned char>& nonce) const = 0;
  virtual ~TimeStamp();

  bool isService() const { return service_; }
  // The int of the constructor; 0 for a service client.
  int getHashType() const { return hashType_; }

 private:
  bool service_;
  int hashType_;
};

}  // namespace PDF_Vellum

#endif
