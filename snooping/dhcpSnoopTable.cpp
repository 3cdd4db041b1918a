// Binding tables: the element pool, the request and dynamic tables, aging
// and the link to the IP source-guard table.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"
#include "snooping/dhcpSnoopWire.h"

extern "C" {

/* ---- element pool ------------------------------------------------------------- */

/* Where each pool element is filed: 0 nowhere, 1 + selector in that table.
 * Set and cleared inside the critical sections that link and unlink, and
 * cleared when the pool hands an element out or takes it back. The record
 * itself has no room for it: its layout is fixed. */
static uint8_t dhcpSnoopFiled[DHCP_SNOOP_POOL_SIZE];

/* The element's mark, or NULL for memory that is not a pool element. */
static uint8_t *dhcpSnoopFiledMark(const DhcpSnoopElement *e)
{
    uintptr_t base = (uintptr_t)tableMemPool;
    uintptr_t off;

    if (e == NULL || base == 0 || (uintptr_t)e < base)
        return NULL;
    off = (uintptr_t)e - base;
    if (off % sizeof(DhcpSnoopElement) != 0 || off / sizeof(DhcpSnoopElement) >= DHCP_SNOOP_POOL_SIZE)
        return NULL;
    return &dhcpSnoopFiled[off / sizeof(DhcpSnoopElement)];
}

static void dhcpSnoopSetFiled(const DhcpSnoopElement *e, uint8_t value)
{
    uint8_t *mark = dhcpSnoopFiledMark(e);

    if (mark != NULL)
        __atomic_store_n(mark, value, __ATOMIC_RELEASE);
}

uint32_t dhcpSnoopElementIsPooled(const DhcpSnoopElement *e)
{
    return dhcpSnoopFiledMark(e) != NULL ? 1u : 0u;
}

uint32_t dhcpSnoopElementFiledIn(const DhcpSnoopElement *e, uint32_t tableType)
{
    uint8_t *mark = dhcpSnoopFiledMark(e);

    if (mark == NULL || tableType > DHCP_SNOOP_ELEMENT_REQUEST)
        return 0;
    return __atomic_load_n(mark, __ATOMIC_ACQUIRE) == (uint8_t)(tableType + 1u) ? 1u : 0u;
}

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
    dhcpSnoopElementClear(e);
    dhcpSnoopSetFiled(e, 0);
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
    /* The name as the format itself, not as an argument of "%s": a platform
     * that wants only some lines can then tell by the format alone that this
     * one (written for every element given back) is not among them. */
    DHCP_SNOOP_DEBUG("dhcpSnoopFreeMem");
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
    dhcpSnoopElementClear(element);
    dhcpSnoopSetFiled(element, 0);
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

/* The switch suspends every table change through this one status. A getter
 * that fails suspends nothing. */
static int dhcpSnoopTableChangesSuspended(void)
{
    uint8_t status = 1;

    return swDhcpSnoopGetQAddStatus(&status) == 0 && status == 0;
}

/* Links element at the head of its bucket; 0 when it is already filed
 * somewhere or is no pool element (nothing changes then). oldHead is what it
 * now links to. */
static uint32_t dhcpSnoopLinkAtHead(DhcpSnoopElement **table, uint32_t tableType, uint32_t pos,
                                    DhcpSnoopElement *element, DhcpSnoopElement **oldHead)
{
    uint8_t *mark = dhcpSnoopFiledMark(element);
    DhcpSnoopElement *head;

    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    if (mark == NULL || __atomic_load_n(mark, __ATOMIC_ACQUIRE) != 0) {
        pal_mutex_give_int(upMutexId);
        return 0;
    }
    /* The head is read under the lock: another thread may have filed one
     * since the caller looked. */
    head = dhcpSnoopHead(table, pos);
    dhcpSnoopSetNext(element, head);
    dhcpSnoopSetPrev(element, NULL);
    if (head != NULL)
        dhcpSnoopSetPrev(head, element);
    dhcpSnoopSetHead(table, pos, element);
    __atomic_store_n(mark, (uint8_t)(tableType + 1u), __ATOMIC_RELEASE);
    pal_mutex_give_int(upMutexId);
    *oldHead = head;
    return 1;
}

/* Unlinks element from the selected table; 0 when it is not filed there
 * (another thread removed it first, or it never was), and then nothing
 * changes: a second removal must not give the element back twice. */
static uint32_t dhcpSnoopUnlink(DhcpSnoopElement **table, uint32_t tableType, DhcpSnoopElement *element)
{
    DhcpSnoopElement *next;
    DhcpSnoopElement *prev;
    uint32_t pos;

    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    if (dhcpSnoopElementFiledIn(element, tableType) == 0) {
        pal_mutex_give_int(upMutexId);
        return 0;
    }
    /* Read under the lock: a filed element's address no longer changes. */
    pos = dhcpSnoopBucketOf(element->clientIp);
    next = dhcpSnoopNext(element);
    prev = dhcpSnoopPrev(element);
    if (next != NULL)
        dhcpSnoopSetPrev(next, prev);
    if (prev != NULL)
        dhcpSnoopSetNext(prev, next);
    else if (dhcpSnoopHead(table, pos) == element)
        dhcpSnoopSetHead(table, pos, next);
    /* Stale links would let the pool's defensive repair rewrite neighbours
     * that other threads have relinked since. */
    dhcpSnoopSetNext(element, NULL);
    dhcpSnoopSetPrev(element, NULL);
    dhcpSnoopSetFiled(element, 0);
    pal_mutex_give_int(upMutexId);
    return 1;
}

uint32_t dhcpSnoopElementClaimNull(DhcpSnoopElement *e, uint32_t tableType)
{
    DhcpSnoopElement v;
    uint32_t claimed = 0;

    if (e == NULL)
        return 0;
    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    if (dhcpSnoopElementFiledIn(e, tableType) != 0) {
        dhcpSnoopElementLoad(e, &v);
        if (v.vlan == 0 && (v.clientIp[0] | v.clientIp[1] | v.clientIp[2] | v.clientIp[3]) == 0 &&
            (v.clientMac[0] | v.clientMac[1] | v.clientMac[2] | v.clientMac[3] | v.clientMac[4] | v.clientMac[5]) ==
                0) {
            dhcpSnoopSetFiled(e, 0);
            claimed = 1;
        }
    }
    pal_mutex_give_int(upMutexId);
    return claimed;
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

uint32_t dhcpSnoopElementAddNewEx(DhcpSnoopElement *element, uint32_t tableType, uint32_t *filed)
{
    DhcpSnoopElement **table;
    DhcpSnoopElement *node;
    DhcpSnoopElement *next;
    DhcpSnoopElement *oldHead = NULL;
    DhcpSnoopElement view;
    DhcpSnoopElement seen;
    uint8_t record[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    UsoData usoData;
    uint32_t pos;
    uint32_t rv;
    uint32_t gone;
    uint32_t walked;
    uint8_t *mark;

    if (filed != NULL)
        *filed = 0;
    if (element == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (dhcpSnoopTableChangesSuspended())
        return DHCP_SNOOP_OK;
    DHCP_SNOOP_DEBUG("Add new element, client IP:%d.%d.%d.%d, type:%d", DHCP_SNOOP_IP_ARGS(element),
                     (int)tableType);
    table = dhcpSnoopTableOf(tableType);
    if (table == NULL)
        return DHCP_SNOOP_E_PARAM;
    mark = dhcpSnoopFiledMark(element);
    if (mark == NULL || __atomic_load_n(mark, __ATOMIC_ACQUIRE) != 0) {
        DHCP_SNOOP_ERROR("Element is filed already or not from the pool.");
        return DHCP_SNOOP_E_PARAM;
    }

    pos = dhcpSnoopBucketOf(element->clientIp);
    DHCP_SNOOP_DEBUG("add pos:%u", pos);
    node = dhcpSnoopHead(table, pos);
    if (node == NULL) {
        DHCP_SNOOP_DEBUG("first node of pos %d", (int)pos);
    } else {
        /* One IP per VLAN: the MAC is not part of the replacement key. */
        for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
            if (dhcpSnoopElementFiledIn(node, tableType) == 0)
                break;
            dhcpSnoopElementLoad(node, &seen);
            next = seen.next;
            if (memcmp(seen.clientIp, element->clientIp, sizeof(seen.clientIp)) == 0 &&
                seen.vlan == element->vlan) {
                DHCP_SNOOP_DEBUG("del existing element.");
                rv = dhcpSnoopElementDeleteEx(node, tableType, &gone);
                /* Removed by another thread meanwhile: nothing left to do. */
                if (rv != 0 && gone != 0)
                    return rv;
            }
            node = next;
        }
        DHCP_SNOOP_DEBUG("insert to pos %d", (int)pos);
    }
    /* Once linked, another thread may remove and reuse the element: what
     * follows works on this copy. */
    dhcpSnoopElementLoad(element, &view);
    if (dhcpSnoopLinkAtHead(table, tableType, pos, element, &oldHead) == 0) {
        /* Filed by another thread since the check above. */
        DHCP_SNOOP_ERROR("Element is filed already or not from the pool.");
        return DHCP_SNOOP_E_PARAM;
    }
    if (filed != NULL)
        *filed = 1;
    view.next = oldHead;
    view.prev = NULL;

    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_ENTRY) != 0) {
        char port[UP_STR_BUF];
        DHCP_SNOOP_DEBUG("Add %s table binding entry:\n src IP:%d.%d.%d.%d, src MAC:%02x:%02x:%02x:%02x:%02x:%02x, "
                         "vlan:%d, port:%s, ttl:%d",
                         dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(&view), DHCP_SNOOP_MAC_ARGS(&view),
                         (int)view.vlan, dhcpSnoopUpText(view.up, port), (int)view.ttl);
    }
    if (tableType == DHCP_SNOOP_ELEMENT_REQUEST)
        return DHCP_SNOOP_OK;

    dhcpSnoopSaveTrigger();
    rv = dhcpSnoopAdd2QTable(&view);
    if (rv != 0 && rv != QTABLE_RESULT_TOLERATED)
        return rv;

    DHCP_SNOOP_DEBUG("runtime data sync.");
    dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_ADD, &view, record);
    usoData.data = record;
    usoData.len = DHCP_SNOOP_RUNTIME_RECORD_SIZE;
    DHCP_SNOOP_CALL(rv, stkUsoRuntimeDataSync(MID_DHCP, &usoData));
    if (rv != 0)
        return DHCP_SNOOP_E_STACK_SYNC;
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopElementAddNew(DhcpSnoopElement *element, uint32_t tableType)
{
    return dhcpSnoopElementAddNewEx(element, tableType, NULL);
}

uint32_t dhcpSnoopElementDeleteEx(DhcpSnoopElement *pElement, uint32_t tableType, uint32_t *unlinked)
{
    DhcpSnoopElement **table;
    DhcpSnoopElement view;
    uint8_t record[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    UsoData usoData;
    uint32_t pos;
    uint32_t rv;
    uint32_t result = DHCP_SNOOP_OK;

    *unlinked = 0;
    if (pElement == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (dhcpSnoopTableChangesSuspended())
        return DHCP_SNOOP_OK;
    /* Until it is unlinked here the element may be another thread's. */
    dhcpSnoopElementLoad(pElement, &view);
    DHCP_SNOOP_DEBUG("Del element, client IP:%d.%d.%d.%d, type:%d", DHCP_SNOOP_IP_ARGS(&view), (int)tableType);
    table = dhcpSnoopTableOf(tableType);
    if (table == NULL)
        return DHCP_SNOOP_E_PARAM;

    pos = dhcpSnoopBucketOf(view.clientIp);
    DHCP_SNOOP_DEBUG("del pos:%u", pos);
    DHCP_SNOOP_DEBUG("remove element");
    if (dhcpSnoopUnlink(table, tableType, pElement) == 0)
        return DHCP_SNOOP_E_PARAM;
    *unlinked = 1;
    /* Ours now; only a stale aging pass may still touch its ttl. */
    dhcpSnoopElementLoad(pElement, &view);

    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_ENTRY) != 0) {
        char port[UP_STR_BUF];
        DHCP_SNOOP_DEBUG("Delete %s table binding entry:\n src IP:%d.%d.%d.%d, src MAC:%02x:%02x:%02x:%02x:%02x:%02x, "
                         "vlan:%d, port:%s, ttl:%d",
                         dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(&view), DHCP_SNOOP_MAC_ARGS(&view),
                         (int)view.vlan, dhcpSnoopUpText(view.up, port), (int)view.ttl);
    }

    if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC) {
        dhcpSnoopSaveTrigger();
        DHCP_SNOOP_CALL(rv, dhcpSnoopDelFromQTable(pElement));
        if (rv != 0) {
            result = rv;
        } else {
            DHCP_SNOOP_DEBUG("runtime data sync.");
            dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_DELETE, &view, record);
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

uint32_t dhcpSnoopElementDelete(DhcpSnoopElement *pElement, uint32_t tableType)
{
    uint32_t unlinked;
    uint32_t rv = dhcpSnoopElementDeleteEx(pElement, tableType, &unlinked);

    /* An element that is not in the table is left alone: it is either its
     * taker's, who frees it, or already back in the pool. */
    if (rv == DHCP_SNOOP_E_PARAM && unlinked == 0 && pElement != NULL && dhcpSnoopTableOf(tableType) != NULL)
        DHCP_SNOOP_ERROR("Element is not in the %s table.", dhcpSnoopTableName(tableType));
    return rv;
}

/* The first element of the chain at pos matching key (MAC compared when
 * withMac), or NULL. */
static DhcpSnoopElement *dhcpSnoopChainFind(DhcpSnoopElement **table, uint32_t tableType, uint32_t pos,
                                            const DhcpSnoopElement *key, int withIp, DhcpSnoopElement *view)
{
    DhcpSnoopElement *node = dhcpSnoopHead(table, pos);
    uint32_t walked;

    for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
        if (dhcpSnoopElementFiledIn(node, tableType) == 0)
            return NULL;
        dhcpSnoopElementLoad(node, view);
        if ((withIp == 0 || memcmp(view->clientIp, key->clientIp, sizeof(view->clientIp)) == 0) &&
            view->vlan == key->vlan && memcmp(view->clientMac, key->clientMac, sizeof(view->clientMac)) == 0)
            return node;
        node = view->next;
    }
    return NULL;
}

static void dhcpSnoopFindLine(uint32_t tableType, const DhcpSnoopElement *view)
{
    char port[UP_STR_BUF];

    DHCP_SNOOP_DEBUG("Find %s table binding entry:\n src IP:%d.%d.%d.%d, src "
                     "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s, ttl:%d",
                     dhcpSnoopTableName(tableType), DHCP_SNOOP_IP_ARGS(view), DHCP_SNOOP_MAC_ARGS(view),
                     (int)view->vlan, dhcpSnoopUpText(view->up, port), (int)view->ttl);
}

DhcpSnoopElement *dhcpSnoopElementSearchByIpVlanMac(const DhcpSnoopElement *key, uint32_t tableType)
{
    DhcpSnoopElement **table = dhcpSnoopTableOf(tableType);
    DhcpSnoopElement *node;
    DhcpSnoopElement view;

    if (key == NULL || table == NULL)
        return NULL;
    node = dhcpSnoopChainFind(table, tableType, dhcpSnoopBucketOf(key->clientIp), key, 1, &view);
    if (node != NULL)
        dhcpSnoopFindLine(tableType, &view);
    return node;
}

DhcpSnoopElement *dhcpSnoopElementSearchByMacAndVlan(const DhcpSnoopElement *key, uint32_t tableType)
{
    DhcpSnoopElement **table = dhcpSnoopTableOf(tableType);
    DhcpSnoopElement *node;
    DhcpSnoopElement view;
    uint32_t pos;

    if (key == NULL || table == NULL)
        return NULL;
    if (key->vlan < 1 || key->vlan > 4094)
        return NULL;
    for (pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++) {
        node = dhcpSnoopChainFind(table, tableType, pos, key, 0, &view);
        if (node != NULL) {
            dhcpSnoopFindLine(tableType, &view);
            return node;
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
    DhcpSnoopElement view;
    uint32_t pos;
    uint32_t ttl;
    uint32_t walked;
    uint32_t gone;

    if (table == NULL)
        return;
    for (pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++) {
        node = dhcpSnoopHead(table, pos);
        for (walked = 0; node != NULL && walked < DHCP_SNOOP_CHAIN_MAX; walked++) {
            /* A chain that has run into the free list, or behind a removal
             * made by another thread, ends here. */
            if (node == __atomic_load_n(&tableMemPoolUnused, __ATOMIC_ACQUIRE) ||
                dhcpSnoopElementFiledIn(node, tableType) == 0)
                break;
            dhcpSnoopElementLoad(node, &view);
            next = view.next;
            /* Expiry is tested before the decrement: ttl n lasts n+1 passes. */
            ttl = view.ttl;
            if (ttl == 0) {
                if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC)
                    DHCP_SNOOP_DEBUG("Dynamic table entry expired, hash pos:%d.", (int)pos);
                else
                    DHCP_SNOOP_DEBUG("Request table entry expired, hash pos:%d.", (int)pos);
                {
                    char port[UP_STR_BUF];
                    DHCP_SNOOP_DEBUG("Aging entry, src IP:%d.%d.%d.%d, src MAC:%02x:%02x:%02x:%02x:%02x:%02x, "
                                     "vlan:%d, port:%s, ttl:%d",
                                     DHCP_SNOOP_IP_ARGS(&view), DHCP_SNOOP_MAC_ARGS(&view), (int)view.vlan,
                                     dhcpSnoopUpText(view.up, port), (int)ttl);
                }
                (void)dhcpSnoopElementDeleteEx(node, tableType, &gone);
                if (tableType == DHCP_SNOOP_ELEMENT_DYNAMIC)
                    DHCP_SNOOP_DEBUG("dynamic ageing count =%d\n", (int)dhcpSnoopMallocCount());
                else
                    DHCP_SNOOP_DEBUG("request ageing count =%d\n", (int)dhcpSnoopMallocCount());
            } else if (ttl < DHCP_SNOOP_TTL_FOREVER) {
                /* Only if unchanged since read: the element may have been
                 * removed and handed out again meanwhile. */
                (void)__atomic_compare_exchange_n(&node->ttl, &ttl, ttl - 1, 0, __ATOMIC_RELAXED,
                                                  __ATOMIC_RELAXED);
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
        DHCP_SNOOP_DEBUG("Delete binding table entry successfully:\n src IP:%d.%d.%d.%d, src "
                         "MAC:%02x:%02x:%02x:%02x:%02x:%02x, vlan:%d, port:%s",
                         DHCP_SNOOP_IP_ARGS(element), DHCP_SNOOP_MAC_ARGS(element), (int)element->vlan,
                         dhcpSnoopUpText(element->up, port));
    }
}

}  // extern "C"
