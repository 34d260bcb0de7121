// Process entry of one communication process:
//   comp MODE ROUTEID INSTANCE ARG PROCNAME
// Joins the platform, reads its route row, logs on to Commonp and hands
// control for good to the transport mode named on the command line.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/SysGlobals.h"
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

void PrintUsage(const char* pcProg) {
    std::fprintf(stderr, "usage: %s MODE ROUTEID INSTANCE ARG PROCNAME\n  MODE is one of:", pcProg);
    for (const char* m : kModes) std::fprintf(stderr, " %s", m);
    std::fprintf(stderr, "\n");
}

bool IsMode(std::string_view name) {
    for (const char* m : kModes)
        if (name == m) return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    for (int sig : {SIGINT, SIGPIPE, SIGHUP, SIGCHLD, SIGUSR1, SIGUSR2}) signal(sig, SIG_IGN);

    if (argc < 6) {
        PrintUsage(argv[0]);
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

    char caPath[512] = {0};
    std::snprintf(caPath, sizeof caPath, "%s/log/com_%s_%d", pcRunDir, argv[5], getpid());
    ChgLog('1', caPath);
    std::snprintf(caPath, sizeof caPath, "%s/log/com_%s", pcRunDir, argv[5]);
    SysSetLog(caPath);
    if (const char* pcLimit = getenv("TRC_LOGSIZE_SET")) ChgLog('3', pcLimit);

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
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s", SRC_NAME, __LINE__, dlerror());
        return -1;
    }
    void* pvSym = dlsym(pvSelf, argv[1]);
    if (pvSym == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s", SRC_NAME, __LINE__, dlerror());
        dlclose(pvSelf);
        return -1;
    }
    // Any exported name resolves; calling something that is not a mode with
    // the mode's arguments would be undefined, so only the modes are taken.
    if (!IsMode(argv[1])) {
        writelog(LOG_ERROR, nullptr, 0, "[%s][%d] %s is not a transport mode", SRC_NAME, __LINE__, argv[1]);
        dlclose(pvSelf);
        return -1;
    }
    auto pfMode = reinterpret_cast<SysModeFunc>(pvSym);

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
