// Service core: logging and debug levels, the element pool, start-up and its
// failure path, the main task's dispatch and the senders.
#include <regex>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace {

class CoreTest : public SnoopTest {};

// ---- logging ------------------------------------------------------------------------

TEST_F(CoreTest, SetDebugLevelRefusesLevelAboveThreeAndFlagAboveOne)
{
    debugLevel = 1;
    EXPECT_EQ(dhcpSnoopSetDebugLevel(4, 0), 1u);
    EXPECT_EQ(debugLevel, 1u);
    EXPECT_EQ(dhcpSnoopSetDebugLevel(1, 2), 1u);
    EXPECT_EQ(debugLevel, 1u);
}

TEST_F(CoreTest, SetDebugLevelSetsThenClearsBits)
{
    EXPECT_EQ(dhcpSnoopSetDebugLevel(3, 0), 0u);
    EXPECT_EQ(debugLevel, 3u);
    EXPECT_EQ(dhcpSnoopSetDebugLevel(1, 1), 0u);
    EXPECT_EQ(debugLevel, 2u);
}

TEST_F(CoreTest, DebugLineHasItsExactText)
{
    sim::setDebugFlag(1);
    debugLevel = 2;
    ASSERT_EQ(dhcpSnoopSetDebugLevel(1, 0), 0u);
    ASSERT_EQ(sim::logs().size(), 2u);
    const std::regex first(
        "\\[<swapp/DSTask>:<DHCPSNOOP/dhcpSnoopSetDebugLevel\\(\\)/[0-9]+>\\] flag:0, level:1, debugLevel:2\r\n");
    EXPECT_FALSE(sim::logs()[0].error);
    EXPECT_TRUE(std::regex_match(sim::logs()[0].text, first)) << sim::logs()[0].text;
    EXPECT_EQ(sim::logs()[1].message(), "debugLevel:3");
}

TEST_F(CoreTest, ErrorLineIsRedWithColourReset)
{
    sim::setDebugFlag(1);
    DhcpSnoopMsg msg{};
    msg.type = DHCP_SNOOP_MSG_CFG_CHANGE;
    // No queue exists before start-up: the send fails.
    EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0xFFFFFFFFu);
    ASSERT_EQ(sim::logs().size(), 2u);
    EXPECT_EQ(sim::logs()[0].message(), "msg type:4");
    const std::regex err(
        "\x1b\\[31;49m\\[<swapp/DSTask>:<DHCPSNOOP/dhcpSnoopSendMsgToMainQueue\\(\\)/[0-9]+>\\] msg send err\\.\x1b\\[0m\r\n");
    EXPECT_TRUE(sim::logs()[1].error);
    EXPECT_TRUE(std::regex_match(sim::logs()[1].text, err)) << sim::logs()[1].text;
}

TEST_F(CoreTest, LinesCarryTheProcessAndThreadNames)
{
    sim::setDebugFlag(1);
    sim::setProcessName("swd");
    sim::setModuleName("DS");
    prctl(PR_SET_NAME, "getFdbEntryTask");
    dhcpSnoopSetDebugLevel(2, 0);
    ASSERT_FALSE(sim::logs().empty());
    EXPECT_EQ(sim::logs()[0].text.rfind("[<swd/getFdbEntryTask>:<DS/dhcpSnoopSetDebugLevel()/", 0), 0u)
        << sim::logs()[0].text;
}

TEST_F(CoreTest, SwitchOffAndInitialisedWritesNeitherForm)
{
    sim::setDebugFlag(0);
    sim::setSwitchInited(true);
    DhcpSnoopMsg msg{};
    EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0xFFFFFFFFu);
    dhcpSnoopSetDebugLevel(1, 0);
    EXPECT_TRUE(sim::logs().empty());
}

TEST_F(CoreTest, SwitchOffWhileStartingWritesErrorsOnly)
{
    sim::setDebugFlag(0);
    sim::setSwitchInited(false);
    DhcpSnoopMsg msg{};
    EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0xFFFFFFFFu);
    ASSERT_EQ(sim::logs().size(), 1u);
    EXPECT_TRUE(sim::logs()[0].error);
    EXPECT_EQ(sim::logs()[0].message(), "msg send err.");
}

TEST_F(CoreTest, DebugLinesNeedTheSwitchExactlyOne)
{
    // Any non-zero switch value shows errors; only 1 shows debug lines.
    sim::setDebugFlag(2);
    DhcpSnoopMsg msg{};
    EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0xFFFFFFFFu);
    ASSERT_EQ(sim::logs().size(), 1u);
    EXPECT_TRUE(sim::logs()[0].error);
}

