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
    DhcpSnoopElement e;

    if (element == NULL || out == NULL)
        return DHCP_SNOOP_E_PARAM;
    /* Exports walk the tables while other threads age and relink them. */
    dhcpSnoopElementLoad(element, &e);
    memset(out, 0, DHCP_SNOOP_ELEMENT_IMAGE_SIZE);
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_TTL, e.ttl);
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_OPT82_POS, e.opt82Pos);
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_END_OPT_POS, e.endOptPos);
    dhcpSnoopPutU16(out + DHCP_SNOOP_IMG_VLAN, e.vlan);
    out[DHCP_SNOOP_IMG_TYPE] = e.type;
    out[DHCP_SNOOP_IMG_IS_REUSE] = e.isReuse;
    memcpy(out + DHCP_SNOOP_IMG_CLIENT_MAC, e.clientMac, sizeof(e.clientMac));
    out[DHCP_SNOOP_IMG_IS_BROADCAST] = e.isBroadcast;
    memcpy(out + DHCP_SNOOP_IMG_CLIENT_IP, e.clientIp, sizeof(e.clientIp));
    memcpy(out + DHCP_SNOOP_IMG_XID, e.xid, sizeof(e.xid));
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_UP, e.up);
    /* The switch's pointers are 32 bits; a wider host sends their low half. */
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_NEXT, (uint32_t)(uintptr_t)e.next);
    dhcpSnoopPutU32(out + DHCP_SNOOP_IMG_PREV, (uint32_t)(uintptr_t)e.prev);
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopElementDecode(const uint8_t in[DHCP_SNOOP_ELEMENT_IMAGE_SIZE], DhcpSnoopElement *element)
{
    DhcpSnoopElement e;

    if (in == NULL || element == NULL)
        return DHCP_SNOOP_E_PARAM;
    /* The receiver's transient offsets and reserved byte stay as they are;
     * the fields are stored one atomic access each, like every taker's. */
    dhcpSnoopElementLoad(element, &e);
    e.ttl = dhcpSnoopGetU32(in + DHCP_SNOOP_IMG_TTL);
    e.vlan = dhcpSnoopGetU16(in + DHCP_SNOOP_IMG_VLAN);
    e.type = in[DHCP_SNOOP_IMG_TYPE];
    e.isReuse = in[DHCP_SNOOP_IMG_IS_REUSE];
    memcpy(e.clientMac, in + DHCP_SNOOP_IMG_CLIENT_MAC, sizeof(e.clientMac));
    e.isBroadcast = in[DHCP_SNOOP_IMG_IS_BROADCAST];
    memcpy(e.clientIp, in + DHCP_SNOOP_IMG_CLIENT_IP, sizeof(e.clientIp));
    memcpy(e.xid, in + DHCP_SNOOP_IMG_XID, sizeof(e.xid));
    e.up = dhcpSnoopGetU32(in + DHCP_SNOOP_IMG_UP);
    dhcpSnoopElementStore(element, &e);
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

uint32_t dhcpSnoopSum16(const uint8_t *p, uint32_t len)
{
    /* Two lanes of 32 bits, each summing two 16-bit words per step: a lane
     * stays below 2^31 for any len up to 65535. */
    uint64_t lanes = 0;
    uint32_t sum;
    uint32_t i = 0;

    for (; i + 8u <= len; i += 8u) {
        uint64_t w;

        memcpy(&w, p + i, sizeof(w));
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        w = __builtin_bswap64(w);
#endif
        lanes += ((w >> 16) & 0x0000FFFF0000FFFFull) + (w & 0x0000FFFF0000FFFFull);
    }
    sum = (uint32_t)(lanes >> 32) + (uint32_t)lanes;
    for (; i + 1u < len; i += 2u)
        sum += ((uint32_t)p[i] << 8) | p[i + 1u];
    return sum;
}

}  // extern "C"
