// Contract: any bytes may be loaded as a certificate, and its CRL locations
// (with no server list, and with one) and its OCSP responder may then be
// asked.  The worst outcome is an empty answer; every location is a heap
// copy that is freed here, so a leak shows under LeakSanitizer.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"

namespace {

void freeAll(const std::vector<const char*>& urls) {
  for (const char* url : urls) {
    if (url == nullptr) std::abort();  // every entry is a real text
    std::free(const_cast<char*>(url));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  PDF_Sealmark::PDFCert cert;
  std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
  if (!cert.loadX509(in, true)) return 0;
  const std::vector<const char*> plain = cert.getCrlUrl();
  const std::vector<const char*> servers =
      PDF_Sealmark::PDFCertImpl::implOf(cert)->getCrlUrl("ldap://one.example/,ldap://two.example:389/,");
  // Two servers give one more URL per directory name, never fewer URLs.
  if (servers.size() < plain.size()) std::abort();
  freeAll(plain);
  freeAll(servers);
  cert.getOcspUrl();
  return 0;
}
