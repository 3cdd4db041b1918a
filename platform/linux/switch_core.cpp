// The live platform's software switch without its sockets: VLAN admission,
// the DHCP trap, the IP source guard, the FDB, egress selection with tags,
// the packet pool, and the platform functions of ports, snooping
// configuration, FDB, source-guard table and stacking built on them.
//
// Everything is sized in setUp; frames never make anything grow.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "platform/common/port_index.h"
#include "platform/common/port_text.h"
#include "platform/linux/latency.h"
#include "platform/linux/live_internal.h"
#include "platform/linux/trap_admission.h"
#include "snooping/dhcpSnoop.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LIVE_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(LIVE_ASAN)
#define LIVE_ASAN 1
#endif
#ifdef LIVE_ASAN
#include <sanitizer/asan_interface.h>
// A released buffer is poisoned until it is handed out again: a use after
// the release is caught.
#define LIVE_POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define LIVE_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define LIVE_POISON(p, n) ((void)(p), (void)(n))
#define LIVE_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace live {
namespace core {
namespace {

constexpr uint32_t kPortsPerUnit = portindex::kPortsPerUnit;
constexpr uint32_t kMaxPortChannels = portindex::kMaxPortChannels;
// The simulated switch's shape, kept so ports name the same indexes.
constexpr uint32_t kDefaultPorts = 28;
constexpr uint32_t kDefaultPortChannels = 8;
// Ports a configuration can name: 64 physical and 15 port channels.
constexpr size_t kMaxPorts = 80;
constexpr int32_t kNone = -1;
constexpr uint16_t kTpid = 0x8100;

// Entries of one hash chain at most: chosen addresses cannot make a walk
// long (the hash is keyed, so they cannot even aim at one chain).
constexpr size_t kMaxChain = 8;

struct FdbSlot {
    uint8_t mac[6];
    uint16_t vid;
    uint32_t port;  // index into ports
    uint64_t seenMs;
    int32_t next;
};

struct QSlot {
    SwQTableEntry e;
    int32_t next;
    bool used;
};

struct PoolSlot {
    bool inUse = false;
    size_t rxPort = 0;
    uint32_t sends = 0;
    uint32_t delivered = 0;
    uint16_t vid = 0;  // of the module's sends: the VLAN its source is learned in
    uint64_t trapNs = 0;  // when the trap took the frame
};

// Frames the trap refused, by reason: plain counters, so a flood's drops
// make nothing grow. Merged into the counters' reasons when read.
enum TrapDrop { kTooLong, kPoolFull, kQueueFull, kPoliced, kQueueShare, kPendingRequests, kTrapDrops };
const char* const kTrapDropText[kTrapDrops] = {
    "frame too long for the packet pool",
    "packet pool full",
    "queue full",
    live::trap::verdictText(live::trap::Verdict::Policer),
    live::trap::verdictText(live::trap::Verdict::QueueShare),
    live::trap::verdictText(live::trap::Verdict::PendingRequests),
};

struct PortState {
    swcfg::PortConfig cfg;
    PortCounters counters;
    std::array<uint64_t, kTrapDrops> trapDrops{};
    bool pendingReported = false;  // the pending-request cap's event
    uint64_t pendingReportedMs = 0;
};
constexpr uint64_t kPendingReportMs = 30000;

struct StackRegs {
    StkUsoDataSyncSetCb setCb = nullptr;
    StkUsoDataSyncGetCb getCb = nullptr;
    StkUsoDataSyncFreeCb freeCb = nullptr;
    StkUsoRuntimeDataHnd runtime = nullptr;
    StkUsoUnitCb attach = nullptr;
    StkUsoUnitCb detach = nullptr;
    StkUsoUnitCb update = nullptr;
};

struct Core {
    std::mutex lock;
    bool up = false;
    swcfg::SwitchConfig cfg;
    Options opt;
    // Shared so a frame in flight keeps it past a tear-down.
    std::shared_ptr<const Transmit> tx;
    std::vector<PortState> ports;
    std::map<::up, size_t> portOf;
    std::map<::up, DhcpSnoopPortCfg> records;
    std::vector<bool> snoopVlan = std::vector<bool>(4096, false);
    uint32_t physicalPorts = kDefaultPorts;
    uint32_t portChannels = kDefaultPortChannels;
    bool haveFallbackMac = false;
    uint8_t fallbackMac[6] = {0, 0, 0, 0, 0, 0};

    std::vector<FdbSlot> fdb;
    std::vector<int32_t> fdbBuckets;
    int32_t fdbFree = kNone;
    size_t fdbUsed = 0;
    std::vector<uint32_t> fdbOnPort;  // entries per port
    uint64_t hashKey[2] = {0, 0};     // drawn at set-up

    std::vector<QSlot> qtable;
    std::vector<int32_t> qBuckets;
    int32_t qFree = kNone;
    size_t qUsed = 0;

    uint8_t* pool = nullptr;
    std::vector<PoolSlot> slots;
    std::vector<uint32_t> freeSlots;
    size_t badReleases = 0;

    StackRegs stk;
    std::function<uint64_t()> clock;

