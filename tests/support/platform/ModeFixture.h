// Whole-process fixture of one transport mode: the platform up with the
// mode's route, comp started on it and serving, and the small waits every
// mode's tests need. Each mode's test file derives its own fixture from it.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <functional>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Platform.h"
#include "kit/KitUtil.h"

namespace comptest {

class ModeTest : public PlatformTest {
protected:
    // Brings the platform up with `row` (changed by `overrides`) and any
    // further routes, starts comp as `mode ROUTE instance arg e2e_<instance>`,
    // and waits for its logon to Commonp and for `readyText` in its trace log
    // (its FIFOs are open, not only made, once it says so).
    // With a shared listener open (OpenSharedListener), comp inherits it and
    // gets its number as the fourth argument, as from the platform's starter.
    void StartMode(const char* mode, RouteRow row, const RouteRow& overrides, const char* readyText,
                   const std::string& arg = "0", std::vector<RouteRow> more = {}) {
        for (const auto& [k, v] : overrides) row[k] = v;
        PlatformSetup setup;
        setup.routes = {row};
        for (RouteRow& r : more) setup.routes.push_back(r);
        for (const auto& [k, v] : vars) setup.vars[k] = v;
        for (const std::string& k : dropVars) setup.vars.erase(k);
        setup.appVars = appVars;
        StartPlatform(setup);
        // Without a platform nothing the test goes on to do can pass, and
        // some of it would wait long: end the test here (gtest reports the
        // exception as a failure and still runs TearDown).
        if (HasFatalFailure()) throw std::runtime_error("the platform could not be brought up");
        mode_ = mode;
        route_ = row["ROUTEID"];
        StartInstance(instance, readyText, arg);
        c = comps_.back();
    }
    // Starts one more instance of the route started by StartMode; its index
    // into comps(), after its logon and `readyText`.
    size_t StartInstance(int inst, const char* readyText, const std::string& arg = "0") {
        const std::string a = sharedListener.valid() ? std::to_string(sharedListener.get()) : arg;
        size_t i = StartComp({mode_, route_, std::to_string(inst), a, "e2e_" + std::to_string(inst)}, compEnv,
                             sharedListener.valid() ? sharedListener.get() : -1);
        comps_.push_back(i);
        instances_.push_back(inst);
        if (comps_.size() == 1) pid = comp(i).pid;
        if (!awaitReady) return i;
        EXPECT_GT(ReadCommonp(buf.get(), comp::kCommonpLogon, 10000), 0) << CompOutput(i) << AllLogs();
        EXPECT_TRUE(AwaitCount([&] { return CompTraceLog(i); }, readyText, 1, 10000)) << AllLogs();
        return i;
    }
    // A listening socket on a free loopback port, non-blocking, that the
    // instances started afterwards inherit (sharedPort names it).
    void OpenSharedListener() {
        sharedListener = Listen(&sharedPort);
        fcntl(sharedListener.get(), F_SETFL, fcntl(sharedListener.get(), F_GETFL) | O_NONBLOCK);
    }
    // Tells instance number k (0: the first started) to accept one client,
    // as the starter does when the shared listener is readable.
    void Wake(size_t k = 0) { ControlOf(k, '0'); }
    // Writes one byte to the control FIFO "3_<pid>_<instance>" of the first
    // instance, or of instance number k.
    void Control(char cmd) { ControlOf(0, cmd); }
    void ControlOf(size_t k, char cmd) {
        const pid_t p = comp(comps_.at(k)).pid;
        int fd = open(run.file("fifo/3_" + std::to_string(p) + "_" + std::to_string(instances_.at(k))).c_str(),
                      O_WRONLY | O_NONBLOCK);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(write(fd, &cmd, 1), 1);
        close(fd);
    }
    // Whether one of the texts shows in the logs within ms.
    bool Logged(std::initializer_list<const char*> texts, int ms = 3000) const {
        for (const int64_t end = kit::NowMs() + ms;; kit::SleepMs(20)) {
            const std::string logs = AllLogs();
            for (const char* t : texts)
                if (logs.find(t) != std::string::npos) return true;
            if (kit::NowMs() >= end) return false;
        }
    }
    // How often `text` occurs in the logs now.
    int LogCount(const std::string& text) const { return Occurrences(AllLogs(), text); }
    // How often `text` occurs in `s`.
    static int Occurrences(const std::string& s, const std::string& text) {
        int n = 0;
        for (size_t p = s.find(text); p != std::string::npos; p = s.find(text, p + 1)) ++n;
        return n;
    }
    // Whether `text` occurs at least `count` times in the logs within ms.
    bool AwaitLog(const std::string& text, int count = 1, int ms = 5000) const {
        return AwaitCount([&] { return AllLogs(); }, text, count, ms);
    }
    // Whether `text` occurs at least `count` times in what `read` returns
    // within ms.
    static bool AwaitCount(const std::function<std::string()>& read, const std::string& text, int count,
                           int ms = 3000) {
        auto n = [&] { return Occurrences(read(), text); };
        for (const int64_t end = kit::NowMs() + ms; n() < count && kit::NowMs() < end;) kit::SleepMs(5);
        return n() >= count;
    }
    // Whether the peer closes within ms (what it sends meanwhile is dropped).
    static bool Closes(int fd, int ms) {
        bool closed = false;
        ReadUntilClose(fd, ms, &closed);
        return closed;
    }

    int instance = 1;
    bool awaitReady = true;                    // false: StartInstance returns once comp is started
    size_t c = 0;                              // comps() index of the first instance
    comp::UniqueFd sharedListener;
    int sharedPort = 0;
    pid_t pid = 0;
    std::vector<std::string> compEnv;          // extra environment of comp (FastClock)
    std::map<std::string, std::string> vars;   // [LOADVARS] changes
    std::vector<std::string> dropVars;         // [LOADVARS] left out
    std::map<std::string, std::string> appVars;   // further [APPVARS] of app.cfg
    std::unique_ptr<QueueMsg> buf = std::make_unique<QueueMsg>();

private:
    std::string mode_, route_;
    std::vector<size_t> comps_;      // comps() index of each instance started
    std::vector<int> instances_;     // their instance numbers
};

}  // namespace comptest
