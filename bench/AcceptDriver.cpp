#include "AcceptDriver.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "base/SysTypes.h"

namespace bench {

namespace {

// An instance that has not reported its accept after this long is taken to
// have missed it (its report may have been lost with it).
constexpr int64_t kOutstandingLimitUs = 2'000'000;
constexpr int kListenPollMs = 1;
constexpr int kIdleSleepUs = 20;

int64_t NowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

int AcceptQueueLength(int listenFd) {
    tcp_info info{};
    socklen_t len = sizeof info;
    if (getsockopt(listenFd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0) return -1;
    return static_cast<int>(info.tcpi_unacked);   // a listener's current accept queue
}

AcceptDriver::AcceptDriver(int listenFd, int commonpQid, std::vector<Instance> instances)
    : listenFd_(listenFd), commonpQid_(commonpQid), instances_(std::move(instances)) {}

AcceptDriver::~AcceptDriver() {
    Stop();
    for (int fd : fifos_)
        if (fd >= 0) close(fd);
}

bool AcceptDriver::Start(std::string* why) {
    for (const Instance& i : instances_) {
        int fd = open(i.controlFifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            *why = i.controlFifo + ": " + std::strerror(errno);
            return false;
        }
        fifos_.push_back(fd);
    }
    outstandingSinceUs_.assign(instances_.size(), 0);
    stop_ = false;
    thread_ = std::thread([this] { Run(); });
    return true;
}

void AcceptDriver::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

bool AcceptDriver::Wake(size_t k) {
    if (write(fifos_[k], "0", 1) != 1) return false;
    outstandingSinceUs_[k] = NowUs();
    ++wakes_;
    return true;
}

void AcceptDriver::ReadReports() {
    auto m = std::make_unique<QueueMsg>();
    while (msgrcv(commonpQid_, m.get(), sizeof m->caText, comp::kCommonpAccepted, IPC_NOWAIT) >= 0) {
        int32_t pid = 0;
        std::memcpy(&pid, m->caText + comp::plat::kPid, sizeof pid);
        for (size_t k = 0; k < instances_.size(); ++k)
            if (instances_[k].pid == pid) outstandingSinceUs_[k] = 0;
        ++reports_;
    }
}

void AcceptDriver::Run() {
    while (!stop_) {
        ReadReports();
        const int64_t now = NowUs();
        int outstanding = 0;
        for (int64_t& since : outstandingSinceUs_) {
            if (since != 0 && now - since > kOutstandingLimitUs) since = 0;
            outstanding += since != 0;
        }
        if (outstanding == static_cast<int>(instances_.size())) {
            usleep(kIdleSleepUs);
            continue;
        }
        pollfd p{listenFd_, POLLIN, 0};
        if (poll(&p, 1, outstanding == 0 ? kListenPollMs : 0) <= 0) {
            if (outstanding > 0) usleep(kIdleSleepUs);
            continue;
        }
        // One wake per waiting client that no outstanding accept will take.
        int waiting = AcceptQueueLength(listenFd_) - outstanding;
        const size_t start = next_;
        bool woke = false;
        for (size_t tried = 0; waiting > 0 && tried < instances_.size(); ++tried) {
            const size_t k = (start + tried) % instances_.size();
            if (outstandingSinceUs_[k] != 0 || !Wake(k)) continue;
            next_ = (k + 1) % instances_.size();
            --waiting;
            woke = true;
        }
        if (!woke) usleep(kIdleSleepUs);
    }
}

}  // namespace bench
