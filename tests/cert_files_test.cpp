// PDFCert loads and saves: which formats each flag takes, what a failed load
// leaves behind, PKCS#12 round trips with further certificates.
//
// Files are made with the openssl command at test time.
#include <gtest/gtest.h>
#include <openssl/pkcs12.h>

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
using sealtest::hashOf;
using sealtest::run;
using sealtest::shellQuote;

class CertFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new sealtest::TempDir;
    // A root, an unrelated self-signed certificate, and a leaf issued by the
    // root; the leaf with its key in PKCS#12, once with the root and the other
    // as further certificates and once alone without a password.
    sealtest::oracle("cd " + shellQuote(dir_->path()) + " && (" +
                     "openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj /CN=Root -keyout ca.key -out ca.pem"
                     " && openssl req -x509 -newkey rsa:2048 -nodes -days 30 -subj /CN=Other -keyout other.key -out other.pem"
                     " && openssl req -newkey rsa:2048 -nodes -subj /CN=Leaf -keyout leaf.key -out leaf.csr"
                     " && openssl x509 -req -in leaf.csr -CA ca.pem -CAkey ca.key -set_serial 7 -days 30 -out leaf.pem"
                     " && openssl x509 -in leaf.pem -outform DER -out leaf.der && cat leaf.pem other.pem > two.pem"
                     " && cat ca.pem other.pem > extra.pem && openssl pkcs12 -export -in leaf.pem -inkey leaf.key"
                     " -certfile extra.pem -name leaf -passout pass:secret -out leaf.p12"
                     " && openssl pkcs12 -export -in leaf.pem -inkey leaf.key -passout pass: -out nopass.p12) 2>&1");
    for (const auto& [name, text] : {std::pair<const char*, std::string*>{"leaf.pem", &leafPem_}, {"leaf.der", &leafDer_},
                               {"other.pem", &otherPem_}, {"two.pem", &twoPem_}, {"leaf.p12", &p12_},
                               {"nopass.p12", &noPassP12_}}) {
      *text = sealtest::text(sealtest::readFile(dir_->file(name)));
    }
    leafSha1_ = sealtest::sha1Fingerprint(dir_->file("leaf.pem"));
    otherSha1_ = sealtest::sha1Fingerprint(dir_->file("other.pem"));
  }
  static void TearDownTestSuite() { delete dir_; }

  static PDFCert load(const std::string& bytes, bool der = false) {
    PDFCert cert;
    std::istringstream in(bytes);
    EXPECT_TRUE(cert.loadX509(in, der));
    return cert;
  }
  static std::size_t furtherCerts(const PDFCert& cert) {
    const auto* stack = PDFCertImpl::implOf(cert)->caCerts;
    return stack ? static_cast<std::size_t>(sk_X509_num(stack)) : 0;
  }

  static sealtest::TempDir* dir_;
  static std::string leafPem_, leafDer_, otherPem_, twoPem_, p12_, noPassP12_, leafSha1_, otherSha1_;
};

sealtest::TempDir* CertFiles::dir_ = nullptr;
std::string CertFiles::leafPem_, CertFiles::leafDer_, CertFiles::otherPem_, CertFiles::twoPem_,
    CertFiles::p12_, CertFiles::noPassP12_, CertFiles::leafSha1_, CertFiles::otherSha1_;

// "DER" takes PEM too, PEM takes only PEM; a PEM file gives its first
// certificate.  A failed parse must not leave the old certificate behind.
TEST_F(CertFiles, FlagSelectsFormats) {
  struct Case {
    const std::string* bytes;
    bool der;
    bool loads;
  };
  for (const Case& c : {Case{&leafPem_, true, true}, Case{&leafPem_, false, true}, Case{&leafDer_, true, true},
                        Case{&leafDer_, false, false}, Case{&twoPem_, false, true}}) {
    PDFCert cert = load(otherPem_);
    std::istringstream in(*c.bytes);
    EXPECT_EQ(cert.loadX509(in, c.der), c.loads) << (c.bytes == &leafDer_ ? "DER" : "PEM") << " der=" << c.der;
    EXPECT_EQ(hashOf(cert), c.loads ? leafSha1_ : "");
    EXPECT_EQ(cert.getX509() != 0, c.loads);
  }
}

struct NoSeekBuf : std::streambuf {
  explicit NoSeekBuf(std::string s) : text(std::move(s)) { setg(text.data(), text.data(), text.data() + text.size()); }
  std::string text;
};

TEST_F(CertFiles, StreamsReadWholeOrNotAtAll) {
  // Read to the end and beyond (eof and fail set): still read from the start.
  std::istringstream spent(leafDer_);
  spent.ignore(std::numeric_limits<std::streamsize>::max());
  spent.get();
  ASSERT_FALSE(spent.good());
  PDFCert cert;
  ASSERT_TRUE(cert.loadX509(spent, true));
  EXPECT_EQ(hashOf(cert), leafSha1_);

  // Unreadable streams leave the certificate as it was.
  cert = load(otherPem_);
  std::istringstream empty("");
  EXPECT_FALSE(cert.loadX509(empty, true));
  EXPECT_FALSE(cert.loadPkcs12(empty, "secret"));
  NoSeekBuf buf(leafPem_), buf2(leafPem_);
  std::istream noSeek(&buf), throwing(&buf2);  // can't be measured
  EXPECT_FALSE(cert.loadX509(noSeek, true));
  throwing.exceptions(std::ios::failbit | std::ios::badbit);
  EXPECT_FALSE(cert.loadX509(throwing, true));
  EXPECT_EQ(hashOf(cert), otherSha1_);

  std::istringstream rubbish("rubbish, neither DER nor PEM");
  EXPECT_FALSE(cert.loadX509(rubbish, true));
  EXPECT_EQ(cert.getX509(), 0u);
}

