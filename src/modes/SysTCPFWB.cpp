// Forwarder mode (FWB): local clients, accepted from the listener shared with
// the supervisor, are relayed to one upper server over a single connection.
// Every unit on that connection carries the 64-byte extended header naming
// its client (modes/FwHeader.h): "A" when a client came, "F" with each of its
// messages, "Z" when it left, "B" beats; the server's answers come back
// behind an "F" header and go to the client with that address and port.
//
//   SysTCPFWB            start-up: variables, table, FTP fields, the first
//                        connect, control FIFO, the loop
//   FwbServerIdle        (before the wait) a server silent for the idle
//                        time-out is dropped, and every client with it
//   FwbReconnect         (before the wait) the server is reconnected once
//                        the reconnect interval has passed
//   FwbControl           "x" quits, "0" accepts one client (FwbAccept)
//   FwbFromServer        one unit from the server -> the client it names
//   FwbFromClient        one message of a client -> the server behind "F";
//                        client beats are echoed
//   FwbBeat              (after dispatch) "B" when the link has been quiet
//   FwbCloseHook         registry and connection logs of every close
//   FwbQuit              table and control FIFO
//
// A client is open only while the server connection it was announced on is
// up: losing the server closes every client (SysCloseAll), and a client that
// cannot be announced is closed at once. Writes to a client never wait: a
// client whose socket does not take an answer at once is closed, so one slow
// client cannot hold back the others.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
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
#include "config/FileOpApp.h"
#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/FwHeader.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "util/StrTools.h"
#include "util/SysTcpBasi.h"

namespace {

namespace fw = comp::fw;

constexpr const char* kMode = "SysTCPFWB";
constexpr int64_t kWaitUsec = 0;        // epoll_wait polls
constexpr int kBeatBufLen = 1024;
constexpr char kDefaultLiveType[] = "0602";

enum : int32_t { kKindFree = -1, kKindClient = 0, kKindServer = 1, kKindFifo = 2 };

// One row of the socket table, indexed by the descriptor itself.
struct FwbEntry {
    int32_t fd;            // -1: free
    int32_t connTime;      // seconds
    int32_t lastRecv;      // the server's idle test measures from it
    int32_t lastActive;
    int32_t lastSend;      // the beat to the server measures from it
    int32_t port;
    int32_t routeId;
    char peerIp[16];
    char logPath[256];
    int32_t kind;          // kKind*
    static void Free(FwbEntry& r) {
        r.fd = r.port = -1;
        r.connTime = r.lastRecv = r.lastActive = r.lastSend = 0;
        r.kind = kKindFree;
        std::memset(r.peerIp, 0, sizeof r.peerIp);
        std::memset(r.logPath, 0, sizeof r.logPath);
    }
};

// The upper server.
struct Remote {
    int fd = -1;             // -1 while down
    int32_t lastAttempt = 0; // last connect attempt, successful or not
    int32_t lastConnect = 0;
    int port = 0;
    char ip[64] = {0};
};

struct Fwb {
    char routeId[3] = {0};
    RouteRecord route{};
    char routeName[65] = {0};
    int routeNo = 0;
    int idleTimeout = 0;     // IDLETIMEOUT: the server's silence that drops it (0: never)
    int beatInterval = 0;    // BEATINTERVAL
    int reconnInterval = 0;  // RECONNINTERVAL
    int listenFd = -1;       // inherited from the supervisor
    comp::ModeFifos fifos;
    int instance = 0;
    char liveType[32] = {0};
    fw::FtpFields ftp{};
    Remote remote;
    comp::SockTable<FwbEntry> rows;   // pstSockList
    std::optional<comp::Loop> loop;
    comp::AcceptPacer accepts;         // paces accepts while descriptors run out
    int idleTimer = -1, reconnTimer = -1, beatTimer = -1;
    QueueMsg buf;                     // one message at a time, either way
};
// The exported routines keep their C signatures and find the mode through this.
Fwb* g_fwb = nullptr;

int64_t FwbServerIdle(Fwb& f, int64_t now);
int64_t FwbReconnect(Fwb& f, int64_t now);
void FwbControl(Fwb& f, int fd, unsigned ev);
void FwbFromServer(Fwb& f, int fd, unsigned ev);
void FwbFromClient(Fwb& f, int fd, unsigned ev);
int64_t FwbBeat(Fwb& f, int64_t now);
void FwbCloseHook(Fwb& f, int fd);
void FwbCloseAgain(Fwb& f, int fd);
void FwbQuit(Fwb& f);
bool ReadFtpFields(Fwb& f);

constexpr int64_t AtSec(int64_t sec) { return sec * comp::kUsecPerSec; }

}  // namespace

