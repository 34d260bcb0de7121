// The fault seam: counted faults, the hook that hears of each, and the
// COMP_FAULTS text whole-process tests arm it with.
#include <cerrno>
#include <string>
#include <vector>

#include "UnitFixture.h"
#include "base/SysIpcSeam.h"

namespace {

namespace seam = comp::seam;

class Seam : public comptest::UnitTest {
protected:
    void TearDown() override {
        seam::g_pfFaultHook = nullptr;
        comptest::UnitTest::TearDown();
    }
    // Which of the next n calls of a kind fail, as a string of '.' and 'x'.
    static std::string Pattern(seam::IpcCall call, int n) {
        std::string out;
        for (int i = 0; i < n; ++i) out += seam::IpcCallFails(call) ? 'x' : '.';
        return out;
    }
};

TEST_F(Seam, counted_faults_fail_the_nth_call_and_as_many_after_it_as_asked) {
    EXPECT_EQ(Pattern(seam::kAccept, 3), "...") << "nothing armed";
    seam::FailNthCall(seam::kAccept, 3, EMFILE, 2);
    EXPECT_EQ(Pattern(seam::kAccept, 6), "..xx..");
    seam::FailNthCall(seam::kSend, 2, EPIPE, -1);
    EXPECT_EQ(Pattern(seam::kSend, 5), ".xxxx");
    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(Pattern(seam::kRecv, 2), "..") << "kinds are armed one by one";
    seam::ClearIpcFaults();
    EXPECT_EQ(Pattern(seam::kSend, 2), "..");
}

std::vector<std::string> g_heard;
bool g_hookWriteFailed = false;
void Hear(seam::IpcCall call, int callNo, int err) {
    g_heard.push_back(std::string(seam::CallName(call)) + "#" + std::to_string(callNo) + "=" + std::to_string(err));
    // The hook's own log write goes through the seam too: it passes.
    g_hookWriteFailed = seam::IpcCallFails(seam::kLogWrite);
}

TEST_F(Seam, the_hook_hears_each_failure_and_its_own_write_passes_uncounted) {
    g_heard.clear();
    seam::g_pfFaultHook = Hear;
    seam::FailNthCall(seam::kLogWrite, 2, ENOSPC, -1);
    EXPECT_EQ(Pattern(seam::kLogWrite, 3), ".xx");
    EXPECT_FALSE(g_hookWriteFailed) << "the line telling of the failure is written";
    EXPECT_EQ(g_heard, (std::vector<std::string>{"logwrite#2=" + std::to_string(ENOSPC),
                                                 "logwrite#3=" + std::to_string(ENOSPC)}));
}

TEST_F(Seam, comp_faults_text_arms_each_kind_it_names) {
    std::string why;
    ASSERT_TRUE(seam::ArmFaultsFromText("msgsnd:2:EIDRM,accept:1:24:2,fiforead:3:ECONNRESET:-1", &why)) << why;
    EXPECT_EQ(Pattern(seam::kMsgSnd, 3), ".x.");
    EXPECT_EQ(errno, EIDRM);
    EXPECT_EQ(Pattern(seam::kAccept, 3), "xx.");
    EXPECT_EQ(errno, 24);
    EXPECT_EQ(Pattern(seam::kFifoRead, 4), "..xx");
    EXPECT_EQ(Pattern(seam::kFifoWrite, 2), "..");
}

TEST_F(Seam, comp_faults_text_that_is_not_understood_arms_nothing) {
    for (const char* bad : {"", "msgsnd", "msgsnd:1", "nosuch:1:EIO", "msgsnd:0:EIO", "msgsnd:x:EIO",
                            "msgsnd:1:ENOTHING", "msgsnd:1:EIO:0", "msgsnd:1:EIO:-2", "msgsnd:1:EIO:1:9",
                            "recv:1:EIO,recv:2:EIO", "send:1:EPIPE,accept:1"}) {
        std::string why;
        EXPECT_FALSE(seam::ArmFaultsFromText(bad, &why)) << bad;
        EXPECT_FALSE(why.empty()) << bad;
        EXPECT_EQ(Pattern(seam::kSend, 1) + Pattern(seam::kRecv, 1) + Pattern(seam::kMsgSnd, 1), "...") << bad;
    }
}

}  // namespace
