// Forwarding: egress selection, transmission, the FDB cache and its task,
// option 82.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

void dhcpSnoopGetFdbEntryTask(void *arg)
{
    FdbEntry msg;
    uint32_t word = 0;

    (void)arg;
    if (dhcpSnoopGetFdbEntryTaskStart() != 0)
        return;
    memset(&msg, 0, sizeof(msg));
    for (;;) {
        if (pal_msgQ_receive(getFdbEntryMsgQue, &msg, sizeof(msg), PAL_WAIT_FOREVER, &word) == -1)
            continue;
        dhcpSnoopGetFdbEntryTaskHandle(&msg);
    }
}

/* Placeholders until forwarding lands. */
uint32_t dhcpSnoopGetFdbEntryTaskStart(void)
{
    if (gFdbEntryPool == NULL)
        return DHCP_SNOOP_E_PARAM;
    memset(gFdbEntryPool, 0, sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS);
    return DHCP_SNOOP_OK;
}

void dhcpSnoopGetFdbEntryTaskHandle(FdbEntry *msg)
{
    (void)msg;
}

uint32_t dhcpSnoopPacketSetSendFlag(DhcpSnoopPacket *packet, PortList *list)
{
    (void)packet;
    (void)list;
    return DHCP_SNOOP_E_FAIL;
}

uint32_t dhcpSnoopPacketSend(DhcpSnoopPacket *packet, PortList list)
{
    (void)packet;
    (void)list;
    return DHCP_SNOOP_E_PARAM;
}

uint32_t dhcpSnoopFdbGetEntry(FdbEntry *entry)
{
    (void)entry;
    return DHCP_SNOOP_E_FAIL;
}

uint32_t dhcpSnoopPacketForward(DhcpSnoopPacket *pkt, DhcpSnoopElement *ele)
{
    (void)pkt;
    (void)ele;
    return DHCP_SNOOP_E_PARAM;
}

uint16_t dhcpSnoopUdpChecksum(const uint8_t *ip)
{
    (void)ip;
    return 0;
}

}  // extern "C"
