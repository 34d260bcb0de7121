// Short-connection server mode (TS): clients connect, send one request each,
// get the answer TranP returns for it, and are disconnected.
//
//   SysTCPTS          start-up: route, table, listener, FIFOs, the loop
//   TsIdle            a connection silent past the idle time-out is closed
//   TsControl         every command ends the process
//   TsAccept          new client: registered, connection log opened
//   TsAnswer          TranP's doorbell -> SysResponseWork
//   TsRequest         one framed request -> PlatMsg -> TranP's queue
//   SysResponseWork   TranP's answer -> the client that asked -> close
//   TsCloseHook       registry and connection log of every close
//   TsQuit            table, queued messages and notification FIFO
//
// A connection that closes while a request of it is still out keeps its
// descriptor number (the loop holds it with a placeholder) until the answers
// have come or the idle time-out has passed: a later client can then never
// receive another client's late answer, even from the same address.
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "config/SockBind.h"
#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPTS";
constexpr int kPreHdlBufLen = 1024;
constexpr int64_t kWaitUsec = 100;

// One row of the socket table, indexed by the descriptor itself.
struct SockEntry {
    int32_t fd;            // -1: free
    int32_t port;          // peer port (listener: configured port)
    int32_t count;         // answers sent, handed to the output pre-handling
    int32_t aux;           // -1 in this mode
    int32_t lastActive;    // seconds; the idle test measures from it
    char peerIp[16];
    char logPath[128];
    static void Free(SockEntry& r) {
        r.fd = r.port = r.aux = -1;
        r.lastActive = 0;
        std::memset(r.peerIp, 0, sizeof r.peerIp);
        std::memset(r.logPath, 0, sizeof r.logPath);
    }
};

// Whether accepted connections inherit the listener's receive low-water mark.
enum class LowWater : uint8_t { kUnknown, kInherited, kPerConnection };

struct Ts {
    char routeId[3] = {0};
    int routeNo = 0;                    // the route id as the registry takes it
    RouteRecord route{};
    char routeName[65] = {0};
    int headerLen = 0;
    int idleTimeout = 0;
    int listenFd = -1;
    comp::ModeFifos fifos;
    long pid = 0;                       // queue message type of every request
    comp::SockTable<SockEntry> rows;    // pstSockList
    std::vector<int> pending;           // requests forwarded and not yet answered, by descriptor
    std::optional<comp::Loop> loop;
    comp::AcceptPacer accepts;          // paces the listener while descriptors run out
    QueueMsg buf;                       // one request or answer at a time
    char logPrefix[128] = {0};          // "$HOME/runs/log/com_<route name>_"; the peer IP and ".log" follow
    LowWater lowWater = LowWater::kUnknown;
};
// SysResponseWork keeps its C signature, so it finds the mode through this.
Ts* g_ts = nullptr;

bool TsIdle(Ts& ts, int fd, int64_t now);
void TsControl(Ts& ts, int fd, unsigned ev);
void TsAccept(Ts& ts, int fd, unsigned ev);
void TsAnswer(Ts& ts, int fd, unsigned ev);
void TsRequest(Ts& ts, int fd, unsigned ev);
void TsLowWater(Ts& ts, int fd);
void TsLogPath(const Ts& ts, SockEntry& r);
void TsCloseHook(Ts& ts, int fd);
void TsQuit(Ts& ts);
void TsClose(Ts& ts, int fd);

}  // namespace

