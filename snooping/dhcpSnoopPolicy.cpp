// Snooping policy: what each message type does to the tables and the frame,
// and the per-port rate limits.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* Placeholders until the policy lands. */
uint32_t dhcpSnoopTableManage(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement)
{
    (void)inputPacket;
    dhcpSnoopFreeMem(tempElement);
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopRateLimit(DhcpSnoopPacket *packet, DHCP_SNOOP_UP_T upPkt)
{
    (void)packet;
    (void)upPkt;
    return DHCP_SNOOP_OK;
}

}  // extern "C"
