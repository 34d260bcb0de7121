#include "PersistentLoad.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Relays.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHeaderLen = 4;
constexpr size_t kScaleMsgLen = 24;
constexpr int kMaxEvents = 1024;
constexpr int kMaxWaitMs = 10;

int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

sockaddr_in Addr(const std::string& ip, int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &sa.sin_addr);
    return sa;
}

int SourceSocket(const std::string& srcIp, int flags, std::string* why) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    const sockaddr_in local = Addr(srcIp, 0);
    if (fd >= 0 && bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0) return fd;
    *why = "socket from " + srcIp + ": " + std::strerror(errno);
    if (fd >= 0) close(fd);
    return -1;
}

void SetTimeouts(int fd, int ioTimeoutMs) {
    timeval tv{ioTimeoutMs / 1000, (ioTimeoutMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

// Sends the request and reads as many bytes back; "" or what went wrong.
std::string Trip(int fd, const std::string& request, std::vector<char>& answer) {
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()) ||
        !RecvExact(fd, answer.data(), answer.size()))
        return std::string("send or receive: ") + std::strerror(errno);
    if (std::memcmp(answer.data(), request.data(), request.size()) != 0) return "answer differs from the request";
    return "";
}

void RoundTrips(int fd, const std::string& request, Clock::time_point deadline, const volatile sig_atomic_t* stop,
                ClientTally* t) {
    std::vector<char> answer(request.size());
    while (Clock::now() < deadline && !(stop && *stop)) {
        const Clock::time_point t0 = Clock::now();
        const std::string error = Trip(fd, request, answer);
        const Clock::time_point t1 = Clock::now();
        t->lastEnd = t1;
        if (!error.empty()) {
            ++t->failures;
            if (t->firstError.empty()) t->firstError = error;
            break;   // out of step with the relay: this client stops
        }
        ++t->exchanges;
        t->latencyUs.push_back(
            static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(t1 - t0).count()));
    }
}

}  // namespace

std::string LoopbackSource(int block, int index) {
    return "127." + std::to_string(block) + "." + std::to_string(1 + index / 250) + "." +
           std::to_string(1 + index % 250);
}

int ConnectFrom(const std::string& srcIp, int port, std::string* why) {
    int fd = SourceSocket(srcIp, 0, why);
    if (fd < 0) return -1;
    const sockaddr_in to = Addr("127.0.0.1", port);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0) return fd;
    *why = "connect from " + srcIp + ": " + std::strerror(errno);
    close(fd);
    return -1;
}

LoadResult RunPersistentLoad(const std::vector<int>& fds, const std::string& request, double seconds,
                             const volatile sig_atomic_t* stop, int ioTimeoutMs) {
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    std::vector<ClientTally> tallies(fds.size());
    std::vector<std::thread> threads;
    for (size_t i = 0; i < fds.size(); ++i) {
        SetTimeouts(fds[i], ioTimeoutMs);
        tallies[i].lastEnd = start;
        threads.emplace_back(RoundTrips, fds[i], std::cref(request), deadline, stop, &tallies[i]);
    }
    for (std::thread& t : threads) t.join();
    return MergeTallies(tallies, start);
}

bool OneRoundTrip(int fd, const std::string& request, std::string* why, int ioTimeoutMs) {
    SetTimeouts(fd, ioTimeoutMs);
    std::vector<char> answer(request.size());
    *why = Trip(fd, request, answer);
    return why->empty();
}

std::string ScaleMessage(uint32_t client, uint32_t seq) {
    char text[32];
    std::snprintf(text, sizeof text, "0020DATA%08u%08u", client % 100000000u, seq % 100000000u);
    return text;
}

bool ParseScaleMessage(const char* msg, size_t len, uint32_t* client, uint32_t* seq) {
    if (len != kScaleMsgLen || std::memcmp(msg, "0020DATA", 8) != 0) return false;
    uint32_t v[2] = {0, 0};
    for (int f = 0; f < 2; ++f)
        for (int i = 0; i < 8; ++i) {
            const char c = msg[8 + f * 8 + i];
            if (c < '0' || c > '9') return false;
            v[f] = v[f] * 10 + static_cast<uint32_t>(c - '0');
        }
    *client = v[0];
    *seq = v[1];
    return true;
}

ScaleClients::ScaleClients(int port, int count, int sourceBlock)
    : port_(port), block_(sourceBlock), clients_(static_cast<size_t>(count)),
      epfd_(epoll_create1(EPOLL_CLOEXEC)) {}

ScaleClients::~ScaleClients() {
    CloseAll();
    if (epfd_ >= 0) close(epfd_);
}

void ScaleClients::CloseAll() {
    for (Client& c : clients_)
        if (c.fd >= 0) {
            close(c.fd);
            c.fd = -1;
        }
}

int ScaleClients::open() const {
    return static_cast<int>(std::count_if(clients_.begin(), clients_.end(), [](const Client& c) { return c.fd >= 0; }));
}

