// Fault seam of the system calls the process depends on: a test can make the
// Nth call of one kind (a queue send or receive, a segment attach, an
// accept, a socket send or receive, a FIFO read or write, a log write) fail
// with an errno of its choice, for faults that cannot be provoked from
// outside at the right moment (a full queue, EIDRM, a failed attach, EMFILE
// on one accept, a reset on one send, a full disk). Whole-process tests arm
// it through the environment variable COMP_FAULTS, read once at start (see
// ArmFaultsFromText). When nothing is armed the check is one load and one
// predictable branch; everything else lives out of line.
#pragma once

#include <cerrno>
#include <string>

namespace comp::seam {

enum IpcCall {
    kMsgSnd = 0,
    kMsgRcv = 1,
    kShmAt = 2,
    kAccept = 3,      // accept on a listener
    kSend = 4,        // a send on a connected socket
    kRecv = 5,        // a receive on a connected socket
    kFifoRead = 6,    // a one-byte read of a FIFO
    kFifoWrite = 7,   // a one-byte write to a FIFO
    kLogWrite = 8,    // the write of one entry to a log file
    kIpcCallCount = 9
};

struct IpcFault {
    int iSkip;       // calls still to pass before the first failure
    int iFailCount;  // failures still to give; negative: every call from then on
    int iErrno;
    int iCalls;      // calls of the kind seen since it was armed
};

inline IpcFault g_astIpcFault[kIpcCallCount] = {};

// Told of every failure the seam gives, with the kind, the number of the
// call since arming (1-based) and the errno; the process entry logs it. The
// hook's own calls (its log write) pass and are not counted.
using FaultHook = void (*)(IpcCall eCall, int iCallNo, int iErrno);
inline FaultHook g_pfFaultHook = nullptr;

// Makes the nth call from now (1-based) fail with iErr, and the iTimes - 1
// calls after it too; iTimes < 0 fails every call from the nth on.
inline void FailNthCall(IpcCall eCall, int iNth, int iErr, int iTimes = 1) {
    g_astIpcFault[eCall] = IpcFault{iNth > 1 ? iNth - 1 : 0, iTimes, iErr, 0};
}

inline void ClearIpcFaults() {
    for (IpcFault& f : g_astIpcFault) f = IpcFault{};
}

// The armed part: counts the call and decides; out of line.
bool ArmedCallFails(IpcCall eCall);

// Asked by the wrappers right before the system call: true, with errno set,
// when this call is to fail.
inline bool IpcCallFails(IpcCall eCall) {
    if (g_astIpcFault[eCall].iFailCount == 0) [[likely]]
        return false;
    return ArmedCallFails(eCall);
}

// Name of a kind as COMP_FAULTS writes it ("msgsnd", "accept", ...).
const char* CallName(IpcCall eCall);

// Arms the faults of a COMP_FAULTS text: entries "kind:nth:errno[:times]"
// separated by commas, e.g. "msgsnd:2:EIDRM,accept:1:EMFILE:3". kind is a
// CallName, nth counts from the start of the process, errno is a name
// (EAGAIN, EIDRM, EMFILE, ENFILE, ECONNABORTED, EPIPE, ECONNRESET, ENOSPC,
// ...) or a number, times as for FailNthCall (default 1, -1 for every call
// from the nth on). False, with the reason and nothing armed, when the text
// is not understood.
bool ArmFaultsFromText(const char* pcText, std::string* pWhy);

}  // namespace comp::seam
