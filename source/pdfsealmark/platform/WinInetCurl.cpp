// The WinInet operations over libcurl.
//
// One curl easy handle per request, driven through a multi handle so that
// the exchange can stop when the header block is in (HttpSendRequestA) and go
// on as the caller reads the body (InternetReadFile), as WinInet behaves.
#include "pdfsealmark/platform/WinInet.h"

#include "pdfsealmark/platform/curl_api.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace le {
namespace platform {
namespace {

using PDF_Sealmark::platform::curl;
using PDF_Sealmark::platform::CurlEasy;
using PDF_Sealmark::platform::CurlMulti;
using PDF_Sealmark::platform::CurlSlist;
using PDF_Sealmark::platform::CurlUrl;

bool startsWithNoCase(const std::string& text, const char* prefix) {
  const std::size_t n = std::strlen(prefix);
  if (text.size() < n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) != prefix[i]) return false;
  }
  return true;
}

std::string trim(const std::string& s) {
  const std::size_t b = s.find_first_not_of(" \t");
  if (b == std::string::npos) return std::string();
  const std::size_t e = s.find_last_not_of(" \t");
  return s.substr(b, e - b + 1);
}

enum class Kind { kSession, kConnection, kRequest };

struct Handle {
  explicit Handle(Kind k) : kind(k) {}
  virtual ~Handle() = default;
  const Kind kind;
};

struct Session : Handle {
  Session() : Handle(Kind::kSession) {}
  std::string agent;
};

struct Connection : Handle {
  Connection() : Handle(Kind::kConnection) {}
  std::string agent;
  std::string server;
  std::uint16_t port = 0;
};

class Request : public Handle {
 public:
  Request() : Handle(Kind::kRequest) {}
  ~Request() override {
    if (added_) curl().multi_remove_handle(multi_.get(), easy_.get());
  }

  std::string agent;
  std::string url;
  std::string verb;  // empty: GET

  bool send(const std::string& headers, const void* body, std::uint32_t bodyLength);
  bool headerText(std::uint32_t infoLevel, std::string& text) const;
  bool read(void* buffer, std::uint32_t toRead, std::uint32_t* read);

 private:
  static std::size_t onHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t onBody(char* data, std::size_t size, std::size_t count, void* self);
  void step();

  CurlEasy easy_;
  CurlMulti multi_;
  CurlSlist headerList_;
  bool added_ = false;

  // The header block of the response being received: a new status line
  // (after a 1xx answer) starts it again.
  std::string statusText_;
  int status_ = 0;
  std::string contentLength_;
  bool haveContentLength_ = false;
  bool headersComplete_ = false;

  std::vector<unsigned char> pending_;  // body bytes not yet read
  std::size_t pendingStart_ = 0;
  std::uint64_t received_ = 0;
  bool done_ = false;
  CURLcode result_ = CURLE_OK;
};

std::size_t Request::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
  auto* r = static_cast<Request*>(self);
  const std::size_t length = size * count;
  if (r->headersComplete_) return length;  // trailers
  std::string line(data, length);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.empty()) {
    if (r->status_ >= 200) r->headersComplete_ = true;
  } else if (line.compare(0, 5, "HTTP/") == 0) {
    r->contentLength_.clear();
    r->haveContentLength_ = false;
    const std::size_t blank = line.find(' ');
    r->statusText_ = blank == std::string::npos ? std::string() : trim(line.substr(blank + 1, 3));
    r->status_ = std::atoi(r->statusText_.c_str());
  } else if (startsWithNoCase(line, "content-length:")) {
    r->contentLength_ = trim(line.substr(15));
    r->haveContentLength_ = true;
  }
  return length;
}

std::size_t Request::onBody(char* data, std::size_t size, std::size_t count, void* self) {
  auto* r = static_cast<Request*>(self);
  const std::size_t length = size * count;
  if (r->received_ + length > kMaxBodyBytes) return 0;  // aborts the transfer
  if (r->pendingStart_ > 0 && r->pendingStart_ == r->pending_.size()) {
    r->pending_.clear();
    r->pendingStart_ = 0;
  }
  r->pending_.insert(r->pending_.end(), data, data + length);
  r->received_ += length;
  return length;
}

void Request::step() {
  int running = 0;
  if (curl().multi_perform(multi_.get(), &running) != CURLM_OK) {
    done_ = true;
    result_ = CURLE_FAILED_INIT;
    return;
  }
  if (running == 0) {
    int left = 0;
    while (CURLMsg* m = curl().multi_info_read(multi_.get(), &left)) {
      if (m->msg == CURLMSG_DONE) result_ = m->data.result;
    }
    done_ = true;
    return;
  }
  curl().multi_poll(multi_.get(), nullptr, 0, 1000, nullptr);
}

