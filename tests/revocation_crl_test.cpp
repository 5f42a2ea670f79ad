// The CRL half of the revocation check: CRLs made by `openssl ca -gencrl`,
// served over http by a loopback server, as file: URLs and from slapd; the
// cache directory at its edges.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/trust/crl_cache.h"
#include "support/test_ca.h"

namespace {

using PDF_Sealmark::PDFCert;
using sealtest::TestCa;
using Bytes = std::vector<unsigned char>;

using sealtest::loadCertFile;
using sealtest::x509Of;

class CrlCheck : public ::testing::Test {
 protected:
  void SetUp() override { issuer_ = loadCertFile(ca_.certFile()); }

  PDFCert leaf(const std::string& serial, const std::string& cdp) {
    return loadCertFile(ca_.issue("leaf" + serial, serial, "crlDistributionPoints=" + cdp));
  }
  bool check(PDFCert& cert, const std::string& time, const char* cacheDir = nullptr) {
    return cert.checkCRL(time.empty() ? nullptr : time.c_str(), cacheDir, nullptr, &issuer_, nullptr, 0);
  }

  const std::time_t now_ = std::time(nullptr);
  TestCa ca_;
  sealtest::CrlServer server_;
  sealtest::TempDir files_;
  PDFCert issuer_;
};

TEST_F(CrlCheck, RevocationDateAgainstTheMomentOfTheCheck) {
  const std::string httpUrl = server_.url("/ca.crl");
  const std::string fileUrl = "file://" + files_.file("ca.crl");
  PDFCert overHttp = leaf("1001", "URI:" + httpUrl);
  PDFCert overFile = leaf("1002", "URI:" + fileUrl);
  PDFCert later = leaf("1003", "URI:" + httpUrl);
  ca_.markRevoked("1001", sealtest::utcTime(now_ - 7200));
  ca_.markRevoked("1002", sealtest::utcTime(now_ - 7200));
  ca_.markRevoked("1003", sealtest::utcTime(now_ + 7200));
  const Bytes crl = ca_.crl();
  server_.put("/ca.crl", crl);
  files_.write("ca.crl", crl);

  for (PDFCert* cert : {&overHttp, &overFile}) {
    EXPECT_FALSE(check(*cert, sealtest::dateText(now_ - 3600)));
    EXPECT_EQ(cert->getValid(), 1);
    // Equal to the revocation date counts as revoked.
    EXPECT_FALSE(check(*cert, sealtest::dateText(now_ - 7200)));
    EXPECT_TRUE(check(*cert, sealtest::dateText(now_ - 7201)));
    EXPECT_EQ(cert->getValid(), 1);
  }
  // No time: now, so an entry dated in the future doesn't count yet.
  EXPECT_TRUE(check(later, ""));
  EXPECT_EQ(later.getValid(), 1);
  EXPECT_FALSE(check(later, sealtest::dateText(now_ + 7300)));
  EXPECT_FALSE(check(overHttp, ""));
}

TEST_F(CrlCheck, FirstUsableUrlDecides) {
  TestCa impostor(ca_.subject());
  ca_.markRevoked("2001", sealtest::utcTime(now_ - 600));
  server_.put("/wrong-key.crl", ca_.crlSignedBy(impostor));
  server_.put("/garbage.crl", Bytes{'n', 'o', ' ', 'c', 'r', 'l'});
  server_.put("/good.crl", ca_.crl());
  // A stale CRL fresh from the network is used as it is.
  server_.put("/stale.crl", sealtest::redateCrl(ca_.crl(), ca_.keyFile(), -7200, -3600));

  PDFCert cert = leaf("2001", "URI:" + server_.url("/missing.crl") + ",URI:" + server_.url("/wrong-key.crl") +
                                  ",URI:" + server_.url("/garbage.crl") + ",URI:HTTP://127.0.0.1/x.crl" +
                                  ",URI:gopher://127.0.0.1/x.crl,URI:" + server_.url("/stale.crl") +
                                  ",URI:" + server_.url("/good.crl"));
  EXPECT_FALSE(check(cert, ""));
  EXPECT_EQ(cert.getValid(), 1);
  EXPECT_EQ(server_.hits("/missing.crl"), 1);
  EXPECT_EQ(server_.hits("/wrong-key.crl"), 1);
  EXPECT_EQ(server_.hits("/garbage.crl"), 1);
  EXPECT_EQ(server_.hits("/stale.crl"), 1);
  EXPECT_EQ(server_.hits("/good.crl"), 0);

  // Without an issuer no signature is looked at: the impostor's CRL, made
  // before 2002 was revoked, counts.
  PDFCert unverified = leaf("2002", "URI:" + server_.url("/wrong-key.crl") + ",URI:" + server_.url("/good.crl"));
  ca_.markRevoked("2002", sealtest::utcTime(now_ - 600));
  server_.put("/good.crl", ca_.crl());
  EXPECT_FALSE(check(unverified, ""));
  EXPECT_EQ(server_.hits("/good.crl"), 1);
  EXPECT_TRUE(unverified.checkCRL(nullptr, nullptr, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(unverified.getValid(), 1);
  EXPECT_EQ(server_.hits("/good.crl"), 1);
}

TEST_F(CrlCheck, NoUsableCrlOrNoneNamed) {
  server_.put("/garbage.crl", Bytes{0x30, 0x03, 0x02, 0x01, 0x00});
  PDFCert unusable = leaf("3001", "URI:" + server_.url("/garbage.crl") + ",URI:file://" + files_.file("none"));
  EXPECT_FALSE(check(unusable, ""));
  EXPECT_EQ(unusable.getValid(), 3);

  PDFCert neither = loadCertFile(ca_.issue("plain", "3002", "keyUsage=digitalSignature"));
  EXPECT_TRUE(check(neither, ""));
  EXPECT_EQ(neither.getValid(), 0);
  EXPECT_FALSE(PDFCert().checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
}

// --- the cache ------------------------------------------------------------------------

std::string sha1Hex(const std::string& text) {
  const auto r = sealtest::run("printf %s " + sealtest::shellQuote(text) + " | openssl sha1 -r");
  std::string hex = r.out.substr(0, 40);
  for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return hex;
}

void setAge(const std::string& path, std::time_t modified) {
  const timeval times[2] = {{modified, 0}, {modified, 0}};
  ASSERT_EQ(::utimes(path.c_str(), times), 0) << path;
}

TEST(CrlCacheName, Sha1OfTheUrlAndTheSeparatorRule) {
  const std::string url = "ldap:/CN=Root,O=Acme,C=JP?certificateRevocationList;binary";
  const std::string name = sha1Hex(url) + ".crl";
  EXPECT_EQ(PDF_Sealmark::crlCacheName(url.c_str()), name);
  EXPECT_EQ(PDF_Sealmark::crlCachePath("/c", url.c_str()), "/c/" + name);
  EXPECT_EQ(PDF_Sealmark::crlCachePath("/c/", url.c_str()), "/c/" + name);
  EXPECT_EQ(PDF_Sealmark::crlCachePath("C:\\c\\", url.c_str()), "C:\\c\\" + name);
  EXPECT_EQ(PDF_Sealmark::crlCachePath("", url.c_str()), "/" + name);
}

class CrlCache : public CrlCheck {
 protected:
  void SetUp() override {
    CrlCheck::SetUp();
    url_ = server_.url("/ca.crl");
    path_ = cache_.file(sha1Hex(url_) + ".crl");
    cert_ = leaf("4001", "URI:" + url_);
    ca_.markRevoked("4001", sealtest::utcTime(now_ - 600));
    revoking_ = ca_.crl();
    ca_.forget("4001");
    clean_ = ca_.crl();
  }
  bool checkCached(const char* dir) { return check(cert_, "", dir); }

  sealtest::TempDir cache_;
  std::string url_, path_;
  PDFCert cert_;
  Bytes revoking_, clean_;
};

TEST_F(CrlCache, SecondRunReadsTheFileNamedByTheUrl) {
  server_.put("/ca.crl", clean_);
  EXPECT_TRUE(checkCached(cache_.path().c_str()));
  EXPECT_EQ(sealtest::readFile(path_), clean_);
  // The server now revokes; the cache still answers, and isn't asked.
  server_.put("/ca.crl", revoking_);
  EXPECT_TRUE(checkCached(cache_.path().c_str()));
  EXPECT_EQ(cert_.getValid(), 1);
  EXPECT_EQ(server_.hits("/ca.crl"), 1);
  // Without a cache directory the network answers.
  EXPECT_FALSE(checkCached(nullptr));
}

TEST_F(CrlCache, SixHoursToTheSecond) {
  cache_.write(sha1Hex(url_) + ".crl", clean_);
  X509* issuer = x509Of(issuer_);
  setAge(path_, now_ - PDF_Sealmark::kCrlCacheMaxAgeSeconds);
  EXPECT_EQ(PDF_Sealmark::loadCachedCRL(url_.c_str(), issuer, cache_.path().c_str(), now_), clean_);
  setAge(path_, now_ - PDF_Sealmark::kCrlCacheMaxAgeSeconds - 1);
  EXPECT_TRUE(PDF_Sealmark::loadCachedCRL(url_.c_str(), issuer, cache_.path().c_str(), now_).empty());
  // Too old: the check fetches again and replaces the file.
  server_.put("/ca.crl", revoking_);
  EXPECT_FALSE(checkCached(cache_.path().c_str()));
  EXPECT_EQ(sealtest::readFile(path_), revoking_);
}

TEST_F(CrlCache, StaleDamagedOrForeignFilesAreRefetched) {
  server_.put("/ca.crl", revoking_);
  TestCa impostor(ca_.subject());
  const Bytes stale = sealtest::redateCrl(clean_, ca_.keyFile(), -7200, -60);
  const Bytes damaged(clean_.begin(), clean_.begin() + static_cast<std::ptrdiff_t>(clean_.size() / 2));
  const Bytes foreign = ca_.crlSignedBy(impostor);
  int fetches = 0;
  for (const Bytes& content : {stale, damaged, foreign}) {
    cache_.write(sha1Hex(url_) + ".crl", content);
    EXPECT_FALSE(checkCached(cache_.path().c_str()));
    EXPECT_EQ(server_.hits("/ca.crl"), ++fetches);
    EXPECT_EQ(sealtest::readFile(path_), revoking_);
  }
  // A null issuer writes the cache but never reads it.
  cache_.write(sha1Hex(url_) + ".crl", clean_);
  EXPECT_FALSE(cert_.checkCRL(nullptr, cache_.path().c_str(), nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(server_.hits("/ca.crl"), ++fetches);
  EXPECT_EQ(sealtest::readFile(path_), revoking_);
}

TEST_F(CrlCache, UnwritableDirectoryStillChecks) {
  // Tests run as root, for whom a read-only directory is writable: a path
  // below a regular file can't be a directory for anyone.
  files_.write("plain-file", {'x'});
  const std::string below = files_.file("plain-file") + "/cache";
  server_.put("/ca.crl", revoking_);
  EXPECT_FALSE(checkCached(below.c_str()));
  EXPECT_EQ(cert_.getValid(), 1);
  struct stat status;
  EXPECT_NE(::stat((below + "/" + sha1Hex(url_) + ".crl").c_str(), &status), 0);
}

// --- a directory name through LDAP ---------------------------------------------------------

std::string base64(const Bytes& bytes) {
  sealtest::TempDir dir;
  const std::string file = dir.write("in", bytes);
  std::string text = sealtest::run("openssl base64 -A -in " + sealtest::shellQuote(file)).out;
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

TEST_F(CrlCheck, DirectoryNameThroughSlapd) {
  // The leaf names its CRL by the CA's directory entry only.
  const std::string cdp = "dirName:ca_dn\n[ca_dn]\nC=JP\nO=Sealmark Test\nCN=Loopback Test CA";
  PDFCert revoked = leaf("5001", cdp);
  PDFCert fine = leaf("5002", cdp);
  ca_.markRevoked("5001", sealtest::utcTime(now_ - 600));
  const std::string ldif =
      "dn: c=JP\nobjectClass: country\nc: JP\n\n"
      "dn: o=Sealmark Test,c=JP\nobjectClass: organization\no: Sealmark Test\n\n"
      "dn: cn=Loopback Test CA,o=Sealmark Test,c=JP\nobjectClass: cRLDistributionPoint\ncn: Loopback Test CA\n"
      "certificateRevocationList;binary:: " + base64(ca_.crl()) + "\n";
  sealtest::TestLdapDirectory directory("c=JP", ldif);
  if (!directory.available()) GTEST_SKIP() << "no LDAP directory for this test: " << directory.whyNot();

  const std::string dead = "ldap://127.0.0.1:" + std::to_string(sealtest::unusedLoopbackPort()) + "/";
  const std::string servers = dead + "," + directory.url() + ",";
  EXPECT_FALSE(revoked.checkCRL(nullptr, nullptr, servers.c_str(), &issuer_, nullptr, 0));
  EXPECT_EQ(revoked.getValid(), 1);
  EXPECT_TRUE(fine.checkCRL(nullptr, nullptr, servers.c_str(), &issuer_, nullptr, 0));
  EXPECT_EQ(fine.getValid(), 1);
  // A single server without its comma is no list: "ldap:/DN" names no
  // directory here, so nothing decides.
  const std::string single = directory.url();
  EXPECT_FALSE(fine.checkCRL(nullptr, nullptr, single.c_str(), &issuer_, nullptr, 0));
  EXPECT_EQ(fine.getValid(), 3);
}

}  // namespace
