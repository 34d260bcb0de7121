// The loop engine: dispatch order and registrations under both backends and
// both wait styles, closes and reused numbers mid-pass, held numbers, the
// phases of time-driven work under a driven clock, and the faults that end
// the process (a failed wait, a lost parent).
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

#include <optional>
#include <thread>
#include <tuple>

#include "UnitFixture.h"
#include "ipc/SysFIFO.h"
#include "modes/Engine.h"
#include "modes/ModeSetup.h"

namespace {

using comp::Backend;
using comp::Loop;
using comp::Phase;
using comp::Role;
using comp::WaitStyle;

constexpr int kTable = 256;

// What the handlers and hooks saw, in order.
struct Seen {
    std::vector<int> ready;
    std::vector<unsigned> events;
    std::vector<int> idleTested;
    std::vector<int> closed;       // close hook, while the row is intact
    std::vector<int> closedAgain;
    std::vector<std::string> trace;
    Loop* loop = nullptr;
    int closeOnReady = -1, closeTarget = -1, reuseWith = -1;
    int idleCloses = -1;
    int rowFreed = -1;
};

void OnReady(Seen& s, int fd, unsigned ev) {
    s.ready.push_back(fd);
    s.events.push_back(ev);
    char b[16];
    while (read(fd, b, sizeof b) > 0) {
    }
    if (fd == s.closeOnReady) {
        s.loop->Close(s.closeTarget);
        // The number is taken again at once, as an accept would.
        if (s.reuseWith >= 0) {
            dup2(s.reuseWith, s.closeTarget);
            s.loop->Watch(s.closeTarget, Role::kConn, comp::Fn<OnReady>, &s);
        }
    }
}
bool OnIdle(Seen& s, int fd, int64_t) {
    s.idleTested.push_back(fd);
    if (fd != s.idleCloses) return true;
    s.loop->Close(fd);
    return false;
}
void OnClose(Seen& s, int fd) {
    s.closed.push_back(fd);
    // The descriptor is still open while the hook runs.
    EXPECT_NE(fcntl(fd, F_GETFD), -1);
    EXPECT_FALSE(s.loop->Watched(fd)) << "unregistered before the hook";
}
void OnCloseAgain(Seen& s, int fd) { s.closedAgain.push_back(fd); }

struct Rows : comp::RowOwner {
    Seen* seen = nullptr;
    void FreeRow(int fd) override { seen->rowFreed = fd; }
};

class EngineTest : public comptest::UnitTest, public ::testing::WithParamInterface<std::tuple<Backend, WaitStyle>> {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        for (auto& p : pipes) {
            ASSERT_EQ(pipe2(p, O_NONBLOCK | O_CLOEXEC), 0);
        }
        Make(std::get<0>(GetParam()), std::get<1>(GetParam()));
    }
    void TearDown() override {
        loop.reset();
        for (auto& p : pipes)
            for (int fd : p)
                if (fd >= 0) close(fd);
        UnitTest::TearDown();
    }
    void Make(Backend b, WaitStyle w, int64_t waitUsec = 1000) {
        loop.reset();
        Loop::Setup setup;
        setup.pcSrc = "test";
        setup.pcMode = "test";
        setup.iTableSize = kTable;
        setup.lWaitUsec = waitUsec;
        setup.eBackend = b;
        setup.eStyle = w;
        setup.pClock = &clock;
        Loop::Hooks hooks;
        hooks.ctx = &seen;
        hooks.idle = comp::Fn<OnIdle>;
        hooks.close = comp::Fn<OnClose>;
        hooks.closeAgain = comp::Fn<OnCloseAgain>;
        loop.emplace(setup, hooks);
        rows.seen = &seen;
        loop->SetRows(&rows);
        seen.loop = &*loop;
    }
    bool Watch(int i, Role r) { return loop->Watch(pipes[i][0], r, comp::Fn<OnReady>, &seen); }
    void Poke(int i) { ASSERT_EQ(write(pipes[i][1], "x", 1), 1); }
    int Rd(int i) const { return pipes[i][0]; }

    comp::ManualClock clock;
    Seen seen;
    Rows rows;
    std::optional<Loop> loop;
    int pipes[3][2];
};

// ---- descriptors --------------------------------------------------------------

