// The user data plane against frames built to get past it: stacked and
// 802.1ad tags, IPv4 and ARP in 802.3/SNAP, ARP probes, IPv6 on guarded
// ports, spoofed sources that would move a station in the FDB, reserved
// multicast.
#include <cstring>

#include "live_fixture.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

const char* const kConfig = lt::kGuardedSwitch;

using namespace lt;

const uint32_t kLeased = fb::ip(198, 18, 0, 23);

class Guard : public LiveQueueTest {
protected:
    // The one frame trapped since the last call, as the module gets it.
    bool trappedOne(fb::Bytes* frame, uint16_t* vid)
    {
        DhcpSnoopMsg m;
        if (!takeMsg(m))
            return false;
        if (frame)
            *frame = fb::Bytes(m.packet.frame, m.packet.frame + m.packet.frameLen);
        if (vid)
            *vid = m.packet.vid;
        dhcpReleasePacketPool(m.packet.frame);
        DhcpSnoopMsg more;
        if (takeMsg(more)) {
            dhcpReleasePacketPool(more.packet.frame);
            ADD_FAILURE() << "more than one frame trapped";
        }
        return true;
    }

    void bind(uint32_t ip, const fb::Mac& m, uint16_t vlan, const std::string& p)
    {
        SwQTableEntry e = binding(ip, m, vlan, p);
        ASSERT_EQ(swQTableAdd(0, &e), 0u);
    }
};

// ---- stacked tags ---------------------------------------------------------------

TEST_F(Guard, DhcpBehindAPriorityTagTheKernelLeftIsTrappedAsItsInnerFrame)
{
    bringUp(kConfig);
    // The kernel took the outer tag (VLAN 10) off; a priority tag is still
    // in the frame: a rogue OFFER must not reach the clients switched.
    fb::Bytes offer = fb::offer().srcMac(mac(2)).build();
    rx("1/0/4", fb::addVlan(offer, 0), 10);
    fb::Bytes got;
    uint16_t vid = 0;
    ASSERT_TRUE(trappedOne(&got, &vid));
    EXPECT_EQ(got, offer);
    EXPECT_EQ(vid, 10);
    rx("1/0/2", fb::addVlan(fb::addVlan(offer, 0), 0));
    ASSERT_TRUE(trappedOne(&got, &vid));
    EXPECT_EQ(got, offer);
    EXPECT_EQ(vid, 10);
    EXPECT_TRUE(sent().empty()) << "DHCP is never switched";
    EXPECT_EQ(counters("1/0/4").trapped, 1u);
    EXPECT_EQ(counters("1/0/2").trapped, 1u);
}

TEST_F(Guard, AnInnerTagWithAVlanIsDroppedNeverSwitchedIntoTheOuterOne)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(9), kBroadcast, fb::ip(198, 19, 0, 9));
    // Outer VLAN 10 (in the frame or stripped by the kernel), inner 20.
    rx("1/0/4", fb::addVlan(fb::addVlan(f, 20), 10));
    rx("1/0/4", fb::addVlan(f, 20), 10);
    // A priority tag outside, a VLAN inside: from an access port of VLAN 10.
    rx("1/0/1", fb::addVlan(fb::addVlan(f, 20), 0));
    rx("1/0/1", fb::addVlan(f, 20), 0);
    // Nor a DHCP frame hidden so.
    rx("1/0/1", fb::addVlan(fb::addVlan(fb::offer().build(), 20), 0));
    EXPECT_TRUE(sent().empty());
    EXPECT_FALSE(trappedOne(nullptr, nullptr));
    EXPECT_EQ(live::core::fdbCount(), 0u) << "nothing learned from them";
}

TEST_F(Guard, An8021adOuterTagIsNotTakenForAn8021QOne)
{
    bringUp(kConfig);
    fb::Bytes offer = fb::offer().srcMac(mac(2)).build();
    rx("1/0/2", fb::addVlan(offer, 10, 0, fb::kTpid8021AD));
    rx("1/0/4", fb::addVlan(fb::addVlan(offer, 10), 10, 0, fb::kTpid8021AD));
    rx("1/0/4", fb::addVlan(plainIp(mac(9), kBroadcast, fb::ip(198, 19, 0, 9)), 20, 0, fb::kTpid8021AD));
    EXPECT_TRUE(sent().empty());
    EXPECT_FALSE(trappedOne(nullptr, nullptr));
}

