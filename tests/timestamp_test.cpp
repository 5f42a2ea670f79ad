// The time-stamp clients: the RFC 3161 client against a real TSA
// (`openssl ts -reply` behind a loopback HTTP server), its TimeStampResp
// reader, the probe file, and the facades' copy rules.
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "pdfsealmark/PDFAmanoTimeStamp.h"
#include "pdfsealmark/PDFPfuTimeStamp.h"
#include "pdfsealmark/PDFStdTimeStamp.h"
#include "pdfsealmark/timestamp/PDFAmanoTimeStampImpl.h"
#include "pdfsealmark/timestamp/PDFPfuTimeStampImpl.h"
#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"
#include "support/loopback_http.h"
#include "support/test_tsa.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFStdTimeStamp;
using PDF_Sealmark::PDFStdTimeStampImpl;
using sealtest::hex;
using sealtest::HttpRequest;
using sealtest::LoopbackHttpServer;
using sealtest::Reply;
using Bytes = std::vector<unsigned char>;

Bytes digestOf(const Bytes& data, const EVP_MD* md) {
  Bytes out(static_cast<std::size_t>(EVP_MD_get_size(md)));
  unsigned int n = 0;
  EVP_Digest(data.data(), data.size(), out.data(), &n, md, nullptr);
  return out;
}

Bytes randomBytes(std::size_t n) {
  Bytes b(n);
  RAND_bytes(b.data(), static_cast<int>(n));
  return b;
}

// A nonce whose 8 bytes are also a valid DER INTEGER, as OpenSSL demands.
Bytes goodNonce(std::size_t n = 8) {
  Bytes b = randomBytes(n);
  b[0] = static_cast<unsigned char>((b[0] & 0x7F) | 0x01);
  return b;
}

// A granted TimeStampResp with a long-form outer length and a token of n
// bytes.
Bytes responseWithToken(std::size_t n) {
  Bytes r = hex("30820000 3003020100");
  r.resize(r.size() + n, 0x42);
  const std::size_t rest = r.size() - 4;
  r[2] = static_cast<unsigned char>(rest >> 8);
  r[3] = static_cast<unsigned char>(rest & 0xFF);
  return r;
}

// A TimeStampResp as a server sends it over HTTP.
Reply respond(const Bytes& timeStampResp) { return Reply::ok(sealtest::text(timeStampResp), "application/timestamp-reply"); }

// ---------------------------------------------------------------------------
// extractToken

struct ExtractCase {
  const char* name;
  std::string response;  // hex
  long result;
  std::string token;  // hex
};

class ExtractToken : public ::testing::TestWithParam<ExtractCase> {};

