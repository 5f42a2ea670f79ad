// The one-pass check: every signature's digests and the revision markers
// from one sequential read of the file.
#include "pdfsealmark/PDFDocumentCheck.h"

#include <openssl/cms.h>
#include <openssl/objects.h>
#include <openssl/ts.h>

#include <algorithm>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <istream>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/check/revision_markers.h"
#include "pdfsealmark/check/signer_info_check.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/platform/page_buffer.h"
#include "pdfsealmark/timestamp/closed_services.h"
#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"
#include "pdfsealmark/verify/shared_certificates.h"
#include "pdfsealmark/verify/signer_info.h"

namespace PDF_Sealmark {

using Bytes = std::vector<unsigned char>;
using PDF_Vellum::PDFAcroform;
using PDF_Vellum::PDFDictionary;
using PDF_Vellum::PDFIndirect;
using PDF_Vellum::PDFName;
using PDF_Vellum::PDFObject;
using PDF_Vellum::PDFSmartPtr;

PDFDocumentCheck::Signature::Signature() = default;
PDFDocumentCheck::Signature::~Signature() = default;
PDFDocumentCheck::Signature::Signature(const Signature&) = default;
PDFDocumentCheck::Signature& PDFDocumentCheck::Signature::operator=(const Signature&) = default;
PDFDocumentCheck::Result::Result() = default;
PDFDocumentCheck::Result::~Result() = default;
PDFDocumentCheck::Result::Result(const Result&) = default;
PDFDocumentCheck::Result& PDFDocumentCheck::Result::operator=(const Result&) = default;

namespace {

constexpr std::size_t kChunk = 1u << 20;
// A /Contents gap longer than this is no signature value we keep in memory.
constexpr std::uint64_t kMaxGap = 16u << 20;
// Hostile objects may pair many signer infos with many certificates; past
// this many signature checks for one signature it counts as not intact.
constexpr int kMaxAttempts = 1024;
constexpr int kMaxSignerInfos = 64;

// One field's plan for the pass and what it learns.
struct Job {
  PDFDocumentCheck::Signature* out = nullptr;
  PDFSealmarkVerify verifier;  // the field as parsed; owns the PKCS#7
  PKCS7* p7 = nullptr;         // borrowed from verifier, or owned below
  ossl::UniquePtr<PKCS7> ownedP7;
  Bytes contents;            // /Contents as stored
  bool embedded = false;     // adbe.pkcs7.sha1: the content is a digest
  bool rsaSha1 = false;      // adbe.x509.rsa_sha1
  std::vector<X509*> certs;  // the object's certificates, each once
  ossl::UniquePtr<STACK_OF(X509)> ownedCerts;
  std::vector<std::unique_ptr<ContentDigest>> digests;  // fed with the ranges
  std::uint64_t range[4] = {0, 0, 0, 0};
  bool feed = false;
  Bytes gap;
  bool gapTooLong = false;

