// The supervisor's part for a shared listener, as a thread of the benchmark:
// it watches the listener the PAS instances inherited and, for every client
// waiting in its accept queue, writes "0" to the control FIFO of an instance
// that has no accept outstanding (round robin); an instance's code-9 report
// on queue 6 ends its outstanding accept. So several instances accept at
// once, and no instance is woken for a client another one takes.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace bench {

class AcceptDriver {
public:
    struct Instance {
        pid_t pid = 0;
        std::string controlFifo;   // path of "3_<pid>_<instance>"
    };
    AcceptDriver(int listenFd, int commonpQid, std::vector<Instance> instances);
    ~AcceptDriver();
    AcceptDriver(const AcceptDriver&) = delete;
    AcceptDriver& operator=(const AcceptDriver&) = delete;

    // False with the reason when a control FIFO cannot be opened.
    bool Start(std::string* why);
    void Stop();

    uint64_t reports() const { return reports_.load(); }   // code-9 reports read
    uint64_t wakes() const { return wakes_.load(); }       // "0" commands written

private:
    void Run();
    bool Wake(size_t k);
    void ReadReports();

    int listenFd_;
    int commonpQid_;
    std::vector<Instance> instances_;
    std::vector<int> fifos_;
    std::vector<int64_t> outstandingSinceUs_;   // 0: none
    size_t next_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> reports_{0}, wakes_{0};
    std::thread thread_;
};

// Clients waiting in a listener's accept queue (TCP_INFO), or -1.
int AcceptQueueLength(int listenFd);

}  // namespace bench
