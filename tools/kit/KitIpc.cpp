#include "kit/KitIpc.h"

#include <dirent.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "config/SysRscApp.h"
#include "ipc/SysConnReg.h"
#include "ipc/SysFIFO.h"
#include "ipc/SysIpc.h"
#include "kit/KitUtil.h"
#include "kit/RouteStatus.h"
#include "kit/TablesCfg.h"

namespace kit {

namespace {

// semctl's fourth argument; Linux leaves its definition to the caller.
union SemArg {
    int val;
    semid_ds* buf;
};

constexpr int kLockSemCount = 10;  // the ten-semaphore lock sets
constexpr int kRequiredQueues[] = {comp::kQueueCommonp, comp::kQueueToTranp, comp::kQueueFromTranp};
constexpr int kOptionalQueues[] = {comp::kQueuePasRequest, comp::kQueuePasAnswer, comp::kQueueDrain};

const char* KindName(IpcObject::Kind k) {
    switch (k) {
        case IpcObject::kQueue: return "queue";
        case IpcObject::kSemSet: return "semaphore set";
        case IpcObject::kSegment: return "segment";
    }
    return "?";
}

bool FileExists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

// Looks an object up by key without creating it (-1 when there is none).
int Probe(IpcObject::Kind kind, key_t key) {
    switch (kind) {
        case IpcObject::kQueue: return msgget(key, 0);
        case IpcObject::kSemSet: return semget(key, 0, 0);
        case IpcObject::kSegment: return shmget(key, 0, 0);
    }
    return -1;
}

// The key an existing object carries, or false when the id names nothing.
bool KeyOfId(IpcObject::Kind kind, int id, key_t* key) {
    switch (kind) {
        case IpcObject::kQueue: {
            msqid_ds ds{};
            if (msgctl(id, IPC_STAT, &ds) != 0) return false;
            *key = ds.msg_perm.__key;
            return true;
        }
        case IpcObject::kSemSet: {
            semid_ds ds{};
            SemArg arg{};
            arg.buf = &ds;
            if (semctl(id, 0, IPC_STAT, arg) != 0) return false;
            *key = ds.sem_perm.__key;
            return true;
        }
        case IpcObject::kSegment: {
            shmid_ds ds{};
            if (shmctl(id, IPC_STAT, &ds) != 0) return false;
            *key = ds.shm_perm.__key;
            return true;
        }
    }
    return false;
}

bool StillThere(const IpcObject& o) {
    key_t key = 0;
    return KeyOfId(o.kind, o.id, &key) && key == o.key;
}

bool Remove(const IpcObject& o) {
    switch (o.kind) {
        case IpcObject::kQueue: return MsgRemove(o.id) == 0;
        case IpcObject::kSemSet: return SemRemove(o.id) == 0;
        case IpcObject::kSegment: return ShmemRemove(o.id) == 0;
    }
    return false;
}

std::vector<IpcObject> ReadObjectsFile(const std::string& path) {
    std::vector<IpcObject> out;
    std::ifstream in(path);
    std::string kind;
    long key = 0;
    int id = 0;
    while (in >> kind >> key >> id) {
        if (kind == "queue") out.push_back({IpcObject::kQueue, static_cast<key_t>(key), id});
        if (kind == "sem") out.push_back({IpcObject::kSemSet, static_cast<key_t>(key), id});
        if (kind == "shm") out.push_back({IpcObject::kSegment, static_cast<key_t>(key), id});
    }
    return out;
}

// Everything created so far by one `up`, recorded as it is made and removed
// again unless the whole `up` succeeds.
class Creation {
public:
    explicit Creation(std::string path) : path_(std::move(path)) {
        std::ofstream(path_, std::ios::trunc);
    }
    ~Creation() {
        if (committed_) return;
        for (auto it = made_.rbegin(); it != made_.rend(); ++it) Remove(*it);
        unlink(path_.c_str());
    }
    Creation(const Creation&) = delete;
    Creation& operator=(const Creation&) = delete;

