/*
 * DHCP snooping module: shared records, constants, result codes and the
 * module's exported functions.
 *
 * The records that cross a boundary (queue record, packet descriptor, binding
 * element, FDB entry, port list) have fixed sizes and offsets on the 32-bit
 * switch; on 64-bit hosts the pointer fields make some of them larger and no
 * code may depend on their host size.
 */
#ifndef SNOOPING_DHCPSNOOP_H
#define SNOOPING_DHCPSNOOP_H

#include <stddef.h>
#include <stdint.h>

#include "platform/fdb.h"
#include "platform/log.h"
#include "platform/pal.h"
#include "platform/port.h"
#include "platform/qtable.h"
#include "platform/snoopcfg.h"
#include "platform/stack.h"

#ifdef __cplusplus
#define DHCP_SNOOP_STATIC_ASSERT(c, m) static_assert(c, m)
/* The port-handle type and the element field share the name `up`. */
#define DHCP_SNOOP_UP_T ::up
extern "C" {
#else
#define DHCP_SNOOP_STATIC_ASSERT(c, m) _Static_assert(c, m)
#define DHCP_SNOOP_UP_T up
#endif

/* ---- identities, names and sizes ------------------------------------- */

#define MID_DHCP 46u

#define DHCP_SNOOP_CFG_FILE_PATH "/norvik/usrapp/data/dhcpSnoop.cfg"
#define DHCP_SNOOP_MEM_TAG "dhcpSnoop"

#define DHCP_SNOOP_POOL_SIZE 1024u
#define DHCP_SNOOP_HASH_SIZE 128u
#define DHCP_SNOOP_HASH_MASK 127u

#define DHCP_SNOOP_QUEUE_NAME "/dhcpSnoopQue"
#define DHCP_SNOOP_QUEUE_DEPTH 512u
#define DHCP_SNOOP_TASK_NAME "DSTask"
#define DHCP_SNOOP_TASK_STACK 30720u
#define DHCP_SNOOP_TASK_PRIORITY 168u
#define DHCP_SNOOP_TIMER_NAME "DSTimer"
#define DHCP_SNOOP_NEW_DATA_SIZE 2048u

#define DHCP_SNOOP_SAVE_QUEUE_NAME "/updateDynTableQ"
#define DHCP_SNOOP_SAVE_QUEUE_DEPTH 2u
#define DHCP_SNOOP_SAVE_MUTEX_NAME "upMutex"
#define DHCP_SNOOP_SAVE_TASK_NAME "dynEntrySaveTask"
#define DHCP_SNOOP_SAVE_TASK_STACK 33792u
#define DHCP_SNOOP_SAVE_TASK_PRIORITY 170u

#define DHCP_SNOOP_FDB_CACHE_SLOTS 100u
#define DHCP_SNOOP_FDB_MUTEX_NAME "getFdbEntryMutex"
#define DHCP_SNOOP_FDB_QUEUE_NAME "/getFdbEntryMsgQue"
#define DHCP_SNOOP_FDB_QUEUE_DEPTH 10u
#define DHCP_SNOOP_FDB_TASK_NAME "getFdbEntryTask"
#define DHCP_SNOOP_FDB_TASK_STACK 1024u
#define DHCP_SNOOP_FDB_TASK_PRIORITY 171u

#define DHCP_SNOOP_POOL_MUTEX_NAME "tableMemPoolMutex"
#define DHCP_SNOOP_QUEUE_OPTION 4u

/* Port indexes of the rate limits: 1 to 78 (79 counters, entry index - 1). */
#define DHCP_SNOOP_PORT_COUNTERS 79u
/* Log-suppression bitmaps cover every index a counter can have. */
#define DHCP_SNOOP_FLAG_WORDS ((DHCP_SNOOP_PORT_COUNTERS + 31u) / 32u)
/* Index offset of port channels. */
#define DHCP_SNOOP_PORT_CHANNEL_BASE 64u

/* ---- result codes ----------------------------------------------------- */

#define DHCP_SNOOP_OK 0u
#define DHCP_SNOOP_E_PARAM 1u
#define DHCP_SNOOP_E_NO_MEMORY 4u
#define DHCP_SNOOP_E_FAIL 0xFFFFFFFFu
#define DHCP_SNOOP_E_INIT 1301u
#define DHCP_SNOOP_E_PACKET 1304u      /* frame or BOOTP header invalid */
#define DHCP_SNOOP_E_COOKIE 1305u      /* magic cookie missing */
#define DHCP_SNOOP_E_CHADDR 1306u      /* CHADDR differs from the source MAC */
#define DHCP_SNOOP_E_RATE_LIMIT 1311u
#define DHCP_SNOOP_E_FILE_OPEN 1312u
#define DHCP_SNOOP_E_FILE_WRITE 1313u
#define DHCP_SNOOP_E_FILE_READ 1314u
#define DHCP_SNOOP_E_FILE_HEADER 1315u
#define DHCP_SNOOP_E_FILE_LINE 1316u
#define DHCP_SNOOP_E_STACK_SYNC 1320u

/* ---- system-log codes -------------------------------------------------- */

#define DHCP_SNOOP_LOG_LOAD_OK 0x6C200002u
#define DHCP_SNOOP_LOG_LOAD_FAIL 0x4C200003u
#define DHCP_SNOOP_LOG_RATE_OVERFLOW 0x4C21010Cu    /* arg 1: port name */
#define DHCP_SNOOP_LOG_DECLINE_OVERFLOW 0x4C21010Du /* arg 1: port name */

/* ---- tables, message types, send flags -------------------------------- */

#define DHCP_SNOOP_ELEMENT_DYNAMIC 0u
#define DHCP_SNOOP_ELEMENT_REQUEST 1u

/* Types of DhcpSnoopMsg. */
#define DHCP_SNOOP_MSG_PACKET 0u
#define DHCP_SNOOP_MSG_TIMER 1u
#define DHCP_SNOOP_MSG_RATE_FLOW_TIMER 2u
#define DHCP_SNOOP_MSG_DECLINE_TIMER 3u
#define DHCP_SNOOP_MSG_CFG_CHANGE 4u
#define DHCP_SNOOP_MSG_UNUSED_5 5u
#define DHCP_SNOOP_MSG_UNUSED_6 6u
#define DHCP_SNOOP_MSG_UNUSED_7 7u
#define DHCP_SNOOP_MSG_UNUSED_8 8u
#define DHCP_SNOOP_MSG_PORT_CFG_9 9u
#define DHCP_SNOOP_MSG_PORT_CFG_10 10u
#define DHCP_SNOOP_MSG_DEL_BINDING 11u
#define DHCP_SNOOP_MSG_TYPES 12u

/* Message types held in an element's `type` (option 53 values, then BOOTP). */
#define DHCP_SNOOP_TYPE_NONE 0u
#define DHCP_SNOOP_TYPE_DISCOVER 1u
#define DHCP_SNOOP_TYPE_OFFER 2u
#define DHCP_SNOOP_TYPE_REQUEST 3u
#define DHCP_SNOOP_TYPE_DECLINE 4u
#define DHCP_SNOOP_TYPE_ACK 5u
#define DHCP_SNOOP_TYPE_NAK 6u
#define DHCP_SNOOP_TYPE_RELEASE 7u
#define DHCP_SNOOP_TYPE_INFORM 8u
#define DHCP_SNOOP_TYPE_BOOTP_REQUEST 9u
#define DHCP_SNOOP_TYPE_BOOTP_REPLY 10u

#define SEND_FLAG_TX 0x01u
#define SEND_FLAG_FLOOD 0x10u
#define SEND_FLAG_BY_FDB 0x20u
#define SEND_FLAG_0X40 0x40u

/* Lifetime of an entry that never expires. */
#define DHCP_SNOOP_TTL_FOREVER 0xFFFFFFFFu
/* Lifetime of a parsed element without a lease option. */
#define DHCP_SNOOP_TTL_DEFAULT 64u

/* ---- records ----------------------------------------------------------- */

/* A set of ports: physical ports of units in words (unit-1)*3..+2, port
 * channels in words 3..5. */
typedef struct PortList {
    uint32_t word[6];
} PortList;

/* Forwarding-database record (platform layout). */
struct FdbEntry {
    uint8_t mac[6];
    uint8_t zero[2];
    uint32_t vlan;
    uint32_t port;  /* port handle `up` */
    uint32_t word;  /* second result word, never interpreted */
};

/* The binding element: a pending request or a confirmed binding. */
typedef struct DhcpSnoopElement {
    uint32_t ttl;          /* aging ticks left; DHCP_SNOOP_TTL_FOREVER never expires */
    uint32_t opt82Pos;     /* frame offset of option 82, 0 = none (transient) */
    uint32_t endOptPos;    /* option byte count, then frame offset of END (transient) */
    uint16_t vlan;
    uint8_t type;          /* DHCP_SNOOP_TYPE_* */
    uint8_t isReuse;       /* 0 when the frame carried a server identifier */
    uint8_t clientMac[6];
    uint8_t isBroadcast;
    uint8_t clientIp[4];   /* network order, unaligned: byte access only */
    uint8_t xid[4];        /* as on the wire */
    uint8_t reserved;
    DHCP_SNOOP_UP_T up;    /* port on which the client was learned */
    struct DhcpSnoopElement *next;
    struct DhcpSnoopElement *prev;
} DhcpSnoopElement;

/* Descriptor of one trapped frame. */
struct DhcpSnoopPacket {
    PortList ports;        /* on arrival: the receive port */
    uint32_t platformWord;
    uint8_t *frame;        /* Ethernet header; buffer of the packet pool */
    uint32_t sendFlags;    /* SEND_FLAG_* */
    uint32_t frameLen;
    uint16_t vid;
    uint8_t platformBytes[18];
};

/* Record of the main queue. Senders clear it whole before filling it. */
typedef struct DhcpSnoopMsg {
    uint8_t type;          /* DHCP_SNOOP_MSG_* */
    uint8_t pad[3];
    DhcpSnoopPacket packet;    /* type 0 */
    DhcpSnoopElement element;  /* types 2, 3, 9, 10: up; type 11: search key */
    uint8_t pad2[4];
} DhcpSnoopMsg;

/* The module's service table. */
typedef struct DhcpSnoopLib {
    uint32_t (*getMacAddress)(uint8_t *mac); /* slot 0 */
    void (*slot1)(void);
    void (*slot2)(void);
    void (*slot3)(void);
    void (*slot4)(void);
    uint32_t (*fdbGetEntry)(FdbEntry *entry); /* slot 5 */
} DhcpSnoopLib;

DHCP_SNOOP_STATIC_ASSERT(sizeof(PortList) == 24, "PortList is 24 bytes");
DHCP_SNOOP_STATIC_ASSERT(sizeof(FdbEntry) == 20, "FdbEntry is 20 bytes");
DHCP_SNOOP_STATIC_ASSERT(offsetof(FdbEntry, vlan) == 8, "FdbEntry vlan at 8");
DHCP_SNOOP_STATIC_ASSERT(offsetof(FdbEntry, port) == 12, "FdbEntry port at 12");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, vlan) == 12, "element vlan at 12");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, clientMac) == 16, "element MAC at 16");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, clientIp) == 23, "element clientIp at 23");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, xid) == 27, "element xid at 27");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, up) == 32, "element up at 32");

