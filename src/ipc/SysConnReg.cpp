// Connection registry: a fixed array of nodes in the first [SHMRESOURCE]
// segment, threaded on a free and a busy circular doubly linked list and
// guarded by one semaphore (undo on exit) of a ten-semaphore set.
//
// Every process of the host works on the same segment with these routines, so
// the layout (ConnListHeader at kRegistryHeaderOff, ConnNode array at
// kRegistryNodesOff) and the list disciplines are shared contracts: the busy
// head is always the newest entry, a freed node goes right after the free head.
//
// Indices read from shared memory are never trusted: every link is range
// checked before it is followed or rewritten, and every walk is bounded by the
// node count, so a damaged segment gives an error instead of a wild access or
// an endless loop.
//
// The segment is attached once per process and key/size and the attachment is
// reused; before each use the attached segment is checked to be still live, so
// a segment that was removed or replaced is dropped and attached afresh, as a
// fresh attach would.
#include "ipc/SysConnReg.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/SysGlobals.h"
#include "base/SysShm.h"
#include "config/SysRscApp.h"
#include "ipc/SysIpc.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"
#include "util/StrTools.h"

namespace {

using comp::kRegistryHeaderOff;
using comp::kRegistryNodes;
using comp::kRegistryNodesOff;
using comp::kRegistrySegmentMin;

constexpr char kComType[] = "COM";
constexpr int kLockNum = 0;
constexpr size_t kMaxInputText = 256;   // longest route id / IP text accepted before blanks are removed

static_assert(sizeof(ConnNode) == 212);
static_assert(kRegistrySegmentMin == kRegistryNodesOff + kRegistryNodes * static_cast<int>(sizeof(ConnNode)));

// ---------------------------------------------------------------------------
// Bounded text helpers for the fixed node fields.
// ---------------------------------------------------------------------------

// Copies text into a field of cap bytes, always NUL-terminated, rest cleared.
template <size_t N>
void SetField(char (&field)[N], const char* text) {
    std::memset(field, 0, N);
    if (text) std::memcpy(field, text, strnlen(text, N - 1));
}

template <size_t N>
void ClearField(char (&field)[N]) {
    std::memset(field, 0, N);
}

// True when the field (possibly without a NUL) holds exactly this text.
template <size_t N>
bool FieldIs(const char (&field)[N], const char* text) {
    size_t len = strnlen(field, N);
    return std::strlen(text) == len && std::memcmp(field, text, len) == 0;
}

// The route id field read as a number (the field may lack its NUL).
int RouteIdNumber(const ConnNode& n) {
    char buf[sizeof n.caRouteId + 1] = {};
    std::memcpy(buf, n.caRouteId, sizeof n.caRouteId);
    return std::atoi(buf);
}

// Copies a caller's text into buf and removes its blanks and tabs; false when
// the text is missing, too long to take, or does not fit a field of cap bytes.
bool StripInput(const char* text, char (&buf)[kMaxInputText], size_t cap) {
    if (!text) return false;
    size_t len = strnlen(text, kMaxInputText);
    if (len >= kMaxInputText) return false;
    std::memcpy(buf, text, len);
    buf[len] = '\0';
    zipAll(buf);
    return std::strlen(buf) < cap;
}

// The configured size must leave room for the whole node array. The segment
// is then looked up with that size, which fails for a smaller segment.
bool ConfiguredSizeOk(key_t key, int iSize) {
    if (iSize >= kRegistrySegmentMin) return true;
    COMP_ERRLOG("[%s,%d]registry segment key[%d] size[%d] too small, need at least %d bytes", SRC_NAME,
                __LINE__, static_cast<int>(key), iSize, kRegistrySegmentMin);
    return false;
}

// Owns one attachment made for a single call (formatting, connecting).
class ShmAttachment {
public:
    ShmAttachment() = default;
    ~ShmAttachment() {
        if (addr_) DetachShmem(addr_);
    }
    ShmAttachment(const ShmAttachment&) = delete;
    ShmAttachment& operator=(const ShmAttachment&) = delete;

