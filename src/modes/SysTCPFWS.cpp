// Forwarding server mode (FWS): the far end of the forwarder link. Each
// connection from a forwarder (SysTCPFWB) carries many clients, told apart by
// the 64-byte extended header in front of every unit (modes/FwHeader.h). For
// every client behind a forwarder connection the mode keeps a virtual
// connection in the connection registry and tells TranP of it as if the
// client were connected here: N001 when it comes, N003 when it goes, its
// messages as PlatMsgs naming the client as the peer.
//
//   SysTCPFWS        start-up: table, control and notification FIFOs, the loop
//   FwsIdle          a forwarder connection silent past the idle time-out is closed
//   FwsControl       "x" quits, "0" accepts one forwarder connection (FwsAccept)
//   FwsAnswer        TranP's answer -> "F" for its client on the connection it names
//   FwsFromLink      one unit of a forwarder: "A" registers the client and
//                    sends N001, "Z" sends N003, "F" goes to TranP, "B" is answered
//   FwsCloseHook     registry, and one N003 per client still behind the connection
//   FwsQuit          table, queued messages and notification FIFO
//
// Registry entries: a forwarder connection is entered as every connection of
// a server mode (its address, its descriptor, 1); a client behind it with the
// client's address and the connection's descriptor in both descriptor fields,
// so that the clients of one connection are found and removed together.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysNetFrame.h"
#include "comp/SysPlatMsg.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/FwHeader.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"

namespace {

namespace fw = comp::fw;

constexpr const char* kMode = "SysTCPFWS";
constexpr int64_t kWaitUsec = 0;   // the select polls

// One row of the socket table, indexed by the descriptor itself.
struct FwsEntry {
    int32_t fd;            // -1: free
    int32_t port;          // the forwarder's port
    int32_t connTime;      // seconds
    int32_t lastActive;    // the idle test measures from it
    int32_t aux;           // -1
    char peerIp[16];
    char logPath[256];
    static void Free(FwsEntry& r) {
        r.fd = r.port = r.aux = -1;
        r.connTime = r.lastActive = 0;
        std::memset(r.peerIp, 0, sizeof r.peerIp);
        std::memset(r.logPath, 0, sizeof r.logPath);
    }
};

struct Fws {
    char routeId[3] = {0};
    RouteRecord route{};
    char routeName[65] = {0};
    int routeNo = 0;
    int idleTimeout = 0;
    int listenFd = -1;                   // inherited from the supervisor
    comp::ModeFifos fifos;
    long pid = 0;                        // queue message type of everything sent to TranP
    comp::SockTable<FwsEntry> rows;      // pstSockList
    std::optional<comp::Loop> loop;
    comp::AcceptPacer accepts;         // paces accepts while descriptors run out
    std::unique_ptr<ConnNode[]> nodes;   // the clients of a closing connection
    QueueMsg buf;
};

bool FwsIdle(Fws& s, int fd, int64_t now);
void FwsControl(Fws& s, int fd, unsigned ev);
void FwsAnswer(Fws& s, int fd, unsigned ev);
void FwsFromLink(Fws& s, int fd, unsigned ev);
void FwsCloseHook(Fws& s, int fd);
void FwsCloseAgain(Fws& s, int fd);
void FwsQuit(Fws& s);

}  // namespace

extern "C" {

int SysTCPFWS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd) {
    static Fws s;
    std::snprintf(s.routeId, sizeof s.routeId, "%s", pcRouteId);
    s.route = stRoute;
    s.routeNo = std::atoi(pcRouteId);
    s.pid = getpid();
    s.listenFd = iListenFd;
    std::snprintf(s.routeName, sizeof s.routeName, "%s", stRoute.caField[RT_ROUTENAME]);
    s.idleTimeout = comp::RouteInt(stRoute, RT_IDLETIMEOUT);

    int tableSize = comp::ModeTableSize(
        SRC_NAME, __LINE__, "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost in [LOADVARS],errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    s.rows.Reset(tableSize);

    comp::Loop::Hooks hooks;
    hooks.ctx = &s;
    hooks.idle = comp::Fn<FwsIdle>;
    hooks.close = comp::Fn<FwsCloseHook>;
    hooks.closeAgain = comp::Fn<FwsCloseAgain>;
    hooks.quit = comp::Fn<FwsQuit>;
    const comp::Loop::Setup setup = comp::ListenerModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec);
    s.loop.emplace(setup, hooks);
    comp::Loop& loop = *s.loop;
    loop.SetRows(&s.rows);

    char name[32];
    std::snprintf(name, sizeof name, "%ld", s.pid);
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoPidNotify, &s.fifos) ||
        !loop.Watch(s.fifos.ctl, comp::Role::kFixed, comp::Fn<FwsControl>, &s) ||
        !loop.Watch(s.fifos.notify, comp::Role::kFixed, comp::Fn<FwsAnswer>, &s))
        return -1;
    for (int fd : {s.fifos.ctl, s.fifos.notify}) s.rows.Open(fd).lastActive = loop.NowSec();
    writelog(LOG_DEBUG, nullptr, 0, "%s Begin Working...", kMode);
    return loop.Run();
}

}  // extern "C"

