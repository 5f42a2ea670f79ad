// sealmark store: the system's certificate stores (on Linux, the NSS
// database): list them, import a PKCS#12 file, add, export and delete a
// certificate.
#include <sys/stat.h>
#include <unicode/unistr.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "args.h"
#include "cert_report.h"
#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFCertWinStore.h"

namespace sealmark {

const char kStoreHelp[] =
    "usage: sealmark store list [MY|ADDRESSBOOK|ROOT] [--json]\n"
    "       sealmark store import FILE.p12 --password PW\n"
    "       sealmark store add CERT --store ADDRESSBOOK|ROOT\n"
    "       sealmark store export SHA1 --output CERT [--pem]\n"
    "       sealmark store delete SHA1 [--store MY|ADDRESSBOOK|ROOT]\n"
    "\n"
    "The system's certificate stores, which on Linux are views of the NSS\n"
    "certificate database that Linux programs share: $SEALMARK_NSSDB, else\n"
    "~/.pki/nssdb (made empty on first use).\n"
    "  MY           certificates with a private key in a token of the database\n"
    "  ADDRESSBOOK  certificates with no key and no CA trust\n"
    "  ROOT         CA-trusted certificates of the database, and the system's\n"
    "               trust anchors ($SSL_CERT_FILE, $SSL_CERT_DIR), read-only\n"
    "\n"
    "  list       the certificates of one store, or of all three: SHA-1,\n"
    "             subject, validity, whether the database holds a key for it\n"
    "  import     a PKCS#12 file's keys and certificates, into MY\n"
    "  add        a certificate file (DER or PEM) into ADDRESSBOOK or ROOT\n"
    "  export     the certificate with this SHA-1 to a file (DER, or PEM)\n"
    "  delete     the certificate with this SHA-1 from a store (default MY);\n"
    "             its private key stays in its token\n"
    "\n"
    "  --password PW    password of the PKCS#12 file\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --pin PIN        PIN of tokens that need one (else $SEALMARK_PIN_FILE,\n"
    "                   $SEALMARK_PIN; nobody is asked)\n"
    "  --pin-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --store NAME     the store of add and delete\n"
    "  --output CERT    the file export writes\n"
    "  --pem            export as PEM instead of DER\n"
    "  --json           list as JSON\n"
    "  -h, --help       show this help\n"
    "\n"
    "exit codes: 0 done, 2 bad usage, unreadable input, or a certificate not found\n";

namespace {

using PDF_Sealmark::PDFCert;
using PDF_Sealmark::PDFCertWinStore;

const char* const kStoreNames[] = {"MY", "ADDRESSBOOK", "ROOT"};

int storeNumber(const std::string& name) {
  for (int i = 0; i < 3; ++i) {
    if (name == kStoreNames[i]) return i;
  }
  return -1;
}

// The library takes wide text: one code point per wchar_t.
std::wstring wide(const std::string& utf8) {
  static_assert(sizeof(wchar_t) == sizeof(UChar32), "wchar_t holds a code point");
  const icu::UnicodeString text = icu::UnicodeString::fromUTF8(utf8);
  std::wstring out(static_cast<std::size_t>(text.countChar32()), L'\0');
  UErrorCode status = U_ZERO_ERROR;
  text.toUTF32(reinterpret_cast<UChar32*>(out.data()), static_cast<int32_t>(out.size()), status);
  return out;
}

std::string sha1Of(const PDFCert& cert) {
  std::string hex;
  cert.getHashHex(hex);
  return hex;
}

// "O=PDFSealmark Tests, CN=Signer", UTF-8.
std::string subjectLine(const CertReport& r) {
  std::string text;
  for (const Attribute& a : r.subject) text += (text.empty() ? "" : ", ") + a.label + "=" + a.value;
  return text.empty() ? "-" : text;
}

// "20261122231420Z" as "2026-11-22".
std::string day(const std::string& t) {
  if (t.size() < 8) return t.empty() ? "-" : t;
  return t.substr(0, 4) + "-" + t.substr(4, 2) + "-" + t.substr(6, 2);
}

// SHA-1s of the certificates that have a key in the database: those of MY
// (store 7 is MY without taking the keys along, which isn't needed here).
std::set<std::string> certificatesWithKey(PDFCertWinStore& store) {
  std::vector<PDFCert> certs;
  store.getByName(certs, L"", 7);
  std::set<std::string> out;
  for (const PDFCert& c : certs) out.insert(sha1Of(c));
  return out;
}

int list(PDFCertWinStore& store, const std::vector<std::string>& operands, bool json) {
  std::vector<int> stores{0, 1, 2};
  if (operands.size() > 2) {
    complain("store", "list takes one store name at most (see 'sealmark store --help')");
    return kExitUsage;
  }
  if (operands.size() == 2) {
    const int n = storeNumber(operands[1]);
    if (n < 0) {
      complain("store", "no store " + operands[1] + " (MY, ADDRESSBOOK or ROOT)");
      return kExitUsage;
    }
    stores = {n};
  }
  const std::set<std::string> withKey = certificatesWithKey(store);
  Json rows = Json::array();
  Table table({"STORE", "SHA-1", "SUBJECT", "VALID FROM", "VALID TO", "KEY"});
  for (int n : stores) {
    std::vector<PDFCert> certs;
    // Store 7 reads MY without opening every key: listing needs none.
    store.getByName(certs, L"", n == 0 ? 7 : n);
    for (const PDFCert& cert : certs) {
      const CertReport r = describe(cert);
      const bool hasKey = withKey.count(r.sha1) != 0;
      if (json) {
        rows.push_back(Json{{"store", kStoreNames[n]},
                            {"sha1", r.sha1},
                            {"subject", certJson(r)["subject"]},
                            {"not_before", r.notBefore},
                            {"not_after", r.notAfter},
                            {"has_key", hasKey}});
      } else {
        table.addRow({kStoreNames[n], r.sha1, subjectLine(r), day(r.notBefore), day(r.notAfter),
                      hasKey ? "yes" : "-"});
      }
    }
  }
  if (json) {
    printJson(std::cout, rows);
  } else {
    table.print(std::cout, "");
  }
  return kExitOk;
}

int import(PDFCertWinStore& store, const std::string& file, const std::string& password) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    complain(file, std::strerror(errno));
    return kExitUsage;
  }
  PDFCert last;
  if (!store.addPfx(in, wide(password), last)) {
    complain(file, "not imported: not a PKCS#12 file, wrong password, or no usable certificate");
    return kExitUsage;
  }
  // The store hands back the file's last certificate; the one with the key
  // is found by reading the file again.
  std::vector<PDFCert> shown;
  PDFCert keyed;
  in.clear();
  if (keyed.loadPkcs12(in, password.c_str())) shown.push_back(keyed);
  if (shown.empty() || sha1Of(shown[0]) != sha1Of(last)) shown.push_back(last);
  const std::set<std::string> withKey = certificatesWithKey(store);
  std::cout << "imported " << file << " into MY\n";
  Table table({"SHA-1", "SUBJECT", "KEY"});
  for (const PDFCert& c : shown) {
    const CertReport r = describe(c);
    table.addRow({r.sha1, subjectLine(r), withKey.count(r.sha1) ? "yes" : "-"});
  }
  table.print(std::cout, "  ");
  return kExitOk;
}

