#include "pdfsealmark/PDFStdTimeStamp.h"

#include <new>

#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"
#include "pdfsealmark/timestamp/shared_impl.h"

namespace PDF_Sealmark {

PDFStdTimeStamp::PDFStdTimeStamp(const std::string& url, const std::string& user, const std::string& password, int hashType)
    : TimeStamp(hashType), impl_(new (std::nothrow) PDFStdTimeStampImpl(url, user, password, hashType)), shareCount_(nullptr) {
  shared_impl::adopt(impl_, shareCount_);
}

PDFStdTimeStamp::PDFStdTimeStamp(const PDFStdTimeStamp& other)
    : TimeStamp(other), impl_(nullptr), shareCount_(nullptr) {
  shared_impl::share(impl_, shareCount_, other.impl_, other.shareCount_);
}

PDFStdTimeStamp::~PDFStdTimeStamp() { shared_impl::release(impl_, shareCount_); }

PDFStdTimeStamp& PDFStdTimeStamp::operator=(const PDFStdTimeStamp& other) {
  TimeStamp::operator=(other);
  shared_impl::share(impl_, shareCount_, other.impl_, other.shareCount_);
  return *this;
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
