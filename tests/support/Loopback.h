// Loopback sockets for the in-process tests.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/FdUtil.h"

namespace comptest {

// A non-blocking listener on 127.0.0.1:*port; with *port 0 the kernel picks
// a free port, which is stored back. -1 on failure.
inline int ListenLoopback(int* port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(*port));
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 8) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

// A blocking connection to 127.0.0.1:port; not valid when it failed.
inline comp::UniqueFd DialLoopback(int port) {
    comp::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) fd.reset();
    return fd;
}

}  // namespace comptest
