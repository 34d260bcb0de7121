// Fixture of the configuration tests: private run directory and IPC keys,
// globals reset, logs kept inside the run directory.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "TestEnv.h"
#include "comp/SysGlobals.h"

inline ::testing::AssertionResult Contains(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "[" << text << "] lacks [" << part << "]";
}

class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        comptest::ResetGlobals();
        auto& log = g_stProcState.stLog;
        std::snprintf(log.caErrLogName, sizeof log.caErrLogName, "%s/log/err", run.path().c_str());
        std::snprintf(log.caTraceBase, sizeof log.caTraceBase, "%s/log/trace", run.path().c_str());
    }
    void TearDown() override { comptest::ResetGlobals(); }

    std::string Logs() const {
        std::string all;
        for (const auto& e : std::filesystem::directory_iterator(run.file("log")))
            all += comptest::ReadFile(e.path().string());
        return all;
    }
    // g_caMsg from its "]pid[" on, or whole when it has none.
    static std::string Msg() {
        std::string s = g_caMsg;
        return s.find("]pid[") == std::string::npos ? s : s.substr(s.find("]pid["));
    }

    comptest::TempRunDir run;
    comptest::IpcKeys keys;
};
