#include "BenchProcs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace bench {

namespace {
constexpr int kReadyTimeoutMs = 10000;
constexpr int kQuitGraceMs = 3000;
}  // namespace

Children::~Children() {
    for (auto& [pid, kid] : kids_) {
        if (kid.reaped) continue;
        kill(pid, SIGCONT);
        kit::StopChild(pid, kQuitGraceMs);
    }
}

pid_t Children::Start(const std::string& name, const std::vector<std::string>& argv, const std::string& output,
                      std::string* why, int inheritFd) {
    kit::SpawnOptions plan;
    plan.path = argv[0];
    plan.argv = argv;
    plan.outputPath = output;
    plan.inheritFd = inheritFd;
    pid_t pid = kit::Spawn(plan, why);
    if (pid > 0) kids_[pid] = Kid{name, false};
    return pid;
}

void Children::Stop(pid_t pid, const std::string& controlFifo) {
    auto it = kids_.find(pid);
    if (it == kids_.end()) return;
    const bool reaped = it->second.reaped;
    kids_.erase(it);
    if (reaped) return;
    kill(pid, SIGCONT);
    int status = 0;
    if (!controlFifo.empty()) {
        int fd = open(controlFifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            if (write(fd, "x", 1) != 1) std::fprintf(stderr, "bench: cannot write %s\n", controlFifo.c_str());
            close(fd);
            if (kit::WaitChild(pid, kQuitGraceMs, &status)) return;
        }
    }
    kit::StopChild(pid, kQuitGraceMs);
}

bool Children::Alive(pid_t pid) {
    auto it = kids_.find(pid);
    if (it == kids_.end() || it->second.reaped) return false;
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == 0) return true;
    it->second.reaped = true;
    return false;
}

bool WaitReady(Children& kids, pid_t pid, const std::string& path, const volatile sig_atomic_t* stop,
               std::string* why) {
    const int64_t deadline = kit::NowMs() + kReadyTimeoutMs;
    while (!*stop && kit::NowMs() < deadline) {
        struct stat st {};
        if (stat(path.c_str(), &st) == 0) return true;
        if (!kids.Alive(pid)) {
            *why = "it ended before it was ready";
            return false;
        }
        kit::SleepMs(10);
    }
    *why = *stop ? "interrupted" : "not ready after " + std::to_string(kReadyTimeoutMs / 1000) + " s";
    return false;
}

std::string LoadAverage() {
    std::string text = kit::ReadWholeFile("/proc/loadavg").value_or("?");
    size_t cut = 0;
    for (int fields = 0; fields < 3 && cut != std::string::npos; ++fields) cut = text.find(' ', cut + 1);
    return text.substr(0, cut);
}

std::string Tail(const std::string& path, size_t maxBytes) {
    std::string text = kit::ReadWholeFile(path).value_or("");
    return text.size() > maxBytes ? "..." + text.substr(text.size() - maxBytes) : text;
}

std::string FifoPath(const std::string& runDir, const std::string& name) { return runDir + "/fifo/" + name; }

std::optional<std::vector<int>> IntList(const std::string& text) {
    std::vector<int> out;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        auto v = kit::ParseLong(text.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos));
        if (!v || *v < 1 || *v > 1000) return std::nullopt;
        out.push_back(static_cast<int>(*v));
        if (comma == std::string::npos) break;
        pos = comma + 1;
    }
    return out;
}

std::optional<std::string> OptionReader::Value() {
    if (i_ + 1 >= argc_) return std::nullopt;
    return std::string(argv_[++i_]);
}

std::optional<double> OptionReader::Number(double lo, double hi) {
    auto v = Value();
    if (!v) return std::nullopt;
    char* end = nullptr;
    double d = std::strtod(v->c_str(), &end);
    if (end == v->c_str() || *end != '\0' || d < lo || d > hi) return std::nullopt;
    return d;
}

bool ResolveCompPath(const char* prog, std::string* path) {
    if (path->empty()) {
        std::string self = kit::SelfExe();
        *path = self.substr(0, self.rfind('/')) + "/../comp";
    }
    if (access(path->c_str(), X_OK) == 0) return true;
    std::fprintf(stderr, "%s: %s is not an executable; build comp or pass --comp PATH\n", prog, path->c_str());
    return false;
}

void InstallStopHandler(void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

}  // namespace bench
