#include "tools/daemon/metrics_http.h"

#ifdef DHCPSNOOP_HAVE_PROMETHEUS
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>
#endif

#include <exception>
#include <limits>

namespace ctl {

#ifdef DHCPSNOOP_HAVE_PROMETHEUS
namespace {

class Collector : public prometheus::Collectable {
public:
    explicit Collector(MetricsHttp::Collect collect) : collect_(std::move(collect)) {}
    std::vector<prometheus::MetricFamily> Collect() const override
    {
        std::vector<prometheus::MetricFamily> out;
        for (const MetricFamily& f : collect_()) {
            prometheus::MetricFamily pf;
            pf.name = f.name;
            pf.help = f.help;
            pf.type = f.histogram ? prometheus::MetricType::Histogram
                      : f.counter ? prometheus::MetricType::Counter
                                  : prometheus::MetricType::Gauge;
            for (const MetricSample& s : f.samples) {
                prometheus::ClientMetric m;
                for (const auto& l : s.labels)
                    m.label.push_back({l.first, l.second});
                if (f.histogram) {
                    m.histogram.sample_count = s.value;
                    m.histogram.sample_sum = s.sum;
                    for (const auto& b : s.buckets) {
                        prometheus::ClientMetric::Bucket pb;
                        pb.cumulative_count = b.second;
                        pb.upper_bound = b.first;
                        m.histogram.bucket.push_back(pb);
                    }
                    // Last, as in the library's own histograms.
                    prometheus::ClientMetric::Bucket inf;
                    inf.cumulative_count = s.value;
                    inf.upper_bound = std::numeric_limits<double>::infinity();
                    m.histogram.bucket.push_back(inf);
                } else if (f.counter)
                    m.counter.value = (double)s.value;
                else
                    m.gauge.value = (double)s.value;
                pf.metric.push_back(m);
            }
            out.push_back(pf);
        }
        return out;
    }

private:
    MetricsHttp::Collect collect_;
};

}  // namespace

struct MetricsHttp::Impl {
    std::unique_ptr<prometheus::Exposer> exposer;
    std::shared_ptr<Collector> collector;
};

bool metricsHttpSupported() { return true; }

MetricsHttp::MetricsHttp() : impl_(new Impl) {}
MetricsHttp::~MetricsHttp() { stop(); }

bool MetricsHttp::start(const std::string& address, Collect collect, std::string& error)
{
    if (address.empty() || address.find(':') == std::string::npos) {
        error = "--metrics " + address + ": expected ADDRESS:PORT";
        return false;
    }
    try {
        // Two threads: a scrape never waits for another one's slow client.
        impl_->exposer.reset(new prometheus::Exposer(address, 2));
        impl_->collector = std::make_shared<Collector>(std::move(collect));
        impl_->exposer->RegisterCollectable(impl_->collector, "/metrics");
    } catch (const std::exception& e) {
        impl_->exposer.reset();
        error = "--metrics " + address + ": " + e.what();
        return false;
    }
    return true;
}

void MetricsHttp::stop()
{
    if (impl_)
        impl_->exposer.reset();
}

#else

struct MetricsHttp::Impl {};
bool metricsHttpSupported() { return false; }
MetricsHttp::MetricsHttp() : impl_(new Impl) {}
MetricsHttp::~MetricsHttp() = default;
bool MetricsHttp::start(const std::string& address, Collect, std::string& error)
{
    error = "--metrics " + address + ": this dhcpsnoopd was built without prometheus-cpp";
    return false;
}
void MetricsHttp::stop() {}

#endif

}  // namespace ctl
