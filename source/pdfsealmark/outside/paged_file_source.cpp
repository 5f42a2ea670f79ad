#include "pdfsealmark/outside/paged_file_source.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace PDF_Vellum {

namespace {

[[noreturn]] void fail(const std::string& name, const char* what, int error) {
  throw std::runtime_error(name + ": " + what + ": " + std::strerror(error));
}

}  // namespace

PagedFileSource::PagedFileSource(const std::string& path) : name_(path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd_ < 0) fail(name_, "open", errno);
  struct stat st {};
  if (::fstat(fd_, &st) != 0) {
    const int error = errno;
    ::close(fd_);
    fail(name_, "stat", error);
  }
  size_ = static_cast<qpdf_offset_t>(st.st_size);
}

PagedFileSource::~PagedFileSource() {
  if (fd_ >= 0) ::close(fd_);
}

void PagedFileSource::seek(qpdf_offset_t offset, int whence) {
  qpdf_offset_t base = 0;
  switch (whence) {
    case SEEK_SET:
      break;
    case SEEK_CUR:
      base = offset_;
      break;
    case SEEK_END:
      base = size_;
      break;
    default:
      throw std::logic_error("PagedFileSource::seek: bad whence");
  }
  if ((offset > 0 && base > std::numeric_limits<qpdf_offset_t>::max() - offset) || base + offset < 0) {
    throw std::runtime_error(name_ + ": seek out of range");
  }
  offset_ = base + offset;
}

const PagedFileSource::Page* PagedFileSource::pageAt(qpdf_offset_t offset) {
  if (offset < 0 || offset >= size_) return nullptr;
  const qpdf_offset_t start = offset - offset % qpdf_offset_t(kPageSize);
  Page* victim = &pages_[0];
  for (Page& page : pages_) {
    if (page.start == start) {
      page.used = ++clock_;
      return page.length > std::size_t(offset - start) ? &page : nullptr;
    }
    if (page.used < victim->used) victim = &page;
  }
  victim->bytes.resize(kPageSize);
  std::size_t got = 0;
  while (got < kPageSize) {
    const ssize_t n = ::pread(fd_, victim->bytes.data() + got, kPageSize - got, start + qpdf_offset_t(got));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      victim->start = -1;
      fail(name_, "read", errno);
    }
    if (n == 0) break;  // the file shrank since it was opened
    got += std::size_t(n);
  }
  victim->start = start;
  victim->length = got;
  victim->used = ++clock_;
  return victim->length > std::size_t(offset - start) ? victim : nullptr;
}

std::size_t PagedFileSource::readAt(qpdf_offset_t offset, char* out, std::size_t length) {
  std::size_t done = 0;
  while (done < length) {
    const Page* page = pageAt(offset + qpdf_offset_t(done));
    if (!page) break;
    const std::size_t from = std::size_t(offset + qpdf_offset_t(done) - page->start);
    const std::size_t n = std::min(length - done, page->length - from);
    std::memcpy(out + done, page->bytes.data() + from, n);
    done += n;
  }
  return done;
}

size_t PagedFileSource::read(char* buffer, size_t length) {
  if (offset_ >= size_) {
    last_offset = size_;
    return 0;
  }
  last_offset = offset_;
  const std::size_t n = readAt(offset_, buffer, length);
  offset_ += qpdf_offset_t(n);
  return n;
}

qpdf_offset_t PagedFileSource::findAndSkipNextEOL() {
  // Finds the next CR or LF at or after the current offset, returns its
  // offset and leaves the current offset after the run of CR and LF that
  // starts there; at the end of the file both are the end.
  qpdf_offset_t at = offset_;
  for (;;) {
    const Page* page = pageAt(at);
    if (!page) {
      offset_ = size_;
      return size_;
    }
    const char* begin = page->bytes.data() + (at - page->start);
    const char* end = page->bytes.data() + page->length;
    const char* p = std::find_if(begin, end, [](char c) { return c == '\r' || c == '\n'; });
    at += p - begin;
    if (p != end) break;
  }
  const qpdf_offset_t result = at;
  for (++at;;) {
    const Page* page = pageAt(at);
    if (!page) break;
    const char c = page->bytes[std::size_t(at - page->start)];
    if (c != '\r' && c != '\n') break;
    ++at;
  }
  offset_ = std::min(at, size_);
  return result;
}

}  // namespace PDF_Vellum
