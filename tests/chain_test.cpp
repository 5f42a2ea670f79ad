// The issuer path of a certificate (PDFCert::getChain, `sealmark chain`) and
// the verdict of `sealmark verify --trust`, on the hierarchy of
// support/chain_pki.sh with its OCSP responder, CRLs and TSA behind
// serve.py, its CRL in slapd, a throw-away NSS database, and the system's
// trust anchors set through SSL_CERT_FILE.  PDFs are signed by the product
// signer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "pdfsealmark/PDFSigner.h"
#include "support/mutate.h"
#include "support/test_ca.h"

namespace {

using nlohmann::json;
using PDF_Sealmark::PDFCert;
using sealtest::run;
using sealtest::shellQuote;

// The hierarchy, made once per process, a database with nothing in it, and
// files signed at once, while the short-lived signer (8 s) is still valid:
// NAME.pdf by NAME's key, NAME-ts.pdf with a signature time stamp.
struct World {
  sealtest::Web web;
  sealtest::TempDir nss;
  World() {
    sealtest::oracle("bash " + sealtest::supportScript("chain_pki.sh") + " " + web.www.path() + " " +
                     web.peer.url("") + " 8");
    const PDF_Sealmark::PDFStdTimeStamp tsa(web.url("tsa"), "", "", 2);
    PDF_Sealmark::PDFSigner::Options plain, stamped;
    stamped.timeStamp = &tsa;
    for (const char* who : {"short", "signer", "revoked", "ldap", "stranger", "forged"}) {
      for (const auto* o : {&plain, &stamped}) {
        std::string why;
        sealtest::Bytes pdf;
        EXPECT_TRUE(PDF_Sealmark::PDFSigner::sign(sealtest::input("two-pages.pdf"), pdf,
                                                  sealtest::load(file(std::string(who) + ".p12"), "test"), *o,
                                                  &why))
            << why;
        web.www.write(who + std::string(o == &plain ? ".pdf" : "-ts.pdf"), pdf);
      }
    }
    sealtest::Bytes document;
    EXPECT_TRUE(PDF_Sealmark::PDFSigner::timestamp(sealtest::readFile(file("signer-ts.pdf")), document, tsa,
                                                   plain, nullptr));
    web.www.write("document.pdf", document);
    web.www.write("tampered.pdf", sealtest::flip(sealtest::readFile(file("signer.pdf")), 10));
    // The signer info names the intermediate, whose key didn't make it.
    const PDFCert inter = sealtest::loadCertFile(file("inter.pem"));
    web.www.write("misnamed.pdf", sealtest::editPkcs7(sealtest::readFile(file("signer.pdf")), [&](PKCS7* p7) {
                    PKCS7_ISSUER_AND_SERIAL* named =
                        sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0)->issuer_and_serial;
                    X509_NAME_set(&named->issuer, X509_get_issuer_name(sealtest::x509Of(inter)));
                    ASN1_INTEGER_free(named->serial);
                    named->serial = ASN1_INTEGER_dup(X509_get0_serialNumber(sealtest::x509Of(inter)));
                  }));
    // Claimed an hour before the revocation of its certificate.
    plain.signingTime = sealtest::oracle("date -u -d '-1 hour' +%Y%m%d%H%M%SZ");
    sealtest::Bytes early;
    EXPECT_TRUE(PDF_Sealmark::PDFSigner::sign(sealtest::input("two-pages.pdf"), early,
                                              sealtest::load(file("ldap.p12"), "test"), plain, nullptr));
    web.www.write("ldap-early.pdf", early);
    sealtest::oracle("bash " + sealtest::supportScript("nss_db.sh") + " " + nss.path());
  }
  std::string file(const std::string& name) const { return web.www.file(name); }
  // The environment of a sealmark run whose system anchors are those of
  // one file (/dev/null for none).
  std::string env(const std::string& anchors) const {
    return "env SEALMARK_NSSDB=" + shellQuote(nss.file("db")) + " SSL_CERT_DIR=" + shellQuote(nss.path()) +
           " SSL_CERT_FILE=" + (anchors[0] == '/' ? anchors : file(anchors)) + " ";
  }
};
const World& world() {
  static const World w;
  return w;
}
std::string file(const std::string& name) { return world().file(name); }

// `sealmark chain --json` in words: the exit code and result, then per
// element the letter of what decided its revocation (getValid: - C O U),
// with "!" behind an element not valid at the time.
std::string chain(const std::string& args, const std::string& anchors) {
  std::string line = world().env(anchors) + sealtest::sealmark("chain --json");
  for (std::size_t at = 0, end; at < args.size(); at = end + 1) {
    end = std::min(args.find(' ', at), args.size());
    const std::string word = args.substr(at, end - at);
    line += " " + (word.find(".pem") != std::string::npos ? file(word) : word);
  }
  const auto r = run(line);
  const json j = json::parse(r.out, nullptr, false);
  if (j.is_discarded()) return std::to_string(r.exitCode) + " " + r.err;
  std::string path;
  for (const json& e : j["chain"])
    path +=
        std::string(1, std::string("-COU").at(e["revocation"]["valid"])) + (e["valid_at_time"] ? "" : "!");
  return std::to_string(r.exitCode) + " " + j["result"].dump() + " " + path;
}

