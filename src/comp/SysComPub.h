// Start-up, logon/logoff and quitting of the process, and the route row.
#pragma once

#include "base/SysTypes.h"

extern "C" {

// Signature shared by every transport mode, exported under the mode's name.
typedef int (*SysModeFunc)(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);

int SysComInit(void);
int SysTellCommonp(int iQid, int iCode);
[[noreturn]] void SysComQuit(void);

// Route row fields (RouteRecord positions).
int iGetStaticTblValues(RouteRecord stRoute, int* piLenFieldLen, int* piLenFieldOff, int* piIdleTimeout,
                        int* piHeaderLen);
int SysGetIpAndPort(const char* pcText, char* pcIp, int* piPort);

}  // extern "C"
