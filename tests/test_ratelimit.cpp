// Per-port limits on DHCP frames and on DECLINEs: counting per second, the
// overflow log and its 30-second re-arm, port indexes at the edges.
#include <string>
#include <vector>

#include "policy_support.h"

namespace {

using namespace pol;

class RateTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
        port5 = sim::physicalPort(1, 5);
        memset(&pkt, 0, sizeof pkt);
    }

    // n frames of one port through the limit; returns how many passed.
    int burst(up port, int n)
    {
        int passed = 0;
        for (int i = 0; i < n; i++)
            if (dhcpSnoopRateLimit(&pkt, port) == 0)
                ++passed;
        return passed;
    }

    up port5 = 0;
    DhcpSnoopPacket pkt;
};

TEST_F(RateTest, RateFiveLetsFiveFramesOfASecondPassAndDropsTheRest)
{
    sim::portCfg(port5).limitRate = 5;
    for (int i = 1; i <= 5; i++)
        EXPECT_EQ(dhcpSnoopRateLimit(&pkt, port5), 0u) << "frame " << i;
    for (int i = 6; i <= 20; i++)
        EXPECT_EQ(dhcpSnoopRateLimit(&pkt, port5), DHCP_SNOOP_E_RATE_LIMIT) << "frame " << i;
    EXPECT_EQ(portCounter[4], 20u);

    ASSERT_EQ(flowSyslog().size(), 1u);
    EXPECT_EQ(flowSyslog()[0].code, 0x4C21010Cu);
    EXPECT_EQ(flowSyslog()[0].portName, "1/0/5");
    for (int a = 1; a < 6; a++)
        EXPECT_EQ(flowSyslog()[0].args[a], 0u);
    EXPECT_NE(logFlagPortFlow[0] & (1u << 4), 0u);

    std::vector<sim::TimerRec> t = flowTimers();
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].period.usec, 0u);
    EXPECT_EQ(t[0].arg, 5u);
    EXPECT_EQ(t[0].repetitions, 1);
    EXPECT_EQ(t[0].callback, &dhcpSnoopSendRateFlowTimerMsgToDhcp);
    EXPECT_EQ(t[0].dueMs, 30000u);
}

TEST_F(RateTest, AFloodOfManySecondsIsLoggedOncePerThirtySeconds)
{
    sim::portCfg(port5).limitRate = 5;
    for (int second = 0; second < 75; second++) {
        EXPECT_EQ(burst(port5, 40), 5) << "second " << second;
        size_t expected = second < 30 ? 1 : second < 60 ? 2 : 3;
        EXPECT_EQ(countSyslog(DHCP_SNOOP_LOG_RATE_OVERFLOW), expected) << "second " << second;
        simrun::advance(1000);
    }
    EXPECT_EQ(flowTimers().size(), 3u);
}

TEST_F(RateTest, ThirtySecondTimerRearmsTheLogThroughTheMainTask)
{
    sim::portCfg(port5).limitRate = 1;
    burst(port5, 2);
    ASSERT_NE(logFlagPortFlow[0] & (1u << 4), 0u);
    simrun::advance(29999);
    EXPECT_NE(logFlagPortFlow[0] & (1u << 4), 0u);
    simrun::advance(1);
    EXPECT_EQ(logFlagPortFlow[0] & (1u << 4), 0u);
}

TEST_F(RateTest, TickRestartsTheCountInTheMiddleOfABurst)
{
    sim::portCfg(port5).limitRate = 3;
    EXPECT_EQ(burst(port5, 2), 2);
    simrun::advance(1000);
    EXPECT_EQ(burst(port5, 4), 3);
}

TEST_F(RateTest, RateZeroNeverCountsNorDrops)
{
    EXPECT_EQ(burst(port5, 1000), 1000);
    EXPECT_EQ(portCounter[4], 0u);
    EXPECT_TRUE(flowSyslog().empty());
    EXPECT_TRUE(flowTimers().empty());
}

