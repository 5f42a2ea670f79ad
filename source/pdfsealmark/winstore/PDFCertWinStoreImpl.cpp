// The store operations: each opens the system store it needs, works, and
// closes it again on every way out.
#include "pdfsealmark/winstore/PDFCertWinStoreImpl.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"
#include "pdfsealmark/winstore/PDFCertWinImpl.h"

namespace PDF_Sealmark {

using namespace platform;

CryptUIDlgSelectCertificateFromStoreFn g_selectCertificateDialog = nullptr;
CryptUIDlgViewContextFn g_viewContextDialog = nullptr;

void loadDialogFunctions() {
  if (g_selectCertificateDialog != nullptr) return;
  g_selectCertificateDialog = lookupCryptUIDlgSelectCertificateFromStore();
  g_viewContextDialog = lookupCryptUIDlgViewContext();
}

namespace {

// A provider and a system store, released on every way out.
class OpenStore {
 public:
  OpenStore() = default;
  OpenStore(const OpenStore&) = delete;
  OpenStore& operator=(const OpenStore&) = delete;
  ~OpenStore() {
    if (store != nullptr) CertCloseStore(store, 0);
    if (provider != nullptr) CryptReleaseContext(provider, 0);
  }

  bool open(const char* name) {
    if (!CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_FULL, 0)) {
      if (provider != nullptr) CryptReleaseContext(provider, 0);
      provider = nullptr;
      if (!CryptAcquireContextA(&provider, nullptr, nullptr, PROV_RSA_FULL, CRYPT_NEWKEYSET)) return false;
    }
    store = CertOpenSystemStoreA(provider, name);
    return store != nullptr;
  }

  HCRYPTPROV provider = nullptr;
  HCERTSTORE store = nullptr;
};

// A context that this function holds, freed on every way out.
struct HeldContext {
  PCCERT_CONTEXT context = nullptr;
  HeldContext() = default;
  HeldContext(const HeldContext&) = delete;
  HeldContext& operator=(const HeldContext&) = delete;
  ~HeldContext() { CertFreeCertificateContext(context); }
};

// The hash text as bytes, the way string_to_hex reads it.
bool hashBytes(const std::string& text, std::vector<unsigned char>& bytes) {
  long length = 0;
  unsigned char* buffer = string_to_hex(text.c_str(), &length);
  if (buffer == nullptr) return false;
  bytes.assign(buffer, buffer + length);
  OPENSSL_free(buffer);
  return !bytes.empty();
}

PCCERT_CONTEXT findByHash(HCERTSTORE store, std::vector<unsigned char>& hash) {
  CRYPT_HASH_BLOB blob{static_cast<std::uint32_t>(hash.size()), hash.data()};
  return CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH,
                                    &blob, nullptr);
}

PCCERT_CONTEXT contextOf(X509* cert) {
  ossl::UniquePtr<BIO> mem(BIO_new(BIO_s_mem()));
  if (cert == nullptr || !mem || i2d_X509_bio(mem.get(), cert) != 1) return nullptr;
  BUF_MEM* der = nullptr;
  BIO_get_mem_ptr(mem.get(), &der);
  if (der == nullptr) return nullptr;
  return CertCreateCertificateContext(X509_ASN_ENCODING, reinterpret_cast<const unsigned char*>(der->data),
                                      static_cast<std::uint32_t>(der->length));
}

}  // namespace

PDFCertWinStoreImpl::PDFCertWinStoreImpl() { loadDialogFunctions(); }

const char* PDFCertWinStoreImpl::storeName(int store) {
  switch (store) {
    case 1:
      return "ADDRESSBOOK";
    case 2:
      return "ROOT";
    default:
      return "MY";
  }
}

bool PDFCertWinStoreImpl::getByHash(PDFCert& cert, const std::string& hash, int store) {
  if (!cert.impl || !cert.winImpl) return false;
  OpenStore s;
  if (!s.open(storeName(store))) return false;
  std::vector<unsigned char> bytes;
  if (!hashBytes(hash, bytes)) return false;
  HeldContext found;
  found.context = findByHash(s.store, bytes);
  if (found.context == nullptr) return false;
  return cert.winImpl->setWinCert(cert.impl.get(), found.context, store == 0);
}

