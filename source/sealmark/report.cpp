#include "report.h"

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
    for (const PDF_Sealmark::PDFCert& cert : s.timeStampCertificates) t.certificates.push_back(describe(cert));
    r.timeStamp = std::move(t);
  }
  return r;
}

}  // namespace

std::unique_ptr<DocumentReport> examineDocument(const std::string& file, const std::string& password,
                                                std::string* whyNot, unsigned threads) {
  PDF_Sealmark::PDFDocumentCheck::Result result;
  if (!PDF_Sealmark::PDFDocumentCheck::check(file, password, result, whyNot, threads)) return nullptr;
  auto report = std::make_unique<DocumentReport>();
  report->file = file;
  report->size = result.fileSize;
  report->revisionEnds = result.revisionEnds;
  for (const auto& signature : result.signatures) report->fields.push_back(fieldReport(signature));
  return report;
}

}  // namespace sealmark