    // Who may put frames into the module's queue (under the lock).
    live::trap::Admission admission;
    // Trap to first transmission of the frames the module sent on.
    live::LatencyHistogram latency;
    // The same since start, never cleared: the metrics' histogram.
    live::LatencyHistogram latencyTotal;
    // The bridge data plane's, when it runs.
    FdbLookup kernelFdb;
    GuardChange guardChange;
};

// The unit and the number of ports and port channels, one word for the
// port-handle calls: the module walks every port index for each frame, and
// the core's lock is not needed for three bytes that change with the
// configuration only. Unit in bits 16-23, ports 8-15, channels 0-7.
std::atomic<uint32_t> gShape{(1u << 16) | (kDefaultPorts << 8) | kDefaultPortChannels};

Core& core()
{
    // Never destroyed: tasks still running at exit may call in.
    static Core* c = new Core;
    return *c;
}

using Guard = std::lock_guard<std::mutex>;

// After every change of c.up, the unit or the port counts (under the lock).
void publishShape(const Core& c)
{
    uint32_t unit = c.up ? c.cfg.unit : 1u;
    gShape.store(((unit & 0xFFu) << 16) | ((c.physicalPorts & 0xFFu) << 8) | (c.portChannels & 0xFFu),
                 std::memory_order_release);
}
uint32_t shapeUnit(uint32_t shape) { return (shape >> 16) & 0xFFu; }
uint32_t shapePorts(uint32_t shape) { return (shape >> 8) & 0xFFu; }
uint32_t shapeChannels(uint32_t shape) { return shape & 0xFFu; }

uint16_t rd16(const uint8_t* p) { return (uint16_t)(((uint32_t)p[0] << 8) | p[1]); }


size_t pow2AtLeast(size_t n)
{
    size_t p = 1;
    while (p < n)
        p <<= 1;
    return p;
}

// SipHash-2-4 of at most 8 bytes: one message block and the final one.
uint64_t rotl(uint64_t x, int b) { return (x << b) | (x >> (64 - b)); }

uint64_t sipHash8(const uint64_t key[2], const uint8_t* in, size_t n)
{
    uint64_t v0 = 0x736f6d6570736575ull ^ key[0];
    uint64_t v1 = 0x646f72616e646f6dull ^ key[1];
    uint64_t v2 = 0x6c7967656e657261ull ^ key[0];
    uint64_t v3 = 0x7465646279746573ull ^ key[1];
    auto round = [&] {
        v0 += v1; v1 = rotl(v1, 13); v1 ^= v0; v0 = rotl(v0, 32);
        v2 += v3; v3 = rotl(v3, 16); v3 ^= v2;
        v0 += v3; v3 = rotl(v3, 21); v3 ^= v0;
        v2 += v1; v1 = rotl(v1, 17); v1 ^= v2; v2 = rotl(v2, 32);
    };
    auto block = [&](uint64_t m) {
        v3 ^= m;
        round();
        round();
        v0 ^= m;
    };
    uint64_t m = 0;
    for (size_t i = 0; i < n && i < 8; ++i)
        m |= (uint64_t)in[i] << (8 * i);
    if (n == 8) {
        block(m);
        m = 0;
    }
    block(m | ((uint64_t)(n & 0xFF) << 56));
    v2 ^= 0xFF;
    round();
    round();
    round();
    round();
    return v0 ^ v1 ^ v2 ^ v3;
}

uint32_t macHash(const Core& c, const uint8_t* mac, uint16_t vid)
{
    uint8_t k[8] = {mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], (uint8_t)(vid >> 8), (uint8_t)vid};
    return (uint32_t)sipHash8(c.hashKey, k, sizeof k);
}

uint32_t ipHash(const Core& c, const uint8_t* ip) { return (uint32_t)sipHash8(c.hashKey, ip, 4); }

// ---- port list bits (the module's layout) ----

bool portBit(::up h, uint32_t* word, uint32_t* bit) { return portindex::bit(h, word, bit); }

bool inList(const PortList& l, ::up h) { return portindex::inList(l.word, h); }

// The drop reason of a DHCP frame in a VLAN the port does not carry. Named
// per VLAN for the first few only: a port that sends every VLAN id would
// otherwise grow its counters by 4,094 keys, each copied under the lock by
// every counters read.
constexpr size_t kVlanDropKeys = 8;
std::string vlanDropKey(const std::map<std::string, uint64_t>& dropped, uint16_t vid)
{
    std::string key = "VLAN " + std::to_string(vid) + " not carried by the port";
    if (dropped.count(key) != 0)
        return key;
    size_t named = 0;
    for (auto it = dropped.lower_bound("VLAN "); it != dropped.end() && it->first.compare(0, 5, "VLAN ") == 0; ++it)
        ++named;
    return named < kVlanDropKeys ? key : "other VLANs not carried by the port";
}

// ---- FDB (under the lock) ----

uint32_t fdbBucket(const Core& c, const uint8_t* mac, uint16_t vid)
{
    return macHash(c, mac, vid) & (uint32_t)(c.fdbBuckets.size() - 1);
}

int32_t fdbFind(Core& c, const uint8_t* mac, uint16_t vid)
{
    if (c.fdbBuckets.empty())
        return kNone;
    for (int32_t i = c.fdbBuckets[fdbBucket(c, mac, vid)]; i != kNone; i = c.fdb[(size_t)i].next)
        if (c.fdb[(size_t)i].vid == vid && memcmp(c.fdb[(size_t)i].mac, mac, 6) == 0)
            return i;
    return kNone;
}

// Unlinks the entry *link points at and gives it back.
void fdbRemove(Core& c, int32_t* link)
{
    int32_t gone = *link;
    FdbSlot& s = c.fdb[(size_t)gone];
    *link = s.next;
    if (s.port < c.fdbOnPort.size() && c.fdbOnPort[s.port] > 0)
        --c.fdbOnPort[s.port];
    s.next = c.fdbFree;
    c.fdbFree = gone;
    --c.fdbUsed;
}

// Learns where a source lives. Called only for frames that passed every
// check of their port: a frame the switch or the module refuses, or one the
// source guard could not check, must not pull its source's traffic to the
// sender's port.
void fdbLearn(Core& c, const uint8_t* mac, uint16_t vid, size_t port)
{
    // Group and all-zero sources are never learned.
    static const uint8_t zero[6] = {0, 0, 0, 0, 0, 0};
    if ((mac[0] & 1u) != 0 || memcmp(mac, zero, 6) == 0 || c.fdbBuckets.empty() || port >= c.ports.size())
        return;
    uint64_t now = c.clock ? c.clock() : 0;
    uint32_t limit = c.opt.fdbPortLimit;
    bool portFull = limit != 0 && c.fdbOnPort[port] >= limit;
    uint32_t b = fdbBucket(c, mac, vid);
    size_t chain = 0;
    for (int32_t* link = &c.fdbBuckets[b]; *link != kNone; link = &c.fdb[(size_t)*link].next, ++chain) {
        FdbSlot& s = c.fdb[(size_t)*link];
        if (s.vid != vid || memcmp(s.mac, mac, 6) != 0)
            continue;
        if (s.port != port) {
            // A station that moved, to a port whose share is used up: it is
            // forgotten (flooded) rather than left where it no longer is.
            if (portFull) {
                fdbRemove(c, link);
                ++c.ports[port].counters.fdbNotLearned;
                return;
            }
            if (s.port < c.fdbOnPort.size() && c.fdbOnPort[s.port] > 0)
                --c.fdbOnPort[s.port];
            ++c.fdbOnPort[port];
            s.port = (uint32_t)port;
        }
        s.seenMs = now;
        return;
    }
    // A full table, port share or chain learns nothing more until entries
    // age out; such destinations are flooded.
    if (portFull || chain >= kMaxChain || c.fdbFree == kNone) {
        ++c.ports[port].counters.fdbNotLearned;
        return;
    }
    int32_t i = c.fdbFree;
    FdbSlot& s = c.fdb[(size_t)i];
    c.fdbFree = s.next;
    memcpy(s.mac, mac, 6);
    s.vid = vid;
    s.port = (uint32_t)port;
    s.seenMs = now;
    s.next = c.fdbBuckets[b];
    c.fdbBuckets[b] = i;
    ++c.fdbUsed;
    ++c.fdbOnPort[port];
}

void fdbFlush(Core& c)
{
    std::fill(c.fdbBuckets.begin(), c.fdbBuckets.end(), kNone);
    for (size_t i = 0; i < c.fdb.size(); ++i)
        c.fdb[i].next = i + 1 < c.fdb.size() ? (int32_t)(i + 1) : kNone;
    c.fdbFree = c.fdb.empty() ? kNone : 0;
    c.fdbUsed = 0;
    std::fill(c.fdbOnPort.begin(), c.fdbOnPort.end(), 0u);
}

// ---- source guard (under the lock) ----

bool sourceBound(Core& c, const uint8_t* ip, const uint8_t* mac, uint16_t vid, ::up port)
{
    if (c.qBuckets.empty())
        return false;
    uint32_t b = ipHash(c, ip) & (uint32_t)(c.qBuckets.size() - 1);
    for (int32_t i = c.qBuckets[b]; i != kNone; i = c.qtable[(size_t)i].next) {
        const SwQTableEntry& e = c.qtable[(size_t)i].e;
        if (memcmp(e.ip, ip, 4) == 0 && memcmp(e.mac, mac, 6) == 0 && e.vlan == vid && e.port == port)
            return true;
    }
    return false;
}

void qUnlink(Core& c, int32_t idx)
{
    uint32_t b = ipHash(c, c.qtable[(size_t)idx].e.ip) & (uint32_t)(c.qBuckets.size() - 1);
    int32_t* link = &c.qBuckets[b];
    while (*link != kNone && *link != idx)
        link = &c.qtable[(size_t)*link].next;
    if (*link == idx)
        *link = c.qtable[(size_t)idx].next;
    c.qtable[(size_t)idx].used = false;
    c.qtable[(size_t)idx].next = c.qFree;
    c.qFree = idx;
    --c.qUsed;
}

// ---- frames ----

// IPv4 UDP to port 67 or 68, Ethernet II or 802.3/SNAP, untagged: what the
// module's intake takes. The destination port alone decides: the intake
// refuses any other, so such a frame is better switched as ordinary UDP.
// Every read is bounded by len.
bool isDhcp(const uint8_t* f, size_t len)
{
    if (len < 14)
        return false;
    size_t ip;
    uint16_t t = rd16(f + 12);
    if (t == 0x0800) {
        ip = 14;
    } else if (t <= 0x05DC) {
        static const uint8_t snap[8] = {0xAA, 0xAA, 0x03, 0x00, 0x00, 0x00, 0x08, 0x00};
        if (len < 22 || memcmp(f + 14, snap, 8) != 0)
            return false;
        ip = 22;
    } else {
        return false;
    }
    if (len < ip + 20 || (f[ip] >> 4) != 4)
        return false;
    size_t ihl = (size_t)(f[ip] & 0x0F) * 4;
    if (ihl < 20 || f[ip + 9] != 17)
        return false;
    // A later fragment has no UDP header to look at.
    if ((rd16(f + ip + 6) & 0x1FFF) != 0)
        return false;
    size_t udp = ip + ihl;
    if (len < udp + 8)
        return false;
    uint16_t dport = rd16(f + udp + 2);
    return dport == 67 || dport == 68;
}

// Where the network layer of a frame starts and its EtherType: Ethernet II,
// or 802.3 LLC/SNAP with any OUI (RFC 1042 and 802.1H both carry IPv4 and
// ARP so). False for other 802.3 frames and short ones.
bool networkLayer(const uint8_t* f, size_t len, uint16_t* type, size_t* at)
{
    if (len < 14)
        return false;
    uint16_t t = rd16(f + 12);
    if (t >= 0x0600) {
        *type = t;
        *at = 14;
        return true;
    }
    if (len < 22 || f[14] != 0xAA || f[15] != 0xAA || f[16] != 0x03)
        return false;
    *type = rd16(f + 20);
    *at = 22;
    return true;
}

enum class Guarded {
    Pass,       // the port is not guarded in this VLAN
    Verified,   // its source is bound to this port
    Unchecked,  // guarded port, but nothing here to check the source by
    Refuse,
};

bool guardedPort(const Core& c, const PortState& p, uint16_t vid)
{
    return !p.cfg.trust && c.snoopVlan[vid & 0xFFFu] && (c.cfg.ipFilter || c.cfg.arpDefend);
}

// IPv4 and ARP on an untrusted port of a snooping VLAN pass only from a
// bound source, in Ethernet II and in SNAP alike. An ARP probe (sender
// 0.0.0.0) passes only as a request for an address bound to its sender on
// this port: clients probe the address an ACK gave them, and a probe for
// anyone else's address would only make that client give its lease up.
// ARP whose sender is not the frame's source is refused. IPv6 is dropped
// there when the switch says so, and otherwise not looked at.
Guarded sourceGuard(Core& c, const PortState& p, const uint8_t* f, size_t len, uint16_t vid)
{
    if (p.cfg.trust || !c.snoopVlan[vid & 0xFFFu])
        return Guarded::Pass;
    bool filters = c.cfg.ipFilter || c.cfg.arpDefend;
    uint16_t t = 0;
    size_t l3 = 0;
    if (!networkLayer(f, len, &t, &l3))
        return filters ? Guarded::Unchecked : Guarded::Pass;
    if (t == 0x86DD && c.cfg.dropIpv6)
        return Guarded::Refuse;
    if (!filters)
        return Guarded::Pass;
    if (t == 0x0800) {
        if (!c.cfg.ipFilter)
            return Guarded::Unchecked;
        if (len < l3 + 20)
            return Guarded::Refuse;
        return sourceBound(c, f + l3 + 12, f + 6, vid, p.cfg.handle) ? Guarded::Verified : Guarded::Refuse;
    }
    if (t == 0x0806) {
        if (!c.cfg.arpDefend)
            return Guarded::Unchecked;
        const uint8_t* a = f + l3;
        if (len < l3 + 28 || rd16(a) != 1 || rd16(a + 2) != 0x0800 || a[4] != 6 || a[5] != 4)
            return Guarded::Refuse;
        const uint8_t* sha = a + 8;
        const uint8_t* spa = a + 14;
        const uint8_t* tpa = a + 24;
        if (memcmp(sha, f + 6, 6) != 0)
            return Guarded::Refuse;
        static const uint8_t zero[4] = {0, 0, 0, 0};
        if (memcmp(spa, zero, 4) == 0) {
            if (rd16(a + 6) != 1)
                return Guarded::Refuse;
            return sourceBound(c, tpa, sha, vid, p.cfg.handle) ? Guarded::Verified : Guarded::Refuse;
        }
        return sourceBound(c, spa, sha, vid, p.cfg.handle) ? Guarded::Verified : Guarded::Refuse;
    }
    return Guarded::Unchecked;
}

// 01:80:C2:00:00:00 to 0F: bridge protocols (STP, LACP, 802.1X, LLDP, ...)
// that a bridge never forwards.
bool reservedGroup(const uint8_t* dst)
{
    return dst[0] == 0x01 && dst[1] == 0x80 && dst[2] == 0xC2 && dst[3] == 0 && dst[4] == 0 &&
           (dst[5] & 0xF0) == 0;
}

bool isTagTpid(uint16_t t) { return t == 0x8100 || t == 0x88A8 || t == 0x9100 || t == 0x9200; }

// Takes the tag at the frame's EtherType out in place.
void popTag(uint8_t*& f, size_t& len, Offload* off)
{
    memmove(f + 4, f, 12);
    f += 4;
    len -= 4;
    if (off) {
        off->csumStart = off->csumStart >= 4 ? (uint16_t)(off->csumStart - 4) : 0;
        off->hdrLen = off->hdrLen >= 4 ? (uint16_t)(off->hdrLen - 4) : 0;
    }
}

// Finishes a checksum the sender left to an offload: the ones' complement
// sum over [csumStart, end) goes where csumOffset points (the field holds
// the pseudo-header's sum already). False when the offsets do not fit.
bool completeChecksum(uint8_t* f, size_t len, const Offload& off)
{
    size_t start = off.csumStart;
    size_t at = start + off.csumOffset;
    if (start >= len || at + 2 > len)
        return false;
    uint32_t sum = 0;
    size_t i = start;
    for (; i + 1 < len; i += 2)
        sum += rd16(f + i);
    if (i < len)
        sum += (uint32_t)f[i] << 8;
    while (sum >> 16)
        sum = (sum & 0xFFFFu) + (sum >> 16);
    uint16_t v = (uint16_t)~sum;
    // A UDP checksum of 0 means none; a computed 0 is sent as all ones.
    if (v == 0)
        v = 0xFFFF;
    f[at] = (uint8_t)(v >> 8);
    f[at + 1] = (uint8_t)v;
    return true;
}

struct Egress {
    size_t n = 0;
    std::array<size_t, kMaxPorts> port;
    std::array<int32_t, kMaxPorts> tag;

