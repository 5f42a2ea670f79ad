// Internal: one HTTP POST exchange, over WinInet or over a plain socket.
//
// Callers (the OCSP check, the RFC 3161 client) try the WinInet path first
// and fall back to the socket path with the same arguments:
//
//   std::vector<unsigned char> response;
//   if (!le::HttpWinInetPost(url, headers, body, response) &&
//       !le::HttpConnectPost(url, headers, body, response)) {
//     // no answer
//   }
//
// Each exchange uses a connection of its own; nothing is kept between two.
// Inside the transport failures are negative result codes (ResultCode); the
// entry points reduce them to a bool.
#ifndef PDFSEALMARK_HTTP_HTTPPOST_H
#define PDFSEALMARK_HTTP_HTTPPOST_H

#include <cstddef>
#include <string>
#include <vector>

namespace le {

// Result codes of le::HttpWinInet and le::HttpConnect.  The same number
// means a different thing on the two paths; only the sign counts above them.
enum ResultCode {
  kOk = 0,
  kSocketsNotReady = -1000,             // socket: WSAStartup had failed
  kInternetOpenFailed = -1001,          // WinInet: InternetOpenA
  kSocketStatusNot200 = -1001,          // socket: the status isn't 200
  kInternetConnectFailed = -1002,       // WinInet: InternetConnectA
  kSocketNoContentLength = -1002,       // socket: no usable Content-Length
  kOpenRequestFailed = -1003,           // WinInet: HttpOpenRequestA
  kSocketHttpsRefused = -1003,          // socket: the URL is https
  kHostNotFound = -1004,                // socket: the name didn't resolve
  kSendRequestFailed = -1005,           // WinInet: HttpSendRequestA
  kSocketFailed = -1005,                // socket: socket()
  kReadFailed = -1006,                  // WinInet: HttpQueryInfoA (status) or InternetReadFile
  kConnectFailed = -1006,               // socket: connect()
  kBadUrl = -2001,                      // le::splitUrl gave -1
  kNotOpen = -2002,                     // request without a successful open
  kContentLengthZero = -2003,           // WinInet: Content-Length 0
  kShortBody = -2004,                   // fewer bytes than Content-Length, or no body
  kStatusNot200 = -2005,                // WinInet: the status isn't 200
  kStdException = -9998,
  kUnknownException = -9999,
};

// The most body bytes either path keeps.  The expected answers (OCSP and
// time-stamp responses) are a few kilobytes; a peer announcing or sending
// more fails the exchange instead of exhausting memory.
constexpr std::size_t kMaxResponseBytes = 16u * 1024u * 1024u;

// Splits "scheme://host:port/path?query".  Result 1 for https, 0 for http or
// a URL without a scheme (and without any ':'), -1 for anything else, in
// which case no output is touched.  Only the scheme is compared without
// regard to case; the parts keep theirs.  path and port stay as they were
// when the URL has no such part.
int splitUrl(const std::string& url, std::string& host, std::string& path, std::string& port);

// One exchange each.  True when it ended with a result code of 0 or more
// and response isn't empty.  response is overwritten, not cleared first.
bool HttpWinInetPost(const char* url, const std::string& headers, const std::vector<unsigned char>& request,
                     std::vector<unsigned char>& response);
bool HttpConnectPost(const char* url, const std::string& headers, const std::vector<unsigned char>& request,
                     std::vector<unsigned char>& response);

}  // namespace le

#endif
