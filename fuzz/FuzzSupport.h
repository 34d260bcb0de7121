// Set-up shared by the fuzz targets: a private run directory for the files a
// target writes and for the error and trace logs, removed at exit, and a
// private table segment removed when the process ends.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "base/SysGlobals.h"
#include "log/ErrLog.h"

namespace compfuzz {

// The directory lives as long as the process and is removed on a normal exit.
struct RunDirHolder {
    std::string path;
    RunDirHolder() {
        char tmpl[] = "/tmp/compfuzz.XXXXXX";
        if (mkdtemp(tmpl) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        path = tmpl;
        std::filesystem::create_directories(path + "/etc");
        std::filesystem::create_directories(path + "/log");
    }
    ~RunDirHolder() {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
    }
};

inline const std::string& RunDir() {
    static RunDirHolder holder;
    return holder.path;
}

// Error-log records are formatted as ever and then dropped: writing them
// would cost more than the parse that reports them.
inline void DropErrLogRecords() {
    comp::log::SetErrFileWriter([](const char*, std::size_t) {});
}

// Drops the error-log records, points the other logs into the run
// directory, drops trace entries, and empties the log directory now and then
// so that a long run does not fill the disk.
inline void KeepLogsSmall() {
    static unsigned long calls = 0;
    auto& log = g_stProcState.stLog;
    if (calls++ % 4096 == 0) {
        DropErrLogRecords();
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(RunDir() + "/log", ec))
            std::filesystem::remove(e.path(), ec);
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/log/err", RunDir().c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/log/trace", RunDir().c_str());
        log.iTraceLevel = 5;
    }
}

// A private segment of iSize bytes, attached; its id in *piId. The table
// lookups refuse a segment marked for removal, so it cannot be removed at
// once; a watcher process removes it when this process ends, however it ends
// (the watcher's read of a pipe returns when the last write end closes).
inline void* LiveSegment(std::size_t iSize, int* piId) {
    const int iId = shmget(IPC_PRIVATE, iSize, IPC_CREAT | 0600);
    if (iId < 0) std::abort();
    void* pvAddr = shmat(iId, nullptr, 0);
    int fds[2];
    if (pvAddr == reinterpret_cast<void*>(-1) || pipe2(fds, O_CLOEXEC) != 0) {
        shmctl(iId, IPC_RMID, nullptr);
        std::abort();
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[1]);
        char c;
        while (read(fds[0], &c, 1) < 0 && errno == EINTR) {
        }
        shmctl(iId, IPC_RMID, nullptr);
        _exit(0);
    }
    close(fds[0]);
    if (pid < 0) {
        shmctl(iId, IPC_RMID, nullptr);
        std::abort();
    }
    *piId = iId;
    return pvAddr;
}

}  // namespace compfuzz