TEST_F(RateTest, PortChannelTwoCountsInEntrySixtyFive)
{
    up po2 = sim::portChannel(2);
    EXPECT_EQ(dhcpSnoopPortIndex(po2), 66u);
    sim::portCfg(po2).limitRate = 1;
    EXPECT_EQ(burst(po2, 3), 1);
    EXPECT_EQ(portCounter[65], 3u);
    EXPECT_EQ(portCounter[1], 0u);
    // Bit 65 of the bitmap: word 2, bit 1, inside the bitmap.
    EXPECT_EQ(logFlagPortFlow[2], 1u << 1);
    ASSERT_EQ(flowSyslog().size(), 1u);
    EXPECT_EQ(flowSyslog()[0].portName, "po2");
    ASSERT_EQ(flowTimers().size(), 1u);
    EXPECT_EQ(flowTimers()[0].arg, 66u);
    // The timer's message finds the port channel again and clears its bit.
    simrun::advance(30000);
    EXPECT_EQ(logFlagPortFlow[2], 0u);
}

TEST_F(RateTest, InvalidPortIsDroppedWithOne)
{
    up missing = sim::physicalPort(1, 40);
    sim::portCfg(missing).limitRate = 1;
    EXPECT_EQ(dhcpSnoopRateLimit(&pkt, missing), 1u);
    EXPECT_EQ(dhcpSnoopRateLimit(&pkt, UP_MAKE(3, 1, 0, 5)), 1u);
    for (uint32_t i = 0; i < DHCP_SNOOP_PORT_COUNTERS; i++)
        EXPECT_EQ(portCounter[i], 0u);
}

TEST_F(RateTest, NullPacketIsDroppedWithOne)
{
    sim::portCfg(port5).limitRate = 1;
    EXPECT_EQ(dhcpSnoopRateLimit(nullptr, port5), 1u);
    EXPECT_EQ(portCounter[4], 0u);
}

TEST_F(RateTest, UnreadableRateDropsTheFrameWithTheGettersCode)
{
    sim::setDebugFlag(1);
    sim::portCfg(port5).limitRate = 5;
    sim::failNext("swDhcpSnoopGetPortLimitRate", 77);
    EXPECT_EQ(dhcpSnoopRateLimit(&pkt, port5), 77u);
    EXPECT_TRUE(hasErrorLine("E - 77 call swDhcpSnoopGetPortLimitRate(upPkt, &portRate) failed."));
    EXPECT_EQ(portCounter[4], 0u);
}

TEST_F(RateTest, CountingDebugLineShowsTheCounterBeforeTheFrame)
{
    sim::setDebugFlag(1);
    sim::portCfg(port5).limitRate = 5;
    burst(port5, 2);
    sim::clearLogs();
    burst(port5, 1);
    EXPECT_EQ(sim::messages(), std::vector<std::string>{"index:5, portCounter:2, portRate:5"});
}

TEST_F(RateTest, TimerThatCannotStartLeavesTheLogArmed)
{
    sim::setDebugFlag(1);
    sim::portCfg(port5).limitRate = 1;
    sim::failNext("add_timer:DSTimer");
    EXPECT_EQ(burst(port5, 2), 1);
    EXPECT_TRUE(hasErrorLine("Decline timer failed!"));
    EXPECT_EQ(logFlagPortFlow[0], 0u);
    EXPECT_EQ(countSyslog(DHCP_SNOOP_LOG_RATE_OVERFLOW), 1u);
    // The next excess frame is reported again, now with a timer.
    EXPECT_EQ(burst(port5, 1), 0);
    EXPECT_EQ(countSyslog(DHCP_SNOOP_LOG_RATE_OVERFLOW), 2u);
    EXPECT_NE(logFlagPortFlow[0] & (1u << 4), 0u);
    EXPECT_EQ(flowTimers().size(), 1u);
}

