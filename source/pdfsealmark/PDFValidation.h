// One verdict per signature: intact, made by a certificate that leads to a
// trusted root, nothing on that path revoked, every certificate valid when
// the signature was made.
//
// PDFDocumentCheck says whether the bytes are intact; this class takes what
// it found for one signature and asks the rest: the issuer path of the
// signer's certificate (PDFCert::getChain) at the time of the signature,
// with revocation through OCSP and CRLs, and the same for the authority of a
// time stamp.
//
//   PDF_Sealmark::PDFDocumentCheck::Result document;
//   PDF_Sealmark::PDFDocumentCheck::check("signed.pdf", "", document, nullptr);
//   PDF_Sealmark::PDFValidation::Options options;  // the store ROOT, revocation checked
//   for (const auto& signature : document.signatures) {
//     if (signature.kind == PDF_Sealmark::PDFDocumentCheck::Kind::kUnsigned) continue;
//     const auto v = PDF_Sealmark::PDFValidation::validate(signature, options);
//     std::cout << signature.field << ": " << PDF_Sealmark::PDFValidation::verdictName(v.verdict)
//               << (v.reasons.empty() ? "" : ": " + v.reasons.front()) << "\n";
//   }
//
// Revocation is asked only for a path that reaches a trusted root through
// links that verify: the certificates, and the addresses they name, come
// from the document.
//
// The time of the check is the time of a signature time stamp that holds and
// whose authority's path passes; otherwise the signing-time attribute, which
// only the signer claims; otherwise now.  A document time stamp is checked
// at the time its own token gives.  Only a time stamp proves a time: at any
// other time every certificate of the path must also be valid now, and one
// that a CRL revokes now is in doubt even when the CRL dates the revocation
// after the claimed time.
//
// The verdict:
//   valid          intact, made by the key of the certificate it names, the
//                  path complete to the store ROOT or to a trust anchor of
//                  the options, its links verified, nothing revoked, every
//                  certificate valid at the time, any time stamp holding
//   invalid        not intact, made by another key than the certificate it
//                  names, a revoked certificate (an OCSP responder's
//                  "unknown" counts as revoked), or a time stamp that does
//                  not hold or was made for another signature
//   indeterminate  everything else: no path, an untrusted top, an expired
//                  certificate without a time stamp that proves its use in
//                  time, revocation that no responder or CRL decided
// Calls into the system's certificate stores and the network: one thread
// at a time.
#ifndef PDFSEALMARK_PDFVALIDATION_H
#define PDFSEALMARK_PDFVALIDATION_H

#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/PDFDocumentCheck.h"
#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Sealmark {

class PDFSEALMARK_API PDFValidation {
 public:
  enum class Verdict { kValid, kInvalid, kIndeterminate };
  enum class TimeSource {
    kTimeStamp,    // a signature time stamp that holds, from a trusted authority
    kSigningTime,  // the signing-time attribute, as the signer claims it
    kTokenTime,    // a document time stamp's own time
    kNow,          // the moment of the check
  };
  enum class Revocation {
    kNotChecked,   // revocation off, a path not trusted or not verified, or one that failed before it
    kInRootStore,  // stands in ROOT, which is trusted as it is
    kNoSource,     // names no OCSP responder and no CRL
    kGood,         // the OCSP responder or a CRL (decidedBy) clears it
    kRevoked,      // the responder says revoked or unknown, or a CRL revokes it
    kUndecided,    // no responder and no CRL gave an answer
  };

  struct PDFSEALMARK_API Options {
    Options();
    ~Options();
    Options(const Options&);
    Options& operator=(const Options&);

    // Roots trusted for this check besides the store ROOT: a path that
    // reaches one of them (compared by SHA-1) counts as trusted.  No store
    // is changed.
    std::vector<PDFCert> trustAnchors;
    // Off: no OCSP or CRL is asked, and nothing counts as revoked.
    bool checkRevocation = true;
    // As for PDFCert::checkCRL: empty for none.
    std::string crlCacheDir;
    std::string ldapServers;
    bool noNonce = false;
  };

  // One certificate of a path.
  struct PDFSEALMARK_API Element {
    PDFCert cert;
    bool validAtTime = false;  // isValid at the time of the check
    bool validNow = false;
    Revocation revocation = Revocation::kNotChecked;
    int decidedBy = 0;  // getValid of its check: 1 a CRL, 2 OCSP, 3 neither
  };

  struct PDFSEALMARK_API Path {
    Path();
    ~Path();
    Path(const Path&);
    Path& operator=(const Path&);

    std::vector<Element> elements;  // from the certificate up, as walked
    int result = 0;                 // of getChain: 0, 1, 2
    bool complete = false;          // ends at a self-issued certificate
    bool trusted = false;           // in ROOT, or through a trust anchor
  };

  struct PDFSEALMARK_API Result {
    Result();
    ~Result();
    Result(const Result&);
    Result& operator=(const Result&);

    Verdict verdict = Verdict::kIndeterminate;
    // Why it is not valid, in UTF-8: what makes it invalid first, then what
    // leaves it in doubt.  Empty when valid.
    std::vector<std::string> reasons;
    std::string checkedAt;  // date text "YYYYMMDDHHMMSS[.f]Z"
    TimeSource timeSource = TimeSource::kNow;
    Path chain;  // of the signer's certificate (the authority's, for a document time stamp)
    bool hasTimeStampChain = false;
    Path timeStampChain;  // of the signature time stamp's authority
  };

  // The verdict on one signed field of a PDFDocumentCheck result.  An
  // unsigned field is indeterminate with its reason.
  static Result validate(const PDFDocumentCheck::Signature& signature, const Options& options);

  // "valid", "invalid", "indeterminate".
  static const char* verdictName(Verdict verdict);
};

}  // namespace PDF_Sealmark

#endif
