// bench_ts: exchanges per second, latency and CPU per exchange of comp's
// short-connection server mode (A) against a minimal baseline relay (B) on the
// same private platform, with the same stand-in router echoing for both.
//
//   bench_ts [--comp PATH] [--seconds S] [--rounds N] [--warmup S]
//            [--clients 1,16] [--levels 3,1] [--idle S] [--body BYTES]
//            [--no-freeze] [--keep]
//
// Runs alternate A and B within every round, so that both see the same
// machine; only the ratios of one run mean anything on a shared 2-core host.
// The roles `--role router RUNDIR` and `--role baseline RUNDIR ROUTE PORT` are
// the helper processes this program starts for itself.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "BenchPlatform.h"
#include "BenchProcs.h"
#include "LoadGen.h"
#include "ProcStat.h"
#include "Relays.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

using bench::BenchPlatform;
using bench::Children;
using bench::FifoPath;
using bench::LoadAverage;
using bench::Tail;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnBenchStop(int) { g_stop = 1; }

constexpr double kTargetThroughput = 0.8;
constexpr double kTargetP50 = 1.3;
constexpr int kTargetLevel = 3;

struct Options {
    std::string compPath;
    double seconds = 3.0;
    int rounds = 5;
    double warmup = 1.0;
    std::vector<int> clients{1, 16};
    std::vector<int> levels{3, 1};
    double idleSeconds = 5.0;
    int bodyBytes = 32;
    bool freeze = true;
    bool keep = false;
};

void Usage() {
    std::fprintf(stderr,
                 "usage: bench_ts [--comp PATH] [--seconds S] [--rounds N] [--warmup S] [--clients 1,16]\n"
                 "                [--levels 3,1] [--idle S] [--body BYTES] [--no-freeze] [--keep]\n");
}

