#include "cert_report.h"

#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509.h>
#include <unicode/unistr.h>

#include <utility>

namespace sealmark {

namespace {

// keyUsage bits as OpenSSL caches them (RFC 5280, 4.2.1.3 names).
const std::pair<int, const char*> kKeyUsageBits[] = {
    {0x0080, "digitalSignature"}, {0x0040, "nonRepudiation"}, {0x0020, "keyEncipherment"},
    {0x0010, "dataEncipherment"}, {0x0008, "keyAgreement"},   {0x0004, "keyCertSign"},
    {0x0002, "cRLSign"},          {0x0001, "encipherOnly"},   {0x8000, "decipherOnly"},
};

Attribute named(const PDF_Sealmark::PDFCert& cert, const std::string& oid, std::string value) {
  std::string shortName, longName;
  cert.getOidName(oid, shortName, longName);
  const bool known = !shortName.empty() && shortName != "UNDEF";
  return {oid, known ? shortName : oid, std::move(value)};
}

// The library hands a UTF8String out in code page 932 and every other
// string type byte for byte, which loses what code page 932 can't hold
// (accented Latin letters, for one).  The terminal and JSON want UTF-8, so
// where the certificate the library lends is at hand, its names are read
// from it, each value converted by OpenSSL from whatever string type it has.
// False when an entry can't be read so.
bool readUtf8(const PDF_Sealmark::PDFCert& cert, const X509_NAME* name, std::vector<Attribute>& out) {
  const int count = name ? X509_NAME_entry_count(name) : 0;
  for (int i = 0; i < count; ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    char oid[256] = {0};
    const ASN1_STRING* value = entry ? X509_NAME_ENTRY_get_data(entry) : nullptr;
    unsigned char* utf8 = nullptr;
    if (!value || OBJ_obj2txt(oid, sizeof oid, X509_NAME_ENTRY_get_object(entry), 1) <= 0) return false;
    const int length = ASN1_STRING_to_UTF8(&utf8, value);
    if (length < 0) return false;
    std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
    out.push_back(named(cert, oid, std::move(text)));
  }
  return name != nullptr;
}

// Without the certificate, the library's text, taken as code page 932.
std::vector<Attribute> attributes(const PDF_Sealmark::PDFCert& cert, const X509_NAME* name, bool subject) {
  std::vector<Attribute> out;
  if (readUtf8(cert, name, out)) return out;
  out.clear();
  std::vector<std::string> oids, values;
  subject ? cert.getSubject(oids, values) : cert.getIssuer(oids, values);
  for (std::size_t i = 0; i < oids.size() && i < values.size(); ++i) {
    std::string utf8;
    icu::UnicodeString(values[i].data(), static_cast<int32_t>(values[i].size()), "CP932").toUTF8String(utf8);
    out.push_back(named(cert, oids[i], std::move(utf8)));
  }
  return out;
}

Json nameJson(const std::vector<Attribute>& name) {
  Json list = Json::array();
  for (const Attribute& a : name) list.push_back(Json::array({a.oid, a.value}));
  return list;
}

}  // namespace

CertReport describe(const PDF_Sealmark::PDFCert& cert) {
  CertReport r;
  // Borrowed from the certificate object, only to read string types.
  const X509* x509 = reinterpret_cast<const X509*>(cert.getX509());
  r.version = cert.getVersion() + 1;
  r.subject = attributes(cert, x509 ? X509_get_subject_name(x509) : nullptr, true);
  r.issuer = attributes(cert, x509 ? X509_get_issuer_name(x509) : nullptr, false);
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

Json certJson(const CertReport& r) {
  return Json{{"version", r.version},
              {"subject", nameJson(r.subject)},
              {"issuer", nameJson(r.issuer)},
              {"serial", r.serial},
              {"sha1", r.sha1},
              {"not_before", r.notBefore},
              {"not_after", r.notAfter},
              {"key_algorithm", r.keyAlgorithm},
              {"signature_algorithm", r.signatureAlgorithm},
              {"key_usage", orNull(r.keyUsage)}};
}

std::string attributeValue(const std::vector<Attribute>& name, const std::string& oid) {
  for (const Attribute& a : name) {
    if (a.oid == oid) return a.value;
  }
  return std::string();
}

std::string shortName(const CertReport& r) {
  const std::string cn = attributeValue(r.subject, "2.5.4.3");
  if (!cn.empty()) return cn;
  return r.subject.empty() ? "?" : r.subject.back().value;
}

}  // namespace sealmark