TEST_F(CoreTest, DebugArgumentsAreNotEvaluatedWithTheSwitchOff)
{
    int evaluated = 0;
    auto arg = [&]() { ++evaluated; return 1; };
    sim::setDebugFlag(0);
    DHCP_SNOOP_DEBUG("value %d", arg());
    EXPECT_EQ(evaluated, 0);
    sim::setDebugFlag(1);
    DHCP_SNOOP_DEBUG("value %d", arg());
    EXPECT_EQ(evaluated, 1);
    EXPECT_TRUE(sim::hasMessage("value 1"));
}

TEST_F(CoreTest, CallMacroReportsTheCallsOwnText)
{
    sim::setDebugFlag(1);
    sim::failNext("swDhcpSnoopGetPortTrust", 7);
    uint8_t trust = 0;
    uint32_t rv;
    DHCP_SNOOP_CALL(rv, swDhcpSnoopGetPortTrust(rcvPort, &trust));
    EXPECT_EQ(rv, 7u);
    EXPECT_TRUE(sim::hasMessage("E - 7 call swDhcpSnoopGetPortTrust(rcvPort, &trust) failed."));
}

// ---- element pool ----------------------------------------------------------------------

class PoolTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
    }
};

TEST_F(PoolTest, HandsOutAllElementsInStorageOrderThenNull)
{
    std::vector<DhcpSnoopElement *> got;
    for (uint32_t i = 0; i < DHCP_SNOOP_POOL_SIZE; i++) {
        DhcpSnoopElement *e = dhcpSnoopGetMem();
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e, &tableMemPool[i]);
        got.push_back(e);
    }
    EXPECT_EQ(dhcpSnoopGetMem(), nullptr);
    EXPECT_EQ(mallocCounter, 1024u);
    EXPECT_EQ(tableMemPoolUnused, nullptr);
    for (DhcpSnoopElement *e : got)
        EXPECT_EQ(dhcpSnoopFreeMem(e), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

TEST_F(PoolTest, LastFreedIsNextHandedOut)
{
    DhcpSnoopElement *a = dhcpSnoopGetMem();
    DhcpSnoopElement *b = dhcpSnoopGetMem();
    ASSERT_EQ(dhcpSnoopFreeMem(a), 0u);
    EXPECT_EQ(tableMemPoolUnused, a);
    EXPECT_EQ(dhcpSnoopGetMem(), a);
    dhcpSnoopFreeMem(b);
    dhcpSnoopFreeMem(a);
}

TEST_F(PoolTest, HandedOutElementsAreAllZero)
{
    DhcpSnoopElement *a = dhcpSnoopGetMem();
    DhcpSnoopElement *b = dhcpSnoopGetMem();
    // Dirty every field, links included, then recycle it.
    memset(a, 0x5A, sizeof(*a));
    a->next = b;
    a->prev = nullptr;
    b->prev = a;
    dhcpSnoopFreeMem(a);
    EXPECT_EQ(b->prev, nullptr) << "the neighbour's link was repaired";
    DhcpSnoopElement *c = dhcpSnoopGetMem();
    ASSERT_EQ(c, a);
    DhcpSnoopElement zero;
    memset(&zero, 0, sizeof(zero));
    EXPECT_EQ(memcmp(c, &zero, sizeof(zero)), 0);
    EXPECT_EQ(c->ttl, 0u);
    EXPECT_EQ(c->up, 0u);
    EXPECT_EQ(c->next, nullptr);
    EXPECT_EQ(c->prev, nullptr);
    dhcpSnoopFreeMem(b);
    dhcpSnoopFreeMem(c);
}

TEST_F(PoolTest, FreeOfNullReturnsOneAndChangesNothing)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement *a = dhcpSnoopGetMem();
    EXPECT_EQ(dhcpSnoopFreeMem(nullptr), 1u);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_TRUE(sim::hasMessage("pElement is NULL!!!"));
    dhcpSnoopFreeMem(a);
}

// ---- start-up ------------------------------------------------------------------------

std::string allocEvent(size_t size) { return "alloc " + std::to_string(size) + " dhcpSnoop"; }
std::string freeEvent(size_t size) { return "free " + std::to_string(size) + " dhcpSnoop"; }

const size_t kPoolBytes = sizeof(DhcpSnoopElement) * DHCP_SNOOP_POOL_SIZE;
const size_t kTableBytes = sizeof(DhcpSnoopElement *) * DHCP_SNOOP_HASH_SIZE;
const size_t kFdbBytes = sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS;

