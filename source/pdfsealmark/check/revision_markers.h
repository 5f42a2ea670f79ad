// Internal: where revisions end, found as PDF readers find them.
#ifndef PDFSEALMARK_CHECK_REVISION_MARKERS_H
#define PDFSEALMARK_CHECK_REVISION_MARKERS_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace PDF_Sealmark {

// "%%EOF" and what may follow it: CR LF, LF, CR, or the end of the file.
class MarkerScanner {
 public:
  // data points at a buffer with kCarry bytes of headroom before it.
  static constexpr std::size_t kCarry = 7;

  void feed(unsigned char* data, std::size_t size, std::uint64_t base, bool last) {
    std::memcpy(data - carried_, carry_, carried_);
    const unsigned char* from = data - carried_;
    const std::size_t length = size + carried_;
    const std::uint64_t fromOffset = base - carried_;
    // A marker that starts within the last 6 bytes waits for the next chunk
    // to see what follows it.
    const std::size_t limit = last ? length : (length >= 6 ? length - 6 : 0);
    std::size_t at = 0;
    while (at < limit) {
      const void* hit = std::memchr(from + at, '%', limit - at);
      if (!hit) break;
      at = static_cast<std::size_t>(static_cast<const unsigned char*>(hit) - from);
      if (length - at >= 5 && std::memcmp(from + at, "%%EOF", 5) == 0) {
        const std::size_t after = at + 5;
        std::size_t eol = 0;
        if (after == length) {
          eol = last ? 0 : std::string::npos;
        } else if (from[after] == '\r') {
          eol = (after + 1 < length && from[after + 1] == '\n') ? 2 : 1;
        } else if (from[after] == '\n') {
          eol = 1;
        } else {
          eol = std::string::npos;
        }
        if (eol != std::string::npos) ends.push_back(fromOffset + after + eol);
        at = after;
      } else {
        ++at;
      }
    }
    carried_ = std::min<std::size_t>(length - limit, kCarry);
    std::memcpy(carry_, from + length - carried_, carried_);
  }

  std::vector<std::uint64_t> ends;

 private:
  unsigned char carry_[kCarry] = {};
  std::size_t carried_ = 0;
};

}  // namespace PDF_Sealmark

#endif
