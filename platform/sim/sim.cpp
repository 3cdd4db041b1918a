// Deterministic simulation of the switch platform: the C platform functions
// of platform/*.h and the sim:: control API of sim.h.
//
// All state lives in one object guarded by one recursive lock. The lock is
// never held while a caller may block (PAL mutexes) or while foreign code
// runs (timer callbacks, the onFire hook), so a callback may call back into
// the platform freely.
#include "platform/sim/sim.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "platform/common/port_index.h"
#include "platform/common/port_text.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <unordered_map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define SIM_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(SIM_ASAN)
#define SIM_ASAN 1
#endif
#ifdef SIM_ASAN
#include <sanitizer/asan_interface.h>
// Released frames stay reserved (so a second release is recognised);
// poisoning them lets AddressSanitizer catch any use after the release.
#define SIM_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define SIM_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define SIM_POISON(p, n) ((void)(p), (void)(n))
#define SIM_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

// A PAL mutex: a flag under a real mutex, so that a give without a take, a
// give from another thread or a destroy while others wait are all defined
// behaviour instead of undefined behaviour of std::mutex.
struct PalMutex {
    std::string name;
    std::mutex m;
    std::condition_variable cv;
    bool locked = false;
    bool destroyed = false;
};

struct PalThread {
    size_t index;
};

namespace {

constexpr uint32_t kPortsPerUnit = portindex::kPortsPerUnit;
constexpr uint32_t kMaxPortChannels = portindex::kMaxPortChannels;
constexpr size_t kFrameCapacity = 2048;
constexpr size_t kSpareFrames = 16;
constexpr size_t kSpareSent = 16;
constexpr uint32_t kDefaultPortCount = 28;
constexpr uint32_t kDefaultPortChannels = 8;
const sim::Mac kDefaultMac = {0x00, 0x0e, 0x5e, 0x00, 0x00, 0x01};

struct Alloc {
    size_t size;
    std::string tag;
};

struct Failure {
    uint32_t code;
    int skip;
    int times;
};

struct Hook {
    std::function<void()> fn;
    int skip;
    int times;
};

struct Queue {
    std::string name;
    uint32_t depth;
    uint32_t recordSize;
    uint32_t option;
    // The records waiting, oldest first: a ring of recordSize slots that
    // grows up to depth, so that a record costs no allocation.
    std::vector<uint8_t> ring;
    size_t slots = 0;
    size_t head = 0;
    size_t count = 0;

    bool empty() const { return count == 0; }
    size_t size() const { return count; }
    size_t stride() const { return recordSize != 0 ? recordSize : 1; }
    const uint8_t* front() const { return ring.data() + head * stride(); }
    void pop()
    {
        if (++head == slots)
            head = 0;
        --count;
    }
    // A zeroed slot at the back (the caller checked the depth).
    uint8_t* push()
    {
        if (count == slots) {
            size_t grown = std::max<size_t>(4, slots * 2);
            std::vector<uint8_t> r(grown * stride());
            for (size_t i = 0; i < count; ++i)
                memcpy(r.data() + i * stride(), ring.data() + ((head + i) % slots) * stride(),
                       stride());
            ring.swap(r);
            slots = grown;
            head = 0;
        }
        size_t back = head + count;
        if (back >= slots)
            back -= slots;
        uint8_t* at = ring.data() + back * stride();
        memset(at, 0, stride());
        ++count;
        return at;
    }
    int32_t lastSendWait = 0;
    int32_t lastReceiveWait = 0;
};

struct Thread {
    sim::ThreadRec rec;
    std::unique_ptr<PalThread> handle;
};

struct Frame {
    size_t capacity;
};

// A map for the tables a replay reads several times a frame: open
// addressing (linear probing, deletion by shifting back) in a power-of-two
// array, a multiplicative hash, no allocation per entry and no division.
// Entries move when the table grows or an entry is erased: nobody keeps a
// pointer to one across those.
template <typename K, typename V, typename Hash>
class FlatMap {
public:
    struct Slot {
        K first{};
        V second{};
        bool used = false;
    };

    Slot* find(const K& key)
    {
        if (size_ == 0)
            return nullptr;
        for (size_t i = home(key);; i = (i + 1) & mask()) {
            if (!slots_[i].used)
                return nullptr;
            if (slots_[i].first == key)
                return &slots_[i];
        }
    }
    // As a map's insert: a key already there keeps its value.
    Slot* insert(const K& key, const V& value)
    {
        if ((size_ + 1) * 2 > slots_.size())
            grow();
        size_t i = home(key);
        for (; slots_[i].used; i = (i + 1) & mask())
            if (slots_[i].first == key)
                return &slots_[i];
        slots_[i].first = key;
        slots_[i].second = value;
        slots_[i].used = true;
        ++size_;
        return &slots_[i];
    }
    void assign(const K& key, const V& value) { insert(key, value)->second = value; }
    void erase(Slot* slot)
    {
        size_t i = (size_t)(slot - slots_.data());
        for (size_t j = (i + 1) & mask(); slots_[j].used; j = (j + 1) & mask()) {
            size_t h = home(slots_[j].first);
            // Stays where it is when its home lies cyclically in (i, j].
            bool stays = i < j ? (h > i && h <= j) : (h > i || h <= j);
            if (!stays) {
                slots_[i] = std::move(slots_[j]);
                i = j;
            }
        }
        slots_[i] = Slot{};
        --size_;
    }
    bool erase(const K& key)
    {
        Slot* slot = find(key);
        if (slot == nullptr)
            return false;
        erase(slot);
        return true;
    }
    size_t size() const { return size_; }
    template <typename F>
    void forEach(F f)
    {
        for (Slot& slot : slots_)
            if (slot.used)
                f(slot);
    }
    void clear()
    {
        slots_.clear();
        size_ = 0;
    }

private:
    size_t mask() const { return slots_.size() - 1; }
    size_t home(const K& key) const
    {
        return (size_t)((Hash()(key) * 0x9E3779B97F4A7C15ull) >> 32) & mask();
    }
    void grow()
    {
        std::vector<Slot> old;
        old.swap(slots_);
        slots_.resize(old.empty() ? 16 : old.size() * 2);
        size_ = 0;
        for (Slot& slot : old)
            if (slot.used)
                insert(slot.first, slot.second);
    }
    std::vector<Slot> slots_;
    size_t size_ = 0;
};

struct PtrHash {
    uint64_t operator()(const void* p) const { return (uint64_t)reinterpret_cast<uintptr_t>(p); }
};
struct U32Hash {
    uint64_t operator()(uint32_t v) const { return v; }
};

// Frame buffers by address: the replay hands one out and takes it back
// every frame.
using FrameTable = FlatMap<uint8_t*, Frame, PtrHash>;

struct FdbValue {
    up port;
    uint32_t word;
};

// The simulation's one lock, taken by nearly every platform call (some
// seventy a replayed frame) and held only for a few steps, never while
// anything blocks: a flag and an owner, recursive, that spins briefly and
// then yields, without the general recursive mutex's cost.
class SimLock {
public:
    // With one thread only (setOneThread) the lock is not taken: a locked
    // instruction per call is most of what a call costs. A call from
    // another thread then is a misuse and ends the program.
    void oneThread(bool on)
    {
        only_.store(on ? self() : 0, std::memory_order_relaxed);
    }
    bool isOneThread() const { return only_.load(std::memory_order_relaxed) != 0; }

    // The one-thread case inline (a replay makes some sixty calls a frame),
    // the rest out of line.
    void lock()
    {
        uintptr_t only = only_.load(std::memory_order_relaxed);
        if (__builtin_expect(only != 0, 1)) {
            if (__builtin_expect(only != self(), 0))
                secondThread();
            return;
        }
        lockShared();
    }
    void unlock()
    {
        if (__builtin_expect(only_.load(std::memory_order_relaxed) != 0, 1))
            return;
        unlockShared();
    }

private:
    __attribute__((noinline)) void lockShared()
    {
        uintptr_t me = self();
        if (owner_.load(std::memory_order_relaxed) == me) {
            ++depth_;
            return;
        }
        for (unsigned spins = 0; busy_.exchange(true, std::memory_order_acquire);) {
            if (++spins >= 64) {
                std::this_thread::yield();
                spins = 0;
            }
        }
        owner_.store(me, std::memory_order_relaxed);
        depth_ = 1;
    }
    __attribute__((noinline)) void unlockShared()
    {
        if (--depth_ == 0) {
            owner_.store(0, std::memory_order_relaxed);
            busy_.store(false, std::memory_order_release);
        }
    }
    [[noreturn]] __attribute__((noinline)) static void secondThread()
    {
        fputs("sim: a platform call from a second thread in one-thread mode\n", stderr);
        abort();
    }
    static uintptr_t self()
    {
        thread_local char tag;
        return reinterpret_cast<uintptr_t>(&tag);
    }
    std::atomic<bool> busy_{false};
    std::atomic<uintptr_t> only_{0};   // the one thread, or 0
    std::atomic<uintptr_t> owner_{0};  // only ever a thread's own id while it holds the lock
    unsigned depth_ = 0;
};

struct MacVlanHash {
    size_t operator()(const std::pair<sim::Mac, uint32_t>& k) const
    {
        uint64_t v = 0;
        for (uint8_t b : k.first)
            v = v << 8 | b;
        v ^= (uint64_t)k.second << 48 ^ (uint64_t)k.second;
        return (size_t)(v * 0x9E3779B97F4A7C15ull >> 16);
    }
};

struct State {
    SimLock lock;
    uint64_t generation = 0;  // bumped by reset(), so a running advance can notice

