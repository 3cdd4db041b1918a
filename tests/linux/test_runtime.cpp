// The live runtime: queues, mutexes, timers, memory, tasks, file paths.
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "live_fixture.h"
#include "platform/linux/live_internal.h"
#include "platform/pal.h"
#include "snooping/dhcpSnoop.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t msSince(Clock::time_point t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count();
}

class Runtime : public LiveTest {};

TEST_F(Runtime, QueueKeepsDepthRecordsAndRefusesMoreWithoutWaiting)
{
    PalMsgQ q = pal_msgQ_create("/depthQ", 3, 8, 4);
    ASSERT_GT(q, 0);
    uint8_t rec[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    for (int i = 0; i < 3; ++i) {
        rec[0] = (uint8_t)i;
        EXPECT_NE(pal_msgQ_send(q, rec, sizeof rec, 0, 0), -1);
    }
    auto t = Clock::now();
    EXPECT_EQ(pal_msgQ_send(q, rec, sizeof rec, 0, 0), -1);
    EXPECT_LT(msSince(t), 1000);
    uint8_t out[8];
    uint32_t word = 77;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pal_msgQ_receive(q, out, sizeof out, 0, &word), 8);
        EXPECT_EQ(out[0], (uint8_t)i) << "oldest first";
        EXPECT_EQ(out[7], 8);
    }
    EXPECT_EQ(word, 0u);
    EXPECT_EQ(pal_msgQ_receive(q, out, sizeof out, 0, &word), -1);
}

TEST_F(Runtime, QueueRefusesOversizeBadHandleAndCopiesShortRecordsWithZeros)
{
    PalMsgQ q = pal_msgQ_create("/sizeQ", 2, 4, 0);
    ASSERT_GT(q, 0);
    uint8_t big[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(pal_msgQ_send(q, big, sizeof big, 0, 0), -1);
    EXPECT_EQ(pal_msgQ_send(q + 1000, big, 4, 0, 0), -1);
    EXPECT_EQ(pal_msgQ_send(0, big, 4, 0, 0), -1);
    EXPECT_EQ(pal_msgQ_receive(q + 1000, big, 4, 0, nullptr), -1);
    EXPECT_EQ(pal_msgQ_send(q, big, 4, 0, 0), 0);
    uint8_t one = 9;
    EXPECT_EQ(pal_msgQ_send(q, &one, 1, 0, 0), 0);
    uint8_t out[4];
    EXPECT_EQ(pal_msgQ_receive(q, out, 4, 0, nullptr), 4);
    memset(out, 0xEE, sizeof out);
    EXPECT_EQ(pal_msgQ_receive(q, out, 4, 0, nullptr), 4);
    EXPECT_EQ(out[0], 9);
    EXPECT_EQ(out[1], 0) << "the rest of a short record is zero";
    EXPECT_EQ(out[3], 0);
    // A smaller receive buffer takes only its size.
    EXPECT_EQ(pal_msgQ_send(q, big, 4, 0, 0), 0);
    uint8_t two[2];
    EXPECT_EQ(pal_msgQ_receive(q, two, 2, 0, nullptr), 2);
}

TEST_F(Runtime, QueueWaitsForTheGivenTimeThenFails)
{
    PalMsgQ q = pal_msgQ_create("/waitQ", 1, 4, 0);
    ASSERT_GT(q, 0);
    uint8_t out[4];
    auto t = Clock::now();
    EXPECT_EQ(pal_msgQ_receive(q, out, 4, 50, nullptr), -1);
    EXPECT_GE(msSince(t), 45);
    uint32_t v = 1;
    ASSERT_EQ(pal_msgQ_send(q, &v, 4, 0, 0), 0);
    t = Clock::now();
    EXPECT_EQ(pal_msgQ_send(q, &v, 4, 50, 0), -1);
    EXPECT_GE(msSince(t), 45);
}

TEST_F(Runtime, QueueWaitingSendAndReceiveMeetAcrossTasks)
{
    PalMsgQ q = pal_msgQ_create("/meetQ", 1, 4, 0);
    ASSERT_GT(q, 0);
    std::thread consumer([q] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        uint32_t v = 0;
        for (int i = 0; i < 3; ++i)
            EXPECT_EQ(pal_msgQ_receive(q, &v, 4, PAL_WAIT_FOREVER, nullptr), 4);
    });
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_EQ(pal_msgQ_send(q, &i, 4, PAL_WAIT_FOREVER, 0), 0);
    consumer.join();
    uint32_t v;
    EXPECT_EQ(pal_msgQ_receive(q, &v, 4, 20, nullptr), -1);
}

