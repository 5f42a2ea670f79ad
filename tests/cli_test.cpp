// The sealmark tool, run as a user runs it, on files signed by PDFSigner;
// and against poppler's pdfsig: for every signature of the shared corpus of
// real signed PDFs and of those files, both tools must agree on whether it is
// intact.  Where they differ on purpose the case is listed with its reason.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "support/mutate.h"

namespace {

using namespace sealtest;

const std::string kYamada = "\xE5\xB1\xB1\xE7\x94\xB0\xE5\xA4\xAA\xE9\x83\x8E";  // 山田太郎

// The directory of the files below, made once.
const TempDir& files() {
  static TempDir dir;
  [[maybe_unused]] static const bool made = [] {
    // good: Signature1 on page 1, then Approval on page 2, a revision each.
    SignOptions onPage2 = options("Approval"), locked = options(), certified = options("Group.B");
    onPage2.page = 2;
    dir.write("good.pdf", sign(sign(input("two-pages.pdf")), onPage2));
    dir.write("tampered.pdf", flip(sign(input("two-pages.pdf")), 10));
    locked.documentPassword = "user";
    dir.write("locked.pdf", sign(input("two-pages-aes256.pdf"), locked));
    dir.write("notes.txt", bytes("hi\n"));
    dir.write("user.txt", bytes("user\n"));
    certified.certify = 2;
    dir.write("certified.pdf", sign(input("fields.pdf"), certified));
    // A signature relabelled as a document time stamp: its /Contents holds
    // no time-stamp token, so it fails and decides the exit code.
    Bytes stamp = sign(input("two-pages.pdf"), options("Stamp"));
    stamp = overwrite(stamp, entry(stamp, "/SubFilter"), "/SubFilter /ETSI.RFC3161");
    dir.write("stamp-only.pdf", flip(stamp, 10));
    dir.write("stamped.pdf", flip(sign(stamp), 10));
    // A certificate with the signer's key, issuer and serial and a Japanese
    // name, after the CA: the signer info names it.
    oracle("openssl req -new -utf8 -key " + pki("signer.key") + " -subj " + shellQuote("/CN=" + kYamada) +
           " | openssl x509 -req -CA " + pki("ca.pem") + " -CAkey " + pki("ca.key") + " -set_serial 2 -out " +
           dir.file("yamada.pem"));
    dir.write("yamada.pdf", editPkcs7(sign(input("two-pages.pdf")), [](PKCS7* p7) {
                setCertificates(p7, {pki("ca.pem"), dir.file("yamada.pem")});
              }));
    return true;
  }();
  return dir;
}

CommandResult inFiles(const std::string& args) {
  return run("cd " + files().path() + " && " + sealmark(args));
}

// What python3 prints for `expression` over the JSON `d` that sealmark
// printed for ARGS; t(KEY...) lists those keys of every signature.
std::string jsonQuery(const std::string& args, const std::string& expression) {
  return run("cd " + files().path() + " && " + sealmark(args) + " | python3 -c " +
             shellQuote("import json,sys\nd=json.load(sys.stdin)\n"
                        "t=lambda *k: [tuple(s[x] for x in k) for s in d['signatures']]\nprint(repr(" +
                        expression + "))"))
      .out;
}

TEST(Cli, JsonKeys) {
  const Bytes good = readFile(files().file("good.pdf"));
  // The unsigned input ends "%%EOF" LF: readers count it as revision 0.
  const std::string base = std::to_string(text(good).find("%%EOF\n") + 6),
                    end1 = std::to_string(text(good).find("%%EOF\r\n") + 7),
                    size = std::to_string(good.size());
  for (const auto& [args, expression, expected] :
       std::vector<std::tuple<std::string, std::string, std::string>>{
           {"verify --json good.pdf", "(d['file'], d['revisions'])", "('good.pdf', 3)"},
           {"verify --json good.pdf",
            "t('field', 'page', 'filter', 'signed', 'kind', 'intact', 'revision', 'covers_whole_document', "
            "'permission', 'signing_time')",
            "[('Signature1', 1, '/Adobe.PPKLite', True, 'signature', True, 1, False, None, "
            "'20240315120000Z'), "
            "('Approval', 2, '/Adobe.PPKLite', True, 'signature', True, 2, True, None, '20240315120000Z')]"},
           {"verify --json certified.pdf", "t('field', 'signed', 'intact', 'revision', 'permission')",
            "[('A', False, None, None, None), ('Group.B', True, True, 1, {'P': 2, 'field_mdp': False}), "
            "('Group.C', False, None, None, None)]"},
           {"verify --json stamped.pdf", "t('field', 'kind', 'intact')",
            "[('Stamp', 'document_timestamp', False), ('Signature1', 'signature', False)]"},
           // The signer is the certificate the signer info names, whatever the order.
           {"verify --json yamada.pdf",
            "[(len(c), i, [a[1] for a in c[i]['subject']], c[i]['serial'], c[i]['sha1']) for c, i in "
            "t('certificates', 'signer')]",
            "[(2, 1, ['" + kYamada + "'], '02', '" + sha1Fingerprint(files().file("yamada.pem")) + "')]"},
           {"revisions --json good.pdf",
            "[(v['revision'], v['end'], v['signed_by']) for v in d['revisions']]",
            "[(0, " + base + ", []), (1, " + end1 + ", ['Signature1']), (2, " + size + ", ['Approval'])]"},
           {"revisions --json good.pdf", "d['size']", size}}) {
    EXPECT_EQ(jsonQuery(args, expression), expected + "\n") << args;
  }
}

TEST(Cli, ExitCodesTablesAndMessages) {
  struct Case {
    std::string args;
    int exitCode;
    std::string out, err;  // found in stdout and stderr
  };
  for (const Case& c : std::vector<Case>{
           {"verify good.pdf", 0, "good.pdf: 3 revisions, 2 signature fields", ""},
           {"verify yamada.pdf", 0, kYamada, ""},
           {"verify tampered.pdf", 1, "  NO  ", ""},
           {"verify stamp-only.pdf", 1, "  NO  ", ""},
           {"verify certified.pdf", 0, "form filling", ""},
           {"verify good.pdf tampered.pdf", 1, "", ""},  // one bad file fails the run
           {"verify notes.txt", 2, "", "sealmark: notes.txt: not a PDF file\n"},
           {"verify absent.pdf", 2, "", "sealmark: absent.pdf: No such file or directory\n"},
           {"verify --password wrong locked.pdf", 2, "", "sealmark: locked.pdf: wrong password\n"},
           {"verify --password user locked.pdf", 0, "", ""},
           // A password from a file's first line, or from stdin, stays out of
           // the process list.
           {"verify --password-file user.txt locked.pdf", 0, "", ""},
           {"revisions --password-file - locked.pdf < user.txt", 0, "2 revisions", ""},
           {"verify --password-file notes.txt locked.pdf", 2, "", "wrong password"},
           {"verify --password-file absent.txt locked.pdf", 2, "", "absent.txt"},
           {"verify good.pdf --extract-signed Nope --output out.pdf", 2, "", "Nope"},
           {"verify good.pdf --extract-signed Signature1", 2, "", "--output"},
           {"revisions good.pdf", 0, "3 revisions", ""},
           {"revisions good.pdf --extract 3 --output out.pdf", 2, "", "no revision"},
           {"revisions good.pdf --extract -1 --output out.pdf", 2, "", "no revision"},
           {"revisions good.pdf --extract 1x --output out.pdf", 2, "", "no revision"},
           {"verify", 2, "", ""},
           {"verify --password", 2, "", ""},
           {"verify --frobnicate x.pdf", 2, "", ""},
           {"frobnicate", 2, "", ""},
           {"", 2, "", ""},
           {"--help", 0, "usage: sealmark", ""},
           {"verify --help", 0, "usage: sealmark verify", ""}}) {
    const auto r = inFiles(c.args);
    EXPECT_EQ(r.exitCode, c.exitCode) << c.args << "\n" << r.out << r.err;
    EXPECT_NE(r.out.find(c.out), std::string::npos) << c.args << "\n" << r.out;
    EXPECT_NE(r.err.find(c.err), std::string::npos) << c.args << "\n" << r.err;
    EXPECT_EQ(r.err.empty(), c.exitCode != 2) << c.args;
  }
}

// Several files at a time: --json gives them in the order of the arguments
// whichever finishes first, --json-lines one line per file as each
// finishes, a directory stands for its *.pdf files, an unreadable file is
// named on stderr and the others go on; on a terminal, stderr shows how far
// the run is.
TEST(Cli, ManyFiles) {
  const std::string sorted = "['./certified.pdf', './good.pdf', './stamp-only.pdf', './stamped.pdf', "
                             "'./tampered.pdf', './yamada.pdf']";
  for (const auto& [args, expression, expected, exitCode] :
       std::vector<std::tuple<std::string, std::string, std::string, int>>{
           {"verify --jobs 3 --json yamada.pdf notes.txt good.pdf tampered.pdf certified.pdf",
            "[f['file'] for f in json.loads(o)]",
            "['yamada.pdf', 'good.pdf', 'tampered.pdf', 'certified.pdf']", 2},
           {"verify --jobs 2 --json notes.txt absent.pdf", "json.loads(o)", "[]", 2},
           {"verify --jobs 2 --json notes.txt", "o", "''", 2},
           {"verify --jobs 1 --json good.pdf", "json.loads(o)['file']", "'good.pdf'", 0},
           {"verify --jobs 2 --json-lines .", "sorted(json.loads(l)['file'] for l in o.splitlines())", sorted, 2},
           {"verify --jobs 4 yamada.pdf tampered.pdf good.pdf",
            "re.findall(r'^(\\S+): \\d+ revisions', o, re.M)", "['yamada.pdf', 'tampered.pdf', 'good.pdf']", 1},
       }) {
    const CommandResult r = run("cd " + files().path() + " && " + sealmark(args) + " > out.txt; echo $?; " +
                                "python3 -c " +
                                shellQuote("import json,re\no=open('out.txt').read()\nprint(repr(" + expression +
                                           "))"));
    EXPECT_EQ(r.out, std::to_string(exitCode) + "\n" + expected + "\n") << args << "\n" << r.err;
  }
  // One message per unreadable file, and the locked file of the directory.
  EXPECT_EQ(inFiles("verify --jobs 1 --json-lines . notes.txt").err,
            "sealmark: ./locked.pdf: password required\nsealmark: notes.txt: not a PDF file\n");
  // script(1) gives the run a terminal for stderr.
  const CommandResult onTerminal =
      run("cd " + files().path() + " && script -qec " + shellQuote(sealmark("verify good.pdf tampered.pdf") +
                                                                   " > /dev/null") + " /dev/null");
  EXPECT_NE(onTerminal.out.find("\r2/2 files, 1 failed\r\n"), std::string::npos) << onTerminal.out;
  EXPECT_EQ(inFiles("verify good.pdf tampered.pdf").err, "");
}

TEST(Cli, ExtractTheSignedRevision) {
  const Bytes whole = readFile(files().file("good.pdf"));
  EXPECT_EQ(inFiles("verify good.pdf --extract-signed Signature1 --output a.pdf").exitCode, 0);
  EXPECT_EQ(inFiles("revisions good.pdf --extract 1 --output b.pdf").exitCode, 0);
  const Bytes signedPart = readFile(files().file("a.pdf"));
  EXPECT_EQ(signedPart,
            Bytes(whole.begin(), whole.begin() + static_cast<long>(text(whole).find("%%EOF\r\n") + 7)));
  EXPECT_EQ(readFile(files().file("b.pdf")), signedPart);
  // The signed revision is a PDF whose one signature covers all of it.
  EXPECT_EQ(jsonQuery("verify --json a.pdf", "t('field', 'intact', 'covers_whole_document')"),
            "[('Signature1', True, True)]\n");
}

// One line "FIELD<tab>VERDICT" per field: V intact, I not intact, U not
// signed, ? no verdict.
std::map<std::string, char> verdicts(const std::string& commandLine) {
  std::map<std::string, char> result;
  std::istringstream lines(run(commandLine).out);
  for (std::string line; std::getline(lines, line);) result[line.substr(0, line.find('\t'))] = line.back();
  return result;
}

// Files or fields where the two tools differ on purpose.  Key: the path
// below the corpus, or "path#field" for one field.
const std::map<std::string, std::string> kDeliberate = {
    {"pyhanko/ed448-shake256-nolen.pdf", "Ed448 with SHAKE256: pdfsig can't check it, we do through EVP"},
    {"pyhanko/extensions-indirect-not-all-paths.pdf#Sig2", "Ed25519: pdfsig can't check it, we do"},
    {"dss/validation/dss-PLAIN-ECDSA/TeleSec_PKS_eIDAS_QES_CA_1-baseline-b.pdf#Signature3",
     "plain (r||s) ECDSA on brainpoolP256r1: pdfsig fails, we verify it (its source project says valid)"},
    {"dss/validation/BadEncodedCMS.pdf",
     "pdfsig calls a /Contents that is no PKCS#7 object unsigned; to us a broken signature is not intact"},
    {"dss/validation/dss-1420/PAdES-BpB-att-SHA256-SHA3_256withRSA.pdf",
     "a valid RSA signature over the SHA-256 attributes: we check the key, not the SHA3 algorithm name"},
    {"dss/validation/pades-unsupported-signature-algorithm.pdf",
     "the signer info names a curve, not an algorithm; the ECDSA value verifies with the certificate's key"},
    {"dss/validation/pades-enveloping-empty-bytes-cms.pdf",
     "content in the PKCS#7 object makes it embedded, and an empty content is no digest of the bytes"},
    {"pyhanko/pdf-sig-with-econtent.pdf",
     "content in the PKCS#7 object makes it embedded, and that content is no digest of the signed bytes"},
    {"dss/validation/pdf-spoofing-attack.pdf",
     "pdfsig sees no signature in Sig2; we read /V of the latest revision, which signs its byte range"},
    {"pyhanko/coverage-anomalies/one-byterange.pdf",
     "/ByteRange holds two numbers, not four: the range is refused before any digest is made"},
    {"dss/validation/encrypted.pdf",
     "pdfsig fails on this encrypted file; the signature is intact (its source project says valid too)"}};

// Compares one file; gives the number of signatures on which a verdict was
// compared.
int compareFile(const std::string& path, const std::string& rel) {
  const auto peer =
      verdicts("pdfsig -nocert " + shellQuote(path) +
               " | awk -F': ' '/Signature Field Name/ {f = $2} /form field is not signed/ "
               "{print f \"\\tU\"} /Signature Validation/ {print f \"\\t\" ($2 == \"Signature is "
               "Valid.\" ? \"V\" : $2 ~ /not yet been verified/ ? \"?\" : \"I\")}'");
  // Nothing, and so N for every field, when sealmark can't open the file.
  const auto ours =
      verdicts(sealmark("verify --json " + shellQuote(path)) +
               " | python3 -c 'import json,sys\nfor s in json.load(sys.stdin)[\"signatures\"]:\n"
               "  print(s[\"field\"], \"VIU\"[0 if s[\"intact\"] else 1 if s[\"signed\"] else 2], "
               "sep=\"\\t\")'");
  int compared = 0;
  for (const auto& [field, verdict] : peer) {
    if (verdict == '?' || kDeliberate.count(rel) || kDeliberate.count(rel + "#" + field)) continue;
    const char mine = ours.empty() ? 'N' : ours.count(field) ? ours.at(field) : '-';
    // Files we refuse to open must be files pdfsig can't vouch for either;
    // a field that is not a signature to us is not a valid one to pdfsig.
    EXPECT_TRUE(mine == verdict || (mine == 'N' && verdict != 'V') || (mine == 'U' && verdict == 'I'))
        << rel << " [" << field << "]: pdfsig " << verdict << ", sealmark " << mine;
    compared += mine != 'N';
  }
  return compared;
}

TEST(Cli, AgreesWithPdfsigOnTheSharedCorpus) {
  const std::vector<std::string> files = listPdfs(SEALMARK_CORPUS_DIR);
  if (files.empty()) GTEST_SKIP() << "no corpus at " << SEALMARK_CORPUS_DIR;
  ASSERT_EQ(run("pdfsig -v").exitCode, 0) << "pdfsig (poppler-utils) is needed for this test";
  int compared = 0;
  for (const auto& rel : files) compared += compareFile(SEALMARK_CORPUS_DIR "/" + rel, rel);
  // The corpus has over a hundred signatures; most must be compared.
  EXPECT_GT(compared, 75);
}

}  // namespace
