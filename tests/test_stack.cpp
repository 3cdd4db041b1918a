// Stack synchronisation: bulk snapshots, runtime records, unit removal.
#include <array>
#include <string>
#include <vector>

#include "snooping/dhcpSnoopWire.h"
#include "stack_table_text.h"
#include "support/fixture.h"

namespace {

using Ip = std::array<uint8_t, 4>;
using Bytes = std::vector<uint8_t>;

const sim::Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const sim::Mac kMacB = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
const sim::Mac kMacC = {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0x01};

uint32_t be32(const uint8_t *p)
{
    return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}

void putBe32(uint8_t *p, uint32_t v)
{
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

DhcpSnoopElement binding(Ip ip, uint16_t vlan, const sim::Mac &mac, up port, uint32_t ttl = 100)
{
    DhcpSnoopElement e;
    memset(&e, 0, sizeof e);
    memcpy(e.clientIp, ip.data(), 4);
    e.vlan = vlan;
    memcpy(e.clientMac, mac.data(), 6);
    e.up = port;
    e.ttl = ttl;
    e.type = DHCP_SNOOP_TYPE_ACK;
    return e;
}

// A 48-byte runtime record as another unit would send it.
Bytes record(uint32_t op, const DhcpSnoopElement &e)
{
    Bytes b(DHCP_SNOOP_RUNTIME_RECORD_SIZE);
    EXPECT_EQ(dhcpSnoopRuntimeRecordEncode(op, &e, b.data()), 0u);
    return b;
}

// A snapshot buffer: head (num, a data word) and the records.
Bytes snapshot(const std::vector<DhcpSnoopElement> &elements, uint32_t dataWord = 0)
{
    Bytes b(DHCP_SNOOP_SNAPSHOT_HEAD_SIZE);
    putBe32(b.data(), (uint32_t)elements.size());
    putBe32(b.data() + 4, dataWord);
    for (const DhcpSnoopElement &e : elements) {
        Bytes r = record(DHCP_SNOOP_SYNC_ADD, e);
        b.insert(b.end(), r.begin(), r.end());
    }
    return b;
}

class StackTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        sim::setUnits({1, 2});
        startModule();
    }

    DhcpSnoopElement *file(Ip ip, uint16_t vlan, const sim::Mac &mac, up port, uint32_t ttl = 100)
    {
        DhcpSnoopElement *e = dhcpSnoopGetMem();
        EXPECT_NE(e, nullptr);
        if (e == nullptr)
            return nullptr;
        DhcpSnoopElement v = binding(ip, vlan, mac, port, ttl);
        dhcpSnoopElementStore(e, &v);
        EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
        return e;
    }

    DhcpSnoopElement *find(Ip ip, uint16_t vlan, const sim::Mac &mac)
    {
        DhcpSnoopElement k = binding(ip, vlan, mac, 0);
        return dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC);
    }

    uint32_t apply(Bytes &bytes, uint32_t len)
    {
        UsoData d{bytes.data(), len};
        return dhcpSnoopDataSyncSetCb(&d, nullptr);
    }
    uint32_t apply(Bytes &bytes) { return apply(bytes, (uint32_t)bytes.size()); }

    uint32_t hnd(Bytes bytes)
    {
        UsoData d{bytes.data(), (uint32_t)bytes.size()};
        return dhcpSnoopRuntimeDataHnd(&d);
    }

    // A snapshot taken with GetCb, copied out and released with FreeCb.
    Bytes take()
    {
        UsoData d{nullptr, 0};
        EXPECT_EQ(dhcpSnoopDataSyncGetCb(&d), 0u);
        Bytes b(static_cast<uint8_t *>(d.data), static_cast<uint8_t *>(d.data) + d.len);
        EXPECT_EQ(dhcpSnoopDataSyncFreeCb(&d), 0u);
        return b;
    }

    size_t countEvent(const std::string &text)
    {
        size_t n = 0;
        for (const std::string &e : sim::events())
            n += e == text;
        return n;
    }

    up p1 = sim::physicalPort(1, 1);
    up p2 = sim::physicalPort(1, 2);
    up u2p5 = sim::physicalPort(2, 5);
};

// ---- bulk snapshot: export ----------------------------------------------------------

