#include "pdfsealmark/trust/crl_url.h"

#include <cxxabi.h>
#include <openssl/asn1.h>
#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "pdfsealmark/cert/CodepageText.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

namespace {

// Filled once at load; the index of a prefix is its scheme number.
const char* const kSchemes[] = {"http:", "https:", "ldap:", "ftp:", "file:"};

const char kLdapWithoutServer[] = "ldap:/";
const char kCrlSelector[] = "?certificateRevocationList;binary";

// A strdup that takes a length, so that the text of an ASN.1 string with no
// terminator of its own is copied safely; it ends at an embedded NUL.
const char* copyText(const std::string& text) {
  char* copy = ::strndup(text.c_str(), text.size());
  if (copy == nullptr) throw std::bad_alloc();
  return copy;
}

std::string bytesOf(const ASN1_STRING* s) {
  const unsigned char* data = ASN1_STRING_get0_data(s);
  const int length = ASN1_STRING_length(s);
  if (data == nullptr || length <= 0) return {};
  return std::string(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
}

}  // namespace

int schemeIndex(const char* url) {
  if (url == nullptr) return -1;
  for (int i = 0; i < static_cast<int>(sizeof kSchemes / sizeof kSchemes[0]); ++i) {
    if (std::strncmp(url, kSchemes[i], std::strlen(kSchemes[i])) == 0) return i;
  }
  return -1;
}

std::string ldapCrlQuery(const X509_NAME* name) {
  std::string text;
  if (name == nullptr) return text;
  // An LDAP DN (RFC 4514) lists the most specific attribute first, the
  // reverse of the order in which X.501 encodes the RDNs.
  for (int i = X509_NAME_entry_count(name) - 1; i >= 0; --i) {
    const X509_NAME_ENTRY* entry = X509_NAME_get_entry(name, i);
    if (entry == nullptr) continue;
    const ASN1_OBJECT* object = X509_NAME_ENTRY_get_object(entry);
    const ASN1_STRING* value = X509_NAME_ENTRY_get_data(entry);
    if (object == nullptr || value == nullptr) continue;
    const char* shortName = OBJ_nid2sn(OBJ_obj2nid(object));
    std::string bytes = bytesOf(value);
    // The directory is asked in the toolkit's code page; only a UTF8String
    // is converted, a BMPString or T61String goes as stored.
    if (ASN1_STRING_type(value) == V_ASN1_UTF8STRING)
      bytes = CodepageText(bytes.c_str(), "UTF-8").getBytes("CP932");
    text += shortName ? shortName : "";
    text += "=";
    text += bytes;
    text += i > 0 ? "," : kCrlSelector;
  }
  return text;
}

std::vector<std::string> splitServerList(const char* text) {
  std::vector<std::string> servers;
  if (text == nullptr) return servers;
  const std::string all(text);
  // One server must be written "ldap://host/," : a text without a comma is
  // no list.
  if (all.find(',') == std::string::npos) return servers;
  std::size_t start = 0;
  while (start <= all.size()) {
    std::size_t comma = all.find(',', start);
    if (comma == std::string::npos) comma = all.size();
    if (comma > start) servers.push_back(all.substr(start, comma - start));
    start = comma + 1;
  }
  return servers;
}

std::vector<const char*> crlUrls(const X509* cert, const char* ldapServers) {
  if (cert == nullptr) return {};
  // CRLDistributionPoints ::= SEQUENCE SIZE (1..MAX) OF DistributionPoint
  // DistributionPoint ::= SEQUENCE {
  //      distributionPoint       [0]     DistributionPointName OPTIONAL,
  //      reasons                 [1]     ReasonFlags OPTIONAL,
  //      cRLIssuer               [2]     GeneralNames OPTIONAL }
  // DistributionPointName ::= CHOICE {
  //      fullName                [0]     GeneralNames,
  //      nameRelativeToCRLIssuer [1]     RelativeDistinguishedName }
  ossl::UniquePtr<CRL_DIST_POINTS> points(
      static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(cert, NID_crl_distribution_points, nullptr, nullptr)));
  if (!points) return {};
  CrlUrlList out;  // frees what is collected should an allocation throw
  bool serversSplit = false;
  std::vector<std::string> servers;
  for (int i = 0; i < sk_DIST_POINT_num(points.get()); ++i) {
    const DIST_POINT* point = sk_DIST_POINT_value(points.get(), i);
    // A point without a full name (none at all, only a cRLIssuer, or a
    // relative name) ends the list: what was found so far is the answer.
    if (point == nullptr || point->distpoint == nullptr || point->distpoint->type != 0) break;
    const GENERAL_NAMES* names = point->distpoint->name.fullname;
    if (names == nullptr || sk_GENERAL_NAME_num(names) == 0) break;
    for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
      const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, j);
      if (name == nullptr) continue;
      if (name->type == GEN_URI) {
        out.add(copyText(bytesOf(name->d.uniformResourceIdentifier)));
      } else if (name->type == GEN_DIRNAME) {
        const std::string query = ldapCrlQuery(name->d.directoryName);
        if (query.empty()) continue;
        if (!serversSplit && ldapServers != nullptr) {
          servers = splitServerList(ldapServers);
          serversSplit = true;
        }
        if (servers.empty()) {
          out.add(copyText(kLdapWithoutServer + query));
        } else {
          for (const std::string& server : servers) out.add(copyText(server + query));
        }
      }
    }
  }
  return out.release();
}

void CrlUrlList::add(const char* url) {
  try {
    urls_.push_back(url);
  } catch (abi::__forced_unwind&) {
    throw;  // a cancelled thread must unwind, or the process aborts
  } catch (...) {
    std::free(const_cast<char*>(url));
    throw;
  }
}

CrlUrlList::~CrlUrlList() {
  for (const char* url : urls_) std::free(const_cast<char*>(url));
}

// --- PDFCertImpl ------------------------------------------------------------------

std::vector<const char*> PDFCertImpl::getCrlUrl(const char* ldapServers) const {
  return crlUrls(x509, ldapServers);
}

}  // namespace PDF_Sealmark
