// Fixture of the whole-process tests: a platform of the test's own (private
// RUNDIR and HOME, IPC keys no other test process uses, sys.cfg, app.cfg and
// tables generated from the test's wishes, brought up with compkit's
// library), comp started and stopped by pid with its output captured, and
// the router's part played by the test: read queue 7, deliver to queue 8 and
// ring a FIFO. Everything is removed in TearDown, also when the test fails.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TestEnv.h"
#include "base/FdUtil.h"
#include "base/SysTypes.h"
#include "kit/Router.h"

namespace comptest {

inline std::string CompBinary() { return COMP_BINARY_DIR "/comp"; }
inline std::string CompkitBinary() { return COMP_BINARY_DIR "/tools/compkit"; }

// A loopback TCP port that was free a moment ago.
int FreeLoopbackPort();

// Columns of one PLAT_STATICROUTEINF row, by name.
using RouteRow = std::map<std::string, std::string>;

// A row with the framing the tests use (a 4-byte header holding the body
// length in decimal digits, type = the first 4 body bytes as text), an idle
// time-out of 30 s, and the given address and MSGSNDTYPE. Change columns at will.
RouteRow MakeRouteRow(int route, const std::string& ipPort, const std::string& msgSndType);

struct PlatformSetup {
    std::vector<RouteRow> routes;
    std::map<std::string, std::string> vars{
        {"MAX_COM_NUM", "1024"}, {"LIVEMSGTYPE", "0602"}, {"OFFLINEMODE", "0"}, {"KERNEL_BACKLOG", "128"}};
    std::map<std::string, std::string> appVars;   // further [APPVARS] of app.cfg
};

// A comp process started by the fixture.
struct CompProc {
    pid_t pid = -1;
    std::string procName;    // argv[5]
    std::string outputPath;  // its stdout and stderr
    bool reaped = false;
    int status = 0;          // wait status once reaped
};

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Writes the configuration and brings the platform up (fails the test
    // when that does not work).
    void StartPlatform(const PlatformSetup& setup = {});
    // The sys.cfg text for this fixture's keys.
    std::string SysCfgText(int tableSegmentBytes = 1048576) const;

    // Id of the queue of [QRESOURCE] index `index` (6, 7, 8, 9, 10, 12).
    int QueueId(int index) const;

    // Starts the comp binary with argv[1..]; argv[5] names the trace log.
    // Returns an index into comps().
    // inheritFd: a descriptor comp keeps across exec (a shared listener).
    size_t StartComp(const std::vector<std::string>& args, const std::vector<std::string>& env = {},
                     int inheritFd = -1);
    // > 0: comp is started with this RLIMIT_NOFILE.
    long compOpenFiles = 0;
    // The environment that runs comp under libfaketime with its clock going
    // `speed` times as fast ({} when libfaketime is not installed).
    static std::vector<std::string> FastClock(int speed);
    // The environment that preloads a library into comp.
    static std::vector<std::string> PreloadEnv(const std::string& lib);
    // The environment that runs comp under libfaketime with the offset read
    // from specFile on every clock read ("+0", then e.g. "-30" steps comp's
    // clock 30 seconds back at once); {} when libfaketime is not installed.
    static std::vector<std::string> SteppedClock(const std::string& specFile);
    // Waits for comp i to end; its exit status, or -1 when it still runs (or
    // died by a signal: then -signal-100).
    int WaitComp(size_t i, int timeoutMs);
    // SIGTERM, then SIGKILL; reaps it.
    void StopComp(size_t i);
    const CompProc& comp(size_t i) const { return comps_[i]; }
    std::string CompOutput(size_t i) const;
    // Today's trace log of comp i: $RUNDIR/log/com_<procname>_<pid>_<YYYYMMDD>.log.
    std::string CompTraceLog(size_t i) const;
    // Everything under $RUNDIR/log (error logs included) and comp's output.
    std::string AllLogs() const;
    // A line with "fatal" (or in fatalerr.log) that holds `text` is expected;
    // any other fails the test at its end.
    void AllowFatal(const std::string& text) { allowedFatal_.push_back(text); }
    // The app.cfg lines of the wait style under test (environment COMP_TEST_WAIT).
    static std::string AppVars();

    // The router's side. Reads one message of `type` (0: any) from queue 7
    // (to TranP) or queue 6 (to Commonp); the text length, 0 on time-out.
    int ReadToTranp(QueueMsg* buf, long type, int timeoutMs) { return Read(comp::kQueueToTranp, buf, type, timeoutMs); }
    int ReadCommonp(QueueMsg* buf, long type, int timeoutMs) { return Read(comp::kQueueCommonp, buf, type, timeoutMs); }
    // Queues text of `type` on queue 8 and rings FIFO "<fifoKind>_<fifoName>";
    // fails the test when it cannot.
    void DeliverToComp(long type, int fifoKind, const std::string& fifoName, const std::vector<char>& text);

    // Keys of the registry semaphore set and segment in sys.cfg.
    key_t RegistryLockKey() const { return semKey_; }
    key_t RegistryKey() const { return registryKey_; }

    TempRunDir run;
    IpcKeys keys;

private:
    int Read(int index, QueueMsg* buf, long type, int timeoutMs) {
        return std::max(0, kit::ReadQueue(QueueId(index), type, buf, timeoutMs));
    }
    void CheckLogsClean();
    std::vector<CompProc> comps_;
    std::vector<std::string> allowedFatal_;
    std::map<int, key_t> queueKeys_;
    key_t semKey_ = 0, registryKey_ = 0, tablesKey_ = 0;
    bool up_ = false;
};

// Scripted TCP peers. Connect comes from the loopback address `from` and
// retries while the listener comes up; Listen binds *port, or with 0 a port
// the kernel picks and stores it in *port.
comp::UniqueFd Connect(int port, const std::string& from = "127.0.0.1");
comp::UniqueFd Listen(int* port);
comp::UniqueFd Accept(int listener, int timeoutMs);
bool Send(int fd, const std::string& data);
// Everything the peer sends until it closes or timeoutMs pass; *closed tells which.
std::string ReadUntilClose(int fd, int timeoutMs, bool* closed = nullptr);
// One message in the test framing (see Frame), or "" when none came.
std::string ReadFrame(int fd, int timeoutMs);
// "NNNN" + body: the framing of MakeRouteRow (4 decimal digits of body length).
std::string Frame(const std::string& body);

// A value of type T at byte offset off.
template <typename T>
T At(const char* p, int off) {
    T v{};
    std::memcpy(&v, p + off, sizeof v);
    return v;
}

}  // namespace comptest
