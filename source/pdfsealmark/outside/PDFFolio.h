// Form fields of a document, and the signature fields among them.
//
// CForm walks /AcroForm /Fields depth first, through /Kids, and keeps the
// terminal fields in document order.  A field's type is inherited from its
// ancestors, as ISO 32000 says for /FT.
//
//   PDF_Folio::CForm form(doc.get());
//   for (PDF_Folio::CSigField* field : form.getSigFields()) {
//     PDF_Sealmark::PDFSealmarkVerify v;
//     if (v.parse(field) && v.getHasSigned()) std::cout << field->getName() << "\n";
//   }
//
// The fields belong to the CForm and live as long as it does; the document
// must outlive both.
#ifndef PDFSEALMARK_PDFFOLIO_H
#define PDFSEALMARK_PDFFOLIO_H

#include <memory>
#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/PDFVellum.h"

namespace PDF_Folio {

// What a certification signature lets change after it, as the /P value of
// its DocMDP transform parameters; 0 when no value was found.  Any other
// number a file holds is kept as it stands.
enum PL_VerifyDocPerm : int {
  PL_VERIFY_PERM_NONE = 0,
  PL_VERIFY_PERM_NO_CHANGES = 1,
  PL_VERIFY_PERM_FORM_FILL = 2,
  PL_VERIFY_PERM_ANNOTATE = 3,
};

class PDFSEALMARK_API CBaseField {
 public:
  CBaseField(std::string name, std::string fieldType, PDF_Vellum::PDFSmartPtr<PDF_Vellum::PDFDictionary> dict,
             PDF_Vellum::PDFDocument* doc);
  virtual ~CBaseField();
  CBaseField(const CBaseField&) = delete;
  CBaseField& operator=(const CBaseField&) = delete;

  // The wrapper around the field dictionary; owned by the field.
  PDF_Vellum::PDFAcroform* getacroform() const { return acroform_.get(); }
  // Fully qualified name ("Parent.Child"), UTF-8.
  const std::string& getName() const { return name_; }
  // The field type with its "/", inherited; empty when none is set.
  const std::string& getFieldType() const { return fieldType_; }

 private:
  std::string name_;
  std::string fieldType_;
  std::unique_ptr<PDF_Vellum::PDFAcroform> acroform_;
};

class PDFSEALMARK_API CSigField : public CBaseField {
 public:
  using CBaseField::CBaseField;
};

class PDFSEALMARK_API CForm {
 public:
  explicit CForm(PDF_Vellum::PDFDocument* doc);
  ~CForm();
  CForm(const CForm&) = delete;
  CForm& operator=(const CForm&) = delete;

  // Every terminal field, in document order.  Borrowed.
  std::vector<CBaseField*> getFields() const;
  // The terminal fields whose type is /Sig, in document order.  Borrowed.
  std::vector<CSigField*> getSigFields() const;

 private:
  std::vector<std::unique_ptr<CBaseField>> fields_;
};

}  // namespace PDF_Folio

#endif
