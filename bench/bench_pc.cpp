// bench_pc: messages per second, latency and CPU per message of comp's
// persistent-client mode (A) against a minimal baseline relay (B) on one
// private platform, in both wait styles of the loop engine; and how long a
// reconnect takes once the server is back, against the reconnect interval.
//
//   bench_pc [--comp PATH] [--seconds S] [--rounds N] [--warmup S]
//            [--inflight 1,16] [--styles fixed,deadline] [--level L]
//            [--body BYTES] [--reconnects N] [--keep]
//
// This program plays the router: it queues each message for the relay's
// route on queue 8, rings the relay's FIFO, and reads what comes back on
// queue 7. The relay sends the message to an echo server (threads of this
// program) over its one standing connection, and the echo comes back the same
// way, with the given number of messages in flight. A and B alternate within
// every round, the one not measured frozen (SIGSTOP). The role
// `--role pcbaseline RUNDIR ROUTE PORT` is the baseline process.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchPlatform.h"
#include "BenchProcs.h"
#include "LoadGen.h"
#include "ProcStat.h"
#include "Relays.h"
#include "base/SysTypes.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

namespace plat = comp::plat;
using Clock = std::chrono::steady_clock;
using bench::Children;
using bench::FifoPath;
using bench::Tail;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnBenchStop(int) { g_stop = 1; }
// Interrupts a blocking queue read that waits too long (see Watchdog).
extern "C" void OnWake(int) {}

constexpr int kHeaderLen = 4;
constexpr int kPcRoute = 30;              // comp SysTCPPC
constexpr int kBaseRoute = 31;            // the PC baseline relay
constexpr int kReconnInterval = 2;        // RECONNINTERVAL of both
constexpr int kLinkIdle = 3600;           // no idle time-out between runs
constexpr int kStallMs = 3000;            // no answer this long: the run failed
constexpr int kReconnectGapMs = 300;      // the server stays away this long
constexpr double kTargetThroughput = 0.9;
constexpr double kTargetCpu = 1.2;

struct Options {
    std::string compPath;
    double seconds = 3.0;
    int rounds = 5;
    double warmup = 1.0;
    std::vector<int> inflight{1, 16};
    std::vector<std::string> styles{"fixed", "deadline"};
    int level = 3;
    int bodyBytes = 32;
    int reconnects = 5;
    bool keep = false;
};

void Usage() {
    std::fprintf(stderr,
                 "usage: bench_pc [--comp PATH] [--seconds S] [--rounds N] [--warmup S] [--inflight 1,16]\n"
                 "                [--styles fixed,deadline] [--level L] [--body BYTES] [--reconnects N] [--keep]\n");
}

bool ParseOptions(int argc, char** argv, Options* o) {
    for (bench::OptionReader r(argc, argv); r.Next();) {
        std::optional<double> d;
        std::optional<std::string> s;
        std::optional<std::vector<int>> list;
        if (r.Is("--comp") && (s = r.Value())) o->compPath = *s;
        else if (r.Is("--styles") && (s = r.Value())) {
            o->styles.clear();
            for (const char* w : {"fixed", "deadline"})
                if (s->find(w) != std::string::npos) o->styles.push_back(w);
            if (o->styles.empty()) return false;
        }
        else if (r.Is("--seconds") && (d = r.Number(0.1, 600))) o->seconds = *d;
        else if (r.Is("--rounds") && (d = r.Number(1, 100))) o->rounds = static_cast<int>(*d);
        else if (r.Is("--warmup") && (d = r.Number(0, 60))) o->warmup = *d;
        else if (r.Is("--inflight") && (list = r.List())) o->inflight = *list;
        else if (r.Is("--level") && (d = r.Number(1, 4))) o->level = static_cast<int>(*d);
        else if (r.Is("--body") && (d = r.Number(12, 9000))) o->bodyBytes = static_cast<int>(*d);
        else if (r.Is("--reconnects") && (d = r.Number(0, 100))) o->reconnects = static_cast<int>(*d);
        else if (r.Is("--keep")) o->keep = true;
        else return false;
    }
    return true;
}

int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch()).count();
}

