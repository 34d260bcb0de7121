// Asynchronous multi-client server mode (PAS): many clients keep long-lived
// connections, several processes of the route share one listener and
// messages flow both ways without pairing. A client address holds at most
// one connection across all the route's processes: a newcomer from an
// address that has one makes the owner close the old one and is refused too.
//
//   SysTCPPAS      start-up: route, table, pool, the three FIFOs, the loop
//   PasIdle        a connection silent for the idle time-out is closed
//   PasStillAlive  the "still alive" line on quiet passes
//   PasControl     "0": accept from the shared listener; "x" and others: quit
//   PasAccept      code 9 to Commonp, SysCheckIP, row, registry, N001
//   SysCheckIP     the address's older connection closed here or by its owner
//   PasFromTranp   TranP's message -> its connection, by descriptor or address
//   PasPeer        another process asks this one to close an address
//   PasClient      a client's message -> echo (heartbeat) or TranP's queue
//   PasBeats       heartbeats to every connection, each on its interval
//   PasCloseHook   registry, N003, the closing banner of the connection log
//   PasQuit        registry entries, table, queued messages, FIFOs, pool
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "config/SysRscApp.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "ipc/SysMsgPool.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPPAS";
constexpr int64_t kWaitUsec = 5;
constexpr int kPoolBytes = 8388608;        // parked peer answers
constexpr int kBeatBufLen = 1024;
constexpr int kAliveBeats = 20;            // heartbeat intervals between two "still alive" lines
constexpr int kPeerWaitSec = 9;            // the owner's answer is awaited while at most this many whole seconds passed
constexpr char kBanner[] = "-------------------------------------------------------";

// One row of the socket table, indexed by the descriptor itself.
struct PasEntry {
    int32_t fd;            // -1: free
    int32_t aux;           // -1
    int32_t lastActive;    // seconds: accept and every message received; the idle test counts from it
    int32_t lastBeat;      // seconds: the last heartbeat sent, 0 at first
    int32_t port;          // client port
    int32_t routeId;       // the route as a number
    char peerIp[16];
    char logPath[256];
    static void Free(PasEntry& r) {
        r.fd = r.aux = r.port = -1;
        r.lastActive = r.lastBeat = 0;
        std::memset(r.peerIp, 0, sizeof r.peerIp);
        std::memset(r.logPath, 0, sizeof r.logPath);
    }
};

struct Pas {
    char routeId[3] = {0};
    int routeNo = 0;
    RouteRecord route{};
    char routeName[65] = {0};
    char liveType[32] = {0};      // LIVEMSGTYPE: the clients' heartbeat, echoed
    int headerLen = 0;
    int idleTimeout = 0;
    int beatInterval = 0;
    bool beatsOn = false;
    int listenFd = -1;            // inherited; accepted from on the "0" command only
    int peerFd = -1;              // "4_<pid>": peer requests of the route's other processes
    comp::ModeFifos fifos;        // control "3_<pid>_<instance>", notification "1_<pid>"
    long pid = 0;
    int32_t lastAlive = 0;        // the last "still alive" line
    int beatTimer = -1;
    comp::SockTable<PasEntry> rows;   // pstSockList
    std::optional<comp::Loop> loop;
    comp::AcceptPacer accepts;         // paces accepts while descriptors run out
    QueueMsg buf;                 // a client's or TranP's message
    QueueMsg peerBuf;             // peer requests and answers
};
// SysCheckIP and iGetFdByIP keep their C signatures, so they find the mode
// through this.
Pas* g_pas = nullptr;

bool PasIdle(Pas& p, int fd, int64_t now);
int64_t PasStillAlive(Pas& p, int64_t now);
void PasControl(Pas& p, int fd, unsigned ev);
void PasAccept(Pas& p);
void PasFromTranp(Pas& p, int fd, unsigned ev);
void PasPeer(Pas& p, int fd, unsigned ev);
void PasClient(Pas& p, int fd, unsigned ev);
int64_t PasBeats(Pas& p, int64_t now);
void PasCloseHook(Pas& p, int fd);
void PasCloseAgain(Pas& p, int fd);
void PasQuit(Pas& p);

int QueueId(int index) { return g_stMsgQCntl[index].iId; }

