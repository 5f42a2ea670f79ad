// The example of the README, compiled and run: keep the two the same.
#include <gtest/gtest.h>

#include <sstream>

#include "support/mutate.h"

// --- README example begins ---
#include <pdfsealmark/PDFSealmarkVerify.h>

#include <iostream>

int checkSignatures(const std::string& path, std::ostream& out) {
  std::string why;
  auto doc = PDF_Vellum::PDFDocument::open(path, /*password=*/"", &why);
  if (!doc) {
    std::cerr << path << ": " << why << "\n";
    return 2;
  }
  int failures = 0;
  PDF_Folio::CForm form(doc.get());
  for (PDF_Folio::CSigField* field : form.getSigFields()) {
    PDF_Sealmark::PDFSealmarkVerify sig;
    sig.parse(field);
    if (!sig.getHasSigned()) {
      out << field->getName() << ": not signed\n";
    } else if (sig.verify()) {
      out << field->getName() << " (page " << sig.getPageNum() << "): intact\n";
    } else {
      out << field->getName() << ": NOT intact\n";
      ++failures;
    }
  }
  return failures ? 1 : 0;
}
// --- README example ends ---

TEST(ReadmeExample, Runs) {
  sealtest::TempDir dir;
  const auto path =
      dir.write("a.pdf", sealtest::sign(sealtest::input("fields.pdf"), sealtest::options("Group.B")));
  std::ostringstream out;
  EXPECT_EQ(checkSignatures(path, out), 0);
  EXPECT_EQ(out.str(), "A: not signed\nGroup.B (page 2): intact\nGroup.C: not signed\n");
  const auto tampered = dir.write("b.pdf", sealtest::flip(sealtest::readFile(path), 10));
  EXPECT_EQ(checkSignatures(tampered, out), 1);
  EXPECT_EQ(checkSignatures(dir.file("missing.pdf"), out), 2);
}
