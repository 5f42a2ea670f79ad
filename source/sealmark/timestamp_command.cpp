// sealmark timestamp: a time-stamp token over a file from an RFC 3161 server,
// or from the Amano or PFU service through that service's library.
#include <openssl/evp.h>
#include <openssl/pkcs7.h>
#include <openssl/rand.h>
#include <openssl/ts.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "args.h"
#include "commands.h"
#include "pdfsealmark/PDFAmanoTimeStamp.h"
#include "pdfsealmark/PDFPfuTimeStamp.h"
#include "pdfsealmark/PDFServiceToken.h"
#include "pdfsealmark/PDFStdTimeStamp.h"

namespace sealmark {

const char kTimestampHelp[] =
    "usage: sealmark timestamp --url URL [--user NAME --password PW] [--hash sha1|sha512]\n"
    "                          [--output FILE] INPUT\n"
    "       sealmark timestamp --service amano --address ADDR --account FILE --password PW\n"
    "                          [--output FILE] INPUT\n"
    "       sealmark timestamp --service pfu --user NAME --password PW [--output FILE] INPUT\n"
    "\n"
    "Asks for a time-stamp token over the bytes of INPUT and writes the token to\n"
    "FILE: from an RFC 3161 time-stamp authority (DER), or from the Amano or PFU\n"
    "service through its library (libasdtst.so, libtslib.so, found on the\n"
    "library search path), which digests INPUT with SHA-512 itself.  Prints the\n"
    "token's time, as the token or the service's library gives it, and source.\n"
    "\n"
    "  --service NAME   rfc3161 (default), amano or pfu\n"
    "  --url URL        rfc3161: the authority, http:// or https://\n"
    "  --user NAME      rfc3161: user name for Basic authorization (needs --password);\n"
    "                   pfu: the account at the service\n"
    "  --password PW    the password of --user, or of the Amano account file\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --hash ALG       rfc3161: digest of INPUT sent: sha512 (default) or sha1\n"
    "  --address ADDR   amano: the service's address, under 256 bytes\n"
    "  --account FILE   amano: the account file; when it isn't found as named, it is\n"
    "                   looked for beside libPDFSealmark27.so, then beside sealmark\n"
    "  --output FILE    where the token goes (default: INPUT.tsr)\n"
    "  -h, --help       show this help\n"
    "\n"
    "https servers are checked against the system's CAs, or SSL_CERT_FILE and\n"
    "SSL_CERT_DIR when set; proxies come from http_proxy, https_proxy, no_proxy.\n"
    "\n"
    "exit codes: 0 a token was written, 1 no token came (also: no library),\n"
    "2 bad usage, an unreadable INPUT or an unwritable FILE\n";

namespace {

struct EvpMdCtxFree {
  void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct Pkcs7Free {
  void operator()(PKCS7* p) const { PKCS7_free(p); }
};
struct TstInfoFree {
  void operator()(TS_TST_INFO* p) const { TS_TST_INFO_free(p); }
};
struct FileClose {
  void operator()(std::FILE* f) const { std::fclose(f); }
};

struct TimestampOptions {
  std::string service = "rfc3161";
  std::string url;
  std::string address;
  std::string account;
  std::string user;
  std::string password;
  std::string hash = "sha512";
  std::string output;
  std::string input;
};

bool parseArgs(const Args& args, TimestampOptions& opts, int& exitCode) {
  ArgParser parser("timestamp", kTimestampHelp);
  std::optional<std::string> hash;
  parser.value("--service", &opts.service)
      .value("--url", &opts.url)
      .value("--user", &opts.user)
      .secret("--password", &opts.password)
      .value("--hash", &hash)
      .value("--address", &opts.address)
      .value("--account", &opts.account)
      .value("--output", &opts.output);
  std::vector<std::string> inputs;
  if (!parser.parse(args, inputs, exitCode)) return false;
  // Each service takes its own options and no other's.
  const bool rfc3161 = opts.service == "rfc3161", amano = opts.service == "amano",
             pfu = opts.service == "pfu";
  if (!rfc3161 && !amano && !pfu) {
    return parser.usageError("--service must be rfc3161, amano or pfu, not '" + opts.service + "'", exitCode);
  }
  const std::pair<const char*, bool> misplaced[] = {{"--url", !rfc3161 && !opts.url.empty()},
                                                    {"--hash", !rfc3161 && hash},
                                                    {"--address", !amano && !opts.address.empty()},
                                                    {"--account", !amano && !opts.account.empty()},
                                                    {"--user", amano && !opts.user.empty()}};
  for (const auto& [option, given] : misplaced) {
    if (given)
      return parser.usageError(std::string(option) + " is not for --service " + opts.service, exitCode);
  }
  if (hash) opts.hash = *hash;
  if (rfc3161 && opts.url.empty()) return parser.usageError("--url is required", exitCode);
  if (opts.hash != "sha512" && opts.hash != "sha1") {
    return parser.usageError("--hash must be sha1 or sha512, not '" + opts.hash + "'", exitCode);
  }
  if (rfc3161 && opts.user.empty() != opts.password.empty())
    return parser.usageError("--user and --password go together", exitCode);
  if (amano && (opts.address.empty() || opts.account.empty() || opts.password.empty()))
    return parser.usageError("--service amano needs --address, --account and --password", exitCode);
  // The address goes to the library in a field of 256 bytes with its NUL.
  if (amano && opts.address.size() > 255)
    return parser.usageError("--address is longer than 255 bytes", exitCode);
  if (pfu && (opts.user.empty() || opts.password.empty()))
    return parser.usageError("--service pfu needs --user and --password", exitCode);
  if (inputs.size() != 1)
    return parser.usageError(inputs.empty() ? "no INPUT given" : "one INPUT at a time", exitCode);
  opts.input = inputs[0];
  if (opts.output.empty()) opts.output = opts.input + ".tsr";
  return true;
}

// The digest of a whole file; false with the reason when it can't be read.
bool digestFile(const std::string& path, const EVP_MD* md, std::vector<unsigned char>& digest,
                std::string& why) {
  std::unique_ptr<std::FILE, FileClose> file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    why = std::strerror(errno);
    return false;
  }
  std::unique_ptr<EVP_MD_CTX, EvpMdCtxFree> ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestInit_ex(ctx.get(), md, nullptr) != 1) {
    why = "cannot start the digest";
    return false;
  }
  std::vector<unsigned char> buffer(1 << 16);
  std::size_t n;
  while ((n = std::fread(buffer.data(), 1, buffer.size(), file.get())) > 0) {
    if (EVP_DigestUpdate(ctx.get(), buffer.data(), n) != 1) {
      why = "cannot compute the digest";
      return false;
    }
  }
  if (std::ferror(file.get())) {
    why = std::strerror(errno);
    return false;
  }
  digest.resize(static_cast<std::size_t>(EVP_MD_get_size(md)));
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest.data(), &length) != 1) {
    why = "cannot compute the digest";
    return false;
  }
  digest.resize(length);
  return true;
}

