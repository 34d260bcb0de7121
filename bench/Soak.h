// The pieces of the soak run that work on text and numbers alone, apart from
// the processes and sockets of the run: the example configuration moved to
// keys and ports of the run's own, the drop lines counted in comp's logs, the
// System V objects of the run's keys, and the rule that calls a series of
// samples flat.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace bench::soak {

// The example's System V keys all start with these digits; a key of the run
// is keyBase + (key - kExampleKeyBase).
constexpr long kExampleKeyBase = 1263096800;

// Replaces every example key in text (a ten-digit word 12630968xx..12630970xx)
// by its key under keyBase.
std::string MoveKeys(std::string_view text, key_t keyBase);
// Replaces every "127.0.0.1:PORT" whose PORT is a key of `ports` by the
// mapped port.
std::string MovePorts(std::string_view text, const std::map<int, int>& ports);
// Takes the "# " off the lines of compkit.cfg that start the station route.
std::string EnableStationRoute(std::string_view kitCfg);
// Sets LOG_LEVEL in app.cfg text.
std::string SetLogLevel(std::string_view appCfg, int level);

// The keys a moved sys.cfg names (the third word of the lines in its
// [QRESOURCE], [SEMRESOURCE] and [SHMRESOURCE] parts).
std::vector<key_t> ConfigKeys(std::string_view sysCfg);

// Lines of one log file that match `pattern`, where a summary "left out N
// identical lines in M ms: <text>" whose text matches counts N more.
uint64_t CountLines(std::string_view logText, std::string_view pattern);

// From a log file name "com_<PROCNAME>_<pid>_<YYYYMMDD>.log" (or ".bak"
// rotations of it), the route of PROCNAME "<short><route>_<instance>";
// -1 when the name is not one.
int RouteOfLogName(std::string_view fileName);

// The System V objects of a set of keys, from /proc/sysvipc/{msg,sem,shm}.
struct IpcSample {
    int queues = 0, semSets = 0, segments = 0;
    uint64_t queuedMessages = 0;   // qnum summed over the queues
    uint64_t queuedBytes = 0;      // cbytes summed
    int objects() const { return queues + semSets + segments; }
};
// Adds what the text of one /proc/sysvipc file holds for `keys`; kind is
// 'm', 's' or 'h' (queues, semaphore sets, segments).
void AddIpc(std::string_view procText, char kind, const std::vector<key_t>& keys, IpcSample* out);
IpcSample SampleIpc(const std::vector<key_t>& keys);

// A series of samples, judged flat when, after the warm-up tenth, the mean
// of the last quarter is within `percent` of the mean of the first quarter
// plus `margin`, and the series does not rise at every step of the last half.
struct Flatness {
    double first = 0, last = 0, max = 0;
    double firstQuarter = 0, lastQuarter = 0;
    bool flat = true;
    std::string why;   // when not flat
};
Flatness JudgeFlat(const std::vector<double>& samples, double percent, double margin);

}  // namespace bench::soak
