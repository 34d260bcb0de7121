// Synchronous persistent client mode (PCSYN): one long-lived connection to
// the route's server, which polls. Every request of the server is answered at
// once, with the next message TranP queued for the route or with the no-data
// frame; nothing is sent unasked. Requests that carry data go on to TranP.
//
//   SysTCPPCSYN            start-up: route, the 25-second wait, FIFOs, the first connect, the loop
//   SysConnectIni          the first connect, tried every 5 seconds until it holds
//   SysKeepAlive           a lost link is connected again once the reconnect interval has passed
//   PcsynSilent            a link silent for the receive time-out is dropped, with the route's queue
//   PcsynControl           every command ends the process
//   PcsynDoorbell          TranP's doorbell (SysReadPipe); the message waits for the next request
//   PcsynRequest           one request -> SysGetAndSendTaskMsg -> TranP
//   PcsynCloseHook         the row keeps the server's address; N003
//   PcsynQuit              this process's queued messages and the route FIFO
//
// The rows of the table outlive their connection: a closed row keeps the
// server's address and the time of the loss, from which the reconnect
// interval counts.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SynFrame.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPPCSYN";
constexpr int64_t kWaitUsec = 10;
constexpr int64_t kStartWaitUsec = 25 * comp::kUsecPerSec;
constexpr int64_t kConnectPauseUsec = 5 * comp::kUsecPerSec;
constexpr uint8_t kSerialAtConnect = 255;   // so that the first request carries 0

// One row of pSockSynList, indexed by the descriptor: the persistent
// client's row with a one-byte serial in place of its counter.
struct SynEntry {
    int32_t fd;          // -1: no connection open in this row
    int32_t lastSend;    // connect or failed attempt; -1 in a row never used; the reconnect interval counts from it
    int32_t lastRecv;    // connect, request or close; the receive time-out counts from it
    int32_t port;
    int32_t routeId;
    char peerIp[16];
    int32_t hdrA, hdrB;  // header copies of the persistent client's row; unused here
    int16_t hdrC;
    uint8_t serial;      // serial of the last answer sent
};

struct Pcsyn {
    char routeId[3] = {0};
    int routeNo = 0;
    RouteRecord route{};
    int headerLen = 0;
    int recvTimeout = 0;          // the idle time-out field
    int reconnInterval = 0;
    bool offline = false;         // OFFLINEMODE Y: a receive error also empties the route's queue
    int keepFailures = 0;         // failed reconnects: 1, 2, 1, 2, ...
    comp::ModeFifos fifos;
    char notifyName[32] = {0};    // "<route>_<instance>"
    std::vector<SynEntry> rows;   // pSockSynList
    std::vector<int> links;       // rows that hold the server's address, ascending
    std::optional<comp::Loop> loop;
    int keepTimer = -1;
    QueueMsg in;                  // one request at a time
    QueueMsg task;                // the message that answers it
};
// The C routines of this mode keep their signatures and find it through this.
Pcsyn* g_pcsyn = nullptr;

int SysConnectIni(RouteRecord stRoute, int iNotifyFd);
int SysKeepAlive(int iCtlFd, int iNotifyFd, int iTableSize, int iInterval, RouteRecord stRoute, int* piFailures);
int64_t PcsynKeepAliveTimer(Pcsyn& p, int64_t now);
bool PcsynSilent(Pcsyn& p, int fd, int64_t now);
void PcsynControl(Pcsyn& p, int fd, unsigned ev);
void PcsynDoorbell(Pcsyn& p, int fd, unsigned ev);
void PcsynRequest(Pcsyn& p, int fd, unsigned ev);
void PcsynCloseHook(Pcsyn& p, int fd);
void PcsynQuit(Pcsyn& p);
int32_t FreshSec(Pcsyn& p);
int DiscardRouteQueue(Pcsyn& p);

}  // namespace

