// Internal: the platform's loader, under the names of the Windows operations
// that the time-stamp clients call, so that they read like the algorithm.
//
//   - LoadLibraryA("asdtst") opens "libasdtst.so" through dlopen: no path,
//     so the platform's library search decides (LD_LIBRARY_PATH, the cache,
//     the default directories).  Nothing is ever unloaded.
//   - GetProcAddress is dlsym on a handle of LoadLibraryA.
//   - GetModuleHandleA and GetModuleFileNameA find where a module lies on
//     disk.  Their handles are addresses inside the module's image, not
//     handles of LoadLibraryA: don't mix the two.  The null handle stands
//     for the executable, read from /proc/self/exe.  kOwnModuleName names
//     the module that holds this code: libPDFSealmark27.so, or the program
//     itself when the code is linked into it statically.
#ifndef PDFSEALMARK_PLATFORM_LOADER_H
#define PDFSEALMARK_PLATFORM_LOADER_H

#include <cstdint>

namespace PDF_Sealmark {
namespace platform {

using HMODULE = void*;
using FARPROC = void*;

constexpr const char kOwnModuleName[] = "libPDFSealmark27.so";

// Null when "lib<name>.so" can't be loaded.
HMODULE LoadLibraryA(const char* name);
// Null when the module has no such symbol.
FARPROC GetProcAddress(HMODULE module, const char* name);
// Null name: null, the executable.  kOwnModuleName: this code's module.
// Another name: that library if it is loaded, else null.
HMODULE GetModuleHandleA(const char* name);
// The absolute path of the module (null: the executable) with its NUL into
// buffer; the length without the NUL, or 0 when it can't be had or doesn't
// fit.
std::uint32_t GetModuleFileNameA(HMODULE module, char* buffer, std::uint32_t size);

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
