// compkit: a stand-in platform to run and try comp on one machine.
//
//   compkit up RUNDIR           create the queues, semaphores and segments of sys.cfg, load tables.cfg
//   compkit down RUNDIR         remove them again, and the FIFOs
//   compkit status RUNDIR       queues, registry, tables, FIFOs, and per route its instances and their connections
//   compkit tranp RUNDIR        the stand-in router alone
//   compkit run RUNDIR          the supervisor: router, instances, shared listeners
//   compkit send IP:PORT ...    send framed messages and print the answers
//   compkit echo-server IP:PORT ...   answer every framed message with itself, keep the
//                               connections, answer and send heartbeats
//   compkit station IP:PORT ...       the station-side peer of a station link
//   compkit poll-server IP:PORT ...   the server that polls a PCSYN route
//   compkit poll-client IP:PORT ...   a client that answers the polls of a PASSYN route
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "kit/KitIpc.h"
#include "kit/KitUtil.h"
#include "kit/NetTools.h"
#include "kit/Router.h"
#include "kit/StationPeer.h"
#include "kit/Supervisor.h"
#include "kit/SynPeers.h"

namespace {

void Usage(FILE* out) {
    std::fprintf(out,
                 "usage: compkit up|down|status|tranp|run RUNDIR\n"
                 "       compkit send IP:PORT [--frame H,O,W,T[,I[,A]] | --rundir DIR --route ID] [--header TEXT]\n"
                 "                    [--count N] [--reconnect] [--timeout S] [--no-answer] TEXT...\n"
                 "       compkit echo-server IP:PORT [--frame ... | --rundir DIR --route ID] [--prefix TEXT]\n"
                 "                    [--heartbeat BODY [--beat-every SECONDS]]\n"
                 "       compkit station IP:PORT [--reject] [--no-ack] [--nack N] [--crc-error N] [--params N]\n"
                 "                    [--send TEXT]... [--count N] [--interval MS] [--once] [--quiet] [--log FILE]\n"
                 "       compkit poll-server|poll-client IP:PORT [--interval MS] [--count N] [--timeout S]\n"
                 "                    [--data TEXT]...\n"
                 "       compkit help\n");
}

// A mistake on the command line: one line saying what, then the usage.
int UsageError(const std::string& what) {
    std::fprintf(stderr, "compkit: %s\n", what.c_str());
    Usage(stderr);
    return 2;
}

// RUNDIR as an absolute path: the product's FIFO and log paths are formed
// from it, and the children run elsewhere.
std::string Absolute(const std::string& dir) {
    char* real = realpath(dir.c_str(), nullptr);
    if (real == nullptr) return dir;
    std::string out = real;
    free(real);
    return out;
}

int Up(const std::string& runDir) {
    kit::DirectLogs(runDir, "compkit");
    std::vector<std::string> notes;
    std::string why;
    const bool ok = kit::PlatformUp(runDir, &notes, &why);
    for (const std::string& n : notes) std::printf("%s\n", n.c_str());
    if (!ok) std::fprintf(stderr, "compkit up: %s\n", why.c_str());
    return ok ? 0 : 1;
}

int Down(const std::string& runDir) {
    kit::DirectLogs(runDir, "compkit");
    std::vector<std::string> notes;
    std::string why;
    const bool ok = kit::PlatformDown(runDir, &notes, &why);
    for (const std::string& n : notes) std::printf("%s\n", n.c_str());
    if (!ok) std::fprintf(stderr, "compkit down: %s\n", why.c_str());
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return UsageError("no subcommand given");
    const std::string cmd = argv[1];
    if (cmd == "help" || cmd == "--help" || cmd == "-h") {
        Usage(stdout);
        return 0;
    }
    std::vector<std::string> rest(argv + 2, argv + argc);
    if (cmd == "send") return kit::RunSend(rest);
    if (cmd == "echo-server") return kit::RunEchoServer(rest);
    if (cmd == "poll-server") return kit::RunPollServer(rest);
    if (cmd == "poll-client") return kit::RunPollClient(rest);
    if (cmd == "station") return kit::RunStationCommand(rest);
    if (cmd != "up" && cmd != "down" && cmd != "status" && cmd != "tranp" && cmd != "run")
        return UsageError("unknown subcommand '" + cmd + "'");
    if (argc < 3) return UsageError(cmd + " needs the run directory");
    if (argc > 3) return UsageError(cmd + " takes the run directory only");
    const std::string runDir = Absolute(argv[2]);
    struct stat st {};
    if (stat(runDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return UsageError("the run directory " + runDir + " does not exist");
    if (cmd == "up") return Up(runDir);
    if (cmd == "down") return Down(runDir);
    if (cmd == "status") {
        kit::DirectLogs(runDir, "compkit");
        std::fputs(kit::PlatformStatus(runDir).c_str(), stdout);
        return 0;
    }
    if (cmd == "tranp") return kit::RunRouter(runDir);
    kit::SupervisorOptions opt;
    opt.runDir = runDir;
    return kit::RunSupervisor(opt);
}
