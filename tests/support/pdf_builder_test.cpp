// Self-check of the test PDF builder against independent tools: qpdf --check
// must accept every file it writes, and poppler's pdfsig must give the
// verdict each variant is meant to carry. The library's own tests read the
// same variants, so this is what makes their expectations trustworthy.
#include <gtest/gtest.h>
#include <openssl/pkcs7.h>

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "pdf_builder.h"

namespace sealtest {
namespace {

std::string run(const std::string& cmd, int* status = nullptr) {
  std::string out;
  FILE* p = popen((cmd + " 2>&1").c_str(), "r");
  std::array<char, 4096> buf;
  for (std::size_t n; p && (n = fread(buf.data(), 1, buf.size(), p)) > 0;) out.append(buf.data(), n);
  const int st = p ? pclose(p) : -1;
  if (status) *status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}

std::size_t count(const std::string& hay, const std::string& needle) {
  std::size_t c = 0;
  for (std::size_t pos = hay.find(needle); pos != std::string::npos; pos = hay.find(needle, pos + 1)) ++c;
  return c;
}

const char kValid[] = "Signature Validation: Signature is Valid.";

struct Case {
  std::string name;
  std::function<void(PdfBuilder&)> build;
  std::size_t valid;               // signatures pdfsig calls valid
  std::vector<std::string> says;   // further texts pdfsig must print
  std::string password = "";       // user password, when encrypted
};

SignatureOptions with(std::function<void(SignatureOptions&)> f) {
  SignatureOptions o;
  f(o);
  return o;
}

std::vector<Case> cases() {
  static const Pki ecPki = makePki(KeyKind::EcP256, KeyKind::EcP256);
  static const Pki mixedPki = makePki(KeyKind::Rsa2048, KeyKind::EcP256);
  const Pki& pki = defaultPki();
  std::vector<Case> v;
  const std::pair<const Pki*, const char*> pkis[] = {{&pki, "rsa"}, {&ecPki, "ec"}, {&mixedPki, "rsaCaEcSigner"}};
  for (const auto& [which, label] : pkis) {
    for (Digest d : {Digest::Sha1, Digest::Sha256, Digest::Sha384, Digest::Sha512}) {
      const SignatureOptions o = with([&, w = which](SignatureOptions& s) { s.digest = d; s.signer.identity = &w->signer; });
      v.push_back({std::string(label) + digestName(d), [o](PdfBuilder& b) { b.pages(3).sign(o); }, 1,
                   {"Total document signed", "adbe.pkcs7.detached"}});
    }
  }
  auto one = [&v](const std::string& name, SignatureOptions o, std::size_t valid, std::vector<std::string> says = {}) {
    v.push_back({name, [o](PdfBuilder& b) { b.sign(o); }, valid, std::move(says)});
  };
  one("embedded", with([](SignatureOptions& o) { o.layout = Layout::EmbeddedSha1; o.digest = Digest::Sha1; }), 1);
  one("noAttributes", with([](SignatureOptions& o) { o.signedAttributes = false; }), 1);
  one("pfuFilter", with([](SignatureOptions& o) { o.filter = "PFUP.TimeStamp"; }), 1);
  one("directValue", with([](SignatureOptions& o) { o.directValue = true; }), 1);
  one("incremental", with([](SignatureOptions& o) { o.incremental = true; }), 1);
  one("timestampAndSecondSigner", with([&pki](SignatureOptions& o) {
        o.secondSigner = Signer{&pki.secondSigner, nullptr, nonPkcs7Sequence()};
        o.signer.timestampToken = pkcs7SignedData(Bytes{1, 2, 3}, pki.secondSigner);
      }), 1);
  // Broken on purpose: pdfsig must see the signature and reject it.
  one("wrongKey", with([&pki](SignatureOptions& o) { o.signer.signingKey = pki.unrelated.key.get(); }), 0,
      {"Signature #1", "Signature is Invalid"});
  one("notPkcs7", with([](SignatureOptions& o) { o.rawContents = Bytes{'n', 'o', 't', ' ', 'D', 'E', 'R'}; }), 0,
      {"Signature #1"});
  one("embedded24", with([](SignatureOptions& o) { o.layout = Layout::EmbeddedSha1; o.embeddedContent = Bytes(24, 0xAB); }),
      0, {"Signature #1"});
  one("byteRangeOfThree", with([](SignatureOptions& o) { o.byteRangeText = "[0 10 20]"; }), 0);
  one("byteRangeScalar", with([](SignatureOptions& o) { o.byteRangeText = "42"; }), 0);
  one("noByteRange", with([](SignatureOptions& o) { o.omitByteRange = true; }), 0);
  v.push_back({"tampered", [](PdfBuilder& b) { b.sign().tamperPageContent(); }, 0, {"Signature #1", "Digest Mismatch"}});
  v.push_back({"padded", [](PdfBuilder& b) { b.padding(1 << 20).sign(); }, 1, {}});

  const SignatureOptions second = with([&pki](SignatureOptions& o) {
    o.name = "Signature2";
    o.signer.identity = &pki.secondSigner;
  });
  v.push_back({"threeRevisions", [second](PdfBuilder& b) { b.sign().sign(second).update({UpdateOptions::Kind::RewriteInfo, 0}); },
               2, {"Not total document signed"}});
  for (Eol eol : {Eol::Lf, Eol::None}) {
    v.push_back({eol == Eol::Lf ? "finalLf" : "noFinalEol", [eol](PdfBuilder& b) { b.sign().update().finalEol(eol); }, 1,
                 {"Not total document signed"}});
  }
  v.push_back({"fieldSignedLater", [](PdfBuilder& b) {
                 FieldOptions f;
                 f.name = "Later";
                 b.unsignedField(f).sign().sign(with([](SignatureOptions& o) { o.name = "Later"; }));
               }, 2, {"Field Name: Later"}});
  // poppler treats a widget kid carrying /Parent as a field of its own and
  // misses /V on its parent, so of the four signatures it finds three.
  v.push_back({"fieldShapes", [](PdfBuilder& b) {
                 FieldOptions empty;
                 empty.name = "Empty";
                 b.pages(2).unsignedField(empty);
                 b.sign(with([](SignatureOptions& o) { o.name = "Parent.Child"; o.page = 1; }));
                 b.sign(with([](SignatureOptions& o) { o.name = "NoP"; o.pageRef = false; }));
                 b.sign(with([](SignatureOptions& o) { o.name = "Orphan"; o.pageRef = false; o.inAnnots = false; }));
                 b.sign(with([](SignatureOptions& o) { o.name = "Kids"; o.separateWidget = true; }));
               }, 3, {"Field Name: Empty\n", "Field Name: Parent.Child\n", "Field Name: NoP\n", "Field Name: Orphan\n",
                      "Field Name: Kids\n", "not signed"}});
  const std::tuple<const char*, const char*, Encryption> encrypted[] = {
      {"r4EmptyUser", "", Encryption::Aes128R4}, {"r4User", "user", Encryption::Aes128R4},
      {"r6User", "user", Encryption::Aes256R6}};
  for (const auto& [name, user, kind] : encrypted) {
    v.push_back({name, [u = std::string(user), k = kind](PdfBuilder& b) {
                   FieldOptions f;
                   f.name = "Unsigned";
                   b.unsignedField(f).sign().encrypt(u, "owner", k);
                 }, 1, {"Total document signed", "Field Name: Unsigned"}, user});
  }
  return v;
}

class PdfBuilderOracle : public ::testing::TestWithParam<Case> {};

TEST_P(PdfBuilderOracle, QpdfAcceptsAndPdfsigAgrees) {
  const Case& c = GetParam();
  PdfBuilder b;
  c.build(b);
  const std::string path = ::testing::TempDir() + "sealtest_" + std::to_string(getpid()) + "_" + c.name + ".pdf";
  writeBytes(path, b.build());
  int status = -1;
  const std::string check = run("qpdf --check --password=" + (c.password.empty() ? "owner" : c.password) + " " + path, &status);
  EXPECT_EQ(status, 0) << check;
  EXPECT_NE(check.find("No syntax or stream encoding errors"), std::string::npos) << check;
  const std::string out = run("pdfsig -nocert " + (c.password.empty() ? "" : "-upw " + c.password + " ") + path);
  EXPECT_EQ(count(out, kValid), c.valid) << out;
  for (const std::string& s : c.says) EXPECT_NE(out.find(s), std::string::npos) << s << "\n" << out;
  std::remove(path.c_str());
}

INSTANTIATE_TEST_SUITE_P(Variants, PdfBuilderOracle, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<Case>& i) { return i.param.name; });

// pdfsig looks at the first signer only, so OpenSSL judges the second one
// over the signed bytes: grafted over other bytes it must fail the whole
// SignedData, over the right bytes it must pass.
TEST(PdfBuilderCms, SecondSignerOverOtherBytesFailsOpenSsl) {
  for (bool otherBytes : {false, true}) {
    SignatureOptions o;
    o.secondSigner = Signer{&defaultPki().secondSigner, nullptr, std::nullopt};
    o.secondSignerOverOtherBytes = otherBytes;
    PdfBuilder b;
    const Bytes file = b.sign(o).build();
    const SignatureFacts& f = b.signatures().at(0);
    Bytes signedBytes(file.begin(), file.begin() + f.byteRange[1]);
    signedBytes.insert(signedBytes.end(), file.begin() + f.byteRange[2], file.end());
    const unsigned char* p = f.cms.data();
    std::unique_ptr<PKCS7, decltype(&PKCS7_free)> p7(d2i_PKCS7(nullptr, &p, static_cast<long>(f.cms.size())), &PKCS7_free);
    std::unique_ptr<BIO, decltype(&BIO_free)> data(BIO_new_mem_buf(signedBytes.data(), static_cast<int>(signedBytes.size())),
                                                   &BIO_free);
    ASSERT_TRUE(p7);
    EXPECT_EQ(PKCS7_verify(p7.get(), nullptr, nullptr, data.get(), nullptr, PKCS7_NOVERIFY | PKCS7_BINARY) == 1,
              !otherBytes);
  }
}

}  // namespace
}  // namespace sealtest