extern "C" {

int SysTCPFWB(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd) {
    static Fwb f;
    g_fwb = &f;
    std::snprintf(f.routeId, sizeof f.routeId, "%s", pcRouteId);
    f.route = stRoute;
    f.routeNo = std::atoi(pcRouteId);
    f.instance = iInstance;
    f.listenFd = iListenFd;
    std::snprintf(f.routeName, sizeof f.routeName, "%s", stRoute.caField[RT_ROUTENAME]);
    f.idleTimeout = comp::RouteInt(stRoute, RT_IDLETIMEOUT);
    f.beatInterval = comp::RouteInt(stRoute, RT_BEATINTERVAL);
    f.reconnInterval = comp::RouteInt(stRoute, RT_RECONNINTERVAL);

    int tableSize = comp::ModeTableSize(
        SRC_NAME, __LINE__, "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost in [LOADVARS],errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    char value[256] = {0};
    if (SysGetenvByName("LIVEMSGTYPE", value) != 0) {
        COMP_ERRLOG("[%s,%d]SysGetenvByName error or LIVEMSGTYPE lost in [LOADVARS],errno=%d,errmsg=[%s]", SRC_NAME,
                    __LINE__, errno, std::strerror(errno));
        std::snprintf(value, sizeof value, "%s", kDefaultLiveType);
    }
    std::snprintf(f.liveType, sizeof f.liveType, "%s", value);
    f.rows.Reset(tableSize);
    if (!ReadFtpFields(f)) return -1;
    if (SysGetIpAndPort(stRoute.caField[RT_IPPORTUPPER], f.remote.ip, &f.remote.port) != 0) {
        COMP_ERRLOG("[%s,%d,%s]IPPPORTUPPER has an wrong value", SRC_NAME, __LINE__, kMode);
        return -1;
    }

    comp::Loop::Hooks hooks;
    hooks.ctx = &f;
    hooks.close = comp::Fn<FwbCloseHook>;
    hooks.closeAgain = comp::Fn<FwbCloseAgain>;
    hooks.quit = comp::Fn<FwbQuit>;
    comp::Loop::Setup setup = comp::ModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec, comp::Backend::kEpoll);
    setup.pcWaitFailFmt = "epoll_wait";
    setup.bLogEintr = false;
    f.loop.emplace(setup, hooks);
    comp::Loop& loop = *f.loop;
    loop.SetRows(&f.rows);

    if (!comp::OpenModeFifos(SRC_NAME, iInstance, nullptr, 0, &f.fifos) ||
        !loop.Watch(f.fifos.ctl, comp::Role::kFixed, comp::Fn<FwbControl>, &f))
        return -1;
    FwbEntry& ctl = f.rows.Open(f.fifos.ctl);
    ctl.kind = kKindFifo;
    ctl.connTime = ctl.lastActive = loop.NowSec();

    // In the order the pass applies the rules: the server's idle test and
    // the reconnect before the wait, the beat after the dispatch.
    f.idleTimer = loop.AddTimer(comp::Phase::kBeforeWait, comp::Fn<FwbServerIdle>, &f, comp::Loop::kNever);
    f.reconnTimer = loop.AddTimer(comp::Phase::kBeforeWait, comp::Fn<FwbReconnect>, &f, comp::Loop::kNever);
    f.beatTimer = loop.AddTimer(comp::Phase::kAfterDispatch, comp::Fn<FwbBeat>, &f, comp::Loop::kNever);

    if (SysConnectRemoteIni(f.routeName, f.remote.ip, f.remote.port) < 0) {
        WriteWarnning("SysConnectRemoteIni error");
        loop.SetDue(f.reconnTimer, AtSec(f.remote.lastAttempt + f.reconnInterval));
    }
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop.Run();
}

}  // extern "C"

