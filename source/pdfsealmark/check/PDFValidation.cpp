#include "pdfsealmark/PDFValidation.h"

#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/winstore/PDFCertWinStoreImpl.h"

namespace PDF_Sealmark {

PDFValidation::Options::Options() = default;
PDFValidation::Options::~Options() = default;
PDFValidation::Options::Options(const Options&) = default;
PDFValidation::Options& PDFValidation::Options::operator=(const Options&) = default;
PDFValidation::Path::Path() = default;
PDFValidation::Path::~Path() = default;
PDFValidation::Path::Path(const Path&) = default;
PDFValidation::Path& PDFValidation::Path::operator=(const Path&) = default;
PDFValidation::Result::Result() = default;
PDFValidation::Result::~Result() = default;
PDFValidation::Result::Result(const Result&) = default;
PDFValidation::Result& PDFValidation::Result::operator=(const Result&) = default;

namespace {

constexpr int kRootStore = 2;

X509* x509Of(const PDFCert& cert) { return reinterpret_cast<X509*>(cert.getX509()); }

bool selfIssued(X509* cert) {
  return cert && X509_NAME_cmp(X509_get_issuer_name(cert), X509_get_subject_name(cert)) == 0;
}

// How a reason names a certificate: 'common name', else its subject on one
// line; UTF-8 whatever the string types.
std::string nameOf(X509* cert) {
  const X509_NAME* subject = cert ? X509_get_subject_name(cert) : nullptr;
  if (!subject) return "'?'";
  const int at = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  const ASN1_STRING* value = at >= 0 ? X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at)) : nullptr;
  unsigned char* utf8 = nullptr;
  const int length = value ? ASN1_STRING_to_UTF8(&utf8, value) : -1;
  if (length >= 0) {
    std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    return "'" + text + "'";
  }
  ossl::UniquePtr<BIO> out(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (!out || X509_NAME_print_ex(out.get(), subject, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) < 0)
    return "'?'";
  const long size = BIO_get_mem_data(out.get(), &data);
  return "'" + std::string(data, static_cast<std::size_t>(std::max(size, 0L))) + "'";
}

// "2026-03-15 12:00:00Z" for a date text.
std::string display(const std::string& t) {
  if (t.size() < 14) return t;
  return t.substr(0, 4) + "-" + t.substr(4, 2) + "-" + t.substr(6, 2) + " " + t.substr(8, 2) + ":" +
         t.substr(10, 2) + ":" + t.substr(12, 2) + "Z";
}

std::string nowText() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char text[32] = {0};
  if (gmtime_r(&now, &utc)) std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &utc);
  return text;
}

// Times come from the document, so from anyone.  The date reader takes
// fixed positions and refuses (throws on) a date part shorter than ten
// characters: only "YYYYMMDDHHMM..." whose zone sign, if any, stands after
// the minutes is handed to it.
bool usableTime(const std::string& t) {
  if (t.size() < 12 || t.find_first_not_of("0123456789") < 12) return false;
  std::size_t sign = t.rfind('+');
  if (sign == std::string::npos) sign = t.rfind('-');
  return sign == std::string::npos || sign >= 12;
}

struct Findings {
  std::vector<std::string> invalid;  // reasons that make the signature invalid
  std::vector<std::string> doubt;    // reasons that leave it indeterminate
};