extern "C" {

int SysTCPTS(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static Ts ts;
    g_ts = &ts;
    std::snprintf(ts.routeId, sizeof ts.routeId, "%s", pcRouteId);
    ts.routeNo = std::atoi(ts.routeId);
    ts.route = stRoute;
    ts.pid = getpid();
    std::snprintf(ts.routeName, sizeof ts.routeName, "%s", stRoute.caField[RT_ROUTENAME]);
    ts.headerLen = std::atoi(stRoute.caField[RT_HEADERLEN]);

    int lenWidth = 0, lenOff = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &ts.idleTimeout, &ts.headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    // Only the presence of the two type columns is required here.
    char value[256] = {0};
    if (SysGetValueByTableKey("PLAT_STATICROUTEINF", "MSGTYPEGETLEN", value, "ROUTEID", pcRouteId, "ROUTEMONID",
                              "1", PARA_END) != 0 ||
        SysGetValueByTableKey("PLAT_STATICROUTEINF", "MSGTYPEGETOFFSET", value, "ROUTEID", pcRouteId, "ROUTEMONID",
                              "1", PARA_END) != 0) {
        COMP_ERRLOG("[%s,%d]SysGetValueByTableKey error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        return -1;
    }
    int tableSize = comp::ModeTableSize(SRC_NAME, __LINE__,
                                        "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost ,errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    ts.rows.Reset(tableSize);
    ts.pending.assign(static_cast<size_t>(tableSize), 0);
    for (int fd = 0; fd < tableSize; ++fd) ts.rows[fd].count = 0;

    comp::Loop::Hooks hooks;
    hooks.ctx = &ts;
    hooks.idle = comp::Fn<TsIdle>;
    hooks.close = comp::Fn<TsCloseHook>;
    hooks.quit = comp::Fn<TsQuit>;
    // One exchange per connection: ppoll in both wait styles (see ModeLoopSetup).
    ts.loop.emplace(
        comp::ModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec, comp::Backend::kPoll, comp::Backend::kPoll), hooks);
    comp::Loop& loop = *ts.loop;
    loop.SetRows(&ts.rows);

    ts.listenFd = SysLsnInit(stRoute);
    if (ts.listenFd < 0 || !loop.Watch(ts.listenFd, comp::Role::kFixed, comp::Fn<TsAccept>, &ts)) {
        if (ts.listenFd >= 0) close(ts.listenFd);
        COMP_ERRLOG("%s,%d SysLsnInit error", SRC_NAME, __LINE__);
        return -1;
    }
    const int lowat = ts.headerLen > 0 ? ts.headerLen : 1;   // handed on to accepted connections (TsLowWater)
    setsockopt(ts.listenFd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
    const char* home = getenv("HOME");
    std::snprintf(ts.logPrefix, sizeof ts.logPrefix, "%s/runs/log/com_%s_", home ? home : "", ts.routeName);
    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoPidNotify, &ts.fifos) ||
        !loop.Watch(ts.fifos.ctl, comp::Role::kFixed, comp::Fn<TsControl>, &ts) ||
        !loop.Watch(ts.fifos.notify, comp::Role::kFixed, comp::Fn<TsAnswer>, &ts))
        return -1;
    for (int fd : {ts.fifos.ctl, ts.fifos.notify}) ts.rows.Open(fd).lastActive = loop.NowSec();
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop.Run();
}

}  // extern "C"

namespace {

// ---- handlers, in the order the loop calls them -----------------------------

bool TsIdle(Ts& ts, int fd, int64_t now) {
    SockEntry& r = ts.rows[fd];
    if (now / comp::kUsecPerSec - r.lastActive <= ts.idleTimeout) return true;
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d]%s time out and close ", SRC_NAME, __LINE__, r.peerIp);
    TsClose(ts, fd);
    return false;
}

// Every command ends a TS process.
void TsControl(Ts& ts, int fd, unsigned) {
    comp::ReadControlCmd(SRC_NAME, fd, false);
    ts.loop->Quit();
}

