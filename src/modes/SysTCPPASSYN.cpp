// Synchronous multi-client server mode (PASSYN): the server side of the
// polled link. Clients connect to a listener the route's processes share;
// this process accepts one when told to, and polls it. What TranP sends for a
// client waits in a task queue of this process, typed by the client's
// address, and goes out one task at a time: as the answer to the client's
// data frame, or pushed once the client has been quiet for the wait limit.
// The clients' data frames go on to TranP.
//
//   SysTCPPASSYN       start-up: table, FIFOs, the task queue, the loop
//   PassynSilent       a client silent past the idle time-out is closed
//   PassynControl      "0" accepts a client and polls it; any other command ends the process
//   PassynTask         TranP's message -> the task queue of the client it names
//   PassynFrame        one client frame -> SysAnswerBack -> TranP
//   SysAnswerBack      checks the frame and answers a data frame with the next task
//   PassynPush         a client quiet for the wait limit gets its next task, or a poll
//   PassynCloseHook    N003, registry and connection log of every close
//   PassynQuit         table, queued messages, notification FIFO, task queue
//
// The task queue (key: own pid + 0x8000) is created here and removed on every
// way out; tasks of a client that left wait there for the next client from
// the same address.
#include <arpa/inet.h>
#include <netinet/in.h>
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
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/ModeSetup.h"
#include "modes/SockTable.h"
#include "modes/SynFrame.h"
#include "modes/SysModes.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr const char* kMode = "SysTCPPASSYN";
constexpr int64_t kWaitUsec = 10;
constexpr key_t kTaskKeyOffset = 0x8000;
constexpr int64_t kHalfSecondUsec = 500000;      // a wait limit of 0
constexpr int64_t kFullRetryUsec = 10000;        // pause before writing to a full task queue again
constexpr uint8_t kSerialNew = 0xFF;             // so that the first poll carries 0

// One row of pSockSynsList, indexed by the descriptor.
struct SynsEntry {
    int32_t fd;           // -1: free
    int32_t aux;          // -1
    int32_t lastActive;   // seconds; accept and every client frame
    int32_t port;
    int32_t routeId;
    char peerIp[16];
    char logPath[256];
    uint8_t serial;       // serial of the last frame sent
    uint8_t awaiting;     // 1 after this process sent a frame, 0 after the client did
    int64_t sentSec;      // when the last frame was sent
    int64_t sentUsec;
    static void Free(SynsEntry& r) {
        r.fd = r.aux = r.port = -1;
        r.lastActive = 0;
        r.serial = kSerialNew;
        r.awaiting = 0;
        r.sentSec = r.sentUsec = 0;
        std::memset(r.peerIp, 0, sizeof r.peerIp);
        std::memset(r.logPath, 0, sizeof r.logPath);
    }
};

struct Passyn {
    char routeId[3] = {0};
    int routeNo = 0;
    RouteRecord route{};
    char routeName[33] = {0};
    int idleTimeout = 0;
    int64_t waitLimitUsec = 0;
    bool push = true;                     // the heartbeat switch: "0" allows only answers
    int listenFd = -1;
    long pid = 0;
    comp::ModeFifos fifos;
    int taskQid = -1;
    comp::SockTable<SynsEntry> rows;      // pSockSynsList
    std::optional<comp::Loop> loop;
    comp::AcceptPacer accepts;         // paces accepts while descriptors run out
    int pushTimer = -1;
    QueueMsg in;                          // a client frame or TranP's message
    QueueMsg task;                        // the task that answers a client
};
// SysAnswerBack keeps its C signature, so it finds the mode through this.
Passyn* g_passyn = nullptr;

bool PassynSilent(Passyn& ps, int fd, int64_t now);
void PassynControl(Passyn& ps, int fd, unsigned ev);
void PassynTask(Passyn& ps, int fd, unsigned ev);
void PassynFrame(Passyn& ps, int fd, unsigned ev);
int64_t PassynPush(Passyn& ps, int64_t now);
void PassynCloseHook(Passyn& ps, int fd);
void PassynQuit(Passyn& ps);
void ArmPush(Passyn& ps, const SynsEntry& r);
void Stamp(Passyn& ps, SynsEntry& r);
void Sent(Passyn& ps, SynsEntry& r);
bool TaskType(const SynsEntry& r, long* type);

}  // namespace

