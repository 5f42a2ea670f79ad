#include "pdfsealmark/outside/PDFFolio.h"

#include <set>
#include <utility>

#include <qpdf/QUtil.hh>

#include "pdfsealmark/outside/PDFDocumentImpl.h"

namespace PDF_Folio {

using PDF_Vellum::PDFArray;
using PDF_Vellum::PDFDictionary;
using PDF_Vellum::PDFDocument;
using PDF_Vellum::PDFIndirect;
using PDF_Vellum::PDFName;
using PDF_Vellum::PDFSmartPtr;

CBaseField::CBaseField(std::string name, std::string fieldType, PDFSmartPtr<PDFDictionary> dict,
                       PDFDocument* doc)
    : name_(std::move(name)),
      fieldType_(std::move(fieldType)),
      acroform_(std::make_unique<PDF_Vellum::PDFAcroform>(dict, doc)) {}

CBaseField::~CBaseField() = default;

namespace {

// Field names are text strings: UTF-16BE with a byte order mark, or
// PDFDocEncoding.
std::string textOf(PDF_Vellum::PDFObject* value) {
  if (!value || !value->isA(PDF_Vellum::kPDFString)) return std::string();
  const std::string raw(value->getString(), static_cast<std::size_t>(value->getLenth()));
  if (raw.size() >= 2 && static_cast<unsigned char>(raw[0]) == 0xFE &&
      static_cast<unsigned char>(raw[1]) == 0xFF) {
    return QUtil::utf16_to_utf8(raw);
  }
  return QUtil::pdf_doc_to_utf8(raw);
}

// Deep or cyclic /Kids trees come from hostile files; a real form is never
// this deep.
constexpr int kMaxDepth = 64;

struct Walker {
  PDFDocument* doc;
  std::vector<std::unique_ptr<CBaseField>>* out;
  std::set<std::pair<int, int>> seen;

  void visit(PDF_Vellum::PDFObject* node, const std::string& parentName, const std::string& parentType,
             int depth) {
    if (!node || depth > kMaxDepth) return;
    PDFSmartPtr<PDFDictionary> dict;
    if (node->isA(PDF_Vellum::kPDFIndirect)) {
      auto* ref = static_cast<PDFIndirect*>(node);
      if (!seen.emplace(ref->getObjNum(), ref->getGenNum()).second) return;
      dict = doc->parseIndirectObj(ref, true);
    } else {
      dict = node;
    }
    if (!dict) return;

    std::string name = parentName;
    const std::string partial = textOf(dict->getParsedValueOf(doc, PDFName("/T")));
    const bool hasName = dict->getValueOf(PDFName("/T")) != nullptr;
    if (hasName) name = name.empty() ? partial : name + "." + partial;

    std::string type = parentType;
    PDFSmartPtr<PDF_Vellum::PDFName> ft(dict->getParsedValueOf(doc, PDFName("/FT")));
    if (ft) type = ft->text();

    // Kids that carry a /T are fields of their own; kids without one are
    // widgets of this field.
    PDFSmartPtr<PDFArray> kids(dict->getParsedValueOf(doc, PDFName("/Kids")));
    bool hasChildFields = false;
    for (std::size_t i = 0; kids && i < kids->size(); ++i) {
      PDFSmartPtr<PDFDictionary> kid;
      PDF_Vellum::PDFObject* item = kids->getAt(i);
      if (item && item->isA(PDF_Vellum::kPDFIndirect)) {
        kid = doc->parseIndirectObj(static_cast<PDFIndirect*>(item), true);
      } else {
        kid = item;
      }
      if (kid && kid->getValueOf(PDFName("/T"))) {
        hasChildFields = true;
        break;
      }
    }
    if (hasChildFields) {
      for (std::size_t i = 0; i < kids->size(); ++i) visit(kids->getAt(i), name, type, depth + 1);
      return;
    }
    if (type == "/Sig") {
      out->push_back(std::make_unique<CSigField>(name, type, dict, doc));
    } else {
      out->push_back(std::make_unique<CBaseField>(name, type, dict, doc));
    }
  }
};

}  // namespace

CForm::CForm(PDFDocument* doc) {
  if (!doc) return;
  PDFDictionary* root = doc->getRoot();
  if (!root) return;
  PDFSmartPtr<PDFDictionary> acroForm(root->getParsedValueOf(doc, PDFName("/AcroForm")));
  if (!acroForm) return;
  PDFSmartPtr<PDFArray> fields(acroForm->getParsedValueOf(doc, PDFName("/Fields")));
  if (!fields) return;
  Walker walker{doc, &fields_, {}};
  for (std::size_t i = 0; i < fields->size(); ++i) walker.visit(fields->getAt(i), "", "", 0);
}

CForm::~CForm() = default;

std::vector<CBaseField*> CForm::getFields() const {
  std::vector<CBaseField*> result;
  for (const auto& f : fields_) result.push_back(f.get());
  return result;
}

std::vector<CSigField*> CForm::getSigFields() const {
  std::vector<CSigField*> result;
  for (const auto& f : fields_) {
    if (auto* sig = dynamic_cast<CSigField*>(f.get())) result.push_back(sig);
  }
  return result;
}

}  // namespace PDF_Folio
