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

using sealtest::bytes;
using sealtest::HttpRequest;
using sealtest::LoopbackHttpServer;
using sealtest::Reply;
using sealtest::text;
using Bytes = std::vector<unsigned char>;

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
  EXPECT_EQ(host + "|" + path + "|" + port, std::string(c.host) + "|" + c.path + "|" + c.port);
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
// Socket path: the address and request line (the whole request text is
// checked against the loopback server below)

TEST(HttpConnectRequestText, HostLineNamesThePortInUse) {
  struct Case {
    const char* url;
    const char* requestLine;  // null: open refuses the URL
    int port;
  };
  for (const Case& k : {
           // No port: the "http" service's port, named in the Host line too.
           Case{"http://127.0.0.1/p", "POST /p HTTP/1.1", 80},
           // A URL ending behind the host: empty path, two blanks in a row.
           Case{"127.0.0.1:8443", nullptr, 0}, Case{"http://127.0.0.1:8443", "POST  HTTP/1.1", 8443},
           // Above 65535 the upper bits go; text that isn't a number is 0.
           Case{"http://127.0.0.1:65616/", "POST / HTTP/1.1", 80}, Case{"http://127.0.0.1:http/", "POST / HTTP/1.1", 0}}) {
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
    EXPECT_NE(t.find("\r\nHost:127.0.0.1:" + std::to_string(k.port) + "\r\n"), std::string::npos) << t;
  }
}

// ---------------------------------------------------------------------------
// Socket path: response parser

