// Packet intake: the per-frame pipeline, the DHCP parser and the trace dump.
//
// Every read of the frame is bounded by the descriptor's frameLen. The header
// checks trust the UDP length and the option length bytes; the bounds below
// do not, so a frame shorter than it claims is refused or cut short, never
// read past its end.
#include <stdio.h>
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* Offsets and sizes of the headers, from the start of their header. */
#define DS_ETH_TYPE_POS 12u
#define DS_ETH_II_LEN 14u
#define DS_LLC_SAP_POS 14u
#define DS_LLC_CNTL_POS 16u
#define DS_SNAP_TYPE_POS 20u
#define DS_SNAP_LEN 22u
#define DS_IP_MIN_LEN 20u
#define DS_IP_PROTO 9u
#define DS_IP_SRC 12u
#define DS_IP_DST 16u
#define DS_UDP_DST_PORT 2u
#define DS_UDP_LENGTH 4u
#define DS_UDP_LEN 8u
#define DS_UDP_MIN_LENGTH 249u  /* UDP header, fixed BOOTP header, cookie, one option byte */
#define DS_UDP_OPTIONS_BASE 248u
#define DS_BOOTP_OP 0u
#define DS_BOOTP_HLEN 2u
#define DS_BOOTP_XID 4u
#define DS_BOOTP_CIADDR 12u
#define DS_BOOTP_YIADDR 16u
#define DS_BOOTP_SIADDR 20u
#define DS_BOOTP_GIADDR 24u
#define DS_BOOTP_CHADDR 28u
#define DS_BOOTP_SNAME 44u
#define DS_BOOTP_SNAME_LEN 64u
#define DS_BOOTP_FILE 108u
#define DS_BOOTP_FILE_LEN 128u
#define DS_BOOTP_FIXED_LEN 236u
#define DS_COOKIE_LEN 4u

#define DS_OPT_OVERLOAD 52u
#define DS_OPT_REQUESTED_IP 50u
#define DS_OPT_LEASE 51u
#define DS_OPT_MSG_TYPE 53u
#define DS_OPT_SERVER_ID 54u
#define DS_OPT_RELAY_AGENT 82u
#define DS_OPT_END 255u

/* The receive-port walk covers flat indexes 0 to 78. */
#define DS_PORT_WALK_END 79u
#define DS_UNIT_INDEXES 64u
/* Unit and slot bytes of a port handle. */
#define DS_UNIT_SLOT_MASK 0x00FFFF00u
/* Option-82 trace: pieces are kept while the text stays below this. */
#define DS_OPT82_DUMP_LIMIT 251

static uint16_t dhcpSnoopGet16(const uint8_t *p)
{
    return (uint16_t)(((uint32_t)p[0] << 8) | p[1]);
}

static uint32_t dhcpSnoopGet32(const uint8_t *p)
{
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}

/* Debug lines that come before validation show what the frame holds: a byte
 * past its end reads as 0. */
static uint32_t dhcpSnoopPeek8(const DhcpSnoopPacket *packet, uint32_t pos)
{
    return pos < packet->frameLen ? packet->frame[pos] : 0u;
}

static uint32_t dhcpSnoopPeek16(const DhcpSnoopPacket *packet, uint32_t pos)
{
    return (dhcpSnoopPeek8(packet, pos) << 8) | dhcpSnoopPeek8(packet, pos + 1u);
}

/* Bytes of the frame from p to its end; 0 when p is not inside the frame. */
static uint32_t dhcpSnoopFrameBytesFrom(const DhcpSnoopPacket *packet, const uint8_t *p)
{
    uintptr_t start;
    uintptr_t at;

    if (packet->frame == NULL || p == NULL)
        return 0;
    start = (uintptr_t)packet->frame;
    at = (uintptr_t)p;
    if (at < start || at - start > packet->frameLen)
        return 0;
    return packet->frameLen - (uint32_t)(at - start);
}

/* A member of the port list: the receive port, so far. */
static void dhcpSnoopRcvPortFound(DHCP_SNOOP_UP_T port)
{
    char name[UP_STR_BUF];

    rcvPort = port;
    DHCP_SNOOP_DEBUG("rcvPort %s is swp:%d, is valid:%d", dhcpSnoopUpText(rcvPort, name),
                     UP_KIND(rcvPort) == UP_TYPE_PHYSICAL ? 1 : 0, (int)inner_up_is_valid(rcvPort));
}

/* Sets rcvPort to the last member of the descriptor's port list.
 *
 * The walk runs for every trapped frame, so it asks the platform no more
 * than it must: a unit's list words are tested once when the walk enters the
 * unit, a slot's base once per slot, and the port channels, which follow the
 * units in the flat layout, are not walked when none of their words is set.
 * Most indexes are ports of the slot entered last: they take the first test
 * of the loop and nothing else. */
