// Signing a PDF: an incremental update that adds one signature.
//
// The original bytes stay as they are; the signer appends an update that
// holds a signature field (a new one, or an existing empty field chosen by
// name) with an invisible widget, and a signature dictionary whose
// /Contents is a CMS SignedData over the bytes its /ByteRange names.  Files
// with classic or stream cross-references are both handled, and so are
// encrypted files opened with their password: the new strings are encrypted
// with the document's key, except /Contents, which ISO 32000 leaves clear.
//
//   std::ifstream in("signer.p12", std::ios::binary);
//   PDF_Sealmark::PDFCert signer;
//   signer.loadPkcs12(in, "secret");
//   PDF_Sealmark::PDFSigner::Options options;
//   options.reason = "Approved";
//   std::string why;
//   if (!PDF_Sealmark::PDFSigner::signFile("in.pdf", "out.pdf", signer, options, &why))
//     std::cerr << why << "\n";
//
// The key is whatever EVP_PKEY the PDFCert lends (getPKey): a key read from
// PKCS#12, or one whose private operations go to a token.
//
// Results, not exceptions: every call answers true or false, and on false
// `why` (when not null) holds one line saying what was wrong.  A file is
// written to a temporary name beside the target and renamed into place, so
// a failed call never leaves a half-written target.
#ifndef PDFSEALMARK_PDFSIGNER_H
#define PDFSEALMARK_PDFSIGNER_H

#include <cstddef>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/PDFStdTimeStamp.h"

namespace PDF_Sealmark {

class PDFSEALMARK_API PDFSigner {
 public:
  using Bytes = std::vector<unsigned char>;

  enum class Digest { kSha256, kSha1, kSha384, kSha512 };
  enum class SubFilter {
    kPkcs7Detached,  // adbe.pkcs7.detached
    kCadesDetached,  // ETSI.CAdES.detached, with a signing-certificate-v2 attribute
    kPkcs7Sha1,      // adbe.pkcs7.sha1: the SHA-1 of the ranges is the signed content
  };

  struct PDFSEALMARK_API Options {
    Options();
    ~Options();
    Options(const Options&);
    Options& operator=(const Options&);

    // An existing field without /V to sign, by its full name ("A.B"); a
    // name that no field has makes a new field of that name.  Empty: a new
    // field "SignatureN" with the lowest free N.
    std::string fieldName;
    // Page of a new field's widget, from 1.
    int page = 1;
    Digest digest = Digest::kSha256;
    SubFilter subFilter = SubFilter::kPkcs7Detached;
    // 0: an approval signature.  1, 2 or 3: a certification signature with
    // a DocMDP transform whose /P is this number.
    int certify = 0;
    // /Reason and /Location (UTF-8; written as PDF text strings); empty
    // leaves them out.
    std::string reason;
    std::string location;
    // /M and the signing-time attribute, as "YYYYMMDDHHMMSSZ"; empty: now.
    std::string signingTime;
    // Further certificates to embed after the signer's (the chain).
    std::vector<PDFCert> extraCertificates;
    // A signature time stamp over the signature value, placed as the
    // unsigned attribute id-aa-timeStampToken: from an RFC 3161 server
    // (PDFStdTimeStamp), or from the Amano or PFU service, whose clients
    // take the signature value itself.  Borrowed; null for none.
    const PDF_Vellum::TimeStamp* timeStamp = nullptr;
    // Bytes reserved for /Contents (the hex string is twice as long).
    // 0: sized from a trial signature.
    std::size_t reservedBytes = 0;
    // Password of an encrypted input (user or owner).
    std::string documentPassword;
  };

  // Signs `input` (the bytes of a PDF) and gives the signed file in
  // `output`.  False, with output empty, when the document can't be read
  // or opened with the password, the certificate has no private key, the
  // named field is signed already or isn't a signature field, the page
  // doesn't exist, or the time-stamp authority gives no token.
  static bool sign(const Bytes& input, Bytes& output, const PDFCert& signer, const Options& options,
                   std::string* why);
  // The same for files; the output replaces `outputPath` atomically.
  static bool signFile(const std::string& inputPath, const std::string& outputPath, const PDFCert& signer,
                       const Options& options, std::string* why);

  // Adds a document time stamp (/Type /DocTimeStamp, /SubFilter
  // /ETSI.RFC3161): /Contents is a time-stamp token over the digest of the
  // byte ranges, taken with the time-stamp client's hash.  Of the options,
  // fieldName, page, reservedBytes and documentPassword apply.
  static bool timestamp(const Bytes& input, Bytes& output, const PDFStdTimeStamp& tsa, const Options& options,
                        std::string* why);
  static bool timestampFile(const std::string& inputPath, const std::string& outputPath,
                            const PDFStdTimeStamp& tsa, const Options& options, std::string* why);
};

}  // namespace PDF_Sealmark

#endif