    void add(Core& c, size_t i, uint16_t vid)
    {
        if (n >= port.size())
            return;
        port[n] = i;
        tag[n] = c.ports[i].cfg.tags(vid) ? (int32_t)vid : -1;
        ++n;
    }
};

void flood(Core& c, uint16_t vid, const PortList* except, size_t exceptPort, Egress& out)
{
    for (size_t i = 0; i < c.ports.size(); ++i) {
        if (i == exceptPort || !c.ports[i].cfg.carries(vid))
            continue;
        if (except && inList(*except, c.ports[i].cfg.handle))
            continue;
        out.add(c, i, vid);
    }
}

// Unicast by the FDB, else flooded in the VLAN; never back out of rx.
void l2Egress(Core& c, const uint8_t* dst, uint16_t vid, size_t rx, Egress& out)
{
    if ((dst[0] & 1u) == 0 && c.kernelFdb) {
        size_t p;
        if (c.kernelFdb(dst, vid, &p)) {
            if (p != rx && p < c.ports.size() && c.ports[p].cfg.carries(vid))
                out.add(c, p, vid);
            return;
        }
    } else if ((dst[0] & 1u) == 0) {
        int32_t i = fdbFind(c, dst, vid);
        if (i != kNone) {
            size_t p = c.fdb[(size_t)i].port;
            if (p != rx && p < c.ports.size() && c.ports[p].cfg.carries(vid))
                out.add(c, p, vid);
            return;
        }
    }
    flood(c, vid, nullptr, rx, out);
}

// Sends f out of every egress port; returns how many took it. Every
// failure is counted on its port by reason.
size_t transmitAll(Core& c, const std::shared_ptr<const Transmit>& tx, const Egress& e,
                   const uint8_t* f, size_t len, const Offload* off = nullptr)
{
    if (e.n == 0)
        return 0;
    std::array<int, kMaxPorts> err;
    for (size_t k = 0; k < e.n; ++k)
        err[k] = tx && *tx ? (*tx)(e.port[k], f, len, e.tag[k], off) : ENOTCONN;
    size_t ok = 0;
    Guard g(c.lock);
    for (size_t k = 0; k < e.n; ++k) {
        if (e.port[k] >= c.ports.size())
            continue;
        PortCounters& pc = c.ports[e.port[k]].counters;
        if (err[k] == 0) {
            ++pc.txFrames;
            ++ok;
        } else {
            ++pc.txFailed[sendFailure(err[k])];
        }
    }
    return ok;
}

// Takes cfg's switch-wide settings and port records (under the lock).
void applyConfig(Core& c, const swcfg::SwitchConfig& cfg)
{
    c.cfg = cfg;
    c.records.clear();
    c.portOf.clear();
    c.physicalPorts = kDefaultPorts;
    c.portChannels = kDefaultPortChannels;
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        const swcfg::PortConfig& p = cfg.ports[i];
        c.records[p.handle] = swcfg::snoopRecord(p);
        c.portOf[p.handle] = i;
        if (UP_KIND(p.handle) == UP_TYPE_PHYSICAL)
            c.physicalPorts = std::max(c.physicalPorts, std::min(UP_PORT(p.handle), kPortsPerUnit));
        else
            c.portChannels = std::max(c.portChannels, std::min(UP_PORT(p.handle), kMaxPortChannels));
        if (i < c.ports.size())
            c.ports[i].cfg = p;
    }
    std::fill(c.snoopVlan.begin(), c.snoopVlan.end(), false);
    for (uint16_t v : cfg.snoopingVlans)
        c.snoopVlan[v & 0xFFFu] = true;
}

