// sealmark timestamp, run as a user runs it, against a real TSA
// (`openssl ts -reply` behind a plain loopback HTTP server); the tokens are
// checked with `openssl ts -verify`.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <string>
#include <vector>

#include "support/loopback_http.h"
#include "support/test_tsa.h"
#include "support/test_util.h"

namespace {

using Bytes = std::vector<unsigned char>;
using sealtest::run;
using sealtest::sealmark;
using sealtest::shellQuote;

class TimestampCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tsa_ = new sealtest::TestTsa;
    authTsa_ = new sealtest::TestTsa("signer", "correct horse");
  }
  static void TearDownTestSuite() {
    delete tsa_;
    delete authTsa_;
    tsa_ = authTsa_ = nullptr;
  }

  // What `openssl ts` says of a token: verification over data, and its text.
  static void expectTokenOver(const sealtest::TestTsa& tsa, const std::string& data, const std::string& token,
                              const std::string& hashName, const std::string& printed) {
    const auto verify = run("openssl ts -verify -data " + shellQuote(data) + " -in " + shellQuote(token) +
                            " -token_in -CAfile " + shellQuote(tsa.caFile()));
    EXPECT_EQ(verify.exitCode, 0) << verify.out << verify.err;
    EXPECT_NE(verify.out.find("Verification: OK"), std::string::npos) << verify.out << verify.err;

    const std::string text = sealtest::openssl("ts -reply -in " + shellQuote(token) + " -token_in -text");
    EXPECT_NE(text.find("Hash Algorithm: " + hashName), std::string::npos) << text;
    // "Time stamp: Nov 22 23:55:01 2025 GMT" is what the command prints as
    // "time: 20251122235501Z".
    const std::size_t at = text.find("Time stamp: ");
    ASSERT_NE(at, std::string::npos) << text;
    std::tm tm{};
    ASSERT_NE(strptime(text.c_str() + at + 12, "%b %d %H:%M:%S %Y GMT", &tm), nullptr) << text;
    char expected[32];
    std::strftime(expected, sizeof expected, "%Y%m%d%H%M%SZ", &tm);
    EXPECT_NE(printed.find(std::string("time: ") + expected + "\n"), std::string::npos) << printed;
    EXPECT_NE(printed.find("size: " + std::to_string(sealtest::readFile(token).size()) + " bytes\n"),
              std::string::npos)
        << printed;
  }

  sealtest::TempDir dir_;
  static sealtest::TestTsa* tsa_;
  static sealtest::TestTsa* authTsa_;
};

sealtest::TestTsa* TimestampCommand::tsa_ = nullptr;
sealtest::TestTsa* TimestampCommand::authTsa_ = nullptr;

TEST_F(TimestampCommand, Sha512ByDefaultSha1ToChosenFile) {
  const std::string input = dir_.write("contract.pdf", Bytes(5000, 'c'));
  auto r = run(sealmark("timestamp --url " + shellQuote(tsa_->url()) + " " + shellQuote(input)));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_TRUE(r.err.empty()) << r.err;
  EXPECT_NE(r.out.find("token: " + input + ".tsr\n"), std::string::npos) << r.out;
  expectTokenOver(*tsa_, input, input + ".tsr", "sha512", r.out);

  const std::string token = dir_.file("stamp.der");
  r = run(sealmark("timestamp --hash sha1 --output " + shellQuote(token) + " --url=" + shellQuote(tsa_->url()) + " " +
                   shellQuote(input)));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  expectTokenOver(*tsa_, input, token, "sha1", r.out);
}

TEST_F(TimestampCommand, BasicAuthorization) {
  const std::string input = dir_.write("data.bin", Bytes(100, 0));
  auto r = run(sealmark("timestamp --url " + shellQuote(authTsa_->url()) +
                        " --user signer --password 'correct horse' " + shellQuote(input)));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  expectTokenOver(*authTsa_, input, input + ".tsr", "sha512", r.out);

  // Without credentials the server refuses: no token, no file, exit 1.
  const std::string other = dir_.write("other.bin", Bytes(100, 1));
  r = run(sealmark("timestamp --url " + shellQuote(authTsa_->url()) + " " + shellQuote(other)));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "sealmark: " + authTsa_->url() + ": no time-stamp token from the server\n");
  EXPECT_TRUE(r.out.empty()) << r.out;
  EXPECT_TRUE(sealtest::readFile(other + ".tsr").empty());
}

TEST_F(TimestampCommand, NoServerMeansExitOne) {
  const std::string input = dir_.write("data.bin", Bytes(10, 0));
  const std::string url = "http://127.0.0.1:" + std::to_string(sealtest::unusedLoopbackPort()) + "/";
  const auto r = run(sealmark("timestamp --url " + url + " " + shellQuote(input)));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "sealmark: " + url + ": no time-stamp token from the server\n");
}

TEST_F(TimestampCommand, UsageAndUnreadableInput) {
  const std::string input = shellQuote(dir_.write("data.bin", Bytes(10, 0)));
  const std::string url = "timestamp --url " + shellQuote(tsa_->url());
  const auto before = tsa_->server().connections();
  for (const std::string& args : {std::string("timestamp"), "timestamp " + input, std::string("timestamp --url"), url,
                                  url + " --hash md5 " + input, url + " --user someone " + input,
                                  url + " --frobnicate " + input, url + " " + input + " " + input}) {
    const auto r = run(sealmark(args));
    EXPECT_EQ(r.exitCode, 2) << args;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << args << ": " << r.err;
    EXPECT_EQ(r.err.rfind("sealmark: ", 0), 0u) << r.err;
  }
  for (const auto& [path, why] : {std::pair<std::string, std::string>{dir_.file("absent.pdf"), "No such file or directory"},
                                  {dir_.path(), "Is a directory"}}) {
    const auto r = run(sealmark(url + " " + shellQuote(path)));
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.err, "sealmark: " + path + ": " + why + "\n");
  }
  // None of these reached the server.
  EXPECT_EQ(tsa_->server().connections(), before);

  auto r = run(sealmark("timestamp --help"));
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out.rfind("usage: sealmark timestamp --url URL", 0), 0u) << r.out;
  r = run(sealmark("--help"));
  EXPECT_NE(r.out.find("\n  timestamp  "), std::string::npos) << r.out;
}

}  // namespace
