#include <sys/msg.h>

#include <csignal>
#include <cstring>
#include <memory>

#include "IpcFixture.h"
#include "ipc/SysIpc.h"

namespace {

using Queue = IpcTest;
using Semaphores = IpcTest;
using SharedMemory = IpcTest;
using StartupReaders = IpcTest;
namespace seam = comp::seam;
constexpr auto npos = std::string::npos;

std::unique_ptr<QueueMsg> Msg(long lType, const char* pcText = "") {
    auto p = std::make_unique<QueueMsg>();
    p->lMsgType = lType;
    std::strcpy(p->caText, pcText);
    return p;
}

TEST_F(Queue, NoWaitReadIsZeroWithoutReportUntilAMessageOfItsTypeIsThere) {
    const int iQid = keys.newQueue();
    auto m = Msg(5, "hello");
    EXPECT_EQ(MsgReadNoWait(iQid, m.get()), 0);
    ASSERT_EQ(MsgWriteNoWait(iQid, m.get(), 5), 0);
    auto in = Msg(7);
    EXPECT_EQ(MsgReadNoWait(iQid, in.get()), 0);
    in->lMsgType = 5;
    EXPECT_EQ(MsgReadNoWait(iQid, in.get()), 5);
    EXPECT_EQ(std::string(in->caText), "hello");
    EXPECT_EQ(Logs(), "");
    ASSERT_EQ(MsgRemove(iQid), 0);
    EXPECT_EQ(MsgReadNoWait(iQid, in.get()), -EINVAL);
    EXPECT_NE(Logs().find("MsgReadNoWait msgrcv"), npos);
}

TEST_F(Queue, FullQueueFailsNoWaitWriteSilentlyAndOversizeLengthsAreRefused) {
    const int iQid = keys.newQueue();
    msqid_ds ds{};
    ASSERT_EQ(msgctl(iQid, IPC_STAT, &ds), 0);
    ds.msg_qbytes = 64;
    ASSERT_EQ(msgctl(iQid, IPC_SET, &ds), 0);
    auto m = Msg(1, "0123456789abcdef");
    int iSent = 0;
    while (iSent < 10 && MsgWriteNoWait(iQid, m.get(), 16) == 0) ++iSent;
    EXPECT_EQ(iSent, 4);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(Logs(), "");
    EXPECT_EQ(MsgWrite(iQid, m.get(), comp::kQueueTextLen + 1), -1);
    EXPECT_EQ(MsgGetQueueNum(iQid), 4);
    EXPECT_NE(Logs().find("msgsend id [" + std::to_string(iQid) + "] fail len [65537]!"), npos);
}

TEST_F(Queue, FullSizeMessageRoundTrip) {
    std::string why;
    if (!comptest::EnsureBigQueueMessages(&why)) GTEST_SKIP() << why;
    const int iQid = keys.newQueue();
    auto out = Msg(3);
    for (int i = 0; i < comp::kQueueTextLen; ++i) out->caText[i] = static_cast<char>(i * 7);
    ASSERT_EQ(MsgWrite(iQid, out.get(), comp::kQueueTextLen), 0);
    auto in = Msg(0);
    ASSERT_EQ(MsgReadWait(iQid, in.get()), comp::kQueueTextLen);
    EXPECT_EQ(std::memcmp(in->caText, out->caText, comp::kQueueTextLen), 0);
}

TEST_F(Queue, SeamFailsTheChosenCallsAndInterruptionsAreRetriedWhereAsked) {
    const int iQid = SysGetMsgId(keys.next());    // created when missing
    ASSERT_GE(iQid, 0);
    auto m = Msg(1, "x");
    seam::FailNthCall(seam::kMsgSnd, 2, EAGAIN);
    EXPECT_EQ(MsgWriteNoWait(iQid, m.get(), 1), 0);
    EXPECT_EQ(MsgWriteNoWait(iQid, m.get(), 1), -1);
    EXPECT_EQ(MsgWriteNoWait(iQid, m.get(), 1), 0);
    seam::FailNthCall(seam::kMsgRcv, 1, EINTR, 3);
    EXPECT_EQ(MsgReadWaitIgnSignal(iQid, m.get()), 1);
    seam::FailNthCall(seam::kMsgRcv, 1, EINTR);
    EXPECT_EQ(MsgReadWait(iQid, m.get()), -1);
    EXPECT_EQ(MsgReadWait(iQid, m.get()), 1);
}

TEST_F(Semaphores, VAtTheCeilingFailsInsteadOfRetryingForEver) {
    const int iId = SemInit(keys.next(), 1);
    ASSERT_EQ(SemP(iId, 1), 0);
    EXPECT_EQ(SemQuery(iId), 0);
    EXPECT_EQ(SemV(iId), 0);
    ASSERT_EQ(SemSetValue(iId, 32767), 0);
    EXPECT_EQ(SemV(iId), -1);
    EXPECT_EQ(SemGetValue(iId), 32767);
    EXPECT_NE(Logs().find("SemV ERANGE"), npos);
    EXPECT_NE(Logs().find("SemV semop"), npos);
}

TEST_F(Semaphores, LockNumbersOutsideTheSetAreSilentSuccesses) {
    const int iId = SysSemInit(keys.next(), 1);
    ASSERT_GE(iId, 0);
    EXPECT_EQ(SysP(iId, 10), 0);
    EXPECT_EQ(SysP(iId, -1), 0);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(SemGetValue2(iId, i), 1);
}

TEST_F(Semaphores, LockHeldByAKilledProcessIsGivenBack) {
    const int iId = SysSemInit(keys.next(), 1);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        char c = SysP(iId, 3) == 0 ? 'y' : 'n';
        (void)!write(fds[1], &c, 1);
        pause();
        _exit(0);
    }
    char c = 0;
    const bool bRead = read(fds[0], &c, 1) == 1;
    const int iHeld = SemGetValue2(iId, 3);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(fds[0]);
    close(fds[1]);
    ASSERT_TRUE(bRead && c == 'y');
    EXPECT_EQ(iHeld, 0);
    ASSERT_EQ(SemGetValue2(iId, 3), 1);    // so the SysP below cannot block
    EXPECT_EQ(SysP(iId, 3), 0);
    EXPECT_EQ(SysV(iId, 3), 0);
}

