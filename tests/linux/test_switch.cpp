// The live platform's switching core without sockets: VLANs, the FDB,
// flooding, the DHCP trap, the packet pool, the source guard, transmission
// by the module's send flags.
#include <atomic>
#include <cstring>
#include <thread>

#include "live_fixture.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

const char* const kConfig = lt::kGuardedSwitch;

using namespace lt;

class Switch : public LiveQueueTest {
protected:
    Switch() { queueDepth = 16; }
};

// ---- VLANs and forwarding -------------------------------------------------------

TEST_F(Switch, BroadcastOnAnAccessPortFloodsItsVlanTaggedOnTrunksNotBack)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1));
    rx("1/0/1", f);
    auto s = sent();
    ASSERT_EQ(s.size(), 3u);
    EXPECT_EQ(s[0].port, "1/0/2");
    EXPECT_EQ(s[0].frame, f);
    EXPECT_EQ(s[1].port, "1/0/3");
    EXPECT_EQ(s[1].frame, f);
    EXPECT_EQ(s[2].port, "1/0/4");
    EXPECT_EQ(s[2].frame, fb::addVlan(f, 10));
    EXPECT_EQ(counters("1/0/1").rxFrames, 1u);
    EXPECT_EQ(counters("1/0/4").txFrames, 1u);
    EXPECT_EQ(counters("1/0/5").txFrames, 0u);
}

TEST_F(Switch, TaggedFrameOnATrunkLeavesAccessPortsUntagged)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(9), kBroadcast, fb::ip(198, 18, 0, 9));
    rx("1/0/4", fb::addVlan(f, 20));
    ASSERT_EQ(sentPorts(), std::vector<std::string>{"1/0/5"});
    EXPECT_EQ(sent()[0].frame, f);
}

TEST_F(Switch, TagTheKernelStrippedCountsLikeATagInTheFrame)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(9), kBroadcast, fb::ip(198, 18, 0, 9));
    rx("1/0/4", f, 20);
    ASSERT_EQ(sentPorts(), std::vector<std::string>{"1/0/5"});
    EXPECT_EQ(sent()[0].frame, f);
}

TEST_F(Switch, FrameOfAVlanThePortDoesNotCarryIsDropped)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(9), kBroadcast, fb::ip(198, 18, 0, 9));
    rx("1/0/4", fb::addVlan(f, 30));
    rx("1/0/2", fb::addVlan(f, 20));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(live::core::fdbCount(), 0u) << "nothing learned from refused frames";
    // A DHCP frame refused so is counted with its reason.
    rx("1/0/5", fb::addVlan(fb::discover().srcMac(mac(5)).build(), 10));
    EXPECT_EQ(counters("1/0/5").dropped["VLAN 10 not carried by the port"], 1u);
}

TEST_F(Switch, DropsOfVlansThePortDoesNotCarryKeepFewCounterKeys)
{
    bringUp(kConfig);
    fb::Bytes d = fb::discover().srcMac(mac(5)).build();
    for (int vid = 100; vid < 400; ++vid)
        rx("1/0/5", fb::addVlan(d, (uint16_t)vid));
    rx("1/0/5", fb::addVlan(d, 100));
    live::PortCounters c = counters("1/0/5");
    EXPECT_EQ(c.dropped.size(), 9u) << "eight VLANs by name, the rest together";
    EXPECT_EQ(c.dropped["VLAN 100 not carried by the port"], 2u);
    EXPECT_EQ(c.dropped["VLAN 107 not carried by the port"], 1u);
    EXPECT_EQ(c.dropped["other VLANs not carried by the port"], 292u);
}

TEST_F(Switch, UntaggedFrameOnATrunkBelongsToItsAccessVlanAndPriorityTagsToo)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(9), kBroadcast, fb::ip(198, 18, 0, 9));
    rx("1/0/4", f);
    EXPECT_TRUE(sent().empty()) << "VLAN 1 has no other port";
    rx("1/0/5", fb::addVlan(f, 0));
    ASSERT_EQ(sentPorts(), std::vector<std::string>{"1/0/4"});
    EXPECT_EQ(sent()[0].frame, fb::addVlan(f, 20));
}

TEST_F(Switch, ShortFramesAreCountedAndDropped)
{
    bringUp(kConfig);
    fb::Bytes f = plainIp(mac(9), kBroadcast, fb::ip(198, 18, 0, 9));
    fb::truncate(f, 13);
    rx("1/0/1", f);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/1").rxFrames, 1u);
}

// ---- FDB -------------------------------------------------------------------------

