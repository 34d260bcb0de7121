// The stand-in supervisor (Commonp) and starting process: starts the router
// and every instance of compkit.cfg, reports their logon, logoff and accept
// notices from queue 6, and is the starting process of the shared-listener
// routes: it opens each such route's listener, hands it to every instance of
// the route as the fourth argument, and writes one "0" into an instance's
// control FIFO per waiting client, taking the instances in turn. It restarts
// nothing by itself: a process that ends is reported and stays ended until
// the operator sends SIGUSR1, which starts every ended process again. On
// SIGINT or SIGTERM it asks every instance to quit ("x"), waits, and takes the
// platform down.
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
