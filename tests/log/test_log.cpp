// The shared hex dump, the trace log (entries, threshold, rotation, names,
// appends from two processes) and the error log (records, levels, rotation,
// ending the process, the warning and fatal files), and the source names of
// the report lines.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <regex>
#include <sstream>

#include "UnitFixture.h"
#include "log/ErrLog.h"
#include "log/LogFormat.h"
#include "log/SourceName.h"
#include "log/SysTraceLog.h"

namespace fs = std::filesystem;
using comptest::ReadFile;

namespace {

constexpr auto npos = std::string::npos;

std::string Dump(const void* p, int n) {
    std::string s;
    comp::log::AppendHexDump(s, p, n);
    return s;
}

constexpr const char* kHeading =
    "Displacement -1--2--3--4--5--6--7--8-Hex-0--1--2--3--4--5--6  --ASCII Value--\n";

// "<base>_YYYYMMDD.log" of today.
std::string Today(const std::string& base) { return base + "_" + comp::log::TimeStamp14().substr(0, 8) + ".log"; }

TEST(HexDump, OneSixteenSeventeenAndTwentyBytes) {
    unsigned char b[64];
    for (int i = 0; i < 64; ++i) b[i] = static_cast<unsigned char>(0x41 + i);
    b[1] = 0x07;  // a control byte shows as '*'

    EXPECT_EQ(Dump(b, 1), std::string(kHeading) + "00000(00000) 41 " + std::string(45, ' ') + " A\n");
    std::string d16 = Dump(b, 16);
    EXPECT_EQ(d16, std::string(kHeading) +
                       "00000(00000) 41 07 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  A*CDEFGHIJKLMNOP\n");
    EXPECT_EQ(Dump(b, 17), d16 + "00016(00010) 51 " + std::string(45, ' ') + " Q\n");
    EXPECT_EQ(Dump(b, 20), d16 + "00016(00010) 51 52 53 54 " + std::string(36, ' ') + " QRST\n");
}

TEST(HexDump, HeadingEveryTwentyLinesWithDeliberateOrder) {
    std::vector<unsigned char> data(16 * 42, 'x');
    std::istringstream dump(Dump(data.data(), static_cast<int>(data.size())));
    std::string got, want;
    for (std::string line; std::getline(dump, line);) got += line.substr(0, 5) + " ";
    // heading, line 0, heading, lines 1..20, heading, lines 21..41
    for (int i = 0; i < 42; ++i) {
        char offset[8];
        std::snprintf(offset, sizeof offset, "%05d ", i * 16);
        want += std::string(i == 0 || i == 1 || i == 21 ? "Displ " : "") + offset;
    }
    EXPECT_EQ(got, want);
}

class TraceLog : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
        std::snprintf(g_stProcState.stLog.caTraceBase, sizeof g_stProcState.stLog.caTraceBase, "%s", base.c_str());
    }
    const std::string base = run.file("log/t"), today = Today(base);
};

TEST_F(TraceLog, EntryFormatThresholdAndDumpLimit) {
    g_stProcState.stLog.iTraceLevel = 2;
    EXPECT_EQ(writelog(1, nullptr, 0, "dropped %d", 1), 0);
    EXPECT_FALSE(fs::exists(today)) << "an entry below the threshold creates no file";

    EXPECT_EQ(writelog(4, "AB", 2, "hello %s", "there"), 0);
    std::regex entry(
        "^ERROR:Pid:[0-9]+\\|4\\|Time:(Sun|Mon|Tue|Wed|Thu|Fri|Sat) [0-9]{4}-[0-9]{2}-[0-9]{2} "
        "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{1,3}\nMSG:hello there\nDisplacement [^\n]*\n00000\\(00000\\) 41 42 [^\n]*AB\n\n$");
    EXPECT_TRUE(std::regex_match(ReadFile(today), entry)) << ReadFile(today);

    writelog(9, nullptr, 0, "odd level");
    EXPECT_NE(ReadFile(today).find("~~~~~Pid:"), npos);
    std::vector<char> big(5000, 'z');
    writelog(4, big.data(), static_cast<int>(big.size()), "big");
    EXPECT_NE(ReadFile(today).find("04080(00ff0) "), npos);
    EXPECT_EQ(ReadFile(today).find("04096(01000) "), npos) << "the dump is cut at 4,096 bytes";
}

