// Station link mode: this process is the client of one station-side peer.
// It connects to the route's peer, runs the connection sequence through
// TranP, forwards the peer's frames to TranP and sends TranP's frames to the
// peer, one at a time: a sent data frame must be answered (by any frame)
// before the next goes out. Transaction and listed business frames wait in
// the message pool until the peer acknowledges them; the acknowledgement
// goes to TranP as an N005.
//
//   SysTCPVANTREL     start-up: group ids, route, pool, table, FIFOs, first connection, the loop
//   VtIdle            a connection silent past the idle time-out is closed
//   VtControl         every command ends the process
//   VtTranp           TranP's doorbell -> SysSaveMsg (pool) -> SysSendMsg when nothing waits
//   VtPeer            the peer's frame -> keep-alive, ACK/NACK, or acknowledge and SysSeqRcvCtl
//   idle pass         pool clean-up (1800 s), drop of unsent messages (240 s), reconnect, SysSendIdle
//   after dispatch    beats, and the 20-beat limit of a sequence
//   VtCloseHook       the ack flag, times and N003 of every close
//   VtQuit            table, pool, queued messages and notification FIFO
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "base/SysGlobals.h"
#include "comp/SysComPub.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "config/FileOpApp.h"
#include "ipc/SysMsgPool.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SysModes.h"
#include "modes/SysVantrel.h"
#include "util/StrTools.h"
#include "util/SysTcpBasi.h"

namespace {

namespace vt = comp::vantrel;

constexpr const char* kMode = "SysTCPVANTREL";
constexpr int64_t kWaitUsec = 10;
constexpr int kPoolBytes = 0x4000000;            // 64 MiB
constexpr char kMsgKey[] = "MSGKEY";             // TranP's messages waiting to be sent
constexpr int kCleanAgeSec = 1800;               // unacknowledged frames are kept this long
constexpr int kDropAfterSec = 240;               // nothing received: unsent messages are dropped
constexpr int kDiscardAfterSec = 120;            // nothing received and no connection: a message is discarded
constexpr int kSeqLimitBeats = 20;               // a sequence may last this many beat intervals
constexpr char kBeatType[] = "13";               // the station-link heartbeat of SysDealBeatHeart
constexpr int kBeatBufLen = 8192;

// Business codes ("%02X00%02X%02X" of class and bytes 92, 93) whose frames
// wait for their acknowledgement. "0300IIII" can never be formed and is
// listed as the platform lists it.
constexpr const char* kKeptBizCodes[] = {"03005203", "03005108", "03005101", "0300520A", "0300520B", "0300520C",
                                         "0300520D", "03005112", "0300IIII", "0300510C", "03005109", "03005106"};

struct Vt {
    char routeId[3] = {0};
    RouteRecord route{};
    int routeNo = 0;
    int idleTimeout = 0;
    int headerLen = 0;
    int beatInterval = 0;
    int reconnInterval = 0;
    bool beatOn = false;
    unsigned char group1 = 0, group2 = 0;
    char defIp[17] = {0};              // the route's peer
    int defPort = 0;
    int64_t lastClean = 0;             // seconds: last pool clean-up
    int64_t lastReconn = 0;            // seconds: last reconnect attempt of the reconnect check
    int64_t lastRecvAny = 0;           // seconds: last frame received on any connection
    int64_t reconnFailedAt = -1;       // the pass (usec) whose reconnect check failed
    bool ackFlag = true;               // no sent frame waits for an answer
    unsigned char ackCode = vt::kSubAck;  // 0x00 for good after the first CRC failure
    int queued = 0;                    // TranP's messages in the pool under MSGKEY
    long pid = 0;
    comp::ModeFifos fifos;
    comp::SockTable<VantrelSock> rows;  // pstVantrelSocks
    std::optional<comp::Loop> loop;
    int tClean = -1, tDrop = -1, tReconn = -1, tIdleSend = -1, tBeat = -1;
    QueueMsg fromTranp;                // TranP's message being sent
    QueueMsg fromPeer;                 // the peer's message being handled
};

bool VtIdle(Vt& v, int fd, int64_t now);
void VtControl(Vt& v, int fd, unsigned ev);
void VtTranp(Vt& v, int fd, unsigned ev);
void VtPeer(Vt& v, int fd, unsigned ev);
int64_t VtCleanPool(Vt& v, int64_t now);
int64_t VtDropUnsent(Vt& v, int64_t now);
int64_t VtReconnect(Vt& v, int64_t now);
int64_t VtSendIdle(Vt& v, int64_t now);
int64_t VtBeat(Vt& v, int64_t now);
void VtCloseHook(Vt& v, int fd);
void VtQuit(Vt& v);
int SysConnectIni(Vt& v);

int64_t NowSec(const Vt& v) { return v.loop->NowUsec() / comp::kUsecPerSec; }
int64_t AtSec(int64_t sec) { return sec * comp::kUsecPerSec; }

}  // namespace

