// The example of the README, compiled and run: keep the two the same.
#include <gtest/gtest.h>

#include <sstream>

#include "pdf_builder.h"
#include "support/test_util.h"

// --- README example begins ---
#include <iostream>
#include <pdfsealmark/PDFSealmarkVerify.h>

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
  sealtest::FieldOptions empty;
  empty.name = "Later";
  const auto path = dir.write("a.pdf", sealtest::PdfBuilder().sign().unsignedField(empty).build());
  std::ostringstream out;
  EXPECT_EQ(checkSignatures(path, out), 0);
  EXPECT_EQ(out.str(), "Signature1 (page 1): intact\nLater: not signed\n");
}
