// The sealmark tool, run as a user runs it, on files signed by PDFSigner.
#include <gtest/gtest.h>

#include "support/mutate.h"

namespace {

using namespace sealtest;

const char kYamada[] = "\xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E";  // 山田太郎

class Cli : public ::testing::Test {
 protected:
  // good: Signature1 on page 1, then Approval on page 2, a revision each.
  static void SetUpTestSuite() {
    dir_ = new TempDir;
    SignOptions onPage2 = options("Approval");
    onPage2.page = 2;
    const Bytes good = sign(sign(input("two-pages.pdf")), onPage2);
    dir_->write("good.pdf", good);
    dir_->write("tampered.pdf", flip(sign(input("two-pages.pdf")), 10));
    SignOptions locked = options();
    locked.documentPassword = "user";
    dir_->write("locked.pdf", sign(input("two-pages-aes256.pdf"), locked));
    dir_->write("notes.txt", bytes("hi\n"));
    SignOptions certified = options("Group.B");
    certified.certify = 2;
    dir_->write("certified.pdf", sign(input("fields.pdf"), certified));
    // A document time stamp whose token would fail as a signature, after a
    // signature that fails: only the signature decides the exit code.
    Bytes stamp = sign(input("two-pages.pdf"), options("Stamp"));
    stamp = overwrite(stamp, entry(stamp, "/SubFilter"), "/SubFilter /ETSI.RFC3161");
    dir_->write("stamp-only.pdf", flip(stamp, 10));
    dir_->write("stamped.pdf", flip(sign(stamp, options()), 10));
    // A certificate with the signer's key and a Japanese name, after the CA.
    oracle("openssl req -new -utf8 -key " + pki("signer.key") + " -subj " +
           shellQuote(std::string("/CN=") + kYamada) + " | openssl x509 -req -CA " + pki("ca.pem") +
           " -CAkey " + pki("ca.key") + " -set_serial 0x1234567 -out " + dir_->file("yamada.pem"));
    dir_->write("yamada.pdf", editPkcs7(sign(input("two-pages.pdf")), [](PKCS7* p7) {
                  setCertificates(p7, {pki("ca.pem"), dir_->file("yamada.pem")});
                }));
  }
  static void TearDownTestSuite() { delete dir_; }
  static std::string file(const std::string& name) { return shellQuote(dir_->file(name)); }
  static TempDir* dir_;
};

TempDir* Cli::dir_ = nullptr;

// What python3 prints for `expression` over `d`, the JSON that sealmark
// printed for ARGS.
std::string jsonQuery(const std::string& args, const std::string& expression) {
  const auto r =
      run(sealmark(args) + " | python3 -c " +
          shellQuote("import json,sys\nd=json.load(sys.stdin)\nprint(repr((" + expression + ")))"));
  return r.out;
}

TEST_F(Cli, JsonKeys) {
  struct Case {
    std::string args, expression, expected;
  };
  const Bytes good = readFile(dir_->file("good.pdf"));
  const std::string firstEnd = std::to_string(text(good).find("%%EOF\r\n") + 7),
                    size = std::to_string(good.size());
  for (const Case& c : std::vector<Case>{
           {"verify --json " + file("good.pdf"),
            "d['file'] == '" + dir_->file("good.pdf") + "', d['revisions']", "(True, 2)"},
           {"verify --json " + file("good.pdf"),
            "[(s['field'], s['page'], s['filter'], s['signed'], s['kind'], s['intact'], s['revision'], "
            "s['covers_whole_document'], s['permission'], s['signing_time']) for s in d['signatures']]",
            "[('Signature1', 1, '/Adobe.PPKLite', True, 'signature', True, 0, False, None, "
            "'20240315120000Z'), "
            "('Approval', 2, '/Adobe.PPKLite', True, 'signature', True, 1, True, None, '20240315120000Z')]"},
           {"verify --json " + file("certified.pdf"),
            "[(s['field'], s['signed'], s['intact'], s['revision'], s['permission']) for s in "
            "d['signatures']]",
            "[('A', False, None, None, None), ('Group.B', True, True, 0, {'P': 2, 'field_mdp': False}), "
            "('Group.C', False, None, None, None)]"},
           {"verify --json " + file("stamped.pdf"),
            "[(s['field'], s['kind'], s['intact']) for s in d['signatures']]",
            "[('Stamp', 'document_timestamp', None), ('Signature1', 'signature', False)]"},
           // The signer is the certificate that issued no other, whatever the order.
           {"verify --json " + file("yamada.pdf"),
            "(lambda s: (len(s['certificates']), s['signer'], [a[1] for a in "
            "s['certificates'][s['signer']]['subject']], "
            "s['certificates'][s['signer']]['serial'], "
            "s['certificates'][s['signer']]['sha1']))(d['signatures'][0])",
            "(2, 1, ['" + std::string(kYamada) + "'], '01234567', '" +
                sha1Fingerprint(dir_->file("yamada.pem")) + "')"},
           {"revisions --json " + file("good.pdf"),
            "[(v['revision'], v['end'], v['signed_by']) for v in d['revisions']]",
            "[(0, " + firstEnd + ", ['Signature1']), (1, " + size + ", ['Approval'])]"},
           {"revisions --json " + file("good.pdf"), "d['size']", size}}) {
    EXPECT_EQ(jsonQuery(c.args, c.expression), c.expected + "\n") << c.args;
  }
}

TEST_F(Cli, ExitCodesTablesAndMessages) {
  struct Case {
    std::string args;
    int exitCode;
    std::string out, err;  // found in stdout and stderr
  };
  const std::string absent = dir_->file("absent.pdf");
  const std::string wrote = dir_->file("out.pdf");
  for (const Case& c : std::vector<Case>{
           {"verify " + file("good.pdf"), 0, "good.pdf: 2 revisions, 2 signature fields", ""},
           {"verify " + file("yamada.pdf"), 0, kYamada, ""},
           {"verify " + file("tampered.pdf"), 1, "  NO  ", ""},
           {"verify " + file("stamp-only.pdf"), 0, "time stamp, not checked", ""},
           {"verify " + file("certified.pdf"), 0, "form filling", ""},
           // One bad file among good ones still makes the whole run fail.
           {"verify " + file("good.pdf") + " " + file("tampered.pdf"), 1, "", ""},
           {"verify " + file("notes.txt"), 2, "",
            "sealmark: " + dir_->file("notes.txt") + ": not a PDF file\n"},
           {"verify " + shellQuote(absent), 2, "", "sealmark: " + absent + ": No such file or directory\n"},
           {"verify --password wrong " + file("locked.pdf"), 2, "",
            "sealmark: " + dir_->file("locked.pdf") + ": wrong password\n"},
           {"verify --password user " + file("locked.pdf"), 0, "", ""},
           {"verify " + file("good.pdf") + " --extract-signed Nope --output " + shellQuote(wrote), 2, "", ""},
           {"verify " + file("good.pdf") + " --extract-signed Signature1", 2, "", ""},
           {"revisions " + file("good.pdf"), 0, "2 revisions", ""},
           {"revisions " + file("good.pdf") + " --extract 2 --output " + shellQuote(wrote), 2, "",
            "no revision"},
           {"revisions " + file("good.pdf") + " --extract -1 --output " + shellQuote(wrote), 2, "",
            "no revision"},
           {"revisions " + file("good.pdf") + " --extract 1x --output " + shellQuote(wrote), 2, "",
            "no revision"},
           {"verify", 2, "", ""},
           {"verify --password", 2, "", ""},
           {"verify --frobnicate x.pdf", 2, "", ""},
           {"frobnicate", 2, "", ""},
           {"", 2, "", ""},
           {"--help", 0, "usage: sealmark", ""},
           {"verify --help", 0, "usage: sealmark verify", ""}}) {
    const auto r = run(sealmark(c.args));
    EXPECT_EQ(r.exitCode, c.exitCode) << c.args << "\n" << r.out << r.err;
    EXPECT_NE(r.out.find(c.out), std::string::npos) << c.args << "\n" << r.out;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << c.args << "\n" << r.err;
    EXPECT_EQ(r.err.empty(), c.exitCode != 2) << c.args;
  }
}

TEST_F(Cli, ExtractTheSignedRevisionAndRevisionZero) {
  const Bytes whole = readFile(dir_->file("good.pdf"));
  const std::size_t firstEnd = text(whole).find("%%EOF\r\n") + 7;
  for (const std::string& args :
       {"verify " + file("good.pdf") + " --extract-signed Signature1 --output " + file("a.pdf"),
        "revisions " + file("good.pdf") + " --extract 0 --output " + file("b.pdf")}) {
    const auto r = run(sealmark(args));
    EXPECT_EQ(r.exitCode, 0) << r.err;
  }
  EXPECT_EQ(readFile(dir_->file("a.pdf")), Bytes(whole.begin(), whole.begin() + static_cast<long>(firstEnd)));
  EXPECT_EQ(readFile(dir_->file("b.pdf")), readFile(dir_->file("a.pdf")));
  // The signed revision is a PDF whose one signature covers all of it.
  EXPECT_EQ(jsonQuery("verify --json " + file("a.pdf"),
                      "[(s['field'], s['intact'], s['covers_whole_document']) for s in d['signatures']]"),
            "[('Signature1', True, True)]\n");
}

}  // namespace
