// PDFCert: the object and its copies, fields and names, date texts, files.
//
// Certificates are made at test time, with OpenSSL calls where a field must
// be encoded a particular way (UTCTime text, serial bytes, string types) and
// with the openssl command otherwise.  Expected texts come from the openssl
// command, python3, or the bytes the test itself put into the certificate.
#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/CodepageText.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/cert/PDFCertWinImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFCert;
using PDF_Sealmark::PDFCertImpl;
namespace ossl = PDF_Sealmark::ossl;
using sealtest::hashOf;
using sealtest::oracle;
using sealtest::python;
using sealtest::shellQuote;

// --- making certificates ------------------------------------------------------------

EVP_PKEY* sharedKey() {
  static ossl::UniquePtr<EVP_PKEY> key(EVP_RSA_gen(2048));
  return key.get();
}

struct NameEntry {
  std::string oid;
  int type;           // V_ASN1_PRINTABLESTRING, V_ASN1_UTF8STRING, V_ASN1_BMPSTRING...
  std::string bytes;  // as stored
};

struct CertSpec {
  long version = X509_VERSION_3;
  std::string serialHex = "1000";  // magnitude
  bool negativeSerial = false;
  int timeType = V_ASN1_UTCTIME;
  std::string notBefore = "240101000000Z";  // stored text
  std::string notAfter = "240131000000Z";
  std::vector<NameEntry> subject = {{"2.5.4.3", V_ASN1_PRINTABLESTRING, "Test Subject"}};
  std::string keyUsage;  // extension value, e.g. "critical,digitalSignature"
};

void addEntry(X509_NAME* name, const NameEntry& e) {
  ossl::UniquePtr<ASN1_OBJECT> oid(OBJ_txt2obj(e.oid.c_str(), 1));
  ASSERT_TRUE(oid);
  ASSERT_EQ(X509_NAME_add_entry_by_OBJ(name, oid.get(), e.type,
                                       reinterpret_cast<const unsigned char*>(e.bytes.data()),
                                       static_cast<int>(e.bytes.size()), -1, 0),
            1);
}

void setTime(ASN1_TIME* field, int type, const std::string& text) {
  // Raw: ASN1_TIME_set_string would normalise the text.
  ASSERT_EQ(ASN1_STRING_set(field, text.data(), static_cast<int>(text.size())), 1);
  field->type = type;
}

ossl::UniquePtr<X509> makeCert(const CertSpec& spec) {
  ossl::UniquePtr<X509> x(X509_new());
  X509_set_version(x.get(), spec.version);
  BIGNUM* raw = nullptr;
  BN_hex2bn(&raw, spec.serialHex.c_str());
  BN_set_negative(raw, spec.negativeSerial ? 1 : 0);
  ASN1_INTEGER* serial = BN_to_ASN1_INTEGER(raw, nullptr);
  BN_free(raw);
  X509_set_serialNumber(x.get(), serial);
  ASN1_INTEGER_free(serial);
  setTime(X509_getm_notBefore(x.get()), spec.timeType, spec.notBefore);
  setTime(X509_getm_notAfter(x.get()), spec.timeType, spec.notAfter);
  X509_NAME* subject = X509_get_subject_name(x.get());
  for (const NameEntry& e : spec.subject) addEntry(subject, e);
  X509_NAME* issuer = X509_get_issuer_name(x.get());
  addEntry(issuer, {"2.5.4.6", V_ASN1_PRINTABLESTRING, "JP"});
  addEntry(issuer, {"2.5.4.3", V_ASN1_PRINTABLESTRING, "Test Issuer"});
  X509_set_pubkey(x.get(), sharedKey());
  if (!spec.keyUsage.empty()) {
    X509_EXTENSION* ext = X509V3_EXT_conf_nid(nullptr, nullptr, NID_key_usage, spec.keyUsage.c_str());
    X509_add_ext(x.get(), ext, -1);
    X509_EXTENSION_free(ext);
  }
  X509_sign(x.get(), sharedKey(), EVP_sha256());
  return x;
}

