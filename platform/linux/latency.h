// How long trapped frames take from the trap to their first transmission:
// a histogram of fixed buckets (log-linear, 16 a power of two, so a
// percentile is within 1/16 of the truth), recorded on the frame path
// without allocation. The caller serialises.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace live {

class LatencyHistogram {
public:
    void record(uint64_t ns);
    void clear();
    uint64_t count() const { return count_; }
    uint64_t maxNs() const { return max_; }
    uint64_t sumNs() const { return sum_; }
    // Values recorded in buckets that end at or below ns: those certainly
    // no longer than ns (a bucket across ns counts above it).
    uint64_t countAtMost(uint64_t ns) const;
    // The upper end of the bucket holding the q-th fraction (0 < q <= 1) of
    // the values recorded; 0 when there are none.
    uint64_t quantileNs(double q) const;

    static constexpr size_t kSub = 16;  // buckets a power of two
    static constexpr size_t kBuckets = kSub + 54 * kSub;
    static size_t bucketOf(uint64_t ns);
    static uint64_t upperNs(size_t bucket);

private:
    std::array<uint64_t, kBuckets> buckets_{};
    uint64_t count_ = 0;
    uint64_t max_ = 0;
    uint64_t sum_ = 0;
};

}  // namespace live
