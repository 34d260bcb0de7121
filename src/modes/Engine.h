// The loop engine of the transport modes. A mode binds each descriptor to a
// handler with its own context, attaches its time-driven work to the phases
// of the pass, supplies one close hook and one quit hook, and calls Run():
//
//   block SIGUSR1 -> parent check -> [before-wait timers] -> idle scan (and,
//   for ppoll, the wait set) -> wait -> [idle-pass timers] or dispatch in
//   ascending descriptor order -> [after-dispatch timers] -> restore the
//   mask -> [after-unmask timers]
//
// Two wait styles. The fixed style is the platform's: every pass blocks the
// signal, asks for the parent pid, waits with the mode's own time-out and runs
// every timer of a phase whenever the pass reaches it. The deadline style
// keeps what another process can observe and drops the rest: the wait lasts
// until the earliest timer is due (or the next whole second while idle
// connections must be tested), the parent is watched through a pidfd, and a
// timer runs only once it is due.
//
// Two backends: ppoll (the wait set is gathered from the registrations on
// every pass) and epoll (standing registrations). Both hand the handlers the
// ready events in ascending descriptor order, and neither ever needs an
// fd_set: a descriptor is admitted only below the table size.
#pragma once

#include <signal.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "modes/EngineClock.h"

namespace comp {

// Events handed to a handler.
inline constexpr unsigned kEvRead = 1u;
inline constexpr unsigned kEvError = 2u;
inline constexpr unsigned kEvHangup = 4u;

// What a registered descriptor is to the loop: a FIFO or listener is always
// waited on; a connection is also offered to the mode's idle test.
enum class Role : uint8_t { kFree = 0, kFixed = 1, kConn = 2 };

// Where time-driven work runs within a pass.
enum class Phase : uint8_t {
    kBeforeWait = 0,     // after the parent check, before the idle scan
    kIdlePass = 1,       // the wait ended with nothing ready
    kAfterDispatch = 2,  // every pass that waited, before the mask is restored
    kAfterUnmask = 3,    // every pass that waited, after the mask is restored
};
inline constexpr int kPhaseCount = 4;

enum class WaitStyle : uint8_t { kFixed, kDeadline };
enum class Backend : uint8_t { kPoll, kEpoll };

// One ready descriptor of a wait.
struct Ready {
    int fd;
    unsigned events;
};

// The wait mechanism. ppoll waits on the candidates it is given each pass;
// epoll keeps standing registrations and ignores them.
class Poller {
public:
    virtual ~Poller() = default;
    virtual bool Add(int iFd) = 0;
    virtual void Remove(int iFd) = 0;
    virtual bool NeedsCandidates() const = 0;
    // Waits up to lTimeoutUsec (-1: no limit); fills out in ascending
    // descriptor order. The count, or -1 with errno set.
    virtual int Wait(const std::vector<int>& candidates, int64_t lTimeoutUsec, std::vector<Ready>& out) = 0;
};
std::unique_ptr<Poller> MakePoller(Backend eBackend);

// Rows of a mode's socket table, as far as the loop needs them: the loop
// frees a descriptor's row when it has closed the descriptor.
class RowOwner {
public:
    virtual void FreeRow(int iFd) = 0;

protected:
    ~RowOwner() = default;
};

class Loop {
public:
    // Hooks of the mode, all with the mode's context. Only close and quit
    // are required.
    struct Hooks {
        void* ctx = nullptr;
        // An idle test of one connection while the wait set is built: false
        // when it closed the connection (through Loop::Close).
        bool (*idle)(void* ctx, int iFd, int64_t lNowUsec) = nullptr;
        // Called by Close while the row still describes the connection:
        // registry, notifications, connection log.
        void (*close)(void* ctx, int iFd) = nullptr;
        // Close of a descriptor that is not registered (a second close).
        void (*closeAgain)(void* ctx, int iFd) = nullptr;
        // The mode's clean-up before the process ends (table, queue, FIFOs).
        void (*quit)(void* ctx) = nullptr;
    };
    struct Setup {
        const char* pcSrc = "";        // source name of the engine's log lines (the mode's)
        const char* pcMode = "";       // mode name for the log lines
        int iTableSize = 0;            // MAX_COM_NUM: descriptors stay below it
        int64_t lWaitUsec = 0;         // the mode's fixed wait time-out
        WaitStyle eStyle = WaitStyle::kFixed;
        Backend eBackend = Backend::kPoll;
        bool bLogEintr = true;         // "[%s,%d]EINTR , continue" on an interrupted wait
        // The text logged (with source, line, errno, its text) when the wait
        // fails, before the process quits.
        const char* pcWaitFailFmt = "[%s,%d]select error.errno=%d,errmsg=[%s]";
        Clock* pClock = nullptr;       // null: the system clock
        Poller* pPoller = nullptr;     // a backend of the caller's (tests); null: eBackend's
        // Once a second: the FIFOs this process opened are made again when
        // their files were removed, and the log's counts of lines left out
        // are written (see Upkeep). ModeLoopSetup turns it on for every mode.
        bool bUpkeep = false;
    };

