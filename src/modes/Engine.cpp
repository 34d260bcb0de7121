#include "modes/Engine.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "comp/SysComPub.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"
#include "log/LogFormat.h"
#include "log/LogRepeats.h"

namespace comp {

namespace {

int PidfdOpen(pid_t pid) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

// Without a pidfd the deadline style still looks at the parent once a second.
constexpr int64_t kParentPollUsec = kUsecPerSec;

}  // namespace

Loop::Loop(const Setup& stSetup, const Hooks& stHooks)
    : setup_(stSetup),
      hooks_(stHooks),
      ownClock_(stSetup.pClock ? nullptr : std::make_unique<SystemClock>()),
      clock_(stSetup.pClock ? stSetup.pClock : ownClock_.get()),
      ownPoller_(stSetup.pPoller ? nullptr : MakePoller(stSetup.eBackend)),
      poller_(stSetup.pPoller ? stSetup.pPoller : ownPoller_.get()),
      slots_(static_cast<size_t>(std::max(stSetup.iTableSize, 0))),
      holdUntil_(slots_.size(), 0),
      pauseUntil_(slots_.size(), 0),
      repairFailures_(slots_.size(), 0) {
    sigemptyset(&usr1_);
    sigaddset(&usr1_, SIGUSR1);
    candidates_.reserve(slots_.size() + 1);
    Tick();
    if (setup_.bUpkeep) {
        nextUpkeep_ = (now_ / kUsecPerSec + 1) * kUsecPerSec;
        log::TakeReserve();   // before connections can use the descriptors up
    }
}

Loop::~Loop() {
    if (placeholderFd_ >= 0) close(placeholderFd_);
    if (pidFd_ >= 0) close(pidFd_);
}

// ---- descriptors ----------------------------------------------------------

bool Loop::Watch(int iFd, Role eRole, Handler pfHandler, void* pvCtx) {
    if (iFd < 0 || iFd >= setup_.iTableSize || eRole == Role::kFree || holdUntil_[iFd] != 0) return false;
    Slot& s = slots_[iFd];
    if (s.role == Role::kFree && !poller_->Add(iFd)) return false;
    if (s.role == Role::kConn) --connCount_;
    if (eRole == Role::kConn) ++connCount_;
    s = Slot{eRole, s.epoch + 1, pfHandler, pvCtx};
    if (iFd > high_) high_ = iFd;
    return true;
}

void Loop::Forget(int iFd) {
    Slot& s = slots_[iFd];
    if (pauseUntil_[iFd] != 0) {
        pauseUntil_[iFd] = 0;
        --pausedCount_;
    } else {
        poller_->Remove(iFd);
    }
    if (s.role == Role::kConn) --connCount_;
    s = Slot{Role::kFree, s.epoch + 1, nullptr, nullptr};
    while (high_ >= 0 && slots_[high_].role == Role::kFree) --high_;
}

void Loop::Unwatch(int iFd) {
    if (Watched(iFd)) Forget(iFd);
}

bool Loop::Watched(int iFd) const {
    return iFd >= 0 && iFd < setup_.iTableSize && slots_[iFd].role != Role::kFree;
}

Role Loop::RoleOf(int iFd) const { return Watched(iFd) ? slots_[iFd].role : Role::kFree; }

void Loop::Close(int iFd) {
    if (!Watched(iFd)) {
        if (hooks_.closeAgain) hooks_.closeAgain(hooks_.ctx, iFd);
        return;
    }
    Forget(iFd);
    if (hooks_.close) hooks_.close(hooks_.ctx, iFd);
    close(iFd);
    if (rows_) rows_->FreeRow(iFd);
}

void Loop::CloseHolding(int iFd, int64_t lUntilUsec) {
    if (!Watched(iFd)) {
        Close(iFd);
        return;
    }
    if (placeholderFd_ < 0) placeholderFd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
    Forget(iFd);
    if (hooks_.close) hooks_.close(hooks_.ctx, iFd);
    // dup2 drops the socket (the peer sees the close) and keeps the number.
    if (placeholderFd_ >= 0 && dup2(placeholderFd_, iFd) == iFd) {
        holdUntil_[iFd] = std::max<int64_t>(lUntilUsec, 1);
        ++heldCount_;
    } else {
        close(iFd);
    }
    if (rows_) rows_->FreeRow(iFd);
}

bool Loop::Held(int iFd) const { return iFd >= 0 && iFd < setup_.iTableSize && holdUntil_[iFd] != 0; }

void Loop::ReleaseHold(int iFd) {
    if (!Held(iFd)) return;
    holdUntil_[iFd] = 0;
    --heldCount_;
    close(iFd);
}

void Loop::Quit() {
    if (hooks_.quit) hooks_.quit(hooks_.ctx);
    log::FlushRepeats(true);
    if (seam::g_pLoopDriver != nullptr) seam::g_pLoopDriver->Quit();
    SysComQuit();
}

void Loop::Pause(int iFd, int64_t lUntilUsec) {
    if (!Watched(iFd)) return;
    if (pauseUntil_[iFd] == 0) {
        poller_->Remove(iFd);
        ++pausedCount_;
    }
    pauseUntil_[iFd] = std::max<int64_t>(lUntilUsec, 1);
}

bool Loop::Paused(int iFd) const { return Watched(iFd) && pauseUntil_[iFd] != 0; }

void Loop::Resume(int iFd) {
    if (!Paused(iFd)) return;
    pauseUntil_[iFd] = 0;
    --pausedCount_;
    // A backend that refuses the descriptor now is asked again in a second,
    // rather than leaving it registered and never waited on.
    if (!poller_->Add(iFd)) Pause(iFd, now_ + kUsecPerSec);
}

bool Loop::Refile(int iFd, int iNewFd) {
    if (iNewFd == iFd) return Watched(iFd);
    if (!Watched(iFd)) {
        if (iNewFd >= 0) close(iNewFd);
        return false;
    }
    const bool waited = pauseUntil_[iFd] == 0;
    if (waited) poller_->Remove(iFd);
    const bool moved = iNewFd >= 0 && dup2(iNewFd, iFd) == iFd;
    if (iNewFd >= 0) close(iNewFd);
    // What was seen ready on the old file is not served as the new one's.
    ++slots_[iFd].epoch;
    if (waited && !poller_->Add(iFd)) {
        ++pausedCount_;
        pauseUntil_[iFd] = now_ + kUsecPerSec;
    }
    return moved;
}

// ---- time -----------------------------------------------------------------

int Loop::AddTimer(Phase ePhase, TimerFn pfFn, void* pvCtx, int64_t lDueUsec) {
    timers_.push_back(Timer{ePhase, pfFn, pvCtx, lDueUsec});
    return static_cast<int>(timers_.size()) - 1;
}

void Loop::SetDue(int iTimer, int64_t lDueUsec) { timers_.at(static_cast<size_t>(iTimer)).due = lDueUsec; }

int64_t Loop::Due(int iTimer) const { return timers_.at(static_cast<size_t>(iTimer)).due; }

void Loop::ClockWentBack() {
    for (Timer& t : timers_) t.due = 0;
    lastScanSec_ = -1;
}

void Loop::RunPhase(Phase ePhase) {
    const bool all = setup_.eStyle == WaitStyle::kFixed;
    for (size_t i = 0; i < timers_.size(); ++i) {
        Timer& t = timers_[i];
        if (t.phase != ePhase || (!all && t.due > now_)) continue;
        // The callback may add timers: keep no reference across it.
        int64_t next = t.fn(t.ctx, now_);
        timers_[i].due = next;
    }
}

// ---- the pass -------------------------------------------------------------

// The fixed style asks for the parent pid on every pass. The deadline style
// asks only when the parent's pidfd said it ended (or once a second when no
// pidfd can be had), and watches a new parent after a re-parenting to a
// sub-reaper, so that the process quits exactly when its parent becomes 1.
bool Loop::ParentGone() {
    if (setup_.eStyle == WaitStyle::kFixed || noPidfd_) return getppid() == 1;
    if (pidFd_ >= 0 && watchedParent_ > 0) return false;
    for (;;) {
        pid_t parent = getppid();
        if (parent == 1) return true;
        if (pidFd_ >= 0) {
            poller_->Remove(pidFd_);
            close(pidFd_);
            pidFd_ = -1;
        }
        watchedParent_ = 0;
        int fd = PidfdOpen(parent);
        if (fd < 0) {
            if (errno == ESRCH) continue;   // it ended in between: look again
            noPidfd_ = true;                // no pidfd: polled once a second
            return false;
        }
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        if (getppid() != parent) {          // ended before the pidfd was taken
            close(fd);
            continue;
        }
        if (!poller_->Add(fd)) {
            close(fd);
            noPidfd_ = true;
            return false;
        }
        pidFd_ = fd;
        watchedParent_ = parent;
        return false;
    }
}

bool Loop::IdleScanDue() const {
    if (setup_.eStyle == WaitStyle::kFixed) return true;
    return now_ / kUsecPerSec != lastScanSec_;
}

// Offers every connection to the mode's idle test in ascending order and
// lets go of held numbers whose time is up. The ppoll backend gathers its
// wait set in the same walk.
void Loop::IdleScan() {
    lastScanSec_ = now_ / kUsecPerSec;
    const bool gather = poller_->NeedsCandidates();
    candidates_.clear();
    for (int fd = 0; fd <= high_; ++fd) {
        Slot& s = slots_[fd];
        if (s.role == Role::kFree) continue;
        if (s.role == Role::kConn && hooks_.idle && !hooks_.idle(hooks_.ctx, fd, now_)) continue;
        if (gather && slots_[fd].role != Role::kFree && pauseUntil_[fd] == 0) candidates_.push_back(fd);
    }
    ExpireHolds();
}

void Loop::ExpirePauses() {
    if (pausedCount_ == 0) return;
    for (int fd = 0; fd <= high_ && pausedCount_ > 0; ++fd)
        if (pauseUntil_[fd] != 0 && pauseUntil_[fd] <= now_) Resume(fd);
}

void Loop::ExpireHolds() {
    if (heldCount_ == 0) return;
    for (int fd = 0; fd < setup_.iTableSize && heldCount_ > 0; ++fd)
        if (holdUntil_[fd] != 0 && holdUntil_[fd] <= now_) ReleaseHold(fd);
}

// The deadline style waits for the earliest due timer, the next whole
// second while connections are idle-tested or numbers held, and no longer
// than a second when the parent cannot be watched by pidfd.
int64_t Loop::WaitTimeout() const {
    int64_t deadline = kNever;
    for (const Timer& t : timers_) deadline = std::min(deadline, t.due);
    if ((hooks_.idle && connCount_ > 0) || heldCount_ > 0)
        deadline = std::min(deadline, (now_ / kUsecPerSec + 1) * kUsecPerSec);
    deadline = std::min(deadline, nextUpkeep_);
    if (pausedCount_ > 0)
        for (int fd = 0; fd <= high_; ++fd)
            if (pauseUntil_[fd] != 0) deadline = std::min(deadline, pauseUntil_[fd]);
    if (pidFd_ < 0) deadline = std::min(deadline, now_ + kParentPollUsec);
    if (deadline == kNever) return -1;
    return std::max<int64_t>(deadline - now_, 0);
}

void Loop::Dispatch() {
    readyEpoch_.resize(ready_.size());
    for (size_t i = 0; i < ready_.size(); ++i) {
        int fd = ready_[i].fd;
        readyEpoch_[i] = (fd >= 0 && fd < setup_.iTableSize) ? slots_[fd].epoch : 0;
    }
    for (size_t i = 0; i < ready_.size(); ++i) {
        const int fd = ready_[i].fd;
        if (fd == pidFd_ && fd >= 0) {
            watchedParent_ = 0;   // look at the parent at the start of the next pass
            continue;
        }
        if (fd < 0 || fd >= setup_.iTableSize) continue;
        // A handler may have closed this descriptor, or its number may have
        // been taken again, since the wait.
        Slot& s = slots_[fd];
        if (s.role == Role::kFree || s.epoch != readyEpoch_[i] || pauseUntil_[fd] != 0) continue;
        s.fn(s.ctx, fd, ready_[i].events);
    }
}

int Loop::RunOnce() {
    const bool fixed = setup_.eStyle == WaitStyle::kFixed;
    sigset_t old;
    if (fixed && iSetSignalBlock(&usr1_, &old) != 0) {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d,%s]iSetSignalBlock() error.errno=%d,errmsg=[%s]", setup_.pcSrc,
                      __LINE__, setup_.pcMode, errno, std::strerror(errno));
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        return -1;
    }
    Tick();
    if (ParentGone()) {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]Parent exit.errno=%d,errmsg=[%s]", setup_.pcSrc, __LINE__,
                      errno, std::strerror(errno));
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        Quit();
    }
    if (now_ >= nextUpkeep_) Upkeep();
    ExpirePauses();
    RunPhase(Phase::kBeforeWait);
    if (IdleScanDue()) {
        IdleScan();
    } else if (poller_->NeedsCandidates()) {
        candidates_.clear();
        for (int fd = 0; fd <= high_; ++fd)
            if (slots_[fd].role != Role::kFree && pauseUntil_[fd] == 0) candidates_.push_back(fd);
    }
    if (pidFd_ >= 0 && poller_->NeedsCandidates()) candidates_.push_back(pidFd_);

    const int64_t timeout = fixed ? setup_.lWaitUsec : WaitTimeout();
    int n = poller_->Wait(candidates_, clock_->RealWait(timeout), ready_);
    if (n < 0) {
        int err = errno;
        if (err != EINTR) {
            std::snprintf(g_caMsg, sizeof g_caMsg, setup_.pcWaitFailFmt, setup_.pcSrc, __LINE__, err,
                          std::strerror(err));
            ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
            Quit();
        }
        if (setup_.bLogEintr) {
            std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]EINTR , continue", setup_.pcSrc, __LINE__);
            ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        }
        if (fixed) iSetSignalMask(&old);
        return 0;
    }
    if (n == 0) clock_->WaitedOut(timeout);
    Tick();
    if (n == 0)
        RunPhase(Phase::kIdlePass);
    else
        Dispatch();
    RunPhase(Phase::kAfterDispatch);
    if (fixed) iSetSignalMask(&old);
    RunPhase(Phase::kAfterUnmask);
    return 0;
}

