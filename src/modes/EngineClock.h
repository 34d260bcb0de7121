// The clock of the loop engine: wall time in microseconds since the epoch,
// and the blocking sleeps some modes take at start. In-process tests drive a
// ManualClock, so rules measured in minutes run in milliseconds.
#pragma once

#include <time.h>

#include <cstdint>

namespace comp {

class Clock {
public:
    virtual ~Clock() = default;
    virtual int64_t NowUsec() = 0;
    virtual void SleepUsec(int64_t lUsec) = 0;
    // How long a wait of lUsec (-1: no limit) may really block.
    virtual int64_t RealWait(int64_t lUsec) { return lUsec; }
    // A wait of lUsec ended with nothing ready.
    virtual void WaitedOut(int64_t) {}
};

class SystemClock final : public Clock {
public:
    int64_t NowUsec() override {
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
    }
    void SleepUsec(int64_t lUsec) override {
        timespec ts{static_cast<time_t>(lUsec / 1000000), static_cast<long>(lUsec % 1000000) * 1000};
        while (nanosleep(&ts, &ts) != 0) {
        }
    }
};

// A clock that moves only when told to, or by what it is asked to wait:
// waits never block, and a wait that ends with nothing ready moves it on by
// its whole time-out, as if that time had passed.
class ManualClock final : public Clock {
public:
    explicit ManualClock(int64_t lStartUsec = 1'700'000'000'000'000) : now_(lStartUsec) {}
    int64_t NowUsec() override { return now_; }
    void SleepUsec(int64_t lUsec) override { now_ += lUsec; }
    int64_t RealWait(int64_t) override { return 0; }
    void WaitedOut(int64_t lUsec) override {
        if (lUsec > 0) now_ += lUsec;
    }
    void Advance(int64_t lUsec) { now_ += lUsec; }
    void AdvanceSec(int64_t lSec) { now_ += lSec * 1000000; }

private:
    int64_t now_;
};

inline constexpr int64_t kUsecPerSec = 1000000;

}  // namespace comp