// ---------------------------------------------------------------------------
// The echo server: a thread accepting, and one thread per connection sending
// back every byte it receives. Drop() takes the whole server away (its
// clients see the connection closed); Listen() brings it back.
// ---------------------------------------------------------------------------
class EchoServer {
public:
    explicit EchoServer(int port) : port_(port) {}
    ~EchoServer() { Drop(); }

    bool Listen(std::string* why) {
        listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        int on = 1;
        setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(port_));
        if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
            listen(listener_.get(), 16) != 0) {
            *why = "echo server on 127.0.0.1:" + std::to_string(port_) + ": " + std::strerror(errno);
            listener_.reset();
            return false;
        }
        acceptor_ = std::thread([this, lsn = listener_.get()] { AcceptLoop(lsn); });
        return true;
    }
    void Drop() {
        if (listener_.valid()) shutdown(listener_.get(), SHUT_RDWR);
        if (acceptor_.joinable()) acceptor_.join();
        listener_.reset();
        std::vector<std::thread> echoes;
        {
            std::lock_guard<std::mutex> lock(mu_);
            for (int fd : conns_) shutdown(fd, SHUT_RDWR);
            echoes.swap(echoes_);
        }
        for (std::thread& t : echoes) t.join();
        std::lock_guard<std::mutex> lock(mu_);
        for (int fd : conns_) close(fd);
        conns_.clear();
    }

private:
    void AcceptLoop(int lsn) {
        for (;;) {
            int fd = accept4(lsn, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR) continue;
                return;
            }
            int on = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            std::lock_guard<std::mutex> lock(mu_);
            conns_.push_back(fd);
            echoes_.emplace_back([fd] { Echo(fd); });
        }
    }
    static void Echo(int fd) {
        std::vector<char> buf(65536);
        for (;;) {
            ssize_t n = recv(fd, buf.data(), buf.size(), 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return;
            for (ssize_t done = 0; done < n;) {
                ssize_t s = send(fd, buf.data() + done, static_cast<size_t>(n - done), MSG_NOSIGNAL);
                if (s < 0 && errno == EINTR) continue;
                if (s <= 0) return;
                done += s;
            }
        }
    }

    int port_;
    kit::UniqueFd listener_;
    std::thread acceptor_;
    std::mutex mu_;
    std::vector<int> conns_;            // guarded by mu_
    std::vector<std::thread> echoes_;   // guarded by mu_
};

// ---------------------------------------------------------------------------
// The router's side: queue a message for a relay, read what comes back.
// ---------------------------------------------------------------------------
class Router {
public:
    Router(int toRouter, int fromRouter) : q7_(toRouter), q8_(fromRouter), in_(std::make_unique<QueueMsg>()),
                                          out_(std::make_unique<QueueMsg>()) {
        self_ = pthread_self();
        watchdog_ = std::thread([this] { Watch(); });
    }
    ~Router() {
        done_ = true;
        watchdog_.join();
    }

    // The next message a relay put on queue 7 for the router; its text length,
    // or -1 when none came for kStallMs (or the bench is stopping).
    int Receive(pid_t relay) {
        waiting_ = true;
        for (;;) {
            ssize_t n = msgrcv(q7_, in_.get(), sizeof in_->caText, relay, 0);
            if (n >= 0) {
                waiting_ = false;
                lastMs_ = kit::NowMs();
                return static_cast<int>(n);
            }
            if (errno != EINTR || g_stop || kit::NowMs() - lastMs_ >= kStallMs) {
                waiting_ = false;
                return -1;
            }
        }
    }
    bool IsNotice() const { return Get<uint16_t>(in_->caText, plat::kKind) == plat::kKindNotice; }
    std::string NoticeCode() const { return std::string(in_->caText + plat::kHeaderLen, 4); }
    const char* Text() const { return in_->caText; }

