// app.cfg: tagged parts of "name value" lines. Two kinds of reader: stream
// readers that take no lock (SysReadAppCfgByTag, SysReadCfg2Arr), and the
// lock-taking readers and the writer, which hold a whole-file lockf lock from
// open to close so that a change and the reads of other processes never
// interleave.
#include "config/FileOpApp.h"

#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/FdUtil.h"
#include "config/CfgSource.h"
#include "base/SysGlobals.h"
#include "config/SysRscApp.h"
#include "log/ErrLog.h"
#include "log/LogRepeats.h"
#include "log/SysTraceLog.h"
#include "util/StrTools.h"

namespace {

constexpr int kRetryMs = 100;           // pause between attempts to open or lock
constexpr int kLineBufLen = 128;        // line buffer of the lock-taking readers
constexpr size_t kMaxLines = 256;       // lines SysChgAppVar can hold
constexpr int kStreamLineLen = 1024;    // line buffer of the stream readers
constexpr int kCopyPiece = 1024;
constexpr int kPathLen = 1024;
constexpr char kAppVarsTag[] = "[APPVARS]";
constexpr char kPartEnd[] = "[]";
constexpr char kWordSpace[] = " \t\r\n\v\f";

static_assert(sizeof(AppCfgEntry::caName) == 64 && sizeof(AppCfgEntry::caValue) == 80);
static_assert(sizeof(AppCfgLine::caLine) == 80);

struct FileCloser {
    void operator()(FILE* fp) const { std::fclose(fp); }
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

bool StartsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// "%s/etc/<name>" under RUNDIR.
bool EtcPath(char* pcOut, const char* pcName) {
    const char* pcRun = getenv("RUNDIR");
    if (pcRun == nullptr) {
        wlog("[%s,%d]RUNDIR is not set", SRC_NAME, __LINE__);
        return false;
    }
    int n = std::snprintf(pcOut, kPathLen, "%s/etc/%s", pcRun, pcName);
    if (n < 0 || n >= kPathLen) {
        wlog("[%s,%d]path too long under RUNDIR[%s]", SRC_NAME, __LINE__, pcRun);
        return false;
    }
    return true;
}

// Opens until it succeeds, reporting every failed attempt. The file may be
// between an operator's edits or the process short of descriptors; the
// caller has nothing better to do than wait.
template <typename Report>
comp::UniqueFd OpenForever(const char* pcPath, int iFlags, mode_t mode, Report report) {
    for (;;) {
        int iFd = open(pcPath, iFlags, mode);
        if (iFd >= 0) return comp::UniqueFd(iFd);
        report(errno);
        appSleep(0, kRetryMs);
    }
}

// Locks the whole file (from offset 0, the descriptor's position after
// open, to any future end), retrying until it succeeds.
template <typename Report>
void LockForever(int iFd, Report report) {
    while (lockf(iFd, F_LOCK, 0) != 0) {
        report(errno);
        appSleep(0, kRetryMs);
    }
}

comp::UniqueFd OpenAppCfgLocked(const char* pcPath, bool bNewline) {
    comp::UniqueFd fd = OpenForever(pcPath, O_RDWR, 0777, [bNewline](int e) {
        wlog(bNewline ? "open error[%d,%s]\n" : "open error[%d,%s]", e, strerror(e));
    });
    LockForever(fd.get(), [bNewline](int e) {
        wlog(bNewline ? "lockf error[%d,%s]\n" : "lockf error[%d,%s]", e, strerror(e));
    });
    return fd;
}

struct TwoWords {
    std::string_view name;
    std::string_view value;
};

// The first two whitespace-separated words of a line.
TwoWords SplitWords(std::string_view line) {
    TwoWords out;
    std::string_view* words[] = {&out.name, &out.value};
    for (std::string_view* word : words) {
        size_t start = line.find_first_not_of(kWordSpace);
        if (start == std::string_view::npos) break;
        line.remove_prefix(start);
        size_t end = line.find_first_of(kWordSpace);
        *word = line.substr(0, end);
        line.remove_prefix(word->size());
    }
    return out;
}

// Copies a word into an output of outSize bytes, cut to fit, always
// NUL-terminated.
void CopyOut(char* pcOut, std::string_view word, size_t outSize) {
    size_t len = word.size() < outSize - 1 ? word.size() : outSize - 1;
    if (len > 0) std::memcpy(pcOut, word.data(), len);
    pcOut[len] = '\0';
}

template <size_t N>
void CopyField(char (&field)[N], std::string_view word) {
    CopyOut(field, word, N);
}

// app.cfg opened for the stream readers; null after the report.
UniqueFile OpenAppCfgStream() {
    char caPath[kPathLen];
    if (!EtcPath(caPath, "app.cfg")) return nullptr;
    UniqueFile fp(std::fopen(caPath, "r"));
    if (!fp) wlog("open app.cfg failed");
    return fp;
}

// Stream reader shared by SysReadAppCfgByTag and SysReadCfg2Arr: hands every
// non-blank, non-comment line of the tagged part (newline removed) to onLine.
// 1 when the tag was seen, 0 when not.
template <typename OnLine>
int ScanTaggedPart(FILE* fp, const char* pcTag, OnLine onLine) {
    const std::string_view tag(pcTag);
    bool bBegun = false;
    char caLine[kStreamLineLen];
    while (std::fgets(caLine, sizeof caLine, fp) != nullptr) {
        std::string_view line(caLine);
        if (StartsWith(line, "#")) continue;
        if (bBegun && StartsWith(line, kPartEnd)) break;
        if (StartsWith(line, tag)) {
            bBegun = true;
            continue;
        }
        if (!bBegun || iIsEmptyLine(caLine)) continue;
        if (!line.empty() && line.back() == '\n') line.remove_suffix(1);
        onLine(line);
    }
    return bBegun ? 1 : 0;
}

bool RewriteLines(int iFd, const comp::appcfg::KeptLines& kept) {
    if (ftruncate(iFd, 0) != 0 || lseek(iFd, 0, SEEK_SET) != 0) return false;
    for (const std::string& line : kept.lines)
        if (Write(iFd, line.data(), static_cast<int>(line.size())) != 0) return false;
    return true;
}

// Puts the backup back after a failed rewrite.
void RestoreFromBackup(int iAppFd, const char* pcBakPath) {
    comp::UniqueFd bak = OpenForever(pcBakPath, O_RDONLY, 0, [pcBakPath](int e) {
        wlog("open %s  error[%s]", pcBakPath, strerror(e));
    });
    if (ftruncate(iAppFd, 0) != 0 || lseek(iAppFd, 0, SEEK_SET) != 0 || filefdcopy(bak.get(), iAppFd) != 0)
        wlog("[%s,%d]restore of app.cfg from %s failed[%s]", SRC_NAME, __LINE__, pcBakPath, strerror(errno));
}

}  // namespace

namespace comp::appcfg {

int ReadAppCfgByTag(FILE* fp, const char* pcTag, AppCfgEntry* pstEntries) {
    // The caller sized the array for the longest part it expects.
    AppCfgEntry* pstNext = pstEntries;
    int iSeen = ScanTaggedPart(fp, pcTag, [&pstNext](std::string_view line) {
        TwoWords words = SplitWords(line);
        if (words.name.empty()) return;
        CopyField(pstNext->caName, words.name);
        CopyField(pstNext->caValue, words.value);
        ++pstNext;
    });
    if (iSeen == 0) {
        COMP_ERRLOG("[%s,%d] app.cfg lost %s part", SRC_NAME, __LINE__, pcTag);
        return -1;
    }
    return 0;
}

int ReadCfg2Arr(FILE* fp, const char* pcTag, AppCfgLine* pstLines) {
    AppCfgLine* pstNext = pstLines;
    int iSeen = ScanTaggedPart(fp, pcTag, [&pstNext](std::string_view line) {
        CopyField(pstNext->caLine, line);
        ++pstNext;
    });
    if (iSeen == 0) COMP_ERRLOG("[%s,%d] app.cfg lost %s part", SRC_NAME, __LINE__, pcTag);
    return 0;
}

int ValueByTagKey(const ByteSource& src, const char* pcTag, const char* pcName, char* pcValue) {
    const std::string_view tag(pcTag);
    bool bBegun = false;
    for (;;) {
        char caLine[kLineBufLen] = {};
        if (comp::cfg::ReadLineFrom(src, caLine) < 0) break;
        delSpacePreLast(caLine);
        const std::string_view line(caLine);
        if (StartsWith(line, "#")) continue;
        if (bBegun && StartsWith(line, kPartEnd)) break;
        if (StartsWith(line, tag)) {
            bBegun = true;
            continue;
        }
        if (!bBegun || line.empty()) continue;
        TwoWords words = SplitWords(line);
        if (words.name == pcName) {
            CopyOut(pcValue, words.value, kLineBufLen);
            return 0;
        }
    }
    if (!bBegun) wlog("app.cfg lost %s ", pcTag);
    return -1;
}

int AppVarByIndex(const ByteSource& src, int iIndex, char* pcName, char* pcValue) {
    bool bInPart = false;
    int iEntry = 0;
    for (;;) {
        char caLine[kLineBufLen] = {};
        if (comp::cfg::ReadLineFrom(src, caLine) < 0) return 0;
        const std::string_view line(caLine);
        if (StartsWith(line, "#")) continue;
        if (bInPart && StartsWith(line, kPartEnd)) return 0;
        if (StartsWith(line, kAppVarsTag)) {
            bInPart = true;
            continue;
        }
        if (!bInPart || iIsEmptyLine(caLine)) continue;
        if (iEntry++ == iIndex) {
            TwoWords words = SplitWords(line);
            CopyOut(pcName, words.name, kLineBufLen);
            CopyOut(pcValue, words.value, kLineBufLen);
            return 1;
        }
    }
}

// Reads app.cfg and replaces the first "[APPVARS]" entry named pcName.
// False when the file cannot be held whole (a line too long to read, more
// lines than the writer keeps): then nothing may be written.
bool CollectLines(const ByteSource& src, const char* pcName, const char* pcValue, KeptLines& out) {
    const std::string_view name(pcName);
    bool bInPart = false;
    for (;;) {
        char caLine[kLineBufLen] = {};
        int iLen = comp::cfg::ReadLineFrom(src, caLine);
        if (iLen == -1) return false;
        const bool bLast = iLen == -2;
        if (bLast) {
            // A last line without a newline is kept as it stands.
            iLen = static_cast<int>(strnlen(caLine, sizeof caLine));
            if (iLen == 0) return true;
        }
        if (out.lines.size() == kMaxLines) {
            wlog("[%s,%d]app.cfg has more than %zu lines", SRC_NAME, __LINE__, kMaxLines);
            return false;
        }
        std::string kept(caLine, static_cast<size_t>(iLen));
        if (!bLast) kept += '\n';

        char caTrim[kLineBufLen];
        std::memcpy(caTrim, caLine, sizeof caTrim);
        delSpacePreLast(caTrim);
        const std::string_view trimmed(caTrim);
        if (StartsWith(trimmed, kAppVarsTag)) {
            bInPart = !out.bChanged;
        } else if (StartsWith(trimmed, kPartEnd)) {
            bInPart = false;
        } else if (bInPart && !StartsWith(trimmed, "#") &&
                   trimmed.substr(0, trimmed.find_first_of(" \t")) == name) {
            kept = std::string(name) + ' ' + pcValue + '\n';
            bInPart = false;
            out.bChanged = true;
        }
        out.lines.push_back(std::move(kept));
        if (bLast) return true;
    }
}

}  // namespace comp::appcfg

extern "C" {

int SysReadAppCfgByTag(const char* pcTag, AppCfgEntry* pstEntries) {
    if (pcTag == nullptr || pcTag[0] == '\0' || pstEntries == nullptr) {
        wlog("parameter error[%s,%d]", SRC_NAME, __LINE__);
        return -1;
    }
    UniqueFile fp = OpenAppCfgStream();
    return fp ? comp::appcfg::ReadAppCfgByTag(fp.get(), pcTag, pstEntries) : -1;
}

int SysReadCfg2Arr(const char* pcTag, AppCfgLine* pstLines) {
    if (pcTag == nullptr || pcTag[0] == '\0' || pstLines == nullptr) {
        wlog("parameter error[%s,%d]", SRC_NAME, __LINE__);
        return -1;
    }
    UniqueFile fp = OpenAppCfgStream();
    return fp ? comp::appcfg::ReadCfg2Arr(fp.get(), pcTag, pstLines) : -1;
}

// pcValue receives at most 127 characters and a NUL.
int SysGetValueByTagKey(const char* pcTag, const char* pcName, char* pcValue) {
    if (pcTag == nullptr || pcTag[0] == '\0' || pcName == nullptr || pcValue == nullptr) {
        wlog("parameter error[%s,%d]", SRC_NAME, __LINE__);
        return -1;
    }
    char caPath[kPathLen];
    if (!EtcPath(caPath, "app.cfg")) return -1;
    comp::UniqueFd fd = OpenAppCfgLocked(caPath, false);
    return comp::appcfg::ValueByTagKey(comp::cfg::FileSource(fd.get()), pcTag, pcName, pcValue);
}

int SysGetAppVar(const char* pcName, char* pcValue) {
    if (pcName == nullptr || pcName[0] == '\0' || pcValue == nullptr) {
        writelog(LOG_ERROR, nullptr, 0, "Parameter key cann't be empty. Call SysGetAppVar error");
        return -1;
    }
    if (SysGetValueByTagKey(kAppVarsTag, pcName, pcValue) != 0) {
        writelog(LOG_INFO, nullptr, 0, "[%s] is not found in [APPVARS]", pcName);
        return -1;
    }
    return 0;
}

void SysSetLog(const char* pcName) {
    if (!SysSetTraceName(pcName)) return;
    // The threshold is in force before TRC_LOGSIZE_SET is read, so that the
    // reader's own lines already obey it.
    char value[256] = {0};
    SysSetTraceLevel(SysGetAppVar("LOG_LEVEL", value) == 0 ? std::atoi(value) : 1);
    std::memset(value, 0, sizeof value);
    SysSetTraceSizeLimit(SysGetAppVar("TRC_LOGSIZE_SET", value) == 0 ? std::atol(value) * 1024L
                                                                     : comp::kDefaultTraceSizeLimit);
    // Identical lines written per second before the rest are counted in a
    // summary line; 0 writes every line.
    std::memset(value, 0, sizeof value);
    comp::log::SetRepeatLimit(SysGetAppVar("COMP_LOG_REPEATS", value) == 0 ? std::atoi(value)
                                                                           : comp::log::kDefaultRepeatLimit);
}

// 1 and the entry when it exists, 0 past the last entry. Lines are not
// trimmed here. pcName and pcValue each receive at most 127 characters.
int SysGetAppVarByIndex(int iIndex, char* pcName, char* pcValue) {
    if (iIndex < 0 || pcName == nullptr || pcValue == nullptr) {
        wlog("parameter error[%s,%d]", SRC_NAME, __LINE__);
        return -1;
    }
    char caPath[kPathLen];
    if (!EtcPath(caPath, "app.cfg")) return -1;
    comp::UniqueFd fd = OpenAppCfgLocked(caPath, true);
    return comp::appcfg::AppVarByIndex(comp::cfg::FileSource(fd.get()), iIndex, pcName, pcValue);
}

int SysChgAppVar(const char* pcName, const char* pcValue) {
    // The name must be one word and the new line must fit the line reader
    // (127 characters), or the file could no longer be read back.
    if (pcName == nullptr || pcName[0] == '\0' || pcName[std::strcspn(pcName, kWordSpace)] != '\0' ||
        pcValue == nullptr || std::strchr(pcValue, '\n') != nullptr) {
        wlog("parameter error[%s,%d]", SRC_NAME, __LINE__);
        return -1;
    }
    if (std::strlen(pcName) + 1 + std::strlen(pcValue) > kLineBufLen - 1) {
        wlog("[%s,%d]line for %s would exceed %d characters", SRC_NAME, __LINE__, pcName, kLineBufLen - 1);
        return -1;
    }
    char caPath[kPathLen];
    char caBakPath[kPathLen];
    if (!EtcPath(caPath, "app.cfg") || !EtcPath(caBakPath, ".app.cfg.old")) return -1;

    comp::UniqueFd app = OpenForever(caPath, O_RDWR, 0, [&caPath](int e) { wlog("open %s  error[%s]", caPath, strerror(e)); });
    LockForever(app.get(), [](int e) { wlog("lockf error[%s]", strerror(e)); });

    {
        comp::UniqueFd bak = OpenForever(caBakPath, O_RDWR | O_CREAT | O_TRUNC, 0777,
                                   [&caBakPath](int e) { wlog("open %s  error[%s]", caBakPath, strerror(e)); });
        if (filefdcopy(app.get(), bak.get()) != 0) {
            wlog("filefdcopy error[%s]", strerror(errno));
            return -1;
        }
    }

    comp::appcfg::KeptLines kept;
    kept.lines.reserve(kMaxLines);
    if (lseek(app.get(), 0, SEEK_SET) != 0 ||
        !comp::appcfg::CollectLines(comp::cfg::FileSource(app.get()), pcName, pcValue, kept)) {
        wlog("[%s,%d]app.cfg left unchanged", SRC_NAME, __LINE__);
        return -1;
    }
    // Nothing to change: the file stays as it is, without a rewrite window.
    if (!kept.bChanged) return 0;

    if (!RewriteLines(app.get(), kept)) {
        wlog("Write error[%s]", strerror(errno));
        RestoreFromBackup(app.get(), caBakPath);
        return -1;
    }
    return 0;
}

int filefdcopy(int iSrcFd, int iDstFd) {
    char caBuf[kCopyPiece];
    for (;;) {
        ssize_t n = read(iSrcFd, caBuf, sizeof caBuf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) return 0;
        if (Write(iDstFd, caBuf, static_cast<int>(n)) != 0) return -1;
    }
}

int filecopy(const char* pcSrc, const char* pcDst) {
    if (pcSrc == nullptr || pcDst == nullptr) return -1;
    comp::UniqueFd src(open(pcSrc, O_RDONLY));
    if (src.get() < 0) {
        COMP_ERRLOG("Open %s Error:%s", pcSrc, strerror(errno));
        return -1;
    }
    comp::UniqueFd dst(open(pcDst, O_WRONLY | O_CREAT | O_TRUNC, 0600));
    if (dst.get() < 0) {
        COMP_ERRLOG("Open %s Error:%s", pcDst, strerror(errno));
        return -1;
    }
    return filefdcopy(src.get(), dst.get());
}

int Write(int iFd, const void* pvData, int iLen) {
    if (iLen < 0 || (pvData == nullptr && iLen > 0)) return -1;
    const char* p = static_cast<const char*>(pvData);
    int iLeft = iLen;
    while (iLeft > 0) {
        ssize_t n = write(iFd, p, static_cast<size_t>(iLeft));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int iErr = n == 0 ? EIO : errno;   // no progress: give up rather than spin
            wlog("[%s]", strerror(iErr));
            errno = iErr;
            return -1;
        }
        p += n;
        iLeft -= static_cast<int>(n);
    }
    return 0;
}

int appSleep(int iSec, int iMsec) {
    long lUsec = static_cast<long>(iMsec) * 1000L;
    struct timeval tv {};
    tv.tv_sec = iSec + lUsec / 1000000L;
    tv.tv_usec = lUsec % 1000000L;
    return select(0, nullptr, nullptr, nullptr, &tv) < 0 ? -1 : 0;
}

}  // extern "C"
