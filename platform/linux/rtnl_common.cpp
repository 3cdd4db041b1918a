// The shared rtnetlink pieces (see rtnl_common.h).
#include "platform/linux/rtnl_common.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>

namespace live {
namespace rtnl {
namespace {

int collect(const struct nlattr* a, void* data)
{
    Attrs& t = *static_cast<Attrs*>(data);
    uint16_t type = mnl_attr_get_type(a);
    if (type < t.size())
        t[type] = a;
    return MNL_CB_OK;
}

}  // namespace

Socket::~Socket()
{
    if (nl)
        mnl_socket_close(nl);
}

bool Socket::open(unsigned groups, std::string& error)
{
    nl = mnl_socket_open(NETLINK_ROUTE);
    if (!nl || mnl_socket_bind(nl, groups, MNL_SOCKET_AUTOPID) < 0) {
        error = std::string("rtnetlink: ") + strerror(errno);
        // Not kept half made: a later open starts again.
        if (nl)
            mnl_socket_close(nl);
        nl = nullptr;
        return false;
    }
    portid = mnl_socket_get_portid(nl);
    return true;
}

bool request(Socket& s, struct nlmsghdr* nlh, mnl_cb_t cb, void* data, std::string& error, int* refused)
{
    if (refused)
        *refused = 0;
    uint32_t seq = nlh->nlmsg_seq = (uint32_t)time(nullptr) ^ (uint32_t)(uintptr_t)nlh;
    if (mnl_socket_sendto(s.nl, nlh, nlh->nlmsg_len) < 0) {
        error = std::string("rtnetlink send: ") + strerror(errno);
        return false;
    }
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE * 4);
    for (;;) {
        ssize_t n = mnl_socket_recvfrom(s.nl, buf.data(), buf.size());
        if (n < 0) {
            error = std::string("rtnetlink receive: ") + strerror(errno);
            return false;
        }
        int r = mnl_cb_run(buf.data(), (size_t)n, seq, s.portid, cb, data);
        if (r == MNL_CB_STOP)
            return true;
        if (r < 0) {
            int err = errno;
            if (refused)
                *refused = err;
            error = std::string("rtnetlink: ") + strerror(err);
            return false;
        }
    }
}

bool request(struct nlmsghdr* nlh, mnl_cb_t cb, void* data, std::string& error, int* refused)
{
    if (refused)
        *refused = 0;
    Socket s;
    if (!s.open(0, error))
        return false;
    return request(s, nlh, cb, data, error, refused);
}

Attrs attributes(const struct nlmsghdr* nlh, size_t familyLen, uint16_t max)
{
    Attrs t((size_t)max + 1, nullptr);
    mnl_attr_parse(nlh, (unsigned)familyLen, collect, &t);
    return t;
}

Attrs nestedAttributes(const struct nlattr* nest, uint16_t max)
{
    Attrs t((size_t)max + 1, nullptr);
    mnl_attr_parse_nested(nest, collect, &t);
    return t;
}

}  // namespace rtnl
}  // namespace live
