// The user data plane's frame path beyond the guard: the kernel's offload
// state carried through, send failures counted by reason, the FDB's share
// per port and its bounded chains, frames discarded with their reason.
#include <cerrno>
#include <cstring>

#include "live_fixture.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

const char* kConfig = R"(
[switch]
mac = "02:00:00:00:00:fe"
snooping_vlans = [10]

[[port]]
name = "1/0/1"
vlan = 10
trust = true

[[port]]
name = "1/0/2"
vlan = 10

[[port]]
name = "1/0/3"
vlan = 10

[[port]]
name = "1/0/4"
vlan = 1
tagged = [10, 20]
trust = true
)";

using namespace lt;

// A TCP super-frame as the kernel hands it over with default offloads: the
// checksum left to the device, 1448-byte segments to be cut.
live::core::Offload tcpSuperFrame()
{
    live::core::Offload o;
    o.needsCsum = true;
    o.csumStart = 14 + 20;
    o.csumOffset = 16;
    o.gsoType = 1;  // TCPv4
    o.gsoSize = 1448;
    o.hdrLen = 14 + 20 + 32;
    return o;
}

class DataPlane : public LiveQueueTest {};

// ---- offloads -------------------------------------------------------------------

TEST_F(DataPlane, ASuperFrameLeavesWithItsOffloadStateTheTagCountedIn)
{
    bringUp(kConfig);
    fb::Bytes f = fb::Frame().srcMac(mac(1)).protocol(6).padTo(4000).build();
    live::core::Offload o = tcpSuperFrame();
    rxWith("1/0/1", f, -1, 0x8100, &o);
    auto s = sent();
    ASSERT_EQ(s.size(), 3u);
    for (const Sent& x : s) {
        SCOPED_TRACE(x.port);
        ASSERT_TRUE(x.offloaded);
        EXPECT_EQ(x.off.needsCsum, true);
        EXPECT_EQ(x.off.gsoType, 1);
        EXPECT_EQ(x.off.gsoSize, 1448);
        EXPECT_EQ(x.off.csumOffset, 16);
        uint16_t shift = x.port == "1/0/4" ? 4 : 0;
        EXPECT_EQ(x.off.csumStart, 34 + shift);
        EXPECT_EQ(x.off.hdrLen, 66 + shift);
    }
    // Tagged in the frame on the trunk: the offsets lose the tag with it.
    clearSent();
    live::core::Offload t = tcpSuperFrame();
    t.csumStart = (uint16_t)(t.csumStart + 4);
    t.hdrLen = (uint16_t)(t.hdrLen + 4);
    rxWith("1/0/4", fb::addVlan(f, 10), -1, 0x8100, &t);
    s = sent();
    ASSERT_EQ(s.size(), 3u);
    EXPECT_EQ(s[0].frame, f);
    EXPECT_EQ(s[0].off.csumStart, 34);
    EXPECT_EQ(s[0].off.hdrLen, 66);
    // Without an offload state, none is made up.
    clearSent();
    rx("1/0/1", f);
    ASSERT_EQ(sent().size(), 3u);
    EXPECT_FALSE(sent()[0].offloaded);
}

