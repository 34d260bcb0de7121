// Whole-process tests of comp's entry: joining the platform, the logon and
// logoff notices to the supervisor, and the ways out before a mode runs.
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "Platform.h"
#include "kit/KitUtil.h"

namespace {

class CompEntryTest : public comptest::PlatformTest {
protected:
    // Starts comp on a platform whose only route row is `route`.
    size_t StartWithRoute(int route, const std::vector<std::string>& args) {
        comptest::PlatformSetup setup;
        setup.routes = {comptest::MakeRouteRow(route, "127.0.0.1:1", "0")};
        StartPlatform(setup);
        return StartComp(args);
    }
    // Reads the one Commonp notice and checks it byte for byte: type, 68 text
    // bytes laid out as a PlatMsg header of kind 64 with the event code behind it.
    void ExpectOneNotice(uint16_t code, pid_t pid) {
        ASSERT_EQ(ReadCommonp(buf.get(), 0, 2000), 68);
        EXPECT_EQ(buf->lMsgType, code);
        const comptest::PlatHdr hdr{68, 64, pid, 0, 1, 0, 0, 0, 0, {}, {}, 0, {}};
        const uint16_t tail[2] = {code, 0};
        EXPECT_EQ(std::string(buf->caText, 68), hdr.bytes() + std::string(reinterpret_cast<const char*>(tail), 4));
        EXPECT_EQ(ReadCommonp(buf.get(), 0, 200), 0) << "one notice only";
    }

    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();
};

TEST_F(CompEntryTest, logs_on_then_ends_255_on_an_unknown_mode_without_logoff) {
    // "105" is cut to route 10, whose row exists: comp logs on.
    size_t c = StartWithRoute(10, {"SysTCPNOSUCH", "105", "1", "0", "e2e10_1"});
    ASSERT_EQ(WaitComp(c, 10000), 255) << CompOutput(c) << AllLogs();
    ExpectOneNotice(2, comp(c).pid);  // no logoff after a failed symbol lookup
    EXPECT_NE(CompTraceLog(c).find("SysTCPNOSUCH"), std::string::npos) << AllLogs();
    // The terminal is told too, with the modes this build has.
    const std::string out = CompOutput(c);
    EXPECT_NE(out.find("SysTCPNOSUCH is not a transport mode of this build; it has: SysTCPTC SysTCPTS"),
              std::string::npos) << out;
}

TEST_F(CompEntryTest, missing_route_row_logs_config_error_and_logs_off_with_status_0) {
    size_t c = StartWithRoute(11, {"SysTCPTS", "10", "1", "0", "e2e10_1"});
    ASSERT_EQ(WaitComp(c, 10000), 0) << CompOutput(c) << AllLogs();
    ExpectOneNotice(4, comp(c).pid);  // the logoff comes without a logon
    EXPECT_NE(CompTraceLog(c).find("config error"), std::string::npos) << AllLogs();
}

TEST_F(CompEntryTest, platform_not_up_ends_255_without_any_notice) {
    run.write("etc/sys.cfg", SysCfgText());
    run.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n[]\n");
    size_t c = StartComp({"SysTCPTS", "10", "1", "0", "e2e10_1"});
    EXPECT_EQ(WaitComp(c, 10000), 255) << CompOutput(c);
    EXPECT_NE(AllLogs().find("SysComInit error"), std::string::npos) << AllLogs();
}

TEST_F(CompEntryTest, too_few_arguments_print_the_usage_line_with_the_modes_of_this_build) {
    size_t c = StartComp({"SysTCPTS", "10"});
    EXPECT_NE(WaitComp(c, 10000), 0);
    EXPECT_NE(CompOutput(c).find("usage:"), std::string::npos) << CompOutput(c);
    // The modes this build has, in the platform's order.
    const std::string out = CompOutput(c);
    const size_t at = out.find("MODE is one of:");
    ASSERT_NE(at, std::string::npos) << out;
    std::istringstream line(out.substr(at + 15, out.find('\n', at) - at - 15));
    std::vector<std::string> listed{std::istream_iterator<std::string>(line), {}};
    const std::vector<std::string> all{"SysTCPTC",    "SysTCPTS",     "SysTCPPC",  "SysTCPPS",  "SysTCPPAS",
                                       "SysTCPPCSYN", "SysTCPPASSYN", "SysTCPFWB", "SysTCPFWS", "SysTCPVANTREL"};
    std::vector<std::string> expected;
    for (const std::string& m : all)
        if (std::find(listed.begin(), listed.end(), m) != listed.end()) expected.push_back(m);
    EXPECT_EQ(listed, expected) << "only modes, in order: " << out;
    EXPECT_GE(listed.size(), 2u);
}

TEST_F(CompEntryTest, start_up_waits_for_the_log_directory_and_app_cfg_and_says_so_once) {
    comptest::PlatformSetup setup;
    setup.routes = {comptest::MakeRouteRow(10, "127.0.0.1:1", "0")};
    StartPlatform(setup);
    std::filesystem::rename(run.file("etc/app.cfg"), run.file("app.cfg.later"));
    std::filesystem::rename(run.file("log"), run.file("log.later"));
    size_t c = StartComp({"SysTCPTS", "10", "1", "0", "e2e10_1"});

    // Says once what it waits for, then nothing more while it waits.
    const auto said = [&](const std::string& text) {
        for (int i = 0; i < 250 && CompOutput(c).find(text) == std::string::npos; ++i) kit::SleepMs(20);
        return CompOutput(c).find(text) != std::string::npos;
    };
    const auto quietFor = [&](int ms) {
        const std::string before = CompOutput(c);
        for (const int64_t end = kit::NowMs() + ms; kit::NowMs() < end; kit::SleepMs(20))
            if (CompOutput(c) != before) return false;
        return true;
    };
    ASSERT_TRUE(said("log directory " + run.file("log/") + " is missing; waiting for it")) << CompOutput(c);
    EXPECT_TRUE(quietFor(400)) << CompOutput(c);
    std::filesystem::rename(run.file("log.later"), run.file("log"));
    ASSERT_TRUE(said("application configuration " + run.file("etc/app.cfg") + " is missing; waiting for it"));
    EXPECT_TRUE(quietFor(400)) << CompOutput(c);
    EXPECT_EQ(ReadCommonp(buf.get(), 2, 100), 0) << "no logon while waiting";

    std::filesystem::rename(run.file("app.cfg.later"), run.file("etc/app.cfg"));
    EXPECT_GT(ReadCommonp(buf.get(), 2, 5000), 0) << "logs on once both are there" << AllLogs();
    const std::string out = CompOutput(c);
    size_t lines = 0;
    for (size_t at = out.find("is missing"); at != std::string::npos; at = out.find("is missing", at + 1)) ++lines;
    EXPECT_EQ(lines, 2u) << out;
    EXPECT_EQ(out.find("fatal error"), std::string::npos) << out;
}

}  // namespace
