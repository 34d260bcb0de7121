// The source name that every report line carries in its "[%s,%d]" (or
// "[%s:%s:%d]", "[%s][%d]") slot. Operators search the logs by these names,
// so the slot names the source a routine belongs to on the platform, not the
// file of comp's tree it happens to be written in:
//
//   files under comp/     SysComPub (start-up and quit, route row, framing,
//                         platform messages, plug-in hooks)
//   modes/SysTCPxx.cpp    SysTCPxx, the mode itself
//   other files of modes/ the running mode (the loop and the helpers the
//                         modes share run on its behalf); before a mode runs,
//                         the file's own name
//   every other file      the file's name without its extension
//
// A routine that belongs to another source than its file's (the two FIFO
// clean-up routines of SysFIFO, which are SysRscApp's) writes that name
// itself.
#pragma once

#include <cstddef>
#include <string_view>

namespace comp::log {

struct SourceLabel {
    char caName[32];
    bool bRunningMode;   // print the running mode's name when one is set
};

namespace detail {
constexpr SourceLabel Label(std::string_view name, bool bRunningMode) {
    SourceLabel l{};
    for (std::size_t i = 0; i < name.size() && i + 1 < sizeof l.caName; ++i) l.caName[i] = name[i];
    l.bRunningMode = bRunningMode;
    return l;
}
}  // namespace detail

// The label of a source file, from its path (__FILE__).
constexpr SourceLabel LabelOf(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    const std::string_view file = slash == std::string_view::npos ? path : path.substr(slash + 1);
    std::string_view dir = slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
    if (const std::size_t up = dir.rfind('/'); up != std::string_view::npos) dir = dir.substr(up + 1);
    const std::string_view stem = file.substr(0, file.find('.'));
    if (dir == "comp") return detail::Label("SysComPub", false);
    if (dir == "modes" && stem.substr(0, 6) != "SysTCP") return detail::Label(stem, true);
    return detail::Label(stem, false);
}

// The running mode's name (argv[1]), set by the process entry once it has
// found the mode; pcFallback while none is set.
void SetRunningMode(const char* pcMode);
const char* RunningModeOr(const char* pcFallback);

}  // namespace comp::log

// The source name of the file this expands in, for the report lines.
#define SRC_NAME                                                                                        \
    ([]() noexcept -> const char* {                                                                     \
        static constexpr ::comp::log::SourceLabel kSrcLabel = ::comp::log::LabelOf(__FILE__);           \
        return kSrcLabel.bRunningMode ? ::comp::log::RunningModeOr(kSrcLabel.caName) : kSrcLabel.caName; \
    }())