TEST_P(EngineTest, serves_ready_descriptors_in_ascending_order_with_their_events) {
    ASSERT_TRUE(Watch(0, Role::kFixed));
    ASSERT_TRUE(Watch(2, Role::kConn));
    ASSERT_TRUE(Watch(1, Role::kConn));
    ASSERT_EQ(loop->RunOnce(), 0);
    EXPECT_TRUE(seen.ready.empty());
    EXPECT_EQ(seen.idleTested, (std::vector<int>{Rd(1), Rd(2)})) << "only connections are idle-tested";

    for (int i : {2, 0, 1}) Poke(i);
    ASSERT_EQ(loop->RunOnce(), 0);
    EXPECT_EQ(seen.ready, (std::vector<int>{Rd(0), Rd(1), Rd(2)}));
    EXPECT_EQ(seen.events, (std::vector<unsigned>(3, comp::kEvRead)));

    close(pipes[1][1]);   // the writer goes: a hang-up
    pipes[1][1] = -1;
    seen.ready.clear();
    seen.events.clear();
    loop->RunOnce();
    ASSERT_EQ(seen.ready, (std::vector<int>{Rd(1)}));
    EXPECT_TRUE(seen.events[0] & comp::kEvHangup);
}

TEST_P(EngineTest, descriptor_closed_or_reused_by_an_earlier_handler_is_not_served) {
    Watch(0, Role::kConn);
    Watch(1, Role::kConn);
    seen.closeOnReady = Rd(0);
    seen.closeTarget = Rd(1);
    seen.reuseWith = Rd(2);   // the new registration reads pipe 2, already poked
    Poke(0);
    Poke(1);
    Poke(2);
    loop->RunOnce();
    EXPECT_EQ(seen.ready, (std::vector<int>{Rd(0)})) << "the reused number is a new registration";
    EXPECT_EQ(seen.closed, (std::vector<int>{Rd(1)}));
    EXPECT_EQ(seen.rowFreed, Rd(1));
    loop->RunOnce();
    EXPECT_EQ(seen.ready, (std::vector<int>{Rd(0), Rd(1)})) << "it is served on the next pass";
    pipes[1][0] = -1;   // closed by the loop; the dup took its number and is closed below
    close(seen.closeTarget);
}

TEST_P(EngineTest, close_and_idle_close_go_through_the_hooks_once) {
    const int kept = Rd(0), idle = Rd(1);
    pipes[0][0] = pipes[1][0] = -1;   // both are closed by the loop
    loop->Watch(kept, Role::kConn, comp::Fn<OnReady>, &seen);
    loop->Watch(idle, Role::kConn, comp::Fn<OnReady>, &seen);
    seen.idleCloses = idle;
    Poke(1);
    loop->RunOnce();
    EXPECT_TRUE(seen.ready.empty()) << "a connection closed by its idle test is not waited on";
    EXPECT_EQ(seen.closed, (std::vector<int>{idle}));
    EXPECT_EQ(fcntl(idle, F_GETFD), -1) << "the loop closed it";

    loop->Close(kept);
    loop->Close(kept);
    EXPECT_EQ(seen.closed, (std::vector<int>{idle, kept}));
    EXPECT_EQ(seen.closedAgain, (std::vector<int>{kept})) << "a second close reaches only the closeAgain hook";
}

TEST_P(EngineTest, refuses_descriptors_at_or_above_the_table_size) {
    EXPECT_FALSE(loop->Watch(kTable, Role::kConn, comp::Fn<OnReady>, &seen));
    EXPECT_FALSE(loop->Watch(-1, Role::kFixed, comp::Fn<OnReady>, &seen));
    int high = fcntl(Rd(0), F_DUPFD_CLOEXEC, kTable - 1);
    ASSERT_EQ(high, kTable - 1);
    EXPECT_TRUE(loop->Watch(high, Role::kConn, comp::Fn<OnReady>, &seen));
    loop->Unwatch(high);
    loop->Unwatch(high);   // twice is harmless
    EXPECT_FALSE(loop->Watched(high));
    close(high);
}

