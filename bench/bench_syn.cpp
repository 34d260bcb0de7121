// bench_syn: polls answered per second, latency and CPU per poll of comp's
// polled synchronous modes against minimal baseline peers on the same
// private platform, in both wait styles:
//
//   PCSYN   one link: the bench is the server and polls as fast as the
//           answers come (nothing queued: every answer is "no data");
//   PASSYN  N clients on the shared listener, each sending a data frame as
//           soon as the answer to its last one is in (every frame is
//           answered from the task queue and passed to the router).
//
//   bench_syn [--comp PATH] [--seconds S] [--rounds N] [--warmup S]
//             [--clients N] [--styles fixed,deadline] [--level L] [--only pcsyn|passyn] [--keep]
//
// Within a round comp and its baseline run one after the other (the order
// alternating), the one not measured frozen with SIGSTOP. Ratios are the
// median of the rounds' own comp/baseline ratios, with their range. PCSYN
// waits 25 seconds after its start before it connects (kept), once per style.
// The roles `--role router|pcsyn-baseline|passyn-baseline ...` are the
// helper processes this program starts for itself.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "BenchPlatform.h"
#include "BenchProcs.h"
#include "LoadGen.h"
#include "ProcStat.h"
#include "Relays.h"
#include "SynBaselines.h"
#include "kit/KitUtil.h"

namespace {

using SteadyClock = std::chrono::steady_clock;

volatile sig_atomic_t g_stop = 0;
extern "C" void OnBenchStop(int) { g_stop = 1; }

constexpr int kPcsynRoute = 50, kPassynRoute = 51, kPcsynBaseRoute = 52, kPassynBaseRoute = 53;
constexpr int kConnectWaitMs = 45000;   // PCSYN's 25-second start-up wait and then some
constexpr int kIoTimeoutMs = 3000;

struct Options {
    std::string compPath;
    double seconds = 2.0;
    int rounds = 3;
    double warmup = 0.5;
    int clients = 100;
    std::vector<std::string> styles{"fixed", "deadline"};
    int level = 3;
    std::string only;
    bool keep = false;
};

bool ParseOptions(int argc, char** argv, Options* o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
        auto num = [&](double lo, double hi, double* out) {
            char* end = nullptr;
            const double d = v ? std::strtod(v, &end) : 0;
            if (!v || end == v || *end != '\0' || d < lo || d > hi) return false;
            *out = d;
            ++i;
            return true;
        };
        double d = 0;
        if (a == "--comp" && v) o->compPath = argv[++i];
        else if (a == "--seconds" && num(0.1, 600, &d)) o->seconds = d;
        else if (a == "--rounds" && num(1, 100, &d)) o->rounds = static_cast<int>(d);
        else if (a == "--warmup" && num(0, 60, &d)) o->warmup = d;
        else if (a == "--clients" && num(1, 900, &d)) o->clients = static_cast<int>(d);
        else if (a == "--level" && num(1, 5, &d)) o->level = static_cast<int>(d);
        else if (a == "--only" && v && (std::string(v) == "pcsyn" || std::string(v) == "passyn")) o->only = argv[++i];
        else if (a == "--styles" && v) {
            o->styles.clear();
            std::string s = argv[++i];
            for (size_t p = 0; p <= s.size();) {
                size_t c = s.find(',', p);
                std::string w = s.substr(p, c == std::string::npos ? std::string::npos : c - p);
                if (w != "fixed" && w != "deadline") return false;
                o->styles.push_back(w);
                if (c == std::string::npos) break;
                p = c + 1;
            }
        } else if (a == "--keep") o->keep = true;
        else return false;
    }
    return true;
}

int ListenLoopback(int port, bool inheritable) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | (inheritable ? 0 : SOCK_CLOEXEC), 0);
    int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, 1024) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A connection to a loopback port, tried again while the listener comes up.
int Dial(int port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sa.sin_port = htons(static_cast<uint16_t>(port));
    for (int i = 0; i < 250; ++i, kit::SleepMs(20)) {
        kit::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        int on = 1;
        setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        if (connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) return fd.release();
    }
    return -1;
}

std::string Frame(int cmd, int serial, const std::string& data = "") {
    std::string f{static_cast<char>(0xEB), static_cast<char>(cmd), static_cast<char>(serial),
                  static_cast<char>(data.size() >> 8), static_cast<char>(data.size() & 0xFF)};
    return f + data + '\x03';
}

