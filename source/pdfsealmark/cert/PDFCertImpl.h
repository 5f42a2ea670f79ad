// Internal: the state behind PDFCert, and the text helpers every part of the
// library uses for certificate fields.
#ifndef PDFSEALMARK_CERT_PDFCERTIMPL_H
#define PDFSEALMARK_CERT_PDFCERTIMPL_H

#include <openssl/x509.h>

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/outside/TesseraCommon.h"

namespace PDF_Sealmark {

class PDFCertImpl : public TesseraCommon::TSRCObject {
 public:
  static constexpr std::uint32_t kClassId = 0x634392F9u;

  PDFCertImpl() = default;

  std::uint32_t getClassId() const override { return kClassId; }
  icu::UnicodeString getClassName() const override;

  // The facade's implementation object, for the library's own classes that
  // build or read PDFCert objects (and for tests).  Null when it couldn't be
  // made.
  static PDFCertImpl* implOf(const PDFCert& cert) { return cert.impl.get(); }

  // The raw fields.  The setters take over what they are given and free
  // what it replaces.
  X509* getX509() const { return x509; }
  EVP_PKEY* getPKey() const { return pkey; }
  int getValid() const { return valid; }
  void setX509(X509* cert);
  void setPKey(EVP_PKEY* key);
  void setCaCerts(STACK_OF(X509) * certs);

  int getVersion() const;

  // Fields and names.
  bool getSubject(std::vector<std::string>& keys, std::vector<std::string>& values) const;
  bool getIssuer(std::vector<std::string>& keys, std::vector<std::string>& values) const;
  void getOidName(const std::string& oid, std::string& shortName, std::string& longName) const;
  long getSerial() const;
  std::string getSerialHex() const;
  bool getHashHex(std::string& hex) const;
  std::string getNotBefore() const;
  std::string getNotAfter() const;
  std::string getPublicKey() const;
  std::string getPublicKeyAlgorithm() const;
  std::string getSignAlgorithm() const;
  int getKeyType() const { return 0; }
  int getKeyUsage() const;
  bool isValid(const char* time);
  std::vector<const char*> getCrlUrl(const char* ldapServers) const;
  std::string getOcspUrl() const;

  // Revocation: the check as a whole, and its OCSP exchange (1 good, 0 not
  // good, -1 no usable answer).
  bool checkCRL(const char* time, const char* cacheDir, const char* ldapServers, X509* issuer,
                std::vector<PDFCert>* chain, int noNonce);
  int checkOCSP(const char* url, X509* issuer, std::vector<PDFCert>* chain, int noNonce);
  // The issuer path and its verdict (0, 1, 2), as PDFCert::getChain.
  int getChain(std::vector<PDFCert>& chain, const std::vector<PDFCert>& given, bool checkRevocation,
               const char* time, const char* cacheDir, const char* ldapServers, int noNonce) const;

  // Files.
  bool loadX509(std::istream& in, bool der);
  bool saveX509(std::ostream& out, bool der) const;
  bool loadPkcs12(std::istream& in, const std::string& password);
  bool savePkcs12(std::ostream& out, const std::string& password, const std::string& name) const;

  // Generation: a new RSA key and a self-signed certificate for it.
  bool generate(long serial, long days, const std::vector<std::string>& oids,
                const std::vector<std::string>& values, const std::string& altName, int keySize,
                int keyUsage);

  // Fields, in this order; the object owns what they point at and frees it
  // when a field is replaced (through the setters or clearAll) and when it
  // ends.
  X509* x509 = nullptr;
  EVP_PKEY* pkey = nullptr;
  STACK_OF(X509) * caCerts = nullptr;
  std::int32_t valid = 0;

 protected:
  ~PDFCertImpl() override;

 private:
  // Releases the certificate, key and further certificates and forgets the
  // check result: the state every load passes through.
  void clearAll();
};

// --- text helpers -------------------------------------------------------------

// Two upper-case hex digits per byte.  With negate, the bytes are first
// replaced by the two's complement of the number they hold, at the same
// width (the magnitude of a negative ASN.1 INTEGER becomes its encoding).
// Empty for null bytes or a length below 1.
std::string bytesToHex(const unsigned char* bytes, int length, bool negate);

// The stored characters of an ASN.1 time with a four-digit year: a UTCTime
// gets "19" (years 50 to 99) or "20" in front; other types come as stored.
std::string timeToText(const ASN1_TIME* time);

// Seconds since 1970 of a date text "YYYYMMDDHHMM[SS]" with an optional
// zone suffix "+HHMM", "-HHMM", "+HH" or "-HH" (a trailing Z is ignored),
// or -1 when there is no time or the date can't be represented (before
// 1970).  A date part shorter than 10 characters throws std::out_of_range.
std::int64_t textToTime(const char* text);

// The whole stream from its first byte, or an empty vector when it can't be
// read (unseekable, or a stream that throws).
std::vector<char> readWholeStream(std::istream& in);

// --- generation helpers ------------------------------------------------------

// A lead byte of a Shift-JIS double-byte character: 0x81-0x9F or 0xE0-0xFC.
bool isShiftJisLeadByte(unsigned char byte);

// The ASN.1 string type a generated subject attribute gets: PrintableString
// for an empty value; UTF8String when the value holds a Shift-JIS lead byte;
// IA5String for emailAddress (1.2.840.113549.1.9.1); else PrintableString.
int nameEntryStringType(const std::string& value, const std::string& oid);

// The subject name generate() writes: one entry per (oid, value) pair, in
// list order, of the type nameEntryStringType picks; a UTF8String value is
// converted from ICU's default code page.  Pairs whose oid isn't a numeric
// identifier OpenSSL knows, or that can't be encoded, are left out.  Null
// only when no name could be made at all.
ossl::UniquePtr<X509_NAME> generatedSubject(const std::vector<std::string>& oids,
                                            const std::vector<std::string>& values);

// Hands a bare certificate out as a PDFCert: a default object whose
// implementation takes an X509_dup copy.  It holds no key, valid 0 and no
// platform context.
PDFCert makePDFCert(const X509* cert);
// The same, taking ownership of `cert` instead of copying it: a copy decodes
// the certificate again, public key included, which OpenSSL 3 makes costly.
PDFCert adoptPDFCert(ossl::UniquePtr<X509> cert);

}  // namespace PDF_Sealmark

#endif
