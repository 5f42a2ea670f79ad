// Certificates as the library reads them, for the revocation tests and
// others.  The revocation tests' CA itself is support/revocation_pki.sh.
#pragma once

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <fstream>
#include <string>

#include "pdfsealmark/PDFCert.h"
#include "support/test_tsa.h"

namespace sealtest {

// A certificate file (DER or PEM); a failed load is a test failure.
inline PDF_Sealmark::PDFCert loadCertFile(const std::string& path) {
  PDF_Sealmark::PDFCert cert;
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(cert.loadX509(in, true)) << path;
  return cert;
}
// The X509 a certificate lends, borrowed.
inline X509* x509Of(const PDF_Sealmark::PDFCert& cert) { return reinterpret_cast<X509*>(cert.getX509()); }

}  // namespace sealtest
