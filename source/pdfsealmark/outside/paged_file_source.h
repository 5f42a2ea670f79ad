// Internal: a qpdf input source over a file descriptor with a few cached
// pages, read with pread.
#ifndef PDFSEALMARK_OUTSIDE_PAGED_FILE_SOURCE_H
#define PDFSEALMARK_OUTSIDE_PAGED_FILE_SOURCE_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <qpdf/InputSource.hh>

namespace PDF_Vellum {

// qpdf's own file source sits on stdio, and qpdf seeks before nearly every
// token, so each seek costs an lseek and a refill: opening a small signed
// file made several hundred system calls.  Here a seek only moves a number,
// and reads come from a handful of cached pages, so opening a file reads
// each page it touches once.  Behaves as qpdf's BufferInputSource does over
// the file's bytes: reads past the end return 0, a seek before the start
// throws.
class PagedFileSource : public InputSource {
 public:
  // Throws std::runtime_error naming the file when it can't be opened.
  explicit PagedFileSource(const std::string& path);
  ~PagedFileSource() override;
  PagedFileSource(const PagedFileSource&) = delete;
  PagedFileSource& operator=(const PagedFileSource&) = delete;

  qpdf_offset_t findAndSkipNextEOL() override;
  std::string const& getName() const override { return name_; }
  qpdf_offset_t tell() override { return offset_; }
  void seek(qpdf_offset_t offset, int whence) override;
  void rewind() override { offset_ = 0; }
  size_t read(char* buffer, size_t length) override;
  void unreadCh(char) override {
    if (offset_ > 0) --offset_;
  }

 private:
  static constexpr std::size_t kPageSize = 32 * 1024;
  static constexpr std::size_t kPages = 4;
  struct Page {
    qpdf_offset_t start = -1;
    std::size_t length = 0;
    std::uint64_t used = 0;  // for least-recently-used replacement
    std::vector<char> bytes;
  };

  // The cached page holding `offset`, read in if need be; null past the end.
  const Page* pageAt(qpdf_offset_t offset);
  std::size_t readAt(qpdf_offset_t offset, char* out, std::size_t length);

  std::string name_;
  int fd_ = -1;
  qpdf_offset_t size_ = 0;
  qpdf_offset_t offset_ = 0;
  std::uint64_t clock_ = 0;
  std::array<Page, kPages> pages_;
};

}  // namespace PDF_Vellum

#endif
