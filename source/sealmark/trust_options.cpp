#include "trust_options.h"

#include "commands.h"

namespace sealmark {

void TrustOptions::addTo(ArgParser& parser) {
  parser.flag("--trust", &trust)
      .repeated("--trust-anchor", &anchors)
      .flag("--offline", &offline)
      .value("--crl-cache", &cacheDir)
      .value("--ldap-servers", &ldapServers)
      .flag("--no-nonce", &noNonce);
}

bool TrustOptions::check(ArgParser& parser, int& exitCode) const {
  if (!trust && (!anchors.empty() || offline || cacheDir || ldapServers || noNonce))
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
  validation.crlCacheDir = cacheDir.value_or("");
  validation.ldapServers = ldapServers.value_or("");
  validation.noNonce = noNonce;
  return true;
}

}  // namespace sealmark
