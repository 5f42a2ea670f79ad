// PDFCert loads and saves: which formats each flag takes, what a failed load
// leaves behind, PKCS#12 round trips with further certificates.
//
// Files are made with the openssl command at test time.
#include <gtest/gtest.h>
#include <openssl/pkcs12.h>

#include <cctype>
#include <limits>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFCert;
using PDF_Sealmark::PDFCertImpl;
using sealtest::run;
using sealtest::shellQuote;

std::string readText(const std::string& path) {
  const auto bytes = sealtest::readFile(path);
  return std::string(bytes.begin(), bytes.end());
}

std::string hashOf(const PDFCert& cert) {
  std::string hex;
  cert.getHashHex(hex);
  return hex;
}

std::string sha1Of(const std::string& pemFile) {
  auto r = run("openssl x509 -noout -fingerprint -sha1 -in " + shellQuote(pemFile));
  std::string hex;
  for (char c : r.out.substr(r.out.find('=') + 1)) {
    if (std::isxdigit(static_cast<unsigned char>(c))) hex += c;
  }
  return hex;
}

class CertFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new sealtest::TempDir;
    auto sh = [](const std::string& cmd) {
      auto r = run(cmd + " 2>&1");
      ASSERT_EQ(r.exitCode, 0) << cmd << "\n" << r.out;
    };
    const std::string d = shellQuote(dir_->path());
    sh("cd " + d +
       " && openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj /CN=Root -keyout ca.key -out ca.pem");
    sh("cd " + d +
       " && openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj /CN=Other -keyout other.key -out "
       "other.pem");
    sh("cd " + d + " && openssl req -newkey rsa:2048 -nodes -subj /CN=Leaf -keyout leaf.key -out leaf.csr");
    sh("cd " + d +
       " && openssl x509 -req -in leaf.csr -CA ca.pem -CAkey ca.key -set_serial 7 -days 30 -out leaf.pem");
    sh("cd " + d + " && openssl x509 -in leaf.pem -outform DER -out leaf.der");
    sh("cd " + d + " && cat leaf.pem other.pem > two.pem");
    // Leaf with key, plus the root and another certificate as further ones.
    sh("cd " + d +
       " && cat ca.pem other.pem > extra.pem && openssl pkcs12 -export -in leaf.pem -inkey leaf.key"
       " -certfile extra.pem -name leaf -passout pass:secret -out leaf.p12");
    sh("cd " + d + " && openssl pkcs12 -export -in leaf.pem -inkey leaf.key -passout pass: -out nopass.p12");
    leafPem_ = readText(dir_->file("leaf.pem"));
    leafDer_ = readText(dir_->file("leaf.der"));
    otherPem_ = readText(dir_->file("other.pem"));
    twoPem_ = readText(dir_->file("two.pem"));
    p12_ = readText(dir_->file("leaf.p12"));
    noPassP12_ = readText(dir_->file("nopass.p12"));
    leafSha1_ = sha1Of(dir_->file("leaf.pem"));
    otherSha1_ = sha1Of(dir_->file("other.pem"));
  }
  static void TearDownTestSuite() { delete dir_; }

  static PDFCert withOther() {
    PDFCert cert;
    std::istringstream in(otherPem_);
    EXPECT_TRUE(cert.loadX509(in, false));
    return cert;
  }

  static sealtest::TempDir* dir_;
  static std::string leafPem_, leafDer_, otherPem_, twoPem_, p12_, noPassP12_, leafSha1_, otherSha1_;
};

sealtest::TempDir* CertFiles::dir_ = nullptr;
std::string CertFiles::leafPem_, CertFiles::leafDer_, CertFiles::otherPem_, CertFiles::twoPem_,
    CertFiles::p12_, CertFiles::noPassP12_, CertFiles::leafSha1_, CertFiles::otherSha1_;

