// sealmark cert generate: a new RSA key and a self-signed certificate,
// written as a PKCS#12 file, through PDFCert::generate.
#include <openssl/objects.h>

#include <iostream>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFCert.h"

namespace sealmark {

const char kCertGenerateHelp[] =
    "usage: sealmark cert generate --subject NAME [--alt-name VALUE] [--serial N] [--days N]\n"
    "                              [--key-size 2048|4096] [--usage 0|1|2] --output FILE.p12\n"
    "                              --password PW\n"
    "\n"
    "Makes a new RSA key and a self-signed certificate for it (X.509 v3, SHA-1\n"
    "with RSA, not a CA), writes both to FILE.p12 and prints the certificate's\n"
    "SHA-1 fingerprint.  Its extensions: basicConstraints CA:FALSE, a Netscape\n"
    "comment, subject and authority key identifiers, keyUsage, and\n"
    "subjectAltName when given.\n"
    "\n"
    "  --subject NAME    the subject (and issuer) as in RFC 4514, most significant\n"
    "                    attribute last: \"CN=Yamada Taro,O=Example,C=JP\".  Types are\n"
    "                    OpenSSL's names (CN, O, OU, L, ST, C, emailAddress, ...) or\n"
    "                    dotted identifiers; write a comma in a value as \\,.\n"
    "                    Values with Japanese text are UTF8Strings, emailAddress an\n"
    "                    IA5String, others PrintableStrings\n"
    "  --alt-name VALUE  subjectAltName in OpenSSL's form, such as email:ADDR\n"
    "  --serial N        serial number, 1 to 2147483647 (default: random)\n"
    "  --days N          days of validity from now, 1 to 24855 (default 365)\n"
    "  --key-size BITS   2048 (default) or 4096\n"
    "  --usage N         key usage: 0 digitalSignature, nonRepudiation (default);\n"
    "                    1 nonRepudiation, dataEncipherment; 2 all three\n"
    "  --output FILE     the PKCS#12 file, written whole or not at all, mode 0600\n"
    "  --password PW     password of the PKCS#12 file\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  -h, --help        show this help\n"
    "\n"
    "exit codes: 0 written, 2 bad usage or a file that can't be written\n";

namespace {

struct Attribute {
  std::string oid, value;
};

std::string trimmed(const std::string& s) {
  const std::size_t first = s.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(' ') - first + 1);
}

// The library stores a value with a byte of 0x81-0x9F or 0xE0-0xFC (the
// lead bytes of Shift-JIS, present in all UTF-8 Japanese text) as a
// UTF8String and any other value byte for byte as a PrintableString, so
// other text outside ASCII ("Müller") would make an unreadable string.
bool storableAsIs(const std::string& value) {
  bool ascii = true, lead = false;
  for (unsigned char c : value) {
    ascii = ascii && c < 0x80;
    lead = lead || (c >= 0x81 && c <= 0x9F) || (c >= 0xE0 && c <= 0xFC);
  }
  return ascii || lead;
}

// "CN=a,O=b\,c,C=JP" into (oid, value) pairs in encoded order: RFC 4514
// writes the last RDN first.
bool parseSubject(const std::string& text, std::vector<Attribute>& out, std::string& why) {
  std::vector<std::string> pieces(1);
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      pieces.back() += text[++i];
    } else if (text[i] == ',') {
      pieces.emplace_back();
    } else {
      pieces.back() += text[i];
    }
  }
  for (auto it = pieces.rbegin(); it != pieces.rend(); ++it) {
    const std::size_t eq = it->find('=');
    if (eq == std::string::npos) {
      why = "--subject: '" + *it + "' is not TYPE=VALUE";
      return false;
    }
    const std::string type = trimmed(it->substr(0, eq));
    const std::string value = trimmed(it->substr(eq + 1));
    const int nid = OBJ_txt2nid(type.c_str());
    char oid[128];
    if (nid == NID_undef || OBJ_obj2txt(oid, sizeof oid, OBJ_nid2obj(nid), 1) <= 0) {
      why = "--subject: unknown attribute type '" + type + "'";
      return false;
    }
    if (!storableAsIs(value)) {
      why = "--subject: '" + value + "' can't be stored: text outside ASCII is written as UTF-8 only " +
            "when it holds Japanese (a byte 0x81-0x9F or 0xE0-0xFC)";
      return false;
    }
    out.push_back({oid, value});
  }
  return true;
}

