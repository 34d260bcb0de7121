// The frames of the polled synchronous link that the PCSYN (client) and
// PASSYN (server) modes speak:
//
//   EB  cmd  serial  <content>  03
//
// cmd 1 polls, 2 says "nothing here", 4 carries data; the serial is one byte
// and wraps. The side that polls counts the serial up with every frame it
// sends, the side that answers repeats it. A frame without data carries two
// zero bytes as content (EB cmd serial 00 00 03). The stream is cut into
// frames by the route's framing rule (HEADERLEN, MSGLEN*), not here: these
// routines look at one whole frame.
#pragma once

#include <cstdint>
#include <span>

namespace comp::syn {

inline constexpr unsigned char kBegin = 0xEB;
inline constexpr unsigned char kEnd = 0x03;
inline constexpr unsigned char kCmdPoll = 1;
inline constexpr unsigned char kCmdNoData = 2;
inline constexpr unsigned char kCmdData = 4;
inline constexpr int kOffCmd = 1;
inline constexpr int kOffSerial = 2;
// Begin byte, command and serial: a shorter frame cannot be read at all.
inline constexpr int kMinFrameLen = 3;
inline constexpr int kEmptyLen = 6;

enum class Verdict {
    kOk,
    kMalformed,   // begin or end byte wrong, unknown command, or too short
    kBadSerial,   // well-formed, but not the serial expected
};

// Checks one frame: begin byte, end byte, command 1, 2 or 4, then the serial.
Verdict Check(std::span<const char> frame, uint8_t expectSerial);
inline uint8_t Command(std::span<const char> frame) { return static_cast<uint8_t>(frame[kOffCmd]); }
inline uint8_t Serial(std::span<const char> frame) { return static_cast<uint8_t>(frame[kOffSerial]); }

// The six bytes EB cmd serial 00 00 03; returns 6.
int BuildEmpty(uint8_t cmd, uint8_t serial, char (&out)[kEmptyLen]);

// What one side does with a frame it received (a whole frame, checked).
struct Step {
    Verdict verdict = Verdict::kMalformed;
    uint8_t cmd = 0;
    bool answer = false;    // an answer frame goes back at once
    bool forward = false;   // the frame goes on to TranP
};
// The client side (PCSYN), whose last answer carried lastSerial: a request
// must carry lastSerial + 1; polls (1) and data (4) are answered, data goes
// on to TranP, "no data" (2) is neither.
Step ClientStep(std::span<const char> frame, uint8_t lastSerial);
// The server side (PASSYN), whose last frame sent carried sentSerial: the
// client's frame repeats it; only data (4) is answered and goes on.
Step ServerStep(std::span<const char> frame, uint8_t sentSerial);

// The frame that answers a poll or carries a task. A task is a queue text of
// taskLen bytes: a 64-byte platform header, then TranP's frame, which gets
// command 4 and the serial written into it where it lies. With no task
// (taskLen 0), or a task too short to hold a frame, the answer is the
// six-byte frame of emptyCmd in `empty`.
struct Answer {
    const char* data = nullptr;
    int len = 0;
    bool task = false;       // TranP's frame is the answer
    bool tooShort = false;   // a task was there but could not be sent
};
Answer MakeAnswer(char* taskText, int taskLen, uint8_t emptyCmd, uint8_t serial, char (&empty)[kEmptyLen]);

}  // namespace comp::syn
