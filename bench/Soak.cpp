#include "Soak.h"

#include <sys/ipc.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <sstream>

namespace bench::soak {

namespace {

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }

std::vector<std::string_view> Lines(std::string_view text) {
    std::vector<std::string_view> out;
    while (!text.empty()) {
        const size_t nl = text.find('\n');
        out.push_back(text.substr(0, nl));
        if (nl == std::string_view::npos) break;
        text.remove_prefix(nl + 1);
    }
    return out;
}

std::string ReadAll(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

double Mean(const std::vector<double>& v, size_t from, size_t to) {
    if (to <= from) return 0;
    return std::accumulate(v.begin() + static_cast<long>(from), v.begin() + static_cast<long>(to), 0.0) /
           static_cast<double>(to - from);
}

}  // namespace

std::string MoveKeys(std::string_view text, key_t keyBase) {
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        if (IsDigit(text[i]) && (i == 0 || !IsDigit(text[i - 1]))) {
            size_t j = i;
            while (j < text.size() && IsDigit(text[j])) ++j;
            const std::string word(text.substr(i, j - i));
            const long v = word.size() == 10 ? std::strtol(word.c_str(), nullptr, 10) : 0;
            if (v >= kExampleKeyBase && v < kExampleKeyBase + 256)
                out += std::to_string(static_cast<long>(keyBase) + (v - kExampleKeyBase));
            else
                out += word;
            i = j;
        } else {
            out += text[i++];
        }
    }
    return out;
}

std::string MovePorts(std::string_view text, const std::map<int, int>& ports) {
    static constexpr std::string_view kHost = "127.0.0.1:";
    std::string out;
    size_t i = 0;
    while (i < text.size()) {
        const size_t at = text.find(kHost, i);
        if (at == std::string_view::npos) {
            out.append(text.substr(i));
            break;
        }
        size_t j = at + kHost.size();
        while (j < text.size() && IsDigit(text[j])) ++j;
        const std::string digits(text.substr(at + kHost.size(), j - at - kHost.size()));
        out.append(text.substr(i, at - i));
        out.append(kHost);
        const auto found = digits.empty() ? ports.end() : ports.find(std::atoi(digits.c_str()));
        out += found == ports.end() ? digits : std::to_string(found->second);
        i = j;
    }
    return out;
}

std::string EnableStationRoute(std::string_view kitCfg) {
    std::string out;
    for (std::string_view line : Lines(kitCfg)) {
        if (line.starts_with("# route 70 ") || line.starts_with("# instance 70 ")) line.remove_prefix(2);
        out.append(line);
        out += '\n';
    }
    return out;
}

std::string SetLogLevel(std::string_view appCfg, int level) {
    std::string out;
    for (std::string_view line : Lines(appCfg)) {
        if (line.starts_with("LOG_LEVEL")) {
            out += "LOG_LEVEL         " + std::to_string(level);
        } else {
            out.append(line);
        }
        out += '\n';
    }
    return out;
}

std::vector<key_t> ConfigKeys(std::string_view sysCfg) {
    std::vector<key_t> keys;
    bool inPart = false;
    for (std::string_view line : Lines(sysCfg)) {
        if (line.starts_with("[")) {
            inPart = line.starts_with("[QRESOURCE]") || line.starts_with("[SEMRESOURCE]") ||
                     line.starts_with("[SHMRESOURCE]");
            continue;
        }
        if (!inPart || line.starts_with("#")) continue;
        std::istringstream words{std::string(line)};
        std::string name, index, key;
        if (words >> name >> index >> key) keys.push_back(static_cast<key_t>(std::strtol(key.c_str(), nullptr, 10)));
    }
    return keys;
}