extern "C" {

int SysTCPVANTREL(char* pcRouteId, RouteRecord stRoute, int iInstance, int /*iArg*/) {
    static Vt v;
    std::snprintf(v.routeId, sizeof v.routeId, "%s", pcRouteId);
    v.route = stRoute;
    v.routeNo = std::atoi(v.routeId);
    v.pid = getpid();
    char value[256] = {0};
    if (SysGetAppVar("GROUPID1", value) == 0) v.group1 = static_cast<unsigned char>(std::atoi(value));
    value[0] = '\0';
    if (SysGetAppVar("GROUPID2", value) == 0) v.group2 = static_cast<unsigned char>(std::atoi(value));

    int lenWidth = 0, lenOff = 0;
    if (iGetStaticTblValues(stRoute, &lenWidth, &lenOff, &v.idleTimeout, &v.headerLen) != 0) {
        COMP_ERRLOG("[%s,%d]iGetStaticTblValues error", SRC_NAME, __LINE__);
        return -1;
    }
    // The frame layout fixes the header: any other length could not be read.
    if (v.headerLen != vt::kHeaderLen) {
        COMP_ERRLOG("[%s,%d]%s config error,HEADERLEN[%d] of a station link must be %d", SRC_NAME, __LINE__,
                    "PLAT_STATICROUTEINF", v.headerLen, vt::kHeaderLen);
        return -1;
    }
    int tableSize = comp::ModeTableSize(SRC_NAME, __LINE__,
                                        "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost,errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    if (InitMemPool(kPoolBytes) != 0) {
        COMP_ERRLOG("init error");
        return -1;
    }
    v.beatInterval = comp::RouteInt(stRoute, RT_BEATINTERVAL);
    v.reconnInterval = comp::RouteInt(stRoute, RT_RECONNINTERVAL);
    v.beatOn = std::strcmp(comp::RouteText(stRoute, RT_BEATSWITCH), "0") != 0;

    comp::Loop::Hooks hooks;
    hooks.ctx = &v;
    hooks.idle = comp::Fn<VtIdle>;
    hooks.close = comp::Fn<VtCloseHook>;
    hooks.quit = comp::Fn<VtQuit>;
    v.loop.emplace(comp::ModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec), hooks);
    comp::Loop& loop = *v.loop;
    loop.SetRows(&v.rows);
    const int64_t now = NowSec(v);
    v.lastClean = v.lastReconn = v.lastRecvAny = now;

    v.rows.Reset(tableSize);
    for (int fd = 0; fd < tableSize; ++fd) {
        VantrelSock& r = v.rows[fd];
        r.lastSend = r.lastRecv = now;
        r.port = -1;
        r.routeId = v.routeNo;
    }
    vt::LinkState& link = vt::Link();
    link.route = stRoute;
    link.clock = &loop.clock();

    char name[32];
    std::snprintf(name, sizeof name, "%ld", v.pid);
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoPidNotify, &v.fifos) ||
        !loop.Watch(v.fifos.ctl, comp::Role::kFixed, comp::Fn<VtControl>, &v) ||
        !loop.Watch(v.fifos.notify, comp::Role::kFixed, comp::Fn<VtTranp>, &v)) {
        v.rows.Clear();
        SysFreePool();
        return -1;
    }
    // Idle-pass work in the order the passes do it.
    v.tClean = loop.AddTimer(comp::Phase::kIdlePass, comp::Fn<VtCleanPool>, &v, AtSec(v.lastClean + kCleanAgeSec));
    v.tDrop = loop.AddTimer(comp::Phase::kIdlePass, comp::Fn<VtDropUnsent>, &v, AtSec(v.lastRecvAny + kDropAfterSec));
    v.tReconn = loop.AddTimer(comp::Phase::kIdlePass, comp::Fn<VtReconnect>, &v, AtSec(v.lastReconn + v.reconnInterval));
    v.tIdleSend = loop.AddTimer(comp::Phase::kIdlePass, comp::Fn<VtSendIdle>, &v, loop.NowUsec());
    v.tBeat = loop.AddTimer(comp::Phase::kAfterDispatch, comp::Fn<VtBeat>, &v, loop.NowUsec());

    if (SysConnectIni(v) != 0) {
        v.rows.Clear();
        SysFreePool();
        comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
        return -1;
    }
    writelog(LOG_INFO, nullptr, 0, "%s Begin Working...", kMode);
    return loop.Run();
}

}  // extern "C"

