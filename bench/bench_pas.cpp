// bench_pas: comp's asynchronous multi-client server mode (PAS) on a private
// platform, in both wait styles (the platform's fixed 5-microsecond wait and
// the deadline-driven wait on epoll).
//
//   rates   round trips per second on long-lived connections with 1 and 16
//           clients, comp (A) against a minimal persistent baseline relay (B)
//           in the same run, rounds alternating A and B, the other frozen;
//   scale   ten thousand clients, each from a loopback address of its own,
//           held by the route's PAS instances on one shared listener, each
//           sending one message every period: accept rate, memory per
//           connection, CPU of the instances idle and under the load,
//           round-trip p50/p99, and that no message was lost.
//
//   bench_pas [--comp PATH] [--styles fixed,deadline] [--seconds S] [--rounds N]
//             [--warmup S] [--clients 1,16] [--conns N] [--instances N]
//             [--period S] [--steady S] [--idle S] [--no-rates] [--no-scale] [--keep]
//
// The roles `--role router RUNDIR` and `--role baseline RUNDIR ROUTE PORT` are
// the helper processes this program starts for itself.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AcceptDriver.h"
#include "BenchPlatform.h"
#include "BenchProcs.h"
#include "LoadGen.h"
#include "PersistentLoad.h"
#include "ProcStat.h"
#include "Relays.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

using bench::BenchPlatform;
using bench::Children;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnBenchStop(int) { g_stop = 1; }

constexpr int kPasRoute = 40, kBaseRoute = 41;
constexpr int kLogLevel = 3;
constexpr int kTableSize = 16384;        // MAX_COM_NUM: descriptors of one instance
constexpr int kListenBacklog = 4096;
constexpr int kConnectWindow = 256;      // clients connecting ahead of the accepts
constexpr int kRegisterWaitMs = 600000;  // all clients registered within this
constexpr int kDrainMs = 5000;
constexpr int kRequestBody = 32;

struct Options {
    std::string compPath;
    std::vector<std::string> styles{"fixed", "deadline"};
    double seconds = 3.0;
    int rounds = 5;
    double warmup = 1.0;
    std::vector<int> clients{1, 16};
    int conns = 10000;
    int instances = 2;
    double period = 10.0;
    double steady = 30.0;
    double idle = 5.0;
    bool rates = true, scale = true, keep = false;
};

void Usage() {
    std::fprintf(stderr,
                 "usage: bench_pas [--comp PATH] [--styles fixed,deadline] [--seconds S] [--rounds N] [--warmup S]\n"
                 "                 [--clients 1,16] [--conns N] [--instances N] [--period S] [--steady S] [--idle S]\n"
                 "                 [--no-rates] [--no-scale] [--keep]\n");
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
        else if (r.Is("--clients") && (list = r.List())) o->clients = *list;
        else if (r.Is("--conns") && (d = r.Number(1, 16000))) o->conns = static_cast<int>(*d);
        else if (r.Is("--instances") && (d = r.Number(1, 16))) o->instances = static_cast<int>(*d);
        else if (r.Is("--period") && (d = r.Number(0.1, 600))) o->period = *d;
        else if (r.Is("--steady") && (d = r.Number(1, 3600))) o->steady = *d;
        else if (r.Is("--idle") && (d = r.Number(0, 600))) o->idle = *d;
        else if (r.Is("--no-rates")) o->rates = false;
        else if (r.Is("--no-scale")) o->scale = false;
        else if (r.Is("--keep")) o->keep = true;
        else return false;
    }
    return true;
}

using bench::FifoPath;

// The listener the PAS instances share, as the supervisor opens it.
comp::UniqueFd SharedListener(int port, std::string* why) {
    comp::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(port));
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 ||
        listen(fd.get(), kListenBacklog) != 0) {
        *why = "listen on 127.0.0.1:" + std::to_string(port) + ": " + std::strerror(errno);
        return comp::UniqueFd();
    }
    return fd;
}