std::vector<std::string> startupEvents()
{
    return {
        allocEvent(kPoolBytes),
        allocEvent(kTableBytes),
        allocEvent(kTableBytes),
        "mutex_create tableMemPoolMutex",
        "queue_create /dhcpSnoopQue 512 " + std::to_string(sizeof(DhcpSnoopMsg)) + " 4",
        "thread_create DSTask 30720 168",
        "timer_add DSTimer 1.0 0 -1",
        allocEvent(2048),
        "queue_create /updateDynTableQ 2 1 4",
        "mutex_create upMutex",
        "thread_create dynEntrySaveTask 33792 170",
        allocEvent(kFdbBytes),
        "mutex_create getFdbEntryMutex",
        "queue_create /getFdbEntryMsgQue 10 20 4",
        "thread_create getFdbEntryTask 1024 171",
        "stk_reg detach",
        "stk_reg attach",
        "stk_reg update",
        "stk_reg datasync",
        "stk_reg runtime",
    };
}

TEST_F(CoreTest, TargetRecordSizes)
{
    // The switch's layout; on 64-bit hosts pointers make records larger.
    if (sizeof(void *) == 4) {
        EXPECT_EQ(sizeof(DhcpSnoopMsg), 112u);
        EXPECT_EQ(sizeof(DhcpSnoopPacket), 60u);
        EXPECT_EQ(sizeof(DhcpSnoopElement), 44u);
        EXPECT_EQ(kPoolBytes, 45056u);
        EXPECT_EQ(kTableBytes, 512u);
    }
    EXPECT_EQ(sizeof(FdbEntry), 20u);
    EXPECT_EQ(kFdbBytes, 2000u);
    EXPECT_EQ(sizeof(PortList), 24u);
    EXPECT_EQ(sizeof(DhcpSnoopPortCfg), 522u);
}

TEST_F(CoreTest, StartUpCreatesEverythingInOrder)
{
    ASSERT_EQ(dhcpSnoopInit(), 0u);
    EXPECT_EQ(sim::events(), startupEvents());
    EXPECT_EQ(DSLib.getMacAddress, &getMacAddress);
    EXPECT_EQ(DSLib.slot1, nullptr);
    EXPECT_EQ(DSLib.slot4, nullptr);
    EXPECT_EQ(DSLib.fdbGetEntry, &dhcpSnoopFdbGetEntry);
    // The free list runs through the pool in address order.
    EXPECT_EQ(tableMemPoolUnused, &tableMemPool[0]);
    EXPECT_EQ(tableMemPool[0].prev, nullptr);
    EXPECT_EQ(tableMemPool[0].next, &tableMemPool[1]);
    EXPECT_EQ(tableMemPool[1023].prev, &tableMemPool[1022]);
    EXPECT_EQ(tableMemPool[1023].next, nullptr);
    EXPECT_EQ(freeListCount(), 1024u);
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++) {
        EXPECT_EQ(dynamicTable[b], nullptr);
        EXPECT_EQ(requestTable[b], nullptr);
    }
    EXPECT_EQ(initFlag, 0u);
    ASSERT_EQ(sim::syslog().size(), 1u);
    EXPECT_EQ(sim::syslog()[0].code, DHCP_SNOOP_LOG_LOAD_OK);
    for (uintptr_t a : sim::syslog()[0].args)
        EXPECT_EQ(a, 0u);
    const auto &reg = sim::stkRegistrations();
    EXPECT_EQ(reg.detach, &dhcpSnoopDetachCb);
    EXPECT_EQ(reg.attach, &dhcpSnoopAttachCb);
    EXPECT_EQ(reg.update, &dhcpSnoopUpdateCb);
    EXPECT_EQ(reg.dataSyncSet, &dhcpSnoopDataSyncSetCb);
    EXPECT_EQ(reg.dataSyncGet, &dhcpSnoopDataSyncGetCb);
    EXPECT_EQ(reg.dataSyncFree, &dhcpSnoopDataSyncFreeCb);
    EXPECT_EQ(reg.runtime, &dhcpSnoopRuntimeDataHnd);
    auto threads = sim::threads();
    ASSERT_EQ(threads.size(), 3u);
    EXPECT_EQ(threads[0].entry, &dhcpSnoopTask);
    EXPECT_EQ(threads[1].entry, &dhcpSnoopSaveDynEntryTask);
    EXPECT_EQ(threads[2].entry, &dhcpSnoopGetFdbEntryTask);
    auto timers = sim::timers();
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].callback, &dhcpSnoopSendTimerMsgToDhcp);
    EXPECT_EQ(sim::queueRecordSize(dhcpSnoopQueue), sizeof(DhcpSnoopMsg));
    EXPECT_TRUE(sim::logs().empty());
}

