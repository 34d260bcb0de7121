// Keeps a burst of one failure from burying a log and eating the process's
// CPU: of identical lines (the same log file, level or code, text and dump)
// only the first few of each second are written; once that second is over,
// one summary line gives the count of those left out. A line that is left out
// costs a hash and a table look-up instead of an open, a lock, a write and a
// close of the log file.
//
// The trace log (SysWriteLog, and so writelog, writelog2, wlog and the
// connection logs) and the error log (ErrLog) both pass their lines through
// the process's gate. Summaries are written when the next line of any text
// comes, and by the mode loop once a second and before the process ends, so
// a count is never held back for long.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace comp::log {

inline constexpr int kDefaultRepeatLimit = 5;          // identical lines written per window
inline constexpr int64_t kRepeatWindowUsec = 1000000;  // the window: one second from its first line
inline constexpr size_t kRepeatTextKept = 256;         // bytes of the line repeated in its summary

// A summary that is due: `count` lines like `text` were left out in a
// window whose lines came over `spanUsec`.
struct LeftOut {
    using Writer = void (*)(const LeftOut&);
    Writer write = nullptr;   // the log's own writer of the summary line
    std::string where;        // the log's file (trace), "" for the error log
    int level = 0;            // the trace level, or the error code
    int dest = 0;             // the error log's destinations
    std::string text;         // the line, cut to kRepeatTextKept bytes
    int count = 0;
    int64_t spanUsec = 0;
};

// One line offered to the gate: its log and text, kept for the summary
// when a window of it is the first.
struct LineInfo {
    LeftOut::Writer write = nullptr;
    std::string_view where;
    int level = 0;
    int dest = 0;
    std::string_view text;
};

// The bookkeeping, without clock or files: a small table of the lines seen
// lately, least recently seen evicted first (its count, if any, becomes due
// at once).
class RepeatGate {
public:
    explicit RepeatGate(size_t slots = 64) : slots_(slots) {}
    // Identical lines written per window; 0 writes every line.
    void SetLimit(int iLimit) { limit_ = iLimit < 0 ? 0 : iLimit; }
    int Limit() const { return limit_; }
    // Whether the line of this key is written now.
    bool Admit(uint64_t key, int64_t lNowUsec, const LineInfo& line);
    // Moves the summaries of the windows that have ended by lNowUsec (all of
    // them with bAll) to out, in the order their lines first came.
    void TakeEnded(int64_t lNowUsec, bool bAll, std::vector<LeftOut>* out);
    void Clear();

private:
    struct Slot {
        uint64_t key = 0;
        int64_t start = 0;      // the window's first line
        int64_t lastSeen = 0;
        int64_t lastLeft = 0;   // the window's last line left out
        int seen = 0;           // lines of the window
        LeftOut proto;
    };
    void Due(Slot& s, std::vector<LeftOut>* out);

    size_t slots_;
    int limit_ = kDefaultRepeatLimit;
    std::vector<Slot> table_;
    std::vector<LeftOut> evicted_;
};

// The key of one line: hashed over the log, the level or code, the text and
// the dump.
uint64_t LineKey(char cLog, std::string_view where, int iLevel, std::string_view text, const void* pvDump,
                 int iDumpLen);

// ---- the process's gate -------------------------------------------------

// Whether this line is written, after writing the summaries that are due.
// Used by the two writers.
bool AdmitLine(uint64_t key, const LineInfo& line);
// Writes the summaries that are due (all of them with bAll).
void FlushRepeats(bool bAll = false);
// Identical lines written per second (COMP_LOG_REPEATS of app.cfg); 0 turns
// the gate off.
void SetRepeatLimit(int iLimit);
// The gate's clock in microseconds (monotonic by default); tests set their own.
void SetRepeatClock(int64_t (*pfNowUsec)());

}  // namespace comp::log