TEST_F(Switch, LearnedAddressGetsUnicastOnlyItsPort)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    clearSent();
    rx("1/0/4", fb::addVlan(plainIp(mac(4), mac(1), fb::ip(198, 18, 0, 4)), 10));
    EXPECT_EQ(sentPorts(), std::vector<std::string>{"1/0/1"});
    FdbEntry e;
    memset(&e, 0, sizeof e);
    memcpy(e.mac, mac(4).data(), 6);
    e.vlan = 10;
    ASSERT_EQ(swFdbGetEntry(&e), 0u);
    EXPECT_EQ(e.port, port("1/0/4"));
    e.vlan = 20;
    EXPECT_NE(swFdbGetEntry(&e), 0u) << "learned per VLAN";
    EXPECT_NE(swFdbGetEntry(nullptr), 0u);
}

TEST_F(Switch, UnicastToTheReceivePortGoesNowhere)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    rx("1/0/1", plainIp(mac(7), kBroadcast, fb::ip(198, 18, 0, 7)));
    clearSent();
    rx("1/0/1", plainIp(mac(7), mac(1), fb::ip(198, 18, 0, 7)));
    EXPECT_TRUE(sent().empty());
}

TEST_F(Switch, StationThatMovesIsFoundOnItsNewPort)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    rx("1/0/4", fb::addVlan(plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)), 10));
    clearSent();
    rx("1/0/1", plainIp(mac(8), mac(1), fb::ip(198, 18, 0, 8)));
    ASSERT_EQ(sentPorts(), std::vector<std::string>{"1/0/4"});
    EXPECT_EQ(sent()[0].frame, fb::addVlan(plainIp(mac(8), mac(1), fb::ip(198, 18, 0, 8)), 10));
}

TEST_F(Switch, EntriesAgeOutAfterTheAgingTime)
{
    live::Options opt;
    opt.fdbAgingSec = 300;
    bringUp(kConfig, opt);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    clockMs += 299 * 1000;
    live::core::ageFdb();
    EXPECT_EQ(live::core::fdbCount(), 1u);
    clockMs += 1000;
    live::core::ageFdb();
    EXPECT_EQ(live::core::fdbCount(), 0u);
    clearSent();
    rx("1/0/4", fb::addVlan(plainIp(mac(4), mac(1), fb::ip(198, 18, 0, 4)), 10));
    EXPECT_EQ(sentPorts(), (std::vector<std::string>{"1/0/1", "1/0/2", "1/0/3"})) << "flooded again";
}

TEST_F(Switch, SeenAgainMeansAgedLater)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    clockMs += 200 * 1000;
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    clockMs += 200 * 1000;
    live::core::ageFdb();
    EXPECT_EQ(live::core::fdbCount(), 1u);
}

TEST_F(Switch, FullFdbLearnsNoMoreAndFloodsTheRest)
{
    live::Options opt;
    opt.fdbSize = 2;
    bringUp(kConfig, opt);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    rx("1/0/1", plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 2)));
    rx("1/0/1", plainIp(mac(3), kBroadcast, fb::ip(198, 18, 0, 3)));
    EXPECT_EQ(live::core::fdbCount(), 2u);
    clearSent();
    rx("1/0/4", fb::addVlan(plainIp(mac(4), mac(3), fb::ip(198, 18, 0, 4)), 10));
    EXPECT_EQ(sentPorts().size(), 3u) << "unknown destination: flooded";
    // Aging makes room again.
    clockMs += 301 * 1000;
    live::core::ageFdb();
    rx("1/0/1", plainIp(mac(3), kBroadcast, fb::ip(198, 18, 0, 3)));
    EXPECT_EQ(live::core::fdbCount(), 1u);
}

TEST_F(Switch, GroupAndZeroSourcesAreNotLearned)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp({0x03, 0, 0, 0, 0, 1}, kBroadcast, fb::ip(198, 18, 0, 1)));
    rx("1/0/1", plainIp({0, 0, 0, 0, 0, 0}, kBroadcast, fb::ip(198, 18, 0, 1)));
    EXPECT_EQ(live::core::fdbCount(), 0u);
}

// ---- the DHCP trap ----------------------------------------------------------------

struct Framing {
    const char* name;
    std::function<fb::Bytes()> frame;
    int32_t kernelTci;
    const char* port;
    uint16_t vid;
};

