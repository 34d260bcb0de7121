// Whole-process tests of comp's entry: joining the platform, the logon and
// logoff notices to the supervisor, and the ways out before a mode runs.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "Platform.h"

namespace {

using comptest::MakeRouteRow;
using comptest::PlatformSetup;

class CompEntryTest : public comptest::PlatformTest {
protected:
    template <typename T>
    static T At(const QueueMsg& m, int off) {
        T v{};
        std::memcpy(&v, m.caText + off, sizeof v);
        return v;
    }

    // Checks one Commonp notice byte for byte: type, 68 text bytes laid out
    // as a PlatMsg header of kind 64 with the event code behind it.
    static void ExpectNotice(const QueueMsg& m, int len, long code, pid_t pid) {
        EXPECT_EQ(len, 68);
        EXPECT_EQ(m.lMsgType, code);
        EXPECT_EQ(At<uint16_t>(m, 0), 68);
        EXPECT_EQ(At<uint16_t>(m, 2), 64);
        EXPECT_EQ(At<int32_t>(m, 4), pid);
        EXPECT_EQ(At<int32_t>(m, 8), 0);
        EXPECT_EQ(At<uint16_t>(m, 12), 1);
        for (int i = 14; i < 64; ++i) EXPECT_EQ(m.caText[i], 0) << "byte " << i;
        EXPECT_EQ(At<uint16_t>(m, 64), code);
        EXPECT_EQ(At<uint16_t>(m, 66), 0);
    }

    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
};

TEST_F(CompEntryTest, logs_on_then_ends_255_on_an_unknown_mode_without_logoff) {
    PlatformSetup setup;
    setup.routes = {MakeRouteRow(10, "127.0.0.1:1", "0")};
    StartPlatform(setup);
    size_t c = StartComp({"SysTCPNOSUCH", "10", "1", "0", "e2e10_1"});
    ASSERT_EQ(WaitComp(c, 10000), 255) << CompOutput(c) << AllLogs();

    int len = ReadCommonp(buf.get(), 0, 2000);
    ExpectNotice(*buf, len, 2, comp(c).pid);
    EXPECT_EQ(ReadCommonp(buf.get(), 0, 200), 0) << "no logoff after a failed symbol lookup";
    EXPECT_NE(CompTraceLog(c).find("SysTCPNOSUCH"), std::string::npos) << AllLogs();
}

TEST_F(CompEntryTest, missing_route_row_logs_config_error_and_logs_off_with_status_0) {
    PlatformSetup setup;
    setup.routes = {MakeRouteRow(11, "127.0.0.1:1", "0")};
    StartPlatform(setup);
    size_t c = StartComp({"SysTCPTS", "10", "1", "0", "e2e10_1"});
    ASSERT_EQ(WaitComp(c, 10000), 0) << CompOutput(c) << AllLogs();

    int len = ReadCommonp(buf.get(), 0, 2000);
    ExpectNotice(*buf, len, 4, comp(c).pid);  // the logoff comes without a logon
    EXPECT_EQ(ReadCommonp(buf.get(), 0, 200), 0);
    EXPECT_NE(CompTraceLog(c).find("config error"), std::string::npos) << AllLogs();
}

TEST_F(CompEntryTest, route_id_is_cut_to_two_characters) {
    PlatformSetup setup;
    setup.routes = {MakeRouteRow(10, "127.0.0.1:1", "0")};
    StartPlatform(setup);
    size_t c = StartComp({"SysTCPNOSUCH", "105", "1", "0", "e2e10_1"});
    ASSERT_EQ(WaitComp(c, 10000), 255) << CompOutput(c) << AllLogs();
    EXPECT_EQ(ReadCommonp(buf.get(), 0, 2000), 68);
    EXPECT_EQ(buf->lMsgType, 2) << "route 10's row was found, so comp logged on";
}

TEST_F(CompEntryTest, platform_not_up_ends_255_without_any_notice) {
    run.write("etc/sys.cfg", SysCfgText(1048576));
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
    size_t c = StartComp({"SysTCPTS", "10", "1", "0", "e2e10_1"});
    EXPECT_EQ(WaitComp(c, 10000), 255) << CompOutput(c);
    EXPECT_NE(AllLogs().find("SysComInit error"), std::string::npos) << AllLogs();
}

TEST_F(CompEntryTest, too_few_arguments_print_the_usage_line) {
    size_t c = StartComp({"SysTCPTS", "10"});
    EXPECT_NE(WaitComp(c, 10000), 0);
    EXPECT_NE(CompOutput(c).find("usage:"), std::string::npos) << CompOutput(c);
}

}  // namespace
