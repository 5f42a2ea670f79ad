// The Winsock operations over POSIX sockets.
#include <netdb.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>

#include "pdfsealmark/platform/WinInet.h"
#include "pdfsealmark/platform/Winsock.h"

namespace le {
namespace platform {

namespace {

// Every socket's exchange ends exchangeDeadlineSeconds() after the socket was
// made: the idle time-out alone lets a peer that trickles a byte now and
// then hold a caller for ever.
// A socket lives within one call on one thread, so the table is per thread.
thread_local std::map<SOCKET, std::chrono::steady_clock::time_point> deadlines;

// Sets the socket's time-outs to what is left before its deadline, capped
// at the idle time-out; false once nothing is left.
bool armTimeouts(SOCKET s) {
  std::chrono::steady_clock::time_point deadline;
  auto it = deadlines.find(s);
  if (it == deadlines.end()) return true;
  deadline = it->second;
  const auto left =
      std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
  if (left.count() <= 0) {
    errno = ETIMEDOUT;
    return false;
  }
  const auto wait = std::min<long long>(left.count(), kIdleTimeoutSeconds * 1000000LL);
  timeval t{};
  t.tv_sec = static_cast<time_t>(wait / 1000000);
  t.tv_usec = static_cast<suseconds_t>(wait % 1000000);
  (void)::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &t, sizeof t);
  (void)::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &t, sizeof t);
  return true;
}

}  // namespace

int WSAStartup(std::uint16_t) { return 0; }

int WSACleanup() { return 0; }

SOCKET socket(int family, int type, int protocol) {
  const SOCKET s = ::socket(family, type | SOCK_CLOEXEC, protocol);
  if (s < 0) return INVALID_SOCKET;
  timeval idle{};
  idle.tv_sec = kIdleTimeoutSeconds;
  // Failing to set a time-out leaves a working, if less careful, socket.
  (void)::setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, &idle, sizeof idle);
  (void)::setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &idle, sizeof idle);
  deadlines[s] = std::chrono::steady_clock::now() + std::chrono::seconds(exchangeDeadlineSeconds());
  return s;
}

int connect(SOCKET s, const sockaddr* address, int length) {
  int rc;
  do {
    rc = ::connect(s, address, static_cast<socklen_t>(length));
  } while (rc != 0 && errno == EINTR);
  return rc == 0 ? 0 : SOCKET_ERROR;
}

int send(SOCKET s, const char* data, std::size_t length, int flags) {
  std::size_t sent = 0;
  while (sent < length) {
    if (!armTimeouts(s)) return sent > 0 ? static_cast<int>(sent) : SOCKET_ERROR;
    const ssize_t n = ::send(s, data + sent, length - sent, flags | MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return sent > 0 ? static_cast<int>(sent) : SOCKET_ERROR;
    sent += static_cast<std::size_t>(n);
  }
  return static_cast<int>(sent);
}

int recv(SOCKET s, char* buffer, std::size_t length, int flags) {
  ssize_t n;
  do {
    if (!armTimeouts(s)) return SOCKET_ERROR;
    n = ::recv(s, buffer, length, flags);
  } while (n < 0 && errno == EINTR);
  return n < 0 ? SOCKET_ERROR : static_cast<int>(n);
}

int closesocket(SOCKET s) {
  deadlines.erase(s);
  return ::close(s) == 0 ? 0 : SOCKET_ERROR;
}

bool gethostbyname(const char* name, in_addr& firstAddress) {
  if (!name || !*name) return false;
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (::getaddrinfo(name, nullptr, &hints, &found) != 0 || !found) return false;
  bool ok = false;
  for (addrinfo* a = found; a; a = a->ai_next) {
    if (a->ai_family == AF_INET && a->ai_addrlen >= sizeof(sockaddr_in)) {
      std::memcpy(&firstAddress, &reinterpret_cast<const sockaddr_in*>(a->ai_addr)->sin_addr,
                  sizeof firstAddress);
      ok = true;
      break;
    }
  }
  ::freeaddrinfo(found);
  return ok;
}

bool getservbyname(const char* name, const char* protocol, std::uint16_t& port) {
  servent entry{};
  servent* result = nullptr;
  char buffer[1024];
  if (::getservbyname_r(name, protocol, &entry, buffer, sizeof buffer, &result) != 0 || !result) return false;
  port = static_cast<std::uint16_t>(result->s_port);
  return true;
}

}  // namespace platform
}  // namespace le