// Reads one six-byte frame within ms; "" on time-out or close.
std::string Read6(int fd, int ms) {
    std::string out;
    char b[6];
    for (const int64_t end = kit::NowMs() + ms; out.size() < 6 && kit::NowMs() < end;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0) continue;
        const ssize_t n = recv(fd, b, 6 - out.size(), 0);
        if (n <= 0) return "";
        out.append(b, static_cast<size_t>(n));
    }
    return out.size() == 6 ? out : "";
}

// ---------------------------------------------------------------------------
// Load: polls answered per second
// ---------------------------------------------------------------------------
struct Run {
    double rate = 0, p50 = 0, cpuPerPoll = 0;
    uint64_t polls = 0, errors = 0;
};

// Rate, median latency and CPU per poll of a run of `secs` seconds.
void Finish(Run* r, std::vector<uint32_t>& lat, double secs, const bench::CpuMeter& cpu) {
    r->rate = secs > 0 ? static_cast<double>(r->polls) / secs : 0;
    r->p50 = bench::Quantile(lat, 0.5);
    r->cpuPerPoll = r->polls ? cpu.elapsedMicros() / static_cast<double>(r->polls) : 0;
}

// One link, polled as fast as it answers: poll, read the answer, next serial.
Run PollLink(int fd, int* serial, double seconds, pid_t peer) {
    Run r;
    std::vector<uint32_t> lat;
    bench::CpuMeter cpu(peer);
    cpu.start();
    const auto t0 = SteadyClock::now();
    const auto end = t0 + std::chrono::duration<double>(seconds);
    while (!g_stop && SteadyClock::now() < end) {
        const std::string poll = Frame(1, *serial);
        const auto s = SteadyClock::now();
        if (send(fd, poll.data(), poll.size(), MSG_NOSIGNAL) != 6) break;
        const std::string a = Read6(fd, kIoTimeoutMs);
        if (a.size() != 6 || static_cast<unsigned char>(a[2]) != *serial) {
            ++r.errors;
            break;
        }
        lat.push_back(static_cast<uint32_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - s).count()));
        *serial = (*serial + 1) & 0xFF;
        ++r.polls;
    }
    Finish(&r, lat, std::chrono::duration<double>(SteadyClock::now() - t0).count(), cpu);
    return r;
}

// Clients of a polled server, each with one data frame out at a time.
struct Client {
    int fd = -1;
    int serial = 0;          // of the server's last frame
    std::string in;
    SteadyClock::time_point sent;
};

Run PollClients(std::vector<Client>& cs, double seconds, pid_t peer) {
    Run r;
    std::vector<uint32_t> lat;
    kit::UniqueFd ep(epoll_create1(EPOLL_CLOEXEC));
    for (size_t i = 0; i < cs.size(); ++i) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = i;
        epoll_ctl(ep.get(), EPOLL_CTL_ADD, cs[i].fd, &ev);
    }
    const std::string data = "bench-data";
    auto ask = [&](Client& c) {
        const std::string f = Frame(4, c.serial, data);
        c.sent = SteadyClock::now();
        return send(c.fd, f.data(), f.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(f.size());
    };
    bench::CpuMeter cpu(peer);
    cpu.start();
    const auto t0 = SteadyClock::now();
    const auto end = t0 + std::chrono::duration<double>(seconds);
    size_t out = 0;
    for (Client& c : cs) out += ask(c) ? 1 : 0;
    std::vector<epoll_event> ready(cs.size());
    // After the end no new frame goes out; the answers still due are read,
    // so that every client's serial is known for the next run.
    while (out > 0 && !g_stop) {
        const int n = epoll_wait(ep.get(), ready.data(), static_cast<int>(ready.size()), kIoTimeoutMs);
        if (n <= 0) {
            r.errors += out;
            break;
        }
        const bool going = SteadyClock::now() < end;
        for (int i = 0; i < n; ++i) {
            Client& c = cs[ready[static_cast<size_t>(i)].data.u64];
            char b[64];
            const ssize_t got = recv(c.fd, b, sizeof b, 0);
            if (got <= 0) {
                ++r.errors;
                --out;
                continue;
            }
            c.in.append(b, static_cast<size_t>(got));
            if (c.in.size() < 6) continue;
            c.serial = static_cast<unsigned char>(c.in[2]);
            c.in.erase(0, 6);
            --out;
            if (!going) continue;
            lat.push_back(static_cast<uint32_t>(
                std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now() - c.sent).count()));
            ++r.polls;
            if (ask(c)) ++out;
        }
    }
    Finish(&r, lat, std::min(std::chrono::duration<double>(SteadyClock::now() - t0).count(), seconds), cpu);
    return r;
}

