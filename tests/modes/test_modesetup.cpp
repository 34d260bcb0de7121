// The pieces every mode shares around the loop: the socket table's lookups,
// the control FIFO's commands and accepting on command from a shared
// listener with its report to Commonp.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/msg.h>
#include <sys/resource.h>
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

    comp::Accepted none = comp::AcceptOnCommand(lsn.get(), 1024, comp::AcceptOptions{});
    EXPECT_EQ(none.outcome, comp::AcceptOutcome::kAcceptFailed);
    EXPECT_EQ(none.err, EAGAIN) << "nobody waits: another process took the client";
    EXPECT_EQ(Reports(), 1);

    comp::UniqueFd client = comptest::DialLoopback(port);
    comp::Accepted ok = comp::AcceptOnCommand(lsn.get(), 1024, comp::AcceptOptions{true, true, true});
    ASSERT_EQ(ok.outcome, comp::AcceptOutcome::kOk);
    EXPECT_STREQ(ok.ip, "127.0.0.1");
    EXPECT_GT(ok.port, 0);
    EXPECT_TRUE(fcntl(ok.fd.get(), F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(Reports(), 1);

    comp::UniqueFd second = comptest::DialLoopback(port);
    comp::Accepted over = comp::AcceptOnCommand(lsn.get(), ok.fd.get(), comp::AcceptOptions{});
    EXPECT_EQ(over.outcome, comp::AcceptOutcome::kTooMany);
    EXPECT_EQ(Reports(), 1);

    g_stMsgQCntl[comp::kQueueCommonp].iId = -1;   // Commonp's queue is gone
    comp::UniqueFd third = comptest::DialLoopback(port);
    EXPECT_EQ(comp::AcceptOnCommand(lsn.get(), 1024, comp::AcceptOptions{}).outcome,
              comp::AcceptOutcome::kReportFailed);
}

TEST_F(ModeSetupTest, loop_setup_takes_the_backend_of_the_configured_wait_style) {
    using comp::Backend;
    using comp::WaitStyle;
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\n[]\n");
    comp::Loop::Setup setup = comp::ModeLoopSetup("S", "M", 64, 100, Backend::kPoll, Backend::kEpoll);
    EXPECT_EQ(setup.eStyle, WaitStyle::kFixed);
    EXPECT_EQ(setup.eBackend, Backend::kPoll);
    EXPECT_EQ(setup.lWaitUsec, 100);
    run.write("etc/app.cfg", "[APPVARS]\nCOMP_WAIT deadline\n[]\n");
    setup = comp::ModeLoopSetup("S", "M", 64, 100);
    EXPECT_EQ(setup.eStyle, WaitStyle::kDeadline);
    EXPECT_EQ(setup.eBackend, Backend::kEpoll) << "epoll unless the mode says otherwise";
    setup = comp::ModeLoopSetup("S", "M", 64, 100, Backend::kEpoll, Backend::kPoll);
    EXPECT_EQ(setup.eBackend, Backend::kPoll);
}

TEST_F(ModeSetupTest, accept_logged_names_what_went_wrong_and_hands_over_a_good_one) {
    int port = 0;
    comp::UniqueFd lsn(comptest::ListenLoopback(&port));
    comp::Loop::Setup setup;
    setup.pcSrc = "Src";
    setup.iTableSize = 1024;
    comp::Loop loop(setup, comp::Loop::Hooks{});
    comp::Accepted a;
    EXPECT_FALSE(comp::AcceptOnCommandLogged("Src", loop, lsn.get(), comp::AcceptOptions{}, &a));
    EXPECT_TRUE(Logged("]iSockAccept error.errno=11,errmsg=[")) << Logs();

    comp::UniqueFd client = comptest::DialLoopback(port);
    ASSERT_TRUE(comp::AcceptOnCommandLogged("Src", loop, lsn.get(), comp::AcceptOptions{}, &a));
    EXPECT_TRUE(a.fd.valid());

    setup.iTableSize = a.fd.get();
    comp::Loop small(setup, comp::Loop::Hooks{});
    comp::UniqueFd second = comptest::DialLoopback(port);
    comp::Accepted over;
    EXPECT_FALSE(comp::AcceptOnCommandLogged("Src", small, lsn.get(), comp::AcceptOptions{}, &over));
    EXPECT_TRUE(Logged("]Too many communication node.errno="));
    EXPECT_FALSE(over.fd.valid()) << "a refused connection is closed";
    EXPECT_EQ(Reports(), 3);
}

// ---- pacing accepts while descriptors run out -------------------------------

void Nothing(int&, int, unsigned) {}

comp::Loop::Setup PacedSetup(comp::Clock* clock, comp::WaitStyle style) {
    comp::Loop::Setup setup;
    setup.pcSrc = "Src";
    setup.iTableSize = 1024;
    setup.pClock = clock;
    setup.eStyle = style;
    setup.eBackend = comp::Backend::kEpoll;
    return setup;
}

TEST_F(ModeSetupTest, pacer_pauses_a_listener_longer_with_each_accept_that_finds_no_descriptor) {
    comp::ManualClock clock;
    comp::Loop loop(PacedSetup(&clock, comp::WaitStyle::kFixed), comp::Loop::Hooks{});
    int port = 0, ctx = 0;
    comp::UniqueFd lsn(comptest::ListenLoopback(&port));
    ASSERT_TRUE(loop.Watch(lsn.get(), comp::Role::kFixed, comp::Fn<Nothing>, &ctx));
    comp::AcceptPacer pacer;

    pacer.AfterAccept(loop, lsn.get(), 0);
    EXPECT_FALSE(pacer.BackingOff()) << "nothing changes while descriptors are there";
    std::vector<int64_t> pauses;
    for (int err : {EMFILE, ENFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE}) {
        pacer.AfterAccept(loop, lsn.get(), err);
        ASSERT_TRUE(loop.Paused(lsn.get()));
        pauses.push_back(pacer.PauseUsec() / 1000);
        clock.Advance(pacer.PauseUsec());
        loop.RunOnce();
        EXPECT_FALSE(loop.Paused(lsn.get())) << "waited on again once the pause is over";
    }
    EXPECT_EQ(pauses, (std::vector<int64_t>{10, 20, 40, 80, 160, 320, 500, 500}));
    pacer.AfterAccept(loop, lsn.get(), EAGAIN);
    EXPECT_TRUE(pacer.BackingOff()) << "a client that went says nothing about descriptors";
    EXPECT_FALSE(loop.Paused(lsn.get()));

    pacer.AfterAccept(loop, lsn.get(), 0);
    EXPECT_FALSE(pacer.BackingOff());
    const std::string logs = Logs();
    EXPECT_TRUE(comptest::Contains(logs, "[Src,"));
    EXPECT_TRUE(comptest::Contains(logs, "]no descriptor for a new connection.errno=24,errmsg=[Too many open files]; accepts "
                               "paused for 10 ms, then at growing intervals up to 500 ms until one is free"));
    EXPECT_EQ(logs.find("no descriptor"), logs.rfind("no descriptor")) << "said once";
    EXPECT_TRUE(comptest::Contains(logs, "]accepting again: a descriptor was free after 8 accepts failed for want of one in "
                               "1630 ms"));
}

struct Commanded {
    comp::AcceptPacer pacer;
    int accepts = 0;
    int err = EMFILE;
};
void CommandedAccept(Commanded& c) {
    ++c.accepts;
    c.pacer.AfterAccept(c.err);
}

// On command: a "0" that comes while backing off is held and served when
// the pause is over; one that fails again starts a longer pause.
TEST_F(ModeSetupTest, pacer_holds_accept_commands_until_the_pause_is_over) {
    for (comp::WaitStyle style : {comp::WaitStyle::kFixed, comp::WaitStyle::kDeadline}) {
        comp::ManualClock clock;
        comp::Loop loop(PacedSetup(&clock, style), comp::Loop::Hooks{});
        Commanded c;
        auto command = [&] { c.pacer.Command(loop, comp::Fn<CommandedAccept>, &c); };
        command();
        EXPECT_EQ(c.accepts, 1) << "the first runs at once";
        EXPECT_TRUE(c.pacer.BackingOff());
        command();
        command();
        EXPECT_EQ(c.accepts, 1);
        EXPECT_EQ(c.pacer.Held(), 2);
        clock.Advance(9'000);
        loop.RunOnce();
        EXPECT_EQ(c.accepts, 1) << "the pause is not over";

        clock.Advance(1'000);
        loop.RunOnce();
        EXPECT_EQ(c.accepts, 2) << "served at the end of the pause, and failed again";
        EXPECT_EQ(c.pacer.Held(), 1);
        EXPECT_EQ(c.pacer.PauseUsec(), 20'000);

        c.err = 0;
        clock.Advance(20'000);
        loop.RunOnce();
        EXPECT_EQ(c.accepts, 3);
        EXPECT_EQ(c.pacer.Held(), 0);
        EXPECT_FALSE(c.pacer.BackingOff());
        command();
        EXPECT_EQ(c.accepts, 4) << "at once again";
    }
    EXPECT_EQ(Reports(), 0);
}

TEST_F(ModeSetupTest, accept_on_command_tells_its_pacer) {
    comp::ManualClock clock;
    comp::Loop loop(PacedSetup(&clock, comp::WaitStyle::kFixed), comp::Loop::Hooks{});
    int port = 0;
    comp::UniqueFd lsn(comptest::ListenLoopback(&port));
    struct Ctx {
        comp::AcceptPacer pacer;
        int listen;
        comp::Accepted a;
    } ctx{{}, lsn.get(), {}};
    auto accept = [](void* p) {
        Ctx& c = *static_cast<Ctx*>(p);
        comp::AcceptOptions how;
        how.pPacer = &c.pacer;
        c.a = comp::AcceptOnCommand(c.listen, 1024, how);
    };
    // With the descriptors used up, accept fails with EMFILE.
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    comp::UniqueFd client = comptest::DialLoopback(port);
    int high = dup(0);
    rlimit tight{static_cast<rlim_t>(high + 1), old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    ctx.pacer.Command(loop, accept, &ctx);
    setrlimit(RLIMIT_NOFILE, &old);
    close(high);
    EXPECT_EQ(ctx.a.err, EMFILE);
    EXPECT_TRUE(ctx.pacer.BackingOff());
    EXPECT_EQ(Reports(), 1) << "reported all the same";

    clock.Advance(comp::AcceptPacer::kFirstPauseUsec);
    ctx.pacer.Command(loop, accept, &ctx);
    loop.RunOnce();
    EXPECT_EQ(ctx.a.outcome, comp::AcceptOutcome::kOk);
    EXPECT_FALSE(ctx.pacer.BackingOff());
    EXPECT_EQ(Reports(), 1);
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
