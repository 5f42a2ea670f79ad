// The one-pass check against PDFSealmarkVerify::verify, field by field, over
// every corpus file and fuzz seed; and its own answers where verify has none.
#include <gtest/gtest.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <map>
#include <string>

#include "pdfsealmark/PDFDocumentCheck.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "support/mutate.h"
#include "support/test_util.h"

namespace {

using Check = PDF_Sealmark::PDFDocumentCheck;

// Where the two answer differently on purpose.  verify says false for a
// document time stamp (a token, not a signature over the digest) and leaves
// unsigned what is not PKCS#7; the check verifies the token and reads
// adbe.x509.rsa_sha1, and calls any other unreadable /Contents not intact.
const std::map<std::string, int> kDeliberate = {
    {"dss/validation/Signature-P-DE_SCI-4.pdf#Signatur_1459438391137", 1},
    {"dss/validation/dss-1959/pades-tst-with-orphan-refs.pdf#DocumentTimeStamp-20191101-155421", 1},
    {"dss/validation/dss-1959/pades-tst-with-orphan-refs.pdf#DocumentTimeStamp-20191101-160031", 1},
    {"dss/validation/pades-5-signatures-and-1-document-timestamp.pdf#Signature6", 1},
    {"dss/validation/timestamped_and_signed.pdf#Signature1", 1},
    {"pyhanko/pades-lta-dss-indirect-arrs-test.pdf#Timestamp-977301ad-bec9-4cae-a0cd-f6a674c6e465", 1},
    {"endesive/pdf-adobe-webcapture-x509.rsa_sha1.pdf#Alice-1-1096825554", 1},
    {"dss/validation/BadEncodedCMS.pdf#Test Signature", 0},
    {"pyhanko/sig-with-ski-sid.pdf#Sig1", 0},  // OpenSSL's PKCS#7 decoder can't read a key-identifier signer
    {"dss/validation/wrong-digest-algo.pdf#Sig_25021452", 0},  // id, so these fail to decode
    {"dss/validation/wrong-digest-algo.pdf#Sig_530649210", 0},
    {"dss/validation/wrong-digest-algo.pdf#Sig_178073924", 0},
};

TEST(DocumentCheck, AgreesWithVerifyOnEveryCorpusField) {
  int compared = 0;
  for (const std::string& name : sealtest::listPdfs(SEALMARK_CORPUS_DIR)) {
    const std::string path = std::string(SEALMARK_CORPUS_DIR) + "/" + name;
    Check::Result result;
    std::string why;
    sealtest::OpenedPdf pdf = sealtest::openPdfFile(path);
    ASSERT_EQ(Check::check(path, "", result, &why), pdf.doc != nullptr) << name << ": " << why;
    if (!pdf.doc) continue;
    ASSERT_EQ(result.signatures.size(), pdf.fields.size()) << name;
    Check::Result oneThread;  // the digests on worker threads or not: the same answers
    ASSERT_TRUE(Check::check(path, "", oneThread, nullptr, 1));
    EXPECT_EQ(oneThread.revisionEnds, result.revisionEnds) << name;
    for (std::size_t i = 0; i < pdf.fields.size(); ++i) {
      PDF_Sealmark::PDFSealmarkVerify v;
      v.parse(pdf.fields[i]);
      const int seed = v.getHasSigned() ? int(v.verify()) : -1;
      const auto deliberate = kDeliberate.find(name + "#" + pdf.fields[i]->getName());
      const int expected = deliberate != kDeliberate.end() ? deliberate->second : seed;
      EXPECT_EQ(oneThread.signatures[i].intact, result.signatures[i].intact) << name;
      EXPECT_EQ(result.signatures[i].intact, expected)
          << name << " " << pdf.fields[i]->getName() << " " << result.signatures[i].problem;
      ++compared;
    }
  }
  EXPECT_GT(compared, 90);
}

// Facts of corpus files that verify can't state: modern algorithms, the
// revision count with LF-terminated markers, coverage and the signer.
TEST(DocumentCheck, ReadsRealWorldFilesAsTheirProducersState) {
  struct Case {
    const char* file;
    std::size_t field;
    int intact, revisions, revision, signer;
    bool whole;
    const char* coverageProblem;
  };
  const Case cases[] = {
      {"dss/validation/Signature-P-DE_SCI-4.pdf", 0, 1, 4, 1, 1, false, "32105 bytes after the second range"},
      {"pyhanko/ed448-shake256-nolen.pdf", 0, 1, 2, 1, 2, true, ""},
      {"pyhanko/extensions-indirect-not-all-paths.pdf", 1, 1, 4, 3, 2, true, ""},
      {"pyhanko/minimal-signed-twice-no-sig-type.pdf", 0, 1, 3, 1, 2, false, "10035 bytes after"},
      {"pyhanko/coverage-anomalies/weird-byterange.pdf", 0, 1, 2, -1, 0, false,
       "starts outside the signature"},
      {"dss/validation/siwa.pdf", 0, 1, 2, 1, 0, false, "ends outside the signature value"},
      {"dss/validation/pades-bes-no-certificates.pdf", 0, 0, 2, 1, -1, true, ""},
      {"dss/validation/pdf-signed-out-of-byteRange.pdf", 0, 0, 2, -1, 0, false, "not the signature value"},
  };
  for (const Case& c : cases) {
    Check::Result result;
    ASSERT_TRUE(Check::check(std::string(SEALMARK_CORPUS_DIR) + "/" + c.file, "", result, nullptr)) << c.file;
    const Check::Signature& s = result.signatures.at(c.field);
    EXPECT_EQ(s.intact, c.intact) << c.file << " " << s.problem;
    EXPECT_EQ(result.revisionEnds.size(), std::size_t(c.revisions)) << c.file;
    EXPECT_EQ(s.revision, c.revision) << c.file;
    EXPECT_EQ(s.signer, c.signer) << c.file;
    EXPECT_EQ(s.coversWholeDocument, c.whole) << c.file;
    EXPECT_NE(s.coverageProblem.find(c.coverageProblem), std::string::npos)
        << c.file << ": " << s.coverageProblem;
  }
}

// A byte changed inside the ranges of a document time stamp breaks it, as
// it breaks a signature.
TEST(DocumentCheck, DocumentTimeStampsHoldUntilAByteChanges) {
  for (const char* file :
       {"pyhanko/pades-lta-dss-indirect-arrs-test.pdf", "dss/validation/timestamped_and_signed.pdf"}) {
    auto bytes = sealtest::readFile(std::string(SEALMARK_CORPUS_DIR) + "/" + file);
    for (bool tamper : {false, true}) {
      Check::Result result;
      auto copy = bytes;
      if (tamper) copy[200] ^= 0x01;  // inside every first range, which starts at 0
      ASSERT_TRUE(Check::checkMemory(copy, "", result, nullptr)) << file;
      int timeStamps = 0;
      for (const Check::Signature& s : result.signatures) {
        if (s.kind != Check::Kind::kDocumentTimeStamp) continue;
        ++timeStamps;
        EXPECT_EQ(s.intact, tamper ? 0 : 1) << file << " " << s.field << " " << s.problem;
      }
      EXPECT_EQ(timeStamps, 1) << file;
    }
  }
}

// A dictionary without /Filter is still read and checked as a signature
// (here it fails: renaming the key changed signed bytes).
TEST(DocumentCheck, ChecksASignatureDictionaryWithoutFilter) {
  sealtest::Bytes pdf = sealtest::sign(sealtest::input("two-pages.pdf"));
  pdf = sealtest::overwrite(pdf, "/Filter", "/Xilter");
  Check::Result result;
  ASSERT_TRUE(Check::checkMemory(pdf, "", result, nullptr));
  const Check::Signature& s = result.signatures.at(0);
  EXPECT_EQ(s.kind, Check::Kind::kSignature);
  ASSERT_GE(s.signer, 0);
  EXPECT_EQ(sealtest::hashOf(s.certificates[s.signer]),
            sealtest::sha1Fingerprint(sealtest::pki("signer.pem")));
  EXPECT_EQ(s.problem, "the signature does not match the signed bytes");
}

// Two signer infos, one in a digest algorithm OpenSSL lacks (whichever
// comes first once the set is re-encoded): not intact, said so, and the
// other's digest is found without comparing against the unknown one.
TEST(DocumentCheck, SignerInfoInAnUnknownDigestAlgorithm) {
  for (int unknown : {0, 1}) {
    const sealtest::Bytes pdf =
        sealtest::editPkcs7(sealtest::sign(sealtest::input("two-pages.pdf")), [&](PKCS7* p7) {
          sealtest::addSigner(p7, "second");
          PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), unknown);
          X509_ALGOR_set0(si->digest_alg, OBJ_txt2obj("1.2.3.4", 1), V_ASN1_NULL, nullptr);
        });
    Check::Result result;
    ASSERT_TRUE(Check::checkMemory(pdf, "", result, nullptr));
    const Check::Signature& s = result.signatures.at(0);
    EXPECT_EQ(s.intact, 0) << unknown;
    EXPECT_EQ(s.problem.rfind("unknown digest algorithm in signer info ", 0), 0u) << s.problem;
  }
}