// The links of a complete path, verified by OpenSSL with the top as the one
// anchor: the walk matches issuers by name alone, so a certificate that
// names a trusted issuer but was signed by another key stops here, as does
// an issuer that is no CA.  Dates and revocation are the walk's questions.
std::string linkProblem(const std::vector<PDFCert>& chain) {
  ossl::UniquePtr<X509_STORE> anchors(X509_STORE_new());
  ossl::UniquePtr<STACK_OF(X509)> between(sk_X509_new_null());
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> ctx(X509_STORE_CTX_new(),
                                                                      X509_STORE_CTX_free);
  if (!anchors || !between || !ctx || X509_STORE_add_cert(anchors.get(), x509Of(chain.back())) != 1)
    return "out of memory";
  for (std::size_t i = 1; i + 1 < chain.size(); ++i) {
    X509* cert = x509Of(chain[i]);
    if (X509_up_ref(cert) != 1) return "out of memory";
    if (sk_X509_push(between.get(), cert) <= 0) {
      X509_free(cert);
      return "out of memory";
    }
  }
  if (X509_STORE_CTX_init(ctx.get(), anchors.get(), x509Of(chain.front()), between.get()) != 1)
    return "out of memory";
  X509_STORE_CTX_set_flags(ctx.get(), X509_V_FLAG_NO_CHECK_TIME);
  if (X509_verify_cert(ctx.get()) == 1) return {};
  return std::string(X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx.get()))) + " (at " +
         nameOf(X509_STORE_CTX_get_current_cert(ctx.get())) + ")";
}

enum class Proof { kProven, kClaimed, kNow };

