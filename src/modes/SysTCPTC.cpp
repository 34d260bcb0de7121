// Short-connection client mode (TC): every request TranP queues for the route
// goes to the configured server on a fresh connection; the server's single
// answer goes back to TranP and the connection is closed.
//
//   SysTCPTC              start-up: route, table, FIFOs, the loop
//   TcIdle                a connection silent past the idle time-out is closed
//   TcControl             every command ends the process
//   TcRequest             TranP's request -> new connection -> server
//   TcAnswer              server's answer -> TranP's queue
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPTC";
constexpr int kPreHdlBufLen = 1024;
constexpr int64_t kWaitUsec = 100;

// One row of the socket table, indexed by the descriptor itself.
struct TcEntry {
    int32_t fd;            // -1: free
    int32_t fd2;           // -1 in this mode
    int32_t lastActive;    // seconds
    int32_t reqPid;        // requester's pid (PlatMsg header offset 8)
    int32_t reqSock;       // requester's socket (offset 20)
    int16_t routeId;       // route (offset 14)
    int32_t port;          // unused here: the server is the route's
    char peerIp[16];
    static void Free(TcEntry& r) { r = TcEntry{-1, -1, 0, 0, 0, 0, -1, {}}; }
};

struct Tc {
    char routeId[3] = {0};
    RouteRecord route{};
    char serverIp[64] = {0};
    int serverPort = 0;
    int idleTimeout = 0;
    comp::ModeFifos fifos;
    comp::SockTable<TcEntry> rows;
    std::optional<comp::Loop> loop;
    QueueMsg buf;
};

bool TcIdle(Tc& tc, int fd, int64_t now);
void TcControl(Tc& tc, int fd, unsigned ev);
void TcRequest(Tc& tc, int fd, unsigned ev);
void TcAnswer(Tc& tc, int fd, unsigned ev);

}  // namespace

extern "C" {

int SysTCPTC(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static Tc tc;
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
    int tableSize = comp::ModeTableSize(SRC_NAME, __LINE__,
                                        "[%s,%d]SysGetenvByName error.Maybe MAX_COM_NUM lost.errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    tc.rows.Reset(tableSize);

    comp::Loop::Hooks hooks;
    hooks.ctx = &tc;
    hooks.idle = comp::Fn<TcIdle>;
    // One exchange per connection: ppoll in both wait styles (see ModeLoopSetup).
    tc.loop.emplace(
        comp::ModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec, comp::Backend::kPoll, comp::Backend::kPoll), hooks);
    comp::Loop& loop = *tc.loop;
    loop.SetRows(&tc.rows);

    char name[32];
    std::snprintf(name, sizeof name, "%s_%d", pcRouteId, iInstance);
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoRouteNotify, &tc.fifos) ||
        !loop.Watch(tc.fifos.ctl, comp::Role::kFixed, comp::Fn<TcControl>, &tc) ||
        !loop.Watch(tc.fifos.notify, comp::Role::kFixed, comp::Fn<TcRequest>, &tc))
        return -1;
    for (int fd : {tc.fifos.ctl, tc.fifos.notify}) tc.rows.Open(fd).lastActive = loop.NowSec();
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop.Run();
}

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

}  // extern "C"

namespace {

// ---- handlers, in the order the loop calls them -----------------------------

bool TcIdle(Tc& tc, int fd, int64_t now) {
    if (now / comp::kUsecPerSec - tc.rows[fd].lastActive <= tc.idleTimeout) return true;
    tc.loop->Close(fd);
    COMP_ERRLOG("[%s,%d]Socket[%d][%d]time out and close ", SRC_NAME, __LINE__, fd, tc.idleTimeout);
    return false;
}

// Every command ends a TC process, "0" included.
void TcControl(Tc& tc, int fd, unsigned) {
    comp::ReadControlCmd(SRC_NAME, fd, false, "[%s,%d]iReadFIFO2Buf error,fatal error[%d]");
    tc.loop->Quit();
}

void TcRequest(Tc& tc, int, unsigned) {
    QueueMsg& buf = tc.buf;
    int len = SysTcptcRecvPlatMsg(tc.fifos.notify, tc.routeId, tc.route, &buf);
    if (len < 0) {
        COMP_ERRLOG("[%s,%d]SysTmpClientReq.%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        tc.loop->Quit();
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

    comp::UniqueFd conn(iSockConnect(tc.serverIp, tc.serverPort));
    if (!conn.valid()) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect error [%d]", SRC_NAME, __LINE__, kMode, errno);
        return;
    }
    if (conn.get() >= tc.loop->TableSize()) {
        COMP_ERRLOG("[%s,%d,%s]too many fd,%d is bigger than %d. check sys.cfg [LOADVARS] part", SRC_NAME, __LINE__,
                    kMode, conn.get(), tc.loop->TableSize());
        return;
    }
    if (iNoblockFd(conn.get()) != 0) {
        int err = errno;
        conn.reset();
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return;
    }
    if (!tc.loop->Watch(conn.get(), comp::Role::kConn, comp::Fn<TcAnswer>, &tc)) return;
    const int fd = conn.release();
    TcEntry& r = tc.rows.Open(fd);
    r.lastActive = tc.loop->NowSec();
    r.reqPid = comp::HeaderInt(hdr, comp::plat::kPid2);
    r.reqSock = comp::HeaderInt(hdr, comp::plat::kSock2);
    std::memcpy(&r.routeId, hdr + comp::plat::kRoute2, sizeof r.routeId);

    char out[kPreHdlBufLen] = {0};
    const char* name = tc.route.caField[RT_OUTPREHDL];
    if (name[0] != '\0') {
        int outLen = 0;
        if (SysPreHdl(tc.routeId, name, body, bodyLen, out, &outLen, 0) < 0) {
            writelog(LOG_ERROR, nullptr, 0, "[%s,%d]SysPreHdl error", SRC_NAME, __LINE__);
        } else if (outLen > 0) {
            body = out;
            bodyLen = outLen > kPreHdlBufLen ? kPreHdlBufLen : outLen;
        }
    }
    if (iSockSend(fd, body, bodyLen) != 0) {
        int err = errno;
        tc.loop->Close(fd);
        COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, kMode, err);
        return;
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, body, bodyLen, "[%s,%d,%s]%d write net.len=%d", SRC_NAME, __LINE__, kMode, fd, bodyLen);
}

void TcAnswer(Tc& tc, int fd, unsigned) {
    QueueMsg& buf = tc.buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &tc.route, &buf, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        COMP_ERRLOG("[%s,%d]SysTcpRecvMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        tc.loop->Close(fd);
        return;
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, buf.caText, len, "[%s,%d]%s,read net ,len=%d ", SRC_NAME, __LINE__, kMode, len);
    tc.loop->Close(fd);   // one answer per connection

    // An answer longer than a platform message can carry is the server's
    // fault: it is dropped and the process serves on.
    if (len > comp::kQueueTextLen - comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d]answer of %d bytes exceeds the %d a platform message carries,dropped", SRC_NAME,
                    __LINE__, len, comp::kQueueTextLen - comp::kPlatHdrLen);
        return;
    }
    int total = SysBuildPlatMsg(&buf, len, fd, &tc.route, tc.serverIp, tc.serverPort);
    if (total < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        tc.loop->Quit();
    }
    buf.lMsgType = getpid();
    if (SysWriteQueue(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0)
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, buf.caText, total, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, total);
}

}  // namespace
