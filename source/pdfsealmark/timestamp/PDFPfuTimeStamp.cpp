#include "pdfsealmark/PDFPfuTimeStamp.h"

#include <new>

#include "pdfsealmark/timestamp/PDFPfuTimeStampImpl.h"
#include "pdfsealmark/timestamp/shared_impl.h"

namespace PDF_Sealmark {

PDFPfuTimeStamp::PDFPfuTimeStamp(const std::string& user, const std::string& password)
    : TimeStamp(true), impl_(new (std::nothrow) PDFPfuTimeStampImpl(user, password)), shareCount_(nullptr) {
  shared_impl::adopt(impl_, shareCount_);
}

PDFPfuTimeStamp::PDFPfuTimeStamp(const PDFPfuTimeStamp& other)
    : TimeStamp(other), impl_(nullptr), shareCount_(nullptr) {
  shared_impl::share(impl_, shareCount_, other.impl_, other.shareCount_);
}

PDFPfuTimeStamp::~PDFPfuTimeStamp() { shared_impl::release(impl_, shareCount_); }

PDFPfuTimeStamp& PDFPfuTimeStamp::operator=(const PDFPfuTimeStamp& other) {
  TimeStamp::operator=(other);
  shared_impl::share(impl_, shareCount_, other.impl_, other.shareCount_);
  return *this;
}

void PDFPfuTimeStamp::OnImplementts() const {
  if (impl_) impl_->OnImplementts();
}

bool PDFPfuTimeStamp::LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>& data,
                          const std::vector<unsigned char>& digest, const std::vector<unsigned char>& nonce) const {
  if (!impl_) {
    token.clear();
    return false;
  }
  return impl_->LeImplementts(token, data, digest, nonce);
}

}  // namespace PDF_Sealmark
