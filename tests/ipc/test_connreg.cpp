// Connection registry on real System V objects with private keys.
#include <signal.h>
#include <sys/shm.h>

#include <cstring>

#include "UnitFixture.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysIpc.h"

namespace {

using comp::kRegistryNodes;
using comp::kRegistrySegmentMin;

// A test's own view of the registry segment.
class SegView {
public:
    explicit SegView(int shmId) : base_(static_cast<char*>(shmat(shmId, nullptr, 0))) {}
    ~SegView() { shmdt(base_); }
    SegView(const SegView&) = delete;
    SegView& operator=(const SegView&) = delete;

    ConnListHeader& hdr() { return *reinterpret_cast<ConnListHeader*>(base_ + comp::kRegistryHeaderOff); }
    ConnNode& node(int i) { return reinterpret_cast<ConnNode*>(base_ + comp::kRegistryNodesOff)[i]; }

    // Indices of a circle from its head along the next links.
    std::vector<int> circle(int head) {
        std::vector<int> v;
        for (int cur = head; cur != -1 && v.size() <= size_t(kRegistryNodes); cur = node(cur).iNext) {
            v.push_back(cur);
            if (node(cur).iNext == head) break;
        }
        return v;
    }
    std::vector<int> busyOrder() { return circle(hdr().iBusy); }

private:
    char* base_;
};

class ConnRegTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        semId_ = keys.newSemSet(10, 0);
        shmId_ = keys.newShm(kRegistrySegmentMin, &shmKey_);
        ASSERT_GE(semId_, 0);
        ASSERT_GE(shmId_, 0);
        WriteCfg(shmKey_, kRegistrySegmentMin);
        ASSERT_EQ(SysInitMemList(1, 1, semId_), 0);
        ASSERT_EQ(SysConnectMem(1, 1), 0);
        view_ = std::make_unique<SegView>(shmId_);
    }
    void TearDown() override {
        view_.reset();
        SysConnRegDetach();
        UnitTest::TearDown();
    }

    void WriteCfg(key_t key, int size) {
        run.write("etc/sys.cfg", "[SHMRESOURCE]\nCONNREG 1 " + std::to_string(key) + " " + std::to_string(size) +
                                     "\nTABLE 2 12345 4096\n");
    }
    int LockValue() const { return SemGetValue2(semId_, 0); }

    // Registers in a child process, so the node carries another pid.
    pid_t RegisterInChild(const char* route, const char* ip) {
        pid_t pid = comptest::ForkChild([&] { return SysSaveInfo(route, ip, 1, -1, 3) >= 0 ? 0 : 1; });
        EXPECT_EQ(comptest::ExitStatus(pid), 0);
        return pid;
    }

    int semId_ = -1, shmId_ = -1;
    key_t shmKey_ = 0;
    std::unique_ptr<SegView> view_;
};

