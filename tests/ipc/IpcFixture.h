// Fixture of the IPC tests: a private run directory and IPC keys, with the
// error and trace logs written inside the run directory.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "TestEnv.h"
#include "comp/SysGlobals.h"
#include "ipc/SysIpcSeam.h"

class IpcTest : public ::testing::Test {
protected:
    void SetUp() override {
        comptest::ResetGlobals();
        comp::seam::ClearIpcFaults();
        auto& log = g_stProcState.stLog;
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/log/err", run.path().c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/log/trace", run.path().c_str());
    }
    void TearDown() override {
        comp::seam::ClearIpcFaults();
        comptest::ResetGlobals();
    }

    // Everything written to the logs so far.
    std::string Logs() const {
        std::string all;
        for (const auto& e : std::filesystem::directory_iterator(run.file("log")))
            all += comptest::ReadFile(e.path().string());
        return all;
    }

    comptest::TempRunDir run;
    comptest::IpcKeys keys;
};
