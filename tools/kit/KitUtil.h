// Small pieces shared by the compkit subcommands: descriptor ownership, the
// run directory in the environment, word splitting, time stamps and the
// "[file:line]" error texts of the configuration readers.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/FdUtil.h"

namespace kit {

using UniqueFd = comp::UniqueFd;

// The product's routines find their files through $RUNDIR; this points it at
// the given directory for the object's lifetime and puts the old value back.
class RunDirScope {
public:
    explicit RunDirScope(const std::string& runDir);
    ~RunDirScope();
    RunDirScope(const RunDirScope&) = delete;
    RunDirScope& operator=(const RunDirScope&) = delete;

private:
    std::string old_;
    bool hadOld_ = false;
};

// Points the error log and the trace log of this process at
// RUNDIR/log/<name>..., so the product routines the kit calls report there.
void DirectLogs(const std::string& runDir, const std::string& name);

// The result of a step that can fail with a readable reason.
struct Status {
    bool ok = true;
    std::string error;
    static Status Ok() { return {}; }
    static Status Fail(std::string why) { return {false, std::move(why)}; }
    explicit operator bool() const { return ok; }
};

// Splits a configuration line into words at blanks and tabs. A word in double
// quotes may hold blanks; "#" outside quotes starts a comment. False (with
// the reason) on an unterminated quote.
bool SplitWords(std::string_view line, std::vector<std::string>* words, std::string* why);

// Parses a decimal integer that must fill the whole text.
std::optional<long> ParseLong(std::string_view text);

// "IP:PORT" with a dotted IPv4 address and a port 0..65535.
bool ParseIpPort(std::string_view text, std::string* ip, int* port);

// "HH:MM:SS.mmm" of now, for the terminal lines.
std::string ClockText();

// Monotonic milliseconds.
int64_t NowMs();

// Sleeps about ms milliseconds (a signal may end it early).
void SleepMs(int ms);

// The whole file, or nullopt when it cannot be read.
std::optional<std::string> ReadWholeFile(const std::string& path);

// Path of the executable of this process.
std::string SelfExe();

// Whether a process with this pid exists (and is not a zombie of ours).
bool ProcessAlive(pid_t pid);

// The command line of a process, words joined by blanks ("" when gone).
std::string ProcessCmdline(pid_t pid);

// Parent pid of a process, or -1.
pid_t ParentOf(pid_t pid);

// Kernel message-queue limits: raised when running as root, otherwise (or
// when raising fails) one line per setting that is too small for 64 KiB
// messages.
inline constexpr long kNeedMsgMax = 65540;
inline constexpr long kNeedMsgMnb = 1048576;
std::vector<std::string> EnsureQueueLimits();

}  // namespace kit
