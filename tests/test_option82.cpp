// Option 82 on forwarding: construction, add, replace, keep, drop and
// remove, the frame-size limit, checksums, and frames whose offsets cannot
// carry a rebuild.
#include <sstream>
#include <string>

#include "forward_harness.h"

namespace {

const up kPort5 = UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 5);

fb::RelayAgentInfo vlanPort(uint16_t vid, uint8_t unit, uint8_t port, const fb::Bytes &remote)
{
    fb::RelayAgentInfo r;
    r.circuitId({(uint8_t)(vid >> 8), (uint8_t)vid, unit, port}).remoteId(remote);
    return r;
}

// Reports the first difference, not two dumps of a few hundred bytes.
::testing::AssertionResult sameFrame(const fb::Bytes &actual, const fb::Bytes &expected)
{
    if (actual == expected)
        return ::testing::AssertionSuccess();
    std::ostringstream os;
    os << "length " << actual.size() << " vs expected " << expected.size();
    for (size_t i = 0; i < std::min(actual.size(), expected.size()); i++) {
        if (actual[i] != expected[i]) {
            os << "; first difference at " << i << ": " << (int)actual[i] << " vs " << (int)expected[i];
            break;
        }
    }
    return ::testing::AssertionFailure() << os.str();
}

// Sum of the UDP checksum as the module forms it, before the fold.
uint32_t rawUdpSum(const fb::Bytes &f, size_t ip)
{
    size_t udp = ip + (f[ip] & 0x0f) * 4u;
    uint32_t len = fb::get16(f, udp + 4);
    uint32_t s = fb::get16(f, ip + 12) + fb::get16(f, ip + 14) + fb::get16(f, ip + 16) + fb::get16(f, ip + 18) +
                 17u + len;
    for (uint32_t i = 0; i + 1 < len; i += 2)
        s += i == 6 ? 0 : fb::get16(f, udp + i);
    if (len & 1u)
        s += (uint32_t)f[udp + len - 1] << 8;
    return s;
}

uint32_t rawIpSum(const fb::Bytes &f, size_t ip)
{
    uint32_t s = 0;
    for (size_t i = 0; i < (f[ip] & 0x0fu) * 4u; i += 2)
        s += i == 10 ? 0 : fb::get16(f, ip + i);
    return s;
}

class Option82Test : public ForwardTest {
protected:
    // The one frame sent, compared whole with expected; both checksums
    // checked with the builder's own code.
    void expectSentFrame(const fb::Bytes &expected)
    {
        ASSERT_EQ(sim::sent().size(), 1u);
        const fb::Bytes &out = sim::sent()[0].frame;
        EXPECT_TRUE(sameFrame(out, expected));
        size_t ip = fb::ipOffset(out);
        EXPECT_TRUE(fb::ipv4ChecksumValid(out, ip));
        EXPECT_TRUE(fb::udpChecksumValid(out, ip, false));
    }

    void expectSentUnchanged()
    {
        ASSERT_EQ(sim::sent().size(), 1u);
        EXPECT_TRUE(sameFrame(sim::sent()[0].frame, bytes));
    }

    void expectDescriptorRestored(size_t len)
    {
        EXPECT_EQ(pkt.frame, frame);
        EXPECT_EQ(pkt.frameLen, len);
    }

    // Length of the BOOTP message of a frame (from the UDP length).
    static size_t bootpLen(const fb::Bytes &f) { return fb::udpLength(f) - 8u; }

    fb::Bytes mac = switchMacBytes();
};

// ---- add ------------------------------------------------------------------------------

TEST_F(Option82Test, DiscoverGrowsBySixteenBytesWithVlanPortAndMac)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    const size_t oldEnd = ele.endOptPos;
    const size_t oldLen = bytes.size();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);

    expectSentFrame(fb::discover().relayAgent(vlanPort(10, 1, 5, mac)).build());
    const fb::Bytes &out = sim::sent()[0].frame;
    fb::Bytes tail = {82, 14, 1, 4, 0, 10, 1, 5, 2, 6};
    tail.insert(tail.end(), mac.begin(), mac.end());
    tail.push_back(255);
    EXPECT_EQ(fb::getBytes(out, oldEnd, tail.size()), tail);
    EXPECT_EQ(out.size(), oldLen + 16);
    EXPECT_EQ(fb::ipTotalLength(out), fb::ipTotalLength(bytes) + 16);
    EXPECT_EQ(fb::udpLength(out), fb::udpLength(bytes) + 16);
    // Flooded in the VLAN without the receive port.
    EXPECT_EQ(sim::sent()[0].sendFlags, SEND_FLAG_FLOOD | SEND_FLAG_TX);
    EXPECT_EQ(sim::portsIn(sim::sent()[0].ports), std::vector<up>{kPort5});
    EXPECT_EQ(sim::sent()[0].vid, 10u);
    expectDescriptorRestored(oldLen);
    // The received frame itself is untouched.
    EXPECT_TRUE(sameFrame(fb::Bytes(frame, frame + oldLen), bytes));

    EXPECT_TRUE(sim::hasMessage("~~~~~DSPacketForward broadcast: 1,  rcvdPort: 1/0/5~~~~~\r\n"));
    EXPECT_TRUE(sim::hasMessage("option82 enable"));
    EXPECT_TRUE(sim::hasMessage("Encoding optiotn 82 circuid ID in VLAN-PORT format."));
    EXPECT_TRUE(sim::hasMessage("Encoding optiotn 82 remote ID in MAC address format."));
    EXPECT_TRUE(sim::hasMessage("Add the option 82 to the DHCP packet."));
}

