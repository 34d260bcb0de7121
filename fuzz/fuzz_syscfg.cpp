// Arbitrary bytes as sys.cfg, read from memory by the CommCfg reader and
// the four section readers.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "FuzzSupport.h"
#include "config/CfgSource.h"
#include "config/SysRscApp.h"

namespace {

constexpr int kMaxEntries = 16;

int Count(int32_t iFromCfg) {
    if (iFromCfg <= 0) return 3;
    return iFromCfg > kMaxEntries ? kMaxEntries : iFromCfg;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace cfg = comp::cfg;
    compfuzz::KeepLogsSmall();
    const cfg::CfgSource src(std::string_view(reinterpret_cast<const char*>(data), size), "sys.cfg");

    CommCfg stCfg{};
    cfg::CommConfig(src, &stCfg);
    int iProcCount = 0;
    cfg::AppCommConfig(src, &iProcCount);

    QueueCfgEntry q[kMaxEntries];
    cfg::QueueConfig(src, Count(stCfg.iMsgQueueCount), q);
    SemCfgEntry s[kMaxEntries];
    cfg::SemConfig(src, Count(stCfg.iSemphoreCount), s);
    ShmCfgEntry m[kMaxEntries];
    cfg::ShmConfig(src, Count(stCfg.iShareMemCount), m);
    ProcCfgEntry p[kMaxEntries];
    cfg::ProcConfig(src, Count(iProcCount), p);
    return 0;
}
