#include "kit/KitProc.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "kit/KitUtil.h"

namespace kit {

void SetCloseOnExec(int fd, bool on) {
    int flags = fcntl(fd, F_GETFD);
    if (flags < 0) return;
    fcntl(fd, F_SETFD, on ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC));
}

pid_t Spawn(const SpawnOptions& plan, std::string* why) {
    std::vector<char*> argv;
    for (const std::string& a : plan.argv) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    int out = -1;
    if (!plan.outputPath.empty()) {
        out = open(plan.outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (out < 0) {
            *why = plan.outputPath + ": " + std::strerror(errno);
            return -1;
        }
    }
    const pid_t parent = getpid();
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        *why = std::string("fork: ") + std::strerror(errno);
        if (out >= 0) close(out);
        return -1;
    }
    if (pid == 0) {
        if (plan.ownGroup) setpgid(0, 0);
        if (plan.dieWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            if (getppid() != parent) _exit(127);
        }
        // Start from default dispositions and an open mask, whatever ours are.
        for (int sig : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD, SIGHUP}) signal(sig, SIG_DFL);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (out >= 0) {
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
        }
        if (plan.inheritFd >= 0) SetCloseOnExec(plan.inheritFd, false);
        if (plan.openFiles > 0) {
            const rlimit lim{static_cast<rlim_t>(plan.openFiles), static_cast<rlim_t>(plan.openFiles)};
            if (setrlimit(RLIMIT_NOFILE, &lim) != 0) {
                dprintf(STDERR_FILENO, "setrlimit RLIMIT_NOFILE %ld: %s\n", plan.openFiles, std::strerror(errno));
                _exit(127);
            }
        }
        for (const std::string& e : plan.env) putenv(const_cast<char*>(e.c_str()));
        execv(plan.path.c_str(), argv.data());
        dprintf(STDERR_FILENO, "exec %s: %s\n", plan.path.c_str(), std::strerror(errno));
        _exit(127);
    }
    if (out >= 0) close(out);
    return pid;
}

bool WaitChild(pid_t pid, int timeoutMs, int* status) {
    const int64_t deadline = NowMs() + timeoutMs;
    for (;;) {
        pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid) return true;
        if (r < 0 && errno != EINTR) return false;
        if (NowMs() >= deadline) return false;
        SleepMs(5);
    }
}

void StopChild(pid_t pid, int graceMs) {
    if (pid <= 0) return;
    int status = 0;
    if (waitpid(pid, &status, WNOHANG) == pid) return;
    kill(pid, SIGTERM);
    if (WaitChild(pid, graceMs, &status)) return;
    kill(pid, SIGKILL);
    WaitChild(pid, 5000, &status);
}

std::string DescribeWaitStatus(int status) {
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
    return "stopped";
}

}  // namespace kit
