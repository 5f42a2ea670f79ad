// sealmark chain: the issuer path of a certificate, through
// PDFCert::getChain, with each element's dates and revocation status.
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "cert_report.h"
#include "commands.h"
#include "output.h"
#include "trust_options.h"
#include "pdfsealmark/PDFCert.h"

namespace sealmark {

const char kChainHelp[] =
    "usage: sealmark chain CERT [--given FILE]... [--time DATE] [--revocation] [--crl-cache DIR]\n"
    "                      [--ldap-servers LIST] [--no-nonce] [--json]\n"
    "\n"
    "Walks the issuer path of the certificate CERT by names: each issuer is the\n"
    "first --given certificate with that subject, else one of the system's\n"
    "certificates (the NSS database and the trust anchors), until a self-issued\n"
    "certificate ends the path.  Each certificate of the path must be valid at\n"
    "the time and, with --revocation, not revoked (OCSP, then its CRLs), unless it\n"
    "stands in the store ROOT.  Certificate files are DER or PEM.\n"
    "\n"
    "  --given FILE        a candidate issuer, searched before the system's;\n"
    "                      may be given several times, the first match wins\n"
    "  --time DATE         the moment of the check, YYYYMMDDHHMM[SS][Z|+HHMM|-HHMM];\n"
    "                      default now\n"
    "  --revocation        check each certificate outside ROOT for revocation\n"
    "  --crl-cache DIR     keep fetched CRLs in DIR and use them for up to six hours\n"
    "  --ldap-servers LIST comma-separated URL prefixes for CRLs named by a directory\n"
    "                      name, such as 'ldap://dir.example:389/,'\n"
    "  --no-nonce          send OCSP requests without a nonce\n"
    "  --json              print JSON instead of a table\n"
    "  -h, --help          show this help\n"
    "\n"
    "result: 0 incomplete or failed, 1 complete, top not trusted (not in ROOT),\n"
    "2 complete, top trusted.  REVOCATION says what decided each certificate's\n"
    "check: OCSP, CRL, no answer, or - (not checked, or it names neither).\n"
    "exit codes: 0 result 2, 1 result 0 or 1, 2 bad usage or unreadable file\n";

namespace {

struct ChainOptions {
  std::string cert;
  std::vector<std::string> given;
  std::optional<std::string> time;
  RevocationSources sources;
  bool revocation = false;
  bool json = false;
};

bool parseArgs(const Args& args, ChainOptions& opts, int& exitCode) {
  ArgParser parser("chain", kChainHelp);
  parser.flag("--json", &opts.json)
      .flag("--revocation", &opts.revocation)
      .repeated("--given", &opts.given)
      .value("--time", &opts.time);
  opts.sources.addTo(parser);
  std::vector<std::string> files;
  if (!parser.parse(args, files, exitCode)) return false;
  if (files.empty()) return parser.usageError("no CERT given", exitCode);
  if (files.size() > 1) return parser.usageError("one CERT at a time", exitCode);
  if (!checkTime(opts.time, parser, exitCode)) return false;
  opts.cert = files[0];
  return true;
}

const char* const kResults[] = {"incomplete or failed", "complete, top not trusted", "complete, top trusted"};

// What getValid says decided the element's revocation check.
const char* decidedBy(int valid) {
  switch (valid) {
    case 1:
      return "crl";
    case 2:
      return "ocsp";
    case 3:
      return "no answer";
    default:
      return nullptr;
  }
}

}  // namespace

int runChain(const Args& args) {
  ChainOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;
  PDF_Sealmark::PDFCert cert;
  if (!loadCertificate(opts.cert, cert)) return kExitUsage;
  std::vector<PDF_Sealmark::PDFCert> given;
  if (!loadCertificates(opts.given, given)) return kExitUsage;

  const char* time = opts.time ? opts.time->c_str() : nullptr;
  std::vector<PDF_Sealmark::PDFCert> chain;
  const int result =
      cert.getChain(chain, given, opts.revocation, time, opts.sources.cacheDirOrNull(),
                    opts.sources.ldapServersOrNull(), opts.sources.noNonce ? 1 : 0);

  if (opts.json) {
    Json elements = Json::array();
    for (PDF_Sealmark::PDFCert& c : chain) {
      Json element = certJson(describe(c));
      element["valid_at_time"] = c.isValid(time);
      const char* by = decidedBy(c.getValid());
      element["revocation"] = Json{{"valid", c.getValid()}, {"decided_by", by ? Json(by) : Json(nullptr)}};
      elements.push_back(element);
    }
    printJson(std::cout, Json{{"file", opts.cert},
                              {"time", orNull(opts.time)},
                              {"revocation_checked", opts.revocation},
                              {"result", result},
                              {"result_text", kResults[result]},
                              {"chain", elements}});
  } else {
    std::cout << opts.cert << ": " << kResults[result] << " (" << result << "), " << chain.size()
              << " certificate" << (chain.size() == 1 ? "" : "s") << " on the path\n";
    Table table({"#", "SUBJECT", "NOT BEFORE", "NOT AFTER", "AT TIME", "REVOCATION"});
    for (std::size_t i = 0; i < chain.size(); ++i) {
      const CertReport r = describe(chain[i]);
      static const char* const kDecided[] = {"-", "CRL", "OCSP", "no answer"};
      const int valid = chain[i].getValid();
      table.addRow({std::to_string(i), shortName(r), displayTime(r.notBefore), displayTime(r.notAfter),
                    chain[i].isValid(time) ? "valid" : "NOT VALID",
                    kDecided[valid >= 0 && valid <= 3 ? valid : 0]});
    }
    table.print(std::cout, "  ");
  }
  return result == 2 ? kExitOk : kExitNotVerified;
}

}  // namespace sealmark
