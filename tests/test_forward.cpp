// Forwarding: egress selection, transmission, the FDB look-up and its cache
// task.
#include <atomic>
#include <chrono>
#include <thread>

#include "forward_harness.h"

namespace {

const fb::Mac kClient = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const fb::Mac kServer = {0x00, 0x53, 0x00, 0x00, 0x00, 0x01};

PortList listOf(std::initializer_list<std::pair<uint32_t, uint32_t>> bits)
{
    PortList l;
    std::memset(&l, 0, sizeof l);
    for (auto [w, b] : bits)
        l.word[w] |= 1u << b;
    return l;
}

PortList pattern()
{
    PortList l;
    for (uint32_t i = 0; i < 6; i++)
        l.word[i] = 0xA5A50000u + i;
    return l;
}

bool sameList(const PortList &a, const PortList &b) { return std::memcmp(&a, &b, sizeof a) == 0; }

FdbEntry key(const fb::Mac &mac, uint32_t vlan)
{
    FdbEntry e;
    std::memset(&e, 0, sizeof e);
    std::memcpy(e.mac, mac.data(), 6);
    e.vlan = vlan;
    return e;
}

class EgressTest : public ForwardTest {};
class SendTest : public ForwardTest {};
class FdbCacheTest : public ForwardTest {
protected:
    // One request through the cache task, as its loop hands it over.
    void notify(const fb::Mac &mac, uint32_t vlan)
    {
        FdbEntry m = key(mac, vlan);
        dhcpSnoopGetFdbEntryTaskHandle(&m);
    }
    static fb::Mac macN(uint32_t n)
    {
        return {0x02, 0x00, 0x00, (uint8_t)(n >> 16), (uint8_t)(n >> 8), (uint8_t)n};
    }
    static bool slotIs(uint32_t i, const fb::Mac &mac, uint32_t vlan, up port, uint32_t word)
    {
        const FdbEntry &s = gFdbEntryPool[i];
        return std::memcmp(s.mac, mac.data(), 6) == 0 && s.vlan == vlan && s.port == port && s.word == word &&
               s.zero[0] == 0 && s.zero[1] == 0;
    }
    std::vector<uint8_t> cacheImage() const
    {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(gFdbEntryPool);
        return std::vector<uint8_t>(p, p + sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS);
    }
};

// ---- egress selection -----------------------------------------------------------------

TEST_F(EgressTest, BroadcastFloodsWithoutLookupExcludingTheReceivePort)
{
    up port = sim::physicalPort(1, 5);
    load(fb::discover(), port, 10);
    PortList list = pattern();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_TRUE(sim::fdbLookups().empty());
    EXPECT_TRUE(sameList(list, listOf({{0, 5}})));
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_FLOOD);
    EXPECT_TRUE(sim::hasMessage("broadcast."));
    EXPECT_FALSE(sim::hasMessage("unicast."));
}

TEST_F(EgressTest, UnknownUnicastIsFloodedLikeABroadcast)
{
    up port = sim::physicalPort(1, 7);
    load(fb::offer(), port, 20);
    PortList list = pattern();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    ASSERT_EQ(sim::fdbLookups().size(), 1u);
    EXPECT_EQ(sim::fdbLookups()[0].mac, kClient);
    EXPECT_EQ(sim::fdbLookups()[0].vlan, 20u);
    EXPECT_TRUE(sameList(list, listOf({{0, 7}})));
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_FLOOD);
    EXPECT_TRUE(sim::hasMessage("unicast."));
    EXPECT_TRUE(sim::hasMessage("rv:1"));
    EXPECT_TRUE(sim::hasMessage("no fdb entry, broadcast."));
}

TEST_F(EgressTest, DestinationBehindTheReceivePortGetsAnEmptyListAndNoFlag)
{
    up port = sim::physicalPort(1, 3);
    sim::fdbSet(kClient, 20, port);
    load(fb::offer(), port, 20);
    pkt.sendFlags = SEND_FLAG_0X40;
    PortList list = pattern();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_TRUE(sameList(list, PortList{}));
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_0X40);
    EXPECT_TRUE(sim::hasMessage("RCV port equals dst port."));

    // And the send delivers it nowhere.
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, list), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sim::portsIn(sim::sent()[0].ports).empty());
    EXPECT_EQ(sim::sent()[0].sendFlags & (SEND_FLAG_FLOOD | SEND_FLAG_BY_FDB), 0u);
}