namespace {

// ---- handlers, in the order the loop calls them -----------------------------

bool FwsIdle(Fws& s, int fd, int64_t now) {
    FwsEntry& r = s.rows[fd];
    if (now / comp::kUsecPerSec - r.lastActive <= s.idleTimeout) return true;
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d]fd[%d] time out and close ", SRC_NAME, __LINE__, fd);
    s.loop->Close(fd);
    return false;
}

void FwsAccept(Fws& s) {
    comp::Accepted a;
    comp::AcceptOptions how;
    how.pPacer = &s.accepts;
    if (!comp::AcceptOnCommandLogged(SRC_NAME, *s.loop, s.listenFd, how, &a)) return;
    const int fd = a.fd.get();
    if (SysRegConnection(a.ip, a.port, &s.route, fd, 1) < 0) {
        COMP_ERRLOG("[%s,%d]SysRegConnection error", SRC_NAME, __LINE__);
        return;
    }
    if (!s.loop->Watch(fd, comp::Role::kConn, comp::Fn<FwsFromLink>, &s)) {
        SysFWDelConnection(a.ip, a.port, 1);
        return;
    }
    a.fd.release();
    fw::NoDelay(fd);
    FwsEntry& r = s.rows.Open(fd);
    s.rows.SetPeer(fd, a.ip, a.port);
    r.connTime = r.lastActive = s.loop->NowSec();
    const char* home = getenv("HOME");
    std::snprintf(r.logPath, sizeof r.logPath, "%s/runs/log/comfw_%s_%.16s.log", home ? home : "", s.routeName,
                  r.peerIp);
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, ">>>[%s,%d][fd%d]%.16s:%d----BEGIN>>>", SRC_NAME, __LINE__, fd,
               r.peerIp, r.port);
}

void FwsControl(Fws& s, int fd, unsigned) {
    if (comp::ReadControlCmd(SRC_NAME, fd, true) == comp::ControlCmd::kQuit) s.loop->Quit();
    s.accepts.Command(*s.loop, comp::Fn<FwsAccept>, &s);
}

// TranP's answer names the forwarder connection (header offset 16) and the
// client (port at 24, IP at 28), as this mode's own PlatMsg put them.
void FwsAnswer(Fws& s, int, unsigned) {
    QueueMsg& buf = s.buf;
    int len = SysReadPlatMsg(s.fifos.notify, &buf);
    if (len < 0) {
        COMP_ERRLOG("[%s:%s:%d]SysReadPlatMsg queue [%d] error !", SRC_NAME, kMode, __LINE__,
                    g_stMsgQCntl[comp::kQueueFromTranp].iId);
        s.loop->Quit();
    }
    const char* hdr = buf.caText;
    const int fd = len >= comp::kPlatHdrLen ? comp::HeaderInt(hdr, comp::plat::kSock) : -1;
    if (!s.loop->IsConn(fd)) {
        COMP_ERRLOG("[%s,%d,%s]fd%d had closed,msg discard.len=%d", SRC_NAME, __LINE__, kMode, fd, len);
        return;
    }
    FwsEntry& r = s.rows[fd];
    char ip[fw::kIpLen + 1] = {0};
    std::memcpy(ip, hdr + comp::plat::kIp, fw::kIpLen);
    char ex[fw::kHeaderLen];
    fw::Build(fw::kData, ip, comp::HeaderInt(hdr, comp::plat::kPort), nullptr, ex);
    const int bodyLen = len - comp::kPlatHdrLen;
    if (fw::SendUnit(fd, ex, hdr + comp::kPlatHdrLen, bodyLen) != 0) {
        int err = errno;
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]iSockSend error.errno %d ,errmsg[%s]", SRC_NAME,
                   __LINE__, kMode, err, std::strerror(err));
        s.loop->Close(fd);
        return;
    }
    SysConnLog(fd, r.logPath, LOG_INFO, hdr + comp::kPlatHdrLen, bodyLen, "[%s,%d,%s]write to net.len=%d", SRC_NAME,
               __LINE__, kMode, bodyLen);
}

