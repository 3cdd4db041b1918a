/*
 * DHCP snooping configuration service: per-port and per-VLAN settings and
 * the switch-wide status of binding-table changes.
 */
#ifndef PLATFORM_SNOOPCFG_H
#define PLATFORM_SNOOPCFG_H

#include <stdint.h>

#include "platform/port.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DHCP_SNOOP_OP82_TEXT_LEN 257

/* Option-82 policy for client frames that already carry the option. */
#define DHCP_SNOOP_OP82_POLICY_KEEP 0
#define DHCP_SNOOP_OP82_POLICY_REPLACE 1
#define DHCP_SNOOP_OP82_POLICY_DROP 2

/* A port's snooping configuration record, 522 bytes. */
typedef struct DhcpSnoopPortCfg {
    uint8_t trust;          /* non-zero: trusted port */
    uint8_t macVerify;      /* non-zero: CHADDR must equal the source MAC */
    uint8_t limitRate;      /* DHCP frames per second, 0 = no limit */
    uint8_t decLimitRate;   /* DECLINE frames per second, 0 = no limit */
    uint8_t op82Enable;     /* non-zero: option-82 processing on */
    uint8_t Op82Policy;     /* DHCP_SNOOP_OP82_POLICY_* */
    uint8_t circuitIdFormat; /* non-zero: user-defined circuit-ID text */
    uint8_t remoteIdFormat;  /* non-zero: user-defined remote-ID text */
    char circuitId[DHCP_SNOOP_OP82_TEXT_LEN]; /* NUL-terminated */
    char remoteId[DHCP_SNOOP_OP82_TEXT_LEN];  /* NUL-terminated */
} DhcpSnoopPortCfg;

#ifdef __cplusplus
static_assert(sizeof(DhcpSnoopPortCfg) == 522, "port configuration record is 522 bytes");
#else
_Static_assert(sizeof(DhcpSnoopPortCfg) == 522, "port configuration record is 522 bytes");
#endif

/* All getters return 0 on success and leave the output alone otherwise. */
uint32_t swDhcpSnoopGetPortTrust(up port, uint8_t *trust);
uint32_t swDhcpSnoopGetPortMacVerify(up port, uint8_t *macVerify);
uint32_t swDhcpSnoopGetPortCfg(up port, DhcpSnoopPortCfg *cfg);
uint32_t swDhcpSnoopGetPortLimitRate(up port, uint8_t *rate);
uint32_t swDhcpSnoopGetPortDecLimitRate(up port, uint8_t *rate);
uint32_t swDhcpSnoopGetVlanEnableStatusByVid(uint16_t vid, uint8_t *enabled);
/* Non-zero status: binding-table changes are enabled. */
uint32_t swDhcpSnoopGetQAddStatus(uint8_t *status);
/* Stores a port's whole configuration record. */
uint32_t swDhcpSnoopSetPortCfg(up port, const DhcpSnoopPortCfg *cfg);

#ifdef __cplusplus
}
#endif

#endif
