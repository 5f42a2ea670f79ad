// Internal: key containers, and signing and decrypting with a key that
// never leaves them.
//
// The key bridge calls these under the names of the CryptoAPI operations
// they stand for.  On Linux the key container of a certificate is the NSS
// token that holds its private key: NSS's software token of the database,
// or any PKCS#11 module registered with it.  Signing a hash is a PKCS#1
// v1.5 signature over the DigestInfo made by the token (PK11_Sign);
// decrypting is PK11_PrivDecryptPKCS1.  Numbers cross this interface in
// CryptoAPI's little-endian byte order, the signature out and the cipher
// text in, so that the bridge above reads as it would over CryptoAPI.
#ifndef PDFSEALMARK_PLATFORM_CRYPT_KEY_H
#define PDFSEALMARK_PLATFORM_CRYPT_KEY_H

#include <cstdint>

#include "pdfsealmark/platform/cert_context.h"

namespace PDF_Sealmark {
namespace platform {

constexpr std::uint32_t PROV_RSA_FULL = 1;
constexpr std::uint32_t CRYPT_NEWKEYSET = 8;
constexpr std::uint32_t AT_KEYEXCHANGE = 1;
constexpr std::uint32_t AT_SIGNATURE = 2;
constexpr std::uint32_t HP_HASHVAL = 2;

using ALG_ID = std::uint32_t;
constexpr ALG_ID CALG_MD2 = 0x8001;
constexpr ALG_ID CALG_MD4 = 0x8002;
constexpr ALG_ID CALG_MD5 = 0x8003;
constexpr ALG_ID CALG_SHA1 = 0x8004;
constexpr ALG_ID CALG_SSL3_SHAMD5 = 0x8008;
constexpr ALG_ID CALG_SHA_256 = 0x800C;
constexpr ALG_ID CALG_SHA_384 = 0x800D;
constexpr ALG_ID CALG_SHA_512 = 0x800E;

// Opaque handles; null is "no handle".
struct CryptProvider;
struct CryptKey;
struct CryptHash;
using HCRYPTPROV = CryptProvider*;
using HCRYPTKEY = CryptKey*;
using HCRYPTHASH = CryptHash*;

// A provider that holds no key, for opening stores.  False when the
// database can't be opened.
bool CryptAcquireContextA(HCRYPTPROV* provider, const char* container, const char* providerName,
                          std::uint32_t providerType, std::uint32_t flags);
// Releases a provider from either acquire call.  Null is allowed.
bool CryptReleaseContext(HCRYPTPROV provider, std::uint32_t flags);

// The key container of a certificate: false when no token of the database
// holds a private key for it (or its token is locked and no PIN is
// configured).  keySpec is AT_KEYEXCHANGE; callerFree is true.
bool CryptAcquireCertificatePrivateKey(PCCERT_CONTEXT certificate, std::uint32_t flags, void* reserved,
                                       HCRYPTPROV* provider, std::uint32_t* keySpec, bool* callerFree);
// A handle on the provider's key, which stays in its token.
bool CryptGetUserKey(HCRYPTPROV provider, std::uint32_t keySpec, HCRYPTKEY* key);
bool CryptDestroyKey(HCRYPTKEY key);

// A hash object of one of the CALG_ values above; false for any other.
bool CryptCreateHash(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY key, std::uint32_t flags,
                     HCRYPTHASH* hash);
// HP_HASHVAL: takes the finished digest, as many bytes as the algorithm
// gives (36 for CALG_SSL3_SHAMD5, an MD5 and a SHA-1 side by side).
bool CryptSetHashParam(HCRYPTHASH hash, std::uint32_t param, const unsigned char* data, std::uint32_t flags);
// Signs the hash value with the provider's key: PKCS#1 v1.5 over the
// DigestInfo of the hash's algorithm (over the bare 36 bytes for
// CALG_SSL3_SHAMD5).  A null signature gives the length in length;
// otherwise the signature, little-endian.
bool CryptSignHashA(HCRYPTHASH hash, std::uint32_t keySpec, const char* description, std::uint32_t flags,
                    unsigned char* signature, std::uint32_t* length);
bool CryptDestroyHash(HCRYPTHASH hash);

// Decrypts in place a PKCS#1 v1.5 block given little-endian, removes the
// padding and sets length to the plain text's.
bool CryptDecrypt(HCRYPTKEY key, HCRYPTHASH hash, bool final, std::uint32_t flags, unsigned char* data,
                  std::uint32_t* length);

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
