// Persistent client mode (PC): one long-lived connection to the route's
// server. TranP's messages for the route go out on it, everything the server
// sends goes to TranP, and TranP hears of every connection made (N001) and
// lost (N003).
//
//   SysTCPPC            start-up: route, table, FIFOs, first connect, the loop
//   PcIdle              a link silent past the idle time-out is closed
//   PcControl           every command ends the process
//   PcRequest           TranP's doorbell -> SysSendMsg
//   PcServer            one message from the server -> TranP (RecvMsg)
//   SysKeepAlive        idle passes: a reconnect once the interval has passed
//   PcBeat              after every pass: heartbeats on a send-silent link
//   PcCloseHook         every close: the row remembers the loss, N003
//   PcQuit              queued messages and the notification FIFO
//
// The link is up (one row open), down (no row open; the last closed row, or
// row 0, remembers the server and when it was lost) or being made again (by
// SysKeepAlive on an idle pass, or at once by SysSendMsg when TranP has
// something to send and the discard rules allow it).
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "base/SysGlobals.h"
#include "base/SysIpcSeam.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPPC";
constexpr int kPreHdlBufLen = 1024;
constexpr int kBeatBufLen = 1024;
constexpr int64_t kWaitUsec = 10;
constexpr int kDiscardIntervals = 10;   // silence, in reconnect intervals, after which messages are dropped
constexpr const char* kDefaultLiveType = "0602";
constexpr int kMaxPlatBody = comp::kQueueTextLen - comp::kPlatHdrLen;

// One row of the socket table, indexed by the descriptor. Row 0 is never a
// socket: it holds the configured server until a connection takes over.
struct PcEntry {
    int32_t fd;            // -1: no connection in this row
    int32_t lastSend;      // connect, send or heartbeat; -1 never used; closed row: time of the loss
    int32_t lastRecv;      // connect, receive or close; the idle time-out counts from it
    int32_t port;          // server port, -1 unknown
    int32_t routeId;
    char peerIp[16];
    int32_t hdrA;          // PlatMsg header offset 8 of the last message sent
    int32_t hdrB;          // offset 20
    int16_t hdrC;          // offset 14
    uint16_t sentCount;    // data, acknowledgements and heartbeats; wraps at 65,536
    static void Free(PcEntry& r) { r = PcEntry{-1, -1, 0, -1, 0, {}, 0, 0, 0, 0}; }
};

struct Pc {
    char routeId[3] = {0};
    int routeNo = 0;
    RouteRecord route{};
    int headerLen = 0;
    int idleTimeout = 0;
    int reconnInterval = 0;
    int beatInterval = 0;
    bool beatOn = false;
    bool netRule = false;              // receive method "MP": the plug-in receiver
    char liveType[64] = {0};           // LIVEMSGTYPE: the server's heartbeat
    bool netErr = false;               // the last failed connect timed out
    bool noReceiver = false;           // the receiver plug-in lacked SysRcvMulPkg
    int instance = 0;
    comp::ModeFifos fifos;
    comp::SockTable<PcEntry> rows;     // pSockpcList
    std::optional<comp::Loop> loop;
    int keepAliveTimer = -1;
    int beatTimer = -1;
    long pid = 0;                      // queue message type of everything sent to TranP
    QueueMsg buf;                      // one message at a time, either way
    // What one receive took from the server, cut into messages from inPos.
    std::vector<char> in = std::vector<char>(2 * comp::kQueueTextLen);
    int inPos = 0, inEnd = 0;
};

int SysConnectIni(Pc& pc);
bool PcIdle(Pc& pc, int fd, int64_t now);
void PcControl(Pc& pc, int fd, unsigned ev);
void PcRequest(Pc& pc, int fd, unsigned ev);
int SysSendMsg(Pc& pc);
void PcServer(Pc& pc, int fd, unsigned ev);
bool PcReceived(Pc& pc, int fd);
void PcForward(Pc& pc, int fd, int len);
int RecvMsg(Pc& pc, int fd, int* total);
int64_t SysKeepAlive(Pc& pc, int64_t now);
int64_t PcBeat(Pc& pc, int64_t now);
void PcCloseHook(Pc& pc, int fd);
void PcQuit(Pc& pc);

}  // namespace

