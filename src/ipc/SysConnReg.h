// Connection registry: 16,384 nodes in the first [SHMRESOURCE] segment on a
// free and a busy circular list, guarded by one semaphore with undo on exit.
#pragma once

#include "base/SysTypes.h"

extern "C" {

int SysInitMemList(int iPosition, int iCount, int iSemId);
int SysConnectMem(int iPosition, int iCount);
int attach(char** ppcHeader, char** ppcSegment, char** ppcNodes);
int SysSaveInfo(const char* pcRouteId, const char* pcIp, int iPort, int iVirtualFd, int iSockFd);
int set(const char* pcKey, const void* pvValue, int iLen);
int get(const char* pcKey, void* pvOut);
int update(const char* pcKey, const void* pvValue, int iLen);
int SysGetPidByRouteidIp(const char* pcRouteId, const char* pcIp, ConnNode* pstOut);
int DeleteOne(int iRouteId, const char* pcIp, int iUnused, int iSockFd);
int DeleteFWOne(int iPid, const char* pcIp, int iPort, int iSockFd);
int DeleteBusyByPid(int iPid);
int DeleteVirtualFdMany(int iPid, int iVirtualFd, int iSockFd);
int GetVirtualNodeList(int iPid, int iVirtualFd, int iSockFd, ConnNode* pstOut);
int ClearConnList(const char* pcType);
int DeleteBusyAll(const char* pcType);
int print(void);

}  // extern "C"

// Each process keeps its attachment of the registry segment between calls;
// this drops it (the next call attaches again). For tests and for a process
// that wants to let go of the segment.
void SysConnRegDetach();