// The path of `cert` at `time` and what is wrong with it.  Unless a time
// stamp proves the time, the certificates must also hold now.
PDFValidation::Path assess(const PDFCert& cert, std::vector<PDFCert> given, const std::string& time,
                           Proof proof, const PDFValidation::Options& o, const std::string& label,
                           Findings& f) {
  using Revocation = PDFValidation::Revocation;
  PDFValidation::Path p;
  const char* t = time.c_str();
  std::vector<PDFCert> chain;
  int result = cert.getChain(chain, given, false, t, nullptr, nullptr, 0);
  if (chain.empty()) {
    f.doubt.push_back(label + "no certificate to check");
    return p;
  }
  PDFCertWinStoreImpl store;
  if (!selfIssued(x509Of(chain.back()))) {
    // The chain engine offers what it reaches from the certificate alone;
    // a signature carries its intermediates, seldom the root they need.
    const X509_NAME* wanted = X509_get_issuer_name(x509Of(chain.back()));
    std::vector<PDFCert> roots;
    store.getByName(roots, L"", kRootStore);
    const std::size_t before = given.size();
    for (const PDFCert& root : roots) {
      if (x509Of(root) && X509_NAME_cmp(X509_get_subject_name(x509Of(root)), wanted) == 0)
        given.push_back(root);
    }
    if (given.size() > before) result = cert.getChain(chain, given, false, t, nullptr, nullptr, 0);
  }
  for (PDFCert& c : chain) {
    PDFValidation::Element e;
    e.cert = c;
    e.validAtTime = c.isValid(t);
    e.validNow = c.isValid(nullptr);
    p.elements.push_back(e);
  }
  p.complete = selfIssued(x509Of(chain.back()));
  if (!p.complete) {
    f.doubt.push_back(label + "the issuer of " + nameOf(x509Of(chain.back())) +
                      " is not known: no path to a root");
    return p;
  }
  if (result == 0) {
    for (const PDFValidation::Element& e : p.elements) {
      if (e.validAtTime) continue;
      f.doubt.push_back(label + nameOf(x509Of(e.cert)) + " is not valid at " + display(time) +
                        " (valid from " + display(e.cert.getNotBefore()) + " to " +
                        display(e.cert.getNotAfter()) + ")");
      break;
    }
    return p;
  }
  const std::string links = linkProblem(chain);
  if (!links.empty()) f.doubt.push_back(label + "the path does not verify: " + links);
  p.trusted = result == 2 || std::any_of(chain.begin(), chain.end(), [&](const PDFCert& c) {
                return std::any_of(o.trustAnchors.begin(), o.trustAnchors.end(), [&](const PDFCert& a) {
                  return x509Of(a) && X509_cmp(x509Of(a), x509Of(c)) == 0;
                });
              });
  if (!p.trusted) {
    f.doubt.push_back(label + "the path ends at " + nameOf(x509Of(chain.back())) +
                      ", which is neither in the store ROOT nor a trust anchor");
  }
  p.result = result;
  // The certificates come from the document, and so do the addresses their
  // checks would reach: only a path that leads to a trusted root through
  // verified links is worth, and earns, a question over the network.
  if (o.checkRevocation && p.trusted && links.empty()) {
    // A first pass without revocation has told the dates apart; a failure
    // now is the revocation check of the last element whose check left a
    // status, and nothing after it was asked.
    std::vector<PDFCert> checked;
    p.result = cert.getChain(checked, given, true, t, o.crlCacheDir.empty() ? nullptr : o.crlCacheDir.c_str(),
                             o.ldapServers.empty() ? nullptr : o.ldapServers.c_str(), o.noNonce ? 1 : 0);
    if (checked.size() != chain.size()) {
      f.doubt.push_back(label + "the path changed between two walks");
      return p;
    }
    int failed = -1;
    for (std::size_t i = 0; p.result == 0 && i < checked.size(); ++i) {
      if (checked[i].getValid() != 0) failed = static_cast<int>(i);
    }
    if (p.result == 0 && failed < 0) f.doubt.push_back(label + "the path failed its second walk");
    for (std::size_t i = 0; i < checked.size(); ++i) {
      PDFValidation::Element& e = p.elements[i];
      const int index = static_cast<int>(i);
      e.decidedBy = checked[i].getValid();
      const std::string name = nameOf(x509Of(checked[i]));
      if (failed >= 0 && index > failed) {
        e.revocation = Revocation::kNotChecked;
      } else if (index == failed && e.decidedBy == 3) {
        e.revocation = Revocation::kUndecided;
        f.doubt.push_back(label + "whether " + name +
                          " is revoked is undecided: no OCSP responder or CRL answered");
      } else if (index == failed) {
        e.revocation = Revocation::kRevoked;
        f.invalid.push_back(
            label + name + " is revoked" +
            (e.decidedBy == 2 ? " (its OCSP responder says revoked or unknown)" : " (by its CRL)"));
      } else if (store.isTrusted(x509Of(checked[i]), kRootStore) != 0) {
        e.revocation = Revocation::kInRootStore;
      } else {
        e.revocation = e.decidedBy == 0 ? Revocation::kNoSource : Revocation::kGood;
      }
    }
  }
  if (proof == Proof::kProven) return p;
  for (std::size_t i = 0; i < p.elements.size(); ++i) {
    const PDFValidation::Element& e = p.elements[i];
    const std::string name = nameOf(x509Of(e.cert));
    if (!e.validNow) {
      const bool expired = X509_cmp_current_time(X509_get0_notAfter(x509Of(e.cert))) < 0;
      f.doubt.push_back(label + name +
                        (expired ? " expired on " + display(e.cert.getNotAfter()) : " is not valid yet") +
                        ", and no time stamp proves that it signed before");
    }
    // A CRL dates each revocation, and the time is only claimed: a
    // certificate revoked now may have signed after its revocation.
    if (proof == Proof::kClaimed && e.revocation == Revocation::kGood && e.decidedBy == 1) {
      PDFCert fresh = makePDFCert(x509Of(e.cert));
      PDFCert issuer = i + 1 < chain.size() ? chain[i + 1] : chain[i];
      if (!fresh.checkCRL(nullptr, o.crlCacheDir.empty() ? nullptr : o.crlCacheDir.c_str(),
                          o.ldapServers.empty() ? nullptr : o.ldapServers.c_str(), &issuer, &chain,
                          o.noNonce ? 1 : 0) &&
          fresh.getValid() == 1) {
        f.doubt.push_back(label + name +
                          " is revoked by its CRL now, and no time stamp proves that it signed before");
      }
    }
  }
  return p;
}

}  // namespace

const char* PDFValidation::verdictName(Verdict verdict) {
  switch (verdict) {
    case Verdict::kValid:
      return "valid";
    case Verdict::kInvalid:
      return "invalid";
    default:
      return "indeterminate";
  }
}

