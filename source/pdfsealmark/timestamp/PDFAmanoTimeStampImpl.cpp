#include "pdfsealmark/timestamp/PDFAmanoTimeStampImpl.h"

namespace PDF_Sealmark {

PDFAmanoTimeStampImpl::PDFAmanoTimeStampImpl(const std::string& serviceAddress, const std::string& accountFile,
                                             const std::string& password)
    : serviceAddress(serviceAddress), accountFile(accountFile), password(password) {}

PDFAmanoTimeStampImpl::~PDFAmanoTimeStampImpl() = default;

bool PDFAmanoTimeStampImpl::LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>&,
                                          const std::vector<unsigned char>&,
                                          const std::vector<unsigned char>&) const {
  token.clear();
  return false;
}

}  // namespace PDF_Sealmark