TEST_P(ExtractToken, ReadsStatusAndCutsToken) {
  const ExtractCase& c = GetParam();
  const Bytes response = hex(c.response);
  Bytes out(PDFStdTimeStampImpl::kMaxToken, 0xEE);
  const long n = PDFStdTimeStampImpl::extractToken(response.data(), response.size(), out.data(), out.size());
  EXPECT_EQ(n, c.result);
  if (n > 0) {
    EXPECT_EQ(Bytes(out.begin(), out.begin() + n), hex(c.token));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Responses, ExtractToken,
    ::testing::Values(
        ExtractCase{"Granted", "300a 3003020100 3003020105", 5, "3003020105"},
        ExtractCase{"GrantedWithMods", "300a 3003020101 3003020105", 5, "3003020105"},
        ExtractCase{"TwoByteStatusZero", "300b 300402020000 3003020105", 5, "3003020105"},
        // The outer length in short form isn't compared with the data.
        ExtractCase{"ShortOuterLengthUnchecked", "3002 3003020100 3003020105", 5, "3003020105"},
        ExtractCase{"LongOuterLength", "308108 3003020100 aabbcc", 3, "aabbcc"},
        // Only the lower five bits count the length bytes.
        ExtractCase{"LengthCountMaskedToFiveBits", "30a108 3003020100 aabbcc", 3, "aabbcc"},
        // A statusString behind the status becomes the head of the token.
        ExtractCase{"StatusStringBecomesToken", "3010 3008020100 30030c016f 3003020105", 10, "30030c016f3003020105"},
        ExtractCase{"StatusOnly", "3005 3003020100", 0, ""},
        ExtractCase{"Rejection", "300a 3003020102 3003020105", -2, ""},
        ExtractCase{"Waiting", "300a 3003020103 3003020105", -2, ""},
        ExtractCase{"Empty", "", -1, ""},
        ExtractCase{"OneByte", "30", -1, ""},
        ExtractCase{"NotASequence", "3105 3003020100", -1, ""},
        ExtractCase{"NoLengthBytes", "3080 3003020100", -1, ""},
        ExtractCase{"FiveLengthBytes", "3085 0000000005 3003020100", -1, ""},
        ExtractCase{"LongLengthZero", "308100 3003020100", -1, ""},
        ExtractCase{"LongLengthBeyondData", "308109 3003020100 aabbcc", -1, ""},
        ExtractCase{"NoStatusInfo", "3005 0203020100", -1, ""},
        ExtractCase{"StatusInfoLongLength", "3006 308103020100", -2, ""},
        ExtractCase{"StatusNotInteger", "3005 3003040100", -2, ""},
        ExtractCase{"LengthBytesCutOff", "3082 01", -9, ""},
        ExtractCase{"CutAfterStatusInfoTag", "3005 30", -9, ""},
        ExtractCase{"CutInsideStatus", "3007 30030202 00", -9, ""},
        ExtractCase{"CutAfterIntegerTag", "3004 300302", -9, ""}),
    [](const ::testing::TestParamInfo<ExtractCase>& info) { return std::string(info.param.name); });

TEST(ExtractTokenCapacity, TokenMustFit) {
  Bytes out(20481);
  for (std::size_t token : {20480, 20481}) {
    const Bytes r = responseWithToken(token);
    EXPECT_EQ(PDFStdTimeStampImpl::extractToken(r.data(), r.size(), out.data(), 20480), token == 20480 ? 20480 : -3);
    EXPECT_EQ(PDFStdTimeStampImpl::extractToken(r.data(), r.size(), out.data(), 20481), static_cast<long>(token));
  }
}

// The token cut out of a real TimeStampResp is the one `openssl ts` itself
// extracts.
TEST(ExtractTokenOpenSsl, AgreesWithOpenSslTokenOut) {
  sealtest::TestTsa tsa;
  const sealtest::TempDir& dir = tsa.dir();
  const std::string data = dir.write("data.bin", randomBytes(1000));
  const auto q = sealtest::shellQuote;
  sealtest::openssl("ts -query -data " + q(data) + " -sha512 -cert -out " + q(dir.file("q.tsq")));
  sealtest::openssl("ts -reply -config " + q(dir.file("openssl.cnf")) + " -queryfile " + q(dir.file("q.tsq")) +
                    " -out " + q(dir.file("r.tsr")));
  sealtest::openssl("ts -reply -in " + q(dir.file("r.tsr")) + " -token_out -out " + q(dir.file("t.der")));
  const Bytes response = sealtest::readFile(dir.file("r.tsr"));
  const Bytes expected = sealtest::readFile(dir.file("t.der"));
  ASSERT_FALSE(expected.empty());
  Bytes out(PDFStdTimeStampImpl::kMaxToken);
  const long n = PDFStdTimeStampImpl::extractToken(response.data(), response.size(), out.data(), out.size());
  ASSERT_GT(n, 0);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + n), expected);
}

// ---------------------------------------------------------------------------
// Request layout

