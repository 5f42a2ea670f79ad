// Internal: owning handles for the OpenSSL objects the builder touches.
#pragma once

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "pdf_builder.h"

namespace sealtest::detail {

struct BioDeleter {
  void operator()(BIO* p) const { BIO_free_all(p); }
};
struct Pkcs7Deleter {
  void operator()(PKCS7* p) const { PKCS7_free(p); }
};
struct SignerInfoDeleter {
  void operator()(PKCS7_SIGNER_INFO* p) const { PKCS7_SIGNER_INFO_free(p); }
};
struct Asn1StringDeleter {
  void operator()(ASN1_STRING* p) const { ASN1_STRING_free(p); }
};
struct X509NameDeleter {
  void operator()(X509_NAME* p) const { X509_NAME_free(p); }
};
struct X509ExtensionDeleter {
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};

using BioPtr = std::unique_ptr<BIO, BioDeleter>;
using Pkcs7Ptr = std::unique_ptr<PKCS7, Pkcs7Deleter>;
using SignerInfoPtr = std::unique_ptr<PKCS7_SIGNER_INFO, SignerInfoDeleter>;
using Asn1StringPtr = std::unique_ptr<ASN1_STRING, Asn1StringDeleter>;
using X509NamePtr = std::unique_ptr<X509_NAME, X509NameDeleter>;
using X509ExtensionPtr = std::unique_ptr<X509_EXTENSION, X509ExtensionDeleter>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

// Throws with OpenSSL's queued error text appended.
[[noreturn]] void throwOpenSsl(const std::string& what);

inline void check(int ok, const char* what) {
  if (ok <= 0) throwOpenSsl(what);
}
template <typename T>
T* check(T* p, const char* what) {
  if (p == nullptr) throwOpenSsl(what);
  return p;
}

const EVP_MD* mdFor(Digest d);

struct ByteSpan {
  const unsigned char* data;
  std::size_t size;
};

// Builds the DER blob for /Contents from the signed byte-range pieces.
Bytes makeCms(const SignatureOptions& options,
              const std::vector<ByteSpan>& signedBytes);

// Digest of the concatenated pieces.
Bytes digestOf(Digest d, const std::vector<ByteSpan>& pieces);

}  // namespace sealtest::detail
