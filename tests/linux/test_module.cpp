// The module on the live platform, its tasks running as threads: frames
// go in through the switching core (no sockets) and come out by the
// module's decisions; drops are named by the module's own lines.
#include <unistd.h>

#include <cstring>
#include <mutex>

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

using lt::mac;

class Module : public LiveModuleTest {
protected:
    Module() : LiveModuleTest(kConfig, "live-module") {}

    std::vector<Sent> sentTo(const std::string& port)
    {
        std::vector<Sent> out;
        for (const auto& s : sent())
            if (s.port == port)
                out.push_back(s);
        return out;
    }
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

// What `dhcpsnoopctl monitor` is told: every event with its cause, on the
// thread where it happened.
class Heard {
public:
    Heard()
    {
        live::setMonitorSink([this](const live::MonitorEvent& e) {
            std::lock_guard<std::mutex> g(lock_);
            events_.push_back(e);
        });
        live::setMonitoring(true);
    }
    ~Heard()
    {
        live::setMonitoring(false);
        live::setMonitorSink(nullptr);
    }
    std::vector<live::MonitorEvent> events()
    {
        std::lock_guard<std::mutex> g(lock_);
        return events_;
    }
    std::vector<live::MonitorEvent> of(live::MonitorEvent::Kind k)
    {
        std::vector<live::MonitorEvent> out;
        for (const auto& e : events())
            if (e.kind == k)
                out.push_back(e);
        return out;
    }

private:
    std::mutex lock_;
    std::vector<live::MonitorEvent> events_;
};

TEST_F(Module, MonitorsHearBindingsWithTheirCauseDropsAndRateLimits)
{
    Heard heard;
    fb::Params p;
    p.clientMac = mac(5, 2);
    p.serverMac = mac(5, 1);
    p.clientIp = fb::ip(198, 18, 5, 23);
    p.serverIp = fb::ip(198, 18, 5, 1);
    p.xid = 0x5005;
    p.lease = 600;
    for (const fb::Bytes& f : {fb::discover(p).build(), fb::requestSelecting(p).build()}) {
        rx("1/0/2", f);
        settle();
    }
    rx("1/0/1", fb::ack(p).build());
    settle();
    auto count = [&](live::MonitorEvent::Kind k, size_t n) {
        return waitUntil([&] { return heard.of(k).size() >= n; });
    };
    ASSERT_TRUE(count(live::MonitorEvent::BindingAdded, 1));
    auto added = heard.of(live::MonitorEvent::BindingAdded);
    ASSERT_EQ(added.size(), 1u);
    EXPECT_EQ(added[0].cause, "ACK");
    EXPECT_EQ(added[0].port, "1/0/2");
    EXPECT_EQ(added[0].vlan, 10u);
    EXPECT_EQ(added[0].ip, (std::array<uint8_t, 4>{198, 18, 5, 23}));
    EXPECT_EQ(added[0].mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 5, 2}));
    EXPECT_EQ(added[0].lease, 600u);
    EXPECT_GT(added[0].unixMs, 0u);

    rx("1/0/2", fb::release(p).build());
    settle();
    ASSERT_TRUE(count(live::MonitorEvent::BindingRemoved, 1));
    auto removed = heard.of(live::MonitorEvent::BindingRemoved);
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed[0].cause, "RELEASE");
    EXPECT_EQ(removed[0].ip, added[0].ip);

    // The operator's delete, and a lease that runs out.
    auto lease = [&](uint32_t xid) {
        size_t n = heard.of(live::MonitorEvent::BindingAdded).size();
        p.xid = xid;
        rx("1/0/2", fb::requestSelecting(p).build());
        settle();
        rx("1/0/1", fb::ack(p).build());
        settle();
        ASSERT_TRUE(count(live::MonitorEvent::BindingAdded, n + 1)) << xid;
    };
    lease(0x5006);
    DhcpSnoopMsg del;
    memset(&del, 0, sizeof del);
    del.type = DHCP_SNOOP_MSG_DEL_BINDING;
    memcpy(del.element.clientIp, added[0].ip.data(), 4);
    memcpy(del.element.clientMac, added[0].mac.data(), 6);
    del.element.vlan = 10;
    ASSERT_EQ(dhcpSnoopSendMsgToMainQueue(&del, 0), 0u);
    settle();
    ASSERT_TRUE(count(live::MonitorEvent::BindingRemoved, 2));
    p.lease = 1;
    lease(0x5007);
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(dhcpSnoopSendTimerMsgToDhcp(0), 0u);
    settle();
    ASSERT_TRUE(count(live::MonitorEvent::BindingRemoved, 3));
    removed = heard.of(live::MonitorEvent::BindingRemoved);
    ASSERT_EQ(removed.size(), 3u);
    EXPECT_EQ(removed[1].cause, "delete");
    EXPECT_EQ(removed[2].cause, "aging");
    EXPECT_EQ(heard.of(live::MonitorEvent::BindingAdded).size(), 3u);

    // A renewal: the module replaces the binding, the old one goes first.
    p.lease = 600;
    lease(0x5009);
    lease(0x500a);
    ASSERT_TRUE(count(live::MonitorEvent::BindingRemoved, 4));
    auto all = heard.events();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[all.size() - 2].kind, live::MonitorEvent::BindingRemoved);
    EXPECT_EQ(all[all.size() - 2].cause, "ACK");
    EXPECT_EQ(all.back().kind, live::MonitorEvent::BindingAdded);
    EXPECT_EQ(all.back().cause, "ACK");

    // A drop names its port, reason and source.
    p.xid = 0x5008;
    rx("1/0/2", fb::offer(p).build());
    settle();
    ASSERT_TRUE(count(live::MonitorEvent::Drop, 1));
    auto drops = heard.of(live::MonitorEvent::Drop);
    ASSERT_EQ(drops.size(), 1u);
    EXPECT_EQ(drops[0].port, "1/0/2");
    EXPECT_EQ(drops[0].reason, "untrusted server message");
    EXPECT_EQ(drops[0].mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 5, 1}));

    // A flood: the trap's policer, the module's rate limit and its log entry.
    fb::Params f;
    f.clientMac = mac(5, 3);
    // The port's log entry is written once until its timer re-arms it:
    // another test may have used it.
    ASSERT_EQ(dhcpSnoopSendRateFlowTimerMsgToDhcp(3), 0u);
    settle();
    for (uint32_t i = 0; i < 12; ++i) {
        f.xid = 0x5100 + i;
        rx("1/0/3", fb::discover(f).build());
    }
    settle();
    ASSERT_TRUE(count(live::MonitorEvent::RateLimit, 1));
    auto limits = heard.of(live::MonitorEvent::RateLimit);
    ASSERT_EQ(limits.size(), 1u);
    EXPECT_EQ(limits[0].port, "1/0/3");
    EXPECT_EQ(limits[0].reason, "DHCP");
    size_t policed = 0, limited = 0;
    for (const auto& d : heard.of(live::MonitorEvent::Drop)) {
        policed += d.reason == "trap policer";
        limited += d.reason == "rate limit";
    }
    EXPECT_GE(policed, 1u);
    EXPECT_GE(limited, 1u);
}

