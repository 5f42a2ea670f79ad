// The system stores over the NSS database, PFX import through NSS's PKCS#12
// decoder, and a chain engine over the database and the system anchors.
#include <cert.h>
#include <certdb.h>
#include <dirent.h>
#include <keyhi.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <p12.h>
#include <pk11pub.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/platform/cert_store.h"
#include "pdfsealmark/platform/nss_api.h"
#include "pdfsealmark/platform/nss_db.h"

namespace PDF_Sealmark {
namespace platform {

struct CertStore {
  std::string name;                   // empty for the store of a PFX file
  std::vector<PCCERT_CONTEXT> certs;  // one reference each
};

struct ChainEngine {
  std::uint32_t flags = 0;
};

namespace {

using Der = std::vector<unsigned char>;

PCCERT_CONTEXT makeContext(const unsigned char* der, std::size_t length, const std::string& store) {
  PCCERT_CONTEXT context =
      CertCreateCertificateContext(X509_ASN_ENCODING, der, static_cast<std::uint32_t>(length));
  if (context != nullptr) const_cast<CertContext*>(context)->store = store;
  return context;
}

SECItem itemOf(const Der& der) {
  SECItem item;
  item.type = siBuffer;
  item.data = const_cast<unsigned char*>(der.data());
  item.len = static_cast<unsigned int>(der.size());
  return item;
}

struct DatabaseCert {
  Der der;
  bool hasKey = false;
  bool caTrusted = false;
};

// Every certificate of the database's tokens, once.  Whether a key goes
// with it is asked only when wanted: it means a look into each token.
std::vector<DatabaseCert> databaseCerts(bool askForKeys) {
  std::vector<DatabaseCert> out;
  if (askForKeys) nss::logInTokens();
  CERTCertList* list = nssApi().PK11_ListCerts(PK11CertListUnique, nullptr);
  if (list == nullptr) return out;
  for (CERTCertListNode* node = CERT_LIST_HEAD(list); !CERT_LIST_END(node, list);
       node = CERT_LIST_NEXT(node)) {
    CERTCertificate* cert = node->cert;
    DatabaseCert entry;
    entry.der.assign(cert->derCert.data, cert->derCert.data + cert->derCert.len);
    CERTCertTrust trust;
    if (nssApi().CERT_GetCertTrust(cert, &trust) == SECSuccess) {
      entry.caTrusted =
          ((trust.sslFlags | trust.emailFlags | trust.objectSigningFlags) & CERTDB_TRUSTED_CA) != 0;
    }
    if (askForKeys) {
      if (SECKEYPrivateKey* key = nssApi().PK11_FindKeyByAnyCert(cert, nullptr)) {
        entry.hasKey = true;
        nssApi().SECKEY_DestroyPrivateKey(key);
      }
    }
    out.push_back(std::move(entry));
  }
  nssApi().CERT_DestroyCertList(list);
  return out;
}

void readPemCerts(const std::string& path, std::set<Der>& seen, std::vector<Der>& out) {
  // Reading stops at the end of the file with an error in OpenSSL's queue;
  // the caller's queue is left as it was.
  ERR_set_mark();
  ossl::UniquePtr<BIO> in(BIO_new_file(path.c_str(), "r"));
  while (in) {
    ossl::UniquePtr<X509> cert(PEM_read_bio_X509(in.get(), nullptr, nullptr, nullptr));
    if (!cert) break;
    unsigned char* der = nullptr;
    const int length = i2d_X509(cert.get(), &der);
    if (length > 0) {
      Der bytes(der, der + length);
      if (seen.insert(bytes).second) out.push_back(std::move(bytes));
    }
    OPENSSL_free(der);
  }
  ERR_pop_to_mark();
}

// OpenSSL's name for a file of a CA directory: the subject's hash, a dot
// and a number ("5ad8a5d6.0").  Only those are read, as OpenSSL does.
bool isHashName(const char* name) {
  int i = 0;
  for (; i < 8; ++i) {
    if (std::strchr("0123456789abcdef", name[i]) == nullptr || name[i] == '\0') return false;
  }
  if (name[i++] != '.' || name[i] == '\0') return false;
  for (; name[i] != '\0'; ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  return true;
}

// The system's trust anchors: OpenSSL's default CA file, then the
// certificates of its default CA directories, each once.
std::vector<Der> readSystemAnchors() {
  std::vector<Der> out;
  std::set<Der> seen;
  const char* file = std::getenv(X509_get_default_cert_file_env());
  readPemCerts(file != nullptr ? file : X509_get_default_cert_file(), seen, out);
  const char* dirs = std::getenv(X509_get_default_cert_dir_env());
  std::string list = dirs != nullptr ? dirs : X509_get_default_cert_dir();
  std::size_t start = 0;
  while (start <= list.size()) {
    const std::size_t end = std::min(list.find(':', start), list.size());
    const std::string dir = list.substr(start, end - start);
    start = end + 1;
    if (dir.empty()) continue;
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) continue;
    std::vector<std::string> names;
    while (const dirent* e = ::readdir(d)) {
      if (isHashName(e->d_name)) names.push_back(e->d_name);
    }
    ::closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names) readPemCerts(dir + "/" + name, seen, out);
  }
  return out;
}

// The anchors, read once per process and setting of SSL_CERT_FILE and
// SSL_CERT_DIR: the system's bundle is some 150 files, and one validation
// opens the store ROOT several times.
std::shared_ptr<const std::vector<Der>> systemAnchors() {
  static std::mutex mutex;
  static std::string readFor;
  static std::shared_ptr<const std::vector<Der>> anchors;
  const char* file = std::getenv(X509_get_default_cert_file_env());
  const char* dirs = std::getenv(X509_get_default_cert_dir_env());
  const std::string setting = std::string(file ? file : "\n") + '\0' + (dirs ? dirs : "\n");
  std::lock_guard<std::mutex> lock(mutex);
  if (!anchors || readFor != setting) {
    anchors = std::make_shared<const std::vector<Der>>(readSystemAnchors());
    readFor = setting;
  }
  return anchors;
}

bool sha1Matches(PCCERT_CONTEXT context, const CRYPT_HASH_BLOB* hash) {
  if (hash == nullptr || hash->pbData == nullptr || hash->cbData != 20) return false;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  return EVP_Digest(context->encoded.data(), context->encoded.size(), digest, &length, EVP_sha1(), nullptr) ==
             1 &&
         length == 20 && std::memcmp(digest, hash->pbData, 20) == 0;
}

// The subject as CryptoAPI's simple name string: the values, in order,
// joined by ", ".
icu::UnicodeString subjectText(PCCERT_CONTEXT context) {
  const unsigned char* p = context->encoded.data();
  ossl::UniquePtr<X509> cert(d2i_X509(nullptr, &p, static_cast<long>(context->encoded.size())));
  std::string text;
  const X509_NAME* name = cert ? X509_get_subject_name(cert.get()) : nullptr;
  for (int i = 0; name != nullptr && i < X509_NAME_entry_count(name); ++i) {
    unsigned char* utf8 = nullptr;
    const int length = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i)));
    if (length < 0) continue;
    if (!text.empty()) text += ", ";
    text.append(reinterpret_cast<const char*>(utf8), static_cast<std::size_t>(length));
    OPENSSL_free(utf8);
  }
  return icu::UnicodeString::fromUTF8(text);
}