TEST_F(CertFiles, SaveAndLoadAgain) {
  PDFCert cert = load(otherPem_);
  for (bool der : {true, false}) {
    std::ostringstream out;
    ASSERT_TRUE(cert.saveX509(out, der));
    if (!der) {
      EXPECT_EQ(out.str(), otherPem_);  // as openssl wrote it
    }
    EXPECT_EQ(hashOf(load(out.str(), der)), otherSha1_);
  }
  // The output stream's state isn't looked at, but its exceptions pass.
  struct Refusing : std::streambuf {
    int_type overflow(int_type) override { return traits_type::eof(); }
    std::streamsize xsputn(const char*, std::streamsize) override { return 0; }
  } refusing;
  std::ostream quiet(&refusing), loud(&refusing);
  EXPECT_TRUE(cert.saveX509(quiet, true));
  loud.exceptions(std::ios::badbit);
  EXPECT_THROW(cert.saveX509(loud, true), std::ios_base::failure);
}

TEST_F(CertFiles, Pkcs12LoadGivesKeyAndFurtherCertificates) {
  PDFCert cert = load(otherPem_);
  PDFCertImpl::implOf(cert)->valid = 1;
  std::istringstream in(p12_);
  ASSERT_TRUE(cert.loadPkcs12(in, "secret"));
  EXPECT_EQ(hashOf(cert), leafSha1_);
  EXPECT_EQ(cert.getValid(), 0);
  EXPECT_TRUE(cert.isWindowsCert());
  EXPECT_EQ(furtherCerts(cert), 2u);
  // The key is the leaf's.
  EXPECT_EQ(X509_check_private_key(reinterpret_cast<X509*>(cert.getX509()), reinterpret_cast<EVP_PKEY*>(cert.getPKey())),
            1);

  // Saved again under a new password, openssl finds all three certificates
  // and the key, and so does a load.
  std::ostringstream out;
  ASSERT_TRUE(cert.savePkcs12(out, "again", "saved"));
  const std::string saved = shellQuote(dir_->write("saved.p12", sealtest::bytes(out.str())));
  EXPECT_EQ(run("openssl pkcs12 -in " + saved + " -passin pass:again -nokeys 2>/dev/null | grep -c 'BEGIN CERTIFICATE'").out,
            "3\n");
  EXPECT_EQ(run("openssl pkcs12 -in " + saved + " -passin pass:again -nocerts -nodes 2>/dev/null | grep -c 'PRIVATE KEY-----'")
                .out,
            "2\n");  // BEGIN and END lines
  PDFCert back;
  std::istringstream again(out.str());
  ASSERT_TRUE(back.loadPkcs12(again, "again"));
  EXPECT_EQ(hashOf(back), leafSha1_);
  EXPECT_EQ(furtherCerts(back), 2u);
  std::ostringstream unnamed;
  EXPECT_TRUE(cert.savePkcs12(unnamed, "pw", ""));
  EXPECT_FALSE(unnamed.str().empty());

  // A later loadX509 drops the key and the further certificates.
  std::istringstream pem(otherPem_);
  ASSERT_TRUE(cert.loadX509(pem, false));
  EXPECT_EQ(cert.getPKey(), 0u);
  EXPECT_EQ(PDFCertImpl::implOf(cert)->caCerts, nullptr);
}

TEST_F(CertFiles, Pkcs12Refusals) {
  PDFCert cert = load(otherPem_);
  std::istringstream in(p12_), noPass(noPassP12_);
  EXPECT_FALSE(cert.loadPkcs12(in, nullptr));
  EXPECT_FALSE(cert.loadPkcs12(in, ""));
  EXPECT_FALSE(cert.loadPkcs12(noPass, ""));  // even for a file without password
  std::ostringstream out;
  EXPECT_FALSE(cert.savePkcs12(out, "pw", "name"));  // no key
  EXPECT_EQ(hashOf(cert), otherSha1_);                // not read: unchanged

  std::istringstream wrong(p12_);
  EXPECT_FALSE(cert.loadPkcs12(wrong, "wrong"));
  EXPECT_EQ(cert.getX509() + cert.getPKey(), 0u);  // read, then refused: empty

  std::istringstream right(p12_);
  ASSERT_TRUE(cert.loadPkcs12(right, "secret"));
  EXPECT_FALSE(cert.savePkcs12(out, nullptr, "name"));
  EXPECT_FALSE(cert.savePkcs12(out, "", "name"));
  EXPECT_FALSE(cert.savePkcs12(out, "pw", nullptr));
  EXPECT_TRUE(out.str().empty());
  EXPECT_EQ(hashOf(cert), leafSha1_);
}

}  // namespace
