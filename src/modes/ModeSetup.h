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

// The loop specification of a mode: its fixed wait time-out and the backend
// of each wait style, in the configured style. The deadline style waits with
// epoll unless the mode says otherwise: standing registrations suit
// connections that stay, while a mode whose connections each carry one
// exchange (TS, TC) waits with ppoll, which costs no epoll_ctl to add and
// remove every connection.
Loop::Spec ModeLoopSpec(const char* pcSrc, const char* pcMode, int iTableSize, int64_t lWaitUsec,
                        Backend eFixedBackend = Backend::kPoll, Backend eDeadlineBackend = Backend::kEpoll);

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
struct AcceptSpec {
    bool bShortRcvTimeo = false;   // a 5-microsecond SO_RCVTIMEO on the listener first
    bool bPeerByGetpeer = false;   // plain accept, then the peer from getpeername
    bool bNonBlock = true;
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
Accepted AcceptOnCommand(int iListenFd, int iTableSize, const AcceptSpec& stSpec);

// AcceptOnCommand with the usual lines for what went wrong: "SysTellCommonp
// error" (then the process quits through the loop), "iSockAccept error"
// (EAGAIN too: another process took the client), "Too many communication
// node", "iNoblockFd error"; a connection refused so is closed. True when
// the connection is the caller's.
bool AcceptOnCommandLogged(const char* pcSrc, Loop& loop, int iListenFd, const AcceptSpec& stSpec, Accepted* pstOut);
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
