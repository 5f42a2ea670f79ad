// Contract: any bytes may arrive from the peer on the socket path and be
// judged by parseResponse.  The worst outcome is a negative result code or
// the std::out_of_range that le::HttpConnect::request turns into -9998; a
// result of 0 or more leaves in response bytes that stood in the input.
// Seeds (fuzz/corpus/fuzz_http_response): answers written with printf: CR LF,
// LF-only and CR-only line ends, a 404, chunked, a body longer than
// announced, a negative length and a Content-Length ending in its colon.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <vector>

#include "pdfsealmark/http/HttpConnect.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<unsigned char> received(data, data + size);
  std::vector<unsigned char> response;
  try {
    const int result = le::HttpConnect::parseResponse(received, response);
    if (result >= 0 && (response.empty() || response.size() > size)) std::abort();
  } catch (const std::out_of_range&) {
  }
  return 0;
}
