// Stand-in for the PFU library.  Tokens are RFC 3161 TimeStampTokens
// (PKCS#7, policy 1.2.3.4.1), or of the stand-ins' own format when
// $SEALMARK_STANDIN_PFU_FORMAT is "own".  Errors leave a code and a message
// in the context.
#include <openssl/cms.h>
#include <openssl/ts.h>

#include <type_traits>

#include "standins/standin.h"

using namespace standin;

namespace {
bool loggedIn = false;
using Bio = std::unique_ptr<BIO, Free<BIO, BIO_free_all>>;

int fail(PfuContext* c, int code, const char* message) {
  if (c) c->code = code, std::snprintf(c->message, sizeof c->message, "%s", message);
  return 0;
}
const EVP_MD* hashNamed(const char* name) {
  const std::string n = name ? name : "";
  return n == "SHA-1" ? EVP_sha1() : n == "SHA-512" ? EVP_sha512() : nullptr;
}
Bytes der(PKCS7* p7) {
  unsigned char* p = nullptr;
  const int n = i2d_PKCS7(p7, &p);
  Bytes b(p, p + (n > 0 ? n : 0));
  OPENSSL_free(p);
  return b;
}

// A token taken apart, after its signature was found good.
struct Token {
  Bytes digest;
  std::string time;
  std::vector<Bytes> certs;
};
bool decode(const unsigned char* p, std::uint32_t n, Token& t) {
  OwnHead head;
  Bytes cert;
  if (readOwnToken(p, n, head, cert)) {
    t = {Bytes(head.digest, head.digest + head.digestLength), head.time, {cert}};
    return true;
  }
  Bio in(p ? BIO_new_mem_buf(p, int(n)) : nullptr);
  std::unique_ptr<CMS_ContentInfo, Free<CMS_ContentInfo, CMS_ContentInfo_free>> cms(
      in ? d2i_CMS_bio(in.get(), nullptr) : nullptr);
  const unsigned char* q = p;
  std::unique_ptr<PKCS7, Free<PKCS7, PKCS7_free>> p7(cms ? d2i_PKCS7(nullptr, &q, n) : nullptr);
  std::unique_ptr<TS_TST_INFO, Free<TS_TST_INFO, TS_TST_INFO_free>> info(p7 ? PKCS7_to_TS_TST_INFO(p7.get())
                                                                            : nullptr);
  if (!info || CMS_verify(cms.get(), nullptr, nullptr, nullptr, nullptr, CMS_NO_SIGNER_CERT_VERIFY) != 1)
    return false;
  const ASN1_OCTET_STRING* md = TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(info.get()));
  const ASN1_GENERALIZEDTIME* time = TS_TST_INFO_get_time(info.get());
  t = {Bytes(md->data, md->data + md->length),
       std::string(reinterpret_cast<char*>(time->data), time->length),
       {}};
  STACK_OF(X509)* certs = CMS_get1_certs(cms.get());
  for (int i = 0; i < sk_X509_num(certs); ++i) {
    unsigned char* d = nullptr;
    const int m = i2d_X509(sk_X509_value(certs, i), &d);
    t.certs.emplace_back(d, d + m);
    OPENSSL_free(d);
  }
  sk_X509_pop_free(certs, X509_free);
  return true;
}
}  // namespace

