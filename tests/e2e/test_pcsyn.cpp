// Whole-process tests of the polled client mode (PCSYN): the test is the
// server that polls, and the router. comp runs on a clock fifty times as
// fast (libfaketime), so its 25-second start-up wait, its 5-second connect
// pauses and the route's intervals pass in a fiftieth of the time.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <filesystem>

#include "SynModeTest.h"
#include "kit/KitUtil.h"
#include "kit/SynPeers.h"

namespace {

using comptest::At;
using kit::SynBytes;

constexpr int kRoute = 50;
constexpr int kSpeed = 50;
constexpr int kFakeSecondMs = 1000 / kSpeed;

class PcsynTest : public comptest::SynModeTest {
protected:
    void SetUp() override {
        ModeTest::SetUp();
        compEnv = FastClock(kSpeed);
        if (compEnv.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    }
    // Starts comp with the test's server listening (or, without `listen`,
    // nobody there yet). The receive time-out is long unless changed.
    void Start(comptest::RouteRow overrides = {}, bool listen = true) {
        if (listen)
            listener = comptest::Listen(&serverPort);
        else
            serverPort = comptest::FreeLoopbackPort();
        comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(serverPort), "1");
        for (const auto& [k, v] : SynColumns()) row[k] = v;
        row["IDLETIMEOUT"] = "3000";
        row["RECONNINTERVAL"] = "5";
        StartMode("SysTCPPCSYN", row, overrides, "Begin Working");
    }
    // comp's connection, once it has made it; TranP has heard of it.
    comp::UniqueFd Link(int ms = 5000) {
        comp::UniqueFd s = comptest::Accept(listener.get(), ms);
        EXPECT_TRUE(s.valid()) << AllLogs();
        int one = 1;
        setsockopt(s.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        EXPECT_EQ(Next(), "N001 127.0.0.1");
        return s;
    }
    // Sends one request and returns comp's answer ("" when none came).
    static std::string Ask(int fd, int cmd, int serial, const std::string& data = "", int ms = 3000) {
        if (!comptest::Send(fd, SynBytes(cmd, serial, data))) return "";
        return Frame(fd, ms);
    }
    // TranP queues a frame for the route and rings its FIFO.
    void Queue(const std::string& frame) {
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + frame.size()), 0, 0, 4242, 0, 0, 0, 9, 0, {}, {}, 0, {}};
        const std::string text = h.bytes() + frame;
        DeliverToComp(kRoute, comp::kFifoRouteNotify, "50_1", {text.begin(), text.end()});
    }
    // Waits for the link to drop (comp closes it) and for its N003.
    void Dropped(comp::UniqueFd& s) {
        EXPECT_TRUE(Closes(s.get(), 3000)) << AllLogs();
        EXPECT_EQ(Next(), "N003 127.0.0.1");
        s.reset();
    }

    int serverPort = 0;
    comp::UniqueFd listener;
};

TEST_F(PcsynTest, waits_25_seconds_then_answers_polls_from_the_queue_or_with_no_data) {
    const int64_t t0 = kit::NowMs();
    Start();
    comp::UniqueFd s = Link();
    EXPECT_GE(kit::NowMs() - t0, 25 * kFakeSecondMs - 50) << "connected only after the start-up wait";

    EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(2, 0)) << "the first request carries 0; nothing queued";
    Queue(SynBytes(0, 0, "for the server"));
    Queue(SynBytes(0, 0, "second"));
    EXPECT_EQ(Ask(s.get(), 1, 1), SynBytes(4, 1, "for the server")) << "TranP's frame, command 4, the serial";
    std::string header;
    EXPECT_EQ(Ask(s.get(), 4, 2, "up"), SynBytes(4, 2, "second")) << "data is answered like a poll";
    EXPECT_EQ(Next(3000, &header), SynBytes(4, 2, "up")) << "and goes on to TranP";
    ASSERT_EQ(header.size(), 64u);
    EXPECT_EQ(std::string(header.data() + comp::plat::kIp), "127.0.0.1");
    EXPECT_EQ(At<int32_t>(header.data(), comp::plat::kPort), serverPort);

    // "No data" from the server is not answered and does not advance the serial.
    EXPECT_EQ(Ask(s.get(), 2, 3, "", 300), "");
    EXPECT_TRUE(Logged({"RCV NODATA"}));
    EXPECT_EQ(Ask(s.get(), 1, 3), SynBytes(2, 3));
    EXPECT_EQ(Next(200), "") << "polls do not reach TranP";
}

