// Short-connection server mode (TS): clients connect, send one request each,
// get the answer TranP returns for it, and are disconnected.
//
//   SysTCPTS          start-up, then the shared loop
//   TsReady           dispatch: control FIFO, listener, notification FIFO, client
//   TsControl         quit command
//   TsAccept          new client: registered, connection log opened
//   TsRequest         one framed request -> PlatMsg -> TranP's queue
//   SysResponseWork   TranP's answer -> the client that asked -> close
//   TsClose           the one close routine of every path
#include <netinet/in.h>
#include <sys/socket.h>
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
#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/SysModeCommon.h"
#include "modes/SysModeLoop.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPTS";
constexpr int kPreHdlBufLen = 1024;

// One row of the socket table, indexed by the descriptor itself.
struct SockEntry {
    int32_t fd;            // -1: free
    int32_t port;          // peer port (listener: configured port)
    int32_t count;         // answers sent, handed to the output pre-handling
    int32_t aux;           // -1 in this mode
    int32_t lastActive;    // seconds; the idle test measures from it
    char peerIp[16];
    char logPath[128];
};

struct TsState {
    char routeId[3];
    RouteRecord route;
    char routeName[65];
    int headerLen = 0;
    int idleTimeout = 0;
    int listenFd = -1;
    int ctlFd = -1;
    int notifyFd = -1;
    long pid = 0;                  // queue message type of every request
    std::vector<SockEntry> rows;   // pstSockList
    comp::ModeLoop* loop = nullptr;
    QueueMsg buf;                  // one request or answer at a time
};
TsState* g_ts = nullptr;

void FreeRow(SockEntry& r) {
    r.fd = -1;
    r.port = -1;
    r.aux = -1;
    r.lastActive = 0;
    std::memset(r.peerIp, 0, sizeof r.peerIp);
    std::memset(r.logPath, 0, sizeof r.logPath);
}

// Frees the table, drops this process's queued messages and its notification
// FIFO, and leaves through the frame.
[[noreturn]] void TsQuit() {
    g_ts->rows.clear();
    g_ts->rows.shrink_to_fit();
    SysCleanQueue(getpid());
    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    SysCleanIpcFileById(name, comp::kFifoPidNotify);
    SysComQuit();
}

// The one close routine: registry, connection log, socket, row.
void TsClose(int fd) {
    SockEntry& r = g_ts->rows[fd];
    if (r.fd < 0) return;
    if (SysDelConnection(std::atoi(g_ts->routeId), r.peerIp, r.port, 1) < 0)
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d] [%s]SysDelConnection error", SRC_NAME, __LINE__,
                   r.peerIp);
    SysConnLog(r.fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d] [%s]回应答成功", SRC_NAME, __LINE__, r.peerIp);
    close(fd);
    g_ts->loop->Remove(fd);
    FreeRow(r);
}

bool IsConnection(int fd) { return fd != g_ts->listenFd && fd != g_ts->ctlFd && fd != g_ts->notifyFd; }

// ---- loop handlers, in the order the loop calls them ----------------------

void TsParentGone() {
    COMP_ERRLOG("[%s,%d]Parent exit.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
    TsQuit();
}

bool TsKeep(int fd, time_t tNow) {
    SockEntry& r = g_ts->rows[fd];
    if (tNow - r.lastActive <= g_ts->idleTimeout) return true;
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d]%s time out and close ", SRC_NAME, __LINE__, r.peerIp);
    TsClose(fd);
    return false;
}

void TsWaitFailed(int iErr) {
    COMP_ERRLOG("[%s,%d]select error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, iErr, std::strerror(iErr));
    TsQuit();
}

void TsControl();
void TsAccept();
void TsRequest(int fd);

void TsReady(int fd) {
    if (fd <= 2) return;
    if (fd == g_ts->ctlFd) {
        TsControl();
    } else if (fd == g_ts->listenFd) {
        TsAccept();
    } else if (fd == g_ts->notifyFd) {
        int rc = SysResponseWork(g_ts->notifyFd, g_ts->routeId, g_ts->route);
        if (rc == -1) {
            COMP_ERRLOG("[%s,%d]SysResponseWork,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                        std::strerror(errno));
            TsQuit();
        }
        if (rc == -2) COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, kMode, errno);
    } else {
        TsRequest(fd);
    }
}

void TsControl() {
    comp::ReadControlCmd(g_ts->ctlFd, false);
    TsQuit();
}

void TsAccept() {
    char ip[17] = {0};
    int port = 0;
    int fd = iSockAcceptInfo(g_ts->listenFd, ip, &port);
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d]iSockAccept error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return;
    }
    if (fd >= g_ts->loop->TableSize()) {
        close(fd);
        COMP_ERRLOG("[%s,%d]Too many communication node.", SRC_NAME, __LINE__);
        return;
    }
    // Not readable before a whole header can be read.
    int lowat = g_ts->headerLen > 0 ? g_ts->headerLen : 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
    if (iNoblockFd(fd) != 0 || SysRegConnection(ip, port, &g_ts->route, fd, 1) < 0) {
        int err = errno;
        close(fd);
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return;
    }
    SockEntry& r = g_ts->rows[fd];
    r.fd = fd;
    r.port = port;
    r.count = 0;
    r.lastActive = comp::Now32();
    std::memcpy(r.peerIp, ip, sizeof r.peerIp);
    const char* home = getenv("HOME");
    std::snprintf(r.logPath, sizeof r.logPath, "%s/runs/log/com_%s_%.16s.log", home ? home : "", g_ts->routeName,
                  r.peerIp);
    g_ts->loop->AddConn(fd);
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "%.16s:%d connected", r.peerIp, port);
}