extern "C" {

int SysTCPPC(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static Pc pc;
    std::snprintf(pc.routeId, sizeof pc.routeId, "%s", pcRouteId);
    pc.routeNo = std::atoi(pcRouteId);
    pc.route = stRoute;
    pc.instance = iInstance;
    pc.pid = getpid();

    int lenWidth = 0, lenOff = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &pc.idleTimeout, &pc.headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    pc.reconnInterval = comp::RouteInt(stRoute, RT_RECONNINTERVAL);
    int tableSize = comp::ModeTableSize(SRC_NAME, __LINE__,
                                        "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost,errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    if (SysGetenvByName("LIVEMSGTYPE", pc.liveType) != 0) {
        writelog(LOG_WARN, nullptr, 0,
                 "[%s,%d]SysGetenvByName error or LIVEMSGTYPE lost in [LOADVARS],errno=%d,errmsg=[%s]", SRC_NAME,
                 __LINE__, errno, std::strerror(errno));
        std::snprintf(pc.liveType, sizeof pc.liveType, "%s", kDefaultLiveType);
    }
    pc.beatInterval = comp::RouteInt(stRoute, RT_BEATINTERVAL);
    pc.beatOn = comp::RouteText(stRoute, RT_BEATSWITCH)[0] != '0';
    pc.netRule = std::strcmp(comp::RouteText(stRoute, RT_RCVMETHOD), "MP") == 0;

    comp::Loop::Hooks hooks;
    hooks.ctx = &pc;
    hooks.idle = comp::Fn<PcIdle>;
    hooks.close = comp::Fn<PcCloseHook>;
    hooks.quit = comp::Fn<PcQuit>;
    pc.loop.emplace(comp::ModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec), hooks);
    comp::Loop& loop = *pc.loop;
    pc.rows.Reset(tableSize);
    for (int fd = 0; fd < tableSize; ++fd) {
        pc.rows[fd].lastRecv = loop.NowSec();
        pc.rows[fd].routeId = pc.routeNo;
    }

    char name[32];
    std::snprintf(name, sizeof name, "%s_%d", pcRouteId, iInstance);
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoRouteNotify, &pc.fifos) ||
        !loop.Watch(pc.fifos.ctl, comp::Role::kFixed, comp::Fn<PcControl>, &pc) ||
        !loop.Watch(pc.fifos.notify, comp::Role::kFixed, comp::Fn<PcRequest>, &pc)) {
        pc.rows.Clear();
        return -1;
    }
    for (int fd : {pc.fifos.ctl, pc.fifos.notify}) pc.rows.Open(fd).lastSend = loop.NowSec();

    // Reconnects only on idle passes, heartbeats after every pass.
    pc.keepAliveTimer = loop.AddTimer(comp::Phase::kIdlePass, comp::Fn<SysKeepAlive>, &pc);
    if (pc.beatOn) pc.beatTimer = loop.AddTimer(comp::Phase::kAfterDispatch, comp::Fn<PcBeat>, &pc);

    int rc = SysConnectIni(pc);
    if (rc == -2) {
        COMP_ERRLOG("[%s,%d]SysConnectIni error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        loop.Quit();
    }
    if (rc == -1) SysSendInnerMsg(pc.rows[0].peerIp, pc.routeNo, "N003");
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop.Run();
}

}  // extern "C"

