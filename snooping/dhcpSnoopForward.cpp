// Forwarding: egress selection, transmission, the FDB cache and its task,
// option 82.
#include <stdio.h>
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* Running port indexes walked for the port logs of the send step. */
#define DHCP_SNOOP_SEND_WALK_LIMIT 79u
/* Frames that reach this length with option 82 are sent without it. */
#define DHCP_SNOOP_OP82_FRAME_LIMIT 1515u
/* Room for a built option 82: code, length, two sub-option headers and two
 * texts of at most 257 characters. */
#define DHCP_SNOOP_OP82_BUF 522u
#define DHCP_SNOOP_OPT_RELAY_AGENT 82u
#define DHCP_SNOOP_OPT_END 255u
#define DHCP_SNOOP_OPT_OVERLOAD 52u
#define DHCP_SNOOP_OPT_PAD 0u
/* BOOTP header: the fields option 52 can hand over to options. */
#define DHCP_SNOOP_BOOTP_SNAME 44u
#define DHCP_SNOOP_BOOTP_SNAME_LEN 64u
#define DHCP_SNOOP_BOOTP_FILE 108u
#define DHCP_SNOOP_BOOTP_FILE_LEN 128u
#define DHCP_SNOOP_BOOTP_FIXED_LEN 236u
/* Message types whose bit is set: replies of a server, requests of a client. */
#define DHCP_SNOOP_OP82_SERVER_MASK 0x464u
#define DHCP_SNOOP_OP82_CLIENT_MASK 0x39au
#define DHCP_SNOOP_SNAP_IP_POS 22u
#define DHCP_SNOOP_ETH_HEADER_LEN 14u

/* ---- helpers ---------------------------------------------------------------- */

static uint16_t dhcpSnoopGet16(const uint8_t *p)
{
    return (uint16_t)(((uint32_t)p[0] << 8) | p[1]);
}

static void dhcpSnoopPut16(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)(v >> 8);
    p[1] = (uint8_t)v;
}

/* Word and bit of a port in a PortList; 0 when the port has none. A unit
 * whose section would lie beyond the list's six words has no bit either:
 * the list never grows, so such a port can be neither set nor tested. */
static uint32_t dhcpSnoopPortListBit(DHCP_SNOOP_UP_T port, uint32_t *word, uint32_t *bit)
{
    uint32_t kind = (port >> 24) & 0xFFu;
    uint32_t w;
    uint32_t b;

    if (kind == UP_TYPE_PHYSICAL) {
        uint32_t unit = (port >> 16) & 0xFFu;
        uint32_t n = inner_up_slotbaseoffset_get((port >> 8) & 0xFFu) + (port & 0xFFu);
        w = (unit - 1u) * 3u + (n / 32u) % 3u;
        b = n % 32u;
    } else if (kind == UP_TYPE_PORT_CHANNEL) {
        uint32_t m = (port & 0xFFu) - 1u;
        w = 3u + (m / 32u) % 3u;
        b = m % 32u;
    } else {
        return 0;
    }
    if (w >= 6u)
        return 0;
    *word = w;
    *bit = b;
    return 1;
}

static uint32_t dhcpSnoopPortListHas(const PortList *list, DHCP_SNOOP_UP_T port)
{
    uint32_t w;
    uint32_t b;

    if (!dhcpSnoopPortListBit(port, &w, &b))
        return 0;
    return (list->word[w] >> b) & 1u;
}

static void dhcpSnoopPortListAdd(PortList *list, DHCP_SNOOP_UP_T port)
{
    uint32_t w;
    uint32_t b;

    if (dhcpSnoopPortListBit(port, &w, &b))
        list->word[w] |= 1u << b;
}

/* The address the FDB names counts only with a real port behind it: a
 * valid unit with slot 0 and port 0 is no port. */
static uint32_t dhcpSnoopFdbPortPresent(DHCP_SNOOP_UP_T port)
{
    if (!inner_up_unit_is_valid((port >> 16) & 0xFFu))
        return 1;
    return (port & 0xFFFFu) != 0 ? 1 : 0;
}

static uint32_t dhcpSnoopFdbSlotEmpty(const FdbEntry *slot)
{
    static const uint8_t zeroMac[6] = {0, 0, 0, 0, 0, 0};

    return memcmp(slot->mac, zeroMac, sizeof(zeroMac)) == 0 && slot->vlan == 0 ? 1 : 0;
}

static uint32_t dhcpSnoopFdbSlotMatches(const FdbEntry *slot, const FdbEntry *key)
{
    return slot->mac[5] == key->mac[5] && memcmp(slot->mac, key->mac, sizeof(slot->mac)) == 0 && slot->vlan == key->vlan ? 1 : 0;
}

