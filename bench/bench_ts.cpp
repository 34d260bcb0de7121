// bench_ts: exchanges per second, latency and CPU per exchange of comp's
// short-connection server mode, once in each wait style (fixed and
// deadline), against a minimal baseline relay on the same private platform,
// with the same stand-in router echoing for all three.
//
//   bench_ts [--comp PATH] [--seconds S] [--rounds N] [--warmup S]
//            [--clients 1,16] [--levels 3,1] [--idle S] [--body BYTES]
//            [--syscalls] [--profile] [--no-freeze] [--keep]
//
// Every round runs the three relays one after the other, so that all see the
// same machine; only the ratios of one run mean anything on a shared 2-core
// host.
// The roles `--role router RUNDIR` and `--role baseline RUNDIR ROUTE PORT` are
// the helper processes this program starts for itself.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
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

constexpr int kPerfGraceMs = 10000;

// perf by the PATH (children are started with execv); empty when missing.
std::string PerfPath() {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    for (size_t pos = 0; pos <= dirs.size();) {
        size_t colon = dirs.find(':', pos);
        std::string dir = dirs.substr(pos, colon == std::string::npos ? std::string::npos : colon - pos);
        if (!dir.empty() && access((dir + "/perf").c_str(), X_OK) == 0) return dir + "/perf";
        if (colon == std::string::npos) break;
        pos = colon + 1;
    }
    return "";
}

struct Options {
    std::string compPath;
    double seconds = 3.0;
    int rounds = 5;
    double warmup = 1.0;
    std::vector<int> clients{1, 16};
    std::vector<int> levels{3, 1};
    double idleSeconds = 5.0;
    int bodyBytes = 32;
    bool syscalls = false;
    bool profile = false;
    bool freeze = true;
    bool keep = false;
};

void Usage() {
    std::fprintf(stderr,
                 "usage: bench_ts [--comp PATH] [--seconds S] [--rounds N] [--warmup S] [--clients 1,16]\n"
                 "                [--levels 3,1] [--idle S] [--body BYTES] [--syscalls] [--profile]\n"
                 "                [--no-freeze] [--keep]\n");
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
        else if (r.Is("--syscalls")) o->syscalls = true;
        else if (r.Is("--profile")) o->profile = true;
        else if (r.Is("--no-freeze")) o->freeze = false;
        else if (r.Is("--keep")) o->keep = true;
        else return false;
    }
    return true;
}

// ---------------------------------------------------------------------------
// Measurements
// ---------------------------------------------------------------------------

// The three relays of every round, in the order of the tables.
enum RelayIdx { kCompFixed = 0, kCompDeadline = 1, kBaseline = 2 };
constexpr int kRelayCount = 3;
constexpr const char* kRelayName[kRelayCount] = {"comp fixed", "comp deadline", "baseline"};
constexpr const char* kRatioName[kBaseline] = {"fixed/base", "deadline/base"};
constexpr const char* kRelayTag[kRelayCount] = {"fixed", "deadline", "baseline"};

struct RunMetrics {
    double rate = 0, p50 = 0, p99 = 0;
    double relayCpuPerExch = 0, routerCpuPerExch = 0;
    double relayVolPerExch = 0, relayInvolPerExch = 0;   // context switches
    uint64_t exchanges = 0, failures = 0;
    std::string firstError;
};

struct Side {
    pid_t pid = -1;
    int port = 0;
};
using Sides = std::array<Side, kRelayCount>;

// Only the measured relay runs; the others are stopped (SIGSTOP), because a
// comp in the fixed wait takes a tenth of a core even when idle.
void Freeze(const Options& opt, const Sides& sides, int measured) {
    if (!opt.freeze) return;
    for (int i = 0; i < kRelayCount; ++i)
        if (i != measured) kill(sides[i].pid, SIGSTOP);
    kill(sides[measured].pid, SIGCONT);
}

void Thaw(const Options& opt, const Sides& sides) {
    if (!opt.freeze) return;
    for (const Side& s : sides) kill(s.pid, SIGCONT);
}

bench::LoadResult Load(int clients, int port, double seconds, const std::string& request) {
    bench::LoadOptions lo;
    lo.port = port;
    lo.clients = clients;
    lo.seconds = seconds;
    lo.request = request;
    return bench::RunLoad(lo, &g_stop);
}

