// The simulated platform itself: its contracts must hold before any module
// behaviour measured on it means anything.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "platform/fdb.h"
#include "platform/log.h"
#include "platform/pal.h"
#include "platform/port.h"
#include "platform/qtable.h"
#include "platform/sim/sim.h"
#include "platform/snoopcfg.h"
#include "platform/stack.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

class Sim : public ::testing::Test {
protected:
    void SetUp() override { sim::reset(); }
    void TearDown() override { sim::reset(); }
};

// ---- queues ------------------------------------------------------------------

TEST_F(Sim, QueueHandlesArePositiveAndSequential)
{
    PalMsgQ a = pal_msgQ_create("/a", 2, 8, 4);
    PalMsgQ b = pal_msgQ_create("/b", 1, 4, 0);
    EXPECT_EQ(a, 1);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(sim::queueByName("/a"), a);
    EXPECT_EQ(sim::queueByName("/none"), 0);
    EXPECT_EQ(sim::queueCapacity(a), 2u);
    EXPECT_EQ(sim::queueRecordSize(a), 8u);
    ASSERT_EQ(sim::events().size(), 2u);
    EXPECT_EQ(sim::events()[0], "queue_create /a 2 8 4");
}

TEST_F(Sim, QueueSendReceiveFullAndOversize)
{
    PalMsgQ q = pal_msgQ_create("/q", 2, 8, 0);
    uint8_t big[9] = {0};
    EXPECT_EQ(pal_msgQ_send(q, big, 9, 0, 0), -1);  // larger than a record
    uint8_t r1[3] = {1, 2, 3};
    uint8_t r2[8] = {9, 9, 9, 9, 9, 9, 9, 9};
    EXPECT_EQ(pal_msgQ_send(q, r1, 3, PAL_WAIT_FOREVER, 0), 0);
    EXPECT_EQ(pal_msgQ_send(q, r2, 8, 0, 0), 0);
    EXPECT_EQ(pal_msgQ_send(q, r2, 8, PAL_WAIT_FOREVER, 0), -1);  // full, never blocks
    EXPECT_EQ(sim::queueDepth(q), 2u);

    uint8_t out[16];
    memset(out, 0xEE, sizeof out);
    uint32_t word = 77;
    EXPECT_EQ(pal_msgQ_receive(q, out, sizeof out, 0, &word), 8);
    EXPECT_EQ(word, 0u);
    const uint8_t expect[8] = {1, 2, 3, 0, 0, 0, 0, 0};  // zero padded
    EXPECT_EQ(memcmp(out, expect, 8), 0);
    EXPECT_EQ(pal_msgQ_receive(q, out, 4, 0, nullptr), 4);  // shorter buffer
    EXPECT_EQ(out[0], 9);
    EXPECT_EQ(pal_msgQ_receive(q, out, sizeof out, PAL_WAIT_FOREVER, nullptr), -1);  // empty
    EXPECT_EQ(pal_msgQ_send(99, r1, 3, 0, 0), -1);
    EXPECT_EQ(pal_msgQ_receive(0, out, 3, 0, nullptr), -1);
}

TEST_F(Sim, QueueTake)
{
    PalMsgQ q = pal_msgQ_create("/q", 4, 2, 0);
    uint8_t r[2] = {5, 6};
    ASSERT_EQ(pal_msgQ_send(q, r, 2, 0, 0), 0);
    uint8_t out[4] = {1, 1, 1, 1};
    EXPECT_TRUE(sim::queueTake(q, out, sizeof out));
    EXPECT_EQ(out[0], 5);
    EXPECT_EQ(out[1], 6);
    EXPECT_EQ(out[2], 0);
    EXPECT_FALSE(sim::queueTake(q, out, sizeof out));
    EXPECT_FALSE(sim::queueTake(0, out, sizeof out));
}

// ---- failure injection -----------------------------------------------------------

TEST_F(Sim, FailureSkipAndTimes)
{
    sim::setVlanSnooping(10, true);
    sim::failNext("swDhcpSnoopGetVlanEnableStatusByVid", 7, 1, 2);
    uint8_t en = 0;
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(10, &en), 0u);  // skipped
    EXPECT_EQ(en, 1);
    en = 42;
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(10, &en), 7u);
    EXPECT_EQ(en, 42);  // output untouched on failure
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(10, &en), 7u);
    EXPECT_EQ(swDhcpSnoopGetVlanEnableStatusByVid(10, &en), 0u);  // used up
}

TEST_F(Sim, FailureForeverAndClear)
{
    sim::failNext("getMacAddress", 3, 0, -1);
    uint8_t mac[6];
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(getMacAddress(mac), 3u);
    sim::clearFailures();
    EXPECT_EQ(getMacAddress(mac), 0u);
    const uint8_t def[6] = {0x00, 0x0e, 0x5e, 0x00, 0x00, 0x01};
    EXPECT_EQ(memcmp(mac, def, 6), 0);
}