TEST_F(StackTest, EmptyTableGivesJustTheHead)
{
    UsoData d{nullptr, 99};
    ASSERT_EQ(dhcpSnoopDataSyncGetCb(&d), 0u);
    ASSERT_NE(d.data, nullptr);
    EXPECT_EQ(d.len, 8u);
    EXPECT_EQ(countEvent("alloc 8 dhcpSnoop"), 1u);
    const uint8_t *b = static_cast<const uint8_t *>(d.data);
    EXPECT_EQ(be32(b), 0u);
    EXPECT_EQ(be32(b + 4), (uint32_t)(uintptr_t)(b + 8));
    EXPECT_EQ(dhcpSnoopDataSyncFreeCb(&d), 0u);
    EXPECT_EQ(d.data, nullptr);
    EXPECT_EQ(d.len, 0u);
    EXPECT_EQ(sim::events().back(), "free 8 dhcpSnoop");
}

TEST_F(StackTest, EmptySnapshotOnlyRemovesTheReceiversOwnBindings)
{
    sim::setUnit(2);
    file({10, 0, 0, 1}, 1, kMacA, p1);
    file({10, 0, 0, 2}, 1, kMacB, u2p5);
    file({10, 0, 0, 3}, 1, kMacC, sim::portChannel(1));
    Bytes empty = snapshot({});
    ASSERT_EQ(empty.size(), 8u);
    sim::setDebugFlag(1);
    EXPECT_EQ(apply(empty), 0u);
    EXPECT_TRUE(sim::hasMessage("Delete dynamic elements of unit 2."));
    EXPECT_TRUE(sim::hasMessage("syncData->num:0"));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    EXPECT_EQ(find({10, 0, 0, 2}, 1, kMacB), nullptr);
    EXPECT_NE(find({10, 0, 0, 1}, 1, kMacA), nullptr);
    EXPECT_NE(find({10, 0, 0, 3}, 1, kMacC), nullptr);
}

TEST_F(StackTest, AllocationFollowsTheElementsHandedOut)
{
    file({10, 0, 0, 1}, 1, kMacA, p1);
    file({10, 0, 0, 2}, 1, kMacB, p2);
    DhcpSnoopElement *held = dhcpSnoopGetMem();
    ASSERT_EQ(mallocCounter, 3u);
    sim::setDebugFlag(1);
    sim::clearEvents();
    UsoData d{nullptr, 0};
    ASSERT_EQ(dhcpSnoopDataSyncGetCb(&d), 0u);
    EXPECT_EQ(sim::events(), std::vector<std::string>{"alloc 152 dhcpSnoop"});
    EXPECT_EQ(d.len, 104u);
    EXPECT_EQ(be32(static_cast<uint8_t *>(d.data)), 2u);
    EXPECT_TRUE(sim::hasMessage("dhcpSnoopDataSyncGetCb, mallocCounter:3"));
    EXPECT_TRUE(sim::hasMessage("buf->num:2"));
    EXPECT_TRUE(sim::hasMessage("usodata->len:104"));
    EXPECT_EQ(dhcpSnoopDataSyncFreeCb(&d), 0u);
    EXPECT_TRUE(sim::hasMessage("dhcpSnoopDataSyncFreeCb"));
    EXPECT_EQ(sim::events().back(), "free 152 dhcpSnoop");
    dhcpSnoopFreeMem(held);
}

TEST_F(StackTest, RecordsAreAddsWithTheBigEndianElementImage)
{
    DhcpSnoopElement *e = file({192, 168, 1, 200}, 0x0123, kMacB, p2, 0x01020304u);
    Bytes b = take();
    ASSERT_EQ(b.size(), 56u);
    EXPECT_EQ(be32(&b[0]), 1u);
    const uint8_t *r = &b[8];
    EXPECT_EQ(be32(r), DHCP_SNOOP_SYNC_ADD);
    EXPECT_EQ(be32(r + 4), 0x01020304u);
    EXPECT_EQ(r[16], 0x01);
    EXPECT_EQ(r[17], 0x23);
    EXPECT_EQ(r[18], DHCP_SNOOP_TYPE_ACK);
    EXPECT_EQ(Bytes(r + 20, r + 26), Bytes(kMacB.begin(), kMacB.end()));
    EXPECT_EQ(Bytes(r + 27, r + 31), (Bytes{192, 168, 1, 200}));
    EXPECT_EQ(be32(r + 36), (uint32_t)p2);
    // Links as they lie: alone in its bucket.
    EXPECT_EQ(be32(r + 40), 0u);
    EXPECT_EQ(be32(r + 44), 0u);
    (void)e;
}

