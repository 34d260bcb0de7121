// Process-private message pool: one memory area holding a PoolHeader and an
// array of PoolBlocks on a free and a busy circular doubly linked list. A
// message is a chain of blocks (pieces of up to 1,024 bytes) that share a key
// and a time stamp; the busy head is the newest block, its previous block the
// oldest. Only piece 0 of a message is matched in searches.
//
// The pool belongs to one process and one thread, so there is no lock. Links
// are block numbers; they are range checked before use and walks are bounded
// by the block count, so a damaged pool gives an error rather than a wild
// access or an endless loop.
#include "base/SysGlobals.h"
#include "ipc/SysMsgPool.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "log/SysTraceLog.h"

namespace {

constexpr int kHeaderLen = static_cast<int>(sizeof(PoolHeader));
constexpr int kBlockLen = static_cast<int>(sizeof(PoolBlock));
constexpr int kPieceLen = static_cast<int>(sizeof(PoolBlock::caData));
constexpr int kMinPoolSize = kHeaderLen + kBlockLen;
constexpr char kKeptKey[] = "MSGKEY";   // never aged out by SysCleanNode
static_assert(kHeaderLen == 20 && kBlockLen == 1124 && kPieceLen == 1024);
static_assert(kMinPoolSize == 1144);
static_assert(kHeaderLen % alignof(PoolBlock) == 0);

// The process's pool area (null before InitMemPool and after SysFreePool).
char* g_pcPool = nullptr;

PoolHeader* Header() { return reinterpret_cast<PoolHeader*>(g_pcPool); }
PoolBlock* Blocks() { return reinterpret_cast<PoolBlock*>(g_pcPool + kHeaderLen); }
int Total() { return g_pcPool ? Header()->iTotalBlocks : 0; }
bool InRange(int i) { return i >= 0 && i < Total(); }
PoolBlock& At(int i) { return Blocks()[i]; }

bool KeyIs(const PoolBlock& b, const char* pcKey) {
    size_t len = strnlen(b.caKey, sizeof b.caKey);
    return std::strlen(pcKey) == len && std::memcmp(b.caKey, pcKey, len) == 0;
}

bool KeyUsable(const char* pcKey) { return pcKey && strnlen(pcKey, sizeof(PoolBlock::caKey)) < sizeof(PoolBlock::caKey); }

// Takes the free head onto the busy list as its new head; -1 when none.
int TakeFreeBlock() {
    PoolHeader& h = *Header();
    const int f = h.iFreeHead;
    if (f == -1 || h.iFreeBlocks <= 0 || !InRange(f)) return -1;
    PoolBlock& bf = At(f);
    const int fNext = bf.iNext, fPrev = bf.iPrev;
    if (!InRange(fNext) || !InRange(fPrev)) return -1;
    const int b = h.iBusyHead;
    int bPrev = -1;
    if (b != -1) {
        if (!InRange(b) || !InRange(bPrev = At(b).iPrev)) return -1;
    }

    if (fNext == f) {
        h.iFreeHead = -1;
    } else {
        At(fPrev).iNext = fNext;
        At(fNext).iPrev = fPrev;
        h.iFreeHead = fNext;
    }
    if (b == -1) {
        bf.iNext = f;
        bf.iPrev = f;
    } else {
        At(bPrev).iNext = f;
        bf.iPrev = bPrev;
        bf.iNext = b;
        At(b).iPrev = f;
    }
    h.iBusyHead = f;
    bf.iState = 1;
    h.iFreeBlocks--;
    h.iBusyBlocks++;
    return f;
}

// Clears a busy block and moves it right after the free head.
bool FreeBlock(int n) {
    PoolHeader& h = *Header();
    PoolBlock& bn = At(n);
    const int next = bn.iNext, prev = bn.iPrev;
    if (!InRange(next) || !InRange(prev)) return false;
    const int fh = h.iFreeHead;
    int fhNext = -1;
    if (fh != -1) {
        if (!InRange(fh) || !InRange(fhNext = At(fh).iNext)) return false;
    }

    std::memset(bn.caKey, 0, sizeof bn.caKey);
    std::memset(bn.caData, 0, sizeof bn.caData);
    bn.iTime = 0;
    bn.iDataLen = 0;
    bn.iState = 0;
    bn.iPieceNo = 0;
    bn.iPieceCount = 1;
    bn.iNextPiece = -1;

    if (next == n) {
        h.iBusyHead = -1;
    } else {
        At(prev).iNext = next;
        At(next).iPrev = prev;
        if (h.iBusyHead == n) h.iBusyHead = next;
    }
    if (fh == -1) {
        bn.iNext = n;
        bn.iPrev = n;
        h.iFreeHead = n;
    } else {
        At(fh).iNext = n;
        bn.iPrev = fh;
        bn.iNext = fhNext;
        At(fhNext).iPrev = n;
    }
    h.iFreeBlocks++;
    h.iBusyBlocks--;
    return true;
}

enum class Order { kOldestFirst, kNewestFirst };

// Piece 0 of the first message with the key in the given order; -1 when none.
int FindMessage(const char* pcKey, Order order) {
    if (!g_pcPool || !pcKey) return -1;
    const int head = Header()->iBusyHead;
    if (!InRange(head)) return -1;
    const int start = order == Order::kNewestFirst ? head : At(head).iPrev;
    int cur = start;
    for (int steps = 0; steps < Total() && InRange(cur); ++steps) {
        const PoolBlock& b = At(cur);
        if (b.iPieceNo == 0 && KeyIs(b, pcKey)) return cur;
        cur = order == Order::kNewestFirst ? b.iNext : b.iPrev;
        if (cur == start) return -1;
    }
    return -1;
}

// Walks the piece chain from piece 0; for each piece calls fn(block). The
// next piece is read before fn runs, so fn may free the block. Returns the
// message length, or -1 on a broken chain.
template <class Fn>
int ForEachPiece(int first, Fn&& fn) {
    int len = 0, cur = first;
    for (int steps = 0; steps < Total(); ++steps) {
        PoolBlock& b = At(cur);
        const int next = b.iNextPiece;
        if (b.iState != 1 || b.iDataLen < 0 || b.iDataLen > kPieceLen) return -1;
        len += b.iDataLen;
        fn(cur);
        if (next == -1) return len;
        if (!InRange(next)) return -1;
        cur = next;
    }
    return -1;
}

// Copies the message starting at block first into pvOut; its length or -1.
int CopyMessage(int first, void* pvOut, bool bFree) {
    char* out = static_cast<char*>(pvOut);
    int off = 0;
    bool ok = true;
    int len = ForEachPiece(first, [&](int i) {
        PoolBlock& b = At(i);
        std::memcpy(out + off, b.caData, static_cast<size_t>(b.iDataLen));
        off += b.iDataLen;
        if (bFree && !FreeBlock(i)) ok = false;
    });
    return ok ? len : -1;
}

int FreeMessage(int first) {
    bool ok = true;
    int len = ForEachPiece(first, [&](int i) {
        if (!FreeBlock(i)) ok = false;
    });
    return (len < 0 || !ok) ? -1 : 0;
}

// Frees every busy block for which pred holds, visiting each once from the
// head (newest) to the block that was oldest when the walk began. Returns the
// number freed, -1 on a damaged list.
template <class Pred>
int FreeBlocksWhere(Pred&& pred) {
    const int head = Header()->iBusyHead;
    if (head == -1) return 0;
    if (!InRange(head)) return -1;
    const int tail = At(head).iPrev;
    if (!InRange(tail)) return -1;
    int freed = 0, cur = head;
    for (int steps = 0; steps < Total(); ++steps) {
        const int next = At(cur).iNext;
        if (!InRange(next)) return -1;
        const bool last = cur == tail;
        if (pred(At(cur))) {
            if (!FreeBlock(cur)) return -1;
            ++freed;
        }
        if (last) return freed;
        cur = next;
    }
    return -1;
}

void OwnPidKey(char (&caKey)[32]) { std::snprintf(caKey, sizeof caKey, "%d", static_cast<int>(getpid())); }

}  // namespace