bool ParseOptions(int argc, char** argv, Options* o) {
    for (bench::OptionReader r(argc, argv); r.Next();) {
        std::optional<double> d;
        std::optional<std::string> s;
        std::optional<std::vector<int>> list;
        if (r.Is("--comp") && (s = r.Value())) o->compPath = *s;
        else if (r.Is("--seconds") && (d = r.Number(0.1, 600))) o->seconds = *d;
        else if (r.Is("--rounds") && (d = r.Number(1, 100))) o->rounds = static_cast<int>(*d);
        else if (r.Is("--warmup") && (d = r.Number(0, 60))) o->warmup = *d;
        else if (r.Is("--idle") && (d = r.Number(0, 60))) o->idleSeconds = *d;
        else if (r.Is("--body") && (d = r.Number(4, 9000))) o->bodyBytes = static_cast<int>(*d);
        else if (r.Is("--clients") && (list = r.List())) o->clients = *list;
        else if (r.Is("--levels") && (list = r.List())) o->levels = *list;
        else if (r.Is("--no-freeze")) o->freeze = false;
        else if (r.Is("--keep")) o->keep = true;
        else return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Measurements
// ---------------------------------------------------------------------------
struct RunMetrics {
    double rate = 0, p50 = 0, p99 = 0;
    double relayCpuPerExch = 0, routerCpuPerExch = 0;
    double relayVolPerExch = 0, relayInvolPerExch = 0;   // context switches
    uint64_t exchanges = 0, failures = 0;
    std::string firstError;
};

struct Side {
    pid_t pid;
    int port;
};

// One timed run against one relay, with the other relay frozen.
RunMetrics MeasureRun(const Options& opt, int clients, const Side& side, const Side& other, pid_t router,
                      double seconds, const std::string& request) {
    if (opt.freeze) {
        kill(other.pid, SIGSTOP);
        kill(side.pid, SIGCONT);
    }
    bench::CpuMeter relayCpu(side.pid), routerCpu(router);
    relayCpu.start();
    routerCpu.start();
    bench::LoadOptions lo;
    lo.port = side.port;
    lo.clients = clients;
    lo.seconds = seconds;
    lo.request = request;
    bench::LoadResult r = bench::RunLoad(lo, &g_stop);
    RunMetrics m;
    const double relayUs = relayCpu.elapsedMicros(), routerUs = routerCpu.elapsedMicros();
    const bench::CtxSwitches cs = relayCpu.elapsedSwitches();
    m.exchanges = r.exchanges;
    m.failures = r.failures;
    m.firstError = r.firstError;
    m.rate = r.rate();
    m.p50 = bench::Quantile(r.latencyUs, 0.50);
    m.p99 = bench::Quantile(r.latencyUs, 0.99);
    if (r.exchanges > 0) {
        m.relayCpuPerExch = relayUs / static_cast<double>(r.exchanges);
        m.routerCpuPerExch = routerUs / static_cast<double>(r.exchanges);
        m.relayVolPerExch = static_cast<double>(cs.voluntary) / static_cast<double>(r.exchanges);
        m.relayInvolPerExch = static_cast<double>(cs.involuntary) / static_cast<double>(r.exchanges);
    }
    if (opt.freeze) kill(other.pid, SIGCONT);
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

// Median over rounds of the round's own A/B ratio.
double PairedRatio(const Series& s, double RunMetrics::*field) {
    std::vector<double> v;
    for (size_t i = 0; i < s.a.size() && i < s.b.size(); ++i)
        if (s.b[i].*field > 0) v.push_back(s.a[i].*field / s.b[i].*field);
    return bench::Median(v);
}

void PrintRunLine(int level, int clients, const std::string& label, const RunMetrics& a, const RunMetrics& b) {
    std::printf("  L%d %2d client%s %-8s  comp %7.0f/s p50 %5.0f p99 %6.0f us  | baseline %7.0f/s p50 %5.0f p99 %6.0f us\n",
                level, clients, clients == 1 ? " " : "s", label.c_str(), a.rate, a.p50, a.p99, b.rate, b.p50, b.p99);
    for (const RunMetrics* m : {&a, &b})
        if (m->failures > 0)
            std::printf("      %s: %llu failed exchanges, first: %s\n", m == &a ? "comp" : "baseline",
                        static_cast<unsigned long long>(m->failures), m->firstError.c_str());
}

using ResultKey = std::pair<int, int>;   // LOG_LEVEL, clients
struct Results {
    std::vector<ResultKey> order;          // as run
    std::map<ResultKey, Series> series;
    Series& at(ResultKey k) {
        if (!series.count(k)) order.push_back(k);
        return series[k];
    }
    // The configurations with at least one complete round.
    std::vector<ResultKey> done() const {
        std::vector<ResultKey> out;
        for (const ResultKey& k : order)
            if (!series.at(k).a.empty()) out.push_back(k);
        return out;
    }
};

void PrintTable(const Options& opt, const Results& results) {
    std::printf("\nResults: medians over the rounds run (%d planned, %.1f s each); comp/base = median of the rounds' own ratios\n",
                opt.rounds, opt.seconds);
    std::printf("CPU and context switches (voluntary/involuntary) are per exchange, from /proc/<pid>/stat and status\n");
    std::printf("%-5s %-7s %-10s %9s %8s %8s %10s %10s %13s %8s\n", "level", "clients", "relay", "exch/s", "p50 us",
                "p99 us", "relay CPU", "router CPU", "relay cs v/i", "failed");
    for (const ResultKey& key : results.done()) {
        const Series& s = results.series.at(key);
        for (int side = 0; side < 2; ++side) {
            const std::vector<RunMetrics>& runs = side == 0 ? s.a : s.b;
            uint64_t failures = 0;
            for (const RunMetrics& r : runs) failures += r.failures;
            std::printf("%-5d %-7d %-10s %9.0f %8.0f %8.0f %8.1fus %8.1fus %6.2f/%-6.2f %8llu\n", key.first,
                        key.second, side == 0 ? "comp" : "baseline", MedianOf(runs, &RunMetrics::rate),
                        MedianOf(runs, &RunMetrics::p50), MedianOf(runs, &RunMetrics::p99),
                        MedianOf(runs, &RunMetrics::relayCpuPerExch), MedianOf(runs, &RunMetrics::routerCpuPerExch),
                        MedianOf(runs, &RunMetrics::relayVolPerExch), MedianOf(runs, &RunMetrics::relayInvolPerExch),
                        static_cast<unsigned long long>(failures));
        }
        std::printf("%-5d %-7d %-10s %9.2f %8.2f %8.2f %10.2f\n", key.first, key.second, "comp/base",
                    PairedRatio(s, &RunMetrics::rate), PairedRatio(s, &RunMetrics::p50),
                    PairedRatio(s, &RunMetrics::p99), PairedRatio(s, &RunMetrics::relayCpuPerExch));
    }
}

void PrintVerdicts(const Results& results) {
    std::printf("\nVerdicts (targets at LOG_LEVEL %d: throughput >= %.2f of baseline, p50 <= %.2fx baseline)\n",
                kTargetLevel, kTargetThroughput, kTargetP50);
    for (const ResultKey& key : results.done()) {
        const Series& s = results.series.at(key);
        const double tput = PairedRatio(s, &RunMetrics::rate), p50 = PairedRatio(s, &RunMetrics::p50);
        const bool target = key.first == kTargetLevel;
        auto mark = [&](bool ok) { return !target ? "(reported)" : ok ? "PASS" : "MISS"; };
        std::printf("  LOG_LEVEL %d, %2d client%s: throughput %.2f of baseline %-10s  p50 %.2fx baseline %s\n",
                    key.first, key.second, key.second == 1 ? " " : "s", tput, mark(tput >= kTargetThroughput), p50,
                    mark(p50 <= kTargetP50));
    }
}

// CPU of the idle instances, in percent of one core.
void MeasureIdle(const Options& opt, Children& kids, const BenchPlatform& plat, pid_t ts) {
    const std::string runDir = plat.runDir();
    const std::string tcRoute = std::to_string(plat.routes().tcRoute);
    std::string why;
    pid_t tc = kids.Start("comp TC", {opt.compPath, "SysTCPTC", tcRoute, "1", "0", "TC" + tcRoute + "_1"},
                          runDir + "/log/comp_tc.out", &why);
    if (tc <= 0 || !bench::WaitReady(kids, tc, FifoPath(runDir, "2_" + tcRoute + "_1"), &g_stop, &why)) {
        std::printf("\nIdle CPU: the TC instance did not start: %s\n%s", why.c_str(),
                    Tail(runDir + "/log/comp_tc.out").c_str());
        if (tc > 0) kids.Stop(tc);
        return;
    }
    kill(ts, SIGCONT);
    bench::CpuMeter tsCpu(ts), tcCpu(tc);
    tsCpu.start();
    tcCpu.start();
    const int64_t t0 = kit::NowMs();
    while (!g_stop && kit::NowMs() - t0 < static_cast<int64_t>(opt.idleSeconds * 1000)) kit::SleepMs(50);
    const double wallUs = static_cast<double>(kit::NowMs() - t0) * 1000.0;
    const double tsPct = 100.0 * tsCpu.elapsedMicros() / wallUs, tcPct = 100.0 * tcCpu.elapsedMicros() / wallUs;
    kids.Stop(tc, FifoPath(runDir, "3_" + std::to_string(tc) + "_1"));
    std::printf("\nIdle CPU over %.1f s (percent of one core): TS instance %.1f%%, TC instance %.1f%%\n",
                wallUs / 1e6, tsPct, tcPct);
}

int RunBench(const Options& opt) {
    const std::vector<std::string> limits = kit::EnsureQueueLimits();
    for (const std::string& l : limits) std::fprintf(stderr, "bench_ts: %s\n", l.c_str());
    if (!limits.empty()) return 1;
    BenchPlatform plat;
    std::string why;
    if (!plat.Create(opt.levels.front(), &why)) {
        std::fprintf(stderr, "bench_ts: platform: %s\n", why.c_str());
        return 1;
    }
    if (opt.keep) plat.KeepDirectory();
    const std::string runDir = plat.runDir();
    const bench::BenchRoutes& routes = plat.routes();
    const std::string self = kit::SelfExe();
    Children kids;
    const int64_t benchStart = kit::NowMs();

    pid_t router = kids.Start("router", {self, "--role", "router", runDir}, runDir + "/log/router.out", &why);
    pid_t base = kids.Start("baseline",
                            {self, "--role", "baseline", runDir, std::to_string(routes.baseRoute),
                             std::to_string(routes.basePort)},
                            runDir + "/log/baseline.out", &why);
    if (router <= 0 || base <= 0 ||
        !bench::WaitReady(kids, base, FifoPath(runDir, "1_" + std::to_string(base)), &g_stop, &why)) {
        std::fprintf(stderr, "bench_ts: router or baseline relay: %s\n%s", why.c_str(),
                     Tail(runDir + "/log/baseline.out").c_str());
        return 1;
    }
    std::string body(static_cast<size_t>(opt.bodyBytes), 'x');
    std::memcpy(body.data(), "0602", 4);
    const std::string request = bench::FrameRequest(body, 4);
    std::printf("bench_ts: comp %s\n  platform %s (keys 0x%08x..), TS route %d on 127.0.0.1:%d, baseline route %d "
                "on 127.0.0.1:%d\n  requests of %zu bytes, %d rounds x %.1f s after %.1f s warm-up, other relay %s\n",
                opt.compPath.c_str(), runDir.c_str(), static_cast<unsigned>(plat.keyBase()), routes.tsRoute,
                routes.tsPort, routes.baseRoute, routes.basePort, request.size(), opt.rounds, opt.seconds, opt.warmup,
                opt.freeze ? "frozen (SIGSTOP) during each run" : "left running");
    std::printf("  load average at the start: %s\n", LoadAverage().c_str());

    Results results;
    bool idleDone = false;
    int status = 0;
    for (int level : opt.levels) {
        if (g_stop) break;
        if (!plat.SetLogLevel(level, &why)) {
            std::fprintf(stderr, "bench_ts: %s\n", why.c_str());
            return 1;
        }
        const std::string tsRoute = std::to_string(routes.tsRoute);
        const std::string out = runDir + "/log/comp_ts_L" + std::to_string(level) + ".out";
        pid_t comp = kids.Start("comp TS", {opt.compPath, "SysTCPTS", tsRoute, "1", "0", "TS" + tsRoute + "_1"}, out,
                                &why);
        if (comp <= 0 || !bench::WaitReady(kids, comp, FifoPath(runDir, "1_" + std::to_string(comp)), &g_stop, &why)) {
            std::fprintf(stderr, "bench_ts: comp SysTCPTS: %s\n%s", why.c_str(), Tail(out).c_str());
            return 1;
        }
        const Side a{comp, routes.tsPort}, b{base, routes.basePort};
        std::printf("\nLOG_LEVEL %d: comp pid %d\n", level, static_cast<int>(comp));
        for (int clients : opt.clients) {
            if (g_stop) break;
            auto run = [&](const Side& side, const Side& other, double seconds) {
                RunMetrics m = MeasureRun(opt, clients, side, other, router, seconds, request);
                plat.TrimLogs();
                return m;
            };
            if (opt.warmup > 0 && !g_stop) {
                RunMetrics wa = run(a, b, opt.warmup), wb = run(b, a, opt.warmup);
                PrintRunLine(level, clients, "warm-up", wa, wb);
            }
            Series& s = results.at({level, clients});
            for (int r = 0; r < opt.rounds && !g_stop; ++r) {
                RunMetrics ma, mb;
                if (r % 2 == 0) {
                    ma = run(a, b, opt.seconds);
                    mb = run(b, a, opt.seconds);
                } else {
                    mb = run(b, a, opt.seconds);
                    ma = run(a, b, opt.seconds);
                }
                if (g_stop) break;
                s.a.push_back(ma);
                s.b.push_back(mb);
                PrintRunLine(level, clients, "round " + std::to_string(r + 1), ma, mb);
            }
        }
        if (!idleDone && !g_stop && opt.idleSeconds > 0) {
            MeasureIdle(opt, kids, plat, comp);
            idleDone = true;
        }
        if (!kids.Alive(comp)) {
            std::fprintf(stderr, "bench_ts: comp ended during the runs\n%s", Tail(out).c_str());
            status = 1;
        }
        kids.Stop(comp, FifoPath(runDir, "3_" + std::to_string(comp) + "_1"));
    }
    kids.Stop(base);
    kids.Stop(router);
    std::fputs(Tail(runDir + "/log/router.out").c_str(), stdout);
    std::fputs(Tail(runDir + "/log/baseline.out").c_str(), stdout);
    if (g_stop) {
        std::printf("bench_ts: interrupted; partial results\n");
        status = 130;
    }
    if (!results.done().empty()) {
        PrintTable(opt, results);
        PrintVerdicts(results);
    }
    std::printf("\nbench_ts: %.0f s in all; load average at the end: %s\n",
                static_cast<double>(kit::NowMs() - benchStart) / 1000.0, LoadAverage().c_str());
    if (opt.keep) std::printf("bench_ts: logs kept in %s\n", runDir.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (int rc = bench::RunRoleFromArgs(argc, argv, false); rc >= 0) return rc;
    setvbuf(stdout, nullptr, _IOLBF, 0);   // progress lines show at once when piped
    Options opt;
    if (!ParseOptions(argc, argv, &opt)) {
        Usage();
        return 2;
    }
    if (!bench::ResolveCompPath("bench_ts", &opt.compPath)) return 1;
    bench::InstallStopHandler(OnBenchStop);
    return RunBench(opt);
}
