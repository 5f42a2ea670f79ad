#include "pdfsealmark/verify/shared_certificates.h"

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <openssl/x509.h>

#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {
namespace {

// One DER element: where its contents start and how long they are.
struct Element {
  unsigned char tag = 0;
  std::size_t start = 0;  // of the contents
  std::size_t length = 0;
  std::size_t end() const { return start + length; }
};

// Reads the element at `at`, which must end by `limit`.  Only what the walk
// below needs: low tag numbers and definite lengths; anything else, such as
// BER's indefinite length, is left to OpenSSL's decoder.
bool readElement(const unsigned char* der, std::size_t at, std::size_t limit, Element& e) {
  if (at >= limit || limit - at < 2) return false;
  e.tag = der[at];
  if ((e.tag & 0x1f) == 0x1f) return false;
  std::size_t pos = at + 1;
  const unsigned char first = der[pos++];
  std::size_t length = first;
  if (first & 0x80) {
    const std::size_t octets = first & 0x7f;
    if (octets == 0 || octets > 4 || limit - pos < octets) return false;
    length = 0;
    for (std::size_t i = 0; i < octets; ++i) length = (length << 8) | der[pos++];
  }
  if (length > limit - pos) return false;
  e.start = pos;
  e.length = length;
  return true;
}

void appendHeader(std::vector<unsigned char>& out, unsigned char tag, std::size_t length) {
  out.push_back(tag);
  if (length < 0x80) {
    out.push_back(static_cast<unsigned char>(length));
    return;
  }
  unsigned char octets[sizeof(std::size_t)];
  std::size_t n = 0;
  for (std::size_t l = length; l; l >>= 8) octets[n++] = static_cast<unsigned char>(l & 0xff);
  out.push_back(static_cast<unsigned char>(0x80 | n));
  while (n) out.push_back(octets[--n]);
}

std::size_t headerSize(std::size_t length) {
  if (length < 0x80) return 2;
  std::size_t octets = 0;
  for (std::size_t l = length; l; l >>= 8) ++octets;
  return 2 + octets;
}

// The cache.  Bounded in entries and in the size of what it keeps; when it
// is full it starts again, which costs one decode per certificate.
class CertificateCache {
 public:
  // A new reference to the X509 of these DER bytes, or null when they don't
  // decode to exactly one certificate.
  X509* get(const unsigned char* der, std::size_t length) {
    const bool keep = length <= kMaxKept;
    std::string key;
    if (keep) {
      key.assign(reinterpret_cast<const char*>(der), length);
      std::lock_guard<std::mutex> lock(mutex_);
      auto found = certificates_.find(key);
      if (found != certificates_.end()) {
        X509_up_ref(found->second);
        return found->second;
      }
    }
    const unsigned char* p = der;
    ossl::UniquePtr<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(length)));
    if (!cert || p != der + length) return nullptr;
    if (!keep) return cert.release();
    std::lock_guard<std::mutex> lock(mutex_);
    if (certificates_.size() >= kMaxEntries) clearLocked();
    auto placed = certificates_.emplace(std::move(key), cert.get());
    if (!placed.second) {  // another thread decoded the same bytes meanwhile
      X509_up_ref(placed.first->second);
      return placed.first->second;
    }
    X509_up_ref(cert.get());
    return cert.release();
  }

  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    clearLocked();
  }

 private:
  static constexpr std::size_t kMaxEntries = 256;
  static constexpr std::size_t kMaxKept = 16 * 1024;

  void clearLocked() {
    for (auto& entry : certificates_) X509_free(entry.second);
    certificates_.clear();
  }

  std::mutex mutex_;
  std::unordered_map<std::string, X509*> certificates_;
};

// Never destroyed: OpenSSL's own clean-up at exit may run before a static
// destructor would, and freeing a certificate after it is not safe.
CertificateCache& cache() {
  static CertificateCache* const theCache = new CertificateCache;
  return *theCache;
}

// id-signedData, 1.2.840.113549.1.7.2, as a whole DER element.
constexpr unsigned char kSignedDataOid[] = {0x06, 0x09, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x07, 0x02};

}  // namespace