static void dhcpSnoopFindRcvPort(const DhcpSnoopPacket *inputPacket)
{
    uint32_t words[6];
    uint32_t index = 0;
    uint32_t unit = UP_INVALID;
    uint32_t unitWord = 0;
    uint32_t unitSlot = UP_INVALID;
    uint32_t slotBase = 0;
    uint32_t channels;
    uint32_t i;
    DHCP_SNOOP_UP_T port;
    /* Kind, unit and slot bits of the slot entered last, if its unit has
     * words; never equal to a handle's masked bits otherwise (the low byte
     * of UP_INVALID is set). */
    uint32_t fastKey = UP_INVALID;
    /* A private copy: the platform calls below cannot change it, so the
     * compiler need not reload it after each. */
    for (i = 0; i < 6u; i++)
        words[i] = inputPacket->ports.word[i];
    channels = words[3] | words[4] | words[5];

    while (index < DS_PORT_WALK_END) {
        uint32_t word;
        uint32_t n;

        port = UP_INVALID;
        inner_up_from_index(&port, index, 1, __func__, __LINE__);
        if ((port & 0xFFFFFF00u) == fastKey) {
            n = slotBase + UP_PORT(port);
            if (n < 96u) {
                /* unitWord is at most 3 here: the word is one of the six. */
                if (((words[unitWord + n / 32u] >> (n % 32u)) & 1u) != 0)
                    dhcpSnoopRcvPortFound(port);
                index++;
                continue;
            }
        }
        if (port == UP_INVALID)
            break;
        if (UP_KIND(port) == UP_TYPE_PHYSICAL) {
            if ((port & DS_UNIT_SLOT_MASK) != unitSlot) {
                if (UP_UNIT(port) != unit) {
                    unit = UP_UNIT(port);
                    unitWord = (unit - 1u) * 3u;
                    /* A unit without a member in the list: skip its ports at once. */
                    if (unitWord <= 3u && (words[unitWord] | words[unitWord + 1u] | words[unitWord + 2u]) == 0) {
                        unit = UP_INVALID;
                        unitSlot = fastKey = UP_INVALID;
                        index += DS_UNIT_INDEXES;
                        continue;
                    }
                }
                slotBase = inner_up_slotbaseoffset_get(UP_SLOT(port));
                unitSlot = port & DS_UNIT_SLOT_MASK;
                fastKey = unitWord <= 3u ? (port & 0xFFFFFF00u) : UP_INVALID;
            }
            n = slotBase + UP_PORT(port);
            word = (n / 32u >= 3u ? (n / 32u) % 3u : n / 32u) + unitWord;
        } else if (UP_KIND(port) == UP_TYPE_PORT_CHANNEL) {
            if (channels == 0)
                break;
            n = UP_PORT(port) - 1u;
            word = 3u + (n / 32u) % 3u;
        } else {
            index++;
            continue;
        }
        /* The list holds six words: units past the second have no place in it. */
        if (word < 6u && ((words[word] >> (n % 32u)) & 1u) != 0)
            dhcpSnoopRcvPortFound(port);
        index++;
    }
}

/* Posts the destination's FDB look-up so that the cache is warm by the time
 * the frame is sent; a failed post only means a cold cache. */
static void dhcpSnoopFdbWarmUp(const DhcpSnoopPacket *inputPacket)
{
    FdbEntry query;

    /* A frame without a whole destination MAC has nothing to look up. */
    if (inputPacket->frameLen < 6u)
        return;
    memset(&query, 0, sizeof(query));
    memcpy(query.mac, inputPacket->frame, 6);
    query.vlan = inputPacket->vid;
    (void)pal_msgQ_send(getFdbEntryMsgQue, &query, sizeof(query), 0, 0);
}

/* Hex dump of a frame that is no IPv4: eight bytes to a group, sixteen to a
 * line. */
static void dhcpSnoopDumpFrame(const DhcpSnoopPacket *inputPacket)
{
    uint32_t i;

    for (i = 0; i < inputPacket->frameLen; i++) {
        DHCP_SNOOP_DEBUG("%.2x-", inputPacket->frame[i]);
        if ((i + 1u) % 8u == 0)
            DHCP_SNOOP_DEBUG("   ");
        if ((i + 1u) % 16u == 0)
            DHCP_SNOOP_DEBUG("\n");
    }
    DHCP_SNOOP_DEBUG("\n\n");
}

