#include "TableImage.h"

#include <sys/shm.h>

#include <cstring>
#include <stdexcept>

#include "TestEnv.h"

namespace comptest {

namespace {

constexpr int kRouteColumns = 28;
constexpr int kRouteFieldLen = 32;
constexpr int kNameLen = sizeof(TableRecord::caTableName);
constexpr int kValueArea = sizeof(TableRecord::caValues);
constexpr int kMaxFields = sizeof(TableRecord::iaFieldLen) / sizeof(int32_t);

void PutName(char* pcField, const std::string& name) {
    if (name.size() >= static_cast<std::size_t>(kNameLen)) throw std::invalid_argument("name too long: " + name);
    std::memcpy(pcField, name.c_str(), name.size() + 1);
}

}  // namespace

TableImage& TableImage::append(const std::string& table, const std::vector<std::string>& columns,
                               const std::vector<std::string>& values) {
    if (columns.size() != values.size() || columns.size() > static_cast<std::size_t>(kMaxFields))
        throw std::invalid_argument("bad column list for " + table);
    TableRecord rec{};
    PutName(rec.caTableName, table);
    rec.iFieldCount = static_cast<int32_t>(columns.size());
    const bool bRoute = table == "PLAT_STATICROUTEINF";
    int iOff = 0;
    for (std::size_t i = 0; i < columns.size(); ++i) {
        const std::string& value = values[i];
        if (bRoute) {
            iOff = static_cast<int>(i) * kRouteFieldLen;
            if (value.size() >= static_cast<std::size_t>(kRouteFieldLen))
                throw std::invalid_argument("route value too long: " + value);
        }
        if (iOff + static_cast<int>(value.size()) + 1 > kValueArea)
            throw std::invalid_argument("row does not fit the value area: " + table);
        PutName(rec.caFieldNames[i], columns[i]);
        std::memcpy(rec.caValues + iOff, value.c_str(), value.size() + 1);
        rec.iaFieldOffset[i] = iOff;
        rec.iaFieldLen[i] = static_cast<int32_t>(value.size());
        iOff += static_cast<int>(value.size()) + 1;
    }
    rec.iRowLen = bRoute ? kRouteColumns * kRouteFieldLen : iOff;
    records_.push_back(rec);
    return *this;
}

TableImage& TableImage::appendRoute(const std::vector<std::string>& values) {
    if (values.size() > static_cast<std::size_t>(kRouteColumns)) throw std::invalid_argument("too many route values");
    std::vector<std::string> columns(g_pcaRouteColumns, g_pcaRouteColumns + kRouteColumns);
    std::vector<std::string> all(values);
    all.resize(kRouteColumns);
    return append("PLAT_STATICROUTEINF", columns, all);
}

TableImage& TableImage::appendVar(const std::string& name, const std::string& value) {
    return append("VARSTABLE", {"VARSNAME", "VARSVALUE"}, {name, value});
}

std::vector<TableRecord> TableImage::image() const {
    std::vector<TableRecord> all(records_);
    all.push_back(TableRecord{});
    return all;
}

bool TableImage::writeTo(int iShmId) const {
    struct shmid_ds info {};
    if (shmctl(iShmId, IPC_STAT, &info) != 0 || info.shm_segsz < imageBytes()) return false;
    void* pvAddr = shmat(iShmId, nullptr, 0);
    if (pvAddr == reinterpret_cast<void*>(-1)) return false;
    std::vector<TableRecord> all = image();
    std::memcpy(pvAddr, all.data(), imageBytes());
    shmdt(pvAddr);
    return true;
}

int TableImage::createShm(IpcKeys& keys, key_t* pKey, std::size_t iExtraBytes) const {
    int iId = keys.newShm(static_cast<int>(imageBytes() + iExtraBytes), pKey);
    if (iId < 0 || !writeTo(iId)) return -1;
    return iId;
}

}  // namespace comptest
