// The polled frames both synchronous modes check and build: the checks, the
// serial rules of each side, and the answer built from a task in place.
#include <gtest/gtest.h>

#include <string>

#include "base/SysTypes.h"
#include "modes/SynFrame.h"

namespace {

namespace syn = comp::syn;
using syn::Verdict;

std::string F(std::initializer_list<int> bytes) {
    std::string s;
    for (int b : bytes) s.push_back(static_cast<char>(b));
    return s;
}
std::span<const char> S(const std::string& s) { return {s.data(), s.size()}; }

TEST(SynFrame, accepts_only_begin_end_and_known_commands_then_compares_the_serial) {
    EXPECT_EQ(syn::Check(S(F({0xEB, 1, 7, 0, 0, 3})), 7), Verdict::kOk);
    EXPECT_EQ(syn::Check(S(F({0xEB, 4, 7, 0, 2, 'h', 'i', 3})), 7), Verdict::kOk);
    EXPECT_EQ(syn::Check(S(F({0xEB, 2, 7, 3})), 7), Verdict::kOk) << "the content is the peers' business";
    EXPECT_EQ(syn::Check(S(F({0xEB, 2, 8, 0, 0, 3})), 7), Verdict::kBadSerial);

    EXPECT_EQ(syn::Check(S(F({0xEC, 1, 7, 0, 0, 3})), 7), Verdict::kMalformed) << "begin byte";
    EXPECT_EQ(syn::Check(S(F({0xEB, 1, 7, 0, 0, 4})), 7), Verdict::kMalformed) << "end byte";
    for (int cmd : {0, 3, 5, 0xEB, 0xFF})
        EXPECT_EQ(syn::Check(S(F({0xEB, cmd, 7, 0, 0, 3})), 7), Verdict::kMalformed) << "command " << cmd;
    // A frame too short to hold command and serial is never read past its end.
    EXPECT_EQ(syn::Check(S(F({0xEB, 3})), 3), Verdict::kMalformed);
    EXPECT_EQ(syn::Check(S(F({0xEB})), 0xEB), Verdict::kMalformed);
    EXPECT_EQ(syn::Check({}, 0), Verdict::kMalformed);
    // The shortest frame: its end byte is also its serial.
    EXPECT_EQ(syn::Check(S(F({0xEB, 1, 3})), 3), Verdict::kOk);
}

TEST(SynFrame, client_expects_one_more_than_its_last_answer_and_answers_polls_and_data) {
    auto step = [](int cmd, int serial, uint8_t last) {
        return syn::ClientStep(S(F({0xEB, cmd, serial, 0, 0, 3})), last);
    };
    syn::Step s = step(1, 0, 255);
    EXPECT_EQ(s.verdict, Verdict::kOk) << "after a connect (255) the first request carries 0";
    EXPECT_TRUE(s.answer);
    EXPECT_FALSE(s.forward);
    s = step(4, 0, 255);
    EXPECT_TRUE(s.answer && s.forward) << "data is answered and goes on";
    s = step(2, 9, 8);
    EXPECT_EQ(s.verdict, Verdict::kOk);
    EXPECT_FALSE(s.answer || s.forward) << "no data: nothing to do";
    EXPECT_EQ(step(1, 8, 8).verdict, Verdict::kBadSerial) << "a repeated serial";
    EXPECT_EQ(step(1, 10, 8).verdict, Verdict::kBadSerial) << "a skipped serial";
    EXPECT_EQ(step(7, 9, 8).verdict, Verdict::kMalformed);
}

TEST(SynFrame, server_expects_the_serial_it_sent_and_answers_only_data) {
    auto step = [](int cmd, int serial, uint8_t sent) {
        return syn::ServerStep(S(F({0xEB, cmd, serial, 0, 0, 3})), sent);
    };
    syn::Step s = step(4, 0, 0);
    EXPECT_EQ(s.verdict, Verdict::kOk);
    EXPECT_TRUE(s.answer && s.forward);
    for (int cmd : {1, 2}) {
        s = step(cmd, 5, 5);
        EXPECT_EQ(s.verdict, Verdict::kOk);
        EXPECT_FALSE(s.answer || s.forward) << "command " << cmd;
    }
    EXPECT_EQ(step(4, 6, 5).verdict, Verdict::kBadSerial);
    EXPECT_EQ(step(4, 255, 0).verdict, Verdict::kBadSerial);
}

TEST(SynFrame, empty_frames_and_answers_from_tasks) {
    char empty[syn::kEmptyLen];
    EXPECT_EQ(syn::BuildEmpty(2, 0x41, empty), 6);
    EXPECT_EQ(std::string(empty, 6), F({0xEB, 2, 0x41, 0, 0, 3}));

    // No task: the six bytes of the side's empty command.
    std::string task(comp::plat::kHeaderLen, 'h');
    syn::Answer a = syn::MakeAnswer(task.data(), 0, syn::kCmdPoll, 9, empty);
    EXPECT_FALSE(a.task || a.tooShort);
    EXPECT_EQ(std::string(a.data, a.len), F({0xEB, 1, 9, 0, 0, 3}));

    // A task: TranP's frame behind the header, stamped where it lies.
    task += F({0xEB, 0x77, 0x66, 0, 2, 'o', 'k', 3});
    a = syn::MakeAnswer(task.data(), static_cast<int>(task.size()), syn::kCmdNoData, 0x10, empty);
    EXPECT_TRUE(a.task);
    EXPECT_EQ(a.data, task.data() + comp::plat::kHeaderLen);
    EXPECT_EQ(std::string(a.data, a.len), F({0xEB, 4, 0x10, 0, 2, 'o', 'k', 3}));

    // A task with fewer than three bytes of frame cannot take command and
    // serial: the empty frame goes instead.
    std::string shortTask(comp::plat::kHeaderLen + 2, 'x');
    a = syn::MakeAnswer(shortTask.data(), static_cast<int>(shortTask.size()), syn::kCmdNoData, 3, empty);
    EXPECT_TRUE(a.tooShort);
    EXPECT_EQ(std::string(a.data, a.len), F({0xEB, 2, 3, 0, 0, 3}));
    EXPECT_EQ(shortTask, std::string(comp::plat::kHeaderLen + 2, 'x')) << "left as it was";
}

}  // namespace
