#include "Relays.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "base/SysTypes.h"
#include "kit/KitConfig.h"
#include "kit/KitIpc.h"
#include "kit/KitUtil.h"
#include "kit/Router.h"

namespace bench {

namespace {

namespace plat = comp::plat;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnRoleStop(int) { g_stop = 1; }

// SIGTERM and SIGINT end the role; without SA_RESTART they also interrupt a
// blocking receive or poll, so the loop sees the request at once.
void InstallStopHandlers() {
    struct sigaction sa {};
    sa.sa_handler = OnRoleStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

template <typename T>
void Put(char* text, int off, T v) {
    std::memcpy(text + off, &v, sizeof v);
}

// The 64-byte PlatMsg header of a network message of msgLen bytes.
void PutNetHeader(char* text, int msgLen, pid_t pid, int route, int sock, int port, const char* ip) {
    std::memset(text, 0, plat::kHeaderLen);
    Put<uint16_t>(text, plat::kTotalLen, static_cast<uint16_t>(plat::kHeaderLen + msgLen));
    Put<uint16_t>(text, plat::kKind, plat::kKindNet);
    Put<int32_t>(text, plat::kPid, pid);
    Put<int32_t>(text, plat::kPid2, pid);
    Put<uint16_t>(text, plat::kRoute, static_cast<uint16_t>(route));
    Put<uint16_t>(text, plat::kRoute2, static_cast<uint16_t>(route));
    Put<int32_t>(text, plat::kSock, sock);
    Put<int32_t>(text, plat::kSock2, sock);
    Put<int32_t>(text, plat::kPort, port);
    std::memcpy(text + plat::kIp, ip, 16);
    std::memcpy(text + plat::kIp2, ip, 16);
    text[plat::kFlag] = 'M';
}

// The FIFO a relay is rung on: made by the relay (its existence tells the
// bench that the relay serves) and removed when the relay goes.
class Doorbell {
public:
    ~Doorbell() {
        fd_.reset();
        if (!path_.empty()) unlink(path_.c_str());
    }
    bool Open(const std::string& path, std::string* why) {
        if (mkfifo(path.c_str(), 0644) != 0 && errno != EEXIST) {
            *why = path + ": " + std::strerror(errno);
            return false;
        }
        path_ = path;
        fd_.reset(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
        if (!fd_.valid()) *why = path + ": " + std::strerror(errno);
        return fd_.valid();
    }
    int get() const { return fd_.get(); }

private:
    std::string path_;
    kit::UniqueFd fd_;
};

constexpr int kPollMs = 200;          // how often a quiet loop looks at the stop flag
constexpr int kMaxConns = 1024;       // descriptors the relay serves
constexpr int kListenBacklog = 128;   // as the bench platform's KERNEL_BACKLOG
constexpr int kIpLen = 16;

// The baseline relay's state: one queue buffer, the connections by descriptor.
class BaselineRelay {
public:
    BaselineRelay(const BaselineOptions& opt, int toRouter, int fromRouter)
        : opt_(opt), toRouter_(toRouter), fromRouter_(fromRouter), pid_(getpid()),
          buf_(std::make_unique<QueueMsg>()), conns_(kMaxConns) {}

    bool Open(std::string* why);
    int Run();
    ~BaselineRelay();

private:
    struct Conn {
        bool open = false;
        bool waiting = false;   // request queued, answer due
        int port = 0;
        char ip[kIpLen] = {};
    };
    void Accept();
    void Request(int fd);
    void Answer();
    void Close(int fd);

    BaselineOptions opt_;
    int toRouter_, fromRouter_;
    pid_t pid_;
    std::unique_ptr<QueueMsg> buf_;
    std::vector<Conn> conns_;
    std::vector<int> reading_;       // connections whose request is still to come
    std::vector<pollfd> pfds_;
    Doorbell bell_;
    kit::UniqueFd listener_;
    long failures_ = 0;
};

BaselineRelay::~BaselineRelay() {
    for (int fd = 0; fd < kMaxConns; ++fd)
        if (conns_[fd].open) close(fd);
}

// The listener first, then the doorbell: the FIFO's existence tells the
// bench that the relay serves.
bool BaselineRelay::Open(std::string* why) {
    listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!listener_.valid()) {
        *why = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    int on = 1;
    setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(opt_.port));
    if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        listen(listener_.get(), kListenBacklog) != 0) {
        *why = "listen on 127.0.0.1:" + std::to_string(opt_.port) + ": " + std::strerror(errno);
        return false;
    }
    return bell_.Open(opt_.runDir + "/fifo/" + std::to_string(comp::kFifoPidNotify) + "_" + std::to_string(pid_),
                      why);
}

void BaselineRelay::Close(int fd) {
    close(fd);
    conns_[fd] = Conn{};
}

void BaselineRelay::Accept() {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept4(listener_.get(), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (fd < 0) return;
    if (fd >= kMaxConns) {
        close(fd);
        ++failures_;
        return;
    }
    Conn& c = conns_[fd];
    c.open = true;
    c.waiting = false;
    c.port = ntohs(peer.sin_port);
    inet_ntop(AF_INET, &peer.sin_addr, c.ip, sizeof c.ip);
    reading_.push_back(fd);
}

// Receives the framed request straight behind the room for the header and
// queues it for the router, typed with this process's pid.
void BaselineRelay::Request(int fd) {
    char* text = buf_->caText;
    char* msg = text + plat::kHeaderLen;
    const int room = comp::kQueueTextLen - plat::kHeaderLen;
    int got = 0, want = -1;
    while (want < 0 || got < want) {
        ssize_t n = recv(fd, msg + got, static_cast<size_t>(room - got), 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            Close(fd);
            return;
        }
        got += static_cast<int>(n);
        if (want < 0 && got >= opt_.headerLen) {
            int body = DecimalHeaderLength(msg, opt_.headerLen);
            if (body < 0 || opt_.headerLen + body > room) {
                ++failures_;
                Close(fd);
                return;
            }
            want = opt_.headerLen + body;
        }
    }
    Conn& c = conns_[fd];
    PutNetHeader(text, got, pid_, opt_.route, fd, c.port, c.ip);
    buf_->lMsgType = pid_;
    while (msgsnd(toRouter_, buf_.get(), static_cast<size_t>(plat::kHeaderLen + got), 0) != 0) {
        if (errno == EINTR && !g_stop) continue;
        ++failures_;
        Close(fd);
        return;
    }
    c.waiting = true;
}

// One doorbell byte, then the answer from the queue without waiting; it
// names its connection by the descriptor at header offset 16.
void BaselineRelay::Answer() {
    char bell;
    if (read(bell_.get(), &bell, 1) != 1) return;
    ssize_t n = msgrcv(fromRouter_, buf_.get(), sizeof buf_->caText, pid_, IPC_NOWAIT);
    if (n < plat::kHeaderLen) {
        ++failures_;
        return;
    }
    int32_t fd;
    std::memcpy(&fd, buf_->caText + plat::kSock, sizeof fd);
    if (fd < 0 || fd >= kMaxConns || !conns_[fd].waiting) {
        ++failures_;
        return;
    }
    const char* body = buf_->caText + plat::kHeaderLen;
    size_t left = static_cast<size_t>(n - plat::kHeaderLen);
    while (left > 0) {
        ssize_t s = send(fd, body, left, MSG_NOSIGNAL);
        if (s < 0 && errno == EINTR) continue;
        if (s <= 0) {
            ++failures_;
            break;
        }
        body += s;
        left -= static_cast<size_t>(s);
    }
    Close(fd);
}

int BaselineRelay::Run() {
    while (!g_stop) {
        pfds_.clear();
        pfds_.push_back({bell_.get(), POLLIN, 0});
        pfds_.push_back({listener_.get(), POLLIN, 0});
        for (int fd : reading_) pfds_.push_back({fd, POLLIN, 0});
        int ready = poll(pfds_.data(), pfds_.size(), kPollMs);
        if (ready < 0 && errno != EINTR) {
            std::fprintf(stderr, "baseline: poll: %s\n", std::strerror(errno));
            return 1;
        }
        if (ready <= 0) continue;
        if (pfds_[0].revents != 0) Answer();
        if (pfds_[1].revents != 0) Accept();
        // Requests: served connections leave the reading list.
        size_t keep = 0;
        const size_t fixed = 2;
        for (size_t i = fixed; i < pfds_.size(); ++i) {
            if (pfds_[i].revents != 0) {
                Request(pfds_[i].fd);
            } else {
                reading_[keep++] = pfds_[i].fd;
            }
        }
        // Connections accepted in this pass were appended behind the polled ones.
        const size_t polled = pfds_.size() - fixed;
        reading_.erase(reading_.begin() + static_cast<std::ptrdiff_t>(keep),
                       reading_.begin() + static_cast<std::ptrdiff_t>(polled));
    }
    std::printf("baseline: stopped, %ld failures\n", failures_);
    return 0;
}

}  // namespace

bool PlatformQueues(const std::string& runDir, int* toRouter, int* fromRouter, std::string* why) {
    kit::Resources res;
    if (!kit::ReadResources(runDir, &res, why)) return false;
    *toRouter = kit::QueueIdByIndex(res, comp::kQueueToTranp);
    *fromRouter = kit::QueueIdByIndex(res, comp::kQueueFromTranp);
    if (*toRouter < 0 || *fromRouter < 0) {
        *why = "queues 7 and 8 do not exist";
        return false;
    }
    return true;
}

namespace {

// A relay role: the platform's queues, the relay opened, its loop run.
template <class Relay, class Options>
int RunRelayRole(const char* name, const Options& opt) {
    InstallStopHandlers();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    int toRouter = -1, fromRouter = -1;
    std::string why;
    if (!PlatformQueues(opt.runDir, &toRouter, &fromRouter, &why)) {
        std::fprintf(stderr, "%s: %s\n", name, why.c_str());
        return 1;
    }
    Relay relay(opt, toRouter, fromRouter);
    if (!relay.Open(&why)) {
        std::fprintf(stderr, "%s: %s\n", name, why.c_str());
        return 1;
    }
    return relay.Run();
}

}  // namespace

int DecimalHeaderLength(const char* header, int headerLen) {
    if (headerLen <= 0 || headerLen > 9) return -1;
    int v = 0;
    for (int i = 0; i < headerLen; ++i) {
        if (header[i] < '0' || header[i] > '9') return -1;
        v = v * 10 + (header[i] - '0');
    }
    return v;
}

int RunRouterRole(const std::string& runDir) {
    InstallStopHandlers();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    kit::RunDirScope scope(runDir);
    kit::DirectLogs(runDir, "router");
    int toRouter = -1, fromRouter = -1;
    kit::KitConfig cfg;
    std::string why;
    if (!PlatformQueues(runDir, &toRouter, &fromRouter, &why) || !kit::LoadKitConfig(runDir, &cfg, &why)) {
        std::fprintf(stderr, "router: %s\n", why.c_str());
        return 1;
    }
    kit::Router router(runDir, cfg, toRouter, fromRouter);
    auto buf = std::make_unique<QueueMsg>();
    std::vector<std::string> trace;
    long handled = 0, undelivered = 0;
    while (!g_stop) {
        ssize_t n = msgrcv(toRouter, buf.get(), sizeof buf->caText, 0, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            std::fprintf(stderr, "router: queue 7: %s\n", std::strerror(errno));
            return 1;
        }
        trace.clear();
        router.handle(buf->caText, static_cast<int>(n), &trace);
        ++handled;
        for (const std::string& line : trace)
            if (line.find("not delivered") != std::string::npos || line.find("dropped") != std::string::npos) {
                ++undelivered;
                std::printf("router: %s\n", line.c_str());
            }
    }
    std::printf("router: stopped, %ld messages, %ld not answered\n", handled, undelivered);
    return 0;
}

int RunBaselineRole(const BaselineOptions& opt) {
    kit::RunDirScope scope(opt.runDir);
    return RunRelayRole<BaselineRelay>("baseline", opt);
}

// ---- the persistent-client baseline ---------------------------------------------

namespace {

class PcBaselineRelay {
public:
    PcBaselineRelay(const PcBaselineOptions& opt, int toRouter, int fromRouter)
        : opt_(opt), toRouter_(toRouter), fromRouter_(fromRouter), pid_(getpid()),
          out_(std::make_unique<QueueMsg>()), in_(std::make_unique<QueueMsg>()) {}
    bool Open(std::string* why);
    int Run();

private:
    bool ToServer();
    bool FromServer();

