// dhcpsnoopd --metrics ADDRESS:PORT: /metrics over HTTP for Prometheus
// (prometheus-cpp's exposer), the families of `dhcpsnoopctl metrics`.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/daemon/metrics.h"

namespace ctl {

// True when this build can serve metrics (linked with prometheus-cpp).
bool metricsHttpSupported();

class MetricsHttp {
public:
    using Collect = std::function<std::vector<MetricFamily>()>;
    MetricsHttp();
    ~MetricsHttp();
    MetricsHttp(const MetricsHttp&) = delete;
    MetricsHttp& operator=(const MetricsHttp&) = delete;

    // Listens on ADDRESS:PORT ("127.0.0.1:9817", "[::1]:9817"); collect runs
    // on the server's threads at every scrape.
    bool start(const std::string& address, Collect collect, std::string& error);
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace ctl
