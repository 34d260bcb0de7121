// The polled synchronous modes run in-process on a driven clock, in both wait
// styles: PASSYN's push to the microsecond (elapsed strictly above the wait
// limit), a clock that steps back or forward under it, and PCSYN's start-up
// wait and connect pauses taken on the loop's clock.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <dirent.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "Loopback.h"
#include "ModeHarness.h"
#include "base/FdUtil.h"
#include "log/LogRepeats.h"
#include "modes/SysModes.h"

namespace {

constexpr int64_t kSec = 1'000'000;

std::string Syn(int cmd, int serial) {
    return std::string{static_cast<char>(0xEB), static_cast<char>(cmd), static_cast<char>(serial), 0, 0, 3};
}

// The mode's end of a loopback connection whose other end is fd (both ends
// live in this process), or -1.
int ModeEndOf(int fd) {
    sockaddr_in mine{}, peer{};
    socklen_t len = sizeof mine;
    getsockname(fd, reinterpret_cast<sockaddr*>(&mine), &len);
    len = sizeof peer;
    getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &len);
    DIR* dir = opendir("/proc/self/fd");
    int found = -1;
    while (dirent* e = dir ? readdir(dir) : nullptr) {
        const int cand = std::atoi(e->d_name);
        sockaddr_in a{}, b{};
        socklen_t la = sizeof a, lb = sizeof b;
        if (cand <= 2 || cand == fd || getsockname(cand, reinterpret_cast<sockaddr*>(&a), &la) != 0 ||
            getpeername(cand, reinterpret_cast<sockaddr*>(&b), &lb) != 0 || a.sin_family != AF_INET)
            continue;
        if (a.sin_port == peer.sin_port && b.sin_port == mine.sin_port) found = cand;
    }
    if (dir) closedir(dir);
    return found;
}

// Sends the rest of a frame as soon as the mode has read its first piece (its
// end of the connection holds nothing unread): the mode's reader then waits
// for the rest, which must come within its two milliseconds of patience. The
// sending thread asks for real-time priority (where it may), so that a busy
// machine does not hold the rest back.
void SendRestOnceRead(int fd, int modeEnd, const std::string& rest) {
    sched_param rt{};
    rt.sched_priority = 1;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &rt);
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
         std::chrono::steady_clock::now() < end;) {
        int unread = 0;
        if (ioctl(modeEnd, FIONREAD, &unread) != 0 || unread == 0) break;
        const timespec pause{0, 20'000};
        nanosleep(&pause, nullptr);
    }
    (void)!send(fd, rest.data(), rest.size(), MSG_NOSIGNAL);
}

bool Readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
}

std::string Take(int fd) {
    char b[256];
    ssize_t n = recv(fd, b, sizeof b, MSG_DONTWAIT);
    return n > 0 ? std::string(b, static_cast<size_t>(n)) : "";
}

std::vector<std::string> SynRoute(const std::string& id, const std::string& limit) {
    std::vector<std::string> r(comp::kRouteFields);
    r[RT_ROUTEID] = id;
    r[RT_ROUTEMONID] = "1";
    r[RT_ROUTENAME] = "route" + id;
    r[RT_MSGSNDTYPE] = id == "50" ? "1" : "0";
    r[RT_IDLETIMEOUT] = "3000";
    r[RT_BEATINTERVAL] = limit;
    r[RT_BEATSWITCH] = "1";
    r[RT_RECONNINTERVAL] = "5";
    r[RT_HEADERLEN] = "5";
    r[RT_MSGLENGETOFFSET] = "3";
    r[RT_MSGLENGETLEN] = "2";
    r[RT_MSGLENGETTYPE] = "2";
    r[RT_MSGLENINTEL] = "0";
    r[RT_MSGLENADJUST] = "1";
    return r;
}

RouteRecord Record(const std::vector<std::string>& row) {
    RouteRecord r{};
    for (size_t i = 0; i < row.size(); ++i) std::snprintf(r.caField[i], sizeof r.caField[i], "%s", row[i].c_str());
    return r;
}