    // Queues a message for the route and rings the relay's FIFO.
    bool Send(int route, int bellFd, const std::string& body) {
        char* t = out_->caText;
        std::memset(t, 0, plat::kHeaderLen);
        Put<uint16_t>(t, plat::kTotalLen, static_cast<uint16_t>(plat::kHeaderLen + body.size()));
        Put<uint16_t>(t, plat::kRoute, static_cast<uint16_t>(route));
        std::memcpy(t + plat::kHeaderLen, body.data(), body.size());
        out_->lMsgType = route;
        if (msgsnd(q8_, out_.get(), plat::kHeaderLen + body.size(), IPC_NOWAIT) != 0) return false;
        return write(bellFd, "0", 1) == 1;
    }
    // Drops what is left on queue 8 for the route and on queue 7 from the relay.
    void Drain(int route, pid_t relay) {
        while (msgrcv(q8_, in_.get(), sizeof in_->caText, route, IPC_NOWAIT) >= 0) {
        }
        while (relay > 0 && msgrcv(q7_, in_.get(), sizeof in_->caText, relay, IPC_NOWAIT) >= 0) {
        }
    }
    void Restart() { lastMs_ = kit::NowMs(); }

private:
    template <typename T>
    static T Get(const char* p, int off) {
        T v;
        std::memcpy(&v, p + off, sizeof v);
        return v;
    }
    template <typename T>
    static void Put(char* p, int off, T v) {
        std::memcpy(p + off, &v, sizeof v);
    }
    // Wakes a blocked receive now and then, so that it can give up.
    void Watch() {
        while (!done_) {
            kit::SleepMs(200);
            if (waiting_ && kit::NowMs() - lastMs_ >= kStallMs) pthread_kill(self_, SIGUSR2);
        }
    }

    int q7_, q8_;
    std::unique_ptr<QueueMsg> in_, out_;
    pthread_t self_;
    std::thread watchdog_;
    std::atomic<bool> done_{false}, waiting_{false};
    std::atomic<int64_t> lastMs_{kit::NowMs()};
};

// One relay under test: its process, route and doorbell.
struct Relay {
    const char* name;
    pid_t pid;
    int route;
    kit::UniqueFd bell;
};

// A message of the run: the framed body, numbered.
std::string Message(uint64_t seq, int bodyBytes) {
    std::string body(static_cast<size_t>(bodyBytes), 'x');
    char head[32];
    int n = std::snprintf(head, sizeof head, "DATA%010llu", static_cast<unsigned long long>(seq));
    std::memcpy(body.data(), head, static_cast<size_t>(std::min(n, bodyBytes)));
    return bench::FrameRequest(body, kHeaderLen);
}

struct RunMetrics {
    double rate = 0, p50 = 0, p99 = 0, cpuPerMsg = 0, volPerMsg = 0, involPerMsg = 0;
    uint64_t messages = 0, failures = 0;
    std::string firstError;
};

// One timed run: `window` messages in flight through the relay for `seconds`.
RunMetrics MeasureRun(Router& router, Relay& r, Relay& other, int window, double seconds, int bodyBytes) {
    kill(other.pid, SIGSTOP);
    kill(r.pid, SIGCONT);
    router.Drain(r.route, r.pid);
    router.Restart();
    bench::CpuMeter cpu(r.pid);
    cpu.start();
    RunMetrics m;
    std::vector<uint32_t> lat;
    lat.reserve(1 << 18);
    std::deque<int64_t> sentAt;
    uint64_t next = 0, expect = 0;
    const int64_t start = NowUs(), end = start + static_cast<int64_t>(seconds * 1e6);
    int64_t last = start;
    while (!g_stop) {
        while (NowUs() < end && sentAt.size() < static_cast<size_t>(window)) {
            if (!router.Send(r.route, r.bell.get(), Message(next, bodyBytes))) {
                m.firstError = std::string("queueing for the relay: ") + std::strerror(errno);
                break;
            }
            sentAt.push_back(NowUs());
            ++next;
        }
        if (sentAt.empty() || !m.firstError.empty()) break;
        int len = router.Receive(r.pid);
        if (len < 0) {
            m.firstError = "no answer for " + std::to_string(kStallMs / 1000) + " s";
            break;
        }
        if (router.IsNotice()) {
            m.firstError = "notification " + router.NoticeCode() + " during the run";
            continue;
        }
        last = NowUs();
        const std::string want = Message(expect, bodyBytes);
        if (len != plat::kHeaderLen + static_cast<int>(want.size()) ||
            std::memcmp(router.Text() + plat::kHeaderLen, want.data(), want.size()) != 0) {
            ++m.failures;
            if (m.firstError.empty()) m.firstError = "answer differs from message " + std::to_string(expect);
        }
        lat.push_back(static_cast<uint32_t>(std::clamp<int64_t>(last - sentAt.front(), 0, UINT32_MAX)));
        sentAt.pop_front();
        ++expect;
    }
    const double cpuUs = cpu.elapsedMicros();
    const bench::CtxSwitches cs = cpu.elapsedSwitches();
    kill(other.pid, SIGCONT);
    m.failures += sentAt.size();
    m.messages = lat.size();
    const double secs = static_cast<double>(last - start) / 1e6;
    m.rate = secs > 0 ? static_cast<double>(m.messages) / secs : 0;
    m.p50 = bench::Quantile(lat, 0.50);
    m.p99 = bench::Quantile(lat, 0.99);
    if (m.messages > 0) {
        const double n = static_cast<double>(m.messages);
        m.cpuPerMsg = cpuUs / n;
        m.volPerMsg = static_cast<double>(cs.voluntary) / n;
        m.involPerMsg = static_cast<double>(cs.involuntary) / n;
    }
    return m;
}