namespace {

// FTPSERVER, FTPUSER and FTPPWD of app.cfg, trimmed and cut to the widths of
// the "A" header; false after the line naming the one that is missing.
bool ReadFtpFields(Fwb& f) {
    struct Want {
        const char* name;
        char* field;
        int width;
    } wants[] = {{"FTPSERVER", f.ftp.server, fw::kFtpServerLen},
                 {"FTPUSER", f.ftp.user, fw::kFtpUserLen},
                 {"FTPPWD", f.ftp.pwd, fw::kFtpPwdLen}};
    for (const Want& w : wants) {
        char value[256] = {0};
        if (SysGetAppVar(w.name, value) != 0) {
            COMP_ERRLOG("[%s,%d,%s]lost %s in app.cfg", SRC_NAME, __LINE__, kMode, w.name);
            return false;
        }
        delSpacePreLast(value);
        fw::PutText(w.field, w.width, value);
    }
    return true;
}

// The server went: every client goes with it, and the reconnect takes over.
void FwbServerLost(Fwb& f) { SysCloseAll(f.remote.fd); }

// Closes a client; with bTell (and the server up) the server hears "Z".
void FwbCloseClient(Fwb& f, int fd, bool bTell) {
    char ip[17] = {0};
    std::memcpy(ip, f.rows[fd].peerIp, 16);
    const int port = f.rows[fd].port;
    f.loop->Close(fd);
    if (bTell && f.remote.fd >= 0) SysFWSendToRemote(f.remote.fd, f.routeId, &f.route, fw::kDisconnect, ip, port);
}

// ---- timers and handlers, in the order the loop calls them ------------------

int64_t FwbServerIdle(Fwb& f, int64_t now) {
    if (f.remote.fd < 0) return comp::Loop::kNever;
    const FwbEntry& r = f.rows[f.remote.fd];
    if (now / comp::kUsecPerSec - r.lastRecv < f.idleTimeout) return AtSec(r.lastRecv + f.idleTimeout);
    COMP_ERRLOG("[%s,%d][%d]%.16s:%d time out and close", SRC_NAME, __LINE__, r.fd, r.peerIp, r.port);
    FwbServerLost(f);
    return comp::Loop::kNever;
}

int64_t FwbReconnect(Fwb& f, int64_t) {
    if (f.remote.fd >= 0) return comp::Loop::kNever;
    int fd = SysCheckClientSock(f.loop->TableSize(), f.reconnInterval, f.remote.ip, f.remote.port, &f.route, 1);
    return fd >= 0 ? comp::Loop::kNever : AtSec(f.remote.lastAttempt + f.reconnInterval);
}

void FwbAccept(Fwb& f) {
    comp::Accepted a;
    comp::AcceptOptions how;
    how.pPacer = &f.accepts;
    if (!comp::AcceptOnCommandLogged(SRC_NAME, *f.loop, f.listenFd, how, &a)) return;
    const int fd = a.fd.get();
    if (SysRegConnection(a.ip, a.port, &f.route, fd, 1) < 0) {
        COMP_ERRLOG("[%s,%d]SysRegConnection error", SRC_NAME, __LINE__);
        return;
    }
    if (!f.loop->Watch(fd, comp::Role::kConn, comp::Fn<FwbFromClient>, &f)) {
        COMP_ERRLOG("%s,%d SysEpollFdCtl error", SRC_NAME, __LINE__);
        SysFWDelConnection(a.ip, a.port, 1);
        return;
    }
    a.fd.release();
    // Not readable before a whole header can be read.
    const int headerLen = comp::RouteInt(f.route, RT_HEADERLEN);
    const int lowat = headerLen > 0 ? headerLen : 1;
    setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &lowat, sizeof lowat);
    FwbEntry& r = f.rows.Open(fd);
    f.rows.SetPeer(fd, a.ip, a.port);
    r.kind = kKindClient;
    r.routeId = f.routeNo;
    r.connTime = r.lastRecv = r.lastActive = r.lastSend = f.loop->NowSec();
    const char* home = getenv("HOME");
    std::snprintf(r.logPath, sizeof r.logPath, "%s/runs/log/com_%s_%.16s.log", home ? home : "", f.routeName,
                  r.peerIp);
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d]>>>-----[%.16s:%d]fd%d-----BEGIN<<<", SRC_NAME, __LINE__,
               r.peerIp, r.port, fd);
    if (SysFWSendToRemote(f.remote.fd, f.routeId, &f.route, fw::kConnect, a.ip, a.port) < 0) {
        // The server never heard of it: nothing it sent could be answered.
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]%.16s:%d not announced to the upper server,close",
                   SRC_NAME, __LINE__, kMode, r.peerIp, r.port);
        f.loop->Close(fd);
        return;
    }
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s][%c Info] to Upper", SRC_NAME, __LINE__, kMode,
               fw::kConnect);
}

