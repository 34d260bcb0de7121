// Error log shared by every process of the host, the warning and fatal
// files, the abnormal-end routine and the signal handler. ErrLog never fails
// towards its caller: it waits for the file and its lock as long as it takes
// and reports its own troubles on standard output.
#include "log/ErrLog.h"

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/FdUtil.h"
#include "base/SysIpcSeam.h"
#include "log/LogFormat.h"
#include "log/LogRepeats.h"

namespace {

constexpr int kOpenReportAfter = 256;
constexpr int kLockReportAfter = 10;
constexpr int kCallPathPerLine = 6;

LogSettings& Settings() { return g_stProcState.stLog; }

comp::log::ErrFileWriter g_pfErrFileWriter = nullptr;

// The full record: pid, time, message, call path, dump.
void AppendRecord(std::string& out, const char* pcMsg, const void* pvDump, int iDumpLen) {
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    struct tm tmNow {};
    localtime_r(&tv.tv_sec, &tmNow);
    char cal[32] = {0};
    asctime_r(&tmNow, cal);   // "Www Mmm dd hh:mm:ss yyyy\n": 24 characters are used
    comp::log::AppendFormat(out, 2048 + 128, "Pid: %d | Time: %.24s %d | Message:\n%s\n", comp::OwnPid(), cal,
                            static_cast<int>(tv.tv_usec / 1000), pcMsg ? pcMsg : "");
    int n = g_iRtnIdx;
    if (n > 20) n = 20;
    for (int i = 0; i < n; ++i) {
        if (i > 0 && i % kCallPathPerLine == 0) out.append("\n        ");
        comp::log::AppendFormat(out, 32, i < n - 1 ? "%d-" : "%d", g_iaRtnPath[i]);
    }
    if (n > 0) out.push_back('\n');
    comp::log::AppendHexDump(out, pvDump, iDumpLen);
    out.push_back('\n');
}

std::string Body(int iCode, const char* pcMsg, const void* pvDump, int iDumpLen) {
    std::string out;
    if (iCode >= 1000 || g_iDebugSwitch) {
        AppendRecord(out, pcMsg, pvDump, iDumpLen);
    } else if (iCode == 0) {
        out = "@MSG:";
        out += pcMsg ? pcMsg : "";
        out.push_back('\n');
    }
    return out;
}

void WriteToErrorFile(const std::string& body) {
    if (g_pfErrFileWriter != nullptr) {
        g_pfErrFileWriter(body.data(), body.size());
        return;
    }
    const LogSettings& st = Settings();
    std::string name = std::string(st.caErrLogName) + "_" + comp::log::TimeStamp14().substr(0, 8) + ".log";

    int attempts = 0;
    int fd;
    while ((fd = comp::log::OpenLogFd(name.c_str(), O_WRONLY | O_APPEND | O_CREAT, 0777)) < 0) {
        if (++attempts >= kOpenReportAfter) {
            std::printf("ErrLog.c: fatal error occured !!! error_no is %d\n", errno);
            std::printf("errlog: %s CANNOT OPEN FOR ERROR LOG !!!\n", name.c_str());
        }
        // Out of descriptors with the reserve gone: only this process could
        // free one, and it would be waiting here. The record is lost.
        if (errno == EMFILE) {
            std::printf("errlog: %s CANNOT OPEN FOR ERROR LOG !!! error_no is %d\n", name.c_str(), errno);
            return;
        }
        sleep(1);
    }
    comp::log::LogFd file(fd);
    int lockFailures = 0;
    while (lockf(fd, F_LOCK, 0) != 0) {
        if (++lockFailures >= kLockReportAfter) {
            std::printf("ErrLog.c: fatal error occured !!! error_no is %d\n", errno);
            std::printf("errlog:CANNOT LOCK ERROR_LOG %s !!!\n", name.c_str());
        }
        sleep(1);
    }
    off_t sizeBefore = lseek(fd, 0, SEEK_END);
    if (sizeBefore < 0) std::printf("errlog: %s CANNOT JUMP TO END OF FILE !!!\n", name.c_str());
    if (!comp::seam::IpcCallFails(comp::seam::kLogWrite)) comp::WriteAll(fd, body.data(), body.size());

    // The size seen before this append decides, so only the process that
    // finds the file at or past the limit moves it aside.
    if (sizeBefore >= st.lErrLogSizeLimit) {
        const char* keep = getenv("TRC_BACKUP");
        std::string bak = (keep && std::strcmp(keep, "TRUE") == 0)
                              ? name + comp::log::TimeStamp14() + ".bak"
                              : name + ".bak";
        int rc = rename(name.c_str(), bak.c_str());
        if (rc != 0) {
            std::printf("cmserhdl.c: fatal error occured !!! iRc= %d error_no is %d\n", rc, errno);
            std::printf("ErrLog: %s CANNOT BE RENAMED !!!\n", name.c_str());
        }
    }
}

void WriteToTty(const std::string& body) {
    const char* tty = ttyname(STDOUT_FILENO);
    int fd = tty ? open(tty, O_WRONLY) : -1;
    if (fd < 0) {
        std::printf("ErrLog.c: fatal error occured !!! errno=%d \n", errno);
        std::printf("TTY %s CANNOT OPEN FOR ERROR LOG !!!\n", tty ? tty : "");
        return;
    }
    comp::UniqueFd file(fd);
    comp::WriteAll(fd, body.data(), body.size());
}

void WriteToConsole(const std::string& body) {
    int fd = open("/dev/console", O_WRONLY | O_NOCTTY);
    if (fd < 0) {
        std::printf("ErrLog.c: fatal error occured !!! ");
        std::printf("CONSOLE %s CANNOT OPEN FOR ERROR LOG !!!\n", "/dev/console");
        return;
    }
    comp::UniqueFd file(fd);
    comp::WriteAll(fd, body.data(), body.size());
}

void WriteRecord(int iCode, const char* pcMsg, int iDest, const void* pvDump, int iDumpLen) {
    std::string body = Body(iCode, pcMsg, pvDump, iDumpLen);
    if (iDest & ERRLOG_FILE) WriteToErrorFile(body);
    if (iDest & ERRLOG_TTY) WriteToTty(body);
    if (iDest & ERRLOG_CONSOLE) WriteToConsole(body);
}

// The summary of identical records left out, as a record of the same code
// and destinations. Formatted in a buffer of its own: the caller's message
// may be g_caMsg.
void WriteLeftOut(const comp::log::LeftOut& e) {
    char msg[comp::log::kRepeatTextKept + 128];
    std::snprintf(msg, sizeof msg, "[%s,%d]left out %d identical lines in %lld ms: %s", SRC_NAME, __LINE__, e.count,
                  static_cast<long long>(e.spanUsec / 1000), e.text.c_str());
    WriteRecord(e.level, msg, e.dest, nullptr, 0);
}

// Whether the gate lets this record through (identical records: the same
// code, destinations, message and dump).
bool AdmitRecord(int iCode, const char* pcMsg, int iDest, const void* pvDump, int iDumpLen) {
    const std::string_view text = pcMsg ? pcMsg : "";
    return comp::log::AdmitLine(comp::log::LineKey('E', {}, iCode * 8 + iDest, text, pvDump, iDumpLen),
                                comp::log::LineInfo{WriteLeftOut, {}, iCode, iDest, text});
}

int AppendToRunLog(const char* pcFile, const char* pcText) {
    const char* run = getenv("RUNDIR");
    char path[512];
    std::snprintf(path, sizeof path, "%s/log/%s", run ? run : "", pcFile);
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT, 0666);
    if (fd < 0) return -1;
    comp::UniqueFd file(fd);
    if (lseek(fd, 0, SEEK_END) < 0) return -1;
    std::string out = "\n[System Time:" + comp::log::TimeStamp14() + "]\n";
    out += pcText ? pcText : "";
    return !comp::seam::IpcCallFails(comp::seam::kLogWrite) && comp::WriteAll(fd, out.data(), out.size()) ? 0 : -1;
}

