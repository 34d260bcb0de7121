#include "base/SysGlobals.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <vector>

extern "C" {
char g_caMsg[2048];
CommCfg g_stCommCfgValue;
MsgQCntl g_stMsgQCntl[32];
SemCntl g_stSemCntl[32];
int g_iShmTblId = -1;
int g_memlist_shmkey;
int g_memlist_shmsize;
int g_iRtnErrno;
int g_iaRtnPath[20];
int g_iRtnIdx;
int g_iDebugSwitch;

const char* const g_pcaRouteColumns[28] = {
    "ROUTEID",       "ROUTEMONID",     "ROUTENAME",     "MSGTYPEGETLEN",   "MSGTYPEGETOFFSET",
    "ROUTEMSGFLAG",  "MSGTYPEGETTYPE", "MSGTYPECHARLEN", "IDLETIMEOUT",    "MSGSNDTYPE",
    "BEATINTERVAL",  "RECONNINTERVAL", "SEQINTEL",      "RESERVED13",      "RESERVED14",
    "RESERVED15",    "MSGLENGETLEN",   "MSGLENGETOFFSET", "MSGLENGETTYPE", "MSGLENINTEL",
    "HEADERLEN",     "MSGLENADJUST",   "IPPORT",        "IPPORTUPPER",     "BEATSWITCH",
    "RCVMETHOD",     "INPREHDL",       "OUTPREHDL",
};
}

namespace {
std::atomic<pid_t> g_iOwnPid{0};
void ForgetOwnPid() { g_iOwnPid.store(0, std::memory_order_relaxed); }

ProcState InitialState() {
    ProcState st{};
    std::strcpy(st.stLog.caTraceBase, "../log/unkonwn.log");
    st.stLog.iTraceLevel = 1;
    st.stLog.lTraceSizeLimit = comp::kDefaultTraceSizeLimit;
    std::strcpy(st.stLog.caErrLogName, "../log/wren_bin");
    st.stLog.iErrLogMode = 0;
    st.stLog.lErrLogSizeLimit = comp::kDefaultErrLogSizeLimit;
    return st;
}
}  // namespace

ProcState g_stProcState = InitialState();

namespace {
// Filled during static initialisation, so a function-local vector avoids
// depending on the order in which the layers' objects are initialised.
std::vector<void (*)()>& Resets() {
    static std::vector<void (*)()> v;
    return v;
}
}  // namespace

void comp::RegisterProcessReset(void (*pfReset)()) { Resets().push_back(pfReset); }

namespace comp {
pid_t OwnPid() {
    pid_t iPid = g_iOwnPid.load(std::memory_order_relaxed);
    if (iPid == 0) {
        static const bool bHooked = pthread_atfork(nullptr, nullptr, ForgetOwnPid) == 0;
        iPid = getpid();
        if (bHooked) g_iOwnPid.store(iPid, std::memory_order_relaxed);
    }
    return iPid;
}
}  // namespace comp

void SysResetGlobals() {
    for (auto* reset : Resets()) reset();
    std::memset(g_caMsg, 0, sizeof g_caMsg);
    std::memset(&g_stCommCfgValue, 0, sizeof g_stCommCfgValue);
    std::memset(g_stMsgQCntl, 0, sizeof g_stMsgQCntl);
    std::memset(g_stSemCntl, 0, sizeof g_stSemCntl);
    g_iShmTblId = -1;
    g_memlist_shmkey = 0;
    g_memlist_shmsize = 0;
    g_iRtnErrno = 0;
    std::memset(g_iaRtnPath, 0, sizeof g_iaRtnPath);
    g_iRtnIdx = 0;
    g_iDebugSwitch = 0;
    g_stProcState = InitialState();
    ForgetOwnPid();
}
