#include "kit/TableRecordLayout.h"

#include <cstring>

namespace kit {

namespace {
constexpr size_t kNameLen = sizeof(TableRecord::caTableName);
constexpr size_t kFieldNameLen = sizeof(TableRecord::caFieldNames[0]);
constexpr size_t kValueArea = sizeof(TableRecord::caValues);
constexpr size_t kMaxFields = sizeof(TableRecord::iaFieldLen) / sizeof(int32_t);
constexpr size_t kColumnWidth = comp::kRouteFieldLen;
static_assert(kFieldNameLen == kColumnWidth);
}  // namespace

bool FillTableRecord(TableRecord* rec, const std::string& table, const std::vector<std::string>& columns,
                     const std::vector<std::string>& values, RowLayout layout, std::string* why) {
    std::memset(rec, 0, sizeof *rec);
    auto fail = [&](const std::string& reason) {
        if (why) *why = reason;
        return false;
    };
    if (table.empty() || table.size() >= kNameLen) return fail("table name must have 1 to 31 characters: " + table);
    if (columns.size() != values.size()) return fail("column and value counts differ in " + table);
    if (columns.size() > kMaxFields) return fail("more than 128 columns in " + table);
    const bool fixed = layout == RowLayout::kColumns32;
    if (fixed && columns.size() * kColumnWidth > kValueArea) return fail("more than 32 columns in " + table);

    std::memcpy(rec->caTableName, table.c_str(), table.size() + 1);
    rec->iFieldCount = static_cast<int32_t>(columns.size());
    size_t off = 0;
    for (size_t i = 0; i < columns.size(); ++i) {
        const std::string& value = values[i];
        if (columns[i].size() >= kFieldNameLen) return fail("column name too long: " + columns[i]);
        if (fixed) {
            off = i * kColumnWidth;
            if (value.size() >= kColumnWidth) return fail("value longer than 31 characters: " + value);
        }
        if (off + value.size() + 1 > kValueArea) return fail("row does not fit the 1024-byte value area: " + table);
        std::memcpy(rec->caFieldNames[i], columns[i].c_str(), columns[i].size() + 1);
        std::memcpy(rec->caValues + off, value.c_str(), value.size() + 1);
        rec->iaFieldOffset[i] = static_cast<int32_t>(off);
        rec->iaFieldLen[i] = static_cast<int32_t>(value.size());
        off += value.size() + 1;
    }
    rec->iRowLen = static_cast<int32_t>(fixed ? columns.size() * kColumnWidth : off);
    return true;
}

}  // namespace kit
