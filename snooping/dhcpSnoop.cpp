// Start-up, the main task and its queue, logging and debug levels.
#include <stdio.h>
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

DhcpSnoopLib DSLib;
DhcpSnoopElement *tableMemPool;
DhcpSnoopElement *tableMemPoolUnused;
PalMutex *tableMemPoolMutex;
uint32_t mallocCounter;
DhcpSnoopElement **dynamicTable;
DhcpSnoopElement **requestTable;
PalMsgQ dhcpSnoopQueue;
PalThread *DSTaskId;
uint8_t *sNewData;
PalMsgQ updateDynTableQ;
PalMutex *upMutexId;
PalThread *dynEntrySaveTask;
FdbEntry *gFdbEntryPool;
PalMutex *getFdbEntryMutex;
PalMsgQ getFdbEntryMsgQue;
PalThread *getFdbEntryTask;
uint8_t initFlag;
uint8_t upMsgCnt;
uint32_t debugLevel;

uint8_t *macHeader;
uint8_t *ipHeader;
uint8_t *udpHeader;
uint8_t *dhcpHeader;
uint8_t *options;
uint32_t ipHeaderPos;
uint32_t udpHeaderPos;
uint32_t dhcpHeaderPos;
uint32_t optionsPos;
DHCP_SNOOP_UP_T rcvPort;

uint32_t portCounter[DHCP_SNOOP_PORT_COUNTERS];
uint32_t declineCounter[DHCP_SNOOP_PORT_COUNTERS];
uint32_t logFlagPortFlow[DHCP_SNOOP_FLAG_WORDS];
uint32_t decFlowFlag[DHCP_SNOOP_FLAG_WORDS];

