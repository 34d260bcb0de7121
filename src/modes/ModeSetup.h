// What every transport mode does around its handlers: the start-up steps
// (table size, FIFOs, the loop of the configured wait style), the control
// FIFO's commands, accepting on command from an inherited listener, the
// usual clean-up before quitting, and the connection logs.
#pragma once

#include <cstdint>

#include "base/SysTypes.h"
#include "modes/Engine.h"
#include "base/FdUtil.h"

namespace comp {

// ---- start-up -------------------------------------------------------------

// MAX_COM_NUM from [LOADVARS]: the socket-table size, or -1 after logging
// pcMissingFmt (with source, line, errno and its text) when the variable is
// missing or not a usable size.
int ModeTableSize(const char* pcSrc, int iLine, const char* pcMissingFmt);

// The wait style an operator chose: app.cfg variable COMP_WAIT, "DEADLINE"
// for the deadline-driven wait; anything else (or nothing) is the fixed one.
WaitStyle ConfiguredWaitStyle();

// The loop set-up of a mode: its fixed wait time-out and the backend
// of each wait style, in the configured style. The deadline style waits with
// epoll unless the mode says otherwise: standing registrations suit
// connections that stay, while a mode whose connections each carry one
// exchange (TS, TC) waits with ppoll, which costs no epoll_ctl to add and
// remove every connection.
Loop::Setup ModeLoopSetup(const char* pcSrc, const char* pcMode, int iTableSize, int64_t lWaitUsec,
                        Backend eFixedBackend = Backend::kPoll, Backend eDeadlineBackend = Backend::kEpoll);
// The loop of a mode that serves the clients of an inherited listener (PS,
// PAS, PASSYN, FWS): a failed wait is logged as "select() error" and an
// interrupted one is not logged at all.
Loop::Setup ListenerModeLoopSetup(const char* pcSrc, const char* pcMode, int iTableSize, int64_t lWaitUsec);

// Opens the control FIFO "<pid>_<instance>" (kind 3) and, when pcNotifyName
// is not null, the notification FIFO pcNotifyName of iNotifyKind. False after
// the "iOpenFIFO error" line.
struct ModeFifos {
    int ctl = -1;
    int notify = -1;
};
bool OpenModeFifos(const char* pcSrc, int iInstance, const char* pcNotifyName, int iNotifyKind, ModeFifos* pstOut);

// Removes the FIFO "<pid>" of kind iKind of this process.
void RemoveOwnFifo(int iKind);

// ---- the control FIFO -----------------------------------------------------

// One command from the control FIFO. "x" is quit; "0" asks a shared-listener
// mode to accept one connection; any other byte, or a failed read, ends the
// process too. The log line of each case is written here.
enum class ControlCmd { kQuit, kAccept };
ControlCmd ReadControlCmd(const char* pcSrc, int iCtlFd, bool bAcceptAllowed,
                          const char* pcReadFailFmt = "[%s,%d]iReadFIFO error,fatal error[%d]");

// ---- accepting on command -------------------------------------------------

enum class AcceptOutcome {
    kOk,
    kReportFailed,    // the code-9 report to Commonp failed: the process quits
    kAcceptFailed,    // accept failed (err; EAGAIN: another process took the client)
    kTooMany,         // the descriptor is not below the table size
    kNoBlockFailed,   // making it non-blocking failed (err)
    kPeerFailed,      // the peer address could not be read
};
// ---- accepting while descriptors run out ----------------------------------

// An accept that fails because the process or the host has no descriptor
// left (EMFILE, ENFILE), or the kernel no memory for a socket (ENOBUFS,
// ENOMEM), leaves the client in the listen queue: the listener stays
// readable, and a mode that tried again at once would spin on it.
bool OutOfDescriptors(int iErr);

// Paces a mode's accepts while descriptors are short. After such a failure
// no connection is taken for 10 ms, doubling with each failure in a row up to
// 500 ms (below the time Commonp gives an instance to report an accept); the
// first accept that gets a descriptor, or fails for another reason, ends it.
// The accept's own lines stay as they are; the pacer says once that it backs
// off and once that accepting works again. Nothing changes while descriptors
// are available.
class AcceptPacer {
public:
    static constexpr int64_t kFirstPauseUsec = 10'000;
    static constexpr int64_t kMaxPauseUsec = 500'000;

