// app.cfg: tagged parts of name/value lines, read under a whole-file lock and
// changed in place with a backup.
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

}  // extern "C"
