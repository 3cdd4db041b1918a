// Snooping policy: what each message type does to the tables and the frame,
// and the per-port rate limits.
#include <string.h>

#include "snooping/dhcpSnoopInternal.h"

extern "C" {

/* ---- rate limits ------------------------------------------------------------------ */

/* One-shot timer that re-arms a port's overflow log. */
#define DHCP_SNOOP_FLOW_TIMER_SEC 30u

/* Counters and bits exist for indexes 1 to DHCP_SNOOP_PORT_COUNTERS only. An
 * index outside (a port of a far stack unit or slot: the index is kept to 8
 * bits) has no counter; the caller lets such a frame pass unlimited rather
 * than drop every DHCP frame of that port. */
static int dhcpSnoopIndexCounted(uint32_t index)
{
    return index >= 1 && index <= DHCP_SNOOP_PORT_COUNTERS;
}

static int dhcpSnoopFlagTest(const uint32_t *bitmap, uint32_t index)
{
    return (bitmap[(index - 1) / 32] & (1u << ((index - 1) % 32))) != 0;
}

static void dhcpSnoopFlagSet(uint32_t *bitmap, uint32_t index)
{
    bitmap[(index - 1) / 32] |= 1u << ((index - 1) % 32);
}

static void dhcpSnoopFlagClear(uint32_t *bitmap, uint32_t index)
{
    bitmap[(index - 1) / 32] &= ~(1u << ((index - 1) % 32));
}

/* Logs the first overflow of a port and suppresses further logs until the
 * 30-second timer posts its message. A timer that cannot be started leaves
 * the log armed, so the next excess frame is reported again. */
static void dhcpSnoopFlowOverflow(uint32_t *bitmap, uint32_t index, uint32_t logCode, const char *portName,
                                  PalTimerCallback callback)
{
    PalTimerId timerId;
    PalTimeSpec period = {DHCP_SNOOP_FLOW_TIMER_SEC, 0};

    syslogAdd(logCode, (uintptr_t)portName, 0, 0, 0, 0, 0);
    dhcpSnoopFlagSet(bitmap, index);
    memset(&timerId, 0, sizeof(timerId));
    add_timer(&timerId, DHCP_SNOOP_TIMER_NAME, period, callback, index, 1);
    if (!TIMER_ID_IS_VALID(timerId)) {
        DHCP_SNOOP_ERROR("Decline timer failed!");
        dhcpSnoopFlagClear(bitmap, index);
    }
}

uint32_t dhcpSnoopRateLimit(DhcpSnoopPacket *packet, DHCP_SNOOP_UP_T upPkt)
{
    uint8_t portRate = 0;
    uint32_t index;
    uint32_t rv;

    if (packet == NULL || inner_up_is_valid(upPkt) == 0)
        return DHCP_SNOOP_E_PARAM;
    index = dhcpSnoopPortIndex(upPkt);
    DHCP_SNOOP_CALL(rv, swDhcpSnoopGetPortLimitRate(upPkt, &portRate));
    if (rv != 0)
        return rv;
    DHCP_SNOOP_DEBUG("index:%d, portCounter:%d, portRate:%d", (int)index,
                     dhcpSnoopIndexCounted(index) ? (int)portCounter[index - 1] : 0, (int)portRate);
    if (portRate == 0)
        return DHCP_SNOOP_OK;
    if (!dhcpSnoopIndexCounted(index)) {
        DHCP_SNOOP_ERROR("index:%d has no rate counter, frame not limited.", (int)index);
        return DHCP_SNOOP_OK;
    }

    portCounter[index - 1]++;
    if (portCounter[index - 1] <= portRate)
        return DHCP_SNOOP_OK;
    if (dhcpSnoopFlagTest(logFlagPortFlow, index))
        return DHCP_SNOOP_E_RATE_LIMIT;

    char portName[UP_STR_BUF] = {0};
    usUp2Str(upPkt, portName, 1);
    dhcpSnoopFlowOverflow(logFlagPortFlow, index, DHCP_SNOOP_LOG_RATE_OVERFLOW, portName,
                          dhcpSnoopSendRateFlowTimerMsgToDhcp);
    return DHCP_SNOOP_E_RATE_LIMIT;
}

/* Counts one DECLINE of a port whose limit decRate is not 0. Non-zero: the
 * DECLINE is over the limit and is dropped. */
static uint32_t dhcpSnoopDeclineLimit(DHCP_SNOOP_UP_T port, uint8_t decRate)
{
    uint32_t index = dhcpSnoopPortIndex(port);

    if (!dhcpSnoopIndexCounted(index)) {
        DHCP_SNOOP_ERROR("index:%d has no decline counter, frame not limited.", (int)index);
        return DHCP_SNOOP_OK;
    }
    declineCounter[index - 1]++;
    if (declineCounter[index - 1] <= decRate)
        return DHCP_SNOOP_OK;
    if (!dhcpSnoopFlagTest(decFlowFlag, index)) {
        char portName[UP_STR_BUF] = {0};
        usUp2Str(port, portName, 1);
        DHCP_SNOOP_DEBUG("port: %s, DECLINE counter overbound: %d, limit rate = %d\n", portName,
                         (int)declineCounter[index - 1], (int)decRate);
        dhcpSnoopFlowOverflow(decFlowFlag, index, DHCP_SNOOP_LOG_DECLINE_OVERFLOW, portName,
                              dhcpSnoopSendDeclineTimerMsgToDhcp);
    }
    return DHCP_SNOOP_E_RATE_LIMIT;
}

/* ---- message-type policy ------------------------------------------------------------ */

/* The end of the new element's life in the policy. Once a table has filed it,
 * the policy works on a copy (see dhcpSnoopPolicyFile) and there is nothing
 * to give back: the table owns the element, and another thread (a stacking
 * callback) may already have removed it, freed it and handed it out again.
 * An element filed before an error exit therefore stays filed (consistent
 * with the source-guard table and the other units) and ages out like any
 * other entry. Anything else goes back to the pool. */
static void dhcpSnoopPolicyPutBack(DhcpSnoopElement *tempElement)
{
    if (!dhcpSnoopElementIsPooled(tempElement))
        return;
    dhcpSnoopFreeMem(tempElement);
}

static uint32_t dhcpSnoopPolicyFail(DhcpSnoopElement *tempElement, uint32_t rv, const char *callText)
{
    dhcpSnoopPolicyPutBack(tempElement);
    DHCP_SNOOP_CALL_FAILED(rv, callText);
    return rv;
}

static uint32_t dhcpSnoopPolicyEnd(DhcpSnoopElement *tempElement)
{
    dhcpSnoopPolicyPutBack(tempElement);
    DHCP_SNOOP_DEBUG("============Table manage end================\n");
    return DHCP_SNOOP_OK;
}

/* Runs a step of the policy; a failure is an error exit with the step's text. */
#define DHCP_SNOOP_POLICY_TRY(call)                                                             \
    do {                                                                                        \
        rv = (call);                                                                            \
        if (rv != 0)                                                                            \
            return dhcpSnoopPolicyFail(tempElement, rv, #call);                                 \
    } while (0)

/* Files *tempElement in the selected table. The filing result, never a look
 * at the table afterwards, says who owns the element: when this call linked
 * it, *tempElement is pointed at view, a copy taken before, and the rest of
 * the policy reads only that. */
static uint32_t dhcpSnoopPolicyFile(DhcpSnoopElement **tempElement, uint32_t tableType, DhcpSnoopElement *view)
{
    uint32_t filed = 0;
    uint32_t rv;

    memcpy(view, *tempElement, sizeof(*view));
    view->next = NULL;
    view->prev = NULL;
    rv = dhcpSnoopElementAddNewEx(*tempElement, tableType, &filed);
    if (filed != 0)
        *tempElement = view;
    return rv;
}

/* The filing step with the text of the call it stands for. */
#define DHCP_SNOOP_POLICY_FILE(tableType, callText)                                             \
    do {                                                                                        \
        rv = dhcpSnoopPolicyFile(&tempElement, tableType, &view);                               \
        if (rv != 0)                                                                            \
            return dhcpSnoopPolicyFail(tempElement, rv, callText);                              \
    } while (0)

static int dhcpSnoopIpIsZero(const DhcpSnoopElement *e)
{
    return e->clientIp[0] == 0 && e->clientIp[1] == 0 && e->clientIp[2] == 0 && e->clientIp[3] == 0;
}

/* Table changes are on when the status reads non-zero; a failed read
 * counts as off. */
static int dhcpSnoopTableChangesOn(void)
{
    uint8_t status = 0;

    return swDhcpSnoopGetQAddStatus(&status) == 0 && status != 0;
}

static uint32_t dhcpSnoopPolicyRequest(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement)
{
    DhcpSnoopElement *temp1;
    DhcpSnoopElement view;
    uint32_t rv;

    temp1 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_REQUEST);
    if (temp1 != NULL)
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_REQUEST));
    DHCP_SNOOP_POLICY_FILE(DHCP_SNOOP_ELEMENT_REQUEST,
                           "dhcpSnoopElementAddNew(tempElement, DHCP_SNOOP_ELEMENT_REQUEST)");
    DHCP_SNOOP_DEBUG("Forward the DHCP request packet.");
    DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
    return dhcpSnoopPolicyEnd(tempElement);
}

