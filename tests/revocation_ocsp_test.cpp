// The OCSP half of the revocation check, against `openssl ocsp` answering
// for an `openssl ca` database behind a loopback HTTP server.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/trust/ocsp_check.h"
#include "support/test_ca.h"

namespace {

using PDF_Sealmark::PDFCert;
using sealtest::TestCa;
using sealtest::TestOcspResponder;

using sealtest::loadCertFile;
using sealtest::x509Of;

class OcspCheck : public ::testing::Test {
 protected:
  void SetUp() override {
    responder_ = std::make_unique<TestOcspResponder>(ca_);
    issuer_ = loadCertFile(ca_.certFile());
  }

  // A leaf naming the responder, and a CRL at a URL that must stay unread
  // whenever the responder answers.
  PDFCert leaf(const std::string& serial, const std::string& ocspUrl) {
    return loadCertFile(ca_.issue("leaf" + serial, serial,
                              "authorityInfoAccess=OCSP;URI:" + ocspUrl + "\ncrlDistributionPoints=URI:" +
                                  crls_.url("/ca.crl")));
  }

  TestCa ca_;
  std::unique_ptr<TestOcspResponder> responder_;
  sealtest::CrlServer crls_;
  PDFCert issuer_;
};

TEST_F(OcspCheck, ResponderStatusDecidesWithoutAnyCrl) {
  crls_.put("/ca.crl", ca_.crl());
  PDFCert good = leaf("1001", responder_->url());
  PDFCert revoked = leaf("1002", responder_->url());
  ca_.markRevoked("1002", sealtest::utcTime(std::time(nullptr) - 3600));
  // Unknown: a serial the database has never seen, under the same issuer.
  PDFCert unknown = leaf("1003", responder_->url());
  ca_.forget("1003");

  EXPECT_TRUE(good.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(good.getValid(), 2);
  EXPECT_FALSE(revoked.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(revoked.getValid(), 2);
  EXPECT_FALSE(unknown.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(unknown.getValid(), 2);
  EXPECT_EQ(responder_->answered(), 3);
  EXPECT_EQ(crls_.hits("/ca.crl"), 0);

  const auto requests = responder_->server().requests();
  ASSERT_FALSE(requests.empty());
  EXPECT_EQ(requests[0].requestLine.substr(0, 10), "POST /ocsp");
  EXPECT_EQ(requests[0].header("Content-Type"), "application/ocsp-request");
}

TEST_F(OcspCheck, NonceMustComeBackUnlessNoneWasAsked) {
  crls_.put("/ca.crl", ca_.crl());
  PDFCert cert = leaf("2001", responder_->url());

  responder_->setNonce(TestOcspResponder::Nonce::kDrop);
  // A nonce was asked and not echoed: no usable answer, the CRL decides.
  EXPECT_TRUE(cert.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(cert.getValid(), 1);
  // Without a nonce in the request the same responder is believed.
  EXPECT_TRUE(cert.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 1));
  EXPECT_EQ(cert.getValid(), 2);

  responder_->setNonce(TestOcspResponder::Nonce::kReplace);
  EXPECT_TRUE(cert.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(cert.getValid(), 1);
  // A nonce in the response that the request didn't have is accepted.
  EXPECT_TRUE(cert.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 1));
  EXPECT_EQ(cert.getValid(), 2);

  responder_->setNonce(TestOcspResponder::Nonce::kEcho);
  EXPECT_TRUE(cert.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(cert.getValid(), 2);
  EXPECT_EQ(crls_.hits("/ca.crl"), 2);
}

TEST_F(OcspCheck, SignatureMustLeadToIssuerOrChain) {
  const std::string delegatedCert = ca_.issueOcspSigner("delegated responder");
  TestOcspResponder delegated(ca_, delegatedCert, ca_.keyOf(delegatedCert));
  TestCa stranger("/CN=Stranger CA");
  TestOcspResponder impostor(ca_, stranger.certFile(), stranger.keyFile());

  PDFCert byDelegate = leaf("3001", delegated.url());
  PDFCert byImpostor = leaf("3002", impostor.url());
  crls_.put("/ca.crl", ca_.crl());

  EXPECT_TRUE(byDelegate.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(byDelegate.getValid(), 2);
  // The impostor's "good" is no answer; the CRL decides.
  EXPECT_TRUE(byImpostor.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(byImpostor.getValid(), 1);
  EXPECT_EQ(impostor.answered(), 1);

  // A chain replaces the issuer as anchor: the issuer isn't added to it.
  std::vector<PDFCert> strangerChain{loadCertFile(stranger.certFile())};
  EXPECT_TRUE(byDelegate.checkCRL(nullptr, nullptr, nullptr, &issuer_, &strangerChain, 0));
  EXPECT_EQ(byDelegate.getValid(), 1);
  std::vector<PDFCert> caChain{loadCertFile(stranger.certFile()), loadCertFile(ca_.certFile())};
  EXPECT_TRUE(byDelegate.checkCRL(nullptr, nullptr, nullptr, &issuer_, &caChain, 0));
  EXPECT_EQ(byDelegate.getValid(), 2);
  // An empty chain counts like none.
  std::vector<PDFCert> empty;
  EXPECT_TRUE(byDelegate.checkCRL(nullptr, nullptr, nullptr, &issuer_, &empty, 0));
  EXPECT_EQ(byDelegate.getValid(), 2);
}

TEST_F(OcspCheck, NoAnswerFallsBackOrStaysUndecided) {
  const std::string dead = "http://127.0.0.1:" + std::to_string(sealtest::unusedLoopbackPort()) + "/ocsp";
  PDFCert onlyOcsp = loadCertFile(ca_.issue("only ocsp", "4001", "authorityInfoAccess=OCSP;URI:" + dead));
  EXPECT_FALSE(onlyOcsp.checkCRL(nullptr, nullptr, nullptr, &issuer_, nullptr, 0));
  EXPECT_EQ(onlyOcsp.getValid(), 3);

  // Without an issuer there is no exchange at all; the CRL, unverified,
  // decides.
  crls_.put("/ca.crl", ca_.crl());
  PDFCert both = leaf("4002", responder_->url());
  EXPECT_TRUE(both.checkCRL(nullptr, nullptr, nullptr, nullptr, nullptr, 0));
  EXPECT_EQ(both.getValid(), 1);
  EXPECT_EQ(responder_->server().connections(), 0);
}

TEST_F(OcspCheck, OnlyAnEmptyExchangeTriesTheSocketPath) {
  sealtest::LoopbackHttpServer notOcsp(
      [](const sealtest::HttpRequest&) { return sealtest::Reply::ok("this is no OCSPResponse"); });
  sealtest::LoopbackHttpServer empty([](const sealtest::HttpRequest&) { return sealtest::Reply::ok(""); });
  PDFCert cert = loadCertFile(ca_.issue("transport", "5001", "basicConstraints=CA:false"));
  PDF_Sealmark::PDFCertImpl* impl = PDF_Sealmark::PDFCertImpl::implOf(cert);

  EXPECT_EQ(impl->checkOCSP(notOcsp.url("/").c_str(), x509Of(issuer_), nullptr, 0), -1);
  EXPECT_EQ(notOcsp.connections(), 1);
  EXPECT_EQ(impl->checkOCSP(empty.url("/").c_str(), x509Of(issuer_), nullptr, 0), -1);
  EXPECT_EQ(empty.connections(), 2);
  EXPECT_EQ(impl->checkOCSP(responder_->url().c_str(), nullptr, nullptr, 0), -1);
  EXPECT_EQ(impl->checkOCSP(nullptr, x509Of(issuer_), nullptr, 0), -1);
  EXPECT_EQ(impl->checkOCSP(responder_->url().c_str(), x509Of(issuer_), nullptr, 0), 1);
}

TEST(OcspUrl, FirstOcspUriWins) {
  TestCa ca;
  PDFCert cert = loadCertFile(ca.issue("aia", "6001",
                                   "authorityInfoAccess=caIssuers;URI:http://ca.example/ca.crt,"
                                   "OCSP;email:ocsp@example.com,OCSP;URI:http://first.example/,"
                                   "OCSP;URI:http://second.example/"));
  EXPECT_EQ(cert.getOcspUrl(), "http://first.example/");
  PDFCert none = loadCertFile(ca.issue("no aia", "6002", "crlDistributionPoints=URI:http://x.example/c.crl"));
  EXPECT_EQ(none.getOcspUrl(), "");
  EXPECT_EQ(PDFCert().getOcspUrl(), "");
}

}  // namespace