// One timed run against one relay.
RunMetrics MeasureRun(const Options& opt, int clients, const Sides& sides, int measured, pid_t router,
                      double seconds, const std::string& request) {
    Freeze(opt, sides, measured);
    bench::CpuMeter relayCpu(sides[measured].pid), routerCpu(router);
    relayCpu.start();
    routerCpu.start();
    bench::LoadResult r = Load(clients, sides[measured].port, seconds, request);
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
        const double n = static_cast<double>(r.exchanges);
        m.relayCpuPerExch = relayUs / n;
        m.routerCpuPerExch = routerUs / n;
        m.relayVolPerExch = static_cast<double>(cs.voluntary) / n;
        m.relayInvolPerExch = static_cast<double>(cs.involuntary) / n;
    }
    Thaw(opt, sides);
    return m;
}

// One extra, unmeasured run of a relay with a perf tool attached to it
// (tracing and sampling slow the relay down). perf is given time to attach
// before the load starts and is stopped with SIGINT afterwards, when it
// writes its output. The exchanges of the run, or nothing when perf could not
// be started.
std::optional<uint64_t> PerfRun(const Options& opt, Children& kids, int clients, const Sides& sides, int measured,
                                const std::string& runDir, const std::string& request,
                                const std::vector<std::string>& perfArgs) {
    constexpr int kAttachMs = 1500;
    static const std::string perfPath = PerfPath();
    if (perfPath.empty()) return std::nullopt;
    std::vector<std::string> argv{perfPath};
    argv.insert(argv.end(), perfArgs.begin(), perfArgs.end());
    argv.insert(argv.end(), {"-p", std::to_string(sides[measured].pid)});
    std::string why;
    Freeze(opt, sides, measured);
    pid_t perf = kids.Start("perf", argv, runDir + "/log/perf.out", &why);
    std::optional<uint64_t> exchanges;
    if (perf > 0) {
        // The relay is stopped outside the load, so that what perf sees is
        // the load's work only (a relay in the fixed wait works when idle).
        const pid_t relay = sides[measured].pid;
        kill(relay, SIGSTOP);
        kit::SleepMs(kAttachMs);
        kill(relay, SIGCONT);
        exchanges = Load(clients, sides[measured].port, opt.seconds, request).exchanges;
        kill(relay, SIGSTOP);
        kill(perf, SIGINT);
        int status = 0;
        if (kit::WaitChild(perf, kPerfGraceMs, &status))
            kids.Forget(perf);
        else
            kids.Stop(perf);
        kill(relay, SIGCONT);
    }
    Thaw(opt, sides);
    return exchanges;
}

// System calls per exchange of one relay, counted by `perf trace -s` and
// divided by the successful accepts, which are the exchanges the relay served
// while it was traced. Empty when perf cannot trace here.
std::map<std::string, double> CountSyscalls(const Options& opt, Children& kids, int clients, const Sides& sides,
                                            int measured, const std::string& runDir, const std::string& request) {
    const std::string out = runDir + "/log/perf_trace_" + std::to_string(sides[measured].pid) + ".txt";
    std::map<std::string, double> perExch;
    if (!PerfRun(opt, kids, clients, sides, measured, runDir, request, {"trace", "-s", "-o", out})) return perExch;
    auto tally = bench::ParsePerfTraceSummary(kit::ReadWholeFile(out).value_or(""));
    uint64_t accepted = 0;
    for (const char* name : {"accept", "accept4"})
        if (tally.count(name)) accepted += tally[name].calls - tally[name].errors;
    for (const auto& [name, t] : tally)
        if (accepted > 0) perExch[name] = static_cast<double>(t.calls) / static_cast<double>(accepted);
    return perExch;
}

