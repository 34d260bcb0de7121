// The benchmark as processes: both relays answering through the router on a
// private platform, the baseline relay surviving bad clients, and bench_ts
// itself, run to its end and interrupted, leaving nothing behind.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include "BenchPlatform.h"
#include "LoadGen.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

const std::string kBuild = COMP_BINARY_DIR;
const std::string kBenchTs = kBuild + "/bench/bench_ts";
const std::string kBenchFw = kBuild + "/bench/bench_fw";

#define REQUIRE_BIG_QUEUE_MESSAGES() \
    if (const auto limits = kit::EnsureQueueLimits(); !limits.empty()) GTEST_SKIP() << limits.front()

// A child stopped by pid when the test ends, however it ends.
struct Kid {
    pid_t pid = -1;
    ~Kid() {
        if (pid > 0) kit::StopChild(pid, 2000);
    }
};

pid_t Start(const std::vector<std::string>& argv, const std::string& output = "") {
    kit::SpawnOptions plan;
    plan.path = argv[0];
    plan.argv = argv;
    plan.outputPath = output;
    std::string why;
    return kit::Spawn(plan, &why);
}

bool WaitForFile(const std::string& path, int timeoutMs) {
    for (int waited = 0; waited < timeoutMs; waited += 10) {
        if (std::filesystem::exists(path)) return true;
        kit::SleepMs(10);
    }
    return false;
}