bool Request::send(const std::string& headers, const void* body, std::uint32_t bodyLength) {
  if (added_) return false;
  easy_.reset(curl().easy_init());
  multi_.reset(curl().multi_init());
  if (!easy_ || !multi_) return false;
  CURL* e = easy_.get();

  // Header lines: the caller's, then ours that switch off what libcurl
  // would add on its own and WinInet doesn't send.
  bool callerContentType = false;
  curl_slist* list = nullptr;
  auto append = [&list](const std::string& line) {
    curl_slist* next = curl().slist_append(list, line.c_str());
    if (!next) return false;
    list = next;
    return true;
  };
  bool ok = true;
  std::size_t start = 0;
  while (ok && start < headers.size()) {
    std::size_t end = headers.find_first_of("\r\n", start);
    if (end == std::string::npos) end = headers.size();
    const std::string line = headers.substr(start, end - start);
    if (!line.empty()) {
      if (startsWithNoCase(line, "content-type:")) callerContentType = true;
      ok = append(line);
    }
    start = end + 1;
  }
  ok = ok && append("Expect:") && append("Accept:");
  if (ok && !callerContentType) ok = append("Content-Type:");
  headerList_.reset(list);
  if (!ok) return false;

  bool set = curl().easy_setopt(e, CURLOPT_URL, url.c_str()) == CURLE_OK;
#if LIBCURL_VERSION_NUM >= 0x075500
  set = set && curl().easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK;
#else
  set = set && curl().easy_setopt(e, CURLOPT_PROTOCOLS, long(CURLPROTO_HTTP | CURLPROTO_HTTPS)) == CURLE_OK;
#endif
  set = set && curl().easy_setopt(e, CURLOPT_NOSIGNAL, 1L) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_USERAGENT, agent.c_str()) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_HTTPHEADER, headerList_.get()) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_FRESH_CONNECT, 1L) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_FORBID_REUSE, 1L) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_PATH_AS_IS, 1L) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_CONNECTTIMEOUT, kIdleTimeoutSeconds) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_LOW_SPEED_LIMIT, 1L) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_LOW_SPEED_TIME, kIdleTimeoutSeconds) == CURLE_OK;
  // A byte now and then keeps the low-speed check content; this doesn't.
  set = set && curl().easy_setopt(e, CURLOPT_TIMEOUT, exchangeDeadlineSeconds()) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_HEADERFUNCTION, &Request::onHeader) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_HEADERDATA, this) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_WRITEFUNCTION, &Request::onBody) == CURLE_OK;
  set = set && curl().easy_setopt(e, CURLOPT_WRITEDATA, this) == CURLE_OK;
  // Trust as OpenSSL's default paths have it: the environment's file and
  // directory when set, else the system's.
  const char* caFile = std::getenv("SSL_CERT_FILE");
  if (caFile && *caFile) set = set && curl().easy_setopt(e, CURLOPT_CAINFO, caFile) == CURLE_OK;
  const char* caDir = std::getenv("SSL_CERT_DIR");
  if (caDir && *caDir) set = set && curl().easy_setopt(e, CURLOPT_CAPATH, caDir) == CURLE_OK;

  if (verb.empty() || verb == "GET") {
    set = set && curl().easy_setopt(e, CURLOPT_HTTPGET, 1L) == CURLE_OK;
  } else {
    if (verb == "POST") {
      set = set && curl().easy_setopt(e, CURLOPT_POST, 1L) == CURLE_OK;
    } else {
      set = set && curl().easy_setopt(e, CURLOPT_CUSTOMREQUEST, verb.c_str()) == CURLE_OK;
    }
    static const char kNothing[] = "";
    set = set && curl().easy_setopt(e, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(body ? bodyLength : 0)) == CURLE_OK;
    set = set && curl().easy_setopt(e, CURLOPT_COPYPOSTFIELDS, body ? body : kNothing) == CURLE_OK;
  }
  if (!set) return false;

  if (curl().multi_add_handle(multi_.get(), e) != CURLM_OK) return false;
  added_ = true;
  while (!headersComplete_ && !done_) step();
  // A transfer that failed after the header block shows in the reads.
  return headersComplete_;
}

bool Request::headerText(std::uint32_t infoLevel, std::string& text) const {
  if (!headersComplete_) return false;
  switch (infoLevel & 0xFFFFu) {
    case HTTP_QUERY_STATUS_CODE:
      text = statusText_;
      return true;
    case HTTP_QUERY_CONTENT_LENGTH:
      text = contentLength_;
      return haveContentLength_;
    default:
      return false;
  }
}

