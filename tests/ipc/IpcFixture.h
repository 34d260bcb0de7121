// Fixture of the IPC tests.
#pragma once

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "UnitFixture.h"
#include "comp/SysGlobals.h"
#include "ipc/SysIpcSeam.h"

class IpcTest : public comptest::UnitTest {
};