  void consume(const unsigned char* data, std::size_t size, std::uint64_t base) {
    const std::uint64_t end = base + size;
    for (int r = 0; r < 2; ++r) {
      const std::uint64_t from = std::max(base, range[2 * r]);
      const std::uint64_t to = std::min(end, range[2 * r] + range[2 * r + 1]);
      if (from < to) {
        for (auto& d : digests) d->update(data + (from - base), static_cast<std::size_t>(to - from));
      }
    }
    const std::uint64_t gapFrom = std::max(base, range[0] + range[1]);
    const std::uint64_t gapTo = std::min(end, range[2]);
    if (gapFrom < gapTo && !gapTooLong) gap.insert(gap.end(), data + (gapFrom - base), data + (gapTo - base));
  }
};

std::string stringOf(PDFObject* value) {
  if (!value || !value->getString() || value->getLenth() <= 0) return {};
  return std::string(value->getString(), static_cast<std::size_t>(value->getLenth()));
}

// Version 3 certificates first, each once, as the seed's callers expect.
void listCertificates(Job& job) {
  STACK_OF(X509)* set = job.p7 ? signedDataCertificates(job.p7) : job.ownedCerts.get();
  std::vector<X509*> older;
  for (int i = 0; i < sk_X509_num(set); ++i) {
    X509* cert = sk_X509_value(set, i);
    if (!cert) continue;
    auto seen = [&](const std::vector<X509*>& list) {
      return std::any_of(list.begin(), list.end(), [&](X509* c) { return X509_cmp(c, cert) == 0; });
    };
    if (seen(job.certs) || seen(older)) continue;
    (X509_get_version(cert) > 1 ? job.certs : older).push_back(cert);
  }
  job.certs.insert(job.certs.end(), older.begin(), older.end());
}

// Once the signature is judged, its certificates move out of the PKCS#7
// object into the result, rather than being copied: on a small file,
// decoding each certificate once more was a tenth of the work.
void handOverCertificates(Job& job) {
  STACK_OF(X509)* set = job.p7 ? signedDataCertificates(job.p7) : job.ownedCerts.get();
  for (X509* cert : job.certs) {
    ossl::UniquePtr<X509> taken;
    for (int i = 0; !taken && i < sk_X509_num(set); ++i) {
      if (sk_X509_value(set, i) == cert) taken.reset(sk_X509_delete(set, i));
    }
    job.out->certificates.push_back(taken ? adoptPDFCert(std::move(taken)) : makePDFCert(cert));
  }
  job.certs.clear();
}

std::optional<Bytes> decodeHex(const Bytes& gap) {
  Bytes out;
  int high = -1;
  for (std::size_t i = 1; i + 1 < gap.size(); ++i) {
    const int c = gap[i];
    if (std::isspace(c)) continue;
    if (!std::isxdigit(c)) return std::nullopt;
    const int v = std::isdigit(c) ? c - '0' : (std::tolower(c) - 'a' + 10);
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<unsigned char>(high * 16 + v));
      high = -1;
    }
  }
  if (high >= 0) out.push_back(static_cast<unsigned char>(high * 16));
  return out;
}

void judgeCoverage(Job& job, std::uint64_t fileSize) {
  PDFDocumentCheck::Signature& s = *job.out;
  std::string& why = s.coverageProblem;
  const std::uint64_t signedEnd = job.range[2] + job.range[3];
  if (job.range[0] != 0) {
    why = std::to_string(job.range[0]) + " bytes before the first range are not signed";
  } else if (job.gapTooLong || job.gap.size() < 2) {
    why = "the gap between the ranges is not the signature value";
  } else if (job.gap.front() != '<') {
    why = std::string("the gap between the ranges starts ") +
          (std::isxdigit(job.gap.front()) ? "inside" : "outside") + " the signature value";
  } else if (job.gap.back() != '>') {
    why = std::string("the gap between the ranges ends ") +
          (std::isxdigit(job.gap.back()) ? "inside" : "outside") + " the signature value";
  } else if (decodeHex(job.gap) != std::optional<Bytes>(job.contents)) {
    why = "the gap between the ranges is not this signature's /Contents";
  } else if (signedEnd > fileSize) {
    why = "the second range reaches past the end of the file";
  } else if (signedEnd != fileSize) {
    why = std::to_string(fileSize - signedEnd) + " bytes after the second range are not signed";
  }
  s.coversWholeDocument = why.empty();
}

// Checks every signer info; digestFor gives the digest of the content in
// the signer info's own algorithm.  Candidates are the certificates the
// signer info names first, then the others, so a signature made by any key
// in the object counts, as it does for PDFSealmarkVerify::verify.
// firstSigner, when given, receives the certificate whose key made the first
// signer info.
bool checkSignerInfos(PKCS7* p7, const std::vector<X509*>& certs,
                      const std::function<Bytes(PKCS7_SIGNER_INFO*)>& digestFor, std::string& problem,
                      X509** firstSigner = nullptr) {
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(p7);
  if (!infos) {
    problem = "the PKCS#7 object is not signed data";
    return false;
  }
  if (sk_PKCS7_SIGNER_INFO_num(infos) > kMaxSignerInfos) {
    problem = "too many signer infos";
    return false;
  }
  int attempts = 0;
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(infos); ++i) {
    PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, i);
    if (!si) return false;
    const Bytes digest = si->digest_alg ? digestFor(si) : Bytes();
    if (digest.empty()) {
      problem = "unknown digest algorithm in signer info " + std::to_string(i + 1);
      return false;
    }
    std::vector<X509*> order;
    for (X509* c : certs) {
      if (signerInfoNames(si, c)) order.push_back(c);
    }
    for (X509* c : certs) {
      if (!signerInfoNames(si, c)) order.push_back(c);
    }
    bool settled = false;
    for (std::size_t c = 0; !settled && c < order.size(); ++c) {
      if (++attempts > kMaxAttempts) {
        problem = "too many signer infos and certificates to check";
        return false;
      }
      settled = verifySignerInfo(si, order[c], digest);
      if (settled && i == 0 && firstSigner) *firstSigner = order[c];
    }
    if (!settled) {
      problem =
          order.empty() ? "no certificate in the signature" : "the signature does not match the signed bytes";
      return false;
    }
  }
  return true;
}

