#include "kit/TablesCfg.h"

#include "kit/TableRecordLayout.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>

#include "base/SysGlobals.h"
#include "kit/KitUtil.h"

namespace kit {

namespace {

constexpr const char* kRouteTable = "PLAT_STATICROUTEINF";
constexpr int kNameLen = static_cast<int>(sizeof(TableRecord::caTableName));

std::string At(const std::string& file, int line) { return file + ":" + std::to_string(line) + ": "; }

std::string Upper(std::string s) {
    for (char& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

bool IsName(const std::string& s) {
    if (s.empty() || static_cast<int>(s.size()) >= kNameLen) return false;
    return std::all_of(s.begin(), s.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; });
}

int RouteColumnIndex(const std::string& name) {
    for (int i = 0; i < comp::kRouteFields; ++i)
        if (name == g_pcaRouteColumns[i]) return i;
    return -1;
}

// Checks a header line and, for the route table, maps the named columns to
// their fixed positions.
bool TakeHeader(KitTable* t, const std::vector<std::string>& words, std::vector<int>* positions,
                std::string* why) {
    const bool route = t->name == kRouteTable;
    positions->clear();
    std::map<std::string, int> seen;
    for (const std::string& w : words) {
        std::string col = Upper(w);
        if (!IsName(col)) {
            *why = "column name '" + w + "' is not 1..31 letters, digits or '_'";
            return false;
        }
        if (!seen.emplace(col, 0).second) {
            *why = "column " + col + " is named twice";
            return false;
        }
        if (route) {
            int idx = RouteColumnIndex(col);
            if (idx < 0) {
                *why = "unknown column " + col + " of " + kRouteTable;
                return false;
            }
            positions->push_back(idx);
        } else {
            positions->push_back(static_cast<int>(t->columns.size()));
            t->columns.push_back(col);
        }
    }
    if (route) {
        if (!seen.count("ROUTEID")) {
            *why = std::string(kRouteTable) + " needs a ROUTEID column";
            return false;
        }
        if (t->columns.empty())
            for (int i = 0; i < comp::kRouteFields; ++i) t->columns.emplace_back(g_pcaRouteColumns[i]);
    } else if (static_cast<int>(t->columns.size()) > kMaxColumns) {
        *why = "a table has at most " + std::to_string(kMaxColumns) + " columns of 32 bytes";
        return false;
    }
    return true;
}

bool TakeRow(KitTable* t, const std::vector<std::string>& words, const std::vector<int>& positions,
             std::string* why) {
    if (words.size() != positions.size()) {
        *why = "row has " + std::to_string(words.size()) + " values but the header names " +
               std::to_string(positions.size()) + " columns";
        return false;
    }
    std::vector<std::string> row(t->columns.size());
    // assign(1, '1') rather than = "1": gcc 12 at -O3 reports a false
    // -Wrestrict inside std::string's assignment from a short literal.
    if (t->name == kRouteTable) row[RT_ROUTEMONID].assign(1, '1');
    for (size_t i = 0; i < words.size(); ++i) {
        std::string v = words[i] == "-" ? "" : words[i];
        if (static_cast<int>(v.size()) >= kColumnWidth) {
            *why = "value of " + t->columns[static_cast<size_t>(positions[i])] + " has " +
                   std::to_string(v.size()) + " characters; at most " + std::to_string(kColumnWidth - 1) + " fit";
            return false;
        }
        row[static_cast<size_t>(positions[i])] = std::move(v);
    }
    t->rows.push_back(std::move(row));
    return true;
}

}  // namespace

bool ParseTablesCfg(std::string_view text, const std::string& fileName, std::vector<KitTable>* out,
                    std::string* why) {
    std::vector<KitTable> tables;
    std::vector<int> positions;
    bool haveHeader = false;
    int lineNo = 0;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        ++lineNo;
        std::string err;
        size_t first = line.find_first_not_of(" \t\r");
        if (first != std::string_view::npos && line[first] == '[') {
            size_t close = line.find(']', first);
            std::vector<std::string> rest;
            if (close == std::string_view::npos || !SplitWords(line.substr(close + 1), &rest, &err) || !rest.empty()) {
                *why = At(fileName, lineNo) + "a section line is [TABLENAME]";
                return false;
            }
            std::string name = Upper(std::string(line.substr(first + 1, close - first - 1)));
            if (!IsName(name)) {
                *why = At(fileName, lineNo) + "table name '" + name + "' is not 1..31 letters, digits or '_'";
                return false;
            }
            auto same = std::find_if(tables.begin(), tables.end(), [&](const KitTable& t) { return t.name == name; });
            haveHeader = false;
            // The route table's columns are fixed, so its rows may come in
            // several sections, each with a header of its own.
            if (same != tables.end() && name == kRouteTable) {
                std::rotate(same, same + 1, tables.end());
                continue;
            }
            if (same != tables.end()) {
                *why = At(fileName, lineNo) + "table " + name + " has a section already (line " +
                       std::to_string(same->line) + ")";
                return false;
            }
            tables.push_back(KitTable{name, {}, {}, {}, lineNo});
            continue;
        }
        std::vector<std::string> words;
        if (!SplitWords(line, &words, &err)) {
            *why = At(fileName, lineNo) + err;
            return false;
        }
        if (words.empty()) continue;
        if (tables.empty()) {
            *why = At(fileName, lineNo) + "a line before the first [TABLENAME] section";
            return false;
        }
        KitTable& t = tables.back();
        bool ok = haveHeader ? TakeRow(&t, words, positions, &err) : TakeHeader(&t, words, &positions, &err);
        if (!ok) {
            *why = At(fileName, lineNo) + err;
            return false;
        }
        if (haveHeader) t.rowLines.push_back(lineNo);
        haveHeader = true;
    }
    *out = std::move(tables);
    return true;
}

std::vector<TableRecord> BuildTableImage(const std::vector<KitTable>& tables) {
    std::vector<TableRecord> image;
    for (const KitTable& t : tables) {
        for (const auto& row : t.rows) {
            TableRecord rec;
            // The rows were checked when tables.cfg was read, so they fit.
            FillTableRecord(&rec, t.name, t.columns, row, RowLayout::kColumns32, nullptr);
            image.push_back(rec);
        }
    }
    TableRecord endRec;
    std::memset(&endRec, 0, sizeof endRec);
    image.push_back(endRec);
    return image;
}

size_t TableImageBytes(const std::vector<KitTable>& tables) {
    size_t rows = 1;
    for (const KitTable& t : tables) rows += t.rows.size();
    return rows * sizeof(TableRecord);
}

}  // namespace kit