TEST_F(Switch, EveryDhcpFramingTheModuleTakesIsTrappedUntagged)
{
    bringUp(kConfig);
    const fb::Mac c = mac(2);
    std::vector<Framing> cases = {
        {"Ethernet II to 67", [&] { return fb::discover().srcMac(c).build(); }, -1, "1/0/2", 10},
        {"Ethernet II to 68", [&] { return fb::offer().build(); }, -1, "1/0/1", 10},
        {"802.3 SNAP", [&] { return fb::discover().srcMac(c).snap().build(); }, -1, "1/0/2", 10},
        {"802.1Q tag", [&] { return fb::discover().srcMac(c).vlan(20).build(); }, -1, "1/0/4", 20},
        {"tag stripped by the kernel", [&] { return fb::discover().srcMac(c).build(); }, 10, "1/0/4", 10},
        {"tagged SNAP", [&] { return fb::discover().srcMac(c).snap().vlan(10).build(); }, -1, "1/0/4", 10},
        {"BOOTP request", [&] { return fb::bootpRequest().srcMac(c).build(); }, -1, "1/0/2", 10},
        {"IP options", [&] { return fb::discover().srcMac(c).ihl(6).build(); }, -1, "1/0/2", 10},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        fb::Bytes f = k.frame();
        rx(k.port, f, k.kernelTci);
        EXPECT_TRUE(sent().empty()) << "a trapped frame is not switched";
        DhcpSnoopMsg m;
        ASSERT_TRUE(takeMsg(m));
        EXPECT_EQ(m.type, DHCP_SNOOP_MSG_PACKET);
        EXPECT_EQ(m.packet.vid, k.vid);
        EXPECT_EQ(m.packet.sendFlags, 0u);
        fb::Bytes untagged = fb::stripVlan(f);
        ASSERT_EQ(m.packet.frameLen, untagged.size());
        EXPECT_EQ(fb::Bytes(m.packet.frame, m.packet.frame + m.packet.frameLen), untagged);
        PortList want;
        memset(&want, 0, sizeof want);
        ::up h = port(k.port);
        want.word[(UP_PORT(h) / 32) % 3] |= 1u << (UP_PORT(h) % 32);
        EXPECT_EQ(memcmp(&m.packet.ports, &want, sizeof want), 0) << "the receive port's bit";
        dhcpReleasePacketPool(m.packet.frame);
        clearSent();
    }
    EXPECT_EQ(counters("1/0/2").trapped, 4u);
    EXPECT_EQ(counters("1/0/4").trapped, 3u);
}

TEST_F(Switch, OtherUdpAndLaterFragmentsAreSwitchedNotTrapped)
{
    bringUp(kConfig);
    const fb::Mac s = mac(1);
    std::vector<fb::Bytes> frames = {
        fb::discover().srcMac(s).dstPort(69).build(),
        fb::discover().srcMac(s).srcPort(67).dstPort(5000).build(),
        fb::discover().srcMac(s).fragment(0x0010).build(),
        fb::discover().srcMac(s).protocol(6).build(),
        fb::discover().srcMac(s).ipVersion(6).build(),
        fb::discover().srcMac(s).etherType(0x86DD).build(),
    };
    for (const auto& f : frames) {
        rx("1/0/1", f);
        DhcpSnoopMsg m;
        EXPECT_FALSE(takeMsg(m));
    }
    EXPECT_EQ(sent().size(), frames.size() * 3);
    EXPECT_EQ(counters("1/0/1").trapped, 0u);
}

TEST_F(Switch, DhcpFromAnUnboundClientIsTrappedNeverFiltered)
{
    bringUp(kConfig);
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    DhcpSnoopMsg m;
    ASSERT_TRUE(takeMsg(m));
    dhcpReleasePacketPool(m.packet.frame);
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 0u);
    EXPECT_EQ(counters("1/0/2").trapped, 1u);
}

TEST_F(Switch, FullPacketPoolDropsAndCounts)
{
    live::Options opt;
    opt.packetPool = 2;
    bringUp(kConfig, opt);
    for (int i = 0; i < 3; ++i)
        rx("1/0/2", fb::discover().srcMac(mac(2)).xid((uint32_t)i).build());
    EXPECT_EQ(counters("1/0/2").trapped, 2u);
    EXPECT_EQ(counters("1/0/2").dropped["packet pool full"], 1u);
    EXPECT_EQ(live::core::poolBuffersInUse(), 2u);
    DhcpSnoopMsg m;
    ASSERT_TRUE(takeMsg(m));
    dhcpReleasePacketPool(m.packet.frame);
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    EXPECT_EQ(counters("1/0/2").trapped, 3u) << "a released buffer serves again";
}

class SwitchSmallQueue : public Switch {
protected:
    void SetUp() override
    {
        queueDepth = 1;
        Switch::SetUp();
    }
};

TEST_F(SwitchSmallQueue, FullQueueDropsCountsAndGivesTheBufferBack)
{
    bringUp(kConfig);
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    EXPECT_EQ(counters("1/0/2").trapped, 1u);
    EXPECT_EQ(counters("1/0/2").dropped["queue full"], 1u);
    EXPECT_EQ(live::core::poolBuffersInUse(), 1u);
}

