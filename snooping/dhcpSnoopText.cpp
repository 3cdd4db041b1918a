// The binding file's lines, composed often enough (every save renders the
// whole table) that snprintf's cost shows. Writes exactly what the snprintf
// call named in its declaration would.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* value in lower-case hex, at least width digits ("%0<width>x"). */
static char *dhcpSnoopTextHex(char *out, uint32_t value, uint32_t width)
{
    static const char digits[] = "0123456789abcdef";
    char tmp[8];
    uint32_t n = 0;

    do {
        tmp[n++] = digits[value & 0xFu];
        value >>= 4;
    } while (value != 0);
    while (width > n) {
        *out++ = '0';
        width--;
    }
    while (n > 0)
        *out++ = tmp[--n];
    return out;
}

int dhcpSnoopBindingLineFormat(char *line, size_t size, const uint8_t ip[4], const uint8_t mac[6],
                               uint32_t vlan, const char *portText, uint32_t ttl, uint32_t check)
{
    /* The fixed columns take 56 characters, the port column at least 11. */
    char full[56u + 11u + UP_STR_BUF];
    char *p = full;
    size_t portLen = strnlen(portText, UP_STR_BUF - 1u);
    size_t len;
    uint32_t i;

    for (i = 0; i < 4u; i++) {
        p = dhcpSnoopTextHex(p, ip[i], 2);
        *p++ = i < 3u ? '.' : '\t';
    }
    for (i = 0; i < 6u; i++) {
        p = dhcpSnoopTextHex(p, mac[i], 2);
        *p++ = i < 5u ? ':' : '\t';
    }
    p = dhcpSnoopTextHex(p, vlan, 4);
    *p++ = '\t';
    for (i = (uint32_t)portLen; i < 11u; i++)
        *p++ = ' ';
    memcpy(p, portText, portLen);
    p += portLen;
    *p++ = '\t';
    p = dhcpSnoopTextHex(p, ttl, 8);
    *p++ = '\t';
    p = dhcpSnoopTextHex(p, check, 8);
    *p++ = '\t';
    *p++ = '\r';
    *p++ = '\n';
    len = (size_t)(p - full);
    if (size > 0) {
        size_t n = len < size ? len : size - 1u;
        memcpy(line, full, n);
        line[n] = '\0';
    }
    return (int)len;
}

}  // extern "C"
