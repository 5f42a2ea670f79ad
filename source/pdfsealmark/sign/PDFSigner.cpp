#include "pdfsealmark/PDFSigner.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_init.h"
#include "pdfsealmark/platform/atomic_file.h"
#include "pdfsealmark/sign/cms_builder.h"
#include "pdfsealmark/sign/incremental_update.h"

namespace PDF_Sealmark {

PDFSigner::Options::Options() = default;
PDFSigner::Options::~Options() = default;
PDFSigner::Options::Options(const Options&) = default;
PDFSigner::Options& PDFSigner::Options::operator=(const Options&) = default;

namespace {

using sign::CmsKind;
using sign::IncrementalUpdate;

void setWhy(std::string* why, const std::string& text) {
  if (why) *why = text;
}

// Room for what changes between the trial signature and the real one: the
// ECDSA value's length and the encoding of larger offsets.
constexpr std::size_t kMargin = 256;
// First guess for a time-stamp token; a larger one makes a second pass.
constexpr std::size_t kTokenReserve = 8192;

// "YYYYMMDDHHMMSSZ" as seconds since 1970, or -1.
std::time_t parseTime(const std::string& text) {
  if (text.size() != 15 || text[14] != 'Z') return -1;
  for (std::size_t i = 0; i < 14; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
  }
  std::tm tm{};
  tm.tm_year = std::stoi(text.substr(0, 4)) - 1900;
  tm.tm_mon = std::stoi(text.substr(4, 2)) - 1;
  tm.tm_mday = std::stoi(text.substr(6, 2));
  tm.tm_hour = std::stoi(text.substr(8, 2));
  tm.tm_min = std::stoi(text.substr(10, 2));
  tm.tm_sec = std::stoi(text.substr(12, 2));
  if (tm.tm_mon > 11 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 ||
      tm.tm_sec > 60) {
    return -1;
  }
  return timegm(&tm);
}

std::string pdfDate(std::time_t t) {
  std::tm tm{};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof text, "D:%Y%m%d%H%M%S+00'00'", &tm);
  return text;
}

const EVP_MD* digestOf(PDFSigner::Digest digest) {
  switch (digest) {
    case PDFSigner::Digest::kSha1:
      return EVP_sha1();
    case PDFSigner::Digest::kSha384:
      return EVP_sha384();
    case PDFSigner::Digest::kSha512:
      return EVP_sha512();
    default:
      return EVP_sha256();
  }
}

// The signed bytes in one block: the two ranges back to back.
PDFSigner::Bytes signedBytes(const PDFSigner::Bytes& file, const std::int64_t range[4]) {
  PDFSigner::Bytes out(file.begin(), file.begin() + range[1]);
  out.insert(out.end(), file.begin() + range[2], file.begin() + range[2] + range[3]);
  return out;
}

// Makes /Contents from the signed bytes: a CMS object or a token.
using ContentsMaker = bool (*)(const void* context, const PDFSigner::Bytes& data, PDFSigner::Bytes& der,
                               std::string* why);

// Builds the update with room for `reserved` bytes, then fills /Contents.
// When the final object outgrows the room, builds again with room for it
// (unless the caller fixed the size).
bool writeSigned(IncrementalUpdate& update, std::size_t reserved, bool fixed, ContentsMaker make,
                 const void* context, PDFSigner::Bytes& output, std::string* why) {
  for (int pass = 0; pass < 3; ++pass) {
    if (!update.build(reserved, output, why)) return false;
    PDFSigner::Bytes der;
    if (!make(context, signedBytes(output, update.range), der, why)) {
      output.clear();
      return false;
    }
    if (der.size() > reserved) {
      if (fixed || pass == 2) {
        output.clear();
        setWhy(why, "the signature needs " + std::to_string(der.size()) +
                        " bytes of /Contents, more than the " + std::to_string(reserved) + " reserved");
        return false;
      }
      reserved = der.size() + kMargin;
      continue;
    }
    static const char kDigits[] = "0123456789ABCDEF";
    unsigned char* at = output.data() + update.contentsAt;
    for (unsigned char b : der) {
      *at++ = kDigits[b >> 4];
      *at++ = kDigits[b & 15];
    }
    return true;
  }
  return false;
}

struct SignContext {
  sign::CmsSigner signer;
};

bool makeCms(const void* context, const PDFSigner::Bytes& data, PDFSigner::Bytes& der, std::string* why) {
  const auto* c = static_cast<const SignContext*>(context);
  return sign::buildCms(c->signer, data.data(), data.size(), der, why);
}

bool makeToken(const void* context, const PDFSigner::Bytes& data, PDFSigner::Bytes& der, std::string* why) {
  return sign::requestToken(*static_cast<const PDFStdTimeStamp*>(context), data.data(), data.size(), der,
                            why);
}

bool readInput(const std::string& path, PDFSigner::Bytes& bytes, std::string* why) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    setWhy(why, std::strerror(errno));
    return false;
  }
  bytes.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  if (in.bad()) {
    setWhy(why, "read error");
    return false;
  }
  return true;
}

