// The HTTP transport: URL split, the socket path's request text and response
// parser, and both clients against a loopback server that answers with
// canned bytes (and a loopback TLS server for https).
#include <arpa/inet.h>
#include <dirent.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "pdfsealmark/http/HttpConnect.h"
#include "pdfsealmark/http/HttpPost.h"
#include "pdfsealmark/http/HttpWinInet.h"
#include "support/loopback_http.h"
#include "support/test_tsa.h"
#include "support/test_util.h"

namespace {

using sealtest::HttpRequest;
using sealtest::LoopbackHttpServer;
using sealtest::Reply;
using Bytes = std::vector<unsigned char>;

Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

// A server that gives the same canned answer to every connection.
LoopbackHttpServer cannedServer(const std::string& answer) {
  return LoopbackHttpServer([answer](const HttpRequest&) { return Reply::of(answer); });
}

int openDescriptors() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d)) ++n;
    closedir(d);
  }
  return n;
}

// ---------------------------------------------------------------------------
// URL split

struct SplitCase {
  const char* url;
  int result;
  const char* host;
  const char* path;
  const char* port;
};

class SplitUrl : public ::testing::TestWithParam<SplitCase> {};

TEST_P(SplitUrl, GivesSchemeAndParts) {
  const SplitCase& c = GetParam();
  // path and port come in holding a marker: a URL without such a part must
  // leave it standing, and a refused URL must touch nothing.
  std::string host, path = "<path>", port = "<port>";
  EXPECT_EQ(le::splitUrl(c.url, host, path, port), c.result);
  EXPECT_EQ(host, c.host);
  EXPECT_EQ(path, c.path);
  EXPECT_EQ(port, c.port);
}

INSTANTIATE_TEST_SUITE_P(
    Urls, SplitUrl,
    ::testing::Values(
        SplitCase{"http://tsa.example:8080/tsr", 0, "tsa.example", "/tsr", "8080"},
        // The scheme is compared without case; the parts keep theirs.
        SplitCase{"HTTPS://TSA.Example/Path/To", 1, "TSA.Example", "/Path/To", "<port>"},
        SplitCase{"hTtP://Host:81", 0, "Host", "<path>", "81"},
        // A query stays in the path; no decoding of any kind.
        SplitCase{"http://h/a%20b?x=1&y=:2", 0, "h", "/a%20b?x=1&y=:2", "<port>"},
        // No scheme and no colon: host and path, taken as http.
        SplitCase{"tsa.example/stamp", 0, "tsa.example", "/stamp", "<port>"},
        SplitCase{"tsa.example", 0, "tsa.example", "<path>", "<port>"},
        // No scheme but a port, or another scheme: refused, nothing set.
        SplitCase{"tsa.example:80/stamp", -1, "", "<path>", "<port>"},
        SplitCase{"ftp://tsa.example/x", -1, "", "<path>", "<port>"},
        SplitCase{"ldap://dir.example/cn=x", -1, "", "<path>", "<port>"},
        // No user information is recognised: it stays in the host.
        SplitCase{"http://user:pw@h:1/p", 0, "user", "/p", "pw@h:1"},
        SplitCase{"http://h:/p", 0, "h", "/p", ""},
        SplitCase{"https://", 1, "", "<path>", "<port>"}));

// ---------------------------------------------------------------------------
// Socket path: request text

TEST(HttpConnectRequestText, LinesInOrderWithoutBlanksAfterColons) {
  le::HttpConnect c;
  ASSERT_EQ(c.open("http://127.0.0.1:8080/tsa?x=1"), 0);
  std::string t;
  c.buildRequestHeader("Content-Type: application/timestamp-query\r\nAuthorization: Basic dTpw", t, bytes("12345"));
  EXPECT_EQ(t,
            "POST /tsa?x=1 HTTP/1.1\r\n"
            "Host:127.0.0.1:8080\r\n"
            "User-Agent:KV-PdsModule\r\n"
            "Content-Type: application/timestamp-query\r\nAuthorization: Basic dTpw\r\n"
            "Content-Length:5\r\n"
            "Connection:close\r\n"
            "\r\n");

  // No extra headers: the line falls away.  An empty body is still a POST.
  c.buildRequestHeader(nullptr, t, Bytes());
  EXPECT_EQ(t,
            "POST /tsa?x=1 HTTP/1.1\r\nHost:127.0.0.1:8080\r\nUser-Agent:KV-PdsModule\r\n"
            "Content-Length:0\r\nConnection:close\r\n\r\n");
}