// One start-up failure: what fails, how it is reported, and what start-up
// had made before it.
struct InitFailure {
    const char *name;
    int step;
    const char *key;
    uint32_t code;
    int skip;
    std::vector<const char *> messages;
};

// The resources of start-up in the order the failure path releases them,
// with the step that makes each and the event of its release ("" when its
// handle is only forgotten).
struct Releasable {
    int step;
    std::string event;
};

std::vector<Releasable> releaseOrder()
{
    return {
        {2, freeEvent(kPoolBytes)},
        {7, "mutex_destroy tableMemPoolMutex"},
        {3, freeEvent(kTableBytes)},
        {4, freeEvent(kTableBytes)},
        {9, "thread_destroy DSTask"},
        {8, ""},
        {11, freeEvent(2048)},
        {13, "mutex_destroy upMutex"},
        {14, "thread_destroy dynEntrySaveTask"},
        {12, ""},
        {15, freeEvent(kFdbBytes)},
        {16, "mutex_destroy getFdbEntryMutex"},
        {17, ""},
        {18, "thread_destroy getFdbEntryTask"},
    };
}

// Start-up events of the steps before `step` (step 19 has five events).
std::vector<std::string> eventsBefore(int step, int registrationsDone)
{
    static const int stepOf[] = {2, 3, 4, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18};
    std::vector<std::string> all = startupEvents();
    std::vector<std::string> out;
    for (size_t i = 0; i < 15; i++)
        if (stepOf[i] < step)
            out.push_back(all[i]);
    for (int r = 0; r < registrationsDone; r++)
        out.push_back(all[15 + r]);
    return out;
}

class InitFailureTest : public SnoopTest, public ::testing::WithParamInterface<InitFailure> {};

TEST_P(InitFailureTest, ReleasesWhatWasMadeAndReturns1301)
{
    const InitFailure &f = GetParam();
    sim::setDebugFlag(1);
    sim::failNext(f.key, f.code, f.skip);
    EXPECT_EQ(dhcpSnoopInit(), DHCP_SNOOP_E_INIT);

    // Reported once, in the error form, with the exact texts.
    std::vector<std::string> errors;
    for (const auto &l : sim::logs())
        if (l.error)
            errors.push_back(l.message());
    std::vector<std::string> want(f.messages.begin(), f.messages.end());
    EXPECT_EQ(errors, want);

    int registrations = 0;
    if (f.step == 19) {
        static const char *keys[] = {"stkUsoDetachCbReg", "stkUsoAttachCbReg", "stkUsoUpdateCbReg",
                                     "stkUsoDataSyncCbReg", "stkUsoRuntimeDataHndReg"};
        while (std::string(keys[registrations]) != f.key)
            registrations++;
    }
    std::vector<std::string> expected = eventsBefore(f.step == 19 ? 20 : f.step, registrations);
    for (const Releasable &r : releaseOrder())
        if (r.step < f.step && !r.event.empty())
            expected.push_back(r.event);
    EXPECT_EQ(sim::events(), expected);

    // Memory, mutexes and tasks are gone; the timer and registrations stay.
    EXPECT_EQ(sim::outstandingAllocs(), 0u);
    EXPECT_EQ(tableMemPool, nullptr);
    EXPECT_EQ(tableMemPoolUnused, nullptr);
    EXPECT_EQ(tableMemPoolMutex, nullptr);
    EXPECT_EQ(dynamicTable, nullptr);
    EXPECT_EQ(requestTable, nullptr);
    EXPECT_EQ(DSTaskId, nullptr);
    EXPECT_EQ(dhcpSnoopQueue, 0);
    EXPECT_EQ(sNewData, nullptr);
    EXPECT_EQ(upMutexId, nullptr);
    EXPECT_EQ(dynEntrySaveTask, nullptr);
    EXPECT_EQ(gFdbEntryPool, nullptr);
    EXPECT_EQ(getFdbEntryMutex, nullptr);
    EXPECT_EQ(getFdbEntryMsgQue, 0);
    EXPECT_EQ(getFdbEntryTask, nullptr);
    if (f.step == 12) {
        EXPECT_EQ(updateDynTableQ, PAL_MQ_ERROR) << "a failed handle is not positive and stays";
    } else {
        EXPECT_EQ(updateDynTableQ, 0);
    }
    auto timers = sim::timers();
    EXPECT_EQ(timers.size(), f.step > 10 ? 1u : 0u);
    if (!timers.empty()) {
        EXPECT_TRUE(timers[0].active);
    }
    for (const auto &t : sim::threads())
        EXPECT_TRUE(t.destroyed) << t.name;
    EXPECT_TRUE(sim::syslog().empty()) << "no load after a failed start-up";
}