uint32_t dhcpSnoopPacketValidate(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *pElement,
                                 const uint8_t *switchMac)
{
    uint8_t *frame;
    uint32_t frameLen;
    uint32_t typeOrLen;
    uint32_t udpLen;

    if (inputPacket == NULL || pElement == NULL || switchMac == NULL || inputPacket->frame == NULL)
        return DHCP_SNOOP_E_PARAM;
    frame = inputPacket->frame;
    frameLen = inputPacket->frameLen;

    /* Nothing of an earlier frame may be taken for this one's. */
    ipHeader = NULL;
    udpHeader = NULL;
    dhcpHeader = NULL;
    options = NULL;
    ipHeaderPos = 0;
    udpHeaderPos = 0;
    dhcpHeaderPos = 0;
    optionsPos = 0;

    DHCP_SNOOP_DEBUG("===============Packet Parse start==================\n");
    macHeader = frame;
    DHCP_SNOOP_DEBUG("macHead len:%x, etherType:%x", dhcpSnoopPeek16(inputPacket, DS_ETH_TYPE_POS),
                     dhcpSnoopPeek16(inputPacket, DS_SNAP_TYPE_POS));

    /* Each length check below stands before the first read of the bytes it
     * covers: a frame shorter than the headers it claims is refused. */
    if (frameLen < DS_ETH_II_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet is too short.");
        goto failed;
    }
    typeOrLen = dhcpSnoopGet16(frame + DS_ETH_TYPE_POS);
    if (typeOrLen >= 0x05DDu && typeOrLen <= 0x05FFu) {
        DHCP_SNOOP_ERROR("MAC header error");
        goto failed;
    }
    if (typeOrLen <= 0x05DCu) {
        if (frameLen < DS_SNAP_LEN) {
            DHCP_SNOOP_ERROR("The DHCP packet is too short.");
            goto failed;
        }
        if (frame[DS_LLC_CNTL_POS] != 3u) {
            DHCP_SNOOP_ERROR("802.3 cntl error");
            goto failed;
        }
        if (dhcpSnoopGet16(frame + DS_LLC_SAP_POS) != 0xAAAAu) {
            DHCP_SNOOP_ERROR("Parse packet error");
            goto failed;
        }
        ipHeaderPos = DS_SNAP_LEN;
        if (dhcpSnoopGet16(frame + DS_SNAP_TYPE_POS) != 0x0800u) {
            DHCP_SNOOP_ERROR("macHeader: type != 0800, error\r\n");
            goto failed;
        }
    } else {
        DHCP_SNOOP_DEBUG("Ether type");
        ipHeaderPos = DS_ETH_II_LEN;
        if (typeOrLen != 0x0800u) {
            DHCP_SNOOP_ERROR("macHeader: type != 0800 type: %x=ntohs(%x), error\r\n", typeOrLen, typeOrLen);
            if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_DUMP) != 0 && DHCP_SNOOP_DEBUG_ON())
                dhcpSnoopDumpFrame(inputPacket);
            goto failed;
        }
    }

    if (ipHeaderPos < DS_ETH_II_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet with Invalid ethernet header.");
        goto failed;
    }
    /* The transport checks read the fixed IPv4 header whatever its length
     * field says. */
    if (frameLen < ipHeaderPos + DS_IP_MIN_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet is too short.");
        goto failed;
    }
    ipHeader = frame + ipHeaderPos;
    udpHeaderPos = ipHeaderPos + 4u * (ipHeader[0] & 0x0Fu);
    /* Absolute bound, also for SNAP frames: kept so. */
    if (udpHeaderPos < DS_ETH_II_LEN + DS_IP_MIN_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet with Invalid IP header.");
        goto failed;
    }

    if (frameLen < udpHeaderPos + DS_UDP_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet is too short.");
        goto failed;
    }
    udpHeader = frame + udpHeaderPos;
    dhcpHeaderPos = udpHeaderPos + DS_UDP_LEN;
    udpLen = dhcpSnoopGet16(udpHeader + DS_UDP_LENGTH);
    if (udpLen < DS_UDP_MIN_LENGTH) {
        DHCP_SNOOP_ERROR("The value of length field in UDP header is invaild.");
        goto failed;
    }

    if (dhcpHeaderPos < DS_ETH_II_LEN + DS_IP_MIN_LEN + DS_UDP_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet with Invalid UDP header.");
        goto failed;
    }
    /* The parser reads the whole fixed header and the cookie. */
    if (frameLen < dhcpHeaderPos + DS_BOOTP_FIXED_LEN + DS_COOKIE_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet is too short.");
        goto failed;
    }
    dhcpHeader = frame + dhcpHeaderPos;
    DHCP_SNOOP_DEBUG("Message type:%d", dhcpHeader[DS_BOOTP_OP]);

    optionsPos = dhcpHeaderPos + DS_BOOTP_FIXED_LEN;
    if (optionsPos < DS_ETH_II_LEN + DS_IP_MIN_LEN + DS_UDP_LEN + DS_BOOTP_FIXED_LEN) {
        DHCP_SNOOP_ERROR("The DHCP packet with invalid option field.");
        goto failed;
    }
    options = frame + optionsPos;
    /* What the UDP length claims; the parser also stops where the frame ends. */
    pElement->endOptPos = udpLen - DS_UDP_OPTIONS_BASE;

    /* The word is read at the SNAP type position whatever the layout: for
     * Ethernet II these checks run only when the IP flags word is 0x0800.
     * Kept so. */
    if (memcmp(frame, switchMac, 6) != 0 && dhcpSnoopGet16(frame + DS_SNAP_TYPE_POS) == 0x0800u) {
        if (ipHeader[DS_IP_PROTO] != 17u) {
            DHCP_SNOOP_ERROR("The DHCP packet is not UDP packet.");
            goto failed;
        }
        if (dhcpSnoopGet16(udpHeader + DS_UDP_DST_PORT) != 67u && dhcpSnoopGet16(udpHeader + DS_UDP_DST_PORT) != 68u) {
            DHCP_SNOOP_ERROR("The DHCP packet with invalid UDP destination port.");
            goto failed;
        }
    }
    if (dhcpSnoopGet16(ipHeader + DS_IP_SRC) == 0xFFFFu && dhcpSnoopGet16(ipHeader + DS_IP_SRC + 2u) == 0xFFFFu) {
        DHCP_SNOOP_ERROR("The DHCP packet with broacast IP source address in IP header.");
        goto failed;
    }

    DHCP_SNOOP_DEBUG("=================Packet parse end, no error==============\n");
    return DHCP_SNOOP_OK;