TEST_F(Option82Test, EveryClientTypeWithoutOption82GetsOne)
{
    struct Case {
        fb::Frame f;
        int type;
    };
    const Case cases[] = {
        {fb::discover(), -1},       {fb::request(), -1},         {fb::requestRenewing(), -1},
        {fb::decline(), -1},        {fb::release(), -1},         {fb::inform(), -1},
        {fb::bootpRequest(), DHCP_SNOOP_TYPE_BOOTP_REQUEST},
    };
    op82(kPort5, 1);
    for (const Case &c : cases) {
        sim::clearSent();
        load(c.f, kPort5, 77, c.type);
        SCOPED_TRACE((int)ele.type);
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        fb::Frame e = c.f;
        e.relayAgent(vlanPort(77, 1, 5, mac));
        if (e.dhcp.padTo != 0)
            e.padTo(e.dhcp.padTo + 16);
        expectSentFrame(e.build());
    }
}

TEST_F(Option82Test, AddZeroesWhatStoodBehindTheOldEnd)
{
    // Bytes behind END (a trailer the client left there) do not survive.
    op82(kPort5, 1);
    load(fb::discover().trailer(fb::Bytes(20, 0xEE)), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::discover().relayAgent(vlanPort(10, 1, 5, mac)).trailer(fb::Bytes(20, 0)).build());
}

TEST_F(Option82Test, UnicastClientFrameToAKnownServerGoesByTheTable)
{
    op82(kPort5, 1);
    fb::Params p;
    sim::fdbSet(p.serverMac, 10, sim::physicalPort(1, 20));
    load(fb::requestRenewing(p), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::requestRenewing(p).relayAgent(vlanPort(10, 1, 5, mac)).build());
    EXPECT_EQ(sim::sent()[0].sendFlags, SEND_FLAG_BY_FDB | SEND_FLAG_TX);
    EXPECT_TRUE(sim::portsIn(sim::sent()[0].ports).empty());
}

TEST_F(Option82Test, SnapFrameLengthFieldFollowsTheNewLength)
{
    op82(kPort5, 1);
    load(fb::discover().snap(), kPort5, 10);
    ASSERT_EQ(ipHeaderPos, 22u);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::Bytes expected = fb::discover().snap().relayAgent(vlanPort(10, 1, 5, mac)).build();
    expectSentFrame(expected);
    EXPECT_EQ(fb::get16(sim::sent()[0].frame, 12), expected.size() - 14);
    EXPECT_EQ(fb::get16(sim::sent()[0].frame, 12), fb::get16(bytes, 12) + 16);
}

TEST_F(Option82Test, FrameThatWouldReach1515BytesIsSentWithoutOption82)
{
    op82(kPort5, 1);
    // 42 bytes of headers + 1457 of BOOTP + 16 = 1515.
    load(fb::discover().padTo(1457), kPort5, 10);
    ASSERT_EQ(bytes.size() + 16, 1515u);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    ASSERT_GE(sim::logs().size(), 1u);
    bool found = false;
    for (const auto &l : sim::logs())
        found |= l.error && l.message() == "Add the option 82 failed, the DHCP packet is too short to add option 82.";
    EXPECT_TRUE(found);
    EXPECT_FALSE(sim::hasMessage("Add the option 82 to the DHCP packet."));
}

TEST_F(Option82Test, FrameThatReaches1514BytesGetsOption82)
{
    op82(kPort5, 1);
    load(fb::discover().padTo(1456), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::Bytes expected = fb::discover().relayAgent(vlanPort(10, 1, 5, mac)).padTo(1456 + 16).build();
    ASSERT_EQ(expected.size(), 1514u);
    expectSentFrame(expected);
}

// ---- construction ---------------------------------------------------------------

TEST_F(Option82Test, UserDefinedCircuitAndRemoteIds)
{
    DhcpSnoopPortCfg &c = op82(kPort5, 1);
    c.circuitIdFormat = 1;
    c.remoteIdFormat = 1;
    std::strcpy(c.circuitId, "eth0/5:vlan10");
    std::strcpy(c.remoteId, "sw-a");
    load(fb::discover(), kPort5, 10);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::RelayAgentInfo r;
    r.circuitId(fb::bytes("eth0/5:vlan10")).remoteId(fb::bytes("sw-a"));
    expectSentFrame(fb::discover().relayAgent(r).build());
    EXPECT_TRUE(sim::hasMessage("Encoding optiotn 82 circuid ID in user defined format."));
    EXPECT_TRUE(sim::hasMessage("Encoding optiotn 82 remote ID in user defined format."));
}

TEST_F(Option82Test, TextWithoutFormatOrFormatWithoutTextFallsBack)
{
    DhcpSnoopPortCfg &c = op82(kPort5, 1);
    c.circuitIdFormat = 0;
    std::strcpy(c.circuitId, "ignored");
    c.remoteIdFormat = 1;
    c.remoteId[0] = '\0';
    load(fb::discover(), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::discover().relayAgent(vlanPort(10, 1, 5, mac)).build());
}

TEST_F(Option82Test, EnableAndPolicyFromTheReceivePortTextsFromTheElementPort)
{
    up elementPort = sim::physicalPort(1, 7);
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    DhcpSnoopPortCfg &c = op82(elementPort, 0, DHCP_SNOOP_OP82_POLICY_DROP);
    c.remoteIdFormat = 1;
    std::strcpy(c.remoteId, "seven");
    fb::RelayAgentInfo old;
    old.circuitId({9});
    load(fb::request().relayAgent(old), kPort5, 10);
    ele.up = elementPort;
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::RelayAgentInfo r;
    r.circuitId({0, 10, 1, 7}).remoteId(fb::bytes("seven"));
    expectSentFrame(fb::request().relayAgent(r).build());
}

TEST_F(Option82Test, PortChannelCircuitIdHasUnitZero)
{
    up po = sim::portChannel(3);
    op82(po, 1);
    load(fb::discover(), po, 300);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::discover().relayAgent(vlanPort(300, 0, 3, mac)).build());
}