TEST_F(EgressTest, DestinationBehindTheReceivePortChannelIsNotDelivered)
{
    up po = sim::portChannel(2);
    sim::fdbSet(kClient, 20, po);
    load(fb::offer(), po, 20);
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_TRUE(sameList(list, PortList{}));
    EXPECT_EQ(pkt.sendFlags, 0u);
}

TEST_F(EgressTest, DestinationOnAnotherPortSetsOnlyTheTableFlagAndLeavesTheList)
{
    sim::fdbSet(kClient, 20, sim::physicalPort(1, 9));
    load(fb::offer(), sim::physicalPort(1, 3), 20);
    PortList list = pattern();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_TRUE(sameList(list, pattern()));
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_BY_FDB);
    EXPECT_TRUE(sim::hasMessage("rv:0"));
    EXPECT_TRUE(sim::hasMessage("forward pass through"));
}

TEST_F(EgressTest, ValidUnitWithSlotAndPortZeroCountsAsNotFound)
{
    sim::fdbSet(kClient, 20, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 0));
    load(fb::offer(), sim::physicalPort(1, 3), 20);
    PortList list = pattern();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_TRUE(sameList(list, listOf({{0, 3}})));
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_FLOOD);
    EXPECT_TRUE(sim::hasMessage("no fdb entry, broadcast."));
}

TEST_F(EgressTest, SlotAndPortZeroOfAnAbsentUnitCountsAsFound)
{
    sim::fdbSet(kClient, 20, UP_MAKE(UP_TYPE_PHYSICAL, 4, 0, 0));
    load(fb::offer(), sim::physicalPort(1, 3), 20);
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_BY_FDB);
    EXPECT_TRUE(sameList(list, pattern()));
}

TEST_F(EgressTest, FailedLookupFloods)
{
    sim::fdbSet(kClient, 20, sim::physicalPort(1, 9));
    sim::failNext("swFdbGetEntry", 5);
    load(fb::offer(), sim::physicalPort(1, 3), 20);
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_FLOOD);
    EXPECT_TRUE(sameList(list, listOf({{0, 3}})));
}

uint32_t gSlot5Calls;
FdbEntry gSlot5Key;
uint32_t slot5Stub(FdbEntry *e)
{
    ++gSlot5Calls;
    gSlot5Key = *e;
    e->port = UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 12);
    return 0;
}

TEST_F(EgressTest, LookupGoesThroughServiceTableSlotFive)
{
    gSlot5Calls = 0;
    DSLib.fdbGetEntry = slot5Stub;
    load(fb::offer(), sim::physicalPort(1, 3), 33);
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_EQ(gSlot5Calls, 1u);
    EXPECT_EQ(std::memcmp(gSlot5Key.mac, kClient.data(), 6), 0);
    EXPECT_EQ(gSlot5Key.vlan, 33u);
    EXPECT_EQ(gSlot5Key.zero[0] | gSlot5Key.zero[1], 0);
    EXPECT_EQ(gSlot5Key.port, 0u);
    EXPECT_EQ(gSlot5Key.word, 0u);
    EXPECT_TRUE(sim::fdbLookups().empty());
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_BY_FDB);
}

TEST_F(EgressTest, NullMacHeaderIsAnError)
{
    load(fb::discover(), sim::physicalPort(1, 3), 1);
    pkt.frame = nullptr;
    PortList list = pattern();
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0xFFFFFFFFu);
    EXPECT_TRUE(sameList(list, pattern()));
    EXPECT_EQ(pkt.sendFlags, 0u);
    ASSERT_EQ(sim::logs().size(), 1u);
    EXPECT_TRUE(sim::logs()[0].error);
    EXPECT_EQ(sim::logs()[0].message(), "Packet's mac header is NULL!");
}

TEST_F(EgressTest, FrameShorterThanAMacAddressIsAnError)
{
    load(fb::discover(), sim::physicalPort(1, 3), 1);
    pkt.frameLen = 5;
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0xFFFFFFFFu);
    EXPECT_TRUE(sameList(list, pattern()));
}

