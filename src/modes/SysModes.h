// The transport modes, exported under their names so that the process entry
// finds the one named on the command line with dlsym(). Helper routines that
// several modes share a name for (SysSendMsg, SysConnectIni, ...) stay
// private to their mode's file.
#pragma once

#include "base/SysTypes.h"

extern "C" {

int SysTCPTC(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);
int SysTCPTS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);

// Short-connection client: one request of the route from TranP's queue.
int SysTcptcRecvPlatMsg(int iFifoFd, const char* pcRouteId, RouteRecord stRoute, QueueMsg* pstBuf);
// Short-connection server: listener set-up and one answer from TranP.
int SysLsnInit(RouteRecord stRoute);
int SysResponseWork(int iFifoFd, char* pcRouteId, RouteRecord stRoute);

// Persistent client and persistent server. Their helpers (SysSendMsg,
// SysConnectIni, SysKeepAlive, ...) share names with other modes' and stay
// in their files.
int SysTCPPC(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);
int SysTCPPS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);

}  // extern "C"
