#include "support/mutate.h"

#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <cctype>
#include <cstdio>
#include <sstream>

namespace sealtest {

std::string pki(const std::string& file) {
  // Made once; the directory goes when the process ends.
  static const TempDir* dir = [] {
    auto* d = new TempDir;
    oracle(SEALMARK_SOURCE_DIR "/tests/support/make_pki.sh " + shellQuote(d->path()) + " >/dev/null");
    return d;
  }();
  return dir->file(file);
}

namespace {
ossl::UniquePtr<X509> loadCert(const std::string& path) {
  ossl::UniquePtr<BIO> in(BIO_new_file(path.c_str(), "r"));
  return ossl::UniquePtr<X509>(in ? PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr) : nullptr);
}
}  // namespace

ossl::UniquePtr<X509> pkiCert(const std::string& who) { return loadCert(pki(who + ".pem")); }

ossl::UniquePtr<EVP_PKEY> pkiKey(const std::string& who) {
  ossl::UniquePtr<BIO> in(BIO_new_file(pki(who + ".key").c_str(), "r"));
  return ossl::UniquePtr<EVP_PKEY>(in ? PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr)
                                      : nullptr);
}

Bytes input(const std::string& name) { return readFile(SEALMARK_SOURCE_DIR "/tests/data/" + name); }

SignOptions options(const std::string& field, std::size_t reasonSlot) {
  SignOptions o;
  o.fieldName = field;
  o.signingTime = kSigningTime;
  o.reservedBytes = 8192;
  o.reason = std::string(reasonSlot, 'x');
  return o;
}

Bytes sign(const Bytes& pdf, const SignOptions& options, const std::string& who) {
  std::istringstream p12(text(readFile(pki(who + ".p12"))));
  PDF_Sealmark::PDFCert cert;
  EXPECT_TRUE(cert.loadPkcs12(p12, "test")) << who;
  Bytes out;
  std::string why;
  EXPECT_TRUE(PDF_Sealmark::PDFSigner::sign(pdf, out, cert, options, &why)) << why;
  return out;
}

Bytes overwrite(Bytes pdf, const std::string& from, const std::string& to) {
  const std::size_t at = text(pdf).rfind(from);
  if (at == std::string::npos || from.empty() || to.size() > from.size()) {
    ADD_FAILURE() << "cannot overwrite '" << from << "' with '" << to << "'";
    return pdf;
  }
  const std::string padded = to + std::string(from.size() - to.size(), ' ');
  std::copy(padded.begin(), padded.end(), pdf.begin() + static_cast<long>(at));
  return pdf;
}

std::string entry(const Bytes& pdf, const std::string& key) {
  const std::string s = text(pdf);
  for (std::size_t at = s.rfind(key); at != std::string::npos && at > 0; at = s.rfind(key, at - 1)) {
    const std::size_t value = s.find_first_not_of(" \r\n", at + key.size());
    if (value == std::string::npos || (value == at + key.size() && std::isalnum(s[value]))) continue;
    const char c = s[value];
    const std::string closer = c == '[' ? "]" : c == '(' ? ")" : c == '<' ? ">" : "";
    const std::size_t end =
        closer.empty() ? s.find_first_of(" /<[(>]\r\n", value + 1) : s.find(closer, value) + 1;
    return s.substr(at, end - at + (s.compare(end, 4, " 0 R") == 0 ? 4 : 0));
  }
  return "";
}

Bytes flip(Bytes pdf, std::size_t offset) {
  pdf.at(offset) ^= 0x01;
  return pdf;
}

Bytes withRange(Bytes pdf, const std::string& value) {
  pdf = overwrite(pdf, entry(pdf, "/ByteRange"), "");
  return value.empty() ? pdf : overwrite(pdf, entry(pdf, "/Reason"), "/ByteRange " + value);
}

namespace {
// Offset and length of the hex digits of the last /Contents <...>.
std::pair<std::size_t, std::size_t> slot(const Bytes& pdf) {
  const std::string s = text(pdf);
  for (std::size_t at = s.rfind("/Contents"); at != std::string::npos && at > 0;
       at = s.rfind("/Contents", at - 1)) {
    const std::size_t open = s.find_first_not_of(' ', at + 9);
    if (s[open] == '<') return {open + 1, s.find('>', open) - open - 1};
  }
  ADD_FAILURE() << "no /Contents string";
  return {0, 0};
}
}  // namespace

Bytes contentsOf(const Bytes& pdf) {
  const auto [at, size] = slot(pdf);
  const Bytes all = hex(text(pdf).substr(at, size));
  const unsigned char* p = all.data();
  long length = 0;
  int tag = 0, cls = 0;
  if (ASN1_get_object(&p, &length, &tag, &cls, static_cast<long>(all.size())) & 0x80) return all;
  return Bytes(all.begin(), all.begin() + (p - all.data()) + length);
}

Bytes withContents(Bytes pdf, const Bytes& der) {
  const auto [at, size] = slot(pdf);
  EXPECT_LE(2 * der.size(), size) << "the object does not fit the slot";
  for (std::size_t i = 0; i < size; ++i) {
    char two[3];
    std::snprintf(two, sizeof two, "%02X", i / 2 < der.size() ? der[i / 2] : 0);
    pdf[at + i] = static_cast<unsigned char>(two[i % 2]);
  }
  return pdf;
}

Bytes editPkcs7(const Bytes& pdf, const std::function<void(PKCS7*)>& edit) {
  const Bytes object = contentsOf(pdf);
  const unsigned char* p = object.data();
  ossl::UniquePtr<PKCS7> p7(d2i_PKCS7(nullptr, &p, static_cast<long>(object.size())));
  if (!p7) ADD_FAILURE() << "no PKCS#7 object in /Contents";
  if (!p7) return pdf;
  edit(p7.get());
  return withContents(pdf, der(p7.get()));
}

Bytes der(PKCS7* p7) {
  unsigned char* out = nullptr;
  const int n = i2d_PKCS7(p7, &out);
  const Bytes bytes(out, out + (n > 0 ? n : 0));
  OPENSSL_free(out);
  return bytes;
}

Bytes signedBytes(const Bytes& pdf) {
  long a = 0, b = 0, c = 0, d = 0;
  std::sscanf(entry(pdf, "/ByteRange").c_str(), "/ByteRange [ %ld %ld %ld %ld", &a, &b, &c, &d);
  Bytes out(pdf.begin() + a, pdf.begin() + a + b);
  out.insert(out.end(), pdf.begin() + c, pdf.begin() + c + d);
  return out;
}

PKCS7_SIGNER_INFO* addSigner(PKCS7* p7, const std::string& who) {
  auto cert = pkiCert(who);
  auto key = pkiKey(who);
  PKCS7_SIGNER_INFO* first = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0);
  PKCS7_SIGNER_INFO* si =
      PKCS7_add_signature(p7, cert.get(), key.get(), EVP_get_digestbyobj(first->digest_alg->algorithm));
  EXPECT_TRUE(si && PKCS7_add_certificate(p7, cert.get()) &&
              PKCS7_set_signed_attributes(si, first->auth_attr) && PKCS7_SIGNER_INFO_sign(si) == 1);
  return si;
}

void setCertificates(PKCS7* p7, const std::vector<std::string>& certFiles) {
  sk_X509_pop_free(p7->d.sign->cert, X509_free);
  p7->d.sign->cert = sk_X509_new_null();
  for (const std::string& file : certFiles) {
    auto cert = loadCert(file);
    EXPECT_TRUE(cert) << file;
    if (cert) sk_X509_push(p7->d.sign->cert, cert.release());
  }
}

}  // namespace sealtest