TEST_F(EgressTest, NullArgumentsAreRefused)
{
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(nullptr, &list), 1u);
    load(fb::discover(), sim::physicalPort(1, 3), 1);
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, nullptr), 1u);
}

// The PortList bit rules, through the flood list of the receive port.
struct BitCase {
    up port;
    uint32_t word;  // 6: no bit
    uint32_t bit;
};

TEST_F(EgressTest, PortListBitsFollowThePortKind)
{
    const BitCase cases[] = {
        {UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 1), 0, 1},
        {UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 31), 0, 31},
        {UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 32), 1, 0},
        {UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 33), 1, 1},
        {UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 64), 2, 0},
        {UP_MAKE(UP_TYPE_PHYSICAL, 1, 1, 2), 2, 2},    // slot base 64
        {UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 5), 3, 5},    // unit 2 shares the channel words
        {UP_MAKE(UP_TYPE_PHYSICAL, 2, 0, 40), 4, 8},
        {UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 1), 3, 0},
        {UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 8), 3, 7},
        {UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 33), 4, 0},
        {UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 65), 5, 0},
        {UP_MAKE(UP_TYPE_PORT_CHANNEL, 0, 0, 97), 3, 0},  // (m / 32) mod 3
        {UP_MAKE(3, 1, 0, 5), 6, 0},                      // other kinds have none
        {UP_MAKE(UP_TYPE_PHYSICAL, 3, 0, 5), 6, 0},       // beyond the six words
        {UP_MAKE(UP_TYPE_PHYSICAL, 0, 0, 5), 6, 0},
        {UP_MAKE(UP_TYPE_PHYSICAL, 255, 3, 255), 6, 0},
    };
    for (const BitCase &c : cases) {
        SCOPED_TRACE(c.port);
        load(fb::discover(), c.port, 1);
        PortList list = pattern();
        EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
        PortList expect{};
        if (c.word < 6)
            expect.word[c.word] = 1u << c.bit;
        EXPECT_TRUE(sameList(list, expect));
        EXPECT_EQ(pkt.sendFlags, SEND_FLAG_FLOOD);
    }
}

TEST_F(EgressTest, ReceivePortTestUsesTheSameBitRules)
{
    // The FDB names port 33 of unit 1 (word 1, bit 1); the packet came in
    // with exactly that bit.
    up port = UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 33);
    sim::fdbSet(kClient, 20, port);
    load(fb::offer(), sim::physicalPort(1, 2), 20);
    pkt.ports = listOf({{1, 1}});
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_TRUE(sameList(list, PortList{}));
    // Bit 1 of word 0 is port 1, not port 33.
    pkt.ports = listOf({{0, 1}});
    list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_BY_FDB);
}

// ---- transmission --------------------------------------------------------------------

TEST_F(SendTest, NullPacketIsRefused)
{
    EXPECT_EQ(dhcpSnoopPacketSend(nullptr, PortList{}), 1u);
    EXPECT_TRUE(sim::sent().empty());
}

TEST_F(SendTest, NeitherFlagAndEmptyListIsStillHandedOverWithOnlyTx)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, PortList{}), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_EQ(sim::sent()[0].sendFlags, SEND_FLAG_TX);
    EXPECT_TRUE(sameList(sim::sent()[0].ports, PortList{}));
    EXPECT_EQ(sim::sent()[0].frame, bytes);
    EXPECT_EQ(sim::sent()[0].vid, 10u);
}

TEST_F(SendTest, ExactListReplacesTheReceivePort)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    PortList list = listOf({{0, 9}, {3, 1}});
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, list), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sameList(sim::sent()[0].ports, list));
    EXPECT_EQ(sim::sent()[0].sendFlags, SEND_FLAG_TX);
}

TEST_F(SendTest, FloodExcludesTheListedPorts)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    pkt.sendFlags = SEND_FLAG_FLOOD;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 3}})), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sameList(sim::sent()[0].ports, listOf({{0, 3}})));
    EXPECT_EQ(sim::sent()[0].sendFlags, SEND_FLAG_FLOOD | SEND_FLAG_TX);
    EXPECT_TRUE(sim::hasMessage("Send broadcast"));
    // Port lines only with a debug level.
    EXPECT_EQ(sim::countMessage("Broadcast packet in vlan 10, exclude port 1/0/3"), 0u);
}