class SynInProcess : public comptest::UnitTest, public ::testing::WithParamInterface<bool> {
protected:
    // PASSYN makes its task queue under the key pid + 0x8000: here the
    // test's own pid. One that stands there already can only be left from a
    // process that had this pid before.
    void SetUp() override {
        UnitTest::SetUp();
        deadline = GetParam();
        RemoveTaskQueue();
    }
    void TearDown() override {
        runner.Stop();
        RemoveTaskQueue();
        plat.Down();
        UnitTest::TearDown();
    }
    static void RemoveTaskQueue() {
        const int q = msgget(static_cast<key_t>(getpid() + 0x8000), 0);
        if (q >= 0) msgctl(q, IPC_RMID, nullptr);
    }
    void Up(const std::vector<std::string>& row) {
        std::string why;
        ASSERT_TRUE(plat.Up({{"MAX_COM_NUM", "64"}, {"OFFLINEMODE", "N"}}, {row},
                            deadline ? "COMP_WAIT DEADLINE\n" : "", &why))
            << why;
    }
    // PASSYN on a listener of the test's, standing before its first pass.
    void StartPassyn(const std::string& limit) {
        const std::vector<std::string> row = SynRoute("51", limit);
        Up(row);
        listenFd = comptest::ListenLoopback(&port);
        ASSERT_GE(listenFd, 0);
        const RouteRecord rec = Record(row);
        const int lfd = listenFd;
        ASSERT_TRUE(runner.Start([rec, lfd] { return SysTCPPASSYN(const_cast<char*>("51"), rec, 1, lfd); }))
            << Logs();
    }
    // A client accepted on command, with its first poll read; the time it
    // was sent.
    comp::UniqueFd Client(int64_t* sent) {
        comp::UniqueFd c = comptest::DialLoopback(port);
        EXPECT_TRUE(c.valid());
        const int ctl = open(run.file("fifo/3_" + std::to_string(getpid()) + "_1").c_str(), O_WRONLY | O_NONBLOCK);
        EXPECT_EQ(write(ctl, "0", 1), 1);
        close(ctl);
        EXPECT_TRUE(runner.RunUntil([&] { return Readable(c.get()); }, 100)) << Logs();
        *sent = runner.loop().NowUsec();
        EXPECT_EQ(Take(c.get()), Syn(1, 0));
        return c;
    }
    // The client answers; the mode reads it in the next pass.
    void Answer(int fd, int serial) {
        ASSERT_EQ(send(fd, Syn(2, serial).data(), 6, 0), 6);
        runner.Passes(1);
    }
    // Runs until comp sends the client something; when it did.
    int64_t PushedAt(int fd, int maxPasses = 200000) {
        EXPECT_TRUE(runner.RunUntil([&] { return Readable(fd); }, maxPasses)) << Logs();
        return runner.loop().NowUsec();
    }
    int Count(const std::string& text) const {
        const std::string all = Logs();
        int n = 0;
        for (size_t p = all.find(text); p != std::string::npos; p = all.find(text, p + 1)) ++n;
        return n;
    }

    // The push goes out on the first pass whose clock lies strictly more
    // than the wait limit after the last frame sent: the fixed style's passes
    // are 10 us apart, so the pass exactly at the limit does not push and the
    // next does; the deadline style wakes at the limit plus one microsecond.
    void ExpectPushAfter(const char* limit, int64_t usec) {
        StartPassyn(limit);
        int64_t sent = 0;
        comp::UniqueFd c = Client(&sent);
        Answer(c.get(), 0);
        // Onto the 10-us grid of the fixed style, 100 us before the limit.
        runner.clk.Advance(sent + usec - 100 - runner.clk.NowUsec());
        const int64_t pushed = PushedAt(c.get());
        EXPECT_EQ(pushed - sent, usec + (deadline ? 1 : 10));
        EXPECT_EQ(Take(c.get()), Syn(1, 1)) << "a poll: no task waits";
    }

    bool deadline = false;
    comptest::InProcessPlatform plat{run, keys};
    comptest::ModeRunner runner;
    int listenFd = -1, port = 0;
};

