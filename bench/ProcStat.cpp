#include "ProcStat.h"

#include <dirent.h>
#include <unistd.h>

#include <charconv>
#include <string>

#include "kit/KitUtil.h"

namespace bench {

namespace {
// After the ')' that ends the command name: state is field 3, utime field
// 14 and stime field 15 of the whole line.
constexpr int kUtimeAfterName = 14 - 3;
}  // namespace

std::optional<uint64_t> ParseStatTicks(std::string_view text) {
    size_t close = text.rfind(')');
    if (close == std::string_view::npos) return std::nullopt;
    std::string_view rest = text.substr(close + 1);
    uint64_t values[2] = {0, 0};
    int field = -1;   // index of the word after the name (0 = state)
    size_t i = 0;
    while (i < rest.size()) {
        while (i < rest.size() && rest[i] == ' ') ++i;
        size_t end = i;
        while (end < rest.size() && rest[end] != ' ' && rest[end] != '\n') ++end;
        if (end == i) break;
        ++field;
        if (field == kUtimeAfterName || field == kUtimeAfterName + 1) {
            uint64_t v = 0;
            auto [p, ec] = std::from_chars(rest.data() + i, rest.data() + end, v);
            if (ec != std::errc() || p != rest.data() + end) return std::nullopt;
            values[field - kUtimeAfterName] = v;
            if (field == kUtimeAfterName + 1) return values[0] + values[1];
        }
        i = end;
    }
    return std::nullopt;
}

namespace {

std::optional<double> SchedstatMicros(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return std::nullopt;
    uint64_t ns = 0;
    bool any = false;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        auto text = kit::ReadWholeFile(dir + "/" + e->d_name + "/schedstat");
        auto v = text ? ParseSchedStat(*text) : std::nullopt;
        if (!v) continue;   // a thread that ended meanwhile
        ns += v->runNs;
        any = true;
    }
    closedir(d);
    if (!any) return std::nullopt;
    return static_cast<double>(ns) / 1000.0;
}

}  // namespace

std::optional<double> ProcessCpuMicros(pid_t pid) {
    if (auto us = SchedstatMicros(pid)) return us;
    auto text = kit::ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    if (!text) return std::nullopt;
    auto ticks = ParseStatTicks(*text);
    if (!ticks) return std::nullopt;
    static const long hz = sysconf(_SC_CLK_TCK);
    return static_cast<double>(*ticks) * 1e6 / static_cast<double>(hz > 0 ? hz : 100);
}

namespace {
// The decimal number after `name` and blanks, at the start of a line.
std::optional<uint64_t> NumberAfter(std::string_view text, std::string_view name) {
    size_t at = text.find(name);
    while (at != std::string_view::npos && at != 0 && text[at - 1] != '\n' && text[at - 1] != ' ')
        at = text.find(name, at + 1);
    if (at == std::string_view::npos) return std::nullopt;
    size_t i = at + name.size();
    while (i < text.size() && (text[i] == ' ' || text[i] == '\t')) ++i;
    uint64_t v = 0;
    auto [p, ec] = std::from_chars(text.data() + i, text.data() + text.size(), v);
    if (ec != std::errc() || p == text.data() + i) return std::nullopt;
    return v;
}
}  // namespace

std::optional<CtxSwitches> ParseCtxSwitches(std::string_view text) {
    auto vol = NumberAfter(text, "voluntary_ctxt_switches:"), invol = NumberAfter(text, "nonvoluntary_ctxt_switches:");
    if (!vol || !invol) return std::nullopt;
    return CtxSwitches{*vol, *invol};
}

std::optional<CtxSwitches> ProcessCtxSwitches(pid_t pid) {
    auto text = kit::ReadWholeFile("/proc/" + std::to_string(pid) + "/status");
    if (!text) return std::nullopt;
    return ParseCtxSwitches(*text);
}

std::optional<uint64_t> ParseStatusKiB(std::string_view text, std::string_view name) { return NumberAfter(text, name); }

std::optional<uint64_t> ProcessRssKiB(pid_t pid) {
    auto text = kit::ReadWholeFile("/proc/" + std::to_string(pid) + "/status");
    if (!text) return std::nullopt;
    return ParseStatusKiB(*text, "VmRSS:");
}

std::optional<uint64_t> KernelSlabKiB() {
    auto text = kit::ReadWholeFile("/proc/meminfo");
    if (!text) return std::nullopt;
    return ParseStatusKiB(*text, "Slab:");
}

std::optional<SchedTimes> ParseSchedStat(std::string_view text) {
    SchedTimes t;
    const char* p = text.data();
    const char* end = text.data() + text.size();
    for (uint64_t* field : {&t.runNs, &t.waitNs}) {
        while (p < end && *p == ' ') ++p;
        auto [next, ec] = std::from_chars(p, end, *field);
        if (ec != std::errc() || next == p) return std::nullopt;
        p = next;
    }
    return t;
}

std::optional<SchedTimes> ProcessSchedTimes(pid_t pid) {
    auto text = kit::ReadWholeFile("/proc/" + std::to_string(pid) + "/schedstat");
    if (!text) return std::nullopt;
    return ParseSchedStat(*text);
}

// A table row is "name calls errors total min avg max stddev"; rows follow
// a line of dashes and end at the first line that is not such a row.
std::map<std::string, SyscallTally> ParsePerfTraceSummary(std::string_view text) {
    std::map<std::string, SyscallTally> out;
    bool inTable = false;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        std::string_view line = text.substr(pos, eol == std::string_view::npos ? std::string_view::npos : eol - pos);
        pos = eol == std::string_view::npos ? text.size() : eol + 1;
        size_t first = line.find_first_not_of(' ');
        if (first == std::string_view::npos) {
            inTable = false;
            continue;
        }
        line.remove_prefix(first);
        if (line.rfind("---", 0) == 0) {
            inTable = true;
            continue;
        }
        if (!inTable) continue;
        std::string_view words[3];
        size_t i = 0;
        for (std::string_view& w : words) {
            while (i < line.size() && line[i] == ' ') ++i;
            size_t end = line.find(' ', i);
            w = line.substr(i, end == std::string_view::npos ? std::string_view::npos : end - i);
            i = end == std::string_view::npos ? line.size() : end;
        }
        uint64_t calls = 0, errors = 0;
        auto num = [](std::string_view w, uint64_t& v) {
            auto [p, ec] = std::from_chars(w.data(), w.data() + w.size(), v);
            return !w.empty() && ec == std::errc() && p == w.data() + w.size();
        };
        if (words[0].empty() || !num(words[1], calls) || !num(words[2], errors)) {
            inTable = false;
            continue;
        }
        SyscallTally& t = out[std::string(words[0])];
        t.calls += calls;
        t.errors += errors;
    }
    return out;
}

void CpuMeter::start() {
    startMicros_ = ProcessCpuMicros(pid_).value_or(-1);
    startSwitches_ = ProcessCtxSwitches(pid_);
}

CtxSwitches CpuMeter::elapsedSwitches() const {
    auto now = ProcessCtxSwitches(pid_);
    if (!startSwitches_ || !now) return {};
    return {now->voluntary - startSwitches_->voluntary, now->involuntary - startSwitches_->involuntary};
}

double CpuMeter::elapsedMicros() const {
    if (startMicros_ < 0) return -1;
    auto now = ProcessCpuMicros(pid_);
    return now ? *now - startMicros_ : -1;
}

}  // namespace bench