TEST_F(Module, NothingIsComposedWhileNobodyListens)
{
    std::vector<live::MonitorEvent> got;
    std::mutex lock;
    live::setMonitorSink([&](const live::MonitorEvent& e) {
        std::lock_guard<std::mutex> g(lock);
        got.push_back(e);
    });
    fb::Params p;
    p.clientMac = mac(6, 2);
    p.serverMac = mac(6, 1);
    rx("1/0/2", fb::offer(p).build());
    settle();
    live::setMonitorSink(nullptr);
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(counters("1/0/2").dropped["untrusted server message"], 1u);
}

TEST(MonitorFrames, DhcpMessageTypeOfUntaggedTaggedAndOtherFrames)
{
    fb::Params p;
    EXPECT_EQ(live::monitor::dhcpMessageType(fb::ack(p).build().data(), fb::ack(p).build().size()), 5u);
    fb::Bytes tagged = fb::release(p).vlan(10).build();
    EXPECT_EQ(live::monitor::dhcpMessageType(tagged.data(), tagged.size()), 7u);
    fb::Bytes bootp = fb::bootpReply(p).build();
    EXPECT_EQ(live::monitor::dhcpMessageType(bootp.data(), bootp.size()), 0u) << "BOOTP has no option 53";
    fb::Bytes dns = fb::Frame().dstPort(53).build();
    EXPECT_EQ(live::monitor::dhcpMessageType(dns.data(), dns.size()), 0u);
    // Cut anywhere, the reader stays inside the frame.
    fb::Bytes nak = fb::nak(p).build();
    for (size_t n = 0; n < nak.size(); ++n) {
        fb::Bytes cut(nak.begin(), nak.begin() + (std::ptrdiff_t)n);
        uint8_t t = live::monitor::dhcpMessageType(cut.data(), cut.size());
        EXPECT_TRUE(t == 0 || t == 6) << n;
    }
    EXPECT_EQ(live::monitor::dhcpMessageType(nak.data(), nak.size()), 6u);
    EXPECT_EQ(live::monitor::dhcpMessageType(nullptr, 0), 0u);
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
