#include "bench_util.h"

#include <openssl/evp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <stdexcept>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/PDFSigner.h"

namespace sealbench {

namespace {

std::size_t statusField(const char* name) {
  std::ifstream in("/proc/self/status");
  std::string line;
  const std::string key = std::string(name) + ":";
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) return std::strtoull(line.c_str() + key.size(), nullptr, 10) * 1024;
  }
  return 0;
}

struct Files {
  std::string dir;
  std::map<std::size_t, std::string> paths;
  Files() {
    char tmpl[] = "/tmp/sealmark-bench-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp");
    dir = tmpl;
  }
  ~Files() {
    const std::string rm = "rm -rf '" + dir + "'";
    if (std::system(rm.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", dir.c_str());
  }
};

// The signer of the tests' PKI (tests/support/make_pki.sh), made on first use.
const PDF_Sealmark::PDFCert& signer(const std::string& dir) {
  static PDF_Sealmark::PDFCert cert = [&] {
    const std::string make =
        "'" SEALMARK_SOURCE_DIR "/tests/support/make_pki.sh' '" + dir + "/pki' >/dev/null";
    if (std::system(make.c_str()) != 0) throw std::runtime_error("make_pki.sh failed");
    std::ifstream in(dir + "/pki/signer.p12", std::ios::binary);
    PDF_Sealmark::PDFCert c;
    if (!c.loadPkcs12(in, "test")) throw std::runtime_error("cannot load signer.p12");
    return c;
  }();
  return cert;
}

std::vector<unsigned char> readAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

Files& files() {
  static Files f;
  return f;
}

}  // namespace

void resetPeakRss() {
  std::ofstream out("/proc/self/clear_refs");
  out << "5";
}

std::size_t currentRss() { return statusField("VmRSS"); }
std::size_t peakRss() { return statusField("VmHWM"); }

const std::string& signedPdfOfSize(std::size_t bytes) {
  auto& f = files();
  auto it = f.paths.find(bytes);
  if (it != f.paths.end()) return it->second;
  const std::string path = f.dir + "/signed-" + std::to_string(bytes) + ".pdf";
  // The unsigned two-page input, comment lines up to the size asked for,
  // and again its own startxref and end marker, since readers look for the
  // last startxref near the end of the file; then the signer's update.
  // Every byte of the comments is signed.
  std::vector<unsigned char> input = readAll(SEALMARK_SOURCE_DIR "/tests/data/two-pages.pdf");
  const std::string text(input.begin(), input.end());
  const std::string tail = text.substr(text.rfind("startxref"));
  const std::string line = "%" + std::string(98, 'x') + "\n";
  while (input.size() + line.size() + tail.size() <= bytes)
    input.insert(input.end(), line.begin(), line.end());
  input.insert(input.end(), tail.begin(), tail.end());
  PDF_Sealmark::PDFSigner::Options options;
  options.reservedBytes = 8192;
  std::vector<unsigned char> output;
  std::string why;
  if (!PDF_Sealmark::PDFSigner::sign(input, output, signer(f.dir), options, &why)) {
    throw std::runtime_error("signing failed: " + why);
  }
  std::ofstream(path, std::ios::binary)
      .write(reinterpret_cast<const char*>(output.data()), static_cast<std::streamsize>(output.size()));
  return f.paths.emplace(bytes, path).first->second;
}

double rawSha256Seconds(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  double best = 1e9;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  for (int i = 0; i < 5; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    EVP_Digest(bytes.data(), bytes.size(), md, &len, EVP_sha256(), nullptr);
    const std::chrono::duration<double> dt = std::chrono::steady_clock::now() - t0;
    best = std::min(best, dt.count());
  }
  return best;
}

}  // namespace sealbench