const char *kDetachText = "stkUsoDetachCbReg(MID_DHCP, STK_USO_DETACH_PRI_DHCPSNOOP, dhcpSnoopDetachCb)";
const char *kAttachText = "stkUsoAttachCbReg(MID_DHCP, STK_USO_ATTACH_PRI_DHCPSNOOP, dhcpSnoopAttachCb)";
const char *kUpdateText = "stkUsoUpdateCbReg(MID_DHCP, STK_USO_UPDATE_PRI_DHCPSNOOP, dhcpSnoopUpdateCb)";
const char *kSyncText =
    "stkUsoDataSyncCbReg(MID_DHCP, STK_USO_DATASYNC_PRI_DHCPSNOOP, dhcpSnoopDataSyncSetCb, "
    "dhcpSnoopDataSyncGetCb, dhcpSnoopDataSyncFreeCb)";
const char *kRuntimeText = "stkUsoRuntimeDataHndReg(MID_DHCP, dhcpSnoopRuntimeDataHnd)";

std::string callFailed(uint32_t code, const char *text)
{
    return "E - " + std::to_string(code) + " call " + text + " failed.";
}

// Keeps the strings of the expected messages alive for the parameter table.
std::vector<std::string> &texts()
{
    static std::vector<std::string> t = {
        callFailed(9, kDetachText), callFailed(9, kAttachText), callFailed(9, kUpdateText),
        callFailed(9, kSyncText),   callFailed(9, kRuntimeText), callFailed(9, "dhcpSnoopStkInit()"),
    };
    return t;
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, InitFailureTest,
    ::testing::Values(
        InitFailure{"Step2Pool", 2, "pal_alloc", 0, 0, {"Ensure (NULL != tableMemPool) failed."}},
        InitFailure{"Step3DynamicTable", 3, "pal_alloc", 0, 1, {"Ensure (NULL != dynamicTable) failed."}},
        InitFailure{"Step4RequestTable", 4, "pal_alloc", 0, 2, {"Ensure (NULL != requestTable) failed."}},
        InitFailure{"Step7PoolMutex", 7, "pal_mutex_create:tableMemPoolMutex", 0, 0,
                    {"Ensure (NULL != tableMemPoolMutex) failed."}},
        InitFailure{"Step8MainQueue", 8, "pal_msgQ_create:/dhcpSnoopQue", 0, 0,
                    {"Ensure (0 != dhcpSnoopQueue) failed."}},
        InitFailure{"Step9MainTask", 9, "pal_thread_create:DSTask", 0, 0, {"Ensure (NULL != DSTaskId) failed."}},
        InitFailure{"Step10Timer", 10, "add_timer:DSTimer", 1, 0, {"Ensure (TIMER_ID_IS_VALID(timerId)) failed."}},
        InitFailure{"Step11NewData", 11, "pal_alloc", 0, 3, {"Ensure (NULL != sNewData) failed."}},
        InitFailure{"Step12SaveQueue", 12, "pal_msgQ_create:/updateDynTableQ", (uint32_t)PAL_MQ_ERROR, 0,
                    {"Ensure (PAL_MQ_ERROR != updateDynTableQ) failed."}},
        InitFailure{"Step13SaveMutex", 13, "pal_mutex_create:upMutex", 0, 0, {"Ensure (NULL != upMutexId) failed."}},
        InitFailure{"Step14SaveTask", 14, "pal_thread_create:dynEntrySaveTask", 0, 0,
                    {"Ensure (NULL != dynEntrySaveTask) failed."}},
        InitFailure{"Step15FdbPool", 15, "pal_alloc", 0, 4, {"Ensure (NULL != gFdbEntryPool) failed."}},
        InitFailure{"Step16FdbMutex", 16, "pal_mutex_create:getFdbEntryMutex", 0, 0,
                    {"Ensure (NULL != getFdbEntryMutex) failed."}},
        InitFailure{"Step17FdbQueue", 17, "pal_msgQ_create:/getFdbEntryMsgQue", 0, 0,
                    {"Ensure (0 != getFdbEntryMsgQue) failed."}},
        InitFailure{"Step18FdbTask", 18, "pal_thread_create:getFdbEntryTask", 0, 0,
                    {"Ensure (NULL != getFdbEntryTask) failed."}},
        InitFailure{"Step19Detach", 19, "stkUsoDetachCbReg", 9, 0, {texts()[0].c_str(), texts()[5].c_str()}},
        InitFailure{"Step19Attach", 19, "stkUsoAttachCbReg", 9, 0, {texts()[1].c_str(), texts()[5].c_str()}},
        InitFailure{"Step19Update", 19, "stkUsoUpdateCbReg", 9, 0, {texts()[2].c_str(), texts()[5].c_str()}},
        InitFailure{"Step19DataSync", 19, "stkUsoDataSyncCbReg", 9, 0, {texts()[3].c_str(), texts()[5].c_str()}},
        InitFailure{"Step19Runtime", 19, "stkUsoRuntimeDataHndReg", 9, 0,
                    {texts()[4].c_str(), texts()[5].c_str()}}),
    [](const ::testing::TestParamInfo<InitFailure> &info) { return std::string(info.param.name); });

