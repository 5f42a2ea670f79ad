#include "support/test_util.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace sealtest {

OpenedPdf openPdf(std::vector<unsigned char> bytes, const std::string& password) {
  OpenedPdf r;
  r.doc = PDF_Vellum::PDFDocument::openMemory(std::move(bytes), password, &r.error);
  if (r.doc) {
    r.form = std::make_unique<PDF_Folio::CForm>(r.doc.get());
    r.fields = r.form->getSigFields();
  }
  return r;
}

OpenedPdf openPdfFile(const std::string& path, const std::string& password) {
  return openPdf(readFile(path), password);
}

std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

CommandResult run(const std::string& commandLine) {
  TempDir dir;
  CommandResult r;
  FILE* pipe = ::popen((commandLine + " 2>" + shellQuote(dir.file("stderr"))).c_str(), "r");
  if (!pipe) throw std::runtime_error("popen failed");
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;) r.out.append(buf, n);
  const int status = ::pclose(pipe);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  r.err = text(readFile(dir.file("stderr")));
  return r;
}

TempDir::TempDir() {
  char tmpl[] = "/tmp/sealmark-test-XXXXXX";
  if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::vector<unsigned char>& bytes) const {
  const std::string p = file(name);
  std::ofstream out(p, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + p);
  return p;
}

std::vector<unsigned char> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Bytes hex(const std::string& digits) {
  Bytes b;
  for (std::size_t i = 0; i + 1 < digits.size(); i += digits[i] == ' ' ? 1 : 2) {
    if (digits[i] != ' ')
      b.push_back(static_cast<unsigned char>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return b;
}

std::string sealmark(const std::string& args) { return std::string(SEALMARK_BIN) + " " + args; }

std::string oracle(const std::string& commandLine) {
  auto r = run(commandLine);
  EXPECT_EQ(r.exitCode, 0) << commandLine << "\n" << r.err;
  while (!r.out.empty() && (r.out.back() == '\n' || r.out.back() == '\r')) r.out.pop_back();
  return r.out;
}

std::string python(const std::string& expression) {
  return oracle("python3 -c " + shellQuote("import sys; sys.stdout.buffer.write(" + expression + ")"));
}

std::string sha1Fingerprint(const std::string& certFile, bool der) {
  const std::string printed = oracle(std::string("openssl x509 -noout -fingerprint -sha1 ") +
                                     (der ? "-inform DER " : "") + "-in " + shellQuote(certFile));
  std::string hex = printed.substr(printed.find('=') + 1);
  hex.erase(std::remove(hex.begin(), hex.end(), ':'), hex.end());
  return hex;
}

std::string hashOf(const PDF_Sealmark::PDFCert& cert) {
  std::string hex;
  cert.getHashHex(hex);
  return hex;
}

std::vector<std::string> listPdfs(const std::string& dir) {
  std::vector<std::string> out;
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator it(dir, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file() && it->path().extension() == ".pdf") {
      out.push_back(std::filesystem::relative(it->path(), dir).string());
    }
  }
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace sealtest
