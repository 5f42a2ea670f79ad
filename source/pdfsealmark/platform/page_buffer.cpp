#include "pdfsealmark/platform/page_buffer.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>
#include <utility>

namespace PDF_Sealmark {
namespace platform {

namespace {
constexpr std::size_t kHugePage = 2u << 20;
}

PageBuffer::PageBuffer(std::size_t size) {
  const std::size_t rounded = (size + kHugePage - 1) / kHugePage * kHugePage;
  if (rounded < size || rounded > SIZE_MAX - kHugePage) throw std::bad_alloc();
  // One huge page more than asked, to start on a huge-page boundary.
  mapped_ = rounded + kHugePage;
  mapping_ = ::mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping_ == MAP_FAILED) {
    mapping_ = nullptr;
    throw std::bad_alloc();
  }
  const std::uintptr_t start = reinterpret_cast<std::uintptr_t>(mapping_);
  data_ = reinterpret_cast<unsigned char*>((start + kHugePage - 1) / kHugePage * kHugePage);
  size_ = rounded;
  ::madvise(data_, size_, MADV_HUGEPAGE);  // advice only: plain pages if refused
}

PageBuffer::~PageBuffer() {
  if (mapping_) ::munmap(mapping_, mapped_);
}

PageBuffer::PageBuffer(PageBuffer&& other) noexcept
    : mapping_(std::exchange(other.mapping_, nullptr)),
      mapped_(std::exchange(other.mapped_, 0)),
      data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)) {}

PageBuffer& PageBuffer::operator=(PageBuffer&& other) noexcept {
  if (this != &other) {
    if (mapping_) ::munmap(mapping_, mapped_);
    mapping_ = std::exchange(other.mapping_, nullptr);
    mapped_ = std::exchange(other.mapped_, 0);
    data_ = std::exchange(other.data_, nullptr);
    size_ = std::exchange(other.size_, 0);
  }
  return *this;
}

}  // namespace platform
}  // namespace PDF_Sealmark