TEST_F(Sim, FailureOfNamedResources)
{
    sim::failNext("pal_msgQ_create:/x", (uint32_t)PAL_MQ_ERROR);
    EXPECT_EQ(pal_msgQ_create("/x", 1, 1, 0), PAL_MQ_ERROR);
    sim::failNext("pal_msgQ_create:/x", 0);
    EXPECT_EQ(pal_msgQ_create("/x", 1, 1, 0), 0);
    EXPECT_EQ(pal_msgQ_create("/x", 1, 1, 0), 1);

    sim::failNext("pal_msgQ_send:/x");
    uint8_t b = 1;
    EXPECT_EQ(pal_msgQ_send(1, &b, 1, 0, 0), -1);
    EXPECT_EQ(pal_msgQ_send(1, &b, 1, 0, 0), 0);

    sim::failNext("pal_mutex_create:m");
    EXPECT_EQ(pal_mutex_create("m"), nullptr);
    sim::failNext("pal_thread_create:t");
    EXPECT_EQ(pal_thread_create("t", 1, 1, nullptr, nullptr), nullptr);
    sim::failNext("pal_alloc");
    EXPECT_EQ(pal_alloc(4, "x"), nullptr);
    sim::failNext("pal_calloc");
    EXPECT_EQ(pal_calloc(1, 4, "x"), nullptr);
    EXPECT_EQ(sim::allocCount(), 0u);

    sim::failNext("add_timer:T", 5);
    PalTimerId id;
    memset(&id, 0xFF, sizeof id);
    EXPECT_EQ(add_timer(&id, "T", PalTimeSpec{1, 0}, nullptr, 0, -1), 5u);
    EXPECT_FALSE(TIMER_ID_IS_VALID(id));
    EXPECT_TRUE(sim::timers().empty());
}

// ---- timers ------------------------------------------------------------------------

std::vector<std::string> gFired;

uint32_t fireA(uint32_t arg)
{
    gFired.push_back("A" + std::to_string(arg) + "@" + std::to_string(sim::nowMs()));
    return 0;
}

uint32_t fireB(uint32_t arg)
{
    gFired.push_back("B" + std::to_string(arg) + "@" + std::to_string(sim::nowMs()));
    return 0;
}

TEST_F(Sim, TimerEndlessAndOneShot)
{
    gFired.clear();
    PalTimerId a, b;
    ASSERT_EQ(add_timer(&a, "tick", PalTimeSpec{1, 0}, fireA, 0, -1), 0u);
    ASSERT_EQ(add_timer(&b, "once", PalTimeSpec{2, 500000}, fireB, 7, 1), 0u);
    EXPECT_TRUE(TIMER_ID_IS_VALID(a));
    EXPECT_TRUE(TIMER_ID_IS_VALID(b));
    EXPECT_NE(memcmp(&a, &b, sizeof a), 0);
    EXPECT_EQ(sim::events().back(), "timer_add once 2.500000 7 1");
    EXPECT_EQ(sim::nextTimerDue(), 1000u);

    int hooks = 0;
    sim::advance(3000, [&] { ++hooks; });
    std::vector<std::string> expect = {"A0@1000", "A0@2000", "B7@2500", "A0@3000"};
    EXPECT_EQ(gFired, expect);
    EXPECT_EQ(hooks, 4);
    EXPECT_EQ(sim::nowMs(), 3000u);
    std::vector<sim::TimerRec> t = sim::timers();
    ASSERT_EQ(t.size(), 2u);
    EXPECT_TRUE(t[0].active);
    EXPECT_EQ(t[0].dueMs, 4000u);
    EXPECT_FALSE(t[1].active);
    EXPECT_EQ(sim::nextTimerDue(), 4000u);

    sim::advanceTo(10);  // never backwards
    EXPECT_EQ(sim::nowMs(), 3000u);
    sim::advance(500);
    EXPECT_EQ(sim::nowMs(), 3500u);
    EXPECT_EQ(gFired.size(), 4u);
}

TEST_F(Sim, TimerTiesFireInCreationOrder)
{
    gFired.clear();
    PalTimerId id;
    ASSERT_EQ(add_timer(&id, "b", PalTimeSpec{0, 100000}, fireB, 1, 2), 0u);
    ASSERT_EQ(add_timer(&id, "a", PalTimeSpec{0, 100000}, fireA, 2, 2), 0u);
    sim::advance(1000);
    std::vector<std::string> expect = {"B1@100", "A2@100", "B1@200", "A2@200"};
    EXPECT_EQ(gFired, expect);
    EXPECT_EQ(sim::nextTimerDue(), UINT64_MAX);
}

uint32_t addTimerFromCallback(uint32_t)
{
    // Callbacks run without the sim lock and may use the platform.
    PalTimerId id;
    add_timer(&id, "late", PalTimeSpec{0, 50000}, fireA, 9, 1);
    return 0;
}

TEST_F(Sim, TimerCallbackMayAddTimers)
{
    gFired.clear();
    PalTimerId id;
    ASSERT_EQ(add_timer(&id, "first", PalTimeSpec{0, 100000}, addTimerFromCallback, 0, 1), 0u);
    sim::advance(200);
    std::vector<std::string> expect = {"A9@150"};
    EXPECT_EQ(gFired, expect);
}

// ---- memory ------------------------------------------------------------------------

