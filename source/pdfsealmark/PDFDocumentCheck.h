// Checking every signature of a document in one read of its file.
//
// PDFSealmarkVerify answers for one field and reads that field's signed
// bytes into memory; a document with N signatures is read N times.  This
// check opens the document once, reads the file once, front to back, in
// fixed-size chunks, and feeds each signature's digests with the bytes of its
// ranges as they pass, finding the revision markers in the same pass.  Memory
// stays flat in the file size.
//
//   PDF_Sealmark::PDFDocumentCheck::Result result;
//   std::string why;
//   if (!PDF_Sealmark::PDFDocumentCheck::check("signed.pdf", "", result, &why)) {
//     std::cerr << why << "\n";                  // unreadable, wrong password
//   }
//   for (const auto& s : result.signatures)
//     std::cout << s.field << ": " << (s.intact == 1 ? "intact" : s.problem) << "\n";
//
// "Intact" answers the verifier's question: was each signer info made by the
// key of a certificate in the object, over exactly the bytes /ByteRange
// names?  Every signature algorithm OpenSSL verifies counts (PKCS#1 v1.5,
// RSASSA-PSS, ECDSA, Ed25519, Ed448).  Trust, validity dates and revocation
// are other questions.
#ifndef PDFSEALMARK_PDFDOCUMENTCHECK_H
#define PDFSEALMARK_PDFDOCUMENTCHECK_H

#include <cstdint>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Sealmark {

class PDFSEALMARK_API PDFDocumentCheck {
 public:
  enum class Kind {
    kUnsigned,           // no /V
    kSignature,          // a signature dictionary, readable or not
    kDocumentTimeStamp,  // /SubFilter /ETSI.RFC3161
  };

  struct PDFSEALMARK_API Signature {
    Signature();
    ~Signature();
    Signature(const Signature&);
    Signature& operator=(const Signature&);

    std::string field;      // full name
    int page = 0;           // from 1; 0 when unknown
    std::string filter;     // "/Adobe.PPKLite"; empty when absent
    std::string subFilter;  // "/adbe.pkcs7.detached"; empty when absent
    Kind kind = Kind::kUnsigned;
    // 1 intact, 0 not intact, -1 no verdict (unsigned field).
    int intact = -1;
    // Why the signature is not intact, or could not be checked; empty when
    // intact.
    std::string problem;
    // The byte range, when /ByteRange holds four numbers that pass the
    // validity test (both ranges non-negative, the second non-empty and not
    // before the first ends).
    bool hasByteRange = false;
    std::int64_t byteRange[4] = {0, 0, 0, 0};
    // The revision whose end is the end of the signed bytes, or -1.
    int revision = -1;
    // True only when the first range starts at 0, the gap between the
    // ranges is exactly the /Contents string with its angle brackets, and
    // the second range ends at the end of the file.
    bool coversWholeDocument = false;
    // What is off about the coverage; empty when it covers the whole file.
    std::string coverageProblem;
    // The signing-time attribute, "YYYYMMDDHHMMSSZ"; empty when absent.
    std::string signingTime;
    // The certificates of the object, each once: version 3 ones first.
    std::vector<PDFCert> certificates;
    // Index into certificates of the one the signer info names (issuer and
    // serial number); -1 when the object doesn't hold it.
    int signer = -1;
    // /P of a DocMDP or FieldMDP transform in /Reference (0 when a
    // /Reference has none); -1 without /Reference.
    int permission = -1;
    bool fieldMdp = false;

    // The time stamp over the signature value, as PDFSealmarkVerify's
    // time-stamp questions answer for it.  It leaves `intact` unchanged.
    bool hasTimeStamp = false;
    // "rfc3161", "amano" or "pfu"; empty when no library can tell which
    // closed service made the token.
    std::string timeStampSource;
    // 0 holds, 1 does not hold, 2 not for this signature, 3 no conclusion.
    int timeStampStatus = 3;
    // As the token gives it; empty when unknown.  For a document time stamp
    // (hasTimeStamp false), the time of its own token.
    std::string timeStampTime;
    std::string timeStampType;  // "SHA-2(256bit)"...; empty for closed services
    std::vector<PDFCert> timeStampCertificates;

    // Who made it, for a verdict on trust: "intact" takes a signature made
    // by the key of any certificate in the object.
    // True when the first signer info verifies under the key of
    // certificates[signer] itself.
    bool signerKeyMatches = false;
    // Index into timeStampCertificates of the certificate that the token's
    // signer info names and whose key made it, when the time stamp holds;
    // -1 otherwise.
    int timeStampSigner = -1;
  };

  struct PDFSEALMARK_API Result {
    Result();
    ~Result();
    Result(const Result&);
    Result& operator=(const Result&);

    std::uint64_t fileSize = 0;
    // Where each revision ends, oldest first: after a "%%EOF" followed by
    // CR LF, LF, CR or the end of the file, as PDF readers count them.
    std::vector<std::uint64_t> revisionEnds;
    std::vector<Signature> signatures;  // in field order
  };

  // Opens the file (with the password when encrypted) and checks every
  // signature field.  False, with `why` set, only when the file can't be
  // opened or read; a broken signature is a result, not a failure.
  // threads: digest workers for documents with several signatures; 0 takes
  // the number of cores.
  static bool check(const std::string& path, const std::string& password, Result& result, std::string* why,
                    unsigned threads = 0);
  // The same for a file held in memory.
  static bool checkMemory(std::vector<unsigned char> bytes, const std::string& password, Result& result,
                          std::string* why, unsigned threads = 0);
};

}  // namespace PDF_Sealmark

#endif
