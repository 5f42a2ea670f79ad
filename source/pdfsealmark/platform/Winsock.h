// Internal: the Winsock operations of the socket transport, over POSIX
// sockets (IPv4).
//
// The names and results are Winsock's, so that le::HttpConnect reads like
// the exchange it makes: SOCKET, INVALID_SOCKET, SOCKET_ERROR.  Differences
// that the platform brings:
//   - sockets carry send and receive time-outs of kIdleTimeoutSeconds (also
//     bounding connect), so that a silent peer can't block forever;
//   - send never raises SIGPIPE;
//   - names are looked up thread-safely (getaddrinfo, getservbyname_r).
#ifndef PDFSEALMARK_PLATFORM_WINSOCK_H
#define PDFSEALMARK_PLATFORM_WINSOCK_H

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

namespace le {
namespace platform {

using SOCKET = int;
constexpr SOCKET INVALID_SOCKET = -1;
constexpr int SOCKET_ERROR = -1;

// Start and end of the socket layer; nothing to do on POSIX, always 0.
int WSAStartup(std::uint16_t versionRequested);
int WSACleanup();

SOCKET socket(int family, int type, int protocol);
int connect(SOCKET s, const sockaddr* address, int length);
int send(SOCKET s, const char* data, std::size_t length, int flags);
int recv(SOCKET s, char* buffer, std::size_t length, int flags);
int closesocket(SOCKET s);

// gethostbyname, reduced to what is used of it: the first IPv4 address of
// the host, in network order.  False when there is none.
bool gethostbyname(const char* name, in_addr& firstAddress);
// getservbyname: the port of a service in network order, or false.
bool getservbyname(const char* name, const char* protocol, std::uint16_t& port);

}  // namespace platform
}  // namespace le

#endif
