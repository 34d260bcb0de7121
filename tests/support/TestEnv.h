// Isolation for tests: a private temporary RUNDIR/HOME and System V keys of
// the test's own, with every object removed again when the test ends.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/SysTypes.h"

namespace comptest {

// A PlatMsg header field by field, for building and comparing headers byte
// for byte.
struct PlatHdr {
    uint16_t total, kind;
    int32_t pid, pid2;
    uint16_t route, route2;
    int32_t sock, sock2, port;
    char ip[16], ip2[16];
    char flag, pad[3];
    std::string bytes() const { return std::string(reinterpret_cast<const char*>(this), sizeof *this); }
};
static_assert(sizeof(PlatHdr) == comp::plat::kHeaderLen && offsetof(PlatHdr, ip) == comp::plat::kIp &&
              offsetof(PlatHdr, flag) == comp::plat::kFlag);

// A temporary directory with etc/, log/ and fifo/ below it; RUNDIR and HOME
// point at it while the object lives. Removed recursively on destruction.
class TempRunDir {
public:
    TempRunDir();
    ~TempRunDir();
    TempRunDir(const TempRunDir&) = delete;
    TempRunDir& operator=(const TempRunDir&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& rel) const { return path_ + "/" + rel; }
    void write(const std::string& rel, const std::string& content) const;
    std::string read(const std::string& rel) const;

private:
    std::string path_;
    std::string oldRunDir_, oldHome_;
    bool hadRunDir_ = false, hadHome_ = false;
};

// Hands out System V keys that no other test process uses and removes every
// queue, semaphore set and segment created under them on destruction.
class IpcKeys {
public:
    IpcKeys() = default;
    ~IpcKeys();
    IpcKeys(const IpcKeys&) = delete;
    IpcKeys& operator=(const IpcKeys&) = delete;

    key_t next();                 // a fresh key
    int newQueue(key_t* pKey = nullptr);                       // created queue id
    int newSemSet(int nsems, int value, key_t* pKey = nullptr); // created set id
    int newShm(int size, key_t* pKey = nullptr);               // created segment id
    void removeAll();
    const std::vector<key_t>& all() const { return keys_; }

private:
    key_t take(key_t* pKey);  // next(), also stored in *pKey
    std::vector<key_t> keys_;
};

// SysResetGlobals(), then points the error log into $RUNDIR/log when RUNDIR
// is set: the error log waits for its file without end, and its default name
// is relative to the working directory.
void ResetGlobals();

// Reads a whole file ("" when missing).
std::string ReadFile(const std::string& path);
// Whether kernel.msgmax allows 64 KiB queue messages (raises it when root).
bool EnsureBigQueueMessages(std::string* why);

// Port a socket is bound to, and the backlog of a listener (from TCP_INFO).
int LocalPort(int fd);
int ListenerBacklog(int fd);

// Skips the test, saying which kernel limit is too small, when 64 KiB queue
// messages cannot be had (a fresh machine without root). Every test that
// queues a message of more than 8 KiB starts with it.
#define COMP_REQUIRE_BIG_MESSAGES()                                                          \
    do {                                                                                     \
        std::string compBigWhy;                                                              \
        if (!::comptest::EnsureBigQueueMessages(&compBigWhy)) GTEST_SKIP() << compBigWhy;    \
    } while (0)

// Runs fn in a child process that exits with fn's result; the child's pid.
template <typename Fn>
pid_t ForkChild(Fn fn) {
    pid_t pid = fork();
    if (pid == 0) _exit(fn());
    return pid;
}
// Waits for a child; its exit status, or -1 when it did not exit normally.
inline int ExitStatus(pid_t pid) {
    int status = 0;
    if (pid <= 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}
template <typename Fn>
int RunInChild(Fn fn) {
    return ExitStatus(ForkChild(fn));
}

}  // namespace comptest
