#include "pdfsealmark/http/HttpConnect.h"

#include <arpa/inet.h>
#include <cxxabi.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "pdfsealmark/http/HttpPost.h"
#include "pdfsealmark/platform/WinInet.h"
#include "pdfsealmark/platform/Winsock.h"

namespace le {

using platform::INVALID_SOCKET;
using platform::SOCKET;
using platform::SOCKET_ERROR;

namespace {

// The stack buffer of one recv.
constexpr std::size_t kReceiveBuffer = 1024;

// Closes the socket on every way out of request().
class SocketOwner {
 public:
  explicit SocketOwner(SOCKET s) : s_(s) {}
  ~SocketOwner() {
    if (s_ != INVALID_SOCKET) platform::closesocket(s_);
  }
  SocketOwner(const SocketOwner&) = delete;
  SocketOwner& operator=(const SocketOwner&) = delete;
  SOCKET get() const { return s_; }

 private:
  SOCKET s_;
};

bool startsWith(const std::string& text, const char* prefix) { return text.rfind(prefix, 0) == 0; }

}  // namespace

HttpConnect::HttpConnect() : socketsReady(false), opened(false), address() {
  reset();
  socketsReady = platform::WSAStartup(2) == 0;
}

HttpConnect::~HttpConnect() {
  reset();
  if (socketsReady) platform::WSACleanup();
}

void HttpConnect::reset() {
  path.clear();
  host.clear();
  port.clear();
  opened = false;
  std::memset(&address, 0, sizeof address);
}

int HttpConnect::open(const std::string& url) {
  try {
    if (!socketsReady) return kSocketsNotReady;
    reset();
    address.sin_family = AF_INET;
    const int scheme = splitUrl(url, host, path, port);
    if (scheme < 0) return kBadUrl;
    if (scheme == 1) return kSocketHttpsRefused;  // before any name is looked up
    in_addr first{};
    if (!platform::gethostbyname(host.c_str(), first)) return kHostNotFound;
    std::memcpy(&address.sin_addr, &first, sizeof first);
    if (!port.empty()) {
      address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(port.c_str())));
    } else {
      std::uint16_t service = 0;
      address.sin_port = platform::getservbyname("http", "tcp", service) ? service : htons(80);
    }
    // The Host line always names the port in use, 80 included.
    port = std::to_string(ntohs(address.sin_port));
    opened = true;
    return kOk;
  } catch (const std::exception&) {
    return kStdException;
  } catch (abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind, or the process aborts
  } catch (...) {
    return kUnknownException;
  }
}

void HttpConnect::buildRequestHeader(const char* headers, std::string& text,
                                     const std::vector<unsigned char>& body) const {
  // No blank after the colons: the peers this client was written for take it.
  text = "POST " + path + " HTTP/1.1\r\n";
  text += "Host:" + host + ":" + port + "\r\n";
  text += "User-Agent:KV-PdsModule\r\n";
  if (headers) {
    text += headers;
    text += "\r\n";
  }
  text += "Content-Length:" + std::to_string(body.size()) + "\r\n";
  text += "Connection:close\r\n";
  text += "\r\n";
}

int HttpConnect::request(const std::vector<unsigned char>& body, std::vector<unsigned char>& response,
                         std::string headers) {
  if (!socketsReady) return kSocketsNotReady;
  if (!opened) return kNotOpen;
  try {
    SocketOwner s(platform::socket(AF_INET, SOCK_STREAM, 0));
    if (s.get() == INVALID_SOCKET) return kSocketFailed;
    if (platform::connect(s.get(), reinterpret_cast<const sockaddr*>(&address), 16) == SOCKET_ERROR)
      return kConnectFailed;

    std::string text;
    buildRequestHeader(headers.empty() ? nullptr : headers.c_str(), text, body);
    platform::send(s.get(), text.data(), text.size(), 0);
    if (!body.empty()) platform::send(s.get(), reinterpret_cast<const char*>(body.data()), body.size(), 0);

    // Everything until the peer closes (or fails: the two aren't told apart).
    std::vector<unsigned char> received;
    char buffer[kReceiveBuffer];
    for (;;) {
      const int n = platform::recv(s.get(), buffer, sizeof buffer, 0);
      if (n <= 0) break;
      if (received.size() + static_cast<std::size_t>(n) > kMaxResponseBytes) {
        throw std::length_error("response too large");
      }
      received.insert(received.end(), buffer, buffer + n);
    }
    return parseResponse(received, response);
  } catch (const std::exception&) {
    return kStdException;
  } catch (abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind, or the process aborts
  } catch (...) {
    return kUnknownException;
  }
}

int HttpConnect::parseResponse(const std::vector<unsigned char>& received,
                               std::vector<unsigned char>& response) {
  int status = -1;
  int contentLength = 0;
  int result = kOk;
  std::size_t lineStart = 0;
  std::size_t pos = 0;
  const std::size_t size = received.size();

  // CR, LF and CR LF each end a line; an empty line ends the header block.
  while (pos < size) {
    const unsigned char c = received[pos];
    if (c != '\r' && c != '\n') {
      ++pos;
      continue;
    }
    const std::size_t endLength = (c == '\r' && pos + 1 < size && received[pos + 1] == '\n') ? 2 : 1;
    if (pos == lineStart) {
      pos += endLength;
      break;
    }
    std::string line(received.begin() + static_cast<std::ptrdiff_t>(lineStart),
                     received.begin() + static_cast<std::ptrdiff_t>(pos));
    lineStart = pos + endLength;
    pos = lineStart;
    for (char& ch : line) ch = static_cast<char>(std::tolower(static_cast<unsigned char>(ch)));

    if (startsWith(line, "http")) {
      const std::size_t blank = line.find(' ');
      status = le::platform::saturatingAtoi(blank == std::string::npos ? "" : line.c_str() + blank + 1);
    } else if (startsWith(line, "content-length:")) {
      std::size_t value = 15;
      // at(): a line that ends with the colon throws std::out_of_range.
      if (line.at(value) == ' ') ++value;
      contentLength = le::platform::saturatingAtoi(line.c_str() + value);
    } else if (startsWith(line, "content-type:")) {
      std::size_t value = 13;
      if (line.at(value) == ' ') ++value;
    }
  }

  const std::size_t left = size - pos;
  // A negative length, taken as unsigned, counts as too long.
  const std::size_t wanted = static_cast<unsigned int>(contentLength);
  if (status != 200) result = kSocketStatusNot200;
  if (contentLength == 0) result = kSocketNoContentLength;
  if (left < wanted) result = kShortBody;
  if (left == 0) {
    response.clear();
    return kShortBody;
  }
  if (left >= wanted) {
    response.assign(received.begin() + static_cast<std::ptrdiff_t>(pos),
                    received.begin() + static_cast<std::ptrdiff_t>(pos + wanted));
  }
  return result;
}

}  // namespace le
