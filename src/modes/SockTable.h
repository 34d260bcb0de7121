// The socket table of a mode: one row per descriptor number, of the mode's
// own entry type, with lookups by descriptor and by peer address and walks
// in ascending descriptor order.
//
// An Entry has at least
//   int32_t fd;          -1 marks a free row
//   int32_t port;        peer port
//   char peerIp[16];     peer address as dotted text
//   static void Free(Entry&);   puts a row into the mode's free state
// Rows are opened with Open() and addressed with SetPeer(), which keeps the
// address index; the loop frees a row through FreeRow() when it closes the
// descriptor. The index is built at the first lookup by address and kept from
// then on, so a mode that never looks up by address (TS, TC) pays nothing for
// it on every connection.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "modes/Engine.h"

namespace comp {

template <class Entry>
class SockTable final : public RowOwner {
public:
    SockTable() = default;
    SockTable(const SockTable&) = delete;
    SockTable& operator=(const SockTable&) = delete;

    // iSize rows, all free.
    void Reset(int iSize) {
        rows_.assign(static_cast<size_t>(iSize), Entry{});
        for (Entry& r : rows_) Entry::Free(r);
        addressed_.assign(rows_.size(), false);
        byIp_.clear();
        indexed_ = false;
        high_ = -1;
    }
    void Clear() {
        rows_.clear();
        rows_.shrink_to_fit();
        addressed_.clear();
        byIp_.clear();
        indexed_ = false;
        high_ = -1;
    }

    int Size() const { return static_cast<int>(rows_.size()); }
    bool InRange(int iFd) const { return iFd >= 0 && iFd < Size(); }
    Entry& operator[](int iFd) { return rows_[static_cast<size_t>(iFd)]; }
    const Entry& operator[](int iFd) const { return rows_[static_cast<size_t>(iFd)]; }
    bool IsOpen(int iFd) const { return InRange(iFd) && rows_[iFd].fd >= 0; }
    // Highest row that was opened and not yet freed (-1 when none).
    int High() const { return high_; }

    // Takes row iFd for descriptor iFd.
    Entry& Open(int iFd) {
        Entry& r = rows_[static_cast<size_t>(iFd)];
        r.fd = iFd;
        if (iFd > high_) high_ = iFd;
        return r;
    }
    // Sets the peer of a row and indexes it by address.
    void SetPeer(int iFd, std::string_view ip, int iPort) {
        Entry& r = rows_[static_cast<size_t>(iFd)];
        Unindex(iFd);
        std::memset(r.peerIp, 0, sizeof r.peerIp);
        std::memcpy(r.peerIp, ip.data(), std::min(ip.size(), sizeof r.peerIp));
        r.port = iPort;
        addressed_[static_cast<size_t>(iFd)] = true;
        if (indexed_) byIp_[Key(std::string_view(r.peerIp, sizeof r.peerIp))].insert(iFd);
    }
    void FreeRow(int iFd) override {
        if (!InRange(iFd)) return;
        Unindex(iFd);
        addressed_[static_cast<size_t>(iFd)] = false;
        Entry::Free(rows_[static_cast<size_t>(iFd)]);
        while (high_ >= 0 && rows_[static_cast<size_t>(high_)].fd < 0) --high_;
    }

    // The lowest open row whose peer address is ip (compared over the 16
    // bytes of the field), or -1.
    int FindByIp(std::string_view ip) const {
        BuildIndex();
        auto it = byIp_.find(Key(ip));
        if (it == byIp_.end()) return -1;
        for (int fd : it->second)
            if (rows_[static_cast<size_t>(fd)].fd >= 0) return fd;
        return -1;
    }
    // The lowest open row with that address and port, or -1.
    int FindByIpPort(std::string_view ip, int iPort) const {
        BuildIndex();
        auto it = byIp_.find(Key(ip));
        if (it == byIp_.end()) return -1;
        for (int fd : it->second) {
            const Entry& r = rows_[static_cast<size_t>(fd)];
            if (r.fd >= 0 && r.port == iPort) return fd;
        }
        return -1;
    }

    // Calls f(fd, row) for every open row in ascending order; f may free the
    // row it is given.
    template <class F>
    void ForEachOpen(F&& f) {
        for (int fd = 0; fd <= high_ && fd < Size(); ++fd)
            if (rows_[static_cast<size_t>(fd)].fd >= 0) f(fd, rows_[static_cast<size_t>(fd)]);
    }

private:
    // The address text as the 16-byte field holds it.
    static std::string Key(std::string_view ip) {
        size_t n = 0;
        while (n < ip.size() && n < 16 && ip[n] != '\0') ++n;
        return std::string(ip.substr(0, n));
    }
    // Indexes every row addressed through SetPeer and not freed since.
    void BuildIndex() const {
        if (indexed_) return;
        for (size_t fd = 0; fd < rows_.size(); ++fd) {
            if (!addressed_[fd]) continue;
            const Entry& r = rows_[fd];
            byIp_[Key(std::string_view(r.peerIp, sizeof r.peerIp))].insert(static_cast<int>(fd));
        }
        indexed_ = true;
    }
    void Unindex(int iFd) {
        if (!indexed_) return;
        const Entry& r = rows_[static_cast<size_t>(iFd)];
        auto it = byIp_.find(Key(std::string_view(r.peerIp, sizeof r.peerIp)));
        if (it == byIp_.end()) return;
        it->second.erase(iFd);
        if (it->second.empty()) byIp_.erase(it);
    }

    std::vector<Entry> rows_;
    std::vector<bool> addressed_;   // by row: addressed through SetPeer
    // The address index and whether it is built yet; lookups build it.
    mutable std::map<std::string, std::set<int>, std::less<>> byIp_;
    mutable bool indexed_ = false;
    int high_ = -1;
};

}  // namespace comp
