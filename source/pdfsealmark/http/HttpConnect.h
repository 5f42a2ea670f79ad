// Internal: one HTTP client over a plain TCP socket (IPv4, http only), the
// fallback when the WinInet path failed.
//
//   le::HttpConnect client;
//   if (client.open("http://127.0.0.1:8080/tsr") == 0 &&
//       client.request(body, response, "Content-Type: application/timestamp-query") >= 0) { ... }
//
// open resolves the host once; each request opens, uses and closes a socket
// of its own, sends "Connection:close" and reads until the peer closes.  The
// body of the answer is delimited by Content-Length alone.  Results are the
// codes of le::ResultCode.
#ifndef PDFSEALMARK_HTTP_HTTPCONNECT_H
#define PDFSEALMARK_HTTP_HTTPCONNECT_H

#include <netinet/in.h>

#include <string>
#include <vector>

namespace le {

class HttpConnect {
 public:
  HttpConnect();
  ~HttpConnect();
  HttpConnect(const HttpConnect&) = delete;
  HttpConnect& operator=(const HttpConnect&) = delete;

  int open(const std::string& url);
  int request(const std::vector<unsigned char>& body, std::vector<unsigned char>& response, std::string headers);
  // Forgets the URL and the peer; the socket layer stays started.
  void reset();

  // The request text up to and including the empty line; headers is null or
  // the caller's extra lines.  Uses host, path and port of the object.
  void buildRequestHeader(const char* headers, std::string& text, const std::vector<unsigned char>& body) const;
  // Judges a whole response as received and cuts out its body.
  static int parseResponse(const std::vector<unsigned char>& received, std::vector<unsigned char>& response);

  bool isOpened() const { return opened; }
  const std::string& getHost() const { return host; }
  const std::string& getPath() const { return path; }
  const std::string& getPort() const { return port; }
  const sockaddr_in& getAddress() const { return address; }

 private:
  bool socketsReady;
  bool opened;
  std::string host;
  std::string path;
  std::string port;
  sockaddr_in address;
};

}  // namespace le

#endif
