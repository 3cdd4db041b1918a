// One untrusted port filling the module's element pool with requests that
// never age (option 51 = 0xFFFFFFFF, a new requested address each): the
// module keeps them, as it should; the live platform keeps the port to its
// share, so the server's replies and the other ports' clients still get
// elements. A program of its own: the module's tables outlive a test.
#include <cstring>

#include "live_fixture.h"
#include "snooping/dhcpSnoopInternal.h"

namespace {

const char* kConfig = R"(
[switch]
mac = "02:00:00:00:00:fe"
snooping_vlans = [10]
ip_filter = true

[[port]]
name = "1/0/1"
vlan = 10
trust = true

[[port]]
name = "1/0/2"
vlan = 10

[[port]]
name = "1/0/3"
vlan = 10
)";

using lt::mac;

class Pending : public LiveModuleTest {
protected:
    Pending() : LiveModuleTest(kConfig, "live-pending") {}

    size_t sentTo(const std::string& port, uint8_t type)
    {
        size_t n = 0;
        for (const auto& s : sent())
            if (s.port == port && fb::messageTypeOf(s.frame) == std::optional<uint8_t>(type))
                ++n;
        return n;
    }

    // The pending requests the module holds for a port.
    static size_t pendingOf(const std::string& port)
    {
        ::up h = lt::port(port);
        size_t n = 0;
        pal_mutex_take_int(upMutexId, PAL_WAIT_FOREVER);
        for (uint32_t b = 0; b < DHCP_SNOOP_HASH_SIZE; ++b)
            for (DhcpSnoopElement* e = requestTable[b]; e != nullptr; e = e->next)
                if (e->up == h)
                    ++n;
        pal_mutex_give_int(upMutexId);
        return n;
    }
};

TEST_F(Pending, RequestsThatNeverAgeTakeOnlyThePortsShareAndOtherClientsStillGetLeases)
{
    // 1024 REQUESTs with distinct requested addresses and an infinite
    // lifetime: each would hold an element for ever.
    fb::Params a;
    a.clientMac = mac(2, 2);
    for (uint32_t i = 0; i < DHCP_SNOOP_POOL_SIZE; ++i) {
        a.clientIp = fb::ip(198, 18, 4, 0) + i;
        a.xid = 0x5000 + i;
        rx("1/0/2", fb::requestInitReboot(a).leaseTime(0xFFFFFFFFu).build());
        if (i % 64 == 63)
            settle();
    }
    settle();
    // Two untrusted ports: each may hold a quarter of the pool.
    EXPECT_EQ(pendingOf("1/0/2"), DHCP_SNOOP_POOL_SIZE / 4);
    live::PortCounters attacker = counters("1/0/2");
    EXPECT_EQ(attacker.trapped, DHCP_SNOOP_POOL_SIZE / 4);
    EXPECT_EQ(attacker.dropped["trap policer: pending requests"], DHCP_SNOOP_POOL_SIZE * 3 / 4);
    EXPECT_EQ(attacker.dropped.count("element pool empty"), 0u);
    bool reported = false;
    for (const auto& e : live::events())
        if (e.text.find("port 1/0/2") != std::string::npos && e.text.find("pending requests") != std::string::npos)
            reported = true;
    EXPECT_TRUE(reported) << "the cap is reported once as an event";

    // A client on another port gets its lease through the same server.
    fb::Params p;
    p.clientMac = mac(3, 3);
    p.serverMac = mac(3, 1);
    p.clientIp = fb::ip(198, 18, 3, 33);
    p.serverIp = fb::ip(198, 18, 3, 1);
    p.xid = 0x6006;
    rx("1/0/3", fb::discover(p).build());
    settle();
    rx("1/0/1", fb::offer(p).build());
    settle();
    rx("1/0/3", fb::requestSelecting(p).build());
    settle();
    rx("1/0/1", fb::ack(p).build());
    settle();
    EXPECT_EQ(sentTo("1/0/3", fb::kOffer), 1u);
    EXPECT_EQ(sentTo("1/0/3", fb::kAck), 1u) << "the server's ACK still gets an element";
    EXPECT_TRUE(waitUntil([] { return live::core::sourceGuardCount() == 1; })) << "and the client its binding";
    EXPECT_EQ(counters("1/0/1").dropped.count("element pool empty"), 0u);
    EXPECT_EQ(counters("1/0/3").dropped.count("element pool empty"), 0u);

    // The attacking port goes on: still nothing more than its share.
    for (uint32_t i = 0; i < 32; ++i) {
        a.clientIp = fb::ip(198, 18, 8, 0) + i;
        rx("1/0/2", fb::requestInitReboot(a).leaseTime(0xFFFFFFFFu).build());
    }
    settle();
    EXPECT_EQ(pendingOf("1/0/2"), DHCP_SNOOP_POOL_SIZE / 4);
}

}  // namespace
