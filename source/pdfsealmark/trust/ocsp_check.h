// Internal: one OCSP exchange for one certificate (RFC 6960).
//
// PDFCertImpl::checkOCSP builds the request, sends it over the HTTP
// transport and hands the answer to evaluateOcspResponse, which is split out
// so that a response can be judged without the network (tests, fuzzing).
//
//   OcspRequest request = makeOcspRequest(cert, issuer, true);
//   int status = evaluateOcspResponse(request, responseBytes, issuer, nullptr);
//   // 1 good, 0 revoked or unknown, -1 no usable answer
#ifndef PDFSEALMARK_TRUST_OCSP_CHECK_H
#define PDFSEALMARK_TRUST_OCSP_CHECK_H

#include <openssl/ocsp.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

#include "pdfsealmark/PDFCert.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

// The results of checkOCSP.
enum OcspResult { kOcspNoAnswer = -1, kOcspNotGood = 0, kOcspGood = 1 };

// The exact extra header line of the POST; the transport adds the rest.
extern const char kOcspRequestHeader[];

// A request with one single request, and a borrowed view of the certificate
// identifier inside it (the request owns it).
struct OcspRequest {
  ossl::UniquePtr<OCSP_REQUEST> request;
  OCSP_CERTID* id = nullptr;
};

// The unsigned request for cert issued by issuer, with a nonce of OpenSSL's
// default length when withNonce is set.  request is null when it can't be
// made.
OcspRequest makeOcspRequest(X509* cert, X509* issuer, bool withNonce);

// The DER encoding of the request; empty when it can't be encoded.
std::vector<unsigned char> encodeOcspRequest(const OCSP_REQUEST* request);

// Judges the bytes a responder sent for request: a successful, signed basic
// response whose nonce agrees with the request's, whose signer leads to the
// certificates of chain (or, when chain is null or empty, to issuer), and
// which holds an entry for the request's identifier.  Dates in the response
// are not compared with any clock.
int evaluateOcspResponse(const OcspRequest& request, const std::vector<unsigned char>& response, X509* issuer,
                         const std::vector<PDFCert>* chain);

// The first OCSP responder URL in the authorityInfoAccess extension of cert,
// or empty.
std::string ocspUrlOf(const X509* cert);

}  // namespace PDF_Sealmark

#endif
