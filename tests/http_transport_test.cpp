// The HTTP transport: both clients (WinInet over libcurl, the plain socket)
// against serve.py answering with canned bytes, and against
// `openssl s_server` for https.
#include <arpa/inet.h>
#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "pdfsealmark/http/HttpConnect.h"
#include "pdfsealmark/http/HttpPost.h"
#include "pdfsealmark/http/HttpWinInet.h"
#include "pdfsealmark/platform/WinInet.h"
#include "support/test_tsa.h"

namespace {

using sealtest::bytes;
using sealtest::text;
using ::testing::HasSubstr;
using Bytes = std::vector<unsigned char>;
using Strings = std::vector<std::string>;

int openDescriptors() {
  int n = 0;
  if (DIR* d = opendir("/proc/self/fd")) {
    while (readdir(d)) ++n;
    closedir(d);
  }
  return n;
}

// serve.py for the tests of this file; an answer "NAME.http" is at /NAME.
sealtest::Web& web() {
  static sealtest::Web shared;
  return shared;
}

constexpr int kAny = 1;  // that path's result isn't pinned

struct AnswerCase {
  std::string name, answer;
  int socketResult;
  std::string socketBody;  // response starts as "old"
  int winInetResult;
  std::string winInetBody;
};

TEST(HttpExchange, BothPathsJudgeTheAnswer) {
  const std::string ok = "HTTP/1.1 200 OK\r\n", large(100000, 'b'), binary("\r\n\0\n", 4);
  for (const AnswerCase& c : std::vector<AnswerCase>{
           {"Good", ok + "Content-Length: 5\r\n\r\nhello", 0, "hello", 0, "hello"},
           {"LfOnlyLonger", "HTTP/1.1 200 OK\nContent-Type: x\nContent-Length: 3\n\nabcdef", 0, "abc", 0,
            "abc"},
           {"CrOnly", "HTTP/1.1 200 OK\rContent-Length: 3\r\rabcdef", 0, "abc", kAny, ""},
           {"CapitalsNoBlank", "HTTP/1.0 200 OK\r\nCONTENT-LENGTH:5\r\n\r\nhello", 0, "hello", 0, "hello"},
           {"BinaryBody", ok + "Content-Length: 4\r\n\r\n" + binary, 0, binary, 0, binary},
           {"LargeBody", ok + "Content-Length: 100000\r\n\r\n" + large, 0, large, 0, large},
           // Only Content-Length delimits on the socket path; WinInet reads
           // chunks, or up to the close.
           {"TillClose", ok + "Connection: close\r\n\r\n" + large, -1002, "", 0, large},
           {"Chunked", ok + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n", -1002, "", 0,
            "hello"},
           {"BrokenChunks", ok + "Transfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n", -1002, "", -1006, ""},
           {"ContentLengthZero", ok + "Content-Length: 0\r\n\r\nhello", -1002, "", -2003, ""},
           {"EmptyTillClose", ok + "Connection: close\r\n\r\n", -2004, "", 0, ""},
           // Any status but 200, a redirect too: the socket path keeps the
           // body, WinInet reads none.
           {"NotFound", "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone", -1001, "gone", -2005, ""},
           {"Redirect", "HTTP/1.1 302 Found\r\nLocation: /Good\r\nContent-Length: 2\r\n\r\nno", -1001, "no",
            -2005, ""},
           {"NoStatusLine", "Content-Length: 2\r\n\r\nhi", -1001, "hi", kAny, ""},
           // Fewer bytes than announced (a negative length is a huge one),
           // or no body at all.
           {"ShortBody", ok + "Content-Length: 100\r\n\r\nonly this", -2004, "old", -2004, ""},
           {"NegativeLength", ok + "Content-Length: -1\r\n\r\nhello", -2004, "old", kAny, ""},
           {"AbsurdLength", ok + "Content-Length: 99999999999\r\n\r\nhello", -2004, "old", -9998, ""},
           // Numbers saturate instead of wrapping: 2^32 + 200 is no 200,
           // 2^32 + 5 no 5.
           {"StatusWraps", "HTTP/1.1 4294967496 OK\r\nContent-Length: 2\r\n\r\nhi", -1001, "hi", kAny, ""},
           {"LengthWraps", ok + "Content-Length: 4294967301\r\n\r\nhello", -2004, "old", kAny, ""},
           {"Nothing", "", -2004, "", -1005, ""},
           // A Content-Length line ending in its colon throws inside the
           // parser; the socket path catches it.
           {"LengthEndsInColon", ok + "Content-Length:\r\n\r\nhello", -9998, "old", kAny, ""},
           {"OtherHeaderEndsInColon", ok + "X-Empty:\r\nContent-Length: 1\r\n\r\nx", 0, "x", 0, "x"}}) {
    web().www.write(c.name + ".http", bytes(c.answer));
    const std::string url = web().url(c.name);
    Bytes response = bytes("old");
    le::HttpConnect socket;
    ASSERT_EQ(socket.open(url), 0);
    EXPECT_EQ(socket.request(bytes("q"), response, ""), c.socketResult) << c.name;
    EXPECT_EQ(text(response), c.socketBody) << c.name;
    // The entry points say yes for a good exchange that gave a body only.
    EXPECT_EQ(le::HttpConnectPost(url.c_str(), "", bytes("q"), response),
              c.socketResult == 0 && !c.socketBody.empty());
    if (c.winInetResult == kAny) continue;
    le::HttpWinInet client;
    ASSERT_EQ(client.open(url), 0);
    response.clear();
    EXPECT_EQ(client.request(bytes("query"), response, ""), c.winInetResult)
        << c.name << client.getLastError();
    EXPECT_EQ(c.winInetResult == 0 ? text(response) : c.winInetBody, c.winInetBody) << c.name;
    client.close();  // the status error text outlives it
    const std::string status =
        "Http status error = " + std::string(c.answer, std::min<std::size_t>(9, c.answer.size()), 3);
    EXPECT_EQ(c.winInetResult == le::kStatusNot200 ? client.getLastError() : status, status);
    EXPECT_EQ(client.request(bytes("q"), response, ""), le::kNotOpen);
    EXPECT_EQ(le::HttpWinInetPost(url.c_str(), "", bytes("q"), response),
              c.winInetResult == 0 && !c.winInetBody.empty());
  }
}

TEST(HttpExchange, WhatEachPathSends) {
  web().www.write("tsa", bytes("token"));
  const std::string url = web().url("tsa?x=1"), host = "127.0.0.1:" + std::to_string(web().peer.port());
  // One open, several requests on the socket path.
  le::HttpConnect socket;
  ASSERT_EQ(socket.open(url), 0);
  Bytes response;
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(socket.request(bytes("\x30\x01\x05"), response, "X-One: 1\r\nX-Two: 2"), 0);
  EXPECT_EQ(text(response), "token");
  ASSERT_TRUE(le::HttpWinInetPost(url.c_str(), "X-One: 1\r\nX-Two: 2", bytes("\x30\x01\x05"), response));
  const std::string log = web().log("tsa"),
                    request = "POST /tsa?x=1 HTTP/1.1\nHost: " + host +
                              "\nUser-Agent: KV-PdsModule\nX-One: 1\nX-Two: 2\nContent-Length: "
                              "3\nConnection: close\nbody: 300105\n\n";
  EXPECT_EQ(log.substr(0, 2 * request.size()), request + request);
  const std::string curl = log.substr(2 * request.size());
  for (const std::string& line :
       Strings{"POST /tsa?x=1 HTTP/1.1\n", "\nHost: " + host + "\n", "\nX-One: 1\nX-Two: 2\n",
               "\nUser-Agent: KV-PdsModule\n", "\nbody: 300105\n"})
    EXPECT_THAT(curl, HasSubstr(line));
}

TEST(HttpFailures, BeforeAnyAnswer) {
  le::HttpConnect c;
  Bytes response;
  EXPECT_EQ(c.open("ftp://127.0.0.1/x"), -2001);
  EXPECT_EQ(c.request(bytes("q"), response, ""), -2002);
  // https is refused before the name is looked up: this one can't resolve.
  EXPECT_EQ(c.open("https://no-such-host.invalid/x"), -1003);
  EXPECT_EQ(c.open("http://no-such-host.invalid/x"), -1004);
  // No scheme and no colon: http, on the "http" service's port; with a port
  // but no scheme: refused.  Above 65535 the upper bits go.
  EXPECT_EQ(c.open("127.0.0.1:80/p"), -2001);
  ASSERT_EQ(c.open("127.0.0.1/p"), 0);
  EXPECT_EQ(ntohs(c.getAddress().sin_port), 80);
  ASSERT_EQ(c.open("http://127.0.0.1:65616/"), 0);
  EXPECT_EQ(ntohs(c.getAddress().sin_port), 80);
  // Nothing listens on port 1: connect fails, and the socket is closed.
  ASSERT_EQ(c.open("http://127.0.0.1:1/"), 0);
  const int before = openDescriptors();
  for (int i = 0; i < 2; ++i) EXPECT_EQ(c.request(bytes("q"), response, ""), -1006);
  EXPECT_EQ(openDescriptors(), before);
  c.reset();
  EXPECT_EQ(c.request(bytes("q"), response, ""), -2002);

  // The WinInet path: no host, nothing listens.
  EXPECT_FALSE(le::HttpWinInetPost("http:///x", "", bytes("q"), response));
  EXPECT_FALSE(le::HttpWinInetPost("http://127.0.0.1:1/", "", bytes("q"), response));
}

// Announces 100 bytes, then sends one every half second for as long as
// the client listens; then the next connection.
const char kTrickle[] = R"(exec python3 -c '
import socket, time
s = socket.socket(); s.bind(("127.0.0.1", 0)); s.listen(8)
print("ACCEPT 127.0.0.1:%d" % s.getsockname()[1], flush=True)
while True:
    c, _ = s.accept()
    try:
        c.sendall(b"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n")
        while True: c.sendall(b"x"); time.sleep(0.5)
    except OSError: c.close()
')";

bool post(bool winInet, const std::string& url) {
  Bytes response;
  return winInet ? le::HttpWinInetPost(url.c_str(), "", bytes("q"), response)
                 : le::HttpConnectPost(url.c_str(), "", bytes("q"), response);
}

TEST(HttpSlowPeer, DeadlineEndsATrickleAndCancellingAnExchangeUnwinds) {
  sealtest::Peer trickle(kTrickle);
  const std::string url = trickle.url("/t");
  le::platform::setExchangeDeadlineSeconds(2);
  for (bool winInet : {false, true}) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(post(winInet, url)) << winInet;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8)) << winInet;
  }
  le::platform::setExchangeDeadlineSeconds(120);
  // A caller that cancels a thread blocked in an exchange gets the thread
  // back cancelled; swallowing glibc's unwind would abort the process.
  for (bool winInet : {false, true}) {
    std::pair<bool, std::string> job{winInet, url};
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* arg) -> void* {
                    auto* j = static_cast<std::pair<bool, std::string>*>(arg);
                    post(j->first, j->second);
                    return nullptr;
                  },
                  &job),
              0);
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED) << winInet;
  }
}

