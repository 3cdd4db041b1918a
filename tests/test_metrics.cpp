// `dhcpsnoopctl metrics`: the daemon's counters and bindings in the
// Prometheus text format, checked line by line and, where promtool is found
// ($DHCPSNOOP_PROMTOOL or PATH), by `promtool check metrics`.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "tools/daemon/command.h"
#include "tools/daemon/metrics.h"

namespace {

std::vector<live::PortCounters> twoPorts()
{
    live::PortCounters a;
    a.name = "1/0/1";
    a.interface = "sw1";
    a.rxFrames = 12;
    a.txFrames = 9;
    a.trapped = 4;
    a.dhcpForwarded = 3;
    live::PortCounters b;
    b.name = "1/0/3";
    b.interface = "sw3";
    b.rxFrames = 7;
    b.sourceGuardDropped = 2;
    b.dropped["rate limit"] = 5;
    b.dropped["untrusted server message"] = 1;
    return {a, b};
}

std::vector<ctl::Binding> bindings(std::initializer_list<uint16_t> vlans)
{
    std::vector<ctl::Binding> out;
    uint8_t n = 100;
    for (uint16_t v : vlans) {
        ctl::Binding b;
        b.ip = {198, 18, 0, n++};
        b.vlan = v;
        b.port = "1/0/3";
        out.push_back(b);
    }
    return out;
}

bool hasLine(const std::string& text, const std::string& line)
{
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

std::string promtool()
{
    const char* env = getenv("DHCPSNOOP_PROMTOOL");
    if (env != nullptr && *env != '\0')
        return env;  // named: a missing one fails the test rather than skipping it
    return system("command -v promtool >/dev/null 2>&1") == 0 ? "promtool" : "";
}

TEST(Metrics, EveryPortCounterWithItsLabels)
{
    std::string m = ctl::metricsText(twoPorts(), {}, 0);
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_received_frames_total{port=\"1/0/1\",interface=\"sw1\"} 12")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_sent_frames_total{port=\"1/0/1\",interface=\"sw1\"} 9")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_dhcp_trapped_total{port=\"1/0/1\",interface=\"sw1\"} 4")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_dhcp_forwarded_total{port=\"1/0/1\",interface=\"sw1\"} 3")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_source_guard_dropped_total{port=\"1/0/3\",interface=\"sw3\"} 2")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_received_frames_total{port=\"1/0/3\",interface=\"sw3\"} 7")) << m;
    EXPECT_TRUE(hasLine(m, "# TYPE dhcpsnoop_port_received_frames_total counter")) << m;
}

TEST(Metrics, DropsByReasonLabel)
{
    std::string m = ctl::metricsText(twoPorts(), {}, 0);
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_dhcp_dropped_total{port=\"1/0/3\",interface=\"sw3\",reason=\"rate limit\"} 5"))
        << m;
    EXPECT_TRUE(hasLine(
        m, "dhcpsnoop_port_dhcp_dropped_total{port=\"1/0/3\",interface=\"sw3\",reason=\"untrusted server message\"} 1"))
        << m;
    // A port without drops has no sample, not a zero of an unknown reason.
    EXPECT_EQ(m.find("dhcpsnoop_port_dhcp_dropped_total{port=\"1/0/1\""), std::string::npos) << m;
}

TEST(Metrics, BindingsCountedPerVlan)
{
    std::string m = ctl::metricsText({}, bindings({10, 20, 10, 10}), 3);
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_bindings{vlan=\"10\"} 3")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_bindings{vlan=\"20\"} 1")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_system_log_entries 3")) << m;
}

TEST(Metrics, BindingFileSavesFailuresAndWhetherSavingGoesOn)
{
    live::SaveStatus save;
    save.savesCompleted = 17;
    save.saveFailures = 1;
    save.saving = false;
    std::string m = ctl::metricsText({}, {}, 0, &save);
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_binding_file_saves_total 17")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_binding_file_save_failures_total 1")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_binding_file_saving 0")) << m;
    EXPECT_TRUE(hasLine(m, "# TYPE dhcpsnoop_binding_file_saving gauge")) << m;
    save.saving = true;
    EXPECT_TRUE(hasLine(ctl::metricsText({}, {}, 0, &save), "dhcpsnoop_binding_file_saving 1"));
    EXPECT_EQ(ctl::metricsText({}, {}, 0).find("binding_file"), std::string::npos)
        << "no save figures where the daemon gave none";
}