// ---------------------------------------------------------------------------
// Rounds and the table
// ---------------------------------------------------------------------------
struct Series {
    std::string mode, style;
    std::vector<Run> comp, base;
};

double Median(const std::vector<Run>& runs, double Run::*f) {
    std::vector<double> v;
    for (const Run& r : runs) v.push_back(r.*f);
    return bench::Median(v);
}

// Median and range of the rounds' own comp/baseline ratios.
struct Ratio {
    double median = 0, lo = 0, hi = 0;
};
Ratio Ratios(const Series& s, double Run::*f) {
    std::vector<double> v;
    for (size_t i = 0; i < s.comp.size() && i < s.base.size(); ++i)
        if (s.base[i].*f > 0) v.push_back(s.comp[i].*f / s.base[i].*f);
    if (v.empty()) return {};
    return {bench::Median(v), *std::min_element(v.begin(), v.end()), *std::max_element(v.begin(), v.end())};
}

// Runs the rounds: comp and baseline alternately, the other frozen.
template <class Measure>
void Rounds(const Options& o, Series& s, pid_t comp, pid_t base, Measure measure) {
    auto one = [&](bool onComp, double secs) {
        kill(onComp ? base : comp, SIGSTOP);
        kill(onComp ? comp : base, SIGCONT);
        Run r = measure(onComp, secs);
        kill(onComp ? base : comp, SIGCONT);
        return r;
    };
    if (o.warmup > 0) {
        one(true, o.warmup);
        one(false, o.warmup);
    }
    for (int i = 0; i < o.rounds && !g_stop; ++i) {
        Run a, b;
        if (i % 2 == 0) {
            a = one(true, o.seconds);
            b = one(false, o.seconds);
        } else {
            b = one(false, o.seconds);
            a = one(true, o.seconds);
        }
        s.comp.push_back(a);
        s.base.push_back(b);
        std::printf("  %-6s %-8s round %d: comp %8.0f polls/s p50 %5.0f us %5.1f us CPU/poll | baseline %8.0f polls/s p50 "
                    "%5.0f us %5.1f us CPU/poll%s\n",
                    s.mode.c_str(), s.style.c_str(), i + 1, a.rate, a.p50, a.cpuPerPoll, b.rate, b.p50, b.cpuPerPoll,
                    a.errors + b.errors ? " (errors)" : "");
    }
}

void PrintTable(const Options& o, const std::vector<Series>& all) {
    std::printf("\nResults: medians over %d rounds of %.1f s; ratio = median of the rounds' comp/baseline (range)\n",
                o.rounds, o.seconds);
    std::printf("%-7s %-9s %10s %10s %20s %9s %9s %20s %8s %8s\n", "mode", "style", "comp /s", "base /s",
                "rate ratio", "comp CPU", "base CPU", "CPU/poll ratio", "comp p50", "base p50");
    for (const Series& s : all) {
        if (s.comp.empty()) continue;
        const Ratio rate = Ratios(s, &Run::rate), cpu = Ratios(s, &Run::cpuPerPoll);
        char rr[32], cr[32];
        std::snprintf(rr, sizeof rr, "%.2f (%.2f-%.2f)", rate.median, rate.lo, rate.hi);
        std::snprintf(cr, sizeof cr, "%.2f (%.2f-%.2f)", cpu.median, cpu.lo, cpu.hi);
        std::printf("%-7s %-9s %10.0f %10.0f %20s %7.1fus %7.1fus %20s %6.0fus %6.0fus\n", s.mode.c_str(),
                    s.style.c_str(), Median(s.comp, &Run::rate), Median(s.base, &Run::rate), rr,
                    Median(s.comp, &Run::cpuPerPoll), Median(s.base, &Run::cpuPerPoll), cr, Median(s.comp, &Run::p50),
                    Median(s.base, &Run::p50));
    }
}

struct Bench {
    const Options& o;
    bench::BenchPlatform& plat;
    bench::Children& kids;
    std::string self;
    int pcsynPort = 0, pcsynBasePort = 0, passynPort = 0, passynBasePort = 0;