namespace {

// ---- connections ------------------------------------------------------------

// The peer address of a row as NUL-terminated text.
struct PeerText {
    char ip[17] = {0};
    explicit PeerText(const VantrelSock& r) { std::memcpy(ip, r.peerIp, sizeof r.peerIp); }
};

// The first open connection, or -1 with the address to connect to: that of
// a closed record that still names a peer, else the route's peer.
int iGetFdByIP(Vt& v, char* pcIp, int* piPort) {
    int found = -1;
    v.rows.ForEachOpen([&](int fd, VantrelSock&) {
        if (found < 0 && fd > 2) found = fd;
    });
    if (found >= 0) return found;
    std::snprintf(pcIp, 17, "%s", v.defIp);
    *piPort = v.defPort;
    for (int fd = 3; fd < v.rows.Size(); ++fd) {
        const VantrelSock& r = v.rows[fd];
        if (r.peerIp[0] != '\0' && r.port >= 0) {
            std::snprintf(pcIp, 17, "%s", PeerText(r).ip);
            *piPort = r.port;
            break;
        }
    }
    return -1;
}

bool AnyOpen(Vt& v) {
    char ip[17];
    int port = 0;
    return iGetFdByIP(v, ip, &port) >= 0;
}

// Connects to the peer and starts the connection sequence: the descriptor,
// or -1.
int SysReconn(Vt& v, const char* pcIp, int iPort) {
    int fd = iSockConnect(pcIp, iPort);
    if (fd < 0) {
        int err = errno;
        COMP_ERRLOG("[%s,%d,%s]iSockConnect [%s:%d]error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, __func__, pcIp,
                    iPort, err, std::strerror(err));
        return -1;
    }
    // Frames and their acknowledgements are small and answer each other:
    // none may wait for the one before it to be acknowledged by TCP.
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (iNoblockFd(fd) != 0) {
        int err = errno;
        close(fd);
        COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        return -1;
    }
    if (!v.loop->Watch(fd, comp::Role::kConn, comp::Fn<VtPeer>, &v)) {
        close(fd);
        COMP_ERRLOG("[%s,%d,%s]too many fd,%d is bigger than %d. check sys.cfg [LOADVARS] part", SRC_NAME, __LINE__,
                    __func__, fd, v.loop->TableSize());
        return -1;
    }
    const int64_t now = NowSec(v);
    VantrelSock& r = v.rows.Open(fd);
    r.serial = 1;
    r.lastSend = r.lastRecv = now;
    r.routeId = v.routeNo;
    v.rows.SetPeer(fd, pcIp, iPort);
    SysSendInnerMsg(pcIp, v.routeNo, "N001");
    writelog(LOG_INFO, nullptr, 0, "[%s,%s:%d]zzz connect[%s:%d],fd %d", SRC_NAME, __func__, __LINE__, pcIp, iPort, fd);
    r.step = vt::kStepConnect;
    r.expected = vt::kNone;
    r.pending = static_cast<int32_t>(vt::kCmdConnect);
    WriteWarnning("发连接认证请求给N004");
    SysTimeSeqCmd2TranP(vt::kCmdConnect);
    vt::Link().seqStart = now;
    v.loop->SetDue(v.tBeat, v.loop->NowUsec());
    v.loop->SetDue(v.tIdleSend, v.loop->NowUsec());
    return fd;
}

int SysConnectIni(Vt& v) {
    const char* addr = comp::RouteText(v.route, RT_IPPORT);
    char ip[64] = {0};
    int port = 0;
    if (SysGetIpAndPort(addr, ip, &port) != 0 || std::strlen(ip) > 15) {
        COMP_ERRLOG("[%s,%d]IP:PORT format was wrong[%s]", SRC_NAME, __LINE__, addr);
        return -1;
    }
    std::snprintf(v.defIp, sizeof v.defIp, "%s", ip);
    v.defPort = port;
    vt::LinkState& link = vt::Link();
    std::snprintf(link.peerIp, sizeof link.peerIp, "%s", ip);
    link.peerPort = port;
    if (SysReconn(v, v.defIp, v.defPort) < 0) {
        COMP_ERRLOG("[%s,%d,%s]iSockConnect error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, kMode, errno,
                    std::strerror(errno));
        SysSendInnerMsg(v.defIp, v.routeNo, "N003");
        writelog(LOG_INFO, nullptr, 0, "[%s,%d]%s to tranp", SRC_NAME, __LINE__, "N003");
    }
    return 0;
}

// ---- sending ----------------------------------------------------------------

template <typename T>
void Put(unsigned char* p, int off, T value) {
    std::memcpy(p + off, &value, sizeof value);
}

// Serial and group ids, as every sent frame carries them.
void StampSender(const Vt& v, const VantrelSock& r, unsigned char* f) {
    Put(f, vt::kSerialAt, r.serial);
    f[vt::kGroup1At] = v.group1;
    f[vt::kGroup2At] = v.group2;
}

// Keeps a sent transaction frame, or a business frame of a listed code,
// until the peer acknowledges it.
void KeepForAck(const unsigned char* f, int len) {
    const vt::FrameView fv(f, len);
    bool keep = fv.Class() == vt::kClassTrade;
    if (fv.Class() == vt::kClassBusiness) {
        char code[16];
        std::snprintf(code, sizeof code, "%02X00%02X%02X", fv.Class(), fv.At(vt::kBizCodeAt), fv.At(vt::kBizCodeAt + 1));
        for (const char* c : kKeptBizCodes) keep = keep || std::strcmp(c, code) == 0;
    }
    if (!keep) return;
    char key[vt::kKeyLen + 1];
    vt::HexKey(f + vt::kIdentityAt, key);
    unsigned char raw[vt::kValueLen];
    for (int i = 0; i < vt::kValueLen; ++i) raw[i] = fv.At(vt::kValueAt + i);
    char value[2 * vt::kValueLen + 1];
    Unpack(raw, vt::kValueLen, value);
    value[2 * vt::kValueLen] = '\0';
    if (SysSetPool(key, value, 2 * vt::kValueLen) < 0) {
        COMP_ERRLOG("[%s,%d]SysSetPool error", SRC_NAME, __LINE__);
        return;
    }
    writelog(LOG_INFO, nullptr, 0, "[%s,%d][%s]-[%s]", SRC_NAME, __LINE__, key, value);
    writelog(LOG_INFO, nullptr, 0, "[%s,%d][%d]:", SRC_NAME, __LINE__, PoolGetBNum());
}

// The sequence check, the stamp and the send of one of TranP's frames: 0
// (also when the sequence drops it), -1 fatal, -2 the connection was lost.
int SendFrame(Vt& v, int fd, unsigned char* f, int len, const char* fn) {
    VantrelSock& r = v.rows[fd];
    const int step = SysSeqSndCtl(&r, reinterpret_cast<char*>(f), len);
    if (step == -1) {
        writelog(LOG_WARN, nullptr, 0, "[%s,%d,%s]丢弃非时序消息Waring", SRC_NAME, __LINE__, fn);
        return 0;
    }
    if (step == -2) {
        COMP_ERRLOG("[%s:%s:%d]fatal error!", SRC_NAME, fn, __LINE__);
        return -1;
    }
    if (step > 0) writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]收到时序消息 %d", SRC_NAME, __LINE__, fn, step);
    const int64_t now = NowSec(v);
    vt::StampTime(f, now);
    StampSender(v, r, f);
    Put(f, len - vt::kTrailerLen, vt::BodyCrc(f, len));
    f[vt::kSentAt] = 1;
    if (iSockSend(fd, f, len) != 0) {
        int err = errno;
        COMP_ERRLOG("[%s,%d,%s]iSockSend error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, fn, err, std::strerror(err));
        v.loop->Close(fd);
        return -2;
    }
    v.ackFlag = false;
    r.lastSend = now;
    r.serial = vt::NextSerial(r.serial);
    if (SysTraceEnabled(LOG_DEBUG))
        writelog(LOG_DEBUG, f, len, "[%s,%d,%s]client write to net.len=%d", SRC_NAME, __LINE__, fn, len);
    KeepForAck(f, len);
    v.loop->SetDue(v.tBeat, v.loop->NowUsec());
    return 0;
}

bool MsgSndTypeOk(const Vt& v, const char* fn) {
    if (comp::RouteText(v.route, RT_MSGSNDTYPE)[0] == '1') return true;
    COMP_ERRLOG("[%s,%d,%s]%s config error ,MSGSNDTYPE", SRC_NAME, __LINE__, fn, "PLAT_STATICROUTEINF");
    return false;
}

// Takes the oldest of TranP's messages from the pool; the frame in it and
// its length (the length field set), or null when none waits or it is no
// frame (then dropped).
unsigned char* NextFromPool(Vt& v, const char* fn, int* piLen) {
    int len = 0;
    if (SysFetchPoolOne(kMsgKey, v.fromTranp.caText, &len) != 0) return nullptr;
    --v.queued;
    writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]read mem,len=%d", SRC_NAME, __LINE__, fn, len);
    const int flen = len - comp::kPlatHdrLen;
    if (flen < vt::kOverhead) {
        COMP_ERRLOG("[%s,%d,%s]message of %d bytes holds no frame,discarded", SRC_NAME, __LINE__, fn, len);
        *piLen = 0;
        return nullptr;
    }
    auto* f = reinterpret_cast<unsigned char*>(v.fromTranp.caText + comp::kPlatHdrLen);
    Put(f, vt::kLenAt, static_cast<uint32_t>(flen));
    *piLen = flen;
    return f;
}

