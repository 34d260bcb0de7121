#include "SynBaselines.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "Relays.h"
#include "base/SysTypes.h"
#include "kit/KitUtil.h"

namespace bench {

namespace {

constexpr int kHeaderLen = 5;            // EB cmd serial len len
constexpr int kPollMs = 200;             // how often a quiet loop looks at the stop flag
constexpr key_t kTaskKeyOffset = 0x8000;
constexpr int kMaxConns = 1024;

// Reads exactly n bytes of a blocking socket; false on close or error.
bool RecvAll(int fd, char* out, size_t n) {
    size_t got = 0;
    while (got < n) {
        const ssize_t r = recv(fd, out + got, n - got, MSG_WAITALL);
        if (r < 0 && errno == EINTR && !RoleStopped()) continue;
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

// One frame: the header, then as many bytes as its length field says plus
// the end byte. Its length, or -1.
int RecvFrame(int fd, char* buf, size_t cap) {
    if (!RecvAll(fd, buf, kHeaderLen)) return -1;
    const size_t len = kHeaderLen + ((static_cast<unsigned char>(buf[3]) << 8) | static_cast<unsigned char>(buf[4])) + 1;
    if (len > cap || !RecvAll(fd, buf + kHeaderLen, len - kHeaderLen)) return -1;
    return static_cast<int>(len);
}

void Empty(char* out, int cmd, int serial) {
    const char f[6] = {static_cast<char>(0xEB), static_cast<char>(cmd), static_cast<char>(serial), 0, 0, 3};
    std::memcpy(out, f, sizeof f);
}

// The answer to a poll: the message's frame with command 4 and the serial,
// or the six-byte frame of emptyCmd. Its bytes and length.
const char* Answer(QueueMsg* msg, int msgLen, int emptyCmd, int serial, char* empty, int* len) {
    if (msgLen >= comp::plat::kHeaderLen + 3) {
        char* f = msg->caText + comp::plat::kHeaderLen;
        f[1] = 4;
        f[2] = static_cast<char>(serial);
        *len = msgLen - comp::plat::kHeaderLen;
        return f;
    }
    Empty(empty, emptyCmd, serial);
    *len = 6;
    return empty;
}

bool SendAll(int fd, const char* data, int len) {
    return send(fd, data, static_cast<size_t>(len), MSG_NOSIGNAL) == len;
}

}  // namespace

int RunPcsynBaselineRole(const SynBaselineOptions& opt) {
    InstallStopHandlers();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int toRouter = -1, fromRouter = -1;
    std::string why;
    if (!PlatformQueues(opt.runDir, &toRouter, &fromRouter, &why)) {
        std::fprintf(stderr, "pcsyn-baseline: %s\n", why.c_str());
        return 1;
    }
    kit::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(opt.port));
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        std::fprintf(stderr, "pcsyn-baseline: connect: %s\n", std::strerror(errno));
        return 1;
    }
    auto in = std::make_unique<char[]>(comp::kQueueTextLen);
    auto msg = std::make_unique<QueueMsg>();
    char empty[6];
    long polls = 0;
    while (!RoleStopped()) {
        pollfd p{fd.get(), POLLIN, 0};
        if (poll(&p, 1, kPollMs) <= 0) continue;
        const int n = RecvFrame(fd.get(), in.get(), comp::kQueueTextLen);
        if (n < 0) break;
        const int serial = static_cast<unsigned char>(in[2]);
        msg->lMsgType = opt.route;
        const ssize_t got = msgrcv(fromRouter, msg.get(), sizeof msg->caText, opt.route, IPC_NOWAIT);
        int len = 0;
        const char* out = Answer(msg.get(), got > 0 ? static_cast<int>(got) : 0, 2, serial, empty, &len);
        if (!SendAll(fd.get(), out, len)) break;
        ++polls;
    }
    std::printf("pcsyn-baseline: stopped after %ld polls\n", polls);
    return 0;
}

int RunPassynBaselineRole(const SynBaselineOptions& opt) {
    InstallStopHandlers();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int toRouter = -1, fromRouter = -1;
    std::string why;
    if (!PlatformQueues(opt.runDir, &toRouter, &fromRouter, &why)) {
        std::fprintf(stderr, "passyn-baseline: %s\n", why.c_str());
        return 1;
    }
    const int taskQ = msgget(getpid() + kTaskKeyOffset, IPC_CREAT | IPC_EXCL | 0600);
    kit::UniqueFd lsn(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int on = 1;
    setsockopt(lsn.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(opt.port));
    kit::UniqueFd ep(epoll_create1(EPOLL_CLOEXEC));
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = lsn.get();
    if (taskQ < 0 || bind(lsn.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(lsn.get(), 256) != 0 ||
        epoll_ctl(ep.get(), EPOLL_CTL_ADD, lsn.get(), &ev) != 0) {
        std::fprintf(stderr, "passyn-baseline: set-up: %s\n", std::strerror(errno));
        if (taskQ >= 0) msgctl(taskQ, IPC_RMID, nullptr);
        return 1;
    }
    struct Conn {
        bool open = false;
        int serial = 0;
        int port = 0;
        long type = 0;   // the client's address, the type of its tasks
    };
    std::vector<Conn> conns(kMaxConns);
    auto in = std::make_unique<QueueMsg>();
    auto task = std::make_unique<QueueMsg>();
    char empty[6];
    std::vector<epoll_event> ready(256);
    const int32_t pid = getpid();
    long polls = 0;
    while (!RoleStopped()) {
        const int n = epoll_wait(ep.get(), ready.data(), static_cast<int>(ready.size()), kPollMs);
        for (int i = 0; i < n; ++i) {
            const int fd = ready[static_cast<size_t>(i)].data.fd;
            if (fd == lsn.get()) {
                sockaddr_in peer{};
                socklen_t plen = sizeof peer;
                const int c = accept4(lsn.get(), reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC);
                if (c < 0 || c >= kMaxConns) {
                    if (c >= 0) close(c);
                    continue;
                }
                setsockopt(c, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                conns[c] = Conn{true, 0, ntohs(peer.sin_port), static_cast<long>(peer.sin_addr.s_addr)};
                epoll_event cev{};
                cev.events = EPOLLIN;
                cev.data.fd = c;
                epoll_ctl(ep.get(), EPOLL_CTL_ADD, c, &cev);
                Empty(empty, 1, 0);
                SendAll(c, empty, 6);
                continue;
            }
            Conn& conn = conns[fd];
            char* text = in->caText;
            const int len = RecvFrame(fd, text + comp::plat::kHeaderLen, comp::kQueueTextLen - comp::plat::kHeaderLen);
            if (len < 0 || static_cast<unsigned char>(text[comp::plat::kHeaderLen]) != 0xEB ||
                static_cast<unsigned char>(text[comp::plat::kHeaderLen + 2]) != conn.serial) {
                epoll_ctl(ep.get(), EPOLL_CTL_DEL, fd, nullptr);
                close(fd);
                conn.open = false;
                continue;
            }
            if (text[comp::plat::kHeaderLen + 1] != 4) continue;
            task->lMsgType = conn.type;
            const ssize_t got = msgrcv(taskQ, task.get(), sizeof task->caText, conn.type, IPC_NOWAIT);
            conn.serial = (conn.serial + 1) & 0xFF;
            int alen = 0;
            const char* out = Answer(task.get(), got > 0 ? static_cast<int>(got) : 0, 1, conn.serial, empty, &alen);
            SendAll(fd, out, alen);
            // The frame behind its header, to the router.
            std::memset(text, 0, comp::plat::kHeaderLen);
            const uint16_t total = static_cast<uint16_t>(comp::plat::kHeaderLen + len);
            const uint16_t route = static_cast<uint16_t>(opt.route);
            std::memcpy(text + comp::plat::kTotalLen, &total, sizeof total);
            std::memcpy(text + comp::plat::kPid, &pid, sizeof pid);
            std::memcpy(text + comp::plat::kRoute, &route, sizeof route);
            std::memcpy(text + comp::plat::kSock, &fd, sizeof fd);
            std::memcpy(text + comp::plat::kPort, &conn.port, sizeof conn.port);
            in->lMsgType = pid;
            while (msgsnd(toRouter, in.get(), total, 0) != 0 && errno == EINTR && !RoleStopped()) {
            }
            ++polls;
        }
    }
    msgctl(taskQ, IPC_RMID, nullptr);
    std::printf("passyn-baseline: stopped after %ld polls\n", polls);
    return 0;
}

}  // namespace bench
