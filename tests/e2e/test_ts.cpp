// Whole-process tests of the short-connection server mode: clients on
// loopback, the router's part played by the test.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <memory>
#include <thread>

#include "NetPeer.h"
#include "Platform.h"
#include "comp/SysGlobals.h"
#include "ipc/SysConnReg.h"

namespace {

using comptest::MakeRouteRow;
using comptest::PlatformSetup;
using e2e::Frame;

constexpr int kRoute = 10;

class TsTest : public comptest::PlatformTest {
protected:
    void SetUp() override {
        PlatformTest::SetUp();
        port = comptest::FreeLoopbackPort();
    }

    // Brings the platform up with one TS route and starts comp on it; waits
    // for its logon.
    void StartTs(comptest::RouteRow row = {}, const std::string& extraAppVars = "") {
        PlatformSetup setup;
        comptest::RouteRow base = MakeRouteRow(kRoute, "127.0.0.1:" + std::to_string(port), "0");
        for (auto& [k, v] : row) base[k] = v;
        setup.routes = {base};
        setup.extraAppVars = extraAppVars;
        StartPlatform(setup);
        c = StartComp({"SysTCPTS", std::to_string(kRoute), "1", "0", "ts10_1"});
        ASSERT_GT(ReadCommonp(buf.get(), 2, 5000), 0) << CompOutput(c) << AllLogs();
        pid = comp(c).pid;
        ASSERT_TRUE(e2e::WaitForPath(run.file("fifo/1_" + std::to_string(pid)), 5000)) << AllLogs();
    }

    // Reads the next request from queue 7 and returns its header and body.
    bool NextRequest(std::string* header, std::string* body, int ms = 5000) {
        int len = ReadToTranp(buf.get(), pid, ms);
        if (len < comp::kPlatHdrLen) return false;
        header->assign(buf->caText, comp::kPlatHdrLen);
        body->assign(buf->caText + comp::kPlatHdrLen, len - comp::kPlatHdrLen);
        return true;
    }

    // Answers a request in the form TS reads (peer IP at header offset 24).
    void Answer(const std::string& header, const std::string& body) {
        kit::Delivery d;
        d.type = pid;
        ASSERT_TRUE(kit::BuildAnswer(kit::AnswerForm::kTsPeerIpAt24, header.data(), body.data(), (int)body.size(),
                                     &d.text));
        d.fifoKind = comp::kFifoPidNotify;
        d.fifoName = std::to_string(pid);
        ASSERT_TRUE(DeliverToComp(d));
    }

    // One whole exchange from `from`: the client gets `answer` framed.
    void ExpectExchange(const std::string& from, const std::string& body) {
        e2e::Sock s = e2e::Connect(port, from);
        ASSERT_GE(s.fd(), 0);
        ASSERT_TRUE(s.send(Frame(body)));
        std::string h, b;
        ASSERT_TRUE(NextRequest(&h, &b)) << AllLogs();
        EXPECT_EQ(b, Frame(body));
        Answer(h, Frame("re:" + body));
        bool closed = false;
        EXPECT_EQ(s.readUntilClose(3000, &closed), Frame("re:" + body));
        EXPECT_TRUE(closed);
    }

    template <typename T>
    static T At(const std::string& s, int off) {
        T v{};
        std::memcpy(&v, s.data() + off, sizeof v);
        return v;
    }