// A CPU profile of one relay (`perf record -g`, sampling the cpu-clock,
// which needs no hardware counters), kept in the run directory. Listed are
// its user-space functions with the time spent in them and below them: a
// system call's wrapper in libc thus carries the kernel's work for that call
// (kernel time by itself lands mostly on a hypervisor's interrupt-enable
// path, which says nothing about its cause). Entries that spend nothing in
// themselves are left out: the relays are built without frame pointers, so
// their callers above libc are not known reliably. Each share is also given
// in microseconds per exchange, so that profiles of different relays and
// builds compare directly.
std::string Profile(const Options& opt, Children& kids, int clients, const Sides& sides, int measured,
                    const std::string& runDir, const std::string& request, const std::string& tag) {
    constexpr int kTopLines = 18;
    const std::string data = runDir + "/log/perf_" + tag + ".data";
    const std::optional<uint64_t> exchanges = PerfRun(opt, kids, clients, sides, measured, runDir, request,
                                                      {"record", "-q", "-e", "cpu-clock", "-g", "-o", data});
    if (!exchanges || *exchanges == 0) return "";
    const std::string text = runDir + "/log/perf_" + tag + ".txt";
    std::string why;
    pid_t report = kids.Start("perf report",
                              {PerfPath(), "report", "-i", data, "--stdio", "--children", "--sort", "dso,sym", "-g",
                               "none", "--percent-limit", "0.3"},
                              text, &why);
    int status = 0;
    if (report <= 0 || !kit::WaitChild(report, kPerfGraceMs * 4, &status)) {
        if (report > 0) kids.Stop(report);
        return "";
    }
    kids.Forget(report);
    const std::string all = kit::ReadWholeFile(text).value_or("");
    // The sampled CPU time in nanoseconds: "# Event count (approx.): N".
    double totalNs = 0;
    const size_t at = all.find("Event count (approx.):");
    if (at != std::string::npos) totalNs = std::strtod(all.c_str() + at + 22, nullptr);
    const double usPerPct = totalNs / 1000.0 / 100.0 / static_cast<double>(*exchanges);
    std::string top = "    with-callees  self     us/exch  object  function\n";
    int lines = 0;
    for (size_t pos = 0; pos < all.size() && lines < kTopLines;) {
        size_t eol = all.find('\n', pos);
        std::string line = all.substr(pos, eol == std::string::npos ? std::string::npos : eol - pos);
        pos = eol == std::string::npos ? all.size() : eol + 1;
        double children = 0, self = 0;
        int used = 0;
        if (line.empty() || line[0] == '#' || line.find("[.]") == std::string::npos ||
            std::sscanf(line.c_str(), " %lf%% %lf%%%n", &children, &self, &used) != 2 || self <= 0)
            continue;
        char head[64];
        std::snprintf(head, sizeof head, "    %8.2f%% %7.2f%% %8.2f", children, self, children * usPerPct);
        top += head + line.substr(static_cast<size_t>(used)) + "\n";
        ++lines;
    }
    return top;
}

using ResultKey = std::pair<int, int>;   // LOG_LEVEL, clients
struct Series {
    std::array<std::vector<RunMetrics>, kRelayCount> runs;   // one per round
    std::array<std::map<std::string, double>, kRelayCount> syscalls;
    std::array<std::string, kRelayCount> profile;   // top entries
};

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
            if (!series.at(k).runs[kBaseline].empty()) out.push_back(k);
        return out;
    }
};

double MedianOf(const std::vector<RunMetrics>& runs, double RunMetrics::*field) {
    std::vector<double> v;
    for (const RunMetrics& r : runs) v.push_back(r.*field);
    return bench::Median(v);
}

// The median of the rounds' own ratios of a comp relay to the baseline, with
// the lowest and highest of them.
struct Spread {
    double median = 0, lo = 0, hi = 0;
};
Spread PairedRatio(const Series& s, int relay, double RunMetrics::*field) {
    std::vector<double> v;
    const auto& a = s.runs[relay];
    const auto& b = s.runs[kBaseline];
    for (size_t i = 0; i < a.size() && i < b.size(); ++i)
        if (b[i].*field > 0) v.push_back(a[i].*field / b[i].*field);
    if (v.empty()) return {};
    auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    return Spread{bench::Median(v), *lo, *hi};
}

std::string Show(const Spread& r) {
    char text[48];
    std::snprintf(text, sizeof text, "%.2f [%.2f-%.2f]", r.median, r.lo, r.hi);
    return text;
}

void PrintRoundLine(int level, int clients, const std::string& label, const std::array<RunMetrics, kRelayCount>& m) {
    std::printf("  L%d %2d client%s %-8s", level, clients, clients == 1 ? " " : "s", label.c_str());
    for (int i = 0; i < kRelayCount; ++i)
        std::printf(" | %s %6.0f/s p50 %5.0f us", i == kBaseline ? "base" : i == kCompFixed ? "fixed" : "deadl",
                    m[i].rate, m[i].p50);
    std::printf("\n");
    for (int i = 0; i < kRelayCount; ++i)
        if (m[i].failures > 0)
            std::printf("      %s: %llu failed exchanges, first: %s\n", kRelayName[i],
                        static_cast<unsigned long long>(m[i].failures), m[i].firstError.c_str());
}

