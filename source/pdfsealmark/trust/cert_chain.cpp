// PDFCert::getChain: the issuer path of a certificate, walked by names
// through the caller's candidates and then the system's, with the date of
// every element checked and, on request, its revocation.
#include <openssl/x509.h>

#include <cstddef>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/winstore/PDFCertWinStoreImpl.h"

namespace PDF_Sealmark {

namespace {

constexpr int kRootStore = 2;

// The first candidate whose subject is `issuer`; candidates without a
// certificate have no subject and are passed over.
X509* findIssuer(const std::vector<PDFCert>& candidates, const X509_NAME* issuer) {
  for (const PDFCert& candidate : candidates) {
    X509* cert = reinterpret_cast<X509*>(candidate.getX509());
    if (cert != nullptr && X509_NAME_cmp(X509_get_subject_name(cert), issuer) == 0) return cert;
  }
  return nullptr;
}

}  // namespace

int PDFCertImpl::getChain(std::vector<PDFCert>& chain, const std::vector<PDFCert>& given,
                          bool checkRevocation, const char* time, const char* cacheDir,
                          const char* ldapServers, int noNonce) const {
  X509* const start = x509;
  PDFCertWinStoreImpl store;
  // Only the list counts: the engine's own verdict is about another
  // question (its signatures, its trust), asked without our time.
  std::vector<PDFCert> system;
  store.getCertChain(system, start);
  chain.clear();
  if (start == nullptr) return 0;

  // Names alone link the path, so candidates whose names go round in a
  // circle would never reach a self-issued top.  A path without a circle
  // uses each candidate once at most: a walk that takes more steps than
  // there are candidates has gone round, and ends incomplete.
  const std::size_t bound = given.size() + system.size();
  std::size_t steps = 0;
  bool complete = false;
  X509* current = start;
  chain.push_back(makePDFCert(current));
  for (;;) {
    const X509_NAME* issuer = X509_get_issuer_name(current);
    const bool selfIssued = X509_NAME_cmp(issuer, X509_get_subject_name(current)) == 0;
    if (current != start) chain.push_back(makePDFCert(current));
    if (selfIssued) {
      complete = true;
      break;
    }
    X509* next = findIssuer(given, issuer);
    if (next == nullptr) next = findIssuer(system, issuer);
    if (next == nullptr || ++steps > bound) break;
    current = next;
  }
  if (!complete) return 0;

  for (std::size_t i = 0; i < chain.size(); ++i) {
    if (!chain[i].isValid(time)) return 0;
    if (!checkRevocation) continue;
    // A certificate of the root store is trusted as it stands, wherever it
    // is on the path.
    if (store.isTrusted(reinterpret_cast<X509*>(chain[i].getX509()), kRootStore) != 0) continue;
    PDFCert issuerCert = i + 1 < chain.size() ? chain[i + 1] : chain[i];
    if (!chain[i].checkCRL(time, cacheDir, ldapServers, &issuerCert, &chain, noNonce)) return 0;
  }
  return store.isTrusted(reinterpret_cast<X509*>(chain.back().getX509()), kRootStore) != 0 ? 2 : 1;
}

}  // namespace PDF_Sealmark
