/*
 * The module's own state and helpers, shared by its source files (and read
 * by its tests). Not for other modules.
 */
#ifndef SNOOPING_DHCPSNOOPINTERNAL_H
#define SNOOPING_DHCPSNOOPINTERNAL_H

#include <string.h>
#include <sys/prctl.h>

#include "snooping/dhcpSnoop.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- resources made at start-up ------------------------------------------ */

extern DhcpSnoopLib DSLib;
extern DhcpSnoopElement *tableMemPool;
extern DhcpSnoopElement *tableMemPoolUnused;
extern PalMutex *tableMemPoolMutex;
extern uint32_t mallocCounter;
extern DhcpSnoopElement **dynamicTable;
extern DhcpSnoopElement **requestTable;
extern PalMsgQ dhcpSnoopQueue;
extern PalThread *DSTaskId;
extern uint8_t *sNewData;
extern PalMsgQ updateDynTableQ;
extern PalMutex *upMutexId;
extern PalThread *dynEntrySaveTask;
extern FdbEntry *gFdbEntryPool;
extern PalMutex *getFdbEntryMutex;
extern PalMsgQ getFdbEntryMsgQue;
extern PalThread *getFdbEntryTask;
extern uint8_t initFlag;
extern uint8_t upMsgCnt;
extern uint32_t debugLevel;

/* ---- the frame being handled (main task only) ------------------------------ */

extern uint8_t *macHeader;
extern uint8_t *ipHeader;
extern uint8_t *udpHeader;
extern uint8_t *dhcpHeader;
extern uint8_t *options;
extern uint32_t ipHeaderPos;
extern uint32_t udpHeaderPos;
extern uint32_t dhcpHeaderPos;
extern uint32_t optionsPos;
extern DHCP_SNOOP_UP_T rcvPort;

/* ---- rate limits (main task only) ------------------------------------------ */

extern uint32_t portCounter[DHCP_SNOOP_PORT_COUNTERS];
extern uint32_t declineCounter[DHCP_SNOOP_PORT_COUNTERS];
extern uint32_t logFlagPortFlow[DHCP_SNOOP_FLAG_WORDS];
extern uint32_t decFlowFlag[DHCP_SNOOP_FLAG_WORDS];

extern const uint8_t magicCookie[4];
extern const uint8_t bcMac[6];

/* Debug-level bits. */
#define DHCP_SNOOP_DEBUG_LEVEL_ENTRY 1u
#define DHCP_SNOOP_DEBUG_LEVEL_DUMP 2u

/* Forgets every resource and all state, as before start-up. The platform
 * owns the memory; programs that restart the module (tests) reset the
 * platform as well. */
void dhcpSnoopResetState(void);

/* The pipeline's header checks: sets the frame globals and the element's
 * endOptPos (option bytes the UDP length claims). 0, or 1304 after the error
 * lines; 1 for a null argument or frame. */
uint32_t dhcpSnoopPacketValidate(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *pElement,
                                 const uint8_t *switchMac);

/* Flat rate-limit index of a port handle, kept to 8 bits (0: no index). */
uint32_t dhcpSnoopPortIndex(DHCP_SNOOP_UP_T handle);

/* ---- links shared across threads ---------------------------------------------
 * Chain walks take no lock while other threads (stacking callbacks, the save
 * task) may relink. Every access to a link field, a bucket head or the pool
 * count goes through these so that it is one atomic access. */

static inline DhcpSnoopElement *dhcpSnoopNext(const DhcpSnoopElement *e)
{
    return __atomic_load_n(&e->next, __ATOMIC_ACQUIRE);
}
static inline DhcpSnoopElement *dhcpSnoopPrev(const DhcpSnoopElement *e)
{
    return __atomic_load_n(&e->prev, __ATOMIC_ACQUIRE);
}
static inline void dhcpSnoopSetNext(DhcpSnoopElement *e, DhcpSnoopElement *v)
{
    __atomic_store_n(&e->next, v, __ATOMIC_RELEASE);
}
static inline void dhcpSnoopSetPrev(DhcpSnoopElement *e, DhcpSnoopElement *v)
{
    __atomic_store_n(&e->prev, v, __ATOMIC_RELEASE);
}
static inline DhcpSnoopElement *dhcpSnoopHead(DhcpSnoopElement **table, uint32_t bucket)
{
    return __atomic_load_n(&table[bucket], __ATOMIC_ACQUIRE);
}
static inline void dhcpSnoopSetHead(DhcpSnoopElement **table, uint32_t bucket, DhcpSnoopElement *v)
{
    __atomic_store_n(&table[bucket], v, __ATOMIC_RELEASE);
}
/* Byte fields copied one atomic access per byte, written out: the compiler
 * does not unroll loops of atomic accesses, and the element is copied
 * several times a frame. */