// Enough descriptors for the clients here and for each instance (which
// inherit the limit).
void RaiseFileLimit(int want) {
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur >= static_cast<rlim_t>(want)) return;
    if (rl.rlim_max < static_cast<rlim_t>(want)) rl.rlim_max = static_cast<rlim_t>(want);   // root only
    rl.rlim_cur = static_cast<rlim_t>(want);
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) {
        getrlimit(RLIMIT_NOFILE, &rl);
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

int FileLimit() {
    rlimit rl{};
    getrlimit(RLIMIT_NOFILE, &rl);
    return static_cast<int>(std::min<rlim_t>(rl.rlim_cur, INT32_MAX));
}

// Busy entries of the registry, from its header.
int RegistryBusy(const BenchPlatform& plat) {
    kit::Resources res;
    std::string why;
    if (!kit::ReadResources(plat.runDir(), &res, &why) || res.shms.empty()) return -1;
    int id = shmget(res.shms[0].iKey, 0, 0);
    if (id < 0) return -1;
    void* base = shmat(id, nullptr, SHM_RDONLY);
    if (base == reinterpret_cast<void*>(-1)) return -1;
    ConnListHeader h;
    std::memcpy(&h, static_cast<char*>(base) + comp::kRegistryHeaderOff, sizeof h);
    shmdt(base);
    return h.iBusyBlocks;
}

// ---------------------------------------------------------------------------
// The PAS instances of one wait style
// ---------------------------------------------------------------------------
class PasRoute {
public:
    PasRoute(Children& kids, const Options& opt, BenchPlatform& plat, int listenFd)
        : kids_(kids), opt_(opt), plat_(plat), listenFd_(listenFd) {}
    ~PasRoute() { Stop(); }

    bool Start(const std::string& style, int count, std::string* why) {
        plat_.extras().appVars = style == "deadline" ? "COMP_WAIT DEADLINE\n" : "";
        if (!plat_.SetLogLevel(kLogLevel, why)) return false;
        std::vector<bench::AcceptDriver::Instance> inst;
        for (int i = 1; i <= count; ++i) {
            const std::string out = plat_.runDir() + "/log/pas_" + style + "_" + std::to_string(i) + ".out";
            pid_t pid = kids_.Start("comp PAS", {opt_.compPath, "SysTCPPAS", std::to_string(kPasRoute),
                                                 std::to_string(i), std::to_string(listenFd_),
                                                 "PAS" + std::to_string(kPasRoute) + "_" + std::to_string(i)},
                                    out, why, listenFd_);
            if (pid <= 0) return false;
            pids_.push_back(pid);
            const std::string ctl = FifoPath(plat_.runDir(), "3_" + std::to_string(pid) + "_" + std::to_string(i));
            ctl_.push_back(ctl);
            // The peer FIFO is the last one PAS opens before it serves.
            if (!bench::WaitReady(kids_, pid, FifoPath(plat_.runDir(), "4_" + std::to_string(pid)), &g_stop, why)) {
                *why = "comp SysTCPPAS: " + *why + "\n" + bench::Tail(out);
                return false;
            }
            inst.push_back({pid, ctl});
        }
        kit::Resources res;
        if (!kit::ReadResources(plat_.runDir(), &res, why)) return false;
        driver_ = std::make_unique<bench::AcceptDriver>(listenFd_, kit::QueueIdByIndex(res, comp::kQueueCommonp),
                                                        inst);
        return driver_->Start(why);
    }
    void Stop() {
        if (driver_) driver_->Stop();
        driver_.reset();
        for (size_t i = 0; i < pids_.size(); ++i) kids_.Stop(pids_[i], ctl_[i]);
        pids_.clear();
        ctl_.clear();
    }
    void Freeze(bool frozen) {
        for (pid_t p : pids_) kill(p, frozen ? SIGSTOP : SIGCONT);
    }
    bool AllAlive() {
        for (pid_t p : pids_)
            if (!kids_.Alive(p)) return false;
        return true;
    }
    const std::vector<pid_t>& pids() const { return pids_; }
    uint64_t accepted() const { return driver_ ? driver_->reports() : 0; }

private:
    Children& kids_;
    const Options& opt_;
    BenchPlatform& plat_;
    int listenFd_;
    std::vector<pid_t> pids_;
    std::vector<std::string> ctl_;
    std::unique_ptr<bench::AcceptDriver> driver_;
};

// CPU of several processes since the start: what they used, and what they
// wanted (used, plus the time they waited runnable for a core).
class CpuMeters {
public:
    explicit CpuMeters(const std::vector<pid_t>& pids) : pids_(pids) {
        for (pid_t p : pids) meters_.emplace_back(p);
        for (bench::CpuMeter& m : meters_) m.start();
        wanted0_ = WantedNs();
    }
    double micros() const {
        double sum = 0;
        for (const bench::CpuMeter& m : meters_) sum += std::max(0.0, m.elapsedMicros());
        return sum;
    }
    double wantedMicros() const { return static_cast<double>(WantedNs() - wanted0_) / 1000.0; }

private:
    uint64_t WantedNs() const {
        uint64_t sum = 0;
        for (pid_t p : pids_) {
            bench::SchedTimes t = bench::ProcessSchedTimes(p).value_or(bench::SchedTimes{});
            sum += t.runNs + t.waitNs;
        }
        return sum;
    }
    std::vector<pid_t> pids_;
    std::vector<bench::CpuMeter> meters_;
    uint64_t wanted0_ = 0;
};

uint64_t RssKiB(const std::vector<pid_t>& pids) {
    uint64_t sum = 0;
    for (pid_t p : pids) sum += bench::ProcessRssKiB(p).value_or(0);
    return sum;
}

// ---------------------------------------------------------------------------
// Rates
// ---------------------------------------------------------------------------
struct RunMetrics {
    double rate = 0, p50 = 0, p99 = 0, relayCpu = 0, routerCpu = 0;   // CPU in microseconds per round trip
    uint64_t exchanges = 0, failures = 0;
    std::string firstError;
};
struct Series {
    std::vector<RunMetrics> a, b;
};

double MedianOf(const std::vector<RunMetrics>& runs, double RunMetrics::*f) {
    std::vector<double> v;
    for (const RunMetrics& r : runs) v.push_back(r.*f);
    return bench::Median(v);
}

// The rounds' own A/B ratios: median, lowest, highest.
struct Ratio {
    double median = 0, lo = 0, hi = 0;
};
Ratio PairedRatio(const Series& s, double RunMetrics::*f) {
    std::vector<double> v;
    for (size_t i = 0; i < s.a.size() && i < s.b.size(); ++i)
        if (s.b[i].*f > 0) v.push_back(s.a[i].*f / s.b[i].*f);
    if (v.empty()) return {};
    return {bench::Median(v), *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end())};
}

