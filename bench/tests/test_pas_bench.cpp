// The parts of bench_pas: the clients' addresses and messages, the scale
// clients against an echo server that may lose a message, the accept driver
// against stand-in instances, and a short bench_pas run that leaves nothing
// behind.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <memory>
#include <regex>
#include <set>
#include <thread>

#include "AcceptDriver.h"
#include "PersistentLoad.h"
#include "ProcStat.h"
#include "base/SysTypes.h"
#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

TEST(PasBenchParts, EveryClientHasALoopbackAddressOfItsOwn) {
    EXPECT_EQ(bench::LoopbackSource(20, 0), "127.20.1.1");
    EXPECT_EQ(bench::LoopbackSource(20, 249), "127.20.1.250");
    EXPECT_EQ(bench::LoopbackSource(20, 250), "127.20.2.1");
    std::set<std::string> seen;
    for (int i = 0; i < 10000; ++i) seen.insert(bench::LoopbackSource(100, i));
    EXPECT_EQ(seen.size(), 10000u);
}

TEST(PasBenchParts, ScaleMessagesNameTheirClientAndNumber) {
    const std::string m = bench::ScaleMessage(1234, 7);
    EXPECT_EQ(m, "0020DATA0000123400000007");
    uint32_t client = 0, seq = 0;
    ASSERT_TRUE(bench::ParseScaleMessage(m.data(), m.size(), &client, &seq));
    EXPECT_EQ(client, 1234u);
    EXPECT_EQ(seq, 7u);
    EXPECT_FALSE(bench::ParseScaleMessage(m.data(), m.size() - 1, &client, &seq));
    EXPECT_FALSE(bench::ParseScaleMessage("0020DATA00001234x0000007", 24, &client, &seq));
    EXPECT_FALSE(bench::ParseScaleMessage("0020BEAT0000123400000007", 24, &client, &seq));
}

TEST(PasBenchParts, ReadsResidentAndSlabSizes) {
    EXPECT_EQ(bench::ParseStatusKiB("Name:\tcomp\nVmHWM:\t  900 kB\nVmRSS:\t  812 kB\n", "VmRSS:"), 812u);
    EXPECT_EQ(bench::ParseStatusKiB("MemFree: 5 kB\nSlab:   1024 kB\nSReclaimable: 7 kB\n", "Slab:"), 1024u);
    EXPECT_FALSE(bench::ParseStatusKiB("VmRSS:\n", "VmRSS:"));
    EXPECT_FALSE(bench::ParseStatusKiB("xVmRSS: 5 kB\n", "VmRSS:"));
    EXPECT_GT(bench::ProcessRssKiB(getpid()).value_or(0), 0u);
    EXPECT_TRUE(bench::KernelSlabKiB());
    auto t = bench::ParseSchedStat("2500000 700000 41\n");
    ASSERT_TRUE(t);
    EXPECT_EQ(t->runNs, 2500000u);
    EXPECT_EQ(t->waitNs, 700000u);
    EXPECT_FALSE(bench::ParseSchedStat("2500000\n"));
    EXPECT_TRUE(bench::ProcessSchedTimes(getpid()));
}

// Echoes every 24-byte message on every connection, except the one numbered
// `drop`, which it swallows.
class EchoServer {
public:
    explicit EchoServer(uint32_t drop = UINT32_MAX) : drop_(drop) {
        listener_.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof sa;
        if (bind(listener_.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0 &&
            listen(listener_.get(), 512) == 0 && getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&sa), &len) == 0)
            port_ = ntohs(sa.sin_port);
        thread_ = std::thread([this] { Serve(); });
    }
    ~EchoServer() {
        stop_ = true;
        thread_.join();
        for (const pollfd& p : fds_) close(p.fd);
    }
    int port() const { return port_; }
    uint64_t accepted() const { return accepted_; }

private:
    void Serve() {
        while (!stop_) {
            for (int c; (c = accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0; ++accepted_)
                fds_.push_back({c, POLLIN, 0});
            if (poll(fds_.data(), fds_.size(), 5) <= 0) continue;
            for (pollfd& p : fds_) {
                if (!(p.revents & POLLIN)) continue;
                char m[24];
                if (recv(p.fd, m, sizeof m, MSG_WAITALL) != sizeof m) continue;
                uint32_t client = 0, seq = 0;
                if (bench::ParseScaleMessage(m, sizeof m, &client, &seq) && client * 10 + seq == drop_) continue;
                send(p.fd, m, sizeof m, MSG_NOSIGNAL);
            }
        }
    }
    uint32_t drop_;
    kit::UniqueFd listener_;
    std::vector<pollfd> fds_;
    std::atomic<uint64_t> accepted_{0};
    std::atomic<bool> stop_{false};
    int port_ = 0;
    std::thread thread_;
};

