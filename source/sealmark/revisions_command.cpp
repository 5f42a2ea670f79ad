// sealmark revisions: the revisions of a file, which signature signed which,
// and any one of them written out.
#include <fstream>
#include <iostream>
#include <string>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "report.h"

namespace sealmark {

const char kRevisionsHelp[] =
    "usage: sealmark revisions [--password PW] [--json] FILE\n"
    "       sealmark revisions [--password PW] FILE --extract N --output OUT\n"
    "\n"
    "Lists the revisions of a PDF file (each incremental update ends one with\n"
    "\"%%EOF\" and CR LF), with the end offset of each and the signature fields\n"
    "whose signed bytes end exactly there.\n"
    "\n"
    "  --password PW   password of an encrypted file\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --json          print JSON instead of a table\n"
    "  --extract N     write revision N (0 is the oldest) to OUT\n"
    "  --output OUT    where --extract writes\n"
    "  -h, --help      show this help\n"
    "\n"
    "exit codes: 0 done, 2 bad usage, an unreadable file or a revision that doesn't exist\n";

namespace {

struct RevisionsOptions {
  std::string password;
  bool json = false;
  std::string file;
  std::string extract;
  std::string output;
};

bool parseArgs(const Args& args, RevisionsOptions& opts, int& exitCode) {
  ArgParser parser("revisions", kRevisionsHelp);
  parser.flag("--json", &opts.json)
      .secret("--password", &opts.password)
      .value("--extract", &opts.extract)
      .value("--output", &opts.output);
  std::vector<std::string> files;
  if (!parser.parse(args, files, exitCode)) return false;
  if (files.size() != 1)
    return parser.usageError(files.empty() ? "no FILE given" : "one FILE only", exitCode);
  if (opts.extract.empty() != opts.output.empty()) {
    return parser.usageError("--extract N goes with --output OUT", exitCode);
  }
  opts.file = files[0];
  return true;
}

int extract(DocumentReport& report, const RevisionsOptions& opts) {
  std::size_t used = 0;
  int n = -1;
  try {
    n = std::stoi(opts.extract, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used != opts.extract.size() || n < 0 || static_cast<std::size_t>(n) >= report.revisionEnds.size()) {
    complain(opts.file, "no revision " + opts.extract + " (the file has " +
                            std::to_string(report.revisionEnds.size()) + ")");
    return kExitUsage;
  }
  const std::uint64_t end = report.revisionEnds[static_cast<std::size_t>(n)];
  if (!copyFileRange(opts.file, 0, end, opts.output)) {
    complain(opts.output, "cannot write");
    return kExitUsage;
  }
  std::cout << "wrote revision " << n << " (" << end << " bytes) to " << opts.output << "\n";
  return kExitOk;
}

}  // namespace

int runRevisions(const Args& args) {
  RevisionsOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;
  std::string why;
  auto report = examineDocument(opts.file, opts.password, &why);
  if (!report) {
    complain(opts.file, why);
    return kExitUsage;
  }
  if (!opts.extract.empty()) return extract(*report, opts);

  const std::vector<std::uint64_t>& ends = report->revisionEnds;
  auto signersOf = [&](std::size_t revision) {
    std::vector<std::string> names;
    for (const FieldReport& f : report->fields) {
      if (f.revision && static_cast<std::size_t>(*f.revision) == revision) names.push_back(f.field);
    }
    return names;
  };
  if (opts.json) {
    Json revisions = Json::array();
    for (std::size_t i = 0; i < ends.size(); ++i) {
      revisions.push_back(Json{{"revision", i}, {"end", ends[i]}, {"signed_by", signersOf(i)}});
    }
    printJson(std::cout, Json{{"file", opts.file}, {"size", report->size}, {"revisions", revisions}});
    return kExitOk;
  }
  std::cout << opts.file << ": " << ends.size() << " revision" << (ends.size() == 1 ? "" : "s") << ", "
            << report->size << " bytes\n";
  if (ends.empty()) return kExitOk;
  Table table({"REVISION", "END", "SIGNED BY"});
  for (std::size_t i = 0; i < ends.size(); ++i) {
    std::string names;
    for (const std::string& name : signersOf(i)) names += (names.empty() ? "" : ", ") + name;
    table.addRow({std::to_string(i), std::to_string(ends[i]), names.empty() ? "-" : names});
  }
  table.print(std::cout, "  ");
  if (static_cast<std::uint64_t>(ends.back()) != report->size) {
    std::cout << "  (" << report->size - static_cast<std::uint64_t>(ends.back())
              << " bytes after the last revision belong to none)\n";
  }
  return kExitOk;
}

}  // namespace sealmark
