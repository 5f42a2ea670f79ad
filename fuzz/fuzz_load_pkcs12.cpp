// Contract: any bytes may be loaded as a PKCS#12 file, with the password the
// seeds were made with and with an empty one (refused before reading).  The
// worst outcome is a false answer; a file that loads can be saved again and
// its certificate asked for its fields.
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  for (const char* password : {"sealmark", ""}) {
    PDF_Sealmark::PDFCert cert;
    std::istringstream in(bytes);
    if (!cert.loadPkcs12(in, password)) continue;
    std::vector<std::string> keys, values;
    cert.getSubject(keys, values);
    std::string hash;
    cert.getHashHex(hash);
    cert.getSerialHex();
    cert.getNotAfter();
    std::ostringstream out;
    cert.savePkcs12(out, "again", "fuzz");
  }
  return 0;
}