namespace {

// ---- the link's rows ----------------------------------------------------------

bool IsFifo(const Pc& pc, int fd) { return fd == pc.fifos.ctl || fd == pc.fifos.notify; }

// The row of the open connection, or -1 when the link is down.
int LinkRow(Pc& pc) {
    for (int fd = 2; fd <= pc.rows.High(); ++fd)
        if (pc.rows[fd].fd >= 0 && !IsFifo(pc, fd)) return fd;
    return -1;
}

// The row that remembers where the server was: the first closed row that
// held a connection (lastSend above iMinSend), else row 0.
int HomeRow(Pc& pc, int32_t iMinSend, bool bNeedAddress) {
    for (int fd = 2; fd <= pc.rows.High(); ++fd) {
        const PcEntry& r = pc.rows[fd];
        if (r.fd >= 0 || IsFifo(pc, fd) || r.lastSend <= iMinSend) continue;
        if (!bNeedAddress || (r.peerIp[0] != '\0' && r.port > 0)) return fd;
    }
    return 0;
}

std::string RowIp(const PcEntry& r) { return std::string(r.peerIp, strnlen(r.peerIp, sizeof r.peerIp)); }

void Retire(PcEntry& r) {
    r.lastSend = -1;
    r.port = -1;
    std::memset(r.peerIp, 0, sizeof r.peerIp);
}

// When SysKeepAlive may act next: never while the link is up, else once the
// reconnect interval has passed since the remembered row's lastSend.
int64_t KeepAliveDue(Pc& pc) {
    if (LinkRow(pc) >= 0) return comp::Loop::kNever;
    const PcEntry& r = pc.rows[HomeRow(pc, -1, false)];
    return (static_cast<int64_t>(r.lastSend) + pc.reconnInterval) * comp::kUsecPerSec;
}

// The earliest time a heartbeat may be due: the interval after the open
// row's last send.
int64_t BeatDue(Pc& pc) {
    int fd = LinkRow(pc);
    if (fd < 0) return comp::Loop::kNever;
    return (static_cast<int64_t>(pc.rows[fd].lastSend) + pc.beatInterval) * comp::kUsecPerSec;
}

void MoveDueEarlier(Pc& pc, int timer, int64_t due) {
    if (timer >= 0 && due < pc.loop->Due(timer)) pc.loop->SetDue(timer, due);
}

// Connects to the server; the descriptor, or -1 after the caller's line.
// Every failed connect sets the network-route error flag: true when the
// connect timed out.
int ConnectServer(Pc& pc, const char* ip, int port, int* err) {
    comp::UniqueFd conn(iSockConnect(ip, port));
    *err = errno;
    if (!conn.valid()) {
        pc.netErr = *err == ETIMEDOUT;
        return -1;
    }
    return conn.release();
}

// Makes a fresh connection non-blocking, not readable before a whole header,
// and one of the loop's; false after closing it and logging why (who names
// the routine that connected).
bool AdoptConnection(Pc& pc, int fd, const char* who) {
    comp::UniqueFd conn(fd);
    if (fd >= pc.loop->TableSize()) {
        COMP_ERRLOG("[%s,%d,%s]too many fd,%d is bigger than %d. check sys.cfg [LOADVARS] part", SRC_NAME, __LINE__,
                    who, fd, pc.loop->TableSize());
        return false;
    }
    if (iNoblockFd(fd) != 0) {
        int err = errno;
        conn.reset();
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return false;
    }
    int lowat = pc.headerLen > 0 ? pc.headerLen : 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
    if (!pc.loop->Watch(fd, comp::Role::kConn, comp::Fn<PcServer>, &pc)) return false;
    conn.release();
    return true;
}

// The new link's row: open, both times now, the server's address.
PcEntry& OpenLink(Pc& pc, int fd, const std::string& ip, int port) {
    PcEntry& r = pc.rows.Open(fd);
    r.lastSend = r.lastRecv = pc.loop->NowSec();
    r.port = port;
    r.routeId = pc.rows[0].routeId;
    std::memset(r.peerIp, 0, sizeof r.peerIp);
    std::memcpy(r.peerIp, ip.data(), std::min(ip.size(), sizeof r.peerIp));
    pc.loop->SetDue(pc.keepAliveTimer, comp::Loop::kNever);
    MoveDueEarlier(pc, pc.beatTimer, BeatDue(pc));
    return r;
}

// ---- start-up -----------------------------------------------------------------

int SysConnectIni(Pc& pc) {
    const char* peer = comp::RouteText(pc.route, RT_IPPORT);
    if (std::strncmp(peer, "-1", 2) == 0) {
        COMP_ERRLOG("configure error");
        return -2;
    }
    char ip[64] = {0};
    int port = 0;
    if (SysGetIpAndPort(peer, ip, &port) != 0) {
        COMP_ERRLOG("[%s,%d]IP:PORT format was wrong[%s]", SRC_NAME, __LINE__, peer);
        return -2;
    }
    PcEntry& home = pc.rows[0];
    std::memcpy(home.peerIp, ip, sizeof home.peerIp);
    home.port = port;

    int err = 0;
    int fd = ConnectServer(pc, ip, port, &err);
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysConnectIni", err,
                    std::strerror(err));
        return -1;
    }
    if (!AdoptConnection(pc, fd, "SysConnectIni")) return -1;
    PcEntry& r = OpenLink(pc, fd, RowIp(home), port);
    r.sentCount = 0;
    SysSendInnerMsg(r.peerIp, pc.routeNo, "N001");
    writelog(LOG_INFO, nullptr, 0, "[%s,%d]iConnFd =%d", SRC_NAME, __LINE__, fd);
    return fd;
}

