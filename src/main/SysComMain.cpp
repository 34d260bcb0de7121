// Process entry of one communication process:
//   comp MODE ROUTEID INSTANCE ARG PROCNAME
// Joins the platform, reads its route row, logs on to Commonp and hands
// control for good to the transport mode named on the command line.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/SysGlobals.h"
#include "base/SysIpcSeam.h"
#include "comp/SysComPub.h"
#include "config/FileOpApp.h"
#include "config/SysTable.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"

namespace {

constexpr const char* kModes[] = {
    "SysTCPTC",     "SysTCPTS",  "SysTCPPC",  "SysTCPPS",  "SysTCPPAS",
    "SysTCPPCSYN",  "SysTCPPASSYN", "SysTCPFWB", "SysTCPFWS", "SysTCPVANTREL",
};
constexpr useconds_t kAwaitPollUsec = 100 * 1000;

bool IsMode(std::string_view name) {
    for (const char* m : kModes)
        if (name == m) return true;
    return false;
}

// The modes this build has: those of the ten names that the process's own
// symbol table holds, blank-separated.
std::string BuiltModes(void* pvSelf) {
    std::string out;
    for (const char* m : kModes)
        if (pvSelf != nullptr && dlsym(pvSelf, m) != nullptr) out += out.empty() ? m : std::string(" ") + m;
    return out;
}

void PrintUsage(const char* pcProg, void* pvSelf) {
    std::fprintf(stderr, "usage: %s MODE ROUTEID INSTANCE ARG PROCNAME\n  MODE is one of: %s\n", pcProg,
                 BuiltModes(pvSelf).c_str());
}

// The mode named on the command line failed the lookup: the reason on
// standard error, with what this build has (the trace log has the details).
void ReportNoMode(const char* pcProg, const char* pcName, void* pvSelf) {
    std::fprintf(stderr, "%s: %s is not a transport mode of this build; it has: %s\n", pcProg, pcName,
                 BuiltModes(pvSelf).c_str());
}

// Waits while a path that another platform process may be about to write is
// missing (the log directory, app.cfg): says so once on standard error and
// then waits quietly. Other troubles are left to the readers and writers.
void AwaitPath(const char* pcProg, const std::string& path, const char* pcWhat) {
    struct stat st {};
    bool told = false;
    while (stat(path.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
        if (!told)
            std::fprintf(stderr, "%s: %s %s is missing; waiting for it (pid %d)\n", pcProg, pcWhat, path.c_str(),
                         static_cast<int>(getpid()));
        told = true;
        usleep(kAwaitPollUsec);
    }
}

// A fault the seam gave, in the error log: tests read it to know that the
// call they aimed at failed.
void LogFault(comp::seam::IpcCall eCall, int iCallNo, int iErrno) {
    char text[256];
    std::snprintf(text, sizeof text, "[%s,%d]fault seam: %s call %d failed with errno %d (%s)", SRC_NAME, __LINE__,
                  comp::seam::CallName(eCall), iCallNo, iErrno, std::strerror(iErrno));
    ErrLog(1000, text, ERRLOG_FILE, nullptr, 0);
}

// Test hook: the environment variable COMP_FAULTS arms the fault seam for a
// whole-process test (base/SysIpcSeam.h gives the format). Unset, nothing
// happens. A text that is not understood ends the start: a test must not run
// without the faults it asked for. Calls are counted from here; the line
// below is written before the seam is armed.
bool ArmTestFaults(const char* pcProg) {
    const char* pcText = getenv("COMP_FAULTS");
    if (pcText == nullptr || *pcText == '\0') return true;
    COMP_ERRLOG("[%s,%d]COMP_FAULTS=%s: fault seam armed for a test", SRC_NAME, __LINE__, pcText);
    std::string why;
    if (comp::seam::ArmFaultsFromText(pcText, &why)) {
        comp::seam::g_pfFaultHook = LogFault;
        return true;
    }
    COMP_ERRLOG("[%s,%d]COMP_FAULTS not understood: %s", SRC_NAME, __LINE__, why.c_str());
    std::fprintf(stderr, "%s: COMP_FAULTS not understood: %s\n", pcProg, why.c_str());
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    for (int sig : {SIGINT, SIGPIPE, SIGHUP, SIGCHLD, SIGUSR1, SIGUSR2}) signal(sig, SIG_IGN);

    if (argc < 6) {
        void* pvSelf = dlopen(nullptr, RTLD_LAZY);
        PrintUsage(argv[0], pvSelf);
        if (pvSelf != nullptr) dlclose(pvSelf);
        return 2;
    }
    const char* pcRunDir = getenv("RUNDIR");
    if (pcRunDir == nullptr || *pcRunDir == '\0') {
        std::fprintf(stderr, "%s: RUNDIR is not set; it must name the platform's run directory\n", argv[0]);
        return -1;
    }

    RouteRecord stRoute;
    std::memset(&stRoute, 0, sizeof stRoute);
    char caRouteId[3] = {0};
    std::snprintf(caRouteId, sizeof caRouteId, "%s", argv[2]);
    int iInstance = std::atoi(argv[3]);
    int iArg = std::atoi(argv[4]);

    // Both logs live in $RUNDIR/log, and the trace log's settings come from
    // app.cfg: wait for both before anything is logged.
    AwaitPath(argv[0], std::string(pcRunDir) + "/log/", "log directory");
    AwaitPath(argv[0], std::string(pcRunDir) + "/etc/app.cfg", "application configuration");

    char caPath[512] = {0};
    std::snprintf(caPath, sizeof caPath, "%s/log/com_%s_%d", pcRunDir, argv[5], getpid());
    ChgLog('1', caPath);
    std::snprintf(caPath, sizeof caPath, "%s/log/com_%s", pcRunDir, argv[5]);
    SysSetLog(caPath);
    if (const char* pcLimit = getenv("TRC_LOGSIZE_SET")) ChgLog('3', pcLimit);
    if (!ArmTestFaults(argv[0])) return -1;

    if (SysComInit() != 0) {
        COMP_ERRLOG("[%s,%d]SysComInit error , comp %d exit", SRC_NAME, __LINE__, getpid());
        return -1;
    }

    int iRet = SysGetSingleRecord("PLAT_STATICROUTEINF", &stRoute, "ROUTEID", caRouteId, "ROUTEMONID", "1",
                                  PARA_END);
    if (iRet == -1) {
        wlog("err");
        SysComQuit();
    }
    if (iRet == SQL_NOTFOUND) {
        wlog("config error");
        SysComQuit();
    }
    // A value of 32 characters has no room for its NUL: end every column
    // inside its own field so no reader runs on into the next one.
    for (auto& field : stRoute.caField) field[sizeof field - 1] = '\0';
    if (SysTellCommonp(g_stMsgQCntl[comp::kQueueCommonp].iId, comp::kCommonpLogon) != 0) {
        wlog("SysTellCommonp error");
        SysComQuit();
    }

    void* pvSelf = dlopen(nullptr, RTLD_LAZY);
    if (pvSelf == nullptr) {
        const char* pcErr = dlerror();
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s", SRC_NAME, __LINE__, pcErr);
        std::fprintf(stderr, "%s: the transport modes cannot be looked up: %s\n", argv[0], pcErr);
        return -1;
    }
    void* pvSym = dlsym(pvSelf, argv[1]);
    if (pvSym == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s", SRC_NAME, __LINE__, dlerror());
        ReportNoMode(argv[0], argv[1], pvSelf);
        dlclose(pvSelf);
        return -1;
    }
    // Any exported name resolves; calling something that is not a mode with
    // the mode's arguments would be undefined, so only the modes are taken.
    if (!IsMode(argv[1])) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s is not a transport mode", SRC_NAME, __LINE__, argv[1]);
        ReportNoMode(argv[0], argv[1], pvSelf);
        dlclose(pvSelf);
        return -1;
    }
    auto pfMode = reinterpret_cast<SysModeFunc>(pvSym);
    // The loop's report lines carry the mode's name from here on.
    comp::log::SetRunningMode(argv[1]);

    iRet = pfMode(caRouteId, stRoute, iInstance, iArg);
    if (iRet < 0) {
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]com error,errorno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno,
                 std::strerror(errno));
        sleep(2);
        SysComQuit();
    }
    writelog(LOG_INFO, nullptr, 0, "[%s,%d]Abnormal termination,comp is going to exit", SRC_NAME, __LINE__);
    SysComQuit();
}