// The connection log of a client address: "$HOME/runs/log/com_<route name>_<ip>.log".
void ConnLogPath(const char* routeName, const char* ip, char (&out)[256]) {
    const char* home = getenv("HOME");
    std::snprintf(out, sizeof out, "%s/runs/log/com_%s_%.16s.log", home ? home : "", routeName, ip);
}

}  // namespace

extern "C" {

int SysTCPPAS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd) {
    static Pas p;
    g_pas = &p;
    std::snprintf(p.routeId, sizeof p.routeId, "%s", pcRouteId);
    p.routeNo = std::atoi(p.routeId);
    p.route = stRoute;
    p.pid = getpid();
    p.listenFd = iListenFd;
    std::snprintf(p.routeName, sizeof p.routeName, "%s", stRoute.caField[RT_ROUTENAME]);
    int lenWidth = 0, lenOff = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &p.idleTimeout, &p.headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    int tableSize = comp::ModeTableSize(
        SRC_NAME, __LINE__, "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost in [LOADVARS],errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    if (SysGetenvByName("LIVEMSGTYPE", p.liveType) != 0 || p.liveType[0] == '\0') {
        writelog(LOG_WARN, nullptr, 0,
                 "[%s,%d]SysGetenvByName error or LIVEMSGTYPE lost in [LOADVARS],errno=%d,errmsg=[%s]", SRC_NAME,
                 __LINE__, errno, std::strerror(errno));
        std::snprintf(p.liveType, sizeof p.liveType, "0602");
    }
    p.beatInterval = comp::RouteInt(stRoute, RT_BEATINTERVAL);
    p.beatsOn = comp::RouteText(stRoute, RT_BEATSWITCH)[0] != '0';
    p.rows.Reset(tableSize);
    for (int fd = 0; fd < tableSize; ++fd) p.rows[fd].routeId = p.routeNo;
    if (InitMemPool(kPoolBytes) != 0) {
        COMP_ERRLOG("[%s,%d]InitMemPoolerr", SRC_NAME, __LINE__);
        return -1;
    }

    comp::Loop::Hooks hooks;
    hooks.ctx = &p;
    hooks.idle = comp::Fn<PasIdle>;
    hooks.close = comp::Fn<PasCloseHook>;
    hooks.closeAgain = comp::Fn<PasCloseAgain>;
    hooks.quit = comp::Fn<PasQuit>;
    const comp::Loop::Setup setup = comp::ListenerModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec);
    p.loop.emplace(setup, hooks);
    comp::Loop& loop = *p.loop;
    loop.SetRows(&p.rows);

    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoPidNotify, &p.fifos)) return -1;
    p.peerFd = iOpenFIFO(name, comp::kFifoPeerRequest);
    if (p.peerFd < 0 || !loop.Watch(p.fifos.ctl, comp::Role::kFixed, comp::Fn<PasControl>, &p) ||
        !loop.Watch(p.fifos.notify, comp::Role::kFixed, comp::Fn<PasFromTranp>, &p) ||
        !loop.Watch(p.peerFd, comp::Role::kFixed, comp::Fn<PasPeer>, &p)) {
        COMP_ERRLOG("[%s,%d]iOpenFIFO error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    p.lastAlive = loop.NowSec();
    loop.AddTimer(comp::Phase::kIdlePass, comp::Fn<PasStillAlive>, &p);
    if (p.beatsOn) p.beatTimer = loop.AddTimer(comp::Phase::kAfterDispatch, comp::Fn<PasBeats>, &p, comp::Loop::kNever);
    writelog(LOG_DEBUG, nullptr, 0, "TCPPAS working...");
    return loop.Run();
}

}  // extern "C"

namespace {

// ---- handlers, in the order the loop calls them -----------------------------

bool PasIdle(Pas& p, int fd, int64_t now) {
    PasEntry& r = p.rows[fd];
    if (now / comp::kUsecPerSec - r.lastActive < p.idleTimeout) return true;
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d]fd[%d] time out and close ", SRC_NAME, __LINE__, fd);
    p.loop->Close(fd);
    return false;
}

