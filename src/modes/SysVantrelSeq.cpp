// The sequence controllers of the station link. Each is a table of rules
// tried in order; the first rule whose step, code and guard match a frame
// decides: its log lines, the new step, expected and pending codes, the
// commands sent to TranP, and the result. Each rule carries its own source
// line, which the log lines print.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <algorithm>

#include "base/SysGlobals.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "modes/SysVantrel.h"

namespace comp::vantrel {

namespace {

constexpr int kAnyStep = -100;
constexpr int32_t kKeep = -100;   // leave the step, expected or pending code as it is

// Conditions beyond the step and the code.
enum class Guard : uint8_t {
    kNone,
    kClassNot4,          // class of the frame is not 4
    kAccepted,           // connection feedback: byte 57 non-zero
    kRejected,           // connection feedback: byte 57 zero
    kExpect520C,         // expected code is 0x0400520C
    kFlagSet,            // parameter flag set
    kFlagClear,          // parameter flag clear
    kValue41Is3,         // 16-bit value at offset 41 is 3
    kSelect0Step0,       // byte 41 is 0 and the step is 0
    kSelect1Step4,       // byte 41 is 1 and the step is 4
    kSelect2Step0,       // byte 41 is 2 and the step is 0
    kSelect3Step5,       // byte 41 is 3 and the step is 5
    kPendingNone,        // pending code is -1
    kPending5401,        // pending code is 0x04005401
    kPendingDone,        // pending code is -2
    kPendingBiz,         // pending code is 0x0300520D
    kPendingNotBiz,      // pending code is not 0x0300520D
    kPendingSeqAck,      // pending code is 0x05003101
    kPendingOther,       // pending code is neither of the two
    kCodeIsPendingAck,   // the code is the pending code, and that is 0x05003101
    kCodeIsPending,      // the code is the pending code
};

// Arguments of a log line after the source name and line.
enum class LogArgs : uint8_t {
    kNone,      // "[%s,%d]..."
    kCode,      // "[%s,%d]...[%s]" with the code
    kFnCode,    // "[%s,%d,%s]...[%s]" with the routine and the code
    kFnCodeIp,  // "[%s,%d,%s]...[%s]%s" with the routine, the code and the peer
    kFnStep,    // "[%s,%d,%s]...%d, %s" with the routine, the step and the code
    kBare,      // a text without arguments
};

struct LogLine {
    const char* fmt = nullptr;
    LogArgs args = LogArgs::kNone;
    bool error = false;   // to the error log; else the trace log
};

enum : unsigned {
    kStoreIdentity = 1u << 0,   // keep the frame's identity (a "0400520C")
    kCopyIdentity = 1u << 1,    // write the kept identity into the body at 39
    kSetFlag = 1u << 2,         // the parameter flag := 1
    kClearFlag = 1u << 3,       // the parameter flag := 0
    kEndSequence = 1u << 4,     // the connection sequence is over: start time cleared
};

struct Rule {
    int line;
    int step;                     // kAnyStep: every step
    const char* codes[3] = {};    // none: any code; '?' matches any character
    Guard guard = Guard::kNone;
    int32_t toStep = kKeep;
    int32_t toExpected = kKeep;
    int32_t toPending = kKeep;
    unsigned flags = 0;
    uint32_t cmds[2] = {};
    LogLine logs[2] = {};
    int result = 0;
};

constexpr LogLine kNotSeq{"[%s,%d]收到非时序消息[%s]", LogArgs::kCode, true};
constexpr LogLine kNotSeqFn{"[%s,%d,%s]收到非时序消息[%s]", LogArgs::kFnCode, true};

// Frames received from the peer.
constexpr Rule kRcvRules[] = {
    {.line = __LINE__, .step = 0, .codes = {"04005204"}, .toStep = 6, .result = 6},
    {.line = __LINE__, .step = 0, .codes = {"0400520C"}, .toStep = 2, .toExpected = kDone, .toPending = 0x04005401,
     .flags = kStoreIdentity | kSetFlag, .cmds = {kCmdSeqBegin}, .result = 2},
    {.line = __LINE__, .step = 0, .result = 0},

    {.line = __LINE__, .step = 1, .codes = {"00FF5109"}, .guard = Guard::kRejected,
     .logs = {{"[%s,%d,%s]收到连接请求反馈消息[%s]", LogArgs::kFnCode, true}, {"[%s,%d]连接请求不通过", LogArgs::kNone, true}},
     .result = -1},
    {.line = __LINE__, .step = 1, .codes = {"00FF5109"}, .guard = Guard::kAccepted, .toStep = 2,
     .toExpected = 0x0400520C, .toPending = kNone, .logs = {{"[%s,%d]连接请求时序完成,进行参数时序"}}, .result = 99},
    {.line = __LINE__, .step = 1, .logs = {kNotSeq}, .result = -1},

    {.line = __LINE__, .step = 2, .guard = Guard::kClassNot4, .logs = {kNotSeq}, .result = -1},
    {.line = __LINE__, .step = 2, .codes = {"0400520C"}, .guard = Guard::kExpect520C, .toExpected = kDone,
     .toPending = 0x04005401, .flags = kStoreIdentity, .result = 2},
    {.line = __LINE__, .step = 2, .guard = Guard::kExpect520C, .logs = {kNotSeq}, .result = -1},
    {.line = __LINE__, .step = 2, .codes = {"0400550E"}, .guard = Guard::kFlagSet, .toStep = 0, .toExpected = kNone,
     .toPending = kNone, .flags = kClearFlag, .cmds = {kCmdSeqEnd}, .result = 99},
    {.line = __LINE__, .step = 2, .codes = {"0400550E"}, .guard = Guard::kFlagClear, .toStep = 3,
     .toExpected = kNone, .toPending = 0x05003101, .cmds = {kCmdSeqAck},
     .logs = {{"[%s,%d]收到时序消息[%s],参数同步结束", LogArgs::kCode}}, .result = 99},
    {.line = __LINE__, .step = 2, .codes = {"0400550C", "0400520D", "04005107"},
     .logs = {{"[%s,%d]收到时序消息,交给Tranp[%s]", LogArgs::kCode}}, .result = 2},
    {.line = __LINE__, .step = 2, .logs = {kNotSeq}, .result = -1},

    {.line = __LINE__, .step = 3, .codes = {"0400550E"}, .toStep = 0, .toExpected = kNone, .toPending = kNone,
     .flags = kEndSequence, .cmds = {kCmdSeqAck, kCmdSeqEnd},
     .logs = {{"[%s,%d]收到时序消息.连接时序结束[%s]", LogArgs::kCode}}, .result = 99},
    {.line = __LINE__, .step = 3, .codes = {"04005204", "04005206", "04005207"}, .toExpected = kNone,
     .toPending = 0x05003102, .logs = {{"[%s,%d]收到时序消息[%s]", LogArgs::kCode}}, .result = 3},
    {.line = __LINE__, .step = 3, .logs = {{"[%s,%d]收到非时序消息.[%s]", LogArgs::kCode, true}}, .result = -1},

    {.line = __LINE__, .step = 4, .logs = {{"[%s,%d]收到非时序消息,运营开始时序未完成.[%s]", LogArgs::kCode, true}},
     .result = -1},

    {.line = __LINE__, .step = 5, .codes = {"0400550E"}, .guard = Guard::kValue41Is3, .toExpected = kDone,
     .toPending = 0x05003101, .cmds = {kCmdSeqAck}, .result = 99},
    {.line = __LINE__, .step = 5, .codes = {"0400550E"},
     .logs = {{"[%s,%d]收到非时序消息,运营结束时序未完成.[%s]", LogArgs::kCode, true}}, .result = -1},
    {.line = __LINE__, .step = 5, .codes = {"04005201"},
     .logs = {{"[%s,%d]收到时序消息:上传指定包编号数据[%s]", LogArgs::kCode}}, .result = 5},
    {.line = __LINE__, .step = 5, .logs = {{"[%s,%d]收到非时序消息,运营结束时序未完成.[%s]", LogArgs::kCode, true}},
     .result = -1},

    {.line = __LINE__, .step = 6,
     .logs = {{"[%s,%d]收到非时序消息,运营模式改变时序未完成.[%s]", LogArgs::kCode, true}}, .result = -1},

    {.line = __LINE__, .step = kAnyStep, .result = 0},
};

// Frames TranP wants sent to the peer.
constexpr Rule kSndRules[] = {
    {.line = __LINE__, .step = kAnyStep, .codes = {"04005509"}, .guard = Guard::kSelect0Step0, .toStep = 4,
     .toPending = 0x05003101, .cmds = {kCmdSeqBegin, kCmdSeqAck}, .result = 4},
    {.line = __LINE__, .step = kAnyStep, .codes = {"04005509"}, .guard = Guard::kSelect1Step4, .toStep = 0,
     .toExpected = kNone, .toPending = kNone, .cmds = {kCmdSeqEnd}, .logs = {{"运营开始时序结束", LogArgs::kBare}},
     .result = 4},
    {.line = __LINE__, .step = kAnyStep, .codes = {"04005509"}, .guard = Guard::kSelect2Step0, .toStep = 5,
     .toPending = 0x0300520D, .cmds = {kCmdSeqBegin, kCmdBizOpen}, .result = 5},
    {.line = __LINE__, .step = kAnyStep, .codes = {"04005509"}, .guard = Guard::kSelect3Step5, .toStep = 0,
     .toExpected = kNone, .toPending = kNone, .cmds = {kCmdSeqEnd}, .logs = {{"运营结束时序结束", LogArgs::kBare}},
     .result = 4},
    {.line = __LINE__, .step = kAnyStep, .codes = {"04005509"}, .logs = {kNotSeqFn}, .result = -1},

    {.line = __LINE__, .step = 0, .result = 0},

    {.line = __LINE__, .step = 1, .codes = {"02000FFF", "03000FFF"},
     .logs = {{"[%s,%d,%s]收到交易或业务数据,忽略[%s]%s", LogArgs::kFnCodeIp, true}}, .result = -1},
    {.line = __LINE__, .step = 1, .codes = {"00FF5109"}, .toExpected = 0x00FF5109, .result = 1},
    {.line = __LINE__, .step = 1, .logs = {kNotSeqFn}, .result = -1},

    {.line = __LINE__, .step = 2, .codes = {"02000FFF", "03000FFF"}, .guard = Guard::kPendingNone,
     .logs = {{"[%s,%d,%s]收到交易或业务数据,忽略[%s]", LogArgs::kFnCode, true}}, .result = -1},
    {.line = __LINE__, .step = 2, .codes = {"04005401"}, .guard = Guard::kPending5401, .toPending = kDone,
     .flags = kCopyIdentity, .result = 2},
    {.line = __LINE__, .step = 2, .codes = {"02000FFF", "03000FFF"}, .guard = Guard::kPending5401,
     .logs = {{"[%s,%d,%s]收到交易或业务数据,[%s]忽略", LogArgs::kFnCode, true}}, .result = -1},
    {.line = __LINE__, .step = 2, .codes = {"04005401"}, .guard = Guard::kPendingDone, .flags = kCopyIdentity,
     .logs = {{"[%s,%d,%s]上传参数时序消息[%s]", LogArgs::kFnCode}}, .result = 2},
    {.line = __LINE__, .step = 2, .codes = {"04005107"}, .guard = Guard::kPendingDone,
     .logs = {{"[%s,%d,%s]上传参数时序消息[%s]", LogArgs::kFnCode}}, .result = 2},
    {.line = __LINE__, .step = 2, .logs = {kNotSeqFn}, .result = -1},

    {.line = __LINE__, .step = 3, .guard = Guard::kCodeIsPendingAck, .toPending = kDone, .result = 3},
    {.line = __LINE__, .step = 3, .guard = Guard::kCodeIsPending,
     .logs = {{"[%s,%d,%s]上传运营控制时序消息[%s]", LogArgs::kFnCode}}, .result = 3},
    {.line = __LINE__, .step = 3, .logs = {kNotSeqFn}, .result = -1},

    {.line = __LINE__, .step = 4, .codes = {"05003101"}, .cmds = {kCmdOpControl}, .result = 4},
    {.line = __LINE__, .step = 4, .logs = {kNotSeqFn}, .result = -1},

    {.line = __LINE__, .step = 5, .codes = {"0300520D"}, .guard = Guard::kPendingBiz, .toPending = kNone,
     .result = 5},
    {.line = __LINE__, .step = 5, .guard = Guard::kPendingBiz, .logs = {kNotSeqFn}, .result = -1},
    {.line = __LINE__, .step = 5, .codes = {"0300520D", "0200????"}, .guard = Guard::kPendingNotBiz,
     .logs = {{"[%s,%d,%s]收到时序消息[%s]", LogArgs::kFnCode}}, .result = 5},
    {.line = __LINE__, .step = 5, .codes = {"05003101"}, .guard = Guard::kPendingSeqAck, .toPending = kNone,
     .cmds = {kCmdOpEndAck}, .result = 5},
    {.line = __LINE__, .step = 5, .guard = Guard::kPendingSeqAck, .logs = {kNotSeqFn}, .result = -1},
    {.line = __LINE__, .step = 5, .guard = Guard::kPendingOther,
     .logs = {{"[%s,%d,%s]收到非时序消息,运营结束未完成[%s]", LogArgs::kFnCode, true}}, .result = -1},

    {.line = __LINE__, .step = 6, .codes = {"04005504"}, .toStep = 0, .toExpected = kNone, .toPending = kNone,
     .result = 6},
    {.line = __LINE__, .step = 6, .logs = {kNotSeqFn}, .result = -1},

    {.line = __LINE__, .step = kAnyStep, .logs = {{"[%s,%d,%s]分支错误 step=%d, %s", LogArgs::kFnStep, true}},
     .result = -1},
};

// What a rule is tried against.
struct Subject {
    const VantrelSock& conn;
    const FrameView& frame;
    const char* code;
};

bool CodeMatches(const char* pattern, const char* code) {
    for (int i = 0; i < 8; ++i)
        if (pattern[i] != '?' && pattern[i] != code[i]) return false;
    return true;
}

bool GuardHolds(Guard g, const Subject& s) {
    const VantrelSock& c = s.conn;
    const int select = s.frame.At(kSelectAt);
    switch (g) {
    case Guard::kNone: return true;
    case Guard::kClassNot4: return s.frame.Class() != kClassControl;
    case Guard::kAccepted: return s.frame.At(kAcceptedAt) != 0;
    case Guard::kRejected: return s.frame.At(kAcceptedAt) == 0;
    case Guard::kExpect520C: return c.expected == 0x0400520C;
    case Guard::kFlagSet: return Link().paramFlag != 0;
    case Guard::kFlagClear: return Link().paramFlag == 0;
    case Guard::kValue41Is3: return s.frame.U16(kSelectAt) == 3;
    case Guard::kSelect0Step0: return select == 0 && c.step == kStepIdle;
    case Guard::kSelect1Step4: return select == 1 && c.step == kStepOpStart;
    case Guard::kSelect2Step0: return select == 2 && c.step == kStepIdle;
    case Guard::kSelect3Step5: return select == 3 && c.step == kStepOpEnd;
    case Guard::kPendingNone: return c.pending == kNone;
    case Guard::kPending5401: return c.pending == 0x04005401;
    case Guard::kPendingDone: return c.pending == kDone;
    case Guard::kPendingBiz: return c.pending == 0x0300520D;
    case Guard::kPendingNotBiz: return c.pending != 0x0300520D;
    case Guard::kPendingSeqAck: return c.pending == 0x05003101;
    case Guard::kPendingOther: return c.pending != 0x0300520D && c.pending != 0x05003101;
    case Guard::kCodeIsPendingAck: return c.pending == 0x05003101 && CodeValue(s.code) == 0x05003101u;
    case Guard::kCodeIsPending: {
        char pending[16];
        std::snprintf(pending, sizeof pending, "%08X", static_cast<uint32_t>(c.pending));
        return std::strcmp(pending, s.code) == 0;
    }
    }
    return false;
}

bool Matches(const Rule& r, const Subject& s) {
    if (r.step != kAnyStep && r.step != s.conn.step) return false;
    if (r.codes[0] != nullptr) {
        bool any = false;
        for (const char* p : r.codes) any = any || (p != nullptr && CodeMatches(p, s.code));
        if (!any) return false;
    }
    return GuardHolds(r.guard, s);
}

const Rule& FirstMatch(std::span<const Rule> rules, const Subject& s) {
    for (const Rule& r : rules)
        if (Matches(r, s)) return r;
    return rules.back();
}

void WriteLog(const LogLine& l, int line, const char* fn, const VantrelSock& c, const char* code) {
    char text[512];
    switch (l.args) {
    case LogArgs::kNone: std::snprintf(text, sizeof text, l.fmt, SRC_NAME, line); break;
    case LogArgs::kCode: std::snprintf(text, sizeof text, l.fmt, SRC_NAME, line, code); break;
    case LogArgs::kFnCode: std::snprintf(text, sizeof text, l.fmt, SRC_NAME, line, fn, code); break;
    case LogArgs::kFnCodeIp: {
        char ip[sizeof c.peerIp + 1] = {0};
        std::memcpy(ip, c.peerIp, sizeof c.peerIp);
        std::snprintf(text, sizeof text, l.fmt, SRC_NAME, line, fn, code, ip);
        break;
    }
    case LogArgs::kFnStep: std::snprintf(text, sizeof text, l.fmt, SRC_NAME, line, fn, c.step, code); break;
    case LogArgs::kBare: std::snprintf(text, sizeof text, "%s", l.fmt); break;
    }
    if (l.error)
        COMP_ERRLOG("%s", text);
    else
        writelog(LOG_INFO, nullptr, 0, "%s", text);
}

// Applies a rule to a connection: identity is the frame's (kept by
// kStoreIdentity), frame the frame to be sent (written by kCopyIdentity).
// The rule's result, or -2 when a command could not be sent.
int Apply(const Rule& r, const char* fn, VantrelSock& c, const unsigned char* identity, unsigned char* frame, int len,
          const char* code) {
    for (const LogLine& l : r.logs)
        if (l.fmt != nullptr) WriteLog(l, r.line, fn, c, code);
    LinkState& link = Link();
    if (r.toStep != kKeep) c.step = r.toStep;
    if (r.toExpected != kKeep) c.expected = r.toExpected;
    if (r.toPending != kKeep) c.pending = r.toPending;
    if (r.flags & kStoreIdentity) std::memcpy(link.storedIdentity, identity, kIdentityLen);
    if ((r.flags & kCopyIdentity) && frame != nullptr) {
        // Into the body only: a frame too short for the whole identity gets
        // what fits before its CRC.
        const int room = len - kOverhead;
        if (room > 0) std::memcpy(frame + kBodyAt, link.storedIdentity, static_cast<size_t>(std::min(room, kIdentityLen)));
    }
    if (r.flags & kSetFlag) link.paramFlag = 1;
    if (r.flags & kClearFlag) link.paramFlag = 0;
    if (r.flags & kEndSequence) link.seqStart = 0;
    for (uint32_t cmd : r.cmds) {
        if (cmd == 0) continue;
        int rc = link.sink ? link.sink(cmd) : SysTimeSeqCmd2TranP(cmd);
        if (rc != 0) {
            COMP_ERRLOG("[%s,%d]SysTimeSeqCmd2TranP err.errno=%d,errmsg:[%s]", SRC_NAME, r.line, errno,
                        std::strerror(errno));
            return -2;
        }
    }
    return r.result;
}

// Forms the frame's code (logged under the controller fn); false, after
// "收到非法消息", when the frame has none.
bool CodeOf(const char* pcFrame, const char* fn, const char* pcSeenFmt, char (&code)[16]) {
    if (SysGetVantrelMsgType(pcFrame, code) != 0) {
        COMP_ERRLOG("[%s,%d,%s]收到非法消息[%s]", SRC_NAME, __LINE__, fn, code);
        return false;
    }
    writelog(LOG_DEBUG, nullptr, 0, pcSeenFmt, SRC_NAME, __LINE__, fn, code);
    return true;
}

}  // namespace

}  // namespace comp::vantrel

