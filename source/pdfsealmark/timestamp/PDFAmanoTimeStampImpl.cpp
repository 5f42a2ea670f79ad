#include "pdfsealmark/timestamp/PDFAmanoTimeStampImpl.h"

#include "pdfsealmark/timestamp/closed_services.h"

namespace PDF_Sealmark {

PDFAmanoTimeStampImpl::PDFAmanoTimeStampImpl(const std::string& serviceAddress,
                                             const std::string& accountFile, const std::string& password)
    : serviceAddress(serviceAddress), accountFile(accountFile), password(password) {}

PDFAmanoTimeStampImpl::~PDFAmanoTimeStampImpl() = default;

bool PDFAmanoTimeStampImpl::LeImplementts(std::vector<unsigned char>& token,
                                          const std::vector<unsigned char>& data,
                                          const std::vector<unsigned char>&,
                                          const std::vector<unsigned char>&) const {
  token.clear();
  if (data.empty() || serviceAddress.empty() || accountFile.empty() || password.empty()) return false;
  token = createAmanoToken(data, serviceAddress.c_str(), accountFile.c_str(), password.c_str());
  return !token.empty();
}

}  // namespace PDF_Sealmark