uint64_t CountLines(std::string_view logText, std::string_view pattern) {
    static constexpr std::string_view kLeftOut = "left out ";
    uint64_t n = 0;
    for (std::string_view line : Lines(logText)) {
        const size_t hit = line.find(pattern);
        if (hit == std::string_view::npos) continue;
        const size_t summary = line.find(kLeftOut);
        if (summary != std::string_view::npos && summary < hit) {
            n += std::strtoull(std::string(line.substr(summary + kLeftOut.size(), 12)).c_str(), nullptr, 10);
        } else {
            ++n;
        }
    }
    return n;
}

int RouteOfLogName(std::string_view name) {
    if (!name.starts_with("com_")) return -1;
    name.remove_prefix(4);
    // From the end: "_<pid>_<date>.log..." goes; what is left ends "<route>_<instance>".
    for (int cut = 0; cut < 2; ++cut) {
        const size_t us = name.rfind('_');
        if (us == std::string_view::npos) return -1;
        if (cut == 0 && name.find(".log", us) == std::string_view::npos) return -1;
        name = name.substr(0, us);
    }
    const size_t us = name.rfind('_');
    if (us == std::string_view::npos || us + 1 == name.size()) return -1;
    size_t d = us;
    while (d > 0 && IsDigit(name[d - 1])) --d;
    if (d == us) return -1;
    return std::atoi(std::string(name.substr(d, us - d)).c_str());
}

void AddIpc(std::string_view procText, char kind, const std::vector<key_t>& keys, IpcSample* out) {
    for (std::string_view line : Lines(procText)) {
        std::istringstream w{std::string(line)};
        std::string keyText;
        if (!(w >> keyText) || keyText.empty() || !(IsDigit(keyText[0]) || keyText[0] == '-')) continue;
        const key_t key = static_cast<key_t>(std::strtol(keyText.c_str(), nullptr, 10));
        if (std::find(keys.begin(), keys.end(), key) == keys.end()) continue;
        if (kind == 'm') {
            // key msqid perms cbytes qnum ...
            std::string id, perms;
            uint64_t cbytes = 0, qnum = 0;
            w >> id >> perms >> cbytes >> qnum;
            ++out->queues;
            out->queuedBytes += cbytes;
            out->queuedMessages += qnum;
        } else if (kind == 's') {
            ++out->semSets;
        } else {
            ++out->segments;
        }
    }
}

IpcSample SampleIpc(const std::vector<key_t>& keys) {
    IpcSample s;
    AddIpc(ReadAll("/proc/sysvipc/msg"), 'm', keys, &s);
    AddIpc(ReadAll("/proc/sysvipc/sem"), 's', keys, &s);
    AddIpc(ReadAll("/proc/sysvipc/shm"), 'h', keys, &s);
    return s;
}

Flatness JudgeFlat(const std::vector<double>& v, double percent, double margin) {
    Flatness f;
    if (v.empty()) return f;
    f.first = v.front();
    f.last = v.back();
    f.max = *std::max_element(v.begin(), v.end());
    const size_t warm = v.size() / 10;
    const size_t n = v.size() - warm;
    const size_t quarter = std::max<size_t>(1, n / 4);
    f.firstQuarter = Mean(v, warm, warm + quarter);
    f.lastQuarter = Mean(v, v.size() - quarter, v.size());
    const double limit = f.firstQuarter * (1 + percent / 100) + margin;
    char text[160];
    if (f.lastQuarter > limit) {
        std::snprintf(text, sizeof text, "last quarter %.1f above %.1f (first quarter %.1f + %.0f%% + %.0f)",
                      f.lastQuarter, limit, f.firstQuarter, percent, margin);
        f.flat = false;
        f.why = text;
        return f;
    }
    // Growth at every step of the last half, by more than the margin in all.
    const size_t half = v.size() / 2;
    if (v.size() - half >= 4) {
        bool rising = true;
        for (size_t i = half + 1; i < v.size() && rising; ++i) rising = v[i] > v[i - 1];
        if (rising && v.back() - v[half] > margin) {
            std::snprintf(text, sizeof text, "rises at every one of the last %zu samples", v.size() - half);
            f.flat = false;
            f.why = text;
        }
    }
    return f;
}

}  // namespace bench::soak