icu::UnicodeString wideText(const wchar_t* text) {
  icu::UnicodeString out;
  for (; text != nullptr && *text != L'\0'; ++text) out.append(static_cast<UChar32>(*text));
  return out;
}

bool matches(PCCERT_CONTEXT context, std::uint32_t findType, const void* para) {
  switch (findType) {
    case CERT_FIND_ANY:
      return true;
    case CERT_FIND_SHA1_HASH:
      return sha1Matches(context, static_cast<const CRYPT_HASH_BLOB*>(para));
    case CERT_FIND_EXISTING:
      return para != nullptr && static_cast<PCCERT_CONTEXT>(para)->encoded == context->encoded;
    case CERT_FIND_SUBJECT_STR_W: {
      icu::UnicodeString wanted = wideText(static_cast<const wchar_t*>(para));
      return subjectText(context).foldCase().indexOf(wanted.foldCase()) >= 0;
    }
    default:
      return false;
  }
}

bool setTrust(CERTCertificate* cert, const char* flags) {
  CERTCertTrust trust;
  return nssApi().CERT_DecodeTrustString(&trust, flags) == SECSuccess &&
         nssApi().CERT_ChangeCertTrust(nssApi().CERT_GetDefaultCertDB(), cert, &trust) == SECSuccess;
}

