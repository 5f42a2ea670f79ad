#include "pdfsealmark/cert/PDFCertImpl.h"

#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include "pdfsealmark/cert/CodepageText.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

// --- the object -----------------------------------------------------------------

PDFCertImpl::~PDFCertImpl() { clearAll(); }

icu::UnicodeString PDFCertImpl::getClassName() const {
  return icu::UnicodeString("PDFCertImpl", -1, icu::UnicodeString::kInvariant);
}

void PDFCertImpl::setX509(X509* cert) {
  if (cert == x509) return;
  X509_free(x509);
  x509 = cert;
}

void PDFCertImpl::setPKey(EVP_PKEY* key) {
  if (key == pkey) return;
  EVP_PKEY_free(pkey);
  pkey = key;
}

void PDFCertImpl::setCaCerts(STACK_OF(X509) * certs) {
  if (certs == caCerts) return;
  sk_X509_pop_free(caCerts, X509_free);
  caCerts = certs;
}

void PDFCertImpl::clearAll() {
  setX509(nullptr);
  setPKey(nullptr);
  setCaCerts(nullptr);
  valid = 0;
}

int PDFCertImpl::getVersion() const { return x509 ? static_cast<int>(X509_get_version(x509)) : 0; }

PDFCert makePDFCert(const X509* cert) {
  return adoptPDFCert(ossl::UniquePtr<X509>(cert ? X509_dup(cert) : nullptr));
}

PDFCert adoptPDFCert(ossl::UniquePtr<X509> cert) {
  PDFCert out;
  if (PDFCertImpl* impl = PDFCertImpl::implOf(out)) impl->setX509(cert.release());
  return out;
}

// --- names ----------------------------------------------------------------------

namespace {

// Name ::= SEQUENCE OF RelativeDistinguishedName
// RelativeDistinguishedName ::= SET OF AttributeTypeAndValue
// AttributeTypeAndValue ::= SEQUENCE { type OBJECT IDENTIFIER, value ANY }
// The entries come out flattened, in the order they are stored.
void readName(const X509_NAME* name, std::vector<std::string>& keys, std::vector<std::string>& values) {
  const int count = X509_NAME_entry_count(name);
  for (int i = 0; i < count; ++i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    if (entry == nullptr) continue;
    char oid[256] = {0};
    // Numeric form always: callers look attributes up by their identifier,
    // and an unknown attribute has no short name anyway.
    if (OBJ_obj2txt(oid, sizeof oid, X509_NAME_ENTRY_get_object(entry), 1) < 0) oid[0] = '\0';
    const ASN1_STRING* data = X509_NAME_ENTRY_get_data(entry);
    if (data == nullptr || oid[0] == '\0') continue;
    keys.emplace_back(oid);
    const unsigned char* bytes = ASN1_STRING_get0_data(data);
    const int length = ASN1_STRING_length(data);
    std::string text;
    if (bytes != nullptr && length > 0)
      text.assign(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
    // Callers work in code page 932.  Only a UTF8String is converted; a
    // BMPString or T61String is handed on as stored, as the toolkit expects.
    if (ASN1_STRING_type(data) == V_ASN1_UTF8STRING)
      text = CodepageText(text.c_str(), "UTF-8").getBytes("CP932");
    values.push_back(std::move(text));
  }
}

std::string longNameOf(const ASN1_OBJECT* object) {
  const char* name = OBJ_nid2ln(OBJ_obj2nid(object));
  return name ? name : "";
}

}  // namespace

bool PDFCertImpl::getSubject(std::vector<std::string>& keys, std::vector<std::string>& values) const {
  keys.clear();
  values.clear();
  if (x509 == nullptr) return false;
  readName(X509_get_subject_name(x509), keys, values);
  return true;
}

bool PDFCertImpl::getIssuer(std::vector<std::string>& keys, std::vector<std::string>& values) const {
  keys.clear();
  values.clear();
  if (x509 == nullptr) return false;
  readName(X509_get_issuer_name(x509), keys, values);
  return true;
}

void PDFCertImpl::getOidName(const std::string& oid, std::string& shortName, std::string& longName) const {
  shortName.clear();
  longName.clear();
  if (oid.empty()) return;
  // no_name 1: only the dotted form is accepted, not "CN".
  ossl::UniquePtr<ASN1_OBJECT> object(OBJ_txt2obj(oid.c_str(), 1));
  const int nid = OBJ_obj2nid(object.get());
  const char* ln = OBJ_nid2ln(nid);
  const char* sn = OBJ_nid2sn(nid);
  longName = ln ? ln : "";
  shortName = sn ? sn : "";
}

// --- numbers --------------------------------------------------------------------

long PDFCertImpl::getSerial() const {
  if (x509 == nullptr) return 0;
  const ASN1_INTEGER* serial = X509_get0_serialNumber(x509);
  if (serial == nullptr || ASN1_STRING_length(serial) == 0) return 0;
  const int length = ASN1_STRING_length(serial);
  if (length > 4) throw std::overflow_error("Certificate serial number long size overflow.");
  // The magnitude's bytes, big-endian, in 32 bits: a 4-byte serial with its
  // top bit set wraps to a negative number, as in the toolkit's 32-bit long.
  const unsigned char* bytes = ASN1_STRING_get0_data(serial);
  std::uint32_t value = 0;
  for (int i = 0; i < length; ++i) value = (value << 8) | bytes[i];
  return static_cast<long>(static_cast<std::int32_t>(value));
}

std::string PDFCertImpl::getSerialHex() const {
  if (x509 == nullptr) return {};
  const ASN1_INTEGER* serial = X509_get0_serialNumber(x509);
  if (serial == nullptr) return {};
  return bytesToHex(ASN1_STRING_get0_data(serial), ASN1_STRING_length(serial),
                    ASN1_STRING_type(serial) == V_ASN1_NEG_INTEGER);
}

bool PDFCertImpl::getHashHex(std::string& hex) const {
  if (x509 == nullptr) return false;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(x509, EVP_sha1(), md, &length) != 1 || length != 20) return false;
  hex = bytesToHex(md, static_cast<int>(length), false);
  return true;
}

