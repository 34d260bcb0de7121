// Whole-process tests of the short-connection modes: the server mode (TS)
// with clients on loopback, the client mode (TC) with a scripted server, and
// the router's part played by the test.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/socket.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <vector>

#include "ModeFixture.h"
#include "ipc/SysConnReg.h"
#include "kit/KitUtil.h"

namespace {

using comptest::At;
using comptest::Frame;
using comptest::ReadUntilClose;
using comptest::Send;

constexpr int kTsRoute = 10, kTcRoute = 20;

class ModeTest : public comptest::ModeTest {
protected:
    void Start(const char* mode, int route, int peerPort, comptest::RouteRow overrides) {
        StartMode(mode, comptest::MakeRouteRow(route, "127.0.0.1:" + std::to_string(peerPort),
                                               route == kTcRoute ? "1" : "0"),
                  overrides, "Begin Working");
    }
    // Writes one byte to one of comp's FIFOs: by default its control FIFO.
    void Control(char cmd, std::string fifo = "") {
        if (fifo.empty()) return comptest::ModeTest::Control(cmd);
        int fd = open(run.file("fifo/" + fifo).c_str(), O_WRONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, &cmd, 1), 1);
        close(fd);
    }
    std::string ConnLog() const { return comptest::ReadFile(run.file("runs/log/com_route10_127.0.0.1.log")); }
    // Waits until comp has closed one more client connection (each close
    // ends with this line in the connection log).
    void AwaitClose() {
        ++closes;
        ASSERT_TRUE(AwaitCount([&] { return ConnLog(); }, "回应答成功", closes)) << "comp did not close the connection";
    }
    int closes = 0;
};

class TsTest : public ModeTest {
protected:
    void StartTs(comptest::RouteRow overrides = {}) {
        port = comptest::FreeLoopbackPort();
        Start("SysTCPTS", kTsRoute, port, overrides);
    }
    // The next request on queue 7: its header and body ("" when none came).
    struct Request {
        std::string header, body;
        explicit operator bool() const { return !header.empty(); }
    };
    Request NextRequest(int ms = 5000) {
        int len = ReadToTranp(buf.get(), pid, ms);
        if (len < comp::kPlatHdrLen) return {};
        return {std::string(buf->caText, comp::kPlatHdrLen),
                std::string(buf->caText + comp::kPlatHdrLen, len - comp::kPlatHdrLen)};
    }
    // Answers a request in the form TS reads (peer IP at header offset 24).
    void Answer(const std::string& header, const std::string& body) {
        ASSERT_EQ(header.size(), size_t(comp::kPlatHdrLen)) << "no request to answer" << AllLogs();
        std::vector<char> text;
        ASSERT_TRUE(kit::BuildAnswer(kit::AnswerForm::kTsPeerIpAt24, header.data(), body.data(), (int)body.size(),
                                     &text));
        DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), text);
    }
    // A client that has sent one framed request.
    comp::UniqueFd Client(const std::string& body, const std::string& from = "127.0.0.1") {
        comp::UniqueFd s = comptest::Connect(port, from);
        EXPECT_TRUE(Send(s.get(), Frame(body)));
        return s;
    }
    // A request from a client that leaves before its answer; its header.
    std::string AbandonedRequest(const char* body) {
        comp::UniqueFd s = Client(body);
        return NextRequest().header;
    }
    void InstallPlugin() {
        std::filesystem::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", run.file("runs/bin/libBeatMsg.so"));
    }
    // One whole exchange: the client gets its answer, then the close.
    void ExpectExchange(const std::string& body) {
        comp::UniqueFd s = Client(body);
        Request r = NextRequest();
        ASSERT_TRUE(r) << AllLogs();
        EXPECT_EQ(r.body, Frame(body));
        Answer(r.header, Frame("re:" + body));
        bool closed = false;
        EXPECT_EQ(ReadUntilClose(s.get(), 3000, &closed), Frame("re:" + body));
        EXPECT_TRUE(closed);
    }

    int port = 0;
};

