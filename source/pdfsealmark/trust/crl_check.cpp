// The revocation check of one certificate: its OCSP responder first, then
// the CRLs it names.
#include "pdfsealmark/trust/crl_check.h"

#include <openssl/asn1.h>
#include <openssl/x509.h>

#include <climits>
#include <cstring>
#include <string>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/platform/crl_retrieve.h"
#include "pdfsealmark/trust/crl_cache.h"
#include "pdfsealmark/trust/crl_url.h"
#include "pdfsealmark/trust/ocsp_check.h"

namespace PDF_Sealmark {

namespace {

const char kBinarySuffix[] = ";binary";

bool endsWith(const std::string& text, const char* suffix) {
  const std::size_t n = std::strlen(suffix);
  return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

// The states of the field valid.
enum Valid { kValidByCrl = 1, kValidByOcsp = 2, kValidUndecided = 3 };

}  // namespace

std::vector<unsigned char> retrieveCRL(const char* url) {
  const int scheme = schemeIndex(url);
  if (scheme < 0) return {};
  std::string target(url);
  // The attribute option that makes a directory hand the CRL out as DER.
  if (scheme == kSchemeLdap && !endsWith(target, kBinarySuffix)) target += kBinarySuffix;
  std::vector<unsigned char> bytes;
  if (!platform::urlRetrieval().CryptRetrieveObjectByUrlA(target.c_str(), platform::CONTEXT_OID_CRL,
                                                          platform::CRYPT_WIRE_ONLY_RETRIEVAL,
                                                          kCrlRetrievalTimeoutMs, bytes))
    return {};
  return bytes;
}

bool PDFCertImpl::checkCRL(const char* time, const char* cacheDir, const char* ldapServers, X509* issuer,
                           std::vector<PDFCert>* chain, int noNonce) {
  if (x509 == nullptr) return false;
  // -1: no moment given, so "now", read each time it is needed.
  const std::int64_t parsed = textToTime(time);
  std::time_t moment = static_cast<std::time_t>(parsed);
  const ASN1_INTEGER* serial = X509_get_serialNumber(x509);

  bool ocspTried = false;
  const std::string ocspUrl = getOcspUrl();
  if (!ocspUrl.empty()) {
    valid = kValidByOcsp;
    const int answer = checkOCSP(ocspUrl.c_str(), issuer, chain, noNonce);
    if (answer == kOcspGood) return true;
    if (answer == kOcspNotGood) return false;
    valid = kValidUndecided;
    ocspTried = true;
  }

  const CrlUrlList list(getCrlUrl(ldapServers));
  if (list.urls().empty()) return !ocspTried;

  for (const char* url : list.urls()) {
    std::vector<unsigned char> bytes;
    if (cacheDir != nullptr) bytes = loadCachedCRL(url, issuer, cacheDir);
    if (bytes.empty()) {
      bytes = retrieveCRL(url);
      // Stored before anything looks at it: loadCachedCRL checks every use.
      if (!bytes.empty()) saveCachedCRL(bytes, url, cacheDir);
    }
    if (bytes.empty() || bytes.size() > static_cast<std::size_t>(INT_MAX)) continue;

    ossl::UniquePtr<BIO> in(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    ossl::UniquePtr<X509_CRL> crl(in ? d2i_X509_CRL_bio(in.get(), nullptr) : nullptr);
    if (!crl) continue;
    if (issuer != nullptr) {
      ossl::UniquePtr<EVP_PKEY> key(X509_get_pubkey(issuer));
      // X509_CRL_verify gives -1 when the signature can't be checked at all
      // (unknown algorithm, key of another type): no better than a bad one.
      if (!key || X509_CRL_verify(crl.get(), key.get()) <= 0) continue;
    }

    // Only the revoked entries count.  thisUpdate, nextUpdate, the issuer
    // name, extensions and reasons of a fresh CRL play no part.
    const STACK_OF(X509_REVOKED)* revoked = X509_CRL_get_REVOKED(crl.get());
    for (int i = 0; i < sk_X509_REVOKED_num(revoked); ++i) {
      const X509_REVOKED* entry = sk_X509_REVOKED_value(revoked, i);
      if (entry == nullptr || serial == nullptr) continue;
      if (ASN1_INTEGER_cmp(X509_REVOKED_get0_serialNumber(entry), serial) != 0) continue;
      const ASN1_TIME* date = X509_REVOKED_get0_revocationDate(entry);
      // -1 also for an equal time: revoked at the very moment counts.
      const int when = parsed == -1 ? X509_cmp_current_time(date) : X509_cmp_time(date, &moment);
      if (when < 0) {
        valid = kValidByCrl;
        return false;
      }
    }
    valid = kValidByCrl;
    return true;
  }
  valid = kValidUndecided;
  return false;
}

}  // namespace PDF_Sealmark
