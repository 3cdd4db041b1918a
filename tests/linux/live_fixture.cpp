#include "live_fixture.h"

#include <stdlib.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include "snooping/dhcpSnoopInternal.h"

uint64_t LiveTest::clockMs = 1000000;

void LiveTest::SetUp()
{
    allocsAtStart_ = live::runtime::outstandingAllocs();
    clockMs = 1000000;
    live::core::setClock([] { return clockMs; });
}

void LiveTest::TearDown()
{
    if (live::core::isUp()) {
        EXPECT_EQ(live::core::poolBuffersInUse(), 0u) << "packet-pool buffers still held";
        EXPECT_EQ(live::core::badReleases(), expectedBadReleases)
            << "buffers released twice or foreign";
    }
    live::core::tearDown();
    live::core::setClock(nullptr);
    EXPECT_EQ(live::runtime::badFrees(), 0u);
    if (!moduleRunning) {
        EXPECT_EQ(live::runtime::outstandingAllocs(), allocsAtStart_) << "pal allocations leaked";
    }
}

void LiveTest::bringUp(const std::string& toml, live::Options opt)
{
    swcfg::SwitchConfig cfg;
    std::string error;
    ASSERT_TRUE(swcfg::parseSwitchConfig(toml, "test.toml", cfg, error)) << error;
    portNames_.clear();
    for (const auto& p : cfg.ports)
        portNames_.push_back(p.name);
    auto tx = [this](size_t port, const uint8_t* f, size_t len, int32_t tagVid, const live::core::Offload* off) {
        fb::Bytes b(f, f + len);
        Sent s;
        s.port = port < portNames_.size() ? portNames_[port] : "?";
        if (off) {
            s.offloaded = true;
            s.off = *off;
        }
        if (tagVid >= 0) {
            b = fb::addVlan(b, (uint16_t)tagVid);
            if (off) {
                s.off.csumStart = (uint16_t)(s.off.csumStart + 4);
                if (s.off.hdrLen)
                    s.off.hdrLen = (uint16_t)(s.off.hdrLen + 4);
            }
        }
        s.frame = std::move(b);
        std::lock_guard<std::mutex> g(sentLock_);
        auto it = failing_.find(s.port);
        if (it != failing_.end() && it->second != 0)
            return it->second;
        sent_.push_back(std::move(s));
        return 0;
    };
    ASSERT_TRUE(live::core::setUp(cfg, opt, tx, error)) << error;
}

void LiveTest::rx(const std::string& port, const fb::Bytes& frame, int32_t kernelTci)
{
    rxWith(port, frame, kernelTci, 0x8100, nullptr);
}

void LiveTest::rxWith(const std::string& port, const fb::Bytes& frame, int32_t kernelTci, uint16_t tpid,
                      const live::core::Offload* off)
{
    ::up handle = UP_INVALID;
    ASSERT_TRUE(swcfg::parsePortName(port, &handle)) << port;
    size_t i = live::core::portIndex(handle);
    ASSERT_NE(i, (size_t)-1) << port;
    fb::Bytes copy = frame;
    live::core::receive(i, copy.data(), copy.size(), kernelTci, tpid, off);
}

void LiveTest::failSends(const std::string& port, int err)
{
    std::lock_guard<std::mutex> g(sentLock_);
    failing_[port] = err;
}

std::vector<Sent> LiveTest::sent()
{
    std::lock_guard<std::mutex> g(sentLock_);
    return sent_;
}

void LiveTest::clearSent()
{
    std::lock_guard<std::mutex> g(sentLock_);
    sent_.clear();
}

std::vector<std::string> LiveTest::sentPorts()
{
    std::vector<std::string> out;
    for (const auto& s : sent())
        out.push_back(s.port);
    return out;
}

live::PortCounters LiveTest::counters(const std::string& port)
{
    for (const auto& c : live::core::counters())
        if (c.name == port)
            return c;
    ADD_FAILURE() << "no port " << port;
    return live::PortCounters();
}

void LiveTest::startModuleOnce()
{
    static bool started = false;
    if (started)
        return;
    started = true;
    ASSERT_EQ(dhcpSnoopInit(), DHCP_SNOOP_OK);
}

bool waitUntil(const std::function<bool()>& pred)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return pred();
}

