// Stand-in for the Amano library.  Account files are text: the line
// "asdtst-account" and then the password.  Tokens are of the stand-ins' own
// format; $SEALMARK_STANDIN_IMPRINT_OID replaces the imprint's OID text that
// ASDTSTGetTimeStampInfoEx reports.
#include <fstream>
#include <type_traits>

#include "standins/standin.h"

using namespace standin;

namespace {
bool accountOpen = false;  // one account at a time, like the client uses it

// The digest record as a client must fill it: a known OID and its length.
bool goodDigest(const AmanoDigest* d) {
  return d && std::memchr(d->oid, 0, sizeof d->oid) && digestSize(hashBy(0, d->oid)) == int(d->length);
}
bool readToken(const AmanoBlob* blob, OwnHead& head, Bytes& cert) {
  return blob && blob->length <= kAmanoTokenCapacity && readOwnToken(blob->data, blob->length, head, cert);
}
}  // namespace

extern "C" {
int ASDTSTHashInitEx(void** hash, int algorithm) {
  return entry(__func__, std::to_string(algorithm), [&] {
    const Hash* h = hashBy(algorithm);
    if (!hash || !h || algorithm == 0) return 0;
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    EVP_DigestInit_ex(ctx, EVP_get_digestbyname(h->name), nullptr);
    *hash = ctx;
    return 1;
  });
}
int ASDTSTHashUpdateEx(void* hash, const unsigned char* data, std::uint32_t length) {
  return entry(__func__, "", [&] {
    return hash && data && EVP_DigestUpdate(static_cast<EVP_MD_CTX*>(hash), data, length);
  });
}
int ASDTSTHashFinalEx(void* hash, AmanoDigest* digest) {
  return entry(__func__, "", [&] {
    MdCtx ctx(static_cast<EVP_MD_CTX*>(hash));  // the handle ends here
    if (!ctx || !digest || EVP_DigestFinal_ex(ctx.get(), digest->digest, &digest->length) != 1) return 0;
    return int(OBJ_obj2txt(digest->oid, sizeof digest->oid, OBJ_nid2obj(EVP_MD_CTX_get_type(ctx.get())), 1) >
               0);
  });
}
int ASDTSTLoadAccountEx(const char* file, const char* password, std::uint32_t length, void** account) {
  return entry(__func__, file ? file : "(null)", [&] {
    std::ifstream in(file ? file : "");
    std::string magic, stored;
    if (!account || !password || std::strlen(password) != length || !std::getline(in, magic) ||
        magic != "asdtst-account" || !std::getline(in, stored) || stored != password || accountOpen)
      return 0;
    *account = &accountOpen;
    return int(accountOpen = true);
  });
}
int ASDTSTCreateTimeStampTokenEx(void* account, AmanoConnection* connection, AmanoRequest* request,
                                 AmanoBlob* token) {
  const std::string address =
      connection ? std::string(connection->address, strnlen(connection->address, 256)) : "";
  return entry(__func__, address, [&] {
    if (account != &accountOpen || !accountOpen || address.empty() || address.size() > 255 ||
        connection->zero[0] || connection->zero[1] || !request || !goodDigest(&request->digest) ||
        request->text[0] || request->one[0] != 1 || request->one[1] != 1 || !token ||
        token->length != kAmanoTokenCapacity)
      return 0;
    const AmanoDigest& d = request->digest;
    return int(put(makeOwnToken(d.oid, d.digest, d.length, "%Y/%m/%d %H:%M:%S"), token->data, token->length,
                   &token->length));
  });
}
int ASDTSTFreeAccountEx(void* account) {
  return entry(__func__, "",
               [&] { return account == &accountOpen && accountOpen ? int(!(accountOpen = false)) : 0; });
}
int ASDTSTVerifyTimeStampTokenEx(AmanoBlob* token, AmanoDigest* digest, int zero1, int zero2) {
  return entry(__func__, "", [&] {
    OwnHead head;
    Bytes cert;
    return int(!zero1 && !zero2 && goodDigest(digest) && readToken(token, head, cert) &&
               std::strcmp(head.oid, digest->oid) == 0 && head.digestLength == digest->length &&
               std::memcmp(head.digest, digest->digest, digest->length) == 0);
  });
}
int ASDTSTGetTimeStampInfoEx(AmanoBlob* token, AmanoInfo* info) {
  return entry(__func__, "", [&] {
    OwnHead head;
    Bytes cert;
    if (!info || info->size != kAmanoInfoSize || !readToken(token, head, cert)) return 0;
    const std::string oid = env("SEALMARK_STANDIN_IMPRINT_OID");
    std::snprintf(info->imprint.oid, sizeof info->imprint.oid, "%s", oid.empty() ? head.oid : oid.c_str());
    std::memcpy(info->imprint.digest, head.digest, head.digestLength);
    info->imprint.length = head.digestLength;
    std::snprintf(info->time, sizeof info->time, "%s", head.time);
    return 1;
  });
}
int ASDTSTGetTSACert(AmanoBlob* token, AmanoBlob* cert) {
  return entry(__func__, "", [&] {
    OwnHead head;
    Bytes der;
    return int(readToken(token, head, der) && cert && cert->length == kAmanoTokenCapacity &&
               put(der, cert->data, cert->length, &cert->length));
  });
}
}

// The entry points have exactly the types the client calls them by.
static_assert(std::is_same_v<decltype(&ASDTSTHashInitEx), AsdHashInit> &&
              std::is_same_v<decltype(&ASDTSTHashUpdateEx), AsdHashUpdate> &&
              std::is_same_v<decltype(&ASDTSTHashFinalEx), AsdHashFinal> &&
              std::is_same_v<decltype(&ASDTSTLoadAccountEx), AsdLoadAccount> &&
              std::is_same_v<decltype(&ASDTSTCreateTimeStampTokenEx), AsdCreateToken> &&
              std::is_same_v<decltype(&ASDTSTFreeAccountEx), AsdFreeAccount> &&
              std::is_same_v<decltype(&ASDTSTVerifyTimeStampTokenEx), AsdVerifyToken> &&
              std::is_same_v<decltype(&ASDTSTGetTimeStampInfoEx), AsdGetInfo> &&
              std::is_same_v<decltype(&ASDTSTGetTSACert), AsdGetCert>);
