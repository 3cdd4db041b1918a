// The live Linux platform's control side: what dhcpsnoopd uses to bring the
// software switch up around the module, and what its control interface
// reads. The module itself sees only the platform/*.h functions, which the
// same library implements.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tools/common/switch_config.h"

namespace live {

struct Options {
    std::string dataDir = "/var/lib/dhcpsnoop";  // the binding file lives here
    uint32_t packetPool = 1024;   // buffers for trapped DHCP frames
    uint32_t fdbSize = 8192;      // learned MAC addresses
    uint32_t fdbAgingSec = 300;
    uint32_t fdbPortLimit = 2048; // learned MAC addresses per port (0: no limit)
    uint32_t sourceGuardSize = 4096;
    uint32_t eventsKept = 256;    // system-log entries kept for `events`
    bool useSyslog = true;        // system-log entries also go to syslog(3)
};

// Checks privileges, opens every configured port's interface (AF_PACKET,
// promiscuous) and sets up the platform's state. Frames are not switched
// yet. On failure nothing stays open and error is one line naming the cause
// (missing interface, missing privileges, ...).
bool start(const swcfg::SwitchConfig& cfg, const Options& opt, std::string& error);
// Starts switching (one receive thread per port, the FDB aging). Call once
// dhcpSnoopInit has succeeded.
bool run(std::string& error);
// Stops switching and closes the ports; the module's tasks keep running.
void stop();
// A re-read configuration (SIGHUP). Port settings, VLANs and switch-wide
// flags change in place; the set of ports and their interfaces must stay the
// same (false and error otherwise, nothing changed). The caller then posts
// the configuration-change message to the module.
bool reconfigure(const swcfg::SwitchConfig& cfg, std::string& error);
// True when no binding-file save is queued or running, and no frame the
// module has taken could still queue one.
bool saveIdle();

// The binding file. The module rewrites it in place after each batch of
// binding changes; the platform keeps a last good copy beside it
// (dhcpSnoop.cfg.good, written atomically after every completed save) and
// puts that copy back at start when the file is not complete. After a failed
// save the module saves no more: restartSaving (SIGHUP) starts it again.
struct SaveStatus {
    std::string path;              // the binding file
    bool saving = true;            // false after a failed save
    uint64_t savesCompleted = 0;
    uint64_t saveFailures = 0;
    uint64_t failedMs = 0;         // Unix ms of the last failure, 0 none
    uint64_t lastGoodMs = 0;       // Unix ms of the last good copy, 0 none
    uint32_t lastGoodBindings = 0; // lines in it
    bool restoredAtStart = false;  // the file was replaced by its good copy
};
SaveStatus saveStatus();
// Starts the save task again after a failed save, with one save at once;
// false with why when saving was not stopped or the task cannot be made.
bool restartSaving(std::string& error);

// Codes of the platform's own system-log entries (beside the module's).
constexpr uint32_t kEventSaveFailed = 0x4C490001u;
constexpr uint32_t kEventSavesRestarted = 0x4C490002u;
constexpr uint32_t kEventBindingFileRestored = 0x4C490003u;

struct PortCounters {
    std::string name;       // "1/0/3"
    std::string interface;  // "veth3"
    uint64_t rxFrames = 0;
    uint64_t txFrames = 0;
    uint64_t trapped = 0;            // DHCP frames handed to the module
    uint64_t dhcpForwarded = 0;      // trapped frames the module sent on
    uint64_t sourceGuardDropped = 0; // IPv4/ARP frames refused by source guard
    // Trapped frames the module did not send on, and frames that could not
    // be trapped ("packet pool full", "queue full"), by reason.
    std::map<std::string, uint64_t> dropped;
    // Received frames that were not switched, by reason ("stacked VLAN tags",
    // "reserved group address", ...).
    std::map<std::string, uint64_t> discarded;
    // Frames that could not be sent out of this port, by reason.
    std::map<std::string, uint64_t> txFailed;
    // Source addresses not learned: the port's share of the FDB, or the
    // table, was full.
    uint64_t fdbNotLearned = 0;
};
std::vector<PortCounters> counters();

struct Event {
    uint64_t unixMs = 0;
    uint32_t code = 0;
    std::string text;  // readable, arguments filled in
};
std::vector<Event> events();  // oldest first

// Trapped frames from the trap to their first transmission by the module,
// in microseconds; frames the module dropped are not counted.
struct Latency {
    uint64_t frames = 0;
    double p50Us = 0;
    double p99Us = 0;
    double maxUs = 0;
};
// clear: start counting again after this read.
Latency latency(bool clear = false);

// The same frames since start (never cleared) as a histogram: at each bound
// (seconds), the frames certainly no slower than it. The bucket edges are
// 1/16 of a power of two apart: a frame within that of a bound may be
// counted at the next one.
struct LatencyDistribution {
    std::vector<double> boundsSec;
    std::vector<uint64_t> atMost;  // cumulative, one per bound
    uint64_t count = 0;
    double sumSec = 0;
};
LatencyDistribution latencyDistribution();

// How full the module's and the platform's fixed resources are now.
struct Occupancy {
    // Requests the module holds for an answer: in all, and per port name.
    uint32_t pendingRequests = 0;
    std::map<std::string, uint32_t> pendingByPort;
    uint32_t elementsInUse = 0;  // the module's pool of binding elements
    uint32_t elementPool = 0;
    uint32_t packetBuffersInUse = 0;  // trapped frames held
    uint32_t packetPool = 0;
    uint32_t mainQueueWaiting = 0;  // records in the module's main queue
    uint32_t mainQueueCapacity = 0;
};
Occupancy occupancy();

void setDebug(bool on);
bool debug();

// Live events for `dhcpsnoopctl monitor`: binding changes with their cause,
// rate-limit entries, dropped DHCP frames.
struct MonitorEvent {
    enum Kind { BindingAdded, BindingRemoved, RateLimit, Drop };
    Kind kind = Drop;
    uint64_t unixMs = 0;
    std::array<uint8_t, 4> ip{};   // bindings
    std::array<uint8_t, 6> mac{};  // bindings; a drop: the frame's source
    uint16_t vlan = 0;             // bindings
    uint32_t lease = 0;            // an added binding: seconds, 0xFFFFFFFF never ends
    std::string port;              // "1/0/3"
    // Bindings: ACK, RELEASE, DECLINE, NAK (the frame that made the change),
    // aging, delete (the operator's), stack (another unit), file (the
    // binding file read at start), configuration.
    std::string cause;
    // A drop: the reason it is counted under; a rate limit: DHCP or DECLINE.
    std::string reason;
};
// Called on the thread of the event (module tasks, receive threads): it must
// neither block nor call back into the platform. One sink at a time; an
// empty one stops the calls, also those under way when it returns.
using MonitorSink = std::function<void(const MonitorEvent&)>;
void setMonitorSink(MonitorSink sink);
// Events are composed only while someone listens.
void setMonitoring(bool on);

}  // namespace live
