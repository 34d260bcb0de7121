// app.cfg: its readers, the writer that changes one variable in place, the
// file lock both sides take, and the trace-log settings read from it.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>

#include <chrono>

#include "UnitFixture.h"
#include "base/ByteSource.h"
#include "config/FileOpApp.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"

namespace {

using comptest::Contains;

const char kSample[] =
    "# platform settings\n"
    "[OTHER]\n"
    "STATION_ID 9999\n"
    "[]\n"
    "\n"
    "[APPVARS] application variables\n"
    "LOG_LEVEL 2\n"
    "  # an indented note\n"
    "\t\n"
    "STATION_ID 0123456789ABCDEF\n"
    "FTPUSER\tguest   \n"
    "STATION_ID second\n"
    "[]\n"
    "TAIL after the part\n";

class AppCfg : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        run.write("etc/app.cfg", kSample);
    }

    std::string Var(const char* name) {
        char value[128] = {};
        return SysGetAppVar(name, value) == 0 ? value : "<none>";
    }
    std::string File() const { return run.read("etc/app.cfg"); }
    std::string Backup() const { return run.read("etc/.app.cfg.old"); }
};

TEST_F(AppCfg, StreamReaderTakesEveryEntryOfThePart) {
    AppCfgEntry e[8] = {};
    ASSERT_EQ(SysReadAppCfgByTag("[APPVARS]", e), 0);   // header with trailing text
    EXPECT_STREQ(e[0].caName, "LOG_LEVEL");
    EXPECT_STREQ(e[0].caValue, "2");
    EXPECT_STREQ(e[1].caName, "#");   // indented "#" is an entry here
    EXPECT_STREQ(e[1].caValue, "an");
    EXPECT_STREQ(e[2].caValue, "0123456789ABCDEF");
    EXPECT_STREQ(e[3].caName, "FTPUSER");
    EXPECT_STREQ(e[3].caValue, "guest");
    EXPECT_STREQ(e[4].caValue, "second");
    EXPECT_STREQ(e[5].caName, "");   // "TAIL" is after the closing "[]"

    AppCfgLine l[8] = {};
    ASSERT_EQ(SysReadCfg2Arr("[OTHER]", l), 0);
    EXPECT_STREQ(l[0].caLine, "STATION_ID 9999");
    EXPECT_STREQ(l[1].caLine, "");

    EXPECT_EQ(SysReadAppCfgByTag("[MISSING]", e), -1);
    EXPECT_EQ(SysReadCfg2Arr("[MISSING]", l), 0);
    EXPECT_TRUE(Contains(Logs(), " app.cfg lost [MISSING] part"));
}

TEST_F(AppCfg, PartWithoutClosingLineRunsToTheEnd) {
    run.write("etc/app.cfg", "[APPVARS]\nA 1\n[OTHER]\nB 2");
    AppCfgEntry e[4] = {};
    ASSERT_EQ(SysReadAppCfgByTag("[APPVARS]", e), 0);
    EXPECT_STREQ(e[1].caName, "[OTHER]");
    EXPECT_STREQ(e[2].caName, "B");
    EXPECT_STREQ(e[2].caValue, "2");
    EXPECT_EQ(Var("B"), "<none>");   // the line reader drops a last line without newline
    EXPECT_EQ(Var("A"), "1");
    EXPECT_TRUE(Contains(Logs(), "[B] is not found in [APPVARS]"));
}

TEST_F(AppCfg, LockTakingReaders) {
    EXPECT_EQ(Var("LOG_LEVEL"), "2");
    EXPECT_EQ(Var("STATION_ID"), "0123456789ABCDEF");   // first of the part, not of [OTHER]
    EXPECT_EQ(Var("FTPUSER"), "guest");
    EXPECT_EQ(Var("#"), "<none>");   // trimmed: an indented "#" is a comment
    EXPECT_EQ(Var("TAIL"), "<none>");
    char value[128];
    EXPECT_EQ(SysGetValueByTagKey("[OTHER]", "STATION_ID", value), 0);
    EXPECT_STREQ(value, "9999");

    char name[128], val[128];
    EXPECT_EQ(SysGetAppVarByIndex(0, name, val), 1);
    EXPECT_STREQ(name, "LOG_LEVEL");
    EXPECT_EQ(SysGetAppVarByIndex(1, name, val), 1);   // untrimmed: the indented "#" counts
    EXPECT_STREQ(name, "#");
    EXPECT_EQ(SysGetAppVarByIndex(4, name, val), 1);
    EXPECT_STREQ(val, "second");
    EXPECT_EQ(SysGetAppVarByIndex(5, name, val), 0);
    EXPECT_EQ(SysGetAppVarByIndex(-1, name, val), -1);
}

