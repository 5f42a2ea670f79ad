// sealmark: check the digital signatures of PDF files from the command line.
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "commands.h"

namespace {

const char kUsage[] =
    "usage: sealmark COMMAND [OPTIONS] ARGS...\n"
    "\n"
    "Checks and makes the digital signatures of PDF files.\n"
    "\n"
    "commands:\n"
    "  verify     check every signature field of PDF files\n"
    "  revisions  list the revisions of a PDF file, or write one out\n"
    "  cert show  print the fields of a certificate file (DER, PEM, PKCS#12)\n"
    "  cert generate  make a key and a self-signed certificate as a PKCS#12 file\n"
    "  timestamp  get an RFC 3161 time-stamp token over a file from a server\n"
    "  revocation check whether a certificate is revoked (OCSP, then its CRLs)\n"
    "  chain      walk a certificate's issuer path and check each certificate on it\n"
    "  sign       sign a PDF file with a PKCS#12 key or a key in the store (incremental update)\n"
    "  timestamp-document  add an RFC 3161 document time stamp to a PDF file\n"
    "  store      list, import, add, export and delete certificates of the system's stores\n"
    "  report     draw a signed PDF's revisions and signatures as an HTML page\n"
    "\n"
    "Run 'sealmark COMMAND --help' for the options of a command.\n"
    "\n"
    "exit codes: 0 all good, 1 something did not verify, 2 bad usage or unreadable input\n";

struct Command {
  const char* name;
  int (*run)(const sealmark::Args&);
};

const Command kCommands[] = {
    {"verify", sealmark::runVerify},
    {"revisions", sealmark::runRevisions},
    {"cert", sealmark::runCert},
    {"timestamp", sealmark::runTimestamp},
    {"revocation", sealmark::runRevocation},
    {"sign", sealmark::runSign},
    {"timestamp-document", sealmark::runTimestampDocument},
    {"store", sealmark::runStore},
    {"report", sealmark::runReport},
    {"chain", sealmark::runChain},
};

}  // namespace

namespace sealmark {

void complain(const std::string& what, const std::string& reason) {
  std::cerr << "sealmark: " << what << ": " << reason << std::endl;
}

bool loadCertificate(const std::string& file, PDF_Sealmark::PDFCert& cert) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    complain(file, std::strerror(errno));
    return false;
  }
  if (!cert.loadX509(in, true)) {
    complain(file, "no certificate in DER or PEM");
    return false;
  }
  return true;
}

bool loadCertificates(const std::vector<std::string>& files, std::vector<PDF_Sealmark::PDFCert>& certs) {
  certs.clear();
  certs.resize(files.size());  // each its own object: copies of one PDFCert share it
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!loadCertificate(files[i], certs[i])) return false;
  }
  return true;
}

}  // namespace sealmark

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << kUsage;
    return sealmark::kExitUsage;
  }
  const std::string name = argv[1];
  if (name == "--help" || name == "-h" || name == "help") {
    std::cout << kUsage;
    return sealmark::kExitOk;
  }
  if (name == "--version") {
    std::cout << "sealmark 27.0.0\n";
    return sealmark::kExitOk;
  }
  for (const Command& command : kCommands) {
    if (name == command.name) return command.run(sealmark::Args(argv + 2, argv + argc));
  }
  sealmark::complain(name, "unknown command (see 'sealmark --help')");
  return sealmark::kExitUsage;
}
