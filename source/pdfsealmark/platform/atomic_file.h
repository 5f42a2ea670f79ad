// Replacing a file whole: the library's outputs (signed PDFs, cached CRLs).
#ifndef PDFSEALMARK_PLATFORM_ATOMIC_FILE_H
#define PDFSEALMARK_PLATFORM_ATOMIC_FILE_H

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace le {
namespace platform {

// Writes the bytes as the file `path`, whole or not at all: into a new file
// beside it, created exclusively (so a link or file planted at that name is
// never written through), given `mode`, then renamed over `path` (so a link
// at `path` is replaced, not followed).  Readers see the old file or the new
// one.  False with the errno value in `err`; the new file is gone then.
bool replaceFile(const std::string& path, const unsigned char* data, std::size_t size, mode_t mode, int& err);

}  // namespace platform
}  // namespace le

#endif
