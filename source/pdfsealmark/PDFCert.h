// One X.509 certificate, with or without its private key.
//
// PDFCert is how a certificate passes in and out of the library: the
// verifier hands out the certificates of a signature in it, and the caller
// loads one from a file, reads its fields as text, and signs with the
// OpenSSL objects it lends.
//
//   std::ifstream in("signer.p12", std::ios::binary);
//   PDF_Sealmark::PDFCert cert;
//   if (cert.loadPkcs12(in, "secret")) {
//     std::vector<std::string> oids, values;
//     cert.getSubject(oids, values);                  // values in code page 932
//     auto* x509 = reinterpret_cast<X509*>(cert.getX509());      // borrowed
//     auto* key = reinterpret_cast<EVP_PKEY*>(cert.getPKey());   // borrowed
//   }
//
// A PDFCert is a value: copies share one implementation object, so a copy
// costs two reference counts, and a load on one copy is seen through all of
// them.  Assigning another PDFCert separates them again.  An object and its
// copies belong to one thread at a time.
//
// Text comes out in code page 932: a UTF8String of the certificate is
// converted to CP932, every other string type is handed out byte for byte.
// Dates are "YYYYMMDDHHMMSSZ" texts with a four-digit year; hex texts are
// upper case with no separators.
#ifndef PDFSEALMARK_PDFCERT_H
#define PDFSEALMARK_PDFCERT_H

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"
#include "pdfsealmark/outside/TesseraCommon.h"

namespace PDF_Sealmark {

class PDFCertImpl;
class PDFCertWinImpl;
class PDFSealmarkVerifyImpl;
class PDFCertWinStoreImpl;

class PDFSEALMARK_API PDFCert {
 public:
  // An OpenSSL object lent or handed out as a pointer-width number, so that
  // this interface shows no OpenSSL type.  Cast it back with
  // reinterpret_cast<X509*> or reinterpret_cast<EVP_PKEY*>.
  using Handle = std::uintptr_t;

  // An empty certificate object; fill it with a load.
  PDFCert();
  // Shares other's implementation objects; copies no certificate data.
  PDFCert(const PDFCert& other);
  virtual ~PDFCert();
  void operator=(const PDFCert& other);

  // --- OpenSSL objects ------------------------------------------------------
  // The X509* held, borrowed: valid while this object (or a copy) holds it,
  // never to be freed by the caller.  0 when there is none.
  Handle getX509() const;
  // A new copy of the X509* that the caller owns and frees with X509_free.
  // 0 when there is none.
  Handle getdupX509() const;
  // The EVP_PKEY* of the private key, borrowed like getX509.  0 without key.
  Handle getPKey() const;

  // State of the last revocation check: 0 none settled, 1 by a CRL, 2 by
  // OCSP, 3 no usable answer (also when the object couldn't be made).
  int getValid();
  // The raw version field: 0 for version 1, 2 for version 3.
  int getVersion() const;
  // True when the platform holds a context for the certificate, so that it
  // can be shown through the platform.  True after a successful load.
  bool isWindowsCert();
  // Shows the platform's certificate dialog; does nothing where there is none.
  void display(void* parentWindow) const;

  // --- fields ---------------------------------------------------------------
  // The attributes of the subject (issuer) name in stored order: numeric
  // object identifiers in keys, values in values.  Both lists are emptied
  // first; false when no certificate is held.
  bool getSubject(std::vector<std::string>& keys, std::vector<std::string>& values) const;
  bool getIssuer(std::vector<std::string>& keys, std::vector<std::string>& values) const;
  // OpenSSL's short and long name of a numeric object identifier: "CN" and
  // "commonName" for 2.5.4.3, "UNDEF" and "undefined" when unknown, both
  // empty for an empty oid.
  void getOidName(const std::string& oid, std::string& shortName, std::string& longName) const;
  // The serial number's bytes read as a 32-bit number (a 4-byte serial with
  // its top bit set comes out negative).  Throws std::overflow_error for a
  // serial longer than 4 bytes: use getSerialHex for arbitrary certificates.
  long getSerial() const;
  // The serial number as hex text, of any length.
  std::string getSerialHex() const;
  // The SHA-1 of the certificate's DER as 40 hex digits; false (and hex
  // untouched) when there is no certificate.
  bool getHashHex(std::string& hex) const;
  std::string getNotBefore() const;
  std::string getNotAfter() const;
  // The subjectPublicKey bits as hex (for RSA the DER RSAPublicKey).
  std::string getPublicKey() const;
  // Long names, such as "rsaEncryption" and "sha256WithRSAEncryption".
  std::string getPublicKeyAlgorithm() const;
  std::string getSignAlgorithm() const;
  // 0 for every certificate.
  int getKeyType() const;
  // OpenSSL's keyUsage bits (KU_DIGITAL_SIGNATURE 0x80 ... KU_DECIPHER_ONLY
  // 0x8000); 0 without a keyUsage extension.
  int getKeyUsage() const;
  // True when the moment lies in [notBefore, notAfter).  The time is a date
  // text "YYYYMMDDHHMM[SS][Z|+HHMM|-HHMM|+HH|-HH]" of at least 10 characters
  // (a shorter one throws std::out_of_range); null, or a date that can't be
  // represented, means now.
  bool isValid(const char* time);
  // The CRL locations of the cRLDistributionPoints extension, in order: URI
  // names as they stand, a directory name as "ldap:/DN?certificate
  // RevocationList;binary".  Each text is a heap copy that the caller
  // releases with free().
  std::vector<const char*> getCrlUrl() const;
  // The first OCSP responder URL of the authorityInfoAccess extension, or "".
  std::string getOcspUrl() const;

