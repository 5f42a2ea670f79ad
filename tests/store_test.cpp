// The system stores on the NSS database, judged by NSS's own tools
// (certutil, pk12util, modutil) and poppler's pdfsig, with keys in NSS's
// software token and in a SoftHSM2 token registered with the database.
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCertWinStore.h"
#include "support/test_ca.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFCert;
using PDF_Sealmark::PDFCertWinStore;
using sealtest::oracle;
using sealtest::run;
using sealtest::sealmark;
using sealtest::shellQuote;

bool haveNssTools() {
  return run("command -v certutil && command -v pk12util && command -v modutil").exitCode == 0;
}
bool haveSoftHsm() {
  return run("command -v softhsm2-util && test -e /usr/lib/softhsm/libsofthsm2.so").exitCode == 0;
}

const std::string& pki() {
  static sealtest::TempDir dir;
  static const std::string path = [] {
    oracle("bash " + std::string(SEALMARK_SOURCE_DIR) + "/tests/support/make_pki.sh " +
           shellQuote(dir.path()));
    return dir.path();
  }();
  return path;
}
std::string pem(const std::string& name) { return shellQuote(pki() + "/" + name); }
std::string sha1(const std::string& name) { return sealtest::sha1Fingerprint(pki() + "/" + name + ".pem"); }

// A throw-away database (with a SoftHSM2 token when asked), and the
// environment that points sealmark and the NSS tools at it.  The system's
// trust anchors are the "unrelated" root alone.
struct Database {
  sealtest::TempDir dir;
  explicit Database(bool token) {
    oracle("bash " + std::string(SEALMARK_SOURCE_DIR) + "/tests/support/nss_db.sh " + shellQuote(dir.path()) +
           (token ? " softhsm" : ""));
  }
  std::string db() const { return "sql:" + dir.file("db"); }
  std::vector<std::pair<std::string, std::string>> variables() const {
    return {{"SEALMARK_NSSDB", dir.file("db")},
            {"SOFTHSM2_CONF", dir.file("softhsm2.conf")},
            {"SSL_CERT_FILE", pki() + "/unrelated.pem"},
            {"SSL_CERT_DIR", dir.path()}};
  }
  std::string env() const {
    // A PIN set for this process doesn't reach the commands.
    std::string line = "env -u SEALMARK_PIN -u SEALMARK_PIN_FILE ";
    for (const auto& v : variables()) line += v.first + "=" + shellQuote(v.second) + " ";
    return line;
  }
  std::string run(const std::string& tool) const { return oracle(env() + tool); }
  std::string list() const { return run("certutil -L -d " + db()); }
  // The trust column of certutil for the certificate of this subject.
  std::string trust(const std::string& commonName) const {
    return run("certutil -L -d " + db() + " | awk -F'  +' '/" + commonName + "/ {print $2}'");
  }
};

// --- the library in this process: one database for the suite, since NSS is
// opened once per process ---------------------------------------------------

class StoreTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!haveNssTools()) return;
    softHsm = haveSoftHsm();
    db = std::make_unique<Database>(softHsm);
    db->run("pk12util -i " + pem("signer.p12") + " -d " + db->db() + " -W test");
    if (softHsm)
      db->run("pk12util -i " + pem("second.p12") + " -d " + db->db() + " -h sealmark -K 1234 -W test");
    for (const auto& v : db->variables()) ::setenv(v.first.c_str(), v.second.c_str(), 1);
    ::setenv("SEALMARK_PIN", "1234", 1);
  }
  void SetUp() override {
    if (!db) GTEST_SKIP() << "NSS tools (certutil, pk12util, modutil) not installed";
  }
  static std::unique_ptr<Database> db;
  static bool softHsm;
  PDFCertWinStore store;
};
std::unique_ptr<Database> StoreTest::db;
bool StoreTest::softHsm = false;