    Loop(const Setup& stSetup, const Hooks& stHooks);
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // ---- descriptors ------------------------------------------------------
    using Handler = void (*)(void* ctx, int iFd, unsigned uEvents);
    // Registers a descriptor below the table size with its handler and
    // context; false when it is out of range or the backend refuses it.
    // Registering a registered descriptor again replaces its handler.
    bool Watch(int iFd, Role eRole, Handler pfHandler, void* pvCtx);
    // Forgets a descriptor without closing it.
    void Unwatch(int iFd);
    bool Watched(int iFd) const;
    Role RoleOf(int iFd) const;
    bool IsConn(int iFd) const { return RoleOf(iFd) == Role::kConn; }

    // The one close of a connection: unregister, the mode's close hook, close
    // the descriptor, free its row. A descriptor that is not registered goes
    // to the closeAgain hook instead.
    void Close(int iFd);
    // As Close, but the descriptor number stays taken by a placeholder until
    // ReleaseHold or until lUntilUsec passes, so that no newcomer receives the
    // number while something addressed to the old connection may still come.
    void CloseHolding(int iFd, int64_t lUntilUsec);
    bool Held(int iFd) const;
    void ReleaseHold(int iFd);
    // The mode's clean-up, then the platform's quit (logoff, exit 0).
    [[noreturn]] void Quit();

    // Leaves a registered descriptor out of the waits until lUntilUsec (its
    // registration stays; what is ready on it meanwhile is served after).
    // Pausing a paused descriptor moves its end.
    void Pause(int iFd, int64_t lUntilUsec);
    bool Paused(int iFd) const;
    void Resume(int iFd);
    // Puts the open file of iNewFd under the number iFd, which keeps its
    // registration, role and row; iNewFd is closed. For a file that must be
    // opened again under a descriptor the mode already knows (a FIFO made
    // again). False when iFd is not registered or the move fails (iNewFd is
    // closed either way).
    bool Refile(int iFd, int iNewFd);

    // ---- time -------------------------------------------------------------
    // Time-driven work: runs in its phase and returns when it wants to run
    // next (kNever: not until re-armed). The fixed style runs it on every
    // pass that reaches its phase; the deadline style once it is due. Timers
    // of one phase run in the order they were added.
    using TimerFn = int64_t (*)(void* ctx, int64_t lNowUsec);
    static constexpr int64_t kNever = INT64_MAX;
    int AddTimer(Phase ePhase, TimerFn pfFn, void* pvCtx, int64_t lDueUsec = 0);
    // Moves a timer's due time (earlier or later).
    void SetDue(int iTimer, int64_t lDueUsec);
    int64_t Due(int iTimer) const;

    // The pass's time, read once at its start and again after the wait. When
    // the clock is seen to have gone back, the deadline style runs every
    // timer at once: due times taken from the old clock mean nothing now, and
    // each timer tests its own rule as in the fixed style.
    int64_t NowUsec() const { return now_; }
    int32_t NowSec() const { return static_cast<int32_t>(now_ / 1000000); }
    Clock& clock() { return *clock_; }

