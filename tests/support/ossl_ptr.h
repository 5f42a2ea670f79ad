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

// One owner type per OpenSSL free function.
template <typename T, void (*Free)(T*)>
struct Freer {
  void operator()(T* p) const { Free(p); }
};
template <typename T, void (*Free)(T*)>
using OwnedPtr = std::unique_ptr<T, Freer<T, Free>>;

using BioPtr = OwnedPtr<BIO, BIO_free_all>;
using Pkcs7Ptr = OwnedPtr<PKCS7, PKCS7_free>;
using SignerInfoPtr = OwnedPtr<PKCS7_SIGNER_INFO, PKCS7_SIGNER_INFO_free>;
using Asn1StringPtr = OwnedPtr<ASN1_STRING, ASN1_STRING_free>;
using X509NamePtr = OwnedPtr<X509_NAME, X509_NAME_free>;
using X509ExtensionPtr = OwnedPtr<X509_EXTENSION, X509_EXTENSION_free>;
using MdCtxPtr = OwnedPtr<EVP_MD_CTX, EVP_MD_CTX_free>;

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