void TsAccept(Ts& ts, int fd, unsigned) {
    char ip[17] = {0};
    int port = 0;
    // Non-blocking from the accept itself.
    comp::UniqueFd conn(SockAcceptInfoFlags(fd, ip, &port, SOCK_NONBLOCK));
    const int err = conn.valid() ? 0 : errno;
    if (!conn.valid())
        COMP_ERRLOG("[%s,%d]iSockAccept error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
    ts.accepts.AfterAccept(*ts.loop, fd, err);
    if (!conn.valid()) return;
    if (conn.get() >= ts.loop->TableSize()) {
        COMP_ERRLOG("[%s,%d]Too many communication node.", SRC_NAME, __LINE__);
        return;
    }
    TsLowWater(ts, conn.get());
    if (SysRegConnection(ip, port, &ts.route, conn.get(), 1) < 0) {
        int err = errno;
        conn.reset();
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return;
    }
    if (!ts.loop->Watch(conn.get(), comp::Role::kConn, comp::Fn<TsRequest>, &ts)) {
        SysDelConnection(ts.routeNo, ip, port, 1);
        return;
    }
    const int cfd = conn.release();
    SockEntry& r = ts.rows.Open(cfd);
    ts.rows.SetPeer(cfd, ip, port);
    r.count = 0;
    r.lastActive = ts.loop->NowSec();
    ts.pending[cfd] = 0;
    TsLogPath(ts, r);
    SysConnLog(cfd, r.logPath, LOG_DEBUG, nullptr, 0, "%.16s:%d connected", r.peerIp, port);
}

// "$HOME/runs/log/com_<route name>_<peer IP>.log", cut to the field, from
// the prefix made at start (formatting it for every connection costs more
// than the rest of the accept's own work).
void TsLogPath(const Ts& ts, SockEntry& r) {
    char* out = r.logPath;
    size_t room = sizeof r.logPath - 1;
    for (std::string_view part : {std::string_view(ts.logPrefix), std::string_view(r.peerIp, strnlen(r.peerIp, 16)),
                                  std::string_view(".log")}) {
        const size_t n = std::min(part.size(), room);
        std::memcpy(out, part.data(), n);
        out += n;
        room -= n;
    }
    *out = '\0';
}

// A connection is not readable before a whole header can be read. The
// listener carries the same low-water mark, and Linux copies a listener's
// socket options into the sockets it accepts: the first connection shows
// whether that holds here, and only where it does not is the mark set on
// every connection.
void TsLowWater(Ts& ts, int fd) {
    const int lowat = ts.headerLen > 0 ? ts.headerLen : 1;
    if (ts.lowWater == LowWater::kUnknown) {
        int got = 0;
        socklen_t len = sizeof got;
        const bool inherited = getsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &got, &len) == 0 && got == lowat;
        ts.lowWater = inherited ? LowWater::kInherited : LowWater::kPerConnection;
    }
    if (ts.lowWater == LowWater::kPerConnection) setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
}

void TsAnswer(Ts& ts, int, unsigned) {
    int rc = SysResponseWork(ts.fifos.notify, ts.routeId, ts.route);
    if (rc == -1) {
        COMP_ERRLOG("[%s,%d]SysResponseWork,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        ts.loop->Quit();
    }
    if (rc == -2) COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, kMode, errno);
}

// Runs the input pre-handling; false when the request goes no further.
bool TsInputPreHandling(Ts& ts, int fd, const char* data, int len) {
    const char* name = comp::RouteText(ts.route, RT_INPREHDL);
    if (name[0] == '\0') return true;
    switch (comp::RunInputPreHandling(SRC_NAME, ts.routeId, name, fd, ts.rows[fd].logPath, data, len)) {
        case comp::PreHdlOutcome::kForward: return true;
        case comp::PreHdlOutcome::kDrop: return false;
        case comp::PreHdlOutcome::kClose: break;
    }
    TsClose(ts, fd);
    return false;
}

void TsRequest(Ts& ts, int fd, unsigned) {
    SockEntry& r = ts.rows[fd];
    QueueMsg& buf = ts.buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &ts.route, &buf, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "%s,%d SysTcpRecvMsg err, fd=%d ,iTotalLen=%d,errno %d,[%s] ",
                   SRC_NAME, __LINE__, fd, len, err, std::strerror(err));
        COMP_ERRLOG("[%s,%d]%s,fd=%d ,iRet=%d,errno %d,[%s] ", SRC_NAME, __LINE__, "SysTcpRecvMsg", fd, len, err,
                    std::strerror(err));
        TsClose(ts, fd);
        return;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, buf.caText, len, "[%s,%d]read net,len=%d", SRC_NAME, __LINE__, len);
    if (!TsInputPreHandling(ts, fd, buf.caText, len)) return;

    // A framed message may be longer than a platform message can carry: that
    // is this client's fault, so only its connection goes.
    if (len > comp::kQueueTextLen - comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d]fd=%d,request of %d bytes exceeds the %d a platform message carries,close", SRC_NAME,
                    __LINE__, fd, len, comp::kQueueTextLen - comp::kPlatHdrLen);
        TsClose(ts, fd);
        return;
    }
    int total = SysBuildPlatMsg(&buf, len, fd, &ts.route, r.peerIp, r.port);
    if (total < 0 || r.port < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        TsClose(ts, fd);
        ts.loop->Quit();
    }
    buf.lMsgType = ts.pid;
    if (SysWriteQueue(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        TsClose(ts, fd);
        ts.loop->Quit();
    }
    ++ts.pending[fd];
    SysConnLog(r.fd, r.logPath, LOG_INFO, buf.caText, total, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, total);
}

