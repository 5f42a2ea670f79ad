#include "pdfsealmark/PDFServiceToken.h"

#include "pdfsealmark/timestamp/closed_services.h"

namespace PDF_Sealmark {

bool PDFServiceToken::isAvailable(Service service) {
  return service == kAmano ? loadAmanoLibrary() : loadPfuLibrary();
}

bool PDFServiceToken::verify(Service service, const std::vector<unsigned char>& token,
                             const std::vector<unsigned char>& data) {
  return service == kAmano ? verifyAmanoToken(token, data) : verifyPfuToken(token, data);
}

bool PDFServiceToken::getDate(Service service, const std::vector<unsigned char>& token, std::string& text) {
  return service == kAmano ? getAmanoTokenDate(token, text) : getPfuTokenDate(token, text);
}

int PDFServiceToken::getCert(Service service, const std::vector<unsigned char>& token, int index,
                             std::vector<unsigned char>& der) {
  return service == kAmano ? getAmanoTokenCert(token, index, der) : getPfuTokenCert(token, index, der);
}

}  // namespace PDF_Sealmark
