// The bridge data plane: the kernel's Linux bridge switches every frame; the
// daemon keeps DHCP from it (nftables, prerouting), receives DHCP through one
// trap socket per port (classic BPF: nothing else is copied), sends the
// module's frames out of the chosen port's interface, answers FDB look-ups
// from the bridge's FDB and holds the source guard in nftables sets.
// live.cpp hands start, run, stop, reconfigure and counters over to it when
// the configuration asks for it. Native builds only.
#pragma once

#include <string>
#include <vector>

#include "platform/linux/live.h"

namespace live {
namespace bridge {

// Checks the bridge and its members (every port's interface is a member;
// the bridge device itself is the host's port), opens the trap sockets,
// sets the core up and installs the table (replacing a stale one).
bool start(const swcfg::SwitchConfig& cfg, const Options& opt, std::string& error);
bool run(std::string& error);
// Stops the receive threads and removes the table: the bridge then switches
// DHCP and every source as a plain bridge does.
void stop();
// The core's reconfiguration and a new table in one transaction.
bool reconfigure(const swcfg::SwitchConfig& cfg, std::string& error);
bool active();
// Source-guard drops counted by nftables, added to the core's counters.
void addCounters(std::vector<PortCounters>& counters);

}  // namespace bridge
}  // namespace live