// ---- upkeep ---------------------------------------------------------------

// Once a second (at whole seconds, where the deadline style wakes anyway
// while connections are idle-tested): the counts of log lines left out are
// written, and every FIFO the loop waits on is checked against its path.
void Loop::Upkeep() {
    nextUpkeep_ = (now_ / kUsecPerSec + 1) * kUsecPerSec;
    log::FlushRepeats();
    for (int fd = 0; fd <= high_; ++fd)
        if (slots_[fd].role == Role::kFixed) RepairFifo(fd);
}

// A FIFO whose file was removed (or replaced) under the process can no
// longer be rung by anyone: the route would go silent with nothing logged.
// It is made again at its path and put under the same descriptor, with the
// bytes still unread in the old one carried over.
void Loop::RepairFifo(int iFd) {
    std::string path;
    const FifoFile state = CheckFifoFile(iFd, &path);
    if (state == FifoFile::kInPlace || state == FifoFile::kNotOurs) {
        repairFailures_[iFd] = 0;
        return;
    }
    const char* how = state == FifoFile::kRemoved ? "was removed" : "was replaced by another file";
    const int fresh = ReopenFifo(iFd);
    const int err = errno;
    if (fresh >= 0 && Refile(iFd, fresh)) {
        repairFailures_[iFd] = 0;
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]FIFO [%s] of descriptor %d %s; made it again", setup_.pcSrc,
                      __LINE__, path.c_str(), iFd, how);
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        return;
    }
    // Tried every second; said the first time and once a minute after.
    if (repairFailures_[iFd]++ % 60 != 0) return;
    std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]FIFO [%s] of descriptor %d %s and cannot be made again.errno=%d,errmsg=[%s]",
                  setup_.pcSrc, __LINE__, path.c_str(), iFd, how, err, std::strerror(err));
    ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
}

int Loop::Run() {
    for (;;) {
        if (seam::g_pLoopDriver != nullptr && !seam::g_pLoopDriver->Continue(*this)) return 0;
        if (RunOnce() != 0) return -1;
    }
}

}  // namespace comp