TEST_F(StoreTest, KeyBridgeSignsAndDecryptsInTheToken) {
  for (const char* who : {"signer", "second"}) {
    if (std::string(who) == "second" && !softHsm) {
      std::cout << "SoftHSM2 not installed: key in a PKCS#11 token not tried\n";
      continue;
    }
    SCOPED_TRACE(who);
    PDFCert cert;
    ASSERT_TRUE(store.getByHash(cert, sha1(who), PDFCertWinStore::kMy));
    auto* key = reinterpret_cast<EVP_PKEY*>(cert.getPKey());
    ASSERT_NE(key, nullptr);
    EVP_PKEY* pub = X509_get0_pubkey(sealtest::x509Of(cert));
    RSA* rsa = const_cast<RSA*>(EVP_PKEY_get0_RSA(key));
    RSA* pubRsa = const_cast<RSA*>(EVP_PKEY_get0_RSA(pub));
    unsigned char digest[64], sig[512], plain[48], cipher[512], back[512];
    ASSERT_EQ(RAND_bytes(digest, sizeof digest), 1);
    ASSERT_EQ(RAND_bytes(plain, sizeof plain), 1);
    // A NID outside the platform's table is signed as SHA-1, over the first
    // 20 bytes, so it verifies as SHA-1 only.
    const struct {
      int nid, verifyAs;
      unsigned length;
    } cases[] = {{NID_sha1, NID_sha1, 20}, {NID_sha256, NID_sha256, 32},     {NID_sha512, NID_sha512, 64},
                 {NID_md5, NID_md5, 16},   {NID_md5_sha1, NID_md5_sha1, 36}, {NID_sha224, NID_sha1, 20}};
    for (const auto& c : cases) {
      unsigned int length = 0;
      ASSERT_EQ(RSA_sign(c.nid, digest, c.nid == NID_sha224 ? 28 : c.length, sig, &length, rsa), 1) << c.nid;
      EXPECT_EQ(RSA_verify(c.verifyAs, digest, c.length, sig, length, pubRsa), 1) << c.nid;
      if (c.nid == NID_sha224) {
        EXPECT_NE(RSA_verify(NID_sha224, digest, 28, sig, length, pubRsa), 1);
      }
    }
    for (int padding : {RSA_PKCS1_PADDING, RSA_PKCS1_PSS_PADDING}) {
      std::size_t length = sizeof sig;
      EVP_MD_CTX* ctx = EVP_MD_CTX_new();
      EVP_PKEY_CTX* pctx = nullptr;
      const bool signedOk = EVP_DigestSignInit(ctx, &pctx, EVP_sha256(), nullptr, key) == 1 &&
                            EVP_PKEY_CTX_set_rsa_padding(pctx, padding) == 1 &&
                            EVP_DigestSign(ctx, sig, &length, plain, sizeof plain) == 1;
      EVP_MD_CTX_free(ctx);
      // PSS needs raw private encryption, which the bridge refuses.
      ASSERT_EQ(signedOk, padding == RSA_PKCS1_PADDING);
      if (!signedOk) continue;
      ctx = EVP_MD_CTX_new();
      EXPECT_EQ(EVP_DigestVerifyInit(ctx, nullptr, EVP_sha256(), nullptr, pub), 1);
      EXPECT_EQ(EVP_DigestVerify(ctx, sig, length, plain, sizeof plain), 1);
      EVP_MD_CTX_free(ctx);
    }
    EXPECT_EQ(RSA_private_encrypt(32, digest, sig, rsa, RSA_PKCS1_PADDING), -1);
    const int cipherLength = RSA_public_encrypt(sizeof plain, plain, cipher, pubRsa, RSA_PKCS1_PADDING);
    ASSERT_GT(cipherLength, 0);
    ASSERT_EQ(RSA_private_decrypt(cipherLength, cipher, back, rsa, RSA_PKCS1_PADDING),
              static_cast<int>(sizeof plain));
    EXPECT_EQ(std::string(back, back + sizeof plain), std::string(plain, plain + sizeof plain));
  }
}