TEST_P(SynInProcess, passyn_limit_0_pushes_after_more_than_half_a_second) { ExpectPushAfter("0", 500'000); }

TEST_P(SynInProcess, passyn_limit_in_seconds_pushes_after_more_than_that) { ExpectPushAfter("2", 2'000'000); }

// A clock stepped back leaves the last send in the future: the send time is
// pulled back to the clock, seconds first, then microseconds, each step
// logged, and the wait limit counts from there - not from the old time.
TEST_P(SynInProcess, passyn_pulls_the_send_time_back_when_the_clock_goes_back) {
    StartPassyn("0");
    runner.clk.Advance(800'000);   // sent at .8 s: after a step of 10.5 s back, the microseconds are ahead too
    int64_t sent = 0;
    comp::UniqueFd c = Client(&sent);
    Answer(c.get(), 0);
    runner.clk.Advance(-10'500'000);
    const int64_t back = runner.clk.NowUsec();
    const int64_t pushed = PushedAt(c.get());
    EXPECT_EQ(Count("|| "), 2) << Logs();
    const std::string sec = std::to_string(sent / kSec), now = std::to_string(back / kSec);
    EXPECT_TRUE(Logged("]" + sec + ">" + now + " || " + sec + "== " + now)) << Logs();
    EXPECT_GE(pushed - back, 500'000);
    EXPECT_LE(pushed - back, 500'050) << "half a second after the step";
    EXPECT_EQ(Take(c.get()), Syn(1, 1));
}

// A clock stepped forward past the limit pushes on the next pass.
TEST_P(SynInProcess, passyn_pushes_at_once_when_the_clock_jumps_past_the_limit) {
    StartPassyn("30");
    int64_t sent = 0;
    comp::UniqueFd c = Client(&sent);
    Answer(c.get(), 0);
    runner.Passes(3);
    EXPECT_FALSE(Readable(c.get()));
    runner.clk.Advance(60 * kSec);
    const int64_t jumped = runner.clk.NowUsec();
    EXPECT_LE(PushedAt(c.get(), 3) - jumped, 10);
    EXPECT_EQ(Take(c.get()), Syn(1, 1));
}

// PCSYN waits 25 seconds before anything else and pauses 5 seconds between
// first-connect attempts; both are taken on the loop's clock.
TEST_P(SynInProcess, pcsyn_start_up_wait_and_connect_pauses_run_on_the_loops_clock) {
    int serverPort = 0;
    const int probe = comptest::ListenLoopback(&serverPort);
    close(probe);   // nobody listens there until the third attempt has failed
    comp::log::SetRepeatLimit(0);   // the attempts are counted by their lines, which are identical
    std::vector<std::string> row = SynRoute("50", "60");
    row[RT_IPPORT] = "127.0.0.1:" + std::to_string(serverPort);
    Up(row);
    const RouteRecord rec = Record(row);
    const int64_t t0 = runner.clk.NowUsec();
    runner.StartAsync([rec] { return SysTCPPCSYN(const_cast<char*>("50"), rec, 1, 0); });
    for (int i = 0; i < 2000 && Count("SysConnectIni]iSockConnect error") < 3; ++i) usleep(1000);
    int lsn = comptest::ListenLoopback(&serverPort);
    ASSERT_GE(lsn, 0) << "the port was taken meanwhile";
    ASSERT_TRUE(runner.WaitParked()) << Logs();
    const int failures = Count("SysConnectIni]iSockConnect error");
    EXPECT_GE(failures, 3);
    EXPECT_EQ(runner.clk.NowUsec() - t0, 25 * kSec + failures * 5 * kSec);
    comp::UniqueFd link(accept(lsn, nullptr, nullptr));
    EXPECT_TRUE(link.valid());
    close(lsn);
}

// Frames in two pieces: the first is in before the mode's next pass (so that
// no pass goes by idle while the driven clock races ahead), the rest follows
// the moment the mode has read the first. The mode waits about two
// milliseconds for it; a machine too busy to deliver it in time costs the
// connection, and the cut is tried again on a new one. When every try comes
// too late the machine is too busy for the test, which then stops: a wrong
// answer is a failure, a dropped link is not.
constexpr int kAttempts = 8;
#define SKIP_WHEN_TOO_BUSY(answered, cut)                                                               \
    if (!(answered))                                                                                    \
    GTEST_SKIP() << "cut at " << (cut) << ": the rest came later than the mode waits in " << kAttempts \
                 << " tries; the machine is too busy for this test"

// A client frame in two pieces is read whole, wherever it is cut.
TEST_P(SynInProcess, passyn_reads_frames_cut_at_any_byte) {
    StartPassyn("60");
    comp::UniqueFd c;
    int modeEnd = -1, serial = 0;
    auto connect = [&] {
        int64_t sent = 0;
        c = Client(&sent);
        int one = 1;
        setsockopt(c.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        modeEnd = ModeEndOf(c.get());
        serial = 0;
    };
    connect();
    std::string f = Syn(4, 0);
    f[4] = 3;
    f.insert(5, "cut");
    for (size_t cut = 1; cut < f.size(); ++cut) {
        bool answered = false;
        for (int attempt = 0; attempt < kAttempts && !answered; ++attempt) {
            f[2] = static_cast<char>(serial);
            ASSERT_EQ(send(c.get(), f.data(), cut, 0), static_cast<ssize_t>(cut));
            std::thread writer([&] { SendRestOnceRead(c.get(), modeEnd, f.substr(cut)); });
            runner.RunUntil([&] { return Readable(c.get()); }, 1000000);
            writer.join();
            const std::string got = Take(c.get());
            answered = !got.empty();
            if (answered) {
                ASSERT_EQ(got, Syn(1, serial + 1)) << "cut at " << cut;
                ++serial;
            } else {
                connect();
            }
        }
        SKIP_WHEN_TOO_BUSY(answered, cut);
    }
}

// A request in two pieces is read whole, wherever it is cut; so is one sent a
// byte a write while the mode stands still. A server that stops in the middle
// of a frame costs the link: the reader waits a millisecond for missing bytes
// at most three times per header or body.
TEST_P(SynInProcess, pcsyn_reads_requests_in_pieces_and_drops_a_server_stopping_mid_frame) {
    int serverPort = 0;
    const int lsn = comptest::ListenLoopback(&serverPort);
    ASSERT_GE(lsn, 0);
    std::vector<std::string> row = SynRoute("50", "60");
    row[RT_IPPORT] = "127.0.0.1:" + std::to_string(serverPort);
    Up(row);
    const RouteRecord rec = Record(row);
    ASSERT_TRUE(runner.Start([rec] { return SysTCPPCSYN(const_cast<char*>("50"), rec, 1, 0); })) << Logs();
    comp::UniqueFd link;
    int modeEnd = -1, serial = 0;
    // The mode's link; after a loss, once the reconnect interval has passed.
    auto connect = [&] {
        EXPECT_TRUE(runner.RunUntil([&] { return Readable(lsn); }, 1000)) << Logs();
        link.reset(accept(lsn, nullptr, nullptr));
        int one = 1;   // each piece goes at once, not when the last is acknowledged
        setsockopt(link.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        modeEnd = ModeEndOf(link.get());
        serial = 0;
    };
    // The answer to a frame whose first piece is in before the mode's next
    // pass, the rest written from a thread of its own while the mode reads.
    auto ask = [&](const std::string& first, const std::function<void()>& writeRest) {
        EXPECT_EQ(send(link.get(), first.data(), first.size(), 0), static_cast<ssize_t>(first.size()));
        std::thread writer(writeRest);
        const bool answered = runner.RunUntil([&] { return Readable(link.get()); }, 1000000);
        writer.join();
        return answered ? Take(link.get()) : std::string();
    };
    connect();
    for (size_t cut = 1; cut < 6; ++cut) {
        bool answered = false;
        for (int attempt = 0; attempt < kAttempts && !answered; ++attempt) {
            const std::string f = Syn(1, serial);
            const std::string got =
                ask(f.substr(0, cut), [&] { SendRestOnceRead(link.get(), modeEnd, f.substr(cut)); });
            answered = !got.empty();
            if (answered) {
                ASSERT_EQ(got, Syn(2, serial)) << "cut at " << cut;
                ++serial;
            } else {
                runner.clk.Advance(5 * kSec);
                connect();
            }
        }
        SKIP_WHEN_TOO_BUSY(answered, cut);
    }
    for (char b : Syn(1, serial)) ASSERT_EQ(send(link.get(), &b, 1, 0), 1);   // all in before the next pass
    EXPECT_TRUE(runner.RunUntil([&] { return Readable(link.get()); }, 100));
    EXPECT_EQ(Take(link.get()), Syn(2, serial));
    ++serial;

    // A server that stops in the middle of a frame: its first byte, then
    // nothing for longer than the mode waits.
    const std::string cutOff = Syn(1, serial);
    EXPECT_EQ(ask(cutOff.substr(0, 1),
                  [&] {
                      usleep(200'000);
                      (void)!send(link.get(), cutOff.data() + 1, cutOff.size() - 1, MSG_NOSIGNAL);
                  }),
              "")
        << "dropped, not answered";
    EXPECT_TRUE(Logged("]iSockRecv,fd=")) << Logs();
    EXPECT_TRUE(Logged("routeid[50] N003 to tranp"));
    close(lsn);
}

INSTANTIATE_TEST_SUITE_P(WaitStyles, SynInProcess, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "deadline" : "fixed"; });

}  // namespace