#define DHCP_SNOOP_LOAD_BYTE_(d, s, i) (d)[i] = __atomic_load_n(&(s)[i], __ATOMIC_RELAXED)
#define DHCP_SNOOP_STORE_BYTE_(d, s, i) __atomic_store_n(&(d)[i], (s)[i], __ATOMIC_RELAXED)
static inline void dhcpSnoopLoad4(uint8_t *d, const uint8_t *s)
{
    DHCP_SNOOP_LOAD_BYTE_(d, s, 0);
    DHCP_SNOOP_LOAD_BYTE_(d, s, 1);
    DHCP_SNOOP_LOAD_BYTE_(d, s, 2);
    DHCP_SNOOP_LOAD_BYTE_(d, s, 3);
}
static inline void dhcpSnoopLoad6(uint8_t *d, const uint8_t *s)
{
    dhcpSnoopLoad4(d, s);
    DHCP_SNOOP_LOAD_BYTE_(d, s, 4);
    DHCP_SNOOP_LOAD_BYTE_(d, s, 5);
}
static inline void dhcpSnoopStore4(uint8_t *d, const uint8_t *s)
{
    DHCP_SNOOP_STORE_BYTE_(d, s, 0);
    DHCP_SNOOP_STORE_BYTE_(d, s, 1);
    DHCP_SNOOP_STORE_BYTE_(d, s, 2);
    DHCP_SNOOP_STORE_BYTE_(d, s, 3);
}
static inline void dhcpSnoopStore6(uint8_t *d, const uint8_t *s)
{
    dhcpSnoopStore4(d, s);
    DHCP_SNOOP_STORE_BYTE_(d, s, 4);
    DHCP_SNOOP_STORE_BYTE_(d, s, 5);
}
/* The binding fields, one atomic access each. A walker may still stand on an
 * element that another thread has just removed, given back and handed out
 * again: its reads must not race the pool's clearing or the new taker's
 * filling. Takers fill through dhcpSnoopElementStore (or the wire decoder). */