TEST_F(StackTest, NullElementIsDroppedOnExport)
{
    // A zero-key element behind a real one in bucket 0.
    DhcpSnoopElement *zero = file({0, 0, 0, 0}, 0, {0, 0, 0, 0, 0, 0}, p1);
    DhcpSnoopElement *real = file({10, 0, 0, 128}, 1, kMacA, p1);
    ASSERT_EQ(dynamicTable[0], real);
    ASSERT_EQ(real->next, zero);
    sim::setDebugFlag(1);
    Bytes b = take();
    EXPECT_EQ(be32(&b[0]), 1u);
    EXPECT_EQ(b.size(), 56u);
    EXPECT_EQ(Bytes(&b[8 + 27], &b[8 + 31]), (Bytes{10, 0, 0, 128}));
    EXPECT_TRUE(sim::hasMessage("Null table element, it should not have existed."));
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(real->next, nullptr);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(StackTest, FailedAllocationReturnsFour)
{
    file({10, 0, 0, 1}, 1, kMacA, p1);
    sim::failNext("pal_calloc");
    UsoData d{nullptr, 7};
    EXPECT_EQ(dhcpSnoopDataSyncGetCb(&d), 4u);
    EXPECT_EQ(d.data, nullptr);
    EXPECT_EQ(d.len, 7u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(StackTest, NullDescriptorsAreRefused)
{
    EXPECT_EQ(dhcpSnoopDataSyncGetCb(nullptr), 1u);
    EXPECT_EQ(dhcpSnoopDataSyncSetCb(nullptr, nullptr), 1u);
    EXPECT_EQ(dhcpSnoopDataSyncFreeCb(nullptr), 1u);
    EXPECT_EQ(dhcpSnoopRuntimeDataHnd(nullptr), 1u);
    UsoData d{nullptr, 5};
    EXPECT_EQ(dhcpSnoopDataSyncFreeCb(&d), 0u);
    EXPECT_EQ(d.len, 0u);
}

// ---- bulk snapshot: apply ------------------------------------------------------------

TEST_F(StackTest, SnapshotRecordsAreFiledWithTheirSideEffects)
{
    sim::setUnit(2);
    DhcpSnoopElement a = binding({10, 1, 0, 1}, 10, kMacA, p1, 500);
    a.xid[0] = 0xDE;
    a.isBroadcast = 1;
    DhcpSnoopElement b = binding({10, 1, 0, 2}, 20, kMacB, sim::portChannel(2), DHCP_SNOOP_TTL_FOREVER);
    Bytes s = snapshot({a, b});
    sim::setDebugFlag(1);
    sim::clearRuntimeRecords();
    EXPECT_EQ(apply(s), 0u);
    EXPECT_TRUE(sim::hasMessage("dhcpSnoopDataSyncSetCb, usodata len:104"));
    EXPECT_TRUE(sim::hasMessage("syncData->num:2"));
    DhcpSnoopElement *fa = find({10, 1, 0, 1}, 10, kMacA);
    ASSERT_NE(fa, nullptr);
    EXPECT_EQ(stacktext::bindingLine(*fa), stacktext::bindingLine(a));
    DhcpSnoopElement *fb = find({10, 1, 0, 2}, 20, kMacB);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->ttl, DHCP_SNOOP_TTL_FOREVER);
    // The physical port's binding is guarded, the port channel's is not;
    // both are passed on and saved.
    ASSERT_EQ(sim::qtable().size(), 1u);
    EXPECT_EQ(sim::qtable()[0].port, p1);
    EXPECT_EQ(sim::runtimeRecords().size(), 2u);
    EXPECT_EQ(sim::queueDepth(sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME)), 1u);
}

TEST_F(StackTest, SnapshotReplacesBindingsWithTheSameIpAndVlan)
{
    file({10, 1, 0, 1}, 10, kMacA, p1);
    Bytes s = snapshot({binding({10, 1, 0, 1}, 10, kMacB, p2)});
    EXPECT_EQ(apply(s), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_NE(find({10, 1, 0, 1}, 10, kMacB), nullptr);
}

TEST_F(StackTest, NullRecordIsSkippedOnReceipt)
{
    sim::setUnit(2);
    DhcpSnoopElement zero;
    memset(&zero, 0, sizeof zero);
    zero.up = p1;  // only IP, VLAN and MAC make it a null record
    zero.ttl = 9;
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1), zero, binding({10, 0, 0, 2}, 1, kMacB, p1)});
    sim::setDebugFlag(1);
    EXPECT_EQ(apply(s), 0u);
    EXPECT_EQ(sim::countMessage("Null table element, it should not have existed."), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    EXPECT_EQ(mallocCounter, 2u);
}

