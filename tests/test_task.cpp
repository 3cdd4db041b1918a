// Start-up's registrations with the stacking service, the main task's loop
// itself (run as the task runs it, ended by the simulation) and its senders,
// and the order of the tick's work.
#include <string>
#include <vector>

#include "policy_support.h"

namespace {

using namespace pol;

class TaskTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
        mainQ = sim::queueByName(DHCP_SNOOP_QUEUE_NAME);
        saveQ = sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME);
    }

    static DhcpSnoopMsg record(uint8_t type)
    {
        DhcpSnoopMsg m;
        memset(&m, 0, sizeof m);
        m.type = type;
        return m;
    }

    // Runs a task body until the first receive that finds its queue empty:
    // true when the task was still looping then.
    static bool runTaskUntilIdle(PalThreadEntry body, PalMsgQ q, const std::string &queueName)
    {
        sim::onCall(
            "pal_msgQ_receive:" + queueName,
            [q] {
                if (sim::queueDepth(q) == 0)
                    throw sim::TaskStop{};
            },
            0, -1);
        bool stopped = false;
        try {
            body(nullptr);
        } catch (const sim::TaskStop &) {
            stopped = true;
        }
        sim::clearFailures();
        return stopped;
    }

    bool runMainTask() { return runTaskUntilIdle(dhcpSnoopTask, mainQ, DHCP_SNOOP_QUEUE_NAME); }

    PalMsgQ mainQ = 0;
    PalMsgQ saveQ = 0;
};

// ---- start-up ------------------------------------------------------------------------------

TEST_F(TaskTest, StackingRegistrationsCarryTheModuleIdAndTheirPriorities)
{
    const sim::StkRegistrations &r = sim::stkRegistrations();
    EXPECT_EQ(r.detachMid, 46u);
    EXPECT_EQ(r.detachPriority, 3u);
    EXPECT_EQ(r.attachMid, 46u);
    EXPECT_EQ(r.attachPriority, 2u);
    EXPECT_EQ(r.updateMid, 46u);
    EXPECT_EQ(r.updatePriority, 5u);
    EXPECT_EQ(r.dataSyncMid, 46u);
    EXPECT_EQ(r.dataSyncPriority, 3u);
    EXPECT_EQ(r.runtimeMid, 46u);
}

TEST_F(TaskTest, EveryPlatformCallNamesModule46)
{
    // Debug and error lines, a runtime record, start-up's registrations.
    sim::setDebugFlag(1);
    DhcpSnoopElement *e = element(DHCP_SNOOP_TYPE_ACK, kClientIp, sim::physicalPort(1, 3));
    ASSERT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    DhcpSnoopMsg del = record(DHCP_SNOOP_MSG_DEL_BINDING);
    dhcpSnoopTaskHandleMsg(&del);  // "not found!!!!!!": an error line
    ASSERT_FALSE(sim::logs().empty());
    ASSERT_FALSE(sim::runtimeRecords().empty());
    EXPECT_EQ(sim::moduleIds(), std::set<uint32_t>{46u});
}

// ---- the task loop ---------------------------------------------------------------------------

TEST_F(TaskTest, LoopWaitsForeverAndHandlesEachRecord)
{
    sim::setDebugFlag(1);
    DhcpSnoopMsg cfg = record(DHCP_SNOOP_MSG_CFG_CHANGE);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u);
    EXPECT_TRUE(runMainTask());
    EXPECT_EQ(sim::countMessage("dhcp snoop queue receive cfg_change\r\n"), 2u);
    EXPECT_EQ(sim::lastReceiveWait(mainQ), -1);
}

TEST_F(TaskTest, LoopRetriesAFailedReceive)
{
    sim::setDebugFlag(1);
    DhcpSnoopMsg cfg = record(DHCP_SNOOP_MSG_CFG_CHANGE);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u);
    // Two failures in a row: the record waiting behind them is still handled.
    sim::failNext("pal_msgQ_receive:" DHCP_SNOOP_QUEUE_NAME, 0xFFFFFFFFu, 0, 2);
    EXPECT_TRUE(runMainTask());
    EXPECT_EQ(sim::countMessage("dhcp snoop queue receive cfg_change\r\n"), 1u);
}