// A quiet pass writes the line once more than twenty heartbeat intervals
// have passed since the last one.
int64_t PasStillAlive(Pas& p, int64_t now) {
    const int64_t span = static_cast<int64_t>(kAliveBeats) * p.beatInterval;
    if (now / comp::kUsecPerSec - p.lastAlive > span) {
        writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]oh,i'm still alive", SRC_NAME, __LINE__);
        p.lastAlive = static_cast<int32_t>(now / comp::kUsecPerSec);
    }
    return (p.lastAlive + span + 1) * comp::kUsecPerSec;
}

void PasControl(Pas& p, int fd, unsigned) {
    if (comp::ReadControlCmd(SRC_NAME, fd, true) == comp::ControlCmd::kQuit) p.loop->Quit();
    p.accepts.Command(*p.loop, comp::Fn<PasAccept>, &p);
}

// One client from the shared listener. The listener gets a 5-microsecond
// receive time-out first, so that the accept cannot hang when another
// process took the client.
void PasAccept(Pas& p) {
    comp::AcceptOptions how;
    how.bShortRcvTimeo = true;
    how.bNonBlock = false;   // after the address check
    how.pPacer = &p.accepts;
    comp::Accepted a = comp::AcceptOnCommand(p.listenFd, p.loop->TableSize(), how);
    switch (a.outcome) {
        case comp::AcceptOutcome::kReportFailed:
            wlog("SysTellCommonp error");
            p.loop->Quit();
        case comp::AcceptOutcome::kAcceptFailed:
            if (a.err == EAGAIN || a.err == EWOULDBLOCK) COMP_ERRLOG("[%s,%d]zzz don't expect here", SRC_NAME, __LINE__);
            COMP_ERRLOG("[%s,%d]iSockAccept error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, a.err,
                        std::strerror(a.err));
            return;
        case comp::AcceptOutcome::kTooMany:
            COMP_ERRLOG("[%s,%d]Too many communication node.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                        std::strerror(errno));
            return;
        default: break;
    }
    switch (SysCheckIP(p.routeId, a.ip, p.rows.High())) {
        case 0: break;
        case 1:
            writelog(LOG_WARN, nullptr, 0, "[%s,%d]a frequent connection from [%s] was refused", SRC_NAME, __LINE__,
                     a.ip);
            return;
        case -2: COMP_ERRLOG("[%s,%d]checkip err", SRC_NAME, __LINE__); return;
        default: COMP_ERRLOG("SysCheckIP fatal error"); p.loop->Quit();
    }
    if (iNoblockFd(a.fd.get()) != 0) {
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return;
    }
    if (!p.loop->Watch(a.fd.get(), comp::Role::kConn, comp::Fn<PasClient>, &p)) {
        COMP_ERRLOG("[%s,%d]fd %d cannot be waited on,errno=%d[%s]", SRC_NAME, __LINE__, a.fd.get(), errno,
                    std::strerror(errno));
        return;
    }
    const int fd = a.fd.release();
    writelog(LOG_INFO, nullptr, 0, "[%s,%d]%d[%s][%d] NEW", SRC_NAME, __LINE__, fd, a.ip, a.port);
    PasEntry& r = p.rows.Open(fd);
    p.rows.SetPeer(fd, a.ip, a.port);
    r.aux = -1;
    r.lastActive = p.loop->NowSec();
    r.lastBeat = 0;
    // Not readable before a whole header can be read.
    int lowat = p.headerLen > 0 ? p.headerLen : 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
    ConnLogPath(p.routeName, r.peerIp, r.logPath);
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "%sBEGIN>>>", kBanner);
    if (SysRegConnection(r.peerIp, r.port, &p.route, fd, 1) != 0) {
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d]SysRegConnection error", SRC_NAME, __LINE__);
        p.loop->Close(fd);
        p.loop->Quit();
    }
    int rc = SysSendInnerMsg(r.peerIp, p.routeNo, "N001");
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "%s to Tranp %s", "N001", rc == 0 ? "succ" : "failed");
    if (p.beatsOn) p.loop->SetDue(p.beatTimer, p.loop->NowUsec());   // its first heartbeat is due at once
}

