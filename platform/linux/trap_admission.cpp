#include "platform/linux/trap_admission.h"

#include <algorithm>

#include "snooping/dhcpSnoopInternal.h"

namespace live {
namespace trap {

void Admission::setUp(size_t ports, const Limits& limits)
{
    ports_.assign(ports, Port());
    total_ = 0;
    relimit(limits);
}

void Admission::relimit(const Limits& limits)
{
    limits_ = limits;
    frameRoom_ = limits.queueDepth > limits.reserve ? limits.queueDepth - limits.reserve : 0;
    size_t untrusted = std::max<size_t>(limits.untrustedPorts, 1);
    pendingShare_ = std::max<uint32_t>((uint32_t)(limits.elementPool / 2 / untrusted), kMinPendingShare);
}

uint32_t Admission::queueShare() const
{
    uint32_t left = frameRoom_ > total_ ? frameRoom_ - total_ : 0;
    return std::max(left, kMinQueueShare);
}

bool Admission::police(size_t port, uint8_t rate, uint64_t nowMs)
{
    if (port >= ports_.size())
        return false;
    Port& p = ports_[port];
    uint64_t perSecond = rate != 0 ? (uint64_t)rate * kRateMultiple : limits_.defaultRate;
    // One second's worth of frames may come at once, as the module's own
    // count allows its rate within any one second.
    uint64_t capacity = perSecond * 1000u;
    if (!p.started) {
        p.started = true;
        p.lastMs = nowMs;
        p.milliTokens = capacity;
    } else if (nowMs > p.lastMs) {
        uint64_t elapsed = nowMs - p.lastMs;
        // Long idle: full, without overflowing the product.
        p.milliTokens = elapsed >= 1000u ? capacity : std::min(capacity, p.milliTokens + elapsed * perSecond);
        p.lastMs = nowMs;
    } else if (nowMs < p.lastMs) {
        p.lastMs = nowMs;  // a clock set back: start counting again from here
    }
    // A lowered rate takes effect at once.
    p.milliTokens = std::min(p.milliTokens, capacity);
    if (p.milliTokens < 1000u)
        return false;
    p.milliTokens -= 1000u;
    return true;
}

Verdict Admission::place(size_t port, bool capPending, uint32_t pending)
{
    if (port >= ports_.size())
        return Verdict::QueueShare;
    Port& p = ports_[port];
    if (total_ >= frameRoom_ || p.held >= queueShare())
        return Verdict::QueueShare;
    // Frames of the port still on their way may each file a request.
    if (capPending && (uint64_t)pending + p.held >= pendingShare_)
        return Verdict::PendingRequests;
    ++p.held;
    ++total_;
    return Verdict::Admit;
}

Verdict Admission::admit(size_t port, uint8_t rate, uint64_t nowMs, bool capPending, uint32_t pending)
{
    if (!police(port, rate, nowMs))
        return Verdict::Policer;
    return place(port, capPending, pending);
}

void Admission::released(size_t port)
{
    if (port >= ports_.size() || ports_[port].held == 0)
        return;
    --ports_[port].held;
    --total_;
}

bool pendingRequestsOf(uint32_t portHandle, uint32_t* count)
{
    *count = 0;
    if (requestTable == nullptr || upMutexId == nullptr)
        return false;
    // The module changes the links only under this lock.
    if (pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER) != 0)
        return false;
    uint32_t n = 0;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; ++b)
        for (const DhcpSnoopElement* e = requestTable[b]; e != nullptr && n < DHCP_SNOOP_POOL_SIZE; e = e->next)
            if (e->up == portHandle)
                ++n;
    pal_mutex_give_int(upMutexId);
    *count = n;
    return true;
}

}  // namespace trap
}  // namespace live
