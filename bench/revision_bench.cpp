// The revision index over a 200 MB signed PDF:
//   BM_RevisionScan   the marker scan alone, bytes already in memory
//   BM_RevisionIndex  the whole constructor: read the file, then scan
//   BM_CatFile        `cat FILE > /dev/null` of the same file, for comparison
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <vector>

#include "bench_util.h"
#include "pdfsealmark/PDFSealmarkVersion.h"

namespace {

constexpr std::size_t kMB = 1024 * 1024;
constexpr std::size_t kSize = 200 * kMB;

void BM_RevisionScan(benchmark::State& state) {
  const std::string& path = sealbench::signedPdfOfSize(kSize);
  std::ifstream in(path, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::size_t found = 0;
  for (auto _ : state) {
    const auto ends = PDF_Sealmark::findRevisionEnds(bytes.data(), bytes.size());
    found = ends.size();
    benchmark::DoNotOptimize(ends.data());
  }
  if (found != 1) state.SkipWithError("expected one revision");
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_RevisionScan)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RevisionIndex(benchmark::State& state) {
  const std::string& path = sealbench::signedPdfOfSize(kSize);
  auto doc = PDF_Vellum::PDFDocument::open(path, "");
  if (!doc) {
    state.SkipWithError("cannot open");
    return;
  }
  for (auto _ : state) {
    PDF_Sealmark::PDFSealmarkVersion versions(doc.get());
    benchmark::DoNotOptimize(versions.getMaxNum());
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc->getFileSize()));
}
BENCHMARK(BM_RevisionIndex)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_CatFile(benchmark::State& state) {
  const std::string& path = sealbench::signedPdfOfSize(kSize);
  const std::string command = "cat '" + path + "' > /dev/null";
  for (auto _ : state) {
    if (std::system(command.c_str()) != 0) state.SkipWithError("cat failed");
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * kSize));
}
BENCHMARK(BM_CatFile)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
