// A real RFC 3161 time-stamp authority on 127.0.0.1: `openssl ts -reply`
// behind a LoopbackHttpServer.
//
// At construction it makes, with the openssl command, a test root CA and a
// TSA certificate issued by it (extendedKeyUsage critical timeStamping), and
// writes an openssl.cnf with a [tsa] section into a temporary directory.
// Each POSTed TimeStampReq is answered with the TimeStampResp that
// `openssl ts -reply` makes for it.  With credentials set, a request without
// the matching "Authorization: Basic ..." header gets 401.
//
//   sealtest::TestTsa tsa;
//   PDF_Sealmark::PDFStdTimeStamp client(tsa.url(), "", "", 2);
//   ... // check tokens with: openssl ts -verify ... -CAfile tsa.caFile()
#pragma once

#include <atomic>

#include <memory>
#include <string>

#include "support/loopback_http.h"
#include "support/test_util.h"

namespace sealtest {

class TestTsa {
 public:
  // user and password demanded through Basic authorization when user isn't
  // empty.
  explicit TestTsa(const std::string& user = "", const std::string& password = "");
  ~TestTsa();

  std::string url() const { return server_->url("/tsa"); }
  const std::string& caFile() const { return caFile_; }
  const std::string& tsaCertFile() const { return tsaCertFile_; }
  LoopbackHttpServer& server() { return *server_; }
  // TimeStampResps handed out.
  int tokensIssued() const { return issued_.load(); }
  const TempDir& dir() const { return dir_; }

 private:
  Reply answer(const HttpRequest& request);

  TempDir dir_;
  std::string caFile_;
  std::string tsaCertFile_;
  std::string config_;
  std::string expectedAuthorization_;
  std::atomic<int> issued_{0};
  std::atomic<int> queries_{0};
  std::unique_ptr<LoopbackHttpServer> server_;
};

// Runs the openssl command line tool with these arguments; throws with its
// stderr when it fails.
std::string openssl(const std::string& arguments);

}  // namespace sealtest