extern "C" {

int InitMemPool(int iSize) {
    if (iSize < kMinPoolSize) {
        writelog(LOG_ERROR, nullptr, 0, "InitMemPool error,input parameter errorn");
        return -3;
    }
    char* area = static_cast<char*>(std::calloc(1, static_cast<size_t>(iSize)));
    if (!area) {
        writelog(LOG_ERROR, nullptr, 0, "InitMemPool error,input parameter errorn");
        return -4;
    }
    std::free(g_pcPool);   // a second start replaces the old pool
    g_pcPool = area;

    PoolHeader& h = *Header();
    const int total = (iSize - kHeaderLen) / kBlockLen;
    h.iTotalBlocks = total;
    h.iFreeBlocks = total;
    h.iBusyBlocks = 0;
    h.iBusyHead = -1;
    const int32_t now = static_cast<int32_t>(time(nullptr));
    for (int i = 0; i < total; ++i) {
        PoolBlock& b = At(i);
        b.iBlockNo = i;
        b.iState = 0;
        b.iTime = now;
        b.iDataLen = 0;
        b.iPieceCount = 1;
        b.iNextPiece = -1;
        b.iPrev = i == 0 ? total - 1 : i - 1;
        b.iNext = i == total - 1 ? 0 : i + 1;
    }
    h.iFreeHead = 0;
    return 0;
}

int SysSetPool(const char* pcKey, const void* pvData, int iLen) {
    if (iLen < 1 || !pvData || !KeyUsable(pcKey)) return -3;
    const int pieces = iLen / kPieceLen + (iLen % kPieceLen ? 1 : 0);
    if (pieces > Total()) return -2;

    const char* data = static_cast<const char*>(pvData);
    const int32_t now = static_cast<int32_t>(time(nullptr));
    const size_t keyLen = std::strlen(pcKey);
    int prevBlock = -1, first = -1, stored = 0;
    for (int p = 0; p < pieces; ++p) {
        const int i = TakeFreeBlock();
        if (i < 0) {
            // Give back what this message already took.
            if (first != -1) FreeMessage(first);
            return -2;
        }
        PoolBlock& b = At(i);
        std::memset(b.caKey, 0, sizeof b.caKey);
        std::memcpy(b.caKey, pcKey, keyLen);
        const int len = p < pieces - 1 ? kPieceLen : iLen - p * kPieceLen;
        std::memcpy(b.caData, data + p * kPieceLen, static_cast<size_t>(len));
        b.iDataLen = len;
        b.iPieceNo = p;
        b.iPieceCount = pieces;
        b.iTime = now;
        b.iNextPiece = -1;
        if (prevBlock != -1) At(prevBlock).iNextPiece = i;
        if (first == -1) first = i;
        prevBlock = i;
        stored += len;
    }
    return stored;
}

int SysFetchPoolOne(const char* pcKey, void* pvOut, int* piLen) {
    if (!pvOut || !piLen) return -1;
    const int first = FindMessage(pcKey, Order::kOldestFirst);
    if (first < 0) return -1;
    *piLen = 0;
    const int len = CopyMessage(first, pvOut, true);
    if (len < 0) return -1;
    *piLen = len;
    return 0;
}

int SysViewPool(const char* pcKey, void* pvOut, int* piLen) {
    if (!pvOut || !piLen) return -1;
    const int first = FindMessage(pcKey, Order::kOldestFirst);
    if (first < 0) return -1;
    const int len = CopyMessage(first, pvOut, false);
    if (len < 0) return -1;
    *piLen = len;
    return len;
}

int SysViewPoolFILO(const char* pcKey, void* pvOut, int* piLen) {
    if (!pvOut || !piLen) return -1;
    const int first = FindMessage(pcKey, Order::kNewestFirst);
    if (first < 0) return -1;
    const int len = CopyMessage(first, pvOut, false);
    if (len < 0) return -1;
    *piLen = len;
    return len;
}

int SysDelPoolOne(const char* pcKey) {
    const int first = FindMessage(pcKey, Order::kOldestFirst);
    return first < 0 ? -1 : FreeMessage(first);
}

int SysDelPoolFILO(const char* pcKey) {
    const int first = FindMessage(pcKey, Order::kNewestFirst);
    return first < 0 ? -1 : FreeMessage(first);
}

int SysDelPool(const char* pcKey) {
    if (!g_pcPool || !pcKey || Header()->iBusyHead == -1) return -1;
    return FreeBlocksWhere([&](const PoolBlock& b) { return KeyIs(b, pcKey); }) < 0 ? -1 : 0;
}

int SysCleanNode(int /*iUnused*/, int iAge) {
    if (!g_pcPool) return 0;
    const long now = static_cast<long>(time(nullptr));
    return FreeBlocksWhere([&](const PoolBlock& b) { return now - b.iTime >= iAge && !KeyIs(b, kKeptKey); });
}

int PoolPut(const void* pvData, int iLen) {
    char caKey[32];
    OwnPidKey(caKey);
    return SysSetPool(caKey, pvData, iLen);
}

int PoolGet(void* pvOut, int* piLen) {
    char caKey[32];
    OwnPidKey(caKey);
    return SysFetchPoolOne(caKey, pvOut, piLen);
}

int PoolGetBNum(void) { return g_pcPool ? Header()->iBusyBlocks : 0; }

int SysFreePool(void) {
    std::free(g_pcPool);
    g_pcPool = nullptr;
    return 0;
}

namespace {
const comp::ResetRegistration g_stPoolReset([] { SysFreePool(); });
}

}  // extern "C"
