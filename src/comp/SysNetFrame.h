// Cutting messages out of a route's TCP byte stream by the route's length
// rule, and finding a message's type by the route's type rule.
#pragma once

#include "base/ByteSource.h"
#include "base/SysTypes.h"

extern "C" {

// Bytes that follow the header (>= 0), or -1 / a negative value on failure.
int SysGetLenFromHead(const char* pcHeader, const RouteRecord* pstRoute, int iHeaderLen);
// Writes the type text into pcType (zeroed by the caller, at least 16 bytes).
// pcMsg is the start of a queue text buffer (65,536 bytes): the route's type
// field must lie within it.
int SysGetMsgTypeFromHead(const char* pcMsg, const char* pcRouteId, char* pcType);
// The same for a message of iMsgLen bytes: a type field outside the message
// is refused.
int SysGetMsgTypeFromMsg(const char* pcMsg, int iMsgLen, const char* pcRouteId, char* pcType);
// Reads one whole message into pstBuf->caText; its total length, or -1 with
// the system error number in *piErrno.
int SysTcpRecvMsg(int iSock, const RouteRecord* pstRoute, QueueMsg* pstBuf, int* piErrno);

}  // extern "C"

namespace comp {

// SysTcpRecvMsg on any byte source: the header, then the body its length
// rule announces. iSock only names the stream in the log lines.
int RecvFramedMsg(const ByteSource& src, int iSock, const RouteRecord* pstRoute, QueueMsg* pstBuf, int* piErrno);

}  // namespace comp