TEST_F(ConnRegTest, NewestRegistrationIsTheBusyHeadAndFreedNodesFollowTheFreeHead) {
    EXPECT_EQ(LockValue(), 1);   // formatting released the lock once
    EXPECT_EQ(view_->node(0).iPrev, kRegistryNodes - 1);
    ASSERT_EQ(print(), 0);
    for (const char* line : {"total blocks=16384", "free blocks=16384", "busy blocks=0", "iFree=0", "iBusy=-1",
                             "busy null"})
        EXPECT_TRUE(Logged(line)) << line;

    EXPECT_EQ(SysSaveInfo("1001", "10.0.0.1", 5001, -1, 11), 0);
    EXPECT_EQ(SysSaveInfo(" 10 02 ", "10.0.0. 2", 5002, -1, 12), 1);
    EXPECT_EQ(SysSaveInfo("1003", "10.0.0.3", 5003, -1, 13), 2);
    EXPECT_EQ(view_->busyOrder(), (std::vector<int>{2, 1, 0}));
    const ConnNode& n1 = view_->node(1);
    EXPECT_STREQ(n1.caType, "COM");
    EXPECT_STREQ(n1.caRouteId, "1002");   // blanks removed

    ASSERT_EQ(DeleteOne(1003, "10.0.0.3", 0, 13), 0);
    EXPECT_EQ(view_->busyOrder(), (std::vector<int>{1, 0}));
    EXPECT_EQ(view_->hdr().iFree, 3);   // the free head stays, the freed node follows it
    EXPECT_EQ(view_->node(3).iNext, 2);
    EXPECT_EQ(SysSaveInfo("7", "1.1.1.1", 1, -1, 1), 3);
    EXPECT_EQ(SysSaveInfo("8", "1.1.1.1", 1, -1, 2), 2);

    ASSERT_EQ(print(), 0);
    std::string log = Logs(), pid = std::to_string(getpid());
    size_t next = log.find("busy next,pid=" + pid), pre = log.find("busy pre,pid=" + pid);
    size_t a = log.find("[8]\t[1.1.1.1:1]\t" + pid + "\t", next);
    size_t b = log.find("[1002]\t[10.0.0.2:5002]\t" + pid + "\t", next);
    size_t c = log.find("[1001]\t[10.0.0.1:5001]", next);
    EXPECT_TRUE(next < a && a < b && b < c && c < pre && pre != std::string::npos);   // newest first
    EXPECT_EQ(LockValue(), 1);
}

TEST_F(ConnRegTest, FullRegistryRefusesTheNextRegistration) {
    for (int i = 0; i < kRegistryNodes; ++i) ASSERT_EQ(SysSaveInfo("1", "2.2.2.2", i, -1, i), i);
    EXPECT_EQ(SysSaveInfo("1", "2.2.2.2", 1, -1, 1), -2);
    EXPECT_EQ(set("k", "v", 1), -2);
    EXPECT_TRUE(Logged("not enough space"));
    EXPECT_EQ(DeleteBusyByPid(getpid()), 0);
    EXPECT_EQ(view_->hdr().iFreeBlocks, kRegistryNodes);
    EXPECT_EQ(SysSaveInfo("1", "2.2.2.2", 1, -1, 1), kRegistryNodes - 1);   // last freed sits at the head
}

TEST_F(ConnRegTest, DeletesMatchOnlyTheirOwnKeys) {
    EXPECT_EQ(DeleteOne(1001, "10.0.0.1", 0, 11), 1);   // empty list
    EXPECT_EQ(DeleteBusyByPid(getpid()), 1);

    SysSaveInfo("1001", "10.0.0.1", 5001, -1, 11);
    SysSaveInfo("1001", "10.0.0.2", 5002, -1, 12);
    EXPECT_EQ(DeleteOne(1002, "10.0.0.1", 0, 11), 1);   // another route id
    EXPECT_EQ(DeleteOne(1001, "10.0.0.1", 0, 12), 1);   // another descriptor
    EXPECT_EQ(view_->hdr().iBusyBlocks, 2);
    EXPECT_EQ(DeleteOne(1001, "10.0.0.1", 99, 11), 0);
    EXPECT_EQ(view_->hdr().iBusyBlocks, 1);

    EXPECT_EQ(DeleteFWOne(getpid(), "10.0.0.2", 5003, 12), 1);   // another port
    EXPECT_EQ(DeleteFWOne(getpid() + 1, "10.0.0.2", 5002, 12), 1);
    EXPECT_EQ(DeleteFWOne(getpid(), "10.0.0.2", 5002, 12), 0);
    EXPECT_EQ(view_->hdr().iBusy, -1);

    // Nodes of two processes: each pid removes only its own.
    SysSaveInfo("1", "3.3.3.3", 1, -1, 1);
    pid_t child1 = RegisterInChild("2", "4.4.4.4");
    SysSaveInfo("1", "3.3.3.4", 1, -1, 2);
    pid_t child2 = RegisterInChild("2", "4.4.4.5");
    EXPECT_EQ(DeleteBusyByPid(getpid()), 0);
    std::vector<int> left = view_->busyOrder();
    ASSERT_EQ(left.size(), 2u);
    EXPECT_EQ(view_->node(left[0]).iPid, child2);
    EXPECT_EQ(view_->node(left[1]).iPid, child1);
    EXPECT_EQ(DeleteBusyByPid(child1), 0);
    EXPECT_EQ(view_->busyOrder(), (std::vector<int>{left[0]}));
    EXPECT_EQ(LockValue(), 1);
}

