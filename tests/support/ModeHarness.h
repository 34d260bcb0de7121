// A whole transport mode run in-process: a platform of System V objects under
// the test's own keys (queues 6, 7, 8 and 12, the registry, the table segment
// with [LOADVARS] and the route rows) joined with SysComInit, and the mode's
// entry run on a thread of its own under the loop driver. The mode's loop then
// runs on a ManualClock and only the passes the test allows: rules measured in
// seconds run in microseconds of real time, and the test looks at sockets,
// queues and logs between passes while the mode stands still.
#pragma once

#include <pthread.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "TableImage.h"
#include "UnitFixture.h"
#include "comp/SysComPub.h"
#include "ipc/SysConnReg.h"
#include "modes/Engine.h"

namespace comptest {

// The platform of a mode run in-process. Call Up() in the test; Down() (or
// the destructor) detaches; the objects go with the fixture's IpcKeys.
class InProcessPlatform {
public:
    InProcessPlatform(TempRunDir& run, IpcKeys& keys) : run_(run), keys_(keys) {}
    ~InProcessPlatform() { Down(); }

    // vars: [LOADVARS]; routes: PLAT_STATICROUTEINF rows by column position;
    // appVars: lines of app.cfg's [APPVARS] beyond LOG_LEVEL 1.
    bool Up(const std::map<std::string, std::string>& vars, const std::vector<std::vector<std::string>>& routes,
            const std::string& appVars, std::string* why) {
        std::string q;
        for (int idx : {comp::kQueueCommonp, comp::kQueueToTranp, comp::kQueueFromTranp, comp::kQueueDrain}) {
            key_t k = 0;
            if (keys_.newQueue(&k) < 0) return Fail(why, "queue");
            q += "Q" + std::to_string(idx) + " " + std::to_string(idx) + " " + std::to_string(k) + "\n";
        }
        key_t semKey = 0, regKey = 0, tblKey = 0;
        const int semId = keys_.newSemSet(10, 0, &semKey);
        const int regId = keys_.newShm(comp::kRegistrySegmentMin, &regKey);
        TableImage image;
        for (const auto& [name, value] : vars) image.appendVar(name, value);
        for (const auto& row : routes) image.appendRoute(row);
        const int tblId = keys_.newShm(static_cast<int>(image.imageBytes()), &tblKey);
        if (semId < 0 || regId < 0 || tblId < 0 || !image.writeTo(tblId)) return Fail(why, "semaphores or segments");
        run_.write("etc/sys.cfg", "LOGONTIMELIMIT 30\nCOMLOGONTIMELIMIT 30\nINQUERYTIME 10\nINQUERYCOUNT 3\n"
                                  "SHUTDOWNTIME 10\nMSGQUEUECOUNT 4\nSEMPHORECOUNT 1\nSHAREMEMCOUNT 2\nPROCNAMECOUNT 0\n"
                                  "[QRESOURCE]\n" + q + "[SEMRESOURCE]\nREGLOCK 1 " + std::to_string(semKey) +
                                      " 10\n[SHMRESOURCE]\nREGISTRY 1 " + std::to_string(regKey) + " " +
                                      std::to_string(comp::kRegistrySegmentMin) + "\nTABLES 2 " +
                                      std::to_string(tblKey) + " " + std::to_string(image.imageBytes()) +
                                      "\n[PROCESS]\n");
        run_.write("etc/app.cfg", "[APPVARS]\nLOG_LEVEL 1\n" + appVars + "[]\n");
        if (SysInitMemList(1, 2, semId) != 0) return Fail(why, "registry format");
        if (SysComInit() != 0) return Fail(why, "SysComInit");
        up_ = true;
        return true;
    }
    void Down() {
        if (up_) SysConnRegDetach();
        up_ = false;
    }
    int Queue(int index) const { return g_stMsgQCntl[index].iId; }

private:
    static bool Fail(std::string* why, const std::string& what) {
        *why = "in-process platform: " + what + " failed";
        return false;
    }
    TempRunDir& run_;
    IpcKeys& keys_;
    bool up_ = false;
};

// Runs a mode's entry on a thread of its own, one batch of passes at a time.
// Between batches the mode stands still in the driver, so the test may use
// the clock, the sockets and the logs freely.
class ModeRunner final : public comp::seam::LoopDriver {
public:
    explicit ModeRunner(int64_t startUsec = 1'700'000'000'000'000) : clk(startUsec) {}
    ~ModeRunner() { Stop(); }

    // Starts the entry and waits until it stands before its first pass (or
    // has returned, or quit). False when it did not reach its loop.
    bool Start(std::function<int()> entry) {
        StartAsync(std::move(entry));
        return WaitParked();
    }
    // The same in two steps, for a test that acts while the mode starts.
    void StartAsync(std::function<int()> entry) {
        comp::seam::g_pLoopDriver = this;
        thread_ = std::thread([this, entry] {
            const int rc = entry();
            std::lock_guard<std::mutex> lk(m_);
            result_ = rc;
            done_ = true;
            cv_.notify_all();
        });
    }
    bool WaitParked() {
        std::unique_lock<std::mutex> lk(m_);
        cv_.wait(lk, [&] { return parked_ || done_; });
        return parked_;
    }
    // Runs passes until `until` holds (asked in the mode's thread before each
    // pass) or maxPasses have run; whether it held.
    bool RunUntil(const std::function<bool()>& until, int maxPasses = 1000000) {
        std::unique_lock<std::mutex> lk(m_);
        if (done_) return until && until();
        until_ = until;
        budget_ = maxPasses;
        held_ = false;
        cv_.notify_all();
        cv_.wait(lk, [&] { return (parked_ && budget_ == 0) || done_; });
        until_ = nullptr;
        return held_;
    }
    void Passes(int n) { RunUntil(nullptr, n); }
    // Ends the loop (Run returns 0) and joins the thread.
    void Stop() {
        {
            std::lock_guard<std::mutex> lk(m_);
            stop_ = true;
            cv_.notify_all();
        }
        if (thread_.joinable()) thread_.join();
        if (comp::seam::g_pLoopDriver == this) comp::seam::g_pLoopDriver = nullptr;
    }
    bool QuitSeen() const { return quit_; }
    int Result() const { return result_; }
    // The mode's loop, while it stands still.
    comp::Loop& loop() { return *loop_; }
    int passes() const { return passes_; }

    comp::ManualClock clk;

    // ---- the driver -----------------------------------------------------
    comp::Clock* clock() override { return &clk; }
    bool Continue(comp::Loop& l) override {
        std::unique_lock<std::mutex> lk(m_);
        loop_ = &l;
        for (;;) {
            if (stop_) return false;
            if (budget_ > 0) {
                if (until_ && until_()) {
                    held_ = true;
                    budget_ = 0;
                    continue;
                }
                --budget_;
                ++passes_;
                return true;
            }
            parked_ = true;
            cv_.notify_all();
            cv_.wait(lk, [&] { return budget_ > 0 || stop_; });
            parked_ = false;
        }
    }
    // The mode quit (its quit hook has run): its thread ends here.
    [[noreturn]] void Quit() override {
        {
            std::lock_guard<std::mutex> lk(m_);
            quit_ = done_ = true;
            cv_.notify_all();
        }
        pthread_exit(nullptr);
    }

private:
    std::thread thread_;
    std::mutex m_;
    std::condition_variable cv_;
    std::function<bool()> until_;
    comp::Loop* loop_ = nullptr;
    int budget_ = 0, passes_ = 0, result_ = 0;
    bool parked_ = false, done_ = false, stop_ = false, held_ = false, quit_ = false;
};

}  // namespace comptest
