// Persistence: the binding file, its save task and its loader.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

void dhcpSnoopSaveDynEntryTask(void *arg)
{
    uint8_t msg = 0;
    uint32_t word = 0;

    (void)arg;
    for (;;) {
        if (pal_msgQ_receive(updateDynTableQ, &msg, 1, PAL_WAIT_FOREVER, &word) == -1)
            continue;
        /* A failed save ends the task for good. */
        if (dhcpSnoopSaveDynEntryTaskStep() != 0)
            return;
    }
}

/* Placeholders until persistence lands. */
uint32_t dhcpSnoopSaveDynEntryTaskStep(void)
{
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopSaveDynEntry(DhcpSnoopElement **table, const char *path)
{
    (void)table;
    (void)path;
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopLoadDynEntry(const char *path)
{
    (void)path;
    return DHCP_SNOOP_OK;
}

int32_t dhcpSnoopHexStrtoInt(const char *text, uint32_t *value)
{
    (void)text;
    (void)value;
    return 0;
}

int32_t dhcpSnoopParseVlanStr(const char *text, uint16_t *vlan)
{
    (void)text;
    (void)vlan;
    return 0;
}

int32_t dhcpSnoopParseChksumStr(const char *text, uint32_t *value)
{
    (void)text;
    (void)value;
    return 0;
}

int32_t dhcpSnoopParsePortStr(const char *text, DHCP_SNOOP_UP_T *port)
{
    (void)text;
    (void)port;
    return 0;
}

}  // extern "C"
