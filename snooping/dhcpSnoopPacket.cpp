// Packet intake: the per-frame pipeline, the DHCP parser and the trace dump.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* Placeholder until the intake pipeline lands: every frame goes back to the
 * packet pool. */
uint32_t dhcpSnoopPacketHandle(DhcpSnoopMsg *inputPacket)
{
    if (inputPacket == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (inputPacket->packet.frame != NULL) {
        dhcpReleasePacketPool(inputPacket->packet.frame);
        inputPacket->packet.frame = NULL;
    }
    return DHCP_SNOOP_OK;
}

int32_t dhcpSnoopDhcpParser(DhcpSnoopPacket *packet, uint8_t *area, uint32_t mode,
                            DhcpSnoopElement *element)
{
    (void)packet;
    (void)area;
    (void)mode;
    (void)element;
    return (int32_t)DHCP_SNOOP_E_PARAM;
}

void debugPacket(DhcpSnoopPacket *packet, DhcpSnoopElement *element)
{
    (void)packet;
    (void)element;
}

}  // extern "C"