std::string derOf(X509* x) {
  unsigned char* out = nullptr;
  const int n = i2d_X509(x, &out);
  std::string der(reinterpret_cast<char*>(out), static_cast<std::size_t>(n));
  OPENSSL_free(out);
  return der;
}

std::string pemOf(X509* x) {
  ossl::UniquePtr<BIO> mem(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(mem.get(), x);
  char* data = nullptr;
  const long n = BIO_get_mem_data(mem.get(), &data);
  return std::string(data, static_cast<std::size_t>(n));
}

PDFCert loaded(const std::string& bytes, bool der = true) {
  PDFCert cert;
  std::istringstream in(bytes);
  EXPECT_TRUE(cert.loadX509(in, der));
  return cert;
}

// --- the object ---------------------------------------------------------------------

class CertObject : public ::testing::Test {
 protected:
  void SetUp() override {
    first_ = derOf(makeCert({}).get());
    CertSpec other;
    other.serialHex = "2000";
    second_ = derOf(makeCert(other).get());
  }
  std::string first_, second_;
};

TEST_F(CertObject, EmptyObjectGivesNeutralResults) {
  PDFCert cert;
  EXPECT_EQ(cert.getX509() + cert.getdupX509() + cert.getPKey(), 0u);
  EXPECT_EQ(cert.getValid() + cert.getVersion() + cert.getSerial() + cert.getKeyUsage(), 0);
  EXPECT_EQ(cert.getSerialHex() + cert.getNotBefore() + cert.getPublicKey() + cert.getSignAlgorithm(), "");
  EXPECT_FALSE(cert.isWindowsCert());
  EXPECT_FALSE(cert.isValid(nullptr));
  cert.display(nullptr);
  std::vector<std::string> keys{"x"}, values{"y"};
  EXPECT_FALSE(cert.getSubject(keys, values));
  EXPECT_TRUE(keys.empty() && values.empty());
  keys = {"x"};
  values = {"y"};
  EXPECT_FALSE(cert.getIssuer(keys, values));
  EXPECT_TRUE(keys.empty() && values.empty());
  std::string hex = "untouched";
  EXPECT_FALSE(cert.getHashHex(hex));
  EXPECT_EQ(hex, "untouched");
  std::ostringstream out;
  EXPECT_FALSE(cert.saveX509(out, true));
  EXPECT_FALSE(cert.savePkcs12(out, "pw", "name"));
  EXPECT_TRUE(out.str().empty());
}

TEST_F(CertObject, PlatformContextCarriesTheDer) {
  PDFCert cert;
  PDFCertImpl* impl = PDFCertImpl::implOf(cert);
  ASSERT_NE(impl, nullptr);
  TesseraCommon::TSSmartPtr<PDF_Sealmark::PDFCertWinImpl> win(new PDF_Sealmark::PDFCertWinImpl, true);
  EXPECT_FALSE(impl->isA(win->getClassId()));
  EXPECT_FALSE(win->syncWinCert(impl));  // nothing to encode yet
  EXPECT_FALSE(win->hasContext());
  std::istringstream in(first_);
  ASSERT_TRUE(impl->loadX509(in, true));
  ASSERT_TRUE(win->syncWinCert(impl));
  const auto& encoded = win->getContext()->encoded;
  EXPECT_EQ(std::string(encoded.begin(), encoded.end()), first_);
  // A load sets up the context; a failed one leaves none.
  EXPECT_TRUE(loaded(first_).isWindowsCert());
  PDFCert bad;
  std::istringstream rubbish("not a certificate");
  EXPECT_FALSE(bad.loadX509(rubbish, true));
  EXPECT_FALSE(bad.isWindowsCert());
}

TEST_F(CertObject, CopiesShareOneImplementation) {
  PDFCert a = loaded(first_);
  {
    PDFCert b(a);
    // A copy is two reference counts on the same objects: a, b and this probe.
    EXPECT_EQ(PDFCertImpl::implOf(a), PDFCertImpl::implOf(b));
    EXPECT_EQ(PDFCertImpl::implOf(a)->addRef(), 3);
    PDFCertImpl::implOf(a)->release();
    std::istringstream in(second_);
    ASSERT_TRUE(b.loadX509(in, true));
    EXPECT_EQ(a.getSerialHex(), "2000");
  }
  EXPECT_EQ(PDFCertImpl::implOf(a)->addRef(), 2);
  PDFCertImpl::implOf(a)->release();

  PDFCert c(a);
  c = loaded(first_);  // assignment separates them again
  EXPECT_NE(PDFCertImpl::implOf(a), PDFCertImpl::implOf(c));
  EXPECT_EQ(a.getSerialHex() + c.getSerialHex(), "20001000");
  const PDFCert& same = c;
  c = same;  // self-assignment changes nothing
  EXPECT_EQ(c.getSerialHex(), "1000");

  // A copy in a vector outlives the local and keeps its pointer.
  std::vector<PDFCert> certs;
  PDFCert::Handle handle = 0;
  {
    PDFCert local = loaded(first_);
    handle = local.getX509();
    certs.push_back(local);
  }
  ASSERT_EQ(certs[0].getX509(), handle);
  EXPECT_EQ(derOf(reinterpret_cast<X509*>(handle)), first_);
}

TEST_F(CertObject, HandlesVersionAndCheckResult) {
  PDFCert cert = loaded(first_);
  // Borrowing gives the same pointer; each dup an owned copy of its own.
  EXPECT_EQ(cert.getX509(), cert.getX509());
  ossl::UniquePtr<X509> d1(reinterpret_cast<X509*>(cert.getdupX509()));
  ossl::UniquePtr<X509> d2(reinterpret_cast<X509*>(cert.getdupX509()));
  ASSERT_TRUE(d1 && d2);
  EXPECT_NE(d1.get(), d2.get());
  EXPECT_NE(reinterpret_cast<PDFCert::Handle>(d1.get()), cert.getX509());
  EXPECT_EQ(derOf(d1.get()), first_);
  // The version is the raw field.
  EXPECT_EQ(cert.getVersion(), 2);
  CertSpec v1;
  v1.version = X509_VERSION_1;
  EXPECT_EQ(loaded(derOf(makeCert(v1).get())).getVersion(), 0);
  // A load resets the check result.
  PDFCertImpl::implOf(cert)->valid = 2;
  ASSERT_EQ(cert.getValid(), 2);
  std::istringstream in(second_);
  ASSERT_TRUE(cert.loadX509(in, true));
  EXPECT_EQ(cert.getValid(), 0);
}

// --- date texts ---------------------------------------------------------------------

struct StoredTime {
  int type;
  std::string stored;
  std::string text;
};

class TimeTextTest : public ::testing::TestWithParam<StoredTime> {};

TEST_P(TimeTextTest, NotBeforeAndNotAfterGetTheirCentury) {
  CertSpec spec;
  spec.timeType = GetParam().type;
  spec.notBefore = spec.notAfter = GetParam().stored;
  PDFCert cert = loaded(derOf(makeCert(spec).get()));
  EXPECT_EQ(cert.getNotBefore(), GetParam().text);
  EXPECT_EQ(cert.getNotAfter(), GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Centuries, TimeTextTest,
    ::testing::Values(StoredTime{V_ASN1_UTCTIME, "491231235959Z", "20491231235959Z"},
                      StoredTime{V_ASN1_UTCTIME, "500101000000Z", "19500101000000Z"},
                      StoredTime{V_ASN1_UTCTIME, "000101000000Z", "20000101000000Z"},
                      StoredTime{V_ASN1_UTCTIME, "991231235959Z", "19991231235959Z"},
                      // Another form keeps its form behind the year.
                      StoredTime{V_ASN1_UTCTIME, "2403151200+0900", "202403151200+0900"},
                      StoredTime{V_ASN1_GENERALIZEDTIME, "20500101000000Z", "20500101000000Z"},
                      StoredTime{V_ASN1_GENERALIZEDTIME, "19491231235959Z", "19491231235959Z"}));

struct DateText {
  const char* text;
  long long seconds;  // from python3: calendar.timegm(...)
};

class TextToTimeTest : public ::testing::TestWithParam<DateText> {};

TEST_P(TextToTimeTest, ReadsUtcWithZone) {
  EXPECT_EQ(PDF_Sealmark::textToTime(GetParam().text), GetParam().seconds);
}

// 2024-03-15 12:00:00 UTC is 1710504000.
INSTANTIATE_TEST_SUITE_P(
    Zones, TextToTimeTest,
    ::testing::Values(DateText{"20240315120000Z", 1710504000}, DateText{"20240315120000", 1710504000},
                      DateText{"20240315210000+0900", 1710504000},  // nine hours ahead
                      DateText{"20240315103000-0130", 1710504000},  // an hour and a half behind
                      DateText{"20240315210000+09", 1710504000}, DateText{"20240315110000-01", 1710504000},
                      DateText{"202403151200", 1710504000},               // no seconds
                      DateText{"2024031512", 1710504000},                 // no minutes either
                      DateText{"20240315120000-013", 1710504000 + 3780},  // "-" takes the one minute digit
                      DateText{"20240315120000+013", 1710504000 - 3600},  // "+" needs two for minutes
                      DateText{"20240315120000+0", 1710504000}, DateText{"19700101000000Z", 0},
                      DateText{"19600101000000Z", -1}));

TEST(TextToTime, NullIsNoTimeAndShortDateThrows) {
  EXPECT_EQ(PDF_Sealmark::textToTime(nullptr), -1);
  EXPECT_THROW(PDF_Sealmark::textToTime("202403151"), std::out_of_range);
  EXPECT_THROW(PDF_Sealmark::textToTime("2024+0900"), std::out_of_range);
  EXPECT_THROW(PDF_Sealmark::textToTime(""), std::out_of_range);
}

TEST(IsValid, BoundariesOfThePeriod) {
  // Valid from 2024-01-01 00:00:00 up to, not including, 2024-01-31 00:00:00.
  // No time, or one that can't be represented, means now: this one is long over.
  PDFCert cert = loaded(derOf(makeCert({}).get()));
  for (const auto& [when, valid] : {std::pair<const char*, bool>{"20240101000000Z", true}, {"20240131000000Z", false},
                                    {"20240130235959Z", true}, {"20231231235959Z", false},
                                    {"20240101090000+0900", true}, {"20240131090000+0900", false},
                                    {nullptr, false}, {"19600101000000Z", false}}) {
    EXPECT_EQ(cert.isValid(when), valid) << (when ? when : "now");
  }
  EXPECT_THROW(cert.isValid("20240115"), std::out_of_range);

  CertSpec current;
  current.timeType = V_ASN1_GENERALIZEDTIME;
  current.notBefore = "20000101000000Z";
  current.notAfter = "21000101000000Z";
  PDFCert now = loaded(derOf(makeCert(current).get()));
  EXPECT_TRUE(now.isValid(nullptr));
  EXPECT_TRUE(now.isValid("19600101000000Z"));
}

// --- serial numbers -----------------------------------------------------------------

struct Serial {
  std::string magnitude;
  bool negative;
  std::string hex;  // two's complement at the magnitude's width when negative
  long number;      // the magnitude's bytes in 32 bits, sign not applied
};
constexpr long kOverflow = 0x7EADBEEF;  // more than 8 bytes: getSerial throws

class SerialTest : public ::testing::TestWithParam<Serial> {};

TEST_P(SerialTest, HexAndNumber) {
  const Serial& s = GetParam();
  CertSpec spec;
  spec.serialHex = s.magnitude;
  spec.negativeSerial = s.negative;
  const std::string pem = pemOf(makeCert(spec).get());
  sealtest::TempDir dir;
  const std::string file = dir.write("c.pem", sealtest::bytes(pem));
  // openssl reads the serial the table row means.
  ASSERT_EQ(oracle("openssl x509 -noout -serial -in " + shellQuote(file)),
            "serial=" + std::string(s.negative ? "-" : "") + s.magnitude);
  PDFCert cert = loaded(pem, false);
  EXPECT_EQ(cert.getSerialHex(), s.hex);
  if (s.number != kOverflow) {
    EXPECT_EQ(cert.getSerial(), s.number);
    return;
  }
  try {
    cert.getSerial();
    ADD_FAILURE() << "no exception for a serial of " << s.magnitude.size() / 2 << " bytes";
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "Certificate serial number long size overflow.");
  }
}

INSTANTIATE_TEST_SUITE_P(
    Widths, SerialTest,
    ::testing::Values(Serial{"01", false, "01", 1}, Serial{"7FFFFFFF", false, "7FFFFFFF", 0x7FFFFFFF},
                      Serial{"80000000", false, "80000000", -2147483648L},  // comes out negative
                      Serial{"0100000000", false, "0100000000", kOverflow},
                      Serial{"7A1B2C3D4E5F60718293A4B5C6D7E8F901234567", false,  // 20 bytes
                             "7A1B2C3D4E5F60718293A4B5C6D7E8F901234567", kOverflow},
                      Serial{"81", true, "7F", 0x81}, Serial{"01", true, "FF", 1}, Serial{"0100", true, "FF00", 0x100}));

TEST(BytesToHex, TwosComplementCarries) {
  const unsigned char bytes[] = {0x00, 0x00};
  EXPECT_EQ(PDF_Sealmark::bytesToHex(bytes, 2, true), "0000");
  const unsigned char magnitude[] = {0x81};
  EXPECT_EQ(PDF_Sealmark::bytesToHex(magnitude, 1, true), "7F");
  EXPECT_EQ(PDF_Sealmark::bytesToHex(nullptr, 4, false), "");
  EXPECT_EQ(PDF_Sealmark::bytesToHex(magnitude, 0, false), "");
}

// --- names and other fields -----------------------------------------------------------

TEST(CertNames, JapaneseUtf8StringComesOutInCp932AndBmpStringRaw) {
  const std::string org = python("'テスト株式会社'.encode('utf-8')");
  const std::string cn = python("'山田太郎'.encode('utf-8')");
  const std::string bmp = python("'鈴木'.encode('utf-16-be')");
  CertSpec spec;
  spec.subject = {{"2.5.4.6", V_ASN1_PRINTABLESTRING, "JP"},
                  {"2.5.4.10", V_ASN1_UTF8STRING, org},
                  {"2.5.4.3", V_ASN1_UTF8STRING, cn},
                  {"2.5.4.4", V_ASN1_BMPSTRING, bmp},
                  {"1.2.3.4.5", V_ASN1_UTF8STRING, "plain"}};
  PDFCert cert = loaded(derOf(makeCert(spec).get()));
  std::vector<std::string> keys, values;
  ASSERT_TRUE(cert.getSubject(keys, values));
  EXPECT_EQ(keys, (std::vector<std::string>{"2.5.4.6", "2.5.4.10", "2.5.4.3", "2.5.4.4", "1.2.3.4.5"}));
  ASSERT_EQ(values.size(), 5u);
  EXPECT_EQ(values[0], "JP");
  EXPECT_EQ(values[1], python("'テスト株式会社'.encode('cp932')"));
  EXPECT_EQ(values[2], python("'山田太郎'.encode('cp932')"));
  EXPECT_EQ(values[3], bmp);
  EXPECT_EQ(values[4], "plain");

  ASSERT_TRUE(cert.getIssuer(keys, values));
  EXPECT_EQ(keys, (std::vector<std::string>{"2.5.4.6", "2.5.4.3"}));
  EXPECT_EQ(values, (std::vector<std::string>{"JP", "Test Issuer"}));
}

TEST(CertNames, OidNames) {
  PDFCert cert;
  // Names are not identifiers: "CN" is as unknown as an unregistered OID.
  for (const auto& [oid, names] : {std::pair<const char*, const char*>{"2.5.4.3", "CN/commonName"}, {"", "/"},
                                   {"1.2.3.4.5.6.7", "UNDEF/undefined"}, {"CN", "UNDEF/undefined"}}) {
    std::string sn = "x", ln = "y";
    cert.getOidName(oid, sn, ln);
    EXPECT_EQ(sn + "/" + ln, names) << oid;
  }
}

TEST(CodepageText, CachesTheBytesItWasGiven) {
  const std::string sjis = python("'山田'.encode('cp932')");
  PDF_Sealmark::CodepageText text(sjis.c_str(), "CP932");
  EXPECT_EQ(text.getBytes("CP932"), sjis);
  EXPECT_EQ(text.getBytes("UTF-8"), python("'山田'.encode('utf-8')"));
  EXPECT_EQ(text.getBytes("CP932"), sjis);
  text.append(static_cast<UChar>(0x0041));  // the Unicode text changed: converted afresh
  EXPECT_EQ(text.getBytes("CP932"), sjis + "A");
  PDF_Sealmark::CodepageText empty(nullptr, "UTF-8");
  EXPECT_EQ(empty.getBytes("CP932"), "");
}

TEST(CertFields, AgreeWithOpensslText) {
  sealtest::TempDir dir;
  const std::string pem = dir.file("c.pem");
  oracle("openssl req -x509 -newkey rsa:2048 -nodes -sha384 -days 5 -subj /CN=Fields -keyout " +
         shellQuote(dir.file("k.pem")) + " -out " + shellQuote(pem) +
         " -addext keyUsage=critical,digitalSignature,nonRepudiation,keyCertSign 2>/dev/null");
  const auto bytes = sealtest::readFile(pem);
  PDFCert cert = loaded(std::string(bytes.begin(), bytes.end()), false);

  EXPECT_EQ(hashOf(cert), sealtest::sha1Fingerprint(pem));

  const std::string text = oracle("openssl x509 -noout -text -in " + shellQuote(pem));
  EXPECT_NE(text.find("Signature Algorithm: " + cert.getSignAlgorithm() + "\n"), std::string::npos);
  EXPECT_EQ(cert.getSignAlgorithm(), "sha384WithRSAEncryption");
  EXPECT_NE(text.find("Public Key Algorithm: " + cert.getPublicKeyAlgorithm() + "\n"), std::string::npos);

  // subjectPublicKey of an RSA key is the DER RSAPublicKey.
  const std::string rsaPublicKey =
      oracle("openssl x509 -noout -pubkey -in " + shellQuote(pem) +
             " | openssl rsa -pubin -RSAPublicKey_out -outform DER 2>/dev/null"
             " | python3 -c 'import sys; print(sys.stdin.buffer.read().hex().upper())'");
  EXPECT_EQ(cert.getPublicKey(), rsaPublicKey);

  EXPECT_EQ(cert.getKeyUsage(), KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION | KU_KEY_CERT_SIGN);
  EXPECT_EQ(cert.getKeyType(), 0);
  EXPECT_EQ(loaded(derOf(makeCert({}).get())).getKeyUsage(), 0);  // no extension
  CertSpec decipher;
  decipher.keyUsage = "keyAgreement,decipherOnly";
  EXPECT_EQ(loaded(derOf(makeCert(decipher).get())).getKeyUsage(), KU_KEY_AGREEMENT | KU_DECIPHER_ONLY);
}

}  // namespace