// Runs the input pre-handling; false when the request goes no further.
bool TsInputPreHandling(int fd, const char* data, int len) {
    const char* name = comp::RouteText(g_ts->route, RT_INPREHDL);
    if (name[0] == '\0') return true;
    SockEntry& r = g_ts->rows[fd];
    char reply[kPreHdlBufLen] = {0};
    int replyLen = 0;
    int rc = SysPreHdl(g_ts->routeId, name, data, len, reply, &replyLen, 0);
    SysConnLog(r.fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]", SRC_NAME, __LINE__, name);
    if (replyLen > kPreHdlBufLen) replyLen = kPreHdlBufLen;
    if (replyLen > 0) {
        SysConnLog(r.fd, r.logPath, LOG_INFO, reply, replyLen, "[%s,%d,%s]", SRC_NAME, __LINE__, name);
        if (iSockSend(fd, reply, replyLen) != 0) {
            SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d]%s", SRC_NAME, __LINE__, std::strerror(errno));
            TsClose(fd);
            return false;
        }
    }
    if (rc == 1) {
        SysConnLog(r.fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]", SRC_NAME, __LINE__, name);
        return false;
    }
    if (rc < 0) {
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d]SysPreHdl err", SRC_NAME, __LINE__);
        return false;
    }
    return true;
}

void TsRequest(int fd) {
    SockEntry& r = g_ts->rows[fd];
    QueueMsg& buf = g_ts->buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &g_ts->route, &buf, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "%s,%d SysTcpRecvMsg err, fd=%d ,iTotalLen=%d,errno %d,[%s] ",
                   SRC_NAME, __LINE__, fd, len, err, std::strerror(err));
        COMP_ERRLOG("[%s,%d]%s,fd=%d ,iRet=%d,errno %d,[%s] ", SRC_NAME, __LINE__, "SysTcpRecvMsg", fd, len, err,
                    std::strerror(err));
        TsClose(fd);
        return;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, buf.caText, len, "[%s,%d]read net,len=%d", SRC_NAME, __LINE__, len);
    if (!TsInputPreHandling(fd, buf.caText, len)) return;

    int total = SysBuildPlatMsg(&buf, len, fd, &g_ts->route, r.peerIp, r.port);
    if (total < 0 || r.port < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        TsClose(fd);
        TsQuit();
    }
    buf.lMsgType = g_ts->pid;
    if (SysWriteQueue(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        TsClose(fd);
        TsQuit();
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, buf.caText, total, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, total);
}

}  // namespace

extern "C" {

// Serves one wake-up from TranP: 0 answered, -2 this answer could not be
// delivered (the loop goes on), -1 fatal.
int SysResponseWork(int iFifoFd, char* pcRouteId, RouteRecord stRoute) {
    if (g_ts == nullptr) return -1;
    if (stRoute.caField[RT_MSGSNDTYPE][0] != '0') {
        COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE", SRC_NAME, __LINE__, __func__, "PLAT_STATICROUTEINF");
        return -1;
    }
    QueueMsg& buf = g_ts->buf;
    int len = comp::ReadPlatMsgAs(COMP_LOG_SITE, iFifoFd, &buf);
    if (len < 0) return -1;

    // The answer names its connection by descriptor (offset 16) and peer IP
    // (offset 24, where TranP puts it for this mode).
    const char* hdr = buf.caText;
    int fd = comp::HeaderInt(hdr, comp::plat::kSock);
    char ip[17] = {0};
    std::memcpy(ip, hdr + comp::plat::kPort, 16);
    if (len < comp::kPlatHdrLen || fd < 0 || fd >= static_cast<int>(g_ts->rows.size()) ||
        g_ts->rows[fd].fd < 0 || !IsConnection(fd)) {
        COMP_ERRLOG("[%s,%d]fd[%d] closed.[%s] is offline", SRC_NAME, __LINE__, fd, ip);
        return -2;
    }
    SockEntry& r = g_ts->rows[fd];
    if (std::strncmp(r.peerIp, ip, 16) != 0) {
        COMP_ERRLOG("[%s,%d]fd[%d] was resetted.[%s]is offline", SRC_NAME, __LINE__, fd, ip);
        return -2;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, buf.caText, len, "[%s,%d]read queue,len=%d", SRC_NAME, __LINE__, len);

    const char* body = buf.caText + comp::kPlatHdrLen;
    int bodyLen = len - comp::kPlatHdrLen;
    char out[kPreHdlBufLen] = {0};
    const char* name = stRoute.caField[RT_OUTPREHDL];
    if (name[0] != '\0') {
        int outLen = 0;
        if (SysPreHdl(pcRouteId, name, body, bodyLen, out, &outLen, static_cast<unsigned short>(r.count)) < 0) {
            SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d]SysPreHdl error", SRC_NAME, __LINE__);
            return 0;
        }
        if (outLen > 0) {
            body = out;
            bodyLen = outLen > kPreHdlBufLen ? kPreHdlBufLen : outLen;
        }
    }
    if (iSockSend(fd, body, bodyLen) != 0) {
        int err = errno;
        TsClose(fd);
        COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, __func__, err);
        SysConnLog(r.fd, r.logPath, LOG_ERROR, body, bodyLen, "[%s,%d]write to net err,len=%d", SRC_NAME, __LINE__,
                   bodyLen);
        return -2;
    }
    ++r.count;
    SysConnLog(r.fd, r.logPath, LOG_INFO, body, bodyLen, "[%s,%d]write to net,len=%d", SRC_NAME, __LINE__, bodyLen);
    TsClose(fd);
    return 0;
}

