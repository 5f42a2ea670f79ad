// A program outside the project that uses the installed library, built by
// install_test.sh through find_package and through pkg-config.
#include <pdfsealmark/PDFSealmarkVerify.h>

#include <iostream>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::string why;
  auto doc = PDF_Vellum::PDFDocument::open(argv[1], "", &why);
  if (!doc) return 2;
  PDF_Folio::CForm form(doc.get());
  int intact = 0;
  for (PDF_Folio::CSigField* field : form.getSigFields()) {
    PDF_Sealmark::PDFSealmarkVerify v;
    intact += v.parse(field) && v.verify();
  }
  std::cout << intact << " intact\n";
  return 0;
}
