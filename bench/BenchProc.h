// The child processes of a benchmark, stopped by pid on every way out, and
// the small helpers the benchmark programs share around them.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

namespace bench {

inline constexpr int kQuitGraceMs = 3000;
inline constexpr int kReadyTimeoutMs = 10000;

class Children {
public:
    Children() = default;
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;
    ~Children();
    // Starts argv with its output in the file `output`; the pid, or -1 with why.
    // inheritFd: a descriptor the child keeps across exec (a shared listener).
    pid_t Start(const std::string& name, const std::vector<std::string>& argv, const std::string& output,
                std::string* why, int inheritFd = -1);
    // Ends a child: its quit path first when a control FIFO is given, then
    // SIGTERM and SIGKILL. A child that was already reaped is left alone
    // (its pid may belong to another process by now).
    void Stop(pid_t pid, const std::string& controlFifo = "");
    bool Alive(pid_t pid);

private:
    struct Kid {
        std::string name;
        bool reaped;
    };
    std::map<pid_t, Kid> kids_;
};

// The comp binary a benchmark runs: *path when given, else comp in the build
// directory above the benchmark's own; false after a line naming prog on
// stderr when it is not executable.
bool FindComp(const char* prog, std::string* path);
// SIGINT, SIGTERM and SIGHUP go to handler (without SA_RESTART); SIGPIPE is
// ignored.
void OnStopSignals(void (*handler)(int));

bool FileExists(const std::string& path);
// Waits for a FIFO that a child creates once it is ready to serve.
bool WaitReady(Children& kids, pid_t pid, const std::string& fifo, const volatile sig_atomic_t* stop,
               std::string* why);
// The first three fields of /proc/loadavg: how busy the machine was.
std::string LoadAverage();
std::string FifoPath(const std::string& runDir, const std::string& name);
// The end of a file, for a report.
std::string Tail(const std::string& path, size_t maxBytes = 2000);
// The words of an option value separated by commas ("1,16").
std::vector<std::string> CommaWords(const std::string& text);

}  // namespace bench
