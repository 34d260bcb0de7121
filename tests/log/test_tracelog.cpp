#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>

#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "log/LogFormat.h"
#include "log/SysTraceLog.h"

namespace fs = std::filesystem;
using comptest::ReadFile;
using comptest::TempRunDir;

namespace {

class TraceLog : public ::testing::Test {
protected:
    void SetUp() override {
        SysResetGlobals();
        run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
    }
    void TearDown() override { SysResetGlobals(); }

    // Sets the base name directly, as SysSetLog does for a shared name.
    void UseBase(const std::string& base) {
        std::snprintf(g_stProcState.stLog.caTraceBase, sizeof g_stProcState.stLog.caTraceBase, "%s",
                      base.c_str());
    }
    std::string Today(const std::string& base) {
        return base + "_" + comp::log::TimeStamp14().substr(0, 8) + ".log";
    }
    std::vector<std::string> FilesIn(const std::string& dir) {
        std::vector<std::string> v;
        for (auto& e : fs::directory_iterator(dir)) v.push_back(e.path().filename().string());
        std::sort(v.begin(), v.end());
        return v;
    }

    TempRunDir run;
};

std::string Dump(const void* p, int n) {
    std::string s;
    comp::log::AppendHexDump(s, p, n);
    return s;
}

constexpr const char* kHeading =
    "Displacement -1--2--3--4--5--6--7--8-Hex-0--1--2--3--4--5--6  --ASCII Value--\n";

}  // namespace

TEST(HexDump, OneSixteenSeventeenAndTwentyBytes) {
    unsigned char b[64];
    for (int i = 0; i < 64; ++i) b[i] = static_cast<unsigned char>(0x41 + i);
    b[1] = 0x07;  // a control byte shows as '*'

    EXPECT_EQ(Dump(b, 1), std::string(kHeading) + "00000(00000) 41 " + std::string(45, ' ') + " A\n");

    std::string d16 = Dump(b, 16);
    EXPECT_EQ(d16, std::string(kHeading) +
                       "00000(00000) 41 07 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  A*CDEFGHIJKLMNOP\n");

    std::string d17 = Dump(b, 17);
    EXPECT_EQ(d17, d16 + "00016(00010) 51 " + std::string(45, ' ') + " Q\n");

    std::string d20 = Dump(b, 20);
    EXPECT_EQ(d20, d16 + "00016(00010) 51 52 53 54 " + std::string(36, ' ') + " QRST\n");
}

TEST(HexDump, HeadingEveryTwentyLinesWithDeliberateOrder) {
    std::vector<unsigned char> data(16 * 42, 'x');
    std::string d = Dump(data.data(), static_cast<int>(data.size()));
    // heading, line 0, heading, lines 1..20, heading, lines 21..40, line 41
    auto lineAt = [&](int n) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%05d(%05x) ", n * 16, n * 16);
        return d.find(buf);
    };
    size_t h1 = d.find(kHeading), h2 = d.find(kHeading, h1 + 1), h3 = d.find(kHeading, h2 + 1);
    ASSERT_NE(h3, std::string::npos);
    EXPECT_EQ(h1, 0u);
    EXPECT_LT(lineAt(0), h2);
    EXPECT_GT(lineAt(1), h2);
    EXPECT_LT(lineAt(20), h3);
    EXPECT_GT(lineAt(21), h3);
    EXPECT_GT(lineAt(41), lineAt(40));
    EXPECT_EQ(d.find(kHeading, h3 + 1), std::string::npos);
}

TEST_F(TraceLog, EntryFormatAndThreshold) {
    std::string base = run.file("log/t");
    UseBase(base);
    g_stProcState.stLog.iTraceLevel = 2;
    EXPECT_EQ(writelog(1, nullptr, 0, "dropped %d", 1), 0);
    EXPECT_FALSE(fs::exists(Today(base))) << "an entry below the threshold creates no file";

    const char data[] = "AB";
    EXPECT_EQ(writelog(4, data, 2, "hello %s", "there"), 0);
    std::string text = ReadFile(Today(base));
    std::regex entry(
        "^ERROR:Pid:[0-9]+\\|4\\|Time:(Sun|Mon|Tue|Wed|Thu|Fri|Sat) [0-9]{4}-[0-9]{2}-[0-9]{2} "
        "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{1,3}\nMSG:hello there\nDisplacement [^\n]*\n00000\\(00000\\) 41 42 [^\n]*AB\n\n$");
    EXPECT_TRUE(std::regex_match(text, entry)) << text;

    writelog(9, nullptr, 0, "odd level");
    EXPECT_NE(ReadFile(Today(base)).find("~~~~~Pid:"), std::string::npos);
}

TEST_F(TraceLog, DumpIsCutAt4096Bytes) {
    std::string base = run.file("log/t");
    UseBase(base);
    std::vector<char> big(5000, 'z');
    writelog(1, big.data(), static_cast<int>(big.size()), "big");
    std::string text = ReadFile(Today(base));
    EXPECT_NE(text.find("04080(00ff0) "), std::string::npos);
    EXPECT_EQ(text.find("04096(01000) "), std::string::npos);
}