TEST_F(TsTest, request_reaches_tranp_with_its_header_then_the_answer_closes_the_connection) {
    StartTs();
    comp::UniqueFd s = Client("hello");

    Request r = NextRequest();
    ASSERT_TRUE(r) << AllLogs();
    EXPECT_EQ(r.body, "0005hello");
    const int fd = At<int32_t>(r.header.data(), comp::plat::kSock);
    EXPECT_GT(fd, 2);
    comptest::PlatHdr want{64 + 9, 0, pid, pid, kTsRoute, kTsRoute, fd, fd, comptest::LocalPort(s.get()),
                           "127.0.0.1", "127.0.0.1", 'M', {}};
    EXPECT_EQ(r.header, want.bytes());

    // While the client waits, the connection is in the registry.
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    ConnNode node{};
    EXPECT_EQ(SysGetPidByRouteidIp("10", "127.0.0.1", &node), pid);

    Answer(r.header, Frame("world"));
    bool closed = false;
    EXPECT_EQ(ReadUntilClose(s.get(), 3000, &closed), "0005world");
    EXPECT_TRUE(closed);
    EXPECT_EQ(SysGetPidByRouteidIp("10", "127.0.0.1", &node), -2) << "the close removed the registry entry";
    SysConnRegDetach();
    EXPECT_NE(ConnLog().find("connected"), std::string::npos);
    EXPECT_NE(ConnLog().find("回应答成功"), std::string::npos);
}

TEST_F(TsTest, binary_length_fields_frame_the_request) {
    // Two-byte length in network order in front of the body.
    StartTs({{"HEADERLEN", "2"}, {"MSGLENGETLEN", "2"}, {"MSGLENGETTYPE", "2"}});
    comp::UniqueFd s = comptest::Connect(port);
    const std::string msg = std::string("\x01\x2c", 2) + std::string(300, 'b');
    ASSERT_TRUE(Send(s.get(), msg));
    EXPECT_EQ(NextRequest().body, msg) << AllLogs();
}

// A two-byte length of `total - 2` in network order, then the body.
std::string Binary(int total) {
    const int body = total - 2;
    return std::string{static_cast<char>(body >> 8), static_cast<char>(body & 0xFF)} + std::string(body, 'z');
}
const comptest::RouteRow kBinaryFraming{{"HEADERLEN", "2"}, {"MSGLENGETLEN", "2"}, {"MSGLENGETTYPE", "2"}};

// The framing takes messages up to 65,535 bytes, a platform message carries
// 65,472 behind its header: a longer request is that client's fault alone.
TEST_F(TsTest, request_too_long_for_a_platform_message_costs_only_its_connection) {
    COMP_REQUIRE_BIG_MESSAGES();
    StartTs(kBinaryFraming);
    comp::UniqueFd fits = comptest::Connect(port);
    ASSERT_TRUE(Send(fits.get(), Binary(65472)));
    EXPECT_EQ(NextRequest().body.size(), 65472u);
    for (int total : {65473, 65535}) {
        comp::UniqueFd s = comptest::Connect(port);
        ASSERT_TRUE(Send(s.get(), Binary(total)));
        EXPECT_TRUE(Closes(s.get(), 3000)) << total;
    }
    EXPECT_TRUE(Logged({"request of 65473 bytes exceeds the 65472 a platform message carries,close"})) << AllLogs();
    EXPECT_TRUE(Logged({"request of 65535 bytes exceeds"}));
    comp::UniqueFd next = comptest::Connect(port);
    ASSERT_TRUE(Send(next.get(), Binary(10)));
    EXPECT_EQ(NextRequest().body, Binary(10)) << "the process serves on";
}

