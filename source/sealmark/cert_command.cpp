// sealmark cert show: the fields of one certificate file.
#include <unicode/unistr.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFCert.h"

namespace sealmark {

const char kCertHelp[] =
    "usage: sealmark cert show [--password PW] [--json] FILE\n"
    "\n"
    "Prints the fields of a certificate: subject, issuer, serial number,\n"
    "SHA-1 fingerprint, validity, algorithms and key usage.  FILE holds one\n"
    "X.509 certificate in DER or PEM (the first of several), or a PKCS#12\n"
    "file, whose certificate is shown when --password opens it.\n"
    "\n"
    "  --password PW   password of a PKCS#12 file\n"
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

// keyUsage bits as OpenSSL caches them (RFC 5280, 4.2.1.3 names).
const std::pair<int, const char*> kKeyUsageBits[] = {
    {0x0080, "digitalSignature"}, {0x0040, "nonRepudiation"}, {0x0020, "keyEncipherment"},
    {0x0010, "dataEncipherment"}, {0x0008, "keyAgreement"},   {0x0004, "keyCertSign"},
    {0x0002, "cRLSign"},          {0x0001, "encipherOnly"},   {0x8000, "decipherOnly"},
};

// The library hands names out in code page 932; the terminal and JSON want
// UTF-8.
std::string cp932ToUtf8(const std::string& bytes) {
  const icu::UnicodeString text(bytes.data(), static_cast<int32_t>(bytes.size()), "CP932");
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

struct Attribute {
  std::string oid;
  std::string label;  // OpenSSL's short name, or the oid when it has none
  std::string value;  // UTF-8
};

struct CertReport {
  int version = 0;
  std::vector<Attribute> subject, issuer;
  std::string serial, sha1, notBefore, notAfter, keyAlgorithm, signatureAlgorithm;
  std::optional<std::vector<std::string>> keyUsage;  // none without the extension
};

std::vector<Attribute> attributes(const PDF_Sealmark::PDFCert& cert, const std::vector<std::string>& oids,
                                  const std::vector<std::string>& values) {
  std::vector<Attribute> out;
  for (std::size_t i = 0; i < oids.size() && i < values.size(); ++i) {
    std::string shortName, longName;
    cert.getOidName(oids[i], shortName, longName);
    const bool known = !shortName.empty() && shortName != "UNDEF";
    out.push_back({oids[i], known ? shortName : oids[i], cp932ToUtf8(values[i])});
  }
  return out;
}

CertReport describe(const PDF_Sealmark::PDFCert& cert) {
  CertReport r;
  r.version = cert.getVersion() + 1;
  std::vector<std::string> oids, values;
  cert.getSubject(oids, values);
  r.subject = attributes(cert, oids, values);
  cert.getIssuer(oids, values);
  r.issuer = attributes(cert, oids, values);
  r.serial = cert.getSerialHex();
  cert.getHashHex(r.sha1);
  r.notBefore = cert.getNotBefore();
  r.notAfter = cert.getNotAfter();
  r.keyAlgorithm = cert.getPublicKeyAlgorithm();
  r.signatureAlgorithm = cert.getSignAlgorithm();
  if (const int usage = cert.getKeyUsage()) {
    r.keyUsage.emplace();
    for (const auto& bit : kKeyUsageBits) {
      if (usage & bit.first) r.keyUsage->push_back(bit.second);
    }
  }
  return r;
}

void printNameJson(JsonWriter& json, const std::vector<Attribute>& name) {
  json.beginArray();
  for (const Attribute& a : name) json.beginArray().value(a.oid).value(a.value).endArray();
  json.endArray();
}

void printJson(const std::string& file, const CertReport& r, std::ostream& out) {
  JsonWriter json(out);
  json.beginObject().key("file").value(file).key("version").value(r.version).key("subject");
  printNameJson(json, r.subject);
  json.key("issuer");
  printNameJson(json, r.issuer);
  json.key("serial")
      .value(r.serial)
      .key("sha1")
      .value(r.sha1)
      .key("not_before")
      .value(r.notBefore)
      .key("not_after")
      .value(r.notAfter)
      .key("key_algorithm")
      .value(r.keyAlgorithm)
      .key("signature_algorithm")
      .value(r.signatureAlgorithm)
      .key("key_usage");
  if (r.keyUsage) {
    json.beginArray();
    for (const std::string& u : *r.keyUsage) json.value(u);
    json.endArray();
  } else {
    json.null();
  }
  json.endObject();
  out << "\n";
}

void printText(const std::string& file, const CertReport& r, std::ostream& out) {
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
}

bool parseArgs(const Args& args, CertOptions& opts, int& exitCode) {
  auto usageError = [&](const std::string& reason) {
    complain("cert", reason + " (see 'sealmark cert --help')");
    exitCode = kExitUsage;
    return false;
  };
  if (args.empty()) return usageError("no subcommand given");
  if (args[0] == "-h" || args[0] == "--help") {
    std::cout << kCertHelp;
    exitCode = kExitOk;
    return false;
  }
  if (args[0] != "show") return usageError("unknown subcommand " + args[0]);
  std::vector<std::string> files;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      std::cout << kCertHelp;
      exitCode = kExitOk;
      return false;
    }
    if (a == "--json") {
      opts.json = true;
    } else if (a == "--password") {
      if (i + 1 == args.size()) return usageError("--password needs a value");
      opts.password = args[++i];
    } else if (a.rfind("--password=", 0) == 0) {
      opts.password = a.substr(11);
    } else if (a == "--") {
      files.insert(files.end(), args.begin() + static_cast<long>(i) + 1, args.end());
      break;
    } else if (a.size() > 1 && a[0] == '-') {
      return usageError("unknown option " + a);
    } else {
      files.push_back(a);
    }
  }
  if (files.empty()) return usageError("no FILE given");
  if (files.size() > 1) return usageError("one FILE at a time");
  opts.file = files[0];
  return true;
}

}  // namespace

int runCert(const Args& args) {
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
    printJson(opts.file, report, std::cout);
  } else {
    printText(opts.file, report, std::cout);
  }
  return kExitOk;
}

}  // namespace sealmark