// A closed connection's number stays taken until it is let go or its time is
// up; nothing can register it meanwhile.
TEST_P(EngineTest, held_number_is_not_given_out_until_released_or_expired) {
    Watch(0, Role::kConn);
    Watch(1, Role::kConn);
    const int held = Rd(0), expiring = Rd(1);
    loop->CloseHolding(held, loop->NowUsec() + 60 * comp::kUsecPerSec);
    loop->CloseHolding(expiring, loop->NowUsec() + 2 * comp::kUsecPerSec);
    pipes[0][0] = pipes[1][0] = -1;
    EXPECT_EQ(seen.closed, (std::vector<int>{held, expiring}));
    EXPECT_TRUE(loop->Held(held));
    EXPECT_FALSE(loop->Watch(held, Role::kConn, comp::Fn<OnReady>, &seen));
    int fresh = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_NE(fresh, held);
    EXPECT_NE(fresh, expiring);
    close(fresh);

    clock.AdvanceSec(3);
    loop->RunOnce();
    EXPECT_FALSE(loop->Held(expiring)) << "its time is up";
    EXPECT_TRUE(loop->Held(held));
    loop->ReleaseHold(held);
    EXPECT_FALSE(loop->Held(held));
    fresh = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(fresh, std::min(held, expiring)) << "the lowest number is free again";
    close(fresh);
}

// A paused descriptor is not waited on; what came meanwhile is served once
// the pause is over.
TEST_P(EngineTest, paused_descriptor_is_left_out_of_the_waits_until_its_pause_ends) {
    Watch(0, Role::kFixed);
    Watch(1, Role::kConn);
    Poke(0);
    Poke(1);
    const int64_t end = loop->NowUsec() + 50'000;
    loop->Pause(Rd(0), end);
    loop->RunOnce();
    EXPECT_EQ(seen.ready, std::vector<int>{Rd(1)});
    EXPECT_TRUE(loop->Paused(Rd(0)));
    clock.Advance(end - clock.NowUsec());
    loop->RunOnce();
    EXPECT_FALSE(loop->Paused(Rd(0)));
    EXPECT_EQ(seen.ready, (std::vector<int>{Rd(1), Rd(0)}));

    // A close ends a pause with the registration.
    loop->Pause(Rd(1), end + comp::kUsecPerSec);
    loop->Close(Rd(1));
    pipes[1][0] = -1;
    EXPECT_FALSE(loop->Paused(Rd(1)));
}

// With upkeep on, a FIFO whose file is removed under the loop is made again
// within a second, under the same descriptor, with its unread bytes.
TEST_P(EngineTest, upkeep_makes_a_removed_fifo_again_under_the_same_descriptor) {
    Loop::Setup setup;
    setup.pcSrc = "SysTCPxx";
    setup.iTableSize = kTable;
    setup.lWaitUsec = 1000;
    setup.eBackend = std::get<0>(GetParam());
    setup.eStyle = std::get<1>(GetParam());
    setup.pClock = &clock;
    setup.bUpkeep = true;
    loop.emplace(setup, Loop::Hooks{&seen, nullptr, comp::Fn<OnClose>, nullptr, nullptr});
    const int fifo = iOpenFIFO("4242", comp::kFifoPidNotify);
    ASSERT_GE(fifo, 0);
    ASSERT_TRUE(loop->Watch(fifo, Role::kFixed, comp::Fn<OnReady>, &seen));
    const std::string path = run.file("fifo/1_4242");
    // Two doorbells not yet read; paused, so that they are still there when
    // the file is made again.
    ASSERT_EQ(write(fifo, "01", 2), 2);
    loop->Pause(fifo, clock.NowUsec() + 3600 * comp::kUsecPerSec);
    ASSERT_EQ(unlink(path.c_str()), 0);
    const int64_t removedAt = clock.NowUsec();

    // The deadline style wakes for it at the next whole second. The upkeep
    // runs at the start of a pass, before the pass waits again.
    int64_t passStart = removedAt;
    for (int i = 0; i < 2000 && access(path.c_str(), F_OK) != 0; ++i) {
        if (std::get<1>(GetParam()) == WaitStyle::kFixed) clock.Advance(1000);
        passStart = clock.NowUsec();
        loop->RunOnce();
    }
    ASSERT_EQ(access(path.c_str(), F_OK), 0) << "not made again" << Logs();
    EXPECT_LE(passStart - removedAt, comp::kUsecPerSec + 5000) << "noticed within a second (and a pass)";
    EXPECT_TRUE(Logged("[SysTCPxx,")) << Logs();
    EXPECT_TRUE(Logged("FIFO [" + path + "] of descriptor " + std::to_string(fifo) + " was removed; made it again"));
    int unread = 0;
    ASSERT_EQ(ioctl(fifo, FIONREAD, &unread), 0);
    EXPECT_EQ(unread, 2) << "the doorbells rung before were carried over";

    // Rung from outside by its path, it is served under its old number.
    loop->Resume(fifo);
    int ring = iConnectFIFO("4242", comp::kFifoPidNotify);
    ASSERT_GE(ring, 0);
    ASSERT_EQ(iWriteFIFO(ring), 0);
    close(ring);
    loop->RunOnce();
    EXPECT_EQ(seen.ready, std::vector<int>{fifo});
    loop.reset();
    close(fifo);
}

