// Trace log. Each entry opens the day's file, takes a whole-file lock,
// appends, closes, and moves the file aside once it has reached its size
// limit. Entries below the level threshold are dropped before any text is
// formatted.
#include "log/SysTraceLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/FdUtil.h"
#include "base/SysGlobals.h"
#include "base/SysIpcSeam.h"
#include "log/ErrLog.h"
#include "log/LogFormat.h"
#include "log/LogRepeats.h"

namespace {

constexpr int kMaxText = 4096;        // formatted text of one entry
constexpr int kMaxDump = 4096;        // dumped bytes of one entry
constexpr int kOpenAttempts = 5;

LogSettings& Settings() { return g_stProcState.stLog; }

const char* LevelPrefix(int iLevel) {
    switch (iLevel) {
        case LOG_DEBUG: return "DEBUG:";
        case LOG_INFO: return "INFOMATION:";
        case LOG_WARN: return "WARNING:";
        case LOG_ERROR: return "ERROR:";
        default: return "~~~~~";
    }
}

void PrintFatal(int iLine) {
    std::printf("SysWriteLog.c [%s,%d]: fatal error occured ! error_no is %d,[%s]\n", SRC_NAME, iLine, errno,
                std::strerror(errno));
}

// "<base>_YYYYMMDD.log" of today.
std::string TodayFile() {
    time_t now = time(nullptr);
    struct tm tmNow {};
    localtime_r(&now, &tmNow);
    char date[16];
    std::snprintf(date, sizeof date, "%04d%02d%02d", tmNow.tm_year + 1900, tmNow.tm_mon + 1, tmNow.tm_mday);
    return std::string(Settings().caTraceBase) + "_" + date + ".log";
}

// "Pid:..|level|Time:..\nMSG:text\n", the dump, "\n".
void AppendEntry(std::string& out, int iLevel, const char* pcText, const void* pvData, int iLen) {
    char stamp[64];
    logGetTimeNew(stamp);
    comp::log::AppendFormat(out, kMaxText + 128, "Pid:%d|%d|Time:%s\nMSG:%s\n", comp::OwnPid(), iLevel, stamp,
                            pcText ? pcText : "");
    comp::log::AppendHexDump(out, pvData, iLen);
    out.push_back('\n');
}

int VWriteLog(int iLevel, const char* pcFile, const void* pvData, int iLen, const char* pcFmt, va_list ap) {
    if (iLevel < Settings().iTraceLevel) return 0;
    char text[kMaxText + 1];
    std::vsnprintf(text, sizeof text, pcFmt, ap);
    std::string path = pcFile ? std::string(pcFile) : TodayFile();
    if (SysWriteLog(iLevel, path.c_str(), pvData, iLen, text) != 0) {
        std::printf("[%s,%d]write %s error", SRC_NAME, __LINE__, path.c_str());
        return -1;
    }
    return 0;
}

// One entry, written under the file's lock; the file moved aside once it
// has reached its size limit.
int WriteEntry(int iLevel, const char* pcPath, const void* pvData, int iLen, const char* pcText) {
    int failures = 0;
    int fd;
    while ((fd = comp::log::OpenLogFd(pcPath, O_WRONLY | O_CREAT, 0777)) < 0) {
        if (++failures >= kOpenAttempts) {
            PrintFatal(__LINE__);
            return -1;
        }
        usleep(100);
    }
    comp::log::LogFd file(fd);
    while (lockf(fd, F_LOCK, 0) != 0) {
        if (++failures >= kOpenAttempts) PrintFatal(__LINE__);
        usleep(100);
    }
    off_t sizeBefore = lseek(fd, 0, SEEK_END);
    if (sizeBefore < 0) {
        PrintFatal(__LINE__);
        return -1;
    }
    // The entry is assembled first and written with one call, so a reader
    // never sees half an entry even without taking the lock.
    std::string entry = LevelPrefix(iLevel);
    AppendEntry(entry, iLevel, pcText, pvData, iLen);
    if (!comp::seam::IpcCallFails(comp::seam::kLogWrite)) comp::WriteAll(fd, entry.data(), entry.size());

    if (sizeBefore >= Settings().lTraceSizeLimit) {
        std::string bak = std::string(pcPath) + comp::log::TimeStamp14() + ".bak";
        if (rename(pcPath, bak.c_str()) != 0) PrintFatal(__LINE__);
    }
    return 0;
}

// The summary of identical entries left out, an entry of the same level in
// the same file.
void WriteLeftOut(const comp::log::LeftOut& e) {
    char text[comp::log::kRepeatTextKept + 128];
    std::snprintf(text, sizeof text, "[%s,%d]left out %d identical lines in %lld ms: %s", SRC_NAME, __LINE__,
                  e.count, static_cast<long long>(e.spanUsec / 1000), e.text.c_str());
    WriteEntry(e.level, e.where.c_str(), nullptr, 0, text);
}

// Whether the gate lets this entry through (identical entries: the same
// file, level, text and dump).
bool AdmitEntry(int iLevel, const char* pcPath, const void* pvData, int iLen, const char* pcText) {
    const std::string_view text = pcText ? pcText : "";
    const std::string_view where = pcPath ? pcPath : "";
    return comp::log::AdmitLine(comp::log::LineKey('T', where, iLevel, text, pvData, iLen),
                                comp::log::LineInfo{WriteLeftOut, where, iLevel, 0, text});
}

}  // namespace

bool SysTraceEnabled(int iLevel) { return iLevel >= Settings().iTraceLevel; }

