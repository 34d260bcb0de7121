// Thin wrappers over System V message queues, semaphores and shared memory,
// the start-up readers that open the objects named in sys.cfg into the
// control tables, and the signal masks the modes put around critical work.
#include "ipc/SysIpc.h"

#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <span>

#include "base/SysGlobals.h"
#include "base/SysIpcSeam.h"
#include "config/SysRscApp.h"
#include "log/ErrLog.h"

namespace {

using comp::kCtlTableSize;
using comp::kQueueTextLen;

constexpr int kQueueCreateFlags = IPC_CREAT | IPC_EXCL | 0666;
constexpr int kQueueOpenFlags = 0666;
constexpr int kShmCreateFlags = IPC_CREAT | 0666;
constexpr int kSysSemCount = 10;        // semaphores in a lock set
constexpr int kCfgPathLen = 100;        // sys.cfg path buffer

// semctl's fourth argument; Linux leaves its definition to the caller.
union SemUn {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

// Keeps errno across a report, so that callers can still test it afterwards
// (the log routines open and lock files and may change it).
class ErrnoKeeper {
public:
    ErrnoKeeper() : iErrno_(errno) {}
    ~ErrnoKeeper() { errno = iErrno_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

private:
    int iErrno_;
};

void Report(const char* pcText) {
    ErrnoKeeper keep;
    SystemErrorReport(pcText);
}

// --- system calls behind the fault seam -----------------------------------

ssize_t RcvMsg(int iQid, void* pvBuf, int iFlags) {
    if (comp::seam::IpcCallFails(comp::seam::kMsgRcv)) return -1;
    if (pvBuf == nullptr) {
        errno = EFAULT;
        return -1;
    }
    const long lType = static_cast<const QueueMsg*>(pvBuf)->lMsgType;
    return msgrcv(iQid, pvBuf, kQueueTextLen, lType, iFlags);
}

int SndMsg(int iQid, const void* pvBuf, int iLen, int iFlags) {
    if (comp::seam::IpcCallFails(comp::seam::kMsgSnd)) return -1;
    // The text of a QueueMsg holds 65,536 bytes; a longer length would send
    // whatever lies behind the caller's buffer.
    if (pvBuf == nullptr || iLen < 0 || iLen > kQueueTextLen) {
        errno = pvBuf == nullptr ? EFAULT : EINVAL;
        return -1;
    }
    return msgsnd(iQid, pvBuf, static_cast<size_t>(iLen), iFlags);
}

void* AttachById(int iShmId) {
    if (comp::seam::IpcCallFails(comp::seam::kShmAt)) return reinterpret_cast<void*>(-1);
    return shmat(iShmId, nullptr, 0);
}

int ShmGet(key_t iKey, int iSize, int iFlags) {
    if (iSize < 0) {
        errno = EINVAL;
        return -1;
    }
    return shmget(iKey, static_cast<size_t>(iSize), iFlags);
}

bool AttachFailed(const void* pvAddr) { return pvAddr == reinterpret_cast<void*>(-1); }

// --- single-semaphore helpers ------------------------------------------------

int SemOp(int iSemId, unsigned short usNum, short sOp, short sFlags) {
    sembuf stOp{usNum, sOp, sFlags};
    return semop(iSemId, &stOp, 1);
}

// A semop that failed with ERANGE: setting the value to itself clears the
// kernel's undo adjustments of the semaphore. False when that fails.
bool ClearUndo(int iSemId, const char* pcRangeText, const char* pcCtlText) {
    Report(pcRangeText);
    SemUn un{};
    un.val = semctl(iSemId, 0, GETVAL);
    if (semctl(iSemId, 0, SETVAL, un) < 0) {
        Report(pcCtlText);
        return false;
    }
    return true;
}

// P or V on semaphore 0 of a single-semaphore set. An ERANGE is answered by
// clearing the undo adjustments and trying once more; a second ERANGE means
// the value itself is at its limit and fails instead of looping.
int SemStep(int iSemId, short sOp, bool bRetryIntr, const char* pcRangeText, const char* pcCtlText,
            const char* pcOpText) {
    bool bRangeCleared = false;
    for (;;) {
        if (SemOp(iSemId, 0, sOp, 0) == 0) return 0;
        if (errno == EINTR) {
            if (bRetryIntr) continue;
            return -1;
        }
        if (errno == ERANGE && !bRangeCleared) {
            if (!ClearUndo(iSemId, pcRangeText, pcCtlText)) return -1;
            bRangeCleared = true;
            continue;
        }
        Report(pcOpText);
        return -1;
    }
}

int SysSemStep(int iSemId, int iSemNum, short sOp) {
    // Numbers outside the set are a silent success; callers rely on it.
    if (iSemNum < 0 || iSemNum >= kSysSemCount) return 0;
    int iRc;
    do {
        iRc = SemOp(iSemId, static_cast<unsigned short>(iSemNum), sOp, SEM_UNDO);
    } while (iRc == -1 && errno == EINTR);
    return iRc;
}

// The signals MaskSignal holds; UnmaskSignal2 releases only the last two.
constexpr std::array<int, 6> kHeldSignals = {SIGHUP, SIGINT, SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD};

int SignalGroup(int iHow, std::span<const int> signals) {
    sigset_t stSet;
    sigemptyset(&stSet);
    for (int iSig : signals) sigaddset(&stSet, iSig);
    return sigprocmask(iHow, &stSet, nullptr) == 0 ? 0 : -1;
}

// Owner of the entry array a start-up reader fills from sys.cfg.
template <typename Entry>
std::unique_ptr<Entry[]> AllocEntries(int iCount) {
    if (iCount < 0) {
        errno = EINVAL;
        return nullptr;
    }
    // At least one entry, so that a count of 0 still yields a valid array.
    return std::unique_ptr<Entry[]>(new (std::nothrow) Entry[iCount > 0 ? iCount : 1]());
}

bool ValidSlot(int iIndex) { return iIndex >= 0 && iIndex < kCtlTableSize; }

}  // namespace

extern "C" {

// ---------------------------------------------------------------------------
// Message queues
// ---------------------------------------------------------------------------

int MsgInit(key_t iKey) {
    const int iQid = msgget(iKey, kQueueCreateFlags);
    if (iQid < 0) {
        Report("MsgInit msgget");
        return -1;
    }
    return iQid;
}

int MsgOpen(key_t iKey) {
    const int iQid = msgget(iKey, kQueueOpenFlags);
    if (iQid < 0) {
        Report("MsgOpen msgget");
        return -1;
    }
    return iQid;
}

int SysGetMsgId(key_t iKey) {
    const int iQid = msgget(iKey, kQueueOpenFlags);
    if (iQid >= 0) return iQid;
    return msgget(iKey, kQueueCreateFlags);
}

int MsgRemove(int iQid) {
    if (msgctl(iQid, IPC_RMID, nullptr) < 0) {
        Report("MsgRemove msgctl ");
        return -1;
    }
    return 0;
}

int MsgReadNoWait(int iQid, void* pvBuf) {
    const ssize_t lLen = RcvMsg(iQid, pvBuf, IPC_NOWAIT);
    if (lLen >= 0) return static_cast<int>(lLen);
    if (errno == ENOMSG) return 0;
    const int iErr = errno;
    Report("MsgReadNoWait msgrcv");
    return -iErr;
}

int MsgReadWait(int iQid, void* pvBuf) {
    const ssize_t lLen = RcvMsg(iQid, pvBuf, 0);
    if (lLen < 0) {
        Report("MsgReadWait msgrcv");
        return -1;
    }
    return static_cast<int>(lLen);
}

int MsgReadWaitIgnSignal(int iQid, void* pvBuf) {
    ssize_t lLen;
    do {
        errno = 0;
        lLen = RcvMsg(iQid, pvBuf, 0);
    } while (lLen < 0 && (errno == EINTR || errno == 0));
    if (lLen < 0) {
        Report("MsgReadWaitIgnSignal msgrcv");
        return -1;
    }
    return static_cast<int>(lLen);
}

int MsgWrite(int iQid, void* pvBuf, int iLen) {
    if (SndMsg(iQid, pvBuf, iLen, 0) < 0) {
        {
            ErrnoKeeper keep;
            COMP_ERRLOG("msgsend id [%d] fail len [%d]!", iQid, iLen);
        }
        Report("MsgWrite msgsnd ");
        return -1;
    }
    return 0;
}

int MsgWriteNoWait(int iQid, void* pvBuf, int iLen) {
    if (SndMsg(iQid, pvBuf, iLen, IPC_NOWAIT) < 0) {
        // A full queue is the caller's to handle (it tests errno for EAGAIN).
        if (errno != EAGAIN) Report("MsgWrite msgsnd ");
        return -1;
    }
    return 0;
}

int MsgGetQueueNum(int iQid) {
    msqid_ds stInfo{};
    if (msgctl(iQid, IPC_STAT, &stInfo) < 0) {
        Report("MsgGetQueueNum");
        return -1;
    }
    return static_cast<int>(stInfo.msg_qnum);
}

// ---------------------------------------------------------------------------
// Single-semaphore sets
// ---------------------------------------------------------------------------

int SemInit(key_t iKey, int iValue) {
    const int iSemId = semget(iKey, 1, kQueueCreateFlags);
    if (iSemId < 0) {
        Report("SemInit semget");
        return -1;
    }
    SemUn un{};
    un.val = iValue;
    if (semctl(iSemId, 0, SETVAL, un) < 0) {
        Report("SemInit semctl");
        return -2;
    }
    return iSemId;
}

int SemAttach(key_t iKey) {
    const int iSemId = semget(iKey, 1, kQueueOpenFlags);
    if (iSemId < 0) {
        Report("SemAttach semget");
        return -1;
    }
    return iSemId;
}

int SemRemove(int iSemId) { return semctl(iSemId, 0, IPC_RMID); }

int SemQuery(int iSemId) {
    int iRc;
    do {
        iRc = SemOp(iSemId, 0, 0, 0);
    } while (iRc == -1 && errno == EINTR);
    if (iRc < 0) {
        Report("SemQuery semop");
        return -1;
    }
    return 0;
}

int SemP(int iSemId, int iRetry) {
    return SemStep(iSemId, -1, iRetry != 0, "SemP ERANGE", "SemP semctl", "SemP semop");
}

int SemV(int iSemId) { return SemStep(iSemId, 1, true, "SemV ERANGE", "SemV semctl", "SemV semop"); }

int SemGetValue(int iSemId) { return semctl(iSemId, 0, GETVAL); }
int SemGetNcnt(int iSemId) { return semctl(iSemId, 0, GETNCNT); }
int SemGetZcnt(int iSemId) { return semctl(iSemId, 0, GETZCNT); }
int SemGetPid(int iSemId) { return semctl(iSemId, 0, GETPID); }

int SemSetValue(int iSemId, int iValue) {
    SemUn un{};
    un.val = iValue;
    return semctl(iSemId, 0, SETVAL, un);
}

// ---------------------------------------------------------------------------
// Ten-semaphore lock sets
// ---------------------------------------------------------------------------

int SysSemInit(key_t iKey, int iValue) {
    const int iSemId = semget(iKey, kSysSemCount, kQueueCreateFlags);
    if (iSemId < 0) {
        std::printf("semget error,%d,[%s]\n", errno, std::strerror(errno));
        std::fflush(stdout);
        return -1;
    }
    for (int i = 0; i < kSysSemCount; ++i) {
        SemUn un{};
        un.val = iValue;
        if (semctl(iSemId, i, SETVAL, un) < 0) {
            std::printf("semctl error,%d[%s]\n", errno, std::strerror(errno));
            std::fflush(stdout);
            return -2;
        }
    }
    return iSemId;
}

int SysSemApiAttach(key_t iKey) {
    const int iSemId = semget(iKey, 0, 0);
    if (iSemId < 0) {
        std::printf("semget error,%d,[%s]\n", errno, std::strerror(errno));
        std::fflush(stdout);
        return -1;
    }
    return iSemId;
}

int SysSemRemove(int iSemId) { return semctl(iSemId, 0, IPC_RMID); }

int SysP(int iSemId, int iSemNum) { return SysSemStep(iSemId, iSemNum, -1); }
int SysV(int iSemId, int iSemNum) { return SysSemStep(iSemId, iSemNum, 1); }

int SemGetValue2(int iSemId, int iSemNum) { return semctl(iSemId, iSemNum, GETVAL); }
int SemGetNcnt2(int iSemId, int iSemNum) { return semctl(iSemId, iSemNum, GETNCNT); }
int SysSemGetZcnt(int iSemId, int iSemNum) { return semctl(iSemId, iSemNum, GETZCNT); }
int SysSemGetPid(int iSemId, int iSemNum) { return semctl(iSemId, iSemNum, GETPID); }

int SemSetValue2(int iSemId, int iSemNum, int iValue) {
    SemUn un{};
    un.val = iValue;
    return semctl(iSemId, iSemNum, SETVAL, un);
}

// ---------------------------------------------------------------------------
// Shared memory
// ---------------------------------------------------------------------------

int ShmemInit(key_t iKey, int iSize) {
    const int iShmId = ShmGet(iKey, iSize, kShmCreateFlags);
    if (iShmId < 0) {
        Report("Shmem Init shmemid");
        return -1;
    }
    return iShmId;
}

int AttachShmem(key_t iKey, int iSize, char** ppcAddr) {
    if (ppcAddr == nullptr) {
        errno = EINVAL;
        return -1;
    }
    *ppcAddr = nullptr;
    const int iShmId = ShmGet(iKey, iSize, 0);
    if (iShmId < 0) {
        Report("Shmem Attatch shmemKey[%d] ");
        return -1;
    }
    void* pvAddr = AttachById(iShmId);
    if (AttachFailed(pvAddr)) {
        Report("Shmem Attatch shmemid[%d] ");
        return -1;
    }
    *ppcAddr = static_cast<char*>(pvAddr);
    return 0;
}

int iShmOpen(key_t iKey) {
    const int iShmId = shmget(iKey, 0, 0);
    if (iShmId < 0) {
        Report("Shmem Open shmemKey[%d] ");
        return -1;
    }
    return iShmId;
}

// Null when the segment cannot be attached (errno tells why).
char* pcShmAt(int iShmId) {
    void* pvAddr = AttachById(iShmId);
    return AttachFailed(pvAddr) ? nullptr : static_cast<char*>(pvAddr);
}

int DetachShmem(const void* pvAddr) { return shmdt(pvAddr); }
int SysShmdt(const void* pvAddr) { return shmdt(pvAddr); }

int ShmemRemove(int iShmId) {
    if (iShmId == -1) return 0;
    return shmctl(iShmId, IPC_RMID, nullptr);
}

// ---------------------------------------------------------------------------
// Signals
// ---------------------------------------------------------------------------

int MaskSignal(void) { return SignalGroup(SIG_BLOCK, kHeldSignals); }
int UnmaskSignal(void) { return SignalGroup(SIG_UNBLOCK, kHeldSignals); }
int UnmaskSignal2(void) { return SignalGroup(SIG_UNBLOCK, std::span(kHeldSignals).last(2)); }

int iSetSignalBlock(const sigset_t* pstSet, sigset_t* pstOld) {
    return sigprocmask(SIG_BLOCK, pstSet, pstOld) == 0 ? 0 : -1;
}

int iSetSignalMask(const sigset_t* pstMask) {
    if (pstMask == nullptr) {
        errno = EINVAL;
        return -1;
    }
    sigset_t stPending;
    if (sigpending(&stPending) != 0) return -1;
    return sigprocmask(SIG_SETMASK, pstMask, nullptr) == 0 ? 0 : -1;
}

// ---------------------------------------------------------------------------
// Start-up readers
// ---------------------------------------------------------------------------

int SysMsgQueueOpen(int iCount, MsgQCntl* pstTable) {
    char caPath[kCfgPathLen];
    if (pstTable == nullptr || !SysCfgPath(caPath, sizeof caPath)) {
        COMP_ERRLOG("[%s][%d]pid[%d] no queue table or sys.cfg path (RUNDIR unset or too long) ", SRC_NAME,
                    __LINE__, getpid());
        return -1;
    }
    auto pstEntries = AllocEntries<QueueCfgEntry>(iCount);
    if (!pstEntries) {
        COMP_ERRLOG("[%s][%d]pid[%d] malloc err [%d] ", SRC_NAME, __LINE__, getpid(), errno);
        return -1;
    }
    if (GetQueueConfigValue(iCount, caPath, pstEntries.get()) != 0) {
        COMP_ERRLOG("[%s][%d]pid[%d] get queue cfg err [%d] ", SRC_NAME, __LINE__, getpid(), errno);
        return -1;
    }
    for (int i = 0; i < iCount; ++i) {
        const QueueCfgEntry& stEntry = pstEntries[i];
        // The index is a slot of the 32-entry table: refuse anything else
        // rather than write past it. The log shows the bad index.
        if (!ValidSlot(stEntry.iIndex)) {
            COMP_ERRLOG("[%s][%d]pid[%d] open queue err [%d] ", SRC_NAME, __LINE__, getpid(), stEntry.iIndex);
            return -1;
        }
        MsgQCntl& stSlot = pstTable[stEntry.iIndex];
        stSlot.iIndex = stEntry.iIndex;
        stSlot.iKey = stEntry.iKey;
        stSlot.iId = MsgOpen(stEntry.iKey);
        // An id of 0 is refused as well, as the platform's other readers do.
        if (stSlot.iId < 1) {
            COMP_ERRLOG("[%s][%d]pid[%d] open queue err [%d] ", SRC_NAME, __LINE__, getpid(), errno);
            return -1;
        }
    }
    return 0;
}

int SysSemAttach(int iCount, SemCntl* pstTable) {
    char caPath[kCfgPathLen];
    if (pstTable == nullptr || !SysCfgPath(caPath, sizeof caPath)) {
        COMP_ERRLOG("[%s][%d]pid[%d] no semphore table or sys.cfg path (RUNDIR unset or too long) ", SRC_NAME,
                    __LINE__, getpid());
        return -1;
    }
    auto pstEntries = AllocEntries<SemCfgEntry>(iCount);
    if (!pstEntries) {
        COMP_ERRLOG("[%s][%d]pid[%d] malloc err [%d] ", SRC_NAME, __LINE__, getpid(), errno);
        return -1;
    }
    if (GetSemConfigValue(iCount, caPath, pstEntries.get()) != 0) {
        COMP_ERRLOG("[%s][%d]pid[%d] get semphore cfg err [%d] ", SRC_NAME, __LINE__, getpid(), errno);
        return -1;
    }
    for (int i = 0; i < iCount; ++i) {
        const SemCfgEntry& stEntry = pstEntries[i];
        if (!ValidSlot(stEntry.iIndex)) {
            COMP_ERRLOG("[%s][%d]pid[%d] Attach semphore err [%d] ", SRC_NAME, __LINE__, getpid(), stEntry.iIndex);
            return -1;
        }
        SemCntl& stSlot = pstTable[stEntry.iIndex];
        stSlot.iIndex = stEntry.iIndex;
        stSlot.iKey = stEntry.iKey;
        stSlot.iNum = stEntry.iNum;
        stSlot.iId = SemAttach(stEntry.iKey);
        if (stSlot.iId < 1) {
            COMP_ERRLOG("[%s][%d]pid[%d] Attach semphore err [%d] ", SRC_NAME, __LINE__, getpid(), errno);
            return -1;
        }
    }
    return 0;
}

int SysGetShmIdByIndex(int iPosition, int iCount) {
    char caPath[kCfgPathLen];
    if (!SysCfgPath(caPath, sizeof caPath)) {
        COMP_ERRLOG("[%s] sys.cfg path: RUNDIR unset or too long ", SRC_NAME);
        return -1;
    }
    auto pstEntries = AllocEntries<ShmCfgEntry>(iCount);
    if (!pstEntries) {
        COMP_ERRLOG("[%s] malloc err [%d] ", SRC_NAME, errno);
        return -1;
    }
    if (GetShmConfigValue(iCount, caPath, pstEntries.get()) != 0) {
        COMP_ERRLOG("[%s] get share memory cfg err [%d] ", SRC_NAME, errno);
        return -1;
    }
    // Entries are taken by their 1-based line position, not their index column.
    if (iPosition < 1 || iPosition > iCount) {
        COMP_ERRLOG("[%s,%d] share memory position [%d] not in 1..%d ", SRC_NAME, __LINE__, iPosition, iCount);
        return -1;
    }
    const int iShmId = iShmOpen(pstEntries[iPosition - 1].iKey);
    if (iShmId < 0) {
        COMP_ERRLOG("[%s,%d] iShmOpen error[%d] ", SRC_NAME, __LINE__, errno);
        return -1;
    }
    g_iShmTblId = iShmId;
    return iShmId;
}

}  // extern "C"