TEST_F(StoreTest, FindsByHashAndSubjectAsWritten) {
  const std::string hash = sha1("signer");
  std::string colons;
  for (std::size_t i = 0; i < hash.size(); i += 2) colons += (i ? ":" : "") + hash.substr(i, 2);
  std::string lower = hash;
  for (char& ch : lower) ch = static_cast<char>(std::tolower(ch));
  const struct {
    std::string text;
    int store;
    bool found, key;
  } cases[] = {{hash, 0, true, true},
               {lower, 0, true, true},
               {colons, 0, true, true},
               {hash, 7, true, false},
               {hash, 1, false, false},
               {hash.substr(0, 38), 0, false, false},
               {hash + "00", 0, false, false},
               {hash.substr(1), 0, false, false},
               {"", 0, false, false},
               {"not hex", 0, false, false},
               {sha1("unrelated"), 2, true, false},
               {sha1("unrelated"), 0, false, false}};
  for (const auto& c : cases) {
    PDFCert cert;
    EXPECT_EQ(store.getByHash(cert, c.text, c.store), c.found) << c.text << " in " << c.store;
    EXPECT_EQ(cert.getPKey() != 0, c.key) << c.text << " in " << c.store;
    EXPECT_EQ(sealtest::hashOf(cert), !c.found ? "" : c.store == 2 ? sha1("unrelated") : hash);
  }
  std::vector<PDFCert> certs(3);
  EXPECT_EQ(store.getByName(certs, L"TEST SIGNER", 0), 1);
  EXPECT_EQ(sealtest::hashOf(certs.at(0)), hash);
  EXPECT_EQ(store.getByName(certs, L"no such subject", 0), 0);
  EXPECT_TRUE(certs.empty());
  EXPECT_EQ(store.getByName(certs, L"", 7), softHsm ? 2 : 1);
  for (int s : {1, 7}) {
    store.getByName(certs, L"", s);
    for (const PDFCert& c : certs) EXPECT_EQ(c.getPKey(), 0u) << s;
  }
  PDFCert chosen;
  EXPECT_FALSE(store.getByDlg(chosen, L"title", L"text", 0, nullptr, 0));
}

// A stream whose reading throws.
struct ThrowingBuffer : std::streambuf {
  pos_type seekoff(off_type, std::ios::seekdir, std::ios::openmode) override {
    throw std::runtime_error("disk");
  }
};

TEST_F(StoreTest, AddPfxFailsWithoutTouchingTheDatabase) {
  const std::string before = db->list();
  std::ifstream second(pki() + "/second.p12", std::ios::binary);
  std::ifstream der(pki() + "/signer.der", std::ios::binary);
  std::istringstream empty;
  ThrowingBuffer buffer;
  std::istream throwing(&buffer);
  for (std::pair<std::istream*, const wchar_t*> c : {std::make_pair<std::istream*>(&second, L"wrong"),
                                                     {&der, L"test"},
                                                     {&empty, L"test"},
                                                     {&throwing, L"test"}}) {
    PDFCert cert;
    EXPECT_FALSE(store.addPfx(*c.first, c.second, cert));
    EXPECT_EQ(cert.getX509(), 0u);
  }
  EXPECT_EQ(db->list(), before);
  // The EC key goes in, but can't be bridged: false, and the file's last
  // certificate is never reached.
  std::ifstream ec(pki() + "/ec-signer.p12", std::ios::binary);
  PDFCert cert;
  EXPECT_FALSE(store.addPfx(ec, L"test", cert));
  EXPECT_EQ(sealtest::hashOf(cert), sha1("ec-signer"));
  EXPECT_EQ(db->trust("Sealmark EC Signer"), "u,u,u");
}