TEST(Metrics, LabelValuesEscaped)
{
    // A reason or interface name with a quote, a backslash or a newline
    // must not end the label early or break the line.
    EXPECT_EQ(ctl::metricLabel("a\"b\\c\nd"), "a\\\"b\\\\c\\nd");
    live::PortCounters c;
    c.name = "1/0/2";
    c.interface = "we\"ird";
    c.dropped["odd\nreason"] = 1;
    std::string m = ctl::metricsText({c}, {}, 0);
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_dhcp_dropped_total{port=\"1/0/2\",interface=\"we\\\"ird\",reason=\"odd\\nreason\"} 1"))
        << m;
}

TEST(Metrics, EveryFamilyHasHelpAndType)
{
    std::string m = ctl::metricsText(twoPorts(), bindings({10}), 1);
    size_t types = 0, helps = 0;
    for (size_t at = 0; (at = m.find("# TYPE ", at)) != std::string::npos; ++at)
        ++types;
    for (size_t at = 0; (at = m.find("# HELP ", at)) != std::string::npos; ++at)
        ++helps;
    EXPECT_EQ(types, 8u);
    EXPECT_EQ(helps, 8u);
    EXPECT_EQ(m.back(), '\n');
}

live::Occupancy someOccupancy()
{
    live::Occupancy o;
    o.pendingRequests = 3;
    o.pendingByPort["1/0/3"] = 3;
    o.pendingByPort["1/0/1"] = 0;
    o.elementsInUse = 5;
    o.elementPool = 1024;
    o.packetBuffersInUse = 1;
    o.packetPool = 256;
    o.mainQueueWaiting = 2;
    o.mainQueueCapacity = 512;
    return o;
}

live::LatencyDistribution someLatency()
{
    live::LatencyDistribution l;
    l.boundsSec = {1e-5, 2.5e-5, 1e-3, 1.0};
    l.atMost = {1, 4, 6, 6};
    l.count = 7;  // one slower than a second
    l.sumSec = 2.000125;
    return l;
}

TEST(Metrics, PendingRequestsPoolsAndQueue)
{
    live::Occupancy o = someOccupancy();
    ctl::MetricExtras x;
    x.occupancy = &o;
    std::string m = ctl::metricsText(twoPorts(), {}, 0, x);
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_pending_requests 3")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_pending_requests{port=\"1/0/3\",interface=\"sw3\"} 3")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_port_pending_requests{port=\"1/0/1\",interface=\"sw1\"} 0")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_element_pool_in_use 5")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_element_pool_size 1024")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_packet_pool_in_use 1")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_packet_pool_size 256")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_main_queue_depth 2")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_main_queue_capacity 512")) << m;
    EXPECT_TRUE(hasLine(m, "# TYPE dhcpsnoop_main_queue_depth gauge")) << m;
}

