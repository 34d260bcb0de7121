// The two helper processes of the TS benchmark, run as roles of the bench
// executable:
//
//   router    the stand-in router (compkit's Router class) reading queue 7
//             with a blocking receive, so it wakes as soon as a message is
//             queued and sleeps otherwise;
//   baseline  a minimal relay doing only the system calls that one
//             short-connection exchange needs: accept, receive the framed
//             request, queue it for the router, wait for the doorbell, read
//             the answer from the queue, send it, close.
//
// Both run until SIGTERM or SIGINT and return the process's exit status.
#pragma once

#include <string>

namespace bench {

int RunRouterRole(const std::string& runDir);

// Ids of the platform's queues 7 (to the router) and 8 (from it); false with
// the reason.
bool PlatformQueues(const std::string& runDir, int* toRouter, int* fromRouter, std::string* why);

// SIGTERM and SIGINT set the flag that `RoleStopped` reads; without
// SA_RESTART they also interrupt a blocking receive or poll.
void InstallStopHandlers();
bool RoleStopped();

struct BaselineOptions {
    std::string runDir;
    int route = 0;        // route id written into the PlatMsg header
    int port = 0;         // loopback listen port
    int headerLen = 4;    // framing: a header of decimal digits giving the body length
};
int RunBaselineRole(const BaselineOptions& opt);

// Body length announced by a header of decimal digits ("0012" -> 12); -1
// when the header holds anything but digits.
int DecimalHeaderLength(const char* header, int headerLen);

}  // namespace bench
