// Test pre-handling plug-in: one function per behaviour a mode must handle
// (rewrite, reply-and-consume, failure, in-place transformation) and a
// heartbeat builder. Calls writelog of the host to show that plug-ins can
// reach the process's own routines.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "comp/SysPlugin.h"
#include "log/SysTraceLog.h"

extern "C" {

// Replaces the message by "RW<route>/<value>:" and the data.
int PreRewrite(int iRouteId, const char* pcData, int iLen, char* pcOut, int* piOutLen, unsigned short usValue) {
    int n = std::snprintf(pcOut, 64, "RW%d/%u:", iRouteId, static_cast<unsigned>(usValue));
    std::memcpy(pcOut + n, pcData, static_cast<size_t>(iLen));
    *piOutLen = n + iLen;
    writelog(LOG_DEBUG, nullptr, 0, "plugin PreRewrite len=%d", *piOutLen);
    return 0;
}

// Answers "ACK" itself and consumes the message.
int PreReplyConsume(int, const char*, int, char* pcOut, int* piOutLen, unsigned short) {
    std::memcpy(pcOut, "ACK", 3);
    *piOutLen = 3;
    return 1;
}

// Fails without output.
int PreFail(int, const char*, int, char*, int* piOutLen, unsigned short) {
    *piOutLen = 0;
    return -1;
}

// Upper-cases the message.
int PreUpper(int, const char* pcData, int iLen, char* pcOut, int* piOutLen, unsigned short) {
    for (int i = 0; i < iLen; ++i)
        pcOut[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(pcData[i])));
    *piOutLen = iLen;
    return 0;
}

// "BEAT<type>" as the heartbeat; returns its length.
int SysBuildBeatHeart(const char* pcType, char* pcOut, int* piOutLen) {
    *piOutLen = std::snprintf(pcOut, 32, "BEAT%s", pcType);
    writelog(LOG_DEBUG, nullptr, 0, "plugin SysBuildBeatHeart [%s]", pcType);
    return *piOutLen;
}

}  // extern "C"
