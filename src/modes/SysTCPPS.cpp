// Persistent server mode (PS): clients keep long-lived connections. The
// listener belongs to the process that started this one and comes as the
// fourth argument; that process watches it and, when a client waits, writes
// "0" into one instance's control FIFO. Several instances of a route thus
// share one listener, each holding the clients it accepted. TranP's messages
// name their connection by descriptor; silent connections get live packages.
//
// Kept as the platform has it: the first message a client sends ends the
// process, after it has been read and logged and before it reaches TranP
// (the connection's port is never filled in, and the check before the queue
// write refuses a negative port).
//
//   SysTCPPS          start-up: table, FIFOs, the loop
//   PsIdle            a connection silent past the idle time-out is closed
//   PsControl         "0": accept from the shared listener; anything else quits
//   PsSend            TranP's doorbell -> SysSendMsg
//   PsClient          one message from a client (and the end of the process)
//   PsLive            after every pass: live packages on silent connections
//   PsQuit            table, queued messages and notification FIFO
#include <unistd.h>

#include <algorithm>
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
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPPS";
constexpr int64_t kWaitUsec = 1000000;
constexpr int kLiveBufLen = 1024;
constexpr int kMaxPlatBody = comp::kQueueTextLen - comp::kPlatHdrLen;

// One row of the socket table, indexed by the descriptor.
struct PsEntry {
    int32_t fd;            // -1: free
    int32_t aux;           // -1 (not used by this mode)
    int32_t lastActive;    // accept, message received, live package sent
    int32_t port;          // -1: this mode never fills it
    char peerIp[16];
    static void Free(PsEntry& r) { r = PsEntry{-1, -1, 0, -1, {}}; }
};

struct Ps {
    char routeId[3] = {0};
    RouteRecord route{};
    int listenFd = -1;                 // inherited; watched by the starting process
    int idleTimeout = 0;
    int beatInterval = 0;
    comp::ModeFifos fifos;
    comp::SockTable<PsEntry> rows;     // pstSockList
    std::optional<comp::Loop> loop;
    comp::AcceptPacer accepts;         // paces accepts while descriptors run out
    int liveTimer = -1;
    QueueMsg buf;
};

bool PsIdle(Ps& ps, int fd, int64_t now);
void PsControl(Ps& ps, int fd, unsigned ev);
void PsAccept(Ps& ps);
void PsSend(Ps& ps, int fd, unsigned ev);
int SysSendMsg(Ps& ps);
void PsClient(Ps& ps, int fd, unsigned ev);
int64_t PsLive(Ps& ps, int64_t now);
void PsQuit(Ps& ps);

}  // namespace

extern "C" {

int SysTCPPS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd) {
    static Ps ps;
    std::snprintf(ps.routeId, sizeof ps.routeId, "%s", pcRouteId);
    ps.route = stRoute;
    ps.listenFd = iListenFd;

    int tableSize = comp::ModeTableSize(SRC_NAME, __LINE__, "[%s,%d]SysGetenvByName error,errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    ps.rows.Reset(tableSize);
    ps.beatInterval = comp::RouteInt(stRoute, RT_BEATINTERVAL);
    ps.idleTimeout = comp::RouteInt(stRoute, RT_IDLETIMEOUT);

    comp::Loop::Hooks hooks;
    hooks.ctx = &ps;
    hooks.idle = comp::Fn<PsIdle>;
    hooks.quit = comp::Fn<PsQuit>;
    const comp::Loop::Setup setup = comp::ListenerModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec);
    ps.loop.emplace(setup, hooks);
    comp::Loop& loop = *ps.loop;
    loop.SetRows(&ps.rows);

    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoPidNotify, &ps.fifos) ||
        !loop.Watch(ps.fifos.ctl, comp::Role::kFixed, comp::Fn<PsControl>, &ps) ||
        !loop.Watch(ps.fifos.notify, comp::Role::kFixed, comp::Fn<PsSend>, &ps)) {
        ps.rows.Clear();
        return -1;
    }
    writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]ctlfd=[%d]", SRC_NAME, __LINE__, ps.fifos.ctl);
    writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]iOut=[%d]", SRC_NAME, __LINE__, ps.fifos.notify);
    for (int fd : {ps.fifos.ctl, ps.fifos.notify}) ps.rows.Open(fd).lastActive = loop.NowSec();

    // Live packages are checked after the signal mask is restored.
    ps.liveTimer = loop.AddTimer(comp::Phase::kAfterUnmask, comp::Fn<PsLive>, &ps, comp::Loop::kNever);
    writelog(LOG_DEBUG, nullptr, 0, "[%s,%d][%s]", SRC_NAME, __LINE__, kMode);
    return loop.Run();
}

}  // extern "C"

