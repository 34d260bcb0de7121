// IPv4 TCP socket helpers. They report on the trace log and return their
// codes; the modes, which know the route and the peer, decide what follows.
#pragma once

extern "C" {

int iSockBind(const char* pcIp, int iPort);
int iSockAccept(int iListenFd);
int iSockAcceptInfo(int iListenFd, char* pcIp, int* piPort);
int iGetPeer(int iSock, char* pcIp, int* piPort);
int iSockConnect(const char* pcIp, int iPort);
int iSockSend(int iSock, const void* pvData, int iLen);
int iSockRecv(int iSock, void* pvBuf, int iLen);
int iNoblockFd(int iFd);

}  // extern "C"
