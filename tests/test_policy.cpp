// Message-type policy: what each type does to the tables and to the frame,
// who owns the element afterwards, and the error exits.
#include <algorithm>
#include <string>
#include <vector>

#include "policy_support.h"
#include "snooping/dhcpSnoopWire.h"

namespace {

using namespace pol;

const Ip kZeroIp = {0, 0, 0, 0};

class PolicyTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
        client = sim::physicalPort(1, 3);
        other = sim::physicalPort(1, 7);
        server = sim::physicalPort(1, 24);
        sim::portCfg(server).trust = 1;
        sim::setVlanSnooping(kVlan, true);
    }

    // The policy on a hand-filled element, with the frame it came in.
    uint32_t manage(DhcpSnoopElement *e, const fb::Frame &frame)
    {
        rcvPort = e->up;
        Packet p(e->up, e->vlan, frame.build());
        return dhcpSnoopTableManage(&p.pkt, e);
    }

    DhcpSnoopElement *fileRequest(up port, uint32_t xid = kXid, const Ip &ip = kClientIp)
    {
        DhcpSnoopElement *e = element(DHCP_SNOOP_TYPE_REQUEST, ip, port, xid);
        EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_REQUEST), 0u);
        return e;
    }

    DhcpSnoopElement *fileBinding(up port, const Ip &ip = kClientIp, uint16_t vlan = kVlan,
                                  const sim::Mac &mac = kClientMac)
    {
        DhcpSnoopElement *e = element(DHCP_SNOOP_TYPE_ACK, ip, port, kXid, vlan, mac, 3600);
        EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
        return e;
    }

    uint32_t filed() const
    {
        return tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST);
    }

    // The element went back to the pool: nothing is handed out but the filed.
    void expectElementReturned() { EXPECT_EQ(mallocCounter, filed()); }

    up client = 0;
    up other = 0;
    up server = 0;
};

// ---- frames that change no table -------------------------------------------------------

TEST_F(PolicyTest, ServerMessagesFromAnUntrustedPortAreDroppedAndChangeNoTable)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *req = fileRequest(client);
    DhcpSnoopElement *bind = fileBinding(client);
    struct Row {
        uint8_t type;
        fb::Frame frame;
        const char *line;
    };
    std::vector<Row> rows = {
        {DHCP_SNOOP_TYPE_OFFER, fb::offer(params()), "Drop DHCP offer packet received from untrusted port."},
        {DHCP_SNOOP_TYPE_ACK, fb::ack(params()), "Drop DHCP ack packet received from untrusted port."},
        {DHCP_SNOOP_TYPE_NAK, fb::nak(params()), "Drop DHCP nak packet received from untrusted port."},
    };
    for (const Row &r : rows) {
        sim::clearLogs();
        sim::clearRuntimeRecords();
        EXPECT_EQ(manage(element(r.type, kClientIp, other), r.frame), 0u) << (int)r.type;
        EXPECT_EQ(sim::countMessage(r.line), 1u) << (int)r.type;
        EXPECT_EQ(sim::countMessage("============Table manage end================\n"), 1u);
        EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), req);
        EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), bind);
        EXPECT_EQ(filed(), 2u);
        EXPECT_TRUE(sim::runtimeRecords().empty());
        expectElementReturned();
    }
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(PolicyTest, DiscoverInformAndBootpAreForwardedFromAnyPortAndChangeNoTable)
{
    sim::setDebugFlag(1);
    struct Row {
        uint8_t type;
        fb::Frame frame;
        const char *line;
    };
    std::vector<Row> rows = {
        {DHCP_SNOOP_TYPE_DISCOVER, fb::discover(params()), "Forward the DHCP discover packet."},
        {DHCP_SNOOP_TYPE_INFORM, fb::inform(params()), "Forward the DHCP inform packet."},
        {DHCP_SNOOP_TYPE_BOOTP_REQUEST, fb::bootpRequest(params()), "Forward the BOOTP packet."},
        {DHCP_SNOOP_TYPE_BOOTP_REPLY, fb::bootpReply(params()), "Forward the BOOTP packet."},
        {DHCP_SNOOP_TYPE_NONE, fb::bootpRequest(params()), "Forward the BOOTP packet."},
    };
    for (up port : {client, server}) {
        for (const Row &r : rows) {
            sim::clearLogs();
            sim::clearSent();
            fb::Bytes bytes = r.frame.build();
            EXPECT_EQ(manage(element(r.type, kClientIp, port), r.frame), 0u) << (int)r.type;
            EXPECT_EQ(sim::countMessage(r.line), 1u) << (int)r.type;
            ASSERT_EQ(sim::sent().size(), 1u) << (int)r.type;
            EXPECT_EQ(sim::sent()[0].frame, bytes);
            EXPECT_EQ(filed(), 0u);
            expectElementReturned();
        }
    }
}

