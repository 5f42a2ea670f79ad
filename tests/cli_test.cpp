// The sealmark tool, run as a user runs it.
#include <gtest/gtest.h>

#include "pdf_builder.h"
#include "support/test_util.h"

namespace {

using sealtest::run;
using sealtest::sealmark;
using sealtest::shellQuote;

class VerifyCommand : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = new sealtest::TempDir;
    using sealtest::PdfBuilder;
    sealtest::SignatureOptions onPage2;
    onPage2.name = "Approval";
    onPage2.page = 1;
    good_ = dir_->write("good.pdf", PdfBuilder().pages(2).sign().sign(onPage2).build());
    tampered_ = dir_->write("tampered.pdf", PdfBuilder().sign().tamperPageContent().build());
    locked_ = dir_->write("locked.pdf", PdfBuilder().encrypt("user", "owner").sign().build());
    notPdf_ = dir_->write("notes.txt", sealtest::Bytes{'h', 'i', '\n'});
  }
  static void TearDownTestSuite() { delete dir_; }

  static sealtest::TempDir* dir_;
  static std::string good_, tampered_, locked_, notPdf_;
};

sealtest::TempDir* VerifyCommand::dir_ = nullptr;
std::string VerifyCommand::good_, VerifyCommand::tampered_, VerifyCommand::locked_, VerifyCommand::notPdf_;

// Reads JSON with python3 and prints what `expression` (over `d`) gives.
std::string jsonQuery(const std::string& json, const std::string& expression) {
  sealtest::TempDir dir;
  const std::string path = dir.write("out.json", sealtest::Bytes(json.begin(), json.end()));
  return run("python3 -c " + shellQuote("import json,sys\nd=json.load(open(sys.argv[1]))\nprint(repr((" + expression + ")))") +
             " " + shellQuote(path))
      .out;
}

TEST_F(VerifyCommand, JsonForEveryField) {
  const auto r = run(sealmark("verify --json " + shellQuote(good_)));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(jsonQuery(r.out, "d['file'], d['revisions']"), "('" + good_ + "', 2)\n");
  EXPECT_EQ(jsonQuery(r.out,
                      "[(s['field'], s['page'], s['filter'], s['signed'], s['intact'], s['revision'], "
                      "s['covers_whole_document'], s['permission']) for s in d['signatures']]"),
            "[('Signature1', 1, '/Adobe.PPKLite', True, True, 0, False, None), "
            "('Approval', 2, '/Adobe.PPKLite', True, True, 1, True, None)]\n");
}

TEST_F(VerifyCommand, SignerCertificateAndSigningTime) {
  sealtest::CertOptions caOptions;
  caOptions.commonName = "Sealmark Test CA";
  const sealtest::Identity ca = sealtest::makeCa(caOptions);
  sealtest::CertOptions signerOptions;
  signerOptions.commonName = "\xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E";  // 山田太郎
  signerOptions.serial = 0x1234567;
  const sealtest::Identity signer = sealtest::makeSigner(ca, signerOptions);
  sealtest::SignatureOptions o;
  o.signer.identity = &signer;
  o.certificates = std::vector<const X509*>{ca.cert.get(), signer.cert.get()};
  const std::string path = dir_->write("yamada.pdf", sealtest::PdfBuilder().sign(o).build());
  const std::string certPath = dir_->write("yamada.der", signer.certDer());

  const auto r = run(sealmark("verify --json " + shellQuote(path)));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // The signer is the certificate that issued no other, whatever the order;
  // OpenSSL put the signing time in the signed attributes as it signed.
  EXPECT_EQ(jsonQuery(r.out, "(lambda s, c: ([a[1] for a in c['subject'] if a[0] == '2.5.4.3'], c['sha1'], c['serial'], "
                             "len(s['certificates']), abs(__import__('calendar').timegm(__import__('time').strptime("
                             "s['signing_time'], '%Y%m%d%H%M%SZ')) - __import__('time').time()) < 600))"
                             "(d['signatures'][0], d['signatures'][0]['certificates'][d['signatures'][0]['signer']])"),
            "(['\xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E'], '" + sealtest::sha1Fingerprint(certPath, true) +
                "', '01234567', 2, True)\n");
  const auto table = run(sealmark("verify " + shellQuote(path)));
  EXPECT_NE(table.out.find("\xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E"), std::string::npos) << table.out;
}

TEST_F(VerifyCommand, PermissionsAndUnsignedFields) {
  sealtest::SignatureOptions certified;
  certified.extraEntries = "/Reference [<< /TransformMethod /DocMDP /TransformParams << /P 2 /V /1.2 >> >>]";
  sealtest::FieldOptions empty;
  empty.name = "Later";
  const std::string path = dir_->write("certified.pdf", sealtest::PdfBuilder().sign(certified).unsignedField(empty).build());
  const auto r = run(sealmark("verify --json " + shellQuote(path)));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(jsonQuery(r.out, "[(s['field'], s['signed'], s['intact'], s['revision'], s['permission']) "
                             "for s in d['signatures']]"),
            "[('Signature1', True, True, 0, {'P': 2, 'field_mdp': False}), ('Later', False, None, None, None)]\n");
}

