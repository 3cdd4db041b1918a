// Admission of trapped DHCP frames to the module's queue, on the switching
// core without sockets and without the module: the queue is the test's, of
// the module's depth, and nothing takes from it unless the test does.
#include <cstring>

#include "live_fixture.h"
#include "platform/linux/latency.h"
#include "platform/linux/trap_admission.h"
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
vlan = 10
rate = 5
)";

class Trap : public LiveQueueTest {
protected:
    Trap() { queueDepth = DHCP_SNOOP_QUEUE_DEPTH; }

    void SetUp() override
    {
        LiveQueueTest::SetUp();
        bringUp(kConfig);
    }

    void discovers(const std::string& port, uint8_t client, size_t n)
    {
        fb::Params p;
        p.clientMac = lt::mac(1, client);
        for (size_t i = 0; i < n; ++i) {
            p.xid = (uint32_t)(0x1000 + i);
            rx(port, fb::discover(p).build());
        }
    }

    // Frames the trap refused, whatever the reason.
    uint64_t refused(const std::string& port)
    {
        uint64_t n = 0;
        for (const auto& d : counters(port).dropped)
            n += d.second;
        return n;
    }
};

TEST_F(Trap, AFloodingPortTakesHalfTheFramesRoomAndAQuietPortStillGetsIn)
{
    // Nothing drains the queue: the worst case of a main task that cannot
    // keep up.
    discovers("1/0/2", 2, 600);
    live::PortCounters flood = counters("1/0/2");
    // Frames may take 512 - 32 records; one port settles at half of that.
    EXPECT_EQ(flood.trapped, 240u);
    EXPECT_EQ(flood.dropped["trap policer: queue share"], 360u);
    EXPECT_EQ(flood.dropped.count("queue full"), 0u);

    discovers("1/0/3", 3, 20);
    EXPECT_EQ(counters("1/0/3").trapped, 20u) << "a quiet port finds room beside the flood";
    EXPECT_EQ(refused("1/0/3"), 0u);
}

TEST_F(Trap, SeveralFloodingPortsShareTheRoomAndLeaveTheReserve)
{
    discovers("1/0/2", 2, 600);
    discovers("1/0/3", 3, 600);
    discovers("1/0/1", 1, 600);
    uint64_t trapped = counters("1/0/1").trapped + counters("1/0/2").trapped + counters("1/0/3").trapped;
    EXPECT_LE(trapped, (uint64_t)(DHCP_SNOOP_QUEUE_DEPTH - 32));
    EXPECT_GE(counters("1/0/3").trapped, 100u) << "the second flood still got a share";
    EXPECT_GE(counters("1/0/1").trapped, 50u) << "and the third";

    // The timer and configuration messages find room.
    for (int i = 0; i < 32; ++i)
        ASSERT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0u) << "tick " << i;
    auto taken = drain();
    EXPECT_EQ(taken[DHCP_SNOOP_MSG_TIMER], 32u);
    EXPECT_EQ(taken[DHCP_SNOOP_MSG_PACKET], trapped);
}

TEST_F(Trap, ControlMessagesFindRoomWhileFramesFillTheirs)
{
    // Ports in turn, as receive threads would interleave.
    for (int round = 0; round < 200; ++round) {
        discovers("1/0/1", 1, 1);
        discovers("1/0/2", 2, 1);
        discovers("1/0/3", 3, 1);
    }
    ASSERT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0u) << "the tick is not lost";
    DhcpSnoopMsg cfg;
    memset(&cfg, 0, sizeof cfg);
    cfg.type = DHCP_SNOOP_MSG_CFG_CHANGE;
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u) << "nor a configuration change";
    ASSERT_EQ(dhcpSnoopSendRateFlowTimerMsgToDhcp(4), 0u) << "nor a port's 30-second timer";
    auto taken = drain();
    EXPECT_EQ(taken[DHCP_SNOOP_MSG_TIMER], 1u);
    EXPECT_EQ(taken[DHCP_SNOOP_MSG_CFG_CHANGE], 1u);
    EXPECT_EQ(taken[DHCP_SNOOP_MSG_RATE_FLOW_TIMER], 1u);
}