TEST_F(SendTest, FloodAndTableFlagTogetherFlood)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    pkt.sendFlags = SEND_FLAG_FLOOD | SEND_FLAG_BY_FDB | SEND_FLAG_0X40;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 3}})), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sameList(sim::sent()[0].ports, listOf({{0, 3}})));
    EXPECT_EQ(sim::sent()[0].sendFlags & SEND_FLAG_FLOOD, SEND_FLAG_FLOOD);
    EXPECT_TRUE(sim::hasMessage("Send broadcast"));
    EXPECT_FALSE(sim::hasMessage("Unicast packet according to MAC address table."));
}

TEST_F(SendTest, TableFlagClearsFloodAndBit40AndSendsToNoList)
{
    load(fb::offer(), sim::physicalPort(1, 3), 10);
    pkt.sendFlags = SEND_FLAG_BY_FDB | SEND_FLAG_0X40 | 0x100u;
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 7}})), 0u);
    ASSERT_EQ(sim::sent().size(), 1u);
    EXPECT_TRUE(sameList(sim::sent()[0].ports, PortList{}));
    EXPECT_EQ(sim::sent()[0].sendFlags, SEND_FLAG_BY_FDB | SEND_FLAG_TX | 0x100u);
    EXPECT_TRUE(sim::hasMessage("Unicast packet according to MAC address table."));
}

TEST_F(SendTest, PortLinesWithDebugLevel)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_ENTRY;
    sim::setDebugFlag(1);
    pkt.sendFlags = SEND_FLAG_FLOOD;
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 3}, {3, 1}})), 0u);
    EXPECT_EQ(sim::countMessage("Broadcast packet in vlan 10, exclude port 1/0/3"), 1u);
    EXPECT_EQ(sim::countMessage("Broadcast packet in vlan 10, exclude port po2"), 1u);

    sim::clearLogs();
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_DUMP;
    pkt.sendFlags = 0;
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 28}})), 0u);
    EXPECT_EQ(sim::countMessage("Forward packet to port 1/0/28"), 1u);
    EXPECT_EQ(sim::logs().size(), 1u);
}

TEST_F(SendTest, PortLinesNeedTheDebugSwitch)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    debugLevel = 3;
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 3}})), 0u);
    EXPECT_TRUE(sim::logs().empty());
}

TEST_F(SendTest, TransmitFailureIsReportedAndReturned)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    sim::failNext("norvikPacketSend", 9);
    sim::setDebugFlag(1);
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, PortList{}), 9u);
    EXPECT_TRUE(sim::sent().empty());
    ASSERT_FALSE(sim::logs().empty());
    EXPECT_TRUE(sim::logs().back().error);
    EXPECT_EQ(sim::logs().back().message(), "Forward packet to port failed.");
}

// ---- FDB look-up and cache ----------------------------------------------------------

TEST_F(FdbCacheTest, HitAnswersWithoutThePlatform)
{
    up port = sim::physicalPort(1, 9);
    sim::fdbSet(kServer, 5, port, 0x77);
    notify(kServer, 5);
    size_t lookups = sim::fdbLookups().size();
    sim::setDebugFlag(1);
    FdbEntry e = key(kServer, 5);
    EXPECT_EQ(dhcpSnoopFdbGetEntry(&e), 0u);
    EXPECT_EQ(e.port, port);
    EXPECT_EQ(e.word, 0x77u);
    EXPECT_EQ(sim::fdbLookups().size(), lookups);
    EXPECT_TRUE(sim::hasMessage("find an entry in gFdbEntryPool."));
    // The cache answers even after the database forgot the address.
    sim::fdbRemove(kServer, 5);
    e = key(kServer, 5);
    EXPECT_EQ(dhcpSnoopFdbGetEntry(&e), 0u);
    EXPECT_EQ(e.port, port);
}

