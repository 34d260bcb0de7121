// Arbitrary bytes as app.cfg, read from memory by every reader of the file:
// the tagged-part readers on a stream, the key and index lookups, and the
// writer's collection of the lines it puts back.
//
// Input: one byte choosing the part tag, then the file.
#include <stdio.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "base/ByteSource.h"
#include "config/FileOpApp.h"

namespace {

constexpr const char* kTags[] = {"[APPVARS]", "[LOG]", "[", "#"};
constexpr int kValueLen = 128;   // what the lookups' callers give them

// The stream readers split a line longer than their buffer (1,023
// characters), so a file of this many bytes has at most this many parts of
// lines; the readers write one entry per line without a bound of their own.
size_t MaxLines(const char* text, size_t size) {
    size_t n = 2 + size / 1023;
    for (size_t i = 0; i < size; ++i) n += text[i] == '\n';
    return n;
}

template <class Read>
void OnStream(const char* text, size_t size, Read read) {
    FILE* fp = fmemopen(const_cast<char*>(text), size, "r");
    if (fp == nullptr) return;
    read(fp);
    std::fclose(fp);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    namespace app = comp::appcfg;
    compfuzz::KeepLogsSmall();
    if (size < 1) return 0;
    const char* tag = kTags[data[0] % 4];
    const char* text = reinterpret_cast<const char*>(data + 1);
    const size_t len = size - 1;
    const size_t lines = MaxLines(text, len);

    if (len > 0) {   // fmemopen refuses an empty buffer
        auto entries = std::make_unique<AppCfgEntry[]>(lines);
        OnStream(text, len, [&](FILE* fp) { app::ReadAppCfgByTag(fp, tag, entries.get()); });
        auto arr = std::make_unique<AppCfgLine[]>(lines);
        OnStream(text, len, [&](FILE* fp) { app::ReadCfg2Arr(fp, tag, arr.get()); });
    }

    // The lookups' outputs are exactly as large as their callers' buffers.
    auto name = std::make_unique<char[]>(kValueLen);
    auto value = std::make_unique<char[]>(kValueLen);
    {
        comp::MemorySource mem(text, len);
        app::ValueByTagKey(mem.source(), tag, "LOG_LEVEL", value.get());
        if (strnlen(value.get(), kValueLen) == kValueLen) std::abort();
    }
    for (int i = 0; i < 4; ++i) {
        comp::MemorySource mem(text, len);
        if (app::AppVarByIndex(mem.source(), i, name.get(), value.get()) != 1) break;
        if (strnlen(name.get(), kValueLen) == kValueLen || strnlen(value.get(), kValueLen) == kValueLen)
            std::abort();
    }
    {
        comp::MemorySource mem(text, len);
        app::KeptLines kept;
        // Unchanged, what the writer puts back is the file itself (a text
        // file: a NUL ends a last line that has no newline).
        if (app::CollectLines(mem.source(), "LOG_LEVEL", "3", kept) && !kept.bChanged &&
            std::memchr(text, '\0', len) == nullptr) {
            std::string back;
            for (const std::string& l : kept.lines) back += l;
            if (back != std::string(text, len)) std::abort();
        }
    }
    return 0;
}
