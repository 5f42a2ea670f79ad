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

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "pdfsealmark/timestamp/closed_records.h"

namespace standin {
using namespace PDF_Sealmark::closed_records;
using Bytes = std::vector<unsigned char>;
template <class T, void (*F)(T*)>
struct Free {
  void operator()(T* p) const { F(p); }
};
using Key = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY, EVP_PKEY_free>>;
using Cert = std::unique_ptr<X509, Free<X509, X509_free>>;
using MdCtx = std::unique_ptr<EVP_MD_CTX, Free<EVP_MD_CTX, EVP_MD_CTX_free>>;

inline std::string env(const char* name) { return std::getenv(name) ? std::getenv(name) : ""; }

// Runs an entry point's work unless SEALMARK_STANDIN_FAIL names it, and logs.
template <class Work>
int entry(const char* name, const std::string& detail, Work work) {
  const std::string list = "," + env("SEALMARK_STANDIN_FAIL") + ",";
  const std::size_t at = list.find("," + std::string(name));
  const char next = at == std::string::npos ? 0 : list[at + 1 + std::strlen(name)];
  const int forced = next == '=' ? std::atoi(&list[at + 2 + std::strlen(name)]) : 0;
  int result = (next == ',' || next == '=') && forced != 1900 ? forced : work();
  if (result == 1 && forced == 1900) result = 1900;
  if (std::FILE* log = std::fopen(env("SEALMARK_STANDIN_LOG").c_str(), "a")) {
    std::fprintf(log, "%s %s%s%d\n", name, detail.c_str(), detail.empty() ? "" : " ", result);
    std::fclose(log);
  }
  return result;
}

template <class T, T* (*Read)(BIO*, T**, pem_password_cb*, void*)>
T* readPem(const char* variable) {
  std::unique_ptr<BIO, Free<BIO, BIO_free_all>> bio(BIO_new_file(env(variable).c_str(), "r"));
  return bio ? Read(bio.get(), nullptr, nullptr, nullptr) : nullptr;
}
inline Key tsaKey() { return Key(readPem<EVP_PKEY, PEM_read_bio_PrivateKey>("SEALMARK_STANDIN_TSA_KEY")); }
inline Cert tsaCert() { return Cert(readPem<X509, PEM_read_bio_X509>("SEALMARK_STANDIN_TSA_CERT")); }

// Hashes by OID text, as the libraries know them (MD5 too).
struct Hash {
  int number;
  const char* oid;
  const char* name;
};
constexpr Hash kHashes[] = {{1, "1.3.14.3.2.26", "SHA1"},
                            {2, "1.2.840.113549.2.5", "MD5"},
                            {3, "2.16.840.1.101.3.4.2.1", "SHA256"},
                            {4, "2.16.840.1.101.3.4.2.2", "SHA384"},
                            {5, "2.16.840.1.101.3.4.2.3", "SHA512"}};
inline const Hash* hashBy(int number, const char* oid = nullptr) {
  for (const Hash& h : kHashes)
    if (h.number == number || (oid && std::strcmp(oid, h.oid) == 0)) return &h;
  return nullptr;
}
inline int digestSize(const Hash* h) { return h ? EVP_MD_get_size(EVP_get_digestbyname(h->name)) : -1; }

// The tokens of their own format: this head, the DER certificate of the
// authority, then the authority's SHA-256 signature over both.
struct OwnHead {
  char magic[4];  // "SMTK"
  char oid[32];   // of the imprint's hash, NUL-terminated
  unsigned char digestLength;
  unsigned char digest[64];
  char time[24];                // NUL-terminated
  unsigned char certLength[2];  // big-endian
};

inline bool signOrVerify(bool sign, EVP_PKEY* key, const unsigned char* p, std::size_t n, Bytes& sig) {
  MdCtx ctx(EVP_MD_CTX_new());
  std::size_t length = 512;
  if (sign) sig.resize(length);
  const bool ok = sign ? EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
                             EVP_DigestSign(ctx.get(), sig.data(), &length, p, n) == 1
                       : EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
                             EVP_DigestVerify(ctx.get(), sig.data(), sig.size(), p, n) == 1;
  if (sign) sig.resize(ok ? length : 0);
  return ok;
}

inline Bytes makeOwnToken(const char* oid, const unsigned char* digest, unsigned length, const char* format) {
  Key key = tsaKey();
  Cert cert = tsaCert();
  unsigned char* der = nullptr;
  const int derLength = cert ? i2d_X509(cert.get(), &der) : -1;
  OwnHead head{{'S', 'M', 'T', 'K'}, {}, static_cast<unsigned char>(length), {}, {}, {}};
  const std::time_t now = std::time(nullptr);
  std::strftime(head.time, sizeof head.time, format, std::gmtime(&now));
  std::strncpy(head.oid, oid, sizeof head.oid - 1);
  std::memcpy(head.digest, digest, length);
  head.certLength[0] = static_cast<unsigned char>(derLength >> 8);
  head.certLength[1] = static_cast<unsigned char>(derLength);
  Bytes token(reinterpret_cast<unsigned char*>(&head), reinterpret_cast<unsigned char*>(&head + 1)), sig;
  if (derLength > 0) token.insert(token.end(), der, der + derLength);
  OPENSSL_free(der);
  if (!key || derLength <= 0 || !signOrVerify(true, key.get(), token.data(), token.size(), sig)) return {};
  token.insert(token.end(), sig.begin(), sig.end());
  return token;
}

// Reads a token of the own format; false unless its bounds hold and the
// certificate in it verifies its signature.
inline bool readOwnToken(const unsigned char* p, std::size_t n, OwnHead& head, Bytes& cert) {
  if (!p || n <= sizeof head) return false;
  std::memcpy(&head, p, sizeof head);
  const std::size_t certLength = head.certLength[0] << 8 | head.certLength[1];
  if (std::memcmp(head.magic, "SMTK", 4) != 0 || !std::memchr(head.oid, 0, sizeof head.oid) ||
      !std::memchr(head.time, 0, sizeof head.time) || head.digestLength > 64 || certLength >= n - sizeof head)
    return false;
  cert.assign(p + sizeof head, p + sizeof head + certLength);
  const unsigned char* q = cert.data();
  Cert x509(d2i_X509(nullptr, &q, static_cast<long>(certLength)));
  Bytes sig(p + sizeof head + certLength, p + n);
  return x509 && signOrVerify(false, X509_get0_pubkey(x509.get()), p, sizeof head + certLength, sig);
}

// Copies bytes into an output buffer of capacity; false when they don't fit.
inline bool put(const Bytes& bytes, unsigned char* out, std::uint32_t capacity, std::uint32_t* length) {
  if (!out || !length || bytes.empty() || bytes.size() > capacity) return false;
  std::memcpy(out, bytes.data(), bytes.size());
  *length = static_cast<std::uint32_t>(bytes.size());
  return true;
}

}  // namespace standin