TEST_F(Trap, ARefusedOrReleasedFrameGivesItsPlaceBack)
{
    discovers("1/0/2", 2, 600);
    EXPECT_EQ(counters("1/0/2").trapped, 240u);
    drain();
    discovers("1/0/2", 2, 10);
    EXPECT_EQ(counters("1/0/2").trapped, 250u) << "places come back with the buffers";
    EXPECT_EQ(live::core::poolBuffersInUse(), 10u);
}

TEST_F(Trap, ThePolicerAdmitsTwiceThePortsRateAndOneSecondsWorthAtOnce)
{
    // Port 1/0/4 has rate 5: ten frames a second reach the module, which
    // still sees its excess and logs it.
    for (int i = 0; i < 30; ++i) {
        discovers("1/0/4", 4, 1);
        drain();
    }
    EXPECT_EQ(counters("1/0/4").trapped, 10u);
    EXPECT_EQ(counters("1/0/4").dropped["trap policer"], 20u);

    clockMs += 500;  // half a second: five more
    for (int i = 0; i < 10; ++i) {
        discovers("1/0/4", 4, 1);
        drain();
    }
    EXPECT_EQ(counters("1/0/4").trapped, 15u);

    clockMs += 60000;  // a long pause fills the bucket, no more
    for (int i = 0; i < 30; ++i) {
        discovers("1/0/4", 4, 1);
        drain();
    }
    EXPECT_EQ(counters("1/0/4").trapped, 25u);
    EXPECT_EQ(counters("1/0/4").dropped["trap policer"], 20u + 5u + 20u);
    // The others are not touched by this port's policer.
    discovers("1/0/2", 2, 30);
    EXPECT_EQ(counters("1/0/2").trapped, 30u);
}

TEST_F(Trap, APortWithoutARateIsPolicedAtTheDefaultRate)
{
    // 20000 a second at once, then 20 a millisecond.
    size_t sent = 0;
    for (size_t i = 0; i < 20100; ++i) {
        discovers("1/0/2", 2, 1);
        ++sent;
        if (sent % 100 == 0)
            drain();
    }
    drain();
    EXPECT_EQ(counters("1/0/2").trapped, 20000u);
    EXPECT_EQ(counters("1/0/2").dropped["trap policer"], 100u);
    clockMs += 1;
    discovers("1/0/2", 2, 25);
    EXPECT_EQ(counters("1/0/2").trapped, 20020u);
}

TEST_F(Trap, ARateLoweredByAReloadTakesEffectAtOnce)
{
    std::string lowered = kConfig;
    lowered.replace(lowered.find("rate = 5"), 8, "rate = 1");
    swcfg::SwitchConfig cfg;
    std::string error;
    ASSERT_TRUE(swcfg::parseSwitchConfig(lowered, "test.toml", cfg, error)) << error;
    discovers("1/0/4", 4, 1);  // the bucket starts full at rate 5
    drain();
    ASSERT_TRUE(live::core::reconfigure(cfg, error)) << error;
    for (int i = 0; i < 10; ++i) {
        discovers("1/0/4", 4, 1);
        drain();
    }
    EXPECT_EQ(counters("1/0/4").trapped, 1u + 2u);
}

}  // namespace

// ---- the policy alone -------------------------------------------------------------

