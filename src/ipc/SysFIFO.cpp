// Named FIFOs under $RUNDIR/fifo. Each carries single bytes: a byte means
// "look now", and its value is the command where one is needed. FIFOs are
// opened read-write and non-blocking, so open never waits for a partner and
// an empty FIFO reads as EAGAIN rather than end of file.
#include "ipc/SysFIFO.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "base/FdUtil.h"
#include "base/SysGlobals.h"
#include "base/SysIpcSeam.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"

namespace {

constexpr int kPathLen = 128;
constexpr mode_t kFifoDirMode = 0700;
constexpr mode_t kFifoMode = 0644;
constexpr int kOpenFlags = O_RDWR | O_NONBLOCK;
constexpr char kWakeByte = '0';
// The two clean-up routines belong to the platform's SysRscApp; their lines
// carry that name.
constexpr const char* kCleanupSource = "SysRscApp";

class DirHandle {
public:
    explicit DirHandle(DIR* pDir) : pDir_(pDir) {}
    ~DirHandle() {
        if (pDir_ != nullptr) closedir(pDir_);
    }
    DirHandle(const DirHandle&) = delete;
    DirHandle& operator=(const DirHandle&) = delete;
    DIR* get() const { return pDir_; }

private:
    DIR* pDir_;
};

// The run directory, or null (with a report) when RUNDIR is unset.
const char* RunDir() {
    const char* pcRunDir = std::getenv("RUNDIR");
    if (pcRunDir == nullptr) COMP_ERRLOG("[%s:%d]RUNDIR is not set", SRC_NAME, __LINE__);
    return pcRunDir;
}

// Checks an snprintf result against the 128-byte path buffer. A cut path
// could name another process's FIFO, so it is refused with a report.
bool PathFits(int iLen, const char* pcRunDir) {
    if (iLen >= 0 && iLen < kPathLen) return true;
    COMP_ERRLOG("[%s:%d]FIFO path under RUNDIR [%s] longer than %d bytes", SRC_NAME, __LINE__, pcRunDir,
                kPathLen - 1);
    return false;
}

bool FifoDirPath(char (&caPath)[kPathLen]) {
    const char* pcRunDir = RunDir();
    return pcRunDir != nullptr && PathFits(std::snprintf(caPath, kPathLen, "%s/fifo", pcRunDir), pcRunDir);
}

// "%s/fifo/%d_%s": run directory, kind, name.
bool FifoPath(char (&caPath)[kPathLen], const char* pcName, int iKind) {
    if (pcName == nullptr) {
        COMP_ERRLOG("[%s:%d]FIFO name is null", SRC_NAME, __LINE__);
        return false;
    }
    const char* pcRunDir = RunDir();
    return pcRunDir != nullptr &&
           PathFits(std::snprintf(caPath, kPathLen, "%s/fifo/%d_%s", pcRunDir, iKind, pcName), pcRunDir);
}

// Makes sure the FIFO directory exists and is a directory.
bool EnsureFifoDir() {
    char caDir[kPathLen];
    if (!FifoDirPath(caDir)) return false;
    struct stat st {};
    if (stat(caDir, &st) != 0) {
        if (mkdir(caDir, kFifoDirMode) != 0 && errno != EEXIST) {
            COMP_ERRLOG("[%s:%d]mkdir %s  error [%s]", SRC_NAME, __LINE__, caDir, std::strerror(errno));
            return false;
        }
        COMP_ERRLOG("mkdir %s ok", caDir);
        if (stat(caDir, &st) != 0) {
            COMP_ERRLOG("[%s:%d]mkdir %s  error [%s]", SRC_NAME, __LINE__, caDir, std::strerror(errno));
            return false;
        }
    }
    if (!S_ISDIR(st.st_mode)) {
        COMP_ERRLOG("%s is not a directory", caDir);
        return false;
    }
    return true;
}

// Outcome of examining a FIFO path: 0 FIFO, -2 missing, -3 not a FIFO, -1
// any other failure; the checkers report in their own words.
enum PathKind { kIsFifo = 0, kOtherError = -1, kMissing = -2, kNotFifo = -3 };

PathKind ExaminePath(const char* pcPath) {
    struct stat st {};
    if (stat(pcPath, &st) != 0) return errno == ENOENT ? kMissing : kOtherError;
    return S_ISFIFO(st.st_mode) ? kIsFifo : kNotFifo;
}

// The FIFO files iOpenFIFO opened in this process, newest last, by the
// file (device and inode) so that a descriptor finds its record whatever
// number it has. A process opens a handful; the oldest go past the bound.
struct OpenedFifo {
    dev_t dev;
    ino_t ino;
    int kind;
    std::string name;
    std::string path;
};
constexpr size_t kOpenedKept = 64;
std::mutex g_openedMu;
std::vector<OpenedFifo> g_opened;

void NoteOpened(int iFd, const char* pcName, int iKind, const char* pcPath) {
    struct stat st {};
    if (fstat(iFd, &st) != 0) return;
    std::lock_guard<std::mutex> lock(g_openedMu);
    g_opened.erase(std::remove_if(g_opened.begin(), g_opened.end(),
                                  [&](const OpenedFifo& o) { return o.dev == st.st_dev && o.ino == st.st_ino; }),
                   g_opened.end());
    if (g_opened.size() >= kOpenedKept) g_opened.erase(g_opened.begin());
    g_opened.push_back(OpenedFifo{st.st_dev, st.st_ino, iKind, pcName, pcPath});
}

// The record of the FIFO iFd holds, or false.
bool FindOpened(int iFd, OpenedFifo* pOut) {
    struct stat st {};
    if (fstat(iFd, &st) != 0 || !S_ISFIFO(st.st_mode)) return false;
    std::lock_guard<std::mutex> lock(g_openedMu);
    for (auto it = g_opened.rbegin(); it != g_opened.rend(); ++it)
        if (it->dev == st.st_dev && it->ino == st.st_ino) {
            *pOut = *it;
            return true;
        }
    return false;
}

void ForgetOpened(dev_t dev, ino_t ino) {
    std::lock_guard<std::mutex> lock(g_openedMu);
    g_opened.erase(std::remove_if(g_opened.begin(), g_opened.end(),
                                  [&](const OpenedFifo& o) { return o.dev == dev && o.ino == ino; }),
                   g_opened.end());
}

const comp::ResetRegistration kForgetOpened([] {
    std::lock_guard<std::mutex> lock(g_openedMu);
    g_opened.clear();
});

}  // namespace