TEST_F(Switch, FrameLongerThanAPoolBufferIsDroppedWithItsReason)
{
    bringUp(kConfig);
    rx("1/0/2", fb::discover().srcMac(mac(2)).padTo(2100).build());
    EXPECT_EQ(counters("1/0/2").dropped["frame too long for the packet pool"], 1u);
    EXPECT_EQ(live::core::poolBuffersInUse(), 0u);
}

// The bridge data plane's trap copies no more than a pool buffer takes: of a
// longer frame it hands over the link header only, counted as the whole
// frame would have been.
TEST_F(Switch, ATrapsCutCopyOfALongFrameIsCountedAsTooLong)
{
    bringUp(kConfig);
    fb::Bytes f = fb::discover().srcMac(mac(2)).padTo(3000).build();
    live::core::trapTooLong(1, f.data(), 14);
    live::core::trapTooLong(99, f.data(), 14);
    EXPECT_EQ(counters("1/0/2").rxFrames, 1u);
    EXPECT_EQ(counters("1/0/2").dropped["frame too long for the packet pool"], 1u);
    EXPECT_EQ(counters("1/0/2").trapped, 0u);
    EXPECT_EQ(live::core::poolBuffersInUse(), 0u);
}

TEST_F(Switch, SecondReleaseAndForeignBuffersAreRecognisedAndHarmless)
{
    bringUp(kConfig);
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    DhcpSnoopMsg m;
    ASSERT_TRUE(takeMsg(m));
    dhcpReleasePacketPool(m.packet.frame);
    dhcpReleasePacketPool(m.packet.frame);
    uint8_t foreign[16];
    dhcpReleasePacketPool(foreign);
    dhcpReleasePacketPool(nullptr);
    dhcpReleasePacketPool(m.packet.frame + 1);
    expectedBadReleases = 4;
    EXPECT_EQ(live::core::badReleases(), 4u);
    EXPECT_EQ(live::core::poolBuffersInUse(), 0u);
    // The pool still works, one buffer per frame.
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    rx("1/0/2", fb::discover().srcMac(mac(2)).build());
    EXPECT_EQ(live::core::poolBuffersInUse(), 2u);
}

// ---- transmission by the module -------------------------------------------------------

DhcpSnoopPacket descriptor(const fb::Bytes& frame, uint16_t vid, uint32_t flags, const PortList& ports)
{
    DhcpSnoopPacket p;
    memset(&p, 0, sizeof p);
    p.frame = const_cast<uint8_t*>(frame.data());
    p.frameLen = (uint32_t)frame.size();
    p.vid = vid;
    p.sendFlags = flags;
    p.ports = ports;
    return p;
}

PortList listOf(std::initializer_list<const char*> names)
{
    PortList l;
    memset(&l, 0, sizeof l);
    for (const char* n : names) {
        ::up h = port(n);
        l.word[(UP_PORT(h) / 32) % 3] |= 1u << (UP_PORT(h) % 32);
    }
    return l;
}

TEST_F(Switch, FloodSendSkipsTheListedPortsAndTagsPerPort)
{
    bringUp(kConfig);
    fb::Bytes f = fb::discover().srcMac(mac(2)).build();
    DhcpSnoopPacket p = descriptor(f, 10, SEND_FLAG_TX | SEND_FLAG_FLOOD, listOf({"1/0/2"}));
    ASSERT_EQ(norvikPacketSend(&p), 0u);
    auto s = sent();
    ASSERT_EQ(s.size(), 3u);
    EXPECT_EQ(s[0].port, "1/0/1");
    EXPECT_EQ(s[0].frame, f);
    EXPECT_EQ(s[2].port, "1/0/4");
    EXPECT_EQ(s[2].frame, fb::addVlan(f, 10));
}

TEST_F(Switch, FdbSendGoesToTheLearnedPortElseFloods)
{
    bringUp(kConfig);
    rx("1/0/4", fb::addVlan(plainIp(mac(4), kBroadcast, fb::ip(198, 18, 0, 4)), 10));
    clearSent();
    fb::Bytes f = fb::offer().dstMac(mac(4)).build();
    PortList none;
    memset(&none, 0, sizeof none);
    DhcpSnoopPacket p = descriptor(f, 10, SEND_FLAG_TX | SEND_FLAG_BY_FDB, none);
    ASSERT_EQ(norvikPacketSend(&p), 0u);
    ASSERT_EQ(sentPorts(), std::vector<std::string>{"1/0/4"});
    EXPECT_EQ(sent()[0].frame, fb::addVlan(f, 10));
    clearSent();
    fb::Bytes g = fb::offer().dstMac(mac(77)).build();
    DhcpSnoopPacket q = descriptor(g, 10, SEND_FLAG_TX | SEND_FLAG_BY_FDB, none);
    ASSERT_EQ(norvikPacketSend(&q), 0u);
    EXPECT_EQ(sentPorts().size(), 4u);
}