TEST_F(StackTest, DataPointerInTheReceivedHeadIsIgnored)
{
    sim::setUnit(2);
    for (uint32_t word : {0u, 0xDEADBEEFu, 0xFFFFFFFFu, 8u}) {
        Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1)}, word);
        EXPECT_EQ(apply(s), 0u) << word;
        EXPECT_NE(find({10, 0, 0, 1}, 1, kMacA), nullptr) << word;
        // Recomputed from the buffer's own address.
        EXPECT_EQ(be32(&s[4]), (uint32_t)(uintptr_t)(s.data() + 8));
    }
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(StackTest, MissingDataIsRefusedAfterTheOwnBindingsAreRemoved)
{
    file({10, 0, 0, 1}, 1, kMacA, p1);
    sim::setDebugFlag(1);
    UsoData d{nullptr, 56};
    EXPECT_EQ(dhcpSnoopDataSyncSetCb(&d, nullptr), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Ensure NULL != syncData failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
}

TEST_F(StackTest, CountThatDoesNotFitTheLengthIsRefusedBeforeAnyRecord)
{
    file({10, 0, 0, 9}, 1, kMacC, u2p5);
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1), binding({10, 0, 0, 2}, 1, kMacB, p1)});
    sim::setDebugFlag(1);
    // One byte short of the second record.
    EXPECT_EQ(apply(s, (uint32_t)s.size() - 1), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Sync data len 103 holds no 2 records."));
    // Unit 1's own binding went first, as always; nothing was filed.
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_NE(find({10, 0, 0, 9}, 1, kMacC), nullptr);

    // A count so large that 48 * num wraps in 32 bits.
    putBe32(s.data(), 0x05555556u);
    EXPECT_EQ(apply(s), 0xFFFFFFFFu);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);

    // Shorter than the head.
    sim::clearLogs();
    EXPECT_EQ(apply(s, 7), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Sync data len 7 holds no head."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(StackTest, NegativeCountAppliesNothing)
{
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1)});
    putBe32(s.data(), 0xFFFFFFFFu);
    EXPECT_EQ(apply(s), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    putBe32(s.data(), 0x80000000u);
    EXPECT_EQ(apply(s), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
}

TEST_F(StackTest, EmptyPoolStopsTheSnapshotAndKeepsWhatWasApplied)
{
    sim::setUnit(2);
    std::vector<DhcpSnoopElement *> held;
    while (mallocCounter < DHCP_SNOOP_POOL_SIZE - 1)
        held.push_back(dhcpSnoopGetMem());
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1), binding({10, 0, 0, 2}, 1, kMacB, p1)});
    sim::setDebugFlag(1);
    EXPECT_EQ(apply(s), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Ensure NULL != element failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    for (DhcpSnoopElement *e : held)
        dhcpSnoopFreeMem(e);
}

