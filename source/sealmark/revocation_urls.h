// Where a certificate says its revocation status can be asked: its CRL
// locations and its OCSP responder, as text for 'cert show'.
#ifndef SEALMARK_REVOCATION_URLS_H
#define SEALMARK_REVOCATION_URLS_H

#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"

namespace sealmark {

struct RevocationUrls {
  std::vector<std::string> crl;   // as the library lists them (UTF-8 made valid)
  std::vector<std::string> ocsp;  // empty or one URL
};

RevocationUrls revocationUrls(const PDF_Sealmark::PDFCert& cert);

}  // namespace sealmark

#endif
