// Whole-process tests of the persistent client mode (PC): comp keeps one
// connection to a server the test plays, and the test plays the router.
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "ModeFixture.h"
#include "kit/KitUtil.h"

namespace {

namespace fs = std::filesystem;
using comptest::At;
using comptest::Frame;
using comptest::ReadFrame;
using comptest::Send;

constexpr int kRoute = 30;

class PcTest : public comptest::ModeTest {
protected:
    // Starts PC with the test's server listening (or nobody there yet), a
    // reconnect interval of 1 s and heartbeats off unless overridden.
    void StartPc(comptest::RouteRow overrides = {}, bool listen = true) {
        if (listen)
            listener = comptest::Listen(&serverPort);
        else
            serverPort = comptest::FreeLoopbackPort();
        comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(serverPort), "1");
        row["RECONNINTERVAL"] = "1";
        row["BEATSWITCH"] = "0";
        StartMode("SysTCPPC", row, overrides, "Begin Working");
    }
    // The next message comp put on queue 7 for TranP.
    struct Msg {
        std::string header, body;
        bool notice = false;
        // "N001"/"N003" for a notification, else the body; "" when none came.
        std::string what() const { return notice ? body.substr(0, 4) : body; }
    };
    Msg NextMsg(int ms = 5000) {
        int len = ReadToTranp(buf.get(), pid, ms);
        if (len < comp::kPlatHdrLen) return {};
        const char* t = buf->caText;
        return {std::string(t, comp::kPlatHdrLen), std::string(t + comp::kPlatHdrLen, len - comp::kPlatHdrLen),
                At<uint16_t>(t, comp::plat::kKind) == comp::plat::kKindNotice};
    }
    std::string Next(int ms = 5000) { return NextMsg(ms).what(); }
    // TranP's message for the route.
    void Request(const std::string& body) {
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size()), 0, 0, 4242, 0, kRoute, 0, 9, 0, {}, {},
                                  0, {}};
        const std::string text = h.bytes() + body;
        DeliverToComp(kRoute, comp::kFifoRouteNotify, "30_1", {text.begin(), text.end()});
    }
    // comp's connection, as the server accepts it.
    comp::UniqueFd Link(int ms = 5000) {
        comp::UniqueFd conn = comptest::Accept(listener.get(), ms);
        EXPECT_TRUE(conn.valid()) << "comp did not connect" << AllLogs();
        return conn;
    }
    // Raw bytes from comp until `text` has come (or ms pass).
    static std::string ReadUntil(int fd, const std::string& text, int ms = 3000) {
        std::string got;
        for (const int64_t end = kit::NowMs() + ms; got.find(text) == std::string::npos && kit::NowMs() < end;)
            got += comptest::ReadUntilClose(fd, 50);
        return got;
    }
    void InstallPlugin(const char* lib, const std::string& as) {
        fs::copy_file(std::string(COMP_PLUGIN_DIR "/") + lib, run.file("runs/bin/" + as),
                      fs::copy_options::overwrite_existing);
    }
    // comp's connects fail with the errno in this file while it holds one.
    void PreloadConnectFault(int err) {
        SetConnectFault(err);
        compEnv = PreloadEnv(COMP_PLUGIN_DIR "/libconnectfault.so");
        compEnv.push_back("COMPTEST_CONNECT_FAULT=" + run.file("connect.fault"));
    }
    void SetConnectFault(int err) { std::ofstream(run.file("connect.fault")) << (err ? std::to_string(err) : ""); }

    int serverPort = 0;
    comp::UniqueFd listener;
};

// ---- the link's states ----------------------------------------------------------

TEST_F(PcTest, link_comes_up_at_start_and_carries_messages_both_ways) {
    vars["LIVEMSGTYPE"] = "7777";
    StartPc();
    Msg up = NextMsg();
    ASSERT_EQ(up.what(), "N001") << AllLogs();
    EXPECT_EQ(std::string(up.body.data() + 4), "127.0.0.1");
    EXPECT_EQ(At<uint16_t>(up.header.data(), comp::plat::kRoute), kRoute);
    comp::UniqueFd conn = Link();

    Request(Frame("ask"));
    EXPECT_EQ(ReadFrame(conn.get(), 3000), Frame("ask"));
    ASSERT_TRUE(Send(conn.get(), Frame("told")));
    Msg m = NextMsg();
    EXPECT_EQ(m.what(), Frame("told")) << AllLogs();
    const int fd = At<int32_t>(m.header.data(), comp::plat::kSock);
    EXPECT_GT(fd, 2);
    comptest::PlatHdr want{64 + 8, 0, pid, pid, kRoute, kRoute, fd, fd, serverPort, "127.0.0.1", "127.0.0.1", 'M', {}};
    EXPECT_EQ(m.header, want.bytes());

    // The server's heartbeat (LIVEMSGTYPE) is not forwarded; other types are,
    // each on its own, also when several come in one segment.
    ASSERT_TRUE(Send(conn.get(), Frame("7777") + Frame("0602") + Frame("last")));
    EXPECT_EQ(Next(), Frame("0602"));
    EXPECT_EQ(Next(), Frame("last"));
    EXPECT_EQ(Next(300), "") << "one link, no notification";
}

