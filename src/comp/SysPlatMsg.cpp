// Platform messages: the 64-byte PlatMsg header put in front of a network
// message, the doorbell-then-queue reads of messages from TranP, the draining
// of stale messages, the notifications N001-N005 and the registry calls the
// modes make for their connections.
#include "comp/SysPlatMsg.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/SysGlobals.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "util/StrTools.h"

namespace {

namespace plat = comp::plat;

constexpr int kIpFieldLen = 16;
constexpr int kMaxBodyLen = comp::kQueueTextLen - plat::kHeaderLen;   // 65,472
static_assert(plat::kIp + kIpFieldLen == plat::kIp2);
static_assert(plat::kIp2 + kIpFieldLen == plat::kFlag);
static_assert(plat::kNoteIp + kIpFieldLen == plat::kNoteText1);
static_assert(sizeof(NoticeRecord::caText1) == 16 && sizeof(NoticeRecord::caText2) == 12 &&
              sizeof(NoticeRecord::caText3) == 15);
static_assert(plat::kNoteText1 + 16 == plat::kNoteText2 && plat::kNoteText2 + 12 == plat::kNoteText3);

template <typename T>
void Put(char* pcHdr, int iOff, T value) {
    std::memcpy(pcHdr + iOff, &value, sizeof value);
}

// Copies a text of at most 16 characters into a 16-byte field that was
// zeroed before; a text of 16 characters fills it without a NUL.
void PutIp(char* pcField, const char* pcIp) {
    if (pcIp == nullptr) return;
    std::memcpy(pcField, pcIp, strnlen(pcIp, kIpFieldLen));
}

// The route id of RouteRecord field 0 as a number.
int RouteNumber(const RouteRecord& stRoute) {
    char caId[comp::kRouteFieldLen + 1] = {};
    std::memcpy(caId, stRoute.caField[RT_ROUTEID], comp::kRouteFieldLen);
    int iId = 0;
    return comp::PlainDecimal(caId, &iId) ? iId : std::atoi(caId);
}

// Reads one message of the wanted type from queue 8 after consuming the
// doorbell; the text length or -1. The report lines name the site's routine.
int ReadAfterDoorbell(const comp::LogSite& stSite, int iFifoFd, QueueMsg* pstBuf, long lType) {
    if (pstBuf == nullptr) return -1;
    // Only the header area is cleared: a short message then shows a zero
    // header, as it would in a fully cleared buffer.
    pstBuf->lMsgType = 0;
    std::memset(pstBuf->caText, 0, plat::kHeaderLen);
    if (iReadFIFO(iFifoFd) != 0) {
        COMP_ERRLOG("[%s,%d]iReadFIFO error,fatal error[%d]", stSite.pcSource, stSite.iLine, errno);
        return -1;
    }
    const int iQid = g_stMsgQCntl[comp::kQueueFromTranp].iId;
    pstBuf->lMsgType = lType;
    int iLen = MsgReadNoWait(iQid, pstBuf);
    if (iLen < 0) {
        COMP_ERRLOG("[%s:%s:%d]Read queue [%d] error !", stSite.pcSource, stSite.pcRoutine, stSite.iLine, iQid);
        return -1;
    }
    if (iLen == 0) {
        COMP_ERRLOG("[%s:%s:%d]expect data but not found,fatal error!", stSite.pcSource, stSite.pcRoutine,
                    stSite.iLine);
        return -1;
    }
    // A NUL behind the text, for callers that print it.
    if (iLen < comp::kQueueTextLen) pstBuf->caText[iLen] = '\0';
    return iLen;
}

// The route id as the queue message type of route-addressed reads, or 0
// (reported) when it is not a positive number: a type of 0 or below would
// take other processes' messages.
long RouteMsgType(const comp::LogSite& stSite, const char* pcRouteId) {
    long lType = pcRouteId != nullptr ? std::atol(pcRouteId) : 0;
    if (lType <= 0)
        COMP_ERRLOG("[%s,%d]route id [%s] is not a positive number", stSite.pcSource, stSite.iLine,
                    pcRouteId != nullptr ? pcRouteId : "");
    return lType > 0 ? lType : 0;
}

// Drains one queue of messages of one type for SysCleanQueue; the number
// drained.
int DrainQueue(const comp::LogSite& stSite, int iQid, long lType) {
    QueueMsg stBuf;
    int iCount = 0;
    for (;;) {
        stBuf.lMsgType = lType;
        int iLen = MsgReadNoWait(iQid, &stBuf);
        if (iLen == 0) break;
        if (iLen < 0) {
            int iErr = -iLen;
            COMP_ERRLOG("[%s,%d,%s]msgtype[%d]Read queue error!errno[%d][%s]", stSite.pcSource, stSite.iLine,
                        stSite.pcRoutine, static_cast<int>(lType), iErr, std::strerror(iErr));
            break;
        }
        COMP_ERRLOG_DUMP(stBuf.caText, iLen, "[%s,%d,%s]msgtype[%d],len=%d!", stSite.pcSource, stSite.iLine,
                         stSite.pcRoutine, static_cast<int>(lType), iLen);
        ++iCount;
    }
    return iCount;
}

}  // namespace