TEST_F(PcsynTest, serial_wraps_from_255_to_0) {
    Start();
    comp::UniqueFd s = Link();
    for (int i = 0; i < 260; ++i) ASSERT_EQ(Ask(s.get(), 1, i & 0xFF), SynBytes(2, i & 0xFF)) << "request " << i;
}

// A bad frame drops the link (N003); comp connects again after the
// reconnect interval (N001), and the serial starts again at 0.
TEST_F(PcsynTest, bad_frames_and_slipping_serials_drop_the_link_which_comes_back) {
    Start();
    std::string badEnd = SynBytes(1, 2), badBegin = badEnd;
    badEnd.back() = '\x02';
    badBegin[0] = '\x00';
    const std::pair<std::string, const char*> cases[] = {
        {badEnd, "Client received a invalid request."},
        {badBegin, "Client received a invalid request."},
        {SynBytes(5, 2), "Client received a invalid request."},
        {SynBytes(1, 3), "serial number of received msg is invalid. expect[2] net[3]"},
        {SynBytes(1, 1), "serial number of received msg is invalid. expect[2] net[1]"},
        {std::string("\xEB\x01\x02\xFF\xFF", 5), "SysGetLenFromHead error"},
    };
    for (const auto& [bytes, line] : cases) {
        SCOPED_TRACE(line);
        comp::UniqueFd s = Link();
        EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(2, 0)) << "every link starts at serial 0";
        EXPECT_EQ(Ask(s.get(), 1, 1), SynBytes(2, 1));
        ASSERT_TRUE(comptest::Send(s.get(), bytes));
        Dropped(s);
        EXPECT_TRUE(Logged({line})) << AllLogs();
    }
    const std::string reconnect = "zzz reconnect[127.0.0.1:" + std::to_string(serverPort) + "]";
    EXPECT_TRUE(Logged({reconnect.c_str()}));
    comp::UniqueFd s = Link();
    EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(2, 0));
}

// Several requests in one write are answered one after the other. (Frames
// cut into pieces are tested in-process: under the sped-up clock, the few
// milliseconds a frame's rest may take shrink to microseconds.)
TEST_F(PcsynTest, several_requests_in_one_write_are_answered_in_turn) {
    Start();
    comp::UniqueFd s = Link();
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(1, 0) + SynBytes(2, 1) + SynBytes(4, 1, "x") + SynBytes(1, 2)));
    EXPECT_EQ(Frame(s.get()), SynBytes(2, 0));
    EXPECT_EQ(Frame(s.get()), SynBytes(2, 1)) << "the data frame, after the unanswered no-data";
    EXPECT_EQ(Frame(s.get()), SynBytes(2, 2));
    EXPECT_EQ(Next(), SynBytes(4, 1, "x"));
}

// A server that stops polling: the link is dead after the receive time-out,
// and what TranP queued for it is dropped.
TEST_F(PcsynTest, silent_server_drops_the_link_and_the_queued_messages) {
    Start({{"IDLETIMEOUT", "40"}});
    comp::UniqueFd s = Link();
    Queue(SynBytes(4, 0, "one"));
    Queue(SynBytes(4, 0, "two"));
    Dropped(s);
    EXPECT_TRUE(Logged({"Client didn't recv msg in 40s,time out"})) << AllLogs();
    EXPECT_TRUE(Logged({"2 messages are discarded"})) << AllLogs();
    s = Link();
    EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(2, 0)) << "nothing left";
}

