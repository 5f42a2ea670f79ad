// The signer, judged by tools we did not write: pdfsig must call every
// signature valid, qpdf --check must find the file sound, `openssl cms
// -verify` must accept /Contents over the bytes /ByteRange names, `openssl
// ts -verify` the time-stamp tokens; and our own verifier must agree.
#include <gtest/gtest.h>
#include <openssl/cms.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <regex>
#include <string>

#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFSigner.h"
#include "support/test_tsa.h"
#include "support/test_util.h"

namespace {

using PDF_Sealmark::PDFSigner;
using sealtest::Bytes;
using sealtest::shellQuote;
using SubFilter = PDFSigner::SubFilter;
constexpr auto kSha1 = PDFSigner::Digest::kSha1, kSha256 = PDFSigner::Digest::kSha256;
constexpr auto kPkcs7 = SubFilter::kPkcs7Detached, kCades = SubFilter::kCadesDetached;

const std::string& pki() { return sealtest::testPki().path(); }

PDF_Sealmark::PDFCert p12(const std::string& name) {
  std::ifstream in(pki() + "/" + name + ".p12", std::ios::binary);
  PDF_Sealmark::PDFCert cert;
  EXPECT_TRUE(cert.loadPkcs12(in, "test")) << name;
  return cert;
}

std::string data(const std::string& name) { return std::string(SEALMARK_SOURCE_DIR) + "/tests/data/" + name; }

// The last signature's signed bytes and /Contents (DER and its zero
// padding, which OpenSSL's readers leave behind), by the last /ByteRange.
struct Signature {
  Bytes ranges;
  Bytes der;
};
Signature lastSignature(const Bytes& pdf) {
  const std::string text = sealtest::text(pdf);
  static const std::regex kByteRange(R"(/ByteRange\s*\[\s*(\d+)\s+(\d+)\s+(\d+)\s+(\d+))");
  std::smatch m;
  Signature s;
  const std::size_t last = text.rfind("/ByteRange");
  if (last == std::string::npos || !std::regex_search(text.begin() + last, text.end(), m, kByteRange))
    return s;
  const std::size_t a = std::stoul(m[2]), b = std::stoul(m[3]), c = std::stoul(m[4]);
  s.ranges.assign(pdf.begin(), pdf.begin() + a);
  s.ranges.insert(s.ranges.end(), pdf.begin() + b, pdf.begin() + b + c);
  s.der = sealtest::hex(text.substr(a + 1, b - a - 2));
  return s;
}

// The signature-time-stamp token of a CMS object and the value it covers.
bool tokenOf(const Bytes& der, Bytes& token, Bytes& signatureValue) {
  const unsigned char* p = der.data();
  std::unique_ptr<CMS_ContentInfo, decltype(&CMS_ContentInfo_free)> cms(
      d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(der.size())), CMS_ContentInfo_free);
  CMS_SignerInfo* si = cms ? sk_CMS_SignerInfo_value(CMS_get0_SignerInfos(cms.get()), 0) : nullptr;
  const ASN1_STRING* t = si ? static_cast<const ASN1_STRING*>(CMS_unsigned_get0_data_by_OBJ(
                                  si, OBJ_nid2obj(NID_id_smime_aa_timeStampToken), -3, V_ASN1_SEQUENCE))
                            : nullptr;
  if (!t) return false;
  token.assign(ASN1_STRING_get0_data(t), ASN1_STRING_get0_data(t) + ASN1_STRING_length(t));
  const ASN1_OCTET_STRING* v = CMS_SignerInfo_get0_signature(si);
  signatureValue.assign(ASN1_STRING_get0_data(v), ASN1_STRING_get0_data(v) + ASN1_STRING_length(v));
  return true;
}

