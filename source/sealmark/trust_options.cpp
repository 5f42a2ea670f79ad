#include "trust_options.h"

#include "commands.h"
#include "output.h"

namespace sealmark {

void RevocationSources::addTo(ArgParser& parser) {
  parser.value("--crl-cache", &cacheDir).value("--ldap-servers", &ldapServers).flag("--no-nonce", &noNonce);
}

bool checkTime(const std::optional<std::string>& time, ArgParser& parser, int& exitCode) {
  if (!time || isDateText(*time)) return true;
  return parser.usageError("--time wants YYYYMMDDHHMM[SS][Z|+HHMM|-HHMM], not '" + *time + "'", exitCode);
}

void TrustOptions::addTo(ArgParser& parser) {
  parser.flag("--trust", &trust).repeated("--trust-anchor", &anchors).flag("--offline", &offline);
  sources.addTo(parser);
}

bool TrustOptions::check(ArgParser& parser, int& exitCode) const {
  if (!trust && (!anchors.empty() || offline || sources.any()))
    return parser.usageError(
        "--trust-anchor, --offline, --crl-cache, --ldap-servers and --no-nonce need --trust", exitCode);
  return true;
}

bool TrustOptions::load() {
  if (!trust) return true;
  for (const std::string& file : anchors) {
    PDF_Sealmark::PDFCert anchor;
    if (!loadCertificate(file, anchor)) return false;
    validation.trustAnchors.push_back(anchor);
  }
  validation.checkRevocation = !offline;
  validation.crlCacheDir = sources.cacheDir.value_or("");
  validation.ldapServers = sources.ldapServers.value_or("");
  validation.noNonce = sources.noNonce;
  return true;
}

}  // namespace sealmark
