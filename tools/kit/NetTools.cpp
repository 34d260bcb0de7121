#include "kit/NetTools.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>

#include "kit/Framing.h"
#include "kit/KitUtil.h"
#include "kit/Router.h"

namespace kit {

namespace {

constexpr int kPrintChars = 200;

struct NetArgs {
    std::string ip;
    int port = 0;
    Framing framing;
    std::string headerFill;
    std::string prefix;          // echo-server: put in front of each answer body
    std::string heartbeat;       // echo-server: body of its heartbeat; a message beginning so is one
    int beatEverySec = 0;        // echo-server: heartbeat after this many seconds without sending
    std::vector<std::string> words;
    int count = 1;
    int timeoutMs = 5000;
    bool wantAnswer = true;
    bool reconnect = false;      // send: a new connection for every message
};

bool TakeValue(const std::vector<std::string>& a, size_t* i, std::string* out) {
    if (*i + 1 >= a.size()) return false;
    *out = a[++*i];
    return true;
}

// Common options: ADDR first, then --frame RULE | --rundir DIR --route ID, --header TEXT.
bool ParseNetArgs(const std::vector<std::string>& a, bool client, NetArgs* out, std::string* why) {
    if (a.empty() || !ParseIpPort(a[0], &out->ip, &out->port)) {
        *why = "the first argument is the address IP:PORT";
        return false;
    }
    std::string rundir, route, frame, v;
    for (size_t i = 1; i < a.size(); ++i) {
        const std::string& w = a[i];
        bool ok = true;
        if (w == "--frame") ok = TakeValue(a, &i, &frame);
        else if (w == "--rundir") ok = TakeValue(a, &i, &rundir);
        else if (w == "--route") ok = TakeValue(a, &i, &route);
        else if (w == "--header") ok = TakeValue(a, &i, &out->headerFill);
        else if (w == "--prefix" && !client) ok = TakeValue(a, &i, &out->prefix);
        else if (w == "--heartbeat" && !client) ok = TakeValue(a, &i, &out->heartbeat) && !out->heartbeat.empty();
        else if (w == "--beat-every" && !client) {
            ok = TakeValue(a, &i, &v);
            auto n = ParseLong(v);
            ok = ok && n && *n >= 1 && *n <= 86400;
            if (ok) out->beatEverySec = static_cast<int>(*n);
        }
        else if (w == "--no-answer" && client) out->wantAnswer = false;
        else if (w == "--reconnect" && client) out->reconnect = true;
        else if ((w == "--count" || w == "--timeout") && client) {
            ok = TakeValue(a, &i, &v);
            auto n = ParseLong(v);
            ok = ok && n && *n >= 1 && *n <= 1000000;
            if (ok && w == "--count") out->count = static_cast<int>(*n);
            if (ok && w == "--timeout") out->timeoutMs = static_cast<int>(*n) * 1000;
        } else if (w.rfind("--", 0) == 0) {
            *why = "unknown option " + w;
            return false;
        } else {
            out->words.push_back(w);
        }
        if (!ok) {
            *why = "option " + w + " wants a value";
            return false;
        }
    }
    if (!frame.empty()) {
        auto f = Framing::Parse(frame, why);
        if (!f) return false;
        out->framing = *f;
    } else if (!route.empty()) {
        auto id = ParseLong(route);
        auto f = id ? Framing::FromTables(rundir.empty() ? "." : rundir, static_cast<int>(*id), why) : std::nullopt;
        if (!f) {
            if (!id) *why = "--route wants a route id";
            return false;
        }
        out->framing = *f;
    }
    return true;
}

std::string Describe(const Framing& f, const std::vector<char>& msg) {
    const int hl = std::min<int>(f.headerLen, static_cast<int>(msg.size()));
    return "header \"" + Printable(msg.data(), hl, kPrintChars) + "\" body \"" +
           Printable(msg.data() + hl, static_cast<int>(msg.size()) - hl, kPrintChars) + "\" (" +
           std::to_string(msg.size()) + " bytes)";
}

bool SendAll(int fd, const std::vector<char>& data) {
    size_t done = 0;
    while (done < data.size()) {
        ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::atomic<bool> g_netStop{false};
extern "C" void OnNetSignal(int) { g_netStop = true; }

}  // namespace

int ConnectTo(const std::string& ip, int port, int timeoutMs, std::string* why) {
    UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &sa.sin_addr);
    if (!fd.valid()) {
        *why = std::strerror(errno);
        return -1;
    }
    if (connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        if (errno != EINPROGRESS) {
            *why = "connect " + ip + ":" + std::to_string(port) + ": " + std::strerror(errno);
            return -1;
        }
        pollfd p{fd.get(), POLLOUT, 0};
        int err = 0;
        socklen_t len = sizeof err;
        if (poll(&p, 1, timeoutMs) != 1 || getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
            *why = "connect " + ip + ":" + std::to_string(port) + ": " + (err ? std::strerror(err) : "timed out");
            return -1;
        }
    }
    return fd.release();
}

bool ReadFramed(int fd, const Framing& f, int timeoutMs, std::vector<char>* msg, std::string* why) {
    FrameReader reader(f);
    const int64_t deadline = NowMs() + timeoutMs;
    char buf[4096];
    for (;;) {
        bool bad = false;
        if (auto m = reader.next(&bad)) {
            *msg = std::move(*m);
            return true;
        }
        if (bad) {
            *why = "the answer's header announces an unusable length";
            return false;
        }
        const int64_t left = deadline - NowMs();
        pollfd p{fd, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) {
            *why = "no answer within " + std::to_string(timeoutMs / 1000) + " s";
            return false;
        }
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n <= 0) {
            *why = n == 0 ? "the peer closed the connection" : std::string(std::strerror(errno));
            return false;
        }
        reader.feed(buf, static_cast<size_t>(n));
    }
}

int RunSend(const std::vector<std::string>& args) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    NetArgs a;
    std::string why;
    if (!ParseNetArgs(args, true, &a, &why)) {
        std::fprintf(stderr,
                     "compkit send: %s\nusage: compkit send IP:PORT [--frame H,O,W,T[,I[,A]] | --rundir DIR --route ID]\n"
                     "         [--header TEXT] [--count N] [--reconnect] [--timeout S] [--no-answer] TEXT...\n",
                     why.c_str());
        return 2;
    }
    std::string body;
    for (size_t i = 0; i < a.words.size(); ++i) body += (i ? " " : "") + a.words[i];
    if (!a.framing.fits(body.size(), &why)) {
        std::fprintf(stderr, "compkit send: %s\n", why.c_str());
        return 2;
    }
    UniqueFd fd;
    int failures = 0;
    for (int i = 0; i < a.count; ++i) {
        if (!fd.valid() || a.reconnect) {
            fd.reset(ConnectTo(a.ip, a.port, a.timeoutMs, &why));
            if (!fd.valid()) {
                std::fprintf(stderr, "compkit send: %s\n", why.c_str());
                return 1;
            }
        }
        std::vector<char> msg = a.framing.encode(body, a.headerFill);
        if (!SendAll(fd.get(), msg)) {
            std::fprintf(stderr, "compkit send: sending failed: %s\n", std::strerror(errno));
            return 1;
        }
        std::printf("sent   %s\n", Describe(a.framing, msg).c_str());
        if (!a.wantAnswer) continue;
        std::vector<char> answer;
        if (!ReadFramed(fd.get(), a.framing, a.timeoutMs, &answer, &why)) {
            std::printf("no answer: %s\n", why.c_str());
            ++failures;
            break;
        }
        std::printf("answer %s\n", Describe(a.framing, answer).c_str());
    }
    return failures == 0 ? 0 : 1;
}