TEST_F(AppCfg, ReadersOnABufferAgreeWithTheFile) {
    namespace app = comp::appcfg;
    char fromFile[128] = {}, fromMem[128] = {}, name[128] = {};
    comp::MemorySource byKey(kSample);
    ASSERT_EQ(app::ValueByTagKey(byKey.source(), "[APPVARS]", "FTPUSER", fromMem), 0);
    ASSERT_EQ(SysGetValueByTagKey("[APPVARS]", "FTPUSER", fromFile), 0);
    EXPECT_STREQ(fromMem, fromFile);
    comp::MemorySource byIndex(kSample);
    ASSERT_EQ(app::AppVarByIndex(byIndex.source(), 3, name, fromMem), 1);
    EXPECT_STREQ(name, "FTPUSER");

    comp::MemorySource whole(kSample);
    app::KeptLines kept;
    ASSERT_TRUE(app::CollectLines(whole.source(), "STATION_ID", "new", kept));
    std::string back;
    for (const std::string& l : kept.lines) back += l;
    std::string want = kSample;
    want.replace(want.find("STATION_ID 0123456789ABCDEF"), 27, "STATION_ID new");
    EXPECT_EQ(back, want) << "only the first entry of the part changes";
}

TEST_F(AppCfg, ChangeRewritesOnlyTheFirstEntryAndKeepsTheRest) {
    run.write("etc/.app.cfg.old", "stale");
    EXPECT_EQ(SysChgAppVar("NOT_THERE", "1"), 0);   // unchanged, fresh backup
    EXPECT_EQ(SysChgAppVar("TAIL", "1"), 0);        // outside the part
    EXPECT_EQ(File(), kSample);
    EXPECT_EQ(Backup(), kSample);

    ASSERT_EQ(SysChgAppVar("STATION_ID", "42"), 0);
    std::string want = kSample;
    want.replace(want.find("STATION_ID 0123456789ABCDEF"), 27, "STATION_ID 42");
    EXPECT_EQ(File(), want);
    EXPECT_EQ(Backup(), kSample);
    EXPECT_EQ(Var("STATION_ID"), "42");

    ASSERT_EQ(SysChgAppVar("FTPUSER", "admin"), 0);   // a tab-separated entry
    EXPECT_NE(File().find("\nFTPUSER admin\nSTATION_ID second\n"), std::string::npos);
}

TEST_F(AppCfg, ChangeRefusesWhatItCouldNotWriteBack) {
    EXPECT_EQ(SysChgAppVar("STATION_ID", std::string(120, '7').c_str()), -1);
    EXPECT_EQ(SysChgAppVar("LOG_LEVEL", "1\nEVIL 2"), -1);
    EXPECT_EQ(File(), kSample);

    std::string many = "[APPVARS]\nA 1\n";
    for (int i = 0; i < 255; ++i) many += "# filler\n";
    run.write("etc/app.cfg", many);   // 257 lines: more than the writer holds
    EXPECT_EQ(SysChgAppVar("A", "2"), -1);
    EXPECT_EQ(File(), many);

    run.write("etc/app.cfg", "[APPVARS]\nA 1\nLAST 5");   // no final newline: kept
    ASSERT_EQ(SysChgAppVar("A", "2"), 0);
    EXPECT_EQ(File(), "[APPVARS]\nA 2\nLAST 5");
}