// What pdfsig, qpdf and our verifier say of every signature of a file.
void expectAllValid(const std::string& path, const std::string& password, std::size_t signatures) {
  const std::string pw = password.empty() ? "" : " -upw " + password;
  const auto pdfsig = sealtest::run("pdfsig" + pw + " " + shellQuote(path));
  EXPECT_EQ(pdfsig.exitCode, 0) << pdfsig.err;
  std::size_t valid = 0;
  for (std::size_t at = 0; (at = pdfsig.out.find("Signature is Valid.", at)) != std::string::npos;)
    ++valid, ++at;
  EXPECT_EQ(valid, signatures) << pdfsig.out;
  const std::size_t last = pdfsig.out.rfind("Signature #");
  EXPECT_NE(pdfsig.out.find("Total document signed", last == std::string::npos ? 0 : last), std::string::npos)
      << pdfsig.out;
  const auto check = sealtest::run("qpdf --check" + (password.empty() ? "" : " --password=" + password) +
                                   " " + shellQuote(path));
  EXPECT_EQ(check.exitCode, 0) << check.out << check.err;

  sealtest::OpenedPdf doc = sealtest::openPdfFile(path, password);
  ASSERT_EQ(doc.fields.size(), signatures) << doc.error;
  for (std::size_t i = 0; i < doc.fields.size(); ++i) {
    PDF_Sealmark::PDFSealmarkVerify v;
    EXPECT_TRUE(v.parse(doc.fields[i]) && v.verify()) << i;
    // The name is an encrypted string in an encrypted file.
    EXPECT_EQ(doc.fields[i]->getName(), "Signature" + std::to_string(i + 1));
  }
}

struct Case {
  const char *name, *input, *signer;
  PDFSigner::Digest digest;
  SubFilter subFilter;
  int certify;
  const char* encryption;  // qpdf --encrypt USER OWNER ... --, or ""
  bool timeStamp;
  int times;  // signatures, one on top of the other
};

class SignTest : public testing::TestWithParam<Case> {};

TEST_P(SignTest, ToolsWeDidNotWriteAcceptEverySignature) {
  const Case& c = GetParam();
  sealtest::TempDir dir;
  std::string input = data(c.input), password;
  if (*c.encryption) {
    password = "USER";
    sealtest::oracle("qpdf --allow-weak-crypto --encrypt USER OWNER " + std::string(c.encryption) + " -- " +
                     input + " " + dir.file("encrypted.pdf"));
    input = dir.file("encrypted.pdf");
  }
  std::unique_ptr<sealtest::TestTsa> tsa(c.timeStamp ? new sealtest::TestTsa : nullptr);
  std::unique_ptr<PDF_Sealmark::PDFStdTimeStamp> client(
      tsa ? new PDF_Sealmark::PDFStdTimeStamp(tsa->url(), "", "", PDF_Sealmark::PDFStdTimeStamp::kSha512)
          : nullptr);
  PDFSigner::Options options;
  options.digest = c.digest;
  options.subFilter = c.subFilter;
  options.certify = c.certify;
  options.documentPassword = password;
  options.reason = "Geprüft";
  options.timeStamp = client.get();
  std::string output;
  for (int i = 1; i <= c.times; ++i) {
    output = dir.file("signed" + std::to_string(i) + ".pdf");
    std::string why;
    ASSERT_TRUE(PDFSigner::signFile(input, output, p12(c.signer), options, &why)) << why;
    const Bytes before = sealtest::readFile(input), after = sealtest::readFile(output);
    ASSERT_GT(after.size(), before.size());
    EXPECT_TRUE(std::equal(before.begin(), before.end(), after.begin())) << "original bytes changed";
    input = output;
  }
  expectAllValid(output, password, static_cast<std::size_t>(c.times));

  const Signature sig = lastSignature(sealtest::readFile(output));
  const std::string ranges = dir.write("ranges.bin", sig.ranges);
  const std::string cms = "openssl cms -verify -binary -inform DER -in " + dir.write("sig.der", sig.der) +
                          " -CAfile " + pki() + "/ca.pem -out " + dir.file("content.bin");
  if (c.subFilter == SubFilter::kPkcs7Sha1) {
    // The signed content is the SHA-1 of the ranges.
    sealtest::oracle("(" + cms + ") 2>&1 && openssl dgst -sha1 -binary " + ranges + " | cmp - " +
                     dir.file("content.bin"));
  } else {
    sealtest::oracle(cms + " -content " + ranges);
  }
  if (c.certify) {
    sealtest::OpenedPdf doc = sealtest::openPdfFile(output, password);
    PDF_Sealmark::PDFSealmarkVerify v;
    PDF_Folio::PL_VerifyDocPerm permission{};
    bool fieldMdp = true;
    ASSERT_TRUE(v.parse(doc.fields.back()) && v.getPermission(permission, fieldMdp));
    EXPECT_EQ(static_cast<int>(permission), c.certify);
  }
  if (c.timeStamp) {
    Bytes token, value;
    ASSERT_TRUE(tokenOf(sig.der, token, value));
    const std::string digest = sealtest::oracle("openssl dgst -sha512 -r " + dir.write("value.bin", value));
    sealtest::oracle("openssl ts -verify -digest " + digest.substr(0, 128) + " -in " +
                     dir.write("token.der", token) + " -token_in -CAfile " + tsa->caFile());
  }
}