struct Series {
    std::vector<RunMetrics> a, b;
};

double MedianOf(const std::vector<RunMetrics>& runs, double RunMetrics::*field) {
    std::vector<double> v;
    for (const RunMetrics& r : runs) v.push_back(r.*field);
    return bench::Median(v);
}

// The rounds' own A/B ratios: their median, lowest and highest.
struct Ratio {
    double median = 0, lo = 0, hi = 0;
};
Ratio PairedRatio(const Series& s, double RunMetrics::*field) {
    std::vector<double> v;
    for (size_t i = 0; i < s.a.size() && i < s.b.size(); ++i)
        if (s.b[i].*field > 0) v.push_back(s.a[i].*field / s.b[i].*field);
    if (v.empty()) return {};
    return {bench::Median(v), *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end())};
}

void PrintRunLine(int window, const std::string& label, const RunMetrics& a, const RunMetrics& b) {
    std::printf("  %2d in flight %-8s  comp %7.0f/s p50 %5.0f p99 %6.0f us %5.1f us CPU | baseline %7.0f/s p50 %5.0f "
                "p99 %6.0f us %5.1f us CPU\n",
                window, label.c_str(), a.rate, a.p50, a.p99, a.cpuPerMsg, b.rate, b.p50, b.p99, b.cpuPerMsg);
    for (const RunMetrics* m : {&a, &b})
        if (m->failures > 0 || !m->firstError.empty())
            std::printf("      %s: %llu lost or wrong, first: %s\n", m == &a ? "comp" : "baseline",
                        static_cast<unsigned long long>(m->failures), m->firstError.c_str());
}

struct Reconnects {
    std::vector<double> afterLossMs, afterBackMs;
    int failed = 0;
};

// The server goes away and comes back kReconnectGapMs later, n times; the
// time from the loss (N003) and from the server's return to the N001.
Reconnects MeasureReconnects(Router& router, EchoServer& server, pid_t comp, int n, std::string* why) {
    Reconnects out;
    for (int i = 0; i < n && !g_stop; ++i) {
        router.Restart();
        server.Drop();
        int len = router.Receive(comp);
        if (len < 0 || !router.IsNotice() || router.NoticeCode() != "N003") {
            ++out.failed;
            *why = "no N003 after the server went";
            break;
        }
        const int64_t lost = NowUs();
        kit::SleepMs(kReconnectGapMs);
        if (!server.Listen(why)) break;
        const int64_t back = NowUs();
        for (;;) {
            router.Restart();
            len = router.Receive(comp);
            if (len < 0 || (router.IsNotice() && router.NoticeCode() == "N001")) break;
        }
        if (len < 0) {
            ++out.failed;
            *why = "no N001 after the server came back";
            break;
        }
        const int64_t up = NowUs();
        out.afterLossMs.push_back(static_cast<double>(up - lost) / 1000.0);
        out.afterBackMs.push_back(static_cast<double>(up - back) / 1000.0);
    }
    return out;
}

std::string Range(std::vector<double> v) {
    if (v.empty()) return "-";
    char text[96];
    std::snprintf(text, sizeof text, "%.0f (%.0f..%.0f)", bench::Median(v), *std::min_element(v.begin(), v.end()),
                  *std::max_element(v.begin(), v.end()));
    return text;
}

