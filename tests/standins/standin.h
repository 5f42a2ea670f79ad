// What the two stand-in libraries share.  They stand for the closed Amano
// and PFU libraries in the tests: they digest with OpenSSL and issue tokens
// signed by the key in $SEALMARK_STANDIN_TSA_KEY (certificate in
// $SEALMARK_STANDIN_TSA_CERT), both PEM.  Other variables, read on every
// call, steer them:
//   SEALMARK_STANDIN_FAIL=entry[=result],...  the entry point answers result
//       (default 0) without doing its work; 1900 does the work and answers 1900
//   SEALMARK_STANDIN_LOG=FILE   one line per call: "entry [detail] result"
#pragma once

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "pdfsealmark/timestamp/closed_records.h"

namespace standin {
using namespace PDF_Sealmark::closed_records;
using Bytes = std::vector<unsigned char>;
using uchar = unsigned char;
using u32 = std::uint32_t;
template <class T, void (*F)(T*)>
using Own = std::unique_ptr<T, std::integral_constant<void (*)(T*), F>>;

inline std::string env(const char* name) { return std::getenv(name) ? std::getenv(name) : ""; }

// Runs an entry point's work unless SEALMARK_STANDIN_FAIL names it, and logs.
// STANDIN_ENTRY(name, (parameters), detail, {body}) defines an entry point so.
template <class Work>
int entry(const char* name, const std::string& detail, Work work) {
  const std::string list = "," + env("SEALMARK_STANDIN_FAIL") + ",", key = "," + std::string(name);
  const std::size_t at = list.find(key) == std::string::npos ? 0 : list.find(key) + key.size();
  const int forced = at && list[at] == '=' ? std::atoi(&list[at + 1]) : 0;
  int result = at && (list[at] == ',' || list[at] == '=') && forced != 1900 ? forced : work();
  if (result == 1 && forced == 1900) result = 1900;
  if (std::FILE* log = std::fopen(env("SEALMARK_STANDIN_LOG").c_str(), "a")) {
    std::fprintf(log, "%s %s%s%d\n", name, detail.c_str(), detail.empty() ? "" : " ", result);
    std::fclose(log);
  }
  return result;
}

template <class T>
Bytes der(const T* x, int (*i2d)(const T*, unsigned char**)) {
  unsigned char* p = nullptr;
  const int n = x ? i2d(x, &p) : 0;
  Bytes bytes(p, p + (n > 0 ? n : 0));
  OPENSSL_free(p);
  return bytes;
}
#define STANDIN_ENTRY(name, parameters, detail, ...)                      \
  extern "C" __attribute__((visibility("default"))) int name parameters { \
    return standin::entry(#name, detail, [&]() -> int __VA_ARGS__);       \
  }

inline Own<EVP_PKEY, EVP_PKEY_free> tsaKey() {
  Own<BIO, BIO_free_all> in(BIO_new_file(env("SEALMARK_STANDIN_TSA_KEY").c_str(), "r"));
  return Own<EVP_PKEY, EVP_PKEY_free>(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr)
                                         : nullptr);
}
inline Own<X509, X509_free> tsaCert() {
  Own<BIO, BIO_free_all> in(BIO_new_file(env("SEALMARK_STANDIN_TSA_CERT").c_str(), "r"));
  return Own<X509, X509_free>(in ? PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr) : nullptr);
}

// The tokens of their own format, framed as one DER SEQUENCE (30 82 LL LL)
// so that a signature can carry them as an attribute value: this head, the
// DER certificate of the authority, then the authority's SHA-256 signature
// over both.
struct OwnHead {
  char magic[4];  // "SMTK"
  char oid[32];   // of the imprint's hash, NUL-terminated
  unsigned char digest[64];
  std::uint32_t digestLength;
  std::uint32_t certLength;
  char time[24];  // NUL-terminated
};

inline Bytes makeOwnToken(const char* oid, const unsigned char* digest, unsigned length,
                          const char* timeFormat) {
  const Own<EVP_PKEY, EVP_PKEY_free> key = tsaKey();
  const Bytes cert = der<X509>(tsaCert().get(), i2d_X509);
  OwnHead head{{'S', 'M', 'T', 'K'}, {}, {}, length, std::uint32_t(cert.size()), {}};
  const std::time_t now = std::time(nullptr);
  std::strftime(head.time, sizeof head.time, timeFormat, std::gmtime(&now));
  std::strncpy(head.oid, oid, sizeof head.oid - 1);
  std::memcpy(head.digest, digest, length);
  Bytes token(reinterpret_cast<unsigned char*>(&head), reinterpret_cast<unsigned char*>(&head + 1)), sig(512);
  token.insert(token.end(), cert.begin(), cert.end());
  Own<EVP_MD_CTX, EVP_MD_CTX_free> ctx(EVP_MD_CTX_new());
  std::size_t n = sig.size();
  if (!key || cert.empty() || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
      EVP_DigestSign(ctx.get(), sig.data(), &n, token.data(), token.size()) != 1)
    return {};
  token.insert(token.end(), sig.begin(), sig.begin() + n);
  const Bytes frame{0x30, 0x82, static_cast<unsigned char>(token.size() >> 8),
                    static_cast<unsigned char>(token.size())};
  token.insert(token.begin(), frame.begin(), frame.end());
  return token;
}

// Reads a token of the own format; false unless its bounds hold and the
// certificate in it verifies its signature.
inline bool readOwnToken(const unsigned char* p, std::size_t n, OwnHead& head, Bytes& cert) {
  if (!p || n <= 4 + sizeof head || p[0] != 0x30 || p[1] != 0x82 || std::size_t(p[2] << 8 | p[3]) != n - 4)
    return false;
  p += 4;
  n -= 4;
  std::memcpy(&head, p, sizeof head);
  if (std::memcmp(head.magic, "SMTK", 4) != 0 || !std::memchr(head.oid, 0, sizeof head.oid) ||
      !std::memchr(head.time, 0, sizeof head.time) || head.digestLength > 64 ||
      head.certLength >= n - sizeof head)
    return false;
  const unsigned char *signedEnd = p + sizeof head + head.certLength, *q = p + sizeof head;
  cert.assign(q, signedEnd);
  Own<X509, X509_free> x509(d2i_X509(nullptr, &q, head.certLength));
  Own<EVP_MD_CTX, EVP_MD_CTX_free> ctx(EVP_MD_CTX_new());
  return x509 &&
         EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, X509_get0_pubkey(x509.get())) == 1 &&
         EVP_DigestVerify(ctx.get(), signedEnd, p + n - signedEnd, p, signedEnd - p) == 1;
}

// Copies bytes into an output buffer of capacity; false when they don't fit.
inline bool put(const Bytes& bytes, unsigned char* out, std::uint32_t capacity, std::uint32_t* length) {
  if (!out || !length || bytes.empty() || bytes.size() > capacity) return false;
  std::memcpy(out, bytes.data(), bytes.size());
  *length = std::uint32_t(bytes.size());
  return true;
}

}  // namespace standin
