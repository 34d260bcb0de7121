#include "modes/ModeSetup.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "comp/SysComPub.h"
#include "base/SysGlobals.h"
#include "comp/SysPlatMsg.h"
#include "comp/SysPlugin.h"
#include "config/FileOpApp.h"
#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "util/SysTcpBasi.h"

namespace comp {

namespace {
constexpr int kMaxTableSize = 1 << 20;  // a sane ceiling for one process's descriptors
}

int ModeTableSize(const char* pcSrc, int iLine, const char* pcMissingFmt) {
    char value[256] = {0};
    int n = SysGetenvByName("MAX_COM_NUM", value) == 0 ? std::atoi(value) : -1;
    if (n > 3 && n <= kMaxTableSize) return n;
    std::snprintf(g_caMsg, sizeof g_caMsg, pcMissingFmt, pcSrc, iLine, errno, std::strerror(errno));
    ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
    return -1;
}

WaitStyle ConfiguredWaitStyle() {
    char value[256] = {0};
    if (SysGetAppVar("COMP_WAIT", value) != 0) return WaitStyle::kFixed;
    return strncasecmp(value, "DEADLINE", 8) == 0 ? WaitStyle::kDeadline : WaitStyle::kFixed;
}

Loop::Setup ModeLoopSetup(const char* pcSrc, const char* pcMode, int iTableSize, int64_t lWaitUsec,
                        Backend eFixedBackend, Backend eDeadlineBackend) {
    Loop::Setup setup;
    setup.pcSrc = pcSrc;
    setup.pcMode = pcMode;
    setup.iTableSize = iTableSize;
    setup.lWaitUsec = lWaitUsec;
    setup.eStyle = ConfiguredWaitStyle();
    setup.eBackend = setup.eStyle == WaitStyle::kDeadline ? eDeadlineBackend : eFixedBackend;
    setup.bUpkeep = true;
    if (seam::g_pLoopDriver != nullptr) setup.pClock = seam::g_pLoopDriver->clock();
    return setup;
}

Loop::Setup ListenerModeLoopSetup(const char* pcSrc, const char* pcMode, int iTableSize, int64_t lWaitUsec) {
    Loop::Setup setup = ModeLoopSetup(pcSrc, pcMode, iTableSize, lWaitUsec);
    setup.pcWaitFailFmt = "[%s,%d]select() error.errno=%d,errmsg=[%s]";
    setup.bLogEintr = false;
    return setup;
}

bool OpenModeFifos(const char* pcSrc, int iInstance, const char* pcNotifyName, int iNotifyKind, ModeFifos* pstOut) {
    char name[32];
    std::snprintf(name, sizeof name, "%d_%d", getpid(), iInstance);
    pstOut->ctl = iOpenFIFO(name, kFifoControl);
    pstOut->notify = (pstOut->ctl < 0 || pcNotifyName == nullptr) ? -1 : iOpenFIFO(pcNotifyName, iNotifyKind);
    if (pstOut->ctl < 0 || (pcNotifyName != nullptr && pstOut->notify < 0)) {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]iOpenFIFO error,errno=%d,errmsg=[%s]", pcSrc, __LINE__, errno,
                      std::strerror(errno));
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        return false;
    }
    return true;
}

void RemoveOwnFifo(int iKind) {
    char name[32];
    std::snprintf(name, sizeof name, "%d", getpid());
    SysCleanIpcFileById(name, iKind);
}

ControlCmd ReadControlCmd(const char* pcSrc, int iCtlFd, bool bAcceptAllowed, const char* pcReadFailFmt) {
    char cmd[8] = {0};
    if (iReadFIFO2Buf(iCtlFd, cmd) != 0) {
        std::snprintf(g_caMsg, sizeof g_caMsg, pcReadFailFmt, pcSrc, __LINE__, errno);
    } else if (cmd[0] == '0' && bAcceptAllowed) {
        return ControlCmd::kAccept;
    } else if (cmd[0] == 'x') {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]recv quit cmd", pcSrc, __LINE__);
    } else {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]bad branch", pcSrc, __LINE__);
    }
    ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
    return ControlCmd::kQuit;
}

