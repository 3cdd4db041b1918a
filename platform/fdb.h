/*
 * Forwarding database, the switch's own MAC address, frame transmission and
 * the packet pool that trapped frames come from.
 *
 * The records exchanged here (FdbEntry, DhcpSnoopPacket) are laid out in the
 * snooping module's chief header.
 */
#ifndef PLATFORM_FDB_H
#define PLATFORM_FDB_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct FdbEntry FdbEntry;
typedef struct DhcpSnoopPacket DhcpSnoopPacket;

/* Looks up the entry's MAC and VLAN; fills port and the second word. 0 = found. */
uint32_t swFdbGetEntry(FdbEntry *entry);
/* Writes the switch's own MAC address into 6 bytes; 0 on success. */
uint32_t getMacAddress(uint8_t *mac);
/* Transmits the frame of a descriptor by its send flags and port list; 0 = sent. */
uint32_t norvikPacketSend(DhcpSnoopPacket *packet);
/* Gives a trapped frame's buffer back to the packet pool. */
void dhcpReleasePacketPool(uint8_t *frame);

#ifdef __cplusplus
}
#endif

#endif