TEST_F(RateTest, HighestCountedIndexUsesTheLastCounterAndBit)
{
    // Unit 2 port 15: index 64 + 15 = 79, the last counter.
    sim::setUnits({1, 2});
    up p = sim::physicalPort(2, 15);
    ASSERT_EQ(dhcpSnoopPortIndex(p), 79u);
    sim::portCfg(p).limitRate = 1;
    EXPECT_EQ(burst(p, 2), 1);
    EXPECT_EQ(portCounter[78], 2u);
    EXPECT_EQ(logFlagPortFlow[2], 1u << 14);
}

TEST_F(RateTest, IndexBeyondTheCountersPassesUncountedAndTouchesNothing)
{
    // Unit 2 port 20: index 84, past the 79 counters.
    sim::setUnits({1, 2});
    up p = sim::physicalPort(2, 20);
    ASSERT_EQ(dhcpSnoopPortIndex(p), 84u);
    sim::portCfg(p).limitRate = 1;
    sim::portCfg(p).decLimitRate = 1;
    sim::setDebugFlag(1);
    EXPECT_EQ(burst(p, 300), 300);
    EXPECT_TRUE(hasErrorLine("index:84 has no rate counter, frame not limited."));
    for (uint32_t i = 0; i < DHCP_SNOOP_PORT_COUNTERS; i++)
        EXPECT_EQ(portCounter[i], 0u) << i;
    for (uint32_t w = 0; w < DHCP_SNOOP_FLAG_WORDS; w++)
        EXPECT_EQ(logFlagPortFlow[w], 0u);
    EXPECT_TRUE(flowSyslog().empty());
}

// ---- the DECLINE limit, inside the policy -------------------------------------------

class DeclineLimitTest : public RateTest {
protected:
    // A DECLINE of a client without a binding, from an untrusted port: within
    // the limit the policy drops it for want of a binding, over the limit
    // the limit drops it.
    uint32_t decline(up port)
    {
        rcvPort = port;
        Packet p(port, kVlan, fb::decline(params()).build());
        return dhcpSnoopTableManage(&p.pkt, element(DHCP_SNOOP_TYPE_DECLINE, kClientIp, port));
    }
    static constexpr const char *kNoBinding =
        "Drop DHCP decline packet that dosn't find matched entry in the dynamic table.";
};

TEST_F(DeclineLimitTest, DeclinesOverTheLimitAreDroppedAndLoggedOnce)
{
    sim::setDebugFlag(1);
    sim::portCfg(port5).decLimitRate = 3;
    for (int i = 1; i <= 3; i++) {
        sim::clearLogs();
        EXPECT_EQ(decline(port5), 0u);
        EXPECT_EQ(sim::countMessage(kNoBinding), 1u) << i;
        EXPECT_EQ(sim::countMessage("Drop decline packet"), 0u) << i;
    }
    sim::clearLogs();
    EXPECT_EQ(decline(port5), 0u);
    EXPECT_EQ(sim::countMessage("port: 1/0/5, DECLINE counter overbound: 4, limit rate = 3\n"), 1u);
    EXPECT_EQ(sim::countMessage("Drop decline packet"), 1u);
    EXPECT_EQ(sim::countMessage(kNoBinding), 0u);
    ASSERT_EQ(flowSyslog().size(), 1u);
    EXPECT_EQ(flowSyslog()[0].code, 0x4C21010Du);
    EXPECT_EQ(flowSyslog()[0].portName, "1/0/5");
    EXPECT_NE(decFlowFlag[0] & (1u << 4), 0u);
    EXPECT_EQ(logFlagPortFlow[0], 0u);
    std::vector<sim::TimerRec> t = flowTimers();
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].callback, &dhcpSnoopSendDeclineTimerMsgToDhcp);
    EXPECT_EQ(t[0].arg, 5u);
    EXPECT_EQ(t[0].repetitions, 1);
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(DeclineLimitTest, OverTheLimitWithTheBitSetOnlyTheDropLine)
{
    sim::setDebugFlag(1);
    sim::portCfg(port5).decLimitRate = 1;
    decline(port5);
    decline(port5);
    sim::clearLogs();
    EXPECT_EQ(decline(port5), 0u);
    EXPECT_EQ(sim::countMessage("Drop decline packet"), 1u);
    for (const auto &m : sim::messages())
        EXPECT_EQ(m.find("DECLINE counter overbound"), std::string::npos) << m;
    EXPECT_EQ(flowSyslog().size(), 1u);
    EXPECT_EQ(flowTimers().size(), 1u);
    EXPECT_EQ(declineCounter[4], 3u);
}