// A failed parse must not leave the old certificate behind.
TEST_F(CertFiles, FlagSelectsFormats) {
  struct Case {
    const std::string* bytes;
    bool der;
    bool loads;
  };
  const Case cases[] = {
      {&leafPem_, true, true}, {&leafPem_, false, true}, {&leafDer_, true, true}, {&leafDer_, false, false}};
  for (const Case& c : cases) {
    PDFCert cert = withOther();
    std::istringstream in(*c.bytes);
    EXPECT_EQ(cert.loadX509(in, c.der), c.loads)
        << (c.bytes == &leafPem_ ? "PEM" : "DER") << " der=" << c.der;
    EXPECT_EQ(hashOf(cert), c.loads ? leafSha1_ : "");
    EXPECT_EQ(cert.getX509() != 0, c.loads);
  }
}

TEST_F(CertFiles, StreamIsReadWholeWhereverItStands) {
  std::istringstream in(leafDer_);
  in.ignore(std::numeric_limits<std::streamsize>::max());
  in.get();  // read to the end and beyond: eof and fail set
  ASSERT_FALSE(in.good());
  PDFCert cert;
  ASSERT_TRUE(cert.loadX509(in, true));
  EXPECT_EQ(hashOf(cert), leafSha1_);
  EXPECT_TRUE(in.eof() || in.tellg() == static_cast<std::streamoff>(leafDer_.size()));
}

struct NoSeekBuf : std::streambuf {
  explicit NoSeekBuf(std::string s) : text(std::move(s)) {
    setg(text.data(), text.data(), text.data() + text.size());
  }
  std::string text;
};

TEST_F(CertFiles, UnreadableStreamsLeaveTheCertificate) {
  PDFCert cert = withOther();
  std::istringstream empty("");
  EXPECT_FALSE(cert.loadX509(empty, true));
  EXPECT_FALSE(cert.loadPkcs12(empty, "secret"));

  NoSeekBuf buf(leafPem_);  // can't be measured
  std::istream noSeek(&buf);
  EXPECT_FALSE(cert.loadX509(noSeek, true));

  NoSeekBuf buf2(leafPem_);
  std::istream throwing(&buf2);
  throwing.exceptions(std::ios::failbit | std::ios::badbit);
  EXPECT_FALSE(cert.loadX509(throwing, true));
  EXPECT_EQ(hashOf(cert), otherSha1_);

  std::istringstream rubbish("rubbish, neither DER nor PEM");
  EXPECT_FALSE(cert.loadX509(rubbish, true));
  EXPECT_EQ(cert.getX509(), 0u);
  EXPECT_EQ(hashOf(cert), "");
}

TEST_F(CertFiles, PemWithTwoCertificatesGivesTheFirst) {
  PDFCert cert;
  std::istringstream in(twoPem_);
  ASSERT_TRUE(cert.loadX509(in, false));
  EXPECT_EQ(hashOf(cert), leafSha1_);
}

TEST_F(CertFiles, SaveAndLoadAgain) {
  PDFCert cert = withOther();
  for (bool der : {true, false}) {
    std::ostringstream out;
    ASSERT_TRUE(cert.saveX509(out, der));
    if (!der) {
      EXPECT_EQ(out.str(), otherPem_);  // as openssl wrote it
    }
    PDFCert back;
    std::istringstream in(out.str());
    ASSERT_TRUE(back.loadX509(in, der));
    EXPECT_EQ(hashOf(back), otherSha1_);
  }
}

TEST_F(CertFiles, ThrowingOutputStreamPassesThrough) {
  PDFCert cert = withOther();
  struct Refusing : std::streambuf {
    int_type overflow(int_type) override { return traits_type::eof(); }
    std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
  } refusing;
  std::ostream quiet(&refusing);
  EXPECT_TRUE(cert.saveX509(quiet, true));  // the stream's state isn't looked at
  std::ostream loud(&refusing);
  loud.exceptions(std::ios::badbit);
  EXPECT_THROW(cert.saveX509(loud, true), std::ios_base::failure);
}

