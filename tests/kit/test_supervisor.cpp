// compkit run as a whole process: it starts instances, restarts one that is
// killed, hands a shared listener's clients to its instances in turn, and on
// SIGTERM stops everything and takes the platform down. The instances are
// this test program started again as a small stand-in for comp.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "Platform.h"
#include "comp/SysComPub.h"
#include "comp/SysGlobals.h"
#include "ipc/SysFIFO.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"
#include "kit/NetTools.h"

namespace {

// The stand-in instance: logs on, serves its control FIFO ("0": accept one
// client on the inherited listener, greet it, report code 9; "x": quit), logs
// off. It leaves its control FIFO for the supervisor to remove.
int FakeComp(const std::vector<std::string>& argv) {
    if (argv.size() < 6) return 2;
    const char* runDir = std::getenv("RUNDIR");
    kit::DirectLogs(runDir ? runDir : "/tmp", "fake");
    if (SysComInit() != 0) return 255;
    const int q6 = g_stMsgQCntl[comp::kQueueCommonp].iId;
    SysTellCommonp(q6, comp::kCommonpLogon);
    const int listener = std::atoi(argv[4].c_str());
    const std::string ctlName = std::to_string(getpid()) + "_" + argv[3];
    const int ctl = iOpenFIFO(ctlName.c_str(), comp::kFifoControl);
    for (;;) {
        pollfd p{ctl, POLLIN, 0};
        poll(&p, 1, 200);
        char c = 0;
        if (!(p.revents & POLLIN) || iReadFIFO2Buf(ctl, &c) != 0) continue;
        if (c == 'x') break;
        if (c != '0') continue;
        int fd = accept(listener, nullptr, nullptr);
        SysTellCommonp(q6, comp::kCommonpAccepted);
        if (fd >= 0) {
            const std::string hello = "hello from " + argv[5];
            (void)!write(fd, hello.data(), hello.size());
            close(fd);
        }
    }
    SysTellCommonp(q6, comp::kCommonpLogoff);
    return 0;
}

const bool g_playsComp = [] {
    if (std::getenv("COMPKIT_FAKE_COMP") == nullptr) return false;
    std::string cmd = kit::ReadWholeFile("/proc/self/cmdline").value_or("");
    std::vector<std::string> argv;
    for (size_t pos = 0; pos < cmd.size();) {
        size_t end = cmd.find('\0', pos);
        if (end == std::string::npos) end = cmd.size();
        argv.push_back(cmd.substr(pos, end - pos));
        pos = end + 1;
    }
    _exit(FakeComp(argv));
}();

class SupervisorTest : public comptest::PlatformTest {
protected:
    void StartSupervisor(const std::string& compkitCfg) {
        StartPlatform();
        if (HasFatalFailure()) return;
        run.write("etc/compkit.cfg", compkitCfg);
        output = run.file("log/run.out");
        setenv("COMPKIT_COMP", kit::SelfExe().c_str(), 1);
        setenv("COMPKIT_FAKE_COMP", "1", 1);
        kit::SpawnOptions plan;
        plan.path = comptest::CompkitBinary();
        plan.argv = {plan.path, "run", run.path()};
        plan.outputPath = output;
        std::string why;
        supervisor = kit::Spawn(plan, &why);
        unsetenv("COMPKIT_COMP");
        unsetenv("COMPKIT_FAKE_COMP");
        ASSERT_GT(supervisor, 0) << why;
    }
    void TearDown() override {
        if (supervisor > 0) kit::StopChild(supervisor, 10000);
        PlatformTest::TearDown();
    }
    std::string Output() const { return comptest::ReadFile(output); }
    // Lines of the output that hold every one of the texts, in this order.
    std::vector<std::string> Lines(std::initializer_list<std::string> texts) const {
        std::vector<std::string> out;
        std::istringstream in(Output());
        for (std::string line; std::getline(in, line);) {
            size_t at = 0;
            bool all = true;
            for (const std::string& t : texts) {
                at = line.find(t, at);
                if (at == std::string::npos) {
                    all = false;
                    break;
                }
                at += t.size();
            }
            if (all) out.push_back(line);
        }
        return out;
    }
    // Waits until `count` lines hold the texts.
    bool WaitFor(std::initializer_list<std::string> texts, size_t count, int timeoutMs = 10000) {
        const int64_t deadline = kit::NowMs() + timeoutMs;
        while (Lines(texts).size() < count) {
            if (kit::NowMs() >= deadline) return false;
            kit::SleepMs(20);
        }
        return true;
    }
    // Pids of the "started NAME (...) pid N" lines, in order.
    std::vector<pid_t> Started(const std::string& name) const {
        std::vector<pid_t> pids;
        for (const std::string& line : Lines({"started " + name, ") pid "}))
            pids.push_back(std::stoi(line.substr(line.rfind(' ') + 1)));
        return pids;
    }
    int StopSupervisor() {
        kill(supervisor, SIGTERM);
        int status = 0;
        const bool ended = kit::WaitChild(supervisor, 15000, &status);
        supervisor = -1;
        return ended ? status : -1;
    }
    static size_t FifoCount(const std::string& dir) {
        size_t n = 0;
        for (const auto& e : std::filesystem::directory_iterator(dir)) n += e.is_fifo() ? 1 : 0;
        return n;
    }

