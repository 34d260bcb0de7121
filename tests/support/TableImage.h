// Builds table-segment images (runs of TableRecords ended by a record with an
// empty table name) for tests and the stand-in platform, and writes them
// into System V shared memory.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "comp/SysTypes.h"

namespace comptest {

class IpcKeys;

class TableImage {
public:
    // Appends one row. Rows of PLAT_STATICROUTEINF are laid out as a
    // RouteRecord (column i's value at 32 * i, 896-byte row image); the values
    // of other tables are packed one after the other, each NUL-terminated, so
    // that tests can reach the ends of the value area.
    // Throws std::invalid_argument when the row does not fit a TableRecord.
    TableImage& append(const std::string& table, const std::vector<std::string>& columns,
                       const std::vector<std::string>& values);
    // A PLAT_STATICROUTEINF row with the columns of g_pcaRouteColumns;
    // missing trailing values are empty.
    TableImage& appendRoute(const std::vector<std::string>& values);
    // A VARSTABLE row (VARSNAME, VARSVALUE).
    TableImage& appendVar(const std::string& name, const std::string& value);

    // The rows appended so far, for tests that damage a record on purpose.
    std::vector<TableRecord>& records() { return records_; }
    const std::vector<TableRecord>& records() const { return records_; }

    // The rows followed by the end record.
    std::vector<TableRecord> image() const;
    std::size_t imageBytes() const { return (records_.size() + 1) * sizeof(TableRecord); }

    // Copies the image into an existing segment at least imageBytes() long;
    // false when it cannot be attached or is too small.
    bool writeTo(int iShmId) const;
    // Creates a segment under a key from keys, fills it, and returns its id
    // (-1 on failure). iExtraBytes leaves room for rows written later.
    int createShm(IpcKeys& keys, key_t* pKey = nullptr, std::size_t iExtraBytes = 0) const;

private:
    std::vector<TableRecord> records_;
};

}  // namespace comptest
