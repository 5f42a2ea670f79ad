// PDFCertStore: an empty sibling of PDFCertWinStore.  It holds nothing and
// does nothing; it is exported so that code written against it links.
#ifndef PDFSEALMARK_PDFCERTSTORE_H
#define PDFSEALMARK_PDFCERTSTORE_H

#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Sealmark {

class PDFCertStoreImpl;

class PDFSEALMARK_API PDFCertStore {
 public:
  PDFCertStore();
  // Copies nothing: the copy has an implementation object of its own.
  PDFCertStore(const PDFCertStore& other);
  virtual ~PDFCertStore();
  // No effect.
  void operator=(const PDFCertStore& other);
  // No effect: there is nothing to clear.
  void clear();
  PDFCertStoreImpl* getCertStoreImpl() const;

 private:
  PDFCertStoreImpl* impl;
};

}  // namespace PDF_Sealmark

#endif
