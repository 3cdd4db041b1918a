// What the metrics read beyond the counters: how full the module's tables,
// the packet pool and the main queue are, and the latency histogram.
#include <map>

#include "platform/linux/live_internal.h"
#include "snooping/dhcpSnoopInternal.h"

namespace live {

namespace {

// Seconds: from a few microseconds (a frame sent on at once) to a second
// (a module far behind).
const std::vector<double> kLatencyBoundsSec = {5e-6,   1e-5,   2.5e-5, 5e-5, 1e-4, 2.5e-4, 5e-4, 1e-3,
                                               2.5e-3, 5e-3,   1e-2,   2.5e-2, 5e-2, 0.1,  0.25, 1.0};

}  // namespace

LatencyDistribution latencyDistribution() { return core::latencyDistribution(kLatencyBoundsSec); }

Occupancy occupancy()
{
    Occupancy o;
    std::vector<std::pair<up, std::string>> ports = core::portHandles();
    for (const auto& p : ports)
        o.pendingByPort[p.second] = 0;
    // The module links its request table only under this lock; without it
    // (not started) there is nothing pending.
    if (requestTable != nullptr && upMutexId != nullptr && pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER) == 0) {
        std::map<up, uint32_t> byHandle;
        uint32_t n = 0;
        for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; ++b)
            for (const DhcpSnoopElement* e = requestTable[b]; e != nullptr && n < DHCP_SNOOP_POOL_SIZE;
                 e = e->next, ++n)
                ++byHandle[e->up];
        pal_mutex_give_int(upMutexId);
        o.pendingRequests = n;
        for (const auto& p : ports) {
            auto it = byHandle.find(p.first);
            if (it != byHandle.end())
                o.pendingByPort[p.second] = it->second;
        }
    }
    o.elementsInUse = dhcpSnoopMallocCount();
    o.elementPool = DHCP_SNOOP_POOL_SIZE;
    o.packetBuffersInUse = (uint32_t)core::poolBuffersInUse();
    o.packetPool = (uint32_t)core::poolBuffers();
    runtime::queueDepth(DHCP_SNOOP_QUEUE_NAME, &o.mainQueueWaiting, &o.mainQueueCapacity);
    return o;
}

}  // namespace live