using namespace comp::vantrel;

extern "C" {

int SysSeqRcvCtl(VantrelSock* pstConn, const char* pcHeader, const char* pcFrame) {
    uint32_t len = 0;
    std::memcpy(&len, pcFrame + kLenAt, sizeof len);
    const FrameView f(pcFrame, static_cast<int>(std::min<uint32_t>(len, comp::kQueueTextLen)));
    char code[16] = {0};
    if (!CodeOf(pcFrame, __func__, "[%s,%d,%s]取到msg type =%s", code)) return -1;
    const Rule& r = FirstMatch(kRcvRules, Subject{*pstConn, f, code});
    return Apply(r, __func__, *pstConn, reinterpret_cast<const unsigned char*>(pcHeader) + kIdentityAt, nullptr, 0,
                 code);
}

int SysSeqSndCtl(VantrelSock* pstConn, char* pcFrame, int iLen) {
    const FrameView f(pcFrame, iLen);
    char code[16] = {0};
    if (!CodeOf(pcFrame, __func__, "[%s,%d,%s]收到消息[%s]", code)) return -1;
    const Rule& r = FirstMatch(kSndRules, Subject{*pstConn, f, code});
    auto* frame = reinterpret_cast<unsigned char*>(pcFrame);
    return Apply(r, __func__, *pstConn, frame + kIdentityAt, frame, iLen, code);
}

}  // extern "C"