namespace {

TEST(TrapAdmission, PendingRequestsCountTheTablesAndTheFramesOnTheirWay)
{
    live::trap::Admission a;
    live::trap::Limits l;
    l.untrustedPorts = 2;
    a.setUp(3, l);
    EXPECT_EQ(a.pendingShare(), 256u) << "half the pool between the untrusted ports";
    EXPECT_EQ(a.place(0, true, 254), live::trap::Verdict::Admit);
    EXPECT_EQ(a.place(0, true, 255), live::trap::Verdict::PendingRequests)
        << "255 filed and one on its way make the share";
    EXPECT_EQ(a.place(0, false, 1000), live::trap::Verdict::Admit) << "a trusted port is not capped";
    a.released(0);
    a.released(0);
    EXPECT_EQ(a.place(0, true, 255), live::trap::Verdict::Admit);
    EXPECT_EQ(a.place(1, true, 256), live::trap::Verdict::PendingRequests);
    a.released(0);
    EXPECT_EQ(a.heldTotal(), 0u);
    a.released(0);  // one release too many changes nothing
    EXPECT_EQ(a.heldTotal(), 0u);
}

TEST(TrapAdmission, ManyUntrustedPortsStillGetTheMinimumShare)
{
    live::trap::Admission a;
    live::trap::Limits l;
    l.untrustedPorts = 64;
    a.setUp(64, l);
    EXPECT_EQ(a.pendingShare(), live::trap::kMinPendingShare);
    l.untrustedPorts = 0;
    a.relimit(l);
    EXPECT_EQ(a.pendingShare(), 512u);
}

TEST(TrapAdmission, AFullQueueLeavesEachPortItsMinimumAndTheReserveUntouched)
{
    live::trap::Admission a;
    live::trap::Limits l;
    a.setUp(80, l);
    EXPECT_EQ(a.frameRoom(), DHCP_SNOOP_QUEUE_DEPTH - live::trap::kControlReserve);
    size_t admitted = 0;
    for (int round = 0; round < 20; ++round)
        for (size_t port = 0; port < 80; ++port)
            if (a.place(port, false, 0) == live::trap::Verdict::Admit)
                ++admitted;
    EXPECT_EQ(admitted, a.frameRoom()) << "frames fill their room, never the reserve";
    EXPECT_EQ(a.place(79, false, 0), live::trap::Verdict::QueueShare);
    for (size_t port = 0; port < 80; ++port)
        EXPECT_GE(a.held(port), 5u) << port;
}

TEST(TrapAdmission, APortOutOfRangeIsRefused)
{
    live::trap::Admission a;
    a.setUp(2, live::trap::Limits());
    EXPECT_FALSE(a.police(2, 0, 0));
    EXPECT_EQ(a.place(2, false, 0), live::trap::Verdict::QueueShare);
    EXPECT_EQ(a.heldTotal(), 0u);
}

TEST(TrapAdmission, AClockSetBackNeitherRefillsNorStalls)
{
    live::trap::Admission a;
    a.setUp(1, live::trap::Limits());
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(a.police(0, 1, 10000));
    EXPECT_FALSE(a.police(0, 1, 10000));
    EXPECT_FALSE(a.police(0, 1, 5000)) << "back in time: nothing refilled";
    EXPECT_TRUE(a.police(0, 1, 5500)) << "half a second later from there: one token";
}

}  // namespace

// ---- trap to transmit ------------------------------------------------------------

namespace {

TEST(TrapLatency, BucketsHoldTheirValuesWithinASixteenth)
{
    for (uint64_t v : {0ull, 1ull, 15ull, 16ull, 17ull, 100ull, 1000ull, 12345ull, 999999ull, 123456789ull}) {
        size_t b = live::LatencyHistogram::bucketOf(v);
        uint64_t up = live::LatencyHistogram::upperNs(b);
        EXPECT_GT(up, v) << v;
        EXPECT_LE(up - v, v / 16 + 1) << v;
        if (b > 0) {
            EXPECT_LE(live::LatencyHistogram::upperNs(b - 1), v) << v;
        }
    }
}

TEST(TrapLatency, PercentilesAndMaximum)
{
    live::LatencyHistogram h;
    EXPECT_EQ(h.quantileNs(0.5), 0u);
    for (int i = 0; i < 98; ++i)
        h.record(20000);  // 20 us
    h.record(500000);
    h.record(3000000);
    EXPECT_EQ(h.count(), 100u);
    EXPECT_NEAR((double)h.quantileNs(0.50), 20000.0, 20000.0 / 16);
    EXPECT_NEAR((double)h.quantileNs(0.99), 500000.0, 500000.0 / 16);
    EXPECT_EQ(h.quantileNs(1.0), 3000000u);
    EXPECT_EQ(h.maxNs(), 3000000u);
    h.clear();
    EXPECT_EQ(h.count(), 0u);
}

TEST(TrapLatency, CountsAtMostABoundAndTheSum)
{
    live::LatencyHistogram h;
    h.record(10);
    h.record(9999);
    h.record(10000);
    h.record(2000000);
    EXPECT_EQ(h.sumNs(), 10u + 9999u + 10000u + 2000000u);
    EXPECT_EQ(h.countAtMost(9), 0u);
    EXPECT_EQ(h.countAtMost(10), 1u);
    // A bucket that reaches past the bound is counted above it: never more
    // than the values at most the bound.
    EXPECT_LE(h.countAtMost(9999), 2u);
    EXPECT_GE(h.countAtMost(9999), 1u);
    EXPECT_EQ(h.countAtMost(10000 + 10000 / 16 + 1), 3u);
    EXPECT_EQ(h.countAtMost(1000000000), 4u);
    h.clear();
    EXPECT_EQ(h.sumNs(), 0u);
    EXPECT_EQ(h.countAtMost(1000000000), 0u);
}

}  // namespace

