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

#include "pdf_builder.h"

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
    for (auto& p : paths) std::remove(p.second.c_str());
    std::remove(dir.c_str());
  }
};

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
  sealtest::writeBytes(path, sealtest::PdfBuilder().padding(bytes).sign().build());
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
