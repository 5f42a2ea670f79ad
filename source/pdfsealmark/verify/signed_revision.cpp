// The revision a signature signed, and the permissions it grants.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <istream>

#include "pdfsealmark/verify/PDFSealmarkVerifyImpl.h"

namespace PDF_Sealmark {

using PDF_Vellum::PDFArray;
using PDF_Vellum::PDFDictionary;
using PDF_Vellum::PDFName;
using PDF_Vellum::PDFNumeric;
using PDF_Vellum::PDFObject;
using PDF_Vellum::PDFSmartPtr;

// One run of bytes from the start of the first range to the end of the
// second.  A range past the end of the file gives zeros where the file ended.
// The bytes are copied in slices, so a hostile range costs time in
// proportion to what it names, never memory.
bool PDFSealmarkVerifyImpl::getSignedVerPdf(std::ostream& out) const {
  if (!hasParsed || !sigDict) return false;
  const ByteRange range = ByteRange::of(*sigDict);
  if (!range.isValid()) return false;
  std::uint64_t left = static_cast<std::uint64_t>(range.offset2) + static_cast<std::uint64_t>(range.length2) -
                       static_cast<std::uint64_t>(range.offset1);
  std::istream* in = doc->getIstream();
  in->seekg(range.offset1);
  std::vector<char> slice(static_cast<std::size_t>(std::min<std::uint64_t>(left, 1u << 20)));
  while (left > 0) {
    const std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(left, slice.size()));
    std::fill(slice.begin(), slice.begin() + static_cast<std::ptrdiff_t>(n), 0);
    in->read(slice.data(), static_cast<std::streamsize>(n));
    out.write(slice.data(), static_cast<std::streamsize>(n));
    left -= n;
  }
  return true;
}

bool PDFSealmarkVerifyImpl::getPermission(PDF_Folio::PL_VerifyDocPerm& permission, bool& isFieldMdp) const {
  if (!hasParsed || !sigDict) return false;
  PDFSmartPtr<PDFDictionary> dict = sigDict->getAcroformDic();
  return readPermission(dict.get(), doc, permission, isFieldMdp);
}

bool readPermission(PDF_Vellum::PDFDictionary* dict, PDF_Vellum::PDFDocument* doc,
                    PDF_Folio::PL_VerifyDocPerm& permission, bool& isFieldMdp) {
  if (!dict) return false;
  PDFSmartPtr<PDFArray> references(dict->getParsedValueOf(doc, PDFName("/Reference")));
  if (!references) return false;

  permission = PDF_Folio::PL_VERIFY_PERM_NONE;
  isFieldMdp = false;
  for (std::size_t i = 0; i < references->size(); ++i) {
    // Only dictionaries held in the array count, not references to them.
    PDFSmartPtr<PDFDictionary> entry(references->getAt(i));
    if (!entry) continue;
    PDFSmartPtr<PDFDictionary> params(entry->getParsedValueOf(doc, PDFName("/TransformParams")));
    if (params) {
      // A /P that is no number is taken as absent.
      PDFSmartPtr<PDFNumeric> p(params->getValueOf(PDFName("/P")));
      if (p) {
        permission = static_cast<PDF_Folio::PL_VerifyDocPerm>(static_cast<int>(p->getInt()));
        continue;
      }
    }
    PDFSmartPtr<PDF_Vellum::PDFName> method(entry->getValueOf(PDFName("/TransformMethod")));
    if (method && std::strcmp(method->getString(), "/FieldMDP") == 0) isFieldMdp = true;
  }
  return true;
}

}  // namespace PDF_Sealmark
