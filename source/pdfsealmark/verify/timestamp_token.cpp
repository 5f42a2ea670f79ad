// The time stamp a signature carries over its own signature value: is there
// one, does it hold, and what it says.  Nothing here reads the document;
// everything works on what parse kept.
//
// Tokens come from three places: an RFC 3161 token (PKCS#7, checked here
// with OpenSSL), a token of a closed service that isn't PKCS#7 (only that
// service's library can read it), and a "/PFUP.TimeStamp" signature, whose
// token is read by the PFU library or, when PKCS#7, here once that library
// loads.  Nothing in the file says which closed library made a token, so
// the one that loads is used, in a fixed order per question.
#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <openssl/ts.h>

#include <cstring>

#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/outside/TesseraCommon.h"
#include "pdfsealmark/timestamp/closed_services.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"
#include "pdfsealmark/verify/signer_info.h"

namespace PDF_Sealmark {

namespace {

// The imprint of an RFC 3161 token; null when the token can't be taken
// apart that far.
const ASN1_OCTET_STRING* imprintOf(PKCS7* token, ossl::UniquePtr<TS_TST_INFO>& info) {
  info.reset(PKCS7_to_TS_TST_INFO(token));
  if (!info) return nullptr;
  TS_MSG_IMPRINT* imprint = TS_TST_INFO_get_msg_imprint(info.get());
  if (!imprint) return nullptr;
  const ASN1_OCTET_STRING* hashed = TS_MSG_IMPRINT_get_msg(imprint);
  if (!hashed || ASN1_STRING_length(hashed) <= 0) return nullptr;
  return hashed;
}

// Does a certificate of the token verify every signer info over the
// token's own content?  -1 when the token can't be run through at all.
int tokenSignatureHolds(PKCS7* token) {
  if (PKCS7_ctrl(token, PKCS7_OP_GET_DETACHED_SIGNATURE, 0, nullptr) != 0) return -1;
  ossl::UniquePtr<BIO> chain(PKCS7_dataInit(token, nullptr));
  if (!chain) return -1;
  unsigned char sink[4096];
  while (BIO_read(chain.get(), sink, sizeof sink) > 0) {
  }
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(token);
  if (!infos) return -1;
  STACK_OF(X509)* certs = signedDataCertificates(token);
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(infos); ++i) {
    PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, i);
    if (!si) return -1;
    bool settled = false;
    for (int c = 0; !settled && c < sk_X509_num(certs); ++c) {
      settled = PKCS7_signatureVerify(chain.get(), token, si, sk_X509_value(certs, c)) > 0;
    }
    if (!settled) return 0;
  }
  return 1;
}

}  // namespace

bool PDFSealmarkVerifyImpl::getHasTimeStamp() const {
  if (!hasParsed || !sigDict) return false;
  switch (tsKind) {
    case kRfc3161TimeStamp:
      return tsPkcs7 != nullptr;
    case kServiceTimeStamp:
    case kPfuFilterTimeStamp:
      return !tsToken.empty();
    default:
      return false;
  }
}

// The wanted length picks the digest (32, 48, 64: SHA-2; anything else
// becomes 20 and SHA-1), taken over the first signer info's signature value.
bool PDFSealmarkVerifyImpl::getSignatureDigest(std::vector<unsigned char>& digest,
                                               std::vector<unsigned char>& value) const {
  if (!pkcs7) return false;
  const char* name = digestNameOfLength(digest.size());
  if (!name) {
    name = "sha1";
    digest.resize(20);
  }
  const EVP_MD* md = EVP_get_digestbyname(name);
  if (!md || digest.size() != static_cast<std::size_t>(EVP_MD_get_size(md))) return false;
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(pkcs7);
  if (sk_PKCS7_SIGNER_INFO_num(infos) <= 0) return false;
  PKCS7_SIGNER_INFO* first = sk_PKCS7_SIGNER_INFO_value(infos, 0);
  if (!first || !first->enc_digest) return false;
  const unsigned char* bytes = ASN1_STRING_get0_data(first->enc_digest);
  const int length = ASN1_STRING_length(first->enc_digest);
  if (length < 0) return false;
  unsigned int size = 0;
  if (EVP_Digest(bytes, static_cast<std::size_t>(length), digest.data(), &size, md, nullptr) != 1)
    return false;
  value.assign(bytes, bytes + length);
  return true;
}