RunMetrics Measure(const std::vector<int>& fds, const std::vector<pid_t>& relay, pid_t router, double seconds,
                   const std::string& request) {
    CpuMeters relayCpu(relay), routerCpu({router});
    bench::LoadResult r = bench::RunPersistentLoad(fds, request, seconds, &g_stop);
    RunMetrics m;
    m.exchanges = r.exchanges;
    m.failures = r.failures;
    m.firstError = r.firstError;
    m.rate = r.rate();
    m.p50 = bench::Quantile(r.latencyUs, 0.50);
    m.p99 = bench::Quantile(r.latencyUs, 0.99);
    if (r.exchanges > 0) {
        m.relayCpu = relayCpu.micros() / static_cast<double>(r.exchanges);
        m.routerCpu = routerCpu.micros() / static_cast<double>(r.exchanges);
    }
    return m;
}

struct Side {
    std::vector<int> fds;
    std::vector<pid_t> pids;
};

// Opens `n` connections from loopback block `block`; every one is checked
// with a first round trip, which also lets PAS accept it.
bool OpenClients(int port, int n, int block, const std::string& request, std::vector<int>* fds, std::string* why) {
    for (int i = 0; i < n; ++i) {
        int fd = bench::ConnectFrom(bench::LoopbackSource(block, i), port, why);
        if (fd < 0) return false;
        fds->push_back(fd);
        if (!bench::OneRoundTrip(fd, request, why)) return false;
    }
    return true;
}

void CloseClients(std::vector<int>* fds) {
    for (int fd : *fds) close(fd);
    fds->clear();
}

