#include "support/test_util.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sealtest {

PDF_Folio::CSigField* OpenedPdf::field(const std::string& name) const {
  for (auto* f : fields) {
    if (f->getName() == name) return f;
  }
  return nullptr;
}

namespace {
OpenedPdf finish(std::unique_ptr<PDF_Vellum::PDFDocument> doc, std::string error) {
  OpenedPdf r;
  r.doc = std::move(doc);
  r.error = std::move(error);
  if (r.doc) {
    r.form = std::make_unique<PDF_Folio::CForm>(r.doc.get());
    r.fields = r.form->getSigFields();
  }
  return r;
}
}  // namespace

OpenedPdf openPdf(std::vector<unsigned char> bytes, const std::string& password) {
  std::string why;
  auto doc = PDF_Vellum::PDFDocument::openMemory(std::move(bytes), password, &why);
  return finish(std::move(doc), why);
}

OpenedPdf openPdfFile(const std::string& path, const std::string& password) {
  std::string why;
  auto doc = PDF_Vellum::PDFDocument::open(path, password, &why);
  return finish(std::move(doc), why);
}

std::string shellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

CommandResult run(const std::string& commandLine) {
  TempDir dir;
  const std::string errFile = dir.file("stderr");
  CommandResult r;
  FILE* pipe = ::popen((commandLine + " 2>" + shellQuote(errFile)).c_str(), "r");
  if (!pipe) throw std::runtime_error("popen failed");
  char buf[4096];
  std::size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0) r.out.append(buf, n);
  const int status = ::pclose(pipe);
  r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  const auto err = readFile(errFile);
  r.err.assign(err.begin(), err.end());
  return r;
}

TempDir::TempDir() {
  char tmpl[] = "/tmp/sealmark-test-XXXXXX";
  if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  const std::string cmd = "rm -rf " + shellQuote(path_);
  if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", path_.c_str());
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
  for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
    if (digits[i] == ' ') {
      --i;
      continue;
    }
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
  std::string hex;
  for (char c : printed.substr(printed.find('=') + 1)) {
    if (c != ':') hex += c;
  }
  return hex;
}

std::string hashOf(const PDF_Sealmark::PDFCert& cert) {
  std::string hex;
  cert.getHashHex(hex);
  return hex;
}

namespace {
void collectPdfs(const std::string& dir, const std::string& rel, std::vector<std::string>& out) {
  DIR* d = opendir(dir.c_str());
  if (!d) return;
  while (dirent* e = readdir(d)) {
    const std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    const std::string path = dir + "/" + name;
    const std::string relPath = rel.empty() ? name : rel + "/" + name;
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) continue;
    if (S_ISDIR(st.st_mode)) {
      collectPdfs(path, relPath, out);
    } else if (name.size() > 4 && name.compare(name.size() - 4, 4, ".pdf") == 0) {
      out.push_back(relPath);
    }
  }
  closedir(d);
}
}  // namespace

std::vector<std::string> listPdfs(const std::string& dir) {
  std::vector<std::string> out;
  collectPdfs(dir, "", out);
  std::sort(out.begin(), out.end());
  return out;
}

}  // namespace sealtest