    void add(const IpcObject& o) {
        made_.push_back(o);
        static constexpr const char* kWord[] = {"queue", "sem", "shm"};
        std::ofstream out(path_, std::ios::app);
        out << kWord[o.kind] << ' ' << o.key << ' ' << o.id << '\n';
    }
    void commit() { committed_ = true; }

private:
    std::string path_;
    std::vector<IpcObject> made_;
    bool committed_ = false;
};

std::string Errno() { return std::strerror(errno); }

// comp's start-up readers take an id below 1 for a failed open, so an object
// that the kernel numbers 0 is made again (the new one gets another id).
template <typename Make, typename Drop>
int MakeAvoidingZero(Make make, Drop drop) {
    int id = make();
    if (id == 0) {
        drop(0);
        id = make();
    }
    return id;
}

bool CheckResources(const Resources& res, const std::vector<KitTable>& tables, std::vector<std::string>* notes,
                    std::string* why) {
    std::set<int> idx;
    std::set<key_t> keys;
    for (const QueueCfgEntry& q : res.queues) {
        if (q.iIndex >= comp::kCtlTableSize) {
            *why = "queue " + std::string(q.caName) + ": index " + std::to_string(q.iIndex) +
                   " does not fit comp's table of 32 queues";
            return false;
        }
        if (!idx.insert(q.iIndex).second || !keys.insert(q.iKey).second) {
            *why = "queue " + std::string(q.caName) + ": index or key used twice in [QRESOURCE]";
            return false;
        }
    }
    for (int need : kRequiredQueues)
        if (!idx.count(need)) {
            *why = "[QRESOURCE] has no queue with index " + std::to_string(need) + " (comp needs 6, 7 and 8)";
            return false;
        }
    for (int want : kOptionalQueues)
        if (!idx.count(want))
            notes->push_back("note: [QRESOURCE] has no queue with index " + std::to_string(want));
    idx.clear();
    keys.clear();
    for (const SemCfgEntry& s : res.sems) {
        if (s.iIndex >= comp::kCtlTableSize || !idx.insert(s.iIndex).second || !keys.insert(s.iKey).second) {
            *why = "semaphore set " + std::string(s.caName) + ": index above 31, or index or key used twice";
            return false;
        }
        if (s.iNum != 1 && s.iNum != kLockSemCount) {
            *why = "semaphore set " + std::string(s.caName) + ": sets hold 1 or 10 semaphores, not " +
                   std::to_string(s.iNum);
            return false;
        }
    }
    if (res.shms.size() < 2) {
        *why = "[SHMRESOURCE] needs two segments: the connection registry and the tables";
        return false;
    }
    if (res.shms[0].iKey == res.shms[1].iKey) {
        *why = "the registry and the table segment have the same key";
        return false;
    }
    if (res.shms[0].iSize < comp::kRegistrySegmentMin) {
        *why = "registry segment " + std::string(res.shms[0].caName) + " has " + std::to_string(res.shms[0].iSize) +
               " bytes; it needs at least " + std::to_string(comp::kRegistrySegmentMin);
        return false;
    }
    const size_t need = TableImageBytes(tables);
    if (static_cast<size_t>(res.shms[1].iSize) < need) {
        *why = "table segment " + std::string(res.shms[1].caName) + " has " + std::to_string(res.shms[1].iSize) +
               " bytes; the rows of tables.cfg need " + std::to_string(need);
        return false;
    }
    return true;
}

bool LoadTables(const std::string& runDir, std::vector<KitTable>* tables, std::vector<std::string>* notes,
                std::string* why) {
    const std::string path = runDir + "/etc/tables.cfg";
    auto text = ReadWholeFile(path);
    if (!text) {
        notes->push_back("note: no " + path + "; the table segment stays empty");
        tables->clear();
        return true;
    }
    return ParseTablesCfg(*text, path, tables, why);
}

// Refuses an `up` over a platform that is still up; forgets a stale record.
bool CheckNotUp(const std::string& runDir, std::string* why) {
    const std::string path = ObjectsFile(runDir);
    if (!FileExists(path)) return true;
    for (const IpcObject& o : ReadObjectsFile(path))
        if (StillThere(o)) {
            *why = "the platform of " + runDir + " is up (see " + path + "); run compkit down first";
            return false;
        }
    unlink(path.c_str());
    return true;
}

void RaiseQueueBytes(int qid, const char* name, std::vector<std::string>* notes) {
    msqid_ds ds{};
    if (msgctl(qid, IPC_STAT, &ds) != 0 || ds.msg_qbytes >= static_cast<msglen_t>(kNeedMsgMnb)) return;
    if (geteuid() == 0) {
        ds.msg_qbytes = static_cast<msglen_t>(kNeedMsgMnb);
        if (msgctl(qid, IPC_SET, &ds) == 0) return;
    }
    notes->push_back("queue " + std::string(name) + " holds " + std::to_string(ds.msg_qbytes) +
                     " bytes (msg_qbytes); 64 KiB messages want " + std::to_string(kNeedMsgMnb));
}

bool CreateQueues(const Resources& res, Creation* made, std::vector<std::string>* notes, std::string* why) {
    for (const QueueCfgEntry& q : res.queues) {
        if (Probe(IpcObject::kQueue, q.iKey) >= 0) {
            *why = "queue " + std::string(q.caName) + " (key " + std::to_string(q.iKey) + ") exists already";
            return false;
        }
        int id = MakeAvoidingZero([&] { return MsgInit(q.iKey); }, [](int i) { MsgRemove(i); });
        if (id < 0) {
            *why = "queue " + std::string(q.caName) + " (key " + std::to_string(q.iKey) + "): " + Errno();
            return false;
        }
        made->add({IpcObject::kQueue, q.iKey, id});
        RaiseQueueBytes(id, q.caName, notes);
    }
    return true;
}

// The registry's lock (the first set) starts taken, so that formatting the
// registry releases it once; every other set starts released.
bool CreateSemSets(const Resources& res, Creation* made, int* lockSet, std::string* why) {
    for (size_t i = 0; i < res.sems.size(); ++i) {
        const SemCfgEntry& s = res.sems[i];
        if (Probe(IpcObject::kSemSet, s.iKey) >= 0) {
            *why = "semaphore set " + std::string(s.caName) + " (key " + std::to_string(s.iKey) + ") exists already";
            return false;
        }
        const int initial = i == 0 ? 0 : 1;
        int id = MakeAvoidingZero(
            [&] { return s.iNum == 1 ? SemInit(s.iKey, initial) : SysSemInit(s.iKey, initial); },
            [](int sid) { SemRemove(sid); });
        if (id < 0) {
            *why = "semaphore set " + std::string(s.caName) + " (key " + std::to_string(s.iKey) + "): " + Errno();
            // A set made but not initialised (-2) is ours to remove as well.
            if (int made = Probe(IpcObject::kSemSet, s.iKey); made >= 0) SemRemove(made);
            return false;
        }
        made->add({IpcObject::kSemSet, s.iKey, id});
        if (i == 0) *lockSet = id;
    }
    return true;
}

bool CreateSegments(const Resources& res, Creation* made, std::vector<int>* ids, std::string* why) {
    for (const ShmCfgEntry& m : res.shms) {
        if (Probe(IpcObject::kSegment, m.iKey) >= 0) {
            *why = "segment " + std::string(m.caName) + " (key " + std::to_string(m.iKey) + ") exists already";
            return false;
        }
        int id = ShmemInit(m.iKey, m.iSize);
        if (id < 0) {
            *why = "segment " + std::string(m.caName) + " (key " + std::to_string(m.iKey) + ", " +
                   std::to_string(m.iSize) + " bytes): " + Errno();
            return false;
        }
        made->add({IpcObject::kSegment, m.iKey, id});
        ids->push_back(id);
    }
    return true;
}

bool FormatRegistry(const Resources& res, int lockSet, std::string* why) {
    if (SysInitMemList(1, res.comm.iShareMemCount, lockSet) != 0) {
        *why = "formatting the connection registry failed (see the error log under log/)";
        return false;
    }
    // The release above was made with undo-on-exit, which would take the lock
    // again when this process ends; setting the value clears that undo.
    if (SemSetValue2(lockSet, 0, 1) != 0) {
        *why = "releasing the registry lock failed: " + Errno();
        return false;
    }
    return true;
}

bool WriteTables(int segId, const std::vector<KitTable>& tables, std::string* why) {
    std::vector<TableRecord> image = BuildTableImage(tables);
    char* base = pcShmAt(segId);
    if (base == nullptr) {
        *why = "attaching the table segment failed: " + Errno();
        return false;
    }
    std::memcpy(base, image.data(), image.size() * sizeof(TableRecord));
    SysShmdt(base);
    return true;
}

// ---------------------------------------------------------------------------
// status
// ---------------------------------------------------------------------------

void DescribeRegistry(std::ostringstream& out, const ShmCfgEntry& m, const std::vector<ConnNode>& nodes) {
    int id = Probe(IpcObject::kSegment, m.iKey);
    if (id < 0) return;
    char* base = pcShmAt(id);
    if (base == nullptr) return;
    ConnListHeader h;
    std::memcpy(&h, base + comp::kRegistryHeaderOff, sizeof h);
    SysShmdt(base);
    out << "registry: " << h.iBusyBlocks << " busy, " << h.iFreeBlocks << " free of " << h.iTotalBlocks << "\n";
    for (const ConnNode& node : nodes) {
        char line[256];
        std::snprintf(line, sizeof line, "  [%.8s] %.16s:%d pid %d fd %d vfd %d type %.16s\n", node.caRouteId,
                      node.caIp, node.iPort, node.iPid, node.iSockFd, node.iVirtualFd, node.caType);
        out << line;
    }
}

void DescribeTables(std::ostringstream& out, const ShmCfgEntry& m) {
    int id = Probe(IpcObject::kSegment, m.iKey);
    if (id < 0) return;
    char* base = pcShmAt(id);
    if (base == nullptr) return;
    std::vector<std::pair<std::string, int>> counts;
    const size_t maxRecs = static_cast<size_t>(m.iSize) / sizeof(TableRecord);
    for (size_t i = 0; i < maxRecs; ++i) {
        const char* name = base + i * sizeof(TableRecord) + offsetof(TableRecord, caTableName);
        std::string n(name, strnlen(name, sizeof(TableRecord::caTableName)));
        if (n.empty()) break;
        if (counts.empty() || counts.back().first != n) counts.emplace_back(n, 0);
        ++counts.back().second;
    }
    SysShmdt(base);
    out << "tables:";
    if (counts.empty()) out << " none";
    for (auto& [n, c] : counts) out << " " << n << "(" << c << ")";
    out << "\n";
}

void DescribeFifos(std::ostringstream& out, const std::string& runDir) {
    std::vector<std::string> names;
    if (DIR* d = opendir((runDir + "/fifo").c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') names.emplace_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    out << "fifos:";
    if (names.empty()) out << " none";
    for (const auto& n : names) out << " " << n;
    out << "\ninstances:\n";
    int shown = 0;
    for (const auto& n : names) {
        int pid = 0, inst = 0;
        char tail = 0;
        if (std::sscanf(n.c_str(), "3_%d_%d%c", &pid, &inst, &tail) != 2) continue;
        const bool alive = ProcessAlive(pid);
        out << "  pid " << pid << " instance " << inst << (alive ? " running: " : " gone") <<
            (alive ? ProcessCmdline(pid) : "") << "\n";
        ++shown;
    }
    if (shown == 0) out << "  none\n";
}

}  // namespace

bool ReadResources(const std::string& runDir, Resources* out, std::string* why) {
    const std::string path = runDir + "/etc/sys.cfg";
    // The product's reader would create a missing file, so look first.
    if (!FileExists(path)) {
        *why = path + " does not exist";
        return false;
    }
    Resources res;
    if (GetCommConfigValue(path.c_str(), &res.comm) != 0) {
        *why = path + ": the nine CommCfg keys (LOGONTIMELIMIT ... PROCNAMECOUNT) cannot all be read";
        return false;
    }
    const CommCfg& c = res.comm;
    if (c.iMsgQueueCount < 1 || c.iMsgQueueCount > 64 || c.iSemphoreCount < 1 || c.iSemphoreCount > 64 ||
        c.iShareMemCount < 2 || c.iShareMemCount > 64) {
        *why = path + ": MSGQUEUECOUNT and SEMPHORECOUNT must be 1..64, SHAREMEMCOUNT 2..64";
        return false;
    }
    res.queues.resize(static_cast<size_t>(c.iMsgQueueCount));
    res.sems.resize(static_cast<size_t>(c.iSemphoreCount));
    res.shms.resize(static_cast<size_t>(c.iShareMemCount));
    if (GetQueueConfigValue(c.iMsgQueueCount, path.c_str(), res.queues.data()) != 0) {
        *why = path + ": [QRESOURCE] does not hold MSGQUEUECOUNT good lines (name index key)";
        return false;
    }
    if (GetSemConfigValue(c.iSemphoreCount, path.c_str(), res.sems.data()) != 0) {
        *why = path + ": [SEMRESOURCE] does not hold SEMPHORECOUNT good lines (name index key count)";
        return false;
    }
    if (GetShmConfigValue(c.iShareMemCount, path.c_str(), res.shms.data()) != 0) {
        *why = path + ": [SHMRESOURCE] does not hold SHAREMEMCOUNT good lines (name index key size)";
        return false;
    }
    *out = std::move(res);
    return true;
}

int QueueIdByIndex(const Resources& res, int index) {
    for (const QueueCfgEntry& q : res.queues)
        if (q.iIndex == index) return Probe(IpcObject::kQueue, q.iKey);
    return -1;
}

std::string ObjectsFile(const std::string& runDir) { return runDir + "/compkit.objects"; }

bool PlatformUp(const std::string& runDir, std::vector<std::string>* notes, std::string* why) {
    RunDirScope scope(runDir);
    Resources res;
    std::vector<KitTable> tables;
    if (!ReadResources(runDir, &res, why) || !LoadTables(runDir, &tables, notes, why) ||
        !CheckResources(res, tables, notes, why) || !CheckNotUp(runDir, why))
        return false;
    for (std::string& l : EnsureQueueLimits()) notes->push_back(std::move(l));

    Creation made(ObjectsFile(runDir));
    int lockSet = -1;
    std::vector<int> segIds;
    if (!CreateQueues(res, &made, notes, why) || !CreateSemSets(res, &made, &lockSet, why) ||
        !CreateSegments(res, &made, &segIds, why) || !FormatRegistry(res, lockSet, why) ||
        !WriteTables(segIds[1], tables, why))
        return false;
    made.commit();
    size_t rows = 0;
    for (const KitTable& t : tables) rows += t.rows.size();
    notes->push_back("up: " + std::to_string(res.queues.size()) + " queues, " + std::to_string(res.sems.size()) +
                     " semaphore sets, " + std::to_string(res.shms.size()) + " segments; " +
                     std::to_string(rows) + " table rows loaded");
    return true;
}

bool PlatformDown(const std::string& runDir, std::vector<std::string>* notes, std::string* why) {
    RunDirScope scope(runDir);
    const std::string record = ObjectsFile(runDir);
    std::vector<IpcObject> objs;
    if (FileExists(record)) {
        objs = ReadObjectsFile(record);
    } else {
        Resources res;
        if (!ReadResources(runDir, &res, why)) {
            *why = "no record of compkit up (" + record + ") and " + *why;
            return false;
        }
        auto byKey = [&](IpcObject::Kind kind, key_t key) {
            int id = Probe(kind, key);
            if (id >= 0) objs.push_back({kind, key, id});
        };
        for (const auto& q : res.queues) byKey(IpcObject::kQueue, q.iKey);
        for (const auto& s : res.sems) byKey(IpcObject::kSemSet, s.iKey);
        for (const auto& m : res.shms) byKey(IpcObject::kSegment, m.iKey);
        notes->push_back("no record of compkit up; removing what exists under the keys of sys.cfg");
    }
    bool ok = true;
    int removed = 0;
    for (const IpcObject& o : objs) {
        if (!StillThere(o)) continue;
        if (Remove(o)) {
            ++removed;
        } else {
            ok = false;
            *why = std::string("removing ") + KindName(o.kind) + " id " + std::to_string(o.id) + ": " + Errno();
        }
    }
    if (FileExists(runDir + "/fifo") && SysCleanIpcFiles() != 0) {
        ok = false;
        *why = "removing the FIFOs under " + runDir + "/fifo failed";
    }
    if (ok) unlink(record.c_str());
    notes->push_back("down: " + std::to_string(removed) + " IPC objects removed");
    return ok;
}

std::string PlatformStatus(const std::string& runDir) {
    RunDirScope scope(runDir);
    std::ostringstream out;
    Resources res;
    std::string why;
    if (!ReadResources(runDir, &res, &why)) return why + "\n";
    out << "queues:\n";
    for (const QueueCfgEntry& q : res.queues) {
        char line[160];
        int id = Probe(IpcObject::kQueue, q.iKey);
        msqid_ds ds{};
        if (id < 0 || msgctl(id, IPC_STAT, &ds) != 0)
            std::snprintf(line, sizeof line, "  %-2d %-19s key %d: missing\n", q.iIndex, q.caName, q.iKey);
        else
            std::snprintf(line, sizeof line, "  %-2d %-19s id %d: %lu messages, %lu bytes of %lu\n", q.iIndex,
                          q.caName, id, static_cast<unsigned long>(ds.msg_qnum),
                          static_cast<unsigned long>(ds.__msg_cbytes), static_cast<unsigned long>(ds.msg_qbytes));
        out << line;
    }
    out << "semaphore sets:\n";
    for (const SemCfgEntry& s : res.sems) {
        int id = Probe(IpcObject::kSemSet, s.iKey);
        out << "  " << s.caName << " key " << s.iKey;
        if (id < 0)
            out << ": missing\n";
        else
            out << " id " << id << ": semaphore 0 = " << SemGetValue2(id, 0) << "\n";
    }
    out << "segments:\n";
    for (const ShmCfgEntry& m : res.shms) {
        int id = Probe(IpcObject::kSegment, m.iKey);
        shmid_ds ds{};
        out << "  " << m.caName << " key " << m.iKey;
        if (id < 0 || shmctl(id, IPC_STAT, &ds) != 0)
            out << ": missing\n";
        else
            out << " id " << id << ": " << ds.shm_segsz << " bytes, " << ds.shm_nattch << " attached\n";
    }
    const std::vector<ConnNode> nodes = RegistrySnapshot(res.shms[0]);
    DescribeRegistry(out, res.shms[0], nodes);
    DescribeTables(out, res.shms[1]);
    DescribeFifos(out, runDir);
    out << DescribeRoutes(runDir, nodes);
    return out.str();
}

}  // namespace kit
