// Stack wire images of the binding element and the runtime record.
#include "snooping/dhcpSnoopWire.h"

#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

void dhcpSnoopPutU16(uint8_t *p, uint16_t v)
{
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}

void dhcpSnoopPutU32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

uint16_t dhcpSnoopGetU16(const uint8_t *p)
{
    return (uint16_t)(((uint32_t)p[0] << 8) | (uint32_t)p[1]);
}

uint32_t dhcpSnoopGetU32(const uint8_t *p)
{
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | (uint32_t)p[3];
}

uint32_t dhcpSnoopElementEncode(const DhcpSnoopElement *element, uint8_t out[DHCP_SNOOP_ELEMENT_IMAGE_SIZE])
{
    if (element == NULL || out == NULL)
        return DHCP_SNOOP_E_PARAM;
    memset(out, 0, DHCP_SNOOP_ELEMENT_IMAGE_SIZE);
    /* ttl runs down on the main task while other threads export. */
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_TTL, __atomic_load_n(&element->ttl, __ATOMIC_RELAXED));
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_OPT82_POS, element->opt82Pos);
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_END_OPT_POS, element->endOptPos);
    dhcpSnoopPutU16(out + DHCP_SNOOP_IMG_VLAN, element->vlan);
    out[DHCP_SNOOP_IMG_TYPE] = element->type;
    out[DHCP_SNOOP_IMG_IS_REUSE] = element->isReuse;
    memcpy(out + DHCP_SNOOP_IMG_CLIENT_MAC, element->clientMac, sizeof(element->clientMac));
    out[DHCP_SNOOP_IMG_IS_BROADCAST] = element->isBroadcast;
    memcpy(out + DHCP_SNOOP_IMG_CLIENT_IP, element->clientIp, sizeof(element->clientIp));
    memcpy(out + DHCP_SNOOP_IMG_XID, element->xid, sizeof(element->xid));
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_UP, element->up);
    /* The switch's pointers are 32 bits; a wider host sends their low half. */
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_NEXT, (uint32_t)(uintptr_t)dhcpSnoopNext(element));
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_PREV, (uint32_t)(uintptr_t)dhcpSnoopPrev(element));
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopElementDecode(const uint8_t in[DHCP_SNOOP_ELEMENT_IMAGE_SIZE], DhcpSnoopElement *element)
{
    if (in == NULL || element == NULL)
        return DHCP_SNOOP_E_PARAM;
    element->ttl = dhcpSnoopGetU32(in + DHCP_SNOOP_IMG_TTL);
    element->vlan = dhcpSnoopGetU16(in + DHCP_SNOOP_IMG_VLAN);
    element->type = in[DHCP_SNOOP_IMG_TYPE];
    element->isReuse = in[DHCP_SNOOP_IMG_IS_REUSE];
    memcpy(element->clientMac, in + DHCP_SNOOP_IMG_CLIENT_MAC, sizeof(element->clientMac));
    element->isBroadcast = in[DHCP_SNOOP_IMG_IS_BROADCAST];
    memcpy(element->clientIp, in + DHCP_SNOOP_IMG_CLIENT_IP, sizeof(element->clientIp));
    memcpy(element->xid, in + DHCP_SNOOP_IMG_XID, sizeof(element->xid));
    element->up = dhcpSnoopGetU32(in + DHCP_SNOOP_IMG_UP);
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopRuntimeRecordEncode(uint32_t op, const DhcpSnoopElement *element,
                                      uint8_t out[DHCP_SNOOP_RUNTIME_RECORD_SIZE])
{
    if (element == NULL || out == NULL)
        return DHCP_SNOOP_E_PARAM;
    memset(out, 0, DHCP_SNOOP_RUNTIME_RECORD_SIZE);
    dhcpSnoopPutU32(out + DHCP_SNOOP_REC_OP, op);
    return dhcpSnoopElementEncode(element, out + DHCP_SNOOP_REC_ELEMENT);
}

uint32_t dhcpSnoopRuntimeRecordDecode(const uint8_t in[DHCP_SNOOP_RUNTIME_RECORD_SIZE], uint32_t *op,
                                      DhcpSnoopElement *element)
{
    if (in == NULL || op == NULL || element == NULL)
        return DHCP_SNOOP_E_PARAM;
    *op = dhcpSnoopGetU32(in + DHCP_SNOOP_REC_OP);
    return dhcpSnoopElementDecode(in + DHCP_SNOOP_REC_ELEMENT, element);
}

}  // extern "C"