struct StyleResult {
    std::string style;
    std::vector<std::pair<int, Series>> byWindow;
    Reconnects reconnects;
};

void PrintTable(const Options& opt, const std::vector<StyleResult>& results, int interval) {
    std::printf("\nResults: medians over %d rounds of %.1f s at LOG_LEVEL %d; ratios comp/baseline are the median of "
                "the rounds' own ratios (lowest..highest)\n",
                opt.rounds, opt.seconds, opt.level);
    std::printf("CPU and context switches (voluntary/involuntary) per message, from /proc/<pid>/stat and status\n");
    std::printf("%-9s %-8s %-9s %9s %8s %8s %9s %13s %7s\n", "wait", "inflight", "relay", "msg/s", "p50 us",
                "p99 us", "CPU/msg", "cs v/i", "lost");
    for (const StyleResult& sr : results)
        for (const auto& [window, s] : sr.byWindow) {
            if (s.a.empty()) continue;
            for (int side = 0; side < 2; ++side) {
                const std::vector<RunMetrics>& runs = side == 0 ? s.a : s.b;
                uint64_t lost = 0;
                for (const RunMetrics& r : runs) lost += r.failures;
                std::printf("%-9s %-8d %-9s %9.0f %8.0f %8.0f %7.1fus %6.2f/%-6.2f %7llu\n", sr.style.c_str(), window,
                            side == 0 ? "comp" : "baseline", MedianOf(runs, &RunMetrics::rate),
                            MedianOf(runs, &RunMetrics::p50), MedianOf(runs, &RunMetrics::p99),
                            MedianOf(runs, &RunMetrics::cpuPerMsg), MedianOf(runs, &RunMetrics::volPerMsg),
                            MedianOf(runs, &RunMetrics::involPerMsg), static_cast<unsigned long long>(lost));
            }
            const Ratio rate = PairedRatio(s, &RunMetrics::rate), p50 = PairedRatio(s, &RunMetrics::p50),
                        p99 = PairedRatio(s, &RunMetrics::p99), cpu = PairedRatio(s, &RunMetrics::cpuPerMsg);
            std::printf("%-9s %-8d %-9s %5.2f (%.2f..%.2f)  p50 %.2f (%.2f..%.2f)  p99 %.2f (%.2f..%.2f)  CPU %.2f "
                        "(%.2f..%.2f)\n",
                        sr.style.c_str(), window, "comp/base", rate.median, rate.lo, rate.hi, p50.median, p50.lo,
                        p50.hi, p99.median, p99.lo, p99.hi, cpu.median, cpu.lo, cpu.hi);
        }
    std::printf("\nVerdicts (targets in the deadline style: throughput >= %.2f of the baseline, CPU per message <= "
                "%.2fx; the fixed style is reported)\n",
                kTargetThroughput, kTargetCpu);
    for (const StyleResult& sr : results)
        for (const auto& [window, s] : sr.byWindow) {
            if (s.a.empty()) continue;
            const bool target = sr.style == "deadline";
            auto mark = [&](bool ok) { return !target ? "(reported)" : ok ? "PASS" : "MISS"; };
            const double rate = PairedRatio(s, &RunMetrics::rate).median,
                         cpu = PairedRatio(s, &RunMetrics::cpuPerMsg).median;
            std::printf("  %-8s %2d in flight: throughput %.2f of baseline %-10s  CPU per message %.2fx %s\n",
                        sr.style.c_str(), window, rate, mark(rate >= kTargetThroughput), cpu, mark(cpu <= kTargetCpu));
        }
    std::printf("\nReconnect after the server comes back (RECONNINTERVAL %d s; the server stays away %d ms; "
                "median (lowest..highest) in ms)\n",
                interval, kReconnectGapMs);
    for (const StyleResult& sr : results) {
        const Reconnects& r = sr.reconnects;
        if (r.afterLossMs.empty() && r.failed == 0) continue;
        std::printf("  %-8s %zu reconnects: N003 -> N001 %s, server back -> N001 %s%s\n", sr.style.c_str(),
                    r.afterLossMs.size(), Range(r.afterLossMs).c_str(), Range(r.afterBackMs).c_str(),
                    r.failed ? ", some failed" : "");
    }
}

