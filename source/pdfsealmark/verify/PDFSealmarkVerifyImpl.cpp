#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"

#include <openssl/evp.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <memory>
#include <new>

#include "pdfsealmark/check/signer_info_check.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/verify/shared_certificates.h"
#include "pdfsealmark/verify/signer_info.h"

namespace PDF_Sealmark {

using PDF_Vellum::PDFAcroform;
using PDF_Vellum::PDFDictionary;
using PDF_Vellum::PDFIndirect;
using PDF_Vellum::PDFName;
using PDF_Vellum::PDFObject;
using PDF_Vellum::PDFSmartPtr;

// --- byte range -------------------------------------------------------------

bool ByteRange::isValid() const {
  return offset1 >= 0 && length1 >= 0 && offset2 > 0 && length2 > 0 && offset1 + length1 <= offset2;
}

ByteRange ByteRange::of(PDFAcroform& sigDict) {
  ByteRange r;
  sigDict.getByteRange(r.offset1, r.length1, r.offset2, r.length2);
  return r;
}

namespace {

// The signed bytes: the first range, then the second directly behind it,
// in one zero-filled block.  Large blocks are fresh anonymous mappings, which
// come zeroed from the kernel, with transparent huge pages asked for: with 4
// KiB pages, faulting in a 100 MB buffer costs about as much as hashing it.
class SignedBytes {
 public:
  SignedBytes() = default;
  SignedBytes(const SignedBytes&) = delete;
  SignedBytes& operator=(const SignedBytes&) = delete;
  ~SignedBytes() { release(); }

