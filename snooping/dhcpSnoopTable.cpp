// Binding tables: the element pool, the request and dynamic tables, aging
// and the link to the IP source-guard table.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"
#include "snooping/dhcpSnoopWire.h"

extern "C" {

/* ---- element pool ------------------------------------------------------------- */

DhcpSnoopElement *dhcpSnoopGetMem(void)
{
    DhcpSnoopElement *e;
    DhcpSnoopElement *head;

    pal_mutex_take_int(tableMemPoolMutex, PAL_WAIT_FOREVER);
    e = __atomic_load_n(&tableMemPoolUnused, __ATOMIC_ACQUIRE);
    if (e == NULL) {
        pal_mutex_give_int(tableMemPoolMutex);
        return NULL;
    }
    head = dhcpSnoopNext(e);
    __atomic_store_n(&tableMemPoolUnused, head, __ATOMIC_RELEASE);
    if (head != NULL)
        dhcpSnoopSetPrev(head, NULL);
    memset(e, 0, sizeof(*e));
    __atomic_fetch_add(&mallocCounter, 1u, __ATOMIC_RELAXED);
    pal_mutex_give_int(tableMemPoolMutex);
    return e;
}

uint32_t dhcpSnoopFreeMem(DhcpSnoopElement *element)
{
    DhcpSnoopElement *head;
    DhcpSnoopElement *prev;
    DhcpSnoopElement *next;

    if (element == NULL) {
        DHCP_SNOOP_DEBUG("pElement is NULL!!!");
        return DHCP_SNOOP_E_PARAM;
    }
    pal_mutex_take_int(tableMemPoolMutex, PAL_WAIT_FOREVER);
    DHCP_SNOOP_DEBUG("%s", __func__);
    head = __atomic_load_n(&tableMemPoolUnused, __ATOMIC_ACQUIRE);
    if (head != NULL)
        dhcpSnoopSetPrev(head, element);
    /* Repairs the neighbours of whatever list the links still describe, but
     * never a bucket head: callers unlink filed elements first. */
    prev = dhcpSnoopPrev(element);
    next = dhcpSnoopNext(element);
    if (prev != NULL)
        dhcpSnoopSetNext(prev, next);
    if (next != NULL)
        dhcpSnoopSetPrev(next, prev);
    memset(element, 0, sizeof(*element));
    __atomic_fetch_sub(&mallocCounter, 1u, __ATOMIC_RELAXED);
    dhcpSnoopSetNext(element, head);
    dhcpSnoopSetPrev(element, NULL);
    __atomic_store_n(&tableMemPoolUnused, element, __ATOMIC_RELEASE);
    pal_mutex_give_int(tableMemPoolMutex);
    return DHCP_SNOOP_OK;
}


/* ---- request and dynamic tables ------------------------------------------------ */

/* Debug-line arguments of a binding's address and MAC. */
#define DHCP_SNOOP_IP_ARGS(e)                                                                   \
    (int)(e)->clientIp[0], (int)(e)->clientIp[1], (int)(e)->clientIp[2], (int)(e)->clientIp[3]
#define DHCP_SNOOP_MAC_ARGS(e)                                                                  \
    (e)->clientMac[0], (e)->clientMac[1], (e)->clientMac[2], (e)->clientMac[3],                 \
        (e)->clientMac[4], (e)->clientMac[5]

/* No chain can be longer than the pool; a longer walk is a broken chain. */
#define DHCP_SNOOP_CHAIN_MAX DHCP_SNOOP_POOL_SIZE

static DhcpSnoopElement **dhcpSnoopTableOf(uint32_t tableType)
{
    if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC)
        return dynamicTable;
    if (tableType == DHCP_SNOOP_ELEMENT_REQUEST)
        return requestTable;
    return NULL;
}

static const char *dhcpSnoopTableName(uint32_t tableType)
{
    return tableType == DHCP_SNOOP_ELEMENT_DYNAMIC ? "dynamic" : "requset";
}

