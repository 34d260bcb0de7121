// Hooks around the route plug-ins in $HOME/runs/bin: pre-handling of data,
// heartbeat messages, calls by name, file loading and integrity checks.
// A plug-in library is opened for each use and closed after it, so a new
// library takes effect at the next message.
#pragma once

#include "base/SysTypes.h"

extern "C" {

// A pre-handling function of libBeatMsg.so.
typedef int (*SysPreHdlFunc)(int iRouteId, const char* pcData, int iLen, char* pcOut, int* piOutLen,
                             unsigned short usValue);
// SysBuildBeatHeart of libBeatMsg.so.
typedef int (*SysBuildBeatHeartFunc)(const char* pcType, char* pcOut, int* piOutLen);
// SysRcvMulPkg of libnetrule.so: reads one message from the socket into
// pcBuf (a queue text buffer) by the route's framing; returns the message
// length, also stored in *piTotal, or a negative value.
typedef int (*SysRcvMulPkgFunc)(int iRouteId, int iSock, char* pcBuf, int iHeaderLen, const RouteRecord* pstRoute,
                                int* piTotal);

int SysPreHdl(const char* pcRouteId, const char* pcFunc, const char* pcData, int iLen, char* pcOut,
              int* piOutLen, unsigned short usValue);
// Without the plug-in: types 11 and 12 give a 62-byte frame, type 13 a
// 40-byte station-link frame (-1 when app.cfg lacks the station id, the
// frame is built with station 0000); other types give nothing and -1.
// pcOut must hold at least 62 bytes.
int SysDealBeatHeart(const char* pcType, char* pcOut, int* piOutLen);
int PubDlExeFuncWithPara(const char* pcName, void* pvArg);
int SysRDFile2Buf(const char* pcFile, char* pcBuf);
int SysCheckMd5(const char* pcBuf, int iLen);

}  // extern "C"

namespace comp {
// The station id: app.cfg variable "0002" as four digits (right-aligned,
// zero-padded, only the last four count) packed as 2 BCD bytes into pucOut.
// False when app.cfg lacks it; pucOut then holds 0000.
bool StationIdBcd(unsigned char* pucOut);

// One call of the receiver plug-in's SysRcvMulPkg.
struct NetRuleCall {
    int iRouteNo;
    int iSock;
    char* pcBuf;                  // a queue text buffer (65,536 bytes)
    int iHeaderLen;
    const RouteRecord* pstRoute;
    int* piTotal;
};
// Reads one message with SysRcvMulPkg of $HOME/runs/bin/libnetrule.so, which
// is loaded for this call and unloaded after it, so a new library takes
// effect at the next message. Returns what the receiver returns; -1 when the
// library is missing or cannot be loaded; 1 when it has no SysRcvMulPkg, with
// *pbNoReceiver set (nothing was read). The lines name pcSrc as their source.
int RecvByNetRule(const char* pcSrc, const NetRuleCall& stCall, bool* pbNoReceiver);
}  // namespace comp
