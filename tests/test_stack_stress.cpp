// Stack callbacks running on the stacking service's threads while the main
// task files, removes and ages bindings: built with ThreadSanitizer by the
// test command, and an ordinary consistency test in the other builds.
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "snooping/dhcpSnoopWire.h"
#include "support/fixture.h"
#include "support/frame_builder.h"

namespace {

// Small key space: the threads keep meeting on the same bindings.
constexpr uint32_t kIps = 48;
constexpr uint32_t kMainRounds = 3000;
constexpr uint32_t kRuntimeRounds = 3000;
constexpr uint32_t kSnapshots = 150;

DhcpSnoopElement bindingOf(std::mt19937 &rng)
{
    DhcpSnoopElement e;
    memset(&e, 0, sizeof e);
    uint32_t n = rng() % kIps;
    e.clientIp[0] = 10;
    e.clientIp[1] = 7;
    e.clientIp[2] = (uint8_t)(n >> 4);
    e.clientIp[3] = (uint8_t)((n & 15) * 8 + 1);  // several per bucket
    e.vlan = (uint16_t)(1 + rng() % 2);
    e.clientMac[0] = 0x02;
    e.clientMac[5] = (uint8_t)(rng() % 2);
    switch (rng() % 4) {
    case 0:
        e.up = sim::physicalPort(2, 1 + rng() % 8);
        break;
    case 1:
        e.up = sim::portChannel(1 + rng() % 4);
        break;
    default:
        e.up = sim::physicalPort(1, 1 + rng() % 28);
        break;
    }
    e.ttl = rng() % 4;
    e.type = DHCP_SNOOP_TYPE_ACK;
    return e;
}

class StackStressTest : public SnoopTest {
protected:
    void SetUp() override
    {
        SnoopTest::SetUp();
        sim::setUnits({1, 2});
        startModule();
        // The bulk thread applies snapshots as unit 2 of the stack.
        sim::setUnit(2);
    }
};

// What the policy does with an ACK: take an element, fill it, file it.
void fileBinding(const DhcpSnoopElement &v)
{
    DhcpSnoopElement *e = dhcpSnoopGetMem();
    if (e == nullptr)
        return;
    dhcpSnoopElementStore(e, &v);
    uint32_t filed = 0;
    (void)dhcpSnoopElementAddNewEx(e, DHCP_SNOOP_ELEMENT_DYNAMIC, &filed);
    if (filed == 0)
        dhcpSnoopFreeMem(e);
}

// Every chain well linked, in its right bucket, every element marked filed.
void expectConsistent(uint32_t tableType)
{
    DhcpSnoopElement **table = tableType == DHCP_SNOOP_ELEMENT_DYNAMIC ? dynamicTable : requestTable;
    for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; b++) {
        DhcpSnoopElement *prev = nullptr;
        uint32_t n = 0;
        for (DhcpSnoopElement *e = table[b]; e != nullptr; prev = e, e = e->next) {
            ASSERT_LT(++n, DHCP_SNOOP_POOL_SIZE) << "bucket " << b;
            EXPECT_EQ(e->prev, prev) << "bucket " << b;
            EXPECT_EQ(e->clientIp[3] & DHCP_SNOOP_HASH_MASK, b);
            EXPECT_EQ(dhcpSnoopElementFiledIn(e, tableType), 1u);
        }
    }
}

TEST_F(StackStressTest, CallbacksRaceTheMainTask)
{
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> snapshotsApplied{0};
    std::atomic<uint32_t> recordsHandled{0};
    std::vector<std::thread> threads;

    // Runtime records from the other units: adds and deletes.
    for (uint32_t t = 0; t < 2; t++) {
        threads.emplace_back([&, t] {
            std::mt19937 rng(100 + t);
            uint8_t rec[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
            for (uint32_t i = 0; i < kRuntimeRounds; i++) {
                DhcpSnoopElement v = bindingOf(rng);
                dhcpSnoopRuntimeRecordEncode(rng() % 3 == 0 ? DHCP_SNOOP_SYNC_DELETE : DHCP_SNOOP_SYNC_ADD, &v, rec);
                UsoData d{rec, sizeof rec};
                (void)dhcpSnoopRuntimeDataHnd(&d);
                recordsHandled++;
                if (i % 500 == 0)
                    (void)dhcpSnoopDetachCb(2, nullptr);
            }
        });
    }
    // Bulk: a snapshot taken and applied back, as unit 2.
    threads.emplace_back([&] {
        for (uint32_t i = 0; i < kSnapshots && !stop; i++) {
            UsoData d{nullptr, 0};
            if (dhcpSnoopDataSyncGetCb(&d) != 0)
                continue;
            UsoData in{d.data, d.len};
            (void)dhcpSnoopDataSyncSetCb(&in, nullptr);
            EXPECT_EQ(dhcpSnoopDataSyncFreeCb(&d), 0u);
            snapshotsApplied++;
        }
    });

    // The main task, on this thread: bindings filed and removed as the
    // policy would, administrative removals and ticks through the queue.
    std::mt19937 rng(7);
    for (uint32_t i = 0; i < kMainRounds; i++) {
        DhcpSnoopElement v = bindingOf(rng);
        switch (rng() % 4) {
        case 0:
        case 1:
            fileBinding(v);
            break;
        case 2: {
            DhcpSnoopElement *found = dhcpSnoopElementSearchByIpVlanMac(&v, DHCP_SNOOP_ELEMENT_DYNAMIC);
            if (found != nullptr)
                (void)dhcpSnoopElementDelete(found, DHCP_SNOOP_ELEMENT_DYNAMIC);
            break;
        }
        default: {
            DhcpSnoopMsg msg;
            memset(&msg, 0, sizeof msg);
            msg.type = DHCP_SNOOP_MSG_DEL_BINDING;
            memcpy(msg.element.clientIp, v.clientIp, 4);
            msg.element.vlan = v.vlan;
            memcpy(msg.element.clientMac, v.clientMac, 6);
            EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&msg, 0), 0u);
            break;
        }
        }
        if (i % 7 == 0) {
            DhcpSnoopMsg tick;
            memset(&tick, 0, sizeof tick);
            tick.type = DHCP_SNOOP_MSG_TIMER;
            EXPECT_EQ(dhcpSnoopSendMsgToMainQueue(&tick, 0), 0u);
        }
        simrun::pumpMain();
        if (i % 256 == 0)
            sim::clearRuntimeRecords();
    }
    stop = true;
    for (std::thread &t : threads)
        t.join();
    simrun::pumpMain();

    EXPECT_EQ(recordsHandled.load(), 2 * kRuntimeRounds);
    EXPECT_GT(snapshotsApplied.load(), 0u);
    expectConsistent(DHCP_SNOOP_ELEMENT_DYNAMIC);
    expectConsistent(DHCP_SNOOP_ELEMENT_REQUEST);
    EXPECT_EQ(tableCount(DHCP_SNOOP_ELEMENT_REQUEST), 0u);
    // The tear-down checks that every element is either filed or free.
}


