// Whole exchanges through the main task's queue on the simulated switch: a
// client on an untrusted access port, its server on a trusted port, a rogue
// server, option 82, aging and a flood.
#include <optional>
#include <string>
#include <vector>

#include "policy_support.h"

namespace {

using namespace pol;

class ScenarioTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
        client = sim::physicalPort(1, 3);
        server = sim::physicalPort(1, 24);
        rogue = sim::physicalPort(1, 10);
        sim::portCfg(server).trust = 1;
        sim::setVlanSnooping(kVlan, true);
        saveQ = sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME);
    }

    // One frame through the main task (and the FDB task); the save task is
    // left alone so that its queue can be looked at.
    void deliver(up port, const fb::Frame &frame)
    {
        ASSERT_EQ(simrun::inject(port, kVlan, frame.build()), 0u);
        simrun::pumpMain();
        simrun::pumpFdb();
    }

    // The frames sent since the last call.
    std::vector<sim::SentPacket> newlySent()
    {
        std::vector<sim::SentPacket> v(sim::sent().begin() + (long)seen, sim::sent().end());
        seen = sim::sent().size();
        return v;
    }

    // DISCOVER, OFFER, REQUEST and ACK of one client.
    void lease(const fb::Params &p = params())
    {
        deliver(client, fb::discover(p));
        deliver(server, fb::offer(p));
        deliver(client, fb::request(p));
        deliver(server, fb::ack(p));
        simrun::runUntilIdle();
    }

    up client = 0;
    up server = 0;
    up rogue = 0;
    PalMsgQ saveQ = 0;
    size_t seen = 0;
};

bool isFlood(const sim::SentPacket &s, up excluded)
{
    return (s.sendFlags & SEND_FLAG_FLOOD) != 0 && sim::portsIn(s.ports) == std::vector<up>{excluded};
}

// ---- a client's lease --------------------------------------------------------------

