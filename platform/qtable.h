/*
 * IP source-guard table ("QTable") and the switch-wide settings that decide
 * which features use its snooped entries.
 */
#ifndef PLATFORM_QTABLE_H
#define PLATFORM_QTABLE_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Entry source value of entries made by DHCP snooping. */
#define QTABLE_SOURCE_DHCP_SNOOP 3
/* Include-mask bits. */
#define QTABLE_INCLUDE_ARP_DEFEND 0x01
#define QTABLE_INCLUDE_IP_FILTER 0x02
/* swQTableAdd results that are not plain failures. */
#define QTABLE_RESULT_EXISTS 2204
#define QTABLE_RESULT_TOLERATED 1319

/* A source-guard entry, 120 bytes; all bytes not named are zero. */
typedef struct SwQTableEntry {
    uint8_t ip[4];        /* network order */
    uint8_t mac[6];
    uint16_t vlan;
    uint32_t port;        /* port handle `up` */
    uint8_t source;       /* QTABLE_SOURCE_* */
    uint8_t mark[3];      /* "---" on add */
    uint8_t zero1[88];
    uint8_t includeMask;  /* QTABLE_INCLUDE_* */
    uint8_t zero2[11];
} SwQTableEntry;

#ifdef __cplusplus
static_assert(sizeof(SwQTableEntry) == 120, "source-guard entry is 120 bytes");
#else
_Static_assert(sizeof(SwQTableEntry) == 120, "source-guard entry is 120 bytes");
#endif

/* Finds an entry with the record's IP and source: *found 0 = none. 0 on success. */
uint32_t swQTableSearchByIpAndSource(const SwQTableEntry *entry, uint32_t *index, uint32_t *found);
/* Removes the entry a search reported. 0 on success. */
uint32_t swQTableDel(uint32_t unit, uint32_t index, uint32_t found);
/* Adds an entry. 0 on success; see the QTABLE_RESULT_* values. */
uint32_t swQTableAdd(uint32_t unit, const SwQTableEntry *entry);
/* Non-zero flag: the feature includes snooped bindings. 0 on success. */
uint32_t getIncludeIpFilter(uint32_t *flag);
uint32_t getIncludeArpDefend(uint32_t *flag);

#ifdef __cplusplus
}
#endif

#endif