#if UINTPTR_MAX == 0xFFFFFFFFu
/* The switch's layout. */
DHCP_SNOOP_STATIC_ASSERT(sizeof(DhcpSnoopElement) == 44, "element is 44 bytes");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, next) == 36, "element next at 36");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopElement, prev) == 40, "element prev at 40");
DHCP_SNOOP_STATIC_ASSERT(sizeof(DhcpSnoopPacket) == 60, "packet descriptor is 60 bytes");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopPacket, frame) == 28, "packet frame at 28");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopPacket, sendFlags) == 32, "packet sendFlags at 32");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopPacket, frameLen) == 36, "packet frameLen at 36");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopPacket, vid) == 40, "packet vid at 40");
DHCP_SNOOP_STATIC_ASSERT(sizeof(DhcpSnoopMsg) == 112, "queue record is 112 bytes");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopMsg, packet) == 4, "record packet at 4");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopMsg, element) == 64, "record element at 64");
DHCP_SNOOP_STATIC_ASSERT(offsetof(DhcpSnoopMsg, element) + offsetof(DhcpSnoopElement, up) == 96,
                         "record element up at 96");
#endif

/* Sizes of the stack wire records (encoded field by field, big-endian). */
#define DHCP_SNOOP_ELEMENT_IMAGE_SIZE 44u
#define DHCP_SNOOP_RUNTIME_RECORD_SIZE 48u
#define DHCP_SNOOP_SNAPSHOT_HEAD_SIZE 8u
#define DHCP_SNOOP_SYNC_ADD 1u
#define DHCP_SNOOP_SYNC_DELETE 2u

