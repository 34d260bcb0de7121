// PlatMsg header and notifications read back from real private queues, the
// doorbell-then-queue reads and the draining of stale messages.
#include <fcntl.h>
#include <sys/msg.h>

#include <cstring>
#include <memory>

#include "UnitFixture.h"
#include "comp/SysPlatMsg.h"

namespace {

namespace plat = comp::plat;
using comptest::Contains;
using comptest::MakeRoute;

using Hdr = comptest::PlatHdr;

class PlatMsgTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        for (int idx : {comp::kQueueToTranp, comp::kQueueFromTranp, comp::kQueueDrain})
            ASSERT_GE(g_stMsgQCntl[idx].iId = keys.newQueue(), 0);
        ASSERT_EQ(pipe2(bell_, O_NONBLOCK), 0);
    }
    void TearDown() override {
        close(bell_[0]);
        close(bell_[1]);
        UnitTest::TearDown();
    }
    void Put(int idx, long lType, const std::string& text) {
        QueueMsg stMsg{lType, {}};
        std::memcpy(stMsg.caText, text.data(), text.size());
        ASSERT_EQ(msgsnd(g_stMsgQCntl[idx].iId, &stMsg, text.size(), IPC_NOWAIT), 0);
    }
    // The next message of the queue (any type), or "" when none.
    std::string Take(int idx, long* plType = nullptr) {
        QueueMsg stMsg{};
        ssize_t n = msgrcv(g_stMsgQCntl[idx].iId, &stMsg, sizeof stMsg.caText, 0, IPC_NOWAIT);
        if (plType) *plType = stMsg.lMsgType;
        return n < 0 ? "" : std::string(stMsg.caText, static_cast<size_t>(n));
    }
    void Ring() { ASSERT_EQ(write(bell_[1], "0", 1), 1); }

    std::unique_ptr<QueueMsg> buf_ = std::make_unique<QueueMsg>();
    int bell_[2] = {-1, -1};
};

TEST_F(PlatMsgTest, LargestMessageGetsAFullHeaderAndA16CharacterIpWithoutNul) {
    const int iLen = comp::kQueueTextLen - plat::kHeaderLen;   // 65,472
    for (int i = 0; i < iLen; ++i) buf_->caText[i] = static_cast<char>(i * 7);
    RouteRecord stRoute = MakeRoute({{RT_ROUTEID, "301"}, {RT_ROUTEMSGFLAG, "Yx"}});

    ASSERT_EQ(SysBuildPlatMsg(buf_.get(), iLen, 9, &stRoute, "192.168.100.2001", 7001), 65536);
    std::string t(buf_->caText, comp::kQueueTextLen);
    // The 16-bit length field keeps the low bits of 65,536.
    Hdr want{0, 0, getpid(), getpid(), 301, 301, 9, 9, 7001, "192.168.100.200", "192.168.100.200", 'Y', {}};
    want.ip[15] = want.ip2[15] = '1';
    EXPECT_EQ(t.substr(0, 64), want.bytes());
    for (int i = 0; i < iLen; ++i) ASSERT_EQ(t[plat::kHeaderLen + i], static_cast<char>(i * 7)) << i;

    EXPECT_EQ(SysBuildPlatMsg(buf_.get(), iLen + 1, 9, &stRoute, "1.1.1.1", 1), -1) << "does not fit";
}

