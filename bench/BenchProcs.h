// What every benchmark program does around its measurements: the helper
// processes it starts (stopped by pid on every way out), waiting for one to
// be ready, and the small texts of its report.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace bench {

class Children {
public:
    Children() = default;
    ~Children();
    Children(const Children&) = delete;
    Children& operator=(const Children&) = delete;

    // Starts argv (argv[0] is the path) with its output in `output`; the pid,
    // or -1 with the reason. inheritFd: a descriptor it keeps across exec.
    pid_t Start(const std::string& name, const std::vector<std::string>& argv, const std::string& output,
                std::string* why, int inheritFd = -1);
    // Ends a child: its quit path first when a control FIFO is given, then
    // SIGTERM and SIGKILL. A child that was already reaped is left alone
    // (its pid may belong to another process by now).
    void Stop(pid_t pid, const std::string& controlFifo = "");
    bool Alive(pid_t pid);
    // Forgets a child that was waited for elsewhere.
    void Forget(pid_t pid) { kids_.erase(pid); }

private:
    struct Kid {
        std::string name;
        bool reaped;
    };
    std::map<pid_t, Kid> kids_;
};

// Waits for a file (a FIFO) that a child creates once it is ready to serve;
// false with the reason when it ends first, takes too long or *stop is set.
bool WaitReady(Children& kids, pid_t pid, const std::string& path, const volatile sig_atomic_t* stop,
               std::string* why);

// The first three fields of /proc/loadavg: how busy the machine was.
std::string LoadAverage();

// The path of FIFO `name` under a run directory.
std::string FifoPath(const std::string& runDir, const std::string& name);

// The last bytes of a file, for error reports.
std::string Tail(const std::string& path, size_t maxBytes = 2000);

// "1,16" -> {1, 16}; values 1..1000.
std::optional<std::vector<int>> IntList(const std::string& text);

// The words of a command line, one option at a time with its value checked:
//   for (OptionReader r(argc, argv); r.Next();)
//       if (r.Is("--seconds") && (d = r.Number(0.1, 600))) ...
class OptionReader {
public:
    OptionReader(int argc, char** argv) : argc_(argc), argv_(argv) {}
    bool Next() { return ++i_ < argc_; }
    bool Is(const char* flag) const { return std::string(argv_[i_]) == flag; }
    // The word after the option (consumed), or nullopt at the end.
    std::optional<std::string> Value();
    // The next word as a number within [lo, hi], or nullopt.
    std::optional<double> Number(double lo, double hi);
    std::optional<std::vector<int>> List() {
        auto v = Value();
        return v ? IntList(*v) : std::nullopt;
    }

private:
    int argc_;
    char** argv_;
    int i_ = 0;
};

// The comp binary under test: *path as given, or "comp" in the build
// directory above this executable. False after a message naming `prog` when
// it is not executable.
bool ResolveCompPath(const char* prog, std::string* path);

// SIGINT, SIGTERM and SIGHUP call `handler` (without SA_RESTART); SIGPIPE is
// ignored.
void InstallStopHandler(void (*handler)(int));

}  // namespace bench
