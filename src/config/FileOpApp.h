// app.cfg: tagged parts of name/value lines, read under a whole-file lock and
// changed in place with a backup; the trace-log settings taken from it.
#pragma once

#include "base/SysTypes.h"

extern "C" {

int SysReadAppCfgByTag(const char* pcTag, AppCfgEntry* pstEntries);
int SysReadCfg2Arr(const char* pcTag, AppCfgLine* pstLines);
int SysGetValueByTagKey(const char* pcTag, const char* pcName, char* pcValue);
int SysGetAppVar(const char* pcName, char* pcValue);
int SysGetAppVarByIndex(int iIndex, char* pcName, char* pcValue);
int SysChgAppVar(const char* pcName, const char* pcValue);
int filefdcopy(int iSrcFd, int iDstFd);
int filecopy(const char* pcSrc, const char* pcDst);
int Write(int iFd, const void* pvData, int iLen);
int appSleep(int iSec, int iMsec);

// Names the trace log (see SysSetTraceName) and sets its threshold and size
// limit from LOG_LEVEL and TRC_LOGSIZE_SET (KiB) of [APPVARS]; 1 and 20 MiB
// when they are missing.
void SysSetLog(const char* pcName);

}  // extern "C"
