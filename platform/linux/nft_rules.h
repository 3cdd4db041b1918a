// The bridge data plane's nftables table as text: the rules that keep DHCP
// from the kernel's bridge and hold the source guard, and the set elements of
// the bindings. Text only (no library, no socket), so it builds and is tested
// on every target; nft_table.* hands it to libnftables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace live {
namespace nft {

// The table carries the daemon's name, so an operator knows whose it is.
constexpr const char* kTable = "dhcpsnoopd";
// Bound sources: interface . source MAC . IPv4 address.
constexpr const char* kBoundSet = "bound";

struct Port {
    size_t index = 0;       // into the configuration's ports: names the chain and counter
    std::string ifname;
    bool trusted = false;
    bool snooped = false;   // carries a snooped VLAN
    bool host = false;      // the bridge device itself: what the host sends is trapped
    int logGroup = -1;      // where its trapped DHCP goes to the daemon (nfnetlink_log), -1: none
};

struct Ruleset {
    std::vector<Port> ports;
    bool ipFilter = false;
    bool arpDefend = false;
    bool dropIpv6 = false;  // IPv6 from untrusted ports: the bindings do not cover it
    // The bridge end of the host's veth pair, empty without a host port:
    // what enters there goes up to the host and is never forwarded.
    std::string hostBridgeEnd;
};

struct Element {
    std::string ifname;
    uint8_t mac[6] = {0, 0, 0, 0, 0, 0};
    uint8_t ip[4] = {0, 0, 0, 0};

    bool operator<(const Element& o) const;
    bool operator==(const Element& o) const;
};

// An interface name nftables text can carry between quotes: what the kernel
// allows (1..15 bytes, no '/', ':' or white space) without '"' or '\\'.
bool quotableIfname(const std::string& name);

// "sw3" . 02:00:c6:12:00:03 . 198.18.0.100
std::string elementText(const Element& e);
// The named counter of a port's refused frames.
std::string counterName(size_t portIndex);

// One buffer, one transaction: an old table of the same name (a killed
// daemon's, or the running one on a reload) goes and the new one comes with
// the given set elements, so no frame ever sees the bridge without rules.
std::string tableText(const Ruleset& r, const std::vector<Element>& elements);
std::string deleteTableText();
// Adds or deletes elements of the bound set; empty text for no elements.
std::string elementsText(bool add, const std::vector<Element>& elements);

// Reads "list counters table bridge dhcpsnoopd" output: packets by counter
// name. False when the text is not such a listing.
bool parseCounters(const std::string& listing, std::map<std::string, uint64_t>& packets);

}  // namespace nft
}  // namespace live
