// The process-wide state of one communication process, defined together in
// SysGlobals.cpp. The g_ names are shared with the platform's other routines
// and plug-ins; everything else the frame keeps per process is grouped in
// g_stProcState.
#pragma once

#include <sys/types.h>

#include "base/SysTypes.h"

extern "C" {

// Scratch buffer for one log line at a time: a routine formats its message
// here (bounded) and hands it to ErrLog/writelog at once. Never keep a pointer
// into it across calls.
extern char g_caMsg[2048];

extern CommCfg g_stCommCfgValue;        // CommCfg block of sys.cfg
extern MsgQCntl g_stMsgQCntl[32];       // queues of [QRESOURCE], by index
extern SemCntl g_stSemCntl[32];         // semaphore sets of [SEMRESOURCE], by index
extern int g_iShmTblId;                 // id of the table segment
extern int g_memlist_shmkey;            // key of the registry segment
extern int g_memlist_shmsize;           // size of the registry segment

// Error-log bookkeeping.
extern int g_iRtnErrno;                 // code of the last ErrLog call
extern int g_iaRtnPath[20];             // numbers of the routines the process is in
extern int g_iRtnIdx;                   // fill count of g_iaRtnPath
extern int g_iDebugSwitch;              // ErrLog codes 1..998 are written only when set

}  // extern "C"

namespace comp {
// Size limits of the logs until they are set.
inline constexpr long kDefaultTraceSizeLimit = 20971520;   // 20 MiB
inline constexpr long kDefaultErrLogSizeLimit = 1048576;   // 1 MiB
}  // namespace comp

// Settings of the trace log and the error log.
struct LogSettings {
    char caTraceBase[256];    // trace base name; "../log/unkonwn.log" until SysSetLog
    int iTraceLevel;          // entries below this level are dropped
    long lTraceSizeLimit;     // bytes
    char caErrLogName[201];   // error-log base name; "../log/wren_bin" until ChgLog('1')
    int iErrLogMode;          // ChgLog('2')
    long lErrLogSizeLimit;    // bytes, ChgLog('3')
    char caModeSource[32];    // running mode, the source name of the loop's lines; "" before the mode runs
};

struct ProcState {
    LogSettings stLog;
};
extern ProcState g_stProcState;

// Puts every global back to its start value, and every piece of state a layer
// keeps for the process (the cached pid, the table and registry attachments,
// the message pool, the last accepted peer) through the resets registered
// below, so in-process tests start from a clean process.
void SysResetGlobals();

namespace comp {
// Registers a layer's reset of its hidden process state; SysResetGlobals runs
// every registered reset. Use a namespace-scope ResetRegistration next to the
// state.
void RegisterProcessReset(void (*pfReset)());
struct ResetRegistration {
    explicit ResetRegistration(void (*pfReset)()) { RegisterProcessReset(pfReset); }
};

// This process's id, asked of the kernel once: it goes into every queue
// message and registry entry, and getpid() is a system call. A child made
// with fork() asks again (an atfork hook forgets the parent's id in the
// child), and SysResetGlobals forgets it too.
pid_t OwnPid();
}  // namespace comp
