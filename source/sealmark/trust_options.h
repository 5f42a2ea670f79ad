// The options that ask for a full validation verdict, shared by the
// commands that give one (verify, report).
#ifndef SEALMARK_TRUST_OPTIONS_H
#define SEALMARK_TRUST_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "pdfsealmark/PDFValidation.h"

namespace sealmark {

struct TrustOptions {
  bool trust = false;
  std::vector<std::string> anchors;  // --trust-anchor files
  bool offline = false;
  std::optional<std::string> cacheDir;
  std::optional<std::string> ldapServers;
  bool noNonce = false;
  PDF_Sealmark::PDFValidation::Options validation;  // filled by load()

  // --trust, --trust-anchor, --offline, --crl-cache, --ldap-servers, --no-nonce.
  void addTo(ArgParser& parser);
  // After parsing: the others need --trust.
  bool check(ArgParser& parser, int& exitCode) const;
  // Reads the anchors and fills `validation`; false, after saying why on
  // stderr, when an anchor can't be read.
  bool load();
  // What examineDocument takes: null without --trust.
  const PDF_Sealmark::PDFValidation::Options* forCheck() const { return trust ? &validation : nullptr; }
};

}  // namespace sealmark

#endif
