// Socket helpers over loopback TCP and socket pairs: listener backlog, peer
// addresses, and the retry rules of the whole-buffer send and receive.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "TableImage.h"
#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "util/SysTcpBasi.h"

namespace {

class TcpBasiTest : public ::testing::Test {
protected:
    void SetUp() override {
        comptest::ResetGlobals();
        std::snprintf(g_stProcState.stLog.caErrLogName, sizeof g_stProcState.stLog.caErrLogName, "%s/log/err",
                      run.path().c_str());
        std::snprintf(g_stProcState.stLog.caTraceBase, sizeof g_stProcState.stLog.caTraceBase, "%s/log/trace",
                      run.path().c_str());
    }
    void TearDown() override {
        for (int fd : fds) close(fd);
        comptest::ResetGlobals();
    }
    int Keep(int fd) {
        if (fd >= 0) fds.push_back(fd);
        return fd;
    }
    std::string Logs() const {
        std::string all;
        for (const auto& e : std::filesystem::directory_iterator(run.file("log")))
            all += comptest::ReadFile(e.path().string());
        return all;
    }
    static int LocalPort(int fd) {
        sockaddr_in a{};
        socklen_t n = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n);
        return ntohs(a.sin_port);
    }

    comptest::TempRunDir run;
    comptest::IpcKeys keys;
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
    EXPECT_EQ(iSockBind("127.0.0.1", LocalPort(lsn2)), -1) << "port taken";
    EXPECT_EQ(iSockBind("999.1.1.1", 0), -1);
}

TEST_F(TcpBasiTest, AcceptedAndConnectedSocketsKnowTheirPeers) {
    int lsn = Keep(iSockBind("127.0.0.1", 0));
    ASSERT_GE(lsn, 0);
    const int port = LocalPort(lsn);
    int c1 = Keep(iSockConnect("127.0.0.1", port));
    ASSERT_GE(Keep(iSockAccept(lsn)), 0);
    EXPECT_NE(Logs().find("IP[127.0.0.1][" + std::to_string(LocalPort(c1)) + "]"), std::string::npos);

    int c2 = Keep(iSockConnect("127.0.0.1", port));
    char caIp[16];
    int iPort = 0;
    ASSERT_GE(Keep(iSockAcceptInfo(lsn, caIp, &iPort)), 0);
    EXPECT_STREQ(caIp, "127.0.0.1");
    EXPECT_EQ(iPort, LocalPort(c2));
    char caPeer[16] = {};
    EXPECT_EQ(iGetPeer(c2, caPeer, &iPort), 0);
    EXPECT_STREQ(caPeer, "127.0.0.1");
    EXPECT_EQ(iPort, port);
    EXPECT_EQ(iGetPeer(c2, nullptr, &iPort), -1);

    close(lsn);
    fds.erase(fds.begin());
    EXPECT_EQ(iSockConnect("127.0.0.1", port), -1);
    EXPECT_NE(Logs().find("iSockConnect connect() [127.0.0.1:" + std::to_string(port) + "] error"),
              std::string::npos);
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