PKCS7* decodeSharingCertificates(const unsigned char* der, std::size_t length) {
  // ContentInfo ::= SEQUENCE { contentType OID, content [0] EXPLICIT SignedData }
  // SignedData ::= SEQUENCE { version, digestAlgorithms SET, contentInfo SEQUENCE,
  //                           certificates [0] IMPLICIT SET OF Certificate OPTIONAL,
  //                           crls [1] ..., signerInfos SET }
  Element outer, explicitTag, signedData, version, digests, content, certificates;
  if (!der || !readElement(der, 0, length, outer) || outer.tag != 0x30) return nullptr;
  const std::size_t oidEnd = outer.start + sizeof kSignedDataOid;
  if (outer.length < sizeof kSignedDataOid ||
      std::memcmp(der + outer.start, kSignedDataOid, sizeof kSignedDataOid) != 0) {
    return nullptr;
  }
  if (!readElement(der, oidEnd, outer.end(), explicitTag) || explicitTag.tag != 0xa0 ||
      explicitTag.end() != outer.end()) {
    return nullptr;
  }
  if (!readElement(der, explicitTag.start, explicitTag.end(), signedData) || signedData.tag != 0x30 ||
      signedData.end() != explicitTag.end()) {
    return nullptr;
  }
  if (!readElement(der, signedData.start, signedData.end(), version) || version.tag != 0x02 ||
      !readElement(der, version.end(), signedData.end(), digests) || digests.tag != 0x31 ||
      !readElement(der, digests.end(), signedData.end(), content) || content.tag != 0x30 ||
      !readElement(der, content.end(), signedData.end(), certificates) || certificates.tag != 0xa0) {
    return nullptr;
  }
  std::vector<std::pair<std::size_t, std::size_t>> certs;  // whole elements: start, length
  for (std::size_t at = certificates.start; at < certificates.end();) {
    Element cert;
    if (!readElement(der, at, certificates.end(), cert) || cert.tag != 0x30) return nullptr;
    certs.emplace_back(at, cert.end() - at);
    at = cert.end();
  }
  if (certs.empty()) return nullptr;

  // The same object without its certificates.
  const std::size_t headLength = content.end() - signedData.start;       // version .. contentInfo
  const std::size_t tailLength = signedData.end() - certificates.end();  // crls, signerInfos
  const std::size_t signedDataLength = headLength + tailLength;
  const std::size_t explicitLength = headerSize(signedDataLength) + signedDataLength;
  const std::size_t outerLength = sizeof kSignedDataOid + headerSize(explicitLength) + explicitLength;
  std::vector<unsigned char> spine;
  spine.reserve(headerSize(outerLength) + outerLength);
  appendHeader(spine, 0x30, outerLength);
  spine.insert(spine.end(), kSignedDataOid, kSignedDataOid + sizeof kSignedDataOid);
  appendHeader(spine, 0xa0, explicitLength);
  appendHeader(spine, 0x30, signedDataLength);
  spine.insert(spine.end(), der + signedData.start, der + content.end());
  spine.insert(spine.end(), der + certificates.end(), der + signedData.end());

  const unsigned char* p = spine.data();
  ossl::UniquePtr<PKCS7> p7(d2i_PKCS7(nullptr, &p, static_cast<long>(spine.size())));
  if (!p7 || !PKCS7_type_is_signed(p7.get()) || !p7->d.sign || p7->d.sign->cert) return nullptr;
  STACK_OF(X509)* stack = sk_X509_new_reserve(nullptr, static_cast<int>(certs.size()));
  if (!stack) return nullptr;
  p7->d.sign->cert = stack;
  for (const auto& [start, size] : certs) {
    X509* cert = cache().get(der + start, size);
    if (!cert) return nullptr;
    sk_X509_push(stack, cert);  // room reserved above
  }
  return p7.release();
}

void forgetSharedCertificates() { cache().clear(); }

}  // namespace PDF_Sealmark
