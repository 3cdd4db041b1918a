// The module on the live platform, its tasks running as threads: frames
// go in through the switching core (no sockets) and come out by the
// module's decisions; drops are named by the module's own lines.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

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
option82 = true
rate = 3

[[port]]
name = "1/0/4"
vlan = 1
tagged = [10]
trust = true
)";

fb::Mac mac(uint8_t a, uint8_t n) { return {0x02, 0x00, 0x00, 0x00, a, n}; }

class Module : public LiveTest {
protected:
    void SetUp() override
    {
        LiveTest::SetUp();
        moduleRunning = true;
        char dir[] = "/tmp/live-module-XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dataDir = dir;
        live::runtime::setDataDir(dataDir);
        bringUp(kConfig);
        startModuleOnce();
    }

    void TearDown() override
    {
        // Every trapped frame comes back before the switch goes away.
        EXPECT_TRUE(waitUntil([] { return live::core::poolBuffersInUse() == 0; }));
        LiveTest::TearDown();
        std::error_code ec;
        std::filesystem::remove_all(dataDir, ec);
    }

    // Waits until the module has released every trapped frame and sent what
    // it would.
    void settle()
    {
        ASSERT_TRUE(waitUntil([] { return live::core::poolBuffersInUse() == 0; }));
        ASSERT_TRUE(waitUntil([] { return live::runtime::queueIdle(DHCP_SNOOP_QUEUE_NAME); }));
    }

    std::vector<Sent> sentTo(const std::string& port)
    {
        std::vector<Sent> out;
        for (const auto& s : sent())
            if (s.port == port)
                out.push_back(s);
        return out;
    }

    std::string dataDir;
};

TEST_F(Module, DiscoverIsFloodedInItsVlanWithOption82AddedOnTheWayToTheServer)
{
    fb::Params p;
    p.clientMac = mac(1, 3);
    p.xid = 0x1001;
    fb::Bytes d = fb::discover(p).build();
    rx("1/0/3", d);
    settle();
    auto server = sentTo("1/0/1");
    ASSERT_EQ(server.size(), 1u);
    EXPECT_TRUE(fb::findOption(server[0].frame, 82).has_value()) << "option 82 on for the port";
    EXPECT_EQ(fb::xidOf(server[0].frame), 0x1001u);
    ASSERT_EQ(sentTo("1/0/4").size(), 1u);
    EXPECT_EQ(fb::vlanId(sentTo("1/0/4")[0].frame), std::optional<uint16_t>(10)) << "tagged on the trunk";
    EXPECT_EQ(sentTo("1/0/2").size(), 1u);
    EXPECT_TRUE(sentTo("1/0/3").empty()) << "never back to the client";
    live::PortCounters c = counters("1/0/3");
    EXPECT_EQ(c.trapped, 1u);
    EXPECT_EQ(c.dhcpForwarded, 1u);
    EXPECT_TRUE(c.dropped.empty());
}

TEST_F(Module, OfferFromAnUntrustedPortIsDroppedAndNamed)
{
    fb::Params p;
    p.clientMac = mac(2, 2);
    p.serverMac = mac(2, 99);
    p.xid = 0x2002;
    rx("1/0/2", fb::offer(p).build());
    settle();
    EXPECT_TRUE(sent().empty());
    live::PortCounters c = counters("1/0/2");
    EXPECT_EQ(c.trapped, 1u);
    EXPECT_EQ(c.dhcpForwarded, 0u);
    EXPECT_EQ(c.dropped["untrusted server message"], 1u);
}

TEST_F(Module, LeaseBindsTheClientAndItsAddressPassesTheSourceGuard)
{
    fb::Params p;
    p.clientMac = mac(3, 2);
    p.serverMac = mac(3, 1);
    p.clientIp = fb::ip(198, 18, 3, 23);
    p.serverIp = fb::ip(198, 18, 3, 1);
    p.xid = 0x3003;
    rx("1/0/1", fb::Frame().srcMac(p.serverMac).srcIp(p.serverIp).dstPort(53).build());
    clearSent();
    fb::Bytes ip = fb::Frame().srcMac(p.clientMac).srcIp(p.clientIp).dstIp(p.serverIp).dstMac(p.serverMac)
                       .srcPort(5000).dstPort(53).build();
    rx("1/0/2", ip);
    EXPECT_TRUE(sent().empty()) << "no lease yet";

    rx("1/0/2", fb::discover(p).build());
    settle();
    rx("1/0/1", fb::offer(p).build());
    settle();
    ASSERT_EQ(sentTo("1/0/2").size(), 1u) << "the offer reaches the client, by the FDB";
    EXPECT_EQ(fb::messageTypeOf(sentTo("1/0/2")[0].frame), std::optional<uint8_t>(fb::kOffer));
    EXPECT_EQ(sentTo("1/0/3").size(), 1u) << "only the discover was flooded";
    rx("1/0/2", fb::requestSelecting(p).build());
    settle();
    rx("1/0/1", fb::ack(p).build());
    settle();
    ASSERT_TRUE(waitUntil([] { return live::core::sourceGuardCount() == 1; }));
    clearSent();
    rx("1/0/2", ip);
    EXPECT_EQ(sentPorts(), std::vector<std::string>{"1/0/1"});
    EXPECT_EQ(counters("1/0/2").dhcpForwarded, 2u);
    EXPECT_EQ(counters("1/0/1").dhcpForwarded, 2u);

    // The binding file lands in the data directory.
    std::string file = dataDir + "/dhcpSnoop.cfg";
    EXPECT_TRUE(waitUntil([&] { return access(file.c_str(), R_OK) == 0; })) << file;
    EXPECT_TRUE(waitUntil([] { return live::saveIdle(); }));

    // The client's RELEASE removes the binding and with it the guard's entry.
    rx("1/0/2", fb::release(p).build());
    settle();
    EXPECT_TRUE(waitUntil([] { return live::core::sourceGuardCount() == 0; }));
}

TEST_F(Module, FloodAboveThePortsRateIsCutAndLoggedWithThePortName)
{
    fb::Params p;
    p.clientMac = mac(4, 3);
    for (uint32_t i = 0; i < 12; ++i) {
        p.xid = 0x4000 + i;
        rx("1/0/3", fb::discover(p).build());
    }
    settle();
    live::PortCounters c = counters("1/0/3");
    // The trap admits twice the rate: the module sees the excess and logs it.
    EXPECT_EQ(c.trapped, 6u);
    EXPECT_EQ(c.dropped["trap policer"], 6u);
    EXPECT_GE(c.dropped["rate limit"], 1u);
    EXPECT_EQ(c.dhcpForwarded + c.dropped["rate limit"], 6u);
    bool logged = false;
    for (const auto& e : live::events())
        if (e.code == DHCP_SNOOP_LOG_RATE_OVERFLOW &&
            e.text == "DHCP snooping: DHCP rate limit exceeded on port 1/0/3")
            logged = true;
    EXPECT_TRUE(logged);
}

TEST_F(Module, StartUpLeftItsBindingFileEventAndTheStackRegistrations)
{
    bool loadEvent = false;
    for (const auto& e : live::events())
        if ((e.code == DHCP_SNOOP_LOG_LOAD_OK && e.text == "DHCP snooping: binding file loaded") ||
            (e.code == DHCP_SNOOP_LOG_LOAD_FAIL &&
             e.text == "DHCP snooping: binding file could not be loaded"))
            loadEvent = true;
    EXPECT_TRUE(loadEvent);
    EXPECT_EQ(stkGetCurrentUnit(), 1u);
}

}  // namespace