TEST_F(Switch, ListedSendReachesTheListedPortsOfTheVlanOnly)
{
    bringUp(kConfig);
    fb::Bytes f = fb::offer().build();
    DhcpSnoopPacket p = descriptor(f, 10, SEND_FLAG_TX, listOf({"1/0/3", "1/0/5"}));
    ASSERT_EQ(norvikPacketSend(&p), 0u);
    EXPECT_EQ(sentPorts(), std::vector<std::string>{"1/0/3"});
    EXPECT_NE(norvikPacketSend(nullptr), 0u);
    fb::Bytes shortFrame(10, 0);
    DhcpSnoopPacket r = descriptor(shortFrame, 10, SEND_FLAG_TX, listOf({"1/0/3"}));
    EXPECT_NE(norvikPacketSend(&r), 0u);
}

// ---- IP source guard ------------------------------------------------------------------

TEST_F(Switch, SourceGuardTableAddSearchDelete)
{
    live::Options opt;
    opt.sourceGuardSize = 2;
    bringUp(kConfig, opt);
    SwQTableEntry a = binding(fb::ip(198, 18, 0, 23), mac(2), 10, "1/0/2");
    EXPECT_EQ(swQTableAdd(0, &a), 0u);
    EXPECT_EQ(swQTableAdd(0, &a), (uint32_t)QTABLE_RESULT_EXISTS);
    SwQTableEntry b = binding(fb::ip(198, 18, 0, 24), mac(3), 10, "1/0/3");
    EXPECT_EQ(swQTableAdd(0, &b), 0u);
    SwQTableEntry c = binding(fb::ip(198, 18, 0, 25), mac(3), 10, "1/0/3");
    EXPECT_NE(swQTableAdd(0, &c), 0u) << "full";
    uint32_t index = 99, found = 99;
    ASSERT_EQ(swQTableSearchByIpAndSource(&a, &index, &found), 0u);
    EXPECT_EQ(found, 1u);
    SwQTableEntry other = a;
    other.source = 1;
    uint32_t i2 = 0, f2 = 9;
    ASSERT_EQ(swQTableSearchByIpAndSource(&other, &i2, &f2), 0u);
    EXPECT_EQ(f2, 0u) << "search is by IP and source";
    EXPECT_EQ(swQTableDel(0, index, found), 0u);
    EXPECT_NE(swQTableDel(0, index, found), 0u);
    ASSERT_EQ(swQTableSearchByIpAndSource(&a, &index, &found), 0u);
    EXPECT_EQ(found, 0u);
    EXPECT_NE(swQTableDel(0, 0, 0), 0u);
    EXPECT_EQ(swQTableAdd(0, &c), 0u) << "room again";
    EXPECT_EQ(live::core::sourceGuardCount(), 2u);
    uint32_t flag = 9;
    EXPECT_EQ(getIncludeIpFilter(&flag), 0u);
    EXPECT_EQ(flag, 1u);
    EXPECT_EQ(getIncludeArpDefend(&flag), 0u);
    EXPECT_EQ(flag, 1u);
}

TEST_F(Switch, IpFromAnUntrustedPortPassesOnlyFromItsBinding)
{
    bringUp(kConfig);
    const uint32_t leased = fb::ip(198, 18, 0, 23);
    rx("1/0/2", plainIp(mac(2), kBroadcast, leased));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 1u);
    SwQTableEntry e = binding(leased, mac(2), 10, "1/0/2");
    ASSERT_EQ(swQTableAdd(0, &e), 0u);
    rx("1/0/2", plainIp(mac(2), kBroadcast, leased));
    EXPECT_EQ(sentPorts().size(), 3u);
    clearSent();
    // Another address, another MAC, another port: refused.
    rx("1/0/2", plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 99)));
    rx("1/0/2", plainIp(mac(12), kBroadcast, leased));
    rx("1/0/3", plainIp(mac(2), kBroadcast, leased));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 3u);
    EXPECT_EQ(counters("1/0/3").sourceGuardDropped, 1u);
}

