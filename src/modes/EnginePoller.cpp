// The two wait backends of the loop engine.
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "modes/Engine.h"

namespace comp {

namespace {

unsigned FromPoll(short revents) {
    unsigned ev = 0;
    if (revents & POLLIN) ev |= kEvRead;
    if (revents & (POLLERR | POLLNVAL)) ev |= kEvError;
    if (revents & POLLHUP) ev |= kEvHangup;
    return ev;
}

unsigned FromEpoll(uint32_t events) {
    unsigned ev = 0;
    if (events & EPOLLIN) ev |= kEvRead;
    if (events & EPOLLERR) ev |= kEvError;
    if (events & EPOLLHUP) ev |= kEvHangup;
    return ev;
}

// ppoll over the descriptors the loop gathered this pass. No fd_set is
// involved, so any descriptor number below the table size can be waited on.
class PollPoller final : public Poller {
public:
    bool Add(int) override { return true; }
    void Remove(int) override {}
    bool NeedsCandidates() const override { return true; }
    int Wait(const std::vector<int>& candidates, int64_t lTimeoutUsec, std::vector<Ready>& out) override {
        set_.resize(candidates.size());
        for (size_t i = 0; i < candidates.size(); ++i) set_[i] = pollfd{candidates[i], POLLIN, 0};
        timespec ts{static_cast<time_t>(lTimeoutUsec / 1000000), static_cast<long>(lTimeoutUsec % 1000000) * 1000};
        int n = ppoll(set_.data(), set_.size(), lTimeoutUsec < 0 ? nullptr : &ts, nullptr);
        out.clear();
        if (n <= 0) return n;
        for (const pollfd& p : set_)   // the candidates come in ascending order
            if (p.revents != 0) out.push_back(Ready{p.fd, FromPoll(p.revents)});
        return static_cast<int>(out.size());
    }

private:
    std::vector<pollfd> set_;
};

// epoll with one standing registration per descriptor, level-triggered.
class EpollPoller final : public Poller {
public:
    EpollPoller() : epfd_(epoll_create1(EPOLL_CLOEXEC)), events_(1024) {}
    ~EpollPoller() override {
        if (epfd_ >= 0) close(epfd_);
    }
    bool Add(int iFd) override {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.fd = iFd;
        if (epoll_ctl(epfd_, EPOLL_CTL_ADD, iFd, &ev) == 0) return true;
        return errno == EEXIST && epoll_ctl(epfd_, EPOLL_CTL_MOD, iFd, &ev) == 0;
    }
    void Remove(int iFd) override { epoll_ctl(epfd_, EPOLL_CTL_DEL, iFd, nullptr); }
    bool NeedsCandidates() const override { return false; }
    int Wait(const std::vector<int>&, int64_t lTimeoutUsec, std::vector<Ready>& out) override {
        if (epfd_ < 0) {
            errno = EBADF;
            return -1;
        }
        // epoll_wait counts milliseconds: round up, so a timer is never run early.
        int ms = lTimeoutUsec < 0 ? -1 : static_cast<int>(std::min<int64_t>((lTimeoutUsec + 999) / 1000, INT32_MAX));
        int n = epoll_wait(epfd_, events_.data(), static_cast<int>(events_.size()), ms);
        out.clear();
        if (n <= 0) return n;
        for (int i = 0; i < n; ++i) out.push_back(Ready{events_[i].data.fd, FromEpoll(events_[i].events)});
        std::sort(out.begin(), out.end(), [](const Ready& a, const Ready& b) { return a.fd < b.fd; });
        return n;
    }

private:
    int epfd_;
    std::vector<epoll_event> events_;
};

}  // namespace

std::unique_ptr<Poller> MakePoller(Backend eBackend) {
    if (eBackend == Backend::kEpoll) return std::make_unique<EpollPoller>();
    return std::make_unique<PollPoller>();
}

}  // namespace comp
