// Internal: writes qpdf objects back as PDF text, for the signer's update.
//
// qpdf hands out every string decrypted.  Objects that the update writes
// again (the catalog, a page, a field) keep their object number, so their
// strings are encrypted again with that object's key; strings of new objects
// with theirs.  A signature dictionary's /Contents is the one string left
// clear (ISO 32000-1, 7.6.1), so the signer writes it itself.
#ifndef PDFSEALMARK_SIGN_OBJECT_WRITER_H
#define PDFSEALMARK_SIGN_OBJECT_WRITER_H

#include <map>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFObjGen.hh>
#include <qpdf/QPDFObjectHandle.hh>
#include <string>

namespace PDF_Sealmark {
namespace sign {

// The document's string encryption, as qpdf opened it.
class StringCipher {
 public:
  // Reads the method and key of an opened document; false for a method the
  // writer can't reproduce.
  bool init(QPDF& qpdf, std::string* why);
  bool active() const { return method_ != QPDF::e_none; }
  // The bytes as stored in object `owner`: RC4, or AES-CBC with a random IV
  // in front (ISO 32000-1, 7.6.2; ISO 32000-2, 7.6.3).
  std::string encrypt(const std::string& plain, QPDFObjGen owner) const;

 private:
  QPDF::encryption_method_e method_ = QPDF::e_none;
  std::string key_;
  int v_ = 0;
  int r_ = 0;
};

// Serialises direct objects and references.  Streams are refused (thrown as
// std::runtime_error): the update never rewrites one.
class ObjectWriter {
 public:
  // cipher: null or inactive writes strings clear (trailers, xref streams).
  explicit ObjectWriter(const StringCipher* cipher) : cipher_(cipher) {}

  // Raw PDF text that replaces or adds a dictionary entry, by key ("/V").
  using Overrides = std::map<std::string, std::string>;

  // `h` as it appears inside object `owner`: an indirect object nested in
  // it becomes a reference.
  std::string value(QPDFObjectHandle h, QPDFObjGen owner) const;
  // The dictionary's entries with `overrides` applied.
  std::string dict(QPDFObjectHandle h, QPDFObjGen owner, const Overrides& overrides) const;
  // The array with `tail` (raw text) appended as one more element.
  std::string arrayWith(QPDFObjectHandle h, QPDFObjGen owner, const std::string& tail) const;
  // A string, encrypted for `owner` when the document is.
  std::string string(const std::string& bytes, QPDFObjGen owner) const;

 private:
  std::string write(QPDFObjectHandle h, QPDFObjGen owner, int depth) const;
  const StringCipher* cipher_;
};

// "n g R".
std::string reference(QPDFObjGen og);

}  // namespace sign
}  // namespace PDF_Sealmark

#endif
