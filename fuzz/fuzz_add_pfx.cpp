// Contract: any bytes may be imported as a PKCS#12 file into the store,
// with the password the seeds were made with and with an empty one.  The
// database is a throw-away one, made on first use in a temporary
// directory.  The worst outcome is a false answer; a certificate that goes
// in can be found by its SHA-1 and deleted again.
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

#include "pdfsealmark/PDFCertWinStore.h"

namespace {

struct ThrowAwayDatabase {
  std::string dir;
  ThrowAwayDatabase() {
    char pattern[] = "/tmp/fuzz_add_pfx.XXXXXX";
    if (::mkdtemp(pattern) != nullptr) dir = pattern;
    ::setenv("SEALMARK_NSSDB", dir.c_str(), 1);
    ::setenv("SSL_CERT_FILE", "/dev/null", 1);
    ::setenv("SSL_CERT_DIR", dir.c_str(), 1);
  }
  ~ThrowAwayDatabase() {
    std::error_code ignored;
    if (!dir.empty()) std::filesystem::remove_all(dir, ignored);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static ThrowAwayDatabase database;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  PDF_Sealmark::PDFCertWinStore store;
  for (const wchar_t* password : {L"sealmark", L""}) {
    std::istringstream in(bytes);
    PDF_Sealmark::PDFCert cert;
    if (!store.addPfx(in, password, cert)) continue;
    std::string hash;
    if (!cert.getHashHex(hash)) std::abort();
    PDF_Sealmark::PDFCert found;
    // Store 7: MY, without taking the key along.
    if (!store.getByHash(found, hash, 7) && !store.getByHash(found, hash, 1)) std::abort();
    store.delFromStore(found, 0);
    store.delFromStore(found, 1);
  }
  return 0;
}