TEST_F(PolicyTest, TypeTwelveIsNamedUnknownButNotTransmitted)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(manage(element(12, kClientIp, client), fb::discover(params()).messageType(12)), 0u);
    EXPECT_EQ(sim::countMessage("Forward unkown packet."), 1u);
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(filed(), 0u);
    expectElementReturned();
}

TEST_F(PolicyTest, TrustedOfferIsForwarded)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_OFFER, kClientIp, server), fb::offer(params())), 0u);
    EXPECT_EQ(sim::countMessage("Forward DHCP offer packet received from trusted port."), 1u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, StartLinesNameTypeAndPortTrust)
{
    sim::setDebugFlag(1);
    manage(element(DHCP_SNOOP_TYPE_DISCOVER, kClientIp, server), fb::discover(params()));
    std::vector<std::string> m = sim::messages();
    ASSERT_GE(m.size(), 2u);
    EXPECT_EQ(m[0], "============== Table Manage start type 1=================\n");
    EXPECT_EQ(m[1], "port: 1/0/24, trust: 1");
}

// ---- REQUEST ---------------------------------------------------------------------------

TEST_F(PolicyTest, RequestIsFiledOnItsPortAndForwarded)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *e = element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client);
    EXPECT_EQ(manage(e, fb::request(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), e);
    EXPECT_EQ(e->up, client);
    EXPECT_EQ(sim::countMessage("Forward the DHCP request packet."), 1u);
    EXPECT_EQ(sim::sent().size(), 1u);
    EXPECT_EQ(mallocCounter, 1u) << "the table owns the request";
    // A request is no binding: no source guard, no runtime record, no save.
    EXPECT_TRUE(sim::qtable().empty());
    EXPECT_TRUE(sim::runtimeRecords().empty());
    EXPECT_EQ(upMsgCnt, 0u);
}

TEST_F(PolicyTest, TwoRequestsWithTheSameKeyLeaveTheLaterOne)
{
    DhcpSnoopElement *first = element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client, 0x1111);
    EXPECT_EQ(manage(first, fb::request(params(kClientIp, 0x1111))), 0u);
    DhcpSnoopElement *second = element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client, 0x2222);
    EXPECT_EQ(manage(second, fb::request(params(kClientIp, 0x2222))), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    DhcpSnoopElement *found = find(DHCP_SNOOP_ELEMENT_REQUEST);
    ASSERT_EQ(found, second);
    EXPECT_EQ(found->xid[3], 0x22);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(PolicyTest, RequestWhileChangesAreSuspendedIsForwardedAndReturned)
{
    sim::setQAddStatus(0);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client), fb::request(params())), 0u);
    EXPECT_EQ(filed(), 0u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

// ---- ACK -------------------------------------------------------------------------------

TEST_F(PolicyTest, AckBindsTheClientOnTheRequestsPortWithTheAcksLease)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *req = fileRequest(client);
    (void)req;
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server, kXid, kVlan, kClientMac, 3600);
    EXPECT_EQ(manage(ack, fb::ack(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), ack);
    EXPECT_EQ(ack->up, client);
    EXPECT_EQ(ack->ttl, 3600u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), nullptr);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(sim::countMessage("temp1->up:1/0/3"), 1u);
    EXPECT_EQ(sim::countMessage("tempElement->up:1/0/24"), 1u);
    EXPECT_EQ(sim::countMessage("Forward the DHCP ack packet."), 1u);
    ASSERT_EQ(sim::qtable().size(), 1u);
    EXPECT_EQ(sim::qtable()[0].port, client);
    EXPECT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(sim::queueDepth(sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME)), 1u);
    EXPECT_EQ(sim::sent().size(), 1u);
}