static uint32_t dhcpSnoopBucketOf(const uint8_t clientIp[4])
{
    return clientIp[3] & DHCP_SNOOP_HASH_MASK;
}

static uint32_t dhcpSnoopTtlOf(const DhcpSnoopElement *e)
{
    return __atomic_load_n(&e->ttl, __ATOMIC_RELAXED);
}

/* The switch suspends every table change through this one status. A getter
 * that fails suspends nothing. */
static int dhcpSnoopTableChangesSuspended(void)
{
    uint8_t status = 1;

    return swDhcpSnoopGetQAddStatus(&status) == 0 && status == 0;
}

static void dhcpSnoopLinkAtHead(DhcpSnoopElement **table, uint32_t pos, DhcpSnoopElement *element)
{
    DhcpSnoopElement *head;

    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    /* The head is read under the lock: another thread may have filed one
     * since the caller looked. */
    head = dhcpSnoopHead(table, pos);
    dhcpSnoopSetNext(element, head);
    dhcpSnoopSetPrev(element, NULL);
    if (head != NULL)
        dhcpSnoopSetPrev(head, element);
    dhcpSnoopSetHead(table, pos, element);
    pal_mutex_give_int(upMutexId);
}

static void dhcpSnoopUnlink(DhcpSnoopElement **table, uint32_t pos, DhcpSnoopElement *element)
{
    DhcpSnoopElement *next;
    DhcpSnoopElement *prev;

    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    next = dhcpSnoopNext(element);
    prev = dhcpSnoopPrev(element);
    if (next != NULL)
        dhcpSnoopSetPrev(next, prev);
    if (prev != NULL)
        dhcpSnoopSetNext(prev, next);
    else if (dhcpSnoopHead(table, pos) == element)
        /* Only a node that heads its bucket moves the head: an element that
         * is not filed here must not cut the bucket off. */
        dhcpSnoopSetHead(table, pos, next);
    /* Stale links would let the pool's defensive repair rewrite neighbours
     * that other threads have relinked since, and lead walkers that still
     * stand here into the free list. */
    dhcpSnoopSetNext(element, NULL);
    dhcpSnoopSetPrev(element, NULL);
    pal_mutex_give_int(upMutexId);
}

/* One queued request covers any number of changes until the save task takes
 * it. */
static void dhcpSnoopSaveTrigger(void)
{
    uint8_t cnt = __atomic_load_n(&upMsgCnt, __ATOMIC_RELAXED);
    uint8_t init = __atomic_load_n(&initFlag, __ATOMIC_RELAXED);
    uint8_t msg = 1;
    int send = 0;

    DHCP_SNOOP_DEBUG("updateDynTableQ");
    DHCP_SNOOP_DEBUG("upMsgCnt:%d, initFlag:%d", (int)cnt, (int)init);
    if (cnt != 0 || init != 0)
        return;
    DHCP_SNOOP_DEBUG("save dyn entry");
    /* The flag is claimed before the send, so that two changers never both
     * post and the save task never clears it ahead of our own setting. */
    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    if (__atomic_load_n(&upMsgCnt, __ATOMIC_RELAXED) == 0) {
        __atomic_store_n(&upMsgCnt, (uint8_t)1, __ATOMIC_RELAXED);
        send = 1;
    }
    pal_mutex_give_int(upMutexId);
    if (send == 0)
        return;
    if (pal_msgQ_send(updateDynTableQ, &msg, 1, 0, 0) == -1) {
        pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
        __atomic_store_n(&upMsgCnt, (uint8_t)0, __ATOMIC_RELAXED);
        pal_mutex_give_int(upMutexId);
    }
}