struct SignalText {
    int iSig;
    const char* pcText;
};
constexpr SignalText kSignalTexts[] = {
    {SIGHUP, "signal SIGHUP occured"},   {SIGINT, "signal SIGINT occured"},
    {SIGQUIT, "signal SIGQUIT occured"}, {SIGILL, "signal SIGILL occured"},
    {SIGTRAP, "signal SIGTRAP occured"}, {SIGABRT, "signal SIGABRT occured"},
    {SIGKILL, "signal SIGKILL occured"}, {SIGFPE, "signal SIGFPE occured"},
    {SIGBUS, "signal SIGBUS occured"},   {SIGSEGV, "signal SIGSEGV occured"},
    {SIGSYS, "signal SIGSYS occured"},   {SIGPIPE, "signal SIGPIPE occured"},
    {SIGALRM, "signal SIGALRM occured"}, {SIGTERM, "signal SIGTERM occured"},
    {SIGCHLD, "signal SIGCLD occured"},  {SIGPWR, "signal SIGPWR occured"},
};

}  // namespace

void comp::log::SetErrFileWriter(ErrFileWriter pfWriter) { g_pfErrFileWriter = pfWriter; }

extern "C" {

int ErrLog(int iCode, const char* pcMsg, int iDest, const void* pvDump, int iDumpLen) {
    if (iCode >= 1 && iCode <= 998 && !g_iDebugSwitch) return 0;
    g_iRtnErrno = iCode;
    // A record that ends the process is always written.
    if (iCode < 30000 && !AdmitRecord(iCode, pcMsg, iDest, pvDump, iDumpLen)) return 0;
    WriteRecord(iCode, pcMsg, iDest, pvDump, iDumpLen);
    if (iCode >= 30000) AbendRtn();
    return 0;
}

int ERRLOG(const char* pcCode, const char* pcMsg, char cDest, const void* pvDump, const char* pcDumpLen) {
    char code[6] = {0}, len[6] = {0}, msg[80] = {0};
    if (pcCode) std::snprintf(code, sizeof code, "%.5s", pcCode);
    if (pcDumpLen) std::snprintf(len, sizeof len, "%.5s", pcDumpLen);
    if (pcMsg) std::snprintf(msg, sizeof msg, "%.79s", pcMsg);
    return ErrLog(std::atoi(code), msg, cDest - '0', pvDump, std::atoi(len));
}

int DispErrMsg(int iFd, const char* pcMsg, const void* pvDump, int iDumpLen) {
    std::string out;
    AppendRecord(out, pcMsg, pvDump, iDumpLen);
    return comp::WriteAll(iFd, out.data(), out.size()) ? 0 : -1;
}

int MemDump(int iFd, const void* pvAddr, int iLen) {
    std::string out;
    comp::log::AppendHexDump(out, pvAddr, iLen);
    return comp::WriteAll(iFd, out.data(), out.size()) ? 0 : -1;
}

int WriteWarnning(const char* pcText) { return AppendToRunLog("warnning.log", pcText); }

int WriteFatalErr(const char* pcText) { return AppendToRunLog("fatalerr.log", pcText); }

int ErrorRpt(int iLevel2Rc, char* pcOut, int iOutLen) {
    if (pcOut == nullptr || iOutLen <= 0) return -1;
    if (iLevel2Rc < -99 || iLevel2Rc > 0) {
        std::snprintf(pcOut, static_cast<size_t>(iOutLen), "P_ErrorCode: iLevel2Rc = %d not in range [-99, 0]",
                      iLevel2Rc);
        return -1;
    }
    std::snprintf(pcOut, static_cast<size_t>(iOutLen), "P_ErrorCode: %d", iLevel2Rc);
    return 0;
}

int DetErrRpt(int iFunErrCode, const char* pcMsg, char* pcOut, int iOutLen) {
    if (pcOut == nullptr || iOutLen <= 0) return -1;
    if (iFunErrCode < -99 || iFunErrCode > 0) {
        std::snprintf(pcOut, static_cast<size_t>(iOutLen), "P_DetErrRpt: iFunErrCode = %d not in range [-99, 0]",
                      iFunErrCode);
        return -1;
    }
    char code[16];
    std::snprintf(code, sizeof code, "%d", iFunErrCode);
    std::snprintf(pcOut, static_cast<size_t>(iOutLen), "P_DetErrRpt:iFunErrCode=%.7s\nError message :%.73s", code,
                  pcMsg ? pcMsg : "");
    return 0;
}

int GetPrgId(char* pcOut) {
    std::snprintf(pcOut, 6, "%.5d", static_cast<int>(getpid() % 100000));
    return 0;
}

int SpGetTimeStr(char* pcOut) {
    std::snprintf(pcOut, 15, "%s", comp::log::TimeStamp14().c_str());
    return 0;
}

void SignlHdl(void) {
    for (const SignalText& s : kSignalTexts)
        if (s.iSig != SIGKILL) signal(s.iSig, SigHandler);
}

void SigHandler(int iSig) {
    const char* text = "signal occured";
    for (const SignalText& s : kSignalTexts)
        if (s.iSig == iSig) text = s.pcText;
    ErrLog(99900 + iSig, text, ERRLOG_FILE | ERRLOG_TTY, nullptr, 0);
}

void AbendRtn(void) {
    ErrLog(1000, "in ABEND ROUTINE ", ERRLOG_FILE, nullptr, 0);
    exit(1);
}

const char* SystemErrorString(void) {
    static char text[256];
    int err = errno;
    if (err == 0)
        text[0] = '\0';
    else
        std::snprintf(text, sizeof text, "(%s)", std::strerror(err));
    return text;
}

void SystemErrorReport(const char* pcText) {
    int err = errno;
    char head[128];
    std::snprintf(head, sizeof head, "[%s]pid[%d] ERROR errno[%d]=>", "SystemReport", getpid(), err);
    ErrLog(1000, head, ERRLOG_FILE, nullptr, 0);
    errno = err;
    char line[512];
    std::snprintf(line, sizeof line, "%s%s", pcText ? pcText : "", SystemErrorString());
    ErrLog(1000, line, ERRLOG_FILE, nullptr, 0);
    errno = err;
}

}  // extern "C"