// The policy files an ACK's element while the other units' runtime records
// remove (and re-add) the very same bindings: the element must be given back
// exactly once, by whoever unlinked it, and the policy must not read it once
// the table has it.
TEST_F(StackStressTest, RuntimeDeletesRaceAcks)
{
    constexpr uint32_t kClients = 12;
    constexpr uint32_t kLeases = 1500;
    constexpr uint16_t kVlan = 10;
    const up client = sim::physicalPort(1, 3);
    const up server = sim::physicalPort(1, 24);
    sim::setUnit(1);
    sim::portCfg(server).trust = 1;
    sim::setVlanSnooping(kVlan, true);

    auto paramsOf = [](uint32_t n, uint32_t xid) {
        fb::Params p;
        p.clientMac = {0x02, 0x00, 0x00, 0x00, 0x00, (uint8_t)n};
        p.clientIp = fb::ip(10, 9, 0, (uint8_t)(n * 8 + 1));
        p.xid = xid;
        return p;
    };
    std::atomic<bool> stop{false};
    std::atomic<uint32_t> deletes{0};
    std::thread remover([&] {
        std::mt19937 rng(11);
        uint8_t rec[DHCP_SNOOP_RUNTIME_RECORD_SIZE];
        while (!stop) {
            fb::Params p = paramsOf(rng() % kClients, 0);
            DhcpSnoopElement v;
            memset(&v, 0, sizeof v);
            v.clientIp[0] = (uint8_t)(p.clientIp >> 24);
            v.clientIp[1] = (uint8_t)(p.clientIp >> 16);
            v.clientIp[2] = (uint8_t)(p.clientIp >> 8);
            v.clientIp[3] = (uint8_t)p.clientIp;
            v.vlan = kVlan;
            memcpy(v.clientMac, p.clientMac.data(), 6);
            v.up = sim::physicalPort(1, 5);
            v.ttl = 100;
            // Mostly deletes; now and then an add that takes the element a
            // delete has just given back.
            bool add = rng() % 4 == 0;
            dhcpSnoopRuntimeRecordEncode(add ? DHCP_SNOOP_SYNC_ADD : DHCP_SNOOP_SYNC_DELETE, &v, rec);
            UsoData d{rec, sizeof rec};
            (void)dhcpSnoopRuntimeDataHnd(&d);
            deletes++;
            std::this_thread::yield();
        }
    });

    std::mt19937 rng(5);
    for (uint32_t i = 0; i < kLeases; i++) {
        fb::Params p = paramsOf(rng() % kClients, 0x1000 + i);
        ASSERT_EQ(simrun::inject(client, kVlan, fb::request(p).build()), 0u);
        simrun::pumpMain();
        ASSERT_EQ(simrun::inject(server, kVlan, fb::ack(p).build()), 0u);
        simrun::pumpMain();
        simrun::pumpFdb();
        if (i % 64 == 0) {
            sim::clearSent();
            sim::clearRuntimeRecords();
        }
    }
    stop = true;
    remover.join();
    simrun::runUntilIdle();

    EXPECT_GT(deletes.load(), 0u);
    expectConsistent(DHCP_SNOOP_ELEMENT_DYNAMIC);
    expectConsistent(DHCP_SNOOP_ELEMENT_REQUEST);
    // The tear-down checks that every element is either filed or free, and
    // every frame went back to the packet pool once.
}

}  // namespace
