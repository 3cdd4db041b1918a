#include "tools/daemon/metrics.h"

#include <map>

namespace ctl {

std::string metricLabel(const std::string& value)
{
    std::string out;
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

namespace {

void family(std::string& out, const char* name, const char* type, const char* help)
{
    out += std::string("# HELP ") + name + " " + help + "\n";
    out += std::string("# TYPE ") + name + " " + type + "\n";
}

std::string portLabels(const live::PortCounters& c)
{
    return "port=\"" + metricLabel(c.name) + "\",interface=\"" + metricLabel(c.interface) + "\"";
}

}  // namespace

std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events)
{
    std::string out;
    struct PortCounter {
        const char* name;
        const char* help;
        uint64_t live::PortCounters::*field;
    };
    static const PortCounter kPort[] = {
        {"dhcpsnoop_port_received_frames_total", "Frames received on the port.", &live::PortCounters::rxFrames},
        {"dhcpsnoop_port_sent_frames_total", "Frames sent on the port.", &live::PortCounters::txFrames},
        {"dhcpsnoop_port_dhcp_trapped_total", "DHCP frames received on the port and handed to the module.",
         &live::PortCounters::trapped},
        {"dhcpsnoop_port_dhcp_forwarded_total", "Trapped DHCP frames of the port the module sent on.",
         &live::PortCounters::dhcpForwarded},
        {"dhcpsnoop_port_source_guard_dropped_total",
         "IPv4 and ARP frames of the port refused by IP source guard for want of a binding.",
         &live::PortCounters::sourceGuardDropped},
    };
    for (const PortCounter& pc : kPort) {
        family(out, pc.name, "counter", pc.help);
        for (const live::PortCounters& c : counters)
            out += std::string(pc.name) + "{" + portLabels(c) + "} " + std::to_string(c.*pc.field) + "\n";
    }
    family(out, "dhcpsnoop_port_dhcp_dropped_total", "counter",
           "DHCP frames of the port not sent on, by the reason the module or the switch gave.");
    for (const live::PortCounters& c : counters) {
        for (const auto& d : c.dropped)
            out += "dhcpsnoop_port_dhcp_dropped_total{" + portLabels(c) + ",reason=\"" + metricLabel(d.first) +
                   "\"} " + std::to_string(d.second) + "\n";
    }
    std::map<uint16_t, size_t> perVlan;
    for (const Binding& b : bindings)
        ++perVlan[b.vlan];
    family(out, "dhcpsnoop_bindings", "gauge", "Dynamic bindings, by VLAN.");
    for (const auto& v : perVlan)
        out += "dhcpsnoop_bindings{vlan=\"" + std::to_string(v.first) + "\"} " + std::to_string(v.second) + "\n";
    family(out, "dhcpsnoop_system_log_entries", "gauge", "System-log entries the daemon keeps for events.");
    out += "dhcpsnoop_system_log_entries " + std::to_string(events) + "\n";
    return out;
}

}  // namespace ctl
