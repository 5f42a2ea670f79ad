#include "pdfsealmark/timestamp/PDFStdTimeStampImpl.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include "pdfsealmark/http/HttpPost.h"
#include "pdfsealmark/openssl_ptr.h"

namespace PDF_Sealmark {

namespace {

// TimeStampReq ::= SEQUENCE {
//    version           INTEGER { v1(1) },
//    messageImprint    MessageImprint,
//    reqPolicy         TSAPolicyId          OPTIONAL,
//    nonce             INTEGER              OPTIONAL,
//    certReq           BOOLEAN              DEFAULT FALSE,
//    extensions    [0] IMPLICIT Extensions  OPTIONAL }
// MessageImprint ::= SEQUENCE {
//    hashAlgorithm     AlgorithmIdentifier,
//    hashedMessage     OCTET STRING }
//
// Both forms leave out the algorithm's NULL parameters, reqPolicy and
// extensions; the 8-byte nonce is laid in as given, even where DER would
// want a sign byte or fewer leading zeros.
const unsigned char kSha1Head[] = {
    0x30, 0x31,                                // TimeStampReq, 49 bytes
    0x02, 0x01, 0x01,                          // version 1
    0x30, 0x1F,                                // messageImprint
    0x30, 0x07,                                // hashAlgorithm
    0x06, 0x05, 0x2B, 0x0E, 0x03, 0x02, 0x1A,  // 1.3.14.3.2.26 (SHA-1)
    0x04, 0x14,                                // hashedMessage, 20 bytes
};
const unsigned char kSha512Head[] = {
    0x30, 0x61,                                                        // TimeStampReq, 97 bytes
    0x02, 0x01, 0x01,                                                  // version 1
    0x30, 0x4F,                                                        // messageImprint
    0x30, 0x0B,                                                        // hashAlgorithm
    0x06, 0x09, 0x60, 0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02, 0x03,  // 2.16.840.1.101.3.4.2.3 (SHA-512)
    0x04, 0x40,                                                        // hashedMessage, 64 bytes
};
const unsigned char kNonceHead[] = {0x02, 0x08};      // nonce, INTEGER of 8 bytes
const unsigned char kCertReq[] = {0x01, 0x01, 0xFF};  // certReq TRUE
constexpr std::size_t kNonceLength = 8;

const char kResponseFile[] = "response.tsr";

}  // namespace

PDFStdTimeStampImpl::PDFStdTimeStampImpl(const std::string& url, const std::string& user,
                                         const std::string& password, int hashType)
    : url(url), user(user), password(password), hashType(hashType) {}

PDFStdTimeStampImpl::~PDFStdTimeStampImpl() = default;

std::size_t PDFStdTimeStampImpl::demandedDigestLength(int hashType) { return hashType == 2 ? 64 : 20; }

// The probe sends the other length than the one LeImplementts takes.
std::size_t PDFStdTimeStampImpl::probeDigestLength(int hashType) { return hashType == 1 ? 64 : 20; }

std::string PDFStdTimeStampImpl::basicCredentials(const std::string& user, const std::string& password) {
  const std::string joined = user + ":" + password;
  ossl::UniquePtr<BIO> chain(BIO_new(BIO_f_base64()));
  if (!chain) return std::string();
  BIO* sink = BIO_new(BIO_s_mem());
  if (!sink) return std::string();
  BIO_push(chain.get(), sink);  // the chain owns the sink from here
  if (BIO_write(chain.get(), joined.data(), static_cast<int>(joined.size())) !=
          static_cast<int>(joined.size()) ||
      BIO_flush(chain.get()) != 1) {
    return std::string();
  }
  BUF_MEM* buffer = nullptr;
  BIO_get_mem_ptr(chain.get(), &buffer);
  if (!buffer) return std::string();
  // The encoder ends with a line feed and adds one behind every 64
  // characters; the header value has to stay on one line.
  std::string text;
  for (std::size_t i = 0; i < buffer->length; ++i) {
    if (buffer->data[i] != '\n') text += buffer->data[i];
  }
  return text;
}

std::vector<unsigned char> PDFStdTimeStampImpl::buildRequest(const std::vector<unsigned char>& digest,
                                                             const std::vector<unsigned char>& nonce) {
  std::vector<unsigned char> request;
  if (nonce.size() < kNonceLength) return request;
  if (digest.size() == 20) {
    request.assign(std::begin(kSha1Head), std::end(kSha1Head));
  } else if (digest.size() == 64) {
    request.assign(std::begin(kSha512Head), std::end(kSha512Head));
  } else {
    return request;
  }
  request.insert(request.end(), digest.begin(), digest.end());
  request.insert(request.end(), std::begin(kNonceHead), std::end(kNonceHead));
  request.insert(request.end(), nonce.begin(), nonce.begin() + kNonceLength);
  request.insert(request.end(), std::begin(kCertReq), std::end(kCertReq));
  return request;
}

std::vector<unsigned char> PDFStdTimeStampImpl::requestToken(std::vector<unsigned char> digest,
                                                             std::vector<unsigned char> nonce,
                                                             const char* url, const char* credentials) {
  std::vector<unsigned char> token;
  if (!url || digest.empty()) return token;
  const std::vector<unsigned char> request = buildRequest(digest, nonce);
  if (request.empty()) return token;

  std::string headers = "Content-Type: application/timestamp-query";
  if (credentials) {
    headers += "\r\nAuthorization: Basic ";
    headers += credentials;
  }
  std::vector<unsigned char> response;
  if (!le::HttpWinInetPost(url, headers, request, response) &&
      !le::HttpConnectPost(url, headers, request, response)) {
    return token;
  }

  std::vector<unsigned char> buffer(kMaxToken);
  const long length = extractToken(response.data(), response.size(), buffer.data(), buffer.size());
  if (length <= 0) return token;
  token.assign(buffer.begin(), buffer.begin() + length);
  return token;
}

// TimeStampResp ::= SEQUENCE {
//    status          PKIStatusInfo,
//    timeStampToken  TimeStampToken  OPTIONAL }
// PKIStatusInfo ::= SEQUENCE {
//    status        PKIStatus,            -- INTEGER: granted (0), grantedWithMods (1), ...
//    statusString  PKIFreeText     OPTIONAL,
//    failInfo      PKIFailureInfo  OPTIONAL }
//
// Read without a general DER parser: the token is everything behind the
// status INTEGER, so a PKIStatusInfo holding more than the status would
// become the head of the token.  Every read is checked against the end.
long PDFStdTimeStampImpl::extractToken(const unsigned char* response, std::size_t length, unsigned char* out,
                                       std::size_t capacity) {
  if (!response || length < 2 || response[0] != 0x30) return -1;
  std::size_t pos = 1;
  const unsigned char outerLength = response[pos++];
  if (outerLength & 0x80) {
    const std::size_t count = outerLength & 0x1F;
    if (count < 1 || count > 4) return -1;
    if (count > length - pos) return -9;
    std::size_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value = (value << 8) | response[pos++];
    if (value < 1 || value > length - pos) return -1;
  }
  // The outer length in short form isn't compared with the data.

  if (pos >= length) return -9;
  if (response[pos++] != 0x30) return -1;  // PKIStatusInfo
  if (pos >= length) return -9;
  if (response[pos++] & 0x80) return -2;  // its length, short form only
  if (pos >= length) return -9;
  if (response[pos++] != 0x02) return -2;  // status INTEGER
  if (pos >= length) return -9;
  const std::size_t statusLength = response[pos++];
  if (statusLength > length - pos) return -9;
  // More than 8 bytes would wrap the sum below: such a status is neither
  // granted nor grantedWithMods.
  if (statusLength > 8) return -2;
  unsigned long long status = 0;
  for (std::size_t i = 0; i < statusLength; ++i) status = (status << 8) | response[pos++];
  if (status != 0 && status != 1) return -2;

  const std::size_t tokenLength = length - pos;
  if (tokenLength > capacity) return -3;
  if (tokenLength > 0) std::copy(response + pos, response + length, out);
  return static_cast<long>(tokenLength);
}

bool PDFStdTimeStampImpl::LeImplementts(std::vector<unsigned char>& token, const std::vector<unsigned char>&,
                                        const std::vector<unsigned char>& digest,
                                        const std::vector<unsigned char>& nonce) const {
  token.clear();
  if (url.empty() || digest.empty() || nonce.empty()) return false;
  if (nonce.size() < kNonceLength || digest.size() != demandedDigestLength(hashType)) return false;
  std::string credentials;
  if (!user.empty() && !password.empty()) credentials = basicCredentials(user, password);
  token = requestToken(digest, nonce, url.c_str(), credentials.empty() ? nullptr : credentials.c_str());
  return !token.empty();
}

void PDFStdTimeStampImpl::OnImplementts() const {
  // unlink, not remove: a directory of that name stays.  Whether there was
  // a file doesn't matter.
  ::unlink(kResponseFile);
  if (url.empty()) return;
  const std::vector<unsigned char> nonce(kNonceLength, 0);
  const std::vector<unsigned char> digest(probeDigestLength(hashType), 0);
  // The probe goes out without credentials, whatever the settings hold.
  const std::vector<unsigned char> token = requestToken(digest, nonce, url.c_str(), nullptr);
  if (token.empty()) return;
  std::ofstream file(kResponseFile, std::ios::binary | std::ios::trunc);
  if (!file) return;
  file.write(reinterpret_cast<const char*>(token.data()), static_cast<std::streamsize>(token.size()));
}

}  // namespace PDF_Sealmark