TEST_F(ConnRegTest, VirtualDescriptorsAreListedAndRemovedTogether) {
    EXPECT_EQ(DeleteVirtualFdMany(getpid(), 7, 20), 1);
    EXPECT_TRUE(Logged("cannot find key in an empty list"));

    SysSaveInfo("9", "5.5.5.1", 6001, 7, 20);
    SysSaveInfo("9", "5.5.5.2", 6002, 8, 20);   // other virtual descriptor
    SysSaveInfo("9", "5.5.5.3", 6003, 7, 20);
    SysSaveInfo("9", "5.5.5.4", 6004, 7, 21);   // other socket
    std::vector<ConnNode> out(kRegistryNodes);
    ASSERT_EQ(GetVirtualNodeList(getpid(), 7, 20, out.data()), 2);
    EXPECT_STREQ(out[0].caIp, "5.5.5.3");   // newest first
    EXPECT_EQ(out[1].iPort, 6001);

    EXPECT_EQ(DeleteVirtualFdMany(getpid(), 7, 20), 0);
    EXPECT_EQ(GetVirtualNodeList(getpid(), 7, 20, out.data()), 0);
    EXPECT_EQ(view_->hdr().iBusyBlocks, 2);
    EXPECT_EQ(DeleteVirtualFdMany(getpid(), 8, 20), 0);
    EXPECT_EQ(DeleteVirtualFdMany(getpid(), 7, 21), 0);
    EXPECT_EQ(view_->hdr().iBusy, -1);
}

TEST_F(ConnRegTest, KeyValueEntriesAndLookupByRouteAndIp) {
    ASSERT_GE(set("alpha", "abc", 3), 0);
    char buf[17] = {};
    EXPECT_EQ(get("alpha", buf), 0);
    EXPECT_EQ(std::string(buf, 3), "abc");
    EXPECT_EQ(update("alpha", "0123456789abcdef", 16), 0);
    EXPECT_EQ(get("alpha", buf), 0);
    EXPECT_EQ(std::string(buf, 16), "0123456789abcdef");
    EXPECT_EQ(get("beta", buf), 1);
    EXPECT_EQ(get("alph", buf), 1);   // no prefix matches

    // A value that does not fit the node is refused before a node is taken.
    const int busy = view_->hdr().iBusyBlocks;
    EXPECT_EQ(set("gamma", "01234567890123456", 17), -1);
    EXPECT_EQ(update("alpha", "01234567890123456", 17), -1);
    EXPECT_EQ(set(std::string(64, 'k').c_str(), "x", 1), -1);
    EXPECT_EQ(view_->hdr().iBusyBlocks, busy);

    SysSaveInfo("3001", "6.6.6.6", 7001, 42, 30);
    ConnNode out{};
    EXPECT_EQ(SysGetPidByRouteidIp("3001", "6.6.6.6", &out), getpid());
    EXPECT_TRUE(out.iVirtualFd == 42 && out.iPort == 7001);
    EXPECT_EQ(SysGetPidByRouteidIp("3001 ", "6.6.6.6", &out), getpid());
    EXPECT_EQ(SysGetPidByRouteidIp("3002", "6.6.6.6", &out), -2);
    EXPECT_EQ(LockValue(), 1);
}

