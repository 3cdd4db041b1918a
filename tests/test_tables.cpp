// Binding tables: request and dynamic tables, the save trigger, the runtime
// records, aging and the source-guard table.
#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace {

using Ip = std::array<uint8_t, 4>;

const sim::Mac kMacA = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const sim::Mac kMacB = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};

// A runtime record as read from its bytes at their fixed offsets.
struct Record {
    uint32_t op;
    uint32_t ttl;
    uint16_t vlan;
    sim::Mac mac;
    Ip ip;
    uint32_t port;
};

uint32_t be32(const std::vector<uint8_t> &b, size_t off)
{
    return ((uint32_t)b[off] << 24) | ((uint32_t)b[off + 1] << 16) | ((uint32_t)b[off + 2] << 8) | b[off + 3];
}

Record readRecord(const std::vector<uint8_t> &b)
{
    Record r{};
    EXPECT_EQ(b.size(), 48u);
    if (b.size() != 48)
        return r;
    r.op = be32(b, 0);
    r.ttl = be32(b, 4);
    r.vlan = (uint16_t)((b[16] << 8) | b[17]);
    for (int i = 0; i < 6; i++)
        r.mac[i] = b[20 + i];
    for (int i = 0; i < 4; i++)
        r.ip[i] = b[27 + i];
    r.port = be32(b, 36);
    return r;
}

class TableTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        startModule();
        saveQ = sim::queueByName(DHCP_SNOOP_SAVE_QUEUE_NAME);
        ASSERT_NE(saveQ, 0);
        port1 = sim::physicalPort(1, 1);
        port2 = sim::physicalPort(1, 2);
    }

    DhcpSnoopElement *make(Ip ip, uint16_t vlan, const sim::Mac &mac, up port, uint32_t ttl = 100)
    {
        DhcpSnoopElement *e = dhcpSnoopGetMem();
        EXPECT_NE(e, nullptr);
        if (e == nullptr)
            return nullptr;
        memcpy(e->clientIp, ip.data(), 4);
        e->vlan = vlan;
        memcpy(e->clientMac, mac.data(), 6);
        e->up = port;
        e->ttl = ttl;
        e->type = DHCP_SNOOP_TYPE_ACK;
        return e;
    }

    DhcpSnoopElement *file(Ip ip, uint16_t vlan, const sim::Mac &mac, up port, uint32_t ttl = 100,
                           uint32_t table = DHCP_SNOOP_ELEMENT_DYNAMIC)
    {
        DhcpSnoopElement *e = make(ip, vlan, mac, port, ttl);
        EXPECT_EQ(dhcpSnoopElementAddNew(e, table), 0u);
        return e;
    }

    static DhcpSnoopElement key(Ip ip, uint16_t vlan, const sim::Mac &mac)
    {
        DhcpSnoopElement k;
        memset(&k, 0, sizeof k);
        memcpy(k.clientIp, ip.data(), 4);
        k.vlan = vlan;
        memcpy(k.clientMac, mac.data(), 6);
        return k;
    }

    static std::vector<DhcpSnoopElement *> chain(uint32_t table, uint32_t pos)
    {
        DhcpSnoopElement **t = table == DHCP_SNOOP_ELEMENT_DYNAMIC ? dynamicTable : requestTable;
        std::vector<DhcpSnoopElement *> v;
        DhcpSnoopElement *prev = nullptr;
        for (DhcpSnoopElement *e = t[pos]; e != nullptr && v.size() <= DHCP_SNOOP_POOL_SIZE; e = e->next) {
            EXPECT_EQ(e->prev, prev) << "back link broken in bucket " << pos;
            prev = e;
            v.push_back(e);
        }
        return v;
    }

    // Clears the save flag and the queue, as the save task would.
    void drainSave()
    {
        uint8_t b;
        while (sim::queueTake(saveQ, &b, 1)) {
        }
        upMsgCnt = 0;
    }

    PalMsgQ saveQ = 0;
    up port1 = 0;
    up port2 = 0;
};

// ---- filing, replacement, search ------------------------------------------------------------

TEST_F(TableTest, SameBucketLaterClientIsFirstInChain)
{
    for (uint32_t table : {DHCP_SNOOP_ELEMENT_DYNAMIC, DHCP_SNOOP_ELEMENT_REQUEST}) {
        DhcpSnoopElement *a = file({10, 0, 0, 5}, 1, kMacA, port1, 100, table);
        DhcpSnoopElement *b = file({10, 0, 1, 133}, 1, kMacB, port2, 100, table);
        std::vector<DhcpSnoopElement *> c = chain(table, 5);
        ASSERT_EQ(c.size(), 2u);
        EXPECT_EQ(c[0], b);
        EXPECT_EQ(c[1], a);
        DhcpSnoopElement k = key({10, 0, 0, 5}, 1, kMacA);
        EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, table), a);
        k = key({10, 0, 1, 133}, 1, kMacB);
        EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, table), b);
        EXPECT_EQ(tableCount(table), 2u);
    }
}

