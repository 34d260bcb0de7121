// bench_fw: round trips per second, latency and CPU per message of comp's
// forwarder pair (clients -> FWB -> FWS -> router and back) against a
// minimal baseline relay pair doing the same with only the essential system
// calls, and against the same clients served by TS directly (one hop), all
// on one private platform with one stand-in router, in both wait styles.
//
//   bench_fw [--comp PATH] [--seconds S] [--rounds N] [--warmup S]
//            [--clients 1,16] [--styles fixed,deadline] [--level L]
//            [--body BYTES] [--keep]
//
// Within every round each side runs once, in rotating order, while the
// processes of the other sides are frozen (SIGSTOP): the busy-polling modes
// would otherwise take the CPU the measured side needs. The pair's clients
// are persistent (a forwarder serves long-lived clients); TS takes one
// exchange per connection, so its clients connect for each. The bench plays
// the supervisor of FWB and FWS: it holds their listeners and tells the
// instance to accept when a client waits.
//
// Roles this program starts for itself: --role router RUNDIR,
// --role pair-front RUNDIR CLIENTPORT LINKPORT, --role pair-upper RUNDIR ROUTE LINKPORT.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchPlatform.h"
#include "BenchProcs.h"
#include "LoadGen.h"
#include "ProcStat.h"
#include "Relays.h"
#include "base/FdUtil.h"
#include "kit/KitIpc.h"
#include "kit/KitUtil.h"

namespace {

using bench::Children;
using bench::FifoPath;
using bench::Tail;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnBenchStop(int) { g_stop = 1; }

constexpr int kListenBacklog = 128;
constexpr int kWakeWaitMs = 1000;   // a wake that got no accept report in this time may be repeated

struct Options {
    std::string compPath;
    double seconds = 2.0;
    int rounds = 3;
    double warmup = 0.5;
    std::vector<int> clients{1, 16};
    std::vector<std::string> styles{"fixed", "deadline"};
    int level = 3;
    int bodyBytes = 32;
    bool keep = false;
};

void Usage() {
    std::fprintf(stderr,
                 "usage: bench_fw [--comp PATH] [--seconds S] [--rounds N] [--warmup S] [--clients 1,16]\n"
                 "                [--styles fixed,deadline] [--level L] [--body BYTES] [--keep]\n");
}

std::vector<std::string> Words(const std::string& text) {
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        out.push_back(text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos));
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    return out;
}

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool more = i + 1 < argc;
        auto num = [&](double lo, double hi) -> std::optional<double> {
            if (!more) return std::nullopt;
            char* end = nullptr;
            double d = std::strtod(argv[++i], &end);
            if (*end != '\0' || d < lo || d > hi) return std::nullopt;
            return d;
        };
        std::optional<double> d;
        if (a == "--comp" && more) {
            o->compPath = argv[++i];
        } else if (a == "--seconds" && (d = num(0.1, 600))) {
            o->seconds = *d;
        } else if (a == "--rounds" && (d = num(1, 100))) {
            o->rounds = static_cast<int>(*d);
        } else if (a == "--warmup" && (d = num(0, 60))) {
            o->warmup = *d;
        } else if (a == "--level" && (d = num(1, 4))) {
            o->level = static_cast<int>(*d);
        } else if (a == "--body" && (d = num(4, 9000))) {
            o->bodyBytes = static_cast<int>(*d);
        } else if (a == "--clients" && more) {
            o->clients.clear();
            for (const std::string& w : Words(argv[++i])) {
                auto v = kit::ParseLong(w);
                if (!v || *v < 1 || *v > 1000) return false;
                o->clients.push_back(static_cast<int>(*v));
            }
        } else if (a == "--styles" && more) {
            o->styles = Words(argv[++i]);
            for (const std::string& s : o->styles)
                if (s != "fixed" && s != "deadline") return false;
        } else if (a == "--keep") {
            o->keep = true;
        } else {
            return false;
        }
    }
    return true;
}

