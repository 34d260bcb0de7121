#include "kit/SynPeers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <deque>

#include "kit/KitUtil.h"
#include "kit/NetTools.h"
#include "kit/Router.h"

namespace kit {

namespace {

constexpr unsigned char kBegin = 0xEB, kEnd = 0x03;
constexpr int kCmdPoll = 1, kCmdNoData = 2, kCmdData = 4;
constexpr int kSynHeaderLen = 5;
constexpr int kPrintChars = 120;

std::atomic<bool> g_synStop{false};
extern "C" void OnSynSignal(int) { g_synStop = true; }

void CatchStop() {
    g_synStop = false;
    struct sigaction act {};
    act.sa_handler = OnSynSignal;
    sigaction(SIGINT, &act, nullptr);
    sigaction(SIGTERM, &act, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

struct PeerArgs {
    std::string ip;
    int port = 0;
    int intervalMs = 1000;
    long count = 0;                 // frames to exchange; 0: until stopped
    int timeoutMs = 5000;           // for an answer
    std::deque<std::string> data;   // data frames to send, one per exchange
};

bool ParsePeerArgs(const std::vector<std::string>& a, PeerArgs* out, std::string* why) {
    if (a.empty() || !ParseIpPort(a[0], &out->ip, &out->port)) {
        *why = "the first argument is the address IP:PORT";
        return false;
    }
    for (size_t i = 1; i < a.size(); ++i) {
        const std::string& w = a[i];
        if (i + 1 >= a.size()) {
            *why = "option " + w + " wants a value";
            return false;
        }
        const std::string& v = a[++i];
        auto n = ParseLong(v);
        if (w == "--data") {
            if (v.size() > 65000) {
                *why = "a data text holds at most 65000 bytes";
                return false;
            }
            out->data.push_back(v);
        } else if (w == "--interval" && n && *n >= 0 && *n <= 3600000) {
            out->intervalMs = static_cast<int>(*n);
        } else if (w == "--count" && n && *n >= 0) {
            out->count = *n;
        } else if (w == "--timeout" && n && *n >= 1 && *n <= 3600) {
            out->timeoutMs = static_cast<int>(*n) * 1000;
        } else {
            *why = "unknown option or bad value: " + w + " " + v;
            return false;
        }
    }
    return true;
}

// The common start of both peers: line-buffered output, the arguments (a
// usage line on stderr when they are wrong), and SIGINT/SIGTERM caught.
bool StartPeer(const char* name, const std::vector<std::string>& args, PeerArgs* a) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    std::string why;
    if (!ParsePeerArgs(args, a, &why)) {
        std::fprintf(stderr,
                     "compkit %s: %s\nusage: compkit %s IP:PORT [--interval MS] [--count N] [--timeout S] "
                     "[--data TEXT]...\n",
                     name, why.c_str(), name);
        return false;
    }
    CatchStop();
    return true;
}

void Say(const char* who, const std::string& text) {
    std::printf("%s %s: %s\n", ClockText().c_str(), who, text.c_str());
}

bool SendText(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Reads exactly n bytes by the deadline.
bool ReadExact(int fd, char* out, size_t n, int64_t deadline, std::string* why) {
    for (size_t got = 0; got < n;) {
        const int64_t left = deadline - NowMs();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
            *why = "nothing within the time-out";
            return false;
        }
        const ssize_t r = recv(fd, out + got, n - got, 0);
        if (r < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (r <= 0) {
            *why = r == 0 ? "the peer closed the connection" : std::string(std::strerror(errno));
            return false;
        }
        got += static_cast<size_t>(r);
    }
    return true;
}

// Sleeps up to ms, in slices, until stopped.
void Pause(int ms) {
    for (int64_t end = NowMs() + ms; !g_synStop && NowMs() < end;) SleepMs(std::min<int64_t>(50, end - NowMs()));
}

// One exchange of the poll server on a connection: a poll, or a data frame
// when some is left, then the client's answer. False when the link is gone.
bool PollOnce(int fd, PeerArgs& a, int serial) {
    std::string out;
    if (a.data.empty()) {
        out = SynBytes(kCmdPoll, serial);
    } else {
        out = SynBytes(kCmdData, serial, a.data.front());
        a.data.pop_front();
    }
    if (!SendText(fd, out)) {
        Say("poll-server", std::string("sending failed: ") + std::strerror(errno));
        return false;
    }
    Say("poll-server", "sent   " + DescribeSyn(ParseSyn({out.begin(), out.end()})));
    std::vector<char> msg;
    std::string why;
    if (!ReadSynFrame(fd, a.timeoutMs, &msg, &why)) {
        Say("poll-server", "no answer: " + why);
        return false;
    }
    const SynView got = ParseSyn(msg);
    Say("poll-server", "answer " + DescribeSyn(got));
    if (!got.wellFormed || got.serial != serial) {
        Say("poll-server", "the answer should carry serial " + std::to_string(serial) + "; closing");
        return false;
    }
    return true;
}

}  // namespace

Framing SynFraming() {
    Framing f;
    f.headerLen = kSynHeaderLen;
    f.lenOffset = 3;
    f.lenWidth = 2;
    f.lenType = '2';
    f.lenIntel = 0;
    f.adjust = 1;
    return f;
}

std::string SynBytes(int cmd, int serial, std::string_view data) {
    std::string f;
    f.push_back(static_cast<char>(kBegin));
    f.push_back(static_cast<char>(cmd));
    f.push_back(static_cast<char>(serial));
    f.push_back(static_cast<char>((data.size() >> 8) & 0xFF));
    f.push_back(static_cast<char>(data.size() & 0xFF));
    f.append(data);
    f.push_back(static_cast<char>(kEnd));
    return f;
}

bool ReadSynFrame(int fd, int timeoutMs, std::vector<char>* frame, std::string* why) {
    const int64_t deadline = NowMs() + timeoutMs;
    frame->assign(kSynHeaderLen, 0);
    if (!ReadExact(fd, frame->data(), kSynHeaderLen, deadline, why)) return false;
    const long body = SynFraming().bodyLength(frame->data());
    if (body < 0) {
        *why = "the frame's header announces an unusable length";
        return false;
    }
    frame->resize(kSynHeaderLen + static_cast<size_t>(body));
    return ReadExact(fd, frame->data() + kSynHeaderLen, static_cast<size_t>(body), deadline, why);
}

std::string ReadSyn(int fd, int timeoutMs) {
    std::vector<char> f;
    std::string why;
    return ReadSynFrame(fd, timeoutMs, &f, &why) ? std::string(f.begin(), f.end()) : "";
}

SynView ParseSyn(const std::vector<char>& frame) {
    SynView v;
    if (frame.size() < 3) return v;
    v.cmd = static_cast<unsigned char>(frame[1]);
    v.serial = static_cast<unsigned char>(frame[2]);
    v.wellFormed = static_cast<unsigned char>(frame.front()) == kBegin && static_cast<unsigned char>(frame.back()) == kEnd;
    if (frame.size() > static_cast<size_t>(kSynHeaderLen))
        v.data.assign(frame.begin() + kSynHeaderLen, frame.end() - 1);
    return v;
}

std::string DescribeSyn(const SynView& f) {
    std::string s;
    if (!f.wellFormed) s = "malformed frame, ";
    switch (f.cmd) {
        case kCmdPoll: s += "poll"; break;
        case kCmdNoData: s += "no data"; break;
        case kCmdData: s += "data"; break;
        default: s += "command " + std::to_string(f.cmd); break;
    }
    s += " serial " + std::to_string(f.serial);
    if (!f.data.empty()) s += " \"" + Printable(f.data.data(), static_cast<int>(f.data.size()), kPrintChars) + "\"";
    return s;
}

int RunPollServer(const std::vector<std::string>& args) {
    PeerArgs a;
    if (!StartPeer("poll-server", args, &a)) return 2;
    UniqueFd lsn(ListenOn(a.ip, a.port, 4));
    if (!lsn.valid()) {
        std::fprintf(stderr, "compkit poll-server: %s:%d: %s\n", a.ip.c_str(), a.port, std::strerror(errno));
        return 1;
    }
    Say("poll-server", "listening on " + a.ip + ":" + std::to_string(a.port) + ", a poll every " +
                           std::to_string(a.intervalMs) + " ms");
    long done = 0;
    while (!g_synStop && (a.count == 0 || done < a.count)) {
        pollfd p{lsn.get(), POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        UniqueFd conn(accept4(lsn.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!conn.valid()) continue;
        Say("poll-server", "client connected; serials start at 0");
        // The serial starts again with every connection.
        for (int serial = 0; !g_synStop && (a.count == 0 || done < a.count); serial = (serial + 1) & 0xFF) {
            if (!PollOnce(conn.get(), a, serial)) break;
            ++done;
            Pause(a.intervalMs);
        }
        Say("poll-server", "connection closed");
    }
    Say("poll-server", "stopped after " + std::to_string(done) + " exchanges");
    return 0;
}

int RunPollClient(const std::vector<std::string>& args) {
    PeerArgs a;
    if (!StartPeer("poll-client", args, &a)) return 2;
    std::string why;
    UniqueFd fd(ConnectTo(a.ip, a.port, a.timeoutMs, &why));
    if (!fd.valid()) {
        std::fprintf(stderr, "compkit poll-client: %s\n", why.c_str());
        return 1;
    }
    Say("poll-client", "connected to " + a.ip + ":" + std::to_string(a.port) + "; waiting for the first poll");
    long done = 0;
    int64_t nextData = NowMs();
    while (!g_synStop && (a.count == 0 || done < a.count)) {
        std::vector<char> msg;
        // The route polls (or pushes a task) once its wait limit has passed.
        if (!ReadSynFrame(fd.get(), 3600 * 1000, &msg, &why)) {
            if (!g_synStop) Say("poll-client", why);
            return g_synStop ? 0 : 1;
        }
        const SynView got = ParseSyn(msg);
        Say("poll-client", "got    " + DescribeSyn(got));
        ++done;
        // Data goes out as the answer to a frame, at most one per interval;
        // the route answers it at once, with a task or a poll.
        std::string out = SynBytes(kCmdNoData, got.serial);
        if (!a.data.empty() && NowMs() >= nextData) {
            out = SynBytes(kCmdData, got.serial, a.data.front());
            a.data.pop_front();
            nextData = NowMs() + a.intervalMs;
        }
        if (!SendText(fd.get(), out)) {
            Say("poll-client", std::string("sending failed: ") + std::strerror(errno));
            return 1;
        }
        Say("poll-client", "sent   " + DescribeSyn(ParseSyn({out.begin(), out.end()})));
    }
    Say("poll-client", "stopped after " + std::to_string(done) + " frames");
    return 0;
}

}  // namespace kit