// A digest of bytes held in memory, in each signer info's algorithm.
std::function<Bytes(PKCS7_SIGNER_INFO*)> digestOfOctets(const ASN1_OCTET_STRING* content) {
  return [content](PKCS7_SIGNER_INFO* si) {
    return digestWith(si->digest_alg, ASN1_STRING_get0_data(content),
                      static_cast<std::size_t>(ASN1_STRING_length(content)));
  };
}

// RFC 3161: the token's message imprint must be the digest of the ranges,
// and the token's own signer info must verify over its TSTInfo.
bool checkTimeStampToken(Job& job, const std::vector<Bytes>& digests, std::string& problem,
                         X509** firstSigner) {
  ossl::UniquePtr<TS_TST_INFO> info(PKCS7_to_TS_TST_INFO(job.p7));
  const ASN1_TYPE* content = info ? job.p7->d.sign->contents->d.other : nullptr;
  if (!content || content->type != V_ASN1_OCTET_STRING || digests.empty()) {
    problem = "the time-stamp token holds no TSTInfo";
    return false;
  }
  const ASN1_OCTET_STRING* imprint = TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(info.get()));
  const Bytes& digest = digests.front();
  if (!imprint || static_cast<std::size_t>(ASN1_STRING_length(imprint)) != digest.size() ||
      std::memcmp(ASN1_STRING_get0_data(imprint), digest.data(), digest.size()) != 0) {
    problem = "the time stamp's message imprint is not the digest of the signed bytes";
    return false;
  }
  return checkSignerInfos(job.p7, job.certs, digestOfOctets(content->value.octet_string), problem,
                          firstSigner);
}

// adbe.x509.rsa_sha1: /Contents is a DER OCTET STRING holding a PKCS#1
// signature over the SHA-1 of the ranges; the certificates are in /Cert.
bool checkRsaSha1(Job& job, const Bytes& sha1, std::string& problem) {
  const unsigned char* p = job.contents.data();
  ossl::UniquePtr<ASN1_OCTET_STRING> sig(
      d2i_ASN1_OCTET_STRING(nullptr, &p, static_cast<long>(job.contents.size())));
  X509* cert = job.certs.empty() ? nullptr : job.certs.front();
  EVP_PKEY* key = cert ? X509_get0_pubkey(cert) : nullptr;
  if (!sig || !key) {
    problem = !sig ? "/Contents is not a DER octet string" : "no certificate in /Cert";
    return false;
  }
  ossl::UniquePtr<EVP_PKEY_CTX> ctx(EVP_PKEY_CTX_new(key, nullptr));
  const bool ok =
      ctx && EVP_PKEY_verify_init(ctx.get()) == 1 &&
      EVP_PKEY_CTX_set_signature_md(ctx.get(), EVP_sha1()) > 0 &&
      EVP_PKEY_verify(ctx.get(), ASN1_STRING_get0_data(sig.get()),
                      static_cast<std::size_t>(ASN1_STRING_length(sig.get())), sha1.data(), sha1.size()) == 1;
  if (!ok) problem = "the signature does not match the signed bytes";
  return ok;
}