// "A": the client is entered in the registry and announced to TranP; the FTP
// texts of the header travel as the three further texts of its N001.
void FwsClientCame(Fws& s, int fd, const fw::ExHeader& h) {
    FwsEntry& r = s.rows[fd];
    if (SysRegConnection(h.ip, h.port, &s.route, fd, fd) < 0) {
        COMP_ERRLOG("[%s,%d]SysRegConnection error", SRC_NAME, __LINE__);
        s.loop->Close(fd);
        return;
    }
    NoticeRecord n{};
    std::memcpy(n.caCode, "N001", 4);
    fw::PutText(n.caIp, sizeof n.caIp, h.ip);
    std::memcpy(n.caText1, h.ftp.server, sizeof n.caText1);
    std::memcpy(n.caText2, h.ftp.user, sizeof n.caText2);
    std::memcpy(n.caText3, h.ftp.pwd, sizeof n.caText3);
    SysSendNMsg(s.routeNo, fd, &n, h.port);
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]注册[%s,%d]", SRC_NAME, __LINE__, kMode, h.ip,
               h.port);
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]>>>-----[%s,%d]%d-----BEGIN<<<", SRC_NAME, __LINE__,
               kMode, h.ip, h.port, fd);
}

// N003 for one client of connection fd.
void FwsTellGone(Fws& s, int fd, const char* pcIp, int iPort) {
    NoticeRecord n{};
    std::memcpy(n.caCode, "N003", 4);
    fw::PutText(n.caIp, sizeof n.caIp, pcIp);
    SysSendNMsg(s.routeNo, fd, &n, iPort);
    SysConnLog(fd, s.rows[fd].logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]注消[%.16s,%d]", SRC_NAME, __LINE__, kMode,
               pcIp, iPort);
}

// "Z": TranP hears N003. The client's registry entry stays until its
// forwarder connection closes, which removes the entries of all its clients
// together (and tells TranP of each once more).
void FwsClientLeft(Fws& s, int fd, const fw::ExHeader& h) {
    FwsTellGone(s, fd, h.ip, h.port);
    SysConnLog(fd, s.rows[fd].logPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]>>>-----[%s,%d]%d-----END<<<", SRC_NAME,
               __LINE__, kMode, h.ip, h.port, fd);
}

// "F": the client's message goes to TranP with the client as its peer.
void FwsClientData(Fws& s, int fd, const fw::ExHeader& h, int len) {
    FwsEntry& r = s.rows[fd];
    QueueMsg& buf = s.buf;
    SysConnLog(fd, r.logPath, LOG_INFO, buf.caText, len, "[%s,%d,%s]server rcv net,len[%d]", SRC_NAME, __LINE__,
               kMode, len);
    // Longer than a platform message carries: only this message is lost.
    if (len > comp::kQueueTextLen - comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d,%s]fd=%d,message of %d bytes from [%s,%d] exceeds the %d a platform message carries,drop",
                    SRC_NAME, __LINE__, kMode, fd, len, h.ip, h.port, comp::kQueueTextLen - comp::kPlatHdrLen);
        return;
    }
    int total = SysBuildPlatMsg(&buf, len, fd, &s.route, h.ip, h.port);
    if (total < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        return;
    }
    buf.lMsgType = s.pid;
    if (SysWriteQueue(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        s.loop->Quit();
    }
    SysConnLog(fd, r.logPath, LOG_INFO, buf.caText, total, "[%s,%d,%s]server write to queue,len %d", SRC_NAME,
               __LINE__, kMode, total);
}

// "B": the forwarder's beat goes back to it as it came.
void FwsBeat(Fws& s, int fd, const fw::Unit& u) {
    FwsEntry& r = s.rows[fd];
    SysConnLog(fd, r.logPath, LOG_INFO, s.buf.caText, u.msgLen, "[%s,%d,%s]rcv %s:%d beat msg,len[%d]", SRC_NAME,
               __LINE__, kMode, u.hdr.ip, u.hdr.port, u.msgLen);
    if (fw::SendUnit(fd, u.raw, s.buf.caText, u.msgLen) != 0) {
        int err = errno;
        SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]beat msg response [%s] error.errno=%d,[%s]",
                   SRC_NAME, __LINE__, kMode, u.hdr.ip, err, std::strerror(err));
        s.loop->Close(fd);
        return;
    }
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d,%s]beat msg response %s:%d ,len[%d]", SRC_NAME, __LINE__,
               kMode, u.hdr.ip, u.hdr.port, u.msgLen);
}

