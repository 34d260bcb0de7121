// `compkit send` and `compkit echo-server`: a small client and server that
// speak a route's framing, to try a route by hand or to stand in for the
// remote server behind a client route. The echo server keeps its connections
// open, so a persistent client has a server to talk to, and can send and
// answer heartbeats.
#pragma once

#include <string>
#include <vector>

#include "kit/KitUtil.h"

namespace kit {

// Both parse their own arguments (after the subcommand) and return the exit
// status; usage errors print to stderr and return 2.
int RunSend(const std::vector<std::string>& args);
int RunEchoServer(const std::vector<std::string>& args);

// A listening TCP socket on IP:PORT (SO_REUSEADDR); invalid with errno set
// when it cannot be had.
UniqueFd ListenOn(const std::string& ip, int port, int backlog);

// Connects to IP:PORT (blocking, with a time-out); the descriptor or -1.
int ConnectTo(const std::string& ip, int port, int timeoutMs, std::string* why);

// Reads one framed message within timeoutMs; false on time-out, close or a bad header.
struct Framing;
bool ReadFramed(int fd, const Framing& f, int timeoutMs, std::vector<char>* msg, std::string* why);

}  // namespace kit
