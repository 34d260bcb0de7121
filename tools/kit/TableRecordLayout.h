// The one layout of a loaded-table row as a TableRecord of the table segment:
// used by `compkit up`, the tests' image builder and the fuzz targets.
#pragma once

#include <string>
#include <vector>

#include "base/SysTypes.h"

namespace kit {

enum class RowLayout {
    kColumns32,  // column i's value at byte 32*i of the row image (PLAT_STATICROUTEINF's layout)
    kPacked,     // values one after the other, each NUL-terminated
};

// Fills *rec (zeroed first) with one row; false with the reason when the
// names or values do not fit a TableRecord in that layout.
bool FillTableRecord(TableRecord* rec, const std::string& table, const std::vector<std::string>& columns,
                     const std::vector<std::string>& values, RowLayout layout, std::string* why);

}  // namespace kit