UniqueFd ListenOn(const std::string& ip, int port, int backlog) {
    UniqueFd lsn(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int one = 1;
    setsockopt(lsn.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, ip.c_str(), &sa.sin_addr);
    if (!lsn.valid() || bind(lsn.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        listen(lsn.get(), backlog) != 0)
        return UniqueFd();
    return lsn;
}

int RunEchoServer(const std::vector<std::string>& args) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    NetArgs a;
    std::string why;
    if (!ParseNetArgs(args, false, &a, &why) || !a.words.empty()) {
        std::fprintf(stderr,
                     "compkit echo-server: %s\nusage: compkit echo-server IP:PORT [--frame H,O,W,T[,I[,A]] | "
                     "--rundir DIR --route ID] [--prefix TEXT]\n"
                     "         [--heartbeat BODY [--beat-every SECONDS]]\n",
                     why.empty() ? "unexpected words" : why.c_str());
        return 2;
    }
    if (a.beatEverySec > 0 && a.heartbeat.empty()) {
        std::fprintf(stderr, "compkit echo-server: --beat-every needs --heartbeat BODY\n");
        return 2;
    }
    if (!a.heartbeat.empty() && !a.framing.fits(a.heartbeat.size(), &why)) {
        std::fprintf(stderr, "compkit echo-server: heartbeat: %s\n", why.c_str());
        return 2;
    }
    const std::vector<char> beat = a.framing.encode(a.heartbeat);
    UniqueFd lsn = ListenOn(a.ip, a.port, 64);
    if (!lsn.valid()) {
        std::fprintf(stderr, "compkit echo-server: %s:%d: %s\n", a.ip.c_str(), a.port, std::strerror(errno));
        return 1;
    }
    g_netStop = false;
    struct sigaction act {};
    act.sa_handler = OnNetSignal;
    sigaction(SIGINT, &act, nullptr);
    sigaction(SIGTERM, &act, nullptr);
    std::printf("%s echo-server: listening on %s:%d\n", ClockText().c_str(), a.ip.c_str(), a.port);

    struct Conn {
        UniqueFd fd;
        FrameReader reader;
        std::string peer;
        int64_t lastSendMs;
    };
    std::map<int, Conn> conns;
    const int64_t beatMs = static_cast<int64_t>(a.beatEverySec) * 1000;
    while (!g_netStop) {
        std::vector<pollfd> fds{{lsn.get(), POLLIN, 0}};
        int waitMs = 200;
        for (auto& [fd, c] : conns) {
            fds.push_back({fd, POLLIN, 0});
            if (beatMs > 0) waitMs = static_cast<int>(std::clamp<int64_t>(c.lastSendMs + beatMs - NowMs(), 0, waitMs));
        }
        if (poll(fds.data(), fds.size(), waitMs) > 0 && (fds[0].revents & POLLIN)) {
            sockaddr_in peer{};
            socklen_t len = sizeof peer;
            int fd = accept4(lsn.get(), reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
            if (fd >= 0) {
                char ip[INET_ADDRSTRLEN] = "?";
                inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof ip);
                std::string name = std::string(ip) + ":" + std::to_string(ntohs(peer.sin_port));
                conns.emplace(fd, Conn{UniqueFd(fd), FrameReader(a.framing), name, NowMs()});
                std::printf("%s echo-server: %s connected\n", ClockText().c_str(), name.c_str());
            }
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            Conn& c = conns.at(fds[i].fd);
            bool closeIt = false;
            if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                char buf[4096];
                ssize_t n = recv(fds[i].fd, buf, sizeof buf, 0);
                closeIt = n <= 0;
                if (n > 0) c.reader.feed(buf, static_cast<size_t>(n));
            }
            bool bad = false;
            while (auto m = c.reader.next(&bad)) {
                const int hl = a.framing.headerLen;
                const std::string_view got(m->data() + hl, m->size() - static_cast<size_t>(hl));
                // A heartbeat is answered with this server's own; anything
                // else comes back with the prefix.
                const bool isBeat = !a.heartbeat.empty() && got.substr(0, a.heartbeat.size()) == a.heartbeat;
                std::printf("%s echo-server: %s sent %s%s\n", ClockText().c_str(), c.peer.c_str(),
                            isBeat ? "a heartbeat: " : "", Describe(a.framing, *m).c_str());
                const std::string body = isBeat ? a.heartbeat : a.prefix + std::string(got);
                // A length field that cannot hold the answer's length would
                // lie about it: no answer, and the connection is closed.
                if (std::string tooLong; !a.framing.fits(body.size(), &tooLong)) {
                    std::printf("%s echo-server: %s not answered: %s\n", ClockText().c_str(), c.peer.c_str(),
                                tooLong.c_str());
                    closeIt = true;
                    break;
                }
                std::vector<char> out =
                    isBeat ? beat : a.framing.encode(body, std::string_view(m->data(), static_cast<size_t>(hl)));
                if (!SendAll(fds[i].fd, out)) closeIt = true;
                c.lastSendMs = NowMs();
            }
            if (bad) {
                std::printf("%s echo-server: %s sent a header with an unusable length\n", ClockText().c_str(),
                            c.peer.c_str());
                closeIt = true;
            }
            if (!closeIt && beatMs > 0 && NowMs() - c.lastSendMs >= beatMs) {
                closeIt = !SendAll(fds[i].fd, beat);
                c.lastSendMs = NowMs();
                std::printf("%s echo-server: heartbeat to %s\n", ClockText().c_str(), c.peer.c_str());
            }
            if (closeIt) {
                std::printf("%s echo-server: %s closed\n", ClockText().c_str(), c.peer.c_str());
                conns.erase(fds[i].fd);
            }
        }
    }
    std::printf("%s echo-server: stopped\n", ClockText().c_str());
    return 0;
}

}  // namespace kit
