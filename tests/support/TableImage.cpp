#include "TableImage.h"

#include <sys/shm.h>

#include <cstring>
#include <stdexcept>

#include "TestEnv.h"
#include "kit/TableRecordLayout.h"

namespace comptest {

namespace {
constexpr int kRouteColumns = comp::kRouteFields;
}  // namespace

TableImage& TableImage::append(const std::string& table, const std::vector<std::string>& columns,
                               const std::vector<std::string>& values) {
    TableRecord rec;
    std::string why;
    const auto layout = table == "PLAT_STATICROUTEINF" ? kit::RowLayout::kColumns32 : kit::RowLayout::kPacked;
    if (!kit::FillTableRecord(&rec, table, columns, values, layout, &why)) throw std::invalid_argument(why);
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
