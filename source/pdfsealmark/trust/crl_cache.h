// Internal: the CRL cache on disk.
//
// One file per URL in the caller's directory, named by the SHA-1 of the URL
// text in upper-case hex with ".crl" behind it, holding the CRL's DER bytes
// exactly as retrieved.  A file serves for six hours after it was written,
// and only while its CRL verifies under the issuer's key and hasn't passed
// its nextUpdate; every use reads and checks it again.
//
//   saveCachedCRL(bytes, url, "/var/cache/crl");
//   std::vector<unsigned char> again = loadCachedCRL(url, issuer, "/var/cache/crl");
#ifndef PDFSEALMARK_TRUST_CRL_CACHE_H
#define PDFSEALMARK_TRUST_CRL_CACHE_H

#include <openssl/x509.h>

#include <ctime>
#include <string>
#include <vector>

namespace PDF_Sealmark {

// How long a cache file serves after its last modification.
constexpr std::time_t kCrlCacheMaxAgeSeconds = 21600;

// "<40 hex digits of SHA-1(url)>.crl"; empty for a null url.
std::string crlCacheName(const char* url);

// cacheDir, then "/" unless it ends in "/" or "\", then the file name.
std::string crlCachePath(const char* cacheDir, const char* url);

// The bytes of the cache file for url, or nothing when there is no usable
// one: missing, not a regular file (a link or a FIFO is not opened),
// unreadable, no CRL, not signed by issuer's key (so a null issuer never
// reads the cache), past its nextUpdate (or without one), older than
// kCrlCacheMaxAgeSeconds at the moment now, or empty.
std::vector<unsigned char> loadCachedCRL(const char* url, X509* issuer, const char* cacheDir);
std::vector<unsigned char> loadCachedCRL(const char* url, X509* issuer, const char* cacheDir, std::time_t now);

// Writes bytes as the cache file for url, replacing any older one (or a
// link, a FIFO, anything planted at that name) by a new file of mode 0600,
// through a temporary file renamed into place.  Does nothing for a null
// cacheDir; a file that can't be written is no failure.
void saveCachedCRL(const std::vector<unsigned char>& bytes, const char* url, const char* cacheDir);

}  // namespace PDF_Sealmark

#endif
