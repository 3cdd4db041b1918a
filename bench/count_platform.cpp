// The counting platform: every platform function of platform/*.h, as cheap
// as it can be. See count_platform.h.
#include "bench/count_platform.h"

#include "platform/common/port_index.h"
#include "platform/common/port_text.h"

#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

constexpr uint32_t kPorts = 28;
constexpr uint32_t kPortChannels = 8;
constexpr uint32_t kPortsPerUnit = portindex::kPortsPerUnit;

struct Queue {
    std::string name;
    uint32_t depth = 0;
    uint32_t size = 0;
    uint32_t head = 0;
    uint32_t count = 0;
    std::vector<uint8_t> records;
};

struct State {
    std::vector<Queue> queues;  // handle = index + 1
    std::vector<void*> blocks;
    DhcpSnoopPortCfg physical[kPortsPerUnit + 1];
    DhcpSnoopPortCfg channels[kPortChannels + 1];
    DhcpSnoopPortCfg none;
    uint8_t vlans[4096];
    uint8_t mac[6] = {0x00, 0x0e, 0x5e, 0x00, 0x00, 0x01};
    cp::Counters counters;
};

// Built before main; a plain object keeps every call free of a guard.
State gState;

inline State& st() { return gState; }

DhcpSnoopPortCfg* cfgOf(up port)
{
    State& s = st();
    if (UP_KIND(port) == UP_TYPE_PHYSICAL && UP_UNIT(port) == 1 && UP_SLOT(port) == 0 &&
        UP_PORT(port) <= kPortsPerUnit)
        return &s.physical[UP_PORT(port)];
    if (UP_KIND(port) == UP_TYPE_PORT_CHANNEL && UP_PORT(port) <= kPortChannels)
        return &s.channels[UP_PORT(port)];
    return &s.none;
}

}  // namespace

struct PalMutex {
    int taken;
};
struct PalThread {
    int unused;
};

namespace cp {

void reset()
{
    State& s = st();
    for (void* b : s.blocks)
        free(b);
    s.blocks.clear();
    s.queues.clear();
    memset(s.physical, 0, sizeof s.physical);
    memset(s.channels, 0, sizeof s.channels);
    memset(&s.none, 0, sizeof s.none);
    memset(s.vlans, 0, sizeof s.vlans);
    s.counters = Counters();
}

Counters& counters() { return st().counters; }
DhcpSnoopPortCfg& portCfg(up port) { return *cfgOf(port); }
void setVlanSnooping(uint16_t vid, bool on) { st().vlans[vid & 0xFFF] = on ? 1 : 0; }
up physicalPort(uint32_t port) { return UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, port); }
up portChannel(uint32_t number) { return UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, number); }

PortList portListOf(up port)
{
    PortList l;
    memset(&l, 0, sizeof l);
    portindex::addToList(l.word, port);
    return l;
}

bool take(PalMsgQ q, void* buffer, uint32_t size)
{
    State& s = st();
    if (q <= 0 || (size_t)q > s.queues.size())
        return false;
    Queue& qu = s.queues[(size_t)q - 1];
    if (qu.count == 0)
        return false;
    memcpy(buffer, &qu.records[(size_t)qu.head * qu.size], size < qu.size ? size : qu.size);
    qu.head = (qu.head + 1) % qu.depth;
    --qu.count;
    return true;
}

PalMsgQ queueByName(const char* name)
{
    State& s = st();
    for (size_t i = 0; i < s.queues.size(); i++)
        if (s.queues[i].name == name)
            return (PalMsgQ)(i + 1);
    return 0;
}

}  // namespace cp