/* ---- start-up, main task and logging ------------------------------------ */

uint32_t dhcpSnoopInit(void);
uint32_t dhcpSnoopStkInit(void);
/* Task body of "DSTask"; never returns. */
void dhcpSnoopTask(void *arg);
/* The work of "DSTask" for one received record. */
void dhcpSnoopTaskHandleMsg(DhcpSnoopMsg *msg);
uint32_t dhcpSnoopSendMsgToMainQueue(DhcpSnoopMsg *msg, int32_t timeout);
/* Timer callbacks: the one-second tick (argument unused) and the per-port
 * 30-second timers (argument: the port index). */
uint32_t dhcpSnoopSendTimerMsgToDhcp(uint32_t unused);
uint32_t dhcpSnoopSendRateFlowTimerMsgToDhcp(uint32_t index);
uint32_t dhcpSnoopSendDeclineTimerMsgToDhcp(uint32_t index);
uint32_t dhcpSnoopAttachCb(uint32_t unitMask, void *arg);
uint32_t dhcpSnoopUpdateCb(uint32_t unitMask, void *arg);
uint32_t dhcpSnoopSetDebugLevel(uint32_t level, uint32_t flag);

/* ---- packet intake ------------------------------------------------------ */

uint32_t dhcpSnoopPacketHandle(DhcpSnoopMsg *inputPacket);
/* mode 0: options behind the cookie, 1: file field, 2: sname field. */
int32_t dhcpSnoopDhcpParser(DhcpSnoopPacket *packet, uint8_t *area, uint32_t mode,
                            DhcpSnoopElement *element);
