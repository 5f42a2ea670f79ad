#include "report.h"

namespace sealmark {

namespace {

FieldReport examineField(PDF_Folio::CSigField* field, const DocumentReport& doc, bool verify) {
  FieldReport r;
  r.field = field->getName();
  PDF_Sealmark::PDFSealmarkVerify v;
  v.parse(field);
  if (v.getPageNum() > 0) r.page = v.getPageNum();
  if (PDF_Vellum::PDFAcroform* sigDict = v.getSigDict()) {
    PDF_Vellum::PDFObject* filter = sigDict->getContents("/Filter");
    if (filter && filter->getString()) {
      r.filter = std::string(filter->getString(), static_cast<std::size_t>(filter->getLenth()));
    }
  }
  r.isSigned = v.getHasSigned();
  if (!r.isSigned) return r;
  if (verify) r.intact = v.verify();

  long o1 = -1, l1 = -1, o2 = -1, l2 = -1;
  v.getSigDict()->getByteRange(o1, l1, o2, l2);
  if (o1 >= 0 && l1 >= 0 && o2 > 0 && l2 > 0 && o1 + l1 <= o2) {
    r.signedEnd = static_cast<long long>(o2) + l2;
    r.coversWholeDocument = static_cast<unsigned long long>(*r.signedEnd) == doc.doc->getFileSize();
    const std::vector<int> ends = doc.versions->getEnds();
    for (std::size_t i = 0; i < ends.size(); ++i) {
      if (ends[i] == *r.signedEnd) r.revision = static_cast<int>(i);
    }
  }
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
