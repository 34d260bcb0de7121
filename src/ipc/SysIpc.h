// Thin wrappers over System V queues, semaphores and shared memory, the
// start-up readers that open the platform's objects, and signal masks.
// Failures are reported through SystemErrorReport and returned.
#pragma once

#include <csignal>
#include <sys/ipc.h>

#include "base/SysTypes.h"

extern "C" {

// Message queues. Buffers are QueueMsg; receives ask for the type the caller
// put into lMsgType (0 for any).
int MsgInit(key_t iKey);
int MsgOpen(key_t iKey);
int SysGetMsgId(key_t iKey);
int MsgRemove(int iQid);
int MsgReadNoWait(int iQid, void* pvBuf);
int MsgReadWait(int iQid, void* pvBuf);
int MsgReadWaitIgnSignal(int iQid, void* pvBuf);
int MsgWrite(int iQid, void* pvBuf, int iLen);
int MsgWriteNoWait(int iQid, void* pvBuf, int iLen);
int MsgGetQueueNum(int iQid);

// Single-semaphore sets.
int SemInit(key_t iKey, int iValue);
int SemAttach(key_t iKey);
int SemRemove(int iSemId);
int SemQuery(int iSemId);
int SemP(int iSemId, int iRetry);
int SemV(int iSemId);
int SemGetValue(int iSemId);
int SemGetNcnt(int iSemId);
int SemGetZcnt(int iSemId);
int SemGetPid(int iSemId);
int SemSetValue(int iSemId, int iValue);

// Ten-semaphore sets used as cross-process locks (undo on exit).
int SysSemInit(key_t iKey, int iValue);
int SysSemApiAttach(key_t iKey);
int SysSemRemove(int iSemId);
int SysP(int iSemId, int iSemNum);
int SysV(int iSemId, int iSemNum);
int SemGetValue2(int iSemId, int iSemNum);
int SemGetNcnt2(int iSemId, int iSemNum);
int SysSemGetZcnt(int iSemId, int iSemNum);
int SysSemGetPid(int iSemId, int iSemNum);
int SemSetValue2(int iSemId, int iSemNum, int iValue);

// Shared memory.
int ShmemInit(key_t iKey, int iSize);
int AttachShmem(key_t iKey, int iSize, char** ppcAddr);
int iShmOpen(key_t iKey);
char* pcShmAt(int iShmId);
int DetachShmem(const void* pvAddr);
int SysShmdt(const void* pvAddr);
int ShmemRemove(int iShmId);

// Signals.
int MaskSignal(void);
int UnmaskSignal(void);
int UnmaskSignal2(void);
int iSetSignalBlock(const sigset_t* pstSet, sigset_t* pstOld);
int iSetSignalMask(const sigset_t* pstMask);

// Start-up readers (counts from CommCfg).
int SysMsgQueueOpen(int iCount, MsgQCntl* pstTable);
int SysSemAttach(int iCount, SemCntl* pstTable);
int SysGetShmIdByIndex(int iPosition, int iCount);

}  // extern "C"
