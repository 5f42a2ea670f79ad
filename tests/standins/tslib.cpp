// Stand-in for the PFU library.  Tokens are RFC 3161 TimeStampTokens
// (PKCS#7, policy 1.2.3.4.1), or of the stand-ins' own format when
// $SEALMARK_STANDIN_PFU_FORMAT is "own".  Errors leave a code and a message
// in the context.
#include <openssl/ts.h>

#include "standins/standin.h"

using namespace standin;

namespace {
bool loggedIn = false;

int fail(PfuContext* c, int code, const char* message) {
  if (c) c->code = code, std::snprintf(c->message, sizeof c->message, "%s", message);
  return 0;
}
const EVP_MD* hashNamed(const std::string& n) {
  return n == "SHA-1" ? EVP_sha1() : n == "SHA-512" ? EVP_sha512() : nullptr;
}

// A token taken apart, after its signature was found good.
struct Token {
  Bytes digest;
  std::string time;
  std::vector<Bytes> certs;
};
bool decode(const uchar* p, u32 n, Token& t) {
  OwnHead head;
  Bytes cert;
  if (readOwnToken(p, n, head, cert)) {
    t = {Bytes(head.digest, head.digest + head.digestLength), head.time, {cert}};
    return true;
  }
  Own<PKCS7, PKCS7_free> p7(p ? d2i_PKCS7(nullptr, &p, n) : nullptr);
  Own<TS_TST_INFO, TS_TST_INFO_free> info(p7 ? PKCS7_to_TS_TST_INFO(p7.get()) : nullptr);
  if (!info || PKCS7_verify(p7.get(), nullptr, nullptr, nullptr, nullptr, PKCS7_NOVERIFY) != 1) return false;
  const ASN1_OCTET_STRING* md = TS_MSG_IMPRINT_get_msg(TS_TST_INFO_get_msg_imprint(info.get()));
  const ASN1_GENERALIZEDTIME* time = TS_TST_INFO_get_time(info.get());
  t.digest.assign(md->data, md->data + md->length);
  t.time.assign(reinterpret_cast<char*>(time->data), time->length);
  for (int i = 0; i < sk_X509_num(p7->d.sign->cert); ++i)
    t.certs.push_back(der<X509>(sk_X509_value(p7->d.sign->cert, i), i2d_X509));
  return true;
}
}  // namespace

STANDIN_ENTRY(tslib_datahash, (const char* hash, const uchar* data, u32 length, uchar* digest, PfuContext* c),
              hash ? hash : "", {
                const EVP_MD* md = hashNamed(hash ? hash : "");
                if (!md || !digest || !c || (!data && length)) return fail(c, 11, "unknown hash or no data");
                return EVP_Digest(data, length, digest, nullptr, md, nullptr);
              })
STANDIN_ENTRY(tslib_pfu_login,
              (const char* url, const char* user, const char* password, PfuLogin* login, PfuContext* c),
              user ? user : "", {
                const std::string u = url ? url : "";
                if (!c || !login || u.rfind("https://", 0) != 0 || u.size() < 13 ||
                    u.compare(u.size() - 4, 4, "/tsa") != 0 || !user || !*user || !password || !*password)
                  return fail(c, 21, "login refused");
                std::memset(login, 0x5a, sizeof *login);
                return loggedIn = true;
              })
STANDIN_ENTRY(tslib_pfu_logout, (PfuContext * c), "",
              { return c && loggedIn ? !(loggedIn = false) : fail(c, 22, "not logged in"); })
STANDIN_ENTRY(tslib_make_tsq,
              (const char* hash, const uchar* digest, uchar* request, u32 capacity, u32* length,
               PfuContext* c),
              "", {
                // TimeStampReq v1 with certReq, around the digest.
                const EVP_MD* md = hashNamed(hash ? hash : "");
                if (!md || !digest || capacity != kPfuRequestCapacity) return fail(c, 31, "bad arguments");
                const bool sha1 = md == EVP_sha1();
                Bytes req = sha1 ? Bytes{0x30, 0x29, 2,  1, 1, 0x30, 0x21, 0x30, 9, 6,
                                         5,    0x2b, 14, 3, 2, 0x1a, 5,    0,    4, 20}
                                 : Bytes{0x30, 0x59, 2, 1,    1, 0x30, 0x51, 0x30, 13, 6, 9, 0x60,
                                         0x86, 0x48, 1, 0x65, 3, 4,    2,    3,    5,  0, 4, 0x40};
                req.insert(req.end(), digest, digest + (sha1 ? 20 : 64));
                req.insert(req.end(), {1, 1, 0xff});
                return put(req, request, capacity, length);
              })