TEST(TimeStampRequest, FixedTemplates) {
  Bytes digest20(20), digest64(64);
  for (std::size_t i = 0; i < 64; ++i) {
    digest64[i] = static_cast<unsigned char>(i);
    if (i < 20) digest20[i] = static_cast<unsigned char>(0xA0 + i);
  }
  // Nine bytes, of which the first eight go out unchanged, leading zero and
  // all (no DER sign byte, no trimming).
  const Bytes nonce = hex("00ff010203040506 99");
  EXPECT_EQ(PDFStdTimeStampImpl::buildRequest(digest20, nonce),
            hex("3031 020101 301f 3007 06052b0e03021a 0414 a0a1a2a3a4a5a6a7a8a9aaabacadaeafb0b1b2b3"
                " 0208 00ff010203040506 0101ff"));
  EXPECT_EQ(PDFStdTimeStampImpl::buildRequest(digest64, nonce),
            hex("3061 020101 304f 300b 0609608648016503040203 0440"
                " 000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f"
                " 202122232425262728292a2b2c2d2e2f303132333435363738393a3b3c3d3e3f"
                " 0208 00ff010203040506 0101ff"));
  EXPECT_TRUE(PDFStdTimeStampImpl::buildRequest(Bytes(32), nonce).empty());
  EXPECT_TRUE(PDFStdTimeStampImpl::buildRequest(digest20, Bytes(7)).empty());
}

// OpenSSL reads both templates as TimeStampReqs with the given imprint.
TEST(TimeStampRequest, OpenSslReadsTemplates) {
  sealtest::TempDir dir;
  const Bytes nonce = hex("0102030405060708");
  for (int bits : {1, 512}) {
    const Bytes digest = digestOf(hex("616263"), bits == 1 ? EVP_sha1() : EVP_sha512());
    const std::string file = dir.write("q.tsq", PDFStdTimeStampImpl::buildRequest(digest, nonce));
    const std::string printed = sealtest::openssl("ts -query -in " + sealtest::shellQuote(file) + " -text");
    EXPECT_NE(printed.find(bits == 1 ? "Hash Algorithm: sha1" : "Hash Algorithm: sha512"), std::string::npos)
        << printed;
    EXPECT_NE(printed.find("Nonce: 0x0102030405060708"), std::string::npos) << printed;
    EXPECT_NE(printed.find("Certificate required: yes"), std::string::npos) << printed;
    EXPECT_NE(printed.find("Policy OID: unspecified"), std::string::npos) << printed;
  }
}

TEST(TimeStampCredentials, Base64OnOneLine) {
  EXPECT_EQ(PDFStdTimeStampImpl::basicCredentials("Aladdin", "open sesame"), "QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
  // Long enough for the encoder to break lines: they are taken out.
  const std::string user(60, 'u');
  const std::string encoded = PDFStdTimeStampImpl::basicCredentials(user, "p");
  EXPECT_EQ(encoded.find('\n'), std::string::npos);
  EXPECT_EQ(encoded.size(), 84u);
}

// ---------------------------------------------------------------------------
// Against a real TSA

class StdTimeStampTsa : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tsa_ = new sealtest::TestTsa;
    authTsa_ = new sealtest::TestTsa("alice", "s3cret");
  }
  static void TearDownTestSuite() {
    delete tsa_;
    delete authTsa_;
    tsa_ = authTsa_ = nullptr;
  }

  // `openssl ts -verify` of a token over data, against the TSA's root.
  static void expectVerifies(const sealtest::TestTsa& tsa, const Bytes& data, const Bytes& token) {
    sealtest::TempDir dir;
    const auto q = sealtest::shellQuote;
    const std::string dataFile = dir.write("data.bin", data);
    const std::string tokenFile = dir.write("token.der", token);
    const auto r = sealtest::run("openssl ts -verify -data " + q(dataFile) + " -in " + q(tokenFile) +
                                 " -token_in -CAfile " + q(tsa.caFile()));
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_NE(r.out.find("Verification: OK"), std::string::npos) << r.out << r.err;
  }

  static sealtest::TestTsa* tsa_;
  static sealtest::TestTsa* authTsa_;
};

sealtest::TestTsa* StdTimeStampTsa::tsa_ = nullptr;
sealtest::TestTsa* StdTimeStampTsa::authTsa_ = nullptr;

