#include "tools/daemon/module_backend.h"

#include <string.h>

#include "platform/common/port_text.h"
#include "snooping/dhcpSnoop.h"
#include "snooping/dhcpSnoopWire.h"

namespace ctl {

namespace {

// The removal is posted from the control thread: wait a little for room
// rather than fail at once on a burst of trapped frames.
constexpr int32_t kPostWaitMs = 500;

}  // namespace

bool decodeSnapshot(const uint8_t* data, uint32_t len, std::vector<Binding>& out, std::string& error)
{
    if (data == nullptr || len < DHCP_SNOOP_SNAPSHOT_HEAD_SIZE) {
        error = "the module's snapshot is shorter than its head";
        return false;
    }
    uint32_t num = dhcpSnoopGetU32(data);
    if (num > (len - DHCP_SNOOP_SNAPSHOT_HEAD_SIZE) / DHCP_SNOOP_RUNTIME_RECORD_SIZE) {
        error = "the module's snapshot counts " + std::to_string(num) + " records in " + std::to_string(len) +
                " bytes";
        return false;
    }
    std::vector<Binding> bindings;
    bindings.reserve(num);
    for (uint32_t i = 0; i < num; ++i) {
        const uint8_t* rec = data + DHCP_SNOOP_SNAPSHOT_HEAD_SIZE + (size_t)i * DHCP_SNOOP_RUNTIME_RECORD_SIZE;
        uint32_t op = 0;
        DhcpSnoopElement e;
        memset(&e, 0, sizeof e);
        dhcpSnoopRuntimeRecordDecode(rec, &op, &e);
        if (op != DHCP_SNOOP_SYNC_ADD)
            continue;
        Binding b;
        memcpy(b.ip.data(), e.clientIp, 4);
        memcpy(b.mac.data(), e.clientMac, 6);
        b.vlan = e.vlan;
        b.lease = e.ttl;
        b.port = porttext::name(e.up);
        bindings.push_back(b);
    }
    out.swap(bindings);
    return true;
}

bool readModuleBindings(std::vector<Binding>& out, std::string& error)
{
    UsoData d;
    memset(&d, 0, sizeof d);
    uint32_t rv = dhcpSnoopDataSyncGetCb(&d);
    if (rv != DHCP_SNOOP_OK) {
        error = "the module gave no snapshot of its bindings (result " + std::to_string(rv) + ")";
        return false;
    }
    bool ok = decodeSnapshot(static_cast<const uint8_t*>(d.data), d.len, out, error);
    dhcpSnoopDataSyncFreeCb(&d);
    return ok;
}

bool postRemoval(const BindingKey& key, std::string& error)
{
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_DEL_BINDING;
    memcpy(msg.element.clientIp, key.ip.data(), 4);
    msg.element.vlan = key.vlan;
    memcpy(msg.element.clientMac, key.mac.data(), 6);
    uint32_t rv = dhcpSnoopSendMsgToMainQueue(&msg, kPostWaitMs);
    if (rv != DHCP_SNOOP_OK) {
        error = "the module's queue took no removal message (result " + std::to_string((int32_t)rv) + ")";
        return false;
    }
    return true;
}

}  // namespace ctl