extern "C" {

int iOpenFIFO(const char* pcName, int iKind) {
    if (!EnsureFifoDir()) return -1;
    char caPath[kPathLen];
    if (!FifoPath(caPath, pcName, iKind)) return -1;

    int iFd = open(caPath, kOpenFlags);
    if (iFd < 0) {
        if (mkfifo(caPath, kFifoMode) != 0) {
            writelog(LOG_ERROR, nullptr, 0, "create FIFO[%s] failed.", caPath);
            return -1;
        }
        iFd = open(caPath, kOpenFlags);
        if (iFd < 0) {
            writelog(LOG_ERROR, nullptr, 0, "connect FIFO[%s] failed.", caPath);
            return -1;
        }
    }
    // Something else standing at the path (a regular file opens too) is
    // refused and its descriptor closed again.
    comp::UniqueFd fd(iFd);
    struct stat st {};
    if (fstat(fd.get(), &st) != 0 || !S_ISFIFO(st.st_mode)) {
        writelog(LOG_ERROR, nullptr, 0, "%s FIFO", caPath);
        return -1;
    }
    NoteOpened(fd.get(), pcName, iKind, caPath);
    return fd.release();
}

int iConnectFIFO(const char* pcName, int iKind) {
    char caPath[kPathLen];
    if (!FifoPath(caPath, pcName, iKind)) return -1;
    switch (ExaminePath(caPath)) {
    case kMissing:
        writelog(LOG_ERROR, nullptr, 0, "[%s:%d] errno=%d [%s],[%s] is not exist", SRC_NAME, __LINE__, errno,
                 std::strerror(errno), caPath);
        return -2;
    case kOtherError:
        COMP_ERRLOG("[%s:%d] errno=%d [%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    case kNotFifo:
        COMP_ERRLOG("[%s:%d]errno=%d [%s],[%s] is not a FIFO file", SRC_NAME, __LINE__, errno,
                    std::strerror(errno), caPath);
        return -3;
    case kIsFifo:
        break;
    }
    const int iFd = open(caPath, kOpenFlags);
    if (iFd < 0) {
        COMP_ERRLOG("[%s:%d]errno=%d [%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    }
    return iFd;
}

int iCheckPipe(const char* pcFileName) {
    if (pcFileName == nullptr) {
        COMP_ERRLOG("[%s:%d]FIFO name is null", SRC_NAME, __LINE__);
        return -1;
    }
    const char* pcRunDir = RunDir();
    char caPath[kPathLen];
    if (pcRunDir == nullptr ||
        !PathFits(std::snprintf(caPath, kPathLen, "%s/fifo/%s", pcRunDir, pcFileName), pcRunDir))
        return -1;
    switch (ExaminePath(caPath)) {
    case kMissing:
        COMP_ERRLOG("[%s:%d] errno=%d [%s],[%s] is not exist", SRC_NAME, __LINE__, errno, std::strerror(errno),
                    caPath);
        return -2;
    case kOtherError:
        COMP_ERRLOG("[%s:%d] errno=%d [%s]", SRC_NAME, __LINE__, errno, std::strerror(errno));
        return -1;
    case kNotFifo:
        COMP_ERRLOG("[%s:%d] errno=%d [%s][%s] isn't a fifo file", SRC_NAME, __LINE__, errno,
                    std::strerror(errno), caPath);
        return -3;
    case kIsFifo:
        break;
    }
    return 0;
}

int iWriteFIFO(int iFd) {
    for (;;) {
        errno = 0;
        if (!comp::seam::IpcCallFails(comp::seam::kFifoWrite) && write(iFd, &kWakeByte, 1) > 0) return 0;
        if (errno == EINTR) continue;
        COMP_ERRLOG("[%s,%d,%s]errno=%d,[%s].", SRC_NAME, __LINE__, __func__, errno, std::strerror(errno));
        return -1;
    }
}

int iWriteStr2FIFO(int iFd, const char* pcByte) {
    if (pcByte == nullptr || comp::seam::IpcCallFails(comp::seam::kFifoWrite) || write(iFd, pcByte, 1) < 1) {
        COMP_ERRLOG("[%s,%d,%s]write() error,fatail error.", SRC_NAME, __LINE__, __func__);
        return -1;
    }
    return 0;
}

int iReadFIFO2Buf(int iFd, char* pcByte) {
    if (pcByte == nullptr || comp::seam::IpcCallFails(comp::seam::kFifoRead) || read(iFd, pcByte, 1) < 1) {
        COMP_ERRLOG("[%s,%d,%s]read() error,fatail error.", SRC_NAME, __LINE__, __func__);
        return -1;
    }
    return 0;
}

int iReadFIFO(int iFd) {
    char cByte;
    for (;;) {
        errno = 0;
        if (!comp::seam::IpcCallFails(comp::seam::kFifoRead) && read(iFd, &cByte, 1) > 0) return 0;
        if (errno == EINTR) continue;
        COMP_ERRLOG("[%s,%d,%s]read() error,errno=%d,[%s].", SRC_NAME, __LINE__, __func__, errno,
                    std::strerror(errno));
        return -1;
    }
}

int iCloseFIFO(int iFd) { return close(iFd); }

int iClearFIFO(int iFd) {
    char cByte;
    for (;;) {
        // A blocking descriptor would wait for the next byte once the FIFO is
        // empty; ask first, so that it ends as the non-blocking one does.
        pollfd stPoll{iFd, POLLIN, 0};
        if (poll(&stPoll, 1, 0) == 0) {
            errno = EAGAIN;
            return -1;
        }
        const ssize_t lRc = read(iFd, &cByte, 1);
        if (lRc <= 0) return static_cast<int>(lRc);
    }
}

int SysCleanIpcFiles(void) {
    char caDir[kPathLen];
    if (!FifoDirPath(caDir)) return -1;
    DirHandle dir(opendir(caDir));
    if (dir.get() == nullptr) {
        COMP_ERRLOG("[%s][%d]opendir error", kCleanupSource, __LINE__);
        return -1;
    }
    while (const dirent* pstEntry = readdir(dir.get())) {
        if (pstEntry->d_name[0] == '.') continue;
        char caPath[kPathLen];
        const int iLen = std::snprintf(caPath, sizeof caPath, "%s/%s", caDir, pstEntry->d_name);
        // A name too long for the path buffer is no FIFO of the platform.
        if (iLen < 0 || iLen >= kPathLen) continue;
        // lstat: a link is removed only if it is itself a FIFO, which it never is.
        struct stat st {};
        if (lstat(caPath, &st) != 0 || !S_ISFIFO(st.st_mode)) continue;
        if (unlink(caPath) != 0) {
            COMP_ERRLOG("[%s:%d] remove error.errno=[%d][%s]", kCleanupSource, __LINE__, errno,
                        std::strerror(errno));
            return -1;
        }
    }
    return 0;
}

int SysCleanIpcFileById(const char* pcName, int iKind) {
    char caPath[kPathLen];
    if (!FifoPath(caPath, pcName, iKind)) return -1;
    struct stat st {};
    if (stat(caPath, &st) == 0) {
        if (unlink(caPath) != 0) {
            COMP_ERRLOG("[%s:%d] errno=[%d][%s]", kCleanupSource, __LINE__, errno, std::strerror(errno));
            return -1;
        }
        return 0;
    }
    if (errno == ENOENT) {
        COMP_ERRLOG("[%s:%d] errno=%d [%s]", kCleanupSource, __LINE__, errno, std::strerror(errno));
        return -2;
    }
    return 0;
}

}  // extern "C"

namespace comp {

FifoFile CheckFifoFile(int iFd, std::string* pPath) {
    OpenedFifo o;
    if (!FindOpened(iFd, &o)) return FifoFile::kNotOurs;
    if (pPath != nullptr) *pPath = o.path;
    struct stat st {};
    if (stat(o.path.c_str(), &st) != 0) return errno == ENOENT ? FifoFile::kRemoved : FifoFile::kInPlace;
    return st.st_dev == o.dev && st.st_ino == o.ino ? FifoFile::kInPlace : FifoFile::kReplaced;
}

int ReopenFifo(int iFd) {
    OpenedFifo o;
    if (!FindOpened(iFd, &o)) {
        errno = EBADF;
        return -1;
    }
    const int fresh = iOpenFIFO(o.name.c_str(), o.kind);
    if (fresh < 0) return -1;
    // Doorbells and commands written before the file went are still due.
    // Only what is there is read: a mode may have made the old descriptor
    // blocking.
    int left = 0;
    if (ioctl(iFd, FIONREAD, &left) != 0) left = 0;
    char bytes[512];
    for (ssize_t n; left > 0 && (n = read(iFd, bytes, std::min<size_t>(sizeof bytes, left))) > 0; left -= n)
        if (write(fresh, bytes, static_cast<size_t>(n)) != n) break;
    ForgetOpened(o.dev, o.ino);
    return fresh;
}

}  // namespace comp
