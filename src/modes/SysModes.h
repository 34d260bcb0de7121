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

// ---- Forwarder pair (FWB, FWS) ---------------------------------------------
// Both take the listener shared with the supervisor as their fourth argument.
int SysTCPFWB(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd);
int SysTCPFWS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iListenFd);
// Forwarder: the extended header (64, with the FTP fields for "A"); a header
// alone to the upper server, connecting first when it is down (the server's
// descriptor, or -1); the server's connection, reconnected when it is down
// (in timer mode, iTimerFlag 1, only once the reconnect interval has passed:
// -2 before); a new connection to the server; the first one at start; closing
// the server connection and every client (how many clients were closed).
int SysFWBuildExHeader(char cKind, const char* pcIp, int iPort, char* pcOut);
int SysFWSendToRemote(int iServerFd, const char* pcRouteId, const RouteRecord* pstRoute, char cKind,
                      const char* pcIp, int iPort);
int SysCheckClientSock(int iTableSize, int iReconnInterval, const char* pcIp, int iPort, const RouteRecord* pstRoute,
                       int iTimerFlag);
int SysGetRemoteSock(const char* pcIp, int iPort, const char* pcRouteName);
int SysConnectRemoteIni(const char* pcRouteName, const char* pcIp, int iPort);
int SysCloseAll(int iServerFd);
// ---- station link (VANTREL) ----
// The station link's protocol routines are declared in modes/SysVantrel.h.
int SysTCPVANTREL(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);
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

// ---- Persistent client and server (PC, PS) -----------------------------------
// PS takes the listener shared with the supervisor as its fourth argument.
// Their helpers (SysSendMsg, SysConnectIni, SysKeepAlive, ...) share names
// with other modes' and stay in their files.
int SysTCPPC(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);
int SysTCPPS(char* pcRouteId, RouteRecord stRoute, int iInstance, int iArg);

}  // extern "C"