  // --- revocation -------------------------------------------------------------
  // True when the certificate counts as not revoked.  Asks the OCSP responder
  // the certificate names first (the answer of a responder, good or not, is
  // final), then its CRLs in order until one gives an answer.  getValid then
  // tells how it was decided:
  //   true  2: responder says good        false 2: revoked or unknown
  //   true  1: a CRL doesn't revoke it    false 1: a CRL revokes it at time
  //   false 3: neither gave an answer     true, unchanged: names neither
  // time: date text of the moment for CRL entries, null for now.  cacheDir:
  // directory of the CRL cache, null for none.  ldapServers: "ldap://h:p/,"
  // prefixes (comma-separated; a single one needs a comma behind it) for the
  // URLs of directory-name distribution points, or null.  issuer: needed for
  // OCSP, the signature check of CRLs and the cache; may be null.  chain:
  // anchors for the responder's signature instead of issuer, or null.
  // noNonce: 0 asks for a nonce and demands it back, other values leave it
  // out.  A time text shorter than YYYYMMDDHH throws std::out_of_range.
  bool checkCRL(const char* time, const char* cacheDir, const char* ldapServers, PDFCert* issuer,
                std::vector<PDFCert>* chain, int noNonce);

  // --- chain ------------------------------------------------------------------
  // Walks the issuer path from this certificate by names alone: the issuer
  // of each certificate is the first certificate of `given` with that
  // subject, else the first of the system's chain engine, until a
  // self-issued certificate ends the path.  Signatures and key identifiers
  // are not compared.  Then, from this certificate up, each element must be
  // valid at `time` (isValid) and, with checkRevocation, pass checkCRL
  // (with the next element as issuer, the top as its own, and the whole
  // path as chain) unless it stands in the store ROOT.
  //   0  the path doesn't reach a self-issued certificate (also when names
  //      go round in a circle), or an element failed its date or
  //      revocation check, or this object holds no certificate
  //   1  every element passed; the top is not in ROOT
  //   2  every element passed; the top is in ROOT
  // `chain` is emptied first and then holds the path as far as it was
  // walked, whatever the result: copies without key, each element with the
  // revocation status (getValid) its own check left.  time, cacheDir,
  // ldapServers, noNonce: as for checkCRL.
  int getChain(std::vector<PDFCert>& chain, std::vector<PDFCert>& given, bool checkRevocation,
               const char* time, const char* cacheDir, const char* ldapServers, int noNonce) const;

  // --- files ----------------------------------------------------------------
  // Reads a certificate from the whole stream (from its first byte, wherever
  // it stands).  der true accepts DER, then PEM; false accepts PEM only.  An
  // empty or unreadable stream leaves the object as it was; once the bytes
  // are read, the old certificate and key are gone, even if parsing fails.
  bool loadX509(std::istream& in, bool der);
  // Writes the certificate as DER or PEM.  False when none is held.
  bool saveX509(std::ostream& out, bool der) const;
  // Reads a PKCS#12 file: certificate, private key, further certificates.
  // A null or empty password gives false without reading.
  bool loadPkcs12(std::istream& in, const char* password);
  // Writes certificate, key and further certificates as PKCS#12.  Needs the
  // private key and a non-empty password; name may be empty, not null.
  bool savePkcs12(std::ostream& out, const char* password, const char* name) const;

  // --- generation -------------------------------------------------------------
  // Makes a new RSA key (keySize 1: 2048 bits, 2: 4096, other: 1024; public
  // exponent 65537) and a self-signed X.509 v3 certificate for it, signed
  // with SHA-1, valid from now for days*86400 seconds, and keeps both.
  //   oids, values: the subject (and issuer) attributes in order; oids in
  //     dotted numeric form ("2.5.4.3"), values in ICU's default code page.
  //     A value with a Shift-JIS lead byte becomes a UTF8String, an
  //     emailAddress an IA5String, the rest PrintableStrings as given.
  //     Attributes whose oid OpenSSL doesn't know are left out.
  //   altName: a subjectAltName in OpenSSL's extension text ("email:a@b.jp"),
  //     or "" for none.
  //   keyUsage: 1 nonRepudiation,dataEncipherment; 2 nonRepudiation,
  //     digitalSignature,dataEncipherment; other nonRepudiation,
  //     digitalSignature.
  // The extensions, none critical: basicConstraints CA:FALSE, an nsComment,
  // subjectKeyIdentifier, authorityKeyIdentifier, keyUsage, then
  // subjectAltName when given.  False, with the object unchanged, for empty
  // or unequal lists, serial < 1 or days < 1; any later failure (an altName
  // OpenSSL can't read, for one) gives false and leaves the object empty.
  // Blocks while the key is made: seconds for 4096 bits.
  bool generate(long serial, long days, std::vector<std::string>& oids, std::vector<std::string>& values,
                const std::string& altName, int keySize, int keyUsage);

 private:
  friend class PDFCertImpl;
  friend class PDFCertWinImpl;
  friend class PDFSealmarkVerifyImpl;
  friend class PDFCertWinStoreImpl;

  TesseraCommon::TSSmartPtr<PDFCertImpl> impl;
  TesseraCommon::TSSmartPtr<PDFCertWinImpl> winImpl;
};

}  // namespace PDF_Sealmark

#endif
