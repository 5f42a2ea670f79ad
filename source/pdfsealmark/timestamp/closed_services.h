// Internal: the free functions over the two closed time-stamp libraries.
//
// The Amano library ("libasdtst.so") and the PFU library ("libtslib.so") are
// loaded at run time by name, so the platform's library search decides which
// file is used.  Each loader fills a process-wide table of entry points on
// first success and is cheap to call again; a failed load is retried on the
// next call.  The verifier reads tokens of these services through the
// token functions below; the clients make tokens through create*Token.
#ifndef PDFSEALMARK_TIMESTAMP_CLOSED_SERVICES_H
#define PDFSEALMARK_TIMESTAMP_CLOSED_SERVICES_H

#include <string>
#include <vector>

namespace PDF_Sealmark {

// Amano.  Tokens are at most 12000 bytes; the service address must fit in
// 255 bytes.  What doesn't fit is refused before any call into the library.
// Failures give an empty token, false or -1.
bool loadAmanoLibrary();
std::vector<unsigned char> createAmanoToken(const std::vector<unsigned char>& data, const char* serviceAddress,
                                            const char* accountFile, const char* password);
bool verifyAmanoToken(const std::vector<unsigned char>& token, const std::vector<unsigned char>& data);
// text is set only on success.
bool getAmanoTokenDate(const std::vector<unsigned char>& token, std::string& text);
// 1 with the DER certificate of the time-stamp authority for index 0; -1
// otherwise.
int getAmanoTokenCert(const std::vector<unsigned char>& token, int index, std::vector<unsigned char>& der);
// The directory of `module` (null: the executable) joined with fileName;
// null when the module's path can't be had.  platform::kOwnModuleName
// names the module that holds this library's code; createAmanoToken looks
// there, then beside the executable, for an account file that isn't found
// under its own name.
const char* moduleRelativePath(const char* module, const char* fileName, std::string& path);

// PFU.
bool loadPfuLibrary();
std::vector<unsigned char> createPfuToken(const std::vector<unsigned char>& data, const char* user,
                                          const char* password);
bool verifyPfuToken(const std::vector<unsigned char>& token, const std::vector<unsigned char>& data);
// On failure text holds the library's message and code: "message (code)".
bool getPfuTokenDate(const std::vector<unsigned char>& token, std::string& text);
// 1 with a certificate, 0 when the token has no certificate at that index,
// -1 on failure.
int getPfuTokenCert(const std::vector<unsigned char>& token, int index, std::vector<unsigned char>& der);

}  // namespace PDF_Sealmark

#endif
