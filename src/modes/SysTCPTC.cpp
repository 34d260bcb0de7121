// Short-connection client mode (TC): every request TranP queues for the route
// goes to the configured server on a fresh connection; the server's single
// answer goes back to TranP and the connection is closed.
//
//   SysTCPTC              start-up, then the shared loop
//   TcReady               dispatch: control FIFO, route FIFO, server answer
//   TcControl             every command ends the process
//   TcRequest             TranP's request -> new connection -> server
//   TcAnswer              server's answer -> TranP's queue
//   TcClose               the one close routine of every path
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "comp/SysComPub.h"
#include "comp/SysGlobals.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/SysModeCommon.h"
#include "modes/SysModeLoop.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPTC";
constexpr int kPreHdlBufLen = 1024;

// One row of the socket table, indexed by the descriptor itself.
struct TcEntry {
    int32_t fd;            // -1: free
    int32_t fd2;           // -1 in this mode
    int32_t lastActive;    // seconds
    int32_t reqPid;        // requester's pid (PlatMsg header offset 8)
    int32_t reqSock;       // requester's socket (offset 20)
    int16_t routeId;       // route (offset 14)
};

struct TcState {
    char routeId[3];
    RouteRecord route;
    char serverIp[64];
    int serverPort = 0;
    int idleTimeout = 0;
    int ctlFd = -1;
    int routeFd = -1;
    std::vector<TcEntry> rows;
    comp::ModeLoop* loop = nullptr;
    QueueMsg buf;
};
TcState* g_tc = nullptr;

void FreeRow(TcEntry& r) { r = TcEntry{-1, -1, 0, 0, 0, 0}; }

void TcClose(int fd) {
    if (g_tc->rows[fd].fd < 0) return;
    close(fd);
    g_tc->loop->Remove(fd);
    FreeRow(g_tc->rows[fd]);
}

// ---- loop handlers, in the order the loop calls them ----------------------

void TcParentGone() {
    COMP_ERRLOG("[%s,%d]Parent exit.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
    SysComQuit();
}

bool TcKeep(int fd, time_t tNow) {
    TcEntry& r = g_tc->rows[fd];
    if (tNow - r.lastActive <= g_tc->idleTimeout) return true;
    TcClose(fd);
    COMP_ERRLOG("[%s,%d]Socket[%d][%d]time out and close ", SRC_NAME, __LINE__, fd, g_tc->idleTimeout);
    return false;
}

void TcWaitFailed(int iErr) {
    COMP_ERRLOG("[%s,%d]select error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, iErr, std::strerror(iErr));
    SysComQuit();
}

void TcControl();
void TcRequest();
void TcAnswer(int fd);

void TcReady(int fd) {
    if (fd <= 2) return;
    if (fd == g_tc->ctlFd)
        TcControl();
    else if (fd == g_tc->routeFd)
        TcRequest();
    else
        TcAnswer(fd);
}

// Every command ends a TC process, "0" included.
void TcControl() {
    comp::ReadControlCmd(g_tc->ctlFd, false, "[%s,%d]iReadFIFO2Buf error,fatal error[%d]");
    SysComQuit();
}

void TcRequest() {
    QueueMsg& buf = g_tc->buf;
    int len = SysTcptcRecvPlatMsg(g_tc->routeFd, g_tc->routeId, g_tc->route, &buf);
    if (len < 0) {
        COMP_ERRLOG("[%s,%d]SysTmpClientReq.%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        SysComQuit();
    }
    if (SysTraceEnabled(LOG_DEBUG))
        writelog(LOG_DEBUG, buf.caText, len, "[%s,%d]read queue,len=%d", SRC_NAME, __LINE__, len);
    if (len < comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d,%s]short request dropped,len=%d", SRC_NAME, __LINE__, kMode, len);
        return;
    }
    const char* hdr = buf.caText;
    const char* body = hdr + comp::kPlatHdrLen;
    int bodyLen = len - comp::kPlatHdrLen;

    int fd = iSockConnect(g_tc->serverIp, g_tc->serverPort);
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect error [%d]", SRC_NAME, __LINE__, kMode, errno);
        return;
    }
    if (fd >= g_tc->loop->TableSize()) {
        close(fd);
        COMP_ERRLOG("[%s,%d,%s]too many fd,%d is bigger than %d. check sys.cfg [LOADVARS] part", SRC_NAME, __LINE__,
                    kMode, fd, g_tc->loop->TableSize());
        return;
    }
    if (iNoblockFd(fd) != 0) {
        int err = errno;
        close(fd);
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return;
    }
    TcEntry& r = g_tc->rows[fd];
    r.fd = fd;
    r.lastActive = comp::Now32();
    r.reqPid = comp::HeaderInt(hdr, comp::plat::kPid2);
    r.reqSock = comp::HeaderInt(hdr, comp::plat::kSock2);
    std::memcpy(&r.routeId, hdr + comp::plat::kRoute2, sizeof r.routeId);
    g_tc->loop->AddConn(fd);

    char out[kPreHdlBufLen] = {0};
    const char* name = g_tc->route.caField[RT_OUTPREHDL];
    if (name[0] != '\0') {
        int outLen = 0;
        if (SysPreHdl(g_tc->routeId, name, body, bodyLen, out, &outLen, 0) < 0) {
            writelog(LOG_ERROR, nullptr, 0, "[%s,%d]SysPreHdl error", SRC_NAME, __LINE__);
        } else if (outLen > 0) {
            body = out;
            bodyLen = outLen > kPreHdlBufLen ? kPreHdlBufLen : outLen;
        }
    }
    if (iSockSend(fd, body, bodyLen) != 0) {
        int err = errno;
        TcClose(fd);
        COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, kMode, err);
        return;
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, body, bodyLen, "[%s,%d,%s]%d write net.len=%d", SRC_NAME, __LINE__, kMode, fd, bodyLen);
}