TEST_F(StackTest, FailedAddEndsTheSnapshotWithItsResult)
{
    sim::setUnit(2);
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1), binding({10, 0, 0, 2}, 1, kMacB, p1)});
    sim::setDebugFlag(1);
    sim::failNext("stkUsoRuntimeDataSync", 3);
    EXPECT_EQ(apply(s), 1320u);
    EXPECT_TRUE(sim::hasMessage("E - 1320 call dhcpSnoopElementAddNew(element, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    // The failing add had filed its element; the second record was not applied.
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(StackTest, FailedAddBeforeFilingGivesTheElementBack)
{
    sim::setUnit(2);
    file({10, 0, 0, 1}, 1, kMacA, p1);
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacB, p1)});
    // The delete record of the old binding fails: the new one is not filed.
    sim::failNext("stkUsoRuntimeDataSync", 3);
    EXPECT_EQ(apply(s), 1320u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

TEST_F(StackTest, FailedRemovalOfTheOwnBindingsEndsTheSnapshot)
{
    file({10, 0, 0, 1}, 1, kMacA, p1);
    file({10, 0, 0, 2}, 1, kMacB, p1);
    Bytes s = snapshot({binding({10, 0, 0, 3}, 1, kMacC, p1)});
    sim::setDebugFlag(1);
    sim::failNext("stkUsoRuntimeDataSync", 8);
    EXPECT_EQ(apply(s), 1320u);
    EXPECT_TRUE(sim::hasMessage("E - 1320 call dhcpSnoopElementDelete(p, type) failed."));
    EXPECT_TRUE(sim::hasMessage(
        "E - 1320 call dhcpSnoopElementDelByUnit(curUnit, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    // The walk stopped at the failing delete (whose element went anyway).
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(find({10, 0, 0, 3}, 1, kMacC), nullptr);
}

TEST_F(StackTest, SuspendedChangesFileNothingAndLeakNothing)
{
    sim::setUnit(2);
    Bytes s = snapshot({binding({10, 0, 0, 1}, 1, kMacA, p1)});
    sim::setQAddStatus(0);
    EXPECT_EQ(apply(s), 0u);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_ADD, binding({10, 0, 0, 2}, 1, kMacA, p1))), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

// ---- runtime records --------------------------------------------------------------

TEST_F(StackTest, RuntimeLengthMustBeExactly48)
{
    Bytes r = record(DHCP_SNOOP_SYNC_ADD, binding({10, 0, 0, 1}, 1, kMacA, p1));
    sim::setDebugFlag(1);
    for (uint32_t len : {47u, 49u, 0u}) {
        sim::clearLogs();
        Bytes b = r;
        b.resize(len);
        UsoData d{b.data(), len};
        EXPECT_EQ(dhcpSnoopRuntimeDataHnd(&d), 0xFFFFFFFFu) << len;
        EXPECT_TRUE(sim::hasMessage("usodata length err.")) << len;
    }
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    UsoData none{nullptr, 48};
    EXPECT_EQ(dhcpSnoopRuntimeDataHnd(&none), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Ensure NULL != syncData failed."));
}

TEST_F(StackTest, RuntimeAddFilesTheBinding)
{
    sim::setDebugFlag(1);
    DhcpSnoopElement b = binding({10, 2, 0, 7}, 30, kMacC, u2p5, 77);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_ADD, b)), 0u);
    EXPECT_TRUE(sim::hasMessage("Runtime Data Hnd, client IP:10.2.0.7, type: 1"));
    EXPECT_TRUE(sim::hasMessage("runtime data hnd OK."));
    DhcpSnoopElement *f = find({10, 2, 0, 7}, 30, kMacC);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(stacktext::bindingLine(*f), stacktext::bindingLine(b));
}

TEST_F(StackTest, RuntimeAddReplacesTheBindingWithTheSameIpAndVlan)
{
    file({10, 2, 0, 8}, 30, kMacA, p1);
    sim::clearRuntimeRecords();
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_ADD, binding({10, 2, 0, 8}, 30, kMacB, p2))), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    DhcpSnoopElement *f = find({10, 2, 0, 8}, 30, kMacB);
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->up, p2);
    EXPECT_EQ(mallocCounter, 1u);
    // The old one's delete record, then the new one's add record.
    ASSERT_EQ(sim::runtimeRecords().size(), 2u);
    EXPECT_EQ(be32(sim::runtimeRecords()[0].data()), DHCP_SNOOP_SYNC_DELETE);
    EXPECT_EQ(be32(sim::runtimeRecords()[1].data()), DHCP_SNOOP_SYNC_ADD);
}

TEST_F(StackTest, RuntimeDeleteRemovesTheBinding)
{
    file({10, 2, 0, 9}, 30, kMacA, p1);
    sim::setDebugFlag(1);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_DELETE, binding({10, 2, 0, 9}, 30, kMacA, p2))), 0u);
    EXPECT_TRUE(sim::hasMessage("Runtime Data Hnd, client IP:10.2.0.9, type: 2"));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
}