TEST(ScaleClients, EveryMessageIsAnsweredAndALostOneIsCounted) {
    for (uint32_t drop : {UINT32_MAX, 3u * 10 + 2}) {   // nothing lost; client 3's second message lost
        EchoServer echo(drop);
        bench::ScaleClients clients(echo.port(), 40, 30);
        std::string why;
        ASSERT_TRUE(clients.Connect([&] { return echo.accepted(); }, 8, nullptr, &why)) << why;
        bench::ScaleResult r = clients.Exchange(200, 0.6, 1000, nullptr);
        EXPECT_EQ(r.sent, 40u * 3) << "three rounds of 200 ms";
        EXPECT_EQ(r.answered, r.sent - (drop == UINT32_MAX ? 0 : 1));
        EXPECT_EQ(r.rttUs.size() + r.late, r.answered);
        EXPECT_EQ(r.wrong + r.closed + r.sendFailures, 0u);
        EXPECT_EQ(clients.open(), 40);
    }
}

// Stand-in PAS instances: each takes one client from the listener per "0"
// on its FIFO and reports code 9 on the queue.
TEST(AcceptDriver, WakesOneInstancePerWaitingClientAndNeverMore) {
    const int qid = msgget(IPC_PRIVATE, IPC_CREAT | 0600);
    ASSERT_GE(qid, 0);
    const std::string dir = "/tmp/pasdriver_" + std::to_string(getpid());
    std::filesystem::create_directories(dir);
    kit::UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sa;
    ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    ASSERT_EQ(listen(listener.get(), 64), 0);
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&sa), &len), 0);

    std::atomic<bool> stop{false};
    std::atomic<int> taken{0}, missed{0};
    std::vector<bench::AcceptDriver::Instance> inst;
    std::vector<std::thread> fakes;
    for (int k = 0; k < 2; ++k) {
        const std::string fifo = dir + "/3_" + std::to_string(1000 + k) + "_1";
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        inst.push_back({1000 + k, fifo});
        const int fd = open(fifo.c_str(), O_RDWR | O_NONBLOCK);
        fakes.emplace_back([&, fd, k] {
            kit::UniqueFd in(fd);
            std::vector<kit::UniqueFd> held;
            while (!stop) {
                char cmd;
                if (read(in.get(), &cmd, 1) != 1) {
                    usleep(200);
                    continue;
                }
                kit::UniqueFd c(accept(listener.get(), nullptr, nullptr));
                (c.valid() ? taken : missed)++;
                held.push_back(std::move(c));
                struct {
                    long type;
                    char text[68];
                } report{comp::kCommonpAccepted, {}};
                const int32_t pid = 1000 + k;
                std::memcpy(report.text + comp::plat::kPid, &pid, sizeof pid);
                msgsnd(qid, &report, sizeof report.text, 0);
            }
        });
    }
    bench::AcceptDriver driver(listener.get(), qid, inst);
    std::string why;
    ASSERT_TRUE(driver.Start(&why)) << why;
    std::vector<kit::UniqueFd> clients;
    for (int i = 0; i < 30; ++i) {
        clients.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(connect(clients.back().get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
    }
    for (int64_t end = kit::NowMs() + 5000; driver.reports() < 30 && kit::NowMs() < end;) kit::SleepMs(5);
    kit::SleepMs(50);
    driver.Stop();
    stop = true;
    for (std::thread& t : fakes) t.join();
    msgctl(qid, IPC_RMID, nullptr);
    std::filesystem::remove_all(dir);
    EXPECT_EQ(taken, 30);
    EXPECT_EQ(missed, 0) << "no instance was woken for a client another one took";
    EXPECT_EQ(driver.wakes(), 30u);
}

// A short bench_pas run: both parts reported, no message lost, and its
// platform gone afterwards.
TEST(BenchPas, ShortRunReportsBothPartsAndCleansUp) {
    if (!kit::EnsureQueueLimits().empty()) GTEST_SKIP() << "64 KiB queue messages are not allowed here";
    const std::string out = "/tmp/bench_pas_test_" + std::to_string(getpid()) + ".out";
    kit::SpawnOptions plan;
    plan.path = std::string(COMP_BINARY_DIR) + "/bench/bench_pas";
    plan.argv = {plan.path, "--styles", "deadline", "--clients", "2", "--rounds", "1", "--seconds", "0.3", "--warmup",
                 "0", "--conns", "60", "--period", "0.5", "--steady", "1", "--idle", "0.2"};
    plan.outputPath = out;
    std::string why;
    pid_t pid = kit::Spawn(plan, &why);
    ASSERT_GT(pid, 0) << why;
    int status = -1;
    EXPECT_TRUE(kit::WaitChild(pid, 60000, &status));
    const std::string text = kit::ReadWholeFile(out).value_or("");
    std::filesystem::remove(out);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("deadline  2       comp/base  trips/s"), std::string::npos) << text;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(text, m, std::regex("deadline +\\d+ +\\d+ .* (\\d+) +(\\d+)\\n"))) << text;
    EXPECT_EQ(m[1].str(), "120") << "sent: 60 clients, two rounds";
    EXPECT_EQ(m[2].str(), "0") << "lost";
    ASSERT_TRUE(std::regex_search(text, m, std::regex("platform (/tmp/compbench\\.\\w+) \\(keys 0x([0-9a-f]+)")))
        << text;
    EXPECT_FALSE(std::filesystem::exists(m[1].str()));
    const key_t base = static_cast<key_t>(std::stoul(m[2].str(), nullptr, 16));
    for (int q : {6, 7, 8, 9, 10, 12}) EXPECT_LT(msgget(base + q, 0), 0) << "queue " << q;
}

}  // namespace
