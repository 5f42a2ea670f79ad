// Common objects: a reference-counted base, its counted pointer, and an
// in-memory stream.
//
// TSRCObject is the base of the library's implementation objects (the facades
// such as PDFSealmarkVerify share one through TSSmartPtr).  A new object
// starts with a count of 0; the first TSSmartPtr that takes it raises the
// count, and the release that brings it back to 0 deletes it.
//
//   TesseraCommon::TSSmartPtr<MyImpl> p(new MyImpl, true);   // count 1
//   TesseraCommon::TSSmartPtr<MyImpl> q;  q = p;               // count 2
//   // both die: count 0, the object is deleted once
//
// TSMemStream is a read/write std::iostream over a growable buffer.
#ifndef PDFSEALMARK_TESSERACOMMON_H
#define PDFSEALMARK_TESSERACOMMON_H

#include <cstdint>
#include <iostream>
#include <streambuf>
#include <vector>

#include <unicode/unistr.h>

#include "pdfsealmark/PDFSealmarkExport.h"

namespace TesseraCommon {

class PDFSEALMARK_API TSRCObject {
 public:
  TSRCObject(const TSRCObject&) = delete;
  TSRCObject& operator=(const TSRCObject&) = delete;

  // Both give the count after the change.  The release that reaches 0
  // deletes the object; the caller must not touch it afterwards.
  int addRef() const;
  int release() const;

  virtual std::uint32_t getClassId() const = 0;
  // True when classId names this object's class.
  virtual bool isA(unsigned int classId) const;
  virtual icu::UnicodeString getClassName() const = 0;

 protected:
  TSRCObject() = default;
  virtual ~TSRCObject();

 private:
  mutable int refCount_ = 0;
};

// Counted pointer to a TSRCObject (or a class derived from it).
template <class T>
class TSSmartPtr {
 public:
  TSSmartPtr() = default;
  // Takes p; with addRef true the pointer takes a reference of its own
  // (use this for a freshly made object, whose count is 0).
  TSSmartPtr(T* p, bool addRef) : ptr_(p) {
    if (ptr_ && addRef) ptr_->addRef();
  }
  TSSmartPtr(const TSSmartPtr& other) : ptr_(other.ptr_) {
    if (ptr_) ptr_->addRef();
  }
  TSSmartPtr& operator=(const TSSmartPtr& other) {
    if (ptr_ == other.ptr_) return *this;
    if (ptr_) ptr_->release();
    ptr_ = other.ptr_;
    if (ptr_) ptr_->addRef();
    return *this;
  }
  ~TSSmartPtr() {
    if (ptr_) ptr_->release();
    ptr_ = nullptr;
  }

  bool isNull() const { return ptr_ == nullptr; }
  explicit operator bool() const { return ptr_ != nullptr; }
  T* get() const { return ptr_; }
  T* operator->() const { return ptr_; }
  T& operator*() const { return *ptr_; }

 private:
  T* ptr_ = nullptr;
};

// A stream that is written and then read back, all in memory.  With a
// source, the source's remaining bytes are copied in first (at most `size`
// bytes when `limitToSize` is true, else all of them); `size` is otherwise
// only the initial capacity.
class PDFSEALMARK_API TSMemStream : public std::iostream {
 public:
  TSMemStream(std::istream* source, unsigned int size, bool limitToSize);
  ~TSMemStream() override;

  // The bytes written so far, independent of the read position.
  const std::vector<char>& data() const;

 private:
  class Buffer : public std::streambuf {
   public:
    explicit Buffer(std::size_t reserve);
    const std::vector<char>& bytes() const { return bytes_; }

   protected:
    int_type overflow(int_type ch) override;
    std::streamsize xsputn(const char* s, std::streamsize n) override;
    int_type underflow() override;
    pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                     std::ios_base::openmode which) override;
    pos_type seekpos(pos_type pos, std::ios_base::openmode which) override;

   private:
    void syncGet(std::size_t readPos);
    std::vector<char> bytes_;
    std::size_t writePos_ = 0;
  };
  Buffer buffer_;
};

}  // namespace TesseraCommon

#endif