// ---- handlers, in the order the loop calls them -----------------------------

bool PcIdle(Pc& pc, int fd, int64_t now) {
    PcEntry& r = pc.rows[fd];
    if (now / comp::kUsecPerSec - r.lastRecv < pc.idleTimeout) return true;
    COMP_ERRLOG("[%s,%d]fd[%d] [%s]time out and close", SRC_NAME, __LINE__, fd, RowIp(r).c_str());
    pc.loop->Close(fd);
    return false;
}

// Every command ends a PC process.
void PcControl(Pc& pc, int fd, unsigned) {
    comp::ReadControlCmd(SRC_NAME, fd, false, "[%s,%d]iReadFIFO2Buf error,fatal error[%d]");
    pc.loop->Quit();
}

void PcRequest(Pc& pc, int, unsigned) {
    int rc = SysSendMsg(pc);
    if (rc == -1) {
        COMP_ERRLOG("[%s,%d]SysSendMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        pc.loop->Quit();
    }
    if (rc == -2) COMP_ERRLOG("[%s,%s,%d]SysPerClientReq error", SRC_NAME, kMode, __LINE__);
}

// Where TranP's message goes: the open connection (its row), or -1 with the
// row whose address is to be connected to in *home.
int SysGetSockOrIpPort(Pc& pc, int* home) {
    for (int fd = 0; fd <= pc.rows.High(); ++fd)
        if (pc.rows[fd].fd > 1 && !IsFifo(pc, fd)) return fd;
    *home = HomeRow(pc, 0, true);
    const PcEntry& r = pc.rows[*home];
    writelog(LOG_INFO, nullptr, 0, "[%s:%s:%d],[%s:%d] is going to reconnect by request msg !", SRC_NAME, __func__,
             __LINE__, RowIp(r).c_str(), r.port);
    return -1;
}

// A connection made because TranP has something to send; its descriptor, or
// -1 when the message is dropped (the line is written here).
int ConnectByRequest(Pc& pc, int home, const char* body, int bodyLen) {
    const int64_t now = pc.loop->NowSec();
    if (pc.reconnInterval > 0 &&
        now - pc.rows[0].lastRecv >= static_cast<int64_t>(kDiscardIntervals) * pc.reconnInterval) {
        COMP_ERRLOG_DUMP(body, bodyLen, "[%s,%d]discard msg!", SRC_NAME, __LINE__);
        return -1;
    }
    if (pc.netErr) {
        COMP_ERRLOG_DUMP(body, bodyLen, "[%s,%d]discard msg,network anomaly!", SRC_NAME, __LINE__);
        return -1;
    }
    const std::string ip = RowIp(pc.rows[home]);
    const int port = pc.rows[home].port;
    int err = 0;
    int fd = ConnectServer(pc, ip.c_str(), port, &err);
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysSendMsg", err,
                    std::strerror(err));
        return -1;
    }
    if (!AdoptConnection(pc, fd, "SysSendMsg")) return -1;
    if (home != fd) {
        PcEntry& old = pc.rows[home];
        Retire(old);
        if (old.fd > 0) {
            COMP_ERRLOG("ERR1");
            pc.loop->Close(old.fd);
        }
    }
    OpenLink(pc, fd, ip, port);
    SysSendInnerMsg(ip.c_str(), pc.routeNo, "N001");
    writelog(LOG_INFO, nullptr, 0, "[%s:%s:%d]connect by req msg[%s][%d]!", SRC_NAME, __func__, __LINE__, ip.c_str(),
             port);
    return fd;
}