/* Logs each port of a list; only called with the debug switch on. */
static void dhcpSnoopLogPorts(const PortList *list, uint16_t vid, uint32_t flood)
{
    uint32_t index = 0;

    while (index < DHCP_SNOOP_SEND_WALK_LIMIT) {
        DHCP_SNOOP_UP_T port = UP_INVALID;
        char text[UP_STR_BUF];

        inner_up_from_index(&port, index, 1, __func__, __LINE__);
        if (port == UP_INVALID)
            break;
        if (((port >> 24) & 0xFFu) == UP_TYPE_PHYSICAL) {
            uint32_t first = (((port >> 16) & 0xFFu) - 1u) * 3u;
            if (first > 3u || (list->word[first] | list->word[first + 1] | list->word[first + 2]) == 0) {
                index += 64u;
                continue;
            }
        }
        if (dhcpSnoopPortListHas(list, port)) {
            memset(text, 0, sizeof(text));
            usUp2Str(port, text, 1);
            if (flood)
                DHCP_SNOOP_DEBUG("Broadcast packet in vlan %d, exclude port %s", vid, text);
            else
                DHCP_SNOOP_DEBUG("Forward packet to port %s", text);
        }
        index++;
    }
}

/* ---- egress selection ----------------------------------------------------- */

uint32_t dhcpSnoopPacketSetSendFlag(DhcpSnoopPacket *packet, PortList *list)
{
    FdbEntry key;
    uint32_t rv;

    if (packet == NULL || list == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (packet->frame == NULL) {
        DHCP_SNOOP_ERROR("Packet's mac header is NULL!");
        return DHCP_SNOOP_E_FAIL;
    }
    /* The destination is the only thing read from the frame. */
    if (packet->frameLen < 6u) {
        DHCP_SNOOP_ERROR("Packet is too short for a mac header, length %u.", packet->frameLen);
        return DHCP_SNOOP_E_FAIL;
    }

    if (memcmp(packet->frame, bcMac, 6) == 0) {
        DHCP_SNOOP_DEBUG("broadcast.");
    } else {
        DHCP_SNOOP_DEBUG("unicast.");
        memset(&key, 0, sizeof(key));
        memcpy(key.mac, packet->frame, 6);
        key.vlan = packet->vid;
        /* Before start-up there is no look-up: the frame is flooded. */
        rv = DSLib.fdbGetEntry != NULL ? DSLib.fdbGetEntry(&key) : DHCP_SNOOP_E_FAIL;
        DHCP_SNOOP_DEBUG("rv:%d", (int)rv);
        if (rv == 0 && dhcpSnoopFdbPortPresent(key.port)) {
            if (dhcpSnoopPortListHas(&packet->ports, key.port)) {
                DHCP_SNOOP_DEBUG("RCV port equals dst port.");
                memset(list, 0, sizeof(*list));
                return DHCP_SNOOP_OK;
            }
            DHCP_SNOOP_DEBUG("forward pass through");
            packet->sendFlags |= SEND_FLAG_BY_FDB;
            return DHCP_SNOOP_OK;
        }
        DHCP_SNOOP_DEBUG("no fdb entry, broadcast.");
    }

    memset(list, 0, sizeof(*list));
    dhcpSnoopPortListAdd(list, rcvPort);
    packet->sendFlags |= SEND_FLAG_FLOOD;
    return DHCP_SNOOP_OK;
}

/* ---- transmission ------------------------------------------------------------ */

uint32_t dhcpSnoopPacketSend(DhcpSnoopPacket *packet, PortList list)
{
    uint32_t logPorts;
    uint32_t rv;
    uint32_t i;

    if (packet == NULL)
        return DHCP_SNOOP_E_PARAM;
    logPorts = (dhcpSnoopDebugLevel() & (DHCP_SNOOP_DEBUG_LEVEL_ENTRY | DHCP_SNOOP_DEBUG_LEVEL_DUMP)) != 0 &&
               DHCP_SNOOP_DEBUG_ON();

    memset(&packet->ports, 0, sizeof(packet->ports));
    if (packet->sendFlags & SEND_FLAG_FLOOD) {
        DHCP_SNOOP_DEBUG("Send broadcast");
        for (i = 0; i < 6u; i++)
            packet->ports.word[i] |= list.word[i];
        if (logPorts)
            dhcpSnoopLogPorts(&packet->ports, packet->vid, 1);
    } else if (packet->sendFlags & SEND_FLAG_BY_FDB) {
        packet->sendFlags &= ~(SEND_FLAG_FLOOD | SEND_FLAG_0X40);
        packet->sendFlags |= SEND_FLAG_BY_FDB;
        DHCP_SNOOP_DEBUG("Unicast packet according to MAC address table.");
    } else {
        for (i = 0; i < 6u; i++)
            packet->ports.word[i] |= list.word[i];
        if (logPorts)
            dhcpSnoopLogPorts(&packet->ports, packet->vid, 0);
    }

    packet->sendFlags |= SEND_FLAG_TX;
    rv = norvikPacketSend(packet);
    if (rv != 0)
        DHCP_SNOOP_ERROR("Forward packet to port failed.");
    return rv;
}

/* ---- FDB look-up and cache ------------------------------------------------------ */

uint32_t dhcpSnoopFdbGetEntry(FdbEntry *entry)
{
    uint32_t rv;
    uint32_t i;

    if (entry == NULL || gFdbEntryPool == NULL)
        return DHCP_SNOOP_E_FAIL;
    if (pal_mutex_take_int(getFdbEntryMutex, PAL_WAIT_FOREVER) != 0) {
        DHCP_SNOOP_CALL_FAILED(DHCP_SNOOP_E_FAIL, "pal_mutex_take_int(getFdbEntryMutex, PAL_WAIT_FOREVER)");
        return DHCP_SNOOP_E_FAIL;
    }
    for (i = 0; i < DHCP_SNOOP_FDB_CACHE_SLOTS; i++) {
        if (dhcpSnoopFdbSlotMatches(&gFdbEntryPool[i], entry)) {
            DHCP_SNOOP_DEBUG("find an entry in gFdbEntryPool.");
            entry->port = gFdbEntryPool[i].port;
            entry->word = gFdbEntryPool[i].word;
            pal_mutex_give_int(getFdbEntryMutex);
            return DHCP_SNOOP_OK;
        }
    }
    /* The database request is slow: never made under the cache lock. */
    pal_mutex_give_int(getFdbEntryMutex);
    rv = swFdbGetEntry(entry);
    DHCP_SNOOP_DEBUG("IPC get FDB entry result:%d", (int)rv);
    return rv;
}

void dhcpSnoopGetFdbEntryTask(void *arg)
{
    FdbEntry msg;
    uint32_t word = 0;

    (void)arg;
    if (dhcpSnoopGetFdbEntryTaskStart() != 0)
        return;
    memset(&msg, 0, sizeof(msg));
    for (;;) {
        if (pal_msgQ_receive(getFdbEntryMsgQue, &msg, sizeof(msg), PAL_WAIT_FOREVER, &word) == -1)
            continue;
        dhcpSnoopGetFdbEntryTaskHandle(&msg);
    }
}

uint32_t dhcpSnoopGetFdbEntryTaskStart(void)
{
    if (gFdbEntryPool == NULL)
        return DHCP_SNOOP_E_PARAM;
    memset(gFdbEntryPool, 0, sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS);
    return DHCP_SNOOP_OK;
}

void dhcpSnoopGetFdbEntryTaskHandle(FdbEntry *msg)
{
    uint32_t present;
    uint32_t nullIndex = DHCP_SNOOP_FDB_CACHE_SLOTS;
    uint32_t i;

    if (msg == NULL || gFdbEntryPool == NULL)
        return;
    DHCP_SNOOP_DEBUG("Execute dhcpSnoopGetFdbEntryTask.");
    present = swFdbGetEntry(msg) == 0 && dhcpSnoopFdbPortPresent(msg->port);

    if (pal_mutex_take_int(getFdbEntryMutex, PAL_WAIT_FOREVER) != 0) {
        DHCP_SNOOP_CALL_FAILED(DHCP_SNOOP_E_FAIL, "pal_mutex_take_int(getFdbEntryMutex, PAL_WAIT_FOREVER)");
        memset(msg, 0, sizeof(*msg));
        return;
    }
    if (present) {
        for (i = 0; i < DHCP_SNOOP_FDB_CACHE_SLOTS; i++) {
            FdbEntry *slot = &gFdbEntryPool[i];
            if (dhcpSnoopFdbSlotEmpty(slot)) {
                if (nullIndex == DHCP_SNOOP_FDB_CACHE_SLOTS) {
                    nullIndex = i;
                    DHCP_SNOOP_DEBUG("nullIndex:%d", (int)nullIndex);
                }
                continue;
            }
            if (dhcpSnoopFdbSlotMatches(slot, msg)) {
                DHCP_SNOOP_DEBUG("update existed entry.");
                if (slot->port != msg->port || slot->word != msg->word) {
                    slot->port = msg->port;
                    slot->word = msg->word;
                }
                break;
            }
        }
        if (i == DHCP_SNOOP_FDB_CACHE_SLOTS) {
            /* No age and no use count: a full cache gives up slot 0. */
            FdbEntry *slot = &gFdbEntryPool[nullIndex % DHCP_SNOOP_FDB_CACHE_SLOTS];
            DHCP_SNOOP_DEBUG("add new entry.");
            memset(slot, 0, sizeof(*slot));
            memcpy(slot->mac, msg->mac, sizeof(slot->mac));
            slot->vlan = msg->vlan;
            slot->port = msg->port;
            slot->word = msg->word;
        }
    } else {
        for (i = 0; i < DHCP_SNOOP_FDB_CACHE_SLOTS; i++) {
            if (dhcpSnoopFdbSlotMatches(&gFdbEntryPool[i], msg)) {
                DHCP_SNOOP_DEBUG("delete aged entry.");
                memset(&gFdbEntryPool[i], 0, sizeof(FdbEntry));
                break;
            }
        }
    }
    pal_mutex_give_int(getFdbEntryMutex);
    memset(msg, 0, sizeof(*msg));
}

/* ---- option 82 ---------------------------------------------------------------------- */

uint16_t dhcpSnoopUdpChecksum(const uint8_t *ip)
{
    const uint8_t *udp;
    uint32_t udpLen;
    uint32_t sum;
    uint32_t even;

    if (ip == NULL)
        return 0;
    udp = ip + (ip[0] & 0x0Fu) * 4u;
    udpLen = dhcpSnoopGet16(udp + 4);
    sum = dhcpSnoopGet16(ip + 12) + dhcpSnoopGet16(ip + 14) + dhcpSnoopGet16(ip + 16) +
          dhcpSnoopGet16(ip + 18) + 17u + udpLen;
    even = udpLen & ~1u;
    sum += dhcpSnoopSum16(udp, even);
    if (udpLen & 1u)
        sum += (uint32_t)udp[udpLen - 1u] << 8;
    return (uint16_t)~((sum & 0xFFFFu) + (sum >> 16));
}

static uint16_t dhcpSnoopIpChecksum(const uint8_t *ip)
{
    uint32_t len = (ip[0] & 0x0Fu) * 4u;
    uint32_t sum = 0;
    uint32_t i;

    for (i = 0; i + 1u < len; i += 2u)
        sum += dhcpSnoopGet16(ip + i);
    return (uint16_t)~((sum & 0xFFFFu) + (sum >> 16));
}

/* Builds option 82 for the element's port into op (DHCP_SNOOP_OP82_BUF
 * bytes); *opLen is the whole option's true size, which may exceed what its
 * one-byte length can say when the configured texts are long. */
static uint32_t dhcpSnoopOp82Construct(DhcpSnoopElement *tempElement, uint8_t *op, uint32_t *opLen)
{
    DhcpSnoopPortCfg portCfg;
    uint8_t switchMac[6];
    uint32_t cl;
    uint32_t rl;
    uint32_t pos;
    uint32_t rv;

    if (!inner_up_is_valid(tempElement->up))
        return DHCP_SNOOP_E_PARAM;
    memset(&portCfg, 0, sizeof(portCfg));
    DHCP_SNOOP_CALL(rv, swDhcpSnoopGetPortCfg(tempElement->up, &portCfg));
    if (rv != 0)
        return rv;

    op[0] = DHCP_SNOOP_OPT_RELAY_AGENT;
    op[2] = 1;
    pos = 4;
    cl = (uint32_t)strnlen(portCfg.circuitId, sizeof(portCfg.circuitId));
    if (cl != 0 && portCfg.circuitIdFormat != 0) {
        DHCP_SNOOP_DEBUG("Encoding optiotn 82 circuid ID in user defined format.");
        memcpy(op + pos, portCfg.circuitId, cl);
    } else {
        DHCP_SNOOP_DEBUG("Encoding optiotn 82 circuid ID in VLAN-PORT format.");
        cl = 4;
        op[pos] = (uint8_t)(tempElement->vlan >> 8);
        op[pos + 1] = (uint8_t)tempElement->vlan;
        op[pos + 2] = ((tempElement->up >> 24) & 0xFFu) == UP_TYPE_PHYSICAL ? (uint8_t)(tempElement->up >> 16) : 0;
        op[pos + 3] = (uint8_t)tempElement->up;
    }
    op[3] = (uint8_t)cl;
    pos += cl;

    op[pos] = 2;
    rl = (uint32_t)strnlen(portCfg.remoteId, sizeof(portCfg.remoteId));
    if (rl != 0 && portCfg.remoteIdFormat != 0) {
        DHCP_SNOOP_DEBUG("Encoding optiotn 82 remote ID in user defined format.");
        memcpy(op + pos + 2, portCfg.remoteId, rl);
    } else {
        DHCP_SNOOP_DEBUG("Encoding optiotn 82 remote ID in MAC address format.");
        if (DSLib.getMacAddress == NULL)
            return DHCP_SNOOP_E_FAIL;
        DHCP_SNOOP_CALL(rv, DSLib.getMacAddress(switchMac));
        if (rv != 0)
            return rv;
        rl = 6;
        memcpy(op + pos + 2, switchMac, rl);
    }
    op[pos + 1] = (uint8_t)rl;
    op[1] = (uint8_t)(cl + rl + 4u);
    *opLen = cl + rl + 6u;
    return DHCP_SNOOP_OK;
}

static void dhcpSnoopOp82Dump(const uint8_t *op, uint32_t opLen)
{
    char text[256];
    uint32_t used = 0;
    uint32_t i;

    memset(text, 0, sizeof(text));
    for (i = 0; i < opLen; i++) {
        char piece[16];
        int n = snprintf(piece, sizeof(piece), " 0x%02x", op[i]);
        if (n < 0 || used + (uint32_t)n >= 251u)
            break;
        memcpy(text + used, piece, (size_t)n);
        used += (uint32_t)n;
    }
    DHCP_SNOOP_DEBUG("Binary dump of option 82 information, length: %d data:%s", (int)opLen, text);
}

/* Whether the headers and option offsets of the frame can carry a rebuild:
 * every offset the rebuild and the checksums use must lie inside the frame
 * and inside its UDP datagram. The parser keeps option positions it cannot
 * vouch for (an option 82 inside file or sname, a walk without END, a
 * length running past the END), so nothing is taken on trust here. With
 * withOp82, option 82 must also lie whole between the cookie and END. */
static uint32_t dhcpSnoopOp82FrameFits(const DhcpSnoopPacket *pkt, const DhcpSnoopElement *ele,
                                       uint32_t withOp82)
{
    const uint8_t *frame = pkt->frame;
    uint32_t len = pkt->frameLen;
    uint32_t udpEnd;

    /* Compared by differences: no offset may wrap past the checks. */
    if (len > DHCP_SNOOP_NEW_DATA_SIZE || ipHeaderPos < DHCP_SNOOP_ETH_HEADER_LEN || ipHeaderPos > len ||
        len - ipHeaderPos < 20u)
        return 0;
    if ((frame[ipHeaderPos] & 0x0Fu) < 5u || udpHeaderPos != ipHeaderPos + (frame[ipHeaderPos] & 0x0Fu) * 4u ||
        udpHeaderPos + 8u > len)
        return 0;
    udpEnd = udpHeaderPos + dhcpSnoopGet16(frame + udpHeaderPos + 4);
    if (udpEnd > len || optionsPos < udpHeaderPos + 8u || optionsPos > udpEnd || ele->endOptPos >= udpEnd ||
        ele->endOptPos < optionsPos || ele->endOptPos - optionsPos < 4u || frame[ele->endOptPos] != DHCP_SNOOP_OPT_END)
        return 0;
    if (withOp82) {
        if (ele->opt82Pos < optionsPos + 4u || ele->opt82Pos >= ele->endOptPos ||
            ele->endOptPos - ele->opt82Pos < 2u || frame[ele->opt82Pos] != DHCP_SNOOP_OPT_RELAY_AGENT ||
            frame[ele->opt82Pos + 1] + 2u > ele->endOptPos - ele->opt82Pos)
            return 0;
    }
    return 1;
}

/* Both checksums of the frame rebuilt in sNewData. */
static void dhcpSnoopOp82Checksums(void)
{
    uint8_t *ip = sNewData + ipHeaderPos;
    uint8_t *udp = sNewData + udpHeaderPos;

    dhcpSnoopPut16(ip + 10, 0);
    dhcpSnoopPut16(udp + 6, 0);
    dhcpSnoopPut16(ip + 10, dhcpSnoopIpChecksum(ip));
    dhcpSnoopPut16(udp + 6, dhcpSnoopUdpChecksum(ip));
}

/* Assembles frame[0, at) + op + frame[at + oldLen, endOptPos) + END into
 * sNewData and zeroes the rest up to newLen, so that nothing of this frame
 * or of an earlier one is left behind the new END. The options behind the
 * replaced option are taken straight from the received frame, which stays
 * untouched: no intermediate area that could overflow. Then lengths (by
 * delta), the 802.3 length and both checksums. */
static void dhcpSnoopOp82Rebuild(const DhcpSnoopPacket *pkt, const DhcpSnoopElement *ele, uint32_t at,
                                 uint32_t oldLen, const uint8_t *op, uint32_t opLen, uint32_t newLen)
{
    const uint8_t *frame = pkt->frame;
    uint32_t saved = ele->endOptPos - (at + oldLen);
    uint32_t end = at + opLen + saved;
    uint32_t delta = newLen - pkt->frameLen;
    uint8_t *ip = sNewData + ipHeaderPos;
    uint8_t *udp = sNewData + udpHeaderPos;

    memcpy(sNewData, frame, at);
    if (opLen != 0)
        memcpy(sNewData + at, op, opLen);
    if (saved != 0)
        memcpy(sNewData + at + opLen, frame + at + oldLen, saved);
    sNewData[end] = DHCP_SNOOP_OPT_END;
    memset(sNewData + end + 1u, 0, newLen - end - 1u);

    if (delta != 0) {
        dhcpSnoopPut16(ip + 2, dhcpSnoopGet16(ip + 2) + delta);
        dhcpSnoopPut16(udp + 4, dhcpSnoopGet16(udp + 4) + delta);
    }
    /* An 802.3 frame's length field counts what follows the MAC header. */
    if (ipHeaderPos == DHCP_SNOOP_SNAP_IP_POS)
        dhcpSnoopPut16(sNewData + 12, newLen - DHCP_SNOOP_ETH_HEADER_LEN);

    dhcpSnoopOp82Checksums();
}

/* 0: sNewData holds the frame with option 82 added; otherwise the frame
 * is to be sent unchanged. */
static uint32_t dhcpSnoopOp82Add(DhcpSnoopPacket *pkt, DhcpSnoopElement *ele, const uint8_t *op, uint32_t opLen,
                                 uint32_t *newLen)
{
    uint32_t n = opLen % 256u;

    if (pkt->frame == NULL || sNewData == NULL || op[0] != DHCP_SNOOP_OPT_RELAY_AGENT || pkt->frame == sNewData)
        return DHCP_SNOOP_E_PARAM;
    /* An option whose size does not fit its length byte cannot be written
     * correctly: the client frame goes on without it. */
    if (opLen > 255u) {
        DHCP_SNOOP_ERROR("Option 82 information of %u bytes is too long, the DHCP packet is sent unchanged.", opLen);
        return DHCP_SNOOP_E_PARAM;
    }
    if (!dhcpSnoopOp82FrameFits(pkt, ele, 0)) {
        DHCP_SNOOP_ERROR("Option offsets or lengths of the DHCP packet point outside it, "
                         "the DHCP packet is sent unchanged. endOptPos:%u, length:%u",
                         ele->endOptPos, pkt->frameLen);
        return DHCP_SNOOP_E_PARAM;
    }
    if (pkt->frameLen + n >= DHCP_SNOOP_OP82_FRAME_LIMIT) {
        DHCP_SNOOP_ERROR("Add the option 82 failed, the DHCP packet is too short to add option 82.");
        return DHCP_SNOOP_E_PARAM;
    }
    *newLen = pkt->frameLen + n;
    dhcpSnoopOp82Rebuild(pkt, ele, ele->endOptPos, 0, op, n, *newLen);
    return DHCP_SNOOP_OK;
}

/* As dhcpSnoopOp82Add, with the frame's own option 82 replaced. */
static uint32_t dhcpSnoopOp82Replace(DhcpSnoopPacket *pkt, DhcpSnoopElement *ele, const uint8_t *op,
                                     uint32_t opLen, uint32_t *newLen)
{
    uint32_t n = opLen % 256u;
    uint32_t o;

    if (pkt->frame == NULL || sNewData == NULL || op[0] != DHCP_SNOOP_OPT_RELAY_AGENT || pkt->frame == sNewData)
        return DHCP_SNOOP_E_PARAM;
    if (opLen > 255u) {
        DHCP_SNOOP_ERROR("Option 82 information of %u bytes is too long, the DHCP packet is sent unchanged.", opLen);
        return DHCP_SNOOP_E_PARAM;
    }
    if (!dhcpSnoopOp82FrameFits(pkt, ele, 1)) {
        DHCP_SNOOP_ERROR("Option offsets or lengths of the DHCP packet point outside it, "
                         "the DHCP packet is sent unchanged. opt82Pos:%u, endOptPos:%u, length:%u",
                         ele->opt82Pos, ele->endOptPos, pkt->frameLen);
        return DHCP_SNOOP_E_PARAM;
    }
    o = pkt->frame[ele->opt82Pos + 1] + 2u;
    if (pkt->frameLen + n - o >= DHCP_SNOOP_OP82_FRAME_LIMIT) {
        DHCP_SNOOP_ERROR("Replace the option 82 failed, the DHCP packet is too short to add option 82.");
        return DHCP_SNOOP_E_PARAM;
    }
    *newLen = pkt->frameLen + n - o;
    dhcpSnoopOp82Rebuild(pkt, ele, ele->opt82Pos, o, op, n, *newLen);
    return DHCP_SNOOP_OK;
}

/* Walks the options area of the received frame (cookie to END, as the
 * parser walks it) and reports the fields that option 52 hands over to
 * options (bit 1: file, bit 2: sname) and the frame offset of the last
 * option 82 of this area (0: none), which is where the parser's opt82Pos
 * points unless an option 82 inside file or sname came later. 0 when the
 * walk does not land on END, or when the BOOTP header is not where the
 * options say: then neither is known. Call only for a frame
 * dhcpSnoopOp82FrameFits accepts. */
static uint32_t dhcpSnoopOp82Scan(const uint8_t *frame, const DhcpSnoopElement *ele, uint32_t *overload,
                                  uint32_t *op82At)
{
    uint32_t off = optionsPos + 4u;
    uint32_t len;
    uint32_t which;

    *overload = 0;
    *op82At = 0;
    if (dhcpHeaderPos + DHCP_SNOOP_BOOTP_FIXED_LEN != optionsPos)
        return 0;
    while (off < ele->endOptPos) {
        if (frame[off] == DHCP_SNOOP_OPT_END || ele->endOptPos - off < 2u)
            return 0;
        len = frame[off + 1];
        if (frame[off] == DHCP_SNOOP_OPT_RELAY_AGENT)
            *op82At = off;
        /* The value byte is read whatever the length byte says, as the
         * parser does. */
        if (frame[off] == DHCP_SNOOP_OPT_OVERLOAD && ele->endOptPos - off > 2u) {
            which = frame[off + 2];
            if (which >= 1u && which <= 3u)
                *overload |= which;
        }
        off += len + 2u;
    }
    return off == ele->endOptPos;
}

/* Cuts every option 82 out of one overloaded field (file or sname) of the
 * frame in sNewData: the options behind it move up and the field is zero
 * padded to its end. The field is walked as the client will read it, a pad
 * being one byte. Returns how many were cut, or -1 when one cannot be cut
 * out whole (its length runs past the field). */
static int32_t dhcpSnoopOp82CutField(uint8_t *area, uint32_t size)
{
    uint32_t off = 0;
    uint32_t len;
    int32_t cut = 0;

    while (off < size && area[off] != DHCP_SNOOP_OPT_END) {
        if (area[off] == DHCP_SNOOP_OPT_PAD) {
            off++;
            continue;
        }
        if (size - off < 2u)
            return area[off] == DHCP_SNOOP_OPT_RELAY_AGENT ? -1 : cut;
        len = area[off + 1];
        if (area[off] != DHCP_SNOOP_OPT_RELAY_AGENT) {
            off += len + 2u;
            continue;
        }
        if (len + 2u > size - off)
            return -1;
        memmove(area + off, area + off + len + 2u, size - off - len - 2u);
        memset(area + size - len - 2u, 0, len + 2u);
        cut++;
    }
    return cut;
}

/* 0: sNewData holds the frame without option 82; otherwise the frame is
 * dropped: a server's reply must not reach the client with the relay
 * information it carries. The option is cut where the parser saw it: from
 * the options area, and from the file and sname fields when option 52 hands
 * them over to options. The parser's opt82Pos does not point into those
 * fields, so the frame is walked again rather than trusted. Same length
 * either way: the freed bytes become zero padding. */
static uint32_t dhcpSnoopOp82Remove(DhcpSnoopPacket *pkt, DhcpSnoopElement *ele, uint8_t *buf, uint32_t *newLen)
{
    DhcpSnoopElement at;
    uint32_t overload = 0;
    uint32_t op82At = 0;
    uint32_t inOptions;
    uint32_t scanned;
    int32_t cut = 0;
    int32_t n;

    if (pkt->frame == NULL || buf == NULL || pkt->frame == buf)
        return DHCP_SNOOP_E_PARAM;
    scanned = dhcpSnoopOp82FrameFits(pkt, ele, 0) && dhcpSnoopOp82Scan(pkt->frame, ele, &overload, &op82At);
    memcpy(&at, ele, sizeof(at));
    at.opt82Pos = op82At;
    inOptions = scanned && op82At != 0 && dhcpSnoopOp82FrameFits(pkt, &at, 1);
    if (inOptions)
        dhcpSnoopOp82Rebuild(pkt, &at, op82At, pkt->frame[op82At + 1] + 2u, NULL, 0, pkt->frameLen);
    else if (scanned && overload != 0)
        memcpy(buf, pkt->frame, pkt->frameLen);
    if (scanned && (overload & 1u) != 0) {
        n = dhcpSnoopOp82CutField(buf + dhcpHeaderPos + DHCP_SNOOP_BOOTP_FILE, DHCP_SNOOP_BOOTP_FILE_LEN);
        cut = n < 0 ? -1 : cut + n;
    }
    if (scanned && (overload & 2u) != 0 && cut >= 0) {
        n = dhcpSnoopOp82CutField(buf + dhcpHeaderPos + DHCP_SNOOP_BOOTP_SNAME, DHCP_SNOOP_BOOTP_SNAME_LEN);
        cut = n < 0 ? -1 : cut + n;
    }
    if (cut < 0) {
        DHCP_SNOOP_ERROR("Option 82 in the file or sname field of the DHCP packet runs past the field, "
                         "the DHCP packet is dropped.");
        return DHCP_SNOOP_E_PARAM;
    }
    if (!inOptions && cut == 0) {
        DHCP_SNOOP_ERROR("Option offsets or lengths of the DHCP packet point outside it, "
                         "the DHCP packet is dropped. opt82Pos:%u, endOptPos:%u, length:%u",
                         ele->opt82Pos, ele->endOptPos, pkt->frameLen);
        return DHCP_SNOOP_E_PARAM;
    }
    if (cut != 0)
        dhcpSnoopOp82Checksums();
    *newLen = pkt->frameLen;
    return DHCP_SNOOP_OK;
}

uint32_t dhcpSnoopPacketForward(DhcpSnoopPacket *pkt, DhcpSnoopElement *ele)
{
    DhcpSnoopElement *tempElement = ele;
    PortList fwdPortList;
    DhcpSnoopPortCfg portCfg;
    uint8_t op[DHCP_SNOOP_OP82_BUF];
    uint32_t opLen = 0;
    uint8_t policy;
    uint8_t *oldFrame;
    uint32_t oldLen;
    uint32_t newLen = 0;
    uint32_t typeBit;
    uint32_t rv;
    char text[UP_STR_BUF];

    if (pkt == NULL || ele == NULL)
        return DHCP_SNOOP_E_PARAM;
    DHCP_SNOOP_DEBUG("~~~~~DSPacketForward broadcast: %d,  rcvdPort: %s~~~~~\r\n", ele->isBroadcast,
                     dhcpSnoopUpText(rcvPort, text));

    memset(&fwdPortList, 0, sizeof(fwdPortList));
    DHCP_SNOOP_CALL(rv, dhcpSnoopPacketSetSendFlag(pkt, &fwdPortList));
    if (rv != 0)
        return rv;
    memset(&portCfg, 0, sizeof(portCfg));
    DHCP_SNOOP_CALL(rv, swDhcpSnoopGetPortCfg(rcvPort, &portCfg));
    if (rv != 0)
        return rv;

    /* Types 11 and above are never sent, whatever option 82 says. */
    if (tempElement->type > DHCP_SNOOP_TYPE_BOOTP_REPLY)
        return DHCP_SNOOP_OK;
    typeBit = 1u << tempElement->type;
    if (portCfg.op82Enable == 0)
        goto send;
    policy = portCfg.Op82Policy;

    DHCP_SNOOP_DEBUG("option82 enable");
    memset(op, 0, sizeof(op));
    if (dhcpSnoopOp82Construct(tempElement, op, &opLen) != 0) {
        DHCP_SNOOP_ERROR("Construct option 82 information error.");
        goto send;
    }
    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_DUMP) && DHCP_SNOOP_DEBUG_ON())
        dhcpSnoopOp82Dump(op, opLen);

    oldFrame = pkt->frame;
    oldLen = pkt->frameLen;
    if (typeBit & DHCP_SNOOP_OP82_SERVER_MASK) {
        if (tempElement->opt82Pos == 0)
            goto send;
        DHCP_SNOOP_CALL(rv, dhcpSnoopOp82Remove(pkt, ele, sNewData, &newLen));
        if (rv != 0)
            return DHCP_SNOOP_E_PARAM;
        DHCP_SNOOP_DEBUG("Remove the option 82 of the DHCP packet.");
    } else if (typeBit & DHCP_SNOOP_OP82_CLIENT_MASK) {
        if (tempElement->opt82Pos == 0) {
            if (dhcpSnoopOp82Add(pkt, ele, op, opLen, &newLen) != 0)
                goto send;
            DHCP_SNOOP_DEBUG("Add the option 82 to the DHCP packet.");
        } else if (policy == DHCP_SNOOP_OP82_POLICY_REPLACE) {
            if (dhcpSnoopOp82Replace(pkt, ele, op, opLen, &newLen) != 0)
                goto send;
            DHCP_SNOOP_DEBUG("Replace the option 82 of the DHCP packet.");
        } else if (policy == DHCP_SNOOP_OP82_POLICY_DROP) {
            DHCP_SNOOP_DEBUG("Drop the DHCP packet with option 82.");
            return DHCP_SNOOP_OK;
        } else {
            DHCP_SNOOP_DEBUG("Keep the option 82 of the DHCP packet.");
            goto send;
        }
    } else {
        goto send;
    }

    pkt->frame = sNewData;
    pkt->frameLen = newLen;
    DHCP_SNOOP_CALL(rv, dhcpSnoopPacketSend(pkt, fwdPortList));
    /* Put back even after a failed send: the pipeline hands the descriptor's
     * frame back to the packet pool, and sNewData is not the pool's. */
    pkt->frame = oldFrame;
    pkt->frameLen = oldLen;
    return rv;

send:
    DHCP_SNOOP_CALL(rv, dhcpSnoopPacketSend(pkt, fwdPortList));
    return rv;
}

}  // extern "C"