TEST_F(CoreTest, RequestTableAllocationFailureFreesPoolAndDynamicTableAndMakesNoTask)
{
    sim::failNext("pal_alloc", 0, 2);
    EXPECT_EQ(dhcpSnoopInit(), DHCP_SNOOP_E_INIT);
    EXPECT_EQ(sim::outstandingAllocs(), 0u);
    EXPECT_TRUE(sim::threads().empty());
    const auto &ev = sim::events();
    ASSERT_GE(ev.size(), 2u);
    EXPECT_EQ(ev[ev.size() - 2], freeEvent(kPoolBytes));
    EXPECT_EQ(ev[ev.size() - 1], freeEvent(kTableBytes));
}

TEST_F(CoreTest, DataSyncRegistrationFailureKeepsEarlierRegistrationsAndDestroysTasks)
{
    sim::failNext("stkUsoDataSyncCbReg", 5);
    EXPECT_EQ(dhcpSnoopInit(), DHCP_SNOOP_E_INIT);
    const auto &reg = sim::stkRegistrations();
    EXPECT_EQ(reg.detach, &dhcpSnoopDetachCb);
    EXPECT_EQ(reg.attach, &dhcpSnoopAttachCb);
    EXPECT_EQ(reg.update, &dhcpSnoopUpdateCb);
    EXPECT_EQ(reg.dataSyncSet, nullptr);
    EXPECT_EQ(reg.runtime, nullptr) << "later registrations are not attempted";
    auto threads = sim::threads();
    ASSERT_EQ(threads.size(), 3u);
    for (const auto &t : threads)
        EXPECT_TRUE(t.destroyed) << t.name;
}

TEST_F(CoreTest, StartUpErrorsShowWhileTheSwitchStartsEvenWithDebugOff)
{
    sim::setDebugFlag(0);
    sim::setSwitchInited(false);
    sim::failNext("pal_mutex_create:upMutex", 0);
    EXPECT_EQ(dhcpSnoopInit(), DHCP_SNOOP_E_INIT);
    EXPECT_EQ(sim::messages(), std::vector<std::string>{"Ensure (NULL != upMutexId) failed."});
}

// ---- main task ---------------------------------------------------------------------------

class TaskTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
    }
    void post(uint8_t type, up port = 0)
    {
        DhcpSnoopMsg msg;
        memset(&msg, 0, sizeof(msg));
        msg.type = type;
        msg.element.up = port;
        ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0u);
    }
};

TEST_F(TaskTest, UnusedAndInvalidTypesLeaveNoTrace)
{
    std::vector<int> types = {5, 6, 7, 8};
    for (int t = 12; t <= 255; t++)
        types.push_back(t);
    sim::setDebugFlag(1);
    portCounter[3] = 7;
    logFlagPortFlow[0] = 0x10;
    const size_t syslogBefore = sim::syslog().size();
    for (int t : types) {
        sim::clearLogs();
        post((uint8_t)t, sim::physicalPort(1, 5));
        ASSERT_EQ(simrun::pumpMain(), 1u);
        EXPECT_EQ(sim::messages(), std::vector<std::string>{"msg type:" + std::to_string(t)}) << t;
    }
    EXPECT_EQ(sim::queueDepth(dhcpSnoopQueue), 0u);
    EXPECT_EQ(portCounter[3], 7u);
    EXPECT_EQ(logFlagPortFlow[0], 0x10u);
    EXPECT_TRUE(sim::events().empty());
    EXPECT_TRUE(sim::setPortCfgCalls().empty());
    EXPECT_TRUE(sim::sent().empty());
    EXPECT_EQ(sim::syslog().size(), syslogBefore);
}

