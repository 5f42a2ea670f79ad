// sealmark report and the per-revision changes under it: the changes against
// qpdf's own cross-reference listing of the file cut at each revision, the
// page's answer and flags, escaping and bounds on hostile files, and the page
// as headless Chromium renders it.
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "pdfsealmark/PDFRevisionChanges.h"
#include "support/mutate.h"
#include "support/test_util.h"

namespace {

using namespace sealtest;
using Changes = PDF_Sealmark::PDFRevisionChanges;
using Kind = Changes::Kind;

const char kScript[] = "<script>alert(1)</script>";

Bytes corpus(const std::string& name) { return readFile(std::string(SEALMARK_CORPUS_DIR) + "/" + name); }
Bytes signedTwice() { return sign(sign(input("two-pages.pdf")), options("Second"), "second"); }

struct Case {
  const char* name;
  std::function<Bytes()> make;
  int signatures;    // signed fields: one coverage bar each
  int exitCode;      // of sealmark report
  const char* says;  // in the page's one-line answer
  // One object the given revision changed, and whether that revision came
  // after a signature.
  std::size_t revision;
  Kind kind;
  bool replaces;
  int page;
  const char* typeOrName;
  bool flagged;
};

const Case kCases[] = {
    {"SignedTwiceXRefStream",
     [] { return sign(sign(input("two-pages-xref-stream.pdf")), options("Second")); }, 2, 0,
     "2 signatures, both intact; 1 update after the first signature changes form field \xE2\x80\x9CSecond", 2,
     Kind::kFormField, false, 1, "Second", true},
    {"SignedTwice", signedTwice, 2, 0, "no update after the last signature", 2, Kind::kSignatureValue, false,
     0, "/Sig", true},
    {"Tampered", [] { return flip(sign(input("two-pages.pdf")), 400); }, 1, 1, "1 signature, NOT intact", 1,
     Kind::kFormField, false, 1, "Signature1", false},
    {"Escaped", [] { return sign(input("two-pages.pdf"), options(kScript)); }, 1, 0, "1 signature, intact", 1,
     Kind::kFormField, false, 1, kScript, false},
    {"Sneaky", [] { return corpus("pyhanko/form-update-override-appearance-stream-sneaky.pdf"); }, 2, 0,
     "1 update after the first signature changes form field \xE2\x80\x9CSig2\xE2\x80\x9D and replaces an "
     "existing /XObject /Form stream",
     1, Kind::kOther, true, 0, "/XObject", true},
    {"DssAddedPage", [] { return corpus("dss/validation/pdf-signed-added-page.pdf"); }, 1, 0,
     "1 signature, intact; 1 update after the last signature adds page 2", 2, Kind::kPage, false, 2, "/Page",
     true},
};

void PrintTo(const Case& c, std::ostream* out) { *out << c.name; }

class Report : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    pdf = GetParam().make();
    if (pdf.empty()) GTEST_SKIP() << "no corpus at " << SEALMARK_CORPUS_DIR;
    file = dir.write("in.pdf", pdf);
  }
  // The page for the file, after checking the exit code.
  std::string report() {
    auto r = run(sealmark("report " + shellQuote(file) + " --output " + shellQuote(dir.file("r.html"))));
    EXPECT_EQ(r.exitCode, GetParam().exitCode) << r.err;
    return text(readFile(dir.file("r.html")));
  }
  TempDir dir;
  Bytes pdf;
  std::string file;
};

// "num/gen" -> entry, as `qpdf --show-xref` lists the file cut at `end`.
std::map<std::string, std::string> qpdfXref(const TempDir& dir, const Bytes& pdf, std::uint64_t end) {
  const std::string cut = dir.write("cut.pdf", Bytes(pdf.begin(), pdf.begin() + std::ptrdiff_t(end)));
  std::map<std::string, std::string> entries;
  std::istringstream lines(oracle("qpdf --show-xref " + shellQuote(cut)));
  for (std::string line; std::getline(lines, line);) {
    const auto colon = line.find(':');
    if (colon != std::string::npos) entries[line.substr(0, colon)] = line.substr(colon);
  }
  return entries;
}

