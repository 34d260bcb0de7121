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

#include <string>

namespace comp {

// The FIFOs this process opened with iOpenFIFO, found again by the file a
// descriptor holds. A FIFO file removed under a running process (an
// operator's clean-up, a platform restart) leaves its descriptor working but
// unreachable: nobody can ring it any more.
enum class FifoFile {
    kInPlace,    // the path still names the file the descriptor holds
    kRemoved,    // nothing at the path now
    kReplaced,   // another file at the path now
    kNotOurs,    // the descriptor holds no FIFO that iOpenFIFO opened here
};
// What became of the FIFO file of iFd; its path in *pPath (when ours).
FifoFile CheckFifoFile(int iFd, std::string* pPath);
// Opens the FIFO of iFd again at its path, making it when it is missing (as
// iOpenFIFO, with its lines), and carries the bytes still unread in iFd over
// into it. The new descriptor, or -1.
int ReopenFifo(int iFd);

}  // namespace comp
