#include "log/LogRepeats.h"

#include <time.h>

#include <algorithm>

#include "base/SysGlobals.h"

namespace comp::log {

bool RepeatGate::Admit(uint64_t key, int64_t lNowUsec, const LineInfo& line) {
    if (limit_ == 0) return true;
    auto it = std::find_if(table_.begin(), table_.end(), [key](const Slot& s) { return s.key == key; });
    if (it == table_.end()) {
        if (table_.size() < slots_) {
            it = table_.insert(table_.end(), Slot{});
        } else {
            it = std::min_element(table_.begin(), table_.end(),
                                  [](const Slot& a, const Slot& b) { return a.lastSeen < b.lastSeen; });
            Due(*it, &evicted_);
        }
        *it = Slot{key, lNowUsec, lNowUsec, 0, 0, LeftOut{}};
        LeftOut& p = it->proto;
        p.write = line.write;
        p.where.assign(line.where);
        p.level = line.level;
        p.dest = line.dest;
        p.text.assign(line.text.substr(0, kRepeatTextKept));
    } else if (lNowUsec - it->start >= kRepeatWindowUsec || lNowUsec < it->start) {
        // A new window (a clock that went back starts one too).
        Due(*it, &evicted_);
        it->start = lNowUsec;
        it->seen = 0;
    }
    it->lastSeen = lNowUsec;
    if (++it->seen <= limit_) return true;
    ++it->proto.count;
    it->lastLeft = lNowUsec;
    return false;
}

void RepeatGate::Due(Slot& s, std::vector<LeftOut>* out) {
    if (s.proto.count == 0) return;
    s.proto.spanUsec = s.lastLeft - s.start;
    out->push_back(s.proto);
    s.proto.count = 0;
}

void RepeatGate::TakeEnded(int64_t lNowUsec, bool bAll, std::vector<LeftOut>* out) {
    for (LeftOut& e : evicted_) out->push_back(std::move(e));
    evicted_.clear();
    for (Slot& s : table_)
        if (bAll || lNowUsec - s.start >= kRepeatWindowUsec || lNowUsec < s.start) Due(s, out);
}

void RepeatGate::Clear() {
    table_.clear();
    evicted_.clear();
}

uint64_t LineKey(char cLog, std::string_view where, int iLevel, std::string_view text, const void* pvDump,
                 int iDumpLen) {
    // FNV-1a, 64 bits.
    uint64_t h = 1469598103934665603ull;
    auto mix = [&h](const void* p, size_t n) {
        const auto* b = static_cast<const unsigned char*>(p);
        for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ull;
    };
    mix(&cLog, 1);
    mix(where.data(), where.size());
    mix(&iLevel, sizeof iLevel);
    mix(text.data(), text.size());
    if (pvDump != nullptr && iDumpLen > 0) mix(pvDump, static_cast<size_t>(iDumpLen));
    return h;
}

namespace {

int64_t MonotonicUsec() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

struct ProcessGate {
    std::mutex mu;
    RepeatGate gate;
    int64_t (*now)() = MonotonicUsec;
};
ProcessGate& Gate() {
    static ProcessGate g;
    return g;
}

void WriteAll(const std::vector<LeftOut>& due) {
    for (const LeftOut& e : due)
        if (e.write != nullptr) e.write(e);
}

const comp::ResetRegistration kReset([] {
    ProcessGate& g = Gate();
    std::lock_guard<std::mutex> lock(g.mu);
    g.gate.Clear();
    g.gate.SetLimit(kDefaultRepeatLimit);
    g.now = MonotonicUsec;
});

}  // namespace

bool AdmitLine(uint64_t key, const LineInfo& line) {
    ProcessGate& g = Gate();
    std::vector<LeftOut> due;
    bool admit;
    {
        std::lock_guard<std::mutex> lock(g.mu);
        if (g.gate.Limit() == 0) return true;
        const int64_t now = g.now();
        g.gate.TakeEnded(now, false, &due);
        admit = g.gate.Admit(key, now, line);
    }
    WriteAll(due);
    return admit;
}

void FlushRepeats(bool bAll) {
    ProcessGate& g = Gate();
    std::vector<LeftOut> due;
    {
        std::lock_guard<std::mutex> lock(g.mu);
        g.gate.TakeEnded(g.now(), bAll, &due);
    }
    WriteAll(due);
}

void SetRepeatLimit(int iLimit) {
    ProcessGate& g = Gate();
    std::lock_guard<std::mutex> lock(g.mu);
    g.gate.SetLimit(iLimit);
}

void SetRepeatClock(int64_t (*pfNowUsec)()) {
    ProcessGate& g = Gate();
    std::lock_guard<std::mutex> lock(g.mu);
    g.now = pfNowUsec != nullptr ? pfNowUsec : MonotonicUsec;
}

}  // namespace comp::log
