// sealmark against poppler's pdfsig: for every signature of the shared corpus
// of real signed PDFs, and of files signed by PDFSigner and edited, both tools
// must agree on whether it is intact.  Where they differ on purpose the case is
// listed below with its reason.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <sstream>

#include "support/mutate.h"

namespace {

using sealtest::run;
using sealtest::shellQuote;

// pdfsig's verdict on one field.
enum class Peer { Valid, Invalid, NotSigned, NoVerdict };

std::map<std::string, Peer> pdfsigVerdicts(const std::string& file) {
  const auto r = run("pdfsig -nocert " + shellQuote(file));
  std::map<std::string, Peer> result;
  std::istringstream lines(r.out);
  std::string line, field;
  const std::string kName = "  - Signature Field Name: ", kValidation = "  - Signature Validation: ";
  while (std::getline(lines, line)) {
    if (line.rfind(kName, 0) == 0) {
      field = line.substr(kName.size());
    } else if (line.find("The signature form field is not signed") != std::string::npos) {
      result[field] = Peer::NotSigned;
    } else if (line.rfind(kValidation, 0) == 0) {
      const std::string v = line.substr(kValidation.size());
      result[field] = v == "Signature is Valid."                             ? Peer::Valid
                      : v.find("not yet been verified") != std::string::npos ? Peer::NoVerdict
                                                                             : Peer::Invalid;
    }
  }
  return result;
}

struct Ours {
  bool isSigned = false;
  bool intact = false;
};

// Runs sealmark verify --json and reads it back with python's json module.
bool sealmarkVerdicts(const std::string& file, std::map<std::string, Ours>& out) {
  const auto r = run(std::string(SEALMARK_BIN) + " verify --json " + shellQuote(file) +
                     " | python3 -c 'import json,sys\n"
                     "for s in json.load(sys.stdin)[\"signatures\"]:\n"
                     "  print(s[\"field\"], s[\"signed\"], s[\"intact\"] is True, sep=\"\\t\")'");
  if (r.exitCode != 0) return false;
  std::istringstream lines(r.out);
  std::string line;
  while (std::getline(lines, line)) {
    const auto t1 = line.find('\t'), t2 = line.rfind('\t');
    out[line.substr(0, t1)] = Ours{line.substr(t1 + 1, t2 - t1 - 1) == "True", line.substr(t2 + 1) == "True"};
  }
  return true;
}

// Files or fields where the two tools differ on purpose.  Key: the path
// below the corpus, or "path#field" for one field.
const std::map<std::string, std::string> kDeliberate = {
    {"dss/validation/Signature-P-DE_SCI-4.pdf",
     "RSASSA-PSS: OpenSSL's PKCS#7 signer-info check uses PKCS#1 v1.5 padding, so PSS signatures fail here"},
    {"dss/validation/dss-1420/PAdES-BpB-att-SHA256-SHA3_256withRSA.pdf",
     "the signature value is a valid RSA signature over the SHA-256 attributes; we check the key, not the "
     "mismatching SHA3 signature-algorithm identifier"},
    {"dss/validation/pades-unsupported-signature-algorithm.pdf",
     "the signer info names a curve instead of a signature algorithm; the ECDSA value verifies with the "
     "certificate's key, which is all we check"},
    {"dss/validation/pades-enveloping-empty-bytes-cms.pdf",
     "a PKCS#7 object with content is an embedded signature: its content must be the digest of the signed "
     "bytes, and an empty content is not"},
    {"pyhanko/pdf-sig-with-econtent.pdf",
     "content inside the PKCS#7 object makes it embedded, and that content is not the digest of the "
     "signed bytes"},
    {"dss/validation/pdf-spoofing-attack.pdf",
     "pdfsig sees no signature in Sig2; we read the field's /V in the latest revision, whose PKCS#7 "
     "object does sign its byte range (the spoofed dictionary is a question for revision analysis)"},
    {"pyhanko/coverage-anomalies/one-byterange.pdf",
     "/ByteRange holds two numbers, not four: the range is refused before any digest is made"},
    {"dss/validation/encrypted.pdf",
     "pdfsig fails on this encrypted file; the signature is intact (the source project also says valid)"},
};

bool isDeliberate(const std::string& rel, const std::string& field) {
  return kDeliberate.count(rel) || kDeliberate.count(rel + "#" + field);
}

// Compares one file; gives the number of signatures on which a verdict was
// compared.
int compareFile(const std::string& path, const std::string& rel) {
  const auto peer = pdfsigVerdicts(path);
  std::map<std::string, Ours> ours;
  if (!sealmarkVerdicts(path, ours)) {
    // Files we refuse to open must be files pdfsig can't vouch for either.
    for (const auto& [field, verdict] : peer) {
      EXPECT_NE(verdict, Peer::Valid) << rel << ": sealmark could not open a file pdfsig calls valid";
    }
    return 0;
  }
  int compared = 0;
  for (const auto& [field, verdict] : peer) {
    if (verdict == Peer::NoVerdict || isDeliberate(rel, field)) continue;
    auto it = ours.find(field);
    if (it == ours.end()) {
      ADD_FAILURE() << rel << ": pdfsig lists field '" << field << "' that sealmark does not";
      continue;
    }
    ++compared;
    const Ours& o = it->second;
    switch (verdict) {
      case Peer::Valid:
        EXPECT_TRUE(o.isSigned && o.intact) << rel << " [" << field << "]: pdfsig says valid";
        break;
      case Peer::Invalid:
        EXPECT_FALSE(o.isSigned && o.intact) << rel << " [" << field << "]: pdfsig says not valid";
        break;
      case Peer::NotSigned:
        EXPECT_FALSE(o.isSigned) << rel << " [" << field << "]: pdfsig says not signed";
        break;
      case Peer::NoVerdict:
        break;
    }
  }
  return compared;
}

TEST(PdfsigPeer, AgreesOnTheSharedCorpus) {
  const std::string corpus = SEALMARK_CORPUS_DIR;
  const std::vector<std::string> files = sealtest::listPdfs(corpus);
  if (files.empty()) GTEST_SKIP() << "no corpus at " << corpus;
  ASSERT_EQ(run("pdfsig -v").exitCode, 0) << "pdfsig (poppler-utils) is needed for this test";
  int compared = 0;
  for (const auto& rel : files) compared += compareFile(corpus + "/" + rel, rel);
  // The corpus has over a hundred signatures; most must be compared.
  EXPECT_GT(compared, 80);
}

TEST(PdfsigPeer, AgreesOnSignedAndEditedFiles) {
  ASSERT_EQ(run("pdfsig -v").exitCode, 0) << "pdfsig (poppler-utils) is needed for this test";
  using D = PDF_Sealmark::PDFSigner::Digest;
  std::vector<std::pair<std::string, sealtest::Bytes>> cases;
  const sealtest::Bytes in = sealtest::input("two-pages.pdf");
  for (auto [name, digest] :
       {std::pair<const char*, D>{"sha1", D::kSha1}, {"sha256", D::kSha256}, {"sha512", D::kSha512}}) {
    sealtest::SignOptions o = sealtest::options();
    o.digest = digest;
    cases.emplace_back(name, sealtest::sign(in, o));
  }
  sealtest::SignOptions embedded = sealtest::options();
  embedded.subFilter = PDF_Sealmark::PDFSigner::SubFilter::kPkcs7Sha1;
  cases.emplace_back("embedded", sealtest::sign(in, embedded));
  cases.emplace_back(
      "ec", sealtest::sign(sealtest::input("two-pages-xref-stream.pdf"), sealtest::options(), "ec-signer"));
  cases.emplace_back("tampered", sealtest::flip(sealtest::sign(in), 10));
  cases.emplace_back("another-key",
                     sealtest::editPkcs7(sealtest::sign(in, sealtest::options(), "second"), [](PKCS7* p7) {
                       sealtest::setCertificates(p7, {sealtest::pki("signer.pem")});
                     }));
  cases.emplace_back("two-signatures", sealtest::sign(sealtest::sign(in), sealtest::options("Second")));
  cases.emplace_back("unsigned-fields",
                     sealtest::sign(sealtest::input("fields.pdf"), sealtest::options("A")));
  sealtest::TempDir dir;
  int compared = 0;
  for (const auto& [name, bytes] : cases) compared += compareFile(dir.write(name + ".pdf", bytes), name);
  EXPECT_GE(compared, 12);
}

}  // namespace
