// Whole-process tests of the persistent server mode (PS): comp inherits a
// listener the test opens, accepts when the test writes "0" to its control
// FIFO (the starting process's part), and the test plays the router and the
// clients.
#include <filesystem>

#include "ModeFixture.h"
#include "kit/KitUtil.h"

namespace {

namespace fs = std::filesystem;
using comptest::At;
using comptest::Frame;
using comptest::Send;

constexpr int kRoute = 31;

class PsTest : public comptest::ModeTest {
protected:
    void StartPs(comptest::RouteRow overrides = {}) {
        if (!sharedListener.valid()) OpenSharedListener();
        StartMode("SysTCPPS", comptest::MakeRouteRow(kRoute, "", "0"), overrides, "][SysTCPPS]");
        insts = {c};
    }
    size_t StartAnother(int instanceNo) {
        insts.push_back(StartInstance(instanceNo, "][SysTCPPS]"));
        return insts.size() - 1;
    }
    // The last number a log line "<text><number>" of instance k shows, or -1.
    int LastNumber(size_t k, const std::string& text) const {
        const std::string log = CompTraceLog(insts.at(k));
        size_t at = log.rfind(text);
        return at == std::string::npos ? -1 : std::atoi(log.c_str() + at + text.size());
    }
    // A client that connected and that instance k accepted on "0"; its
    // descriptor in comp.
    struct Client {
        comp::UniqueFd fd;
        int compFd = -1;
    };
    Client Accepted(size_t k = 0) {
        Client cl{comptest::Connect(sharedPort), -1};
        const std::string before = CompTraceLog(insts.at(k));
        Wake(k);
        EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpAccepted, 3000), 0) << "no code 9" << AllLogs();
        EXPECT_EQ(At<int32_t>(buf->caText, comp::plat::kPid), comp(insts.at(k)).pid);
        EXPECT_TRUE(AwaitCount([&] { return CompTraceLog(insts.at(k)).substr(before.size()); }, ",New fd ", 1))
            << AllLogs();
        cl.compFd = LastNumber(k, ",New fd ");
        return cl;
    }
    // TranP's message for descriptor fd of instance k.
    void ToClient(int fd, const std::string& body, size_t k = 0) {
        const pid_t p = comp(insts.at(k)).pid;
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size()), 0, p, p, kRoute, kRoute, fd, fd, 0, {},
                                  {}, 'M', {}};
        const std::string text = h.bytes() + body;
        DeliverToComp(p, comp::kFifoPidNotify, std::to_string(p), {text.begin(), text.end()});
    }
    static std::string ReadSome(int fd, size_t want, int ms = 3000) {
        std::string got;
        for (const int64_t end = kit::NowMs() + ms; got.size() < want && kit::NowMs() < end;)
            got += comptest::ReadUntilClose(fd, 50);
        return got;
    }
    void InstallPlugin() {
        fs::copy_file(COMP_PLUGIN_DIR "/libBeatMsg.so", run.file("runs/bin/libBeatMsg.so"));
    }
    bool Running(size_t k = 0) { return WaitComp(insts.at(k), 0) == -1; }

    std::vector<size_t> insts;   // comps() index of each instance
};

TEST_F(PsTest, accepts_on_command_reports_code_9_and_sends_tranp_messages_to_the_client) {
    StartPs();
    Client cl = Accepted();
    ASSERT_GT(cl.compFd, 2);
    ToClient(cl.compFd, "hello");
    EXPECT_EQ(ReadSome(cl.fd.get(), 5), "hello") << AllLogs();
    EXPECT_TRUE(Logged({"write to net.len=5"}));
}

TEST_F(PsTest, accept_with_nobody_waiting_still_reports_code_9_and_serves_on) {
    StartPs();
    Wake(0);
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpAccepted, 3000), 0);
    EXPECT_TRUE(Logged({"]zzz"}));
    EXPECT_TRUE(Logged({"iSockAccept error.errno=11"}));
    Client cl = Accepted();
    ToClient(cl.compFd, "later");
    EXPECT_EQ(ReadSome(cl.fd.get(), 5), "later");
}

TEST_F(PsTest, two_instances_share_one_listener_each_holding_its_clients) {
    StartPs();
    const size_t second = StartAnother(2);
    Client a = Accepted(0);
    Client b = Accepted(second);
    ToClient(b.compFd, "to b", second);
    ToClient(a.compFd, "to a", 0);
    EXPECT_EQ(ReadSome(a.fd.get(), 4), "to a");
    EXPECT_EQ(ReadSome(b.fd.get(), 4), "to b");
}

TEST_F(PsTest, live_packages_keep_a_silent_client_open_past_the_idle_timeout) {
    InstallPlugin();
    StartPs({{"BEATINTERVAL", "0"}, {"IDLETIMEOUT", "1"}});
    Client cl = Accepted();
    EXPECT_EQ(ReadSome(cl.fd.get(), 18, 5000), "BEAT31BEAT31BEAT31") << AllLogs();
    EXPECT_TRUE(Logged({"send live pkg to [127.0.0.1]"}));
    EXPECT_EQ(LogCount("time out and close"), 0);
}

