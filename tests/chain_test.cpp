// The issuer path of a certificate (PDFCert::getChain, `sealmark chain`), on
// the hierarchy of support/chain_pki.sh with its OCSP responder and CRLs
// behind serve.py, a throw-away NSS database, and the system's trust
// anchors set through SSL_CERT_FILE.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_ca.h"
#include "support/test_util.h"

namespace {

using nlohmann::json;
using PDF_Sealmark::PDFCert;
using sealtest::run;
using sealtest::shellQuote;

// The hierarchy, made once per process, and a database with nothing in it.
struct World {
  sealtest::Web web;
  sealtest::TempDir nss;
  World() {
    sealtest::oracle("bash " + sealtest::supportScript("chain_pki.sh") + " " + web.www.path() + " " +
                     web.peer.url("") + " 6");
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
