#include "pdfsealmark/timestamp/PDFPfuTimeStampImpl.h"

namespace PDF_Sealmark {

PDFPfuTimeStampImpl::PDFPfuTimeStampImpl(const std::string& user, const std::string& password)
    : user(user), password(password) {}

PDFPfuTimeStampImpl::~PDFPfuTimeStampImpl() = default;

bool PDFPfuTimeStampImpl::LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>&,
                                        const std::vector<unsigned char>&,
                                        const std::vector<unsigned char>&) const {
  token.clear();
  return false;
}

}  // namespace PDF_Sealmark