uint64_t steadyNs()
{
    return (uint64_t)std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

uint64_t steadyMs()
{
    return (uint64_t)std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

live::trap::Limits admissionLimits(const swcfg::SwitchConfig& cfg)
{
    live::trap::Limits l;
    l.queueDepth = DHCP_SNOOP_QUEUE_DEPTH;
    l.elementPool = DHCP_SNOOP_POOL_SIZE;
    l.untrustedPorts = 0;
    for (const auto& p : cfg.ports)
        if (!p.trust)
            ++l.untrustedPorts;
    return l;
}

TrapDrop dropOf(live::trap::Verdict v)
{
    switch (v) {
    case live::trap::Verdict::Policer:
        return kPoliced;
    case live::trap::Verdict::PendingRequests:
        return kPendingRequests;
    default:
        return kQueueShare;
    }
}

// A trapped frame reaches the module's queue only past the port's policer
// and within its share of the queue; what frames may not take is left for
// the timer and configuration messages.
// handle and untrusted: the port's, read by the caller under the lock.
void trap(Core& c, size_t rx, const uint8_t* f, size_t len, uint16_t vid, ::up handle, bool untrusted)
{
    // An untrusted port's pending requests are counted in the module's
    // table, without the core's lock.
    bool capPending = untrusted;
    uint32_t pending = 0;
    if (capPending)
        capPending = live::trap::pendingRequestsOf(handle, &pending);
    std::string event;
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    {
        Guard g(c.lock);
        if (!c.up || rx >= c.ports.size())
            return;
        PortState& p = c.ports[rx];
        if (len > kPoolBufferSize) {
            ++p.trapDrops[kTooLong];
            if (live::monitor::active())
                live::monitor::drop(p.cfg.name, kTrapDropText[kTooLong], f, len);
            return;
        }
        uint64_t now = c.clock ? c.clock() : steadyMs();
        live::trap::Verdict v = c.admission.admit(rx, p.cfg.rate, now, capPending, pending);
        if (v == live::trap::Verdict::Admit && c.freeSlots.empty()) {
            c.admission.released(rx);
            ++p.trapDrops[kPoolFull];
            if (live::monitor::active())
                live::monitor::drop(p.cfg.name, kTrapDropText[kPoolFull], f, len);
            return;
        }
        if (v != live::trap::Verdict::Admit) {
            ++p.trapDrops[dropOf(v)];
            if (live::monitor::active())
                live::monitor::drop(p.cfg.name, kTrapDropText[dropOf(v)], f, len);
            if (v != live::trap::Verdict::PendingRequests ||
                (p.pendingReported && now - p.pendingReportedMs < kPendingReportMs))
                return;
            // Once per port, again after 30 s of it.
            p.pendingReported = true;
            p.pendingReportedMs = now;
            event = "DHCP snooping: port " + p.cfg.name + " holds its share of " +
                    std::to_string(c.admission.pendingShare()) +
                    " pending requests; its DHCP frames are dropped until some are answered or age out";
        } else {
            uint32_t s = c.freeSlots.back();
            c.freeSlots.pop_back();
            PoolSlot& slot = c.slots[s];
            slot = PoolSlot();
            slot.inUse = true;
            slot.rxPort = rx;
            slot.trapNs = steadyNs();
            uint8_t* buf = c.pool + (size_t)s * kPoolBufferSize;
            LIVE_UNPOISON(buf, kPoolBufferSize);
            memcpy(buf, f, len);
            msg.type = DHCP_SNOOP_MSG_PACKET;
            uint32_t w, b;
            if (portBit(p.cfg.handle, &w, &b))
                msg.packet.ports.word[w] |= 1u << b;
            msg.packet.frame = buf;
            msg.packet.frameLen = (uint32_t)len;
            msg.packet.vid = vid;
            // Which buffer a transmission belongs to, also when the module
            // sends a rebuilt copy of the frame.
            msg.packet.platformWord = s + 1;
        }
    }
    if (!event.empty()) {
        live::logging::addEvent(live::logging::kEventPendingRequests, LOG_WARNING, event);
        return;
    }
    uint32_t rv = dhcpSnoopSendMsgToMainQueue(&msg, 0);
    Guard g(c.lock);
    uint32_t s = msg.packet.platformWord - 1;
    // Torn down meanwhile (tests): nothing left to count or give back.
    if (!c.up || rx >= c.ports.size() || s >= c.slots.size())
        return;
    PortState& p = c.ports[rx];
    if (rv != 0) {
        c.slots[s].inUse = false;
        LIVE_POISON(msg.packet.frame, kPoolBufferSize);
        c.freeSlots.push_back(s);
        c.admission.released(rx);
        ++p.trapDrops[kQueueFull];
        if (live::monitor::active())
            live::monitor::drop(p.cfg.name, kTrapDropText[kQueueFull], f, len);
        return;
    }
    ++p.counters.trapped;
}

}  // namespace

// ---- control -------------------------------------------------------------

bool setUp(const swcfg::SwitchConfig& cfg, const Options& opt, Transmit tx, std::string& error)
{
    Core& c = core();
    Guard g(c.lock);
    if (c.up) {
        error = "the switch is already set up";
        return false;
    }
    if (opt.packetPool == 0 || opt.fdbSize == 0 || opt.sourceGuardSize == 0) {
        error = "packet pool, FDB and source-guard table need a size above 0";
        return false;
    }
    if (cfg.ports.size() > kMaxPorts) {
        error = "too many ports";
        return false;
    }
    for (const auto& p : cfg.ports) {
        if (p.handle == UP_INVALID) {
            error = "port " + p.name + " has no handle";
            return false;
        }
    }
    c.pool = new (std::nothrow) uint8_t[(size_t)opt.packetPool * kPoolBufferSize];
    if (!c.pool) {
        error = "no memory for the packet pool";
        return false;
    }
    LIVE_POISON(c.pool, (size_t)opt.packetPool * kPoolBufferSize);
    c.slots.assign(opt.packetPool, PoolSlot());
    c.freeSlots.clear();
    c.freeSlots.reserve(opt.packetPool);
    for (uint32_t i = opt.packetPool; i > 0; --i)
        c.freeSlots.push_back(i - 1);
    c.badReleases = 0;

    c.fdb.assign(opt.fdbSize, FdbSlot());
    c.fdbBuckets.assign(pow2AtLeast((size_t)opt.fdbSize * 2), kNone);
    c.fdbOnPort.assign(cfg.ports.size(), 0u);
    fdbFlush(c);
    // A new key each time: nobody outside can choose addresses that meet
    // in one chain.
    std::random_device rd;
    c.hashKey[0] = ((uint64_t)rd() << 32) ^ rd();
    c.hashKey[1] = ((uint64_t)rd() << 32) ^ rd();

    c.qtable.assign(opt.sourceGuardSize, QSlot());
    c.qBuckets.assign(pow2AtLeast((size_t)opt.sourceGuardSize * 2), kNone);
    for (size_t i = 0; i < c.qtable.size(); ++i)
        c.qtable[i].next = i + 1 < c.qtable.size() ? (int32_t)(i + 1) : kNone;
    c.qFree = 0;
    c.qUsed = 0;

    c.opt = opt;
    c.tx = std::make_shared<const Transmit>(std::move(tx));
    c.ports.clear();
    c.ports.resize(cfg.ports.size());
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        c.ports[i].counters.name = cfg.ports[i].name;
        c.ports[i].counters.interface = cfg.ports[i].interface;
    }
    applyConfig(c, cfg);
    c.admission.setUp(cfg.ports.size(), admissionLimits(cfg));
    c.latency.clear();
    c.latencyTotal.clear();
    c.haveFallbackMac = false;
    c.stk = StackRegs();
    if (!c.clock)
        c.clock = steadyMs;
    c.up = true;
    publishShape(c);
    return true;
}

