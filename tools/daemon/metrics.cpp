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

std::vector<MetricFamily> metricFamilies(const std::vector<live::PortCounters>& counters,
                                         const std::vector<Binding>& bindings, size_t events,
                                         const live::SaveStatus* save)
{
    std::vector<MetricFamily> out;
    auto port = [](const live::PortCounters& c) {
        return std::vector<std::pair<std::string, std::string>>{{"port", c.name}, {"interface", c.interface}};
    };
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
        MetricFamily f{pc.name, pc.help, true, {}};
        for (const live::PortCounters& c : counters)
            f.samples.push_back({port(c), c.*pc.field});
        out.push_back(f);
    }
    MetricFamily drops{"dhcpsnoop_port_dhcp_dropped_total",
                       "DHCP frames of the port not sent on, by the reason the module or the switch gave.", true, {}};
    for (const live::PortCounters& c : counters) {
        for (const auto& d : c.dropped) {
            MetricSample s{port(c), d.second};
            s.labels.emplace_back("reason", d.first);
            drops.samples.push_back(s);
        }
    }
    out.push_back(drops);
    std::map<uint16_t, uint64_t> perVlan;
    for (const Binding& b : bindings)
        ++perVlan[b.vlan];
    MetricFamily bound{"dhcpsnoop_bindings", "Dynamic bindings, by VLAN.", false, {}};
    for (const auto& v : perVlan)
        bound.samples.push_back({{{"vlan", std::to_string(v.first)}}, v.second});
    out.push_back(bound);
    out.push_back({"dhcpsnoop_system_log_entries", "System-log entries the daemon keeps for events.", false,
                   {{{}, (uint64_t)events}}});
    if (save) {
        out.push_back({"dhcpsnoop_binding_file_saves_total", "Binding-file saves completed.", true,
                       {{{}, save->savesCompleted}}});
        out.push_back({"dhcpsnoop_binding_file_save_failures_total",
                       "Binding-file saves that failed (saving then stops until SIGHUP).", true,
                       {{{}, save->saveFailures}}});
        out.push_back({"dhcpsnoop_binding_file_saving", "1 while binding-file changes are saved, 0 after a failed save.",
                       false, {{{}, (uint64_t)(save->saving ? 1 : 0)}}});
    }
    return out;
}

std::string metricsText(const std::vector<MetricFamily>& families)
{
    std::string out;
    for (const MetricFamily& f : families) {
        out += "# HELP " + f.name + " " + f.help + "\n";
        out += "# TYPE " + f.name + (f.counter ? " counter\n" : " gauge\n");
        for (const MetricSample& s : f.samples) {
            out += f.name;
            if (!s.labels.empty()) {
                out += "{";
                for (size_t i = 0; i < s.labels.size(); ++i)
                    out += (i ? "," : "") + s.labels[i].first + "=\"" + metricLabel(s.labels[i].second) + "\"";
                out += "}";
            }
            out += " " + std::to_string(s.value) + "\n";
        }
    }
    return out;
}

std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events, const live::SaveStatus* save)
{
    return metricsText(metricFamilies(counters, bindings, events, save));
}

}  // namespace ctl
