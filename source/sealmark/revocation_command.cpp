// sealmark revocation: is a certificate revoked?  Asks the OCSP responder
// that the certificate names, then its CRLs, through PDFCert::checkCRL.
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "trust_options.h"
#include "pdfsealmark/PDFCert.h"

namespace sealmark {

const char kRevocationHelp[] =
    "usage: sealmark revocation CERT --issuer ISSUER [--chain FILE]... [--time DATE]\n"
    "                           [--crl-cache DIR] [--ldap-servers LIST] [--no-nonce] [--json]\n"
    "\n"
    "Checks whether the certificate CERT is revoked: asks the OCSP responder it\n"
    "names first; when that gives no answer, the CRLs it names, in order.\n"
    "Certificate files are DER or PEM.\n"
    "\n"
    "  --issuer ISSUER     the certificate of CERT's issuer (verifies responses and CRLs)\n"
    "  --chain FILE        a certificate that anchors the OCSP responder's signature\n"
    "                      instead of ISSUER; may be given several times\n"
    "  --time DATE         the moment for CRL entries, YYYYMMDDHHMM[SS][Z|+HHMM|-HHMM];\n"
    "                      default now (OCSP always answers for now)\n"
    "  --crl-cache DIR     keep fetched CRLs in DIR and use them for up to six hours\n"
    "  --ldap-servers LIST comma-separated URL prefixes for CRLs named by a directory\n"
    "                      name, such as 'ldap://dir.example:389/,' (one server needs\n"
    "                      its comma)\n"
    "  --no-nonce          send OCSP requests without a nonce\n"
    "  --json              print {\"not_revoked\", \"valid\", \"decided_by\"} as JSON\n"
    "  -h, --help          show this help\n"
    "\n"
    "decided_by: ocsp, crl, none (CERT names neither), undecided (no answer)\n"
    "exit codes: 0 not revoked, 1 revoked or undecided, 2 bad usage or unreadable file\n";

namespace {

struct RevocationOptions {
  std::string cert;
  std::string issuer;
  std::vector<std::string> chain;
  std::optional<std::string> time;
  RevocationSources sources;
  bool json = false;
};

bool parseArgs(const Args& args, RevocationOptions& opts, int& exitCode) {
  ArgParser parser("revocation", kRevocationHelp);
  std::optional<std::string> issuer;
  parser.flag("--json", &opts.json)
      .value("--issuer", &issuer)
      .repeated("--chain", &opts.chain)
      .value("--time", &opts.time);
  opts.sources.addTo(parser);
  std::vector<std::string> files;
  if (!parser.parse(args, files, exitCode)) return false;
  if (files.empty()) return parser.usageError("no CERT given", exitCode);
  if (files.size() > 1) return parser.usageError("one CERT at a time", exitCode);
  if (!issuer) return parser.usageError("--issuer is required", exitCode);
  if (!checkTime(opts.time, parser, exitCode)) return false;
  opts.cert = files[0];
  opts.issuer = *issuer;
  return true;
}

const char* decidedBy(bool notRevoked, int valid) {
  switch (valid) {
    case 1:
      return "crl";
    case 2:
      return "ocsp";
    case 0:
      return notRevoked ? "none" : "undecided";
    default:
      return "undecided";
  }
}

std::string inWords(bool notRevoked, const std::string& by) {
  if (by == "ocsp")
    return notRevoked ? "not revoked (the OCSP responder says good)"
                      : "revoked (the OCSP responder says revoked or unknown)";
  if (by == "crl") return notRevoked ? "not revoked (by its CRL)" : "revoked (by its CRL)";
  if (by == "none") return "not revoked (it names no OCSP responder and no CRL)";
  return "undecided (no OCSP responder and no CRL gave an answer)";
}

}  // namespace

int runRevocation(const Args& args) {
  RevocationOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;

  PDF_Sealmark::PDFCert cert;
  PDF_Sealmark::PDFCert issuer;
  if (!loadCertificate(opts.cert, cert) || !loadCertificate(opts.issuer, issuer)) return kExitUsage;
  std::vector<PDF_Sealmark::PDFCert> chain;
  if (!loadCertificates(opts.chain, chain)) return kExitUsage;

  const bool notRevoked = cert.checkCRL(opts.time ? opts.time->c_str() : nullptr,
                                        opts.sources.cacheDirOrNull(), opts.sources.ldapServersOrNull(), &issuer,
                                        chain.empty() ? nullptr : &chain, opts.sources.noNonce ? 1 : 0);
  const int valid = cert.getValid();
  const std::string by = decidedBy(notRevoked, valid);
  if (opts.json) {
    printJson(std::cout, Json{{"not_revoked", notRevoked}, {"valid", valid}, {"decided_by", by}});
  } else {
    std::cout << opts.cert << ": " << inWords(notRevoked, by) << "\n";
  }
  return notRevoked ? kExitOk : kExitNotVerified;
}

}  // namespace sealmark