// A file of many chunks with three signatures: digests shared out on
// threads give the answers of one thread, and a byte changed in the middle
// breaks exactly the signatures that cover it.
TEST(DocumentCheck, SignaturesOfALargeFileOnThreads) {
  sealtest::TempDir dir;
  sealtest::Bytes blob(6u << 20);
  std::uint64_t x = 88172645463325252u;  // xorshift: bytes that don't compress
  for (unsigned char& b : blob) b = static_cast<unsigned char>((x ^= x << 13, x ^= x >> 7, x ^= x << 17));
  sealtest::oracle("qpdf " + std::string(SEALMARK_SOURCE_DIR) +
                   "/tests/data/two-pages.pdf --add-attachment " + dir.write("blob.bin", blob) + " -- " +
                   dir.file("big.pdf"));
  sealtest::Bytes pdf = sealtest::readFile(dir.file("big.pdf"));
  const std::size_t firstEnd = pdf.size();
  std::size_t bEnd = 0;
  for (const char* field : {"A", "B", "C"}) {
    bEnd = pdf.size();
    pdf = sealtest::sign(pdf, sealtest::options(field));
  }
  for (std::size_t flipAt : {std::size_t(0), firstEnd / 2, bEnd + 50}) {
    const sealtest::Bytes file = flipAt ? sealtest::flip(pdf, flipAt) : pdf;
    Check::Result threads, one;
    ASSERT_TRUE(Check::checkMemory(file, "", threads, nullptr, 2));
    ASSERT_TRUE(Check::checkMemory(file, "", one, nullptr, 1));
    EXPECT_EQ(threads.revisionEnds, one.revisionEnds);
    EXPECT_EQ(threads.revisionEnds.size(), 4u);
    ASSERT_EQ(threads.signatures.size(), 3u);
    for (std::size_t s = 0; s < 3; ++s) {
      // The last flip lands in C's update, which only C covers.
      const bool broken = flipAt && (flipAt < firstEnd || s == 2);
      EXPECT_EQ(threads.signatures[s].intact, broken ? 0 : 1) << flipAt << " " << s;
      EXPECT_EQ(one.signatures[s].intact, threads.signatures[s].intact) << flipAt << " " << s;
    }
  }
}

}  // namespace