TEST(Chain, WalkDatesRevocationAndRoot) {
  const std::string path = "--given inter.pem --given root.pem", rev = " --revocation";
  for (const auto& [args, anchors, wanted] : std::vector<std::tuple<std::string, std::string, std::string>>{
           // Complete and trusted; every element outside ROOT asked: the
           // signer its responder, the intermediate its CRL.
           {"signer.pem " + path + rev, "root.pem", "0 2 OC-"},
           {"signer.pem " + path, "root.pem", "0 2 ---"},
           // The top outside ROOT: 1, and the root itself is checked (it
           // names nothing).  An element of ROOT below the top is not.
           {"signer.pem " + path + rev, "/dev/null", "1 1 OC-"},
           {"signer.pem " + path + rev, "inter.pem", "1 1 O--"},
           // The first of two candidates of a name wins, expired or not;
           // the whole path stays listed.
           {"signer.pem --given inter-old.pem " + path + rev, "root.pem", "1 0 O-!-"},
           {"signer.pem " + path + " --given inter-old.pem", "root.pem", "0 2 ---"},
           {"signer.pem " + path + " --time 20201231235959Z", "root.pem", "1 0 -!-!-!"},
           // No issuer anywhere; names in a circle; revoked; self-issued.
           {"signer.pem --given root.pem", "root.pem", "1 0 -"},
           {"loop-a.pem --given loop-b.pem", "/dev/null", "1 0 ---"},
           {"forged.pem " + path, "root.pem", "0 2 ---"},
           {"revoked.pem " + path + rev, "root.pem", "1 0 O--"},
           {"unknown.pem" + rev, "/dev/null", "1 1 -"},
           {"unknown.pem" + rev, "unknown.pem", "0 2 -"},
           // Usage.
           {"signer.pem --time 2026", "root.pem", "2 sealmark: chain: --time wants"},
           {"signer.pem --given absent.pem", "root.pem",
            "2 sealmark: " + file("absent.pem") + ": No such"}}) {
    const std::string got = chain(args, anchors);
    // A refusal is known by the start of its message.
    EXPECT_EQ(wanted[0] == '2' ? got.substr(0, wanted.size()) : got, wanted) << args << " / " << anchors;
  }
}

// `sealmark verify --trust --json` in words: the exit code, then per
// signature its verdict, the source of its time and a letter per element of
// its path for the revocation check (good, revoked, undecided, no source,
// in ROOT, - not checked); and the first reason of all.
std::string verdicts(const std::string& pdf, const std::string& args, const std::string& anchors) {
  const auto r =
      run(world().env(anchors) + sealtest::sealmark("verify --trust --json " + args + " " + file(pdf)));
  const json j = json::parse(r.out, nullptr, false);
  if (j.is_discarded()) return std::to_string(r.exitCode) + " " + r.err;
  std::string words = std::to_string(r.exitCode), reason;
  for (const json& s : j["signatures"]) {
    const json& v = s["validation"];
    words += " " + v["verdict"].get<std::string>() + " " +
             (v["time_source"].is_null() ? "-" : v["time_source"].get<std::string>()) + " ";
    for (const json& e : v["revocation"]) {
      const std::string status = e["status"];
      words += status == "root_store" ? 'R' : status == "not_checked" ? '-' : status[0];
    }
    if (reason.empty() && !v["reasons"].empty()) reason = v["reasons"][0];
  }
  return words + (reason.empty() ? "" : ": " + reason);
}