TEST_F(Sim, MemoryAccounting)
{
    uint8_t* p = static_cast<uint8_t*>(pal_alloc(16, "t1"));
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p[0], 0xA5);
    EXPECT_EQ(p[15], 0xA5);
    uint8_t* c = static_cast<uint8_t*>(pal_calloc(4, 8, "t2"));
    ASSERT_NE(c, nullptr);
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(c[i], 0);
    EXPECT_EQ(sim::outstandingAllocs(), 2u);
    EXPECT_EQ(sim::outstandingBytes(), 48u);
    EXPECT_EQ(sim::allocCount(), 2u);
    EXPECT_TRUE(sim::isLiveAlloc(p));

    pal_free(p);
    EXPECT_FALSE(sim::isLiveAlloc(p));
    EXPECT_EQ(sim::outstandingBytes(), 32u);
    pal_free(p);  // double free: counted, harmless
    int local = 0;
    pal_free(&local);  // unknown pointer
    pal_free(nullptr);  // ignored
    EXPECT_EQ(sim::badFrees(), 2u);
    EXPECT_EQ(sim::outstandingAllocs(), 1u);

    std::vector<std::string> expect = {"alloc 16 t1", "alloc 32 t2", "free 16 t1"};
    EXPECT_EQ(sim::events(), expect);

    sim::reset();  // frees c
    EXPECT_EQ(sim::outstandingAllocs(), 0u);
    EXPECT_EQ(sim::allocCount(), 0u);
}

// ---- mutexes and threads ---------------------------------------------------------------

TEST_F(Sim, MutexTakeGiveAndDestroy)
{
    PalMutex* m = pal_mutex_create("mx");
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(pal_mutex_take_int(m, PAL_WAIT_FOREVER), 0);
    EXPECT_EQ(pal_mutex_take_int(m, 0), -1);   // held
    EXPECT_EQ(pal_mutex_take_int(m, 5), -1);   // times out
    EXPECT_EQ(pal_mutex_give_int(m), 0);
    EXPECT_EQ(pal_mutex_take_int(m, 0), 0);
    EXPECT_EQ(pal_mutex_give_int(m), 0);
    pal_mutex_destroy(m);
    EXPECT_EQ(pal_mutex_take_int(m, 0), -1);  // late take: no crash
    std::vector<std::string> expect = {"mutex_create mx", "mutex_destroy mx"};
    EXPECT_EQ(sim::events(), expect);
}

// One thread (a replay): the same answers without the lock; a second
// thread's call is refused loudly; off again, threads mix as before.
TEST_F(Sim, OneThreadModeKeepsMutexAnswersAndRefusesOtherThreads)
{
    PalMutex* m = pal_mutex_create("mx");
    ASSERT_NE(m, nullptr);
    sim::setOneThread(true);
    EXPECT_EQ(pal_mutex_take_int(m, PAL_WAIT_FOREVER), 0);
    EXPECT_EQ(pal_mutex_take_int(m, 0), -1);  // held
    EXPECT_EQ(pal_mutex_give_int(m), 0);
    EXPECT_EQ(pal_mutex_give_int(m), -1);     // not held
    EXPECT_EQ(pal_mutex_take_int(m, 0), 0);
    void* p = pal_alloc(8, "x");
    EXPECT_TRUE(sim::isLiveAlloc(p));
    pal_free(p);
    EXPECT_DEATH(std::thread([] { pal_free(pal_alloc(8, "y")); }).join(), "second thread");
    sim::setOneThread(false);
    // Taken in one-thread mode, given back by another thread afterwards.
    std::thread([m] { EXPECT_EQ(pal_mutex_give_int(m), 0); }).join();
    EXPECT_EQ(pal_mutex_take_int(m, 0), 0);
    EXPECT_EQ(pal_mutex_give_int(m), 0);
    sim::setOneThread(true);
    sim::reset();  // ends the mode
    std::thread([] { pal_free(pal_alloc(8, "z")); }).join();
    EXPECT_EQ(sim::outstandingAllocs(), 0u);
}