// One message TranP queued for the route: 0 sent, -2 dropped, -1 fatal.
int SysSendMsg(Pc& pc) {
    if (pc.route.caField[RT_MSGSNDTYPE][0] != '1') {
        COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE", SRC_NAME, __LINE__, __func__, "PLAT_STATICROUTEINF");
        return -1;
    }
    QueueMsg& buf = pc.buf;
    int len = SysReadPlatMsgByRID(pc.routeId, pc.fifos.notify, &buf);
    if (len < 0) return -1;
    if (SysTraceEnabled(LOG_DEBUG))
        writelog(LOG_DEBUG, buf.caText, len, "[%s,%d]Read Queue,len=%d", SRC_NAME, __LINE__, len);
    if (len < comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d,%s]short message dropped,len=%d", SRC_NAME, __LINE__, __func__, len);
        return -2;
    }
    const char* hdr = buf.caText;
    const char* body = hdr + comp::kPlatHdrLen;
    int bodyLen = len - comp::kPlatHdrLen;

    int home = 0;
    int fd = SysGetSockOrIpPort(pc, &home);
    if (fd < 0 && (fd = ConnectByRequest(pc, home, body, bodyLen)) < 0) return -2;
    PcEntry& r = pc.rows[fd];
    r.lastSend = pc.loop->NowSec();
    r.hdrA = comp::HeaderInt(hdr, comp::plat::kPid2);
    r.hdrB = comp::HeaderInt(hdr, comp::plat::kSock2);
    std::memcpy(&r.hdrC, hdr + comp::plat::kRoute2, sizeof r.hdrC);

    char out[kPreHdlBufLen] = {0};
    const char* name = comp::RouteText(pc.route, RT_OUTPREHDL);
    if (name[0] != '\0') {
        int outLen = 0;
        if (SysPreHdl(pc.routeId, name, body, bodyLen, out, &outLen, r.sentCount) < 0) {
            COMP_ERRLOG("[%s,%d]SysPreHdl error", SRC_NAME, __LINE__);
            return 0;
        }
        if (outLen > 0) {
            body = out;
            bodyLen = std::min(outLen, kPreHdlBufLen);
        }
    }
    if (iSockSend(fd, body, bodyLen) != 0) {
        int err = errno;
        COMP_ERRLOG("[%s,%d,%s]iSockSend error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, __func__, err,
                    std::strerror(err));
        pc.loop->Close(fd);
        return -2;
    }
    ++r.sentCount;
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, body, bodyLen, "[%s,%d,%s]client write to net.len=%d", SRC_NAME, __LINE__, kMode, bodyLen);
    return 0;
}