TEST_F(AppCfg, FailedRewriteIsRestoredFromBackup) {
    // The child may grow files only a little past the current size, so the
    // backup copy succeeds and the longer rewrite fails part way.
    const rlim_t limit = sizeof kSample + 10;
    int rc = comptest::RunInChild([limit] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit rl {limit, limit};
        setrlimit(RLIMIT_FSIZE, &rl);
        return SysChgAppVar("LOG_LEVEL", std::string(100, '5').c_str()) == -1 ? 0 : 1;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(File(), kSample);
}

TEST_F(AppCfg, ReadersWaitForTheLockHolder) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const std::string path = run.file("etc/app.cfg");
    pid_t pid = comptest::ForkChild([&] {
        int fd = open(path.c_str(), O_RDWR);
        if (fd < 0 || lockf(fd, F_LOCK, 0) != 0) return 1;
        (void)!write(ready[1], "x", 1);
        usleep(300 * 1000);
        const std::string changed = "[APPVARS]\nLOG_LEVEL 4\n[]\n";
        (void)!ftruncate(fd, 0);
        (void)!pwrite(fd, changed.data(), changed.size(), 0);
        return 0;   // the exit releases the lock
    });
    char c;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Var("LOG_LEVEL"), "4");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(200));
    EXPECT_EQ(comptest::ExitStatus(pid), 0);
    close(ready[0]);
    close(ready[1]);
}

TEST_F(AppCfg, ConcurrentChangesOfDifferentVariablesBothLand) {
    constexpr int kRounds = 40;
    auto changeMany = [](const char* name) {
        for (int i = 1; i <= kRounds; ++i)
            if (SysChgAppVar(name, std::to_string(i).c_str()) != 0) return 1;
        return 0;
    };
    pid_t pid = comptest::ForkChild([&] { return changeMany("LOG_LEVEL"); });
    EXPECT_EQ(changeMany("FTPUSER"), 0);
    EXPECT_EQ(comptest::ExitStatus(pid), 0);
    EXPECT_EQ(Var("LOG_LEVEL"), std::to_string(kRounds));
    EXPECT_EQ(Var("FTPUSER"), std::to_string(kRounds));
    EXPECT_EQ(Var("STATION_ID"), "0123456789ABCDEF");
}

TEST_F(AppCfg, SetLogTakesThresholdAndSizeLimitFromAppVars) {
    const LogSettings& st = g_stProcState.stLog;
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\nTRC_LOGSIZE_SET 2\n[]\n");
    SysSetLog(run.file("log/com_tsproc").c_str());
    EXPECT_EQ(std::string(st.caTraceBase), run.file("log/com_tsproc_") + std::to_string(getpid()));
    EXPECT_EQ(st.iTraceLevel, 3);
    EXPECT_EQ(st.lTraceSizeLimit, 2048);

    SysSetLog("noslash");  // refused before app.cfg is read: nothing changes
    EXPECT_EQ(std::string(st.caTraceBase), run.file("log/com_tsproc_") + std::to_string(getpid()));

    // Missing values give the defaults; the threshold read first already
    // holds back the INFOMATION line about the missing size.
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\n[]\n");
    SysSetLog(run.file("log/com_x").c_str());
    EXPECT_EQ(st.lTraceSizeLimit, 20971520);
    EXPECT_FALSE(Logged("[TRC_LOGSIZE_SET] is not found in [APPVARS]"));
    run.write("etc/app.cfg", "[APPVARS]\n[]\n");
    SysSetLog(run.file("log/com_x").c_str());
    EXPECT_EQ(st.iTraceLevel, 1);
    EXPECT_TRUE(Logged("[TRC_LOGSIZE_SET] is not found in [APPVARS]"));
}

// COMP_LOG_REPEATS: identical lines written per second (0: all).
TEST_F(AppCfg, SetLogTakesTheRepeatLimitFromAppVars) {
    auto written = [&](const char* text) {
        for (int i = 0; i < 10; ++i) ErrLog(1000, text, ERRLOG_FILE, nullptr, 0);
        const std::string logs = Logs(), line = std::string(text) + "\n";
        int n = 0;
        for (size_t p = logs.find(line); p != std::string::npos; p = logs.find(line, p + 1)) ++n;
        return n;
    };
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\nCOMP_LOG_REPEATS 2\n[]\n");
    SysSetLog(run.file("log/com_x").c_str());
    EXPECT_EQ(written("two of these"), 2);
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\nCOMP_LOG_REPEATS 0\n[]\n");
    SysSetLog(run.file("log/com_x").c_str());
    EXPECT_EQ(written("all of these"), 10);
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\n[]\n");
    SysSetLog(run.file("log/com_x").c_str());
    EXPECT_EQ(written("five of these"), 5);
}

}  // namespace