extern "C" {

// ---- abstraction layer -----------------------------------------------------------

void* pal_alloc(size_t size, const char* tag)
{
    (void)tag;
    void* p = malloc(size);
    if (p)
        st().blocks.push_back(p);
    return p;
}

void* pal_calloc(size_t count, size_t size, const char* tag)
{
    (void)tag;
    void* p = calloc(count, size);
    if (p)
        st().blocks.push_back(p);
    return p;
}

void pal_free(void* p)
{
    State& s = st();
    for (size_t i = 0; i < s.blocks.size(); i++) {
        if (s.blocks[i] == p) {
            free(p);
            s.blocks.erase(s.blocks.begin() + (long)i);
            return;
        }
    }
}

PalMutex* pal_mutex_create(const char* name)
{
    (void)name;
    PalMutex* m = static_cast<PalMutex*>(pal_calloc(1, sizeof(PalMutex), "mutex"));
    return m;
}

void pal_mutex_destroy(PalMutex* m) { pal_free(m); }

int32_t pal_mutex_take_int(PalMutex* m, int32_t timeout)
{
    (void)timeout;
    if (m)
        m->taken = 1;
    return 0;
}

int32_t pal_mutex_give_int(PalMutex* m)
{
    if (m)
        m->taken = 0;
    return 0;
}

PalMsgQ pal_msgQ_create(const char* name, uint32_t depth, uint32_t recordSize, uint32_t option)
{
    (void)option;
    State& s = st();
    Queue q;
    q.name = name ? name : "";
    q.depth = depth;
    q.size = recordSize;
    q.records.assign((size_t)depth * recordSize, 0);
    s.queues.push_back(std::move(q));
    return (PalMsgQ)s.queues.size();
}

int32_t pal_msgQ_send(PalMsgQ q, const void* buffer, uint32_t size, int32_t wait, uint32_t option)
{
    (void)wait;
    (void)option;
    State& s = st();
    if (q <= 0 || (size_t)q > s.queues.size())
        return -1;
    Queue& qu = s.queues[(size_t)q - 1];
    if (size > qu.size || qu.count == qu.depth) {
        ++s.counters.queueFull;
        return -1;
    }
    uint32_t tail = (qu.head + qu.count) % qu.depth;
    memcpy(&qu.records[(size_t)tail * qu.size], buffer, size);
    ++qu.count;
    ++s.counters.queueSends;
    return 0;
}

int32_t pal_msgQ_receive(PalMsgQ q, void* buffer, uint32_t size, int32_t wait, uint32_t* word)
{
    (void)wait;
    (void)word;
    // Nothing else runs: an empty queue stays empty, so never block.
    return cp::take(q, buffer, size) ? (int32_t)size : -1;
}

PalThread* pal_thread_create(const char* name, uint32_t stackSize, uint32_t priority, PalThreadEntry entry,
                             void* arg)
{
    (void)name;
    (void)stackSize;
    (void)priority;
    (void)entry;
    (void)arg;
    return static_cast<PalThread*>(pal_calloc(1, sizeof(PalThread), "thread"));
}

void pal_thread_destroy(PalThread* t) { pal_free(t); }

void pal_sleep(uint32_t ms) { (void)ms; }

uint32_t add_timer(PalTimerId* timerId, const char* name, PalTimeSpec period, PalTimerCallback callback,
                   uint32_t arg, int32_t repetitions)
{
    (void)name;
    (void)period;
    (void)callback;
    (void)arg;
    (void)repetitions;
    ++st().counters.timers;
    if (timerId) {
        memset(timerId, 0, sizeof *timerId);
        timerId->id[0] = 1;
    }
    return 0;
}

const char* pal_file_path(const char* path)
{
    // The benchmark keeps no files: the binding file is never found.
    static const char missing[] = "/nonexistent/dhcpsnoop-bench/dhcpSnoop.cfg";
    (void)path;
    return missing;
}

// ---- logging ---------------------------------------------------------------------

uint32_t debugFlagGet(uint32_t mid)
{
    (void)mid;
    return 0;
}

int debugPrintf(uint32_t mid, const char* format, ...)
{
    (void)mid;
    (void)format;
    return 0;
}

const char* midNameGet(uint32_t mid)
{
    (void)mid;
    return "DHCPSNOOP";
}

uint32_t pidGetCurrent(void) { return 1; }

const char* pidNameGet(uint32_t pid)
{
    (void)pid;
    return "bench";
}

uint32_t isSwitchInited(void) { return 1; }

uint32_t syslogAdd(uint32_t code, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5,
                   uintptr_t a6)
{
    (void)code;
    (void)a1;
    (void)a2;
    (void)a3;
    (void)a4;
    (void)a5;
    (void)a6;
    ++st().counters.syslogs;
    return 0;
}

// ---- ports -----------------------------------------------------------------------

uint32_t inner_up_from_index(up* handle, uint32_t index, uint32_t flag, const char* func, uint32_t line)
{
    (void)func;
    (void)line;
    return portindex::fromIndex(handle, index, flag, 1);
}

uint32_t inner_up_is_valid(up handle)
{
    if (UP_KIND(handle) == UP_TYPE_PHYSICAL)
        return UP_UNIT(handle) == 1 && portindex::validPhysical(handle, kPorts);
    return portindex::validChannel(handle, kPortChannels);
}

uint32_t inner_up_is_provision(up handle)
{
    (void)handle;
    return 0;
}

uint32_t inner_up_unit_is_valid(uint32_t unit) { return unit == 1; }
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
    if (!text || !handle)
        return 1;
    return porttext::parse(text, handle) ? 0 : 1;
}

// ---- snooping configuration ------------------------------------------------------

