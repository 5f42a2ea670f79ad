#include "pdfsealmark/sign/object_writer.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <cstdio>
#include <stdexcept>

#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {
namespace sign {

namespace {

// RC4 by hand: OpenSSL 3 keeps it in the legacy provider, which a host
// program may not have loaded.
std::string rc4(const std::string& key, const std::string& data) {
  unsigned char s[256];
  for (int i = 0; i < 256; ++i) s[i] = static_cast<unsigned char>(i);
  for (int i = 0, j = 0; i < 256; ++i) {
    j = (j + s[i] + static_cast<unsigned char>(key[i % key.size()])) & 0xff;
    std::swap(s[i], s[j]);
  }
  std::string out(data.size(), '\0');
  for (std::size_t n = 0, i = 0, j = 0; n < data.size(); ++n) {
    i = (i + 1) & 0xff;
    j = (j + s[i]) & 0xff;
    std::swap(s[i], s[j]);
    out[n] = static_cast<char>(static_cast<unsigned char>(data[n]) ^ s[(s[i] + s[j]) & 0xff]);
  }
  return out;
}

std::string aesCbc(const std::string& key, const std::string& data) {
  const EVP_CIPHER* cipher = key.size() == 32 ? EVP_aes_256_cbc() : EVP_aes_128_cbc();
  unsigned char iv[16];
  if (key.size() != 16 && key.size() != 32) throw std::runtime_error("unexpected AES key length");
  if (RAND_bytes(iv, sizeof iv) != 1) throw std::runtime_error("no random bytes for an AES IV");
  ossl::UniquePtr<EVP_CIPHER_CTX> ctx(EVP_CIPHER_CTX_new());
  std::string out(reinterpret_cast<const char*>(iv), sizeof iv);
  out.resize(sizeof iv + data.size() + 16);
  auto* at = reinterpret_cast<unsigned char*>(&out[sizeof iv]);
  int n = 0;
  int tail = 0;
  if (!ctx ||
      !EVP_EncryptInit_ex(ctx.get(), cipher, nullptr, reinterpret_cast<const unsigned char*>(key.data()),
                          iv) ||
      !EVP_EncryptUpdate(ctx.get(), at, &n, reinterpret_cast<const unsigned char*>(data.data()),
                         static_cast<int>(data.size())) ||
      !EVP_EncryptFinal_ex(ctx.get(), at + n, &tail)) {
    throw std::runtime_error("AES encryption failed");
  }
  out.resize(sizeof iv + static_cast<std::size_t>(n + tail));
  return out;
}

std::string hexString(const std::string& bytes) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string out = "<";
  for (unsigned char c : bytes) {
    out += kDigits[c >> 4];
    out += kDigits[c & 15];
  }
  return out + ">";
}

std::string literalString(const std::string& bytes) {
  std::string out = "(";
  for (unsigned char c : bytes) {
    if (c == '(' || c == ')' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c > 0x7e) {
      char octal[5];
      std::snprintf(octal, sizeof octal, "\\%03o", c);
      out += octal;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + ")";
}

// qpdf refuses to parse deeper nesting than this, so a deeper object can
// only come from elsewhere; stop rather than recurse without end.
constexpr int kMaxDepth = 512;

}  // namespace

bool StringCipher::init(QPDF& qpdf, std::string* why) {
  int p = 0;
  QPDF::encryption_method_e streams = QPDF::e_none;
  QPDF::encryption_method_e files = QPDF::e_none;
  method_ = QPDF::e_none;
  if (!qpdf.isEncrypted(r_, p, v_, streams, method_, files)) {
    method_ = QPDF::e_none;
    return true;
  }
  // qpdf names the methods of crypt filters only; before them (V 1 to 3)
  // every string is RC4.
  if (v_ < 4) method_ = QPDF::e_rc4;
  if (method_ == QPDF::e_unknown) {
    if (why) *why = "unsupported string encryption";
    return false;
  }
  key_ = qpdf.getEncryptionKey();
  if (method_ != QPDF::e_none && key_.empty()) {
    if (why) *why = "no encryption key";
    return false;
  }
  return true;
}

std::string StringCipher::encrypt(const std::string& plain, QPDFObjGen owner) const {
  switch (method_) {
    case QPDF::e_rc4:
      return rc4(QPDF::compute_data_key(key_, owner.getObj(), owner.getGen(), false, v_, r_), plain);
    case QPDF::e_aes:
    case QPDF::e_aesv3:
      return aesCbc(QPDF::compute_data_key(key_, owner.getObj(), owner.getGen(), true, v_, r_), plain);
    default:
      return plain;
  }
}

std::string reference(QPDFObjGen og) {
  return std::to_string(og.getObj()) + " " + std::to_string(og.getGen()) + " R";
}

std::string ObjectWriter::string(const std::string& bytes, QPDFObjGen owner) const {
  if (cipher_ && cipher_->active()) return hexString(cipher_->encrypt(bytes, owner));
  return literalString(bytes);
}

std::string ObjectWriter::value(QPDFObjectHandle h, QPDFObjGen owner) const {
  if (h.isIndirect()) return reference(h.getObjGen());
  return write(h, owner, 0);
}

std::string ObjectWriter::dict(QPDFObjectHandle h, QPDFObjGen owner, const Overrides& overrides) const {
  std::string out = "<<";
  if (h.isDictionary()) {
    for (const std::string& key : h.getKeys()) {
      if (overrides.count(key)) continue;
      out += QPDFObjectHandle::newName(key).unparse() + " " + value(h.getKey(key), owner);
    }
  }
  for (const auto& entry : overrides) out += entry.first + " " + entry.second;
  return out + ">>";
}

std::string ObjectWriter::arrayWith(QPDFObjectHandle h, QPDFObjGen owner, const std::string& tail) const {
  std::string out = "[";
  if (h.isArray()) {
    for (const QPDFObjectHandle& item : h.getArrayAsVector()) out += value(item, owner) + " ";
  }
  return out + tail + "]";
}

std::string ObjectWriter::write(QPDFObjectHandle h, QPDFObjGen owner, int depth) const {
  if (depth > kMaxDepth) throw std::runtime_error("objects nested too deeply");
  if (depth > 0 && h.isIndirect()) return reference(h.getObjGen());
  if (h.isStream()) throw std::runtime_error("a stream can't be rewritten");
  if (h.isString()) return string(h.getStringValue(), owner);
  if (h.isDictionary()) {
    std::string out = "<<";
    for (const std::string& key : h.getKeys()) {
      out += QPDFObjectHandle::newName(key).unparse() + " " + write(h.getKey(key), owner, depth + 1);
    }
    return out + ">>";
  }
  if (h.isArray()) {
    std::string out = "[";
    for (const QPDFObjectHandle& item : h.getArrayAsVector()) out += write(item, owner, depth + 1) + " ";
    return out + "]";
  }
  // Names, numbers, booleans and null as qpdf writes them.
  return h.unparse();
}

}  // namespace sign
}  // namespace PDF_Sealmark
