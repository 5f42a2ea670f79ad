#include "pdfsealmark/http/HttpWinInet.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <stdexcept>

#include "pdfsealmark/http/HttpPost.h"

namespace le {

using namespace platform;

namespace {

// WinInet's buffer size for header texts and for pieces of the body.
constexpr std::uint32_t kBufferSize = 40000;

// Closes a request handle on every way out of request().
class RequestHandle {
 public:
  explicit RequestHandle(WinInetApi& api) : api_(api) {}
  ~RequestHandle() {
    if (handle) api_.InternetCloseHandle(handle);
  }
  RequestHandle(const RequestHandle&) = delete;
  RequestHandle& operator=(const RequestHandle&) = delete;
  HINTERNET handle = nullptr;

 private:
  WinInetApi& api_;
};

}  // namespace

HttpWinInet::HttpWinInet() : HttpWinInet(winInet()) {}

HttpWinInet::HttpWinInet(WinInetApi& api)
    : requestFlags(INTERNET_FLAG_RELOAD), internetHandle(nullptr), connectHandle(nullptr), api_(api) {}

HttpWinInet::~HttpWinInet() { close(); }

void HttpWinInet::close() {
  path.clear();
  requestFlags = INTERNET_FLAG_RELOAD;
  if (internetHandle) api_.InternetCloseHandle(internetHandle);
  if (connectHandle) api_.InternetCloseHandle(connectHandle);
  internetHandle = nullptr;
  connectHandle = nullptr;
}

int HttpWinInet::open(const std::string& url) {
  try {
    close();
    std::string host;
    std::string port;
    const int scheme = splitUrl(url, host, path, port);
    if (scheme < 0) return kBadUrl;
    if (scheme == 1) requestFlags |= INTERNET_FLAG_SECURE;
    internetHandle = api_.InternetOpenA("KV-PdsModule", INTERNET_OPEN_TYPE_PRECONFIG, nullptr, nullptr, 0);
    if (!internetHandle) return kInternetOpenFailed;
    std::uint16_t portNumber = 80;
    if (!port.empty()) {
      portNumber = static_cast<std::uint16_t>(std::atoi(port.c_str()));
    } else if (scheme == 1) {
      portNumber = 443;
    }
    connectHandle = api_.InternetConnectA(internetHandle, host.c_str(), portNumber, nullptr, nullptr,
                                          INTERNET_SERVICE_HTTP, 0, 0);
    if (!connectHandle) {
      close();
      return kInternetConnectFailed;
    }
    return kOk;
  } catch (const std::exception& e) {
    lastError = e.what();
    return kStdException;
  } catch (abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind, or the process aborts
  } catch (...) {
    lastError = "le::HttpWinInet::open : unkown exception.";
    return kUnknownException;
  }
}

int HttpWinInet::request(const std::vector<unsigned char>& body, std::vector<unsigned char>& response,
                         const std::string& headers) {
  if (!connectHandle) return kNotOpen;
  RequestHandle requestHandle(api_);
  try {
    // With no body WinInet is left its default verb and gets no body.
    const char* verb = body.empty() ? nullptr : "POST";
    requestHandle.handle =
        api_.HttpOpenRequestA(connectHandle, verb, path.c_str(), nullptr, nullptr, nullptr, requestFlags, 0);
    if (!requestHandle.handle) return kOpenRequestFailed;

    if (body.size() > 0xFFFFFFFFu) throw std::length_error("request body too large");
    if (!api_.HttpSendRequestA(requestHandle.handle, headers.empty() ? nullptr : headers.c_str(),
                               static_cast<std::uint32_t>(headers.size()),
                               body.empty() ? nullptr : body.data(),
                               static_cast<std::uint32_t>(body.size()))) {
      return kSendRequestFailed;
    }

    char buffer[kBufferSize];
    std::uint32_t length = kBufferSize;
    if (!api_.HttpQueryInfoA(requestHandle.handle, HTTP_QUERY_STATUS_CODE, buffer, &length, nullptr)) {
      return kReadFailed;
    }
    buffer[kBufferSize - 1] = '\0';
    const int status = std::atoi(buffer);
    if (status != 200) {
      lastError = "Http status error = " + std::to_string(status);
      return kStatusNot200;
    }

    length = kBufferSize;
    if (api_.HttpQueryInfoA(requestHandle.handle, HTTP_QUERY_CONTENT_LENGTH, buffer, &length, nullptr)) {
      buffer[kBufferSize - 1] = '\0';
      const long contentLength = std::atol(buffer);
      if (contentLength == 0) return kContentLengthZero;
      // The length comes from the peer: refuse to allocate for a negative or
      // absurd one, as the allocator would.
      if (contentLength < 0 || static_cast<unsigned long>(contentLength) > kMaxResponseBytes) {
        throw std::length_error("Content-Length out of range");
      }
      response.resize(static_cast<std::size_t>(contentLength));
      std::uint32_t read = 0;
      if (!api_.InternetReadFile(requestHandle.handle, response.data(),
                                 static_cast<std::uint32_t>(contentLength), &read)) {
        return kReadFailed;
      }
      if (read < static_cast<std::uint32_t>(contentLength)) return kShortBody;
      return kOk;
    }

    // No Content-Length: the body runs to the end of the transfer.
    std::size_t total = 0;
    for (;;) {
      std::uint32_t read = 0;
      if (!api_.InternetReadFile(requestHandle.handle, buffer, kBufferSize, &read)) return kReadFailed;
      if (read == 0) break;
      if (total + read > kMaxResponseBytes) throw std::length_error("response body too large");
      response.resize(total + read);
      std::copy(buffer, buffer + read, response.begin() + static_cast<std::ptrdiff_t>(total));
      total += read;
    }
    return kOk;
  } catch (const std::exception& e) {
    lastError = e.what();
    return kStdException;
  } catch (abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind, or the process aborts
  } catch (...) {
    lastError = "le::HttpWinInet::request : unkown exception.";
    return kUnknownException;
  }
}

}  // namespace le