extern "C" {
int tslib_datahash(const char* hash, const unsigned char* data, std::uint32_t length, unsigned char* digest,
                   PfuContext* c) {
  return entry(__func__, hash ? hash : "", [&] {
    const EVP_MD* md = hashNamed(hash);
    if (!md || !digest || !c || (!data && length)) return fail(c, 11, "unknown hash or no data");
    return EVP_Digest(data, length, digest, nullptr, md, nullptr);
  });
}
int tslib_pfu_login(const char* url, const char* user, const char* password, PfuLogin* login, PfuContext* c) {
  return entry(__func__, user ? user : "", [&] {
    const std::string u = url ? url : "";
    if (!c || !login || u.rfind("https://", 0) != 0 || u.size() < 13 ||
        u.compare(u.size() - 4, 4, "/tsa") != 0 || !user || !*user || !password || !*password)
      return fail(c, 21, "login refused");
    std::memset(login, 0x5a, sizeof *login);
    return int(loggedIn = true);
  });
}
int tslib_pfu_logout(PfuContext* c) {
  return entry(__func__, "",
               [&] { return c && loggedIn ? int(!(loggedIn = false)) : fail(c, 22, "not logged in"); });
}
int tslib_make_tsq(const char* hash, const unsigned char* digest, unsigned char* request,
                   std::uint32_t capacity, std::uint32_t* length, PfuContext* c) {
  return entry(__func__, "", [&] {
    // TimeStampReq v1 with certReq, around the digest.
    const EVP_MD* md = hashNamed(hash);
    if (!md || !digest || capacity != kPfuRequestCapacity) return fail(c, 31, "bad request arguments");
    const bool sha1 = md == EVP_sha1();
    Bytes req = sha1
                    ? Bytes{0x30, 0x29, 2, 1, 1, 0x30, 0x21, 0x30, 9, 6, 5, 0x2b, 14, 3, 2, 0x1a, 5, 0, 4, 20}
                    : Bytes{0x30, 0x59, 2, 1,    1, 0x30, 0x51, 0x30, 13, 6, 9, 0x60,
                            0x86, 0x48, 1, 0x65, 3, 4,    2,    3,    5,  0, 4, 0x40};
    req.insert(req.end(), digest, digest + (sha1 ? 20 : 64));
    req.insert(req.end(), {1, 1, 0xff});
    return int(put(req, request, capacity, length));
  });
}
int tslib_pfu_tsreq(const unsigned char* request, std::uint32_t n, unsigned char* response,
                    std::uint32_t capacity, std::uint32_t* length, PfuContext* c) {
  return entry(__func__, "", [&] {
    if (!loggedIn) return fail(c, 41, "not logged in");
    const unsigned char* q = request;
    std::unique_ptr<TS_REQ, Free<TS_REQ, TS_REQ_free>> req(request ? d2i_TS_REQ(nullptr, &q, n) : nullptr);
    if (!req || capacity != kPfuResponseCapacity) return fail(c, 42, "bad request");
    Bytes answer;
    if (env("SEALMARK_STANDIN_PFU_FORMAT") == "own") {
      TS_MSG_IMPRINT* imprint = TS_REQ_get_msg_imprint(req.get());
      const ASN1_OCTET_STRING* msg = TS_MSG_IMPRINT_get_msg(imprint);
      char oid[64];
      OBJ_obj2txt(oid, sizeof oid, TS_MSG_IMPRINT_get_algo(imprint)->algorithm, 1);
      answer = makeOwnToken(oid, msg->data, unsigned(std::min(msg->length, 64)), "%Y-%m-%dT%H:%M:%SZ");
      answer.insert(answer.begin(), {'O', 'W', 'N', '!'});
    } else {
      std::unique_ptr<TS_RESP_CTX, Free<TS_RESP_CTX, TS_RESP_CTX_free>> ctx(TS_RESP_CTX_new());
      std::unique_ptr<ASN1_OBJECT, Free<ASN1_OBJECT, ASN1_OBJECT_free>> policy(OBJ_txt2obj("1.2.3.4.1", 1));
      Key key = tsaKey();
      Cert cert = tsaCert();
      Bio in(BIO_new_mem_buf(request, int(n)));
      if (!key || !cert || !TS_RESP_CTX_set_signer_cert(ctx.get(), cert.get()) ||
          !TS_RESP_CTX_set_signer_key(ctx.get(), key.get()) ||
          !TS_RESP_CTX_set_def_policy(ctx.get(), policy.get()))
        return fail(c, 43, "no signing key");
      for (const EVP_MD* md : {EVP_sha1(), EVP_sha256(), EVP_sha512()}) TS_RESP_CTX_add_md(ctx.get(), md);
      std::unique_ptr<TS_RESP, Free<TS_RESP, TS_RESP_free>> resp(
          TS_RESP_create_response(ctx.get(), in.get()));
      unsigned char* d = nullptr;
      const int m = resp ? i2d_TS_RESP(resp.get(), &d) : 0;
      answer.assign(d, d + (m > 0 ? m : 0));
      OPENSSL_free(d);
    }
    return put(answer, response, capacity, length) ? 1 : fail(c, 44, "no response");
  });
}
int tslib_decode_tsr(PfuPair* pair, unsigned char* decoded, unsigned char* token, std::uint32_t capacity,
                     std::uint32_t* length, PfuContext* c) {
  return entry(__func__, "", [&] {
    if (!pair || pair->zero || !pair->request || !pair->requestLength || !pair->response || !decoded ||
        capacity != kPfuTokenCapacity)
      return fail(c, 51, "bad arguments");
    std::memset(decoded, 0, kPfuDecodedResponseSize);
    const unsigned char *p = pair->response, *end = p + pair->responseLength;
    if (end - p > 4 && std::memcmp(p, "OWN!", 4) == 0)
      return int(put(Bytes(p + 4, end), token, capacity, length));
    std::unique_ptr<TS_RESP, Free<TS_RESP, TS_RESP_free>> resp(d2i_TS_RESP(nullptr, &p, end - p));
    PKCS7* p7 = resp ? TS_RESP_get_token(resp.get()) : nullptr;
    if (!p7 || ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(TS_RESP_get_status_info(resp.get()))) != 0)
      return fail(c, 52, "no token granted");
    return put(der(p7), token, capacity, length) ? 1 : fail(c, 53, "token too large");
  });
}
int tslib_pfu_confirm(unsigned char* area1, unsigned char* area2, int zero, PfuContext* c) {
  return entry(__func__, "", [&] {
    if (!area1 || !area2 || zero || !loggedIn) return fail(c, 61, "bad arguments");
    std::memset(area1, 1, kPfuConfirmSizes[0]);
    std::memset(area2, 2, kPfuConfirmSizes[1]);
    return 1;
  });
}
int tslib_decode_tst(PfuTokenBlob* blob, PfuDecodedToken* out, PfuContext* c) {
  return entry(__func__, "", [&] {
    Token t;
    if (!blob || blob->zero || !out || !decode(blob->data, blob->length, t))
      return fail(c, 71, "token does not decode");
    if (t.digest.size() > 64 || t.time.size() >= sizeof out->time)
      return fail(c, 72, "token fields too large");
    std::memcpy(out->digest, t.digest.data(), t.digest.size());
    out->digestLength = std::uint32_t(t.digest.size());
    std::snprintf(out->time, sizeof out->time, "%s", t.time.c_str());
    out->certCount = std::uint32_t(t.certs.size());
    return 1;
  });
}
int tslib_get_cert(const unsigned char* token, std::uint32_t n, int index, unsigned char* cert,
                   std::uint32_t capacity, std::uint32_t* length, PfuContext* c) {
  return entry(__func__, std::to_string(index), [&] {
    Token t;
    if (!decode(token, n, t) || index < 0 || std::size_t(index) >= t.certs.size())
      return fail(c, 81, "no such certificate");
    return put(t.certs[index], cert, capacity, length) ? 1 : fail(c, 82, "buffer too small");
  });
}
}

// The entry points have exactly the types the client calls them by.
static_assert(std::is_same_v<decltype(&tslib_datahash), TslDatahash> &&
              std::is_same_v<decltype(&tslib_pfu_login), TslLogin> &&
              std::is_same_v<decltype(&tslib_pfu_logout), TslLogout> &&
              std::is_same_v<decltype(&tslib_make_tsq), TslMakeTsq> &&
              std::is_same_v<decltype(&tslib_pfu_tsreq), TslTsreq> &&
              std::is_same_v<decltype(&tslib_decode_tsr), TslDecodeTsr> &&
              std::is_same_v<decltype(&tslib_pfu_confirm), TslConfirm> &&
              std::is_same_v<decltype(&tslib_decode_tst), TslDecodeTst> &&
              std::is_same_v<decltype(&tslib_get_cert), TslGetCert>);
