// Table-segment images for tests: rows as TableRecords (PLAT_STATICROUTEINF
// rows with column i's value at 32 * i, other tables' values packed one after
// the other so that tests can reach the ends of the value area), ended by a
// record with an empty table name, written into System V shared memory.
#pragma once

#include <sys/shm.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "TestEnv.h"
#include "kit/TableRecordLayout.h"

namespace comptest {

class TableImage {
public:
    // Appends one row; throws std::invalid_argument when it does not fit a TableRecord.
    TableImage& append(const std::string& table, const std::vector<std::string>& columns,
                       const std::vector<std::string>& values) {
        TableRecord rec;
        std::string why;
        const bool route = table == "PLAT_STATICROUTEINF";
        if (!kit::FillTableRecord(&rec, table, columns, values,
                                  route ? kit::RowLayout::kColumns32 : kit::RowLayout::kPacked, &why))
            throw std::invalid_argument(why);
        records_.push_back(rec);
        return *this;
    }
    // A PLAT_STATICROUTEINF row by column position; missing trailing values are empty.
    TableImage& appendRoute(std::vector<std::string> values) {
        values.resize(comp::kRouteFields);
        return append("PLAT_STATICROUTEINF", {g_pcaRouteColumns, g_pcaRouteColumns + comp::kRouteFields}, values);
    }
    TableImage& appendVar(const std::string& name, const std::string& value) {
        return append("VARSTABLE", {"VARSNAME", "VARSVALUE"}, {name, value});
    }
    // The rows appended so far, for tests that damage a record on purpose.
    std::vector<TableRecord>& records() { return records_; }

    // The rows followed by the end record, and the bytes they take.
    std::vector<TableRecord> image() const {
        std::vector<TableRecord> all(records_);
        all.push_back(TableRecord{});
        return all;
    }
    std::size_t imageBytes() const { return (records_.size() + 1) * sizeof(TableRecord); }

    // Copies the image into a segment that holds it.
    bool writeTo(int iShmId) const {
        struct shmid_ds info {};
        if (shmctl(iShmId, IPC_STAT, &info) != 0 || info.shm_segsz < imageBytes()) return false;
        void* pvAddr = shmat(iShmId, nullptr, 0);
        if (pvAddr == reinterpret_cast<void*>(-1)) return false;
        std::memcpy(pvAddr, image().data(), imageBytes());
        return shmdt(pvAddr) == 0;
    }
    // A new segment under a key from keys, filled; its id, or -1.
    int createShm(IpcKeys& keys) const {
        const int iId = keys.newShm(static_cast<int>(imageBytes()));
        return iId >= 0 && writeTo(iId) ? iId : -1;
    }

private:
    std::vector<TableRecord> records_;
};

}  // namespace comptest
