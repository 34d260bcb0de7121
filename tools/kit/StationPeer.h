// `compkit station`: the station-side peer of a station link. It listens for
// comp, answers the connection request, runs the parameter sequence and the
// end of the connection sequence, acknowledges every frame, answers beats
// with keep-alive feedback, and can send transaction data, refuse the
// connection, acknowledge nothing, NACK a frame or send a bad CRC on request.
// Every frame it sees and sends is logged as one line.
#pragma once

#include <string>
#include <vector>

namespace kit {

struct StationOptions {
    std::string ip = "127.0.0.1";
    int port = 0;
    bool reject = false;          // refuse the connection request
    bool noAck = false;           // acknowledge nothing
    int nackAt = 0;               // NACK the n-th frame that wants an acknowledgement (0: none)
    int crcErrorAt = 0;           // the n-th frame sent carries a bad CRC (0: none)
    int params = 1;               // "0400550C" messages in the parameter sequence
    std::vector<std::string> send;  // transaction data to send once the link is up
    int count = 1;                // times the list is sent
    int intervalMs = 1000;        // between two of them
    bool once = false;            // end when the first connection ends
    bool quiet = false;           // no line per frame (the summary still)
    std::string logPath;          // lines to this file instead of stdout
};

// Parses the arguments after the subcommand; false with the reason.
bool ParseStationArgs(const std::vector<std::string>& args, StationOptions* out, std::string* why);

// Runs the peer until SIGINT or SIGTERM (or the first connection's end with
// `once`); the exit status.
int RunStation(const StationOptions& opt);
int RunStationCommand(const std::vector<std::string>& args);

}  // namespace kit
