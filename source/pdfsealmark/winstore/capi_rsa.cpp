// The RSA method of the key bridge.
#include "pdfsealmark/winstore/capi_rsa.h"

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/objects.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace PDF_Sealmark {

namespace {

using namespace platform;

HCRYPTPROV providerOf(const RSA* rsa) { return static_cast<HCRYPTPROV>(RSA_get_ex_data(rsa, kSlotProvider)); }
HCRYPTKEY keyOf(const RSA* rsa) { return static_cast<HCRYPTKEY>(RSA_get_ex_data(rsa, kSlotKey)); }
std::uint32_t slotNumber(const RSA* rsa, int slot) {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(RSA_get_ex_data(rsa, slot)));
}
void* asSlot(std::uintptr_t n) { return reinterpret_cast<void*>(n); }

int capiRsaPubEnc(int length, const unsigned char* from, unsigned char* to, RSA* rsa, int padding) {
  return RSA_meth_get_pub_enc(RSA_PKCS1_OpenSSL())(length, from, to, rsa, padding);
}

int capiRsaPubDec(int length, const unsigned char* from, unsigned char* to, RSA* rsa, int padding) {
  return RSA_meth_get_pub_dec(RSA_PKCS1_OpenSSL())(length, from, to, rsa, padding);
}

// There is no raw private encryption: a caller must sign through RSA_sign.
int capiRsaPrivEnc(int, const unsigned char*, unsigned char*, RSA*, int) { return -1; }

int capiRsaPrivDec(int length, const unsigned char* from, unsigned char* to, RSA* rsa, int) {
  HCRYPTKEY key = keyOf(rsa);
  if (key == nullptr || length <= 0) return -1;
  // CryptoAPI takes the number least significant byte first.
  std::vector<unsigned char> block(from, from + length);
  std::reverse(block.begin(), block.end());
  std::uint32_t size = static_cast<std::uint32_t>(length);
  if (!CryptDecrypt(key, nullptr, true, 0, block.data(), &size)) return -1;
  // The provider removes PKCS#1 v1.5 padding, whatever padding was asked
  // for, and the plain text comes in its own order.
  std::memcpy(to, block.data(), size);
  return static_cast<int>(size);
}

int capiRsaInit(RSA* rsa) {
  const auto context = static_cast<PCCERT_CONTEXT>(RSA_get_ex_data(rsa, kSlotContext));
  if (context == nullptr) return 0;
  if (keyOf(rsa) != nullptr) return 1;
  HCRYPTPROV provider = nullptr;
  HCRYPTKEY key = nullptr;
  std::uint32_t keySpec = 0;
  bool callerFree = false;
  if (CryptAcquireCertificatePrivateKey(context, 0, nullptr, &provider, &keySpec, &callerFree) &&
      CryptGetUserKey(provider, keySpec, &key)) {
    RSA_set_ex_data(rsa, kSlotProvider, provider);
    RSA_set_ex_data(rsa, kSlotKey, key);
    RSA_set_ex_data(rsa, kSlotKeySpec, asSlot(keySpec));
    RSA_set_ex_data(rsa, kSlotCallerFree, asSlot(callerFree ? 1 : 0));
    return 1;
  }
  if (key != nullptr) CryptDestroyKey(key);
  if (provider != nullptr && callerFree) CryptReleaseContext(provider, 0);
  return 0;
}

int capiRsaFinish(RSA* rsa) {
  HCRYPTKEY key = keyOf(rsa);
  if (key == nullptr) return 1;
  CryptDestroyKey(key);
  RSA_set_ex_data(rsa, kSlotKey, nullptr);
  HCRYPTPROV provider = providerOf(rsa);
  if (provider != nullptr && slotNumber(rsa, kSlotCallerFree) != 0) {
    CryptReleaseContext(provider, 0);
    RSA_set_ex_data(rsa, kSlotProvider, nullptr);
  }
  return 1;
}

int capiRsaSign(int type, const unsigned char* digest, unsigned int digestLength, unsigned char* signature,
                unsigned int* signatureLength, const RSA* rsa) {
  HCRYPTPROV provider = providerOf(rsa);
  if (keyOf(rsa) == nullptr) return 0;
  const std::uint32_t keySpec = slotNumber(rsa, kSlotKeySpec);
  HCRYPTHASH hash = nullptr;
  if (!CryptCreateHash(provider, capiHashAlgorithm(type), nullptr, 0, &hash)) return 0;
  int result = 0;
  // The hash takes as many bytes as its algorithm has; a shorter digest is
  // padded with zeros rather than read past its end (it won't verify).
  std::vector<unsigned char> value(digest, digest + digestLength);
  value.resize(std::max<std::size_t>(value.size(), EVP_MAX_MD_SIZE), 0);
  std::uint32_t length = 0;
  if (CryptSetHashParam(hash, HP_HASHVAL, value.data(), 0) &&
      CryptSignHashA(hash, keySpec, nullptr, 0, nullptr, &length)) {
    *signatureLength = length;
    std::vector<unsigned char> buffer(length, 0);
    if (CryptSignHashA(hash, keySpec, nullptr, 0, buffer.data(), &length)) {
      // CryptoAPI gives the number little-endian; PKCS#1 wants big-endian.
      for (std::uint32_t i = 0; i < length; ++i) signature[i] = buffer[length - 1 - i];
      *signatureLength = length;
      result = 1;
    }
  }
  CryptDestroyHash(hash);
  return result;
}

int capiRsaVerify(int type, const unsigned char* digest, unsigned int digestLength,
                  const unsigned char* signature, unsigned int signatureLength, const RSA* rsa) {
  // A public-only copy has OpenSSL's own method: no platform call.
  RSA* copy = RSAPublicKey_dup(rsa);
  if (copy == nullptr) return 0;
  const int result = RSA_verify(type, digest, digestLength, signature, signatureLength, copy);
  RSA_free(copy);
  return result;
}

RSA_METHOD* makeMethod() {
  RSA_METHOD* method = RSA_meth_new("CryptAPI RSA method", kRsaFlagSignVer);
  if (method == nullptr) return nullptr;
  RSA_meth_set_pub_enc(method, capiRsaPubEnc);
  RSA_meth_set_pub_dec(method, capiRsaPubDec);
  RSA_meth_set_priv_enc(method, capiRsaPrivEnc);
  RSA_meth_set_priv_dec(method, capiRsaPrivDec);
  RSA_meth_set_mod_exp(method, nullptr);
  RSA_meth_set_bn_mod_exp(method, BN_mod_exp_mont);
  RSA_meth_set_init(method, capiRsaInit);
  RSA_meth_set_finish(method, capiRsaFinish);
  RSA_meth_set0_app_data(method, nullptr);
  RSA_meth_set_sign(method, capiRsaSign);
  RSA_meth_set_verify(method, capiRsaVerify);
  RSA_meth_set_keygen(method, nullptr);
  return method;
}

}  // namespace

const RSA_METHOD* capiRsaMethod() {
  static const RSA_METHOD* const method = makeMethod();
  return method;
}

ALG_ID capiHashAlgorithm(int nid) {
  switch (nid) {
    case NID_md2:
      return CALG_MD2;
    case NID_md4:
      return CALG_MD4;
    case NID_md5:
      return CALG_MD5;
    case NID_sha:
    case NID_sha1:
      return CALG_SHA1;
    case NID_md5_sha1:
      return CALG_SSL3_SHAMD5;
    case NID_sha256:
      return CALG_SHA_256;
    case NID_sha384:
      return CALG_SHA_384;
    case NID_sha512:
      return CALG_SHA_512;
    default:
      return CALG_SHA1;
  }
}

}  // namespace PDF_Sealmark
