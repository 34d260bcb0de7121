// The byte-wise configuration file library: open a configuration file, read
// it whole or line by line, and find the value that follows a key.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "config/CfgSource.h"
#include "config/SysRscApp.h"
#include "log/ErrLog.h"

namespace {

constexpr int kPathLen = 100;          // longest path + NUL
constexpr int kDefaultReadMax = 20480;
constexpr int kMaxLineLen = 128;       // a line must end before this many bytes
constexpr int kMaxValueLen = 64;

// read() that survives interruptions: the count read, 0 at end, -1 on error.
ssize_t ReadRetry(int iFd, void* pvBuf, size_t len) {
    ssize_t n;
    do {
        n = read(iFd, pvBuf, len);
    } while (n < 0 && errno == EINTR);
    return n;
}

bool IsValueSeparator(char c) { return c == ' ' || c == '\t' || c == '=' || c == '\0'; }
bool EndsValue(char c) { return c == '\n' || c == '\0' || c == ' '; }

}  // namespace

extern "C" {

int InitFile(const char* pcName, int iMode) {
    const char* pcPath = pcName;
    if (iMode == 2) {
        pcPath = pcName != nullptr ? getenv(pcName) : nullptr;
        if (pcPath == nullptr) {
            COMP_ERRLOG("[%s][%d]Pid[%d] Get User Event Fail", SRC_NAME, __LINE__, getpid());
            return -1;
        }
    }
    char caPath[kPathLen];
    // A path that does not fit would open some other file: refuse it.
    if (pcPath == nullptr ||
        std::snprintf(caPath, sizeof caPath, "%s", pcPath) >= static_cast<int>(sizeof caPath)) {
        COMP_ERRLOG("[%s][%d]Pid[%d] Open Cfg File[%s] Fail", SRC_NAME, __LINE__, getpid(),
                    pcPath != nullptr ? pcPath : "");
        return -1;
    }
    int iFd = open(caPath, O_RDWR | O_CREAT, 0770);
    if (iFd < 0) {
        COMP_ERRLOG("[%s][%d]Pid[%d] Open Cfg File[%s] Fail", SRC_NAME, __LINE__, getpid(), caPath);
        return -1;
    }
    return iFd;
}

int CloseFile(int iFd) {
    close(iFd);
    return 0;
}

int ReadBuf(int iFd, char* pcBuf, int iMax) { return comp::cfg::ReadBufFrom(comp::cfg::FileSource(iFd), pcBuf, iMax); }

int ReadFileLine(int iFd, char* pcLine) { return comp::cfg::ReadLineFrom(comp::cfg::FileSource(iFd), pcLine); }

int JudgeIfStrMatch(const char* pcKey, int iKeyLen, const char* pcBuf, int iBufLen, int* piPos) {
    if (pcKey == nullptr || pcBuf == nullptr || piPos == nullptr) {
        COMP_ERRLOG("[%s][%d]Pid[%d] JudgeIfStrMatch Param Null", SRC_NAME, __LINE__, getpid());
        return -1;
    }
    if (iKeyLen <= 0) return -1;
    // A key never matches across the end of the data.
    for (int p = 0; p + iKeyLen <= iBufLen; ++p) {
        if (std::memcmp(pcBuf + p, pcKey, static_cast<size_t>(iKeyLen)) == 0) {
            *piPos = p + iKeyLen;
            return 0;
        }
    }
    return -1;
}

// The first occurrence of the key anywhere in the data counts, wherever it
// stands (a comment, a longer key): files put the shorter keys first.
int GetValue(const char* pcBuf, int iBufLen, const char* pcKey, int iKeyLen, char* pcValue) {
    if (pcValue == nullptr) {
        COMP_ERRLOG("[%s][%d]Pid[%d] GetValue Param Null", SRC_NAME, __LINE__, getpid());
        return -1;
    }
    pcValue[0] = '\0';
    int iPos = 0;
    if (JudgeIfStrMatch(pcKey, iKeyLen, pcBuf, iBufLen, &iPos) != 0) {
        COMP_ERRLOG("[%s][%d]Pid[%d] String[%.*s] No Match in netcfg file", SRC_NAME, __LINE__, getpid(),
                    pcKey != nullptr && iKeyLen > 0 ? iKeyLen : 0, pcKey != nullptr ? pcKey : "");
        return -1;
    }
    while (iPos < iBufLen && IsValueSeparator(pcBuf[iPos])) ++iPos;
    int iLen = 0;
    while (iPos + iLen < iBufLen && !EndsValue(pcBuf[iPos + iLen])) {
        if (iLen == kMaxValueLen) {
            COMP_ERRLOG("[%s][%d]Pid[%d] CFG[%.*s] Value >MAXLEN", SRC_NAME, __LINE__, getpid(), iKeyLen,
                        pcKey);
            pcValue[0] = '\0';
            return -1;
        }
        pcValue[iLen] = pcBuf[iPos + iLen];
        ++iLen;
    }
    pcValue[iLen] = '\0';
    return iLen;
}

}  // extern "C"

