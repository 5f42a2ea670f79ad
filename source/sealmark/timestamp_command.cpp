// sealmark timestamp: a time-stamp token over a file from an RFC 3161 server.
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
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "pdfsealmark/PDFStdTimeStamp.h"

namespace sealmark {

const char kTimestampHelp[] =
    "usage: sealmark timestamp --url URL [--user NAME --password PW] [--hash sha1|sha512]\n"
    "                          [--output FILE] INPUT\n"
    "\n"
    "Asks an RFC 3161 time-stamp authority for a token over the bytes of INPUT\n"
    "and writes the token (DER) to FILE.\n"
    "\n"
    "  --url URL        the authority, http:// or https://\n"
    "  --user NAME      user name for Basic authorization (needs --password)\n"
    "  --password PW    password for Basic authorization (needs --user)\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --hash ALG       digest of INPUT sent to the authority: sha512 (default) or sha1\n"
    "  --output FILE    where the token goes (default: INPUT.tsr)\n"
    "  -h, --help       show this help\n"
    "\n"
    "https servers are checked against the system's CAs, or SSL_CERT_FILE and\n"
    "SSL_CERT_DIR when set; proxies come from http_proxy, https_proxy, no_proxy.\n"
    "\n"
    "exit codes: 0 a token was written, 1 the server gave no token,\n"
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
  std::string url;
  std::string user;
  std::string password;
  std::string hash = "sha512";
  std::string output;
  std::string input;
};

bool parseArgs(const Args& args, TimestampOptions& opts, int& exitCode) {
  ArgParser parser("timestamp", kTimestampHelp);
  parser.value("--url", &opts.url)
      .value("--user", &opts.user)
      .secret("--password", &opts.password)
      .value("--hash", &opts.hash)
      .value("--output", &opts.output);
  std::vector<std::string> inputs;
  if (!parser.parse(args, inputs, exitCode)) return false;
  if (opts.url.empty()) return parser.usageError("--url is required", exitCode);
  if (opts.hash != "sha512" && opts.hash != "sha1") {
    return parser.usageError("--hash must be sha1 or sha512, not '" + opts.hash + "'", exitCode);
  }
  if (opts.user.empty() != opts.password.empty())
    return parser.usageError("--user and --password go together", exitCode);
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

}  // namespace

int runTimestamp(const Args& args) {
  TimestampOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;

  const bool sha1 = opts.hash == "sha1";
  std::vector<unsigned char> digest;
  std::string why;
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
  std::vector<unsigned char> token;
  if (!client.LeImplementts(token, std::vector<unsigned char>(), digest, nonce)) {
    complain(opts.url, "no time-stamp token from the server");
    return kExitNotVerified;
  }

  std::unique_ptr<std::FILE, FileClose> out(std::fopen(opts.output.c_str(), "wb"));
  if (!out) {
    complain(opts.output, std::strerror(errno));
    return kExitUsage;
  }
  if (std::fwrite(token.data(), 1, token.size(), out.get()) != token.size() || std::fflush(out.get()) != 0) {
    complain(opts.output, std::strerror(errno));
    return kExitUsage;
  }
  const std::string time = tokenTime(token);
  std::cout << "token: " << opts.output << "\n"
            << "time: " << (time.empty() ? "unreadable" : time) << "\n"
            << "size: " << token.size() << " bytes\n";
  return kExitOk;
}

}  // namespace sealmark