// The whole file, for the services, whose libraries digest the data in one
// piece; false with the reason when it can't be read.
bool readWholeFile(const std::string& path, std::vector<unsigned char>& bytes, std::string& why) {
  std::unique_ptr<std::FILE, FileClose> file(std::fopen(path.c_str(), "rb"));
  if (!file) {
    why = std::strerror(errno);
    return false;
  }
  unsigned char buffer[1 << 16];
  std::size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, file.get())) > 0)
    bytes.insert(bytes.end(), buffer, buffer + n);
  if (std::ferror(file.get())) {
    why = std::strerror(errno);
    return false;
  }
  return true;
}

// genTime of the token as YYYYMMDDHHMMSSZ, or "" when the token can't be
// read as a TimeStampToken.
std::string tokenTime(const std::vector<unsigned char>& token) {
  const unsigned char* p = token.data();
  std::unique_ptr<PKCS7, Pkcs7Free> pkcs7(d2i_PKCS7(nullptr, &p, static_cast<long>(token.size())));
  if (!pkcs7) return std::string();
  std::unique_ptr<TS_TST_INFO, TstInfoFree> info(PKCS7_to_TS_TST_INFO(pkcs7.get()));
  if (!info) return std::string();
  const ASN1_GENERALIZEDTIME* genTime = TS_TST_INFO_get_time(info.get());
  std::tm tm{};
  if (!genTime || ASN1_TIME_to_tm(genTime, &tm) != 1) return std::string();
  char text[32];
  if (std::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &tm) == 0) return std::string();
  return text;
}