extern "C" {

int SysTCPPASSYN(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd) {
    static std::optional<Passyn> state;
    state.emplace();
    Passyn& ps = *state;
    g_passyn = &ps;
    std::snprintf(ps.routeId, sizeof ps.routeId, "%s", pcRouteId);
    ps.routeNo = std::atoi(ps.routeId);
    ps.route = stRoute;
    ps.pid = getpid();
    ps.listenFd = iListenFd;
    std::snprintf(ps.routeName, sizeof ps.routeName, "%.32s", stRoute.caField[RT_ROUTENAME]);
    ps.idleTimeout = comp::RouteInt(stRoute, RT_IDLETIMEOUT);
    const int limit = comp::RouteInt(stRoute, RT_BEATINTERVAL);
    ps.waitLimitUsec = limit == 0 ? kHalfSecondUsec : static_cast<int64_t>(limit) * comp::kUsecPerSec;
    ps.push = stRoute.caField[RT_BEATSWITCH][0] != '0';

    const int tableSize = comp::ModeTableSize(
        SRC_NAME, __LINE__, "[%s,%d]SysGetenvByName error or MAX_COM_NUM lost in [LOADVARS],errno=%d,errmsg=[%s]");
    if (tableSize < 0) return -1;
    ps.rows.Reset(tableSize);

    comp::Loop::Hooks hooks;
    hooks.ctx = &ps;
    hooks.idle = comp::Fn<PassynSilent>;
    hooks.close = comp::Fn<PassynCloseHook>;
    hooks.quit = comp::Fn<PassynQuit>;
    const comp::Loop::Setup setup = comp::ListenerModeLoopSetup(SRC_NAME, kMode, tableSize, kWaitUsec);
    ps.loop.emplace(setup, hooks);
    comp::Loop& loop = *ps.loop;
    loop.SetRows(&ps.rows);

    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    if (!comp::OpenModeFifos(SRC_NAME, iInstance, name, comp::kFifoPidNotify, &ps.fifos) ||
        !loop.Watch(ps.fifos.ctl, comp::Role::kFixed, comp::Fn<PassynControl>, &ps) ||
        !loop.Watch(ps.fifos.notify, comp::Role::kFixed, comp::Fn<PassynTask>, &ps))
        return -1;
    ps.taskQid = MsgInit(static_cast<key_t>(ps.pid + kTaskKeyOffset));
    if (ps.taskQid < 0) {
        COMP_ERRLOG("[%s,%d]MsgInit error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    if (ps.push) ps.pushTimer = loop.AddTimer(comp::Phase::kAfterDispatch, comp::Fn<PassynPush>, &ps, comp::Loop::kNever);
    writelog(LOG_DEBUG, nullptr, 0, "[%s,%d]%s Begin Working,task queue %d", SRC_NAME, __LINE__, kMode, ps.taskQid);
    const int rc = loop.Run();
    // The loop ended without quitting (SIGUSR1 could not be blocked): the
    // task queue goes all the same.
    MsgRemove(ps.taskQid);
    return rc;
}

// One task of the address in pstBuf's type word, without waiting: its
// length (0: none), or -1.
int SysReadTaskQueue(int iTaskQid, QueueMsg* pstBuf) {
    const long type = pstBuf->lMsgType;
    for (;;) {
        pstBuf->lMsgType = type;
        const int n = MsgReadNoWait(iTaskQid, pstBuf);
        if (n >= 0) return n;
        if (n == -EINTR) continue;
        errno = -n;
        COMP_ERRLOG("[%s:%s:%d]Read Task queue error !", SRC_NAME, __func__, __LINE__);
        return -1;
    }
}

// Checks one client frame and answers a data frame with the client's next
// task, or with a poll when it has none: 0, -1 (the connection goes), -2 (the
// task queue failed: fatal).
int SysAnswerBack(char* pcFrame, int iLen, int iFd, int iTaskQid) {
    if (g_passyn == nullptr || !g_passyn->rows.IsOpen(iFd)) return -1;
    Passyn& ps = *g_passyn;
    SynsEntry& r = ps.rows[iFd];
    const std::span<const char> frame(pcFrame, iLen > 0 ? static_cast<size_t>(iLen) : 0);
    const comp::syn::Step step = comp::syn::ServerStep(frame, r.serial);
    if (step.verdict == comp::syn::Verdict::kMalformed) {
        COMP_ERRLOG_DUMP(pcFrame, iLen, "[%s,%d,%s]msg format error", SRC_NAME, __LINE__, r.peerIp);
        return -1;
    }
    if (step.verdict == comp::syn::Verdict::kBadSerial) {
        COMP_ERRLOG("[%s,%d,%s]msg has an invalid serial num,expect[%d],actual[%d]", SRC_NAME, __LINE__, r.peerIp,
                    r.serial, comp::syn::Serial(frame));
        return -1;
    }
    if (!step.answer) return 0;
    if (!TaskType(r, &ps.task.lMsgType)) return -1;
    const int taskLen = SysReadTaskQueue(iTaskQid, &ps.task);
    if (taskLen < 0) {
        COMP_ERRLOG("Read Task queue error .errno %d ,errmsg[%s]", errno, std::strerror(errno));
        return -2;
    }
    r.serial = static_cast<uint8_t>(r.serial + 1);
    char empty[comp::syn::kEmptyLen];
    const comp::syn::Answer a = comp::syn::MakeAnswer(ps.task.caText, taskLen, comp::syn::kCmdPoll, r.serial, empty);
    if (a.tooShort)
        COMP_ERRLOG_DUMP(ps.task.caText, taskLen, "[%s,%d]task of %d bytes holds no frame,polled instead", SRC_NAME,
                         __LINE__, taskLen);
    if (iSockSend(iFd, a.data, a.len) != 0) {
        COMP_ERRLOG("[%s,%d]iSockSend error.errno %d,[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    Sent(ps, r);
    SysConnLog(r.fd, r.logPath, LOG_INFO, a.data, a.len, "[%s,%d]server write to net succ,len=%d", SRC_NAME,
               __LINE__, a.len);
    return 0;
}

}  // extern "C"

namespace {

// The task type of a client: its IPv4 address as a number. False (the
// connection is to go) when the address does not convert.
bool TaskType(const SynsEntry& r, long* type) {
    char ip[sizeof r.peerIp + 1] = {0};
    std::memcpy(ip, r.peerIp, sizeof r.peerIp);
    in_addr addr{};
    if (inet_aton(ip, &addr) == 0 || addr.s_addr == 0) {
        COMP_ERRLOG("%s[%s] is invalid,inet_aton error.errno %d ,errmsg[%s]", kMode, ip, errno, std::strerror(errno));
        return false;
    }
    *type = static_cast<long>(addr.s_addr);
    return true;
}

// The time a frame went to the client: the wait limit counts from it.
void Stamp(Passyn& ps, SynsEntry& r) {
    const int64_t now = ps.loop->NowUsec();
    r.sentSec = now / comp::kUsecPerSec;
    r.sentUsec = now % comp::kUsecPerSec;
}

// An answer or a push went to the client: nothing more is sent until it has
// spoken.
void Sent(Passyn& ps, SynsEntry& r) {
    Stamp(ps, r);
    r.awaiting = 1;
}

// A client that spoke last may be pushed to once the wait limit has passed.
void ArmPush(Passyn& ps, const SynsEntry& r) {
    if (!ps.push || r.awaiting) return;
    const int64_t due = r.sentSec * comp::kUsecPerSec + r.sentUsec + ps.waitLimitUsec + 1;
    ps.loop->SetDue(ps.pushTimer, std::min(ps.loop->Due(ps.pushTimer), due));
}

// The open client whose address is ip (lowest descriptor first), or -1.
int iGetFdByIP(const char* pcIp, int iTableSize) {
    Passyn& ps = *g_passyn;
    const int fd = ps.rows.FindByIp(std::string_view(pcIp, strnlen(pcIp, 16)));
    if (fd < 0) COMP_ERRLOG("[%s:%s:%d]not found fd for[%s][%d]!", SRC_NAME, __func__, __LINE__, pcIp, iTableSize);
    return fd;
}

// ---- handlers, in the order the loop calls them -----------------------------

bool PassynSilent(Passyn& ps, int fd, int64_t now) {
    SynsEntry& r = ps.rows[fd];
    if (now / comp::kUsecPerSec - r.lastActive <= ps.idleTimeout) return true;
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d]fd[%d] time out and close ", SRC_NAME, __LINE__, fd);
    ps.loop->Close(fd);
    return false;
}

// Polls a client that was just accepted: the first frame carries serial 0.
void FirstPoll(Passyn& ps, int fd) {
    SynsEntry& r = ps.rows[fd];
    r.serial = static_cast<uint8_t>(r.serial + 1);
    char poll[comp::syn::kEmptyLen];
    const int len = comp::syn::BuildEmpty(comp::syn::kCmdPoll, r.serial, poll);
    if (iSockSend(fd, poll, len) != 0) {
        const int err = errno;
        COMP_ERRLOG("[%s,%d]write to net error.errno %d,[%s]", SRC_NAME, __LINE__, err, std::strerror(err));
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d,%s]write to net error.errno %d [%s]", SRC_NAME,
                   __LINE__, kMode, err, std::strerror(err));
        ps.loop->Close(fd);
        return;
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, poll, len, "[%s,%d,%s]write to net.len=%d", SRC_NAME, __LINE__, kMode, len);
    Stamp(ps, r);   // the flag stays 0: pushed to like a client that has spoken
    ArmPush(ps, r);
}

void Accept(Passyn& ps) {
    comp::AcceptOptions how;
    how.pPacer = &ps.accepts;
    comp::Accepted a = comp::AcceptOnCommand(ps.listenFd, ps.loop->TableSize(), how);
    switch (a.outcome) {
        case comp::AcceptOutcome::kReportFailed:
            wlog("SysTellCommonp error");
            ps.loop->Quit();
        case comp::AcceptOutcome::kAcceptFailed:
            if (a.err == EAGAIN || a.err == EWOULDBLOCK)
                COMP_ERRLOG("[%s,%d]zzz don't expect here", SRC_NAME, __LINE__);
            else
                COMP_ERRLOG("[%s,%d]iSockAccept error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, a.err,
                            std::strerror(a.err));
            return;
        case comp::AcceptOutcome::kTooMany:
            COMP_ERRLOG("[%s,%d]Too many communication node.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, a.err,
                        std::strerror(a.err));
            return;
        case comp::AcceptOutcome::kNoBlockFailed:
        case comp::AcceptOutcome::kPeerFailed:
            COMP_ERRLOG("[%s,%d]iNoblockFd error.errno=%d[%s]", SRC_NAME, __LINE__, a.err, std::strerror(a.err));
            return;
        case comp::AcceptOutcome::kOk:
            break;
    }
    if (!ps.loop->Watch(a.fd.get(), comp::Role::kConn, comp::Fn<PassynFrame>, &ps)) return;
    const int fd = a.fd.release();
    writelog(LOG_INFO, nullptr, 0, "[%s,%d][%s][%d]", SRC_NAME, __LINE__, a.ip, a.port);
    SynsEntry& r = ps.rows.Open(fd);
    ps.rows.SetPeer(fd, a.ip, a.port);
    r.routeId = ps.routeNo;
    r.lastActive = ps.loop->NowSec();
    r.serial = kSerialNew;
    const char* home = getenv("HOME");
    std::snprintf(r.logPath, sizeof r.logPath, "%s/runs/log/com_%s_%s.log", home ? home : "", ps.routeName, a.ip);
    writelog(LOG_INFO, nullptr, 0, "%s,%d,new fd %d", SRC_NAME, __LINE__, fd);
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "--------------------------------------------------[fd%d]-----BEGINC>>>",
               fd);
    if (SysRegConnection(a.ip, a.port, &ps.route, fd, 1) < 0) {
        COMP_ERRLOG("[%s,%d]SysRegConnection error", SRC_NAME, __LINE__);
        ps.loop->Close(fd);
        return;
    }
    const bool told = SysSendInnerMsg(a.ip, ps.routeNo, "N001") == 0;
    SysConnLog(fd, r.logPath, LOG_INFO, nullptr, 0, "%s to Tranp%s", "N001", told ? "" : " failed");
    FirstPoll(ps, fd);
}

void PassynControl(Passyn& ps, int fd, unsigned) {
    if (comp::ReadControlCmd(SRC_NAME, fd, true) == comp::ControlCmd::kAccept)
        ps.accepts.Command(*ps.loop, comp::Fn<Accept>, &ps);
    else
        ps.loop->Quit();
}

// TranP's message names its client by descriptor, or with descriptor 0 by
// address; it waits in the task queue under the client's address.
void PassynTask(Passyn& ps, int fd, unsigned) {
    QueueMsg& m = ps.in;
    const int len = SysReadPlatMsg(fd, &m);
    if (len < 0) {
        COMP_ERRLOG("[%s:%s:%d]SysReadPlatMsg queue [%d] error !", SRC_NAME, __func__, __LINE__,
                    g_stMsgQCntl[comp::kQueueFromTranp].iId);
        ps.loop->Quit();
    }
    char* hdr = m.caText;
    char ip[17] = {0};
    std::memcpy(ip, hdr + comp::plat::kIp, 16);
    int target = comp::HeaderInt(hdr, comp::plat::kSock);
    if (target == 0) {
        target = iGetFdByIP(ip, ps.loop->TableSize());
        if (target < 0) {
            COMP_ERRLOG("[%s,%s,%d]IP %s didn't find the original connection!", SRC_NAME, __func__, __LINE__, ip);
            return;
        }
        std::memcpy(hdr + comp::plat::kSock, &target, sizeof target);
    } else if (!ps.rows.IsOpen(target) || !ps.loop->IsConn(target)) {
        COMP_ERRLOG("[%s,%d]fd%d had closed[%d]", SRC_NAME, __LINE__, target, len);
        return;
    } else if (std::strncmp(ps.rows[target].peerIp, ip, 16) != 0) {
        COMP_ERRLOG("[%s,%d]fd%d was replaceed [%.16s,%s]", SRC_NAME, __LINE__, target, ps.rows[target].peerIp, ip);
        return;
    }
    SynsEntry& r = ps.rows[target];
    m.lMsgType = 0;
    if (!TaskType(r, &m.lMsgType)) {
        COMP_ERRLOG("[%s,%s,%d]ip [%.16s] is invalid!", SRC_NAME, __func__, __LINE__, r.peerIp);
        ps.loop->Close(target);
        return;
    }
    // A full task queue is waited out: what it holds is the clients' to take.
    while (MsgWriteNoWait(ps.taskQid, &m, len) != 0) {
        const int err = errno;
        if (err == EINTR) continue;
        if (err != EAGAIN) {
            COMP_ERRLOG("[%s:%s:%d]MsgWriteNoWait error !,errno=%d,[%s]", SRC_NAME, __func__, __LINE__, err,
                        std::strerror(err));
            ps.loop->Quit();
        }
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "qid[%d] is full.MsgWriteNoWait error !,errno=%d,[%s]",
                   ps.taskQid, err, std::strerror(err));
        ps.loop->clock().SleepUsec(kFullRetryUsec);
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d,%s]write to task queue succ.len=%d", SRC_NAME, __LINE__,
               kMode, len);
}