    std::string Fifo(const std::string& name) const { return plat.runDir() + "/fifo/" + name; }
    std::string Out(const std::string& name) const { return plat.runDir() + "/log/" + name + ".out"; }
    pid_t Start(const std::string& name, const std::vector<std::string>& argv, int inheritFd = -1) {
        std::string why;
        const pid_t pid = kids.Start(name, argv, Out(name), &why, inheritFd);
        if (pid <= 0) std::fprintf(stderr, "bench_syn: %s: %s\n", name.c_str(), why.c_str());
        return pid;
    }

    // PASSYN: comp on an inherited listener, the clients accepted on command.
    bool Passyn(const std::string& style, Series* s) {
        kit::UniqueFd lsn(ListenLoopback(passynPort, true));
        if (!lsn.valid()) return false;
        const pid_t comp = Start("passyn_" + style,
                                 {o.compPath, "SysTCPPASSYN", std::to_string(kPassynRoute), "1",
                                  std::to_string(lsn.get()), "PASSYN51_" + style},
                                 lsn.get());
        const std::string ctl = Fifo("3_" + std::to_string(comp) + "_1");
        const pid_t base = Start("passyn_baseline_" + style, {self, "--role", "passyn-baseline", plat.runDir(),
                                                              std::to_string(kPassynBaseRoute),
                                                              std::to_string(passynBasePort)});
        std::string why;
        if (comp <= 0 || base <= 0 || !bench::WaitReady(kids, comp, ctl, &g_stop, &why)) return false;
        std::vector<Client> onComp(static_cast<size_t>(o.clients)), onBase(onComp.size());
        bool ok = true;
        for (Client& c : onComp) {
            c.fd = Dial(passynPort);
            const int fd = open(ctl.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            ok = ok && c.fd >= 0 && fd >= 0 && write(fd, "0", 1) == 1;
            if (fd >= 0) close(fd);
            ok = ok && Read6(c.fd, kIoTimeoutMs) == Frame(1, 0);
        }
        for (Client& c : onBase) ok = ok && (c.fd = Dial(passynBasePort)) >= 0 && Read6(c.fd, kIoTimeoutMs) == Frame(1, 0);
        if (ok) {
            Rounds(o, *s, comp, base, [&](bool onC, double secs) {
                return PollClients(onC ? onComp : onBase, secs, onC ? comp : base);
            });
        } else {
            std::fprintf(stderr, "bench_syn: PASSYN %s: the clients were not all polled\n", style.c_str());
        }
        for (Client& c : onComp) close(c.fd);
        for (Client& c : onBase) close(c.fd);
        kids.Stop(comp, ctl);
        kids.Stop(base);
        return ok;
    }

    // PCSYN: comp connects to the bench's poll server after its start-up wait.
    bool Pcsyn(const std::string& style, Series* s) {
        kit::UniqueFd lsnComp(ListenLoopback(pcsynPort, false)), lsnBase(ListenLoopback(pcsynBasePort, false));
        if (!lsnComp.valid() || !lsnBase.valid()) return false;
        std::printf("  PCSYN  %-8s waiting for comp's 25-second start-up wait\n", style.c_str());
        const pid_t comp =
            Start("pcsyn_" + style, {o.compPath, "SysTCPPCSYN", std::to_string(kPcsynRoute), "1", "0", "PCSYN50_" + style});
        const pid_t base = Start("pcsyn_baseline_" + style, {self, "--role", "pcsyn-baseline", plat.runDir(),
                                                             std::to_string(kPcsynBaseRoute),
                                                             std::to_string(pcsynBasePort)});
        pollfd pc{lsnComp.get(), POLLIN, 0}, pb{lsnBase.get(), POLLIN, 0};
        const bool up = comp > 0 && base > 0 && poll(&pb, 1, 10000) == 1 && poll(&pc, 1, kConnectWaitMs) == 1;
        kit::UniqueFd linkComp(up ? accept4(lsnComp.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
        kit::UniqueFd linkBase(up ? accept4(lsnBase.get(), nullptr, nullptr, SOCK_CLOEXEC) : -1);
        const bool ok = linkComp.valid() && linkBase.valid();
        if (ok) {
            int on = 1;
            for (int fd : {linkComp.get(), linkBase.get()}) {
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            }
            int serialComp = 0, serialBase = 0;
            Rounds(o, *s, comp, base, [&](bool onC, double secs) {
                return onC ? PollLink(linkComp.get(), &serialComp, secs, comp)
                           : PollLink(linkBase.get(), &serialBase, secs, base);
            });
        } else {
            std::fprintf(stderr, "bench_syn: PCSYN %s: no link came\n", style.c_str());
        }
        kids.Stop(comp, Fifo("3_" + std::to_string(comp) + "_1"));
        kids.Stop(base);
        return ok;
    }
};

std::string RouteRow(int route, const char* name, const char* sndType, const std::string& ipPort) {
    return std::to_string(route) + " 1 " + name + " " + sndType + " 3000 5 2 3 2 0 1 1 1 0 2 0 M 60 5 " + ipPort + "\n";
}

int RunBench(const Options& o) {
    for (const std::string& l : kit::EnsureQueueLimits()) std::fprintf(stderr, "bench_syn: %s\n", l.c_str());
    bench::BenchPlatform plat;
    bench::Children kids;   // stopped before the platform goes
    Bench b{o, plat, kids, kit::SelfExe()};
    b.pcsynPort = bench::FreeLoopbackPort();
    b.pcsynBasePort = bench::FreeLoopbackPort();
    b.passynPort = bench::FreeLoopbackPort();
    b.passynBasePort = bench::FreeLoopbackPort();
    const std::string lo = "127.0.0.1:";
    plat.AddRoutes(RouteRow(kPcsynRoute, "bench-pcsyn", "1", lo + std::to_string(b.pcsynPort)) +
                       RouteRow(kPassynRoute, "bench-passyn", "0", "-"),
                   "route " + std::to_string(kPassynRoute) + " SysTCPPASSYN drop listen " + lo +
                       std::to_string(b.passynPort) + "\nroute " + std::to_string(kPassynBaseRoute) +
                       " SysTCPPASSYN drop listen " + lo + std::to_string(b.passynBasePort) + "\n");
    std::string why;
    if (!plat.Create(o.level, &why)) {
        std::fprintf(stderr, "bench_syn: platform: %s\n", why.c_str());
        return 1;
    }
    if (o.keep) plat.KeepDirectory();
    const pid_t router = b.Start("router", {b.self, "--role", "router", plat.runDir()});
    if (router <= 0) return 1;
    std::printf("bench_syn: comp %s\n  platform %s, LOG_LEVEL %d, %d rounds x %.1f s after %.1f s warm-up, the side "
                "not measured frozen\n  PCSYN: one link polled as fast as it answers; PASSYN: %d clients, one data "
                "frame each in flight\n",
                o.compPath.c_str(), plat.runDir().c_str(), o.level, o.rounds, o.seconds, o.warmup, o.clients);
    std::vector<Series> all;
    int status = 0;
    for (const std::string& style : o.styles) {
        if (g_stop) break;
        if (!plat.SetAppCfg(o.level, style == "deadline" ? "COMP_WAIT DEADLINE\n" : "", &why)) return 1;
        if (o.only != "pcsyn") {
            all.push_back({"PASSYN", style, {}, {}});
            if (!b.Passyn(style, &all.back())) status = 1;
        }
        if (o.only != "passyn" && !g_stop) {
            all.push_back({"PCSYN", style, {}, {}});
            if (!b.Pcsyn(style, &all.back())) status = 1;
        }
        plat.TrimLogs();
    }
    b.kids.Stop(router);
    PrintTable(o, all);
    if (g_stop) status = 130;
    if (o.keep) std::printf("bench_syn: logs kept in %s\n", plat.runDir().c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 4 && std::strcmp(argv[1], "--role") == 0) {
        const std::string role = argv[2];
        if (role == "router" && argc == 4) return bench::RunRouterRole(argv[3]);
        if ((role == "pcsyn-baseline" || role == "passyn-baseline") && argc == 6) {
            bench::SynBaselineOptions b;
            b.runDir = argv[3];
            b.route = std::atoi(argv[4]);
            b.port = std::atoi(argv[5]);
            return role == "pcsyn-baseline" ? bench::RunPcsynBaselineRole(b) : bench::RunPassynBaselineRole(b);
        }
        return 2;
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options o;
    if (!ParseOptions(argc, argv, &o)) {
        std::fprintf(stderr,
                     "usage: bench_syn [--comp PATH] [--seconds S] [--rounds N] [--warmup S] [--clients N]\n"
                     "                 [--styles fixed,deadline] [--level L] [--only pcsyn|passyn] [--keep]\n");
        return 2;
    }
    if (!bench::ResolveCompPath("bench_syn", &o.compPath)) return 1;
    bench::InstallStopHandler(OnBenchStop);
    return RunBench(o);
}