TEST_F(TaskTest, LoopTakesTheReceiveResultAsSigned16Bits)
{
    sim::setDebugFlag(1);
    DhcpSnoopMsg cfg = record(DHCP_SNOOP_MSG_CFG_CHANGE);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u);
    // 0xFFFF is -1 in 16 bits: the record that came with it counts as not
    // received.
    sim::failNext("pal_msgQ_receive_result:" DHCP_SNOOP_QUEUE_NAME, 0xFFFFu);
    EXPECT_TRUE(runMainTask());
    EXPECT_EQ(sim::countMessage("dhcp snoop queue receive cfg_change\r\n"), 1u);
    // 0xFFFF0070 is 112 in 16 bits: received, though negative in 32.
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 0), 0u);
    sim::failNext("pal_msgQ_receive_result:" DHCP_SNOOP_QUEUE_NAME, 0xFFFF0070u);
    EXPECT_TRUE(runMainTask());
    EXPECT_EQ(sim::countMessage("dhcp snoop queue receive cfg_change\r\n"), 2u);
}

TEST_F(TaskTest, LoopLogsAReceivedPacketAndRunsThePipeline)
{
    sim::setDebugFlag(1);
    sim::setVlanSnooping(kVlan, true);
    ASSERT_EQ(simrun::inject(sim::physicalPort(1, 3), kVlan, fb::discover(params()).build()), 0u);
    EXPECT_TRUE(runMainTask());
    const std::vector<std::string> m = sim::messages();
    auto first = std::find(m.begin(), m.end(), "Receive DHCP packet from the received queue.");
    ASSERT_NE(first, m.end());
    EXPECT_EQ(std::count(m.begin(), m.end(), "Receive DHCP packet from the received queue."), 1);
    // Logged before the pipeline starts on the frame.
    auto pipeline = std::find(m.begin(), m.end(), "===============Packet Parse start==================\n");
    ASSERT_NE(pipeline, m.end());
    EXPECT_LT(first - m.begin(), pipeline - m.begin());
    EXPECT_EQ(sim::sent().size(), 1u);
    simrun::runUntilIdle();
}

TEST_F(TaskTest, NoLineForAReceivedPacketWithTheDebugSwitchOff)
{
    sim::setVlanSnooping(kVlan, true);
    ASSERT_EQ(simrun::inject(sim::physicalPort(1, 3), kVlan, fb::discover(params()).build()), 0u);
    EXPECT_TRUE(runMainTask());
    EXPECT_FALSE(sim::hasMessage("Receive DHCP packet from the received queue."));
    EXPECT_EQ(sim::sent().size(), 1u);
    simrun::runUntilIdle();
}

// ---- senders ---------------------------------------------------------------------------------

TEST_F(TaskTest, SendHelperPassesItsTimeoutThrough)
{
    DhcpSnoopMsg cfg = record(DHCP_SNOOP_MSG_CFG_CHANGE);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 250), 0u);
    EXPECT_EQ(sim::lastSendWait(mainQ), 250);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, -1), 0u);
    EXPECT_EQ(sim::lastSendWait(mainQ), -1);
    simrun::pumpMain();
}

TEST_F(TaskTest, TimerSendersNeverWait)
{
    sim::failNext("pal_msgQ_send:" DHCP_SNOOP_QUEUE_NAME, 1);
    DhcpSnoopMsg cfg = record(DHCP_SNOOP_MSG_CFG_CHANGE);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&cfg, 77), DHCP_SNOOP_E_FAIL);
    EXPECT_EQ(sim::lastSendWait(mainQ), 77);
    EXPECT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0u);
    EXPECT_EQ(sim::lastSendWait(mainQ), 0);
    simrun::pumpMain();
}

// ---- the tick --------------------------------------------------------------------------------

TEST_F(TaskTest, TickAgesTheDynamicTableBeforeTheRequestTable)
{
    sim::setDebugFlag(1);
    const Ip requestIp = {192, 168, 1, 101};
    DhcpSnoopElement *b = element(DHCP_SNOOP_TYPE_ACK, kClientIp, sim::physicalPort(1, 3), kXid, kVlan,
                                  kClientMac, 0);
    ASSERT_EQ(dhcpSnoopElementAddNew(b, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    DhcpSnoopElement *r = element(DHCP_SNOOP_TYPE_REQUEST, requestIp, sim::physicalPort(1, 3), kXid, kVlan,
                                  kOtherMac, 0);
    ASSERT_EQ(dhcpSnoopElementAddNew(r, DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    sim::clearLogs();
    DhcpSnoopMsg tick = record(DHCP_SNOOP_MSG_TIMER);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&tick, 0), 0u);
    EXPECT_TRUE(runMainTask());
    const std::vector<std::string> m = sim::messages();
    auto dyn = std::find(m.begin(), m.end(), "Dynamic table entry expired, hash pos:100.");
    auto req = std::find(m.begin(), m.end(), "Request table entry expired, hash pos:101.");
    ASSERT_NE(dyn, m.end());
    ASSERT_NE(req, m.end());
    EXPECT_LT(dyn - m.begin(), req - m.begin());
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    simrun::runUntilIdle();
}

}  // namespace