uint32_t swDhcpSnoopGetPortTrust(up port, uint8_t* trust)
{
    *trust = cfgOf(port)->trust;
    return 0;
}

uint32_t swDhcpSnoopGetPortMacVerify(up port, uint8_t* macVerify)
{
    *macVerify = cfgOf(port)->macVerify;
    return 0;
}

uint32_t swDhcpSnoopGetPortCfg(up port, DhcpSnoopPortCfg* cfg)
{
    // What the record says, not all 522 bytes: the texts up to their end.
    const DhcpSnoopPortCfg* c = cfgOf(port);
    memcpy(cfg, c, offsetof(DhcpSnoopPortCfg, circuitId));
    memcpy(cfg->circuitId, c->circuitId, strnlen(c->circuitId, sizeof c->circuitId - 1) + 1);
    memcpy(cfg->remoteId, c->remoteId, strnlen(c->remoteId, sizeof c->remoteId - 1) + 1);
    return 0;
}

uint32_t swDhcpSnoopGetPortLimitRate(up port, uint8_t* rate)
{
    *rate = cfgOf(port)->limitRate;
    return 0;
}

uint32_t swDhcpSnoopGetPortDecLimitRate(up port, uint8_t* rate)
{
    *rate = cfgOf(port)->decLimitRate;
    return 0;
}

uint32_t swDhcpSnoopGetVlanEnableStatusByVid(uint16_t vid, uint8_t* enabled)
{
    *enabled = st().vlans[vid & 0xFFF];
    return 0;
}

uint32_t swDhcpSnoopGetQAddStatus(uint8_t* status)
{
    *status = 1;
    return 0;
}

uint32_t swDhcpSnoopSetPortCfg(up port, const DhcpSnoopPortCfg* cfg)
{
    memcpy(cfgOf(port), cfg, sizeof *cfg);
    return 0;
}

// ---- forwarding database and transmission ------------------------------------------

uint32_t swFdbGetEntry(FdbEntry* entry)
{
    (void)entry;
    ++st().counters.fdbLookups;
    return 1;  // unknown: unicast is flooded
}

uint32_t getMacAddress(uint8_t* mac)
{
    memcpy(mac, st().mac, 6);
    return 0;
}

uint32_t norvikPacketSend(DhcpSnoopPacket* packet)
{
    (void)packet;
    ++st().counters.sent;
    return 0;
}

void dhcpReleasePacketPool(uint8_t* frame)
{
    (void)frame;
    ++st().counters.released;
}

// ---- source guard ----------------------------------------------------------------

uint32_t swQTableSearchByIpAndSource(const SwQTableEntry* entry, uint32_t* index, uint32_t* found)
{
    (void)entry;
    *index = 0;
    *found = 0;
    return 0;
}

uint32_t swQTableDel(uint32_t unit, uint32_t index, uint32_t found)
{
    (void)unit;
    (void)index;
    (void)found;
    ++st().counters.qtableDels;
    return 0;
}

uint32_t swQTableAdd(uint32_t unit, const SwQTableEntry* entry)
{
    (void)unit;
    (void)entry;
    ++st().counters.qtableAdds;
    return 0;
}

uint32_t getIncludeIpFilter(uint32_t* flag)
{
    *flag = 0;
    return 0;
}

uint32_t getIncludeArpDefend(uint32_t* flag)
{
    *flag = 0;
    return 0;
}

// ---- stacking --------------------------------------------------------------------

uint32_t stkGetCurrentUnit(void) { return 1; }

uint32_t stkUsoRuntimeDataSync(uint32_t mid, UsoData* usoData)
{
    (void)mid;
    (void)usoData;
    ++st().counters.runtimeSyncs;
    return 0;
}

uint32_t stkUsoDataSyncCbReg(uint32_t mid, uint32_t priority, StkUsoDataSyncSetCb setCb, StkUsoDataSyncGetCb getCb,
                             StkUsoDataSyncFreeCb freeCb)
{
    (void)mid;
    (void)priority;
    (void)setCb;
    (void)getCb;
    (void)freeCb;
    return 0;
}

uint32_t stkUsoRuntimeDataHndReg(uint32_t mid, StkUsoRuntimeDataHnd hnd)
{
    (void)mid;
    (void)hnd;
    return 0;
}

uint32_t stkUsoAttachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    (void)mid;
    (void)priority;
    (void)cb;
    return 0;
}

uint32_t stkUsoDetachCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    (void)mid;
    (void)priority;
    (void)cb;
    return 0;
}

uint32_t stkUsoUpdateCbReg(uint32_t mid, uint32_t priority, StkUsoUnitCb cb)
{
    (void)mid;
    (void)priority;
    (void)cb;
    return 0;
}

}  // extern "C"
