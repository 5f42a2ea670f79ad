// The time stamp a signature carries over its own value, asked of the
// verifier and shown by `sealmark verify`: a token from a real TSA
// (`openssl ts -reply`) in a file from the product signer, then small edits
// of the token or of the signature.
#include <gtest/gtest.h>
#include <openssl/ts.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "pdfsealmark/PDFDocumentCheck.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFStdTimeStamp.h"
#include "pdfsealmark/openssl_ptr.h"
#include "support/mutate.h"
#include "support/test_tsa.h"

namespace {

using namespace sealtest;
using nlohmann::json;
namespace ossl = PDF_Sealmark::ossl;

PKCS7_SIGNER_INFO* signerInfo(PKCS7* p7, int i) {
  return sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), i);
}

// The token of signer info `i`, changed by `edit` and put back.
void editToken(PKCS7* p7, const std::function<void(PKCS7*)>& edit, int i = 0) {
  ASN1_TYPE* attribute = PKCS7_get_attribute(signerInfo(p7, i), NID_id_smime_aa_timeStampToken);
  ASSERT_NE(attribute, nullptr);
  const unsigned char* p = attribute->value.sequence->data;
  ossl::UniquePtr<PKCS7> token(d2i_PKCS7(nullptr, &p, attribute->value.sequence->length));
  ASSERT_NE(token, nullptr);
  edit(token.get());
  const Bytes encoded = der(token.get());
  ASN1_STRING_set(attribute->value.sequence, encoded.data(), static_cast<int>(encoded.size()));
}
void setImprint(PKCS7* token, const Bytes& digest) {
  ossl::UniquePtr<TS_TST_INFO> info(PKCS7_to_TS_TST_INFO(token));
  TS_MSG_IMPRINT_set_msg(TS_TST_INFO_get_msg_imprint(info.get()), const_cast<unsigned char*>(digest.data()),
                         static_cast<int>(digest.size()));
  unsigned char* out = nullptr;
  const int length = i2d_TS_TST_INFO(info.get(), &out);
  ASN1_OCTET_STRING_set(token->d.sign->contents->d.other->value.octet_string, out, length);
  OPENSSL_free(out);
}

struct Case {
  const char* name;
  std::function<void(PKCS7*)> edit;  // of the signature's PKCS#7 object
  int status;                        // verifyTimeStamp
  const char* type;
  bool timeKnown, certificates;
  const char* column;  // the TIME STAMP column begins so
  int exitCode;        // of sealmark verify: the signature's own verdict
};

const Case kCases[] = {
    {"Good", [](PKCS7*) {}, 0, "SHA-2(512bit)", true, true, "holds 20", 0},
    // A changed signature value: the token is for other bytes, and the
    // signature itself is broken too.
    {"SignatureValueChanged", [](PKCS7* p7) { signerInfo(p7, 0)->enc_digest->data[3] ^= 1; }, 2,
     "SHA-2(512bit)", true, true, "not for this signature", 1},
    {"TokenSignatureDamaged",
     [](PKCS7* p7) { editToken(p7, [](PKCS7* t) { signerInfo(t, 0)->enc_digest->data[5] ^= 1; }); }, 1,
     "SHA-2(512bit)", true, true, "does not hold", 0},
    {"TokenWithoutItsCertificate",
     [](PKCS7* p7) {
       editToken(p7, [](PKCS7* t) {
         sk_X509_pop_free(t->d.sign->cert, X509_free);
         t->d.sign->cert = nullptr;
       });
     },
     1, "SHA-2(512bit)", true, false, "does not hold", 0},
    // Only the imprint's length picks the digest: 16 bytes fall back to
    // SHA-1, whose length differs.
    {"Imprint16Bytes", [](PKCS7* p7) { editToken(p7, [](PKCS7* t) { setImprint(t, Bytes(16, 7)); }); }, 2,
     "UNKNOWN", true, true, "not for this signature", 0},
    // Compared with the first signer info's value, whichever carries it.
    {"CarriedBySecondSignerInfo",
     [](PKCS7* p7) {
       PKCS7_SIGNER_INFO* second = addSigner(p7, "second");
       std::swap(second->unauth_attr, signerInfo(p7, 0)->unauth_attr);
     },
     0, "SHA-2(512bit)", true, true, "holds 20", 0},
    // Not PKCS#7: a closed service's token, and neither library here.
    {"ServiceTokenWithoutLibrary",
     [](PKCS7* p7) {
       ASN1_TYPE* a = PKCS7_get_attribute(signerInfo(p7, 0), NID_id_smime_aa_timeStampToken);
       const unsigned char notPkcs7[] = {0x30, 0x03, 0x02, 0x01, 0x05};
       ASN1_STRING_set(a->value.sequence, notPkcs7, sizeof notPkcs7);
     },
     3, "", false, false, "cannot be checked: no library", 0},
};

