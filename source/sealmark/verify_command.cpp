// sealmark verify: every signature field of each file, with its verdict.
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commands.h"
#include "output.h"
#include "pdfsealmark/PDFSealmarkVerify.h"

namespace sealmark {

const char kVerifyHelp[] =
    "usage: sealmark verify [--password PW] [--json] FILE...\n"
    "\n"
    "Lists the signature fields of each PDF file and checks each signature\n"
    "over the bytes its /ByteRange names.\n"
    "\n"
    "  --password PW   password of encrypted files (user or owner)\n"
    "  --json          print JSON instead of a table\n"
    "  -h, --help      show this help\n"
    "\n"
    "exit codes: 0 every signed field is intact, 1 a signature is not intact,\n"
    "2 bad usage or a file that cannot be opened\n";

namespace {

struct VerifyOptions {
  std::string password;
  bool json = false;
  std::vector<std::string> files;
};

// What one signature field tells.
struct FieldReport {
  std::string field;
  std::optional<int> page;
  std::optional<std::string> filter;
  bool isSigned = false;
  std::optional<bool> intact;
};

struct FileReport {
  std::string file;
  std::vector<FieldReport> fields;
};

FieldReport examine(PDF_Folio::CSigField* field) {
  FieldReport r;
  r.field = field->getName();
  PDF_Sealmark::PDFSealmarkVerify v;
  v.parse(field);
  if (v.getPageNum() > 0) r.page = v.getPageNum();
  if (PDF_Vellum::PDFAcroform* sigDict = v.getSigDict()) {
    PDF_Vellum::PDFObject* filter = sigDict->getContents("/Filter");
    if (filter && filter->getString()) {
      r.filter = std::string(filter->getString(), static_cast<std::size_t>(filter->getLenth()));
    }
  }
  r.isSigned = v.getHasSigned();
  if (r.isSigned) r.intact = v.verify();
  return r;
}

void printJson(const FileReport& report, JsonWriter& json) {
  json.beginObject().key("file").value(report.file).key("signatures").beginArray();
  for (const FieldReport& f : report.fields) {
    json.beginObject()
        .key("field").value(f.field)
        .key("page").value(f.page)
        .key("filter").value(f.filter)
        .key("signed").value(f.isSigned)
        .key("intact").value(f.intact)
        .endObject();
  }
  json.endArray().endObject();
}

void printTable(const FileReport& report, std::ostream& out) {
  out << report.file << ": ";
  if (report.fields.empty()) {
    out << "no signature fields\n";
    return;
  }
  out << report.fields.size() << " signature field" << (report.fields.size() == 1 ? "" : "s") << "\n";
  Table table({"#", "FIELD", "PAGE", "FILTER", "SIGNED", "INTACT"});
  int n = 0;
  for (const FieldReport& f : report.fields) {
    table.addRow({std::to_string(++n), f.field, f.page ? std::to_string(*f.page) : "-", f.filter.value_or("-"),
                  f.isSigned ? "yes" : "no", !f.intact ? "-" : *f.intact ? "yes" : "NO"});
  }
  table.print(out, "  ");
}

bool parseArgs(const Args& args, VerifyOptions& opts, int& exitCode) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-h" || a == "--help") {
      std::cout << kVerifyHelp;
      exitCode = kExitOk;
      return false;
    }
    if (a == "--json") {
      opts.json = true;
    } else if (a == "--password") {
      if (i + 1 == args.size()) {
        complain("verify", "--password needs a value");
        exitCode = kExitUsage;
        return false;
      }
      opts.password = args[++i];
    } else if (a.rfind("--password=", 0) == 0) {
      opts.password = a.substr(11);
    } else if (a == "--") {
      opts.files.insert(opts.files.end(), args.begin() + static_cast<long>(i) + 1, args.end());
      break;
    } else if (a.size() > 1 && a[0] == '-') {
      complain("verify", "unknown option " + a + " (see 'sealmark verify --help')");
      exitCode = kExitUsage;
      return false;
    } else {
      opts.files.push_back(a);
    }
  }
  if (opts.files.empty()) {
    complain("verify", "no FILE given (see 'sealmark verify --help')");
    exitCode = kExitUsage;
    return false;
  }
  return true;
}

}  // namespace

int runVerify(const Args& args) {
  VerifyOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;

  std::vector<FileReport> reports;
  for (const std::string& file : opts.files) {
    std::string why;
    auto doc = PDF_Vellum::PDFDocument::open(file, opts.password, &why);
    if (!doc) {
      complain(file, why);
      exitCode = kExitUsage;
      continue;
    }
    FileReport report{file, {}};
    PDF_Folio::CForm form(doc.get());
    for (PDF_Folio::CSigField* field : form.getSigFields()) {
      report.fields.push_back(examine(field));
      const FieldReport& f = report.fields.back();
      if (f.intact && !*f.intact && exitCode == kExitOk) exitCode = kExitNotVerified;
    }
    reports.push_back(std::move(report));
  }

  if (opts.json) {
    JsonWriter json(std::cout);
    if (opts.files.size() > 1) json.beginArray();
    for (const FileReport& r : reports) printJson(r, json);
    if (opts.files.size() > 1) json.endArray();
    if (!reports.empty() || opts.files.size() > 1) std::cout << "\n";
  } else {
    for (const FileReport& r : reports) printTable(r, std::cout);
  }
  return exitCode;
}

}  // namespace sealmark
