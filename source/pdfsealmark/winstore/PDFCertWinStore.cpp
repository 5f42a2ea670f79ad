// The exported store classes: facades that forward to their implementation
// objects and give 0 or false when one couldn't be made.
#include "pdfsealmark/PDFCertWinStore.h"

#include <new>

#include "pdfsealmark/PDFCertStore.h"
#include "pdfsealmark/openssl_init.h"
#include "pdfsealmark/winstore/PDFCertWinStoreImpl.h"

namespace PDF_Sealmark {

PDFCertStore::PDFCertStore() : impl(new (std::nothrow) PDFCertStoreImpl) { initOpenSSLOnce(); }
PDFCertStore::PDFCertStore(const PDFCertStore&) : impl(new (std::nothrow) PDFCertStoreImpl) {
  initOpenSSLOnce();
}
PDFCertStore::~PDFCertStore() { delete impl; }
void PDFCertStore::operator=(const PDFCertStore&) {}
void PDFCertStore::clear() {}
PDFCertStoreImpl* PDFCertStore::getCertStoreImpl() const { return impl; }

PDFCertWinStore::PDFCertWinStore() : impl(new (std::nothrow) PDFCertWinStoreImpl) { initOpenSSLOnce(); }
PDFCertWinStore::PDFCertWinStore(const PDFCertWinStore&) : impl(new (std::nothrow) PDFCertWinStoreImpl) {
  initOpenSSLOnce();
}
PDFCertWinStore::~PDFCertWinStore() { delete impl; }
void PDFCertWinStore::operator=(const PDFCertWinStore&) {}
PDFCertWinStoreImpl* PDFCertWinStore::getCertWinStoreImpl() const { return impl; }

bool PDFCertWinStore::getByHash(PDFCert& cert, const std::string& hash, int store) {
  return impl ? impl->getByHash(cert, hash, store) : false;
}

int PDFCertWinStore::getByName(std::vector<PDFCert>& certs, const std::wstring& name, int store) {
  return impl ? impl->getByName(certs, name, store) : 0;
}

bool PDFCertWinStore::getByDlg(PDFCert& cert, const std::wstring& title, const std::wstring& text,
                               int hiddenColumns, void* parent, int store) {
  return impl ? impl->getByDlg(cert, title, text, hiddenColumns, parent, store) : false;
}

bool PDFCertWinStore::addPfx(std::istream& in, const std::wstring& password, PDFCert& cert) {
  return impl ? impl->addPfx(in, password, cert) : false;
}

bool PDFCertWinStore::delCert(const PDFCert& cert) { return impl ? impl->delCert(cert) : false; }

int PDFCertWinStore::getCertChain(std::vector<PDFCert>& certs, PDFCert& cert) {
  return impl ? impl->getCertChain(certs, reinterpret_cast<X509*>(cert.getX509())) : 0;
}

int PDFCertWinStore::isTrusted(PDFCert& cert, int store) {
  return impl ? impl->isTrusted(reinterpret_cast<X509*>(cert.getX509()), store) : 0;
}

int PDFCertWinStore::getAllCerts(std::vector<PDFCert>&, int) { return 0; }
bool PDFCertWinStore::getByIssuer(PDFCert&, const std::wstring&, const std::string&, int) { return false; }
bool PDFCertWinStore::addCert(const PDFCert&, PDFCert&) { return false; }

bool PDFCertWinStore::addToStore(const PDFCert& cert, int store) {
  return impl ? impl->addToStore(cert, store) : false;
}

bool PDFCertWinStore::delFromStore(const PDFCert& cert, int store) {
  return impl ? impl->delFromStore(cert, store) : false;
}

}  // namespace PDF_Sealmark
