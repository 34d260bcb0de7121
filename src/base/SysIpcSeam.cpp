#include "base/SysIpcSeam.h"

#include <cerrno>
#include <string_view>

namespace comp::seam {

namespace {

constexpr const char* kCallNames[kIpcCallCount] = {"msgsnd", "msgrcv", "shmat",    "accept",  "send",
                                                   "recv",   "fiforead", "fifowrite", "logwrite"};

struct ErrnoName {
    const char* name;
    int value;
};
constexpr ErrnoName kErrnoNames[] = {
    {"EAGAIN", EAGAIN},   {"EIDRM", EIDRM},     {"EINVAL", EINVAL},         {"ENOMEM", ENOMEM},
    {"EMFILE", EMFILE},   {"ENFILE", ENFILE},   {"ECONNABORTED", ECONNABORTED}, {"EPIPE", EPIPE},
    {"ECONNRESET", ECONNRESET}, {"ENOSPC", ENOSPC}, {"EINTR", EINTR},       {"EIO", EIO},
    {"EACCES", EACCES},   {"EBADF", EBADF},     {"ENOENT", ENOENT},         {"E2BIG", E2BIG},
    {"ENOMSG", ENOMSG},   {"EDQUOT", EDQUOT},   {"ETIMEDOUT", ETIMEDOUT},
};

bool g_bInHook = false;

// "<before>[<text>]<after>", built by appending: the one-expression
// concatenation trips a false -Wrestrict of GCC 12 at -O3.
std::string Quoted(const char* pcBefore, std::string_view text, const char* pcAfter) {
    std::string out(pcBefore);
    out += '[';
    out.append(text);
    out += ']';
    out += pcAfter;
    return out;
}

// A decimal integer that is the whole of text.
bool WholeInt(std::string_view text, int* pOut) {
    if (text.empty() || text.size() > 9) return false;
    bool neg = text[0] == '-';
    if (neg) text.remove_prefix(1);
    if (text.empty()) return false;
    int v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        v = v * 10 + (c - '0');
    }
    *pOut = neg ? -v : v;
    return true;
}

bool ParseErrno(std::string_view text, int* pOut) {
    for (const ErrnoName& e : kErrnoNames)
        if (text == e.name) return *pOut = e.value, true;
    return WholeInt(text, pOut) && *pOut > 0;
}

bool ParseEntry(std::string_view entry, IpcCall* pCall, int* pNth, int* pErr, int* pTimes, std::string* pWhy) {
    std::string_view part[4];
    int n = 0;
    for (size_t start = 0;; ++n) {
        size_t colon = entry.find(':', start);
        if (n == 4) {
            *pWhy = Quoted("too many fields in ", entry, "");
            return false;
        }
        part[n] = entry.substr(start, colon == std::string_view::npos ? std::string_view::npos : colon - start);
        if (colon == std::string_view::npos) {
            ++n;
            break;
        }
        start = colon + 1;
    }
    if (n < 3) {
        *pWhy = Quoted("", entry, " is not kind:nth:errno[:times]");
        return false;
    }
    int k = 0;
    while (k < kIpcCallCount && part[0] != kCallNames[k]) ++k;
    if (k == kIpcCallCount) {
        *pWhy = Quoted("unknown call kind ", part[0], "");
        return false;
    }
    *pCall = static_cast<IpcCall>(k);
    if (!WholeInt(part[1], pNth) || *pNth < 1) {
        *pWhy = Quoted("call number ", part[1], " is not a number from 1");
        return false;
    }
    if (!ParseErrno(part[2], pErr)) {
        *pWhy = Quoted("unknown errno ", part[2], "");
        return false;
    }
    *pTimes = 1;
    if (n == 4 && (!WholeInt(part[3], pTimes) || *pTimes == 0 || *pTimes < -1)) {
        *pWhy = Quoted("times ", part[3], " is not -1 or a number from 1");
        return false;
    }
    return true;
}

}  // namespace

bool ArmedCallFails(IpcCall eCall) {
    // The hook's own calls (its log write) pass and are not counted, so the
    // line that tells of a failure is written even while the log's writes fail.
    if (g_bInHook) return false;
    IpcFault& f = g_astIpcFault[eCall];
    ++f.iCalls;
    if (f.iSkip > 0) {
        --f.iSkip;
        return false;
    }
    if (f.iFailCount > 0) --f.iFailCount;
    const int iErr = f.iErrno;
    if (g_pfFaultHook != nullptr) {
        g_bInHook = true;
        g_pfFaultHook(eCall, f.iCalls, iErr);
        g_bInHook = false;
    }
    errno = iErr;
    return true;
}

const char* CallName(IpcCall eCall) {
    return eCall >= 0 && eCall < kIpcCallCount ? kCallNames[eCall] : "?";
}

bool ArmFaultsFromText(const char* pcText, std::string* pWhy) {
    struct Armed {
        IpcCall call;
        int nth, err, times;
    };
    Armed armed[kIpcCallCount];
    bool seen[kIpcCallCount] = {};
    int count = 0;
    std::string_view all = pcText != nullptr ? pcText : "";
    for (size_t start = 0; start <= all.size();) {
        size_t comma = all.find(',', start);
        std::string_view entry =
            all.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
        start = comma == std::string_view::npos ? all.size() + 1 : comma + 1;
        if (entry.empty()) continue;
        Armed a{};
        if (!ParseEntry(entry, &a.call, &a.nth, &a.err, &a.times, pWhy)) return false;
        if (seen[a.call]) {
            *pWhy = std::string("kind ") + kCallNames[a.call] + " armed twice";
            return false;
        }
        seen[a.call] = true;
        armed[count++] = a;
    }
    if (count == 0) {
        *pWhy = "no fault given";
        return false;
    }
    for (int i = 0; i < count; ++i) FailNthCall(armed[i].call, armed[i].nth, armed[i].err, armed[i].times);
    return true;
}

}  // namespace comp::seam
