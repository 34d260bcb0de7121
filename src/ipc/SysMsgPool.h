// Process-private message pool: messages kept under a text key in chains of
// 1,024-byte pieces, taken out oldest or newest first.
#pragma once

#include "base/SysTypes.h"

extern "C" {

int InitMemPool(int iSize);
int SysSetPool(const char* pcKey, const void* pvData, int iLen);
int SysFetchPoolOne(const char* pcKey, void* pvOut, int* piLen);
int SysViewPool(const char* pcKey, void* pvOut, int* piLen);
int SysViewPoolFILO(const char* pcKey, void* pvOut, int* piLen);
int SysDelPoolOne(const char* pcKey);
int SysDelPoolFILO(const char* pcKey);
int SysDelPool(const char* pcKey);
int SysCleanNode(int iUnused, int iAge);
int PoolPut(const void* pvData, int iLen);
int PoolGet(void* pvOut, int* piLen);
int PoolGetBNum(void);
int SysFreePool(void);

}  // extern "C"