void PrintRun(const std::string& style, int clients, const std::string& label, const RunMetrics& a,
              const RunMetrics& b) {
    std::printf("  %-8s %2d client%s %-8s  comp %7.0f/s p50 %5.0f p99 %6.0f us  | baseline %7.0f/s p50 %5.0f p99 %6.0f us\n",
                style.c_str(), clients, clients == 1 ? " " : "s", label.c_str(), a.rate, a.p50, a.p99, b.rate, b.p50,
                b.p99);
    for (const RunMetrics* m : {&a, &b})
        if (m->failures > 0)
            std::printf("      %s: %llu failed round trips, first: %s\n", m == &a ? "comp" : "baseline",
                        static_cast<unsigned long long>(m->failures), m->firstError.c_str());
}

using RateKey = std::pair<std::string, int>;   // style, clients

void PrintRates(const Options& opt, const std::vector<RateKey>& order, const std::map<RateKey, Series>& results) {
    std::printf("\nRound trips on long-lived connections: medians over %d rounds of %.1f s; comp/base = median of the "
                "rounds' own ratios [lowest..highest]\n",
                opt.rounds, opt.seconds);
    std::printf("%-9s %-7s %-9s %9s %8s %8s %11s %11s\n", "wait", "clients", "relay", "trips/s", "p50 us", "p99 us",
                "relay CPU", "router CPU");
    for (const RateKey& k : order) {
        const Series& s = results.at(k);
        if (s.a.empty()) continue;
        for (int side = 0; side < 2; ++side) {
            const std::vector<RunMetrics>& runs = side == 0 ? s.a : s.b;
            std::printf("%-9s %-7d %-9s %9.0f %8.0f %8.0f %9.1fus %9.1fus\n", k.first.c_str(), k.second,
                        side == 0 ? "comp" : "baseline", MedianOf(runs, &RunMetrics::rate),
                        MedianOf(runs, &RunMetrics::p50), MedianOf(runs, &RunMetrics::p99),
                        MedianOf(runs, &RunMetrics::relayCpu), MedianOf(runs, &RunMetrics::routerCpu));
        }
        const Ratio rate = PairedRatio(s, &RunMetrics::rate), p50 = PairedRatio(s, &RunMetrics::p50),
                    cpu = PairedRatio(s, &RunMetrics::relayCpu);
        std::printf("%-9s %-7d comp/base  trips/s %.2f [%.2f..%.2f]  p50 %.2f [%.2f..%.2f]  CPU/trip %.2f [%.2f..%.2f]\n",
                    k.first.c_str(), k.second, rate.median, rate.lo, rate.hi, p50.median, p50.lo, p50.hi, cpu.median,
                    cpu.lo, cpu.hi);
    }
}

// ---------------------------------------------------------------------------
// Scale
// ---------------------------------------------------------------------------
struct ScaleReport {
    std::string style;
    int conns = 0, registered = 0;
    double acceptSec = 0;
    double rssPerConnB = 0, kernelPerConnB = 0, rssBaseMiB = 0;
    double idleCpuPct = 0, loadCpuPct = 0, routerCpuPct = 0;
    double idleWantPct = 0, loadWantPct = 0;
    bench::ScaleResult load;
    double p50 = 0, p99 = 0, max = 0;
};

