// What sealmark learns about the signature fields of one document.
#ifndef SEALMARK_REPORT_H
#define SEALMARK_REPORT_H

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cert_report.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFSealmarkVersion.h"

namespace sealmark {

struct PermissionReport {
  int p = 0;
  bool fieldMdp = false;
};

// One signature field, as the library answers for it.
struct FieldReport {
  std::string field;
  std::optional<int> page;
  std::optional<std::string> filter;
  // "signature", or "document_timestamp" for /SubFilter /ETSI.RFC3161.
  std::string kind = "signature";
  bool isSigned = false;
  std::optional<bool> intact;
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
};

// An opened document with its fields and its revision index.
struct DocumentReport {
  std::string file;
  std::unique_ptr<PDF_Vellum::PDFDocument> doc;
  std::unique_ptr<PDF_Folio::CForm> form;
  std::unique_ptr<PDF_Sealmark::PDFSealmarkVersion> versions;
  std::vector<FieldReport> fields;
};

// Opens the file and examines every signature field; with verify false the
// signatures are not checked (intact stays empty).  Null with a reason when
// the file can't be opened.
std::unique_ptr<DocumentReport> examineDocument(const std::string& file, const std::string& password,
                                                bool verify, std::string* whyNot);

}  // namespace sealmark

#endif
