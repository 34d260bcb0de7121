// Whole-process tests of the polled server mode (PASSYN): clients on the
// shared listener from several loopback addresses, the router's part played
// by the test, and the task queue seen from outside by its key.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/msg.h>

#include <csignal>

#include <filesystem>

#include "SynModeTest.h"
#include "ipc/SysConnReg.h"
#include "kit/KitUtil.h"
#include "kit/SynPeers.h"

namespace {

using comptest::At;
using kit::SynBytes;

constexpr int kRoute = 51;
constexpr key_t kTaskKeyOffset = 0x8000;

class PassynTest : public comptest::SynModeTest {
protected:
    // comp leaves through its quit path, which removes its task queue (the
    // fixture's SIGTERM would leave the queue behind); a queue comp could not
    // remove is removed here.
    void TearDown() override {
        if (pid > 0 && WaitComp(c, 0) == -1) {
            Control('x');
            WaitComp(c, 3000);
        }
        if (pid > 0) RemoveTaskQueue(pid);
        SynModeTest::TearDown();
    }
    static void RemoveTaskQueue(pid_t owner) {
        const int q = msgget(static_cast<key_t>(owner + kTaskKeyOffset), 0);
        if (q >= 0) msgctl(q, IPC_RMID, nullptr);
    }
    void Start(comptest::RouteRow overrides = {}) {
        OpenSharedListener();
        comptest::RouteRow row = comptest::MakeRouteRow(kRoute, "-1", "0");
        for (const auto& [k, v] : SynColumns()) row[k] = v;
        row["BEATINTERVAL"] = "30";   // no push unless a test waits for one
        row["BEATSWITCH"] = "1";
        StartMode("SysTCPPASSYN", row, overrides, "Begin Working");
    }
    // A client from `from`, accepted on command, that has read its first
    // poll; TranP has heard of it.
    comp::UniqueFd Client(const std::string& from = "127.0.0.1") {
        comp::UniqueFd s = comptest::Connect(sharedPort, from);
        // A frame written in pieces must not wait for Nagle's algorithm: its
        // rest has to follow within milliseconds.
        int one = 1;
        setsockopt(s.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        Wake();
        EXPECT_EQ(Frame(s.get()), SynBytes(1, 0)) << AllLogs();
        EXPECT_EQ(Next(), "N001 " + from);
        return s;
    }
    // TranP's message for a client, by descriptor (0: by address).
    void Task(int fd, const std::string& ip, const std::string& frame) {
        comptest::PlatHdr h{static_cast<uint16_t>(64 + frame.size()), 0, 4242, 4242, kRoute, kRoute, fd, fd, 0, {}, {},
                            'M', {}};
        std::snprintf(h.ip, sizeof h.ip, "%s", ip.c_str());
        const std::string text = h.bytes() + frame;
        DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), {text.begin(), text.end()});
    }
    // comp's descriptor of a client: the one its data frames arrive with.
    int DescriptorOf(int client, int serial) {
        EXPECT_TRUE(comptest::Send(client, SynBytes(4, serial, "who")));
        std::string header;
        EXPECT_EQ(Next(3000, &header), SynBytes(4, serial, "who"));
        EXPECT_EQ(Frame(client), SynBytes(1, serial + 1)) << "answered with a poll: no task";
        return header.empty() ? -1 : At<int32_t>(header.data(), comp::plat::kSock);
    }
    int TaskQueue() const { return msgget(static_cast<key_t>(pid + kTaskKeyOffset), 0); }
    std::string ConnLog(const std::string& ip = "127.0.0.1") const {
        return comptest::ReadFile(run.file("runs/log/com_route51_" + ip + ".log"));
    }
    bool Served(comp::UniqueFd& s, int serial) {
        return comptest::Send(s.get(), SynBytes(4, serial, "still")) && Frame(s.get()) == SynBytes(1, serial + 1) &&
               Next() == SynBytes(4, serial, "still");
    }
};