failed:
    DHCP_SNOOP_ERROR("Oh no! MSG Parser ERROR!!\r\n");
    return DHCP_SNOOP_E_PACKET;
}

uint32_t dhcpSnoopPacketHandle(DhcpSnoopMsg *msg)
{
    DhcpSnoopPacket *inputPacket;
    DhcpSnoopElement *pElement = NULL;
    PortList uplist;
    uint8_t isVlanSet = 0;
    uint8_t switchMac[6];
    uint32_t rv = DHCP_SNOOP_OK;
    uint32_t ret;

    if (msg == NULL)
        return DHCP_SNOOP_E_PARAM;
    inputPacket = &msg->packet;
    memset(&uplist, 0, sizeof(uplist));
    memset(switchMac, 0, sizeof(switchMac));

    if (inputPacket->frame == NULL) {
        DHCP_SNOOP_ERROR("Packet's mac header is NULL!");
        rv = DHCP_SNOOP_E_FAIL;
        goto tail;
    }

    DHCP_SNOOP_DEBUG("macHead len:%x, etherType:%x", dhcpSnoopPeek16(inputPacket, DS_ETH_TYPE_POS),
                     dhcpSnoopPeek16(inputPacket, DS_SNAP_TYPE_POS));
    DHCP_SNOOP_DEBUG("src mac:%02x:%02x:%02x:%02x:%02x:%02x, dst mac:%02x:%02x:%02x:%02x:%02x:%02x",
                     dhcpSnoopPeek8(inputPacket, 6), dhcpSnoopPeek8(inputPacket, 7), dhcpSnoopPeek8(inputPacket, 8),
                     dhcpSnoopPeek8(inputPacket, 9), dhcpSnoopPeek8(inputPacket, 10), dhcpSnoopPeek8(inputPacket, 11),
                     dhcpSnoopPeek8(inputPacket, 0), dhcpSnoopPeek8(inputPacket, 1), dhcpSnoopPeek8(inputPacket, 2),
                     dhcpSnoopPeek8(inputPacket, 3), dhcpSnoopPeek8(inputPacket, 4), dhcpSnoopPeek8(inputPacket, 5));

    dhcpSnoopFdbWarmUp(inputPacket);

    /* Without the switch's MAC every frame counts as addressed to another
     * host: the transport checks then run. */
    if (DSLib.getMacAddress != NULL) {
        DHCP_SNOOP_CALL(ret, DSLib.getMacAddress(switchMac));
        if (ret != 0)
            memset(switchMac, 0, sizeof(switchMac));
    }
    DHCP_SNOOP_DEBUG("switchMac:%02x:%02x:%02x:%02x:%02x:%02x", switchMac[0], switchMac[1], switchMac[2],
                     switchMac[3], switchMac[4], switchMac[5]);

    dhcpSnoopFindRcvPort(inputPacket);
    DHCP_SNOOP_DEBUG("vid = %d", inputPacket->vid);

    DHCP_SNOOP_CALL(ret, swDhcpSnoopGetVlanEnableStatusByVid(inputPacket->vid, &isVlanSet));
    if (ret != 0)
        isVlanSet = 0;
    DHCP_SNOOP_DEBUG("vlan enable status = %d", isVlanSet);

    if (isVlanSet == 0) {
        /* Not snooped here: the frame passes as it came, unread. */
        DHCP_SNOOP_DEBUG("DHCP Snooping feature is not enable in vlan %d, forward the DHCP packet in the received vlan immediately.",
                         inputPacket->vid);
        DHCP_SNOOP_CALL(ret, dhcpSnoopPacketSetSendFlag(inputPacket, &uplist));
        DHCP_SNOOP_CALL(rv, dhcpSnoopPacketSend(inputPacket, uplist));
        goto tail;
    }

    pElement = dhcpSnoopGetMem();
    if (pElement == NULL) {
        /* Despite its words the frame is dropped: the tail releases it. */
        DHCP_SNOOP_DEBUG("Get memory for the elemet of table failed, forward the DHCP packet immediately.");
        goto tail;
    }

    if (dhcpSnoopPacketValidate(inputPacket, pElement, switchMac) != DHCP_SNOOP_OK) {
        dhcpSnoopFreeMem(pElement);
        rv = DHCP_SNOOP_E_PACKET;
        goto tail;
    }

    rv = dhcpSnoopRateLimit(inputPacket, rcvPort);
    if (rv != 0) {
        DHCP_SNOOP_DEBUG("Packet flow overflow\r\n");
        dhcpSnoopFreeMem(pElement);
        goto tail;
    }

    rv = (uint32_t)dhcpSnoopDhcpParser(inputPacket, options, 0, pElement);
    if (rv != 0) {
        DHCP_SNOOP_ERROR("Oh no! Options Parser ERROR!!\r\n");
        dhcpSnoopFreeMem(pElement);
        goto tail;
    }

    /* The policy owns the element from here on: it files it or gives it
     * back, on its error exits too. Freeing it here again would put it on
     * the free list twice, so a failure is only reported. */
    rv = dhcpSnoopTableManage(inputPacket, pElement);
    if (rv != 0)
        DHCP_SNOOP_CALL_FAILED(rv, "dhcpSnoopTableManage(inputPacket, pElement)");

tail:
    DHCP_SNOOP_DEBUG("free packet");
    if (inputPacket->frame != NULL) {
        DHCP_SNOOP_DEBUG("release packet pool");
        dhcpReleasePacketPool(inputPacket->frame);
        inputPacket->frame = NULL;
    }
    return rv;
}