TEST_F(Option82Test, CircuitIdCarriesTheUnitOfAPhysicalPort)
{
    sim::setUnits({1, 2});
    up port = sim::physicalPort(2, 17);
    op82(port, 1);
    load(fb::discover(), port, 4094);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::discover().relayAgent(vlanPort(4094, 2, 17, mac)).build());
}

TEST_F(Option82Test, InvalidElementPortSendsUnchanged)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    ele.up = UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 60);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    EXPECT_TRUE(sim::hasMessage("Construct option 82 information error."));
}

TEST_F(Option82Test, FailedElementPortConfigurationSendsUnchanged)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    sim::failNext("swDhcpSnoopGetPortCfg", 3, 1);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    EXPECT_TRUE(sim::hasMessage("E - 3 call swDhcpSnoopGetPortCfg(tempElement->up, &portCfg) failed."));
    EXPECT_TRUE(sim::hasMessage("Construct option 82 information error."));
}

TEST_F(Option82Test, FailedSwitchMacSendsUnchanged)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    sim::failNext("getMacAddress", 8);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    EXPECT_TRUE(sim::hasMessage("Construct option 82 information error."));
}

TEST_F(Option82Test, ConstructionErrorLeavesAServerOption82InPlace)
{
    op82(kPort5, 1);
    fb::RelayAgentInfo old;
    old.circuitId({1, 2, 3});
    load(fb::offer().relayAgent(old), kPort5, 10);
    ele.up = UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 60);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, OptionDumpWithDebugLevel)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    EXPECT_TRUE(sim::hasMessage("Binary dump of option 82 information, length: 16 data: 0x52 0x0e 0x01 0x04 "
                                "0x00 0x0a 0x01 0x05 0x02 0x06 0x00 0x0e 0x5e 0x00 0x00 0x01"));
}

TEST_F(Option82Test, OptionDumpIsCutAtAWholePieceBelow251Characters)
{
    DhcpSnoopPortCfg &c = op82(kPort5, 1);
    c.circuitIdFormat = 1;
    std::memset(c.circuitId, 'a', 100);
    c.circuitId[100] = '\0';
    load(fb::discover(), kPort5, 10);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    std::string data = " 0x52 0x6e 0x01 0x64";
    for (int i = 0; i < 46; i++)
        data += " 0x61";
    EXPECT_EQ(data.size(), 250u);
    EXPECT_TRUE(sim::hasMessage("Binary dump of option 82 information, length: 112 data:" + data));
}

TEST_F(Option82Test, NoDumpWithoutTheDebugLevel)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    sim::setDebugFlag(1);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_ENTRY;
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    for (const std::string &m : sim::messages())
        EXPECT_EQ(m.find("Binary dump"), std::string::npos) << m;
}

TEST_F(Option82Test, OptionTooLongForItsLengthByteIsNotAdded)
{
    // 250 + 6 + 6 bytes: more than one length byte can say.
    DhcpSnoopPortCfg &c = op82(kPort5, 1);
    c.circuitIdFormat = 1;
    std::memset(c.circuitId, 'c', 250);
    c.circuitId[250] = '\0';
    load(fb::discover(), kPort5, 10);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    EXPECT_TRUE(sim::hasMessage("Option 82 information of 262 bytes is too long, the DHCP packet is sent unchanged."));
}