uint32_t dhcpSnoopElementAddNew(DhcpSnoopElement *element, uint32_t tableType)
{
    DhcpSnoopElement **table;
    DhcpSnoopElement *node;
    DhcpSnoopElement *next;
    uint8_t record[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    UsoData usoData;
    uint32_t pos;
    uint32_t rv;
    uint32_t walked;

    if (element == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (dhcpSnoopTableChangesSuspended())
        return DHCP_SNOOP_OK;
    DHCP_SNOOP_DEBUG("Add new element, client IP:%d.%d.%d.%d, type:%d", DHCP_SNOOP_IP_ARGS(element),
                     (int)tableType);
    table = dhcpSnoopTableOf(tableType);
    if (table == NULL)
        return DHCP_SNOOP_E_PARAM;

    pos = dhcpSnoopBucketOf(element->clientIp);
    DHCP_SNOOP_DEBUG("add pos:%u", pos);
    node = dhcpSnoopHead(table, pos);
    if (node == NULL) {
        DHCP_SNOOP_DEBUG("first node of pos %d", (int)pos);
    } else {
        /* One IP per VLAN: the MAC is not part of the replacement key. */
        for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
            next = dhcpSnoopNext(node);
            if (memcmp(node->clientIp, element->clientIp, sizeof(node->clientIp)) == 0 &&
                node->vlan == element->vlan) {
                DHCP_SNOOP_DEBUG("del existing element.");
                rv = dhcpSnoopElementDelete(node, tableType);
                if (rv != 0)
                    return rv;
            }
            node = next;
        }
        DHCP_SNOOP_DEBUG("insert to pos %d", (int)pos);
    }
    dhcpSnoopLinkAtHead(table, pos, element);

    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_ENTRY) != 0 && DHCP_SNOOP_DEBUG_ON()) {
        char port[UP_STR_BUF] = {0};
        usUp2Str(element->up, port, 1);
        DHCP_SNOOP_DEBUG("Add %s table binding entry:\n src IP:%d.%d.%d.%d, src MAC:%02x:%02x:%02x:%02x:%02x:%02x, "
                         "vlan:%d, port:%s, ttl:%d",
                         dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(element), DHCP_SNOOP_MAC_ARGS(element),
                         (int)element->vlan, port, (int)dhcpSnoopTtlOf(element));
    }
    if (tableType == DHCP_SNOOP_ELEMENT_REQUEST)
        return DHCP_SNOOP_OK;

    dhcpSnoopSaveTrigger();
    rv = dhcpSnoopAdd2QTable(element);
    if (rv != 0 && rv != QTABLE_RESULT_TOLERATED)
        return rv;

    DHCP_SNOOP_DEBUG("runtime data sync.");
    dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_ADD, element, record);
    usoData.data = record;
    usoData.len = DHCP_SNOOP_RUNTIME_RECORD_SIZE;
    DHCP_SNOOP_CALL(rv, stkUsoRuntimeDataSync(MID_DHCP, &usoData));
    if (rv != 0)
        return DHCP_SNOOP_E_STACK_SYNC;
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopElementDelete(DhcpSnoopElement *pElement, uint32_t tableType)
{
    DhcpSnoopElement **table;
    uint8_t record[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    UsoData usoData;
    uint32_t pos;
    uint32_t rv;
    uint32_t result = DHCP_SNOOP_OK;

    if (pElement == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (dhcpSnoopTableChangesSuspended())
        return DHCP_SNOOP_OK;
    DHCP_SNOOP_DEBUG("Del element, client IP:%d.%d.%d.%d, type:%d", DHCP_SNOOP_IP_ARGS(pElement), (int)tableType);
    table = dhcpSnoopTableOf(tableType);
    if (table == NULL)
        return DHCP_SNOOP_E_PARAM;

    pos = dhcpSnoopBucketOf(pElement->clientIp);
    DHCP_SNOOP_DEBUG("del pos:%u", pos);
    DHCP_SNOOP_DEBUG("remove element");
    dhcpSnoopUnlink(table, pos, pElement);

    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_ENTRY) != 0 && DHCP_SNOOP_DEBUG_ON()) {
        char port[UP_STR_BUF] = {0};
        usUp2Str(pElement->up, port, 1);
        DHCP_SNOOP_DEBUG("Delete %s table binding entry:\n src IP:%d.%d.%d.%d, src MAC:%02x:%02x:%02x:%02x:%02x:%02x, "
                         "vlan:%d, port:%s, ttl:%d",
                         dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(pElement), DHCP_SNOOP_MAC_ARGS(pElement),
                         (int)pElement->vlan, port, (int)dhcpSnoopTtlOf(pElement));
    }

    if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC) {
        dhcpSnoopSaveTrigger();
        DHCP_SNOOP_CALL(rv, dhcpSnoopDelFromQTable(pElement));
        if (rv != 0) {
            result = rv;
        } else {
            DHCP_SNOOP_DEBUG("runtime data sync.");
            dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_DELETE, pElement, record);
            usoData.data = record;
            usoData.len = DHCP_SNOOP_RUNTIME_RECORD_SIZE;
            DHCP_SNOOP_CALL(rv, stkUsoRuntimeDataSync(MID_DHCP, &usoData));
            if (rv != 0)
                result = DHCP_SNOOP_E_STACK_SYNC;
        }
    }

    DHCP_SNOOP_DEBUG("free element");
    dhcpSnoopFreeMem(pElement);
    return result;
}