TEST_F(PolicyTest, AckWithoutARequestIsDropped)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kClientIp, server), fb::ack(params())), 0u);
    EXPECT_EQ(sim::countMessage("Find request table binding enttry failed, Drop the DHCP ack packet."), 1u);
    EXPECT_EQ(filed(), 0u);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, AckWithAnotherXidIsDroppedAndLeavesTheRequest)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *req = fileRequest(client, 0xAAAA0001);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kClientIp, server, 0xAAAA0002), fb::ack(params())), 0u);
    EXPECT_EQ(sim::countMessage("The value of xid field in DHCP ack packet is different from DHCP request packet, "
                                "drop the DHCP ack packet."),
              1u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), req);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, AckOnTheRequestsOwnPortIsDroppedAfterRemovingTheOldBinding)
{
    sim::setDebugFlag(1);
    sim::portCfg(client).trust = 1;
    fileBinding(client);
    DhcpSnoopElement *req = fileRequest(client);
    sim::clearRuntimeRecords();
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kClientIp, client), fb::ack(params())), 0u);
    EXPECT_EQ(sim::countMessage("DHCP ack packet and DHCP request packet receive from the same port, drop the DHCP "
                                "ack packet."),
              1u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr) << "the older binding is gone";
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), req);
    EXPECT_TRUE(sim::qtable().empty());
    EXPECT_EQ(sim::runtimeRecords().size(), 1u) << "one delete record";
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, AckReplacesAnOlderBindingWithTheSameKey)
{
    DhcpSnoopElement *old = fileBinding(other);
    (void)old;
    fileRequest(client);
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server, kXid, kVlan, kClientMac, 7200);
    EXPECT_EQ(manage(ack, fb::ack(params())), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), ack);
    EXPECT_EQ(ack->up, client);
    EXPECT_EQ(ack->ttl, 7200u);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(PolicyTest, AckWhileChangesAreSuspendedIsForwardedAndNothingIsFiled)
{
    DhcpSnoopElement *req = fileRequest(client);
    sim::setQAddStatus(0);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kClientIp, server), fb::ack(params())), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), req);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, AckWithoutAnAddressIsForwardedWithoutLookingAtTheTables)
{
    sim::setDebugFlag(1);
    // A request that an ACK for 0.0.0.0 would match, were it looked up.
    DhcpSnoopElement *req = fileRequest(client, kXid, kZeroIp);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kZeroIp, server), fb::ack(params(kZeroIp))), 0u);
    EXPECT_EQ(sim::countMessage("Forward the DHCP ack packet that reply DHCP inform packet."), 1u);
    EXPECT_EQ(sim::countMessage("Forward the DHCP ack packet."), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST, kZeroIp), req);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, AckWhenEveryStatusReadFailsIsForwardedUnfiledAndReturned)
{
    fileRequest(client);
    sim::failNext("swDhcpSnoopGetQAddStatus", 9, 0, -1);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kClientIp, server), fb::ack(params())), 0u);
    sim::clearFailures();
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

// ---- NAK -------------------------------------------------------------------------------

TEST_F(PolicyTest, TrustedNakRemovesRequestThenBindingAndIsForwarded)
{
    sim::setDebugFlag(1);
    fileBinding(client);
    fileRequest(client);
    sim::clearLogs();
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_NAK, kClientIp, server), fb::nak(params()).yiaddr(ipWord(kClientIp))),
              0u);
    EXPECT_EQ(filed(), 0u);
    std::vector<std::string> m = sim::messages();
    auto at = [&](const std::string &prefix) {
        for (size_t i = 0; i < m.size(); i++)
            if (m[i].rfind(prefix, 0) == 0)
                return (long)i;
        return -1L;
    };
    long req = at("Del element, client IP:192.168.1.100, type:1");
    long dyn = at("Del element, client IP:192.168.1.100, type:0");
    ASSERT_GE(req, 0);
    ASSERT_GE(dyn, 0);
    EXPECT_LT(req, dyn) << "the request goes first";
    EXPECT_EQ(sim::countMessage("Forward the DHCP nak packet."), 1u);
    EXPECT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sim::qtable().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, TrustedNakWithoutEntriesIsForwarded)
{
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_NAK, kClientIp, server), fb::nak(params())), 0u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