bool RunScale(const Options& opt, PasRoute& pas, const BenchPlatform& plat, int port, pid_t router, int block,
              ScaleReport* rep, std::string* why) {
    const uint64_t rss0 = RssKiB(pas.pids()), slab0 = bench::KernelSlabKiB().value_or(0);
    rep->rssBaseMiB = static_cast<double>(rss0) / 1024.0;
    bench::ScaleClients clients(port, opt.conns, block);
    const int64_t t0 = kit::NowMs();
    if (!clients.Connect([&] { return pas.accepted(); }, kConnectWindow, &g_stop, why)) return false;
    int busy = 0;
    while (!g_stop && (busy = RegistryBusy(plat)) < opt.conns && kit::NowMs() - t0 < kRegisterWaitMs &&
           pas.AllAlive())
        kit::SleepMs(5);
    rep->acceptSec = static_cast<double>(kit::NowMs() - t0) / 1000.0;
    rep->conns = opt.conns;
    rep->registered = busy;
    if (busy < opt.conns) {
        *why = std::to_string(busy) + " of " + std::to_string(opt.conns) + " connections registered after " +
               std::to_string(rep->acceptSec) + " s";
        return false;
    }
    kit::SleepMs(500);
    const uint64_t rss1 = RssKiB(pas.pids()), slab1 = bench::KernelSlabKiB().value_or(0);
    rep->rssPerConnB = static_cast<double>(rss1 - std::min(rss1, rss0)) * 1024.0 / opt.conns;
    rep->kernelPerConnB = static_cast<double>(slab1 - std::min(slab1, slab0)) * 1024.0 / opt.conns;
    std::printf("  %s: %d connections registered in %.1f s (%.0f/s); PAS RSS %.1f -> %.1f MiB\n", rep->style.c_str(),
                busy, rep->acceptSec, busy / rep->acceptSec, rss0 / 1024.0, rss1 / 1024.0);

    if (opt.idle > 0) {
        CpuMeters idle(pas.pids());
        const int64_t i0 = kit::NowMs();
        while (!g_stop && kit::NowMs() - i0 < static_cast<int64_t>(opt.idle * 1000)) kit::SleepMs(50);
        const double wallUs = static_cast<double>(kit::NowMs() - i0) * 1000.0;
        rep->idleCpuPct = 100.0 * idle.micros() / wallUs;
        rep->idleWantPct = 100.0 * idle.wantedMicros() / wallUs;
    }
    CpuMeters load(pas.pids()), routerCpu({router});
    const int64_t l0 = kit::NowMs();
    rep->load = clients.Exchange(static_cast<int>(opt.period * 1000), opt.steady, kDrainMs, &g_stop);
    const double wallUs = static_cast<double>(kit::NowMs() - l0) * 1000.0;
    rep->loadCpuPct = 100.0 * load.micros() / wallUs;
    rep->loadWantPct = 100.0 * load.wantedMicros() / wallUs;
    rep->routerCpuPct = 100.0 * routerCpu.micros() / wallUs;
    rep->p50 = bench::Quantile(rep->load.rttUs, 0.50);
    rep->p99 = bench::Quantile(rep->load.rttUs, 0.99);
    rep->max = bench::Quantile(rep->load.rttUs, 1.0);
    clients.CloseAll();
    // The instances close their ends before the next style reuses the addresses.
    const int64_t c0 = kit::NowMs();
    while (RegistryBusy(plat) > 0 && kit::NowMs() - c0 < 60000 && pas.AllAlive()) kit::SleepMs(20);
    return true;
}

void PrintScale(const std::vector<ScaleReport>& reps, const Options& opt, int instances) {
    std::printf("\n%d clients from distinct loopback addresses on %d PAS instances, one message each every %.0f s "
                "for %.0f s\n",
                opt.conns, instances, opt.period, opt.steady);
    std::printf("%-9s %9s %10s %11s %15s %15s %7s %9s %9s %9s %7s %5s\n", "wait", "accepts/s", "RSS/conn B",
                "slab/conn B", "idle CPU(want)", "load CPU(want)", "router", "p50 us", "p99 us", "max us", "sent",
                "lost");
    for (const ScaleReport& r : reps) {
        const uint64_t lost = r.load.sent - std::min(r.load.sent, r.load.answered);
        char idle[32], load[32];
        std::snprintf(idle, sizeof idle, "%.1f%% (%.0f%%)", r.idleCpuPct, r.idleWantPct);
        std::snprintf(load, sizeof load, "%.1f%% (%.0f%%)", r.loadCpuPct, r.loadWantPct);
        std::printf("%-9s %9.0f %10.0f %11.0f %15s %15s %6.1f%% %9.0f %9.0f %9.0f %7llu %5llu\n", r.style.c_str(),
                    r.registered / r.acceptSec, r.rssPerConnB, r.kernelPerConnB, idle, load, r.routerCpuPct, r.p50,
                    r.p99, r.max, static_cast<unsigned long long>(r.load.sent), static_cast<unsigned long long>(lost));
        if (r.load.late + r.load.wrong + r.load.closed + r.load.sendFailures > 0)
            std::printf("          late %llu, wrong %llu, closed by the server %llu, send failures %llu\n",
                        static_cast<unsigned long long>(r.load.late), static_cast<unsigned long long>(r.load.wrong),
                        static_cast<unsigned long long>(r.load.closed),
                        static_cast<unsigned long long>(r.load.sendFailures));
    }
    std::printf("RSS/conn: growth of the instances' resident memory per connection; slab/conn: growth of the "
                "kernel's slab per connection, both ends on this host.\n"
                "CPU in percent of one core, summed over the instances (want: also the time they waited for a core, "
                "from /proc/<pid>/schedstat); idle: connections held, no traffic.\n");
    for (const ScaleReport& r : reps)
        if (r.idleWantPct > 100.0 || r.loadWantPct > 100.0)
            std::printf("The %s wait wants more than a core: %.0f%% idle, %.0f%% under the load (it got %.0f%% and "
                        "%.0f%%).\n",
                        r.style.c_str(), r.idleWantPct, r.loadWantPct, r.idleCpuPct, r.loadCpuPct);
}