/* ---- parser ---------------------------------------------------------------------- */

/* Walks one options area from its first option. Only the code's offset is
 * held against limit (a value may run past it, as on the switch); avail, the
 * bytes the area really has, bounds every read: an option whose length byte
 * or value would run past it ends the walk as if the limit were reached.
 * Returns 1 when the walk stopped on an END, with its offset in *endOff. */
static uint32_t dhcpSnoopOptionsWalk(DhcpSnoopPacket *packet, uint8_t *area, uint32_t mode, uint32_t limit,
                                     uint32_t avail, DhcpSnoopElement *element, uint8_t *requestedIp,
                                     uint32_t *endOff)
{
    uint32_t off = 0;
    uint32_t code;
    uint32_t len;
    uint32_t need;

    for (;;) {
        if (off >= avail)
            return 0;
        code = area[off];
        if (code == DS_OPT_END) {
            *endOff = off;
            return 1;
        }
        if (off >= limit)
            return 0;
        DHCP_SNOOP_DEBUG("options checked %d", (int)code);
        if (avail - off < 2u)
            return 0;
        len = area[off + 1u];
        /* Values are read by their fixed size whatever the length byte says. */
        need = len;
        if ((code == DS_OPT_MSG_TYPE || code == DS_OPT_OVERLOAD) && need < 1u)
            need = 1u;
        if ((code == DS_OPT_LEASE || code == DS_OPT_REQUESTED_IP) && need < 4u)
            need = 4u;
        if (avail - off - 2u < need)
            return 0;

        switch (code) {
        case DS_OPT_MSG_TYPE:
            element->type = area[off + 2u];
            break;
        case DS_OPT_LEASE:
            element->ttl = dhcpSnoopGet32(area + off + 2u);
            DHCP_SNOOP_DEBUG("ttl:%d", (int)element->ttl);
            break;
        case DS_OPT_REQUESTED_IP:
            memcpy(requestedIp, area + off + 2u, 4);
            break;
        case DS_OPT_SERVER_ID:
            element->isReuse = 0;
            break;
        case DS_OPT_RELAY_AGENT:
            /* Counted from the options area in every mode: inside file or
             * sname the position does not point at the option. Kept so. */
            element->opt82Pos = optionsPos + DS_COOKIE_LEN + off;
            break;
        case DS_OPT_OVERLOAD:
            /* One level only: an overload inside file or sname is not
             * followed (it could name its own field and never end). */
            if (mode == 0) {
                uint32_t which = area[off + 2u];

                if (which == 1u || which == 3u)
                    (void)dhcpSnoopDhcpParser(packet, dhcpHeader + DS_BOOTP_FILE, 1, element);
                if (which == 2u || which == 3u)
                    (void)dhcpSnoopDhcpParser(packet, dhcpHeader + DS_BOOTP_SNAME, 2, element);
            }
            break;
        default:
            /* Pad too: skipped as a code with a length byte. */
            break;
        }
        off += len + 2u;
    }
}

static const char *dhcpSnoopTypeDumpName(uint32_t type)
{
    static const char *const names[] = {"discover\r\n", "offer\r\n", "request\r\n", "decline\r\n",
                                        "ack\r\n",      "nak\r\n",   "release\r\n", "inform\r\n"};

    if (type >= DHCP_SNOOP_TYPE_DISCOVER && type <= DHCP_SNOOP_TYPE_INFORM)
        return names[type - 1u];
    return NULL;
}

