// Contract: for any bytes, the signed-data decoder that shares certificates
// either declines or makes exactly what d2i_PKCS7 makes of the same bytes.
// Every few inputs the certificate cache is dropped, so that objects decoded
// before it keep working on their own references.
#include <openssl/pkcs7.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/verify/shared_certificates.h"

namespace {

std::vector<unsigned char> encoded(PKCS7* p7) {
  unsigned char* out = nullptr;
  const int n = i2d_PKCS7(p7, &out);
  std::vector<unsigned char> bytes(out, out + (n > 0 ? n : 0));
  OPENSSL_free(out);
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using P7 = PDF_Sealmark::ossl::UniquePtr<PKCS7>;
  // Decoded one input earlier, still read after the cache lets go.  A plain
  // pointer, not freed at exit: OpenSSL's own clean-up may run first.
  static PKCS7* kept = nullptr;
  static unsigned inputs = 0;
  if (++inputs % 8 == 0) PDF_Sealmark::forgetSharedCertificates();
  if (kept && encoded(kept).empty()) std::abort();

  P7 fast(PDF_Sealmark::decodeSharingCertificates(data, size));
  if (!fast) return 0;
  const unsigned char* p = data;
  P7 reference(d2i_PKCS7(nullptr, &p, static_cast<long>(size)));
  if (!reference || encoded(fast.get()) != encoded(reference.get())) {
    std::fprintf(stderr, "the shortcut decoded what d2i_PKCS7 decodes otherwise\n");
    std::abort();
  }
  PKCS7_free(kept);
  kept = fast.release();
  return 0;
}