TEST_F(Switch, RefusedFrameDoesNotMoveItsSourceInTheFdb)
{
    bringUp(kConfig);
    const uint32_t leased = fb::ip(198, 18, 0, 23);
    SwQTableEntry e = binding(leased, mac(2), 10, "1/0/2");
    ASSERT_EQ(swQTableAdd(0, &e), 0u);
    rx("1/0/2", plainIp(mac(2), kBroadcast, leased));
    // The same MAC from another port, with an address it does not own.
    rx("1/0/3", plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 66)));
    FdbEntry f;
    memset(&f, 0, sizeof f);
    memcpy(f.mac, mac(2).data(), 6);
    f.vlan = 10;
    ASSERT_EQ(swFdbGetEntry(&f), 0u);
    EXPECT_EQ(f.port, port("1/0/2"));
}

TEST_F(Switch, TrustedPortsAndOtherVlansAreNotGuarded)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    EXPECT_EQ(sentPorts().size(), 3u);
    clearSent();
    rx("1/0/5", plainIp(mac(5), kBroadcast, fb::ip(198, 19, 0, 5)));
    EXPECT_EQ(sentPorts(), std::vector<std::string>{"1/0/4"});
    EXPECT_EQ(counters("1/0/5").sourceGuardDropped, 0u);
}

TEST_F(Switch, ArpPassesOnlyFromItsBinding)
{
    bringUp(kConfig);
    const uint32_t leased = fb::ip(198, 18, 0, 23);
    rx("1/0/2", fb::arp(fb::kArpRequest, mac(2), leased, fb::ip(198, 18, 0, 1)));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 1u);
    SwQTableEntry e = binding(leased, mac(2), 10, "1/0/2");
    ASSERT_EQ(swQTableAdd(0, &e), 0u);
    rx("1/0/2", fb::arp(fb::kArpReply, mac(2), leased, fb::ip(198, 18, 0, 1), mac(1), mac(1)));
    EXPECT_EQ(sentPorts().size(), 3u) << "destination not learned yet: flooded";
    clearSent();
    rx("1/0/2", fb::arp(fb::kArpReply, mac(2), fb::ip(198, 18, 0, 1), fb::ip(198, 18, 0, 1)));
    EXPECT_TRUE(sent().empty()) << "claiming another address";
    fb::Bytes cut = fb::arp(fb::kArpRequest, mac(2), leased, fb::ip(198, 18, 0, 1));
    fb::truncate(cut, 30);
    rx("1/0/2", cut);
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/2").sourceGuardDropped, 3u);
}

TEST_F(Switch, WithTheFeaturesOffNothingIsGuarded)
{
    std::string cfg = kConfig;
    cfg.replace(cfg.find("ip_filter = true"), 16, "ip_filter = false");
    cfg.replace(cfg.find("arp_defend = true"), 17, "arp_defend = false");
    bringUp(cfg);
    rx("1/0/2", plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 99)));
    rx("1/0/2", fb::arp(fb::kArpRequest, mac(2), fb::ip(198, 18, 0, 99), fb::ip(198, 18, 0, 1)));
    EXPECT_EQ(sentPorts().size(), 6u);
    uint32_t flag = 9;
    EXPECT_EQ(getIncludeIpFilter(&flag), 0u);
    EXPECT_EQ(flag, 0u);
}

// ---- configuration --------------------------------------------------------------------

TEST_F(Switch, PortRecordsAndSwitchSettingsComeFromTheConfiguration)
{
    std::string cfg = kConfig;
    cfg += R"(
[[port]]
name = "1/0/6"
vlan = 10
rate = 15
decline_rate = 3
verify_mac = true
option82 = true
option82_policy = "replace"
circuit_id = "access-6"
)";
    bringUp(cfg);
    DhcpSnoopPortCfg r;
    ASSERT_EQ(swDhcpSnoopGetPortCfg(port("1/0/6"), &r), 0u);
    EXPECT_EQ(r.limitRate, 15);
    EXPECT_EQ(r.decLimitRate, 3);
    EXPECT_EQ(r.macVerify, 1);
    EXPECT_EQ(r.op82Enable, 1);
    EXPECT_EQ(r.Op82Policy, DHCP_SNOOP_OP82_POLICY_REPLACE);
    EXPECT_EQ(r.circuitIdFormat, 1);
    EXPECT_STREQ(r.circuitId, "access-6");
    EXPECT_EQ(r.remoteIdFormat, 0);
    uint8_t v = 9;
    EXPECT_EQ(swDhcpSnoopGetPortTrust(port("1/0/1"), &v), 0u);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(swDhcpSnoopGetPortTrust(port("1/0/2"), &v), 0u);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(10, &v), 0u);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(20, &v), 0u);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(swDhcpSnoopGetQAddStatus(&v), 0u);
    EXPECT_EQ(v, 1);
    uint8_t m[6];
    ASSERT_EQ(getMacAddress(m), 0u);
    EXPECT_EQ(fb::Mac({m[0], m[1], m[2], m[3], m[4], m[5]}), mac(0xfe));
    EXPECT_EQ(stkGetCurrentUnit(), 1u);
    UsoData d = {nullptr, 0};
    EXPECT_EQ(stkUsoRuntimeDataSync(MID_DHCP, &d), 0u);
}