TEST(Chain, VerifyTrust) {
  std::unique_ptr<sealtest::Peer> slapd;
  if (::access("/usr/sbin/slapd", X_OK) == 0)
    slapd = std::make_unique<sealtest::Peer>(sealtest::supportScript("revocation_pki.sh") + " --slapd " +
                                             world().web.www.path());
  const std::string root = "--trust-anchor " + file("root.pem"), claimed = "signing_time_claimed",
                    ldap = slapd ? " --ldap-servers ldap://127.0.0.1:" + std::to_string(slapd->port()) + "/,"
                                 : "";
  const struct {
    std::string pdf, args, anchors, wanted;
    bool responderDown = false;
  } rows[] = {
      // A good path, proven in time by the time stamp; then without revocation.
      {"signer-ts.pdf", root, "/dev/null", "0 valid timestamp ggn"},
      {"signer-ts.pdf", root + " --offline", "/dev/null", "0 valid timestamp ---"},
      // Without the anchor neither the authority nor the signer is trusted.
      {"signer-ts.pdf", "", "/dev/null",
       "1 indeterminate " + claimed + " ---: time stamp: the path ends at 'Chain Root CA', which is neither"},
      // The root from the store ROOT, though the signature doesn't carry it.
      {"signer.pdf", "", "root.pem", "0 valid " + claimed + " ggR"},
      // Revoked, by the responder and, while it is down, by the CRL.
      {"revoked.pdf", root, "/dev/null",
       "1 invalid " + claimed + " r--: 'Chain Revoked Signer' is revoked (its OCSP responder says"},
      {"revoked.pdf", root, "/dev/null",
       "1 invalid " + claimed + " r--: 'Chain Revoked Signer' is revoked (by its CRL)", true},
      {"ldap.pdf", root, "/dev/null",
       "1 indeterminate " + claimed + " u--: whether 'Chain LDAP Signer' is revoked"},
      {"stranger.pdf", root, "/dev/null",
       "1 indeterminate " + claimed + " --: the path ends at 'Chain Unknown Root'"},
      {"tampered.pdf", root, "/dev/null", "1 invalid - : the signature is not intact"},
      {"misnamed.pdf", root, "/dev/null",
       "1 invalid - : the signature was not made by the key of the certificate"},
      // Names alone make the path; the signature of each link decides.
      {"forged.pdf", root, "inter.pem",
       "1 indeterminate " + claimed +
           " ---: the path does not verify: certificate signature failure (at 'Chain Forged"},
      // A document time stamp: its authority's path, at its own time.
      {"document.pdf", root, "/dev/null", "0 valid timestamp ggn valid timestamp_token nn"},
      // Expired: only a time stamp from before proves the signature was in time.
      {"short-ts.pdf", root, "/dev/null", "0 valid timestamp ggn"},
      {"short.pdf", root, "/dev/null",
       "1 indeterminate " + claimed + " ggn: 'Chain Short-lived Signer' expired on"},
  };
  for (const auto& row : rows) {
    if (row.pdf.rfind("short", 0) == 0) {
      const PDFCert cert = sealtest::loadCertFile(file("short.pem"));
      while (X509_cmp_current_time(X509_get0_notAfter(sealtest::x509Of(cert))) > 0) ::sleep(1);
    }
    if (row.responderDown) world().web.www.write("ocsp.http", {});
    const std::string got = verdicts(row.pdf, row.args, row.anchors);
    EXPECT_EQ(got.substr(0, row.wanted.size()), row.wanted) << row.pdf << " " << row.args;
    ::unlink(file("ocsp.http").c_str());
  }
  // The HTML report gives the same verdicts, and its exit code follows them.
  for (const auto& [pdf, code, verdict] : {std::tuple<std::string, int, std::string>{"signer-ts.pdf", 0, "valid"},
                                           {"stranger.pdf", 1, "indeterminate"}}) {
    const auto r = run(world().env("/dev/null") + sealtest::sealmark("report --trust --offline " + root + " " +
                                                                      file(pdf) + " --output " + file("page.html")));
    EXPECT_EQ(r.exitCode, code) << pdf << r.err;
    EXPECT_NE(sealtest::text(sealtest::readFile(file("page.html"))).find("<strong>" + verdict + "</strong>"),
              std::string::npos)
        << pdf;
  }
  if (!slapd) GTEST_SKIP() << "no slapd (scripts/install-deps.sh installs it)";
  EXPECT_EQ(verdicts("ldap.pdf", root + ldap, "/dev/null"),
            "1 invalid " + claimed + " r--: 'Chain LDAP Signer' is revoked (by its CRL)");
  // Not yet revoked at the time it claims, but revoked now: nothing proves the claim.
  EXPECT_EQ(verdicts("ldap-early.pdf", root + ldap, "/dev/null"),
            "1 indeterminate " + claimed +
                " ggn: 'Chain LDAP Signer' is revoked by its CRL now, and no time stamp proves that it "
                "signed before");
}

TEST(Chain, InProcess) {
  ::setenv("SEALMARK_NSSDB", world().nss.file("db").c_str(), 0);
  ::setenv("SSL_CERT_FILE", file("root.pem").c_str(), 1);
  std::vector<PDFCert> path, given{PDFCert(), sealtest::loadCertFile(file("inter.pem")), PDFCert(),
                                   sealtest::loadCertFile(file("root.pem"))};
  // Candidates without a certificate are passed over; no element holds the
  // key of the certificate the walk started from.
  PDFCert signer;
  std::ifstream in(file("signer.p12"), std::ios::binary);
  ASSERT_TRUE(signer.loadPkcs12(in, "test"));
  EXPECT_EQ(signer.getChain(path, given, false, nullptr, nullptr, nullptr, 0), 2);
  ASSERT_EQ(path.size(), 3u);
  for (const PDFCert& c : path) EXPECT_EQ(c.getPKey(), 0u);
  EXPECT_EQ(sealtest::hashOf(path[2]), sealtest::sha1Fingerprint(file("root.pem")));
  // An empty object gives 0 and an empty path.
  EXPECT_EQ(PDFCert().getChain(path, given, true, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_TRUE(path.empty());
}

}  // namespace