INSTANTIATE_TEST_SUITE_P(Backends, EngineTest,
                         ::testing::Combine(::testing::Values(Backend::kPoll, Backend::kEpoll),
                                            ::testing::Values(WaitStyle::kFixed, WaitStyle::kDeadline)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param) == Backend::kPoll ? "ppoll" : "epoll") +
                                    (std::get<1>(info.param) == WaitStyle::kFixed ? "_fixed" : "_deadline");
                         });

// ---- time -----------------------------------------------------------------------

struct Timers {
    Seen* seen;
    comp::ManualClock* clock;
    std::vector<int64_t> ranAt;
    int64_t every = 0;   // run again this much later (0: never)
};
template <int N>
int64_t Note(Seen& s, int64_t) {
    static_assert(N >= 0 && N <= 9);
    // Built from characters: gcc 12 at -O3 takes "t" + to_string() for an
    // overlapping copy (-Wrestrict).
    s.trace.push_back(std::string{'t', static_cast<char>('0' + N)});
    return Loop::kNever;
}
int64_t Periodic(Timers& t, int64_t now) {
    t.ranAt.push_back(now);
    return t.every ? now + t.every : Loop::kNever;
}

using EngineTimeTest = EngineTest;

// The fixed style runs every timer of a phase each pass that reaches it, in
// the phases' order and, within a phase, in the order they were added.
TEST_P(EngineTimeTest, fixed_style_runs_each_phase_every_pass_in_order) {
    Make(std::get<0>(GetParam()), WaitStyle::kFixed);
    loop->AddTimer(Phase::kAfterUnmask, comp::Fn<Note<4>>, &seen, Loop::kNever);
    loop->AddTimer(Phase::kAfterDispatch, comp::Fn<Note<3>>, &seen, Loop::kNever);
    loop->AddTimer(Phase::kIdlePass, comp::Fn<Note<2>>, &seen, Loop::kNever);
    loop->AddTimer(Phase::kBeforeWait, comp::Fn<Note<1>>, &seen, Loop::kNever);
    loop->AddTimer(Phase::kBeforeWait, comp::Fn<Note<0>>, &seen, Loop::kNever);
    Watch(0, Role::kFixed);
    loop->RunOnce();
    EXPECT_EQ(seen.trace, (std::vector<std::string>{"t1", "t0", "t2", "t3", "t4"}));
    seen.trace.clear();
    Poke(0);
    loop->RunOnce();
    EXPECT_EQ(seen.trace, (std::vector<std::string>{"t1", "t0", "t3", "t4"})) << "no idle-pass work when something was ready";
}

// The deadline style sleeps until the earliest due timer (the driven clock
// jumps there), runs only what is due, and honours a due time moved earlier.
TEST_P(EngineTimeTest, deadline_style_waits_for_the_earliest_due_timer) {
    Make(std::get<0>(GetParam()), WaitStyle::kDeadline);
    const int64_t t0 = clock.NowUsec();
    Timers beat{&seen, &clock, {}, 30 * comp::kUsecPerSec};
    Timers once{&seen, &clock, {}, 0};
    loop->AddTimer(Phase::kAfterDispatch, comp::Fn<Periodic>, &beat, t0 + 30 * comp::kUsecPerSec);
    int cleanup = loop->AddTimer(Phase::kIdlePass, comp::Fn<Periodic>, &once, t0 + 1800 * comp::kUsecPerSec);
    for (int i = 0; i < 3; ++i) loop->RunOnce();
    EXPECT_EQ(beat.ranAt, (std::vector<int64_t>{t0 + 30'000'000, t0 + 60'000'000, t0 + 90'000'000}));
    EXPECT_TRUE(once.ranAt.empty());

    loop->SetDue(cleanup, t0 + 100 * comp::kUsecPerSec);
    loop->RunOnce();   // beat at 120 s is later than the moved clean-up at 100 s
    ASSERT_EQ(once.ranAt.size(), 1u);
    EXPECT_EQ(once.ranAt[0], t0 + 100'000'000);
    EXPECT_EQ(loop->Due(cleanup), Loop::kNever);
    EXPECT_EQ(beat.ranAt.size(), 3u);
}

