// Internal: fetching one CRL by URL, for the revocation check.
#ifndef PDFSEALMARK_TRUST_CRL_CHECK_H
#define PDFSEALMARK_TRUST_CRL_CHECK_H

#include <cstdint>
#include <vector>

namespace PDF_Sealmark {

// Time-out of one retrieval.
constexpr std::uint32_t kCrlRetrievalTimeoutMs = 30000;

// The encoded CRL at url, fresh from its source, or nothing: a null url, a
// scheme other than http:, https:, ldap:, ftp: and file:, a failed
// retrieval and an empty object all give an empty vector.  An "ldap:" URL
// gets ";binary" behind it unless it ends so.
std::vector<unsigned char> retrieveCRL(const char* url);

}  // namespace PDF_Sealmark

#endif