TEST_F(Option82Test, LongestOptionThatFitsIsAdded)
{
    // 243 + 6 + 6 = 255 bytes.
    DhcpSnoopPortCfg &c = op82(kPort5, 1);
    c.circuitIdFormat = 1;
    std::memset(c.circuitId, 'c', 243);
    c.circuitId[243] = '\0';
    load(fb::discover(), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::RelayAgentInfo r;
    r.circuitId(fb::Bytes(243, 'c')).remoteId(mac);
    expectSentFrame(fb::discover().relayAgent(r).build());
}

TEST_F(Option82Test, UnterminatedTextsStayInsideTheRecord)
{
    DhcpSnoopPortCfg &c = op82(kPort5, 1);
    c.circuitIdFormat = 1;
    c.remoteIdFormat = 1;
    std::memset(c.circuitId, 'x', sizeof c.circuitId);
    std::memset(c.remoteId, 'y', sizeof c.remoteId);
    fb::RelayAgentInfo old;
    old.circuitId({1});
    load(fb::ack().relayAgent(old), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    // Removal does not need the built option.
    expectSentFrame(fb::ack().padTo(bootpLen(bytes)).build());
}

// ---- classification, keep, drop -------------------------------------------------------

TEST_F(Option82Test, Option82DisabledSendsUnchanged)
{
    op82(kPort5, 0);
    load(fb::discover(), kPort5, 10);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    EXPECT_FALSE(sim::hasMessage("option82 enable"));
}

TEST_F(Option82Test, PolicyDropRefusesClientFramesWithOption82)
{
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_DROP);
    fb::RelayAgentInfo old;
    old.circuitId({1, 2});
    for (const fb::Frame &f : {fb::discover(), fb::request(), fb::decline(), fb::release(), fb::inform()}) {
        load(fb::Frame(f).relayAgent(old), kPort5, 10);
        sim::setDebugFlag(1);
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        EXPECT_TRUE(sim::sent().empty());
        EXPECT_TRUE(sim::hasMessage("Drop the DHCP packet with option 82."));
    }
}

TEST_F(Option82Test, PolicyKeepSendsClientFramesWithOption82Untouched)
{
    fb::RelayAgentInfo old;
    old.circuitId({1, 2}).remoteId({3});
    for (uint8_t policy : {0, 3, 255}) {
        SCOPED_TRACE((int)policy);
        sim::clearSent();
        sim::clearLogs();
        op82(kPort5, 1, policy);
        load(fb::request().relayAgent(old), kPort5, 10);
        sim::setDebugFlag(1);
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        expectSentUnchanged();
        EXPECT_TRUE(sim::hasMessage("Keep the option 82 of the DHCP packet."));
    }
}

TEST_F(Option82Test, ServerFramesWithoutOption82AreSentUnchanged)
{
    op82(kPort5, 1);
    for (const fb::Frame &f : {fb::offer(), fb::ack(), fb::nak()}) {
        sim::clearSent();
        load(f, kPort5, 10);
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        expectSentUnchanged();
    }
    sim::clearSent();
    load(fb::bootpReply(), kPort5, 10, DHCP_SNOOP_TYPE_BOOTP_REPLY);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, TypeZeroIsSentUnchanged)
{
    op82(kPort5, 1);
    load(fb::bootpRequest().noEnd(), kPort5, 10, DHCP_SNOOP_TYPE_NONE);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, TypesFromElevenOnAreNeverSent)
{
    for (uint8_t enable : {0, 1}) {
        op82(kPort5, enable);
        for (int type : {11, 12, 100, 255}) {
            SCOPED_TRACE(type);
            load(fb::discover(), kPort5, 10, type);
            EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
            EXPECT_TRUE(sim::sent().empty());
        }
    }
}

// ---- replace ----------------------------------------------------------------------------

fb::Frame requestWith82(const fb::RelayAgentInfo &r, const fb::Params &p = fb::Params())
{
    fb::Frame f = fb::request(p);
    f.clearOptions().messageType(fb::kRequest).relayAgent(r).requestedIp(p.clientIp).serverId(p.serverIp);
    return f;
}

TEST_F(Option82Test, ReplaceThatShrinksTheOptionKeepsTheOptionsBehindIt)
{
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    fb::RelayAgentInfo old;
    old.circuitId(fb::Bytes(30, 0x41)).remoteId(fb::Bytes(10, 0x42));
    // Padded: the bytes behind the new END must be zeros, not what the
    // options behind the old option left there.
    fb::Frame in = requestWith82(old).padTo(400);
    load(in, kPort5, 10);
    ASSERT_NE(ele.opt82Pos, 0u);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    // 46 old bytes become 16.
    fb::Frame want = requestWith82(vlanPort(10, 1, 5, mac)).padTo(400 - 30);
    expectSentFrame(want.build());
    EXPECT_EQ(sim::sent()[0].frame.size(), bytes.size() - 30);
    expectDescriptorRestored(bytes.size());
    EXPECT_TRUE(sim::hasMessage("Replace the option 82 of the DHCP packet."));
}

TEST_F(Option82Test, ReplaceThatGrowsTheOptionLeavesNoStaleBytes)
{
    // A large frame first fills sNewData.
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    fb::Frame big = fb::discover();
    for (int i = 0; i < 4; i++)
        big.option(200, fb::Bytes(250, 0xEE));
    load(big, kPort5, 10);
    ASSERT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    sim::clearSent();

    fb::RelayAgentInfo old;
    old.circuitId({7});
    load(requestWith82(old), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(requestWith82(vlanPort(10, 1, 5, mac)).build());
    EXPECT_EQ(sim::sent()[0].frame.size(), bytes.size() + 16 - 5);
}

TEST_F(Option82Test, ReplaceAtTheEndOfTheOptions)
{
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    fb::RelayAgentInfo old;
    old.remoteId({1, 2, 3, 4, 5, 6});
    load(fb::discover().relayAgent(old), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::discover().relayAgent(vlanPort(10, 1, 5, mac)).build());
}

TEST_F(Option82Test, ReplaceWithManyOptionsBehindOption82)
{
    // More than a stack area of 522 bytes would hold.
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    fb::RelayAgentInfo old;
    old.circuitId({7, 7});
    auto build = [](const fb::RelayAgentInfo &r) {
        fb::Frame f = fb::discover();
        f.relayAgent(r);
        for (int i = 0; i < 5; i++)
            f.option((uint8_t)(200 + i), fb::Bytes(200, (uint8_t)(0x30 + i)));
        return f;
    };
    load(build(old), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(build(vlanPort(10, 1, 5, mac)).build());
}

TEST_F(Option82Test, ReplaceOnASnapFrame)
{
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    fb::RelayAgentInfo old;
    old.circuitId(fb::Bytes(20, 1));
    load(requestWith82(old).snap(), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::Bytes expected = requestWith82(vlanPort(10, 1, 5, mac)).snap().build();
    expectSentFrame(expected);
    EXPECT_EQ(fb::get16(sim::sent()[0].frame, 12), expected.size() - 14);
}

TEST_F(Option82Test, ReplaceThatWouldReach1515BytesSendsUnchanged)
{
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    fb::RelayAgentInfo old;
    old.circuitId({7});  // 5 bytes: the frame grows by 11
    fb::Frame f = requestWith82(old);
    size_t base = f.build().size();
    load(f.padTo(bootpLen(f.build()) + (1515 - 11 - base)), kPort5, 10);
    ASSERT_EQ(bytes.size() + 11, 1515u);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    EXPECT_TRUE(sim::hasMessage("Replace the option 82 failed, the DHCP packet is too short to add option 82."));
}

// ---- remove ------------------------------------------------------------------------------

TEST_F(Option82Test, ServerFramesLoseOption82AndKeepTheirLength)
{
    fb::RelayAgentInfo old;
    old.circuitId({0, 10, 1, 5}).remoteId(mac);
    op82(kPort5, 1);
    struct Case {
        fb::Frame f;
        int type;
    };
    const Case cases[] = {{fb::offer(), -1}, {fb::ack(), -1}, {fb::nak(), -1},
                          {fb::bootpReply(), DHCP_SNOOP_TYPE_BOOTP_REPLY}};
    for (const Case &c : cases) {
        sim::clearSent();
        sim::clearLogs();
        fb::Frame in = c.f;
        in.relayAgent(old);
        if (in.dhcp.padTo != 0)
            in.padTo(in.dhcp.padTo + 18);
        load(in, kPort5, 10, c.type);
        SCOPED_TRACE((int)ele.type);
        sim::setDebugFlag(1);
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        fb::Frame want = c.f;
        want.padTo(bootpLen(bytes));
        expectSentFrame(want.build());
        EXPECT_EQ(sim::sent()[0].frame.size(), bytes.size());
        EXPECT_EQ(fb::udpLength(sim::sent()[0].frame), fb::udpLength(bytes));
        EXPECT_EQ(fb::ipTotalLength(sim::sent()[0].frame), fb::ipTotalLength(bytes));
        expectDescriptorRestored(bytes.size());
        EXPECT_TRUE(sim::hasMessage("Remove the option 82 of the DHCP packet."));
    }
}

TEST_F(Option82Test, RemoveFromTheMiddleKeepsTheOptionsBehind)
{
    fb::RelayAgentInfo old;
    old.circuitId(fb::Bytes(40, 9));
    op82(kPort5, 1);
    fb::Params p;
    auto build = [&p](const fb::RelayAgentInfo *r) {
        fb::Frame f = fb::ack(p);
        f.clearOptions().messageType(fb::kAck);
        if (r)
            f.relayAgent(*r);
        f.serverId(p.serverIp).leaseTime(p.lease);
        return f;
    };
    // Fill sNewData with a longer frame first: nothing of it may show.
    fb::Frame big = fb::discover();
    big.option(200, fb::Bytes(250, 0xEE)).option(201, fb::Bytes(250, 0xEE));
    load(big, kPort5, 10);
    ASSERT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    sim::clearSent();

    load(build(&old), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(build(nullptr).padTo(bootpLen(bytes)).build());
}

TEST_F(Option82Test, RemoveOnASnapFrame)
{
    fb::RelayAgentInfo old;
    old.circuitId({1, 2, 3});
    op82(kPort5, 1);
    load(fb::offer().snap().relayAgent(old), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentFrame(fb::offer().snap().padTo(bootpLen(bytes)).build());
}

TEST_F(Option82Test, RemoveWithoutItsBufferDropsTheFrame)
{
    fb::RelayAgentInfo old;
    old.circuitId({1});
    op82(kPort5, 1);
    load(fb::offer().relayAgent(old), kPort5, 10);
    uint8_t *buf = sNewData;
    sNewData = nullptr;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 1u);
    sNewData = buf;
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_TRUE(sim::hasMessage("E - 1 call dhcpSnoopOp82Remove(pkt, ele, sNewData, &newLen) failed."));
}

TEST_F(Option82Test, AddWithoutItsBufferSendsUnchanged)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    uint8_t *buf = sNewData;
    sNewData = nullptr;
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    sNewData = buf;
    expectSentUnchanged();
}

// ---- failures around the rebuild ------------------------------------------------------------

TEST_F(Option82Test, NullArgumentsAreRefused)
{
    load(fb::discover(), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(nullptr, &ele), 1u);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, nullptr), 1u);
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(Option82Test, EgressFailureIsReturnedAndNothingIsSent)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    pkt.frame = nullptr;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0xFFFFFFFFu);
    pkt.frame = frame;
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_TRUE(sim::hasMessage("E - -1 call dhcpSnoopPacketSetSendFlag(pkt, &fwdPortList) failed."));
}

TEST_F(Option82Test, ReceivePortConfigurationFailureIsReturned)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    sim::failNext("swDhcpSnoopGetPortCfg", 4);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 4u);
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_TRUE(sim::hasMessage("E - 4 call swDhcpSnoopGetPortCfg(rcvPort, &portCfg) failed."));
}