// Waits for the owner's answer without sleeping: 1 when it came, -2 when
// more than nine whole seconds passed, -1 on a queue error. Other messages
// of this process on the answer queue are parked in the pool meanwhile.
int AwaitPeerAnswer(Pas& p, int owner, const char* ip) {
    comp::Clock& clock = p.loop->clock();
    const int64_t start = clock.NowUsec() / comp::kUsecPerSec;
    QueueMsg& m = p.peerBuf;
    for (;;) {
        m.lMsgType = p.pid;
        int n = MsgReadNoWait(QueueId(comp::kQueuePasAnswer), &m);
        if (n < 0) {
            COMP_ERRLOG("[%s][%d]MsgReadNoWait err,errno=%d,%s", SRC_NAME, __LINE__, -n, std::strerror(-n));
            return -1;
        }
        if (n > 0) {
            PasPeerMsg ans{};
            std::memcpy(&ans, m.caText, std::min<size_t>(static_cast<size_t>(n), sizeof ans));
            if (n >= static_cast<int>(sizeof ans) && ans.iPid == p.pid && std::strncmp(ans.caIp, ip, 16) == 0) {
                writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]res from %d ,len=%d", SRC_NAME, __LINE__, owner, n);
                return 1;
            }
            COMP_ERRLOG("[%s][%d]msg err. real[%.16s] expect[%s]", SRC_NAME, __LINE__, ans.caIp, ip);
            if (PoolPut(m.caText, n) < 0) {
                COMP_ERRLOG("PoolPut err");
                return -1;
            }
            continue;
        }
        if (clock.NowUsec() / comp::kUsecPerSec - start > kPeerWaitSec) {
            COMP_ERRLOG("[%s][%d]didn't recv msg over 10s", SRC_NAME, __LINE__);
            return -2;
        }
    }
}

// Puts the parked messages back on the answer queue, oldest first.
bool RequeueParked(Pas& p) {
    QueueMsg& m = p.peerBuf;
    int len = 0;
    while (PoolGet(m.caText, &len) == 0) {
        m.lMsgType = p.pid;
        if (MsgWriteNoWait(QueueId(comp::kQueuePasAnswer), &m, len) != 0) {
            COMP_ERRLOG("MsgWriteNoWait err");
            return false;
        }
        writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]resave to queue,len=%d", SRC_NAME, __LINE__, len);
    }
    return true;
}