static void dhcpSnoopElementDump(const DhcpSnoopElement *element)
{
    const char *name = dhcpSnoopTypeDumpName(element->type);
    char port[UP_STR_BUF];

    memset(port, 0, sizeof(port));
    usUp2Str(element->up, port, 1);
    DHCP_SNOOP_DEBUG("*****************************\r\nMsgType:\t");
    if (name != NULL)
        DHCP_SNOOP_DEBUG("%s", name);
    DHCP_SNOOP_DEBUG("clientIP:\t");
    DHCP_SNOOP_DEBUG("%d.%d.%d.%d\r\n", element->clientIp[0], element->clientIp[1], element->clientIp[2],
                     element->clientIp[3]);
    DHCP_SNOOP_DEBUG("clientMAC:\t");
    DHCP_SNOOP_DEBUG("%.2X-%.2X-%.2X-%.2X-%.2X-%.2X\r\n", element->clientMac[0], element->clientMac[1],
                     element->clientMac[2], element->clientMac[3], element->clientMac[4], element->clientMac[5]);
    DHCP_SNOOP_DEBUG("Lease/TTL:\t%d\r\n", (int)element->ttl);
    DHCP_SNOOP_DEBUG("IsReuse:\t%d\r\n", element->isReuse);
    DHCP_SNOOP_DEBUG("Vlan:\t%d\r\n", element->vlan);
    DHCP_SNOOP_DEBUG("port:\t%s\r\n", port);
    DHCP_SNOOP_DEBUG("Xid:\t");
    DHCP_SNOOP_DEBUG("%.2X-%.2X-%.2X-%.2X\r\n", element->xid[0], element->xid[1], element->xid[2], element->xid[3]);
    DHCP_SNOOP_DEBUG("-----------------------------\r\n");
    DHCP_SNOOP_DEBUG("mallocCounter:%u\r\n", dhcpSnoopMallocCount());
    DHCP_SNOOP_DEBUG("*****************************\r\n");
}

