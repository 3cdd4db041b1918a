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
    std::vector<std::pair<std::string, std::string>> labels;
    uint64_t value = 0;
};

struct MetricFamily {
    std::string name;
    std::string help;
    bool counter = true;  // else a gauge
    std::vector<MetricSample> samples;
};

// A label value with backslash, double quote and newline escaped.
std::string metricLabel(const std::string& value);

// Per port: frames received and sent, DHCP frames trapped and forwarded,
// source-guard drops, DHCP drops by reason; bindings per VLAN; system-log
// entries kept; with save given, the binding file's saves, failures and
// whether saving goes on.
std::vector<MetricFamily> metricFamilies(const std::vector<live::PortCounters>& counters,
                                         const std::vector<Binding>& bindings, size_t events,
                                         const live::SaveStatus* save = nullptr);
std::string metricsText(const std::vector<MetricFamily>& families);
std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events, const live::SaveStatus* save = nullptr);

}  // namespace ctl
