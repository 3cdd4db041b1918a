/*
 * Byte images of the binding element and of the 48-byte runtime record that
 * travel between stack units. Every multi-byte field is written and read
 * byte by byte in the switch's big-endian order, whatever the host.
 */
#ifndef SNOOPING_DHCPSNOOPWIRE_H
#define SNOOPING_DHCPSNOOPWIRE_H

#include <stdint.h>

#include "snooping/dhcpSnoop.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Offsets inside the 44-byte element image. */
#define DHCP_SNOOP_IMG_TTL 0u
#define DHCP_SNOOP_IMG_OPT82_POS 4u
#define DHCP_SNOOP_IMG_END_OPT_POS 8u
#define DHCP_SNOOP_IMG_VLAN 12u
#define DHCP_SNOOP_IMG_TYPE 14u
#define DHCP_SNOOP_IMG_IS_REUSE 15u
#define DHCP_SNOOP_IMG_CLIENT_MAC 16u
#define DHCP_SNOOP_IMG_IS_BROADCAST 22u
#define DHCP_SNOOP_IMG_CLIENT_IP 23u
#define DHCP_SNOOP_IMG_XID 27u
#define DHCP_SNOOP_IMG_RESERVED 31u
#define DHCP_SNOOP_IMG_UP 32u
#define DHCP_SNOOP_IMG_NEXT 36u
#define DHCP_SNOOP_IMG_PREV 40u

/* Offsets inside the 48-byte runtime record. */
#define DHCP_SNOOP_REC_OP 0u
#define DHCP_SNOOP_REC_ELEMENT 4u

DHCP_SNOOP_STATIC_ASSERT(DHCP_SNOOP_IMG_PREV + 4u == DHCP_SNOOP_ELEMENT_IMAGE_SIZE,
                         "element image is 44 bytes");
DHCP_SNOOP_STATIC_ASSERT(DHCP_SNOOP_REC_ELEMENT + DHCP_SNOOP_ELEMENT_IMAGE_SIZE ==
                             DHCP_SNOOP_RUNTIME_RECORD_SIZE,
                         "runtime record is 48 bytes");

void dhcpSnoopPutU16(uint8_t *p, uint16_t v);
void dhcpSnoopPutU32(uint8_t *p, uint32_t v);
uint16_t dhcpSnoopGetU16(const uint8_t *p);
uint32_t dhcpSnoopGetU32(const uint8_t *p);

/* The element as it lies, links and transient offsets included (pointers as
 * their low 32 bits). 0, or 1 for a null argument. */
uint32_t dhcpSnoopElementEncode(const DhcpSnoopElement *element,
                                uint8_t out[DHCP_SNOOP_ELEMENT_IMAGE_SIZE]);
/* Takes over the binding's fields only: the sender's transient offsets and
 * links stay out, the receiver's own are left as they are. 0, or 1 for a
 * null argument. */
uint32_t dhcpSnoopElementDecode(const uint8_t in[DHCP_SNOOP_ELEMENT_IMAGE_SIZE],
                                DhcpSnoopElement *element);

/* A zeroed record with the operation (DHCP_SNOOP_SYNC_*) and the image. */
uint32_t dhcpSnoopRuntimeRecordEncode(uint32_t op, const DhcpSnoopElement *element,
                                      uint8_t out[DHCP_SNOOP_RUNTIME_RECORD_SIZE]);
/* The operation as written (not checked here) and the decoded image. */
uint32_t dhcpSnoopRuntimeRecordDecode(const uint8_t in[DHCP_SNOOP_RUNTIME_RECORD_SIZE],
                                      uint32_t *op, DhcpSnoopElement *element);

#ifdef __cplusplus
}
#endif

#endif