// ---------------------------------------------------------------------------
// The supervisor's part for FWB and FWS: their shared listeners, and "0" on
// an instance's control FIFO when a client waits, until it reports the
// accept to Commonp (queue 6, which this also drains).
// ---------------------------------------------------------------------------
class Waker {
public:
    explicit Waker(const std::string& runDir) : runDir_(runDir) {}
    ~Waker() { Stop(); }
    // A non-blocking listener on 127.0.0.1:port, as the supervisor opens them.
    int Listen(int port, std::string* why) {
        comp::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        int one = 1;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_port = htons(static_cast<uint16_t>(port));
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd.get(), kListenBacklog) != 0) {
            *why = "listen on 127.0.0.1:" + std::to_string(port) + ": " + std::strerror(errno);
            return -1;
        }
        slots_.push_back(Slot{std::move(fd)});
        return slots_.back().fd.get();
    }
    // The instance (pid, instance 1) that a listener's clients go to.
    void SetOwner(int listenFd, pid_t pid) {
        for (Slot& s : slots_)
            if (s.fd.get() == listenFd) s.owner = pid;
    }
    void Start(int commonpQid) {
        qid_ = commonpQid;
        thread_ = std::thread([this] { Loop(); });
    }
    void Stop() {
        done_ = true;
        if (thread_.joinable()) thread_.join();
    }

private:
    struct Slot {
        comp::UniqueFd fd;
        std::atomic<pid_t> owner{-1};
        pid_t pending = -1;
        int64_t since = 0;
        Slot(comp::UniqueFd f) : fd(std::move(f)) {}
        Slot(Slot&& o) noexcept : fd(std::move(o.fd)), owner(o.owner.load()), pending(o.pending), since(o.since) {}
    };
    void Loop() {
        auto buf = std::make_unique<QueueMsg>();
        while (!done_ && !g_stop) {
            while (msgrcv(qid_, buf.get(), sizeof buf->caText, 0, IPC_NOWAIT) > 0)
                if (buf->lMsgType == comp::kCommonpAccepted) {
                    int32_t pid;
                    std::memcpy(&pid, buf->caText + comp::plat::kPid, sizeof pid);
                    for (Slot& s : slots_)
                        if (s.pending == pid) s.pending = -1;
                }
            std::vector<pollfd> fds;
            for (Slot& s : slots_) fds.push_back(pollfd{s.fd.get(), POLLIN, 0});
            if (poll(fds.data(), fds.size(), 5) <= 0) continue;
            const int64_t now = kit::NowMs();
            for (size_t i = 0; i < slots_.size(); ++i) {
                Slot& s = slots_[i];
                const pid_t owner = s.owner.load();
                if (!(fds[i].revents & POLLIN) || owner <= 0) continue;
                if (s.pending == owner && now - s.since < kWakeWaitMs) continue;
                const std::string fifo = FifoPath(runDir_, "3_" + std::to_string(owner) + "_1");
                int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                if (fd < 0) continue;
                if (write(fd, "0", 1) == 1) {
                    s.pending = owner;
                    s.since = now;
                }
                close(fd);
            }
        }
    }

    std::string runDir_;
    std::vector<Slot> slots_;
    int qid_ = -1;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

// ---------------------------------------------------------------------------
// Measurements
// ---------------------------------------------------------------------------
enum SideId { kPair = 0, kBase = 1, kTs = 2, kSides = 3 };
const char* const kSideNames[kSides] = {"comp FWB+FWS", "baseline pair", "comp TS (1 hop)"};

struct Side {
    std::vector<pid_t> procs;   // the relay processes (frozen while another side runs)
    std::vector<std::string> procNames;
    int port = 0;
    bool persistent = true;
};

struct Run {
    double rate = 0, p50 = 0, p99 = 0;
    std::vector<double> cpuPerMsg;   // per relay process, microseconds
    double routerCpuPerMsg = 0;
    uint64_t failures = 0;
    std::string firstError;
    double relayCpu() const {
        double t = 0;
        for (double c : cpuPerMsg) t += c;
        return t;
    }
};

Run Measure(const Side& side, const std::vector<Side>& all, pid_t router, int clients, double seconds,
            const std::string& request) {
    for (const Side& s : all)
        for (pid_t p : s.procs) kill(p, &s == &side ? SIGCONT : SIGSTOP);
    std::vector<bench::CpuMeter> meters;
    for (pid_t p : side.procs) meters.emplace_back(p);
    bench::CpuMeter routerMeter(router);
    auto startMeters = [&] {
        for (bench::CpuMeter& m : meters) m.start();
        routerMeter.start();
    };
    bench::LoadOptions lo;
    lo.port = side.port;
    lo.clients = clients;
    lo.seconds = seconds;
    lo.request = request;
    bench::LoadResult r;
    if (side.persistent) {
        r = bench::RunPersistentLoad(lo, &g_stop, startMeters);
    } else {
        startMeters();
        r = bench::RunLoad(lo, &g_stop);
    }
    Run m;
    m.rate = r.rate();
    m.p50 = bench::Quantile(r.latencyUs, 0.50);
    m.p99 = bench::Quantile(r.latencyUs, 0.99);
    m.failures = r.failures;
    m.firstError = r.firstError;
    const double n = r.exchanges > 0 ? static_cast<double>(r.exchanges) : 1.0;
    for (bench::CpuMeter& c : meters) m.cpuPerMsg.push_back(c.elapsedMicros() / n);
    m.routerCpuPerMsg = routerMeter.elapsedMicros() / n;
    for (const Side& s : all)
        for (pid_t p : s.procs) kill(p, SIGCONT);
    return m;
}

