// Persistence: the binding file, its save task and its loader.
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* Work buffer of both the writer and the reader. */
#define DHCP_SNOOP_FILE_BUF_SIZE 34371u
#define DHCP_SNOOP_FILE_HEADER "1\r\nTYPE DHCP-SNOOPING\r\nBEGIN\r\n"
#define DHCP_SNOOP_FILE_HEADER_LEN 30u
#define DHCP_SNOOP_FILE_END "END\r\n"
#define DHCP_SNOOP_FILE_LINE_LEN 67u
/* No line is appended once the text has reached this length: 512 lines. */
#define DHCP_SNOOP_FILE_TEXT_LIMIT 34300u
#define DHCP_SNOOP_FILE_LINE_FORMAT \
    "%02x.%02x.%02x.%02x\t%02x:%02x:%02x:%02x:%02x:%02x\t%04x\t%11s\t%08x\t%08x\t\r\n"

#define DHCP_SNOOP_IP_COLUMN_LEN 11u
#define DHCP_SNOOP_MAC_COLUMN_LEN 17u
#define DHCP_SNOOP_PORT_COLUMN_LEN 11u
#define DHCP_SNOOP_HEX32_COLUMN_LEN 8u
#define DHCP_SNOOP_VLAN_COLUMN_LEN 4u
#define DHCP_SNOOP_LINE_COLUMNS 6u

/* ---- writer ---------------------------------------------------------------- */

/* Renders one binding; returns the line's length as snprintf counts it (room
 * for any port text, so an over-long one is measured, not cut). */
static int dhcpSnoopFormatLine(const DhcpSnoopElement *e, const char *portText, uint32_t check,
                               char *line, size_t size)
{
    /* DHCP_SNOOP_FILE_LINE_FORMAT, rendered without snprintf: every save
     * renders the whole table. */
    return dhcpSnoopBindingLineFormat(line, size, e->clientIp, e->clientMac, (unsigned)e->vlan,
                                      portText, (unsigned)e->ttl, (unsigned)check);
}

uint32_t dhcpSnoopSaveDynEntry(DhcpSnoopElement **table, const char *path)
{
    char *text;
    uint32_t textLen;
    uint32_t bucket;
    FILE *fp;

    if (table == NULL || path == NULL)
        return DHCP_SNOOP_OK;

    text = (char *)pal_alloc(DHCP_SNOOP_FILE_BUF_SIZE, DHCP_SNOOP_MEM_TAG);
    if (text == NULL)
        return DHCP_SNOOP_E_FILE_WRITE;
    memset(text, 0, DHCP_SNOOP_FILE_BUF_SIZE);
    memcpy(text, DHCP_SNOOP_FILE_HEADER, DHCP_SNOOP_FILE_HEADER_LEN);
    textLen = DHCP_SNOOP_FILE_HEADER_LEN;

    pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
    for (bucket = 0; bucket < DHCP_SNOOP_HASH_SIZE; bucket++) {
        DhcpSnoopElement *node;
        for (node = dhcpSnoopHead(table, bucket); node != NULL; node = dhcpSnoopNext(node)) {
            DhcpSnoopElement copy;
            char portText[UP_STR_BUF];
            /* Room for the longest port text usUp2Str can write. */
            char line[DHCP_SNOOP_FILE_LINE_LEN + UP_STR_BUF];
            int lineLen;

            /* Only the fields of the line; aging counts ttl down on the main
             * task meanwhile. */
            memset(&copy, 0, sizeof(copy));
            memcpy(copy.clientIp, node->clientIp, sizeof(copy.clientIp));
            memcpy(copy.clientMac, node->clientMac, sizeof(copy.clientMac));
            copy.vlan = node->vlan;
            copy.up = node->up;
            copy.ttl = __atomic_load_n(&node->ttl, __ATOMIC_RELAXED);
            memset(portText, 0, sizeof(portText));
            usUp2Str(copy.up, portText, 1);
            portText[sizeof(portText) - 1] = '\0';
            lineLen = dhcpSnoopFormatLine(&copy, portText, textLen + DHCP_SNOOP_FILE_LINE_LEN,
                                          line, sizeof(line));
            if (lineLen != (int)DHCP_SNOOP_FILE_LINE_LEN) {
                DHCP_SNOOP_ERROR("Write file fail!");
                pal_mutex_give_int(upMutexId);
                pal_free(text);
                return DHCP_SNOOP_E_FILE_WRITE;
            }
            /* The rest of this chain is skipped, the next bucket is tried. */
            if (textLen >= DHCP_SNOOP_FILE_TEXT_LIMIT)
                break;
            memcpy(text + textLen, line, DHCP_SNOOP_FILE_LINE_LEN);
            textLen += DHCP_SNOOP_FILE_LINE_LEN;
        }
    }
    pal_mutex_give_int(upMutexId);
    memcpy(text + textLen, DHCP_SNOOP_FILE_END, sizeof(DHCP_SNOOP_FILE_END) - 1);
    textLen += (uint32_t)(sizeof(DHCP_SNOOP_FILE_END) - 1);

    /* Rewritten in place: no temporary file, no rename. */
    fp = fopen64(pal_file_path(path), "w+");
    if (fp == NULL) {
        DHCP_SNOOP_ERROR("Open file %s fail", path);
        pal_free(text);
        return DHCP_SNOOP_E_FILE_OPEN;
    }
    if (fwrite(text, textLen, 1, fp) != 1) {
        DHCP_SNOOP_ERROR("Write file %s fail", path);
        fclose(fp);
        pal_free(text);
        return DHCP_SNOOP_E_FILE_WRITE;
    }
    DHCP_SNOOP_DEBUG("Save dyn entry successfully.");
    fclose(fp);
    pal_free(text);
    return DHCP_SNOOP_OK;
}

