// Retrieval of a CRL by URL over libcurl.
//
// One easy handle per retrieval, on a fresh connection that is closed
// afterwards, so that nothing of an earlier retrieval (connection, DNS
// answer, HTTP cache of a proxy) stands in for the source.
#include "pdfsealmark/platform/curl_api.h"
#include <cxxabi.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "pdfsealmark/platform/crl_retrieve.h"

namespace PDF_Sealmark {
namespace platform {
namespace {

struct Sink {
  std::string bytes;
  bool tooLarge = false;
};

std::size_t onData(char* data, std::size_t size, std::size_t count, void* user) {
  Sink* sink = static_cast<Sink*>(user);
  const std::size_t n = size * count;
  if (n > kMaxCrlBytes || sink->bytes.size() > kMaxCrlBytes - n) {
    sink->tooLarge = true;
    return 0;  // a short count makes libcurl end the transfer with an error
  }
  sink->bytes.append(data, n);
  return n;
}

// A URL as libcurl's parser accepts it: bytes that can't stand in a URL
// (blanks, controls, the CP932 bytes of a directory name) are
// percent-encoded, and every other character is kept, '%' included.  The
// LDAP handler decodes the DN again before it asks the directory.
std::string escapeForCurl(const char* url) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(url); *p != 0; ++p) {
    const unsigned char c = *p;
    if (c <= 0x20 || c >= 0x7F || std::strchr("\"<>\\^`{|}", c) != nullptr) {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

bool decodeBase64(const std::string& text, std::vector<unsigned char>& out) {
  std::string clean;
  for (char c : text) {
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') clean += c;
  }
  if (clean.empty() || clean.size() % 4 != 0) return false;
  std::vector<unsigned char> bytes(clean.size() / 4 * 3);
  const int n = EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(clean.data()),
                                static_cast<int>(clean.size()));
  if (n < 0) return false;
  std::size_t length = static_cast<std::size_t>(n);
  // EVP_DecodeBlock counts the padding as bytes.
  if (clean.size() >= 1 && clean[clean.size() - 1] == '=') --length;
  if (clean.size() >= 2 && clean[clean.size() - 2] == '=') --length;
  bytes.resize(length);
  out.swap(bytes);
  return true;
}

// libcurl hands an LDAP search result out as text:
//   "DN: <dn>\n" then one "\t<attribute>: <value>\n" line per value, the
// value base64-encoded for an attribute of the ";binary" option, or with
// "::" in LDIF manner for a value that isn't printable text.  The first
// value of the first entry is the object.
bool firstLdapValue(const std::string& text, std::vector<unsigned char>& out) {
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(at, end - at);
    at = end + 1;
    if (line.empty() || line[0] != '\t') continue;
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string attribute = line.substr(1, colon - 1);
    std::size_t value = colon + 1;
    bool base64 = attribute.size() >= 7 && attribute.compare(attribute.size() - 7, 7, ";binary") == 0;
    if (value < line.size() && line[value] == ':') {
      base64 = true;
      ++value;
    }
    if (value < line.size() && line[value] == ' ') ++value;
    const std::string payload = line.substr(value);
    if (base64) return decodeBase64(payload, out);
    out.assign(payload.begin(), payload.end());
    return !out.empty();
  }
  return false;
}

bool startsWith(const char* text, const char* prefix) {
  return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The local path of a "file:" URL (RFC 8089): "file:///p", "file://localhost/p"
// or "file:/p", percent-decoded, without query or fragment.  False for a URL
// that names another host or a path with a zero byte in it.
bool localPath(const char* url, std::string& path) {
  std::string rest(url + std::strlen("file:"));
  rest = rest.substr(0, rest.find_first_of("?#"));
  if (rest.compare(0, 2, "//") == 0) {
    const std::size_t slash = rest.find('/', 2);
    if (slash == std::string::npos) return false;
    std::string host = rest.substr(2, slash - 2);
    for (char& c : host) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (!host.empty() && host != "localhost") return false;
    rest = rest.substr(slash);
  }
  if (rest.empty() || rest[0] != '/') return false;
  path.clear();
  for (std::size_t i = 0; i < rest.size(); ++i) {
    if (rest[i] == '%' && i + 2 < rest.size() && hexValue(rest[i + 1]) >= 0 && hexValue(rest[i + 2]) >= 0) {
      path += static_cast<char>(hexValue(rest[i + 1]) * 16 + hexValue(rest[i + 2]));
      i += 2;
    } else {
      path += rest[i];
    }
  }
  return path.find('\0') == std::string::npos;
}

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) ::close(fd);
  }
};