  void allocate(std::size_t size) {
    release();
    if (size >= kMapThreshold) {
      void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
      if (p == MAP_FAILED) throw std::bad_alloc();
      // Both are only advice: where refused, pages are faulted in as read.
      ::madvise(p, size, MADV_HUGEPAGE);
#ifdef MADV_POPULATE_WRITE
      ::madvise(p, size, MADV_POPULATE_WRITE);
#endif
      data_ = static_cast<unsigned char*>(p);
      mapped_ = true;
    } else {
      data_ = static_cast<unsigned char*>(std::calloc(size ? size : 1, 1));
      if (!data_) throw std::bad_alloc();
    }
    size_ = size;
  }
  unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  static constexpr std::size_t kMapThreshold = 4u << 20;
  void release() {
    if (!data_) return;
    if (mapped_) {
      ::munmap(data_, size_);
    } else {
      std::free(data_);
    }
    data_ = nullptr;
    size_ = 0;
    mapped_ = false;
  }
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
  bool mapped_ = false;
};

// Reads the two ranges from the document.  Ranges that reach past the end of
// the file can't be what this file's signer signed, so they give nothing
// rather than a buffer of attacker-chosen size padded with zeros.
bool readSignedBytes(PDF_Vellum::PDFDocument& doc, const ByteRange& r, SignedBytes& out) {
  const auto fileSize = doc.getFileSize();
  const auto end1 = static_cast<std::uint64_t>(r.offset1) + static_cast<std::uint64_t>(r.length1);
  const auto end2 = static_cast<std::uint64_t>(r.offset2) + static_cast<std::uint64_t>(r.length2);
  if (end1 > fileSize || end2 > fileSize) return false;
  std::istream* in = doc.getIstream();
  if (!in) return false;
  out.allocate(static_cast<std::size_t>(r.length1) + static_cast<std::size_t>(r.length2));
  char* buf = reinterpret_cast<char*>(out.data());
  in->seekg(r.offset1);
  in->read(buf, r.length1);
  in->seekg(r.offset2);
  in->read(buf + r.length1, r.length2);
  return true;
}

}  // namespace

const char* digestNameOfLength(std::size_t length) {
  switch (length) {
    case 20:
      return "sha1";
    case 32:
      return "sha256";
    case 48:
      return "sha384";
    case 64:
      return "sha512";
    default:
      return nullptr;
  }
}

bool checkContentDigest(PKCS7* p7, const unsigned char* data, std::size_t size) {
  if (!p7 || !PKCS7_type_is_signed(p7) || !p7->d.sign || !p7->d.sign->contents || !data || size == 0) {
    return false;
  }
  PKCS7* inner = p7->d.sign->contents;
  if (!PKCS7_type_is_data(inner)) return false;
  const ASN1_OCTET_STRING* content = inner->d.data;
  if (!content) return false;
  const char* name = digestNameOfLength(static_cast<std::size_t>(ASN1_STRING_length(content)));
  if (!name) return false;
  const EVP_MD* md = EVP_get_digestbyname(name);
  if (!md) return false;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digestLen = 0;
  ossl::UniquePtr<EVP_MD_CTX> ctx(EVP_MD_CTX_new());
  if (!ctx || !EVP_DigestInit(ctx.get(), md) || !EVP_DigestUpdate(ctx.get(), data, size) ||
      !EVP_DigestFinal(ctx.get(), digest, &digestLen)) {
    return false;
  }
  const auto expected = static_cast<unsigned int>(ASN1_STRING_length(content));
  return digestLen == expected && std::memcmp(digest, ASN1_STRING_get0_data(content), expected) == 0;
}

// --- the object -------------------------------------------------------------

PDFSealmarkVerifyImpl::PDFSealmarkVerifyImpl() { clear(); }

PDFSealmarkVerifyImpl::~PDFSealmarkVerifyImpl() { clear(); }

icu::UnicodeString PDFSealmarkVerifyImpl::getClassName() const {
  return icu::UnicodeString("PDFSealmarkVerifyImpl", -1, icu::UnicodeString::kInvariant);
}

void PDFSealmarkVerifyImpl::clear() {
  hasParsed = false;
  pageNum = 0;
  sigPtr = nullptr;
  acroform = nullptr;
  delete sigDict;
  sigDict = nullptr;
  doc = nullptr;
  PKCS7_free(pkcs7);
  pkcs7 = nullptr;
  PKCS7_free(tsPkcs7);
  tsPkcs7 = nullptr;
  tsToken.clear();
  tsKind = kNoTimeStamp;
}

bool PDFSealmarkVerifyImpl::parse(PDF_Folio::CSigField* field) {
  clear();
  sigPtr = field;
  if (!sigPtr) return false;
  acroform = sigPtr->getacroform();
  if (!acroform) return false;
  doc = acroform->getDoc();
  if (!doc) return false;

  PDFSmartPtr<PDFDictionary> fieldDict = acroform->getAcroformDic();
  PDFObject* value = fieldDict ? fieldDict->getValueOf(PDFName("/V")) : nullptr;
  if (value) {
    // In an encrypted document the dictionary is read twice: first with its
    // strings as stored, since /Contents is never encrypted and must be
    // decoded from the file's bytes, then decrypted for everything else.
    PDFSmartPtr<PDFIndirect> ref(value);
    bool encryptedRead = false;
    PDFSmartPtr<PDFDictionary> dict;
    if (ref) {
      encryptedRead = doc->isEncrypted();
      dict = doc->parseIndirectObj(ref.get(), !encryptedRead);
    } else {
      dict = value;
    }
    if (!dict) return false;

    sigDict = new PDFAcroform(dict, doc);

    PDFObject* filter = sigDict->getContents("/Filter");
    if (!filter) return false;
    static const char kPfuFilter[] = "/PFUP.TimeStamp";
    const std::size_t kPfuLen = sizeof kPfuFilter - 1;
    if (filter->getString() && filter->getLenth() >= static_cast<long>(kPfuLen) &&
        std::memcmp(filter->getString(), kPfuFilter, kPfuLen) == 0) {
      tsKind = kPfuFilterTimeStamp;
    }

    PDFObject* contents = sigDict->getContents("/Contents");
    if (!contents) return false;
    const long len = contents->getLenth();
    if (contents->getString() && len > 0 && len <= INT_MAX) {
      const auto* bytes = reinterpret_cast<const unsigned char*>(contents->getString());
      pkcs7 = decodeSharingCertificates(bytes, static_cast<std::size_t>(len));
      if (!pkcs7) {
        ossl::UniquePtr<BIO> source(BIO_new_mem_buf(bytes, static_cast<int>(len)));
        if (source) pkcs7 = d2i_PKCS7_bio(source.get(), nullptr);
      }
    }
    if (!pkcs7) {
      delete sigDict;
      sigDict = nullptr;
    } else {
      findTimeStampToken();
    }

    if (encryptedRead && sigDict) {
      PDFSmartPtr<PDFDictionary> decrypted(doc->parseIndirectObj(ref.get(), true));
      sigDict->setAcroformDic(decrypted.get());
    }
  }

  pageNum = findPage();
  if (pageNum <= 0) return false;
  hasParsed = true;
  return true;
}

// The token is the unsigned attribute id-smime-aa-timeStampToken of a signer
// info; when several carry one, the last decides.
void PDFSealmarkVerifyImpl::findTimeStampToken() {
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(pkcs7);
  if (!infos) return;
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(infos); ++i) {
    PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, i);
    if (!si) break;
    ASN1_TYPE* attr = PKCS7_get_attribute(si, NID_id_smime_aa_timeStampToken);
    if (!attr || attr->type != V_ASN1_SEQUENCE || !attr->value.sequence) continue;
    const ASN1_STRING* token = attr->value.sequence;
    const unsigned char* bytes = ASN1_STRING_get0_data(token);
    const int length = ASN1_STRING_length(token);
    tsToken.assign(bytes, bytes + (length > 0 ? length : 0));
    PKCS7_free(tsPkcs7);
    const unsigned char* p = tsToken.data();
    tsPkcs7 = tsToken.empty() ? nullptr : decodeSharingCertificates(p, tsToken.size());
    if (!tsPkcs7 && !tsToken.empty()) tsPkcs7 = d2i_PKCS7(nullptr, &p, static_cast<long>(tsToken.size()));
    if (tsKind != kPfuFilterTimeStamp) {
      if (tsPkcs7) {
        tsKind = kRfc3161TimeStamp;
      } else if (!tsToken.empty()) {
        tsKind = kServiceTimeStamp;
      }
    }
  }
}

