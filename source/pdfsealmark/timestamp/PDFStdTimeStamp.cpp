#include "pdfsealmark/PDFStdTimeStamp.h"

#include <new>

#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"

namespace PDF_Sealmark {

PDFStdTimeStamp::PDFStdTimeStamp(const std::string& url, const std::string& user, const std::string& password, int hashType)
    : TimeStamp(hashType), impl_(new (std::nothrow) PDFStdTimeStampImpl(url, user, password, hashType)), shareCount_(nullptr) {
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

PDFStdTimeStamp::PDFStdTimeStamp(const PDFStdTimeStamp& other)
    : TimeStamp(other), impl_(other.impl_), shareCount_(other.shareCount_) {
  if (shareCount_) ++*shareCount_;
}

PDFStdTimeStamp::~PDFStdTimeStamp() { release(); }

PDFStdTimeStamp& PDFStdTimeStamp::operator=(const PDFStdTimeStamp& other) {
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

void PDFStdTimeStamp::release() {
  if (shareCount_ && --*shareCount_ == 0) {
    delete impl_;
    delete shareCount_;
  }
  impl_ = nullptr;
  shareCount_ = nullptr;
}

void PDFStdTimeStamp::OnImplementts() const {
  if (impl_) impl_->OnImplementts();
}

bool PDFStdTimeStamp::LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                          const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const {
  if (!impl_) {
    token.clear();
    return false;
  }
  return impl_->LeImplementts(token, data, digest, nonce);
}

}  // namespace PDF_Sealmark
