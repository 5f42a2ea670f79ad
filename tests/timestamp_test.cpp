// The RFC 3161 client and `sealmark timestamp`: the TimeStampResp reader,
// tokens from a real TSA (`openssl ts -reply` behind serve.py) checked with
// `openssl ts -verify`, canned answers, the probe file, the facades.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "pdfsealmark/PDFAmanoTimeStamp.h"
#include "pdfsealmark/PDFPfuTimeStamp.h"
#include "pdfsealmark/PDFStdTimeStamp.h"
#include "pdfsealmark/timestamp/PDFAmanoTimeStampImpl.h"
#include "pdfsealmark/timestamp/PDFPfuTimeStampImpl.h"
#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"
#include "support/test_tsa.h"

namespace {

using PDF_Sealmark::PDFStdTimeStamp;
using PDF_Sealmark::PDFStdTimeStampImpl;
using sealtest::hex;
using sealtest::run;
using sealtest::sealmark;
using sealtest::shellQuote;
using ::testing::HasSubstr;
using ::testing::Not;
using Bytes = std::vector<unsigned char>;

TEST(ExtractToken, StatusDecidesAndTheRestIsTheToken) {
  // Responses by what extractToken gives for them: the token's length (the
  // tail of the response, as the fuzz target checks), or a failure code.
  for (const auto& [result, responses] : std::vector<std::pair<long, std::vector<std::string>>>{
           // granted, grantedWithMods, a status of two bytes, a short outer
           // length that isn't compared with the data
           {5,
            {"300a 3003020100 3003020105", "300a 3003020101 3003020105", "300b 300402020000 3003020105",
             "3002 3003020100 3003020105"}},
           {3, {"308108 3003020100 aabbcc", "30a108 3003020100 aabbcc"}},  // five bits count length bytes
           {10, {"3010 3008020100 30030c016f 3003020105"}},                // a statusString heads the token
           {0, {"3005 3003020100"}},
           {-1,
            {"", "30", "3105 3003020100", "3080 3003020100", "3085 0000000005 3003020100",
             "308100 3003020100", "308109 3003020100 aabbcc", "3005 0203020100"}},
           // a rejection, a PKIStatusInfo length in long form, a status that isn't an INTEGER
           {-2,
            {"300a 3003020102 3003020105", "3006 308103020100", "3005 3003040100",
             "3012 300b 0209010000000000000000 3003020105"}},  // 2^64 doesn't fit
           {-9, {"3082 01", "3005 30", "3007 30030202 00", "3004 300302"}}}) {
    for (const std::string& response : responses) {
      const Bytes in = hex(response);
      Bytes out(PDFStdTimeStampImpl::kMaxToken);
      EXPECT_EQ(PDFStdTimeStampImpl::extractToken(in.data(), in.size(), out.data(), out.size()), result)
          << response;
    }
  }
}

// Base64 of this user and password runs past the 64 characters after which
// OpenSSL's encoder breaks lines.
const std::string kUser(60, 'u');

// One TSA, and one that demands Basic authorization, for the whole file.
sealtest::TestTsa& tsa() {
  static sealtest::TestTsa shared;
  return shared;
}
sealtest::TestTsa& authTsa() {
  static sealtest::TestTsa shared(kUser, "s3cret");
  return shared;
}

void expectVerifies(const std::string& data, const std::string& token) {
  EXPECT_THAT(
      run("openssl ts -verify -data " + data + " -in " + token + " -token_in -CAfile " + tsa().caFile()).out,
      HasSubstr("Verification: OK"));
}

TEST(TimeStampTsa, TokensOverSha512AndSha1Verify) {
  sealtest::TempDir dir;
  const std::string data = dir.write("data.bin", Bytes(3000, 'd'));
  for (const auto& [hashType, md] :
       std::vector<std::pair<int, std::string>>{{2, "sha512"}, {1, "sha1"}, {7, "sha1"}}) {
    const int before = tsa().queries();
    const std::string digest = sealtest::oracle("openssl dgst -" + md + " -r " + data);
    Bytes token = hex("deadbeef");
    ASSERT_TRUE(
        PDFStdTimeStamp(tsa().url(), "", "", hashType)
            .LeImplementts(token, {}, hex(digest.substr(0, digest.find(' '))), hex("0102030405060708 090a")));
    expectVerifies(data, dir.write("token.der", token));
    // One exchange, on the WinInet path, with the first 8 bytes of the nonce.
    EXPECT_EQ(tsa().queries(), before + 1);
    const std::string log = tsa().requests(), last = log.substr(log.rfind("POST /tsa HTTP/1.1\n"));
    EXPECT_THAT(last, Not(HasSubstr("Authorization")));
    EXPECT_THAT(last, HasSubstr("020801020304050607080101ff\n"));
  }
}

TEST(TimeStampTsa, BadArgumentsGoNowhere) {
  const int before = tsa().queries();
  // hashType 2 takes 64 bytes, any other 20; a nonce of 8 bytes or more.
  for (const auto& [url, hashType, digest, nonce] :
       std::vector<std::tuple<std::string, int, Bytes, Bytes>>{{tsa().url(), 2, Bytes(20, 1), Bytes(8, 1)},
                                                               {tsa().url(), 0, Bytes(64, 1), Bytes(8, 1)},
                                                               {tsa().url(), 1, Bytes(20, 1), Bytes(7, 1)},
                                                               {"", 1, Bytes(20, 1), Bytes(8, 1)}}) {
    Bytes token = hex("deadbeef");
    EXPECT_FALSE(PDFStdTimeStamp(url, "", "", hashType).LeImplementts(token, {}, digest, nonce));
    EXPECT_TRUE(token.empty());
  }
  EXPECT_EQ(tsa().queries(), before);
}

TEST(TimeStampTsa, BasicAuthorization) {
  const Bytes digest(64, 7), nonce(8, 1);
  Bytes token;
  EXPECT_TRUE(PDFStdTimeStamp(authTsa().url(), kUser, "s3cret", 2).LeImplementts(token, {}, digest, nonce));
  // Without credentials, or with half of them, none are sent: 401 on the
  // WinInet path, and again on the socket path.
  for (const auto& [user, password] :
       {std::pair(std::string(), ""), std::pair(kUser, ""), std::pair(std::string(), "s3cret")}) {
    const int before = authTsa().queries();
    EXPECT_FALSE(PDFStdTimeStamp(authTsa().url(), user, password, 2).LeImplementts(token, {}, digest, nonce));
    EXPECT_TRUE(token.empty());
    EXPECT_EQ(authTsa().queries(), before + 2);
  }
  const std::string log = authTsa().requests();
  EXPECT_EQ(log.find("Authorization"), log.rfind("Authorization")) << log;
}

TEST(TimeStampTsa, CommandWritesVerifiableTokens) {
  sealtest::TempDir dir;
  const std::string input = dir.write("contract.pdf", Bytes(5000, 'c')), other = dir.file("stamp.der");
  for (const auto& [args, token, hash] : std::vector<std::tuple<std::string, std::string, std::string>>{
           {"--url " + tsa().url(), input + ".tsr", "sha512"},
           {"--hash sha1 --output " + other + " --url=" + tsa().url(), other, "sha1"},
           {"--url " + authTsa().url() + " --user " + kUser + " --password s3cret", input + ".tsr",
            "sha512"}}) {
    const auto r = run(sealmark("timestamp " + args + " " + shellQuote(input)));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    expectVerifies(input, token);
    const std::string text = sealtest::openssl("ts -reply -in " + shellQuote(token) + " -token_in -text");
    EXPECT_THAT(text, HasSubstr("Hash Algorithm: " + hash + "\n"));
    // "Time stamp: Nov 22 23:55:01 2025 GMT" is printed "time: 20251122235501Z".
    const std::string time =
        sealtest::oracle("date -u +%Y%m%d%H%M%SZ -d '" +
                         text.substr(std::min(text.find("Time stamp: ") + 12, text.size()), 24) + "'");
    EXPECT_EQ(r.out, "token: " + token + "\ntime: " + time + "\nsource: rfc3161\nsize: " +
                         std::to_string(sealtest::readFile(token).size()) + " bytes\n");
  }
}

TEST(TimeStampTsa, CommandFailures) {
  sealtest::TempDir dir;
  const std::string input = shellQuote(dir.write("data.bin", Bytes(10, 0))), url = "--url " + tsa().url();
  const int before = tsa().queries();
  for (const auto& [args, code, why] : std::vector<std::tuple<std::string, int, std::string>>{
           // Refused by the server, or nothing listens: exit 1, no file.
           {"--url " + authTsa().url() + " " + input, 1,
            authTsa().url() + ": no time-stamp token from the server"},
           {"--url http://127.0.0.1:1/ " + input, 1,
            "http://127.0.0.1:1/: no time-stamp token from the server"},
           {url + " " + dir.file("absent"), 2, dir.file("absent") + ": No such file or directory"},
           {url, 2, ""},
           {url + " --hash md5 " + input, 2, ""},
           {url + " --user u " + input, 2, ""},
           {url + " " + input + " " + input, 2, ""}}) {
    const auto r = run(sealmark("timestamp " + args));
    EXPECT_EQ(r.exitCode, code) << args;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("sealmark: " + why, 0), 0u) << r.err;
    EXPECT_EQ(r.out, "");
  }
  EXPECT_TRUE(sealtest::readFile(dir.file("data.bin.tsr")).empty());
  EXPECT_EQ(tsa().queries(), before);
  EXPECT_EQ(run(sealmark("timestamp --help")).out.rfind("usage: sealmark timestamp --url URL", 0), 0u);
}

