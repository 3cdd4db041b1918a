// The daemon's reads and writes of the running module, through its
// published entry points only (no peeking at its tables).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/daemon/command.h"

namespace ctl {

// The dynamic bindings, from the module's own bulk snapshot: the one read
// path the module offers that is safe while its tasks change the table.
bool readModuleBindings(std::vector<Binding>& out, std::string& error);
// The records of a snapshot buffer (head and 48-byte records); every read
// bounded by len.
bool decodeSnapshot(const uint8_t* data, uint32_t len, std::vector<Binding>& out, std::string& error);
// Posts the administrative removal of one binding to the module's queue.
bool postRemoval(const BindingKey& key, std::string& error);

}  // namespace ctl
