// Runs the module's tasks on the simulation: what the three task loops do
// after each receive, one record at a time, driven by the caller.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/sim/sim.h"

namespace simrun {

// Starts the tasks the way their loops begin (the FDB cache task zeroes its
// cache). Call once after a successful dhcpSnoopInit.
void startTasks();

// Each handles every record waiting in its queue; returns how many.
size_t pumpMain();
size_t pumpFdb();
size_t pumpSave();       // does nothing once the save task has ended
bool saveTaskEnded();

// Pumps all three queues until none has a record left.
void runUntilIdle();

// Moves the virtual clock, firing timers at their times and running the
// tasks after each firing.
void advance(uint64_t ms);

// Posts a trapped frame as the switch's packet path does: a type-0 record
// with the receive port's bit, a packet-pool copy of bytes, its length and
// the VLAN. Returns the result of dhcpSnoopSendMsgToMainQueue; on failure the
// frame is given back to the pool, as the packet path would.
uint32_t inject(up port, uint16_t vid, const std::vector<uint8_t>& bytes);
uint32_t inject(up port, uint16_t vid, const uint8_t* bytes, size_t len);
// inject, then runUntilIdle.
uint32_t receive(up port, uint16_t vid, const std::vector<uint8_t>& bytes);

}  // namespace simrun
