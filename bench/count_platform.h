// A platform that does only what it is asked and counts it: the cheapest
// implementation of every platform function, so that a benchmark measures
// the module's own work on the main task. Single-threaded: tasks are never
// started and timers never fire.
#pragma once

#include <cstdint>

#include "snooping/dhcpSnoop.h"

namespace cp {

struct Counters {
    uint64_t sent = 0;       // norvikPacketSend
    uint64_t released = 0;   // dhcpReleasePacketPool
    uint64_t fdbLookups = 0; // swFdbGetEntry
    uint64_t qtableAdds = 0;
    uint64_t qtableDels = 0;
    uint64_t runtimeSyncs = 0;
    uint64_t syslogs = 0;
    uint64_t timers = 0;
    uint64_t queueSends = 0;
    uint64_t queueFull = 0;
};

// Frees every queue and block and returns to the default switch: unit 1,
// 28 physical ports, 8 port channels, no VLAN snooped, every port untrusted
// with limits and option 82 off, table changes enabled, debug off.
void reset();
Counters& counters();
DhcpSnoopPortCfg& portCfg(up port);
void setVlanSnooping(uint16_t vid, bool on);
up physicalPort(uint32_t port);  // port of unit 1, slot 0
up portChannel(uint32_t number);
PortList portListOf(up port);
// Takes the oldest record of a queue without waiting; false when empty.
bool take(PalMsgQ q, void* buffer, uint32_t size);
PalMsgQ queueByName(const char* name);

}  // namespace cp