const char kClassic[] = "two-pages.pdf";
const char kStream[] = "two-pages-xref-stream.pdf";
const Case kCases[] = {
    {"classic", kClassic, "signer", kSha256, kPkcs7, 0, "", false, 1},
    {"xref_stream", kStream, "signer", kSha256, kPkcs7, 0, "", false, 1},
    {"cades_ec_sha384", kStream, "ec-signer", PDFSigner::Digest::kSha384, kCades, 0, "", false, 1},
    {"pkcs7_sha1", kClassic, "ec-signer", kSha256, SubFilter::kPkcs7Sha1, 0, "", false, 1},
    {"digest_sha1", kClassic, "signer", kSha1, kPkcs7, 0, "", false, 1},
    {"digest_sha512_ec", kClassic, "ec-signer", PDFSigner::Digest::kSha512, kPkcs7, 0, "", false, 1},
    {"certify_p2", kClassic, "signer", kSha256, kCades, 2, "", false, 1},
    {"second_signature", kStream, "signer", kSha256, kPkcs7, 0, "", false, 2},
    {"rc4_128", kClassic, "signer", kSha256, kPkcs7, 0, "128 --use-aes=n", false, 2},
    {"aes_128", kStream, "ec-signer", kSha256, kCades, 0, "128 --use-aes=y", false, 1},
    {"aes_256", kClassic, "signer", kSha256, kPkcs7, 1, "256", false, 1},
    {"signature_time_stamp", kClassic, "signer", kSha256, kCades, 0, "", true, 1},
};
const auto kByName = [](const auto& info) { return std::string(info.param.name); };
INSTANTIATE_TEST_SUITE_P(Signer, SignTest, testing::ValuesIn(kCases), kByName);

// A document time stamp over a signed file: the token covers the ranges,
// the signature below it stays valid.
TEST(DocumentTimeStamp, TokenCoversTheRanges) {
  sealtest::TempDir dir;
  sealtest::TestTsa tsa;
  PDFSigner::Options options;
  std::string why, signedPdf = dir.file("signed.pdf"), stamped = dir.file("stamped.pdf");
  ASSERT_TRUE(PDFSigner::signFile(data(kClassic), signedPdf, p12("signer"), options, &why)) << why;
  const PDF_Sealmark::PDFStdTimeStamp client(tsa.url(), "", "", PDF_Sealmark::PDFStdTimeStamp::kSha1);
  ASSERT_TRUE(PDFSigner::timestampFile(signedPdf, stamped, client, options, &why)) << why;
  const auto pdfsig = sealtest::run("pdfsig " + stamped);
  EXPECT_NE(pdfsig.out.find("Signature is Valid."), std::string::npos) << pdfsig.out;
  // pdfsig doesn't check ETSI.RFC3161 tokens; it must see the whole file covered.
  EXPECT_NE(pdfsig.out.find("Total document signed", pdfsig.out.rfind("Signature #")), std::string::npos);
  EXPECT_EQ(sealtest::run("qpdf --check " + stamped).exitCode, 0);
  const Signature sig = lastSignature(sealtest::readFile(stamped));
  sealtest::oracle("openssl ts -verify -data " + dir.write("ranges.bin", sig.ranges) + " -in " +
                   dir.write("token.der", sig.der) + " -token_in -CAfile " + tsa.caFile());
}

