// Pieces shared by the trace log and the error log: the hex dump, the time
// stamps and a locked append to a file.
#pragma once

#include <sys/types.h>

#include <string>

namespace comp::log {

// Appends the dump of iLen bytes in the layout of both logs: 16 bytes a line
// under a heading repeated every 20 lines. The lines come out in the order
// the platform's log readers expect: heading, line 0, heading, lines 1-20,
// heading, lines 21-40, ...
void AppendHexDump(std::string& out, const void* pvData, int iLen);

// "YYYYMMDDhhmmss" of the local time now.
std::string TimeStamp14();

// Appends printf-style text, bounded to iMax bytes of output.
void AppendFormat(std::string& out, int iMax, const char* pcFmt, ...) __attribute__((format(printf, 3, 4)));

// Log files are opened for each entry. A process that has used up its
// descriptors (EMFILE) -- or a host out of files (ENFILE) -- could then not
// say so, and the error log, which waits for its file without end, would
// hang it. So the logs keep one descriptor in reserve, near the top of the
// process's limit: an open that finds none free gives the reserve up, and
// closing the file takes it back.
int OpenLogFd(const char* pcPath, int iFlags, mode_t mode);
// Takes the reserve now (a process does before it can run short).
void TakeReserve();
// Closes a descriptor of OpenLogFd and takes the reserve back.
void CloseLogFd(int iFd);
// The reserve's descriptor (-1 while it is given up).
int ReserveFd();

class LogFd {
public:
    explicit LogFd(int iFd) : fd_(iFd) {}
    ~LogFd() { CloseLogFd(fd_); }
    LogFd(const LogFd&) = delete;
    LogFd& operator=(const LogFd&) = delete;

private:
    int fd_;
};

}  // namespace comp::log
