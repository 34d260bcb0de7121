#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <regex>
#include <string>

#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "log/ErrLog.h"
#include "log/LogFormat.h"
#include "log/SysTraceLog.h"
#include <cstring>

namespace fs = std::filesystem;
using comptest::ReadFile;
using comptest::TempRunDir;

namespace {

class ErrLogTest : public ::testing::Test {
protected:
    void SetUp() override {
        SysResetGlobals();
        unsetenv("TRC_BACKUP");
        std::snprintf(g_stProcState.stLog.caErrLogName, sizeof g_stProcState.stLog.caErrLogName, "%s",
                      run.file("log/err").c_str());
        today = run.file("log/err_") + comp::log::TimeStamp14().substr(0, 8) + ".log";
    }
    void TearDown() override {
        unsetenv("TRC_BACKUP");
        SysResetGlobals();
    }
    TempRunDir run;
    std::string today;
};

}  // namespace

TEST_F(ErrLogTest, LevelsDecideWhatIsWritten) {
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
    std::string text = ReadFile(today);
    std::regex rec(
        "@MSG:bare\nPid: [0-9]+ \\| Time: [A-Z][a-z]{2} [A-Z][a-z]{2} [ 0-9]{2} [0-9:]{8} [0-9]{4} [0-9]+ \\| "
        "Message:\nfull record\n11-22\nDisplacement [^\n]*\n00000\\(00000\\) 30 31 [^\n]*\n"
        "00016\\(00010\\) 67 68 69 00 {38}ghi\\*\n\n");
    EXPECT_TRUE(std::regex_match(text, rec)) << text;

    g_iDebugSwitch = 1;
    ErrLog(500, "now written", ERRLOG_FILE, nullptr, 0);
    EXPECT_NE(ReadFile(today).find("now written"), std::string::npos);
}

TEST_F(ErrLogTest, CallPathSixToALine) {
    for (int i = 0; i < 8; ++i) g_iaRtnPath[i] = i + 1;
    g_iRtnIdx = 8;
    ErrLog(1000, "m", ERRLOG_FILE, nullptr, 0);
    EXPECT_NE(ReadFile(today).find("\n1-2-3-4-5-6-\n        7-8\n"), std::string::npos);
}

TEST_F(ErrLogTest, RotationAndBackupNames) {
    ChgLog('3', "1");  // 1 KiB
    std::string line(400, 'e');
    for (int i = 0; i < 3; ++i) ErrLog(1000, line.c_str(), ERRLOG_FILE, nullptr, 0);
    EXPECT_TRUE(fs::exists(today)) << "size before the third write is below 1 KiB";
    ErrLog(1000, "goes with the old file", ERRLOG_FILE, nullptr, 0);
    EXPECT_FALSE(fs::exists(today));
    ASSERT_TRUE(fs::exists(today + ".bak"));
    EXPECT_NE(ReadFile(today + ".bak").find("goes with the old file"), std::string::npos);

    setenv("TRC_BACKUP", "TRUE", 1);
    for (int i = 0; i < 4; ++i) ErrLog(1000, line.c_str(), ERRLOG_FILE, nullptr, 0);
    bool stamped = false;
    std::regex name("err_[0-9]{8}\\.log[0-9]{14}\\.bak");
    for (auto& e : fs::directory_iterator(run.file("log")))
        stamped |= std::regex_match(e.path().filename().string(), name);
    EXPECT_TRUE(stamped);
}

TEST_F(ErrLogTest, DefaultLimitIsOneMebibyte) {
    EXPECT_EQ(g_stProcState.stLog.lErrLogSizeLimit, 1048576);
}

TEST_F(ErrLogTest, AbnormalEndCodeExitsWithStatusOne) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ErrLog(30000, "fatal one", ERRLOG_FILE, nullptr, 0);
        _exit(7);  // not reached
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    std::string text = ReadFile(today);
    EXPECT_NE(text.find("fatal one"), std::string::npos);
    EXPECT_NE(text.find("in ABEND ROUTINE "), std::string::npos);
}

TEST_F(ErrLogTest, SignalHandlerLogsAndEnds) {
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        SigHandler(SIGSEGV);
        _exit(7);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_NE(ReadFile(today).find("signal SIGSEGV occured"), std::string::npos);
}

TEST_F(ErrLogTest, SystemErrorReportWritesTwoLines) {
    errno = ENOENT;
    SystemErrorReport("MsgOpen msgget");
    std::string text = ReadFile(today);
    EXPECT_NE(text.find("[SystemReport]pid[" + std::to_string(getpid()) + "] ERROR errno[2]=>"), std::string::npos);
    EXPECT_NE(text.find("MsgOpen msgget(No such file or directory)"), std::string::npos);
    errno = 0;
    EXPECT_STREQ(SystemErrorString(), "");
}

TEST_F(ErrLogTest, WarningAndFatalFiles) {
    EXPECT_EQ(WriteWarnning("careful"), 0);
    EXPECT_EQ(WriteFatalErr("broken"), 0);
    std::regex warn("\n\\[System Time:[0-9]{14}\\]\ncareful");
    EXPECT_TRUE(std::regex_match(ReadFile(run.file("log/warnning.log")), warn));
    EXPECT_NE(ReadFile(run.file("log/fatalerr.log")).find("broken"), std::string::npos);
}

TEST(ErrReports, RangeChecks) {
    char out[200];
    EXPECT_EQ(ErrorRpt(5, out, sizeof out), -1);
    EXPECT_STREQ(out, "P_ErrorCode: iLevel2Rc = 5 not in range [-99, 0]");
    EXPECT_EQ(DetErrRpt(-100, "x", out, sizeof out), -1);
    EXPECT_STREQ(out, "P_DetErrRpt: iFunErrCode = -100 not in range [-99, 0]");
    EXPECT_EQ(DetErrRpt(-5, "oops", out, sizeof out), 0);
    EXPECT_STREQ(out, "P_DetErrRpt:iFunErrCode=-5\nError message :oops");
    char id[8];
    GetPrgId(id);
    EXPECT_EQ(std::strlen(id), 5u);
}