TEST_F(Switch, ReconfigureChangesSettingsInPlaceButNotThePorts)
{
    bringUp(kConfig);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    std::string cfg = kConfig;
    cfg.replace(cfg.find("snooping_vlans = [10]"), 21, "snooping_vlans = [20]");
    swcfg::SwitchConfig next;
    std::string error;
    ASSERT_TRUE(swcfg::parseSwitchConfig(cfg, "next.toml", next, error)) << error;
    ASSERT_TRUE(live::core::reconfigure(next, error)) << error;
    uint8_t v = 9;
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(10, &v), 0u);
    EXPECT_EQ(v, 0);
    EXPECT_EQ(live::core::fdbCount(), 0u) << "learned anew";
    clearSent();
    rx("1/0/2", plainIp(mac(2), kBroadcast, fb::ip(198, 18, 0, 99)));
    EXPECT_EQ(sentPorts().size(), 3u) << "VLAN 10 no longer guarded";

    swcfg::SwitchConfig fewer = next;
    fewer.ports.pop_back();
    EXPECT_FALSE(live::core::reconfigure(fewer, error));
    EXPECT_NE(error.find("ports"), std::string::npos) << error;
    swcfg::SwitchConfig moved = next;
    moved.ports[0].interface = "other0";
    EXPECT_FALSE(live::core::reconfigure(moved, error));
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(20, &v), 0u);
    EXPECT_EQ(v, 1) << "a refused configuration changes nothing";
}

TEST_F(Switch, PortCallsFollowTheUnitAndThePortsOfTheConfiguration)
{
    bringUp(R"(
[switch]
unit = 2
mac = "02:00:00:00:00:fe"
snooping_vlans = [10]

[[port]]
name = "2/0/15"
vlan = 10
)");
    EXPECT_EQ(stkGetCurrentUnit(), 2u);
    EXPECT_EQ(inner_up_unit_is_valid(2), 1u);
    EXPECT_EQ(inner_up_unit_is_valid(1), 0u);
    // The unit's default shape (28 ports, 8 port channels); the configuration
    // may name only the ports the module's receive walk reaches.
    EXPECT_EQ(inner_up_is_valid(UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 28)), 1u);
    EXPECT_EQ(inner_up_is_valid(UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 29)), 0u);
    EXPECT_EQ(inner_up_is_valid(UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 1)), 0u);
    EXPECT_EQ(inner_up_is_valid(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 8)), 1u);
    EXPECT_EQ(inner_up_is_valid(UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 9)), 0u);
    ::up h = 0;
    ASSERT_EQ(inner_up_from_index(&h, 64, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 1));
    ASSERT_EQ(inner_up_from_index(&h, 128, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 1));
    // Torn down: unit 1 again.
    live::core::tearDown();
    EXPECT_EQ(stkGetCurrentUnit(), 1u);
    EXPECT_EQ(inner_up_unit_is_valid(1), 1u);
    ASSERT_EQ(inner_up_from_index(&h, 64, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 1));
}