TEST(TimeStampAnswers, NoTokenFromRefusalsSocketPathWhenWinInetFailed) {
  sealtest::Web web;
  Bytes big = hex("3082 5006 3003020100");
  big.resize(big.size() + 20481, 0x42);
  for (const auto& [name, answer] : std::vector<std::pair<std::string, Bytes>>{
           {"rejection", hex("3011 3003020102 300a06082a864886f70d0107")},
           {"statusonly", hex("3005 3003020100")},
           {"toolarge", big},
           {"notaresponse", hex("0400")}}) {
    web.www.write(name, answer);
    Bytes token = hex("deadbeef");
    EXPECT_FALSE(
        PDFStdTimeStamp(web.url(name), "", "", 1).LeImplementts(token, {}, Bytes(20, 9), Bytes(8, 1)));
    EXPECT_TRUE(token.empty());
    EXPECT_EQ(web.hits(name), 1) << name;  // the exchange worked: no socket path
  }
  // CR-only line ends: the WinInet path fails, the socket path reads the token.
  web.www.write("ts.http", sealtest::bytes("HTTP/1.1 200 OK\rContent-Length: 12\r\r" +
                                           sealtest::text(hex("300a 3003020100 3003020105"))));
  Bytes token;
  EXPECT_TRUE(
      PDFStdTimeStamp(web.url("ts"), "u", "p", 1).LeImplementts(token, {}, Bytes(20, 9), Bytes(8, 1)));
  EXPECT_EQ(token, hex("3003020105"));
  // The socket path sent the same headers and body.
  const std::string log = web.log("ts"), second = log.substr(std::min(log.find("POST", 1), log.size()));
  for (const std::string& line :
       {std::string("\nUser-Agent: KV-PdsModule\n"), std::string("\nAuthorization: Basic dTpw\n"),
        std::string("\nContent-Type: application/timestamp-query\n"), log.substr(log.find("body: "), 50)})
    EXPECT_THAT(second, HasSubstr(line));
}