TEST_F(StdTimeStampTsa, TokensVerifyWithSha512AndSha1) {
  const Bytes data = randomBytes(3000);
  struct Case {
    int hashType;
    const EVP_MD* md;
    std::size_t requestSize;
  };
  for (const Case& c : {Case{PDFStdTimeStamp::kSha512, EVP_sha512(), 99}, Case{PDFStdTimeStamp::kSha1, EVP_sha1(), 51},
                        Case{7, EVP_sha1(), 51}}) {
    SCOPED_TRACE(c.hashType);
    const auto before = tsa_->server().requests().size();
    PDFStdTimeStamp client(tsa_->url(), "", "", c.hashType);
    const Bytes nonce = goodNonce(12);
    Bytes token = hex("deadbeef");
    ASSERT_TRUE(client.LeImplementts(token, Bytes(), digestOf(data, c.md), nonce));
    expectVerifies(*tsa_, data, token);

    // One exchange, on the WinInet path.
    const auto requests = tsa_->server().requests();
    ASSERT_EQ(requests.size(), before + 1);
    const HttpRequest& r = requests.back();
    EXPECT_EQ(r.header("Content-Type"), "application/timestamp-query");
    EXPECT_EQ(r.header("User-Agent"), "KV-PdsModule");
    EXPECT_FALSE(r.hasHeader("Authorization"));
    ASSERT_EQ(r.body.size(), c.requestSize);
    // Only the first 8 nonce bytes went out.
    EXPECT_EQ(Bytes(r.body.end() - 11, r.body.end() - 3), Bytes(nonce.begin(), nonce.begin() + 8));
  }
}

TEST_F(StdTimeStampTsa, RefusesBadArgumentsWithoutAnExchange) {
  const auto before = tsa_->server().connections();
  const Bytes d20(20, 1), d64(64, 1), nonce = goodNonce();
  struct Case {
    std::string url;
    int hashType;
    Bytes digest, nonce;
  };
  // hashType 2 takes 64 bytes only, 1 (and any other) 20 bytes only; a
  // nonce of 7 bytes, or none; no digest; no URL.
  for (const Case& c : {Case{tsa_->url(), 2, d20, nonce}, Case{tsa_->url(), 1, d64, nonce}, Case{tsa_->url(), 0, d64, nonce},
                        Case{tsa_->url(), 1, d20, Bytes(7, 1)}, Case{tsa_->url(), 1, d20, Bytes()},
                        Case{tsa_->url(), 1, Bytes(), nonce}, Case{"", 1, d20, nonce}}) {
    Bytes token = hex("deadbeef");
    EXPECT_FALSE(PDFStdTimeStamp(c.url, "", "", c.hashType).LeImplementts(token, Bytes(), c.digest, c.nonce));
    EXPECT_TRUE(token.empty());
  }
  EXPECT_EQ(tsa_->server().connections(), before);
}

TEST_F(StdTimeStampTsa, BasicAuthorization) {
  const Bytes data = randomBytes(100);
  const Bytes digest = digestOf(data, EVP_sha512());
  Bytes token;
  ASSERT_TRUE(PDFStdTimeStamp(authTsa_->url(), "alice", "s3cret", 2).LeImplementts(token, data, digest, goodNonce()));
  expectVerifies(*authTsa_, data, token);
  EXPECT_EQ(authTsa_->server().requests().back().header("Authorization"), "Basic YWxpY2U6czNjcmV0");

  // Without credentials, or with half of them, none are sent: 401 on the
  // WinInet path, and again on the socket path.
  for (const auto& [user, password] : {std::pair<std::string, std::string>{"", ""}, {"alice", ""}, {"", "s3cret"}}) {
    const auto before = authTsa_->server().requests().size();
    EXPECT_FALSE(PDFStdTimeStamp(authTsa_->url(), user, password, 2).LeImplementts(token, data, digest, goodNonce()));
    EXPECT_TRUE(token.empty());
    const auto requests = authTsa_->server().requests();
    ASSERT_EQ(requests.size(), before + 2);
    EXPECT_FALSE(requests[before].hasHeader("Authorization"));
    EXPECT_FALSE(requests[before + 1].hasHeader("Authorization"));
  }
}

// ---------------------------------------------------------------------------
// Against canned servers

