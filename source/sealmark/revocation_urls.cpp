#include "revocation_urls.h"

#include <cstdlib>

#include "output.h"

namespace sealmark {

namespace {
// The library hands CRL locations out as heap copies that are ours to free.
struct FreeAll {
  std::vector<const char*>& texts;
  ~FreeAll() {
    for (const char* t : texts) std::free(const_cast<char*>(t));
  }
};
}  // namespace

RevocationUrls revocationUrls(const PDF_Sealmark::PDFCert& cert) {
  RevocationUrls urls;
  std::vector<const char*> crl = cert.getCrlUrl();
  const FreeAll guard{crl};
  for (const char* url : crl) urls.crl.push_back(toValidUtf8(url));
  const std::string ocsp = cert.getOcspUrl();
  if (!ocsp.empty()) urls.ocsp.push_back(toValidUtf8(ocsp));
  return urls;
}

}  // namespace sealmark