static uint32_t dhcpSnoopPolicyAck(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement)
{
    DhcpSnoopElement *temp1;
    DhcpSnoopElement *temp2;
    DhcpSnoopElement view;
    char port[UP_STR_BUF];
    uint32_t rv;

    if (dhcpSnoopIpIsZero(tempElement)) {
        /* The answer to an INFORM carries no address to bind. */
        DHCP_SNOOP_DEBUG("Forward the DHCP ack packet that reply DHCP inform packet.");
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
        return dhcpSnoopPolicyEnd(tempElement);
    }

    if (dhcpSnoopTableChangesOn()) {
        temp1 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_REQUEST);
        if (temp1 == NULL) {
            DHCP_SNOOP_DEBUG("Find request table binding enttry failed, Drop the DHCP ack packet.");
            return dhcpSnoopPolicyEnd(tempElement);
        }
        if (memcmp(temp1->xid, tempElement->xid, sizeof(temp1->xid)) != 0) {
            DHCP_SNOOP_DEBUG("The value of xid field in DHCP ack packet is different from DHCP request "
                             "packet, drop the DHCP ack packet.");
            return dhcpSnoopPolicyEnd(tempElement);
        }
        /* The old binding goes before the port test: an ACK dropped there
         * has already removed it. */
        temp2 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC);
        if (temp2 != NULL)
            DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp2, DHCP_SNOOP_ELEMENT_DYNAMIC));
        DHCP_SNOOP_DEBUG("temp1->up:%s", dhcpSnoopUpText(temp1->up, port));
        DHCP_SNOOP_DEBUG("tempElement->up:%s", dhcpSnoopUpText(tempElement->up, port));
        if (temp1->up == tempElement->up) {
            DHCP_SNOOP_DEBUG("DHCP ack packet and DHCP request packet receive from the same port, drop the "
                             "DHCP ack packet.");
            return dhcpSnoopPolicyEnd(tempElement);
        }
        /* The client sits where its REQUEST came in, not behind the server's
         * port. */
        tempElement->up = temp1->up;
        DHCP_SNOOP_POLICY_FILE(DHCP_SNOOP_ELEMENT_DYNAMIC,
                               "dhcpSnoopElementAddNew(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC)");
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_REQUEST));
    }
    DHCP_SNOOP_DEBUG("Forward the DHCP ack packet.");
    DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
    return dhcpSnoopPolicyEnd(tempElement);
}

