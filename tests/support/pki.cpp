// Test PKI: keys and certificates made in-process.
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <mutex>

#include "ossl_ptr.h"

namespace sealtest {

void EvpPkeyDeleter::operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
void X509Deleter::operator()(X509* p) const { X509_free(p); }

namespace detail {

void throwOpenSsl(const std::string& what) {
  std::string msg = "sealtest: " + what;
  char buf[256];
  unsigned long e;
  while ((e = ERR_get_error()) != 0) {
    ERR_error_string_n(e, buf, sizeof buf);
    msg += "; ";
    msg += buf;
  }
  throw std::runtime_error(msg);
}

}  // namespace detail

using namespace detail;

namespace {

Bytes bioBytes(BIO* bio) {
  char* data = nullptr;
  long n = BIO_get_mem_data(bio, &data);
  return Bytes(reinterpret_cast<unsigned char*>(data),
               reinterpret_cast<unsigned char*>(data) + n);
}

void addExtension(X509* cert, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, cert, nullptr, nullptr, 0);
  X509ExtensionPtr ext(
      check(X509V3_EXT_conf_nid(nullptr, &ctx, nid, value), "extension"));
  check(X509_add_ext(cert, ext.get(), -1), "X509_add_ext");
}

// issuer == nullptr makes a self-signed certificate signed by |key|.
CertPtr makeCert(const CertOptions& o, EVP_PKEY* subjectKey,
                 const Identity* issuer, bool isCa) {
  CertPtr cert(check(X509_new(), "X509_new"));
  X509* x = cert.get();
  check(X509_set_version(x, X509_VERSION_3), "X509_set_version");
  check(ASN1_INTEGER_set(X509_get_serialNumber(x), o.serial), "serial");
  std::time_t now = std::time(nullptr);
  std::time_t nb = o.notBefore.value_or(now - 24 * 3600);
  std::time_t na = o.notAfter.value_or(now + 10L * 365 * 24 * 3600);
  check(ASN1_TIME_set(X509_getm_notBefore(x), nb) != nullptr, "notBefore");
  check(ASN1_TIME_set(X509_getm_notAfter(x), na) != nullptr, "notAfter");

  X509_NAME* name = X509_get_subject_name(x);
  check(X509_NAME_add_entry_by_txt(name, "O", MBSTRING_UTF8,
                                   reinterpret_cast<const unsigned char*>(
                                       "PDFSealmark Tests"),
                                   -1, -1, 0),
        "O");
  check(X509_NAME_add_entry_by_txt(
            name, "CN", MBSTRING_UTF8,
            reinterpret_cast<const unsigned char*>(o.commonName.c_str()), -1,
            -1, 0),
        "CN");
  X509* issuerCert = issuer ? issuer->cert.get() : x;
  check(X509_set_issuer_name(x, X509_get_subject_name(issuerCert)), "issuer");
  check(X509_set_pubkey(x, subjectKey), "X509_set_pubkey");

  addExtension(x, issuerCert, NID_subject_key_identifier, "hash");
  if (isCa) {
    addExtension(x, issuerCert, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(x, issuerCert, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExtension(x, issuerCert, NID_basic_constraints, "CA:FALSE");
    addExtension(x, issuerCert, NID_key_usage,
                 "critical,digitalSignature,nonRepudiation");
    if (issuer) addExtension(x, issuerCert, NID_authority_key_identifier, "keyid");
  }
  EVP_PKEY* signKey = issuer ? issuer->key.get() : subjectKey;
  check(X509_sign(x, signKey, EVP_sha256()), "X509_sign");
  return cert;
}

}  // namespace

KeyPtr generateKey(KeyKind kind) {
  EVP_PKEY* k = kind == KeyKind::Rsa2048
                    ? EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048})
                    : EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256");
  return KeyPtr(check(k, "key generation"));
}

Identity makeCa(const CertOptions& options) {
  Identity id;
  id.key = generateKey(options.keyKind);
  id.cert = makeCert(options, id.key.get(), nullptr, true);
  return id;
}

Identity makeSigner(const Identity& issuer, const CertOptions& options) {
  Identity id;
  id.key = generateKey(options.keyKind);
  id.cert = makeCert(options, id.key.get(), &issuer, false);
  return id;
}

