#include "pdfsealmark/PDFAmanoTimeStamp.h"

#include <new>

#include "pdfsealmark/timestamp/PDFAmanoTimeStampImpl.h"
#include "pdfsealmark/timestamp/shared_impl.h"

namespace PDF_Sealmark {

PDFAmanoTimeStamp::PDFAmanoTimeStamp(const std::string& serviceAddress, const std::string& accountFile,
                                     const std::string& password)
    : TimeStamp(true), impl_(new (std::nothrow) PDFAmanoTimeStampImpl(serviceAddress, accountFile, password)), shareCount_(nullptr) {
  shared_impl::adopt(impl_, shareCount_);
}

PDFAmanoTimeStamp::PDFAmanoTimeStamp(const PDFAmanoTimeStamp& other)
    : TimeStamp(other), impl_(nullptr), shareCount_(nullptr) {
  shared_impl::share(impl_, shareCount_, other.impl_, other.shareCount_);
}

PDFAmanoTimeStamp::~PDFAmanoTimeStamp() { shared_impl::release(impl_, shareCount_); }

PDFAmanoTimeStamp& PDFAmanoTimeStamp::operator=(const PDFAmanoTimeStamp& other) {
  TimeStamp::operator=(other);
  shared_impl::share(impl_, shareCount_, other.impl_, other.shareCount_);
  return *this;
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
