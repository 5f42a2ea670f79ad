#include "pdfsealmark/platform/loader.h"

#include <dlfcn.h>
#include <limits.h>
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace PDF_Sealmark {
namespace platform {

namespace {
// An address inside this code's module.
const char ownModuleAnchor = 0;
}  // namespace

HMODULE LoadLibraryA(const char* name) {
  if (!name) return nullptr;
  return ::dlopen(("lib" + std::string(name) + ".so").c_str(), RTLD_NOW | RTLD_LOCAL);
}

FARPROC GetProcAddress(HMODULE module, const char* name) {
  return module && name ? ::dlsym(module, name) : nullptr;
}

HMODULE GetModuleHandleA(const char* name) {
  if (!name) return nullptr;
  if (std::strcmp(name, kOwnModuleName) == 0) return const_cast<char*>(&ownModuleAnchor);
  // Only a library that is already there: RTLD_NOLOAD, and the reference
  // that dlopen took is given back at once.
  void* handle = ::dlopen(name, RTLD_LAZY | RTLD_NOLOAD);
  if (!handle) return nullptr;
  link_map* map = nullptr;
  void* inside = ::dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 && map ? map->l_ld : nullptr;
  ::dlclose(handle);
  return inside;
}

std::uint32_t GetModuleFileNameA(HMODULE module, char* buffer, std::uint32_t size) {
  if (!buffer || size == 0) return 0;
  char path[PATH_MAX];
  link_map* map = nullptr;
  if (module) {
    Dl_info info{};
    if (::dladdr1(module, &info, reinterpret_cast<void**>(&map), RTLD_DL_LINKMAP) == 0 || !map) return 0;
  }
  if (map && map->l_name && map->l_name[0] != '\0') {
    // A library: the name it was loaded under, made absolute.
    if (!::realpath(map->l_name, path)) return 0;
  } else {
    // The executable, which the loader lists with an empty name.
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return 0;
    path[n] = '\0';
  }
  const std::size_t length = std::strlen(path);
  if (length + 1 > size) return 0;
  std::memcpy(buffer, path, length + 1);
  return static_cast<std::uint32_t>(length);
}

}  // namespace platform
}  // namespace PDF_Sealmark
