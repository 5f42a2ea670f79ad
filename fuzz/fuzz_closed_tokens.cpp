// Contract: any bytes may be handed as a token of the Amano or PFU service
// to the functions that read such tokens through the service's library (the
// stand-ins of tests/standins, which LD_LIBRARY_PATH must reach).  They
// answer within their stated values; a certificate is never larger than the
// token; no crash, no read or write out of bounds, in the clients or the
// stand-ins.
// Seeds (fuzz/corpus/fuzz_closed_tokens): an Amano token, a PFU token of
// PKCS#7 and one of the stand-ins' own format, made by `sealmark timestamp
// --service` over the bytes "data", and the Amano token cut short.
#include <cstdint>
#include <cstdlib>

#include "pdfsealmark/timestamp/closed_services.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace PDF_Sealmark;
  // Without the libraries nothing would be read at all.
  if (!loadAmanoLibrary() || !loadPfuLibrary()) std::abort();
  const std::vector<unsigned char> token(data, data + size), signedData{'d', 'a', 't', 'a'};
  std::string text;
  std::vector<unsigned char> der;
  verifyAmanoToken(token, signedData);
  verifyPfuToken(token, signedData);
  getAmanoTokenDate(token, text);
  getPfuTokenDate(token, text);
  for (int i = 0; i < 3; ++i) {
    if (getAmanoTokenCert(token, i, der) == 1 && (i != 0 || der.size() > size)) std::abort();
    if (getPfuTokenCert(token, i, der) == 1 && (der.empty() || der.size() > size)) std::abort();
  }
  return 0;
}