TEST_F(TsTest, silent_client_is_closed_after_the_idle_timeout) {
    StartTs({{"IDLETIMEOUT", "1"}});
    comp::UniqueFd s = comptest::Connect(port);
    EXPECT_TRUE(Closes(s.get(), 6000));
    EXPECT_NE(ConnLog().find("time out and close"), std::string::npos) << ConnLog();
    EXPECT_NE(ConnLog().find("回应答成功"), std::string::npos);
}

// Time-outs measured in tens of seconds run on comp's own clock, sped up by
// libfaketime: the product has no hook for it.
TEST_F(TsTest, long_idle_timeout_holds_on_an_accelerated_clock) {
    compEnv = FastClock(10);
    if (compEnv.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    StartTs({{"IDLETIMEOUT", "20"}});
    comp::UniqueFd s = comptest::Connect(port);
    const int64_t start = kit::NowMs();
    EXPECT_TRUE(Closes(s.get(), 8000));
    const int64_t took = kit::NowMs() - start;
    EXPECT_GE(took, 1500) << "closed before 20 s of its clock had passed";
    EXPECT_LE(took, 4000);
}

TEST_F(TsTest, answer_after_client_closed_is_dropped_and_serving_goes_on) {
    StartTs();
    const std::string h = AbandonedRequest("gone");
    AwaitClose();
    Answer(h, Frame("late"));
    EXPECT_TRUE(Logged({"is offline"}));
    ExpectExchange("next");
}

// A client that leaves with its request out keeps its descriptor number
// until the answer has come: a newcomer from the same address (a NAT, a
// proxy) can never receive the other's late answer.
TEST_F(TsTest, late_answer_never_reaches_a_newcomer_from_the_same_address) {
    StartTs();
    const std::string h = AbandonedRequest("first");
    AwaitClose();
    comp::UniqueFd other = Client("second");
    const std::string h2 = NextRequest().header;
    ASSERT_FALSE(h.empty() || h2.empty()) << AllLogs();
    EXPECT_NE(At<int32_t>(h2.data(), 16), At<int32_t>(h.data(), 16)) << "the number of the gone client was given out";

    Answer(h, Frame("for first"));
    EXPECT_TRUE(Logged({"is offline"}));
    Answer(h2, Frame("for second"));
    EXPECT_EQ(ReadUntilClose(other.get(), 3000), Frame("for second"));
    // Its answer came, so the held number is free for the next client.
    comp::UniqueFd third = Client("third");
    EXPECT_EQ(At<int32_t>(NextRequest().header.data(), 16), At<int32_t>(h.data(), 16));
}

TEST_F(TsTest, client_reset_before_its_answer_drops_only_that_answer) {
    COMP_REQUIRE_BIG_MESSAGES();   // the answer is 60,000 bytes
    StartTs();
    Request r;
    {
        comp::UniqueFd s = comptest::Connect(port);
        ASSERT_TRUE(Send(s.get(), Frame("big")));
        r = NextRequest();
        ASSERT_TRUE(r);
        linger hard{1, 0};
        setsockopt(s.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    }  // closed with a reset while TranP still works on the request
    AwaitClose();
    Answer(r.header, Frame(std::string(60000, 'a')));
    EXPECT_TRUE(Logged({"is offline"})) << AllLogs();
    ExpectExchange("after");
}

TEST_F(TsTest, bad_frames_close_only_their_connection) {
    StartTs({{"MSGLENADJUST", "-10"}});  // "0005" becomes -5: not a length
    comp::UniqueFd waiting = comptest::Connect(port);
    comp::UniqueFd bad = Client("hello");
    EXPECT_TRUE(Closes(bad.get(), 3000));

    comp::UniqueFd cut = comptest::Connect(port);
    ASSERT_TRUE(Send(cut.get(), "001"));  // a header cut short, then the peer leaves
    cut.reset();

    comp::UniqueFd stall = comptest::Connect(port);
    ASSERT_TRUE(Send(stall.get(), "0020abc"));  // half a body, then silence
    EXPECT_TRUE(Closes(stall.get(), 3000)) << "a peer stalling mid-message is dropped";

    EXPECT_TRUE(Logged({"SysGetLenFromHead error"}));
    // The first client is still served (its body length is 5 + 10 - 10).
    ASSERT_TRUE(Send(waiting.get(), Frame(std::string(15, 'w'))));
    EXPECT_EQ(NextRequest().body.size(), 4u + 5u) << AllLogs();
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "comp still runs";
}

TEST_F(TsTest, input_pre_handling_can_answer_and_consume_the_request) {
    InstallPlugin();
    StartTs({{"INPREHDL", "PreReplyConsume"}});
    comp::UniqueFd s = Client("ping");
    bool closed = false;
    EXPECT_EQ(ReadUntilClose(s.get(), 500, &closed), "ACK");
    EXPECT_FALSE(closed) << "the connection stays open";
    EXPECT_FALSE(NextRequest(300)) << "consumed requests do not reach TranP";
}

TEST_F(TsTest, output_pre_handling_rewrites_the_answer) {
    InstallPlugin();
    StartTs({{"OUTPREHDL", "PreUpper"}});
    comp::UniqueFd s = Client("ping");
    Answer(NextRequest().header, "0004pong");
    EXPECT_EQ(ReadUntilClose(s.get(), 3000), "0004PONG");
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

    comp::UniqueFd s = Client("waits");
    EXPECT_FALSE(NextRequest(500));
    ASSERT_GT(ReadToTranp(buf.get(), 1, 1000), 0);  // the router drains
    EXPECT_EQ(NextRequest(3000).body, Frame("waits")) << AllLogs();
}

TEST_F(TsTest, doorbell_without_an_answer_is_reported_by_SysResponseWork_and_ends_the_process) {
    StartTs();
    AllowFatal("expect data but not found,fatal error!");
    Control('0', "1_" + std::to_string(pid));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"[SysTCPTS:SysResponseWork:"})) << AllLogs();
    EXPECT_NE(AllLogs().find("]expect data but not found,fatal error!"), std::string::npos);
}

