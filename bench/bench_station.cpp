// bench_station: acknowledged messages per second over one station link,
// CPU per message, and the latency from TranP's request to the N005 that
// confirms the peer's acknowledgement, for comp's SysTCPVANTREL mode in both
// wait styles (A) against a minimal baseline station relay (B).
//
//   bench_station [--comp PATH] [--compkit PATH] [--seconds S] [--rounds N] [--warmup S]
//                 [--windows 1,8] [--styles fixed,deadline] [--level L] [--body BYTES] [--idle S] [--keep]
//
// This program is TranP: it queues transaction frames for the relay on queue
// 8, rings its FIFO, and waits for the N005s on queue 7, keeping up to
// `window` frames outstanding. Each relay is the client of its own
// `compkit station --quiet` peer, which acknowledges every frame at once.
// comp first runs the connection sequence, answered as the stand-in router
// would. The relay that is not measured is stopped (SIGSTOP) meanwhile.
// `--role station-baseline RUNDIR ROUTE PEERPORT` is the baseline relay.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BenchPlatform.h"
#include "LoadGen.h"
#include "ProcStat.h"
#include "base/SysTypes.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/StationFrames.h"
#include "modes/SysVantrel.h"
#include "util/SysChecksum.h"

namespace {

namespace st = kit::station;
namespace v = comp::vantrel;
namespace plat = comp::plat;

volatile sig_atomic_t g_stop = 0, g_alarm = 0;
extern "C" void OnStop(int) { g_stop = 1; }
extern "C" void OnAlarm(int) { g_alarm = 1; }

constexpr int kReadyMs = 10000;
constexpr int kGraceMs = 3000;
constexpr int kReplyTimeoutMs = 2000;

struct Options {
    std::string compPath, compkitPath;
    double seconds = 2.0;
    int rounds = 3;
    double warmup = 0.5;
    std::vector<int> windows{1, 8};
    std::vector<std::string> styles{"fixed", "deadline"};
    int level = 3;
    int body = 64;
    double idleSeconds = 2.0;
    bool keep = false;
};

void Usage() {
    std::fprintf(stderr,
                 "usage: bench_station [--comp PATH] [--compkit PATH] [--seconds S] [--rounds N] [--warmup S]\n"
                 "                     [--windows 1,8] [--styles fixed,deadline] [--level L] [--body BYTES]\n"
                 "                     [--idle S] [--keep]\n");
}

std::vector<std::string> Split(const std::string& text) {
    std::vector<std::string> out;
    size_t pos = 0;
    for (size_t comma; (comma = text.find(',', pos)) != std::string::npos; pos = comma + 1)
        out.push_back(text.substr(pos, comma - pos));
    out.push_back(text.substr(pos));
    return out;
}

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (i + 1 >= argc && a != "--keep") return false;
        if (a == "--keep") {
            o->keep = true;
            continue;
        }
        const std::string val = argv[++i];
        const double d = std::atof(val.c_str());
        if (a == "--comp") o->compPath = val;
        else if (a == "--compkit") o->compkitPath = val;
        else if (a == "--seconds" && d >= 0.1) o->seconds = d;
        else if (a == "--rounds" && d >= 1) o->rounds = static_cast<int>(d);
        else if (a == "--warmup" && d >= 0) o->warmup = d;
        else if (a == "--idle" && d >= 0) o->idleSeconds = d;
        else if (a == "--level" && d >= 1 && d <= 4) o->level = static_cast<int>(d);
        else if (a == "--body" && d >= 16 && d <= 60000) o->body = static_cast<int>(d);
        else if (a == "--styles") {
            o->styles = Split(val);
            for (const std::string& s : o->styles)
                if (s != "fixed" && s != "deadline") return false;
        } else if (a == "--windows") {
            o->windows.clear();
            for (const std::string& w : Split(val)) {
                auto n = kit::ParseLong(w);
                if (!n || *n < 1 || *n > 64) return false;
                o->windows.push_back(static_cast<int>(*n));
            }
        } else {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------
// The baseline station relay: one poll loop doing only what one message
// needs. Doorbell -> msgrcv -> stamp length, serial, CRC -> send, one frame
// at a time: the next waits until a frame from the peer has come; the
// peer's ACK -> msgsnd of an N005 with the frame's value.
// ---------------------------------------------------------------------------
int RunBaselineRole(const std::string& runDir, int route, int peerPort) {
    struct sigaction sa {};
    sa.sa_handler = OnStop;
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
    kit::Resources res;
    std::string why;
    if (!kit::ReadResources(runDir, &res, &why)) {
        std::fprintf(stderr, "baseline: %s\n", why.c_str());
        return 1;
    }
    const int q7 = kit::QueueIdByIndex(res, comp::kQueueToTranp), q8 = kit::QueueIdByIndex(res, comp::kQueueFromTranp);
    kit::UniqueFd sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(peerPort));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool connected = false;
    for (int i = 0; i < 100 && !connected; ++i, kit::SleepMs(20))
        connected = connect(sock.get(), reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
    if (!connected) {
        std::fprintf(stderr, "baseline: cannot reach the peer on %d\n", peerPort);
        return 1;
    }
    int one = 1;
    setsockopt(sock.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    fcntl(sock.get(), F_SETFL, O_NONBLOCK);
    const pid_t pid = getpid();
    const std::string fifoPath = runDir + "/fifo/1_" + std::to_string(pid);
    mkfifo(fifoPath.c_str(), 0644);
    kit::UniqueFd fifo(open(fifoPath.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));

    auto in = std::make_unique<QueueMsg>();
    auto out = std::make_unique<QueueMsg>();
    std::map<std::string, std::string> waiting;   // identity -> value, as comp keeps them
    std::deque<st::Bytes> queued;                 // TranP's frames not sent yet
    bool answered = true;                         // stop and wait, as the link requires
    uint16_t serial = 1;
    st::Reader reader;
    // Stamps and sends the oldest queued frame; false when the send failed.
    auto sendNext = [&]() {
        if (!answered || queued.empty()) return true;
        st::Bytes f = std::move(queued.front());
        queued.pop_front();
        const int len = static_cast<int>(f.size());
        const uint32_t ulen = static_cast<uint32_t>(len);
        std::memcpy(f.data() + v::kLenAt, &ulen, 4);
        std::memcpy(f.data() + v::kSerialAt, &serial, 2);
        serial = v::NextSerial(serial);
        const uint32_t crc = v::BodyCrc(f.data(), len);
        std::memcpy(f.data() + len - v::kTrailerLen, &crc, 4);
        waiting[st::HexOf(st::IdentityOf(f))] =
            st::HexOf(st::Bytes(f.begin() + v::kValueAt, f.begin() + v::kValueAt + v::kValueLen));
        answered = false;
        return send(sock.get(), f.data(), f.size(), MSG_NOSIGNAL) == len;
    };
    while (!g_stop) {
        pollfd p[2] = {{fifo.get(), POLLIN, 0}, {sock.get(), POLLIN, 0}};
        if (poll(p, 2, -1) <= 0) continue;
        if (p[0].revents & POLLIN) {
            char c;
            if (read(fifo.get(), &c, 1) == 1) {
                in->lMsgType = pid;
                ssize_t n = msgrcv(q8, in.get(), sizeof in->caText, pid, IPC_NOWAIT);
                if (n > plat::kHeaderLen + v::kOverhead) {
                    const auto* f = reinterpret_cast<const unsigned char*>(in->caText + plat::kHeaderLen);
                    queued.emplace_back(f, f + (n - plat::kHeaderLen));
                    if (!sendNext()) break;
                }
            }
        }
        if (p[1].revents & (POLLIN | POLLHUP | POLLERR)) {
            unsigned char buf[65536];
            ssize_t n = recv(sock.get(), buf, sizeof buf, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN)) break;
            if (n > 0) reader.feed(buf, static_cast<size_t>(n));
            bool bad = false;
            while (auto f = reader.next(&bad)) {
                answered = true;
                if (st::SubOf(*f) != v::kSubAck) continue;
                auto it = waiting.find(st::HexOf(st::AckedIdentity(*f)));
                if (it == waiting.end()) continue;
                std::memset(out->caText, 0, plat::kHeaderLen);
                const uint16_t total = plat::kHeaderLen + v::kN005BodyLen;
                std::memcpy(out->caText + plat::kTotalLen, &total, 2);
                std::memcpy(out->caText + plat::kPid, &pid, 4);
                const uint16_t routeNo = static_cast<uint16_t>(route);
                std::memcpy(out->caText + plat::kRoute, &routeNo, 2);
                std::memcpy(out->caText + plat::kHeaderLen, "N005", 4);
                std::memcpy(out->caText + plat::kHeaderLen + 4, it->second.data(), it->second.size());
                out->lMsgType = pid;
                waiting.erase(it);
                if (msgsnd(q7, out.get(), total, 0) != 0) break;
            }
            if (!sendNext()) break;
        }
    }
    unlink(fifoPath.c_str());
    return 0;
}

// ---------------------------------------------------------------------------
// Processes
// ---------------------------------------------------------------------------
class Children {
public:
    ~Children() {
        for (pid_t pid : kids_) {
            kill(pid, SIGCONT);
            kit::StopChild(pid, kGraceMs);
        }
    }
    pid_t Start(const std::vector<std::string>& argv, const std::string& output, std::string* why) {
        kit::SpawnOptions plan;
        plan.path = argv[0];
        plan.argv = argv;
        plan.outputPath = output;
        pid_t pid = kit::Spawn(plan, why);
        if (pid > 0) kids_.push_back(pid);
        return pid;
    }
    // The quit command first when a control FIFO is given, then signals.
    void Stop(pid_t pid, const std::string& controlFifo = "") {
        auto it = std::find(kids_.begin(), kids_.end(), pid);
        if (it == kids_.end()) return;
        kids_.erase(it);
        kill(pid, SIGCONT);
        int status = 0;
        if (!controlFifo.empty()) {
            int fd = open(controlFifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            if (fd >= 0) {
                if (write(fd, "x", 1) == 1 && kit::WaitChild(pid, kGraceMs, &status)) {
                    close(fd);
                    return;
                }
                close(fd);
            }
        }
        kit::StopChild(pid, kGraceMs);
    }

private:
    std::vector<pid_t> kids_;
};

bool WaitFile(const std::string& path) {
    struct stat sb {};
    for (int64_t end = kit::NowMs() + kReadyMs; !g_stop && kit::NowMs() < end; kit::SleepMs(10))
        if (stat(path.c_str(), &sb) == 0) return true;
    return false;
}

// ---------------------------------------------------------------------------
// TranP's side
// ---------------------------------------------------------------------------
class Tranp {
public:
    Tranp(int q7, int q8, const std::string& runDir) : q7_(q7), q8_(q8), runDir_(runDir) {}

    // Addresses a relay: its pid types the messages, its FIFO is rung.
    bool Attach(pid_t pid) {
        pid_ = pid;
        fifo_.reset(open((runDir_ + "/fifo/1_" + std::to_string(pid)).c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
        return fifo_.valid();
    }
    bool Deliver(const st::Bytes& frame) {
        std::memset(out_->caText, 0, plat::kHeaderLen);
        std::memcpy(out_->caText + plat::kHeaderLen, frame.data(), frame.size());
        out_->lMsgType = pid_;
        const size_t len = plat::kHeaderLen + frame.size();
        while (msgsnd(q8_, out_.get(), len, IPC_NOWAIT) != 0) {
            if (errno != EAGAIN || g_stop) return false;
            kit::SleepMs(1);
        }
        return write(fifo_.get(), "0", 1) == 1;
    }
    // The next message of the relay on queue 7: its body, or nullopt. A
    // blocking receive, so that the reply is taken the moment it is queued;
    // a timer interrupts it after timeoutMs.
    std::optional<std::string> Next(int timeoutMs) {
        itimerval t{{0, 0}, {timeoutMs / 1000, (timeoutMs % 1000) * 1000}};
        setitimer(ITIMER_REAL, &t, nullptr);
        ssize_t n = -1;
        do {
            in_->lMsgType = pid_;
            n = msgrcv(q7_, in_.get(), sizeof in_->caText, pid_, 0);
        } while (n < 0 && errno == EINTR && !g_alarm && !g_stop);
        itimerval off{};
        setitimer(ITIMER_REAL, &off, nullptr);
        g_alarm = 0;
        if (n < plat::kHeaderLen) return std::nullopt;
        return std::string(in_->caText + plat::kHeaderLen, static_cast<size_t>(n) - plat::kHeaderLen);
    }
    // Plays TranP's part in comp's connection sequence until it ends.
    bool BringUp(std::string* why) {
        for (int64_t end = kit::NowMs() + kReadyMs; kit::NowMs() < end && !g_stop;) {
            auto m = Next(200);
            if (!m) continue;
            const auto* b = reinterpret_cast<const unsigned char*>(m->data());
            uint32_t cmd = 0;
            if (m->size() == 8 && m->compare(0, 4, "N004") == 0) std::memcpy(&cmd, b + 4, 4);
            if (cmd == v::kCmdSeqEnd) return true;
            std::string what;
            if (auto f = st::TranpReply(b, static_cast<int>(m->size()), &what); f && !Deliver(*f)) break;
        }
        *why = "the connection sequence did not end";
        return false;
    }
    // Drains what the relay wrote (N004s of the sequence end, beats' answers).
    void Drain() {
        while (Next(50)) {
        }
    }

private:
    int q7_, q8_;
    std::string runDir_;
    pid_t pid_ = 0;
    kit::UniqueFd fifo_;
    std::unique_ptr<QueueMsg> in_ = std::make_unique<QueueMsg>(), out_ = std::make_unique<QueueMsg>();
};

struct Metrics {
    double rate = 0, p50 = 0, p99 = 0, relayCpu = 0, peerCpu = 0;
    uint64_t acked = 0;
    std::string error;
};

// Keeps `window` frames outstanding for `seconds`; a frame's latency runs
// from its delivery to its N005.
Metrics Measure(Tranp& tranp, pid_t relay, pid_t peer, int window, double seconds, const st::Bytes& frame) {
    bench::CpuMeter relayCpu(relay), peerCpu(peer);
    relayCpu.start();
    peerCpu.start();
    std::deque<std::chrono::steady_clock::time_point> out;
    std::vector<uint32_t> lat;
    Metrics m;
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                 std::chrono::duration<double>(seconds));
    auto last = start;
    while (!g_stop) {
        const auto now = std::chrono::steady_clock::now();
        while (now < end && static_cast<int>(out.size()) < window) {
            if (!tranp.Deliver(frame)) {
                m.error = "queue 8 or the FIFO refused a message";
                break;
            }
            out.push_back(std::chrono::steady_clock::now());
        }
        if (out.empty() || !m.error.empty()) break;
        auto n5 = tranp.Next(kReplyTimeoutMs);
        if (!n5) {
            m.error = "no N005 within " + std::to_string(kReplyTimeoutMs) + " ms";
            break;
        }
        if (n5->compare(0, 4, "N005") != 0) continue;
        last = std::chrono::steady_clock::now();
        lat.push_back(static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(last - out.front()).count()));
        out.pop_front();
    }
    m.acked = lat.size();
    const double took = std::chrono::duration<double>(last - start).count();
    m.rate = took > 0 ? static_cast<double>(m.acked) / took : 0;
    m.p50 = bench::Quantile(lat, 0.5);
    m.p99 = bench::Quantile(lat, 0.99);
    if (m.acked > 0) {
        m.relayCpu = relayCpu.elapsedMicros() / static_cast<double>(m.acked);
        m.peerCpu = peerCpu.elapsedMicros() / static_cast<double>(m.acked);
    }
    return m;
}

struct Side {
    std::string name;
    pid_t relay, peer;
    std::unique_ptr<Tranp> tranp;
};

double Med(const std::vector<Metrics>& v, double Metrics::*f) {
    std::vector<double> x;
    for (const Metrics& m : v) x.push_back(m.*f);
    return bench::Median(x);
}

// The median of the rounds' own ratios and their range.
std::string Ratio(const std::vector<Metrics>& a, const std::vector<Metrics>& b, double Metrics::*f) {
    std::vector<double> r;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        if (b[i].*f > 0) r.push_back(a[i].*f / b[i].*f);
    if (r.empty()) return "-";
    char text[64];
    std::snprintf(text, sizeof text, "%.2f (%.2f-%.2f)", bench::Median(r), *std::min_element(r.begin(), r.end()),
                  *std::max_element(r.begin(), r.end()));
    return text;
}

void PrintLine(const char* label, int window, const std::vector<Metrics>& runs) {
    std::printf("  %-16s w%-2d %9.0f/s  p50 %6.0f us  p99 %6.0f us  relay CPU %6.1f us/msg  peer CPU %6.1f us/msg\n",
                label, window, Med(runs, &Metrics::rate), Med(runs, &Metrics::p50), Med(runs, &Metrics::p99),
                Med(runs, &Metrics::relayCpu), Med(runs, &Metrics::peerCpu));
}

int RunBench(const Options& opt) {
    for (const std::string& l : kit::EnsureQueueLimits()) {
        std::fprintf(stderr, "bench_station: %s\n", l.c_str());
        return 1;
    }
    bench::BenchPlatform plat;
    std::string why;
    if (!plat.Create(opt.level, &why)) {
        std::fprintf(stderr, "bench_station: platform: %s\n", why.c_str());
        return 1;
    }
    if (opt.keep) plat.KeepDirectory();
    const std::string runDir = plat.runDir();
    const bench::BenchRoutes& r = plat.routes();
    kit::Resources res;
    if (!kit::ReadResources(runDir, &res, &why)) return 1;
    const int q7 = kit::QueueIdByIndex(res, comp::kQueueToTranp), q8 = kit::QueueIdByIndex(res, comp::kQueueFromTranp);
    Children kids;
    auto peer = [&](int port, const char* name) {
        return kids.Start({opt.compkitPath, "station", "127.0.0.1:" + std::to_string(port), "--quiet"},
                          runDir + "/log/" + name + ".out", &why);
    };
    Side base{"baseline", 0, peer(r.baseStationPeerPort, "peer_base"), std::make_unique<Tranp>(q7, q8, runDir)};
    base.relay = kids.Start({kit::SelfExe(), "--role", "station-baseline", runDir, std::to_string(r.baseStationRoute),
                             std::to_string(r.baseStationPeerPort)},
                            runDir + "/log/baseline.out", &why);
    if (base.relay <= 0 || !WaitFile(runDir + "/fifo/1_" + std::to_string(base.relay)) || !base.tranp->Attach(base.relay)) {
        std::fprintf(stderr, "bench_station: the baseline relay did not start: %s\n", why.c_str());
        return 1;
    }
    const st::Bytes frame = st::Trade(std::string(static_cast<size_t>(opt.body), 'b'));
    std::printf("bench_station: comp %s\n  platform %s (keys 0x%08x..)\n  frames of %zu bytes, %d rounds x %.1f s after "
                "%.1f s warm-up, LOG_LEVEL %d, peers: compkit station --quiet\n",
                opt.compPath.c_str(), runDir.c_str(), static_cast<unsigned>(plat.keyBase()), frame.size(), opt.rounds,
                opt.seconds, opt.warmup, opt.level);

    std::vector<std::string> report;
    int status = 0;
    for (const std::string& style : opt.styles) {
        if (g_stop) break;
        plat.SetAppCfg(opt.level, "0002 0001\nGROUPID1 1\nGROUPID2 2\n" +
                                      std::string(style == "deadline" ? "COMP_WAIT DEADLINE\n" : ""), &why);
        Side a{"comp " + style, 0, peer(r.stationPeerPort, ("peer_" + style).c_str()), std::make_unique<Tranp>(q7, q8, runDir)};
        const std::string route = std::to_string(r.stationRoute);
        a.relay = kids.Start({opt.compPath, "SysTCPVANTREL", route, "1", "0", "ST" + route + "_" + style},
                             runDir + "/log/comp_" + style + ".out", &why);
        if (a.relay <= 0 || !WaitFile(runDir + "/fifo/1_" + std::to_string(a.relay)) || !a.tranp->Attach(a.relay) ||
            !a.tranp->BringUp(&why)) {
            std::fprintf(stderr, "bench_station: comp (%s): %s\n", style.c_str(), why.c_str());
            status = 1;
            break;
        }
        a.tranp->Drain();
        for (int window : opt.windows) {
            std::vector<Metrics> ma, mb;
            auto run = [&](Side& s, Side& other, double seconds) {
                kill(other.relay, SIGSTOP);
                kill(s.relay, SIGCONT);
                Metrics m = Measure(*s.tranp, s.relay, s.peer, window, seconds, frame);
                kill(other.relay, SIGCONT);
                if (!m.error.empty()) std::printf("  %s: %s\n", s.name.c_str(), m.error.c_str());
                return m;
            };
            if (opt.warmup > 0) {
                run(a, base, opt.warmup);
                run(base, a, opt.warmup);
            }
            for (int i = 0; i < opt.rounds && !g_stop; ++i) {
                if (i % 2 == 0) {
                    ma.push_back(run(a, base, opt.seconds));
                    mb.push_back(run(base, a, opt.seconds));
                } else {
                    mb.push_back(run(base, a, opt.seconds));
                    ma.push_back(run(a, base, opt.seconds));
                }
                plat.TrimLogs();
            }
            PrintLine(a.name.c_str(), window, ma);
            PrintLine("baseline", window, mb);
            char line[512];
            std::snprintf(line, sizeof line, "| %-8s | %2d | %8.0f | %8.0f | %6.0f | %6.0f | %6.1f | %6.1f | %-17s | %-17s | %-17s |",
                          style.c_str(), window, Med(ma, &Metrics::rate), Med(mb, &Metrics::rate), Med(ma, &Metrics::p50),
                          Med(mb, &Metrics::p50), Med(ma, &Metrics::relayCpu), Med(mb, &Metrics::relayCpu),
                          Ratio(ma, mb, &Metrics::rate).c_str(), Ratio(ma, mb, &Metrics::p50).c_str(),
                          Ratio(ma, mb, &Metrics::relayCpu).c_str());
            report.push_back(line);
        }
        if (opt.idleSeconds > 0 && !g_stop) {
            kill(base.relay, SIGSTOP);
            bench::CpuMeter idle(a.relay);
            idle.start();
            const int64_t t0 = kit::NowMs();
            while (!g_stop && kit::NowMs() - t0 < static_cast<int64_t>(opt.idleSeconds * 1000)) kit::SleepMs(50);
            const double pct = 100.0 * idle.elapsedMicros() / (static_cast<double>(kit::NowMs() - t0) * 1000.0);
            kill(base.relay, SIGCONT);
            report.push_back("idle CPU of comp (" + style + ", link up): " + std::to_string(pct).substr(0, 5) + "% of a core");
        }
        kids.Stop(a.relay, runDir + "/fifo/3_" + std::to_string(a.relay) + "_1");
        kids.Stop(a.peer);
    }
    std::printf("\nMedians of %d rounds; comp/base = median of the rounds' own ratios (range)\n", opt.rounds);
    std::printf("| style    |  w | comp/s   | base/s   | p50 A  | p50 B  | CPU A  | CPU B  | rate comp/base    | p50 comp/base     "
                "| CPU comp/base     |\n");
    for (const std::string& l : report) std::printf("%s\n", l.c_str());
    if (opt.keep) std::printf("bench_station: logs kept in %s\n", runDir.c_str());
    return g_stop ? 130 : status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 6 && std::strcmp(argv[1], "--role") == 0 && std::strcmp(argv[2], "station-baseline") == 0)
        return RunBaselineRole(argv[3], std::atoi(argv[4]), std::atoi(argv[5]));
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options opt;
    if (!ParseOptions(argc, argv, &opt)) {
        Usage();
        return 2;
    }
    const std::string dir = kit::SelfExe().substr(0, kit::SelfExe().rfind('/'));
    if (opt.compPath.empty()) opt.compPath = dir + "/../comp";
    if (opt.compkitPath.empty()) opt.compkitPath = dir + "/../tools/compkit";
    for (const std::string& p : {opt.compPath, opt.compkitPath})
        if (access(p.c_str(), X_OK) != 0) {
            std::fprintf(stderr, "bench_station: %s is not an executable\n", p.c_str());
            return 1;
        }
    struct sigaction sa {};
    sa.sa_handler = OnStop;
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    struct sigaction al {};
    al.sa_handler = OnAlarm;   // no SA_RESTART: it ends a blocking receive
    sigaction(SIGALRM, &al, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return RunBench(opt);
}