TEST_F(ConnRegTest, ClearingByTypeTakesExactTypesOnly) {
    SysSaveInfo("1", "1.1.1.1", 1, -1, 1);
    SysSaveInfo("1", "1.1.1.2", 1, -1, 2);
    int other = SysSaveInfo("1", "1.1.1.3", 1, -1, 3);
    std::strcpy(view_->node(other).caType, "COMX");
    int untyped = SysSaveInfo("1", "1.1.1.4", 1, -1, 4);
    view_->node(untyped).caType[0] = '\0';

    EXPECT_EQ(ClearConnList("COM"), 0);
    EXPECT_EQ(view_->busyOrder(), (std::vector<int>{untyped, other}));
    EXPECT_EQ(DeleteBusyAll("COMX"), 0);
    EXPECT_EQ(view_->busyOrder(), (std::vector<int>{untyped}));
    EXPECT_EQ(DeleteBusyAll(""), 0);
    EXPECT_EQ(view_->hdr().iBusy, -1);
}

TEST_F(ConnRegTest, LockOfAKilledHolderIsGivenBack) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = comptest::ForkChild([&] {
        SysP(semId_, 0);
        (void)!write(fds[1], "x", 1);
        return pause();
    });
    char c = 0;
    const bool held = read(fds[0], &c, 1) == 1;
    const int heldValue = LockValue();
    kill(pid, SIGKILL);
    comptest::ExitStatus(pid);
    close(fds[0]);
    close(fds[1]);
    ASSERT_TRUE(held);
    EXPECT_EQ(heldValue, 0);
    ASSERT_EQ(LockValue(), 1);   // the undo gave it back; the call below cannot block
    EXPECT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 1), 0);
    EXPECT_EQ(LockValue(), 1);
}

TEST_F(ConnRegTest, ConcurrentProcessesKeepTheListsWhole) {
    constexpr int kProcs = 4, kRounds = 5000;
    int gate[2];
    ASSERT_EQ(pipe(gate), 0);
    std::vector<pid_t> kids;
    for (int p = 0; p < kProcs; ++p)
        kids.push_back(comptest::ForkChild([&] {
            close(gate[1]);
            char c;
            (void)!read(gate[0], &c, 1);   // all start together when the gate closes
            int bad = 0;
            for (int i = 0; i < kRounds; ++i) {
                if (SysSaveInfo("5", "7.7.7.7", i, -1, p) < 0) ++bad;
                if (i % 3 == 2 && DeleteFWOne(getpid(), "7.7.7.7", i - 1, p) != 0) ++bad;
            }
            return bad == 0 ? 0 : 1;
        }));
    close(gate[0]);
    close(gate[1]);
    for (pid_t pid : kids) EXPECT_EQ(comptest::ExitStatus(pid), 0);
    const int expectBusy = kProcs * (kRounds - kRounds / 3);
    EXPECT_EQ(view_->hdr().iBusyBlocks, expectBusy);
    EXPECT_EQ(static_cast<int>(view_->busyOrder().size()), expectBusy);
    for (pid_t pid : kids) EXPECT_EQ(DeleteBusyByPid(pid), 0);
    EXPECT_EQ(view_->hdr().iFreeBlocks, kRegistryNodes);
    EXPECT_EQ(view_->circle(view_->hdr().iFree).size(), size_t(kRegistryNodes));
}