TEST_F(PlatMsgTest, NoticesAre132BytesWithSecondCopiesZero) {
    NoticeRecord stNotice{};
    std::memcpy(&stNotice, "N00110.9.8.7\0\0\0\0\0\0\0\0" "1234567890ABCDEF" "text-two\0\0\0\0" "the third text!", 63);
    ASSERT_EQ(SysSendNMsg(42, 17, &stNotice, 5555), 0);
    ASSERT_EQ(SysSendInnerMsg("10.0.0.1", 7, "N003"), 0);

    long lType = 0;
    std::string t = Take(comp::kQueueToTranp, &lType);
    EXPECT_EQ(lType, getpid());
    Hdr want{132, 1, getpid(), 0, 42, 0, 17, 0, 5555, "10.9.8.7", {}, 'I', {}};
    EXPECT_EQ(t, want.bytes() + std::string(reinterpret_cast<char*>(&stNotice), 63) + std::string(5, '\0'));

    Hdr lost{132, 1, getpid(), 0, 7, 0, 0, 0, 0, "10.0.0.1", {}, 'I', {}};
    EXPECT_EQ(Take(comp::kQueueToTranp), lost.bytes() + std::string("N00310.0.0.1", 12) + std::string(56, '\0'))
        << "texts travel in N001 only";
    EXPECT_NE(Logs().find("write [N003] to tranp"), std::string::npos);

    comp::seam::FailNthCall(comp::seam::kMsgSnd, 1, EAGAIN);
    EXPECT_EQ(SysSendInnerMsg("10.0.0.1", 7, "N001"), -1) << "a full queue drops the notice";
}

TEST_F(PlatMsgTest, EachDoorbellTakesOneMessageOfThisProcessOrRoute) {
    Put(comp::kQueueFromTranp, getpid() + 1, "other");
    Put(comp::kQueueFromTranp, 301, "for route");
    Put(comp::kQueueFromTranp, getpid(), "mine!");
    Ring();
    ASSERT_EQ(SysReadPlatMsg(bell_[0], buf_.get()), 5);
    EXPECT_EQ(std::string(buf_->caText, 6), std::string("mine!\0", 6));
    Ring();
    ASSERT_EQ(SysReadPlatMsgByRID("301", bell_[0], buf_.get()), 9);

    // The report lines name the routine the operator knows, in its source.
    Ring();
    EXPECT_EQ(SysReadPlatMsg(bell_[0], buf_.get()), -1);
    EXPECT_TRUE(Contains(Logs(), "[SysComPub:SysReadPlatMsg:"));
    EXPECT_TRUE(Contains(Logs(), "]expect data but not found,fatal error!"));
    Ring();
    EXPECT_EQ(SysReadPlatMsgByRID("302", bell_[0], buf_.get()), -1);
    EXPECT_TRUE(Contains(Logs(), "[SysComPub:SysReadPlatMsgByRID:"));
    EXPECT_EQ(SysReadPlatMsg(bell_[0], buf_.get()), -1) << "no doorbell";
    EXPECT_TRUE(Contains(Logs(), "]iReadFIFO error,fatal error"));
    EXPECT_FALSE(Contains(Logs(), "ReadAfterDoorbell"));
    EXPECT_EQ(SysReadPlatMsgByRID("abc", bell_[0], buf_.get()), -1) << "type 0 would take any message";
    EXPECT_EQ(Take(comp::kQueueFromTranp), "other");
}

TEST_F(PlatMsgTest, CleanDrainsOnlyItsTypeFromQueues8And12) {
    const long lMine = getpid();
    Put(comp::kQueueFromTranp, lMine, "a1");
    Put(comp::kQueueFromTranp, lMine + 1, "keep8");
    Put(comp::kQueueFromTranp, lMine, "a2");
    Put(comp::kQueueDrain, lMine, "b1");
    Put(comp::kQueueDrain, lMine + 1, "keep12");

    EXPECT_EQ(SysCleanQueue(lMine), 3);
    EXPECT_EQ(Take(comp::kQueueFromTranp), "keep8");
    EXPECT_EQ(Take(comp::kQueueFromTranp), "");
    EXPECT_EQ(Take(comp::kQueueDrain), "keep12");
    EXPECT_TRUE(Contains(Logs(), ",SysCleanQueue]msgtype[" + std::to_string(lMine) + "],len=2!"));
    EXPECT_TRUE(Contains(Logs(), "[SysComPub,"));
    EXPECT_EQ(SysCleanQueue(0), -1);
}

}  // namespace