void FwbControl(Fwb& f, int fd, unsigned) {
    if (comp::ReadControlCmd(SRC_NAME, fd, true) == comp::ControlCmd::kQuit) f.loop->Quit();
    f.accepts.Command(*f.loop, comp::Fn<FwbAccept>, &f);
}

void FwbFromServer(Fwb& f, int fd, unsigned ev) {
    FwbEntry& s = f.rows[fd];
    if (!(ev & comp::kEvRead)) {
        COMP_ERRLOG("[%s,%d,%s]fd=%d,events[i].events & EPOLLERR ", SRC_NAME, __LINE__, kMode, fd);
        FwbServerLost(f);
        return;
    }
    fw::Unit u;
    fw::UnitStatus st = fw::ReadUnit(fd, fw::Reader::kForwarder, f.route, &f.buf, &u);
    if (st == fw::UnitStatus::kHeaderShort) {
        COMP_ERRLOG("[%s,%d,%s]fd=%d,iSockRecv error.errno %d,[%s]", SRC_NAME, __LINE__, kMode, fd, u.err,
                    std::strerror(u.err));
        FwbServerLost(f);
        return;
    }
    s.lastRecv = s.lastActive = f.loop->NowSec();
    SysConnLog(fd, s.logPath, LOG_INFO, u.raw, fw::kHeaderLen, "[%s,%d,%s]rcv server,len=%d", SRC_NAME, __LINE__,
               kMode, fw::kHeaderLen);
    if (st == fw::UnitStatus::kMessageFailed) {
        COMP_ERRLOG("[%s,%d,%s]fd=%d,SysTcpRecvMsg error,errno %d,[%s]", SRC_NAME, __LINE__, kMode, fd, u.err,
                    std::strerror(u.err));
        FwbServerLost(f);
        return;
    }
    const fw::ExHeader& h = u.hdr;
    SysConnLog(fd, s.logPath, LOG_INFO, f.buf.caText, u.msgLen, "[%s,%d,%s]rcv %s msg from server.len=%d", SRC_NAME,
               __LINE__, kMode, h.kind == fw::kBeat ? "beat" : "fw", u.msgLen);
    if (st == fw::UnitStatus::kUnknownKind) {
        COMP_ERRLOG_DUMP(u.raw, fw::kHeaderLen, "[%s,%d,%s]fd=%d,unknown kind[0x%02x] in the header,len=%d dropped",
                         SRC_NAME, __LINE__, kMode, fd, static_cast<unsigned char>(h.kind), u.msgLen);
        return;
    }
    if (h.kind == fw::kBeat) return;

    const int cfd = f.rows.FindByIpPort(h.ip, h.port);
    if (cfd < 0 || f.rows[cfd].kind != kKindClient) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d,%s](%s:%d) fd %d has closed", SRC_NAME, __LINE__, kMode, h.ip,
                 h.port, cfd);
        return;
    }
    FwbEntry& c = f.rows[cfd];
    SysConnLog(cfd, c.logPath, LOG_INFO, nullptr, 0, "[%s,%d,%s]fw msg to client[%s].len=%d", SRC_NAME, __LINE__,
               kMode, h.ip, u.msgLen);
    if (iSockSend(cfd, f.buf.caText, u.msgLen) != 0) {
        int err = errno;
        SysConnLog(cfd, c.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]iSockSend error.errno=%d [%s]", SRC_NAME,
                   __LINE__, kMode, err, std::strerror(err));
        FwbCloseClient(f, cfd, true);
        return;
    }
    c.lastSend = c.lastActive = f.loop->NowSec();
    SysConnLog(cfd, c.logPath, LOG_INFO, f.buf.caText, u.msgLen, "[%s,%d,%s]write msg to client,len=%d", SRC_NAME,
               __LINE__, kMode, u.msgLen);
}

