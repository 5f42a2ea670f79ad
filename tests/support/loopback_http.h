// A one-thread HTTP(S) server on 127.0.0.1 for the transport's tests.
//
// It listens on an ephemeral port, and for each connection reads one request
// (header block and Content-Length body), records it, and writes the bytes
// its handler gives, exactly as given, before closing.  So a test can answer
// with anything: broken status lines, bodies longer or shorter than
// announced, LF-only or CR-only line ends, or no answer at all.
//
//   sealtest::LoopbackHttpServer server([](const sealtest::HttpRequest&) {
//     return sealtest::Reply::bytes("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok");
//   });
//   le::HttpConnectPost(server.url("/tsr").c_str(), "", body, response);
//
// The server stops by itself: after maxConnections connections, after
// lifetimeSeconds, or when the object dies (the thread is joined).  Every
// socket it reads carries a time-out, so no client can hold it.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace sealtest {

struct HttpRequest {
  std::string head;  // request line and header lines, as received
  std::string requestLine;
  std::vector<std::pair<std::string, std::string>> headers;  // name as sent, value trimmed
  std::vector<unsigned char> body;

  // The first header of that name (any case), or "" when absent.
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

struct Reply {
  std::string bytes;            // written as they stand, then the connection closes
  bool closeAtOnce = false;     // close without a byte of answer

  static Reply of(std::string bytes) { return Reply{std::move(bytes), false}; }
  static Reply nothing() { return Reply{std::string(), true}; }
  // A 200 answer with a Content-Length.
  static Reply ok(const std::string& body, const std::string& contentType = "application/octet-stream");
};

class LoopbackHttpServer {
 public:
  using Handler = std::function<Reply(const HttpRequest&)>;

  struct Options {
    // TLS with this certificate chain and key (PEM files) when set.
    std::string tlsCertFile;
    std::string tlsKeyFile;
    int maxConnections = 32;
    int lifetimeSeconds = 120;
  };

  explicit LoopbackHttpServer(Handler handler);
  LoopbackHttpServer(Handler handler, Options options);
  ~LoopbackHttpServer();
  LoopbackHttpServer(const LoopbackHttpServer&) = delete;
  LoopbackHttpServer& operator=(const LoopbackHttpServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:PORT" + path (https with TLS).
  std::string url(const std::string& path = "/") const;
  // The requests read so far, oldest first.
  std::vector<HttpRequest> requests() const;
  // Connections accepted so far, including those closed at once.
  int connections() const { return connections_.load(); }

 private:
  void serve();
  void handle(int fd);

  Handler handler_;
  Options options_;
  int listenFd_ = -1;
  int port_ = 0;
  void* tlsContext_ = nullptr;  // SSL_CTX*
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  mutable std::mutex mutex_;
  std::vector<HttpRequest> requests_;
  std::thread thread_;
};

// A port on 127.0.0.1 where nothing listens (bound once, then released).
int unusedLoopbackPort();

}  // namespace sealtest