// ---- close and quit ---------------------------------------------------------

// Every close goes through here: a connection with requests still out keeps
// its number until they are answered or its idle time-out has passed.
void TsClose(Ts& ts, int fd) {
    if (ts.pending[fd] > 0)
        ts.loop->CloseHolding(fd, ts.loop->NowUsec() + (ts.idleTimeout + 1) * comp::kUsecPerSec);
    else
        ts.loop->Close(fd);
}

void TsCloseHook(Ts& ts, int fd) {
    SockEntry& r = ts.rows[fd];
    if (SysDelConnection(ts.routeNo, r.peerIp, r.port, 1) < 0)
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d] [%s]SysDelConnection error", SRC_NAME, __LINE__,
                   r.peerIp);
    SysConnLog(r.fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d] [%s]回应答成功", SRC_NAME, __LINE__, r.peerIp);
}

void TsQuit(Ts& ts) {
    ts.rows.Clear();
    comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
}

// An answer for a number the loop holds belongs to a connection that has
// gone; once the last one has come, the number is let go.
void TsAnswerForGone(Ts& ts, int fd) {
    if (!ts.loop->Held(fd)) return;
    if (--ts.pending[fd] <= 0) {
        ts.pending[fd] = 0;
        ts.loop->ReleaseHold(fd);
    }
}

}  // namespace

extern "C" {

// Serves one wake-up from TranP: 0 answered, -2 this answer could not be
// delivered (the loop goes on), -1 fatal.
int SysResponseWork(int iFifoFd, char* pcRouteId, RouteRecord stRoute) {
    if (g_ts == nullptr || !g_ts->loop) return -1;
    Ts& ts = *g_ts;
    if (stRoute.caField[RT_MSGSNDTYPE][0] != '0') {
        COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE", SRC_NAME, __LINE__, __func__, "PLAT_STATICROUTEINF");
        return -1;
    }
    QueueMsg& buf = ts.buf;
    int len = comp::ReadPlatMsgAs(COMP_LOG_SITE, iFifoFd, &buf);
    if (len < 0) return -1;

    // The answer names its connection by descriptor (offset 16) and peer IP
    // (offset 24, where TranP puts it for this mode).
    const char* hdr = buf.caText;
    int fd = comp::HeaderInt(hdr, comp::plat::kSock);
    char ip[17] = {0};
    std::memcpy(ip, hdr + comp::plat::kPort, 16);
    if (len < comp::kPlatHdrLen || !ts.rows.InRange(fd) || !ts.loop->IsConn(fd)) {
        COMP_ERRLOG("[%s,%d]fd[%d] closed.[%s] is offline", SRC_NAME, __LINE__, fd, ip);
        if (len >= comp::kPlatHdrLen && ts.rows.InRange(fd)) TsAnswerForGone(ts, fd);
        return -2;
    }
    SockEntry& r = ts.rows[fd];
    if (std::strncmp(r.peerIp, ip, 16) != 0) {
        COMP_ERRLOG("[%s,%d]fd[%d] was resetted.[%s]is offline", SRC_NAME, __LINE__, fd, ip);
        return -2;
    }
    if (ts.pending[fd] > 0) --ts.pending[fd];
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
        TsClose(ts, fd);
        COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, __func__, err);
        SysConnLog(r.fd, r.logPath, LOG_ERROR, body, bodyLen, "[%s,%d]write to net err,len=%d", SRC_NAME, __LINE__,
                   bodyLen);
        return -2;
    }
    ++r.count;
    SysConnLog(r.fd, r.logPath, LOG_INFO, body, bodyLen, "[%s,%d]write to net,len=%d", SRC_NAME, __LINE__, bodyLen);
    TsClose(ts, fd);
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
    if (g_ts != nullptr && g_ts->rows.InRange(fd)) {
        SockEntry& r = g_ts->rows.Open(fd);
        r.lastActive = g_ts->loop ? g_ts->loop->NowSec() : static_cast<int32_t>(time(nullptr));
        std::snprintf(r.peerIp, sizeof r.peerIp, "%s", ip);
        r.port = port;
    }
    return fd;
}

}  // extern "C"
