// Named FIFOs under $RUNDIR/fifo: one-byte doorbells and commands.
#pragma once

extern "C" {

int iOpenFIFO(const char* pcName, int iKind);
int iConnectFIFO(const char* pcName, int iKind);
int iCheckPipe(const char* pcFileName);
int iWriteFIFO(int iFd);
int iWriteStr2FIFO(int iFd, const char* pcByte);
int iReadFIFO2Buf(int iFd, char* pcByte);
int iReadFIFO(int iFd);
int iCloseFIFO(int iFd);
int iClearFIFO(int iFd);
int SysCleanIpcFiles(void);
int SysCleanIpcFileById(const char* pcName, int iKind);

}  // extern "C"