/* ---- save task --------------------------------------------------------------- */

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

uint32_t dhcpSnoopSaveDynEntryTaskStep(void)
{
    uint32_t rv;

    /* Lets a burst of table changes settle into one save. */
    pal_sleep(300);
    DHCP_SNOOP_DEBUG("Execute dhcpSnoopSaveDynEntryTask.");
    /* Cleared before the walk: a change made during the save posts anew. */
    __atomic_store_n(&upMsgCnt, (uint8_t)0, __ATOMIC_RELAXED);
    DHCP_SNOOP_CALL(rv, dhcpSnoopSaveDynEntry(dynamicTable, DHCP_SNOOP_CFG_FILE_PATH));
    if (rv != 0)
        return rv;
    DHCP_SNOOP_DEBUG("Save the binding entries of dynamic table to the file system.");
    return DHCP_SNOOP_OK;
}

/* ---- parsers -------------------------------------------------------------------- */

static int32_t dhcpSnoopHexDigit(char c, uint32_t *digit)
{
    if (c >= '0' && c <= '9')
        *digit = (uint32_t)(c - '0');
    else if (c >= 'a' && c <= 'f')
        *digit = (uint32_t)(c - 'a' + 10);
    else if (c >= 'A' && c <= 'F')
        *digit = (uint32_t)(c - 'A' + 10);
    else
        return 0;
    return 1;
}

int32_t dhcpSnoopHexStrtoInt(const char *text, uint32_t *value)
{
    uint8_t len;
    uint8_t i;
    uint32_t acc = 0;

    if (text == NULL || value == NULL)
        return 0;
    /* The length is counted in 8 bits; the NUL check keeps every read inside
     * the text whatever that count says. */
    len = (uint8_t)strlen(text);
    for (i = 0; i < len; i++) {
        uint32_t digit;
        if (text[i] == ' ' || text[i] == '\0')
            break;
        if (!dhcpSnoopHexDigit(text[i], &digit)) {
            DHCP_SNOOP_ERROR("illegal char");
            return 0;
        }
        acc = acc * 16u + digit;
    }
    *value = acc;
    return 1;
}

int32_t dhcpSnoopParseVlanStr(const char *text, uint16_t *vlan)
{
    size_t len;
    uint32_t value = 0;

    if (text == NULL || vlan == NULL)
        return 0;
    len = strlen(text);
    if (len != DHCP_SNOOP_VLAN_COLUMN_LEN) {
        DHCP_SNOOP_ERROR("len error len = %d", (int)len);
        return 0;
    }
    if (!dhcpSnoopHexStrtoInt(text, &value))
        return 0;
    *vlan = (uint16_t)value;
    if (*vlan < 1 || *vlan > 4094) {
        DHCP_SNOOP_ERROR("wrong valn = %d", (int)*vlan);
        return 0;
    }
    DHCP_SNOOP_DEBUG("vlan = %04x", (unsigned)*vlan);
    return 1;
}

