// Internal: the platform's retrieval of a CRL by URL.
//
// The CRL check calls this under the name of the CryptoAPI operation it
// stands for (CryptRetrieveObjectByUrlA with CONTEXT_OID_CRL and
// CRYPT_WIRE_ONLY_RETRIEVAL), so that it reads the same on every platform.
// On Linux one implementation stands behind it, over libcurl
// (urlRetrieval()); a test can put another behind the same interface.
//
// What the libcurl implementation does:
//   - "http:", "https:", "ldap:", "ftp:" and "file:" URLs, nothing else;
//   - a "file:" URL names a local path ("file:///p", "file://localhost/p",
//     "file:/p"); only a regular file is read, opened non-blocking, so a
//     FIFO or a device fails at once instead of holding the caller;
//   - every retrieval on a fresh connection, nothing cached, and over HTTP
//     "Cache-Control: no-cache" so that no proxy answers from its cache;
//   - gives up after the time-out, and fails a transfer that brings more
//     than kMaxCrlBytes: the source is not trusted;
//   - an LDAP URL names the attribute it wants ("ldap://host:port/DN?attr");
//     the attribute's first value is the result.  A URL without a host
//     ("ldap:/DN?...") names no directory and fails;
//   - no check of what the bytes are: the caller decodes them.
#ifndef PDFSEALMARK_PLATFORM_CRL_RETRIEVE_H
#define PDFSEALMARK_PLATFORM_CRL_RETRIEVE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace PDF_Sealmark {
namespace platform {

constexpr std::uint32_t CONTEXT_OID_CRL = 2;
constexpr std::uint32_t CRYPT_WIRE_ONLY_RETRIEVAL = 4;

// The most bytes one retrieval keeps.  Real CRLs of large CAs reach tens of
// megabytes; a source that sends more is refused.
constexpr std::size_t kMaxCrlBytes = 64u * 1024u * 1024u;

class UrlRetrievalApi {
 public:
  virtual ~UrlRetrievalApi() = default;
  // Fetches the object at url fresh from its source within timeoutMs and
  // puts its encoded bytes into encoded.  False when that failed; encoded
  // is then empty.
  virtual bool CryptRetrieveObjectByUrlA(const char* url, std::uint32_t objectType, std::uint32_t flags,
                                         std::uint32_t timeoutMs, std::vector<unsigned char>& encoded) = 0;
};

// The implementation in use: libcurl, unless a test installed another.
UrlRetrievalApi& urlRetrieval();
// Puts api in place of the libcurl implementation (null restores it); gives
// the one that was in use.  For tests.
UrlRetrievalApi* setUrlRetrieval(UrlRetrievalApi* api);

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