TEST_F(Runtime, QueueCreationRefusesEmptyShapes)
{
    EXPECT_EQ(pal_msgQ_create("/none", 0, 4, 0), 0);
    EXPECT_EQ(pal_msgQ_create("/none", 4, 0, 0), 0);
}

TEST_F(Runtime, QueueIdleWhileNothingWaitsAndTheConsumerIsBack)
{
    PalMsgQ q = pal_msgQ_create("/idleQ", 2, 1, 0);
    ASSERT_GT(q, 0);
    EXPECT_TRUE(live::runtime::queueIdle("/idleQ"));
    uint8_t b = 1;
    ASSERT_EQ(pal_msgQ_send(q, &b, 1, 0, 0), 0);
    EXPECT_FALSE(live::runtime::queueIdle("/idleQ"));
    ASSERT_EQ(pal_msgQ_receive(q, &b, 1, 0, nullptr), 1);
    EXPECT_FALSE(live::runtime::queueIdle("/idleQ")) << "the consumer still works on it";
    EXPECT_EQ(pal_msgQ_receive(q, &b, 1, 0, nullptr), -1);
    EXPECT_TRUE(live::runtime::queueIdle("/idleQ"));
}

TEST_F(Runtime, MutexTimesOutWhileHeldAndIsGivenFromAnotherTask)
{
    PalMutex* m = pal_mutex_create("testMutex");
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(pal_mutex_take_int(m, PAL_WAIT_FOREVER), 0);
    EXPECT_EQ(pal_mutex_take_int(m, 0), -1);
    auto t = Clock::now();
    EXPECT_EQ(pal_mutex_take_int(m, 40), -1);
    EXPECT_GE(msSince(t), 35);
    std::thread other([m] { EXPECT_EQ(pal_mutex_give_int(m), 0); });
    other.join();
    EXPECT_EQ(pal_mutex_take_int(m, 1000), 0);
    EXPECT_EQ(pal_mutex_give_int(m), 0);
    EXPECT_EQ(pal_mutex_give_int(m), -1) << "not held";
    pal_mutex_destroy(m);
    EXPECT_EQ(pal_mutex_take_int(m, 0), -1);
    EXPECT_EQ(pal_mutex_take_int(nullptr, 0), -1);
}

