// The baseline peers of the polled-link benchmark (bench_syn), run as roles
// of its executable. Each does only the system calls its side of the link
// needs for one poll:
//
//   pcsyn-baseline    the client side: connects to the bench's poll server;
//                     per request: wait until readable, receive the frame,
//                     look for a message of the route in queue 8 without
//                     waiting, send the answer (the message, or no data).
//   passyn-baseline   the server side: listens; polls every client it
//                     accepts; per data frame: receive it, look for a task
//                     in a task queue of its own without waiting, send the
//                     answer (the task, or a poll), put the frame behind a
//                     64-byte header on queue 7.
//
// Both run until SIGTERM or SIGINT and return the exit status.
#pragma once

#include <string>

namespace bench {

struct SynBaselineOptions {
    std::string runDir;
    int route = 0;   // the route number the baseline stands for
    int port = 0;    // pcsyn: the poll server to connect to; passyn: the port to listen on
};

int RunPcsynBaselineRole(const SynBaselineOptions& opt);
int RunPassynBaselineRole(const SynBaselineOptions& opt);

}  // namespace bench
