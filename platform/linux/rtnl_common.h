// What the rtnetlink pieces share (libmnl): a socket, a request and its
// answers, a message's attributes by type. Native builds only.
#pragma once

#include <libmnl/libmnl.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace live {
namespace rtnl {

// A route netlink socket, closed with it.
struct Socket {
    struct mnl_socket* nl = nullptr;
    uint32_t portid = 0;
    Socket() = default;
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket();
    // groups: the multicast groups to hear (a mask, 0: none).
    bool open(unsigned groups, std::string& error);
};

// Room for every request here: a family header and a few attributes.
constexpr size_t kRequestRoom = 512;

// A request being built: the netlink header, then the family's own (Family:
// ifinfomsg, ndmsg), all else zero; attributes go after them.
template <typename Family>
struct Request {
    alignas(struct nlmsghdr) uint8_t buf[kRequestRoom];
    struct nlmsghdr* nlh;
    Family* hdr;

    Request(uint16_t type, uint16_t flags)
    {
        memset(buf, 0, sizeof buf);
        nlh = mnl_nlmsg_put_header(buf);
        nlh->nlmsg_type = type;
        nlh->nlmsg_flags = flags;
        hdr = static_cast<Family*>(mnl_nlmsg_put_extra_header(nlh, sizeof(Family)));
    }
};

// Sends one request (its sequence number is set here) and runs cb, when
// there is one, on every answer until the dump's end or the acknowledgement.
// False with error on a netlink error; when the answer was the error (the
// kernel refused), *refused is its errno, else 0.
bool request(Socket& s, struct nlmsghdr* nlh, mnl_cb_t cb, void* data, std::string& error,
             int* refused = nullptr);
// The same on a socket of its own for this one request.
bool request(struct nlmsghdr* nlh, mnl_cb_t cb, void* data, std::string& error, int* refused = nullptr);

// Attributes by type, up to max (a later one of a type wins, a type above
// max is passed over); null where there is none.
using Attrs = std::vector<const struct nlattr*>;
// Those of a message, after its family header of familyLen bytes.
Attrs attributes(const struct nlmsghdr* nlh, size_t familyLen, uint16_t max);
// Those of a nest.
Attrs nestedAttributes(const struct nlattr* nest, uint16_t max);

}  // namespace rtnl
}  // namespace live