TEST(HttpConnectRequestText, HostLineNamesThePortInUse) {
  struct Case {
    const char* url;
    const char* requestLine;
    const char* hostLine;
    int port;
  };
  const Case cases[] = {
      // No port: the "http" service's port, named in the Host line too.
      {"http://127.0.0.1/p", "POST /p HTTP/1.1", "Host:127.0.0.1:80", 80},
      // A URL ending behind the host: empty path, two blanks in a row.
      {"127.0.0.1:8443", nullptr, nullptr, 0},
      {"http://127.0.0.1:8443", "POST  HTTP/1.1", "Host:127.0.0.1:8443", 8443},
      // Above 65535 the upper bits go; text that isn't a number is 0.
      {"http://127.0.0.1:65616/", "POST / HTTP/1.1", "Host:127.0.0.1:80", 80},
      {"http://127.0.0.1:http/", "POST / HTTP/1.1", "Host:127.0.0.1:0", 0},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.url);
    le::HttpConnect c;
    if (!k.requestLine) {
      EXPECT_EQ(c.open(k.url), le::kBadUrl);
      EXPECT_FALSE(c.isOpened());
      continue;
    }
    ASSERT_EQ(c.open(k.url), 0);
    EXPECT_EQ(ntohs(c.getAddress().sin_port), k.port);
    EXPECT_EQ(c.getAddress().sin_family, AF_INET);
    EXPECT_EQ(ntohl(c.getAddress().sin_addr.s_addr), 0x7F000001u);
    std::string t;
    c.buildRequestHeader(nullptr, t, Bytes());
    EXPECT_EQ(t.substr(0, t.find("\r\n")), k.requestLine);
    EXPECT_NE(t.find(std::string("\r\n") + k.hostLine + "\r\n"), std::string::npos) << t;
  }
}

// ---------------------------------------------------------------------------
// Socket path: response parser

struct ParseCase {
  const char* name;
  std::string received;
  int result;
  std::string body;  // what response holds afterwards (it starts as "old")
};

class HttpConnectParse : public ::testing::TestWithParam<ParseCase> {};

TEST_P(HttpConnectParse, JudgesAndCutsTheBody) {
  const ParseCase& c = GetParam();
  Bytes response = bytes("old");
  EXPECT_EQ(le::HttpConnect::parseResponse(bytes(c.received), response), c.result);
  EXPECT_EQ(text(response), c.body);
}