void readCertStrings(PDFObject* value, Job& job) {
  job.ownedCerts.reset(sk_X509_new_null());
  auto add = [&](PDFObject* item) {
    const std::string der = stringOf(item);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(der.data());
    X509* cert = der.empty() ? nullptr : d2i_X509(nullptr, &p, static_cast<long>(der.size()));
    if (cert && !sk_X509_push(job.ownedCerts.get(), cert)) X509_free(cert);
  };
  if (PDFSmartPtr<PDF_Vellum::PDFArray> list = value) {
    for (std::size_t i = 0; i < list->size() && i < 64; ++i) add(list->getAt(i));
  } else {
    add(value);
  }
}

// Which of the token's certificates made its first signer info: the one it
// names, checked over the TSTInfo it signs; -1 for none.
int timeStampSigner(PKCS7* token, const std::vector<PDFCert>& certs) {
  STACK_OF(PKCS7_SIGNER_INFO)* infos =
      token && PKCS7_type_is_signed(token) ? PKCS7_get_signer_info(token) : nullptr;
  PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, 0);
  const PKCS7* inner = token && token->d.sign ? token->d.sign->contents : nullptr;
  // The union member is d.other only for a content type OpenSSL doesn't
  // know, as id-ct-TSTInfo.
  const bool tstInfo = inner && OBJ_obj2nid(inner->type) == NID_id_smime_ct_TSTInfo;
  const ASN1_TYPE* content = tstInfo ? inner->d.other : nullptr;
  if (!si || !si->digest_alg || !content || content->type != V_ASN1_OCTET_STRING) return -1;
  const Bytes digest = digestOfOctets(content->value.octet_string)(si);
  for (std::size_t i = 0; i < certs.size(); ++i) {
    X509* cert = reinterpret_cast<X509*>(certs[i].getX509());
    if (cert && signerInfoNames(si, cert) && verifySignerInfo(si, cert, digest)) return static_cast<int>(i);
  }
  return -1;
}

// The time stamp questions read only what parse kept, never the file.
void readTimeStamp(const PDFSealmarkVerifyImpl& v, PDFDocumentCheck::Signature& s) {
  s.hasTimeStamp = v.getHasTimeStamp();
  if (!s.hasTimeStamp) return;
  if (v.tsKind == kRfc3161TimeStamp) {
    s.timeStampSource = "rfc3161";
  } else if (v.tsKind == kPfuFilterTimeStamp || loadPfuLibrary()) {
    // The PFU library reads a service token whenever it loads.
    s.timeStampSource = "pfu";
  } else if (loadAmanoLibrary()) {
    s.timeStampSource = "amano";
  } else {
    // An RFC 3161 token whose certificate set OpenSSL's PKCS#7 decoder
    // refuses (another certificate format in it) is still one.
    const unsigned char* p = v.tsToken.data();
    ossl::UniquePtr<CMS_ContentInfo> cms(
        d2i_CMS_ContentInfo(nullptr, &p, static_cast<long>(v.tsToken.size())));
    if (cms && OBJ_obj2nid(CMS_get0_type(cms.get())) == NID_pkcs7_signed) s.timeStampSource = "rfc3161";
  }
  s.timeStampStatus = v.verifyTimeStamp();
  if (!v.tsPkcs7 && s.timeStampSource == "pfu") {
    // On failure the PFU library's date text is its error message, not a
    // time.
    std::string time;
    if (getPfuTokenDate(v.tsToken, time)) s.timeStampTime = time;
  } else {
    s.timeStampTime = v.getTimeStampDate();
  }
  s.timeStampType = v.getTimeStampType();
  v.getTimeStampCerts(s.timeStampCertificates);
  if (s.timeStampStatus == 0) s.timeStampSigner = timeStampSigner(v.tsPkcs7, s.timeStampCertificates);
}

