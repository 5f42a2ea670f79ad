// Internal: the implementation objects of PDFCertStore and PDFCertWinStore,
// and the process-wide pointers to the platform's certificate dialogs.
#ifndef PDFSEALMARK_WINSTORE_PDFCERTWINSTOREIMPL_H
#define PDFSEALMARK_WINSTORE_PDFCERTWINSTOREIMPL_H

#include <openssl/x509.h>

#include <istream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/platform/cert_context.h"
#include "pdfsealmark/platform/cert_store.h"

namespace PDF_Sealmark {

class PDFCertStoreImpl {
 public:
  virtual ~PDFCertStoreImpl() = default;
};

// The dialog functions, null until found (never on Linux).  Filled, always
// with the same values, by loadDialogFunctions.
extern platform::CryptUIDlgSelectCertificateFromStoreFn g_selectCertificateDialog;
extern platform::CryptUIDlgViewContextFn g_viewContextDialog;
// Looks the dialog functions up while the select function is unknown; a
// platform without them is asked again next time.
void loadDialogFunctions();

class PDFCertWinStoreImpl {
 public:
  PDFCertWinStoreImpl();
  virtual ~PDFCertWinStoreImpl() = default;

  // "MY", "ADDRESSBOOK", "ROOT" for 0, 1, 2; "MY" for any other number.
  static const char* storeName(int store);

  bool getByHash(PDFCert& cert, const std::string& hash, int store);
  int getByName(std::vector<PDFCert>& certs, const std::wstring& name, int store);
  bool getByDlg(PDFCert& cert, const std::wstring& title, const std::wstring& text, int hiddenColumns,
                void* parent, int store);
  bool addPfx(std::istream& in, const std::wstring& password, PDFCert& cert);
  bool delCert(const PDFCert& cert);
  int getCertChain(std::vector<PDFCert>& certs, X509* cert);
  int isTrusted(X509* cert, int store);
  bool addToStore(const PDFCert& cert, int store);
  bool delFromStore(const PDFCert& cert, int store);

 private:
  bool findInRootStore(platform::PCCERT_CONTEXT context);
  bool deleteByHash(const PDFCert& cert, const char* storeName);
};

}  // namespace PDF_Sealmark

#endif