void tearDown()
{
    Core& c = core();
    Guard g(c.lock);
    if (!c.up)
        return;
    c.up = false;
    publishShape(c);
    if (c.pool) {
        LIVE_UNPOISON(c.pool, c.slots.size() * kPoolBufferSize);
        delete[] c.pool;
        c.pool = nullptr;
    }
    c.slots.clear();
    c.freeSlots.clear();
    c.fdb.clear();
    c.fdbBuckets.clear();
    c.fdbFree = kNone;
    c.fdbUsed = 0;
    c.fdbOnPort.clear();
    c.qtable.clear();
    c.qBuckets.clear();
    c.qFree = kNone;
    c.qUsed = 0;
    c.ports.clear();
    c.portOf.clear();
    c.records.clear();
    c.admission.setUp(0, live::trap::Limits());
    c.tx.reset();
    c.kernelFdb = nullptr;
    c.guardChange = nullptr;
    c.cfg = swcfg::SwitchConfig();
    std::fill(c.snoopVlan.begin(), c.snoopVlan.end(), false);
}

bool isUp()
{
    Guard g(core().lock);
    return core().up;
}

size_t portIndex(::up handle)
{
    Core& c = core();
    Guard g(c.lock);
    auto it = c.portOf.find(handle);
    return it == c.portOf.end() ? (size_t)-1 : it->second;
}

bool reconfigure(const swcfg::SwitchConfig& cfg, std::string& error)
{
    Core& c = core();
    Guard g(c.lock);
    if (!c.up) {
        error = "the switch is not running";
        return false;
    }
    if (cfg.ports.size() != c.ports.size()) {
        error = "the set of ports changed: restart the daemon for that";
        return false;
    }
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        const swcfg::PortConfig& now = c.ports[i].cfg;
        const swcfg::PortConfig& next = cfg.ports[i];
        if (now.handle != next.handle || now.interface != next.interface) {
            error = "port " + next.name + ": ports and their interfaces cannot change while running";
            return false;
        }
    }
    applyConfig(c, cfg);
    c.admission.relimit(admissionLimits(cfg));
    publishShape(c);
    // VLAN membership may have changed: learned places are learned again.
    fdbFlush(c);
    return true;
}

void setFallbackMac(const uint8_t mac[6])
{
    Core& c = core();
    Guard g(c.lock);
    memcpy(c.fallbackMac, mac, 6);
    c.haveFallbackMac = true;
}

std::vector<PortCounters> counters()
{
    Core& c = core();
    Guard g(c.lock);
    std::vector<PortCounters> out;
    for (const auto& p : c.ports) {
        out.push_back(p.counters);
        for (size_t k = 0; k < kTrapDrops; ++k)
            if (p.trapDrops[k] != 0)
                out.back().dropped[kTrapDropText[k]] += p.trapDrops[k];
    }
    return out;
}

Latency latency(bool clear)
{
    Core& c = core();
    Guard g(c.lock);
    Latency l;
    l.frames = c.latency.count();
    l.p50Us = (double)c.latency.quantileNs(0.50) / 1000.0;
    l.p99Us = (double)c.latency.quantileNs(0.99) / 1000.0;
    l.maxUs = (double)c.latency.maxNs() / 1000.0;
    if (clear)
        c.latency.clear();
    return l;
}

uint64_t nowMs()
{
    Core& c = core();
    std::function<uint64_t()> clock;
    {
        Guard g(c.lock);
        clock = c.clock;
    }
    return clock ? clock() : steadyMs();
}

void setClock(std::function<uint64_t()> clock)
{
    Core& c = core();
    Guard g(c.lock);
    c.clock = clock ? std::move(clock) : std::function<uint64_t()>(steadyMs);
}

LatencyDistribution latencyDistribution(const std::vector<double>& boundsSec)
{
    Core& c = core();
    Guard g(c.lock);
    LatencyDistribution d;
    for (double b : boundsSec) {
        d.boundsSec.push_back(b);
        d.atMost.push_back(c.latencyTotal.countAtMost((uint64_t)(b * 1e9 + 0.5)));
    }
    d.count = c.latencyTotal.count();
    d.sumSec = (double)c.latencyTotal.sumNs() / 1e9;
    return d;
}

std::vector<std::pair<::up, std::string>> portHandles()
{
    Core& c = core();
    Guard g(c.lock);
    std::vector<std::pair<::up, std::string>> out;
    for (const PortState& p : c.ports)
        out.emplace_back(p.cfg.handle, p.cfg.name);
    return out;
}

size_t poolBuffers()
{
    Core& c = core();
    Guard g(c.lock);
    return c.slots.size();
}