namespace {

bool IsFifo(const Ps& ps, int fd) { return fd == ps.fifos.ctl || fd == ps.fifos.notify; }

// When a live package may next be due: the interval after the quietest
// connection's last activity (it goes once the silence exceeds the interval).
int64_t LiveDue(Ps& ps) {
    int64_t due = comp::Loop::kNever;
    ps.rows.ForEachOpen([&](int fd, PsEntry& r) {
        if (!IsFifo(ps, fd))
            due = std::min(due, (static_cast<int64_t>(r.lastActive) + ps.beatInterval + 1) * comp::kUsecPerSec);
    });
    return due;
}

// ---- handlers, in the order the loop calls them -----------------------------

bool PsIdle(Ps& ps, int fd, int64_t now) {
    if (now / comp::kUsecPerSec - ps.rows[fd].lastActive <= ps.idleTimeout) return true;
    ps.loop->Close(fd);
    // The descriptor is printed from the row just freed.
    COMP_ERRLOG("[%s,%d]Socket[%d][%d]time out and close ", SRC_NAME, __LINE__, ps.rows[fd].fd, ps.idleTimeout);
    return false;
}

void PsControl(Ps& ps, int fd, unsigned) {
    if (comp::ReadControlCmd(SRC_NAME, fd, true) == comp::ControlCmd::kQuit) ps.loop->Quit();
    ps.accepts.Command(*ps.loop, comp::Fn<PsAccept>, &ps);
}

// A client waits on the shared listener: take it, and tell Commonp whatever
// the accept gave.
void PsAccept(Ps& ps) {
    comp::AcceptOptions setup;
    setup.pPacer = &ps.accepts;
    setup.bPeerByGetpeer = true;
    comp::Accepted a = comp::AcceptOnCommand(ps.listenFd, ps.loop->TableSize(), setup);
    switch (a.outcome) {
        case comp::AcceptOutcome::kOk: break;
        case comp::AcceptOutcome::kReportFailed:
            wlog("SysTellCommonp error");
            ps.loop->Quit();
        case comp::AcceptOutcome::kAcceptFailed:
            if (a.err == EAGAIN) COMP_ERRLOG("[%s,%d]zzz", SRC_NAME, __LINE__);
            COMP_ERRLOG("[%s,%d]iSockAccept error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, a.err,
                        std::strerror(a.err));
            return;
        case comp::AcceptOutcome::kTooMany:
            COMP_ERRLOG("[%s,%d]Too many communication node.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                        std::strerror(errno));
            return;
        case comp::AcceptOutcome::kNoBlockFailed:
            a.fd.reset();
            COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, a.err, std::strerror(a.err));
            return;
        case comp::AcceptOutcome::kPeerFailed:
            COMP_ERRLOG("[%s,%d]iGetPeer error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, a.err,
                        std::strerror(a.err));
            return;
    }
    if (!ps.loop->Watch(a.fd.get(), comp::Role::kConn, comp::Fn<PsClient>, &ps)) return;
    const int cfd = a.fd.release();
    PsEntry& r = ps.rows.Open(cfd);
    std::memcpy(r.peerIp, a.ip, sizeof r.peerIp);
    r.lastActive = ps.loop->NowSec();
    const int64_t due = (static_cast<int64_t>(r.lastActive) + ps.beatInterval + 1) * comp::kUsecPerSec;
    if (due < ps.loop->Due(ps.liveTimer)) ps.loop->SetDue(ps.liveTimer, due);
    writelog(LOG_INFO, nullptr, 0, "%s,%d,New fd %d", SRC_NAME, __LINE__, cfd);
}

void PsSend(Ps& ps, int, unsigned) {
    int rc = SysSendMsg(ps);
    if (rc == -1) {
        COMP_ERRLOG("[%s,%d]SysSendMsg,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        ps.loop->Quit();
    }
    if (rc == -2) COMP_ERRLOG("[%s,%s,%d]socket error.", SRC_NAME, kMode, __LINE__);
}

// One message from TranP, sent to the descriptor its header names: 0 sent,
// -2 this message failed, -1 fatal.
int SysSendMsg(Ps& ps) {
    if (ps.route.caField[RT_MSGSNDTYPE][0] != '0') {
        COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE", SRC_NAME, __LINE__, __func__, "PLAT_STATICROUTEINF");
        return -1;
    }
    QueueMsg& buf = ps.buf;
    int len = SysReadPlatMsg(ps.fifos.notify, &buf);
    if (len < 0) return -1;
    if (len < comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d,%s]short message dropped,len=%d", SRC_NAME, __LINE__, __func__, len);
        return -2;
    }
    // The descriptor is taken as it stands: a client that has gone, or a
    // newer client on its number, gets what was meant for the old one. Only
    // this mode's own client connections are written to: a number that names
    // none of them (a FIFO, the listener) fails like a closed descriptor.
    const int fd = comp::HeaderInt(buf.caText, comp::plat::kSock);
    const char* body = buf.caText + comp::kPlatHdrLen;
    const int bodyLen = len - comp::kPlatHdrLen;
    if (!ps.loop->IsConn(fd)) {
        COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, __func__, EBADF);
        return -2;
    }
    if (iSockSend(fd, body, bodyLen) != 0) {
        int err = errno;
        ps.loop->Close(fd);
        COMP_ERRLOG("[%s,%d,%s]iSockSend error [%d]", SRC_NAME, __LINE__, __func__, err);
        return -2;
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, body, bodyLen, "[%s,%d,%s]write to net.len=%d", SRC_NAME, __LINE__, kMode, bodyLen);
    return 0;
}