DhcpSnoopElement *dhcpSnoopElementSearchByIpVlanMac(const DhcpSnoopElement *key, uint32_t tableType)
{
    DhcpSnoopElement **table = dhcpSnoopTableOf(tableType);
    DhcpSnoopElement *node;
    uint32_t walked;

    if (key == NULL || table == NULL)
        return NULL;
    node = dhcpSnoopHead(table, dhcpSnoopBucketOf(key->clientIp));
    for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
        if (memcmp(node->clientIp, key->clientIp, sizeof(node->clientIp)) == 0 && node->vlan == key->vlan &&
            memcmp(node->clientMac, key->clientMac, sizeof(node->clientMac)) == 0) {
            if (DHCP_SNOOP_DEBUG_ON()) {
                char port[UP_STR_BUF] = {0};
                usUp2Str(node->up, port, 1);
                DHCP_SNOOP_DEBUG("Find %s table binding entry:\n src IP:%d.%d.%d.%d, src "
                                 "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s, ttl:%d",
                                 dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(node), DHCP_SNOOP_MAC_ARGS(node),
                                 (int)node->vlan, port, (int)dhcpSnoopTtlOf(node));
            }
            return node;
        }
        node = dhcpSnoopNext(node);
    }
    return NULL;
}

DhcpSnoopElement *dhcpSnoopElementSearchByMacAndVlan(const DhcpSnoopElement *key, uint32_t tableType)
{
    DhcpSnoopElement **table = dhcpSnoopTableOf(tableType);
    DhcpSnoopElement *node;
    uint32_t pos;
    uint32_t walked;

    if (key == NULL || table == NULL)
        return NULL;
    if (key->vlan < 1 || key->vlan > 4094)
        return NULL;
    for (pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++) {
        node = dhcpSnoopHead(table, pos);
        for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
            if (memcmp(node->clientMac, key->clientMac, sizeof(node->clientMac)) == 0 && node->vlan == key->vlan) {
                if (DHCP_SNOOP_DEBUG_ON()) {
                    char port[UP_STR_BUF] = {0};
                    usUp2Str(node->up, port, 1);
                    DHCP_SNOOP_DEBUG("Find %s table binding entry:\n src IP:%d.%d.%d.%d, src "
                                     "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s, ttl:%d",
                                     dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(node),
                                     DHCP_SNOOP_MAC_ARGS(node), (int)node->vlan, port, (int)dhcpSnoopTtlOf(node));
                }
                return node;
            }
            node = dhcpSnoopNext(node);
        }
    }
    return NULL;
}

/* ---- aging --------------------------------------------------------------------- */