TEST_F(StoreTest, ChainTrustAddAndDelete) {
  PDFCert signer = sealtest::loadCertFile(pki() + "/signer.pem");
  PDFCert ca = sealtest::loadCertFile(pki() + "/ca.pem");
  PDFCert unrelated = sealtest::loadCertFile(pki() + "/unrelated.pem");
  std::vector<PDFCert> chain;
  EXPECT_EQ(store.getCertChain(chain, signer), 1);  // the CA came with signer.p12, untrusted
  ASSERT_EQ(chain.size(), 2u);
  EXPECT_EQ(sealtest::hashOf(chain[1]), sha1("ca"));
  EXPECT_EQ(store.isTrusted(ca, 2), 0);
  ASSERT_TRUE(store.addToStore(ca, PDFCertWinStore::kRoot));
  EXPECT_EQ(db->trust("Sealmark Test Root CA"), "C,C,C");
  EXPECT_EQ(store.isTrusted(ca, 2), 1);
  EXPECT_EQ(store.isTrusted(signer, 2), 0);
  chain.clear();
  EXPECT_EQ(store.getCertChain(chain, signer), 2);
  // The chain is appended to what the list holds, which takes part.
  std::vector<PDFCert> prefixed{unrelated};
  EXPECT_EQ(store.getCertChain(prefixed, signer), 0);
  EXPECT_EQ(prefixed.size(), 3u);
  chain.clear();
  EXPECT_EQ(store.getCertChain(chain, unrelated), 2);  // a system anchor
  chain.clear();
  PDFCert tsa = sealtest::loadCertFile(pki() + "/tsa.pem");
  EXPECT_EQ(store.getCertChain(chain, tsa), 2);

  EXPECT_FALSE(store.delCert(ca));                                      // in ROOT, not in MY
  EXPECT_FALSE(store.delFromStore(unrelated, PDFCertWinStore::kRoot));  // read-only
  EXPECT_TRUE(store.delFromStore(ca, PDFCertWinStore::kRoot));
  EXPECT_EQ(db->list().find("Sealmark Test Root CA"), std::string::npos);
  EXPECT_EQ(store.isTrusted(ca, 2), 0);
}

// --- sealmark, one database per test ------------------------------------------

