// The options that say where revocation answers come from (chain,
// revocation), and those that ask for a full validation verdict, which
// include them (verify, report).
#ifndef SEALMARK_TRUST_OPTIONS_H
#define SEALMARK_TRUST_OPTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "args.h"
#include "pdfsealmark/PDFValidation.h"

namespace sealmark {

struct RevocationSources {
  std::optional<std::string> cacheDir;
  std::optional<std::string> ldapServers;
  bool noNonce = false;

  // --crl-cache, --ldap-servers, --no-nonce.
  void addTo(ArgParser& parser);
  bool any() const { return cacheDir || ldapServers || noNonce; }
  // As the library takes them: null when not given.
  const char* cacheDirOrNull() const { return cacheDir ? cacheDir->c_str() : nullptr; }
  const char* ldapServersOrNull() const { return ldapServers ? ldapServers->c_str() : nullptr; }
};

// --time DATE: false, after a usage error, when DATE is not a date.
bool checkTime(const std::optional<std::string>& time, ArgParser& parser, int& exitCode);

struct TrustOptions {
  bool trust = false;
  std::vector<std::string> anchors;  // --trust-anchor files
  bool offline = false;
  RevocationSources sources;
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