void dhcpSnoopCheckAging(uint32_t tableType)
{
    DhcpSnoopElement **table = dhcpSnoopTableOf(tableType);
    DhcpSnoopElement *node;
    DhcpSnoopElement *next;
    uint32_t pos;
    uint32_t ttl;
    uint32_t walked;

    if (table == NULL)
        return;
    for (pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++) {
        node = dhcpSnoopHead(table, pos);
        for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
            /* A chain that has run into the free list ends here. */
            if (node == __atomic_load_n(&tableMemPoolUnused, __ATOMIC_ACQUIRE))
                break;
            next = dhcpSnoopNext(node);
            /* Expiry is tested before the decrement: ttl n lasts n+1 passes. */
            ttl = dhcpSnoopTtlOf(node);
            if (ttl == 0) {
                if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC)
                    DHCP_SNOOP_DEBUG("Dynamic table entry expired, hash pos:%d.", (int)pos);
                else
                    DHCP_SNOOP_DEBUG("Request table entry expired, hash pos:%d.", (int)pos);
                if (DHCP_SNOOP_DEBUG_ON()) {
                    char port[UP_STR_BUF] = {0};
                    usUp2Str(node->up, port, 1);
                    DHCP_SNOOP_DEBUG("Aging entry, src IP:%d.%d.%d.%d, src MAC:%02x:%02x:%02x:%02x:%02x:%02x, "
                                     "vlan:%d, port:%s, ttl:%d",
                                     DHCP_SNOOP_IP_ARGS(node), DHCP_SNOOP_MAC_ARGS(node), (int)node->vlan, port,
                                     (int)ttl);
                }
                (void)dhcpSnoopElementDelete(node, tableType);
                if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC)
                    DHCP_SNOOP_DEBUG("dynamic ageing count =%d\n", (int)dhcpSnoopMallocCount());
                else
                    DHCP_SNOOP_DEBUG("request ageing count =%d\n", (int)dhcpSnoopMallocCount());
            } else if (ttl < DHCP_SNOOP_TTL_FOREVER) {
                __atomic_store_n(&node->ttl, ttl - 1, __ATOMIC_RELAXED);
            }
            node = next;
        }
    }
}

/* ---- source-guard table link ----------------------------------------------------- */

static void dhcpSnoopQTableRecord(const DhcpSnoopElement *element, SwQTableEntry *record)
{
    memset(record, 0, sizeof(*record));
    memcpy(record->ip, element->clientIp, sizeof(record->ip));
    memcpy(record->mac, element->clientMac, sizeof(record->mac));
    record->vlan = element->vlan;
    record->port = element->up;
    record->source = QTABLE_SOURCE_DHCP_SNOOP;
}

