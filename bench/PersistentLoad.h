// Load on long-lived connections, for the persistent server modes:
//
//   RunPersistentLoad   a few clients, each sending one framed request and
//                       waiting for its echo before the next, as fast as the
//                       relay answers (round trips per second);
//   ScaleClients        many thousand clients, each from a loopback address
//                       of its own, each sending one message every period,
//                       all from one thread with epoll (round-trip times,
//                       nothing lost).
//
// The framing is the benchmark's: the body length in 4 decimal digits.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "LoadGen.h"

namespace bench {

// The loopback address of client `index` in block `block` (1..254):
// 127.block.(1 + index / 250).(1 + index % 250), for up to 62,500 clients.
std::string LoopbackSource(int block, int index);

// A blocking TCP connection from srcIp (port picked by the kernel) to
// 127.0.0.1:port; the descriptor, or -1 with the reason.
int ConnectFrom(const std::string& srcIp, int port, std::string* why);

// One request and its echo on fd, within ioTimeoutMs; false with the reason.
bool OneRoundTrip(int fd, const std::string& request, std::string* why, int ioTimeoutMs = 2000);

// One thread per connection, each looping send -> read the echo -> check
// for `seconds`. The connections stay open.
LoadResult RunPersistentLoad(const std::vector<int>& fds, const std::string& request, double seconds,
                             const volatile sig_atomic_t* stop, int ioTimeoutMs = 2000);

// The message of client `client`, number `seq`: "0020DATA" + 8 + 8 digits.
std::string ScaleMessage(uint32_t client, uint32_t seq);
// Reads client and number back from such a message; false when it is not one.
bool ParseScaleMessage(const char* msg, size_t len, uint32_t* client, uint32_t* seq);

struct ScaleResult {
    uint64_t sent = 0;
    uint64_t answered = 0;      // echoes that came back right
    uint64_t late = 0;          // of those, echoes of an older message than the last one sent
    uint64_t wrong = 0;         // bytes that were not an echo of this client's messages
    uint64_t closed = 0;        // connections the server closed
    uint64_t sendFailures = 0;
    double seconds = 0;         // of sending
    std::vector<uint32_t> rttUs;
};

class ScaleClients {
public:
    ScaleClients(int port, int count, int sourceBlock);
    ~ScaleClients();
    ScaleClients(const ScaleClients&) = delete;
    ScaleClients& operator=(const ScaleClients&) = delete;

    // Opens the connections without waiting for them, keeping at most
    // `window` ahead of what accepted() says the server has taken, so that
    // the listener's queue never overflows. False with the reason.
    bool Connect(const std::function<uint64_t()>& accepted, int window, const volatile sig_atomic_t* stop,
                 std::string* why);
    // Every client sends one message each periodMs, the clients spread
    // evenly over the period, for `seconds`; then waits up to drainMs for
    // the answers still out.
    ScaleResult Exchange(int periodMs, double seconds, int drainMs, const volatile sig_atomic_t* stop);
    void CloseAll();
    int open() const;

private:
    struct Client {
        int fd = -1;
        uint32_t seq = 0;          // number of the last message sent
        bool waiting = false;      // its answer is out
        int64_t sentUs = 0;
        uint8_t rxLen = 0;
        char rx[48];
    };
    void Read(uint32_t i, ScaleResult& r);
    void Drop(uint32_t i, ScaleResult& r);

    int port_, block_;
    std::vector<Client> clients_;
    int epfd_ = -1;
};

}  // namespace bench
