// Pieces shared by the trace log and the error log: the hex dump, the time
// stamps and a locked append to a file.
#pragma once

#include <string>

namespace comp::log {

// Appends the dump of iLen bytes in the layout of both logs: 16 bytes a line
// under a heading repeated every 20 lines. The lines come out in the order
// the platform's log readers expect: heading, line 0, heading, lines 1-20,
// heading, lines 21-40, ...
void AppendHexDump(std::string& out, const void* pvData, int iLen);

// "YYYYMMDDhhmmss" of the local time now.
std::string TimeStamp14();

// Appends printf-style text, bounded to iMax bytes of output.
void AppendFormat(std::string& out, int iMax, const char* pcFmt, ...) __attribute__((format(printf, 3, 4)));

}  // namespace comp::log
