// Internal: the NSS certificate database that stands for the system's
// certificate stores and key containers on Linux.
//
// It is the per-user database that Linux programs share (Chromium,
// LibreOffice, Evolution, poppler's pdfsig): $SEALMARK_NSSDB when set (a
// directory, with or without the "sql:" prefix), else $HOME/.pki/nssdb,
// made empty on first use as the NSS tools make it.  Keys stay in NSS's
// software token or in any PKCS#11 module registered with the database.
//
// NSS is opened once per process through NSS_InitContext, so that a host
// program that uses NSS itself keeps its own initialisation; the context is
// shut down when the process exits.
#ifndef PDFSEALMARK_PLATFORM_NSS_DB_H
#define PDFSEALMARK_PLATFORM_NSS_DB_H

#include <string>

namespace PDF_Sealmark {
namespace platform {
namespace nss {

// True when NSS is open on the database; opens it on the first call.  The
// database is chosen then, and stays for the life of the process.
bool ready();

// The database directory in use (without "sql:"), or empty before ready().
std::string databaseDir();

// The PIN for tokens that need one: the first line of the file named by
// $SEALMARK_PIN_FILE, else $SEALMARK_PIN.  False when neither gives one.
// The library never asks a person for a PIN.
bool configuredPin(std::string& pin);

// Logs every token of the database that needs it in with the configured
// PIN, so that the keys it holds can be seen and used.  Tokens that refuse
// the PIN, or with no PIN configured, stay logged out.
void logInTokens();

}  // namespace nss
}  // namespace platform
}  // namespace PDF_Sealmark

#endif
