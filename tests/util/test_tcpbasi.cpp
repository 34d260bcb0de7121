// Socket helpers over loopback TCP and socket pairs: listener backlog, peer
// addresses, and the retry rules of the whole-buffer send and receive.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>

#include "Platform.h"
#include "TableImage.h"
#include "UnitFixture.h"
#include "util/SysTcpBasi.h"

namespace {

class TcpBasiTest : public comptest::UnitTest {
protected:
    void TearDown() override {
        for (int fd : fds) close(fd);
        UnitTest::TearDown();
    }
    int Keep(int fd) {
        if (fd >= 0) fds.push_back(fd);
        return fd;
    }
    std::vector<int> fds;
};

TEST_F(TcpBasiTest, ListenerBacklogIsKernelBacklogOr96) {
    // Linux reports a listener's backlog in TCP_INFO.
    auto backlog = [](int fd) {
        tcp_info info{};
        socklen_t n = sizeof info;
        return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &n) == 0 ? static_cast<int>(info.tcpi_sacked) : -1;
    };
    int lsn = Keep(iSockBind("127.0.0.1", 0));
    EXPECT_EQ(backlog(lsn), 96) << "no variable table";

    comptest::TableImage image;
    image.appendVar("KERNEL_BACKLOG", "17");
    ASSERT_GE(g_iShmTblId = image.createShm(keys), 0);
    int lsn2 = Keep(iSockBind("127.0.0.1", 0));
    EXPECT_EQ(backlog(lsn2), 17);
    EXPECT_EQ(iSockBind("127.0.0.1", comptest::LocalPort(lsn2)), -1) << "port taken";
    EXPECT_EQ(iSockBind("999.1.1.1", 0), -1);
}

TEST_F(TcpBasiTest, SendAndReceiveRetryRules) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    Keep(sv[0]);
    Keep(sv[1]);
    EXPECT_EQ(iSockSend(sv[0], "", 0), -1) << "four empty sends";
    char caBuf[8] = {};
    EXPECT_EQ(iSockRecv(sv[1], caBuf, 0), 0);

    // A quiet non-blocking socket: the third would-block ends the call.
    ASSERT_EQ(iNoblockFd(sv[1]), 0);
    EXPECT_EQ(iSockRecv(sv[1], caBuf, 4), -1);
    EXPECT_EQ(errno, EAGAIN);

    // Half of what was asked, then the peer closes: the half count.
    ASSERT_EQ(iSockSend(sv[0], "half", 4), 0);
    shutdown(sv[0], SHUT_WR);
    EXPECT_EQ(iSockRecv(sv[1], caBuf, 8), 4);
    EXPECT_EQ(std::string(caBuf, 4), "half");
    EXPECT_EQ(iSockRecv(sv[1], caBuf, 8), 0);
    EXPECT_EQ(iNoblockFd(-1), -1);
    EXPECT_NE(Logs().find("iNoblockFd fcntl  error,errno=9"), std::string::npos);
}

}  // namespace