static uint32_t dhcpSnoopPolicyNak(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement)
{
    DhcpSnoopElement *temp1;
    DhcpSnoopElement *temp2;
    uint32_t rv;

    temp1 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_REQUEST);
    if (temp1 != NULL)
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_REQUEST));
    temp2 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC);
    if (temp2 != NULL)
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp2, DHCP_SNOOP_ELEMENT_DYNAMIC));
    DHCP_SNOOP_DEBUG("Forward the DHCP nak packet.");
    DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
    return dhcpSnoopPolicyEnd(tempElement);
}

static uint32_t dhcpSnoopPolicyReleaseMsg(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement, uint8_t trust)
{
    DhcpSnoopElement *temp1;
    uint32_t rv;

    if (!dhcpSnoopTableChangesOn()) {
        DHCP_SNOOP_DEBUG("Forward the DHCP release packet.");
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
        return dhcpSnoopPolicyEnd(tempElement);
    }
    /* Any port may release: the key is address, VLAN and MAC. */
    temp1 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC);
    if (temp1 != NULL) {
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_DYNAMIC));
        DHCP_SNOOP_DEBUG("Forward the DHCP release packet.");
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
        return dhcpSnoopPolicyEnd(tempElement);
    }
    if (trust == 0) {
        DHCP_SNOOP_DEBUG("Drop DHCP release packet that dosn't find matched entry in the dynamic table.");
        return dhcpSnoopPolicyEnd(tempElement);
    }
    DHCP_SNOOP_DEBUG("Forward DHCP release packet received from trusted port.");
    DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
    DHCP_SNOOP_DEBUG("Drop DHCP release packet that dosn't find matched entry in the dynamic table.");
    return dhcpSnoopPolicyEnd(tempElement);
}

