// Internal: NSS, opened the first time a certificate store or key container
// is used rather than linked.  Linking it made every process bind its six
// libraries at start-up (they are built to resolve every symbol at load),
// though only the store and key operations need them.
#ifndef PDFSEALMARK_PLATFORM_NSS_API_H
#define PDFSEALMARK_PLATFORM_NSS_API_H

#include <cert.h>
#include <certdb.h>
#include <keyhi.h>
#include <nss.h>
#include <p12.h>
#include <pk11pub.h>

namespace PDF_Sealmark {
namespace platform {

// Every NSS function the store and key layer calls.
#define PDFSEALMARK_NSS_FUNCTIONS(X)                                                                     \
  X(CERT_ChangeCertTrust) X(CERT_DecodeTrustString) X(CERT_DestroyCertList) X(CERT_DestroyCertificate) \
  X(CERT_FindCertByDERCert) X(CERT_GetCertTrust) X(CERT_GetDefaultCertDB) X(CERT_MakeCANickname)       \
  X(CERT_NewTempCertificate) X(NSS_InitContext) X(NSS_IsInitialized) X(NSS_ShutdownContext)           \
  X(PK11_CheckUserPassword) X(PK11_FindKeyByAnyCert) X(PK11_FreeSlot) X(PK11_FreeSlotList)             \
  X(PK11_GetAllTokens) X(PK11_GetFirstSafe) X(PK11_GetInternalKeySlot) X(PK11_GetNextSafe)            \
  X(PK11_ImportCert) X(PK11_InitPin) X(PK11_IsLoggedIn) X(PK11_ListCerts) X(PK11_NeedLogin)            \
  X(PK11_NeedUserInit) X(PK11_PrivDecryptPKCS1) X(PK11_SetPasswordFunc) X(PK11_Sign)                   \
  X(PK11_SignatureLen) X(PORT_Free) X(PORT_Strdup) X(PORT_ZAlloc) X(SECKEY_CopyPrivateKey)             \
  X(SECKEY_DestroyPrivateKey) X(SEC_DeletePermCertificate) X(SEC_PKCS12DecoderFinish)                 \
  X(SEC_PKCS12DecoderGetCerts) X(SEC_PKCS12DecoderImportBags) X(SEC_PKCS12DecoderStart)               \
  X(SEC_PKCS12DecoderUpdate) X(SEC_PKCS12DecoderValidateBags) X(SEC_PKCS12DecoderVerify)

struct NssApi {
#define PDFSEALMARK_NSS_ENTRY(name) decltype(&::name) name = nullptr;
  PDFSEALMARK_NSS_FUNCTIONS(PDFSEALMARK_NSS_ENTRY)
#undef PDFSEALMARK_NSS_ENTRY
};

// Loads libsmime3.so, and with it the NSS libraries it needs, once, from
// any thread.  False when it can't be loaded or lacks an entry point; the
// database then stays closed (nss::ready() says so).
bool loadNss();

// The entry points; only after loadNss() said true.
const NssApi& nssApi();

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
