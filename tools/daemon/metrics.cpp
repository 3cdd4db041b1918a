#include "tools/daemon/metrics.h"

#include <cmath>
#include <cstdio>
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

std::string metricNumber(double v)
{
    if (std::isinf(v))
        return v > 0 ? "+Inf" : "-Inf";
    if (std::isnan(v))
        return "NaN";
    char buf[32];
    snprintf(buf, sizeof buf, "%.9g", v);
    return buf;
}

std::vector<MetricFamily> metricFamilies(const std::vector<live::PortCounters>& counters,
                                         const std::vector<Binding>& bindings, size_t events,
                                         const live::SaveStatus* save)
{
    MetricExtras extras;
    extras.save = save;
    return metricFamilies(counters, bindings, events, extras);
}

std::vector<MetricFamily> metricFamilies(const std::vector<live::PortCounters>& counters,
                                         const std::vector<Binding>& bindings, size_t events,
                                         const MetricExtras& extras)
{
    const live::SaveStatus* save = extras.save;
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
    if (const live::Occupancy* o = extras.occupancy) {
        out.push_back({"dhcpsnoop_pending_requests", "Client requests the module holds until their answer.", false,
                       {{{}, o->pendingRequests}}});
        MetricFamily perPort{"dhcpsnoop_port_pending_requests",
                             "Client requests of the port the module holds until their answer.", false, {}};
        for (const live::PortCounters& c : counters) {
            auto it = o->pendingByPort.find(c.name);
            perPort.samples.push_back({port(c), it == o->pendingByPort.end() ? 0u : it->second});
        }
        out.push_back(perPort);
        out.push_back({"dhcpsnoop_element_pool_in_use",
                       "Elements of the module's pool in use (bindings and pending requests).", false,
                       {{{}, o->elementsInUse}}});
        out.push_back({"dhcpsnoop_element_pool_size", "Elements of the module's pool.", false,
                       {{{}, o->elementPool}}});
        out.push_back({"dhcpsnoop_packet_pool_in_use", "Packet-pool buffers holding trapped frames.", false,
                       {{{}, o->packetBuffersInUse}}});
        out.push_back({"dhcpsnoop_packet_pool_size", "Buffers of the packet pool.", false, {{{}, o->packetPool}}});
        out.push_back({"dhcpsnoop_main_queue_depth", "Records waiting in the module's main queue.", false,
                       {{{}, o->mainQueueWaiting}}});
        out.push_back({"dhcpsnoop_main_queue_capacity", "Records the module's main queue holds.", false,
                       {{{}, o->mainQueueCapacity}}});
    }
    if (const live::LatencyDistribution* l = extras.latency) {
        MetricFamily f{"dhcpsnoop_trap_to_transmit_seconds",
                       "Trapped DHCP frames from the trap to their first transmission by the module.", false, {}};
        f.histogram = true;
        MetricSample s;
        for (size_t i = 0; i < l->boundsSec.size() && i < l->atMost.size(); ++i)
            s.buckets.emplace_back(l->boundsSec[i], l->atMost[i]);
        s.value = l->count;
        s.sum = l->sumSec;
        f.samples.push_back(s);
        out.push_back(f);
    }
    return out;
}

std::string metricsText(const std::vector<MetricFamily>& families)
{
    std::string out;
    for (const MetricFamily& f : families) {
        out += "# HELP " + f.name + " " + f.help + "\n";
        out += "# TYPE " + f.name + (f.histogram ? " histogram\n" : f.counter ? " counter\n" : " gauge\n");
        auto labelsOf = [](const std::vector<std::pair<std::string, std::string>>& labels) {
            std::string t;
            for (size_t i = 0; i < labels.size(); ++i)
                t += (i ? "," : "") + labels[i].first + "=\"" + metricLabel(labels[i].second) + "\"";
            return t;
        };
        if (f.histogram) {
            for (const MetricSample& s : f.samples) {
                std::string l = labelsOf(s.labels);
                std::string lc = l.empty() ? "" : l + ",";
                for (const auto& b : s.buckets)
                    out += f.name + "_bucket{" + lc + "le=\"" + metricNumber(b.first) + "\"} " +
                           std::to_string(b.second) + "\n";
                out += f.name + "_bucket{" + lc + "le=\"+Inf\"} " + std::to_string(s.value) + "\n";
                std::string braces = l.empty() ? "" : "{" + l + "}";
                out += f.name + "_sum" + braces + " " + metricNumber(s.sum) + "\n";
                out += f.name + "_count" + braces + " " + std::to_string(s.value) + "\n";
            }
            continue;
        }
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

std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events, const MetricExtras& extras)
{
    return metricsText(metricFamilies(counters, bindings, events, extras));
}

}  // namespace ctl