// Runs the input pre-handling on a message from the server, sending its
// reply (an acknowledgement) at once; false when the message goes no
// further (consumed, failed, or the link was lost sending the reply).
bool PcInputPreHandling(Pc& pc, int fd, const char* msg, int len) {
    const char* name = comp::RouteText(pc.route, RT_INPREHDL);
    if (name[0] == '\0') return true;
    PcEntry& r = pc.rows[fd];
    char reply[kPreHdlBufLen] = {0};
    int replyLen = 0;
    int rc = SysPreHdl(pc.routeId, name, msg, len, reply, &replyLen, r.sentCount);
    replyLen = std::min(replyLen, kPreHdlBufLen);
    if (replyLen > 0) {
        if (iSockSend(fd, reply, replyLen) != 0) {
            COMP_ERRLOG("[%s,%d]%s", SRC_NAME, __LINE__, std::strerror(errno));
            pc.loop->Close(fd);
            return false;
        }
        writelog(LOG_INFO, reply, replyLen, "%s,%d,snd ack,len=%d", SRC_NAME, __LINE__, replyLen);
        ++r.sentCount;
    }
    if (rc == 1) {
        writelog(LOG_INFO, nullptr, 0, "[%s,%d]rcv ack", SRC_NAME, __LINE__);
        return false;
    }
    if (rc < 0) {
        COMP_ERRLOG("[%s,%d]SysPreHdl err", SRC_NAME, __LINE__);
        return false;
    }
    return true;
}

void PcServer(Pc& pc, int fd, unsigned) {
    if (pc.netRule) {
        pc.noReceiver = false;
        if (!PcReceived(pc, fd)) return;
        // Without a receiver nothing was read: the one-byte message has gone
        // on, and the link is dropped rather than read again on every pass.
        if (pc.noReceiver && pc.loop->IsConn(fd)) {
            COMP_ERRLOG("[%s,%d]libnetrule.so has no SysRcvMulPkg,fd=%d is closed", SRC_NAME, __LINE__, fd);
            pc.loop->Close(fd);
        }
        return;
    }
    // One receive takes what has come; the messages in it are cut and
    // forwarded in turn, the last one completed from the socket if it was
    // cut short.
    ssize_t n = comp::seam::IpcCallFails(comp::seam::kRecv) ? -1 : recv(fd, pc.in.data(), pc.in.size() / 2, 0);
    pc.inPos = 0;
    pc.inEnd = n > 0 ? static_cast<int>(n) : 0;
    while (PcReceived(pc, fd) && pc.inPos < pc.inEnd && pc.loop->IsConn(fd)) {
    }
}

// The next message from the server to TranP; false when the link was dropped
// because it could not be read.
bool PcReceived(Pc& pc, int fd) {
    int total = 0;
    int len = RecvMsg(pc, fd, &total);
    if (len < 0) {
        COMP_ERRLOG("[%s,%d,%s]RecvMsg error,fd=%d ,iTotalLen=%d", SRC_NAME, __LINE__, kMode, fd, total);
        pc.loop->Close(fd);
        return false;
    }
    PcForward(pc, fd, len);
    return true;
}

// A message from the server: a heartbeat only refreshes the link, the input
// pre-handling may consume it, everything else goes to TranP.
void PcForward(Pc& pc, int fd, int len) {
    QueueMsg& buf = pc.buf;
    PcEntry& r = pc.rows[fd];
    r.lastRecv = pc.rows[0].lastRecv = pc.loop->NowSec();
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, buf.caText, len, "[%s,%d]rcv net,len[%d]", SRC_NAME, __LINE__, len);

    char type[32] = {0};
    if (SysGetMsgTypeFromMsg(buf.caText, len, pc.routeId, type) != 0) {
        COMP_ERRLOG("SysGetMsgTypeFromHead err");
        pc.loop->Close(fd);
        return;
    }
    if (std::strcmp(type, pc.liveType) == 0) return;
    if (!PcInputPreHandling(pc, fd, buf.caText, len)) return;

    // The server may frame more than a platform message can carry: that one
    // message is dropped, the stream stays in step.
    if (len > kMaxPlatBody) {
        COMP_ERRLOG("[%s,%d]message of %d bytes exceeds the %d a platform message carries,dropped", SRC_NAME,
                    __LINE__, len, kMaxPlatBody);
        return;
    }
    int plat = SysBuildPlatMsg(&buf, len, fd, &pc.route, r.peerIp, r.port);
    if (plat < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        pc.loop->Quit();
    }
    buf.lMsgType = pc.pid;
    if (SysWriteQueueNoWait(&buf, plat, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteMQ error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        pc.loop->Quit();
    }
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, buf.caText, plat, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, plat);
}

