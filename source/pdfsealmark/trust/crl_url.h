// Internal: where the CRLs of a certificate are, as URLs.
//
// The URLs come from the cRLDistributionPoints extension (RFC 5280,
// 4.2.1.13).  A URI name is taken as it stands; a directory name becomes an
// LDAP URL that asks for the certificateRevocationList of that entry, in
// front of which goes each server of the caller's list:
//
//   ldapCrlQuery(C=JP, O=Acme, CN=Root)
//     == "CN=Root,O=Acme,C=JP?certificateRevocationList;binary"
//   crlUrls(cert, "ldap://dir1/,ldap://dir2/")   // one URL per server
//   crlUrls(cert, nullptr)                        // "ldap:/CN=Root,..."
#ifndef PDFSEALMARK_TRUST_CRL_URL_H
#define PDFSEALMARK_TRUST_CRL_URL_H

#include <openssl/x509.h>

#include <string>
#include <vector>

namespace PDF_Sealmark {

// The schemes a CRL can be fetched from, with their numbers.
enum CrlScheme { kSchemeHttp = 0, kSchemeHttps = 1, kSchemeLdap = 2, kSchemeFtp = 3, kSchemeFile = 4 };

// Index of the scheme that url begins with ("http:", "https:", "ldap:",
// "ftp:", "file:", compared with case), or -1.  -1 for null.
int schemeIndex(const char* url);

// The directory name as an LDAP DN, last attribute first, followed by the
// CRL attribute selector.  Values in a UTF8String go out in code page 932;
// other string types byte for byte.  Nothing is escaped.
std::string ldapCrlQuery(const X509_NAME* name);

// The pieces of a comma-separated list, empty pieces dropped, not trimmed.
// A text without any comma gives no piece at all.
std::vector<std::string> splitServerList(const char* text);

// The CRL URLs of cert, in extension order, as heap copies that the caller
// releases with free.
std::vector<const char*> crlUrls(const X509* cert, const char* ldapServers);

// Releases a list made by crlUrls when it goes out of scope.
class CrlUrlList {
 public:
  CrlUrlList() = default;
  explicit CrlUrlList(std::vector<const char*> urls) : urls_(std::move(urls)) {}
  ~CrlUrlList();
  CrlUrlList(const CrlUrlList&) = delete;
  CrlUrlList& operator=(const CrlUrlList&) = delete;
  const std::vector<const char*>& urls() const { return urls_; }
  // Takes over a heap copy (freed at once should the list fail to grow).
  void add(const char* url);
  // Hands the list over; the object is empty afterwards.
  std::vector<const char*> release() {
    std::vector<const char*> out;
    out.swap(urls_);
    return out;
  }

 private:
  std::vector<const char*> urls_;
};

}  // namespace PDF_Sealmark

#endif