TEST_F(StackTest, RuntimeDeleteWithAnotherMacLeavesTheBinding)
{
    file({10, 2, 0, 10}, 30, kMacA, p1);
    sim::setDebugFlag(1);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_DELETE, binding({10, 2, 0, 10}, 30, kMacB, p1))), 1u);
    EXPECT_TRUE(sim::hasMessage("E - 1 call dhcpSnoopElementDelete(element, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_NE(find({10, 2, 0, 10}, 30, kMacA), nullptr);
}

TEST_F(StackTest, RuntimeUnknownOperationIsRefusedSilently)
{
    sim::setDebugFlag(1);
    for (uint32_t op : {0u, 3u, 0x01000000u, 0xFFFFFFFFu}) {
        sim::clearLogs();
        EXPECT_EQ(hnd(record(op, binding({10, 2, 0, 11}, 30, kMacA, p1))), 0xFFFFFFFFu) << op;
        EXPECT_FALSE(sim::hasMessage("runtime data hnd OK."));
        for (const sim::LogLine &l : sim::logs())
            EXPECT_FALSE(l.error) << l.text;
    }
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
}

TEST_F(StackTest, RuntimeAddWithAnEmptyPool)
{
    std::vector<DhcpSnoopElement *> held;
    while (mallocCounter < DHCP_SNOOP_POOL_SIZE)
        held.push_back(dhcpSnoopGetMem());
    sim::setDebugFlag(1);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_ADD, binding({10, 2, 0, 12}, 30, kMacA, p1))), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Ensure NULL != element failed."));
    for (DhcpSnoopElement *e : held)
        dhcpSnoopFreeMem(e);
}