Accepted AcceptOnCommand(int iListenFd, int iTableSize, const AcceptOptions& stSetup) {
    Accepted a;
    if (stSetup.bShortRcvTimeo) {
        // The accept must not hang when another process took the client.
        timeval tv{0, 5};
        setsockopt(iListenFd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    // With the peer from the accept, the accept also makes the connection
    // non-blocking (one call less than iNoblockFd afterwards).
    const bool nonBlockByAccept = stSetup.bNonBlock && !stSetup.bPeerByGetpeer;
    if (stSetup.bPeerByGetpeer)
        a.fd.reset(iSockAccept(iListenFd));
    else
        a.fd.reset(SockAcceptInfoFlags(iListenFd, a.ip, &a.port, nonBlockByAccept ? SOCK_NONBLOCK : 0));
    a.err = errno;
    if (SysTellCommonp(g_stMsgQCntl[kQueueCommonp].iId, static_cast<int>(kCommonpAccepted)) != 0) {
        a.outcome = AcceptOutcome::kReportFailed;
        return a;
    }
    if (stSetup.pPacer != nullptr) stSetup.pPacer->AfterAccept(a.fd.valid() ? 0 : a.err);
    if (!a.fd.valid()) {
        errno = a.err;
        a.outcome = AcceptOutcome::kAcceptFailed;
        return a;
    }
    if (a.fd.get() >= iTableSize) {
        a.outcome = AcceptOutcome::kTooMany;
        return a;
    }
    if (stSetup.bNonBlock && !nonBlockByAccept && iNoblockFd(a.fd.get()) != 0) {
        a.err = errno;
        a.outcome = AcceptOutcome::kNoBlockFailed;
        return a;
    }
    if (stSetup.bPeerByGetpeer && iGetPeer(a.fd.get(), a.ip, &a.port) != 0) {
        a.err = errno;
        a.outcome = AcceptOutcome::kPeerFailed;
        return a;
    }
    a.outcome = AcceptOutcome::kOk;
    return a;
}

bool AcceptOnCommandLogged(const char* pcSrc, Loop& loop, int iListenFd, const AcceptOptions& stSetup, Accepted* pstOut) {
    Accepted& a = *pstOut;
    a = AcceptOnCommand(iListenFd, loop.TableSize(), stSetup);
    const char* fmt = nullptr;
    switch (a.outcome) {
        case AcceptOutcome::kOk: return true;
        case AcceptOutcome::kReportFailed:
            wlog("SysTellCommonp error");
            loop.Quit();
        case AcceptOutcome::kAcceptFailed: fmt = "[%s,%d]iSockAccept error.errno=%d,errmsg=[%s]"; break;
        case AcceptOutcome::kTooMany: fmt = "[%s,%d]Too many communication node.errno=%d,errmsg=[%s]"; break;
        case AcceptOutcome::kNoBlockFailed:
        case AcceptOutcome::kPeerFailed: fmt = "[%s,%d]iNoblockFd error.errno=%d[%s]"; break;
    }
    a.fd.reset();
    std::snprintf(g_caMsg, sizeof g_caMsg, fmt, pcSrc, __LINE__, a.err, std::strerror(a.err));
    ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
    return false;
}

bool OutOfDescriptors(int iErr) { return iErr == EMFILE || iErr == ENFILE || iErr == ENOBUFS || iErr == ENOMEM; }

// EAGAIN (the client went, or another process took it), an aborted
// connection and an interrupted call say nothing about descriptors: the
// back-off stays as it is.
void AcceptPacer::Note(Loop& loop, int iErr) {
    if (iErr == EAGAIN || iErr == EWOULDBLOCK || iErr == ECONNABORTED || iErr == EINTR) return;
    const int64_t now = loop.NowUsec();
    if (!OutOfDescriptors(iErr)) {
        if (pause_ != 0) {
            std::snprintf(g_caMsg, sizeof g_caMsg,
                          "[%s,%d]accepting again: a descriptor was free after %d accepts failed for want of one "
                          "in %lld ms",
                          loop.Source(), __LINE__, failures_, static_cast<long long>((now - since_) / 1000));
            ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        }
        pause_ = 0;
        failures_ = 0;
        return;
    }
    if (pause_ == 0) {
        since_ = now;
        std::snprintf(g_caMsg, sizeof g_caMsg,
                      "[%s,%d]no descriptor for a new connection.errno=%d,errmsg=[%s]; accepts paused for %lld ms, "
                      "then at growing intervals up to %lld ms until one is free",
                      loop.Source(), __LINE__, iErr, std::strerror(iErr),
                      static_cast<long long>(kFirstPauseUsec / 1000), static_cast<long long>(kMaxPauseUsec / 1000));
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
    }
    ++failures_;
    pause_ = pause_ == 0 ? kFirstPauseUsec : std::min(pause_ * 2, kMaxPauseUsec);
    until_ = now + pause_;
}

void AcceptPacer::AfterAccept(Loop& loop, int iListenFd, int iErr) {
    Note(loop, iErr);
    if (pause_ != 0 && OutOfDescriptors(iErr)) loop.Pause(iListenFd, until_);
}

void AcceptPacer::AfterAccept(int iErr) {
    if (loop_ == nullptr) return;
    Note(*loop_, iErr);
    if (held_ > 0) loop_->SetDue(timer_, until_);
}

void AcceptPacer::Command(Loop& loop, void (*pfAccept)(void*), void* pvCtx) {
    if (timer_ < 0) {
        loop_ = &loop;
        timer_ = loop.AddTimer(Phase::kBeforeWait, &AcceptPacer::ServeHeld, this, Loop::kNever);
    }
    accept_ = pfAccept;
    ctx_ = pvCtx;
    if (held_ == 0 && (pause_ == 0 || loop.NowUsec() >= until_)) {
        pfAccept(pvCtx);
        return;
    }
    ++held_;
    loop.SetDue(timer_, until_);
}

// Serves the commands held during a pause once it is over; an accept that
// fails again for want of a descriptor starts the next, longer pause.
int64_t AcceptPacer::ServeHeld(void* pvSelf, int64_t lNowUsec) {
    AcceptPacer& p = *static_cast<AcceptPacer*>(pvSelf);
    while (p.held_ > 0 && (p.pause_ == 0 || lNowUsec >= p.until_)) {
        --p.held_;
        p.accept_(p.ctx_);
    }
    return p.held_ > 0 ? p.until_ : Loop::kNever;
}

PreHdlOutcome RunInputPreHandling(const char* pcSrc, const char* pcRouteId, const char* pcName, int iFd,
                                  const char* pcLogPath, const char* pcData, int iLen) {
    constexpr int kReplyLen = 1024;   // what a pre-handling function may answer
    char reply[kReplyLen] = {0};
    int replyLen = 0;
    int rc = SysPreHdl(pcRouteId, pcName, pcData, iLen, reply, &replyLen, 0);
    SysConnLog(iFd, pcLogPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]", pcSrc, __LINE__, pcName);
    if (replyLen > kReplyLen) replyLen = kReplyLen;
    if (replyLen > 0) {
        SysConnLog(iFd, pcLogPath, LOG_INFO, reply, replyLen, "[%s,%d,%s]", pcSrc, __LINE__, pcName);
        if (iSockSend(iFd, reply, replyLen) != 0) {
            SysConnLog(iFd, pcLogPath, LOG_ERROR, nullptr, 0, "[%s,%d]%s", pcSrc, __LINE__, std::strerror(errno));
            return PreHdlOutcome::kClose;
        }
    }
    if (rc == 1) {
        SysConnLog(iFd, pcLogPath, LOG_DEBUG, nullptr, 0, "[%s,%d,%s]", pcSrc, __LINE__, pcName);
        return PreHdlOutcome::kDrop;
    }
    if (rc < 0) {
        SysConnLog(iFd, pcLogPath, LOG_ERROR, nullptr, 0, "[%s,%d]SysPreHdl err", pcSrc, __LINE__);
        return PreHdlOutcome::kDrop;
    }
    return PreHdlOutcome::kForward;
}

void CleanOwnQueueAndFifo(int iNotifyKind) {
    SysCleanQueue(getpid());
    RemoveOwnFifo(iNotifyKind);
}

int RouteInt(const RouteRecord& stRoute, RouteColumn eCol) { return std::atoi(stRoute.caField[eCol]); }

const char* RouteText(const RouteRecord& stRoute, RouteColumn eCol) { return stRoute.caField[eCol]; }

int32_t HeaderInt(const char* pcHeader, int iOffset) {
    int32_t v;
    std::memcpy(&v, pcHeader + iOffset, sizeof v);
    return v;
}

}  // namespace comp

extern "C" int SysConnLog(int iFd, const char* pcPath, int iLevel, const void* pvData, int iLen,
                          const char* pcFmt, ...) {
    if (iFd < 0) return -2;
    if (!SysTraceEnabled(iLevel)) return 0;
    char text[4097];
    va_list ap;
    va_start(ap, pcFmt);
    std::vsnprintf(text, sizeof text, pcFmt, ap);
    va_end(ap);
    return writelog2(iLevel, pcPath, pvData, iLen, "%s", text);
}
