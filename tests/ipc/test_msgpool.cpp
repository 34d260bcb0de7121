// Message pool: piece splitting, order of retrieval, ageing, running out.
#include <deque>
#include <map>
#include <random>

#include "UnitFixture.h"
#include "ipc/SysMsgPool.h"

namespace {

int PoolSize(int blocks) { return 20 + blocks * 1124; }

std::string Pattern(int len, char seed) {
    std::string s(static_cast<size_t>(len), '\0');
    for (int i = 0; i < len; ++i) s[static_cast<size_t>(i)] = static_cast<char>(seed + i % 53);
    return s;
}

// Runs one of the fetch/view routines; "<none>" when it finds nothing.
std::string Take(int (*fn)(const char*, void*, int*), const char* key) {
    std::vector<char> buf(1 << 17);
    int len = -1;
    int rc = fn(key, buf.data(), &len);
    if (rc < 0) return "<none>";
    if (fn != SysFetchPoolOne) {
        EXPECT_EQ(rc, len);   // the views return the length
    }
    return std::string(buf.data(), static_cast<size_t>(len));
}
std::string Fetch(const char* key) { return Take(SysFetchPoolOne, key); }
int Put(const char* key, const std::string& data) { return SysSetPool(key, data.data(), static_cast<int>(data.size())); }

class MsgPoolTest : public comptest::UnitTest {
protected:
    void TearDown() override {
        SysFreePool();
        UnitTest::TearDown();
    }
};

TEST_F(MsgPoolTest, SizeBelowOneBlockIsRefusedAndOneBlockFits) {
    EXPECT_EQ(InitMemPool(1143), -3);
    EXPECT_TRUE(Logged("InitMemPool error,input parameter errorn"));

    ASSERT_EQ(InitMemPool(1144), 0);
    EXPECT_EQ(Put("k", Pattern(1024, 'a')), 1024);
    EXPECT_EQ(PoolGetBNum(), 1);
    EXPECT_EQ(Put("k", "x"), -2);
    EXPECT_EQ(Fetch("k"), Pattern(1024, 'a'));
    EXPECT_EQ(PoolGetBNum(), 0);
}

TEST_F(MsgPoolTest, MessagesAreCutIntoPiecesOf1024Bytes) {
    ASSERT_EQ(InitMemPool(PoolSize(8)), 0);
    EXPECT_EQ(Put("a", Pattern(1024, 'a')), 1024);
    EXPECT_EQ(PoolGetBNum(), 1);
    EXPECT_EQ(Put("b", Pattern(1025, 'b')), 1025);
    EXPECT_EQ(PoolGetBNum(), 3);
    EXPECT_EQ(Put("c", Pattern(2048, 'c')), 2048);
    EXPECT_EQ(PoolGetBNum(), 5);
    EXPECT_EQ(Put("d", ""), -3);
    EXPECT_EQ(SysSetPool(std::string(64, 'k').c_str(), "x", 1), -3);   // key does not fit

    EXPECT_EQ(Fetch("b"), Pattern(1025, 'b'));
    EXPECT_EQ(Fetch("c"), Pattern(2048, 'c'));
    EXPECT_EQ(Fetch("a"), Pattern(1024, 'a'));
    EXPECT_EQ(PoolGetBNum(), 0);
}

TEST_F(MsgPoolTest, OldestFirstNewestFirstAndByKey) {
    ASSERT_EQ(InitMemPool(PoolSize(16)), 0);
    Put("K", Pattern(10, '1'));
    Put("other", "noise");
    Put("K", Pattern(3000, '2'));
    Put("K", Pattern(1024, '3'));

    EXPECT_EQ(Take(SysViewPool, "K"), Pattern(10, '1'));
    EXPECT_EQ(Take(SysViewPoolFILO, "K"), Pattern(1024, '3'));
    EXPECT_EQ(PoolGetBNum(), 6);   // viewing frees nothing
    EXPECT_EQ(SysDelPoolFILO("K"), 0);
    EXPECT_EQ(Take(SysViewPoolFILO, "K"), Pattern(3000, '2'));
    EXPECT_EQ(SysDelPoolOne("K"), 0);
    EXPECT_EQ(Take(SysViewPool, "K"), Pattern(3000, '2'));

    Put("K", "four");
    EXPECT_EQ(Fetch("K"), Pattern(3000, '2'));
    EXPECT_EQ(Fetch("K"), "four");
    EXPECT_EQ(Fetch("K"), "<none>");
    EXPECT_EQ(SysDelPoolOne("K"), -1);
    EXPECT_EQ(SysDelPoolFILO("K"), -1);

    Put("K", Pattern(2500, 'x'));
    Put("K", "y");
    EXPECT_EQ(SysDelPool("K"), 0);   // every piece of every message
    EXPECT_EQ(PoolGetBNum(), 1);
    EXPECT_EQ(Fetch("other"), "noise");
    EXPECT_EQ(SysDelPool("K"), -1);   // empty pool
}

TEST_F(MsgPoolTest, CleanNodeAgesOutAllButMsgkey) {
    ASSERT_EQ(InitMemPool(PoolSize(10)), 0);
    EXPECT_EQ(SysCleanNode(0, 0), 0);   // empty pool
    Put("MSGKEY", Pattern(1500, 'm'));
    Put("A", Pattern(2100, 'a'));
    Put("MSGKEYX", "b");
    EXPECT_EQ(SysCleanNode(0, 3600), 0);   // nothing that old
    EXPECT_EQ(PoolGetBNum(), 6);
    EXPECT_EQ(SysCleanNode(0, 0), 4);      // stored "0 seconds ago" is old enough
    EXPECT_EQ(Fetch("MSGKEY"), Pattern(1500, 'm'));
    EXPECT_EQ(PoolGetBNum(), 0);
}

TEST_F(MsgPoolTest, OwnPidShorthandAndMissingPool) {
    EXPECT_EQ(PoolPut("x", 1), -2);   // no pool yet
    EXPECT_EQ(SysDelPool("K"), -1);
    ASSERT_EQ(InitMemPool(PoolSize(4)), 0);
    EXPECT_EQ(PoolPut("first", 5), 5);
    EXPECT_EQ(PoolPut("second", 6), 6);
    EXPECT_EQ(Take(SysViewPool, std::to_string(getpid()).c_str()), "first");
    char buf[16] = {};
    int len = 0;
    EXPECT_EQ(PoolGet(buf, &len), 0);
    EXPECT_EQ(std::string(buf, static_cast<size_t>(len)), "first");
    EXPECT_EQ(SysFreePool(), 0);
    EXPECT_EQ(PoolGet(buf, &len), -1);
    EXPECT_EQ(PoolGetBNum(), 0);
}

// Random stores and takes against a model of per-key queues: the lists must
// stay consistent however blocks are freed and reused, and a message that
// does not fit must leave the pool as it was.
TEST_F(MsgPoolTest, RandomTrafficMatchesAModel) {
    constexpr int kBlocks = 40;
    ASSERT_EQ(InitMemPool(PoolSize(kBlocks)), 0);
    std::mt19937 rng(12345);
    std::map<std::string, std::deque<std::string>> model;
    int used = 0;
    auto blocksOf = [](const std::string& m) { return static_cast<int>((m.size() + 1023) / 1024); };
    const char* keys[] = {"k0", "k1", "k2"};
    for (int step = 0; step < 3000; ++step) {
        const char* key = keys[rng() % 3];
        auto& q = model[key];
        unsigned op = rng() % 4;
        if (op < 2) {
            std::string msg = Pattern(1 + static_cast<int>(rng() % 5000), static_cast<char>('A' + step % 26));
            bool fits = used + blocksOf(msg) <= kBlocks;
            ASSERT_EQ(Put(key, msg), fits ? static_cast<int>(msg.size()) : -2) << step;
            if (fits) q.push_back(msg), used += blocksOf(msg);
        } else if (q.empty()) {
            ASSERT_EQ(Fetch(key), "<none>") << step;
            ASSERT_EQ(SysDelPoolFILO(key), -1) << step;
        } else if (op == 2) {
            ASSERT_EQ(Fetch(key), q.front()) << step;
            used -= blocksOf(q.front());
            q.pop_front();
        } else {
            ASSERT_EQ(Take(SysViewPoolFILO, key), q.back()) << step;
            ASSERT_EQ(SysDelPoolFILO(key), 0) << step;
            used -= blocksOf(q.back());
            q.pop_back();
        }
        ASSERT_EQ(PoolGetBNum(), used) << step;
    }
}

}  // namespace

TEST(MsgPoolReset, process_reset_releases_the_pool) {
    ASSERT_EQ(InitMemPool(64 * 1124 + 20), 0);
    ASSERT_GT(SysSetPool("k", "data", 4), 0);
    SysResetGlobals();
    EXPECT_EQ(PoolGetBNum(), 0);
    EXPECT_LT(SysSetPool("k", "data", 4), 0) << "no pool until InitMemPool again";
}