void PsClient(Ps& ps, int fd, unsigned) {
    PsEntry& r = ps.rows[fd];
    QueueMsg& buf = ps.buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &ps.route, &buf, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        COMP_ERRLOG("[%s,%d]SysTcpRecvMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        ps.loop->Close(fd);
        return;
    }
    COMP_ERRLOG_DUMP(buf.caText, len, "[%s,%d]len=%d", SRC_NAME, __LINE__, len);

    // The port of a PS row stays -1, so this check always ends the process.
    int total = len <= kMaxPlatBody ? SysBuildPlatMsg(&buf, len, fd, &ps.route, r.peerIp, r.port) : -1;
    if (total < 0 || r.port < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        ps.loop->Quit();
    }
    buf.lMsgType = getpid();
    if (SysWriteQueue(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteMQ error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        ps.loop->Quit();
    }
    r.lastActive = ps.loop->NowSec();
}

// ---- time ---------------------------------------------------------------------

// After every pass: a live package on each connection whose silence exceeds
// the heartbeat interval. Sending one counts as activity, so a heartbeat
// interval shorter than the idle time-out keeps a silent client forever.
int64_t PsLive(Ps& ps, int64_t now) {
    const int32_t nowSec = static_cast<int32_t>(now / comp::kUsecPerSec);
    char live[kLiveBufLen + 64];
    ps.rows.ForEachOpen([&](int fd, PsEntry& r) {
        if (fd <= 0 || IsFifo(ps, fd) || nowSec - static_cast<int64_t>(r.lastActive) <= ps.beatInterval) return;
        writelog(LOG_INFO, nullptr, 0, "[%s,%s]%d send live pkg to [%.16s]", SRC_NAME, kMode, fd, r.peerIp);
        r.lastActive = nowSec;
        int liveLen = 0;
        SysDealBeatHeart(ps.routeId, live, &liveLen);
        if (iSockSend(fd, live, std::clamp(liveLen, 0, kLiveBufLen)) != 0) {
            COMP_ERRLOG("[%s,%d]send beat heart msg failed.", SRC_NAME, __LINE__);
            ps.loop->Close(fd);
        }
    });
    return LiveDue(ps);
}

// ---- quit -----------------------------------------------------------------------

void PsQuit(Ps& ps) {
    ps.rows.Clear();
    comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
}

}  // namespace