// Binds and listens on the route's "IP:PORT"; the listening descriptor or -1.
int SysLsnInit(RouteRecord stRoute) {
    char ip[64] = {0};
    int port = 0;
    if (SysGetIpAndPort(stRoute.caField[RT_IPPORT], ip, &port) != 0) {
        COMP_ERRLOG("[%s,%d]IP:PORT format was wrong[%s]", SRC_NAME, __LINE__, stRoute.caField[RT_IPPORT]);
        return -1;
    }
    int fd = iSockBind(ip, port);
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d]iSockBind [%s,%d]error.errno=%d[%s]", SRC_NAME, __LINE__, ip, port, errno,
                    std::strerror(errno));
        return -1;
    }
    if (iNoblockFd(fd) != 0) {
        int err = errno;
        close(fd);
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return -1;
    }
    if (g_ts != nullptr && fd < static_cast<int>(g_ts->rows.size())) {
        SockEntry& r = g_ts->rows[fd];
        r.fd = fd;
        r.lastActive = comp::Now32();
        std::snprintf(r.peerIp, sizeof r.peerIp, "%s", ip);
        r.port = port;
    }
    return fd;
}

int SysTCPTS(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static TsState state;
    g_ts = &state;
    TsState& ts = state;
    std::snprintf(ts.routeId, sizeof ts.routeId, "%s", pcRouteId);
    ts.route = stRoute;
    ts.pid = getpid();
    std::snprintf(ts.routeName, sizeof ts.routeName, "%s", stRoute.caField[RT_ROUTENAME]);
    ts.headerLen = std::atoi(stRoute.caField[RT_HEADERLEN]);

    int lenWidth = 0, lenOff = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &ts.idleTimeout, &ts.headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    char value[256] = {0};
    if (SysGetValueByTableKey("PLAT_STATICROUTEINF", "MSGTYPEGETLEN", value, "ROUTEID", pcRouteId, "ROUTEMONID",
                              "1", PARA_END) != 0 ||
        SysGetValueByTableKey("PLAT_STATICROUTEINF", "MSGTYPEGETOFFSET", value, "ROUTEID", pcRouteId, "ROUTEMONID",
                              "1", PARA_END) != 0) {
        COMP_ERRLOG("[%s,%d]SysGetValueByTableKey error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        return -1;
    }
    int tableSize = comp::ModeMaxComNum();
    if (tableSize < 0) {
        COMP_ERRLOG("[%s,%d]SysGetenvByName error or MAX_COM_NUM lost ,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__,
                    errno, std::strerror(errno));
        return -1;
    }
    ts.rows.assign(static_cast<size_t>(tableSize), SockEntry{});
    for (SockEntry& r : ts.rows) {
        FreeRow(r);
        r.count = 0;
    }
    static const comp::LoopOps ops{TsParentGone, TsKeep, TsReady, nullptr, nullptr, TsWaitFailed};
    static std::optional<comp::ModeLoop> loop;
    loop.emplace(comp::LoopSpec{kMode, tableSize, 100}, ops);
    ts.loop = &*loop;

    ts.listenFd = SysLsnInit(stRoute);
    if (ts.listenFd < 0 || !loop->AddFixed(ts.listenFd)) {
        if (ts.listenFd >= 0) close(ts.listenFd);
        COMP_ERRLOG("%s,%d SysLsnInit error", SRC_NAME, __LINE__);
        return -1;
    }
    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    if (!comp::OpenModeFifos(*loop, iInstance, name, comp::kFifoPidNotify, &ts.ctlFd, &ts.notifyFd)) return -1;
    for (int fd : {ts.ctlFd, ts.notifyFd}) {
        ts.rows[fd].fd = fd;
        ts.rows[fd].lastActive = comp::Now32();
    }
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop->Run();
}

}  // extern "C"
