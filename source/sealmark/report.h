// What sealmark learns about the signature fields of one document.
#ifndef SEALMARK_REPORT_H
#define SEALMARK_REPORT_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cert_report.h"
#include "pdfsealmark/PDFDocumentCheck.h"
#include "pdfsealmark/PDFValidation.h"

namespace sealmark {

struct PermissionReport {
  int p = 0;
  bool fieldMdp = false;
};

// The time stamp over a signature value.
struct TimeStampReport {
  std::optional<std::string> source;  // "rfc3161", "amano", "pfu"
  int status = 3;                     // 0 holds, 1 not, 2 not for this signature, 3 unknown
  std::optional<std::string> time;    // as the token gives it
  std::optional<std::string> type;    // "SHA-2(256bit)"...
  std::vector<CertReport> certificates;
};

// One certificate of an issuer path, and its checks.
struct PathElementReport {
  CertReport cert;
  bool validAtTime = false;
  std::string revocation;  // "good", "revoked", "undecided", "no_source", "root_store", "not_checked"
  std::optional<std::string> decidedBy;  // "ocsp", "crl"
};

struct PathReport {
  std::vector<PathElementReport> elements;
  int result = 0;  // of getChain
  bool trusted = false;
};

// The verdict on a signature (verify --trust).
struct ValidationReport {
  std::string verdict;  // "valid", "invalid", "indeterminate"
  std::vector<std::string> reasons;
  std::optional<std::string> checkedAt;  // none when the verdict came before any time
  // "timestamp", "signing_time_claimed" (by the signer), "timestamp_token"
  // (a document time stamp's own), "now".
  std::optional<std::string> timeSource;
  PathReport chain;
  std::optional<PathReport> timeStampChain;
};

// What a time stamp's status means, in the words of the table and the
// report: "holds", "does not hold", "not for this signature", "cannot be
// checked", "cannot be checked: no library".
const char* timeStampVerdict(const TimeStampReport& t);

// One signature field, as the library answers for it.
struct FieldReport {
  std::string field;
  std::optional<int> page;
  std::optional<std::string> filter;
  // "signature", or "document_timestamp" for /SubFilter /ETSI.RFC3161.
  std::string kind = "signature";
  bool isSigned = false;
  std::optional<bool> intact;
  std::optional<std::string> problem;   // why not intact
  std::optional<std::string> coverage;  // what the byte range leaves out
  // The byte range, when it is valid, and the end of the signed bytes.
  std::optional<std::vector<long>> byteRange;
  std::optional<long long> signedEnd;
  std::optional<int> revision;              // whose end equals signedEnd
  std::optional<bool> coversWholeDocument;  // signedEnd is the end of the file
  std::optional<PermissionReport> permission;
  std::optional<std::string> signingTime;  // "YYYYMMDDHHMMSSZ"
  // The certificates the signature carries, each once; signer is the index
  // of the one that issued no other of them (the end of the chain).
  std::vector<CertReport> certificates;
  std::optional<std::size_t> signer;
  std::optional<TimeStampReport> timeStamp;
  std::optional<ValidationReport> validation;  // with verify --trust
};

// What one read of a document tells: its revisions and its fields.
struct DocumentReport {
  std::string file;
  std::uint64_t size = 0;
  std::vector<std::uint64_t> revisionEnds;
  std::vector<FieldReport> fields;
};

// Checks the file in one pass.  Null with a reason when the file can't be
// opened.
// threads: for the digests of several signatures, 0 for every core.
// validation: when given, each signed field also gets its verdict (one
// document at a time, whatever the threads of the callers).
std::unique_ptr<DocumentReport> examineDocument(
    const std::string& file, const std::string& password, std::string* whyNot, unsigned threads = 0,
    const PDF_Sealmark::PDFValidation::Options* validation = nullptr);

}  // namespace sealmark

#endif