TEST_F(DeclineLimitTest, DeclineOverTheLimitLeavesTheBindingAlone)
{
    sim::portCfg(port5).decLimitRate = 1;
    DhcpSnoopElement *b = element(DHCP_SNOOP_TYPE_ACK, kClientIp, port5, kXid, kVlan, kClientMac, 3600);
    ASSERT_EQ(dhcpSnoopElementAddNew(b, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    declineCounter[4] = 1;
    EXPECT_EQ(decline(port5), 0u);
    EXPECT_EQ(find(DHCP_SNOOP_ELEMENT_DYNAMIC), b);
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(DeclineLimitTest, DeclineRateZeroIsNotCounted)
{
    for (int i = 0; i < 50; i++)
        EXPECT_EQ(decline(port5), 0u);
    EXPECT_EQ(declineCounter[4], 0u);
    EXPECT_TRUE(flowSyslog().empty());
}

TEST_F(DeclineLimitTest, DeclineAndDhcpCountersAreSeparate)
{
    sim::portCfg(port5).limitRate = 100;
    sim::portCfg(port5).decLimitRate = 100;
    burst(port5, 3);
    decline(port5);
    EXPECT_EQ(portCounter[4], 3u);
    EXPECT_EQ(declineCounter[4], 1u);
}

TEST_F(DeclineLimitTest, UnreadableDeclineRateFailsThePolicyStep)
{
    sim::setDebugFlag(1);
    sim::failNext("swDhcpSnoopGetPortDecLimitRate", 55);
    EXPECT_EQ(decline(port5), 55u);
    EXPECT_TRUE(hasErrorLine("E - 55 call swDhcpSnoopGetPortDecLimitRate(tempElement->up, &decRate) failed."));
    EXPECT_EQ(mallocCounter, 0u) << "the element goes back to the pool";
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(DeclineLimitTest, DeclineTimerThatCannotStartLeavesTheLogArmed)
{
    sim::setDebugFlag(1);
    sim::portCfg(port5).decLimitRate = 1;
    decline(port5);
    sim::failNext("add_timer:DSTimer");
    decline(port5);
    EXPECT_TRUE(hasErrorLine("Decline timer failed!"));
    EXPECT_EQ(decFlowFlag[0], 0u);
    decline(port5);
    EXPECT_EQ(countSyslog(DHCP_SNOOP_LOG_DECLINE_OVERFLOW), 2u);
    EXPECT_NE(decFlowFlag[0] & (1u << 4), 0u);
}

TEST_F(DeclineLimitTest, DeclineTimerRearmsTheLogAfterThirtySeconds)
{
    sim::portCfg(port5).decLimitRate = 1;
    decline(port5);
    decline(port5);
    ASSERT_NE(decFlowFlag[0] & (1u << 4), 0u);
    simrun::advance(30000);
    EXPECT_EQ(decFlowFlag[0], 0u);
    decline(port5);
    decline(port5);
    EXPECT_EQ(countSyslog(DHCP_SNOOP_LOG_DECLINE_OVERFLOW), 2u);
}

TEST_F(DeclineLimitTest, DeclineOnAPortBeyondTheCountersIsNotLimited)
{
    sim::setUnits({1, 2});
    up p = sim::physicalPort(2, 20);
    sim::portCfg(p).decLimitRate = 1;
    for (int i = 0; i < 5; i++)
        EXPECT_EQ(decline(p), 0u);
    for (uint32_t i = 0; i < DHCP_SNOOP_PORT_COUNTERS; i++)
        EXPECT_EQ(declineCounter[i], 0u);
    EXPECT_TRUE(flowSyslog().empty());
}

}  // namespace