INSTANTIATE_TEST_SUITE_P(
    Responses, HttpConnectParse,
    ::testing::Values(
        ParseCase{"Good", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", 0, "hello"},
        ParseCase{"LfOnly", "HTTP/1.1 200 OK\nContent-Type: x\nContent-Length: 5\n\nhello", 0, "hello"},
        ParseCase{"CrOnly", "HTTP/1.1 200 OK\rContent-Length: 5\r\rhello", 0, "hello"},
        ParseCase{"NoBlankAndCapitals", "HTTP/1.0 200 OK\r\nCONTENT-LENGTH:5\r\n\r\nhello", 0, "hello"},
        // More than announced: the announced count, the rest dropped.
        ParseCase{"LongerThanAnnounced", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello world", 0, "hello"},
        // The body may hold line ends of its own.
        ParseCase{"BinaryBody", std::string("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\n\r\n\0\n", 42), 0,
                  std::string("\r\n\0\n", 4)},
        // A 404 with a body: the code says no, though response holds it.
        ParseCase{"NotFoundWithBody", "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone", -1001, "gone"},
        ParseCase{"NoStatusLine", "Content-Length: 2\r\n\r\nhi", -1001, "hi"},
        // Only Content-Length delimits: without it (chunked or till close) -1002.
        ParseCase{"NoContentLength", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello", -1002, ""},
        ParseCase{"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", -1002,
                  ""},
        ParseCase{"ContentLengthZero", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\nhello", -1002, ""},
        // Fewer bytes than announced: response isn't touched.
        ParseCase{"ShortBody", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhell", -2004, "old"},
        // A negative length taken as unsigned is too long.
        ParseCase{"NegativeLength", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nhello", -2004, "old"},
        // Nothing behind the header block, or no header block at all.
        ParseCase{"Empty", "", -2004, ""},
        ParseCase{"HeadOnly", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", -2004, ""},
        ParseCase{"NoEmptyLine", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", -2004, ""},
        ParseCase{"NotFoundEmpty", "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", -2004, ""}),
    [](const ::testing::TestParamInfo<ParseCase>& info) { return std::string(info.param.name); });

TEST(HttpConnectParseHeaderEndingInColon, ThrowsOutOfRange) {
  Bytes response;
  EXPECT_THROW(le::HttpConnect::parseResponse(bytes("HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\nx"), response),
               std::out_of_range);
  EXPECT_THROW(le::HttpConnect::parseResponse(bytes("HTTP/1.1 200 OK\r\ncontent-type:\nContent-Length: 1\n\nx"),
                                              response),
               std::out_of_range);
  // Other headers may end with the colon.
  EXPECT_EQ(le::HttpConnect::parseResponse(bytes("HTTP/1.1 200 OK\r\nX-Empty:\r\nContent-Length: 1\r\n\r\nx"),
                                           response),
            0);
}

// ---------------------------------------------------------------------------
// Socket path against a loopback server

TEST(HttpConnectExchange, SendsTheRequestTextAndBody) {
  auto server = LoopbackHttpServer([](const HttpRequest&) { return Reply::ok("token"); });
  const Bytes body = bytes(std::string("\x30\x03\x02\x01\x00", 5));
  Bytes response;
  ASSERT_TRUE(le::HttpConnectPost(server.url("/tsa?x=1").c_str(), "X-One: 1\r\nX-Two: 2", body, response));
  EXPECT_EQ(text(response), "token");

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const std::string port = std::to_string(server.port());
  EXPECT_EQ(requests[0].head, "POST /tsa?x=1 HTTP/1.1\r\nHost:127.0.0.1:" + port +
                                  "\r\nUser-Agent:KV-PdsModule\r\nX-One: 1\r\nX-Two: 2\r\n"
                                  "Content-Length:5\r\nConnection:close");
  EXPECT_EQ(requests[0].body, body);
}

TEST(HttpConnectExchange, ResultCodes) {
  {
    // Status not 200 with a body: -1001, the body in response, the entry
    // point false.
    auto server = cannedServer("HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone");
    le::HttpConnect c;
    ASSERT_EQ(c.open(server.url("/x")), 0);
    Bytes response;
    EXPECT_EQ(c.request(bytes("q"), response, ""), -1001);
    EXPECT_EQ(text(response), "gone");
    EXPECT_FALSE(le::HttpConnectPost(server.url("/x").c_str(), "", bytes("q"), response));
  }
  {
    // A good status without Content-Length: -1002 here (WinInet takes it).
    auto server = cannedServer("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello");
    le::HttpConnect c;
    ASSERT_EQ(c.open(server.url("/x")), 0);
    Bytes response;
    EXPECT_EQ(c.request(bytes("q"), response, ""), -1002);
  }
  {
    // LF-only and CR-only line ends, and a body longer than announced.
    for (const char* answer : {"HTTP/1.1 200 OK\nContent-Length: 3\n\nabcdef", "HTTP/1.1 200 OK\rContent-Length: 3\r\rabcdef"}) {
      auto server = cannedServer(answer);
      le::HttpConnect c;
      ASSERT_EQ(c.open(server.url("/x")), 0);
      Bytes response;
      EXPECT_EQ(c.request(bytes("q"), response, ""), 0);
      EXPECT_EQ(text(response), "abc");
    }
  }
  {
    // Short body, and a peer that closes without a byte: -2004.
    auto shortBody = cannedServer("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this");
    le::HttpConnect c;
    ASSERT_EQ(c.open(shortBody.url("/x")), 0);
    Bytes response;
    EXPECT_EQ(c.request(bytes("q"), response, ""), -2004);
    LoopbackHttpServer silent([](const HttpRequest&) { return Reply::nothing(); });
    ASSERT_EQ(c.open(silent.url("/x")), 0);
    EXPECT_EQ(c.request(bytes("q"), response, ""), -2004);
    EXPECT_TRUE(response.empty());
  }
  {
    // "Content-Length:" ending the line: the parser's exception is caught.
    auto server = cannedServer("HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\nhello");
    le::HttpConnect c;
    ASSERT_EQ(c.open(server.url("/x")), 0);
    Bytes response;
    EXPECT_EQ(c.request(bytes("q"), response, ""), -9998);
  }
}

TEST(HttpConnectExchange, FailuresBeforeAnyAnswer) {
  le::HttpConnect c;
  Bytes response;
  // request without a successful open.
  EXPECT_EQ(c.request(bytes("q"), response, ""), -2002);
  EXPECT_EQ(c.open("ftp://127.0.0.1/x"), -2001);
  EXPECT_EQ(c.request(bytes("q"), response, ""), -2002);
  // https is refused before the name is looked up: this name can't resolve.
  EXPECT_EQ(c.open("https://no-such-host.invalid/x"), -1003);
  EXPECT_EQ(c.open("http://no-such-host.invalid/x"), -1004);
  EXPECT_FALSE(c.isOpened());

  // connect fails on a port where nothing listens, and the socket is closed.
  const int before = openDescriptors();
  ASSERT_EQ(c.open("http://127.0.0.1:" + std::to_string(sealtest::unusedLoopbackPort()) + "/"), 0);
  EXPECT_EQ(c.request(bytes("q"), response, ""), -1006);
  EXPECT_EQ(c.request(bytes("q"), response, ""), -1006);
  EXPECT_EQ(openDescriptors(), before);

  // socket() fails when no descriptor is left: the limit is set to the
  // lowest free descriptor.
  const int lowestFree = ::dup(0);
  ASSERT_GE(lowestFree, 0);
  ::close(lowestFree);
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  rlimit none = old;
  none.rlim_cur = static_cast<rlim_t>(lowestFree);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  const int result = c.request(bytes("q"), response, "");
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
  EXPECT_EQ(result, -1005);

  // reset forgets the peer.
  c.reset();
  EXPECT_FALSE(c.isOpened());
  EXPECT_EQ(c.request(bytes("q"), response, ""), -2002);
}

TEST(HttpConnectExchange, SeveralRequestsAfterOneOpen) {
  int n = 0;
  LoopbackHttpServer server([&n](const HttpRequest&) { return Reply::ok("answer " + std::to_string(++n)); });
  le::HttpConnect c;
  ASSERT_EQ(c.open(server.url("/x")), 0);
  Bytes response;
  EXPECT_EQ(c.request(bytes("a"), response, ""), 0);
  EXPECT_EQ(text(response), "answer 1");
  EXPECT_EQ(c.request(bytes("b"), response, ""), 0);
  EXPECT_EQ(text(response), "answer 2");
  EXPECT_EQ(server.connections(), 2);
}

// ---------------------------------------------------------------------------
// WinInet path (libcurl) against a loopback server

TEST(HttpWinInetExchange, SendsPostWithAgentAndHeaders) {
  auto server = LoopbackHttpServer([](const HttpRequest&) { return Reply::ok("token"); });
  const Bytes body = bytes(std::string("\x30\x03\x02\x01\x00", 5));
  Bytes response;
  ASSERT_TRUE(le::HttpWinInetPost(server.url("/tsa?x=1").c_str(), "Content-Type: application/timestamp-query\r\nX-Two: 2",
                                  body, response));
  EXPECT_EQ(text(response), "token");
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 1u);
  const HttpRequest& r = requests[0];
  EXPECT_EQ(r.requestLine, "POST /tsa?x=1 HTTP/1.1");
  EXPECT_EQ(r.header("Host"), "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_EQ(r.header("User-Agent"), "KV-PdsModule");
  EXPECT_EQ(r.header("Content-Type"), "application/timestamp-query");
  EXPECT_EQ(r.header("X-Two"), "2");
  EXPECT_EQ(r.header("Content-Length"), "5");
  EXPECT_FALSE(r.hasHeader("Expect"));
  EXPECT_EQ(r.body, body);
}

TEST(HttpWinInetExchange, EmptyBodyGoesWithoutPostVerb) {
  auto server = LoopbackHttpServer([](const HttpRequest&) { return Reply::ok("x"); });
  Bytes response;
  ASSERT_TRUE(le::HttpWinInetPost(server.url("/probe").c_str(), "", Bytes(), response));
  ASSERT_TRUE(le::HttpConnectPost(server.url("/probe").c_str(), "", Bytes(), response));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0].requestLine, "GET /probe HTTP/1.1");
  EXPECT_FALSE(requests[0].hasHeader("Content-Type"));
  EXPECT_EQ(requests[1].requestLine, "POST /probe HTTP/1.1");
  EXPECT_EQ(requests[1].header("Content-Length"), "0");
}

struct WinInetCase {
  const char* name;
  std::string answer;
  int result;
  std::string body;
};

class HttpWinInetAnswers : public ::testing::TestWithParam<WinInetCase> {};

TEST_P(HttpWinInetAnswers, ResultAndBody) {
  const WinInetCase& c = GetParam();
  auto server = cannedServer(c.answer);
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/x")), 0);
  Bytes response;
  EXPECT_EQ(client.request(bytes("query"), response, ""), c.result) << client.getLastError();
  if (c.result >= 0) {
    EXPECT_EQ(text(response), c.body);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Answers, HttpWinInetAnswers,
    ::testing::Values(
        WinInetCase{"ContentLength", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello", 0, "hello"},
        // Without Content-Length the body runs to the close (the socket path
        // refuses these with -1002).
        WinInetCase{"TillClose", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello", 0, "hello"},
        WinInetCase{"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", 0,
                    "hello"},
        WinInetCase{"LfOnly", "HTTP/1.1 200 OK\nContent-Length: 5\n\nhello", 0, "hello"},
        WinInetCase{"LongerThanAnnounced", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello world", 0, "hello"},
        WinInetCase{"LargeBody", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + std::string(100000, 'b'), 0,
                    std::string(100000, 'b')},
        // Status, and no body read: -2005.
        WinInetCase{"ServerError", "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops", -2005, ""},
        WinInetCase{"ContentLengthZero", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", -2003, ""},
        WinInetCase{"ShortBody", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this", -2004, ""},
        // A body that can't be decoded fails the read.
        WinInetCase{"BrokenChunks", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n", -1006,
                    ""},
        // An announced length that nobody would allocate for.
        WinInetCase{"AbsurdLength", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\nhello", -9998, ""},
        // The peer closes without a byte: the request found no answer.
        WinInetCase{"Nothing", "", -1005, ""}),
    [](const ::testing::TestParamInfo<WinInetCase>& info) { return std::string(info.param.name); });

TEST(HttpWinInetExchange, StatusErrorKeepsText) {
  auto server = cannedServer("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops");
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/x")), 0);
  Bytes response;
  EXPECT_EQ(client.request(bytes("q"), response, ""), -2005);
  EXPECT_EQ(client.getLastError(), "Http status error = 500");
  EXPECT_TRUE(response.empty());
  client.close();
  EXPECT_EQ(client.getLastError(), "Http status error = 500");
  // After close there is no connection.
  EXPECT_EQ(client.request(bytes("q"), response, ""), -2002);
}

TEST(HttpWinInetExchange, GoodExchangeWithEmptyBodyAnswersFalse) {
  auto server = cannedServer("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n");
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/x")), 0);
  Bytes response;
  EXPECT_EQ(client.request(bytes("q"), response, ""), 0);
  EXPECT_TRUE(response.empty());
  EXPECT_FALSE(le::HttpWinInetPost(server.url("/x").c_str(), "", bytes("q"), response));
}

TEST(HttpWinInetExchange, FailuresBeforeAnyAnswer) {
  le::HttpWinInet client;
  Bytes response;
  EXPECT_EQ(client.request(bytes("q"), response, ""), -2002);
  EXPECT_EQ(client.open("tsa.example:80/x"), -2001);
  // No host: nothing to connect to.
  EXPECT_EQ(client.open("http:///x"), -1002);
  EXPECT_EQ(client.request(bytes("q"), response, ""), -2002);
  // A path that can't go into a request line.
  ASSERT_EQ(client.open("http://127.0.0.1:1/a b"), 0);
  EXPECT_EQ(client.request(bytes("q"), response, ""), -1003);
  // Nothing listens there.
  ASSERT_EQ(client.open("http://127.0.0.1:" + std::to_string(sealtest::unusedLoopbackPort()) + "/"), 0);
  EXPECT_EQ(client.request(bytes("q"), response, ""), -1005);
  EXPECT_FALSE(le::HttpWinInetPost("http://127.0.0.1:1/", "", bytes("q"), response));
}

// ---------------------------------------------------------------------------
// https: a loopback TLS server whose test CA is trusted through SSL_CERT_FILE

class HttpsExchange : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new sealtest::TempDir;
    const auto q = [](const std::string& name) { return sealtest::shellQuote(dir_->file(name)); };
    // A root, and a server certificate for 127.0.0.1 issued by it.
    sealtest::openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                      " -subj '/CN=Loopback Test Root' -addext 'basicConstraints=critical,CA:true'"
                      " -addext 'keyUsage=critical,keyCertSign' -keyout " + q("ca.key") + " -out " + q("ca.pem"));
    sealtest::openssl("req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj '/CN=127.0.0.1'"
                      " -keyout " + q("server.key") + " -out " + q("server.csr"));
    dir_->write("server.ext", bytes("subjectAltName=IP:127.0.0.1\nextendedKeyUsage=serverAuth\n"));
    sealtest::openssl("x509 -req -days 2 -in " + q("server.csr") + " -CA " + q("ca.pem") + " -CAkey " + q("ca.key") +
                      " -set_serial 7 -extfile " + q("server.ext") + " -out " + q("server.pem"));
    // A root that issued nothing of the server's.
    sealtest::openssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                      " -subj '/CN=Unrelated Root' -addext 'basicConstraints=critical,CA:true'"
                      " -keyout " + q("other.key") + " -out " + q("other.pem"));
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
  }

  // Sets SSL_CERT_FILE for the life of the object.
  class CertFile {
   public:
    explicit CertFile(const std::string& path) {
      if (const char* old = std::getenv("SSL_CERT_FILE")) {
        old_ = old;
        hadOld_ = true;
      }
      ::setenv("SSL_CERT_FILE", path.c_str(), 1);
    }
    ~CertFile() {
      if (hadOld_) {
        ::setenv("SSL_CERT_FILE", old_.c_str(), 1);
      } else {
        ::unsetenv("SSL_CERT_FILE");
      }
    }

   private:
    std::string old_;
    bool hadOld_ = false;
  };

  static LoopbackHttpServer::Options tls() {
    LoopbackHttpServer::Options o;
    o.tlsCertFile = dir_->file("server.pem");
    o.tlsKeyFile = dir_->file("server.key");
    return o;
  }

  static sealtest::TempDir* dir_;
};

sealtest::TempDir* HttpsExchange::dir_ = nullptr;

TEST_F(HttpsExchange, TrustedThroughSslCertFile) {
  LoopbackHttpServer server([](const HttpRequest& r) { return Reply::ok("secure " + text(r.body)); }, tls());
  CertFile trust(dir_->file("ca.pem"));
  Bytes response;
  ASSERT_TRUE(le::HttpWinInetPost(server.url("/tsa").c_str(), "", bytes("q"), response));
  EXPECT_EQ(text(response), "secure q");
  EXPECT_EQ(server.url("/tsa").rfind("https://", 0), 0u);
  // The socket path doesn't do https at all.
  EXPECT_FALSE(le::HttpConnectPost(server.url("/tsa").c_str(), "", bytes("q"), response));
  EXPECT_EQ(server.connections(), 1);
}

TEST_F(HttpsExchange, UntrustedServerFailsTheSend) {
  LoopbackHttpServer server([](const HttpRequest&) { return Reply::ok("secure"); }, tls());
  CertFile trust(dir_->file("other.pem"));
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/tsa")), 0);
  Bytes response;
  EXPECT_EQ(client.request(bytes("q"), response, ""), -1005);
  EXPECT_TRUE(server.requests().empty());
}

// ---------------------------------------------------------------------------
// The WinInet seam: what the client asks of the platform, and failures that
// the libcurl layer never shows.

class RecordingWinInet : public le::platform::WinInetApi {
 public:
  enum class Fail { kNone, kOpen, kConnect, kOpenRequest, kThrowStd, kThrowOther };
  Fail fail = Fail::kNone;
  std::string server;
  std::uint16_t port = 0;
  std::uint32_t requestFlags = 0;
  std::string agent;
  int open = 0;  // handles not yet closed

  le::platform::HINTERNET InternetOpenA(const char* a, std::uint32_t, const char*, const char*,
                                        std::uint32_t) override {
    if (fail == Fail::kOpen) return nullptr;
    if (fail == Fail::kThrowOther) throw 42;
    agent = a;
    return handle();
  }
  le::platform::HINTERNET InternetConnectA(le::platform::HINTERNET, const char* s, std::uint16_t p, const char*,
                                           const char*, std::uint32_t, std::uint32_t, std::uintptr_t) override {
    server = s;
    port = p;
    return fail == Fail::kConnect ? nullptr : handle();
  }
  le::platform::HINTERNET HttpOpenRequestA(le::platform::HINTERNET, const char*, const char*, const char*,
                                           const char*, const char**, std::uint32_t flags, std::uintptr_t) override {
    requestFlags = flags;
    return fail == Fail::kOpenRequest ? nullptr : handle();
  }
  bool HttpSendRequestA(le::platform::HINTERNET, const char*, std::uint32_t, const void*, std::uint32_t) override {
    if (fail == Fail::kThrowStd) throw std::runtime_error("send broke");
    return true;
  }
  bool HttpQueryInfoA(le::platform::HINTERNET, std::uint32_t level, void* buffer, std::uint32_t* length,
                      std::uint32_t*) override {
    if (level != le::platform::HTTP_QUERY_STATUS_CODE) return false;
    std::memcpy(buffer, "200", 4);
    *length = 3;
    return true;
  }
  // The body "ok", then its end.
  bool InternetReadFile(le::platform::HINTERNET, void* buffer, std::uint32_t, std::uint32_t* read) override {
    given_ = !given_;
    *read = given_ ? 2 : 0;
    if (given_) std::memcpy(buffer, "ok", 2);
    return true;
  }
  bool InternetCloseHandle(le::platform::HINTERNET h) override {
    delete static_cast<int*>(h);
    --open;
    return true;
  }

 private:
  bool given_ = false;
  le::platform::HINTERNET handle() {
    ++open;
    return new int(0);
  }
};

TEST(HttpWinInetSeam, PortsAndFlags) {
  struct Case {
    const char* url;
    std::uint16_t port;
    bool secure;
  };
  for (const Case& c : {Case{"https://tsa.example/x", 443, true}, Case{"https://tsa.example:8443/x", 8443, true},
                        Case{"http://tsa.example/x", 80, false}, Case{"tsa.example/x", 80, false},
                        Case{"http://tsa.example:65616/x", 80, false}, Case{"http://tsa.example:abc/x", 0, false}}) {
    SCOPED_TRACE(c.url);
    RecordingWinInet api;
    {
      le::HttpWinInet client(api);
      ASSERT_EQ(client.open(c.url), 0);
      Bytes response;
      EXPECT_EQ(client.request(bytes("q"), response, ""), 0);
      EXPECT_EQ(text(response), "ok");
      // open closes the previous connection first.
      ASSERT_EQ(client.open(c.url), 0);
      EXPECT_EQ(api.open, 2);
    }
    EXPECT_EQ(api.open, 0);  // the destructor closed everything, the request handle too
    EXPECT_EQ(api.agent, "KV-PdsModule");
    EXPECT_EQ(api.server, "tsa.example");
    EXPECT_EQ(api.port, c.port);
    EXPECT_EQ(api.requestFlags, le::platform::INTERNET_FLAG_RELOAD | (c.secure ? le::platform::INTERNET_FLAG_SECURE : 0u));
  }
}

TEST(HttpWinInetSeam, PlatformFailuresAndExceptions) {
  struct Case {
    RecordingWinInet::Fail fail;
    int openResult;
    int requestResult;
    const char* lastError;
  };
  using F = RecordingWinInet::Fail;
  for (const Case& c : {Case{F::kOpen, -1001, -2002, ""}, Case{F::kConnect, -1002, -2002, ""},
                        Case{F::kOpenRequest, 0, -1003, ""}, Case{F::kThrowStd, 0, -9998, "send broke"},
                        Case{F::kThrowOther, -9999, -2002, "le::HttpWinInet::open : unkown exception."}}) {
    RecordingWinInet api;
    api.fail = c.fail;
    {
      le::HttpWinInet client(api);
      EXPECT_EQ(client.open("http://tsa.example/x"), c.openResult);
      Bytes response;
      EXPECT_EQ(client.request(bytes("q"), response, ""), c.requestResult);
      EXPECT_EQ(client.getLastError(), c.lastError);
    }
    EXPECT_EQ(api.open, 0);
  }
}

}  // namespace