// Reads the field and decides what the pass must digest for it.
void plan(PDF_Folio::CSigField* field, PDF_Vellum::PDFDocument& doc, Job& job) {
  PDFDocumentCheck::Signature& s = *job.out;
  s.field = field->getName();
  job.verifier.parse(field);
  PDFSealmarkVerifyImpl& v = *job.verifier.getImpl();
  s.page = v.pageNum > 0 ? v.pageNum : (v.acroform && v.doc ? v.findPage() : 0);

  // The signature dictionary as stored, also where parse gave up on it.
  PDFSmartPtr<PDFDictionary> dict;
  if (PDFAcroform* form = field->getacroform()) {
    PDFSmartPtr<PDFDictionary> fieldDict = form->getAcroformDic();
    PDFObject* value = fieldDict ? fieldDict->getValueOf(PDFName("/V")) : nullptr;
    PDFSmartPtr<PDFIndirect> ref(value);
    dict = ref ? doc.parseIndirectObj(ref.get(), !doc.isEncrypted()) : value;
  }
  if (!dict) return;  // no /V: an unsigned field
  s.kind = PDFDocumentCheck::Kind::kSignature;
  s.intact = 0;
  PDFAcroform sigDict(dict, &doc);
  PDF_Folio::PL_VerifyDocPerm p = PDF_Folio::PL_VERIFY_PERM_NONE;
  if (readPermission(dict.get(), &doc, p, s.fieldMdp)) s.permission = static_cast<int>(p);
  s.filter = stringOf(sigDict.getContents("/Filter"));
  s.subFilter = stringOf(sigDict.getContents("/SubFilter"));
  if (s.subFilter == "/ETSI.RFC3161") s.kind = PDFDocumentCheck::Kind::kDocumentTimeStamp;
  const std::string contents = stringOf(sigDict.getContents("/Contents"));
  job.contents.assign(contents.begin(), contents.end());

  if (v.pkcs7 && v.sigDict) {
    job.p7 = v.pkcs7;
    s.signingTime = v.getSignedDate();
    readTimeStamp(v, s);
  } else if (s.subFilter == "/adbe.x509.rsa_sha1") {
    job.rsaSha1 = true;
    readCertStrings(sigDict.getContents("/Cert"), job);
  } else {
    // parse gives up on a dictionary without /Filter before it decodes
    // /Contents; the signature may still be there.
    const unsigned char* der = job.contents.data();
    if (!job.contents.empty() && !sigDict.getContents("/Filter")) {
      job.ownedP7.reset(decodeSharingCertificates(der, job.contents.size()));
      if (!job.ownedP7) job.ownedP7.reset(d2i_PKCS7(nullptr, &der, static_cast<long>(job.contents.size())));
      job.p7 = job.ownedP7.get();
    }
    if (!job.p7) {
      s.problem = job.contents.empty() ? "the signature dictionary has no /Contents"
                                       : "/Contents is not a PKCS#7 signed-data object";
    }
  }
  listCertificates(job);

  long o1 = -1, l1 = -1, o2 = -1, l2 = -1;
  sigDict.getByteRange(o1, l1, o2, l2);
  if (!(o1 >= 0 && l1 >= 0 && o2 > 0 && l2 > 0 && o1 + l1 <= o2)) {
    if (s.problem.empty()) s.problem = "/ByteRange is missing or not valid";
    return;
  }
  s.hasByteRange = true;
  const std::int64_t numbers[4] = {o1, l1, o2, l2};
  for (int i = 0; i < 4; ++i) {
    s.byteRange[i] = numbers[i];
    job.range[i] = static_cast<std::uint64_t>(numbers[i]);
  }
  job.gapTooLong = job.range[2] - (job.range[0] + job.range[1]) > kMaxGap;
  job.feed = true;  // the gap is read for the coverage verdict in any case
  if (job.range[2] + job.range[3] > doc.getFileSize() && s.problem.empty()) {
    s.problem = "/ByteRange reaches past the end of the file";
  }
  if (!s.problem.empty()) return;

  if (job.rsaSha1) {
    ossl::UniquePtr<X509_ALGOR> sha1(X509_ALGOR_new());
    X509_ALGOR_set0(sha1.get(), OBJ_nid2obj(NID_sha1), V_ASN1_NULL, nullptr);
    job.digests.push_back(std::make_unique<ContentDigest>(sha1.get()));
    return;
  }
  if (s.kind == PDFDocumentCheck::Kind::kDocumentTimeStamp) {
    ossl::UniquePtr<TS_TST_INFO> info(PKCS7_to_TS_TST_INFO(job.p7));
    if (info) {
      s.timeStampTime = timeToText(TS_TST_INFO_get_time(info.get()));
      job.digests.push_back(
          std::make_unique<ContentDigest>(TS_MSG_IMPRINT_get_algo(TS_TST_INFO_get_msg_imprint(info.get()))));
    }
    return;
  }
  job.embedded =
      PKCS7_type_is_signed(job.p7) && PKCS7_ctrl(job.p7, PKCS7_OP_GET_DETACHED_SIGNATURE, 0, nullptr) == 0;
  if (job.embedded) {
    // The content is the digest of the ranges; its length picks the
    // algorithm, as for PDFSealmarkVerify::verify.
    const PKCS7* inner = job.p7->d.sign ? job.p7->d.sign->contents : nullptr;
    const ASN1_OCTET_STRING* content = inner && PKCS7_type_is_data(inner) ? inner->d.data : nullptr;
    const char* name =
        content ? digestNameOfLength(static_cast<std::size_t>(ASN1_STRING_length(content))) : nullptr;
    const int nid = name ? OBJ_txt2nid(name) : NID_undef;
    if (nid == NID_undef) {
      job.embedded = false;
      s.problem = "the embedded content is not a digest";
      return;
    }
    ossl::UniquePtr<X509_ALGOR> algorithm(X509_ALGOR_new());
    X509_ALGOR_set0(algorithm.get(), OBJ_nid2obj(nid), V_ASN1_NULL, nullptr);
    job.digests.push_back(std::make_unique<ContentDigest>(algorithm.get()));
    return;
  }
  // Detached: one digest per algorithm the signer infos name.  The signer
  // info's own algorithm decides (RFC 5652), whatever digestAlgorithms says.
  STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(job.p7);
  for (int i = 0; i < sk_PKCS7_SIGNER_INFO_num(infos) && job.digests.size() < 8; ++i) {
    PKCS7_SIGNER_INFO* si = sk_PKCS7_SIGNER_INFO_value(infos, i);
    if (!si || !si->digest_alg) continue;
    const bool known = std::any_of(job.digests.begin(), job.digests.end(), [&](const auto& d) {
      return d->isFor(si->digest_alg);
    });
    if (!known) job.digests.push_back(std::make_unique<ContentDigest>(si->digest_alg));
  }
}

