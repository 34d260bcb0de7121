#include "modes/FwHeader.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "base/SysIpcSeam.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "util/SysTcpBasi.h"

namespace comp::fw {

// The FTP texts of an 'A' header become the three further texts of the N001
// that the server sends for the client.
static_assert(sizeof(NoticeRecord::caText1) == kFtpServerLen && sizeof(NoticeRecord::caText2) == kFtpUserLen &&
              sizeof(NoticeRecord::caText3) == kFtpPwdLen);
static_assert(sizeof(FtpFields) == kFtpServerLen + kFtpUserLen + kFtpPwdLen);

bool KnownKind(char cKind) {
    return cKind == kConnect || cKind == kData || cKind == kDisconnect || cKind == kBeat;
}

void PutText(char* pcField, int iWidth, const char* pcText) {
    std::memset(pcField, 0, static_cast<size_t>(iWidth));
    if (pcText != nullptr) std::memcpy(pcField, pcText, strnlen(pcText, static_cast<size_t>(iWidth)));
}

int Build(char cKind, const char* pcIp, int32_t iPort, const FtpFields* pstFtp, char* pcOut) {
    std::memset(pcOut, 0, kHeaderLen);
    pcOut[kKindOff] = cKind;
    PutText(pcOut + kIpOff, kIpLen, pcIp);
    std::memcpy(pcOut + kPortOff, &iPort, sizeof iPort);
    if (cKind == kConnect && pstFtp != nullptr) {
        std::memcpy(pcOut + kFtpServerOff, pstFtp->server, kFtpServerLen);
        std::memcpy(pcOut + kFtpUserOff, pstFtp->user, kFtpUserLen);
        std::memcpy(pcOut + kFtpPwdOff, pstFtp->pwd, kFtpPwdLen);
    }
    return kHeaderLen;
}

bool Parse(const char* pcIn, ExHeader* pstOut) {
    pstOut->kind = pcIn[kKindOff];
    std::memset(pstOut->ip, 0, sizeof pstOut->ip);
    std::memcpy(pstOut->ip, pcIn + kIpOff, kIpLen);
    std::memcpy(&pstOut->port, pcIn + kPortOff, sizeof pstOut->port);
    std::memcpy(pstOut->ftp.server, pcIn + kFtpServerOff, kFtpServerLen);
    std::memcpy(pstOut->ftp.user, pcIn + kFtpUserOff, kFtpUserLen);
    std::memcpy(pstOut->ftp.pwd, pcIn + kFtpPwdOff, kFtpPwdLen);
    return KnownKind(pstOut->kind);
}

bool CarriesMessage(char cKind, Reader eReader) {
    return eReader == Reader::kForwarder || cKind == kData || cKind == kBeat;
}

UnitStatus ReadUnit(int iFd, Reader eReader, const RouteRecord& stRoute, QueueMsg* pstBuf, Unit* pstOut) {
    return ReadUnit(SocketSource(iFd), iFd, eReader, stRoute, pstBuf, pstOut);
}

UnitStatus ReadUnit(const ByteSource& src, int iFd, Reader eReader, const RouteRecord& stRoute, QueueMsg* pstBuf,
                    Unit* pstOut) {
    pstOut->msgLen = 0;
    pstOut->err = 0;
    errno = 0;
    pstOut->headerGot = src.Read(pstOut->raw, kHeaderLen);
    if (pstOut->headerGot != kHeaderLen) {
        pstOut->err = errno;
        return UnitStatus::kHeaderShort;
    }
    const bool known = Parse(pstOut->raw, &pstOut->hdr);
    // A server cannot know where an unknown unit of a forwarder ends.
    if (!known && eReader == Reader::kServer) return UnitStatus::kUnknownKind;
    if (CarriesMessage(pstOut->hdr.kind, eReader)) {
        int iErr = 0;
        int iLen = RecvFramedMsg(src, iFd, &stRoute, pstBuf, &iErr);
        if (iLen < 0) {
            pstOut->err = iErr != 0 ? iErr : errno;
            return UnitStatus::kMessageFailed;
        }
        pstOut->msgLen = iLen;
    }
    return known ? UnitStatus::kOk : UnitStatus::kUnknownKind;
}

void NoDelay(int iFd) {
    int on = 1;
    setsockopt(iFd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

int SendUnit(int iFd, const char* pcHeader, const char* pcBody, int iLen, int iWaitMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(iWaitMs);
    iovec iov[2] = {{const_cast<char*>(pcHeader), kHeaderLen},
                    {const_cast<char*>(pcBody), iLen > 0 ? static_cast<size_t>(iLen) : 0}};
    int iCount = iLen > 0 ? 2 : 1;
    iovec* pIov = iov;
    for (;;) {
        msghdr msg{};
        msg.msg_iov = pIov;
        msg.msg_iovlen = static_cast<size_t>(iCount);
        ssize_t n = seam::IpcCallFails(seam::kSend) ? -1 : sendmsg(iFd, &msg, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
            // Whole milliseconds, rounded up: the wait never ends early.
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0) {
                errno = EAGAIN;
                return -1;
            }
            pollfd p{iFd, POLLOUT, 0};
            if (poll(&p, 1, static_cast<int>(left)) < 0 && errno != EINTR) return -1;
            continue;
        }
        // Skip what went out; done when nothing is left.
        size_t sent = static_cast<size_t>(n);
        while (iCount > 0 && sent >= pIov->iov_len) {
            sent -= pIov->iov_len;
            ++pIov;
            --iCount;
        }
        if (iCount == 0) return 0;
        pIov->iov_base = static_cast<char*>(pIov->iov_base) + sent;
        pIov->iov_len -= sent;
    }
}

}  // namespace comp::fw