TEST_F(Trap, ASentFrameIsTimedOnceFromTheTrapToItsFirstTransmission)
{
    live::latency(true);
    discovers("1/0/2", 2, 1);
    discovers("1/0/3", 3, 1);
    DhcpSnoopMsg m;
    memset(&m, 0, sizeof m);
    ASSERT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m);
    m.packet.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
    ASSERT_EQ(norvikPacketSend(&m.packet), 0u);
    ASSERT_EQ(norvikPacketSend(&m.packet), 0u);  // a second copy is not timed again
    dhcpReleasePacketPool(m.packet.frame);
    live::Latency l = live::latency(false);
    EXPECT_EQ(l.frames, 1u);
    EXPECT_GT(l.maxUs, 0.0);
    EXPECT_LE(l.p50Us, l.maxUs);
    // The other frame is dropped by the module: not timed.
    ASSERT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m);
    dhcpReleasePacketPool(m.packet.frame);
    EXPECT_EQ(live::latency(true).frames, 1u);
    EXPECT_EQ(live::latency(false).frames, 0u);
}

TEST_F(Trap, MetricsSeeThePoolTheQueueAndTheLatencySinceStart)
{
    uint64_t before = live::latencyDistribution().count;
    discovers("1/0/2", 2, 1);
    discovers("1/0/3", 3, 1);
    live::Occupancy o = live::occupancy();
    EXPECT_EQ(o.mainQueueWaiting, 2u);
    EXPECT_GT(o.mainQueueCapacity, o.mainQueueWaiting);
    EXPECT_EQ(o.packetBuffersInUse, 2u);
    EXPECT_GT(o.packetPool, 2u);
    EXPECT_EQ(o.pendingByPort.count("1/0/2"), 1u) << "every port named, pending or not";
    DhcpSnoopMsg m;
    memset(&m, 0, sizeof m);
    ASSERT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m);
    m.packet.sendFlags = SEND_FLAG_TX | SEND_FLAG_FLOOD;
    ASSERT_EQ(norvikPacketSend(&m.packet), 0u);
    dhcpReleasePacketPool(m.packet.frame);
    ASSERT_EQ(pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr), (int32_t)sizeof m);
    dhcpReleasePacketPool(m.packet.frame);
    o = live::occupancy();
    EXPECT_EQ(o.mainQueueWaiting, 0u);
    EXPECT_EQ(o.packetBuffersInUse, 0u);
    // Clearing the latency command's figures leaves the histogram alone.
    live::latency(true);
    live::LatencyDistribution d = live::latencyDistribution();
    EXPECT_EQ(d.count, before + 1);
    ASSERT_FALSE(d.atMost.empty());
    EXPECT_EQ(d.atMost.size(), d.boundsSec.size());
    for (size_t i = 1; i < d.atMost.size(); ++i)
        EXPECT_GE(d.atMost[i], d.atMost[i - 1]);
    EXPECT_LE(d.atMost.back(), d.count);
    EXPECT_GT(d.sumSec, 0.0);
}
