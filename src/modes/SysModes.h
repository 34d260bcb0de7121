// The transport modes, exported under their names so that the process entry
// finds the one named on the command line with dlsym(). Helper routines that
// several modes share a name for (SysSendMsg, SysConnectIni, ...) stay
// private to their mode's file.
#pragma once

#include <cstddef>
#include <cstdint>

#include "base/SysTypes.h"

extern "C" {

int SysTCPTC(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);
int SysTCPTS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);

// Short-connection client: one request of the route from TranP's queue.
int SysTcptcRecvPlatMsg(int iFifoFd, const char* pcRouteId, RouteRecord stRoute, QueueMsg* pstBuf);
// Short-connection server: listener set-up and one answer from TranP.
int SysLsnInit(RouteRecord stRoute);
int SysResponseWork(int iFifoFd, char* pcRouteId, RouteRecord stRoute);

// ---- SysTCPPAS: asynchronous multi-client server --------------------------
int SysTCPPAS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd);
// One connection per client address across the route's processes: 0 the
// address holds none, 1 an older connection of it was closed (here or by its
// owner), -2 the owner did not answer in time, -1 fatal.
int SysCheckIP(char* pcRouteId, char* pcIp, int iMaxFd);
// The descriptor of this process's open connection from pcIp, or -1.
int iGetFdByIP(char* pcIp, int iPort, int iMaxFd, char* pcRouteName);

// What one PAS process asks another about a client address (peer-request
// queue, typed with the owner's pid) and the answer (peer-answer queue, the
// same bytes typed with the asker's pid).
struct PasPeerMsg {
    int32_t iPid;       // the asking process
    char caIp[16];      // the client address, dotted text
};
static_assert(sizeof(PasPeerMsg) == 20);
static_assert(offsetof(PasPeerMsg, caIp) == 4);

}  // extern "C"