    // switch model
    uint32_t unit = 1;
    std::set<uint32_t> units{1};
    uint64_t unitBits = 1ull << 1;  // the members below 64, by bit
    std::map<uint32_t, uint32_t> portCounts;
    uint32_t portChannels = kDefaultPortChannels;
    std::set<up> provisioned;
    std::map<up, std::string> portNames;
    sim::Mac mac = kDefaultMac;

    // configuration
    std::unordered_map<up, DhcpSnoopPortCfg> portCfg;  // nodes never move: portCfg() hands out references
    std::set<uint16_t> snoopVlans;
    uint8_t qAddStatus = 1;
    bool includeIpFilter = false;
    bool includeArpDefend = false;
    std::vector<sim::SetPortCfgCall> setPortCfgCalls;

    // logging
    bool switchInited = true;
    std::string processName = "swapp";
    std::string moduleName = "DHCPSNOOP";
    bool echo = false;  // a developer's choice: kept across reset()
    std::vector<sim::LogLine> logs;
    std::vector<sim::SyslogEntry> syslog;

    // memory
    std::map<void*, Alloc> allocs;
    size_t allocBytes = 0;
    size_t allocCount = 0;
    size_t badFrees = 0;

    std::map<std::string, Failure> failures;
    std::map<std::string, Hook> hooks;
    std::vector<std::string> events;
    std::set<uint32_t> moduleIds;  // module ids passed to any platform call

    // queues, mutexes, tasks
    std::vector<Queue> queues;  // handle = index + 1
    std::vector<std::unique_ptr<PalMutex>> mutexes;
    std::vector<Thread> threads;
    uint64_t sleptMs = 0;

    // time
    uint64_t nowMs = 0;
    std::vector<sim::TimerRec> timers;  // creation order
    uint32_t timerSerial = 0;

    // frames and transmission
    FrameTable liveFrames;
    FrameTable releasedFrames;
    std::deque<uint8_t*> releaseOrder;  // releasedFrames, oldest first
    // Buffers of the usual capacity no longer reserved, for the next frames.
    std::vector<uint8_t*> spareFrames;
    size_t badReleases = 0;
    size_t releaseCount = 0;
    size_t usUp2StrCalls = 0;
    std::vector<sim::SentPacket> sent;
    std::vector<std::vector<uint8_t>> spareSent;  // buffers of cleared transmissions

    // forwarding database
    FlatMap<std::pair<sim::Mac, uint32_t>, FdbValue, MacVlanHash> fdb;
    std::vector<sim::FdbLookup> fdbLookups;

    // The source-guard table: slots in the order entries came, a deleted
    // entry's slot left empty until the table is compacted, so that a
    // deletion moves nothing; searched through an index of (ip, source).
    std::vector<SwQTableEntry> qtable;
    std::vector<uint8_t> qtableLive;
    size_t qtableHoles = 0;
    std::unordered_map<uint64_t, std::vector<uint32_t>> qtableIndex;  // slots, ascending

    // usUp2Str's texts: the module asks for a port's text several times a frame.
    FlatMap<up, std::string, U32Hash> nameCache;
    // Where each port's configuration is, found once (nullptr: none): the
    // module reads a port's configuration several times a frame. Cleared
    // whenever portCfg gains an entry.
    FlatMap<up, const DhcpSnoopPortCfg*, U32Hash> cfgIndex;

    sim::StkRegistrations stk;
    std::vector<std::vector<uint8_t>> runtimeRecords;

    std::string fileRoot;
    std::set<std::string> filePaths;  // set nodes never move: c_str() stays valid

    sim::Recording recording;
};

// Read before every line is formatted: kept out of the lock.
std::atomic<bool (*)(const char*)> gLogFilter{nullptr};
std::atomic<bool (*)(const char*, va_list)> gLineFilter{nullptr};
// Whether any failure or hook is armed: most platform calls pass the
// failure check, which then needs neither the lock nor the key's text.
std::atomic<bool> gArmed{false};
// Bumped whenever a queue is made or all are forgotten (queueSerial).
std::atomic<uint32_t> gQueueSerial{0};
// The highest present unit and the count of inner_up_from_index calls:
// the module walks every port index of a frame's list, unlocked here.
std::atomic<uint32_t> gMaxUnit{1};
std::atomic<size_t> gFromIndexCalls{0};
// The module's line: debugFlagGet at the line's call site, the line composed
// (which asks the kernel for the thread name), its arguments with
// midNameGet among them, then debugPrintf. A site is tied to the format
// only when midNameGet came between: a guard that merely asks whether
// debug is on stays unknown.
thread_local const void* tFlagSite = nullptr;
thread_local bool tNamed = false;
// The site's format was wanted before: its line goes on to the line filter
// without the format being classified again.
thread_local bool tSiteWanted = false;
// Asked before every line the module might write: answered without the lock.
std::atomic<uint32_t> gDebugFlag{0};
// With a log filter: per call site of debugFlagGet, whether the filter
// wanted the line composed there. Each thread learns its own; a new filter
// (a new generation) starts every thread afresh.
// (32 bits: the 32-bit target has no lock-free 64-bit atomics.)
std::atomic<uint32_t> gSiteGeneration{0};
// Asked some fifty times a frame: a small open-addressed table, no heap,
// kept small (the sites apart from the answers) so that it stays in the
// cache beside the module's own data. A site it has no room for stays
// unknown (the line is composed).
struct SiteCache {
    // The module has a few hundred lines; a replay reaches some sixty sites.
    // Kept small (4.5 KB) so that it stays in the cache beside the module's
    // own data.
    static constexpr size_t kSlots = 512;
    static constexpr unsigned kBits = 9;
    static_assert(kSlots == (size_t)1 << kBits, "home() yields kBits bits");
    // Zero-initialised per thread (no constructor to run): generation 0,
    // the first, and no site known.
    uint32_t generation;
    size_t used;
    const void* sites[kSlots];
    bool wanted[kSlots];

