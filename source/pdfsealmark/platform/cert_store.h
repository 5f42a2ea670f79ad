// Internal: the system certificate stores, PFX import and the chain engine.
//
// The store classes call these under the names of the CryptoAPI operations
// they stand for.  On Linux the system stores are views of the NSS
// database (nss_db.h):
//   "MY"           certificates that have a private key in any token of the
//                  database;
//   "ADDRESSBOOK"  certificates with no key and no CA trust;
//   "ROOT"         certificates trusted as CAs (trust flag C) in the
//                  database, and the system's trust anchors, OpenSSL's
//                  default CA file and directory ($SSL_CERT_FILE and
//                  $SSL_CERT_DIR override them), which are read-only.
// Adding a certificate to a store sets the trust flags that place it there.
// A store handle is a snapshot taken when it is opened.  There is no
// certificate dialog: the select function is not found.
#ifndef PDFSEALMARK_PLATFORM_CERT_STORE_H
#define PDFSEALMARK_PLATFORM_CERT_STORE_H

#include <cstdint>

#include "pdfsealmark/platform/cert_context.h"
#include "pdfsealmark/platform/crypt_key.h"

namespace PDF_Sealmark {
namespace platform {

constexpr std::uint32_t PKCS_7_ASN_ENCODING = 0x10000;
constexpr std::uint32_t CERT_FIND_ANY = 0;
constexpr std::uint32_t CERT_FIND_SHA1_HASH = 0x10000;
constexpr std::uint32_t CERT_FIND_SUBJECT_STR_W = 0x80007;
constexpr std::uint32_t CERT_FIND_EXISTING = 0xD0000;
constexpr std::uint32_t CERT_STORE_ADD_ALWAYS = 4;
constexpr std::uint32_t CRYPT_EXPORTABLE = 1;

struct CRYPT_DATA_BLOB {
  std::uint32_t cbData;
  unsigned char* pbData;
};
using CRYPT_HASH_BLOB = CRYPT_DATA_BLOB;

struct CertStore;
using HCERTSTORE = CertStore*;

// Opens "MY", "ADDRESSBOOK" or "ROOT"; null for another name or when the
// database can't be opened.
HCERTSTORE CertOpenSystemStoreA(HCRYPTPROV provider, const char* name);
// Closes the handle; contexts handed out stay good until they are freed.
bool CertCloseStore(HCERTSTORE store, std::uint32_t flags);
// The next match after previous (which it frees), or null.  para: a
// CRYPT_HASH_BLOB* for CERT_FIND_SHA1_HASH; a const wchar_t* contained,
// without regard to case, in the subject's values joined by ", " for
// CERT_FIND_SUBJECT_STR_W; a PCCERT_CONTEXT with the same encoding for
// CERT_FIND_EXISTING.
PCCERT_CONTEXT CertFindCertificateInStore(HCERTSTORE store, std::uint32_t encodingType, std::uint32_t flags,
                                          std::uint32_t findType, const void* para, PCCERT_CONTEXT previous);
PCCERT_CONTEXT CertEnumCertificatesInStore(HCERTSTORE store, PCCERT_CONTEXT previous);
// Puts the certificate into the database with the trust flags of the
// store (C,C,C for "ROOT", none for "ADDRESSBOOK"; "MY" keeps what the
// certificate has).  added, when not null, gets a context in the store.
bool CertAddCertificateContextToStore(HCERTSTORE store, PCCERT_CONTEXT context, std::uint32_t disposition,
                                      PCCERT_CONTEXT* added);
// Deletes the certificate of a context from the store it was found in
// (its private key stays in its token), and frees the context.  False for
// a system anchor and for a context that came from no store.
bool CertDeleteCertificateFromStore(PCCERT_CONTEXT context);

void* CryptMemAlloc(std::uint32_t size);
void CryptMemFree(void* memory);
// Checks a PKCS#12 file's integrity (its MAC) with the password, decodes it
// with NSS's decoder and imports its keys and certificates into the database's
// token.  Gives a store of the file's certificates in the file's order, or
// null; on a wrong password nothing is imported.
HCERTSTORE PFXImportCertStore(const CRYPT_DATA_BLOB* pfx, const wchar_t* password, std::uint32_t flags);

// --- chain engine -------------------------------------------------------------
constexpr std::uint32_t CERT_CHAIN_CACHE_END_CERT = 1;
constexpr std::uint32_t CERT_CHAIN_RETURN_LOWER_QUALITY_CONTEXTS = 0x80;
constexpr std::uint32_t CERT_CHAIN_REVOCATION_CHECK_END_CERT = 0x10000000;
constexpr std::uint32_t CERT_CHAIN_REVOCATION_CHECK_CHAIN = 0x20000000;

struct CERT_CHAIN_ENGINE_CONFIG {
  std::uint32_t cbSize;
  std::uint32_t dwFlags;
};
struct CERT_USAGE_MATCH {
  std::uint32_t dwType;
  std::uint32_t cUsageIdentifier;
  char** rgpszUsageIdentifier;
};
struct CERT_CHAIN_PARA {
  std::uint32_t cbSize;
  CERT_USAGE_MATCH RequestedUsage;
};
struct CERT_CHAIN_ELEMENT {
  std::uint32_t cbSize;
  PCCERT_CONTEXT pCertContext;
};
struct CERT_SIMPLE_CHAIN {
  std::uint32_t cbSize;
  std::uint32_t cElement;
  CERT_CHAIN_ELEMENT** rgpElement;
};
struct CERT_CHAIN_CONTEXT {
  std::uint32_t cbSize;
  std::uint32_t cChain;
  CERT_SIMPLE_CHAIN** rgpChain;
};
using PCCERT_CHAIN_CONTEXT = const CERT_CHAIN_CONTEXT*;

struct ChainEngine;
using HCERTCHAINENGINE = ChainEngine*;

bool CertCreateCertificateChainEngine(const CERT_CHAIN_ENGINE_CONFIG* config, HCERTCHAINENGINE* engine);
void CertFreeCertificateChainEngine(HCERTCHAINENGINE engine);
// Builds one simple chain from the certificate up, through the database's
// certificates and the system anchors, to a trust anchor, a self-signed
// certificate or a certificate whose issuer isn't there.  Neither time nor
// revocation nor usage is judged: the chain is for finding certificates.
bool CertGetCertificateChain(HCERTCHAINENGINE engine, PCCERT_CONTEXT context, const void* time,
                             HCERTSTORE additionalStore, const CERT_CHAIN_PARA* para, std::uint32_t flags,
                             void* reserved, PCCERT_CHAIN_CONTEXT* chain);
void CertFreeCertificateChain(PCCERT_CHAIN_CONTEXT chain);

// The selection dialog, looked up at run time; null where the platform has
// none, as on Linux.
using CryptUIDlgSelectCertificateFromStoreFn = PCCERT_CONTEXT (*)(HCERTSTORE store, void* parent,
                                                                  const wchar_t* title, const wchar_t* text,
                                                                  std::uint32_t hiddenColumns,
                                                                  std::uint32_t flags, void* reserved);
CryptUIDlgSelectCertificateFromStoreFn lookupCryptUIDlgSelectCertificateFromStore();

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
