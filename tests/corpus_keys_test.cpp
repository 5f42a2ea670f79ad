// sealmark verify --json over the shared corpus of real signed PDFs, against
// an independent reading of the same bytes (tests/support/pdf_oracle.py: a
// regular-expression scan for markers and byte ranges, and the signing time
// as `openssl cms -print` shows it).
#include <gtest/gtest.h>


#include <map>
#include <sstream>
#include <string>

#include "support/test_util.h"

namespace {

using sealtest::run;
using sealtest::shellQuote;

// For every signed field, the comparison of our keys with the oracle's
// entry for the byte range that ends where ours does.  Prints one line per
// compared property: "ok KEY" or "MISMATCH ...".
const char kCompare[] = R"PY(
import json, sys
ours = json.load(open(sys.argv[1]))
oracle = json.load(open(sys.argv[2]))
print('ok revisions' if ours['revisions'] == len(oracle['eof_ends'])
      else 'MISMATCH revisions %s %s' % (ours['revisions'], len(oracle['eof_ends'])))
for s in ours['signatures']:
    if not s['signed'] or s['byte_range'] is None:
        continue
    # The latest dictionary in the file with the same byte range.
    candidates = [o for o in oracle['signatures'] if o['byte_range'] == s['byte_range']]
    if not candidates:
        print('MISMATCH %s: no /ByteRange %r in the file' % (s['field'], s['byte_range']))
        continue
    o = candidates[-1]
    for key in ('revision', 'covers_whole_document'):
        print('ok ' + key if s[key] == o[key] else 'MISMATCH %s %s: %r %r' % (s['field'], key, s[key], o[key]))
    if o['signing_time'] is not None:
        print('ok signing_time' if s['signing_time'] == o['signing_time']
              else 'MISMATCH %s signing_time: %r %r' % (s['field'], s['signing_time'], o['signing_time']))
    if o['P'] is not None:
        p = s['permission'] and s['permission']['P']
        print('ok P' if p == o['P'] else 'MISMATCH %s P: %r %r' % (s['field'], p, o['P']))
)PY";

TEST(CorpusKeys, RevisionsCoverageSigningTimeAndPermissionAgreeWithAnIndependentReading) {
  std::vector<std::string> files;
  for (const std::string& rel : sealtest::listPdfs(SEALMARK_CORPUS_DIR)) {
    files.push_back(std::string(SEALMARK_CORPUS_DIR) + "/" + rel);
  }
  if (files.empty()) GTEST_SKIP() << "no corpus at " << SEALMARK_CORPUS_DIR;
  sealtest::TempDir dir;
  const std::string script = dir.write("compare.py", std::vector<unsigned char>(kCompare, kCompare + sizeof kCompare - 1));
  const std::string oracle = std::string(SEALMARK_SOURCE_DIR) + "/tests/support/pdf_oracle.py";
  std::map<std::string, int> compared;
  for (const std::string& file : files) {
    const auto ours = run(std::string(SEALMARK_BIN) + " verify --json " + shellQuote(file) + " > " +
                          shellQuote(dir.file("ours.json")));
    if (ours.exitCode == 2) continue;  // not opened: nothing to compare
    ASSERT_EQ(run("python3 " + shellQuote(oracle) + " " + shellQuote(file) + " > " + shellQuote(dir.file("oracle.json")))
                  .exitCode,
              0)
        << file;
    const auto result =
        run("python3 " + shellQuote(script) + " " + shellQuote(dir.file("ours.json")) + " " + shellQuote(dir.file("oracle.json")));
    ASSERT_EQ(result.exitCode, 0) << file << ": " << result.err;
    std::istringstream lines(result.out);
    std::string line;
    while (std::getline(lines, line)) {
      if (line.rfind("ok ", 0) == 0) {
        ++compared[line.substr(3)];
      } else {
        ADD_FAILURE() << file << ": " << line;
      }
    }
  }
  // Every key was compared on many real files.
  EXPECT_GE(compared["revisions"], 60);
  EXPECT_GE(compared["revision"], 60);
  EXPECT_GE(compared["covers_whole_document"], 60);
  EXPECT_GE(compared["signing_time"], 10);
  EXPECT_GE(compared["P"], 1);
}

}  // namespace
