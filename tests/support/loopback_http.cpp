#include "support/loopback_http.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <openssl/ssl.h>

#include <algorithm>
#include <csignal>
#include <cctype>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace sealtest {

namespace {

constexpr std::size_t kMaxRequestBytes = 1 << 20;

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string trim(const std::string& s) {
  const std::size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// Keeps loopback traffic away from any proxy configured in the environment,
// for this process and the programs it starts.
void bypassProxiesForLoopback() {
  for (const char* name : {"no_proxy", "NO_PROXY"}) {
    const char* old = std::getenv(name);
    std::string value = old ? old : "";
    if (value.find("127.0.0.1") == std::string::npos) {
      value = value.empty() ? "127.0.0.1,localhost" : value + ",127.0.0.1,localhost";
      ::setenv(name, value.c_str(), 1);
    }
  }
}

// One accepted connection, plain or TLS.
class Connection {
 public:
  Connection(int fd, SSL_CTX* tls) : fd_(fd) {
    if (tls) {
      ssl_ = SSL_new(tls);
      if (!ssl_ || SSL_set_fd(ssl_, fd) != 1 || SSL_accept(ssl_) != 1) failed_ = true;
    }
  }
  ~Connection() {
    if (ssl_) {
      if (!failed_) SSL_shutdown(ssl_);
      SSL_free(ssl_);
    }
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool failed() const { return failed_; }
  long read(char* buffer, std::size_t size) {
    if (ssl_) {
      const int n = SSL_read(ssl_, buffer, static_cast<int>(size));
      return n > 0 ? n : -1;
    }
    return ::recv(fd_, buffer, size, 0);
  }
  void writeAll(const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
      const long n = ssl_ ? SSL_write(ssl_, bytes.data() + sent, static_cast<int>(bytes.size() - sent))
                          : ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) return;
      sent += static_cast<std::size_t>(n);
    }
  }

 private:
  int fd_;
  SSL* ssl_ = nullptr;
  bool failed_ = false;
};

// Reads the header block and a Content-Length body.  False when the client
// went away or sent something we don't understand.
bool readRequest(Connection& conn, HttpRequest& request) {
  std::string data;
  char buffer[4096];
  std::size_t headEnd = std::string::npos, bodyStart = 0;
  while (headEnd == std::string::npos) {
    const long n = conn.read(buffer, sizeof buffer);
    if (n <= 0) return false;
    data.append(buffer, static_cast<std::size_t>(n));
    if (data.size() > kMaxRequestBytes) return false;
    if ((headEnd = data.find("\r\n\r\n")) != std::string::npos) {
      bodyStart = headEnd + 4;
    } else if ((headEnd = data.find("\n\n")) != std::string::npos) {
      bodyStart = headEnd + 2;
    }
  }
  request.head = data.substr(0, headEnd);
  std::size_t start = 0;
  bool first = true;
  while (start <= request.head.size()) {
    std::size_t end = request.head.find('\n', start);
    if (end == std::string::npos) end = request.head.size();
    std::string line = request.head.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (first) {
      request.requestLine = line;
      first = false;
    } else if (!line.empty()) {
      const std::size_t colon = line.find(':');
      if (colon == std::string::npos) return false;
      request.headers.emplace_back(line.substr(0, colon), trim(line.substr(colon + 1)));
    }
    start = end + 1;
  }
  const std::size_t length = static_cast<std::size_t>(std::strtoul(request.header("Content-Length").c_str(), nullptr, 10));
  if (length > kMaxRequestBytes) return false;
  std::string body = data.substr(bodyStart);
  while (body.size() < length) {
    const long n = conn.read(buffer, sizeof buffer);
    if (n <= 0) return false;
    body.append(buffer, static_cast<std::size_t>(n));
  }
  request.body.assign(body.begin(), body.begin() + static_cast<long>(length));
  return true;
}

}  // namespace

std::string HttpRequest::header(const std::string& name) const {
  const std::string wanted = lower(name);
  for (const auto& h : headers) {
    if (lower(h.first) == wanted) return h.second;
  }
  return std::string();
}

bool HttpRequest::hasHeader(const std::string& name) const {
  const std::string wanted = lower(name);
  return std::any_of(headers.begin(), headers.end(), [&](const auto& h) { return lower(h.first) == wanted; });
}

Reply Reply::ok(const std::string& body, const std::string& contentType) {
  return of("HTTP/1.1 200 OK\r\nContent-Type: " + contentType + "\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\nConnection: close\r\n\r\n" + body);
}

LoopbackHttpServer::LoopbackHttpServer(Handler handler) : LoopbackHttpServer(std::move(handler), Options()) {}

LoopbackHttpServer::LoopbackHttpServer(Handler handler, Options options)
    : handler_(std::move(handler)), options_(std::move(options)) {
  bypassProxiesForLoopback();
  // A client that hangs up early must not kill the test process when TLS
  // writes its close_notify into the closed socket.
  ::signal(SIGPIPE, SIG_IGN);
  if (!options_.tlsCertFile.empty()) {
    SSL_CTX* ctx = SSL_CTX_new(TLS_server_method());
    if (!ctx || SSL_CTX_use_certificate_chain_file(ctx, options_.tlsCertFile.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx, options_.tlsKeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
      SSL_CTX_free(ctx);
      throw std::runtime_error("cannot load the TLS certificate or key");
    }
    tlsContext_ = ctx;
  }
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = 0;
  socklen_t len = sizeof addr;
  if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::listen(listenFd_, 16) != 0 || ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    if (listenFd_ >= 0) ::close(listenFd_);
    SSL_CTX_free(static_cast<SSL_CTX*>(tlsContext_));
    throw std::runtime_error("cannot listen on 127.0.0.1");
  }
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { serve(); });
}

LoopbackHttpServer::~LoopbackHttpServer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  ::close(listenFd_);
  SSL_CTX_free(static_cast<SSL_CTX*>(tlsContext_));
}

std::string LoopbackHttpServer::url(const std::string& path) const {
  return std::string(tlsContext_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<HttpRequest> LoopbackHttpServer::requests() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

void LoopbackHttpServer::serve() {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(options_.lifetimeSeconds);
  while (!stop_ && connections_ < options_.maxConnections && std::chrono::steady_clock::now() < deadline) {
    pollfd p{listenFd_, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) continue;
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    ++connections_;
    handle(fd);
    ::close(fd);
  }
}

void LoopbackHttpServer::handle(int fd) {
  timeval timeout{};
  timeout.tv_sec = 10;
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  Connection conn(fd, static_cast<SSL_CTX*>(tlsContext_));
  if (conn.failed()) return;
  HttpRequest request;
  if (!readRequest(conn, request)) return;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
  }
  Reply reply;
  try {
    reply = handler_(request);
  } catch (const std::exception&) {
    reply = Reply::of("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 0\r\n\r\n");
  }
  if (reply.closeAtOnce) return;
  conn.writeAll(reply.bytes);
  ::shutdown(fd, SHUT_WR);
}

int unusedLoopbackPort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    if (fd >= 0) ::close(fd);
    throw std::runtime_error("cannot bind 127.0.0.1");
  }
  ::close(fd);  // bound but never listened: connections are refused
  return ntohs(addr.sin_port);
}

}  // namespace sealtest
