// sealmark report: one self-contained HTML page that shows the shape of a
// signed PDF: its revisions, what each signature covers, what each update
// changed, and the facts `verify --json` gives per signature.
#ifndef SEALMARK_REPORT_HTML_H
#define SEALMARK_REPORT_HTML_H

#include <ostream>
#include <string>

#include "output.h"
#include "pdfsealmark/PDFRevisionChanges.h"
#include "report.h"

namespace sealmark {

// The object `sealmark verify --json` prints for one file; the report's
// signature cards are drawn from it, so what verify learns to say shows up
// on the cards too.
Json verifyJson(const DocumentReport& report);

struct HtmlReportInput {
  const DocumentReport* document = nullptr;
  Json verify;  // verifyJson(*document)
  // Null when the revisions' changes could not be read; then `whyNoChanges`.
  const PDF_Sealmark::PDFRevisionChanges::Result* changes = nullptr;
  std::string whyNoChanges;
};

// The header's one-line answer: "2 signatures, both intact; 1 update after
// the last signature adds an annotation on page 2".
std::string reportSummary(const HtmlReportInput& input);

void writeHtmlReport(std::ostream& out, const HtmlReportInput& input);

}  // namespace sealmark

#endif