TEST_F(Sim, BlockedTakeLeavesPlatformUsable)
{
    PalMutex* m = pal_mutex_create("mx");
    ASSERT_EQ(pal_mutex_take_int(m, PAL_WAIT_FOREVER), 0);
    std::atomic<int> got{-2};
    std::thread waiter([&] { got = pal_mutex_take_int(m, PAL_WAIT_FOREVER); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // The waiter blocks on the PAL mutex only, never on the sim lock.
    void* p = pal_alloc(8, "x");
    pal_free(p);
    EXPECT_EQ(got.load(), -2);
    EXPECT_EQ(pal_mutex_give_int(m), 0);
    waiter.join();
    EXPECT_EQ(got.load(), 0);
    EXPECT_EQ(pal_mutex_give_int(m), 0);
}

TEST_F(Sim, DestroyWakesWaiters)
{
    PalMutex* m = pal_mutex_create("mx");
    ASSERT_EQ(pal_mutex_take_int(m, PAL_WAIT_FOREVER), 0);
    std::atomic<int> got{-2};
    std::thread waiter([&] { got = pal_mutex_take_int(m, PAL_WAIT_FOREVER); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pal_mutex_destroy(m);
    waiter.join();
    EXPECT_EQ(got.load(), -1);
}

TEST_F(Sim, ThreadsAreRecordedNotStarted)
{
    PalThread* a = pal_thread_create("ta", 1024, 170, nullptr, nullptr);
    PalThread* b = pal_thread_create("tb", 2048, 171, nullptr, nullptr);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
    EXPECT_TRUE(sim::threadLive("ta"));
    pal_thread_destroy(a);
    EXPECT_FALSE(sim::threadLive("ta"));
    EXPECT_TRUE(sim::threadLive("tb"));
    ASSERT_EQ(sim::threads().size(), 2u);
    EXPECT_TRUE(sim::threads()[0].destroyed);
    std::vector<std::string> expect = {"thread_create ta 1024 170", "thread_create tb 2048 171",
                                       "thread_destroy ta"};
    EXPECT_EQ(sim::events(), expect);
    pal_sleep(30);
    pal_sleep(20);
    EXPECT_EQ(sim::sleptMs(), 50u);
}

// ---- frames ----------------------------------------------------------------------------

TEST_F(Sim, FrameReleaseAndDoubleRelease)
{
    uint8_t* f = sim::newFrame({1, 2, 3});
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f[2], 3);
    EXPECT_EQ(sim::framesOutstanding(), 1u);
    dhcpReleasePacketPool(f);
    EXPECT_EQ(sim::framesOutstanding(), 0u);
    EXPECT_EQ(sim::releaseCount(), 1u);
    EXPECT_EQ(sim::badReleases(), 0u);
    dhcpReleasePacketPool(f);
    uint8_t other[4];
    dhcpReleasePacketPool(other);
    EXPECT_EQ(sim::badReleases(), 2u);
    EXPECT_EQ(sim::releaseCount(), 1u);
    // The pool does not count toward the module's allocations.
    EXPECT_EQ(sim::allocCount(), 0u);
}

// ---- long runs -------------------------------------------------------------------------

TEST_F(Sim, RecordingOffKeepsNothingThatGrows)
{
    sim::Recording rec;
    rec.fdbLookups = false;
    rec.events = false;
    rec.spentTimers = false;
    rec.runtimeRecords = false;
    rec.releasedFrames = 2;
    sim::setRecording(rec);
    FdbEntry e;
    memset(&e, 0, sizeof e);
    EXPECT_NE(swFdbGetEntry(&e), 0u);
    EXPECT_TRUE(sim::fdbLookups().empty());
    void* p = pal_alloc(8, "t");
    pal_free(p);
    EXPECT_TRUE(sim::events().empty());
    PalTimerId id;
    ASSERT_EQ(add_timer(&id, "tick", PalTimeSpec{1, 0}, fireA, 0, -1), 0u);
    ASSERT_EQ(add_timer(&id, "once", PalTimeSpec{0, 500000}, fireB, 1, 1), 0u);
    sim::advance(2000);
    ASSERT_EQ(sim::timers().size(), 1u);
    EXPECT_EQ(sim::timers()[0].name, "tick");
    uint8_t record[4] = {1, 2, 3, 4};
    UsoData uso;
    memset(&uso, 0, sizeof uso);
    uso.data = record;
    uso.len = sizeof record;
    EXPECT_EQ(stkUsoRuntimeDataSync(MID_DHCP, &uso), 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
    // The newest released buffers stay recognised, older ones are given back.
    uint8_t* f[3];
    for (auto& x : f)
        x = sim::newFrame({1});
    for (auto* x : f)
        dhcpReleasePacketPool(x);
    EXPECT_EQ(sim::releaseCount(), 3u);
    dhcpReleasePacketPool(f[2]);
    EXPECT_EQ(sim::badReleases(), 1u);
    // Everything comes back with reset().
    sim::reset();
    EXPECT_EQ(swFdbGetEntry(&e), 1u);
    EXPECT_EQ(sim::fdbLookups().size(), 1u);
}

TEST_F(Sim, FdbFindIsNoLookUpOfTheModule)
{
    sim::Mac m = {2, 0, 0, 0, 0, 1};
    up port = UP_INVALID;
    EXPECT_FALSE(sim::fdbFind(m, 10, &port));
    sim::fdbSet(m, 10, sim::physicalPort(1, 3));
    ASSERT_TRUE(sim::fdbFind(m, 10, &port));
    EXPECT_EQ(port, sim::physicalPort(1, 3));
    EXPECT_FALSE(sim::fdbFind(m, 11, &port));
    EXPECT_EQ(sim::fdbSize(), 1u);
    EXPECT_TRUE(sim::fdbLookups().empty());
}

size_t gFiltered = 0;
bool dropLinesOnly(const char* format)
{
    ++gFiltered;
    return strstr(format, "Drop") != nullptr;
}
__attribute__((noinline)) void unwantedLine() { DHCP_SNOOP_DEBUG("vid = %d", 5); }
__attribute__((noinline)) void wantedLine() { DHCP_SNOOP_DEBUG("Drop %s", "it"); }
// Asks, then composes a line of another site: the guard stays unknown.
__attribute__((noinline)) void guardedLine()
{
    if (DHCP_SNOOP_DEBUG_ON())
        unwantedLine();
}

TEST_F(Sim, LogFilterLeavesDeclinedLinesUncomposed)
{
    sim::setDebugFlag(1);
    sim::setLogFilter(dropLinesOnly);
    gFiltered = 0;
    for (int i = 0; i < 3; ++i) {
        unwantedLine();
        wantedLine();
    }
    // Each site is asked once: then debugFlagGet answers the declined one 0,
    // and the wanted one's lines go on without being asked again.
    EXPECT_EQ(gFiltered, 2u);
    ASSERT_EQ(sim::logs().size(), 3u);
    EXPECT_EQ(sim::logs()[0].message(), "Drop it");
    gFiltered = 0;
    for (int i = 0; i < 3; ++i)
        guardedLine();
    EXPECT_EQ(gFiltered, 0u);
    // The guard itself was never tied to a line: still answered 1.
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u);
    // Without a filter every line is there again.
    sim::setLogFilter(nullptr);
    sim::clearLogs();
    unwantedLine();
    EXPECT_EQ(sim::logs().size(), 1u);
}

TEST_F(Sim, PacketSendRecordsCopy)
{
    uint8_t* f = sim::newFrame({0xAA, 0xBB, 0xCC, 0xDD});
    DhcpSnoopPacket pkt;
    memset(&pkt, 0, sizeof pkt);
    pkt.ports = sim::portListOf(sim::physicalPort(1, 3));
    pkt.frame = f;
    pkt.frameLen = 3;
    pkt.sendFlags = SEND_FLAG_TX;
    pkt.vid = 10;
    EXPECT_EQ(norvikPacketSend(&pkt), 0u);
    f[0] = 0;
    ASSERT_EQ(sim::sent().size(), 1u);
    std::vector<uint8_t> expect = {0xAA, 0xBB, 0xCC};
    EXPECT_EQ(sim::sent()[0].frame, expect);
    EXPECT_EQ(sim::sent()[0].vid, 10);
    EXPECT_EQ(sim::sent()[0].ports.word[0], 1u << 3);
    sim::failNext("norvikPacketSend", 9);
    EXPECT_EQ(norvikPacketSend(&pkt), 9u);
    EXPECT_EQ(sim::sent().size(), 1u);
    dhcpReleasePacketPool(f);
}

// ---- ports -------------------------------------------------------------------------------

TEST_F(Sim, PortNamesRoundTrip)
{
    char buf[UP_STR_BUF];
    up h = sim::physicalPort(1, 5);
    EXPECT_EQ(usUp2Str(h, buf, 0), 0u);
    EXPECT_STREQ(buf, "1/0/5");
    EXPECT_EQ(usUp2Str(sim::portChannel(2), buf, 0), 0u);
    EXPECT_STREQ(buf, "po2");
    EXPECT_EQ(sim::portName(UP_INVALID), "unknown");

    up out = 0;
    EXPECT_EQ(usStr2Up(1, "1/0/5", &out, 0), 0u);
    EXPECT_EQ(out, h);
    EXPECT_EQ(usStr2Up(1, "      1/0/5", &out, 0), 0u);
    EXPECT_EQ(out, h);
    EXPECT_EQ(usStr2Up(1, "po2", &out, 0), 0u);
    EXPECT_EQ(out, sim::portChannel(2));
    EXPECT_EQ(usStr2Up(1, "1/0/x", &out, 0), 1u);
    EXPECT_EQ(out, UP_INVALID);
    EXPECT_EQ(usStr2Up(1, "1/0/5z", &out, 0), 1u);
    EXPECT_EQ(usStr2Up(1, "", &out, 0), 1u);

    sim::setPortName(h, "uplink");
    EXPECT_EQ(sim::portName(h), "uplink");
    EXPECT_EQ(usStr2Up(1, " uplink", &out, 0), 0u);
    EXPECT_EQ(out, h);
}

TEST_F(Sim, PortValidity)
{
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(1, 1)), 1u);
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(1, 28)), 1u);
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(1, 29)), 0u);
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(2, 1)), 0u);
    EXPECT_EQ(inner_up_is_valid(UP_MAKE(1, 1, 1, 1)), 0u);
    EXPECT_EQ(inner_up_is_valid(sim::portChannel(8)), 1u);
    EXPECT_EQ(inner_up_is_valid(sim::portChannel(9)), 0u);
    EXPECT_EQ(inner_up_is_valid(UP_INVALID), 0u);
    EXPECT_EQ(inner_up_unit_is_valid(1), 1u);
    EXPECT_EQ(inner_up_unit_is_valid(2), 0u);
    EXPECT_EQ(inner_up_unitbase_get(2), 64u);
    EXPECT_EQ(inner_up_slotbaseoffset_get(0), 0u);
    sim::setProvision(sim::physicalPort(2, 3), true);
    EXPECT_EQ(inner_up_is_provision(sim::physicalPort(2, 3)), 1u);
    EXPECT_EQ(inner_up_is_provision(sim::physicalPort(1, 3)), 0u);

    sim::setUnits({1, 2});
    sim::setPortCount(2, 10);
    sim::setPortChannelCount(12);
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(2, 10)), 1u);
    EXPECT_EQ(inner_up_is_valid(sim::physicalPort(2, 11)), 0u);
    EXPECT_EQ(inner_up_is_valid(sim::portChannel(12)), 1u);
}

