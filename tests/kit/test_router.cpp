// The stand-in router: the queue type, header form and FIFO of every answer
// it gives, and the order in which relayed answers find their requests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "Platform.h"
#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "ipc/SysFIFO.h"
#include "kit/Framing.h"
#include "kit/KitConfig.h"
#include "kit/KitUtil.h"
#include "kit/NetTools.h"
#include "kit/Router.h"

namespace {

namespace p = comp::plat;

// A PlatMsg as a comp builds it (kind 0, or a notification).
std::vector<char> PlatMsg(int pid, int route, int sock, int port, const std::string& ip, const std::string& body,
                          uint16_t kind = 0) {
    std::vector<char> m(static_cast<size_t>(p::kHeaderLen) + body.size(), 0);
    auto put16 = [&](int off, uint16_t v) { std::memcpy(&m[static_cast<size_t>(off)], &v, 2); };
    auto put32 = [&](int off, int32_t v) { std::memcpy(&m[static_cast<size_t>(off)], &v, 4); };
    put16(p::kTotalLen, static_cast<uint16_t>(m.size()));
    put16(p::kKind, kind);
    put32(p::kPid, pid);
    put32(p::kPid2, pid);
    put16(p::kRoute, static_cast<uint16_t>(route));
    put16(p::kRoute2, static_cast<uint16_t>(route));
    put32(p::kSock, sock);
    put32(p::kSock2, sock);
    put32(p::kPort, port);
    std::memcpy(&m[p::kIp], ip.data(), ip.size());
    std::memcpy(&m[p::kIp2], ip.data(), ip.size());
    m[p::kFlag] = 'M';
    std::memcpy(&m[p::kHeaderLen], body.data(), body.size());
    return m;
}

int32_t Int32At(const char* t, int off) {
    int32_t v;
    std::memcpy(&v, t + off, 4);
    return v;
}

class RouterTest : public ::testing::Test {
protected:
    void SetUp() override {
        SysResetGlobals();
        kit::DirectLogs(run.path(), "router");
        q7 = keys.newQueue();
        q8 = keys.newQueue();
        ASSERT_GE(q7, 0);
        ASSERT_GE(q8, 0);
    }
    void TearDown() override {
        for (int fd : fifos) close(fd);
        SysResetGlobals();
    }

    void Configure(const std::string& text) {
        kit::KitConfig cfg;
        std::string why;
        ASSERT_TRUE(kit::ParseKitConfig(text, "compkit.cfg", &cfg, &why)) << why;
        router = std::make_unique<kit::Router>(run.path(), cfg, q7, q8);
    }
    // A comp's FIFO, held open as the comp would.
    int Fifo(const std::string& name, int kind) {
        int fd = iOpenFIFO(name.c_str(), kind);
        EXPECT_GE(fd, 0);
        fifos.push_back(fd);
        return fd;
    }
    // Doorbell bytes waiting on a FIFO.
    static int Rings(int fd) {
        int n = 0;
        char c;
        while (read(fd, &c, 1) == 1) {
            EXPECT_EQ(c, '0');
            ++n;
        }
        return n;
    }
    void Route(const std::vector<char>& m) { router->handle(m.data(), static_cast<int>(m.size()), &trace); }
    // The next message of `type` on queue 8 (0 bytes when there is none).
    int Answer(long type) { return kit::ReadQueue(q8, type, buf.get(), 100); }
    std::string Trace() const {
        std::string all;
        for (const auto& l : trace) all += l + "\n";
        return all;
    }

