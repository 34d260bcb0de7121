#include "log/SourceName.h"

#include <cstdio>

#include "base/SysGlobals.h"

namespace comp::log {

void SetRunningMode(const char* pcMode) {
    char* pcOut = g_stProcState.stLog.caModeSource;
    std::snprintf(pcOut, sizeof g_stProcState.stLog.caModeSource, "%s", pcMode != nullptr ? pcMode : "");
}

const char* RunningModeOr(const char* pcFallback) {
    const char* pcMode = g_stProcState.stLog.caModeSource;
    return pcMode[0] != '\0' ? pcMode : pcFallback;
}

}  // namespace comp::log
