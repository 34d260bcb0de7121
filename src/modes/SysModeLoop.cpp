#include "modes/SysModeLoop.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"

namespace comp {

ModeLoop::ModeLoop(const LoopSpec& stSpec, const LoopOps& stOps)
    : spec_(stSpec),
      ops_(stOps),
      kind_(static_cast<size_t>(stSpec.iTableSize > 0 ? stSpec.iTableSize : 0), kFree),
      epoch_(kind_.size(), 0) {
    wait_.reserve(kind_.size());
    waitEpoch_.reserve(kind_.size());
}

bool ModeLoop::AddFixed(int iFd) {
    if (iFd < 0 || iFd >= spec_.iTableSize) return false;
    kind_[iFd] = kFixed;
    ++epoch_[iFd];
    if (iFd > high_) high_ = iFd;
    return true;
}

bool ModeLoop::AddConn(int iFd) {
    if (iFd < 0 || iFd >= spec_.iTableSize) return false;
    kind_[iFd] = kConn;
    ++epoch_[iFd];
    if (iFd > high_) high_ = iFd;
    return true;
}

void ModeLoop::Remove(int iFd) {
    if (iFd < 0 || iFd >= spec_.iTableSize || kind_[iFd] == kFree) return;
    kind_[iFd] = kFree;
    ++epoch_[iFd];
    while (high_ >= 0 && kind_[high_] == kFree) --high_;
}

bool ModeLoop::Has(int iFd) const { return iFd >= 0 && iFd < spec_.iTableSize && kind_[iFd] != kFree; }

// Idle-tests the connections and gathers what to wait on, in ascending order.
void ModeLoop::Collect(time_t tNow) {
    wait_.clear();
    waitEpoch_.clear();
    for (int fd = 0; fd <= high_; ++fd) {
        if (kind_[fd] == kFree) continue;
        if (kind_[fd] == kConn && !ops_.pfKeep(fd, tNow)) continue;
        if (kind_[fd] == kFree) continue;  // the idle test closed it
        wait_.push_back(pollfd{fd, POLLIN, 0});
        waitEpoch_.push_back(epoch_[fd]);
    }
}

// Serves ready descriptors in ascending order. A handler may close others
// (or reuse their numbers) mid-pass, so each one is checked against its
// registration before it is served.
void ModeLoop::Dispatch() {
    for (size_t i = 0; i < wait_.size(); ++i) {
        if (wait_[i].revents == 0) continue;
        int fd = wait_[i].fd;
        if (kind_[fd] == kFree || epoch_[fd] != waitEpoch_[i]) continue;
        ops_.pfReady(fd);
    }
}

int ModeLoop::RunOnce() {
    sigset_t usr1, old;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    if (iSetSignalBlock(&usr1, &old) != 0) {
        COMP_ERRLOG("[%s,%d,%s]iSetSignalBlock() error.errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, spec_.pcMode,
                    errno, std::strerror(errno));
        return -1;
    }
    if (getppid() == 1) ops_.pfParentGone();

    Collect(time(nullptr));
    timespec ts{spec_.lTimeoutUsec / 1000000, (spec_.lTimeoutUsec % 1000000) * 1000};
    int ready = ppoll(wait_.data(), wait_.size(), &ts, nullptr);
    if (ready < 0) {
        int err = errno;
        if (err != EINTR) ops_.pfWaitFailed(err);
        if (spec_.bLogEintr) COMP_ERRLOG("[%s,%d]EINTR , continue", SRC_NAME, __LINE__);
        iSetSignalMask(&old);   // an interrupted wait starts the next pass at once
        return 0;
    }
    if (ready == 0) {
        if (ops_.pfIdle) ops_.pfIdle();
    } else {
        Dispatch();
    }
    if (ops_.pfAfterPass) ops_.pfAfterPass();
    iSetSignalMask(&old);
    return 0;
}

ControlCmd ReadControlCmd(int iCtlFd, bool bAcceptAllowed, const char* pcReadFailFmt) {
    char cmd[8] = {0};
    if (iReadFIFO2Buf(iCtlFd, cmd) != 0) {
        std::snprintf(g_caMsg, sizeof g_caMsg, pcReadFailFmt, SRC_NAME, __LINE__, errno);
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        return ControlCmd::kQuit;
    }
    if (cmd[0] == '0' && bAcceptAllowed) return ControlCmd::kAccept;
    if (cmd[0] == 'x')
        COMP_ERRLOG("[%s,%d]recv quit cmd", SRC_NAME, __LINE__);
    else
        COMP_ERRLOG("[%s,%d]bad branch", SRC_NAME, __LINE__);
    return ControlCmd::kQuit;
}

int ModeLoop::Run() {
    for (;;)
        if (RunOnce() != 0) return -1;
}

}  // namespace comp