TEST_F(Switch, PortsNameTheSameIndexesAsTheSimulation)
{
    bringUp(kConfig);
    ::up h = 0;
    ASSERT_EQ(inner_up_from_index(&h, 0, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, port("1/0/1"));
    ASSERT_EQ(inner_up_from_index(&h, 3, 0, __func__, __LINE__), 0u);
    EXPECT_EQ(h, port("1/0/3"));
    ASSERT_EQ(inner_up_from_index(&h, 64, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, port("po1"));
    ASSERT_EQ(inner_up_from_index(&h, 79, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, UP_INVALID);
    EXPECT_EQ(inner_up_is_valid(port("1/0/28")), 1u);
    EXPECT_EQ(inner_up_is_valid(port("1/0/29")), 0u);
    EXPECT_EQ(inner_up_is_valid(port("po8")), 1u);
    EXPECT_EQ(inner_up_is_valid(port("2/0/1")), 0u);
    char text[UP_STR_BUF];
    ASSERT_EQ(usUp2Str(port("1/0/5"), text, 1), 0u);
    EXPECT_STREQ(text, "1/0/5");
    ASSERT_EQ(usUp2Str(port("po2"), text, 1), 0u);
    EXPECT_STREQ(text, "po2");
    ASSERT_EQ(usStr2Up(1, "  1/0/7", &h, 0), 0u);
    EXPECT_EQ(h, port("1/0/7"));
    EXPECT_NE(usStr2Up(1, "1/0/", &h, 0), 0u);
    EXPECT_EQ(h, UP_INVALID);
}

}  // namespace

namespace {

// Receive threads, the module's side and the control side all at once:
// nothing lost, nothing counted twice (and a race detector run has work).
TEST_F(Switch, TrafficFromSeveralPortsWhileTheModuleSendsAndTheControlReads)
{
    live::Options opt;
    opt.packetPool = 8;
    bringUp(kConfig, opt);
    constexpr int kFrames = 200;
    std::atomic<bool> done{false};
    std::thread module([&] {
        DhcpSnoopMsg m;
        while (!done.load() || pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr) > 0) {
            memset(&m, 0, sizeof m);
            if (pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 5, nullptr) != (int32_t)sizeof m)
                continue;
            m.packet.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
            norvikPacketSend(&m.packet);
            FdbEntry e;
            memset(&e, 0, sizeof e);
            memcpy(e.mac, m.packet.frame + 6, 6);
            e.vlan = m.packet.vid;
            swFdbGetEntry(&e);
            dhcpReleasePacketPool(m.packet.frame);
        }
    });
    auto sender = [&](const char* name, uint8_t id) {
        for (int i = 0; i < kFrames; ++i) {
            fb::Bytes f = (i % 2) ? fb::discover().srcMac(mac(id)).xid((uint32_t)i).build()
                                  : plainIp(mac(id), kBroadcast, fb::ip(198, 18, 0, id));
            // The trunk's frames are VLAN 10's too.
            fb::Bytes copy = id == 4 ? fb::addVlan(f, 10) : f;
            ::up h = port(name);
            live::core::receive(live::core::portIndex(h), copy.data(), copy.size(), -1);
        }
    };
    std::thread a(sender, "1/0/1", 1), b(sender, "1/0/2", 2), c(sender, "1/0/4", 4);
    for (int i = 0; i < 20; ++i) {
        live::core::counters();
        live::core::ageFdb();
        swcfg::SwitchConfig cfg;
        std::string error;
        ASSERT_TRUE(swcfg::parseSwitchConfig(kConfig, "again.toml", cfg, error));
        ASSERT_TRUE(live::core::reconfigure(cfg, error)) << error;
    }
    a.join();
    b.join();
    c.join();
    ASSERT_TRUE(waitUntil([] { return live::core::poolBuffersInUse() == 0; }));
    done = true;
    module.join();
    for (const char* name : {"1/0/1", "1/0/2", "1/0/4"}) {
        live::PortCounters pc = counters(name);
        EXPECT_EQ(pc.rxFrames, (uint64_t)kFrames) << name;
        uint64_t notTrapped = pc.dropped["packet pool full"] + pc.dropped["queue full"];
        EXPECT_EQ(pc.trapped + notTrapped, (uint64_t)kFrames / 2) << name;
        EXPECT_EQ(pc.dhcpForwarded, pc.trapped) << name;
    }
}

}  // namespace

namespace {

TEST(LivePortNames, TextToHandleAsWrittenAndNothingElse)
{
    struct Case {
        const char* text;
        uint32_t rv;
        up handle;
    };
    const Case cases[] = {
        {"1/0/5", 0, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 5)},
        {" \t1/0/5", 0, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 5)},
        {"po2", 0, UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 2)},
        {"255/255/255", 0, UP_MAKE(UP_TYPE_PHYSICAL, 255, 255, 255)},
        {"1/0/x", 1, UP_INVALID},
        {"1/0/5 ", 1, UP_INVALID},
        {"1/0/256", 1, UP_INVALID},
        {"1/0/0005", 1, UP_INVALID},
        {"1/0", 1, UP_INVALID},
        {"po", 1, UP_INVALID},
        {"po2x", 1, UP_INVALID},
        {"", 1, UP_INVALID},
    };
    for (const Case& c : cases) {
        up h = 0;
        EXPECT_EQ(usStr2Up(1, c.text, &h, 0), c.rv) << '"' << c.text << '"';
        EXPECT_EQ(h, c.handle) << '"' << c.text << '"';
    }
    up h = 0;
    EXPECT_EQ(usStr2Up(1, nullptr, &h, 0), 1u);
    EXPECT_EQ(h, UP_INVALID);
    EXPECT_EQ(usStr2Up(1, "1/0/5", nullptr, 0), 1u);
}

}  // namespace
