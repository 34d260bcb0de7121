// The soak run's counting and judging: what it moves in the example
// configuration, how it counts drop lines (summaries of identical lines
// included), which System V objects it sees, and when a series is flat.
#include <gtest/gtest.h>

#include "Soak.h"

using namespace bench::soak;

TEST(SoakConfig, KeysAndPortsMoveAndNothingElse) {
    const std::string sys =
        "MSGQUEUECOUNT       6\n[QRESOURCE]\nCOMMONP 6 1263096806\nDRAIN 12 1263096812\n"
        "[SEMRESOURCE]\nREGLOCK 1 1263096901 10\n[SHMRESOURCE]\nREGISTRY 1 1263097001 3482076\n"
        "TABLES 2 1263097002 1048576\n[PROCESS]\n";
    const std::string moved = MoveKeys(sys, 0x534B1200);
    const key_t base = 0x534B1200;
    EXPECT_NE(moved.find("COMMONP 6 " + std::to_string(base + 6) + "\n"), std::string::npos);
    EXPECT_NE(moved.find("REGISTRY 1 " + std::to_string(base + 201) + " 3482076\n"), std::string::npos);
    EXPECT_NE(moved.find("REGLOCK 1 " + std::to_string(base + 101) + " 10\n"), std::string::npos);
    EXPECT_EQ(ConfigKeys(moved), (std::vector<key_t>{base + 6, base + 12, base + 101, base + 201, base + 202}));
    // Numbers that only look alike stay.
    EXPECT_EQ(MoveKeys("12630968060 126309680 x1263096806", base), "12630968060 126309680 x" + std::to_string(base + 6));

    const std::string row = "10 ts 127.0.0.1:47010 127.0.0.1:47061 127.0.0.1:9 10.0.0.1:47010\n";
    EXPECT_EQ(MovePorts(row, {{47010, 5001}, {47061, 5002}}),
              "10 ts 127.0.0.1:5001 127.0.0.1:5002 127.0.0.1:9 10.0.0.1:47010\n");
}

TEST(SoakConfig, StationRouteAndLogLevel) {
    const std::string kit = "route 10 SysTCPTS\n# route 70 SysTCPVANTREL station\n# instance 70 1\n# a comment\n";
    EXPECT_EQ(EnableStationRoute(kit),
              "route 10 SysTCPTS\nroute 70 SysTCPVANTREL station\ninstance 70 1\n# a comment\n");
    EXPECT_EQ(SetLogLevel("[APPVARS]\nLOG_LEVEL         1\nSTATION_ID 0001\n", 3),
              "[APPVARS]\nLOG_LEVEL         3\nSTATION_ID 0001\n");
}

TEST(SoakCount, LinesAndLeftOutSummaries) {
    const std::string log =
        "Pid: 1 | Message:\n[SysTCPTC,159,SysTCPTC]iSockConnect error [111]\n"
        "[SysTCPTC,159,SysTCPTC]iSockConnect error [111]\n"
        "[ErrLog,152]left out 37 identical lines in 812 ms: [SysTCPTC,159,SysTCPTC]iSockConnect error [111]\n"
        "[ErrLog,152]left out 5 identical lines in 10 ms: [SysTCPTS,383]fd[6] closed.[127.9.1.3] is offline\n"
        "[SysTCPTS,383]fd[7] closed.[127.0.0.1] is offline\n";
    EXPECT_EQ(CountLines(log, "iSockConnect error"), 39u);
    // A summary counts only when its text matches: chaos addresses stay apart.
    EXPECT_EQ(CountLines(log, "[127.0.0.1] is offline"), 1u);
    EXPECT_EQ(CountLines(log, "is offline"), 6u);
    EXPECT_EQ(CountLines("", "x"), 0u);
}

TEST(SoakCount, RouteOfLogName) {
    EXPECT_EQ(RouteOfLogName("com_TS10_1_23893_20261123.log"), 10);
    EXPECT_EQ(RouteOfLogName("com_VANTREL70_1_4_20261123.log.bak"), 70);
    EXPECT_EQ(RouteOfLogName("com_PASSYN51_12_99_20261123.log"), 51);
    EXPECT_EQ(RouteOfLogName("station-123.log"), -1);
    EXPECT_EQ(RouteOfLogName("com_router_1_20261123.log"), -1);
    EXPECT_EQ(RouteOfLogName("com_TS_1_5_20261123.log"), -1);
}

TEST(SoakIpc, OnlyTheRunsKeysCount) {
    const std::string msg =
        "       key      msqid perms      cbytes       qnum lspid lrpid   uid   gid  cuid  cgid      stime\n"
        "1397428742          3   600         120          2     0     0     0     0     0     0          0\n"
        "1397428743          4   600           0          0     0     0     0     0     0     0          0\n"
        "1263096806          5   600         999          9     0     0     0     0     0     0          0\n";
    IpcSample s;
    AddIpc(msg, 'm', {1397428742, 1397428743}, &s);
    AddIpc("       key      semid perms      nsems\n1397428837 1 600 10\n", 's', {1397428837}, &s);
    AddIpc("       key      shmid perms       size\n1397428937 2 600 3482076\n", 'h', {1}, &s);
    EXPECT_EQ(s.queues, 2);
    EXPECT_EQ(s.semSets, 1);
    EXPECT_EQ(s.segments, 0);
    EXPECT_EQ(s.queuedMessages, 2u);
    EXPECT_EQ(s.queuedBytes, 120u);
    EXPECT_EQ(s.objects(), 3);
}

TEST(SoakFlat, SteadyNoisyAndGrowingSeries) {
    // A warm-up climb, then level with noise: flat.
    std::vector<double> level = {1000, 2000, 3500};
    for (int i = 0; i < 37; ++i) level.push_back(3600 + (i % 3) * 8);
    Flatness f = JudgeFlat(level, 5, 1024);
    EXPECT_TRUE(f.flat) << f.why;
    EXPECT_EQ(f.first, 1000);
    EXPECT_EQ(f.max, 3616);

    // A leak of 100 KiB a sample: the last quarter ends far above the first.
    std::vector<double> leak;
    for (int i = 0; i < 40; ++i) leak.push_back(3600 + 100 * i);
    f = JudgeFlat(leak, 5, 1024);
    EXPECT_FALSE(f.flat);
    EXPECT_NE(f.why.find("last quarter"), std::string::npos);

    // A slow creep within the margin, but at every sample of the second half.
    std::vector<double> creep;
    for (int i = 0; i < 40; ++i) creep.push_back(i < 20 ? 10 : 10 + (i - 19));
    f = JudgeFlat(creep, 0, 18);
    EXPECT_FALSE(f.flat);
    EXPECT_NE(f.why.find("rises"), std::string::npos);

    // Descriptors that come and go with the traffic.
    std::vector<double> fds;
    for (int i = 0; i < 40; ++i) fds.push_back(9 + (i * 7) % 5);
    EXPECT_TRUE(JudgeFlat(fds, 5, 4).flat);
    EXPECT_TRUE(JudgeFlat({}, 5, 4).flat);
}