namespace comp::cfg {

// The descriptor travels in the context pointer itself.
ByteSource FileSource(int iFd) {
    return {[](void* pvCtx, void* pvBuf, int iLen) {
                const int fd = static_cast<int>(reinterpret_cast<intptr_t>(pvCtx));
                auto* pc = static_cast<char*>(pvBuf);
                int iDone = 0;
                while (iDone < iLen) {
                    ssize_t n = ReadRetry(fd, pc + iDone, static_cast<size_t>(iLen - iDone));
                    if (n < 0) return -1;
                    if (n == 0) break;
                    iDone += static_cast<int>(n);
                }
                return iDone;
            },
            reinterpret_cast<void*>(static_cast<intptr_t>(iFd))};
}

int ReadBufFrom(const ByteSource& src, char* pcBuf, int iMax) {
    if (iMax < 0) iMax = kDefaultReadMax;
    if (pcBuf == nullptr) {
        COMP_ERRLOG("[%s][%d]Pid[%d] Read File Fail ", SRC_NAME, __LINE__, getpid());
        return -1;
    }
    // The source reads no more than is wanted, so a file's position ends
    // exactly where a byte-by-byte reader would leave it.
    const int n = src.Read(pcBuf, iMax);
    if (n < 0) {
        COMP_ERRLOG("[%s][%d]Pid[%d] Read File Fail ", SRC_NAME, __LINE__, getpid());
        return -1;
    }
    if (n < iMax) pcBuf[n] = '\0';
    return n;
}

int ReadLineFrom(const ByteSource& src, char* pcLine) {
    if (pcLine == nullptr) {
        COMP_ERRLOG("[%s][%d]Pid[%d] GetOneLine Param Null", SRC_NAME, __LINE__, getpid());
        return -1;
    }
    // One byte per read, so a descriptor stays right after the newline for
    // the next call. At most kMaxLineLen - 1 bytes are stored: the caller's
    // cleared buffer keeps its terminating NUL.
    for (int iLen = 0;; ++iLen) {
        char c;
        const int n = src.Read(&c, 1);
        if (n < 0) {
            COMP_ERRLOG("[%s][%d]Pid[%d] Read File One Line Fail ", SRC_NAME, __LINE__, getpid());
            return -1;
        }
        if (n == 0) return -2;
        if (c == '\n') return iLen;
        if (iLen == kMaxLineLen - 1) {
            COMP_ERRLOG("[%s][%d]Pid[%d] Read File One Line >MAXLEN ", SRC_NAME, __LINE__, getpid());
            return -1;
        }
        pcLine[iLen] = c;
    }
}

CfgReading::CfgReading(const CfgSource& cfg) : mem_(cfg.text_) {
    if (cfg.bMemory_) {
        src_ = mem_.source();
        bOk_ = true;
        return;
    }
    iFd_ = cfg.pcName_ != nullptr ? InitFile(cfg.pcName_, 1) : -1;
    src_ = FileSource(iFd_);
    bOk_ = iFd_ >= 0;
}

CfgReading::~CfgReading() {
    if (iFd_ >= 0) CloseFile(iFd_);
}

}  // namespace comp::cfg