TEST_F(TraceLog, RotatesOneEntryPastTheLimit) {
    g_stProcState.stLog.lTraceSizeLimit = 200;
    std::string pad(80, 'p');
    wlog("%s", pad.c_str());
    ASSERT_LT(fs::file_size(today), 200u);
    wlog("%s", pad.c_str());   // size before this entry < limit: stays
    EXPECT_TRUE(fs::exists(today));
    wlog("third");             // size before >= limit: written, then moved aside
    EXPECT_FALSE(fs::exists(today));
    std::vector<std::string> files;
    for (auto& e : fs::directory_iterator(run.file("log"))) files.push_back(e.path().filename().string());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_TRUE(std::regex_match(files[0], std::regex("t_[0-9]{8}\\.log[0-9]{14}\\.bak"))) << files[0];
    EXPECT_NE(ReadFile(run.file("log/" + files[0])).find("MSG:third"), npos);
    wlog("fourth");
    EXPECT_EQ(ReadFile(today).find("MSG:third"), npos);
    EXPECT_NE(ReadFile(today).find("MSG:fourth"), npos);
}

TEST_F(TraceLog, BaseNamesOfDaemonsAreSharedOthersTakeThePid) {
    const LogSettings& st = g_stProcState.stLog;
    EXPECT_TRUE(SysSetTraceName(run.file("log/com_tsproc").c_str()));
    EXPECT_EQ(std::string(st.caTraceBase), run.file("log/com_tsproc_") + std::to_string(getpid()));
    EXPECT_TRUE(SysSetTraceName("x/co"));   // a leading piece of "com": shared, kept as it stands
    EXPECT_STREQ(st.caTraceBase, "x/co");
    EXPECT_TRUE(SysSetTraceName("x/Daemon7"));
    EXPECT_STREQ(st.caTraceBase, "x/Daemon7");
    EXPECT_TRUE(SysSetTraceName("x/comp"));
    EXPECT_EQ(std::string(st.caTraceBase), "x/comp_" + std::to_string(getpid()));
    EXPECT_FALSE(SysSetTraceName("noslash"));  // refused, previous name kept
    EXPECT_FALSE(SysSetTraceName(nullptr));
    EXPECT_EQ(std::string(st.caTraceBase), "x/comp_" + std::to_string(getpid()));
}

TEST_F(TraceLog, TwoProcessesAppendWholeEntries) {
    const std::string file = run.file("log/shared.log");
    constexpr int kEntries = 300;
    const std::string payload(700, 'q');
    auto append = [&](const char* who) {
        for (int i = 0; i < kEntries; ++i) writelog2(2, file.c_str(), nullptr, 0, "%s %d %s", who, i, payload.c_str());
        return 0;
    };
    pid_t child = comptest::ForkChild([&] { return append("child"); });
    append("parent");
    ASSERT_EQ(comptest::ExitStatus(child), 0);

    std::string text = ReadFile(file);
    std::regex entry("INFOMATION:Pid:[0-9]+\\|2\\|Time:[^\n]*\nMSG:(child|parent) [0-9]+ q{700}\n\n");
    size_t covered = 0;
    int count = 0;
    for (auto it = std::sregex_iterator(text.begin(), text.end(), entry); it != std::sregex_iterator(); ++it, ++count) {
        EXPECT_EQ(static_cast<size_t>(it->position()), covered) << "entry torn near offset " << covered;
        covered = static_cast<size_t>(it->position() + it->length());
    }
    EXPECT_EQ(count, 2 * kEntries);
    EXPECT_EQ(covered, text.size());
}

class ErrLogTest : public comptest::UnitTest {
protected:
    void SetUp() override {
        UnitTest::SetUp();
        unsetenv("TRC_BACKUP");
    }
    void TearDown() override {
        unsetenv("TRC_BACKUP");
        UnitTest::TearDown();
    }
    const std::string today = Today(run.file("log/err"));
};