TEST(StdTimeStampAnswers, NoTokenFromRefusalsAndMalformedAnswers) {
  const Bytes big = responseWithToken(20481);
  struct Case {
    const char* name;
    Bytes resp;
  };
  for (const Case& c : {Case{"rejection", hex("3011 3003020102 300a06082a864886f70d0107")},
                        Case{"status only", hex("3005 3003020100")}, Case{"token too large", big},
                        Case{"not a response", hex("0400")}}) {
    SCOPED_TRACE(c.name);
    LoopbackHttpServer server([&c](const HttpRequest&) { return respond(c.resp); });
    Bytes token = hex("deadbeef");
    EXPECT_FALSE(PDFStdTimeStamp(server.url("/"), "", "", 1).LeImplementts(token, Bytes(), Bytes(20, 9), goodNonce()));
    EXPECT_TRUE(token.empty());
    // The exchange itself worked, so the socket path isn't tried.
    EXPECT_EQ(server.connections(), 1);
  }
}

TEST(StdTimeStampAnswers, SocketPathAfterWinInetFailed) {
  const Bytes resp = hex("300a 3003020100 3003020105");
  int n = 0;
  LoopbackHttpServer server([&](const HttpRequest&) {
    return ++n == 1 ? Reply::of("HTTP/1.1 503 Busy\r\nContent-Length: 0\r\n\r\n") : respond(resp);
  });
  Bytes token;
  ASSERT_TRUE(PDFStdTimeStamp(server.url("/ts"), "u", "p", 1).LeImplementts(token, Bytes(), Bytes(20, 9), goodNonce()));
  EXPECT_EQ(token, hex("3003020105"));
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  // The second came over the socket path, with the same headers and body.
  EXPECT_NE(requests[1].head.find("\r\nUser-Agent:KV-PdsModule\r\n"), std::string::npos) << requests[1].head;
  EXPECT_EQ(requests[1].header("Content-Type"), "application/timestamp-query");
  EXPECT_EQ(requests[1].header("Authorization"), "Basic dTpw");
  EXPECT_EQ(requests[1].body, requests[0].body);
}

// ---------------------------------------------------------------------------
// The probe

class ProbeInTempDir : public ::testing::Test {
 protected:
  void SetUp() override {
    char* cwd = ::getcwd(nullptr, 0);
    ASSERT_NE(cwd, nullptr);
    oldDir_ = cwd;
    std::free(cwd);
    ASSERT_EQ(::chdir(dir_.path().c_str()), 0);
  }
  void TearDown() override { ASSERT_EQ(::chdir(oldDir_.c_str()), 0); }
  bool probeFileExists() const { return ::access(dir_.file("response.tsr").c_str(), F_OK) == 0; }

  sealtest::TempDir dir_;
  std::string oldDir_;
};

TEST_F(ProbeInTempDir, WritesTokenOfAllZeroProbe) {
  const Bytes resp = hex("300c 3003020100 3005020107aabb");
  LoopbackHttpServer server([&](const HttpRequest&) { return respond(resp); });
  dir_.write("response.tsr", Bytes(5000, 'x'));
  // hashType 2 probes with 20 zero bytes, 1 with 64: the other way round
  // from what LeImplementts takes.  No credentials, whatever is set.
  PDFStdTimeStamp(server.url("/probe"), "alice", "s3cret", 2).OnImplementts();
  EXPECT_EQ(sealtest::readFile(dir_.file("response.tsr")), hex("3005020107aabb"));
  PDFStdTimeStamp(server.url("/probe"), "alice", "s3cret", 1).OnImplementts();

  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 2u);
  const Bytes zeroNonce(8, 0);
  Bytes expected20 = PDFStdTimeStampImpl::buildRequest(Bytes(20, 0), zeroNonce);
  Bytes expected64 = PDFStdTimeStampImpl::buildRequest(Bytes(64, 0), zeroNonce);
  EXPECT_EQ(requests[0].body, expected20);
  EXPECT_EQ(requests[1].body, expected64);
  EXPECT_FALSE(requests[0].hasHeader("Authorization"));
  EXPECT_FALSE(requests[1].hasHeader("Authorization"));
}

