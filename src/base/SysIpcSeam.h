// Fault seam of the System V wrappers: a test can make the Nth call of
// msgsnd, msgrcv or shmat fail with an errno of its choice, for faults that
// cannot be provoked from outside (a full queue at the right moment, EIDRM,
// a failed attach). When no fault is armed the check is one load and branch.
#pragma once

#include <cerrno>

namespace comp::seam {

enum IpcCall { kMsgSnd = 0, kMsgRcv = 1, kShmAt = 2, kIpcCallCount = 3 };

struct IpcFault {
    int iSkip;       // calls still to pass before the first failure
    int iFailCount;  // failures still to give; negative: every call from then on
    int iErrno;
};

inline IpcFault g_astIpcFault[kIpcCallCount] = {};

// Makes the nth call from now (1-based) fail with iErr, and the iTimes - 1
// calls after it too; iTimes < 0 fails every call from the nth on.
inline void FailNthCall(IpcCall eCall, int iNth, int iErr, int iTimes = 1) {
    g_astIpcFault[eCall] = IpcFault{iNth > 1 ? iNth - 1 : 0, iTimes, iErr};
}

inline void ClearIpcFaults() {
    for (IpcFault& f : g_astIpcFault) f = IpcFault{};
}

// Asked by the wrappers right before the system call: true, with errno set,
// when this call is to fail.
inline bool IpcCallFails(IpcCall eCall) {
    IpcFault& f = g_astIpcFault[eCall];
    if (f.iFailCount == 0) [[likely]]
        return false;
    if (f.iSkip > 0) {
        --f.iSkip;
        return false;
    }
    if (f.iFailCount > 0) --f.iFailCount;
    errno = f.iErrno;
    return true;
}

}  // namespace comp::seam
