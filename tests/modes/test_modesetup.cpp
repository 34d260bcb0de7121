// The pieces every mode shares around the loop: the socket table's lookups,
// the control FIFO's commands and accepting on command from a shared
// listener with its report to Commonp.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/msg.h>
#include <sys/socket.h>

#include "Loopback.h"
#include "UnitFixture.h"
#include "base/SysGlobals.h"
#include "ipc/SysFIFO.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"

namespace {

struct Row {
    int32_t fd;
    int32_t port;
    char peerIp[16];
    int extra;
    static void Free(Row& r) { r = Row{-1, -1, {}, 7}; }
};

TEST(SockTable, finds_rows_by_address_and_port_lowest_descriptor_first) {
    comp::SockTable<Row> t;
    t.Reset(64);
    EXPECT_EQ(t[10].extra, 7) << "rows start in the mode's free state";
    for (int fd : {20, 9, 40}) {
        t.Open(fd);
        t.SetPeer(fd, "10.0.0.1", 1000 + fd);
    }
    t.Open(12);
    t.SetPeer(12, "10.0.0.2", 5);
    // Changes before the first lookup, which builds the index.
    t.Open(30);
    t.SetPeer(30, "10.0.0.9", 1);
    t.SetPeer(30, "10.0.0.7", 2);
    t.Open(31);
    t.SetPeer(31, "10.0.0.8", 1);
    t.FreeRow(31);
    EXPECT_EQ(t.FindByIp("10.0.0.9"), -1);
    EXPECT_EQ(t.FindByIp("10.0.0.8"), -1);
    EXPECT_EQ(t.FindByIpPort("10.0.0.7", 2), 30);
    t.FreeRow(30);
    EXPECT_EQ(t.FindByIp("10.0.0.1"), 9);
    EXPECT_EQ(t.FindByIpPort("10.0.0.1", 1040), 40);
    EXPECT_EQ(t.FindByIpPort("10.0.0.1", 5), -1);
    EXPECT_EQ(t.FindByIp("10.0.0.3"), -1);
    // A header's 16-byte address field may lack its NUL.
    char field[16];
    std::memcpy(field, "10.0.0.2\0garbage", 16);
    EXPECT_EQ(t.FindByIp(std::string_view(field, 16)), 12);

    t.FreeRow(9);
    EXPECT_EQ(t.FindByIp("10.0.0.1"), 20);
    t.SetPeer(20, "10.0.0.2", 6);   // re-addressed: the index follows
    EXPECT_EQ(t.FindByIp("10.0.0.1"), 40);
    EXPECT_EQ(t.FindByIp("10.0.0.2"), 12);
    EXPECT_EQ(t.High(), 40);
    t.FreeRow(40);
    EXPECT_EQ(t.High(), 20);

    std::vector<int> seen;
    t.ForEachOpen([&](int fd, Row&) {
        seen.push_back(fd);
        t.FreeRow(fd);   // freeing the row in hand is allowed
    });
    EXPECT_EQ(seen, (std::vector<int>{12, 20}));
    EXPECT_EQ(t.High(), -1);
}

class ModeSetupTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        commonp = keys.newQueue();
        ASSERT_GE(commonp, 0);
        g_stMsgQCntl[comp::kQueueCommonp].iId = commonp;
    }
    // The code-9 reports on Commonp's queue so far.
    int Reports() {
        struct {
            long type;
            char text[256];
        } m;
        int n = 0;
        while (msgrcv(commonp, &m, sizeof m.text, comp::kCommonpAccepted, IPC_NOWAIT) >= 0) ++n;
        return n;
    }
    int commonp = -1;
};

