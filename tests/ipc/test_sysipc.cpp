// The System V wrappers, the startup readers that open the platform's
// objects by sys.cfg, and the FIFOs.
#include <fcntl.h>
#include <sys/msg.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>

#include "UnitFixture.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"

namespace {

namespace fs = std::filesystem;
namespace seam = comp::seam;
using Queue = comptest::UnitTest;
using Semaphores = comptest::UnitTest;
using SharedMemory = comptest::UnitTest;
using StartupReaders = comptest::UnitTest;
using Fifo = comptest::UnitTest;
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
    COMP_REQUIRE_BIG_MESSAGES();
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

TEST_F(StartupReaders, EntriesGoToTheirSlotsAndAnIndexBeyondTheTableFails) {
    keys.newQueue();    // an id of 0 is refused: keep the namespace's first ids away
    key_t kq, kReg, kTbl;
    const int iQ = keys.newQueue(&kq);
    keys.newShm(4096, &kReg);
    const int iTbl = keys.newShm(4096, &kTbl);
    const std::string q = std::to_string(kq);
    run.write("etc/sys.cfg", "LOGONTIMELIMIT 30\nCOMLOGONTIMELIMIT 30\nINQUERYTIME 5\nINQUERYCOUNT 3\nSHUTDOWNTIME 5\n"
                             "MSGQUEUECOUNT 2\nSEMPHORECOUNT 1\nSHAREMEMCOUNT 2\nPROCNAMECOUNT 0\n[QRESOURCE]\nA 4 " + q +
                             "\nB 32 " + q + "\n[SEMRESOURCE]\nS 40 1 1\n[SHMRESOURCE]\nREG 9 " + std::to_string(kReg) +
                             " 4096\nTBL 1 " + std::to_string(kTbl) + " 4096\n[PROCESS]\n");
    EXPECT_EQ(SysMsgQueueOpen(2, g_stMsgQCntl), -1);
    EXPECT_EQ(g_stMsgQCntl[4].iId, iQ);   // what was opened before stays
    EXPECT_EQ(g_stMsgQCntl[4].iKey, kq);
    EXPECT_EQ(g_stMsgQCntl[5].iId, 0);
    EXPECT_EQ(SysSemAttach(1, g_stSemCntl), -1);
    EXPECT_NE(Logs().find("open queue err [32]"), npos);
    EXPECT_NE(Logs().find("Attach semphore err [40]"), npos);
    EXPECT_EQ(SysGetShmIdByIndex(2, 2), iTbl);   // segments go by position, not index
    EXPECT_EQ(g_iShmTblId, iTbl);
    EXPECT_EQ(SysGetShmIdByIndex(3, 2), -1);
}

TEST_F(Fifo, TwoOpensShareOneFifoThatCarriesSingleBytes) {
    fs::remove(run.file("fifo"));
    const int iFd1 = iOpenFIFO("1234", 3), iFd2 = iOpenFIFO("1234", 3), iFd3 = iConnectFIFO("1234", 3);
    ASSERT_TRUE(iFd1 >= 0 && iFd2 >= 0 && iFd3 >= 0);
    EXPECT_NE(Logs().find("mkdir " + run.file("fifo") + " ok"), npos);
    struct stat a {}, b {};
    fstat(iFd1, &a);
    fstat(iFd2, &b);
    EXPECT_EQ(a.st_ino, b.st_ino);
    EXPECT_EQ(iCheckPipe("3_1234"), 0);
    char c = 0;
    ASSERT_EQ(iWriteFIFO(iFd3), 0);
    ASSERT_EQ(iReadFIFO2Buf(iFd1, &c), 0);
    EXPECT_EQ(c, '0');
    ASSERT_EQ(iWriteStr2FIFO(iFd2, "x"), 0);
    ASSERT_EQ(iReadFIFO2Buf(iFd1, &c), 0);
    EXPECT_EQ(c, 'x');

    EXPECT_EQ(iReadFIFO(iFd1), -1);    // empty: would block
    EXPECT_NE(Logs().find("iReadFIFO]read() error,errno=11,"), npos);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(iWriteFIFO(iFd2), 0);
    EXPECT_LT(iClearFIFO(iFd1), 0);
    EXPECT_EQ(iReadFIFO2Buf(iFd1, &c), -1);    // all three were dropped
    for (int iFd : {iFd1, iFd2, iFd3}) EXPECT_EQ(iCloseFIFO(iFd), 0);
}

TEST_F(Fifo, WrongOrMissingFilesAtThePath) {
    run.write("fifo/3_77", "regular");
    const int iFd = open("/dev/null", O_RDONLY);    // the next free descriptor
    close(iFd);
    EXPECT_EQ(iOpenFIFO("77", 3), -1);
    EXPECT_EQ(open("/dev/null", O_RDONLY), iFd);    // nothing left open
    close(iFd);
    EXPECT_EQ(iConnectFIFO("77", 3), -3);
    EXPECT_EQ(iCheckPipe("3_77"), -3);
    EXPECT_NE(Logs().find("3_77] isn't a fifo file"), npos);
    EXPECT_NE(Logs().find("[SysFIFO:"), npos);

    EXPECT_EQ(iConnectFIFO("78", 3), -2);
    EXPECT_FALSE(fs::exists(run.file("fifo/3_78")));
    EXPECT_NE(Logs().find("3_78] is not exist"), npos);
    EXPECT_EQ(SysCleanIpcFileById("78", 3), -2);
    EXPECT_NE(Logs().find("[SysRscApp:"), npos) << "the clean-up routines report as SysRscApp";
}

TEST_F(Fifo, PathsThatDoNotFitAreRefused) {
    const std::string name(128 - run.path().size() - 8, 'n');    // 128 bytes with "/fifo/1_"
    EXPECT_EQ(iOpenFIFO(name.c_str(), 1), -1);
    EXPECT_EQ(iConnectFIFO(name.c_str(), 1), -1);
    EXPECT_TRUE(fs::is_empty(run.file("fifo")));
    const int iFd = iOpenFIFO(name.substr(1).c_str(), 1);
    EXPECT_GE(iFd, 0);
    close(iFd);
}

TEST_F(Fifo, CleanUpRemovesOnlyFifos) {
    for (const char* pcName : {"100", "200"}) close(iOpenFIFO(pcName, 2));
    run.write("fifo/keep.txt", "x");
    fs::create_directory(run.file("fifo/sub"));
    ASSERT_EQ(SysCleanIpcFileById("100", 2), 0);
    EXPECT_FALSE(fs::exists(run.file("fifo/2_100")));
    ASSERT_EQ(SysCleanIpcFiles(), 0);
    EXPECT_FALSE(fs::exists(run.file("fifo/2_200")));
    EXPECT_TRUE(fs::exists(run.file("fifo/keep.txt")));
    EXPECT_TRUE(fs::is_directory(run.file("fifo/sub")));
}

TEST_F(Fifo, ClearingABlockingPipeEndsWhenEmpty) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "ab", 2), 2);
    EXPECT_EQ(iClearFIFO(fds[0]), -1);    // the write end is open: a read would block
    close(fds[1]);
    EXPECT_EQ(iClearFIFO(fds[0]), 0);     // end of file
    close(fds[0]);
}

}  // namespace
