// The live platform's runtime: memory, mutexes, queues, tasks, sleep,
// timers and the module's file paths, on POSIX threads.
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/linux/live_internal.h"
#include "platform/pal.h"

namespace live {
namespace runtime {
void consumerEnded(pthread_t self);
}
}  // namespace live

struct PalMutex {
    std::string name;
    std::mutex m;
    std::condition_variable cv;
    bool locked = false;
    bool destroyed = false;
};

struct PalThread {
    std::string name;
    PalThreadEntry entry = nullptr;
    void* arg = nullptr;
    pthread_t thread{};
};

namespace {

// Every block carries this header: the size for the books, a mark to tell
// our blocks from foreign pointers.
struct alignas(std::max_align_t) BlockHeader {
    uint32_t magic;
    size_t size;
};
constexpr uint32_t kBlockMagic = 0x50414C41u;
constexpr uint32_t kBlockFreed = 0x46524545u;

std::atomic<size_t> gOutstanding{0};
std::atomic<size_t> gBadFrees{0};

struct Queue {
    std::string name;
    uint32_t depth = 0;
    uint32_t recordSize = 0;
    std::vector<uint8_t> ring;  // depth records, sized at creation
    uint32_t head = 0;
    uint32_t count = 0;
    bool consumerBusy = false;  // took a record, not back for the next yet
    pthread_t consumer{};
    bool hasConsumer = false;
    bool saveQueue = false;  // the module's binding-file save requests
    bool mainQueue = false;  // the module's main queue
    bool pumping = false;    // its consumer waits in the pump (see setMainPump)
    pthread_t pumper{};
    std::mutex m;
    std::condition_variable notEmpty;
    std::condition_variable notFull;
};

// Handles are indexes + 1; queues are never deleted (the module has no call
// for it), so a handle stays valid for the life of the process. Every send
// and receive looks its queue up: a fixed table read without a lock.
constexpr size_t kMaxQueues = 4096;
std::mutex gQueuesLock;  // creation only
std::atomic<Queue*> gQueueTable[kMaxQueues];
std::atomic<size_t> gQueueCount{0};

Queue* queueOf(PalMsgQ q)
{
    if (q <= 0 || (size_t)q > kMaxQueues)
        return nullptr;
    return gQueueTable[(size_t)q - 1].load(std::memory_order_acquire);
}

// ---- the main queue's pump ----
// While the main queue is empty its consumer may wait in the data plane's
// pump (trap sockets and an eventfd) instead of on the queue: a trapped
// frame then costs one wake-up, not one of a receive thread and another of
// the main task. Other senders to the queue write the eventfd.
struct PumpState {
    std::mutex m;
    std::condition_variable idle;
    live::runtime::Pump pump = nullptr;
    uint32_t users = 0;  // consumers inside the pump
    int wakeFd = -1;
};

PumpState& pumpState()
{
    static PumpState* p = new PumpState;
    return *p;
}

// The newest main queue: only its consumer pumps (an older module's task,
// left waiting on its own queue, never does).
std::atomic<Queue*> gMainQueue{nullptr};

void kickPump()
{
    PumpState& ps = pumpState();
    if (ps.wakeFd < 0)
        return;
    uint64_t one = 1;
    while (write(ps.wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

// ---- wake-ups the main task owes ----
// The module's main task posts to the queues of other tasks (an FDB
// look-up for every frame, save requests). Waking such a task at once
// would take the processor from the frame in hand, once per frame: the
// wake-up is owed until the main task waits itself (its queue is empty),
// or the queue is half full. Other threads wake at once.
constexpr size_t kOwedMax = 8;
thread_local Queue* tOwed[kOwedMax];
thread_local size_t tOwedCount = 0;
// Records the main task took since it first owed a wake-up: a main task
// that never waits (a lasting flood) still pays after this many, so a
// save request is never held back for long.
constexpr uint32_t kOwedRecordsMax = 32;
// Frames the pump left in its sockets at its last round.
thread_local uint32_t tPumpBacklog = 0;
// Milliseconds the main task waits in its pump before it pays.
constexpr int kOwedGraceMs = 1;
thread_local uint32_t tOwedRecords = 0;

bool oweWake(Queue* q)
{
    if (!live::logging::onMainTask())
        return false;
    for (size_t i = 0; i < tOwedCount; ++i)
        if (tOwed[i] == q)
            return true;
    if (tOwedCount == kOwedMax)
        return false;
    tOwed[tOwedCount++] = q;
    return true;
}

// Before the calling task waits for anything.
void payWakes()
{
    for (size_t i = 0; i < tOwedCount; ++i)
        tOwed[i]->notEmpty.notify_one();
    tOwedCount = 0;
    tOwedRecords = 0;
}

// Waits on cv until ready, by the queue's wait rule: 0 = not at all,
// PAL_WAIT_FOREVER = without limit, else milliseconds.
template <typename Pred>
bool waitFor(std::condition_variable& cv, std::unique_lock<std::mutex>& lk, int32_t wait, Pred ready)
{
    if (ready())
        return true;
    if (wait == 0)
        return false;
    if (wait < 0) {
        cv.wait(lk, ready);
        return true;
    }
    return cv.wait_for(lk, std::chrono::milliseconds(wait), ready);
}

// Waits for a record of q (locked by lk) by the queue's wait rule. The
// main queue's consumer waits in the pump while one is set.
bool waitForRecord(Queue* q, std::unique_lock<std::mutex>& lk, int32_t wait)
{
    auto ready = [q] { return q->count > 0; };
    if (ready())
        return true;
    // About to wait: the tasks this one posted to run now. In the pump the
    // main task first waits a moment for the next frame (the answer to the
    // one it sent on is often on its way): the look-ups it posted are not
    // urgent, and a wake-up paid for several of them is cheaper.
    auto pay = [&lk] {
        lk.unlock();
        payWakes();
        lk.lock();
    };
    if (wait != 0 && tOwedCount > 0 && !q->mainQueue)
        pay();
    if (wait == 0 || !q->mainQueue)
        return waitFor(q->notEmpty, lk, wait, ready);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(wait < 0 ? 0 : wait);
    PumpState& ps = pumpState();
    while (!ready()) {
        int timeoutMs = -1;
        if (wait > 0) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                return false;
            timeoutMs = (int)left.count();
        }
        live::runtime::Pump pump = nullptr;
        if (gMainQueue.load(std::memory_order_acquire) == q) {
            std::lock_guard<std::mutex> g(ps.m);
            pump = ps.pump;
            if (pump)
                ++ps.users;
        }
        if (!pump) {
            tPumpBacklog = 0;
            if (tOwedCount > 0) {
                pay();
                continue;
            }
            // setMainPump notifies: a pump set meanwhile is taken up.
            if (wait < 0)
                q->notEmpty.wait(lk);
            else
                q->notEmpty.wait_until(lk, deadline);
            continue;
        }
        bool owed = tOwedCount > 0;
        if (owed && (timeoutMs < 0 || timeoutMs > kOwedGraceMs))
            timeoutMs = kOwedGraceMs;
        q->pumping = true;
        q->pumper = pthread_self();
        lk.unlock();
        {
            live::logging::MainTaskAside aside;
            tPumpBacklog = pump(ps.wakeFd, timeoutMs);
        }
        lk.lock();
        q->pumping = false;
        {
            std::lock_guard<std::mutex> g(ps.m);
            --ps.users;
        }
        ps.idle.notify_all();
        if (owed && !ready())
            pay();
    }
    return true;
}

// ---- timers ----

struct Timer {
    uint32_t serial;
    std::string name;
    uint64_t periodMs;
    PalTimerCallback callback;
    uint32_t arg;
    int32_t repetitions;  // left; -1 = without end
    std::chrono::steady_clock::time_point due;
};

struct TimerService {
    std::mutex m;
    std::condition_variable cv;
    std::vector<Timer> timers;
    uint32_t serial = 0;
    bool started = false;
};

TimerService& timerService()
{
    static TimerService* t = new TimerService;
    return *t;
}

void* timerThread(void*)
{
    live::runtime::nameThread("palTimer");
    TimerService& ts = timerService();
    std::unique_lock<std::mutex> lk(ts.m);
    for (;;) {
        if (ts.timers.empty()) {
            ts.cv.wait(lk);
            continue;
        }
        auto next = std::min_element(ts.timers.begin(), ts.timers.end(),
                                     [](const Timer& a, const Timer& b) { return a.due < b.due; });
        auto now = std::chrono::steady_clock::now();
        if (next->due > now) {
            // A copy: the vector may move while we wait.
            auto due = next->due;
            ts.cv.wait_until(lk, due);
            continue;
        }
        PalTimerCallback cb = next->callback;
        uint32_t arg = next->arg;
        // A late timer keeps its rhythm instead of firing in a burst.
        next->due += std::chrono::milliseconds(next->periodMs);
        if (next->due < now)
            next->due = now + std::chrono::milliseconds(next->periodMs);
        if (next->repetitions > 0 && --next->repetitions == 0)
            ts.timers.erase(next);
        // Callbacks run without the lock: they may add timers.
        lk.unlock();
        if (cb)
            cb(arg);
        lk.lock();
    }
    return nullptr;
}

// ---- files ----

std::mutex gFilesLock;
// Never destroyed: tasks still save while the process exits.
std::string& dataDir()
{
    static std::string* d = new std::string;
    return *d;
}
std::set<std::string>& filePaths()
{
    static std::set<std::string>* s = new std::set<std::string>;  // c_str() stays valid
    return *s;
}

// Mutex and task records are never freed (a task may hold one after its
// destroy); kept reachable here.
std::mutex gRecordsLock;
std::vector<void*>& records()
{
    static std::vector<void*>* r = new std::vector<void*>;
    return *r;
}

void keep(void* p)
{
    std::lock_guard<std::mutex> g(gRecordsLock);
    records().push_back(p);
}

// ---- thread names ----
// The module asks for its thread's name in every line it composes, dozens
// of times a frame: the kernel's answer is kept per thread. Threads get
// their names through live::runtime::nameThread, which forgets the kept one.

constexpr size_t kThreadNameLen = 16;  // the kernel's, end included
thread_local char tThreadName[kThreadNameLen];
thread_local bool tThreadNameKept = false;

void* threadMain(void* p)
{
    PalThread* t = static_cast<PalThread*>(p);
    // The kernel keeps 15 characters of a thread's name.
    std::string name = t->name.substr(0, 15);
    live::runtime::nameThread(name.c_str());
    if (t->name == DHCP_SNOOP_TASK_NAME)
        live::logging::setMainTask(true);
    t->entry(t->arg);
    payWakes();
    // A task that ended (the save task after a failed save) works on nothing.
    live::runtime::consumerEnded(pthread_self());
    if (t->name == DHCP_SNOOP_SAVE_TASK_NAME)
        live::persist::saveTaskEnded();
    return nullptr;
}

}  // namespace

extern "C" {

// ---- thread names ----

int prctl(int option, ...) __THROW
{
    // As the C library's: every argument read as a long, the kernel uses
    // what the option needs.
    va_list ap;
    va_start(ap, option);
    unsigned long a2 = va_arg(ap, unsigned long);
    unsigned long a3 = va_arg(ap, unsigned long);
    unsigned long a4 = va_arg(ap, unsigned long);
    unsigned long a5 = va_arg(ap, unsigned long);
    va_end(ap);
    if (option == PR_GET_NAME && tThreadNameKept && a2 != 0) {
        memcpy(reinterpret_cast<char*>(a2), tThreadName, kThreadNameLen);
        return 0;
    }
    long rc = syscall(SYS_prctl, option, a2, a3, a4, a5);
    if (option == PR_GET_NAME && rc == 0) {
        memcpy(tThreadName, reinterpret_cast<const char*>(a2), kThreadNameLen);
        tThreadNameKept = true;
    } else if (option == PR_SET_NAME) {
        tThreadNameKept = false;
    }
    return (int)rc;
}

// ---- memory ----

void* pal_alloc(size_t size, const char* tag)
{
    (void)tag;
    if (size > SIZE_MAX - sizeof(BlockHeader))
        return nullptr;
    BlockHeader* h = static_cast<BlockHeader*>(malloc(sizeof(BlockHeader) + size));
    if (!h)
        return nullptr;
    h->magic = kBlockMagic;
    h->size = size;
    gOutstanding.fetch_add(1);
    return h + 1;
}

void* pal_calloc(size_t count, size_t size, const char* tag)
{
    if (size != 0 && count > SIZE_MAX / size)
        return nullptr;
    void* p = pal_alloc(count * size, tag);
    if (p)
        memset(p, 0, count * size);
    return p;
}

void pal_free(void* p)
{
    if (!p)
        return;
    BlockHeader* h = static_cast<BlockHeader*>(p) - 1;
    if (h->magic != kBlockMagic) {
        gBadFrees.fetch_add(1);
        return;
    }
    h->magic = kBlockFreed;
    gOutstanding.fetch_sub(1);
    free(h);
}

// ---- mutexes ----
// A flag under a real mutex: a give from another task than the taker is
// allowed, as on the switch, and timeouts run on the monotonic clock.

PalMutex* pal_mutex_create(const char* name)
{
    PalMutex* m = new (std::nothrow) PalMutex;
    if (m) {
        m->name = name ? name : "";
        keep(m);
    }
    return m;
}

void pal_mutex_destroy(PalMutex* m)
{
    if (!m)
        return;
    {
        std::lock_guard<std::mutex> lk(m->m);
        if (m->destroyed)
            return;
        m->destroyed = true;
    }
    // Waiters wake up and fail. The record itself stays: a task may still
    // hold the pointer.
    m->cv.notify_all();
}

int32_t pal_mutex_take_int(PalMutex* m, int32_t timeout)
{
    if (!m)
        return -1;
    std::unique_lock<std::mutex> lk(m->m);
    if (m->locked && !m->destroyed && timeout != 0 && tOwedCount > 0) {
        lk.unlock();
        payWakes();
        lk.lock();
    }
    if (!waitFor(m->cv, lk, timeout, [m] { return !m->locked || m->destroyed; }))
        return -1;
    if (m->destroyed)
        return -1;
    m->locked = true;
    return 0;
}

int32_t pal_mutex_give_int(PalMutex* m)
{
    if (!m)
        return -1;
    {
        std::lock_guard<std::mutex> lk(m->m);
        if (m->destroyed || !m->locked)
            return -1;
        m->locked = false;
    }
    m->cv.notify_one();
    return 0;
}

// ---- message queues ----

PalMsgQ pal_msgQ_create(const char* name, uint32_t depth, uint32_t recordSize, uint32_t option)
{
    (void)option;
    if (depth == 0 || recordSize == 0 || (uint64_t)depth * recordSize > (64u << 20))
        return 0;
    Queue* q = new (std::nothrow) Queue;
    if (!q)
        return 0;
    q->name = name ? name : "";
    q->saveQueue = q->name == DHCP_SNOOP_SAVE_QUEUE_NAME;
    q->mainQueue = q->name == DHCP_SNOOP_QUEUE_NAME;
    q->depth = depth;
    q->recordSize = recordSize;
    q->ring.assign((size_t)depth * recordSize, 0);
    std::lock_guard<std::mutex> g(gQueuesLock);
    size_t n = gQueueCount.load(std::memory_order_relaxed);
    if (n >= kMaxQueues) {
        delete q;
        return 0;
    }
    gQueueTable[n].store(q, std::memory_order_release);
    gQueueCount.store(n + 1, std::memory_order_release);
    if (q->mainQueue)
        gMainQueue.store(q, std::memory_order_release);
    return (PalMsgQ)(n + 1);
}

int32_t pal_msgQ_send(PalMsgQ handle, const void* buffer, uint32_t size, int32_t wait, uint32_t option)
{
    (void)option;
    Queue* q = queueOf(handle);
    if (!q || size > q->recordSize || (size > 0 && !buffer))
        return -1;
    std::unique_lock<std::mutex> lk(q->m);
    if (q->count >= q->depth && wait != 0 && tOwedCount > 0) {
        lk.unlock();
        payWakes();
        lk.lock();
    }
    if (!waitFor(q->notFull, lk, wait, [q] { return q->count < q->depth; }))
        return -1;
    uint8_t* rec = &q->ring[(size_t)((q->head + q->count) % q->depth) * q->recordSize];
    if (size)
        memcpy(rec, buffer, size);
    // The rest of a short record is zero, never an older record's bytes.
    memset(rec + size, 0, q->recordSize - size);
    ++q->count;
    bool wakeNow = q->count * 2 > q->depth || !(q->hasConsumer && !pthread_equal(q->consumer, pthread_self()));
    // The pump's own frames need no kick: its thread is awake.
    bool kick = q->pumping && !pthread_equal(q->pumper, pthread_self());
    lk.unlock();
    if (kick)
        kickPump();
    if (wakeNow || !oweWake(q))
        q->notEmpty.notify_one();
    return 0;
}

int32_t pal_msgQ_receive(PalMsgQ handle, void* buffer, uint32_t size, int32_t wait, uint32_t* word)
{
    Queue* q = queueOf(handle);
    if (!q)
        return -1;
    uint32_t n = std::min(size, q->recordSize);
    if (n > 0 && !buffer)
        return -1;
    std::unique_lock<std::mutex> lk(q->m);
    // The save task back for its next record has completed a save (a failed
    // one ends the task): the binding file's good copy follows it, while the
    // queue still counts as busy for a stop that waits for saves.
    if (q->saveQueue && q->consumerBusy && q->hasConsumer && pthread_equal(q->consumer, pthread_self())) {
        lk.unlock();
        live::persist::saveCompleted();
        lk.lock();
    }
    q->consumerBusy = false;
    if (!waitForRecord(q, lk, wait))
        return -1;
    const uint8_t* rec = &q->ring[(size_t)q->head * q->recordSize];
    if (n)
        memcpy(buffer, rec, n);
    q->head = (q->head + 1) % q->depth;
    --q->count;
    q->consumerBusy = true;
    q->consumer = pthread_self();
    q->hasConsumer = true;
    uint32_t backlog = q->count;
    lk.unlock();
    q->notFull.notify_one();
    if (word)
        *word = 0;
    // The main task's lines from here on are about this record only.
    if (live::logging::onMainTask()) {
        live::logging::startMainRecord(backlog + (q->mainQueue ? tPumpBacklog : 0));
        live::monitor::mainRecord(buffer, n);
        if (tOwedCount > 0 && ++tOwedRecords >= kOwedRecordsMax)
            payWakes();
    }
    return (int32_t)n;
}

// ---- tasks ----

PalThread* pal_thread_create(const char* name, uint32_t stackSize, uint32_t priority,
                             PalThreadEntry entry, void* arg)
{
    // Priorities of the switch's scheduler have no meaning here: every task
    // runs at the daemon's own priority.
    (void)priority;
    if (!entry)
        return nullptr;
    PalThread* t = new (std::nothrow) PalThread;
    if (!t)
        return nullptr;
    t->name = name ? name : "";
    t->entry = entry;
    t->arg = arg;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    // The switch's stack sizes are too small for a host C library (and for
    // sanitizers): never less than 1 MiB.
    size_t stack = std::max<size_t>(stackSize, 1u << 20);
    pthread_attr_setstacksize(&attr, stack);
    int rc = pthread_create(&t->thread, &attr, threadMain, t);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete t;
        return nullptr;
    }
    keep(t);
    return t;
}

void pal_thread_destroy(PalThread* t)
{
    // A POSIX thread cannot be stopped from outside without leaving its locks
    // held: the task runs on until the process ends, its handle stays valid.
    (void)t;
}

void pal_sleep(uint32_t ms)
{
    payWakes();
    struct timespec ts;
    ts.tv_sec = ms / 1000u;
    ts.tv_nsec = (long)(ms % 1000u) * 1000000L;
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

// ---- timers ----

uint32_t add_timer(PalTimerId* timerId, const char* name, PalTimeSpec period,
                   PalTimerCallback callback, uint32_t arg, int32_t repetitions)
{
    if (timerId)
        memset(timerId, 0, sizeof *timerId);
    if (!callback || repetitions == 0 || repetitions < -1)
        return 1;
    uint64_t ms = (uint64_t)period.sec * 1000u + period.usec / 1000u;
    if (ms == 0)
        ms = 1;  // a zero period would spin
    TimerService& ts = timerService();
    std::lock_guard<std::mutex> lk(ts.m);
    if (!ts.started) {
        pthread_t th;
        pthread_attr_t attr;
        pthread_attr_init(&attr);
        pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
        int rc = pthread_create(&th, &attr, timerThread, nullptr);
        pthread_attr_destroy(&attr);
        if (rc != 0)
            return 1;
        ts.started = true;
    }
    uint32_t serial = ++ts.serial;
    if (serial == 0)
        serial = ++ts.serial;
    Timer t{serial, name ? name : "", ms, callback, arg, repetitions,
            std::chrono::steady_clock::now() + std::chrono::milliseconds(ms)};
    ts.timers.push_back(t);
    ts.cv.notify_one();
    if (timerId) {
        timerId->id[0] = 1;
        timerId->id[1] = (uint8_t)(serial >> 24);
        timerId->id[2] = (uint8_t)(serial >> 16);
        timerId->id[3] = (uint8_t)(serial >> 8);
        timerId->id[4] = (uint8_t)serial;
    }
    return 0;
}

// ---- files ----

const char* pal_file_path(const char* path)
{
    if (!path)
        return nullptr;
    std::lock_guard<std::mutex> g(gFilesLock);
    if (dataDir().empty())
        return path;
    std::string p = path;
    size_t slash = p.find_last_of('/');
    std::string base = slash == std::string::npos ? p : p.substr(slash + 1);
    std::string root = dataDir();
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();
    std::string full = root == "/" ? "/" + base : root + "/" + base;
    return filePaths().insert(full).first->c_str();
}

}  // extern "C"

namespace live {
namespace runtime {

void nameThread(const char* name)
{
    char cut[kThreadNameLen];
    snprintf(cut, sizeof cut, "%s", name ? name : "");
    pthread_setname_np(pthread_self(), cut);
    tThreadNameKept = false;
}

size_t outstandingAllocs() { return gOutstanding.load(); }
size_t badFrees() { return gBadFrees.load(); }

void setDataDir(const std::string& dir)
{
    std::lock_guard<std::mutex> g(gFilesLock);
    dataDir() = dir;
}

void consumerEnded(pthread_t self)
{
    for (size_t i = 0;; ++i) {
        Queue* q = queueOf((PalMsgQ)(i + 1));
        if (!q)
            break;
        std::lock_guard<std::mutex> lk(q->m);
        if (q->hasConsumer && pthread_equal(q->consumer, self))
            q->consumerBusy = false;
    }
}

bool setMainPump(Pump pump)
{
    PumpState& ps = pumpState();
    std::unique_lock<std::mutex> g(ps.m);
    if (pump && ps.wakeFd < 0) {
        // Made once, kept for the process: a sender may write it any time.
        ps.wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (ps.wakeFd < 0)
            return false;
    }
    ps.pump = pump;
    if (!pump) {
        // Out of the pump before the data plane closes what it polls.
        kickPump();
        ps.idle.wait(g, [&ps] { return ps.users == 0; });
    }
    g.unlock();
    // A consumer waiting on its queue takes the pump up.
    if (Queue* q = gMainQueue.load(std::memory_order_acquire)) {
        { std::lock_guard<std::mutex> lk(q->m); }
        q->notEmpty.notify_all();
    }
    return true;
}

bool postByName(const char* name, const void* record, uint32_t size)
{
    for (size_t i = 0;; ++i) {
        Queue* q = queueOf((PalMsgQ)(i + 1));
        if (!q)
            return false;
        if (q->name == name)
            return pal_msgQ_send((PalMsgQ)(i + 1), record, size, 0, 0) == 0;
    }
}

bool queueIdle(const char* name)
{
    for (size_t i = 0;; ++i) {
        Queue* q = queueOf((PalMsgQ)(i + 1));
        if (!q)
            break;
        if (q->name != name)
            continue;
        std::lock_guard<std::mutex> lk(q->m);
        if (q->count > 0 || q->consumerBusy)
            return false;
    }
    return true;
}

bool queueDepth(const char* name, uint32_t* waiting, uint32_t* capacity)
{
    // Queues are never deleted: the one made last is the one in use.
    Queue* found = nullptr;
    for (size_t i = 0;; ++i) {
        Queue* q = queueOf((PalMsgQ)(i + 1));
        if (!q)
            break;
        if (q->name == name)
            found = q;
    }
    if (!found)
        return false;
    std::lock_guard<std::mutex> lk(found->m);
    *waiting = found->count;
    *capacity = found->depth;
    return true;
}

}  // namespace runtime
}  // namespace live
