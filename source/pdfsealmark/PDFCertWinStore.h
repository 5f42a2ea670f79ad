// PDFCertWinStore: the system's certificate stores.
//
// Find a certificate by its SHA-1 or its subject, import a PKCS#12 file,
// delete a certificate, build a chain, ask whether a certificate stands in
// a store.  A certificate found in "MY" comes with its private key as an
// EVP_PKEY whose private operations are carried out by the token that holds
// the key, which never leaves it: sign with it as with any OpenSSL key
// (PKCS#1 v1.5).
//
//   PDF_Sealmark::PDFCertWinStore store;
//   PDF_Sealmark::PDFCert signer;
//   if (store.getByHash(signer, "FD2017F1A74C6722F8EC73F836EDDAE859AFBED2",
//   PDF_Sealmark::PDFCertWinStore::kMy)) {
//     auto* key = reinterpret_cast<EVP_PKEY*>(signer.getPKey());   // borrowed; 0 without key
//   }
//
// On Linux the stores are views of the NSS certificate database that Linux
// programs share: $SEALMARK_NSSDB (a directory, "sql:" prefix optional),
// else $HOME/.pki/nssdb, made empty on first use.
//   kMy (0)          certificates with a private key in any token of the
//                    database (NSS's own, or a PKCS#11 module registered
//                    with it, such as a smart card or an HSM);
//   kAddressBook (1) certificates with no key and no CA trust;
//   kRoot (2)        certificates trusted as CAs (trust flag C) in the
//                    database, plus OpenSSL's default CA file and directory
//                    ($SSL_CERT_FILE, $SSL_CERT_DIR), which are read-only.
// Any other store number means "MY", without taking keys along.  A token
// that needs a PIN gets the first line of the file $SEALMARK_PIN_FILE, or
// $SEALMARK_PIN; nobody is ever asked.  There is no selection dialog.
//
// A store object holds no state: every call opens what it needs and closes
// it.  Results only: false, 0 or an empty list on every failure.
#ifndef PDFSEALMARK_PDFCERTWINSTORE_H
#define PDFSEALMARK_PDFCERTWINSTORE_H

#include <istream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Sealmark {

class PDFCertWinStoreImpl;

class PDFSEALMARK_API PDFCertWinStore {
 public:
  enum StoreNumber { kMy = 0, kAddressBook = 1, kRoot = 2 };

  PDFCertWinStore();
  // Copies nothing: the copy has an implementation object of its own.
  PDFCertWinStore(const PDFCertWinStore& other);
  virtual ~PDFCertWinStore();
  // No effect.
  void operator=(const PDFCertWinStore& other);

  // The certificate whose SHA-1 the hex text names (upper or lower case,
  // ':' between bytes allowed), into cert; with its key for store 0.  False
  // when the text isn't hex, names no certificate of the store, or cert
  // was made without its implementation objects.  True for a certificate
  // of store 0 that has no key as well: then getPKey() gives 0.
  bool getByHash(PDFCert& cert, const std::string& hash, int store);
  // Every certificate of the store whose subject contains name (its
  // attribute values joined by ", ", case ignored), or all for an empty
  // name, replacing the list's contents.  Gives their number.
  int getByName(std::vector<PDFCert>& certs, const std::wstring& name, int store);
  // The certificate the user picks in the system's dialog.  There is none
  // on Linux: false at once.
  bool getByDlg(PDFCert& cert, const std::wstring& title, const std::wstring& text, int hiddenColumns,
                void* parent, int store);
  // Imports a PKCS#12 file's keys and certificates into "MY" (the keys into
  // the database's token).  cert gets the file's last certificate, with
  // its key if it has one.  False for an unreadable stream, a file that
  // isn't PKCS#12, a wrong password (the store is then untouched), or a
  // file without certificates.  Wide text holds one Unicode code point per
  // wchar_t.
  bool addPfx(std::istream& in, const std::wstring& password, PDFCert& cert);
  // Deletes the certificate with cert's SHA-1 from "MY"; its private key
  // stays in its token.  False when it isn't in "MY".
  bool delCert(const PDFCert& cert);
  // Appends to certs the chain the system builds from cert up, through
  // the database's certificates and the system's anchors, then checks each
  // element's signature with the next one's key (the last with its own).
  // 0: no chain, or a signature that doesn't hold; 1: the path holds but
  // its top isn't in "ROOT"; 2: it holds up to a certificate of "ROOT".
  // Elements already in certs take part in the check.
  int getCertChain(std::vector<PDFCert>& certs, PDFCert& cert);
  // 1 when a certificate with cert's SHA-1 stands in the store, else 0.
  int isTrusted(PDFCert& cert, int store);

  // No behaviour: they leave their arguments alone and give 0 or false.
  int getAllCerts(std::vector<PDFCert>& certs, int store);
  bool getByIssuer(PDFCert& cert, const std::wstring& issuer, const std::string& serial, int store);
  bool addCert(const PDFCert& cert, PDFCert& added);

  // Beyond the stores' classic operations, for managing a store by hand:
  // puts cert's certificate into the database with the trust that places
  // it in the store (kRoot: trusted as a CA for every use; kAddressBook:
  // no trust; kMy: as it is, which places it there when a token holds its
  // key).  False without a certificate, or when the database refuses.
  bool addToStore(const PDFCert& cert, int store);
  // Deletes the certificate with cert's SHA-1 from the store (for kMy as
  // delCert).  False when it isn't there, and for the system's anchors,
  // which are read-only.
  bool delFromStore(const PDFCert& cert, int store);

  PDFCertWinStoreImpl* getCertWinStoreImpl() const;

 private:
  PDFCertWinStoreImpl* impl;
};

}  // namespace PDF_Sealmark

#endif