extern "C" {

int SysTCPPCSYN(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static std::optional<Pcsyn> state;
    state.emplace();
    Pcsyn& p = *state;
    g_pcsyn = &p;
    std::snprintf(p.routeId, sizeof p.routeId, "%s", pcRouteId);
    p.routeNo = std::atoi(p.routeId);
    p.route = stRoute;

    int lenWidth = 0, lenOff = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &p.recvTimeout, &p.headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    p.reconnInterval = comp::RouteInt(stRoute, RT_RECONNINTERVAL);
    const int tableSize =
        comp::ModeTableSize(SRC_NAME, __LINE__, "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost,errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    char value[256] = {0};
    p.offline = SysGetenvByName("OFFLINEMODE", value) == 0 && (value[0] == 'Y' || value[0] == 'y');

    comp::Loop::Hooks hooks;
    hooks.ctx = &p;
    hooks.idle = comp::Fn<PcsynSilent>;
    hooks.close = comp::Fn<PcsynCloseHook>;
    hooks.quit = comp::Fn<PcsynQuit>;
    comp::Loop::Setup setup = comp::ModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec);
    p.loop.emplace(setup, hooks);
    comp::Loop& loop = *p.loop;
    p.keepTimer = loop.AddTimer(comp::Phase::kBeforeWait, comp::Fn<PcsynKeepAliveTimer>, &p, comp::Loop::kNever);

    // The server is given time to come up with the platform (kept).
    loop.clock().SleepUsec(kStartWaitUsec);
    p.rows.assign(static_cast<size_t>(tableSize), SynEntry{-1, -1, 0, -1, p.routeNo, {}, 0, 0, 0, kSerialAtConnect});

    std::snprintf(p.notifyName, sizeof p.notifyName, "%s_%d", p.routeId, iInstance);
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, p.notifyName, comp::kFifoRouteNotify, &p.fifos) ||
        !loop.Watch(p.fifos.ctl, comp::Role::kFixed, comp::Fn<PcsynControl>, &p) ||
        !loop.Watch(p.fifos.notify, comp::Role::kFixed, comp::Fn<PcsynDoorbell>, &p))
        return -1;
    for (int fd : {p.fifos.ctl, p.fifos.notify}) {
        p.rows[fd].fd = fd;
        p.rows[fd].lastSend = FreshSec(p);
    }
    writelog(LOG_DEBUG, nullptr, 0, "Begin Working");

    if (SysConnectIni(stRoute, p.fifos.notify) != 0) {
        COMP_ERRLOG("[%s,%d]SysConnectIni error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        loop.Quit();
    }
    return loop.Run();
}

// Takes one doorbell from TranP. The message itself stays in the queue until
// the server's next request asks for it. 0, or -1 (fatal).
int SysReadPipe(int iNotifyFd, const char* /*pcRouteId*/, RouteRecord stRoute) {
    if (stRoute.caField[RT_MSGSNDTYPE][0] != '1') {
        COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE", SRC_NAME, __LINE__, __func__, "PLAT_STATICROUTEINF");
        return -1;
    }
    if (iReadFIFO(iNotifyFd) != 0) {
        COMP_ERRLOG("[%s,%d]iReadFIFO error,fatal error[%d]", SRC_NAME, __LINE__, errno);
        return -1;
    }
    return 0;
}

// Checks one request of the server and answers it: the command (1, 2 or 4),
// -2 when the frame is bad or the answer cannot be sent (the link goes), -1
// when the queue cannot be read (fatal).
int SysGetAndSendTaskMsg(const char* pcRouteId, char* pcFrame, int iLen, int iFd) {
    if (g_pcsyn == nullptr || iFd < 0 || iFd >= static_cast<int>(g_pcsyn->rows.size())) return -2;
    Pcsyn& p = *g_pcsyn;
    SynEntry& r = p.rows[iFd];
    const std::span<const char> frame(pcFrame, iLen > 0 ? static_cast<size_t>(iLen) : 0);
    const comp::syn::Step step = comp::syn::ClientStep(frame, r.serial);
    if (step.verdict == comp::syn::Verdict::kMalformed) {
        COMP_ERRLOG_DUMP(pcFrame, iLen, "[%s,%d]Client received a invalid request.", SRC_NAME, __LINE__);
        return -2;
    }
    if (step.verdict == comp::syn::Verdict::kBadSerial) {
        COMP_ERRLOG("[%s,%d]serial number of received msg is invalid. expect[%d] net[%d]", SRC_NAME, __LINE__,
                    static_cast<uint8_t>(r.serial + 1), comp::syn::Serial(frame));
        return -2;
    }
    if (!step.answer) {
        writelog(LOG_DEBUG, nullptr, 0, "RCV NODATA");
        return step.cmd;
    }
    const int qid = g_stMsgQCntl[comp::kQueueFromTranp].iId;
    p.task.lMsgType = std::atol(pcRouteId);
    int taskLen = MsgReadNoWait(qid, &p.task);
    if (taskLen < 0) {
        COMP_ERRLOG("[%s:%s:%d]Read queue [%d] error !", SRC_NAME, __func__, __LINE__, qid);
        return -1;
    }
    r.serial = static_cast<uint8_t>(r.serial + 1);
    char empty[comp::syn::kEmptyLen];
    const comp::syn::Answer a = comp::syn::MakeAnswer(p.task.caText, taskLen, comp::syn::kCmdNoData, r.serial, empty);
    if (a.tooShort)
        COMP_ERRLOG_DUMP(p.task.caText, taskLen, "[%s,%d]message of %d bytes holds no frame,answered with no data",
                         SRC_NAME, __LINE__, taskLen);
    if (iSockSend(iFd, a.data, a.len) != 0) {
        COMP_ERRLOG("[%s,%d,%s]iSockSend error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, kMode, errno,
                    std::strerror(errno));
        return -2;
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, a.data, a.len, "[%s,%d]Client write to net succ.len=%d", SRC_NAME, __LINE__, a.len);
    return step.cmd;
}

}  // extern "C"

