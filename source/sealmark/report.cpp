#include "report.h"

#include <set>
#include <utility>

namespace sealmark {

namespace {

bool sameName(const std::vector<Attribute>& a, const std::vector<Attribute>& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i].oid != b[i].oid || a[i].value != b[i].value) return false;
  }
  return true;
}

// The first certificate that is no other one's issuer: with a signer and
// its CA certificates embedded, that is the signer.
std::optional<std::size_t> endOfChain(const std::vector<CertReport>& certs) {
  for (std::size_t i = 0; i < certs.size(); ++i) {
    bool issuesAnother = false;
    for (std::size_t j = 0; j < certs.size() && !issuesAnother; ++j) {
      issuesAnother = j != i && sameName(certs[j].issuer, certs[i].subject);
    }
    if (!issuesAnother) return i;
  }
  return certs.empty() ? std::nullopt : std::optional<std::size_t>(0);
}

FieldReport examineField(PDF_Folio::CSigField* field, const DocumentReport& doc, bool verify) {
  FieldReport r;
  r.field = field->getName();
  PDF_Sealmark::PDFSealmarkVerify v;
  v.parse(field);
  if (v.getPageNum() > 0) r.page = v.getPageNum();
  if (PDF_Vellum::PDFAcroform* sigDict = v.getSigDict()) {
    auto text = [&](const char* key) -> std::optional<std::string> {
      PDF_Vellum::PDFObject* value = sigDict->getContents(key);
      if (!value || !value->getString()) return std::nullopt;
      return std::string(value->getString(), static_cast<std::size_t>(value->getLenth()));
    };
    r.filter = text("/Filter");
    // A document time stamp holds an RFC 3161 token over the byte ranges,
    // not a signature over their digest: the signature check says nothing
    // about it, so it gets no intact verdict.
    if (text("/SubFilter") == std::optional<std::string>("/ETSI.RFC3161")) r.kind = "document_timestamp";
  }
  r.isSigned = v.getHasSigned();
  if (!r.isSigned) return r;
  if (verify && r.kind == "signature") r.intact = v.verify();

  long o1 = -1, l1 = -1, o2 = -1, l2 = -1;
  v.getSigDict()->getByteRange(o1, l1, o2, l2);
  if (o1 >= 0 && l1 >= 0 && o2 > 0 && l2 > 0 && o1 + l1 <= o2) {
    r.byteRange = std::vector<long>{o1, l1, o2, l2};
    r.signedEnd = static_cast<long long>(o2) + l2;
    r.coversWholeDocument = static_cast<unsigned long long>(*r.signedEnd) == doc.doc->getFileSize();
    const std::vector<int> ends = doc.versions->getEnds();
    for (std::size_t i = 0; i < ends.size(); ++i) {
      if (ends[i] == *r.signedEnd) r.revision = static_cast<int>(i);
    }
  }
  const std::string when = v.getSignedDate();
  if (!when.empty()) r.signingTime = when;
  std::vector<PDF_Sealmark::PDFCert> certs;
  v.getCerts(certs);
  std::set<std::string> seen;
  for (const PDF_Sealmark::PDFCert& cert : certs) {
    CertReport c = describe(cert);
    if (seen.insert(c.sha1).second) r.certificates.push_back(std::move(c));
  }
  r.signer = endOfChain(r.certificates);

  PDF_Folio::PL_VerifyDocPerm p = PDF_Folio::PL_VERIFY_PERM_NONE;
  bool fieldMdp = false;
  if (v.getPermission(p, fieldMdp)) r.permission = PermissionReport{static_cast<int>(p), fieldMdp};
  return r;
}

}  // namespace

std::unique_ptr<DocumentReport> examineDocument(const std::string& file, const std::string& password,
                                                bool verify, std::string* whyNot) {
  auto report = std::make_unique<DocumentReport>();
  report->file = file;
  report->doc = PDF_Vellum::PDFDocument::open(file, password, whyNot);
  if (!report->doc) return nullptr;
  report->versions = std::make_unique<PDF_Sealmark::PDFSealmarkVersion>(report->doc.get());
  report->form = std::make_unique<PDF_Folio::CForm>(report->doc.get());
  for (PDF_Folio::CSigField* field : report->form->getSigFields()) {
    report->fields.push_back(examineField(field, *report, verify));
  }
  return report;
}

}  // namespace sealmark
