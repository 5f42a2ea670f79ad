// The NSS database behind the certificate stores: where it is, opening it
// once, and PINs for its tokens.
#include "pdfsealmark/platform/nss_db.h"

#include <secmod.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>

#include "pdfsealmark/platform/nss_api.h"

namespace PDF_Sealmark {
namespace platform {
namespace nss {

namespace {

std::once_flag g_openOnce;
NSSInitContext* g_context = nullptr;
std::string g_dir;

// NSS asks here when a token needs its PIN.  A PIN the token refused is not
// offered again (retry), and nobody is asked: no configured PIN, no login.
char* pinCallback(PK11SlotInfo*, PRBool retry, void*) {
  std::string pin;
  if (retry || !configuredPin(pin)) return nullptr;
  return nssApi().PORT_Strdup(pin.c_str());
}

std::string chooseDirectory() {
  const char* chosen = std::getenv("SEALMARK_NSSDB");
  if (chosen != nullptr && *chosen != '\0') {
    std::string dir(chosen);
    if (dir.compare(0, 4, "sql:") == 0) dir.erase(0, 4);
    return dir;
  }
  const char* home = std::getenv("HOME");
  if (home == nullptr || *home == '\0') return std::string();
  // The tools make the per-user database's directories readable by the
  // owner only; so do we.
  const std::string pki = std::string(home) + "/.pki";
  ::mkdir(pki.c_str(), 0700);
  const std::string dir = pki + "/nssdb";
  ::mkdir(dir.c_str(), 0700);
  return dir;
}

void closeDatabase() {
  if (g_context != nullptr) nssApi().NSS_ShutdownContext(g_context);
  g_context = nullptr;
}

void openDatabase() {
  if (!loadNss()) return;
  const std::string dir = chooseDirectory();
  if (dir.empty()) return;
  // A host that opened NSS before us has set its own password callback,
  // whose argument conventions we don't know: it keeps it.
  const bool hostOpenedNss = nssApi().NSS_IsInitialized();
  NSSInitParameters params;
  std::memset(&params, 0, sizeof params);
  params.length = sizeof params;
  // No automatic root-certificate module: the trust anchors of "ROOT" are
  // the database's own and OpenSSL's, nothing else.  A PKCS#11 module the
  // host has loaded already is shared, not refused.
  g_context = nssApi().NSS_InitContext(("sql:" + dir).c_str(), "", "", SECMOD_DB, &params,
                                       NSS_INIT_NOROOTINIT | NSS_INIT_PK11RELOAD);
  if (g_context == nullptr) return;
  g_dir = dir;
  if (!hostOpenedNss) nssApi().PK11_SetPasswordFunc(pinCallback);
  // A database made just now has a key store without any password, which
  // can't hold keys yet: give it the empty one, as
  // "certutil -N --empty-password" does.
  if (PK11SlotInfo* slot = nssApi().PK11_GetInternalKeySlot()) {
    if (nssApi().PK11_NeedUserInit(slot)) nssApi().PK11_InitPin(slot, nullptr, "");
    nssApi().PK11_FreeSlot(slot);
  }
  std::atexit(closeDatabase);
}

}  // namespace

bool ready() {
  std::call_once(g_openOnce, openDatabase);
  return g_context != nullptr;
}

std::string databaseDir() { return g_dir; }

bool configuredPin(std::string& pin) {
  if (const char* file = std::getenv("SEALMARK_PIN_FILE"); file != nullptr && *file != '\0') {
    std::ifstream in(file);
    if (in && std::getline(in, pin)) {
      if (!pin.empty() && pin.back() == '\r') pin.pop_back();
      return true;
    }
  }
  const char* text = std::getenv("SEALMARK_PIN");
  if (text == nullptr) return false;
  pin = text;
  return true;
}

void logInTokens() {
  std::string pin;
  if (!ready() || !configuredPin(pin)) return;
  PK11SlotList* slots = nssApi().PK11_GetAllTokens(CKM_INVALID_MECHANISM, PR_FALSE, PR_FALSE, nullptr);
  if (slots == nullptr) return;
  for (PK11SlotListElement* e = nssApi().PK11_GetFirstSafe(slots); e != nullptr;
       e = nssApi().PK11_GetNextSafe(slots, e, PR_FALSE)) {
    if (nssApi().PK11_NeedLogin(e->slot) && !nssApi().PK11_IsLoggedIn(e->slot, nullptr))
      nssApi().PK11_CheckUserPassword(e->slot, pin.c_str());
  }
  nssApi().PK11_FreeSlotList(slots);
}

}  // namespace nss
}  // namespace platform
}  // namespace PDF_Sealmark
