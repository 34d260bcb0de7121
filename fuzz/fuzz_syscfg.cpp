// Arbitrary bytes as sys.cfg, read by the CommCfg reader and the four
// section readers.
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "config/SysRscApp.h"

namespace {

constexpr int kMaxEntries = 16;

int Count(int32_t iFromCfg) {
    if (iFromCfg <= 0) return 3;
    return iFromCfg > kMaxEntries ? kMaxEntries : iFromCfg;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    compfuzz::KeepLogsSmall();
    static const std::string path = compfuzz::RunDir() + "/etc/sys.cfg";
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return 0;
    bool bWritten = write(fd, data, size) == static_cast<ssize_t>(size);
    close(fd);
    if (!bWritten) return 0;

    CommCfg stCfg{};
    GetCommConfigValue(path.c_str(), &stCfg);
    int iProcCount = 0;
    GetAppCommConfigValue(path.c_str(), &iProcCount);

    QueueCfgEntry q[kMaxEntries];
    GetQueueConfigValue(Count(stCfg.iMsgQueueCount), path.c_str(), q);
    SemCfgEntry s[kMaxEntries];
    GetSemConfigValue(Count(stCfg.iSemphoreCount), path.c_str(), s);
    ShmCfgEntry m[kMaxEntries];
    GetShmConfigValue(Count(stCfg.iShareMemCount), path.c_str(), m);
    ProcCfgEntry p[kMaxEntries];
    GetProcConfigValue(Count(iProcCount), path.c_str(), p);
    return 0;
}