void judge(Job& job, const std::vector<std::uint64_t>& ends, std::uint64_t fileSize) {
  PDFDocumentCheck::Signature& s = *job.out;
  if (s.kind == PDFDocumentCheck::Kind::kUnsigned) return;
  if (job.p7) {
    STACK_OF(PKCS7_SIGNER_INFO)* infos = PKCS7_get_signer_info(job.p7);
    PKCS7_SIGNER_INFO* first = sk_PKCS7_SIGNER_INFO_value(infos, 0);
    for (std::size_t c = 0; first && c < job.certs.size() && s.signer < 0; ++c) {
      if (signerInfoNames(first, job.certs[c])) s.signer = static_cast<int>(c);
    }
  } else if (job.rsaSha1 && !job.certs.empty()) {
    s.signer = 0;
  }
  if (!s.hasByteRange) return;
  const std::uint64_t signedEnd = job.range[2] + job.range[3];
  for (std::size_t i = 0; i < ends.size(); ++i) {
    if (ends[i] == signedEnd) s.revision = static_cast<int>(i);
  }
  judgeCoverage(job, fileSize);
  if (!s.problem.empty()) return;
  std::vector<Bytes> digests;
  for (auto& d : job.digests) digests.push_back(d->finish());
  bool intact = false;
  X509* firstSigner = nullptr;
  if (job.rsaSha1) {
    intact = !digests.empty() && checkRsaSha1(job, digests.front(), s.problem);
  } else if (s.kind == PDFDocumentCheck::Kind::kDocumentTimeStamp) {
    intact = checkTimeStampToken(job, digests, s.problem, &firstSigner);
  } else if (job.embedded) {
    const ASN1_OCTET_STRING* content = job.p7->d.sign->contents->d.data;
    intact = !digests.empty() &&
             digests.front().size() == static_cast<std::size_t>(ASN1_STRING_length(content)) &&
             std::memcmp(digests.front().data(), ASN1_STRING_get0_data(content), digests.front().size()) == 0;
    if (!intact) {
      s.problem = "the embedded digest is not the digest of the signed bytes";
    } else {
      intact = checkSignerInfos(job.p7, job.certs, digestOfOctets(content), s.problem, &firstSigner);
    }
  } else {
    auto fromPass = [&](PKCS7_SIGNER_INFO* si) {
      for (std::size_t d = 0; d < job.digests.size(); ++d) {
        if (job.digests[d]->isFor(si->digest_alg)) return digests[d];
      }
      return Bytes();
    };
    intact = checkSignerInfos(job.p7, job.certs, fromPass, s.problem, &firstSigner);
  }
  s.intact = intact ? 1 : 0;
  // The rsa_sha1 check uses the first certificate of /Cert, which is the signer.
  s.signerKeyMatches = intact && s.signer >= 0 && (job.rsaSha1 || firstSigner == job.certs[s.signer]);
  if (intact) s.problem.clear();
}

