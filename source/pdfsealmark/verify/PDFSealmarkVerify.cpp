#include "pdfsealmark/PDFSealmarkVerify.h"

#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"

namespace PDF_Sealmark {

PDFSealmarkVerify::PDFSealmarkVerify() : impl_(new (std::nothrow) PDFSealmarkVerifyImpl, true) {}

PDFSealmarkVerify::PDFSealmarkVerify(const PDFSealmarkVerify& other) : impl_(other.impl_) {}

PDFSealmarkVerify::~PDFSealmarkVerify() = default;

void PDFSealmarkVerify::operator=(const PDFSealmarkVerify& other) { impl_ = other.impl_; }

void PDFSealmarkVerify::clear() {
  if (impl_) impl_->clear();
}

bool PDFSealmarkVerify::parse(PDF_Folio::CSigField* field) { return impl_ ? impl_->parse(field) : false; }
bool PDFSealmarkVerify::getHasSigned() const { return impl_ ? impl_->getHasSigned() : false; }
int PDFSealmarkVerify::getPageNum() const { return impl_ ? impl_->pageNum : 0; }
PDF_Folio::CSigField* PDFSealmarkVerify::getSigPtr() const { return impl_ ? impl_->sigPtr : nullptr; }
PDF_Vellum::PDFAcroform* PDFSealmarkVerify::getAcroform() const { return impl_ ? impl_->acroform : nullptr; }
PDF_Vellum::PDFAcroform* PDFSealmarkVerify::getSigDict() const { return impl_ ? impl_->sigDict : nullptr; }
PDF_Vellum::PDFDocument* PDFSealmarkVerify::getDoc() const { return impl_ ? impl_->doc : nullptr; }
bool PDFSealmarkVerify::verify() const { return impl_ ? impl_->verify() : false; }

bool PDFSealmarkVerify::getContents(std::ostream& out) const {
  return impl_ ? impl_->getContents(out) : false;
}

}  // namespace PDF_Sealmark

namespace PDF_Sealmark {

bool PDFSealmarkVerify::getSignedVerPdf(std::ostream& out) const {
  return impl_ ? impl_->getSignedVerPdf(out) : false;
}

bool PDFSealmarkVerify::getPermission(PDF_Folio::PL_VerifyDocPerm& permission, bool& isFieldMdp) const {
  return impl_ ? impl_->getPermission(permission, isFieldMdp) : false;
}

}  // namespace PDF_Sealmark

namespace PDF_Sealmark {

bool PDFSealmarkVerify::getHasTimeStamp() const { return impl_ ? impl_->getHasTimeStamp() : false; }
int PDFSealmarkVerify::verifyTimeStamp() const { return impl_ ? impl_->verifyTimeStamp() : 3; }

bool PDFSealmarkVerify::getTimeStampToken(std::ostream& out) const {
  return impl_ ? impl_->getTimeStampToken(out) : false;
}

std::string PDFSealmarkVerify::getTimeStampDate() const { return impl_ ? impl_->getTimeStampDate() : std::string(); }
std::string PDFSealmarkVerify::getTimeStampType() const { return impl_ ? impl_->getTimeStampType() : std::string(); }

bool PDFSealmarkVerify::getTimeStampCerts(std::vector<PDFCert>& certs) const {
  return impl_ ? impl_->getTimeStampCerts(certs) : false;
}

bool PDFSealmarkVerify::getSignatureDigest(std::vector<unsigned char>& digest,
                                           std::vector<unsigned char>& value) const {
  return impl_ ? impl_->getSignatureDigest(digest, value) : false;
}

}  // namespace PDF_Sealmark