// ---- RELEASE ---------------------------------------------------------------------------

TEST_F(PolicyTest, ReleaseFromAnotherPortStillRemovesTheBinding)
{
    sim::setDebugFlag(1);
    fileBinding(client);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_RELEASE, kClientIp, other), fb::release(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    EXPECT_TRUE(sim::qtable().empty());
    EXPECT_EQ(sim::countMessage("Forward the DHCP release packet."), 1u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, ReleaseOfAnotherMacLeavesTheBinding)
{
    DhcpSnoopElement *b = fileBinding(client);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_RELEASE, kClientIp, client, kXid, kVlan, kOtherMac),
                     fb::release(params(kClientIp, kXid, kOtherMac))),
              0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), b);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, ReleaseWithoutBindingIsDroppedFromAnUntrustedPort)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_RELEASE, kClientIp, client), fb::release(params())), 0u);
    EXPECT_EQ(sim::countMessage("Drop DHCP release packet that dosn't find matched entry in the dynamic table."), 1u);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, ReleaseWithoutBindingFromATrustedPortIsForwardedWithBothLines)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_RELEASE, kClientIp, server), fb::release(params())), 0u);
    std::vector<std::string> m = sim::messages();
    auto fwd = std::find(m.begin(), m.end(), "Forward DHCP release packet received from trusted port.");
    auto drop = std::find(m.begin(), m.end(), "Drop DHCP release packet that dosn't find matched entry in the dynamic table.");
    ASSERT_NE(fwd, m.end());
    ASSERT_NE(drop, m.end());
    EXPECT_LT(fwd, drop);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, ReleaseWhileChangesAreSuspendedIsForwardedAndKeepsTheBinding)
{
    DhcpSnoopElement *b = fileBinding(client);
    sim::setQAddStatus(0);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_RELEASE, kClientIp, client), fb::release(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), b);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

// ---- DECLINE ---------------------------------------------------------------------------

TEST_F(PolicyTest, DeclineWithAnAddressRemovesItsBinding)
{
    sim::setDebugFlag(1);
    fileBinding(client);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DECLINE, kClientIp, client), fb::decline(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    EXPECT_EQ(sim::countMessage("Forward the DHCP decline packet."), 1u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, DeclineWithoutAnAddressFindsTheBindingByMacAndVlan)
{
    sim::setDebugFlag(1);
    fileBinding(client, {10, 0, 0, 9}, 20, kOtherMac);  // same VLAN, another MAC
    fileBinding(client, {10, 0, 0, 7}, 30);             // same MAC, another VLAN
    fileBinding(client, {10, 0, 0, 8}, 20);             // the one
    sim::clearLogs();
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DECLINE, kZeroIp, client, kXid, 20),
                     fb::decline(params(kZeroIp)).removeOption(fb::kOptRequestedIp)),
              0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC, {10, 0, 0, 8}, 20), nullptr);
    EXPECT_NE(find(DHCP_SNOOP_ELEMENT_DYNAMIC, {10, 0, 0, 9}, 20, kOtherMac), nullptr);
    EXPECT_NE(find(DHCP_SNOOP_ELEMENT_DYNAMIC, {10, 0, 0, 7}, 30), nullptr);
    EXPECT_EQ(sim::countMessage("Find dynamic table binding entry:\n src IP:10.0.0.8, src MAC:00:11:22:33:44:55, "
                                "vlan:20, port:1/0/3, ttl:3600"),
              1u);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