// ---------------------------------------------------------------------------
// The run
// ---------------------------------------------------------------------------
int RunBench(const Options& opt) {
    const std::vector<std::string> limits = kit::EnsureQueueLimits();
    for (const std::string& l : limits) std::fprintf(stderr, "bench_pas: %s\n", l.c_str());
    if (!limits.empty()) return 1;
    RaiseFileLimit(opt.conns + 1024);
    if (opt.scale && FileLimit() < opt.conns + 256) {
        std::fprintf(stderr, "bench_pas: %d descriptors allowed; %d clients need more (ulimit -n)\n", FileLimit(),
                     opt.conns);
        return 1;
    }
    BenchPlatform plat;
    bench::BenchExtras extras;
    const int pasPort = bench::FreeLoopbackPort(), basePort = bench::FreeLoopbackPort();
    extras.routes.push_back({kPasRoute, "bench-pas", pasPort, 300,
                             "route 40 SysTCPPAS echo listen 127.0.0.1:" + std::to_string(pasPort)});
    extras.routes.push_back({kBaseRoute, "bench-pbase", basePort, 300, "route 41 SysTCPTS echo"});
    extras.maxComNum = kTableSize;
    plat.SetExtras(extras);
    std::string why;
    if (pasPort <= 0 || basePort <= 0 || pasPort == basePort || !plat.Create(kLogLevel, &why)) {
        std::fprintf(stderr, "bench_pas: platform: %s\n", why.c_str());
        return 1;
    }
    if (opt.keep) plat.KeepDirectory();
    const std::string runDir = plat.runDir();
    comp::UniqueFd listener = SharedListener(pasPort, &why);
    if (!listener.valid()) {
        std::fprintf(stderr, "bench_pas: %s\n", why.c_str());
        return 1;
    }
    kit::SetCloseOnExec(listener.get(), true);
    const std::string self = kit::SelfExe();
    Children kids;
    const int64_t benchStart = kit::NowMs();
    pid_t router = kids.Start("router", {self, "--role", "router", runDir}, runDir + "/log/router.out", &why);
    pid_t base = kids.Start("baseline",
                            {self, "--role", "baseline", runDir, std::to_string(kBaseRoute), std::to_string(basePort)},
                            runDir + "/log/baseline.out", &why);
    if (router <= 0 || base <= 0 ||
        !bench::WaitReady(kids, base, FifoPath(runDir, "1_" + std::to_string(base)), &g_stop, &why)) {
        std::fprintf(stderr, "bench_pas: router or baseline relay: %s\n%s", why.c_str(),
                     bench::Tail(runDir + "/log/baseline.out").c_str());
        return 1;
    }
    std::string body(static_cast<size_t>(kRequestBody), 'x');
    std::memcpy(body.data(), "DATA", 4);
    const std::string request = bench::FrameRequest(body, 4);
    std::printf("bench_pas: comp %s\n  platform %s (keys 0x%08x..), PAS route %d on 127.0.0.1:%d (shared listener), "
                "baseline route %d on 127.0.0.1:%d\n  descriptors allowed: %d; load average at the start: %s\n",
                opt.compPath.c_str(), runDir.c_str(), static_cast<unsigned>(plat.keyBase()), kPasRoute, pasPort,
                kBaseRoute, basePort, FileLimit(), bench::LoadAverage().c_str());

    std::vector<RateKey> order;
    std::map<RateKey, Series> rates;
    std::vector<ScaleReport> scale;
    int status = 0, block = 20;
    for (const std::string& style : opt.styles) {
        if (g_stop) break;
        if (opt.rates) {
            PasRoute pas(kids, opt, plat, listener.get());
            if (!pas.Start(style, 1, &why)) {
                std::fprintf(stderr, "bench_pas: %s\n", why.c_str());
                return 1;
            }
            std::printf("\n%s wait: comp pid %d\n", style.c_str(), static_cast<int>(pas.pids()[0]));
            for (int n : opt.clients) {
                if (g_stop) break;
                Side a, b;
                if (!OpenClients(pasPort, n, block++, request, &a.fds, &why) ||
                    !OpenClients(basePort, n, block++, request, &b.fds, &why)) {
                    std::fprintf(stderr, "bench_pas: clients: %s\n", why.c_str());
                    return 1;
                }
                a.pids = pas.pids();
                b.pids = {base};
                auto run = [&](bool comp, double seconds) {
                    pas.Freeze(!comp);
                    kill(base, comp ? SIGSTOP : SIGCONT);
                    RunMetrics m = Measure(comp ? a.fds : b.fds, comp ? a.pids : b.pids, router, seconds, request);
                    pas.Freeze(false);
                    kill(base, SIGCONT);
                    return m;
                };
                if (opt.warmup > 0) {
                    RunMetrics wa = run(true, opt.warmup), wb = run(false, opt.warmup);
                    PrintRun(style, n, "warm-up", wa, wb);
                }
                const RateKey key{style, n};
                order.push_back(key);
                Series& s = rates[key];
                for (int r = 0; r < opt.rounds && !g_stop; ++r) {
                    RunMetrics ma, mb;
                    if (r % 2 == 0) {
                        ma = run(true, opt.seconds);
                        mb = run(false, opt.seconds);
                    } else {
                        mb = run(false, opt.seconds);
                        ma = run(true, opt.seconds);
                    }
                    s.a.push_back(ma);
                    s.b.push_back(mb);
                    PrintRun(style, n, "round " + std::to_string(r + 1), ma, mb);
                }
                CloseClients(&a.fds);
                CloseClients(&b.fds);
            }
            if (!pas.AllAlive()) {
                std::fprintf(stderr, "bench_pas: comp ended during the runs\n");
                status = 1;
            }
        }
        if (opt.scale && !g_stop) {
            PasRoute pas(kids, opt, plat, listener.get());
            if (!pas.Start(style, opt.instances, &why)) {
                std::fprintf(stderr, "bench_pas: %s\n", why.c_str());
                return 1;
            }
            ScaleReport rep;
            rep.style = style;
            std::printf("\n%s wait: %d clients on %d instances\n", style.c_str(), opt.conns, opt.instances);
            if (!RunScale(opt, pas, plat, pasPort, router, 100 + block++, &rep, &why)) {
                std::fprintf(stderr, "bench_pas: scale, %s wait: %s\n", style.c_str(), why.c_str());
                status = 1;
            } else {
                scale.push_back(rep);
            }
            if (!pas.AllAlive()) {
                std::fprintf(stderr, "bench_pas: a PAS instance ended during the scale run\n");
                status = 1;
            }
        }
        plat.TrimLogs();
    }
    kids.Stop(base);
    kids.Stop(router);
    std::fputs(bench::Tail(runDir + "/log/router.out").c_str(), stdout);
    if (g_stop) {
        std::printf("bench_pas: interrupted; partial results\n");
        status = 130;
    }
    if (!order.empty()) PrintRates(opt, order, rates);
    if (!scale.empty()) PrintScale(scale, opt, opt.instances);
    std::printf("\nbench_pas: %.0f s in all; load average at the end: %s\n",
                static_cast<double>(kit::NowMs() - benchStart) / 1000.0, bench::LoadAverage().c_str());
    if (opt.keep) std::printf("bench_pas: logs kept in %s\n", runDir.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (int rc = bench::RunRoleFromArgs(argc, argv, true); rc >= 0) return rc;
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options opt;
    if (!ParseOptions(argc, argv, &opt)) {
        Usage();
        return 2;
    }
    if (!bench::ResolveCompPath("bench_pas", &opt.compPath)) return 1;
    bench::InstallStopHandler(OnBenchStop);
    return RunBench(opt);
}