// Asks process `owner` to close its connection from ip: the request on the
// peer-request queue, then a byte on the owner's FIFO "4_<owner>".
int AskOwner(Pas& p, int owner, const char* ip) {
    char name[32];
    std::snprintf(name, sizeof name, "%d", owner);
    comp::UniqueFd bell(iConnectFIFO(name, comp::kFifoPeerRequest));
    if (!bell.valid()) {
        COMP_ERRLOG("[%s][%d]fatal error,errno=%d,%s", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    QueueMsg& m = p.peerBuf;
    PasPeerMsg req{};
    req.iPid = static_cast<int32_t>(p.pid);
    std::memcpy(req.caIp, ip, strnlen(ip, sizeof req.caIp));
    m.lMsgType = owner;
    std::memcpy(m.caText, &req, sizeof req);
    if (MsgWriteNoWait(QueueId(comp::kQueuePasRequest), &m, sizeof req) != 0) {
        COMP_ERRLOG("[%s][%d]MsgWriteNoWait err,msg_type=%d,errno=%d,%s", SRC_NAME, __LINE__, owner, errno,
                    std::strerror(errno));
        return -1;
    }
    if (iWriteFIFO(bell.get()) != 0) {
        COMP_ERRLOG("[%s][%d]iWriteFIFO err,errno=%d,%s", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    writelog(LOG_DEBUG, nullptr, 0, "[%s][%d]len=%d,notify %d", SRC_NAME, __LINE__, static_cast<int>(sizeof req),
             owner);
    int rc = AwaitPeerAnswer(p, owner, ip);
    if (rc == -1 || !RequeueParked(p)) return -1;
    return rc;
}

void PasFromTranp(Pas& p, int fd, unsigned) {
    QueueMsg& m = p.buf;
    int len = SysReadPlatMsg(fd, &m);
    if (len < 0) {
        COMP_ERRLOG("[%s:%s:%d]SysReadPlatMsg queue [%d] error !", SRC_NAME, __func__, __LINE__,
                    QueueId(comp::kQueueFromTranp));
        p.loop->Quit();
    }
    if (len < comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d]message of %d bytes has no header,dropped", SRC_NAME, __LINE__, len);
        return;
    }
    char* hdr = m.caText;
    int cfd = comp::HeaderInt(hdr, comp::plat::kSock);
    char ip[17] = {0};
    std::memcpy(ip, hdr + comp::plat::kIp, 16);
    if (cfd == 0) {
        cfd = iGetFdByIP(ip, comp::HeaderInt(hdr, comp::plat::kPort), p.loop->TableSize(), p.routeName);
        if (cfd < 0) {
            COMP_ERRLOG("[%s,%s,%d]IP [%s], didn't find the original connection!", SRC_NAME, __func__, __LINE__, ip);
            return;
        }
        std::memcpy(hdr + comp::plat::kSock, &cfd, sizeof cfd);
    } else if (!p.loop->IsConn(cfd)) {
        COMP_ERRLOG("[%s,%d]fd%d had closed[%d]", SRC_NAME, __LINE__, cfd, p.rows.InRange(cfd) ? p.rows[cfd].fd : -1);
        return;
    } else if (std::strncmp(p.rows[cfd].peerIp, ip, 16) != 0) {
        COMP_ERRLOG("[%s,%d]fd%d was replaced [%s->%.16s]", SRC_NAME, __LINE__, cfd, ip, p.rows[cfd].peerIp);
        return;
    }
    PasEntry& r = p.rows[cfd];
    const char* body = hdr + comp::kPlatHdrLen;
    const int bodyLen = len - comp::kPlatHdrLen;
    if (iSockSend(cfd, body, bodyLen) != 0) {
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]iSockSend error.errno %d ,errmsg[%s]", SRC_NAME,
                   __LINE__, kMode, errno, std::strerror(errno));
        p.loop->Close(cfd);
        return;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, body, bodyLen, "[%s,%d,%s]write to net.len=%d", SRC_NAME, __LINE__, kMode,
               bodyLen);
}

// Another process of the route found a newcomer from an address that this
// process holds: the old connection goes, and the asker gets its request
// back as the answer.
void PasPeer(Pas& p, int fd, unsigned) {
    if (iReadFIFO(fd) != 0) return;
    QueueMsg& m = p.peerBuf;
    const int q = QueueId(comp::kQueuePasRequest);
    m.lMsgType = p.pid;
    int n = MsgReadNoWait(q, &m);
    if (n < 0) {
        COMP_ERRLOG("[%s:%s:%d]iLength=%d,queue [%d] ,%d ,%s", SRC_NAME, __func__, __LINE__, n, q, -n,
                    std::strerror(-n));
        return;
    }
    if (n == 0) {
        COMP_ERRLOG("[%s:%s:%d]Waring iLength=%d,queue [%d]", SRC_NAME, __func__, __LINE__, n, q);
        return;
    }
    writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]rcv notification msg, len=%d", SRC_NAME, __LINE__, n);
    PasPeerMsg req{};
    std::memcpy(&req, m.caText, std::min<size_t>(static_cast<size_t>(n), sizeof req));
    char ip[17] = {0};
    std::memcpy(ip, req.caIp, sizeof req.caIp);
    if (n < static_cast<int>(sizeof req) || req.iPid <= 0) {
        COMP_ERRLOG("[%s:%s:%d]peer request of %d bytes from pid %d is not one,dropped", SRC_NAME, __func__,
                    __LINE__, n, req.iPid);
        return;
    }
    const int cfd = p.rows.FindByIp(ip);
    if (cfd >= 0 && p.loop->IsConn(cfd)) {
        SysConnLog(cfd, p.rows[cfd].logPath, LOG_INFO, nullptr, 0, "[%s,%d]fd[%d][%s] need close", SRC_NAME, __LINE__,
                   cfd, ip);
        p.loop->Close(cfd);
    } else {
        char path[256];
        ConnLogPath(p.routeName, ip, path);
        SysConnLog(0, path, LOG_INFO, nullptr, 0, "[%s,%d]ip %s had closed ", SRC_NAME, __LINE__, ip);
        COMP_ERRLOG("[%s,%d] [%s] had closed", SRC_NAME, __LINE__, ip);
    }
    m.lMsgType = req.iPid;
    if (MsgWriteNoWait(QueueId(comp::kQueuePasAnswer), &m, sizeof req) != 0) {
        COMP_ERRLOG("[%s:%s:%d]%d ,%s", SRC_NAME, __func__, __LINE__, errno, std::strerror(errno));
        p.loop->Quit();
    }
    writelog(LOG_DEBUG, nullptr, 0, "[%s:%s:%d]resp to %d", SRC_NAME, __func__, __LINE__, req.iPid);
}