size_t poolBuffersInUse()
{
    Core& c = core();
    Guard g(c.lock);
    return c.slots.size() - c.freeSlots.size();
}

size_t badReleases()
{
    Core& c = core();
    Guard g(c.lock);
    return c.badReleases;
}

size_t fdbCount()
{
    Core& c = core();
    Guard g(c.lock);
    return c.fdbUsed;
}

size_t sourceGuardCount()
{
    Core& c = core();
    Guard g(c.lock);
    return c.qUsed;
}

void ageFdb()
{
    Core& c = core();
    Guard g(c.lock);
    if (!c.up)
        return;
    uint64_t now = c.clock ? c.clock() : steadyMs();
    uint64_t maxAge = (uint64_t)c.opt.fdbAgingSec * 1000u;
    for (size_t b = 0; b < c.fdbBuckets.size(); ++b) {
        int32_t* link = &c.fdbBuckets[b];
        while (*link != kNone) {
            if (now - c.fdb[(size_t)*link].seenMs >= maxAge)
                fdbRemove(c, link);
            else
                link = &c.fdb[(size_t)*link].next;
        }
    }
}

// ---- the data path ---------------------------------------------------------

void receive(size_t rx, uint8_t* frame, size_t len, int32_t vlanTci, uint16_t vlanTpid, const Offload* offIn)
{
    Core& c = core();
    Egress out;
    std::shared_ptr<const Transmit> tx;
    uint8_t* f = frame;
    uint16_t vid = 0;
    bool dhcp = false;
    ::up handle = UP_INVALID;
    bool untrusted = false;
    Offload off;
    if (offIn)
        off = *offIn;
    {
        Guard g(c.lock);
        if (!c.up || rx >= c.ports.size() || !frame)
            return;
        PortState& p = c.ports[rx];
        ++p.counters.rxFrames;
        if (len < 14)
            return;
        if (reservedGroup(f)) {
            ++p.counters.discarded["reserved group address"];
            return;
        }
        // A port takes one 802.1Q tag, stripped by the kernel or still in
        // the frame; behind it only a priority tag (VLAN 0) may follow,
        // which goes too. Anything else is refused: an inner tag the next
        // switch would take as the VLAN (VLAN hopping), an 802.1ad service
        // tag (no port here is a QinQ port), and a frame whose inner
        // EtherType would hide DHCP, IPv4 or ARP from the trap and the
        // source guard.
        bool tagged = false;
        if (vlanTci >= 0) {
            if (vlanTpid != kTpid) {
                ++p.counters.discarded["802.1ad or other service tag"];
                return;
            }
            tagged = true;
            vid = (uint16_t)(vlanTci & 0x0FFF);
        }
        for (int tags = tagged ? 1 : 0; len >= 14 && isTagTpid(rd16(f + 12)); ++tags) {
            if (rd16(f + 12) != kTpid) {
                ++p.counters.discarded["802.1ad or other service tag"];
                return;
            }
            if (len < 18) {
                ++p.counters.discarded["truncated VLAN tag"];
                return;
            }
            uint16_t inner = rd16(f + 14) & 0x0FFF;
            if (tags >= 2 || (tags == 1 && inner != 0)) {
                ++p.counters.discarded["stacked VLAN tags"];
                return;
            }
            if (tags == 0 || vid == 0)
                vid = inner;
            tagged = true;
            popTag(f, len, offIn ? &off : nullptr);
        }
        // A priority tag (VLAN 0) counts as no tag; a tag of the port's own
        // access VLAN is taken as well (the replay tool's rule).
        if (!tagged || vid == 0)
            vid = p.cfg.vlan;
        dhcp = isDhcp(f, len);
        handle = p.cfg.handle;
        untrusted = !p.cfg.trust;
        if (vid == 0 || !p.cfg.carries(vid)) {
            if (dhcp)
                ++p.counters.dropped[vlanDropKey(p.counters.dropped, vid)];
            return;
        }
        if (dhcp) {
            // The module needs one whole frame with its checksum.
            if (offIn && off.gsoType != 0) {
                ++p.counters.dropped["segmentation offload on a DHCP frame"];
                return;
            }
            if (offIn && off.needsCsum && !completeChecksum(f, len, off)) {
                ++p.counters.dropped["bad checksum offload"];
                return;
            }
        } else {
            Guarded gr = sourceGuard(c, p, f, len, vid);
            if (gr == Guarded::Refuse) {
                ++p.counters.sourceGuardDropped;
                return;
            }
            // A DHCP frame teaches its source once the module sends it on
            // (dhcpReleasePacketPool); on a guarded port only a verified
            // source is learned.
            if (gr == Guarded::Pass || gr == Guarded::Verified)
                fdbLearn(c, f + 6, vid, rx);
            l2Egress(c, f, vid, rx, out);
            tx = c.tx;
        }
    }
    if (dhcp) {
        trap(c, rx, f, len, vid, handle, untrusted);
        return;
    }
    transmitAll(c, tx, out, f, len, offIn ? &off : nullptr);
}

void trapTooLong(size_t rx, const uint8_t* head, size_t len)
{
    Core& c = core();
    Guard g(c.lock);
    if (!c.up || rx >= c.ports.size())
        return;
    PortState& p = c.ports[rx];
    ++p.counters.rxFrames;
    ++p.trapDrops[kTooLong];
    if (live::monitor::active())
        live::monitor::drop(p.cfg.name, kTrapDropText[kTooLong], head, len);
}

void discard(size_t rx, const char* reason, uint64_t count)
{
    Core& c = core();
    Guard g(c.lock);
    if (!c.up || rx >= c.ports.size() || !reason || count == 0)
        return;
    c.ports[rx].counters.rxFrames += count;
    c.ports[rx].counters.discarded[reason] += count;
}

std::string sendFailure(int err)
{
    switch (err) {
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case ENOBUFS:
        return "interface queue full";
    case EMSGSIZE:
        return "frame too long for the interface";
    case ENETDOWN:
        return "interface down";
    case ENODEV:
    case ENXIO:
        return "interface gone";
    case EBADF:
        return "port closed";
    case ENOTCONN:
        return "port has no interface";
    case EINVAL:
        return "refused by the kernel (invalid)";
    default:
        return std::string("send failed: ") + strerror(err);
    }
}

size_t fdbLongestChain()
{
    Core& c = core();
    Guard g(c.lock);
    size_t longest = 0;
    for (int32_t head : c.fdbBuckets) {
        size_t n = 0;
        for (int32_t i = head; i != kNone; i = c.fdb[(size_t)i].next)
            ++n;
        longest = std::max(longest, n);
    }
    return longest;
}

void setKernelPath(FdbLookup fdb, GuardChange guard)
{
    Core& c = core();
    Guard g(c.lock);
    c.kernelFdb = std::move(fdb);
    c.guardChange = std::move(guard);
}

void trapOnly(size_t rx, uint8_t* frame, size_t len, int32_t vlanTci)
{
    Core& c = core();
    uint8_t* f = frame;
    uint16_t vid = 0;
    ::up handle = UP_INVALID;
    bool untrusted = false;
    {
        Guard g(c.lock);
        if (!c.up || rx >= c.ports.size() || !frame)
            return;
        PortState& p = c.ports[rx];
        ++p.counters.rxFrames;
        if (len < 14)
            return;
        handle = p.cfg.handle;
        untrusted = !p.cfg.trust;
        bool tagged = false;
        if (vlanTci >= 0) {
            tagged = true;
            vid = (uint16_t)(vlanTci & 0x0FFF);
        } else if (len >= 18 && rd16(f + 12) == kTpid) {
            tagged = true;
            vid = rd16(f + 14) & 0x0FFF;
            memmove(f + 4, f, 12);
            f += 4;
            len -= 4;
        }
        if (!tagged || vid == 0)
            vid = p.cfg.vlan;
        if (!isDhcp(f, len))
            return;
        if (vid == 0 || !p.cfg.carries(vid)) {
            ++p.counters.dropped["VLAN " + std::to_string(vid) + " not carried by the port"];
            return;
        }
    }
    trap(c, rx, f, len, vid, handle, untrusted);
}

}  // namespace core
}  // namespace live