TEST_F(Sim, PortListBits)
{
    PortList l = sim::portListOf(sim::physicalPort(1, 5));
    EXPECT_EQ(l.word[0], 1u << 5);
    for (int i = 1; i < 6; ++i)
        EXPECT_EQ(l.word[i], 0u);
    l = sim::portListOf(sim::portChannel(1));
    EXPECT_EQ(l.word[3], 1u);
    EXPECT_EQ(l.word[0], 0u);
    l = sim::portListOf(sim::physicalPort(1, 40));
    EXPECT_EQ(l.word[1], 1u << 8);

    PortList both;
    memset(&both, 0, sizeof both);
    both.word[0] = 1u << 5;
    both.word[3] = 1u << 1;
    std::vector<up> expect = {sim::physicalPort(1, 5), sim::portChannel(2)};
    EXPECT_EQ(sim::portsIn(both), expect);
}

TEST_F(Sim, FlatIndexWalk)
{
    // Flag 1: running index from 0.
    up h = 0;
    EXPECT_EQ(inner_up_from_index(&h, 0, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, sim::physicalPort(1, 1));
    EXPECT_EQ(inner_up_from_index(&h, 63, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, sim::physicalPort(1, 64));  // exists, not valid
    EXPECT_EQ(inner_up_is_valid(h), 0u);
    EXPECT_EQ(inner_up_from_index(&h, 64, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, sim::portChannel(1));
    EXPECT_EQ(inner_up_from_index(&h, 78, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, sim::portChannel(15));
    EXPECT_EQ(inner_up_from_index(&h, 79, 1, __func__, __LINE__), 0u);
    EXPECT_EQ(h, UP_INVALID);
}

TEST_F(Sim, PortIndexFromOne)
{
    // Flag 0: the rate limits' port index (unit base + slot base + port,
    // port channels 64 + number).
    up h = 0;
    EXPECT_EQ(inner_up_from_index(&h, 5, 0, __func__, __LINE__), 0u);
    EXPECT_EQ(h, sim::physicalPort(1, 5));
    EXPECT_EQ(inner_up_from_index(&h, 66, 0, __func__, __LINE__), 0u);
    EXPECT_EQ(h, sim::portChannel(2));
    EXPECT_EQ(inner_up_from_index(&h, 0, 0, __func__, __LINE__), 0u);
    EXPECT_EQ(h, UP_INVALID);
    EXPECT_EQ(inner_up_unitbase_get(1) + inner_up_slotbaseoffset_get(0) + 5, 5u);
}

// ---- logging -------------------------------------------------------------------------------

TEST_F(Sim, DebugPrintfAndMessages)
{
    EXPECT_EQ(debugFlagGet(MID_DHCP), 0u);
    sim::setDebugFlag(1);
    EXPECT_EQ(debugFlagGet(MID_DHCP), 1u);
    EXPECT_STREQ(midNameGet(MID_DHCP), "DHCPSNOOP");
    EXPECT_STREQ(pidNameGet(pidGetCurrent()), "swapp");
    EXPECT_EQ(isSwitchInited(), 1u);

    debugPrintf(MID_DHCP, "[<%s/%s>:<%s/%s()/%d>] value %d\r\n", "swapp", "DSTask",
                "DHCPSNOOP", "fn", 12, 42);
    debugPrintf(MID_DHCP, "\x1b[31;49m[<%s/%s>:<%s/%s()/%d>] broken %s\x1b[0m\r\n", "swapp",
                "DSTask", "DHCPSNOOP", "fn", 13, "thing");
    std::string longText(3000, 'x');
    debugPrintf(MID_DHCP, "[<a/b>:<c/d()/1>] %s\r\n", longText.c_str());

    ASSERT_EQ(sim::logs().size(), 3u);
    EXPECT_FALSE(sim::logs()[0].error);
    EXPECT_EQ(sim::logs()[0].text, "[<swapp/DSTask>:<DHCPSNOOP/fn()/12>] value 42\r\n");
    EXPECT_EQ(sim::logs()[0].message(), "value 42");
    EXPECT_TRUE(sim::logs()[1].error);
    EXPECT_EQ(sim::logs()[1].message(), "broken thing");
    EXPECT_EQ(sim::logs()[2].message(), longText);  // not truncated
    EXPECT_TRUE(sim::hasMessage("value 42"));
    EXPECT_EQ(sim::countMessage("broken thing"), 1u);
    EXPECT_FALSE(sim::hasMessage("value"));
    EXPECT_EQ(sim::messages().size(), 3u);

    sim::LogLine bare{false, "no prefix"};
    EXPECT_EQ(bare.message(), "no prefix");
    sim::clearLogs();
    EXPECT_TRUE(sim::logs().empty());
}

TEST_F(Sim, SyslogCopiesPortName)
{
    std::string port = "1/0/7";
    syslogAdd(DHCP_SNOOP_LOG_RATE_OVERFLOW, reinterpret_cast<uintptr_t>(port.c_str()), 0, 0, 0,
              0, 0);
    port = "gone";
    syslogAdd(DHCP_SNOOP_LOG_LOAD_OK, 0, 0, 0, 0, 0, 0);
    ASSERT_EQ(sim::syslog().size(), 2u);
    EXPECT_EQ(sim::syslog()[0].portName, "1/0/7");
    EXPECT_EQ(sim::syslog()[0].text, "DHCP snooping: DHCP rate limit exceeded on port 1/0/7");
    EXPECT_EQ(sim::syslog()[1].text, "DHCP snooping: binding file loaded");
    EXPECT_EQ(sim::syslogText(DHCP_SNOOP_LOG_LOAD_FAIL),
              "DHCP snooping: binding file could not be loaded");
    EXPECT_EQ(sim::syslogText(1), "");
}

// ---- configuration, FDB, stacking -----------------------------------------------------------

TEST_F(Sim, PortConfiguration)
{
    up p = sim::physicalPort(1, 2);
    uint8_t v = 9;
    EXPECT_EQ(swDhcpSnoopGetPortTrust(p, &v), 0u);
    EXPECT_EQ(v, 0);
    sim::portCfg(p).trust = 1;
    sim::portCfg(p).limitRate = 15;
    EXPECT_EQ(swDhcpSnoopGetPortTrust(p, &v), 0u);
    EXPECT_EQ(v, 1);
    EXPECT_EQ(swDhcpSnoopGetPortLimitRate(p, &v), 0u);
    EXPECT_EQ(v, 15);
    uint8_t status = 0;
    EXPECT_EQ(swDhcpSnoopGetQAddStatus(&status), 0u);
    EXPECT_EQ(status, 1);

    DhcpSnoopPortCfg cfg;
    memset(&cfg, 0, sizeof cfg);
    cfg.decLimitRate = 3;
    EXPECT_EQ(swDhcpSnoopSetPortCfg(p, &cfg), 0u);
    ASSERT_EQ(sim::setPortCfgCalls().size(), 1u);
    EXPECT_EQ(swDhcpSnoopGetPortDecLimitRate(p, &v), 0u);
    EXPECT_EQ(v, 3);
    sim::failNext("swDhcpSnoopGetPortCfg", 4);
    cfg.decLimitRate = 99;
    EXPECT_EQ(swDhcpSnoopGetPortCfg(p, &cfg), 4u);
    EXPECT_EQ(cfg.decLimitRate, 99);
}

TEST_F(Sim, FdbLookups)
{
    sim::Mac mac = {1, 2, 3, 4, 5, 6};
    sim::fdbSet(mac, 10, sim::physicalPort(1, 4), 77);
    FdbEntry e;
    memset(&e, 0, sizeof e);
    memcpy(e.mac, mac.data(), 6);
    e.vlan = 10;
    EXPECT_EQ(swFdbGetEntry(&e), 0u);
    EXPECT_EQ(e.port, sim::physicalPort(1, 4));
    EXPECT_EQ(e.word, 77u);
    e.vlan = 11;
    EXPECT_EQ(swFdbGetEntry(&e), 1u);
    ASSERT_EQ(sim::fdbLookups().size(), 2u);
    EXPECT_EQ(sim::fdbLookups()[1].vlan, 11u);
}

TEST_F(Sim, StackRegistrations)
{
    EXPECT_EQ(stkGetCurrentUnit(), 1u);
    sim::failNext("stkUsoAttachCbReg", 6);
    EXPECT_EQ(stkUsoAttachCbReg(MID_DHCP, 2, nullptr), 6u);
    EXPECT_TRUE(sim::events().empty());
    EXPECT_EQ(stkUsoDetachCbReg(MID_DHCP, 3, nullptr), 0u);
    EXPECT_EQ(sim::events().back(), "stk_reg detach");
    uint8_t data[3] = {7, 8, 9};
    UsoData d{data, 3};
    EXPECT_EQ(stkUsoRuntimeDataSync(MID_DHCP, &d), 0u);
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(sim::runtimeRecords()[0], std::vector<uint8_t>({7, 8, 9}));
}

// ---- source guard --------------------------------------------------------------------------

SwQTableEntry entryFor(uint8_t last, uint8_t source)
{
    SwQTableEntry e;
    memset(&e, 0, sizeof e);
    e.ip[0] = 10;
    e.ip[3] = last;
    e.source = source;
    return e;
}

// Deleting an entry moves no other: the index a search gave stays the
// entry's until it is deleted, the table keeps its order, and a search
// finds the first of equal keys.
TEST_F(Sim, SourceGuardDeletionKeepsOrderAndIndexes)
{
    for (uint8_t i = 1; i <= 5; ++i) {
        SwQTableEntry e = entryFor(i, QTABLE_SOURCE_DHCP_SNOOP);
        EXPECT_EQ(swQTableAdd(1, &e), 0u);
    }
    SwQTableEntry dup = entryFor(4, QTABLE_SOURCE_DHCP_SNOOP);
    dup.vlan = 7;
    EXPECT_EQ(swQTableAdd(1, &dup), 0u);
    uint32_t i2 = 99, i4 = 99, found = 0;
    SwQTableEntry k2 = entryFor(2, QTABLE_SOURCE_DHCP_SNOOP);
    SwQTableEntry k4 = entryFor(4, QTABLE_SOURCE_DHCP_SNOOP);
    EXPECT_EQ(swQTableSearchByIpAndSource(&k2, &i2, &found), 0u);
    EXPECT_EQ(swQTableSearchByIpAndSource(&k4, &i4, &found), 0u);
    EXPECT_EQ(i2, 1u);
    EXPECT_EQ(i4, 3u);
    EXPECT_EQ(swQTableDel(1, i2, 1), 0u);
    EXPECT_EQ(swQTableDel(1, i2, 1), 1u) << "gone already";
    EXPECT_EQ(swQTableDel(1, i4, 1), 0u) << "its index did not move";
    EXPECT_EQ(swQTableSearchByIpAndSource(&k4, &i4, &found), 0u);
    ASSERT_EQ(found, 1u);
    EXPECT_EQ(swQTableDel(1, i4, 1), 0u) << "the second entry of the key";
    EXPECT_EQ(swQTableSearchByIpAndSource(&k4, &i4, &found), 0u);
    EXPECT_EQ(found, 0u);
    const auto& q = sim::qtable();
    ASSERT_EQ(q.size(), 3u);
    EXPECT_EQ(q[0].ip[3], 1);
    EXPECT_EQ(q[1].ip[3], 3);
    EXPECT_EQ(q[2].ip[3], 5);
    // Many deletions and additions: the table holds only what is left.
    for (int round = 0; round < 500; ++round) {
        SwQTableEntry e = entryFor((uint8_t)(10 + round % 100), QTABLE_SOURCE_DHCP_SNOOP);
        EXPECT_EQ(swQTableAdd(1, &e), 0u);
        uint32_t at = 0;
        EXPECT_EQ(swQTableSearchByIpAndSource(&e, &at, &found), 0u);
        EXPECT_EQ(swQTableDel(1, at, found), 0u);
    }
    EXPECT_EQ(sim::qtable().size(), 3u);
}

TEST_F(Sim, SourceGuardAddSearchDelete)
{
    SwQTableEntry a = entryFor(1, QTABLE_SOURCE_DHCP_SNOOP);
    SwQTableEntry b = entryFor(2, QTABLE_SOURCE_DHCP_SNOOP);
    EXPECT_EQ(swQTableAdd(1, &a), 0u);
    EXPECT_EQ(swQTableAdd(1, &b), 0u);
    sim::qtableInsert(entryFor(2, 1));
    uint32_t index = 99, found = 99;
    SwQTableEntry key = entryFor(2, QTABLE_SOURCE_DHCP_SNOOP);
    EXPECT_EQ(swQTableSearchByIpAndSource(&key, &index, &found), 0u);
    EXPECT_EQ(found, 1u);
    EXPECT_EQ(index, 1u);
    EXPECT_EQ(swQTableDel(1, index, found), 0u);
    EXPECT_EQ(sim::qtable().size(), 2u);
    EXPECT_EQ(swQTableSearchByIpAndSource(&key, &index, &found), 0u);
    EXPECT_EQ(found, 0u);
    EXPECT_EQ(swQTableDel(1, 5, 1), 1u);

    sim::failNext("swQTableAdd", QTABLE_RESULT_EXISTS);
    EXPECT_EQ(swQTableAdd(1, &b), (uint32_t)QTABLE_RESULT_EXISTS);
    EXPECT_EQ(sim::qtable().size(), 3u);
    sim::failNext("swQTableAdd", 1);
    EXPECT_EQ(swQTableAdd(1, &b), 1u);
    EXPECT_EQ(sim::qtable().size(), 3u);

    uint32_t flag = 5;
    EXPECT_EQ(getIncludeIpFilter(&flag), 0u);
    EXPECT_EQ(flag, 0u);
    sim::setIncludeArpDefend(true);
    EXPECT_EQ(getIncludeArpDefend(&flag), 0u);
    EXPECT_EQ(flag, 1u);
}

// ---- files ---------------------------------------------------------------------------------

TEST_F(Sim, FileRootMapping)
{
    const char* path = "/norvik/usrapp/data/dhcpSnoop.cfg";
    EXPECT_EQ(pal_file_path(path), path);
    sim::setFileRoot("/tmp/simroot");
    const char* mapped = pal_file_path(path);
    EXPECT_STREQ(mapped, "/tmp/simroot/dhcpSnoop.cfg");
    sim::setFileRoot("/other");
    EXPECT_STREQ(pal_file_path(path), "/other/dhcpSnoop.cfg");
    EXPECT_STREQ(mapped, "/tmp/simroot/dhcpSnoop.cfg");  // still valid
    sim::reset();
    EXPECT_EQ(pal_file_path(path), path);
}

}  // namespace
