// IPv4 TCP socket helpers: listener, accept, peer address, blocking connect,
// whole-buffer send and receive, non-blocking switch. Failures go to the
// trace log at level 4 and are returned; the caller decides what follows.
#include "base/SysGlobals.h"
#include "util/SysTcpBasi.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "base/FdUtil.h"
#include "base/SysIpcSeam.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"

namespace {

// A receive gives up at the third would-block result of one call.
constexpr int kRecvErrorLimit = 3;
// Pause before a receive is retried after a would-block result.
constexpr int kRecvRetryPauseMs = 1;
// A send that moves nothing is tried this many times in all.
constexpr int kSendZeroLimit = 4;
constexpr int kIpTextLen = 16;   // dotted IPv4 text with its NUL
static_assert(kIpTextLen >= INET_ADDRSTRLEN);

// Peer address of the last iSockAccept, kept until the next one.
sockaddr_in g_stAcceptPeer{};
const comp::ResetRegistration g_stAcceptPeerReset([] { g_stAcceptPeer = sockaddr_in{}; });

// Fills an IPv4 address; false (errno EINVAL) when the text is not one.
bool MakeAddr(const char* pcIp, int iPort, sockaddr_in* pstAddr) {
    *pstAddr = sockaddr_in{};
    pstAddr->sin_family = AF_INET;
    pstAddr->sin_port = htons(static_cast<uint16_t>(iPort));
    if (pcIp == nullptr || inet_pton(AF_INET, pcIp, &pstAddr->sin_addr) != 1) {
        errno = EINVAL;
        return false;
    }
    return true;
}

// Dotted text of an address into a 16-byte buffer.
// The dotted text of an IPv4 address, as inet_ntop writes it, the rest of
// the field cleared. Written out here because inet_ntop formats through
// sprintf, which costs more than the rest of an accept's own work.
void AddrText(const sockaddr_in& stAddr, char (&caIp)[kIpTextLen]) {
    std::memset(caIp, 0, sizeof caIp);
    const auto* pucOctet = reinterpret_cast<const unsigned char*>(&stAddr.sin_addr.s_addr);
    char* pcOut = caIp;
    for (int i = 0; i < 4; ++i) {
        unsigned uValue = pucOctet[i];
        if (i > 0) *pcOut++ = '.';
        if (uValue >= 100) *pcOut++ = static_cast<char>('0' + uValue / 100);
        if (uValue >= 10) *pcOut++ = static_cast<char>('0' + uValue / 10 % 10);
        *pcOut++ = static_cast<char>('0' + uValue % 10);
    }
}

}  // namespace

int iSockListen(const char* pcIp, int iPort, int iBacklog) {
    comp::UniqueFd sock(socket(AF_INET, SOCK_STREAM, 0));
    if (sock.get() < 0) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]socket() error", SRC_NAME, __LINE__);
        return -1;
    }
    sockaddr_in stAddr;
    if (!MakeAddr(pcIp, iPort, &stAddr)) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]socket() error,%s", SRC_NAME, __LINE__, std::strerror(errno));
        return -1;
    }
    // The option value is two ints of 1, passed with its full 8-byte length.
    int iaOn[2] = {1, 1};
    static_assert(sizeof iaOn == 8);
    setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, iaOn, sizeof iaOn);
    if (bind(sock.get(), reinterpret_cast<sockaddr*>(&stAddr), sizeof stAddr) != 0) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]bind() [%s:%d]error", SRC_NAME, __LINE__, pcIp, iPort);
        return -1;
    }
    if (listen(sock.get(), iBacklog) != 0) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]listen() error", SRC_NAME, __LINE__);
        return -1;
    }
    return sock.release();
}

int SockAcceptInfoFlags(int iListenFd, char* pcIp, int* piPort, int iFlags) {
    sockaddr_in stPeer{};
    socklen_t iLen = sizeof stPeer;
    int iFd = comp::seam::IpcCallFails(comp::seam::kAccept)
                  ? -1
                  : accept4(iListenFd, reinterpret_cast<sockaddr*>(&stPeer), &iLen, iFlags);
    if (iFd < 0) return -1;
    char caIp[kIpTextLen];
    AddrText(stPeer, caIp);
    if (pcIp != nullptr) std::memcpy(pcIp, caIp, sizeof caIp);
    if (piPort != nullptr) *piPort = ntohs(stPeer.sin_port);
    return iFd;
}

extern "C" {

int iSockAccept(int iListenFd) {
    socklen_t iLen = sizeof g_stAcceptPeer;
    int iFd = comp::seam::IpcCallFails(comp::seam::kAccept)
                  ? -1
                  : accept(iListenFd, reinterpret_cast<sockaddr*>(&g_stAcceptPeer), &iLen);
    if (iFd < 0) {
        int iErr = errno;
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d][%s]", "iSockAccept", iErr, std::strerror(iErr));
        errno = iErr;
        return -1;
    }
    char caIp[kIpTextLen];
    AddrText(g_stAcceptPeer, caIp);
    writelog(LOG_INFO, nullptr, 0, "[%s,%d]IP[%s][%d]", SRC_NAME, __LINE__, caIp, ntohs(g_stAcceptPeer.sin_port));
    return iFd;
}

