// Revocation: where a certificate's CRLs are, and the check that asks its
// OCSP responder, then its CRLs, run as `sealmark revocation` against
// `openssl ocsp` responders and CRLs of `openssl ca` (support/revocation_pki.sh)
// served by serve.py, as file: URLs and by slapd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/trust/crl_cache.h"
#include "pdfsealmark/trust/crl_check.h"
#include "pdfsealmark/trust/crl_url.h"
#include "support/test_ca.h"

namespace {

using nlohmann::json;
using PDF_Sealmark::PDFCert;
using sealtest::run;
using sealtest::sealmark;
using ::testing::HasSubstr;
using Strings = std::vector<std::string>;

const std::time_t kNow = std::time(nullptr);

// The date text of a moment seconds from now, as --time takes it.
std::string at(long seconds) {
  return sealtest::oracle("date -u -d @" + std::to_string(kNow + seconds) + " +%Y%m%d%H%M%SZ");
}

// What `sealmark revocation --json` ends with: exit code and JSON.
std::string expected(bool notRevoked, int valid, const char* by) {
  return std::to_string(notRevoked ? 0 : 1) + " " +
         json{{"not_revoked", notRevoked}, {"valid", valid}, {"decided_by", by}}.dump();
}

// The CA and its peers, made once: serve.py over the files of
// revocation_pki.sh.
const sealtest::Web& world() {
  static const sealtest::Web web;
  static const int made = run(sealtest::supportScript("revocation_pki.sh") + " " + web.www.path() + " " +
                              web.peer.url("") + " " + std::to_string(kNow))
                              .exitCode;
  EXPECT_EQ(made, 0);
  return web;
}
std::string file(const std::string& name) { return world().www.file(name); }
int hits(const std::string& name) { return world().hits(name); }

// `sealmark revocation --json` of leaf SERIAL, issued by the CA.
std::string outcome(const std::string& serial, const std::string& args) {
  // Nothing may take longer than one retrieval's 30 s.
  const auto r = run("timeout 35 " + sealmark("revocation --json " + file("L" + serial + ".pem") +
                                              " --issuer " + file("ca.pem") + args));
  return std::to_string(r.exitCode) + " " + json::parse(r.out, nullptr, false).dump() + r.err;
}

TEST(Revocation, ResponderFirstThenCrls) {
  const std::string t = " --time ", impostor = " --chain " + file("impostor.pem");
  for (const auto& [serial, args, wanted] : std::vector<std::tuple<std::string, std::string, std::string>>{
           // What the responder says: good, revoked, unknown (a serial it never saw).
           {"11", "", expected(true, 2, "ocsp")},
           {"12", "", expected(false, 2, "ocsp")},
           {"13", "", expected(false, 2, "ocsp")},
           // A nonce asked for must come back: an answer without it, or with
           // another, is no answer, and the CRL decides.  Without a nonce in
           // the request both are believed.
           {"14", "", expected(true, 1, "crl")},
           {"14", " --no-nonce", expected(true, 2, "ocsp")},
           {"15", "", expected(true, 1, "crl")},
           {"15", " --no-nonce", expected(true, 2, "ocsp")},
           // The responder's signature leads to the issuer, or else to the
           // chain given: a delegated responder, an impostor of the CA.
           {"16", "", expected(true, 2, "ocsp")},
           {"16", impostor, expected(true, 1, "crl")},
           {"16", impostor + " --chain " + file("ca.pem"), expected(true, 2, "ocsp")},
           {"17", "", expected(true, 1, "crl")},
           // Nothing listens and no CRL is named; not an OCSP response; empty.
           {"18", "", expected(false, 3, "undecided")},
           {"19", "", expected(true, 1, "crl")},
           {"1A", "", expected(true, 1, "crl")},
           // CRL entries count from their date, that second included, over
           // http and file:; without a date from now.
           {"21", t + at(-3600), expected(false, 1, "crl")},
           {"21", t + at(-7200), expected(false, 1, "crl")},
           {"21", t + at(-7201), expected(true, 1, "crl")},
           {"22", t + at(-3600), expected(false, 1, "crl")},
           {"23", "", expected(true, 1, "crl")},
           {"23", t + at(7300), expected(false, 1, "crl")},
           // The first CRL that can be had and verifies decides, stale or not;
           // none can be had; neither OCSP nor CRL is named.
           {"24", "", expected(false, 1, "crl")},
           {"25", "", expected(false, 3, "undecided")},
           {"26", "", expected(true, 0, "none")},
           // file: reads regular files only, without waiting on a FIFO.
           {"2D", "", expected(false, 1, "crl")},
           // A cache directory that can't be made changes nothing.
           {"21", " --crl-cache " + file("notcrl") + "/cache", expected(false, 1, "crl")}}) {
    EXPECT_EQ(outcome(serial, args), wanted) << serial << args;
  }
  // Only an exchange that brought nothing is tried again on the socket path.
  EXPECT_EQ(hits("notocsp"), 1);
  EXPECT_EQ(hits("empty"), 2);
  // Schemes are compared with case.
  EXPECT_EQ(hits("upper.crl") + hits("last.crl"), 0);
  EXPECT_EQ(hits("stale.crl"), 1);
  const std::string log = world().log("ca");
  EXPECT_EQ(log.rfind("POST /ca HTTP/1.1\n", 0), 0u) << log;
  EXPECT_THAT(log, HasSubstr("\nContent-Type: application/ocsp-request\n"));
}

TEST(Revocation, WithoutIssuerNoOcspAndAnyCrl) {
  PDFCert cert = sealtest::loadCertFile(file("L2A.pem"));
  const int asked = hits("ca");
  // Its one CRL is the impostor's, which clears it.
  EXPECT_TRUE(cert.checkCRL(nullptr, nullptr, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(cert.getValid(), 1);
  EXPECT_EQ(hits("ca"), asked);
}

TEST(Revocation, CrlCacheServesSixHours) {
  namespace fs = std::filesystem;
  sealtest::TempDir cache;
  const std::string url = world().url("cache.crl"), args = " --crl-cache " + cache.path();
  const std::string path = cache.file(
      sealtest::oracle("printf %s " + url + " | openssl sha1 -r | tr a-f A-F").substr(0, 40) + ".crl");
  const auto serve = [](const char* crl) {
    fs::copy_file(file(crl), file("cache.crl"), fs::copy_options::overwrite_existing);
  };
  const auto age = [&path](long seconds) {
    const timeval times[2] = {{kNow - seconds, 0}, {kNow - seconds, 0}};
    return ::utimes(path.c_str(), times) == 0;
  };
  // A link planted at the cache name is replaced, its target left alone.
  sealtest::TempDir elsewhere;
  const std::string victim = elsewhere.write("victim", sealtest::bytes("victim"));
  fs::create_symlink(victim, path);
  serve("clean.crl");
  EXPECT_EQ(outcome("29", args), expected(true, 1, "crl"));
  EXPECT_EQ(sealtest::readFile(path), sealtest::readFile(file("clean.crl")));
  EXPECT_EQ(sealtest::text(sealtest::readFile(victim)), "victim");
  // The server now revokes 29, but the cache answers until it is too old.
  serve("ca.crl");
  EXPECT_EQ(outcome("29", args), expected(true, 1, "crl"));
  EXPECT_EQ(hits("cache.crl"), 1);
  ASSERT_TRUE(age(PDF_Sealmark::kCrlCacheMaxAgeSeconds + 1));
  EXPECT_EQ(outcome("29", args), expected(false, 1, "crl"));
  EXPECT_EQ(sealtest::readFile(path), sealtest::readFile(file("ca.crl")));
  // A FIFO at the cache name neither blocks nor stays.
  fs::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(outcome("29", args), expected(false, 1, "crl"));
  ASSERT_TRUE(fs::is_regular_file(path));  // reading a FIFO here would block the test
  EXPECT_EQ(sealtest::readFile(path), sealtest::readFile(file("ca.crl")));
  // Every cache file is its owner's alone, also the copy of a local file.
  EXPECT_EQ(outcome("22", args), expected(false, 1, "crl"));
  int files = 0;
  for (const auto& entry : fs::directory_iterator(cache.path())) {
    EXPECT_EQ(entry.status().type(), fs::file_type::regular) << entry.path();
    EXPECT_EQ(entry.status().permissions(), fs::perms::owner_read | fs::perms::owner_write) << entry.path();
    ++files;
  }
  EXPECT_EQ(files, 2);

  // Six hours to the second, and only a CRL of the issuer before its
  // nextUpdate: never without an issuer.
  const PDFCert issuer = sealtest::loadCertFile(file("ca.pem"));
  for (const auto& [crl, seconds, withIssuer, used] :
       std::vector<std::tuple<const char*, long, bool, bool>>{{"clean.crl", 21600, true, true},
                                                              {"clean.crl", 21601, true, false},
                                                              {"clean.crl", 0, false, false},
                                                              {"stale.crl", 0, true, false},
                                                              {"wrongkey.crl", 0, true, false},
                                                              {"notcrl", 0, true, false}}) {
    fs::copy_file(file(crl), path, fs::copy_options::overwrite_existing);
    ASSERT_TRUE(age(seconds));
    X509* x509 = withIssuer ? sealtest::x509Of(issuer) : nullptr;
    EXPECT_EQ(PDF_Sealmark::loadCachedCRL(url.c_str(), x509, cache.path().c_str(), kNow).empty(), !used)
        << crl;
  }
}

TEST(Revocation, DirectoryNameThroughSlapd) {
  if (::access("/usr/sbin/slapd", X_OK) != 0)
    GTEST_SKIP() << "no slapd (scripts/install-deps.sh installs it)";
  sealtest::Peer slapd(sealtest::supportScript("revocation_pki.sh") + " --slapd " + world().www.path());
  const std::string live = "ldap://127.0.0.1:" + std::to_string(slapd.port()) + "/";
  const std::string servers = " --ldap-servers ldap://127.0.0.1:1/," + live + ",";
  EXPECT_EQ(outcome("27", servers), expected(false, 1, "crl"));
  EXPECT_EQ(outcome("28", servers), expected(true, 1, "crl"));
  // One server without its comma is no list, and "ldap:/DN" names no directory.
  EXPECT_EQ(outcome("28", " --ldap-servers " + live), expected(false, 3, "undecided"));
  // The CRL is asked for with the ";binary" option, added where it lacks.
  const std::string entry = live + "cn=Revocation CA,o=Sealmark Tests,c=JP?certificateRevocationList";
  EXPECT_EQ(PDF_Sealmark::retrieveCRL(entry.c_str()), sealtest::readFile(file("ca.crl")));
  EXPECT_THAT(sealtest::text(sealtest::readFile(file("slapd.log"))),
              HasSubstr("attr=certificateRevocationList;binary"));
}

TEST(Revocation, WhereTheCrlsAre) {
  // A directory name becomes an LDAP URL for each server of a list (one
  // server needs its comma), or one without a server.
  const std::string q = "CN=Revocation CA,O=Sealmark Tests,C=JP?certificateRevocationList;binary";
  const PDFCert cert = sealtest::loadCertFile(file("L27.pem"));
  for (const auto& [servers, urls] : std::vector<std::pair<const char*, Strings>>{
           {nullptr, {"ldap:/" + q}},
           {"ldap://d1/", {"ldap:/" + q}},
           {"ldap://d1:389/,ldap://d2/", {"ldap://d1:389/" + q, "ldap://d2/" + q}},
           {",,ldap://d1/,,", {"ldap://d1/" + q}}}) {
    const PDF_Sealmark::CrlUrlList list(PDF_Sealmark::PDFCertImpl::implOf(cert)->getCrlUrl(servers));
    EXPECT_EQ(Strings(list.urls().begin(), list.urls().end()), urls) << (servers ? servers : "null");
  }
  // A UTF8String goes out in code page 932, other strings as stored:
  // "日本" is 93 FA 96 7B in CP932, 65 E5 67 2C in UTF-16BE.
  for (const auto& [type, value, sent] : std::vector<std::tuple<int, std::string, std::string>>{
           {MBSTRING_UTF8, "\xE6\x97\xA5\xE6\x9C\xAC", "\x93\xFA\x96\x7B"},
           {V_ASN1_BMPSTRING, std::string("\x65\xE5\x67\x2C", 4), std::string("\x65\xE5\x67\x2C", 4)}}) {
    X509_NAME* name = X509_NAME_new();
    X509_NAME_add_entry_by_txt(name, "CN", type, reinterpret_cast<const unsigned char*>(value.data()),
                               static_cast<int>(value.size()), -1, 0);
    EXPECT_EQ(PDF_Sealmark::ldapCrlQuery(name), "CN=" + sent + "?certificateRevocationList;binary");
    X509_NAME_free(name);
  }
  // Extension order; a point without a full name ends the list; the first
  // OCSP URI wins.  As `sealmark cert show` lists them.
  for (const auto& [serial, crl, ocsp] : std::vector<std::tuple<std::string, Strings, Strings>>{
           {"2B",
            {"http://a.example/1.crl", "ldap://b.example/x", "file:///c/3.crl"},
            {"http://first.example/"}},
           {"2C", {"http://a.example/"}, {}},
           {"26", {}, {}}}) {
    const json j = json::parse(run(sealmark("cert show --json " + file("L" + serial + ".pem"))).out);
    EXPECT_EQ(j["crl_urls"].get<Strings>(), crl) << serial;
    EXPECT_EQ(j["ocsp_urls"].get<Strings>(), ocsp) << serial;
  }
  EXPECT_THAT(run(sealmark("cert show " + file("L2B.pem"))).out, HasSubstr("file:///c/3.crl"));
}

TEST(Revocation, CommandUsageAndUnreadableFiles) {
  const std::string cert = file("L26.pem"), issuer = " --issuer " + file("ca.pem");
  for (const auto& [args, why] : std::vector<std::pair<std::string, std::string>>{
           {cert + " --issuer " + file("absent.pem"), file("absent.pem") + ": No such file or directory"},
           {file("notcrl") + issuer, file("notcrl") + ": no certificate in DER or PEM"},
           {cert, ""},
           {cert + " " + cert + issuer, ""},
           {cert + issuer + " --time 2026", ""}}) {
    const auto r = run(sealmark("revocation --json " + args));
    EXPECT_EQ(r.exitCode, 2) << args;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_EQ(r.err.rfind("sealmark: " + why, 0), 0u) << r.err;
  }
  EXPECT_EQ(run(sealmark("revocation --help")).exitCode, 0);
}

}  // namespace
