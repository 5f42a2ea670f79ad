#include "pdfsealmark/platform/nss_api.h"

#include <dlfcn.h>

namespace PDF_Sealmark {
namespace platform {

namespace {

struct Loaded {
  NssApi api;
  bool complete = false;
};

Loaded load() {
  Loaded loaded;
  // Never closed: NSS stays open until the process ends.  A host that links
  // NSS gets its own copy back, with its state.
  void* library = ::dlopen("libsmime3.so", RTLD_NOW | RTLD_LOCAL);
  if (!library) return loaded;
  bool complete = true;
#define PDFSEALMARK_NSS_BIND(name)                                                         \
  loaded.api.name = reinterpret_cast<decltype(loaded.api.name)>(::dlsym(library, #name)); \
  complete = complete && loaded.api.name != nullptr;
  PDFSEALMARK_NSS_FUNCTIONS(PDFSEALMARK_NSS_BIND)
#undef PDFSEALMARK_NSS_BIND
  loaded.complete = complete;
  return loaded;
}

const Loaded& loaded() {
  static const Loaded once = load();
  return once;
}

}  // namespace

bool loadNss() { return loaded().complete; }

const NssApi& nssApi() { return loaded().api; }

}  // namespace platform
}  // namespace PDF_Sealmark