int iSockAcceptInfo(int iListenFd, char* pcIp, int* piPort) { return SockAcceptInfoFlags(iListenFd, pcIp, piPort, 0); }

int iGetPeer(int iSock, char* pcIp, int* piPort) {
    if (pcIp == nullptr) return -1;
    sockaddr_in stPeer{};
    socklen_t iLen = sizeof stPeer;
    if (getpeername(iSock, reinterpret_cast<sockaddr*>(&stPeer), &iLen) != 0) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]getpeername() error", SRC_NAME, __LINE__);
        return -1;
    }
    char caIp[kIpTextLen];
    AddrText(stPeer, caIp);
    std::memcpy(pcIp, caIp, std::strlen(caIp) + 1);
    if (piPort != nullptr) *piPort = ntohs(stPeer.sin_port);
    return 0;
}

int iSockConnect(const char* pcIp, int iPort) {
    comp::UniqueFd sock(socket(AF_INET, SOCK_STREAM, 0));
    if (sock.get() < 0) {
        int iErr = errno;
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]%s socket() error,errno=%d, errmsg[%s]", SRC_NAME, __LINE__,
                 "iSockConnect", iErr, std::strerror(iErr));
        errno = iErr;
        return -1;
    }
    sockaddr_in stAddr;
    if (!MakeAddr(pcIp, iPort, &stAddr)) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]socket() error,%s", SRC_NAME, __LINE__, std::strerror(errno));
        errno = EINVAL;
        return -1;
    }
    if (connect(sock.get(), reinterpret_cast<sockaddr*>(&stAddr), sizeof stAddr) != 0) {
        int iErr = errno;
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]%s connect() [%s:%d] error,errno=%d, errmsg[%s]", SRC_NAME, __LINE__,
                 "iSockConnect", pcIp, iPort, iErr, std::strerror(iErr));
        errno = iErr;
        return -1;
    }
    return sock.release();
}

int iSockSend(int iSock, const void* pvData, int iLen) {
    const char* pcData = static_cast<const char*>(pvData);
    int iSent = 0;
    int iZeroSends = 0;
    // The first send goes out before the length is compared: a request of
    // zero bytes ends with -1 after the fourth empty send.
    for (;;) {
        size_t iRest = iLen > iSent ? static_cast<size_t>(iLen - iSent) : 0;
        ssize_t n = comp::seam::IpcCallFails(comp::seam::kSend) ? -1 : send(iSock, pcData + iSent, iRest, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return -1;
        }
        if (n == 0) {
            if (++iZeroSends >= kSendZeroLimit) return -1;
            continue;
        }
        iSent += static_cast<int>(n);
        if (iSent >= iLen) return 0;
    }
}

int iSockRecv(int iSock, void* pvBuf, int iLen) {
    char* pcBuf = static_cast<char*>(pvBuf);
    int iGot = 0;
    int iErrors = 0;
    while (iGot < iLen) {
        ssize_t n = comp::seam::IpcCallFails(comp::seam::kRecv)
                        ? -1
                        : recv(iSock, pcBuf + iGot, static_cast<size_t>(iLen - iGot), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
            if (++iErrors >= kRecvErrorLimit) return -1;
            // Wait up to 1 ms for more bytes; poll keeps descriptors of any
            // number usable.
            int iErr = errno;
            pollfd stPoll{iSock, POLLIN, 0};
            poll(&stPoll, 1, kRecvRetryPauseMs);
            errno = iErr;
            continue;
        }
        if (n == 0) return iGot;   // the peer closed
        iGot += static_cast<int>(n);
    }
    return iLen > 0 ? iLen : 0;
}

int iNoblockFd(int iFd) {
    // FIONBIO adds O_NONBLOCK to the file status flags in one call, as
    // F_GETFL followed by F_SETFL would in two (this runs for every accepted
    // connection).
    int iOn = 1;
    if (ioctl(iFd, FIONBIO, &iOn) != 0) {
        int iErr = errno;
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]%s fcntl  error,errno=%d, errmsg[%s]", SRC_NAME, __LINE__,
                 "iNoblockFd", iErr, std::strerror(iErr));
        errno = iErr;
        return -1;
    }
    return 0;
}

}  // extern "C"

namespace comp {

// The descriptor travels in the context pointer itself, so the source does
// not depend on the lifetime of a variable of the caller.
ByteSource SocketSource(int iSock) {
    return {[](void* pvCtx, void* pvBuf, int iLen) {
                return iSockRecv(static_cast<int>(reinterpret_cast<intptr_t>(pvCtx)), pvBuf, iLen);
            },
            reinterpret_cast<void*>(static_cast<intptr_t>(iSock))};
}

}  // namespace comp
