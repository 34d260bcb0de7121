#include "TestEnv.h"

#include "base/SysGlobals.h"
#include "kit/KitUtil.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace comptest {

namespace {
std::atomic<int> g_keySeq{1};

void SetOrUnset(const char* name, bool had, const std::string& value) {
    if (had)
        setenv(name, value.c_str(), 1);
    else
        unsetenv(name);
}
}  // namespace

TempRunDir::TempRunDir() {
    std::string tmpl = (fs::temp_directory_path() / "comptest.XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    for (const char* d : {"etc", "log", "fifo", "runs", "runs/bin", "runs/log"})
        fs::create_directories(fs::path(path_) / d);
    if (const char* v = getenv("RUNDIR")) { hadRunDir_ = true; oldRunDir_ = v; }
    if (const char* v = getenv("HOME")) { hadHome_ = true; oldHome_ = v; }
    setenv("RUNDIR", path_.c_str(), 1);
    setenv("HOME", path_.c_str(), 1);
    // The error log waits for its file as long as it takes; its default name
    // is relative to the working directory, so point it into this directory.
    std::snprintf(g_stProcState.stLog.caErrLogName, sizeof g_stProcState.stLog.caErrLogName, "%s/log/wren_bin",
                  path_.c_str());
}

TempRunDir::~TempRunDir() {
    SetOrUnset("RUNDIR", hadRunDir_, oldRunDir_);
    SetOrUnset("HOME", hadHome_, oldHome_);
    std::error_code ec;
    fs::remove_all(path_, ec);
}

void TempRunDir::write(const std::string& rel, const std::string& content) const {
    fs::path p = fs::path(path_) / rel;
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary | std::ios::trunc);
    out << content;
}

std::string TempRunDir::read(const std::string& rel) const { return ReadFile(file(rel)); }

void ResetGlobals() {
    SysResetGlobals();
    if (const char* run = getenv("RUNDIR"))
        std::snprintf(g_stProcState.stLog.caErrLogName, sizeof g_stProcState.stLog.caErrLogName, "%s/log/wren_bin",
                      run);
}

std::string ReadFile(const std::string& path) { return kit::ReadWholeFile(path).value_or(""); }

IpcKeys::~IpcKeys() { removeAll(); }

key_t IpcKeys::next() {
    // 0x5pppppnn: the pid keeps parallel test processes apart, the sequence
    // the keys of one process. A key that already names an object was left
    // by an earlier process of the same pid (a test killed at its time-out
    // cannot clean up, and pids come round again): it is passed over.
    auto taken = [](key_t k) { return msgget(k, 0) >= 0 || semget(k, 0, 0) >= 0 || shmget(k, 0, 0) >= 0; };
    key_t k = 0;
    for (int tries = 0; tries < 256; ++tries) {
        k = static_cast<key_t>(0x50000000u | ((static_cast<unsigned>(getpid()) & 0xFFFFFu) << 8) |
                               (static_cast<unsigned>(g_keySeq++) & 0xFFu));
        if (!taken(k)) break;
    }
    keys_.push_back(k);
    return k;
}

key_t IpcKeys::take(key_t* pKey) {
    const key_t k = next();
    if (pKey) *pKey = k;
    return k;
}

int IpcKeys::newQueue(key_t* pKey) { return msgget(take(pKey), IPC_CREAT | IPC_EXCL | 0666); }

int IpcKeys::newShm(int size, key_t* pKey) {
    return shmget(take(pKey), static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | 0666);
}

int IpcKeys::newSemSet(int nsems, int value, key_t* pKey) {
    const int id = semget(take(pKey), nsems, IPC_CREAT | IPC_EXCL | 0666);
    for (int i = 0; id >= 0 && i < nsems; ++i) semctl(id, i, SETVAL, value);
    return id;
}

void IpcKeys::removeAll() {
    for (key_t k : keys_) {
        int id;
        if ((id = msgget(k, 0)) >= 0) msgctl(id, IPC_RMID, nullptr);
        if ((id = semget(k, 0, 0)) >= 0) semctl(id, 0, IPC_RMID);
        if ((id = shmget(k, 0, 0)) >= 0) shmctl(id, IPC_RMID, nullptr);
    }
    keys_.clear();
}

bool EnsureBigQueueMessages(std::string* why) {
    std::vector<std::string> lines = kit::EnsureQueueLimits();
    for (const std::string& l : lines) *why += l + "\n";
    return lines.empty();
}

int LocalPort(int fd) {
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    getsockname(fd, reinterpret_cast<sockaddr*>(&sa), &len);
    return ntohs(sa.sin_port);
}

int ListenerBacklog(int fd) {
    // Linux reports a listener's backlog in the sacked count of TCP_INFO.
    tcp_info info{};
    socklen_t len = sizeof info;
    return getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 ? static_cast<int>(info.tcpi_sacked) : -1;
}

}  // namespace comptest