TEST_F(FdbCacheTest, MissAsksThePlatformOnceAndLeavesTheCache)
{
    up port = sim::physicalPort(1, 11);
    sim::fdbSet(kClient, 7, port, 3);
    notify(kServer, 7);  // an unrelated slot? absent: changes nothing
    std::vector<uint8_t> before = cacheImage();
    size_t lookups = sim::fdbLookups().size();
    sim::setDebugFlag(1);
    FdbEntry e = key(kClient, 7);
    EXPECT_EQ(dhcpSnoopFdbGetEntry(&e), 0u);
    EXPECT_EQ(e.port, port);
    EXPECT_EQ(e.word, 3u);
    EXPECT_EQ(sim::fdbLookups().size(), lookups + 1);
    EXPECT_EQ(cacheImage(), before);
    EXPECT_TRUE(sim::hasMessage("IPC get FDB entry result:0"));

    e = key(kServer, 7);
    EXPECT_EQ(dhcpSnoopFdbGetEntry(&e), 1u);
    EXPECT_EQ(sim::fdbLookups().size(), lookups + 2);
    EXPECT_TRUE(sim::hasMessage("IPC get FDB entry result:1"));
    EXPECT_EQ(cacheImage(), before);
}

TEST_F(FdbCacheTest, LookupRefusesNullAndAMissingPool)
{
    EXPECT_EQ(dhcpSnoopFdbGetEntry(nullptr), 0xFFFFFFFFu);
    FdbEntry *pool = gFdbEntryPool;
    gFdbEntryPool = nullptr;
    FdbEntry e = key(kClient, 1);
    EXPECT_EQ(dhcpSnoopFdbGetEntry(&e), 0xFFFFFFFFu);
    EXPECT_EQ(dhcpSnoopGetFdbEntryTaskStart(), 1u);
    gFdbEntryPool = pool;
    EXPECT_TRUE(sim::fdbLookups().empty());
}

TEST_F(FdbCacheTest, TaskStartZeroesTheCache)
{
    std::memset(gFdbEntryPool, 0x5A, sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS);
    EXPECT_EQ(dhcpSnoopGetFdbEntryTaskStart(), 0u);
    EXPECT_EQ(cacheImage(), std::vector<uint8_t>(sizeof(FdbEntry) * DHCP_SNOOP_FDB_CACHE_SLOTS, 0));
}

TEST_F(FdbCacheTest, PresentAddressIsAddedToTheFirstEmptySlot)
{
    up port = sim::physicalPort(1, 9);
    sim::fdbSet(macN(1), 5, port, 1);
    sim::fdbSet(macN(2), 5, port, 2);
    sim::setDebugFlag(1);
    notify(macN(1), 5);
    notify(macN(2), 5);
    EXPECT_TRUE(slotIs(0, macN(1), 5, port, 1));
    EXPECT_TRUE(slotIs(1, macN(2), 5, port, 2));
    EXPECT_EQ(sim::countMessage("Execute dhcpSnoopGetFdbEntryTask."), 2u);
    EXPECT_EQ(sim::countMessage("add new entry."), 2u);
    EXPECT_TRUE(sim::hasMessage("nullIndex:0"));
    EXPECT_TRUE(sim::hasMessage("nullIndex:1"));

    // A hole is filled first.
    std::memset(&gFdbEntryPool[0], 0, sizeof(FdbEntry));
    sim::fdbSet(macN(3), 5, port, 3);
    notify(macN(3), 5);
    EXPECT_TRUE(slotIs(0, macN(3), 5, port, 3));
    EXPECT_TRUE(slotIs(1, macN(2), 5, port, 2));
}

TEST_F(FdbCacheTest, KnownAddressIsRefreshedInPlace)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    sim::fdbSet(macN(2), 5, sim::physicalPort(1, 9), 2);
    notify(macN(1), 5);
    notify(macN(2), 5);
    std::memset(&gFdbEntryPool[0], 0, sizeof(FdbEntry));  // a hole before it
    sim::fdbSet(macN(2), 5, sim::physicalPort(1, 12), 9);
    sim::setDebugFlag(1);
    notify(macN(2), 5);
    EXPECT_TRUE(slotIs(1, macN(2), 5, sim::physicalPort(1, 12), 9));
    EXPECT_TRUE(slotIs(0, fb::Mac{}, 0, 0, 0));
    EXPECT_TRUE(sim::hasMessage("update existed entry."));
    EXPECT_FALSE(sim::hasMessage("add new entry."));
}

