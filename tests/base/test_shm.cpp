// The segment attachment and the liveness check the table lookups and the
// registry run before every use of their cached attachment.
#include <sys/shm.h>

#include <cerrno>

#include "UnitFixture.h"
#include "base/SysShm.h"

namespace {

class Shm : public comptest::UnitTest {};

TEST_F(Shm, RemovedSegmentIsNoLongerLiveWhileStillAttached) {
    key_t key = 0;
    const int iId = keys.newShm(4096, &key);
    ASSERT_GE(iId, 0);
    std::size_t iSize = 0;
    EXPECT_TRUE(comp::ShmIsLive(iId, &iSize));
    EXPECT_EQ(iSize, 4096u);

    comp::ShmAttachment seg;
    ASSERT_TRUE(seg.attach(iId));
    static_cast<char*>(seg.get())[0] = 'x';
    ASSERT_EQ(shmctl(iId, IPC_RMID, nullptr), 0);
    EXPECT_FALSE(comp::ShmIsLive(iId)) << "removed, still attached";
    EXPECT_EQ(static_cast<char*>(seg.get())[0], 'x');
    EXPECT_EQ(shmget(key, 0, 0), -1) << "the key is free for a new segment";
    seg.reset();
    EXPECT_FALSE(comp::ShmIsLive(iId)) << "gone";
    EXPECT_FALSE(comp::ShmIsLive(-1));
}

TEST_F(Shm, AttachGoesThroughTheFaultSeam) {
    const int iId = keys.newShm(4096);
    comp::ShmAttachment seg;
    comp::seam::FailNthCall(comp::seam::kShmAt, 1, ENOMEM);
    EXPECT_FALSE(seg.attach(iId));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_FALSE(seg);
    EXPECT_TRUE(seg.attach(iId));
    EXPECT_FALSE(seg.attach(-1)) << "a failed attach drops the earlier one";
    EXPECT_FALSE(seg);
}

}  // namespace
