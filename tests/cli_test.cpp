// The sealmark tool, run as a user runs it.
#include <gtest/gtest.h>

#include "pdf_builder.h"
#include "support/test_util.h"

namespace {

using sealtest::run;
using sealtest::shellQuote;

std::string sealmark(const std::string& args) { return std::string(SEALMARK_BIN) + " " + args; }

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

TEST_F(VerifyCommand, JsonForEveryField) {
  const auto r = run(sealmark("verify --json " + shellQuote(good_)));
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out, "{\"file\": \"" + good_ +
                       "\", \"signatures\": ["
                       "{\"field\": \"Signature1\", \"page\": 1, \"filter\": \"/Adobe.PPKLite\", \"signed\": true, "
                       "\"intact\": true}, "
                       "{\"field\": \"Approval\", \"page\": 2, \"filter\": \"/Adobe.PPKLite\", \"signed\": true, "
                       "\"intact\": true}]}\n");
}

TEST_F(VerifyCommand, ExitCodes) {
  EXPECT_EQ(run(sealmark("verify " + shellQuote(good_))).exitCode, 0);

  auto r = run(sealmark("verify " + shellQuote(tampered_)));
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_NE(r.out.find("NO"), std::string::npos) << r.out;

  // One bad file among good ones still makes the whole run fail.
  EXPECT_EQ(run(sealmark("verify " + shellQuote(good_) + " " + shellQuote(tampered_))).exitCode, 1);

  r = run(sealmark("verify " + shellQuote(notPdf_)));
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "sealmark: " + notPdf_ + ": not a PDF file\n");

  r = run(sealmark("verify " + shellQuote(dir_->file("absent.pdf"))));
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "sealmark: " + dir_->file("absent.pdf") + ": No such file or directory\n");

  r = run(sealmark("verify --password wrong " + shellQuote(locked_)));
  EXPECT_EQ(r.exitCode, 2);
  EXPECT_EQ(r.err, "sealmark: " + locked_ + ": wrong password\n");
  EXPECT_EQ(run(sealmark("verify --password user " + shellQuote(locked_))).exitCode, 0);
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

TEST_F(VerifyCommand, TableNamesEachField) {
  const auto r = run(sealmark("verify " + shellQuote(good_)));
  EXPECT_NE(r.out.find("2 signature fields"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("Approval"), std::string::npos) << r.out;
}

}  // namespace