TEST_F(PassynTest, first_poll_then_data_frames_are_answered_and_go_on_to_tranp) {
    Start();
    EXPECT_GE(TaskQueue(), 0) << "the task queue has the key pid + 0x8000";
    comp::UniqueFd s = Client();
    ASSERT_EQ(SysConnectMem(1, 2), 0);
    ConnNode node{};
    EXPECT_EQ(SysGetPidByRouteidIp("51", "127.0.0.1", &node), pid) << "registered";
    SysConnRegDetach();

    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, 0, "hello")));
    EXPECT_EQ(Frame(s.get()), SynBytes(1, 1)) << "no task: the answer is a poll with the next serial";
    std::string header;
    EXPECT_EQ(Next(3000, &header), SynBytes(4, 0, "hello"));
    ASSERT_EQ(header.size(), 64u);
    EXPECT_EQ(At<int32_t>(header.data(), comp::plat::kPid), pid);
    EXPECT_EQ(std::string(header.data() + comp::plat::kIp), "127.0.0.1");
    EXPECT_EQ(At<int32_t>(header.data(), comp::plat::kPort), comptest::LocalPort(s.get()));

    // Polls and "no data" are neither answered nor passed on.
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 1) + SynBytes(1, 1)));
    EXPECT_EQ(Next(300), "");
    const std::string log = ConnLog();
    EXPECT_NE(log.find("-----BEGINC>>>"), std::string::npos) << log;
    EXPECT_NE(log.find("server rcv net,len[11]"), std::string::npos) << log;
}

// Tasks wait in the task queue under the client's address, and go out as
// the answer to a data frame or, once the client has been quiet for longer
// than the wait limit (0: half a second), pushed; without a task the push
// is a poll. At most one frame of comp waits for the client at a time.
TEST_F(PassynTest, tasks_go_out_as_answers_or_pushes_after_the_wait_limit) {
    Start({{"BEATINTERVAL", "0"}});
    const int64_t start = kit::NowMs();
    comp::UniqueFd s = Client();
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 0)));
    EXPECT_EQ(Frame(s.get()), SynBytes(1, 1));
    EXPECT_GE(kit::NowMs() - start, 490) << "not before half a second since the first poll";
    EXPECT_EQ(Frame(s.get(), 1200), "") << "no second push while the first waits for its answer";
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "write Query to net", 1)) << ConnLog();

    Task(0, "127.0.0.1", SynBytes(9, 9, "by address"));
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "write to task queue succ", 1)) << AllLogs();
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 1)));
    EXPECT_EQ(Frame(s.get()), SynBytes(4, 2, "by address")) << "pushed with command 4 and the next serial";
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "write Task to net", 1));

    const int fd = DescriptorOf(s.get(), 2);
    Task(fd, "127.0.0.1", SynBytes(0, 0, "by descriptor"));
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "write to task queue succ", 2));
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, 3, "give")));
    EXPECT_EQ(Frame(s.get()), SynBytes(4, 4, "by descriptor")) << "a data frame is answered with the task at once";
    EXPECT_EQ(Next(), SynBytes(4, 3, "give"));
}

TEST_F(PassynTest, heartbeat_switch_0_hands_out_tasks_only_as_answers) {
    Start({{"BEATSWITCH", "0"}});
    comp::UniqueFd s = Client();
    Task(0, "127.0.0.1", SynBytes(4, 0, "waits"));
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 0)));
    EXPECT_EQ(Frame(s.get(), 1500), "") << "no push";
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, 0, "ask")));
    EXPECT_EQ(Frame(s.get()), SynBytes(4, 1, "waits"));
}

// A task names its client by descriptor and address; one that names another
// client, a closed one, or an address without a client is dropped, and its
// client keeps its own tasks.
TEST_F(PassynTest, tasks_for_another_address_or_a_closed_client_are_dropped) {
    Start();
    comp::UniqueFd a = Client("127.0.0.1");
    comp::UniqueFd b = Client("127.0.0.2");
    const int fdA = DescriptorOf(a.get(), 0), fdB = DescriptorOf(b.get(), 0);
    Task(fdA, "127.0.0.2", SynBytes(4, 0, "for b by a's fd"));
    EXPECT_TRUE(Logged({"was replaceed [127.0.0.1,127.0.0.2]"})) << AllLogs();
    Task(0, "127.0.0.3", SynBytes(4, 0, "nobody"));
    EXPECT_TRUE(Logged({"IP 127.0.0.3 didn't find the original connection!"})) << AllLogs();
    b.reset();
    EXPECT_EQ(Next(), "N003 127.0.0.2");
    Task(fdB, "127.0.0.2", SynBytes(4, 0, "b is gone"));
    EXPECT_TRUE(Logged({"had closed"})) << AllLogs();

    Task(fdA, "127.0.0.1", SynBytes(4, 0, "for a"));
    ASSERT_TRUE(comptest::Send(a.get(), SynBytes(4, 1, "next")));
    EXPECT_EQ(Frame(a.get()), SynBytes(4, 2, "for a"));
}