TEST(TimeStampProbe, WritesTheTokenOfAnAllZeroRequest) {
  sealtest::Web web;
  sealtest::TempDir cwd;
  web.www.write("probe", hex("300c 3003020100 3005020107aabb"));
  web.www.write("refusal", hex("3005 3003020102"));
  char* old = ::getcwd(nullptr, 0);
  ASSERT_EQ(::chdir(cwd.path().c_str()), 0);
  // hashType 2 probes with 20 zero bytes, 1 with 64: the other way round from
  // LeImplementts.  No credentials, whatever is set.
  cwd.write("response.tsr", Bytes(5000, 'x'));
  PDFStdTimeStamp(web.url("probe"), "alice", "s3cret", 2).OnImplementts();
  const Bytes written = sealtest::readFile("response.tsr");
  PDFStdTimeStamp(web.url("probe"), "alice", "s3cret", 1).OnImplementts();
  // Without an answer, or a URL, the old file goes all the same.
  for (const std::string& url : {std::string(), web.url("refusal")}) {
    cwd.write("response.tsr", Bytes(10, 'x'));
    PDFStdTimeStamp(url, "", "", 2).OnImplementts();
    EXPECT_NE(::access("response.tsr", F_OK), 0) << url;
  }
  // Only a file of that name goes, never a directory.
  ASSERT_EQ(::mkdir("response.tsr", 0700), 0);
  PDFStdTimeStamp(web.url("refusal"), "", "", 2).OnImplementts();
  EXPECT_EQ(::access("response.tsr", F_OK), 0);
  EXPECT_EQ(::chdir(old), 0);
  std::free(old);
  EXPECT_EQ(written, hex("3005020107aabb"));
  const std::string log = web.log("probe"), tail = "0208" + std::string(16, '0') + "0101ff\n";
  EXPECT_THAT(log, HasSubstr("body: 3031020101301f300706052b0e03021a0414" + std::string(40, '0') + tail));
  EXPECT_THAT(log,
              HasSubstr("body: 3061020101304f300b06096086480165030402030440" + std::string(128, '0') + tail));
  EXPECT_THAT(log, Not(HasSubstr("Authorization")));
}

TEST(TimeStampFacades, CopiesShareOneImplementation) {
  auto* first = new PDFStdTimeStamp("http://a.example/", "u", "p", 2);
  PDFStdTimeStamp copy(*first), other("http://b.example/", "", "", 1);
  delete first;
  // The copy outlives the original; assignment takes the other's
  // implementation and releases its own (ASan sees a leak or double free).
  other = copy;
  other = *&other;
  EXPECT_EQ(other.getStdTimeStampImpl(), copy.getStdTimeStampImpl());
  const auto* impl = other.getStdTimeStampImpl();
  EXPECT_EQ(impl->getUrl() + impl->getUser() + impl->getPassword(), "http://a.example/up");
  EXPECT_EQ(other.getHashType(), 2);
  PDF_Sealmark::PDFAmanoTimeStamp amano("tss.example:80", "account.dat", "pw"), amanoOther("x", "y", "z");
  amanoOther = amano;
  EXPECT_EQ(PDF_Sealmark::PDFAmanoTimeStamp(amanoOther).getAmanoTimeStampImpl(),
            amano.getAmanoTimeStampImpl());
  PDF_Sealmark::PDFPfuTimeStamp pfu("user", "pw"), pfuOther("a", "b");
  pfuOther = pfu;
  EXPECT_EQ(PDF_Sealmark::PDFPfuTimeStamp(pfuOther).getPfuTimeStampImpl(), pfu.getPfuTimeStampImpl());
}

}  // namespace
