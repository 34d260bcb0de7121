// Arbitrary bytes as a table-segment image plus lookup arguments.
//
// Input: one byte of operation, one byte of word count, that many
// NUL-terminated words (table, field and the key/value list, which may carry
// its own "{END}"), then the image. Each lookup runs twice: on an exact-size
// heap copy of the image through the row walk (any read past the image is an
// AddressSanitizer report), and through the public routine on a shared-memory
// segment holding the image.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "base/SysGlobals.h"
#include "config/SysRscApp.h"
#include "config/SysTable.h"
#include "config/TableLookup.h"

namespace {

using namespace comp::table;

constexpr std::size_t kMaxWords = 16;
constexpr std::size_t kSegRecords = 16;
constexpr std::size_t kSegBytes = kSegRecords * sizeof(TableRecord);

// A segment of the fuzzer's own, removed when the process ends.
struct Segment {
    int iId = -1;
    char* pcAddr = nullptr;
    std::size_t iUsed = kSegBytes;

    Segment() { pcAddr = static_cast<char*>(compfuzz::LiveSegment(kSegBytes, &iId)); }
    void load(const uint8_t* data, std::size_t size) {
        if (size > kSegBytes) size = kSegBytes;
        std::memcpy(pcAddr, data, size);
        if (iUsed > size) std::memset(pcAddr + size, 0, iUsed - size);
        iUsed = size;
    }
};

template <class F, std::size_t... I>
int Expand(F f, const char* const* w, std::index_sequence<I...>) {
    return f(w[I]..., static_cast<const char*>(nullptr));
}

// Calls f with the n words and a null argument behind them, so the list
// always ends.
template <class F, std::size_t N = 0>
int CallWithWords(F f, const char* const* w, std::size_t n) {
    if constexpr (N > kMaxWords) {
        return -1;
    } else {
        if (n == N) return Expand(f, w, std::make_index_sequence<N>{});
        return CallWithWords<F, N + 1>(f, w, n);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    compfuzz::KeepLogsSmall();
    static Segment seg;
    if (size < 2) return 0;
    const unsigned iOp = data[0];
    const std::size_t iWanted = data[1] % (kMaxWords + 3);
    std::size_t iPos = 2;

    std::vector<std::string> words;
    while (words.size() < iWanted && iPos < size) {
        const void* pvNul = std::memchr(data + iPos, '\0', size - iPos);
        std::size_t iEnd = pvNul ? static_cast<std::size_t>(static_cast<const uint8_t*>(pvNul) - data) : size;
        words.emplace_back(reinterpret_cast<const char*>(data + iPos), iEnd - iPos);
        iPos = iEnd < size ? iEnd + 1 : size;
    }
    const uint8_t* pImage = data + iPos;
    const std::size_t iImageLen = size - iPos;

    // Table and field come first for the value lookup, the table alone for
    // the row fetches; the remaining words are the list.
    const std::size_t iFixed = (iOp % 4 == 0) ? 2 : 1;
    while (words.size() < iFixed) words.emplace_back();
    const char* pcaList[kMaxWords];
    std::size_t iList = 0;
    for (std::size_t i = iFixed; i < words.size() && iList < kMaxWords; ++i) pcaList[iList++] = words[i].c_str();
    const char* pcTable = words[0].c_str();

    // Exact-size heap copy through the row walk.
    std::vector<TableRecord> heap((iImageLen + sizeof(TableRecord) - 1) / sizeof(TableRecord));
    if (iImageLen > 0) std::memcpy(static_cast<void*>(heap.data()), pImage, iImageLen);
    std::span<const TableRecord> image(heap);
    char caTable[kNameBufLen];
    CopyUpper(caTable, sizeof caTable, pcTable);
    std::vector<const char*> list(pcaList, pcaList + iList);
    list.push_back(nullptr);
    KeyList stKeys;
    static char caOut[kSegRecords * kValueAreaLen + 1];
    if (CollectKeyList("fuzz", caTable, list, iOp % 4 != 0, &stKeys) == 0) {
        if (iOp % 4 < 2) {
            if (const TableRecord* pstRow = FindRow(image, caTable, stKeys)) {
                char caField[kNameBufLen];
                CopyUpper(caField, sizeof caField, words.size() > 1 ? words[1].c_str() : "");
                getValueByKeyNew(pstRow, caField, caOut);
                std::span<const char> row = RowImage(*pstRow);
                std::memcpy(caOut, row.data(), row.size());
            }
        } else {
            std::vector<char> rows(heap.size() * kValueAreaLen + 1);
            CountRows(image, caTable, stKeys, (iOp & 4) ? rows.data() : nullptr);
        }
    }

    // The public routines on the segment.
    seg.load(pImage, iImageLen);
    g_iShmTblId = seg.iId;
    switch (iOp % 4) {
    case 0: {
        const char* pcField = words[1].c_str();
        CallWithWords([&](auto... a) { return SysGetValueByTableKey(pcTable, pcField, caOut, a...); }, pcaList,
                      iList);
        if (iOp & 8) SysGetenvByName(pcTable, caOut);
        break;
    }
    case 1:
        CallWithWords([&](auto... a) { return SysGetSingleRecord(pcTable, caOut, a...); }, pcaList, iList);
        break;
    default: {
        int iMode = (iOp & 4) ? 1 : 0;
        CallWithWords([&](auto... a) { return SysGetRecords(iMode, pcTable, caOut, a...); }, pcaList, iList);
        break;
    }
    }
    return 0;
}
