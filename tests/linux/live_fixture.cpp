#include "live_fixture.h"

#include <chrono>
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
