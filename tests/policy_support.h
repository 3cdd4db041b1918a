// Helpers of the policy, rate-limit and scenario tests: hand-filled elements
// and packet descriptors around frames of the shared builder.
#pragma once

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "support/fixture.h"
#include "support/frame_builder.h"

namespace pol {

using Ip = std::array<uint8_t, 4>;

constexpr uint16_t kVlan = 10;
const sim::Mac kClientMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const sim::Mac kOtherMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
const Ip kClientIp = {192, 168, 1, 100};
constexpr uint32_t kXid = 0x12345678;

inline uint32_t ipWord(const Ip &ip)
{
    return fb::ip(ip[0], ip[1], ip[2], ip[3]);
}

inline fb::Params params(const Ip &ip = kClientIp, uint32_t xid = kXid, const sim::Mac &mac = kClientMac)
{
    fb::Params p;
    p.clientMac = mac;
    p.clientIp = ipWord(ip);
    p.xid = xid;
    return p;
}

// An element as the parser fills it.
inline DhcpSnoopElement *element(uint8_t type, const Ip &ip, up port, uint32_t xid = kXid,
                                 uint16_t vlan = kVlan, const sim::Mac &mac = kClientMac, uint32_t ttl = 64)
{
    DhcpSnoopElement *e = dhcpSnoopGetMem();
    EXPECT_NE(e, nullptr);
    if (e == nullptr)
        return nullptr;
    e->type = type;
    memcpy(e->clientIp, ip.data(), 4);
    e->vlan = vlan;
    memcpy(e->clientMac, mac.data(), 6);
    e->xid[0] = (uint8_t)(xid >> 24);
    e->xid[1] = (uint8_t)(xid >> 16);
    e->xid[2] = (uint8_t)(xid >> 8);
    e->xid[3] = (uint8_t)xid;
    e->up = port;
    e->ttl = ttl;
    e->isReuse = 1;
    return e;
}

// A trapped frame's descriptor; the frame comes from the packet pool.
struct Packet {
    DhcpSnoopPacket pkt;
    uint8_t *frame;

    Packet(up port, uint16_t vid, const fb::Bytes &bytes)
    {
        memset(&pkt, 0, sizeof pkt);
        pkt.ports = sim::portListOf(port);
        frame = sim::newFrame(bytes);
        pkt.frame = frame;
        pkt.frameLen = (uint32_t)bytes.size();
        pkt.vid = vid;
    }
    ~Packet() { dhcpReleasePacketPool(frame); }
    Packet(const Packet &) = delete;
    Packet &operator=(const Packet &) = delete;
};

inline DhcpSnoopElement keyOf(const Ip &ip, uint16_t vlan = kVlan, const sim::Mac &mac = kClientMac)
{
    DhcpSnoopElement k;
    memset(&k, 0, sizeof k);
    memcpy(k.clientIp, ip.data(), 4);
    k.vlan = vlan;
    memcpy(k.clientMac, mac.data(), 6);
    return k;
}

inline DhcpSnoopElement *find(uint32_t table, const Ip &ip = kClientIp, uint16_t vlan = kVlan,
                              const sim::Mac &mac = kClientMac)
{
    DhcpSnoopElement k = keyOf(ip, vlan, mac);
    return dhcpSnoopElementSearchByIpVlanMac(&k, table);
}

inline size_t countSyslog(uint32_t code)
{
    size_t n = 0;
    for (const auto &e : sim::syslog())
        if (e.code == code)
            ++n;
    return n;
}

// System-log entries of the rate limits (start-up writes one of its own).
inline std::vector<sim::SyslogEntry> flowSyslog()
{
    std::vector<sim::SyslogEntry> v;
    for (const auto &e : sim::syslog())
        if (e.code == DHCP_SNOOP_LOG_RATE_OVERFLOW || e.code == DHCP_SNOOP_LOG_DECLINE_OVERFLOW)
            v.push_back(e);
    return v;
}

// One-shot 30-second timers of the rate limits, in creation order.
inline std::vector<sim::TimerRec> flowTimers()
{
    std::vector<sim::TimerRec> v;
    for (const auto &t : sim::timers())
        if (t.name == DHCP_SNOOP_TIMER_NAME && t.period.sec == 30)
            v.push_back(t);
    return v;
}

inline bool hasErrorLine(const std::string &message)
{
    for (const auto &l : sim::logs())
        if (l.error && l.message() == message)
            return true;
    return false;
}

}  // namespace pol
