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


// ---- polled synchronous links: PCSYN (client) and PASSYN (server) ----------
int SysTCPPCSYN(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);
int SysTCPPASSYN(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd);
// PCSYN: one doorbell from TranP (the message waits for the next request),
// and one request of the server checked and answered.
int SysReadPipe(int iNotifyFd, const char* pcRouteId, RouteRecord stRoute);
int SysGetAndSendTaskMsg(const char* pcRouteId, char* pcFrame, int iLen, int iFd);
// PASSYN: one client frame checked and answered from the task queue, and one
// task of a client address (the type word of pstBuf) read without waiting.
int SysAnswerBack(char* pcFrame, int iLen, int iFd, int iTaskQid);
int SysReadTaskQueue(int iTaskQid, QueueMsg* pstBuf);

}  // extern "C"
