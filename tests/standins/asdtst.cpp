// Stand-in for the Amano library.  Account files are text: the line
// "asdtst-account" and then the password.  Tokens are of the stand-ins' own
// format; $SEALMARK_STANDIN_IMPRINT_OID replaces the imprint's OID text that
// ASDTSTGetTimeStampInfoEx reports.
#include <fstream>

#include "standins/standin.h"

using namespace standin;

namespace {
bool accountOpen = false;  // one account at a time, as the client uses it
// The hash under way: the client never closes a handle, a new one replaces it.
Own<EVP_MD_CTX, EVP_MD_CTX_free> hashing;

// The library's hash numbers; it knows MD5 too.
const char* const kHashNames[] = {nullptr, "SHA1", "MD5", "SHA256", "SHA384", "SHA512"};
// The digest record as a client must fill it: a known OID and its length.
bool goodDigest(const AmanoDigest* d) {
  const EVP_MD* md = d && std::memchr(d->oid, 0, sizeof d->oid) ? EVP_get_digestbyname(d->oid) : nullptr;
  return md && EVP_MD_get_size(md) == int(d->length);
}
bool readToken(const AmanoBlob* blob, OwnHead& head, Bytes& cert) {
  return blob && blob->length <= kAmanoTokenCapacity && readOwnToken(blob->data, blob->length, head, cert);
}
}  // namespace

STANDIN_ENTRY(ASDTSTHashInitEx, (void** hash, int algorithm), std::to_string(algorithm), {
  if (!hash || algorithm < 1 || algorithm > 5) return 0;
  hashing.reset(EVP_MD_CTX_new());
  *hash = hashing.get();
  return EVP_DigestInit_ex(hashing.get(), EVP_get_digestbyname(kHashNames[algorithm]), nullptr);
})
STANDIN_ENTRY(ASDTSTHashUpdateEx, (void* hash, const uchar* data, u32 length), "", {
  return hash && hash == hashing.get() && data && EVP_DigestUpdate(hashing.get(), data, length);
})
STANDIN_ENTRY(ASDTSTHashFinalEx, (void* hash, AmanoDigest* digest), "", {
  return hash && hash == hashing.get() && digest &&
         EVP_DigestFinal_ex(hashing.get(), digest->digest, &digest->length) == 1 &&
         OBJ_obj2txt(digest->oid, sizeof digest->oid, OBJ_nid2obj(EVP_MD_CTX_get_type(hashing.get())), 1) > 0;
})
STANDIN_ENTRY(ASDTSTLoadAccountEx, (const char* file, const char* password, u32 length, void** account),
              file ? file : "(null)", {
                std::ifstream in(file ? file : "");
                std::string magic, stored;
                if (!account || !password || std::strlen(password) != length || !std::getline(in, magic) ||
                    magic != "asdtst-account" || !std::getline(in, stored) || stored != password ||
                    accountOpen)
                  return 0;
                *account = &accountOpen;
                return accountOpen = true;
              })
STANDIN_ENTRY(ASDTSTCreateTimeStampTokenEx,
              (void* account, AmanoConnection* connection, AmanoRequest* request, AmanoBlob* token),
              connection ? std::string(connection->address, strnlen(connection->address, 256)) : "", {
                if (account != &accountOpen || !accountOpen || !connection || !connection->address[0] ||
                    !std::memchr(connection->address, 0, 256) || connection->zero[0] || connection->zero[1] ||
                    !request || !goodDigest(&request->digest) || request->text[0] || request->one[0] != 1 ||
                    request->one[1] != 1 || !token || token->length != kAmanoTokenCapacity)
                  return 0;
                const AmanoDigest& d = request->digest;
                return put(makeOwnToken(d.oid, d.digest, d.length, "%Y/%m/%d %H:%M:%S"), token->data,
                           token->length, &token->length);
              })
STANDIN_ENTRY(ASDTSTFreeAccountEx, (void* account), "",
              { return account == &accountOpen && accountOpen ? !(accountOpen = false) : 0; })
STANDIN_ENTRY(ASDTSTVerifyTimeStampTokenEx, (AmanoBlob * token, AmanoDigest* digest, int zero1, int zero2),
              "", {
                OwnHead head;
                Bytes cert;
                return !zero1 && !zero2 && goodDigest(digest) && readToken(token, head, cert) &&
                       std::strcmp(head.oid, digest->oid) == 0 && head.digestLength == digest->length &&
                       std::memcmp(head.digest, digest->digest, digest->length) == 0;
              })
STANDIN_ENTRY(ASDTSTGetTimeStampInfoEx, (AmanoBlob * token, AmanoInfo* info), "", {
  OwnHead head;
  Bytes cert;
  if (!info || info->size != kAmanoInfoSize || !readToken(token, head, cert)) return 0;
  const std::string oid = env("SEALMARK_STANDIN_IMPRINT_OID");
  std::snprintf(info->imprint.oid, sizeof info->imprint.oid, "%s", oid.empty() ? head.oid : oid.c_str());
  std::memcpy(info->imprint.digest, head.digest, info->imprint.length = head.digestLength);
  return std::snprintf(info->time, sizeof info->time, "%s", head.time) > 0;
})
STANDIN_ENTRY(ASDTSTGetTSACert, (AmanoBlob * token, AmanoBlob* cert), "", {
  OwnHead head;
  Bytes der;
  return readToken(token, head, der) && cert && cert->length == kAmanoTokenCapacity &&
         put(der, cert->data, cert->length, &cert->length);
})
