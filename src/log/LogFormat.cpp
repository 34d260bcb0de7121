#include "log/LogFormat.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace comp::log {

namespace {
constexpr const char* kDumpHeading =
    "Displacement -1--2--3--4--5--6--7--8-Hex-0--1--2--3--4--5--6  --ASCII Value--\n";
constexpr int kBytesPerLine = 16;
constexpr int kLinesPerHeading = 20;

void AppendDumpLine(std::string& out, const unsigned char* p, int iLine, int iCount) {
    char buf[128];
    int off = iLine * kBytesPerLine;
    int n = std::snprintf(buf, sizeof buf, "%05d(%05x) ", off, off);
    out.append(buf, static_cast<size_t>(n));
    static constexpr char kHex[] = "0123456789abcdef";
    for (int i = 0; i < kBytesPerLine; ++i) {
        if (i < iCount) {
            out.push_back(kHex[p[i] >> 4]);
            out.push_back(kHex[p[i] & 0x0F]);
            out.push_back(' ');
        } else {
            out.append("   ");
        }
    }
    out.push_back(' ');
    for (int i = 0; i < iCount; ++i) out.push_back(p[i] < 0x20 ? '*' : static_cast<char>(p[i]));
    out.push_back('\n');
}
}  // namespace

void AppendHexDump(std::string& out, const void* pvData, int iLen) {
    if (pvData == nullptr || iLen <= 0) return;
    const auto* p = static_cast<const unsigned char*>(pvData);
    const int lines = (iLen - 1) / kBytesPerLine + 1;
    // Lines are gathered and flushed whenever the line number is a multiple
    // of 20, while the heading goes out straight before that line is
    // gathered: this yields the order documented in the header.
    std::string pending;
    for (int i = 0; i < lines; ++i) {
        if (i % kLinesPerHeading == 0) out.append(kDumpHeading);
        int count = (i == lines - 1) ? iLen - i * kBytesPerLine : kBytesPerLine;
        AppendDumpLine(pending, p + i * kBytesPerLine, i, count);
        if (i % kLinesPerHeading == 0) {
            out += pending;
            pending.clear();
        }
    }
    out += pending;
}

std::string TimeStamp14() {
    time_t now = time(nullptr);
    struct tm tmNow {};
    localtime_r(&now, &tmNow);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d", tmNow.tm_year + 1900, tmNow.tm_mon + 1,
                  tmNow.tm_mday, tmNow.tm_hour, tmNow.tm_min, tmNow.tm_sec);
    return buf;
}

void AppendFormat(std::string& out, int iMax, const char* pcFmt, ...) {
    std::string buf(static_cast<size_t>(iMax) + 1, '\0');
    va_list ap;
    va_start(ap, pcFmt);
    int n = std::vsnprintf(buf.data(), buf.size(), pcFmt, ap);
    va_end(ap);
    if (n < 0) return;
    if (n > iMax) n = iMax;
    out.append(buf.data(), static_cast<size_t>(n));
}

namespace {

// Highest number the reserve is moved up to: above it the kernel's table of
// descriptors would grow for nothing.
constexpr int kReserveCeiling = 1023;
int g_reserve = -1;

}  // namespace

// Takes the reserve, moved to the top of the limit (where it stands out of
// the way of numbers handed out lowest first).
void TakeReserve() {
    if (g_reserve >= 0) return;
    const int saved = errno;
    int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    rlimit lim{};
    if (fd >= 0 && getrlimit(RLIMIT_NOFILE, &lim) == 0) {
        const long top = std::min<long>(static_cast<long>(lim.rlim_cur) - 1, kReserveCeiling);
        if (fd < top) {
            const int high = fcntl(fd, F_DUPFD_CLOEXEC, static_cast<int>(top));
            if (high >= 0) {
                close(fd);
                fd = high;
            }
        }
    }
    g_reserve = fd;
    errno = saved;
}

int OpenLogFd(const char* pcPath, int iFlags, mode_t mode) {
    TakeReserve();
    int fd = open(pcPath, iFlags | O_CLOEXEC, mode);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE) && g_reserve >= 0) {
        close(g_reserve);
        g_reserve = -1;
        fd = open(pcPath, iFlags | O_CLOEXEC, mode);
    }
    return fd;
}

void CloseLogFd(int iFd) {
    if (iFd >= 0) close(iFd);
    TakeReserve();
}

int ReserveFd() { return g_reserve; }

}  // namespace comp::log