    static size_t home(const void* site)
    {
        // The top bits of a multiplicative hash: return addresses a few
        // bytes apart land far apart.
        uint64_t a = (uint64_t)reinterpret_cast<uintptr_t>(site);
        return (size_t)((a * 0x9E3779B97F4A7C15ull) >> (64 - kBits));
    }
    // The slot of a known site, or kSlots.
    size_t find(const void* site) const
    {
        for (size_t i = home(site), n = 0; n < kSlots; i = (i + 1) % kSlots, ++n) {
            if (sites[i] == site)
                return i;
            if (sites[i] == nullptr)
                return kSlots;
        }
        return kSlots;
    }
    void set(const void* site, bool w)
    {
        for (size_t i = home(site), n = 0; n < kSlots; i = (i + 1) % kSlots, ++n) {
            if (sites[i] == site) {
                wanted[i] = w;
                return;
            }
            if (sites[i] == nullptr) {
                if (used >= kSlots / 2)
                    return;
                sites[i] = site;
                wanted[i] = w;
                ++used;
                return;
            }
        }
    }
};
thread_local SiteCache tSiteCache;

__attribute__((noinline)) void siteCacheRenew(SiteCache& cache, uint32_t g)
{
    memset(cache.sites, 0, sizeof cache.sites);
    memset(cache.wanted, 0, sizeof cache.wanted);
    cache.used = 0;
    cache.generation = g;
}

inline SiteCache& siteCache()
{
    SiteCache& cache = tSiteCache;
    uint32_t g = gSiteGeneration.load(std::memory_order_acquire);
    if (cache.generation != g)
        siteCacheRenew(cache, g);
    return cache;
}

// Never destroyed: threads still running at exit may use it, and blocks it
// tracks stay reachable for the leak checker.
// (Made on first use: a test's static objects may call the platform.)
std::atomic<State*> gState{nullptr};

__attribute__((noinline)) State& stMake()
{
    static State* s = new State;
    gState.store(s, std::memory_order_release);
    return *s;
}

inline State& st()
{
    State* s = gState.load(std::memory_order_acquire);
    if (__builtin_expect(s != nullptr, 1))
        return *s;
    return stMake();
}

using Guard = std::lock_guard<SimLock>;

// After any change of the failures or hooks, under the lock.
void rearm(State& s)
{
    gArmed.store(!s.failures.empty() || !s.hooks.empty(), std::memory_order_release);
}

std::string tagText(const char* tag) { return tag ? tag : "(null)"; }

// Runs the hook armed for the call named by key, if any, without holding the
// lock (a hook may call the module, or throw to leave a task loop).
void runHook(const char* key)
{
    if (!gArmed.load(std::memory_order_acquire))
        return;
    State& s = st();
    std::function<void()> fn;
    {
        Guard g(s.lock);
        auto it = s.hooks.find(key);
        if (it == s.hooks.end())
            return;
        Hook& h = it->second;
        if (h.skip > 0) {
            --h.skip;
            return;
        }
        fn = h.fn;
        if (h.times > 0 && --h.times == 0) {
            s.hooks.erase(it);
            rearm(s);
        }
    }
    if (fn)
        fn();
}

// Every debug call passes here: the set is touched only when the id
// differs from the last one noted.
std::atomic<uint32_t> gLastModuleId{UINT32_MAX};

void noteNewModuleId(uint32_t mid);

inline void noteModuleId(uint32_t mid)
{
    if (gLastModuleId.load(std::memory_order_relaxed) != mid)
        noteNewModuleId(mid);
}

__attribute__((noinline)) void noteNewModuleId(uint32_t mid)
{
    State& s = st();
    Guard g(s.lock);
    s.moduleIds.insert(mid);
    gLastModuleId.store(mid, std::memory_order_relaxed);
}

// The one failure-injection check: true when the call named by key fails,
// with *code set to the armed value. Runs the call's hook first.
bool armedFail(const char* key, uint32_t* code);

// Most calls find nothing armed: answered inline.
inline bool shouldFail(const char* key, uint32_t* code)
{
    return gArmed.load(std::memory_order_acquire) && armedFail(key, code);
}

__attribute__((noinline)) bool armedFail(const char* key, uint32_t* code)
{
    runHook(key);
    State& s = st();
    Guard g(s.lock);
    auto it = s.failures.find(key);
    if (it == s.failures.end())
        return false;
    Failure& f = it->second;
    if (f.skip > 0) {
        --f.skip;
        return false;
    }
    if (f.times == 0) {
        s.failures.erase(it);
        rearm(s);
        return false;
    }
    if (code)
        *code = f.code;
    if (f.times > 0 && --f.times == 0) {
        s.failures.erase(it);
        rearm(s);
    }
    return true;
}

bool shouldFail(const std::string& key, uint32_t* code) { return shouldFail(key.c_str(), code); }

// The same for a key composed of a prefix and a name: composed only when
// something is armed.
bool shouldFail(const char* prefix, const std::string& name, uint32_t* code)
{
    if (!gArmed.load(std::memory_order_acquire))
        return false;
    return shouldFail(prefix + name, code);
}

void event(State& s, std::string text)
{
    if (s.recording.events)
        s.events.push_back(std::move(text));
}

// An allocation's event text, composed only when events are recorded.
void allocEvent(State& s, const char* what, size_t size, const std::string& tag)
{
    if (s.recording.events)
        s.events.push_back(std::string(what) + " " + std::to_string(size) + " " + tag);
}

uint32_t maxUnit(const State& s) { return s.units.empty() ? 0 : *s.units.rbegin(); }

// After any change of the units, under the lock.
void noteUnits(State& s)
{
    gMaxUnit.store(maxUnit(s), std::memory_order_relaxed);
    s.unitBits = 0;
    for (uint32_t u : s.units)
        if (u < 64)
            s.unitBits |= 1ull << u;
}

// Whether unit is a present member: asked for every port validity test.
bool unitPresent(const State& s, uint32_t unit)
{
    return unit < 64 ? (s.unitBits >> unit & 1u) != 0 : s.units.count(unit) != 0;
}

uint32_t portCountOf(const State& s, uint32_t unit)
{
    auto it = s.portCounts.find(unit);
    return it == s.portCounts.end() ? kDefaultPortCount : it->second;
}

uint32_t flatIndexCount(const State& s) { return portindex::count(maxUnit(s)); }

up handleOfIndex(const State& s, uint32_t index) { return portindex::handleOf(index, maxUnit(s)); }

uint32_t slotBase(uint32_t slot) { return portindex::slotBase(slot); }

// Word and bit of a port in a PortList; false when the port has no place.
bool portBit(up h, uint32_t* word, uint32_t* bit) { return portindex::bit(h, word, bit); }

std::string nameOf(const State& s, up h)
{
    auto it = s.portNames.find(h);
    if (it != s.portNames.end())
        return it->second;
    char buf[UP_STR_BUF];
    portindex::text(h, buf);
    return buf;
}

uint64_t periodMs(PalTimeSpec p)
{
    uint64_t ms = (uint64_t)p.sec * 1000u + p.usec / 1000u;
    // A zero period would fire an endless timer forever at one instant.
    return ms == 0 ? 1 : ms;
}

void freeEverything(State& s)
{
    for (auto& a : s.allocs)
        free(a.first);
    s.allocs.clear();
    s.liveFrames.forEach([](FrameTable::Slot& f) { free(f.first); });
    s.liveFrames.clear();
    s.releasedFrames.forEach([](FrameTable::Slot& f) {
        SIM_UNPOISON(f.first, f.second.capacity);
        free(f.first);
    });
    s.releasedFrames.clear();
    s.releaseOrder.clear();
    for (uint8_t* p : s.spareFrames)
        free(p);
    s.spareFrames.clear();
}

uint64_t qtableKey(const SwQTableEntry& e)
{
    return (uint64_t)e.ip[0] << 32 | (uint64_t)e.ip[1] << 24 | (uint64_t)e.ip[2] << 16 |
           (uint64_t)e.ip[3] << 8 | e.source;
}

// The table without its empty slots, the index rebuilt. Slot numbers
// change: only while no search's index is held (outside the module's calls).
void qtableCompact(State& s)
{
    if (s.qtableHoles == 0)
        return;
    size_t to = 0;
    for (size_t i = 0; i < s.qtable.size(); ++i)
        if (s.qtableLive[i])
            s.qtable[to++] = s.qtable[i];
    s.qtable.resize(to);
    s.qtableLive.assign(to, 1);
    s.qtableHoles = 0;
    s.qtableIndex.clear();
    for (size_t i = 0; i < to; ++i)
        s.qtableIndex[qtableKey(s.qtable[i])].push_back((uint32_t)i);
}

void qtablePush(State& s, const SwQTableEntry& e)
{
    // Empty slots are given up when they outnumber the entries: an add
    // never comes between a search and the deletion of what it found.
    if (s.qtableHoles > 64 && s.qtableHoles > s.qtable.size() - s.qtableHoles)
        qtableCompact(s);
    s.qtableIndex[qtableKey(e)].push_back((uint32_t)s.qtable.size());
    s.qtable.push_back(e);
    s.qtableLive.push_back(1);
}

void qtableErase(State& s, uint32_t slot)
{
    auto it = s.qtableIndex.find(qtableKey(s.qtable[slot]));
    if (it != s.qtableIndex.end()) {
        auto& v = it->second;
        v.erase(std::find(v.begin(), v.end(), slot));
        if (v.empty())
            s.qtableIndex.erase(it);
    }
    s.qtableLive[slot] = 0;
    ++s.qtableHoles;
    // Empty slots at the end are simply dropped.
    while (!s.qtable.empty() && !s.qtableLive.back()) {
        s.qtable.pop_back();
        s.qtableLive.pop_back();
        --s.qtableHoles;
    }
}

const char* kLogLoadOk = "DHCP snooping: binding file loaded";
const char* kLogLoadFail = "DHCP snooping: binding file could not be loaded";
const char* kLogRateOverflow = "DHCP snooping: DHCP rate limit exceeded on port %s";
const char* kLogDeclineOverflow = "DHCP snooping: DHCPDECLINE rate limit exceeded on port %s";

bool syslogArg1IsText(uint32_t code)
{
    return code == DHCP_SNOOP_LOG_RATE_OVERFLOW || code == DHCP_SNOOP_LOG_DECLINE_OVERFLOW;
}

std::string renderSyslog(const std::string& tmpl, const std::string& text)
{
    std::string out = tmpl;
    size_t pos = out.find("%s");
    if (pos != std::string::npos)
        out.replace(pos, 2, text);
    return out;
}

const char* const kErrorPrefix = "\x1b[31;49m";
const char* const kErrorSuffix = "\x1b[0m\r\n";
const char* const kDebugSuffix = "\r\n";

}  // namespace

// =========================================================================
// C platform functions
// =========================================================================

