#include "config/SockBind.h"

#include <cstdlib>

#include "config/SysRscApp.h"
#include "util/SysTcpBasi.h"

namespace {

constexpr int kDefaultBacklog = 96;

// Listen backlog: KERNEL_BACKLOG of the loaded variables, 96 when missing.
int ListenBacklog() {
    char caValue[1100] = {};   // a table value is at most 1,024 bytes
    if (SysGetenvByName("KERNEL_BACKLOG", caValue) != 0) return kDefaultBacklog;
    return std::atoi(caValue);
}

}  // namespace

extern "C" int iSockBind(const char* pcIp, int iPort) { return iSockListen(pcIp, iPort, ListenBacklog()); }
