// Fault matrix: each fault (a system call failing through COMP_FAULTS, or an
// event the test causes: a removed semaphore set or FIFO, a killed registry
// lock holder) hits a mode while it carries traffic. Each cell checks the
// reaction the mode is meant to have, that the process then serves the next
// exchange (unless it is meant to quit, then that it quit through its
// clean-up), and that descriptors and registry nodes are back where they
// were. The short cells run in every test run; the whole grid runs with
// COMP_FAULT_MATRIX=1 (scripts/fault-matrix.sh, `make fault-matrix`), which
// also writes one result line per cell to COMP_FAULT_MATRIX_OUT.
#include <signal.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "FwLinkPeer.h"
#include "ModeFixture.h"
#include "SynModeTest.h"
#include "kit/SynPeers.h"
#include "StationTest.h"
#include "kit/KitUtil.h"
#include "kit/Router.h"
#include "kit/RouteStatus.h"

namespace {

namespace fs = std::filesystem;
using comptest::Frame;
namespace fw = comp::fw;

enum class Mode {
    kTs, kTc, kPs,
    // PC, PAS, PCSYN, PASSYN
    kPc, kPas, kPcsyn, kPassyn,
    // the forwarder pair
    kFwb, kFws,
    // the station link
    kVantrel,
};
enum class Fault {
    kMsgSndFull, kMsgSndRemoved, kMsgRcv, kShmAt, kSemRemoved, kSemHolderKilled, kFifoRemoved,
    kAcceptEmfile, kAcceptEnfile, kAcceptAborted, kSendPipe, kSendReset, kLogFull
};
// What the mode does about the fault.
enum class Reaction { kQuit, kClose, kDrop, kServeOn, kRefuse, kStartFails, kNa };

const char* ModeName(Mode m) {
    switch (m) {
        case Mode::kTs: return "TS";
        case Mode::kTc: return "TC";
        case Mode::kPs: return "PS";
        // PC, PAS, PCSYN, PASSYN
        case Mode::kPc: return "PC";
        case Mode::kPas: return "PAS";
        case Mode::kPcsyn: return "PCSYN";
        case Mode::kPassyn: return "PASSYN";
        // the forwarder pair
        case Mode::kFwb: return "FWB";
        case Mode::kFws: return "FWS";
        // the station link
        case Mode::kVantrel: return "VANTREL";
    }
    return "?";
}
const char* FaultName(Fault f) {
    constexpr const char* kNames[] = {
        "msgsnd EAGAIN (queue full)", "msgsnd EIDRM (queue removed)", "msgrcv EIDRM", "shmat ENOMEM",
        "registry semaphore set removed", "registry lock holder killed", "notification FIFO removed",
        "accept EMFILE", "accept ENFILE", "accept ECONNABORTED", "send EPIPE", "send ECONNRESET",
        "log write ENOSPC (disk full)"};
    return kNames[static_cast<int>(f)];
}
const char* ReactionText(Reaction r) {
    switch (r) {
        case Reaction::kQuit: return "quits through its clean-up";
        case Reaction::kClose: return "closes that connection, serves on";
        case Reaction::kDrop: return "drops that message, serves on";
        case Reaction::kServeOn: return "logs, serves on";
        case Reaction::kRefuse: return "refuses each connection, stays up";
        case Reaction::kStartFails: return "ends at start, before its logon";
        case Reaction::kNa: return "n/a";
    }
    return "?";
}

// One cell: the fault as COMP_FAULTS gives it (empty for events the test
// causes), the reaction and the log text that shows it, or why it does not
// apply. The call numbers count from the start of the process and land on
// the second exchange after start (the first one opens what the process
// keeps, so leaks are counted from after it).
struct Cell {
    Mode mode;
    Fault fault;
    const char* faults;
    Reaction expect;
    const char* line;
};

constexpr int kTsRoute = 10, kTcRoute = 20, kPsRoute = 31;
// PC, PAS, PCSYN, PASSYN
constexpr int kPcRoute = 30, kPasRoute = 40, kPcsynRoute = 50, kPassynRoute = 51;
constexpr int kFwbRoute = 60, kFwsRoute = 61;

// clang-format off
const std::vector<Cell> kCells = {
    // TS: request to TranP (msgsnd 2 and 3), answer read (msgrcv), answer sent (send).
    {Mode::kTs, Fault::kMsgSndFull,      "msgsnd:3:EAGAIN",    Reaction::kQuit,    "SysWriteQueue error.errno=11"},
    {Mode::kTs, Fault::kMsgSndRemoved,   "msgsnd:3:EIDRM",     Reaction::kQuit,    "SysWriteQueue error.errno=43"},
    {Mode::kTs, Fault::kMsgRcv,          "msgrcv:2:EIDRM",     Reaction::kQuit,    "SysResponseWork,errno="},
    {Mode::kTs, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kTs, Fault::kSemRemoved,      "",                   Reaction::kRefuse,  "cannot be taken"},
    {Mode::kTs, Fault::kSemHolderKilled, "",                   Reaction::kServeOn, ""},
    {Mode::kTs, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kTs, Fault::kAcceptEmfile,    "accept:2:EMFILE",    Reaction::kServeOn, "no descriptor for a new connection.errno=24"},
    {Mode::kTs, Fault::kAcceptEnfile,    "accept:2:ENFILE",    Reaction::kServeOn, "no descriptor for a new connection.errno=23"},
    {Mode::kTs, Fault::kAcceptAborted,   "accept:2:ECONNABORTED", Reaction::kServeOn, "iSockAccept error.errno=103"},
    {Mode::kTs, Fault::kSendPipe,        "send:2:EPIPE",       Reaction::kClose,   "iSockSend error [32]"},
    {Mode::kTs, Fault::kSendReset,       "send:2:ECONNRESET",  Reaction::kClose,   "iSockSend error [104]"},
    {Mode::kTs, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // TC: request read (msgrcv), sent to the server (send), answer to TranP (msgsnd 2 and 3).
    {Mode::kTc, Fault::kMsgSndFull,      "msgsnd:3:EAGAIN",    Reaction::kDrop,    "SysWriteQueue error.errno=11"},
    {Mode::kTc, Fault::kMsgSndRemoved,   "msgsnd:3:EIDRM",     Reaction::kDrop,    "SysWriteQueue error.errno=43"},
    {Mode::kTc, Fault::kMsgRcv,          "msgrcv:2:EIDRM",     Reaction::kQuit,    "SysTmpClientReq"},
    {Mode::kTc, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kTc, Fault::kSemRemoved,      nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kTc, Fault::kSemHolderKilled, nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kTc, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kTc, Fault::kAcceptEmfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kTc, Fault::kAcceptEnfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kTc, Fault::kAcceptAborted,   nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kTc, Fault::kSendPipe,        "send:2:EPIPE",       Reaction::kClose,   "iSockSend error [32]"},
    {Mode::kTc, Fault::kSendReset,       "send:2:ECONNRESET",  Reaction::kClose,   "iSockSend error [104]"},
    {Mode::kTc, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // PS: code 9 to Commonp (msgsnd 2 and 3), TranP's message read (msgrcv) and sent (send).
    {Mode::kPs, Fault::kMsgSndFull,      "msgsnd:3:EAGAIN",    Reaction::kQuit,    "SysTellCommonp error"},
    {Mode::kPs, Fault::kMsgSndRemoved,   "msgsnd:3:EIDRM",     Reaction::kQuit,    "SysTellCommonp error"},
    {Mode::kPs, Fault::kMsgRcv,          "msgrcv:2:EIDRM",     Reaction::kQuit,    "SysSendMsg,errno="},
    {Mode::kPs, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kPs, Fault::kSemRemoved,      nullptr,              Reaction::kNa,      "PS keeps no registry entries"},
    {Mode::kPs, Fault::kSemHolderKilled, nullptr,              Reaction::kNa,      "PS keeps no registry entries"},
    {Mode::kPs, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kPs, Fault::kAcceptEmfile,    "accept:2:EMFILE",    Reaction::kServeOn, "iSockAccept error.errno=24"},
    {Mode::kPs, Fault::kAcceptEnfile,    "accept:2:ENFILE",    Reaction::kServeOn, "iSockAccept error.errno=23"},
    {Mode::kPs, Fault::kAcceptAborted,   "accept:2:ECONNABORTED", Reaction::kServeOn, "iSockAccept error.errno=103"},
    {Mode::kPs, Fault::kSendPipe,        "send:2:EPIPE",       Reaction::kClose,   "iSockSend error [32]"},
    {Mode::kPs, Fault::kSendReset,       "send:2:ECONNRESET",  Reaction::kClose,   "iSockSend error [104]"},
    {Mode::kPs, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // PC: TranP's message read (msgrcv) and sent on the kept link (send), the
    // server's answer to TranP (msgsnd 4, after the logon and the link's N001).
    {Mode::kPc, Fault::kMsgSndFull,      "msgsnd:4:EAGAIN",    Reaction::kQuit,    "SysWriteMQ error.errno=11"},
    {Mode::kPc, Fault::kMsgSndRemoved,   "msgsnd:4:EIDRM",     Reaction::kQuit,    "SysWriteMQ error.errno=43"},
    {Mode::kPc, Fault::kMsgRcv,          "msgrcv:2:EIDRM",     Reaction::kQuit,    "SysSendMsg error.errno="},
    {Mode::kPc, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kPc, Fault::kSemRemoved,      nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kPc, Fault::kSemHolderKilled, nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kPc, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kPc, Fault::kAcceptEmfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kPc, Fault::kAcceptEnfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kPc, Fault::kAcceptAborted,   nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kPc, Fault::kSendPipe,        "send:2:EPIPE",       Reaction::kClose,   "iSockSend error.errno=32"},
    {Mode::kPc, Fault::kSendReset,       "send:2:ECONNRESET",  Reaction::kClose,   "iSockSend error.errno=104"},
    {Mode::kPc, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // PAS: a client taken on "0" (code 9 to Commonp, N001), its message to
    // TranP (msgsnd 8), TranP's answer read (msgrcv) and sent (send).
    {Mode::kPas, Fault::kMsgSndFull,      "msgsnd:8:EAGAIN",    Reaction::kDrop,    "SSysWriteQueueNoWait error.errno=11"},
    {Mode::kPas, Fault::kMsgSndRemoved,   "msgsnd:8:EIDRM",     Reaction::kDrop,    "SSysWriteQueueNoWait error.errno=43"},
    {Mode::kPas, Fault::kMsgRcv,          "msgrcv:2:EIDRM",     Reaction::kQuit,    "SysReadPlatMsg queue ["},
    {Mode::kPas, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kPas, Fault::kSemRemoved,      "",                   Reaction::kQuit,    "SysCheckIP fatal error"},
    {Mode::kPas, Fault::kSemHolderKilled, "",                   Reaction::kServeOn, ""},
    {Mode::kPas, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kPas, Fault::kAcceptEmfile,    "accept:2:EMFILE",    Reaction::kServeOn, "iSockAccept error.errno=24"},
    {Mode::kPas, Fault::kAcceptEnfile,    "accept:2:ENFILE",    Reaction::kServeOn, "iSockAccept error.errno=23"},
    {Mode::kPas, Fault::kAcceptAborted,   "accept:2:ECONNABORTED", Reaction::kServeOn, "iSockAccept error.errno=103"},
    {Mode::kPas, Fault::kSendPipe,        "send:2:EPIPE",       Reaction::kClose,   "iSockSend error.errno 32"},
    {Mode::kPas, Fault::kSendReset,       "send:2:ECONNRESET",  Reaction::kClose,   "iSockSend error.errno 104"},
    {Mode::kPas, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // PCSYN: the server's poll takes TranP's frame from the queue (msgrcv)
    // and is answered (send); its data frame goes to TranP (msgsnd 4).
    {Mode::kPcsyn, Fault::kMsgSndFull,      "msgsnd:4:EAGAIN",    Reaction::kQuit,    "SysWriteMQ error.errno=11"},
    {Mode::kPcsyn, Fault::kMsgSndRemoved,   "msgsnd:4:EIDRM",     Reaction::kQuit,    "SysWriteMQ error.errno=43"},
    {Mode::kPcsyn, Fault::kMsgRcv,          "msgrcv:3:EIDRM",     Reaction::kQuit,    "SysGetAndSendTaskMsg error"},
    {Mode::kPcsyn, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kPcsyn, Fault::kSemRemoved,      nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kPcsyn, Fault::kSemHolderKilled, nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kPcsyn, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kPcsyn, Fault::kAcceptEmfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kPcsyn, Fault::kAcceptEnfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kPcsyn, Fault::kAcceptAborted,   nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kPcsyn, Fault::kSendPipe,        "send:3:EPIPE",       Reaction::kClose,   "iSockSend error.errno=32"},
    {Mode::kPcsyn, Fault::kSendReset,       "send:3:ECONNRESET",  Reaction::kClose,   "iSockSend error.errno=104"},
    {Mode::kPcsyn, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // PASSYN: a client taken on "0" (code 9, N001, first poll sent), its data
    // frame to TranP (msgsnd 10), TranP's task read (msgrcv) into the task
    // queue and read from there (msgrcv) as the answer to the next frame.
    {Mode::kPassyn, Fault::kMsgSndFull,      "msgsnd:10:EAGAIN",   Reaction::kQuit,    "SysWriteQueue error.errno=11"},
    {Mode::kPassyn, Fault::kMsgSndRemoved,   "msgsnd:10:EIDRM",    Reaction::kQuit,    "SysWriteQueue error.errno=43"},
    {Mode::kPassyn, Fault::kMsgRcv,          "msgrcv:4:EIDRM",     Reaction::kQuit,    "Read Task queue error"},
    {Mode::kPassyn, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kPassyn, Fault::kSemRemoved,      "",                   Reaction::kRefuse,  "SysRegConnection error"},
    {Mode::kPassyn, Fault::kSemHolderKilled, "",                   Reaction::kServeOn, ""},
    {Mode::kPassyn, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kPassyn, Fault::kAcceptEmfile,    "accept:2:EMFILE",    Reaction::kServeOn, "iSockAccept error.errno=24"},
    {Mode::kPassyn, Fault::kAcceptEnfile,    "accept:2:ENFILE",    Reaction::kServeOn, "iSockAccept error.errno=23"},
    {Mode::kPassyn, Fault::kAcceptAborted,   "accept:2:ECONNABORTED", Reaction::kServeOn, "iSockAccept error.errno=103"},
    {Mode::kPassyn, Fault::kSendPipe,        "send:4:EPIPE",       Reaction::kClose,   "write to net error.errno 32"},
    {Mode::kPassyn, Fault::kSendReset,       "send:4:ECONNRESET",  Reaction::kClose,   "write to net error.errno 104"},
    {Mode::kPassyn, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // the forwarder pair
    // FWB: code 9 to Commonp (msgsnd 2 and 3), the client's answer sent (send).
    {Mode::kFwb, Fault::kMsgSndFull,      "msgsnd:3:EAGAIN",    Reaction::kQuit,    "SysTellCommonp error"},
    {Mode::kFwb, Fault::kMsgSndRemoved,   "msgsnd:3:EIDRM",     Reaction::kQuit,    "SysTellCommonp error"},
    {Mode::kFwb, Fault::kMsgRcv,          nullptr,              Reaction::kNa,      "FWB reads no queue: answers come over its link"},
    {Mode::kFwb, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kFwb, Fault::kSemRemoved,      "",                   Reaction::kRefuse,  "cannot be taken"},
    {Mode::kFwb, Fault::kSemHolderKilled, "",                   Reaction::kServeOn, ""},
    {Mode::kFwb, Fault::kFifoRemoved,     nullptr,              Reaction::kNa,      "FWB has no notification FIFO"},
    {Mode::kFwb, Fault::kAcceptEmfile,    "accept:2:EMFILE",    Reaction::kServeOn, "iSockAccept error.errno=24"},
    {Mode::kFwb, Fault::kAcceptEnfile,    "accept:2:ENFILE",    Reaction::kServeOn, "iSockAccept error.errno=23"},
    {Mode::kFwb, Fault::kAcceptAborted,   "accept:2:ECONNABORTED", Reaction::kServeOn, "iSockAccept error.errno=103"},
    {Mode::kFwb, Fault::kSendPipe,        "send:7:EPIPE",       Reaction::kClose,   "iSockSend error.errno=32"},
    {Mode::kFwb, Fault::kSendReset,       "send:7:ECONNRESET",  Reaction::kClose,   "iSockSend error.errno=104"},
    {Mode::kFwb, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // FWS: code 9, N001, the client's message to TranP (msgsnd 6 to 8),
    // TranP's answer read (msgrcv) and sent on the link (send).
    {Mode::kFws, Fault::kMsgSndFull,      "msgsnd:8:EAGAIN",    Reaction::kQuit,    "SysWriteQueue error.errno=11"},
    {Mode::kFws, Fault::kMsgSndRemoved,   "msgsnd:8:EIDRM",     Reaction::kQuit,    "SysWriteQueue error.errno=43"},
    {Mode::kFws, Fault::kMsgRcv,          "msgrcv:2:EIDRM",     Reaction::kQuit,    "SysReadPlatMsg queue"},
    {Mode::kFws, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kFws, Fault::kSemRemoved,      "",                   Reaction::kRefuse,  "cannot be taken"},
    {Mode::kFws, Fault::kSemHolderKilled, "",                   Reaction::kServeOn, ""},
    {Mode::kFws, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kFws, Fault::kAcceptEmfile,    "accept:2:EMFILE",    Reaction::kServeOn, "iSockAccept error.errno=24"},
    {Mode::kFws, Fault::kAcceptEnfile,    "accept:2:ENFILE",    Reaction::kServeOn, "iSockAccept error.errno=23"},
    {Mode::kFws, Fault::kAcceptAborted,   "accept:2:ECONNABORTED", Reaction::kServeOn, "iSockAccept error.errno=103"},
    {Mode::kFws, Fault::kSendPipe,        "send:2:EPIPE",       Reaction::kClose,   "iSockSend error.errno 32"},
    {Mode::kFws, Fault::kSendReset,       "send:2:ECONNRESET",  Reaction::kClose,   "iSockSend error.errno 104"},
    {Mode::kFws, Fault::kLogFull,         "logwrite:30:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
    // the station link
    // VANTREL: the peer's frame to TranP (msgsnd), TranP's frame read
    // (msgrcv) and sent to the peer (send).
    {Mode::kVantrel, Fault::kMsgSndFull,      "msgsnd:10:EAGAIN",   Reaction::kDrop,    "SysWriteMQ error.errno=11"},
    {Mode::kVantrel, Fault::kMsgSndRemoved,   "msgsnd:10:EIDRM",    Reaction::kDrop,    "SysWriteMQ error.errno=43"},
    {Mode::kVantrel, Fault::kMsgRcv,          "msgrcv:5:EIDRM",     Reaction::kQuit,    "SysSaveMsg error"},
    {Mode::kVantrel, Fault::kShmAt,           "shmat:1:ENOMEM",     Reaction::kStartFails, "SysComInit error"},
    {Mode::kVantrel, Fault::kSemRemoved,      nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kVantrel, Fault::kSemHolderKilled, nullptr,              Reaction::kNa,      "a client mode keeps no registry entries"},
    {Mode::kVantrel, Fault::kFifoRemoved,     "",                   Reaction::kServeOn, "was removed; made it again"},
    {Mode::kVantrel, Fault::kAcceptEmfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kVantrel, Fault::kAcceptEnfile,    nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kVantrel, Fault::kAcceptAborted,   nullptr,              Reaction::kNa,      "a client mode has no listener"},
    {Mode::kVantrel, Fault::kSendPipe,        "send:11:EPIPE",      Reaction::kClose,   "iSockSend error.errno=32"},
    {Mode::kVantrel, Fault::kSendReset,       "send:11:ECONNRESET", Reaction::kClose,   "iSockSend error.errno=104"},
    {Mode::kVantrel, Fault::kLogFull,         "logwrite:60:ENOSPC:-1", Reaction::kServeOn, "fault seam: logwrite"},
};
// clang-format on

// gtest prints a parameter with its test's name.
void PrintTo(const Cell& cell, std::ostream* os) { *os << ModeName(cell.mode) << ", " << FaultName(cell.fault); }

bool WholeGrid() {
    const char* v = std::getenv("COMP_FAULT_MATRIX");
    return v != nullptr && *v == '1';
}
std::vector<Cell> Pick(std::initializer_list<std::pair<Mode, Fault>> which) {
    std::vector<Cell> out;
    for (auto [m, f] : which)
        for (const Cell& c : kCells)
            if (c.mode == m && c.fault == f) out.push_back(c);
    return out;
}
// One mode per fault, the kinds whose reactions differ most.
std::vector<Cell> ShortCells() {
    if (WholeGrid()) return {};
    return Pick({{Mode::kTs, Fault::kMsgSndRemoved}, {Mode::kTc, Fault::kMsgSndFull},
                 {Mode::kTs, Fault::kSemHolderKilled}, {Mode::kPs, Fault::kAcceptEmfile},
                 {Mode::kPs, Fault::kSendReset}});
}
std::vector<Cell> GridCells() { return WholeGrid() ? kCells : std::vector<Cell>{}; }

// comp's descriptors, less the log files it holds open only while it writes
// one entry.
int CountFds(pid_t p) {
    int n = 0;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/proc/" + std::to_string(p) + "/fd", ec))
        n += fs::read_symlink(e.path(), ec).string().find("/log/") == std::string::npos;
    return n;
}

class FaultCell : public comptest::StationTest, public ::testing::WithParamInterface<Cell> {
protected:
    void TearDown() override {
        if (holder_ > 0) {
            kill(holder_, SIGKILL);
            waitpid(holder_, nullptr, 0);
        }
        // PASSYN removes its task queue on its quit path, not on the
        // fixture's SIGTERM; a queue it could not remove is removed here.
        if (GetParam().mode == Mode::kPassyn && pid > 0) {
            if (WaitComp(c, 0) == -1) {
                Control('x');
                WaitComp(c, 3000);
            }
            if (TaskQueue() >= 0) msgctl(TaskQueue(), IPC_RMID, nullptr);
        }
        comptest::StationTest::TearDown();
        Record();
    }

    // The process's logs with the connection logs (PAS writes a connection's
    // failures there); hides the fixture's versions that read the logs only.
    std::string Logs() const {
        std::string all = AllLogs();
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(run.file("runs/log"), ec))
            all += comptest::ReadFile(e.path().string());
        return all;
    }
    int LogCount(const std::string& text) const { return Occurrences(Logs(), text); }
    bool AwaitLog(const std::string& text, int count = 1, int ms = 5000) const {
        return AwaitCount([&] { return Logs(); }, text, count, ms);
    }

    // ---- the modes' traffic ----------------------------------------------------

    void Start(const Cell& cell) {
        if (cell.faults != nullptr && cell.faults[0] != '\0') compEnv.push_back(std::string("COMP_FAULTS=") + cell.faults);
        switch (cell.mode) {
            case Mode::kTs:
                port_ = comptest::FreeLoopbackPort();
                StartMode("SysTCPTS", comptest::MakeRouteRow(kTsRoute, "127.0.0.1:" + std::to_string(port_), "0"), {},
                          "Begin Working");
                notify_ = "1_" + std::to_string(pid);
                break;
            case Mode::kTc:
                server_ = comptest::Listen(&port_);
                StartMode("SysTCPTC", comptest::MakeRouteRow(kTcRoute, "127.0.0.1:" + std::to_string(port_), "1"), {},
                          "Begin Working");
                notify_ = "2_20_1";
                break;
            case Mode::kPs:
                OpenSharedListener();
                StartMode("SysTCPPS", comptest::MakeRouteRow(kPsRoute, "", "0"), {}, "][SysTCPPS]");
                notify_ = "1_" + std::to_string(pid);
                break;
            // PC, PAS, PCSYN, PASSYN
            case Mode::kPc: {
                server_ = comptest::Listen(&port_);
                comptest::RouteRow row =
                    comptest::MakeRouteRow(kPcRoute, "127.0.0.1:" + std::to_string(port_), "1");
                row["RECONNINTERVAL"] = "1";
                row["BEATSWITCH"] = "0";
                StartMode("SysTCPPC", row, {}, "Begin Working");
                notify_ = "2_30_1";
                break;
            }
            case Mode::kPas: {
                OpenSharedListener();
                comptest::RouteRow row =
                    comptest::MakeRouteRow(kPasRoute, "127.0.0.1:" + std::to_string(sharedPort), "0");
                row["BEATSWITCH"] = "0";
                StartMode("SysTCPPAS", row, {}, "TCPPAS working");
                notify_ = "1_" + std::to_string(pid);
                break;
            }
            // PCSYN waits 25 s before its first connect and 5 s between
            // attempts: it runs on a clock fifty times as fast.
            case Mode::kPcsyn: {
                const std::vector<std::string> fast = FastClock(50);
                if (fast.empty()) GTEST_SKIP() << "libfaketime is not installed (Debian package faketime)";
                compEnv.insert(compEnv.end(), fast.begin(), fast.end());
                server_ = comptest::Listen(&port_);
                comptest::RouteRow row =
                    comptest::MakeRouteRow(kPcsynRoute, "127.0.0.1:" + std::to_string(port_), "1");
                for (const auto& [k, v] : comptest::SynRouteColumns()) row[k] = v;
                row["IDLETIMEOUT"] = "3000";
                StartMode("SysTCPPCSYN", row, {}, "Begin Working");
                notify_ = "2_50_1";
                break;
            }
            // Heartbeats off: tasks go out only as answers.
            case Mode::kPassyn: {
                OpenSharedListener();
                comptest::RouteRow row = comptest::MakeRouteRow(kPassynRoute, "-1", "0");
                for (const auto& [k, v] : comptest::SynRouteColumns()) row[k] = v;
                row["BEATSWITCH"] = "0";
                StartMode("SysTCPPASSYN", row, {}, "Begin Working");
                notify_ = "1_" + std::to_string(pid);
                break;
            }
            // the forwarder pair
            case Mode::kFwb: {
                server_ = comptest::Listen(&port_);
                OpenSharedListener();
                appVars = {{"FTPSERVER", "ftp.example.internal"}, {"FTPUSER", "user"}, {"FTPPWD", "pw"}};
                comptest::RouteRow row =
                    comptest::MakeRouteRow(kFwbRoute, "127.0.0.1:" + std::to_string(sharedPort), "0");
                row["IPPORTUPPER"] = "127.0.0.1:" + std::to_string(port_);
                StartMode("SysTCPFWB", row, {}, "Begin Working");
                link_ = comptest::Accept(server_.get(), 5000);
                break;
            }
            case Mode::kFws:
                OpenSharedListener();
                StartMode("SysTCPFWS",
                          comptest::MakeRouteRow(kFwsRoute, "127.0.0.1:" + std::to_string(sharedPort), "0"), {},
                          "Begin Working");
                notify_ = "1_" + std::to_string(pid);
                break;
            // the station link
            case Mode::kVantrel:
                StartStation();
                if (awaitReady) LinkUp();
                notify_ = "1_" + std::to_string(pid);
                break;
        }
    }

    // What one exchange came to.
    struct Round {
        bool reachedTranp = false;   // the request (TS) or answer (TC) came to queue 7, or
                                     // the client's message to the far end of the link (FWB)
        bool delivered = false;      // the peer got what was meant for it
        bool peerClosed = false;     // comp closed the peer's connection
        explicit operator bool() const { return delivered; }
    };
    // One whole exchange of the mode; time-outs short enough for a failed one.
    Round Exchange(Mode m, const std::string& body) {
        switch (m) {
            case Mode::kTs: return TsExchange(body);
            case Mode::kTc: return TcExchange(body);
            case Mode::kPs: return PsExchange(body);
            // PC, PAS, PCSYN, PASSYN
            case Mode::kPc: return PcExchange(body);
            case Mode::kPas: return PasExchange(body);
            case Mode::kPcsyn: return PcsynExchange(body);
            case Mode::kPassyn: return PassynExchange(body);
            // the forwarder pair
            case Mode::kFwb: return FwbExchange(body);
            case Mode::kFws: return FwsExchange(body);
            // the station link
            case Mode::kVantrel: return VtExchange(body);
        }
        return {};
    }
    Round TsExchange(const std::string& body) {
        Round r;
        comp::UniqueFd s = comptest::Connect(port_);
        if (!comptest::Send(s.get(), Frame(body))) return r;
        const int len = ReadToTranp(buf.get(), pid, 3000);
        r.reachedTranp = len >= comp::kPlatHdrLen;
        if (r.reachedTranp) {
            std::vector<char> text;
            const std::string reply = Frame("re:" + body);
            EXPECT_TRUE(kit::BuildAnswer(kit::AnswerForm::kTsPeerIpAt24, buf->caText, reply.data(),
                                         static_cast<int>(reply.size()), &text));
            DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), text);
        }
        const std::string got = comptest::ReadUntilClose(s.get(), 3000, &r.peerClosed);
        r.delivered = got == Frame("re:" + body);
        return r;
    }
    Round TcExchange(const std::string& body) {
        Round r;
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size() + 4), 0, 0, 4242, 0, 0, 0, 9, 0, {}, {}, 0, {}};
        const std::string text = h.bytes() + Frame(body);
        DeliverToComp(kTcRoute, comp::kFifoRouteNotify, "20_1", {text.begin(), text.end()});
        comp::UniqueFd conn = comptest::Accept(server_.get(), 3000);
        if (!conn.valid()) return r;
        if (comptest::ReadFrame(conn.get(), 1000) == Frame(body)) comptest::Send(conn.get(), Frame("re:" + body));
        const int len = ReadToTranp(buf.get(), pid, 2000);
        r.reachedTranp = r.delivered =
            len > comp::kPlatHdrLen && std::string(buf->caText + comp::kPlatHdrLen, len - comp::kPlatHdrLen) ==
                                           Frame("re:" + body);
        comptest::ReadUntilClose(conn.get(), 2000, &r.peerClosed);
        return r;
    }
    // Clients waiting on the shared listener to be taken (the accept queue's
    // length, which Linux gives for a listening socket as tcpi_unacked).
    int Waiting() const {
        tcp_info info{};
        socklen_t len = sizeof info;
        return getsockopt(sharedListener.get(), IPPROTO_TCP, TCP_INFO, &info, &len) == 0 ? info.tcpi_unacked : -1;
    }
    // Wakes the process on the shared listener until it took the waiting
    // client: a failed accept leaves the client waiting for the next command.
    // Told by the listener, not the logs (they may be failing). False when
    // the client was not taken (or the process ended).
    bool WakeUntilTaken() {
        for (int tries = 0; tries < 20; ++tries) {
            Wake(0);
            if (ReadCommonp(buf.get(), comp::kCommonpAccepted, tries == 0 ? 3000 : 1000) <= 0) return false;
            for (const int64_t end = kit::NowMs() + 300; Waiting() != 0 && kit::NowMs() < end;) kit::SleepMs(5);
            if (Waiting() == 0) return true;
            if (WaitComp(c, 0) != -1) return false;
        }
        return false;
    }
    // The next data message for TranP (notifications passed over); its
    // length, 0 when none came within ms.
    int NextData(int ms) {
        for (const int64_t end = kit::NowMs() + ms;;) {
            const int64_t left = end - kit::NowMs();
            const int len = left > 0 ? ReadToTranp(buf.get(), pid, static_cast<int>(left)) : 0;
            if (len < comp::kPlatHdrLen) return 0;
            if (comptest::At<uint16_t>(buf->caText, comp::plat::kKind) != comp::plat::kKindNotice) return len;
        }
    }
    std::string DataBody(int len) const {
        return len > comp::kPlatHdrLen ? std::string(buf->caText + comp::kPlatHdrLen, len - comp::kPlatHdrLen) : "";
    }
    // A client taken on "0", then TranP's message for it; the client leaves
    // after (a PS process ends on the first message a client sends).
    Round PsExchange(const std::string& body) {
        Round r;
        comp::UniqueFd cl = comptest::Connect(sharedPort);
        if (!WakeUntilTaken()) return r;
        const std::string log = CompTraceLog(c);
        const size_t at = log.rfind(",New fd ");
        if (at == std::string::npos) return r;
        const int fd = std::atoi(log.c_str() + at + 8);
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size()), 0, pid, pid, kPsRoute, kPsRoute, fd, fd, 0,
                                  {}, {}, 'M', {}};
        const std::string text = h.bytes() + body;
        DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), {text.begin(), text.end()});
        std::string got;
        for (const int64_t end = kit::NowMs() + 2000; got.size() < body.size() && !r.peerClosed && kit::NowMs() < end;)
            got += comptest::ReadUntilClose(cl.get(), 50, &r.peerClosed);
        r.delivered = got == body;
        // comp closes its side on the end of file (unless it already did).
        const int closes = LogCount("SysTcpRecvMsg error");
        cl.reset();
        if (!r.peerClosed) AwaitLog("SysTcpRecvMsg error", closes + 1, 2000);
        return r;
    }

    // Whether the peer of fd has closed, leaving what it sent unread.
    static bool PeerLeft(int fd) {
        char ch;
        const ssize_t n = recv(fd, &ch, 1, MSG_PEEK | MSG_DONTWAIT);
        return n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
    }
    // PC: TranP's message goes out on the link comp keeps, the server answers
    // on it. A lost link is made again (on the next message, or after the
    // reconnect interval of 1 s), so a closed one ends the exchange.
    Round PcExchange(const std::string& body) {
        Round r;
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + body.size() + 4), 0, 0, 4242, 0, kPcRoute, 0, 9, 0,
                                  {}, {}, 0, {}};
        const std::string text = h.bytes() + Frame(body);
        DeliverToComp(kPcRoute, comp::kFifoRouteNotify, "30_1", {text.begin(), text.end()});
        std::string got;
        for (const int64_t end = kit::NowMs() + 3000; got.empty() && kit::NowMs() < end;) {
            if (!link_.valid()) {
                link_ = comptest::Accept(server_.get(), 100);
                continue;
            }
            got = comptest::ReadFrame(link_.get(), 100);
            if (got.empty() && PeerLeft(link_.get())) {
                r.peerClosed = true;
                link_.reset();
                return r;
            }
        }
        if (got != Frame(body)) return r;
        comptest::Send(link_.get(), Frame("re:" + body));
        r.reachedTranp = r.delivered = DataBody(NextData(2000)) == Frame("re:" + body);
        return r;
    }
    // PAS: a client from 127.0.0.2 taken on "0" sends a message, TranP
    // answers it by descriptor; the client then leaves and the exchange ends
    // once comp has closed its side.
    Round PasExchange(const std::string& body) {
        Round r;
        const int ends = LogCount("connection End");
        comp::UniqueFd cl = comptest::Connect(sharedPort, "127.0.0.2");
        if (!WakeUntilTaken()) return r;
        comptest::Send(cl.get(), Frame("ask:" + body));
        const int len = NextData(2000);
        r.reachedTranp = DataBody(len) == Frame("ask:" + body);
        if (r.reachedTranp) {
            const int fd = comptest::At<int32_t>(buf->caText, comp::plat::kSock);
            const std::string answer = Frame("re:" + body);
            comptest::PlatHdr h{static_cast<uint16_t>(64 + answer.size()), 0, 7, 7, kPasRoute, kPasRoute, fd, fd, 0,
                                "127.0.0.2", {}, 'M', {}};
            const std::string text = h.bytes() + answer;
            DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), {text.begin(), text.end()});
            r.delivered = comptest::ReadFrame(cl.get(), 2000) == answer;
        }
        if (!r.delivered) r.peerClosed = Closes(cl.get(), 500);
        cl.reset();
        AwaitLog("connection End", ends + 1, 2000);
        return r;
    }

    // PCSYN: TranP queues a frame, the server's poll takes it; the server's
    // data frame (answered like a poll) goes to TranP. Serials count the
    // answered requests of a link from 0; a closed link is made again after
    // the reconnect interval.
    Round PcsynExchange(const std::string& body) {
        Round r;
        if (!link_.valid()) {
            link_ = comptest::Accept(server_.get(), 3000);
            serial_ = 0;
            if (!link_.valid()) return r;
        }
        const std::string frame = kit::SynBytes(0, 0, body);
        const comptest::PlatHdr h{static_cast<uint16_t>(64 + frame.size()), 0, 0, 4242, 0, 0, 0, 9, 0, {}, {}, 0, {}};
        const std::string text = h.bytes() + frame;
        DeliverToComp(kPcsynRoute, comp::kFifoRouteNotify, "50_1", {text.begin(), text.end()});
        // One request and comp's answer; false (the link forgotten) when the
        // link closed instead.
        auto ask = [&](int cmd, const std::string& data, const std::string& want) {
            const bool sent = comptest::Send(link_.get(), kit::SynBytes(cmd, serial_, data));
            const std::string got = sent ? kit::ReadSyn(link_.get(), 2000) : "";
            if (got.empty() && Closes(link_.get(), 500)) {
                r.peerClosed = true;
                link_.reset();
                return false;
            }
            ++serial_;
            return got == want;
        };
        const bool polled = ask(1, "", kit::SynBytes(4, serial_, body));
        if (!link_.valid()) return r;
        const std::string up = kit::SynBytes(4, serial_, "up:" + body);
        if (!ask(4, "up:" + body, kit::SynBytes(2, serial_, ""))) return r;
        r.reachedTranp = DataBody(NextData(2000)) == up;
        r.delivered = polled && r.reachedTranp;
        return r;
    }

    // PASSYN's task queue (key: its pid + 0x8000).
    int TaskQueue() const { return msgget(static_cast<key_t>(pid + 0x8000), 0); }
    int TasksWaiting() const {
        msqid_ds ds{};
        return msgctl(TaskQueue(), IPC_STAT, &ds) == 0 ? static_cast<int>(ds.msg_qnum) : -1;
    }
    // PASSYN: a client from 127.0.0.2 taken on "0" gets the first poll and
    // sends a data frame (answered with a poll; it goes to TranP); TranP's
    // task for it waits in the task queue and is the answer to its next data
    // frame. The client then leaves.
    Round PassynExchange(const std::string& body) {
        Round r;
        const int ends = LogCount("connection End");
        comp::UniqueFd cl = comptest::Connect(sharedPort, "127.0.0.2");
        int one = 1;
        setsockopt(cl.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // One frame of comp's (false when the client was closed instead).
        auto expect = [&](const std::string& want) {
            const std::string got = kit::ReadSyn(cl.get(), 2000);
            if (got.empty()) r.peerClosed = Closes(cl.get(), 500);
            return !got.empty() && got == want;
        };
        if (!WakeUntilTaken() || !expect(kit::SynBytes(1, 0))) return r;
        const std::string up = kit::SynBytes(4, 0, "up:" + body);
        if (!comptest::Send(cl.get(), up) || !expect(kit::SynBytes(1, 1))) return r;
        const int len = NextData(2000);
        r.reachedTranp = DataBody(len) == up;
        if (r.reachedTranp) {
            const int fd = comptest::At<int32_t>(buf->caText, comp::plat::kSock);
            const std::string task = kit::SynBytes(0, 0, body);
            comptest::PlatHdr h{static_cast<uint16_t>(64 + task.size()), 0, 4242, 4242, kPassynRoute, kPassynRoute,
                                fd, fd, 0, "127.0.0.2", {}, 'M', {}};
            const std::string text = h.bytes() + task;
            DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), {text.begin(), text.end()});
            for (const int64_t end = kit::NowMs() + 2000; TasksWaiting() < 1 && kit::NowMs() < end;) kit::SleepMs(5);
            const std::string more = kit::SynBytes(4, 1, "more");
            r.delivered = comptest::Send(cl.get(), more) && expect(kit::SynBytes(4, 2, body)) && DataBody(NextData(2000)) == more;
        }
        cl.reset();
        AwaitLog("connection End", ends + 1, 2000);
        return r;
    }


    // the forwarder pair
    // A client taken on "0" and announced on the link, its message to the
    // server (the test), the server's answer back to it; the client leaves.
    Round FwbExchange(const std::string& body) {
        Round r;
        comp::UniqueFd cl = comptest::Connect(sharedPort);
        const int port = comptest::LocalPort(cl.get());
        if (!WakeUntilTaken()) return r;
        auto unitFor = [&](char kind) {
            for (const int64_t end = kit::NowMs() + 2000; kit::NowMs() < end;) {
                fwtest::LinkUnit u = fwtest::ReadUnit(link_.get(), fw::Reader::kServer, 500);
                if (u && u.hdr.kind == kind && u.hdr.port == port) return u;
            }
            return fwtest::LinkUnit{};
        };
        if (unitFor(fw::kConnect) && comptest::Send(cl.get(), Frame(body))) {
            r.reachedTranp = unitFor(fw::kData).msg == Frame(body);
            const std::string answer = fwtest::UnitBytes(fw::kData, "127.0.0.1", port, Frame("re:" + body));
            if (r.reachedTranp) comptest::Send(link_.get(), answer);
            r.delivered = fwtest::ReadMessage(cl.get(), 2000) == Frame("re:" + body);
        }
        if (!r.delivered) comptest::ReadUntilClose(cl.get(), 1000, &r.peerClosed);
        cl.reset();
        unitFor(fw::kDisconnect);
        return r;
    }
    // A forwarder link taken on "0", a client announced on it, the client's
    // message to TranP, TranP's answer back on the link; the link leaves.
    Round FwsExchange(const std::string& body) {
        Round r;
        comp::UniqueFd link = comptest::Connect(sharedPort);
        if (!WakeUntilTaken()) return r;
        const int port = 4000 + ++fwsClients_;
        const int kind = comp::plat::kKind;
        if (comptest::Send(link.get(), fwtest::UnitBytes(fw::kConnect, "10.0.0.7", port)) &&
            comptest::Send(link.get(), fwtest::UnitBytes(fw::kData, "10.0.0.7", port, Frame(body)))) {
            // The N001 comes first; the message after it.
            for (int len; !r.reachedTranp && (len = ReadToTranp(buf.get(), pid, 2000)) >= comp::kPlatHdrLen;)
                r.reachedTranp = comptest::At<uint16_t>(buf->caText, kind) != comp::plat::kKindNotice &&
                                 std::string(buf->caText + comp::kPlatHdrLen, len - comp::kPlatHdrLen) == Frame(body);
        }
        if (r.reachedTranp) {
            std::vector<char> text;
            const std::string reply = Frame("re:" + body);
            EXPECT_TRUE(kit::BuildAnswer(kit::AnswerForm::kByPid, buf->caText, reply.data(),
                                         static_cast<int>(reply.size()), &text));
            DeliverToComp(pid, comp::kFifoPidNotify, std::to_string(pid), text);
            r.delivered = fwtest::ReadUnit(link.get(), fw::Reader::kForwarder, 2000).msg == reply;
        }
        if (!r.delivered) comptest::ReadUntilClose(link.get(), 1000, &r.peerClosed);
        // The link's end tells TranP the client is gone.
        link.reset();
        if (r.reachedTranp) ReadToTranp(buf.get(), pid, 2000);
        return r;
    }

    // the station link
    // The peer's frame to TranP, then TranP's frame to the peer and the
    // peer's ACK of it, which comes to TranP as an N005. A connection comp
    // closed is told to TranP (N003); comp then connects again and the next
    // exchange runs the connection sequence first.
    Round VtExchange(const std::string& body) {
        Round r;
        if (stationLost_) {
            TakeConnection();
            LinkUp();
            if (HasFatalFailure()) return r;
            stationLost_ = false;
        }
        const Bytes in = kit::station::Trade(body, Serial());
        Send(in);
        Read(2000);   // its acknowledgement
        r.reachedTranp = Next(2000).Frame() == in;
        const std::string reply = "re:" + body;
        const Bytes out = SendTrade(reply);
        if (!out.empty() && std::string(out.begin(), out.end()).find(reply) != std::string::npos) {
            Send(kit::station::Ack(kit::station::IdentityOf(out).data(), false, Serial()));
            r.delivered = Next(2000).Is("N005");
        }
        if (!r.delivered) {
            comptest::ReadUntilClose(peer.get(), 1000, &r.peerClosed);
            if (r.peerClosed) {
                stationLost_ = true;
                const comptest::StationOut told = Next(2000);
                if (WaitComp(c, 0) == -1) {
                    EXPECT_TRUE(told.Is("N003")) << AllLogs();
                }
            }
        }
        return r;
    }

    // ---- what stays the same ---------------------------------------------------

    // Registry nodes owned by comp.
    int RegistryNodes() const {
        const ShmCfgEntry seg{"REGISTRY", 1, RegistryKey(), comp::kRegistrySegmentMin};
        int n = 0;
        for (const ConnNode& node : kit::RegistrySnapshot(seg)) n += node.iPid == pid;
        return n;
    }
    // Waits until comp's descriptors are no more than before the fault and
    // its registry nodes as many (connections close a moment after the
    // peer sees the end).
    void ExpectNothingLeaked() {
        int fds = -1, nodes = -1;
        for (const int64_t end = kit::NowMs() + 3000; kit::NowMs() < end; kit::SleepMs(20)) {
            fds = CountFds(pid);
            nodes = RegistryNodes();
            if (fds <= fdsBefore_ && nodes == nodesBefore_) return;
        }
        EXPECT_LE(fds, fdsBefore_) << "descriptors of comp";
        EXPECT_EQ(nodes, nodesBefore_) << "registry nodes of comp";
    }
    // The counts once the first exchange has settled; a descriptor the
    // process holds for a moment (a sanitizer's read of /proc) does not
    // count, so the lowest of a few looks is taken.
    void Baseline() {
        fdsBefore_ = CountFds(pid);
        for (int i = 0; i < 10; ++i, kit::SleepMs(20)) fdsBefore_ = std::min(fdsBefore_, CountFds(pid));
        nodesBefore_ = RegistryNodes();
    }
    // The process ended through its clean-up: status 0, logged off, and a
    // notification FIFO of its own ("1_<pid>") removed; a route's FIFO
    // ("2_<route>_<instance>") is left for the next process of the route.
    void ExpectCleanQuit() {
        EXPECT_EQ(WaitComp(c, 5000), 0) << AllLogs();
        EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogoff, 2000), 0) << "logged off";
        if (notify_.starts_with("1_")) {
            EXPECT_FALSE(fs::exists(run.file("fifo/" + notify_))) << "FIFO removed";
        }
    }

    // ---- the events the test causes ------------------------------------------

    int RegistryLockSet() const { return semget(RegistryLockKey(), 0, 0); }
    // A process that takes the registry lock with undo and keeps it until
    // killed; returns once it holds it.
    void HoldRegistryLock() {
        int ready[2];
        ASSERT_EQ(pipe(ready), 0);
        holder_ = fork();
        ASSERT_GE(holder_, 0);
        if (holder_ == 0) {
            sembuf take{0, -1, SEM_UNDO};
            const char ok = semop(RegistryLockSet(), &take, 1) == 0 ? '1' : '0';
            (void)!write(ready[1], &ok, 1);
            for (;;) pause();
        }
        close(ready[1]);
        char ok = 0;
        ASSERT_EQ(read(ready[0], &ok, 1), 1);
        close(ready[0]);
        ASSERT_EQ(ok, '1') << "the helper could not take the lock";
    }
    void KillHolder() {
        kill(holder_, SIGKILL);
        waitpid(holder_, nullptr, 0);
        holder_ = -1;
    }

    // ---- the result line of the cell -------------------------------------------

    void Record() {
        const char* out = std::getenv("COMP_FAULT_MATRIX_OUT");
        if (out == nullptr) return;
        const Cell& cell = GetParam();
        const char* verdict = cell.expect == Reaction::kNa ? "n/a" : HasFailure() ? "NO" : IsSkipped() ? "skipped" : "yes";
        std::ofstream(out, std::ios::app) << ModeName(cell.mode) << '\t' << FaultName(cell.fault) << '\t'
                                           << ReactionText(cell.expect) << '\t' << verdict << '\t'
                                           << (cell.expect == Reaction::kNa ? cell.line : "") << '\n';
    }

    int port_ = 0;
    comp::UniqueFd server_, link_;
    int serial_ = 0;   // PCSYN: the serial of the link's next request
    int fwsClients_ = 0;
    bool stationLost_ = false;
    std::string notify_;
    int fdsBefore_ = 0, nodesBefore_ = 0;
    pid_t holder_ = -1;
};

