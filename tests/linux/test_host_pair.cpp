// The rtnetlink messages of the host's veth pair, read back attribute by
// attribute as the kernel would (no socket, no root). Native builds with the
// bridge data plane only: libmnl is not there for the cross targets.
#include <gtest/gtest.h>

#if DHCPSNOOP_BRIDGE_DATAPLANE

#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstring>
#include <map>
#include <string>

#include "platform/linux/rtnl_link.h"

namespace {

using live::rtnl::Message;

// The attributes of one level: type to attribute (the last of a type wins).
using Attrs = std::map<uint16_t, const struct nlattr*>;

int collect(const struct nlattr* a, void* data)
{
    (*static_cast<Attrs*>(data))[mnl_attr_get_type(a)] = a;
    return MNL_CB_OK;
}

struct Read {
    const struct nlmsghdr* nlh = nullptr;
    const struct ifinfomsg* ifm = nullptr;
    Attrs top;
};

// The message is one whole netlink message of a link header and attributes
// that fill it exactly.
Read readLink(const Message& m)
{
    Read r;
    r.nlh = reinterpret_cast<const struct nlmsghdr*>(m.data());
    EXPECT_TRUE(mnl_nlmsg_ok(r.nlh, (int)m.size()));
    EXPECT_EQ(r.nlh->nlmsg_len, m.size());
    EXPECT_TRUE(r.nlh->nlmsg_flags & NLM_F_REQUEST);
    EXPECT_TRUE(r.nlh->nlmsg_flags & NLM_F_ACK) << "every change is acknowledged, so a refusal is seen";
    r.ifm = static_cast<const struct ifinfomsg*>(mnl_nlmsg_get_payload(r.nlh));
    EXPECT_EQ(mnl_attr_parse(r.nlh, sizeof *r.ifm, collect, &r.top), MNL_CB_OK);
    return r;
}

Attrs nested(const struct nlattr* a)
{
    Attrs t;
    EXPECT_NE(a, nullptr);
    if (a) {
        EXPECT_EQ(mnl_attr_parse_nested(a, collect, &t), MNL_CB_OK);
    }
    return t;
}

TEST(HostPair, VethPairIsMadeDownAsAMemberWithItsOwnHighMac)
{
    Message m = live::rtnl::vethMessage("dhcpsnoop-br", "dhcpsnoop-tx", 7);
    Read r = readLink(m);
    EXPECT_EQ(r.nlh->nlmsg_type, RTM_NEWLINK);
    EXPECT_TRUE(r.nlh->nlmsg_flags & NLM_F_CREATE);
    EXPECT_TRUE(r.nlh->nlmsg_flags & NLM_F_EXCL) << "never takes over someone's link";
    EXPECT_EQ(r.ifm->ifi_flags & IFF_UP, 0u);
    ASSERT_TRUE(r.top.count(IFLA_IFNAME));
    EXPECT_STREQ(mnl_attr_get_str(r.top[IFLA_IFNAME]), "dhcpsnoop-br");
    ASSERT_TRUE(r.top.count(IFLA_MASTER));
    EXPECT_EQ(mnl_attr_get_u32(r.top[IFLA_MASTER]), 7u);
    ASSERT_TRUE(r.top.count(IFLA_ADDRESS));
    ASSERT_EQ(mnl_attr_get_payload_len(r.top[IFLA_ADDRESS]), 6u);
    EXPECT_EQ(memcmp(mnl_attr_get_payload(r.top[IFLA_ADDRESS]), live::rtnl::kHostBridgeEndMac, 6), 0);
    // Unicast, locally administered, above any MAC a NIC or libvirt's taps
    // (fe:54:...) bring: the bridge never takes it for its own.
    EXPECT_EQ(live::rtnl::kHostBridgeEndMac[0] & 1, 0);
    EXPECT_EQ(live::rtnl::kHostBridgeEndMac[0] & 2, 2);
    EXPECT_EQ(live::rtnl::kHostBridgeEndMac[1], 0xff);

    Attrs info = nested(r.top[IFLA_LINKINFO]);
    ASSERT_TRUE(info.count(IFLA_INFO_KIND));
    EXPECT_STREQ(mnl_attr_get_str(info[IFLA_INFO_KIND]), "veth");
    Attrs data = nested(info[IFLA_INFO_DATA]);
    ASSERT_TRUE(data.count(VETH_INFO_PEER));
    // The peer: a link header, then its attributes.
    const struct nlattr* peer = data[VETH_INFO_PEER];
    ASSERT_GE(mnl_attr_get_payload_len(peer), sizeof(struct ifinfomsg));
    const char* p = static_cast<const char*>(mnl_attr_get_payload(peer)) + MNL_ALIGN(sizeof(struct ifinfomsg));
    int left = (int)(mnl_attr_get_payload_len(peer) - MNL_ALIGN(sizeof(struct ifinfomsg)));
    std::string peerName;
    for (const struct nlattr* a = reinterpret_cast<const struct nlattr*>(p); mnl_attr_ok(a, left);
         left -= (int)MNL_ALIGN(a->nla_len), a = static_cast<const struct nlattr*>(mnl_attr_next(a))) {
        if (mnl_attr_get_type(a) == IFLA_IFNAME)
            peerName = mnl_attr_get_str(a);
    }
    EXPECT_EQ(peerName, "dhcpsnoop-tx");
}

TEST(HostPair, TheBridgePortLearnsNothingAndIsFloodedNothing)
{
    Message rMsg = live::rtnl::quietPortMessage(12);
    Read r = readLink(rMsg);
    EXPECT_EQ(r.nlh->nlmsg_type, RTM_SETLINK);
    EXPECT_EQ(r.ifm->ifi_family, AF_BRIDGE);
    EXPECT_EQ(r.ifm->ifi_index, 12);
    Attrs port = nested(r.top[IFLA_PROTINFO]);
    for (uint16_t flag : {IFLA_BRPORT_LEARNING, IFLA_BRPORT_UNICAST_FLOOD, IFLA_BRPORT_MCAST_FLOOD,
                          IFLA_BRPORT_BCAST_FLOOD}) {
        ASSERT_TRUE(port.count(flag)) << "attribute " << flag;
        EXPECT_EQ(mnl_attr_get_u8(port[flag]), 0) << "attribute " << flag;
    }
    EXPECT_EQ(port.size(), 4u);
}

TEST(HostPair, NoIpv6AddressUpAndDelete)
{
    Message v6Msg = live::rtnl::noIpv6AddressMessage(5);
    Read v6 = readLink(v6Msg);
    EXPECT_EQ(v6.ifm->ifi_index, 5);
    Attrs spec = nested(v6.top[IFLA_AF_SPEC]);
    Attrs inet6 = nested(spec[AF_INET6]);
    ASSERT_TRUE(inet6.count(IFLA_INET6_ADDR_GEN_MODE));
    EXPECT_EQ(mnl_attr_get_u8(inet6[IFLA_INET6_ADDR_GEN_MODE]), IN6_ADDR_GEN_MODE_NONE);

    Message upMsg = live::rtnl::upMessage(5);
    Read up = readLink(upMsg);
    EXPECT_EQ(up.nlh->nlmsg_type, RTM_SETLINK);
    EXPECT_EQ(up.ifm->ifi_flags, (unsigned)IFF_UP);
    EXPECT_EQ(up.ifm->ifi_change, (unsigned)IFF_UP) << "no other flag is touched";

    Message delMsg = live::rtnl::deleteMessage("dhcpsnoop-br");
    Read del = readLink(delMsg);
    EXPECT_EQ(del.nlh->nlmsg_type, RTM_DELLINK);
    EXPECT_EQ(del.ifm->ifi_index, 0);
    ASSERT_TRUE(del.top.count(IFLA_IFNAME));
    EXPECT_STREQ(mnl_attr_get_str(del.top[IFLA_IFNAME]), "dhcpsnoop-br");
}

TEST(HostPair, PortVlans)
{
    Message addMsg = live::rtnl::portVlanMessage(9, 10, true, true);
    Read add = readLink(addMsg);
    EXPECT_EQ(add.nlh->nlmsg_type, RTM_SETLINK);
    EXPECT_EQ(add.ifm->ifi_family, AF_BRIDGE);
    Attrs spec = nested(add.top[IFLA_AF_SPEC]);
    ASSERT_TRUE(spec.count(IFLA_BRIDGE_VLAN_INFO));
    ASSERT_EQ(mnl_attr_get_payload_len(spec[IFLA_BRIDGE_VLAN_INFO]), sizeof(struct bridge_vlan_info));
    struct bridge_vlan_info vi;
    memcpy(&vi, mnl_attr_get_payload(spec[IFLA_BRIDGE_VLAN_INFO]), sizeof vi);
    EXPECT_EQ(vi.vid, 10);
    EXPECT_EQ(vi.flags, BRIDGE_VLAN_INFO_PVID | BRIDGE_VLAN_INFO_UNTAGGED);

    Message delMsg = live::rtnl::portVlanMessage(9, 1, false, false);
    Read del = readLink(delMsg);
    EXPECT_EQ(del.nlh->nlmsg_type, RTM_DELLINK);
    spec = nested(del.top[IFLA_AF_SPEC]);
    memcpy(&vi, mnl_attr_get_payload(spec[IFLA_BRIDGE_VLAN_INFO]), sizeof vi);
    EXPECT_EQ(vi.vid, 1);
    EXPECT_EQ(vi.flags, 0);
}

}  // namespace

#else

TEST(HostPair, NeedsTheBridgeDataPlane) { GTEST_SKIP() << "built without libnftables and libmnl"; }

#endif