// Sends the oldest of TranP's messages, connecting on demand: 0, -1 fatal,
// -2 the message was discarded or the connection lost.
int SysSendMsg(Vt& v) {
    if (!MsgSndTypeOk(v, __func__)) return -1;
    int len = -1;
    unsigned char* f = NextFromPool(v, __func__, &len);
    if (f == nullptr) {
        if (len == 0) return 0;
        COMP_ERRLOG("[%s,%d,%s]SysFetchPoolOne error,nothing to send", SRC_NAME, __LINE__, __func__);
        return -1;
    }
    char ip[17] = {0};
    int port = 0;
    int fd = iGetFdByIP(v, ip, &port);
    if (fd < 0) {
        if (NowSec(v) - v.lastRecvAny >= kDiscardAfterSec) {
            COMP_ERRLOG("[%s,%d]discard msg!", SRC_NAME, __LINE__);
            return -2;
        }
        writelog(LOG_INFO, nullptr, 0, "[%s:%s:%d],[%s:%d] is going to reconnect by request msg !", SRC_NAME,
                 __func__, __LINE__, ip, port);
        fd = SysReconn(v, ip, port);
        if (fd < 0) {
            COMP_ERRLOG("[%s,%d,%s]iSockConnect error.errno=%d,errmsg[%s]", SRC_NAME, __LINE__, __func__, errno,
                        std::strerror(errno));
            return -2;
        }
        writelog(LOG_INFO, nullptr, 0, "[%s:%s:%d]connect by req msg[%s][%d]!", SRC_NAME, __func__, __LINE__, ip, port);
    }
    return SendFrame(v, fd, f, len, __func__);
}

