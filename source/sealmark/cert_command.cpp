// sealmark cert show: the fields of one certificate file.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "args.h"
#include "cert_report.h"
#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFCert.h"
#include "revocation_urls.h"

namespace sealmark {

const char kCertHelp[] =
    "usage: sealmark cert show [--password PW] [--json] FILE\n"
    "       sealmark cert generate --subject NAME ... --output FILE.p12 --password PW\n"
    "               (see 'sealmark cert generate --help')\n"
    "\n"
    "Prints the fields of a certificate: subject, issuer, serial number,\n"
    "SHA-1 fingerprint, validity, algorithms, key usage, CRL and OCSP URLs.\n"
    "FILE holds one X.509 certificate in DER or PEM (the first of several),\n"
    "or a PKCS#12 file, whose certificate is shown when --password opens it.\n"
    "\n"
    "  --password PW   password of a PKCS#12 file\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --json          print JSON instead of text\n"
    "  -h, --help      show this help\n"
    "\n"
    "exit codes: 0 shown, 2 bad usage or a file that holds no readable certificate\n";

namespace {

struct CertOptions {
  std::optional<std::string> password;
  bool json = false;
  std::string file;
};

void printCertJson(const std::string& file, const CertReport& r, const RevocationUrls& urls,
                   std::ostream& out) {
  Json json{{"file", file}};
  json.update(certJson(r));
  json["crl_urls"] = urls.crl;
  json["ocsp_urls"] = urls.ocsp;
  printJson(out, json);
}

void printText(const std::string& file, const CertReport& r, const RevocationUrls& urls, std::ostream& out) {
  const std::string pad(23, ' ');
  auto line = [&](const std::string& label, const std::string& value) {
    out << "  " << label << ":" << std::string(label.size() < 20 ? 20 - label.size() : 1, ' ') << value
        << "\n";
  };
  auto name = [&](const std::string& label, const std::vector<Attribute>& attrs) {
    if (attrs.empty()) {
      line(label, "-");
      return;
    }
    for (std::size_t i = 0; i < attrs.size(); ++i) {
      const std::string text = attrs[i].label + "=" + toValidUtf8(attrs[i].value);
      if (i == 0) {
        line(label, text);
      } else {
        out << pad << text << "\n";
      }
    }
  };
  auto orDash = [](const std::string& s) { return s.empty() ? std::string("-") : s; };
  out << file << ":\n";
  line("version", std::to_string(r.version));
  line("serial", orDash(r.serial));
  line("sha1", orDash(r.sha1));
  name("subject", r.subject);
  name("issuer", r.issuer);
  line("not before", orDash(r.notBefore));
  line("not after", orDash(r.notAfter));
  line("key algorithm", orDash(r.keyAlgorithm));
  line("signature algorithm", orDash(r.signatureAlgorithm));
  std::string usage;
  if (r.keyUsage) {
    for (const std::string& u : *r.keyUsage) usage += (usage.empty() ? "" : ", ") + u;
  }
  line("key usage", orDash(usage));
  for (const auto& list : {std::make_pair("crl urls", &urls.crl), std::make_pair("ocsp urls", &urls.ocsp)}) {
    if (list.second->empty()) line(list.first, "-");
    for (std::size_t i = 0; i < list.second->size(); ++i) {
      if (i == 0) {
        line(list.first, (*list.second)[0]);
      } else {
        out << pad << (*list.second)[i] << "\n";
      }
    }
  }
}

bool parseArgs(const Args& args, CertOptions& opts, int& exitCode) {
  ArgParser parser("cert", kCertHelp);
  parser.flag("--json", &opts.json).secret("--password", &opts.password);
  // The subcommand comes first; help may be asked for before it.
  if (!args.empty() && args[0] != "show" && args[0] != "-h" && args[0] != "--help") {
    return parser.usageError("unknown subcommand " + args[0], exitCode);
  }
  std::vector<std::string> files;
  if (!parser.parse(args, files, exitCode)) return false;
  if (files.empty() || files[0] != "show") return parser.usageError("no subcommand given", exitCode);
  if (files.size() < 2) return parser.usageError("no FILE given", exitCode);
  if (files.size() > 2) return parser.usageError("one FILE at a time", exitCode);
  opts.file = files[1];
  return true;
}

}  // namespace

int runCert(const Args& args) {
  if (!args.empty() && args[0] == "generate") return runCertGenerate(Args(args.begin() + 1, args.end()));
  CertOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;

  std::ifstream in(opts.file, std::ios::binary);
  if (!in) {
    complain(opts.file, std::strerror(errno));
    return kExitUsage;
  }
  PDF_Sealmark::PDFCert cert;
  // DER or PEM first; a PKCS#12 file is neither and needs its password.
  bool loaded = cert.loadX509(in, true);
  if (!loaded && opts.password) loaded = cert.loadPkcs12(in, opts.password->c_str());
  if (!loaded) {
    complain(opts.file, opts.password ? "no certificate (not DER or PEM, or not PKCS#12 with this password)"
                                      : "no certificate in DER or PEM (a PKCS#12 file needs --password)");
    return kExitUsage;
  }
  const CertReport report = describe(cert);
  if (opts.json) {
    printCertJson(opts.file, report, revocationUrls(cert), std::cout);
  } else {
    printText(opts.file, report, revocationUrls(cert), std::cout);
  }
  return kExitOk;
}

}  // namespace sealmark