// The certificate in the database, with the trust flags of the store.
bool placeInDatabase(const Der& der, const std::string& store) {
  SECItem item = itemOf(der);
  CERTCertificate* cert = nssApi().CERT_NewTempCertificate(nssApi().CERT_GetDefaultCertDB(), &item, nullptr, PR_FALSE, PR_TRUE);
  if (cert == nullptr) return false;
  bool ok = true;
  if (!cert->isperm) {
    PK11SlotInfo* slot = nssApi().PK11_GetInternalKeySlot();
    char* nickname = nssApi().CERT_MakeCANickname(cert);
    ok = slot != nullptr && nickname != nullptr &&
         nssApi().PK11_ImportCert(slot, cert, CK_INVALID_HANDLE, nickname, PR_FALSE) == SECSuccess;
    if (nickname != nullptr) nssApi().PORT_Free(nickname);
    if (slot != nullptr) nssApi().PK11_FreeSlot(slot);
  }
  if (ok && store == "ROOT") ok = setTrust(cert, "C,C,C");
  if (ok && store == "ADDRESSBOOK") ok = setTrust(cert, ",,");
  nssApi().CERT_DestroyCertificate(cert);
  return ok;
}

// A PKCS#12 password as the decoder wants it: a BMPString, big-endian
// UTF-16 with its two-byte terminator (RFC 7292, appendix B.1).
std::vector<unsigned char> bmpPassword(const wchar_t* password) {
  std::vector<unsigned char> out;
  auto unit = [&](std::uint32_t u) {
    out.push_back(static_cast<unsigned char>(u >> 8));
    out.push_back(static_cast<unsigned char>(u & 0xff));
  };
  for (; password != nullptr && *password != L'\0'; ++password) {
    const std::uint32_t c = static_cast<std::uint32_t>(*password);
    if (c >= 0x10000 && c <= 0x10FFFF) {
      unit(0xD800 + ((c - 0x10000) >> 10));
      unit(0xDC00 + ((c - 0x10000) & 0x3ff));
    } else {
      unit(c & 0xffff);
    }
  }
  unit(0);
  return out;
}

// A file's certificate that has no nickname, or one that another subject
// uses, gets one made from its own subject, as the NSS tools do.
SECItem* nicknameFor(SECItem* oldNickname, PRBool* cancel, void* arg) {
  auto* cert = static_cast<CERTCertificate*>(arg);
  if (cancel == nullptr || cert == nullptr) return nullptr;
  char* nickname = nssApi().CERT_MakeCANickname(cert);
  if (nickname == nullptr) return nullptr;
  const std::size_t length = std::strlen(nickname);
  if (oldNickname != nullptr && oldNickname->data != nullptr && oldNickname->len == length &&
      std::memcmp(oldNickname->data, nickname, length) == 0) {
    nssApi().PORT_Free(nickname);  // the same name again would collide again
    return nullptr;
  }
  SECItem* item = static_cast<SECItem*>(nssApi().PORT_ZAlloc(sizeof(SECItem)));
  if (item == nullptr) {
    nssApi().PORT_Free(nickname);
    return nullptr;
  }
  item->data = reinterpret_cast<unsigned char*>(nickname);
  item->len = static_cast<unsigned int>(length);
  return item;
}