TEST_F(TableTest, SameIpAndVlanWithAnotherMacReplacesTheOldBinding)
{
    DhcpSnoopElement *old = file({10, 0, 0, 7}, 10, kMacA, port1);
    DhcpSnoopElement *renewed = make({10, 0, 0, 7}, 10, kMacB, port2);
    ASSERT_EQ(dhcpSnoopElementAddNew(renewed, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);

    EXPECT_EQ(chain(DHCP_SNOOP_ELEMENT_DYNAMIC, 7), std::vector<DhcpSnoopElement *>{renewed});
    // The old element went back to the pool: it is the next one handed out.
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE - 1);
    EXPECT_EQ(tableMemPoolUnused, old);

    // add, delete of the old binding, add of the new one.
    ASSERT_EQ(sim::runtimeRecords().size(), 3u);
    Record r0 = readRecord(sim::runtimeRecords()[0]);
    Record r1 = readRecord(sim::runtimeRecords()[1]);
    Record r2 = readRecord(sim::runtimeRecords()[2]);
    EXPECT_EQ(r0.op, 1u);
    EXPECT_EQ(r0.mac, kMacA);
    EXPECT_EQ(r1.op, 2u);
    EXPECT_EQ(r1.mac, kMacA);
    EXPECT_EQ(r1.ip, (Ip{10, 0, 0, 7}));
    EXPECT_EQ(r1.vlan, 10);
    EXPECT_EQ(r1.port, port1);
    EXPECT_EQ(r2.op, 1u);
    EXPECT_EQ(r2.mac, kMacB);
    EXPECT_EQ(r2.port, port2);

    // The source-guard entry was renewed, not doubled.
    ASSERT_EQ(sim::qtable().size(), 1u);
    EXPECT_EQ(memcmp(sim::qtable()[0].mac, kMacB.data(), 6), 0);
    EXPECT_EQ(sim::qtable()[0].port, port2);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(TableTest, SameIpOnAnotherVlanKeepsBothBindings)
{
    DhcpSnoopElement *a = file({10, 0, 0, 8}, 10, kMacA, port1);
    DhcpSnoopElement *b = file({10, 0, 0, 8}, 20, kMacA, port1);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 2u);
    DhcpSnoopElement k = key({10, 0, 0, 8}, 10, kMacA);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), a);
    k.vlan = 20;
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), b);
    // Only adds were synced.
    ASSERT_EQ(sim::runtimeRecords().size(), 2u);
    EXPECT_EQ(readRecord(sim::runtimeRecords()[1]).op, 1u);
    EXPECT_EQ(mallocCounter, 2u);
}

TEST_F(TableTest, SearchNeedsIpVlanAndMac)
{
    file({10, 0, 0, 9}, 10, kMacA, port1);
    DhcpSnoopElement k = key({10, 0, 0, 9}, 10, kMacB);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    k = key({10, 0, 0, 9}, 11, kMacA);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    k = key({10, 0, 0, 9}, 10, kMacA);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_REQUEST), nullptr);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, 2), nullptr);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(nullptr, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    EXPECT_NE(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
}

TEST_F(TableTest, SearchHitWritesTheFindLine)
{
    file({10, 0, 0, 9}, 10, kMacA, port1, 77);
    sim::setDebugFlag(1);
    sim::clearLogs();
    DhcpSnoopElement k = key({10, 0, 0, 9}, 10, kMacA);
    ASSERT_NE(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    EXPECT_EQ(sim::messages(),
              std::vector<std::string>{"Find dynamic table binding entry:\n src IP:10.0.0.9, src "
                                       "MAC:00:11:22:33:44:55, vlan:10, port:" +
                                       sim::portName(port1) + ", ttl:77"});
}

TEST_F(TableTest, SearchByMacAndVlanTakesTheLowestBucketFirst)
{
    DhcpSnoopElement *high = file({10, 0, 0, 9}, 10, kMacA, port1);
    DhcpSnoopElement *low = file({10, 0, 0, 3}, 10, kMacA, port1);
    DhcpSnoopElement *lowLater = file({10, 0, 1, 131}, 10, kMacA, port1);
    (void)low;
    file({10, 0, 0, 2}, 11, kMacA, port1);  // other VLAN, lower bucket
    file({10, 0, 0, 1}, 10, kMacB, port1);  // other MAC, lower bucket
    sim::setDebugFlag(1);
    sim::clearLogs();
    DhcpSnoopElement k = key({0, 0, 0, 0}, 10, kMacA);
    // Bucket 3 holds 10.0.1.131 at its head.
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), lowLater);
    EXPECT_EQ(sim::messages(),
              std::vector<std::string>{"Find dynamic table binding entry:\n src IP:10.0.1.131, src "
                                       "MAC:00:11:22:33:44:55, vlan:10, port:" +
                                       sim::portName(port1) + ", ttl:100"});
    // Once the lower buckets are gone the higher one is found.
    ASSERT_EQ(dhcpSnoopElementDelete(lowLater, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    DhcpSnoopElement k3 = key({10, 0, 0, 3}, 10, kMacA);
    ASSERT_EQ(dhcpSnoopElementDelete(dhcpSnoopElementSearchByIpVlanMac(&k3, DHCP_SNOOP_ELEMENT_DYNAMIC),
                                     DHCP_SNOOP_ELEMENT_DYNAMIC),
              0u);
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), high);
}

TEST_F(TableTest, SearchByMacAndVlanOnlyForVlansOneTo4094)
{
    file({10, 0, 0, 1}, 0, kMacA, port1);
    file({10, 0, 0, 2}, 4095, kMacA, port1);
    DhcpSnoopElement *top = file({10, 0, 0, 3}, 4094, kMacA, port1);
    DhcpSnoopElement k = key({0, 0, 0, 0}, 0, kMacA);
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    k.vlan = 4095;
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    k.vlan = 4094;
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), top);
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(nullptr, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    EXPECT_EQ(dhcpSnoopElementSearchByMacAndVlan(&k, 5), nullptr);
}

// ---- the suspension gate ------------------------------------------------------------------------