void FwsFromLink(Fws& s, int fd, unsigned) {
    FwsEntry& r = s.rows[fd];
    fw::Unit u;
    fw::UnitStatus st = fw::ReadUnit(fd, fw::Reader::kServer, s.route, &s.buf, &u);
    switch (st) {
        case fw::UnitStatus::kHeaderShort:
            SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0,
                       "[%s,%d,%s]ret=%d fd=%d,iSockRecv error.errno %d ,errmsg[%s]", SRC_NAME, __LINE__, kMode,
                       u.headerGot, fd, u.err, std::strerror(u.err));
            s.loop->Close(fd);
            return;
        case fw::UnitStatus::kUnknownKind:
            COMP_ERRLOG_DUMP(u.raw, fw::kHeaderLen, "[%s,%d,%s]fd=%d,unknown kind[0x%02x] in the header,close",
                             SRC_NAME, __LINE__, kMode, fd, static_cast<unsigned char>(u.hdr.kind));
            s.loop->Close(fd);
            return;
        case fw::UnitStatus::kMessageFailed:
            SysConnLog(fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]SysTcpRecvMsg err", SRC_NAME, __LINE__, kMode);
            COMP_ERRLOG("[%s,%d,%s]fd=%d,SysTcpRecvMsg error.errno %d ,errmsg[%s]", SRC_NAME, __LINE__, kMode, fd,
                        u.err, std::strerror(u.err));
            s.loop->Close(fd);
            return;
        case fw::UnitStatus::kOk:
            break;
    }
    r.lastActive = s.loop->NowSec();
    switch (u.hdr.kind) {
        case fw::kConnect: FwsClientCame(s, fd, u.hdr); break;
        case fw::kDisconnect: FwsClientLeft(s, fd, u.hdr); break;
        case fw::kData: FwsClientData(s, fd, u.hdr, u.msgLen); break;
        case fw::kBeat: FwsBeat(s, fd, u); break;
        default: break;
    }
}

// ---- close and quit ---------------------------------------------------------

// A forwarder connection ends every client behind it: one N003 each, then
// their registry entries go together.
void FwsCloseHook(Fws& s, int fd) {
    FwsEntry& r = s.rows[fd];
    if (SysFWDelConnection(r.peerIp, r.port, 1) < 0)
        COMP_ERRLOG("[%s,%d] [%.16s]SysFWDelConnection error", SRC_NAME, __LINE__, r.peerIp);
    if (!s.nodes) s.nodes = std::make_unique<ConnNode[]>(comp::kRegistryNodes);
    const int n = GetVirtualNodeList(static_cast<int>(s.pid), fd, fd, s.nodes.get());
    if (n < 0) {
        COMP_ERRLOG("[%s,%d]GetVirtualNodeList error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        s.loop->Quit();
    }
    for (int i = 0; i < n; ++i) {
        char ip[fw::kIpLen + 1] = {0};
        std::memcpy(ip, s.nodes[i].caIp, fw::kIpLen);
        FwsTellGone(s, fd, ip, s.nodes[i].iPort);
    }
    if (n > 0 && DeleteVirtualFdMany(static_cast<int>(s.pid), fd, fd) == -1) {
        COMP_ERRLOG("[%s,%d]DeleteVirtualFd error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        s.loop->Quit();
    }
    SysConnLog(fd, r.logPath, LOG_DEBUG, nullptr, 0, ">>>-----[%.16s,%d][fd%d]-----END<<<", r.peerIp, r.port, fd);
    COMP_ERRLOG("---[%s,%d]fd %d, %.16s connection End ---", SRC_NAME, __LINE__, fd, r.peerIp);
}

void FwsCloseAgain(Fws& s, int fd) {
    COMP_ERRLOG("[%s,%d]fd%d had closed[%d]", SRC_NAME, __LINE__, fd, s.rows.InRange(fd) ? s.rows[fd].fd : -1);
}

void FwsQuit(Fws& s) {
    s.rows.Clear();
    comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
}

}  // namespace
