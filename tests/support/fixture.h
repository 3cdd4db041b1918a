// Base fixture of every module test: a fresh simulation and module state per
// test, a private directory for files, and leak checks on tear-down (no pool
// element unaccounted for, every frame buffer released exactly once, no bad
// free).
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "platform/sim/runner.h"
#include "platform/sim/sim.h"
#include "snooping/dhcpSnoopInternal.h"

class SnoopTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // dhcpSnoopInit must succeed; then the tasks start and the records of
    // start-up (logs, events, syslog) are cleared.
    void startModule();

    // Elements that a test hands out on purpose and does not give back
    // (the loader's left-out lines, elements a test holds).
    uint32_t expectedHeldElements = 0;

    // This test's own directory; the module's files are mapped into it.
    std::string tmpDir;
};

// Elements linked in a table (bounded walk; a cycle counts as a failure).
uint32_t tableCount(uint32_t tableType);
// Elements on the pool's free list (bounded walk).
uint32_t freeListCount();
