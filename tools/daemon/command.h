// The commands of the control interface: checking their words (the same
// code in dhcpsnoopctl, which refuses a bad command before it connects, and
// in the daemon, which trusts no client) and writing their answers as a table
// or as one JSON document.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/linux/live.h"

namespace ctl {

// Seconds left of a lease that never ends.
constexpr uint32_t kLeaseForever = 0xFFFFFFFFu;

struct BindingKey {
    std::array<uint8_t, 4> ip{};
    uint16_t vlan = 0;
    std::array<uint8_t, 6> mac{};
};

struct Binding {
    std::array<uint8_t, 4> ip{};
    std::array<uint8_t, 6> mac{};
    uint16_t vlan = 0;
    std::string port;   // "1/0/3"
    uint32_t lease = 0; // seconds left, kLeaseForever
};

struct Command {
    enum Kind { Bindings, Delete, Debug, DebugLevel, Counters, Events, Latency, Status, Metrics, Monitor } kind = Bindings;
    bool json = false;
    BindingKey key;        // Delete
    bool on = false;       // Debug
    uint32_t level = 0;    // DebugLevel: bits 1 and 2
    bool set = false;      // DebugLevel: set (true) or clear the bits
    bool clear = false;    // Latency: start counting again
};

// Each false return sets error to one line naming the bad word.
bool parseIp(const std::string& text, std::array<uint8_t, 4>& ip, std::string& error);
bool parseVlan(const std::string& text, uint16_t& vlan, std::string& error);
bool parseMac(const std::string& text, std::array<uint8_t, 6>& mac, std::string& error);
bool parseLevel(const std::string& text, uint32_t& level, std::string& error);
bool parseCommand(const std::vector<std::string>& words, Command& cmd, std::string& error);

std::string ipText(const std::array<uint8_t, 4>& ip);
std::string macText(const std::array<uint8_t, 6>& mac);  // lower case, colons
// "2026-11-22T21:40:01Z"
std::string utcText(uint64_t unixMs);

// Bindings in a stable order (VLAN, then IP).
void sortBindings(std::vector<Binding>& bindings);
std::string bindingsJson(const std::vector<Binding>& bindings);
std::string bindingsTable(const std::vector<Binding>& bindings);
std::string countersJson(const std::vector<live::PortCounters>& counters);
std::string countersTable(const std::vector<live::PortCounters>& counters);
std::string eventsJson(const std::vector<live::Event>& events);
std::string eventsTable(const std::vector<live::Event>& events);
std::string latencyJson(const live::Latency& latency);
std::string latencyTable(const live::Latency& latency);
std::string statusJson(const live::SaveStatus& status);
std::string statusTable(const live::SaveStatus& status);

struct Reply {
    bool ok = false;
    std::string body;  // the answer, or one line saying why the command was refused
};

// What the daemon does for the commands. Every member must be set.
struct Backend {
    std::function<bool(std::vector<Binding>&, std::string&)> bindings;
    // Posts the removal; false and why when it could not be posted.
    std::function<bool(const BindingKey&, std::string&)> remove;
    std::function<void(bool)> setDebug;
    // The module's setter: 0 on success.
    std::function<uint32_t(uint32_t level, uint32_t flag)> setDebugLevel;
    std::function<std::vector<live::PortCounters>()> counters;
    std::function<std::vector<live::Event>()> events;
    // Trap-to-transmit latency of the frames so far; clear: start again.
    std::function<live::Latency(bool clear)> latency;
    std::function<live::SaveStatus()> saveStatus;
    // For metrics; may be left unset.
    std::function<live::Occupancy()> occupancy;
    std::function<live::LatencyDistribution()> latencyDistribution;
};

// Checks the words again and runs the command.
Reply runCommand(const std::vector<std::string>& words, const Backend& backend);

}  // namespace ctl