static uint32_t dhcpSnoopPolicyDecline(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement, uint8_t trust)
{
    DhcpSnoopElement *temp1;
    uint8_t decRate = 0;
    uint32_t rv;

    DHCP_SNOOP_POLICY_TRY(swDhcpSnoopGetPortDecLimitRate(tempElement->up, &decRate));
    if (decRate != 0 && dhcpSnoopDeclineLimit(tempElement->up, decRate) != 0) {
        DHCP_SNOOP_DEBUG("Drop decline packet");
        return dhcpSnoopPolicyEnd(tempElement);
    }
    /* Without an address the client is known by MAC and VLAN only. */
    if (!dhcpSnoopIpIsZero(tempElement))
        temp1 = dhcpSnoopElementSearchByIpVlanMac(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC);
    else
        temp1 = dhcpSnoopElementSearchByMacAndVlan(tempElement, DHCP_SNOOP_ELEMENT_DYNAMIC);
    if (temp1 != NULL) {
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopElementDelete(temp1, DHCP_SNOOP_ELEMENT_DYNAMIC));
        DHCP_SNOOP_DEBUG("Forward the DHCP decline packet.");
        DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
        return dhcpSnoopPolicyEnd(tempElement);
    }
    if (trust == 0) {
        DHCP_SNOOP_DEBUG("Drop DHCP decline packet that dosn't find matched entry in the dynamic table.");
        return dhcpSnoopPolicyEnd(tempElement);
    }
    DHCP_SNOOP_DEBUG("Forward DHCP decline packet received from trusted port.");
    DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
    DHCP_SNOOP_DEBUG("Drop DHCP decline packet that dosn't find matched entry in the dynamic table.");
    return dhcpSnoopPolicyEnd(tempElement);
}

/* Forwards without touching a table. */
static uint32_t dhcpSnoopPolicyPass(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement)
{
    uint32_t rv;

    DHCP_SNOOP_POLICY_TRY(dhcpSnoopPacketForward(inputPacket, tempElement));
    return dhcpSnoopPolicyEnd(tempElement);
}

uint32_t dhcpSnoopTableManage(DhcpSnoopPacket *inputPacket, DhcpSnoopElement *tempElement)
{
    uint8_t trust = 0;
    char port[UP_STR_BUF];
    uint32_t rv;

    /* The element is ours from here on, whatever happens: filed or given
     * back on every exit, so the caller never frees it, not even after an
     * error (it may be filed by then). */
    if (tempElement == NULL)
        return DHCP_SNOOP_E_PARAM;
    if (inputPacket == NULL) {
        dhcpSnoopFreeMem(tempElement);
        return DHCP_SNOOP_E_PARAM;
    }
    DHCP_SNOOP_DEBUG("============== Table Manage start type %d=================\n", (int)tempElement->type);
    DHCP_SNOOP_POLICY_TRY(swDhcpSnoopGetPortTrust(tempElement->up, &trust));
    DHCP_SNOOP_DEBUG("port: %s, trust: %d", dhcpSnoopUpText(tempElement->up, port), (int)trust);

    switch (tempElement->type) {
    case DHCP_SNOOP_TYPE_NONE:
    case DHCP_SNOOP_TYPE_BOOTP_REQUEST:
    case DHCP_SNOOP_TYPE_BOOTP_REPLY:
        DHCP_SNOOP_DEBUG("Forward the BOOTP packet.");
        return dhcpSnoopPolicyPass(inputPacket, tempElement);
    case DHCP_SNOOP_TYPE_DISCOVER:
        DHCP_SNOOP_DEBUG("Forward the DHCP discover packet.");
        return dhcpSnoopPolicyPass(inputPacket, tempElement);
    case DHCP_SNOOP_TYPE_OFFER:
        if (trust == 0) {
            DHCP_SNOOP_DEBUG("Drop DHCP offer packet received from untrusted port.");
            return dhcpSnoopPolicyEnd(tempElement);
        }
        DHCP_SNOOP_DEBUG("Forward DHCP offer packet received from trusted port.");
        return dhcpSnoopPolicyPass(inputPacket, tempElement);
    case DHCP_SNOOP_TYPE_REQUEST:
        return dhcpSnoopPolicyRequest(inputPacket, tempElement);
    case DHCP_SNOOP_TYPE_DECLINE:
        return dhcpSnoopPolicyDecline(inputPacket, tempElement, trust);
    case DHCP_SNOOP_TYPE_ACK:
        if (trust == 0) {
            DHCP_SNOOP_DEBUG("Drop DHCP ack packet received from untrusted port.");
            return dhcpSnoopPolicyEnd(tempElement);
        }
        return dhcpSnoopPolicyAck(inputPacket, tempElement);
    case DHCP_SNOOP_TYPE_NAK:
        if (trust == 0) {
            DHCP_SNOOP_DEBUG("Drop DHCP nak packet received from untrusted port.");
            return dhcpSnoopPolicyEnd(tempElement);
        }
        return dhcpSnoopPolicyNak(inputPacket, tempElement);
    case DHCP_SNOOP_TYPE_RELEASE:
        return dhcpSnoopPolicyReleaseMsg(inputPacket, tempElement, trust);
    case DHCP_SNOOP_TYPE_INFORM:
        DHCP_SNOOP_DEBUG("Forward the DHCP inform packet.");
        return dhcpSnoopPolicyPass(inputPacket, tempElement);
    default:
        /* Forwarding sends nothing for these types: in effect a drop. */
        DHCP_SNOOP_DEBUG("Forward unkown packet.");
        return dhcpSnoopPolicyPass(inputPacket, tempElement);
    }
}

}  // extern "C"