TEST_F(DataPlane, ADhcpFrameWithItsChecksumLeftToTheDeviceIsTrappedWithIt)
{
    bringUp(kConfig);
    fb::Bytes good = fb::discover().srcMac(mac(2)).build();
    size_t ip = fb::ipOffset(good);
    size_t udp = fb::udpOffset(good);
    // What a local sender hands over: the pseudo-header's sum in the field.
    fb::Bytes partial = good;
    uint32_t sum = 0;
    for (size_t i = 0; i < 8; i += 2)
        sum += fb::get16(good, ip + 12 + i);
    sum += 17 + fb::udpLength(good);
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    fb::set16(partial, udp + 6, (uint16_t)sum);
    live::core::Offload o;
    o.needsCsum = true;
    o.csumStart = (uint16_t)udp;
    o.csumOffset = 6;
    rxWith("1/0/2", partial, -1, 0x8100, &o);
    DhcpSnoopMsg m;
    ASSERT_TRUE(takeMsg(m));
    fb::Bytes got(m.packet.frame, m.packet.frame + m.packet.frameLen);
    dhcpReleasePacketPool(m.packet.frame);
    EXPECT_TRUE(fb::udpChecksumValid(got, ip, false));
    EXPECT_EQ(got, good);
    // Offsets outside the frame, or a segmentation request: not trapped, counted.
    o.csumStart = (uint16_t)(good.size() - 1);
    rxWith("1/0/2", partial, -1, 0x8100, &o);
    live::core::Offload g = tcpSuperFrame();
    rxWith("1/0/2", good, -1, 0x8100, &g);
    EXPECT_FALSE(takeMsg(m));
    EXPECT_EQ(counters("1/0/2").dropped["bad checksum offload"], 1u);
    EXPECT_EQ(counters("1/0/2").dropped["segmentation offload on a DHCP frame"], 1u);
    EXPECT_TRUE(sent().empty());
}

// ---- send failures --------------------------------------------------------------

TEST_F(DataPlane, EveryFailedSendIsCountedOnItsPortByReason)
{
    bringUp(kConfig);
    failSends("1/0/2", ENOBUFS);
    failSends("1/0/3", EMSGSIZE);
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    EXPECT_EQ(sentPorts(), std::vector<std::string>{"1/0/4"});
    EXPECT_EQ(counters("1/0/2").txFailed["interface queue full"], 1u);
    EXPECT_EQ(counters("1/0/3").txFailed["frame too long for the interface"], 1u);
    EXPECT_EQ(counters("1/0/2").txFrames, 0u);
    EXPECT_EQ(counters("1/0/4").txFrames, 1u);
    // The module's send: a failure on every egress port is a failure.
    failSends("1/0/4", ENETDOWN);
    failSends("1/0/1", ENXIO);
    fb::Bytes f = fb::offer().build();
    DhcpSnoopPacket p;
    memset(&p, 0, sizeof p);
    p.frame = f.data();
    p.frameLen = (uint32_t)f.size();
    p.vid = 10;
    p.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
    EXPECT_NE(norvikPacketSend(&p), 0u);
    EXPECT_EQ(counters("1/0/4").txFailed["interface down"], 1u);
    EXPECT_EQ(counters("1/0/1").txFailed["interface gone"], 1u);
    failSends("1/0/1", 0);
    EXPECT_EQ(norvikPacketSend(&p), 0u) << "one port took it";
    EXPECT_EQ(live::core::sendFailure(EAGAIN), "interface queue full");
    EXPECT_EQ(live::core::sendFailure(EBADF), "port closed");
    EXPECT_EQ(live::core::sendFailure(EPERM).rfind("send failed: ", 0), 0u);
}

TEST_F(DataPlane, AFrameThatNeverReachedTheCoreIsCountedWithItsReason)
{
    bringUp(kConfig);
    live::core::discard(1, "larger than the receive buffer");
    live::core::discard(99, "nowhere");
    EXPECT_EQ(counters("1/0/2").rxFrames, 1u);
    EXPECT_EQ(counters("1/0/2").discarded["larger than the receive buffer"], 1u);
}

// ---- tags the kernel stripped ------------------------------------------------------