static inline void dhcpSnoopElementLoad(const DhcpSnoopElement *e, DhcpSnoopElement *v)
{
    v->ttl = __atomic_load_n(&e->ttl, __ATOMIC_RELAXED);
    v->opt82Pos = __atomic_load_n(&e->opt82Pos, __ATOMIC_RELAXED);
    v->endOptPos = __atomic_load_n(&e->endOptPos, __ATOMIC_RELAXED);
    v->vlan = __atomic_load_n(&e->vlan, __ATOMIC_RELAXED);
    v->type = __atomic_load_n(&e->type, __ATOMIC_RELAXED);
    v->isReuse = __atomic_load_n(&e->isReuse, __ATOMIC_RELAXED);
    dhcpSnoopLoad6(v->clientMac, e->clientMac);
    v->isBroadcast = __atomic_load_n(&e->isBroadcast, __ATOMIC_RELAXED);
    dhcpSnoopLoad4(v->clientIp, e->clientIp);
    dhcpSnoopLoad4(v->xid, e->xid);
    v->reserved = __atomic_load_n(&e->reserved, __ATOMIC_RELAXED);
    v->up = __atomic_load_n(&e->up, __ATOMIC_RELAXED);
    v->next = dhcpSnoopNext(e);
    v->prev = dhcpSnoopPrev(e);
}
/* Every field but the links. */
static inline void dhcpSnoopElementStore(DhcpSnoopElement *e, const DhcpSnoopElement *v)
{
    __atomic_store_n(&e->ttl, v->ttl, __ATOMIC_RELAXED);
    __atomic_store_n(&e->opt82Pos, v->opt82Pos, __ATOMIC_RELAXED);
    __atomic_store_n(&e->endOptPos, v->endOptPos, __ATOMIC_RELAXED);
    __atomic_store_n(&e->vlan, v->vlan, __ATOMIC_RELAXED);
    __atomic_store_n(&e->type, v->type, __ATOMIC_RELAXED);
    __atomic_store_n(&e->isReuse, v->isReuse, __ATOMIC_RELAXED);
    dhcpSnoopStore6(e->clientMac, v->clientMac);
    __atomic_store_n(&e->isBroadcast, v->isBroadcast, __ATOMIC_RELAXED);
    dhcpSnoopStore4(e->clientIp, v->clientIp);
    dhcpSnoopStore4(e->xid, v->xid);
    __atomic_store_n(&e->reserved, v->reserved, __ATOMIC_RELAXED);
    __atomic_store_n(&e->up, v->up, __ATOMIC_RELAXED);
}
/* All zero, links included (what memset would do, without the race). */
static inline void dhcpSnoopElementClear(DhcpSnoopElement *e)
{
    DhcpSnoopElement zero;

    memset(&zero, 0, sizeof(zero));
    dhcpSnoopElementStore(e, &zero);
    /* Padding before the links on 64-bit hosts; no one reads it. */
    memset((uint8_t *)e + offsetof(DhcpSnoopElement, up) + sizeof(e->up), 0,
           offsetof(DhcpSnoopElement, next) - offsetof(DhcpSnoopElement, up) - sizeof(e->up));
    dhcpSnoopSetNext(e, NULL);
    dhcpSnoopSetPrev(e, NULL);
}

/* Non-zero while the element is linked in the selected table. Walkers end a
 * chain at an element that is not: they have run off the table behind a
 * removal (into the free list or another taker's hands). */
uint32_t dhcpSnoopElementFiledIn(const DhcpSnoopElement *e, uint32_t tableType);
/* For an element filed in the selected table whose key (IP, VLAN, MAC) is
 * all zero: marks it as no longer filed, links untouched, and returns 1; 0
 * for any other element. Checked under the table lock, so that only one
 * thread ever gives such an element back. */
uint32_t dhcpSnoopElementClaimNull(DhcpSnoopElement *e, uint32_t tableType);
/* Non-zero when e is an element of the pool (not a copy on a stack). */
uint32_t dhcpSnoopElementIsPooled(const DhcpSnoopElement *e);
/* dhcpSnoopElementAddNew that also says whether this call linked the element
 * (0: the caller still owns it and frees it). */
uint32_t dhcpSnoopElementAddNewEx(DhcpSnoopElement *element, uint32_t tableType, uint32_t *filed);
/* dhcpSnoopElementDelete that also says whether this call unlinked (and
 * freed) the element; 1 with *unlinked 0 and no message when it is not in
 * the table (already removed by another thread). */
uint32_t dhcpSnoopElementDeleteEx(DhcpSnoopElement *pElement, uint32_t tableType, uint32_t *unlinked);

static inline uint32_t dhcpSnoopMallocCount(void)
{
    return __atomic_load_n(&mallocCounter, __ATOMIC_RELAXED);
}
static inline uint32_t dhcpSnoopDebugLevel(void)
{
    return __atomic_load_n(&debugLevel, __ATOMIC_RELAXED);
}

/* ---- logging ------------------------------------------------------------------
 * Debug lines are written only with the module's debug switch on; error lines
 * also while the switch is starting. The arguments of a line are evaluated
 * only when it is written. */

#define DHCP_SNOOP_DEBUG_PREFIX "[<%s/%s>:<%s/%s()/%d>]"
#define DHCP_SNOOP_DEBUG_SUFFIX "\r\n"
#define DHCP_SNOOP_ERROR_PREFIX "\x1b[31;49m[<%s/%s>:<%s/%s()/%d>]"
#define DHCP_SNOOP_ERROR_SUFFIX "\x1b[0m\r\n"

typedef struct DhcpSnoopLogBuf {
    char threadName[32];
    char format[256];
} DhcpSnoopLogBuf;

