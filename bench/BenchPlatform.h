// A private platform for the benchmarks: a temporary run directory (also
// HOME) with etc/ log/ fifo/ runs/, System V keys of its own, the routes the
// benchmark drives, and everything removed again when the object goes.
#pragma once

#include <sys/types.h>

#include <string>

namespace bench {

// The routes of the bench platform. Every route frames with a 4-byte header
// holding the body length in decimal digits.
struct BenchRoutes {
    int tsRoute = 10;     // comp SysTCPTS, echoed by the router
    int baseRoute = 11;   // the baseline relay, echoed the same way
    int tcRoute = 20;     // comp SysTCPTC, only ever idle
    int tsPort = 0;       // loopback listen ports (0: picked free)
    int basePort = 0;
    int tcServerPort = 0; // where TC would connect; nothing listens there
    // The forwarder pair (bench_fw): FWB's clients arrive on fwbPort, its
    // link goes to FWS on fwsPort; the baseline relay pair likewise on
    // pairFrontPort and pairUpperPort. The router echoes routes 61 and 62.
    int fwbRoute = 60;    // comp SysTCPFWB
    int fwsRoute = 61;    // comp SysTCPFWS
    int pairRoute = 62;   // the upper half of the baseline relay pair
    int fwbPort = 0, fwsPort = 0;
    int pairFrontPort = 0, pairUpperPort = 0;

    // The persistent-client benchmark: comp SysTCPPC and the PC baseline
    // relay, both clients of the bench's echo server.
    int pcRoute = 30;         // comp SysTCPPC
    int pcBaseRoute = 31;     // the PC baseline relay
    int pcServerPort = 0;     // the echo server both connect to
    int pcReconnInterval = 2; // RECONNINTERVAL of both
};

class BenchPlatform {
public:
    BenchPlatform() = default;
    ~BenchPlatform();
    BenchPlatform(const BenchPlatform&) = delete;
    BenchPlatform& operator=(const BenchPlatform&) = delete;

    // Makes the directory, writes the configuration (LOG_LEVEL logLevel) and
    // creates the IPC objects. RUNDIR and HOME point at the directory while
    // the platform lives. False with the reason; what was made is removed.
    bool Create(int logLevel, std::string* why);
    // Removes the IPC objects, the FIFOs and the directory (idempotent).
    void Destroy();
    // Destroy() leaves the directory (configuration and logs) in place.
    void KeepDirectory() { keepDir_ = true; }

    // Rewrites app.cfg; a comp started afterwards reads the new level (and
    // with deadline set, waits in the deadline style).
    bool SetLogLevel(int logLevel, std::string* why, bool deadline = false);
    // Removes rotated trace logs (*.bak) and empties the connection logs, so
    // long runs at LOG_LEVEL 1 do not fill the disk.
    void TrimLogs() const;

    const std::string& runDir() const { return runDir_; }
    const BenchRoutes& routes() const { return routes_; }
    key_t keyBase() const { return keyBase_; }

private:
    bool WriteConfig(int logLevel, std::string* why) const;

    std::string runDir_;
    BenchRoutes routes_;
    key_t keyBase_ = 0;
    bool up_ = false;
    bool keepDir_ = false;
    std::string oldRunDir_, oldHome_;
    bool hadRunDir_ = false, hadHome_ = false, envSet_ = false;
};

// A loopback TCP port that was free a moment ago, or -1.
int FreeLoopbackPort();

// Writes a whole text file; false with the reason.
bool WriteTextFile(const std::string& path, const std::string& text, std::string* why);

}  // namespace bench
