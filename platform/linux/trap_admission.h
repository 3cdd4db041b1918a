// Admission of trapped DHCP frames to the module's queue, as a switch's CPU
// path polices them before they reach the processor: per port a token
// bucket at a multiple of the port's configured rate, a share of the queue
// that shrinks as the queue fills, and a cap on the pending requests an
// untrusted port may leave in the module's element pool. What is left of
// the queue is kept for the timer and configuration messages. No locks, no
// clock of its own: the caller serialises and gives the time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace live {
namespace trap {

// Records of the queue that frames never take: the one-second tick, the
// per-port 30-second timers and configuration or removal messages always
// find room there.
constexpr uint32_t kControlReserve = 32;
// A port's frames are admitted at this multiple of its configured rate: the
// module still sees the excess, counts it and logs its overflow.
constexpr uint32_t kRateMultiple = 2;
// Frames a second for a port whose rate is 0 (no limit); above what the
// daemon handles, so only the queue share bounds such a port.
constexpr uint32_t kDefaultRate = 20000;
// Queue places a port may always hold, however full the queue.
constexpr uint32_t kMinQueueShare = 8;
// Pending requests an untrusted port may always hold.
constexpr uint32_t kMinPendingShare = 16;

enum class Verdict {
    Admit,
    Policer,          // over the port's admitted rate
    QueueShare,       // the port holds its share of the queue (or the queue its frames' room)
    PendingRequests,  // the port holds its share of pending requests
};

// The reason a refused frame is counted under.
constexpr const char* verdictText(Verdict v)
{
    return v == Verdict::Admit             ? "admitted"
           : v == Verdict::QueueShare      ? "trap policer: queue share"
           : v == Verdict::PendingRequests ? "trap policer: pending requests"
                                           : "trap policer";
}

struct Limits {
    uint32_t queueDepth = 512;      // records of the module's queue
    uint32_t reserve = kControlReserve;
    uint32_t defaultRate = kDefaultRate;
    uint32_t elementPool = 1024;    // the module's binding elements
    size_t untrustedPorts = 1;      // ports whose requests are capped
};

class Admission {
public:
    // Every port starts with a full bucket and nothing held.
    void setUp(size_t ports, const Limits& limits);
    // New limits (a reload); what ports hold and their buckets stay.
    void relimit(const Limits& limits);

    // Records frames may take: the queue without its reserve.
    uint32_t frameRoom() const { return frameRoom_; }
    // Pending requests one untrusted port may hold: together they never
    // take more than half of the element pool (at least kMinPendingShare).
    uint32_t pendingShare() const { return pendingShare_; }
    // The share of the queue a port may hold now: the room frames have
    // left, so one flooding port settles at half of it and a quiet port
    // always finds room; never below kMinQueueShare.
    uint32_t queueShare() const;

    // The rate policer alone: takes a token when one is there.
    bool police(size_t port, uint8_t rate, uint64_t nowMs);
    // Queue share and pending requests. pending: the port's requests the
    // module holds (ignored unless capped). On Admit the frame holds its
    // place until released().
    Verdict place(size_t port, bool capPending, uint32_t pending);
    // Both, policer first.
    Verdict admit(size_t port, uint8_t rate, uint64_t nowMs, bool capPending = false,
                  uint32_t pending = 0);
    // The frame left the queue and the module (or never got in).
    void released(size_t port);

    uint32_t held(size_t port) const { return port < ports_.size() ? ports_[port].held : 0; }
    uint32_t heldTotal() const { return total_; }

private:
    struct Port {
        uint64_t milliTokens = 0;  // thousandths of a frame
        uint64_t lastMs = 0;
        bool started = false;
        uint32_t held = 0;
    };
    std::vector<Port> ports_;
    Limits limits_;
    uint32_t frameRoom_ = 0;
    uint32_t pendingShare_ = kMinPendingShare;
    uint32_t total_ = 0;
};

// The requests the module holds pending for the port with this handle;
// false when the module's tables are not there (the module not started).
// Takes the module's table lock: never call it with another lock held.
bool pendingRequestsOf(uint32_t portHandle, uint32_t* count);

}  // namespace trap
}  // namespace live
