// The forwarder pair end to end on the stand-in platform: clients -> FWB ->
// FWS -> the router's echo and back, with compkit's supervisor sharing both
// listeners and starting (and restarting) both instances.
#include <signal.h>

#include <sstream>

#include "FwLinkPeer.h"
#include "Platform.h"
#include "kit/KitProc.h"

namespace {

using comptest::Frame;
using comptest::Send;

class FwPairTest : public comptest::PlatformTest {
protected:
    void TearDown() override {
        if (supervisor > 0) {
            kill(supervisor, SIGTERM);
            int status = 0;
            EXPECT_TRUE(kit::WaitChild(supervisor, 15000, &status)) << Output();
        }
        PlatformTest::TearDown();
    }
    // Both routes on loopback, FWB's upper address at FWS's listener.
    void StartPair() {
        clientPort = comptest::FreeLoopbackPort();
        const int linkPort = comptest::FreeLoopbackPort();
        comptest::RouteRow fwb = comptest::MakeRouteRow(60, "127.0.0.1:" + std::to_string(clientPort), "0");
        fwb["IPPORTUPPER"] = "127.0.0.1:" + std::to_string(linkPort);
        fwb["RECONNINTERVAL"] = "1";
        comptest::PlatformSetup setup;
        setup.routes = {fwb, comptest::MakeRouteRow(61, "127.0.0.1:" + std::to_string(linkPort), "0")};
        setup.appVars = {{"FTPSERVER", "ftp.pair"}, {"FTPUSER", "pairuser"}, {"FTPPWD", "pairpw"}};
        StartPlatform(setup);
        std::ostringstream cfg;
        cfg << "route 60 SysTCPFWB listen 127.0.0.1:" << clientPort << "\n"
            << "route 61 SysTCPFWS echo listen 127.0.0.1:" << linkPort << "\n"
            << "instance 60 1\ninstance 61 1\n";
        run.write("etc/compkit.cfg", cfg.str());
        kit::SpawnOptions plan;
        plan.path = comptest::CompkitBinary();
        plan.argv = {plan.path, "run", run.path()};
        plan.outputPath = run.file("log/run.out");
        std::string why;
        ASSERT_GT(supervisor = kit::Spawn(plan, &why), 0) << why;
        // Up when FWS has taken FWB's link.
        ASSERT_TRUE(WaitFor("accept reported by FWS61_1", 1)) << Output();
    }
    std::string Output() const { return comptest::ReadFile(run.file("log/run.out")); }
    bool WaitFor(const std::string& text, int count, int ms = 10000) const {
        for (const int64_t end = kit::NowMs() + ms;; kit::SleepMs(20)) {
            const std::string s = Output();
            int n = 0;
            for (size_t p = s.find(text); p != std::string::npos; p = s.find(text, p + 1)) ++n;
            if (n >= count) return true;
            if (kit::NowMs() >= end) return false;
        }
    }
    // The pid of the last "started NAME (...) pid N" line.
    pid_t Started(const std::string& name) const {
        const std::string s = Output();
        size_t at = s.rfind("started " + name + " (");
        if (at == std::string::npos) return -1;
        size_t eol = s.find('\n', at);
        return std::stoi(s.substr(s.rfind(' ', eol) + 1, eol - s.rfind(' ', eol) - 1));
    }
    // Clients that the supervisor had FWB accept; each has its "N001" at the router.
    std::vector<comp::UniqueFd> Clients(int n) {
        std::vector<comp::UniqueFd> out;
        for (int i = 0; i < n; ++i) {
            out.push_back(comptest::Connect(clientPort));
            EXPECT_TRUE(WaitFor("N001 pid", ++announced)) << Output();
        }
        return out;
    }

    pid_t supervisor = -1;
    int clientPort = 0;
    int announced = 0;
};

TEST_F(FwPairTest, sixteen_clients_through_the_pair_get_their_own_answers) {
    StartPair();
    std::vector<comp::UniqueFd> clients = Clients(16);
    EXPECT_TRUE(WaitFor("[ftp.pair] [pairuser] [pairpw]", 16)) << "N001 carries FWB's FTP settings";
    for (int round = 0; round < 3; ++round) {
        auto text = [round](size_t i) {
            return "c" + std::to_string(i) + " r" + std::to_string(round);
        };
        for (size_t i = 0; i < clients.size(); ++i)
            ASSERT_TRUE(Send(clients[i].get(), Frame(text(i))));
        for (size_t i = 0; i < clients.size(); ++i)
            EXPECT_EQ(fwtest::ReadMessage(clients[i].get(), 5000), Frame(text(i))) << Output();
    }
    clients[3].reset();
    EXPECT_TRUE(WaitFor("N003 pid", 1)) << "a client leaving FWB leaves TranP too";
}

// Either end of the link dropping takes the clients with it; the pair comes
// back once the one that ended is started again (the supervisor restarts
// nothing by itself; SIGUSR1 asks it to), FWB reconnecting by timer.
TEST_F(FwPairTest, either_end_of_the_link_dropping_ends_its_clients_and_the_pair_recovers) {
    StartPair();
    std::vector<comp::UniqueFd> clients = Clients(2);
    kill(Started("FWS61_1"), SIGKILL);
    for (comp::UniqueFd& c : clients) {
        bool closed = false;
        comptest::ReadUntilClose(c.get(), 5000, &closed);
        EXPECT_TRUE(closed) << Output();
    }
    ASSERT_TRUE(WaitFor("killed by signal 9; not restarted", 1)) << Output();
    kill(supervisor, SIGUSR1);
    ASSERT_TRUE(WaitFor("accept reported by FWS61_1", 2)) << "FWB's link is back" << Output();

    clients = Clients(3);
    ASSERT_TRUE(Send(clients[0].get(), Frame("after")));
    EXPECT_EQ(fwtest::ReadMessage(clients[0].get(), 5000), Frame("after"));
    kill(Started("FWB60_1"), SIGKILL);
    EXPECT_TRUE(WaitFor("N003 pid", 3)) << "FWS ends each client of the lost link" << Output();
    ASSERT_TRUE(WaitFor("killed by signal 9; not restarted", 2)) << Output();
    kill(supervisor, SIGUSR1);
    ASSERT_TRUE(WaitFor("accept reported by FWS61_1", 3)) << Output();
    clients = Clients(1);
    ASSERT_TRUE(Send(clients[0].get(), Frame("again")));
    EXPECT_EQ(fwtest::ReadMessage(clients[0].get(), 5000), Frame("again"));
}

}  // namespace