Bytes certDer(const X509* cert) {
  unsigned char* out = nullptr;
  int n = i2d_X509(cert, &out);
  if (n <= 0) throwOpenSsl("i2d_X509");
  Bytes b(out, out + n);
  OPENSSL_free(out);
  return b;
}

std::string certPem(const X509* cert) {
  BioPtr bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
  check(PEM_write_bio_X509(bio.get(), cert), "PEM_write_bio_X509");
  Bytes b = bioBytes(bio.get());
  return std::string(b.begin(), b.end());
}

Bytes Identity::certDer() const { return sealtest::certDer(cert.get()); }
std::string Identity::certPem() const { return sealtest::certPem(cert.get()); }

Bytes Identity::keyDer() const {
  BioPtr bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
  check(i2d_PKCS8PrivateKey_bio(bio.get(), key.get(), nullptr, nullptr, 0,
                                nullptr, nullptr),
        "i2d_PKCS8PrivateKey_bio");
  return bioBytes(bio.get());
}

std::string Identity::keyPem() const {
  BioPtr bio(check(BIO_new(BIO_s_mem()), "BIO_new"));
  check(PEM_write_bio_PKCS8PrivateKey(bio.get(), key.get(), nullptr, nullptr,
                                      0, nullptr, nullptr),
        "PEM_write_bio_PKCS8PrivateKey");
  Bytes b = bioBytes(bio.get());
  return std::string(b.begin(), b.end());
}

Pki makePki(KeyKind caKind, KeyKind signerKind) {
  Pki pki;
  CertOptions ca;
  ca.commonName = "Sealmark Test Root CA";
  ca.serial = 1;
  ca.keyKind = caKind;
  pki.ca = makeCa(ca);

  CertOptions s;
  s.commonName = "Sealmark Test Signer";
  s.serial = 2;
  s.keyKind = signerKind;
  pki.signer = makeSigner(pki.ca, s);

  s.commonName = "Sealmark Second Signer";
  s.serial = 3;
  pki.secondSigner = makeSigner(pki.ca, s);

  CertOptions u;
  u.commonName = "Unrelated Self-Signed";
  u.serial = 77;
  u.keyKind = signerKind;
  pki.unrelated = makeCa(u);
  return pki;
}

const Pki& defaultPki() {
  // Function-static: RSA key generation costs ~100 ms each, so every test in
  // a process shares one set.
  static const Pki pki = makePki(KeyKind::Rsa2048, KeyKind::Rsa2048);
  return pki;
}

Bytes nonPkcs7Sequence() {
  // SEQUENCE { INTEGER 1, OCTET STRING "not a timestamp" }: well-formed DER
  // that any ContentInfo parser must reject (no OID first).
  static const char kText[] = "not a timestamp";
  const unsigned char textLen = sizeof kText - 1;
  Bytes b;
  b.reserve(7 + textLen);
  for (unsigned char c : {0x30, 3 + 2 + textLen, 0x02, 0x01, 0x01, 0x04, +textLen})
    b.push_back(c);
  for (unsigned char i = 0; i < textLen; ++i)
    b.push_back(static_cast<unsigned char>(kText[i]));
  return b;
}

Bytes pkcs7SignedData(const Bytes& content, const Identity& who) {
  BioPtr in(check(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())),
                  "BIO_new_mem_buf"));
  Pkcs7Ptr p7(check(PKCS7_sign(who.cert.get(), who.key.get(), nullptr,
                               in.get(), PKCS7_BINARY | PKCS7_NOSMIMECAP),
                    "PKCS7_sign"));
  unsigned char* out = nullptr;
  int n = i2d_PKCS7(p7.get(), &out);
  if (n <= 0) throwOpenSsl("i2d_PKCS7");
  Bytes b(out, out + n);
  OPENSSL_free(out);
  return b;
}

std::string digestName(Digest d) {
  switch (d) {
    case Digest::Sha1: return "sha1";
    case Digest::Sha256: return "sha256";
    case Digest::Sha384: return "sha384";
    case Digest::Sha512: return "sha512";
  }
  return "?";
}

}  // namespace sealtest