int add(PDFCertWinStore& store, const std::string& file, const std::string& storeName) {
  const int n = storeNumber(storeName);
  if (n != 1 && n != 2) {
    complain("store", "add needs --store ADDRESSBOOK or --store ROOT (see 'sealmark store --help')");
    return kExitUsage;
  }
  PDFCert cert;
  if (!loadCertificate(file, cert)) return kExitUsage;
  if (!store.addToStore(cert, n)) {
    complain(file, "the database refused the certificate");
    return kExitUsage;
  }
  std::cout << "added " << sha1Of(cert) << " to " << storeName << "\n";
  return kExitOk;
}

// The certificate with this SHA-1 in the named store, or in any (MY first).
bool find(PDFCertWinStore& store, const std::string& sha1, int n, PDFCert& cert) {
  // Store 7 is MY without its keys, which export and delete don't need.
  if (n >= 0) return store.getByHash(cert, sha1, n == 0 ? 7 : n);
  for (int any : {7, 1, 2}) {
    if (store.getByHash(cert, sha1, any)) return true;
  }
  return false;
}

int exportCert(PDFCertWinStore& store, const std::string& sha1, const std::string& output, bool pem) {
  PDFCert cert;
  if (!find(store, sha1, -1, cert)) {
    complain(sha1, "no certificate with this SHA-1 in MY, ADDRESSBOOK or ROOT");
    return kExitUsage;
  }
  std::ofstream out(output, std::ios::binary);
  if (!out || !cert.saveX509(out, !pem) || !out.flush()) {
    complain(output, "can't be written");
    return kExitUsage;
  }
  std::cout << "wrote " << output << ": " << subjectLine(describe(cert)) << "\n";
  return kExitOk;
}

