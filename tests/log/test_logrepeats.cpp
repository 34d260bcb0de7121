// Floods of one line: the gate's windows, keys and summaries, and both log
// writers with it (the first lines written as they are, one summary with the
// count of those left out, a record that ends the process never held back).
#include <string>
#include <vector>

#include "UnitFixture.h"
#include "log/ErrLog.h"
#include "log/LogRepeats.h"
#include "log/SysTraceLog.h"

namespace {

using comp::log::LeftOut;
using comp::log::LineInfo;
using comp::log::RepeatGate;

constexpr int64_t kSec = 1000000;

int Count(const std::string& text, const std::string& part) {
    int n = 0;
    for (size_t p = text.find(part); p != std::string::npos; p = text.find(part, p + 1)) ++n;
    return n;
}

LineInfo Line(std::string_view text) { return LineInfo{nullptr, "f", 4, 0, text}; }

TEST(RepeatGate, writes_the_first_lines_of_a_second_and_counts_the_rest) {
    RepeatGate g;
    g.SetLimit(3);
    int written = 0;
    for (int i = 0; i < 10; ++i) written += g.Admit(1, 100 + i * 1000, Line("same")) ? 1 : 0;
    EXPECT_EQ(written, 3);
    EXPECT_TRUE(g.Admit(2, 20000, Line("other"))) << "another text has a window of its own";

    std::vector<LeftOut> due;
    g.TakeEnded(kSec - 1, false, &due);
    EXPECT_TRUE(due.empty()) << "the window is not over yet";
    g.TakeEnded(100 + kSec, false, &due);
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].count, 7);
    EXPECT_EQ(due[0].text, "same");
    EXPECT_EQ(due[0].where, "f");
    EXPECT_EQ(due[0].spanUsec, 9000);

    // The next second starts a new window: written again, nothing more due.
    EXPECT_TRUE(g.Admit(1, 200 + kSec, Line("same")));
    due.clear();
    g.TakeEnded(10 * kSec, false, &due);
    EXPECT_TRUE(due.empty());
}

TEST(RepeatGate, an_evicted_or_flushed_count_is_not_lost_and_limit_zero_writes_all) {
    RepeatGate g(2);
    g.SetLimit(1);
    g.Admit(1, 0, Line("a"));
    g.Admit(1, 1, Line("a"));   // left out
    g.Admit(2, 2, Line("b"));
    g.Admit(3, 3, Line("c"));   // the table holds two: "a" goes, its count becomes due
    std::vector<LeftOut> due;
    g.TakeEnded(4, false, &due);
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].text, "a");
    EXPECT_EQ(due[0].count, 1);

    g.Admit(3, 5, Line("c"));
    due.clear();
    g.TakeEnded(6, true, &due);   // everything, as before the process ends
    ASSERT_EQ(due.size(), 1u);
    EXPECT_EQ(due[0].text, "c");

    g.SetLimit(0);
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(g.Admit(9, 10, Line("x")));
}

TEST(RepeatGate, keys_tell_logs_levels_texts_and_dumps_apart) {
    using comp::log::LineKey;
    const uint64_t k = LineKey('E', "", 1000, "text", "ab", 2);
    EXPECT_EQ(k, LineKey('E', "", 1000, "text", "ab", 2));
    EXPECT_NE(k, LineKey('T', "", 1000, "text", "ab", 2));
    EXPECT_NE(k, LineKey('E', "p", 1000, "text", "ab", 2));
    EXPECT_NE(k, LineKey('E', "", 1001, "text", "ab", 2));
    EXPECT_NE(k, LineKey('E', "", 1000, "texT", "ab", 2));
    EXPECT_NE(k, LineKey('E', "", 1000, "text", "aB", 2));
    EXPECT_NE(k, LineKey('E', "", 1000, "text", nullptr, 0));
}

// The writers, on a clock of the test's own.
int64_t g_now = 0;
int64_t TestNow() { return g_now; }

class LogFlood : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        g_now = 1000 * kSec;
        comp::log::SetRepeatClock(TestNow);
        g_stProcState.stLog.iTraceLevel = 1;
    }
};

TEST_F(LogFlood, error_log_writes_five_records_then_one_summary_with_the_count) {
    for (int i = 0; i < 1500; ++i) {
        std::snprintf(g_caMsg, sizeof g_caMsg, "[%s,%d]Too many communication node.", "SysTCPTS", 183);
        ErrLog(1000, g_caMsg, ERRLOG_FILE, nullptr, 0);
        g_now += 100;
    }
    EXPECT_EQ(Count(Logs(), "[SysTCPTS,183]Too many communication node.\n"), comp::log::kDefaultRepeatLimit);
    EXPECT_EQ(Count(Logs(), "left out"), 0) << "the count waits for the end of the second";

    g_now += kSec;
    comp::log::FlushRepeats();
    EXPECT_TRUE(Logged("left out 1495 identical lines in 149 ms: [SysTCPTS,183]Too many communication node.\n"))
        << Logs();
    // A record of its own: the summary is a full record of the same code.
    EXPECT_EQ(Count(Logs(), "| Message:\n"), comp::log::kDefaultRepeatLimit + 1);

    // The next burst is written again from its first line.
    ErrLog(1000, "[SysTCPTS,183]Too many communication node.", ERRLOG_FILE, nullptr, 0);
    EXPECT_EQ(Count(Logs(), "| Message:\n[SysTCPTS,183]Too many communication node.\n"),
              comp::log::kDefaultRepeatLimit + 1);
}

TEST_F(LogFlood, trace_and_connection_log_failures_are_gated_per_file_and_level) {
    const std::string conn = run.file("conn.log");
    for (int i = 0; i < 20; ++i) {
        writelog(LOG_ERROR, "ab", 2, "[%s,%d]fd=%d closed", "SysTCPPAS", 7, 5);
        writelog2(LOG_ERROR, conn.c_str(), nullptr, 0, "[%s,%d]fd=%d closed", "SysTCPPAS", 7, 5);
        writelog2(LOG_INFO, conn.c_str(), nullptr, 0, "-----ENDC<<<");   // the normal flow is never gated
        writelog(LOG_ERROR, nullptr, 0, "[%s,%d]fd=%d gone", "SysTCPPAS", 7, i);   // all different
        g_now += 100;
    }
    g_now += kSec;
    // Any line after the window writes the counts that are due first.
    wlog("next");
    const std::string trace = Logs();
    EXPECT_EQ(Count(trace, "MSG:[SysTCPPAS,7]fd=5 closed\n"), comp::log::kDefaultRepeatLimit);
    EXPECT_EQ(Count(trace, " gone\n"), 20);
    EXPECT_EQ(Count(trace, "MSG:[SysTraceLog,"), 1);
    EXPECT_TRUE(comptest::Contains(trace, "left out 15 identical lines in 1 ms: [SysTCPPAS,7]fd=5 closed\n"));
    EXPECT_LT(trace.find("left out"), trace.find("MSG:next")) << "the counts come before the line that found them due";
    const std::string connLog = comptest::ReadFile(conn);
    EXPECT_EQ(Count(connLog, "ERROR:"), comp::log::kDefaultRepeatLimit + 1);
    EXPECT_EQ(Count(connLog, "-----ENDC<<<"), 20);
    EXPECT_TRUE(comptest::Contains(connLog, "left out 15 identical lines"));
}

}  // namespace
