// A new RSA key and a self-signed certificate for it.
//
// Everything about the certificate is fixed here but what the caller picks:
// serial, days, subject, subjectAltName and the two selectors.  The subject,
// the key and the alternative name travel through an X509_REQ that is never
// signed, as the certificate takes them from there.
#include <openssl/asn1.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/rsa.h>
#include <openssl/x509v3.h>

#include <climits>

#include "pdfsealmark/cert/CodepageText.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

namespace {

const char kEmailAddressOid[] = "1.2.840.113549.1.9.1";

struct ExtensionRow {
  const char* name;
  const char* value;  // null: the key usage text of the selector
};

// In this order: subjectKeyIdentifier must exist before
// authorityKeyIdentifier copies its key identifier from the same
// (self-signed) certificate.  The comment keeps its quote characters: the
// IA5String of nsComment takes the text as it stands.
const ExtensionRow kGeneratedExtensions[] = {
    {"basicConstraints", "CA:FALSE"},
    {"nsComment", "\"Larkvale Scrivener Generate Certificate\""},
    {"subjectKeyIdentifier", "hash"},
    {"authorityKeyIdentifier", "keyid,issuer:always"},
    {"keyUsage", nullptr},
};

int modulusBits(int keySize) { return keySize == 1 ? 2048 : keySize == 2 ? 4096 : 1024; }

std::string keyUsageText(int keyUsage) {
  const char* joined = keyUsage == 1   ? ",dataEncipherment"
                       : keyUsage == 2 ? ",digitalSignature,dataEncipherment"
                                       : ",digitalSignature";
  return std::string("nonRepudiation") + joined;
}

}  // namespace

bool isShiftJisLeadByte(unsigned char byte) {
  return (byte >= 0x81 && byte <= 0x9F) || (byte >= 0xE0 && byte <= 0xFC);
}

int nameEntryStringType(const std::string& value, const std::string& oid) {
  if (value.empty()) return V_ASN1_PRINTABLESTRING;
  // Lead bytes only: a half-width katakana byte (0xA1-0xDF) alone stays in
  // a PrintableString, byte for byte.
  for (char c : value) {
    if (isShiftJisLeadByte(static_cast<unsigned char>(c))) return V_ASN1_UTF8STRING;
  }
  if (oid == kEmailAddressOid) return V_ASN1_IA5STRING;
  return V_ASN1_PRINTABLESTRING;
}

ossl::UniquePtr<X509_NAME> generatedSubject(const std::vector<std::string>& oids,
                                            const std::vector<std::string>& values) {
  ossl::UniquePtr<X509_NAME> name(X509_NAME_new());
  if (!name) return name;
  for (std::size_t i = 0; i < oids.size() && i < values.size(); ++i) {
    // no_name 1: only the dotted form is read; "CN" names nothing here.
    ossl::UniquePtr<ASN1_OBJECT> object(OBJ_txt2obj(oids[i].c_str(), 1));
    const int nid = OBJ_obj2nid(object.get());
    if (nid == NID_undef) continue;
    const int type = nameEntryStringType(values[i], oids[i]);
    // Only a UTF8String is converted, from ICU's default code page; the
    // other types take the caller's bytes as they are, unchecked.
    CodepageText text(values[i].c_str(), nullptr);
    const std::string& bytes = type == V_ASN1_UTF8STRING ? text.getBytes("UTF-8") : values[i];
    // Length -1: the value ends at its first zero byte.
    X509_NAME_ENTRY* entry = X509_NAME_ENTRY_create_by_NID(
        nullptr, nid, type, reinterpret_cast<const unsigned char*>(bytes.c_str()), -1);
    if (entry == nullptr) continue;
    X509_NAME_add_entry(name.get(), entry, -1, 0);
    X509_NAME_ENTRY_free(entry);
  }
  return name;
}

bool PDFCertImpl::generate(long serial, long days, const std::vector<std::string>& oids,
                           const std::vector<std::string>& values, const std::string& altName, int keySize,
                           int keyUsage) {
  if (oids.empty() || values.empty() || oids.size() != values.size() || serial < 1 || days < 1) return false;
  // From here a failure leaves the object empty.
  clearAll();
  const std::string usage = keyUsageText(keyUsage);

  // Public exponent 65537, no progress callback; OpenSSL seeds itself.
  ossl::UniquePtr<EVP_PKEY> key(EVP_RSA_gen(static_cast<unsigned int>(modulusBits(keySize))));
  if (!key) return false;

  ossl::UniquePtr<X509_REQ> request(X509_REQ_new());
  if (!request || X509_REQ_set_pubkey(request.get(), key.get()) != 1) return false;
  ossl::UniquePtr<X509_NAME> subject = generatedSubject(oids, values);
  if (!subject || X509_REQ_set_subject_name(request.get(), subject.get()) != 1) return false;

  // The alternative name is read without a context, so a value that needs
  // one ("email:copy", "dirName:section") is refused.
  ossl::UniquePtr<STACK_OF(X509_EXTENSION)> requested;
  if (!altName.empty()) {
    requested.reset(sk_X509_EXTENSION_new_null());
    if (!requested) return false;
    ossl::UniquePtr<X509_EXTENSION> alt(X509V3_EXT_conf(nullptr, nullptr, "subjectAltName", altName.c_str()));
    if (!alt || sk_X509_EXTENSION_push(requested.get(), alt.get()) <= 0) return false;
    alt.release();  // the stack owns it now
    if (X509_REQ_add_extensions(request.get(), requested.get()) != 1) return false;
  }

  ossl::UniquePtr<X509> cert(X509_new());
  if (!cert || X509_set_version(cert.get(), 2) != 1) return false;
  if (ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial) != 1) return false;
  // days*86400 must not overflow; such a span has no date anyway.
  if (days > LONG_MAX / 86400) return false;
  if (X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0) == nullptr ||
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), days * 24 * 60 * 60) == nullptr) {
    return false;
  }
  if (X509_set_subject_name(cert.get(), X509_REQ_get_subject_name(request.get())) != 1 ||
      X509_set_issuer_name(cert.get(), X509_REQ_get_subject_name(request.get())) != 1) {
    return false;
  }
  ossl::UniquePtr<EVP_PKEY> requestKey(X509_REQ_get_pubkey(request.get()));
  if (!requestKey || X509_set_pubkey(cert.get(), requestKey.get()) != 1) return false;

  X509V3_CTX context;
  X509V3_set_ctx(&context, cert.get(), cert.get(), nullptr, nullptr, 0);
  for (const ExtensionRow& row : kGeneratedExtensions) {
    const char* value = row.value ? row.value : usage.c_str();
    ossl::UniquePtr<X509_EXTENSION> extension(X509V3_EXT_conf(nullptr, &context, row.name, value));
    if (!extension || X509_add_ext(cert.get(), extension.get(), -1) != 1) return false;
  }
  if (requested) {
    const int at = X509v3_get_ext_by_NID(requested.get(), OBJ_sn2nid("subjectAltName"), -1);
    X509_EXTENSION* alt = at < 0 ? nullptr : X509v3_get_ext(requested.get(), at);
    if (alt == nullptr || X509_add_ext(cert.get(), alt, -1) != 1) return false;
  }

  if (X509_sign(cert.get(), key.get(), EVP_sha1()) <= 0) return false;
  setPKey(key.release());
  setX509(cert.release());
  valid = 0;
  return true;
}

}  // namespace PDF_Sealmark