extern "C" {

// ---- memory --------------------------------------------------------------

void* pal_alloc(size_t size, const char* tag)
{
    if (shouldFail("pal_alloc", nullptr))
        return nullptr;
    void* p = malloc(size ? size : 1);
    if (!p)
        return nullptr;
    // A recognisable pattern instead of zeros exposes reliance on fresh memory.
    memset(p, 0xA5, size ? size : 1);
    State& s = st();
    Guard g(s.lock);
    const Alloc& a = s.allocs[p] = Alloc{size, tagText(tag)};
    s.allocBytes += size;
    ++s.allocCount;
    allocEvent(s, "alloc", size, a.tag);
    return p;
}

void* pal_calloc(size_t count, size_t size, const char* tag)
{
    if (shouldFail("pal_calloc", nullptr))
        return nullptr;
    if (size != 0 && count > SIZE_MAX / size)
        return nullptr;
    size_t total = count * size;
    void* p = calloc(total ? count : 1, total ? size : 1);
    if (!p)
        return nullptr;
    State& s = st();
    Guard g(s.lock);
    const Alloc& a = s.allocs[p] = Alloc{total, tagText(tag)};
    s.allocBytes += total;
    ++s.allocCount;
    allocEvent(s, "alloc", total, a.tag);
    return p;
}

void pal_free(void* p)
{
    if (!p)
        return;
    State& s = st();
    Guard g(s.lock);
    auto it = s.allocs.find(p);
    if (it == s.allocs.end()) {
        ++s.badFrees;
        return;
    }
    allocEvent(s, "free", it->second.size, it->second.tag);
    s.allocBytes -= it->second.size;
    s.allocs.erase(it);
    free(p);
}

// ---- mutexes -------------------------------------------------------------

PalMutex* pal_mutex_create(const char* name)
{
    std::string n = name ? name : "";
    if (shouldFail("pal_mutex_create:", n, nullptr))
        return nullptr;
    State& s = st();
    Guard g(s.lock);
    s.mutexes.push_back(std::make_unique<PalMutex>());
    s.mutexes.back()->name = n;
    event(s, "mutex_create " + n);
    return s.mutexes.back().get();
}

static bool knownMutex(State& s, PalMutex* m)
{
    for (auto& p : s.mutexes)
        if (p.get() == m)
            return true;
    return false;
}

void pal_mutex_destroy(PalMutex* m)
{
    if (!m)
        return;
    State& s = st();
    Guard g(s.lock);
    if (!knownMutex(s, m))
        return;
    {
        std::lock_guard<std::mutex> lk(m->m);
        if (m->destroyed)
            return;
        m->destroyed = true;
    }
    // Waiters wake up and fail instead of blocking forever.
    m->cv.notify_all();
    event(s, "mutex_destroy " + m->name);
}

int32_t pal_mutex_take_int(PalMutex* m, int32_t timeout)
{
    {
        State& s = st();
        Guard g(s.lock);
        if (!m || !knownMutex(s, m))
            return -1;
        // One thread: nobody else holds m->m or waits; a free mutex is
        // simply taken (a taken one blocks as ever).
        if (s.lock.isOneThread() && !m->locked && !m->destroyed) {
            m->locked = true;
            return 0;
        }
    }
    // The sim lock is released here: blocking must not stop other threads.
    std::unique_lock<std::mutex> lk(m->m);
    auto ready = [m] { return !m->locked || m->destroyed; };
    if (timeout == 0) {
        if (!ready())
            return -1;
    } else if (timeout < 0) {
        m->cv.wait(lk, ready);
    } else if (!m->cv.wait_for(lk, std::chrono::milliseconds(timeout), ready)) {
        return -1;
    }
    if (m->destroyed)
        return -1;
    m->locked = true;
    return 0;
}

int32_t pal_mutex_give_int(PalMutex* m)
{
    {
        State& s = st();
        Guard g(s.lock);
        if (!m || !knownMutex(s, m))
            return -1;
        if (s.lock.isOneThread()) {
            if (m->destroyed || !m->locked)
                return -1;
            m->locked = false;  // nobody waits
            return 0;
        }
    }
    {
        std::lock_guard<std::mutex> lk(m->m);
        if (m->destroyed || !m->locked)
            return -1;
        m->locked = false;
    }
    m->cv.notify_one();
    return 0;
}

// ---- message queues ----------------------------------------------------------

PalMsgQ pal_msgQ_create(const char* name, uint32_t depth, uint32_t recordSize, uint32_t option)
{
    std::string n = name ? name : "";
    uint32_t code = 0;
    if (shouldFail("pal_msgQ_create:", n, &code))
        return (PalMsgQ)code;
    State& s = st();
    Guard g(s.lock);
    s.queues.push_back(Queue{n, depth, recordSize, option, {}});
    gQueueSerial.fetch_add(1, std::memory_order_relaxed);
    event(s, "queue_create " + n + " " + std::to_string(depth) + " " + std::to_string(recordSize) +
                 " " + std::to_string(option));
    return (PalMsgQ)s.queues.size();
}

static Queue* queueOf(State& s, PalMsgQ q)
{
    if (q <= 0 || (size_t)q > s.queues.size())
        return nullptr;
    return &s.queues[(size_t)q - 1];
}

int32_t pal_msgQ_send(PalMsgQ q, const void* buffer, uint32_t size, int32_t wait, uint32_t option)
{
    // A simulated queue never waits (nobody could drain it meanwhile); the
    // wait asked for is recorded.
    (void)option;
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    if (!queue)
        return -1;
    queue->lastSendWait = wait;
    // The key is composed only when some failure is armed: every frame
    // passes here.
    if (shouldFail("pal_msgQ_send:", queue->name, nullptr))
        return -1;
    if (size > queue->recordSize || (size > 0 && !buffer) || queue->size() >= queue->depth)
        return -1;
    uint8_t* rec = queue->push();
    if (size)
        memcpy(rec, buffer, size);
    return 0;
}

int32_t pal_msgQ_receive(PalMsgQ q, void* buffer, uint32_t size, int32_t wait, uint32_t* word)
{
    State& s = st();
    std::string name;
    {
        Guard g(s.lock);
        Queue* queue = queueOf(s, q);
        if (queue) {
            name = queue->name;
            queue->lastReceiveWait = wait;
        }
    }
    uint32_t code = 0;
    // The hook runs first: a test's task loop ends there.
    if (shouldFail("pal_msgQ_receive:", name, &code))
        return (int32_t)code;
    bool forced = shouldFail("pal_msgQ_receive_result:", name, &code);
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    if (!queue)
        return -1;
    if (queue->empty())
        return -1;
    uint32_t n = std::min(size, queue->recordSize);
    if (n > 0 && !buffer)
        return -1;
    if (n)
        memcpy(buffer, queue->front(), n);
    queue->pop();
    if (word)
        *word = 0;
    return forced ? (int32_t)code : (int32_t)n;
}

// ---- tasks ------------------------------------------------------------------

PalThread* pal_thread_create(const char* name, uint32_t stackSize, uint32_t priority,
                             PalThreadEntry entry, void* arg)
{
    std::string n = name ? name : "";
    if (shouldFail("pal_thread_create:", n, nullptr))
        return nullptr;
    State& s = st();
    Guard g(s.lock);
    Thread t;
    t.rec = sim::ThreadRec{n, stackSize, priority, entry, arg, false};
    t.handle = std::make_unique<PalThread>();
    t.handle->index = s.threads.size();
    PalThread* h = t.handle.get();
    s.threads.push_back(std::move(t));
    event(s, "thread_create " + n + " " + std::to_string(stackSize) + " " +
                 std::to_string(priority));
    return h;
}

void pal_thread_destroy(PalThread* t)
{
    if (!t)
        return;
    State& s = st();
    Guard g(s.lock);
    for (auto& th : s.threads) {
        if (th.handle.get() == t) {
            if (!th.rec.destroyed) {
                th.rec.destroyed = true;
                event(s, "thread_destroy " + th.rec.name);
            }
            return;
        }
    }
}

void pal_sleep(uint32_t ms)
{
    State& s = st();
    Guard g(s.lock);
    s.sleptMs += ms;
}

// ---- timers -----------------------------------------------------------------

uint32_t add_timer(PalTimerId* timerId, const char* name, PalTimeSpec period,
                   PalTimerCallback callback, uint32_t arg, int32_t repetitions)
{
    std::string n = name ? name : "";
    uint32_t code = 0;
    if (shouldFail("add_timer:", n, &code)) {
        if (timerId)
            memset(timerId, 0, sizeof *timerId);
        return code;
    }
    State& s = st();
    Guard g(s.lock);
    sim::TimerRec t;
    t.name = n;
    t.period = period;
    t.callback = callback;
    t.arg = arg;
    t.repetitions = repetitions;
    t.dueMs = s.nowMs + periodMs(period);
    t.active = repetitions != 0;
    s.timers.push_back(t);
    uint32_t serial = ++s.timerSerial;
    if (timerId) {
        memset(timerId, 0, sizeof *timerId);
        timerId->id[0] = 1;
        timerId->id[1] = (uint8_t)(serial >> 24);
        timerId->id[2] = (uint8_t)(serial >> 16);
        timerId->id[3] = (uint8_t)(serial >> 8);
        timerId->id[4] = (uint8_t)serial;
    }
    event(s, "timer_add " + n + " " + std::to_string(period.sec) + "." +
                 std::to_string(period.usec) + " " + std::to_string(arg) + " " +
                 std::to_string(repetitions));
    return 0;
}

// ---- files ------------------------------------------------------------------

const char* pal_file_path(const char* path)
{
    if (!path)
        return nullptr;
    State& s = st();
    Guard g(s.lock);
    if (s.fileRoot.empty())
        return path;
    std::string p = path;
    size_t slash = p.find_last_of('/');
    std::string base = slash == std::string::npos ? p : p.substr(slash + 1);
    std::string root = s.fileRoot;
    if (root.size() > 1 && root.back() == '/')
        root.pop_back();
    std::string full = root == "/" ? "/" + base : root + "/" + base;
    return s.filePaths.insert(full).first->c_str();
}

// ---- thread names ------------------------------------------------------------

// The module asks the kernel for its thread's name for every line it
// composes. The name is kept per thread after the first answer, until the
// thread names itself anew; everything else goes to the kernel.
static thread_local char tThreadName[16];
static thread_local bool tThreadNameKept = false;

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
        memcpy(reinterpret_cast<char*>(a2), tThreadName, sizeof tThreadName);
        return 0;
    }
    long rc = syscall(SYS_prctl, option, a2, a3, a4, a5);
    if (option == PR_GET_NAME && rc == 0) {
        memcpy(tThreadName, reinterpret_cast<const char*>(a2), sizeof tThreadName);
        tThreadNameKept = true;
    } else if (option == PR_SET_NAME) {
        tThreadNameKept = false;
    }
    return (int)rc;
}

// ---- logging ----------------------------------------------------------------

uint32_t debugFlagGet(uint32_t mid)
{
    noteModuleId(mid);
    const void* site = __builtin_return_address(0);
    uint32_t flag = gDebugFlag.load(std::memory_order_relaxed);
    if (flag != 1 || gLogFilter.load(std::memory_order_relaxed) == nullptr)
        return flag;
    // A line the filter declined at this site before is not even composed.
    tFlagSite = site;
    tNamed = false;
    SiteCache& c = siteCache();
    // Nearly always found at once: no probing, no call.
    size_t home = SiteCache::home(site);
    if (c.sites[home] == site) {
        tSiteWanted = c.wanted[home];
        return c.wanted[home] ? 1 : 0;
    }
    size_t at = c.sites[home] == nullptr ? SiteCache::kSlots : c.find(site);
    tSiteWanted = at != SiteCache::kSlots && c.wanted[at];
    return at != SiteCache::kSlots && !c.wanted[at] ? 0 : 1;
}