TEST_F(PcTest, server_unreachable_at_start_gets_one_n003_then_retries_at_the_interval) {
    StartPc({}, false);
    EXPECT_EQ(Next(), "N003") << AllLogs();
    EXPECT_TRUE(AwaitLog("SysConnectIni]iSockConnect error.errno=111"));
    ASSERT_TRUE(AwaitLog("SysKeepAlive]iSockConnect [127.0.0.1:" + std::to_string(serverPort) + "]error"));
    const int64_t listening = kit::NowMs();
    listener = comptest::Listen(&serverPort);
    ASSERT_TRUE(listener.valid());
    EXPECT_EQ(Next(), "N001");
    EXPECT_LT(kit::NowMs() - listening, 2500) << "reconnected within the interval of 1 s";
    EXPECT_LE(LogCount("SysKeepAlive]iSockConnect"), 3) << "attempts one interval apart";
    comp::UniqueFd conn = Link();
    Request(Frame("after"));
    EXPECT_EQ(ReadFrame(conn.get(), 3000), Frame("after"));
}

// Every way the server can lose the link costs that link only: N003, then a
// reconnect after the interval, N001, and messages flow again.
TEST_F(PcTest, lost_link_is_made_again_after_the_interval) {
    StartPc();
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    struct Fault {
        const char* name;
        std::function<void(comp::UniqueFd&)> act;
        const char* logged;
    };
    const Fault faults[] = {
        {"server closes", [](comp::UniqueFd& c) { c.reset(); }, "RecvMsg error"},
        {"server resets mid-message",
         [](comp::UniqueFd& c) {
             Send(c.get(), "0010abc");
             linger hard{1, 0};
             setsockopt(c.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
             c.reset();
         },
         "RecvMsg error"},
        {"server stalls mid-message", [](comp::UniqueFd& c) { Send(c.get(), "0010abc"); }, "RecvMsg error"},
        {"message without its type", [](comp::UniqueFd& c) { Send(c.get(), Frame("")); },
         "SysGetMsgTypeFromHead err"},
    };
    for (const Fault& f : faults) {
        SCOPED_TRACE(f.name);
        const int before = LogCount(f.logged);
        f.act(conn);
        EXPECT_EQ(Next(), "N003");
        EXPECT_TRUE(AwaitLog(f.logged, before + 1));
        conn = Link(3000);
        EXPECT_EQ(Next(), "N001");
        Request(Frame(f.name));
        EXPECT_EQ(ReadFrame(conn.get(), 3000), Frame(f.name));
    }
}

TEST_F(PcTest, length_field_the_framing_rejects_drops_the_link) {
    StartPc({{"MSGLENADJUST", "-10"}});   // "0005" becomes -5: not a length
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    ASSERT_TRUE(Send(conn.get(), Frame("hello")));
    EXPECT_EQ(Next(), "N003");
    EXPECT_TRUE(Logged({"SysGetLenFromHead error"}));
    conn = Link(3000);
    EXPECT_EQ(Next(), "N001");
    ASSERT_TRUE(Send(conn.get(), Frame(std::string(15, 'w'))));
    EXPECT_EQ(Next().size(), 4u + 5u) << "the next frame is cut by the same rule";
}

// ---- TranP's messages while the link is down ------------------------------------

TEST_F(PcTest, message_while_down_connects_at_once) {
    StartPc({{"RECONNINTERVAL", "5"}});
    ASSERT_EQ(Next(), "N001");
    Link().reset();
    EXPECT_EQ(Next(), "N003");
    const int64_t asked = kit::NowMs();
    Request(Frame("now"));
    EXPECT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link(2000);
    EXPECT_EQ(ReadFrame(conn.get(), 2000), Frame("now"));
    EXPECT_LT(kit::NowMs() - asked, 2000) << "not after the interval of 5 s";
    EXPECT_TRUE(Logged({"connect by req msg"}));
}

TEST_F(PcTest, messages_are_discarded_after_ten_intervals_without_the_server) {
    compEnv = FastClock(10);
    if (compEnv.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartPc();
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    listener.reset();
    conn.reset();
    EXPECT_EQ(Next(), "N003");
    const int64_t lost = kit::NowMs();
    kit::SleepMs(1500);   // over 10 s on comp's clock since it last heard the server
    Request(Frame("late"));
    EXPECT_TRUE(Logged({"discard msg!"})) << AllLogs();
    EXPECT_EQ(LogCount("connect by req msg"), 0);
    EXPECT_GE(LogCount("SysKeepAlive]iSockConnect"), 8) << "an attempt each second of comp's clock";
    EXPECT_LT(kit::NowMs() - lost, 4000);
    listener = comptest::Listen(&serverPort);
    EXPECT_EQ(Next(), "N001") << "reconnects go on meanwhile";
}

TEST_F(PcTest, reconnect_interval_0_never_discards) {
    StartPc({{"RECONNINTERVAL", "0"}}, false);
    EXPECT_EQ(Next(), "N003");
    kit::SleepMs(200);
    Request(Frame("try"));
    // The log rotates every few hundred milliseconds here (an attempt on
    // every pass): look for the line as soon as it is written.
    EXPECT_TRUE(Logged({"SysSendMsg]iSockConnect error.errno=111"}, 5000)) << "a connect is tried for the message";
    EXPECT_TRUE(Logged({"SysPerClientReq error"}));
    EXPECT_EQ(LogCount("discard msg"), 0);
}

// Only a connect that timed out sets the network-route error flag; the next
// failed connect overwrites it.
TEST_F(PcTest, only_a_timed_out_connect_makes_messages_wait) {
    PreloadConnectFault(ETIMEDOUT);
    StartPc();
    EXPECT_EQ(Next(), "N003");
    Request(Frame("one"));
    EXPECT_TRUE(Logged({"discard msg,network anomaly!"})) << AllLogs();

    SetConnectFault(ECONNREFUSED);
    ASSERT_TRUE(AwaitLog("SysKeepAlive]iSockConnect [127.0.0.1:" + std::to_string(serverPort) + "]error.errno=111"));
    Request(Frame("two"));
    EXPECT_TRUE(AwaitLog("SysSendMsg]iSockConnect error.errno=111")) << "refused: the message tries a connect";
    EXPECT_EQ(LogCount("network anomaly"), 1);

    SetConnectFault(0);
    EXPECT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    Request(Frame("three"));
    EXPECT_EQ(ReadFrame(conn.get(), 3000), Frame("three"));
}

// ---- heartbeats and the idle time-out ---------------------------------------------

TEST_F(PcTest, heartbeats_follow_send_silence_and_count_with_the_messages) {
    InstallPlugin("libBeatMsg.so", "libBeatMsg.so");
    StartPc({{"BEATSWITCH", "1"}, {"BEATINTERVAL", "1"}, {"OUTPREHDL", "PreRewrite"}});
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    EXPECT_NE(ReadUntil(conn.get(), "RW30/0:BEAT30").find("RW30/0:BEAT30"), std::string::npos) << AllLogs();
    Request(Frame("data"));
    EXPECT_NE(ReadUntil(conn.get(), "RW30/1:0004data").find("RW30/1:0004data"), std::string::npos);
    EXPECT_NE(ReadUntil(conn.get(), "RW30/2:BEAT30").find("RW30/2:BEAT30"), std::string::npos);
    EXPECT_EQ(Next(300), "") << "the link stays";
}

TEST_F(PcTest, heartbeat_that_cannot_be_sent_drops_the_link) {
    // Without the plug-in there is no heartbeat for this route's type: an
    // empty one cannot be sent.
    StartPc({{"BEATSWITCH", "1"}, {"BEATINTERVAL", "1"}});
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    EXPECT_EQ(Next(), "N003");
    EXPECT_TRUE(Logged({"snd beat heart msg to [127.0.0.1] error"}));
    conn = Link(3000);
    EXPECT_EQ(Next(), "N001");
}

TEST_F(PcTest, server_heartbeats_hold_the_link_past_the_idle_timeout_without_reaching_tranp) {
    dropVars = {"LIVEMSGTYPE"};   // the default, 0602
    StartPc({{"IDLETIMEOUT", "2"}});
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    EXPECT_TRUE(Logged({"LIVEMSGTYPE lost in [LOADVARS]"}));
    for (int i = 0; i < 9; ++i) {
        ASSERT_TRUE(Send(conn.get(), Frame("0602")));
        EXPECT_EQ(Next(300), "") << "beat " << i;
    }
    EXPECT_EQ(Next(), "N003") << "silence past the idle time-out";
    EXPECT_TRUE(Logged({"time out and close"}));
}

// ---- plug-ins ---------------------------------------------------------------------

TEST_F(PcTest, input_pre_handling_acknowledges_and_consumes) {
    InstallPlugin("libBeatMsg.so", "libBeatMsg.so");
    StartPc({{"INPREHDL", "PreReplyConsume"}});
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    ASSERT_TRUE(Send(conn.get(), Frame("ping")));
    EXPECT_EQ(ReadUntil(conn.get(), "ACK"), "ACK");
    EXPECT_EQ(Next(300), "") << "consumed";
    EXPECT_TRUE(Logged({"rcv ack"}));
}

// The receiver plug-in is loaded for every message, so each case swaps it.
TEST_F(PcTest, receiver_plugin_reads_messages_and_its_faults_cost_only_the_link) {
    InstallPlugin("libnetrule.so", "libnetrule.so");
    // A one-byte type at offset 0, so that even a one-byte message has one.
    StartPc({{"RCVMETHOD", "MP"}, {"MSGTYPEGETOFFSET", "0"}, {"MSGTYPEGETLEN", "1"}});
    ASSERT_EQ(Next(), "N001");
    comp::UniqueFd conn = Link();
    ASSERT_TRUE(Send(conn.get(), Frame("via plugin")));
    EXPECT_EQ(Next(), Frame("via plugin")) << AllLogs();

    const std::string lib = run.file("runs/bin/libnetrule.so");
    struct Case {
        const char* name;
        std::function<void()> prepare;
        const char* logged;
        std::string forwarded;
    };
    const Case cases[] = {
        {"missing", [&] { fs::remove(lib); }, "]lost ", ""},
        {"not a library", [&] { std::ofstream(lib) << "not a library"; }, "dlopen [", ""},
        {"without SysRcvMulPkg", [&] { InstallPlugin("libBeatMsg.so", "libnetrule.so"); }, "dlsym[",
         std::string(1, '\0')},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.prepare();
        ASSERT_TRUE(Send(conn.get(), Frame("lost")));
        if (!c.forwarded.empty()) {
            EXPECT_EQ(Next(), c.forwarded) << "a message of length 1";
        }
        EXPECT_EQ(Next(), "N003");
        EXPECT_TRUE(Logged({c.logged}));
        conn = Link(3000);
        EXPECT_EQ(Next(), "N001");
    }
    InstallPlugin("libnetrule.so", "libnetrule.so");
    ASSERT_TRUE(Send(conn.get(), Frame("again")));
    EXPECT_EQ(Next(), Frame("again"));
}

// ---- configuration and control ----------------------------------------------------

class PcStartTest : public PcTest {
protected:
    // Starts comp on a route with this peer address; it must end by itself.
    void StartExpectingExit(const std::string& peer) {
        comptest::PlatformSetup setup;
        setup.routes = {comptest::MakeRouteRow(kRoute, peer, "1")};
        StartPlatform(setup);
        size_t i = StartComp({"SysTCPPC", std::to_string(kRoute), "1", "0", "e2e_1"});
        EXPECT_EQ(WaitComp(i, 5000), 0) << AllLogs();
        EXPECT_TRUE(Logged({"SysConnectIni error"}));
    }
};

TEST_F(PcStartTest, peer_address_minus_1_ends_start_up) {
    StartExpectingExit("-1");
    EXPECT_TRUE(Logged({"configure error"}));
}

TEST_F(PcStartTest, peer_address_without_a_port_ends_start_up) {
    StartExpectingExit("127.0.0.1");
    EXPECT_TRUE(Logged({"IP:PORT format was wrong[127.0.0.1]"}));
}

TEST_F(PcTest, empty_port_is_port_0_and_the_link_is_simply_down) {
    comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "127.0.0.1:", "1");
    row["BEATSWITCH"] = "0";
    StartMode("SysTCPPC", row, {}, "Begin Working");
    EXPECT_EQ(Next(), "N003");
    EXPECT_TRUE(Logged({"iSockConnect [127.0.0.1:0]error"}));
}

TEST_F(PcTest, wrong_msgsndtype_ends_the_process_on_the_first_message) {
    StartPc({{"MSGSNDTYPE", "0"}});
    ASSERT_EQ(Next(), "N001");
    Request(Frame("any"));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"config error ,MSGSNDTYPE"}));
    EXPECT_TRUE(Logged({"SysSendMsg error"}));
}

TEST_F(PcTest, every_control_byte_ends_the_process_and_its_fifo_goes) {
    StartPc();
    ASSERT_EQ(Next(), "N001");
    Control('0');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"bad branch"}));
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0) << "logged off";
    EXPECT_FALSE(fs::exists(run.file("fifo/2_30_1"))) << "the notification FIFO is removed";
}

}  // namespace
