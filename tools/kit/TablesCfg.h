// tables.cfg: the rows that `compkit up` loads into the table segment, in a
// plain text form (one section per table, a header line of column names, one
// row per line), and their layout as TableRecords.
//
//   # comment
//   [VARSTABLE]
//   VARSNAME      VARSVALUE
//   MAX_COM_NUM   1024
//
// Words are separated by blanks or tabs; "-" is an empty value; a value with
// blanks is written in double quotes. Every value fits 31 characters.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/SysTypes.h"

namespace kit {

inline constexpr int kColumnWidth = 32;  // every column of a row image
inline constexpr int kMaxColumns = static_cast<int>(sizeof(TableRecord::caValues)) / kColumnWidth;
static_assert(kMaxColumns * kColumnWidth == sizeof(TableRecord::caValues));
static_assert(comp::kRouteFields * kColumnWidth == sizeof(RouteRecord));

struct KitTable {
    std::string name;                         // upper case
    std::vector<std::string> columns;         // upper case, in row-image order
    std::vector<std::vector<std::string>> rows;
    std::vector<int> rowLines;                // file line of each row
    int line = 0;                             // line of the section header
};

// Parses tables.cfg. A table has one section, except PLAT_STATICROUTEINF,
// whose rows may come in several sections, each with its own header line.
// Its rows are widened to the table's 28 columns in their fixed order,
// whatever order the header names them in (ROUTEMONID defaults to "1" when
// the header leaves it out). False with
// "<file>:<line>: reason" for the first bad line.
bool ParseTablesCfg(std::string_view text, const std::string& fileName, std::vector<KitTable>* out,
                    std::string* why);

// Lays the tables out as records for the segment, column i of a row at byte
// 32*i of its row image, followed by the end record (empty name).
std::vector<TableRecord> BuildTableImage(const std::vector<KitTable>& tables);

// Bytes the image of these tables takes in the segment, end record included.
size_t TableImageBytes(const std::vector<KitTable>& tables);

}  // namespace kit