void PrintTable(const Options& opt, const Results& results) {
    std::printf("\nResults: medians over the rounds run (%d planned, %.1f s each)\n", opt.rounds, opt.seconds);
    std::printf("CPU and context switches (voluntary/involuntary) are per exchange; CPU from the threads' schedstat\n");
    std::printf("%-5s %-7s %-14s %9s %8s %8s %10s %10s %13s %8s\n", "level", "clients", "relay", "exch/s", "p50 us",
                "p99 us", "relay CPU", "router CPU", "relay cs v/i", "failed");
    for (const ResultKey& key : results.done()) {
        const Series& s = results.series.at(key);
        for (int i = 0; i < kRelayCount; ++i) {
            const std::vector<RunMetrics>& runs = s.runs[i];
            uint64_t failures = 0;
            for (const RunMetrics& r : runs) failures += r.failures;
            std::printf("%-5d %-7d %-14s %9.0f %8.0f %8.0f %8.1fus %8.1fus %6.2f/%-6.2f %8llu\n", key.first,
                        key.second, kRelayName[i], MedianOf(runs, &RunMetrics::rate), MedianOf(runs, &RunMetrics::p50),
                        MedianOf(runs, &RunMetrics::p99), MedianOf(runs, &RunMetrics::relayCpuPerExch),
                        MedianOf(runs, &RunMetrics::routerCpuPerExch), MedianOf(runs, &RunMetrics::relayVolPerExch),
                        MedianOf(runs, &RunMetrics::relayInvolPerExch), static_cast<unsigned long long>(failures));
        }
    }
    std::printf("\nRatios to the baseline: median of the rounds' own ratios [lowest-highest]\n");
    std::printf("%-5s %-7s %-14s %-18s %-18s %-18s %-18s %-18s\n", "level", "clients", "relay", "exch/s", "p50",
                "p99", "relay CPU/exch", "router CPU/exch");
    for (const ResultKey& key : results.done()) {
        const Series& s = results.series.at(key);
        for (int i = kCompFixed; i < kBaseline; ++i)
            std::printf("%-5d %-7d %-14s %-18s %-18s %-18s %-18s %-18s\n", key.first, key.second, kRatioName[i],
                        Show(PairedRatio(s, i, &RunMetrics::rate)).c_str(),
                        Show(PairedRatio(s, i, &RunMetrics::p50)).c_str(),
                        Show(PairedRatio(s, i, &RunMetrics::p99)).c_str(),
                        Show(PairedRatio(s, i, &RunMetrics::relayCpuPerExch)).c_str(),
                        Show(PairedRatio(s, i, &RunMetrics::routerCpuPerExch)).c_str());
    }
}

// Per exchange, the calls any relay makes at least once every ten exchanges.
void PrintSyscalls(const Results& results) {
    constexpr double kShown = 0.1;
    for (const ResultKey& key : results.done()) {
        const Series& s = results.series.at(key);
        if (s.syscalls[kBaseline].empty() && s.syscalls[kCompFixed].empty()) continue;
        std::printf("\nSystem calls per exchange, LOG_LEVEL %d, %d client%s (perf trace -s, calls / successful "
                    "accepts)\n%-16s %12s %14s %10s\n",
                    key.first, key.second, key.second == 1 ? "" : "s", "call", "comp fixed", "comp deadline",
                    "baseline");
        std::map<std::string, int> names;
        for (const auto& tally : s.syscalls)
            for (const auto& [name, n] : tally)
                if (n >= kShown) names[name] = 1;
        constexpr int kWidth[kRelayCount] = {12, 14, 10};   // under the column names
        std::array<double, kRelayCount> total{};
        for (const auto& entry : names) {
            std::printf("%-16s", entry.first.c_str());
            for (int i = 0; i < kRelayCount; ++i) {
                auto it = s.syscalls[i].find(entry.first);
                std::printf(" %*.2f", kWidth[i], it == s.syscalls[i].end() ? 0.0 : it->second);
            }
            std::printf("\n");
        }
        for (int i = 0; i < kRelayCount; ++i)
            for (const auto& [name, n] : s.syscalls[i]) total[i] += n;
        std::printf("%-16s", "total");
        for (int i = 0; i < kRelayCount; ++i) std::printf(" %*.2f", kWidth[i], total[i]);
        std::printf("\n");
    }
}