TEST_F(TsTest, quit_command_logs_off_and_ends_with_status_0) {
    StartTs();
    Control('x');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_GT(ReadCommonp(buf.get(), 4, 2000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
    EXPECT_NE(AllLogs().find("[SysTCPTS,"), std::string::npos) << "the loop's lines name the mode";
    EXPECT_FALSE(std::filesystem::exists(run.file("fifo/1_" + std::to_string(pid))))
        << "the notification FIFO is removed";
}

// ---- TS keeps serving through faults around it ------------------------------

// CPU time (user and system) comp has used so far, in clock ticks.
long CpuTicks(pid_t p) {
    const std::string stat = comptest::ReadFile("/proc/" + std::to_string(p) + "/stat");
    std::istringstream in(stat.substr(stat.rfind(')') + 2));
    std::string field;
    long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && in >> field; ++i) {
        if (i == 14) utime = std::stol(field);
        if (i == 15) stime = std::stol(field);
    }
    return utime + stime;
}

// Removed by an operator's clean-up, the doorbell FIFO is made again and the
// answers reach their clients again.
TEST_F(TsTest, removed_notification_fifo_is_made_again_and_the_route_recovers) {
    StartTs();
    const std::string fifo = run.file("fifo/1_" + std::to_string(pid));
    ASSERT_EQ(unlink(fifo.c_str()), 0);
    const int64_t removed = kit::NowMs();
    ASSERT_TRUE(AwaitLog("[" + fifo + "] of descriptor ", 1, 3000)) << AllLogs();
    EXPECT_LE(kit::NowMs() - removed, 1500) << "noticed within a second";
    EXPECT_TRUE(Logged({"was removed; made it again"})) << AllLogs();
    EXPECT_TRUE(std::filesystem::is_fifo(fifo));
    ExpectExchange("after");
}

// A burst of one failure: every client past the table is refused with the
// same line; a few are written, the rest counted in summary lines.
TEST_F(TsTest, burst_of_one_failure_writes_a_few_lines_and_a_summary_with_the_count) {
    vars["MAX_COM_NUM"] = "16";
    StartTs();
    constexpr int kClients = 80;
    std::vector<comp::UniqueFd> clients;
    for (int i = 0; i < kClients; ++i) clients.push_back(comptest::Connect(port));
    ASSERT_TRUE(AwaitLog("left out ", 1, 5000)) << AllLogs();
    const std::string logs = AllLogs();
    const std::regex line("Message:\n\\[SysTCPTS,[0-9]+\\]Too many communication node\\.\n");
    const std::regex summary("left out ([0-9]+) identical lines in [0-9]+ ms: \\[SysTCPTS,[0-9]+\\]Too many");
    const long written = std::distance(std::sregex_iterator(logs.begin(), logs.end(), line), std::sregex_iterator());
    long leftOut = 0, summaries = 0;
    for (auto it = std::sregex_iterator(logs.begin(), logs.end(), summary); it != std::sregex_iterator(); ++it) {
        leftOut += std::stol((*it)[1]);
        ++summaries;
    }
    EXPECT_GE(written, 1);
    EXPECT_LE(written, 5 * (summaries + 1)) << "a few a second";
    EXPECT_GE(written + leftOut, kClients - 16) << "every refused client is written or counted";
    EXPECT_LE(written + leftOut, kClients);
}

// Out of descriptors, TS logs once, leaves its listener alone for a while
// instead of spinning on it, and accepts again once descriptors are free.
TEST_F(TsTest, listener_out_of_descriptors_backs_off_without_spinning_and_recovers) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizers' own checks and reports need descriptors, which this test uses up";
#endif
    compOpenFiles = 32;
    StartTs();
    std::vector<comp::UniqueFd> clients;
    for (int i = 0; i < 48 && LogCount("]no descriptor for a new connection") == 0; ++i) {
        clients.push_back(comptest::Connect(port));
        kit::SleepMs(5);
    }
    ASSERT_TRUE(AwaitLog("]no descriptor for a new connection.errno=24", 1, 3000)) << AllLogs();
    const long before = CpuTicks(pid);
    kit::SleepMs(1500);
    const long used = CpuTicks(pid) - before;
    EXPECT_LE(used, sysconf(_SC_CLK_TCK) / 4) << "CPU ticks in 1.5 s while backing off";
    EXPECT_EQ(LogCount("]no descriptor for a new connection"), 1) << "said once";

    clients.clear();
    ASSERT_TRUE(AwaitLog("]accepting again: a descriptor was free after ", 1, 5000)) << AllLogs();
    ExpectExchange("after");
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "comp still runs";
}

