// sys.cfg: the byte-wise file library, the CommCfg block, the resource
// sections, and the lookups in the loaded-table segment.
#pragma once

#include <sys/types.h>

#include "base/SysTypes.h"

extern "C" {

// File library.
int InitFile(const char* pcName, int iMode);
int CloseFile(int iFd);
int ReadBuf(int iFd, char* pcBuf, int iMax);
int ReadFileLine(int iFd, char* pcLine);
int JudgeIfStrMatch(const char* pcKey, int iKeyLen, const char* pcBuf, int iBufLen, int* piPos);
int GetValue(const char* pcBuf, int iBufLen, const char* pcKey, int iKeyLen, char* pcValue);

// Configuration readers.
int GetCommConfigValue(const char* pcPath, CommCfg* pstCfg);
int GetAppCommConfigValue(const char* pcPath, int* piCount);
int GetQueueConfigValue(int iCount, const char* pcPath, QueueCfgEntry* pstEntries);
int GetSemConfigValue(int iCount, const char* pcPath, SemCfgEntry* pstEntries);
int GetShmConfigValue(int iCount, const char* pcPath, ShmCfgEntry* pstEntries);
int GetProcConfigValue(int iCount, const char* pcPath, ProcCfgEntry* pstEntries);

// Lookups in the table segment. The key/value list ends with PARA_END.
int SysGetValueByTableKey(const char* pcTable, const char* pcField, char* pcValue, ...);
int SysGetenvByName(const char* pcName, char* pcValue);
int getValueByKeyNew(const TableRecord* pstRec, const char* pcField, char* pcValue);
int findSubStringNew(const TableRecord* pstRec, const char* pcField, const char* pcText);

// Small list routines.
int getValueByKey(const char* pcList, const char* pcKey, char* pcValue);
int findSubString(const char* pcList, const char* pcItem);
int findSubString2(const char* pcBuf, const char* pcText, int iLen);
int getRandom(int iN);

}  // extern "C"

namespace comp::cfg {

class CfgSource;

// The sys.cfg readers above on a source of their own: Get<X>ConfigValue(path)
// is <X>Config(CfgSource(path)).
int CommConfig(const CfgSource& cfg, CommCfg* pstCfg);
int AppCommConfig(const CfgSource& cfg, int* piCount);
int QueueConfig(const CfgSource& cfg, int iCount, QueueCfgEntry* pstEntries);
int SemConfig(const CfgSource& cfg, int iCount, SemCfgEntry* pstEntries);
int ShmConfig(const CfgSource& cfg, int iCount, ShmCfgEntry* pstEntries);
int ProcConfig(const CfgSource& cfg, int iCount, ProcCfgEntry* pstEntries);

}  // namespace comp::cfg

// Path of sys.cfg under $RUNDIR ("%s/etc/sys.cfg"); false when RUNDIR is unset
// or the path does not fit.
bool SysCfgPath(char* pcOut, int iOutLen);

// Key and size of the [SHMRESOURCE] entry at the 1-based position among
// iCount entries (the first is the registry segment, the second the table
// segment); false after the report.
bool SysShmEntryAt(int iPosition, int iCount, key_t* pKey, int* piSize);
