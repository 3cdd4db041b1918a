// Base fixture of the live platform's tests: the switching core set up from
// a configuration text without sockets, every transmission recorded, and
// leak checks on tear-down (no packet-pool buffer held or released twice,
// pal allocations balanced where the module is not running).
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "platform/linux/live_internal.h"
#include "support/frame_builder.h"

struct Sent {
    std::string port;  // "1/0/3"
    fb::Bytes frame;   // as it left, tag included
    bool offloaded = false;
    live::core::Offload off;  // as the interface gets it: offsets with the tag
};

class LiveTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Sets the switch up from a configuration text; fails the test when the
    // text or the set-up is refused.
    void bringUp(const std::string& toml, live::Options opt = live::Options());

    // One frame received on a port (by name); the bytes are copied.
    void rx(const std::string& port, const fb::Bytes& frame, int32_t kernelTci = -1);
    // The same with the kernel's TPID of the stripped tag and its offload state.
    void rxWith(const std::string& port, const fb::Bytes& frame, int32_t kernelTci, uint16_t tpid,
                const live::core::Offload* off);

    // The errno every later transmission to the port fails with (0: none).
    void failSends(const std::string& port, int err);

    std::vector<Sent> sent();
    void clearSent();
    std::vector<std::string> sentPorts();  // in order
    live::PortCounters counters(const std::string& port);

    // The module runs (once per process, its tasks never end): pal
    // allocations then belong to it and are not checked.
    static void startModuleOnce();
    bool moduleRunning = false;
    // Releases a test makes wrong on purpose.
    size_t expectedBadReleases = 0;

    // Test clock for the FDB, milliseconds.
    static uint64_t clockMs;

private:
    size_t allocsAtStart_ = 0;
    std::mutex sentLock_;
    std::vector<Sent> sent_;
    std::vector<std::string> portNames_;
    std::map<std::string, int> failing_;
};

// Waits (bounded, 5 s) until pred holds.
bool waitUntil(const std::function<bool()>& pred);