void FwbFromClient(Fwb& f, int fd, unsigned ev) {
    FwbEntry& r = f.rows[fd];
    if (!(ev & comp::kEvRead)) {
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]fd=%d,events[i].events & EPOLLERR ", SRC_NAME,
                   __LINE__, kMode, fd);
        FwbCloseClient(f, fd, true);
        return;
    }
    QueueMsg& buf = f.buf;
    int err = 0;
    int len = SysTcpRecvMsg(fd, &f.route, &buf, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]fd=%d,SysTcpRecvMsg error.errno %d ,errmsg[%s]",
                   SRC_NAME, __LINE__, kMode, fd, err, std::strerror(err));
        FwbCloseClient(f, fd, true);
        return;
    }
    r.lastRecv = r.lastActive = f.loop->NowSec();
    SysConnLog(fd, r.logPath, LOG_INFO, buf.caText, len, "[%s,%d,%s]rcv client,len=%d", SRC_NAME, __LINE__, kMode,
               len);
    char type[32] = {0};
    if (SysGetMsgTypeFromHead(buf.caText, f.routeId, type) != 0) {
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]SysGetMsgTypeFromHead error", SRC_NAME, __LINE__,
                   kMode);
        FwbCloseClient(f, fd, true);
        return;
    }
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]caMsgType:[%s]", SRC_NAME, __LINE__, kMode, type);

    if (std::strcmp(type, f.liveType) == 0) {
        // The client's beat goes straight back to it.
        if (iSockSend(fd, buf.caText, len) != 0) {
            int e = errno;
            SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]iSockSend error.errno=%d [%s]", SRC_NAME,
                       __LINE__, kMode, e, std::strerror(e));
            FwbCloseClient(f, fd, true);
            return;
        }
        r.lastSend = f.loop->NowSec();
        SysConnLog(fd, r.logPath, LOG_INFO, buf.caText, len, "[%s,%d,%s]response [%.16s:%d] beat msg,len=%d", SRC_NAME,
                   __LINE__, kMode, r.peerIp, r.port, len);
        return;
    }

    const int sfd = SysCheckClientSock(f.loop->TableSize(), f.reconnInterval, f.remote.ip, f.remote.port, &f.route, 0);
    if (sfd < 0) {
        WriteWarnning("Request msg build remote tcp error.SysCheckClientSock error");
        return;
    }
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d,%s]fw msg to server[%.16s].len=%d", SRC_NAME, __LINE__,
               kMode, r.peerIp, len);
    char hdr[fw::kHeaderLen];
    SysFWBuildExHeader(fw::kData, r.peerIp, r.port, hdr);
    if (fw::SendUnit(sfd, hdr, buf.caText, len) != 0) {
        int e = errno;
        COMP_ERRLOG("[%s,%d,%s]iSockSend error.errno %d [%s]", SRC_NAME, __LINE__, kMode, e, std::strerror(e));
        FwbServerLost(f);
        return;
    }
    FwbEntry& s = f.rows[sfd];
    s.lastSend = s.lastActive = f.loop->NowSec();
    SysConnLog(sfd, s.logPath, LOG_INFO, buf.caText, len, "[%s,%d,%s]fw msg to server[%.16s:%d],len=%d", SRC_NAME,
               __LINE__, kMode, r.peerIp, r.port, len);
}