// The first connect blocks: tried every 5 seconds, with one N003 after the
// first failure, and every second failure drops what TranP queued meanwhile.
TEST_F(PcsynTest, first_connect_is_retried_until_the_server_is_there) {
    Start({}, false);
    EXPECT_EQ(Next(), "N003 127.0.0.1");
    Queue(SynBytes(4, 0, "too early"));
    EXPECT_TRUE(Logged({"1 messages are discarded"}, 3000)) << AllLogs();
    EXPECT_TRUE(AwaitCount([&] { return AllLogs(); }, "SysConnectIni]iSockConnect error", 3));
    listener = comptest::Listen(&serverPort);
    ASSERT_TRUE(listener.valid()) << "the port was taken meanwhile";
    comp::UniqueFd s = Link();
    EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(2, 0));
    const std::string logs = AllLogs();
    size_t n003 = 0;
    for (size_t p = logs.find("write [N003] to tranp"); p != std::string::npos; p = logs.find("write [N003]", p + 1))
        ++n003;
    EXPECT_EQ(n003, 1u) << "TranP is told once";
}

// Offline mode ("Y") also drops the route's queue when the server breaks the
// link; otherwise the messages wait for the next link. Either way, what TranP
// sends while the link is down waits.
class PcsynOfflineTest : public PcsynTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(PcsynOfflineTest, broken_link_keeps_or_drops_the_queued_messages) {
    const bool offline = std::string(GetParam()) == "Y";
    vars["OFFLINEMODE"] = GetParam();
    Start({{"RECONNINTERVAL", "50"}});
    comp::UniqueFd s = Link();
    Queue(SynBytes(4, 0, "before"));
    s.reset();   // the server leaves: a receive error
    EXPECT_EQ(Next(), "N003 127.0.0.1");
    EXPECT_EQ(Logged({"messages are discarded,comp running in abnormal mode."}, 500), offline) << AllLogs();
    Queue(SynBytes(4, 0, "while down"));
    s = Link();
    if (!offline) {
        EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(4, 0, "before"));
    }
    EXPECT_EQ(Ask(s.get(), 1, offline ? 0 : 1), SynBytes(4, offline ? 0 : 1, "while down"));
}
INSTANTIATE_TEST_SUITE_P(OfflineMode, PcsynOfflineTest, ::testing::Values("Y", "N"));

// Reconnects are tried once the interval has passed since the loss or the
// last attempt; every second failed attempt empties the route's queue.
TEST_F(PcsynTest, failed_reconnects_drop_the_queue_every_second_time) {
    Start();
    comp::UniqueFd s = Link();
    listener.reset();
    s.reset();
    EXPECT_EQ(Next(), "N003 127.0.0.1");
    Queue(SynBytes(4, 0, "lost"));
    EXPECT_TRUE(AwaitCount([&] { return AllLogs(); }, "SysKeepAlive]iSockConnect [127.0.0.1:", 2)) << AllLogs();
    EXPECT_TRUE(Logged({"1 messages are discarded"})) << AllLogs();
    listener = comptest::Listen(&serverPort);
    ASSERT_TRUE(listener.valid()) << "the port was taken meanwhile";
    s = Link();
    EXPECT_EQ(Ask(s.get(), 1, 0), SynBytes(2, 0));
}

TEST_F(PcsynTest, quit_command_ends_the_process_and_removes_the_route_fifo) {
    Start();
    comp::UniqueFd s = Link();
    Control('x');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0);
    EXPECT_FALSE(std::filesystem::exists(run.file("fifo/2_50_1")));
}

TEST_F(PcsynTest, any_other_command_ends_the_process) {
    Start();
    Control('0');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"bad branch"}));
}

TEST_F(PcsynTest, wrong_msgsndtype_ends_the_process_on_the_first_doorbell) {
    Start({{"MSGSNDTYPE", "0"}});
    comp::UniqueFd s = Link();
    Queue(SynBytes(4, 0, "any"));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"config error ,MSGSNDTYPE"}));
}

}  // namespace