// SysSendMsg on an idle pass, without connecting: 0 also when there is no
// connection or nothing waits.
int SysSendIdle(Vt& v) {
    if (!MsgSndTypeOk(v, __func__)) return -1;
    char ip[17] = {0};
    int port = 0;
    const int fd = iGetFdByIP(v, ip, &port);
    // Nothing waits: the pool is not searched (it may hold many kept frames).
    if (fd < 0 || v.queued == 0) return 0;
    int len = 0;
    unsigned char* f = NextFromPool(v, __func__, &len);
    if (f == nullptr) return 0;
    const int rc = SendFrame(v, fd, f, len, __func__);
    return rc == -1 ? -1 : 0;
}

// Moves TranP's message from the queue into the pool: 0, -1 fatal, -2 the
// pool is full.
int SysSaveMsg(Vt& v) {
    if (!MsgSndTypeOk(v, __func__)) return -1;
    const int len = SysReadPlatMsg(v.fifos.notify, &v.fromTranp);
    if (len < 0) return -1;
    if (SysTraceEnabled(LOG_DEBUG))
        writelog(LOG_DEBUG, v.fromTranp.caText, len, "[%s,%d]Read Queue,len=%d", SRC_NAME, __LINE__, len);
    const int rc = SysSetPool(kMsgKey, v.fromTranp.caText, len);
    if (rc == -2) {
        COMP_ERRLOG("[%s,%d]not enough space for saving", SRC_NAME, __LINE__);
        return -2;
    }
    if (rc < 0) {
        COMP_ERRLOG("[%s,%d]SysSetPool error", SRC_NAME, __LINE__);
        return 0;
    }
    ++v.queued;
    const int64_t now = v.loop->NowUsec();
    v.loop->SetDue(v.tDrop, now);
    v.loop->SetDue(v.tIdleSend, now);
    return 0;
}

