// The sealmark subcommands.  Each takes the arguments after its own name and
// gives the process exit code: 0 all good, 1 something did not verify,
// 2 bad usage or unreadable input.
#ifndef SEALMARK_COMMANDS_H
#define SEALMARK_COMMANDS_H

#include <optional>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"

namespace sealmark {

enum ExitCode { kExitOk = 0, kExitNotVerified = 1, kExitUsage = 2 };

using Args = std::vector<std::string>;

int runVerify(const Args& args);
extern const char kVerifyHelp[];
int runRevisions(const Args& args);
extern const char kRevisionsHelp[];
int runCert(const Args& args);
extern const char kCertHelp[];
int runCertGenerate(const Args& args);
extern const char kCertGenerateHelp[];
int runTimestamp(const Args& args);
extern const char kTimestampHelp[];
int runRevocation(const Args& args);
extern const char kRevocationHelp[];
int runSign(const Args& args);
extern const char kSignHelp[];
int runTimestampDocument(const Args& args);
extern const char kTimestampDocumentHelp[];
int runStore(const Args& args);
extern const char kStoreHelp[];
int runChain(const Args& args);
extern const char kChainHelp[];

// Hands a PIN given on the command line to the library's certificate
// stores (through $SEALMARK_PIN), for tokens that need one.
void usePin(const std::optional<std::string>& pin);
int runReport(const Args& args);
extern const char kReportHelp[];

// One line on stderr: "sealmark: <what>: <reason>".
void complain(const std::string& what, const std::string& reason);

// Reads a certificate file, DER or PEM; false after such a line (the
// file's error, or that it holds no certificate).
bool loadCertificate(const std::string& file, PDF_Sealmark::PDFCert& cert);
// Each of the files, in order; false after the first that can't be read.
bool loadCertificates(const std::vector<std::string>& files, std::vector<PDF_Sealmark::PDFCert>& certs);

}  // namespace sealmark

#endif