class TcTest : public ModeTest {
protected:
    // Starts TC with the test's server listening (or, without `listen`,
    // nobody there yet).
    void StartTc(comptest::RouteRow overrides = {}, bool listen = true) {
        if (listen)
            listener = comptest::Listen(&serverPort);
        else
            serverPort = comptest::FreeLoopbackPort();
        Start("SysTCPTC", kTcRoute, serverPort, overrides);
    }
    // TranP's request for the route: a header naming a requester, then body.
    void Request(const std::string& body) {
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size()), 0, 0, 4242, 0, 0, 0, 9, 0, {}, {}, 0, {}};
        const std::string text = h.bytes() + body;
        DeliverToComp(kTcRoute, comp::kFifoRouteNotify, "20_1", {text.begin(), text.end()});
    }
    comp::UniqueFd AcceptRequest(const std::string& body) {
        comp::UniqueFd conn = comptest::Accept(listener.get(), 5000);
        EXPECT_TRUE(conn.valid()) << AllLogs();
        EXPECT_EQ(comptest::ReadFrame(conn.get(), 3000), Frame(body));
        return conn;
    }

    int serverPort = 0;
    comp::UniqueFd listener;
};

TEST_F(TcTest, request_goes_to_the_server_on_a_new_connection_and_the_answer_to_tranp) {
    StartTc();
    Request(Frame("ask"));
    comp::UniqueFd conn = AcceptRequest("ask");
    ASSERT_TRUE(Send(conn.get(), Frame("told")));

    ASSERT_EQ(ReadToTranp(buf.get(), pid, 5000), 64 + 8) << AllLogs();
    const char* p = buf->caText;
    EXPECT_EQ(std::string(p + 64, 8), Frame("told"));
    const int fd = At<int32_t>(p, comp::plat::kSock);  // comp's own connection to the server
    comptest::PlatHdr want{72, 0, pid, pid, kTcRoute, kTcRoute, fd, fd, serverPort, "127.0.0.1", "127.0.0.1", 'M', {}};
    EXPECT_EQ(std::string(p, 64), want.bytes());
    EXPECT_TRUE(Closes(conn.get(), 2000)) << "one answer per connection";
}