void PasClient(Pas& p, int fd, unsigned) {
    PasEntry& r = p.rows[fd];
    QueueMsg& m = p.buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &p.route, &m, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]fd=%d,SysTcpRecvMsg error.errno %d ,errmsg[%s]",
                   SRC_NAME, __LINE__, kMode, fd, err, std::strerror(err));
        p.loop->Close(fd);
        return;
    }
    r.lastActive = p.loop->NowSec();
    SysConnLog(r.fd, r.logPath, LOG_INFO, m.caText, len, "[%s,%d,%s]server rcv net,len[%d]", SRC_NAME, __LINE__, kMode,
               len);
    char type[32] = {0};
    if (SysGetMsgTypeFromMsg(m.caText, len, p.routeId, type) != 0) {
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]get msgtype error", SRC_NAME, __LINE__, kMode);
        p.loop->Close(fd);
        return;
    }
    if (std::strcmp(type, p.liveType) == 0) {   // the client's heartbeat goes straight back
        if (iSockSend(fd, m.caText, len) != 0) {
            SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]iSockSend error.%d,%s", SRC_NAME, __LINE__,
                       kMode, errno, std::strerror(errno));
            p.loop->Close(fd);
            return;
        }
        SysConnLog(r.fd, r.logPath, LOG_INFO, m.caText, len, "[%s,%d,%s]write msg %s to net,len[%d]", SRC_NAME,
                   __LINE__, kMode, type, len);
        return;
    }
    const char* pre = comp::RouteText(p.route, RT_INPREHDL);
    if (pre[0] != '\0') {
        comp::PreHdlOutcome o = comp::RunInputPreHandling(SRC_NAME, p.routeId, pre, fd, r.logPath, m.caText, len);
        if (o == comp::PreHdlOutcome::kClose) p.loop->Close(fd);
        if (o != comp::PreHdlOutcome::kForward) return;
    }
    // A framed message may be longer than a platform message can carry: that
    // is this client's fault, so only its connection goes.
    if (len > comp::kQueueTextLen - comp::kPlatHdrLen) {
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0,
                   "[%s,%d]fd=%d,message of %d bytes exceeds the %d a platform message carries,close", SRC_NAME,
                   __LINE__, fd, len, comp::kQueueTextLen - comp::kPlatHdrLen);
        p.loop->Close(fd);
        return;
    }
    int total = SysBuildPlatMsg(&m, len, fd, &p.route, r.peerIp, r.port);
    if (total < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        p.loop->Quit();
    }
    m.lMsgType = p.pid;
    if (SysWriteQueueNoWait(&m, total, QueueId(comp::kQueueToTranp)) != 0) {
        const int e = errno;
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d]SysWriteQueueNoWait error.errno=%d,errmsg:[%s]",
                   SRC_NAME, __LINE__, e, std::strerror(e));
        COMP_ERRLOG("[%s,%d]SSysWriteQueueNoWait error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, e, std::strerror(e));
        return;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, m.caText, total, "[%s,%d,%s]server write to queue,len %d", SRC_NAME,
               __LINE__, kMode, total);
}

// One heartbeat on one connection; false when the connection was closed.
bool PasBeat(Pas& p, int fd, int32_t now) {
    PasEntry& r = p.rows[fd];
    char beat[kBeatBufLen] = {0};
    int len = 0;
    SysDealBeatHeart(p.routeId, beat, &len);
    // Without a frame to send the next try waits a whole interval too.
    r.lastBeat = now;
    if (len <= 0) return true;
    len = std::min(len, kBeatBufLen);
    if (iSockSend(fd, beat, len) != 0) {
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]snd beat heart msg to [%s] error.%s", SRC_NAME,
                   __LINE__, kMode, r.peerIp, std::strerror(errno));
        p.loop->Close(fd);
        return false;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, beat, len, "send beat heart msg to %s", r.peerIp);
    return true;
}

