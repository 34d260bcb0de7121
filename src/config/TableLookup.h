// Internal to the table lookups (SysRscApp.cpp, SysTable.cpp) and their fuzz
// target: the key/value argument list, the view of the table segment, and the
// row walk. Everything here works on a given span of records, so a lookup can
// be exercised on a memory image without a shared-memory segment.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <span>
#include <string_view>

#include "base/SysTypes.h"

namespace comp::table {

inline constexpr int kMaxListArgs = 10;             // five key/value pairs
inline constexpr int kMaxPairs = kMaxListArgs / 2;
inline constexpr int kKeySlotLen = 256;
inline constexpr int kNameBufLen = 64;              // upper-cased table and field names
// Words drained from a variadic list at most; a list is ended by a null
// argument or PARA_END, so this bounds only lists that forgot both.
inline constexpr int kMaxDrainedArgs = 64;
inline constexpr int kRecordNameLen = 32;
inline constexpr int kValueAreaLen = 1024;
inline constexpr int kMaxRecordFields = 128;

static_assert(sizeof(TableRecord::caTableName) == kRecordNameLen);
static_assert(sizeof(TableRecord::caFieldNames[0]) == kRecordNameLen);
static_assert(sizeof(TableRecord::caValues) == kValueAreaLen);
static_assert(sizeof(TableRecord::iaFieldLen) / sizeof(int32_t) == kMaxRecordFields);

// Whether the first five bytes of a word are PARA_END.
inline bool IsParaEnd(const char* pcWord) {
    return pcWord != nullptr && std::string_view(pcWord).substr(0, 5) == PARA_END;
}

// The words of a variadic list, up to and including its terminator (a null
// argument or PARA_END) when one comes within kMaxDrainedArgs words.
struct ArgWords {
    const char* pcaWord[kMaxDrainedArgs];
    int iCount;
};

// Takes the words of the list from ap. Must be called once per va_start.
inline void DrainArgs(va_list ap, ArgWords* pstOut) {
    pstOut->iCount = 0;
    while (pstOut->iCount < kMaxDrainedArgs) {
        const char* pcWord = va_arg(ap, const char*);
        pstOut->pcaWord[pstOut->iCount++] = pcWord;
        if (pcWord == nullptr || IsParaEnd(pcWord)) break;
    }
}

// A checked key/value list: keys upper-cased into slots (the first one only
// when asked), values left in the caller's strings.
struct KeyList {
    char caKey[kMaxPairs][kKeySlotLen];
    const char* pcValue[kMaxPairs];
    int iPairs;
};

// Checks and collects the words of a lookup. Reports a failure to the error
// log with pcSrc as the source name and returns -1; 0 when the list is usable.
int CollectKeyList(const char* pcSrc, const char* pcTable, std::span<const char* const> words,
                   bool bUpperFirstKey, KeyList* pstOut);

// Copies at most iCap-1 bytes of pcText upper-cased ("a".."z" only) into
// pcOut and terminates it.
void CopyUpper(char* pcOut, std::size_t iCap, const char* pcText);

// Whether the record is one that ends the segment (empty table name).
inline bool IsEndRecord(const TableRecord& stRec) { return stRec.caTableName[0] == '\0'; }

// Whether the record's table name is exactly pcTable (a name that fills its
// 32 bytes without a NUL never matches).
bool IsTableRecord(const TableRecord& stRec, const char* pcTable);

// The row image of a record, or an empty span when its length lies outside
// the value area.
std::span<const char> RowImage(const TableRecord& stRec);

// Whether the record's row length and field count are in range; a record
// failing this matches no lookup.
bool IsRecordSane(const TableRecord& stRec);

// Name of field i of a sane record; false when the name fills its 32 bytes
// without a NUL.
bool FieldName(const TableRecord& stRec, int i, std::string_view* pName);

// Text of field i of a sane record: the bytes at its offset up to its length
// or the first NUL; false when offset or length point outside the value area.
bool FieldValue(const TableRecord& stRec, int i, std::string_view* pValue);

// Whether every pair of the list matches the record's fields.
bool RowMatches(const TableRecord& stRec, const KeyList& stKeys);

// The records of the segment before its end record.
std::span<const TableRecord> RecordsBeforeEnd(std::span<const TableRecord> seg);

// First row of pcTable matching the list, or null.
const TableRecord* FindRow(std::span<const TableRecord> seg, const char* pcTable, const KeyList& stKeys);

// Counts the rows of pcTable that match (every row with the "NULL"/"NULL"
// pair), stopping at the first foreign row after the table; copies each match
// to pcRows + n * row length when pcRows is given.
int CountRows(std::span<const TableRecord> seg, const char* pcTable, const KeyList& stKeys, char* pcRows);

// The table segment g_iShmTblId names, attached once per segment and kept
// attached while it lives; a segment the platform removed is replaced by the
// one now under the table key of sys.cfg. False with the failure reported
// when there is none or it cannot be attached.
bool AttachedTable(const char* pcSrc, std::span<const TableRecord>* pSeg);

}  // namespace comp::table
