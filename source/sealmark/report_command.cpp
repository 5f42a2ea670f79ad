// sealmark report: a picture of a signed PDF as one HTML file.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFRevisionChanges.h"
#include "report.h"
#include "report_html.h"

namespace sealmark {

const char kReportHelp[] =
    "usage: sealmark report [--password PW] FILE --output REPORT.html\n"
    "\n"
    "Writes one self-contained HTML page (no script, nothing fetched) that\n"
    "shows the revisions of a signed PDF file, what each signature covers,\n"
    "what each incremental update added or replaced, flagged when it came\n"
    "after a signature, and per signature what 'sealmark verify --json' says.\n"
    "\n"
    "  --password PW   password of an encrypted file (user or owner)\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --output OUT    where the page is written\n"
    "  -h, --help      show this help\n"
    "\n"
    "exit codes: 0 written and every signed field intact, 1 written but a\n"
    "signature is not intact, 2 bad usage, an unreadable file or OUT not written\n";

int runReport(const Args& args) {
  std::string password, output;
  std::vector<std::string> files;
  int exitCode = kExitOk;
  ArgParser parser("report", kReportHelp);
  parser.secret("--password", &password).value("--output", &output);
  if (!parser.parse(args, files, exitCode)) return exitCode;
  if (files.size() != 1 || output.empty()) {
    parser.usageError(files.empty()       ? "no FILE given"
                      : files.size() != 1 ? "one FILE only"
                                          : "--output REPORT.html is required",
                      exitCode);
    return exitCode;
  }
  const std::string& file = files.front();

  std::string why;
  auto document = examineDocument(file, password, &why);
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

  // Written beside the target and renamed, so a reader never sees half a page.
  const std::string temporary = output + ".tmp";
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    writeHtmlReport(out, input);
    out.close();
    if (!out || std::rename(temporary.c_str(), output.c_str()) != 0) {
      std::remove(temporary.c_str());
      complain(output, "cannot write");
      return kExitUsage;
    }
  }
  // The answer holds field names from the file: no control characters to
  // the terminal.
  std::string summary = toValidUtf8(reportSummary(input));
  for (char& c : summary) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  std::cout << "wrote " << output << ": " << summary << "\n";
  for (const FieldReport& f : document->fields) {
    if (f.intact && !*f.intact) exitCode = kExitNotVerified;
  }
  return exitCode;
}

}  // namespace sealmark