bool Request::read(void* buffer, std::uint32_t toRead, std::uint32_t* read) {
  *read = 0;
  if (!added_ || !headersComplete_) return false;
  while (pending_.size() - pendingStart_ < toRead && !done_) step();
  const std::size_t n = std::min<std::size_t>(pending_.size() - pendingStart_, toRead);
  if (n > 0) std::memcpy(buffer, pending_.data() + pendingStart_, n);
  pendingStart_ += n;
  *read = static_cast<std::uint32_t>(n);
  // A connection that closed before the announced length is an end of the
  // body to WinInet, not a failed read; the caller compares the counts.
  if (n == 0 && done_ && result_ != CURLE_OK && result_ != CURLE_PARTIAL_FILE) return false;
  return true;
}

template <class T>
T* as(HINTERNET h, Kind kind) {
  auto* handle = static_cast<Handle*>(h);
  return handle && handle->kind == kind ? static_cast<T*>(handle) : nullptr;
}

class CurlWinInet final : public WinInetApi {
 public:
  HINTERNET InternetOpenA(const char* agent, std::uint32_t, const char*, const char*, std::uint32_t) override {
    auto session = std::make_unique<Session>();
    session->agent = agent ? agent : "";
    return static_cast<Handle*>(session.release());
  }

  HINTERNET InternetConnectA(HINTERNET internet, const char* server, std::uint16_t port, const char*, const char*,
                             std::uint32_t service, std::uint32_t, std::uintptr_t) override {
    Session* session = as<Session>(internet, Kind::kSession);
    if (!session || !server || !*server || service != INTERNET_SERVICE_HTTP) return nullptr;
    auto connection = std::make_unique<Connection>();
    connection->agent = session->agent;
    connection->server = server;
    connection->port = port;
    return static_cast<Handle*>(connection.release());
  }

  HINTERNET HttpOpenRequestA(HINTERNET connect, const char* verb, const char* objectName, const char*, const char*,
                             const char**, std::uint32_t flags, std::uintptr_t) override {
    Connection* connection = as<Connection>(connect, Kind::kConnection);
    if (!connection) return nullptr;
    const bool secure = (flags & INTERNET_FLAG_SECURE) != 0;
    std::uint16_t port = connection->port;
    if (port == INTERNET_INVALID_PORT_NUMBER) port = secure ? 443 : 80;
    std::string object = objectName ? objectName : "";
    if (object.empty() || object[0] != '/') object.insert(0, "/");
    auto request = std::make_unique<Request>();
    request->agent = connection->agent;
    request->verb = verb ? verb : "";
    request->url = std::string(secure ? "https://" : "http://") + connection->server + ":" + std::to_string(port) + object;
    // A server name or an object name that doesn't fit into a URL (blanks,
    // control characters) can't be requested.
    CurlUrl parsed(curl().url());
    if (!parsed || curl().url_set(parsed.get(), CURLUPART_URL, request->url.c_str(), 0) != CURLUE_OK) return nullptr;
    return static_cast<Handle*>(request.release());
  }

  bool HttpSendRequestA(HINTERNET request, const char* headers, std::uint32_t headersLength, const void* optional,
                        std::uint32_t optionalLength) override {
    Request* r = as<Request>(request, Kind::kRequest);
    if (!r) return false;
    std::string headerText;
    if (headers) {
      headerText = headersLength == 0xFFFFFFFFu ? std::string(headers) : std::string(headers, headersLength);
    }
    return r->send(headerText, optional, optionalLength);
  }

  bool HttpQueryInfoA(HINTERNET request, std::uint32_t infoLevel, void* buffer, std::uint32_t* bufferLength,
                      std::uint32_t*) override {
    Request* r = as<Request>(request, Kind::kRequest);
    std::string text;
    if (!r || !buffer || !bufferLength || !r->headerText(infoLevel, text)) return false;
    if (text.size() + 1 > *bufferLength) {
      *bufferLength = static_cast<std::uint32_t>(text.size() + 1);
      return false;
    }
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    *bufferLength = static_cast<std::uint32_t>(text.size());
    return true;
  }

  bool InternetReadFile(HINTERNET file, void* buffer, std::uint32_t toRead, std::uint32_t* read) override {
    Request* r = as<Request>(file, Kind::kRequest);
    if (!r || !read || (!buffer && toRead > 0)) return false;
    return r->read(buffer, toRead, read);
  }

  bool InternetCloseHandle(HINTERNET handle) override {
    if (!handle) return false;
    delete static_cast<Handle*>(handle);
    return true;
  }
};

}  // namespace

WinInetApi& winInet() {
  static CurlWinInet api;
  return api;
}

namespace {
std::atomic<long> deadlineSeconds{120};
}  // namespace

long exchangeDeadlineSeconds() { return deadlineSeconds.load(std::memory_order_relaxed); }
void setExchangeDeadlineSeconds(long seconds) { deadlineSeconds.store(seconds, std::memory_order_relaxed); }

}  // namespace platform
}  // namespace le
