// Stack wire images: the 44-byte element image and the 48-byte runtime
// record, big-endian whatever the host.
#include <vector>

#include "snooping/dhcpSnoopWire.h"
#include "support/fixture.h"

namespace {

class WireTest : public SnoopTest {};

DhcpSnoopElement knownElement(DhcpSnoopElement *next, DhcpSnoopElement *prev)
{
    DhcpSnoopElement e;
    memset(&e, 0, sizeof e);
    e.ttl = 0x01020304u;
    e.opt82Pos = 0x0A0B0C0Du;
    e.endOptPos = 0x11121314u;
    e.vlan = 0x0FA1u;
    e.type = 5;
    e.isReuse = 1;
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    memcpy(e.clientMac, mac, 6);
    e.isBroadcast = 1;
    const uint8_t ip[4] = {0xC0, 0xA8, 0x01, 0x02};
    memcpy(e.clientIp, ip, 4);
    const uint8_t xid[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    memcpy(e.xid, xid, 4);
    e.reserved = 0x77;  // never sent: the image's reserved byte is zero
    e.up = 0x01020311u;
    e.next = next;
    e.prev = prev;
    return e;
}

std::vector<uint8_t> low32(const void *p)
{
    uint32_t v = (uint32_t)(uintptr_t)p;
    return {(uint8_t)(v >> 24), (uint8_t)(v >> 16), (uint8_t)(v >> 8), (uint8_t)v};
}

TEST_F(WireTest, ElementImageHasTheExactBigEndianBytes)
{
    DhcpSnoopElement a, b;
    DhcpSnoopElement e = knownElement(&a, &b);
    uint8_t out[DHCP_SNOOP_ELEMENT_IMAGE_SIZE];
    memset(out, 0xAA, sizeof out);
    ASSERT_EQ(dhcpSnoopElementEncode(&e, out), 0u);

    std::vector<uint8_t> expected = {
        0x01, 0x02, 0x03, 0x04,              // ttl
        0x0A, 0x0B, 0x0C, 0x0D,              // opt82Pos
        0x11, 0x12, 0x13, 0x14,              // endOptPos
        0x0F, 0xA1,                          // vlan
        0x05,                                // type
        0x01,                                // isReuse
        0x00, 0x11, 0x22, 0x33, 0x44, 0x55,  // clientMac
        0x01,                                // isBroadcast
        0xC0, 0xA8, 0x01, 0x02,              // clientIp at 23
        0xDE, 0xAD, 0xBE, 0xEF,              // xid at 27
        0x00,                                // reserved
        0x01, 0x02, 0x03, 0x11,              // up at 32
    };
    std::vector<uint8_t> n = low32(&a), p = low32(&b);
    expected.insert(expected.end(), n.begin(), n.end());
    expected.insert(expected.end(), p.begin(), p.end());
    ASSERT_EQ(expected.size(), 44u);
    EXPECT_EQ(std::vector<uint8_t>(out, out + 44), expected);
}

TEST_F(WireTest, RuntimeRecordIsOperationThenImage)
{
    DhcpSnoopElement e = knownElement(nullptr, nullptr);
    uint8_t out[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    memset(out, 0xAA, sizeof out);
    ASSERT_EQ(dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_DELETE, &e, out), 0u);
    EXPECT_EQ(out[0], 0x00);
    EXPECT_EQ(out[1], 0x00);
    EXPECT_EQ(out[2], 0x00);
    EXPECT_EQ(out[3], 0x02);
    EXPECT_EQ(out[4], 0x01);   // ttl
    EXPECT_EQ(out[7], 0x04);
    EXPECT_EQ(out[16], 0x0F);  // vlan
    EXPECT_EQ(out[17], 0xA1);
    EXPECT_EQ(out[27], 0xC0);  // clientIp
    EXPECT_EQ(out[30], 0x02);
    EXPECT_EQ(out[35], 0x00);  // reserved
    EXPECT_EQ(out[36], 0x01);  // up, port kind first
    EXPECT_EQ(out[37], 0x02);  // unit
    EXPECT_EQ(out[39], 0x11);
    for (int i = 40; i < 48; i++)
        EXPECT_EQ(out[i], 0x00) << "null link byte " << i;
}

TEST_F(WireTest, RoundTripKeepsTheBindingAndNotTheSendersLinks)
{
    DhcpSnoopElement a, b;
    DhcpSnoopElement e = knownElement(&a, &b);
    uint8_t rec[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
    ASSERT_EQ(dhcpSnoopRuntimeRecordEncode(DHCP_SNOOP_SYNC_ADD, &e, rec), 0u);

    DhcpSnoopElement r;
    memset(&r, 0, sizeof r);
    DhcpSnoopElement mine;
    r.opt82Pos = 7;
    r.endOptPos = 9;
    r.next = &mine;
    r.prev = nullptr;
    uint32_t op = 0;
    ASSERT_EQ(dhcpSnoopRuntimeRecordDecode(rec, &op, &r), 0u);
    EXPECT_EQ(op, DHCP_SNOOP_SYNC_ADD);
    EXPECT_EQ(r.ttl, e.ttl);
    EXPECT_EQ(r.vlan, e.vlan);
    EXPECT_EQ(r.type, e.type);
    EXPECT_EQ(r.isReuse, e.isReuse);
    EXPECT_EQ(memcmp(r.clientMac, e.clientMac, 6), 0);
    EXPECT_EQ(r.isBroadcast, e.isBroadcast);
    EXPECT_EQ(memcmp(r.clientIp, e.clientIp, 4), 0);
    EXPECT_EQ(memcmp(r.xid, e.xid, 4), 0);
    EXPECT_EQ(r.up, e.up);
    EXPECT_EQ(r.reserved, 0);
    // Transient offsets and links never come from the wire.
    EXPECT_EQ(r.opt82Pos, 7u);
    EXPECT_EQ(r.endOptPos, 9u);
    EXPECT_EQ(r.next, &mine);
    EXPECT_EQ(r.prev, nullptr);

    // The decoded element encodes to the same binding bytes.
    uint8_t again[DHCP_SNOOP_ELEMENT_IMAGE_SIZE];
    r.opt82Pos = e.opt82Pos;
    r.endOptPos = e.endOptPos;
    r.next = &a;
    r.prev = &b;
    ASSERT_EQ(dhcpSnoopElementEncode(&r, again), 0u);
    EXPECT_EQ(memcmp(again, rec + 4, 44), 0);
}

TEST_F(WireTest, ValuesAboveSignedRangeSurvive)
{
    DhcpSnoopElement e;
    memset(&e, 0, sizeof e);
    e.ttl = DHCP_SNOOP_TTL_FOREVER;
    e.vlan = 0xFFFF;
    e.up = 0xFF000001u;
    uint8_t img[44];
    ASSERT_EQ(dhcpSnoopElementEncode(&e, img), 0u);
    DhcpSnoopElement r;
    memset(&r, 0, sizeof r);
    ASSERT_EQ(dhcpSnoopElementDecode(img, &r), 0u);
    EXPECT_EQ(r.ttl, DHCP_SNOOP_TTL_FOREVER);
    EXPECT_EQ(r.vlan, 0xFFFF);
    EXPECT_EQ(r.up, 0xFF000001u);
}

TEST_F(WireTest, HelpersAreBigEndian)
{
    uint8_t b[4] = {0, 0, 0, 0};
    dhcpSnoopPutU32(b, 0xA1B2C3D4u);
    EXPECT_EQ(b[0], 0xA1);
    EXPECT_EQ(b[3], 0xD4);
    EXPECT_EQ(dhcpSnoopGetU32(b), 0xA1B2C3D4u);
    dhcpSnoopPutU16(b, 0x0102);
    EXPECT_EQ(b[0], 0x01);
    EXPECT_EQ(b[1], 0x02);
    EXPECT_EQ(dhcpSnoopGetU16(b), 0x0102);
}

TEST_F(WireTest, NullArgumentsAreRefused)
{
    DhcpSnoopElement e;
    memset(&e, 0, sizeof e);
    uint8_t buf[48];
    uint32_t op;
    EXPECT_EQ(dhcpSnoopElementEncode(nullptr, buf), 1u);
    EXPECT_EQ(dhcpSnoopElementEncode(&e, nullptr), 1u);
    EXPECT_EQ(dhcpSnoopElementDecode(nullptr, &e), 1u);
    EXPECT_EQ(dhcpSnoopElementDecode(buf, nullptr), 1u);
    EXPECT_EQ(dhcpSnoopRuntimeRecordEncode(1, nullptr, buf), 1u);
    EXPECT_EQ(dhcpSnoopRuntimeRecordDecode(buf, nullptr, &e), 1u);
    EXPECT_EQ(dhcpSnoopRuntimeRecordDecode(nullptr, &op, &e), 1u);
}

}  // namespace