void LiveQueueTest::SetUp()
{
    LiveTest::SetUp();
    dhcpSnoopQueue = pal_msgQ_create(DHCP_SNOOP_QUEUE_NAME, queueDepth, sizeof(DhcpSnoopMsg), 4);
    ASSERT_GT(dhcpSnoopQueue, 0);
}

void LiveQueueTest::TearDown()
{
    drain();
    dhcpSnoopQueue = 0;
    LiveTest::TearDown();
}

bool LiveQueueTest::takeMsg(DhcpSnoopMsg& m)
{
    memset(&m, 0, sizeof m);
    return pal_msgQ_receive(dhcpSnoopQueue, &m, sizeof m, 0, nullptr) == (int32_t)sizeof m;
}

std::map<uint8_t, size_t> LiveQueueTest::drain()
{
    std::map<uint8_t, size_t> taken;
    DhcpSnoopMsg m;
    while (takeMsg(m)) {
        ++taken[m.type];
        if (m.type == DHCP_SNOOP_MSG_PACKET)
            dhcpReleasePacketPool(m.packet.frame);
    }
    return taken;
}

void LiveModuleTest::SetUp()
{
    LiveTest::SetUp();
    moduleRunning = true;
    std::string dir = std::string("/tmp/") + tmpPrefix_ + "-XXXXXX";
    ASSERT_NE(mkdtemp(&dir[0]), nullptr);
    dataDir = dir;
    live::runtime::setDataDir(dataDir);
    bringUp(config_);
    startModuleOnce();
}

void LiveModuleTest::TearDown()
{
    // Every trapped frame comes back before the switch goes away.
    EXPECT_TRUE(waitUntil([] { return live::core::poolBuffersInUse() == 0; }));
    LiveTest::TearDown();
    std::error_code ec;
    std::filesystem::remove_all(dataDir, ec);
}

void LiveModuleTest::settle()
{
    ASSERT_TRUE(waitUntil([] { return live::core::poolBuffersInUse() == 0; }));
    ASSERT_TRUE(waitUntil([] { return live::runtime::queueIdle(DHCP_SNOOP_QUEUE_NAME); }));
}

namespace lt {

const char* const kGuardedSwitch = R"(
[switch]
mac = "02:00:00:00:00:fe"
snooping_vlans = [10]
ip_filter = true
arp_defend = true

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

[[port]]
name = "1/0/4"
vlan = 1
tagged = [10, 20]
trust = true

[[port]]
name = "1/0/5"
vlan = 20
)";

fb::Mac mac(uint8_t a, uint8_t n) { return {0x02, 0x00, 0x00, 0x00, a, n}; }

const fb::Mac kBroadcast = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

fb::Bytes plainIp(const fb::Mac& src, const fb::Mac& dst, uint32_t srcIp, uint32_t dstIp)
{
    return fb::Frame().srcMac(src).dstMac(dst).srcIp(srcIp).dstIp(dstIp).srcPort(5000).dstPort(53).build();
}

::up port(const std::string& name)
{
    ::up h = UP_INVALID;
    EXPECT_TRUE(swcfg::parsePortName(name, &h)) << name;
    return h;
}

SwQTableEntry binding(uint32_t ip, const fb::Mac& m, uint16_t vlan, const std::string& p)
{
    SwQTableEntry e;
    memset(&e, 0, sizeof e);
    e.ip[0] = (uint8_t)(ip >> 24);
    e.ip[1] = (uint8_t)(ip >> 16);
    e.ip[2] = (uint8_t)(ip >> 8);
    e.ip[3] = (uint8_t)ip;
    memcpy(e.mac, m.data(), 6);
    e.vlan = vlan;
    e.port = port(p);
    e.source = QTABLE_SOURCE_DHCP_SNOOP;
    memcpy(e.mark, "---", 3);
    return e;
}

std::string fdbPort(const fb::Mac& m, uint16_t vlan)
{
    FdbEntry e;
    memset(&e, 0, sizeof e);
    memcpy(e.mac, m.data(), 6);
    e.vlan = vlan;
    if (swFdbGetEntry(&e) != 0)
        return "";
    char text[UP_STR_BUF];
    usUp2Str(e.port, text, 1);
    return text;
}

}  // namespace lt
