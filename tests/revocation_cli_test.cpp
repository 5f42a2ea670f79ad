// sealmark revocation and the URLs of sealmark cert show, run as a user
// runs them, against `openssl ocsp` and CRLs made by `openssl ca -gencrl`.
#include <gtest/gtest.h>

#include <algorithm>
#include <ctime>
#include <string>

#include "support/test_ca.h"

namespace {

using sealtest::run;
using sealtest::shellQuote;

struct Outcome {
  int exitCode = -1;
  std::string json;  // "not_revoked valid decided_by" as python prints them
  std::string err;
};

Outcome revocation(const std::string& args) {
  const auto r = run(std::string(SEALMARK_BIN) + " revocation --json " + args);
  Outcome o{r.exitCode, "", r.err};
  if (!r.out.empty()) {
    o.json = run("printf %s " + shellQuote(r.out) + " | python3 -c " +
                 shellQuote("import json,sys; d=json.load(sys.stdin); "
                            "print(d['not_revoked'], d['valid'], d['decided_by'])"))
                 .out;
  }
  return o;
}

class RevocationCommand : public ::testing::Test {
 protected:
  std::string issued(const std::string& serial, const std::string& extensions) {
    return shellQuote(ca_.issue("leaf" + serial, serial, extensions));
  }
  std::string issuer() const { return " --issuer " + shellQuote(ca_.certFile()); }

  const std::time_t now_ = std::time(nullptr);
  sealtest::TestCa ca_;
  sealtest::CrlServer crls_;
  sealtest::TempDir dir_;
};

TEST_F(RevocationCommand, OcspResponderAnswers) {
  sealtest::TestOcspResponder responder(ca_);
  const std::string aia = "authorityInfoAccess=OCSP;URI:" + responder.url();
  const std::string good = issued("1001", aia);
  const std::string revoked = issued("1002", aia);
  ca_.markRevoked("1002", sealtest::utcTime(now_ - 60));

  const Outcome g = revocation(good + issuer());
  EXPECT_EQ(g.exitCode, 0) << g.err;
  EXPECT_EQ(g.json, "True 2 ocsp\n");
  const Outcome r = revocation(revoked + issuer() + " --no-nonce");
  EXPECT_EQ(r.exitCode, 1) << r.err;
  EXPECT_EQ(r.json, "False 2 ocsp\n");
  EXPECT_EQ(responder.answered(), 2);
}

TEST_F(RevocationCommand, UnreachableResponderFallsBackToTheCrl) {
  const std::string dead = "http://127.0.0.1:" + std::to_string(sealtest::unusedLoopbackPort()) + "/";
  const std::string ext = "authorityInfoAccess=OCSP;URI:" + dead + "\ncrlDistributionPoints=URI:" +
                          crls_.url("/ca.crl");
  const std::string fine = issued("2001", ext);
  const std::string revoked = issued("2002", ext);
  const std::string ocspOnly = issued("2003", "authorityInfoAccess=OCSP;URI:" + dead);
  const std::string neither = issued("2004", "keyUsage=digitalSignature");
  ca_.markRevoked("2002", sealtest::utcTime(now_ - 60));
  crls_.put("/ca.crl", ca_.crl());

  EXPECT_EQ(revocation(fine + issuer()).json, "True 1 crl\n");
  const Outcome r = revocation(revoked + issuer());
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.json, "False 1 crl\n");
  const Outcome u = revocation(ocspOnly + issuer());
  EXPECT_EQ(u.exitCode, 1);
  EXPECT_EQ(u.json, "False 3 undecided\n");
  const Outcome n = revocation(neither + issuer());
  EXPECT_EQ(n.exitCode, 0);
  EXPECT_EQ(n.json, "True 0 none\n");
}

TEST_F(RevocationCommand, CrlEntriesCountFromTheirDateOverHttpAndFile) {
  const std::string fileUrl = "file://" + dir_.file("ca.crl");
  for (const std::string& url : {crls_.url("/ca.crl"), fileUrl}) {
    const std::string serial = url == fileUrl ? "3002" : "3001";
    const std::string cert = issued(serial, "crlDistributionPoints=URI:" + url);
    ca_.markRevoked(serial, sealtest::utcTime(now_ - 7200));
    const auto crl = ca_.crl();
    crls_.put("/ca.crl", crl);
    dir_.write("ca.crl", crl);
    const Outcome after = revocation(cert + issuer() + " --time " + sealtest::dateText(now_ - 3600));
    EXPECT_EQ(after.exitCode, 1) << url;
    EXPECT_EQ(after.json, "False 1 crl\n") << url;
    const Outcome before = revocation(cert + issuer() + " --time " + sealtest::dateText(now_ - 10800));
    EXPECT_EQ(before.exitCode, 0) << url;
    EXPECT_EQ(before.json, "True 1 crl\n") << url;
  }
}