// A decimal number within [low, high], or false.
bool number(const std::string& text, long low, long high, long& out) {
  if (text.empty() || text.size() > 12 || text.find_first_not_of("0123456789") != std::string::npos)
    return false;
  out = std::stol(text);
  return out >= low && out <= high;
}

}  // namespace

int runCertGenerate(const Args& args) {
  std::string subject, altName, serialText, daysText = "365", keySizeText = "2048", usageText = "0", output;
  std::optional<std::string> password;
  ArgParser parser("cert generate", kCertGenerateHelp);
  parser.value("--subject", &subject)
      .value("--alt-name", &altName)
      .value("--serial", &serialText)
      .value("--days", &daysText)
      .value("--key-size", &keySizeText)
      .value("--usage", &usageText)
      .value("--output", &output)
      .secret("--password", &password);
  std::vector<std::string> operands;
  int exitCode = kExitOk;
  if (!parser.parse(args, operands, exitCode)) return exitCode;
  const auto fail = [&](const std::string& reason) {
    parser.usageError(reason, exitCode);
    return exitCode;
  };
  if (!operands.empty()) return fail("unexpected operand " + operands[0]);
  if (subject.empty()) return fail("--subject is required");
  if (output.empty()) return fail("--output is required");
  if (!password || password->empty()) {
    return fail("a non-empty --password is required");
  }
  std::vector<Attribute> attributes;
  std::string why;
  if (!parseSubject(subject, attributes, why)) return fail(why);
  long serial = 0, days = 0, usage = 0;
  // Serial and days stay within the 32-bit long of the library's interface.
  if (serialText.empty()) {
    std::random_device random;
    serial = std::uniform_int_distribution<long>(1, 2147483647)(random);
  } else if (!number(serialText, 1, 2147483647, serial)) {
    return fail("--serial takes 1 to 2147483647");
  }
  if (!number(daysText, 1, 2147483647 / 86400, days)) {
    return fail("--days takes 1 to 24855");
  }
  if (keySizeText != "2048" && keySizeText != "4096") {
    return fail("--key-size takes 2048 or 4096");
  }
  if (!number(usageText, 0, 2, usage)) return fail("--usage takes 0, 1 or 2");

  std::vector<std::string> oids, values;
  for (const Attribute& a : attributes) {
    oids.push_back(a.oid);
    values.push_back(a.value);
  }
  PDF_Sealmark::PDFCert cert;
  if (!cert.generate(serial, days, oids, values, altName, keySizeText == "4096" ? 2 : 1,
                     static_cast<int>(usage))) {
    // With the arguments checked above, only the alternative name is left
    // for OpenSSL to refuse.
    return fail(altName.empty() ? "the certificate could not be made"
                                : "--alt-name '" + altName + "' is not a subjectAltName value that OpenSSL " +
                                      "reads, such as email:ADDR");
  }
  std::ostringstream p12;
  std::string sha1;
  if (!cert.savePkcs12(p12, password->c_str(), "") || !cert.getHashHex(sha1)) {
    complain(output, "the PKCS#12 file could not be made");
    return kExitUsage;
  }
  // The file holds the private key: readable by its owner only.
  if (!writeFileAtomically(output, p12.str(), 0600, why)) {
    complain(output, why);
    return kExitUsage;
  }
  std::cout << sha1 << "\n";
  return kExitOk;
}

}  // namespace sealmark
