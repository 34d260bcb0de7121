// IPv4 TCP socket helpers. They report on the trace log and return their
// codes; the modes, which know the route and the peer, decide what follows.
#pragma once

#include "base/ByteSource.h"

// A listening socket bound to pcIp:iPort with the given backlog; the
// descriptor, or -1. The process's listeners come from iSockBind, which adds
// the configured backlog.
int iSockListen(const char* pcIp, int iPort, int iBacklog);

// iSockAcceptInfo with accept4 flags (SOCK_NONBLOCK, SOCK_CLOEXEC): a
// connection that is to be non-blocking comes so from the accept itself,
// which saves the iNoblockFd call per connection. The descriptor, or -1
// without a log line.
int SockAcceptInfoFlags(int iListenFd, char* pcIp, int* piPort, int iFlags);

extern "C" {

int iSockAccept(int iListenFd);
int iSockAcceptInfo(int iListenFd, char* pcIp, int* piPort);
int iGetPeer(int iSock, char* pcIp, int* piPort);
int iSockConnect(const char* pcIp, int iPort);
int iSockSend(int iSock, const void* pvData, int iLen);
int iSockRecv(int iSock, void* pvBuf, int iLen);
int iNoblockFd(int iFd);

}  // extern "C"

namespace comp {

// A connection as a byte source, read with iSockRecv.
ByteSource SocketSource(int iSock);

}  // namespace comp
