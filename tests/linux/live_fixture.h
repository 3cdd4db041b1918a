// Base fixture of the live platform's tests: the switching core set up from
// a configuration text without sockets, every transmission recorded, and
// leak checks on tear-down (no packet-pool buffer held or released twice,
// pal allocations balanced where the module is not running).
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
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

// The switching core with the module not running: the module's queue is the
// test's, of queueDepth records, and nothing takes from it unless the test
// does. Whatever is left at tear-down goes back to the pool before the leak
// checks.
class LiveQueueTest : public LiveTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // One record, without waiting.
    bool takeMsg(DhcpSnoopMsg& m);
    // Takes every record, frames back to the pool; the records taken by type.
    std::map<uint8_t, size_t> drain();

    // Set before SetUp to change it.
    uint32_t queueDepth = 64;
};

// The module running on the switch of a configuration text, its tasks as
// threads, with a data directory of its own that goes at tear-down.
class LiveModuleTest : public LiveTest {
protected:
    // tmpPrefix names the data directory: /tmp/<tmpPrefix>-XXXXXX.
    LiveModuleTest(const char* config, const char* tmpPrefix) : config_(config), tmpPrefix_(tmpPrefix) {}
    void SetUp() override;
    void TearDown() override;

    // Waits until the module has released every trapped frame and sent what
    // it would.
    void settle();

    std::string dataDir;

private:
    const char* config_;
    const char* tmpPrefix_;
};

// Stations, frames, table entries and a switch the tests share.
namespace lt {

// Snooping on VLAN 10 with the source guard and ARP defence: 1/0/1 trusted,
// 1/0/2 and 1/0/3 untrusted, all access ports of VLAN 10; 1/0/4 a trusted
// trunk (native VLAN 1, tagged 10 and 20); 1/0/5 an access port of VLAN 20.
extern const char* const kGuardedSwitch;

// 02:00:00:00:a:n, a locally administered station.
fb::Mac mac(uint8_t a, uint8_t n);
inline fb::Mac mac(uint8_t n) { return mac(0, n); }
extern const fb::Mac kBroadcast;

// An ordinary (non-DHCP) IPv4 UDP frame.
fb::Bytes plainIp(const fb::Mac& src, const fb::Mac& dst, uint32_t srcIp, uint32_t dstIp = fb::ip(198, 18, 0, 1));

// The handle of a port by name; fails the test when the name is not one.
::up port(const std::string& name);

// A source-guard entry as snooping makes it.
SwQTableEntry binding(uint32_t ip, const fb::Mac& m, uint16_t vlan, const std::string& port);

// The port the FDB names for a MAC in a VLAN; "" when it names none.
std::string fdbPort(const fb::Mac& m, uint16_t vlan);

}  // namespace lt
