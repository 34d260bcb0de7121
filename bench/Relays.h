// The two helper processes of the TS benchmark, run as roles of the bench
// executable:
//
//   router    the stand-in router (compkit's Router class) reading queue 7
//             with a blocking receive, so it wakes as soon as a message is
//             queued and sleeps otherwise;
//   baseline  a minimal relay doing only the system calls that one
//             short-connection exchange needs: accept, receive the framed
//             request, queue it for the router, wait for the doorbell, read
//             the answer from the queue, send it, close (or, persistent,
//             wait for the connection's next request).
//
// Both run until SIGTERM or SIGINT and return the process's exit status.
#pragma once

#include <string>

namespace bench {

int RunRouterRole(const std::string& runDir);

struct BaselineOptions {
    std::string runDir;
    int route = 0;        // route id written into the PlatMsg header
    int port = 0;         // loopback listen port
    int headerLen = 4;    // framing: a header of decimal digits giving the body length
    bool persistent = false;   // keep each connection for its next request instead of closing it
};
int RunBaselineRole(const BaselineOptions& opt);

// The helper processes a benchmark starts from its own executable:
//   PROG --role router RUNDIR
//   PROG --role baseline RUNDIR ROUTE PORT
// The exit status of the role named in argv, 2 (after a usage line) for a
// role with the wrong arguments, -1 when argv names no role.
int RunRoleFromArgs(int argc, char** argv, bool persistentBaseline);

// Body length announced by a header of decimal digits ("0012" -> 12); -1
// when the header holds anything but digits.
int DecimalHeaderLength(const char* header, int headerLen);

}  // namespace bench
