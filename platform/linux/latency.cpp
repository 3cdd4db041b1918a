#include "platform/linux/latency.h"

#include <algorithm>

namespace live {

namespace {

// Values below 2^kLinearBits ns fall into kSub equal buckets.
constexpr unsigned kLinearBits = 4;

unsigned log2Floor(uint64_t v)
{
    unsigned n = 0;
    while (v >>= 1)
        ++n;
    return n;
}

}  // namespace

size_t LatencyHistogram::bucketOf(uint64_t ns)
{
    if (ns < (1u << kLinearBits))
        return (size_t)ns;
    unsigned e = log2Floor(ns);  // >= kLinearBits
    size_t sub = (size_t)((ns >> (e - kLinearBits)) & (kSub - 1));
    size_t b = kSub + (size_t)(e - kLinearBits) * kSub + sub;
    return std::min(b, kBuckets - 1);
}

uint64_t LatencyHistogram::upperNs(size_t bucket)
{
    if (bucket < kSub)
        return bucket + 1;
    size_t e = (bucket - kSub) / kSub + kLinearBits;
    uint64_t sub = (bucket - kSub) % kSub;
    return ((kSub + sub + 1) << (e - kLinearBits));
}

void LatencyHistogram::record(uint64_t ns)
{
    ++buckets_[bucketOf(ns)];
    ++count_;
    max_ = std::max(max_, ns);
    sum_ += ns;
}

void LatencyHistogram::clear()
{
    buckets_.fill(0);
    count_ = 0;
    max_ = 0;
    sum_ = 0;
}

uint64_t LatencyHistogram::countAtMost(uint64_t ns) const
{
    uint64_t n = 0;
    // upperNs is the first value past the bucket.
    for (size_t b = 0; b < kBuckets && upperNs(b) <= ns + 1; ++b)
        n += buckets_[b];
    return n;
}

uint64_t LatencyHistogram::quantileNs(double q) const
{
    if (count_ == 0)
        return 0;
    q = std::min(std::max(q, 0.0), 1.0);
    uint64_t rank = (uint64_t)(q * (double)count_ + 0.999999);
    rank = std::max<uint64_t>(rank, 1);
    uint64_t seen = 0;
    for (size_t b = 0; b < kBuckets; ++b) {
        seen += buckets_[b];
        if (seen >= rank)
            return std::min(upperNs(b), max_);
    }
    return max_;
}

}  // namespace live