using live::core::core;
using live::core::Guard;

extern "C" {

// ---- ports ----------------------------------------------------------------

uint32_t inner_up_from_index(up* handle, uint32_t index, uint32_t flag, const char* func,
                             uint32_t line)
{
    (void)func;
    (void)line;
    uint32_t unit = live::core::shapeUnit(live::core::gShape.load(std::memory_order_acquire));
    return portindex::fromIndex(handle, index, flag, unit);
}

uint32_t inner_up_is_valid(up handle)
{
    uint32_t shape = live::core::gShape.load(std::memory_order_acquire);
    if (UP_KIND(handle) == UP_TYPE_PHYSICAL)
        return UP_UNIT(handle) == live::core::shapeUnit(shape) &&
                       portindex::validPhysical(handle, live::core::shapePorts(shape))
                   ? 1
                   : 0;
    return portindex::validChannel(handle, live::core::shapeChannels(shape)) ? 1 : 0;
}

uint32_t inner_up_is_provision(up handle)
{
    // One unit, always present: nothing is provisioned for an absent one.
    (void)handle;
    return 0;
}

uint32_t inner_up_unit_is_valid(uint32_t unit)
{
    return unit == live::core::shapeUnit(live::core::gShape.load(std::memory_order_acquire)) ? 1 : 0;
}

uint32_t inner_up_unitbase_get(uint32_t unit) { return portindex::unitBase(unit); }

uint32_t inner_up_slotbaseoffset_get(uint32_t slot) { return portindex::slotBase(slot); }

uint32_t usUp2Str(up handle, char* text, uint32_t flag)
{
    (void)flag;
    if (!text)
        return 1;
    portindex::text(handle, text);
    return 0;
}

uint32_t usStr2Up(int32_t unit, const char* text, up* handle, uint32_t flag)
{
    (void)unit;
    (void)flag;
    if (!handle)
        return 1;
    *handle = UP_INVALID;
    return porttext::parse(text, handle) ? 0 : 1;
}

// ---- snooping configuration ----------------------------------------------------

// A port without a record reads as all zero (untrusted, no limits, no
// option 82). The module asks for one field at a time on every frame: no
// copy of the whole record for that.
}  // extern "C"

template <typename T>
static uint32_t portField(up port, T* out, T DhcpSnoopPortCfg::*field)
{
    if (!out)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    auto it = c.records.find(port);
    *out = it != c.records.end() ? it->second.*field : T{};
    return 0;
}