int debugPrintf(uint32_t mid, const char* format, ...)
{
    noteModuleId(mid);
    if (!format)
        return 0;
    bool (*filter)(const char*) = gLogFilter.load(std::memory_order_relaxed);
    if (filter != nullptr) {
        bool known = tFlagSite != nullptr && tNamed;
        bool wanted = known && tSiteWanted ? true : filter(format);
        if (known && !tSiteWanted)
            siteCache().set(tFlagSite, wanted);
        tFlagSite = nullptr;
        if (!wanted)
            return 0;
        bool (*lineFilter)(const char*, va_list) = gLineFilter.load(std::memory_order_relaxed);
        if (lineFilter != nullptr) {
            va_list args;
            va_start(args, format);
            wanted = lineFilter(format, args);
            va_end(args);
            if (!wanted)
                return 0;
        }
    }
    char small[512];
    va_list ap;
    va_start(ap, format);
    va_list ap2;
    va_copy(ap2, ap);
    int n = vsnprintf(small, sizeof small, format, ap);
    va_end(ap);
    if (n < 0) {
        va_end(ap2);
        return n;
    }
    sim::LogLine line;
    if ((size_t)n < sizeof small) {
        line.text.assign(small, (size_t)n);
    } else {
        std::vector<char> big((size_t)n + 1);
        vsnprintf(big.data(), big.size(), format, ap2);
        line.text.assign(big.data(), (size_t)n);
    }
    va_end(ap2);
    line.error = line.text.compare(0, strlen(kErrorPrefix), kErrorPrefix) == 0;
    State& s = st();
    Guard g(s.lock);
    if (s.echo)
        fputs(line.text.c_str(), stderr);
    s.logs.push_back(std::move(line));
    return n;
}

const char* midNameGet(uint32_t mid)
{
    noteModuleId(mid);
    tNamed = true;
    State& s = st();
    Guard g(s.lock);
    return s.moduleName.c_str();
}

uint32_t pidGetCurrent(void) { return 1; }

const char* pidNameGet(uint32_t pid)
{
    (void)pid;
    State& s = st();
    Guard g(s.lock);
    return s.processName.c_str();
}

uint32_t isSwitchInited(void)
{
    State& s = st();
    Guard g(s.lock);
    return s.switchInited ? 1 : 0;
}

uint32_t syslogAdd(uint32_t code, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                   uintptr_t a5, uintptr_t a6)
{
    sim::SyslogEntry e;
    e.code = code;
    e.args = {a1, a2, a3, a4, a5, a6};
    // The text argument is only valid during the call: copy it now.
    if (syslogArg1IsText(code) && a1)
        e.portName = reinterpret_cast<const char*>(a1);
    e.text = renderSyslog(sim::syslogText(code), e.portName);
    State& s = st();
    Guard g(s.lock);
    s.syslog.push_back(std::move(e));
    return 0;
}

// ---- ports ------------------------------------------------------------------

constexpr uint32_t kIndexTable = 8 * kPortsPerUnit + kMaxPortChannels;

__attribute__((noinline)) static void fillIndexTable(up* handles, uint32_t* count, uint32_t* kept, uint32_t maxUnit)
{
    uint32_t n = portindex::count(maxUnit);
    *count = n <= kIndexTable ? n : 0;  // a larger stack is computed each time
    for (uint32_t i = 0; i < *count; ++i)
        handles[i] = portindex::handleOf(i, maxUnit);
    *kept = maxUnit;
}

// The module walks every running index of a port list, frame after frame:
// each thread keeps the handles of the current stack.
struct IndexTable {
    uint32_t maxUnit;  // 0: nothing kept yet
    uint32_t count;
    up handles[kIndexTable];
};
static thread_local IndexTable tIndexTable;

__attribute__((noinline)) static uint32_t fromIndexSlow(up* handle, uint32_t index, uint32_t flag,
                                                        uint32_t maxUnit)
{
    IndexTable& table = tIndexTable;
    if (flag == 1) {
        if (table.maxUnit != maxUnit)
            fillIndexTable(table.handles, &table.count, &table.maxUnit, maxUnit);
        if (index < table.count) {
            *handle = table.handles[index];
            return 0;
        }
    }
    // flag 0: a port index counted from 1 (the rate limits' numbering).
    return portindex::fromIndex(handle, index, flag, maxUnit);
}

uint32_t inner_up_from_index(up* handle, uint32_t index, uint32_t flag, const char* func,
                             uint32_t line)
{
    (void)func;
    (void)line;
    if (!handle)
        return 1;
    // Counted exactly by one thread (the tests that count have one); racing
    // threads may lose counts rather than pay a locked instruction each.
    gFromIndexCalls.store(gFromIndexCalls.load(std::memory_order_relaxed) + 1,
                          std::memory_order_relaxed);
    uint32_t maxUnit = gMaxUnit.load(std::memory_order_relaxed);
    const IndexTable& table = tIndexTable;
    if (__builtin_expect(flag == 1 && table.maxUnit == maxUnit && index < table.count, 1)) {
        *handle = table.handles[index];
        return 0;
    }
    return fromIndexSlow(handle, index, flag, maxUnit);
}

uint32_t inner_up_is_valid(up handle)
{
    State& s = st();
    Guard g(s.lock);
    if (UP_KIND(handle) == UP_TYPE_PHYSICAL) {
        uint32_t unit = UP_UNIT(handle);
        return unitPresent(s, unit) && portindex::validPhysical(handle, portCountOf(s, unit)) ? 1 : 0;
    }
    return portindex::validChannel(handle, s.portChannels) ? 1 : 0;
}

uint32_t inner_up_is_provision(up handle)
{
    State& s = st();
    Guard g(s.lock);
    return s.provisioned.count(handle) ? 1 : 0;
}

uint32_t inner_up_unit_is_valid(uint32_t unit)
{
    State& s = st();
    Guard g(s.lock);
    return unitPresent(s, unit) ? 1 : 0;
}

uint32_t inner_up_unitbase_get(uint32_t unit) { return portindex::unitBase(unit); }

uint32_t inner_up_slotbaseoffset_get(uint32_t slot) { return slotBase(slot); }

uint32_t usUp2Str(up handle, char* text, uint32_t flag)
{
    (void)flag;
    if (!text)
        return 1;
    State& s = st();
    Guard g(s.lock);
    ++s.usUp2StrCalls;
    auto* it = s.nameCache.find(handle);
    if (it == nullptr)
        it = s.nameCache.insert(handle, nameOf(s, handle));
    // As snprintf with "%s" would: cut to the buffer, always terminated.
    size_t n = std::min(it->second.size(), (size_t)UP_STR_BUF - 1);
    memcpy(text, it->second.data(), n);
    text[n] = '\0';
    return 0;
}

uint32_t usStr2Up(int32_t unit, const char* text, up* handle, uint32_t flag)
{
    (void)unit;
    (void)flag;
    if (!handle)
        return 1;
    *handle = UP_INVALID;
    if (!text)
        return 1;
    const char* p = text;
    while (*p == ' ' || *p == '\t')
        ++p;
    {
        State& s = st();
        Guard g(s.lock);
        for (const auto& n : s.portNames) {
            if (n.second == p) {
                *handle = n.first;
                return 0;
            }
        }
    }
    return porttext::parse(p, handle) ? 0 : 1;
}

// ---- snooping configuration ---------------------------------------------------

// A port never configured reads as all zeros.
static const DhcpSnoopPortCfg& cfgOf(State& s, up port)
{
    static const DhcpSnoopPortCfg kZero = [] {
        DhcpSnoopPortCfg c;
        memset(&c, 0, sizeof c);
        return c;
    }();
    if (auto* known = s.cfgIndex.find(port))
        return known->second != nullptr ? *known->second : kZero;
    auto it = s.portCfg.find(port);
    const DhcpSnoopPortCfg* at = it != s.portCfg.end() ? &it->second : nullptr;
    s.cfgIndex.insert(port, at);
    return at != nullptr ? *at : kZero;
}

uint32_t swDhcpSnoopGetPortTrust(up port, uint8_t* trust)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetPortTrust", &code))
        return code;
    if (!trust)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *trust = cfgOf(s, port).trust;
    return 0;
}

uint32_t swDhcpSnoopGetPortMacVerify(up port, uint8_t* macVerify)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetPortMacVerify", &code))
        return code;
    if (!macVerify)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *macVerify = cfgOf(s, port).macVerify;
    return 0;
}

// The port configuration (522 bytes) is read several times a frame: copied
// by the C library, not by the compiler's inline string move, which is slow
// to start. Kept out of line and opaque so that the size stays a variable.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((noinline, noipa))
#else
__attribute__((noinline))
#endif
static void copyBytes(void* to, const void* from, size_t n)
{
    memcpy(to, from, n);
}

uint32_t swDhcpSnoopGetPortCfg(up port, DhcpSnoopPortCfg* cfg)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetPortCfg", &code))
        return code;
    if (!cfg)
        return 1;
    State& s = st();
    Guard g(s.lock);
    copyBytes(cfg, &cfgOf(s, port), sizeof *cfg);
    return 0;
}

uint32_t swDhcpSnoopGetPortLimitRate(up port, uint8_t* rate)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetPortLimitRate", &code))
        return code;
    if (!rate)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *rate = cfgOf(s, port).limitRate;
    return 0;
}