// Writes the token to the output file and tells what was written.
int writeToken(const TimestampOptions& opts, const std::vector<unsigned char>& token,
               const std::string& time) {
  std::unique_ptr<std::FILE, FileClose> out(std::fopen(opts.output.c_str(), "wb"));
  if (!out) {
    complain(opts.output, std::strerror(errno));
    return kExitUsage;
  }
  if (std::fwrite(token.data(), 1, token.size(), out.get()) != token.size() || std::fflush(out.get()) != 0) {
    complain(opts.output, std::strerror(errno));
    return kExitUsage;
  }
  std::cout << "token: " << opts.output << "\n"
            << "time: " << (time.empty() ? "unreadable" : time) << "\n"
            << "source: " << opts.service << "\n"
            << "size: " << token.size() << " bytes\n";
  return kExitOk;
}

}  // namespace

int runTimestamp(const Args& args) {
  TimestampOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;

  std::vector<unsigned char> token;
  std::string why;
  if (opts.service != "rfc3161") {
    std::vector<unsigned char> data;
    if (!readWholeFile(opts.input, data, why)) {
      complain(opts.input, why);
      return kExitUsage;
    }
    using PDF_Sealmark::PDFServiceToken;
    const bool amano = opts.service == "amano";
    const PDFServiceToken::Service service = amano ? PDFServiceToken::kAmano : PDFServiceToken::kPfu;
    if (!PDFServiceToken::isAvailable(service)) {
      complain(opts.service, std::string("the service's library (") +
                                 (amano ? "libasdtst.so" : "libtslib.so") + ") can't be loaded");
      return kExitNotVerified;
    }
    const bool got =
        amano ? PDF_Sealmark::PDFAmanoTimeStamp(opts.address, opts.account, opts.password)
                    .LeImplementts(token, data, {}, {})
              : PDF_Sealmark::PDFPfuTimeStamp(opts.user, opts.password).LeImplementts(token, data, {}, {});
    if (!got) {
      complain(opts.service, "no time-stamp token from the service");
      return kExitNotVerified;
    }
    std::string time;
    if (!PDFServiceToken::getDate(service, token, time)) time.clear();
    return writeToken(opts, token, time);
  }

  const bool sha1 = opts.hash == "sha1";
  std::vector<unsigned char> digest;
  if (!digestFile(opts.input, sha1 ? EVP_sha1() : EVP_sha512(), digest, why)) {
    complain(opts.input, why);
    return kExitUsage;
  }
  // The client lays these 8 bytes into the request as a DER INTEGER as they
  // stand, so make them a positive, minimally encoded one: high bit clear,
  // first byte not zero.
  std::vector<unsigned char> nonce(8);
  if (RAND_bytes(nonce.data(), static_cast<int>(nonce.size())) != 1) {
    complain("timestamp", "no random bytes for the nonce");
    return kExitUsage;
  }
  nonce[0] &= 0x7F;
  if (nonce[0] == 0) nonce[0] = 1;

  const PDF_Sealmark::PDFStdTimeStamp client(
      opts.url, opts.user, opts.password,
      sha1 ? PDF_Sealmark::PDFStdTimeStamp::kSha1 : PDF_Sealmark::PDFStdTimeStamp::kSha512);
  if (!client.LeImplementts(token, std::vector<unsigned char>(), digest, nonce)) {
    complain(opts.url, "no time-stamp token from the server");
    return kExitNotVerified;
  }
  return writeToken(opts, token, tokenTime(token));
}

}  // namespace sealmark
