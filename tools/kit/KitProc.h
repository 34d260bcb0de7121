// Starting and stopping child processes by pid.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kit {

struct SpawnOptions {
    std::string path;                // program to execute
    std::vector<std::string> argv;   // argv[0] included
    int inheritFd = -1;              // a descriptor the child keeps across exec
    std::string outputPath;          // stdout and stderr appended here ("" keeps ours)
    bool ownGroup = true;            // own process group: a terminal's Ctrl-C reaches only us
    bool dieWithParent = true;       // SIGTERM to the child when this process ends
    std::vector<std::string> env;    // "NAME=value" set in the child's environment
    long openFiles = 0;              // > 0: the child's RLIMIT_NOFILE (soft and hard)
};

// Forks and executes; the child's pid, or -1 with the reason. An exec failure
// shows as exit status 127 of the child.
pid_t Spawn(const SpawnOptions& plan, std::string* why);

// Waits up to timeoutMs for the child to end; true with its wait status.
bool WaitChild(pid_t pid, int timeoutMs, int* status);

// Stops a child of ours: SIGTERM, then SIGKILL after graceMs; reaps it.
void StopChild(pid_t pid, int graceMs);

// "exited with status N" / "killed by signal N".
std::string DescribeWaitStatus(int status);

// Marks a descriptor close-on-exec (or not).
void SetCloseOnExec(int fd, bool on);

}  // namespace kit
