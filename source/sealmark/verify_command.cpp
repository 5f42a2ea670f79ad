// sealmark verify: every signature field of each file, with its verdict.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "args.h"
#include "commands.h"
#include "output.h"
#include "report.h"
#include "report_html.h"
#include "trust_options.h"

namespace sealmark {

const char kVerifyHelp[] =
    "usage: sealmark verify [--password PW] [--json | --json-lines] [--jobs N] FILE|DIR...\n"
    "                       [--trust [--trust-anchor FILE]... [--offline] [--crl-cache DIR]\n"
    "                        [--ldap-servers LIST] [--no-nonce]]\n"
    "       sealmark verify [--password PW] FILE --extract-signed FIELD --output OUT\n"
    "\n"
    "Lists the signature fields of each PDF file and checks each signature\n"
    "over the bytes its /ByteRange names.  A directory is searched for *.pdf\n"
    "files.  Over many files on a terminal, progress goes to stderr.\n"
    "\n"
    "  --password PW   password of encrypted files (user or owner)\n"
    "  --password-file FILE  the same, from FILE's first line (- for stdin)\n"
    "  --json          print JSON instead of a table\n"
    "  --json-lines    print one JSON object per file, as each finishes\n"
    "  --jobs N        check N files at a time (default: the number of cores)\n"
    "  --extract-signed FIELD\n"
    "                  write the revision that FIELD's signature signed to OUT\n"
    "  --output OUT    where --extract-signed writes\n"
    "  --trust         also judge each signature: valid, invalid or indeterminate\n"
    "                  (certificate path, trust, revocation, time); see below\n"
    "  --trust-anchor FILE  a root certificate (DER or PEM) to trust for this run,\n"
    "                  besides the store ROOT; may be given several times\n"
    "  --offline       ask no OCSP responder and fetch no CRL\n"
    "  --crl-cache DIR, --ldap-servers LIST, --no-nonce\n"
    "                  as for 'sealmark revocation'\n"
    "  -h, --help      show this help\n"
    "\n"
    "A document time stamp (/SubFilter /ETSI.RFC3161) is listed with kind\n"
    "document_timestamp: intact when its token's imprint is the digest of the\n"
    "byte ranges and the token's signature holds.\n"
    "\n"
    "TIME STAMP is the time stamp a signature carries over its own value: it\n"
    "holds, does not hold, is not for this signature, or cannot be checked\n"
    "(damaged, or a closed service's token without that service's library).\n"
    "It leaves the signature's own verdict unchanged.\n"
    "\n"
    "With --trust, VALIDATION gives the verdict and its first reason.  The\n"
    "signer's certificate path is walked and checked at the time of the time\n"
    "stamp when it holds and its authority's path passes, else at the signing\n"
    "time the signer claims, else now; without a time stamp every certificate\n"
    "must also be valid now.  valid: intact, a path to a trusted root, nothing\n"
    "revoked, any time stamp holds.  invalid: not intact, a certificate revoked,\n"
    "or a time stamp that does not hold.  indeterminate: anything else (an\n"
    "unknown root, an expired certificate, revocation undecided).\n"
    "\n"
    "exit codes: 0 every signed field is intact (with --trust: valid), 1 a\n"
    "signature is not, 2 bad usage or a file that cannot be opened\n";

namespace {

struct VerifyOptions {
  std::string password;
  bool json = false;
  bool jsonLines = false;
  std::string jobs;
  std::vector<std::string> files;
  std::string extractField;  // --extract-signed
  std::string output;        // --output
  TrustOptions trust;
};

Json pathJson(const PathReport& p) {
  Json chain = Json::array(), revocation = Json::array();
  for (const PathElementReport& e : p.elements) {
    Json cert = certJson(e.cert);
    cert["valid_at_time"] = e.validAtTime;
    chain.push_back(cert);
    revocation.push_back(
        Json{{"sha1", e.cert.sha1}, {"status", e.revocation}, {"decided_by", orNull(e.decidedBy)}});
  }
  return Json{
      {"chain", chain}, {"chain_result", p.result}, {"trusted", p.trusted}, {"revocation", revocation}};
}

Json validationJson(const std::optional<ValidationReport>& v) {
  if (!v) return nullptr;
  Json json{{"verdict", v->verdict},
            {"reasons", v->reasons},
            {"checked_at", orNull(v->checkedAt)},
            {"time_source", orNull(v->timeSource)}};
  json.update(pathJson(v->chain));
  json["timestamp_chain"] = v->timeStampChain ? pathJson(*v->timeStampChain) : Json(nullptr);
  return json;
}

Json documentJson(const DocumentReport& report, bool trust) {
  Json signatures = Json::array();
  for (const FieldReport& f : report.fields) {
    Json certificates = Json::array();
    for (const CertReport& c : f.certificates) certificates.push_back(certJson(c));
    Json timeStamp = nullptr;
    if (const auto& t = f.timeStamp) {
      Json tsCertificates = Json::array();
      for (const CertReport& c : t->certificates) tsCertificates.push_back(certJson(c));
      timeStamp = Json{{"source", orNull(t->source)},
                       {"status", t->status},
                       {"holds", t->status == 0   ? Json(true)
                                 : t->status == 3 ? Json(nullptr)
                                                  : Json(false)},
                       {"time", orNull(t->time)},
                       {"type", orNull(t->type)},
                       {"certificates", tsCertificates}};
    }
    Json permission = nullptr;
    if (f.permission) permission = Json{{"P", f.permission->p}, {"field_mdp", f.permission->fieldMdp}};
    signatures.push_back(Json{{"field", f.field},
                              {"page", orNull(f.page)},
                              {"filter", orNull(f.filter)},
                              {"signed", f.isSigned},
                              {"kind", f.kind},
                              {"intact", orNull(f.intact)},
                              {"problem", orNull(f.problem)},
                              {"signing_time", orNull(f.signingTime)},
                              {"byte_range", orNull(f.byteRange)},
                              {"revision", orNull(f.revision)},
                              {"covers_whole_document", orNull(f.coversWholeDocument)},
                              {"coverage", orNull(f.coverage)},
                              {"permission", permission},
                              {"signer", orNull(f.signer)},
                              {"certificates", certificates},
                              {"timestamp", timeStamp}});
    if (trust) signatures.back()["validation"] = validationJson(f.validation);
  }
  return Json{{"file", report.file}, {"revisions", report.revisionEnds.size()}, {"signatures", signatures}};
}

std::string timeStampText(const std::optional<TimeStampReport>& t) {
  if (!t) return "-";
  const std::string verdict = timeStampVerdict(*t);
  return t->status == 0 ? verdict + " " + displayTime(t->time) : verdict;
}

std::string permissionText(const std::optional<PermissionReport>& p) {
  if (!p) return "-";
  static const char* const kNames[] = {"none", "no changes", "form filling", "annotations"};
  std::string text = p->p >= 0 && p->p <= 3 ? kNames[p->p] : "P=" + std::to_string(p->p);
  if (p->fieldMdp) text += ", field lock";
  return text;
}

void printTable(const DocumentReport& report, bool trust, std::ostream& out) {
  const std::size_t revisions = report.revisionEnds.size();
  out << report.file << ": " << revisions << " revision" << (revisions == 1 ? "" : "s") << ", ";
  if (report.fields.empty()) {
    out << "no signature fields\n";
    return;
  }
  out << report.fields.size() << " signature field" << (report.fields.size() == 1 ? "" : "s") << "\n";
  std::vector<std::string> header{"#",      "FIELD",      "PAGE",     "SIGNER",     "SIGNED AT",
                                  "INTACT", "TIME STAMP", "REVISION", "WHOLE FILE", "PERMITS"};
  if (trust) header.push_back("VALIDATION");
  Table table(header);
  int n = 0;
  for (const FieldReport& f : report.fields) {
    std::string signer = f.isSigned ? "(signer certificate not included)" : "(not signed)";
    if (f.signer) signer = shortName(f.certificates[*f.signer]);
    std::vector<std::string> row{std::to_string(++n),
                                 f.field,
                                 f.page ? std::to_string(*f.page) : "-",
                                 signer,
                                 displayTime(f.signingTime),
                                 !f.intact   ? "-"
                                 : *f.intact ? "yes"
                                             : "NO",
                                 timeStampText(f.timeStamp),
                                 f.revision ? std::to_string(*f.revision) : "-",
                                 !f.coversWholeDocument   ? "-"
                                 : *f.coversWholeDocument ? "yes"
                                                          : "no",
                                 permissionText(f.permission)};
    if (trust) {
      const auto& v = f.validation;
      row.push_back(!v ? "-" : v->reasons.empty() ? v->verdict : v->verdict + ": " + v->reasons.front());
    }
    table.addRow(row);
  }
  table.print(out, "  ");
}

bool parseArgs(const Args& args, VerifyOptions& opts, int& exitCode) {
  ArgParser parser("verify", kVerifyHelp);
  parser.flag("--json", &opts.json)
      .flag("--json-lines", &opts.jsonLines)
      .value("--jobs", &opts.jobs)
      .secret("--password", &opts.password)
      .value("--extract-signed", &opts.extractField)
      .value("--output", &opts.output);
  opts.trust.addTo(parser);
  if (!parser.parse(args, opts.files, exitCode) || !opts.trust.check(parser, exitCode)) return false;
  if (opts.trust.trust && !opts.extractField.empty())
    return parser.usageError("--trust and --extract-signed exclude each other", exitCode);
  if (opts.files.empty()) return parser.usageError("no FILE given", exitCode);
  if (opts.json && opts.jsonLines)
    return parser.usageError("--json and --json-lines exclude each other", exitCode);
  if (!opts.jobs.empty() && (opts.jobs.find_first_not_of("0123456789") != std::string::npos ||
                             opts.jobs.size() > 4 || std::stoi(opts.jobs) < 1)) {
    return parser.usageError("--jobs takes a number from 1", exitCode);
  }
  if (opts.extractField.empty() != opts.output.empty() ||
      (!opts.extractField.empty() && opts.files.size() != 1)) {
    return parser.usageError("--extract-signed FIELD needs --output OUT and exactly one FILE", exitCode);
  }
  return true;
}

// Writes the revision that the named field's signature signed.
int extractSigned(const VerifyOptions& opts) {
  const std::string& file = opts.files.front();
  std::string why;
  auto report = examineDocument(file, opts.password, &why);
  if (!report) {
    complain(file, why);
    return kExitUsage;
  }
  for (const FieldReport& f : report->fields) {
    if (f.field != opts.extractField) continue;
    if (!f.byteRange) {
      complain(file, "field " + opts.extractField + " has no signed revision");
      return kExitNotVerified;
    }
    // A range past the end would be padded with zeros that nobody signed.
    if (static_cast<std::uint64_t>(*f.signedEnd) > report->size) {
      complain(file, "the byte range of " + opts.extractField + " reaches past the end of the file");
      return kExitUsage;
    }
    if (!copyFileRange(file, static_cast<std::uint64_t>((*f.byteRange)[0]),
                       static_cast<std::uint64_t>(*f.signedEnd), opts.output)) {
      complain(opts.output, "cannot write");
      return kExitUsage;
    }
    std::cout << "wrote " << opts.output << "\n";
    return kExitOk;
  }
  complain(file, "no signature field named " + opts.extractField);
  return kExitUsage;
}

// The files named, with directories searched for *.pdf (sorted, so runs
// over the same tree list them alike).
std::vector<std::string> expandFiles(const std::vector<std::string>& operands) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (const std::string& operand : operands) {
    std::error_code error;
    if (!fs::is_directory(operand, error)) {
      files.push_back(operand);
      continue;
    }
    std::vector<std::string> found;
    for (fs::recursive_directory_iterator it(operand, fs::directory_options::skip_permission_denied, error),
         end;
         !error && it != end; it.increment(error)) {
      if (it->is_regular_file(error) && it->path().extension() == ".pdf")
        found.push_back(it->path().string());
    }
    std::sort(found.begin(), found.end());
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

// A signature that makes the exit code 1: not intact, or with --trust not
// valid.
bool fails(const FieldReport& f) {
  return (f.intact && !*f.intact) || (f.validation && f.validation->verdict != "valid");
}

struct Outcome {
  std::string text;  // what the file prints: its JSON line, or its table
  bool done = false;
  bool readable = false;
  bool fails = false;
};

}  // namespace

Json verifyJson(const DocumentReport& report) {
  const bool judged = std::any_of(report.fields.begin(), report.fields.end(),
                                  [](const FieldReport& f) { return f.validation.has_value(); });
  return documentJson(report, judged);
}

int runVerify(const Args& args) {
  VerifyOptions opts;
  int exitCode = kExitOk;
  if (!parseArgs(args, opts, exitCode)) return exitCode;
  if (!opts.extractField.empty()) return extractSigned(opts);
  if (!opts.trust.load()) return kExitUsage;

  const std::vector<std::string> files = expandFiles(opts.files);
  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  const std::size_t jobs = std::min<std::size_t>(
      opts.jobs.empty() ? cores : static_cast<std::size_t>(std::stoi(opts.jobs)), files.size());
  // Files in parallel, or the signatures of one file on the cores.
  const unsigned perFile = jobs > 1 ? 1 : 0;
  const bool progress = files.size() > 1 && !opts.jsonLines && ::isatty(STDERR_FILENO);

  std::vector<Outcome> outcomes(files.size());
  std::mutex mutex;
  std::size_t next = 0, finished = 0, failed = 0;
  // Output in the order of the arguments goes out as soon as every file
  // before it is done, and each report is dropped once judged, so that
  // memory doesn't grow with the number of files and little is left to do
  // after the last one.  --json-lines prints in the order files finish.
  std::size_t printed = 0;
  bool opened = false;  // the JSON array's "[" is out
  auto printReady = [&] {  // with mutex held
    for (; printed < outcomes.size() && outcomes[printed].done; ++printed) {
      Outcome& o = outcomes[printed];
      if (!o.readable || opts.jsonLines) continue;
      if (opts.json && files.size() > 1) {
        std::cout << (opened ? "," : "[") << o.text.substr(0, o.text.size() - 1);
        opened = true;
      } else {
        std::cout << o.text;
      }
      std::string().swap(o.text);
    }
  };
  auto finish = [&](std::size_t i, std::unique_ptr<DocumentReport> report, const std::string& why) {
    // with mutex held
    Outcome& o = outcomes[i];
    o.done = true;
    o.readable = report != nullptr;
    if (report) o.fails = std::any_of(report->fields.begin(), report->fields.end(), fails);
    ++finished;
    failed += !o.readable || o.fails;
    if (progress) std::cerr << "\r\033[K";  // what is printed replaces the progress line
    if (!o.readable) complain(files[i], why);
    if (opts.jsonLines && o.readable) std::cout << o.text;
    printReady();
    std::cout.flush();
    if (progress)
      std::cerr << "\r" << finished << "/" << files.size() << " files, " << failed << " failed" << std::flush;
  };
  auto worker = [&] {
    for (;;) {
      std::size_t i;
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (next == files.size()) return;
        i = next++;
      }
      std::string why;
      auto report = examineDocument(files[i], opts.password, &why, perFile, opts.trust.forCheck());
      // The output too is made here, on the worker, not by one thread at
      // the end.
      std::ostringstream text;
      if (report && (opts.json || opts.jsonLines)) {
        printJson(text, documentJson(*report, opts.trust.trust));
      } else if (report) {
        printTable(*report, opts.trust.trust, text);
      }
      std::string out = text.str();
      std::lock_guard<std::mutex> lock(mutex);
      outcomes[i].text = std::move(out);
      finish(i, std::move(report), why);
    }
  };
  // All threads start at once.  Their first files meet what the process sets
  // up once (OpenSSL's providers, the shared certificates) together, and each
  // takes longer than one alone would; both are still done sooner than a
  // first file checked alone while the other cores wait.
  std::vector<std::thread> pool;
  for (std::size_t j = 1; j < jobs; ++j) pool.emplace_back(worker);
  worker();
  for (std::thread& t : pool) t.join();
  if (progress) std::cerr << "\n";
  if (opts.json && files.size() > 1) std::cout << (opened ? "" : "[") << "]\n";

  for (const Outcome& o : outcomes) {
    if (!o.readable) {
      exitCode = kExitUsage;
    } else if (o.fails && exitCode == kExitOk) {
      exitCode = kExitNotVerified;
    }
  }
  return exitCode;
}

}  // namespace sealmark