TEST_F(TableTest, SuspendedChangesDoNothing)
{
    DhcpSnoopElement *kept = file({10, 0, 0, 20}, 1, kMacA, port1);
    drainSave();
    sim::clearRuntimeRecords();
    sim::setQAddStatus(0);

    DhcpSnoopElement *e = make({10, 0, 0, 21}, 1, kMacB, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    DhcpSnoopElement k = key({10, 0, 0, 21}, 1, kMacB);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), nullptr);
    // Even a bad selector is not looked at.
    EXPECT_EQ(dhcpSnoopElementAddNew(e, 7), 0u);

    EXPECT_EQ(dhcpSnoopElementDelete(kept, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    k = key({10, 0, 0, 20}, 1, kMacA);
    EXPECT_EQ(dhcpSnoopElementSearchByIpVlanMac(&k, DHCP_SNOOP_ELEMENT_DYNAMIC), kept);
    EXPECT_EQ(mallocCounter, 2u);
    EXPECT_EQ(sim::queueDepth(saveQ), 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
    EXPECT_EQ(sim::qtable().size(), 1u);

    // The caller still owns the refused element.
    EXPECT_EQ(dhcpSnoopFreeMem(e), 0u);
}

TEST_F(TableTest, FailingStatusGetterSuspendsNothing)
{
    sim::setQAddStatus(0);
    sim::failNext("swDhcpSnoopGetQAddStatus");
    file({10, 0, 0, 22}, 1, kMacA, port1);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

// ---- the save trigger ------------------------------------------------------------------------------

TEST_F(TableTest, TenDynamicChangesQueueOneSave)
{
    std::vector<DhcpSnoopElement *> v;
    for (uint8_t i = 0; i < 5; i++)
        v.push_back(file({10, 0, 2, i}, 1, kMacA, port1));
    for (DhcpSnoopElement *e : v)
        ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
    EXPECT_EQ(upMsgCnt, 1u);
    uint8_t msg = 0;
    ASSERT_TRUE(sim::queueTake(saveQ, &msg, 1));
    EXPECT_EQ(msg, 1u);

    // Once the save task took it, the next change queues again.
    upMsgCnt = 0;
    file({10, 0, 2, 9}, 1, kMacA, port1);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(TableTest, NoSaveDuringTheStartUpLoad)
{
    initFlag = 1;
    DhcpSnoopElement *e = file({10, 0, 0, 30}, 1, kMacA, port1);
    ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    initFlag = 0;
    EXPECT_EQ(sim::queueDepth(saveQ), 0u);
    EXPECT_EQ(upMsgCnt, 0u);
}

TEST_F(TableTest, FailedSaveSendLeavesTheFlagClear)
{
    sim::failNext(std::string("pal_msgQ_send:") + DHCP_SNOOP_SAVE_QUEUE_NAME);
    file({10, 0, 0, 31}, 1, kMacA, port1);
    EXPECT_EQ(sim::queueDepth(saveQ), 0u);
    EXPECT_EQ(upMsgCnt, 0u);
    file({10, 0, 0, 32}, 1, kMacA, port1);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
    EXPECT_EQ(upMsgCnt, 1u);
}

TEST_F(TableTest, SaveTriggerLines)
{
    sim::setDebugFlag(1);
    file({10, 0, 0, 33}, 1, kMacA, port1);
    EXPECT_TRUE(sim::hasMessage("upMsgCnt:0, initFlag:0"));
    EXPECT_EQ(sim::countMessage("save dyn entry"), 1u);
    sim::clearLogs();
    file({10, 0, 0, 34}, 1, kMacA, port1);
    EXPECT_TRUE(sim::hasMessage("updateDynTableQ"));
    EXPECT_TRUE(sim::hasMessage("upMsgCnt:1, initFlag:0"));
    EXPECT_FALSE(sim::hasMessage("save dyn entry"));
}

// ---- request table, bad arguments, sync failures -------------------------------------------------

TEST_F(TableTest, RequestTableChangesHaveNoSideEffects)
{
    DhcpSnoopElement *e = file({10, 0, 0, 40}, 1, kMacA, port1, 100, DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    // A request with the same IP and VLAN replaces the older one, quietly.
    DhcpSnoopElement *f = file({10, 0, 0, 40}, 1, kMacB, port2, 100, DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(tableMemPoolUnused, e);
    ASSERT_EQ(dhcpSnoopElementDelete(f, DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(sim::queueDepth(saveQ), 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
    EXPECT_TRUE(sim::qtable().empty());
}

TEST_F(TableTest, NullElementAndBadSelectorAreRefused)
{
    EXPECT_EQ(dhcpSnoopElementAddNew(nullptr, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(dhcpSnoopElementDelete(nullptr, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    DhcpSnoopElement *e = make({10, 0, 0, 41}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, 2), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    DhcpSnoopElement *f = file({10, 0, 0, 42}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementDelete(f, 2), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(mallocCounter, 2u);
    EXPECT_EQ(dhcpSnoopFreeMem(e), 0u);
}

TEST_F(TableTest, DeletingAnUnfiledElementLeavesItsBucketAlone)
{
    DhcpSnoopElement *filed = file({10, 0, 0, 46}, 1, kMacA, port1);
    DhcpSnoopElement *loose = make({10, 0, 3, 46}, 1, kMacB, port1);
    sim::setDebugFlag(1);
    // Not in the table: refused and left to its taker, never given back twice.
    EXPECT_EQ(dhcpSnoopElementDelete(loose, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::hasMessage("Element is not in the dynamic table."));
    EXPECT_EQ(chain(DHCP_SNOOP_ELEMENT_DYNAMIC, 46), std::vector<DhcpSnoopElement *>{filed});
    EXPECT_EQ(mallocCounter, 2u);
    EXPECT_EQ(loose->vlan, 1);
    EXPECT_EQ(dhcpSnoopFreeMem(loose), 0u);
    EXPECT_EQ(mallocCounter, 1u);
}

TEST_F(TableTest, SecondDeleteOfTheSameElementChangesNothing)
{
    DhcpSnoopElement *e = file({10, 0, 0, 47}, 1, kMacA, port1);
    ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    uint32_t freeBefore = freeListCount();
    EXPECT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(freeListCount(), freeBefore);
    EXPECT_EQ(mallocCounter, 0u);
    // Filed in the other table only: not this one's to remove.
    DhcpSnoopElement *r = file({10, 0, 0, 48}, 1, kMacA, port1, 100, DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(dhcpSnoopElementDelete(r, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
}

TEST_F(TableTest, FilingAnElementTwiceIsRefused)
{
    DhcpSnoopElement *e = file({10, 0, 0, 49}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(chain(DHCP_SNOOP_ELEMENT_DYNAMIC, 49), std::vector<DhcpSnoopElement *>{e});
    DhcpSnoopElement outside;
    memset(&outside, 0, sizeof outside);
    outside.vlan = 1;
    EXPECT_EQ(dhcpSnoopElementAddNew(&outside, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(TableTest, FailedAddSyncKeepsTheBindingFiled)
{
    sim::setDebugFlag(1);
    sim::failNext("stkUsoRuntimeDataSync", 5);
    DhcpSnoopElement *e = make({10, 0, 0, 43}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1320u);
    EXPECT_TRUE(sim::hasMessage("E - 5 call stkUsoRuntimeDataSync(MID_DHCP, &usoData) failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(sim::qtable().size(), 1u);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(TableTest, FailedDeleteSyncStillFreesTheElement)
{
    DhcpSnoopElement *e = file({10, 0, 0, 44}, 1, kMacA, port1);
    sim::setDebugFlag(1);
    sim::clearRuntimeRecords();
    sim::failNext("stkUsoRuntimeDataSync", 6);
    EXPECT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1320u);
    EXPECT_TRUE(sim::hasMessage("E - 6 call stkUsoRuntimeDataSync(MID_DHCP, &usoData) failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_TRUE(sim::qtable().empty());
}

TEST_F(TableTest, FailedRemovalOfTheOldBindingAbortsTheAdd)
{
    file({10, 0, 0, 45}, 1, kMacA, port1);
    sim::failNext("stkUsoRuntimeDataSync");
    DhcpSnoopElement *e = make({10, 0, 0, 45}, 1, kMacB, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1320u);
    // The old binding is gone (freed anyway), the new one was not filed.
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(dhcpSnoopFreeMem(e), 0u);
}

TEST_F(TableTest, DeleteRecordCarriesTheBinding)
{
    DhcpSnoopElement *e = make({192, 168, 1, 200}, 0x0123, kMacB, port2, 0x01020304u);
    e->xid[0] = 0xDE;
    e->xid[3] = 0xEF;
    ASSERT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    ASSERT_EQ(sim::runtimeRecords().size(), 2u);
    for (size_t i = 0; i < 2; i++) {
        const std::vector<uint8_t> &b = sim::runtimeRecords()[i];
        ASSERT_EQ(b.size(), 48u);
        EXPECT_EQ(b[0], 0);
        EXPECT_EQ(b[1], 0);
        EXPECT_EQ(b[2], 0);
        EXPECT_EQ(b[3], i == 0 ? 1 : 2);
        // ttl, big-endian.
        EXPECT_EQ(b[4], 0x01);
        EXPECT_EQ(b[5], 0x02);
        EXPECT_EQ(b[6], 0x03);
        EXPECT_EQ(b[7], 0x04);
        EXPECT_EQ(b[16], 0x01);  // vlan
        EXPECT_EQ(b[17], 0x23);
        EXPECT_EQ(b[18], DHCP_SNOOP_TYPE_ACK);
        EXPECT_EQ(std::vector<uint8_t>(b.begin() + 20, b.begin() + 26),
                  std::vector<uint8_t>(kMacB.begin(), kMacB.end()));
        EXPECT_EQ(std::vector<uint8_t>(b.begin() + 27, b.begin() + 31), (std::vector<uint8_t>{192, 168, 1, 200}));
        EXPECT_EQ(b[31], 0xDE);  // xid
        EXPECT_EQ(b[34], 0xEF);
        EXPECT_EQ(b[35], 0x00);  // reserved
        EXPECT_EQ(b[36], 0x01);  // port kind
        EXPECT_EQ(b[37], 0x01);  // unit
        EXPECT_EQ(b[38], 0x00);  // slot
        EXPECT_EQ(b[39], 0x02);  // port
    }
}

TEST_F(TableTest, AddLinesWithEntryLevel)
{
    sim::setDebugFlag(1);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_ENTRY;
    std::string port = sim::portName(port1);
    file({10, 0, 0, 5}, 1, kMacA, port1, 100, DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(sim::messages(), (std::vector<std::string>{
                                   "Add new element, client IP:10.0.0.5, type:1",
                                   "add pos:5",
                                   "first node of pos 5",
                                   "Add requset table binding entry:\n src IP:10.0.0.5, src "
                                   "MAC:00:11:22:33:44:55, vlan:1, port:" + port + ", ttl:100",
                               }));
    sim::clearLogs();
    DhcpSnoopElement *e = file({10, 0, 1, 133}, 1, kMacA, port1, 100, DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(sim::messages(), (std::vector<std::string>{
                                   "Add new element, client IP:10.0.1.133, type:1",
                                   "add pos:5",
                                   "insert to pos 5",
                                   "Add requset table binding entry:\n src IP:10.0.1.133, src "
                                   "MAC:00:11:22:33:44:55, vlan:1, port:" + port + ", ttl:100",
                               }));
    sim::clearLogs();
    ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(sim::messages(), (std::vector<std::string>{
                                   "Del element, client IP:10.0.1.133, type:1",
                                   "del pos:5",
                                   "remove element",
                                   "Delete requset table binding entry:\n src IP:10.0.1.133, src "
                                   "MAC:00:11:22:33:44:55, vlan:1, port:" + port + ", ttl:100",
                                   "free element",
                                   "dhcpSnoopFreeMem",
                               }));
}

TEST_F(TableTest, DynamicAddLinesInOrder)
{
    sim::setDebugFlag(1);
    std::string port = sim::portName(port1);
    file({10, 0, 0, 6}, 1, kMacA, port1);
    EXPECT_EQ(sim::messages(), (std::vector<std::string>{
                                   "Add new element, client IP:10.0.0.6, type:0",
                                   "add pos:6",
                                   "first node of pos 6",
                                   "updateDynTableQ",
                                   "upMsgCnt:0, initFlag:0",
                                   "save dyn entry",
                                   "dhcpSnoopAdd2QTable",
                                   "Add QTable, vid: 1, IP: 10.0.0.6, port: " + port,
                                   "add qtable, vid: 1   IP: 10.0.0.6, port: " + port,
                                   "Add binding table entry successfully:\n src IP:10.0.0.6, src "
                                   "MAC:00:11:22:33:44:55, vlan:1, port:" + port,
                                   "runtime data sync.",
                               }));
    // Without the entry level no binding line is written.
    EXPECT_EQ(debugLevel, 0u);
}

// ---- administrative removal through the queue ------------------------------------------------

TEST_F(TableTest, TypeElevenRemovesTheBindingEndToEnd)
{
    file({10, 0, 0, 50}, 3, kMacA, port1);
    drainSave();
    sim::clearRuntimeRecords();
    ASSERT_EQ(sim::qtable().size(), 1u);

    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_DEL_BINDING;
    DhcpSnoopElement k = key({10, 0, 0, 50}, 3, kMacA);
    msg.element = k;
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0u);
    EXPECT_EQ(simrun::pumpMain(), 1u);

    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_TRUE(sim::qtable().empty());
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    Record r = readRecord(sim::runtimeRecords()[0]);
    EXPECT_EQ(r.op, 2u);
    EXPECT_EQ(r.ip, (Ip{10, 0, 0, 50}));
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(TableTest, TypeElevenWithAnotherMacRemovesNothing)
{
    file({10, 0, 0, 51}, 3, kMacA, port1);
    sim::setDebugFlag(1);
    sim::clearLogs();
    DhcpSnoopMsg msg;
    memset(&msg, 0, sizeof msg);
    msg.type = DHCP_SNOOP_MSG_DEL_BINDING;
    msg.element = key({10, 0, 0, 51}, 3, kMacB);
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0u);
    sim::clearLogs();
    simrun::pumpMain();
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(sim::qtable().size(), 1u);
    ASSERT_EQ(sim::logs().size(), 1u);
    EXPECT_TRUE(sim::logs()[0].error);
    EXPECT_EQ(sim::logs()[0].message(), "not found!!!!!!");
}

// ---- aging ---------------------------------------------------------------------------------

class AgingTest : public TableTest {};

TEST_F(AgingTest, TtlOneIsRemovedOnTheSecondPass)
{
    DhcpSnoopElement *e = file({10, 0, 0, 60}, 1, kMacA, port1, 1);
    drainSave();
    sim::clearRuntimeRecords();
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    ASSERT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(e->ttl, 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
    // Removal by age has the side effects of any removal.
    EXPECT_TRUE(sim::qtable().empty());
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(readRecord(sim::runtimeRecords()[0]).op, 2u);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(AgingTest, RequestEntriesAgeToo)
{
    file({10, 0, 0, 61}, 1, kMacA, port1, 1, DHCP_SNOOP_ELEMENT_REQUEST);
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 1u);
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_REQUEST);
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    EXPECT_EQ(sim::queueDepth(saveQ), 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
}

TEST_F(AgingTest, ForeverNeverChanges)
{
    DhcpSnoopElement *e = file({10, 0, 0, 62}, 1, kMacA, port1, DHCP_SNOOP_TTL_FOREVER);
    for (int i = 0; i < 5; i++)
        dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(e->ttl, DHCP_SNOOP_TTL_FOREVER);
    // One below never-expires does count down.
    DhcpSnoopElement *f = file({10, 0, 0, 63}, 1, kMacA, port1, DHCP_SNOOP_TTL_FOREVER - 1);
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    EXPECT_EQ(f->ttl, DHCP_SNOOP_TTL_FOREVER - 2);
    EXPECT_EQ(e->ttl, DHCP_SNOOP_TTL_FOREVER);
}

TEST_F(AgingTest, SuspendedExpiredEntryStaysAndIsReportedEachPass)
{
    DhcpSnoopElement *e = file({10, 0, 0, 64}, 1, kMacA, port1, 0);
    sim::setQAddStatus(0);
    sim::setDebugFlag(1);
    sim::clearLogs();
    for (int i = 0; i < 3; i++)
        dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_EQ(e->ttl, 0u);
    EXPECT_EQ(sim::countMessage("Dynamic table entry expired, hash pos:64."), 3u);
    EXPECT_EQ(sim::countMessage("dynamic ageing count =1\n"), 3u);
    EXPECT_EQ(sim::qtable().size(), 1u);
}

TEST_F(AgingTest, EmptiedBucketLeavesTheOthersVisited)
{
    DhcpSnoopElement *a = file({10, 0, 0, 5}, 1, kMacA, port1, 0);
    DhcpSnoopElement *b = file({10, 0, 1, 133}, 1, kMacA, port1, 0);
    DhcpSnoopElement *c = file({10, 0, 2, 5}, 1, kMacA, port1, 0);
    (void)a;
    (void)b;
    (void)c;
    file({10, 0, 0, 6}, 1, kMacA, port1, 0);
    DhcpSnoopElement *later = file({10, 0, 0, 7}, 1, kMacA, port1, 3);
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    EXPECT_EQ(dynamicTable[5], nullptr);
    EXPECT_EQ(dynamicTable[6], nullptr);
    EXPECT_EQ(chain(DHCP_SNOOP_ELEMENT_DYNAMIC, 7), std::vector<DhcpSnoopElement *>{later});
    EXPECT_EQ(later->ttl, 2u);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE - 1);
}

TEST_F(AgingTest, WalkStopsAtTheFreeListHead)
{
    DhcpSnoopElement *e = file({10, 0, 0, 3}, 1, kMacA, port1, 5);
    DhcpSnoopElement *freeHead = tableMemPoolUnused;
    ASSERT_NE(freeHead, nullptr);
    // A chain that has run into the free list (its zeroed elements would
    // otherwise look expired).
    e->next = freeHead;
    sim::setDebugFlag(1);
    sim::clearLogs();
    dhcpSnoopCheckAging(DHCP_SNOOP_ELEMENT_DYNAMIC);
    e->next = nullptr;
    EXPECT_EQ(e->ttl, 4u);
    EXPECT_EQ(freeHead->ttl, 0u);
    EXPECT_EQ(tableMemPoolUnused, freeHead);
    EXPECT_EQ(mallocCounter, 1u);
    EXPECT_TRUE(sim::messages().empty());
}

TEST_F(AgingTest, BadSelectorDoesNothing)
{
    DhcpSnoopElement *e = file({10, 0, 0, 65}, 1, kMacA, port1, 4);
    dhcpSnoopCheckAging(2);
    EXPECT_EQ(e->ttl, 4u);
}

TEST_F(AgingTest, TimerMessageAgesDynamicThenRequest)
{
    file({10, 0, 0, 66}, 1, kMacA, port1, 0);
    file({10, 0, 0, 67}, 1, kMacA, port1, 0, DHCP_SNOOP_ELEMENT_REQUEST);
    sim::setDebugFlag(1);
    sim::clearLogs();
    ASSERT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0u);
    EXPECT_EQ(simrun::pumpMain(), 1u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC) + tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    std::vector<std::string> m = sim::messages();
    auto at = [&](const std::string &s) { return std::find(m.begin(), m.end(), s) - m.begin(); };
    ASSERT_LT(at("Dynamic table entry expired, hash pos:66."), (long)m.size());
    ASSERT_LT(at("Request table entry expired, hash pos:67."), (long)m.size());
    EXPECT_LT(at("Dynamic table entry expired, hash pos:66."), at("Request table entry expired, hash pos:67."));
    EXPECT_TRUE(sim::hasMessage("Aging entry, src IP:10.0.0.66, src MAC:00:11:22:33:44:55, vlan:1, port:" +
                                sim::portName(port1) + ", ttl:0"));
    EXPECT_TRUE(sim::hasMessage("dynamic ageing count =1\n"));
    EXPECT_TRUE(sim::hasMessage("request ageing count =0\n"));
}

TEST_F(AgingTest, FullPoolAgesOutOverSimulatedSeconds)
{
    const uint32_t kAges = 8;
    std::vector<uint32_t> ttlOf(DHCP_SNOOP_POOL_SIZE);
    for (uint32_t i = 0; i < DHCP_SNOOP_POOL_SIZE; i++) {
        ttlOf[i] = (i * 5 + i / 128) % kAges;
        DhcpSnoopElement *e = make({10, 1, (uint8_t)(i >> 7), (uint8_t)(i & 127)}, (uint16_t)(1 + i % 7), kMacA,
                                   sim::physicalPort(1, 1 + i % 28), ttlOf[i]);
        ASSERT_NE(e, nullptr) << i;
        e->clientMac[4] = (uint8_t)(i >> 8);
        e->clientMac[5] = (uint8_t)i;
        ASSERT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u) << i;
    }
    EXPECT_EQ(dhcpSnoopGetMem(), nullptr);
    EXPECT_EQ(mallocCounter, DHCP_SNOOP_POOL_SIZE);
    for (uint32_t pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++)
        ASSERT_EQ(chain(DHCP_SNOOP_ELEMENT_DYNAMIC, pos).size(), 8u) << pos;
    EXPECT_EQ(sim::qtable().size(), DHCP_SNOOP_POOL_SIZE);

    // ttl n is gone after n+1 ticks.
    for (uint32_t sec = 1; sec <= kAges; sec++) {
        simrun::advance(1000);
        uint32_t left = 0;
        for (uint32_t t : ttlOf)
            left += t >= sec ? 1 : 0;
        ASSERT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), left) << "after " << sec << " s";
        ASSERT_EQ(mallocCounter, left);
        ASSERT_EQ(sim::qtable().size(), left);
    }
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(freeListCount(), DHCP_SNOOP_POOL_SIZE);
    EXPECT_TRUE(sim::qtable().empty());
    for (uint32_t pos = 0; pos < DHCP_SNOOP_HASH_SIZE; pos++)
        EXPECT_EQ(dynamicTable[pos], nullptr);
    size_t adds = 0, dels = 0;
    for (const auto &r : sim::runtimeRecords()) {
        uint32_t op = readRecord(r).op;
        adds += op == 1;
        dels += op == 2;
    }
    EXPECT_EQ(adds, DHCP_SNOOP_POOL_SIZE);
    EXPECT_EQ(dels, DHCP_SNOOP_POOL_SIZE);
}

// ---- source-guard table -----------------------------------------------------------------------

class QTableTest : public TableTest {
protected:
    static SwQTableEntry stale(Ip ip, uint8_t source, const sim::Mac &mac)
    {
        SwQTableEntry q;
        memset(&q, 0, sizeof q);
        memcpy(q.ip, ip.data(), 4);
        memcpy(q.mac, mac.data(), 6);
        q.source = source;
        q.vlan = 99;
        return q;
    }
};

TEST_F(QTableTest, RecordHasItsFieldsAndNothingElse)
{
    sim::setIncludeArpDefend(true);
    sim::setIncludeIpFilter(false);
    file({172, 16, 0, 9}, 300, kMacB, port2);
    ASSERT_EQ(sim::qtable().size(), 1u);
    const SwQTableEntry &q = sim::qtable()[0];
    const uint8_t *b = reinterpret_cast<const uint8_t *>(&q);
    EXPECT_EQ(std::vector<uint8_t>(b, b + 4), (std::vector<uint8_t>{172, 16, 0, 9}));
    EXPECT_EQ(memcmp(b + 4, kMacB.data(), 6), 0);
    EXPECT_EQ(q.vlan, 300);
    EXPECT_EQ(q.port, port2);
    EXPECT_EQ(b[16], 3);
    EXPECT_EQ(b[17], '-');
    EXPECT_EQ(b[18], '-');
    EXPECT_EQ(b[19], '-');
    for (int i = 20; i < 108; i++)
        ASSERT_EQ(b[i], 0) << i;
    EXPECT_EQ(b[108], 1);
    for (int i = 109; i < 120; i++)
        ASSERT_EQ(b[i], 0) << i;
}

TEST_F(QTableTest, IncludeMaskFollowsTheTwoSettings)
{
    struct Case {
        bool arp, ip;
        uint8_t mask;
    } cases[] = {{true, false, 1}, {false, true, 2}, {true, true, 3}, {false, false, 0}};
    uint8_t last = 0;
    for (const Case &c : cases) {
        sim::setIncludeArpDefend(c.arp);
        sim::setIncludeIpFilter(c.ip);
        file({10, 0, 9, ++last}, 1, kMacA, port1);
        ASSERT_FALSE(sim::qtable().empty());
        EXPECT_EQ(sim::qtable().back().includeMask, c.mask) << c.arp << c.ip;
    }
}

TEST_F(QTableTest, UnreadableSettingCountsAsOff)
{
    sim::setDebugFlag(1);
    sim::setIncludeArpDefend(true);
    sim::setIncludeIpFilter(true);
    sim::failNext("getIncludeArpDefend", 8);
    file({10, 0, 9, 1}, 1, kMacA, port1);
    ASSERT_EQ(sim::qtable().size(), 1u);
    EXPECT_EQ(sim::qtable()[0].includeMask, 2);
    EXPECT_TRUE(sim::hasMessage("E - 8 call getIncludeArpDefend(&arpDefend) failed."));
}

TEST_F(QTableTest, RenewedBindingReplacesTheStaleEntry)
{
    sim::qtableInsert(stale({10, 0, 0, 70}, QTABLE_SOURCE_DHCP_SNOOP, kMacB));
    sim::qtableInsert(stale({10, 0, 0, 70}, QTABLE_SOURCE_DHCP_SNOOP, kMacB));
    sim::qtableInsert(stale({10, 0, 0, 70}, 1, kMacB));  // another feature's entry
    file({10, 0, 0, 70}, 1, kMacA, port1);
    ASSERT_EQ(sim::qtable().size(), 2u);
    EXPECT_EQ(sim::qtable()[0].source, 1);
    EXPECT_EQ(sim::qtable()[1].source, QTABLE_SOURCE_DHCP_SNOOP);
    EXPECT_EQ(memcmp(sim::qtable()[1].mac, kMacA.data(), 6), 0);
    EXPECT_EQ(sim::qtable()[1].vlan, 1);

    // Renewing the lease on another port keeps one entry.
    file({10, 0, 0, 70}, 1, kMacA, port2);
    ASSERT_EQ(sim::qtable().size(), 2u);
    EXPECT_EQ(sim::qtable()[1].port, port2);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
}

TEST_F(QTableTest, PortChannelBindingIsSyncedButNotGuarded)
{
    sim::setDebugFlag(1);
    up po = sim::portChannel(2);
    DhcpSnoopElement *e = file({10, 0, 0, 71}, 1, kMacA, po);
    EXPECT_NE(e, nullptr);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::qtable().empty());
    EXPECT_TRUE(sim::hasMessage(
        "DHCP packet received from a port channel, don't add binding entry to binding table."));
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    const std::vector<uint8_t> &b = sim::runtimeRecords()[0];
    EXPECT_EQ(be32(b, 0), 1u);
    EXPECT_EQ(b[36], 0x02);  // port kind: port channel
    EXPECT_EQ(be32(b, 36), po);
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(QTableTest, ProvisioningPortBindingIsSyncedButNotGuarded)
{
    sim::setDebugFlag(1);
    up port = sim::physicalPort(1, 9);
    sim::setProvision(port, true);
    file({10, 0, 0, 72}, 1, kMacA, port);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::qtable().empty());
    EXPECT_TRUE(sim::hasMessage("DHCP packet received from a provisioning port, return."));
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(readRecord(sim::runtimeRecords()[0]).port, port);
}

TEST_F(QTableTest, RemovalAlwaysGoesByAddressAndSource)
{
    up po = sim::portChannel(1);
    DhcpSnoopElement *e = file({10, 0, 0, 73}, 1, kMacA, po);
    // An entry for the address made elsewhere goes with the binding.
    sim::qtableInsert(stale({10, 0, 0, 73}, QTABLE_SOURCE_DHCP_SNOOP, kMacB));
    ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    ASSERT_EQ(sim::runtimeRecords().size(), 2u);
    EXPECT_EQ(readRecord(sim::runtimeRecords()[1]).op, 2u);
}

TEST_F(QTableTest, ExistsAnswerCountsAsSuccess)
{
    sim::setDebugFlag(1);
    sim::failNext("swQTableAdd", QTABLE_RESULT_EXISTS);
    DhcpSnoopElement *e = make({10, 0, 0, 74}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::hasMessage("Add binding table entry successfully:\n src IP:10.0.0.74, src "
                                "MAC:00:11:22:33:44:55, vlan:1, port:" +
                                sim::portName(port1)));
    for (const auto &l : sim::logs())
        EXPECT_FALSE(l.error) << l.message();
    EXPECT_EQ(sim::runtimeRecords().size(), 1u);
}

TEST_F(QTableTest, ToleratedAnswerIsReportedAndStillSynced)
{
    sim::setDebugFlag(1);
    sim::failNext("swQTableAdd", QTABLE_RESULT_TOLERATED);
    DhcpSnoopElement *e = make({10, 0, 0, 75}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    size_t errors = 0;
    for (const auto &l : sim::logs()) {
        if (l.error) {
            errors++;
            EXPECT_EQ(l.message(), "Add binding table entry failed:\n src IP:10.0.0.75, src "
                                   "MAC:00:11:22:33:44:55, vlan:1, port:" +
                                       sim::portName(port1));
        }
    }
    EXPECT_EQ(errors, 1u);
    ASSERT_EQ(sim::runtimeRecords().size(), 1u);
    EXPECT_EQ(readRecord(sim::runtimeRecords()[0]).op, 1u);
}

TEST_F(QTableTest, OtherAddFailureEndsTheAddWithoutSync)
{
    sim::setDebugFlag(1);
    sim::failNext("swQTableAdd", 7);
    DhcpSnoopElement *e = make({10, 0, 0, 76}, 1, kMacA, port1);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 7u);
    EXPECT_TRUE(sim::hasMessage("Add binding table entry failed:\n src IP:10.0.0.76, src "
                                "MAC:00:11:22:33:44:55, vlan:1, port:" +
                                sim::portName(port1)));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
    EXPECT_EQ(sim::queueDepth(saveQ), 1u);
}

TEST_F(QTableTest, InvalidPortEndsTheAddAndTheDelete)
{
    sim::setDebugFlag(1);
    up bad = UP_MAKE(1, 1, 0, 60);
    ASSERT_EQ(inner_up_is_valid(bad), 0u);
    DhcpSnoopElement *e = make({10, 0, 0, 77}, 1, kMacA, bad);
    EXPECT_EQ(dhcpSnoopElementAddNew(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::hasMessage("Bad parameter."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::runtimeRecords().empty());

    sim::clearLogs();
    EXPECT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 1u);
    EXPECT_TRUE(sim::hasMessage("Bad parameter."));
    EXPECT_TRUE(sim::hasMessage("E - 1 call dhcpSnoopDelFromQTable(pElement) failed."));
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
}

TEST_F(QTableTest, FailedEntryDeletionIsReportedAndTheElementFreed)
{
    DhcpSnoopElement *e = file({10, 0, 0, 78}, 1, kMacA, port1);
    sim::clearRuntimeRecords();
    sim::setDebugFlag(1);
    sim::failNext("swQTableDel", 9);
    EXPECT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 9u);
    EXPECT_TRUE(sim::hasMessage("Delete binding table entry fail:\n src IP:10.0.0.78, src "
                                "MAC:00:11:22:33:44:55, vlan:1, port:" +
                                sim::portName(port1) + ",err 9"));
    EXPECT_TRUE(sim::hasMessage("E - 9 call dhcpSnoopDelFromQTable(pElement) failed."));
    EXPECT_EQ(mallocCounter, 0u);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::runtimeRecords().empty());
    EXPECT_EQ(sim::qtable().size(), 1u);
}

TEST_F(QTableTest, DeletionRemovesEveryEntryOfTheAddress)
{
    DhcpSnoopElement *e = file({10, 0, 0, 79}, 1, kMacA, port1);
    sim::qtableInsert(stale({10, 0, 0, 79}, QTABLE_SOURCE_DHCP_SNOOP, kMacB));
    sim::setDebugFlag(1);
    ASSERT_EQ(dhcpSnoopElementDelete(e, DHCP_SNOOP_ELEMENT_DYNAMIC), 0u);
    EXPECT_TRUE(sim::qtable().empty());
    EXPECT_EQ(sim::countMessage("Delete binding table entry successfully:\n src IP:10.0.0.79, src "
                                "MAC:00:11:22:33:44:55, vlan:1, port:" +
                                sim::portName(port1)),
              2u);
}

TEST_F(QTableTest, FailedStaleRemovalStillAdds)
{
    sim::qtableInsert(stale({10, 0, 0, 80}, QTABLE_SOURCE_DHCP_SNOOP, kMacB));
    sim::setDebugFlag(1);
    sim::failNext("swQTableDel");
    file({10, 0, 0, 80}, 1, kMacA, port1);
    EXPECT_TRUE(sim::hasMessage("delete fail"));
    ASSERT_EQ(sim::qtable().size(), 2u);
    EXPECT_EQ(memcmp(sim::qtable()[1].mac, kMacA.data(), 6), 0);
    EXPECT_EQ(sim::runtimeRecords().size(), 1u);
}

TEST_F(QTableTest, RequestEntriesNeverReachTheSourceGuard)
{
    file({10, 0, 0, 81}, 1, kMacA, port1, 100, DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_TRUE(sim::qtable().empty());
}

}  // namespace
