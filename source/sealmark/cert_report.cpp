#include "cert_report.h"

#include <openssl/asn1.h>
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

// The library hands a UTF8String out in code page 932 and every other
// string type byte for byte, which loses what code page 932 can't hold
// (accented Latin letters, for one).  The terminal and JSON want UTF-8, so
// where the certificate the library lends is at hand, each value is taken
// from it and converted by OpenSSL from whatever string type it has; the
// library's text is the fallback.
std::string utf8Value(const X509_NAME* name, std::size_t index, const std::string& libraryText) {
  if (name && index < static_cast<std::size_t>(X509_NAME_entry_count(name))) {
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, static_cast<int>(index)));
    unsigned char* utf8 = nullptr;
    const int len = value ? ASN1_STRING_to_UTF8(&utf8, value) : -1;
    if (len >= 0) {
      std::string text(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(len));
      OPENSSL_free(utf8);
      return text;
    }
  }
  const icu::UnicodeString text(libraryText.data(), static_cast<int32_t>(libraryText.size()), "CP932");
  std::string utf8;
  text.toUTF8String(utf8);
  return utf8;
}

std::vector<Attribute> attributes(const PDF_Sealmark::PDFCert& cert, const X509_NAME* name,
                                  const std::vector<std::string>& oids,
                                  const std::vector<std::string>& values) {
  std::vector<Attribute> out;
  for (std::size_t i = 0; i < oids.size() && i < values.size(); ++i) {
    std::string shortName, longName;
    cert.getOidName(oids[i], shortName, longName);
    const bool known = !shortName.empty() && shortName != "UNDEF";
    out.push_back({oids[i], known ? shortName : oids[i], utf8Value(name, i, values[i])});
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
  std::vector<std::string> oids, values;
  cert.getSubject(oids, values);
  r.subject = attributes(cert, x509 ? X509_get_subject_name(x509) : nullptr, oids, values);
  cert.getIssuer(oids, values);
  r.issuer = attributes(cert, x509 ? X509_get_issuer_name(x509) : nullptr, oids, values);
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
