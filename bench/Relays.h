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
    bool persistent = false;   // keep each connection for its next request instead of closing it
};
int RunBaselineRole(const BaselineOptions& opt);

// The baseline relay pair of the forwarder benchmark, two roles doing only
// the system calls that relaying a message needs (epoll with blocking waits,
// one recv per readiness into a buffer, one send or writev per message):
//   pair-front  accepts clients itself and relays each framed message up the
//               link behind the 64-byte extended header naming the client;
//               the link's answers go to the client with that port;
//   pair-upper  accepts the link, queues each client message for the router
//               typed with its pid (PlatMsg header: link descriptor, client
//               port and IP), and sends the router's answers down the link
//               behind the header.
// Each creates the FIFO "1_<pid>" once it serves (pair-upper's doorbell).
struct PairOptions {
    std::string runDir;
    int route = 0;        // pair-upper: route id of its PlatMsg headers
    int clientPort = 0;   // pair-front: where clients connect
    int linkPort = 0;     // the link: pair-upper listens, pair-front connects
    int headerLen = 4;    // framing as for the baseline relay
};
int RunPairFrontRole(const PairOptions& opt);
int RunPairUpperRole(const PairOptions& opt);
// The helper processes a benchmark starts from its own executable:
//   PROG --role router RUNDIR
//   PROG --role baseline RUNDIR ROUTE PORT
// The exit status of the role named in argv, 2 (after a usage line) for a
// role with the wrong arguments, -1 when argv names no role.
int RunRoleFromArgs(int argc, char** argv, bool persistentBaseline);

// Body length announced by a header of decimal digits ("0012" -> 12); -1
// when the header holds anything but digits.
int DecimalHeaderLength(const char* header, int headerLen);


// The baseline of the persistent-client benchmark (bench_pc's role
// `pcbaseline`): one connection to the server and only the system calls of a
// round trip through it. Towards the server: poll, the doorbell byte of FIFO
// "2_<route>_1", the message from queue 8 (typed with the route) without
// waiting, send. Back: poll, recv (as much as has come), and for each whole
// message one msgsnd to queue 7 behind a PlatMsg header, typed with the pid.
// The FIFO exists once the connection stands. Ends when the server closes.
struct PcBaselineOptions {
    std::string runDir;
    int route = 0;
    int serverPort = 0;   // on 127.0.0.1
    int headerLen = 4;    // decimal-digit length header
};
int RunPcBaselineRole(const PcBaselineOptions& opt);

}  // namespace bench