// The pass.  Chunks are read in order into a small ring of buffers; the
// marker scan goes with the reading.  Every signature's digests must take
// the chunks in order, but no signature belongs to a thread: whichever
// thread is free does the next piece of work, reading the next chunk when a
// buffer is free, or else feeding the chunk a signature waits for, laggards
// first.  So three signatures keep two cores busy to the end instead of
// leaving one core with two of them.  A buffer is reused once every
// signature is past it, so memory is the ring, whatever the file's size.
bool readOnce(std::istream& in, std::uint64_t fileSize, const std::vector<Job*>& jobs, MarkerScanner& markers,
              unsigned threads) {
  // Asked once: glibc reads /sys for it on every call, once per file over
  // a run of many files.
  static const unsigned kCores = std::max(1u, std::thread::hardware_concurrency());
  if (threads == 0) threads = kCores;
  // Buffers no larger than the file and no more of them than it has chunks,
  // left uninitialised: over many small files, zeroing and faulting in a
  // full ring per file costs more than reading them.
  const std::size_t chunk =
      static_cast<std::size_t>(std::min<std::uint64_t>(kChunk, std::max<std::uint64_t>(fileSize, 1)));
  const std::uint64_t chunks = (fileSize + chunk - 1) / chunk;
  // No more threads than signatures: reading is a copy from the page cache,
  // cheaper done by the thread that then digests the chunk while it is
  // still in that core's cache than handed to another core.  A file of a
  // few chunks isn't worth a thread.
  const std::size_t workers =
      chunks <= 4 ? 1 : std::max<std::size_t>(1, std::min<std::size_t>(threads, jobs.size()));
  struct Slot {
    unsigned char* bytes = nullptr;
    unsigned char* data() { return bytes + MarkerScanner::kCarry; }
    std::size_t size = 0;
    std::uint64_t offset = 0;
  };
  std::vector<Slot> slots(static_cast<std::size_t>(
      std::max<std::uint64_t>(1, std::min<std::uint64_t>(workers > 1 ? 2 * workers + 2 : 1, chunks))));
  const std::size_t stride = MarkerScanner::kCarry + chunk;
  // The ring is huge pages, and stays with the thread for its next file
  // when it is small: over many files, faulting in fresh pages for each cost
  // as much as reading it, since a page fault is dear in a virtual machine.
  constexpr std::size_t kKeptRing = 2u << 20;
  thread_local platform::PageBuffer kept;
  platform::PageBuffer own;
  unsigned char* ring = nullptr;
  if (stride * slots.size() <= kKeptRing) {
    if (kept.size() < stride * slots.size()) kept = platform::PageBuffer(kKeptRing);
    ring = kept.data();
  } else {
    own = platform::PageBuffer(stride * slots.size());
    ring = own.data();
  }
  for (std::size_t i = 0; i < slots.size(); ++i) slots[i].bytes = ring + i * stride;
  std::mutex mutex;
  std::condition_variable changed;
  std::uint64_t produced = 0;  // chunks read
  std::uint64_t offset = 0;    // bytes read
  bool reading = false, atEnd = fileSize == 0;
  std::vector<std::uint64_t> next(jobs.size(), 0);  // each signature's next chunk
  std::vector<char> busy(jobs.size(), 0);

  // Every signature is done with the chunk that last filled slot `i`'s buffer.
  auto slotFree = [&](std::uint64_t i) {
    return i < slots.size() ||
           std::all_of(next.begin(), next.end(), [&](std::uint64_t n) { return n + slots.size() > i; });
  };
  auto work = [&] {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
      if (!reading && !atEnd && slotFree(produced)) {
        reading = true;
        const std::uint64_t i = produced;
        lock.unlock();
        Slot& slot = slots[i % slots.size()];
        in.read(reinterpret_cast<char*>(slot.data()), static_cast<std::streamsize>(chunk));
        slot.size = static_cast<std::size_t>(in.gcount());
        slot.offset = offset;
        const bool last = slot.size == 0 || offset + slot.size >= fileSize;
        if (slot.size > 0) markers.feed(slot.data(), slot.size, slot.offset, last);
        lock.lock();
        reading = false;
        offset += slot.size;
        if (slot.size > 0) produced = i + 1;
        atEnd = last;
        changed.notify_all();
        continue;
      }
      std::size_t pick = jobs.size();
      for (std::size_t j = 0; j < jobs.size(); ++j) {
        if (!busy[j] && next[j] < produced && (pick == jobs.size() || next[j] < next[pick])) pick = j;
      }
      if (pick < jobs.size()) {
        busy[pick] = 1;
        Slot& slot = slots[next[pick] % slots.size()];
        lock.unlock();
        jobs[pick]->consume(slot.data(), slot.size, slot.offset);
        lock.lock();
        busy[pick] = 0;
        ++next[pick];
        changed.notify_all();
        continue;
      }
      const bool done = atEnd && !reading &&
                        std::all_of(next.begin(), next.end(), [&](std::uint64_t n) { return n == produced; });
      if (done) return;
      changed.wait(lock);
    }
  };
  std::vector<std::thread> helpers;
  for (std::size_t w = 1; w < workers; ++w) helpers.emplace_back(work);
  work();
  for (std::thread& t : helpers) t.join();
  return offset == fileSize;
}

