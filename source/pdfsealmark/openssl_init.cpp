#include "pdfsealmark/openssl_init.h"

#include <openssl/evp.h>

namespace PDF_Sealmark {

namespace {
unsigned char g_openSSLReady = 0;
}

void initOpenSSLOnce() {
  if (g_openSSLReady == 0) {
    OpenSSL_add_all_algorithms();
    g_openSSLReady = 1;
  }
}

}  // namespace PDF_Sealmark