PDFValidation::Result PDFValidation::validate(const PDFDocumentCheck::Signature& s, const Options& o) {
  Result r;
  Findings f;
  const auto finish = [&]() -> Result {
    r.verdict = !f.invalid.empty() ? Verdict::kInvalid
                : !f.doubt.empty() ? Verdict::kIndeterminate
                                   : Verdict::kValid;
    for (const auto* list : {&f.invalid, &f.doubt}) {
      for (const std::string& reason : *list) {
        if (std::find(r.reasons.begin(), r.reasons.end(), reason) == r.reasons.end())
          r.reasons.push_back(reason);
      }
    }
    return r;
  };
  using Kind = PDFDocumentCheck::Kind;
  if (s.kind == Kind::kUnsigned) {
    f.doubt.push_back("the field is not signed");
    return finish();
  }
  if (s.intact != 1) {
    f.invalid.push_back("the signature is not intact" + (s.problem.empty() ? "" : ": " + s.problem));
    return finish();
  }
  if (s.signer < 0 || static_cast<std::size_t>(s.signer) >= s.certificates.size()) {
    f.doubt.push_back("the signer's certificate is not in the signature");
    return finish();
  }
  if (!s.signerKeyMatches) {
    f.invalid.push_back("the signature was not made by the key of the certificate it names");
    return finish();
  }
  // The anchors first: where a name stands twice, the first candidate wins.
  std::vector<PDFCert> given = o.trustAnchors;
  given.insert(given.end(), s.certificates.begin(), s.certificates.end());
  given.insert(given.end(), s.timeStampCertificates.begin(), s.timeStampCertificates.end());

  const bool documentTimeStamp = s.kind == Kind::kDocumentTimeStamp;
  if (!documentTimeStamp && s.hasTimeStamp) {
    if (s.timeStampStatus == 1) {
      f.invalid.push_back("the time stamp does not hold");
    } else if (s.timeStampStatus == 2) {
      f.invalid.push_back("the time stamp was made for another signature");
    } else if (s.timeStampStatus != 0) {
      f.doubt.push_back("the time stamp cannot be checked");
    } else if (s.timeStampSigner < 0 ||
               static_cast<std::size_t>(s.timeStampSigner) >= s.timeStampCertificates.size() ||
               !usableTime(s.timeStampTime)) {
      f.doubt.push_back("the time stamp's authority or time cannot be read");
    } else {
      Findings tsa;
      r.hasTimeStampChain = true;
      r.timeStampChain = assess(s.timeStampCertificates[static_cast<std::size_t>(s.timeStampSigner)], given,
                                s.timeStampTime, Proof::kClaimed, o, "time stamp: ", tsa);
      if (tsa.invalid.empty() && tsa.doubt.empty()) {
        r.checkedAt = s.timeStampTime;
        r.timeSource = TimeSource::kTimeStamp;
      }
      f.invalid.insert(f.invalid.end(), tsa.invalid.begin(), tsa.invalid.end());
      f.doubt.insert(f.doubt.end(), tsa.doubt.begin(), tsa.doubt.end());
    }
  }
  if (r.checkedAt.empty()) {
    if (documentTimeStamp && usableTime(s.timeStampTime)) {
      r.checkedAt = s.timeStampTime;
      r.timeSource = TimeSource::kTokenTime;
    } else if (!documentTimeStamp && usableTime(s.signingTime)) {
      r.checkedAt = s.signingTime;
      r.timeSource = TimeSource::kSigningTime;
    } else {
      r.checkedAt = nowText();
      r.timeSource = TimeSource::kNow;
    }
  }
  const Proof proof = r.timeSource == TimeSource::kTimeStamp ? Proof::kProven
                      : r.timeSource == TimeSource::kNow     ? Proof::kNow
                                                             : Proof::kClaimed;
  r.chain = assess(s.certificates[static_cast<std::size_t>(s.signer)], given, r.checkedAt, proof, o, "", f);
  return finish();
}

}  // namespace PDF_Sealmark
