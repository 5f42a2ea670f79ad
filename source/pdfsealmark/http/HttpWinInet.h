// Internal: one HTTP client over the platform's WinInet operations, the
// first choice of every exchange and the only one that does https.
//
//   le::HttpWinInet client;
//   if (client.open("https://tsa.example/tsr") == 0 &&
//       client.request(body, response, "Content-Type: application/timestamp-query") >= 0) { ... }
//
// States: closed (no handles), half open (session only, after a failed
// connect step), connected.  request works only when connected and leaves
// the state as it is.  Results are the codes of le::ResultCode.
#ifndef PDFSEALMARK_HTTP_HTTPWININET_H
#define PDFSEALMARK_HTTP_HTTPWININET_H

#include <cstdint>
#include <string>
#include <vector>

#include "pdfsealmark/platform/WinInet.h"

namespace le {

class HttpWinInet {
 public:
  HttpWinInet();
  // Uses api instead of the platform's own operations; api must outlive the
  // object.
  explicit HttpWinInet(platform::WinInetApi& api);
  ~HttpWinInet();
  HttpWinInet(const HttpWinInet&) = delete;
  HttpWinInet& operator=(const HttpWinInet&) = delete;

  int open(const std::string& url);
  // POSTs body (a GET-like default request when it is empty) with the extra
  // header lines; response receives the body of a 200 answer.
  int request(const std::vector<unsigned char>& body, std::vector<unsigned char>& response,
              const std::string& headers);
  // Closes both handles; any time, any number of times.  lastError stays.
  void close();

  const std::string& getLastError() const { return lastError; }

 private:
  std::string lastError;
  std::string path;
  std::uint32_t requestFlags;
  platform::HINTERNET internetHandle;
  platform::HINTERNET connectHandle;
  platform::WinInetApi& api_;
};

}  // namespace le

#endif