const uint8_t magicCookie[4] = {0x63, 0x82, 0x53, 0x63};
const uint8_t bcMac[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

/* ---- logging ---------------------------------------------------------------- */

void dhcpSnoopLogCompose(DhcpSnoopLogBuf *buf, const char *prefix, const char *message,
                         const char *suffix)
{
    memset(buf->threadName, 0, sizeof(buf->threadName));
    memset(buf->format, 0, sizeof(buf->format));
    prctl(PR_GET_NAME, buf->threadName);
    snprintf(buf->format, sizeof(buf->format), "%s %s%s", prefix, message, suffix);
}

uint32_t dhcpSnoopErrorEnabled(void)
{
    /* Errors are always shown while the switch starts, afterwards only with
     * the module's debug switch on. */
    return debugFlagGet(MID_DHCP) != 0 || isSwitchInited() == 0;
}

uint32_t dhcpSnoopSetDebugLevel(uint32_t level, uint32_t flag)
{
    if (level > 3 || flag > 1)
        return DHCP_SNOOP_E_PARAM;

    uint32_t old = dhcpSnoopDebugLevel();
    DHCP_SNOOP_DEBUG("flag:%d, level:%d, debugLevel:%u", (int)flag, (int)level, old);
    if (flag == 0)
        __atomic_fetch_or(&debugLevel, level, __ATOMIC_RELAXED);
    else
        __atomic_fetch_and(&debugLevel, ~level, __ATOMIC_RELAXED);
    DHCP_SNOOP_DEBUG("debugLevel:%u", dhcpSnoopDebugLevel());
    return DHCP_SNOOP_OK;
}

/* ---- start-up ------------------------------------------------------------------ */

/* A failed resource check of start-up: report it with the condition's text. */
#define DHCP_SNOOP_INIT_ENSURE(cond)                                                        \
    do {                                                                                    \
        if (!(cond)) {                                                                      \
            DHCP_SNOOP_ENSURE_FAILED("(" #cond ")");                                        \
            goto failed;                                                                    \
        }                                                                                   \
    } while (0)

uint32_t dhcpSnoopStkInit(void)
{
    uint32_t rv;

    DHCP_SNOOP_CALL(rv, stkUsoDetachCbReg(MID_DHCP, STK_USO_DETACH_PRI_DHCPSNOOP, dhcpSnoopDetachCb));
    if (rv != 0)
        return rv;
    DHCP_SNOOP_CALL(rv, stkUsoAttachCbReg(MID_DHCP, STK_USO_ATTACH_PRI_DHCPSNOOP, dhcpSnoopAttachCb));
    if (rv != 0)
        return rv;
    DHCP_SNOOP_CALL(rv, stkUsoUpdateCbReg(MID_DHCP, STK_USO_UPDATE_PRI_DHCPSNOOP, dhcpSnoopUpdateCb));
    if (rv != 0)
        return rv;
    DHCP_SNOOP_CALL(rv, stkUsoDataSyncCbReg(MID_DHCP, STK_USO_DATASYNC_PRI_DHCPSNOOP, dhcpSnoopDataSyncSetCb, dhcpSnoopDataSyncGetCb, dhcpSnoopDataSyncFreeCb));
    if (rv != 0)
        return rv;
    DHCP_SNOOP_CALL(rv, stkUsoRuntimeDataHndReg(MID_DHCP, dhcpSnoopRuntimeDataHnd));
    return rv;
}

uint32_t dhcpSnoopInit(void)
{
    PalTimerId timerId;
    PalTimeSpec period = {1, 0};
    uint32_t rv;
    uint32_t i;

    memset(&timerId, 0, sizeof(timerId));

    DSLib.getMacAddress = getMacAddress;
    DSLib.slot1 = NULL;
    DSLib.slot2 = NULL;
    DSLib.slot3 = NULL;
    DSLib.slot4 = NULL;
    DSLib.fdbGetEntry = dhcpSnoopFdbGetEntry;

    tableMemPool = (DhcpSnoopElement *)pal_alloc(sizeof(DhcpSnoopElement) * DHCP_SNOOP_POOL_SIZE,
                                                 DHCP_SNOOP_MEM_TAG);
    DHCP_SNOOP_INIT_ENSURE(NULL != tableMemPool);
    dynamicTable = (DhcpSnoopElement **)pal_alloc(sizeof(DhcpSnoopElement *) * DHCP_SNOOP_HASH_SIZE,
                                                  DHCP_SNOOP_MEM_TAG);
    DHCP_SNOOP_INIT_ENSURE(NULL != dynamicTable);
    requestTable = (DhcpSnoopElement **)pal_alloc(sizeof(DhcpSnoopElement *) * DHCP_SNOOP_HASH_SIZE,
                                                  DHCP_SNOOP_MEM_TAG);
    DHCP_SNOOP_INIT_ENSURE(NULL != requestTable);

    memset(tableMemPool, 0, sizeof(DhcpSnoopElement) * DHCP_SNOOP_POOL_SIZE);
    memset(dynamicTable, 0, sizeof(DhcpSnoopElement *) * DHCP_SNOOP_HASH_SIZE);
    memset(requestTable, 0, sizeof(DhcpSnoopElement *) * DHCP_SNOOP_HASH_SIZE);
    for (i = 0; i < DHCP_SNOOP_HASH_SIZE; i++) {
        dynamicTable[i] = NULL;
        requestTable[i] = NULL;
    }

    /* Free list in address order: elements are handed out from the start. */
    for (i = 0; i < DHCP_SNOOP_POOL_SIZE; i++) {
        tableMemPool[i].prev = (i == 0) ? NULL : &tableMemPool[i - 1];
        tableMemPool[i].next = (i + 1 == DHCP_SNOOP_POOL_SIZE) ? NULL : &tableMemPool[i + 1];
    }
    tableMemPoolUnused = &tableMemPool[0];
    mallocCounter = 0;

    tableMemPoolMutex = pal_mutex_create(DHCP_SNOOP_POOL_MUTEX_NAME);
    DHCP_SNOOP_INIT_ENSURE(NULL != tableMemPoolMutex);

    dhcpSnoopQueue = pal_msgQ_create(DHCP_SNOOP_QUEUE_NAME, DHCP_SNOOP_QUEUE_DEPTH,
                                     sizeof(DhcpSnoopMsg), DHCP_SNOOP_QUEUE_OPTION);
    DHCP_SNOOP_INIT_ENSURE(0 != dhcpSnoopQueue);

    DSTaskId = pal_thread_create(DHCP_SNOOP_TASK_NAME, DHCP_SNOOP_TASK_STACK,
                                 DHCP_SNOOP_TASK_PRIORITY, dhcpSnoopTask, NULL);
    DHCP_SNOOP_INIT_ENSURE(NULL != DSTaskId);

    /* The timer is never stopped, so its id need not outlive start-up. */
    add_timer(&timerId, DHCP_SNOOP_TIMER_NAME, period, dhcpSnoopSendTimerMsgToDhcp, 0, -1);
    DHCP_SNOOP_INIT_ENSURE(TIMER_ID_IS_VALID(timerId));

    sNewData = (uint8_t *)pal_alloc(DHCP_SNOOP_NEW_DATA_SIZE, DHCP_SNOOP_MEM_TAG);
    DHCP_SNOOP_INIT_ENSURE(NULL != sNewData);

    updateDynTableQ = pal_msgQ_create(DHCP_SNOOP_SAVE_QUEUE_NAME, DHCP_SNOOP_SAVE_QUEUE_DEPTH, 1,
                                      DHCP_SNOOP_QUEUE_OPTION);
    DHCP_SNOOP_INIT_ENSURE(PAL_MQ_ERROR != updateDynTableQ);

    upMutexId = pal_mutex_create(DHCP_SNOOP_SAVE_MUTEX_NAME);
    DHCP_SNOOP_INIT_ENSURE(NULL != upMutexId);

    dynEntrySaveTask = pal_thread_create(DHCP_SNOOP_SAVE_TASK_NAME, DHCP_SNOOP_SAVE_TASK_STACK,
                                         DHCP_SNOOP_SAVE_TASK_PRIORITY, dhcpSnoopSaveDynEntryTask, NULL);
    DHCP_SNOOP_INIT_ENSURE(NULL != dynEntrySaveTask);

    gFdbEntryPool = (FdbEntry *)pal_alloc(sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS,
                                          DHCP_SNOOP_MEM_TAG);
    DHCP_SNOOP_INIT_ENSURE(NULL != gFdbEntryPool);

    getFdbEntryMutex = pal_mutex_create(DHCP_SNOOP_FDB_MUTEX_NAME);
    DHCP_SNOOP_INIT_ENSURE(NULL != getFdbEntryMutex);

    getFdbEntryMsgQue = pal_msgQ_create(DHCP_SNOOP_FDB_QUEUE_NAME, DHCP_SNOOP_FDB_QUEUE_DEPTH,
                                        sizeof(FdbEntry), DHCP_SNOOP_QUEUE_OPTION);
    DHCP_SNOOP_INIT_ENSURE(0 != getFdbEntryMsgQue);

    getFdbEntryTask = pal_thread_create(DHCP_SNOOP_FDB_TASK_NAME, DHCP_SNOOP_FDB_TASK_STACK,
                                        DHCP_SNOOP_FDB_TASK_PRIORITY, dhcpSnoopGetFdbEntryTask, NULL);
    DHCP_SNOOP_INIT_ENSURE(NULL != getFdbEntryTask);

    rv = dhcpSnoopStkInit();
    if (rv != 0) {
        DHCP_SNOOP_CALL_FAILED(rv, "dhcpSnoopStkInit()");
        goto failed;
    }

    /* Bindings restored from the file are not changes: no save for them. */
    initFlag = 1;
    rv = dhcpSnoopLoadDynEntry(DHCP_SNOOP_CFG_FILE_PATH);
    syslogAdd(rv != 0 ? DHCP_SNOOP_LOG_LOAD_FAIL : DHCP_SNOOP_LOG_LOAD_OK, 0, 0, 0, 0, 0, 0);
    initFlag = 0;
    return DHCP_SNOOP_OK;

failed:
    /* The timer and the stacking registrations stay; queues are only
     * forgotten, not deleted. */
    if (tableMemPool != NULL) {
        pal_free(tableMemPool);
        tableMemPool = NULL;
        tableMemPoolUnused = NULL;
    }
    if (tableMemPoolMutex != NULL) {
        pal_mutex_destroy(tableMemPoolMutex);
        tableMemPoolMutex = NULL;
    }
    if (dynamicTable != NULL) {
        pal_free(dynamicTable);
        dynamicTable = NULL;
    }
    if (requestTable != NULL) {
        pal_free(requestTable);
        requestTable = NULL;
    }
    if (DSTaskId != NULL) {
        pal_thread_destroy(DSTaskId);
        DSTaskId = NULL;
    }
    if (dhcpSnoopQueue > 0)
        dhcpSnoopQueue = 0;
    if (sNewData != NULL) {
        pal_free(sNewData);
        sNewData = NULL;
    }
    if (upMutexId != NULL) {
        pal_mutex_destroy(upMutexId);
        upMutexId = NULL;
    }
    if (dynEntrySaveTask != NULL) {
        pal_thread_destroy(dynEntrySaveTask);
        dynEntrySaveTask = NULL;
    }
    if (updateDynTableQ > 0)
        updateDynTableQ = 0;
    if (gFdbEntryPool != NULL) {
        pal_free(gFdbEntryPool);
        gFdbEntryPool = NULL;
    }
    if (getFdbEntryMutex != NULL) {
        pal_mutex_destroy(getFdbEntryMutex);
        getFdbEntryMutex = NULL;
    }
    if (getFdbEntryMsgQue > 0)
        getFdbEntryMsgQue = 0;
    if (getFdbEntryTask != NULL) {
        pal_thread_destroy(getFdbEntryTask);
        getFdbEntryTask = NULL;
    }
    return DHCP_SNOOP_E_INIT;
}

void dhcpSnoopResetState(void)
{
    memset(&DSLib, 0, sizeof(DSLib));
    tableMemPool = NULL;
    tableMemPoolUnused = NULL;
    tableMemPoolMutex = NULL;
    mallocCounter = 0;
    dynamicTable = NULL;
    requestTable = NULL;
    dhcpSnoopQueue = 0;
    DSTaskId = NULL;
    sNewData = NULL;
    updateDynTableQ = 0;
    upMutexId = NULL;
    dynEntrySaveTask = NULL;
    gFdbEntryPool = NULL;
    getFdbEntryMutex = NULL;
    getFdbEntryMsgQue = 0;
    getFdbEntryTask = NULL;
    initFlag = 0;
    upMsgCnt = 0;
    debugLevel = 0;
    macHeader = NULL;
    ipHeader = NULL;
    udpHeader = NULL;
    dhcpHeader = NULL;
    options = NULL;
    ipHeaderPos = 0;
    udpHeaderPos = 0;
    dhcpHeaderPos = 0;
    optionsPos = 0;
    rcvPort = 0;
    memset(portCounter, 0, sizeof(portCounter));
    memset(declineCounter, 0, sizeof(declineCounter));
    memset(logFlagPortFlow, 0, sizeof(logFlagPortFlow));
    memset(decFlowFlag, 0, sizeof(decFlowFlag));
}

/* ---- main task ----------------------------------------------------------------- */

uint32_t dhcpSnoopPortIndex(DHCP_SNOOP_UP_T handle)
{
    uint32_t index;

    switch (UP_KIND(handle)) {
    case UP_TYPE_PHYSICAL:
        index = UP_PORT(handle) + inner_up_unitbase_get(UP_UNIT(handle)) +
                inner_up_slotbaseoffset_get(UP_SLOT(handle));
        break;
    case UP_TYPE_PORT_CHANNEL:
        index = UP_PORT(handle) + DHCP_SNOOP_PORT_CHANNEL_BASE;
        break;
    default:
        index = 0;
        break;
    }
    return index & 0xFFu;
}

/* Re-arms the overflow log of the port named by the record. */
static void dhcpSnoopClearPortFlag(const DhcpSnoopMsg *msg, uint32_t *bitmap)
{
    uint32_t index = dhcpSnoopPortIndex(msg->element.up);

    /* An index outside the counters has no bit; the bitmap ends there. */
    if (index == 0 || index > DHCP_SNOOP_PORT_COUNTERS)
        return;
    bitmap[(index - 1) / 32] &= ~(1u << ((index - 1) % 32));
}

static void dhcpSnoopTaskPacket(DhcpSnoopMsg *msg)
{
    DHCP_SNOOP_DEBUG("Receive DHCP packet from the received queue.");
    (void)dhcpSnoopPacketHandle(msg);
}

static void dhcpSnoopTaskTick(DhcpSnoopMsg *msg)
{
    (void)msg;
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_REQUEST);
    memset(declineCounter, 0, sizeof(declineCounter));
    memset(portCounter, 0, sizeof(portCounter));
}

static void dhcpSnoopTaskRateFlowTimer(DhcpSnoopMsg *msg)
{
    dhcpSnoopClearPortFlag(msg, logFlagPortFlow);
}

static void dhcpSnoopTaskDeclineTimer(DhcpSnoopMsg *msg)
{
    dhcpSnoopClearPortFlag(msg, decFlowFlag);
}

static void dhcpSnoopTaskCfgChange(DhcpSnoopMsg *msg)
{
    (void)msg;
    DHCP_SNOOP_DEBUG("dhcp snoop queue receive cfg_change\r\n");
}

static void dhcpSnoopTaskIgnore(DhcpSnoopMsg *msg)
{
    (void)msg;
}

static void dhcpSnoopTaskPortCfg(DhcpSnoopMsg *msg)
{
    DhcpSnoopPortCfg cfg;

    /* The configuration service gives the record's second byte its meaning. */
    memset(&cfg, 0, sizeof(cfg));
    ((uint8_t *)&cfg)[1] = 1;
    (void)swDhcpSnoopSetPortCfg(msg->element.up, &cfg);
}

static void dhcpSnoopTaskDelBinding(DhcpSnoopMsg *msg)
{
    DhcpSnoopElement *found = dhcpSnoopElementSearchByIpVlanMac(&msg->element, DHCP_SNOOP_ELEMENT_DYNAMIC);

    if (found != NULL)
        (void)dhcpSnoopElementDelete(found, DHCP_SNOOP_ELEMENT_DYNAMIC);
    else
        DHCP_SNOOP_ERROR("not found!!!!!!");
}

typedef void (*DhcpSnoopTaskWork)(DhcpSnoopMsg *msg);

static const DhcpSnoopTaskWork dhcpSnoopTaskTable[DHCP_SNOOP_MSG_TYPES] = {
    dhcpSnoopTaskPacket,        dhcpSnoopTaskTick,      dhcpSnoopTaskRateFlowTimer,
    dhcpSnoopTaskDeclineTimer,  dhcpSnoopTaskCfgChange, dhcpSnoopTaskIgnore,
    dhcpSnoopTaskIgnore,        dhcpSnoopTaskIgnore,    dhcpSnoopTaskIgnore,
    dhcpSnoopTaskPortCfg,       dhcpSnoopTaskPortCfg,   dhcpSnoopTaskDelBinding,
};

void dhcpSnoopTaskHandleMsg(DhcpSnoopMsg *msg)
{
    if (msg == NULL || msg->type >= DHCP_SNOOP_MSG_TYPES)
        return;
    dhcpSnoopTaskTable[msg->type](msg);
}

void dhcpSnoopTask(void *arg)
{
    DhcpSnoopMsg buffer;
    uint32_t word = 0;

    (void)arg;
    memset(&buffer, 0, sizeof(buffer));
    for (;;) {
        /* Every record is a whole DhcpSnoopMsg, so each receive overwrites
         * the buffer whole. */
        int16_t rv = (int16_t)pal_msgQ_receive(dhcpSnoopQueue, &buffer, sizeof(buffer),
                                               PAL_WAIT_FOREVER, &word);
        if (rv == -1)
            continue;
        dhcpSnoopTaskHandleMsg(&buffer);
    }
}

uint32_t dhcpSnoopSendMsgToMainQueue(DhcpSnoopMsg *msg, int32_t timeout)
{
    int32_t rv;

    if (msg == NULL)
        return DHCP_SNOOP_E_PARAM;
    DHCP_SNOOP_DEBUG("msg type:%d", msg->type);
    rv = pal_msgQ_send(dhcpSnoopQueue, msg, sizeof(*msg), timeout, 0);
    if ((uint32_t)rv < 0xFFFFFFFFu)
        return DHCP_SNOOP_OK;
    DHCP_SNOOP_ERROR("msg send err.");
    return DHCP_SNOOP_E_FAIL;
}

uint32_t dhcpSnoopSendTimerMsgToDhcp(uint32_t unused)
{
    DhcpSnoopMsg record;

    (void)unused;
    memset(&record, 0, sizeof(record));
    record.type = DHCP_SNOOP_MSG_TIMER;
    return (uint32_t)pal_msgQ_send(dhcpSnoopQueue, &record, sizeof(record), 0, 0);
}

static uint32_t dhcpSnoopSendPortTimerMsg(uint8_t type, uint32_t index, const char *func, uint32_t line)
{
    DhcpSnoopMsg record;

    memset(&record, 0, sizeof(record));
    record.type = type;
    inner_up_from_index(&record.element.up, index, 0, func, line);
    if (inner_up_is_valid(record.element.up) == 0)
        return DHCP_SNOOP_OK;
    return (uint32_t)pal_msgQ_send(dhcpSnoopQueue, &record, sizeof(record), 0, 0);
}

uint32_t dhcpSnoopSendRateFlowTimerMsgToDhcp(uint32_t index)
{
    return dhcpSnoopSendPortTimerMsg(DHCP_SNOOP_MSG_RATE_FLOW_TIMER, index, __func__, __LINE__);
}

uint32_t dhcpSnoopSendDeclineTimerMsgToDhcp(uint32_t index)
{
    return dhcpSnoopSendPortTimerMsg(DHCP_SNOOP_MSG_DECLINE_TIMER, index, __func__, __LINE__);
}

uint32_t dhcpSnoopAttachCb(uint32_t unitMask, void *arg)
{
    /* New units get the bindings through the bulk sync. */
    (void)unitMask;
    (void)arg;
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopUpdateCb(uint32_t unitMask, void *arg)
{
    (void)unitMask;
    (void)arg;
    return DHCP_SNOOP_OK;
}

}  // extern "C"
