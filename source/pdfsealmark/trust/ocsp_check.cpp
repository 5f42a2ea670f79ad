#include "pdfsealmark/trust/ocsp_check.h"

#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <climits>

#include "pdfsealmark/cert/PDFCertImpl.h"
#include "pdfsealmark/http/HttpPost.h"

namespace PDF_Sealmark {

// No blank behind the colon: the text goes to the responder as it stands.
const char kOcspRequestHeader[] = "Content-Type:application/ocsp-request";

OcspRequest makeOcspRequest(X509* cert, X509* issuer, bool withNonce) {
  OcspRequest out;
  if (cert == nullptr || issuer == nullptr) return out;
  ossl::UniquePtr<OCSP_REQUEST> request(OCSP_REQUEST_new());
  if (!request) return out;
  // CertID ::= SEQUENCE { hashAlgorithm, issuerNameHash, issuerKeyHash,
  // serialNumber }, with OpenSSL's default digest (SHA-1).
  OCSP_CERTID* id = OCSP_cert_to_id(nullptr, cert, issuer);
  if (id == nullptr) return out;
  if (OCSP_request_add0_id(request.get(), id) == nullptr) {
    OCSP_CERTID_free(id);  // not taken over
    return out;
  }
  // From here the request owns id; the pointer stays good as long as it.
  if (withNonce && OCSP_request_add1_nonce(request.get(), nullptr, -1) <= 0) return out;
  out.request = std::move(request);
  out.id = id;
  return out;
}

std::vector<unsigned char> encodeOcspRequest(const OCSP_REQUEST* request) {
  if (request == nullptr) return {};
  unsigned char* der = nullptr;
  const int length = i2d_OCSP_REQUEST(request, &der);
  std::vector<unsigned char> bytes;
  if (length > 0 && der != nullptr) bytes.assign(der, der + length);
  OPENSSL_free(der);
  return bytes;
}

int evaluateOcspResponse(const OcspRequest& request, const std::vector<unsigned char>& response, X509* issuer,
                         const std::vector<PDFCert>* chain) {
  if (!request.request || request.id == nullptr || issuer == nullptr) return kOcspNoAnswer;
  if (response.empty() || response.size() > static_cast<std::size_t>(INT_MAX)) return kOcspNoAnswer;

  // OCSPResponse ::= SEQUENCE { responseStatus OCSPResponseStatus,
  //                             responseBytes [0] EXPLICIT ResponseBytes OPTIONAL }
  const unsigned char* p = response.data();
  ossl::UniquePtr<OCSP_RESPONSE> decoded(d2i_OCSP_RESPONSE(nullptr, &p, static_cast<long>(response.size())));
  if (!decoded) return kOcspNoAnswer;
  // malformedRequest, internalError, tryLater, sigRequired and unauthorized
  // carry no status at all.
  if (OCSP_response_status(decoded.get()) != OCSP_RESPONSE_STATUS_SUCCESSFUL) return kOcspNoAnswer;
  ossl::UniquePtr<OCSP_BASICRESP> basic(OCSP_response_get1_basic(decoded.get()));
  if (!basic) return kOcspNoAnswer;

  // 1 same nonce, 2 none on either side, 3 only the response has one: all
  // fine.  A nonce asked for and not echoed (-1), or a different one (0),
  // may be a replayed answer.
  if (OCSP_check_nonce(request.request.get(), basic.get()) <= 0) return kOcspNoAnswer;

  // The anchors of the responder's signature: the caller's path when there
  // is one, else the issuer itself (RFC 6960, 4.2.2.2: the CA, or a
  // responder it delegated with id-kp-OCSPSigning).
  ossl::UniquePtr<X509_STORE> store(X509_STORE_new());
  if (!store) return kOcspNoAnswer;
  if (chain != nullptr && !chain->empty()) {
    for (const PDFCert& element : *chain) {
      const PDFCertImpl* impl = PDFCertImpl::implOf(element);
      X509* x = impl ? impl->getX509() : nullptr;
      // add_cert takes its own reference; a duplicate is no failure that
      // matters here.
      if (x != nullptr) X509_STORE_add_cert(store.get(), x);
    }
  } else {
    X509_STORE_add_cert(store.get(), issuer);
  }
  if (OCSP_basic_verify(basic.get(), nullptr, store.get(), 0) <= 0) return kOcspNoAnswer;

  int status = -1;
  int reason = -1;
  ASN1_GENERALIZEDTIME* revokedAt = nullptr;
  ASN1_GENERALIZEDTIME* thisUpdate = nullptr;
  ASN1_GENERALIZEDTIME* nextUpdate = nullptr;
  // thisUpdate and nextUpdate are read and deliberately not checked: the
  // answer counts as the responder's present view however old it is.
  if (OCSP_resp_find_status(basic.get(), request.id, &status, &reason, &revokedAt, &thisUpdate, &nextUpdate) != 1)
    return kOcspNoAnswer;
  return status == V_OCSP_CERTSTATUS_GOOD ? kOcspGood : kOcspNotGood;
}

std::string ocspUrlOf(const X509* cert) {
  if (cert == nullptr) return {};
  // AuthorityInfoAccessSyntax ::= SEQUENCE SIZE (1..MAX) OF AccessDescription
  // AccessDescription ::= SEQUENCE { accessMethod OBJECT IDENTIFIER,
  //                                  accessLocation GeneralName }
  ossl::UniquePtr<AUTHORITY_INFO_ACCESS> info(
      static_cast<AUTHORITY_INFO_ACCESS*>(X509_get_ext_d2i(cert, NID_info_access, nullptr, nullptr)));
  if (!info) return {};
  for (int i = 0; i < sk_ACCESS_DESCRIPTION_num(info.get()); ++i) {
    const ACCESS_DESCRIPTION* ad = sk_ACCESS_DESCRIPTION_value(info.get(), i);
    if (ad == nullptr || ad->method == nullptr || ad->location == nullptr) continue;
    if (OBJ_obj2nid(ad->method) != NID_ad_OCSP || ad->location->type != GEN_URI) continue;
    const ASN1_IA5STRING* uri = ad->location->d.uniformResourceIdentifier;
    if (uri == nullptr) return {};
    const unsigned char* data = ASN1_STRING_get0_data(uri);
    const int length = ASN1_STRING_length(uri);
    if (data == nullptr || length <= 0) return {};
    // As a C text: whatever follows an embedded NUL is not part of it.
    std::string url(reinterpret_cast<const char*>(data), static_cast<std::size_t>(length));
    return url.substr(0, url.find('\0'));
  }
  return {};
}

// --- PDFCertImpl ------------------------------------------------------------------

std::string PDFCertImpl::getOcspUrl() const { return ocspUrlOf(x509); }

int PDFCertImpl::checkOCSP(const char* url, X509* issuer, std::vector<PDFCert>* chain, int noNonce) {
  if (x509 == nullptr || url == nullptr || issuer == nullptr) return kOcspNoAnswer;
  const OcspRequest request = makeOcspRequest(x509, issuer, noNonce == 0);
  if (!request.request) return kOcspNoAnswer;
  const std::vector<unsigned char> body = encodeOcspRequest(request.request.get());
  if (body.empty()) return kOcspNoAnswer;

  // The socket path is only asked when the WinInet path brought nothing: a
  // response that arrived but doesn't decode is the responder's answer.
  std::vector<unsigned char> response;
  if (!le::HttpWinInetPost(url, kOcspRequestHeader, body, response)) {
    response.clear();
    if (!le::HttpConnectPost(url, kOcspRequestHeader, body, response)) return kOcspNoAnswer;
  }
  return evaluateOcspResponse(request, response, issuer, chain);
}

}  // namespace PDF_Sealmark