// Bad frames cost their connection, with N003 to TranP, and nothing else.
TEST_F(PassynTest, bad_frames_and_slipping_serials_close_only_their_connection) {
    Start({{"BEATSWITCH", "0"}});
    comp::UniqueFd good = Client("127.0.0.9");
    struct Case {
        const char* what;
        std::string bytes;
        const char* line;
    };
    std::string badEnd = SynBytes(4, 0, "x"), badBegin = badEnd;
    badEnd.back() = '\x04';
    badBegin[0] = '\xEA';
    const Case cases[] = {
        {"end byte", badEnd, "msg format error"},
        {"begin byte", badBegin, "msg format error"},
        {"command", SynBytes(3, 0), "msg format error"},
        {"skipped serial", SynBytes(4, 1, "x"), "msg has an invalid serial num,expect[0],actual[1]"},
        {"repeated serial", SynBytes(2, 0) + SynBytes(4, 0, "a") + SynBytes(4, 0, "b"),
         "msg has an invalid serial num,expect[1],actual[0]"},
        {"length past 65535", std::string("\xEB\x04\x00\xFF\xFF", 5), "SysGetLenFromHead error"},
        {"frame cut short", SynBytes(4, 0, "cut").substr(0, 6), "SysTcpRecvMsg error"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        comp::UniqueFd s = Client();
        ASSERT_TRUE(comptest::Send(s.get(), c.bytes));
        EXPECT_TRUE(Closes(s.get(), 3000));
        std::string n;
        while ((n = Next()).rfind("N003", 0) != 0 && !n.empty()) {
        }
        EXPECT_EQ(n, "N003 127.0.0.1");
        EXPECT_TRUE(Logged({c.line})) << AllLogs();
    }
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "-----ENDC<<<", 7)) << ConnLog();
    EXPECT_TRUE(Served(good, 0)) << AllLogs();
}

// The stream is cut into frames by the route's framing, whatever the
// writes. (Frames cut into pieces a moment apart are tested in-process.)
TEST_F(PassynTest, several_frames_in_one_write_or_one_byte_a_write) {
    Start({{"BEATSWITCH", "0"}});
    comp::UniqueFd s = Client();
    // Three frames in one write: the two first are not answered.
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 0) + SynBytes(1, 0) + SynBytes(4, 0, "3rd")));
    EXPECT_EQ(Frame(s.get()), SynBytes(1, 1));
    EXPECT_EQ(Next(), SynBytes(4, 0, "3rd"));
    // One byte per write, all in before comp reads.
    const std::string f = SynBytes(4, 1, "bytewise");
    kill(pid, SIGSTOP);
    for (char c : f) EXPECT_TRUE(comptest::Send(s.get(), std::string(1, c)));
    kill(pid, SIGCONT);
    EXPECT_EQ(Frame(s.get()), SynBytes(1, 2));
    EXPECT_EQ(Next(), f);
}

TEST_F(PassynTest, serial_wraps_from_255_to_0) {
    Start({{"BEATSWITCH", "0"}});
    comp::UniqueFd s = Client();
    for (int i = 0; i < 260; ++i) {
        ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, i & 0xFF, "n")));
        ASSERT_EQ(Frame(s.get()), SynBytes(1, (i + 1) & 0xFF)) << "exchange " << i;
        ASSERT_EQ(Next(), SynBytes(4, i & 0xFF, "n"));
    }
}

TEST_F(PassynTest, a_client_that_stops_polling_is_closed_after_the_idle_timeout) {
    Start({{"IDLETIMEOUT", "1"}});
    comp::UniqueFd s = Client();
    EXPECT_TRUE(Closes(s.get(), 5000));
    EXPECT_EQ(Next(), "N003 127.0.0.1");
    EXPECT_NE(ConnLog().find("time out and close"), std::string::npos) << ConnLog();
}

// comp's clock stepped back under a client that waits for its push: the
// send time is pulled back to the clock and the wait limit counts from
// there; stepped forward past the limit, the push goes at once.
TEST_F(PassynTest, clock_stepped_back_or_forward_under_a_waiting_client) {
    const std::string offsetFile = run.file("faketime.offset");
    run.write("faketime.offset", "+0\n");
    compEnv = SteppedClock(offsetFile);
    if (compEnv.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
    Start({{"BEATINTERVAL", "2"}, {"IDLETIMEOUT", "3000"}});   // the jumps must not end the client
    comp::UniqueFd s = Client();
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 0)));
    run.write("faketime.offset", "-30\n");
    int64_t t = kit::NowMs();
    EXPECT_EQ(Frame(s.get(), 8000), SynBytes(1, 1)) << AllLogs();
    EXPECT_LT(kit::NowMs() - t, 4000) << "two seconds after the step, not thirty-two";
    EXPECT_TRUE(Logged({" || "})) << AllLogs();

    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(2, 1)));
    kit::SleepMs(200);
    run.write("faketime.offset", "+30\n");
    t = kit::NowMs();
    EXPECT_EQ(Frame(s.get(), 3000), SynBytes(1, 2));
    EXPECT_LT(kit::NowMs() - t, 1500) << "pushed on the pass after the jump";
}