TEST(HttpsExchange, OnlyAServerOfATrustedRootIsTalkedTo) {
  const std::string pki = sealtest::testPki().path();
  sealtest::TempDir dir;
  dir.write("hello.txt", bytes("secure"));
  dir.write("server.ext", bytes("subjectAltName=IP:127.0.0.1\nextendedKeyUsage=serverAuth\n"));
  // A server certificate for 127.0.0.1 issued by make_pki.sh's root.
  sealtest::Peer server(
      "cd " + dir.path() + " && openssl req -new -key " + pki + "/signer.key -subj /CN=127.0.0.1 | " +
      "openssl x509 -req -CA " + pki + "/ca.pem -CAkey " + pki + "/ca.key -set_serial 9 " +
      "-extfile server.ext -out server.pem && exec openssl s_server -WWW -accept 127.0.0.1:0 " +
      "-cert server.pem -key " + pki + "/signer.key 2>/dev/null");
  // The scheme is compared without case.
  const std::string url = "HTTPS://127.0.0.1:" + std::to_string(server.port()) + "/hello.txt";
  const char* old = std::getenv("SSL_CERT_FILE");
  const std::string saved = old ? old : "";
  // Not trusted: no request goes out.
  ::setenv("SSL_CERT_FILE", (pki + "/unrelated.pem").c_str(), 1);
  Bytes response;
  EXPECT_FALSE(le::HttpWinInetPost(url.c_str(), "", Bytes(), response));
  // Trusted: an empty body makes a GET, which s_server -WWW answers with the
  // file, up to the close.
  ::setenv("SSL_CERT_FILE", (pki + "/ca.pem").c_str(), 1);
  const bool sent = le::HttpWinInetPost(url.c_str(), "", Bytes(), response);
  old ? ::setenv("SSL_CERT_FILE", saved.c_str(), 1) : ::unsetenv("SSL_CERT_FILE");
  EXPECT_TRUE(sent);
  EXPECT_EQ(text(response), "secure");
  // The socket path doesn't do https at all.
  EXPECT_FALSE(le::HttpConnectPost(url.c_str(), "", Bytes(), response));
}

}  // namespace