// NSS's decoder loses memory inside its nested PKCS#7 decoder on some
// malformed files, and what a file holds is anybody's until its MAC holds.
// So the decoder only sees files whose integrity OpenSSL has checked with
// the same password first; NSS takes no file without a MAC anyway.
bool integrityHolds(const CRYPT_DATA_BLOB* pfx, const wchar_t* password) {
  std::string utf8;
  wideText(password).toUTF8String(utf8);
  ERR_set_mark();
  const unsigned char* p = pfx->pbData;
  ossl::UniquePtr<PKCS12> p12(d2i_PKCS12(nullptr, &p, static_cast<long>(pfx->cbData)));
  const bool holds = p12 && PKCS12_mac_present(p12.get()) == 1 &&
                     PKCS12_verify_mac(p12.get(), utf8.c_str(), static_cast<int>(utf8.size())) == 1;
  ERR_pop_to_mark();
  return holds;
}

}  // namespace

HCERTSTORE CertOpenSystemStoreA(HCRYPTPROV, const char* name) {
  if (name == nullptr || !nss::ready()) return nullptr;
  const std::string which(name);
  if (which != "MY" && which != "ADDRESSBOOK" && which != "ROOT") return nullptr;
  auto* store = new (std::nothrow) CertStore;
  if (store == nullptr) return nullptr;
  store->name = which;
  std::set<Der> listed;
  for (const DatabaseCert& cert : databaseCerts(which != "ROOT")) {
    const bool belongs = which == "MY"            ? cert.hasKey
                         : which == "ADDRESSBOOK" ? !cert.hasKey && !cert.caTrusted
                                                  : cert.caTrusted;
    if (!belongs) continue;
    if (PCCERT_CONTEXT context = makeContext(cert.der.data(), cert.der.size(), which)) {
      store->certs.push_back(context);
      listed.insert(cert.der);
    }
  }
  if (which == "ROOT") {
    const auto anchors = systemAnchors();
    for (const Der& der : *anchors) {
      if (listed.count(der) != 0) continue;
      // A system anchor stands in no store of the database: it can be
      // found and read, not deleted.
      if (PCCERT_CONTEXT context = makeContext(der.data(), der.size(), std::string())) {
        store->certs.push_back(context);
      }
    }
  }
  return store;
}

bool CertCloseStore(HCERTSTORE store, std::uint32_t) {
  if (store == nullptr) return false;
  for (PCCERT_CONTEXT context : store->certs) CertFreeCertificateContext(context);
  delete store;
  return true;
}

PCCERT_CONTEXT CertFindCertificateInStore(HCERTSTORE store, std::uint32_t, std::uint32_t,
                                          std::uint32_t findType, const void* para, PCCERT_CONTEXT previous) {
  if (store == nullptr) {
    CertFreeCertificateContext(previous);
    return nullptr;
  }
  std::size_t next = 0;
  if (previous != nullptr) {
    next = store->certs.size();
    for (std::size_t i = 0; i < store->certs.size(); ++i) {
      if (store->certs[i] == previous) next = i + 1;
    }
    CertFreeCertificateContext(previous);
  }
  for (; next < store->certs.size(); ++next) {
    if (matches(store->certs[next], findType, para))
      return CertDuplicateCertificateContext(store->certs[next]);
  }
  return nullptr;
}

PCCERT_CONTEXT CertEnumCertificatesInStore(HCERTSTORE store, PCCERT_CONTEXT previous) {
  return CertFindCertificateInStore(store, X509_ASN_ENCODING, 0, CERT_FIND_ANY, nullptr, previous);
}

bool CertAddCertificateContextToStore(HCERTSTORE store, PCCERT_CONTEXT context, std::uint32_t,
                                      PCCERT_CONTEXT* added) {
  if (added != nullptr) *added = nullptr;
  if (store == nullptr || store->name.empty() || context == nullptr || !nss::ready()) return false;
  nss::logInTokens();
  if (!placeInDatabase(context->encoded, store->name)) return false;
  PCCERT_CONTEXT entry = makeContext(context->encoded.data(), context->encoded.size(), store->name);
  if (entry == nullptr) return false;
  store->certs.push_back(entry);
  if (added != nullptr) *added = CertDuplicateCertificateContext(entry);
  return true;
}

