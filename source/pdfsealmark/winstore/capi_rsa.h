// Internal: the RSA method that sends a key object's private operations to
// the platform's key container, so that a key that never leaves the system
// serves as an ordinary OpenSSL key.
//
// The key object carries its platform state in five ex_data slots, by
// plain index (no index is registered with OpenSSL):
//   0  the certificate context, read only while the method initialises
//   1  the provider of the key       2  the key (null: no key at hand)
//   3  which key: AT_KEYEXCHANGE/SIGN  4  whether the provider is ours to release
// Signing (RSA_sign, and EVP signing with PKCS#1 v1.5 padding) and
// decryption go to the platform; verification and public encryption stay
// in OpenSSL; raw private encryption (PSS, no padding) is refused.
#ifndef PDFSEALMARK_WINSTORE_CAPI_RSA_H
#define PDFSEALMARK_WINSTORE_CAPI_RSA_H

#include <openssl/rsa.h>

#include "pdfsealmark/platform/crypt_key.h"

namespace PDF_Sealmark {

enum CapiRsaSlot { kSlotContext = 0, kSlotProvider = 1, kSlotKey = 2, kSlotKeySpec = 3, kSlotCallerFree = 4 };

// The key object's flag that makes OpenSSL call the method's rsa_sign (the
// flag of OpenSSL before 1.1, kept in the key object as it was).
constexpr int kRsaFlagSignVer = 0x40;

// The process-wide method, "CryptAPI RSA method", made on first use and
// never changed after.
const RSA_METHOD* capiRsaMethod();

// The platform's hash algorithm for a digest NID; CALG_SHA1 for any NID it
// doesn't know.
platform::ALG_ID capiHashAlgorithm(int nid);

}  // namespace PDF_Sealmark

#endif
