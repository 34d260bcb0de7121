#include "config/TableLookup.h"

#include <sys/shm.h>

#include <cstdio>
#include <cstring>

#include "base/SysGlobals.h"
#include "base/SysShm.h"
#include "config/SysRscApp.h"
#include "log/ErrLog.h"

namespace comp::table {

namespace {

// Pair that stands for "no condition" in SysGetRecords, compared on four bytes.
bool IsNullWord(const char* pcWord) { return std::strncmp(pcWord, "NULL", 4) == 0; }

// Position of the table segment among the [SHMRESOURCE] entries.
constexpr int kTableShmPosition = 2;

// The table segment attached by this process. The segment is only read, so
// one attachment serves every lookup while the segment lives; a new id (a
// reset, or a reload of the tables) replaces it.
struct TableAttachment {
    int iShmId = -1;
    comp::ShmAttachment seg;
    std::size_t iSize = 0;

    void release() {
        seg.reset();
        iShmId = -1;
        iSize = 0;
    }
};
TableAttachment g_stTableAttachment;
const comp::ResetRegistration g_stTableReset([] { g_stTableAttachment.release(); });

// Id of the segment now under the table key, or -1.
int TableSegmentByKey() {
    key_t key = 0;
    int iSize = 0;
    if (!SysShmEntryAt(kTableShmPosition, g_stCommCfgValue.iShareMemCount, &key, &iSize)) return -1;
    return shmget(key, 0, 0);
}

// Makes g_iShmTblId name a live table segment and gives its size. The
// platform reloads its tables by removing the segment and loading a new one
// under the same key: a removed segment is replaced by the one now under the
// key, which is said once in the error log. False after the report when
// there is none.
bool LiveTableSegment(const char* pcSrc, std::size_t* piSize) {
    if (comp::ShmIsLive(g_iShmTblId, piSize)) return true;
    const int iNew = g_iShmTblId >= 0 ? TableSegmentByKey() : -1;
    if (iNew < 0 || !comp::ShmIsLive(iNew, piSize)) {
        COMP_ERRLOG("[%s,%d]table segment not found,shmid=[%d]", pcSrc, __LINE__, g_iShmTblId);
        return false;
    }
    COMP_ERRLOG("[%s,%d]table segment reloaded,old shmid=[%d],new shmid=[%d]", pcSrc, __LINE__, g_iShmTblId, iNew);
    g_iShmTblId = iNew;
    return true;
}

}  // namespace

void CopyUpper(char* pcOut, std::size_t iCap, const char* pcText) {
    if (iCap == 0) return;
    std::size_t i = 0;
    for (; pcText[i] != '\0' && i + 1 < iCap; ++i) {
        char c = pcText[i];
        pcOut[i] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
    }
    pcOut[i] = '\0';
}

int CollectKeyList(const char* pcSrc, const char* pcTable, std::span<const char* const> words,
                   bool bUpperFirstKey, KeyList* pstOut) {
    if (!words.empty() && IsParaEnd(words[0])) {
        COMP_ERRLOG("[%s,%d] lost parameter [%s]", pcSrc, __LINE__, pcTable);
        return -1;
    }
    // Count every word up to the terminator; store only what fits, since a
    // list longer than the slots is refused below anyway.
    int iCounter = 0;
    bool bEnd = false;
    for (const char* pcWord : words) {
        if (pcWord == nullptr) break;
        if (IsParaEnd(pcWord)) {
            bEnd = true;
            break;
        }
        if (iCounter < kMaxListArgs) {
            int iPair = iCounter / 2;
            if (iCounter % 2 == 0) {
                if (iCounter == 0 && !bUpperFirstKey)
                    std::snprintf(pstOut->caKey[iPair], kKeySlotLen, "%s", pcWord);
                else
                    CopyUpper(pstOut->caKey[iPair], kKeySlotLen, pcWord);
            } else {
                pstOut->pcValue[iPair] = pcWord;
            }
        }
        ++iCounter;
    }
    if (iCounter > kMaxListArgs) {
        COMP_ERRLOG("[%s][%d]Too much parameters. No more than %d,but now iCounter=%d", pcSrc, __LINE__,
                    kMaxListArgs, iCounter);
        return -1;
    }
    if (iCounter % 2 != 0) {
        COMP_ERRLOG("[%s][%d] The number of parameter is not properly.[%d]", pcSrc, __LINE__, iCounter);
        return -1;
    }
    if (!bEnd) {
        COMP_ERRLOG("[%s]param error,lost flag PARA_END", pcSrc);
        return -1;
    }
    pstOut->iPairs = iCounter / 2;
    return 0;
}

bool IsTableRecord(const TableRecord& stRec, const char* pcTable) {
    std::size_t iLen = strnlen(stRec.caTableName, kRecordNameLen);
    if (iLen == kRecordNameLen) return false;
    return std::string_view(stRec.caTableName, iLen) == pcTable;
}

bool IsRecordSane(const TableRecord& stRec) {
    return stRec.iFieldCount >= 0 && stRec.iFieldCount <= kMaxRecordFields && stRec.iRowLen >= 0 &&
           stRec.iRowLen <= kValueAreaLen;
}

std::span<const char> RowImage(const TableRecord& stRec) {
    if (stRec.iRowLen < 0 || stRec.iRowLen > kValueAreaLen) return {};
    return {stRec.caValues, static_cast<std::size_t>(stRec.iRowLen)};
}

bool FieldName(const TableRecord& stRec, int i, std::string_view* pName) {
    const char* pcName = stRec.caFieldNames[i];
    std::size_t iLen = strnlen(pcName, kRecordNameLen);
    if (iLen == kRecordNameLen) return false;
    *pName = std::string_view(pcName, iLen);
    return true;
}

bool FieldValue(const TableRecord& stRec, int i, std::string_view* pValue) {
    int32_t iOff = stRec.iaFieldOffset[i];
    int32_t iLen = stRec.iaFieldLen[i];
    if (iOff < 0 || iLen < 0 || iOff > kValueAreaLen || iLen > kValueAreaLen - iOff) return false;
    const char* pcValue = stRec.caValues + iOff;
    *pValue = std::string_view(pcValue, strnlen(pcValue, static_cast<std::size_t>(iLen)));
    return true;
}

bool RowMatches(const TableRecord& stRec, const KeyList& stKeys) {
    if (!IsRecordSane(stRec)) return false;
    for (int i = 0; i < stKeys.iPairs; ++i)
        if (findSubStringNew(&stRec, stKeys.caKey[i], stKeys.pcValue[i]) != 0) return false;
    return true;
}

std::span<const TableRecord> RecordsBeforeEnd(std::span<const TableRecord> seg) {
    std::size_t n = 0;
    while (n < seg.size() && !IsEndRecord(seg[n])) ++n;
    return seg.first(n);
}

const TableRecord* FindRow(std::span<const TableRecord> seg, const char* pcTable, const KeyList& stKeys) {
    // One walk: stop at the end record or at the first match, whichever
    // comes first (the lookups of every message go through here).
    for (const TableRecord& stRec : seg) {
        if (IsEndRecord(stRec)) break;
        if (IsTableRecord(stRec, pcTable) && RowMatches(stRec, stKeys)) return &stRec;
    }
    return nullptr;
}

int CountRows(std::span<const TableRecord> seg, const char* pcTable, const KeyList& stKeys, char* pcRows) {
    bool bAll = stKeys.iPairs > 0 && IsNullWord(stKeys.caKey[0]) && IsNullWord(stKeys.pcValue[0]);
    bool bReached = false;
    int iCount = 0;
    for (const TableRecord& stRec : RecordsBeforeEnd(seg)) {
        if (!IsTableRecord(stRec, pcTable)) {
            // A table's rows stand together: the first foreign row after them ends it.
            if (bReached) break;
            continue;
        }
        bReached = true;
        if (!IsRecordSane(stRec)) continue;
        if (!bAll && !RowMatches(stRec, stKeys)) continue;
        if (pcRows != nullptr) {
            std::span<const char> row = RowImage(stRec);
            std::memcpy(pcRows + static_cast<std::size_t>(iCount) * row.size(), row.data(), row.size());
        }
        ++iCount;
    }
    return iCount;
}

bool AttachedTable(const char* pcSrc, std::span<const TableRecord>* pSeg) {
    TableAttachment& st = g_stTableAttachment;
    // One shmctl per lookup while the attachment serves.
    if (!st.seg || st.iShmId != g_iShmTblId || !comp::ShmIsLive(st.iShmId)) {
        st.release();
        std::size_t iSize = 0;
        if (!LiveTableSegment(pcSrc, &iSize)) return false;
        if (!st.seg.attach(g_iShmTblId)) {
            COMP_ERRLOG("[%s,%d]attach table segment error,shmid=[%d]", pcSrc, __LINE__, g_iShmTblId);
            return false;
        }
        st.iShmId = g_iShmTblId;
        st.iSize = iSize;
    }
    *pSeg = std::span<const TableRecord>(static_cast<const TableRecord*>(st.seg.get()),
                                         st.iSize / sizeof(TableRecord));
    return true;
}

}  // namespace comp::table
