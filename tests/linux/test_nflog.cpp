// The bridge data plane's trap through nfnetlink_log, without a socket: the
// logged frames read from built messages, every cut and lie of a message
// read in bounds, the configuration requests, and the UDP checksum a local
// stack leaves to its device.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_log.h>
#include <linux/netlink.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include "platform/linux/nflog.h"
#include "support/frame_builder.h"

namespace {

using fb::Bytes;
namespace nflog = live::nflog;

// (resize and copy: GCC 12's array-bounds check misreads vector::insert at -O3)
void append(Bytes& to, const Bytes& from)
{
    size_t at = to.size();
    to.resize(at + from.size());
    if (!from.empty())
        memcpy(to.data() + at, from.data(), from.size());
}

// A netlink message as the kernel writes it: header, nfgenmsg, attributes.
struct Message {
    uint16_t type = (uint16_t)((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET);
    Bytes attrs;

    Message& attr(uint16_t t, const Bytes& v)
    {
        uint16_t len = (uint16_t)(NLA_HDRLEN + v.size());
        Bytes a(NLA_HDRLEN);
        memcpy(a.data(), &len, 2);
        memcpy(a.data() + 2, &t, 2);
        append(a, v);
        a.resize(NLA_ALIGN(a.size()), 0);
        append(attrs, a);
        return *this;
    }
    Message& u32(uint16_t t, uint32_t v)
    {
        uint32_t be = htonl(v);
        return attr(t, Bytes((uint8_t*)&be, (uint8_t*)&be + 4));
    }
    Message& vlan(uint16_t tci)
    {
        Message inner;
        uint16_t proto = htons(0x8100), be = htons(tci);
        inner.attr(NFULA_VLAN_PROTO, Bytes((uint8_t*)&proto, (uint8_t*)&proto + 2));
        inner.attr(NFULA_VLAN_TCI, Bytes((uint8_t*)&be, (uint8_t*)&be + 2));
        return attr(NFULA_VLAN | NLA_F_NESTED, inner.attrs);
    }
    // The frame as the log gives it: its link header, then the rest.
    Message& frame(const Bytes& f, size_t l2 = 14)
    {
        attr(NFULA_L2HDR, Bytes(f.begin(), f.begin() + (long)l2));
        return attr(NFULA_PAYLOAD, Bytes(f.begin() + (long)l2, f.end()));
    }
    Bytes build() const
    {
        Bytes m(NLMSG_HDRLEN + NLMSG_ALIGN(sizeof(struct nfgenmsg)), 0);
        append(m, attrs);
        struct nlmsghdr h;
        memset(&h, 0, sizeof h);
        h.nlmsg_len = (uint32_t)m.size();
        h.nlmsg_type = type;
        memcpy(m.data(), &h, sizeof h);
        m[NLMSG_HDRLEN] = AF_BRIDGE;
        return m;
    }
};

struct Seen {
    std::vector<nflog::Packet> packets;
    std::vector<Bytes> frames;
};

void collect(const nflog::Packet& p, void* arg)
{
    Seen& s = *static_cast<Seen*>(arg);
    s.packets.push_back(p);
    uint8_t buf[2048];
    size_t n = nflog::frameOf(p, buf, sizeof buf);
    s.frames.push_back(Bytes(buf, buf + n));
}

size_t parse(const Bytes& d, Seen& s) { return nflog::parse(d.data(), d.size(), collect, &s); }

TEST(Nflog, ALoggedFrameIsTheFrameWholeWithItsPortTagAndNumber)
{
    Bytes f = fb::Frame().build();
    Bytes d = Message().u32(NFULA_IFINDEX_INDEV, 7).u32(NFULA_SEQ, 41).vlan(0x2000 | 10).frame(f).build();
    Seen s;
    EXPECT_EQ(parse(d, s), 0u);
    ASSERT_EQ(s.packets.size(), 1u);
    EXPECT_EQ(s.packets[0].indev, 7u);
    EXPECT_EQ(s.packets[0].outdev, 0u);
    EXPECT_TRUE(s.packets[0].hasSeq);
    EXPECT_EQ(s.packets[0].seq, 41u);
    EXPECT_EQ(s.packets[0].tci, 0x2000 | 10);
    EXPECT_EQ(s.frames[0], f);
}

TEST(Nflog, UntaggedAndWithoutNumbers)
{
    Bytes f = fb::Frame().snap().build();
    Seen s;
    EXPECT_EQ(parse(Message().u32(NFULA_IFINDEX_INDEV, 3).frame(f).build(), s), 0u);
    ASSERT_EQ(s.packets.size(), 1u);
    EXPECT_EQ(s.packets[0].tci, -1);
    EXPECT_FALSE(s.packets[0].hasSeq);
    EXPECT_EQ(s.frames[0], f) << "802.3 with SNAP: length, then LLC in the payload";
}

TEST(Nflog, SeveralMessagesInOneDatagramOthersPassedOver)
{
    Bytes a = fb::Frame().xid(1).build(), b = fb::Frame().xid(2).build();
    Bytes d = Message().u32(NFULA_SEQ, 1).frame(a).build();
    Message done;
    done.type = NLMSG_DONE;
    Bytes dd = done.build();
    append(d, dd);
    Bytes m2 = Message().u32(NFULA_SEQ, 2).frame(b).build();
    append(d, m2);
    Seen s;
    EXPECT_EQ(parse(d, s), 0u);
    ASSERT_EQ(s.frames.size(), 2u);
    EXPECT_EQ(s.frames[0], a);
    EXPECT_EQ(s.frames[1], b);
}

TEST(Nflog, LiesAndCutsAreReadInBounds)
{
    Bytes f = fb::Frame().build();
    Bytes good = Message().u32(NFULA_IFINDEX_INDEV, 7).u32(NFULA_SEQ, 1).vlan(10).frame(f).build();
    const struct {
        const char* what;
        Bytes data;
        size_t bad;
    } cases[] = {
        {"message longer than the datagram",
         [&] {
             Bytes d = good;
             uint32_t len = (uint32_t)d.size() + 4;
             memcpy(d.data(), &len, 4);
             return d;
         }(),
         1},
        {"message shorter than its header",
         [&] {
             Bytes d = good;
             uint32_t len = 8;
             memcpy(d.data(), &len, 4);
             return d;
         }(),
         1},
        {"attribute longer than the message",
         [&] {
             Bytes d = good;
             uint16_t len = 0xFFF0;
             memcpy(d.data() + NLMSG_HDRLEN + 4, &len, 2);
             return d;
         }(),
         1},
        {"attribute shorter than its header",
         [&] {
             Bytes d = good;
             uint16_t len = 2;
             memcpy(d.data() + NLMSG_HDRLEN + 4, &len, 2);
             return d;
         }(),
         1},
        {"sequence number of two bytes", Message().attr(NFULA_SEQ, Bytes{0, 1}).frame(f).build(), 1},
        {"interface of two bytes", Message().attr(NFULA_IFINDEX_INDEV, Bytes{0, 1}).frame(f).build(), 1},
        {"VLAN nest with a lying attribute", Message().attr(NFULA_VLAN | NLA_F_NESTED, Bytes{40, 0, 2, 0}).frame(f).build(),
         1},
        {"no family header", Bytes(good.begin(), good.begin() + NLMSG_HDRLEN), 0},
    };
    for (const auto& c : cases) {
        Seen s;
        Bytes d = c.data;
        if (c.what == std::string("no family header")) {
            uint32_t len = NLMSG_HDRLEN;
            memcpy(d.data(), &len, 4);
            EXPECT_EQ(parse(d, s), 1u) << c.what;
        } else {
            EXPECT_EQ(parse(d, s), c.bad) << c.what;
        }
        EXPECT_TRUE(s.packets.empty()) << c.what;
    }
    // Every cut of a good message: nothing read past the cut (the sanitizer
    // sees each cut in a buffer of its own), nothing taken but whole frames.
    for (size_t len = 0; len < good.size(); ++len) {
        Bytes cut(good.begin(), good.begin() + (long)len);
        Seen s;
        parse(cut, s);
        for (const Bytes& fr : s.frames)
            EXPECT_TRUE(fr.empty() || fr == f) << "cut at " << len;
    }
}

TEST(Nflog, AFrameMustFitAndHaveItsLinkHeader)
{
    Bytes f = fb::Frame().build();
    nflog::Packet p;
    uint8_t buf[2048];
    EXPECT_EQ(nflog::frameOf(p, buf, sizeof buf), 0u) << "nothing logged";
    p.payload = f.data() + 14;
    p.payloadLen = f.size() - 14;
    EXPECT_EQ(nflog::frameOf(p, buf, sizeof buf), 0u) << "no link header";
    p.l2 = f.data();
    p.l2Len = 14;
    EXPECT_EQ(nflog::frameOf(p, buf, sizeof buf), f.size());
    EXPECT_EQ(nflog::frameOf(p, buf, f.size() - 1), 0u) << "one byte too long for the room";
    EXPECT_EQ(nflog::frameOf(p, buf, 10), 0u) << "not even the link header fits";
}

TEST(Nflog, TheRequestsBindTheGroupAndAskForWholeFramesAtOnce)
{
    uint8_t buf[nflog::kRequestRoom];
    size_t n = nflog::bindRequest(buf, 0xD503, 9);
    struct nlmsghdr h;
    memcpy(&h, buf, sizeof h);
    EXPECT_EQ(h.nlmsg_len, n);
    EXPECT_EQ(h.nlmsg_type, (NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_CONFIG);
    EXPECT_EQ(h.nlmsg_flags, NLM_F_REQUEST | NLM_F_ACK);
    EXPECT_EQ(h.nlmsg_seq, 9u);
    EXPECT_EQ(buf[NLMSG_HDRLEN + 2], 0xD5) << "group in network order";
    EXPECT_EQ(buf[NLMSG_HDRLEN + 3], 0x03);
    const uint8_t* a = buf + NLMSG_HDRLEN + 4;
    uint16_t alen, atype;
    memcpy(&alen, a, 2);
    memcpy(&atype, a + 2, 2);
    EXPECT_EQ(atype, NFULA_CFG_CMD);
    EXPECT_EQ(alen, NLA_HDRLEN + 1);
    EXPECT_EQ(a[4], NFULNL_CFG_CMD_BIND);

    n = nflog::modeRequest(buf, 0xD503, 1600, 10);
    memcpy(&h, buf, sizeof h);
    EXPECT_EQ(h.nlmsg_len, n);
    std::map<uint16_t, Bytes> attrs;
    for (size_t at = NLMSG_HDRLEN + 4; at + 4 <= n;) {
        memcpy(&alen, buf + at, 2);
        memcpy(&atype, buf + at + 2, 2);
        ASSERT_GE(alen, 4);
        attrs[atype] = Bytes(buf + at + 4, buf + at + alen);
        at += NLA_ALIGN(alen);
    }
    ASSERT_EQ(attrs.count(NFULA_CFG_MODE), 1u);
    EXPECT_EQ(attrs[NFULA_CFG_MODE][0] << 24 | attrs[NFULA_CFG_MODE][1] << 16 | attrs[NFULA_CFG_MODE][2] << 8 |
                  attrs[NFULA_CFG_MODE][3],
              1600);
    EXPECT_EQ(attrs[NFULA_CFG_MODE][4], NFULNL_COPY_PACKET);
    EXPECT_EQ(attrs[NFULA_CFG_QTHRESH], (Bytes{0, 0, 0, 1})) << "no frame waits for others";
    EXPECT_EQ(attrs[NFULA_CFG_FLAGS], (Bytes{0, NFULNL_CFG_F_SEQ})) << "numbered, so losses show";
}

// The checksum field holding only the sum of the addresses, as a local
// stack leaves it for its device.
Bytes offloaded(const Bytes& f, size_t ip)
{
    Bytes o = f;
    size_t l4 = ip + (size_t)(f[ip] & 0x0F) * 4;
    uint32_t sum = 17u + (uint32_t)(((f[ip + 2] << 8) | f[ip + 3]) - (f[ip] & 0x0F) * 4);
    for (size_t i = 0; i < 8; i += 2)
        sum += (uint32_t)(f[ip + 12 + i] << 8 | f[ip + 13 + i]);
    while (sum >> 16)
        sum = (sum & 0xFFFF) + (sum >> 16);
    o[l4 + 6] = (uint8_t)(sum >> 8);
    o[l4 + 7] = (uint8_t)sum;
    return o;
}

TEST(Nflog, AnOffloadedChecksumIsCompletedARightOneLeftAlone)
{
    fb::Frame reply = fb::Frame().srcPort(67).dstPort(68).srcIp(0xC6120001).dstIp(0xC61201AC).op(2);
    for (bool tagged : {false, true}) {
        fb::Frame fr = reply;
        if (tagged)
            fr.vlan(10);
        Bytes right = fr.build();
        Bytes f = offloaded(right, tagged ? 18 : 14);
        ASSERT_NE(f, right);
        EXPECT_TRUE(nflog::completePartialUdpChecksum(f.data(), f.size())) << tagged;
        EXPECT_EQ(f, right) << tagged;
        EXPECT_FALSE(nflog::completePartialUdpChecksum(f.data(), f.size())) << "a right one stays";
        EXPECT_EQ(f, right);
    }
    // A wrong checksum that is not the addresses' sum is the module's to see.
    Bytes wrong = reply.udpChecksum(0x1234).build();
    Bytes kept = wrong;
    EXPECT_FALSE(nflog::completePartialUdpChecksum(wrong.data(), wrong.size()));
    EXPECT_EQ(wrong, kept);
    // Fragments, other protocols and cut frames are not touched.
    Bytes whole = offloaded(fb::Frame().build(), 14);
    for (Bytes f : {offloaded(fb::Frame().fragment(0x2000).build(), 14), offloaded(fb::Frame().protocol(6).build(), 14),
                    Bytes(whole.begin(), whole.begin() + 40)}) {
        Bytes before = f;
        EXPECT_FALSE(nflog::completePartialUdpChecksum(f.data(), f.size()));
        EXPECT_EQ(f, before);
    }
    // Whatever the field holds, the whole computation gives the right one.
    Bytes any = fb::Frame().udpChecksum(0x5555).build();
    nflog::completeUdpChecksum(any.data(), any.size());
    EXPECT_EQ(any, fb::Frame().build());
}

TEST(Nflog, AGapInTheNumbersIsWhatTheKernelCouldNotQueue)
{
    nflog::Sequence seq;
    nflog::Packet p;
    EXPECT_EQ(seq.lost(p), 0u) << "unnumbered";
    p.hasSeq = true;
    p.seq = 100;
    EXPECT_EQ(seq.lost(p), 0u) << "the first says nothing of before";
    p.seq = 101;
    EXPECT_EQ(seq.lost(p), 0u);
    p.seq = 105;
    EXPECT_EQ(seq.lost(p), 3u);
    p.seq = 0xFFFFFFFF;
    seq.next = 0xFFFFFFFF;
    EXPECT_EQ(seq.lost(p), 0u);
    p.seq = 1;
    EXPECT_EQ(seq.lost(p), 1u) << "across the wrap: 0 was lost";
}

TEST(Nflog, GroupsArePerPort)
{
    EXPECT_EQ(nflog::groupOf(0), nflog::kGroupBase);
    EXPECT_EQ(nflog::groupOf(47), nflog::kGroupBase + 47);
}

}  // namespace

namespace {

// A netlink message of type and sequence number, with an nlmsgerr of
// errorCode when the type is NLMSG_ERROR.
std::vector<uint8_t> netlinkMessage(uint16_t type, uint32_t seq, int errorCode)
{
    size_t len = NLMSG_LENGTH(type == NLMSG_ERROR ? sizeof(struct nlmsgerr) : 8);
    std::vector<uint8_t> m(NLMSG_ALIGN(len), 0);
    struct nlmsghdr h;
    memset(&h, 0, sizeof h);
    h.nlmsg_len = (uint32_t)len;
    h.nlmsg_type = type;
    h.nlmsg_seq = seq;
    memcpy(m.data(), &h, sizeof h);
    if (type == NLMSG_ERROR) {
        struct nlmsgerr e;
        memset(&e, 0, sizeof e);
        e.error = errorCode;
        memcpy(m.data() + NLMSG_HDRLEN, &e, sizeof e);
    }
    return m;
}

struct Pair {
    int fd[2] = {-1, -1};
    Pair() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fd), 0); }
    ~Pair()
    {
        close(fd[0]);
        close(fd[1]);
    }
    void send(const std::vector<uint8_t>& m) { ASSERT_EQ(::send(fd[1], m.data(), m.size(), 0), (ssize_t)m.size()); }
};

}  // namespace

