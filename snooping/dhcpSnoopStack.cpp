// Stack synchronisation: bulk snapshots, runtime records, unit removal.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* Placeholders until stack synchronisation lands. */
uint32_t dhcpSnoopDataSyncGetCb(UsoData *usoData)
{
    return usoData == NULL ? DHCP_SNOOP_E_PARAM : DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopDataSyncSetCb(UsoData *usoData, void *arg)
{
    (void)arg;
    return usoData == NULL ? DHCP_SNOOP_E_PARAM : DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopDataSyncFreeCb(UsoData *usoData)
{
    return usoData == NULL ? DHCP_SNOOP_E_PARAM : DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopRuntimeDataHnd(UsoData *usoData)
{
    return usoData == NULL ? DHCP_SNOOP_E_PARAM : DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopElementDelByUnit(uint32_t unit, uint32_t tableType)
{
    (void)unit;
    return tableType > DHCP_SNOOP_ELEMENT_REQUEST ? DHCP_SNOOP_E_PARAM : DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopDetachCb(uint32_t unitMask, void *arg)
{
    (void)unitMask;
    (void)arg;
    return DHCP_SNOOP_OK;
}

}  // extern "C"