TEST_F(PolicyTest, DeclineWithoutAddressOnVlanZeroFindsNothingAndIsDroppedFromAnUntrustedPort)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *b = fileBinding(client, {10, 0, 0, 8}, 0);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DECLINE, kZeroIp, client, kXid, 0),
                     fb::decline(params(kZeroIp)).removeOption(fb::kOptRequestedIp)),
              0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC, {10, 0, 0, 8}, 0), b);
    EXPECT_EQ(sim::countMessage("Drop DHCP decline packet that dosn't find matched entry in the dynamic table."), 1u);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, DeclineWithoutBindingFromATrustedPortIsForwardedWithBothLines)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DECLINE, kClientIp, server), fb::decline(params())), 0u);
    std::vector<std::string> m = sim::messages();
    auto fwd = std::find(m.begin(), m.end(), "Forward DHCP decline packet received from trusted port.");
    auto drop = std::find(m.begin(), m.end(), "Drop DHCP decline packet that dosn't find matched entry in the dynamic table.");
    ASSERT_NE(fwd, m.end());
    ASSERT_NE(drop, m.end());
    EXPECT_LT(fwd, drop);
    EXPECT_EQ(sim::sent().size(), 1u);
    expectElementReturned();
}

// ---- ownership and error exits --------------------------------------------------------

TEST_F(PolicyTest, NullElementOrPacketIsRefused)
{
    EXPECT_EQ(dhcpSnoopTableManage(nullptr, nullptr), 1u);
    EXPECT_EQ(dhcpSnoopTableManage(nullptr, element(DHCP_SNOOP_TYPE_DISCOVER, kClientIp, client)), 1u);
    EXPECT_EQ(mallocCounter, 0u) << "the element given with a null packet goes back to the pool";
}

TEST_F(PolicyTest, UnreadableTrustIsAnErrorExit)
{
    sim::setDebugFlag(1);
    sim::failNext("swDhcpSnoopGetPortTrust", 42);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DISCOVER, kClientIp, client), fb::discover(params())), 42u);
    EXPECT_TRUE(hasErrorLine("E - 42 call swDhcpSnoopGetPortTrust(tempElement->up, &trust) failed."));
    EXPECT_EQ(sim::countMessage("============Table manage end================\n"), 0u);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, ForwardFailureOfAPassingFrameIsAnErrorExitThatReturnsTheElement)
{
    sim::setDebugFlag(1);
    sim::failNext("norvikPacketSend", 31);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DISCOVER, kClientIp, client), fb::discover(params())), 31u);
    EXPECT_TRUE(hasErrorLine("E - 31 call dhcpSnoopPacketForward(inputPacket, tempElement) failed."));
    expectElementReturned();
}

