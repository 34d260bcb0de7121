// Whole-row fetches from the loaded-table segment, and two small text helpers.

#include "config/SysTable.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/SysGlobals.h"
#include "config/TableLookup.h"
#include "log/ErrLog.h"
#include "log/SysTraceLog.h"

namespace {

using namespace comp::table;

// Checks the table name and collects the key/value list (every key
// upper-cased). 0, or -1 after the report.
int PrepareFetch(const char* pcTable, char (&caTable)[kNameBufLen], va_list ap, KeyList* pstKeys) {
    CopyUpper(caTable, sizeof caTable, pcTable);
    ArgWords stWords;
    DrainArgs(ap, &stWords);
    return CollectKeyList(SRC_NAME, caTable, {stWords.pcaWord, static_cast<std::size_t>(stWords.iCount)}, true,
                          pstKeys);
}

}  // namespace

extern "C" {

int SysGetSingleRecord(const char* pcTable, void* pvRow, ...) {
    if (pcTable == nullptr || *pcTable == '\0' || pvRow == nullptr) {
        wlog("parameter error.");
        return -1;
    }
    char caTable[kNameBufLen];
    KeyList stKeys;
    va_list ap;
    va_start(ap, pvRow);
    int iRet = PrepareFetch(pcTable, caTable, ap, &stKeys);
    va_end(ap);
    if (iRet != 0) return -1;

    std::span<const TableRecord> seg;
    if (!AttachedTable(SRC_NAME, &seg)) return -1;
    const TableRecord* pstRow = FindRow(seg, caTable, stKeys);
    if (pstRow == nullptr) {
        if (std::strcmp(caTable, "VARSTABLE") == 0)
            std::snprintf(g_caMsg, sizeof g_caMsg, "[%d]There is no such key-value in sys.cfg", __LINE__);
        else
            std::snprintf(g_caMsg, sizeof g_caMsg, "[%d]There is no such key-value in table [%s]", __LINE__,
                          caTable);
        return SQL_NOTFOUND;
    }
    std::span<const char> row = RowImage(*pstRow);
    std::memcpy(pvRow, row.data(), row.size());
    return 0;
}

int SysGetRecords(int iMode, const char* pcTable, void* pvRows, ...) {
    if (pcTable == nullptr || *pcTable == '\0' || (iMode == 1 && pvRows == nullptr)) {
        wlog("parameter error.");
        return -1;
    }
    char caTable[kNameBufLen];
    KeyList stKeys;
    va_list ap;
    va_start(ap, pvRows);
    int iRet = PrepareFetch(pcTable, caTable, ap, &stKeys);
    va_end(ap);
    if (iRet != 0) return -1;

    std::span<const TableRecord> seg;
    if (!AttachedTable(SRC_NAME, &seg)) return -1;
    return CountRows(seg, caTable, stKeys, iMode == 1 ? static_cast<char*>(pvRows) : nullptr);
}

const char* getname(const char* pcPath, void* /*pvUnused*/, int* piLen) {
    if (pcPath == nullptr) return nullptr;
    const char* pcSlash = std::strrchr(pcPath, '/');
    if (pcSlash == nullptr) return nullptr;
    if (piLen != nullptr) *piLen = static_cast<int>(std::strlen(pcSlash + 1));
    return pcSlash + 1;
}

int getRecord(const char* pcText, int iLen, char* pcOut) {
    if (pcText == nullptr || pcOut == nullptr) return -1;
    bool bInValue = false;
    for (int i = 0; i < iLen && pcText[i] != '\0'; ++i) {
        char c = pcText[i];
        if (c == ',')
            bInValue = true;
        else if (c == ';')
            bInValue = false;
        else if (bInValue)
            *pcOut++ = c;
    }
    return 0;
}

}  // extern "C"