    int port = 0;
    size_t c = 0;
    pid_t pid = 0;
    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
};

TEST_F(TsTest, request_reaches_tranp_with_its_header_then_the_answer_closes_the_connection) {
    StartTs();
    e2e::Sock s = e2e::Connect(port);
    ASSERT_GE(s.fd(), 0);
    ASSERT_TRUE(s.send(Frame("hello")));

    std::string h, b;
    ASSERT_TRUE(NextRequest(&h, &b)) << AllLogs();
    EXPECT_EQ(b, "0005hello");
    EXPECT_EQ(At<uint16_t>(h, 0), 64 + 9);
    EXPECT_EQ(At<uint16_t>(h, 2), 0);
    EXPECT_EQ(At<int32_t>(h, 4), pid);
    EXPECT_EQ(At<int32_t>(h, 8), pid);
    EXPECT_EQ(At<uint16_t>(h, 12), kRoute);
    EXPECT_EQ(At<uint16_t>(h, 14), kRoute);
    int fd = At<int32_t>(h, 16);
    EXPECT_GT(fd, 2);
    EXPECT_EQ(At<int32_t>(h, 20), fd);
    EXPECT_EQ(At<int32_t>(h, 24), e2e::LocalPort(s));
    EXPECT_STREQ(h.c_str() + 28, "127.0.0.1");
    EXPECT_STREQ(h.c_str() + 44, "127.0.0.1");
    EXPECT_EQ(h[60], 'M');

    // While the client waits, the connection is in the registry.
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    ConnNode node{};
    EXPECT_EQ(SysGetPidByRouteidIp("10", "127.0.0.1", &node), pid);

    Answer(h, Frame("world"));
    bool closed = false;
    EXPECT_EQ(s.readUntilClose(3000, &closed), "0005world");
    EXPECT_TRUE(closed);
    EXPECT_EQ(SysGetPidByRouteidIp("10", "127.0.0.1", &node), -2) << "the close removed the registry entry";
    SysConnRegDetach();

    std::string connLog = comptest::ReadFile(run.file("runs/log/com_route10_127.0.0.1.log"));
    EXPECT_NE(connLog.find("connected"), std::string::npos);
    EXPECT_NE(connLog.find("回应答成功"), std::string::npos);
}

TEST_F(TsTest, binary_length_fields_frame_the_request) {
    // Two-byte length in network order in front of the body.
    StartTs({{"HEADERLEN", "2"}, {"MSGLENGETLEN", "2"}, {"MSGLENGETTYPE", "2"}});
    e2e::Sock s = e2e::Connect(port);
    std::string body(300, 'b');
    std::string msg = std::string("\x01\x2c", 2) + body;
    ASSERT_TRUE(s.send(msg));
    std::string h, b;
    ASSERT_TRUE(NextRequest(&h, &b)) << AllLogs();
    EXPECT_EQ(b, msg);
}

TEST_F(TsTest, silent_client_is_closed_after_the_idle_timeout) {
    StartTs({{"IDLETIMEOUT", "1"}});
    e2e::Sock s = e2e::Connect(port);
    bool closed = false;
    s.readUntilClose(6000, &closed);
    EXPECT_TRUE(closed);
    std::string connLog = comptest::ReadFile(run.file("runs/log/com_route10_127.0.0.1.log"));
    EXPECT_NE(connLog.find("time out and close"), std::string::npos) << connLog;
    EXPECT_NE(connLog.find("回应答成功"), std::string::npos);
}

TEST_F(TsTest, answer_after_client_closed_is_dropped_and_serving_goes_on) {
    StartTs();
    std::string h, b;
    {
        e2e::Sock s = e2e::Connect(port);
        ASSERT_TRUE(s.send(Frame("gone")));
        ASSERT_TRUE(NextRequest(&h, &b));
    }  // the client leaves before its answer
    usleep(200 * 1000);
    Answer(h, Frame("late"));
    usleep(200 * 1000);
    EXPECT_NE(AllLogs().find("is offline"), std::string::npos);
    ExpectExchange("127.0.0.1", "next");
}

TEST_F(TsTest, answer_for_a_descriptor_reused_by_another_address_is_dropped) {
    StartTs();
    std::string h, b;
    {
        e2e::Sock s = e2e::Connect(port, "127.0.0.1");
        ASSERT_TRUE(s.send(Frame("first")));
        ASSERT_TRUE(NextRequest(&h, &b));
    }
    usleep(200 * 1000);  // comp notices the close and frees the descriptor
    e2e::Sock other = e2e::Connect(port, "127.0.0.2");
    ASSERT_TRUE(other.send(Frame("second")));
    std::string h2, b2;
    ASSERT_TRUE(NextRequest(&h2, &b2));
    ASSERT_EQ(At<int32_t>(h2, 16), At<int32_t>(h, 16)) << "the new client took the same descriptor";

    Answer(h, Frame("for first"));
    usleep(200 * 1000);
    EXPECT_NE(AllLogs().find("was resetted"), std::string::npos);
    Answer(h2, Frame("for second"));
    EXPECT_EQ(other.readUntilClose(3000), Frame("for second"));
}

TEST_F(TsTest, client_resetting_before_its_answer_costs_only_that_answer) {
    StartTs();
    std::string h, b;
    {
        e2e::Sock s = e2e::Connect(port);
        // A small receive window and a large answer: the send cannot finish.
        int small = 1024;
        setsockopt(s.fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small);
        ASSERT_TRUE(s.send(Frame("big")));
        ASSERT_TRUE(NextRequest(&h, &b));
        Answer(h, Frame(std::string(60000, 'a')));
        linger hard{1, 0};
        setsockopt(s.fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }  // closed with a reset
    usleep(300 * 1000);
    std::string logs = AllLogs();
    EXPECT_TRUE(logs.find("iSockSend error") != std::string::npos || logs.find("is offline") != std::string::npos)
        << logs;
    ExpectExchange("127.0.0.1", "after");
}

TEST_F(TsTest, bad_frames_close_only_their_connection) {
    StartTs({{"MSGLENADJUST", "-10"}});  // "0005" becomes -5: not a length
    e2e::Sock waiting = e2e::Connect(port);

    e2e::Sock bad = e2e::Connect(port);
    ASSERT_TRUE(bad.send(Frame("hello")));
    bool closed = false;
    bad.readUntilClose(3000, &closed);
    EXPECT_TRUE(closed);

    e2e::Sock cut = e2e::Connect(port);
    ASSERT_TRUE(cut.send("001"));  // a header cut short, then the peer leaves
    cut.reset();

    e2e::Sock stall = e2e::Connect(port);
    ASSERT_TRUE(stall.send("0020abc"));  // half a body, then silence
    stall.readUntilClose(3000, &closed);
    EXPECT_TRUE(closed) << "a peer stalling mid-message is dropped";

    EXPECT_NE(AllLogs().find("SysGetLenFromHead error"), std::string::npos);
    // The first client is still served (its body length is 5 + 10 - 10).
    ASSERT_TRUE(waiting.send(Frame(std::string(15, 'w'))));
    std::string h, b;
    ASSERT_TRUE(NextRequest(&h, &b)) << AllLogs();
    EXPECT_EQ(b.size(), 4u + 5u);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "comp still runs";
}

TEST_F(TsTest, input_pre_handling_answers_and_consumes_output_pre_handling_rewrites) {
    std::filesystem::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", run.file("runs/bin/libBeatMsg.so"));
    StartTs({{"INPREHDL", "PreReplyConsume"}});
    e2e::Sock s = e2e::Connect(port);
    ASSERT_TRUE(s.send(Frame("ping")));
    EXPECT_EQ(s.readN(3, 3000), "ACK");
    std::string h, b;
    EXPECT_FALSE(NextRequest(&h, &b, 500)) << "consumed requests do not reach TranP";
    bool closed = false;
    s.readUntilClose(300, &closed);
    EXPECT_FALSE(closed) << "the connection stays open";
}

TEST_F(TsTest, output_pre_handling_rewrites_the_answer) {
    std::filesystem::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", run.file("runs/bin/libBeatMsg.so"));
    StartTs({{"OUTPREHDL", "PreUpper"}});
    e2e::Sock s = e2e::Connect(port);
    ASSERT_TRUE(s.send(Frame("ping")));
    std::string h, b;
    ASSERT_TRUE(NextRequest(&h, &b));
    Answer(h, "0004pong");
    EXPECT_EQ(s.readUntilClose(3000), "0004PONG");
}

TEST_F(TsTest, full_router_queue_holds_the_request_until_it_drains) {
    StartTs();
    // Shrink queue 7 and fill it, so comp's blocking write must wait.
    int q7 = QueueId(comp::kQueueToTranp);
    msqid_ds ds{};
    ASSERT_EQ(msgctl(q7, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 256;
    ASSERT_EQ(msgctl(q7, IPC_SET, &ds), 0);
    struct {
        long type;
        char text[200];
    } filler{1, {}};
    ASSERT_EQ(msgsnd(q7, &filler, sizeof filler.text, IPC_NOWAIT), 0);

    e2e::Sock s = e2e::Connect(port);
    ASSERT_TRUE(s.send(Frame("waits")));
    std::string h, b;
    EXPECT_FALSE(NextRequest(&h, &b, 500));
    ASSERT_GT(ReadToTranp(buf.get(), 1, 1000), 0);  // the router drains
    ASSERT_TRUE(NextRequest(&h, &b, 3000)) << AllLogs();
    EXPECT_EQ(b, Frame("waits"));
}

TEST_F(TsTest, quit_command_logs_off_and_ends_with_status_0) {
    StartTs();
    int fd = open(run.file("fifo/3_" + std::to_string(pid) + "_1").c_str(), O_WRONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "x", 1), 1);
    close(fd);
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_GT(ReadCommonp(buf.get(), 4, 2000), 0);
    EXPECT_NE(AllLogs().find("recv quit cmd"), std::string::npos);
    EXPECT_FALSE(std::filesystem::exists(run.file("fifo/1_" + std::to_string(pid))))
        << "the notification FIFO is removed";
}

}  // namespace