TEST_F(Option82Test, FailedSendOfARebuiltFrameIsReturnedAndTheDescriptorPutBack)
{
    op82(kPort5, 1);
    load(fb::discover(), kPort5, 10);
    sim::failNext("norvikPacketSend", 6);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 6u);
    EXPECT_TRUE(sim::hasMessage("E - 6 call dhcpSnoopPacketSend(pkt, fwdPortList) failed."));
    expectDescriptorRestored(bytes.size());
}

TEST_F(Option82Test, FailedSendOfAnUnchangedFrameIsReturned)
{
    op82(kPort5, 0);
    load(fb::discover(), kPort5, 10);
    sim::failNext("norvikPacketSend", 6);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 6u);
    EXPECT_TRUE(sim::hasMessage("E - 6 call dhcpSnoopPacketSend(pkt, fwdPortList) failed."));
}

// ---- offsets and lengths that cannot carry a rebuild ---------------------------------------

TEST_F(Option82Test, ClientFrameWithoutEndIsSentUnchanged)
{
    op82(kPort5, 1);
    load(fb::discover().noEnd(), kPort5, 10);
    // Without END the element keeps the option byte count.
    ASSERT_LT(ele.endOptPos, optionsPos);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    ASSERT_FALSE(sim::logs().empty());
    bool error = false;
    for (const auto &l : sim::logs())
        error |= l.error && l.message().rfind("Option offsets or lengths of the DHCP packet point outside it", 0) == 0;
    EXPECT_TRUE(error);
}