TEST_F(PolicyTest, ForwardFailureAfterTheRequestWasFiledLeavesItToTheTable)
{
    sim::setDebugFlag(1);
    sim::failNext("norvikPacketSend", 31);
    DhcpSnoopElement *e = element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client);
    EXPECT_EQ(manage(e, fb::request(params())), 31u);
    EXPECT_TRUE(hasErrorLine("E - 31 call dhcpSnoopPacketForward(inputPacket, tempElement) failed."));
    // Never freed while filed: the request ages out like any other.
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), e);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(PolicyTest, ForwardFailureAfterTheAckWasFiledKeepsTheBinding)
{
    fileRequest(client);
    sim::failNext("norvikPacketSend", 31);
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server);
    EXPECT_EQ(manage(ack, fb::ack(params())), 31u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), ack);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), nullptr);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(PolicyTest, FailedAddOfTheBindingAfterFilingKeepsItFiled)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *req = fileRequest(client);
    sim::failNext("stkUsoRuntimeDataSync", 5);
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server);
    EXPECT_EQ(manage(ack, fb::ack(params())), DHCP_SNOOP_E_STACK_SYNC);
    EXPECT_TRUE(hasErrorLine("E - 1320 call dhcpSnoopElementAddNew(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), ack);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), req) << "the request stays: its delete comes after the add";
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(mallocCounter, 2u);
}

TEST_F(PolicyTest, FailedRemovalOfTheOldBindingDropsTheAck)
{
    sim::setDebugFlag(1);
    fileBinding(other);
    DhcpSnoopElement *req = fileRequest(client);
    sim::failNext("swQTableDel", 66);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_ACK, kClientIp, server), fb::ack(params())), 66u);
    EXPECT_TRUE(hasErrorLine("E - 66 call dhcpSnoopElementDelete(temp2, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u) << "the old binding is unlinked whatever the result";
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), req);
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, FailedRemovalOnReleaseIsAnErrorExit)
{
    sim::setDebugFlag(1);
    fileBinding(client);
    sim::failNext("stkUsoRuntimeDataSync", 5);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_RELEASE, kClientIp, client), fb::release(params())),
              DHCP_SNOOP_E_STACK_SYNC);
    EXPECT_TRUE(hasErrorLine("E - 1320 call dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}

TEST_F(PolicyTest, FailedRemovalOnNakIsAnErrorExit)
{
    sim::setDebugFlag(1);
    fileBinding(client);
    sim::failNext("stkUsoRuntimeDataSync", 5);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_NAK, kClientIp, server), fb::nak(params())), DHCP_SNOOP_E_STACK_SYNC);
    EXPECT_TRUE(hasErrorLine("E - 1320 call dhcpSnoopElementDelete(temp2, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    EXPECT_TRUE(sim::sent().empty());
    expectElementReturned();
}


// ---- a stack unit acting while the ACK is handled ------------------------------------
// The stacking service calls the runtime handler on its own thread; here it
// acts at the worst moment, from within the ACK's own runtime sync: right
// after the ACK's element was filed, before the policy is done with it.

void handleRuntimeRecord(uint32_t op, const DhcpSnoopElement &v)
{
    uint8_t rec[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    dhcpSnoopRuntimeRecordEncode(op, &v, rec);
    UsoData d{rec, sizeof rec};
    EXPECT_EQ(dhcpSnoopRuntimeDataHnd(&d), 0u);
}

TEST_F(PolicyTest, BindingRemovedByAStackUnitWhileTheAckIsHandledIsFreedOnce)
{
    fileRequest(client);
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server, kXid, kVlan, kClientMac, 3600);
    DhcpSnoopElement gone = keyOf(kClientIp);
    sim::onCall("stkUsoRuntimeDataSync", [&] { handleRuntimeRecord(DHCP_SNOOP_SYNC_DELETE, gone); });
    EXPECT_EQ(manage(ack, fb::ack(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_REQUEST), nullptr);
    // Given back once: by the removal, not again by the policy.
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE);
    // The client still gets its ACK, as received.
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_EQ(sim::sent()[0].frame, fb::ack(params()).build());
}

TEST_F(PolicyTest, ElementReusedByAStackUnitWhileTheAckIsHandledStaysFiled)
{
    fileRequest(client);
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server, kXid, kVlan, kClientMac, 3600);
    // The removed element is the pool's next: the unit's add takes it again,
    // for a binding restored from a file (type 0).
    const Ip otherIp = {192, 168, 1, 7};
    DhcpSnoopElement other = keyOf(otherIp);
    other.up = sim::physicalPort(1, 9);
    other.ttl = 500;
    DhcpSnoopElement gone = keyOf(kClientIp);
    sim::onCall("stkUsoRuntimeDataSync", [&] {
        handleRuntimeRecord(DHCP_SNOOP_SYNC_DELETE, gone);
        handleRuntimeRecord(DHCP_SNOOP_SYNC_ADD, other);
    });
    EXPECT_EQ(manage(ack, fb::ack(params())), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    DhcpSnoopElement *kept = find(DHCP_SNOOP_ELEMENT_DYNAMIC, otherIp);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->up, other.up);
    EXPECT_EQ(kept->ttl, 500u);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE - 1u);
    // The ACK went out as received, not with the fields of the reused element.
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_EQ(sim::sent()[0].frame, fb::ack(params()).build());
}


// ---- failing request-table operations ---------------------------------------------------
// The request found is gone by the time it is removed (here: removed from
// within the removal's own status read), so the removal fails.