uint32_t dhcpSnoopAdd2QTable(DhcpSnoopElement *element)
{
    SwQTableEntry record;
    char port[UP_STR_BUF] = {0};
    uint32_t arpDefend = 0;
    uint32_t ipFilter = 0;
    uint32_t index = 0;
    uint32_t found = 0;
    uint32_t rv;

    DHCP_SNOOP_DEBUG("dhcpSnoopAdd2QTable");
    if (element == NULL || inner_up_is_valid(element->up) == 0) {
        DHCP_SNOOP_ERROR("Bad parameter.");
        return DHCP_SNOOP_E_PARAM;
    }
    if (inner_up_is_provision(element->up) != 0) {
        DHCP_SNOOP_DEBUG("DHCP packet received from a provisioning port, return.");
        return DHCP_SNOOP_OK;
    }
    if (UP_KIND(element->up) != UP_TYPE_PHYSICAL) {
        DHCP_SNOOP_DEBUG("DHCP packet received from a port channel, don't add binding entry to binding table.");
        return DHCP_SNOOP_OK;
    }

    dhcpSnoopQTableRecord(element, &record);
    memset(record.mark, '-', sizeof(record.mark));
    /* A setting that cannot be read is taken as off: the binding still goes
     * in, only without that feature. */
    DHCP_SNOOP_CALL(rv, getIncludeArpDefend(&arpDefend));
    if (rv != 0)
        arpDefend = 0;
    DHCP_SNOOP_CALL(rv, getIncludeIpFilter(&ipFilter));
    if (rv != 0)
        ipFilter = 0;
    if (arpDefend != 0)
        record.includeMask |= QTABLE_INCLUDE_ARP_DEFEND;
    if (ipFilter != 0)
        record.includeMask |= QTABLE_INCLUDE_IP_FILTER;

    if (DHCP_SNOOP_DEBUG_ON())
        usUp2Str(element->up, port, 1);
    DHCP_SNOOP_DEBUG("Add QTable, vid: %d, IP: %d.%d.%d.%d, port: %s", (int)element->vlan,
                     DHCP_SNOOP_IP_ARGS(element), port);

    /* Entries left for this address (an earlier lease) go first. A search
     * that fails is taken as finding nothing. */
    for (;;) {
        found = 0;
        DHCP_SNOOP_CALL(rv, swQTableSearchByIpAndSource(&record, &index, &found));
        if (rv != 0 || found == 0)
            break;
        if (swQTableDel(0, index, found) != 0) {
            DHCP_SNOOP_ERROR("delete fail");
            break;
        }
    }

    DHCP_SNOOP_DEBUG("add qtable, vid: %d   IP: %d.%d.%d.%d, port: %s", (int)element->vlan,
                     DHCP_SNOOP_IP_ARGS(element), port);
    rv = swQTableAdd(0, &record);
    if (rv == 0 || rv == QTABLE_RESULT_EXISTS) {
        DHCP_SNOOP_DEBUG("Add binding table entry successfully:\n src IP:%d.%d.%d.%d, src "
                         "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s",
                         DHCP_SNOOP_IP_ARGS(element), DHCP_SNOOP_MAC_ARGS(element), (int)element->vlan, port);
        return DHCP_SNOOP_OK;
    }
    /* Error lines are also written while the switch starts, with the debug
     * switch off: the port text is needed here whatever the switch says. */
    usUp2Str(element->up, port, 1);
    DHCP_SNOOP_ERROR("Add binding table entry failed:\n src IP:%d.%d.%d.%d, src "
                     "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s",
                     DHCP_SNOOP_IP_ARGS(element), DHCP_SNOOP_MAC_ARGS(element), (int)element->vlan, port);
    /* QTABLE_RESULT_TOLERATED is passed up for the caller to let through. */
    return rv;
}

uint32_t dhcpSnoopDelFromQTable(DhcpSnoopElement *element)
{
    SwQTableEntry record;
    char port[UP_STR_BUF] = {0};
    uint32_t index = 0;
    uint32_t found = 0;
    uint32_t rv;

    DHCP_SNOOP_DEBUG("dhcpSnoopDelFromQTable");
    if (element == NULL || inner_up_is_valid(element->up) == 0) {
        DHCP_SNOOP_ERROR("Bad parameter.");
        return DHCP_SNOOP_E_PARAM;
    }
    /* No provisioning-port or port-channel test here: removal always goes
     * by address and source. */
    dhcpSnoopQTableRecord(element, &record);
    for (;;) {
        found = 0;
        /* A search that fails is taken as finding nothing. */
        DHCP_SNOOP_CALL(rv, swQTableSearchByIpAndSource(&record, &index, &found));
        if (rv != 0 || found == 0)
            return DHCP_SNOOP_OK;
        rv = swQTableDel(0, index, found);
        if (rv != 0) {
            usUp2Str(element->up, port, 1);
            DHCP_SNOOP_ERROR("Delete binding table entry fail:\n src IP:%d.%d.%d.%d, src "
                             "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s,err %d",
                             DHCP_SNOOP_IP_ARGS(element), DHCP_SNOOP_MAC_ARGS(element), (int)element->vlan, port,
                             (int)rv);
            return rv;
        }
        if (DHCP_SNOOP_DEBUG_ON()) {
            usUp2Str(element->up, port, 1);
            DHCP_SNOOP_DEBUG("Delete binding table entry successfully:\n src IP:%d.%d.%d.%d, src "
                             "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s",
                             DHCP_SNOOP_IP_ARGS(element), DHCP_SNOOP_MAC_ARGS(element), (int)element->vlan, port);
        }
    }
}

}  // extern "C"
