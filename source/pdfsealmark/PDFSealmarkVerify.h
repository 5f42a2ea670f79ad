// Examining one signature field of an open document.
//
// Hand a signature field to parse(), then ask: is it signed, does the
// signature check out over the bytes its /ByteRange names, which page is it
// on, what are the raw /Contents.
//
//   std::string why;
//   auto doc = PDF_Vellum::PDFDocument::open("signed.pdf", "", &why);
//   PDF_Folio::CForm form(doc.get());
//   for (PDF_Folio::CSigField* field : form.getSigFields()) {
//     PDF_Sealmark::PDFSealmarkVerify v;
//     v.parse(field);
//     std::cout << field->getName() << ": "
//               << (!v.getHasSigned() ? "unsigned" : v.verify() ? "intact" : "NOT intact") << "\n";
//   }
//
// Copies share one implementation object: after b = a, a.parse(f) is seen
// through b as well, and a.clear() clears both.  The document must outlive
// every question; verify() moves the read position of the document's stream,
// so no two questions may run at once on one document.
#ifndef PDFSEALMARK_PDFSEALMARKVERIFY_H
#define PDFSEALMARK_PDFSEALMARKVERIFY_H

#include <ostream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/PDFFolio.h"
#include "pdfsealmark/outside/PDFVellum.h"
#include "pdfsealmark/outside/TesseraCommon.h"

namespace PDF_Sealmark {

class PDFSealmarkVerifyImpl;

class PDFSEALMARK_API PDFSealmarkVerify {
 public:
  PDFSealmarkVerify();
  PDFSealmarkVerify(const PDFSealmarkVerify& other);
  virtual ~PDFSealmarkVerify();
  // Shares other's implementation object; copies nothing.
  void operator=(const PDFSealmarkVerify& other);

  void clear();
  // Reads the field: its signature dictionary, the PKCS#7 object in
  // /Contents, a time-stamp token, the page.  True when the field was read
  // to the end, signed or not.  The field is borrowed and must stay alive.
  bool parse(PDF_Folio::CSigField* field);

  // The field has a signature dictionary whose /Contents decoded as PKCS#7.
  bool getHasSigned() const;
  // Page of the field, from 1; 0 when none is known.
  int getPageNum() const;
  // These lend what parse stored, valid until the next clear or parse.
  PDF_Folio::CSigField* getSigPtr() const;
  PDF_Vellum::PDFAcroform* getAcroform() const;
  PDF_Vellum::PDFAcroform* getSigDict() const;
  PDF_Vellum::PDFDocument* getDoc() const;

  // True when every signer info was made by the key of a certificate in the
  // PKCS#7 object, over the bytes named by /ByteRange.  Dates, revocation
  // and trust of the certificates are not looked at.
  bool verify() const;
  // Writes the raw bytes of /Contents, padding included.
  bool getContents(std::ostream& out) const;

  // Writes the file from the start of the first signed range to the end of
  // the second: the revision this signature signed, its own /Contents
  // included.  Moves the document's read position.
  bool getSignedVerPdf(std::ostream& out) const;
  // What the signature lets change afterwards, from its /Reference entries:
  // the last /TransformParams /P found (0 when none), and whether an entry
  // without /P names /FieldMDP as its method.  False, with both arguments
  // untouched, when there is no /Reference array.
  bool getPermission(PDF_Folio::PL_VerifyDocPerm& permission, bool& isFieldMdp) const;

  // Appends the certificates the signature carries, version 3 ones first,
  // once per signer info.  Works after any parse, also one that failed late.
  bool getCerts(std::vector<PDFCert>& certs) const;
  // The signing time of the signed attributes as "YYYYMMDDHHMMSSZ", empty
  // when there is none.
  std::string getSignedDate() const;

  // The time stamp carried over the signature value (an unsigned attribute
  // of a signer info): an RFC 3161 token, or a token of the Amano or PFU
  // service, read by that service's library when it can be loaded.
  bool getHasTimeStamp() const;
  // 0 holds (its imprint is the digest of the first signer info's signature
  // value and a certificate of the token verifies it), 1 does not hold,
  // 2 not for this signature, 3 nothing could be concluded (none, damaged,
  // or no library for it).  Neither the validity nor the trust of the time
  // stamp authority is looked at: see getTimeStampCerts.
  int verifyTimeStamp() const;
  // Writes the token's DER bytes.
  bool getTimeStampToken(std::ostream& out) const;
  // The token's time as the token gives it (an RFC 3161 GeneralizedTime);
  // a closed service's own text; empty when unknown.
  std::string getTimeStampDate() const;
  // "SHA-1(160bit)", "SHA-2(256bit)", "SHA-2(384bit)", "SHA-2(512bit)" or
  // "UNKNOWN", from the imprint's length; empty for closed-service tokens.
  std::string getTimeStampType() const;
  // The certificates of the token.  An RFC 3161 token appends to certs;
  // for a closed-service token certs is emptied first.
  bool getTimeStampCerts(std::vector<PDFCert>& certs) const;
  // digest's size picks the algorithm (32, 48, 64 bytes: SHA-256/384/512;
  // otherwise it becomes 20 and SHA-1); it receives the digest of the first
  // signer info's signature value, and value a copy of that value.
  bool getSignatureDigest(std::vector<unsigned char>& digest, std::vector<unsigned char>& value) const;

  // Lends the implementation object; null only if it couldn't be made.
  PDFSealmarkVerifyImpl* getImpl() const { return impl_.get(); }

 private:
  TesseraCommon::TSSmartPtr<PDFSealmarkVerifyImpl> impl_;
};

}  // namespace PDF_Sealmark

#endif
