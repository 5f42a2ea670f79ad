// Contract: any bytes may be handed to extractToken as a TimeStampResp.  The
// worst outcome is a result of 0 or less; a positive result is a token that
// fits the buffer and is the tail of the input.  No crash, no read or write
// out of bounds.
// Seeds (fuzz/corpus/fuzz_extract_token): real-sha512-granted.tsr is the
// answer of `openssl ts -reply` to `openssl ts -query -sha512 -cert`; the
// others are hand-written with printf: granted with short and long outer
// lengths, a rejection, a statusString, a cut-off length.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using PDF_Sealmark::PDFStdTimeStampImpl;
  std::vector<unsigned char> out(PDFStdTimeStampImpl::kMaxToken);
  const long n = PDFStdTimeStampImpl::extractToken(data, size, out.data(), out.size());
  if (n > 0) {
    const std::size_t length = static_cast<std::size_t>(n);
    if (length > out.size() || length > size || std::memcmp(out.data(), data + size - length, length) != 0) {
      std::abort();
    }
  }
  return 0;
}