TEST_F(TcTest, server_that_never_answers_is_closed_after_the_idle_timeout) {
    StartTc({{"IDLETIMEOUT", "1"}});
    Request(Frame("hang"));
    comp::UniqueFd conn = AcceptRequest("hang");
    EXPECT_TRUE(Closes(conn.get(), 6000));
    EXPECT_EQ(ReadToTranp(buf.get(), pid, 300), 0) << "nothing reaches TranP";
    EXPECT_TRUE(Logged({"time out and close"}));
}

TEST_F(TcTest, unreachable_server_costs_only_that_request) {
    StartTc({}, false);
    Request(Frame("lost"));
    EXPECT_TRUE(Logged({"iSockConnect error"}));
    listener = comptest::Listen(&serverPort);
    ASSERT_TRUE(listener.valid()) << "the port was taken meanwhile";
    Request(Frame("kept"));
    AcceptRequest("kept");
}

TEST_F(TcTest, answer_spanning_two_messages_yields_only_the_first) {
    StartTc();
    Request(Frame("two"));
    comp::UniqueFd conn = AcceptRequest("two");
    ASSERT_TRUE(Send(conn.get(), Frame("one") + Frame("more")));
    ASSERT_EQ(ReadToTranp(buf.get(), pid, 5000), 64 + 7);
    EXPECT_EQ(ReadToTranp(buf.get(), pid, 300), 0);
}

TEST_F(TcTest, answer_too_long_for_a_platform_message_is_dropped_and_serving_goes_on) {
    COMP_REQUIRE_BIG_MESSAGES();
    StartTc(kBinaryFraming);
    for (int total : {65473, 65472}) {
        Request(Binary(8));
        comp::UniqueFd conn = comptest::Accept(listener.get(), 5000);
        ASSERT_TRUE(conn.valid()) << AllLogs();
        ASSERT_TRUE(Send(conn.get(), Binary(total)));
        EXPECT_TRUE(Closes(conn.get(), 3000));
    }
    EXPECT_EQ(ReadToTranp(buf.get(), pid, 5000), 64 + 65472) << "only the answer that fits";
    EXPECT_TRUE(Logged({"answer of 65473 bytes exceeds the 65472 a platform message carries,dropped"}));
}

TEST_F(TcTest, any_control_byte_ends_the_process) {
    StartTc();
    Control('0');
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"bad branch"}));
    EXPECT_GT(ReadCommonp(buf.get(), 4, 2000), 0) << "logged off";
}

TEST_F(TcTest, doorbell_without_a_request_is_reported_by_SysTcptcRecvPlatMsg) {
    StartTc();
    AllowFatal("expect data but not found,fatal error!");
    Control('0', "2_20_1");
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"[SysTCPTC:SysTcptcRecvPlatMsg:"})) << AllLogs();
}

TEST_F(TcTest, wrong_msgsndtype_ends_the_process_on_the_first_request) {
    StartTc({{"MSGSNDTYPE", "0"}});
    Request(Frame("any"));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"MSGSNDTYPE should be 1"}));
}

}  // namespace