    pid_t supervisor = -1;
    std::string output;
};

TEST_F(SupervisorTest, restarts_a_killed_instance_and_stops_all_on_sigterm) {
    StartSupervisor("route 20 SysTCPTC\ninstance 20 1\ninstance 20 2\n");
    ASSERT_TRUE(WaitFor({"logon: TC20_"}, 2)) << Output();
    std::vector<pid_t> first = Started("TC20_1");
    ASSERT_EQ(first.size(), 1u);
    ASSERT_EQ(kit::ParentOf(first[0]), supervisor);
    kill(first[0], SIGKILL);

    ASSERT_TRUE(WaitFor({"TC20_1 pid ", " killed by signal 9; restarting in 1 s"}, 1)) << Output();
    ASSERT_TRUE(WaitFor({"logon: TC20_1"}, 2)) << Output();
    std::vector<pid_t> again = Started("TC20_1");
    ASSERT_EQ(again.size(), 2u);
    EXPECT_NE(again[1], first[0]);
    EXPECT_FALSE(std::filesystem::exists(run.file("fifo/3_" + std::to_string(first[0]) + "_1")))
        << "the killed instance's control FIFO is removed";

    std::vector<pid_t> all = Started("TC20_");
    EXPECT_EQ(StopSupervisor(), 0) << Output();
    EXPECT_EQ(Lines({"logoff: TC20_1"}).size(), 1u) << "the killed one could not log off" << Output();
    EXPECT_EQ(Lines({"logoff: TC20_2"}).size(), 1u) << Output();
    EXPECT_EQ(Lines({"down: ", " IPC objects removed"}).size(), 1u) << Output();
    for (pid_t pid : all) EXPECT_FALSE(kit::ProcessAlive(pid)) << pid;
    EXPECT_LT(QueueId(comp::kQueueCommonp), 0) << "the platform was taken down";
    EXPECT_EQ(FifoCount(run.file("fifo")), 0u);
}

TEST_F(SupervisorTest, hands_each_waiting_client_of_a_shared_listener_to_the_next_instance) {
    const int port = comptest::FreeLoopbackPort();
    StartSupervisor("route 30 SysTCPPS echo listen 127.0.0.1:" + std::to_string(port) +
                    "\ninstance 30 1\ninstance 30 2\n");
    ASSERT_TRUE(WaitFor({"logon: PS30_"}, 2)) << Output();
    std::vector<std::string> greetings;
    for (int i = 0; i < 2; ++i) {
        std::string why;
        kit::UniqueFd fd(kit::ConnectTo("127.0.0.1", port, 2000, &why));
        ASSERT_TRUE(fd.valid()) << why;
        pollfd p{fd.get(), POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 5000), 1) << Output();
        char buf[64] = {0};
        ASSERT_GT(read(fd.get(), buf, sizeof buf - 1), 0);
        greetings.emplace_back(buf);
        ASSERT_TRUE(WaitFor({"accept reported by PS30_"}, static_cast<size_t>(i + 1))) << Output();
    }
    EXPECT_EQ(greetings, (std::vector<std::string>{"hello from PS30_1", "hello from PS30_2"}));
    EXPECT_EQ(StopSupervisor(), 0) << Output();
}

}  // namespace