// A page reference that matches none of the document's pages counts as the
// last page.
std::int32_t PDFSealmarkVerifyImpl::findPage() const {
  PDFSmartPtr<PDFIndirect> fieldPage(acroform->getPageIndirect());
  if (!fieldPage) return 0;
  const int count = doc->getPageNum();
  for (int i = 1; i <= count; ++i) {
    PDF_Vellum::PDFPage* page = doc->getPage(i);
    PDFSmartPtr<PDFIndirect> ref(page ? page->getPageIndObj() : nullptr);
    if (!ref) return 0;
    if (ref->getObjNum() == fieldPage->getObjNum()) return i;
  }
  return count;
}

bool PDFSealmarkVerifyImpl::verify() const {
  if (!hasParsed || !sigDict || !pkcs7) return false;
  const ByteRange range = ByteRange::of(*sigDict);
  if (!range.isValid()) return false;

  SignedBytes bytes;
  if (!readSignedBytes(*doc, range, bytes)) return false;
  // A memory source takes an int length.
  if (bytes.size() > static_cast<std::size_t>(INT_MAX)) return false;

  ossl::UniquePtr<BIO> source;
  ossl::UniquePtr<BIO> chain;
  const bool detached = PKCS7_ctrl(pkcs7, PKCS7_OP_GET_DETACHED_SIGNATURE, 0, nullptr) != 0;
  if (detached) {
    // The signed bytes are pushed through the digests into a sink rather
    // than read out of a memory source: the same digests, one copy less.
    source.reset(BIO_new(BIO_s_null()));
    if (!source) return false;
    chain.reset(PKCS7_dataInit(pkcs7, source.get()));
    // On success the chain ends in the source and frees it with itself.
    if (chain) source.release();
  } else {
    chain.reset(PKCS7_dataInit(pkcs7, nullptr));
    if (!checkContentDigest(pkcs7, bytes.data(), bytes.size())) return false;
  }
  if (!chain) return false;

  constexpr std::size_t kStep = 4096;
  if (detached) {
    for (std::size_t at = 0; at < bytes.size(); at += kStep) {
      const std::size_t n = std::min(kStep, bytes.size() - at);
      if (BIO_write(chain.get(), bytes.data() + at, static_cast<int>(n)) != static_cast<int>(n)) return false;
    }
  } else {
    // The embedded content is what the chain reads; reading feeds the digests.
    unsigned char sink[kStep];
    while (BIO_read(chain.get(), sink, sizeof sink) > 0) {
    }
  }

  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(pkcs7);
  if (!infos) return false;
  STACK_OF(X509)* certs = signedDataCertificates(pkcs7);
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(infos); ++i) {
    PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, i);
    if (!si) return false;
    // Any embedded certificate whose key verifies will do; the signer
    // info's issuer and serial don't pick it.
    bool settled = false;
    for (int c = 0; !settled && c < sk_X509_num(certs); ++c) {
      settled = PKCS7_signatureVerify(chain.get(), pkcs7, si, sk_X509_value(certs, c)) > 0;
    }
    // PKCS7_signatureVerify knows PKCS#1 v1.5, DSA and ECDSA only; the
    // question is whether a key of the object signed these bytes, so other
    // algorithms (RSASSA-PSS, EdDSA) are checked through EVP.
    if (!settled && si->digest_alg) {
      const ASN1_OCTET_STRING* content = detached ? nullptr : pkcs7->d.sign->contents->d.data;
      const std::vector<unsigned char> digest =
          detached ? digestWith(si->digest_alg, bytes.data(), bytes.size())
                   : digestWith(si->digest_alg, ASN1_STRING_get0_data(content),
                                static_cast<std::size_t>(ASN1_STRING_length(content)));
      for (int c = 0; !settled && c < sk_X509_num(certs); ++c) {
        settled = verifySignerInfo(si, sk_X509_value(certs, c), digest);
      }
    }
    if (!settled) return false;
  }
  return true;
}

bool PDFSealmarkVerifyImpl::getContents(std::ostream& out) const {
  if (!hasParsed || !sigDict) return false;
  PDFObject* contents = sigDict->getContents("/Contents");
  if (!contents) return false;
  if (contents->getString() && contents->getLenth() > 0) {
    out.write(contents->getString(), contents->getLenth());
  }
  return true;
}

}  // namespace PDF_Sealmark