void PrintProfiles(const Results& results) {
    for (const ResultKey& key : results.done()) {
        const Series& s = results.series.at(key);
        for (int i = 0; i < kRelayCount; ++i)
            if (!s.profile[i].empty())
                std::printf("\nProfile of %s, LOG_LEVEL %d, %d client%s (perf record -e cpu-clock -g; user-space "
                            "functions with the kernel work below them)\n%s",
                            kRelayName[i], key.first, key.second, key.second == 1 ? "" : "s", s.profile[i].c_str());
    }
}

// The targets of the short-connection server path at LOG_LEVEL 3, as ratios
// to the baseline of the same rounds.
constexpr int kTargetLevel = 3;
constexpr double kDeadlineThroughput = 0.90;
constexpr double kDeadlineCpu = 1.15;
constexpr double kFixedThroughput16 = 0.85;
constexpr double kIdleCpuPct = 0.1;

const char* Mark(bool ok) { return ok ? "PASS" : "MISS"; }

void PrintVerdicts(const Results& results) {
    std::printf("\nTargets at LOG_LEVEL %d (ratio to the baseline: median [range] over the rounds)\n", kTargetLevel);
    for (const ResultKey& key : results.done()) {
        if (key.first != kTargetLevel) continue;
        const Series& s = results.series.at(key);
        const int c = key.second;
        const char* plural = c == 1 ? " " : "s";
        Spread tput = PairedRatio(s, kCompDeadline, &RunMetrics::rate);
        Spread cpu = PairedRatio(s, kCompDeadline, &RunMetrics::relayCpuPerExch);
        std::printf("  deadline, %2d client%s: throughput %s >= %.2f %s   CPU/exchange %s <= %.2f %s\n", c, plural,
                    Show(tput).c_str(), kDeadlineThroughput, Mark(tput.median >= kDeadlineThroughput),
                    Show(cpu).c_str(), kDeadlineCpu, Mark(cpu.median <= kDeadlineCpu));
        tput = PairedRatio(s, kCompFixed, &RunMetrics::rate);
        cpu = PairedRatio(s, kCompFixed, &RunMetrics::relayCpuPerExch);
        if (c >= 16)
            std::printf("  fixed,    %2d client%s: throughput %s >= %.2f %s   CPU/exchange %s (reported)\n", c, plural,
                        Show(tput).c_str(), kFixedThroughput16, Mark(tput.median >= kFixedThroughput16),
                        Show(cpu).c_str());
        else
            std::printf("  fixed,    %2d client%s: throughput %s (reported)      CPU/exchange %s (reported)\n", c,
                        plural, Show(tput).c_str(), Show(cpu).c_str());
    }
}

// The idle instances: the two TS instances that served the runs and a TC
// instance in each wait style, started for this.
struct IdleInstance {
    std::string name;
    pid_t pid;
    bool deadline;
};

// Whether a process holds a pidfd: the deadline wait watches its parent
// through one, so this tells that COMP_WAIT was read as meant.
bool HoldsPidfd(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return false;
    bool found = false;
    char link[256];
    while (dirent* e = readdir(d)) {
        ssize_t n = readlink((dir + "/" + e->d_name).c_str(), link, sizeof link - 1);
        if (n > 0 && std::string_view(link, static_cast<size_t>(n)).find("pidfd") != std::string_view::npos)
            found = true;
    }
    closedir(d);
    return found;
}

// Starts a comp in one wait style: app.cfg names the style while it starts
// (comp reads app.cfg once) and is written back to the fixed style after.
pid_t StartComp(Children& kids, BenchPlatform& plat, const Options& opt, int level, bool deadline,
                const std::vector<std::string>& args, const std::function<std::string(pid_t)>& readyFifo,
                const std::string& out, std::string* why) {
    if (!plat.SetLogLevel(level, why, deadline)) return -1;
    std::vector<std::string> argv{opt.compPath};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_t pid = kids.Start(args[0], argv, out, why);
    const bool ready = pid > 0 && bench::WaitReady(kids, pid, FifoPath(plat.runDir(), readyFifo(pid)), &g_stop, why);
    if (!plat.SetLogLevel(level, why) || !ready) {
        if (pid > 0) kids.Stop(pid);
        if (why->empty()) *why = "app.cfg cannot be written";
        return -1;
    }
    if (HoldsPidfd(pid) != deadline)
        std::printf("bench_ts: warning: comp pid %d, started in the %s wait, %s\n", static_cast<int>(pid),
                    deadline ? "deadline" : "fixed",
                    deadline ? "watches no parent pidfd (it looks at its parent once a second)"
                             : "watches a parent pidfd");
    return pid;
}