bool checkDocument(std::unique_ptr<PDF_Vellum::PDFDocument> doc, PDFDocumentCheck::Result& result,
                   std::string* why, unsigned threads) {
  using Result = PDFDocumentCheck::Result;
  result = Result();
  if (!doc) return false;
  result.fileSize = doc->getFileSize();
  PDF_Folio::CForm form(doc.get());
  const std::vector<PDF_Folio::CSigField*> fields = form.getSigFields();
  result.signatures.resize(fields.size());
  std::vector<std::unique_ptr<Job>> jobs;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    jobs.push_back(std::make_unique<Job>());
    jobs.back()->out = &result.signatures[i];
    plan(fields[i], *doc, *jobs.back());
  }

  std::istream* in = doc->getIstream();
  if (!in) {
    if (why) *why = "cannot read the file";
    return false;
  }
  in->clear();
  in->seekg(0);
  std::vector<Job*> feeding;
  for (auto& job : jobs) {
    if (job->feed) feeding.push_back(job.get());
  }
  MarkerScanner markers;
  if (!readOnce(*in, result.fileSize, feeding, markers, threads)) {
    in->clear();
    if (why) *why = "the file could not be read to its end";
    return false;
  }
  in->clear();
  result.revisionEnds = markers.ends;
  for (auto& job : jobs) {
    judge(*job, result.revisionEnds, result.fileSize);
    handOverCertificates(*job);
  }
  return true;
}

}  // namespace

bool PDFDocumentCheck::check(const std::string& path, const std::string& password, Result& result,
                             std::string* why, unsigned threads) {
  return checkDocument(PDF_Vellum::PDFDocument::open(path, password, why), result, why, threads);
}

bool PDFDocumentCheck::checkMemory(std::vector<unsigned char> bytes, const std::string& password,
                                   Result& result, std::string* why, unsigned threads) {
  return checkDocument(PDF_Vellum::PDFDocument::openMemory(std::move(bytes), password, why), result, why,
                       threads);
}

}  // namespace PDF_Sealmark
