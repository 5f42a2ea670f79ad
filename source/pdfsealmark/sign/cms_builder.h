// Internal: the CMS SignedData of a PDF signature, and RFC 3161 tokens for
// it and for document time stamps.
#ifndef PDFSEALMARK_SIGN_CMS_BUILDER_H
#define PDFSEALMARK_SIGN_CMS_BUILDER_H

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <ctime>
#include <string>
#include <vector>

#include "pdfsealmark/PDFStdTimeStamp.h"

namespace PDF_Sealmark {
namespace sign {

using Bytes = std::vector<unsigned char>;

enum class CmsKind {
  kDetached,  // adbe.pkcs7.detached: signed attributes over the detached bytes
  kCades,     // ETSI.CAdES.detached: signing-certificate-v2, no signing time
  kSha1,      // adbe.pkcs7.sha1: the SHA-1 of the bytes is the encapsulated content
};

struct CmsSigner {
  X509* certificate = nullptr;  // borrowed
  EVP_PKEY* key = nullptr;      // borrowed
  std::vector<X509*> chain;     // borrowed; embedded after the signer's
  const EVP_MD* digest = nullptr;
  CmsKind kind = CmsKind::kDetached;
  std::time_t signingTime = 0;
  const PDF_Vellum::TimeStamp* timeStamp = nullptr;  // borrowed; null for none
};

// The DER of a SignedData over `data`, with a signature time stamp when the
// signer asks for one.  False with why on failure.
bool buildCms(const CmsSigner& signer, const unsigned char* data, std::size_t size, Bytes& der,
              std::string* why);

// A token from `tsa` over the digest of `data` (or of the bytes given),
// taken with the client's hash.  False with why when none came.
bool requestToken(const PDF_Vellum::TimeStamp& tsa, const unsigned char* data, std::size_t size, Bytes& token,
                  std::string* why);

}  // namespace sign
}  // namespace PDF_Sealmark

#endif
