// The records exchanged with the closed time-stamp libraries, and the types
// of their entry points.  The clients and the tests' stand-in libraries both
// include this header, so that the two sides can't drift apart.
//
// The libraries' interface was laid out for 32-bit pointers.  Records
// without a pointer keep those sizes and offsets byte for byte; records that
// hold a pointer (the Amano blob, the PFU pair and token blob) take the
// native layout of the same fields in the same order.  Integers are 32 bits,
// in the machine's order (little-endian on every target we build for).
#ifndef PDFSEALMARK_TIMESTAMP_CLOSED_RECORDS_H
#define PDFSEALMARK_TIMESTAMP_CLOSED_RECORDS_H

#include <cstddef>
#include <cstdint>

namespace PDF_Sealmark {
namespace closed_records {

// ---------------------------------------------------------------- Amano --

// Hash numbers of ASDTSTHashInitEx.
enum AmanoHash : int { kAmanoSha1 = 1, kAmanoSha256 = 3, kAmanoSha384 = 4, kAmanoSha512 = 5 };

constexpr std::uint32_t kAmanoTokenCapacity = 12000;  // tokens and certificates
constexpr std::uint32_t kAmanoInfoSize = 1044;

// A byte range.  For an output blob, length holds the capacity on the way
// in and the number of bytes written on the way out.
struct AmanoBlob {
  unsigned char* data;
  std::uint32_t length;
};

struct AmanoDigest {
  char oid[192];  // OID text of the hash, NUL-terminated
  unsigned char digest[64];
  std::uint32_t length;  // of digest
};

struct AmanoConnection {
  char address[256];  // service address, NUL-terminated
  std::uint32_t zero[2];
};

struct AmanoRequest {
  AmanoDigest digest;
  char text[128];  // empty
  std::uint32_t one[2];
};

struct AmanoInfo {
  std::uint32_t size;  // kAmanoInfoSize, set by the caller
  unsigned char library1[132];
  AmanoDigest imprint;  // the token's message imprint
  unsigned char library2[44];
  char time[604];  // the token's time, NUL-terminated, in the library's form
};

static_assert(sizeof(AmanoBlob) == 16 && offsetof(AmanoBlob, length) == 8, "Amano blob");
static_assert(sizeof(AmanoDigest) == 260 && offsetof(AmanoDigest, digest) == 192 &&
                  offsetof(AmanoDigest, length) == 256,
              "Amano digest record");
static_assert(sizeof(AmanoConnection) == 264 && offsetof(AmanoConnection, zero) == 256, "Amano connection");
static_assert(sizeof(AmanoRequest) == 396 && offsetof(AmanoRequest, text) == 260 &&
                  offsetof(AmanoRequest, one) == 388,
              "Amano request record");
static_assert(sizeof(AmanoInfo) == kAmanoInfoSize && offsetof(AmanoInfo, imprint) == 136 &&
                  offsetof(AmanoInfo, imprint) + offsetof(AmanoDigest, length) == 392 &&
                  offsetof(AmanoInfo, time) == 440,
              "Amano information record");

using AsdHashInit = int (*)(void** hash, int algorithm);
using AsdHashUpdate = int (*)(void* hash, const unsigned char* data, std::uint32_t length);
using AsdHashFinal = int (*)(void* hash, AmanoDigest* digest);
using AsdLoadAccount = int (*)(const char* file, const char* password, std::uint32_t passwordLength,
                               void** account);
using AsdCreateToken = int (*)(void* account, AmanoConnection* connection, AmanoRequest* request,
                               AmanoBlob* token);
using AsdFreeAccount = int (*)(void* account);
using AsdVerifyToken = int (*)(AmanoBlob* token, AmanoDigest* digest, int zero1, int zero2);
using AsdGetInfo = int (*)(AmanoBlob* token, AmanoInfo* info);
using AsdGetCert = int (*)(AmanoBlob* token, AmanoBlob* cert);

// In the order the loader looks them up.
constexpr const char* kAmanoEntryPoints[9] = {"ASDTSTHashInitEx",
                                              "ASDTSTHashUpdateEx",
                                              "ASDTSTHashFinalEx",
                                              "ASDTSTLoadAccountEx",
                                              "ASDTSTCreateTimeStampTokenEx",
                                              "ASDTSTFreeAccountEx",
                                              "ASDTSTVerifyTimeStampTokenEx",
                                              "ASDTSTGetTimeStampInfoEx",
                                              "ASDTSTGetTSACert"};

// ------------------------------------------------------------------ PFU --

constexpr std::uint32_t kPfuRequestCapacity = 1000;
constexpr std::uint32_t kPfuResponseCapacity = 5000;
constexpr std::uint32_t kPfuTokenCapacity = 5000;
constexpr std::size_t kPfuDecodedResponseSize = 1376;    // tslib_decode_tsr's area
constexpr std::size_t kPfuConfirmSizes[2] = {776, 560};  // tslib_pfu_confirm's areas

// Given to every entry point; the library leaves its error here.
struct PfuContext {
  std::int32_t code;
  char message[5260];  // NUL-terminated
};

struct PfuLogin {
  unsigned char library[320];
};

struct PfuPair {
  const unsigned char* response;  // TimeStampResp
  std::uint32_t responseLength;
  const unsigned char* request;  // TimeStampReq
  std::uint32_t requestLength;
  std::uint32_t zero;
};

struct PfuTokenBlob {
  const unsigned char* data;
  std::uint32_t length;
  std::uint32_t zero;
};

// What tslib_decode_tst makes of a token.
struct PfuDecodedToken {
  unsigned char library1[328];
  unsigned char digest[64];  // of the message imprint
  std::uint32_t digestLength;
  unsigned char library2[1280];
  char time[1080];  // NUL-terminated, in the library's form
  std::uint32_t certCount;
  unsigned char library3[8912];
};

static_assert(sizeof(PfuContext) == 5264 && offsetof(PfuContext, message) == 4, "PFU context");
static_assert(sizeof(PfuLogin) == 320, "PFU login record");
static_assert(sizeof(PfuPair) == 32 && offsetof(PfuPair, responseLength) == 8 &&
                  offsetof(PfuPair, request) == 16 && offsetof(PfuPair, requestLength) == 24 &&
                  offsetof(PfuPair, zero) == 28,
              "PFU request and response pair");
static_assert(sizeof(PfuTokenBlob) == 16 && offsetof(PfuTokenBlob, length) == 8 &&
                  offsetof(PfuTokenBlob, zero) == 12,
              "PFU token blob");
static_assert(sizeof(PfuDecodedToken) == 11672 && offsetof(PfuDecodedToken, digest) == 328 &&
                  offsetof(PfuDecodedToken, digestLength) == 392 && offsetof(PfuDecodedToken, time) == 1676 &&
                  offsetof(PfuDecodedToken, certCount) == 2756,
              "PFU decoded token");

using TslDatahash = int (*)(const char* hash, const unsigned char* data, std::uint32_t length,
                            unsigned char* digest, PfuContext* context);
using TslLogin = int (*)(const char* url, const char* user, const char* password, PfuLogin* login,
                         PfuContext* context);
using TslLogout = int (*)(PfuContext* context);
using TslMakeTsq = int (*)(const char* hash, const unsigned char* digest, unsigned char* request,
                           std::uint32_t capacity, std::uint32_t* length, PfuContext* context);
using TslTsreq = int (*)(const unsigned char* request, std::uint32_t requestLength, unsigned char* response,
                         std::uint32_t capacity, std::uint32_t* length, PfuContext* context);
using TslDecodeTsr = int (*)(PfuPair* pair, unsigned char* decoded, unsigned char* token,
                             std::uint32_t capacity, std::uint32_t* length, PfuContext* context);
using TslConfirm = int (*)(unsigned char* area1, unsigned char* area2, int zero, PfuContext* context);
using TslDecodeTst = int (*)(PfuTokenBlob* token, PfuDecodedToken* decoded, PfuContext* context);
using TslGetCert = int (*)(const unsigned char* token, std::uint32_t tokenLength, int index,
                           unsigned char* cert, std::uint32_t capacity, std::uint32_t* certLength,
                           PfuContext* context);

constexpr const char* kPfuEntryPoints[9] = {"tslib_datahash",    "tslib_pfu_login",  "tslib_pfu_logout",
                                            "tslib_make_tsq",    "tslib_pfu_tsreq",  "tslib_decode_tsr",
                                            "tslib_pfu_confirm", "tslib_decode_tst", "tslib_get_cert"};

}  // namespace closed_records
}  // namespace PDF_Sealmark

#endif
