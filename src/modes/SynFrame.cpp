#include "modes/SynFrame.h"

#include "base/SysTypes.h"

namespace comp::syn {

Verdict Check(std::span<const char> frame, uint8_t expectSerial) {
    if (frame.size() < static_cast<size_t>(kMinFrameLen)) return Verdict::kMalformed;
    const uint8_t cmd = Command(frame);
    if (static_cast<unsigned char>(frame.front()) != kBegin || static_cast<unsigned char>(frame.back()) != kEnd ||
        (cmd != kCmdPoll && cmd != kCmdNoData && cmd != kCmdData))
        return Verdict::kMalformed;
    return Serial(frame) == expectSerial ? Verdict::kOk : Verdict::kBadSerial;
}

int BuildEmpty(uint8_t cmd, uint8_t serial, char (&out)[kEmptyLen]) {
    out[0] = static_cast<char>(kBegin);
    out[kOffCmd] = static_cast<char>(cmd);
    out[kOffSerial] = static_cast<char>(serial);
    out[3] = 0;
    out[4] = 0;
    out[5] = static_cast<char>(kEnd);
    return kEmptyLen;
}

Step ClientStep(std::span<const char> frame, uint8_t lastSerial) {
    Step s;
    s.verdict = Check(frame, static_cast<uint8_t>(lastSerial + 1));
    if (s.verdict != Verdict::kOk) return s;
    s.cmd = Command(frame);
    s.answer = s.cmd != kCmdNoData;
    s.forward = s.cmd == kCmdData;
    return s;
}

Step ServerStep(std::span<const char> frame, uint8_t sentSerial) {
    Step s;
    s.verdict = Check(frame, sentSerial);
    if (s.verdict != Verdict::kOk) return s;
    s.cmd = Command(frame);
    s.answer = s.forward = s.cmd == kCmdData;
    return s;
}

Answer MakeAnswer(char* taskText, int taskLen, uint8_t emptyCmd, uint8_t serial, char (&empty)[kEmptyLen]) {
    Answer a;
    const int frameLen = taskLen - plat::kHeaderLen;
    if (taskLen > 0 && frameLen >= kMinFrameLen) {
        char* frame = taskText + plat::kHeaderLen;
        frame[kOffCmd] = static_cast<char>(kCmdData);
        frame[kOffSerial] = static_cast<char>(serial);
        a.data = frame;
        a.len = frameLen;
        a.task = true;
        return a;
    }
    a.tooShort = taskLen > 0;
    a.data = empty;
    a.len = BuildEmpty(emptyCmd, serial, empty);
    return a;
}

}  // namespace comp::syn
