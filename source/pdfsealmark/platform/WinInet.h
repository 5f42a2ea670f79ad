// Internal: the WinInet operations the HTTP transport calls.
//
// The transport is written against these seven calls with WinInet's meaning,
// so that it reads like the exchange it makes.  On Linux one implementation
// stands behind them, over libcurl (winInet()); a test can hand
// le::HttpWinInet an implementation of its own.
//
// What the libcurl implementation does:
//   - http and https only; proxies from the environment as libcurl reads them
//     (http_proxy, HTTPS_PROXY, ALL_PROXY, NO_PROXY);
//   - TLS verified against the system's CAs, or against SSL_CERT_FILE and
//     SSL_CERT_DIR when those are set, as OpenSSL's own default paths do;
//   - every request on a fresh connection, nothing cached, no redirects
//     followed;
//   - HttpSendRequestA returns once the response's header block has arrived;
//     HttpQueryInfoA gives the status and the Content-Length as text, as the
//     server sent them; InternetReadFile then streams the body.
//   - A peer that sends nothing for kIdleTimeoutSeconds ends the exchange, and
//     a body above kMaxBodyBytes fails the read: the peer is not trusted.
#ifndef PDFSEALMARK_PLATFORM_WININET_H
#define PDFSEALMARK_PLATFORM_WININET_H

#include <cstdint>

namespace le {
namespace platform {

using HINTERNET = void*;

constexpr std::uint32_t INTERNET_OPEN_TYPE_PRECONFIG = 0;
constexpr std::uint32_t INTERNET_SERVICE_HTTP = 3;
constexpr std::uint32_t INTERNET_FLAG_RELOAD = 0x80000000u;
constexpr std::uint32_t INTERNET_FLAG_SECURE = 0x00800000u;
constexpr std::uint16_t INTERNET_INVALID_PORT_NUMBER = 0;
constexpr std::uint32_t HTTP_QUERY_CONTENT_LENGTH = 5;
constexpr std::uint32_t HTTP_QUERY_STATUS_CODE = 19;

constexpr long kIdleTimeoutSeconds = 60;
// No exchange lasts longer than this, however slowly a peer trickles:
// 120 s.  Tests shorten it to see the limit work.
long exchangeDeadlineSeconds();
void setExchangeDeadlineSeconds(long seconds);

// atoi as the C runtime of the platform this layer stands in for has it:
// leading blanks, a sign, digits, and overflow saturating at INT_MAX or
// INT_MIN instead of wrapping (glibc's atoi wraps "4294967496" to 200).
inline int saturatingAtoi(const char* text) {
  while (*text == ' ' || *text == '\t' || *text == '\n' || *text == '\r' || *text == '\v' || *text == '\f')
    ++text;
  const bool negative = *text == '-';
  if (*text == '-' || *text == '+') ++text;
  long long value = 0;
  for (; *text >= '0' && *text <= '9'; ++text) {
    value = value * 10 + (*text - '0');
    if (value > 2147483648LL) value = 2147483648LL;
  }
  if (negative) return static_cast<int>(-value);
  return value > 2147483647LL ? 2147483647 : static_cast<int>(value);
}
constexpr std::uint64_t kMaxBodyBytes = 16u * 1024u * 1024u;

class WinInetApi {
 public:
  virtual ~WinInetApi() = default;

  // A session; agent is the User-Agent of every request made under it.
  virtual HINTERNET InternetOpenA(const char* agent, std::uint32_t accessType, const char* proxy,
                                  const char* proxyBypass, std::uint32_t flags) = 0;
  // A connection to server:port.  Port INTERNET_INVALID_PORT_NUMBER means the
  // service's default (443 for a request opened with INTERNET_FLAG_SECURE).
  // Fails for an empty server name.  No network traffic happens yet.
  virtual HINTERNET InternetConnectA(HINTERNET internet, const char* server, std::uint16_t port,
                                     const char* user, const char* password, std::uint32_t service,
                                     std::uint32_t flags, std::uintptr_t context) = 0;
  // A request; a null verb means GET.  Fails when server, port and object
  // name don't make a URL.
  virtual HINTERNET HttpOpenRequestA(HINTERNET connect, const char* verb, const char* objectName,
                                     const char* version, const char* referrer, const char** acceptTypes,
                                     std::uint32_t flags, std::uintptr_t context) = 0;
  // Sends the request with the extra header lines (joined by CR LF) and the
  // body, and waits for the response's header block.
  virtual bool HttpSendRequestA(HINTERNET request, const char* headers, std::uint32_t headersLength,
                                const void* optional, std::uint32_t optionalLength) = 0;
  // Writes the asked header as NUL-terminated text; *bufferLength is the
  // buffer's size on entry and the text's length on return.  False when the
  // header is absent or the buffer too small.
  virtual bool HttpQueryInfoA(HINTERNET request, std::uint32_t infoLevel, void* buffer,
                              std::uint32_t* bufferLength, std::uint32_t* index) = 0;
  // Reads up to toRead bytes of the body, waiting until that many arrived or
  // the body ended; *read is 0 at its end.  False when the transfer failed.
  virtual bool InternetReadFile(HINTERNET file, void* buffer, std::uint32_t toRead, std::uint32_t* read) = 0;
  virtual bool InternetCloseHandle(HINTERNET handle) = 0;
};

// The implementation over libcurl; lives for the whole process.
WinInetApi& winInet();

}  // namespace platform
}  // namespace le

#endif