TEST_F(FdbCacheTest, SameMacInAnotherVlanIsAnotherSlot)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9));
    sim::fdbSet(macN(1), 6, sim::physicalPort(1, 10));
    notify(macN(1), 5);
    notify(macN(1), 6);
    EXPECT_TRUE(slotIs(0, macN(1), 5, sim::physicalPort(1, 9), 0));
    EXPECT_TRUE(slotIs(1, macN(1), 6, sim::physicalPort(1, 10), 0));
}

TEST_F(FdbCacheTest, FullCacheGivesUpSlotZero)
{
    up port = sim::physicalPort(1, 9);
    for (uint32_t i = 0; i < DHCP_SNOOP_FDB_CACHE_SLOTS; i++) {
        sim::fdbSet(macN(i + 1), 5, port, i);
        notify(macN(i + 1), 5);
    }
    for (uint32_t i = 0; i < DHCP_SNOOP_FDB_CACHE_SLOTS; i++)
        ASSERT_TRUE(slotIs(i, macN(i + 1), 5, port, i)) << i;
    sim::fdbSet(macN(500), 5, sim::physicalPort(1, 2), 42);
    notify(macN(500), 5);
    EXPECT_TRUE(slotIs(0, macN(500), 5, sim::physicalPort(1, 2), 42));
    for (uint32_t i = 1; i < DHCP_SNOOP_FDB_CACHE_SLOTS; i++)
        EXPECT_TRUE(slotIs(i, macN(i + 1), 5, port, i)) << i;
}

TEST_F(FdbCacheTest, AddressTheDatabaseForgotIsDeleted)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    sim::fdbSet(macN(2), 5, sim::physicalPort(1, 9), 2);
    notify(macN(1), 5);
    notify(macN(2), 5);
    sim::fdbRemove(macN(1), 5);
    sim::setDebugFlag(1);
    notify(macN(1), 5);
    EXPECT_TRUE(slotIs(0, fb::Mac{}, 0, 0, 0));
    EXPECT_TRUE(slotIs(1, macN(2), 5, sim::physicalPort(1, 9), 2));
    EXPECT_TRUE(sim::hasMessage("delete aged entry."));
}

TEST_F(FdbCacheTest, SlotAndPortZeroOnAValidUnitDeletesToo)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    notify(macN(1), 5);
    sim::fdbSet(macN(1), 5, UP_MAKE(UP_TYPE_PHYSICAL, 1, 0, 0), 1);
    notify(macN(1), 5);
    EXPECT_TRUE(slotIs(0, fb::Mac{}, 0, 0, 0));
}

TEST_F(FdbCacheTest, UnknownAbsentAddressChangesNothing)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    notify(macN(1), 5);
    std::vector<uint8_t> before = cacheImage();
    sim::setDebugFlag(1);
    notify(macN(7), 5);
    notify(macN(1), 6);
    EXPECT_EQ(cacheImage(), before);
    EXPECT_FALSE(sim::hasMessage("delete aged entry."));
    EXPECT_FALSE(sim::hasMessage("add new entry."));
}

TEST_F(FdbCacheTest, MessageBufferIsClearedAfterEachRequest)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    FdbEntry m = key(macN(1), 5);
    dhcpSnoopGetFdbEntryTaskHandle(&m);
    FdbEntry zero;
    std::memset(&zero, 0, sizeof zero);
    EXPECT_EQ(std::memcmp(&m, &zero, sizeof m), 0);
    dhcpSnoopGetFdbEntryTaskHandle(nullptr);
}

TEST_F(FdbCacheTest, PipelineRequestsReachTheCacheThroughTheQueue)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    FdbEntry m = key(macN(1), 5);
    ASSERT_NE(pal_msgQ_send(getFdbEntryMsgQue, &m, sizeof m, 0, 0), -1);
    EXPECT_EQ(simrun::pumpFdb(), 1u);
    EXPECT_TRUE(slotIs(0, macN(1), 5, sim::physicalPort(1, 9), 1));
}

