// Inside the live platform: the socket-free switching core and the runtime
// hooks that live.cpp (sockets, threads) and the unit tests drive.
#pragma once

#include <syslog.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/live.h"
#include "snooping/dhcpSnoop.h"

namespace live {
namespace core {

// Largest frame taken from or given to an interface: a TCP super-frame of
// the kernel's offloads (64 KiB) with its Ethernet header and a tag.
constexpr size_t kMaxFrame = 65536 + 64;
// Bytes of one packet-pool buffer: a trapped frame must fit.
constexpr size_t kPoolBufferSize = 2048;

// What the kernel says about a frame's offloads (the virtio header of
// PACKET_VNET_HDR): a checksum still to be computed, or a super-frame the
// interface it leaves by, or the kernel, cuts into segments. Offsets count
// from the first byte of the frame as the core holds it, without a tag.
struct Offload {
    bool needsCsum = false;   // checksum over [csumStart, end) into csumStart + csumOffset
    uint16_t csumStart = 0;
    uint16_t csumOffset = 0;
    uint8_t gsoType = 0;      // 0: one frame; else the kernel's segmentation type
    uint16_t gsoSize = 0;
    uint16_t hdrLen = 0;
};

// Delivers one frame on a configured port (index into cfg.ports). tagVid >= 0:
// an 802.1Q tag with that VLAN goes in after the two MAC addresses. off, when
// given, is the frame's offload state (offsets without the tag). Returns 0
// when the interface took the frame, else the errno of the failure.
using Transmit = std::function<int(size_t port, const uint8_t* frame, size_t len, int32_t tagVid,
                                   const Offload* off)>;

// Sizes everything from opt and takes over cfg; no sockets. False with
// error when the configuration cannot be switched (ports without handles,
// sizes of zero).
bool setUp(const swcfg::SwitchConfig& cfg, const Options& opt, Transmit tx, std::string& error);
// Frees the pool and tables. Buffers the module still holds are lost to it.
void tearDown();
bool isUp();

// One frame received on a configured port. vlanTci < 0: no tag was stripped
// by the kernel; otherwise the stripped tag's TCI, and vlanTpid its TPID. A
// tag still in the frame is taken out in place, so the bytes are the core's
// to change. off: the kernel's offload state of the frame, if it gave one.
void receive(size_t port, uint8_t* frame, size_t len, int32_t vlanTci, uint16_t vlanTpid = 0x8100,
             const Offload* off = nullptr);
// A frame of the port that never reached the core (larger than the receive
// buffer, ...): counted as received and discarded for the reason.
void discard(size_t port, const char* reason, uint64_t count = 1);
// The reason counted for a failed send with this errno.
std::string sendFailure(int err);
// Removes the FDB entries not seen for the aging time.
void ageFdb();

// The bridge data plane (bridge.cpp): the kernel switches, its FDB answers
// the look-ups (port: index into cfg.ports), and every source-guard change
// is passed on to its filters. Set after setUp; tearDown forgets them.
using FdbLookup = std::function<bool(const uint8_t* mac, uint16_t vid, size_t* port)>;
using GuardChange = std::function<void(const SwQTableEntry& entry, bool added)>;
void setKernelPath(FdbLookup fdb, GuardChange guard);
// A frame of a trap socket: VLAN admission and the trap, nothing switched
// and nothing learned. Frames that are not DHCP are left alone.
void trapOnly(size_t port, uint8_t* frame, size_t len, int32_t vlanTci);
// A trapped frame too long for the packet pool of which the trap kept only
// the first len bytes (at least its link header, or nothing): counted as a
// whole one that trapOnly found too long.
void trapTooLong(size_t port, const uint8_t* head, size_t len);

// The port index of a configured port's handle; (size_t)-1 when none.
size_t portIndex(up handle);
bool reconfigure(const swcfg::SwitchConfig& cfg, std::string& error);
// The switch MAC when the configuration gives none (the first interface's).
void setFallbackMac(const uint8_t mac[6]);

std::vector<PortCounters> counters();
Latency latency(bool clear);

// Milliseconds of the monotonic clock the FDB ages by; tests replace it.
uint64_t nowMs();
void setClock(std::function<uint64_t()> clock);


// Trap-to-transmit latency since start, at the bounds asked.
LatencyDistribution latencyDistribution(const std::vector<double>& boundsSec);
// Every configured port's handle and name.
std::vector<std::pair<::up, std::string>> portHandles();
size_t poolBuffers();

// Leak checks for tests.
size_t poolBuffersInUse();
size_t badReleases();
size_t fdbCount();
// The longest chain of the FDB's hash table.
size_t fdbLongestChain();
size_t sourceGuardCount();

}  // namespace core

namespace runtime {

// Names the calling thread (15 characters kept). Threads of the platform
// are named so: a thread renamed otherwise after its first line would still
// be given its old name by prctl(PR_GET_NAME).
void nameThread(const char* name);
// Blocks of pal_alloc/pal_calloc not given back; blocks pal_free did not know.
size_t outstandingAllocs();
size_t badFrees();
// Where pal_file_path puts the module's files.
void setDataDir(const std::string& dir);
// The number of records waiting in a named queue, and whether its consumer
// is still working on the last record it took.
bool queueIdle(const char* name);
// Records waiting in the named queue and its capacity; false when there is
// no such queue.
bool queueDepth(const char* name, uint32_t* waiting, uint32_t* capacity);
// Posts one record to the named queue without waiting; false when full.
bool postByName(const char* name, const void* record, uint32_t size);
// The data plane's receive, run by the module's main task while its queue
// is empty: waits at most timeoutMs (-1: without limit) for its sockets or
// for wakeFd (an eventfd other senders to the queue write; the pump reads
// it), and posts what the sockets hold to the queue. Returns after a round
// with the number of frames it guesses are still waiting in the sockets
// (counted in the main task's backlog, see logging::startMainRecord).
using Pump = uint32_t (*)(int wakeFd, int timeoutMs);
// Sets the pump, or with nullptr removes it and returns once no task is
// inside it any more. False when the eventfd cannot be made.
bool setMainPump(Pump pump);
// Marks the switch application as started (isSwitchInited).

}  // namespace runtime

namespace persist {

// A binding file exactly as the module writes it, ended by its END line;
// *lines = its bindings.
bool fileComplete(const std::string& text, size_t* lines);
std::string mainPath();
std::string copyPath();
// At start, before the module loads: modes 0600, and the file restored from
// its good copy when it is not complete (or the copy brought up to the file).
void prepare(const std::string& dataDir);
// On the save task, back at its queue after a save: the good copy follows.
void saveCompleted();
// The save task ended: its save failed.
void saveTaskEnded();

}  // namespace persist

namespace logging {

// An event of the daemon's own, beside the module's system-log entries:
// kept for `events`, to syslog(3) at priority (LOG_ERR, LOG_WARNING, ...)
// when asked, and with Echo::Stderr also to standard error.
enum class Echo { None, Stderr };
void addEvent(uint32_t code, int priority, const std::string& text, Echo echo = Echo::None);

// Marks the switch application as started (isSwitchInited).
void setSwitchInited(bool on);
// System-log entries: kept (at most eventsKept), and to syslog(3) when asked.
void configure(bool useSyslog, uint32_t eventsKept);
void clearEvents();
// The codes of a port's interface gone or back (events to standard error
// too).
constexpr uint32_t kEventPortGone = 0x4CF00001u;
constexpr uint32_t kEventPortReopened = 0x6CF00002u;
// The calling thread is the module's main task: its debug lines are kept
// for naming the drop of the frame it works on.
void setMainTask(bool on);
bool onMainTask();
// The main task at work for the data plane (its pump) between records:
// nothing it logs there belongs to a record of the module.
class MainTaskAside {
public:
    MainTaskAside();
    ~MainTaskAside();
    MainTaskAside(const MainTaskAside&) = delete;
    MainTaskAside& operator=(const MainTaskAside&) = delete;

private:
    bool was_;
};
// The drop reason the main task's lines since the last call give; starts
// the next frame's lines.
std::string takeDropReason();
// Clears the main task's lines without naming anything.
void clearDropLines();
// The main task took a record with backlog others still waiting: its lines
// start afresh. With the operator's debug off, the module composes its
// debug lines only to name drops; while the main task is far behind (from
// kNamingOffBacklog records until it is back at kNamingOnBacklog) it is
// spared that work, and a frame it drops is counted as kUnnamedDrop.
void startMainRecord(uint32_t backlog);
constexpr uint32_t kNamingOffBacklog = 64;
constexpr uint32_t kNamingOnBacklog = 16;
extern const char* const kUnnamedDrop;

// The code of a port at its pending-request share.
constexpr uint32_t kEventPendingRequests = 0x4C2F0001u;

// Error lines to standard error with the operator's debug off: at most
// `burst` a second, so that a flood of bad frames cannot flood the log.
// allow() says whether a line at nowMs may be written; when a new second
// begins after lines were held back, *held is their number (else 0).
class ErrorLineLimit {
public:
    explicit ErrorLineLimit(uint32_t burst) : burst_(burst) {}
    bool allow(uint64_t nowMs, uint64_t* held);

private:
    uint32_t burst_;
    uint64_t windowStart_ = 0;
    uint32_t written_ = 0;
    uint64_t held_ = 0;
    bool started_ = false;
};
// Error lines written in one second before the rest are held back.
constexpr uint32_t kErrorLinesPerSecond = 20;

}  // namespace logging

namespace monitor {

// Whether anyone listens: everything below is skipped when not.
bool active();
// The main task took this record of its queue: the cause of the binding
// changes it makes until the next.
void mainRecord(const void* record, uint32_t size);
// A runtime record of the module (a binding filed or removed).
void bindingRecord(const uint8_t* record, uint32_t len);
// A DHCP frame that left on no port, and the rate-limit entries.
void drop(const std::string& port, const std::string& reason, const uint8_t* frame, size_t len);
void rateLimit(const std::string& port, bool decline);
// The DHCP message type (option 53) of an Ethernet frame, untagged or with
// one 802.1Q tag; 0 when it has none or is not a DHCP frame over IPv4/UDP.
uint8_t dhcpMessageType(const uint8_t* frame, size_t len);

}  // namespace monitor
}  // namespace live