TEST_F(Guard, SourceGuardLooksBehindAPriorityTag)
{
    bringUp(kConfig);
    fb::Bytes ipv4 = plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 99));
    fb::Bytes arpFrame = fb::arp(fb::kArpRequest, mac(2), fb::ip(198, 18, 0, 99), fb::ip(198, 18, 0, 1));
    rx("1/0/2", fb::addVlan(ipv4, 0), 0);
    rx("1/0/2", fb::addVlan(arpFrame, 0), 0);
    rx("1/0/2", fb::addVlan(fb::addVlan(ipv4, 0), 0));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 3u);
    // Bound: the same frames pass, the inner tag gone.
    bind(fb::ip(198, 18, 0, 99), mac(2), 10, "1/0/2");
    rx("1/0/2", fb::addVlan(ipv4, 0), 0);
    ASSERT_EQ(sent().size(), 3u);
    EXPECT_EQ(sent()[0].frame, ipv4);
}

// ---- IPv4 and ARP in 802.3/SNAP, ARP probes, IPv6 -----------------------------------

TEST_F(Guard, Ipv4AndArpInSnapAreCheckedLikeEthernetII)
{
    bringUp(kConfig);
    fb::Bytes ipv4 = fb::Frame().snap().srcMac(mac(2)).srcIp(fb::ip(198, 18, 0, 99)).dstPort(53).build();
    fb::Bytes arpFrame = fb::snapOf(fb::arp(fb::kArpRequest, mac(2), fb::ip(198, 18, 0, 99), fb::ip(198, 18, 0, 1)));
    // An OUI other than 0 (802.1H) carries the same EtherTypes.
    fb::Bytes tunnel = fb::snapOf(plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 99)), 0x0000f8);
    rx("1/0/2", ipv4);
    rx("1/0/2", arpFrame);
    rx("1/0/2", tunnel);
    rx("1/0/2", fb::addVlan(ipv4, 0));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 4u);
    bind(fb::ip(198, 18, 0, 99), mac(2), 10, "1/0/2");
    rx("1/0/2", ipv4);
    rx("1/0/2", arpFrame);
    EXPECT_EQ(sent().size(), 6u) << "bound: they pass";
    // Cut short: refused, never read past the end.
    fb::Bytes cut = arpFrame;
    fb::truncate(cut, 30);
    rx("1/0/2", cut);
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 5u);
}

TEST_F(Guard, AnArpProbePassesOnlyForTheSendersOwnBinding)
{
    bringUp(kConfig);
    // RFC 5227 probes (sender 0.0.0.0) follow the ACK: the binding is there.
    rx("1/0/2", fb::arp(fb::kArpRequest, mac(2), 0, kLeased));
    EXPECT_TRUE(sent().empty()) << "a probe for an address nobody leased it";
    bind(kLeased, mac(2), 10, "1/0/2");
    rx("1/0/2", fb::arp(fb::kArpRequest, mac(2), 0, kLeased));
    EXPECT_EQ(sent().size(), 3u);
    clearSent();
    // Another client's address, another port, a reply, a sender MAC that is
    // not the frame's source: refused.
    rx("1/0/2", fb::arp(fb::kArpRequest, mac(2), 0, fb::ip(198, 18, 0, 24)));
    rx("1/0/3", fb::arp(fb::kArpRequest, mac(2), 0, kLeased));
    rx("1/0/2", fb::arp(fb::kArpReply, mac(2), 0, kLeased));
    fb::Bytes other = fb::arp(fb::kArpRequest, mac(2), 0, kLeased);
    const fb::Mac seven = mac(7);
    fb::setBytes(other, 6, fb::Bytes(seven.begin(), seven.end()));
    rx("1/0/2", other);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 4u);
    EXPECT_EQ(counters("1/0/3").sourceGuardDropped, 1u);
}

TEST_F(Guard, ArpWhoseSenderIsNotTheFramesSourceIsRefused)
{
    bringUp(kConfig);
    bind(kLeased, mac(2), 10, "1/0/2");
    fb::Bytes f = fb::arp(fb::kArpReply, mac(2), kLeased, fb::ip(198, 18, 0, 1));
    const fb::Mac seven = mac(7);
    fb::setBytes(f, 6, fb::Bytes(seven.begin(), seven.end()));
    rx("1/0/2", f);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 1u);
}

TEST_F(Guard, Ipv6OnUntrustedPortsPassesUnlessTheSwitchSaysDrop)
{
    fb::Bytes v6 = fb::Frame().etherType(fb::kEtherTypeIpv6).srcMac(mac(2)).build();
    bringUp(kConfig);
    rx("1/0/2", v6);
    EXPECT_EQ(sent().size(), 3u) << "off by default: IPv6 is not guarded";
    live::core::tearDown();
    clearSent();
    std::string cfg = kConfig;
    cfg.replace(cfg.find("arp_defend = true"), 17, "arp_defend = true\ndrop_ipv6 = true");
    bringUp(cfg);
    rx("1/0/2", v6);
    rx("1/0/2", fb::snapOf(v6));
    rx("1/0/2", fb::addVlan(v6, 0));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 3u);
    // Trusted ports and VLANs without snooping: untouched.
    rx("1/0/1", v6);
    rx("1/0/5", v6);
    EXPECT_EQ(sent().size(), 4u);
}