void PassynFrame(Passyn& ps, int fd, unsigned) {
    SynsEntry& r = ps.rows[fd];
    QueueMsg& m = ps.in;
    int err = 0;
    const int len = SysTcpRecvMsg(fd, &ps.route, &m, &err);
    if (len < 0) {
        if (err == 0) err = errno;
        COMP_ERRLOG("[%s,%d,%s]fd=%d,SysTcpRecvMsg error.errno %d ,errmsg[%s]", SRC_NAME, __LINE__, r.peerIp, fd, err,
                    std::strerror(err));
        ps.loop->Close(fd);
        return;
    }
    r.awaiting = 0;
    r.lastActive = ps.loop->NowSec();
    SysConnLog(r.fd, r.logPath, LOG_INFO, m.caText, len, "[%s,%d,%s]server rcv net,len[%d]", SRC_NAME, __LINE__, kMode,
               len);
    const int rc = SysAnswerBack(m.caText, len, fd, ps.taskQid);
    if (rc == -1) {
        COMP_ERRLOG("[%s,%d,%s]SysAnswerBack error", SRC_NAME, __LINE__, r.peerIp);
        ps.loop->Close(fd);
        return;
    }
    if (rc == -2) {
        COMP_ERRLOG("[%s,%d]SysAnswerBack error,queue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        ps.loop->Quit();
    }
    ArmPush(ps, r);
    const uint8_t cmd = comp::syn::Command(std::span<const char>(m.caText, static_cast<size_t>(len)));
    if (cmd == comp::syn::kCmdPoll || cmd == comp::syn::kCmdNoData) return;

    // A frame longer than a platform message can carry is the client's
    // fault: it was answered, but goes no further.
    if (len > comp::kQueueTextLen - comp::kPlatHdrLen) {
        COMP_ERRLOG("[%s,%d]fd=%d,frame of %d bytes exceeds the %d a platform message carries,dropped", SRC_NAME,
                    __LINE__, fd, len, comp::kQueueTextLen - comp::kPlatHdrLen);
        return;
    }
    const int total = SysBuildPlatMsg(&m, len, fd, &ps.route, r.peerIp, r.port);
    if (total < 0) {
        COMP_ERRLOG("[%s,%d]SysBuildPlatMsg error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        ps.loop->Quit();
    }
    m.lMsgType = ps.pid;
    if (SysWriteQueue(&m, total, g_stMsgQCntl[comp::kQueueToTranp].iId) != 0) {
        COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                    std::strerror(errno));
        ps.loop->Quit();
    }
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "[%s,%d,%s]server write to queue,len %d", SRC_NAME, __LINE__,
               kMode, total);
}