TEST_F(ConnRegTest, UnusableSegmentsAreRefusedWithoutTouchingTheLock) {
    key_t smallKey = 0;
    ASSERT_GE(keys.newShm(kRegistrySegmentMin - 1, &smallKey), 0);
    WriteCfg(smallKey, kRegistrySegmentMin - 1);
    EXPECT_EQ(SysConnectMem(1, 1), -1);
    EXPECT_EQ(SysInitMemList(1, 1, semId_), -1);
    EXPECT_TRUE(Logged("too small"));
    WriteCfg(smallKey, kRegistrySegmentMin);   // claiming the full size fails at the lookup
    EXPECT_EQ(SysConnectMem(1, 1), -1);
    EXPECT_EQ(g_memlist_shmkey, shmKey_);      // still the good segment

    EXPECT_EQ(SemSetValue2(semId_, 0, 0), 0);  // a SysP now would block
    g_memlist_shmsize = 100;
    EXPECT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 1), -1);
    g_memlist_shmsize = kRegistrySegmentMin;
    g_memlist_shmkey = keys.next();           // no segment under this key
    EXPECT_EQ(print(), -1);
    EXPECT_EQ(DeleteBusyAll("COM"), -1);
    EXPECT_TRUE(Logged("attach error"));
    g_memlist_shmkey = 0;                      // never connected
    EXPECT_EQ(ClearConnList("COM"), -1);
    EXPECT_EQ(LockValue(), 0);
}

TEST_F(ConnRegTest, ReplacedSegmentIsAttachedAfresh) {
    ASSERT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 1), 0);
    ASSERT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 2), 1);
    view_.reset();
    ASSERT_EQ(shmctl(shmId_, IPC_RMID, nullptr), 0);
    shmId_ = shmget(shmKey_, kRegistrySegmentMin, IPC_CREAT | IPC_EXCL | 0666);
    ASSERT_GE(shmId_, 0);
    ASSERT_EQ(SysInitMemList(1, 1, semId_), 0);
    EXPECT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 3), 0);   // index 0 of the new segment
    SegView fresh(shmId_);
    EXPECT_EQ(fresh.hdr().iBusyBlocks, 1);
}

TEST_F(ConnRegTest, DamagedLinksGiveErrorsNotHangs) {
    for (int i = 0; i < 3; ++i) SysSaveInfo("1", "1.1.1.1", 1, -1, i);
    ConnListHeader& h = view_->hdr();

    h.iBusy = kRegistryNodes;   // head out of range
    EXPECT_EQ(DeleteBusyByPid(getpid()), -1);
    EXPECT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 9), -1);
    h.iBusy = 2;

    view_->node(1).iNext = 1;   // a loop that never reaches the oldest node
    EXPECT_EQ(DeleteOne(1, "9.9.9.9", 0, 0), -1);
    EXPECT_EQ(print(), -1);
    EXPECT_FALSE(Logged("busy next"));   // one error line, not a runaway listing
    view_->node(1).iNext = -5;
    EXPECT_EQ(GetVirtualNodeList(getpid(), -1, 0, std::vector<ConnNode>(3).data()), -1);
    EXPECT_EQ(DeleteBusyByPid(getpid()), -1);
    view_->node(1).iNext = 0;

    h.iFree = -1;   // free count says otherwise
    EXPECT_EQ(SysSaveInfo("1", "1.1.1.1", 1, -1, 9), -1);
    h.iFree = 3;
    EXPECT_TRUE(Logged("corrupt"));
    EXPECT_EQ(DeleteBusyByPid(getpid()), 0);   // repaired, works again
    EXPECT_EQ(h.iFreeBlocks, kRegistryNodes);
}

}  // namespace

namespace {
int Attached(int shmId) {
    shmid_ds ds{};
    return shmctl(shmId, IPC_STAT, &ds) == 0 ? static_cast<int>(ds.shm_nattch) : -1;
}
}  // namespace

// The process reset of in-process tests lets go of the cached attachment.
TEST_F(ConnRegTest, process_reset_detaches_the_cached_registry) {
    ASSERT_EQ(SysSaveInfo("1", "10.0.0.1", 1000, 5, 5), 0);
    EXPECT_EQ(Attached(shmId_), 2) << "the test's view and the cache";
    const int key = g_memlist_shmkey, size = g_memlist_shmsize;
    SysResetGlobals();
    EXPECT_EQ(Attached(shmId_), 1);
    g_memlist_shmkey = key;
    g_memlist_shmsize = size;
}
