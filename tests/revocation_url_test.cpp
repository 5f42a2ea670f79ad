// Where a certificate's CRLs are: the distribution point extension turned
// into URLs, the scheme table and the ";binary" rule of LDAP retrievals.
#include <gtest/gtest.h>

#include <openssl/x509v3.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/platform/crl_retrieve.h"
#include "pdfsealmark/trust/crl_check.h"
#include "pdfsealmark/trust/crl_url.h"

namespace {

using PDF_Sealmark::PDFCert;

// Builds a cRLDistributionPoints extension point by point.
class DistributionPoints {
 public:
  DistributionPoints() : points_(sk_DIST_POINT_new_null()) {}
  ~DistributionPoints() { sk_DIST_POINT_pop_free(points_, DIST_POINT_free); }

  DistributionPoints& uri(const std::string& url) { return full(uriName(url)); }
  DistributionPoints& dirName(X509_NAME* name) {
    GENERAL_NAME* g = GENERAL_NAME_new();
    g->type = GEN_DIRNAME;
    g->d.directoryName = name;
    return full(g);
  }
  DistributionPoints& relativeName() {
    DIST_POINT* point = DIST_POINT_new();
    point->distpoint = DIST_POINT_NAME_new();
    point->distpoint->type = 1;
    point->distpoint->name.relativename = sk_X509_NAME_ENTRY_new_null();
    sk_X509_NAME_ENTRY_push(point->distpoint->name.relativename,
                            X509_NAME_ENTRY_create_by_txt(nullptr, "CN", MBSTRING_ASC,
                                                          reinterpret_cast<const unsigned char*>("CRL1"), -1));
    sk_DIST_POINT_push(points_, point);
    return *this;
  }
  DistributionPoints& issuerOnly() {
    DIST_POINT* point = DIST_POINT_new();
    point->CRLissuer = GENERAL_NAMES_new();
    sk_GENERAL_NAME_push(point->CRLissuer, uriName("http://issuer.example/"));
    sk_DIST_POINT_push(points_, point);
    return *this;
  }
  // Two names in one point.
  DistributionPoints& uris(const std::string& a, const std::string& b) {
    DIST_POINT* point = DIST_POINT_new();
    point->distpoint = DIST_POINT_NAME_new();
    point->distpoint->type = 0;
    point->distpoint->name.fullname = GENERAL_NAMES_new();
    sk_GENERAL_NAME_push(point->distpoint->name.fullname, uriName(a));
    sk_GENERAL_NAME_push(point->distpoint->name.fullname, uriName(b));
    sk_DIST_POINT_push(points_, point);
    return *this;
  }

  // A self-signed certificate holding them.
  PDFCert cert() const {
    static EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* x = X509_new();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 1);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    X509_set_pubkey(x, key);
    X509_add1_ext_i2d(x, NID_crl_distribution_points, points_, 0, 0);
    X509_sign(x, key, EVP_sha256());
    PDFCert out = PDF_Sealmark::makePDFCert(x);
    X509_free(x);
    return out;
  }

 private:
  static GENERAL_NAME* uriName(const std::string& url) {
    GENERAL_NAME* g = GENERAL_NAME_new();
    ASN1_IA5STRING* s = ASN1_IA5STRING_new();
    ASN1_STRING_set(s, url.data(), static_cast<int>(url.size()));
    GENERAL_NAME_set0_value(g, GEN_URI, s);
    return g;
  }
  DistributionPoints& full(GENERAL_NAME* name) {
    DIST_POINT* point = DIST_POINT_new();
    point->distpoint = DIST_POINT_NAME_new();
    point->distpoint->type = 0;
    point->distpoint->name.fullname = GENERAL_NAMES_new();
    sk_GENERAL_NAME_push(point->distpoint->name.fullname, name);
    sk_DIST_POINT_push(points_, point);
    return *this;
  }
  STACK_OF(DIST_POINT) * points_;
};

X509_NAME* name(std::initializer_list<std::pair<const char*, std::string>> entries, int type = MBSTRING_ASC) {
  X509_NAME* n = X509_NAME_new();
  for (const auto& e : entries) {
    X509_NAME_add_entry_by_txt(n, e.first, type, reinterpret_cast<const unsigned char*>(e.second.data()),
                               static_cast<int>(e.second.size()), -1, 0);
  }
  return n;
}

std::vector<std::string> urlsOf(const PDFCert& cert, const char* servers) {
  std::vector<const char*> raw = servers == nullptr ? cert.getCrlUrl()
                                                    : PDF_Sealmark::PDFCertImpl::implOf(cert)->getCrlUrl(servers);
  std::vector<std::string> urls(raw.begin(), raw.end());
  for (const char* url : raw) std::free(const_cast<char*>(url));
  return urls;
}

const std::string kSelector = "?certificateRevocationList;binary";

TEST(CrlUrls, ExtensionOrderAndWhereTheListStops) {
  const PDFCert cert = DistributionPoints()
                           .uri("http://a.example/1.crl")
                           .uris("ftp://b.example/2.crl", "file:///c/3.crl")
                           .relativeName()
                           .uri("http://never.example/")
                           .cert();
  EXPECT_EQ(urlsOf(cert, nullptr),
            (std::vector<std::string>{"http://a.example/1.crl", "ftp://b.example/2.crl", "file:///c/3.crl"}));
  const PDFCert issuerOnly = DistributionPoints().uri("http://a.example/").issuerOnly().uri("http://b/").cert();
  EXPECT_EQ(urlsOf(issuerOnly, nullptr), std::vector<std::string>{"http://a.example/"});
  EXPECT_TRUE(urlsOf(PDFCert(), nullptr).empty());
}