TEST_F(StackTest, RuntimeAddFailureIsReported)
{
    sim::setDebugFlag(1);
    sim::failNext("stkUsoRuntimeDataSync", 4);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_ADD, binding({10, 2, 0, 13}, 30, kMacA, p1))), 1320u);
    EXPECT_TRUE(sim::hasMessage("E - 1320 call dhcpSnoopElementAddNew(element, DHCP_SNOOP_ELEMENT_DYNAMIC) failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(StackTest, RuntimeAddOfANullKeyIsRefused)
{
    DhcpSnoopElement zero;
    memset(&zero, 0, sizeof zero);
    zero.up = p1;
    sim::setDebugFlag(1);
    EXPECT_EQ(hnd(record(DHCP_SNOOP_SYNC_ADD, zero)), 0xFFFFFFFFu);
    EXPECT_TRUE(sim::hasMessage("Null table element, it should not have existed."));
    EXPECT_EQ(mallocCounter, 0u);
}

// ---- unit removal ---------------------------------------------------------------------

TEST_F(StackTest, DelByUnitRemovesExactlyThatUnitsBindings)
{
    sim::setUnits({1, 2, 3});
    file({10, 3, 0, 1}, 1, kMacA, p1);
    file({10, 3, 0, 2}, 1, kMacA, u2p5);
    file({10, 3, 0, 130}, 1, kMacB, sim::physicalPort(2, 6));  // same bucket as .2
    file({10, 3, 0, 3}, 1, kMacA, sim::physicalPort(3, 1));
    file({10, 3, 0, 4}, 1, kMacA, sim::portChannel(2));
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopElementDelByUnit(2, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(sim::countMessage("del unit:2"), 2u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 3u);
    EXPECT_EQ(find({10, 3, 0, 2}, 1, kMacA), nullptr);
    EXPECT_EQ(find({10, 3, 0, 130}, 1, kMacB), nullptr);
    EXPECT_NE(find({10, 3, 0, 1}, 1, kMacA), nullptr);
    EXPECT_NE(find({10, 3, 0, 3}, 1, kMacA), nullptr);
    EXPECT_NE(find({10, 3, 0, 4}, 1, kMacA), nullptr);
}

TEST_F(StackTest, DelByUnitWorksOnTheRequestTableAndRefusesBadSelectors)
{
    DhcpSnoopElement *r = dhcpSnoopGetMem();
    DhcpSnoopElement v = binding({10, 3, 0, 5}, 1, kMacA, u2p5);
    dhcpSnoopElementStore(r, &v);
    ASSERT_EQ(dhcpSnoopElementAddNew(r, DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    file({10, 3, 0, 6}, 1, kMacA, u2p5);
    EXPECT_EQ(dhcpSnoopElementDelByUnit(2, 2), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    EXPECT_EQ(dhcpSnoopElementDelByUnit(2, DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(StackTest, DetachRemovesUnitOneOnlyForBitOne)
{
    struct Case {
        uint32_t mask;
        bool removes;
    };
    for (Case c : {Case{2, true}, Case{3, true}, Case{1, false}, Case{4, false}, Case{0, false},
                   Case{0xFFFFFFFDu, false}}) {
        file({10, 4, 0, 1}, 1, kMacA, p1);
        file({10, 4, 0, 2}, 1, kMacA, u2p5);
        sim::setDebugFlag(1);
        sim::clearLogs();
        EXPECT_EQ(dhcpSnoopDetachCb(c.mask, nullptr), 0u);
        EXPECT_TRUE(sim::hasMessage("dhcpSnoopDetachCb:" + std::to_string(c.mask)));
        EXPECT_EQ(find({10, 4, 0, 1}, 1, kMacA) == nullptr, c.removes) << c.mask;
        EXPECT_NE(find({10, 4, 0, 2}, 1, kMacA), nullptr) << c.mask;
        sim::setDebugFlag(0);
    }
}

TEST_F(StackTest, DetachIgnoresAFailingRemoval)
{
    file({10, 4, 0, 3}, 1, kMacA, p1);
    file({10, 4, 0, 4}, 1, kMacA, p1);
    sim::failNext("stkUsoRuntimeDataSync");
    EXPECT_EQ(dhcpSnoopDetachCb(2, nullptr), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

// ---- two runs: snapshot, then runtime records --------------------------------------

TEST_F(StackTest, SnapshotAndRecordsReproduceTheTableOnAFreshRun)
{
    sim::setIncludeIpFilter(true);
    DhcpSnoopElement *e = file({10, 5, 0, 1}, 10, kMacA, p1, 3600);
    e->xid[2] = 0x42;  // filled before any other thread exists
    file({10, 5, 0, 129}, 10, kMacB, p2, DHCP_SNOOP_TTL_FOREVER);
    file({10, 5, 0, 1}, 20, kMacC, sim::portChannel(3), 20);
    file({10, 5, 1, 7}, 4094, kMacA, u2p5, 1);
    Bytes snap = take();
    std::vector<std::string> atSnapshot = stacktext::tableLines();

    sim::clearRuntimeRecords();
    file({10, 5, 2, 2}, 30, kMacB, p2, 99);                  // add
    file({10, 5, 0, 129}, 10, kMacC, p1, 50);                // replace: delete + add
    ASSERT_EQ(dhcpSnoopElementDelete(find({10, 5, 0, 1}, 20, kMacC), DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    std::vector<Bytes> records = sim::runtimeRecords();
    ASSERT_EQ(records.size(), 4u);
    std::vector<std::string> atEnd = stacktext::tableLines();

    // A second run of the module, as unit 2.
    dhcpSnoopResetState();
    sim::reset();
    sim::setUnits({1, 2});
    sim::setUnit(2);
    sim::setIncludeIpFilter(true);
    startModule();
    EXPECT_EQ(apply(snap), 0u);
    EXPECT_EQ(stacktext::tableLines(), atSnapshot);
    for (Bytes &r : records)
        EXPECT_EQ(hnd(r), 0u);
    EXPECT_EQ(stacktext::tableLines(), atEnd);
}

// ---- a snapshot made by the big-endian switch ---------------------------------------

std::string goldenDir() { return DHCPSNOOP_TEST_DATA "/stack-golden/"; }

TEST_F(StackTest, GoldenSnapshotOfTheMipsBuildIsApplied)
{
    Bytes snap;
    ASSERT_TRUE(stacktext::readFile(goldenDir() + "snapshot.bin", snap)) << goldenDir();
    std::vector<std::string> expected;
    ASSERT_TRUE(stacktext::readLines(goldenDir() + "expected.txt", expected));
    sim::setUnit(2);
    EXPECT_EQ(apply(snap), 0u);
    for (int i = 1;; i++) {
        Bytes r;
        if (!stacktext::readFile(goldenDir() + "runtime-" + std::to_string(i) + ".bin", r))
            break;
        EXPECT_EQ(hnd(r), 0u) << i;
    }
    EXPECT_EQ(stacktext::tableLines(), expected);
}

}  // namespace