    comptest::TempRunDir run;
    comptest::IpcKeys keys;
    int q7 = -1, q8 = -1;
    std::unique_ptr<kit::Router> router;
    std::vector<int> fifos;
    std::vector<std::string> trace;
    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
};

TEST_F(RouterTest, ts_echo_is_typed_with_the_pid_and_carries_the_peer_ip_at_offset_24) {
    Configure("route 10 SysTCPTS echo\n");
    int ring = Fifo("4242", comp::kFifoPidNotify);
    Route(PlatMsg(4242, 10, 7, 5555, "10.1.2.3", "0005hello"));
    ASSERT_EQ(Answer(4242), 64 + 9) << Trace();
    EXPECT_EQ(Int32At(buf->caText, p::kSock), 7);
    EXPECT_STREQ(buf->caText + p::kPort, "10.1.2.3");
    EXPECT_EQ(std::string(buf->caText + 64, 9), "0005hello");
    uint16_t total;
    std::memcpy(&total, buf->caText, 2);
    EXPECT_EQ(total, 73);
    EXPECT_EQ(Rings(ring), 1);
}

TEST_F(RouterTest, pid_echo_keeps_descriptor_port_and_ip_in_place) {
    Configure("route 30 SysTCPPAS echo listen 127.0.0.1:1\n");
    int ring = Fifo("4243", comp::kFifoPidNotify);
    Route(PlatMsg(4243, 30, 9, 6000, "10.9.8.7", "0002hi"));
    ASSERT_EQ(Answer(4243), 64 + 6) << Trace();
    EXPECT_EQ(Int32At(buf->caText, p::kSock), 9);
    EXPECT_EQ(Int32At(buf->caText, p::kPort), 6000);
    EXPECT_STREQ(buf->caText + p::kIp, "10.9.8.7");
    EXPECT_EQ(Rings(ring), 1);
}

TEST_F(RouterTest, route_addressed_echo_rings_the_route_instances_in_turn) {
    Configure("route 20 SysTCPPC echo\n");
    int one = Fifo("20_1", comp::kFifoRouteNotify);
    int two = Fifo("20_2", comp::kFifoRouteNotify);
    Route(PlatMsg(5000, 20, 3, 7020, "127.0.0.1", "0001a"));
    Route(PlatMsg(5000, 20, 3, 7020, "127.0.0.1", "0001b"));
    EXPECT_EQ(Answer(5000), 0) << "route-addressed modes read by route, not by pid";
    ASSERT_EQ(Answer(20), 69) << Trace();
    EXPECT_EQ(buf->caText[64 + 4], 'a');
    ASSERT_EQ(Answer(20), 69);
    EXPECT_EQ(Rings(one), 1);
    EXPECT_EQ(Rings(two), 1);
}

TEST_F(RouterTest, relayed_answers_return_to_the_requests_in_order) {
    Configure("route 10 SysTCPTS relay 20\nroute 20 SysTCPTC\n");
    int tsRing = Fifo("4242", comp::kFifoPidNotify);
    int tcRing = Fifo("20_1", comp::kFifoRouteNotify);
    Route(PlatMsg(4242, 10, 7, 5001, "10.0.0.1", "0001A"));
    Route(PlatMsg(4242, 10, 8, 5002, "10.0.0.2", "0001B"));
    ASSERT_EQ(Answer(20), 69) << Trace();
    EXPECT_EQ(Int32At(buf->caText, p::kSock), 7) << "the request goes to the client route as it came";
    ASSERT_EQ(Answer(20), 69);
    EXPECT_EQ(Rings(tcRing), 2);
    EXPECT_EQ(router->book().waiting(20), 2u);

    // The TC answers carry the TC's pid, route 20 and its own socket only.
    Route(PlatMsg(6000, 20, 4, 7020, "127.0.0.1", "0002ra"));
    Route(PlatMsg(6000, 20, 5, 7020, "127.0.0.1", "0002rb"));
    ASSERT_EQ(Answer(4242), 70) << Trace();
    EXPECT_EQ(Int32At(buf->caText, p::kSock), 7);
    EXPECT_STREQ(buf->caText + p::kPort, "10.0.0.1");
    EXPECT_EQ(std::string(buf->caText + 64, 6), "0002ra");
    ASSERT_EQ(Answer(4242), 70);
    EXPECT_EQ(Int32At(buf->caText, p::kSock), 8);
    EXPECT_STREQ(buf->caText + p::kPort, "10.0.0.2");
    EXPECT_EQ(Rings(tsRing), 2);
    EXPECT_EQ(router->book().waiting(20), 0u);

    Route(PlatMsg(6000, 20, 4, 7020, "127.0.0.1", "0005late!"));
    EXPECT_EQ(Answer(0), 0);
    EXPECT_NE(Trace().find("matches no waiting request"), std::string::npos) << Trace();
}

TEST_F(RouterTest, nothing_is_queued_for_a_reader_whose_fifo_is_gone) {
    Configure("route 10 SysTCPTS echo\nroute 11 SysTCPTS relay 20\nroute 20 SysTCPTC\n");
    Route(PlatMsg(4242, 10, 7, 5001, "10.0.0.1", "0001A"));
    Route(PlatMsg(4242, 11, 7, 5001, "10.0.0.1", "0001A"));
    EXPECT_EQ(Answer(0), 0);
    EXPECT_EQ(router->book().waiting(20), 0u) << "an undelivered request waits for no answer";
    EXPECT_NE(Trace().find("FIFO 1_4242 is missing"), std::string::npos) << Trace();
    EXPECT_NE(Trace().find("no FIFO 2_20_*"), std::string::npos) << Trace();
}

TEST_F(RouterTest, notifications_are_traced_and_not_answered) {
    Configure("route 10 SysTCPPAS echo listen 127.0.0.1:1\n");
    Fifo("4242", comp::kFifoPidNotify);
    std::string body(68, '\0');
    std::memcpy(&body[0], "N001", 4);
    std::memcpy(&body[4], "10.0.0.9", 8);
    std::memcpy(&body[20], "0.0.0.0", 7);
    Route(PlatMsg(4242, 10, 7, 5009, "10.0.0.9", body, 1));
    EXPECT_EQ(Answer(0), 0);
    ASSERT_FALSE(trace.empty());
    EXPECT_EQ(trace[0], "<- N001 pid 4242 route 10 fd 7 ip 10.0.0.9 port 5009 [0.0.0.0] [] []");
}

TEST(RelayBook, forgets_requests_past_their_age) {
    kit::RelayBook book;
    book.push(20, {std::vector<char>(64), kit::AnswerForm::kTsPeerIpAt24, 1000});
    book.push(20, {std::vector<char>(64), kit::AnswerForm::kTsPeerIpAt24, 5000});
    EXPECT_EQ(book.expire(6001, 2000), 1);
    EXPECT_EQ(book.waiting(20), 1u);
}

}  // namespace

