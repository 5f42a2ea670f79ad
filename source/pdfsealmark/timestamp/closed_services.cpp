// The free functions over the Amano and PFU libraries.  Every record is laid
// out here, zeroed, on the stack; every length the library gives back is
// checked against the buffer it describes before a byte of it is read.
#include "pdfsealmark/timestamp/closed_services.h"

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <mutex>

#include "pdfsealmark/platform/loader.h"
#include "pdfsealmark/timestamp/closed_records.h"

namespace PDF_Sealmark {

using namespace closed_records;

namespace {

// LoadLibraryA, then GetProcAddress for the nine names in their order; true
// only when every one was found.  The library stays loaded either way.
bool resolveEntryPoints(const char* library, const char* const (&names)[9], void* (&entries)[9]) {
  platform::HMODULE module = platform::LoadLibraryA(library);
  if (!module) return false;
  for (int i = 0; i < 9; ++i) {
    entries[i] = platform::GetProcAddress(module, names[i]);
    if (!entries[i]) return false;
  }
  return true;
}

// A table of entry points, filled on the first load that finds them all and
// kept for the life of the process.  A failed load is tried again next time.
// The lock only orders the first filling; afterwards a reader takes the
// flag alone.
template <class Table>
const Table* entryTable(const char* library, const char* const (&names)[9],
                        void (*fill)(Table&, void* (&)[9])) {
  static Table table;
  static std::atomic<bool> filled{false};
  static std::mutex filling;
  if (filled.load(std::memory_order_acquire)) return &table;
  std::lock_guard<std::mutex> lock(filling);
  if (!filled.load(std::memory_order_relaxed)) {
    void* entries[9];
    if (!resolveEntryPoints(library, names, entries)) return nullptr;
    fill(table, entries);
    filled.store(true, std::memory_order_release);
  }
  return &table;
}

template <class F>
F entry(void* address) {
  return reinterpret_cast<F>(address);
}

// Text from a fixed field that a library filled: up to its first NUL, never
// past the field.
template <std::size_t N>
std::string fieldText(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

// ---------------------------------------------------------------- Amano --

struct AmanoLibrary {
  AsdHashInit hashInit;
  AsdHashUpdate hashUpdate;
  AsdHashFinal hashFinal;
  AsdLoadAccount loadAccount;
  AsdCreateToken createToken;
  AsdFreeAccount freeAccount;
  AsdVerifyToken verifyToken;
  AsdGetInfo getInfo;
  AsdGetCert getCert;
};

const AmanoLibrary* amanoLibrary() {
  return entryTable<AmanoLibrary>("asdtst", kAmanoEntryPoints, [](AmanoLibrary& t, void*(&e)[9]) {
    t = {entry<AsdHashInit>(e[0]),    entry<AsdHashUpdate>(e[1]),  entry<AsdHashFinal>(e[2]),
         entry<AsdLoadAccount>(e[3]), entry<AsdCreateToken>(e[4]), entry<AsdFreeAccount>(e[5]),
         entry<AsdVerifyToken>(e[6]), entry<AsdGetInfo>(e[7]),     entry<AsdGetCert>(e[8])};
  });
}

const struct {
  int number;
  const char* oid;
} kAmanoHashes[] = {{kAmanoSha1, "1.3.14.3.2.26"},
                    {kAmanoSha256, "2.16.840.1.101.3.4.2.1"},
                    {kAmanoSha384, "2.16.840.1.101.3.4.2.2"},
                    {kAmanoSha512, "2.16.840.1.101.3.4.2.3"}};

// The library digests all of data in one update; true when its final call
// gave 1.  The results of init and update aren't read: final tells.
bool amanoHash(const AmanoLibrary& lib, int algorithm, const std::vector<unsigned char>& data,
               AmanoDigest& digest) {
  void* hash = nullptr;
  lib.hashInit(&hash, algorithm);
  lib.hashUpdate(hash, data.data(), static_cast<std::uint32_t>(data.size()));
  return lib.hashFinal(hash, &digest) == 1;
}

// A token the client can pass at all: not empty, and within the buffer the
// library's interface gives it.
bool amanoTokenFits(const std::vector<unsigned char>& token) {
  return !token.empty() && token.size() <= kAmanoTokenCapacity;
}

// ASDTSTGetTimeStampInfoEx on a copy of the token in a buffer of the
// interface's size.
bool amanoTokenInfo(const AmanoLibrary& lib, const std::vector<unsigned char>& token, AmanoInfo& info) {
  unsigned char buffer[kAmanoTokenCapacity];
  std::memcpy(buffer, token.data(), token.size());
  AmanoBlob blob{buffer, static_cast<std::uint32_t>(token.size())};
  info = AmanoInfo{};
  info.size = kAmanoInfoSize;
  return lib.getInfo(&blob, &info) == 1;
}

// ------------------------------------------------------------------ PFU --

// The service's endpoint; the library adds nothing to it.
constexpr char kPfuEndpoint[] = "https://tsa.pfu.example/tsa";

struct PfuLibrary {
  TslDatahash datahash;
  TslLogin login;
  TslLogout logout;
  TslMakeTsq makeTsq;
  TslTsreq tsreq;
  TslDecodeTsr decodeTsr;
  TslConfirm confirm;
  TslDecodeTst decodeTst;
  TslGetCert getCert;
};

const PfuLibrary* pfuLibrary() {
  return entryTable<PfuLibrary>("tslib", kPfuEntryPoints, [](PfuLibrary& t, void*(&e)[9]) {
    t = {entry<TslDatahash>(e[0]), entry<TslLogin>(e[1]),     entry<TslLogout>(e[2]),
         entry<TslMakeTsq>(e[3]),  entry<TslTsreq>(e[4]),     entry<TslDecodeTsr>(e[5]),
         entry<TslConfirm>(e[6]),  entry<TslDecodeTst>(e[7]), entry<TslGetCert>(e[8])};
  });
}

// Lengths cross the interface in 32 bits.
bool fits32(const std::vector<unsigned char>& bytes) { return bytes.size() <= UINT32_MAX; }

// tslib_decode_tst into decoded; context keeps the library's error.
bool pfuDecode(const PfuLibrary& lib, const std::vector<unsigned char>& token, PfuDecodedToken& decoded,
               PfuContext& context) {
  PfuTokenBlob blob{token.data(), static_cast<std::uint32_t>(token.size()), 0};
  return lib.decodeTst(&blob, &decoded, &context) == 1;
}

}  // namespace

// ---------------------------------------------------------------- Amano --

bool loadAmanoLibrary() { return amanoLibrary() != nullptr; }

const char* moduleRelativePath(const char* module, const char* fileName, std::string& path) {
  if (!fileName) return nullptr;
  char buffer[PATH_MAX];
  const std::uint32_t length =
      platform::GetModuleFileNameA(platform::GetModuleHandleA(module), buffer, sizeof buffer);
  if (length < 1) return nullptr;
  // The module's directory, with its final slash, and the file name behind it.
  const std::string modulePath(buffer, length);
  path = modulePath.substr(0, modulePath.rfind('/') + 1) + fileName;
  return path.c_str();
}

std::vector<unsigned char> createAmanoToken(const std::vector<unsigned char>& data,
                                            const char* serviceAddress, const char* accountFile,
                                            const char* password) {
  std::vector<unsigned char> token;
  if (data.empty() || !serviceAddress || !accountFile || !password) return token;
  // What doesn't fit the interface's fields is never handed on: the address
  // with its NUL into 256 bytes, lengths into 32 bits.
  const std::size_t passwordLength = std::strlen(password);
  if (std::strlen(serviceAddress) >= sizeof(AmanoConnection::address) || !fits32(data) ||
      passwordLength > UINT32_MAX) {
    return token;
  }
  const AmanoLibrary* lib = amanoLibrary();
  if (!lib) return token;

  AmanoDigest digest{};
  if (!amanoHash(*lib, kAmanoSha512, data, digest)) return token;
  std::memset(digest.oid, 0, sizeof digest.oid);
  std::strcpy(digest.oid, "2.16.840.1.101.3.4.2.3");
  digest.length = 64;

  // The account file as named, else beside this library, else beside the
  // executable.
  void* account = nullptr;
  const auto load = [&](const char* file) {
    return file &&
           lib->loadAccount(file, password, static_cast<std::uint32_t>(passwordLength), &account) == 1;
  };
  std::string beside;
  if (!load(accountFile) && !load(moduleRelativePath(platform::kOwnModuleName, accountFile, beside)) &&
      !load(moduleRelativePath(nullptr, accountFile, beside))) {
    return token;
  }

  AmanoConnection connection{};
  std::strcpy(connection.address, serviceAddress);
  AmanoRequest request{};
  request.digest = digest;
  request.one[0] = request.one[1] = 1;
  unsigned char buffer[kAmanoTokenCapacity];
  AmanoBlob out{buffer, kAmanoTokenCapacity};
  const int result = lib->createToken(account, &connection, &request, &out);
  // 1900 comes with a token as good as that of 1.
  if ((result == 1 || result == 1900) && out.length <= kAmanoTokenCapacity) {
    token.assign(buffer, buffer + out.length);
  }
  lib->freeAccount(account);
  return token;
}

bool verifyAmanoToken(const std::vector<unsigned char>& token, const std::vector<unsigned char>& data) {
  const AmanoLibrary* lib = amanoLibrary();
  if (!lib || data.empty() || !amanoTokenFits(token) || !fits32(data)) return false;
  AmanoInfo info;
  if (!amanoTokenInfo(*lib, token, info)) return false;

  // Digest the data with the token's own algorithm; only the table's four
  // count, whatever else the library might know.
  AmanoDigest digest{};
  const std::string oid = fieldText(info.imprint.oid);
  int algorithm = 0;
  for (const auto& hash : kAmanoHashes) {
    if (oid == hash.oid) algorithm = hash.number;
  }
  if (algorithm == 0) return false;
  std::memcpy(digest.oid, oid.c_str(), oid.size() + 1);
  digest.length = info.imprint.length;
  if (!amanoHash(*lib, algorithm, data, digest)) return false;

  // The information call may have written into its buffer: lay the token
  // out again.
  unsigned char buffer[kAmanoTokenCapacity];
  std::memcpy(buffer, token.data(), token.size());
  AmanoBlob blob{buffer, static_cast<std::uint32_t>(token.size())};
  return lib->verifyToken(&blob, &digest, 0, 0) == 1;
}

bool getAmanoTokenDate(const std::vector<unsigned char>& token, std::string& text) {
  const AmanoLibrary* lib = amanoLibrary();
  if (!lib || !amanoTokenFits(token)) return false;
  AmanoInfo info;
  if (!amanoTokenInfo(*lib, token, info)) return false;
  text = fieldText(info.time);
  return true;
}

int getAmanoTokenCert(const std::vector<unsigned char>& token, int index, std::vector<unsigned char>& der) {
  const AmanoLibrary* lib = amanoLibrary();
  // A token holds the authority's certificate only.
  if (!lib || index != 0 || !amanoTokenFits(token)) return -1;
  unsigned char buffer[kAmanoTokenCapacity], certificate[kAmanoTokenCapacity];
  std::memcpy(buffer, token.data(), token.size());
  AmanoBlob blob{buffer, static_cast<std::uint32_t>(token.size())};
  AmanoBlob out{certificate, kAmanoTokenCapacity};
  if (lib->getCert(&blob, &out) != 1 || out.length > kAmanoTokenCapacity) return -1;
  der.assign(certificate, certificate + out.length);
  return 1;
}

// ------------------------------------------------------------------ PFU --

bool loadPfuLibrary() { return pfuLibrary() != nullptr; }

std::vector<unsigned char> createPfuToken(const std::vector<unsigned char>& data, const char* user,
                                          const char* password) {
  std::vector<unsigned char> token;
  const PfuLibrary* lib = pfuLibrary();
  if (!lib || !user || !password || !fits32(data)) return token;
  PfuContext context{};
  unsigned char digest[64] = {};
  if (lib->datahash("SHA-512", data.data(), static_cast<std::uint32_t>(data.size()), digest, &context) == 0) {
    return token;
  }
  PfuLogin login{};
  if (lib->login(kPfuEndpoint, user, password, &login, &context) == 0) return token;

  // Logged in: whatever happens now, the way out is the logout.
  unsigned char request[kPfuRequestCapacity], response[kPfuResponseCapacity], buffer[kPfuTokenCapacity];
  std::uint32_t requestLength = 0, responseLength = 0, tokenLength = 0;
  if (lib->makeTsq("SHA-512", digest, request, kPfuRequestCapacity, &requestLength, &context) != 0 &&
      requestLength <= kPfuRequestCapacity &&
      lib->tsreq(request, requestLength, response, kPfuResponseCapacity, &responseLength, &context) != 0 &&
      responseLength <= kPfuResponseCapacity) {
    PfuPair pair{};
    pair.response = response;
    pair.responseLength = responseLength;
    pair.request = request;
    pair.requestLength = requestLength;
    unsigned char decoded[kPfuDecodedResponseSize] = {};
    if (lib->decodeTsr(&pair, decoded, buffer, kPfuTokenCapacity, &tokenLength, &context) != 0 &&
        tokenLength <= kPfuTokenCapacity) {
      token.assign(buffer, buffer + tokenLength);
      unsigned char area1[kPfuConfirmSizes[0]] = {}, area2[kPfuConfirmSizes[1]] = {};
      lib->confirm(area1, area2, 0, &context);
    }
  }
  // A token from a session that didn't end properly isn't delivered.
  if (lib->logout(&context) == 0) token.clear();
  return token;
}

bool verifyPfuToken(const std::vector<unsigned char>& token, const std::vector<unsigned char>& data) {
  const PfuLibrary* lib = pfuLibrary();
  if (!lib || !fits32(token) || !fits32(data)) return false;
  PfuContext context{};
  PfuDecodedToken decoded{};
  if (!pfuDecode(*lib, token, decoded, context)) return false;
  // The imprint's length names the hash.
  const std::uint32_t length = decoded.digestLength;
  const char* hash = length == 64 ? "SHA-512" : length == 20 ? "SHA-1" : nullptr;
  if (!hash) return false;
  unsigned char digest[64] = {};
  if (lib->datahash(hash, data.data(), static_cast<std::uint32_t>(data.size()), digest, &context) == 0) {
    return false;
  }
  return std::memcmp(digest, decoded.digest, length) == 0;
}

bool getPfuTokenDate(const std::vector<unsigned char>& token, std::string& text) {
  const PfuLibrary* lib = pfuLibrary();
  if (!lib) return false;
  PfuContext context{};
  PfuDecodedToken decoded{};
  if (fits32(token) && pfuDecode(*lib, token, decoded, context)) {
    text = fieldText(decoded.time);
    return true;
  }
  text = fieldText(context.message) + " (" + std::to_string(context.code) + ")";
  return false;
}

int getPfuTokenCert(const std::vector<unsigned char>& token, int index, std::vector<unsigned char>& der) {
  const PfuLibrary* lib = pfuLibrary();
  if (!lib) return -1;
  der.clear();
  PfuContext context{};
  PfuDecodedToken decoded{};
  if (index < 0 || !fits32(token) || !pfuDecode(*lib, token, decoded, context)) return -1;
  if (decoded.certCount <= static_cast<std::uint32_t>(index)) return 0;
  // A certificate can't be larger than the token that holds it.
  der.resize(token.size());
  std::uint32_t length = 0;
  const std::uint32_t size = static_cast<std::uint32_t>(token.size());
  if (lib->getCert(token.data(), size, index, der.data(), size, &length, &context) != 1 || length == 0 ||
      length > size) {
    der.clear();
    return -1;
  }
  der.resize(length);
  return 1;
}

}  // namespace PDF_Sealmark
