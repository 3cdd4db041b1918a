// Stack synchronisation: bulk snapshots, runtime records, unit removal.
//
// Snapshot: num (u32) at 0, the sender's data pointer word at 4 (the low 32
// bits of the address of offset 8; never trusted on receipt), then num
// 48-byte records, each an operation word and an element image. Every
// multi-byte field is big-endian, whatever the unit, through the same codec
// the tables use for their runtime records.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"
#include "snooping/dhcpSnoopWire.h"

extern "C" {

/* IP 0.0.0.0 on VLAN 0 with a zero MAC: no binding ever looks like that. */
static int dhcpSnoopIsNullKey(const DhcpSnoopElement *e)
{
    static const uint8_t zero[6] = {0, 0, 0, 0, 0, 0};

    return memcmp(e->clientIp, zero, sizeof(e->clientIp)) == 0 && e->vlan == 0 &&
           memcmp(e->clientMac, zero, sizeof(e->clientMac)) == 0;
}

/* The data pointer word of a snapshot head: the address of its first record,
 * as the switch's 32-bit pointers are (a wider host keeps the low half). */
static void dhcpSnoopPutDataWord(uint8_t *syncData)
{
    dhcpSnoopPutU32(syncData + 4, (uint32_t)(uintptr_t)(syncData + DHCP_SNOOP_SNAPSHOT_HEAD_SIZE));
}

/* Files a decoded image as a new dynamic binding. An element that the add
 * did not link (changes suspended, or a failure before linking) goes back to
 * the pool here; one it linked belongs to the table, even when a later step
 * of the add failed. */
static uint32_t dhcpSnoopApplyAdd(const uint8_t image[DHCP_SNOOP_ELEMENT_IMAGE_SIZE])
{
    DhcpSnoopElement *element;
    uint32_t filed = 0;
    uint32_t rv;

    element = dhcpSnoopGetMem();
    if (NULL == element) {
        DHCP_SNOOP_ENSURE_FAILED("NULL != element");
        return DHCP_SNOOP_E_FAIL;
    }
    dhcpSnoopElementDecode(image, element);
    rv = dhcpSnoopElementAddNewEx(element, DHCP_SNOOP_ELEMENT_DYNAMIC, &filed);
    /* Whether the add linked the element decides, not a second reading of
     * the suspension status, which may have changed in between. */
    if (filed == 0)
        dhcpSnoopFreeMem(element);
    if (rv != 0) {
        DHCP_SNOOP_CALL_FAILED(rv, "dhcpSnoopElementAddNew(element, DHCP_SNOOP_ELEMENT_DYNAMIC)");
        return rv;
    }
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopDataSyncGetCb(UsoData *usoData)
{
    DhcpSnoopElement *node;
    DhcpSnoopElement view;
    uint8_t *syncData;
    uint32_t counted;
    uint32_t size;
    uint32_t capacity;
    uint32_t num = 0;
    uint32_t pos;
    uint32_t walked;
    int full = 0;

    if (usoData == NULL)
        return DHCP_SNOOP_E_PARAM;
    counted = dhcpSnoopMallocCount();
    DHCP_SNOOP_DEBUG("dhcpSnoopDataSyncGetCb, mallocCounter:%d", (int)counted);
    /* 48 bytes per element out of the pool, plus the head. */
    size = (6u * counted + 1u) * 8u;
    syncData = (uint8_t *)pal_calloc(1, size, DHCP_SNOOP_MEM_TAG);
    if (syncData == NULL) {
        DHCP_SNOOP_ERROR("No memory for a snapshot of %u bytes.", size);
        return DHCP_SNOOP_E_NO_MEMORY;
    }
    capacity = counted;
    dhcpSnoopPutDataWord(syncData);

    for (pos = 0; pos < DHCP_SNOOP_HASH_SIZE && full == 0; pos++) {
        node = dhcpSnoopHead(dynamicTable, pos);
        for (walked = 0; node != NULL && walked < DHCP_SNOOP_POOL_SIZE; walked++) {
            /* Ran off the table behind another thread's removal. */
            if (dhcpSnoopElementFiledIn(node, DHCP_SNOOP_ELEMENT_DYNAMIC) == 0)
                break;
            dhcpSnoopElementLoad(node, &view);
            if (dhcpSnoopIsNullKey(&view)) {
                /* The copy may have caught an element being cleared by
                 * another thread's removal: only a claimed one is given back,
                 * as it lies (the bucket head is not repaired). */
                if (dhcpSnoopElementClaimNull(node, DHCP_SNOOP_ELEMENT_DYNAMIC) == 0)
                    break;
                DHCP_SNOOP_DEBUG("Null table element, it should not have existed.");
                dhcpSnoopFreeMem(node);
                node = view.next;
                continue;
            }
            /* The count was read before the walk; bindings filed since then
             * may not fit. They reach the other units as runtime records. */
            if (num >= capacity) {
                full = 1;
                break;
            }
            dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_ADD, &view,
                                         syncData + DHCP_SNOOP_SNAPSHOT_HEAD_SIZE + num * DHCP_SNOOP_RUNTIME_RECORD_SIZE);
            num++;
            node = view.next;
        }
    }
    if (full != 0)
        DHCP_SNOOP_ERROR("Snapshot full at %u records, later bindings left out.", num);

    DHCP_SNOOP_DEBUG("buf->num:%d", (int)num);
    dhcpSnoopPutU32(syncData, num);
    usoData->data = syncData;
    usoData->len = DHCP_SNOOP_RUNTIME_RECORD_SIZE * num + DHCP_SNOOP_SNAPSHOT_HEAD_SIZE;
    DHCP_SNOOP_DEBUG("usodata->len:%d", (int)usoData->len);
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopDataSyncSetCb(UsoData *usoData, void *arg)
{
    DhcpSnoopElement key;
    uint8_t *syncData;
    const uint8_t *record;
    uint32_t curUnit;
    uint32_t op;
    uint32_t rv;
    int32_t num;
    int32_t i;

    (void)arg;
    if (usoData == NULL)
        return DHCP_SNOOP_E_PARAM;
    curUnit = stkGetCurrentUnit();
    DHCP_SNOOP_DEBUG("Delete dynamic elements of unit %d.", (int)curUnit);
    DHCP_SNOOP_CALL(rv, dhcpSnoopElementDelByUnit(curUnit, DHCP_SNOOP_ELEMENT_DYNAMIC));
    if (rv != 0)
        return rv;

    DHCP_SNOOP_DEBUG("dhcpSnoopDataSyncSetCb, usodata len:%d", (int)usoData->len);
    syncData = (uint8_t *)usoData->data;
    if (NULL == syncData) {
        DHCP_SNOOP_ENSURE_FAILED("NULL != syncData");
        return DHCP_SNOOP_E_FAIL;
    }
    /* The count is checked against the bytes handed over before any record
     * is applied: a snapshot that does not hold its records is refused whole
     * (the unit's own bindings, removed above, stay removed). */
    if (usoData->len < DHCP_SNOOP_SNAPSHOT_HEAD_SIZE) {
        DHCP_SNOOP_ERROR("Sync data len %u holds no head.", usoData->len);
        return DHCP_SNOOP_E_FAIL;
    }
    dhcpSnoopPutDataWord(syncData);
    record = syncData + DHCP_SNOOP_SNAPSHOT_HEAD_SIZE;
    num = (int32_t)dhcpSnoopGetU32(syncData);
    DHCP_SNOOP_DEBUG("syncData->num:%d", (int)num);
    if (num > 0 && (uint32_t)num > (usoData->len - DHCP_SNOOP_SNAPSHOT_HEAD_SIZE) / DHCP_SNOOP_RUNTIME_RECORD_SIZE) {
        DHCP_SNOOP_ERROR("Sync data len %u holds no %d records.", usoData->len, (int)num);
        return DHCP_SNOOP_E_FAIL;
    }

    /* Signed: a negative count applies nothing. The operation word of a
     * snapshot record is always an add and is not looked at. */
    for (i = 0; i < num; i++, record += DHCP_SNOOP_RUNTIME_RECORD_SIZE) {
        memset(&key, 0, sizeof(key));
        dhcpSnoopRuntimeRecordDecode(record, &op, &key);
        if (dhcpSnoopIsNullKey(&key)) {
            DHCP_SNOOP_DEBUG("Null table element, it should not have existed.");
            continue;
        }
        rv = dhcpSnoopApplyAdd(record + DHCP_SNOOP_REC_ELEMENT);
        if (rv != 0)
            return rv;
    }
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopDataSyncFreeCb(UsoData *usoData)
{
    if (usoData == NULL)
        return DHCP_SNOOP_E_PARAM;
    DHCP_SNOOP_DEBUG("%s", __func__);
    if (usoData->data != NULL)
        pal_free(usoData->data);
    usoData->data = NULL;
    usoData->len = 0;
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopRuntimeDataHnd(UsoData *usoData)
{
    DhcpSnoopElement image;
    DhcpSnoopElement *element;
    const uint8_t *syncData;
    uint32_t op = 0;
    uint32_t rv;

    if (usoData == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (usoData->len != DHCP_SNOOP_RUNTIME_RECORD_SIZE) {
        DHCP_SNOOP_ERROR("usodata length err.");
        return DHCP_SNOOP_E_FAIL;
    }
    syncData = (const uint8_t *)usoData->data;
    if (NULL == syncData) {
        DHCP_SNOOP_ENSURE_FAILED("NULL != syncData");
        return DHCP_SNOOP_E_FAIL;
    }
    memset(&image, 0, sizeof(image));
    dhcpSnoopRuntimeRecordDecode(syncData, &op, &image);
    DHCP_SNOOP_DEBUG("Runtime Data Hnd, client IP:%d.%d.%d.%d, type: %d", (int)image.clientIp[0],
                     (int)image.clientIp[1], (int)image.clientIp[2], (int)image.clientIp[3], (int)op);

    if (op == DHCP_SNOOP_SYNC_ADD) {
        /* Such an element would be given back raw by the next snapshot,
         * leaving its bucket head in the pool: it is never filed. */
        if (dhcpSnoopIsNullKey(&image)) {
            DHCP_SNOOP_ERROR("Null table element, it should not have existed.");
            return DHCP_SNOOP_E_FAIL;
        }
        rv = dhcpSnoopApplyAdd(syncData + DHCP_SNOOP_REC_ELEMENT);
        if (rv != 0)
            return rv;
    } else if (op == DHCP_SNOOP_SYNC_DELETE) {
        element = dhcpSnoopElementSearchByIpVlanMac(&image, DHCP_SNOOP_ELEMENT_DYNAMIC);
        /* Passed on even when null: a binding that is not here gives 1. */
        DHCP_SNOOP_CALL(rv, dhcpSnoopElementDelete(element, DHCP_SNOOP_ELEMENT_DYNAMIC));
        if (rv != 0)
            return rv;
    } else {
        return DHCP_SNOOP_E_FAIL;
    }
    DHCP_SNOOP_DEBUG("runtime data hnd OK.");
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopElementDelByUnit(uint32_t unit, uint32_t tableType)
{
    DhcpSnoopElement **table;
    DhcpSnoopElement *p;
    DhcpSnoopElement view;
    uint32_t type = tableType;
    uint32_t pos;
    uint32_t walked;
    uint32_t unlinked;
    uint32_t rv;

    if (type == DHCP_SNOOP_ELEMENT_DYNAMIC)
        table = dynamicTable;
    else if (type == DHCP_SNOOP_ELEMENT_REQUEST)
        table = requestTable;
    else
        return DHCP_SNOOP_E_PARAM;

    for (pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++) {
        p = dhcpSnoopHead(table, pos);
        for (walked = 0; p != NULL && walked < DHCP_SNOOP_POOL_SIZE; walked++) {
            if (dhcpSnoopElementFiledIn(p, type) == 0)
                break;
            dhcpSnoopElementLoad(p, &view);
            if (UP_UNIT(view.up) == unit) {
                DHCP_SNOOP_DEBUG("del unit:%d", (int)unit);
                rv = dhcpSnoopElementDeleteEx(p, type, &unlinked);
                /* One that another thread removed meanwhile is no failure. */
                if (rv != 0 && unlinked == 0)
                    rv = DHCP_SNOOP_OK;
                if (rv != 0) {
                    DHCP_SNOOP_CALL_FAILED(rv, "dhcpSnoopElementDelete(p, type)");
                    return rv;
                }
            }
            p = view.next;
        }
    }
    return DHCP_SNOOP_OK;
}

/* Bit 1 means unit 1 left; no other unit is looked at. */
uint32_t dhcpSnoopDetachCb(uint32_t unitMask, void *arg)
{
    (void)arg;
    DHCP_SNOOP_DEBUG("dhcpSnoopDetachCb:%u", unitMask);
    if ((unitMask & 2u) != 0)
        (void)dhcpSnoopElementDelByUnit(1, DHCP_SNOOP_ELEMENT_DYNAMIC);
    return DHCP_SNOOP_OK;
}

}  // extern "C"
