#include <sys/stat.h>

#include <filesystem>

#include "IpcFixture.h"
#include "ipc/SysFIFO.h"

namespace {

namespace fs = std::filesystem;
using Fifo = IpcTest;
constexpr auto npos = std::string::npos;

TEST_F(Fifo, TwoOpensShareOneFifoThatCarriesSingleBytes) {
    fs::remove(run.file("fifo"));
    const int iFd1 = iOpenFIFO("1234", 3), iFd2 = iOpenFIFO("1234", 3), iFd3 = iConnectFIFO("1234", 3);
    ASSERT_TRUE(iFd1 >= 0 && iFd2 >= 0 && iFd3 >= 0);
    EXPECT_NE(Logs().find("mkdir " + run.file("fifo") + " ok"), npos);
    struct stat a {}, b {};
    fstat(iFd1, &a);
    fstat(iFd2, &b);
    EXPECT_EQ(a.st_ino, b.st_ino);
    EXPECT_EQ(iCheckPipe("3_1234"), 0);
    char c = 0;
    ASSERT_EQ(iWriteFIFO(iFd3), 0);
    ASSERT_EQ(iReadFIFO2Buf(iFd1, &c), 0);
    EXPECT_EQ(c, '0');
    ASSERT_EQ(iWriteStr2FIFO(iFd2, "x"), 0);
    ASSERT_EQ(iReadFIFO2Buf(iFd1, &c), 0);
    EXPECT_EQ(c, 'x');

    EXPECT_EQ(iReadFIFO(iFd1), -1);    // empty: would block
    EXPECT_NE(Logs().find("iReadFIFO]read() error,errno=11,"), npos);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(iWriteFIFO(iFd2), 0);
    EXPECT_LT(iClearFIFO(iFd1), 0);
    EXPECT_EQ(iReadFIFO2Buf(iFd1, &c), -1);    // all three were dropped
    for (int iFd : {iFd1, iFd2, iFd3}) EXPECT_EQ(iCloseFIFO(iFd), 0);
}

TEST_F(Fifo, WrongOrMissingFilesAtThePath) {
    run.write("fifo/3_77", "regular");
    const int iFd = open("/dev/null", O_RDONLY);    // the next free descriptor
    close(iFd);
    EXPECT_EQ(iOpenFIFO("77", 3), -1);
    EXPECT_EQ(open("/dev/null", O_RDONLY), iFd);    // nothing left open
    close(iFd);
    EXPECT_EQ(iConnectFIFO("77", 3), -3);
    EXPECT_EQ(iCheckPipe("3_77"), -3);
    EXPECT_NE(Logs().find("3_77] isn't a fifo file"), npos);

    EXPECT_EQ(iConnectFIFO("78", 3), -2);
    EXPECT_FALSE(fs::exists(run.file("fifo/3_78")));
    EXPECT_EQ(SysCleanIpcFileById("78", 3), -2);
    EXPECT_NE(Logs().find("3_78] is not exist"), npos);
}

TEST_F(Fifo, PathsThatDoNotFitAreRefused) {
    const std::string name(128 - run.path().size() - 8, 'n');    // 128 bytes with "/fifo/1_"
    EXPECT_EQ(iOpenFIFO(name.c_str(), 1), -1);
    EXPECT_EQ(iConnectFIFO(name.c_str(), 1), -1);
    EXPECT_TRUE(fs::is_empty(run.file("fifo")));
    const int iFd = iOpenFIFO(name.substr(1).c_str(), 1);
    EXPECT_GE(iFd, 0);
    close(iFd);
}

TEST_F(Fifo, CleanUpRemovesOnlyFifos) {
    for (const char* pcName : {"100", "200"}) close(iOpenFIFO(pcName, 2));
    run.write("fifo/keep.txt", "x");
    fs::create_directory(run.file("fifo/sub"));
    ASSERT_EQ(SysCleanIpcFileById("100", 2), 0);
    EXPECT_FALSE(fs::exists(run.file("fifo/2_100")));
    ASSERT_EQ(SysCleanIpcFiles(), 0);
    EXPECT_FALSE(fs::exists(run.file("fifo/2_200")));
    EXPECT_TRUE(fs::exists(run.file("fifo/keep.txt")));
    EXPECT_TRUE(fs::is_directory(run.file("fifo/sub")));
}

TEST_F(Fifo, ClearingABlockingPipeEndsWhenEmpty) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "ab", 2), 2);
    EXPECT_EQ(iClearFIFO(fds[0]), -1);    // the write end is open: a read would block
    close(fds[1]);
    EXPECT_EQ(iClearFIFO(fds[0]), 0);     // end of file
    close(fds[0]);
}

}  // namespace