bool CertDeleteCertificateFromStore(PCCERT_CONTEXT context) {
  bool deleted = false;
  if (context != nullptr && !context->store.empty() && nss::ready()) {
    nss::logInTokens();
    SECItem item = itemOf(context->encoded);
    if (CERTCertificate* cert = nssApi().CERT_FindCertByDERCert(nssApi().CERT_GetDefaultCertDB(), &item)) {
      deleted = cert->isperm && nssApi().SEC_DeletePermCertificate(cert) == SECSuccess;
      nssApi().CERT_DestroyCertificate(cert);
    }
  }
  CertFreeCertificateContext(context);
  return deleted;
}

void* CryptMemAlloc(std::uint32_t size) { return std::malloc(size == 0 ? 1 : size); }
void CryptMemFree(void* memory) { std::free(memory); }

HCERTSTORE PFXImportCertStore(const CRYPT_DATA_BLOB* pfx, const wchar_t* password, std::uint32_t) {
  if (pfx == nullptr || pfx->pbData == nullptr || pfx->cbData == 0 || !nss::ready()) return nullptr;
  if (!integrityHolds(pfx, password)) return nullptr;
  nss::logInTokens();
  PK11SlotInfo* slot = nssApi().PK11_GetInternalKeySlot();
  if (slot == nullptr) return nullptr;
  std::vector<unsigned char> bmp = bmpPassword(password);
  SECItem passwordItem{siBuffer, bmp.data(), static_cast<unsigned int>(bmp.size())};
  SEC_PKCS12DecoderContext* decoder =
      nssApi().SEC_PKCS12DecoderStart(&passwordItem, slot, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
  CertStore* store = nullptr;
  // The integrity check comes before anything goes into the database, so
  // a wrong password leaves it as it was.
  if (decoder != nullptr && nssApi().SEC_PKCS12DecoderUpdate(decoder, pfx->pbData, pfx->cbData) == SECSuccess &&
      nssApi().SEC_PKCS12DecoderVerify(decoder) == SECSuccess &&
      nssApi().SEC_PKCS12DecoderValidateBags(decoder, nicknameFor) == SECSuccess &&
      nssApi().SEC_PKCS12DecoderImportBags(decoder) == SECSuccess) {
    store = new (std::nothrow) CertStore;
    CERTCertList* certs = store != nullptr ? nssApi().SEC_PKCS12DecoderGetCerts(decoder) : nullptr;
    for (CERTCertListNode* node = certs ? CERT_LIST_HEAD(certs) : nullptr;
         node && !CERT_LIST_END(node, certs); node = CERT_LIST_NEXT(node)) {
      if (PCCERT_CONTEXT context = makeContext(node->cert->derCert.data, node->cert->derCert.len, "")) {
        store->certs.push_back(context);
      }
    }
    if (certs != nullptr) nssApi().CERT_DestroyCertList(certs);
  }
  if (decoder != nullptr) nssApi().SEC_PKCS12DecoderFinish(decoder);
  nssApi().PK11_FreeSlot(slot);
  return store;
}

bool CertCreateCertificateChainEngine(const CERT_CHAIN_ENGINE_CONFIG* config, HCERTCHAINENGINE* engine) {
  if (engine == nullptr) return false;
  *engine = nullptr;
  if (config == nullptr || !nss::ready()) return false;
  *engine = new (std::nothrow) ChainEngine;
  if (*engine != nullptr) (*engine)->flags = config->dwFlags;
  return *engine != nullptr;
}

void CertFreeCertificateChainEngine(HCERTCHAINENGINE engine) { delete engine; }

namespace {

// A chain context with the storage its pointers point into.
struct OwnedChain : CERT_CHAIN_CONTEXT {
  CERT_SIMPLE_CHAIN simple{};
  CERT_SIMPLE_CHAIN* simplePointer = nullptr;
  std::vector<CERT_CHAIN_ELEMENT> elements;
  std::vector<CERT_CHAIN_ELEMENT*> elementPointers;
};

ossl::UniquePtr<X509> decode(const Der& der) {
  const unsigned char* p = der.data();
  return ossl::UniquePtr<X509>(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
}

// Every problem of the path is passed over: the engine is asked for the
// certificates, not for a verdict.
int acceptAll(int, X509_STORE_CTX*) { return 1; }

}  // namespace

bool CertGetCertificateChain(HCERTCHAINENGINE engine, PCCERT_CONTEXT context, const void*, HCERTSTORE,
                             const CERT_CHAIN_PARA*, std::uint32_t, void*, PCCERT_CHAIN_CONTEXT* chain) {
  if (chain == nullptr) return false;
  *chain = nullptr;
  if (engine == nullptr || context == nullptr) return false;
  ossl::UniquePtr<X509> leaf = decode(context->encoded);
  ossl::UniquePtr<X509_STORE> anchors(X509_STORE_new());
  ossl::UniquePtr<STACK_OF(X509)> others(sk_X509_new_null());
  if (!leaf || !anchors || !others) return false;
  for (const DatabaseCert& cert : databaseCerts(false)) {
    ossl::UniquePtr<X509> x509 = decode(cert.der);
    if (!x509) continue;
    if (cert.caTrusted) X509_STORE_add_cert(anchors.get(), x509.get());
    if (sk_X509_push(others.get(), x509.get()) > 0) x509.release();
  }
  const auto system = systemAnchors();
  for (const Der& der : *system) {
    if (ossl::UniquePtr<X509> x509 = decode(der)) X509_STORE_add_cert(anchors.get(), x509.get());
  }
  X509_STORE_CTX* storeContext = X509_STORE_CTX_new();
  if (storeContext == nullptr) return false;
  std::vector<Der> path;
  if (X509_STORE_CTX_init(storeContext, anchors.get(), leaf.get(), others.get()) == 1) {
    X509_STORE_CTX_set_verify_cb(storeContext, acceptAll);
    X509_STORE_CTX_set_flags(storeContext, X509_V_FLAG_NO_CHECK_TIME);
    X509_verify_cert(storeContext);
    STACK_OF(X509)* built = X509_STORE_CTX_get0_chain(storeContext);
    for (int i = 0; built != nullptr && i < sk_X509_num(built); ++i) {
      unsigned char* der = nullptr;
      const int length = i2d_X509(sk_X509_value(built, i), &der);
      if (length > 0) path.emplace_back(der, der + length);
      OPENSSL_free(der);
    }
  }
  X509_STORE_CTX_free(storeContext);
  if (path.empty()) path.push_back(context->encoded);

  auto* owned = new (std::nothrow) OwnedChain;
  if (owned == nullptr) return false;
  owned->elements.resize(path.size());
  for (std::size_t i = 0; i < path.size(); ++i) {
    owned->elements[i].cbSize = sizeof(CERT_CHAIN_ELEMENT);
    owned->elements[i].pCertContext = makeContext(path[i].data(), path[i].size(), std::string());
    owned->elementPointers.push_back(&owned->elements[i]);
  }
  owned->simple.cbSize = sizeof(CERT_SIMPLE_CHAIN);
  owned->simple.cElement = static_cast<std::uint32_t>(path.size());
  owned->simple.rgpElement = owned->elementPointers.data();
  owned->simplePointer = &owned->simple;
  owned->cbSize = sizeof(CERT_CHAIN_CONTEXT);
  owned->cChain = 1;
  owned->rgpChain = &owned->simplePointer;
  *chain = owned;
  return true;
}

void CertFreeCertificateChain(PCCERT_CHAIN_CONTEXT chain) {
  const auto* owned = static_cast<const OwnedChain*>(chain);
  if (owned == nullptr) return;
  for (const CERT_CHAIN_ELEMENT& element : owned->elements) CertFreeCertificateContext(element.pCertContext);
  delete owned;
}

CryptUIDlgSelectCertificateFromStoreFn lookupCryptUIDlgSelectCertificateFromStore() { return nullptr; }

}  // namespace platform
}  // namespace PDF_Sealmark
