// The loop engine the modes share: the order it serves descriptors in, a
// descriptor closed or reused during a pass, and the bounds of its table.
#include <fcntl.h>

#include <optional>

#include "UnitFixture.h"
#include "modes/SysModeLoop.h"

namespace {

// The handlers are plain functions, so the test's state is file-wide.
struct Seen {
    std::vector<int> ready;
    std::vector<int> kept;
    int idle = 0, after = 0;
    comp::ModeLoop* loop = nullptr;
    int closeOnReady = -1;      // when this one is served, close closeTarget
    int closeTarget = -1;
} g_seen;

void ParentGone() { _exit(99); }
bool Keep(int fd, time_t) {
    g_seen.kept.push_back(fd);
    return true;
}
void Ready(int fd) {
    g_seen.ready.push_back(fd);
    char b[16];
    while (read(fd, b, sizeof b) > 0) {
    }
    if (fd == g_seen.closeOnReady) {
        g_seen.loop->Remove(g_seen.closeTarget);
        // The number is taken again at once, as an accept would.
        g_seen.loop->AddConn(g_seen.closeTarget);
    }
}
void Idle() { ++g_seen.idle; }
void After() { ++g_seen.after; }
void WaitFailed(int) { _exit(98); }

class ModeLoopTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        g_seen = Seen{};
        loop.emplace(comp::LoopSpec{"test", 256, 1000}, comp::LoopOps{ParentGone, Keep, Ready, Idle, After, WaitFailed});
        g_seen.loop = &*loop;
        for (auto& p : pipes) {
            ASSERT_EQ(pipe(p), 0);
            fcntl(p[0], F_SETFL, O_NONBLOCK);
        }
    }
    void TearDown() override {
        for (auto& p : pipes) {
            close(p[0]);
            close(p[1]);
        }
        UnitTest::TearDown();
    }
    std::optional<comp::ModeLoop> loop;
    int pipes[3][2];
};

}  // namespace

TEST_F(ModeLoopTest, serves_ready_descriptors_in_ascending_order_and_idles_otherwise) {
    ASSERT_TRUE(loop->AddFixed(pipes[0][0]));
    ASSERT_TRUE(loop->AddConn(pipes[2][0]));
    ASSERT_TRUE(loop->AddConn(pipes[1][0]));
    ASSERT_EQ(loop->RunOnce(), 0);
    EXPECT_TRUE(g_seen.ready.empty());
    EXPECT_EQ(g_seen.idle, 1);
    EXPECT_EQ(g_seen.after, 1);
    EXPECT_EQ(g_seen.kept, (std::vector<int>{pipes[1][0], pipes[2][0]})) << "only connections are idle-tested";

    for (int i : {2, 0, 1}) ASSERT_EQ(write(pipes[i][1], "x", 1), 1);
    ASSERT_EQ(loop->RunOnce(), 0);
    EXPECT_EQ(g_seen.ready, (std::vector<int>{pipes[0][0], pipes[1][0], pipes[2][0]}));
    EXPECT_EQ(g_seen.idle, 1);
    EXPECT_EQ(g_seen.after, 2);
}

TEST_F(ModeLoopTest, descriptor_closed_or_reused_by_an_earlier_handler_is_not_served) {
    loop->AddConn(pipes[0][0]);
    loop->AddConn(pipes[1][0]);
    g_seen.closeOnReady = pipes[0][0];
    g_seen.closeTarget = pipes[1][0];
    for (int i : {0, 1}) ASSERT_EQ(write(pipes[i][1], "x", 1), 1);
    loop->RunOnce();
    EXPECT_EQ(g_seen.ready, (std::vector<int>{pipes[0][0]})) << "the reused number is a new registration";
    loop->RunOnce();
    EXPECT_EQ(g_seen.ready, (std::vector<int>{pipes[0][0], pipes[1][0]})) << "it is served on the next pass";
}

TEST_F(ModeLoopTest, refuses_descriptors_at_or_above_the_table_size) {
    EXPECT_FALSE(loop->AddConn(256));
    EXPECT_FALSE(loop->AddFixed(-1));
    EXPECT_TRUE(loop->AddConn(255));
    loop->Remove(255);
    loop->Remove(255);  // twice is harmless
    EXPECT_FALSE(loop->Has(255));
}
