// Isolation for tests: a private temporary RUNDIR/HOME and System V keys of
// the test's own, with every object removed again when the test ends.
#pragma once

#include <sys/ipc.h>

#include <string>
#include <vector>

namespace comptest {

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
    IpcKeys();
    ~IpcKeys();
    IpcKeys(const IpcKeys&) = delete;
    IpcKeys& operator=(const IpcKeys&) = delete;

    key_t next();                 // a fresh key
    int newQueue(key_t* pKey = nullptr);                       // created queue id
    int newSemSet(int nsems, int value, key_t* pKey = nullptr); // created set id
    int newShm(int size, key_t* pKey = nullptr);               // created segment id
    void removeAll();

private:
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

}  // namespace comptest