int32_t dhcpSnoopParseChksumStr(const char *text, uint32_t *value)
{
    size_t len;

    if (text == NULL || value == NULL)
        return 0;
    len = strlen(text);
    if (len != DHCP_SNOOP_HEX32_COLUMN_LEN) {
        DHCP_SNOOP_ERROR("len error len = %d", (int)len);
        return 0;
    }
    if (!dhcpSnoopHexStrtoInt(text, value))
        return 0;
    DHCP_SNOOP_DEBUG("chkSum = %08x", (unsigned)*value);
    return 1;
}

int32_t dhcpSnoopParsePortStr(const char *text, DHCP_SNOOP_UP_T *port)
{
    size_t len;

    if (text == NULL || port == NULL)
        return 0;
    len = strlen(text);
    if (len != DHCP_SNOOP_PORT_COLUMN_LEN) {
        DHCP_SNOOP_ERROR("len error len = %d", (int)len);
        return 0;
    }
    /* An unknown name is not refused here: the port checks of the loader
     * leave such a binding out. */
    (void)usStr2Up(-1, text, port, 0);
    DHCP_SNOOP_DEBUG("port = %s", text);
    return 1;
}

/* The IP and MAC columns: count bytes of two hex digits joined by sep. */
static int32_t dhcpSnoopParseAddrStr(const char *text, uint8_t *out, uint32_t count, char sep)
{
    uint8_t bytes[6];
    size_t len;
    size_t i;
    uint32_t acc = 0;
    uint32_t stored = 0;
    int32_t early = 0;

    len = strlen(text);
    if (len != (size_t)count * 3u - 1u) {
        DHCP_SNOOP_ERROR("len error len = %d", (int)len);
        return 0;
    }
    memset(bytes, 0, sizeof(bytes));
    for (i = 0; i < len; i++) {
        char c = text[i];
        uint32_t digit;
        if (c == ' ' || c == '\0') {
            early = 1;
            break;
        }
        if (dhcpSnoopHexDigit(c, &digit)) {
            acc = acc * 16u + digit;
        } else if (c == sep) {
            if ((i + 1u) % 3u != 0 || i == 0) {
                DHCP_SNOOP_ERROR("Dot in the wrong place");
                return 0;
            }
            if (acc >= 256u || stored >= count - 1u) {
                DHCP_SNOOP_ERROR("over size or too many dot");
                return 0;
            }
            bytes[stored++] = (uint8_t)acc;
            acc = 0;
        } else {
            DHCP_SNOOP_ERROR("illegal char.");
            return 0;
        }
    }
    /* The last byte has no separator behind it and no range check. */
    if (!early)
        bytes[count - 1u] = (uint8_t)acc;
    memcpy(out, bytes, count);
    return 1;
}

/* ---- loader ---------------------------------------------------------------------- */

/* strtok's rules over a buffer that ends in a NUL: leading delimiters are
 * skipped, the token ends at the next delimiter (overwritten by a NUL, so
 * that every later scan sees what strtok would have left) or at the NUL.
 * NULL when no token starts before the NUL. */
static char *dhcpSnoopNextToken(char **cursor, char delim)
{
    char *p = *cursor;
    char *token;

    while (*p == delim)
        p++;
    if (*p == '\0') {
        *cursor = p;
        return NULL;
    }
    token = p;
    while (*p != '\0' && *p != delim)
        p++;
    if (*p == delim)
        *p++ = '\0';
    *cursor = p;
    return token;
}

/* True when element is linked in the dynamic table (bounded walk). */
static int32_t dhcpSnoopIsFiled(const DhcpSnoopElement *element)
{
    const DhcpSnoopElement *node;
    uint32_t steps = 0;

    if (dynamicTable == NULL)
        return 0;
    node = dhcpSnoopHead(dynamicTable, element->clientIp[3] & DHCP_SNOOP_HASH_MASK);
    for (; node != NULL && steps <= DHCP_SNOOP_POOL_SIZE; node = dhcpSnoopNext(node), steps++) {
        if (node == element)
            return 1;
    }
    return 0;
}