uint32_t swDhcpSnoopGetPortDecLimitRate(up port, uint8_t* rate)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetPortDecLimitRate", &code))
        return code;
    if (!rate)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *rate = cfgOf(s, port).decLimitRate;
    return 0;
}

uint32_t swDhcpSnoopGetVlanEnableStatusByVid(uint16_t vid, uint8_t* enabled)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetVlanEnableStatusByVid", &code))
        return code;
    if (!enabled)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *enabled = s.snoopVlans.count(vid) ? 1 : 0;
    return 0;
}

uint32_t swDhcpSnoopGetQAddStatus(uint8_t* status)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopGetQAddStatus", &code))
        return code;
    if (!status)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *status = s.qAddStatus;
    return 0;
}

uint32_t swDhcpSnoopSetPortCfg(up port, const DhcpSnoopPortCfg* cfg)
{
    uint32_t code;
    if (shouldFail("swDhcpSnoopSetPortCfg", &code))
        return code;
    if (!cfg)
        return 1;
    State& s = st();
    Guard g(s.lock);
    s.portCfg[port] = *cfg;
    s.cfgIndex.clear();
    s.setPortCfgCalls.push_back(sim::SetPortCfgCall{port, *cfg});
    return 0;
}

// ---- FDB, MAC, transmission, packet pool -------------------------------------------

uint32_t swFdbGetEntry(FdbEntry* entry)
{
    if (!entry)
        return 1;
    State& s = st();
    Guard g(s.lock);
    sim::Mac mac;
    memcpy(mac.data(), entry->mac, 6);
    if (s.recording.fdbLookups)
        s.fdbLookups.push_back(sim::FdbLookup{mac, entry->vlan});
    uint32_t code;
    if (shouldFail("swFdbGetEntry", &code))
        return code;
    auto* it = s.fdb.find(std::make_pair(mac, entry->vlan));
    if (it == nullptr)
        return 1;
    entry->port = it->second.port;
    entry->word = it->second.word;
    return 0;
}

uint32_t getMacAddress(uint8_t* mac)
{
    uint32_t code;
    if (shouldFail("getMacAddress", &code))
        return code;
    if (!mac)
        return 1;
    State& s = st();
    Guard g(s.lock);
    memcpy(mac, s.mac.data(), 6);
    return 0;
}

uint32_t norvikPacketSend(DhcpSnoopPacket* packet)
{
    uint32_t code;
    if (shouldFail("norvikPacketSend", &code))
        return code;
    if (!packet)
        return 1;
    State& s = st();
    Guard g(s.lock);
    sim::SentPacket p;
    p.ports = packet->ports;
    p.sendFlags = packet->sendFlags;
    p.vid = packet->vid;
    // The buffer of a transmission cleared before, if any: a replay sends
    // and clears one or two frames a frame.
    if (!s.spareSent.empty()) {
        p.frame.swap(s.spareSent.back());
        s.spareSent.pop_back();
    }
    if (packet->frame)
        p.frame.assign(packet->frame, packet->frame + packet->frameLen);
    s.sent.push_back(std::move(p));
    return 0;
}

void dhcpReleasePacketPool(uint8_t* frame)
{
    State& s = st();
    Guard g(s.lock);
    FrameTable::Slot* it = s.liveFrames.find(frame);
    if (it == nullptr) {
        ++s.badReleases;
        return;
    }
    ++s.releaseCount;
    SIM_POISON(it->first, it->second.capacity);
    s.releasedFrames.insert(it->first, it->second);
    s.releaseOrder.push_back(it->first);
    s.liveFrames.erase(it);
    while (s.releaseOrder.size() > s.recording.releasedFrames) {
        FrameTable::Slot* old = s.releasedFrames.find(s.releaseOrder.front());
        s.releaseOrder.pop_front();
        if (old == nullptr)
            continue;
        SIM_UNPOISON(old->first, old->second.capacity);
        if (old->second.capacity == kFrameCapacity && s.spareFrames.size() < kSpareFrames)
            s.spareFrames.push_back(old->first);
        else
            free(old->first);
        s.releasedFrames.erase(old);
    }
}

// ---- source guard ---------------------------------------------------------------

uint32_t swQTableSearchByIpAndSource(const SwQTableEntry* entry, uint32_t* index, uint32_t* found)
{
    uint32_t code;
    if (shouldFail("swQTableSearchByIpAndSource", &code))
        return code;
    if (!entry || !index || !found)
        return 1;
    State& s = st();
    Guard g(s.lock);
    auto it = s.qtableIndex.find(qtableKey(*entry));
    if (it == s.qtableIndex.end() || it->second.empty()) {
        *found = 0;
        return 0;
    }
    // The first entry in table order, as a walk from the start would find.
    *found = 1;
    *index = it->second.front();
    return 0;
}

uint32_t swQTableDel(uint32_t unit, uint32_t index, uint32_t found)
{
    (void)unit;
    uint32_t code;
    if (shouldFail("swQTableDel", &code))
        return code;
    State& s = st();
    Guard g(s.lock);
    if (!found || index >= s.qtable.size() || !s.qtableLive[index])
        return 1;
    qtableErase(s, index);
    return 0;
}

uint32_t swQTableAdd(uint32_t unit, const SwQTableEntry* entry)
{
    (void)unit;
    uint32_t code;
    bool fail = shouldFail("swQTableAdd", &code);
    if (fail && code != QTABLE_RESULT_EXISTS && code != QTABLE_RESULT_TOLERATED)
        return code;
    if (!entry)
        return 1;
    State& s = st();
    Guard g(s.lock);
    qtablePush(s, *entry);
    return fail ? code : 0;
}

uint32_t getIncludeIpFilter(uint32_t* flag)
{
    uint32_t code;
    if (shouldFail("getIncludeIpFilter", &code))
        return code;
    if (!flag)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *flag = s.includeIpFilter ? 1 : 0;
    return 0;
}

uint32_t getIncludeArpDefend(uint32_t* flag)
{
    uint32_t code;
    if (shouldFail("getIncludeArpDefend", &code))
        return code;
    if (!flag)
        return 1;
    State& s = st();
    Guard g(s.lock);
    *flag = s.includeArpDefend ? 1 : 0;
    return 0;
}

// ---- stacking ---------------------------------------------------------------------

uint32_t stkGetCurrentUnit(void)
{
    State& s = st();
    Guard g(s.lock);
    return s.unit;
}

uint32_t stkUsoRuntimeDataSync(uint32_t mid, UsoData* usoData)
{
    noteModuleId(mid);
    uint32_t code;
    if (shouldFail("stkUsoRuntimeDataSync", &code))
        return code;
    if (!usoData || (usoData->len > 0 && !usoData->data))
        return 1;
    const uint8_t* d = static_cast<const uint8_t*>(usoData->data);
    State& s = st();
    Guard g(s.lock);
    if (s.recording.runtimeRecords)
        s.runtimeRecords.emplace_back(d, d + usoData->len);
    return 0;
}

uint32_t stkUsoDataSyncCbReg(uint32_t mid, uint32_t priority, StkUsoDataSyncSetCb setCb,
                             StkUsoDataSyncGetCb getCb, StkUsoDataSyncFreeCb freeCb)
{
    noteModuleId(mid);
    uint32_t code;
    if (shouldFail("stkUsoDataSyncCbReg", &code))
        return code;
    State& s = st();
    Guard g(s.lock);
    s.stk.dataSyncMid = mid;
    s.stk.dataSyncPriority = priority;
    s.stk.dataSyncSet = setCb;
    s.stk.dataSyncGet = getCb;
    s.stk.dataSyncFree = freeCb;
    event(s, "stk_reg datasync");
    return 0;
}

uint32_t stkUsoRuntimeDataHndReg(uint32_t mid, StkUsoRuntimeDataHnd hnd)
{
    noteModuleId(mid);
    uint32_t code;
    if (shouldFail("stkUsoRuntimeDataHndReg", &code))
        return code;
    State& s = st();
    Guard g(s.lock);
    s.stk.runtimeMid = mid;
    s.stk.runtime = hnd;
    event(s, "stk_reg runtime");
    return 0;
}

uint32_t stkUsoAttachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    noteModuleId(mid);
    uint32_t code;
    if (shouldFail("stkUsoAttachCbReg", &code))
        return code;
    State& s = st();
    Guard g(s.lock);
    s.stk.attachMid = mid;
    s.stk.attachPriority = priority;
    s.stk.attach = cb;
    event(s, "stk_reg attach");
    return 0;
}

uint32_t stkUsoDetachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    noteModuleId(mid);
    uint32_t code;
    if (shouldFail("stkUsoDetachCbReg", &code))
        return code;
    State& s = st();
    Guard g(s.lock);
    s.stk.detachMid = mid;
    s.stk.detachPriority = priority;
    s.stk.detach = cb;
    event(s, "stk_reg detach");
    return 0;
}

uint32_t stkUsoUpdateCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    noteModuleId(mid);
    uint32_t code;
    if (shouldFail("stkUsoUpdateCbReg", &code))
        return code;
    State& s = st();
    Guard g(s.lock);
    s.stk.updateMid = mid;
    s.stk.updatePriority = priority;
    s.stk.update = cb;
    event(s, "stk_reg update");
    return 0;
}

}  // extern "C"

// =========================================================================
// Control API
// =========================================================================

