#include "modes/SysModeCommon.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

#include <cerrno>

#include "config/SysRscApp.h"
#include "ipc/SysFIFO.h"
#include "log/ErrLog.h"
#include "modes/SysModeLoop.h"
#include "log/SysTraceLog.h"

namespace comp {

namespace {
constexpr int kMaxTableSize = 1 << 20;  // a sane ceiling for one process's descriptors
}

int ModeMaxComNum() {
    char value[256] = {0};
    int rc = SysGetenvByName("MAX_COM_NUM", value);
    if (rc != 0) return -1;
    int n = std::atoi(value);
    return (n > 3 && n <= kMaxTableSize) ? n : -1;
}

int RouteInt(const RouteRecord& stRoute, RouteColumn eCol) { return std::atoi(stRoute.caField[eCol]); }

const char* RouteText(const RouteRecord& stRoute, RouteColumn eCol) { return stRoute.caField[eCol]; }

bool OpenModeFifos(ModeLoop& loop, int iInstance, const char* pcNotifyName, int iNotifyKind, int* piCtlFd,
                   int* piNotifyFd) {
    char name[32];
    std::snprintf(name, sizeof name, "%d_%d", getpid(), iInstance);
    *piCtlFd = iOpenFIFO(name, kFifoControl);
    *piNotifyFd = *piCtlFd < 0 ? -1 : iOpenFIFO(pcNotifyName, iNotifyKind);
    if (*piCtlFd < 0 || *piNotifyFd < 0 || !loop.AddFixed(*piCtlFd) || !loop.AddFixed(*piNotifyFd)) {
        COMP_ERRLOG("[%s,%d]iOpenFIFO error,errno=%d,errmsg=[%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return false;
    }
    return true;
}

int32_t HeaderInt(const char* pcHeader, int iOffset) {
    int32_t v;
    std::memcpy(&v, pcHeader + iOffset, sizeof v);
    return v;
}

}  // namespace comp

extern "C" int SysConnLog(int iFd, const char* pcPath, int iLevel, const void* pvData, int iLen,
                          const char* pcFmt, ...) {
    if (iFd < 0) return -2;
    if (!SysTraceEnabled(iLevel)) return 0;
    char text[4097];
    va_list ap;
    va_start(ap, pcFmt);
    std::vsnprintf(text, sizeof text, pcFmt, ap);
    va_end(ap);
    return writelog2(iLevel, pcPath, pvData, iLen, "%s", text);
}