    // ---- running ----------------------------------------------------------
    // Passes until the process ends; returns -1 only when SIGUSR1 cannot be
    // blocked.
    int Run();
    // One pass: 0, or -1 when SIGUSR1 cannot be blocked.
    int RunOnce();

    int TableSize() const { return setup_.iTableSize; }
    // The source name of the mode's lines (the "[%s,%d]" slot).
    const char* Source() const { return setup_.pcSrc; }
    WaitStyle Style() const { return setup_.eStyle; }
    void SetRows(RowOwner* pRows) { rows_ = pRows; }

private:
    struct Slot {
        Role role = Role::kFree;
        uint32_t epoch = 0;       // bumped on every change: a reused number is a new registration
        Handler fn = nullptr;
        void* ctx = nullptr;
    };
    struct Timer {
        Phase phase;
        TimerFn fn;
        void* ctx;
        int64_t due;
    };

    void Tick() {
        const int64_t t = clock_->NowUsec();
        if (t < now_) ClockWentBack();
        now_ = t;
    }
    void ClockWentBack();
    bool ParentGone();
    void RunPhase(Phase ePhase);
    bool IdleScanDue() const;
    void IdleScan();
    void ExpireHolds();
    void ExpirePauses();
    void Upkeep();
    void RepairFifo(int iFd);
    int64_t WaitTimeout() const;
    void Dispatch();
    void Forget(int iFd);

    Setup setup_;
    Hooks hooks_;
    std::unique_ptr<Clock> ownClock_;
    Clock* clock_;
    std::unique_ptr<Poller> ownPoller_;
    Poller* poller_;
    RowOwner* rows_ = nullptr;
    std::vector<Slot> slots_;              // by descriptor
    std::vector<Timer> timers_;
    std::vector<int> candidates_;
    std::vector<Ready> ready_;
    std::vector<uint32_t> readyEpoch_;
    std::vector<int64_t> holdUntil_;       // by descriptor; 0: not held
    int heldCount_ = 0;
    std::vector<int64_t> pauseUntil_;      // by descriptor; 0: waited on
    int pausedCount_ = 0;
    int64_t nextUpkeep_ = kNever;          // bUpkeep: the next whole second
    std::vector<int> repairFailures_;      // by descriptor: FIFO repairs that failed in a row
    int connCount_ = 0;
    int high_ = -1;                        // highest registered descriptor
    int64_t now_ = 0;
    int64_t lastScanSec_ = -1;
    int placeholderFd_ = -1;
    int pidFd_ = -1;                       // deadline style: the parent's pidfd
    pid_t watchedParent_ = -1;
    bool noPidfd_ = false;                 // the kernel gives no pidfd: getppid() every pass
    sigset_t usr1_{};
};

// Adapts a function taking the mode's state by reference as its first
// argument to the loop's (void* context, ...) form:
//   loop.Watch(fd, Role::kConn, comp::Fn<OnClient>, &state);
template <auto F>
struct Adapter;
template <class T, class R, class... A, R (*F)(T&, A...)>
struct Adapter<F> {
    static R Call(void* ctx, A... a) { return F(*static_cast<T*>(ctx), a...); }
};
template <auto F>
inline constexpr auto Fn = &Adapter<F>::Call;

namespace seam {
// A test's hand on a mode's loop, to run a whole mode in-process: the loop
// that ModeLoopSetup describes takes the driver's clock; Run asks the driver
// before every pass whether to go on (false: Run returns 0); and Quit ends in
// the driver, after the mode's quit hook, instead of ending the process.
// Null in the product.
class LoopDriver {
public:
    virtual Clock* clock() = 0;
    virtual bool Continue(Loop& loop) = 0;
    [[noreturn]] virtual void Quit() = 0;

protected:
    ~LoopDriver() = default;
};
inline LoopDriver* g_pLoopDriver = nullptr;
}  // namespace seam

}  // namespace comp