/* Fills element from one 66-character binding line; 0 when it is bad. */
static int32_t dhcpSnoopParseLine(char *line, DhcpSnoopElement *element, uint32_t *chksum)
{
    char *fields[DHCP_SNOOP_LINE_COLUMNS];
    char *cursor = line;
    size_t len;
    uint32_t i;

    len = strlen(line);
    DHCP_SNOOP_DEBUG("len=%d\n", (int)len);
    if (len != DHCP_SNOOP_FILE_LINE_LEN - 1u) {
        DHCP_SNOOP_DEBUG("parse file error, length error.");
        return 0;
    }
    /* What follows the sixth TAB (the CR) is not looked at. */
    for (i = 0; i < DHCP_SNOOP_LINE_COLUMNS; i++) {
        fields[i] = dhcpSnoopNextToken(&cursor, '\t');
        if (fields[i] == NULL) {
            DHCP_SNOOP_DEBUG("parse file error.");
            return 0;
        }
    }
    if (!dhcpSnoopParseAddrStr(fields[0], element->clientIp, 4, '.')) {
        DHCP_SNOOP_DEBUG("parse IP string fail.");
        return 0;
    }
    DHCP_SNOOP_DEBUG("ip = %02x.%02x.%02x.%02x", element->clientIp[0], element->clientIp[1],
                     element->clientIp[2], element->clientIp[3]);
    if (!dhcpSnoopParseAddrStr(fields[1], element->clientMac, 6, ':')) {
        DHCP_SNOOP_DEBUG("parse MAC string fail.");
        return 0;
    }
    DHCP_SNOOP_DEBUG("MAC = %02x:%02x:%02x:%02x:%02x:%02x", element->clientMac[0],
                     element->clientMac[1], element->clientMac[2], element->clientMac[3],
                     element->clientMac[4], element->clientMac[5]);
    if (!dhcpSnoopParseVlanStr(fields[2], &element->vlan)) {
        DHCP_SNOOP_DEBUG("parse vlan string fail.");
        return 0;
    }
    if (!dhcpSnoopParsePortStr(fields[3], &element->up)) {
        DHCP_SNOOP_DEBUG("parse port string fail.");
        return 0;
    }
    len = strlen(fields[4]);
    if (len != DHCP_SNOOP_HEX32_COLUMN_LEN) {
        DHCP_SNOOP_ERROR("len error len = %d", (int)len);
        DHCP_SNOOP_DEBUG("parse lease string fail.");
        return 0;
    }
    if (!dhcpSnoopHexStrtoInt(fields[4], &element->ttl)) {
        DHCP_SNOOP_DEBUG("parse lease string fail.");
        return 0;
    }
    DHCP_SNOOP_DEBUG("lease = %08x", (unsigned)element->ttl);
    if (!dhcpSnoopParseChksumStr(fields[5], chksum)) {
        DHCP_SNOOP_DEBUG("parse check sum string fail.");
        return 0;
    }
    return 1;
}

