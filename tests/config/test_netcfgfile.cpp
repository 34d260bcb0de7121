#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ConfigFixture.h"
#include "config/SysRscApp.h"

namespace {

class NetCfgFile : public ConfigTest {
protected:
    // GetValue over the data; the value, or "<fail>".
    static std::string Value(const std::string& data, const char* key) {
        char value[80];
        std::memset(value, 'x', sizeof value);
        int n = GetValue(data.data(), static_cast<int>(data.size()), key, static_cast<int>(std::strlen(key)),
                         value);
        if (n < 0) return "<fail>";
        EXPECT_EQ(static_cast<size_t>(n), std::strlen(value));
        return value;
    }

    int OpenWith(const std::string& content) {
        run.write("etc/sys.cfg", content);
        return InitFile(run.file("etc/sys.cfg").c_str(), 1);
    }

};

TEST_F(NetCfgFile, ValueSeparatorsAndEnds) {
    EXPECT_EQ(Value("KEY = 30\n", "KEY"), "30");
    EXPECT_EQ(Value("KEY=30\n", "KEY"), "30");
    EXPECT_EQ(Value("KEY\t30\n", "KEY"), "30");
    EXPECT_EQ(Value("KEY 30 # trailing comment\n", "KEY"), "30");
    EXPECT_EQ(Value("KEY 30\r\n", "KEY"), "30\r");   // atoi still gives 30
    EXPECT_EQ(Value("KEY 3\t0\n", "KEY"), "3\t0");   // a tab does not end the value
    EXPECT_EQ(Value("KEY\nOTHER 5\n", "KEY"), "");
    EXPECT_EQ(Value(std::string("KEY=\0\0 7\n", 9), "KEY"), "7");
    EXPECT_EQ(Value("A 1\nKEY 30", "KEY"), "30");   // up to the end of the data
    EXPECT_EQ(Value("A 1\nKEY", "KEY"), "");
    EXPECT_EQ(Value("A 1\n", "KEY"), "<fail>");
    EXPECT_TRUE(Contains(Logs(), "String[KEY] No Match in netcfg file"));
}

TEST_F(NetCfgFile, ValueOf64CharactersPasses65Fails) {
    const std::string v64(64, '9');
    EXPECT_EQ(Value("KEY " + v64 + "\n", "KEY"), v64);
    EXPECT_EQ(Value("KEY " + v64 + "9\n", "KEY"), "<fail>");
    EXPECT_EQ(Value("KEY " + v64, "KEY"), v64);
    EXPECT_TRUE(Contains(Logs(), "CFG[KEY] Value >MAXLEN"));
}

TEST_F(NetCfgFile, FirstOccurrenceAnywhereWins) {
    const std::string cfg = "COMLOGONTIMELIMIT 7\nLOGONTIMELIMIT 3\n";
    EXPECT_EQ(Value(cfg, "LOGONTIMELIMIT"), "7");
    EXPECT_EQ(Value("# MAXCOM 1\nMAXCOM 2\n", "MAXCOM"), "1");

    int pos = -1;
    EXPECT_EQ(JudgeIfStrMatch("CD", 2, "ABCD", 4, &pos), 0);
    EXPECT_EQ(pos, 4);
    EXPECT_EQ(JudgeIfStrMatch("CD", 2, "ABCD", 3, &pos), -1);   // never across the end
}

TEST_F(NetCfgFile, ReadFileLineLimitsAndLastLine) {
    const std::string l127(127, 'a'), l128(128, 'b');
    int fd = OpenWith(l127 + "\n" + l128 + "\n");
    ASSERT_GE(fd, 0);
    char line[128] = {};
    EXPECT_EQ(ReadFileLine(fd, line), 127);
    EXPECT_EQ(std::string(line), l127);
    std::memset(line, 0, sizeof line);
    EXPECT_EQ(ReadFileLine(fd, line), -1);
    EXPECT_EQ(line[127], '\0');   // never fills the last byte
    CloseFile(fd);

    fd = OpenWith("one\n\nlast");
    std::memset(line, 0, sizeof line);
    EXPECT_EQ(ReadFileLine(fd, line), 3);
    EXPECT_EQ(ReadFileLine(fd, line), 0);
    EXPECT_EQ(ReadFileLine(fd, line), -2);   // no newline: the line does not count
    CloseFile(fd);
}

TEST_F(NetCfgFile, InitFileCreatesMissingFileAndResolvesEnvName) {
    const std::string path = run.file("etc/new.cfg");
    int fd = InitFile(path.c_str(), 1);
    ASSERT_GE(fd, 0);
    CloseFile(fd);
    EXPECT_EQ(run.read("etc/new.cfg"), "");

    setenv("NETCFG_TEST_PATH", path.c_str(), 1);
    fd = InitFile("NETCFG_TEST_PATH", 2);
    EXPECT_GE(fd, 0);
    CloseFile(fd);
    unsetenv("NETCFG_TEST_PATH");
    EXPECT_EQ(InitFile("NETCFG_TEST_PATH", 2), -1);
    EXPECT_EQ(InitFile(("/" + std::string(120, 'p')).c_str(), 1), -1);   // does not fit 100 bytes
}

}  // namespace
