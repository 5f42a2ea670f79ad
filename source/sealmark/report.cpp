#include "report.h"

#include <mutex>
#include <utility>

namespace sealmark {

namespace {

FieldReport fieldReport(const PDF_Sealmark::PDFDocumentCheck::Signature& s) {
  using Kind = PDF_Sealmark::PDFDocumentCheck::Kind;
  FieldReport r;
  r.field = s.field;
  if (s.page > 0) r.page = s.page;
  if (!s.filter.empty()) r.filter = s.filter;
  if (s.kind == Kind::kUnsigned) return r;
  r.kind = s.kind == Kind::kDocumentTimeStamp ? "document_timestamp" : "signature";
  r.isSigned = true;
  r.intact = s.intact == 1;
  if (!s.problem.empty()) r.problem = s.problem;
  if (s.hasByteRange) {
    r.byteRange = std::vector<long>(s.byteRange, s.byteRange + 4);
    r.signedEnd = s.byteRange[2] + s.byteRange[3];
    r.coversWholeDocument = s.coversWholeDocument;
    if (!s.coverageProblem.empty()) r.coverage = s.coverageProblem;
  }
  if (s.revision >= 0) r.revision = s.revision;
  if (!s.signingTime.empty()) r.signingTime = s.signingTime;
  for (const PDF_Sealmark::PDFCert& cert : s.certificates) r.certificates.push_back(describe(cert));
  if (s.signer >= 0) r.signer = static_cast<std::size_t>(s.signer);
  if (s.permission >= 0) r.permission = PermissionReport{s.permission, s.fieldMdp};
  if (s.hasTimeStamp) {
    TimeStampReport t;
    if (!s.timeStampSource.empty()) t.source = s.timeStampSource;
    t.status = s.timeStampStatus;
    if (!s.timeStampTime.empty()) t.time = s.timeStampTime;
    if (!s.timeStampType.empty()) t.type = s.timeStampType;
    for (const PDF_Sealmark::PDFCert& cert : s.timeStampCertificates)
      t.certificates.push_back(describe(cert));
    r.timeStamp = std::move(t);
  }
  return r;
}

PathReport pathReport(const PDF_Sealmark::PDFValidation::Path& path) {
  using Revocation = PDF_Sealmark::PDFValidation::Revocation;
  PathReport r;
  r.result = path.result;
  r.trusted = path.trusted;
  for (const auto& e : path.elements) {
    PathElementReport element;
    element.cert = describe(e.cert);
    element.validAtTime = e.validAtTime;
    switch (e.revocation) {
      case Revocation::kInRootStore:
        element.revocation = "root_store";
        break;
      case Revocation::kNoSource:
        element.revocation = "no_source";
        break;
      case Revocation::kGood:
        element.revocation = "good";
        break;
      case Revocation::kRevoked:
        element.revocation = "revoked";
        break;
      case Revocation::kUndecided:
        element.revocation = "undecided";
        break;
      default:
        element.revocation = "not_checked";
    }
    if (e.decidedBy == 1) element.decidedBy = "crl";
    if (e.decidedBy == 2) element.decidedBy = "ocsp";
    r.elements.push_back(element);
  }
  return r;
}

ValidationReport validationReport(const PDF_Sealmark::PDFValidation::Result& v) {
  using TimeSource = PDF_Sealmark::PDFValidation::TimeSource;
  ValidationReport r;
  r.verdict = PDF_Sealmark::PDFValidation::verdictName(v.verdict);
  r.reasons = v.reasons;
  if (!v.checkedAt.empty()) {
    r.checkedAt = v.checkedAt;
    r.timeSource = v.timeSource == TimeSource::kTimeStamp     ? "timestamp"
                   : v.timeSource == TimeSource::kSigningTime ? "signing_time_claimed"
                   : v.timeSource == TimeSource::kTokenTime   ? "timestamp_token"
                                                              : "now";
  }
  r.chain = pathReport(v.chain);
  if (v.hasTimeStampChain) r.timeStampChain = pathReport(v.timeStampChain);
  return r;
}

}  // namespace

const char* timeStampVerdict(const TimeStampReport& t) {
  switch (t.status) {
    case 0:
      return "holds";
    case 1:
      return "does not hold";
    case 2:
      return "not for this signature";
    default:
      return t.source ? "cannot be checked" : "cannot be checked: no library";
  }
}

std::unique_ptr<DocumentReport> examineDocument(const std::string& file, const std::string& password,
                                                std::string* whyNot, unsigned threads,
                                                const PDF_Sealmark::PDFValidation::Options* validation) {
  PDF_Sealmark::PDFDocumentCheck::Result result;
  if (!PDF_Sealmark::PDFDocumentCheck::check(file, password, result, whyNot, threads)) return nullptr;
  auto report = std::make_unique<DocumentReport>();
  report->file = file;
  report->size = result.fileSize;
  report->revisionEnds = result.revisionEnds;
  for (const auto& signature : result.signatures) report->fields.push_back(fieldReport(signature));
  if (validation) {
    // The certificate stores and the network, one document at a time.
    static std::mutex oneAtATime;
    std::lock_guard<std::mutex> lock(oneAtATime);
    for (std::size_t i = 0; i < result.signatures.size(); ++i) {
      if (!report->fields[i].isSigned) continue;
      report->fields[i].validation =
          validationReport(PDF_Sealmark::PDFValidation::validate(result.signatures[i], *validation));
    }
  }
  return report;
}

}  // namespace sealmark
