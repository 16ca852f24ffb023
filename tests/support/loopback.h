// Sockets on the loopback interface.
#ifndef TESTS_LOOPBACK_H
#define TESTS_LOOPBACK_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

namespace loopback {

inline sockaddr_in addressOf(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// A socket that listens on a port, or for 0 on a free one, which `port` then is.
inline int listenOn(uint16_t& port, int backlog) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = addressOf(port);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    if (bind(fd, generic, length) != 0 || listen(fd, backlog) != 0) abort();
    getsockname(fd, generic, &length);
    port = ntohs(address.sin_port);
    return fd;
}

/// A socket that connects to a port; `flags` of socket().
inline int connectTo(uint16_t port, int flags = 0) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    const sockaddr_in address = addressOf(port);
    static_cast<void>(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    return fd;
}

}  // namespace loopback

#endif