TEST_F(ScenarioTest, ClientLeaseThroughAccessPortAndTrustedServerPort)
{
    fb::Params p = params();
    fb::Bytes discover = fb::discover(p).build();
    deliver(client, fb::discover(p));
    std::vector<sim::SentPacket> s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_TRUE(isFlood(s[0], client));
    EXPECT_EQ(s[0].vid, kVlan);
    EXPECT_EQ(s[0].frame, discover);

    deliver(server, fb::offer(p));
    s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_TRUE(isFlood(s[0], server));
    EXPECT_EQ(s[0].frame, fb::offer(p).build());

    deliver(client, fb::request(p));
    EXPECT_EQ(newlySent().size(), 1u);
    DhcpSnoopElement *req = find(DHCP_SNOOP_ELEMENT_REQUEST);
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(req->up, client);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);

    deliver(server, fb::ack(p));
    EXPECT_EQ(newlySent().size(), 1u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), nullptr);
    DhcpSnoopElement *b = find(DHCP_SNOOP_ELEMENT_DYNAMIC);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->up, client) << "learned where the REQUEST came in";
    EXPECT_EQ(b->ttl, 3600u) << "the ACK's lease";
    EXPECT_EQ(b->vlan, kVlan);

    ASSERT_EQ(sim::qtable().size(), 1u);
    const SwQTableEntry &q = sim::qtable()[0];
    EXPECT_EQ(Ip({q.ip[0], q.ip[1], q.ip[2], q.ip[3]}), kClientIp);
    EXPECT_EQ(q.port, client);
    EXPECT_EQ(q.vlan, kVlan);
    EXPECT_EQ(memcmp(q.mac, kClientMac.data(), 6), 0);

    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    const std::vector<uint8_t> &rec = sim::runtimeRecords()[0];
    ASSERT_EQ(rec.size(), 48u);
    EXPECT_EQ(rec[3], DHCP_SNOOP_SYNC_ADD);

    EXPECT_EQ(sim::queueDepth(saveQ), 1u) << "one save request";
    simrun::runUntilIdle();
    EXPECT_EQ(sim::queueDepth(saveQ), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(ScenarioTest, RenewalReplacesTheBindingWithTheNewLease)
{
    lease();
    DhcpSnoopElement *first = find(DHCP_SNOOP_ELEMENT_DYNAMIC);
    ASSERT_NE(first, nullptr);
    sim::fdbSet(fb::Params().serverMac, kVlan, server);
    newlySent();

    fb::Params renew = params(kClientIp, 0x0BADCAFE);
    renew.lease = 7200;
    deliver(client, fb::requestRenewing(renew));
    std::vector<sim::SentPacket> s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_NE(s[0].sendFlags & SEND_FLAG_BY_FDB, 0u) << "unicast to the known server";
    ASSERT_NE(find(DHCP_SNOOP_ELEMENT_REQUEST), nullptr);

    deliver(server, fb::ack(renew));
    EXPECT_EQ(newlySent().size(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    DhcpSnoopElement *b = find(DHCP_SNOOP_ELEMENT_DYNAMIC);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->ttl, 7200u);
    EXPECT_EQ(b->up, client);
    EXPECT_EQ(sim::qtable().size(), 1u);
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, ReleaseRemovesTheBinding)
{
    lease();
    newlySent();
    sim::clearRuntimeRecords();
    deliver(client, fb::release(params()));
    EXPECT_EQ(newlySent().size(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(sim::runtimeRecords()[0][3], DHCP_SNOOP_SYNC_DELETE);
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, DeclineRemovesTheBinding)
{
    lease();
    newlySent();
    deliver(client, fb::decline(params()));
    EXPECT_EQ(newlySent().size(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, NakRemovesThePendingRequestAndTheBinding)
{
    lease();
    deliver(client, fb::requestRenewing(params()));
    ASSERT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    newlySent();
    // The key of a NAK is its yiaddr: a NAK naming the address.
    deliver(server, fb::nak(params()).yiaddr(ipWord(kClientIp)));
    EXPECT_EQ(newlySent().size(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, NakWithoutAddressIsForwardedAndRemovesNothing)
{
    deliver(client, fb::request(params()));
    newlySent();
    deliver(server, fb::nak(params()));
    EXPECT_EQ(newlySent().size(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    simrun::runUntilIdle();
}

// ---- a rogue server -------------------------------------------------------------------

TEST_F(ScenarioTest, RogueServerOnAnUntrustedPortNeverReachesTheClient)
{
    fb::Params p = params();
    deliver(client, fb::discover(p));
    newlySent();
    deliver(rogue, fb::offer(p));
    EXPECT_TRUE(newlySent().empty());
    deliver(client, fb::request(p));
    newlySent();
    deliver(rogue, fb::ack(p));
    EXPECT_TRUE(newlySent().empty());
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    ASSERT_NE(find(DHCP_SNOOP_ELEMENT_REQUEST), nullptr) << "the client's request still waits";
    // The genuine server's ACK still binds.
    deliver(server, fb::ack(p));
    EXPECT_EQ(newlySent().size(), 1u);
    DhcpSnoopElement *b = find(DHCP_SNOOP_ELEMENT_DYNAMIC);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->up, client);
    simrun::runUntilIdle();
}

// ---- option 82 ------------------------------------------------------------------------

TEST_F(ScenarioTest, Option82IsAddedTowardsTheServer)
{
    sim::portCfg(client).op82Enable = 1;
    fb::Bytes in = fb::discover(params()).build();
    size_t end = fb::endOffset(in);
    ASSERT_NE(end, fb::npos);
    deliver(client, fb::discover(params()));
    std::vector<sim::SentPacket> s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    const fb::Bytes &out = s[0].frame;
    ASSERT_EQ(out.size(), in.size() + 16);
    sim::Mac mac = sim::switchMac();
    fb::Bytes expected = {82, 14, 1, 4, 0, kVlan, 1, 3, 2, 6};
    expected.insert(expected.end(), mac.begin(), mac.end());
    expected.push_back(255);
    EXPECT_EQ(fb::getBytes(out, end, expected.size()), expected);
    EXPECT_EQ(fb::ipTotalLength(out), fb::ipTotalLength(in) + 16);
    EXPECT_EQ(fb::udpLength(out), fb::udpLength(in) + 16);
    EXPECT_TRUE(fb::ipv4ChecksumValid(out, fb::ipOffset(out)));
    EXPECT_TRUE(fb::udpChecksumValid(out, fb::ipOffset(out), false));
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, Option82IsStrippedTowardsTheClientWhenTheServerPortAsks)
{
    sim::portCfg(server).op82Enable = 1;
    fb::Frame offer = fb::offer(params()).relayAgent(fb::RelayAgentInfo().circuitId({0, kVlan, 1, 3}));
    fb::Bytes in = offer.build();
    deliver(server, offer);
    std::vector<sim::SentPacket> s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    const fb::Bytes &out = s[0].frame;
    EXPECT_EQ(out.size(), in.size());
    EXPECT_FALSE(fb::findOption(out, fb::kOptRelayAgent).has_value());
    EXPECT_EQ(fb::messageTypeOf(out), std::optional<uint8_t>(fb::kOffer));
    size_t end = fb::endOffset(out);
    ASSERT_NE(end, fb::npos);
    for (size_t i = end + 1; i < fb::ipOffset(out) + fb::ipTotalLength(out); i++)
        EXPECT_EQ(out[i], 0) << "stale byte at " << i;
    EXPECT_TRUE(fb::ipv4ChecksumValid(out, fb::ipOffset(out)));
    EXPECT_TRUE(fb::udpChecksumValid(out, fb::ipOffset(out), false));
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, StrippingFollowsThePortTheReplyArrivesOn)
{
    // Option 82 on at the client's port only: the reply arrives on the
    // server's port, which does not ask for it, so the option stays.
    sim::portCfg(client).op82Enable = 1;
    fb::Frame offer = fb::offer(params()).relayAgent(fb::RelayAgentInfo().circuitId({0, kVlan, 1, 3}));
    deliver(server, offer);
    std::vector<sim::SentPacket> s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_EQ(s[0].frame, offer.build());
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, LeaseWithOption82BindsAndLeavesTheOptionAtTheSwitch)
{
    sim::portCfg(client).op82Enable = 1;
    sim::portCfg(server).op82Enable = 1;
    fb::RelayAgentInfo echo = fb::RelayAgentInfo().circuitId({0, kVlan, 1, 3});
    deliver(client, fb::request(params()));
    std::vector<sim::SentPacket> s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_TRUE(fb::findOption(s[0].frame, fb::kOptRelayAgent).has_value()) << "added towards the server";
    deliver(server, fb::ack(params()).relayAgent(echo));
    s = newlySent();
    ASSERT_EQ(s.size(), 1u);
    EXPECT_FALSE(fb::findOption(s[0].frame, fb::kOptRelayAgent).has_value()) << "stripped towards the client";
    DhcpSnoopElement *b = find(DHCP_SNOOP_ELEMENT_DYNAMIC);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->up, client);
    simrun::runUntilIdle();
}

// ---- aging ------------------------------------------------------------------------------

TEST_F(ScenarioTest, BindingAgesOutWhenItsLeaseRunsDown)
{
    fb::Params p = params();
    p.lease = 5;
    lease(p);
    ASSERT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    sim::clearRuntimeRecords();
    // A lease of n lasts n + 1 ticks.
    simrun::advance(5000);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(sim::qtable().size(), 1u);
    simrun::advance(1000);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(sim::runtimeRecords()[0][3], DHCP_SNOOP_SYNC_DELETE);
}

TEST_F(ScenarioTest, UnansweredRequestAgesOut)
{
    deliver(client, fb::request(params()));
    ASSERT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    simrun::advance(64000);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    simrun::advance(1000);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

// ---- a flood ----------------------------------------------------------------------------

TEST_F(ScenarioTest, FloodAboveThePortsRateIsLoggedOncePerThirtySeconds)
{
    sim::portCfg(client).limitRate = 5;
    fb::Bytes d = fb::discover(params()).build();
    for (int second = 0; second < 61; second++) {
        for (int i = 0; i < 20; i++)
            ASSERT_EQ(simrun::inject(client, kVlan, d), 0u);
        simrun::runUntilIdle();
        EXPECT_EQ(newlySent().size(), 5u) << "second " << second;
        size_t expected = second < 30 ? 1 : second < 60 ? 2 : 3;
        EXPECT_EQ(flowSyslog().size(), expected) << "second " << second;
        simrun::advance(1000);
    }
    for (const auto &e : flowSyslog()) {
        EXPECT_EQ(e.code, DHCP_SNOOP_LOG_RATE_OVERFLOW);
        EXPECT_EQ(e.portName, "1/0/3");
    }
}

// ---- failures ---------------------------------------------------------------------------

TEST_F(ScenarioTest, TransmitFailureAfterFilingLosesNothing)
{
    sim::failNext("norvikPacketSend", 7);
    deliver(client, fb::request(params()));
    EXPECT_TRUE(newlySent().empty());
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    sim::failNext("norvikPacketSend", 7);
    deliver(server, fb::ack(params()));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(mallocCounter, 1u);
    simrun::runUntilIdle();
}

TEST_F(ScenarioTest, PolicyErrorBeforeFilingLosesNothing)
{
    // The parser reads the trust first; the policy's own read is the second.
    sim::failNext("swDhcpSnoopGetPortTrust", 3, 1, 1);
    deliver(client, fb::discover(params()));
    EXPECT_TRUE(newlySent().empty());
    EXPECT_EQ(mallocCounter, 0u);
    simrun::runUntilIdle();
}

}  // namespace

// ---- a VLAN without snooping ----------------------------------------------------------

class UnsnoopedVlanTest : public ScenarioTest {
protected:
    void SetUp() override
    {
        ScenarioTest::SetUp();
        sim::setVlanSnooping(kVlan, false);
        // Everything a snooped VLAN would do to these frames is switched on.
        sim::portCfg(client).op82Enable = 1;
        sim::portCfg(client).macVerify = 1;
        sim::portCfg(client).limitRate = 1;
    }

    void expectNothingLearned()
    {
        EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
        EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
        EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE) << "no element is taken";
        EXPECT_TRUE(sim::qtable().empty());
    }

    const sim::Mac serverMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x24};
};

TEST_F(UnsnoopedVlanTest, MalformedFrameIsFloodedUnchangedWithoutTheReceivePort)
{
    fb::Bytes f = fb::discover(params()).etherType(0x86DD).udpLength(3).build();
    fb::truncate(f, 40);
    ASSERT_EQ(simrun::receive(client, kVlan, f), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(isFlood(sim::sent()[0], client));
    EXPECT_EQ(sim::sent()[0].vid, kVlan);
    EXPECT_EQ(sim::sent()[0].frame, f);
    EXPECT_EQ(sim::releaseCount(), 1u);
    expectNothingLearned();
}

TEST_F(UnsnoopedVlanTest, ValidFramesPassUntouchedAndTeachNothing)
{
    // Option 82 on the port, a CHADDR that is not the source MAC, a rate of
    // one frame a second and a server message from an untrusted port: none
    // of it applies where the VLAN is not snooped.
    fb::Params p = params();
    std::vector<fb::Bytes> frames = {
        fb::discover(p).chaddr(kOtherMac).build(), fb::discover(p).build(), fb::request(p).build()};
    for (const fb::Bytes &f : frames)
        ASSERT_EQ(simrun::receive(client, kVlan, f), 0u);
    ASSERT_EQ(simrun::receive(rogue, kVlan, fb::ack(p).build()), 0u);
    ASSERT_EQ(sim::sent().size(), 4u);
    for (size_t i = 0; i < frames.size(); i++) {
        EXPECT_TRUE(isFlood(sim::sent()[i], client)) << i;
        EXPECT_EQ(sim::sent()[i].frame, frames[i]) << i << ": no option 82 added";
    }
    EXPECT_EQ(sim::sent()[3].frame, fb::ack(p).build());
    EXPECT_EQ(countSyslog(DHCP_SNOOP_LOG_RATE_OVERFLOW), 0u);
    expectNothingLearned();
}

TEST_F(UnsnoopedVlanTest, UnicastGoesToTheDestinationTheForwardingDatabaseNames)
{
    sim::fdbSet(serverMac, kVlan, server);
    fb::Bytes f = fb::request(params()).dstMac(serverMac).build();
    // The first frame asks the cache task for the destination; a later one
    // finds it either way.
    ASSERT_EQ(simrun::receive(client, kVlan, f), 0u);
    ASSERT_EQ(simrun::receive(client, kVlan, f), 0u);
    ASSERT_EQ(sim::sent().size(), 2u);
    const sim::SentPacket &s = sim::sent()[1];
    EXPECT_EQ(s.sendFlags & SEND_FLAG_BY_FDB, SEND_FLAG_BY_FDB);
    EXPECT_EQ(s.sendFlags & SEND_FLAG_FLOOD, 0u);
    EXPECT_EQ(s.frame, f);
    EXPECT_EQ(s.vid, kVlan);
    bool asked = false;
    for (const sim::FdbLookup &l : sim::fdbLookups())
        asked = asked || (l.mac == serverMac && l.vlan == kVlan);
    EXPECT_TRUE(asked) << "the destination was looked up in the frame's VLAN";
    expectNothingLearned();
}

TEST_F(UnsnoopedVlanTest, DestinationBehindTheReceivePortIsNotDelivered)
{
    sim::fdbSet(serverMac, kVlan, client);
    fb::Bytes f = fb::request(params()).dstMac(serverMac).build();
    ASSERT_EQ(simrun::receive(client, kVlan, f), 0u);
    ASSERT_EQ(simrun::receive(client, kVlan, f), 0u);
    for (const sim::SentPacket &s : sim::sent()) {
        EXPECT_TRUE(sim::portsIn(s.ports).empty());
        EXPECT_EQ(s.sendFlags & (SEND_FLAG_FLOOD | SEND_FLAG_BY_FDB), 0u);
    }
    EXPECT_EQ(sim::releaseCount(), 2u);
    expectNothingLearned();
}
