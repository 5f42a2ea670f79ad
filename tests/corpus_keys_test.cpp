// sealmark verify --json over the shared corpus of real signed PDFs, against
// an independent reading of the same bytes (tests/support/pdf_oracle.py,
// which prints what differs).
#include <gtest/gtest.h>

#include "support/test_util.h"

TEST(CorpusKeys, RevisionsCoverageSigningTimeAndPermissionAgreeWithAnIndependentReading) {
  if (sealtest::listPdfs(SEALMARK_CORPUS_DIR).empty()) GTEST_SKIP() << "no corpus at " << SEALMARK_CORPUS_DIR;
  const auto r = sealtest::run(
      "python3 " + sealtest::shellQuote(SEALMARK_SOURCE_DIR "/tests/support/pdf_oracle.py") + " " +
      sealtest::shellQuote(SEALMARK_BIN) + " " + sealtest::shellQuote(SEALMARK_CORPUS_DIR));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "");
}