/* Fills the thread name and composes prefix, blank, message and suffix. */
void dhcpSnoopLogCompose(DhcpSnoopLogBuf *buf, const char *prefix, const char *message,
                         const char *suffix);
uint32_t dhcpSnoopErrorEnabled(void);

/* Never called: lets the compiler check each message against its arguments. */
static inline void dhcpSnoopLogFormatCheck(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static inline void dhcpSnoopLogFormatCheck(const char *fmt, ...) { (void)fmt; }

#define DHCP_SNOOP_LOG_LINE_(prefix, suffix, msg, ...)                                          \
    do {                                                                                        \
        DhcpSnoopLogBuf dsLogBuf_;                                                              \
        if (0)                                                                                  \
            dhcpSnoopLogFormatCheck(msg, ##__VA_ARGS__);                                        \
        dhcpSnoopLogCompose(&dsLogBuf_, prefix, msg, suffix);                                   \
        debugPrintf(MID_DHCP, dsLogBuf_.format, pidNameGet(pidGetCurrent()),                    \
                    dsLogBuf_.threadName, midNameGet(MID_DHCP), __func__, (int)__LINE__,        \
                    ##__VA_ARGS__);                                                             \
    } while (0)

#define DHCP_SNOOP_DEBUG(msg, ...)                                                              \
    do {                                                                                        \
        if (debugFlagGet(MID_DHCP) == 1)                                                        \
            DHCP_SNOOP_LOG_LINE_(DHCP_SNOOP_DEBUG_PREFIX, DHCP_SNOOP_DEBUG_SUFFIX, msg,         \
                                 ##__VA_ARGS__);                                                \
    } while (0)

#define DHCP_SNOOP_ERROR(msg, ...)                                                              \
    do {                                                                                        \
        if (dhcpSnoopErrorEnabled())                                                            \
            DHCP_SNOOP_LOG_LINE_(DHCP_SNOOP_ERROR_PREFIX, DHCP_SNOOP_ERROR_SUFFIX, msg,         \
                                 ##__VA_ARGS__);                                                \
    } while (0)

/* "Ensure %s failed." with the text of the condition. */
#define DHCP_SNOOP_ENSURE_FAILED(condText) DHCP_SNOOP_ERROR("Ensure %s failed.", condText)
/* "E - %d call %s failed." with a call's result and its source text. */
#define DHCP_SNOOP_CALL_FAILED(rv, callText) DHCP_SNOOP_ERROR("E - %d call %s failed.", (int)(rv), callText)

/* Runs call into rv and reports it when non-zero, with the call's own text. */
#define DHCP_SNOOP_CALL(rv, call)                                                               \
    do {                                                                                        \
        (rv) = (call);                                                                          \
        if ((rv) != 0)                                                                          \
            DHCP_SNOOP_CALL_FAILED(rv, #call);                                                  \
    } while (0)

/* True when the debug switch is on: guards work done only for debug lines. */
#define DHCP_SNOOP_DEBUG_ON() (debugFlagGet(MID_DHCP) == 1)

/* The port's printable name in text (UP_STR_BUF bytes), returned for use as
 * a line's argument: there it is asked for only when the line is written,
 * where a separate guard would ask for it whenever debug is on. */
static inline const char *dhcpSnoopUpText(DHCP_SNOOP_UP_T handle, char *text)
{
    memset(text, 0, UP_STR_BUF);
    usUp2Str(handle, text, 1);
    return text;
}

/* The text and result of snprintf(line, size, "%02x.%02x.%02x.%02x\t%02x:%02x:%02x:%02x:%02x:%02x"
 * "\t%04x\t%11s\t%08x\t%08x\t\r\n", ...), the binding file's line; of portText
 * at most UP_STR_BUF - 1 characters are read. */
/* The sum of the big-endian 16-bit words of p's first len bytes (len even),
 * as a plain integer: the same as adding them one by one. */
uint32_t dhcpSnoopSum16(const uint8_t *p, uint32_t len);
int dhcpSnoopBindingLineFormat(char *line, size_t size, const uint8_t ip[4], const uint8_t mac[6],
                               uint32_t vlan, const char *portText, uint32_t ttl, uint32_t check);

#ifdef __cplusplus
}
#endif

#endif