bool SysSetTraceName(const char* pcName) {
    if (pcName == nullptr) {
        std::printf("%s %d error\n", SRC_NAME, __LINE__);
        return false;
    }
    const char* slash = std::strrchr(pcName, '/');
    if (slash == nullptr) {
        std::printf("log file name error[%s]\n", pcName);
        return false;
    }
    // Platform daemons and tools ("com", "ebc", "sysshut", "showsem" or a
    // leading piece of one, and "Daem...") share one file; everybody else
    // gets a file of its own by pid.
    const char* part = slash + 1;
    size_t len = std::strlen(part);
    bool shared = false;
    for (const char* name : {"com", "ebc", "sysshut", "showsem"})
        if (std::strncmp(part, name, len) == 0) shared = true;
    if (std::strncmp(part, "Daem", 4) == 0) shared = true;
    LogSettings& st = Settings();
    if (shared)
        std::snprintf(st.caTraceBase, sizeof st.caTraceBase, "%s", pcName);
    else
        std::snprintf(st.caTraceBase, sizeof st.caTraceBase, "%s_%d", pcName, getpid());
    return true;
}

void SysSetTraceLevel(int iLevel) { Settings().iTraceLevel = iLevel; }

void SysSetTraceSizeLimit(long lBytes) { Settings().lTraceSizeLimit = lBytes; }

extern "C" {

int logGetTimeNew(char* pcBuf) {
    static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    struct tm tmNow {};
    if (localtime_r(&tv.tv_sec, &tmNow) == nullptr) {
        perror("localtime");
        pcBuf[0] = '\0';
        return -1;
    }
    char datetime[48];
    if (strftime(datetime, sizeof datetime, "%Y-%m-%d %H:%M:%S", &tmNow) == 0) {
        std::fprintf(stderr, "strftime returned 0");
        pcBuf[0] = '\0';
        return -1;
    }
    std::snprintf(pcBuf, 64, "%s %s.%d", kDays[tmNow.tm_wday % 7], datetime, static_cast<int>(tv.tv_usec / 1000));
    return 0;
}

int logMemDump(int iFd, const void* pvData, int iLen) {
    std::string out;
    comp::log::AppendHexDump(out, pvData, iLen);
    return comp::WriteAll(iFd, out.data(), out.size()) ? 0 : -1;
}

int logDispErrMsg(int iFd, int iLevel, const char* pcText, const void* pvData, int iLen) {
    std::string out;
    AppendEntry(out, iLevel, pcText, pvData, iLen);
    return comp::WriteAll(iFd, out.data(), out.size()) ? 0 : -1;
}

int SysWriteLog(int iLevel, const char* pcPath, const void* pvData, int iLen, const char* pcText) {
    if (iLevel < Settings().iTraceLevel) return 0;
    if (iLen > kMaxDump) iLen = kMaxDump;
    // Only failures are gated: the entries of the normal flow (a connection
    // log's separators, "N001 to Tranp") repeat by nature.
    if (iLevel < LOG_ERROR)
        comp::log::FlushRepeats();   // the counts that are due still come first
    else if (!AdmitEntry(iLevel, pcPath, pvData, iLen, pcText))
        return 0;
    return WriteEntry(iLevel, pcPath, pvData, iLen, pcText);
}

int writelog(int iLevel, const void* pvData, int iLen, const char* pcFmt, ...) {
    if (iLevel < Settings().iTraceLevel) return 0;
    va_list ap;
    va_start(ap, pcFmt);
    int rc = VWriteLog(iLevel, nullptr, pvData, iLen, pcFmt, ap);
    va_end(ap);
    return rc;
}

int writelog2(int iLevel, const char* pcFile, const void* pvData, int iLen, const char* pcFmt, ...) {
    if (iLevel < Settings().iTraceLevel) return 0;
    va_list ap;
    va_start(ap, pcFmt);
    int rc = VWriteLog(iLevel, pcFile, pvData, iLen, pcFmt, ap);
    va_end(ap);
    return rc;
}

int wlog(const char* pcFmt, ...) {
    if (LOG_DEBUG < Settings().iTraceLevel) return 0;
    va_list ap;
    va_start(ap, pcFmt);
    int rc = VWriteLog(LOG_DEBUG, nullptr, nullptr, 0, pcFmt, ap);
    va_end(ap);
    return rc;
}

int ChgLog(char cCode, const char* pcText) {
    LogSettings& st = Settings();
    const char* text = pcText ? pcText : "";
    switch (cCode) {
        case '1': {
            size_t len = std::strlen(text);
            if (len >= 1 && len <= 200) {
                std::snprintf(st.caErrLogName, sizeof st.caErrLogName, "%s", text);
            } else {
                std::snprintf(g_caMsg, sizeof g_caMsg, "ChgLog:Change LOG file name %s error!", text);
                ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
            }
            break;
        }
        case '2':
            if (std::strcmp(text, "0") == 0)
                st.iErrLogMode = 0;
            else if (std::strcmp(text, "1") == 0)
                st.iErrLogMode = 1;
            else
                ErrLog(1000, "ChgLog: Change Mode error!", ERRLOG_FILE, nullptr, 0);
            break;
        case '3':
            st.lErrLogSizeLimit = std::atol(text) * 1024L;
            break;
        default:
            ErrLog(1000, "ChgLog: Change Code error!", ERRLOG_FILE, nullptr, 0);
            break;
    }
    return 0;
}

}  // extern "C"
