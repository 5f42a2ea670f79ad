// Peers for the network tests, each a real program on 127.0.0.1 started by
// a short command: serve.py (canned HTTP answers, and commands such as
// `openssl ts -reply` or `openssl ocsp` behind HTTP), `openssl s_server`,
// slapd.
//
//   sealtest::Web web;                     // serve.py over web.www
//   web.www.write("answer.http", sealtest::bytes("HTTP/1.1 200 OK\r\n..."));
//   le::HttpConnectPost(web.url("answer").c_str(), ...);
//
//   sealtest::TestTsa tsa;                 // `openssl ts -reply` over HTTP
//   PDF_Sealmark::PDFStdTimeStamp client(tsa.url(), "", "", 2);
//   ... // check tokens with: openssl ts -verify ... -CAfile tsa.caFile()
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "support/test_util.h"

namespace sealtest {

// A command line, run by /bin/sh in a session of its own, that prints
// "ACCEPT host:PORT" once it listens.  Its process group is killed after two
// minutes at the latest, and when the object dies.
class Peer {
 public:
  explicit Peer(const std::string& commandLine);
  ~Peer();
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;
  int port() const { return port_; }
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

 private:
  void stop();
  std::FILE* out_ = nullptr;  // the peer's stdout, open while it runs
  pid_t pid_ = -1;
  int port_ = 0;
};

std::string supportScript(const std::string& name);  // a file of tests/support

// serve.py over a directory of its own.
struct Web {
  TempDir www;
  Peer peer{"exec python3 " + supportScript("serve.py") + " " + www.path()};
  std::string url(const std::string& name) const { return peer.url("/" + name); }
  // What serve.py logged of the requests for /name, and their number.
  std::string log(const std::string& name) const { return text(readFile(www.file(name + ".log"))); }
  int hits(const std::string& name) const;
};

// The PKI of make_pki.sh, made once per build tree (it takes seconds).
struct PkiDir {
  std::string dir;
  const std::string& path() const { return dir; }
  std::string file(const std::string& name) const { return dir + "/" + name; }
};
const PkiDir& testPki();

// An RFC 3161 time-stamp authority: `openssl ts -reply` behind serve.py,
// signing with the tsa certificate of make_pki.sh.  With a user set, a
// request without the matching Basic authorization gets 401.
class TestTsa {
 public:
  explicit TestTsa(const std::string& user = "", const std::string& password = "");
  std::string url() const { return web_.url("tsa"); }
  std::string caFile() const { return testPki().file("ca.pem"); }
  std::string tsaCertFile() const { return testPki().file("tsa.pem"); }
  std::string requests() const { return web_.log("tsa"); }  // as serve.py logs them
  int queries() const { return web_.hits("tsa"); }

 private:
  Web web_;
};

// Runs the openssl command line tool with these arguments; throws with its
// stderr when it fails.
std::string openssl(const std::string& arguments);

}  // namespace sealtest