class SignatureTimeStamp : public ::testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() {
    TestTsa tsa;
    PDF_Sealmark::PDFStdTimeStamp client(tsa.url(), "", "", PDF_Sealmark::PDFStdTimeStamp::kSha512);
    SignOptions o = options();
    o.timeStamp = &client;
    stamped_ = new Bytes(sign(input("two-pages.pdf"), o));
  }
  static void TearDownTestSuite() { delete stamped_; }
  static Bytes* stamped_;
};
Bytes* SignatureTimeStamp::stamped_ = nullptr;

TEST_P(SignatureTimeStamp, AnsweredByTheVerifierAndShownByTheCli) {
  const Case& c = GetParam();
  const Bytes pdf = editPkcs7(*stamped_, c.edit);
  OpenedPdf opened = openPdf(pdf);
  ASSERT_EQ(opened.fields.size(), 1u);
  PDF_Sealmark::PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.fields[0]));
  EXPECT_TRUE(v.getHasTimeStamp());
  EXPECT_EQ(v.verifyTimeStamp(), c.status);
  EXPECT_EQ(v.getTimeStampType(), c.type);
  const std::string time = v.getTimeStampDate();
  EXPECT_EQ(time.size() == 15 && time.back() == 'Z', c.timeKnown) << time;
  std::ostringstream token;
  EXPECT_TRUE(v.getTimeStampToken(token));
  EXPECT_GE(token.str().size(), 5u);
  // An RFC 3161 token appends; a closed service's token empties first.
  std::vector<PDF_Sealmark::PDFCert> certs(1);
  EXPECT_EQ(v.getTimeStampCerts(certs), c.timeKnown);
  EXPECT_EQ(certs.size() > 1, c.certificates);
  EXPECT_EQ(certs.empty(), !c.timeKnown);
  const std::string tsa = sha1Fingerprint(pki("tsa.pem"));
  EXPECT_EQ(std::any_of(certs.begin(), certs.end(), [&](const auto& cert) { return hashOf(cert) == tsa; }),
            c.certificates);

  TempDir dir;
  const std::string file = dir.write("in.pdf", pdf);
  const CommandResult js = run(sealmark("verify --json " + file));
  EXPECT_EQ(js.exitCode, c.exitCode) << js.err;
  const json t = json::parse(js.out)["signatures"][0]["timestamp"];
  EXPECT_EQ(t["status"], c.status);
  EXPECT_EQ(t["holds"], c.status == 0 ? json(true) : c.status == 3 ? json(nullptr) : json(false));
  EXPECT_EQ(t["source"], c.timeKnown ? json("rfc3161") : json(nullptr));
  EXPECT_EQ(t["time"], c.timeKnown ? json(time) : json(nullptr));
  EXPECT_EQ(t["certificates"].empty(), !c.certificates);
  EXPECT_NE(run(sealmark("verify " + file)).out.find(c.column), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Edits, SignatureTimeStamp, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// A /PFUP.TimeStamp signature's PKCS#7 token is checked only with the PFU
// library at hand; its time is read all the same.
TEST_F(SignatureTimeStamp, PfuFilterNeedsItsLibraryEvenForAPkcs7Token) {
  const Bytes pdf = overwrite(*stamped_, entry(*stamped_, "/Filter") + entry(*stamped_, "/SubFilter"),
                              "/Filter/PFUP.TimeStamp");
  OpenedPdf opened = openPdf(pdf);
  PDF_Sealmark::PDFSealmarkVerify v;
  ASSERT_TRUE(v.parse(opened.fields[0]));
  EXPECT_EQ(v.verifyTimeStamp(), 1);
  EXPECT_EQ(v.getTimeStampDate().size(), 15u);
  PDF_Sealmark::PDFSealmarkVerify unsignedField;
  EXPECT_FALSE(unsignedField.getHasTimeStamp());
  EXPECT_EQ(unsignedField.verifyTimeStamp(), 3);
}

}  // namespace

namespace {

// Tokens of other producers' files: every signature's time stamp holds,
// except one whose certificate set the PKCS#7 decoder refuses.
TEST(SignatureTimeStampCorpus, OtherProducersTokens) {
  using Check = PDF_Sealmark::PDFDocumentCheck;
  const struct {
    const char* file;
    int status;
  } kFiles[] = {{"dss/validation/doc-firmado-T.pdf", 0},
                {"pyhanko/minimal-signed-twice-second-created.pdf", 0},
                {"endesive/test-SHA256_RSA-signed-cms.pdf", 0},
                {"dss/validation/pkcs7_sha1.pdf", 3}};
  for (const auto& f : kFiles) {
    Check::Result result;
    ASSERT_TRUE(Check::check(std::string(SEALMARK_CORPUS_DIR) + "/" + f.file, "", result, nullptr)) << f.file;
    int stamped = 0;
    for (const Check::Signature& s : result.signatures) {
      if (!s.hasTimeStamp) continue;
      ++stamped;
      EXPECT_EQ(s.timeStampStatus, f.status) << f.file << " " << s.field;
      EXPECT_EQ(s.timeStampSource, "rfc3161") << f.file;
      EXPECT_EQ(s.timeStampTime.empty(), f.status == 3) << f.file;
    }
    EXPECT_GE(stamped, 1) << f.file;
  }
}

}  // namespace