// A "file:" URL comes from a certificate, so from anyone: only a regular
// file is read, and nothing may hold the caller up.  The open is
// non-blocking (a FIFO would otherwise wait for a writer forever, a device
// for its line), and the same time-out and size cap apply as on the network.
bool readLocalFile(const char* url, std::uint32_t timeoutMs, std::vector<unsigned char>& encoded) {
  std::string path;
  if (!localPath(url, path)) return false;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  FdCloser file{::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC)};
  struct stat status;
  if (file.fd < 0 || ::fstat(file.fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (status.st_size <= 0 || static_cast<std::uint64_t>(status.st_size) > kMaxCrlBytes) return false;
  std::vector<unsigned char> bytes;
  unsigned char buffer[65536];
  for (;;) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    const ssize_t n = ::read(file.fd, buffer, sizeof buffer);
    if (n == 0) break;
    if (n < 0) {
      if (errno != EINTR && errno != EAGAIN) return false;
      if (errno == EAGAIN) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      continue;
    }
    // The file may grow while it is read.
    if (bytes.size() + static_cast<std::size_t>(n) > kMaxCrlBytes) return false;
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
  encoded.swap(bytes);
  return !encoded.empty();
}

class CurlUrlRetrieval : public UrlRetrievalApi {
 public:
  bool CryptRetrieveObjectByUrlA(const char* url, std::uint32_t objectType, std::uint32_t flags,
                                 std::uint32_t timeoutMs, std::vector<unsigned char>& encoded) override {
    encoded.clear();
    try {
      return retrieve(url, objectType, flags, timeoutMs, encoded);
    } catch (abi::__forced_unwind&) {
      throw;  // a cancelled thread must unwind, or the process aborts
    } catch (...) {
      encoded.clear();
      return false;
    }
  }

 private:
  static bool retrieve(const char* url, std::uint32_t objectType, std::uint32_t /*flags*/,
                       std::uint32_t timeoutMs, std::vector<unsigned char>& encoded) {
    if (url == nullptr || objectType != CONTEXT_OID_CRL) return false;
    if (startsWith(url, "file:")) return readLocalFile(url, timeoutMs, encoded);
    const bool ldap = startsWith(url, "ldap:");
    // "ldap:/DN" names no server; libcurl has no default directory to ask.
    if (ldap && !startsWith(url, "ldap://")) return false;
    CurlEasy easy(curl().easy_init());
    if (!easy) return false;
    CURL* e = easy.get();
    CurlSlist headers;
    for (const char* h : {"Cache-Control: no-cache", "Pragma: no-cache"}) {
      curl_slist* grown = curl().slist_append(headers.get(), h);
      if (grown == nullptr) return false;
      headers.release();
      headers.reset(grown);
    }
    const std::string target = escapeForCurl(url);
    Sink sink;
    bool set = curl().easy_setopt(e, CURLOPT_URL, target.c_str()) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https,ldap,ftp") == CURLE_OK;
    // Redirects stay within HTTP: a web server can't send the retrieval to
    // a local file.
    set = set && curl().easy_setopt(e, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_MAXREDIRS, 5L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_REDIR_PROTOCOLS_STR, "http,https") == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_TIMEOUT_MS, static_cast<long>(timeoutMs)) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_FRESH_CONNECT, 1L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_FORBID_REUSE, 1L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_DNS_CACHE_TIMEOUT, 0L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_FAILONERROR, 1L) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_HTTPHEADER, headers.get()) == CURLE_OK;
    set = set &&
          curl().easy_setopt(e, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxCrlBytes)) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_WRITEFUNCTION, &onData) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_WRITEDATA, &sink) == CURLE_OK;
    const char* caFile = std::getenv("SSL_CERT_FILE");
    if (caFile && *caFile) set = set && curl().easy_setopt(e, CURLOPT_CAINFO, caFile) == CURLE_OK;
    const char* caDir = std::getenv("SSL_CERT_DIR");
    if (caDir && *caDir) set = set && curl().easy_setopt(e, CURLOPT_CAPATH, caDir) == CURLE_OK;
    if (!set) return false;
    if (curl().easy_perform(e) != CURLE_OK || sink.tooLarge) return false;

    if (ldap) return firstLdapValue(sink.bytes, encoded);
    encoded.assign(sink.bytes.begin(), sink.bytes.end());
    return !encoded.empty();
  }
};

UrlRetrievalApi* installed = nullptr;

}  // namespace

UrlRetrievalApi& urlRetrieval() {
  static CurlUrlRetrieval curlRetrieval;
  return installed ? *installed : curlRetrieval;
}

UrlRetrievalApi* setUrlRetrieval(UrlRetrievalApi* api) {
  UrlRetrievalApi* before = installed;
  installed = api;
  return before;
}

}  // namespace platform
}  // namespace PDF_Sealmark