int32_t dhcpSnoopDhcpParser(DhcpSnoopPacket *packet, uint8_t *area, uint32_t mode, DhcpSnoopElement *element)
{
    uint8_t trust = 0;
    uint8_t macVerify = 0;
    uint8_t requestedIp[4];
    uint32_t areaBytes;
    uint32_t limit;
    uint32_t avail;
    uint32_t endOff = 0;
    uint32_t endFound;
    uint32_t rv;

    if (mode == 0)
        DHCP_SNOOP_DEBUG("============ DHCP Parser ================\n");
    if (area == NULL || mode >= 3u || packet == NULL || element == NULL)
        return (int32_t)DHCP_SNOOP_E_PARAM;
    /* Only the frame of this descriptor is read: an area or frame globals
     * that lie outside it are a bad call as well. */
    areaBytes = dhcpSnoopFrameBytesFrom(packet, area);
    if (areaBytes == 0 || dhcpSnoopFrameBytesFrom(packet, dhcpHeader) < DS_BOOTP_FIXED_LEN)
        return (int32_t)DHCP_SNOOP_E_PARAM;
    memset(requestedIp, 0, sizeof(requestedIp));

    if (mode != 0) {
        /* Bounded by the field as well as by the frame. */
        limit = mode == 1u ? DS_BOOTP_FILE_LEN : DS_BOOTP_SNAME_LEN;
        avail = areaBytes < limit ? areaBytes : limit;
        (void)dhcpSnoopOptionsWalk(packet, area, mode, limit, avail, element, requestedIp, &endOff);
        goto done;
    }

    if (dhcpSnoopFrameBytesFrom(packet, macHeader) < DS_ETH_II_LEN)
        return (int32_t)DHCP_SNOOP_E_PARAM;

    /* The address length is tested, though the message names the type. */
    if (dhcpHeader[DS_BOOTP_HLEN] != 6u) {
        DHCP_SNOOP_ERROR("The value of hardware type in DHCP header is not ethernet MAC address.");
        return (int32_t)DHCP_SNOOP_E_PACKET;
    }
    if (memcmp(macHeader, bcMac, 6) == 0)
        element->isBroadcast = 1;

    DHCP_SNOOP_CALL(rv, swDhcpSnoopGetPortTrust(rcvPort, &trust));
    if (rv != 0)
        return (int32_t)rv;
    DHCP_SNOOP_CALL(rv, swDhcpSnoopGetPortMacVerify(rcvPort, &macVerify));
    if (rv != 0)
        return (int32_t)rv;

    if (trust == 0 && macVerify != 0) {
        DHCP_SNOOP_DEBUG("mac check enabled \r\n");
        /* Replies carry the client's address, not the sender's. */
        if (dhcpHeader[DS_BOOTP_OP] == 1u) {
            const uint8_t *chaddr = dhcpHeader + DS_BOOTP_CHADDR;

            DHCP_SNOOP_DEBUG("mac checking\r\n");
            DHCP_SNOOP_DEBUG("dhcpHeader->CHAddr:%02x:%02x:%02x:%02x:%02x:%02x, macHeader->srcMAC:%02x:%02x:%02x:%02x:%02x:%02x",
                             chaddr[0], chaddr[1], chaddr[2], chaddr[3], chaddr[4], chaddr[5], macHeader[6],
                             macHeader[7], macHeader[8], macHeader[9], macHeader[10], macHeader[11]);
            if (memcmp(chaddr, macHeader + 6, 6) != 0) {
                DHCP_SNOOP_ERROR("mac check failed.");
                DHCP_SNOOP_ERROR("Drop the DHCP Packet which DHCP CHADDR and ethernet source MAC address is not the same.");
                return (int32_t)DHCP_SNOOP_E_CHADDR;
            }
        }
    }

    if (areaBytes < DS_COOKIE_LEN || memcmp(area, magicCookie, DS_COOKIE_LEN) != 0) {
        DHCP_SNOOP_DEBUG("magicCookie:0x%x 0x%x 0x%x 0x%x\r\n", areaBytes > 0u ? area[0] : 0u,
                         areaBytes > 1u ? area[1] : 0u, areaBytes > 2u ? area[2] : 0u, areaBytes > 3u ? area[3] : 0u);
        return (int32_t)DHCP_SNOOP_E_COOKIE;
    }

    memcpy(element->clientMac, dhcpHeader + DS_BOOTP_CHADDR, 6);
    memcpy(element->xid, dhcpHeader + DS_BOOTP_XID, 4);
    element->ttl = DHCP_SNOOP_TTL_DEFAULT;
    element->isReuse = 1;
    element->vlan = packet->vid;
    element->up = rcvPort;

    /* The UDP length gives the limit; the frame may hold fewer bytes. */
    limit = element->endOptPos;
    avail = areaBytes - DS_COOKIE_LEN;
    endFound = dhcpSnoopOptionsWalk(packet, area + DS_COOKIE_LEN, 0, limit, avail, element, requestedIp, &endOff);
    if (endFound != 0) {
        element->endOptPos = optionsPos + DS_COOKIE_LEN + endOff;
        if (element->type == DHCP_SNOOP_TYPE_NONE) {
            if (dhcpHeader[DS_BOOTP_OP] == 1u)
                element->type = DHCP_SNOOP_TYPE_BOOTP_REQUEST;
            else if (dhcpHeader[DS_BOOTP_OP] == 2u)
                element->type = DHCP_SNOOP_TYPE_BOOTP_REPLY;
        }
    }
    DHCP_SNOOP_DEBUG("tempElement->type: %d", element->type);

    {
        static const uint8_t zeroIp[4] = {0, 0, 0, 0};
        const uint8_t *ciaddr = dhcpHeader + DS_BOOTP_CIADDR;

        switch (element->type) {
        case DHCP_SNOOP_TYPE_REQUEST:
            if (element->isReuse == 0)
                memcpy(element->clientIp, requestedIp, 4);
            else
                memcpy(element->clientIp, memcmp(ciaddr, zeroIp, 4) != 0 ? ciaddr : requestedIp, 4);
            break;
        case DHCP_SNOOP_TYPE_DECLINE:
            memcpy(element->clientIp, memcmp(ciaddr, zeroIp, 4) != 0 ? ciaddr : requestedIp, 4);
            break;
        case DHCP_SNOOP_TYPE_ACK:
        case DHCP_SNOOP_TYPE_NAK:
            memcpy(element->clientIp, dhcpHeader + DS_BOOTP_YIADDR, 4);
            break;
        case DHCP_SNOOP_TYPE_RELEASE:
        case DHCP_SNOOP_TYPE_INFORM:
            memcpy(element->clientIp, ciaddr, 4);
            break;
        default:
            break;
        }
    }

    /* The dump's port name costs a platform call: only when it is written. */
    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_DUMP) != 0 && DHCP_SNOOP_DEBUG_ON())
        dhcpSnoopElementDump(element);

done:
    if ((dhcpSnoopDebugLevel() & DHCP_SNOOP_DEBUG_LEVEL_DUMP) != 0)
        debugPacket(packet, element);
    DHCP_SNOOP_DEBUG("============DHCP parse end===============\n");
    return (int32_t)DHCP_SNOOP_OK;
}

/* ---- trace ------------------------------------------------------------------------- */

static const char *dhcpSnoopTypeTraceName(uint32_t type)
{
    static const char *const names[] = {"DHCP DISCOVER", "DHCP OFFER",   "DHCP REQUEST",  "DHCP DECLINE",
                                        "DHCP ACK",      "DHCP NAK",     "DHCP RELEASE",  "DHCP INFORM",
                                        "BOOTP REQUEST", "BOOTP REPLY"};

    if (type >= DHCP_SNOOP_TYPE_DISCOVER && type <= DHCP_SNOOP_TYPE_BOOTP_REPLY)
        return names[type - 1u];
    return "UNKOWN";
}