// ---- the FDB -----------------------------------------------------------------

TEST_F(Guard, FramesTheGuardDidNotCheckDoNotMoveAStation)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    ASSERT_EQ(fdbPort(mac(1), 10), "1/0/1");
    // The server's MAC from an untrusted port: IPv6, another EtherType.
    rx("1/0/2", fb::Frame().etherType(fb::kEtherTypeIpv6).srcMac(mac(1)).build());
    rx("1/0/2", fb::Frame().etherType(0x88b5).srcMac(mac(1)).build());
    EXPECT_EQ(fdbPort(mac(1), 10), "1/0/1");
    EXPECT_EQ(fdbPort(mac(2), 10), "") << "nor are they learned at all on a guarded port";
}

TEST_F(Guard, ADhcpFrameTeachesNothingUntilTheModuleSendsItOn)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    // A DISCOVER with the server's MAC from an untrusted port, which the
    // module then drops.
    rx("1/0/2", fb::discover().srcMac(mac(1)).build());
    EXPECT_EQ(fdbPort(mac(1), 10), "1/0/1");
    DhcpSnoopMsg m;
    ASSERT_TRUE(takeMsg(m));
    dhcpReleasePacketPool(m.packet.frame);
    EXPECT_EQ(fdbPort(mac(1), 10), "1/0/1");
    // From a trusted port a frame the module sent on teaches its source.
    rx("1/0/4", fb::addVlan(fb::offer().srcMac(mac(4)).build(), 10));
    ASSERT_TRUE(takeMsg(m));
    EXPECT_EQ(fdbPort(mac(4), 10), "") << "not before it is sent on";
    m.packet.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
    ASSERT_EQ(norvikPacketSend(&m.packet), 0u);
    dhcpReleasePacketPool(m.packet.frame);
    EXPECT_EQ(fdbPort(mac(4), 10), "1/0/4");
}

TEST_F(Guard, ADhcpFrameSentOnFromAGuardedPortTeachesANewStationButMovesNone)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    DhcpSnoopMsg m;
    for (uint8_t src : {2, 1}) {
        rx("1/0/2", fb::discover().srcMac(mac(src)).build());
        ASSERT_TRUE(takeMsg(m));
        m.packet.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
        ASSERT_EQ(norvikPacketSend(&m.packet), 0u);
        dhcpReleasePacketPool(m.packet.frame);
    }
    EXPECT_EQ(fdbPort(mac(2), 10), "1/0/2") << "a new client: its OFFER goes to it alone";
    EXPECT_EQ(fdbPort(mac(1), 10), "1/0/1") << "the server stays where it is";
}

TEST_F(Guard, OnePortCannotFillTheFdb)
{
    bringUp(kConfig);
    // More sources than the whole table holds, all from one trusted port.
    for (uint32_t i = 0; i < 9000; ++i) {
        fb::Mac m = {0x02, 0x10, (uint8_t)(i >> 16), (uint8_t)(i >> 8), (uint8_t)i, 0x01};
        rx("1/0/1", plainIp(m, kBroadcast, fb::ip(198, 18, 0, 1)));
    }
    clearSent();
    rx("1/0/5", plainIp(mac(5), kBroadcast, fb::ip(198, 19, 0, 5)));
    EXPECT_EQ(fdbPort(mac(5), 20), "1/0/5") << "another port still learns";
}

TEST_F(Guard, ReservedBridgeGroupAddressesAreNotFlooded)
{
    bringUp(kConfig);
    for (uint8_t last : {0x00, 0x02, 0x03, 0x0e, 0x0f}) {
        fb::Mac group = {0x01, 0x80, 0xc2, 0x00, 0x00, last};
        rx("1/0/1", fb::Frame().etherType(0x8809).srcMac(mac(1)).dstMac(group).build());
        rx("1/0/1", fb::snapOf(plainIp(mac(1), group, fb::ip(198, 18, 0, 1))));
    }
    EXPECT_TRUE(sent().empty());
    // 01:80:C2:00:00:10 and up are ordinary multicast.
    rx("1/0/1", plainIp(mac(1), {0x01, 0x80, 0xc2, 0x00, 0x00, 0x10}, fb::ip(198, 18, 0, 1)));
    EXPECT_EQ(sent().size(), 3u);
}

}  // namespace
