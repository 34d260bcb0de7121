#include "kit/KitUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "base/SysGlobals.h"

namespace kit {

RunDirScope::RunDirScope(const std::string& runDir) {
    if (const char* v = std::getenv("RUNDIR")) {
        hadOld_ = true;
        old_ = v;
    }
    setenv("RUNDIR", runDir.c_str(), 1);
}

RunDirScope::~RunDirScope() {
    if (hadOld_)
        setenv("RUNDIR", old_.c_str(), 1);
    else
        unsetenv("RUNDIR");
}

void DirectLogs(const std::string& runDir, const std::string& name) {
    // Set directly rather than through SysSetLog, which would wait for an
    // app.cfg that a kit command does not need.
    LogSettings& st = g_stProcState.stLog;
    std::snprintf(st.caErrLogName, sizeof st.caErrLogName, "%s/log/%s_err", runDir.c_str(), name.c_str());
    std::snprintf(st.caTraceBase, sizeof st.caTraceBase, "%s/log/%s_%d", runDir.c_str(), name.c_str(),
                  static_cast<int>(getpid()));
    mkdir((runDir + "/log").c_str(), 0755);
}

bool SplitWords(std::string_view line, std::vector<std::string>* words, std::string* why) {
    words->clear();
    size_t i = 0;
    while (i < line.size()) {
        char c = line[i];
        if (c == ' ' || c == '\t' || c == '\r') {
            ++i;
            continue;
        }
        if (c == '#') break;
        std::string word;
        if (c == '"') {
            size_t end = line.find('"', i + 1);
            if (end == std::string_view::npos) {
                *why = "a quoted value is not closed";
                return false;
            }
            word.assign(line.substr(i + 1, end - i - 1));
            i = end + 1;
        } else {
            size_t end = i;
            while (end < line.size() && line[end] != ' ' && line[end] != '\t' && line[end] != '\r') ++end;
            word.assign(line.substr(i, end - i));
            i = end;
        }
        words->push_back(std::move(word));
    }
    return true;
}

std::optional<long> ParseLong(std::string_view text) {
    if (text.empty()) return std::nullopt;
    long v = 0;
    const char* first = text.data();
    if (*first == '+') ++first;
    auto [ptr, ec] = std::from_chars(first, text.data() + text.size(), v);
    if (ec != std::errc() || ptr != text.data() + text.size()) return std::nullopt;
    return v;
}

bool ParseIpPort(std::string_view text, std::string* ip, int* port) {
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    std::string host(text.substr(0, colon));
    in_addr addr{};
    if (inet_pton(AF_INET, host.c_str(), &addr) != 1) return false;
    auto p = ParseLong(text.substr(colon + 1));
    if (!p || *p < 0 || *p > 65535) return false;
    *ip = host;
    *port = static_cast<int>(*p);
    return true;
}

std::string ClockText() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm t{};
    localtime_r(&ts.tv_sec, &t);
    char buf[32];
    std::snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", t.tm_hour, t.tm_min, t.tm_sec, ts.tv_nsec / 1000000);
    return buf;
}

int64_t NowMs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void SleepMs(int ms) {
    timespec ts{ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

std::optional<std::string> ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string SelfExe() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "";
    buf[n] = '\0';
    return buf;
}

namespace {
// The state letter and parent pid from /proc/<pid>/stat (the command name in
// parentheses may itself hold blanks and parentheses).
bool ReadStat(pid_t pid, char* state, pid_t* ppid) {
    auto text = ReadWholeFile("/proc/" + std::to_string(pid) + "/stat");
    if (!text) return false;
    size_t close = text->rfind(')');
    if (close == std::string::npos) return false;
    int pp = -1;
    char st = '?';
    if (std::sscanf(text->c_str() + close + 1, " %c %d", &st, &pp) != 2) return false;
    *state = st;
    *ppid = pp;
    return true;
}
}  // namespace

bool ProcessAlive(pid_t pid) {
    char state = '?';
    pid_t ppid = -1;
    if (pid <= 0 || !ReadStat(pid, &state, &ppid)) return false;
    return state != 'Z' && state != 'X';
}

std::string ProcessCmdline(pid_t pid) {
    auto text = ReadWholeFile("/proc/" + std::to_string(pid) + "/cmdline");
    if (!text) return "";
    std::string out = *text;
    while (!out.empty() && out.back() == '\0') out.pop_back();
    for (char& c : out)
        if (c == '\0') c = ' ';
    return out;
}

pid_t ParentOf(pid_t pid) {
    char state = '?';
    pid_t ppid = -1;
    if (!ReadStat(pid, &state, &ppid)) return -1;
    return ppid;
}

namespace {
long ReadProcLong(const char* path) {
    std::ifstream in(path);
    long v = -1;
    in >> v;
    return in ? v : -1;
}

bool WriteProcLong(const char* path, long v) {
    std::ofstream out(path);
    out << v;
    out.flush();
    return static_cast<bool>(out);
}
}  // namespace

std::vector<std::string> EnsureQueueLimits() {
    static constexpr const char* kMax = "/proc/sys/kernel/msgmax";
    static constexpr const char* kMnb = "/proc/sys/kernel/msgmnb";
    long mx = ReadProcLong(kMax), mnb = ReadProcLong(kMnb);
    if (geteuid() == 0) {
        if (mx >= 0 && mx < kNeedMsgMax) WriteProcLong(kMax, kNeedMsgMax);
        if (mnb >= 0 && mnb < kNeedMsgMnb) WriteProcLong(kMnb, kNeedMsgMnb);
        mx = ReadProcLong(kMax);
        mnb = ReadProcLong(kMnb);
    }
    std::vector<std::string> lines;
    if (mx < kNeedMsgMax)
        lines.push_back("kernel.msgmax is " + std::to_string(mx) + "; 64 KiB messages need at least " +
                        std::to_string(kNeedMsgMax) + " (as root: sysctl -w kernel.msgmax=" +
                        std::to_string(kNeedMsgMax) + ")");
    if (mnb < kNeedMsgMnb)
        lines.push_back("kernel.msgmnb is " + std::to_string(mnb) + "; each queue should hold at least " +
                        std::to_string(kNeedMsgMnb) + " bytes (as root: sysctl -w kernel.msgmnb=" +
                        std::to_string(kNeedMsgMnb) + ")");
    return lines;
}

}  // namespace kit