namespace {

// Tokens of the closed services in a signature, as `sealmark verify` reads
// them with the stand-in libraries on the library path, one of them, or
// none.  A token that isn't PKCS#7 goes to the PFU library when it loads,
// else to the Amano library; a /PFUP.TimeStamp signature needs the PFU one.
TEST(SignatureTimeStampClosed, ReadByWhicheverLibraryLoads) {
  TempDir dir;
  const std::string standins =
                        std::string(SEALMARK_BIN).substr(0, std::string(SEALMARK_BIN).rfind("/source/")) +
                        "/tests/standins/",
                    amano = standins + "asdtst", pfu = standins + "tslib",
                    env = "SEALMARK_STANDIN_TSA_KEY=" + pki("tsa.key") +
                          " SEALMARK_STANDIN_TSA_CERT=" + pki("tsa.pem");
  Bytes value;
  const Bytes signedPdf = editPkcs7(sign(input("two-pages.pdf")), [&](PKCS7* p7) {
    const ASN1_OCTET_STRING* v = signerInfo(p7, 0)->enc_digest;
    value.assign(v->data, v->data + v->length);
  });
  const std::string valueFile = dir.write("value", value),
                    account = dir.write("account", bytes("asdtst-account\nsecret\n"));
  // A token over the signature value from `sealmark timestamp`.
  auto token = [&](const std::string& lib, const std::string& args, const std::string& format = "") {
    const CommandResult r =
        run(env + format + " LD_LIBRARY_PATH=" + lib + " " +
            sealmark("timestamp " + args + " --output " + dir.file("t") + " " + valueFile));
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    return readFile(dir.file("t"));
  };
  const Bytes amanoToken = token(amano, "--service amano --address tss.example:80 --account " + account +
                                            " --password secret"),
              pfuOwn =
                  token(pfu, "--service pfu --user alice --password pw", " SEALMARK_STANDIN_PFU_FORMAT=own"),
              pfuPkcs7 = token(pfu, "--service pfu --user alice --password pw");
  const struct {
    const char* name;
    const Bytes& token;
    bool pfuFilter;
    std::string libraries;
    int status;
    json source;
  } kRows[] = {
      {"AmanoTokenAmanoLibrary", amanoToken, false, amano, 0, "amano"},
      {"AmanoTokenNoLibrary", amanoToken, false, "", 3, nullptr},
      // The PFU stand-in reads the Amano stand-in's format too.
      {"AmanoTokenBothLibraries", amanoToken, false, amano + ":" + pfu, 0, "pfu"},
      {"PfuTokenPfuLibrary", pfuOwn, false, pfu, 0, "pfu"},
      {"PfuTokenNoLibrary", pfuOwn, false, "", 3, nullptr},
      {"PfuFilterPfuLibrary", pfuOwn, true, pfu, 0, "pfu"},
      {"PfuFilterNoLibrary", pfuOwn, true, "", 1, "pfu"},
      {"PfuFilterPkcs7TokenPfuLibrary", pfuPkcs7, true, pfu, 0, "pfu"},
      {"PfuFilterPkcs7TokenNoLibrary", pfuPkcs7, true, "", 1, "pfu"},
      {"Pkcs7TokenIsRfc3161", pfuPkcs7, false, "", 0, "rfc3161"},
  };
  for (const auto& row : kRows) {
    Bytes pdf = editPkcs7(signedPdf, [&](PKCS7* p7) {
      ASN1_STRING* s = ASN1_STRING_new();
      ASN1_STRING_set(s, row.token.data(), static_cast<int>(row.token.size()));
      PKCS7_add_attribute(signerInfo(p7, 0), NID_id_smime_aa_timeStampToken, V_ASN1_SEQUENCE, s);
    });
    if (row.pfuFilter)
      pdf = overwrite(pdf, entry(pdf, "/Filter") + entry(pdf, "/SubFilter"), "/Filter/PFUP.TimeStamp");
    const std::string file = dir.write("in.pdf", pdf),
                      verify = "LD_LIBRARY_PATH=" + row.libraries + " " + sealmark("verify ");
    const CommandResult js = run(verify + "--json " + file);
    EXPECT_EQ(js.exitCode, row.pfuFilter ? 1 : 0) << row.name << js.err;  // the new /Filter was signed
    const json t = json::parse(js.out)["signatures"][0]["timestamp"];
    EXPECT_EQ(t["status"], row.status) << row.name;
    EXPECT_EQ(t["source"], row.source) << row.name;
    // The time and the certificates come from the token, through a library
    // unless it is PKCS#7.
    const bool readable = row.status == 0 || &row.token == &pfuPkcs7;
    EXPECT_EQ(t["time"].is_string(), readable) << row.name;
    EXPECT_EQ(!t["certificates"].empty(), readable) << row.name;
    const std::string column = row.status == 0   ? "holds 20"
                               : row.status == 1 ? "does not hold"
                                                 : "cannot be checked: no library";
    EXPECT_NE(run(verify + file).out.find(column), std::string::npos) << row.name;
  }
}

}  // namespace