    bool attach(key_t key, int iSize) { return AttachShmem(key, iSize, &addr_) == 0 && addr_ != nullptr; }
    char* get() const { return addr_; }

private:
    char* addr_ = nullptr;
};

// Attaches the [SHMRESOURCE] segment at the 1-based position after checking
// that its configured size holds the registry.
bool AttachConfigured(int iPosition, int iCount, ShmAttachment& seg, key_t* pKey, int* piSize) {
    if (!SysShmEntryAt(iPosition, iCount, pKey, piSize) || !ConfiguredSizeOk(*pKey, *piSize)) return false;
    if (seg.attach(*pKey, *piSize)) return true;
    writelog(LOG_ERROR, nullptr, 0, "AttachShemem error\n");
    return false;
}

// ---------------------------------------------------------------------------
// The process's cached attachment of the registry segment.
// ---------------------------------------------------------------------------
struct CachedMap {
    key_t key = 0;
    int size = 0;
    int shmid = -1;
    char* addr = nullptr;
};
CachedMap g_stMap;

void DropMap() {
    if (g_stMap.addr) DetachShmem(g_stMap.addr);
    g_stMap = CachedMap{};
}
const comp::ResetRegistration g_stMapReset(DropMap);

// The registry segment of g_memlist_shmkey/g_memlist_shmsize, attached; null
// after a report when it cannot be attached or is too small.
char* MapRegistry() {
    const key_t key = g_memlist_shmkey;
    const int size = g_memlist_shmsize;
    if (key == IPC_PRIVATE) {
        // Key 0 would make shmget create a fresh private segment.
        COMP_ERRLOG("[%s,%d]registry segment not connected", SRC_NAME, __LINE__);
        DropMap();
        return nullptr;
    }
    // One shmctl on the hot path: a segment removed (or replaced by a new
    // one under the key) shows as no longer live.
    if (g_stMap.addr && key == g_stMap.key && size == g_stMap.size && comp::ShmIsLive(g_stMap.shmid))
        return g_stMap.addr;
    DropMap();
    if (!ConfiguredSizeOk(key, size)) return nullptr;
    char* addr = nullptr;
    if (AttachShmem(key, size, &addr) != 0 || !addr) return nullptr;
    const int id = shmget(key, static_cast<size_t>(size), 0);
    if (id < 0) {
        DetachShmem(addr);
        return nullptr;
    }
    g_stMap = CachedMap{key, size, id, addr};
    return addr;
}

// ---------------------------------------------------------------------------
// Lists.
// ---------------------------------------------------------------------------
enum class Walk { kDone, kCorrupt };

struct Registry {
    ConnListHeader* hdr = nullptr;
    ConnNode* nodes = nullptr;

    explicit Registry(char* seg)
        : hdr(reinterpret_cast<ConnListHeader*>(seg + kRegistryHeaderOff)),
          nodes(reinterpret_cast<ConnNode*>(seg + kRegistryNodesOff)) {}