// Opens a relay's doorbell FIFO for writing (it exists once the relay is ready).
bool OpenBell(const std::string& runDir, int route, kit::UniqueFd* bell, std::string* why) {
    const std::string path = runDir + "/fifo/" + std::to_string(comp::kFifoRouteNotify) + "_" +
                             std::to_string(route) + "_1";
    bell->reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC));
    if (!bell->valid()) *why = path + ": " + std::strerror(errno);
    return bell->valid();
}

// One wait style: comp and the baseline started afresh, the rounds, then the
// reconnects (comp alone).
bool RunStyle(const Options& opt, bench::BenchPlatform& platform, Router& router, EchoServer& server,
              int serverPort, const std::string& style, StyleResult* out) {
    const std::string runDir = platform.runDir();
    std::string why;
    if (!platform.SetLogLevel(opt.level, &why, style == "deadline")) {
        std::fprintf(stderr, "bench_pc: %s\n", why.c_str());
        return false;
    }
    Children kids;
    const std::string self = kit::SelfExe(), pcRoute = std::to_string(kPcRoute);
    const std::string baseOut = runDir + "/log/pcbaseline_" + style + ".out";
    const pid_t base = kids.Start("baseline",
                                  {self, "--role", "pcbaseline", runDir, std::to_string(kBaseRoute),
                                   std::to_string(serverPort)},
                                  baseOut, &why);
    if (base <= 0 || !bench::WaitReady(kids, base, FifoPath(runDir, "2_" + std::to_string(kBaseRoute) + "_1"),
                                       &g_stop, &why)) {
        std::fprintf(stderr, "bench_pc: baseline relay: %s\n%s", why.c_str(), Tail(baseOut).c_str());
        return false;
    }
    const std::string compOut = runDir + "/log/comp_pc_" + style + ".out";
    const pid_t comp =
        kids.Start("comp PC", {opt.compPath, "SysTCPPC", pcRoute, "1", "0", "PC" + pcRoute + "_" + style}, compOut, &why);
    if (comp <= 0 || !bench::WaitReady(kids, comp, FifoPath(runDir, "2_" + pcRoute + "_1"), &g_stop, &why)) {
        std::fprintf(stderr, "bench_pc: comp SysTCPPC: %s\n%s", why.c_str(), Tail(compOut).c_str());
        return false;
    }
    router.Restart();
    if (router.Receive(comp) < 0 || !router.IsNotice() || router.NoticeCode() != "N001") {
        std::fprintf(stderr, "bench_pc: comp did not connect to the echo server\n");
        return false;
    }
    Relay a{"comp", comp, kPcRoute, {}}, b{"baseline", base, kBaseRoute, {}};
    if (!OpenBell(runDir, a.route, &a.bell, &why) || !OpenBell(runDir, b.route, &b.bell, &why)) {
        std::fprintf(stderr, "bench_pc: %s\n", why.c_str());
        return false;
    }
    std::printf("\n%s wait: comp pid %d, baseline pid %d\n", style.c_str(), static_cast<int>(comp),
                static_cast<int>(base));
    out->style = style;
    for (int window : opt.inflight) {
        if (g_stop) break;
        auto run = [&](Relay& r, Relay& o, double s) { return MeasureRun(router, r, o, window, s, opt.bodyBytes); };
        if (opt.warmup > 0) {
            RunMetrics wa = run(a, b, opt.warmup), wb = run(b, a, opt.warmup);
            PrintRunLine(window, "warm-up", wa, wb);
        }
        Series s;
        for (int round = 0; round < opt.rounds && !g_stop; ++round) {
            RunMetrics ma, mb;
            if (round % 2 == 0) {
                ma = run(a, b, opt.seconds);
                mb = run(b, a, opt.seconds);
            } else {
                mb = run(b, a, opt.seconds);
                ma = run(a, b, opt.seconds);
            }
            if (g_stop) break;
            s.a.push_back(ma);
            s.b.push_back(mb);
            PrintRunLine(window, "round " + std::to_string(round + 1), ma, mb);
            platform.TrimLogs();
        }
        out->byWindow.emplace_back(window, std::move(s));
    }
    kids.Stop(base);
    router.Drain(b.route, 0);
    if (!g_stop && opt.reconnects > 0) {
        out->reconnects = MeasureReconnects(router, server, comp, opt.reconnects, &why);
        if (out->reconnects.failed) std::printf("  reconnects: %s\n", why.c_str());
    }
    if (!kids.Alive(comp)) std::fprintf(stderr, "bench_pc: comp ended during the runs\n%s", Tail(compOut).c_str());
    kids.Stop(comp, FifoPath(runDir, "3_" + std::to_string(comp) + "_1"));
    return true;
}