extern "C" {

int SysBuildPlatMsg(QueueMsg* pstBuf, int iLen, int iSock, const RouteRecord* pstRoute, const char* pcIp,
                    int iPort) {
    if (pstBuf == nullptr || pstRoute == nullptr || iLen < 0 || iLen > kMaxBodyLen) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg parameter error,len=%d", SRC_NAME, __LINE__, iLen);
        return -1;
    }
    // Only the header and the message are queued, so moving the message
    // and writing the header gives the same queued text as clearing the
    // whole buffer first.
    char* pcText = pstBuf->caText;
    std::memmove(pcText + plat::kHeaderLen, pcText, static_cast<size_t>(iLen));
    std::memset(pcText, 0, plat::kHeaderLen);

    const int iTotal = iLen + plat::kHeaderLen;
    const pid_t iPid = comp::OwnPid();
    const uint16_t usRoute = static_cast<uint16_t>(RouteNumber(*pstRoute));
    Put(pcText, plat::kTotalLen, static_cast<uint16_t>(iTotal));
    Put(pcText, plat::kKind, static_cast<uint16_t>(plat::kKindNet));
    Put(pcText, plat::kPid, static_cast<int32_t>(iPid));
    Put(pcText, plat::kPid2, static_cast<int32_t>(iPid));
    Put(pcText, plat::kRoute, usRoute);
    Put(pcText, plat::kRoute2, usRoute);
    Put(pcText, plat::kSock, static_cast<int32_t>(iSock));
    Put(pcText, plat::kSock2, static_cast<int32_t>(iSock));
    Put(pcText, plat::kPort, static_cast<int32_t>(iPort));
    PutIp(pcText + plat::kIp, pcIp);
    PutIp(pcText + plat::kIp2, pcIp);
    pcText[plat::kFlag] = pstRoute->caField[RT_ROUTEMSGFLAG][0];
    return iTotal;
}

int SysReadPlatMsg(int iFifoFd, QueueMsg* pstBuf) {
    return ReadAfterDoorbell(COMP_LOG_SITE, iFifoFd, pstBuf, comp::OwnPid());
}

int SysReadPlatMsgByRID(const char* pcRouteId, int iFifoFd, QueueMsg* pstBuf) {
    return comp::ReadPlatMsgByRIDAs(COMP_LOG_SITE, pcRouteId, iFifoFd, pstBuf);
}

int SysCleanQueue(long lMsgType) {
    // Type 0 (or below) would drain every process's messages.
    if (lMsgType <= 0) {
        COMP_ERRLOG("[%s,%d,%s]msgtype[%ld] refused", SRC_NAME, __LINE__, __func__, lMsgType);
        return -1;
    }
    int iCount = DrainQueue(COMP_LOG_SITE, g_stMsgQCntl[comp::kQueueFromTranp].iId, lMsgType);
    iCount += DrainQueue(COMP_LOG_SITE, g_stMsgQCntl[comp::kQueueDrain].iId, lMsgType);
    return iCount;
}