void removeRequestAtTheNextStatusRead(DhcpSnoopElement *request, int skip)
{
    sim::onCall(
        "swDhcpSnoopGetQAddStatus",
        [request] { EXPECT_EQ(dhcpSnoopElementDelete(request, DHCP_SNOOP_ELEMENT_REQUEST), 0u); }, skip, 1);
}

TEST_F(PolicyTest, FailedRemovalOfTheOlderRequestIsAnErrorExit)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *old = fileRequest(client, 0xAAAA0001);
    removeRequestAtTheNextStatusRead(old, 0);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client), fb::request(params())), 1u);
    EXPECT_TRUE(hasErrorLine("E - 1 call dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_REQUEST) failed."));
    EXPECT_FALSE(sim::hasMessage("Forward the DHCP request packet."));
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    expectElementReturned();
}

TEST_F(PolicyTest, FailedRemovalOfTheAnsweredRequestIsAnErrorExitAndKeepsTheBinding)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *req = fileRequest(client);
    // The ACK reads the status, the binding's add reads it, then the
    // request's removal.
    removeRequestAtTheNextStatusRead(req, 2);
    DhcpSnoopElement *ack = element(DHCP_SNOOP_TYPE_ACK, kClientIp, server);
    EXPECT_EQ(manage(ack, fb::ack(params())), 1u);
    EXPECT_TRUE(hasErrorLine("E - 1 call dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_REQUEST) failed."));
    EXPECT_FALSE(sim::hasMessage("Forward the DHCP ack packet."));
    EXPECT_TRUE(sim::sent().empty());
    // Filed before the failure: it stays the table's.
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), ack);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(PolicyTest, FailedRemovalOfTheRequestOnNakIsAnErrorExit)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *req = fileRequest(client);
    fileBinding(client);
    removeRequestAtTheNextStatusRead(req, 0);
    EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_NAK, kClientIp, server), fb::nak(params())), 1u);
    EXPECT_TRUE(hasErrorLine("E - 1 call dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_REQUEST) failed."));
    EXPECT_FALSE(sim::hasMessage("Forward the DHCP nak packet."));
    EXPECT_TRUE(sim::sent().empty());
    // The binding is not reached.
    EXPECT_NE(find(DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    expectElementReturned();
}

TEST_F(PolicyTest, FailedFilingOfTheRequestIsAnErrorExit)
{
    sim::setDebugFlag(1);
    // An element the pool never handed out cannot be filed.
    DhcpSnoopElement *pooled = element(DHCP_SNOOP_TYPE_REQUEST, kClientIp, client);
    DhcpSnoopElement stray = *pooled;
    dhcpSnoopFreeMem(pooled);
    EXPECT_EQ(manage(&stray, fb::request(params())), 1u);
    EXPECT_TRUE(hasErrorLine("E - 1 call dhcpSnoopElementAddNew(tempElement, DHCP_SNOOP_ELEMENT_REQUEST) failed."));
    EXPECT_FALSE(sim::hasMessage("Forward the DHCP request packet."));
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    // Not given to the pool either: it never was the pool's.
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE);
}

// ---- the DECLINE counter and the tick ------------------------------------------------------

TEST_F(PolicyTest, TickInTheMiddleOfADeclineBurstStartsTheCountAfresh)
{
    sim::setDebugFlag(1);
    sim::portCfg(client).decLimitRate = 2;
    auto decline = [&] {
        sim::clearLogs();
        EXPECT_EQ(manage(element(DHCP_SNOOP_TYPE_DECLINE, kClientIp, client), fb::decline(params())), 0u);
        return sim::hasMessage("Drop decline packet");
    };
    EXPECT_FALSE(decline());
    EXPECT_FALSE(decline());
    EXPECT_TRUE(decline());
    DhcpSnoopMsg tick;
    memset(&tick, 0, sizeof tick);
    tick.type = DHCP_SNOOP_MSG_TIMER;
    dhcpSnoopTaskHandleMsg(&tick);
    // Counted from 1 again: two pass, the third is over.
    EXPECT_FALSE(decline());
    EXPECT_FALSE(decline());
    EXPECT_TRUE(decline());
    expectElementReturned();
}

}  // namespace
