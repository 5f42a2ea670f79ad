// Internal: the incremental update that carries one new signature.
//
// It opens the original bytes with qpdf, decides which objects the update
// holds (the signature dictionary, a new field or the chosen empty one, and
// new versions of the catalog, AcroForm, page or /Annots array as needed),
// and writes them behind the original bytes with a cross-reference section
// of the same kind as the file's last one.  /Contents is a placeholder of
// zeros; /ByteRange is written with room to be patched in place.
#ifndef PDFSEALMARK_SIGN_INCREMENTAL_UPDATE_H
#define PDFSEALMARK_SIGN_INCREMENTAL_UPDATE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <qpdf/QPDF.hh>
#include <string>
#include <vector>

#include "pdfsealmark/sign/object_writer.h"

namespace PDF_Sealmark {
namespace sign {

struct SignatureRequest {
  // Empty: a new field "SignatureN".
  std::string fieldName;
  int page = 1;
  // /Type and /SubFilter of the signature dictionary, as names.
  std::string type = "/Sig";
  std::string subFilter = "/adbe.pkcs7.detached";
  // Text strings in UTF-8; empty ones are left out.
  std::string date;  // "D:..." for /M
  std::string reason;
  std::string location;
  // 1..3: a DocMDP certification with this /P; 0 none.
  int certify = 0;
};

class IncrementalUpdate {
 public:
  using Bytes = std::vector<unsigned char>;

  IncrementalUpdate();
  ~IncrementalUpdate();
  IncrementalUpdate(const IncrementalUpdate&) = delete;
  IncrementalUpdate& operator=(const IncrementalUpdate&) = delete;

  // Opens `input`, which must outlive this object.
  bool open(const Bytes& input, const std::string& password, std::string* why);
  // Chooses the field and page and checks that the update can be made.
  bool plan(const SignatureRequest& request, std::string* why);
  // The whole signed file, with `reserved` bytes of /Contents (twice as
  // many hex digits) and /ByteRange filled in.
  bool build(std::size_t reserved, Bytes& out, std::string* why);

  // After build: the two signed ranges, and where the hex digits of
  // /Contents start in the output.
  std::int64_t range[4] = {0, 0, 0, 0};
  std::size_t contentsAt = 0;

  const std::string& fieldName() const { return fieldName_; }

 private:
  struct Field;
  bool findField(const std::string& name, std::string* why);
  std::string sigDictionary(QPDFObjGen owner, std::size_t reserved, std::size_t& byteRangeAt,
                            std::size_t& contentsAt) const;

  const Bytes* input_ = nullptr;
  std::unique_ptr<QPDF> qpdf_;
  StringCipher cipher_;
  SignatureRequest request_;
  std::string fieldName_;
  // The existing empty field to sign; a null handle for a new field.
  QPDFObjectHandle existing_;
  QPDFObjectHandle page_;
  std::int64_t prevXref_ = 0;
  bool xrefStream_ = false;
  int size_ = 0;
};

}  // namespace sign
}  // namespace PDF_Sealmark

#endif
