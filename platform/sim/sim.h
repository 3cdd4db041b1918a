// Deterministic simulation of the switch platform: the control side that
// tests and the replay tool use to set up the switch, drive time and look at
// what the module did to the world. The platform functions themselves are
// the C declarations of platform/*.h, implemented in sim.cpp.
//
// Everything here is guarded by one internal lock, so the platform functions
// may be called from several threads (stress tests); a simulated run is
// otherwise single-threaded and fully deterministic: tasks are recorded, not
// started, and time moves only when advance() is called.
#pragma once

#include <array>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "snooping/dhcpSnoop.h"

namespace sim {

using Mac = std::array<uint8_t, 6>;

// ---- the whole simulation ------------------------------------------------------

// Frees everything the platform handed out and returns to the default
// switch: unit 1 of a one-unit stack, 28 physical ports (1/0/1 to 1/0/28),
// 8 port channels (po1 to po8), no VLAN with snooping, every port untrusted
// with all limits and option 82 off, table changes enabled, the debug switch
// off, the switch initialised, the clock at 0, nothing recorded, no failures
// armed, switch MAC 00:0e:5e:00:00:01.
void reset();

// ---- long runs ------------------------------------------------------------------------
// The recorders (log lines, system-log entries, transmissions, FDB look-ups,
// resource events, released frame buffers, spent timers, stack records) keep everything
// since reset() for the tests to look at. A long run (the replay tool) takes
// what it needs after each step and clears it (clearLogs, clearSyslog,
// clearSent), and switches the rest off here, so that nothing grows with the
// number of frames. reset() brings back the defaults: everything kept.
struct Recording {
    bool fdbLookups = true;     // swFdbGetEntry calls
    bool events = true;         // resource events
    bool spentTimers = true;    // a timer that fired its last time stays listed
    bool runtimeRecords = true; // records sent with stkUsoRuntimeDataSync
    // Released frame buffers stay reserved so that a second release is
    // recognised; beyond this many the oldest are given back.
    size_t releasedFrames = SIZE_MAX;
};
void setRecording(const Recording& recording);
// Only the calling thread calls the platform from now until reset() (a
// replay): the simulation's lock is not taken, and a call from any other
// thread ends the program. Off by default.
void setOneThread(bool on);

// ---- switch model ------------------------------------------------------------------

void setUnit(uint32_t unit);                      // this unit's number
void setUnits(const std::vector<uint32_t>& present);  // present stack members
void setPortCount(uint32_t unit, uint32_t ports); // physical ports of a unit (<= 64)
void setPortChannelCount(uint32_t count);         // port channels (<= 15)
void setProvision(up port, bool provisioned);
void setPortName(up port, const std::string& name); // overrides usUp2Str's text
void setSwitchMac(const Mac& mac);
Mac switchMac();
up physicalPort(uint32_t unit, uint32_t port);    // UP_MAKE(1, unit, 0, port)
up portChannel(uint32_t number);                  // UP_MAKE(2, 0, 0, number)
std::string portName(up port);                    // what usUp2Str writes
size_t usUp2StrCalls();                           // usUp2Str calls since reset()
size_t fromIndexCalls();                          // inner_up_from_index calls since reset()
PortList portListOf(up port);                     // the port's bit, by the PortList rules
std::vector<up> portsIn(const PortList& list);    // the ports whose bits are set

// ---- configuration ------------------------------------------------------------------

DhcpSnoopPortCfg& portCfg(up port);               // created zeroed on first use
void setVlanSnooping(uint16_t vid, bool enabled);
void setQAddStatus(uint8_t status);
void setIncludeIpFilter(bool on);
void setIncludeArpDefend(bool on);
// Calls of swDhcpSnoopSetPortCfg, in order.
struct SetPortCfgCall {
    up port;
    DhcpSnoopPortCfg cfg;
};
const std::vector<SetPortCfgCall>& setPortCfgCalls();

// ---- logging ------------------------------------------------------------------------

void setDebugFlag(uint32_t value);                // what debugFlagGet(46) returns
void setSwitchInited(bool inited);
void setProcessName(const std::string& name);     // pidNameGet; default "swapp"
void setModuleName(const std::string& name);      // midNameGet(46); default "DHCPSNOOP"
void setEcho(bool on);                            // also print each line to stderr

struct LogLine {
    bool error;          // written with the error prefix
    std::string text;    // the whole line as debugPrintf rendered it
    // The message alone: the text between the prefix's "] " and the suffix.
    std::string message() const;
};
const std::vector<LogLine>& logs();
void clearLogs();
// Asked with each line's format before it is formatted: a line it declines
// is neither formatted nor recorded (debugPrintf returns 0). With the debug
// switch at 1, the module's call site of such a line is then answered 0 by
// debugFlagGet, so the module does not even compose it again (composing asks
// the kernel for the thread name); a site whose line it wanted is not asked
// again (a site composes one format). nullptr (the default): every line.
// lineWanted, when given, is asked next for each line its format let
// through, with the line's arguments (a copy): a line it declines is not
// formatted or recorded either, and its site is asked again next time.
void setLogFilter(bool (*wanted)(const char* format),
                  bool (*lineWanted)(const char* format, va_list args) = nullptr);
// Messages of all lines, in order.
std::vector<std::string> messages();
// Number of lines whose message equals text.
size_t countMessage(const std::string& text);
bool hasMessage(const std::string& text);

struct SyslogEntry {
    uint32_t code;
    std::array<uintptr_t, 6> args;
    std::string portName; // argument 1 as text, for the codes whose catalogue entry says so
    std::string text;     // the entry rendered with the catalogue's text
};
const std::vector<SyslogEntry>& syslog();
void clearSyslog();
// Readable catalogue text of a code ("" for codes it does not know).
std::string syslogText(uint32_t code);

// ---- memory -------------------------------------------------------------------------

size_t outstandingAllocs();                       // pal_alloc/pal_calloc blocks not freed
size_t outstandingBytes();
size_t allocCount();                              // all successful allocations so far
size_t badFrees();                                // pal_free of unknown or freed pointers
bool isLiveAlloc(const void* p);

// ---- failure injection --------------------------------------------------------------
// Arms a failure of the primitive named by key: the next `skip` calls succeed,
// then `times` calls fail (-1: all further calls). code is what the failing
// call returns where the primitive returns a code (getters, registrations,
// transmission, source guard, queue creation: 0 or PAL_MQ_ERROR); primitives
// that return a pointer return NULL.
//
// Keys: "pal_alloc", "pal_calloc", "pal_mutex_create:<name>",
// "pal_msgQ_create:<name>", "pal_msgQ_send:<name>", "pal_thread_create:<name>",
// "add_timer:<name>", the name of each stacking, configuration, FDB,
// transmission and source-guard function ("stkUsoDetachCbReg",
// "swDhcpSnoopGetPortTrust", "norvikPacketSend", "swQTableAdd", ...).
//
// "pal_msgQ_receive:<name>" fails a receive (returns code, takes nothing);
// "pal_msgQ_receive_result:<name>" takes the record as usual but returns
// code instead of its size.
void failNext(const std::string& key, uint32_t code = 1, int skip = 0, int times = 1);
// Forgets armed failures and hooks.
void clearFailures();

// Runs fn at the start of a call of the primitive named by key (the keys of
// failNext), before the call acts or fails, outside the simulation's lock:
// the next `skip` calls pass, then `times` calls run it (-1: all further
// calls). A hook stands for another thread acting at that very moment (a
// stacking callback), or throws TaskStop to leave a task loop.
void onCall(const std::string& key, std::function<void()> fn, int skip = 0, int times = 1);
// Thrown by a hook to end a task body that never returns.
struct TaskStop {};

// Module ids passed to the platform (debug, log and stacking calls).
std::set<uint32_t> moduleIds();

// ---- resource events ---------------------------------------------------------------
// Every creation and release, in order, as text:
//   "alloc <size> <tag>", "free <size> <tag>", "mutex_create <name>",
//   "mutex_destroy <name>", "queue_create <name> <depth> <size> <option>",
//   "thread_create <name> <stack> <prio>", "thread_destroy <name>",
//   "timer_add <name> <sec>.<usec> <arg> <reps>",
//   "stk_reg detach|attach|update|datasync|runtime"
const std::vector<std::string>& events();
void clearEvents();

// ---- queues and tasks -----------------------------------------------------------------

PalMsgQ queueByName(const std::string& name);    // 0 when there is none
// Changes whenever a queue is made or reset() forgets them all: a caller
// that keeps the handle queueByName gave looks it up again only then.
uint32_t queueSerial();
size_t queueDepth(PalMsgQ q);                     // records waiting
size_t queueCapacity(PalMsgQ q);
int32_t lastSendWait(PalMsgQ q);                  // wait argument of the last send
int32_t lastReceiveWait(PalMsgQ q);               // wait argument of the last receive
uint32_t queueRecordSize(PalMsgQ q);
// Takes the oldest record without blocking; false when empty.
bool queueTake(PalMsgQ q, void* buffer, uint32_t size);

struct ThreadRec {
    std::string name;
    uint32_t stackSize;
    uint32_t priority;
    PalThreadEntry entry;
    void* arg;
    bool destroyed;
};
std::vector<ThreadRec> threads();                // created, in order
bool threadLive(const std::string& name);
uint64_t sleptMs();                               // total of pal_sleep calls

// ---- time -------------------------------------------------------------------------------

struct TimerRec {
    std::string name;
    PalTimeSpec period;
    PalTimerCallback callback;
    uint32_t arg;
    int32_t repetitions;   // left; -1 without end
    uint64_t dueMs;        // next firing on the virtual clock
    bool active;
};
uint64_t nowMs();
std::vector<TimerRec> timers();
// Time of the next firing of an active timer, or UINT64_MAX.
uint64_t nextTimerDue();
// Moves the clock to `to` (never backwards), firing every timer due on the
// way in time order (ties in creation order), each at its due time. onFire,
// when given, runs after each firing (a driver pumps queues there).
void advanceTo(uint64_t toMs, const std::function<void()>& onFire = {});
void advance(uint64_t ms, const std::function<void()>& onFire = {});

// ---- frames and transmission ----------------------------------------------------------

// A frame buffer of the packet pool holding bytes (capacity at least 2048).
uint8_t* newFrame(const std::vector<uint8_t>& bytes);
uint8_t* newFrame(const uint8_t* bytes, size_t len);
// The same with a capacity of exactly bytes.size(): AddressSanitizer then
// reports any read past the frame's end.
uint8_t* newFrameExact(const std::vector<uint8_t>& bytes);
size_t framesOutstanding();                       // handed out, not released
size_t badReleases();                             // double or unknown releases
size_t releaseCount();

struct SentPacket {
    PortList ports;
    uint32_t sendFlags;
    uint16_t vid;
    std::vector<uint8_t> frame;  // frameLen bytes copied at the call
};
const std::vector<SentPacket>& sent();
void clearSent();

// ---- forwarding database ------------------------------------------------------------

void fdbSet(const Mac& mac, uint32_t vlan, up port, uint32_t word = 0);
void fdbRemove(const Mac& mac, uint32_t vlan);
void fdbClear();
// The port of an entry, without counting as the module's look-up; false when
// there is none.
bool fdbFind(const Mac& mac, uint32_t vlan, up* port);
size_t fdbSize();
struct FdbLookup {
    Mac mac;
    uint32_t vlan;
};
const std::vector<FdbLookup>& fdbLookups();      // swFdbGetEntry calls

// ---- IP source guard ----------------------------------------------------------------

const std::vector<SwQTableEntry>& qtable();
// Adds an entry directly (a stale entry for tests).
void qtableInsert(const SwQTableEntry& entry);

// ---- stacking -----------------------------------------------------------------------

struct StkRegistrations {
    StkUsoUnitCb detach = nullptr;
    StkUsoUnitCb attach = nullptr;
    StkUsoUnitCb update = nullptr;
    StkUsoDataSyncSetCb dataSyncSet = nullptr;
    StkUsoDataSyncGetCb dataSyncGet = nullptr;
    StkUsoDataSyncFreeCb dataSyncFree = nullptr;
    StkUsoRuntimeDataHnd runtime = nullptr;
    // Module id and priority of each registration.
    uint32_t detachMid = 0, detachPriority = 0;
    uint32_t attachMid = 0, attachPriority = 0;
    uint32_t updateMid = 0, updatePriority = 0;
    uint32_t dataSyncMid = 0, dataSyncPriority = 0;
    uint32_t runtimeMid = 0;
};
const StkRegistrations& stkRegistrations();
// Bytes of every record sent with stkUsoRuntimeDataSync (len bytes each).
const std::vector<std::vector<uint8_t>>& runtimeRecords();
void clearRuntimeRecords();

// ---- files ------------------------------------------------------------------------------

// Directory that pal_file_path maps module paths into (the base name of the
// path is kept). Empty: paths are used as they are.
void setFileRoot(const std::string& dir);

}  // namespace sim