namespace {

int32_t FreshSec(Pcsyn& p) { return static_cast<int32_t>(p.loop->clock().NowUsec() / comp::kUsecPerSec); }

// Empties the route's queue; how many messages went.
int DiscardRouteQueue(Pcsyn& p) {
    int n = SysCleanQueue(p.routeNo);
    return n > 0 ? n : 0;
}

void SendNotice(Pcsyn& p, const char* ip, const char* code) {
    if (SysSendInnerMsg(ip, p.routeNo, code) != 0)
        COMP_ERRLOG("[%s,%d,%s]routeid[%d] %s to tranp failed", SRC_NAME, __LINE__, kMode, p.routeNo, code);
}

// Takes descriptor fd as the link to ip:port in row fd. False when the loop
// cannot wait on it.
bool TakeLink(Pcsyn& p, int fd, const char* ip, int port, int32_t now) {
    if (!p.loop->Watch(fd, comp::Role::kConn, comp::Fn<PcsynRequest>, &p)) return false;
    SynEntry& r = p.rows[fd];
    r.fd = fd;
    r.lastSend = r.lastRecv = now;
    r.port = port;
    r.routeId = p.routeNo;
    std::memset(r.peerIp, 0, sizeof r.peerIp);
    std::memcpy(r.peerIp, ip, strnlen(ip, sizeof r.peerIp));
    r.serial = kSerialAtConnect;
    auto it = std::lower_bound(p.links.begin(), p.links.end(), fd);
    if (it == p.links.end() || *it != fd) p.links.insert(it, fd);
    return true;
}

// The first connect: tried every 5 seconds until it holds. While it fails,
// TranP is told once that the link is down, and every second failure drops
// what TranP queued for the route meanwhile. 0 (also when the route has no
// server), -1, or -2 when the parent went away meanwhile.
int SysConnectIni(RouteRecord stRoute, int iNotifyFd) {
    Pcsyn& p = *g_pcsyn;
    COMP_ERRLOG("[%s,%d]SysConnectIni begin,server[%s]", SRC_NAME, __LINE__, stRoute.caField[RT_IPPORT]);
    if (std::strncmp(stRoute.caField[RT_IPPORT], "-1", 2) == 0) return 0;
    char ip[64] = {0};
    int port = 0;
    if (SysGetIpAndPort(stRoute.caField[RT_IPPORT], ip, &port) != 0) {
        COMP_ERRLOG("[%s,%d]IP:PORT format was wrong[%s]", SRC_NAME, __LINE__, stRoute.caField[RT_IPPORT]);
        p.loop->clock().SleepUsec(kConnectPauseUsec);
        return -1;
    }
    int failures = 0;
    comp::UniqueFd conn;
    for (int attempt = 1;; ++attempt) {
        conn.reset(iSockConnect(ip, port));
        if (conn.valid()) break;
        COMP_ERRLOG("[%s,%d,%s]iSockConnect error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysConnectIni", errno,
                    std::strerror(errno));
        if (attempt == 1) {
            SendNotice(p, ip, "N003");
            COMP_ERRLOG("[%s,%d,%s][%d]%s to tranp", SRC_NAME, __LINE__, kMode, p.routeNo, "N003");
        }
        failures = failures == 1 ? 2 : 1;
        if (failures == 2) {
            iClearFIFO(iNotifyFd);
            if (int n = DiscardRouteQueue(p); n > 0)
                COMP_ERRLOG("[%s,%d,%s]%d messages are discarded", SRC_NAME, __LINE__, kMode, n);
        }
        if (getppid() == 1) return -2;
        p.loop->clock().SleepUsec(kConnectPauseUsec);
    }
    if (conn.get() >= static_cast<int>(p.rows.size())) {
        COMP_ERRLOG("[%s,%d,%s]fd %d is too large", SRC_NAME, __LINE__, "SysConnectIni", conn.get());
        return -1;
    }
    if (iNoblockFd(conn.get()) != 0) {
        int err = errno;
        conn.reset();
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return -1;
    }
    if (!TakeLink(p, conn.get(), ip, port, FreshSec(p))) return -1;
    conn.release();
    SendNotice(p, ip, "N001");
    COMP_ERRLOG("[%s,%d,%s][%d]%s to tranp", SRC_NAME, __LINE__, kMode, p.routeNo, "N001");
    return 0;
}

// One reconnect attempt for every lost link whose reconnect interval has
// passed. Every second failed attempt drops what TranP queued for the route.
int SysKeepAlive(int /*iCtlFd*/, int /*iNotifyFd*/, int iTableSize, int iInterval, RouteRecord /*stRoute*/,
                 int* piFailures) {
    Pcsyn& p = *g_pcsyn;
    const int32_t now = p.loop->NowSec();
    auto due = [&](const SynEntry& r) { return r.fd < 0 && r.lastSend >= 0 && now - r.lastSend >= iInterval; };
    if (std::none_of(p.links.begin(), p.links.end(), [&](int row) { return due(p.rows[row]); })) return 0;
    int rc = 0;
    const std::vector<int> candidates = p.links;   // a reconnect changes the list
    for (int row : candidates) {
        SynEntry& old = p.rows[row];
        if (!due(old)) continue;
        comp::UniqueFd conn(iSockConnect(old.peerIp, old.port));
        if (!conn.valid()) {
            COMP_ERRLOG("[%s,%d,%s]iSockConnect [%s:%d]error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysKeepAlive",
                        old.peerIp, old.port, errno, std::strerror(errno));
            old.lastSend = FreshSec(p);
            *piFailures = *piFailures == 1 ? 2 : 1;
            if (*piFailures == 2)
                if (int n = DiscardRouteQueue(p); n > 0)
                    COMP_ERRLOG("[%s,%d,%s]%d messages are discarded", SRC_NAME, __LINE__, kMode, n);
            rc = -1;
            continue;
        }
        const int fd = conn.get();
        char ip[sizeof old.peerIp + 1] = {0};
        std::memcpy(ip, old.peerIp, sizeof old.peerIp);
        const int port = old.port;
        // A descriptor the table cannot hold, or one that cannot be made
        // non-blocking, counts as an attempt: the next waits its interval.
        if (fd >= iTableSize || iNoblockFd(fd) != 0 || !TakeLink(p, fd, ip, port, FreshSec(p))) {
            COMP_ERRLOG("[%s,%d,%s]fd %d is too large", SRC_NAME, __LINE__, "SysKeepAlive", fd);
            old.lastSend = FreshSec(p);
            rc = -1;
            continue;
        }
        conn.release();
        if (fd != row) {
            old.lastSend = -1;
            old.port = -1;
            old.serial = kSerialAtConnect;
            std::memset(old.peerIp, 0, sizeof old.peerIp);
            p.links.erase(std::find(p.links.begin(), p.links.end(), row));
        }
        COMP_ERRLOG("[%s,%s:%d]zzz reconnect[%s:%d]", SRC_NAME, __func__, __LINE__, ip, port);
        SendNotice(p, ip, "N001");
        COMP_ERRLOG("[%s,%d,%s]%s to tranp", SRC_NAME, __LINE__, kMode, "N001");
    }
    return rc;
}

// ---- handlers, in the order the loop calls them -----------------------------

// Runs before every wait; the earliest moment a lost link may be tried again.
int64_t PcsynKeepAliveTimer(Pcsyn& p, int64_t) {
    SysKeepAlive(p.fifos.ctl, p.fifos.notify, static_cast<int>(p.rows.size()), p.reconnInterval, p.route,
                 &p.keepFailures);
    int64_t due = comp::Loop::kNever;
    for (int row : p.links) {
        const SynEntry& r = p.rows[row];
        if (r.fd < 0 && r.lastSend >= 0)
            due = std::min(due, (static_cast<int64_t>(r.lastSend) + p.reconnInterval) * comp::kUsecPerSec);
    }
    return due;
}

// The server polls; a link silent for the receive time-out is dead, and
// what TranP queued for it goes too.
bool PcsynSilent(Pcsyn& p, int fd, int64_t now) {
    if (now / comp::kUsecPerSec - p.rows[fd].lastRecv < p.recvTimeout) return true;
    COMP_ERRLOG("[%s,%d]Client didn't recv msg in %ds,time out", SRC_NAME, __LINE__, p.recvTimeout);
    if (int n = DiscardRouteQueue(p); n > 0)
        COMP_ERRLOG("[%s,%d,%s]%d messages are discarded", SRC_NAME, __LINE__, kMode, n);
    p.loop->Close(fd);
    return false;
}

void PcsynControl(Pcsyn& p, int fd, unsigned) {
    comp::ReadControlCmd(SRC_NAME, fd, false, "[%s,%d]iReadFIFO2Buf error,fatal error[%d]");
    p.loop->Quit();
}

void PcsynDoorbell(Pcsyn& p, int fd, unsigned) {
    if (SysReadPipe(fd, p.routeId, p.route) != 0) {
        COMP_ERRLOG("[%s,%d]SysReadPipe error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        p.loop->Quit();
    }
}

// Reads one whole frame into p.in: its length, or -1 after the log line.
int ReadRequest(Pcsyn& p, int fd) {
    char* text = p.in.caText;
    errno = 0;
    int got = p.headerLen >= 0 ? iSockRecv(fd, text, p.headerLen) : -1;
    if (got != p.headerLen) {
        COMP_ERRLOG("[%s,%d]%s,fd=%d,iRet=%d,errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, "iSockRecv", fd, got, errno,
                    std::strerror(errno));
        return -1;
    }
    const int bodyLen = SysGetLenFromHead(text, &p.route, p.headerLen);
    if (bodyLen < 0) {
        COMP_ERRLOG_DUMP(text, p.headerLen, "[%s,%d]SysGetLenFromHead error.iHeaderLen=[%d]", SRC_NAME, __LINE__,
                         p.headerLen);
        return -1;
    }
    if (bodyLen > 0) {
        errno = 0;
        got = iSockRecv(fd, text + p.headerLen, bodyLen);
        if (got != bodyLen) {
            COMP_ERRLOG("[%s,%d]%s,fd=%d,iRet=%d,errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, "iSockRecv", fd, got,
                        errno, std::strerror(errno));
            return -1;
        }
    }
    const int len = p.headerLen + bodyLen;
    if (SysTraceEnabled(LOG_INFO)) writelog(LOG_INFO, text, len, "[%s,%d,%s]rcv len[%d]", SRC_NAME, __LINE__, kMode, len);
    return len;
}

void PcsynRequest(Pcsyn& p, int fd, unsigned) {
    const int len = ReadRequest(p, fd);
    if (len < 0) {
        p.loop->Close(fd);
        if (p.offline)
            if (int n = DiscardRouteQueue(p); n > 0)
                COMP_ERRLOG("[%s,%d,%s]%d messages are discarded,comp running in abnormal mode.", SRC_NAME, __LINE__,
                            kMode, n);
        return;
    }
    const int cmd = SysGetAndSendTaskMsg(p.routeId, p.in.caText, len, fd);
    if (cmd == -1) {
        COMP_ERRLOG("[%s,%d]SysGetAndSendTaskMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        p.loop->Quit();
    }
    if (cmd == -2) {
        COMP_ERRLOG("[%s,%d]SysGetAndSendTaskMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        p.loop->Close(fd);
        return;
    }
    SynEntry& r = p.rows[fd];
    r.lastRecv = p.loop->NowSec();
    if (cmd != comp::syn::kCmdData) return;

    // A frame longer than a platform message can carry is the server's
    // fault: it was answered, but goes no further.
    if (len > comp::kQueueTextLen - comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d]frame of %d bytes exceeds the %d a platform message carries,dropped", SRC_NAME, __LINE__,
                    len, comp::kQueueTextLen - comp::kPlatHdrLen);
        return;
    }
    const int total = SysBuildPlatMsg(&p.in, len, fd, &p.route, r.peerIp, r.port);
    if (total < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        p.loop->Quit();
    }
    p.in.lMsgType = getpid();
    if (SysWriteQueue(&p.in, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteMQ error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        p.loop->Quit();
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, p.in.caText, total, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, total);
}

// ---- close and quit ---------------------------------------------------------

// The row stays the route's: it keeps the server's address, and the
// reconnect interval counts from now.
void PcsynCloseHook(Pcsyn& p, int fd) {
    SynEntry& r = p.rows[fd];
    r.fd = -1;
    r.lastSend = r.lastRecv = p.loop->NowSec();
    SendNotice(p, r.peerIp, "N003");
    COMP_ERRLOG("[%s,%d,%s]routeid[%d] %s to tranp", SRC_NAME, __LINE__, kMode, p.routeNo, "N003");
    p.loop->SetDue(p.keepTimer, (static_cast<int64_t>(r.lastSend) + p.reconnInterval) * comp::kUsecPerSec);
}

void PcsynQuit(Pcsyn& p) {
    p.rows.clear();
    SysCleanQueue(getpid());
    SysCleanIpcFileById(p.notifyName, comp::kFifoRouteNotify);
}

}  // namespace