    static bool InRange(int i) { return i >= 0 && i < kRegistryNodes; }
    ConnNode& at(int i) { return nodes[i]; }
};

void ReportCorrupt(int iLine, const char* pcWhat, int iIndex) {
    COMP_ERRLOG("[%s,%d]connection registry corrupt: %s [%d]", SRC_NAME, iLine, pcWhat, iIndex);
}

// Header values that every routine relies on.
bool HeaderSane(const Registry& r) {
    const ConnListHeader& h = *r.hdr;
    if (h.iFree != -1 && !Registry::InRange(h.iFree)) return ReportCorrupt(__LINE__, "iFree", h.iFree), false;
    if (h.iBusy != -1 && !Registry::InRange(h.iBusy)) return ReportCorrupt(__LINE__, "iBusy", h.iBusy), false;
    if (h.iFreeBlocks < 0 || h.iFreeBlocks > kRegistryNodes)
        return ReportCorrupt(__LINE__, "free blocks", h.iFreeBlocks), false;
    if (h.iBusyBlocks < 0 || h.iBusyBlocks > kRegistryNodes)
        return ReportCorrupt(__LINE__, "busy blocks", h.iBusyBlocks), false;
    return true;
}

// Takes the free head onto the busy list as its new head. Returns the index,
// -2 when no node is free, -1 on a damaged list.
int TakeFreeNode(Registry& r) {
    ConnListHeader& h = *r.hdr;
    if (h.iFreeBlocks == 0) {
        ErrLog(1000, "not enough space", ERRLOG_FILE, nullptr, 0);
        return -2;
    }
    const int f = h.iFree;
    if (f == -1) return ReportCorrupt(__LINE__, "free blocks without a free head", h.iFreeBlocks), -1;
    ConnNode& nf = r.at(f);
    const int fNext = nf.iNext, fPrev = nf.iPrev;
    if (!Registry::InRange(fNext) || !Registry::InRange(fPrev)) return ReportCorrupt(__LINE__, "free link", f), -1;
    int b = h.iBusy, bPrev = -1;
    if (b != -1) {
        bPrev = r.at(b).iPrev;
        if (!Registry::InRange(bPrev)) return ReportCorrupt(__LINE__, "busy link", b), -1;
    }

    // Off the free circle.
    if (fNext == f) {
        h.iFree = -1;
    } else {
        r.at(fPrev).iNext = fNext;
        r.at(fNext).iPrev = fPrev;
        h.iFree = fNext;
    }
    // In front of the busy head, then made the head.
    if (b == -1) {
        nf.iNext = f;
        nf.iPrev = f;
    } else {
        r.at(bPrev).iNext = f;
        nf.iPrev = bPrev;
        nf.iNext = b;
        r.at(b).iPrev = f;
    }
    h.iBusy = f;

    h.iFreeBlocks--;
    h.iBusyBlocks++;
    nf.iState = 1;
    ClearField(nf.caKey);
    ClearField(nf.caValue);
    return f;
}

// Moves a busy node to the free list just after the free head. False on a
// damaged list (nothing changed then).
bool FreeNode(Registry& r, int n) {
    ConnListHeader& h = *r.hdr;
    ConnNode& nn = r.at(n);
    const int next = nn.iNext, prev = nn.iPrev;
    if (!Registry::InRange(next) || !Registry::InRange(prev)) return ReportCorrupt(__LINE__, "busy link", n), false;
    const int fh = h.iFree;
    int fhNext = -1;
    if (fh != -1) {
        fhNext = r.at(fh).iNext;
        if (!Registry::InRange(fhNext)) return ReportCorrupt(__LINE__, "free link", fh), false;
    }

    nn.iState = 0;
    nn.iValueLen = 0;
    nn.iVirtualFd = -1;
    nn.iSockFd = -1;
    nn.iPort = -1;
    ClearField(nn.caType);
    ClearField(nn.caRouteId);
    ClearField(nn.caIp);
    ClearField(nn.caKey);
    ClearField(nn.caValue);

    // Off the busy circle.
    if (next == n) {
        h.iBusy = -1;
    } else {
        r.at(prev).iNext = next;
        r.at(next).iPrev = prev;
        if (h.iBusy == n) h.iBusy = next;
    }
    // Into the free circle behind its head.
    if (fh == -1) {
        nn.iNext = n;
        nn.iPrev = n;
        h.iFree = n;
    } else {
        r.at(fh).iNext = n;
        nn.iPrev = fh;
        nn.iNext = fhNext;
        r.at(fhNext).iPrev = n;
    }
    h.iFreeBlocks++;
    h.iBusyBlocks--;
    return true;
}

// Visits the busy nodes once, newest first, along the next links. fn(index)
// returns true to stop; it may free the node it is given (the next index is
// taken before). The walk ends after the node that was oldest when it began.
template <class Fn>
Walk WalkBusy(Registry& r, Fn&& fn) {
    const int head = r.hdr->iBusy;
    if (head == -1) return Walk::kDone;
    const int tail = r.at(head).iPrev;
    if (!Registry::InRange(tail)) return ReportCorrupt(__LINE__, "busy link", head), Walk::kCorrupt;
    int cur = head;
    for (int steps = 0; steps < kRegistryNodes; ++steps) {
        const int next = r.at(cur).iNext;
        if (!Registry::InRange(next)) return ReportCorrupt(__LINE__, "busy link", cur), Walk::kCorrupt;
        const bool last = cur == tail;
        if (fn(cur) || last) return Walk::kDone;
        cur = next;
    }
    ReportCorrupt(__LINE__, "busy list does not close, head", head);
    return Walk::kCorrupt;
}

// Visits the busy nodes once from the head along the previous links (the
// head, then oldest to newest). fn must not free nodes.
template <class Fn>
Walk WalkBusyBack(Registry& r, Fn&& fn) {
    const int head = r.hdr->iBusy;
    if (head == -1) return Walk::kDone;
    int cur = head;
    for (int steps = 0; steps < kRegistryNodes; ++steps) {
        if (fn(cur)) return Walk::kDone;
        cur = r.at(cur).iPrev;
        if (!Registry::InRange(cur)) return ReportCorrupt(__LINE__, "busy link", cur), Walk::kCorrupt;
        if (cur == head) return Walk::kDone;
    }
    ReportCorrupt(__LINE__, "busy list does not close, head", head);
    return Walk::kCorrupt;
}

// A matching busy node found by a walk; -1 when none, -2 on a damaged list.
template <class Pred>
int FindBusy(Registry& r, Pred&& pred) {
    int found = -1;
    Walk w = WalkBusy(r, [&](int i) {
        if (!pred(r.at(i))) return false;
        found = i;
        return true;
    });
    return w == Walk::kCorrupt ? -2 : found;
}

// Frees every busy node that matches; the count freed, -1 on a damaged list.
template <class Pred>
int FreeAllMatching(Registry& r, Pred&& pred) {
    int freed = 0;
    bool ok = true;
    Walk w = WalkBusy(r, [&](int i) {
        if (!pred(r.at(i))) return false;
        if (!FreeNode(r, i)) {
            ok = false;
            return true;
        }
        ++freed;
        return false;
    });
    return (w == Walk::kCorrupt || !ok) ? -1 : freed;
}

// Holds the registry semaphore from construction to destruction.
class RegistryLock {
public:
    explicit RegistryLock(const ConnListHeader& h) : set_(h.iLockSet), num_(h.iLockNum) {
        held_ = SysP(set_, num_) >= 0;
        if (!held_)
            COMP_ERRLOG("[%s,%d]registry lock set[%d] num[%d] cannot be taken, errno=%d", SRC_NAME, __LINE__, set_,
                        num_, errno);
    }
    ~RegistryLock() {
        if (held_) SysV(set_, num_);
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

    bool held() const { return held_; }

private:
    int set_;
    int num_;
    bool held_ = false;
};

enum class AttachFail { kQuiet, kReport };

// The frame of every routine that reads or changes the lists: attaches the
// segment, takes the lock, checks the header and runs body(Registry&); the
// lock is released on every way out. -1 when any step fails (with "attach
// error" in the error log for kReport), else the body's result.
template <class Body>
int Locked(Body&& body, AttachFail eFail = AttachFail::kQuiet) {
    char* seg = MapRegistry();
    if (!seg) {
        if (eFail == AttachFail::kReport) ErrLog(1000, "attach error", ERRLOG_FILE, nullptr, 0);
        return -1;
    }
    Registry r(seg);
    RegistryLock lock(*r.hdr);
    if (!lock.held() || !HeaderSane(r)) return -1;
    return body(r);
}

bool StampNow(ConnNode& n) {
    struct timeval tv {};
    if (gettimeofday(&tv, nullptr) != 0) return false;
    n.iTimeSec = static_cast<int32_t>(tv.tv_sec);
    n.iTimeUsec = static_cast<int32_t>(tv.tv_usec);
    return true;
}

bool KeyUsable(const char* pcKey) {
    if (pcKey && strnlen(pcKey, sizeof(ConnNode::caKey)) < sizeof(ConnNode::caKey)) return true;
    COMP_ERRLOG("[%s,%d]key missing or longer than %zu characters", SRC_NAME, __LINE__,
                sizeof(ConnNode::caKey) - 1);
    return false;
}

bool ValueUsable(const void* pvValue, int iLen) {
    if (iLen >= 0 && iLen <= static_cast<int>(sizeof(ConnNode::caValue)) && (pvValue || iLen == 0)) return true;
    COMP_ERRLOG("[%s,%d]value length %d not in 0..%zu", SRC_NAME, __LINE__, iLen, sizeof(ConnNode::caValue));
    return false;
}

// Value length of a node, bounded by the field.
int ValueLen(const ConnNode& n) {
    if (n.iValueLen < 0) return 0;
    return n.iValueLen > static_cast<int>(sizeof n.caValue) ? static_cast<int>(sizeof n.caValue) : n.iValueLen;
}

// Common body of ClearConnList and DeleteBusyAll. The type must equal the
// text exactly, so a node without a type is never taken for another's.
int FreeByType(const char* pcType, AttachFail eFail) {
    if (!pcType) return -1;
    return Locked(
        [&](Registry& r) {
            return FreeAllMatching(r, [&](const ConnNode& c) { return FieldIs(c.caType, pcType); }) < 0 ? -1 : 0;
        },
        eFail);
}

}  // namespace

// Drops the process's cached attachment of the registry segment.
void SysConnRegDetach() { DropMap(); }

extern "C" {

int SysInitMemList(int iPosition, int iCount, int iSemId) {
    // Start with the lock free.
    if (SysV(iSemId, kLockNum) < 0) {
        COMP_ERRLOG("[%s,%d]lock set[%d] cannot be released, errno=%d", SRC_NAME, __LINE__, iSemId, errno);
        return -1;
    }
    key_t key = 0;
    int size = 0;
    ShmAttachment seg;
    if (!AttachConfigured(iPosition, iCount, seg, &key, &size)) return -1;

    Registry r(seg.get());
    ConnListHeader& h = *r.hdr;
    h.iFreeBlocks = kRegistryNodes;
    h.iBusyBlocks = 0;
    h.iTotalBlocks = h.iFreeBlocks;
    const int32_t now = static_cast<int32_t>(time(nullptr));
    for (int i = 0; i < kRegistryNodes; ++i) {
        ConnNode& n = r.at(i);
        std::memset(&n, 0, sizeof n);   // state 0 (free), texts and value cleared
        n.iIndex = i;
        n.iTimeSec = now;
        n.iSockFd = n.iVirtualFd = n.iPort = -1;
        n.iPrev = i == 0 ? kRegistryNodes - 1 : i - 1;
        n.iNext = i == kRegistryNodes - 1 ? 0 : i + 1;
    }
    h.iFree = 0;
    h.iBusy = -1;
    h.iLockSet = iSemId;
    h.iLockNum = kLockNum;
    return 0;
}

int SysConnectMem(int iPosition, int iCount) {
    key_t key = 0;
    int size = 0;
    ShmAttachment seg;
    if (!AttachConfigured(iPosition, iCount, seg, &key, &size)) return -1;
    g_memlist_shmkey = key;
    g_memlist_shmsize = size;
    return 0;
}

int attach(char** ppcHeader, char** ppcSegment, char** ppcNodes) {
    // The caller owns this attachment and detaches the segment address.
    char* seg = nullptr;
    if (g_memlist_shmkey == IPC_PRIVATE || !ConfiguredSizeOk(g_memlist_shmkey, g_memlist_shmsize) ||
        AttachShmem(g_memlist_shmkey, g_memlist_shmsize, &seg) != 0 || !seg) {
        writelog(LOG_ERROR, nullptr, 0, "AttachShmem error");
        return -1;
    }
    if (ppcHeader) *ppcHeader = seg + kRegistryHeaderOff;
    if (ppcSegment) *ppcSegment = seg;
    if (ppcNodes) *ppcNodes = seg + kRegistryNodesOff;
    return 0;
}

int SysSaveInfo(const char* pcRouteId, const char* pcIp, int iPort, int iVirtualFd, int iSockFd) {
    char caRoute[kMaxInputText], caIp[kMaxInputText];
    if (!StripInput(pcRouteId, caRoute, sizeof(ConnNode::caRouteId)) ||
        !StripInput(pcIp, caIp, sizeof(ConnNode::caIp))) {
        COMP_ERRLOG("[%s,%d]route id or IP missing or too long", SRC_NAME, __LINE__);
        return -1;
    }
    return Locked([&](Registry& r) {
        int idx = TakeFreeNode(r);
        if (idx == -2) writelog(LOG_ERROR, nullptr, 0, "not enough space");
        if (idx < 0) return idx;
        ConnNode& n = r.at(idx);
        SetField(n.caType, kComType);
        SetField(n.caRouteId, caRoute);
        SetField(n.caIp, caIp);
        n.iPort = iPort;
        n.iVirtualFd = iVirtualFd;
        n.iSockFd = iSockFd;
        n.iPid = comp::OwnPid();
        return StampNow(n) ? idx : -1;   // on failure the node stays busy
    });
}

int set(const char* pcKey, const void* pvValue, int iLen) {
    if (!KeyUsable(pcKey) || !ValueUsable(pvValue, iLen)) return -1;
    return Locked([&](Registry& r) {
        int idx = TakeFreeNode(r);
        if (idx < 0) return idx;   // -2 full, -1 damaged
        ConnNode& n = r.at(idx);
        SetField(n.caType, kComType);
        SetField(n.caKey, pcKey);
        if (iLen > 0) std::memcpy(n.caValue, pvValue, static_cast<size_t>(iLen));
        n.iValueLen = iLen;
        n.iPid = comp::OwnPid();
        if (StampNow(n)) return idx;
        ErrLog(1000, "gettimeofday error", ERRLOG_FILE, nullptr, 0);
        return -1;
    });
}

int get(const char* pcKey, void* pvOut) {
    if (!pcKey || !pvOut) return -1;
    return Locked([&](Registry& r) {
        int idx = FindBusy(r, [&](const ConnNode& n) { return FieldIs(n.caKey, pcKey); });
        if (idx < 0) return idx == -1 ? 1 : -1;
        std::memcpy(pvOut, r.at(idx).caValue, static_cast<size_t>(ValueLen(r.at(idx))));
        return 0;
    });
}

int update(const char* pcKey, const void* pvValue, int iLen) {
    if (!pcKey || !ValueUsable(pvValue, iLen)) return -1;
    return Locked([&](Registry& r) {
        int idx = FindBusy(r, [&](const ConnNode& n) { return FieldIs(n.caKey, pcKey); });
        if (idx < 0) return idx == -1 ? 1 : -1;
        ConnNode& n = r.at(idx);
        ClearField(n.caValue);
        if (iLen > 0) std::memcpy(n.caValue, pvValue, static_cast<size_t>(iLen));
        n.iValueLen = iLen;
        return 0;
    });
}

int SysGetPidByRouteidIp(const char* pcRouteId, const char* pcIp, ConnNode* pstOut) {
    // Stored route ids and IPs have no blanks; compare the same way.
    char caRoute[kMaxInputText], caIp[kMaxInputText];
    if (!StripInput(pcRouteId, caRoute, kMaxInputText) || !StripInput(pcIp, caIp, kMaxInputText)) return -1;
    return Locked([&](Registry& r) {
        int idx = FindBusy(r, [&](const ConnNode& n) { return FieldIs(n.caRouteId, caRoute) && FieldIs(n.caIp, caIp); });
        if (idx < 0) return idx == -1 ? -2 : -1;
        const ConnNode& n = r.at(idx);
        if (pstOut) {
            pstOut->iVirtualFd = n.iVirtualFd;
            pstOut->iPort = n.iPort;
        }
        return static_cast<int>(n.iPid);
    });
}

int DeleteOne(int iRouteId, const char* pcIp, int /*iUnused*/, int iSockFd) {
    if (!pcIp) return -1;
    return Locked([&](Registry& r) {
        int idx = FindBusy(r, [&](const ConnNode& n) {
            return n.iSockFd == iSockFd && FieldIs(n.caIp, pcIp) && RouteIdNumber(n) == iRouteId;
        });
        if (idx < 0) return idx == -1 ? 1 : -1;
        return FreeNode(r, idx) ? 0 : -1;
    });
}

int DeleteFWOne(int iPid, const char* pcIp, int iPort, int iSockFd) {
    if (!pcIp) return -1;
    return Locked([&](Registry& r) {
        int idx = FindBusy(r, [&](const ConnNode& n) {
            return n.iSockFd == iSockFd && FieldIs(n.caIp, pcIp) && n.iPort == iPort && n.iPid == iPid;
        });
        if (idx < 0) return idx == -1 ? 1 : -1;
        return FreeNode(r, idx) ? 0 : -1;
    });
}

int DeleteBusyByPid(int iPid) {
    return Locked([&](Registry& r) {
        if (r.hdr->iBusy == -1) return 1;
        return FreeAllMatching(r, [&](const ConnNode& n) { return n.iPid == iPid; }) < 0 ? -1 : 0;
    });
}

int DeleteVirtualFdMany(int iPid, int iVirtualFd, int iSockFd) {
    return Locked(
        [&](Registry& r) {
            if (r.hdr->iBusy == -1) {
                ErrLog(1000, "cannot find key in an empty list", ERRLOG_FILE, nullptr, 0);
                return 1;
            }
            int n = FreeAllMatching(r, [&](const ConnNode& c) {
                return c.iPid == iPid && c.iVirtualFd == iVirtualFd && c.iSockFd == iSockFd;
            });
            return n < 0 ? -1 : 0;
        },
        AttachFail::kReport);
}

int GetVirtualNodeList(int iPid, int iVirtualFd, int iSockFd, ConnNode* pstOut) {
    if (!pstOut) return -1;
    return Locked([&](Registry& r) {
        int count = 0;
        Walk w = WalkBusy(r, [&](int i) {
            const ConnNode& c = r.at(i);
            if (c.iPid == iPid && c.iVirtualFd == iVirtualFd && c.iSockFd == iSockFd) pstOut[count++] = c;
            return false;
        });
        return w == Walk::kCorrupt ? -1 : count;
    });
}

int ClearConnList(const char* pcType) { return FreeByType(pcType, AttachFail::kQuiet); }

int DeleteBusyAll(const char* pcType) { return FreeByType(pcType, AttachFail::kReport); }

int print(void) {
    return Locked(
        [](Registry& r) {
            // Both directions are walked once without output first, so a
            // damaged list gives one error line rather than a runaway listing.
            auto none = [](int) { return false; };
            if (WalkBusy(r, none) == Walk::kCorrupt || WalkBusyBack(r, none) == Walk::kCorrupt) return -1;

            const ConnListHeader& h = *r.hdr;
            COMP_ERRLOG("total blocks=%d", h.iTotalBlocks);
            COMP_ERRLOG("free blocks=%d", h.iFreeBlocks);
            COMP_ERRLOG("busy blocks=%d", h.iBusyBlocks);
            COMP_ERRLOG("iFree=%d", h.iFree);
            COMP_ERRLOG("iBusy=%d", h.iBusy);
            if (h.iBusy == -1) {
                ErrLog(1000, "busy null", ERRLOG_FILE, nullptr, 0);
                return 0;
            }
            auto line = [&](int i) {
                const ConnNode& n = r.at(i);
                COMP_ERRLOG("[%.*s]\t[%.*s:%d]\t%d\t%ld.%ld", static_cast<int>(strnlen(n.caRouteId, sizeof n.caRouteId)),
                            n.caRouteId, static_cast<int>(strnlen(n.caIp, sizeof n.caIp)), n.caIp, n.iPort, n.iPid,
                            static_cast<long>(n.iTimeSec), static_cast<long>(n.iTimeUsec));
                return false;
            };
            COMP_ERRLOG("busy next,pid=%d", static_cast<int>(getpid()));
            WalkBusy(r, line);
            COMP_ERRLOG("busy pre,pid=%d", static_cast<int>(getpid()));
            WalkBusyBack(r, line);
            return 0;
        },
        AttachFail::kReport);
}

}  // extern "C"
