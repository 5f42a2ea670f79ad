// PDFServiceToken: reads a time-stamp token of the Amano or the PFU service
// through that service's own library, as the verifier does for tokens that
// aren't PKCS#7.
//
//   using PDF_Sealmark::PDFServiceToken;
//   std::string time;
//   if (PDFServiceToken::getDate(PDFServiceToken::kPfu, token, time)) { ... }
//
// The libraries (libasdtst.so, libtslib.so) are loaded by name on first use;
// without one, every question about its tokens fails.  Times come in the
// library's own form, unchanged.
#ifndef PDFSEALMARK_PDFSERVICETOKEN_H
#define PDFSEALMARK_PDFSERVICETOKEN_H

#include <string>
#include <vector>

#include "pdfsealmark/PDFSealmarkExport.h"

namespace PDF_Sealmark {

class PDFSEALMARK_API PDFServiceToken {
 public:
  enum Service { kAmano, kPfu };

  // True when the service's library and all its entry points are at hand.
  static bool isAvailable(Service service);
  // True when the library accepts token as a token over data.
  static bool verify(Service service, const std::vector<unsigned char>& token,
                     const std::vector<unsigned char>& data);
  // The token's time into text.  On failure the PFU library leaves its
  // error there, "message (code)"; the Amano one leaves text as it was.
  static bool getDate(Service service, const std::vector<unsigned char>& token, std::string& text);
  // The DER certificate with this index, from 0: 1 with it in der; 0 when
  // the token has no such certificate (PFU); -1 on failure.  An Amano token
  // carries one certificate, the authority's.
  static int getCert(Service service, const std::vector<unsigned char>& token, int index,
                     std::vector<unsigned char>& der);
};

}  // namespace PDF_Sealmark

#endif
