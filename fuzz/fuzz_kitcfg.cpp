// The compkit configuration files from arbitrary bytes.
//
// Input: one byte choosing the reader, then the text:
//   0  compkit.cfg (ParseKitConfig), its routes then looked up as the
//      router and the supervisor look them up
//   1  tables.cfg (ParseTablesCfg), laid out as the segment image
//   2  a framing rule "HEADERLEN,OFFSET,WIDTH,TYPE[,INTEL[,ADJUST]]"; a rule
//      that holds is used to frame a body and to cut it back out
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "kit/Framing.h"
#include "kit/KitConfig.h"
#include "kit/TablesCfg.h"

namespace {

void KitCfg(std::string_view text) {
    kit::KitConfig cfg;
    std::string why;
    if (!kit::ParseKitConfig(text, "compkit.cfg", &cfg, &why)) {
        if (why.empty()) std::abort();
        return;
    }
    for (const kit::RouteCfg& r : cfg.routes) {
        if (cfg.findRoute(r.id) == nullptr || r.mode == nullptr) std::abort();
        cfg.relaySourceOf(r.id);
    }
}

void TablesCfg(std::string_view text) {
    std::vector<kit::KitTable> tables;
    std::string why;
    if (!kit::ParseTablesCfg(text, "tables.cfg", &tables, &why)) {
        if (why.empty()) std::abort();
        return;
    }
    for (const kit::KitTable& t : tables)
        for (const auto& row : t.rows)
            if (row.size() > static_cast<size_t>(kit::kMaxColumns)) std::abort();
    const std::vector<TableRecord> image = kit::BuildTableImage(tables);
    if (image.size() * sizeof(TableRecord) != kit::TableImageBytes(tables)) std::abort();
}

void FramingRule(std::string_view text) {
    std::string why;
    const auto f = kit::Framing::Parse(text, &why);
    if (!f) return;
    const std::string body(std::min<size_t>(text.size(), 300), 'b');
    if (!f->valid(&why) || !f->fits(body.size(), &why)) return;
    const std::vector<char> msg = f->encode(body, text);
    if (f->bodyLength(msg.data()) != static_cast<long>(body.size())) std::abort();
    kit::FrameReader reader(*f);
    reader.feed(msg.data(), msg.size());
    bool bad = false;
    const auto back = reader.next(&bad);
    if (bad || !back || *back != msg) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
    switch (data[0] % 3) {
    case 0: KitCfg(text); break;
    case 1: TablesCfg(text); break;
    default: FramingRule(text); break;
    }
    return 0;
}