// ---- receiving --------------------------------------------------------------

// The peer acknowledged (or refused) one of our frames.
void OnPeerAck(Vt& v, int fd, const vt::FrameView& f, bool ack) {
    writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]收到%s", SRC_NAME, __LINE__, kMode, ack ? "ACK" : "NACK");
    if (!ack) return;
    unsigned char id[vt::kIdentityLen];
    for (int i = 0; i < vt::kIdentityLen; ++i) id[i] = f.At(vt::kBodyAt + i);
    char key[vt::kKeyLen + 1];
    vt::HexKey(id, key);
    char value[vt::kN005BodyLen + 1] = {0};
    int vlen = 0;
    // Values are 28 digits; anything longer under such a key is not ours.
    static char stored[comp::kQueueTextLen];
    if (SysFetchPoolOne(key, stored, &vlen) != 0) return;
    std::memcpy(value, stored, static_cast<size_t>(std::min(vlen, 2 * vt::kValueLen)));

    const VantrelSock& r = v.rows[fd];
    QueueMsg& buf = v.fromPeer;
    std::memcpy(buf.caText, "N005", 4);
    std::memcpy(buf.caText + 4, value, 2 * vt::kValueLen);
    int len = SysBuildPlatMsg(&buf, vt::kN005BodyLen, fd, &v.route, PeerText(r).ip, r.port);
    buf.lMsgType = v.pid;
    if (len < 0 || SysWriteQueue(&buf, len, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
    } else {
        writelog(LOG_INFO, buf.caText, len, "[%s,%d]Send N005 to TranP", SRC_NAME, __LINE__);
    }
    writelog(LOG_INFO, nullptr, 0, "[%s,%d]bn%d [%s]-[%s]", SRC_NAME, __LINE__, PoolGetBNum(), key, value);
}

// Answers a frame with an ACK (or, after a CRC failure, a NACK); false when
// the connection was closed.
bool Acknowledge(Vt& v, int fd, const vt::FrameView& f) {
    unsigned char id[vt::kIdentityLen];
    f.Identity(id);
    unsigned char ack[vt::kAckLen];
    int len = 0;
    if (SysBuildAck(f.Class(), v.ackCode, id, &len, reinterpret_cast<char*>(ack)) != 0) {
        COMP_ERRLOG("[%s,%d]SysBuildAck error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        v.loop->Quit();
    }
    VantrelSock& r = v.rows[fd];
    StampSender(v, r, ack);
    Put(ack, vt::kAckCrcAt, vt::BodyCrc(ack, len));
    ack[vt::kSentAt] = 1;
    if (iSockSend(fd, ack, len) != 0) {
        COMP_ERRLOG("[%s,%d]snd ack to [%s] error", SRC_NAME, __LINE__, PeerText(r).ip);
        v.loop->Close(fd);
        return false;
    }
    r.serial = vt::NextSerial(r.serial);
    writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]write ack to net,len=%d", SRC_NAME, __LINE__, kMode, len);
    return true;
}

