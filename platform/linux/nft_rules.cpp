// The bridge data plane's nftables table as text (see nft_rules.h).
#include "platform/linux/nft_rules.h"

#include <cstdio>
#include <cstring>
#include <sstream>

namespace live {
namespace nft {

bool Element::operator<(const Element& o) const
{
    if (ifname != o.ifname)
        return ifname < o.ifname;
    int m = memcmp(mac, o.mac, 6);
    if (m != 0)
        return m < 0;
    return memcmp(ip, o.ip, 4) < 0;
}

bool Element::operator==(const Element& o) const
{
    return ifname == o.ifname && memcmp(mac, o.mac, 6) == 0 && memcmp(ip, o.ip, 4) == 0;
}

bool quotableIfname(const std::string& name)
{
    if (name.empty() || name.size() > 15 || name == "." || name == "..")
        return false;
    for (unsigned char ch : name)
        if (ch <= ' ' || ch >= 0x7F || ch == '/' || ch == ':' || ch == '"' || ch == '\\')
            return false;
    return true;
}

std::string elementText(const Element& e)
{
    char buf[96];
    snprintf(buf, sizeof buf, " . %02x:%02x:%02x:%02x:%02x:%02x . %u.%u.%u.%u", e.mac[0], e.mac[1],
             e.mac[2], e.mac[3], e.mac[4], e.mac[5], e.ip[0], e.ip[1], e.ip[2], e.ip[3]);
    return "\"" + e.ifname + "\"" + buf;
}

std::string counterName(size_t portIndex) { return "sg_p" + std::to_string(portIndex + 1); }

namespace {

std::string chainName(size_t portIndex) { return "port_p" + std::to_string(portIndex + 1); }

// 802.3 frames carry a length, not a type, at offset 12; SNAP's header
// follows at 14 (AA AA 03, OUI 0, then the type at 20). Offsets in bits.
const char* kSnap = "ether type <= 0x05dc @ll,112,48 0xaaaa03000000";

std::string llcChainName(size_t portIndex) { return "llc_p" + std::to_string(portIndex + 1); }

// Every frame of the port passes here, so the common cases come first and
// meet as few expressions as can be: IPv4 meets the DHCP drop and (on a
// guarded port) the set look-up, nothing else. 802.3 frames cannot match
// any rule of Ethernet II types, so their rules wait in a chain of their
// own behind one comparison.
void portChain(std::ostringstream& o, const Ruleset& r, const Port& p)
{
    std::string count = " counter name \"" + counterName(p.index) + "\" drop\n";
    bool guard = !p.trusted && (r.ipFilter || r.arpDefend || r.dropIpv6);
    // Logged to the daemon's group, the frame whole: the daemon's only copy.
    std::string trap = p.logGroup >= 0 ? " log group " + std::to_string(p.logGroup) + " drop\n" : " drop\n";
    o << "\tchain " << chainName(p.index) << " {\n";
    // DHCP goes to the daemon only: untagged or 802.1Q-tagged (the kernel
    // takes the tag off before the hook). Dropped before the bridge learns
    // from it.
    o << "\t\tmeta protocol ip ip protocol udp udp dport 67-68" << trap;
    // The common case: IPv4 from a bound source. (An 802.1ad tag is off
    // the frame by now; a bound source gains nothing by one.)
    if (!p.trusted && r.ipFilter)
        o << "\t\tmeta protocol ip iif . ether saddr . ip saddr @" << kBoundSet << " accept\n";
    o << "\t\tether type <= 0x05dc jump " << llcChainName(p.index) << "\n";
    if (guard) {
        // What would carry IPv4, ARP or IPv6 past the rules below.
        o << "\t\tether type 8021ad" << count;
        o << "\t\tvlan type { 8021q, 8021ad }" << count;
    }
    if (!p.trusted && r.dropIpv6)
        o << "\t\tmeta protocol ip6" << count;
    if (!p.trusted && r.ipFilter)
        o << "\t\tmeta protocol ip" << count;
    if (!p.trusted && r.arpDefend) {
        o << "\t\tmeta protocol arp arp htype != 1" << count;
        o << "\t\tmeta protocol arp arp ptype != ip" << count;
        o << "\t\tmeta protocol arp arp hlen != 6" << count;
        o << "\t\tmeta protocol arp arp plen != 4" << count;
        // A probe claims no address: a client checks the address its ACK
        // gave it, so a probe passes only for the sender's own binding (one
        // for anyone else's could only make that client give up its lease).
        o << "\t\tmeta protocol arp arp saddr ip 0.0.0.0 iif . ether saddr . arp daddr ip @" << kBoundSet
          << " iif . arp saddr ether . arp daddr ip @" << kBoundSet << " accept\n";
        // The sender MAC must be the frame's source too: both are looked up.
        o << "\t\tmeta protocol arp iif . ether saddr . arp saddr ip @" << kBoundSet
          << " iif . arp saddr ether . arp saddr ip @" << kBoundSet << " accept\n";
        o << "\t\tmeta protocol arp" << count;
    }
    o << "\t}\n";
    // 802.3: DHCP in SNAP as the module takes it.
    o << "\tchain " << llcChainName(p.index) << " {\n";
    o << "\t\t" << kSnap << " @ll,160,16 0x0800 @ll,176,8 0x45 @ll,248,8 17 @ll,352,16 { 67, 68 }" << trap;
    // With IP options the ports cannot be found at a fixed offset: hosts
    // never send such frames, and one could hide DHCP. The module looks.
    o << "\t\t" << kSnap << " @ll,160,16 0x0800 @ll,176,4 4 @ll,180,4 != 5 @ll,248,8 17" << trap;
    if (guard)
        o << "\t\t" << kSnap << " @ll,160,16 { 0x0800, 0x0806, 0x86dd }" << count;
    o << "\t}\n";
}

}  // namespace

std::string tableText(const Ruleset& r, const std::vector<Element>& elements)
{
    std::ostringstream o;
    // Made first so the delete never fails: there may be no old table.
    o << "table bridge " << kTable << " {\n}\n";
    o << "delete table bridge " << kTable << "\n";
    o << "table bridge " << kTable << " {\n";
    o << "\tset " << kBoundSet << " {\n\t\ttype iface_index . ether_addr . ipv4_addr\n";
    if (!elements.empty()) {
        o << "\t\telements = { ";
        for (size_t i = 0; i < elements.size(); ++i)
            o << (i ? ",\n\t\t\t" : "") << elementText(elements[i]);
        o << " }\n";
    }
    o << "\t}\n";
    for (const Port& p : r.ports)
        if (p.snooped && !p.host)
            o << "\tcounter " << counterName(p.index) << " {\n\t}\n";
    // Ahead of everything else in prerouting: a DHCP frame must not even
    // teach the bridge its source.
    // One look-up finds the port's chain, however many ports there are.
    o << "\tchain prerouting {\n\t\ttype filter hook prerouting priority -300; policy accept;\n";
    std::string map;
    bool ipGuard = false;
    for (const Port& p : r.ports)
        if (p.snooped && !p.host) {
            map += (map.empty() ? "" : ", ") + std::string("\"") + p.ifname + "\" : jump " + chainName(p.index);
            ipGuard = ipGuard || (!p.trusted && r.ipFilter);
        }
    // Nearly every frame is IPv4 from a bound source: accepted here with
    // one look-up, before the port's chain is even found. DHCP and what
    // has no transport ports (fragments) go on to the port's chain. (Any
    // protocol's ports 67-68 do: the chain looks closer.)
    if (ipGuard)
        o << "\t\tmeta protocol ip iif . ether saddr . ip saddr @" << kBoundSet << " th dport != 67-68 accept\n";
    if (!map.empty())
        o << "\t\tiif vmap { " << map << " }\n";
    o << "\t}\n";
    bool host = false;
    for (const Port& p : r.ports)
        host = host || (p.snooped && p.host);
    if (host) {
        // What the host sends through the bridge: its DHCP is trapped on the
        // bridge device and sent on by the module.
        o << "\tchain output {\n\t\ttype filter hook output priority -300; policy accept;\n";
        o << "\t\tmeta protocol ip ip protocol udp udp dport { 67, 68 } drop\n";
        o << "\t}\n";
    }
    if (!r.hostBridgeEnd.empty()) {
        // The module's frames for the host enter the bridge there: a
        // broadcast would be flooded to every port again. Delivered to the
        // host (input), dropped on the way anywhere else. Learning and
        // flooding are off on that port, so nothing else comes this way.
        o << "\tchain forward {\n\t\ttype filter hook forward priority -300; policy accept;\n";
        o << "\t\tiifname \"" << r.hostBridgeEnd << "\" drop\n";
        o << "\t}\n";
    }
    for (const Port& p : r.ports)
        if (p.snooped && !p.host)
            portChain(o, r, p);
    o << "}\n";
    return o.str();
}

std::string deleteTableText() { return std::string("delete table bridge ") + kTable + "\n"; }

std::string elementsText(bool add, const std::vector<Element>& elements)
{
    if (elements.empty())
        return std::string();
    std::ostringstream o;
    o << (add ? "add" : "delete") << " element bridge " << kTable << " " << kBoundSet << " { ";
    for (size_t i = 0; i < elements.size(); ++i)
        o << (i ? ", " : "") << elementText(elements[i]);
    o << " }\n";
    return o.str();
}

bool parseCounters(const std::string& listing, std::map<std::string, uint64_t>& packets)
{
    std::istringstream in(listing);
    std::string line, current;
    bool table = false;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::string w;
        if (!(words >> w))
            continue;
        if (w == "table") {
            table = true;
        } else if (w == "counter") {
            if (!(words >> current))
                return false;
        } else if (w == "packets" && !current.empty()) {
            unsigned long long n = 0;
            std::string bytes;
            if (!(words >> n))
                return false;
            packets[current] = (uint64_t)n;
            current.clear();
        }
    }
    return table;
}

}  // namespace nft
}  // namespace live
