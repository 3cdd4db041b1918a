// The daemon's counters and bindings in the Prometheus text exposition
// format (version 0.0.4), for `dhcpsnoopctl metrics` and a scraper.
#pragma once

#include <string>
#include <vector>

#include "platform/linux/live.h"
#include "tools/daemon/command.h"

namespace ctl {

// A label value with backslash, double quote and newline escaped.
std::string metricLabel(const std::string& value);

// Per port: frames received and sent, DHCP frames trapped and forwarded,
// source-guard drops, DHCP drops by reason; bindings per VLAN; system-log
// entries kept.
std::string metricsText(const std::vector<live::PortCounters>& counters, const std::vector<Binding>& bindings,
                        size_t events);

}  // namespace ctl
