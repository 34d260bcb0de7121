// bench_micro: the routines of comp's per-message path, one at a time, on a
// private platform (Google Benchmark). The benchmarks run in a child process;
// this process only sets the platform up and takes it down again, also when
// the run is interrupted.
//
//   bench_micro [Google Benchmark flags, e.g. --benchmark_filter=Recv]
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/msg.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchPlatform.h"
#include "LoadGen.h"
#include "base/SysGlobals.h"
#include "base/SysShm.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "config/FileOpApp.h"
#include "config/SysTable.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "kit/KitUtil.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr int kLogLevel = 3;       // what production runs: DEBUG and INFO lines are dropped
constexpr int kBodyBytes = 32;
constexpr int kPeerPort = 40000;

// What every benchmark needs: the route row, a request and a queue buffer.
struct Fixture {
    RouteRecord route{};
    char routeId[3] = {};
    std::string request;
    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
    std::string connLog;
};
Fixture* g_fx = nullptr;

void BM_SysTcpRecvMsg(benchmark::State& state) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    const std::string& req = g_fx->request;
    for (auto _ : state) {
        if (send(sv[0], req.data(), req.size(), 0) != static_cast<ssize_t>(req.size())) {
            state.SkipWithError("send failed");
            break;
        }
        int err = 0;
        int n = SysTcpRecvMsg(sv[1], &g_fx->route, g_fx->buf.get(), &err);
        if (n != static_cast<int>(req.size())) {
            state.SkipWithError("SysTcpRecvMsg failed");
            break;
        }
    }
    close(sv[0]);
    close(sv[1]);
    state.SetLabel("includes one send() of the request");
}
BENCHMARK(BM_SysTcpRecvMsg);

// Every accepted connection is switched to non-blocking mode.
void BM_iNoblockFd(benchmark::State& state) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (auto _ : state) {
        if (iNoblockFd(fd) != 0) {
            state.SkipWithError("iNoblockFd failed");
            break;
        }
    }
    close(fd);
}
BENCHMARK(BM_iNoblockFd);

