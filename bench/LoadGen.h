// The load generator of the TS benchmark: N client threads, each looping
// connect -> send one framed request -> read the whole answer -> close for a
// fixed time, recording the latency of every exchange.
#pragma once

#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace bench {

struct LoadOptions {
    int port = 0;                 // on 127.0.0.1
    int clients = 1;
    double seconds = 1.0;         // no exchange starts after this
    std::string request;          // one framed request; the answer must equal it
    int headerLen = 4;            // decimal-digit length header of the answer
    int ioTimeoutMs = 2000;       // connect, send and receive time-out
};

struct LoadResult {
    uint64_t exchanges = 0;       // answered correctly
    uint64_t failures = 0;
    double seconds = 0;           // from the start to the end of the last exchange
    std::vector<uint32_t> latencyUs;
    std::string firstError;

    double rate() const { return seconds > 0 ? static_cast<double>(exchanges) / seconds : 0; }
};

// What one client thread counted.
struct alignas(64) ClientTally {
    uint64_t exchanges = 0;
    uint64_t failures = 0;
    std::vector<uint32_t> latencyUs;
    std::string firstError;
    std::chrono::steady_clock::time_point lastEnd{};
};
// The clients' counts added up; the time runs from start to the end of the
// last exchange.
LoadResult MergeTallies(const std::vector<ClientTally>& tallies, std::chrono::steady_clock::time_point start);

// Reads exactly n bytes; false on close (errno ECONNRESET), error or time-out.
bool RecvExact(int fd, char* out, size_t n);

// Runs the clients; a set *stop ends the run early.
LoadResult RunLoad(const LoadOptions& opt, const volatile sig_atomic_t* stop);

// Persistent clients: each connects once and exchanges one request untimed
// (a relay that accepts on command has taken it then); when all are ready,
// onReady runs (start the meters there) and each loops send -> read the
// whole answer on its connection for opt.seconds. A client whose exchange
// fails stops.
LoadResult RunPersistentLoad(const LoadOptions& opt, const volatile sig_atomic_t* stop,
                             const std::function<void()>& onReady);

// A request in the benchmark's framing: the body length in headerLen
// decimal digits, then the body.
std::string FrameRequest(std::string_view body, int headerLen);

// The value at quantile q (0..1) by the nearest-rank rule; 0 for no values.
// Reorders the values.
double Quantile(std::vector<uint32_t>& values, double q);

// Median of a few numbers (mean of the middle two for an even count).
double Median(std::vector<double> values);

}  // namespace bench