// A clock that went back leaves every due time far in its future: the
// deadline style then runs each timer at once, and each finds its own next
// due time from the new clock.
TEST_P(EngineTimeTest, deadline_style_runs_every_timer_when_the_clock_goes_back) {
    Make(std::get<0>(GetParam()), WaitStyle::kDeadline);
    const int64_t t0 = clock.NowUsec();
    Timers beat{&seen, &clock, {}, 30 * comp::kUsecPerSec};
    loop->AddTimer(Phase::kAfterDispatch, comp::Fn<Periodic>, &beat, t0 + 30 * comp::kUsecPerSec);
    loop->RunOnce();
    ASSERT_EQ(beat.ranAt, (std::vector<int64_t>{t0 + 30'000'000}));

    clock.Advance(-3600 * comp::kUsecPerSec);   // due at t0 + 60 s: an hour and a minute away now
    const int64_t back = clock.NowUsec();
    loop->RunOnce();
    ASSERT_EQ(beat.ranAt.size(), 2u) << "ran at once, not an hour later";
    EXPECT_EQ(beat.ranAt[1], back);
    loop->RunOnce();
    EXPECT_EQ(beat.ranAt.back(), back + 30'000'000) << "and then by its own rule";
}

// Idle connections are tested each pass in the fixed style, and once a second
// in the deadline style, which wakes at the next whole second for them.
TEST_P(EngineTimeTest, idle_test_runs_every_pass_or_once_a_second) {
    for (WaitStyle w : {WaitStyle::kFixed, WaitStyle::kDeadline}) {
        Make(std::get<0>(GetParam()), w, 100);
        seen.idleTested.clear();
        Watch(1, Role::kConn);
        const int64_t start = clock.NowUsec();
        for (int i = 0; i < 5; ++i) loop->RunOnce();
        if (w == WaitStyle::kFixed) {
            EXPECT_EQ(seen.idleTested.size(), 5u);
            EXPECT_EQ(clock.NowUsec(), start + 500) << "five passes of 100 us";
        } else {
            EXPECT_EQ(seen.idleTested.size(), 5u) << "one test a second";
            EXPECT_EQ(clock.NowUsec(), (start / comp::kUsecPerSec + 5) * comp::kUsecPerSec) << "each wait ends at the next whole second";
        }
        loop->Unwatch(Rd(1));
    }
}

INSTANTIATE_TEST_SUITE_P(Backends, EngineTimeTest,
                         ::testing::Combine(::testing::Values(Backend::kPoll, Backend::kEpoll),
                                            ::testing::Values(WaitStyle::kFixed)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param) == Backend::kPoll ? "ppoll" : "epoll");
                         });

// ---- the faults that end a pass or the process ------------------------------

class FailingPoller final : public comp::Poller {
public:
    explicit FailingPoller(int err) : err_(err) {}
    bool Add(int) override { return true; }
    void Remove(int) override {}
    bool NeedsCandidates() const override { return true; }
    int Wait(const std::vector<int>&, int64_t, std::vector<comp::Ready>&) override {
        errno = err_;
        return -1;
    }

private:
    int err_;
};

class EngineFaultTest : public comptest::UnitTest {
protected:
    Loop::Setup SetupWith(comp::Poller* p) {
        Loop::Setup setup;
        setup.pcSrc = "test";
        setup.iTableSize = kTable;
        setup.pPoller = p;
        setup.pClock = &clock;
        setup.pcWaitFailFmt = "[%s,%d]select() error.errno=%d,errmsg=[%s]";
        return setup;
    }
    comp::ManualClock clock;
    Seen seen;
};

void QuitHook(Seen&) { _exit(42); }

