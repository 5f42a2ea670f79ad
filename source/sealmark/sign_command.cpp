// sealmark sign and sealmark timestamp-document: add a signature, or a
// document time stamp, to a PDF file as an incremental update.
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "pdfsealmark/PDFCertWinStore.h"
#include "pdfsealmark/PDFSealmarkVerify.h"
#include "pdfsealmark/PDFSigner.h"

namespace sealmark {

const char kSignHelp[] =
    "usage: sealmark sign IN --output OUT (--p12 FILE [--password PW] | --store-cert SHA1 [--pin PIN])\n"
    "                     [--field NAME] [--page N]\n"
    "                     [--digest sha256|sha1|sha384|sha512] [--subfilter pkcs7|cades|sha1]\n"
    "                     [--certify 1|2|3] [--reason TEXT] [--location TEXT]\n"
    "                     [--timestamp-url URL [--timestamp-user U --timestamp-password P]]\n"
    "                     [--doc-password PW]\n"
    "\n"
    "Signs IN with the key and certificate of a PKCS#12 file, or of a certificate\n"
    "in the store MY whose key stays in its token, and writes OUT: IN's bytes\n"
    "unchanged, followed by an incremental update with the signature.\n"
    "\n"
    "  --output OUT          the signed file (replaced atomically)\n"
    "  --p12 FILE            PKCS#12 file with the signer's key and certificate\n"
    "  --password PW         its password\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --store-cert SHA1     the certificate of the store MY with this SHA-1, whose\n"
    "                        key signs in its token (RSA, PKCS#1 v1.5); the chain\n"
    "                        the store builds for it is embedded\n"
    "  --pin PIN             PIN of that token, when it needs one\n"
    "  --pin-file FILE       the same, from FILE's first line (- for stdin)\n"
    "  --field NAME          an existing empty signature field to sign, or the name\n"
    "                        of a new one (default: SignatureN)\n"
    "  --page N              page of a new field's invisible widget (default 1)\n"
    "  --digest ALG          sha256 (default), sha1, sha384 or sha512\n"
    "  --subfilter KIND      pkcs7 (adbe.pkcs7.detached, default), cades\n"
    "                        (ETSI.CAdES.detached) or sha1 (adbe.pkcs7.sha1)\n"
    "  --certify P           a certification signature: 1 no changes, 2 form filling\n"
    "                        and signing, 3 also annotations\n"
    "  --reason TEXT, --location TEXT   written into the signature\n"
    "  --timestamp-url URL   add a signature time stamp from this RFC 3161 server\n"
    "  --timestamp-user U, --timestamp-password P   its Basic authorization\n"
    "  --timestamp-password-file FILE   the password from FILE's first line\n"
    "  --doc-password PW     password of an encrypted IN (user or owner)\n"
    "  --doc-password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  -h, --help            show this help\n"
    "\n"
    "exit codes: 0 written, 1 the time-stamp server gave no token,\n"
    "2 bad usage or an input that can't be signed\n";

const char kTimestampDocumentHelp[] =
    "usage: sealmark timestamp-document IN --output OUT --url URL [--user U --password PW]\n"
    "                                   [--hash sha1|sha512] [--doc-password PW]\n"
    "\n"
    "Adds a document time stamp (/SubFilter /ETSI.RFC3161) to IN and writes OUT:\n"
    "an RFC 3161 token over the bytes IN's new revision signs.\n"
    "\n"
    "  --output OUT        the time-stamped file (replaced atomically)\n"
    "  --url URL           the time-stamp authority, http:// or https://\n"
    "  --user U, --password PW   Basic authorization for it (together)\n"
    "  --hash ALG          digest sent to the authority: sha512 (default) or sha1\n"
    "  --doc-password PW   password of an encrypted IN (user or owner)\n"
    "  --doc-password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  -h, --help          show this help\n"
    "\n"
    "exit codes: 0 written, 1 the server gave no token, 2 bad usage or unreadable input\n";

namespace {

const char kNoToken[] = "the time-stamp authority gave no token";

// One word of a closed list, or usage error.
template <class T>
bool choose(const ArgParser& parser, const char* option, const std::string& word,
            const std::map<std::string, T>& choices, T& out, int& exitCode) {
  auto it = choices.find(word);
  if (it != choices.end()) {
    out = it->second;
    return true;
  }
  std::string names;
  for (const auto& choice : choices) names += (names.empty() ? "" : ", ") + choice.first;
  return parser.usageError(std::string(option) + " must be one of " + names + ", not '" + word + "'",
                           exitCode);
}

bool oneInput(const ArgParser& parser, const std::vector<std::string>& inputs, const std::string& output,
              int& exitCode) {
  if (inputs.size() != 1)
    return parser.usageError(inputs.empty() ? "no IN given" : "one IN at a time", exitCode);
  if (output.empty()) return parser.usageError("--output is required", exitCode);
  return true;
}

// The field the signer used: the named one, or else the last signature
// field of the new file, where a new field goes.
std::string fieldOf(const std::string& named, const std::string& output, const std::string& password) {
  if (!named.empty()) return named;
  std::string why;
  auto doc = PDF_Vellum::PDFDocument::open(output, password, &why);
  if (!doc) return "?";
  PDF_Folio::CForm form(doc.get());
  const std::vector<PDF_Folio::CSigField*> fields = form.getSigFields();
  return fields.empty() ? "?" : fields.back()->getName();
}

int finish(bool ok, const std::string& input, const std::string& output, const std::string& what,
           const std::string& why) {
  if (!ok) {
    complain(input, why);
    return why == kNoToken ? kExitNotVerified : kExitUsage;
  }
  std::cout << "wrote " << output << ": " << what << "\n";
  return kExitOk;
}

// The certificate of MY with this SHA-1 and its key, which stays in its
// token; the rest of the chain the store builds goes into the signature.
bool signerFromStore(const std::string& sha1, const std::optional<std::string>& pin,
                     PDF_Sealmark::PDFCert& signer, PDF_Sealmark::PDFSigner::Options& options) {
  usePin(pin);
  PDF_Sealmark::PDFCertWinStore store;
  if (!store.getByHash(signer, sha1, PDF_Sealmark::PDFCertWinStore::kMy) || signer.getPKey() == 0) {
    // Store 7 is MY without taking keys along: is the certificate there?
    PDF_Sealmark::PDFCert listed;
    complain(sha1, store.getByHash(listed, sha1, 7)
                       ? "its private key can't sign through the store (only RSA keys can)"
                       : "no certificate with this SHA-1 and a private key in the store MY (a token "
                         "that needs a PIN needs --pin)");
    return false;
  }
  std::vector<PDF_Sealmark::PDFCert> chain;
  store.getCertChain(chain, signer);
  if (chain.size() > 1) options.extraCertificates.assign(chain.begin() + 1, chain.end());
  return true;
}

}  // namespace

int runSign(const Args& args) {
  using PDF_Sealmark::PDFSigner;
  std::string output, p12, password, page = "1", digest = "sha256", subFilter = "pkcs7", certify = "0";
  std::string tsaUrl, tsaUser, tsaPassword, storeCert;
  std::optional<std::string> pin;
  PDFSigner::Options options;
  ArgParser parser("sign", kSignHelp);
  parser.value("--output", &output)
      .value("--p12", &p12)
      .secret("--password", &password)
      .value("--store-cert", &storeCert)
      .secret("--pin", &pin)
      .value("--field", &options.fieldName)
      .value("--page", &page)
      .value("--digest", &digest)
      .value("--subfilter", &subFilter)
      .value("--certify", &certify)
      .value("--reason", &options.reason)
      .value("--location", &options.location)
      .value("--timestamp-url", &tsaUrl)
      .value("--timestamp-user", &tsaUser)
      .secret("--timestamp-password", &tsaPassword)
      .secret("--doc-password", &options.documentPassword);
  std::vector<std::string> inputs;
  int exitCode = kExitOk;
  if (!parser.parse(args, inputs, exitCode) || !oneInput(parser, inputs, output, exitCode)) return exitCode;
  if (p12.empty() == storeCert.empty()) {
    return parser.usageError(p12.empty() ? "--p12 or --store-cert is required"
                                         : "--p12 and --store-cert exclude each other",
                             exitCode),
           exitCode;
  }
  if (tsaUser.empty() != tsaPassword.empty()) {
    return parser.usageError("--timestamp-user and --timestamp-password go together", exitCode), exitCode;
  }
  int level = 0;
  if (!choose(parser, "--digest", digest,
              std::map<std::string, PDFSigner::Digest>{{"sha1", PDFSigner::Digest::kSha1},
                                                       {"sha256", PDFSigner::Digest::kSha256},
                                                       {"sha384", PDFSigner::Digest::kSha384},
                                                       {"sha512", PDFSigner::Digest::kSha512}},
              options.digest, exitCode) ||
      !choose(parser, "--subfilter", subFilter,
              std::map<std::string, PDFSigner::SubFilter>{{"pkcs7", PDFSigner::SubFilter::kPkcs7Detached},
                                                          {"cades", PDFSigner::SubFilter::kCadesDetached},
                                                          {"sha1", PDFSigner::SubFilter::kPkcs7Sha1}},
              options.subFilter, exitCode) ||
      !choose(parser, "--certify", certify,
              std::map<std::string, int>{{"0", 0}, {"1", 1}, {"2", 2}, {"3", 3}}, level, exitCode)) {
    return exitCode;
  }
  options.certify = level;
  try {
    std::size_t used = 0;
    options.page = std::stoi(page, &used);
    if (used != page.size()) throw std::invalid_argument(page);
  } catch (const std::exception&) {
    return parser.usageError("--page must be a number, not '" + page + "'", exitCode), exitCode;
  }

  PDF_Sealmark::PDFCert signer;
  if (!storeCert.empty()) {
    if (!signerFromStore(storeCert, pin, signer, options)) return kExitUsage;
  } else {
    std::ifstream in(p12, std::ios::binary);
    if (!in || !signer.loadPkcs12(in, password.c_str())) {
      complain(p12, in ? "not a PKCS#12 file, or wrong password" : "can't be read");
      return kExitUsage;
    }
  }
  std::unique_ptr<PDF_Sealmark::PDFStdTimeStamp> tsa;
  if (!tsaUrl.empty()) {
    tsa = std::make_unique<PDF_Sealmark::PDFStdTimeStamp>(tsaUrl, tsaUser, tsaPassword,
                                                          PDF_Sealmark::PDFStdTimeStamp::kSha512);
    options.timeStamp = tsa.get();
  }
  std::string why;
  const bool ok = PDFSigner::signFile(inputs[0], output, signer, options, &why);
  const std::string what = level ? "certification signature" : "signature";
  return finish(ok, inputs[0], output,
                ok ? what + " in field " + fieldOf(options.fieldName, output, options.documentPassword) : "",
                why);
}

int runTimestampDocument(const Args& args) {
  std::string output, url, user, password, hash = "sha512";
  PDF_Sealmark::PDFSigner::Options options;
  ArgParser parser("timestamp-document", kTimestampDocumentHelp);
  parser.value("--output", &output)
      .value("--url", &url)
      .value("--user", &user)
      .secret("--password", &password)
      .value("--hash", &hash)
      .secret("--doc-password", &options.documentPassword);
  std::vector<std::string> inputs;
  int exitCode = kExitOk;
  if (!parser.parse(args, inputs, exitCode) || !oneInput(parser, inputs, output, exitCode)) return exitCode;
  if (url.empty()) return parser.usageError("--url is required", exitCode), exitCode;
  if (user.empty() != password.empty())
    return parser.usageError("--user and --password go together", exitCode), exitCode;
  int hashType = 0;
  if (!choose(parser, "--hash", hash,
              std::map<std::string, int>{{"sha1", PDF_Sealmark::PDFStdTimeStamp::kSha1},
                                         {"sha512", PDF_Sealmark::PDFStdTimeStamp::kSha512}},
              hashType, exitCode)) {
    return exitCode;
  }
  const PDF_Sealmark::PDFStdTimeStamp tsa(url, user, password, hashType);
  std::string why;
  const bool ok = PDF_Sealmark::PDFSigner::timestampFile(inputs[0], output, tsa, options, &why);
  return finish(ok, inputs[0], output,
                ok ? "document time stamp in field " + fieldOf("", output, options.documentPassword) : "",
                why);
}

}  // namespace sealmark
