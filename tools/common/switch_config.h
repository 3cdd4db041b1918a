// The switch's configuration file (TOML): what the replay tool and the live
// daemon set up before the module starts. Parsing and checking only; putting
// a configuration on a platform is the caller's business (switch_config_sim.h
// for the simulation).
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/port.h"
#include "platform/snoopcfg.h"

namespace swcfg {

// Longest circuit_id / remote_id text: the port configuration record keeps
// each in 257 bytes with its terminator.
constexpr size_t kOp82TextMax = 256;
// Longest option 82 the module can build: its length byte counts both
// sub-options with their two-byte headers.
constexpr size_t kOp82PayloadMax = 255;

struct PortConfig {
    std::string name;            // as written: "1/0/3", "po1"
    up handle = UP_INVALID;
    uint16_t vlan = 0;           // access (untagged) VLAN
    std::vector<uint16_t> tagged;
    bool trust = false;
    bool verifyMac = false;
    uint8_t rate = 0;            // DHCP frames per second, 0 = no limit
    uint8_t declineRate = 0;
    bool option82 = false;
    uint8_t option82Policy = 0;  // 0 keep, 1 replace, 2 drop
    std::string circuitId;       // empty: VLAN-PORT circuit ID
    std::string remoteId;        // empty: switch-MAC remote ID
    std::string interface;       // live daemon only
    uint32_t line = 0;           // of the [[port]] table, for messages
    uint32_t nameLine = 0;       // of its name

    bool carries(uint16_t vid) const;
    bool tags(uint16_t vid) const;  // carried with an 802.1Q tag
};

struct SwitchConfig {
    std::string source;          // file name used in messages
    uint32_t unit = 1;
    bool hasMac = false;
    std::array<uint8_t, 6> mac{};
    std::vector<uint16_t> snoopingVlans;
    bool tableUpdates = true;
    bool ipFilter = false;
    bool arpDefend = false;
    bool dropIpv6 = false;       // IPv6 from untrusted ports of snooped VLANs (live only)
    bool debug = false;
    uint32_t debugLevel = 0;
    // Live daemon only: who switches the frames. The kernel's bridge (the
    // daemon traps DHCP and installs filters) or the daemon itself.
    enum class Dataplane { Bridge, User };
    Dataplane dataplane = Dataplane::Bridge;
    std::string bridge;          // empty: the bridge the ports are members of
    std::vector<PortConfig> ports;

    const PortConfig* port(up handle) const;  // nullptr when not configured
    const PortConfig* port(const std::string& name) const;
};

// Port name to handle: "U/S/P" (physical) or "poN" (port channel), with the
// ranges of this switch family (slot 0, ports 1..64, port channels 1..15).
// False when the text names no port.
bool parsePortName(const std::string& text, up* handle);

// Whether the module can handle frames received on a port of this unit: it
// finds a frame's receive port by walking the first kReceiveWalkIndexes flat
// port indexes (64 per unit from unit 1, then the port channels). False with
// why (one phrase) for a port of another unit or one the walk never reaches.
constexpr uint32_t kReceiveWalkIndexes = 79;
bool receivePortReachable(uint32_t unit, up handle, std::string* why);

// Parses and checks a whole configuration. On failure returns false and sets
// error to one line "SOURCE:LINE: KEY: what is wrong".
bool parseSwitchConfig(const std::string& text, const std::string& source, SwitchConfig& out,
                       std::string& error);
bool loadSwitchConfig(const std::string& path, SwitchConfig& out, std::string& error);

// The snooping configuration record the platform hands the module for a port.
DhcpSnoopPortCfg snoopRecord(const PortConfig& port);

std::string macText(const std::array<uint8_t, 6>& mac);
std::string policyText(uint8_t policy);

}  // namespace swcfg
