// Socket helpers over loopback TCP and socket pairs: listener backlog, and
// the retry rules of the whole-buffer send and receive.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>

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

TEST_F(TcpBasiTest, ListenerTakesTheGivenBacklog) {
    int lsn = Keep(iSockListen("127.0.0.1", 0, 17));
    EXPECT_EQ(comptest::ListenerBacklog(lsn), 17);
    EXPECT_EQ(iSockListen("127.0.0.1", comptest::LocalPort(lsn), 17), -1) << "port taken";
    EXPECT_EQ(iSockListen("999.1.1.1", 0, 17), -1);
    EXPECT_TRUE(Logged("bind() [127.0.0.1:" + std::to_string(comptest::LocalPort(lsn)) + "]error"));
}

TEST_F(TcpBasiTest, AcceptGivesPeerAndTheAskedFlags) {
    int lsn = Keep(iSockListen("127.0.0.1", 0, 4));
    ASSERT_GE(lsn, 0);
    auto connectOne = [&] {
        int fd = Keep(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(comptest::LocalPort(lsn)));
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        return comptest::LocalPort(fd);
    };
    char caIp[17] = {};
    int iPort = 0;
    int port = connectOne();
    int plain = Keep(iSockAcceptInfo(lsn, caIp, &iPort));
    ASSERT_GE(plain, 0);
    EXPECT_STREQ(caIp, "127.0.0.1");
    EXPECT_EQ(iPort, port);
    EXPECT_EQ(fcntl(plain, F_GETFL) & O_NONBLOCK, 0);

    port = connectOne();
    int nb = Keep(SockAcceptInfoFlags(lsn, caIp, &iPort, SOCK_NONBLOCK));
    ASSERT_GE(nb, 0);
    EXPECT_EQ(iPort, port);
    EXPECT_NE(fcntl(nb, F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(nb, F_GETFD) & FD_CLOEXEC, 0) << "inherited like a plain accept's";

    // The peer text as inet_ntop gives it, for octets of one to three digits.
    for (const char* from : {"127.0.10.200", "127.255.0.9", "127.100.99.1"}) {
        int fd = Keep(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in sa{};
        sa.sin_family = AF_INET;
        ASSERT_EQ(inet_pton(AF_INET, from, &sa.sin_addr), 1);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0) << from;
        sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        sa.sin_port = htons(static_cast<uint16_t>(comptest::LocalPort(lsn)));
        ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
        std::memset(caIp, 'x', sizeof caIp);
        ASSERT_GE(Keep(SockAcceptInfoFlags(lsn, caIp, &iPort, 0)), 0);
        EXPECT_EQ(std::string(caIp, 16), std::string(from) + std::string(16 - std::strlen(from), '\0'));
    }

    ASSERT_EQ(iNoblockFd(lsn), 0);
    EXPECT_EQ(SockAcceptInfoFlags(lsn, caIp, &iPort, SOCK_NONBLOCK), -1) << "nobody waits";
    EXPECT_EQ(errno, EAGAIN);
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