// Makes sure `want` bytes of the server's stream stand from pc.inPos,
// reading the missing ones from the socket as a single message would be read
// (a short wait for each); false when they did not come.
bool Fill(Pc& pc, int fd, int want, int* have) {
    if (pc.inEnd - pc.inPos < want) {
        if (pc.inPos + want > static_cast<int>(pc.in.size())) {
            std::memmove(pc.in.data(), pc.in.data() + pc.inPos, static_cast<size_t>(pc.inEnd - pc.inPos));
            pc.inEnd -= pc.inPos;
            pc.inPos = 0;
        }
        int got = iSockRecv(fd, pc.in.data() + pc.inEnd, want - (pc.inEnd - pc.inPos));
        if (got > 0) pc.inEnd += got;
    }
    *have = pc.inEnd - pc.inPos;
    return *have >= want;
}

// The next message from the server, in pc.buf: its length; -1 on a framing
// or receiver failure, -2 when it was cut short.
int RecvMsg(Pc& pc, int fd, int* total) {
    char* msg = pc.buf.caText;
    if (pc.netRule) {
        const comp::NetRuleCall call{pc.routeNo, fd, msg, pc.headerLen, &pc.route, total};
        int len = comp::RecvByNetRule(SRC_NAME, call, &pc.noReceiver);
        if (pc.noReceiver) msg[0] = '\0';   // the one byte of a "message" nobody read
        return len > comp::kMaxNetMsgLen ? -1 : len;
    }
    const int hl = pc.headerLen;
    int have = 0;
    if (!Fill(pc, fd, hl, &have)) {
        COMP_ERRLOG("[%s,%d]%s,fd=%d ,iRet=%d,errno=%d,[%s]", SRC_NAME, __LINE__, __func__, fd, have, errno,
                    std::strerror(errno));
        return -2;
    }
    int body = SysGetLenFromHead(pc.in.data() + pc.inPos, &pc.route, hl);
    if (body < 0) {
        COMP_ERRLOG_DUMP(pc.in.data() + pc.inPos, hl, "[%s,%d]SysGetLenFromHead error.", SRC_NAME, __LINE__);
        return -1;
    }
    if (body > 0 && !Fill(pc, fd, hl + body, &have)) {
        COMP_ERRLOG("[%s,%d,%s],fd=%d,iRet=%d,errno=%d,[%s],%d", SRC_NAME, __LINE__, __func__, fd, have - hl, errno,
                    std::strerror(errno), body);
        if (have > hl) COMP_ERRLOG_DUMP(pc.in.data() + pc.inPos, hl, "出错包的header如下[%s,%d]", SRC_NAME, __LINE__);
        return -2;
    }
    std::memcpy(msg, pc.in.data() + pc.inPos, static_cast<size_t>(hl + body));
    pc.inPos += hl + body;
    *total = hl + body;
    return hl + body;
}

// ---- time ---------------------------------------------------------------------

