// Live events for the control socket's monitors: binding changes (from the
// module's runtime records, which it writes for every binding it files or
// removes), drops and rate-limit entries. Nothing is composed unless a
// monitor listens.
#include <string.h>
#include <sys/time.h>

#include <atomic>
#include <mutex>

#include "platform/common/port_text.h"
#include "platform/linux/live_internal.h"
#include "snooping/dhcpSnoopInternal.h"
#include "snooping/dhcpSnoopWire.h"

namespace live {

namespace {

std::atomic<bool> gMonitoring{false};
std::mutex gSinkLock;
MonitorSink& sink()
{
    static MonitorSink* s = new MonitorSink;
    return *s;
}

// What the main task is working on.
enum class Work : uint8_t { Other, Frame, Tick, Delete, Configuration };
thread_local Work tWork = Work::Other;
thread_local uint8_t tFrameType = 0;
thread_local bool tFrameTypeKnown = false;

uint64_t unixMs()
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (uint64_t)tv.tv_sec * 1000u + (uint64_t)tv.tv_usec / 1000u;
}

void publish(MonitorEvent& e)
{
    e.unixMs = unixMs();
    std::lock_guard<std::mutex> g(gSinkLock);
    if (sink())
        sink()(e);
}

const char* typeName(uint8_t t)
{
    switch (t) {
    case DHCP_SNOOP_TYPE_DISCOVER:
        return "DISCOVER";
    case DHCP_SNOOP_TYPE_OFFER:
        return "OFFER";
    case DHCP_SNOOP_TYPE_REQUEST:
        return "REQUEST";
    case DHCP_SNOOP_TYPE_DECLINE:
        return "DECLINE";
    case DHCP_SNOOP_TYPE_ACK:
        return "ACK";
    case DHCP_SNOOP_TYPE_NAK:
        return "NAK";
    case DHCP_SNOOP_TYPE_RELEASE:
        return "RELEASE";
    case DHCP_SNOOP_TYPE_INFORM:
        return "INFORM";
    default:
        return "BOOTP";
    }
}

std::string causeHere()
{
    if (!logging::onMainTask())
        return isSwitchInited() ? "stack" : "file";
    switch (tWork) {
    case Work::Frame:
        return tFrameTypeKnown ? typeName(tFrameType) : "DHCP";
    case Work::Tick:
        return "aging";
    case Work::Delete:
        return "delete";
    case Work::Configuration:
        return "configuration";
    default:
        return "other";
    }
}

uint16_t rd16(const uint8_t* p) { return (uint16_t)(p[0] << 8 | p[1]); }

}  // namespace

void setMonitorSink(MonitorSink s)
{
    std::lock_guard<std::mutex> g(gSinkLock);
    sink() = std::move(s);
}

void setMonitoring(bool on) { gMonitoring.store(on, std::memory_order_relaxed); }

namespace monitor {

bool active() { return gMonitoring.load(std::memory_order_relaxed); }

uint8_t dhcpMessageType(const uint8_t* f, size_t len)
{
    if (!f || len < 14)
        return 0;
    size_t at = 12;
    if (rd16(f + at) == 0x8100) {
        if (len < 18)
            return 0;
        at += 4;
    }
    if (rd16(f + at) != 0x0800)
        return 0;
    at += 2;
    if (len < at + 20 || (f[at] >> 4) != 4)
        return 0;
    size_t ihl = (size_t)(f[at] & 0x0F) * 4;
    if (ihl < 20 || len < at + ihl + 8 || f[at + 9] != 17)
        return 0;
    // A fragment after the first carries no header of its own.
    if ((rd16(f + at + 6) & 0x1FFF) != 0)
        return 0;
    at += ihl;
    uint16_t sport = rd16(f + at), dport = rd16(f + at + 2);
    if (!((sport == 67 || sport == 68) && (dport == 67 || dport == 68)))
        return 0;
    at += 8;
    // The fixed BOOTP header, then the magic cookie.
    const size_t kBootp = 236;
    if (len < at + kBootp + 4 || memcmp(f + at + kBootp, "\x63\x82\x53\x63", 4) != 0)
        return 0;
    size_t o = at + kBootp + 4;
    while (o < len) {
        uint8_t code = f[o];
        if (code == 255)
            break;
        if (code == 0) {
            ++o;
            continue;
        }
        if (o + 2 > len || o + 2 + f[o + 1] > len)
            return 0;
        if (code == 53 && f[o + 1] == 1)
            return f[o + 2];
        o += 2 + (size_t)f[o + 1];
    }
    return 0;
}

void mainRecord(const void* record, uint32_t size)
{
    tWork = Work::Other;
    if (!record || size < sizeof(DhcpSnoopMsg))
        return;
    const DhcpSnoopMsg* m = static_cast<const DhcpSnoopMsg*>(record);
    switch (m->type) {
    case DHCP_SNOOP_MSG_PACKET:
        tWork = Work::Frame;
        // Looked at only while someone listens: the frame path is spared
        // the walk through the options otherwise.
        tFrameTypeKnown = active();
        tFrameType = tFrameTypeKnown ? dhcpMessageType(m->packet.frame, m->packet.frameLen) : 0;
        break;
    case DHCP_SNOOP_MSG_TIMER:
        tWork = Work::Tick;
        break;
    case DHCP_SNOOP_MSG_DEL_BINDING:
        tWork = Work::Delete;
        break;
    case DHCP_SNOOP_MSG_CFG_CHANGE:
    case DHCP_SNOOP_MSG_PORT_CFG_9:
    case DHCP_SNOOP_MSG_PORT_CFG_10:
        tWork = Work::Configuration;
        break;
    default:
        break;
    }
}

void bindingRecord(const uint8_t* record, uint32_t len)
{
    if (!active() || !record || len != DHCP_SNOOP_RUNTIME_RECORD_SIZE)
        return;
    uint32_t op = 0;
    DhcpSnoopElement e;
    memset(&e, 0, sizeof e);
    dhcpSnoopRuntimeRecordDecode(record, &op, &e);
    if (op != DHCP_SNOOP_SYNC_ADD && op != DHCP_SNOOP_SYNC_DELETE)
        return;
    MonitorEvent ev;
    ev.kind = op == DHCP_SNOOP_SYNC_ADD ? MonitorEvent::BindingAdded : MonitorEvent::BindingRemoved;
    memcpy(ev.ip.data(), e.clientIp, 4);
    memcpy(ev.mac.data(), e.clientMac, 6);
    ev.vlan = e.vlan;
    ev.lease = e.ttl;
    ev.port = porttext::name(e.up);
    ev.cause = causeHere();
    publish(ev);
}

void drop(const std::string& port, const std::string& reason, const uint8_t* frame, size_t len)
{
    if (!active())
        return;
    MonitorEvent ev;
    ev.kind = MonitorEvent::Drop;
    ev.port = port;
    ev.reason = reason;
    if (frame && len >= 12)
        memcpy(ev.mac.data(), frame + 6, 6);
    publish(ev);
}

void rateLimit(const std::string& port, bool decline)
{
    if (!active())
        return;
    MonitorEvent ev;
    ev.kind = MonitorEvent::RateLimit;
    ev.port = port;
    ev.reason = decline ? "DECLINE" : "DHCP";
    publish(ev);
}

}  // namespace monitor
}  // namespace live