void MeasureIdle(const Options& opt, Children& kids, BenchPlatform& plat, int level, const Sides& sides) {
    const std::string runDir = plat.runDir();
    const std::string tcRoute = std::to_string(plat.routes().tcRoute);
    std::vector<IdleInstance> idle{{"TS fixed", sides[kCompFixed].pid, false},
                                   {"TS deadline", sides[kCompDeadline].pid, true}};
    std::vector<std::pair<pid_t, std::string>> started;   // TC instances and their control FIFOs
    for (int instance : {1, 2}) {
        const bool deadline = instance == 2;
        std::string why;
        const std::string inst = std::to_string(instance);
        pid_t tc = StartComp(kids, plat, opt, level, deadline,
                             {"SysTCPTC", tcRoute, inst, "0", "TC" + tcRoute + "_" + inst},
                             [&](pid_t) { return "2_" + tcRoute + "_" + inst; }, runDir + "/log/comp_tc" + inst + ".out",
                             &why);
        if (tc <= 0) {
            std::printf("\nIdle CPU: the TC instance (%s wait) did not start: %s\n%s", deadline ? "deadline" : "fixed",
                        why.c_str(), Tail(runDir + "/log/comp_tc" + inst + ".out").c_str());
            continue;
        }
        idle.push_back({deadline ? "TC deadline" : "TC fixed", tc, deadline});
        started.emplace_back(tc, FifoPath(runDir, "3_" + std::to_string(tc) + "_" + inst));
    }
    for (const Side& s : sides) kill(s.pid, SIGCONT);
    std::vector<bench::CpuMeter> meters;
    for (const IdleInstance& i : idle) meters.emplace_back(i.pid);
    for (bench::CpuMeter& m : meters) m.start();
    const int64_t t0 = kit::NowMs();
    while (!g_stop && kit::NowMs() - t0 < static_cast<int64_t>(opt.idleSeconds * 1000)) kit::SleepMs(50);
    const double wallUs = static_cast<double>(kit::NowMs() - t0) * 1000.0;
    std::printf("\nIdle CPU over %.1f s, percent of one core (target in the deadline wait: < %.1f%%)\n", wallUs / 1e6,
                kIdleCpuPct);
    for (size_t k = 0; k < idle.size(); ++k) {
        const double pct = 100.0 * meters[k].elapsedMicros() / wallUs;
        std::printf("  %-12s %8.4f%%  %s\n", idle[k].name.c_str(), pct,
                    idle[k].deadline ? Mark(pct < kIdleCpuPct) : "(reported)");
    }
    for (const auto& [pid, fifo] : started) kids.Stop(pid, fifo);
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
    std::printf("bench_ts: comp %s\n  platform %s (keys 0x%08x..), TS routes %d (fixed wait) on 127.0.0.1:%d and %d "
                "(deadline wait) on 127.0.0.1:%d, baseline route %d on 127.0.0.1:%d\n  requests of %zu bytes, %d "
                "rounds x %.1f s after %.1f s warm-up, other relays %s\n",
                opt.compPath.c_str(), runDir.c_str(), static_cast<unsigned>(plat.keyBase()), routes.tsRoute,
                routes.tsPort, routes.tsDeadlineRoute, routes.tsDeadlinePort, routes.baseRoute, routes.basePort,
                request.size(), opt.rounds, opt.seconds, opt.warmup,
                opt.freeze ? "frozen (SIGSTOP) during each run" : "left running");
    const std::string loadAtStart = LoadAverage();
    std::printf("  load average at the start: %s\n", loadAtStart.c_str());

    Results results;
    bool idleDone = false;
    int status = 0;
    for (int level : opt.levels) {
        if (g_stop) break;
        Sides sides;
        sides[kBaseline] = Side{base, routes.basePort};
        const struct {
            int relay;
            int route;
            int port;
        } comps[] = {{kCompFixed, routes.tsRoute, routes.tsPort},
                     {kCompDeadline, routes.tsDeadlineRoute, routes.tsDeadlinePort}};
        std::string outs[kBaseline];
        for (const auto& c : comps) {
            const std::string route = std::to_string(c.route);
            const bool deadline = c.relay == kCompDeadline;
            outs[c.relay] = runDir + "/log/comp_ts" + route + "_L" + std::to_string(level) + ".out";
            pid_t pid = StartComp(kids, plat, opt, level, deadline, {"SysTCPTS", route, "1", "0", "TS" + route + "_1"},
                                  [](pid_t p) { return "1_" + std::to_string(p); }, outs[c.relay], &why);
            if (pid <= 0) {
                std::fprintf(stderr, "bench_ts: comp SysTCPTS (%s wait): %s\n%s", deadline ? "deadline" : "fixed",
                             why.c_str(), Tail(outs[c.relay]).c_str());
                return 1;
            }
            sides[c.relay] = Side{pid, c.port};
        }
        std::printf("\nLOG_LEVEL %d: comp pid %d (fixed wait), comp pid %d (deadline wait)\n", level,
                    static_cast<int>(sides[kCompFixed].pid), static_cast<int>(sides[kCompDeadline].pid));
        for (int clients : opt.clients) {
            if (g_stop) break;
            auto run = [&](int relay, double seconds) {
                RunMetrics m = MeasureRun(opt, clients, sides, relay, router, seconds, request);
                plat.TrimLogs();
                return m;
            };
            if (opt.warmup > 0 && !g_stop) {
                std::array<RunMetrics, kRelayCount> w;
                for (int i = 0; i < kRelayCount; ++i) w[i] = run(i, opt.warmup);
                PrintRoundLine(level, clients, "warm-up", w);
            }
            Series& s = results.at({level, clients});
            for (int r = 0; r < opt.rounds && !g_stop; ++r) {
                // Each relay goes first, second and last in turn, so that a
                // drift of the machine's load favours none of them.
                std::array<RunMetrics, kRelayCount> m;
                for (int k = 0; k < kRelayCount; ++k) {
                    const int relay = (r + k) % kRelayCount;
                    m[relay] = run(relay, opt.seconds);
                }
                if (g_stop) break;
                for (int i = 0; i < kRelayCount; ++i) s.runs[i].push_back(m[i]);
                PrintRoundLine(level, clients, "round " + std::to_string(r + 1), m);
            }
            if (opt.syscalls && !g_stop)
                for (int i = 0; i < kRelayCount; ++i)
                    s.syscalls[i] = CountSyscalls(opt, kids, clients, sides, i, runDir, request);
            if (opt.profile && !g_stop)
                for (int i = 0; i < kRelayCount; ++i)
                    s.profile[i] = Profile(opt, kids, clients, sides, i, runDir, request,
                                           std::string(kRelayTag[i]) + "_L" + std::to_string(level) + "_c" +
                                               std::to_string(clients));
        }
        if (!idleDone && !g_stop && opt.idleSeconds > 0) {
            MeasureIdle(opt, kids, plat, level, sides);
            idleDone = true;
        }
        for (const auto& c : comps) {
            const pid_t pid = sides[c.relay].pid;
            if (!kids.Alive(pid)) {
                std::fprintf(stderr, "bench_ts: %s ended during the runs\n%s", kRelayName[c.relay],
                             Tail(outs[c.relay]).c_str());
                status = 1;
            }
            kids.Stop(pid, FifoPath(runDir, "3_" + std::to_string(pid) + "_1"));
        }
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
        PrintSyscalls(results);
        PrintProfiles(results);
        PrintVerdicts(results);
    }
    std::printf("\nbench_ts: %.0f s in all; load average at the end: %s\n",
                static_cast<double>(kit::NowMs() - benchStart) / 1000.0, LoadAverage().c_str());
    // Other work on the machine takes turns with the relays, the router and
    // the clients, and a relay that waits for a wake-up loses most.
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    const double busiest = std::max(std::atof(loadAtStart.c_str()), std::atof(LoadAverage().c_str()));
    if (cores > 0 && busiest > static_cast<double>(cores))
        std::printf("bench_ts: the machine was busy (load average up to %.1f on %ld cores): exchange rates, latencies "
                    "and their ratios swing with the other work; the CPU and system calls per exchange hold better\n",
                    busiest, cores);
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