TEST_F(FdbCacheTest, LockIsFreeAfterEveryPath)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    FdbEntry e = key(macN(1), 5);
    dhcpSnoopFdbGetEntry(&e);  // miss
    notify(macN(1), 5);        // add
    dhcpSnoopFdbGetEntry(&e);  // hit
    sim::fdbRemove(macN(1), 5);
    notify(macN(1), 5);        // delete
    notify(macN(2), 5);        // nothing
    EXPECT_EQ(pal_mutex_take_int(getFdbEntryMutex, 0), 0);
    EXPECT_EQ(pal_mutex_give_int(getFdbEntryMutex), 0);
}

TEST_F(FdbCacheTest, DatabaseRequestIsMadeWithoutTheCacheLock)
{
    sim::fdbSet(macN(1), 5, sim::physicalPort(1, 9), 1);
    // Hold the cache lock: the task must still reach the database first,
    // and only then wait for the lock.
    ASSERT_EQ(pal_mutex_take_int(getFdbEntryMutex, PAL_WAIT_FOREVER), 0);
    std::atomic<bool> done{false};
    std::thread task([this, &done] {
        notify(macN(1), 5);
        done = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // Any locked call of the simulation orders the task's record before
    // the read below.
    (void)sim::framesOutstanding();
    EXPECT_EQ(sim::fdbLookups().size(), 1u);
    EXPECT_FALSE(done.load());
    EXPECT_EQ(pal_mutex_give_int(getFdbEntryMutex), 0);
    task.join();
    EXPECT_TRUE(done.load());
    EXPECT_TRUE(slotIs(0, macN(1), 5, sim::physicalPort(1, 9), 1));
}

TEST_F(FdbCacheTest, CacheFeedsTheEgressDecision)
{
    up port = sim::physicalPort(1, 9);
    sim::fdbSet(kClient, 20, port);
    notify(kClient, 20);
    sim::fdbRemove(kClient, 20);
    size_t lookups = sim::fdbLookups().size();
    load(fb::offer(), sim::physicalPort(1, 3), 20);
    PortList list = pattern();
    EXPECT_EQ(dhcpSnoopPacketSetSendFlag(&pkt, &list), 0u);
    EXPECT_EQ(pkt.sendFlags, SEND_FLAG_BY_FDB);
    EXPECT_EQ(sim::fdbLookups().size(), lookups);
}


TEST_F(SendTest, PortLogWalkSkipsAUnitWhoseWordsAreAllZero)
{
    load(fb::discover(), sim::physicalPort(1, 3), 10);
    debugLevel = DHCP_SNOOP_DEBUG_LEVEL_ENTRY;
    sim::setDebugFlag(1);
    // Only a port channel: unit 1's 64 indexes are passed over at once, so
    // index 0, then 64 to 78.
    size_t before = sim::fromIndexCalls();
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{3, 0}})), 0u);
    EXPECT_EQ(sim::fromIndexCalls() - before, 16u);
    EXPECT_EQ(sim::countMessage("Forward packet to port po1"), 1u);
    EXPECT_EQ(sim::logs().size(), 1u);

    // A port of the unit in the list: every index is walked.
    sim::clearLogs();
    before = sim::fromIndexCalls();
    EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{0, 5}, {3, 0}})), 0u);
    EXPECT_EQ(sim::fromIndexCalls() - before, 79u);
    EXPECT_EQ(sim::countMessage("Forward packet to port 1/0/5"), 1u);
    EXPECT_EQ(sim::countMessage("Forward packet to port po1"), 1u);
    EXPECT_EQ(sim::logs().size(), 2u);

    // Each of the unit's three words counts: ports 32 and 64 sit in the
    // second and the third.
    sim::setPortCount(1, 64);
    for (uint32_t port : {32u, 64u}) {
        sim::clearLogs();
        before = sim::fromIndexCalls();
        EXPECT_EQ(dhcpSnoopPacketSend(&pkt, listOf({{port / 32, port % 32}})), 0u);
        EXPECT_EQ(sim::fromIndexCalls() - before, 79u) << port;
        EXPECT_EQ(sim::countMessage("Forward packet to port 1/0/" + std::to_string(port)), 1u);
    }
}

}  // namespace
