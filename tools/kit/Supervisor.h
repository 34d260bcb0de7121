// The stand-in supervisor (Commonp): starts the router and every instance of
// compkit.cfg, reports their logon, logoff and accept notices from queue 6,
// shares the listeners of the shared-listener modes (one "0" on an instance's
// control FIFO per waiting client, round robin), restarts instances that end,
// and on SIGINT or SIGTERM asks every instance to quit ("x"), waits, and
// takes the platform down.
#pragma once

#include <string>

namespace kit {

struct SupervisorOptions {
    std::string runDir;
    std::string compPath;       // comp binary
    std::string compkitPath;    // this tool, to start the router
    int quitGraceMs = 5000;     // after "x", before SIGKILL
    int acceptWaitMs = 1000;    // an instance that said nothing after "0" for this long is passed over
    bool takeDown = true;       // run `down` at the end
};

// The comp binary: $COMPKIT_COMP, else compkit.cfg's `comp`, else "comp"
// in the directory above this executable (the build tree's layout).
std::string ResolveCompPath(const std::string& fromConfig);

// `compkit run RUNDIR`; the exit status.
int RunSupervisor(const SupervisorOptions& opt);

}  // namespace kit