TEST_F(ErrLogTest, LevelsDecideWhatIsWrittenAndTheRecordLayout) {
    ErrLog(500, "debug only", ERRLOG_FILE, nullptr, 0);
    EXPECT_FALSE(fs::exists(today));
    EXPECT_EQ(g_iRtnErrno, 0) << "a dropped debug code is not remembered";

    ErrLog(0, "bare", ERRLOG_FILE, nullptr, 0);
    EXPECT_EQ(ReadFile(today), "@MSG:bare\n");

    g_iaRtnPath[0] = 11;
    g_iaRtnPath[1] = 22;
    g_iRtnIdx = 2;
    const char dump[20] = "0123456789abcdefghi";
    ErrLog(1000, "full record", ERRLOG_FILE, dump, 20);
    EXPECT_EQ(g_iRtnErrno, 1000);
    std::regex rec(
        "@MSG:bare\nPid: [0-9]+ \\| Time: [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4} [0-9]+ \\| "
        "Message:\nfull record\n11-22\nDisplacement [^\n]*\n00000\\(00000\\) 30 31 [^\n]*\n"
        "00016\\(00010\\) 67 68 69 00 {38}ghi\\*\n\n");
    EXPECT_TRUE(std::regex_match(ReadFile(today), rec)) << ReadFile(today);

    g_iDebugSwitch = 1;
    ErrLog(500, "now written", ERRLOG_FILE, nullptr, 0);
    EXPECT_NE(ReadFile(today).find("now written"), npos);

    for (int i = 0; i < 8; ++i) g_iaRtnPath[i] = i + 1;
    g_iRtnIdx = 8;
    ErrLog(1000, "m", ERRLOG_FILE, nullptr, 0);
    EXPECT_NE(ReadFile(today).find("\n1-2-3-4-5-6-\n        7-8\n"), npos) << "six calls to a line";
}

std::string g_captured;
void Capture(const char* pcRecord, std::size_t iLen) { g_captured.append(pcRecord, iLen); }

TEST_F(ErrLogTest, AWriterTakesTheRecordsInsteadOfTheFileUntilCleared) {
    g_captured.clear();
    comp::log::SetErrFileWriter(Capture);
    ErrLog(0, "to the writer", ERRLOG_FILE, nullptr, 0);
    ErrLog(500, "dropped as ever", ERRLOG_FILE, nullptr, 0);
    comp::log::SetErrFileWriter(nullptr);
    EXPECT_EQ(g_captured, "@MSG:to the writer\n");
    EXPECT_FALSE(fs::exists(today));
    ErrLog(0, "to the file", ERRLOG_FILE, nullptr, 0);
    EXPECT_EQ(ReadFile(today), "@MSG:to the file\n");
}

TEST_F(ErrLogTest, RotationAndBackupNames) {
    ChgLog('3', "1");  // 1 KiB
    std::string line(400, 'e');
    for (int i = 0; i < 3; ++i) ErrLog(1000, line.c_str(), ERRLOG_FILE, nullptr, 0);
    EXPECT_TRUE(fs::exists(today)) << "size before the third write is below 1 KiB";
    ErrLog(1000, "goes with the old file", ERRLOG_FILE, nullptr, 0);
    EXPECT_FALSE(fs::exists(today));
    ASSERT_TRUE(fs::exists(today + ".bak"));
    EXPECT_NE(ReadFile(today + ".bak").find("goes with the old file"), npos);

    setenv("TRC_BACKUP", "TRUE", 1);
    // Different lines: identical ones would be counted, not written, after a few.
    for (int i = 0; i < 4; ++i) ErrLog(1000, (line + std::to_string(i)).c_str(), ERRLOG_FILE, nullptr, 0);
    bool stamped = false;
    for (auto& e : fs::directory_iterator(run.file("log")))
        stamped |= std::regex_match(e.path().filename().string(), std::regex("err_[0-9]{8}\\.log[0-9]{14}\\.bak"));
    EXPECT_TRUE(stamped);
}

TEST_F(ErrLogTest, AbendCodeAndSignalHandlerLogAndExitWithStatusOne) {
    EXPECT_EQ(comptest::RunInChild([] { return ErrLog(30000, "fatal one", ERRLOG_FILE, nullptr, 0), 7; }), 1);
    EXPECT_EQ(comptest::RunInChild([] { return SigHandler(SIGSEGV), 7; }), 1);
    const std::string text = ReadFile(today);
    for (const char* t : {"fatal one", "in ABEND ROUTINE ", "signal SIGSEGV occured"}) EXPECT_NE(text.find(t), npos) << t;
}

