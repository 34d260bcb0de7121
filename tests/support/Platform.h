// Fixture of the whole-process tests: a platform of the test's own (private
// RUNDIR and HOME, IPC keys no other test process uses, sys.cfg, app.cfg and
// tables generated from the test's wishes, brought up with compkit's
// library), comp started and stopped by pid with its output captured, and
// the router's part played by the test: read queue 7, deliver to queue 8 and
// ring a FIFO. Everything is removed in TearDown, also when the test fails.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "TestEnv.h"
#include "comp/SysTypes.h"
#include "kit/Router.h"

namespace comptest {

// The build tree, where comp and compkit are: the test executables are
// compiled with COMP_BINARY_DIR, and each of them registers it at start.
void SetBuildDir(const char* pcDir);
const std::string& BuildDir();
#ifdef COMP_BINARY_DIR
inline const bool g_bBuildDirKnown = (SetBuildDir(COMP_BINARY_DIR), true);
#endif
inline std::string CompBinary() { return BuildDir() + "/comp"; }
inline std::string CompkitBinary() { return BuildDir() + "/tools/compkit"; }

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
    int logLevel = 1;                        // app.cfg LOG_LEVEL
    std::string extraAppVars;                // more "NAME VALUE" lines for [APPVARS]
    int tableSegmentBytes = 1048576;
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
    std::string SysCfgText(int tableSegmentBytes) const;
    std::string TablesCfgText(const PlatformSetup& setup) const;

    // Id of the queue of [QRESOURCE] index `index` (6, 7, 8, 9, 10, 12).
    int QueueId(int index) const;

    // Starts the comp binary with argv[1..]; argv[5] names the trace log.
    // Returns an index into comps().
    size_t StartComp(const std::vector<std::string>& args);
    // Waits for comp i to end; its exit status, or -1 when it still runs (or
    // died by a signal: then -signal-100).
    int WaitComp(size_t i, int timeoutMs);
    // SIGTERM, then SIGKILL; reaps it.
    void StopComp(size_t i);
    const CompProc& comp(size_t i) const { return comps_[i]; }
    std::string CompOutput(size_t i) const;
    // Today's trace log of comp i: $RUNDIR/log/com_<procname>_<pid>_<YYYYMMDD>.log.
    std::string CompTraceLog(size_t i) const;
    // Everything under $RUNDIR/log (error logs included).
    std::string AllLogs() const;

    // The router's side. Reads one message of `type` (0: any) from queue 7
    // (to TranP) or queue 6 (to Commonp); the text length, 0 on time-out.
    int ReadToTranp(QueueMsg* buf, long type, int timeoutMs);
    int ReadCommonp(QueueMsg* buf, long type, int timeoutMs);
    // Queues on queue 8 and rings the delivery's FIFO; fails the test when it cannot.
    bool DeliverToComp(const kit::Delivery& d);

    TempRunDir run;
    IpcKeys keys;

private:
    std::vector<CompProc> comps_;
    std::map<int, key_t> queueKeys_;
    key_t semKey_ = 0, registryKey_ = 0, tablesKey_ = 0;
    bool up_ = false;
};

// Skips the test, with the reason, when 64 KiB queue messages cannot be had.
#define COMP_REQUIRE_BIG_MESSAGES()                                        \
    do {                                                                   \
        std::string why_;                                                  \
        if (!comptest::EnsureBigQueueMessages(&why_)) GTEST_SKIP() << why_; \
    } while (0)

}  // namespace comptest