int PDFCertWinStoreImpl::getByName(std::vector<PDFCert>& certs, const std::wstring& name, int store) {
  certs.clear();
  OpenStore s;
  if (!s.open(storeName(store))) return 0;
  const std::uint32_t findType = name.empty() ? CERT_FIND_ANY : CERT_FIND_SUBJECT_STR_W;
  const void* para = name.empty() ? nullptr : name.c_str();
  PCCERT_CONTEXT context = nullptr;
  while ((context = CertFindCertificateInStore(s.store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0, findType,
                                               para, context)) != nullptr) {
    PDFCert cert;
    // A certificate that couldn't be taken in stands in the list as well.
    if (cert.impl && cert.winImpl) cert.winImpl->setWinCert(cert.impl.get(), context, store == 0);
    certs.push_back(cert);
  }
  return static_cast<int>(certs.size());
}

bool PDFCertWinStoreImpl::getByDlg(PDFCert& cert, const std::wstring& title, const std::wstring& text,
                                   int hiddenColumns, void* parent, int store) {
  if (!cert.impl || !cert.winImpl || g_selectCertificateDialog == nullptr) return false;
  OpenStore s;
  if (!s.open(storeName(store))) return false;
  HeldContext chosen;
  chosen.context = g_selectCertificateDialog(s.store, parent, title.empty() ? nullptr : title.c_str(),
                                             text.empty() ? nullptr : text.c_str(),
                                             static_cast<std::uint32_t>(hiddenColumns), 0, nullptr);
  if (chosen.context == nullptr) return false;
  return cert.winImpl->setWinCert(cert.impl.get(), chosen.context, store == 0);
}

bool PDFCertWinStoreImpl::addPfx(std::istream& in, const std::wstring& password, PDFCert& cert) {
  if (!cert.impl || !cert.winImpl) return false;
  CRYPT_DATA_BLOB blob{0, nullptr};
  try {
    in.clear();
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    in.seekg(0, std::ios::beg);
    if (size <= 0 || !in || size > static_cast<std::streamoff>(UINT32_MAX)) return false;
    blob.cbData = static_cast<std::uint32_t>(size);
    blob.pbData = static_cast<unsigned char*>(CryptMemAlloc(blob.cbData));
    if (blob.pbData == nullptr) return false;
    in.read(reinterpret_cast<char*>(blob.pbData), size);
    if (in.gcount() != size) {
      CryptMemFree(blob.pbData);
      return false;
    }
  } catch (...) {
    // Whatever the caller's stream throws ends the import.
    CryptMemFree(blob.pbData);
    return false;
  }
  HCERTSTORE pfx = PFXImportCertStore(&blob, password.c_str(), CRYPT_EXPORTABLE);
  CryptMemFree(blob.pbData);
  if (pfx == nullptr) return false;
  OpenStore my;
  bool result = false;
  if (my.open("MY")) {
    PCCERT_CONTEXT context = nullptr;
    while ((context = CertEnumCertificatesInStore(pfx, context)) != nullptr) {
      if (!CertAddCertificateContextToStore(my.store, context, CERT_STORE_ADD_ALWAYS, nullptr)) break;
      result = cert.winImpl->setWinCert(cert.impl.get(), context, true);
      if (!result) break;
    }
    CertFreeCertificateContext(context);
  }
  CertCloseStore(pfx, 0);
  return result;
}

bool PDFCertWinStoreImpl::deleteByHash(const PDFCert& cert, const char* name) {
  std::string hex;
  if (!cert.getHashHex(hex) || hex.empty()) return false;
  OpenStore s;
  if (!s.open(name)) return false;
  std::vector<unsigned char> bytes;
  if (!hashBytes(hex, bytes)) return false;
  HeldContext found;
  found.context = findByHash(s.store, bytes);
  if (found.context == nullptr) return false;
  return CertDeleteCertificateFromStore(CertDuplicateCertificateContext(found.context));
}