// The signed file replaces the target whole, with the mode a new file
// would get.
bool writeAtomically(const std::string& path, const PDFSigner::Bytes& bytes, std::string* why) {
  const mode_t mask = ::umask(0);
  ::umask(mask);
  int err = 0;
  if (le::platform::replaceFile(path, bytes.data(), bytes.size(), 0666 & ~mask, err)) return true;
  setWhy(why, path + ": " + std::strerror(err));
  return false;
}

}  // namespace

bool PDFSigner::sign(const Bytes& input, Bytes& output, const PDFCert& signer, const Options& options,
                     std::string* why) {
  output.clear();
  initOpenSSLOnce();
  const PDFCertImpl* cert = PDFCertImpl::implOf(signer);
  // A PKCS#12 file without a key loads its certificates as further ones
  // only, so ask for the key first: that is what is missing.
  if (!cert || !cert->getPKey()) {
    setWhy(why, "the certificate has no private key");
    return false;
  }
  if (!cert->getX509()) {
    setWhy(why, "no signer certificate");
    return false;
  }
  // -2: the key can't be compared (a token may not give out its public
  // half); the signature shows then whether it matches.
  const int match = EVP_PKEY_eq(X509_get0_pubkey(cert->getX509()), cert->getPKey());
  ERR_clear_error();
  if (match == 0 || match == -1) {
    setWhy(why, "the private key doesn't belong to the certificate");
    return false;
  }
  const std::time_t now = options.signingTime.empty() ? std::time(nullptr) : parseTime(options.signingTime);
  if (now < 0) {
    setWhy(why, "signing time must be YYYYMMDDHHMMSSZ");
    return false;
  }

  SignContext context;
  sign::CmsSigner& cms = context.signer;
  cms.certificate = cert->getX509();
  cms.key = cert->getPKey();
  for (int i = 0; cert->caCerts && i < sk_X509_num(cert->caCerts); ++i)
    cms.chain.push_back(sk_X509_value(cert->caCerts, i));
  for (const PDFCert& extra : options.extraCertificates) {
    const PDFCertImpl* impl = PDFCertImpl::implOf(extra);
    if (impl && impl->getX509()) cms.chain.push_back(impl->getX509());
  }
  cms.signingTime = now;
  cms.digest = digestOf(options.digest);
  sign::SignatureRequest request;
  switch (options.subFilter) {
    case SubFilter::kCadesDetached:
      cms.kind = CmsKind::kCades;
      request.subFilter = "/ETSI.CAdES.detached";
      break;
    case SubFilter::kPkcs7Sha1:
      cms.kind = CmsKind::kSha1;
      cms.digest = EVP_sha1();
      request.subFilter = "/adbe.pkcs7.sha1";
      break;
    default:
      cms.kind = CmsKind::kDetached;
      request.subFilter = "/adbe.pkcs7.detached";
  }
  request.fieldName = options.fieldName;
  request.page = options.page;
  request.date = pdfDate(now);
  request.reason = options.reason;
  request.location = options.location;
  request.certify = options.certify;

  IncrementalUpdate update;
  if (!update.open(input, options.documentPassword, why) || !update.plan(request, why)) return false;

  std::size_t reserved = options.reservedBytes;
  if (reserved == 0) {
    // A trial signature over a few bytes, without a time stamp, gives the
    // size; the token, when asked for, comes on top.
    sign::CmsSigner trial = cms;
    trial.timeStamp = nullptr;
    Bytes probe;
    static const unsigned char kDummy[32] = {0};
    if (!sign::buildCms(trial, kDummy, sizeof kDummy, probe, why)) return false;
    reserved = probe.size() + kMargin + (options.timeStamp ? kTokenReserve : 0);
  }
  cms.timeStamp = options.timeStamp;
  return writeSigned(update, reserved, options.reservedBytes != 0, makeCms, &context, output, why);
}

bool PDFSigner::timestamp(const Bytes& input, Bytes& output, const PDFStdTimeStamp& tsa,
                          const Options& options, std::string* why) {
  output.clear();
  initOpenSSLOnce();
  sign::SignatureRequest request;
  request.type = "/DocTimeStamp";
  request.subFilter = "/ETSI.RFC3161";
  request.fieldName = options.fieldName;
  request.page = options.page;
  IncrementalUpdate update;
  if (!update.open(input, options.documentPassword, why) || !update.plan(request, why)) return false;
  const std::size_t reserved = options.reservedBytes ? options.reservedBytes : kTokenReserve;
  return writeSigned(update, reserved, options.reservedBytes != 0, makeToken, &tsa, output, why);
}

bool PDFSigner::signFile(const std::string& inputPath, const std::string& outputPath, const PDFCert& signer,
                         const Options& options, std::string* why) {
  Bytes input;
  Bytes output;
  return readInput(inputPath, input, why) && sign(input, output, signer, options, why) &&
         writeAtomically(outputPath, output, why);
}

bool PDFSigner::timestampFile(const std::string& inputPath, const std::string& outputPath,
                              const PDFStdTimeStamp& tsa, const Options& options, std::string* why) {
  Bytes input;
  Bytes output;
  return readInput(inputPath, input, why) && timestamp(input, output, tsa, options, why) &&
         writeAtomically(outputPath, output, why);
}

}  // namespace PDF_Sealmark