// Every connection whose last heartbeat lies more than an interval back gets
// one, whatever the traffic; next due: the earliest such moment of any row.
int64_t PasBeats(Pas& p, int64_t now) {
    const int32_t sec = static_cast<int32_t>(now / comp::kUsecPerSec);
    int64_t next = comp::Loop::kNever;
    p.rows.ForEachOpen([&](int fd, PasEntry& r) {
        if (sec - r.lastBeat > p.beatInterval && !PasBeat(p, fd, sec)) return;
        next = std::min(next, (static_cast<int64_t>(r.lastBeat) + p.beatInterval + 1) * comp::kUsecPerSec);
    });
    return next;
}

// ---- close and quit ---------------------------------------------------------

void PasCloseHook(Pas& p, int fd) {
    PasEntry& r = p.rows[fd];
    if (SysDelConnection(p.routeNo, r.peerIp, r.port, 1) < 0)
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d] [%s]SysDelConnection error", SRC_NAME, __LINE__,
                   r.peerIp);
    int rc = SysSendInnerMsg(r.peerIp, p.routeNo, "N003");
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "%s to tranp %s", "N003", rc == 0 ? "succ" : "failed");
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "---fd %d, %.16s connection End ---", fd, r.peerIp);
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "%sEND<<<", kBanner);
}

void PasCloseAgain(Pas& p, int fd) {
    COMP_ERRLOG("[%s,%d]fd%d had closed[%d]", SRC_NAME, __LINE__, fd, p.rows.InRange(fd) ? p.rows[fd].fd : -1);
}

// The process's registry entries go first, so that no other process asks a
// process that is on its way out; then the table, its queued messages, both
// "<pid>" FIFOs and the pool.
void PasQuit(Pas& p) {
    DeleteBusyByPid(static_cast<int>(p.pid));
    p.rows.Clear();
    comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
    comp::RemoveOwnFifo(comp::kFifoPeerRequest);
    SysFreePool();
}

}  // namespace

extern "C" {

int SysCheckIP(char* pcRouteId, char* pcIp, int iMaxFd) {
    if (g_pas == nullptr || !g_pas->loop) return -1;
    Pas& p = *g_pas;
    ConnNode node{};
    const int owner = SysGetPidByRouteidIp(pcRouteId, pcIp, &node);
    if (owner == -2) return 0;
    if (owner == -1) {
        COMP_ERRLOG("SysGetPidByRouteidIp fatal error");
        return -1;
    }
    if (owner <= 0) {
        COMP_ERRLOG("[%s,%d]pool data error", SRC_NAME, __LINE__);
        return -1;
    }
    writelog(LOG_WARN, nullptr, 0, "[%s,%d] double ip [%s] arriving.[%ld]", SRC_NAME, __LINE__, pcIp,
             static_cast<long>(owner));
    if (owner == p.pid) {
        const int fd = p.rows.FindByIp(pcIp);
        if (fd >= 0 && fd <= iMaxFd && p.loop->IsConn(fd)) {
            SysConnLog(fd, p.rows[fd].logPath, LOG_INFO, nullptr, 0, "[%s,%d]fd[%d] double connection request arriving",
                       SRC_NAME, __LINE__, fd);
            p.loop->Close(fd);
        } else {
            // Registered as this process's, yet no such connection is open:
            // the entry is a leftover and goes, or the address stays refused.
            COMP_ERRLOG("[%s,%d][%s] is registered here without a connection,entry removed", SRC_NAME, __LINE__,
                        pcIp);
            SysDelConnection(p.routeNo, pcIp, node.iPort, 1);
        }
        return 1;
    }
    return AskOwner(p, owner, pcIp);
}

int iGetFdByIP(char* pcIp, int iPort, int iMaxFd, char* pcRouteName) {
    if (g_pas == nullptr || !g_pas->loop) return -1;
    Pas& p = *g_pas;
    const int fd = p.rows.FindByIp(std::string_view(pcIp, strnlen(pcIp, 16)));
    if (fd >= 0 && fd < iMaxFd && p.loop->IsConn(fd)) return fd;
    char path[256];
    ConnLogPath(pcRouteName, pcIp, path);
    SysConnLog(0, path, LOG_INFO, nullptr, 0, "[%s:%s:%d]not found fd for[%s][%d]!", SRC_NAME, __func__, __LINE__,
               pcIp, iPort);
    return -1;
}

}  // extern "C"
