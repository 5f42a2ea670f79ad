// The Amano and PFU clients against the stand-in libraries (tests/standins:
// OpenSSL digests, tokens signed by the test TSA), through the free
// functions, the facades and `sealmark timestamp`.  The loader reads
// LD_LIBRARY_PATH when a process starts, so a test that needs the stand-ins
// runs again in a child process that has them on its path.
#include "pdfsealmark/timestamp/closed_services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "pdfsealmark/PDFAmanoTimeStamp.h"
#include "pdfsealmark/PDFPfuTimeStamp.h"
#include "pdfsealmark/PDFServiceToken.h"
#include "support/test_tsa.h"

namespace {

using namespace PDF_Sealmark;
using namespace sealtest;
using namespace testing;
namespace fs = std::filesystem;
using S = PDFServiceToken;

const std::string kStandinDir = fs::path(SEALMARK_BIN).parent_path().parent_path() / "tests/standins",
                  kStandins = kStandinDir + "/asdtst:" + kStandinDir + "/tslib",
                  kSelf = fs::read_symlink("/proc/self/exe").string();

// The PKI of the parent process, which a child reuses.
std::string pki(const std::string& name) {
  static const std::string dir = getenv("SEALMARK_TEST_PKI") ? getenv("SEALMARK_TEST_PKI") : testPki().path();
  return dir + "/" + name;
}
bool verifiedByOpenssl(const std::string& data, const std::string& token) {
  return run("openssl ts -verify -data " + data + " -in " + token + " -token_in -CAfile " + pki("ca.pem"))
             .out.find("Verification: OK") != std::string::npos;
}

// In the child: true.  In the parent: runs the current test in a child with
// the stand-ins on its library path, and false.
bool inChildWithStandins() {
  if (getenv("SEALMARK_TEST_PKI")) return true;
  const auto* test = UnitTest::GetInstance()->current_test_info();
  const auto r = run("SEALMARK_TEST_PKI=" + pki("") + " LD_LIBRARY_PATH=" + kStandins + " " + kSelf +
                     " --gtest_filter=" + test->test_suite_name() + "." + test->name());
  EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  EXPECT_THAT(r.out, HasSubstr("[  PASSED  ] 1 test."));
  return false;
}
#define WITH_STANDINS() \
  if (!inChildWithStandins()) return

class Closed : public Test {
 protected:
  void SetUp() override {
    setenv("SEALMARK_STANDIN_TSA_KEY", pki("tsa.key").c_str(), 1);
    setenv("SEALMARK_STANDIN_TSA_CERT", pki("tsa.pem").c_str(), 1);
    setenv("SEALMARK_STANDIN_LOG", dir.file("log").c_str(), 1);
  }
  // The calls the stand-ins logged since the last look.
  std::string calls() {
    const std::string logged = text(readFile(dir.file("log")));
    fs::remove(dir.file("log"));
    return logged;
  }
  Bytes amanoToken(const char* address = "tss.example:80") {
    return createAmanoToken(data, address, account.c_str(), "secret");
  }
  sealtest::TempDir dir;
  const std::string account = dir.write("account", bytes("asdtst-account\nsecret\n"));
  const Bytes data = bytes("the signature value");
};

const char* const kAmanoCalls = "ASDTSTHashInitEx 5 1\nASDTSTHashUpdateEx 1\nASDTSTHashFinalEx 1\n";
const char* const kPfuSteps[] = {"tslib_datahash SHA-512", "tslib_pfu_login alice", "tslib_make_tsq",
                                 "tslib_pfu_tsreq",        "tslib_decode_tsr",      "tslib_pfu_confirm",
                                 "tslib_pfu_logout"};

TEST_F(Closed, TokensAreMadeAndRead) {
  WITH_STANDINS();
  // clang-format off
  for (const auto& [service, format, timeFormat, afterLast] : std::vector<std::tuple<S::Service, std::string, std::string, int>>{
           {S::kAmano, "", "20[0-9]{2}/[01][0-9]/[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-6][0-9]", -1},
           {S::kPfu, "pkcs7", "20[0-9]{12}Z", 0}, {S::kPfu, "own", "20[0-9]{2}-[01][0-9]-[0-3][0-9]T[0-9:]{8}Z", 0}}) {
    // clang-format on
    setenv("SEALMARK_STANDIN_PFU_FORMAT", format.c_str(), 1);
    const bool amano = service == S::kAmano;
    const auto make = [&](const char* password, const Bytes& data, Bytes& token) {
      return amano ? PDFAmanoTimeStamp("tss.example:80", account, password).LeImplementts(token, data, {}, {})
                   : PDFPfuTimeStamp("alice", password).LeImplementts(token, data, {}, {});
    };
    // Without a password or data: no call, and the token is emptied.
    Bytes token{1}, der;
    EXPECT_FALSE(make("", data, token) || make("secret", {}, token));
    EXPECT_TRUE(token.empty());
    EXPECT_EQ(calls(), "");
    ASSERT_TRUE(make("secret", data, token));
    std::string expected =
        amano ? kAmanoCalls + ("ASDTSTLoadAccountEx " + account) +
                    " 1\nASDTSTCreateTimeStampTokenEx tss.example:80 1\nASDTSTFreeAccountEx 1\n"
              : "";
    for (const char* step : kPfuSteps) expected += amano ? "" : step + std::string(" 1\n");
    EXPECT_EQ(calls(), expected);
    std::string time = "kept";
    EXPECT_TRUE(S::verify(service, token, data) && S::getDate(service, token, time));
    EXPECT_FALSE(S::verify(service, token, bytes("other data")));
    EXPECT_THAT(time, MatchesRegex(timeFormat));
    EXPECT_EQ(S::getCert(service, token, 0, der), 1);
    EXPECT_EQ(der, readFile(pki("tsa.der")));
    EXPECT_EQ(S::getCert(service, token, 1, der), afterLast);
    // A byte changed in the token's signature.
    token.back() ^= 1;
    time = "kept";
    EXPECT_FALSE(S::verify(service, token, data) || S::getDate(service, token, time));
    EXPECT_EQ(time, amano ? "kept" : "token does not decode (71)");
    EXPECT_EQ(S::getCert(service, token, 0, der), -1);
    calls();
  }
}

TEST_F(Closed, AmanoFailuresAndRefusals) {
  WITH_STANDINS();
  const Bytes token = amanoToken();
  Bytes der;
  std::string time;
  // clang-format off
  for (const auto& [fail, made, verified, dated, cert] : std::vector<std::tuple<std::string, bool, bool, bool, int>>{
           {"ASDTSTHashFinalEx", false, false, true, 1}, {"ASDTSTLoadAccountEx", false, true, true, 1},
           {"ASDTSTCreateTimeStampTokenEx", false, true, true, 1}, {"ASDTSTCreateTimeStampTokenEx=2", false, true, true, 1},
           {"ASDTSTCreateTimeStampTokenEx=1900", true, true, true, 1}, {"ASDTSTGetTimeStampInfoEx", true, false, false, 1},
           {"ASDTSTVerifyTimeStampTokenEx", true, false, true, 1}, {"ASDTSTGetTSACert", true, true, true, -1}}) {
    // clang-format on
    setenv("SEALMARK_STANDIN_FAIL", fail.c_str(), 1);
    calls();
    const Bytes made1 = amanoToken();
    // Once the account is loaded, it is freed whatever the request gave.
    EXPECT_EQ(calls().find("ASDTSTFreeAccountEx 1\n") != std::string::npos,
              made || fail.find("Create") != std::string::npos)
        << fail;
    EXPECT_EQ(!made1.empty(), made) << fail;
    EXPECT_EQ(verifyAmanoToken(made ? made1 : token, data), verified) << fail;
    EXPECT_EQ(getAmanoTokenDate(token, time), dated) << fail;
    EXPECT_EQ(getAmanoTokenCert(token, 0, der), cert) << fail;
  }
  // A wrong password: three tries, here, beside our code and beside the
  // program (both this test program), then no request and no free.
  unsetenv("SEALMARK_STANDIN_FAIL");
  calls();
  const std::string beside = "ASDTSTLoadAccountEx " + fs::path(kSelf).parent_path().string() + "/account 0\n";
  EXPECT_TRUE(createAmanoToken(data, "tss.example:80", "account", "wrong").empty());
  EXPECT_EQ(calls(), kAmanoCalls + std::string("ASDTSTLoadAccountEx account 0\n") + beside + beside);
  // What can't pass the interface's buffers, and index 1, make no call.
  const Bytes oversize(12001, 0x30);
  EXPECT_FALSE(verifyAmanoToken(oversize, data) || getAmanoTokenDate(oversize, time));
  EXPECT_EQ(getAmanoTokenCert(oversize, 0, der) + getAmanoTokenCert(token, 1, der), -2);
  EXPECT_TRUE(amanoToken(std::string(256, 'a').c_str()).empty());
  EXPECT_EQ(calls(), "");
  EXPECT_TRUE(verifyAmanoToken(amanoToken(std::string(255, 'a').c_str()), data));
  // Only the four hashes of the table are asked for; any other imprint,
  // MD5 too, is refused without a digest.
  // clang-format off
  for (const auto& [oid, hashed] : std::vector<std::pair<std::string, std::string>>{{"1.3.14.3.2.26", "1"},
           {"2.16.840.1.101.3.4.2.1", "3"}, {"2.16.840.1.101.3.4.2.2", "4"}, {"1.2.840.113549.2.5", ""}, {"2.16.840.1.101.3.4.2.30", ""}}) {
    // clang-format on
    setenv("SEALMARK_STANDIN_IMPRINT_OID", oid.c_str(), 1);
    calls();
    EXPECT_FALSE(verifyAmanoToken(token, data));
    const std::string digested =
        "ASDTSTHashUpdateEx 1\nASDTSTHashFinalEx 1\nASDTSTVerifyTimeStampTokenEx 0\n";
    EXPECT_EQ(calls(), "ASDTSTGetTimeStampInfoEx 1\n" +
                           (hashed.empty() ? "" : "ASDTSTHashInitEx " + hashed + " 1\n" + digested))
        << oid;
  }
}

TEST_F(Closed, PfuSessionEndsWithLogout) {
  WITH_STANDINS();
  // By failing step: the steps made (the failing one answers 0), and
  // whether a token comes.
  // clang-format off
  for (const auto& [failing, steps, delivered] : std::vector<std::tuple<int, std::string, bool>>{
           {0, "0", false}, {1, "01", false}, {2, "0126", false}, {3, "01236", false},
           {4, "012346", false}, {5, "0123456", true}, {6, "0123456", false}}) {
    // clang-format on
    const std::string step = kPfuSteps[failing];
    setenv("SEALMARK_STANDIN_FAIL", step.substr(0, step.find(' ')).c_str(), 1);
    EXPECT_EQ(createPfuToken(data, "alice", "pw").empty(), !delivered) << step;
    std::string expected;
    for (char c : steps) expected += kPfuSteps[c - '0'] + std::string(c - '0' == failing ? " 0\n" : " 1\n");
    EXPECT_EQ(calls(), expected);
  }
}

TEST_F(Closed, PfuReadsTokensOfOpensslTs) {
  WITH_STANDINS();
  // The imprint's length names the hash: 20 or 64 bytes, nothing else.
  for (const auto& [hash, name] : std::vector<std::pair<std::string, std::string>>{
           {"sha1", "SHA-1"}, {"sha256", ""}, {"sha512", "SHA-512"}}) {
    const std::string token = dir.file(hash + ".tst");
    // The serial file goes here: the PKI's directory is only read.
    run("cd " + dir.path() + " && echo 01 > tsaserial && openssl ts -query -cert -" + hash + " -data " +
        dir.write("data", data) + " | openssl ts -reply -config " + pki("ext.cnf") +
        " -section tsa_section " + "-queryfile /dev/stdin -signer " + pki("tsa.pem") + " -inkey " +
        pki("tsa.key") + " -chain " + pki("ca.pem") + " -token_out -out " + token);
    calls();
    EXPECT_EQ(verifyPfuToken(readFile(token), data), !name.empty()) << hash;
    EXPECT_EQ(calls(), "tslib_decode_tst 1\n" + (name.empty() ? "" : "tslib_datahash " + name + " 1\n"));
  }
  // Behind the authority's certificate, the CA's, and no more.
  Bytes der;
  EXPECT_EQ(getPfuTokenCert(readFile(dir.file("sha1.tst")), 1, der), 1);
  EXPECT_EQ(der, readFile(pki("ca.der")));
  EXPECT_EQ(getPfuTokenCert(readFile(dir.file("sha1.tst")), 2, der), 0);
}

TEST_F(Closed, WithoutLibrariesEverythingFails) {
  std::string time = "kept";
  Bytes der{1}, token{1};
  for (const auto service : {S::kAmano, S::kPfu}) {
    EXPECT_FALSE(S::isAvailable(service) || S::verify(service, data, data) ||
                 S::getDate(service, data, time));
    EXPECT_EQ(S::getCert(service, data, 0, der), -1);
  }
  EXPECT_EQ(time, "kept");
  EXPECT_FALSE(PDFAmanoTimeStamp("a", account, "secret").LeImplementts(token, data, {}, {}) ||
               PDFPfuTimeStamp("alice", "pw").LeImplementts(token, data, {}, {}));
  EXPECT_TRUE(token.empty());
  EXPECT_EQ(calls(), "");
}

// `sealmark timestamp` with the stand-ins on the command's library path.
TEST_F(Closed, CommandGetsServiceTokens) {
  const std::string input = dir.write("in.pdf", data), env = "LD_LIBRARY_PATH=" + kStandins + " ";
  const std::string amano = " --service amano --address tss.example:80 --password-file " +
                            dir.write("pw", bytes("secret\n")) + " --account ";
  // The account file beside the library (copied here with the program), or
  // beside the program.
  const std::string lib = dir.file("lib"), bin = dir.file("bin"), work = dir.file("work");
  for (const std::string& d : {lib, bin, work}) fs::create_directory(d);
  fs::copy_file(fs::path(SEALMARK_BIN).parent_path() / "libPDFSealmark27.so.27",
                lib + "/libPDFSealmark27.so.27");
  fs::copy_file(SEALMARK_BIN, bin + "/sealmark");
  for (const std::string& where : {lib, bin}) {
    fs::copy_file(account, where + "/acct", fs::copy_options::overwrite_existing);
    const auto r = run("cd " + work + " && LD_LIBRARY_PATH=" + lib + ":" + kStandins + " " + bin +
                       "/sealmark timestamp" + amano + "acct " + input);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_THAT(calls(), HasSubstr("ASDTSTLoadAccountEx " + where + "/acct 1\n"));
    fs::remove(where + "/acct");
  }
  const std::string pfu = " --service pfu --user alice --password pw ";
  // clang-format off
  for (const auto& [args, code, out] : std::vector<std::tuple<std::string, int, std::string>>{
           {env + sealmark("timestamp" + amano + account + " " + input), 0, "\nsource: amano\n"},
           {env + sealmark("timestamp" + pfu + input), 0, "\nsource: pfu\n"},
           {sealmark("timestamp" + pfu + input), 1, ""},
           {"SEALMARK_STANDIN_FAIL=tslib_pfu_logout " + env + sealmark("timestamp" + pfu + input), 1, ""},
           {env + sealmark("timestamp --service other " + input), 2, ""}}) {
    // clang-format on
    const auto r = run(args);
    EXPECT_EQ(r.exitCode, code) << args << r.err;
    EXPECT_THAT(r.out, HasSubstr(out));
  }
  // The PFU token (the last one written) is a real RFC 3161 token.
  EXPECT_TRUE(verifiedByOpenssl(input, input + ".tsr"));
}

}  // namespace
