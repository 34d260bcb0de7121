// The platform's System V objects as sys.cfg names them: creating them with
// the registry formatted and the tables loaded (`compkit up`), removing them
// again (`compkit down`) and showing their state (`compkit status`).
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/SysTypes.h"

namespace kit {

// What sys.cfg names, read with the product's own readers.
struct Resources {
    CommCfg comm{};
    std::vector<QueueCfgEntry> queues;
    std::vector<SemCfgEntry> sems;
    std::vector<ShmCfgEntry> shms;  // [0] registry, [1] tables
};

// Reads RUNDIR/etc/sys.cfg; false with the reason.
bool ReadResources(const std::string& runDir, Resources* out, std::string* why);

// The queue id of [QRESOURCE] index `index`, or -1 when it does not exist.
int QueueIdByIndex(const Resources& res, int index);

// One IPC object made by `up`, as recorded in RUNDIR/compkit.objects.
struct IpcObject {
    enum Kind { kQueue, kSemSet, kSegment } kind;
    key_t key;
    int id;
};

// Path of the record of what `up` made.
std::string ObjectsFile(const std::string& runDir);

// `compkit up`. Notes (limits, warnings) are appended to *notes. On failure
// nothing that this call created is left behind.
bool PlatformUp(const std::string& runDir, std::vector<std::string>* notes, std::string* why);

// `compkit down`: removes what `up` recorded (by id, checking the key), or,
// without a record, every object under the keys of sys.cfg; then the FIFOs.
bool PlatformDown(const std::string& runDir, std::vector<std::string>* notes, std::string* why);

// `compkit status`: a readable report.
std::string PlatformStatus(const std::string& runDir);

}  // namespace kit
