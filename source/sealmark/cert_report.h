// A certificate as sealmark shows it: its fields as UTF-8 text, in JSON or
// in words.  Shared by 'cert show' and 'verify'.
#ifndef SEALMARK_CERT_REPORT_H
#define SEALMARK_CERT_REPORT_H

#include <optional>
#include <string>
#include <vector>

#include "output.h"
#include "pdfsealmark/PDFCert.h"

namespace sealmark {

struct Attribute {
  std::string oid;
  std::string label;  // OpenSSL's short name, or the oid when it has none
  std::string value;  // UTF-8
};

struct CertReport {
  int version = 0;
  std::vector<Attribute> subject, issuer;
  std::string serial, sha1, notBefore, notAfter, keyAlgorithm, signatureAlgorithm;
  std::optional<std::vector<std::string>> keyUsage;  // none without the extension
};

CertReport describe(const PDF_Sealmark::PDFCert& cert);

// Writes the certificate's keys into the JSON object being written.
Json certJson(const CertReport& r);

// The value of the first attribute with this oid ("2.5.4.3" for the common
// name), or empty.
std::string attributeValue(const std::vector<Attribute>& name, const std::string& oid);

// How a table names a certificate: its common name, else the last attribute
// of its subject.
std::string shortName(const CertReport& r);

}  // namespace sealmark

#endif