int SysSendNMsg(int iRouteNo, int iSock, const NoticeRecord* pstNotice, int iPort) {
    if (pstNotice == nullptr) return -1;
    QueueMsg stBuf;
    char* pcText = stBuf.caText;
    std::memset(pcText, 0, comp::kNoticeLen);

    // Header: only the first copy of each field; the second copies stay 0.
    Put(pcText, plat::kTotalLen, static_cast<uint16_t>(comp::kNoticeLen));
    Put(pcText, plat::kKind, static_cast<uint16_t>(plat::kKindNotice));
    Put(pcText, plat::kPid, static_cast<int32_t>(comp::OwnPid()));
    Put(pcText, plat::kRoute, static_cast<uint16_t>(iRouteNo));
    if (iSock != 0) Put(pcText, plat::kSock, static_cast<int32_t>(iSock));
    Put(pcText, plat::kPort, static_cast<int32_t>(iPort));
    std::memcpy(pcText + plat::kIp, pstNotice->caIp, kIpFieldLen);
    pcText[plat::kFlag] = 'I';

    char* pcBody = pcText + plat::kHeaderLen;
    std::memcpy(pcBody + plat::kNoteCode, pstNotice->caCode, sizeof pstNotice->caCode);
    std::memcpy(pcBody + plat::kNoteIp, pstNotice->caIp, kIpFieldLen);
    if (std::memcmp(pstNotice->caCode, "N001", 4) == 0) {
        std::memcpy(pcBody + plat::kNoteText1, pstNotice->caText1, sizeof pstNotice->caText1);
        std::memcpy(pcBody + plat::kNoteText2, pstNotice->caText2, sizeof pstNotice->caText2);
        std::memcpy(pcBody + plat::kNoteText3, pstNotice->caText3, sizeof pstNotice->caText3);
    }

    stBuf.lMsgType = comp::OwnPid();
    if (SysWriteQueueNoWait(&stBuf, comp::kNoticeLen, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        int iErr = errno;
        COMP_ERRLOG("[%s,%d]SysWriteQueueNoWait error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, iErr,
                    std::strerror(iErr));
        return -1;
    }
    char caCode[sizeof pstNotice->caCode + 1] = {};
    std::memcpy(caCode, pstNotice->caCode, sizeof pstNotice->caCode);
    writelog(LOG_INFO, stBuf.caText, comp::kNoticeLen, "write [%s] to tranp", caCode);
    return 0;
}

int SysSendInnerMsg(const char* pcIp, int iRouteNo, const char* pcCode) {
    NoticeRecord stNotice{};
    if (pcCode != nullptr) std::memcpy(stNotice.caCode, pcCode, strnlen(pcCode, sizeof stNotice.caCode));
    if (pcIp != nullptr) std::memcpy(stNotice.caIp, pcIp, strnlen(pcIp, sizeof stNotice.caIp));
    constexpr std::string_view kNoAddr = "0.0.0.0";
    std::memcpy(stNotice.caText1, kNoAddr.data(), kNoAddr.size());
    std::memcpy(stNotice.caText2, kNoAddr.data(), kNoAddr.size());
    std::memcpy(stNotice.caText3, kNoAddr.data(), kNoAddr.size());
    return SysSendNMsg(iRouteNo, 0, &stNotice, 0);
}

int SysRegConnection(const char* pcIp, int iPort, const RouteRecord* pstRoute, int iVirtualFd, int iSockFd) {
    if (pstRoute == nullptr) return -1;
    char caRouteId[comp::kRouteFieldLen + 1] = {};
    std::memcpy(caRouteId, pstRoute->caField[RT_ROUTEID], comp::kRouteFieldLen);
    if (SysSaveInfo(caRouteId, pcIp != nullptr ? pcIp : "", iPort, iVirtualFd, iSockFd) < 0) {
        writelog(LOG_ERROR, nullptr, 0, "SysSaveInfo error\n");
        return -1;
    }
    return 0;
}

int SysDelConnection(int iRouteId, const char* pcIp, int iPort, int iSockFd) {
    int iRet = DeleteOne(iRouteId, pcIp != nullptr ? pcIp : "", iPort, iSockFd);
    if (iRet == -1) {
        writelog(LOG_ERROR, nullptr, 0, "DeleteOne error\n");
        return -1;
    }
    if (iRet == 1) {
        writelog(LOG_WARN, nullptr, 0, "DeleteOne ,key not found");
        return 1;
    }
    return 0;
}

int SysFWDelConnection(const char* pcIp, int iPort, int iSockFd) {
    int iRet = DeleteFWOne(comp::OwnPid(), pcIp != nullptr ? pcIp : "", iPort, iSockFd);
    if (iRet == -1) {
        writelog(LOG_ERROR, nullptr, 0, "DeleteOne error\n");
        return -1;
    }
    return iRet;
}

}  // extern "C"

namespace comp {

int ReadPlatMsgAs(const LogSite& stSite, int iFifoFd, QueueMsg* pstBuf) {
    return ReadAfterDoorbell(stSite, iFifoFd, pstBuf, OwnPid());
}

int ReadPlatMsgByRIDAs(const LogSite& stSite, const char* pcRouteId, int iFifoFd, QueueMsg* pstBuf) {
    if (pstBuf == nullptr) return -1;
    const long lType = RouteMsgType(stSite, pcRouteId);
    return lType > 0 ? ReadAfterDoorbell(stSite, iFifoFd, pstBuf, lType) : -1;
}

}  // namespace comp
