// verify() over signed PDFs of 1 MB and 100 MB, beside OpenSSL's raw SHA-256
// speed over the same bytes.  Counters:
//   x_raw_sha256   mean verify time / best raw SHA-256 time of the file
//   peak_extra_MB  growth of the peak resident set during the verify loop
//   file_MB        size of the file
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <vector>

#include "bench_util.h"
#include "pdfsealmark/PDFSealmarkVerify.h"

namespace {

constexpr std::size_t kMB = 1024 * 1024;

void BM_Verify(benchmark::State& state) {
  const std::size_t size = static_cast<std::size_t>(state.range(0)) * kMB;
  const std::string& path = sealbench::signedPdfOfSize(size);
  const double hashSeconds = sealbench::rawSha256Seconds(path);

  auto doc = PDF_Vellum::PDFDocument::open(path, "");
  if (!doc) {
    state.SkipWithError("cannot open the benchmark file");
    return;
  }
  PDF_Folio::CForm form(doc.get());
  PDF_Sealmark::PDFSealmarkVerify verifier;
  if (form.getSigFields().empty() || !verifier.parse(form.getSigFields()[0])) {
    state.SkipWithError("no signature to verify");
    return;
  }
  sealbench::resetPeakRss();
  const std::size_t baseline = sealbench::currentRss();
  double total = 0;
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    const bool ok = verifier.verify();
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (!ok) state.SkipWithError("verify failed");
    benchmark::DoNotOptimize(ok);
  }
  const double fileBytes = static_cast<double>(doc->getFileSize());
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * fileBytes));
  state.counters["file_MB"] = fileBytes / kMB;
  state.counters["x_raw_sha256"] = (total / static_cast<double>(state.iterations())) / hashSeconds;
  state.counters["peak_extra_MB"] = static_cast<double>(sealbench::peakRss() - baseline) / kMB;
}
BENCHMARK(BM_Verify)->Arg(1)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RawSha256(benchmark::State& state) {
  const std::size_t size = static_cast<std::size_t>(state.range(0)) * kMB;
  std::vector<unsigned char> bytes(size, 0x42);
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  for (auto _ : state) {
    EVP_Digest(bytes.data(), bytes.size(), md, &len, EVP_sha256(), nullptr);
    benchmark::DoNotOptimize(md);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}
BENCHMARK(BM_RawSha256)->Arg(1)->Arg(100)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
