// The listener of the transport modes: the socket helpers' bind and listen
// with the backlog the loaded variables give.
#pragma once

extern "C" {

// A socket listening on pcIp:iPort with KERNEL_BACKLOG of [LOADVARS] as its
// backlog, 96 when the variable is missing; the descriptor, or -1.
int iSockBind(const char* pcIp, int iPort);

}  // extern "C"
