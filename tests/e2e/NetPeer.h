// Scripted TCP peers for the whole-process tests: a client that connects
// from a chosen loopback address, and a one-shot server.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace e2e {

class Sock {
public:
    Sock() = default;
    explicit Sock(int fd) : fd_(fd) {}
    ~Sock() { reset(); }
    Sock(Sock&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    Sock& operator=(Sock&& o) noexcept {
        if (this != &o) {
            reset();
            fd_ = o.fd_;
            o.fd_ = -1;
        }
        return *this;
    }
    int fd() const { return fd_; }
    void reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    bool send(const std::string& s) const { return ::send(fd_, s.data(), s.size(), MSG_NOSIGNAL) == (ssize_t)s.size(); }

    // Everything the peer sends until it closes or `ms` pass.
    std::string readUntilClose(int ms, bool* closed = nullptr) const {
        std::string out;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        if (closed) *closed = false;
        for (;;) {
            int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
            if (left <= 0) return out;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, left) <= 0) continue;
            char buf[4096];
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            if (n <= 0) {
                if (closed) *closed = true;
                return out;
            }
            out.append(buf, (size_t)n);
        }
    }

    // Exactly n bytes within `ms`, or what came.
    std::string readN(size_t n, int ms) const {
        std::string out;
        auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (out.size() < n) {
            int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
            if (left <= 0) break;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, left) <= 0) continue;
            char buf[4096];
            ssize_t r = recv(fd_, buf, std::min(sizeof buf, n - out.size()), 0);
            if (r <= 0) break;
            out.append(buf, (size_t)r);
        }
        return out;
    }

private:
    int fd_ = -1;
};

inline sockaddr_in Addr(const std::string& ip, int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
    return a;
}

// Connects to 127.0.0.1:port from the loopback address `from`.
inline Sock Connect(int port, const std::string& from = "127.0.0.1") {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in local = Addr(from, 0);
    bind(fd, (sockaddr*)&local, sizeof local);
    sockaddr_in to = Addr("127.0.0.1", port);
    for (int i = 0; i < 100; ++i) {
        if (connect(fd, (sockaddr*)&to, sizeof to) == 0) return Sock(fd);
        usleep(50 * 1000);  // the listener may not be up yet
        close(fd);
        fd = socket(AF_INET, SOCK_STREAM, 0);
        bind(fd, (sockaddr*)&local, sizeof local);
    }
    close(fd);
    return Sock();
}

inline int LocalPort(const Sock& s) {
    sockaddr_in a{};
    socklen_t n = sizeof a;
    getsockname(s.fd(), (sockaddr*)&a, &n);
    return ntohs(a.sin_port);
}

// A listening socket on 127.0.0.1:port.
inline Sock Listen(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a = Addr("127.0.0.1", port);
    if (bind(fd, (sockaddr*)&a, sizeof a) != 0 || listen(fd, 16) != 0) {
        close(fd);
        return Sock();
    }
    return Sock(fd);
}

inline Sock Accept(const Sock& l, int ms) {
    pollfd p{l.fd(), POLLIN, 0};
    if (poll(&p, 1, ms) <= 0) return Sock();
    return Sock(accept(l.fd(), nullptr, nullptr));
}

// Waits up to `ms` for a path to appear (a mode opens its FIFOs after the
// logon); true when it is there.
inline bool WaitForPath(const std::string& path, int ms) {
    for (int waited = 0; waited < ms; waited += 10) {
        if (access(path.c_str(), F_OK) == 0) return true;
        usleep(10 * 1000);
    }
    return access(path.c_str(), F_OK) == 0;
}

// "NNNN" + body: the framing of the test routes (4 decimal digits of body length).
inline std::string Frame(const std::string& body) {
    char h[8];
    std::snprintf(h, sizeof h, "%04zu", body.size());
    return h + body;
}

}  // namespace e2e