// With the size fixed and the time given, two signings lay out alike.
TEST(Signer, ReservedBytesFixTheLayout) {
  PDFSigner::Options options;
  options.reservedBytes = 6000;
  options.signingTime = "20260102030405Z";
  const Bytes input = sealtest::readFile(data(kClassic));
  Bytes a, b;
  std::string why;
  ASSERT_TRUE(PDFSigner::sign(input, a, p12("signer"), options, &why)) << why;
  ASSERT_TRUE(PDFSigner::sign(input, b, p12("second"), options, &why)) << why;
  const Signature first = lastSignature(a);
  EXPECT_EQ(a.size(), b.size());
  EXPECT_EQ(a.size() - first.ranges.size(), 2 * 6000u + 2);
  EXPECT_NE(sealtest::text(a).find("/M (D:20260102030405"), std::string::npos);
}

struct Failure {
  const char *name, *signer;
  const char* cliArgs;  // the same through sealmark sign; "" when it can't be said there
  const char* why;
  int exitCode;
};

class SignFailure : public testing::TestWithParam<Failure> {};

// Nothing is written, the reason is one line, and sealmark says so.
TEST_P(SignFailure, NothingWritten) {
  const Failure& f = GetParam();
  sealtest::TempDir dir;
  std::string why;
  PDFSigner::Options options;
  std::string input = data(kClassic), name = f.name;
  if (name == "already_signed") {
    ASSERT_TRUE(PDFSigner::signFile(input, dir.file("in.pdf"), p12("signer"), options, &why)) << why;
    input = dir.file("in.pdf");
    options.fieldName = "Signature1";
  } else if (name == "unreadable") {
    input = dir.write("in.pdf", sealtest::bytes("%PDF-1.7\nnot really\n"));
  } else if (name == "wrong_password") {
    input = dir.file("in.pdf");
    sealtest::oracle("qpdf --encrypt USER OWNER 256 -- " + data(kClassic) + " " + input);
    options.documentPassword = "wrong";
  }
  options.page = name == "page_9" ? 9 : 1;
  options.reservedBytes = name == "contents_too_small" ? 100 : 0;
  const PDF_Sealmark::PDFStdTimeStamp nobody("http://127.0.0.1:9/tsa", "", "", 2);
  if (name == "no_token") options.timeStamp = &nobody;
  EXPECT_FALSE(PDFSigner::signFile(input, dir.file("out.pdf"), p12(f.signer), options, &why));
  EXPECT_NE(why.find(f.why), std::string::npos) << why;
  EXPECT_EQ(why.find('\n'), std::string::npos) << why;
  EXPECT_NE(::access(dir.file("out.pdf").c_str(), F_OK), 0);
  if (!*f.cliArgs) return;
  const auto r = sealtest::run(sealtest::sealmark("sign " + input + " --output " + dir.file("out.pdf") +
                                                  " --password test --p12 " + pki() + "/" + f.signer +
                                                  ".p12 " + f.cliArgs));
  EXPECT_EQ(r.exitCode, f.exitCode) << r.err;
  EXPECT_EQ(r.err.rfind("sealmark: ", 0), 0u) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_NE(::access(dir.file("out.pdf").c_str(), F_OK), 0);
}

const Failure kFailures[] = {
    {"wrong_password", "signer", "--doc-password wrong", "wrong password", 2},
    {"no_key", "signer-nokey", "--page 1", "no private key", 2},
    {"already_signed", "signer", "--field Signature1", "field Signature1 is already signed", 2},
    {"unreadable", "signer", "--page 1", "damaged file", 2},
    {"page_9", "signer", "--page 9", "page 9 doesn't exist", 2},
    {"contents_too_small", "signer", "", "more than the 100 reserved", 2},
    {"no_token", "signer", "--timestamp-url http://127.0.0.1:9/tsa", "the time-stamp authority gave no token",
     1},
};
INSTANTIATE_TEST_SUITE_P(Signer, SignFailure, testing::ValuesIn(kFailures), kByName);

}  // namespace
