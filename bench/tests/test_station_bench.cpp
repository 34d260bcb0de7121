// bench_station as a process: a short run reports both relays and leaves
// nothing behind.
#include <gtest/gtest.h>
#include <sys/msg.h>
#include <sys/wait.h>

#include <filesystem>
#include <regex>
#include <string>

#include "kit/KitIpc.h"
#include "kit/KitProc.h"
#include "kit/KitUtil.h"

namespace {

TEST(BenchStation, ShortRunReportsCompAndBaselineAndCleansUp) {
    if (!kit::EnsureQueueLimits().empty()) GTEST_SKIP() << "64 KiB queue messages are not allowed here";
    const std::string out = "/tmp/bench_station_test_" + std::to_string(getpid()) + ".out";
    kit::SpawnOptions plan;
    plan.path = std::string(COMP_BINARY_DIR) + "/bench/bench_station";
    plan.argv = {plan.path, "--seconds", "0.3", "--rounds", "1", "--warmup", "0", "--idle", "0.2", "--windows", "2",
                 "--styles", "deadline"};
    plan.outputPath = out;
    std::string why;
    pid_t pid = kit::Spawn(plan, &why);
    ASSERT_GT(pid, 0) << why;
    int status = -1;
    if (!kit::WaitChild(pid, 60000, &status)) kit::StopChild(pid, 2000);
    const std::string text = kit::ReadWholeFile(out).value_or("");
    std::filesystem::remove(out);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    EXPECT_NE(text.find("| deadline |  2 |"), std::string::npos) << text;
    EXPECT_NE(text.find("idle CPU of comp (deadline"), std::string::npos) << text;
    EXPECT_EQ(text.find("no N005"), std::string::npos) << text;
    std::smatch m;
    ASSERT_TRUE(std::regex_search(text, m, std::regex("platform (/tmp/compbench\\.\\w+) \\(keys 0x([0-9a-f]+)"))) << text;
    EXPECT_FALSE(std::filesystem::exists(m[1].str()));
    const key_t base = static_cast<key_t>(std::stoul(m[2].str(), nullptr, 16));
    for (int q : {6, 7, 8, 12}) EXPECT_LT(msgget(base + q, 0), 0) << "queue " << q;
}

}  // namespace