// On an idle pass: while the link is down, one reconnect once the reconnect
// interval has passed since the remembered row's last send. A failed attempt
// counts as that row's last send, so attempts come one interval apart.
int64_t SysKeepAlive(Pc& pc, int64_t now) {
    if (LinkRow(pc) >= 0) return comp::Loop::kNever;
    const int32_t nowSec = static_cast<int32_t>(now / comp::kUsecPerSec);
    const int home = HomeRow(pc, -1, false);
    PcEntry& cand = pc.rows[home];
    if (nowSec - static_cast<int64_t>(cand.lastSend) < pc.reconnInterval) return KeepAliveDue(pc);
    cand.lastSend = nowSec;
    if (home == 0) cand.lastRecv = nowSec;

    const std::string ip = RowIp(cand);
    int err = 0;
    int fd = ConnectServer(pc, ip.c_str(), cand.port, &err);
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect [%s:%d]error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, "SysKeepAlive",
                    ip.c_str(), cand.port, err, std::strerror(err));
        return KeepAliveDue(pc);
    }
    if (!AdoptConnection(pc, fd, "SysKeepAlive")) return KeepAliveDue(pc);
    const int port = cand.port;
    OpenLink(pc, fd, ip, port);
    if (home != fd) {
        PcEntry& old = pc.rows[home];
        old.lastRecv = nowSec;
        Retire(old);
    }
    SysSendInnerMsg(ip.c_str(), pc.routeNo, "N001");
    writelog(LOG_INFO, nullptr, 0, "[%s,%s:%d]zzz reconnect[%s:%d],fd %d", SRC_NAME, __func__, __LINE__, ip.c_str(),
             port, fd);
    return comp::Loop::kNever;
}

// After every pass: a heartbeat on the link once it has sent nothing for the
// heartbeat interval.
int64_t PcBeat(Pc& pc, int64_t now) {
    const int fd = LinkRow(pc);
    if (fd < 0) return comp::Loop::kNever;
    PcEntry& r = pc.rows[fd];
    const int32_t nowSec = static_cast<int32_t>(now / comp::kUsecPerSec);
    if (nowSec - static_cast<int64_t>(r.lastSend) < pc.beatInterval) return BeatDue(pc);

    char beat[kBeatBufLen + 64] = {0};
    int beatLen = 0;
    SysDealBeatHeart(pc.routeId, beat, &beatLen);
    beatLen = std::clamp(beatLen, 0, kBeatBufLen);
    writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]", SRC_NAME, __LINE__);
    const char* data = beat;
    char out[kPreHdlBufLen] = {0};
    const char* name = comp::RouteText(pc.route, RT_OUTPREHDL);
    if (name[0] != '\0') {
        int outLen = 0;
        if (SysPreHdl(pc.routeId, name, beat, beatLen, out, &outLen, r.sentCount) < 0) {
            COMP_ERRLOG("[%s,%d]SysPreHdl error", SRC_NAME, __LINE__);
            return BeatDue(pc);
        }
        if (outLen > 0) {
            data = out;
            beatLen = std::min(outLen, kPreHdlBufLen);
        }
    }
    if (iSockSend(fd, data, beatLen) != 0) {
        COMP_ERRLOG("[%s,%d,%s]snd beat heart msg to [%s] error", SRC_NAME, __LINE__, kMode, RowIp(r).c_str());
        pc.loop->Close(fd);
        return comp::Loop::kNever;
    }
    ++r.sentCount;
    if (SysTraceEnabled(LOG_INFO))
        writelog(LOG_INFO, data, beatLen, "[%s,%d,%s]send beat heart msg to %s:%d", SRC_NAME, __LINE__, kMode,
                 RowIp(r).c_str(), r.port);
    r.lastSend = nowSec;
    return BeatDue(pc);
}

// ---- close and quit -----------------------------------------------------------

// Every loss of the link: the row keeps the server's address and the time of
// the loss (the reconnect interval counts from it), and TranP hears N003.
void PcCloseHook(Pc& pc, int fd) {
    PcEntry& r = pc.rows[fd];
    r.fd = -1;
    r.lastSend = r.lastRecv = pc.loop->NowSec();
    SysSendInnerMsg(r.peerIp, pc.routeNo, "N003");
    pc.loop->SetDue(pc.keepAliveTimer, KeepAliveDue(pc));
}

void PcQuit(Pc& pc) {
    pc.rows.Clear();
    SysCleanQueue(pc.pid);
    char name[32];
    std::snprintf(name, sizeof name, "%s_%d", pc.routeId, pc.instance);
    SysCleanIpcFileById(name, comp::kFifoRouteNotify);
}

}  // namespace