TEST_P(Report, ChangesAreTheEntriesQpdfListsAnew) {
  Changes::Result result;
  std::string why;
  ASSERT_TRUE(Changes::read(file, "", result, &why)) << why;
  std::map<std::string, std::string> before;
  for (std::size_t i = 0; i < result.revisions.size(); ++i) {
    const Changes::Revision& r = result.revisions[i];
    ASSERT_TRUE(r.compared && r.readable && r.marked) << i << ": " << r.problem;
    EXPECT_EQ(r.base, int(i) - 1);
    const auto now = qpdfXref(dir, pdf, r.end);
    std::set<std::string> expected, got;
    for (const auto& [og, entry] : now) {
      const std::string number = og.substr(0, og.find('/') + 1);
      const auto older = before.lower_bound(number);
      const bool replaces = older != before.end() && older->first.compare(0, number.size(), number) == 0;
      if (!before.count(og) || before[og] != entry) expected.insert(og + (replaces ? " replaced" : " added"));
    }
    for (const Changes::Object& o : r.objects) {
      got.insert(std::to_string(o.number) + "/" + std::to_string(o.generation) +
                 (o.replaces ? " replaced" : " added"));
    }
    EXPECT_EQ(got, expected) << "revision " << i;
    EXPECT_EQ(r.added + r.replaced, expected.size());
    before = now;
  }
  const Case& c = GetParam();
  ASSERT_LT(c.revision, result.revisions.size());
  const auto& objects = result.revisions[c.revision].objects;
  EXPECT_TRUE(std::any_of(objects.begin(), objects.end(),
                          [&](const Changes::Object& o) {
                            return o.kind == c.kind && o.replaces == c.replaces && o.page == c.page &&
                                   (o.kind == Kind::kFormField ? o.name : o.type) == c.typeOrName;
                          }))
      << "revision " << c.revision;
}

TEST_P(Report, PageAnswersFlagsAndEscapes) {
  const std::string html = report();
  const Case& c = GetParam();
  const std::string answer = html.substr(html.find("id=\"answer\">"), 600);
  EXPECT_NE(answer.find(c.says), std::string::npos) << answer;
  const std::string revision = "id=\"revision-" + std::to_string(c.revision) + "\"";
  EXPECT_EQ(html.find("class=\"revision after\" " + revision) != std::string::npos, c.flagged) << revision;
  EXPECT_EQ(html.find("<script"), std::string::npos);
  if (std::string(c.typeOrName) == kScript) {
    EXPECT_NE(html.find("&lt;script&gt;alert(1)&lt;/script&gt;"), std::string::npos);
  }
}

// Loads with nothing on the console, one coverage bar per signature, and
// a screenshot.  The README's picture is made by this command.
TEST_P(Report, RendersInHeadlessChromium) {
  if (run("command -v chromium").exitCode != 0) GTEST_SKIP() << "chromium is not installed";
  report();
  const std::string shot = dir.file("r.png");
  auto r = run(std::string(SEALMARK_SOURCE_DIR) + "/tests/support/render_report.sh " +
               shellQuote(dir.file("r.html")) + " " + shellQuote(shot));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.err.find("CONSOLE"), std::string::npos) << r.err;
  std::size_t bars = 0;
  for (auto at = r.out.find("coverage-bar"); at != std::string::npos; at = r.out.find("coverage-bar", at + 1))
    ++bars;
  EXPECT_EQ(bars, std::size_t(GetParam().signatures));
  EXPECT_NE(r.out.find("class=\"bar timeline\""), std::string::npos);
  EXPECT_EQ(r.out.find("<script"), std::string::npos);
  EXPECT_EQ(text(readFile(shot)).substr(1, 3), "PNG");
}

INSTANTIATE_TEST_SUITE_P(Files, Report, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Thousands of updates: the last one appended again and again, each copy
// pointing at the same cross-reference section, so each is a readable
// revision.  Only a bounded number is compared, the latest ones, and the page
// stays small.
TEST(ReportBounds, ManyRevisionsGiveABoundedPage) {
  TempDir dir;
  Bytes pdf = signedTwice();
  const std::string all = sealtest::text(pdf);
  const std::size_t last = all.rfind("%%EOF", all.size() - 8) + 6;
  const Bytes update(pdf.begin() + std::ptrdiff_t(last), pdf.end());
  for (int i = 0; i < 5000; ++i) pdf.insert(pdf.end(), update.begin(), update.end());
  const std::string file = dir.write("many.pdf", pdf);

  Changes::Result result;
  ASSERT_TRUE(Changes::read(file, "", result, nullptr));
  ASSERT_EQ(result.revisions.size(), 5003u);
  std::size_t compared = 0;
  for (const auto& r : result.revisions) compared += r.compared;
  EXPECT_LE(compared, Changes::Options().maxRevisions);
  EXPECT_TRUE(result.revisions.back().compared && result.revisions.back().readable);
  EXPECT_EQ(result.revisions.back().added + result.revisions.back().replaced, 0u);

  auto r = run(sealmark("report " + file + " --output " + dir.file("r.html")));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  const Bytes html = readFile(dir.file("r.html"));
  EXPECT_LT(html.size(), 200u * 1024);
  EXPECT_NE(sealtest::text(html).find("5,000 updates after the last signature include"), std::string::npos);
}

TEST(ReportBounds, UsageErrors) {
  TempDir dir;
  for (const std::string& args : {std::string("report ") + dir.file("missing.pdf") + " --output x.html",
                                  "report " + dir.write("a.pdf", signedTwice()), std::string("report")}) {
    auto r = run(sealmark(args));
    EXPECT_EQ(r.exitCode, 2) << args;
    EXPECT_EQ(r.err.rfind("sealmark: ", 0), 0u) << r.err;
  }
}

}  // namespace
