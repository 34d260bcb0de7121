#include "Relays.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/msg.h>
#include <sys/uio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "base/SysTypes.h"
#include "kit/KitConfig.h"
#include "kit/KitIpc.h"
#include "kit/KitUtil.h"
#include "kit/NetTools.h"
#include "kit/Router.h"
#include "modes/FwHeader.h"

namespace bench {

namespace {

namespace plat = comp::plat;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnRoleStop(int) { g_stop = 1; }

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

constexpr int kPollMs = 200;          // how often a quiet loop looks at the stop flag
constexpr int kMaxConns = 1024;       // descriptors the relay serves
constexpr int kListenBacklog = 128;   // as the bench platform's KERNEL_BACKLOG
constexpr int kIpLen = 16;

// The FIFO RUNDIR/fifo/<name>, opened to be read without waiting; removed by
// the caller.
bool MakeFifo(const std::string& runDir, const std::string& name, std::string* path, kit::UniqueFd* fd,
              std::string* why) {
    const std::string p = runDir + "/fifo/" + name;
    if (mkfifo(p.c_str(), 0644) != 0 && errno != EEXIST) {
        *why = p + ": " + std::strerror(errno);
        return false;
    }
    *path = p;
    fd->reset(open(p.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    if (!fd->valid()) {
        *why = p + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// A listening socket on 127.0.0.1:port.
bool ListenLoopback(int port, kit::UniqueFd* out, std::string* why) {
    out->reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!out->valid()) {
        *why = std::string("socket: ") + std::strerror(errno);
        return false;
    }
    int on = 1;
    setsockopt(out->get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(out->get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        listen(out->get(), kListenBacklog) != 0) {
        *why = "listen on 127.0.0.1:" + std::to_string(port) + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// The FIFO "1_<pid>", opened to be read without waiting; removed by the caller.
bool MakeBell(const std::string& runDir, pid_t pid, std::string* path, kit::UniqueFd* fd, std::string* why) {
    return MakeFifo(runDir, std::to_string(comp::kFifoPidNotify) + "_" + std::to_string(pid), path, fd, why);
}

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
    std::string bellPath_;
    kit::UniqueFd bell_, listener_;
    long failures_ = 0;
};

BaselineRelay::~BaselineRelay() {
    for (int fd = 0; fd < kMaxConns; ++fd)
        if (conns_[fd].open) close(fd);
    bell_.reset();
    if (!bellPath_.empty()) unlink(bellPath_.c_str());
}

// The listener first, then the doorbell: the FIFO's existence tells the
// bench that the relay serves.
bool BaselineRelay::Open(std::string* why) {
    return ListenLoopback(opt_.port, &listener_, why) && MakeBell(opt_.runDir, pid_, &bellPath_, &bell_, why);
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
    if (opt_.persistent && left == 0) {
        conns_[fd].waiting = false;
        reading_.push_back(fd);
        return;
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


// ---- the baseline relay pair -------------------------------------------------

namespace fw = comp::fw;

constexpr size_t kStreamBufBytes = 1 << 20;
constexpr int kEpollBatch = 64;
constexpr int kLinkConnectMs = 10000;

// Bytes received on a stream, taken from the front as whole units are cut.
class InBuf {
public:
    InBuf() : buf_(kStreamBufBytes) {}
    // One recv of what is there; false when the peer closed or failed.
    bool Fill(int fd) {
        if (begin_ > 0 && begin_ == end_) begin_ = end_ = 0;
        if (end_ == buf_.size()) {   // move the rest to the front
            std::memmove(buf_.data(), buf_.data() + begin_, end_ - begin_);
            end_ -= begin_;
            begin_ = 0;
        }
        ssize_t n = recv(fd, buf_.data() + end_, buf_.size() - end_, 0);
        if (n < 0 && errno == EINTR) return true;
        if (n <= 0) return false;
        end_ += static_cast<size_t>(n);
        return true;
    }
    const char* data() const { return buf_.data() + begin_; }
    size_t size() const { return end_ - begin_; }
    void Consume(size_t n) { begin_ += n; }

private:
    std::vector<char> buf_;
    size_t begin_ = 0, end_ = 0;
};

// Length of the whole framed message at p (n bytes there): 0 when more
// bytes are needed, -1 when its header is no length.
long FrameLength(const char* p, size_t n, int headerLen) {
    if (n < static_cast<size_t>(headerLen)) return 0;
    int body = DecimalHeaderLength(p, headerLen);
    if (body < 0) return -1;
    const size_t whole = static_cast<size_t>(headerLen + body);
    return n < whole ? 0 : static_cast<long>(whole);
}

// Writes the header and the message with one writev (more only when the
// socket takes less).
bool SendUnit(int fd, const char* hdr, const char* msg, size_t len) {
    iovec iov[2] = {{const_cast<char*>(hdr), fw::kHeaderLen}, {const_cast<char*>(msg), len}};
    int cnt = len > 0 ? 2 : 1;
    iovec* v = iov;
    while (cnt > 0) {
        ssize_t n = writev(fd, v, cnt);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        size_t sent = static_cast<size_t>(n);
        while (cnt > 0 && sent >= v->iov_len) {
            sent -= v->iov_len;
            ++v;
            --cnt;
        }
        if (cnt > 0) {
            v->iov_base = static_cast<char*>(v->iov_base) + sent;
            v->iov_len -= sent;
        }
    }
    return true;
}

bool SendAll(int fd, const char* p, size_t len) {
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// The epoll loop both halves run: handle(fd) for every ready descriptor.
template <class F>
int EpollLoop(int ep, const char* who, F&& handle) {
    epoll_event ev[kEpollBatch];
    while (!g_stop) {
        int n = epoll_wait(ep, ev, kEpollBatch, kPollMs);
        if (n < 0 && errno != EINTR) {
            std::fprintf(stderr, "%s: epoll_wait: %s\n", who, std::strerror(errno));
            return 1;
        }
        for (int i = 0; i < n; ++i) handle(ev[i].data.fd);
    }
    return 0;
}

void EpollAdd(int ep, int fd) {
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.fd = fd;
    epoll_ctl(ep, EPOLL_CTL_ADD, fd, &e);
}

class PairFront {
public:
    explicit PairFront(const PairOptions& opt) : opt_(opt), ep_(epoll_create1(EPOLL_CLOEXEC)), byPort_(65536, -1) {}
    ~PairFront() {
        if (!bellPath_.empty()) unlink(bellPath_.c_str());
    }
    bool Open(std::string* why) {
        if (!ListenLoopback(opt_.clientPort, &listener_, why)) return false;
        std::string err;
        for (const int64_t end = kit::NowMs() + kLinkConnectMs; !link_.valid() && !g_stop; kit::SleepMs(20)) {
            link_.reset(kit::ConnectTo("127.0.0.1", opt_.linkPort, 1000, &err));
            if (kit::NowMs() >= end) break;
        }
        if (!link_.valid()) {
            *why = "link to 127.0.0.1:" + std::to_string(opt_.linkPort) + ": " + err;
            return false;
        }
        int one = 1;
        setsockopt(link_.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        EpollAdd(ep_.get(), listener_.get());
        EpollAdd(ep_.get(), link_.get());
        return MakeBell(opt_.runDir, getpid(), &bellPath_, &bell_, why);
    }
    int Run() {
        int rc = EpollLoop(ep_.get(), "pair-front", [this](int fd) {
            if (fd == listener_.get())
                Accept();
            else if (fd == link_.get())
                FromLink();
            else
                FromClient(fd);
        });
        std::printf("pair-front: stopped, %ld failures\n", failures_);
        return rc;
    }

private:
    struct Client {
        InBuf in;
        int port = 0;
        char ip[kIpLen] = {};
    };
    void Accept() {
        sockaddr_in peer{};
        socklen_t len = sizeof peer;
        int fd = accept4(listener_.get(), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
        if (fd < 0) return;
        auto c = std::make_unique<Client>();
        c->port = ntohs(peer.sin_port);
        inet_ntop(AF_INET, &peer.sin_addr, c->ip, sizeof c->ip);
        byPort_[static_cast<size_t>(c->port)] = fd;
        clients_[fd] = std::move(c);
        EpollAdd(ep_.get(), fd);
    }
    void Drop(int fd) {
        auto it = clients_.find(fd);
        if (it == clients_.end()) return;
        byPort_[static_cast<size_t>(it->second->port)] = -1;
        clients_.erase(it);
        close(fd);
    }
    void FromClient(int fd) {
        auto it = clients_.find(fd);
        if (it == clients_.end()) return;
        Client& c = *it->second;
        if (!c.in.Fill(fd)) {
            Drop(fd);
            return;
        }
        long whole;
        while ((whole = FrameLength(c.in.data(), c.in.size(), opt_.headerLen)) > 0) {
            char hdr[fw::kHeaderLen];
            fw::Build(fw::kData, c.ip, c.port, nullptr, hdr);
            if (!SendUnit(link_.get(), hdr, c.in.data(), static_cast<size_t>(whole))) ++failures_;
            c.in.Consume(static_cast<size_t>(whole));
        }
        if (whole < 0) Drop(fd);
    }
    void FromLink() {
        if (!link_in_.Fill(link_.get())) {
            std::fprintf(stderr, "pair-front: the link closed\n");
            g_stop = 1;
            return;
        }
        for (;;) {
            if (link_in_.size() < static_cast<size_t>(fw::kHeaderLen)) return;
            const char* p = link_in_.data();
            long whole = FrameLength(p + fw::kHeaderLen, link_in_.size() - fw::kHeaderLen, opt_.headerLen);
            if (whole == 0) return;
            if (whole < 0) {
                std::fprintf(stderr, "pair-front: the link is out of step\n");
                g_stop = 1;
                return;
            }
            fw::ExHeader h;
            fw::Parse(p, &h);
            const int fd = h.port >= 0 && h.port < 65536 ? byPort_[static_cast<size_t>(h.port)] : -1;
            if (fd < 0 || !SendAll(fd, p + fw::kHeaderLen, static_cast<size_t>(whole))) ++failures_;
            link_in_.Consume(fw::kHeaderLen + static_cast<size_t>(whole));
        }
    }

    PairOptions opt_;
    kit::UniqueFd ep_, listener_, link_, bell_;
    std::string bellPath_;
    InBuf link_in_;
    std::map<int, std::unique_ptr<Client>> clients_;
    std::vector<int> byPort_;   // client descriptor by port (all clients are on loopback)
    long failures_ = 0;
};

class PairUpper {
public:
    PairUpper(const PairOptions& opt, int toRouter, int fromRouter)
        : opt_(opt), toRouter_(toRouter), fromRouter_(fromRouter), pid_(getpid()),
          ep_(epoll_create1(EPOLL_CLOEXEC)), buf_(std::make_unique<QueueMsg>()) {}
    ~PairUpper() {
        if (!bellPath_.empty()) unlink(bellPath_.c_str());
    }
    bool Open(std::string* why) {
        if (!ListenLoopback(opt_.linkPort, &listener_, why) || !MakeBell(opt_.runDir, pid_, &bellPath_, &bell_, why))
            return false;
        EpollAdd(ep_.get(), listener_.get());
        EpollAdd(ep_.get(), bell_.get());
        return true;
    }
    int Run() {
        int rc = EpollLoop(ep_.get(), "pair-upper", [this](int fd) {
            if (fd == listener_.get())
                Accept();
            else if (fd == bell_.get())
                Answer();
            else if (fd == link_.get())
                FromLink();
        });
        std::printf("pair-upper: stopped, %ld failures\n", failures_);
        return rc;
    }

private:
    void Accept() {
        int fd = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        link_.reset(fd);
        in_ = std::make_unique<InBuf>();
        EpollAdd(ep_.get(), fd);
    }
    void FromLink() {
        if (!in_->Fill(link_.get())) {
            link_.reset();
            return;
        }
        for (;;) {
            if (in_->size() < static_cast<size_t>(fw::kHeaderLen)) return;
            const char* p = in_->data();
            fw::ExHeader h;
            fw::Parse(p, &h);
            long whole = 0;
            if (fw::CarriesMessage(h.kind, fw::Reader::kServer)) {
                whole = FrameLength(p + fw::kHeaderLen, in_->size() - fw::kHeaderLen, opt_.headerLen);
                if (whole == 0) return;
                if (whole < 0) {
                    link_.reset();
                    return;
                }
            }
            if (h.kind == fw::kData) Queue(h, p + fw::kHeaderLen, static_cast<int>(whole));
            if (h.kind == fw::kBeat && !SendUnit(link_.get(), p, p + fw::kHeaderLen, static_cast<size_t>(whole)))
                ++failures_;
            in_->Consume(fw::kHeaderLen + static_cast<size_t>(whole));
        }
    }
    // The client's message to the router, as the PlatMsg of its client.
    void Queue(const fw::ExHeader& h, const char* msg, int len) {
        char* text = buf_->caText;
        std::memcpy(text + plat::kHeaderLen, msg, static_cast<size_t>(len));
        PutNetHeader(text, len, pid_, opt_.route, link_.get(), h.port, h.ip);
        buf_->lMsgType = pid_;
        while (msgsnd(toRouter_, buf_.get(), static_cast<size_t>(plat::kHeaderLen + len), 0) != 0)
            if (errno != EINTR || g_stop) {
                ++failures_;
                return;
            }
    }
    void Answer() {
        char bell;
        if (read(bell_.get(), &bell, 1) != 1) return;
        ssize_t n = msgrcv(fromRouter_, buf_.get(), sizeof buf_->caText, pid_, IPC_NOWAIT);
        if (n < plat::kHeaderLen || !link_.valid()) {
            ++failures_;
            return;
        }
        const char* text = buf_->caText;
        char ip[kIpLen + 1] = {};
        std::memcpy(ip, text + plat::kIp, kIpLen);
        int32_t port;
        std::memcpy(&port, text + plat::kPort, sizeof port);
        char hdr[fw::kHeaderLen];
        fw::Build(fw::kData, ip, port, nullptr, hdr);
        if (!SendUnit(link_.get(), hdr, text + plat::kHeaderLen, static_cast<size_t>(n - plat::kHeaderLen)))
            ++failures_;
    }

    PairOptions opt_;
    int toRouter_, fromRouter_;
    pid_t pid_;
    kit::UniqueFd ep_, listener_, link_, bell_;
    std::string bellPath_;
    std::unique_ptr<InBuf> in_;
    std::unique_ptr<QueueMsg> buf_;
    long failures_ = 0;
};

// ---- the persistent-client baseline ----------------------------------------------

class PcBaselineRelay {
public:
    PcBaselineRelay(const PcBaselineOptions& opt, int toRouter, int fromRouter)
        : opt_(opt), toRouter_(toRouter), fromRouter_(fromRouter), pid_(getpid()),
          out_(std::make_unique<QueueMsg>()), in_(std::make_unique<QueueMsg>()) {}
    ~PcBaselineRelay() {
        bell_.reset();
        if (!bellPath_.empty()) unlink(bellPath_.c_str());
    }
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
    std::string bellPath_;
    kit::UniqueFd bell_, server_;
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
    return MakeFifo(opt_.runDir, std::to_string(comp::kFifoRouteNotify) + "_" + std::to_string(opt_.route) + "_1",
                    &bellPath_, &bell_, why);
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

bool RoleStopped() { return g_stop != 0; }

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

namespace {

// A relay role that talks to the router: stop handlers, the run directory,
// queues 7 and 8, then Open and Run of a Relay built from (opt, to, from).
template <class Relay, class Opt>
int RunQueueRole(const char* who, const std::string& runDir, const Opt& opt) {
    InstallStopHandlers();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    kit::RunDirScope scope(runDir);
    int toRouter = -1, fromRouter = -1;
    std::string why;
    if (!PlatformQueues(runDir, &toRouter, &fromRouter, &why)) {
        std::fprintf(stderr, "%s: %s\n", who, why.c_str());
        return 1;
    }
    Relay relay(opt, toRouter, fromRouter);
    if (!relay.Open(&why)) {
        std::fprintf(stderr, "%s: %s\n", who, why.c_str());
        return 1;
    }
    return relay.Run();
}

}  // namespace

int RunBaselineRole(const BaselineOptions& opt) { return RunQueueRole<BaselineRelay>("baseline", opt.runDir, opt); }

int RunPairFrontRole(const PairOptions& opt) {
    InstallStopHandlers();
    setvbuf(stdout, nullptr, _IOLBF, 0);
    PairFront front(opt);
    std::string why;
    if (!front.Open(&why)) {
        std::fprintf(stderr, "pair-front: %s\n", why.c_str());
        return 1;
    }
    return front.Run();
}

int RunPairUpperRole(const PairOptions& opt) { return RunQueueRole<PairUpper>("pair-upper", opt.runDir, opt); }

int RunPcBaselineRole(const PcBaselineOptions& opt) {
    return RunQueueRole<PcBaselineRelay>("pcbaseline", opt.runDir, opt);
}

int RunRoleFromArgs(int argc, char** argv, bool persistentBaseline) {
    if (argc < 2 || std::strcmp(argv[1], "--role") != 0) return -1;
    const std::string role = argc >= 3 ? argv[2] : "";
    if (role == "router" && argc == 4) return RunRouterRole(argv[3]);
    if (role == "baseline" && argc == 6) {
        BaselineOptions b;
        b.runDir = argv[3];
        b.route = std::atoi(argv[4]);
        b.port = std::atoi(argv[5]);
        b.persistent = persistentBaseline;
        return RunBaselineRole(b);
    }
    std::fprintf(stderr, "usage: %s --role router RUNDIR | --role baseline RUNDIR ROUTE PORT\n", argv[0]);
    return 2;
}

}  // namespace bench