TEST_F(CertFiles, Pkcs12LoadGivesKeyAndFurtherCertificates) {
  PDFCert cert = withOther();
  PDFCertImpl::implOf(cert)->valid = 1;
  std::istringstream in(p12_);
  ASSERT_TRUE(cert.loadPkcs12(in, "secret"));
  EXPECT_EQ(hashOf(cert), leafSha1_);
  EXPECT_NE(cert.getPKey(), 0u);
  EXPECT_EQ(cert.getValid(), 0);
  EXPECT_TRUE(cert.isWindowsCert());
  ASSERT_NE(PDFCertImpl::implOf(cert)->caCerts, nullptr);
  EXPECT_EQ(sk_X509_num(PDFCertImpl::implOf(cert)->caCerts), 2);
  // The key is the leaf's.
  EXPECT_EQ(X509_check_private_key(reinterpret_cast<X509*>(cert.getX509()),
                                   reinterpret_cast<EVP_PKEY*>(cert.getPKey())),
            1);

  // A later loadX509 drops the key.
  std::istringstream pem(otherPem_);
  ASSERT_TRUE(cert.loadX509(pem, false));
  EXPECT_EQ(cert.getPKey(), 0u);
  EXPECT_EQ(PDFCertImpl::implOf(cert)->caCerts, nullptr);
}

TEST_F(CertFiles, Pkcs12RoundTripKeepsFurtherCertificates) {
  PDFCert cert;
  std::istringstream in(p12_);
  ASSERT_TRUE(cert.loadPkcs12(in, "secret"));
  std::ostringstream out;
  ASSERT_TRUE(cert.savePkcs12(out, "again", "saved"));
  const std::string bytes = out.str();
  const std::string saved = dir_->write("saved.p12", std::vector<unsigned char>(bytes.begin(), bytes.end()));

  // openssl reads it with the new password and finds all three certificates.
  auto r = run("openssl pkcs12 -in " + shellQuote(saved) +
               " -passin pass:again -nokeys 2>/dev/null | grep -c 'BEGIN CERTIFICATE'");
  EXPECT_EQ(r.out, "3\n");
  r = run("openssl pkcs12 -in " + shellQuote(saved) +
          " -passin pass:again -nocerts -nodes 2>/dev/null | grep -c 'PRIVATE KEY-----'");
  EXPECT_EQ(r.out, "2\n");  // BEGIN and END lines

  PDFCert back;
  std::istringstream again(out.str());
  ASSERT_TRUE(back.loadPkcs12(again, "again"));
  EXPECT_EQ(hashOf(back), leafSha1_);
  ASSERT_NE(PDFCertImpl::implOf(back)->caCerts, nullptr);
  EXPECT_EQ(sk_X509_num(PDFCertImpl::implOf(back)->caCerts), 2);

  std::ostringstream unnamed;
  EXPECT_TRUE(cert.savePkcs12(unnamed, "pw", ""));
  EXPECT_FALSE(unnamed.str().empty());
}

TEST_F(CertFiles, Pkcs12Refusals) {
  PDFCert cert = withOther();
  std::istringstream in(p12_);
  EXPECT_FALSE(cert.loadPkcs12(in, nullptr));
  EXPECT_FALSE(cert.loadPkcs12(in, ""));
  EXPECT_EQ(hashOf(cert), otherSha1_);  // not read: unchanged
  std::istringstream noPass(noPassP12_);
  EXPECT_FALSE(cert.loadPkcs12(noPass, ""));  // even for a file without password
  EXPECT_EQ(hashOf(cert), otherSha1_);

  std::ostringstream out;
  EXPECT_FALSE(cert.savePkcs12(out, "pw", "name"));  // no key
  EXPECT_EQ(hashOf(cert), otherSha1_);

  std::istringstream wrong(p12_);
  EXPECT_FALSE(cert.loadPkcs12(wrong, "wrong"));
  EXPECT_EQ(cert.getX509(), 0u);  // read, then refused: empty
  EXPECT_EQ(cert.getPKey(), 0u);

  std::istringstream right(p12_);
  ASSERT_TRUE(cert.loadPkcs12(right, "secret"));
  EXPECT_FALSE(cert.savePkcs12(out, nullptr, "name"));
  EXPECT_FALSE(cert.savePkcs12(out, "", "name"));
  EXPECT_FALSE(cert.savePkcs12(out, "pw", nullptr));
  EXPECT_TRUE(out.str().empty());
  EXPECT_EQ(hashOf(cert), leafSha1_);
}

}  // namespace
