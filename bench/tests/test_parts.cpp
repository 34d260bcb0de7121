// The benchmark's own parts: the /proc readers, the statistics, the load
// generator's answer checks, and the pid written into platform messages.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "BenchPlatform.h"
#include "LoadGen.h"
#include "ProcStat.h"
#include "Relays.h"
#include "comp/SysPlatMsg.h"
#include "kit/KitUtil.h"

namespace {

TEST(ProcStat, CountsFieldsAfterTheLastParenthesis) {
    // A command name may hold blanks and ')' itself.
    EXPECT_EQ(bench::ParseStatTicks("42 (a) b (c)) S 1 42 42 0 -1 4194560 100 0 0 0 250 75 0 0 20 0 1 0"), 325u);
    EXPECT_EQ(bench::ParseStatTicks("7 (comp) R 1 7 7 0 -1 0 0 0 0 0 3 4\n"), 7u);
    EXPECT_FALSE(bench::ParseStatTicks("7 comp R 1 7"));
    EXPECT_FALSE(bench::ParseStatTicks("7 (comp) R 1 7 7 0 -1 0 0 0 0 0 3"));
    EXPECT_FALSE(bench::ParseStatTicks("7 (comp) R 1 7 7 0 -1 0 0 0 0 0 x 4"));
    auto self = bench::ProcessCpuMicros(getpid());
    ASSERT_TRUE(self);
    EXPECT_GE(*self, 0);
}

TEST(ProcStat, CpuTimeIsTheThreadsRunTimeAndGrowsWithWork) {
    auto before = bench::ProcessCpuMicros(getpid());
    volatile uint64_t spin = 0;
    for (int i = 0; i < 20'000'000; ++i) spin = spin + static_cast<uint64_t>(i);
    auto after = bench::ProcessCpuMicros(getpid());
    ASSERT_TRUE(before && after);
    EXPECT_GT(*after, *before);
}

TEST(ProcStat, SumsThePerThreadTablesOfAPerfTraceSummary) {
    const char* text =
        "\n Summary of events:\n\n comp (7), 120 events, 60.0%\n\n"
        "   syscall            calls  errors  total       min       avg       max       stddev\n"
        "                                     (msec)    (msec)    (msec)    (msec)        (%)\n"
        "   --------------- --------  ------ -------- --------- --------- ---------     ------\n"
        "   epoll_wait            40      0     1.000     0.001     0.025     0.100      5.00%\n"
        "   accept4               20      2     0.400     0.010     0.020     0.049      9.63%\n\n"
        " comp (8), 10 events, 5.0%\n\n"
        "   syscall            calls  errors  total       min       avg       max       stddev\n"
        "   --------------- --------  ------ -------- --------- --------- ---------     ------\n"
        "   accept4                5      1     0.100     0.010     0.020     0.049      9.63%\n";
    auto t = bench::ParsePerfTraceSummary(text);
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t["epoll_wait"].calls, 40u);
    EXPECT_EQ(t["accept4"].calls, 25u);
    EXPECT_EQ(t["accept4"].errors, 3u);
    EXPECT_TRUE(bench::ParsePerfTraceSummary("no table here\n").empty());
}

TEST(ProcStat, ReadsBothContextSwitchCounters) {
    auto cs = bench::ParseCtxSwitches(
        "Name:\tcomp\nvoluntary_ctxt_switches:\t120\nnonvoluntary_ctxt_switches:\t7\n");
    ASSERT_TRUE(cs);
    EXPECT_EQ(cs->voluntary, 120u);
    EXPECT_EQ(cs->involuntary, 7u);
    EXPECT_FALSE(bench::ParseCtxSwitches("Name:\tcomp\nvoluntary_ctxt_switches:\t120\n"));
    EXPECT_FALSE(bench::ParseCtxSwitches("x\nvoluntary_ctxt_switches:\t\nnonvoluntary_ctxt_switches:\t7\n"));
    EXPECT_TRUE(bench::ProcessCtxSwitches(getpid()));
}

TEST(Statistics, NearestRankQuantilesAndMedian) {
    std::vector<uint32_t> v;
    for (uint32_t i = 100; i >= 1; --i) v.push_back(i);
    EXPECT_EQ(bench::Quantile(v, 0.50), 50);
    EXPECT_EQ(bench::Quantile(v, 0.99), 99);
    EXPECT_EQ(bench::Quantile(v, 1.0), 100);
    std::vector<uint32_t> one{7}, none;
    EXPECT_EQ(bench::Quantile(one, 0.99), 7);
    EXPECT_EQ(bench::Quantile(none, 0.5), 0);
    EXPECT_DOUBLE_EQ(bench::Median({5, 1, 3}), 3);
    EXPECT_DOUBLE_EQ(bench::Median({4, 1, 3, 2}), 2.5);
}