extern "C" {

uint32_t swDhcpSnoopGetPortTrust(up port, uint8_t* trust)
{
    return portField(port, trust, &DhcpSnoopPortCfg::trust);
}

uint32_t swDhcpSnoopGetPortMacVerify(up port, uint8_t* macVerify)
{
    return portField(port, macVerify, &DhcpSnoopPortCfg::macVerify);
}

uint32_t swDhcpSnoopGetPortLimitRate(up port, uint8_t* rate)
{
    return portField(port, rate, &DhcpSnoopPortCfg::limitRate);
}

uint32_t swDhcpSnoopGetPortDecLimitRate(up port, uint8_t* rate)
{
    return portField(port, rate, &DhcpSnoopPortCfg::decLimitRate);
}

uint32_t swDhcpSnoopGetPortCfg(up port, DhcpSnoopPortCfg* cfg)
{
    if (!cfg)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    auto it = c.records.find(port);
    if (it != c.records.end())
        *cfg = it->second;
    else
        memset(cfg, 0, sizeof *cfg);
    return 0;
}

uint32_t swDhcpSnoopGetVlanEnableStatusByVid(uint16_t vid, uint8_t* enabled)
{
    if (!enabled)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    *enabled = c.snoopVlan[vid & 0xFFFu] ? 1 : 0;
    return 0;
}

uint32_t swDhcpSnoopGetQAddStatus(uint8_t* status)
{
    if (!status)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    *status = !c.up || c.cfg.tableUpdates ? 1 : 0;
    return 0;
}

uint32_t swDhcpSnoopSetPortCfg(up port, const DhcpSnoopPortCfg* cfg)
{
    if (!cfg)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    c.records[port] = *cfg;
    return 0;
}

// ---- FDB, MAC, transmission, packet pool ------------------------------------------

uint32_t swFdbGetEntry(FdbEntry* entry)
{
    if (!entry)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    if (!c.up || entry->vlan > 0xFFFu)
        return 1;
    if (c.kernelFdb) {
        size_t p;
        if (!c.kernelFdb(entry->mac, (uint16_t)entry->vlan, &p) || p >= c.ports.size())
            return 1;
        entry->port = c.ports[p].cfg.handle;
        entry->word = 0;
        return 0;
    }
    int32_t i = live::core::fdbFind(c, entry->mac, (uint16_t)entry->vlan);
    if (i == live::core::kNone)
        return 1;
    size_t p = c.fdb[(size_t)i].port;
    if (p >= c.ports.size())
        return 1;
    entry->port = c.ports[p].cfg.handle;
    entry->word = 0;
    return 0;
}

uint32_t getMacAddress(uint8_t* mac)
{
    if (!mac)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    if (c.up && c.cfg.hasMac) {
        memcpy(mac, c.cfg.mac.data(), 6);
        return 0;
    }
    if (c.haveFallbackMac) {
        memcpy(mac, c.fallbackMac, 6);
        return 0;
    }
    return 1;
}

uint32_t norvikPacketSend(DhcpSnoopPacket* packet)
{
    if (!packet || !packet->frame)
        return 1;
    auto& c = core();
    live::core::Egress out;
    std::shared_ptr<const live::core::Transmit> tx;
    const uint8_t* f = packet->frame;
    size_t len = packet->frameLen;
    uint16_t vid = packet->vid;
    {
        Guard g(c.lock);
        if (!c.up || len < 14 || len > live::core::kPoolBufferSize || vid == 0 || vid > 0xFFFu)
            return 1;
        // The receive port of the frame the module works on.
        live::core::PoolSlot* slot = nullptr;
        size_t rx = (size_t)-1;
        uint32_t s = packet->platformWord;
        if (s >= 1 && s <= c.slots.size() && c.slots[s - 1].inUse) {
            slot = &c.slots[s - 1];
            rx = slot->rxPort;
        }
        if (packet->sendFlags & SEND_FLAG_FLOOD) {
            live::core::flood(c, vid, &packet->ports, (size_t)-1, out);
        } else if (packet->sendFlags & SEND_FLAG_BY_FDB) {
            live::core::l2Egress(c, f, vid, rx, out);
        } else {
            for (size_t i = 0; i < c.ports.size(); ++i)
                if (c.ports[i].cfg.carries(vid) && live::core::inList(packet->ports, c.ports[i].cfg.handle))
                    out.add(c, i, vid);
        }
        if (slot) {
            if (slot->sends == 0 && out.n > 0) {
                uint64_t ns = live::core::steadyNs() - slot->trapNs;
                c.latency.record(ns);
                c.latencyTotal.record(ns);
            }
            ++slot->sends;
            slot->vid = vid;
        }
        tx = c.tx;
    }
    size_t ok = live::core::transmitAll(c, tx, out, f, len);
    uint32_t s = packet->platformWord;
    if (ok > 0 && s >= 1) {
        Guard g(c.lock);
        if (s <= c.slots.size() && c.slots[s - 1].inUse)
            c.slots[s - 1].delivered += (uint32_t)ok;
    }
    // Egress ports chosen and none took the frame: the module hears of it.
    return out.n > 0 && ok == 0 ? 1 : 0;
}

void dhcpReleasePacketPool(uint8_t* frame)
{
    auto& c = core();
    bool main = live::logging::onMainTask();
    std::string reason = main ? live::logging::takeDropReason() : "dropped";
    Guard g(c.lock);
    size_t total = c.slots.size() * live::core::kPoolBufferSize;
    uintptr_t base = (uintptr_t)c.pool;
    uintptr_t at = (uintptr_t)frame;
    if (!c.up || !frame || at < base || at - base >= total ||
        (at - base) % live::core::kPoolBufferSize != 0) {
        ++c.badReleases;
        fprintf(stderr, "dhcpsnoopd: release of a buffer that is not the packet pool's (%p)\n",
                static_cast<void*>(frame));
        return;
    }
    size_t s = (at - base) / live::core::kPoolBufferSize;
    live::core::PoolSlot& slot = c.slots[s];
    if (!slot.inUse) {
        ++c.badReleases;
        fprintf(stderr, "dhcpsnoopd: packet pool buffer %lu released twice\n", (unsigned long)s);
        return;
    }
    live::core::PortState& rp = c.ports[slot.rxPort];
    live::PortCounters& pc = rp.counters;
    if (slot.delivered > 0) {
        ++pc.dhcpForwarded;
        // The module sent it on: its source is where it came from. On a
        // guarded port a DHCP frame proves no address: it teaches a new
        // station (the reply then finds its client) but never moves a
        // known one.
        if (slot.vid != 0 && (!live::core::guardedPort(c, rp, slot.vid) ||
                              live::core::fdbFind(c, frame + 6, slot.vid) == live::core::kNone))
            live::core::fdbLearn(c, frame + 6, slot.vid, slot.rxPort);
    } else {
        if ((reason == "dropped" || reason == live::logging::kUnnamedDrop) && slot.sends > 0)
            reason = "no egress port";
        ++pc.dropped[reason];
        if (live::monitor::active())
            live::monitor::drop(rp.cfg.name, reason, frame, 12);
    }
    slot.inUse = false;
    LIVE_POISON(frame, live::core::kPoolBufferSize);
    c.freeSlots.push_back((uint32_t)s);
    c.admission.released(slot.rxPort);
}

// ---- source guard -------------------------------------------------------------

uint32_t swQTableSearchByIpAndSource(const SwQTableEntry* entry, uint32_t* index, uint32_t* found)
{
    if (!entry || !index || !found)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    *found = 0;
    if (c.qBuckets.empty())
        return 0;
    uint32_t b = live::core::ipHash(c, entry->ip) & (uint32_t)(c.qBuckets.size() - 1);
    for (int32_t i = c.qBuckets[b]; i != live::core::kNone; i = c.qtable[(size_t)i].next) {
        const SwQTableEntry& e = c.qtable[(size_t)i].e;
        if (memcmp(e.ip, entry->ip, 4) == 0 && e.source == entry->source) {
            *found = 1;
            *index = (uint32_t)i;
            return 0;
        }
    }
    return 0;
}

uint32_t swQTableDel(uint32_t unit, uint32_t index, uint32_t found)
{
    (void)unit;
    auto& c = core();
    live::core::GuardChange change;
    SwQTableEntry gone;
    {
        Guard g(c.lock);
        if (!found || index >= c.qtable.size() || !c.qtable[index].used)
            return 1;
        gone = c.qtable[index].e;
        live::core::qUnlink(c, (int32_t)index);
        change = c.guardChange;
    }
    // Outside the lock: the filters may take a while to change.
    if (change)
        change(gone, false);
    return 0;
}

uint32_t swQTableAdd(uint32_t unit, const SwQTableEntry* entry)
{
    (void)unit;
    if (!entry)
        return 1;
    auto& c = core();
    live::core::GuardChange change;
    {
        Guard g(c.lock);
        if (c.qBuckets.empty())
            return 1;
        uint32_t b = live::core::ipHash(c, entry->ip) & (uint32_t)(c.qBuckets.size() - 1);
        for (int32_t i = c.qBuckets[b]; i != live::core::kNone; i = c.qtable[(size_t)i].next) {
            const SwQTableEntry& e = c.qtable[(size_t)i].e;
            if (memcmp(e.ip, entry->ip, 4) == 0 && memcmp(e.mac, entry->mac, 6) == 0 &&
                e.vlan == entry->vlan && e.port == entry->port && e.source == entry->source)
                return QTABLE_RESULT_EXISTS;
        }
        if (c.qFree == live::core::kNone)
            return 1;  // full
        int32_t i = c.qFree;
        live::core::QSlot& s = c.qtable[(size_t)i];
        c.qFree = s.next;
        s.e = *entry;
        s.used = true;
        s.next = c.qBuckets[b];
        c.qBuckets[b] = i;
        ++c.qUsed;
        change = c.guardChange;
    }
    // Outside the lock: the filters may take a while to change.
    if (change)
        change(*entry, true);
    return 0;
}

uint32_t getIncludeIpFilter(uint32_t* flag)
{
    if (!flag)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    *flag = c.up && c.cfg.ipFilter ? 1 : 0;
    return 0;
}

uint32_t getIncludeArpDefend(uint32_t* flag)
{
    if (!flag)
        return 1;
    auto& c = core();
    Guard g(c.lock);
    *flag = c.up && c.cfg.arpDefend ? 1 : 0;
    return 0;
}

// ---- stacking: a single unit --------------------------------------------------------

uint32_t stkGetCurrentUnit(void)
{
    return live::core::shapeUnit(live::core::gShape.load(std::memory_order_acquire));
}

uint32_t stkUsoRuntimeDataSync(uint32_t mid, UsoData* usoData)
{
    // No other unit to tell; the monitors hear of the change.
    (void)mid;
    if (usoData && usoData->data && live::monitor::active())
        live::monitor::bindingRecord(static_cast<const uint8_t*>(usoData->data), usoData->len);
    return usoData && (usoData->len == 0 || usoData->data) ? 0 : 1;
}

uint32_t stkUsoDataSyncCbReg(uint32_t mid, uint32_t priority, StkUsoDataSyncSetCb setCb,
                             StkUsoDataSyncGetCb getCb, StkUsoDataSyncFreeCb freeCb)
{
    (void)mid;
    (void)priority;
    auto& c = core();
    Guard g(c.lock);
    c.stk.setCb = setCb;
    c.stk.getCb = getCb;
    c.stk.freeCb = freeCb;
    return 0;
}

uint32_t stkUsoRuntimeDataHndReg(uint32_t mid, StkUsoRuntimeDataHnd hnd)
{
    (void)mid;
    auto& c = core();
    Guard g(c.lock);
    c.stk.runtime = hnd;
    return 0;
}

uint32_t stkUsoAttachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    (void)mid;
    (void)priority;
    auto& c = core();
    Guard g(c.lock);
    c.stk.attach = cb;
    return 0;
}

uint32_t stkUsoDetachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    (void)mid;
    (void)priority;
    auto& c = core();
    Guard g(c.lock);
    c.stk.detach = cb;
    return 0;
}

uint32_t stkUsoUpdateCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    (void)mid;
    (void)priority;
    auto& c = core();
    Guard g(c.lock);
    c.stk.update = cb;
    return 0;
}

}  // extern "C"
