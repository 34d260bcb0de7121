// The one loop engine of the transport modes. A mode registers its FIFOs,
// listener and connections with the engine and supplies handlers; the engine
// runs the pass that every mode shares:
//
//   block SIGUSR1 -> parent check -> idle scan while collecting the wait set
//   -> wait with the mode's time-out -> serve ready descriptors in ascending
//   order -> after-pass work (heartbeats) -> restore the signal mask
//
// The wait is ppoll(), so descriptors beyond FD_SETSIZE are never put into
// an fd_set; a descriptor is only ever admitted below the table size.
#pragma once

#include <poll.h>

#include <cstdint>
#include <ctime>
#include <vector>

namespace comp {

struct LoopOps {
    // The parent process is gone (parent id 1): clean up and end the process.
    void (*pfParentGone)();
    // Idle test of one connection while the wait set is built: return false
    // to leave it out (after closing it when it idled past its time-out).
    bool (*pfKeep)(int iFd, time_t tNow);
    // One ready descriptor (FIFO, listener or connection).
    void (*pfReady)(int iFd);
    // The wait ended with nothing ready (may be null).
    void (*pfIdle)();
    // End of every pass, ready or not (may be null): heartbeats, pushes.
    void (*pfAfterPass)();
    // The wait failed with an error other than EINTR: end the process.
    void (*pfWaitFailed)(int iErr);
};

struct LoopSpec {
    const char* pcMode;        // mode name for the log lines
    int iTableSize;            // MAX_COM_NUM: descriptors must stay below it
    long lTimeoutUsec;         // wait time-out
    bool bLogEintr = true;     // "[%s,%d]EINTR , continue" on an interrupted wait
};

// A command read from a mode's control FIFO. "x" is quit; "0" asks a
// shared-listener mode to accept one connection; any other byte, or a failed
// read, ends the process too. The log line of each case is written here.
enum class ControlCmd { kQuit, kAccept };
ControlCmd ReadControlCmd(int iCtlFd, bool bAcceptAllowed, const char* pcReadFailFmt = "[%s,%d]iReadFIFO error,fatal error[%d]");

class ModeLoop {
public:
    ModeLoop(const LoopSpec& stSpec, const LoopOps& stOps);
    ModeLoop(const ModeLoop&) = delete;
    ModeLoop& operator=(const ModeLoop&) = delete;

    // A FIFO or listener: always waited on, never idle-tested.
    bool AddFixed(int iFd);
    // A connection: idle-tested by pfKeep on every pass.
    bool AddConn(int iFd);
    // Forget a descriptor (its close is the mode's business). Safe to call
    // for a descriptor that is not registered.
    void Remove(int iFd);
    bool Has(int iFd) const;
    int TableSize() const { return spec_.iTableSize; }

    // Runs passes until a handler ends the process; returns -1 only when
    // SIGUSR1 cannot be blocked.
    int Run();
    // One pass (for tests): 0, or -1 when SIGUSR1 cannot be blocked.
    int RunOnce();

private:
    enum : uint8_t { kFree = 0, kFixed = 1, kConn = 2 };
    void Collect(time_t tNow);
    void Dispatch();

    LoopSpec spec_;
    LoopOps ops_;
    std::vector<uint8_t> kind_;       // by descriptor
    std::vector<uint32_t> epoch_;     // bumped on every add: a reused number is a new registration
    std::vector<pollfd> wait_;
    std::vector<uint32_t> waitEpoch_;
    int high_ = -1;
};

}  // namespace comp
