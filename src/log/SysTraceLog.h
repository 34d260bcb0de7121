// Trace log: one file per process and day, levelled entries with an optional
// hex dump, each written under a whole-file lock.
#pragma once

extern "C" {

// Levels of writelog.
enum { LOG_DEBUG = 1, LOG_INFO = 2, LOG_WARN = 3, LOG_ERROR = 4 };

int writelog(int iLevel, const void* pvData, int iLen, const char* pcFmt, ...)
    __attribute__((format(printf, 4, 5)));
int writelog2(int iLevel, const char* pcFile, const void* pvData, int iLen, const char* pcFmt, ...)
    __attribute__((format(printf, 5, 6)));
int wlog(const char* pcFmt, ...) __attribute__((format(printf, 1, 2)));
int SysWriteLog(int iLevel, const char* pcPath, const void* pvData, int iLen, const char* pcText);
int logDispErrMsg(int iFd, int iLevel, const char* pcText, const void* pvData, int iLen);
int logMemDump(int iFd, const void* pvData, int iLen);
int logGetTimeNew(char* pcBuf);
int ChgLog(char cCode, const char* pcText);

}  // extern "C"

// True when an entry of this level would be written; lets hot paths skip
// formatting text that the threshold drops.
bool SysTraceEnabled(int iLevel);

// The settings of the trace log, handed in at start by SysSetLog (config),
// which reads the threshold and the size limit from app.cfg.
// Sets the base name from pcName; false, after printing why, when the name is
// null or holds no "/" (the settings are then left as they are).
bool SysSetTraceName(const char* pcName);
// Entries below this level are dropped.
void SysSetTraceLevel(int iLevel);
// A file that has reached this many bytes is moved aside after the next entry.
void SysSetTraceSizeLimit(long lBytes);
