// The host's veth pair over rtnetlink with libmnl (see rtnl_link.h).
#include "platform/linux/rtnl_link.h"
#include "platform/linux/rtnl_common.h"

#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace live {
namespace rtnl {
namespace {

// A link request: every change is acknowledged, so a refusal is seen.
struct Builder : Request<struct ifinfomsg> {
    Builder(uint16_t type, uint16_t flags, uint8_t family, int ifindex)
        : Request(type, (uint16_t)(NLM_F_REQUEST | NLM_F_ACK | flags))
    {
        hdr->ifi_family = family;
        hdr->ifi_index = ifindex;
    }
    Message done() const { return Message(buf, buf + nlh->nlmsg_len); }
};

bool send(const Message& m, bool missingIsFine, std::string& error)
{
    Message copy(m);
    std::string e;
    int refused = 0;
    if (request(reinterpret_cast<struct nlmsghdr*>(copy.data()), nullptr, nullptr, e, &refused))
        return true;
    if (refused == 0) {
        error = e;
        return false;
    }
    if (missingIsFine && (refused == ENODEV || refused == ENOENT))
        return true;
    // The kernel's refusal as it is: the caller says what was refused.
    error = strerror(refused);
    return false;
}

}  // namespace

Message vethMessage(const std::string& name, const std::string& peer, int master)
{
    Builder b(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL, AF_UNSPEC, 0);
    mnl_attr_put_strz(b.nlh, IFLA_IFNAME, name.c_str());
    mnl_attr_put(b.nlh, IFLA_ADDRESS, sizeof kHostBridgeEndMac, kHostBridgeEndMac);
    if (master > 0)
        mnl_attr_put_u32(b.nlh, IFLA_MASTER, (uint32_t)master);
    struct nlattr* info = mnl_attr_nest_start(b.nlh, IFLA_LINKINFO);
    mnl_attr_put_strz(b.nlh, IFLA_INFO_KIND, "veth");
    struct nlattr* data = mnl_attr_nest_start(b.nlh, IFLA_INFO_DATA);
    struct nlattr* p = mnl_attr_nest_start(b.nlh, VETH_INFO_PEER);
    // The peer is a link message of its own: its header, then its name.
    struct ifinfomsg* pifm = static_cast<struct ifinfomsg*>(mnl_nlmsg_put_extra_header(b.nlh, sizeof *pifm));
    memset(pifm, 0, sizeof *pifm);
    mnl_attr_put_strz(b.nlh, IFLA_IFNAME, peer.c_str());
    mnl_attr_nest_end(b.nlh, p);
    mnl_attr_nest_end(b.nlh, data);
    mnl_attr_nest_end(b.nlh, info);
    return b.done();
}

Message quietPortMessage(int ifindex)
{
    Builder b(RTM_SETLINK, 0, AF_BRIDGE, ifindex);
    struct nlattr* n = mnl_attr_nest_start(b.nlh, IFLA_PROTINFO);
    mnl_attr_put_u8(b.nlh, IFLA_BRPORT_LEARNING, 0);
    mnl_attr_put_u8(b.nlh, IFLA_BRPORT_UNICAST_FLOOD, 0);
    mnl_attr_put_u8(b.nlh, IFLA_BRPORT_MCAST_FLOOD, 0);
    mnl_attr_put_u8(b.nlh, IFLA_BRPORT_BCAST_FLOOD, 0);
    mnl_attr_nest_end(b.nlh, n);
    return b.done();
}

Message noIpv6AddressMessage(int ifindex)
{
    Builder b(RTM_SETLINK, 0, AF_UNSPEC, ifindex);
    struct nlattr* spec = mnl_attr_nest_start(b.nlh, IFLA_AF_SPEC);
    struct nlattr* v6 = mnl_attr_nest_start(b.nlh, AF_INET6);
    mnl_attr_put_u8(b.nlh, IFLA_INET6_ADDR_GEN_MODE, IN6_ADDR_GEN_MODE_NONE);
    mnl_attr_nest_end(b.nlh, v6);
    mnl_attr_nest_end(b.nlh, spec);
    return b.done();
}

Message upMessage(int ifindex)
{
    Builder b(RTM_SETLINK, 0, AF_UNSPEC, ifindex);
    b.hdr->ifi_flags = IFF_UP;
    b.hdr->ifi_change = IFF_UP;
    return b.done();
}

Message deleteMessage(const std::string& name)
{
    Builder b(RTM_DELLINK, 0, AF_UNSPEC, 0);
    mnl_attr_put_strz(b.nlh, IFLA_IFNAME, name.c_str());
    return b.done();
}

Message portVlanMessage(int ifindex, uint16_t vid, bool pvidUntagged, bool add)
{
    Builder b(add ? RTM_SETLINK : RTM_DELLINK, 0, AF_BRIDGE, ifindex);
    struct nlattr* spec = mnl_attr_nest_start(b.nlh, IFLA_AF_SPEC);
    struct bridge_vlan_info vi;
    memset(&vi, 0, sizeof vi);
    vi.vid = vid;
    if (pvidUntagged)
        vi.flags = BRIDGE_VLAN_INFO_PVID | BRIDGE_VLAN_INFO_UNTAGGED;
    mnl_attr_put(b.nlh, IFLA_BRIDGE_VLAN_INFO, sizeof vi, &vi);
    mnl_attr_nest_end(b.nlh, spec);
    return b.done();
}

bool deleteHostPair(std::string& error)
{
    // One end takes the other with it; either may be what is left.
    for (const char* name : {kHostBridgeEnd, kHostDaemonEnd}) {
        if (if_nametoindex(name) == 0)
            continue;
        std::string e;
        if (!send(deleteMessage(name), true, e)) {
            error = std::string("deleting ") + name + ": " + e;
            return false;
        }
    }
    return true;
}

bool makeHostPair(int bridge, bool vlanFiltering, uint16_t vlan, const std::vector<uint16_t>& tagged,
                  HostPair& out, std::string& error)
{
    out = HostPair();
    if (!deleteHostPair(error))
        return false;
    std::string e;
    auto fail = [&](const std::string& what) {
        error = std::string("veth pair ") + kHostBridgeEnd + "/" + kHostDaemonEnd + ": " + what + ": " + e;
        std::string ignored;
        deleteHostPair(ignored);
        return false;
    };
    // Made down and a member at once: nothing reaches it before it is quiet.
    if (!send(vethMessage(kHostBridgeEnd, kHostDaemonEnd, bridge), false, e))
        return fail("making it");
    out.bridgeEnd = (int)if_nametoindex(kHostBridgeEnd);
    out.daemonEnd = (int)if_nametoindex(kHostDaemonEnd);
    if (out.bridgeEnd == 0 || out.daemonEnd == 0) {
        e = strerror(errno);
        return fail("finding it");
    }
    if (!send(quietPortMessage(out.bridgeEnd), false, e))
        return fail("learning and flooding off");
    // Without IPv6 in the kernel there is no address to keep off.
    for (int ifindex : {out.bridgeEnd, out.daemonEnd})
        (void)send(noIpv6AddressMessage(ifindex), false, e);
    if (vlanFiltering) {
        if (vlan != 1 && !send(portVlanMessage(out.bridgeEnd, 1, false, false), true, e))
            return fail("VLAN 1 off");
        if (!send(portVlanMessage(out.bridgeEnd, vlan, true, true), false, e))
            return fail("VLAN " + std::to_string(vlan));
        for (uint16_t v : tagged)
            if (!send(portVlanMessage(out.bridgeEnd, v, false, true), false, e))
                return fail("VLAN " + std::to_string(v));
    }
    for (int ifindex : {out.bridgeEnd, out.daemonEnd})
        if (!send(upMessage(ifindex), false, e))
            return fail("up");
    return true;
}

}  // namespace rtnl
}  // namespace live
