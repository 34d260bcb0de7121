// Small pieces shared by the transport modes.
#pragma once

#include <ctime>

#include "base/SysTypes.h"

namespace comp {

// MAX_COM_NUM from [LOADVARS]: the socket-table size, or -1 when the variable
// is missing or not a usable size.
int ModeMaxComNum();

// The route row's text field as a number / as text.
int RouteInt(const RouteRecord& stRoute, RouteColumn eCol);
const char* RouteText(const RouteRecord& stRoute, RouteColumn eCol);

// Seconds since the epoch, as the 32-bit time stamps of the socket tables.
inline int32_t Now32() { return static_cast<int32_t>(time(nullptr)); }

class ModeLoop;

// Opens the control FIFO "<pid>_<instance>" and the mode's notification FIFO
// (pcNotifyName of iNotifyKind) and registers both with the loop; false after
// the "iOpenFIFO error" line.
bool OpenModeFifos(ModeLoop& loop, int iInstance, const char* pcNotifyName, int iNotifyKind, int* piCtlFd,
                   int* piNotifyFd);

// Reads a 32-bit integer of a PlatMsg header.
int32_t HeaderInt(const char* pcHeader, int iOffset);

}  // namespace comp

extern "C" {
// Writes one line to a connection log (writelog2 to pcPath); a line for a
// row that is already free (negative descriptor) is dropped with -2.
int SysConnLog(int iFd, const char* pcPath, int iLevel, const void* pvData, int iLen, const char* pcFmt, ...)
    __attribute__((format(printf, 6, 7)));
}