// --- dates, key, algorithms -------------------------------------------------------

std::string PDFCertImpl::getNotBefore() const {
  return x509 ? timeToText(X509_get0_notBefore(x509)) : std::string();
}

std::string PDFCertImpl::getNotAfter() const {
  return x509 ? timeToText(X509_get0_notAfter(x509)) : std::string();
}

std::string PDFCertImpl::getPublicKey() const {
  if (x509 == nullptr) return {};
  // subjectPublicKey BIT STRING without its unused-bits octet.
  const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(x509);
  if (bits == nullptr) return {};
  return bytesToHex(ASN1_STRING_get0_data(bits), ASN1_STRING_length(bits), false);
}

std::string PDFCertImpl::getPublicKeyAlgorithm() const {
  if (x509 == nullptr) return {};
  X509_PUBKEY* key = X509_get_X509_PUBKEY(x509);
  ASN1_OBJECT* algorithm = nullptr;
  if (key == nullptr || X509_PUBKEY_get0_param(&algorithm, nullptr, nullptr, nullptr, key) != 1 ||
      algorithm == nullptr) {
    return {};
  }
  return longNameOf(algorithm);
}

std::string PDFCertImpl::getSignAlgorithm() const {
  if (x509 == nullptr) return {};
  // Certificate ::= SEQUENCE { tbsCertificate, signatureAlgorithm, signatureValue }
  // The outer signatureAlgorithm, not the copy inside tbsCertificate.
  const X509_ALGOR* algorithm = nullptr;
  X509_get0_signature(nullptr, &algorithm, x509);
  if (algorithm == nullptr) return {};
  const ASN1_OBJECT* object = nullptr;
  X509_ALGOR_get0(&object, nullptr, nullptr, algorithm);
  if (object == nullptr) return {};
  return longNameOf(object);
}

int PDFCertImpl::getKeyUsage() const {
  if (x509 == nullptr) return 0;
  // The keyUsage extension itself, not OpenSSL's cached word: OpenSSL 3
  // gives 0 for the whole word when any other extension is malformed (a
  // negative basicConstraints path length, say), though the key usage is
  // fine.  Without the extension, or with it twice, the word is 0.
  int critical = -1;
  ossl::UniquePtr<ASN1_STRING> bits(
      static_cast<ASN1_BIT_STRING*>(X509_get_ext_d2i(x509, NID_key_usage, &critical, nullptr)));
  if (!bits) return 0;
  // KeyUsage ::= BIT STRING, bit 0 (digitalSignature) the top bit of the
  // first octet.  OpenSSL's word holds the first octet in its low byte and
  // the second, with decipherOnly (bit 8) on top, in the next: 0x8000.
  const unsigned char* data = ASN1_STRING_get0_data(bits.get());
  const int length = ASN1_STRING_length(bits.get());
  int word = 0;
  if (length > 0) word = data[0];
  if (length > 1) word |= data[1] << 8;
  return word;
}

