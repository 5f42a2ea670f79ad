// Internal: the state behind PDFSealmarkVerify.
#ifndef PDFSEALMARK_VERIFY_PDFSEALMARKVERIFYIMPL_H
#define PDFSEALMARK_VERIFY_PDFSEALMARKVERIFYIMPL_H

#include <openssl/pkcs7.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/outside/PDFFolio.h"
#include "pdfsealmark/outside/PDFVellum.h"
#include "pdfsealmark/outside/TesseraCommon.h"

namespace PDF_Sealmark {

// Where a signature's time-stamp token came from.
enum TimeStampKind : std::int32_t {
  kNoTimeStamp = 0,
  kRfc3161TimeStamp = 1,    // the token decoded as PKCS#7
  kServiceTimeStamp = 2,    // token bytes that aren't PKCS#7
  kPfuFilterTimeStamp = 3,  // /Filter begins with "/PFUP.TimeStamp"
};

// The four numbers of a /ByteRange, in file order.
struct ByteRange {
  long offset1 = -1;
  long length1 = -1;
  long offset2 = -1;
  long length2 = -1;

  // Both ranges non-negative, the second non-empty and not before the end
  // of the first.
  bool isValid() const;
  static ByteRange of(PDF_Vellum::PDFAcroform& sigDict);
};

class PDFSealmarkVerifyImpl : public TesseraCommon::TSRCObject {
 public:
  static constexpr std::uint32_t kClassId = 0x92297ea3u;

  PDFSealmarkVerifyImpl();

  std::uint32_t getClassId() const override { return kClassId; }
  icu::UnicodeString getClassName() const override;

  void clear();
  bool parse(PDF_Folio::CSigField* field);
  bool getHasSigned() const { return hasParsed && sigDict != nullptr; }
  bool verify() const;
  bool getContents(std::ostream& out) const;
  bool getCerts(std::vector<PDFCert>& certs) const;  // signer_info.cpp
  std::string getSignedDate() const;                 // signer_info.cpp
  bool getSignedVerPdf(std::ostream& out) const;
  bool getPermission(PDF_Folio::PL_VerifyDocPerm& permission, bool& isFieldMdp) const;
  // The time stamp over the signature value (timestamp_token.cpp).
  bool getHasTimeStamp() const;
  int verifyTimeStamp() const;
  bool getTimeStampToken(std::ostream& out) const;
  std::string getTimeStampDate() const;
  std::string getTimeStampType() const;
  bool getTimeStampCerts(std::vector<PDFCert>& certs) const;
  bool getSignatureDigest(std::vector<unsigned char>& digest, std::vector<unsigned char>& value) const;
  // The field's page as parse finds it; needs acroform and doc.
  std::int32_t findPage() const;

  // Fields, in this order; the owning pointers are freed only by clear().
  bool hasParsed = false;
  std::int32_t pageNum = 0;
  PDF_Folio::CSigField* sigPtr = nullptr;       // borrowed
  PDF_Vellum::PDFAcroform* acroform = nullptr;  // borrowed
  PDF_Vellum::PDFAcroform* sigDict = nullptr;   // owned
  PDF_Vellum::PDFDocument* doc = nullptr;       // borrowed
  PKCS7* pkcs7 = nullptr;                       // owned
  PKCS7* tsPkcs7 = nullptr;                     // owned
  std::vector<unsigned char> tsToken;
  std::int32_t tsKind = kNoTimeStamp;

 protected:
  ~PDFSealmarkVerifyImpl() override;

 private:
  void findTimeStampToken();
};

// What the /Reference transforms of a signature dictionary permit: /P of
// the last one with /TransformParams, and whether one is a FieldMDP.  False
// without a /Reference array.
bool readPermission(PDF_Vellum::PDFDictionary* sigDict, PDF_Vellum::PDFDocument* doc,
                    PDF_Folio::PL_VerifyDocPerm& permission, bool& isFieldMdp);

// The digest whose output has this many bytes: "sha1", "sha256", "sha384",
// "sha512"; null for any other length.  Where only a length tells the
// algorithm (an embedded digest, a time stamp's imprint).
const char* digestNameOfLength(std::size_t length);

// An embedded (adbe.pkcs7.sha1) signature carries the digest of the signed
// bytes as its content.  The content's length alone picks the algorithm.
bool checkContentDigest(PKCS7* p7, const unsigned char* signedBytes, std::size_t size);

}  // namespace PDF_Sealmark

#endif
