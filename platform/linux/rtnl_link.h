// The bridge data plane's way into the host: a veth pair of the daemon's own.
// One end is a port of the bridge that never learns and is never flooded to;
// the module's frames for the host's port are sent into the other end, so
// they enter the bridge as received frames and go up to the host's stack
// (the table drops them in the forward chain, so they reach nobody else).
// Messages are built apart from the socket, so the tests can read them
// without root. Native builds only (libmnl).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace live {
namespace rtnl {

// Reserved names: a pair of these names is the daemon's, replaced at start.
constexpr const char* kHostBridgeEnd = "dhcpsnoop-br";  // a member of the bridge
constexpr const char* kHostDaemonEnd = "dhcpsnoop-tx";  // the daemon sends here

using Message = std::vector<uint8_t>;

// The bridge end's MAC: a bridge takes the lowest of its ports' MACs as its
// own unless one was set, so a port of the daemon's must never be the
// lowest, or the host's MAC would change when the daemon starts (locally
// administered, unicast, the highest there is but one).
constexpr uint8_t kHostBridgeEndMac[6] = {0xfe, 0xff, 0xff, 0xff, 0xff, 0xfe};

// RTM_NEWLINK: the veth pair, down, name a member of master with
// kHostBridgeEndMac.
Message vethMessage(const std::string& name, const std::string& peer, int master);
// RTM_SETLINK, AF_BRIDGE: the bridge port learns nothing and is flooded no
// unicast, multicast or broadcast.
Message quietPortMessage(int ifindex);
// RTM_SETLINK: no IPv6 link-local address (nothing of its own is sent).
Message noIpv6AddressMessage(int ifindex);
// RTM_SETLINK: up.
Message upMessage(int ifindex);
// RTM_DELLINK by name.
Message deleteMessage(const std::string& name);
// RTM_SETLINK / RTM_DELLINK, AF_BRIDGE: one VLAN of a bridge port (a
// bridge that filters VLANs).
Message portVlanMessage(int ifindex, uint16_t vid, bool pvidUntagged, bool add);

struct HostPair {
    int bridgeEnd = 0;  // ifindexes
    int daemonEnd = 0;
};

// Deletes a pair left by a killed daemon, makes a new one on the bridge,
// quiet, up. With a bridge that filters VLANs the bridge end carries vlan
// untagged (as PVID) and tagged as listed, and nothing else.
bool makeHostPair(int bridge, bool vlanFiltering, uint16_t vlan, const std::vector<uint16_t>& tagged,
                  HostPair& out, std::string& error);
// Deletes the pair; false with error when it was there and stays.
bool deleteHostPair(std::string& error);

}  // namespace rtnl
}  // namespace live