bool PDFCertImpl::isValid(const char* time) {
  const std::int64_t t = textToTime(time);
  std::time_t moment = t == -1 ? std::time(nullptr) : static_cast<std::time_t>(t);
  if (x509 == nullptr) return false;
  // X509_cmp_time answers -1 for "earlier or equal": the period holds its
  // first second and not the second of notAfter.  0 (unreadable) passes.
  if (X509_cmp_time(X509_get0_notBefore(x509), &moment) >= 1) return false;
  if (X509_cmp_time(X509_get0_notAfter(x509), &moment) < 0) return false;
  return true;
}

// --- text helpers -----------------------------------------------------------------

std::string bytesToHex(const unsigned char* bytes, int length, bool negate) {
  if (bytes == nullptr || length < 1) return {};
  std::string work(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length));
  if (negate) {
    for (char& c : work) c = static_cast<char>(~static_cast<unsigned char>(c));
    for (std::size_t i = work.size(); i-- > 0;) {
      work[i] = static_cast<char>(static_cast<unsigned char>(work[i]) + 1);
      if (work[i] != 0) break;  // no carry left
    }
  }
  static const char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  hex.reserve(work.size() * 2);
  for (char c : work) {
    const unsigned char b = static_cast<unsigned char>(c);
    hex.push_back(kDigits[b >> 4]);
    hex.push_back(kDigits[b & 0x0F]);
  }
  return hex;
}

std::string timeToText(const ASN1_TIME* time) {
  if (time == nullptr) return {};
  const unsigned char* data = ASN1_STRING_get0_data(time);
  const int length = ASN1_STRING_length(time);
  std::string text;
  if (data != nullptr && length > 0)
    text.assign(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
  if (ASN1_STRING_type(time) != V_ASN1_UTCTIME || text.empty()) return text;
  // RFC 5280, 4.1.2.5.1: a UTCTime year YY of 50 or more is 19YY, below 50
  // it is 20YY.
  return (std::atoi(text.substr(0, 2).c_str()) >= 50 ? "19" : "20") + text;
}

namespace {
int field(const std::string& text, std::size_t at, std::size_t count) {
  // substr throws std::out_of_range past the end: callers give at least
  // YYYYMMDDHH.
  return std::atoi(text.substr(at, count).c_str());
}
}  // namespace

std::int64_t textToTime(const char* text) {
  if (text == nullptr) return -1;
  const std::string all(text);
  std::string date = all;
  std::int64_t offset = 0;
  std::size_t cut = all.rfind('+');
  const bool ahead = cut != std::string::npos;
  if (!ahead) cut = all.rfind('-');
  if (cut != std::string::npos) {
    const std::string zone = all.substr(cut);
    date = all.substr(0, cut);
    // "+HHMM" needs all five characters for its minutes; "-HHM" already
    // counts its one minute digit.  Either sign takes hours alone from "+H".
    const std::size_t withMinutes = ahead ? 5 : 4;
    std::int64_t seconds = 0;
    if (zone.size() >= withMinutes) {
      seconds = field(zone, 1, 2) * 3600 + field(zone, 3, 2) * 60;
    } else if (zone.size() >= 2) {
      seconds = field(zone, 1, 2) * 3600;
    }
    // A zone ahead of UTC shows a later clock: going back by it gives UTC.
    offset = ahead ? -seconds : seconds;
  }

  std::tm fields{};
  fields.tm_year = field(date, 0, 4) - 1900;
  fields.tm_mon = field(date, 4, 2) - 1;
  fields.tm_mday = field(date, 6, 2);
  fields.tm_hour = field(date, 8, 2);
  fields.tm_min = field(date, 10, 2);
  fields.tm_sec = date.size() >= 12 ? field(date, 12, 2) : 0;
  fields.tm_isdst = 0;
  // The digits are UTC.  Like the calendar conversion of the toolkit's
  // platform, dates before 1970 count as not representable.
  const std::time_t utc = timegm(&fields);
  if (utc < 0) return -1;
  return static_cast<std::int64_t>(utc) + offset;
}

}  // namespace PDF_Sealmark