TEST_F(ErrLogTest, ChgLogSettings) {
    const LogSettings& st = g_stProcState.stLog;
    EXPECT_EQ(ChgLog('1', "/tmp/x/errname"), 0);
    EXPECT_STREQ(st.caErrLogName, "/tmp/x/errname");
    ChgLog('1', run.file("log/err").c_str());
    ChgLog('1', std::string(201, 'n').c_str());  // refused
    EXPECT_EQ(std::string(st.caErrLogName), run.file("log/err"));
    ChgLog('2', "1");
    EXPECT_EQ(st.iErrLogMode, 1);
    ChgLog('2', "7");
    EXPECT_EQ(st.iErrLogMode, 1);
    ChgLog('3', "64");
    EXPECT_EQ(st.lErrLogSizeLimit, 65536);
    ChgLog('9', "x");
    const std::string err = ReadFile(today);
    for (const char* t : {"ChgLog:Change LOG file name", "ChgLog: Change Mode error!", "ChgLog: Change Code error!"})
        EXPECT_NE(err.find(t), npos) << t;
}

TEST_F(ErrLogTest, SystemErrorReportWarningAndFatalFiles) {
    errno = ENOENT;
    SystemErrorReport("MsgOpen msgget");
    const std::string text = ReadFile(today);
    EXPECT_NE(text.find("[SystemReport]pid[" + std::to_string(getpid()) + "] ERROR errno[2]=>"), npos);
    EXPECT_NE(text.find("MsgOpen msgget(No such file or directory)"), npos);
    errno = 0;
    EXPECT_STREQ(SystemErrorString(), "");

    EXPECT_EQ(WriteWarnning("careful"), 0);
    EXPECT_EQ(WriteFatalErr("broken"), 0);
    EXPECT_TRUE(std::regex_match(ReadFile(run.file("log/warnning.log")),
                                 std::regex("\n\\[System Time:[0-9]{14}\\]\ncareful")));
    EXPECT_NE(ReadFile(run.file("log/fatalerr.log")).find("broken"), npos);
}

TEST(ErrReports, RangeChecks) {
    char out[200];
    EXPECT_EQ(ErrorRpt(5, out, sizeof out), -1);
    EXPECT_STREQ(out, "P_ErrorCode: iLevel2Rc = 5 not in range [-99, 0]");
    EXPECT_EQ(DetErrRpt(-100, "x", out, sizeof out), -1);
    EXPECT_STREQ(out, "P_DetErrRpt: iFunErrCode = -100 not in range [-99, 0]");
    EXPECT_EQ(DetErrRpt(-5, "oops", out, sizeof out), 0);
    EXPECT_STREQ(out, "P_DetErrRpt:iFunErrCode=-5\nError message :oops");
}

TEST(SourceName, the_frame_and_the_engine_report_under_the_platform_sources) {
    using comp::log::LabelOf;
    constexpr auto kFrame = LabelOf("/w/src/comp/SysNetFrame.cpp");
    static_assert(std::string_view(kFrame.caName) == "SysComPub" && !kFrame.bRunningMode);
    static_assert(std::string_view(LabelOf("/w/src/modes/SysTCPTS.cpp").caName) == "SysTCPTS");
    static_assert(std::string_view(LabelOf("/w/src/ipc/SysFIFO.cpp").caName) == "SysFIFO");
    static_assert(std::string_view(LabelOf("SysComMain.cpp").caName) == "SysComMain");
    // A checkout under a directory called "comp" changes nothing.
    static_assert(std::string_view(LabelOf("/home/comp/src/util/SysTcpBasi.cpp").caName) == "SysTcpBasi");

    constexpr auto kEngine = LabelOf("/w/src/modes/SysModeLoop.cpp");
    static_assert(kEngine.bRunningMode);
    comptest::ResetGlobals();
    EXPECT_STREQ(comp::log::RunningModeOr(kEngine.caName), "SysModeLoop") << "before a mode runs";
    comp::log::SetRunningMode("SysTCPTC");
    EXPECT_STREQ(comp::log::RunningModeOr(kEngine.caName), "SysTCPTC");
    EXPECT_STREQ(SRC_NAME, "test_log");
    comptest::ResetGlobals();
}

}  // namespace