bool ScaleClients::Connect(const std::function<uint64_t()>& accepted, int window, const volatile sig_atomic_t* stop,
                           std::string* why) {
    const sockaddr_in to = Addr("127.0.0.1", port_);
    for (size_t i = 0; i < clients_.size(); ++i) {
        while (i >= accepted() + static_cast<uint64_t>(window)) {
            if (stop && *stop) {
                *why = "interrupted";
                return false;
            }
            usleep(100);
        }
        int fd = SourceSocket(LoopbackSource(block_, static_cast<int>(i)), SOCK_NONBLOCK, why);
        if (fd < 0) return false;
        if (connect(fd, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS) {
            *why = "connect: " + std::string(std::strerror(errno));
            close(fd);
            return false;
        }
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u32 = static_cast<uint32_t>(i);
        if (epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
            *why = "epoll_ctl: " + std::string(std::strerror(errno));
            close(fd);
            return false;
        }
        clients_[i].fd = fd;
    }
    return true;
}

void ScaleClients::Drop(uint32_t i, ScaleResult& r) {
    Client& c = clients_[i];
    epoll_ctl(epfd_, EPOLL_CTL_DEL, c.fd, nullptr);
    close(c.fd);
    c.fd = -1;
    c.waiting = false;
    ++r.closed;
}

void ScaleClients::Read(uint32_t i, ScaleResult& r) {
    Client& c = clients_[i];
    for (;;) {
        ssize_t n = recv(c.fd, c.rx + c.rxLen, sizeof c.rx - c.rxLen, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n <= 0) {
            Drop(i, r);
            return;
        }
        c.rxLen = static_cast<uint8_t>(c.rxLen + n);
        while (c.rxLen >= kScaleMsgLen) {
            uint32_t client = 0, seq = 0;
            if (!ParseScaleMessage(c.rx, kScaleMsgLen, &client, &seq) || client != i || seq > c.seq) {
                ++r.wrong;
                c.rxLen = 0;   // out of step: what follows cannot be trusted
                break;
            }
            ++r.answered;
            if (c.waiting && seq == c.seq) {
                c.waiting = false;
                r.rttUs.push_back(static_cast<uint32_t>(NowUs() - c.sentUs));
            } else {
                ++r.late;
            }
            std::memmove(c.rx, c.rx + kScaleMsgLen, c.rxLen - kScaleMsgLen);
            c.rxLen = static_cast<uint8_t>(c.rxLen - kScaleMsgLen);
        }
    }
}

ScaleResult ScaleClients::Exchange(int periodMs, double seconds, int drainMs, const volatile sig_atomic_t* stop) {
    ScaleResult r;
    const int64_t period = static_cast<int64_t>(periodMs) * 1000;
    const int64_t n = static_cast<int64_t>(clients_.size());
    const int64_t t0 = NowUs(), end = t0 + static_cast<int64_t>(seconds * 1e6);
    int64_t round = 0, next = 0;   // the (round, client) whose message is due next
    auto due = [&] { return t0 + round * period + next * period / n; };
    std::vector<epoll_event> events(kMaxEvents);
    auto poll = [&](int64_t untilUs) {
        const int64_t left = std::max<int64_t>(untilUs - NowUs(), 0);
        const int ms = static_cast<int>(std::min<int64_t>((left + 999) / 1000, kMaxWaitMs));
        int got = epoll_wait(epfd_, events.data(), kMaxEvents, ms);
        for (int k = 0; k < got; ++k)
            if (clients_[events[k].data.u32].fd >= 0) Read(events[k].data.u32, r);
    };
    // Every message due before the end is sent, also when the loop wakes
    // late: how many go out depends only on the schedule.
    while (!(stop && *stop) && n > 0 && due() < end) {
        const int64_t now = NowUs();
        for (; due() <= now && due() < end; next == n - 1 ? (next = 0, ++round) : ++next) {
            Client& c = clients_[static_cast<size_t>(next)];
            if (c.fd < 0) continue;
            c.seq = static_cast<uint32_t>(round + 1);
            const std::string msg = ScaleMessage(static_cast<uint32_t>(next), c.seq);
            if (send(c.fd, msg.data(), msg.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(msg.size())) {
                ++r.sendFailures;
                continue;
            }
            ++r.sent;
            c.waiting = true;
            c.sentUs = NowUs();
        }
        if (due() < end) poll(due());
    }
    r.seconds = static_cast<double>(NowUs() - t0) / 1e6;
    const int64_t drainEnd = NowUs() + static_cast<int64_t>(drainMs) * 1000;
    auto out = [&] { return std::any_of(clients_.begin(), clients_.end(), [](const Client& c) { return c.waiting; }); };
    while (!(stop && *stop) && NowUs() < drainEnd && out()) poll(drainEnd);
    return r;
}

}  // namespace bench