TEST_F(VerifyCommand, DocumentTimeStampsGetNoVerdict) {
  // Contents that would fail the signature check: a document time stamp is
  // not judged by it, and doesn't fail the run.
  sealtest::SignatureOptions stamp;
  stamp.name = "DocTimeStamp";
  stamp.subFilter = "ETSI.RFC3161";
  const std::string path =
      dir_->write("stamped.pdf", sealtest::PdfBuilder().sign().sign(stamp).tamperPageContent().build());
  auto r = run(sealmark("verify --json " + shellQuote(path)));
  EXPECT_EQ(r.exitCode, 1) << "the signature over the tampered page still fails";
  EXPECT_EQ(jsonQuery(r.out, "[(s['field'], s['kind'], s['intact']) for s in d['signatures']]"),
            "[('Signature1', 'signature', False), ('DocTimeStamp', 'document_timestamp', None)]\n");
  const std::string alone = dir_->write("stamp-only.pdf", sealtest::PdfBuilder().sign(stamp).tamperPageContent().build());
  r = run(sealmark("verify " + shellQuote(alone)));
  EXPECT_EQ(r.exitCode, 0) << r.out;
  EXPECT_NE(r.out.find("time stamp, not checked"), std::string::npos) << r.out;
}

TEST_F(VerifyCommand, ExtractSignedRevision) {
  const std::string out = dir_->file("approval-signed.pdf");
  auto r = run(sealmark("verify " + shellQuote(good_) + " --extract-signed Signature1 --output " + shellQuote(out)));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const auto whole = sealtest::readFile(good_);
  const auto signedPart = sealtest::readFile(out);
  ASSERT_FALSE(signedPart.empty());
  ASSERT_LT(signedPart.size(), whole.size());
  EXPECT_TRUE(std::equal(signedPart.begin(), signedPart.end(), whole.begin()));
  // The signed revision is a PDF whose one signature covers all of it.
  r = run(sealmark("verify --json " + shellQuote(out)));
  EXPECT_EQ(jsonQuery(r.out, "[(s['field'], s['intact'], s['covers_whole_document']) for s in d['signatures']]"),
            "[('Signature1', True, True)]\n");

  r = run(sealmark("verify " + shellQuote(good_) + " --extract-signed Nope --output " + shellQuote(out)));
  EXPECT_EQ(r.exitCode, 2);
  r = run(sealmark("verify " + shellQuote(good_) + " --extract-signed Signature1"));
  EXPECT_EQ(r.exitCode, 2) << "--output is required";
}

TEST_F(VerifyCommand, Revisions) {
  auto r = run(sealmark("revisions --json " + shellQuote(good_)));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const auto whole = sealtest::readFile(good_);
  EXPECT_EQ(jsonQuery(r.out, "[(v['revision'], v['signed_by']) for v in d['revisions']], d['size']"),
            "([(0, ['Signature1']), (1, ['Approval'])], " + std::to_string(whole.size()) + ")\n");
  const std::string firstEnd = jsonQuery(r.out, "d['revisions'][0]['end']");

  // Revision 0 is exactly the bytes up to and including the first "%%EOF\r\n".
  const std::string out = dir_->file("rev0.pdf");
  r = run(sealmark("revisions " + shellQuote(good_) + " --extract 0 --output " + shellQuote(out)));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const std::string text(whole.begin(), whole.end());
  const std::size_t marker = text.find("%%EOF\r\n");
  ASSERT_NE(marker, std::string::npos);
  EXPECT_EQ(sealtest::readFile(out), sealtest::Bytes(whole.begin(), whole.begin() + static_cast<long>(marker + 7)));
  EXPECT_EQ(firstEnd, std::to_string(marker + 7) + "\n");

  for (const char* bad : {"2", "-1", "x", "1x"}) {
    r = run(sealmark("revisions " + shellQuote(good_) + " --extract " + bad + " --output " + shellQuote(out)));
    EXPECT_EQ(r.exitCode, 2) << bad;
    EXPECT_NE(r.err.find("no revision"), std::string::npos) << r.err;
  }
  r = run(sealmark("revisions " + shellQuote(good_)));
  EXPECT_NE(r.out.find("2 revisions"), std::string::npos) << r.out;
}

TEST_F(VerifyCommand, ExitCodesAndTable) {
  auto r = run(sealmark("verify " + shellQuote(good_)));
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_NE(r.out.find("2 signature fields"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Approval"), std::string::npos) << r.out;
  r = run(sealmark("verify " + shellQuote(tampered_)));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("NO"), std::string::npos) << r.out;
  const std::string absent = dir_->file("absent.pdf");
  struct Case {
    std::string args;
    int exitCode;
    std::string err;  // checked when not empty
  };
  for (const Case& c : {// One bad file among good ones still makes the whole run fail.
                        Case{shellQuote(good_) + " " + shellQuote(tampered_), 1, ""},
                        Case{shellQuote(notPdf_), 2, notPdf_ + ": not a PDF file"},
                        Case{shellQuote(absent), 2, absent + ": No such file or directory"},
                        Case{"--password wrong " + shellQuote(locked_), 2, locked_ + ": wrong password"},
                        Case{"--password user " + shellQuote(locked_), 0, ""}}) {
    r = run(sealmark("verify " + c.args));
    EXPECT_EQ(r.exitCode, c.exitCode) << c.args;
    if (!c.err.empty()) {
      EXPECT_EQ(r.err, "sealmark: " + c.err + "\n");
    }
  }
}

TEST_F(VerifyCommand, UsageErrorsAndHelp) {
  for (const char* args : {"verify", "verify --password", "verify --frobnicate x.pdf", "frobnicate", ""}) {
    const auto r = run(sealmark(args));
    EXPECT_EQ(r.exitCode, 2) << args;
    EXPECT_FALSE(r.err.empty()) << args;
  }
  for (const char* args : {"--help", "verify --help"}) {
    const auto r = run(sealmark(args));
    EXPECT_EQ(r.exitCode, 0) << args;
    EXPECT_NE(r.out.find("usage: sealmark"), std::string::npos) << args;
  }
}

}  // namespace
