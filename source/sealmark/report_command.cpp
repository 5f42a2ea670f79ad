// sealmark report: a picture of a signed PDF as one HTML file.
#include <cstdio>
#include <iostream>
#include <sstream>
#include <string>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFRevisionChanges.h"
#include "report.h"
#include "report_html.h"
#include "trust_options.h"

namespace sealmark {

const char kReportHelp[] =
    "usage: sealmark report [--password PW] FILE --output REPORT.html\n"
    "                       [--trust [--trust-anchor FILE]... [--offline] [--crl-cache DIR]\n"
    "                        [--ldap-servers LIST] [--no-nonce]]\n"
    "\n"
    "Writes one self-contained HTML page (no script, nothing fetched) that\n"
    "shows the revisions of a signed PDF file, what each signature covers,\n"
    "what each incremental update added or replaced, flagged when it came\n"
    "after a signature, and per signature what 'sealmark verify --json' says.\n"
    "\n"
    "  --password PW   password of an encrypted file (user or owner)\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --output OUT    where the page is written\n"
    "  --trust         also judge each signature, as 'sealmark verify --trust'\n"
    "                  does, and show the verdict and its reasons on its card;\n"
    "                  the other options are those of verify\n"
    "  -h, --help      show this help\n"
    "\n"
    "exit codes: 0 written and every signed field intact (with --trust:\n"
    "valid), 1 written but a signature is not, 2 bad usage, an unreadable file\n"
    "or OUT not written\n";

int runReport(const Args& args) {
  std::string password, output;
  std::vector<std::string> files;
  int exitCode = kExitOk;
  ArgParser parser("report", kReportHelp);
  TrustOptions trust;
  parser.secret("--password", &password).value("--output", &output);
  trust.addTo(parser);
  if (!parser.parse(args, files, exitCode) || !trust.check(parser, exitCode)) return exitCode;
  if (files.size() != 1 || output.empty()) {
    parser.usageError(files.empty()       ? "no FILE given"
                      : files.size() != 1 ? "one FILE only"
                                          : "--output REPORT.html is required",
                      exitCode);
    return exitCode;
  }
  const std::string& file = files.front();

  std::string why;
  if (!trust.load()) return kExitUsage;
  auto document = examineDocument(file, password, &why, 0, trust.forCheck());
  if (!document) {
    complain(file, why);
    return kExitUsage;
  }
  PDF_Sealmark::PDFRevisionChanges::Options options;
  options.revisionEnds = document->revisionEnds;
  PDF_Sealmark::PDFRevisionChanges::Result changes;
  HtmlReportInput input;
  input.document = document.get();
  input.verify = verifyJson(*document);
  if (PDF_Sealmark::PDFRevisionChanges::read(file, password, changes, &input.whyNoChanges, options))
    input.changes = &changes;

  // Written beside the target and renamed, so a reader never sees half a
  // page and a link planted at the name is replaced, not written through.
  std::ostringstream page;
  writeHtmlReport(page, input);
  if (!writeFileAtomically(output, page.str(), 0644, why)) {
    complain(output, why);
    return kExitUsage;
  }
  // The answer holds field names from the file: no control characters to
  // the terminal.
  std::string summary = toValidUtf8(reportSummary(input));
  for (char& c : summary) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  std::cout << "wrote " << output << ": " << summary << "\n";
  for (const FieldReport& f : document->fields) {
    if ((f.intact && !*f.intact) || (trust.trust && f.validation && f.validation->verdict != "valid"))
      exitCode = kExitNotVerified;
  }
  return exitCode;
}

}  // namespace sealmark
