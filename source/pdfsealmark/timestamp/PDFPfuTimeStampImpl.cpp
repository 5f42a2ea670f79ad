#include "pdfsealmark/timestamp/PDFPfuTimeStampImpl.h"

#include "pdfsealmark/timestamp/closed_services.h"

namespace PDF_Sealmark {

PDFPfuTimeStampImpl::PDFPfuTimeStampImpl(const std::string& user, const std::string& password)
    : user(user), password(password) {}

PDFPfuTimeStampImpl::~PDFPfuTimeStampImpl() = default;

bool PDFPfuTimeStampImpl::LeImplementts(std::vector<unsigned char>& token,
                                        const std::vector<unsigned char>& data,
                                        const std::vector<unsigned char>&,
                                        const std::vector<unsigned char>&) const {
  token.clear();
  if (data.empty() || user.empty() || password.empty()) return false;
  token = createPfuToken(data, user.c_str(), password.c_str());
  return !token.empty();
}

}  // namespace PDF_Sealmark
