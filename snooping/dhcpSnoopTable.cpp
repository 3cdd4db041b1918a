// Binding tables: the element pool, the request and dynamic tables, aging
// and the link to the IP source-guard table.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

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

/* ---- tables (placeholders until the binding tables land) -------------------- */

uint32_t dhcpSnoopElementAddNew(DhcpSnoopElement *element, uint32_t tableType)
{
    (void)element;
    (void)tableType;
    return DHCP_SNOOP_E_PARAM;
}

uint32_t dhcpSnoopElementDelete(DhcpSnoopElement *element, uint32_t tableType)
{
    (void)element;
    (void)tableType;
    return DHCP_SNOOP_E_PARAM;
}

DhcpSnoopElement *dhcpSnoopElementSearchByIpVlanMac(const DhcpSnoopElement *key, uint32_t tableType)
{
    (void)key;
    (void)tableType;
    return NULL;
}

DhcpSnoopElement *dhcpSnoopElementSearchByMacAndVlan(const DhcpSnoopElement *key, uint32_t tableType)
{
    (void)key;
    (void)tableType;
    return NULL;
}

void dhcpSnoopCheckAging(uint32_t tableType)
{
    (void)tableType;
}

uint32_t dhcpSnoopAdd2QTable(DhcpSnoopElement *element)
{
    (void)element;
    return DHCP_SNOOP_E_PARAM;
}

uint32_t dhcpSnoopDelFromQTable(DhcpSnoopElement *element)
{
    (void)element;
    return DHCP_SNOOP_E_PARAM;
}

}  // extern "C"
