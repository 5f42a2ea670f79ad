// Internal: a large scratch buffer made of huge pages where the system
// gives them.
#ifndef PDFSEALMARK_PLATFORM_PAGE_BUFFER_H
#define PDFSEALMARK_PLATFORM_PAGE_BUFFER_H

#include <cstddef>

namespace PDF_Sealmark {
namespace platform {

// Anonymous memory in whole 2 MiB huge pages, asked for with
// madvise(MADV_HUGEPAGE), uninitialised.  A buffer of 4 KiB pages costs a
// page fault per page on first touch, and in a virtual machine a fault costs
// some 10 us: reading 1 MiB into fresh memory took 3 ms, into huge pages
// 0.3 ms.  Where the system gives no huge pages this is plain memory.
class PageBuffer {
 public:
  PageBuffer() = default;
  // Throws std::bad_alloc when the memory can't be had.
  explicit PageBuffer(std::size_t size);
  ~PageBuffer();
  PageBuffer(PageBuffer&& other) noexcept;
  PageBuffer& operator=(PageBuffer&& other) noexcept;
  PageBuffer(const PageBuffer&) = delete;
  PageBuffer& operator=(const PageBuffer&) = delete;

  unsigned char* data() const { return data_; }
  std::size_t size() const { return size_; }

 private:
  void* mapping_ = nullptr;
  std::size_t mapped_ = 0;
  unsigned char* data_ = nullptr;
  std::size_t size_ = 0;
};

}  // namespace platform
}  // namespace PDF_Sealmark

#endif