// A beat to the server once nothing has been sent to it for longer than the
// beat interval: "B" with this side's address of the link, then the beat
// message of the route. Without a beat message nothing is sent, and the
// next try is an interval later.
int64_t FwbBeat(Fwb& f, int64_t now) {
    if (f.remote.fd < 0) return comp::Loop::kNever;
    const int sfd = f.remote.fd;
    FwbEntry& s = f.rows[sfd];
    const int32_t nowSec = static_cast<int32_t>(now / comp::kUsecPerSec);
    if (nowSec - s.lastSend <= f.beatInterval) return AtSec(s.lastSend + f.beatInterval + 1);

    char beat[kBeatBufLen] = {0};
    int beatLen = 0;
    SysDealBeatHeart(f.routeId, beat, &beatLen);
    if (beatLen <= 0 || beatLen > kBeatBufLen) {
        writelog(LOG_WARN, nullptr, 0, "[%s,%d,%s]no beat message for route [%s],no beat sent", SRC_NAME, __LINE__,
                 kMode, f.routeId);
        s.lastSend = nowSec;
        return AtSec(s.lastSend + f.beatInterval + 1);
    }
    sockaddr_in local{};
    socklen_t len = sizeof local;
    char ip[INET_ADDRSTRLEN] = {0};
    getsockname(sfd, reinterpret_cast<sockaddr*>(&local), &len);
    inet_ntop(AF_INET, &local.sin_addr, ip, sizeof ip);
    const int port = ntohs(local.sin_port);
    char hdr[fw::kHeaderLen];
    SysFWBuildExHeader(fw::kBeat, ip, port, hdr);
    if (fw::SendUnit(sfd, hdr, beat, beatLen) != 0) {
        COMP_ERRLOG("[%s,%d,%s]snd beat heart msg to [%.16s:%d] error", SRC_NAME, __LINE__, kMode, s.peerIp, s.port);
        FwbServerLost(f);
        return comp::Loop::kNever;
    }
    s.lastSend = nowSec;
    SysConnLog(sfd, s.logPath, LOG_INFO, beat, beatLen, "[%s,%d]beat msg to %s [%.16s:%d]", SRC_NAME, __LINE__,
               "server", s.peerIp, s.port);
    return AtSec(s.lastSend + f.beatInterval + 1);
}

// ---- close and quit ---------------------------------------------------------

void FwbCloseHook(Fwb& f, int fd) {
    FwbEntry& r = f.rows[fd];
    if (r.kind == kKindServer) {
        f.remote.fd = -1;
        SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]>>>-----[%.16s:%d]fd%d-----END<<<", SRC_NAME,
                   __LINE__, kMode, r.peerIp, r.port, fd);
        f.loop->SetDue(f.idleTimer, comp::Loop::kNever);
        f.loop->SetDue(f.beatTimer, comp::Loop::kNever);
        f.loop->SetDue(f.reconnTimer, AtSec(f.remote.lastAttempt + f.reconnInterval));
        return;
    }
    if (r.kind == kKindClient) {
        int rc = SysFWDelConnection(r.peerIp, r.port, 1);
        if (rc < 0) COMP_ERRLOG("[%s,%d] SysFWDelConnection error", SRC_NAME, __LINE__);
        if (rc == 1) COMP_ERRLOG("[%s,%d][%.16s]SysFWDelConnection error", SRC_NAME, __LINE__, r.peerIp);
    }
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]>>>-----[%.16s:%d]fd%d-----END<<<", SRC_NAME,
               __LINE__, kMode, r.peerIp, r.port, fd);
}

void FwbCloseAgain(Fwb& f, int fd) {
    COMP_ERRLOG("[%s,%d] fd%d had closed[%d]", SRC_NAME, __LINE__, fd, f.rows.InRange(fd) ? f.rows[fd].fd : -1);
}

void FwbQuit(Fwb& f) {
    f.rows.Clear();
    char name[32];
    std::snprintf(name, sizeof name, "%d_%d", getpid(), f.instance);
    SysCleanIpcFileById(name, comp::kFifoControl);
}

}  // namespace