void debugPacket(DhcpSnoopPacket *packet, DhcpSnoopElement *element);

/* ---- policy and rate limits --------------------------------------------- */

uint32_t dhcpSnoopTableManage(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement);
uint32_t dhcpSnoopRateLimit(DhcpSnoopPacket *packet, DHCP_SNOOP_UP_T upPkt);

/* ---- forwarding --------------------------------------------------------- */

uint32_t dhcpSnoopPacketSetSendFlag(DhcpSnoopPacket *packet, PortList *list);
uint32_t dhcpSnoopPacketSend(DhcpSnoopPacket *packet, PortList list);
uint32_t dhcpSnoopFdbGetEntry(FdbEntry *entry);
/* Task body of "getFdbEntryTask"; returns only when the cache is missing. */
void dhcpSnoopGetFdbEntryTask(void *arg);
/* The task's start (zeroes the cache; non-zero: no cache, the task ends) and
 * its work for one received request. */
uint32_t dhcpSnoopGetFdbEntryTaskStart(void);
void dhcpSnoopGetFdbEntryTaskHandle(FdbEntry *msg);
uint32_t dhcpSnoopPacketForward(DhcpSnoopPacket *pkt, DhcpSnoopElement *ele);
uint16_t dhcpSnoopUdpChecksum(const uint8_t *ip);

/* ---- binding tables ------------------------------------------------------ */

DhcpSnoopElement *dhcpSnoopGetMem(void);
uint32_t dhcpSnoopFreeMem(DhcpSnoopElement *element);
uint32_t dhcpSnoopElementAddNew(DhcpSnoopElement *element, uint32_t tableType);
uint32_t dhcpSnoopElementDelete(DhcpSnoopElement *element, uint32_t tableType);
DhcpSnoopElement *dhcpSnoopElementSearchByIpVlanMac(const DhcpSnoopElement *key, uint32_t tableType);
DhcpSnoopElement *dhcpSnoopElementSearchByMacAndVlan(const DhcpSnoopElement *key, uint32_t tableType);
void dhcpSnoopCheckAging(uint32_t tableType);
uint32_t dhcpSnoopAdd2QTable(DhcpSnoopElement *element);
uint32_t dhcpSnoopDelFromQTable(DhcpSnoopElement *element);

/* ---- persistence ----------------------------------------------------------- */

uint32_t dhcpSnoopSaveDynEntry(DhcpSnoopElement **table, const char *path);
/* Task body of "dynEntrySaveTask"; returns after a failed save. */
void dhcpSnoopSaveDynEntryTask(void *arg);
/* The task's work for one received request: 0 = go on waiting, non-zero =
 * the save failed and the task ends. */
uint32_t dhcpSnoopSaveDynEntryTaskStep(void);
uint32_t dhcpSnoopLoadDynEntry(const char *path);
int32_t dhcpSnoopHexStrtoInt(const char *text, uint32_t *value);
int32_t dhcpSnoopParseVlanStr(const char *text, uint16_t *vlan);
int32_t dhcpSnoopParseChksumStr(const char *text, uint32_t *value);
int32_t dhcpSnoopParsePortStr(const char *text, DHCP_SNOOP_UP_T *port);

/* ---- stack synchronisation -------------------------------------------------- */

uint32_t dhcpSnoopDataSyncGetCb(UsoData *usoData);
uint32_t dhcpSnoopDataSyncSetCb(UsoData *usoData, void *arg);
uint32_t dhcpSnoopDataSyncFreeCb(UsoData *usoData);
uint32_t dhcpSnoopRuntimeDataHnd(UsoData *usoData);
uint32_t dhcpSnoopElementDelByUnit(uint32_t unit, uint32_t tableType);
uint32_t dhcpSnoopDetachCb(uint32_t unitMask, void *arg);

#ifdef __cplusplus
}
#endif

#endif
