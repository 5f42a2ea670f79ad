// Key containers over NSS: a certificate's private key is found in the
// token of the database that holds it, and used there.
#include <cert.h>
#include <keyhi.h>
#include <pk11pub.h>

#include <algorithm>
#include <new>
#include <vector>

#include "pdfsealmark/platform/crypt_key.h"
#include "pdfsealmark/platform/nss_api.h"
#include "pdfsealmark/platform/nss_db.h"

namespace PDF_Sealmark {
namespace platform {

struct CryptProvider {
  SECKEYPrivateKey* key = nullptr;  // null for a provider that only opens stores
};
struct CryptKey {
  SECKEYPrivateKey* key = nullptr;
};
struct CryptHash {
  HCRYPTPROV provider = nullptr;
  ALG_ID algorithm = 0;
  std::vector<unsigned char> value;
};

namespace {

struct HashAlgorithm {
  ALG_ID id;
  std::size_t length;
  // DER of the DigestInfo up to the digest (RFC 8017, 9.2 note 1); empty
  // for CALG_SSL3_SHAMD5, whose 36 bytes are signed as they stand.
  std::vector<unsigned char> prefix;
};

const HashAlgorithm* hashAlgorithm(ALG_ID id) {
  static const HashAlgorithm kAlgorithms[] = {
      {CALG_MD2,
       16,
       {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x02, 0x05, 0x00, 0x04,
        0x10}},
      {CALG_MD4,
       16,
       {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x04, 0x05, 0x00, 0x04,
        0x10}},
      {CALG_MD5,
       16,
       {0x30, 0x20, 0x30, 0x0c, 0x06, 0x08, 0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x02, 0x05, 0x05, 0x00, 0x04,
        0x10}},
      {CALG_SHA1,
       20,
       {0x30, 0x21, 0x30, 0x09, 0x06, 0x05, 0x2b, 0x0e, 0x03, 0x02, 0x1a, 0x05, 0x00, 0x04, 0x14}},
      {CALG_SSL3_SHAMD5, 36, {}},
      {CALG_SHA_256,
       32,
       {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00,
        0x04, 0x20}},
      {CALG_SHA_384,
       48,
       {0x30, 0x41, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x02, 0x05, 0x00,
        0x04, 0x30}},
      {CALG_SHA_512,
       64,
       {0x30, 0x51, 0x30, 0x0d, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03, 0x05, 0x00,
        0x04, 0x40}},
  };
  for (const HashAlgorithm& a : kAlgorithms) {
    if (a.id == id) return &a;
  }
  return nullptr;
}

}  // namespace

bool CryptAcquireContextA(HCRYPTPROV* provider, const char*, const char*, std::uint32_t, std::uint32_t) {
  if (provider == nullptr) return false;
  *provider = nullptr;
  if (!nss::ready()) return false;
  *provider = new (std::nothrow) CryptProvider;
  return *provider != nullptr;
}

bool CryptReleaseContext(HCRYPTPROV provider, std::uint32_t) {
  if (provider == nullptr) return true;
  if (provider->key != nullptr) nssApi().SECKEY_DestroyPrivateKey(provider->key);
  delete provider;
  return true;
}

bool CryptAcquireCertificatePrivateKey(PCCERT_CONTEXT certificate, std::uint32_t, void*, HCRYPTPROV* provider,
                                       std::uint32_t* keySpec, bool* callerFree) {
  if (provider == nullptr) return false;
  *provider = nullptr;
  if (certificate == nullptr || certificate->encoded.empty() || !nss::ready()) return false;
  // Keys in a token that needs a PIN are only seen once it is logged in.
  nss::logInTokens();
  SECItem der;
  der.type = siBuffer;
  der.data = const_cast<unsigned char*>(certificate->encoded.data());
  der.len = static_cast<unsigned int>(certificate->encoded.size());
  CERTCertificate* cert = nssApi().CERT_FindCertByDERCert(nssApi().CERT_GetDefaultCertDB(), &der);
  if (cert == nullptr) return false;
  SECKEYPrivateKey* key = nssApi().PK11_FindKeyByAnyCert(cert, nullptr);
  nssApi().CERT_DestroyCertificate(cert);
  if (key == nullptr) return false;
  *provider = new (std::nothrow) CryptProvider;
  if (*provider == nullptr) {
    nssApi().SECKEY_DestroyPrivateKey(key);
    return false;
  }
  (*provider)->key = key;
  if (keySpec != nullptr) *keySpec = AT_KEYEXCHANGE;
  if (callerFree != nullptr) *callerFree = true;
  return true;
}

bool CryptGetUserKey(HCRYPTPROV provider, std::uint32_t, HCRYPTKEY* key) {
  if (key == nullptr) return false;
  *key = nullptr;
  if (provider == nullptr || provider->key == nullptr) return false;
  SECKEYPrivateKey* copy = nssApi().SECKEY_CopyPrivateKey(provider->key);
  if (copy == nullptr) return false;
  *key = new (std::nothrow) CryptKey;
  if (*key == nullptr) {
    nssApi().SECKEY_DestroyPrivateKey(copy);
    return false;
  }
  (*key)->key = copy;
  return true;
}

bool CryptDestroyKey(HCRYPTKEY key) {
  if (key == nullptr) return false;
  nssApi().SECKEY_DestroyPrivateKey(key->key);
  delete key;
  return true;
}

bool CryptCreateHash(HCRYPTPROV provider, ALG_ID algorithm, HCRYPTKEY, std::uint32_t, HCRYPTHASH* hash) {
  if (hash == nullptr) return false;
  *hash = nullptr;
  if (provider == nullptr || hashAlgorithm(algorithm) == nullptr) return false;
  *hash = new (std::nothrow) CryptHash;
  if (*hash == nullptr) return false;
  (*hash)->provider = provider;
  (*hash)->algorithm = algorithm;
  return true;
}

bool CryptSetHashParam(HCRYPTHASH hash, std::uint32_t param, const unsigned char* data, std::uint32_t) {
  if (hash == nullptr || param != HP_HASHVAL || data == nullptr) return false;
  const HashAlgorithm* algorithm = hashAlgorithm(hash->algorithm);
  hash->value.assign(data, data + algorithm->length);
  return true;
}

bool CryptSignHashA(HCRYPTHASH hash, std::uint32_t, const char*, std::uint32_t, unsigned char* signature,
                    std::uint32_t* length) {
  if (hash == nullptr || length == nullptr || hash->provider->key == nullptr || hash->value.empty())
    return false;
  SECKEYPrivateKey* key = hash->provider->key;
  const int size = nssApi().PK11_SignatureLen(key);
  if (size <= 0) return false;
  if (signature == nullptr) {
    *length = static_cast<std::uint32_t>(size);
    return true;
  }
  if (*length < static_cast<std::uint32_t>(size)) return false;
  std::vector<unsigned char> digestInfo = hashAlgorithm(hash->algorithm)->prefix;
  digestInfo.insert(digestInfo.end(), hash->value.begin(), hash->value.end());
  SECItem data{siBuffer, digestInfo.data(), static_cast<unsigned int>(digestInfo.size())};
  SECItem out{siBuffer, signature, static_cast<unsigned int>(size)};
  if (nssApi().PK11_Sign(key, &out, &data) != SECSuccess) return false;
  // The token gives the number big-endian, as PKCS#1 writes it; CryptoAPI
  // hands it out least significant byte first.
  std::reverse(signature, signature + out.len);
  *length = out.len;
  return true;
}

bool CryptDestroyHash(HCRYPTHASH hash) {
  delete hash;
  return hash != nullptr;
}

bool CryptDecrypt(HCRYPTKEY key, HCRYPTHASH, bool, std::uint32_t, unsigned char* data,
                  std::uint32_t* length) {
  if (key == nullptr || data == nullptr || length == nullptr || *length == 0) return false;
  std::vector<unsigned char> cipher(data, data + *length);
  std::reverse(cipher.begin(), cipher.end());  // CryptoAPI's order to PKCS#1's
  std::vector<unsigned char> plain(cipher.size());
  unsigned int plainLength = 0;
  if (nssApi().PK11_PrivDecryptPKCS1(key->key, plain.data(), &plainLength, static_cast<unsigned int>(plain.size()),
                            cipher.data(), static_cast<unsigned int>(cipher.size())) != SECSuccess) {
    return false;
  }
  std::copy(plain.begin(), plain.begin() + plainLength, data);
  *length = plainLength;
  return true;
}

}  // namespace platform
}  // namespace PDF_Sealmark
