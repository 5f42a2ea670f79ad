// Helpers for the benchmarks: memory figures of this process, and signed PDF
// files made once per run.
#pragma once

#include <cstddef>
#include <string>

namespace sealbench {

// Resets the peak resident set size to the current one (Linux clear_refs).
void resetPeakRss();
// Current and peak resident set size in bytes, from /proc/self/status.
std::size_t currentRss();
std::size_t peakRss();

// Path of a signed PDF of about `bytes` bytes, written on first use to a
// directory removed at exit.
const std::string& signedPdfOfSize(std::size_t bytes);

// Seconds that OpenSSL's SHA-256 takes over the file's bytes held in memory
// (the best of a few runs).
double rawSha256Seconds(const std::string& path);

}  // namespace sealbench