STANDIN_ENTRY(tslib_pfu_tsreq,
              (const uchar* request, u32 n, uchar* response, u32 capacity, u32* length, PfuContext* c), "", {
                Own<TS_RESP_CTX, TS_RESP_CTX_free> ctx(TS_RESP_CTX_new());
                Own<ASN1_OBJECT, ASN1_OBJECT_free> policy(OBJ_txt2obj("1.2.3.4.1", 1));
                Own<BIO, BIO_free_all> in(BIO_new_mem_buf(request, int(n)));
                if (!loggedIn || !request || capacity != kPfuResponseCapacity)
                  return fail(c, 41, "not logged in");
                TS_RESP_CTX_set_signer_cert(ctx.get(), tsaCert().get());  // both take their own reference
                TS_RESP_CTX_set_signer_key(ctx.get(), tsaKey().get());
                TS_RESP_CTX_set_def_policy(ctx.get(), policy.get());
                for (const EVP_MD* md : {EVP_sha1(), EVP_sha256(), EVP_sha512()})
                  TS_RESP_CTX_add_md(ctx.get(), md);
                Own<TS_RESP, TS_RESP_free> resp(TS_RESP_create_response(ctx.get(), in.get()));
                return put(der<TS_RESP>(resp.get(), i2d_TS_RESP), response, capacity, length)
                           ? 1
                           : fail(c, 42, "no response");
              })
STANDIN_ENTRY(tslib_decode_tsr,
              (PfuPair * pair, uchar* decoded, uchar* token, u32 capacity, u32* length, PfuContext* c), "", {
                if (!pair || pair->zero || !pair->request || !pair->requestLength || !pair->response ||
                    !decoded || capacity != kPfuTokenCapacity)
                  return fail(c, 51, "bad arguments");
                std::memset(decoded, 0, kPfuDecodedResponseSize);
                const uchar* p = pair->response;
                Own<TS_RESP, TS_RESP_free> resp(d2i_TS_RESP(nullptr, &p, pair->responseLength));
                const TS_STATUS_INFO* status = resp ? TS_RESP_get_status_info(resp.get()) : nullptr;
                Bytes tst = der<PKCS7>(resp ? TS_RESP_get_token(resp.get()) : nullptr, i2d_PKCS7);
                Token t;
                // The own format carries what the RFC 3161 token says.
                if (env("SEALMARK_STANDIN_PFU_FORMAT") == "own" && decode(tst.data(), tst.size(), t))
                  tst = makeOwnToken(t.digest.size() == 20 ? "1.3.14.3.2.26" : "2.16.840.1.101.3.4.2.3",
                                     t.digest.data(), t.digest.size(), "%Y-%m-%dT%H:%M:%SZ");
                return status && ASN1_INTEGER_get(TS_STATUS_INFO_get0_status(status)) == 0 &&
                               put(tst, token, capacity, length)
                           ? 1
                           : fail(c, 52, "no token granted");
              })
STANDIN_ENTRY(tslib_pfu_confirm, (uchar * area1, uchar* area2, int zero, PfuContext* c), "", {
  if (!area1 || !area2 || zero || !loggedIn) return fail(c, 61, "bad arguments");
  return std::memset(area1, 1, kPfuConfirmSizes[0]) && std::memset(area2, 2, kPfuConfirmSizes[1]);
})
STANDIN_ENTRY(tslib_decode_tst, (PfuTokenBlob * blob, PfuDecodedToken* out, PfuContext* c), "", {
  Token t;
  if (!blob || blob->zero || !out || !decode(blob->data, blob->length, t))
    return fail(c, 71, "token does not decode");
  if (t.digest.size() > 64 || t.time.size() >= sizeof out->time) return fail(c, 72, "token fields too large");
  std::memcpy(out->digest, t.digest.data(), out->digestLength = u32(t.digest.size()));
  out->certCount = u32(t.certs.size());
  return std::snprintf(out->time, sizeof out->time, "%s", t.time.c_str()) > 0;
})
STANDIN_ENTRY(tslib_get_cert,
              (const uchar* token, u32 n, int index, uchar* cert, u32 capacity, u32* length, PfuContext* c),
              std::to_string(index), {
                Token t;
                if (!decode(token, n, t) || index < 0 || std::size_t(index) >= t.certs.size())
                  return fail(c, 81, "no such certificate");
                return put(t.certs[index], cert, capacity, length) ? 1 : fail(c, 82, "buffer too small");
              })