// "median [min-max]" of a field over the rounds.
std::string Spread(const std::vector<Run>& runs, double (*get)(const Run&), const char* fmt = "%.0f") {
    std::vector<double> v;
    for (const Run& r : runs) v.push_back(get(r));
    if (v.empty()) return "-";
    auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    char a[32], b[32], c[32];
    std::snprintf(a, sizeof a, fmt, bench::Median(v));
    std::snprintf(b, sizeof b, fmt, *lo);
    std::snprintf(c, sizeof c, fmt, *hi);
    return std::string(a) + " [" + b + "-" + c + "]";
}

// Median over the rounds of the round's own ratio of two sides.
std::string RatioSpread(const std::vector<Run>& a, const std::vector<Run>& b, double (*get)(const Run&)) {
    std::vector<Run> ratios;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        Run q;
        q.rate = get(b[i]) > 0 ? get(a[i]) / get(b[i]) : 0;
        ratios.push_back(q);
    }
    return Spread(ratios, [](const Run& r) { return r.rate; }, "%.2f");
}

struct Config {
    std::string style;
    int clients;
    std::vector<Run> runs[kSides];
};

void PrintRun(const Config& c, const Side& s, SideId id, const Run& r, const char* what) {
    std::printf("  %-8s %2d client%s %-8s %-16s %8.0f/s p50 %6.0f p99 %7.0f us  CPU/msg", c.style.c_str(), c.clients,
                c.clients == 1 ? " " : "s", what, kSideNames[id], r.rate, r.p50, r.p99);
    for (size_t i = 0; i < r.cpuPerMsg.size(); ++i) std::printf(" %s %.1f", s.procNames[i].c_str(), r.cpuPerMsg[i]);
    std::printf(" router %.1f us\n", r.routerCpuPerMsg);
    if (r.failures > 0)
        std::printf("      %llu failed, first: %s\n", static_cast<unsigned long long>(r.failures),
                    r.firstError.c_str());
}

void PrintTable(const Options& opt, const std::vector<Config>& configs, const std::vector<Side>& sides) {
    std::printf("\nResults: median [min-max] over %d rounds of %.1f s; CPU in microseconds per round trip, from "
                "the threads' schedstat\n", opt.rounds, opt.seconds);
    std::printf("%-8s %-7s %-16s %-22s %-16s %-16s %-26s %-18s\n", "style", "clients", "side", "round trips/s",
                "p50 us", "p99 us", "CPU/msg per relay process", "relays CPU/msg");
    for (const Config& c : configs) {
        for (int s = 0; s < kSides; ++s) {
            const std::vector<Run>& runs = c.runs[s];
            if (runs.empty()) continue;
            std::string perProc;
            for (size_t i = 0; i < sides[static_cast<size_t>(s)].procNames.size(); ++i) {
                std::vector<double> v;
                for (const Run& r : runs) v.push_back(r.cpuPerMsg[i]);
                char one[48];
                std::snprintf(one, sizeof one, "%s%s %.1f", perProc.empty() ? "" : ", ",
                              sides[static_cast<size_t>(s)].procNames[i].c_str(), bench::Median(v));
                perProc += one;
            }
            std::printf("%-8s %-7d %-16s %-22s %-16s %-16s %-26s %-18s\n", c.style.c_str(), c.clients,
                        kSideNames[s], Spread(runs, [](const Run& r) { return r.rate; }).c_str(),
                        Spread(runs, [](const Run& r) { return r.p50; }).c_str(),
                        Spread(runs, [](const Run& r) { return r.p99; }).c_str(), perProc.c_str(),
                        Spread(runs, [](const Run& r) { return r.relayCpu(); }, "%.1f").c_str());
        }
        auto rate = [](const Run& r) { return r.rate; };
        auto cpu = [](const Run& r) { return r.relayCpu(); };
        std::printf("%-8s %-7d pair/baseline: throughput %s, CPU/msg %s; pair/TS: CPU/msg %s, throughput %s\n",
                    c.style.c_str(), c.clients, RatioSpread(c.runs[kPair], c.runs[kBase], rate).c_str(),
                    RatioSpread(c.runs[kPair], c.runs[kBase], cpu).c_str(),
                    RatioSpread(c.runs[kPair], c.runs[kTs], cpu).c_str(),
                    RatioSpread(c.runs[kPair], c.runs[kTs], rate).c_str());
    }
}

