// Flat port indexes, port-list bits and port texts of the switch family:
// what every platform's port-handle calls (the simulation, the live
// platform, the benchmark's counting platform) compute the same way.
// Host-side helper shared by the platform implementations; the module never
// includes it.
#pragma once

#include <stdint.h>

#include "platform/port.h"

namespace portindex {

// Each unit owns 64 indexes for its physical ports; the port channels
// (at most 15) follow the physical ports of the highest unit.
constexpr uint32_t kPortsPerUnit = 64;
constexpr uint32_t kMaxPortChannels = 15;

// Running indexes (from 0) of a stack whose highest unit is maxUnit.
uint32_t count(uint32_t maxUnit);
// The handle of a running index; UP_INVALID past the last one.
up handleOf(uint32_t index, uint32_t maxUnit);
// inner_up_from_index: flag 1, a running index from 0; flag 0, a port index
// from 1 (0 gives UP_INVALID). 1 for a null handle, else 0.
uint32_t fromIndex(up* handle, uint32_t index, uint32_t flag, uint32_t maxUnit);
// First index of a unit, and of a slot's ports within a unit.
uint32_t unitBase(uint32_t unit);
uint32_t slotBase(uint32_t slot);

// A physical port on slot 0 numbered 1..ports (the unit is the caller's to
// check); a port channel numbered 1..channels.
bool validPhysical(up handle, uint32_t ports);
bool validChannel(up handle, uint32_t channels);

// Word (0..5) and bit of a port in a six-word port list; false when the port
// has no place there (another kind, unit 0, channel 0, a unit past 2).
bool bit(up handle, uint32_t* word, uint32_t* bit);
bool inList(const uint32_t words[6], up handle);
void addToList(uint32_t words[6], up handle);

// "U/S/P", "poN" or "unknown" into text (UP_STR_BUF bytes).
void text(up handle, char* out);

}  // namespace portindex
