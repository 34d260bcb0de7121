// CPU time of a process from /proc/<pid>/stat (user + system), for CPU per
// exchange and the idle cost of an instance.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace bench {

// utime + stime in clock ticks from the text of /proc/<pid>/stat; the
// command name may hold blanks and parentheses, so fields are counted after
// the last ')'. nullopt when the text does not have them.
std::optional<uint64_t> ParseStatTicks(std::string_view statText);

// CPU time used so far by a process, in microseconds: the sum of its
// threads' schedstat run times, which count to the nanosecond (an idle
// instance uses less than one clock tick in seconds); utime + stime from
// /proc/<pid>/stat where schedstat is not available. nullopt when it is gone.
std::optional<double> ProcessCpuMicros(pid_t pid);

// Context switches of a process so far (voluntary + involuntary, from
// /proc/<pid>/status); nullopt when it is gone.
struct CtxSwitches {
    uint64_t voluntary = 0, involuntary = 0;
};
std::optional<CtxSwitches> ProcessCtxSwitches(pid_t pid);
// The two counters in the text of /proc/<pid>/status.
std::optional<CtxSwitches> ParseCtxSwitches(std::string_view statusText);

// Resident memory of a process in KiB (VmRSS of /proc/<pid>/status);
// nullopt when it is gone.
std::optional<uint64_t> ProcessRssKiB(pid_t pid);
// A "Name:  <n> kB" field of /proc/<pid>/status text.
std::optional<uint64_t> ParseStatusKiB(std::string_view statusText, std::string_view name);
// Kernel slab memory in KiB (Slab of /proc/meminfo): where the kernel keeps
// its socket, file and epoll structures.
std::optional<uint64_t> KernelSlabKiB();

// Time a process spent running and waiting to run (on a run queue), in
// nanoseconds, from /proc/<pid>/schedstat. Together they tell how much CPU
// it wanted, whatever else competed for the cores.
struct SchedTimes {
    uint64_t runNs = 0, waitNs = 0;
};
std::optional<SchedTimes> ParseSchedStat(std::string_view text);
std::optional<SchedTimes> ProcessSchedTimes(pid_t pid);

// System calls of a process by name, from the summary `perf trace -s`
// prints (one table per thread, summed here).
struct SyscallTally {
    uint64_t calls = 0, errors = 0;
};
std::map<std::string, SyscallTally> ParsePerfTraceSummary(std::string_view text);

// CPU of one process over a stretch of time.
class CpuMeter {
public:
    explicit CpuMeter(pid_t pid) : pid_(pid) {}
    void start();
    // Microseconds of CPU since start(); negative when it could not be read.
    double elapsedMicros() const;
    // Context switches since start(), {0, 0} when they could not be read.
    CtxSwitches elapsedSwitches() const;

private:
    pid_t pid_;
    double startMicros_ = -1;
    std::optional<CtxSwitches> startSwitches_;
};

}  // namespace bench