TEST_F(Runtime, DestroyWakesAWaiter)
{
    PalMutex* m = pal_mutex_create("wakeMutex");
    ASSERT_EQ(pal_mutex_take_int(m, 0), 0);
    std::atomic<int> result{1};
    std::thread waiter([&] { result = pal_mutex_take_int(m, PAL_WAIT_FOREVER); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pal_mutex_destroy(m);
    waiter.join();
    EXPECT_EQ(result.load(), -1);
}

std::atomic<int> gPeriodic{0};
std::atomic<int> gOneShot{0};
std::atomic<uint32_t> gArg{0};

uint32_t periodicCb(uint32_t arg)
{
    gArg = arg;
    ++gPeriodic;
    return 0;
}

uint32_t oneShotCb(uint32_t)
{
    ++gOneShot;
    return 0;
}

TEST_F(Runtime, PeriodicTimerFiresAgainAndAgainWithItsArgument)
{
    PalTimerId id;
    memset(&id, 0xFF, sizeof id);
    PalTimeSpec p = {0, 10000};  // 10 ms
    ASSERT_EQ(add_timer(&id, "periodic", p, periodicCb, 42, -1), 0u);
    EXPECT_TRUE(TIMER_ID_IS_VALID(id));
    EXPECT_TRUE(waitUntil([] { return gPeriodic.load() >= 5; }));
    EXPECT_EQ(gArg.load(), 42u);
}

TEST_F(Runtime, TimerWithRepetitionsStopsAfterThem)
{
    PalTimerId a, b;
    PalTimeSpec p = {0, 5000};
    ASSERT_EQ(add_timer(&a, "once", p, oneShotCb, 0, 1), 0u);
    ASSERT_EQ(add_timer(&b, "twice", p, oneShotCb, 0, 2), 0u);
    EXPECT_TRUE(TIMER_ID_IS_VALID(a));
    EXPECT_NE(memcmp(&a, &b, sizeof a), 0) << "every timer has its own id";
    EXPECT_TRUE(waitUntil([] { return gOneShot.load() >= 3; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(gOneShot.load(), 3);
}

TEST_F(Runtime, TimerRefusedWithoutCallbackHasAnInvalidId)
{
    PalTimerId id;
    memset(&id, 0xFF, sizeof id);
    PalTimeSpec p = {1, 0};
    EXPECT_NE(add_timer(&id, "none", p, nullptr, 0, -1), 0u);
    EXPECT_FALSE(TIMER_ID_IS_VALID(id));
    EXPECT_NE(add_timer(&id, "zero", p, oneShotCb, 0, 0), 0u);
    EXPECT_FALSE(TIMER_ID_IS_VALID(id));
}

TEST_F(Runtime, SleepSleepsAboutTheMilliseconds)
{
    auto t = Clock::now();
    pal_sleep(30);
    EXPECT_GE(msSince(t), 29);
    EXPECT_LT(msSince(t), 5000);
}

std::atomic<bool> gTaskRan{false};
char gTaskName[32];

void taskBody(void* arg)
{
    prctl(PR_GET_NAME, gTaskName);
    *static_cast<int*>(arg) = 7;
    gTaskRan = true;
}

TEST_F(Runtime, TaskRunsAtOnceUnderItsNameCutTo15Characters)
{
    static int value = 0;
    PalThread* t = pal_thread_create("aVeryLongTaskNameIndeed", 1024, 170, taskBody, &value);
    ASSERT_NE(t, nullptr);
    EXPECT_TRUE(waitUntil([] { return gTaskRan.load(); }));
    EXPECT_EQ(value, 7);
    EXPECT_STREQ(gTaskName, "aVeryLongTaskNa");
    pal_thread_destroy(t);
    EXPECT_EQ(pal_thread_create("noEntry", 0, 0, nullptr, nullptr), nullptr);
}

// The kernel's own view of a thread's name, past any kept answer.
std::string kernelThreadName()
{
    char name[32];
    memset(name, 0, sizeof name);
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

std::string askedThreadName()
{
    char name[32];
    memset(name, 0, sizeof name);
    EXPECT_EQ(prctl(PR_GET_NAME, name), 0);
    return name;
}

TEST_F(Runtime, ThreadNamesAskedAgainFollowEveryRename)
{
    std::string a, b, c, d, kernel, other;
    std::thread t([&] {
        live::runtime::nameThread("firstName");
        a = askedThreadName();
        b = askedThreadName();  // the kept answer
        live::runtime::nameThread("aSecondNameTooLong");
        c = askedThreadName();
        kernel = kernelThreadName();
        ASSERT_EQ(prctl(PR_SET_NAME, "third"), 0);
        d = askedThreadName();
        std::thread u([&] {
            live::runtime::nameThread("otherThread");
            other = askedThreadName();
        });
        u.join();
    });
    t.join();
    EXPECT_EQ(a, "firstName");
    EXPECT_EQ(b, "firstName");
    EXPECT_EQ(c, "aSecondNameTooL");
    EXPECT_EQ(kernel, "aSecondNameTooL");
    EXPECT_EQ(d, "third");
    EXPECT_EQ(other, "otherThread");
    // Other options still reach the kernel.
    EXPECT_GE(prctl(PR_GET_DUMPABLE, 0, 0, 0, 0), 0);
    EXPECT_EQ(prctl(-12345, 0, 0, 0, 0), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(Runtime, AllocationsAreCountedAndForeignFreesRecognised)
{
    size_t before = live::runtime::outstandingAllocs();
    void* a = pal_alloc(100, "t");
    uint8_t* b = static_cast<uint8_t*>(pal_calloc(10, 10, "t"));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b[0], 0);
    EXPECT_EQ(b[99], 0);
    EXPECT_EQ(live::runtime::outstandingAllocs(), before + 2);
    EXPECT_EQ(pal_calloc(SIZE_MAX / 2, 4, "t"), nullptr);
    pal_free(a);
    pal_free(b);
    pal_free(nullptr);
    EXPECT_EQ(live::runtime::outstandingAllocs(), before);
    EXPECT_EQ(live::runtime::badFrees(), 0u);
}

TEST_F(Runtime, TheModulesFileLandsInTheDataDirectory)
{
    live::runtime::setDataDir("/var/tmp/snoop/");
    EXPECT_STREQ(pal_file_path("/norvik/usrapp/data/dhcpSnoop.cfg"), "/var/tmp/snoop/dhcpSnoop.cfg");
    live::runtime::setDataDir("");
    EXPECT_STREQ(pal_file_path("/norvik/usrapp/data/dhcpSnoop.cfg"), "/norvik/usrapp/data/dhcpSnoop.cfg");
    EXPECT_EQ(pal_file_path(nullptr), nullptr);
}

}  // namespace

namespace {

PalMsgQ gEndQ = 0;

void consumeOnceAndEnd(void*)
{
    uint8_t b;
    pal_msgQ_receive(gEndQ, &b, 1, PAL_WAIT_FOREVER, nullptr);
}

TEST_F(Runtime, ATaskThatEndsLeavesItsQueueIdle)
{
    gEndQ = pal_msgQ_create("/endQ", 2, 1, 0);
    ASSERT_GT(gEndQ, 0);
    ASSERT_NE(pal_thread_create("endingTask", 0, 0, consumeOnceAndEnd, nullptr), nullptr);
    uint8_t b = 1;
    ASSERT_EQ(pal_msgQ_send(gEndQ, &b, 1, 0, 0), 0);
    EXPECT_TRUE(waitUntil([] { return live::runtime::queueIdle("/endQ"); }));
}

}  // namespace

namespace {

// A task that takes records of its queue for ever and counts them.
struct Counting {
    PalMsgQ q = 0;
    std::atomic<int> taken{0};
};
void countingTask(void* arg)
{
    Counting* c = static_cast<Counting*>(arg);
    uint8_t b;
    for (;;)
        if (pal_msgQ_receive(c->q, &b, 1, PAL_WAIT_FOREVER, nullptr) == 1)
            ++c->taken;
}


TEST_F(Runtime, TheMainTasksPostsWakeTheirTaskWhenItWaitsOrTheQueueIsHalfFull)
{
    static Counting c;
    c.q = pal_msgQ_create("/owedQ", 10, 1, 0);
    ASSERT_GT(c.q, 0);
    ASSERT_NE(pal_thread_create("owedTask", 0, 0, countingTask, &c), nullptr);
    // The task is waiting once it has taken its first record.
    uint8_t b = 1;
    ASSERT_EQ(pal_msgQ_send(c.q, &b, 1, 0, 0), 0);
    ASSERT_TRUE(waitUntil([] { return c.taken.load() == 1; })) << "any other thread wakes it at once";

    PalMsgQ own = pal_msgQ_create("/mainOwnQ", 4, 1, 0);
    ASSERT_GT(own, 0);
    std::atomic<int> step{0};
    std::thread main([&] {
        live::logging::setMainTask(true);
        uint8_t v = 2;
        EXPECT_EQ(pal_msgQ_send(c.q, &v, 1, 0, 0), 0);
        step = 1;
        // Waits on its own empty queue: the owed wake-up is paid first.
        EXPECT_EQ(pal_msgQ_receive(own, &v, 1, 100, nullptr), -1);
        EXPECT_TRUE(waitUntil([] { return c.taken.load() == 2; })) << "paid when the main task waited";
        // Past half the queue the task is woken without the main task waiting.
        for (int i = 0; i < 6; ++i)
            EXPECT_EQ(pal_msgQ_send(c.q, &v, 1, 0, 0), 0);
        EXPECT_TRUE(waitUntil([] { return c.taken.load() == 8; })) << "woken at half the queue";

        // A main task that never waits (a lasting flood) still pays after
        // 32 records of its own.
        EXPECT_EQ(pal_msgQ_send(c.q, &v, 1, 0, 0), 0);
        for (int i = 0; i < 31; ++i) {
            ASSERT_EQ(pal_msgQ_send(own, &v, 1, 0, 0), 0);
            ASSERT_EQ(pal_msgQ_receive(own, &v, 1, 0, nullptr), 1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(c.taken.load(), 8) << "still owed after 31 records";
        ASSERT_EQ(pal_msgQ_send(own, &v, 1, 0, 0), 0);
        ASSERT_EQ(pal_msgQ_receive(own, &v, 1, 0, nullptr), 1);
        EXPECT_TRUE(waitUntil([] { return c.taken.load() == 9; })) << "paid at the 32nd";
        live::logging::setMainTask(false);
    });
    main.join();
    EXPECT_EQ(step.load(), 1);
}

// A data plane's pump: a pipe stands for its sockets; a byte read from it
// is posted to the main queue as a record, from the consumer's own thread.
struct PumpRig {
    int pipe[2] = {-1, -1};
    PalMsgQ q = 0;
    std::atomic<int> rounds{0};
    std::atomic<bool> inside{false};
    std::atomic<bool> mainTaskSeen{false};
};
PumpRig* gRig = nullptr;

uint32_t rigPump(int wakeFd, int timeoutMs)
{
    PumpRig& r = *gRig;
    r.inside = true;
    ++r.rounds;
    // Work for the data plane belongs to no record of the module.
    if (live::logging::onMainTask())
        r.mainTaskSeen = true;
    struct pollfd fds[2] = {{r.pipe[0], POLLIN, 0}, {wakeFd, POLLIN, 0}};
    if (poll(fds, 2, timeoutMs) > 0) {
        if (fds[1].revents & POLLIN) {
            uint64_t v;
            (void)!read(wakeFd, &v, sizeof v);
        }
        uint8_t b;
        if ((fds[0].revents & POLLIN) && read(r.pipe[0], &b, 1) == 1) {
            EXPECT_EQ(pal_msgQ_send(r.q, &b, 1, 0, 0), 0);
        }
    }
    r.inside = false;
    return 0;
}

TEST_F(Runtime, TheMainQueueWaitsInThePumpWhichOtherSendersWakeAndWhichCanBeTakenAway)
{
    static PumpRig rig;
    gRig = &rig;
    ASSERT_EQ(pipe(rig.pipe), 0);
    // The newest main queue is the one that pumps.
    rig.q = pal_msgQ_create(DHCP_SNOOP_QUEUE_NAME, 16, 1, 0);
    ASSERT_GT(rig.q, 0);
    ASSERT_TRUE(live::runtime::setMainPump(rigPump));
    std::atomic<int> got{-1};
    std::atomic<int> taken{0};
    std::atomic<bool> stop{false};
    std::thread main([&] {
        live::logging::setMainTask(true);
        while (!stop.load()) {
            uint8_t v = 0;
            if (pal_msgQ_receive(rig.q, &v, 1, 200, nullptr) == 1) {
                got = v;
                ++taken;
            }
        }
        live::logging::setMainTask(false);
    });
    ASSERT_TRUE(waitUntil([] { return gRig->inside.load(); })) << "an empty main queue waits in the pump";
    uint8_t b = 7;
    ASSERT_EQ(write(rig.pipe[1], &b, 1), 1);
    EXPECT_TRUE(waitUntil([&] { return taken.load() == 1; })) << "what the pump posts is taken";
    EXPECT_EQ(got.load(), 7);
    EXPECT_FALSE(rig.mainTaskSeen.load()) << "the pump runs aside of the main task's records";

    // Another sender wakes the pump through its eventfd, at once.
    ASSERT_TRUE(waitUntil([] { return gRig->inside.load(); }));
    auto t = Clock::now();
    b = 9;
    ASSERT_EQ(pal_msgQ_send(rig.q, &b, 1, 0, 0), 0);
    EXPECT_TRUE(waitUntil([&] { return taken.load() == 2; }));
    EXPECT_LT(msSince(t), 150) << "woken, not found at the end of its wait";
    EXPECT_EQ(got.load(), 9);

    // Taken away while the consumer is inside: returns once it is out, and
    // the queue is waited on as any other.
    ASSERT_TRUE(waitUntil([] { return gRig->inside.load(); }));
    ASSERT_TRUE(live::runtime::setMainPump(nullptr));
    int rounds = rig.rounds.load();
    EXPECT_FALSE(rig.inside.load());
    b = 11;
    ASSERT_EQ(pal_msgQ_send(rig.q, &b, 1, 0, 0), 0);
    EXPECT_TRUE(waitUntil([&] { return taken.load() == 3; }));
    EXPECT_EQ(got.load(), 11);
    b = 13;
    ASSERT_EQ(write(rig.pipe[1], &b, 1), 1);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(rig.rounds.load(), rounds) << "no pump any more";
    EXPECT_EQ(taken.load(), 3);

    // Set again: the waiting consumer takes it up.
    ASSERT_TRUE(live::runtime::setMainPump(rigPump));
    EXPECT_TRUE(waitUntil([&] { return taken.load() == 4; }));
    EXPECT_EQ(got.load(), 13);
    stop = true;
    ASSERT_TRUE(live::runtime::setMainPump(nullptr));
    main.join();
    close(rig.pipe[0]);
    close(rig.pipe[1]);
}

}  // namespace