extern "C" {

int SysFWBuildExHeader(char cKind, const char* pcIp, int iPort, char* pcOut) {
    return fw::Build(cKind, pcIp, iPort, g_fwb != nullptr ? &g_fwb->ftp : nullptr, pcOut);
}

int SysFWSendToRemote(int iServerFd, const char* /*pcRouteId*/, const RouteRecord* /*pstRoute*/, char cKind,
                      const char* pcIp, int iPort) {
    if (g_fwb == nullptr || !g_fwb->loop) return -1;
    Fwb& f = *g_fwb;
    int sfd = iServerFd >= 0 && iServerFd == f.remote.fd
                  ? iServerFd
                  : SysCheckClientSock(f.loop->TableSize(), f.reconnInterval, f.remote.ip, f.remote.port, &f.route, 0);
    if (sfd < 0) {
        WriteWarnning("Request msg build remote tcp error.SysCheckClientSock error");
        return -1;
    }
    char hdr[fw::kHeaderLen];
    SysFWBuildExHeader(cKind, pcIp, iPort, hdr);
    if (fw::SendUnit(sfd, hdr, nullptr, 0) != 0) {
        int err = errno;
        COMP_ERRLOG("[%s,%d,%s]iSockSend error.errno %d [%s]", SRC_NAME, __LINE__, kMode, err, std::strerror(err));
        FwbServerLost(f);
        return -1;
    }
    FwbEntry& s = f.rows[sfd];
    s.lastSend = s.lastActive = f.loop->NowSec();
    SysConnLog(sfd, s.logPath, LOG_INFO, hdr, fw::kHeaderLen, "[%s,%d,%s][%c] %.16s:%d to server", SRC_NAME, __LINE__,
               kMode, cKind, pcIp, iPort);
    return sfd;
}

int SysCheckClientSock(int /*iTableSize*/, int iReconnInterval, const char* pcIp, int iPort,
                       const RouteRecord* /*pstRoute*/, int iTimerFlag) {
    if (g_fwb == nullptr || !g_fwb->loop) return -1;
    Fwb& f = *g_fwb;
    if (f.remote.fd >= 0) return f.remote.fd;
    if (iTimerFlag && f.loop->NowSec() - f.remote.lastAttempt < iReconnInterval) return -2;
    int fd = SysGetRemoteSock(pcIp, iPort, f.routeName);
    if (iTimerFlag)
        writelog(LOG_INFO, nullptr, 0, "[%s,%s,%d]zzz reconnect [%s:%d] by timer,fd %d", SRC_NAME, kMode, __LINE__,
                 pcIp, iPort, fd);
    else
        writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]zzz reconnect [%s,%d] by request msg,fd %d", SRC_NAME, __LINE__,
                 kMode, pcIp, iPort, fd);
    return fd;
}

int SysGetRemoteSock(const char* pcIp, int iPort, const char* pcRouteName) {
    if (g_fwb == nullptr || !g_fwb->loop) return -1;
    Fwb& f = *g_fwb;
    comp::Loop& loop = *f.loop;
    f.remote.lastAttempt = loop.NowSec();
    comp::UniqueFd sock(iSockConnect(pcIp, iPort));
    if (!sock.valid()) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect [%s,%d] error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, kMode, pcIp,
                    iPort, errno, std::strerror(errno));
        return -1;
    }
    const int fd = sock.get();
    if (fd >= loop.TableSize()) {
        COMP_ERRLOG("[%s,%d]Too many communication node.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        return -1;
    }
    if (iNoblockFd(fd) != 0) {
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    fw::NoDelay(fd);
    if (!loop.Watch(fd, comp::Role::kConn, comp::Fn<FwbFromServer>, &f)) {
        COMP_ERRLOG("[%s,%d,%s]SysEpollCtl error", SRC_NAME, __LINE__, kMode);
        sock.reset();
        loop.Quit();
    }
    sock.release();
    FwbEntry& r = f.rows.Open(fd);
    f.rows.SetPeer(fd, pcIp, iPort);
    r.kind = kKindServer;
    r.routeId = f.routeNo;
    r.connTime = r.lastRecv = r.lastActive = r.lastSend = loop.NowSec();
    const char* home = getenv("HOME");
    std::snprintf(r.logPath, sizeof r.logPath, "%s/runs/log/comfw_%s_%.16s.log", home ? home : "", pcRouteName,
                  r.peerIp);
    f.remote.fd = fd;
    f.remote.lastConnect = loop.NowSec();
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]>>>-----[%.16s:%d]fd%d-----BEGIN<<<", SRC_NAME,
               __LINE__, kMode, r.peerIp, r.port, fd);
    if (f.idleTimeout > 0) loop.SetDue(f.idleTimer, AtSec(r.lastRecv + f.idleTimeout));
    loop.SetDue(f.beatTimer, AtSec(r.lastSend + f.beatInterval + 1));
    loop.SetDue(f.reconnTimer, comp::Loop::kNever);
    return fd;
}

int SysConnectRemoteIni(const char* pcRouteName, const char* pcIp, int iPort) {
    return SysGetRemoteSock(pcIp, iPort, pcRouteName);
}

int SysCloseAll(int iServerFd) {
    if (g_fwb == nullptr || !g_fwb->loop) return -1;
    Fwb& f = *g_fwb;
    if (iServerFd >= 0 && iServerFd == f.remote.fd) f.loop->Close(iServerFd);
    int closed = 0;
    f.rows.ForEachOpen([&](int fd, FwbEntry& r) {
        if (r.kind != kKindClient) return;
        FwbCloseClient(f, fd, false);
        ++closed;
    });
    return closed;
}

}  // extern "C"
