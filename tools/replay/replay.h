// Replays received frames through the module on the simulated switch and
// reports what the switch did as it happens: frames sent per port, drops
// with reasons, system-log entries; at the end the bindings and the binding
// file. Frames stream through one at a time: nothing here grows with their
// number. No capture-file I/O here (pcap_io.h does that), so the engine runs
// wherever the module does.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
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

// A received frame as its source hands it over: the bytes belong to the
// source and stay valid until its next call.
struct FrameRef {
    uint32_t number = 0;        // 1-based position in its capture
    int64_t tsUs = 0;           // capture time, microseconds since the epoch
    const uint8_t* data = nullptr;
    size_t len = 0;
};

// The frames of one capture, in capture order.
class Source {
public:
    virtual ~Source() = default;
    // True with f set; false at the end, or on a read error with error set.
    virtual bool next(FrameRef& f, std::string& error) = 0;
};

// Capture times that fit every sum and difference the replay makes: 0 up to
// about 146,000 years after the epoch.
constexpr int64_t kMaxCaptureTimeUs = INT64_MAX / 2;

// A frame held in memory (tests; builds without capture files).
struct Frame {
    size_t input = 0;       // index into the inputs
    uint32_t number = 0;    // 1-based position in its capture
    int64_t tsUs = 0;
    std::vector<uint8_t> bytes;
};

// Frames of one input from memory, in time order (ties in the order given).
class MemorySource : public Source {
public:
    explicit MemorySource(std::vector<Frame> frames);
    bool next(FrameRef& f, std::string& error) override;

private:
    std::vector<Frame> frames_;
    size_t at_ = 0;
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

// Where the run's outputs go as they happen. A false return ends the run
// with error set.
class Output {
public:
    virtual ~Output() = default;
    // Before anything else, with the capture time drops are timed from.
    virtual bool begin(int64_t t0Us, std::string& error)
    {
        (void)t0Us;
        (void)error;
        return true;
    }
    // A frame leaving port, with the tag it leaves with.
    virtual bool frameSent(up port, int64_t tsUs, const uint8_t* bytes, size_t len,
                           std::string& error) = 0;
    virtual bool frameDropped(const Drop& d, std::string& error) = 0;
    virtual bool syslogEntry(const SyslogEvent& e, std::string& error) = 0;
};

// Keeps every output (tests).
class MemoryOutput : public Output {
public:
    bool frameSent(up port, int64_t tsUs, const uint8_t* bytes, size_t len,
                   std::string& error) override;
    bool frameDropped(const Drop& d, std::string& error) override;
    bool syslogEntry(const SyslogEvent& e, std::string& error) override;

    std::map<up, std::vector<SentFrame>> sent;  // per egress port, in order
    std::vector<Drop> drops;
    std::vector<SyslogEvent> syslog;
};

// A switch clock that followed the capture's stamps blindly could be made to
// fire billions of ticks: a gap between two frames moves it on by a day at
// most, and it stops at a year (beyond what --drain allows).
constexpr uint64_t kMaxGapMs = 86400ull * 1000;
constexpr uint64_t kMaxClockMs = 366ull * 86400 * 1000;

struct Result {
    enum class Failure { none, setup, capture, output };
    Failure failure = Failure::none;           // why run() returned false
    int64_t t0Us = 0;                          // earliest capture time
    uint64_t endMs = 0;                        // virtual clock at the end
    uint64_t frames = 0;
    std::map<up, PortStats> stats;             // configured ports and any that sent
    uint64_t dropCount = 0;
    std::vector<Drop> drops;                   // the first Options::listed
    uint64_t syslogCount = 0;
    std::vector<SyslogEvent> syslog;           // the first Options::listed
    std::vector<Binding> bindings;             // all (the module's pool bounds them)
    bool bindingFileWritten = false;
    std::string bindingFile;                   // bytes of dhcpSnoop.cfg
    // The captures' own times, where the switch clock could not follow them.
    uint64_t lateFrames = 0;      // stamped before a frame already replayed: replayed at its time
    uint64_t cutGaps = 0;         // gaps longer than kMaxGapMs, cut to it
    uint64_t longestGapMs = 0;    // the longest of them, as stamped
    uint64_t framesAtClockEnd = 0;  // replayed at kMaxClockMs, where the clock stopped
    uint64_t notLearned = 0;      // source addresses the full forwarding database could not take
};

struct Progress {
    uint64_t frames;
    uint64_t switchMs;
};

struct Options {
    uint64_t drainMs = 0;               // virtual time to run on after the last frame
    std::ostream* debugOut = nullptr;   // module debug lines, when wanted
    Output* output = nullptr;           // where frames, drops and events go as they happen
    size_t listed = 20;                 // drops and system-log entries kept in the result
    // What the clock made of odd capture times, a line at a time
    // ("dhcpsnoop-replay: FILE #N: ...").
    std::function<void(const std::string&)> note;
    // Called every few thousand frames.
    std::function<void(const Progress&)> progress;
    // Keep the simulation's recorders that the replay does not read (FDB
    // look-ups, resource events, released frames, spent timers, stack
    // records): a test
    // looks into them afterwards. Off, they are switched off.
    bool keepSimRecords = false;
};

// Base name of the binding file the module writes.
std::string bindingFileName();

// Runs one replay: fresh module and simulated switch, configured by cfg, the
// frames of sources[i] received on inputs[i].port, merged by time (ties in
// input order). False with error set (and result.failure) when the inputs do
// not fit the configuration, the module does not start, a source fails or
// an output cannot be written; the result then holds what was replayed.
bool run(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
         const std::vector<Source*>& sources, const Options& opt, Result& result,
         std::string& error);
// The same from frames in memory, in any order.
bool run(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
         std::vector<Frame> frames, const Options& opt, Result& result, std::string& error);

// Output renderings (deterministic: the tests compare them).
std::string bindingsJson(const Result& r);
// One element of events.json's lists each, as written there.
std::string syslogJson(const SyslogEvent& e);
std::string dropJson(const Drop& d, int64_t t0Us, const std::vector<Input>& inputs);
// events.json from lists held in memory.
std::string eventsJson(const std::vector<SyslogEvent>& syslog, const std::vector<Drop>& drops,
                       int64_t t0Us, const std::vector<Input>& inputs);
// events.json in pieces, for a writer that streams it: head(), the syslog
// elements each after before(first), middle(no syslog element), the drops
// likewise, tail(no drop).
namespace eventsjson {
const char* head();
const char* before(bool first);
const char* middle(bool syslogEmpty);
const char* tail(bool dropsEmpty);
}  // namespace eventsjson
// listed: at most this many dropped frames, bindings and system-log entries.
std::string summary(const swcfg::SwitchConfig& cfg, const std::vector<Input>& inputs,
                    const Result& r, size_t listed = 20);

// Seconds since t0 as "S.uuuuuu".
std::string relTime(int64_t us);
// Egress pcap name of a port: "1/0/3" -> "1_0_3.pcap".
std::string portFileName(const std::string& portName);

}  // namespace replay