namespace sim {

void reset()
{
    State& s = st();
    s.lock.oneThread(false);
    Guard g(s.lock);
    freeEverything(s);
    ++s.generation;

    s.unit = 1;
    s.units = {1};
    noteUnits(s);
    s.portCounts.clear();
    s.portChannels = kDefaultPortChannels;
    s.provisioned.clear();
    s.portNames.clear();
    s.nameCache.clear();
    s.mac = kDefaultMac;

    s.portCfg.clear();
    s.cfgIndex.clear();
    s.snoopVlans.clear();
    s.qAddStatus = 1;
    s.includeIpFilter = false;
    s.includeArpDefend = false;
    s.setPortCfgCalls.clear();

    gDebugFlag.store(0);
    s.switchInited = true;
    s.processName = "swapp";
    s.moduleName = "DHCPSNOOP";
    s.logs.clear();
    s.syslog.clear();

    s.allocBytes = 0;
    s.allocCount = 0;
    s.badFrees = 0;
    s.failures.clear();
    s.events.clear();

    s.queues.clear();
    gQueueSerial.fetch_add(1, std::memory_order_relaxed);
    s.mutexes.clear();
    s.threads.clear();
    s.sleptMs = 0;

    s.nowMs = 0;
    s.timers.clear();
    s.timerSerial = 0;

    s.badReleases = 0;
    s.releaseCount = 0;
    s.usUp2StrCalls = 0;
    gFromIndexCalls.store(0, std::memory_order_relaxed);
    s.sent.clear();
    s.spareSent.clear();

    s.fdb.clear();
    s.fdbLookups.clear();
    s.qtable.clear();
    s.qtableLive.clear();
    s.qtableHoles = 0;
    s.qtableIndex.clear();
    s.stk = StkRegistrations{};
    s.hooks.clear();
    rearm(s);
    s.moduleIds.clear();
    gLastModuleId.store(UINT32_MAX, std::memory_order_relaxed);
    s.runtimeRecords.clear();

    s.fileRoot.clear();
    s.filePaths.clear();
    s.recording = Recording{};
    gLogFilter.store(nullptr);
    gLineFilter.store(nullptr);
    gSiteGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void setOneThread(bool on)
{
    State& s = st();
    s.lock.oneThread(on);
}

void setRecording(const Recording& recording)
{
    State& s = st();
    Guard g(s.lock);
    s.recording = recording;
}

// ---- switch model ----------------------------------------------------------------

void setUnit(uint32_t unit)
{
    State& s = st();
    Guard g(s.lock);
    s.unit = unit;
}

void setUnits(const std::vector<uint32_t>& present)
{
    State& s = st();
    Guard g(s.lock);
    s.units = std::set<uint32_t>(present.begin(), present.end());
    noteUnits(s);
}

void setPortCount(uint32_t unit, uint32_t ports)
{
    State& s = st();
    Guard g(s.lock);
    s.portCounts[unit] = std::min(ports, kPortsPerUnit);
}

void setPortChannelCount(uint32_t count)
{
    State& s = st();
    Guard g(s.lock);
    s.portChannels = std::min(count, kMaxPortChannels);
}

void setProvision(up port, bool provisioned)
{
    State& s = st();
    Guard g(s.lock);
    if (provisioned)
        s.provisioned.insert(port);
    else
        s.provisioned.erase(port);
}

void setPortName(up port, const std::string& name)
{
    State& s = st();
    Guard g(s.lock);
    s.portNames[port] = name;
    s.nameCache.clear();
}

void setSwitchMac(const Mac& mac)
{
    State& s = st();
    Guard g(s.lock);
    s.mac = mac;
}

Mac switchMac()
{
    State& s = st();
    Guard g(s.lock);
    return s.mac;
}

up physicalPort(uint32_t unit, uint32_t port) { return UP_MAKE(UP_TYPE_PHYSICAL, unit, 0, port); }

up portChannel(uint32_t number) { return UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, number); }

std::string portName(up port)
{
    // Not through usUp2Str: a test's own look-ups stay out of its count.
    State& s = st();
    Guard g(s.lock);
    return nameOf(s, port);
}

size_t fromIndexCalls() { return gFromIndexCalls.load(std::memory_order_relaxed); }

size_t usUp2StrCalls()
{
    State& s = st();
    Guard g(s.lock);
    return s.usUp2StrCalls;
}

PortList portListOf(up port)
{
    PortList l;
    memset(&l, 0, sizeof l);
    uint32_t w, b;
    if (portBit(port, &w, &b))
        l.word[w] |= 1u << b;
    return l;
}

std::vector<up> portsIn(const PortList& list)
{
    State& s = st();
    Guard g(s.lock);
    std::vector<up> out;
    uint32_t n = flatIndexCount(s);
    for (uint32_t i = 0; i < n; ++i) {
        up h = handleOfIndex(s, i);
        uint32_t w, b;
        if (portBit(h, &w, &b) && (list.word[w] >> b) & 1u)
            out.push_back(h);
    }
    return out;
}

// ---- configuration ------------------------------------------------------------------

DhcpSnoopPortCfg& portCfg(up port)
{
    State& s = st();
    Guard g(s.lock);
    auto it = s.portCfg.find(port);
    if (it == s.portCfg.end()) {
        DhcpSnoopPortCfg c;
        memset(&c, 0, sizeof c);
        it = s.portCfg.emplace(port, c).first;
        s.cfgIndex.clear();
    }
    return it->second;
}

void setVlanSnooping(uint16_t vid, bool enabled)
{
    State& s = st();
    Guard g(s.lock);
    if (enabled)
        s.snoopVlans.insert(vid);
    else
        s.snoopVlans.erase(vid);
}

void setQAddStatus(uint8_t status)
{
    State& s = st();
    Guard g(s.lock);
    s.qAddStatus = status;
}

void setIncludeIpFilter(bool on)
{
    State& s = st();
    Guard g(s.lock);
    s.includeIpFilter = on;
}

void setIncludeArpDefend(bool on)
{
    State& s = st();
    Guard g(s.lock);
    s.includeArpDefend = on;
}

const std::vector<SetPortCfgCall>& setPortCfgCalls() { return st().setPortCfgCalls; }

// ---- logging ------------------------------------------------------------------------

void setDebugFlag(uint32_t value)
{
    State& s = st();
    Guard g(s.lock);
    gDebugFlag.store(value);
}

void setSwitchInited(bool inited)
{
    State& s = st();
    Guard g(s.lock);
    s.switchInited = inited;
}

void setProcessName(const std::string& name)
{
    State& s = st();
    Guard g(s.lock);
    s.processName = name;
}

void setModuleName(const std::string& name)
{
    State& s = st();
    Guard g(s.lock);
    s.moduleName = name;
}

void setEcho(bool on)
{
    State& s = st();
    Guard g(s.lock);
    s.echo = on;
}

std::string LogLine::message() const
{
    size_t start = text.find("] ");
    start = start == std::string::npos ? 0 : start + 2;
    const std::string suffix = error ? kErrorSuffix : kDebugSuffix;
    size_t end = text.size();
    if (text.size() >= suffix.size() &&
        text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0)
        end = text.size() - suffix.size();
    if (end < start)
        end = start;
    return text.substr(start, end - start);
}

const std::vector<LogLine>& logs() { return st().logs; }

void setLogFilter(bool (*wanted)(const char* format),
                  bool (*lineWanted)(const char* format, va_list args))
{
    State& s = st();
    Guard g(s.lock);
    gLogFilter.store(wanted);
    gLineFilter.store(lineWanted);
    gSiteGeneration.fetch_add(1, std::memory_order_acq_rel);
}

void clearLogs()
{
    State& s = st();
    Guard g(s.lock);
    s.logs.clear();
}

std::vector<std::string> messages()
{
    State& s = st();
    Guard g(s.lock);
    std::vector<std::string> out;
    out.reserve(s.logs.size());
    for (const auto& l : s.logs)
        out.push_back(l.message());
    return out;
}

size_t countMessage(const std::string& text)
{
    State& s = st();
    Guard g(s.lock);
    size_t n = 0;
    for (const auto& l : s.logs)
        if (l.message() == text)
            ++n;
    return n;
}

bool hasMessage(const std::string& text) { return countMessage(text) > 0; }

const std::vector<SyslogEntry>& syslog() { return st().syslog; }

void clearSyslog()
{
    State& s = st();
    Guard g(s.lock);
    s.syslog.clear();
}

std::string syslogText(uint32_t code)
{
    switch (code) {
    case DHCP_SNOOP_LOG_LOAD_OK:
        return kLogLoadOk;
    case DHCP_SNOOP_LOG_LOAD_FAIL:
        return kLogLoadFail;
    case DHCP_SNOOP_LOG_RATE_OVERFLOW:
        return kLogRateOverflow;
    case DHCP_SNOOP_LOG_DECLINE_OVERFLOW:
        return kLogDeclineOverflow;
    default:
        return "";
    }
}

// ---- memory -------------------------------------------------------------------------

size_t outstandingAllocs()
{
    State& s = st();
    Guard g(s.lock);
    return s.allocs.size();
}

size_t outstandingBytes()
{
    State& s = st();
    Guard g(s.lock);
    return s.allocBytes;
}

size_t allocCount()
{
    State& s = st();
    Guard g(s.lock);
    return s.allocCount;
}

size_t badFrees()
{
    State& s = st();
    Guard g(s.lock);
    return s.badFrees;
}

bool isLiveAlloc(const void* p)
{
    State& s = st();
    Guard g(s.lock);
    return s.allocs.count(const_cast<void*>(p)) != 0;
}

// ---- failure injection --------------------------------------------------------------

void failNext(const std::string& key, uint32_t code, int skip, int times)
{
    State& s = st();
    Guard g(s.lock);
    s.failures[key] = Failure{code, skip < 0 ? 0 : skip, times};
    rearm(s);
}

void clearFailures()
{
    State& s = st();
    Guard g(s.lock);
    s.failures.clear();
    s.hooks.clear();
    rearm(s);
}

void onCall(const std::string& key, std::function<void()> fn, int skip, int times)
{
    State& s = st();
    Guard g(s.lock);
    s.hooks[key] = Hook{std::move(fn), skip < 0 ? 0 : skip, times};
    rearm(s);
}

std::set<uint32_t> moduleIds()
{
    State& s = st();
    Guard g(s.lock);
    return s.moduleIds;
}

int32_t lastSendWait(PalMsgQ q)
{
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    return queue ? queue->lastSendWait : 0;
}

int32_t lastReceiveWait(PalMsgQ q)
{
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    return queue ? queue->lastReceiveWait : 0;
}

// ---- events -------------------------------------------------------------------------

const std::vector<std::string>& events() { return st().events; }

void clearEvents()
{
    State& s = st();
    Guard g(s.lock);
    s.events.clear();
}

// ---- queues and tasks -----------------------------------------------------------------

uint32_t queueSerial() { return gQueueSerial.load(std::memory_order_relaxed); }

PalMsgQ queueByName(const std::string& name)
{
    State& s = st();
    Guard g(s.lock);
    // The newest queue of a name wins: a module started again makes a new one.
    for (size_t i = s.queues.size(); i > 0; --i)
        if (s.queues[i - 1].name == name)
            return (PalMsgQ)i;
    return 0;
}

size_t queueDepth(PalMsgQ q)
{
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    return queue ? queue->size() : 0;
}

size_t queueCapacity(PalMsgQ q)
{
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    return queue ? queue->depth : 0;
}

uint32_t queueRecordSize(PalMsgQ q)
{
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    return queue ? queue->recordSize : 0;
}

bool queueTake(PalMsgQ q, void* buffer, uint32_t size)
{
    State& s = st();
    Guard g(s.lock);
    Queue* queue = queueOf(s, q);
    if (!queue || queue->empty())
        return false;
    uint32_t n = std::min(size, queue->recordSize);
    if (buffer && size) {
        memcpy(buffer, queue->front(), n);
        // Bytes the record does not cover are zero, never stale.
        if (size > n)
            memset(static_cast<uint8_t*>(buffer) + n, 0, size - n);
    }
    queue->pop();
    return true;
}

std::vector<ThreadRec> threads()
{
    State& s = st();
    Guard g(s.lock);
    std::vector<ThreadRec> out;
    for (const auto& t : s.threads)
        out.push_back(t.rec);
    return out;
}

bool threadLive(const std::string& name)
{
    State& s = st();
    Guard g(s.lock);
    for (const auto& t : s.threads)
        if (t.rec.name == name && !t.rec.destroyed)
            return true;
    return false;
}

uint64_t sleptMs()
{
    State& s = st();
    Guard g(s.lock);
    return s.sleptMs;
}

// ---- time -------------------------------------------------------------------------------

uint64_t nowMs()
{
    State& s = st();
    Guard g(s.lock);
    return s.nowMs;
}

std::vector<TimerRec> timers()
{
    State& s = st();
    Guard g(s.lock);
    return s.timers;
}

uint64_t nextTimerDue()
{
    State& s = st();
    Guard g(s.lock);
    uint64_t due = UINT64_MAX;
    for (const auto& t : s.timers)
        if (t.active && t.dueMs < due)
            due = t.dueMs;
    return due;
}

void advanceTo(uint64_t toMs, const std::function<void()>& onFire)
{
    State& s = st();
    for (;;) {
        PalTimerCallback cb;
        uint32_t arg;
        size_t idx = 0;
        uint64_t gen;
        {
            Guard g(s.lock);
            bool found = false;
            for (size_t i = 0; i < s.timers.size(); ++i) {
                const TimerRec& t = s.timers[i];
                // Strict less keeps the earliest-created timer on a tie.
                if (t.active && t.dueMs <= toMs && (!found || t.dueMs < s.timers[idx].dueMs)) {
                    idx = i;
                    found = true;
                }
            }
            if (!found) {
                if (toMs > s.nowMs)
                    s.nowMs = toMs;
                return;
            }
            if (s.timers[idx].dueMs > s.nowMs)
                s.nowMs = s.timers[idx].dueMs;
            cb = s.timers[idx].callback;
            arg = s.timers[idx].arg;
            gen = s.generation;
        }
        // Foreign code runs without the sim lock.
        if (cb)
            cb(arg);
        if (onFire)
            onFire();
        {
            Guard g(s.lock);
            if (gen != s.generation)
                return;  // reset() ran meanwhile: the timer is gone
            TimerRec& t = s.timers[idx];
            if (t.repetitions > 0 && --t.repetitions == 0) {
                t.active = false;
                if (!s.recording.spentTimers)
                    s.timers.erase(s.timers.begin() + (std::ptrdiff_t)idx);
            } else {
                t.dueMs += periodMs(t.period);
            }
        }
    }
}

void advance(uint64_t ms, const std::function<void()>& onFire)
{
    advanceTo(nowMs() + ms, onFire);
}

// ---- frames and transmission ----------------------------------------------------------

namespace {

uint8_t* newFrameOf(const uint8_t* bytes, size_t len, size_t cap)
{
    State& s = st();
    uint8_t* p = nullptr;
    if (cap == kFrameCapacity) {
        Guard g(s.lock);
        if (!s.spareFrames.empty()) {
            p = s.spareFrames.back();
            s.spareFrames.pop_back();
        }
    }
    if (p != nullptr) {
        // As fresh from calloc: the bytes past the frame are zero.
        memset(p + len, 0, cap - len);
    } else {
        // calloc(0) gives a distinct pointer with no bytes behind it where
        // the C library allows it; elsewhere one byte stands in.
        p = static_cast<uint8_t*>(calloc(cap, 1));
        if (!p && cap == 0)
            p = static_cast<uint8_t*>(calloc(1, 1));
        if (!p)
            return nullptr;
    }
    if (len != 0)
        memcpy(p, bytes, len);
    Guard g(s.lock);
    // A fresh buffer cannot be listed: whatever had its address was freed.
    if (FrameTable::Slot* stale = s.liveFrames.find(p))
        stale->second = Frame{cap};
    else
        s.liveFrames.insert(p, Frame{cap});
    return p;
}

}  // namespace

uint8_t* newFrame(const std::vector<uint8_t>& bytes) { return newFrame(bytes.data(), bytes.size()); }

uint8_t* newFrame(const uint8_t* bytes, size_t len)
{
    return newFrameOf(bytes, len, std::max(kFrameCapacity, len));
}

uint8_t* newFrameExact(const std::vector<uint8_t>& bytes)
{
    return newFrameOf(bytes.data(), bytes.size(), bytes.size());
}

size_t framesOutstanding()
{
    State& s = st();
    Guard g(s.lock);
    return s.liveFrames.size();
}

size_t badReleases()
{
    State& s = st();
    Guard g(s.lock);
    return s.badReleases;
}

size_t releaseCount()
{
    State& s = st();
    Guard g(s.lock);
    return s.releaseCount;
}

const std::vector<SentPacket>& sent() { return st().sent; }

void clearSent()
{
    State& s = st();
    Guard g(s.lock);
    for (sim::SentPacket& p : s.sent) {
        if (s.spareSent.size() >= kSpareSent)
            break;
        p.frame.clear();
        s.spareSent.push_back(std::move(p.frame));
    }
    s.sent.clear();
}

// ---- forwarding database ------------------------------------------------------------

void fdbSet(const Mac& mac, uint32_t vlan, up port, uint32_t word)
{
    State& s = st();
    Guard g(s.lock);
    s.fdb.assign(std::make_pair(mac, vlan), FdbValue{port, word});
}

void fdbRemove(const Mac& mac, uint32_t vlan)
{
    State& s = st();
    Guard g(s.lock);
    s.fdb.erase(std::make_pair(mac, vlan));
}

void fdbClear()
{
    State& s = st();
    Guard g(s.lock);
    s.fdb.clear();
}

bool fdbFind(const Mac& mac, uint32_t vlan, up* port)
{
    State& s = st();
    Guard g(s.lock);
    auto* it = s.fdb.find(std::make_pair(mac, vlan));
    if (it == nullptr)
        return false;
    *port = it->second.port;
    return true;
}

size_t fdbSize()
{
    State& s = st();
    Guard g(s.lock);
    return s.fdb.size();
}

const std::vector<FdbLookup>& fdbLookups() { return st().fdbLookups; }

// ---- IP source guard ----------------------------------------------------------------

const std::vector<SwQTableEntry>& qtable()
{
    State& s = st();
    Guard g(s.lock);
    qtableCompact(s);
    return s.qtable;
}

void qtableInsert(const SwQTableEntry& entry)
{
    State& s = st();
    Guard g(s.lock);
    qtablePush(s, entry);
}

// ---- stacking -----------------------------------------------------------------------

const StkRegistrations& stkRegistrations() { return st().stk; }

const std::vector<std::vector<uint8_t>>& runtimeRecords() { return st().runtimeRecords; }

void clearRuntimeRecords()
{
    State& s = st();
    Guard g(s.lock);
    s.runtimeRecords.clear();
}

// ---- files ------------------------------------------------------------------------------

void setFileRoot(const std::string& dir)
{
    State& s = st();
    Guard g(s.lock);
    s.fileRoot = dir;
}

}  // namespace sim
