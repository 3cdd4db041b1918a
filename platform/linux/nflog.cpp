// The bridge data plane's trap through nfnetlink_log (see nflog.h).
#include "platform/linux/nflog.h"

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <linux/capability.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace live {
namespace nflog {
namespace {

constexpr size_t kNlHdr = NLMSG_HDRLEN;                // 16
constexpr size_t kGenHdr = NLMSG_ALIGN(sizeof(struct nfgenmsg));
constexpr size_t kAttrHdr = NLA_HDRLEN;                // 4

uint16_t get16(const uint8_t* p)
{
    uint16_t v;
    memcpy(&v, p, 2);
    return v;
}
uint32_t get32(const uint8_t* p)
{
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

// Walks the attributes in [p, p + len): calls f(type, value, valueLen) for
// each well-formed one; false when one overruns what holds it.
template <typename F>
bool attributes(const uint8_t* p, size_t len, F f)
{
    size_t at = 0;
    while (at + kAttrHdr <= len) {
        uint16_t alen = get16(p + at);
        uint16_t type = get16(p + at + 2) & NLA_TYPE_MASK;
        if (alen < kAttrHdr || alen > len - at)
            return false;
        f(type, p + at + kAttrHdr, (size_t)alen - kAttrHdr);
        at += NLA_ALIGN(alen);
    }
    return true;
}

// One logged frame's message body (after the nfgenmsg); false if malformed.
bool packetOf(const uint8_t* p, size_t len, Packet& out)
{
    bool good = true;
    bool ok = attributes(p, len, [&](uint16_t type, const uint8_t* v, size_t n) {
        switch (type) {
        case NFULA_IFINDEX_INDEV:
            if (n >= 4)
                out.indev = ntohl(get32(v));
            else
                good = false;
            break;
        case NFULA_IFINDEX_OUTDEV:
            if (n >= 4)
                out.outdev = ntohl(get32(v));
            else
                good = false;
            break;
        case NFULA_SEQ:
            if (n >= 4) {
                out.hasSeq = true;
                out.seq = ntohl(get32(v));
            } else {
                good = false;
            }
            break;
        case NFULA_L2HDR:
            out.l2 = v;
            out.l2Len = n;
            break;
        case NFULA_PAYLOAD:
            out.payload = v;
            out.payloadLen = n;
            break;
        case NFULA_VLAN:
            good = attributes(v, n, [&](uint16_t vt, const uint8_t* vv, size_t vn) {
                       if (vt == NFULA_VLAN_TCI && vn >= 2)
                           out.tci = ntohs(get16(vv));
                   }) && good;
            break;
        default:
            break;
        }
    });
    return ok && good;
}

// A request: the netlink and nfnetlink headers for group, then attributes.
struct Writer {
    uint8_t* buf;
    size_t len = 0;
    Writer(uint8_t* b, uint16_t group, uint32_t seq) : buf(b)
    {
        memset(buf, 0, kRequestRoom);
        struct nlmsghdr h;
        memset(&h, 0, sizeof h);
        h.nlmsg_type = (uint16_t)((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG);
        h.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
        h.nlmsg_seq = seq;
        memcpy(buf, &h, sizeof h);
        struct nfgenmsg g;
        memset(&g, 0, sizeof g);
        g.nfgen_family = AF_UNSPEC;
        g.version = NFNETLINK_V0;
        g.res_id = htons(group);
        memcpy(buf + kNlHdr, &g, sizeof g);
        len = kNlHdr + kGenHdr;
    }
    void attr(uint16_t type, const void* v, size_t n)
    {
        uint16_t alen = (uint16_t)(kAttrHdr + n);
        memcpy(buf + len, &alen, 2);
        memcpy(buf + len + 2, &type, 2);
        memcpy(buf + len + kAttrHdr, v, n);
        len += NLA_ALIGN(alen);
    }
    size_t done()
    {
        uint32_t l = (uint32_t)len;
        memcpy(buf, &l, 4);  // nlmsg_len comes first
        return len;
    }
};

}  // namespace

size_t parse(const uint8_t* data, size_t len, Each each, void* arg)
{
    size_t bad = 0, at = 0;
    while (at + kNlHdr <= len) {
        struct nlmsghdr h;
        memcpy(&h, data + at, sizeof h);
        if (h.nlmsg_len < kNlHdr || h.nlmsg_len > len - at) {
            ++bad;  // the rest cannot be framed
            break;
        }
        const uint8_t* body = data + at + kNlHdr;
        size_t bodyLen = h.nlmsg_len - kNlHdr;
        if (h.nlmsg_type == (uint16_t)((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET)) {
            Packet p;
            if (bodyLen >= kGenHdr && packetOf(body + kGenHdr, bodyLen - kGenHdr, p))
                each(p, arg);
            else
                ++bad;
        }
        at += NLMSG_ALIGN(h.nlmsg_len);
    }
    return bad;
}

size_t frameOf(const Packet& p, uint8_t* buf, size_t room)
{
    if (!p.l2 || p.l2Len == 0 || p.l2Len > room || p.payloadLen > room - p.l2Len)
        return 0;
    memcpy(buf, p.l2, p.l2Len);
    if (p.payloadLen)
        memcpy(buf + p.l2Len, p.payload, p.payloadLen);
    return p.l2Len + p.payloadLen;
}

namespace {

uint16_t rd16(const uint8_t* p) { return (uint16_t)(((uint32_t)p[0] << 8) | p[1]); }

struct Udp {
    size_t ip = 0, l4 = 0, l4len = 0;
};

bool udpOf(const uint8_t* f, size_t len, Udp& u)
{
    size_t ip = 14;
    if (len >= 18 && rd16(f + 12) == 0x8100)
        ip = 18;
    if (len < ip + 20 || rd16(f + ip - 2) != 0x0800 || (f[ip] >> 4) != 4 || f[ip + 9] != 17)
        return false;
    size_t ihl = (size_t)(f[ip] & 0x0F) * 4;
    size_t total = rd16(f + ip + 2);
    if (ihl < 20 || total < ihl + 8 || ip + total > len || (rd16(f + ip + 6) & 0x3FFF) != 0)
        return false;
    u.ip = ip;
    u.l4 = ip + ihl;
    u.l4len = total - ihl;
    return true;
}

uint16_t fold(uint32_t sum)
{
    while (sum >> 16)
        sum = (sum & 0xFFFFu) + (sum >> 16);
    return (uint16_t)sum;
}

uint32_t pseudoSum(const uint8_t* f, const Udp& u)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < 8; i += 2)
        sum += rd16(f + u.ip + 12 + i);
    return sum + 17u + (uint32_t)u.l4len;
}

void writeChecksum(uint8_t* f, const Udp& u)
{
    f[u.l4 + 6] = 0;
    f[u.l4 + 7] = 0;
    uint32_t sum = pseudoSum(f, u);
    for (size_t i = 0; i + 1 < u.l4len; i += 2)
        sum += rd16(f + u.l4 + i);
    if (u.l4len & 1u)
        sum += (uint32_t)f[u.l4 + u.l4len - 1] << 8;
    uint16_t c = (uint16_t)~fold(sum);
    if (c == 0)
        c = 0xFFFF;
    f[u.l4 + 6] = (uint8_t)(c >> 8);
    f[u.l4 + 7] = (uint8_t)c;
}

}  // namespace

void completeUdpChecksum(uint8_t* f, size_t len)
{
    Udp u;
    if (udpOf(f, len, u))
        writeChecksum(f, u);
}

bool completePartialUdpChecksum(uint8_t* f, size_t len)
{
    Udp u;
    if (!udpOf(f, len, u) || rd16(f + u.l4 + 6) != fold(pseudoSum(f, u)))
        return false;
    writeChecksum(f, u);
    return true;
}

size_t bindRequest(uint8_t* buf, uint16_t group, uint32_t seq)
{
    Writer w(buf, group, seq);
    struct nfulnl_msg_config_cmd cmd;
    cmd.command = NFULNL_CFG_CMD_BIND;
    w.attr(NFULA_CFG_CMD, &cmd, sizeof cmd);
    return w.done();
}

size_t modeRequest(uint8_t* buf, uint16_t group, uint32_t copyRange, uint32_t seq)
{
    Writer w(buf, group, seq);
    struct nfulnl_msg_config_mode mode;
    memset(&mode, 0, sizeof mode);
    mode.copy_range = htonl(copyRange);
    mode.copy_mode = NFULNL_COPY_PACKET;
    w.attr(NFULA_CFG_MODE, &mode, sizeof mode);
    // Every frame at once: a DHCP exchange must not wait for a batch.
    uint32_t one = htonl(1);
    w.attr(NFULA_CFG_QTHRESH, &one, sizeof one);
    uint16_t flags = htons(NFULNL_CFG_F_SEQ);
    w.attr(NFULA_CFG_FLAGS, &flags, sizeof flags);
    return w.done();
}

namespace {

bool hasNetAdmin()
{
    struct __user_cap_header_struct h;
    struct __user_cap_data_struct d[2];
    memset(&h, 0, sizeof h);
    memset(d, 0, sizeof d);
    h.version = _LINUX_CAPABILITY_VERSION_3;
    if (syscall(SYS_capget, &h, d) != 0)
        return false;
    return (d[CAP_NET_ADMIN / 32].effective & (1u << (CAP_NET_ADMIN % 32))) != 0;
}

// Sends a request and waits for its acknowledgement; false with error.
bool exchange(int s, const uint8_t* req, size_t len, uint32_t seq, const char* what, std::string& error)
{
    struct sockaddr_nl to;
    memset(&to, 0, sizeof to);
    to.nl_family = AF_NETLINK;
    if (sendto(s, req, len, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof to) != (ssize_t)len) {
        error = std::string("nfnetlink_log ") + what + ": " + strerror(errno);
        return false;
    }
    return awaitAck(s, seq, kAckTimeoutMs, what, error);
}

}  // namespace

bool awaitAck(int s, uint32_t seq, int timeoutMs, const std::string& what, std::string& error)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    alignas(struct nlmsghdr) uint8_t buf[1024];
    for (;;) {
        // Rounded up: the wait ends at the deadline, not a millisecond short.
        auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        struct pollfd p = {s, POLLIN, 0};
        int ready = poll(&p, 1, left.count() > 0 ? (int)left.count() : 0);
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready < 0) {
            error = "nfnetlink_log " + what + ": " + strerror(errno);
            return false;
        }
        if (ready == 0) {
            error = "nfnetlink_log " + what + ": no answer from the kernel in " + std::to_string(timeoutMs) + " ms";
            return false;
        }
        ssize_t n = recv(s, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            error = "nfnetlink_log " + what + ": " + strerror(errno);
            return false;
        }
        // Frames logged to the group may come first: passed over.
        for (size_t at = 0; at + kNlHdr <= (size_t)n;) {
            struct nlmsghdr h;
            memcpy(&h, buf + at, sizeof h);
            if (h.nlmsg_len < kNlHdr || h.nlmsg_len > (size_t)n - at)
                break;
            if (h.nlmsg_type == NLMSG_ERROR && h.nlmsg_seq == seq &&
                h.nlmsg_len >= kNlHdr + sizeof(struct nlmsgerr)) {
                struct nlmsgerr e;
                memcpy(&e, buf + at + kNlHdr, sizeof e);
                if (e.error == 0)
                    return true;
                error = "nfnetlink_log " + what + ": " + strerror(-e.error);
                return false;
            }
            at += NLMSG_ALIGN(h.nlmsg_len);
        }
    }
}

int open(uint16_t group, uint32_t copyRange, std::string& error)
{
    int s = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    if (s < 0) {
        error = std::string("nfnetlink_log socket: ") + strerror(errno);
        return -1;
    }
    struct sockaddr_nl me;
    memset(&me, 0, sizeof me);
    me.nl_family = AF_NETLINK;
    if (bind(s, reinterpret_cast<struct sockaddr*>(&me), sizeof me) != 0) {
        error = std::string("nfnetlink_log bind: ") + strerror(errno);
        close(s);
        return -1;
    }
    alignas(struct nlmsghdr) uint8_t req[kRequestRoom];
    std::string g = "group " + std::to_string(group);
    size_t n = bindRequest(req, group, 1);
    if (!exchange(s, req, n, 1, (g + " bind").c_str(), error)) {
        // The kernel refuses both alike: a group another socket holds, and
        // a caller without CAP_NET_ADMIN.
        if (error.find(strerror(EPERM)) != std::string::npos) {
            if (hasNetAdmin())
                error += " (another program, another dhcpsnoopd perhaps, reads this group)";
            else
                error = "reading trapped DHCP from nfnetlink_log needs CAP_NET_ADMIN (run as root)";
        }
        close(s);
        return -1;
    }
    n = modeRequest(req, group, copyRange, 2);
    if (!exchange(s, req, n, 2, (g + " mode").c_str(), error)) {
        close(s);
        return -1;
    }
    return s;
}

}  // namespace nflog
}  // namespace live
