// Replays received frames through the module on the simulated switch and
// collects what the switch did: frames sent per port, drops with reasons,
// bindings, system-log entries, the binding file. No capture-file I/O here
// (pcap_io.h does that), so the engine runs wherever the module does.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "tools/common/switch_config.h"

namespace replay {

// One capture: the frames received on one port.
struct Input {
    std::string port;   // port name as given
    std::string file;   // shown in messages and events.json (base name)
};

struct Frame {
    size_t input = 0;       // index into the inputs
    uint32_t number = 0;    // 1-based position in its capture
    int64_t tsUs = 0;       // capture time, microseconds since the epoch
    std::vector<uint8_t> bytes;
};

struct SentFrame {
    int64_t tsUs;           // capture time of the frame that caused it
    std::vector<uint8_t> bytes;
};

struct PortStats {
    uint64_t in = 0;        // every frame received
    uint64_t notDhcp = 0;   // received, not trapped: counted and ignored
    uint64_t out = 0;       // frames transmitted
    uint64_t dropped = 0;   // trapped frames that left on no port
    std::map<std::string, uint64_t> dropReasons;
};

struct Drop {
    size_t input;
    uint32_t number;
    int64_t tsUs;
    std::string port;
    std::string reason;
};

struct SyslogEvent {
    uint64_t timeMs;        // virtual clock when it was written
    uint32_t code;
    std::string text;
    std::string portName;   // argument 1 as text, when the code has one
    std::array<uint64_t, 6> args;
};

struct Binding {
    std::string ip;
    std::string mac;
    uint16_t vlan;
    std::string port;
    uint32_t lease;         // aging ticks (seconds) left; 0xFFFFFFFF never expires
};

struct Result {
    int64_t t0Us = 0;                          // earliest capture time
    uint64_t endMs = 0;                        // virtual clock at the end
    uint64_t frames = 0;
    std::map<up, PortStats> stats;             // configured ports and any that sent
    std::map<up, std::vector<SentFrame>> sent; // per egress port, in order
    std::vector<Drop> drops;
    std::vector<SyslogEvent> syslog;
    std::vector<Binding> bindings;
    bool bindingFileWritten = false;
    std::string bindingFile;                   // bytes of dhcpSnoop.cfg
};

struct Options {
    uint64_t drainMs = 0;          // virtual time to run on after the last frame
    std::ostream* debugOut = nullptr;  // module debug lines, when wanted
};

// Base name of the binding file the module writes.
std::string bindingFileName();

// Runs one replay: fresh module and simulated switch, configured by cfg.
// frames may come in any order (merged by time, ties in input order).
// False with error set when the inputs do not fit the configuration or the
// module does not start.
bool run(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
         std::vector<Frame> frames, const Options& opt, Result& result, std::string& error);

// Output renderings (deterministic: the tests compare them).
std::string bindingsJson(const Result& r);
std::string eventsJson(const Result& r, const std::vector<Input>& inputs);
std::string summary(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
                    const Result& r);

// Seconds since t0 as "S.uuuuuu".
std::string relTime(int64_t us);
// Egress pcap name of a port: "1/0/3" -> "1_0_3.pcap".
std::string portFileName(const std::string& portName);

}  // namespace replay