TEST(Ports, PlatformPortsAreDistinct) {
    const std::vector<int> ports = bench::FreeLoopbackPorts(12);
    ASSERT_EQ(ports.size(), 12u);
    EXPECT_EQ(std::set<int>(ports.begin(), ports.end()).size(), 12u);
    for (int p : ports) EXPECT_GT(p, 0);
}

TEST(Framing, RequestsCarryTheirBodyLengthInDigits) {
    EXPECT_EQ(bench::FrameRequest("hello", 4), "0005hello");
    EXPECT_EQ(bench::DecimalHeaderLength("0012", 4), 12);
    EXPECT_EQ(bench::DecimalHeaderLength(" 012", 4), -1);
    EXPECT_EQ(bench::DecimalHeaderLength("00a2", 4), -1);
}

// The pid in the header is asked of the kernel once per process; a child
// made with fork() must still write its own.
TEST(HotPath, PlatMsgHeaderCarriesTheChildsOwnPidAfterFork) {
    RouteRecord route{};
    std::snprintf(route.caField[RT_ROUTEID], sizeof route.caField[RT_ROUTEID], "10");
    auto buf = std::make_unique<QueueMsg>();
    auto pidIn = [](const QueueMsg& m) {
        int32_t pid;
        std::memcpy(&pid, m.caText + comp::plat::kPid, sizeof pid);
        return pid;
    };
    ASSERT_EQ(SysBuildPlatMsg(buf.get(), 4, 5, &route, "127.0.0.1", 1), 68);
    EXPECT_EQ(pidIn(*buf), getpid());
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int32_t pid = SysBuildPlatMsg(buf.get(), 4, 5, &route, "127.0.0.1", 1) == 68 ? pidIn(*buf) : -1;
        _exit(write(fds[1], &pid, sizeof pid) == sizeof pid ? 0 : 1);
    }
    close(fds[1]);
    int32_t seen = 0;
    EXPECT_EQ(read(fds[0], &seen, sizeof seen), static_cast<ssize_t>(sizeof seen));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(seen, child);
    ASSERT_EQ(SysBuildPlatMsg(buf.get(), 4, 5, &route, "127.0.0.1", 1), 68);
    EXPECT_EQ(pidIn(*buf), getpid());
}

// A loopback server that answers every connection with `reply` (or with
// nothing, holding the connection, when reply is empty) and then closes.
class FakeServer {
public:
    explicit FakeServer(std::string reply) : reply_(std::move(reply)) {
        fd_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (bind(fd_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 && listen(fd_.get(), 16) == 0 &&
            getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&sa), &len) == 0)
            port_ = ntohs(sa.sin_port);
        thread_ = std::thread([this] { Serve(); });
    }
    ~FakeServer() {
        shutdown(fd_.get(), SHUT_RDWR);
        thread_.join();
    }
    int port() const { return port_; }

private:
    void Serve() {
        for (;;) {
            kit::UniqueFd c(accept(fd_.get(), nullptr, nullptr));
            if (!c.valid()) return;
            char req[256];
            if (recv(c.get(), req, sizeof req, 0) <= 0) continue;
            if (reply_.empty()) {
                recv(c.get(), req, sizeof req, 0);   // until the client gives up
                continue;
            }
            send(c.get(), reply_.data(), reply_.size(), MSG_NOSIGNAL);
        }
    }
    std::string reply_;
    kit::UniqueFd fd_;
    int port_ = 0;
    std::thread thread_;
};

TEST(LoadGen, CountsWrongAndMissingAnswersAsFailures) {
    bench::LoadOptions lo;
    lo.request = bench::FrameRequest("0602ping", 4);
    lo.seconds = 0.2;
    lo.ioTimeoutMs = 100;
    {
        FakeServer echo(lo.request);
        lo.port = echo.port();
        bench::LoadResult r = bench::RunLoad(lo, nullptr);
        EXPECT_GT(r.exchanges, 0u);
        EXPECT_EQ(r.failures, 0u) << r.firstError;
        EXPECT_EQ(r.latencyUs.size(), r.exchanges);
    }
    {
        FakeServer wrong(bench::FrameRequest("0602pong", 4));
        lo.port = wrong.port();
        bench::LoadResult r = bench::RunLoad(lo, nullptr);
        EXPECT_EQ(r.exchanges, 0u);
        EXPECT_GT(r.failures, 0u);
        EXPECT_EQ(r.firstError, "answer differs from the request");
    }
    {
        FakeServer silent("");
        lo.port = silent.port();
        auto t0 = kit::NowMs();
        bench::LoadResult r = bench::RunLoad(lo, nullptr);
        EXPECT_EQ(r.exchanges, 0u);
        EXPECT_GT(r.failures, 0u);
        EXPECT_NE(r.firstError.find("receive header"), std::string::npos) << r.firstError;
        EXPECT_LT(kit::NowMs() - t0, 2000);
    }
}

}  // namespace