// Hands a frame the sequence lets through to TranP.
void Forward(Vt& v, int fd, int len) {
    const VantrelSock& r = v.rows[fd];
    QueueMsg& buf = v.fromPeer;
    int total = SysBuildPlatMsg(&buf, len, fd, &v.route, PeerText(r).ip, r.port);
    buf.lMsgType = v.pid;
    if (total < 0 || SysWriteQueueNoWait(&buf, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteMQ error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return;
    }
    if (SysTraceEnabled(LOG_DEBUG))
        writelog(LOG_DEBUG, buf.caText, total, "[%s,%d]write to queue,len=%d", SRC_NAME, __LINE__, total);
}

// ---- handlers, in the order the loop calls them -----------------------------

bool VtIdle(Vt& v, int fd, int64_t now) {
    VantrelSock& r = v.rows[fd];
    if (now / comp::kUsecPerSec - r.lastRecv < v.idleTimeout) return true;
    COMP_ERRLOG("[%s,%d]fd[%d] [%s]time out and close", SRC_NAME, __LINE__, fd, PeerText(r).ip);
    v.loop->Close(fd);
    return false;
}

// Every command ends the process.
void VtControl(Vt& v, int fd, unsigned) {
    comp::ReadControlCmd(SRC_NAME, fd, false, "[%s,%d]iReadFIFO2Buf error,fatal error[%d]");
    v.loop->Quit();
}

void VtTranp(Vt& v, int, unsigned) {
    const int rc = SysSaveMsg(v);
    if (rc == -1) {
        COMP_ERRLOG("[%s,%d]SysSaveMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        v.loop->Quit();
    }
    if (rc == -2) {
        COMP_ERRLOG("[%s,%d]not enough space ", SRC_NAME, __LINE__);
        return;
    }
    // While a sent frame waits for its answer, new ones stay in the pool.
    if (v.ackFlag && SysSendMsg(v) == -1) {
        COMP_ERRLOG("[%s,%d]SysSendMsg error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        v.loop->Quit();
    }
}

void VtPeer(Vt& v, int fd, unsigned) {
    int total = 0;
    const int rc = RecvVantrelMsg(fd, v.fromPeer.caText, v.headerLen, v.route, &total);
    if (rc < 0) {
        COMP_ERRLOG("[%s,%d,%s]RecvVantrelMsg error,fd=%d ,iTotalLen=%d", SRC_NAME, __LINE__, kMode, fd, rc);
        v.loop->Close(fd);
        return;
    }
    // Any frame answers the frame that waits, and shows the peer alive.
    const int64_t now = NowSec(v);
    VantrelSock& r = v.rows[fd];
    v.ackFlag = true;
    r.lastSend = r.lastRecv = now;
    v.lastRecvAny = now;
    comp::Loop& loop = *v.loop;
    loop.SetDue(v.tIdleSend, loop.NowUsec());
    loop.SetDue(v.tDrop, AtSec(now + kDropAfterSec));
    loop.SetDue(v.tBeat, loop.NowUsec());

    auto* f = reinterpret_cast<unsigned char*>(v.fromPeer.caText);
    const vt::FrameView fv(f, total);
    const unsigned char sub = fv.SubType();
    if (sub == vt::kSubKeepAlive) {
        writelog(LOG_INFO, nullptr, 0, "[%s,%d,%s]收到存活确认反馈收到", SRC_NAME, __LINE__, kMode);
        return;
    }
    if (vt::BodyCrc(f, total) != vt::StoredCrc(f, total)) {
        // From now on every acknowledgement is a NACK.
        COMP_ERRLOG("[%s,%d,%s]CRC校验失败", SRC_NAME, __LINE__, kMode);
        v.ackCode = vt::kSubNack;
    }
    if (sub == vt::kSubNack || sub == vt::kSubAck) {
        OnPeerAck(v, fd, fv, sub == vt::kSubAck);
        return;
    }
    if (!Acknowledge(v, fd, fv)) return;
    const int seq = SysSeqRcvCtl(&r, v.fromPeer.caText, v.fromPeer.caText);
    if (seq == -2) {
        COMP_ERRLOG("[%s,%d]SysSeqRcvCtl error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        loop.Quit();
    }
    if (seq == -1) {
        COMP_ERRLOG("[%s,%d]SysSeqRcvCtl error", SRC_NAME, __LINE__);
        loop.Close(fd);
        return;
    }
    if (seq != 99) Forward(v, fd, total);
}

// ---- time-driven work -------------------------------------------------------
// Each returns the earliest moment its rule could act again; a change of the
// state it looks at moves it with SetDue.

int64_t VtCleanPool(Vt& v, int64_t now) {
    const int64_t sec = now / comp::kUsecPerSec;
    if (sec - v.lastClean >= kCleanAgeSec) {
        int n = SysCleanNode(0, kCleanAgeSec);
        if (n > 0)
            writelog(LOG_WARN, nullptr, 0, "[%s,%d]SysCleanNode freed %d blocks older than %d s", SRC_NAME, __LINE__,
                     n, kCleanAgeSec);
        v.lastClean = sec;
    }
    return AtSec(v.lastClean + kCleanAgeSec);
}

int64_t VtDropUnsent(Vt& v, int64_t now) {
    if (now / comp::kUsecPerSec - v.lastRecvAny < kDropAfterSec) return AtSec(v.lastRecvAny + kDropAfterSec);
    if (v.queued > 0) {
        writelog(LOG_WARN, nullptr, 0, "[%s,%d]nothing received for %d s,%d messages from TranP dropped", SRC_NAME,
                 __LINE__, kDropAfterSec, v.queued);
        SysDelPool(kMsgKey);
        v.queued = 0;
    }
    return comp::Loop::kNever;   // until a message is stored or a frame arrives
}

int64_t VtReconnect(Vt& v, int64_t now) {
    const int64_t sec = now / comp::kUsecPerSec;
    if (sec - v.lastReconn < v.reconnInterval) return AtSec(v.lastReconn + v.reconnInterval);
    if (AnyOpen(v)) return comp::Loop::kNever;   // until the connection closes
    const int fd = SysReconn(v, v.defIp, v.defPort);
    v.lastReconn = sec;
    if (fd < 0) {
        COMP_ERRLOG("[%s,%d]reconnect failed", SRC_NAME, __LINE__);
        v.reconnFailedAt = now;
    }
    return AtSec(v.lastReconn + v.reconnInterval);
}

int64_t VtSendIdle(Vt& v, int64_t now) {
    if (v.reconnFailedAt == now) return now;   // a failed reconnect ends this pass's work
    if (!v.ackFlag || !AnyOpen(v)) return comp::Loop::kNever;
    if (SysSendIdle(v) == -1) {
        COMP_ERRLOG("[%s,%d]SysSendIdle error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        v.loop->Quit();
    }
    return v.ackFlag && v.queued > 0 && AnyOpen(v) ? now : comp::Loop::kNever;
}

// Sends a beat on a connection; false when the connection was closed.
bool SendBeat(Vt& v, int fd, int64_t sec) {
    static unsigned char beat[kBeatBufLen];
    int len = 0;
    SysDealBeatHeart(kBeatType, reinterpret_cast<char*>(beat), &len);
    if (len < vt::kMinFrame || len > kBeatBufLen) {
        COMP_ERRLOG("[%s,%d]SysDealBeatHeart gave no beat frame,len=%d", SRC_NAME, __LINE__, len);
        return true;
    }
    VantrelSock& r = v.rows[fd];
    beat[vt::kSubTypeAt] = vt::kSubBeat;
    vt::StampTime(beat, sec);
    StampSender(v, r, beat);
    if (iSockSend(fd, beat, len) != 0) {
        COMP_ERRLOG("[%s,%d]snd beat heart msg to [%s] error", SRC_NAME, __LINE__, PeerText(r).ip);
        v.loop->Close(fd);
        return false;
    }
    r.serial = vt::NextSerial(r.serial);
    r.lastSend = sec;
    if (SysTraceEnabled(LOG_DEBUG))
        writelog(LOG_DEBUG, beat, len, "[%s,%d]beat to [%s],fd %d", SRC_NAME, __LINE__, PeerText(r).ip, fd);
    return true;
}

int64_t VtBeat(Vt& v, int64_t now) {
    if (!v.beatOn) return comp::Loop::kNever;
    const int64_t sec = now / comp::kUsecPerSec;
    const int64_t limit = static_cast<int64_t>(kSeqLimitBeats) * v.beatInterval;
    int64_t next = comp::Loop::kNever;
    v.rows.ForEachOpen([&](int fd, VantrelSock& r) {
        if (sec - r.lastSend >= v.beatInterval && !SendBeat(v, fd, sec)) return;
        const int64_t seqStart = vt::Link().seqStart;
        const bool inSeq = r.step != vt::kStepIdle && seqStart != 0;
        if (inSeq && sec - seqStart >= limit) {
            COMP_ERRLOG("[%s,%d]I have waited long enough,I'm tired", SRC_NAME, __LINE__);
            v.loop->Close(fd);
            return;
        }
        next = std::min(next, AtSec(r.lastSend + v.beatInterval));
        if (inSeq) next = std::min(next, AtSec(seqStart + limit));
    });
    return next;
}

// ---- close and quit ---------------------------------------------------------

void VtCloseHook(Vt& v, int fd) {
    VantrelSock& r = v.rows[fd];
    const int64_t now = NowSec(v);
    v.ackFlag = true;
    r.lastSend = r.lastRecv = now;
    SysSendInnerMsg(PeerText(r).ip, v.routeNo, "N003");
    v.loop->SetDue(v.tReconn, AtSec(v.lastReconn + v.reconnInterval));
    v.loop->SetDue(v.tIdleSend, v.loop->NowUsec());
}

void VtQuit(Vt& v) {
    v.rows.Clear();
    SysFreePool();
    comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
}

}  // namespace