// Runs after every dispatch: each client that spoke last and has been quiet
// for longer than the wait limit gets its next task, or a poll. A send time
// ahead of the clock (the clock went back) is pulled back to it. Returns the
// earliest moment another client's limit runs out.
int64_t PassynPush(Passyn& ps, int64_t now) {
    const int64_t nowSec = now / comp::kUsecPerSec, nowUsec = now % comp::kUsecPerSec;
    int64_t due = comp::Loop::kNever;
    ps.rows.ForEachOpen([&](int fd, SynsEntry& r) {
        if (r.awaiting) return;
        int64_t elapsed = (nowSec - r.sentSec) * comp::kUsecPerSec + (nowUsec - r.sentUsec);
        if (elapsed < 0) {
            COMP_ERRLOG("[%s,%d]%ld>%ld || %ld== %ld && %ld > %ld", SRC_NAME, __LINE__, static_cast<long>(r.sentSec),
                        static_cast<long>(nowSec), static_cast<long>(r.sentSec), static_cast<long>(nowSec),
                        static_cast<long>(r.sentUsec), static_cast<long>(nowUsec));
            if (r.sentSec > nowSec)
                r.sentSec = nowSec;
            else
                r.sentUsec = nowUsec;
            elapsed = 0;
        }
        if (elapsed <= ps.waitLimitUsec) {
            // Still ahead of the clock: look again on the next pass.
            const int64_t sent = r.sentSec * comp::kUsecPerSec + r.sentUsec;
            due = std::min(due, sent > now ? now : sent + ps.waitLimitUsec + 1);
            return;
        }
        if (!TaskType(r, &ps.task.lMsgType)) {
            ps.loop->Close(fd);
            return;
        }
        const int taskLen = SysReadTaskQueue(ps.taskQid, &ps.task);
        if (taskLen < 0) {
            COMP_ERRLOG("[%s,%d]SysWriteQueue error.errno=%d,errmsg:[%s]", SRC_NAME, __LINE__, errno,
                        std::strerror(errno));
            ps.loop->Quit();
        }
        r.serial = static_cast<uint8_t>(r.serial + 1);
        char empty[comp::syn::kEmptyLen];
        const comp::syn::Answer a =
            comp::syn::MakeAnswer(ps.task.caText, taskLen, comp::syn::kCmdPoll, r.serial, empty);
        if (a.tooShort)
            COMP_ERRLOG_DUMP(ps.task.caText, taskLen, "[%s,%d]task of %d bytes holds no frame,polled instead",
                             SRC_NAME, __LINE__, taskLen);
        if (iSockSend(fd, a.data, a.len) != 0) {
            COMP_ERRLOG("[%s,%d]write msg to net error.errno %d,[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
            ps.loop->Close(fd);
            return;
        }
        Sent(ps, r);
        SysConnLog(r.fd, r.logPath, LOG_INFO, a.data, a.len, "[%s,%d,%s]write %s to net.len=%d", SRC_NAME, __LINE__,
                   kMode, a.task ? "Task" : "Query", a.len);
    });
    return due;
}

// ---- close and quit ---------------------------------------------------------

void PassynCloseHook(Passyn& ps, int fd) {
    SynsEntry& r = ps.rows[fd];
    const bool told = SysSendInnerMsg(r.peerIp, ps.routeNo, "N003") == 0;
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "%s to tranp%s", "N003", told ? "" : " failed");
    if (SysDelConnection(ps.routeNo, r.peerIp, r.port, 1) < 0)
        SysConnLog(r.fd, r.logPath, LOG_ERROR, nullptr, 0, "[%s,%d] [%s]SysDelConnection error", SRC_NAME, __LINE__,
                   r.peerIp);
    SysConnLog(r.fd, r.logPath, LOG_INFO, nullptr, 0, "--------------------------------------------------[fd%d]-----ENDC<<<",
               fd);
    COMP_ERRLOG("---fd %d connection End ---", fd);
}

void PassynQuit(Passyn& ps) {
    ps.rows.Clear();
    comp::CleanOwnQueueAndFifo(comp::kFifoPidNotify);
    if (ps.taskQid >= 0) MsgRemove(ps.taskQid);
    ps.taskQid = -1;
}

}  // namespace
