// Contract: any bytes may be loaded as an X.509 certificate, once with the
// DER flag (DER, then PEM) and once as PEM only, and every getter may then
// be asked.  The worst outcome is a false or empty answer, and the two
// exceptions the interface states: the overflow of getSerial and the short
// date text of isValid.  A loaded certificate re-encodes to one that loads
// again with the same SHA-1.
#include <openssl/x509.h>

#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"

namespace {

void askEverything(PDF_Sealmark::PDFCert& cert) {
  std::vector<std::string> keys, values;
  std::string shortName, longName;
  for (bool subject : {true, false}) {
    subject ? cert.getSubject(keys, values) : cert.getIssuer(keys, values);
    for (const std::string& oid : keys) cert.getOidName(oid, shortName, longName);
  }
  try {
    cert.getSerial();
  } catch (const std::overflow_error&) {
  }
  cert.getSerialHex();
  std::string hash;
  cert.getHashHex(hash);
  cert.getPublicKey();
  cert.getPublicKeyAlgorithm();
  cert.getSignAlgorithm();
  cert.getKeyType();
  cert.getKeyUsage();
  cert.getVersion();
  cert.isValid(nullptr);
  for (const std::string& date : {cert.getNotBefore(), cert.getNotAfter()}) {
    try {
      cert.isValid(date.c_str());
    } catch (const std::out_of_range&) {
    }
  }
  X509_free(reinterpret_cast<X509*>(cert.getdupX509()));

  std::ostringstream der;
  if (cert.saveX509(der, true)) {
    PDF_Sealmark::PDFCert again;
    std::istringstream in(der.str());
    std::string hashAgain;
    if (!again.loadX509(in, true) || !again.getHashHex(hashAgain) || hashAgain != hash) std::abort();
  }
  std::ostringstream pem;
  cert.saveX509(pem, false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  for (bool der : {true, false}) {
    PDF_Sealmark::PDFCert cert;
    std::istringstream in(bytes);
    if (cert.loadX509(in, der)) askEverything(cert);
  }
  return 0;
}
