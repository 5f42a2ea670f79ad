// Contract: any bytes may arrive as a responder's answer to an OCSP request,
// with or without a nonce, judged against the issuer alone or against a
// chain.  The worst outcome is -1 (no usable answer); the result is always
// one of -1, 0 and 1.
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdlib>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/trust/ocsp_check.h"

namespace {

// A self-signed certificate that stands for both the certificate asked
// about and its issuer; made once.
X509* testCertificate() {
  static X509* cert = [] {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 0x1001);
    X509_NAME* name = X509_get_subject_name(x);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("Fuzz CA"), -1, -1,
                               0);
    X509_set_issuer_name(x, name);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 86400);
    X509_set_pubkey(x, key);
    X509_sign(x, key, EVP_sha256());
    EVP_PKEY_free(key);
    return x;
  }();
  return cert;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  X509* cert = testCertificate();
  const std::vector<unsigned char> response(data, data + size);
  std::vector<PDF_Sealmark::PDFCert> chain{PDF_Sealmark::makePDFCert(cert)};
  for (bool nonce : {true, false}) {
    const PDF_Sealmark::OcspRequest request = PDF_Sealmark::makeOcspRequest(cert, cert, nonce);
    if (!request.request) std::abort();
    for (const std::vector<PDF_Sealmark::PDFCert>* anchors : {static_cast<decltype(&chain)>(nullptr), &chain}) {
      const int result = PDF_Sealmark::evaluateOcspResponse(request, response, cert, anchors);
      if (result < -1 || result > 1) std::abort();
    }
  }
  return 0;
}