// A full task queue is waited out: the task goes in once there is room.
TEST_F(PassynTest, full_task_queue_holds_the_task_until_there_is_room) {
    Start({{"BEATSWITCH", "0"}});
    comp::UniqueFd s = Client();
    const int q = TaskQueue();
    ASSERT_GE(q, 0);
    msqid_ds ds{};
    ASSERT_EQ(msgctl(q, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 100;
    ASSERT_EQ(msgctl(q, IPC_SET, &ds), 0);
    Task(0, "127.0.0.1", SynBytes(4, 0, "first"));
    Task(0, "127.0.0.1", SynBytes(4, 0, "second"));
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "is full.MsgWriteNoWait error", 2)) << ConnLog();
    ds.msg_qbytes = 4096;
    ASSERT_EQ(msgctl(q, IPC_SET, &ds), 0);
    EXPECT_TRUE(AwaitCount([&] { return ConnLog(); }, "write to task queue succ", 2)) << ConnLog();
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, 0, "a")));
    EXPECT_EQ(Frame(s.get()), SynBytes(4, 1, "first"));
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, 1, "b")));
    EXPECT_EQ(Frame(s.get()), SynBytes(4, 2, "second"));
}

// The task queue goes with the process on every way out: the quit command,
// any other command, a fatal fault, and the loss of the parent.
class PassynQuitTest : public PassynTest, public ::testing::WithParamInterface<char> {};

TEST_P(PassynQuitTest, control_command_ends_the_process_and_removes_the_task_queue) {
    Start();
    ASSERT_GE(TaskQueue(), 0);
    Control(GetParam());
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_LT(TaskQueue(), 0) << "the task queue is gone";
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0);
    EXPECT_FALSE(std::filesystem::exists(run.file("fifo/1_" + std::to_string(pid))));
    EXPECT_TRUE(Logged({GetParam() == 'x' ? "recv quit cmd" : "bad branch"}));
}
INSTANTIATE_TEST_SUITE_P(Commands, PassynQuitTest, ::testing::Values('x', '7'),
                         [](const auto& info) { return info.param == 'x' ? "quit" : "other"; });

TEST_F(PassynTest, task_queue_removed_by_someone_else_ends_the_process) {
    Start();
    comp::UniqueFd s = Client();
    ASSERT_EQ(msgctl(TaskQueue(), IPC_RMID, nullptr), 0);
    ASSERT_TRUE(comptest::Send(s.get(), SynBytes(4, 0, "any task?")));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"SysAnswerBack error,queue error"})) << AllLogs();
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0);
}

TEST_F(PassynTest, lost_parent_ends_the_process_and_removes_the_task_queue) {
    // comp is started by a shell that leaves at once: it is re-parented.
    Start();
    comp::UniqueFd s = Client();
    const std::string pidFile = run.file("orphan.pid");
    const std::string line = "( " + comptest::CompBinary() + " SysTCPPASSYN 51 2 0 e2e_orphan >" +
                             run.file("log/orphan.out") + " 2>&1 & echo $! >" + pidFile + " )";
    ASSERT_EQ(std::system(line.c_str()), 0);
    const pid_t orphan = static_cast<pid_t>(std::atoi(comptest::ReadFile(pidFile).c_str()));
    ASSERT_GT(orphan, 0);
    for (int i = 0; i < 100 && kit::ParentOf(orphan) != 1; ++i) kit::SleepMs(10);
    if (kit::ParentOf(orphan) != 1) {
        kill(orphan, SIGKILL);
        for (int i = 0; i < 250 && kit::ProcessAlive(orphan); ++i) kit::SleepMs(20);
        RemoveTaskQueue(orphan);
        GTEST_SKIP() << "orphans here go to a sub-reaper, not to process 1";
    }
    EXPECT_TRUE(AwaitCount([&] { return AllLogs(); }, "]Parent exit.errno=", 1, 5000)) << AllLogs();
    for (int i = 0; i < 250 && kit::ProcessAlive(orphan); ++i) kit::SleepMs(20);
    EXPECT_FALSE(kit::ProcessAlive(orphan));
    EXPECT_LT(msgget(static_cast<key_t>(orphan + kTaskKeyOffset), 0), 0) << "the orphan's task queue is gone";
    EXPECT_TRUE(Served(s, 0)) << "the first instance serves on";
}

}  // namespace
