#include "support/traffic.h"

namespace traffic {

namespace {

const fb::Mac kServerMac = {0x02, 0x00, 0x5e, 0x00, 0x00, 0x01};

fb::Params paramsOf(uint32_t client)
{
    fb::Params p;
    p.clientMac = {0x02, 0x10, 0x00, (uint8_t)(client >> 16), (uint8_t)(client >> 8), (uint8_t)client};
    p.serverMac = kServerMac;
    p.clientIp = fb::ip(10, (uint8_t)(16 + (client >> 16)), (uint8_t)(client >> 8), (uint8_t)client);
    p.serverIp = fb::ip(10, 0, 0, 1);
    p.xid = 0x5eed0000u + client;
    p.lease = 86400;
    return p;
}

// Whether frame k of the run is DHCP: spread evenly at the given share.
bool isDhcpAt(uint64_t k, unsigned percent)
{
    return (k + 1) * percent / 100 > k * percent / 100;
}

}  // namespace

const char* switchToml()
{
    return R"([switch]
mac = "02:00:5e:00:ff:01"
snooping_vlans = [10]

[[port]]
name = "1/0/1"          # the DHCP server's uplink
vlan = 10
trust = true
option82 = true

[[port]]
name = "1/0/3"          # the clients
vlan = 10
option82 = true
)";
}

const char* portOf(size_t input) { return input == kServerInput ? "1/0/1" : "1/0/3"; }

Generator::Generator(const Spec& spec) : spec_(spec)
{
    for (uint32_t c = 0; c < spec_.clients; ++c) {
        fb::Params p = paramsOf(c);
        dhcp_.push_back({kClientInput, fb::discover(p).build()});
        dhcp_.push_back({kServerInput, fb::offer(p).build()});
        dhcp_.push_back({kClientInput, fb::requestSelecting(p).build()});
        dhcp_.push_back({kServerInput, fb::ack(p).build()});
        // Ordinary traffic: UDP both ways, TCP, ARP, IPv6.
        other_.push_back({kClientInput, fb::discover(p)
                                            .dstMac(kServerMac)
                                            .srcIp(p.clientIp)
                                            .dstIp(p.serverIp)
                                            .srcPort((uint16_t)(40000 + c % 20000))
                                            .dstPort(443)
                                            .build()});
        other_.push_back({kServerInput, fb::offer(p)
                                            .srcPort(443)
                                            .dstPort((uint16_t)(40000 + c % 20000))
                                            .build()});
        other_.push_back({kClientInput,
                          fb::discover(p).dstMac(kServerMac).srcIp(p.clientIp).protocol(6).build()});
        other_.push_back({kClientInput, fb::arp(fb::kArpRequest, p.clientMac, p.clientIp, p.serverIp)});
        other_.push_back({kServerInput, fb::offer(p).etherType(0x86DD).build()});
    }
}

bool Generator::next(size_t* input, int64_t* tsUs, const fb::Bytes** bytes)
{
    if (n_ >= spec_.frames)
        return false;
    const Made& m = isDhcpAt(n_, spec_.dhcpPercent) ? dhcp_[dhcpAt_++ % dhcp_.size()]
                                                    : other_[otherAt_++ % other_.size()];
    *input = m.input;
    *tsUs = spec_.startUs + (int64_t)(n_ * 1000000 / spec_.framesPerSecond);
    *bytes = &m.bytes;
    ++n_;
    return true;
}

Counts Generator::counts() const
{
    Counts c;
    uint64_t d = 0, o = 0;
    for (uint64_t k = 0; k < spec_.frames; ++k) {
        if (isDhcpAt(k, spec_.dhcpPercent)) {
            size_t in = dhcp_[d++ % dhcp_.size()].input;
            ++c.frames[in];
            ++c.dhcp[in];
        } else {
            ++c.frames[other_[o++ % other_.size()].input];
        }
    }
    return c;
}

uint64_t Generator::acks() const
{
    uint64_t d = 0;
    for (uint64_t k = 0; k < spec_.frames; ++k)
        if (isDhcpAt(k, spec_.dhcpPercent))
            ++d;
    // Every fourth DHCP frame of the sequence is an ACK.
    return d / 4;
}

}  // namespace traffic
