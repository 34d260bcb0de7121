// Set-up shared by the fuzz targets: a private run directory for the files a
// target writes and for the error and trace logs, removed at exit.
#pragma once

#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "base/SysGlobals.h"

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

// Points the logs into the run directory, drops trace entries, and empties
// the log directory now and then so that a long run does not fill the disk.
inline void KeepLogsSmall() {
    static unsigned long calls = 0;
    auto& log = g_stProcState.stLog;
    if (calls++ % 4096 == 0) {
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(RunDir() + "/log", ec))
            std::filesystem::remove(e.path(), ec);
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/log/err", RunDir().c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/log/trace", RunDir().c_str());
        log.iTraceLevel = 5;
    }
}

}  // namespace compfuzz