int RunBench(const Options& opt) {
    const std::vector<std::string> limits = kit::EnsureQueueLimits();
    for (const std::string& l : limits) std::fprintf(stderr, "bench_fw: %s\n", l.c_str());
    if (!limits.empty()) return 1;
    bench::BenchPlatform plat;
    std::string why;
    if (!plat.Create(opt.level, &why)) {
        std::fprintf(stderr, "bench_fw: platform: %s\n", why.c_str());
        return 1;
    }
    if (opt.keep) plat.KeepDirectory();
    const std::string runDir = plat.runDir();
    const bench::BenchRoutes& rt = plat.routes();
    const std::string self = kit::SelfExe();
    Children kids;
    const int64_t benchStart = kit::NowMs();
    auto ready = [&](pid_t pid, const std::string& fifo) {
        return pid > 0 && bench::WaitReady(kids, pid, FifoPath(runDir, fifo), &g_stop, &why);
    };
    auto bell = [](pid_t pid) { return "1_" + std::to_string(pid); };

    pid_t router = kids.Start("router", {self, "--role", "router", runDir}, runDir + "/log/router.out", &why);
    pid_t upper = kids.Start("pair-upper",
                             {self, "--role", "pair-upper", runDir, std::to_string(rt.pairRoute),
                              std::to_string(rt.pairUpperPort)},
                             runDir + "/log/pair_upper.out", &why);
    if (router <= 0 || !ready(upper, bell(upper))) {
        std::fprintf(stderr, "bench_fw: router or pair-upper: %s\n%s", why.c_str(),
                     Tail(runDir + "/log/pair_upper.out").c_str());
        return 1;
    }
    pid_t front = kids.Start("pair-front",
                             {self, "--role", "pair-front", runDir, std::to_string(rt.pairFrontPort),
                              std::to_string(rt.pairUpperPort)},
                             runDir + "/log/pair_front.out", &why);
    if (!ready(front, bell(front))) {
        std::fprintf(stderr, "bench_fw: pair-front: %s\n%s", why.c_str(), Tail(runDir + "/log/pair_front.out").c_str());
        return 1;
    }
    Waker waker(runDir);
    const int fwbListen = waker.Listen(rt.fwbPort, &why), fwsListen = waker.Listen(rt.fwsPort, &why);
    kit::Resources res;
    if (fwbListen < 0 || fwsListen < 0 || !kit::ReadResources(runDir, &res, &why)) {
        std::fprintf(stderr, "bench_fw: %s\n", why.c_str());
        return 1;
    }
    waker.Start(kit::QueueIdByIndex(res, comp::kQueueCommonp));

    // The message type 0100: not the clients' beat type, so FWB forwards it.
    std::string body(static_cast<size_t>(opt.bodyBytes), 'x');
    std::memcpy(body.data(), "0100", 4);
    const std::string request = bench::FrameRequest(body, 4);
    std::printf("bench_fw: comp %s\n  platform %s (keys 0x%08x..); requests of %zu bytes; %d rounds x %.1f s after "
                "%.1f s warm-up; LOG_LEVEL %d\n  load average at the start: %s\n",
                opt.compPath.c_str(), runDir.c_str(), static_cast<unsigned>(plat.keyBase()), request.size(),
                opt.rounds, opt.seconds, opt.warmup, opt.level, bench::LoadAverage().c_str());

    std::vector<Config> configs;
    std::vector<Side> sides(kSides);
    int status = 0;
    for (const std::string& style : opt.styles) {
        if (g_stop) break;
        if (!plat.SetLogLevel(opt.level, &why, style == "deadline")) {
            std::fprintf(stderr, "bench_fw: %s\n", why.c_str());
            return 1;
        }
        auto startComp = [&](const char* mode, int route, int listenFd, const std::string& name) {
            const std::string out = runDir + "/log/" + name + "_" + style + ".out";
            return kids.Start(name,
                              {opt.compPath, mode, std::to_string(route), "1", std::to_string(listenFd), name}, out,
                              &why, listenFd > 0 ? listenFd : -1);
        };
        pid_t fws = startComp("SysTCPFWS", rt.fwsRoute, fwsListen, "FWS61_1");
        if (!ready(fws, bell(fws))) {
            std::fprintf(stderr, "bench_fw: FWS: %s\n", why.c_str());
            return 1;
        }
        waker.SetOwner(fwsListen, fws);
        pid_t fwb = startComp("SysTCPFWB", rt.fwbRoute, fwbListen, "FWB60_1");
        if (!ready(fwb, "3_" + std::to_string(fwb) + "_1")) {
            std::fprintf(stderr, "bench_fw: FWB: %s\n", why.c_str());
            return 1;
        }
        waker.SetOwner(fwbListen, fwb);
        pid_t ts = startComp("SysTCPTS", rt.tsRoute, 0, "TS10_1");
        if (!ready(ts, bell(ts))) {
            std::fprintf(stderr, "bench_fw: TS: %s\n", why.c_str());
            return 1;
        }
        sides[kPair] = Side{{fwb, fws}, {"FWB", "FWS"}, rt.fwbPort, true};
        sides[kBase] = Side{{front, upper}, {"front", "upper"}, rt.pairFrontPort, true};
        sides[kTs] = Side{{ts}, {"TS"}, rt.tsPort, false};
        std::printf("\n%s wait style: FWB pid %d, FWS pid %d, TS pid %d\n", style.c_str(), fwb, fws, ts);

        for (int clients : opt.clients) {
            if (g_stop) break;
            Config c{style, clients, {}};
            if (opt.warmup > 0)
                for (int s = 0; s < kSides && !g_stop; ++s)
                    PrintRun(c, sides[static_cast<size_t>(s)], static_cast<SideId>(s),
                             Measure(sides[static_cast<size_t>(s)], sides, router, clients, opt.warmup, request),
                             "warm-up");
            for (int r = 0; r < opt.rounds && !g_stop; ++r) {
                for (int k = 0; k < kSides && !g_stop; ++k) {
                    const int s = (r + k) % kSides;
                    Run m = Measure(sides[static_cast<size_t>(s)], sides, router, clients, opt.seconds, request);
                    plat.TrimLogs();
                    PrintRun(c, sides[static_cast<size_t>(s)], static_cast<SideId>(s), m,
                             ("round " + std::to_string(r + 1)).c_str());
                    c.runs[s].push_back(m);
                }
            }
            configs.push_back(std::move(c));
        }
        for (pid_t p : {fwb, fws, ts})
            if (!kids.Alive(p)) {
                std::fprintf(stderr, "bench_fw: a comp ended during the runs; see %s/log\n", runDir.c_str());
                status = 1;
            }
        waker.SetOwner(fwbListen, -1);
        waker.SetOwner(fwsListen, -1);
        kids.Stop(fwb, FifoPath(runDir, "3_" + std::to_string(fwb) + "_1"));
        kids.Stop(fws, FifoPath(runDir, "3_" + std::to_string(fws) + "_1"));
        kids.Stop(ts, FifoPath(runDir, "3_" + std::to_string(ts) + "_1"));
    }
    waker.Stop();
    kids.Stop(front);
    kids.Stop(upper);
    kids.Stop(router);
    if (g_stop) {
        std::printf("bench_fw: interrupted; partial results\n");
        status = 130;
    }
    PrintTable(opt, configs, sides);
    std::printf("\nbench_fw: %.0f s in all; load average at the end: %s\n",
                static_cast<double>(kit::NowMs() - benchStart) / 1000.0, bench::LoadAverage().c_str());
    if (opt.keep) std::printf("bench_fw: logs kept in %s\n", runDir.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 4 && std::strcmp(argv[1], "--role") == 0) {
        const std::string role = argv[2];
        bench::PairOptions p;
        p.runDir = argv[3];
        if (role == "router" && argc == 4) return bench::RunRouterRole(argv[3]);
        if (role == "pair-front" && argc == 6) {
            p.clientPort = std::atoi(argv[4]);
            p.linkPort = std::atoi(argv[5]);
            return bench::RunPairFrontRole(p);
        }
        if (role == "pair-upper" && argc == 6) {
            p.route = std::atoi(argv[4]);
            p.linkPort = std::atoi(argv[5]);
            return bench::RunPairUpperRole(p);
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
    if (!bench::ResolveCompPath("bench_fw", &opt.compPath)) return 1;
    bench::InstallStopHandler(OnBenchStop);
    return RunBench(opt);
}