uint32_t dhcpSnoopLoadDynEntry(const char *path)
{
    static const char *const header[3] = {"1\r", "TYPE DHCP-SNOOPING\r", "BEGIN\r"};
    char *text;
    char *cursor;
    size_t readLen;
    uint32_t totalLen;
    uint32_t updateFlag = 0;
    uint32_t rv;
    DhcpSnoopElement *element = NULL;
    FILE *fp;
    uint32_t i;

    if (path == NULL)
        return DHCP_SNOOP_E_PARAM;
    /* A first start has no file yet. */
    if (access(pal_file_path(path), F_OK) != 0)
        return DHCP_SNOOP_OK;
    fp = fopen64(pal_file_path(path), "r");
    if (fp == NULL) {
        DHCP_SNOOP_ERROR("Open file %s fail", path);
        return DHCP_SNOOP_E_FILE_OPEN;
    }
    text = (char *)pal_alloc(DHCP_SNOOP_FILE_BUF_SIZE, DHCP_SNOOP_MEM_TAG);
    if (text == NULL) {
        DHCP_SNOOP_ERROR("malloc fail\n");
        fclose(fp);
        return DHCP_SNOOP_E_FILE_READ;
    }
    memset(text, 0, DHCP_SNOOP_FILE_BUF_SIZE);
    /* One byte less than the buffer: the last stays NUL, so every scan of
     * the text ends inside it. A written file is at most 34,339 bytes. */
    readLen = fread(text, 1, DHCP_SNOOP_FILE_BUF_SIZE - 1u, fp);
    if (readLen == 0) {
        DHCP_SNOOP_ERROR("length error\n");
        fclose(fp);
        pal_free(text);
        return DHCP_SNOOP_E_FILE_READ;
    }
    fclose(fp);
    DHCP_SNOOP_DEBUG("%s", text);

    cursor = text;
    for (i = 0; i < 3; i++) {
        const char *token = dhcpSnoopNextToken(&cursor, '\n');
        if (token == NULL || strcmp(token, header[i]) != 0) {
            /* A missing line shows as empty text. */
            DHCP_SNOOP_DEBUG("string:%s", token != NULL ? token : "");
            pal_free(text);
            return DHCP_SNOOP_E_FILE_HEADER;
        }
    }

    totalLen = DHCP_SNOOP_FILE_HEADER_LEN;
    for (;;) {
        char *line = NULL;
        uint32_t lineLen;
        uint32_t chksum = 0;

        /* Each line starts where the running length says, not where the
         * last scan stopped. Past the text nothing is left to read. */
        if (totalLen < readLen) {
            cursor = text + totalLen;
            line = dhcpSnoopNextToken(&cursor, '\n');
        }
        if (line == NULL)
            break;
        if (strcmp(line, "END\r") == 0) {
            DHCP_SNOOP_DEBUG("end successfully.\n");
            break;
        }

        /* Measured before the columns are split in place. */
        lineLen = (uint32_t)strlen(line);
        element = dhcpSnoopGetMem();
        if (element == NULL) {
            DHCP_SNOOP_ERROR("no memory to load dynamic entry.");
            pal_free(text);
            return DHCP_SNOOP_E_NO_MEMORY;
        }
        if (!dhcpSnoopParseLine(line, element, &chksum)) {
            DHCP_SNOOP_ERROR("Parse file error!");
            rv = DHCP_SNOOP_E_FILE_LINE;
            goto failed;
        }
        totalLen += lineLen + 1u;
        DHCP_SNOOP_DEBUG("totalLen = %d", (int)totalLen);
        DHCP_SNOOP_DEBUG("chksum = %d", (int)chksum);
        if (totalLen != chksum) {
            DHCP_SNOOP_ERROR("check sum error:%d", (int)chksum);
            rv = DHCP_SNOOP_E_FILE_LINE;
            goto failed;
        }
        /* An expired binding ends the whole load. */
        if (element->ttl == 0) {
            DHCP_SNOOP_ERROR("Entry is expired!");
            rv = DHCP_SNOOP_E_FILE_LINE;
            goto failed;
        }
        if (UP_KIND(element->up) == UP_TYPE_PHYSICAL &&
            UP_UNIT(element->up) == stkGetCurrentUnit() && inner_up_is_valid(element->up)) {
            rv = dhcpSnoopElementAddNew(element, DHCP_SNOOP_ELEMENT_DYNAMIC);
            if (rv != 0) {
                DHCP_SNOOP_ERROR("add dynamic entry fail!");
                goto failed;
            }
            /* With table changes suspended nothing was filed: not ours to
             * lose. */
            if (!dhcpSnoopIsFiled(element))
                dhcpSnoopFreeMem(element);
        } else {
            /* Left out; its element stays taken until the module restarts. */
            updateFlag = 1;
            DHCP_SNOOP_DEBUG("update flash.");
        }
        element = NULL;
    }

    pal_free(text);
    if (updateFlag) {
        DHCP_SNOOP_DEBUG("Execute dhcpSnoopSaveDynEntryTask.");
        DHCP_SNOOP_CALL(rv, dhcpSnoopSaveDynEntry(dynamicTable, DHCP_SNOOP_CFG_FILE_PATH));
        if (rv == 0)
            DHCP_SNOOP_DEBUG("Save the binding entries of dynamic table to the file system.");
    }
    return DHCP_SNOOP_OK;

failed:
    pal_free(text);
    /* An insert that failed after filing leaves the element to the table. */
    if (!dhcpSnoopIsFiled(element))
        dhcpSnoopFreeMem(element);
    return rv;
}

}  // extern "C"
