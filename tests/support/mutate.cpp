#include "support/mutate.h"

#include "support/test_tsa.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include <cctype>
#include <sstream>

namespace sealtest {

std::string pki(const std::string& file) { return testPki().file(file); }

PDF_Sealmark::PDFCert load(const std::string& path, const char* password) {
  std::istringstream in(text(readFile(path)));
  PDF_Sealmark::PDFCert cert;
  EXPECT_TRUE(password ? cert.loadPkcs12(in, password) : cert.loadX509(in, false)) << path;
  return cert;
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
  Bytes out;
  std::string why;
  EXPECT_TRUE(PDF_Sealmark::PDFSigner::sign(pdf, out, load(pki(who + ".p12"), "test"), options, &why)) << why;
  return out;
}

Bytes overwrite(Bytes pdf, const std::string& from, const std::string& to) {
  const std::size_t at = text(pdf).rfind(from);
  if (at == std::string::npos || to.size() > from.size()) {
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
// Offset and length of the hex digits of the last /Contents<...>, as the
// signer writes it.
std::pair<std::size_t, std::size_t> slot(const Bytes& pdf) {
  const std::string s = text(pdf);
  const std::size_t at = s.rfind("/Contents<") + 10;
  return {at, s.find('>', at) - at};
}
}  // namespace

Bytes contentsOf(const Bytes& pdf) {
  const auto [at, size] = slot(pdf);
  return hex(text(pdf).substr(at, size));
}

Bytes withContents(Bytes pdf, const Bytes& der) {
  const auto [at, size] = slot(pdf);
  EXPECT_LE(2 * der.size(), size) << "the object does not fit the slot";
  for (std::size_t i = 0; i < size; ++i) {
    pdf[at + i] = "0123456789ABCDEF"[i / 2 < der.size() ? (der[i / 2] >> (i % 2 ? 0 : 4)) & 15 : 0];
  }
  return pdf;
}

Bytes der(PKCS7* p7) {
  unsigned char* out = nullptr;
  const int n = i2d_PKCS7(p7, &out);
  const Bytes bytes(out, out + std::max(n, 0));
  OPENSSL_free(out);
  return bytes;
}

Bytes editPkcs7(const Bytes& pdf, const std::function<void(PKCS7*)>& edit) {
  const Bytes object = contentsOf(pdf);
  const unsigned char* p = object.data();
  PKCS7* p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(object.size()));
  EXPECT_TRUE(p7) << "no PKCS#7 object in /Contents";
  if (p7) edit(p7);
  const Bytes changed = p7 ? der(p7) : object;
  PKCS7_free(p7);
  return withContents(pdf, changed);
}

PKCS7_SIGNER_INFO* addSigner(PKCS7* p7, const std::string& who) {
  const PDF_Sealmark::PDFCert id = load(pki(who + ".p12"), "test");
  auto* cert = reinterpret_cast<X509*>(id.getX509());
  PKCS7_SIGNER_INFO* first = sk_PKCS7_SIGNER_INFO_value(PKCS7_get_signer_info(p7), 0);
  PKCS7_SIGNER_INFO* si = PKCS7_add_signature(p7, cert, reinterpret_cast<EVP_PKEY*>(id.getPKey()),
                                              EVP_get_digestbyobj(first->digest_alg->algorithm));
  EXPECT_TRUE(si && PKCS7_add_certificate(p7, cert) && PKCS7_set_signed_attributes(si, first->auth_attr) &&
              PKCS7_SIGNER_INFO_sign(si) == 1);
  return si;
}

void setCertificates(PKCS7* p7, const std::vector<std::string>& certFiles) {
  sk_X509_pop_free(p7->d.sign->cert, X509_free);
  p7->d.sign->cert = sk_X509_new_null();
  for (const std::string& file : certFiles) {
    sk_X509_push(p7->d.sign->cert, reinterpret_cast<X509*>(load(file).getdupX509()));
  }
}

}  // namespace sealtest