int remove(PDFCertWinStore& store, const std::string& sha1, const std::string& storeName) {
  const int n = storeNumber(storeName);
  if (n < 0) {
    complain("store", "no store " + storeName + " (MY, ADDRESSBOOK or ROOT)");
    return kExitUsage;
  }
  PDFCert cert;
  if (!find(store, sha1, n, cert)) {
    complain(sha1, "no certificate with this SHA-1 in " + storeName);
    return kExitUsage;
  }
  if (!store.delFromStore(cert, n)) {
    complain(sha1, "can't be deleted from " + storeName + " (the system's trust anchors are read-only)");
    return kExitUsage;
  }
  std::cout << "deleted " << sha1Of(cert) << " from " << storeName << "\n";
  return kExitOk;
}

}  // namespace

void usePin(const std::optional<std::string>& pin) {
  if (pin) ::setenv("SEALMARK_PIN", pin->c_str(), 1);
}

int runStore(const Args& args) {
  std::optional<std::string> password, pin;
  std::string storeName, output;
  bool json = false, pem = false;
  ArgParser parser("store", kStoreHelp);
  parser.flag("--json", &json)
      .flag("--pem", &pem)
      .secret("--password", &password)
      .secret("--pin", &pin)
      .value("--store", &storeName)
      .value("--output", &output);
  std::vector<std::string> operands;
  int exitCode = kExitOk;
  if (!parser.parse(args, operands, exitCode)) return exitCode;
  if (operands.empty()) return parser.usageError("no subcommand given", exitCode), exitCode;
  const std::string& sub = operands[0];
  // The library answers an unopenable database with empty stores; a
  // database named by hand that isn't there is worth saying so.
  if (const char* db = std::getenv("SEALMARK_NSSDB"); db != nullptr && *db != '\0') {
    const std::string dir = std::string(db).compare(0, 4, "sql:") == 0 ? db + 4 : db;
    struct stat st {};
    if (::stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
      complain(dir, "no such database directory ($SEALMARK_NSSDB)");
      return kExitUsage;
    }
  }
  usePin(pin);
  PDFCertWinStore store;
  if (sub == "list") return list(store, operands, json);
  if (sub != "import" && sub != "add" && sub != "export" && sub != "delete") {
    return parser.usageError("unknown subcommand " + sub, exitCode), exitCode;
  }
  if (operands.size() != 2) return parser.usageError(sub + " takes one operand", exitCode), exitCode;
  const std::string& operand = operands[1];
  if (sub == "import") {
    if (!password) return parser.usageError("import needs --password", exitCode), exitCode;
    return import(store, operand, *password);
  }
  if (sub == "add") return add(store, operand, storeName);
  if (sub == "export") {
    if (output.empty()) return parser.usageError("export needs --output", exitCode), exitCode;
    return exportCert(store, operand, output, pem);
  }
  return remove(store, operand, storeName.empty() ? "MY" : storeName);
}

}  // namespace sealmark
