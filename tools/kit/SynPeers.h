// The peers of the polled synchronous routes, to run them on the example
// platform or by hand:
//
//   compkit poll-server IP:PORT ...   the server a PCSYN route connects to: it
//                                     polls, and sends data frames when given some
//   compkit poll-client IP:PORT ...   a client of a PASSYN route: it answers the
//                                     route's polls and pushes, with data when given some
//
// Frames: EB cmd serial, the data length as 16 bits in network order, the
// data, 03 (the route framing HEADERLEN 5, MSGLENGETOFFSET 3, MSGLENGETLEN 2,
// MSGLENGETTYPE 2, MSGLENINTEL 0, MSGLENADJUST 1). cmd 1 polls, 2 has no data,
// 4 carries data; whoever polls counts the serial up, the other repeats it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kit/Framing.h"

namespace kit {

// The route framing of the frames above.
Framing SynFraming();

// One frame: EB cmd serial len(2) data 03.
std::string SynBytes(int cmd, int serial, std::string_view data = {});

// A frame read back: its command, serial and data (between the length field
// and the end byte). wellFormed is false when the begin or end byte is wrong
// or the frame is too short to hold them.
struct SynView {
    int cmd = 0;
    int serial = 0;
    std::string data;
    bool wellFormed = false;
};
SynView ParseSyn(const std::vector<char>& frame);

// Reads exactly one frame within timeoutMs, never a byte of the next (a peer
// may send two frames back to back); false with the reason.
bool ReadSynFrame(int fd, int timeoutMs, std::vector<char>* frame, std::string* why);
// The same as text, "" when none came.
std::string ReadSyn(int fd, int timeoutMs);

// One line for a frame: "poll 3", "no data 3", "data 3 \"...\"".
std::string DescribeSyn(const SynView& f);

// The subcommands parse their own arguments (after the subcommand name) and
// return the exit status; usage errors print to stderr and return 2.
int RunPollServer(const std::vector<std::string>& args);
int RunPollClient(const std::vector<std::string>& args);

}  // namespace kit