// The router and the baseline relay on a fresh platform.
class RelayTest : public ::testing::Test {
protected:
    void SetUp() override {
        REQUIRE_BIG_QUEUE_MESSAGES();
        std::string why;
        ASSERT_TRUE(plat_.Create(3, &why)) << why;
        const auto& rt = plat_.routes();
        router_.pid = Start({kBenchTs, "--role", "router", plat_.runDir()});
        base_.pid = Start({kBenchTs, "--role", "baseline", plat_.runDir(), std::to_string(rt.baseRoute),
                           std::to_string(rt.basePort)});
        ASSERT_GT(router_.pid, 0);
        ASSERT_GT(base_.pid, 0);
        ASSERT_TRUE(WaitForFile(plat_.runDir() + "/fifo/1_" + std::to_string(base_.pid), 5000));
    }
    bench::LoadResult Load(int port, int clients, double seconds) {
        bench::LoadOptions lo;
        lo.port = port;
        lo.request = bench::FrameRequest("0602" + std::string(40, 'q'), 4);
        lo.clients = clients;
        lo.seconds = seconds;
        return bench::RunLoad(lo, nullptr);
    }
    // A client of the baseline: connects, sends, reads until the relay closes.
    std::string RawExchange(const std::string& bytes, bool closeEarly) {
        kit::UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(plat_.routes().basePort));
        timeval tv{2, 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        if (connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return "connect failed";
        if (!bytes.empty()) send(fd.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (closeEarly) return "";
        std::string got;
        char buf[256];
        ssize_t n;
        while ((n = recv(fd.get(), buf, sizeof buf, 0)) > 0) got.append(buf, static_cast<size_t>(n));
        return n < 0 ? "timed out" : got;
    }

    bench::BenchPlatform plat_;
    Kid router_, base_;
};

TEST_F(RelayTest, CompInBothWaitStylesAndBaselineAnswerEveryRequestThroughTheRouter) {
    const auto& rt = plat_.routes();
    Kid comp[2];
    std::string why;
    for (int deadline : {1, 0}) {
        ASSERT_TRUE(plat_.SetLogLevel(3, &why, deadline != 0)) << why;
        const int route = deadline ? rt.tsDeadlineRoute : rt.tsRoute;
        comp[deadline].pid = Start({kBuild + "/comp", "SysTCPTS", std::to_string(route), "1", "0", "TS_test"});
        ASSERT_GT(comp[deadline].pid, 0);
        ASSERT_TRUE(WaitForFile(plat_.runDir() + "/fifo/1_" + std::to_string(comp[deadline].pid), 5000));
    }
    for (int port : {rt.basePort, rt.tsPort, rt.tsDeadlinePort}) {
        bench::LoadResult res = Load(port, 4, 0.3);
        EXPECT_GT(res.exchanges, 10u) << "port " << port;
        EXPECT_EQ(res.failures, 0u) << "port " << port << ": " << res.firstError;
    }
}

TEST_F(RelayTest, BaselineDropsBadClientsAndServesTheNextOnes) {
    EXPECT_EQ(RawExchange("00a2xx", false), "") << "a header that is no length is closed unanswered";
    EXPECT_EQ(RawExchange("", true), "");
    EXPECT_EQ(RawExchange("0004ab", true), "") << "a client that leaves before its answer";
    EXPECT_EQ(RawExchange("0004abcd", false), "0004abcd");
    bench::LoadResult res = Load(plat_.routes().basePort, 2, 0.2);
    EXPECT_GT(res.exchanges, 0u);
    EXPECT_EQ(res.failures, 0u) << res.firstError;
}

TEST(BenchPlatform, DestroyRemovesEverythingAndRestoresTheEnvironment) {
    REQUIRE_BIG_QUEUE_MESSAGES();
    const bool hadRunDir = std::getenv("RUNDIR") != nullptr;
    std::string runDir;
    key_t base = 0;
    {
        bench::BenchPlatform plat;
        std::string why;
        ASSERT_TRUE(plat.Create(1, &why)) << why;
        runDir = plat.runDir();
        base = plat.keyBase();
        EXPECT_EQ(std::string(std::getenv("RUNDIR")), runDir);
        EXPECT_GE(msgget(base + 7, 0), 0);
        ASSERT_TRUE(plat.SetLogLevel(3, &why, true)) << why;
        const std::string app = kit::ReadWholeFile(runDir + "/etc/app.cfg").value_or("");
        EXPECT_NE(app.find("LOG_LEVEL 3\n"), std::string::npos) << app;
        EXPECT_NE(app.find("COMP_WAIT DEADLINE\n"), std::string::npos) << app;
        ASSERT_TRUE(plat.SetLogLevel(1, &why)) << why;
        EXPECT_EQ(kit::ReadWholeFile(runDir + "/etc/app.cfg").value_or("").find("COMP_WAIT"), std::string::npos);
        // Rotated logs go, connection logs are emptied, the error logs stay.
        std::string why2;
        ASSERT_TRUE(bench::WriteTextFile(runDir + "/log/com_x_1.log20260101000000.bak", "old", &why2));
        ASSERT_TRUE(bench::WriteTextFile(runDir + "/log/com_x_1_err.log", "error", &why2));
        ASSERT_TRUE(bench::WriteTextFile(runDir + "/runs/log/com_r_127.0.0.1.log", "lines", &why2));
        plat.TrimLogs();
        EXPECT_FALSE(std::filesystem::exists(runDir + "/log/com_x_1.log20260101000000.bak"));
        EXPECT_EQ(kit::ReadWholeFile(runDir + "/log/com_x_1_err.log").value_or(""), "error");
        EXPECT_EQ(kit::ReadWholeFile(runDir + "/runs/log/com_r_127.0.0.1.log").value_or("?"), "");
    }
    EXPECT_FALSE(std::filesystem::exists(runDir));
    EXPECT_LT(msgget(base + 7, 0), 0);
    EXPECT_EQ(std::getenv("RUNDIR") != nullptr, hadRunDir);
}

// What a bench_ts run printed, and whether its platform is gone.
struct BenchRun {
    int status = -1;
    std::string output;

    std::string runDir() const {
        std::smatch m;
        return std::regex_search(output, m, std::regex("platform (/tmp/compbench\\.\\w+)")) ? m[1].str() : "";
    }
    key_t keyBase() const {
        std::smatch m;
        return std::regex_search(output, m, std::regex("keys 0x([0-9a-f]+)"))
                   ? static_cast<key_t>(std::stoul(m[1].str(), nullptr, 16))
                   : 0;
    }
    void ExpectNothingLeft() const {
        ASSERT_FALSE(runDir().empty()) << output;
        EXPECT_FALSE(std::filesystem::exists(runDir()));
        for (int q : {6, 7, 8, 12}) EXPECT_LT(msgget(keyBase() + q, 0), 0) << "queue " << q;
    }
};

class BenchTsTest : public ::testing::Test {
protected:
    void SetUp() override { REQUIRE_BIG_QUEUE_MESSAGES(); }
    void TearDown() override { std::filesystem::remove(outPath_); }

    // Starts bench_ts (or `bin`); optionally interrupts it once `interruptAfter` shows.
    BenchRun Run(const std::vector<std::string>& args, const std::string& interruptAfter = "",
                 const std::string& bin = kBenchTs) {
        std::vector<std::string> argv{bin};
        argv.insert(argv.end(), args.begin(), args.end());
        Kid kid;
        kid.pid = Start(argv, outPath_);
        BenchRun r;
        if (kid.pid <= 0) return r;
        if (!interruptAfter.empty()) {
            for (int i = 0; i < 1000; ++i) {
                if (kit::ReadWholeFile(outPath_).value_or("").find(interruptAfter) != std::string::npos) break;
                kit::SleepMs(20);
            }
            kill(kid.pid, SIGINT);
        }
        int status = 0;
        if (kit::WaitChild(kid.pid, 60000, &status)) {
            kid.pid = -1;
            r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        r.output = kit::ReadWholeFile(outPath_).value_or("");
        return r;
    }

    std::string outPath_ = "/tmp/bench_ts_test_" + std::to_string(getpid()) + ".out";
};

TEST_F(BenchTsTest, ShortRunReportsBothRelaysAndCleansUp) {
    BenchRun r = Run({"--comp", kBuild + "/comp", "--levels", "3", "--clients", "2", "--rounds", "1", "--seconds",
                      "0.3", "--warmup", "0", "--idle", "0.3"});
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("Idle CPU over"), std::string::npos) << r.output;
    for (const char* line : {"deadline,  2 clients: throughput", "fixed,     2 clients: throughput", "TS deadline",
                             "TC deadline", "TS fixed", "TC fixed", "deadline/base"})
        EXPECT_NE(r.output.find(line), std::string::npos) << line << "\n" << r.output;
    EXPECT_EQ(r.output.find("warning"), std::string::npos) << r.output;
    EXPECT_NE(r.output.find("router: stopped"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("failed exchanges"), std::string::npos) << r.output;
    r.ExpectNothingLeft();
}

TEST_F(BenchTsTest, CountsSystemCallsPerExchangeWithPerfTrace) {
    if (access("/usr/bin/perf", X_OK) != 0) GTEST_SKIP() << "perf is not installed";
    BenchRun r = Run({"--comp", kBuild + "/comp", "--levels", "3", "--clients", "1", "--rounds", "1", "--seconds",
                      "0.3", "--warmup", "0", "--idle", "0", "--syscalls"});
    ASSERT_EQ(r.status, 0) << r.output;
    // Every relay's successful accepts are its exchanges: accept and accept4 add up to one.
    double accepts[3] = {0, 0, 0};
    const std::regex row("\naccept4? +([0-9.]+) +([0-9.]+) +([0-9.]+)");
    for (auto it = std::sregex_iterator(r.output.begin(), r.output.end(), row); it != std::sregex_iterator(); ++it)
        for (int k = 0; k < 3; ++k) accepts[k] += std::stod((*it)[k + 1].str());
    if (accepts[2] == 0) GTEST_SKIP() << "perf trace counted nothing here\n" << r.output;
    for (double a : accepts) EXPECT_NEAR(a, 1.0, 0.02) << r.output;
    EXPECT_TRUE(std::regex_search(r.output, std::regex("\nrt_sigprocmask +[1-9]"))) << r.output;
    r.ExpectNothingLeft();
}

TEST_F(BenchTsTest, InterruptedRunStopsItsProcessesAndRemovesThePlatform) {
    BenchRun r = Run({"--comp", kBuild + "/comp", "--seconds", "5"}, "comp pid");
    EXPECT_EQ(r.status, 130) << r.output;
    EXPECT_NE(r.output.find("interrupted"), std::string::npos) << r.output;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(r.output, m, std::regex("comp pid (\\d+)"))) << r.output;
    EXPECT_FALSE(kit::ProcessAlive(static_cast<pid_t>(std::stol(m[1].str()))));
    r.ExpectNothingLeft();
}

// bench_fw plays the supervisor of FWB and FWS and runs the baseline relay
// pair: all three sides answer every request, and nothing is left.
TEST_F(BenchTsTest, ForwarderBenchShortRunReportsAllSidesAndCleansUp) {
    BenchRun r = Run({"--comp", kBuild + "/comp", "--styles", "deadline", "--clients", "2", "--rounds", "1",
                      "--seconds", "0.3", "--warmup", "0"},
                     "", kBenchFw);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char* side : {"comp FWB+FWS", "baseline pair", "comp TS (1 hop)"})
        EXPECT_NE(r.output.find(std::string("deadline 2       ") + side), std::string::npos) << side << r.output;
    EXPECT_NE(r.output.find("pair/TS: CPU/msg"), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find(" failed, first:"), std::string::npos) << r.output;
    r.ExpectNothingLeft();
}

TEST_F(BenchTsTest, RefusesBadOptions) {
    EXPECT_EQ(Run({"--rounds", "0"}).status, 2);
    EXPECT_EQ(Run({"--clients", "1,x"}).status, 2);
    EXPECT_EQ(Run({"--comp", "/nonexistent/comp"}).status, 1);
}

// bench_pc in both wait styles with one reconnect each, run to its end.
TEST(BenchPc, ShortRunReportsBothRelaysBothStylesAndAReconnectAndCleansUp) {
    REQUIRE_BIG_QUEUE_MESSAGES();
    const std::string out = "/tmp/bench_pc_test_" + std::to_string(getpid()) + ".out";
    Kid kid;
    kid.pid = Start({kBuild + "/bench/bench_pc", "--comp", kBuild + "/comp", "--rounds", "1", "--seconds", "0.3",
                     "--warmup", "0", "--inflight", "2", "--reconnects", "1"},
                    out);
    int status = -1;
    ASSERT_TRUE(kit::WaitChild(kid.pid, 60000, &status));
    kid.pid = -1;
    BenchRun r{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), kit::ReadWholeFile(out).value_or("")};
    std::filesystem::remove(out);
    ASSERT_EQ(r.status, 0) << r.output;
    for (const char* style : {"fixed", "deadline"}) {
        EXPECT_TRUE(std::regex_search(r.output, std::regex(std::string(style) + " +2 in flight: throughput")))
            << r.output;
        EXPECT_TRUE(std::regex_search(r.output, std::regex(std::string(style) + " +1 reconnects: N003 -> N001")))
            << r.output;
    }
    EXPECT_EQ(r.output.find("lost or wrong"), std::string::npos) << r.output;
    r.ExpectNothingLeft();
    const int bad = Start({kBuild + "/bench/bench_pc", "--inflight", "0"});
    ASSERT_TRUE(kit::WaitChild(bad, 10000, &status));
    EXPECT_EQ(WEXITSTATUS(status), 2);
}

}  // namespace