static void dhcpSnoopMacText(char *text, size_t size, const uint8_t *mac)
{
    snprintf(text, size, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

static void dhcpSnoopIpText(char *text, size_t size, const uint8_t *ip)
{
    snprintf(text, size, "%d.%d.%d.%d", ip[0], ip[1], ip[2], ip[3]);
}

void debugPacket(DhcpSnoopPacket *packet, DhcpSnoopElement *element)
{
    char dstMac[18];
    char srcMac[18];
    char dstIp[16];
    char srcIp[16];
    char ciaddr[16];
    char yiaddr[16];
    char siaddr[16];
    char giaddr[16];
    char chaddr[18];

    if (packet == NULL || element == NULL)
        return;
    /* Every line is a debug line: with the switch off there is no work. */
    if (!DHCP_SNOOP_DEBUG_ON())
        return;
    /* Only a frame that passed validation has its headers where the frame
     * globals say; anything else has nothing to trace. */
    if (dhcpSnoopFrameBytesFrom(packet, macHeader) < DS_ETH_II_LEN ||
        dhcpSnoopFrameBytesFrom(packet, ipHeader) < DS_IP_MIN_LEN ||
        dhcpSnoopFrameBytesFrom(packet, dhcpHeader) < DS_BOOTP_FIXED_LEN)
        return;

    dhcpSnoopMacText(dstMac, sizeof(dstMac), macHeader);
    dhcpSnoopMacText(srcMac, sizeof(srcMac), macHeader + 6);
    dhcpSnoopIpText(dstIp, sizeof(dstIp), ipHeader + DS_IP_DST);
    dhcpSnoopIpText(srcIp, sizeof(srcIp), ipHeader + DS_IP_SRC);
    dhcpSnoopIpText(ciaddr, sizeof(ciaddr), dhcpHeader + DS_BOOTP_CIADDR);
    dhcpSnoopIpText(yiaddr, sizeof(yiaddr), dhcpHeader + DS_BOOTP_YIADDR);
    dhcpSnoopIpText(siaddr, sizeof(siaddr), dhcpHeader + DS_BOOTP_SIADDR);
    dhcpSnoopIpText(giaddr, sizeof(giaddr), dhcpHeader + DS_BOOTP_GIADDR);
    dhcpSnoopMacText(chaddr, sizeof(chaddr), dhcpHeader + DS_BOOTP_CHADDR);

    DHCP_SNOOP_DEBUG(" Process new DHCP packet:\n packet length:%d\n message type:%s", (int)packet->frameLen,
                     dhcpSnoopTypeTraceName(element->type));
    DHCP_SNOOP_DEBUG(" Ethernet header information:\n dest MAC:%s, src MAC:%s", dstMac, srcMac);
    DHCP_SNOOP_DEBUG(" IP header information:\n dest IP:%s, src IP:%s", dstIp, srcIp);
    DHCP_SNOOP_DEBUG(" DHCP header information:\n DHCP CIADDR:%s\n DHCP YIADDR:%s\n DHCP SIADDR:%s\n DHCP GIADDR:%s\n DHCP CHADDR:%s",
                     ciaddr, yiaddr, siaddr, giaddr, chaddr);

    /* The option's code and length byte must be in the frame (a position
     * found inside file or sname may point past it); the bytes dumped stop
     * at the frame's end. */
    if (element->opt82Pos != 0 && element->opt82Pos < packet->frameLen &&
        packet->frameLen - element->opt82Pos >= 2u) {
        const uint8_t *opt = packet->frame + element->opt82Pos;
        uint32_t inFrame = packet->frameLen - element->opt82Pos;
        /* The length byte is taken as signed: 128 and above dump nothing. */
        int32_t dumpLen = (int32_t)(int8_t)opt[1] + 2;
        char text[256];
        int32_t total = 0;
        size_t used = 0;
        int32_t i;

        memset(text, 0, sizeof(text));
        for (i = 0; i < dumpLen && (uint32_t)i < inFrame; i++) {
            char piece[16];
            /* Sign-extended: 0x82 prints as 0xffffff82. Kept so. */
            int n = snprintf(piece, sizeof(piece), " 0x%02x", (unsigned int)(int32_t)(int8_t)opt[i]);

            if (n < 0)
                break;
            total += n;
            if (total >= DS_OPT82_DUMP_LIMIT)
                break;
            memcpy(text + used, piece, (size_t)n);
            used += (size_t)n;
        }
        DHCP_SNOOP_DEBUG("The packet contains option 82 field, binary dump of option 82 information, length: %d data:%s",
                         (int)dumpLen, text);
    }
}

}  // extern "C"
