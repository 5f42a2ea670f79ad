#include "pdfsealmark/outside/TesseraCommon.h"

#include <algorithm>
#include <cstring>

namespace TesseraCommon {

TSRCObject::~TSRCObject() = default;

int TSRCObject::addRef() const { return ++refCount_; }

int TSRCObject::release() const {
  const int left = --refCount_;
  if (left == 0) delete this;
  return left;
}

bool TSRCObject::isA(unsigned int classId) const {
  return classId == getClassId();
}

// ---------------------------------------------------------------------------

TSMemStream::Buffer::Buffer(std::size_t reserve) {
  bytes_.reserve(reserve);
  setg(nullptr, nullptr, nullptr);
}

// The get area always spans [0, writePos_) of bytes_, so reads see everything
// written so far.  It is re-pointed after every write since the vector may
// have moved.
void TSMemStream::Buffer::syncGet(std::size_t readPos) {
  char* base = bytes_.data();
  setg(base, base + std::min(readPos, writePos_), base + writePos_);
}

std::streamsize TSMemStream::Buffer::xsputn(const char* s, std::streamsize n) {
  if (n <= 0) return 0;
  const std::size_t readPos = eback() ? static_cast<std::size_t>(gptr() - eback()) : 0;
  const std::size_t end = writePos_ + static_cast<std::size_t>(n);
  if (end > bytes_.size()) bytes_.resize(end);
  std::memcpy(bytes_.data() + writePos_, s, static_cast<std::size_t>(n));
  writePos_ = end;
  syncGet(readPos);
  return n;
}

TSMemStream::Buffer::int_type TSMemStream::Buffer::overflow(int_type ch) {
  if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
  const char c = traits_type::to_char_type(ch);
  xsputn(&c, 1);
  return ch;
}

TSMemStream::Buffer::int_type TSMemStream::Buffer::underflow() {
  if (gptr() && gptr() < egptr()) return traits_type::to_int_type(*gptr());
  return traits_type::eof();
}

TSMemStream::Buffer::pos_type TSMemStream::Buffer::seekoff(off_type off, std::ios_base::seekdir dir,
                                                         std::ios_base::openmode which) {
  const std::size_t readPos = eback() ? static_cast<std::size_t>(gptr() - eback()) : 0;
  off_type base = 0;
  if (dir == std::ios_base::cur) {
    base = static_cast<off_type>((which & std::ios_base::in) ? readPos : writePos_);
  } else if (dir == std::ios_base::end) {
    base = static_cast<off_type>(bytes_.size());
  }
  return seekpos(pos_type(base + off), which);
}

TSMemStream::Buffer::pos_type TSMemStream::Buffer::seekpos(pos_type pos, std::ios_base::openmode which) {
  const off_type p = off_type(pos);
  if (p < 0 || static_cast<std::size_t>(p) > bytes_.size()) return pos_type(off_type(-1));
  const std::size_t at = static_cast<std::size_t>(p);
  std::size_t readPos = eback() ? static_cast<std::size_t>(gptr() - eback()) : 0;
  if (which & std::ios_base::out) writePos_ = at;
  if (which & std::ios_base::in) readPos = at;
  syncGet(readPos);
  return pos;
}

TSMemStream::TSMemStream(std::istream* source, unsigned int size, bool limitToSize)
    : std::iostream(nullptr), buffer_(size) {
  rdbuf(&buffer_);
  if (source) {
    char chunk[4096];
    std::size_t left = limitToSize ? size : static_cast<std::size_t>(-1);
    while (left > 0 && source->good()) {
      source->read(chunk, static_cast<std::streamsize>(std::min(left, sizeof chunk)));
      const std::streamsize got = source->gcount();
      if (got <= 0) break;
      buffer_.sputn(chunk, got);
      left -= static_cast<std::size_t>(got);
    }
    seekg(0);
  }
}

TSMemStream::~TSMemStream() = default;

const std::vector<char>& TSMemStream::data() const { return buffer_.bytes(); }

}  // namespace TesseraCommon