TEST_F(Option82Test, BadEndPositionsSendUnchanged)
{
    op82(kPort5, 1);
    for (uint32_t end : {0u, 100u, 5000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(end);
        sim::clearSent();
        load(fb::discover(), kPort5, 10);
        ele.endOptPos = end;
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        expectSentUnchanged();
    }
    // The byte there is not END.
    sim::clearSent();
    load(fb::discover(), kPort5, 10);
    ele.endOptPos -= 1;
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, UdpLengthBeyondTheFrameSendsUnchanged)
{
    op82(kPort5, 1);
    load(fb::discover().udpLength(1400), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, EndBehindTheUdpDatagramSendsUnchanged)
{
    op82(kPort5, 1);
    fb::Frame f = fb::discover();
    size_t udpLen = fb::udpLength(f.build());
    load(f.udpLength((uint16_t)(udpLen - 1)), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, Option82LengthPastTheEndIsNotReplacedAndNotRemoved)
{
    fb::Frame client = fb::discover();
    client.optionWithLength(fb::kOptRelayAgent, 40, {1, 2, 1, 9});
    fb::Frame server = fb::offer();
    server.optionWithLength(fb::kOptRelayAgent, 40, {1, 2, 1, 9});

    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    auto [cb, cl] = client.buildWithLayout();
    loadBytes(cb, kPort5, 10);
    ele.opt82Pos = (uint32_t)cl.option.back();
    ele.endOptPos = (uint32_t)cl.end;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();

    // A server frame whose option cannot be cut out cleanly is dropped: its
    // relay information must not reach the client.
    sim::clearSent();
    sim::clearLogs();
    auto [sb, sl] = server.buildWithLayout();
    loadBytes(sb, kPort5, 10);
    ele.opt82Pos = (uint32_t)sl.option.back();
    ele.endOptPos = (uint32_t)sl.end;
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 1u);
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_TRUE(sim::hasMessage("E - 1 call dhcpSnoopOp82Remove(pkt, ele, sNewData, &newLen) failed."));
}

TEST_F(Option82Test, Option82PositionsOutsideTheOptionsAreNotTrusted)
{
    fb::RelayAgentInfo old;
    old.circuitId({1});
    // Inside file (as the parser records an overloaded one), on a byte that
    // is not 82, past END, past the frame. A client frame is sent as it is;
    // from a server frame the option 82 of its options area is cut all the
    // same (file is no options area here: no option 52).
    op82(kPort5, 1, DHCP_SNOOP_OP82_POLICY_REPLACE);
    for (int which = 0; which < 5; which++) {
        SCOPED_TRACE(which);
        sim::clearSent();
        fb::Frame f = fb::request().relayAgent(old);
        f.file({82, 3, 1, 1, 7});
        load(f, kPort5, 10);
        const uint32_t positions[] = {dhcpHeaderPos + 108, ele.opt82Pos + 1, ele.endOptPos + 1, 60000,
                                      0xFFFFFFFEu};
        ele.opt82Pos = positions[which];
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        expectSentUnchanged();

        sim::clearSent();
        fb::Frame s = fb::ack().relayAgent(old);
        s.file({82, 3, 1, 1, 7});
        load(s, kPort5, 10);
        const uint32_t spos[] = {dhcpHeaderPos + 108, ele.opt82Pos + 1, ele.endOptPos + 1, 60000, 0xFFFFFFFEu};
        ele.opt82Pos = spos[which];
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        fb::Frame want = fb::ack();
        want.file({82, 3, 1, 1, 7});
        expectSentFrame(want.padTo(bootpLen(bytes)).build());
    }
}

TEST_F(Option82Test, HeaderOffsetsOutsideTheFrameAreNotRebuilt)
{
    op82(kPort5, 1);
    for (uint32_t pos : {0u, 13u, 2000u, 0xFFFFFFF0u}) {
        SCOPED_TRACE(pos);
        sim::clearSent();
        load(fb::discover(), kPort5, 10);
        ipHeaderPos = pos;
        EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
        expectSentUnchanged();
    }
    sim::clearSent();
    load(fb::discover(), kPort5, 10);
    udpHeaderPos += 4;  // disagrees with the IP header length
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
    sim::clearSent();
    load(fb::discover(), kPort5, 10);
    optionsPos = 0xFFFFFFF0u;
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, ShortIpHeaderIsNotRebuilt)
{
    op82(kPort5, 1);
    load(fb::discover().snap().ihl(3), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82Test, ServerFrameLongerThanTheRebuildBufferIsDropped)
{
    fb::RelayAgentInfo old;
    old.circuitId({1});
    op82(kPort5, 1);
    load(fb::offer().relayAgent(old).padTo(2100), kPort5, 10);
    ASSERT_GT(bytes.size(), 2048u);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 1u);
    EXPECT_TRUE(sim::sent().empty());
}

// ---- checksums exactly as the module makes them -------------------------------------------

TEST_F(Option82Test, UdpChecksumOfNullIsZero) { EXPECT_EQ(dhcpSnoopUdpChecksum(nullptr), 0u); }

TEST_F(Option82Test, UdpChecksumMatchesTheBuilderOnOrdinaryFrames)
{
    for (const fb::Frame &f : {fb::discover(), fb::offer(), fb::request(), fb::ack().ihl(6), fb::discover().snap()}) {
        fb::Bytes b = f.build();
        size_t ip = fb::ipOffset(b);
        uint16_t want = fb::get16(b, fb::udpField(b, fb::udpf::kChecksum));
        fb::set16(b, fb::udpField(b, fb::udpf::kChecksum), 0);
        EXPECT_EQ(dhcpSnoopUdpChecksum(&b[ip]), want);
    }
    // An odd UDP length: the last byte is the high byte of a word.
    fb::Bytes b = fb::discover().trailer({0x5A}).build();
    ASSERT_EQ(fb::udpLength(b) % 2, 1);
    size_t ip = fb::ipOffset(b);
    uint16_t want = fb::get16(b, fb::udpField(b, fb::udpf::kChecksum));
    fb::set16(b, fb::udpField(b, fb::udpf::kChecksum), 0);
    EXPECT_EQ(dhcpSnoopUdpChecksum(&b[ip]), want);
}

// Sets secs so that the module's sum before its fold is the first target
// that secs can reach; false when none can.
bool tuneSecs(fb::Bytes &b, bool carry)
{
    size_t ip = fb::ipOffset(b);
    size_t secs = fb::bootpField(b, fb::bootpf::kSecs);
    fb::set16(b, secs, 0);
    uint32_t s0 = rawUdpSum(b, ip);
    for (uint32_t k = (s0 >> 16); k <= (s0 >> 16) + 1; k++) {
        // carry: low + high = 0x10000 (one fold leaves a carry);
        // otherwise low + high = 0xFFFF (the sum is ones'-complement zero).
        uint32_t t = k * 0x10000u + (carry ? 0x10000u - k : 0xFFFFu - k);
        if (k >= 1 && t >= s0 && t - s0 <= 0xFFFFu) {
            fb::set16(b, secs, (uint16_t)(t - s0));
            return true;
        }
    }
    return false;
}

TEST_F(Option82Test, UdpChecksumReturnsAComputedZeroAsZero)
{
    fb::Bytes b = fb::discover().build();
    fb::set16(b, fb::udpField(b, fb::udpf::kChecksum), 0);
    ASSERT_TRUE(tuneSecs(b, false));
    size_t ip = fb::ipOffset(b);
    EXPECT_EQ(fb::udpChecksum(&b[ip]), 0xFFFF);  // the builder substitutes
    EXPECT_EQ(dhcpSnoopUdpChecksum(&b[ip]), 0u);  // the module does not
}

TEST_F(Option82Test, UdpChecksumFoldsOnce)
{
    fb::Bytes b = fb::discover().build();
    fb::set16(b, fb::udpField(b, fb::udpf::kChecksum), 0);
    ASSERT_TRUE(tuneSecs(b, true));
    size_t ip = fb::ipOffset(b);
    EXPECT_EQ(fb::udpChecksum(&b[ip]), 0xFFFE);     // folded to the end
    EXPECT_EQ(dhcpSnoopUdpChecksum(&b[ip]), 0xFFFF);  // ~0x10000 kept to 16 bits
}

TEST_F(Option82Test, RebuiltFrameCarriesAComputedZeroUdpChecksum)
{
    // The frame after the rebuild sums to ones'-complement zero.
    op82(kPort5, 1);
    fb::Frame want = fb::discover().relayAgent(vlanPort(10, 1, 5, mac));
    fb::Bytes expected = want.build();
    fb::set16(expected, fb::udpField(expected, fb::udpf::kChecksum), 0);
    ASSERT_TRUE(tuneSecs(expected, false));
    uint16_t secs = fb::get16(expected, fb::bootpField(expected, fb::bootpf::kSecs));
    load(fb::discover().secs(secs), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    // Everything as the builder makes it, but a UDP checksum of 0.
    fb::Bytes built = want.secs(secs).build();
    fb::set16(built, fb::udpField(built, fb::udpf::kChecksum), 0);
    EXPECT_TRUE(sameFrame(sim::sent()[0].frame, built));
    EXPECT_TRUE(fb::ipv4ChecksumValid(sim::sent()[0].frame, 14));
}

TEST_F(Option82Test, RebuiltIpv4HeaderChecksumFoldsOnce)
{
    op82(kPort5, 1);
    auto frameWithId = [this](uint16_t id, bool withOption) {
        fb::Frame f = fb::discover().srcIp(fb::ip(128, 0, 0, 0)).dstIp(fb::ip(10, 0, 0, 1)).ipId(id);
        if (withOption)
            f.relayAgent(vlanPort(10, 1, 5, mac));
        return f;
    };
    fb::Bytes e0 = frameWithId(0, true).build();
    uint32_t s0 = rawIpSum(e0, 14);
    ASSERT_GE(s0, 0x10000u);
    ASSERT_LE(s0, 0x1FFFFu);
    uint16_t id = (uint16_t)(0x1FFFFu - s0);  // header sum 0x1FFFF after the rebuild

    load(frameWithId(id, false), kPort5, 10);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    fb::Bytes expected = frameWithId(id, true).build();
    EXPECT_EQ(fb::get16(expected, 24), 0xFFFE);  // the builder folds to the end
    fb::set16(expected, 24, 0xFFFF);            // the module folds once
    EXPECT_TRUE(sameFrame(sim::sent()[0].frame, expected));
    EXPECT_TRUE(fb::udpChecksumValid(sim::sent()[0].frame, 14, false));
}


// ---- option 82 inside file or sname (option 52) ---------------------------------------------
// The parser records such an option at a position counted from the options
// area, which does not point at it. A server's reply still must not carry
// the relay information to the client, nor be lost.

class Option82OverloadTest : public Option82Test {
protected:
    // Loads the frame and lets the parser fill the element, as the pipeline
    // does.
    void parse(const fb::Frame &f)
    {
        load(f, kPort5, 10);
        std::memset(&ele, 0, sizeof ele);
        ele.endOptPos = (uint32_t)(fb::udpLength(bytes) - 248);
        ASSERT_EQ(dhcpSnoopDhcpParser(&pkt, options, 0, &ele), 0);
    }

    static fb::Bytes fieldOf(const fb::Options &o) { return o.encode(); }

    fb::RelayAgentInfo relay = vlanPort(10, 1, 9, {1, 2, 3, 4, 5, 6});
    fb::Bytes bootFile = fb::bytes("boot/pxelinux.0");
};

TEST_F(Option82OverloadTest, ServerReplyWithOption82InFileHasItCut)
{
    op82(kPort5, 1);
    fb::Options inFile;
    inFile.option(67, bootFile).relayAgent(relay).option(66, fb::bytes("tftp")).end();
    fb::Frame in = fb::ack().overload(fb::kOverloadFile).file(fieldOf(inFile));
    parse(in);
    // Counted from the options area, as the parser keeps it.
    EXPECT_EQ(ele.opt82Pos, optionsPos + 4u + 2u + (uint32_t)bootFile.size());
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);

    fb::Options outFile;
    outFile.option(67, bootFile).option(66, fb::bytes("tftp")).end();
    expectSentFrame(fb::ack().overload(fb::kOverloadFile).file(fieldOf(outFile)).build());
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_FALSE(fb::findOption(sim::sent()[0].frame, fb::kOptRelayAgent, true).has_value());
    EXPECT_TRUE(sim::hasMessage("Remove the option 82 of the DHCP packet."));
    expectDescriptorRestored(bytes.size());
}

TEST_F(Option82OverloadTest, ServerReplyWithOption82InSnameHasItCut)
{
    op82(kPort5, 1);
    fb::Options inSname;
    inSname.relayAgent(relay).end();
    parse(fb::offer().overload(fb::kOverloadSname).sname(fieldOf(inSname)));
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    fb::Options outSname;
    outSname.end();
    expectSentFrame(fb::offer().overload(fb::kOverloadSname).sname(fieldOf(outSname)).build());
}

TEST_F(Option82OverloadTest, EveryOption82OfTheReplyIsCutFromOptionsFileAndSname)
{
    op82(kPort5, 1);
    fb::Options inFile;
    inFile.relayAgent(relay).option(67, bootFile).relayAgent(relay);  // fills to no END
    // Pad bytes are one byte each for the client (the parser takes a pad
    // with a length byte and would not see this one).
    fb::Options inSname;
    inSname.pad(3).relayAgent(relay).end();
    // The options area's own option 82 stands before option 52: the parser's
    // position ends up inside file, the one of the options area is cut all
    // the same.
    fb::Frame in = fb::ack();
    in.clearOptions().messageType(fb::kAck).relayAgent(relay).overload(fb::kOverloadBoth);
    in.serverId(fb::Params().serverIp).leaseTime(3600);
    in.file(fieldOf(inFile)).sname(fieldOf(inSname));
    parse(in);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);

    fb::Frame want = fb::ack();
    want.clearOptions().messageType(fb::kAck).overload(fb::kOverloadBoth);
    want.serverId(fb::Params().serverIp).leaseTime(3600);
    fb::Options outFile;
    outFile.option(67, bootFile);
    fb::Options outSname;
    outSname.pad(3).end();
    want.file(fieldOf(outFile)).sname(fieldOf(outSname));
    expectSentFrame(want.padTo(bootpLen(bytes)).build());
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_FALSE(fb::findOption(sim::sent()[0].frame, fb::kOptRelayAgent, true).has_value());
}

TEST_F(Option82OverloadTest, Option82RunningPastItsFieldDropsTheReply)
{
    // The parser does not record an option that runs past its field; the
    // one of the options area makes the reply one whose relay information
    // is to be cut, and this one cannot be.
    op82(kPort5, 1);
    fb::Options inSname;
    inSname.option(12, fb::Bytes(58, 'h')).optionWithLength(fb::kOptRelayAgent, 20, {1, 2});
    parse(fb::ack().relayAgent(relay).overload(fb::kOverloadSname).sname(fieldOf(inSname)));
    ASSERT_NE(ele.opt82Pos, 0u);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 1u);
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_TRUE(sim::hasMessage("Option 82 in the file or sname field of the DHCP packet runs past the field, "
                                "the DHCP packet is dropped."));
    EXPECT_TRUE(sim::hasMessage("E - 1 call dhcpSnoopOp82Remove(pkt, ele, sNewData, &newLen) failed."));
}

