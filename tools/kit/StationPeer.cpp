#include "kit/StationPeer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "kit/KitUtil.h"
#include "kit/NetTools.h"
#include "kit/StationFrames.h"

namespace kit {

namespace st = station;

namespace {

std::atomic<bool> g_stationStop{false};
extern "C" void OnStationSignal(int) { g_stationStop = true; }

constexpr int kPollMs = 50;

// Where the peer is in the connection sequence.
enum class Phase { kWaitRequest, kWaitParamAnswer, kWaitSeqAck, kUp };

// One connection from comp.
class Session {
public:
    Session(const StationOptions& opt, FILE* log, int fd) : opt_(opt), log_(log), fd_(fd) {}

    // Handles what arrived; false when the connection is over.
    bool OnReadable() {
        unsigned char buf[65536];
        ssize_t n = recv(fd_, buf, sizeof buf, 0);
        if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
            Line("connection closed by comp");
            return false;
        }
        if (n < 0) return true;
        reader_.feed(buf, static_cast<size_t>(n));
        bool bad = false;
        while (auto f = reader_.next(&bad)) {
            if (!OnFrame(*f)) return false;
        }
        if (bad) {
            Line("stream is not framed (no begin tag or a bad length); closing");
            return false;
        }
        return true;
    }

    // Sends the next transaction frame when one is due; false when sending failed.
    bool OnTick(int64_t nowMs) {
        if (phase_ != Phase::kUp || sent_ >= total_ || nowMs < nextSendMs_) return true;
        const std::string& text = opt_.send[static_cast<size_t>(sent_) % opt_.send.size()];
        ++sent_;
        nextSendMs_ = nowMs + opt_.intervalMs;
        return Send(st::Trade(text, serial_), "transaction data \"" + text + "\"");
    }

    int64_t acked = 0, framesIn = 0;

private:
    bool OnFrame(const st::Bytes& f) {
        ++framesIn;
        Line("<- " + st::Describe(f));
        const int cls = st::ClassOf(f), sub = st::SubOf(f);
        if (cls == 0 && (sub == 0xFB || sub == 0x00)) {
            if (sub == 0xFB) ++acked;
            return true;
        }
        if (cls == 0 && sub == 0xFC) return true;
        if (cls == 0 && sub == 8) return Send(st::KeepAlive(serial_), "keep-alive feedback");
        if (!Acknowledge(f)) return false;
        const std::string code = st::CodeOf(f);
        switch (phase_) {
        case Phase::kWaitRequest:
            if (code != "00FF5109" || sub != 1) return true;
            if (!Send(st::ConnectFeedback(st::IdentityOf(f).data(), !opt_.reject, serial_),
                      opt_.reject ? "connection refused" : "connection accepted"))
                return false;
            if (opt_.reject) return true;
            paramStart_ = st::Control(0x520C, serial_);
            if (!Send(paramStart_, "start of the parameter sequence")) return false;
            phase_ = Phase::kWaitParamAnswer;
            return true;
        case Phase::kWaitParamAnswer:
            if (code != "04005401") return true;
            if (st::AckedIdentity(f) != st::IdentityOf(paramStart_))
                Line("   (the answer does not carry the identity of our 0400520C)");
            for (int i = 0; i < opt_.params; ++i)
                if (!Send(st::Control(0x550C, serial_), "parameter message")) return false;
            if (!Send(st::Control(0x550E, serial_), "end of the parameter synchronisation")) return false;
            phase_ = Phase::kWaitSeqAck;
            return true;
        case Phase::kWaitSeqAck:
            if (code != "05003101") return true;
            if (!Send(st::Control(0x550E, serial_), "end of the connection sequence")) return false;
            phase_ = Phase::kUp;
            Line("link up");
            return true;
        case Phase::kUp:
            return true;
        }
        return true;
    }

    // ACK, NACK or nothing, as asked.
    bool Acknowledge(const st::Bytes& f) {
        if (opt_.noAck) return true;
        ++wantAck_;
        const bool nack = opt_.nackAt > 0 && wantAck_ == opt_.nackAt;
        return Send(st::Ack(st::IdentityOf(f).data(), nack, serial_), nack ? "NACK (asked for)" : "ACK");
    }

    bool Send(st::Bytes f, const std::string& what) {
        ++framesOut_;
        if (opt_.crcErrorAt > 0 && framesOut_ == opt_.crcErrorAt) {
            f[f.size() - 2] ^= 0x5A;   // inside the CRC
            Line("   (this frame's CRC is spoiled, as asked)");
        }
        serial_ = serial_ == 0xFFFF ? 1 : static_cast<uint16_t>(serial_ + 1);
        Line("-> " + what + ": " + st::Describe(f));
        size_t off = 0;
        while (off < f.size()) {
            ssize_t n = send(fd_, f.data() + off, f.size() - off, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && errno == EAGAIN) {
                pollfd p{fd_, POLLOUT, 0};
                poll(&p, 1, 100);
                continue;
            }
            if (n <= 0) {
                Line("send failed: " + std::string(std::strerror(errno)));
                return false;
            }
            off += static_cast<size_t>(n);
        }
        return true;
    }

    void Line(const std::string& text) {
        if (opt_.quiet) return;
        std::fprintf(log_, "%s station: %s\n", ClockText().c_str(), text.c_str());
    }

