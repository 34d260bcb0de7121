#include "TestEnv.h"

#include "comp/SysGlobals.h"

#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
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

long ReadSysctl(const char* path) {
    std::ifstream in(path);
    long v = -1;
    in >> v;
    return v;
}

bool WriteSysctl(const char* path, long value) {
    std::ofstream out(path);
    out << value;
    return static_cast<bool>(out);
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

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return "";
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

IpcKeys::IpcKeys() = default;
IpcKeys::~IpcKeys() { removeAll(); }

key_t IpcKeys::next() {
    // 0x5Cpppppn: the pid keeps parallel test processes apart, the sequence
    // the keys of one process.
    key_t k = static_cast<key_t>(0x50000000u | ((static_cast<unsigned>(getpid()) & 0xFFFFFu) << 8) |
                                 (static_cast<unsigned>(g_keySeq++) & 0xFFu));
    keys_.push_back(k);
    return k;
}

int IpcKeys::newQueue(key_t* pKey) {
    key_t k = next();
    if (pKey) *pKey = k;
    return msgget(k, IPC_CREAT | IPC_EXCL | 0666);
}

int IpcKeys::newSemSet(int nsems, int value, key_t* pKey) {
    key_t k = next();
    if (pKey) *pKey = k;
    int id = semget(k, nsems, IPC_CREAT | IPC_EXCL | 0666);
    if (id < 0) return id;
    for (int i = 0; i < nsems; ++i) semctl(id, i, SETVAL, value);
    return id;
}

int IpcKeys::newShm(int size, key_t* pKey) {
    key_t k = next();
    if (pKey) *pKey = k;
    return shmget(k, static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | 0666);
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
    constexpr long kNeedMax = 65540, kNeedMnb = 1048576;
    long mx = ReadSysctl("/proc/sys/kernel/msgmax");
    long mnb = ReadSysctl("/proc/sys/kernel/msgmnb");
    if (mx >= kNeedMax && mnb >= kNeedMnb) return true;
    if (geteuid() == 0) {
        if (mx < kNeedMax) WriteSysctl("/proc/sys/kernel/msgmax", kNeedMax);
        if (mnb < kNeedMnb) WriteSysctl("/proc/sys/kernel/msgmnb", kNeedMnb);
        mx = ReadSysctl("/proc/sys/kernel/msgmax");
        mnb = ReadSysctl("/proc/sys/kernel/msgmnb");
        if (mx >= kNeedMax && mnb >= kNeedMnb) return true;
    }
    if (why) {
        char buf[256];
        std::snprintf(buf, sizeof buf,
                      "64 KiB queue messages need kernel.msgmax >= %ld (is %ld) and kernel.msgmnb >= %ld (is %ld)",
                      kNeedMax, mx, kNeedMnb, mnb);
        *why = buf;
    }
    return false;
}

}  // namespace comptest