namespace {

// The TS answer form against the real mode: the router's answer finds the
// connection that asked.
class RouterWithComp : public comptest::PlatformTest {};

TEST_F(RouterWithComp, ts_answer_form_reaches_the_client_that_asked) {
    const int port = comptest::FreeLoopbackPort();
    comptest::PlatformSetup setup;
    setup.routes = {comptest::MakeRouteRow(10, "127.0.0.1:" + std::to_string(port), "0")};
    StartPlatform(setup);
    const size_t ts = StartComp({"SysTCPTS", "10", "1", "0", "kit10_1"});
    kit::UniqueFd client;
    std::string why;
    for (int i = 0; i < 100 && !client.valid(); ++i) {
        client.reset(kit::ConnectTo("127.0.0.1", port, 1000, &why));
        if (!client.valid()) kit::SleepMs(50);
    }
    ASSERT_TRUE(client.valid()) << why << CompOutput(ts) << AllLogs();
    ASSERT_EQ(write(client.get(), "0005hello", 9), 9);

    auto buf = std::make_unique<QueueMsg>();
    const int len = ReadToTranp(buf.get(), comp(ts).pid, 5000);
    ASSERT_EQ(len, 64 + 9) << AllLogs();
    kit::Delivery d;
    ASSERT_TRUE(kit::BuildAnswer(kit::AnswerForm::kTsPeerIpAt24, buf->caText, "0002ok", 6, &d.text));
    d.type = comp(ts).pid;
    d.fifoKind = comp::kFifoPidNotify;
    d.fifoName = std::to_string(comp(ts).pid);
    ASSERT_TRUE(DeliverToComp(d));

    std::vector<char> answer;
    kit::Framing f;
    EXPECT_TRUE(kit::ReadFramed(client.get(), f, 5000, &answer, &why)) << why << AllLogs();
    EXPECT_EQ(std::string(answer.begin(), answer.end()), "0002ok");
}

}  // namespace