TEST_F(TaskTest, TickClearsBothRateCountersWhole)
{
    for (uint32_t i = 0; i < DHCP_SNOOP_PORT_COUNTERS; i++) {
        portCounter[i] = i + 1;
        declineCounter[i] = 100 + i;
    }
    post(DHCP_SNOOP_MSG_TIMER);
    simrun::pumpMain();
    for (uint32_t i = 0; i < DHCP_SNOOP_PORT_COUNTERS; i++) {
        EXPECT_EQ(portCounter[i], 0u);
        EXPECT_EQ(declineCounter[i], 0u);
    }
}

TEST_F(TaskTest, OneSecondTimerPostsTicks)
{
    EXPECT_EQ(sim::timers()[0].dueMs, 1000u);
    portCounter[0] = 3;
    sim::advance(999);
    EXPECT_EQ(sim::queueDepth(dhcpSnoopQueue), 0u);
    sim::advance(1);
    ASSERT_EQ(sim::queueDepth(dhcpSnoopQueue), 1u);
    DhcpSnoopMsg msg;
    ASSERT_TRUE(sim::queueTake(dhcpSnoopQueue, &msg, sizeof(msg)));
    EXPECT_EQ(msg.type, DHCP_SNOOP_MSG_TIMER);
    DhcpSnoopMsg zero;
    memset(&zero, 0, sizeof(zero));
    zero.type = DHCP_SNOOP_MSG_TIMER;
    EXPECT_EQ(memcmp(&msg, &zero, sizeof(msg)), 0) << "the tick record is zero but its type";
    dhcpSnoopTaskHandleMsg(&msg);
    EXPECT_EQ(portCounter[0], 0u);
    simrun::advance(3000);
    EXPECT_EQ(sim::queueDepth(dhcpSnoopQueue), 0u);
}

TEST_F(TaskTest, TimerSenderLosesTheTickOnAFullQueueWithoutALog)
{
    sim::setDebugFlag(1);
    for (uint32_t i = 0; i < DHCP_SNOOP_QUEUE_DEPTH; i++)
        ASSERT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0u);
    sim::clearLogs();
    EXPECT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::logs().empty());
    EXPECT_EQ(simrun::pumpMain(), DHCP_SNOOP_QUEUE_DEPTH);
}

TEST_F(TaskTest, RateFlowMessageClearsTheBitOfItsPort)
{
    // Unit 1, slot 0 have base 0: port 5 is index 5, port 33 index 33.
    logFlagPortFlow[0] = 0xFFFFFFFF;
    logFlagPortFlow[1] = 0xFFFFFFFF;
    sim::setPortCount(1, 40);
    post(DHCP_SNOOP_MSG_RATE_FLOW_TIMER, sim::physicalPort(1, 5));
    simrun::pumpMain();
    EXPECT_EQ(logFlagPortFlow[0], ~(1u << 4));
    post(DHCP_SNOOP_MSG_RATE_FLOW_TIMER, sim::physicalPort(1, 33));
    simrun::pumpMain();
    EXPECT_EQ(logFlagPortFlow[1], ~1u);
}

TEST_F(TaskTest, DeclineMessageClearsItsOwnBitmapOnly)
{
    logFlagPortFlow[0] = 0xFFFFFFFF;
    decFlowFlag[0] = 0xFFFFFFFF;
    post(DHCP_SNOOP_MSG_DECLINE_TIMER, sim::physicalPort(1, 5));
    simrun::pumpMain();
    EXPECT_EQ(decFlowFlag[0], ~(1u << 4));
    EXPECT_EQ(logFlagPortFlow[0], 0xFFFFFFFFu);
}

TEST_F(TaskTest, PortChannelBitLiesInsideTheBitmap)
{
    // po2 has index 66: bit 1 of the third word, which the bitmaps have.
    logFlagPortFlow[2] = 0xFFFFFFFF;
    decFlowFlag[2] = 0xFFFFFFFF;
    post(DHCP_SNOOP_MSG_RATE_FLOW_TIMER, sim::portChannel(2));
    post(DHCP_SNOOP_MSG_DECLINE_TIMER, sim::portChannel(2));
    simrun::pumpMain();
    EXPECT_EQ(logFlagPortFlow[2], ~(1u << 1));
    EXPECT_EQ(decFlowFlag[2], ~(1u << 1));
}

