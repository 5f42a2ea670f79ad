// Helpers shared by the library's tests.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "pdfsealmark/outside/PDFFolio.h"
#include "pdfsealmark/outside/PDFVellum.h"

namespace sealtest {

// An opened document with its signature fields.
struct OpenedPdf {
  std::unique_ptr<PDF_Vellum::PDFDocument> doc;
  std::unique_ptr<PDF_Folio::CForm> form;
  std::vector<PDF_Folio::CSigField*> fields;
  std::string error;

  PDF_Folio::CSigField* field(const std::string& name) const;
};

OpenedPdf openPdf(std::vector<unsigned char> bytes, const std::string& password = "");
OpenedPdf openPdfFile(const std::string& path, const std::string& password = "");

struct CommandResult {
  int exitCode = -1;
  std::string out;  // stdout
  std::string err;  // stderr
};
// Runs a shell command line and collects its output.
CommandResult run(const std::string& commandLine);
std::string shellQuote(const std::string& s);

// A directory removed with everything in it when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string write(const std::string& name, const std::vector<unsigned char>& bytes) const;

 private:
  std::string path_;
};

std::vector<unsigned char> readFile(const std::string& path);

}  // namespace sealtest