    PcBaselineOptions opt_;
    int toRouter_, fromRouter_;
    pid_t pid_;
    std::unique_ptr<QueueMsg> out_;   // messages for the router: header room, then what came
    std::unique_ptr<QueueMsg> in_;    // a message from the router
    int have_ = 0;                    // bytes received behind out_'s header room
    Doorbell bell_;
    kit::UniqueFd server_;
    char serverIp_[kIpLen] = "127.0.0.1";
};

bool PcBaselineRelay::Open(std::string* why) {
    server_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(opt_.serverPort));
    if (!server_.valid() || connect(server_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        *why = "connect 127.0.0.1:" + std::to_string(opt_.serverPort) + ": " + std::strerror(errno);
        return false;
    }
    return bell_.Open(opt_.runDir + "/fifo/" + std::to_string(comp::kFifoRouteNotify) + "_" +
                          std::to_string(opt_.route) + "_1",
                      why);
}

// One doorbell, one message of the route from queue 8, its body to the server.
bool PcBaselineRelay::ToServer() {
    char bell;
    if (read(bell_.get(), &bell, 1) != 1) return true;
    ssize_t n = msgrcv(fromRouter_, in_.get(), sizeof in_->caText, opt_.route, IPC_NOWAIT);
    if (n < plat::kHeaderLen) return true;
    const char* body = in_->caText + plat::kHeaderLen;
    size_t left = static_cast<size_t>(n - plat::kHeaderLen);
    while (left > 0) {
        ssize_t s = send(server_.get(), body, left, MSG_NOSIGNAL);
        if (s < 0 && errno == EINTR) continue;
        if (s <= 0) return false;
        body += s;
        left -= static_cast<size_t>(s);
    }
    return true;
}

// What the server sent; each whole message goes to queue 7. A message is
// assembled right behind the header room, so it is queued without a copy
// unless a later one follows it in the same receive.
bool PcBaselineRelay::FromServer() {
    char* room = out_->caText + plat::kHeaderLen;
    const int cap = comp::kQueueTextLen - plat::kHeaderLen;
    ssize_t n = recv(server_.get(), room + have_, static_cast<size_t>(cap - have_), 0);
    if (n < 0 && errno == EINTR) return true;
    if (n <= 0) return false;
    have_ += static_cast<int>(n);
    for (;;) {
        if (have_ < opt_.headerLen) return true;
        const int body = DecimalHeaderLength(room, opt_.headerLen);
        if (body < 0 || opt_.headerLen + body > cap) return false;
        const int len = opt_.headerLen + body;
        if (have_ < len) return true;
        PutNetHeader(out_->caText, len, pid_, opt_.route, server_.get(), opt_.serverPort, serverIp_);
        out_->lMsgType = pid_;
        while (msgsnd(toRouter_, out_.get(), static_cast<size_t>(plat::kHeaderLen + len), 0) != 0)
            if (errno != EINTR || g_stop) return false;
        have_ -= len;
        if (have_ > 0) std::memmove(room, room + len, static_cast<size_t>(have_));
    }
}

int PcBaselineRelay::Run() {
    pollfd fds[2] = {{bell_.get(), POLLIN, 0}, {server_.get(), POLLIN, 0}};
    while (!g_stop) {
        int ready = poll(fds, 2, kPollMs);
        if (ready < 0 && errno != EINTR) {
            std::fprintf(stderr, "pcbaseline: poll: %s\n", std::strerror(errno));
            return 1;
        }
        if (ready <= 0) continue;
        if (fds[0].revents != 0 && !ToServer()) break;
        if (fds[1].revents != 0 && !FromServer()) break;
    }
    std::printf("pcbaseline: %s\n", g_stop ? "stopped" : "the server closed the connection");
    return g_stop ? 0 : 1;
}

}  // namespace

int RunPcBaselineRole(const PcBaselineOptions& opt) { return RunRelayRole<PcBaselineRelay>("pcbaseline", opt); }

}  // namespace bench