TEST_F(SharedMemory, FailedAttachLeavesANullAddress) {
    char* pcAddr = reinterpret_cast<char*>(&pcAddr);
    EXPECT_EQ(AttachShmem(keys.next(), 4096, &pcAddr), -1);
    EXPECT_EQ(pcAddr, nullptr);
    EXPECT_NE(Logs().find("Shmem Attatch shmemKey[%d] "), npos);
    key_t k;
    const int iId = keys.newShm(4096, &k);
    seam::FailNthCall(seam::kShmAt, 1, ENOMEM, 2);
    EXPECT_EQ(AttachShmem(k, 4096, &pcAddr), -1);
    EXPECT_EQ(pcAddr, nullptr);
    EXPECT_EQ(pcShmAt(iId), nullptr);
    ASSERT_EQ(AttachShmem(k, 4096, &pcAddr), 0);
    EXPECT_EQ(DetachShmem(pcAddr), 0);
}

TEST(Signals, BlockThenRestoreDeliversThePendingSignal) {
    static volatile sig_atomic_t s_iCaught = 0;
    struct sigaction sa {}, old {};
    sa.sa_handler = [](int) { s_iCaught = 1; };
    sigaction(SIGUSR1, &sa, &old);
    sigset_t set, saved;
    sigemptyset(&set);
    sigaddset(&set, SIGUSR1);
    ASSERT_EQ(iSetSignalBlock(&set, &saved), 0);
    raise(SIGUSR1);
    EXPECT_EQ(s_iCaught, 0);
    ASSERT_EQ(iSetSignalMask(&saved), 0);
    EXPECT_EQ(s_iCaught, 1);
    sigaction(SIGUSR1, &old, nullptr);
}

// sys.cfg with the CommCfg block (two queues, one semaphore set, two
// segments) and the resource sections.
void WriteSysCfg(const comptest::TempRunDir& run, const std::string& queues, const std::string& sems,
                 const std::string& shms) {
    run.write("etc/sys.cfg",
              "LOGONTIMELIMIT 30\nCOMLOGONTIMELIMIT 30\nINQUERYTIME 5\nINQUERYCOUNT 3\nSHUTDOWNTIME 5\n"
              "MSGQUEUECOUNT 2\nSEMPHORECOUNT 1\nSHAREMEMCOUNT 2\nPROCNAMECOUNT 0\n[QRESOURCE]\n" +
                  queues + "[SEMRESOURCE]\n" + sems + "[SHMRESOURCE]\n" + shms + "[PROCESS]\n");
}

std::string Line(const char* pcName, int iIndex, key_t key, const char* pcTail = "") {
    return std::string(pcName) + " " + std::to_string(iIndex) + " " + std::to_string(key) + pcTail + "\n";
}

TEST_F(StartupReaders, TablesAreFilledBySlotAndSegmentsByPosition) {
    keys.newQueue();    // an id of 0 is refused: keep the namespace's first ids away
    keys.newSemSet(1, 0);
    key_t kq5, kq7, ks, kReg, kTbl;
    const int iQ5 = keys.newQueue(&kq5), iQ7 = keys.newQueue(&kq7);
    const int iSem = keys.newSemSet(10, 1, &ks);
    keys.newShm(4096, &kReg);
    const int iTbl = keys.newShm(4096, &kTbl);
    WriteSysCfg(run, Line("TOTRANP", 5, kq5) + Line("FROMTRANP", 7, kq7), Line("LOCK", 3, ks, " 10"),
                Line("REG", 9, kReg, " 4096") + Line("TBL", 1, kTbl, " 4096"));
    ASSERT_EQ(SysMsgQueueOpen(2, g_stMsgQCntl), 0);
    EXPECT_EQ(g_stMsgQCntl[5].iId, iQ5);
    EXPECT_EQ(g_stMsgQCntl[5].iKey, kq5);
    EXPECT_EQ(g_stMsgQCntl[7].iId, iQ7);
    EXPECT_EQ(g_stMsgQCntl[6].iId, 0);
    ASSERT_EQ(SysSemAttach(1, g_stSemCntl), 0);
    EXPECT_EQ(g_stSemCntl[3].iId, iSem);
    EXPECT_EQ(g_stSemCntl[3].iNum, 10);
    EXPECT_EQ(SysGetShmIdByIndex(2, 2), iTbl);
    EXPECT_EQ(g_iShmTblId, iTbl);
    EXPECT_EQ(SysGetShmIdByIndex(3, 2), -1);
}

TEST_F(StartupReaders, IndexBeyondTheTableFailsAndKeepsWhatWasOpened) {
    keys.newQueue();
    key_t kq;
    const int iQ = keys.newQueue(&kq);
    WriteSysCfg(run, Line("A", 4, kq) + Line("B", 32, kq), Line("S", 40, 1, " 1"), "");
    EXPECT_EQ(SysMsgQueueOpen(2, g_stMsgQCntl), -1);
    EXPECT_EQ(g_stMsgQCntl[4].iId, iQ);
    EXPECT_EQ(SysSemAttach(1, g_stSemCntl), -1);
    EXPECT_NE(Logs().find("open queue err [32]"), npos);
    EXPECT_NE(Logs().find("Attach semphore err [40]"), npos);
}

}  // namespace