TEST_F(Option82OverloadTest, Option82InAFieldOption52DoesNotNameIsNoOptionAndIsSentUnchanged)
{
    // file carries 82 but option 52 names sname only: file is no options
    // area for the client either. The parser saw no option 82 at all.
    op82(kPort5, 1);
    fb::Options inFile;
    inFile.relayAgent(relay).end();
    fb::Options inSname;
    inSname.end();
    parse(fb::ack().overload(fb::kOverloadSname).file(fieldOf(inFile)).sname(fieldOf(inSname)));
    EXPECT_EQ(ele.opt82Pos, 0u);
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}

TEST_F(Option82OverloadTest, WithOption82OffTheReplyIsSentUnchanged)
{
    op82(kPort5, 0);
    fb::Options inFile;
    inFile.relayAgent(relay).end();
    parse(fb::ack().overload(fb::kOverloadFile).file(fieldOf(inFile)));
    EXPECT_EQ(dhcpSnoopPacketForward(&pkt, &ele), 0u);
    expectSentUnchanged();
}


TEST_F(Option82OverloadTest, ThroughThePipelineTheClientGetsTheReplyWithoutRelayInformation)
{
    const up client = sim::physicalPort(1, 3);
    const up server = sim::physicalPort(1, 24);
    sim::portCfg(server).trust = 1;
    op82(server, 1);
    sim::setVlanSnooping(10, true);
    fb::Options inFile;
    inFile.relayAgent(relay).option(67, bootFile).end();
    fb::Options outFile;
    outFile.option(67, bootFile).end();

    ASSERT_EQ(simrun::receive(client, 10, fb::request().build()), 0u);
    sim::clearSent();
    ASSERT_EQ(simrun::receive(server, 10, fb::ack().overload(fb::kOverloadFile).file(fieldOf(inFile)).build()), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sameFrame(sim::sent()[0].frame, fb::ack().overload(fb::kOverloadFile).file(fieldOf(outFile)).build()));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

}  // namespace