void BM_SysBuildPlatMsg(benchmark::State& state) {
    const std::string& req = g_fx->request;
    QueueMsg* buf = g_fx->buf.get();
    for (auto _ : state) {
        std::memcpy(buf->caText, req.data(), req.size());
        int n = SysBuildPlatMsg(buf, static_cast<int>(req.size()), 7, &g_fx->route, "127.0.0.1", kPeerPort);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SysBuildPlatMsg);

void BM_SysGetMsgTypeFromHead(benchmark::State& state) {
    QueueMsg* buf = g_fx->buf.get();
    std::memcpy(buf->caText, g_fx->request.data(), g_fx->request.size());
    for (auto _ : state) {
        char type[16] = {};
        int rc = SysGetMsgTypeFromHead(buf->caText, g_fx->routeId, type);
        if (rc != 0 || std::strncmp(type, "0602", 4) != 0) {
            state.SkipWithError("SysGetMsgTypeFromHead failed");
            break;
        }
        benchmark::DoNotOptimize(type);
    }
    state.SetLabel("five route-table lookups");
}
BENCHMARK(BM_SysGetMsgTypeFromHead);

void BM_WritelogBelowThreshold(benchmark::State& state) {
    const std::string& req = g_fx->request;
    for (auto _ : state) {
        int rc = writelog(LOG_DEBUG, req.data(), static_cast<int>(req.size()), "[%s,%d]read net,len=%d", "bench",
                          __LINE__, static_cast<int>(req.size()));
        benchmark::DoNotOptimize(rc);
    }
}
BENCHMARK(BM_WritelogBelowThreshold);

void BM_ConnLogBelowThreshold(benchmark::State& state) {
    const std::string& req = g_fx->request;
    for (auto _ : state) {
        int rc = SysConnLog(7, g_fx->connLog.c_str(), LOG_INFO, req.data(), static_cast<int>(req.size()),
                            "[%s,%d]read net,len=%d", "bench", __LINE__, static_cast<int>(req.size()));
        benchmark::DoNotOptimize(rc);
    }
}
BENCHMARK(BM_ConnLogBelowThreshold);

void BM_RegisterAndDeleteConnection(benchmark::State& state) {
    for (auto _ : state) {
        if (SysRegConnection("127.0.0.1", kPeerPort, &g_fx->route, 7, 1) != 0 ||
            SysDelConnection(std::atoi(g_fx->routeId), "127.0.0.1", kPeerPort, 1) != 0) {
            state.SkipWithError("registry call failed");
            break;
        }
    }
    state.SetLabel("SysRegConnection + SysDelConnection");
}
BENCHMARK(BM_RegisterAndDeleteConnection);

void BM_WriteQueueAndReadBack(benchmark::State& state) {
    QueueMsg* buf = g_fx->buf.get();
    const int qid = g_stMsgQCntl[comp::kQueueToTranp].iId;
    const int len = comp::kPlatHdrLen + static_cast<int>(g_fx->request.size());
    for (auto _ : state) {
        buf->lMsgType = getpid();
        if (SysWriteQueue(buf, len, qid) != 0) {
            state.SkipWithError("SysWriteQueue failed");
            break;
        }
        buf->lMsgType = getpid();
        if (MsgReadNoWait(qid, buf) != len) {
            state.SkipWithError("read back failed");
            break;
        }
    }
    state.SetLabel("SysWriteQueue + MsgReadNoWait");
}
BENCHMARK(BM_WriteQueueAndReadBack);

// The answer path: TranP's part (queue the answer, ring the doorbell) and
// SysReadPlatMsg's (doorbell byte, queue read).
void BM_SysReadPlatMsg(benchmark::State& state) {
    const std::string name = std::to_string(getpid());
    int bell = iOpenFIFO(name.c_str(), comp::kFifoPidNotify);
    if (bell < 0) {
        state.SkipWithError("iOpenFIFO failed");
        return;
    }
    QueueMsg* buf = g_fx->buf.get();
    const int qid = g_stMsgQCntl[comp::kQueueFromTranp].iId;
    const int len = comp::kPlatHdrLen + static_cast<int>(g_fx->request.size());
    for (auto _ : state) {
        buf->lMsgType = getpid();
        if (MsgWriteNoWait(qid, buf, len) != 0 || iWriteFIFO(bell) != 0) {
            state.SkipWithError("queueing the answer failed");
            break;
        }
        if (SysReadPlatMsg(bell, buf) != len) {
            state.SkipWithError("SysReadPlatMsg failed");
            break;
        }
    }
    close(bell);
    SysCleanIpcFileById(name.c_str(), comp::kFifoPidNotify);
    state.SetLabel("includes the router's msgsnd and doorbell write");
}
BENCHMARK(BM_SysReadPlatMsg);

// ---- single system calls: what one costs on this machine, and so what the
// calls comp makes beyond the baseline relay's cost an exchange -------------

// The least any system call costs (the fixed wait asks it on every pass).
void BM_NullSystemCall(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(getppid());
    state.SetLabel("getppid");
}
BENCHMARK(BM_NullSystemCall);

// The rest of what the fixed wait adds to every pass.
void BM_SignalMaskAroundAPass(benchmark::State& state) {
    sigset_t usr1, old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    for (auto _ : state) {
        if (iSetSignalBlock(&usr1, &old) != 0 || iSetSignalMask(&old) != 0) {
            state.SkipWithError("signal mask failed");
            break;
        }
    }
    state.SetLabel("iSetSignalBlock + iSetSignalMask: three calls");
}
BENCHMARK(BM_SignalMaskAroundAPass);

// The check before every registry operation that the attached segment is
// still the live one.
void BM_RegistryLivenessCheck(benchmark::State& state) {
    const int id = shmget(g_memlist_shmkey, 0, 0);
    for (auto _ : state) {
        if (!comp::ShmIsLive(id)) {
            state.SkipWithError("registry segment not live");
            break;
        }
    }
    state.SetLabel("one shmctl(IPC_STAT)");
}
BENCHMARK(BM_RegistryLivenessCheck);

// What a standing epoll registration costs a connection that carries one
// exchange, against a ppoll over the few descriptors TS waits on.
void BM_EpollAddAndRemove(benchmark::State& state) {
    int ep = epoll_create1(EPOLL_CLOEXEC);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    for (auto _ : state) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = fd;
        if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) != 0 || epoll_ctl(ep, EPOLL_CTL_DEL, fd, nullptr) != 0) {
            state.SkipWithError("epoll_ctl failed");
            break;
        }
    }
    close(fd);
    close(ep);
    state.SetLabel("epoll_ctl ADD + DEL");
}
BENCHMARK(BM_EpollAddAndRemove);