TEST_F(PsTest, silent_client_is_closed_after_the_idle_timeout_when_live_packages_come_later) {
    StartPs({{"BEATINTERVAL", "5"}, {"IDLETIMEOUT", "1"}});
    Client cl = Accepted();
    EXPECT_TRUE(Closes(cl.fd.get(), 4000));
    EXPECT_TRUE(Logged({"Socket[-1][1]time out and close"})) << AllLogs();
    EXPECT_TRUE(Running());
}

TEST_F(PsTest, live_package_that_cannot_be_sent_closes_its_client) {
    // Without the plug-in there is no live package for this route: an empty
    // one cannot be sent.
    StartPs({{"BEATINTERVAL", "0"}});
    Client cl = Accepted();
    EXPECT_TRUE(Closes(cl.fd.get(), 4000));
    EXPECT_TRUE(Logged({"send beat heart msg failed."}));
    Client next = Accepted();
    EXPECT_TRUE(Running());
}

// TranP's messages name a descriptor and are sent to it without a check of
// the client: one that has gone fails with "iSockSend error", and a number
// that is no client of this process (here the control FIFO) fails alike
// without harm to it.
TEST_F(PsTest, tranp_message_for_a_gone_client_fails_and_serving_goes_on) {
    StartPs();
    Client gone = Accepted();
    gone.fd.reset();
    EXPECT_TRUE(Logged({"SysTcpRecvMsg error"}));
    ToClient(gone.compFd, "late");
    EXPECT_TRUE(AwaitLog("iSockSend error", 1));
    ToClient(LastNumber(0, "ctlfd=["), "not a client");
    EXPECT_TRUE(AwaitLog("iSockSend error", 2));
    EXPECT_TRUE(Logged({"socket error."}));

    Client cl = Accepted();
    ToClient(cl.compFd, "served");
    EXPECT_EQ(ReadSome(cl.fd.get(), 6), "served");
    Control('x');
    EXPECT_EQ(WaitComp(c, 5000), 0) << "the control FIFO still works";
}

// Kept as the platform has it: a PS process ends on the first message a
// client sends, once it is read and logged, and nothing reaches TranP.
TEST_F(PsTest, first_message_from_a_client_ends_the_process) {
    StartPs();
    Client cl = Accepted();
    ASSERT_TRUE(Send(cl.fd.get(), Frame("hi")));
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"]len=6"}));
    EXPECT_TRUE(Logged({"SysBuildPlatMsg error"}));
    EXPECT_EQ(ReadToTranp(buf.get(), pid, 300), 0);
    EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0) << "logged off";
    EXPECT_FALSE(fs::exists(run.file("fifo/1_" + std::to_string(pid))));
}

TEST_F(PsTest, descriptor_at_or_above_max_com_num_is_refused) {
    OpenSharedListener();
    vars["MAX_COM_NUM"] = std::to_string(sharedListener.get() + 6);
    StartPs();
    std::vector<Client> clients;
    while (LogCount("Too many communication node") == 0 && clients.size() < 8) {
        const int accepted = LogCount(",New fd ");
        clients.push_back(Client{comptest::Connect(sharedPort), -1});
        Wake(0);
        ASSERT_GT(ReadCommonp(buf.get(), comp::kCommonpAccepted, 3000), 0);
        for (const int64_t end = kit::NowMs() + 3000; kit::NowMs() < end; kit::SleepMs(10))
            if (LogCount(",New fd ") > accepted || LogCount("Too many communication node") > 0) break;
        clients.back().compFd = LastNumber(0, ",New fd ");
    }
    ASSERT_EQ(LogCount("Too many communication node"), 1) << AllLogs();
    EXPECT_TRUE(Closes(clients.back().fd.get(), 2000)) << "the refused client is closed";
    clients.pop_back();
    ToClient(clients.back().compFd, "still");
    EXPECT_EQ(ReadSome(clients.back().fd.get(), 5), "still");
}

TEST_F(PsTest, wrong_msgsndtype_ends_the_process_on_the_first_tranp_message) {
    StartPs({{"MSGSNDTYPE", "1"}});
    Client cl = Accepted();
    ToClient(cl.compFd, "any");
    EXPECT_EQ(WaitComp(c, 5000), 0);
    EXPECT_TRUE(Logged({"config error ,MSGSNDTYPE"}));
}

TEST_F(PsTest, quit_and_unknown_commands_end_the_process) {
    StartPs();
    const size_t second = StartAnother(2);
    Control('x');
    ControlOf(second, 'q');
    EXPECT_EQ(WaitComp(insts[0], 5000), 0);
    EXPECT_EQ(WaitComp(insts[second], 5000), 0);
    EXPECT_TRUE(Logged({"recv quit cmd"}));
    EXPECT_TRUE(Logged({"bad branch"}));
}

}  // namespace