TEST_F(RevocationCommand, CacheAnswersTheSecondRun) {
  const std::string url = crls_.url("/ca.crl");
  const std::string cert = issued("4001", "crlDistributionPoints=URI:" + url);
  const auto clean = ca_.crl();
  crls_.put("/ca.crl", clean);
  const std::string cache = " --crl-cache " + shellQuote(dir_.path());
  EXPECT_EQ(revocation(cert + issuer() + cache).json, "True 1 crl\n");
  const std::string sha1 = run("printf %s " + shellQuote(url) + " | openssl sha1 -r | tr a-f A-F").out.substr(0, 40);
  const auto cached = sealtest::readFile(dir_.file(sha1 + ".crl"));
  EXPECT_EQ(cached, clean) << "no cache file named by the URL's SHA-1";

  // The server now revokes, then serves nothing: the cache keeps answering.
  ca_.markRevoked("4001", sealtest::utcTime(now_ - 60));
  crls_.put("/ca.crl", ca_.crl());
  EXPECT_EQ(revocation(cert + issuer() + cache).json, "True 1 crl\n");
  crls_.remove("/ca.crl");
  EXPECT_EQ(revocation(cert + issuer() + cache).json, "True 1 crl\n");
  EXPECT_EQ(crls_.hits("/ca.crl"), 1);
  // Without the cache the network is asked, and has nothing.
  EXPECT_EQ(revocation(cert + issuer()).json, "False 3 undecided\n");
}

TEST_F(RevocationCommand, BadUsageAndUnreadableFiles) {
  const std::string cert = issued("5001", "keyUsage=digitalSignature");
  const std::string missing = dir_.file("missing.pem");
  const Outcome m = revocation(cert + " --issuer " + shellQuote(missing));
  EXPECT_EQ(m.exitCode, 2);
  EXPECT_EQ(m.err, "sealmark: " + missing + ": No such file or directory\n");
  const std::string notCert = dir_.write("not-a-cert", {'h', 'i'});
  const Outcome n = revocation(shellQuote(notCert) + issuer());
  EXPECT_EQ(n.exitCode, 2);
  EXPECT_EQ(n.err, "sealmark: " + notCert + ": no certificate in DER or PEM\n");
  for (const std::string& args : {cert, cert + issuer() + " --time 2026", cert + issuer() + " --bogus",
                                  issuer(), cert + " " + cert + issuer()}) {
    const Outcome u = revocation(args);
    EXPECT_EQ(u.exitCode, 2) << args;
    EXPECT_EQ(std::count(u.err.begin(), u.err.end(), '\n'), 1) << u.err;
  }
  EXPECT_EQ(run(std::string(SEALMARK_BIN) + " revocation --help").exitCode, 0);
}

TEST_F(RevocationCommand, CertShowListsCrlAndOcspUrls) {
  const std::string cert = issued("6001",
                                  "authorityInfoAccess=OCSP;URI:http://ocsp.example/\n"
                                  "crlDistributionPoints=URI:http://a.example/1.crl,URI:ldap://d.example/x");
  const auto r = run(std::string(SEALMARK_BIN) + " cert show --json " + cert + " | python3 -c " +
                     shellQuote("import json,sys; d=json.load(sys.stdin); print(d['crl_urls'], d['ocsp_urls'])"));
  EXPECT_EQ(r.out, "['http://a.example/1.crl', 'ldap://d.example/x'] ['http://ocsp.example/']\n") << r.err;
  const auto none = run(std::string(SEALMARK_BIN) + " cert show --json " + shellQuote(ca_.certFile()) +
                        " | python3 -c " +
                        shellQuote("import json,sys; d=json.load(sys.stdin); print(d['crl_urls'], d['ocsp_urls'])"));
  EXPECT_EQ(none.out, "[] []\n");
  const auto text = run(std::string(SEALMARK_BIN) + " cert show " + cert);
  EXPECT_NE(text.out.find("http://a.example/1.crl"), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("http://ocsp.example/"), std::string::npos) << text.out;
}

}  // namespace
