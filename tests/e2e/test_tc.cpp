// Whole-process tests of the short-connection client mode: requests from the
// route's queue, a scripted server on loopback.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "NetPeer.h"
#include "Platform.h"

namespace {

using comptest::MakeRouteRow;
using comptest::PlatformSetup;
using e2e::Frame;

constexpr int kRoute = 20;

class TcTest : public comptest::PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        serverPort = comptest::FreeLoopbackPort();
    }

    void StartTc(comptest::RouteRow row = {}) {
        PlatformSetup setup;
        comptest::RouteRow base = MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(serverPort), "1");
        for (auto& [k, v] : row) base[k] = v;
        setup.routes = {base};
        StartPlatform(setup);
        c = StartComp({"SysTCPTC", std::to_string(kRoute), "1", "0", "tc20_1"});
        ASSERT_GT(ReadCommonp(buf.get(), 2, 5000), 0) << CompOutput(c) << AllLogs();
        pid = comp(c).pid;
        ASSERT_TRUE(e2e::WaitForPath(run.file("fifo/2_" + std::to_string(kRoute) + "_1"), 5000)) << AllLogs();
    }

    // TranP's request for the route: a header naming a requester, then body.
    void Request(const std::string& body) {
        kit::Delivery d;
        d.type = kRoute;
        d.text.assign(comp::kPlatHdrLen, '\0');
        int32_t reqPid = 4242, reqSock = 9;
        std::memcpy(d.text.data() + comp::plat::kPid2, &reqPid, 4);
        std::memcpy(d.text.data() + comp::plat::kSock2, &reqSock, 4);
        d.text.insert(d.text.end(), body.begin(), body.end());
        uint16_t total = (uint16_t)d.text.size();
        std::memcpy(d.text.data(), &total, 2);
        d.fifoKind = comp::kFifoRouteNotify;
        d.fifoName = std::to_string(kRoute) + "_1";
        ASSERT_TRUE(DeliverToComp(d));
    }

    template <typename T>
    T At(int off) const {
        T v{};
        std::memcpy(&v, buf->caText + off, sizeof v);
        return v;
    }

    int serverPort = 0;
    size_t c = 0;
    pid_t pid = 0;
    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
};

TEST_F(TcTest, request_goes_to_the_server_on_a_new_connection_and_the_answer_to_tranp) {
    e2e::Sock listener = e2e::Listen(serverPort);
    StartTc();
    Request(Frame("ask"));
    e2e::Sock conn = e2e::Accept(listener, 5000);
    ASSERT_GE(conn.fd(), 0) << AllLogs();
    EXPECT_EQ(conn.readN(7, 3000), Frame("ask"));
    ASSERT_TRUE(conn.send(Frame("told")));

    int len = ReadToTranp(buf.get(), pid, 5000);
    ASSERT_EQ(len, 64 + 8) << AllLogs();
    EXPECT_EQ(std::string(buf->caText + 64, 8), Frame("told"));
    EXPECT_EQ(At<uint16_t>(0), 72);
    EXPECT_EQ(At<uint16_t>(2), 0);
    EXPECT_EQ(At<int32_t>(4), pid);
    EXPECT_EQ(At<uint16_t>(12), kRoute);
    EXPECT_EQ(At<int32_t>(24), serverPort);
    EXPECT_STREQ(buf->caText + 28, "127.0.0.1");
    bool closed = false;
    conn.readUntilClose(2000, &closed);
    EXPECT_TRUE(closed) << "one answer per connection";
}

TEST_F(TcTest, server_that_never_answers_is_closed_after_the_idle_timeout) {
    e2e::Sock listener = e2e::Listen(serverPort);
    StartTc({{"IDLETIMEOUT", "1"}});
    Request(Frame("hang"));
    e2e::Sock conn = e2e::Accept(listener, 5000);
    ASSERT_GE(conn.fd(), 0);
    bool closed = false;
    conn.readUntilClose(6000, &closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(ReadToTranp(buf.get(), pid, 300), 0) << "nothing reaches TranP";
    EXPECT_NE(AllLogs().find("time out and close"), std::string::npos);
}

TEST_F(TcTest, unreachable_server_costs_only_that_request) {
    StartTc();
    Request(Frame("lost"));  // nobody listens yet
    usleep(300 * 1000);
    EXPECT_NE(AllLogs().find("iSockConnect error"), std::string::npos);
    e2e::Sock listener = e2e::Listen(serverPort);
    Request(Frame("kept"));
    e2e::Sock conn = e2e::Accept(listener, 5000);
    ASSERT_GE(conn.fd(), 0);
    EXPECT_EQ(conn.readN(8, 3000), Frame("kept"));
}

TEST_F(TcTest, answer_spanning_two_messages_yields_only_the_first) {
    e2e::Sock listener = e2e::Listen(serverPort);
    StartTc();
    Request(Frame("two"));
    e2e::Sock conn = e2e::Accept(listener, 5000);
    ASSERT_GE(conn.fd(), 0);
    conn.readN(7, 3000);
    ASSERT_TRUE(conn.send(Frame("one") + Frame("more")));
    ASSERT_EQ(ReadToTranp(buf.get(), pid, 5000), 64 + 7);
    EXPECT_EQ(ReadToTranp(buf.get(), pid, 300), 0);
}

TEST_F(TcTest, any_control_byte_ends_the_process) {
    StartTc();
    int fd = open(run.file("fifo/3_" + std::to_string(pid) + "_1").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "0", 1), 1);
    close(fd);
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_NE(AllLogs().find("bad branch"), std::string::npos);
    EXPECT_GT(ReadCommonp(buf.get(), 4, 2000), 0) << "logged off";
}

TEST_F(TcTest, wrong_msgsndtype_ends_the_process_on_the_first_request) {
    StartTc({{"MSGSNDTYPE", "0"}});
    Request(Frame("any"));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_NE(AllLogs().find("MSGSNDTYPE should be 1"), std::string::npos);
}

}  // namespace
