// app.cfg: tagged parts of name/value lines, read under a whole-file lock and
// changed in place with a backup; the trace-log settings taken from it.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "base/ByteSource.h"
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

// The readers above on an app.cfg already open (the unit tests and the fuzz
// targets hand them a text in memory). Their arguments are checked by the
// routines above.
namespace comp::appcfg {

// SysReadAppCfgByTag and SysReadCfg2Arr on a stream.
int ReadAppCfgByTag(FILE* fp, const char* pcTag, AppCfgEntry* pstEntries);
int ReadCfg2Arr(FILE* fp, const char* pcTag, AppCfgLine* pstLines);
// SysGetValueByTagKey and SysGetAppVarByIndex once the file is locked.
int ValueByTagKey(const ByteSource& src, const char* pcTag, const char* pcName, char* pcValue);
int AppVarByIndex(const ByteSource& src, int iIndex, char* pcName, char* pcValue);

// What SysChgAppVar writes back: every line as read, with its newline if it
// had one, the first "[APPVARS]" entry of the name replaced.
struct KeptLines {
    std::vector<std::string> lines;
    bool bChanged = false;
};
// Reads the whole file into out; false when it cannot be held whole (a line
// too long to read, more lines than the writer keeps).
bool CollectLines(const ByteSource& src, const char* pcName, const char* pcValue, KeptLines& out);

}  // namespace comp::appcfg