TEST_F(DataPlane, AServiceTagTheKernelStrippedIsNoCustomerTag)
{
    bringUp(kConfig);
    fb::Bytes offer = fb::offer().srcMac(mac(2)).build();
    rxWith("1/0/4", offer, 10, 0x88a8, nullptr);
    rxWith("1/0/4", plainIp(mac(9), kBroadcast, fb::ip(198, 18, 0, 9)), 10, 0x88a8, nullptr);
    DhcpSnoopMsg m;
    EXPECT_FALSE(takeMsg(m));
    EXPECT_TRUE(sent().empty());
    EXPECT_EQ(counters("1/0/4").discarded["802.1ad or other service tag"], 2u);
    // Stacked tags are counted under their own reason.
    rx("1/0/4", fb::addVlan(fb::addVlan(offer, 20), 10));
    EXPECT_EQ(counters("1/0/4").discarded["stacked VLAN tags"], 1u);
    rx("1/0/1", fb::Frame().dstMac({0x01, 0x80, 0xc2, 0, 0, 0x0e}).build());
    EXPECT_EQ(counters("1/0/1").discarded["reserved group address"], 1u);
}

// ---- the FDB ---------------------------------------------------------------------

TEST_F(DataPlane, APortLearnsUpToItsShareAndCountsTheRest)
{
    live::Options opt;
    opt.fdbPortLimit = 3;
    bringUp(kConfig, opt);
    for (uint8_t i = 1; i <= 5; ++i)
        rx("1/0/1", plainIp(mac(i), kBroadcast, fb::ip(198, 18, 0, i)));
    EXPECT_EQ(live::core::fdbCount(), 3u);
    EXPECT_EQ(counters("1/0/1").fdbNotLearned, 2u);
    // Seen again: no new entry, nothing counted.
    rx("1/0/1", plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)));
    EXPECT_EQ(counters("1/0/1").fdbNotLearned, 2u);
    // Another port has a share of its own.
    rx("1/0/4", fb::addVlan(plainIp(mac(40), kBroadcast, fb::ip(198, 18, 0, 40)), 10));
    EXPECT_EQ(fdbPort(mac(40), 10), "1/0/4");
    // A station that moves to a port whose share is used up is forgotten,
    // not left on its old port.
    rx("1/0/4", fb::addVlan(plainIp(mac(41), kBroadcast, fb::ip(198, 18, 0, 41)), 10));
    rx("1/0/4", fb::addVlan(plainIp(mac(42), kBroadcast, fb::ip(198, 18, 0, 42)), 10));
    rx("1/0/4", fb::addVlan(plainIp(mac(1), kBroadcast, fb::ip(198, 18, 0, 1)), 10));
    EXPECT_EQ(fdbPort(mac(1), 10), "");
    // Aging gives the share back.
    clockMs += 301 * 1000;
    live::core::ageFdb();
    EXPECT_EQ(live::core::fdbCount(), 0u);
    rx("1/0/1", plainIp(mac(4), kBroadcast, fb::ip(198, 18, 0, 4)));
    EXPECT_EQ(fdbPort(mac(4), 10), "1/0/1");
}

// FNV-1a over MAC and VLAN, as the table was hashed before: addresses chosen
// to meet in one of its chains.
uint32_t fnv(const fb::Mac& m, uint16_t vid)
{
    uint32_t h = 2166136261u;
    for (uint8_t b : m)
        h = (h ^ b) * 16777619u;
    h = (h ^ (vid & 0xffu)) * 16777619u;
    h = (h ^ (vid >> 8)) * 16777619u;
    return h;
}

TEST_F(DataPlane, ChosenAddressesDoNotMakeALongChain)
{
    live::Options opt;
    opt.fdbSize = 512;
    bringUp(kConfig, opt);
    size_t made = 0;
    for (uint32_t i = 0; made < 300 && i < 2000000; ++i) {
        fb::Mac m = {0x02, 0x20, (uint8_t)(i >> 16), (uint8_t)(i >> 8), (uint8_t)i, 0x07};
        if ((fnv(m, 10) & 1023u) != 0)
            continue;
        ++made;
        rx("1/0/1", plainIp(m, kBroadcast, fb::ip(198, 18, 0, 1)));
    }
    ASSERT_EQ(made, 300u);
    EXPECT_LE(live::core::fdbLongestChain(), 8u);
    EXPECT_GE(live::core::fdbCount(), 250u) << "spread over the table, nearly all learned";
}

}  // namespace