TEST_F(TraceLog, RotatesOneEntryPastTheLimit) {
    std::string base = run.file("log/r");
    UseBase(base);
    std::string today = Today(base);
    g_stProcState.stLog.lTraceSizeLimit = 200;
    std::string pad(80, 'p');
    wlog("%s", pad.c_str());
    ASSERT_LT(fs::file_size(today), 200u);
    wlog("%s", pad.c_str());   // size before this entry < limit: stays
    EXPECT_TRUE(fs::exists(today));
    wlog("third");             // size before >= limit: written, then moved aside
    EXPECT_FALSE(fs::exists(today));
    auto files = FilesIn(run.file("log"));
    ASSERT_EQ(files.size(), 1u);
    std::regex bak("r_[0-9]{8}\\.log[0-9]{14}\\.bak");
    EXPECT_TRUE(std::regex_match(files[0], bak)) << files[0];
    EXPECT_NE(ReadFile(run.file("log/" + files[0])).find("MSG:third"), std::string::npos);
    wlog("fourth");
    EXPECT_EQ(ReadFile(today).find("MSG:third"), std::string::npos);
    EXPECT_NE(ReadFile(today).find("MSG:fourth"), std::string::npos);
}

TEST_F(TraceLog, SetLogNamesFilesAndReadsAppVars) {
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 3\nTRC_LOGSIZE_SET 2\n[]\n");
    SysSetLog(run.file("log/com_tsproc").c_str());
    EXPECT_EQ(std::string(g_stProcState.stLog.caTraceBase), run.file("log/com_tsproc_") + std::to_string(getpid()));
    EXPECT_EQ(g_stProcState.stLog.iTraceLevel, 3);
    EXPECT_EQ(g_stProcState.stLog.lTraceSizeLimit, 2048);

    SysSetLog("x/co");   // a leading piece of "com": shared, kept as it stands
    EXPECT_STREQ(g_stProcState.stLog.caTraceBase, "x/co");
    SysSetLog("x/Daemon7");
    EXPECT_STREQ(g_stProcState.stLog.caTraceBase, "x/Daemon7");
    SysSetLog("x/comp");
    EXPECT_EQ(std::string(g_stProcState.stLog.caTraceBase), "x/comp_" + std::to_string(getpid()));
    SysSetLog("noslash");  // refused, previous name kept
    EXPECT_EQ(std::string(g_stProcState.stLog.caTraceBase), "x/comp_" + std::to_string(getpid()));

    run.write("etc/app.cfg", "[APPVARS]\n[]\n");
    SysSetLog(run.file("log/com_x").c_str());
    EXPECT_EQ(g_stProcState.stLog.iTraceLevel, 1);
    EXPECT_EQ(g_stProcState.stLog.lTraceSizeLimit, 20971520);
}

TEST_F(TraceLog, TwoProcessesAppendWholeEntries) {
    std::string file = run.file("log/shared.log");
    constexpr int kEntries = 300;
    std::string payload(700, 'q');
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        for (int i = 0; i < kEntries; ++i) writelog2(2, file.c_str(), nullptr, 0, "child %d %s", i, payload.c_str());
        _exit(0);
    }
    for (int i = 0; i < kEntries; ++i) writelog2(2, file.c_str(), nullptr, 0, "parent %d %s", i, payload.c_str());
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));

    std::string text = ReadFile(file);
    std::regex entry("INFOMATION:Pid:[0-9]+\\|2\\|Time:[^\n]*\nMSG:(child|parent) [0-9]+ q{700}\n\n");
    auto begin = std::sregex_iterator(text.begin(), text.end(), entry);
    size_t covered = 0;
    int count = 0;
    for (auto it = begin; it != std::sregex_iterator(); ++it, ++count) {
        EXPECT_EQ(static_cast<size_t>(it->position()), covered) << "entry torn near offset " << covered;
        covered = static_cast<size_t>(it->position() + it->length());
    }
    EXPECT_EQ(count, 2 * kEntries);
    EXPECT_EQ(covered, text.size());
}

TEST_F(TraceLog, ChgLogSettings) {
    EXPECT_EQ(ChgLog('1', "/tmp/x/errname"), 0);
    EXPECT_STREQ(g_stProcState.stLog.caErrLogName, "/tmp/x/errname");
    ChgLog('1', run.file("log/err").c_str());
    ChgLog('1', std::string(201, 'n').c_str());  // refused
    EXPECT_EQ(std::string(g_stProcState.stLog.caErrLogName), run.file("log/err"));
    ChgLog('2', "1");
    EXPECT_EQ(g_stProcState.stLog.iErrLogMode, 1);
    ChgLog('2', "7");
    EXPECT_EQ(g_stProcState.stLog.iErrLogMode, 1);
    ChgLog('3', "64");
    EXPECT_EQ(g_stProcState.stLog.lErrLogSizeLimit, 65536);
    ChgLog('9', "x");
    std::string err = ReadFile(run.file("log/err_") + comp::log::TimeStamp14().substr(0, 8) + ".log");
    EXPECT_NE(err.find("ChgLog:Change LOG file name"), std::string::npos);
    EXPECT_NE(err.find("ChgLog: Change Mode error!"), std::string::npos);
    EXPECT_NE(err.find("ChgLog: Change Code error!"), std::string::npos);
}