bool PDFCertWinStoreImpl::delCert(const PDFCert& cert) { return deleteByHash(cert, "MY"); }

int PDFCertWinStoreImpl::isTrusted(X509* cert, int store) {
  if (cert == nullptr) return 0;
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(cert, EVP_sha1(), digest, &length) != 1 || length != 20) return 0;
  PDFCert found;
  return getByHash(found, bytesToHex(digest, static_cast<int>(length), false), store) ? 1 : 0;
}

bool PDFCertWinStoreImpl::findInRootStore(PCCERT_CONTEXT context) {
  if (context == nullptr) return false;
  OpenStore root;
  if (!root.open("ROOT")) return false;
  HeldContext found;
  found.context = CertFindCertificateInStore(root.store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                             CERT_FIND_EXISTING, context, nullptr);
  return found.context != nullptr;
}

int PDFCertWinStoreImpl::getCertChain(std::vector<PDFCert>& certs, X509* cert) {
  if (cert == nullptr) return 0;
  HeldContext context;
  context.context = contextOf(cert);
  if (context.context == nullptr) return 0;
  CERT_CHAIN_ENGINE_CONFIG config{};
  config.cbSize = sizeof config;
  config.dwFlags = CERT_CHAIN_CACHE_END_CERT;
  HCERTCHAINENGINE engine = nullptr;
  if (!CertCreateCertificateChainEngine(&config, &engine)) return 0;
  CERT_CHAIN_PARA para{};
  para.cbSize = sizeof para;
  PCCERT_CHAIN_CONTEXT chain = nullptr;
  if (CertGetCertificateChain(engine, context.context, nullptr, nullptr, &para,
                              CERT_CHAIN_REVOCATION_CHECK_END_CERT | CERT_CHAIN_REVOCATION_CHECK_CHAIN |
                                  CERT_CHAIN_RETURN_LOWER_QUALITY_CONTEXTS,
                              nullptr, &chain)) {
    for (std::uint32_t i = 0; i < chain->cChain; ++i) {
      const CERT_SIMPLE_CHAIN* simple = chain->rgpChain[i];
      for (std::uint32_t j = 0; j < simple->cElement; ++j) {
        PDFCert element;
        if (element.impl && element.winImpl) {
          element.winImpl->setWinCert(element.impl.get(), simple->rgpElement[j]->pCertContext, false);
        }
        certs.push_back(element);
      }
    }
    CertFreeCertificateChain(chain);
  }
  CertFreeCertificateChainEngine(engine);
  if (certs.empty()) return 0;

  // Each element must be signed by the key of the next, the last by its
  // own; the top decides between 1 and 2.
  int result = 0;
  for (std::size_t i = 0; i < certs.size(); ++i) {
    X509* element = reinterpret_cast<X509*>(certs[i].getX509());
    const bool last = i + 1 == certs.size();
    X509* signer = last ? element : reinterpret_cast<X509*>(certs[i + 1].getX509());
    if (last) result = findInRootStore(certs[i].winImpl ? certs[i].winImpl->getContext() : nullptr) ? 2 : 1;
    EVP_PKEY* key = signer != nullptr ? X509_get0_pubkey(signer) : nullptr;
    if (element == nullptr || key == nullptr || X509_verify(element, key) <= 0) {
      result = 0;
      break;
    }
  }
  return result;
}

bool PDFCertWinStoreImpl::addToStore(const PDFCert& cert, int store) {
  HeldContext context;
  context.context = contextOf(reinterpret_cast<X509*>(cert.getX509()));
  if (context.context == nullptr) return false;
  OpenStore s;
  if (!s.open(storeName(store))) return false;
  return CertAddCertificateContextToStore(s.store, context.context, CERT_STORE_ADD_ALWAYS, nullptr);
}

bool PDFCertWinStoreImpl::delFromStore(const PDFCert& cert, int store) {
  return deleteByHash(cert, storeName(store));
}

}  // namespace PDF_Sealmark