TEST(StoreCli, AgreesWithNssTools) {
  if (!haveNssTools()) GTEST_SKIP() << "NSS tools (certutil, pk12util, modutil) not installed";
  const Database d(false);
  d.run(sealmark("store import " + pem("signer.p12") + " --password test"));
  EXPECT_EQ(d.trust("Sealmark Test Signer"), "u,u,u");
  EXPECT_EQ(d.trust("Sealmark Test Root CA"), ",,");
  d.run("pk12util -i " + pem("second.p12") + " -d " + d.db() + " -W test");
  d.run(sealmark("store add " + pem("ca.pem") + " --store ROOT"));
  d.run(sealmark("store add " + pem("tsa.der") + " --store ADDRESSBOOK"));
  EXPECT_EQ(d.trust("Sealmark Test Root CA"), "C,C,C");
  std::vector<std::string> expected{"ADDRESSBOOK " + sha1("tsa") + " False", "MY " + sha1("second") + " True",
                                    "MY " + sha1("signer") + " True", "ROOT " + sha1("ca") + " False",
                                    "ROOT " + sha1("unrelated") + " False"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(d.run(sealmark("store list --json") +
                  " | python3 -c 'import json,sys; print(*sorted(\"%s %s %s\" % (c[\"store\"], c[\"sha1\"], "
                  "c[\"has_key\"]) for c in json.load(sys.stdin)), sep=\",\")'"),
            expected[0] + "," + expected[1] + "," + expected[2] + "," + expected[3] + "," + expected[4]);
  d.run(sealmark("store export " + sha1("signer") + " --output " + d.dir.file("out.der")) + " && cmp " +
        d.dir.file("out.der") + " " + pem("signer.der"));
  d.run(sealmark("store export " + sha1("ca") + " --pem --output " + d.dir.file("out.pem")) + " && cmp " +
        d.dir.file("out.pem") + " " + pem("ca.pem"));
  d.run(sealmark("store delete " + sha1("tsa") + " --store ADDRESSBOOK"));
  EXPECT_EQ(d.list().find("Sealmark Test TSA"), std::string::npos);

  const std::string before = d.list();
  for (const std::string& args :
       {"store import " + pem("second.p12") + " --password wrong",
        "store import " + pem("signer.der") + " --password test",
        "store export " + std::string(40, '0') + " --output /dev/null",
        "store export " + sha1("ca").substr(2) + " --output /dev/null",
        "store delete " + sha1("unrelated") + " --store ROOT", "store delete " + sha1("ca"),
        std::string("store list BOGUS"), "store add " + pem("ca.pem"),
        "sign x --output y --p12 z --store-cert " + sha1("signer")}) {
    const auto r = run(d.env() + sealmark(args));
    EXPECT_EQ(r.exitCode, 2) << args << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << args << r.err;
  }
  EXPECT_EQ(d.list(), before);
}

TEST(StoreCli, SignsWithAKeyThatStaysInItsToken) {
  if (!haveNssTools()) GTEST_SKIP() << "NSS tools (certutil, pk12util, modutil) not installed";
  const bool token = haveSoftHsm();
  const Database d(token);
  const std::string in = std::string(SEALMARK_SOURCE_DIR) + "/tests/data/two-pages.pdf";
  oracle("echo test | " + d.env() + sealmark("store import " + pem("signer.p12") + " --password-file -"));
  d.run(sealmark("sign " + in + " --output " + d.dir.file("nss.pdf") + " --store-cert " + sha1("signer")));
  EXPECT_NE(oracle("pdfsig " + d.dir.file("nss.pdf")).find("Signature is Valid."), std::string::npos);
  if (!token) GTEST_SKIP() << "SoftHSM2 not installed: key in a PKCS#11 token not tried";
  d.run("pk12util -i " + pem("second.p12") + " -d " + d.db() + " -h sealmark -K 1234 -W test");
  // The token doesn't let the key out, nor show it without the PIN.
  EXPECT_NE(run(d.env() + "pk12util -o " + d.dir.file("x.p12") +
                " -n 'sealmark:Sealmark Second Signer - PDFSealmark Tests' -d " + d.db() + " -K 1234 -W x")
                .exitCode,
            0);
  const std::string sign =
      sealmark("sign " + in + " --output " + d.dir.file("hsm.pdf") + " --store-cert " + sha1("second"));
  EXPECT_EQ(run(d.env() + sign).exitCode, 2);
  sealtest::TempDir pinDir;
  d.run("echo 1234 > " + pinDir.file("pin") + " && " + d.env() + sign + " --pin-file " + pinDir.file("pin"));
  const std::string report = oracle("pdfsig " + d.dir.file("hsm.pdf"));
  EXPECT_NE(report.find("Signature is Valid."), std::string::npos) << report;
  EXPECT_NE(report.find("Sealmark Second Signer"), std::string::npos) << report;
}

TEST(StoreCli, JapaneseSubjectsComeOutAsUtf8) {
  if (!haveNssTools()) GTEST_SKIP() << "NSS tools (certutil, pk12util, modutil) not installed";
  const Database d(false);
  const std::string key = d.dir.file("jp.key"), cert = d.dir.file("jp.pem"), p12 = d.dir.file("jp.p12");
  oracle("openssl req -x509 -newkey rsa:2048 -nodes -utf8 -subj '/O=テスト組織/CN=山田 太郎' -keyout " + key +
         " -out " + cert + " 2>/dev/null && openssl pkcs12 -export -inkey " + key + " -in " + cert +
         " -passout pass:test -out " + p12);
  d.run(sealmark("store import " + p12 + " --password test"));
  const std::string table = d.run(sealmark("store list MY"));
  EXPECT_NE(table.find("O=テスト組織, CN=山田 太郎"), std::string::npos) << table;
  EXPECT_EQ(d.run(sealmark("store list MY --json") +
                  " | python3 -c 'import json,sys; print(json.load(sys.stdin)[0][\"subject\"])'"),
            "[['2.5.4.10', 'テスト組織'], ['2.5.4.3', '山田 太郎']]");
}

}  // namespace
