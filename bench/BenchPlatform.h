// A private platform for the benchmarks: a temporary run directory (also
// HOME) with etc/ log/ fifo/ runs/, System V keys of its own, the routes the
// benchmark drives, and everything removed again when the object goes.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// The routes of the bench platform. Every route frames with a 4-byte header
// holding the body length in decimal digits.
struct BenchRoutes {
    int tsRoute = 10;          // comp SysTCPTS (bench_ts: in the fixed wait), echoed by the router
    int baseRoute = 11;        // the baseline relay, echoed the same way
    int tsDeadlineRoute = 12;  // comp SysTCPTS in the deadline wait (bench_ts), echoed the same way
    int tcRoute = 20;          // comp SysTCPTC, only ever idle
    int tsPort = 0;            // loopback listen ports (0: picked free)
    int basePort = 0;
    int tsDeadlinePort = 0;
    int tcServerPort = 0;      // where TC would connect; nothing listens there
    // The forwarder pair (bench_fw): FWB's clients arrive on fwbPort, its
    // link goes to FWS on fwsPort; the baseline relay pair likewise on
    // pairFrontPort and pairUpperPort. The router echoes routes 61 and 62.
    int fwbRoute = 60;    // comp SysTCPFWB
    int fwsRoute = 61;    // comp SysTCPFWS
    int pairRoute = 62;   // the upper half of the baseline relay pair
    int fwbPort = 0, fwsPort = 0;
    int pairFrontPort = 0, pairUpperPort = 0;
    // Station links (bench_station): comp SysTCPVANTREL and the baseline
    // station relay, each the client of its own station peer.
    int stationRoute = 70;
    int baseStationRoute = 71;
    int stationPeerPort = 0;
    int baseStationPeerPort = 0;
};

// What one benchmark adds to the platform before Create(): routes of its own
// (server routes unless said otherwise, heartbeats off, the same framing), a
// larger socket table, and application variables.
struct BenchExtras {
    struct Route {
        int id = 0;
        std::string name;
        int port = 0;            // the route's IPPORT on 127.0.0.1
        int idleTimeout = 30;
        std::string kitLine;     // its compkit.cfg line ("route ID MODE echo ...")
        std::string sndType = "0";   // MSGSNDTYPE: "1" for a client route
        int reconnInterval = 5;      // RECONNINTERVAL
    };
    std::vector<Route> routes;
    int maxComNum = 1024;        // MAX_COM_NUM
    std::string appVars;         // more [APPVARS] lines, e.g. "COMP_WAIT DEADLINE\n"
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
    // Takes effect with the next Create() (routes, table size) or
    // SetLogLevel() (application variables).
    void SetExtras(BenchExtras extras) { extras_ = std::move(extras); }
    BenchExtras& extras() { return extras_; }
    // Removes the IPC objects, the FIFOs and the directory (idempotent).
    void Destroy();
    // Destroy() leaves the directory (configuration and logs) in place.
    void KeepDirectory() { keepDir_ = true; }

    // Rewrites app.cfg; a comp started afterwards reads the new level (and
    // with deadline set, waits in the deadline style).
    bool SetLogLevel(int logLevel, std::string* why, bool deadline = false);
    // The same with further [APPVARS] lines (each ended by a newline).
    bool SetAppCfg(int logLevel, const std::string& moreVars, std::string* why);
    // Routes a benchmark adds before Create(): rows for tables.cfg, in their
    // own section with the column order kExtraRouteColumns, and compkit.cfg
    // lines.
    static constexpr const char* kExtraRouteColumns =
        "ROUTEID ROUTEMONID ROUTENAME MSGSNDTYPE IDLETIMEOUT HEADERLEN MSGLENGETLEN MSGLENGETOFFSET MSGLENGETTYPE "
        "MSGLENINTEL MSGLENADJUST MSGTYPEGETLEN MSGTYPEGETOFFSET MSGTYPEGETTYPE MSGTYPECHARLEN SEQINTEL ROUTEMSGFLAG "
        "BEATINTERVAL RECONNINTERVAL IPPORT";
    void AddRoutes(const std::string& tableRows, const std::string& kitLines) {
        extraRows_ += tableRows;
        extraKit_ += kitLines;
    }
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
    BenchExtras extras_;
    std::string ExtraRows() const;
    std::string extraRows_, extraKit_;
    key_t keyBase_ = 0;
    bool up_ = false;
    bool keepDir_ = false;
    std::string oldRunDir_, oldHome_;
    bool hadRunDir_ = false, hadHome_ = false, envSet_ = false;
};

// A loopback TCP port that was free a moment ago, or -1.
int FreeLoopbackPort();
// n distinct loopback TCP ports that were free a moment ago; empty when they
// cannot be had.
std::vector<int> FreeLoopbackPorts(size_t n);

// Writes a whole text file; false with the reason.
bool WriteTextFile(const std::string& path, const std::string& text, std::string* why);

}  // namespace bench