    const StationOptions& opt_;
    FILE* log_;
    int fd_;
    st::Reader reader_;
    Phase phase_ = Phase::kWaitRequest;
    st::Bytes paramStart_;
    uint16_t serial_ = 1;
    int wantAck_ = 0;
    int framesOut_ = 0;
    int sent_ = 0;
    int total_ = opt_.send.empty() ? 0 : opt_.count * static_cast<int>(opt_.send.size());
    int64_t nextSendMs_ = 0;
};

bool TakeInt(const std::vector<std::string>& a, size_t* i, int lo, int* out) {
    if (*i + 1 >= a.size()) return false;
    auto v = ParseLong(a[++*i]);
    if (!v || *v < lo || *v > 100000000) return false;
    *out = static_cast<int>(*v);
    return true;
}

}  // namespace

bool ParseStationArgs(const std::vector<std::string>& a, StationOptions* o, std::string* why) {
    if (a.empty() || !ParseIpPort(a[0], &o->ip, &o->port)) {
        *why = "the first argument is the address IP:PORT to listen on";
        return false;
    }
    for (size_t i = 1; i < a.size(); ++i) {
        const std::string& w = a[i];
        bool ok = true;
        if (w == "--reject") o->reject = true;
        else if (w == "--no-ack") o->noAck = true;
        else if (w == "--once") o->once = true;
        else if (w == "--quiet") o->quiet = true;
        else if (w == "--nack") ok = TakeInt(a, &i, 1, &o->nackAt);
        else if (w == "--crc-error") ok = TakeInt(a, &i, 1, &o->crcErrorAt);
        else if (w == "--params") ok = TakeInt(a, &i, 0, &o->params);
        else if (w == "--count") ok = TakeInt(a, &i, 1, &o->count);
        else if (w == "--interval") ok = TakeInt(a, &i, 0, &o->intervalMs);
        else if (w == "--send" && i + 1 < a.size()) o->send.push_back(a[++i]);
        else if (w == "--log" && i + 1 < a.size()) o->logPath = a[++i];
        else {
            *why = "unexpected word or missing value: " + w;
            return false;
        }
        if (!ok) {
            *why = "option " + w + " wants a number";
            return false;
        }
    }
    return true;
}

int RunStation(const StationOptions& opt) {
    FILE* log = stdout;
    if (!opt.logPath.empty() && (log = std::fopen(opt.logPath.c_str(), "a")) == nullptr) {
        std::fprintf(stderr, "compkit station: %s: %s\n", opt.logPath.c_str(), std::strerror(errno));
        return 1;
    }
    setvbuf(log, nullptr, _IOLBF, 0);
    UniqueFd lsn = ListenOn(opt.ip, opt.port, 8);
    if (!lsn.valid()) {
        std::fprintf(stderr, "compkit station: %s:%d: %s\n", opt.ip.c_str(), opt.port, std::strerror(errno));
        return 1;
    }
    g_stationStop = false;
    struct sigaction act {};
    act.sa_handler = OnStationSignal;
    sigaction(SIGINT, &act, nullptr);
    sigaction(SIGTERM, &act, nullptr);
    std::fprintf(log, "%s station: listening on %s:%d\n", ClockText().c_str(), opt.ip.c_str(), opt.port);

    int64_t acked = 0, framesIn = 0;
    while (!g_stationStop) {
        pollfd p{lsn.get(), POLLIN, 0};
        if (poll(&p, 1, kPollMs) <= 0) continue;
        sockaddr_in peer{};
        socklen_t plen = sizeof peer;
        UniqueFd conn(accept4(lsn.get(), reinterpret_cast<sockaddr*>(&peer), &plen, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!conn.valid()) continue;
        const int one = 1;
        setsockopt(conn.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        char ip[INET_ADDRSTRLEN] = "?";
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
        std::fprintf(log, "%s station: comp connected from %s:%d\n", ClockText().c_str(), ip, ntohs(peer.sin_port));
        Session s(opt, log, conn.get());
        while (!g_stationStop) {
            pollfd c{conn.get(), POLLIN, 0};
            const int n = poll(&c, 1, opt.send.empty() ? kPollMs : std::min(kPollMs, std::max(opt.intervalMs, 1)));
            if (n > 0 && !s.OnReadable()) break;
            if (!s.OnTick(NowMs())) break;
        }
        acked += s.acked;
        framesIn += s.framesIn;
        std::fprintf(log, "%s station: connection ended: %lld frames in, %lld acknowledged by comp\n",
                     ClockText().c_str(), static_cast<long long>(s.framesIn), static_cast<long long>(s.acked));
        if (opt.once) break;
    }
    std::fprintf(log, "%s station: stopped (%lld frames in, %lld acknowledged by comp)\n", ClockText().c_str(),
                 static_cast<long long>(framesIn), static_cast<long long>(acked));
    if (log != stdout) std::fclose(log);
    return 0;
}

int RunStationCommand(const std::vector<std::string>& args) {
    StationOptions opt;
    std::string why;
    if (!ParseStationArgs(args, &opt, &why)) {
        std::fprintf(stderr,
                     "compkit station: %s\nusage: compkit station IP:PORT [--reject] [--no-ack] [--nack N] "
                     "[--crc-error N]\n       [--params N] [--send TEXT]... [--count N] [--interval MS] [--once] "
                     "[--quiet] [--log FILE]\n",
                     why.c_str());
        return 2;
    }
    return RunStation(opt);
}

}  // namespace kit
