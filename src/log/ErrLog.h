// Error log shared by the processes of a host, the warning and fatal files,
// the signal handler and the system-call reports.
#pragma once

#include <cstddef>
#include <cstdio>

#include "base/SysGlobals.h"
#include "log/SourceName.h"

extern "C" {

// Destinations of ErrLog (a bit set).
enum { ERRLOG_FILE = 1, ERRLOG_TTY = 2, ERRLOG_CONSOLE = 4 };

int ErrLog(int iCode, const char* pcMsg, int iDest, const void* pvDump, int iDumpLen);
int ERRLOG(const char* pcCode, const char* pcMsg, char cDest, const void* pvDump, const char* pcDumpLen);
int DispErrMsg(int iFd, const char* pcMsg, const void* pvDump, int iDumpLen);
int MemDump(int iFd, const void* pvAddr, int iLen);
int WriteWarnning(const char* pcText);
int WriteFatalErr(const char* pcText);
int ErrorRpt(int iLevel2Rc, char* pcOut, int iOutLen);
int DetErrRpt(int iFunErrCode, const char* pcMsg, char* pcOut, int iOutLen);
int GetPrgId(char* pcOut);
int SpGetTimeStr(char* pcOut);
void SignlHdl(void);
void SigHandler(int iSig);
void AbendRtn(void);
const char* SystemErrorString(void);
void SystemErrorReport(const char* pcText);

}  // extern "C"

namespace comp::log {

// Where the error-file records go instead of the file, or null (the file).
// The fuzz targets set one so that a report costs no system calls; the
// record is formatted as for the file.
using ErrFileWriter = void (*)(const char* pcRecord, std::size_t iLen);
void SetErrFileWriter(ErrFileWriter pfWriter);

}  // namespace comp::log

// Formats into g_caMsg (bounded) and writes it to the error log at code 1000,
// the pattern of almost every failure report in the process.
#define COMP_ERRLOG(...)                                                   \
    do {                                                                   \
        std::snprintf(g_caMsg, sizeof g_caMsg, __VA_ARGS__);               \
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);                    \
    } while (0)

// The same with a dump of iLen bytes at pvData behind the record.
#define COMP_ERRLOG_DUMP(pvData, iLen, ...)                                \
    do {                                                                   \
        std::snprintf(g_caMsg, sizeof g_caMsg, __VA_ARGS__);               \
        ErrLog(1000, g_caMsg, ERRLOG_FILE, (pvData), (iLen));              \
    } while (0)