int RunBench(const Options& opt) {
    const std::vector<std::string> limits = kit::EnsureQueueLimits();
    for (const std::string& l : limits) std::fprintf(stderr, "bench_pc: %s\n", l.c_str());
    if (!limits.empty()) return 1;
    bench::BenchPlatform platform;
    std::string why;
    // Both relays are clients of the bench's echo server: client routes with
    // heartbeats off and no idle time-out between runs.
    const int serverPort = bench::FreeLoopbackPort();
    bench::BenchExtras extras;
    extras.routes.push_back(
        {kPcRoute, "bench-pc", serverPort, kLinkIdle, "route 30 SysTCPPC", "1", kReconnInterval});
    extras.routes.push_back(
        {kBaseRoute, "bench-pcbase", serverPort, kLinkIdle, "route 31 SysTCPPC", "1", kReconnInterval});
    platform.SetExtras(extras);
    if (serverPort <= 0 || !platform.Create(opt.level, &why)) {
        std::fprintf(stderr, "bench_pc: platform: %s\n", why.c_str());
        return 1;
    }
    if (opt.keep) platform.KeepDirectory();
    int toRouter = -1, fromRouter = -1;
    EchoServer server(serverPort);
    if (!bench::PlatformQueues(platform.runDir(), &toRouter, &fromRouter, &why) || !server.Listen(&why)) {
        std::fprintf(stderr, "bench_pc: %s\n", why.c_str());
        return 1;
    }
    const int64_t started = kit::NowMs();
    std::printf("bench_pc: comp %s\n  platform %s (keys 0x%08x..), PC route %d and baseline route %d, echo server on "
                "127.0.0.1:%d\n  messages of %d bytes (%d-byte header, then the body), %d rounds x %.1f s after %.1f "
                "s warm-up, the other relay frozen\n",
                opt.compPath.c_str(), platform.runDir().c_str(), static_cast<unsigned>(platform.keyBase()), kPcRoute,
                kBaseRoute, serverPort, kHeaderLen + opt.bodyBytes, kHeaderLen, opt.rounds, opt.seconds, opt.warmup);
    std::vector<StyleResult> results;
    int status = 0;
    {
        Router router(toRouter, fromRouter);
        for (const std::string& style : opt.styles) {
            if (g_stop) break;
            StyleResult r;
            if (!RunStyle(opt, platform, router, server, serverPort, style, &r)) status = 1;
            results.push_back(std::move(r));
        }
    }
    server.Drop();
    if (g_stop) {
        std::printf("bench_pc: interrupted; partial results\n");
        status = 130;
    }
    PrintTable(opt, results, kReconnInterval);
    std::printf("\nbench_pc: %.0f s in all\n", static_cast<double>(kit::NowMs() - started) / 1000.0);
    if (opt.keep) std::printf("bench_pc: logs kept in %s\n", platform.runDir().c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 3 && std::strcmp(argv[1], "--role") == 0) {
        if (std::strcmp(argv[2], "pcbaseline") == 0 && argc == 6) {
            bench::PcBaselineOptions b;
            b.runDir = argv[3];
            b.route = std::atoi(argv[4]);
            b.serverPort = std::atoi(argv[5]);
            return bench::RunPcBaselineRole(b);
        }
        Usage();
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options opt;
    if (!ParseOptions(argc, argv, &opt)) {
        Usage();
        return 2;
    }
    if (!bench::ResolveCompPath("bench_pc", &opt.compPath)) return 1;
    bench::InstallStopHandler(OnBenchStop);
    struct sigaction sa {};
    sa.sa_handler = OnWake;   // no SA_RESTART: a blocked queue read returns
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR2, &sa, nullptr);
    return RunBench(opt);
}