constexpr int kThrows = 1;  // parseResponse throws std::out_of_range

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
  if (c.result == kThrows) {
    EXPECT_THROW(le::HttpConnect::parseResponse(bytes(c.received), response), std::out_of_range);
    return;
  }
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
        ParseCase{"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", -1002, ""},
        ParseCase{"ContentLengthZero", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\nhello", -1002, ""},
        // Fewer bytes than announced: response isn't touched.
        ParseCase{"ShortBody", "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhell", -2004, "old"},
        // A negative length taken as unsigned is too long.
        ParseCase{"NegativeLength", "HTTP/1.1 200 OK\r\nContent-Length: -1\r\n\r\nhello", -2004, "old"},
        // Nothing behind the header block, or no header block at all.
        ParseCase{"Empty", "", -2004, ""},
        ParseCase{"HeadOnly", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", -2004, ""},
        ParseCase{"NoEmptyLine", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n", -2004, ""},
        ParseCase{"NotFoundEmpty", "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n", -2004, ""},
        // A Content-Length header ending in its colon throws; others may.
        ParseCase{"LengthEndsInColon", "HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\nx", kThrows, ""},
        ParseCase{"LfLengthAfterEmptyHeader", "HTTP/1.1 200 OK\r\ncontent-type:\nContent-Length: 1\n\nx", kThrows, ""},
        ParseCase{"OtherHeaderEndsInColon", "HTTP/1.1 200 OK\r\nX-Empty:\r\nContent-Length: 1\r\n\r\nx", 0, "x"}),
    [](const ::testing::TestParamInfo<ParseCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Both clients against the same canned answers

constexpr int kAny = 1;  // that path's result isn't pinned here

struct AnswerCase {
  const char* name;
  std::string answer;
  int socketResult;
  std::string socketBody;  // response starts as "old"
  int winInetResult;
  std::string winInetBody;  // compared after a good exchange only
};

class BothPaths : public ::testing::TestWithParam<AnswerCase> {};

TEST_P(BothPaths, ResultBodyAndPostEntryPoint) {
  const AnswerCase& c = GetParam();
  auto server = cannedServer(c.answer);
  Bytes response = bytes("old");
  le::HttpConnect socket;
  ASSERT_EQ(socket.open(server.url("/x")), 0);
  EXPECT_EQ(socket.request(bytes("q"), response, ""), c.socketResult);
  EXPECT_EQ(text(response), c.socketBody);
  // The entry points say yes only for a good exchange that gave a body.
  EXPECT_EQ(le::HttpConnectPost(server.url("/x").c_str(), "", bytes("q"), response),
            c.socketResult == 0 && !c.socketBody.empty());
  if (c.winInetResult == kAny) return;
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/x")), 0);
  response.clear();
  EXPECT_EQ(client.request(bytes("query"), response, ""), c.winInetResult) << client.getLastError();
  if (c.winInetResult == 0) {
    EXPECT_EQ(text(response), c.winInetBody);
  }
  EXPECT_EQ(le::HttpWinInetPost(server.url("/x").c_str(), "", bytes("q"), response),
            c.winInetResult == 0 && !c.winInetBody.empty());
}

const std::string kLarge(100000, 'b');

INSTANTIATE_TEST_SUITE_P(
    Answers, BothPaths,
    ::testing::Values(
        AnswerCase{"LongerThanAnnounced", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello world", 0, "hello", 0, "hello"},
        AnswerCase{"LfOnly", "HTTP/1.1 200 OK\nContent-Length: 3\n\nabcdef", 0, "abc", 0, "abc"},
        AnswerCase{"CrOnly", "HTTP/1.1 200 OK\rContent-Length: 3\r\rabcdef", 0, "abc", kAny, ""},
        AnswerCase{"LargeBody", "HTTP/1.1 200 OK\r\nContent-Length: 100000\r\n\r\n" + kLarge, 0, kLarge, 0, kLarge},
        // Without Content-Length the body runs to the close on the WinInet
        // path; the socket path refuses these with -1002.
        AnswerCase{"TillClose", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + kLarge, -1002, "", 0, kLarge},
        AnswerCase{"Chunked", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", -1002, "",
                   0, "hello"},
        AnswerCase{"EmptyTillClose", "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n", -2004, "", 0, ""},
        // Status not 200: the socket path keeps the body, WinInet reads none.
        AnswerCase{"ServerError", "HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops", -1001, "oops",
                   -2005, ""},
        // Any status but 200 counts, not only errors: a redirect isn't followed.
        AnswerCase{"Redirect", "HTTP/1.1 302 Found\r\nLocation: /y\r\nContent-Length: 2\r\n\r\nno", -1001, "no", -2005,
                   ""},
        AnswerCase{"ContentLengthZero", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n", -2004, "", -2003, ""},
        AnswerCase{"ShortBody", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly this", -2004, "old", -2004, ""},
        // A body that can't be decoded fails the read.
        AnswerCase{"BrokenChunks", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n", -1002, "",
                   -1006, ""},
        // An announced length that nobody would allocate for.
        AnswerCase{"AbsurdLength", "HTTP/1.1 200 OK\r\nContent-Length: 99999999999\r\n\r\nhello", -2004, "old", -9998, ""},
        // The parser's exception is caught on the socket path.
        AnswerCase{"LengthEndsInColon", "HTTP/1.1 200 OK\r\nContent-Length:\r\n\r\nhello", -9998, "old", kAny, ""},
        // The peer closes without a byte: the request found no answer.
        AnswerCase{"Nothing", "", -2004, "", -1005, ""}),
    [](const ::testing::TestParamInfo<AnswerCase>& info) { return std::string(info.param.name); });

TEST(HttpExchange, SendsTheRequestOnBothPaths) {
  LoopbackHttpServer server([](const HttpRequest&) { return Reply::ok("token"); });
  const Bytes body = bytes(std::string("\x30\x03\x02\x01\x00", 5));
  Bytes response;
  ASSERT_TRUE(le::HttpConnectPost(server.url("/tsa?x=1").c_str(), "X-One: 1\r\nX-Two: 2", body, response));
  EXPECT_EQ(text(response), "token");
  ASSERT_TRUE(le::HttpWinInetPost(server.url("/tsa?x=1").c_str(), "Content-Type: application/timestamp-query\r\nX-Two: 2",
                                  body, response));
  EXPECT_EQ(text(response), "token");
  // An empty body: WinInet sends a GET without Content-Type, the socket path a POST.
  ASSERT_TRUE(le::HttpWinInetPost(server.url("/probe").c_str(), "", Bytes(), response));
  ASSERT_TRUE(le::HttpConnectPost(server.url("/probe").c_str(), "", Bytes(), response));

  const auto r = server.requests();
  ASSERT_EQ(r.size(), 4u);
  const std::string host = "127.0.0.1:" + std::to_string(server.port());
  EXPECT_EQ(r[0].head, "POST /tsa?x=1 HTTP/1.1\r\nHost:" + host +
                           "\r\nUser-Agent:KV-PdsModule\r\nX-One: 1\r\nX-Two: 2\r\nContent-Length:5\r\nConnection:close");
  EXPECT_EQ(r[0].body, body);
  EXPECT_EQ(r[1].requestLine, "POST /tsa?x=1 HTTP/1.1");
  for (const auto& [name, value] : {std::pair<const char*, std::string>{"Host", host}, {"User-Agent", "KV-PdsModule"},
                                    {"Content-Type", "application/timestamp-query"}, {"X-Two", "2"},
                                    {"Content-Length", "5"}, {"Expect", ""}}) {
    EXPECT_EQ(r[1].header(name), value) << name;
  }
  EXPECT_EQ(r[1].body, body);
  EXPECT_EQ(r[2].requestLine, "GET /probe HTTP/1.1");
  EXPECT_FALSE(r[2].hasHeader("Content-Type"));
  // No extra headers: the line falls away.  An empty body is still a POST.
  EXPECT_EQ(r[3].head, "POST /probe HTTP/1.1\r\nHost:" + host +
                           "\r\nUser-Agent:KV-PdsModule\r\nContent-Length:0\r\nConnection:close");
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

TEST(HttpWinInetExchange, StatusErrorTextOutlivesClose) {
  auto server = cannedServer("HTTP/1.1 500 Internal Server Error\r\nContent-Length: 4\r\n\r\noops");
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/x")), 0);
  Bytes response;
  EXPECT_EQ(client.request(bytes("q"), response, ""), -2005);
  client.close();
  EXPECT_EQ(client.getLastError(), "Http status error = 500");
  // After close there is no connection.
  EXPECT_EQ(client.request(bytes("q"), response, ""), -2002);
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

TEST(HttpsExchange, OnlyAServerFromTheTrustedRootIsTalkedTo) {
  sealtest::TempDir dir;
  const auto q = [&dir](const std::string& name) { return sealtest::shellQuote(dir.file(name)); };
  const std::string newKey = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  // A root, a server certificate for 127.0.0.1 issued by it, and a root
  // that issued nothing of the server's.
  sealtest::openssl("req -x509 " + newKey + " -days 2 -subj '/CN=Loopback Test Root'"
                    " -addext 'basicConstraints=critical,CA:true' -addext 'keyUsage=critical,keyCertSign' -keyout " +
                    q("ca.key") + " -out " + q("ca.pem"));
  sealtest::openssl("req -new " + newKey + " -subj '/CN=127.0.0.1' -keyout " + q("server.key") + " -out " + q("server.csr"));
  dir.write("server.ext", bytes("subjectAltName=IP:127.0.0.1\nextendedKeyUsage=serverAuth\n"));
  sealtest::openssl("x509 -req -days 2 -in " + q("server.csr") + " -CA " + q("ca.pem") + " -CAkey " + q("ca.key") +
                    " -set_serial 7 -extfile " + q("server.ext") + " -out " + q("server.pem"));
  sealtest::openssl("req -x509 " + newKey + " -days 2 -subj '/CN=Unrelated Root'"
                    " -addext 'basicConstraints=critical,CA:true' -keyout " + q("other.key") + " -out " + q("other.pem"));
  LoopbackHttpServer::Options tls;
  tls.tlsCertFile = dir.file("server.pem");
  tls.tlsKeyFile = dir.file("server.key");
  LoopbackHttpServer server([](const HttpRequest& r) { return Reply::ok("secure " + text(r.body)); }, tls);
  const char* old = std::getenv("SSL_CERT_FILE");
  const std::string saved = old ? old : "";

  ::setenv("SSL_CERT_FILE", dir.file("other.pem").c_str(), 1);
  le::HttpWinInet client;
  ASSERT_EQ(client.open(server.url("/tsa")), 0);
  Bytes response;
  EXPECT_EQ(client.request(bytes("q"), response, ""), -1005);
  EXPECT_TRUE(server.requests().empty());

  ::setenv("SSL_CERT_FILE", dir.file("ca.pem").c_str(), 1);
  const bool sent = le::HttpWinInetPost(server.url("/tsa").c_str(), "", bytes("q"), response);
  old ? ::setenv("SSL_CERT_FILE", saved.c_str(), 1) : ::unsetenv("SSL_CERT_FILE");
  ASSERT_TRUE(sent);
  EXPECT_EQ(text(response), "secure q");
  EXPECT_EQ(server.url("/tsa").rfind("https://", 0), 0u);
  // The socket path doesn't do https at all.
  EXPECT_FALSE(le::HttpConnectPost(server.url("/tsa").c_str(), "", bytes("q"), response));
  EXPECT_EQ(server.requests().size(), 1u);
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

TEST(HttpWinInetSeam, PortsFlagsAndPlatformFailures) {
  using F = RecordingWinInet::Fail;
  struct Case {
    const char* url;
    F fail;
    int openResult, requestResult;
    std::uint16_t port;
    bool secure;
    const char* lastError;
  };
  for (const Case& c : {Case{"https://tsa.example/x", F::kNone, 0, 0, 443, true, ""},
                        Case{"https://tsa.example:8443/x", F::kNone, 0, 0, 8443, true, ""},
                        Case{"tsa.example/x", F::kNone, 0, 0, 80, false, ""},
                        // Above 65535 the upper bits go; text that isn't a number is 0.
                        Case{"http://tsa.example:65616/x", F::kNone, 0, 0, 80, false, ""},
                        Case{"http://tsa.example:abc/x", F::kNone, 0, 0, 0, false, ""},
                        Case{"http://tsa.example/x", F::kOpen, -1001, -2002, 0, false, ""},
                        Case{"http://tsa.example/x", F::kConnect, -1002, -2002, 80, false, ""},
                        Case{"http://tsa.example/x", F::kOpenRequest, 0, -1003, 80, false, ""},
                        Case{"http://tsa.example/x", F::kThrowStd, 0, -9998, 80, false, "send broke"},
                        Case{"http://tsa.example/x", F::kThrowOther, -9999, -2002, 0, false,
                             "le::HttpWinInet::open : unkown exception."}}) {
    SCOPED_TRACE(c.url);
    RecordingWinInet api;
    api.fail = c.fail;
    {
      le::HttpWinInet client(api);
      EXPECT_EQ(client.open(c.url), c.openResult);
      Bytes response;
      EXPECT_EQ(client.request(bytes("q"), response, ""), c.requestResult);
      EXPECT_EQ(client.getLastError(), c.lastError);
      if (c.fail == F::kNone) {
        EXPECT_EQ(text(response), "ok");
        EXPECT_EQ(api.agent, "KV-PdsModule");
        EXPECT_EQ(api.server, "tsa.example");
        EXPECT_EQ(api.requestFlags,
                  le::platform::INTERNET_FLAG_RELOAD | (c.secure ? le::platform::INTERNET_FLAG_SECURE : 0u));
        // open closes the previous connection first.
        ASSERT_EQ(client.open(c.url), 0);
        EXPECT_EQ(api.open, 2);
      }
      EXPECT_EQ(api.port, c.port);
    }
    EXPECT_EQ(api.open, 0);  // the destructor closed everything, the request handle too
  }
}

}  // namespace
