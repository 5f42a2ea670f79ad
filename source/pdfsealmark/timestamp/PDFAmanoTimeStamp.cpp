#include "pdfsealmark/PDFAmanoTimeStamp.h"

#include <new>

#include "pdfsealmark/timestamp/PDFAmanoTimeStampImpl.h"

namespace PDF_Sealmark {

PDFAmanoTimeStamp::PDFAmanoTimeStamp(const std::string& serviceAddress, const std::string& accountFile,
                                     const std::string& password)
    : TimeStamp(true), impl_(new (std::nothrow) PDFAmanoTimeStampImpl(serviceAddress, accountFile, password)), shareCount_(nullptr) {
  if (impl_) {
    shareCount_ = new (std::nothrow) long(1);
    if (!shareCount_) {
      // Without a count the object couldn't be shared safely: go on without
      // an implementation, as when it couldn't be made.
      delete impl_;
      impl_ = nullptr;
    }
  }
}

PDFAmanoTimeStamp::PDFAmanoTimeStamp(const PDFAmanoTimeStamp& other)
    : TimeStamp(other), impl_(other.impl_), shareCount_(other.shareCount_) {
  if (shareCount_) ++*shareCount_;
}

PDFAmanoTimeStamp::~PDFAmanoTimeStamp() { release(); }

PDFAmanoTimeStamp& PDFAmanoTimeStamp::operator=(const PDFAmanoTimeStamp& other) {
  TimeStamp::operator=(other);
  if (impl_ != other.impl_) {
    // Take the new reference before dropping the old.
    if (other.shareCount_) ++*other.shareCount_;
    release();
    impl_ = other.impl_;
    shareCount_ = other.shareCount_;
  }
  return *this;
}

void PDFAmanoTimeStamp::release() {
  if (shareCount_ && --*shareCount_ == 0) {
    delete impl_;
    delete shareCount_;
  }
  impl_ = nullptr;
  shareCount_ = nullptr;
}

void PDFAmanoTimeStamp::OnImplementts() const {
  if (impl_) impl_->OnImplementts();
}

bool PDFAmanoTimeStamp::LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                          const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const {
  if (!impl_) {
    token.clear();
    return false;
  }
  return impl_->LeImplementts(token, data, digest, nonce);
}

}  // namespace PDF_Sealmark