TEST_F(ProbeInTempDir, OldFileGoesEvenWithoutAnswerServiceClientsTouchNothing) {
  LoopbackHttpServer refusing([](const HttpRequest&) { return respond(hex("3005 3003020102")); });
  for (const std::string& url : {std::string(), refusing.url("/")}) {
    dir_.write("response.tsr", Bytes(10, 'x'));
    PDFStdTimeStamp(url, "", "", 2).OnImplementts();
    EXPECT_FALSE(probeFileExists()) << url;
  }
  dir_.write("response.tsr", Bytes(10, 'x'));
  PDF_Sealmark::PDFAmanoTimeStamp("tss.example:80", "account.dat", "pw").OnImplementts();
  PDF_Sealmark::PDFPfuTimeStamp("user", "pw").OnImplementts();
  EXPECT_EQ(sealtest::readFile(dir_.file("response.tsr")), Bytes(10, 'x'));
}

// ---------------------------------------------------------------------------
// Facades

TEST(TimeStampFacades, CopiesShareOneImplementation) {
  auto* first = new PDFStdTimeStamp("http://a.example/", "u", "p", 2);
  PDFStdTimeStamp copy(*first);
  ASSERT_NE(first->getStdTimeStampImpl(), nullptr);
  EXPECT_EQ(copy.getStdTimeStampImpl(), first->getStdTimeStampImpl());
  delete first;
  // The copy outlives the original and keeps the settings.
  const auto* impl = copy.getStdTimeStampImpl();
  EXPECT_EQ(impl->getUrl() + impl->getUser() + impl->getPassword(), "http://a.example/up");
  EXPECT_EQ(impl->getHashType(), 2);

  // Assignment takes the other's implementation and base part; the replaced
  // implementation is released (a leak or double delete shows under ASan).
  PDFStdTimeStamp other("http://b.example/", "", "", 1);
  PDFStdTimeStamp third(other);
  other = copy;
  EXPECT_EQ(other.getStdTimeStampImpl(), impl);
  EXPECT_EQ(other.getHashType(), 2);
  EXPECT_EQ(third.getStdTimeStampImpl()->getUrl(), "http://b.example/");
  PDFStdTimeStamp& thirdAlias = third;
  third = thirdAlias;
  EXPECT_EQ(third.getStdTimeStampImpl()->getUrl(), "http://b.example/");

  PDF_Sealmark::PDFAmanoTimeStamp amano("tss.example:80", "account.dat", "pw"), amanoOther("x", "y", "z");
  amanoOther = amano;
  EXPECT_EQ(amanoOther.getAmanoTimeStampImpl(), amano.getAmanoTimeStampImpl());
  EXPECT_EQ(PDF_Sealmark::PDFAmanoTimeStamp(amano).getAmanoTimeStampImpl()->getAccountFile(), "account.dat");
  PDF_Sealmark::PDFPfuTimeStamp pfu("user", "pw"), pfuOther("a", "b");
  pfuOther = pfu;
  PDF_Sealmark::PDFPfuTimeStamp pfuCopy(pfuOther);
  EXPECT_EQ(pfuCopy.getPfuTimeStampImpl(), pfu.getPfuTimeStampImpl());
  EXPECT_EQ(pfuCopy.getPfuTimeStampImpl()->getUser(), "user");
}

TEST(TimeStampFacades, ServiceClientsGiveNoTokenYet) {
  const PDF_Sealmark::PDFAmanoTimeStamp amano("tss.example:80", "account.dat", "pw");
  const PDF_Sealmark::PDFPfuTimeStamp pfu("user", "pw");
  for (const PDF_Vellum::TimeStamp* client : {static_cast<const PDF_Vellum::TimeStamp*>(&amano),
                                              static_cast<const PDF_Vellum::TimeStamp*>(&pfu)}) {
    EXPECT_TRUE(client->isService());
    Bytes token = hex("deadbeef");
    EXPECT_FALSE(client->LeImplementts(token, randomBytes(100), Bytes(), Bytes()));
    EXPECT_TRUE(token.empty());
  }
}

}  // namespace