TEST_F(EngineFaultTest, interrupted_wait_ends_the_pass_and_a_failed_one_the_process) {
    FailingPoller eintr(EINTR);
    Loop::Hooks hooks;
    hooks.ctx = &seen;
    {
        Loop loop(SetupWith(&eintr), hooks);
        loop.AddTimer(Phase::kAfterDispatch, comp::Fn<Note<1>>, &seen);
        EXPECT_EQ(loop.RunOnce(), 0);
        EXPECT_TRUE(seen.trace.empty()) << "an interrupted pass does no after-pass work";
        EXPECT_TRUE(Logged("[test,")) << Logs();
        EXPECT_TRUE(Logged("]EINTR , continue"));
    }
    FailingPoller bad(EBADF);
    hooks.quit = comp::Fn<QuitHook>;
    int status = comptest::RunInChild([&] {
        Loop loop(SetupWith(&bad), hooks);
        loop.RunOnce();
        return 0;
    });
    EXPECT_EQ(status, 42) << "the mode's quit hook ran";
    EXPECT_TRUE(Logged("]select() error.errno=9,errmsg=[Bad file descriptor]")) << Logs();
}

// A loop whose parent ends quits through the mode's hook. The loop runs in a
// grandchild; its parent exits, and the grandchild must be re-parented to 1
// (a sub-reaper above the test would take it instead: then this is skipped).
TEST_F(EngineFaultTest, lost_parent_ends_the_process_in_both_styles) {
    for (WaitStyle w : {WaitStyle::kFixed, WaitStyle::kDeadline}) {
        int report[2];
        ASSERT_EQ(pipe(report), 0);
        pid_t child = fork();
        if (child == 0) {
            if (fork() != 0) _exit(0);   // the parent goes at once
            close(report[0]);
            for (int i = 0; i < 200 && getppid() != 1; ++i) usleep(5000);
            if (getppid() != 1) _exit(7);   // taken by a sub-reaper
            comp::SystemClock real;
            Loop::Setup setup;
            setup.pcSrc = "test";
            setup.iTableSize = kTable;
            setup.eStyle = w;
            setup.eBackend = Backend::kEpoll;
            setup.pClock = &real;
            Loop::Hooks hooks;
            hooks.ctx = &report[1];
            hooks.quit = [](void* ctx) {
                (void)!write(*static_cast<int*>(ctx), "q", 1);
                _exit(0);
            };
            Loop loop(setup, hooks);
            for (int i = 0; i < 1000; ++i) loop.RunOnce();
            _exit(5);
        }
        close(report[1]);
        waitpid(child, nullptr, 0);
        char c = 0;
        pollfd p{report[0], POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 5000), 1);
        ssize_t n = read(report[0], &c, 1);
        close(report[0]);
        if (n == 0) GTEST_SKIP() << "orphans here go to a sub-reaper, not to process 1";
        EXPECT_EQ(c, 'q');
    }
    EXPECT_TRUE(Logged("]Parent exit.errno=")) << Logs();
}

// A test runs a mode's loop through the driver: the mode's loop setup takes the
// driver's clock, Run asks before every pass, and Quit ends in the driver.
struct Driver final : comp::seam::LoopDriver {
    comp::ManualClock* clk = nullptr;
    int passes = 0, allowed = 0;
    comp::Clock* clock() override { return clk; }
    bool Continue(Loop&) override { return passes++ < allowed; }
    [[noreturn]] void Quit() override { _exit(43); }
};

TEST_F(EngineFaultTest, driver_runs_the_passes_it_allows_and_takes_the_quit) {
    Driver d;
    d.clk = &clock;
    d.allowed = 3;
    comp::seam::g_pLoopDriver = &d;
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
    comp::Loop::Setup setup = comp::ModeLoopSetup("test", "test", kTable, 10);
    EXPECT_EQ(setup.pClock, &clock);
    setup.iTableSize = kTable;
    Loop::Hooks hooks;
    hooks.ctx = &seen;
    hooks.quit = [](void* ctx) { static_cast<Seen*>(ctx)->trace.push_back("quit hook"); };
    {
        Loop loop(setup, hooks);
        const int64_t start = clock.NowUsec();
        EXPECT_EQ(loop.Run(), 0);
        EXPECT_EQ(d.passes, 4) << "asked before each of three passes and once more";
        EXPECT_EQ(clock.NowUsec(), start + 30) << "three idle passes of 10 us on the driver's clock";
        EXPECT_EQ(comptest::RunInChild([&]() -> int { loop.Quit(); }), 43);
    }
    comp::seam::g_pLoopDriver = nullptr;
}

}  // namespace
