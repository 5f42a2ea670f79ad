#include "pdfsealmark/trust/crl_cache.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/platform/atomic_file.h"
#include "pdfsealmark/platform/crl_retrieve.h"

namespace PDF_Sealmark {

namespace {

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The whole file, or false when it can't be read or is larger than any CRL
// that a retrieval would have kept.
bool readAll(std::FILE* f, std::vector<unsigned char>& out) {
  out.clear();
  unsigned char buffer[65536];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) {
    if (out.size() + n > platform::kMaxCrlBytes) return false;
    out.insert(out.end(), buffer, buffer + n);
  }
  return std::ferror(f) == 0;
}

}  // namespace

std::string crlCacheName(const char* url) {
  if (url == nullptr) return {};
  const EVP_MD* sha1 = EVP_get_digestbyname("sha1");
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  // The digest covers the URL exactly as listed, without the ";binary"
  // that the retrieval may add to an LDAP URL.
  if (sha1 == nullptr || EVP_Digest(url, std::strlen(url), digest, &length, sha1, nullptr) != 1) return {};
  return bytesToHex(digest, static_cast<int>(length), false) + ".crl";
}

std::string crlCachePath(const char* cacheDir, const char* url) {
  std::string path = cacheDir ? cacheDir : "";
  if (path.empty() || (path.back() != '/' && path.back() != '\\')) path += '/';
  return path + crlCacheName(url);
}

std::vector<unsigned char> loadCachedCRL(const char* url, X509* issuer, const char* cacheDir) {
  return loadCachedCRL(url, issuer, cacheDir, std::time(nullptr));
}

std::vector<unsigned char> loadCachedCRL(const char* url, X509* issuer, const char* cacheDir,
                                         std::time_t now) {
  if (url == nullptr || cacheDir == nullptr) return {};
  const std::string path = crlCachePath(cacheDir, url);
  // Only a regular file of that very name: the directory may be shared, and
  // a FIFO planted there would block the open, a link lead elsewhere.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return {};
  File file(::fdopen(fd, "rb"));
  if (!file) {
    ::close(fd);
    return {};
  }
  struct stat status;
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return {};
  std::vector<unsigned char> bytes;
  if (!readAll(file.get(), bytes) || bytes.empty()) return {};

  const unsigned char* p = bytes.data();
  ossl::UniquePtr<X509_CRL> crl(d2i_X509_CRL(nullptr, &p, static_cast<long>(bytes.size())));
  if (!crl) return {};
  // Only a CRL that the issuer signed may stand in for a retrieval: the
  // directory may be shared, and what a retrieval stored went in unchecked.
  if (issuer == nullptr) return {};
  ossl::UniquePtr<EVP_PKEY> key(X509_get_pubkey(issuer));
  if (!key || X509_CRL_verify(crl.get(), key.get()) <= 0) return {};
  // A CRL without nextUpdate gives no moment at which it is stale; it is
  // fetched again rather than trusted for six hours.
  const ASN1_TIME* nextUpdate = X509_CRL_get0_nextUpdate(crl.get());
  if (nextUpdate == nullptr || X509_cmp_current_time(nextUpdate) < 0) return {};
  if (status.st_mtime < now - kCrlCacheMaxAgeSeconds) return {};
  return bytes;
}

void saveCachedCRL(const std::vector<unsigned char>& bytes, const char* url, const char* cacheDir) {
  if (cacheDir == nullptr) return;
  const std::string path = crlCachePath(cacheDir, url);
  // Replaced whole, never written through a link planted at the name.
  // Mode 0600: what a file: URL named may be private, and the cache must
  // not pass it on.  Without a cache the CRL is used all the same.
  int err = 0;
  le::platform::replaceFile(path, bytes.data(), bytes.size(), 0600, err);
}

}  // namespace PDF_Sealmark
