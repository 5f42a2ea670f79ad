// sealmark cert show, run as a user runs it, checked against what the
// openssl command says about the same files.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/test_util.h"

namespace {

using sealtest::run;
using sealtest::shellQuote;

std::string sealmark(const std::string& args) { return std::string(SEALMARK_BIN) + " " + args; }

// One field of the JSON that sealmark printed, through python3's parser.
std::string jsonField(const std::string& commandLine, const std::string& expression) {
  const auto r = run(commandLine + " | python3 -c " +
                     shellQuote("import json,sys; d=json.load(sys.stdin); print(" + expression + ")"));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  return r.out;
}

class CertShowCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new sealtest::TempDir;
    const std::string d = shellQuote(dir_->path());
    // Made with UTF-8 names: the library hands them out as CP932, the tool
    // must give back the same UTF-8.
    const auto r = run("(cd " + d +
                       " && openssl req -x509 -utf8 -newkey rsa:2048 -nodes -days 30 -set_serial 0x1F2E3D"
                       " -subj '/C=JP/O=テスト株式会社/CN=山田太郎' -keyout k.pem -out c.pem"
                       " -addext keyUsage=critical,digitalSignature,nonRepudiation"
                       " && openssl x509 -in c.pem -outform DER -out c.der"
                       " && openssl pkcs12 -export -in c.pem -inkey k.pem -passout pass:pw -out c.p12) 2>&1");
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  }
  static void TearDownTestSuite() { delete dir_; }
  static std::string file(const std::string& name) { return shellQuote(dir_->file(name)); }
  static std::string openssl(const std::string& args) {
    auto r = run("openssl x509 -noout " + args + " -in " + file("c.pem"));
    r.out.erase(0, r.out.find('=') + 1);
    std::string clean;
    for (char c : r.out) {
      if (c != ':' && c != '\n') clean += c;
    }
    return clean;
  }
  static sealtest::TempDir* dir_;
};

sealtest::TempDir* CertShowCommand::dir_ = nullptr;

TEST_F(CertShowCommand, JsonMatchesOpenssl) {
  for (const std::string& args : {"cert show --json " + file("c.pem"), "cert show --json " + file("c.der"),
                                  "cert show --json --password pw " + file("c.p12")}) {
    const std::string cmd = sealmark(args);
    EXPECT_EQ(jsonField(cmd, "d['serial']"), openssl("-serial") + "\n") << args;
    EXPECT_EQ(jsonField(cmd, "d['sha1']"), openssl("-fingerprint -sha1") + "\n");
    EXPECT_EQ(jsonField(cmd, "d['subject']"),
              "[['2.5.4.6', 'JP'], ['2.5.4.10', 'テスト株式会社'], ['2.5.4.3', '山田太郎']]\n");
    EXPECT_EQ(jsonField(cmd, "d['issuer'] == d['subject'], d['version'], d['key_usage']"),
              "True 3 ['digitalSignature', 'nonRepudiation']\n");
    EXPECT_EQ(jsonField(cmd, "d['key_algorithm'], d['signature_algorithm']"),
              "rsaEncryption sha256WithRSAEncryption\n");
    // not_before and not_after as openssl reads them, in the date text form.
    EXPECT_EQ(jsonField(cmd, "d['not_before'], d['not_after']"),
              run("for w in -startdate -enddate; do openssl x509 -noout $w -in " + file("c.pem") +
                  " | cut -d= -f2 | xargs -I{} date -u -d {} +%Y%m%d%H%M%SZ; done | paste -sd' '")
                  .out);
  }
}

TEST_F(CertShowCommand, TextNamesAttributes) {
  const auto r = run(sealmark("cert show " + file("c.pem")));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_NE(r.out.find("CN=山田太郎"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("O=テスト株式会社"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find(openssl("-serial")), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("digitalSignature, nonRepudiation"), std::string::npos) << r.out;
}

TEST_F(CertShowCommand, UnreadableInputAndUsage) {
  struct Case {
    std::string args;
    std::string errPrefix;
  };
  const std::string p12 = dir_->file("c.p12");
  const Case cases[] = {
      {"cert show " + shellQuote(p12), "sealmark: " + p12 + ": "},  // PKCS#12 without password
      {"cert show --password wrong " + shellQuote(p12), "sealmark: " + p12 + ": "},
      {"cert show " + shellQuote(dir_->file("missing.pem")), "sealmark: " + dir_->file("missing.pem") + ": "},
      {"cert show", "sealmark: cert: "},
      {"cert show --password", "sealmark: cert: "},
      {"cert frob x", "sealmark: cert: "},
      {"cert show --bogus " + file("c.pem"), "sealmark: cert: "},
  };
  for (const Case& c : cases) {
    const auto r = run(sealmark(c.args));
    EXPECT_EQ(r.exitCode, 2) << c.args;
    EXPECT_EQ(r.err.rfind(c.errPrefix, 0), 0u) << c.args << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "") << c.args;
  }
  const auto help = run(sealmark("cert show --help"));
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.out.rfind("usage: sealmark cert show", 0), 0u);
}

}  // namespace
