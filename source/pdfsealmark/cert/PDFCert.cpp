#include "pdfsealmark/PDFCert.h"

#include <new>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_init.h"
#include "pdfsealmark/winstore/PDFCertWinImpl.h"

namespace PDF_Sealmark {

// The implementation objects are made without throwing: should one fail,
// the facade still answers, with the results of an empty certificate.
PDFCert::PDFCert()
    : impl(new (std::nothrow) PDFCertImpl, true), winImpl(new (std::nothrow) PDFCertWinImpl, true) {
  initOpenSSLOnce();
}

PDFCert::PDFCert(const PDFCert& other) {
  initOpenSSLOnce();
  impl = other.impl;
  winImpl = other.winImpl;
}

PDFCert::~PDFCert() {
  // The platform side goes first, as it was made last.
  winImpl = TesseraCommon::TSSmartPtr<PDFCertWinImpl>();
  impl = TesseraCommon::TSSmartPtr<PDFCertImpl>();
}

void PDFCert::operator=(const PDFCert& other) {
  impl = other.impl;
  winImpl = other.winImpl;
}

PDFCert::Handle PDFCert::getX509() const { return impl ? reinterpret_cast<Handle>(impl->getX509()) : 0; }

PDFCert::Handle PDFCert::getdupX509() const {
  if (!impl || impl->getX509() == nullptr) return 0;
  return reinterpret_cast<Handle>(X509_dup(impl->getX509()));
}

PDFCert::Handle PDFCert::getPKey() const { return impl ? reinterpret_cast<Handle>(impl->getPKey()) : 0; }

int PDFCert::getValid() { return impl ? impl->getValid() : 3; }

int PDFCert::getVersion() const { return impl ? impl->getVersion() : 0; }

bool PDFCert::isWindowsCert() { return winImpl ? winImpl->hasContext() : false; }

void PDFCert::display(void* parentWindow) const {
  if (winImpl && winImpl->hasContext()) winImpl->showDialog(parentWindow);
}

bool PDFCert::getSubject(std::vector<std::string>& keys, std::vector<std::string>& values) const {
  if (impl) return impl->getSubject(keys, values);
  keys.clear();
  values.clear();
  return false;
}

bool PDFCert::getIssuer(std::vector<std::string>& keys, std::vector<std::string>& values) const {
  if (impl) return impl->getIssuer(keys, values);
  keys.clear();
  values.clear();
  return false;
}

void PDFCert::getOidName(const std::string& oid, std::string& shortName, std::string& longName) const {
  if (impl) return impl->getOidName(oid, shortName, longName);
  shortName.clear();
  longName.clear();
}

long PDFCert::getSerial() const { return impl ? impl->getSerial() : 0; }
std::string PDFCert::getSerialHex() const { return impl ? impl->getSerialHex() : std::string(); }
bool PDFCert::getHashHex(std::string& hex) const { return impl ? impl->getHashHex(hex) : false; }
std::string PDFCert::getNotBefore() const { return impl ? impl->getNotBefore() : std::string(); }
std::string PDFCert::getNotAfter() const { return impl ? impl->getNotAfter() : std::string(); }
std::string PDFCert::getPublicKey() const { return impl ? impl->getPublicKey() : std::string(); }
std::string PDFCert::getPublicKeyAlgorithm() const {
  return impl ? impl->getPublicKeyAlgorithm() : std::string();
}
std::string PDFCert::getSignAlgorithm() const { return impl ? impl->getSignAlgorithm() : std::string(); }
int PDFCert::getKeyType() const { return impl ? impl->getKeyType() : 0; }
int PDFCert::getKeyUsage() const { return impl ? impl->getKeyUsage() : 0; }
bool PDFCert::isValid(const char* time) { return impl ? impl->isValid(time) : false; }

std::vector<const char*> PDFCert::getCrlUrl() const {
  return impl ? impl->getCrlUrl(nullptr) : std::vector<const char*>();
}

std::string PDFCert::getOcspUrl() const { return impl ? impl->getOcspUrl() : std::string(); }

bool PDFCert::checkCRL(const char* time, const char* cacheDir, const char* ldapServers, PDFCert* issuer,
                       std::vector<PDFCert>* chain, int noNonce) {
  if (!impl) return false;
  X509* issuerCert = issuer ? reinterpret_cast<X509*>(issuer->getX509()) : nullptr;
  return impl->checkCRL(time, cacheDir, ldapServers, issuerCert, chain, noNonce);
}

int PDFCert::getChain(std::vector<PDFCert>& chain, std::vector<PDFCert>& given, bool checkRevocation,
                      const char* time, const char* cacheDir, const char* ldapServers, int noNonce) const {
  if (!impl) {
    chain.clear();
    return 0;
  }
  return impl->getChain(chain, given, checkRevocation, time, cacheDir, ldapServers, noNonce);
}

bool PDFCert::loadX509(std::istream& in, bool der) {
  if (!impl) return false;
  const bool loaded = impl->loadX509(in, der);
  // A loaded certificate gets its platform context too; whether that works
  // doesn't change the load's answer.
  if (loaded && winImpl) winImpl->syncWinCert(impl.get());
  return loaded;
}

bool PDFCert::saveX509(std::ostream& out, bool der) const { return impl ? impl->saveX509(out, der) : false; }

bool PDFCert::loadPkcs12(std::istream& in, const char* password) {
  if (password == nullptr) return false;
  const std::string text(password);
  if (!impl) return false;
  const bool loaded = impl->loadPkcs12(in, text);
  if (loaded && winImpl) winImpl->syncWinCert(impl.get());
  return loaded;
}

bool PDFCert::savePkcs12(std::ostream& out, const char* password, const char* name) const {
  if (password == nullptr || name == nullptr) return false;
  const std::string passwordText(password);
  const std::string nameText(name);
  if (!impl) return false;
  return impl->savePkcs12(out, passwordText, nameText);
}

// Generation makes no platform context: the caller saves or uses the result.
bool PDFCert::generate(long serial, long days, std::vector<std::string>& oids,
                       std::vector<std::string>& values, const std::string& altName, int keySize,
                       int keyUsage) {
  return impl ? impl->generate(serial, days, oids, values, altName, keySize, keyUsage) : false;
}

}  // namespace PDF_Sealmark
