// The daemon's counters and bindings as Prometheus metrics: the text
// exposition format (version 0.0.4) of `dhcpsnoopctl metrics`, and the
// families dhcpsnoopd --metrics serves over HTTP.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "platform/linux/live.h"
#include "tools/daemon/command.h"

namespace ctl {

struct MetricSample {
    MetricSample() = default;
    MetricSample(std::vector<std::pair<std::string, std::string>> l, uint64_t v) : labels(std::move(l)), value(v) {}
    std::vector<std::pair<std::string, std::string>> labels;
    uint64_t value = 0;  // of a histogram: its count
    // A histogram's upper bounds (seconds) and cumulative counts, and the
    // sum of its values.
    std::vector<std::pair<double, uint64_t>> buckets;
    double sum = 0;
};

struct MetricFamily {
    MetricFamily() = default;
    MetricFamily(std::string n, std::string h, bool c, std::vector<MetricSample> s)
        : name(std::move(n)), help(std::move(h)), counter(c), samples(std::move(s))
    {
    }
    std::string name;
    std::string help;
    bool counter = true;  // else a gauge (or a histogram)
    std::vector<MetricSample> samples;
    bool histogram = false;
};

// What only the running daemon can tell; absent parts are left out.
struct MetricExtras {
    const live::SaveStatus* save = nullptr;
    const live::Occupancy* occupancy = nullptr;
    const live::LatencyDistribution* latency = nullptr;
};

// A label value with backslash, double quote and newline escaped.
std::string metricLabel(const std::string& value);

// Per port: frames received and sent, DHCP frames trapped and forwarded,
// source-guard drops, DHCP drops by reason; bindings per VLAN; system-log
// entries kept; with save given, the binding file's saves, failures and
// whether saving goes on; with the extras, pending requests (in all and per
// port), the element and packet pools and the main queue in use, and the
// trap-to-transmit latency histogram.
std::vector<MetricFamily> metricFamilies(const std::vector<live::PortCounters>& counters,
                                         const std::vector<Binding>& bindings, size_t events,
                                         const live::SaveStatus* save = nullptr);
std::vector<MetricFamily> metricFamilies(const std::vector<live::PortCounters>& counters,
                                         const std::vector<Binding>& bindings, size_t events,
                                         const MetricExtras& extras);
std::string metricsText(const std::vector<MetricFamily>& families);
std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events, const live::SaveStatus* save = nullptr);
std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events, const MetricExtras& extras);
// A bound or sum as the text format writes it ("2.5e-05", "1", "+Inf").
std::string metricNumber(double v);

}  // namespace ctl