TEST_F(ModeSetupTest, accept_on_command_reports_code_9_whatever_the_accept_gave) {
    int port = 0;
    comp::UniqueFd lsn(comptest::ListenLoopback(&port));

    comp::Accepted none = comp::AcceptOnCommand(lsn.get(), 1024, comp::AcceptSpec{});
    EXPECT_EQ(none.outcome, comp::AcceptOutcome::kAcceptFailed);
    EXPECT_EQ(none.err, EAGAIN) << "nobody waits: another process took the client";
    EXPECT_EQ(Reports(), 1);

    comp::UniqueFd client = comptest::DialLoopback(port);
    comp::Accepted ok = comp::AcceptOnCommand(lsn.get(), 1024, comp::AcceptSpec{true, true, true});
    ASSERT_EQ(ok.outcome, comp::AcceptOutcome::kOk);
    EXPECT_STREQ(ok.ip, "127.0.0.1");
    EXPECT_GT(ok.port, 0);
    EXPECT_TRUE(fcntl(ok.fd.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(Reports(), 1);

    comp::UniqueFd second = comptest::DialLoopback(port);
    comp::Accepted over = comp::AcceptOnCommand(lsn.get(), ok.fd.get(), comp::AcceptSpec{});
    EXPECT_EQ(over.outcome, comp::AcceptOutcome::kTooMany);
    EXPECT_EQ(Reports(), 1);

    g_stMsgQCntl[comp::kQueueCommonp].iId = -1;   // Commonp's queue is gone
    comp::UniqueFd third = comptest::DialLoopback(port);
    EXPECT_EQ(comp::AcceptOnCommand(lsn.get(), 1024, comp::AcceptSpec{}).outcome,
              comp::AcceptOutcome::kReportFailed);
}

TEST_F(ModeSetupTest, loop_spec_takes_the_backend_of_the_configured_wait_style) {
    using comp::Backend;
    using comp::WaitStyle;
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\n[]\n");
    comp::Loop::Spec spec = comp::ModeLoopSpec("S", "M", 64, 100, Backend::kPoll, Backend::kEpoll);
    EXPECT_EQ(spec.eStyle, WaitStyle::kFixed);
    EXPECT_EQ(spec.eBackend, Backend::kPoll);
    EXPECT_EQ(spec.lWaitUsec, 100);
    run.write("etc/app.cfg", "[APPVARS]\nCOMP_WAIT deadline\n[]\n");
    spec = comp::ModeLoopSpec("S", "M", 64, 100);
    EXPECT_EQ(spec.eStyle, WaitStyle::kDeadline);
    EXPECT_EQ(spec.eBackend, Backend::kEpoll) << "epoll unless the mode says otherwise";
    spec = comp::ModeLoopSpec("S", "M", 64, 100, Backend::kEpoll, Backend::kPoll);
    EXPECT_EQ(spec.eBackend, Backend::kPoll);
}

TEST_F(ModeSetupTest, accept_logged_names_what_went_wrong_and_hands_over_a_good_one) {
    int port = 0;
    comp::UniqueFd lsn(comptest::ListenLoopback(&port));
    comp::Loop::Spec spec;
    spec.pcSrc = "Src";
    spec.iTableSize = 1024;
    comp::Loop loop(spec, comp::Loop::Hooks{});
    comp::Accepted a;
    EXPECT_FALSE(comp::AcceptOnCommandLogged("Src", loop, lsn.get(), comp::AcceptSpec{}, &a));
    EXPECT_TRUE(Logged("]iSockAccept error.errno=11,errmsg=[")) << Logs();

    comp::UniqueFd client = comptest::DialLoopback(port);
    ASSERT_TRUE(comp::AcceptOnCommandLogged("Src", loop, lsn.get(), comp::AcceptSpec{}, &a));
    EXPECT_TRUE(a.fd.valid());

    spec.iTableSize = a.fd.get();
    comp::Loop small(spec, comp::Loop::Hooks{});
    comp::UniqueFd second = comptest::DialLoopback(port);
    comp::Accepted over;
    EXPECT_FALSE(comp::AcceptOnCommandLogged("Src", small, lsn.get(), comp::AcceptSpec{}, &over));
    EXPECT_TRUE(Logged("]Too many communication node.errno="));
    EXPECT_FALSE(over.fd.valid()) << "a refused connection is closed";
    EXPECT_EQ(Reports(), 3);
}

TEST_F(ModeSetupTest, control_commands_quit_accept_or_end_on_a_bad_byte) {
    int fd = iOpenFIFO("ctl", comp::kFifoControl);
    ASSERT_GE(fd, 0);
    auto cmd = [&](const char* bytes, bool accept) {
        if (*bytes) {
            EXPECT_EQ(write(fd, bytes, 1), 1);
        }
        return comp::ReadControlCmd("Src", fd, accept);
    };
    EXPECT_EQ(cmd("0", true), comp::ControlCmd::kAccept);
    EXPECT_EQ(cmd("x", true), comp::ControlCmd::kQuit);
    EXPECT_TRUE(Logged("[Src,")) << Logs();
    EXPECT_TRUE(Logged("]recv quit cmd"));
    EXPECT_EQ(cmd("0", false), comp::ControlCmd::kQuit) << "modes without a listener take no accept";
    EXPECT_TRUE(Logged("]bad branch"));
    EXPECT_EQ(cmd("", true), comp::ControlCmd::kQuit) << "nothing to read";
    EXPECT_TRUE(Logged("]iReadFIFO error,fatal error[11]"));
    close(fd);
}

}  // namespace