int PDFSealmarkVerifyImpl::verifyTimeStamp() const {
  constexpr int kHolds = 0, kFails = 1, kNotForThis = 2, kUnknown = 3;
  if (!hasParsed || tsToken.empty()) return kUnknown;
  if (!sigDict || !getHasTimeStamp()) return kUnknown;
  if (tsKind == kPfuFilterTimeStamp && !loadPfuLibrary()) return kFails;

  if (!tsPkcs7) {
    std::vector<unsigned char> digest(20), value;
    if (!getSignatureDigest(digest, value)) return kUnknown;
    // The PFU library answers alone when it loads, even if it refuses.
    if (loadPfuLibrary()) return verifyPfuToken(tsToken, value) ? kHolds : kFails;
    if (loadAmanoLibrary()) return verifyAmanoToken(tsToken, value) ? kHolds : kFails;
    return kUnknown;
  }

  ossl::UniquePtr<TS_TST_INFO> info;
  const ASN1_OCTET_STRING* hashed = imprintOf(tsPkcs7, info);
  if (!hashed) return kUnknown;
  // Only the imprint's length picks the digest, not its algorithm.
  const std::size_t length = static_cast<std::size_t>(ASN1_STRING_length(hashed));
  std::vector<unsigned char> digest(length), value;
  if (!getSignatureDigest(digest, value)) return kUnknown;
  if (digest.size() != length || std::memcmp(digest.data(), ASN1_STRING_get0_data(hashed), length) != 0) {
    return kNotForThis;
  }
  const int holds = tokenSignatureHolds(tsPkcs7);
  if (holds < 0) return kUnknown;
  return holds ? kHolds : kFails;
}

bool PDFSealmarkVerifyImpl::getTimeStampToken(std::ostream& out) const {
  if (!hasParsed || !sigDict || !getHasTimeStamp()) return false;
  if (!tsPkcs7) {
    out.write(reinterpret_cast<const char*>(tsToken.data()), static_cast<std::streamsize>(tsToken.size()));
    return true;
  }
  ossl::UniquePtr<BIO> memory(BIO_new(BIO_s_mem()));
  if (!memory || i2d_PKCS7_bio(memory.get(), tsPkcs7) <= 0) return false;
  BUF_MEM* buffer = nullptr;
  BIO_ctrl(memory.get(), BIO_C_GET_BUF_MEM_PTR, 0, &buffer);
  if (buffer && buffer->length > 0) out.write(buffer->data, static_cast<std::streamsize>(buffer->length));
  return true;
}

std::string PDFSealmarkVerifyImpl::getTimeStampDate() const {
  if (!hasParsed || !sigDict || !getHasTimeStamp()) return {};
  std::string text;
  if (!tsPkcs7) {
    // The text is the answer whatever the call says: a PFU failure leaves
    // the library's message in it.
    if (loadPfuLibrary()) {
      getPfuTokenDate(tsToken, text);
    } else if (loadAmanoLibrary()) {
      getAmanoTokenDate(tsToken, text);
    }
    return text;
  }
  ossl::UniquePtr<TS_TST_INFO> info(PKCS7_to_TS_TST_INFO(tsPkcs7));
  const ASN1_GENERALIZEDTIME* time = info ? TS_TST_INFO_get_time(info.get()) : nullptr;
  if (!time) return {};
  return std::string(reinterpret_cast<const char*>(ASN1_STRING_get0_data(time)),
                     static_cast<std::size_t>(ASN1_STRING_length(time)));
}

std::string PDFSealmarkVerifyImpl::getTimeStampType() const {
  if (!hasParsed || !sigDict || !getHasTimeStamp() || !tsPkcs7) return {};
  ossl::UniquePtr<TS_TST_INFO> info;
  const ASN1_OCTET_STRING* hashed = imprintOf(tsPkcs7, info);
  if (!hashed) return {};
  switch (ASN1_STRING_length(hashed)) {
    case 20:
      return "SHA-1(160bit)";
    case 32:
      return "SHA-2(256bit)";
    case 48:
      return "SHA-2(384bit)";
    case 64:
      return "SHA-2(512bit)";
    default:
      return "UNKNOWN";
  }
}

bool PDFSealmarkVerifyImpl::getTimeStampCerts(std::vector<PDFCert>& certs) const {
  if (tsPkcs7) return collectCerts(tsPkcs7, certs);
  if (tsToken.empty()) return false;
  certs.clear();
  for (int index = 0;; ++index) {
    std::vector<unsigned char> der;
    int found = -1;
    if (tsKind == kPfuFilterTimeStamp) {
      found = getPfuTokenCert(tsToken, index, der);
    } else if (loadAmanoLibrary()) {
      found = getAmanoTokenCert(tsToken, index, der);
    } else if (loadPfuLibrary()) {
      found = getPfuTokenCert(tsToken, index, der);
    }
    if (found != 1) break;
    TesseraCommon::TSMemStream stream(nullptr, 8192, false);
    stream.write(reinterpret_cast<const char*>(der.data()), static_cast<std::streamsize>(der.size()));
    stream.clear();
    stream.seekg(0);
    PDFCert cert;
    if (cert.loadX509(stream, true)) certs.push_back(cert);
  }
  return !certs.empty();
}

}  // namespace PDF_Sealmark