// The acknowledgement of a request: found behind other messages, a refusal
// named, and a kernel that says nothing does not hold the start-up forever.
TEST(Nflog, TheAcknowledgementIsAwaitedForALimitedTime)
{
    std::string error;
    {
        Pair p;
        p.send(netlinkMessage((NFNL_SUBSYS_ULOG << 8) | NFULNL_MSG_PACKET, 0, 0));
        p.send(netlinkMessage(NLMSG_ERROR, 6, 0));  // another request's
        p.send(netlinkMessage(NLMSG_ERROR, 7, 0));
        EXPECT_TRUE(nflog::awaitAck(p.fd[0], 7, 1000, "group 1 bind", error)) << error;
    }
    {
        Pair p;
        p.send(netlinkMessage(NLMSG_ERROR, 7, -EPERM));
        EXPECT_FALSE(nflog::awaitAck(p.fd[0], 7, 1000, "group 1 bind", error));
        EXPECT_EQ(error, std::string("nfnetlink_log group 1 bind: ") + strerror(EPERM));
    }
    {
        Pair p;
        p.send(netlinkMessage(NLMSG_ERROR, 6, 0));
        auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(nflog::awaitAck(p.fd[0], 7, 50, "group 1 mode", error));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
        EXPECT_EQ(error, "nfnetlink_log group 1 mode: no answer from the kernel in 50 ms");
    }
}
