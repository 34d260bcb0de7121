// The modes' listener: its backlog comes from the loaded variables.
#include <unistd.h>

#include "TableImage.h"
#include "UnitFixture.h"
#include "config/SockBind.h"

namespace {

class SockBind : public comptest::UnitTest {};

TEST_F(SockBind, BacklogIsKernelBacklogOr96) {
    int lsn = iSockBind("127.0.0.1", 0);
    ASSERT_GE(lsn, 0);
    EXPECT_EQ(comptest::ListenerBacklog(lsn), 96) << "no variable table";
    close(lsn);

    comptest::TableImage image;
    image.appendVar("KERNEL_BACKLOG", "17");
    ASSERT_GE(g_iShmTblId = image.createShm(keys), 0);
    lsn = iSockBind("127.0.0.1", 0);
    ASSERT_GE(lsn, 0);
    EXPECT_EQ(comptest::ListenerBacklog(lsn), 17);
    EXPECT_EQ(iSockBind("127.0.0.1", comptest::LocalPort(lsn)), -1) << "port taken";
    close(lsn);
}

}  // namespace
