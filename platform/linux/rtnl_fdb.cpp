// The kernel bridge over rtnetlink with libmnl (see rtnl_fdb.h).
#include "platform/linux/rtnl_fdb.h"
#include "platform/linux/rtnl_common.h"

#include <libmnl/libmnl.h>
#include <linux/if_bridge.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

namespace live {
namespace rtnl {
namespace {

struct LinkQuery {
    Link* out;
};

int linkCb(const struct nlmsghdr* nlh, void* data)
{
    Link& l = *static_cast<LinkQuery*>(data)->out;
    const struct ifinfomsg* ifm = static_cast<const struct ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    Attrs tb = attributes(nlh, sizeof *ifm, IFLA_MAX);
    l.ifindex = ifm->ifi_index;
    if (tb[IFLA_IFNAME])
        l.name = mnl_attr_get_str(tb[IFLA_IFNAME]);
    if (tb[IFLA_MASTER])
        l.master = (int)mnl_attr_get_u32(tb[IFLA_MASTER]);
    if (tb[IFLA_LINKINFO]) {
        Attrs info = nestedAttributes(tb[IFLA_LINKINFO], IFLA_INFO_MAX);
        if (info[IFLA_INFO_KIND] && strcmp(mnl_attr_get_str(info[IFLA_INFO_KIND]), "bridge") == 0)
            l.isBridge = true;
        if (l.isBridge && info[IFLA_INFO_DATA]) {
            Attrs br = nestedAttributes(info[IFLA_INFO_DATA], IFLA_BR_MAX);
            if (br[IFLA_BR_VLAN_FILTERING])
                l.vlanFiltering = mnl_attr_get_u8(br[IFLA_BR_VLAN_FILTERING]) != 0;
        }
    }
    return MNL_CB_OK;
}

struct VlanQuery {
    int ifindex;
    PortVlans* out;
    bool found = false;
};

int vlanCb(const struct nlmsghdr* nlh, void* data)
{
    VlanQuery& q = *static_cast<VlanQuery*>(data);
    const struct ifinfomsg* ifm = static_cast<const struct ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    if (ifm->ifi_index != q.ifindex)
        return MNL_CB_OK;
    Attrs tb = attributes(nlh, sizeof *ifm, IFLA_MAX);
    if (!tb[IFLA_AF_SPEC])
        return MNL_CB_OK;
    q.found = true;
    const struct nlattr* nest = tb[IFLA_AF_SPEC];
    for (const struct nlattr* a = static_cast<const struct nlattr*>(mnl_attr_get_payload(nest));
         mnl_attr_ok(a, (int)((const char*)mnl_attr_get_payload(nest) + mnl_attr_get_payload_len(nest) - (const char*)a));
         a = static_cast<const struct nlattr*>(mnl_attr_next(a))) {
        if (mnl_attr_get_type(a) != IFLA_BRIDGE_VLAN_INFO ||
            mnl_attr_get_payload_len(a) < sizeof(struct bridge_vlan_info))
            continue;
        struct bridge_vlan_info vi;
        memcpy(&vi, mnl_attr_get_payload(a), sizeof vi);
        if (vi.flags & BRIDGE_VLAN_INFO_PVID)
            q.out->pvid = vi.vid;
        if (vi.flags & BRIDGE_VLAN_INFO_UNTAGGED)
            q.out->untagged.push_back(vi.vid);
        else
            q.out->tagged.push_back(vi.vid);
    }
    return MNL_CB_OK;
}

uint64_t key(const uint8_t mac[6], uint16_t vid)
{
    uint64_t k = vid;
    for (int i = 0; i < 6; ++i)
        k = (k << 8) | mac[i];
    return k;
}

// One neighbour message of the bridge: its MAC, VLAN and the port behind it.
// Local entries (the bridge's and its ports' own addresses) are the host's:
// they name the bridge device.
bool parseNeigh(const struct nlmsghdr* nlh, int bridge, uint64_t* k, int* ifindex)
{
    if (nlh->nlmsg_len < mnl_nlmsg_size(sizeof(struct ndmsg)))
        return false;
    const struct ndmsg* ndm = static_cast<const struct ndmsg*>(mnl_nlmsg_get_payload(nlh));
    if (ndm->ndm_family != AF_BRIDGE)
        return false;
    Attrs tb = attributes(nlh, sizeof *ndm, NDA_MAX);
    if (!tb[NDA_LLADDR] || mnl_attr_get_payload_len(tb[NDA_LLADDR]) != 6)
        return false;
    // Entries of the bridge carry it as master; a device's own list does not.
    if (!tb[NDA_MASTER] || (int)mnl_attr_get_u32(tb[NDA_MASTER]) != bridge)
        return false;
    uint16_t vid = 0;
    if (tb[NDA_VLAN] && mnl_attr_get_payload_len(tb[NDA_VLAN]) >= 2)
        vid = mnl_attr_get_u16(tb[NDA_VLAN]);
    *k = key(static_cast<const uint8_t*>(mnl_attr_get_payload(tb[NDA_LLADDR])), vid);
    *ifindex = (ndm->ndm_state & NUD_PERMANENT) ? bridge : ndm->ndm_ifindex;
    return true;
}

struct FdbAnswer {
    int bridge;
    int ifindex = 0;
    bool found = false;
};

int fdbGetCb(const struct nlmsghdr* nlh, void* data)
{
    FdbAnswer& a = *static_cast<FdbAnswer*>(data);
    uint64_t k;
    int ifindex;
    if (nlh->nlmsg_type == RTM_NEWNEIGH && parseNeigh(nlh, a.bridge, &k, &ifindex)) {
        a.found = true;
        a.ifindex = ifindex;
    }
    return MNL_CB_OK;
}

}  // namespace

bool getLink(const std::string& name, Link& out, std::string& error)
{
    out = Link();
    unsigned idx = if_nametoindex(name.c_str());
    if (idx == 0) {
        error = "interface " + name + ": " + strerror(errno);
        return false;
    }
    Request<struct ifinfomsg> r(RTM_GETLINK, NLM_F_REQUEST | NLM_F_ACK);
    r.hdr->ifi_family = AF_UNSPEC;
    r.hdr->ifi_index = (int)idx;
    LinkQuery q{&out};
    if (!request(r.nlh, linkCb, &q, error)) {
        error = "interface " + name + ": " + error;
        return false;
    }
    if (out.ifindex != (int)idx) {
        error = "interface " + name + ": no answer from rtnetlink";
        return false;
    }
    return true;
}

bool getPortVlans(int ifindex, PortVlans& out, std::string& error)
{
    out = PortVlans();
    Request<struct ifinfomsg> r(RTM_GETLINK, NLM_F_REQUEST | NLM_F_DUMP);
    r.hdr->ifi_family = AF_BRIDGE;
    mnl_attr_put_u32(r.nlh, IFLA_EXT_MASK, RTEXT_FILTER_BRVLAN);
    VlanQuery q{ifindex, &out};
    return request(r.nlh, vlanCb, &q, error);
}

bool queryFdb(int bridge, const uint8_t mac[6], uint16_t vid, int* portIfindex)
{
    // One socket per thread: look-ups come from the module's tasks.
    thread_local Socket s;
    std::string error;
    if (!s.nl && !s.open(0, error))
        return false;
    Request<struct ndmsg> r(RTM_GETNEIGH, NLM_F_REQUEST | NLM_F_ACK);
    r.hdr->ndm_family = AF_BRIDGE;
    mnl_attr_put(r.nlh, NDA_LLADDR, 6, mac);
    mnl_attr_put_u32(r.nlh, NDA_MASTER, (uint32_t)bridge);
    if (vid != 0)
        mnl_attr_put_u16(r.nlh, NDA_VLAN, vid);
    FdbAnswer a{bridge};
    // No entry is an error answer (ENOENT): not found.
    if (!request(s, r.nlh, fdbGetCb, &a, error) || !a.found)
        return false;
    *portIfindex = a.ifindex;
    return true;
}

// ---- the mirror ----

struct FdbMirror::Sock {
    Socket s;
};

FdbMirror::FdbMirror() = default;
FdbMirror::~FdbMirror() { stop(); }

bool FdbMirror::start(int bridge, std::string& error, bool follow)
{
    stop();
    bridge_ = bridge;
    sock_.reset(new Sock);
    // Subscribed before the dump: a change during it is not missed, and
    // applying it again afterwards changes nothing.
    if (!sock_->s.open(1u << (RTNLGRP_NEIGH - 1), error)) {
        sock_.reset();
        return false;
    }
    int size = 4 << 20;
    setsockopt(mnl_socket_get_fd(sock_->s.nl), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    if (!dump(error)) {
        sock_.reset();
        return false;
    }
    stopping_.store(false);
    if (follow && !this->follow(error)) {
        sock_.reset();
        return false;
    }
    return true;
}

bool FdbMirror::follow(std::string& error)
{
    if (!sock_) {
        error = "FDB: not started";
        return false;
    }
    if (thread_.joinable())
        return true;
    try {
        thread_ = std::thread([this] { loop(); });
    } catch (const std::exception& e) {
        error = std::string("FDB thread: ") + e.what();
        return false;
    }
    return true;
}

void FdbMirror::stop()
{
    stopping_.store(true);
    if (thread_.joinable())
        thread_.join();
    sock_.reset();
    std::lock_guard<std::mutex> g(lock_);
    entries_.clear();
}

namespace {
struct DumpState {
    int bridge;
    std::unordered_map<uint64_t, int>* entries;
};
int dumpCb(const struct nlmsghdr* nlh, void* data)
{
    DumpState& d = *static_cast<DumpState*>(data);
    uint64_t k;
    int ifindex;
    if (nlh->nlmsg_type == RTM_NEWNEIGH && parseNeigh(nlh, d.bridge, &k, &ifindex))
        (*d.entries)[k] = ifindex;
    return MNL_CB_OK;
}
}  // namespace

bool FdbMirror::dump(std::string& error)
{
    Request<struct ndmsg> r(RTM_GETNEIGH, NLM_F_REQUEST | NLM_F_DUMP);
    r.hdr->ndm_family = AF_BRIDGE;
    mnl_attr_put_u32(r.nlh, NDA_MASTER, (uint32_t)bridge_);
    std::unordered_map<uint64_t, int> fresh;
    DumpState d{bridge_, &fresh};
    if (!request(r.nlh, dumpCb, &d, error))
        return false;
    std::lock_guard<std::mutex> g(lock_);
    entries_.swap(fresh);
    return true;
}

void FdbMirror::apply(const void* p)
{
    const struct nlmsghdr* nlh = static_cast<const struct nlmsghdr*>(p);
    if (nlh->nlmsg_type != RTM_NEWNEIGH && nlh->nlmsg_type != RTM_DELNEIGH)
        return;
    uint64_t k;
    int ifindex;
    if (!parseNeigh(nlh, bridge_, &k, &ifindex))
        return;
    std::lock_guard<std::mutex> g(lock_);
    if (nlh->nlmsg_type == RTM_NEWNEIGH)
        entries_[k] = ifindex;
    else
        entries_.erase(k);
}

void FdbMirror::loop()
{
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE * 4);
    int fd = mnl_socket_get_fd(sock_->s.nl);
    while (!stopping_.load()) {
        struct pollfd pfd = {fd, POLLIN, 0};
        if (poll(&pfd, 1, 200) <= 0)
            continue;
        ssize_t n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT);
        if (n < 0) {
            if (errno == ENOBUFS) {
                // Notifications were lost: the whole table again.
                std::string error;
                resyncs_.fetch_add(1);
                dump(error);
            }
            continue;
        }
        const struct nlmsghdr* nlh = reinterpret_cast<const struct nlmsghdr*>(buf.data());
        int len = (int)n;
        while (mnl_nlmsg_ok(nlh, len)) {
            apply(nlh);
            nlh = mnl_nlmsg_next(nlh, &len);
        }
    }
}

bool FdbMirror::lookup(const uint8_t mac[6], uint16_t vid, int* portIfindex) const
{
    std::lock_guard<std::mutex> g(lock_);
    auto it = entries_.find(key(mac, vid));
    if (it == entries_.end())
        return false;
    *portIfindex = it->second;
    return true;
}

size_t FdbMirror::size() const
{
    std::lock_guard<std::mutex> g(lock_);
    return entries_.size();
}

}  // namespace rtnl
}  // namespace live