TEST_P(FaultCell, reaction_then_serves_on_without_leaks) {
    const Cell& cell = GetParam();
    if (cell.expect == Reaction::kNa) GTEST_SKIP() << "n/a: " << cell.line;
    if (cell.expect == Reaction::kStartFails) {
        // The process attaches its segments at start and keeps them: a
        // failed attach can only happen there.
        awaitReady = false;
        Start(cell);
        if (IsSkipped()) return;
        EXPECT_EQ(WaitComp(c, 5000), 255) << AllLogs();
        EXPECT_TRUE(AwaitLog(cell.line, 1, 1000)) << AllLogs();
        EXPECT_EQ(ReadCommonp(buf.get(), comp::kCommonpLogon, 200), 0) << "no logon";
        return;
    }
    Start(cell);
    if (IsSkipped()) return;
    // A first exchange opens what the process keeps for the rest of its life
    // (log files, the registry attachment); leaks are counted from after it.
    const bool seamFault = cell.faults[0] != '\0';
    ASSERT_TRUE(Exchange(cell.mode, "warm")) << AllLogs();
    Baseline();

    switch (cell.fault) {
        case Fault::kSemRemoved:
            ASSERT_EQ(semctl(RegistryLockSet(), 0, IPC_RMID), 0);
            break;
        case Fault::kFifoRemoved:
            ASSERT_EQ(unlink(run.file("fifo/" + notify_).c_str()), 0);
            ASSERT_TRUE(AwaitLog(cell.line, 1, 3000)) << AllLogs();
            break;
        case Fault::kSemHolderKilled: {
            HoldRegistryLock();
            // The next client waits for the lock; the holder dies holding it.
            comp::UniqueFd s = comptest::Connect(cell.mode == Mode::kTs ? port_ : sharedPort);
            if (cell.mode != Mode::kTs) Wake(0);
            for (const int64_t end = kit::NowMs() + 3000; semctl(RegistryLockSet(), 0, GETNCNT) < 1;) {
                ASSERT_LT(kit::NowMs(), end) << "comp never waited for the lock" << AllLogs();
                kit::SleepMs(5);
            }
            KillHolder();
            break;
        }
        default: break;
    }

    // The exchange the fault lands on; a full disk lasts, and the exchanges
    // go on until the seam has given its first failure.
    Round hit = Exchange(cell.mode, "hit");
    for (int more = 0; cell.fault == Fault::kLogFull && more < 30 && LogCount("fault seam: ") == 0; ++more)
        hit = Exchange(cell.mode, "hit");
    if (cell.line[0] != '\0') {
        EXPECT_TRUE(AwaitCount([&] { return Logs(); }, cell.line, 1, 3000)) << Logs();
    }
    if (seamFault) {
        EXPECT_TRUE(Logged({"fault seam: "})) << "the armed call was reached" << AllLogs();
    }

    switch (cell.expect) {
        case Reaction::kQuit:
            if (cell.mode != Mode::kPs) AllowFatal("fatal");
            ExpectCleanQuit();
            return;
        case Reaction::kClose:
            EXPECT_FALSE(hit.delivered);
            EXPECT_TRUE(hit.peerClosed) << "the connection was closed";
            break;
        case Reaction::kDrop:
            EXPECT_FALSE(hit.reachedTranp) << "the message was dropped";
            break;
        case Reaction::kRefuse:
            EXPECT_FALSE(hit.reachedTranp);
            EXPECT_TRUE(hit.peerClosed);
            EXPECT_EQ(WaitComp(c, 300), -1) << "still running";
            return;
        case Reaction::kServeOn:
        case Reaction::kStartFails:
        case Reaction::kNa:
            break;
    }
    EXPECT_TRUE(Exchange(cell.mode, "next")) << "serves the next exchange" << AllLogs();
    EXPECT_EQ(WaitComp(c, 0), -1) << "still running";
    ExpectNothingLeaked();
}

std::string CellName(const ::testing::TestParamInfo<Cell>& info) {
    std::string name = std::string(ModeName(info.param.mode)) + "_" + FaultName(info.param.fault);
    for (char& ch : name)
        if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
    return name;
}

INSTANTIATE_TEST_SUITE_P(Short, FaultCell, ::testing::ValuesIn(ShortCells()), CellName);
INSTANTIATE_TEST_SUITE_P(Grid, FaultCell, ::testing::ValuesIn(GridCells()), CellName);
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(FaultCell);

}  // namespace