    // A mode with a listener of its own: after every accept, with 0 or the
    // accept's errno. While backing off the listener is paused.
    void AfterAccept(Loop& loop, int iListenFd, int iErr);
    // A mode that accepts on command: the control FIFO said "0". The accept
    // routine runs now, or, while backing off, when the pause is over (the
    // control FIFO is read on meanwhile, so a quit is not held up).
    void Command(Loop& loop, void (*pfAccept)(void*), void* pvCtx);
    // What an accept on command gave (AcceptOnCommand tells it).
    void AfterAccept(int iErr);
    bool BackingOff() const { return pause_ != 0; }
    int64_t PauseUsec() const { return pause_; }
    int Held() const { return held_; }

private:
    void Note(Loop& loop, int iErr);
    static int64_t ServeHeld(void* pvSelf, int64_t lNowUsec);

    Loop* loop_ = nullptr;
    int64_t pause_ = 0;        // the current pause; 0: not backing off
    int64_t until_ = 0;        // when the current pause ends
    int64_t since_ = 0;        // the first failure of this back-off
    int failures_ = 0;         // failed accepts of this back-off
    int timer_ = -1;           // serves held commands (command modes)
    int held_ = 0;             // "0" commands waiting for the pause to end
    void (*accept_)(void*) = nullptr;
    void* ctx_ = nullptr;
};

struct AcceptOptions {
    bool bShortRcvTimeo = false;   // a 5-microsecond SO_RCVTIMEO on the listener first
    bool bPeerByGetpeer = false;   // plain accept, then the peer from getpeername
    bool bNonBlock = true;
    AcceptPacer* pPacer = nullptr; // told what every accept gave
};
// A connection taken from the shared listener on the "0" command. Until the
// mode adopts it, the descriptor is owned here and closed on every way out.
struct Accepted {
    UniqueFd fd;
    char ip[17] = {0};
    int port = 0;
    int err = 0;
    AcceptOutcome outcome = AcceptOutcome::kAcceptFailed;
};
// Accepts one connection and reports code 9 to Commonp whatever the accept
// gave; then checks the table bound, non-blocking and the peer. Each mode
// writes its own log lines for the outcome.
Accepted AcceptOnCommand(int iListenFd, int iTableSize, const AcceptOptions& stSetup);

// AcceptOnCommand with the usual lines for what went wrong: "SysTellCommonp
// error" (then the process quits through the loop), "iSockAccept error"
// (EAGAIN too: another process took the client), "Too many communication
// node", "iNoblockFd error"; a connection refused so is closed. True when
// the connection is the caller's.
bool AcceptOnCommandLogged(const char* pcSrc, Loop& loop, int iListenFd, const AcceptOptions& stSetup, Accepted* pstOut);
// ---- input pre-handling --------------------------------------------------

// The route's input pre-handling function pcName run on one message a peer
// sent on iFd (lines to the connection log pcLogPath, with pcSrc as the
// source slot). A reply the function makes goes to the peer at once.
enum class PreHdlOutcome {
    kForward,   // the message goes on to TranP
    kDrop,      // the function consumed it, or failed: it goes no further
    kClose,     // its reply could not be sent: the caller closes the connection
};
PreHdlOutcome RunInputPreHandling(const char* pcSrc, const char* pcRouteId, const char* pcName, int iFd,
                                  const char* pcLogPath, const char* pcData, int iLen);

// ---- quitting -------------------------------------------------------------

// The usual clean-up of a mode that ends: this process's messages drained
// from the queues and its notification FIFO "<pid>" of iNotifyKind removed.
void CleanOwnQueueAndFifo(int iNotifyKind);

// ---- small helpers --------------------------------------------------------

int RouteInt(const RouteRecord& stRoute, RouteColumn eCol);
const char* RouteText(const RouteRecord& stRoute, RouteColumn eCol);
// Reads a 32-bit integer of a PlatMsg header.
int32_t HeaderInt(const char* pcHeader, int iOffset);

}  // namespace comp

extern "C" {
// Writes one line to a connection log (writelog2 to pcPath); a line for a
// row that is already free (negative descriptor) is dropped with -2.
int SysConnLog(int iFd, const char* pcPath, int iLevel, const void* pvData, int iLen, const char* pcFmt, ...)
    __attribute__((format(printf, 6, 7)));
}
