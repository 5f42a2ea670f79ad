// Helpers shared by the library's tests.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/outside/PDFFolio.h"
#include "pdfsealmark/outside/PDFVellum.h"

namespace sealtest {

// An opened document with its signature fields.
struct OpenedPdf {
  std::unique_ptr<PDF_Vellum::PDFDocument> doc;
  std::unique_ptr<PDF_Folio::CForm> form;
  std::vector<PDF_Folio::CSigField*> fields;
  std::string error;

  PDF_Folio::CSigField* field(const std::string& name) const {
    auto it = std::find_if(fields.begin(), fields.end(), [&](auto* f) { return f->getName() == name; });
    return it == fields.end() ? nullptr : *it;
  }
};

OpenedPdf openPdf(std::vector<unsigned char> bytes, const std::string& password = "");
OpenedPdf openPdfFile(const std::string& path, const std::string& password = "");

struct CommandResult {
  int exitCode = -1;
  std::string out, err;  // stdout, stderr
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

// Every .pdf below dir, as paths relative to it, sorted; empty when dir
// doesn't exist.
std::vector<std::string> listPdfs(const std::string& dir);

using Bytes = std::vector<unsigned char>;
inline Bytes bytes(const std::string& s) { return Bytes(s.begin(), s.end()); }
inline std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }
// Hex digits to bytes; blanks between byte pairs are skipped.
Bytes hex(const std::string& digits);

// The sealmark tool's command line with these arguments.
std::string sealmark(const std::string& args);
// stdout of a command that must succeed, without its trailing line ends.
std::string oracle(const std::string& commandLine);
// What python3 writes for the bytes `expression` gives.
std::string python(const std::string& expression);
// SHA-1 fingerprint of a certificate file, as `openssl x509` prints it
// (upper-case hex, colons taken out).
std::string sha1Fingerprint(const std::string& certFile, bool der = false);
// The fingerprint PDFCert gives, "" when it has none.
std::string hashOf(const PDF_Sealmark::PDFCert& cert);

}  // namespace sealtest
