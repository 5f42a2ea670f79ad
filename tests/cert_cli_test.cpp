// sealmark cert show, run as a user runs it, checked against what the
// openssl command says about the same files.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/test_util.h"

namespace {

using sealtest::run;
using sealtest::sealmark;
using sealtest::shellQuote;

class CertShowCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new sealtest::TempDir;
    // Made with UTF-8 names: the library hands them out as CP932, the tool
    // must give back the same UTF-8.
    sealtest::oracle("(cd " + shellQuote(dir_->path()) +
                     " && openssl req -x509 -utf8 -newkey rsa:2048 -nodes -days 30 -set_serial 0x1F2E3D"
                     " -subj '/C=JP/O=テスト株式会社/CN=山田太郎' -keyout k.pem -out c.pem"
                     " -addext keyUsage=critical,digitalSignature,nonRepudiation"
                     " && openssl x509 -in c.pem -outform DER -out c.der"
                     " && openssl pkcs12 -export -in c.pem -inkey k.pem -passout pass:pw -out c.p12) 2>&1");
  }
  static void TearDownTestSuite() { delete dir_; }
  static std::string file(const std::string& name) { return shellQuote(dir_->file(name)); }
  // What `openssl x509` prints for these options, in the form sealmark uses.
  static std::string openssl(const std::string& args) {
    return sealtest::oracle("openssl x509 -noout " + args + " -in " + file("c.pem") +
                            " | while read -r l; do d=$(date -u -d \"${l#*=}\" +%Y%m%d%H%M%SZ 2>/dev/null) &&"
                            " echo $d || echo ${l#*=} | tr -d :; done | paste -sd' '");
  }
  static sealtest::TempDir* dir_;
};

sealtest::TempDir* CertShowCommand::dir_ = nullptr;

TEST_F(CertShowCommand, JsonMatchesOpenssl) {
  const std::string expected = openssl("-serial -fingerprint -sha1 -startdate -enddate") +
                               " [['2.5.4.6', 'JP'], ['2.5.4.10', 'テスト株式会社'], ['2.5.4.3', '山田太郎']]"
                               " True 3 ['digitalSignature', 'nonRepudiation'] rsaEncryption sha256WithRSAEncryption\n";
  for (const std::string& args : {"cert show --json " + file("c.pem"), "cert show --json " + file("c.der"),
                                  "cert show --json --password pw " + file("c.p12")}) {
    const auto r = run(sealmark(args) + " | python3 -c " +
                       shellQuote("import json,sys; d=json.load(sys.stdin); print(d['serial'], d['sha1'], "
                                  "d['not_before'], d['not_after'], d['subject'], d['issuer'] == d['subject'], "
                                  "d['version'], d['key_usage'], d['key_algorithm'], d['signature_algorithm'])"));
    EXPECT_EQ(r.out, expected) << args << r.err;
  }
}

TEST_F(CertShowCommand, TextNamesAttributes) {
  const auto r = run(sealmark("cert show " + file("c.pem")));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  for (const std::string& s : {std::string("CN=山田太郎"), std::string("O=テスト株式会社"), openssl("-serial"),
                               std::string("digitalSignature, nonRepudiation")}) {
    EXPECT_NE(r.out.find(s), std::string::npos) << s << "\n" << r.out;
  }
}

TEST_F(CertShowCommand, UnreadableInputAndUsage) {
  const std::string p12 = dir_->file("c.p12"), missing = dir_->file("missing.pem");
  for (const auto& [args, errPrefix] : {
           std::pair<std::string, std::string>{"cert show " + shellQuote(p12), p12},  // PKCS#12 without password
           {"cert show --password wrong " + shellQuote(p12), p12},
           {"cert show " + shellQuote(missing), missing},
           {"cert show", "cert"},
           {"cert show --password", "cert"},
           {"cert frob x", "cert"},
           {"cert show --bogus " + file("c.pem"), "cert"}}) {
    const auto r = run(sealmark(args));
    EXPECT_EQ(r.exitCode, 2) << args;
    EXPECT_EQ(r.err.rfind("sealmark: " + errPrefix + ": ", 0), 0u) << args << ": " << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.out, "") << args;
  }
  const auto help = run(sealmark("cert show --help"));
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_EQ(help.out.rfind("usage: sealmark cert show", 0), 0u);
}

}  // namespace
