// Platform messages: the PlatMsg header in front of a network message, the
// queue writes to TranP and Commonp, the doorbell-then-queue reads, the
// notifications N001-N005 and the registry calls of the modes.
#pragma once

#include "base/SysTypes.h"

extern "C" {

// Texts of a notification; the three further texts travel in N001 only.
struct NoticeRecord {
    char caCode[4];     // "N001" .. "N005"
    char caIp[16];
    char caText1[16];
    char caText2[12];
    char caText3[15];
};
static_assert(sizeof(NoticeRecord) == 63);

int SysBuildPlatMsg(QueueMsg* pstBuf, int iLen, int iSock, const RouteRecord* pstRoute, const char* pcIp,
                    int iPort);
int SysWriteQueue(void* pvBuf, int iLen, int iQid);
int SysWriteQueueNoWait(void* pvBuf, int iLen, int iQid);
int SysReadPlatMsg(int iFifoFd, QueueMsg* pstBuf);
int SysReadPlatMsgByRID(const char* pcRouteId, int iFifoFd, QueueMsg* pstBuf);
int SysCleanQueue(long lMsgType);
int SysSendNMsg(int iRouteNo, int iSock, const NoticeRecord* pstNotice, int iPort);
int SysSendInnerMsg(const char* pcIp, int iRouteNo, const char* pcCode);
int SysRegConnection(const char* pcIp, int iPort, const RouteRecord* pstRoute, int iVirtualFd, int iSockFd);
int SysDelConnection(int iRouteId, const char* pcIp, int iPort, int iSockFd);
int SysFWDelConnection(const char* pcIp, int iPort, int iSockFd);

}  // extern "C"

namespace comp {

// Where a report line belongs: the source and routine names and the line
// that the "[%s:%s:%d]" and "[%s,%d]" slots show. Operators search the logs by
// routine name, so a read done on behalf of a routine names that routine.
struct LogSite {
    const char* pcSource;
    const char* pcRoutine;
    int iLine;
};

// SysReadPlatMsg and SysReadPlatMsgByRID for a mode's own routine: the same
// read, with the mode's routine in its report lines (TS's SysResponseWork,
// TC's SysTcptcRecvPlatMsg). Call with COMP_LOG_SITE.
int ReadPlatMsgAs(const LogSite& stSite, int iFifoFd, QueueMsg* pstBuf);
int ReadPlatMsgByRIDAs(const LogSite& stSite, const char* pcRouteId, int iFifoFd, QueueMsg* pstBuf);

}  // namespace comp

// The site of the line it stands on, in the routine it stands in.
#define COMP_LOG_SITE (::comp::LogSite{SRC_NAME, __func__, __LINE__})