void BM_PpollFourQuietDescriptors(benchmark::State& state) {
    int fds[4];
    for (int& fd : fds) fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    pollfd set[4];
    for (int i = 0; i < 4; ++i) set[i] = pollfd{fds[i], POLLIN, 0};
    const timespec zero{0, 0};
    for (auto _ : state) benchmark::DoNotOptimize(ppoll(set, 4, &zero, nullptr));
    for (int fd : fds) close(fd);
    state.SetLabel("time-out 0");
}
BENCHMARK(BM_PpollFourQuietDescriptors);

// The child: joins the platform as comp does and runs the benchmarks.
int RunBenchmarks(int argc, char** argv, const bench::BenchPlatform& plat) {
    const std::string runDir = plat.runDir();
    const std::string logBase = runDir + "/log/micro";
    SysSetLog(logBase.c_str());
    ChgLog('1', (logBase + "_err").c_str());
    if (SysComInit() != 0) {
        std::fprintf(stderr, "bench_micro: SysComInit failed (see %s/log)\n", runDir.c_str());
        return 1;
    }
    Fixture fx;
    std::snprintf(fx.routeId, sizeof fx.routeId, "%d", plat.routes().tsRoute);
    if (SysGetSingleRecord("PLAT_STATICROUTEINF", &fx.route, "ROUTEID", fx.routeId, "ROUTEMONID", "1", PARA_END) !=
        0) {
        std::fprintf(stderr, "bench_micro: route %s not found\n", fx.routeId);
        return 1;
    }
    for (auto& field : fx.route.caField) field[sizeof field - 1] = '\0';
    std::string body(kBodyBytes, 'x');
    std::memcpy(body.data(), "0602", 4);
    fx.request = bench::FrameRequest(body, 4);
    fx.connLog = runDir + "/runs/log/com_bench-ts_127.0.0.1.log";
    g_fx = &fx;
    std::printf("bench_micro: trace level %d (LOG_LEVEL of app.cfg), requests of %zu bytes\n",
                g_stProcState.stLog.iTraceLevel, fx.request.size());
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

volatile sig_atomic_t g_child = 0;
extern "C" void ForwardStop(int sig) {
    if (g_child > 0) kill(g_child, sig);
}

}  // namespace

int main(int argc, char** argv) {
    bench::BenchPlatform plat;
    std::string why;
    const std::vector<std::string> limits = kit::EnsureQueueLimits();
    for (const std::string& l : limits) std::fprintf(stderr, "bench_micro: %s\n", l.c_str());
    if (!limits.empty()) return 1;
    if (!plat.Create(kLogLevel, &why)) {
        std::fprintf(stderr, "bench_micro: platform: %s\n", why.c_str());
        return 1;
    }
    std::fflush(nullptr);
    pid_t child = fork();
    if (child < 0) {
        std::fprintf(stderr, "bench_micro: fork: %s\n", std::strerror(errno));
        return 1;
    }
    if (child == 0) {
        // _exit: the platform belongs to the parent; flush what was printed.
        int rc = RunBenchmarks(argc, argv, plat);
        std::fflush(nullptr);
        _exit(rc);
    }
    // Ctrl-C reaches both processes; SIGTERM to this one is passed on. Either
    // way the child ends and the platform is taken down below.
    g_child = child;
    struct sigaction sa {};
    sa.sa_handler = ForwardStop;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
