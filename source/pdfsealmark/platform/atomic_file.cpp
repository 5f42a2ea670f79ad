#include "pdfsealmark/platform/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace le {
namespace platform {

bool replaceFile(const std::string& path, const unsigned char* data, std::size_t size, mode_t mode,
                 int& err) {
  const std::size_t slash = path.rfind('/');
  const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temp = dir + "." + base + ".XXXXXX";
  // mkostemp creates the name with O_CREAT|O_EXCL, mode 0600.
  const int fd = ::mkostemp(&temp[0], O_CLOEXEC);
  if (fd < 0) {
    err = errno;
    return false;
  }
  bool ok = ::fchmod(fd, mode) == 0;
  for (std::size_t done = 0; ok && done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<std::size_t>(n);
  }
  err = ok ? 0 : errno;
  if (::close(fd) != 0 && ok) {
    ok = false;
    err = errno;
  }
  if (ok && ::rename(temp.c_str(), path.c_str()) != 0) {
    ok = false;
    err = errno;
  }
  if (!ok) {
    ::unlink(temp.c_str());
    if (err == 0) err = EIO;
  }
  return ok;
}

}  // namespace platform
}  // namespace le