void TcAnswer(int fd) {
    QueueMsg& buf = g_tc->buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &g_tc->route, &buf, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        COMP_ERRLOG("[%s,%d]SysTcpRecvMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        TcClose(fd);
        return;
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, buf.caText, len, "[%s,%d]%s,read net ,len=%d ", SRC_NAME, __LINE__, kMode, len);
    TcClose(fd);   // one answer per connection

    int total = SysBuildPlatMsg(&buf, len, fd, &g_tc->route, g_tc->serverIp, g_tc->serverPort);
    if (total < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        SysComQuit();
    }
    buf.lMsgType = getpid();
    if (SysWriteQueue(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0)
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, buf.caText, total, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, total);
}

}  // namespace

extern "C" {

// Takes one request of the route from TranP's queue after its doorbell; the
// text length, or -1.
int SysTcptcRecvPlatMsg(int iFifoFd, const char* pcRouteId, RouteRecord stRoute, QueueMsg* pstBuf) {
    if (stRoute.caField[RT_MSGSNDTYPE][0] != '1') {
        COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE should be 1", SRC_NAME, __LINE__, __func__,
                    "PLAT_STATICROUTEINF");
        return -1;
    }
    return comp::ReadPlatMsgByRIDAs(COMP_LOG_SITE, pcRouteId, iFifoFd, pstBuf);
}

int SysTCPTC(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static TcState state;
    g_tc = &state;
    TcState& tc = state;
    std::snprintf(tc.routeId, sizeof tc.routeId, "%s", pcRouteId);
    tc.route = stRoute;

    int lenWidth = 0, lenOff = 0, headerLen = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &tc.idleTimeout, &headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    if (SysGetIpAndPort(stRoute.caField[RT_IPPORT], tc.serverIp, &tc.serverPort) != 0) {
        COMP_ERRLOG("[%s,%d]SysGetIpAndPort error", SRC_NAME, __LINE__);
        return -1;
    }
    int tableSize = comp::ModeMaxComNum();
    if (tableSize < 0) {
        COMP_ERRLOG("[%s,%d]SysGetenvByName error.Maybe MAX_COM_NUM lost.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__,
                    errno, std::strerror(errno));
        return -1;
    }
    tc.rows.assign(static_cast<size_t>(tableSize), TcEntry{});
    for (TcEntry& r : tc.rows) FreeRow(r);
    static const comp::LoopOps ops{TcParentGone, TcKeep, TcReady, nullptr, nullptr, TcWaitFailed};
    static std::optional<comp::ModeLoop> loop;
    loop.emplace(comp::LoopSpec{kMode, tableSize, 100}, ops);
    tc.loop = &*loop;

    char name[32];
    std::snprintf(name, sizeof name, "%s_%d", pcRouteId, iInstance);
    if (!comp::OpenModeFifos(*loop, iInstance, name, comp::kFifoRouteNotify, &tc.ctlFd, &tc.routeFd)) return -1;
    for (int fd : {tc.ctlFd, tc.routeFd}) {
        tc.rows[fd].fd = fd;
        tc.rows[fd].lastActive = comp::Now32();
    }
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop->Run();
}

}  // extern "C"
