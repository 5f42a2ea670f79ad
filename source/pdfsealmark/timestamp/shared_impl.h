// Internal: how the time-stamp facades share one implementation object.
//
// Copies of a client share its implementation object and a heap count of
// the facades that hold it; the last one to let go deletes both.
#ifndef PDFSEALMARK_TIMESTAMP_SHARED_IMPL_H
#define PDFSEALMARK_TIMESTAMP_SHARED_IMPL_H

#include <new>

namespace PDF_Sealmark {
namespace shared_impl {

// After construction: a new object gets its count of 1.  Without memory for
// the count the object couldn't be shared safely, so the facade goes on
// without an implementation, as when the object couldn't be made.
template <class Impl>
void adopt(Impl*& impl, long*& count) {
  count = nullptr;
  if (!impl) return;
  count = new (std::nothrow) long(1);
  if (!count) {
    delete impl;
    impl = nullptr;
  }
}

template <class Impl>
void release(Impl*& impl, long*& count) {
  if (count && --*count == 0) {
    delete impl;
    delete count;
  }
  impl = nullptr;
  count = nullptr;
}

// Copy construction and assignment: the new reference is taken before the
// old one is dropped, so assigning a facade that shares the same object
// changes nothing.
template <class Impl>
void share(Impl*& impl, long*& count, Impl* otherImpl, long* otherCount) {
  if (impl == otherImpl && count == otherCount) return;
  if (otherCount) ++*otherCount;
  release(impl, count);
  impl = otherImpl;
  count = otherCount;
}

}  // namespace shared_impl
}  // namespace PDF_Sealmark

#endif