TEST_F(TaskTest, PortTimerSendersPostTheHandleOfTheIndex)
{
    EXPECT_EQ(dhcpSnoopSendRateFlowTimerMsgToDhcp(5), 0u);
    EXPECT_EQ(dhcpSnoopSendDeclineTimerMsgToDhcp(66), 0u);
    DhcpSnoopMsg msg;
    ASSERT_TRUE(sim::queueTake(dhcpSnoopQueue, &msg, sizeof(msg)));
    EXPECT_EQ(msg.type, DHCP_SNOOP_MSG_RATE_FLOW_TIMER);
    EXPECT_EQ(msg.element.up, sim::physicalPort(1, 5));
    ASSERT_TRUE(sim::queueTake(dhcpSnoopQueue, &msg, sizeof(msg)));
    EXPECT_EQ(msg.type, DHCP_SNOOP_MSG_DECLINE_TIMER);
    EXPECT_EQ(msg.element.up, sim::portChannel(2));
}

TEST_F(TaskTest, PortTimerSendersPostNothingForAnInvalidIndex)
{
    // Port 40 does not exist on a 28-port unit; index 200 is past the end.
    EXPECT_EQ(dhcpSnoopSendRateFlowTimerMsgToDhcp(40), 0u);
    EXPECT_EQ(dhcpSnoopSendDeclineTimerMsgToDhcp(200), 0u);
    EXPECT_EQ(sim::queueDepth(dhcpSnoopQueue), 0u);
}

TEST_F(TaskTest, SendOfNullReturnsOneAndPostsNothing)
{
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(nullptr, 0), 1u);
    EXPECT_EQ(sim::queueDepth(dhcpSnoopQueue), 0u);
    EXPECT_TRUE(sim::logs().empty());
}

TEST_F(TaskTest, SendFailureReportsAndReturnsMinusOne)
{
    sim::setDebugFlag(1);
    sim::failNext("pal_msgQ_send:/dhcpSnoopQue");
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof(msg));
    EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("msg send err."));
}

TEST_F(TaskTest, PortConfigTypesNineAndTenMakeIdenticalCalls)
{
    post(DHCP_SNOOP_MSG_PORT_CFG_9, sim::physicalPort(1, 7));
    post(DHCP_SNOOP_MSG_PORT_CFG_10, sim::physicalPort(1, 7));
    simrun::pumpMain();
    const auto &calls = sim::setPortCfgCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].port, sim::physicalPort(1, 7));
    EXPECT_EQ(calls[1].port, sim::physicalPort(1, 7));
    EXPECT_EQ(memcmp(&calls[0].cfg, &calls[1].cfg, sizeof(DhcpSnoopPortCfg)), 0);
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(&calls[0].cfg);
    for (size_t i = 0; i < sizeof(DhcpSnoopPortCfg); i++)
        EXPECT_EQ(bytes[i], i == 1 ? 1 : 0) << "byte " << i;
}

TEST_F(TaskTest, ConfigChangeOnlyLogs)
{
    sim::setDebugFlag(1);
    post(DHCP_SNOOP_MSG_CFG_CHANGE);
    sim::clearLogs();
    simrun::pumpMain();
    EXPECT_EQ(sim::messages(), std::vector<std::string>{"dhcp snoop queue receive cfg_change\r\n"});
}

TEST_F(TaskTest, RemovalOfAnUnknownBindingIsReported)
{
    sim::setDebugFlag(1);
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof(msg));
    msg.type = DHCP_SNOOP_MSG_DEL_BINDING;
    msg.element.clientIp[0] = 10;
    msg.element.vlan = 10;
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0u);
    sim::clearLogs();
    simrun::pumpMain();
    ASSERT_EQ(sim::logs().size(), 1u);
    EXPECT_TRUE(sim::logs()[0].error);
    EXPECT_EQ(sim::logs()[0].message(), "not found!!!!!!");
}

TEST_F(TaskTest, AttachAndUpdateCallbacksDoNothing)
{
    EXPECT_EQ(dhcpSnoopAttachCb(0x6, nullptr), 0u);
    EXPECT_EQ(dhcpSnoopUpdateCb(0x6, nullptr), 0u);
    EXPECT_TRUE(sim::events().empty());
    EXPECT_EQ(sim::queueDepth(dhcpSnoopQueue), 0u);
}

}  // namespace