TEST(CrlUrls, DirectoryNamesBecomeLdapUrls) {
  const PDFCert cert =
      DistributionPoints().dirName(name({{"C", "JP"}, {"O", "Acme"}, {"CN", "Root"}})).uri("http://x/").cert();
  const std::string query = "CN=Root,O=Acme,C=JP" + kSelector;
  EXPECT_EQ(urlsOf(cert, nullptr), (std::vector<std::string>{"ldap:/" + query, "http://x/"}));
  EXPECT_EQ(urlsOf(cert, "ldap://d1:389/,ldap://d2/"),
            (std::vector<std::string>{"ldap://d1:389/" + query, "ldap://d2/" + query, "http://x/"}));
  EXPECT_EQ(urlsOf(cert, ",,ldap://d1/,,"), (std::vector<std::string>{"ldap://d1/" + query, "http://x/"}));
  // One server needs its comma; without it there is no server at all.
  EXPECT_EQ(urlsOf(cert, "ldap://d1/"), (std::vector<std::string>{"ldap:/" + query, "http://x/"}));
  EXPECT_EQ(urlsOf(cert, ""), (std::vector<std::string>{"ldap:/" + query, "http://x/"}));
}

TEST(CrlUrls, DirectoryStringsInCodePage932OrAsStored) {
  // "日本" is 93 FA 96 7B in Shift_JIS / CP932, 65 E5 67 2C in UTF-16BE.
  const PDFCert utf8 = DistributionPoints().dirName(name({{"CN", "\xE6\x97\xA5\xE6\x9C\xAC"}}, MBSTRING_UTF8)).cert();
  EXPECT_EQ(urlsOf(utf8, nullptr), std::vector<std::string>{"ldap:/CN=\x93\xFA\x96\x7B" + kSelector});
  const PDFCert bmp =
      DistributionPoints().dirName(name({{"CN", std::string("\x65\xE5\x67\x2C", 4)}}, V_ASN1_BMPSTRING)).cert();
  EXPECT_EQ(urlsOf(bmp, nullptr), std::vector<std::string>{"ldap:/CN=\x65\xE5\x67\x2C" + kSelector});
}

TEST(CrlUrls, SchemeTableAndServerList) {
  EXPECT_EQ(PDF_Sealmark::schemeIndex("http://x"), 0);
  EXPECT_EQ(PDF_Sealmark::schemeIndex("https://x"), 1);
  EXPECT_EQ(PDF_Sealmark::schemeIndex("ldap:/x"), 2);
  EXPECT_EQ(PDF_Sealmark::schemeIndex("ftp://x"), 3);
  EXPECT_EQ(PDF_Sealmark::schemeIndex("file:///x"), 4);
  for (const char* other : {"HTTP://x", "Ldap://x", "ldaps://x", "gopher://x", "http", ""})
    EXPECT_EQ(PDF_Sealmark::schemeIndex(other), -1) << other;
  EXPECT_EQ(PDF_Sealmark::schemeIndex(nullptr), -1);
  EXPECT_EQ(PDF_Sealmark::splitServerList(" a , b,"), (std::vector<std::string>{" a ", " b"}));
  EXPECT_TRUE(PDF_Sealmark::splitServerList("only").empty());
  EXPECT_TRUE(PDF_Sealmark::splitServerList(",,,").empty());
  EXPECT_TRUE(PDF_Sealmark::splitServerList(nullptr).empty());
}

// The platform seam: records what the retrieval was asked for.
class RecordingRetrieval : public PDF_Sealmark::platform::UrlRetrievalApi {
 public:
  RecordingRetrieval() { previous_ = PDF_Sealmark::platform::setUrlRetrieval(this); }
  ~RecordingRetrieval() override { PDF_Sealmark::platform::setUrlRetrieval(previous_); }
  bool CryptRetrieveObjectByUrlA(const char* url, std::uint32_t type, std::uint32_t flags, std::uint32_t timeoutMs,
                                 std::vector<unsigned char>& encoded) override {
    asked.emplace_back(url);
    EXPECT_EQ(type, 2u);
    EXPECT_EQ(flags, 4u);
    EXPECT_EQ(timeoutMs, 30000u);
    encoded = answer;
    return !answer.empty();
  }
  std::vector<std::string> asked;
  std::vector<unsigned char> answer{1, 2, 3};

 private:
  PDF_Sealmark::platform::UrlRetrievalApi* previous_;
};

TEST(RetrieveCrl, LdapUrlsAskForTheBinaryOption) {
  RecordingRetrieval platform;
  EXPECT_EQ(PDF_Sealmark::retrieveCRL("ldap:x"), platform.answer);
  PDF_Sealmark::retrieveCRL(("ldap://d/CN=R" + kSelector).c_str());
  PDF_Sealmark::retrieveCRL("http://h/a;b");
  EXPECT_TRUE(PDF_Sealmark::retrieveCRL("LDAP://d/x").empty());
  EXPECT_TRUE(PDF_Sealmark::retrieveCRL(nullptr).empty());
  EXPECT_EQ(platform.asked,
            (std::vector<std::string>{"ldap:x;binary", "ldap://d/CN=R" + kSelector, "http://h/a;b"}));
  platform.answer.clear();
  EXPECT_TRUE(PDF_Sealmark::retrieveCRL("http://h/").empty());
}

}  // namespace
