// Processes of a benchmark: the helper roles and comp instances it starts,
// stopped by pid on every way out, and the usual start of a bench program
// (the comp binary to measure, the stop signals).
#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

namespace bench {

class Children {
public:
    Children() = default;
    ~Children();
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;

    // Starts argv (argv[0] the program) with its output appended to
    // `output`; inheritFd stays open across exec. The pid, or -1 with why.
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

bool FileExists(const std::string& path);

// Waits up to timeoutMs for a file (a FIFO) that a child makes once it is
// ready to serve; false with why when it ended first, time ran out or *stop
// was set.
bool WaitReady(Children& kids, pid_t pid, const std::string& file, int timeoutMs, const volatile sig_atomic_t* stop,
               std::string* why);

// The comp binary to measure: `given`, or comp next to the bench's own
// directory. False after a line on stderr when it is not executable.
bool ResolveCompPath(const char* prog, std::string* path);

// SIGINT, SIGTERM and SIGHUP call handler (no restart); SIGPIPE is ignored.
void CatchStopSignals(void (*handler)(int));

}  // namespace bench