TEST(Metrics, LatencyIsAHistogramInSeconds)
{
    live::LatencyDistribution l = someLatency();
    ctl::MetricExtras x;
    x.latency = &l;
    std::string m = ctl::metricsText({}, {}, 0, x);
    EXPECT_TRUE(hasLine(m, "# TYPE dhcpsnoop_trap_to_transmit_seconds histogram")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_bucket{le=\"1e-05\"} 1")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_bucket{le=\"2.5e-05\"} 4")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_bucket{le=\"0.001\"} 6")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_bucket{le=\"1\"} 6")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_bucket{le=\"+Inf\"} 7")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_sum 2.000125")) << m;
    EXPECT_TRUE(hasLine(m, "dhcpsnoop_trap_to_transmit_seconds_count 7")) << m;
    // Without the daemon's figures the families are left out, not zero.
    std::string none = ctl::metricsText({}, {}, 0);
    EXPECT_EQ(none.find("trap_to_transmit"), std::string::npos) << none;
    EXPECT_EQ(none.find("pending_requests"), std::string::npos) << none;
}

TEST(Metrics, NumbersAsTheTextFormatWritesThem)
{
    EXPECT_EQ(ctl::metricNumber(5e-6), "5e-06");
    EXPECT_EQ(ctl::metricNumber(0.25), "0.25");
    EXPECT_EQ(ctl::metricNumber(1.0), "1");
    EXPECT_EQ(ctl::metricNumber(1.0 / 0.0), "+Inf");
}

TEST(Metrics, CommandTakesNoArguments)
{
    ctl::Command c;
    std::string error;
    ASSERT_TRUE(ctl::parseCommand({"metrics"}, c, error)) << error;
    EXPECT_EQ(c.kind, ctl::Command::Metrics);
    EXPECT_FALSE(ctl::parseCommand({"metrics", "--json"}, c, error));
    EXPECT_NE(error.find("usage: metrics"), std::string::npos) << error;
}

TEST(Metrics, CommandAnswersFromTheBackend)
{
    ctl::Backend b;
    b.bindings = [](std::vector<ctl::Binding>& out, std::string&) {
        out = bindings({10});
        return true;
    };
    b.remove = [](const ctl::BindingKey&, std::string&) { return true; };
    b.setDebug = [](bool) {};
    b.setDebugLevel = [](uint32_t, uint32_t) { return 0u; };
    b.counters = [] { return twoPorts(); };
    b.events = [] { return std::vector<live::Event>(2); };
    ctl::Reply r = ctl::runCommand({"metrics"}, b);
    ASSERT_TRUE(r.ok) << r.body;
    EXPECT_TRUE(hasLine(r.body, "dhcpsnoop_bindings{vlan=\"10\"} 1")) << r.body;
    EXPECT_TRUE(hasLine(r.body, "dhcpsnoop_system_log_entries 2")) << r.body;
    EXPECT_EQ(r.body.find("dhcpsnoop_pending_requests"), std::string::npos) << "no occupancy without its source";
    b.occupancy = someOccupancy;
    b.latencyDistribution = someLatency;
    r = ctl::runCommand({"metrics"}, b);
    ASSERT_TRUE(r.ok) << r.body;
    EXPECT_TRUE(hasLine(r.body, "dhcpsnoop_main_queue_depth 2")) << r.body;
    EXPECT_TRUE(hasLine(r.body, "dhcpsnoop_trap_to_transmit_seconds_count 7")) << r.body;

    b.bindings = [](std::vector<ctl::Binding>&, std::string& error) {
        error = "the module is not running";
        return false;
    };
    r = ctl::runCommand({"metrics"}, b);
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.body, "metrics: the module is not running");
}

TEST(Metrics, PromtoolAcceptsTheText)
{
    std::string tool = promtool();
    if (tool.empty())
        GTEST_SKIP() << "promtool not found (set DHCPSNOOP_PROMTOOL; Debian package prometheus)";
    char path[] = "/tmp/dhcpsnoop-metrics-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    live::PortCounters odd;
    odd.name = "po1";
    odd.interface = "bond\"0";
    odd.dropped["VLAN 5 not carried by the port"] = 2;
    std::vector<live::PortCounters> ports = twoPorts();
    ports.push_back(odd);
    live::SaveStatus save;
    save.savesCompleted = 3;
    live::Occupancy occupancy = someOccupancy();
    live::LatencyDistribution latency = someLatency();
    ctl::MetricExtras extras;
    extras.save = &save;
    extras.occupancy = &occupancy;
    extras.latency = &latency;
    std::ofstream(path) << ctl::metricsText(ports, bindings({10, 20}), 4, extras);
    std::string cmd = tool + " check metrics < " + path + " > " + path + ".out 2>&1";
    int rc = system(cmd.c_str());
    std::ifstream in(std::string(path) + ".out");
    std::string report((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    unlink(path);
    unlink((std::string(path) + ".out").c_str());
    EXPECT_TRUE(WIFEXITED(rc) && WEXITSTATUS(rc) == 0) << report;
    EXPECT_EQ(report, "") << report;
}

}  // namespace
